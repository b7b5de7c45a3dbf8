#!/usr/bin/env bash
# The demo: installs what it needs, builds, starts the sandbox service with demo data on a free
# port, seals a demo KXConfig.enc, runs examples/demo against it, shows what the sandbox
# recorded and stops the sandbox. Exits 0 only when every step of the demo worked.
#
# With --gui it builds the Qt screens too and opens examples/qt_inbox (a window with the inbox,
# the message viewer and the subscription lists) instead of the console tour; arguments in
# KX_DEMO_GUI_ARGS go to that window (scripts/screenshots.sh passes --screenshots DIR).
#
#     scripts/demo.sh            (KX_DEMO_PRESET=debug to reuse a debug build)
#     scripts/demo.sh --gui      (the ui preset unless KX_DEMO_PRESET says otherwise)
set -euo pipefail
cd "$(dirname "$0")/.."

gui=false
case "${1:-}" in
    --gui) gui=true ;;
    "") ;;
    *) echo "usage: scripts/demo.sh [--gui]" >&2; exit 2 ;;
esac

if $gui; then
    preset=${KX_DEMO_PRESET:-ui}
    targets="kxconfig kxsandbox example_qt_inbox"
    echo "== Installing the Debian packages the build needs, with Qt"
    scripts/install-deps.sh --ui
else
    preset=${KX_DEMO_PRESET:-release}
    targets="kxconfig kxsandbox example_demo"
    echo "== Installing the Debian packages the build needs"
    scripts/install-deps.sh
fi
build=build/$preset

echo "== Building ($preset): $targets"
cmake --preset "$preset" > /dev/null
# shellcheck disable=SC2086
cmake --build --preset "$preset" --target $targets

work=$(mktemp -d)
sandbox_pid=""
cleanup() {
    if [ -n "$sandbox_pid" ]; then
        kill "$sandbox_pid" 2>/dev/null || true
        wait "$sandbox_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# The demo application keeps its guest and tokens in its own fresh folders.
export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache
key="demo-key-$RANDOM$RANDOM"
mkdir -p "$work/app"
cat > "$work/settings.json" <<'JSON'
{
  "appId": "com.example.demo",
  "inboxDomainId": "demo-inbox",
  "stageClientId": "demo-client", "stageClientSecret": "demo-secret",
  "prodClientId": "demo-prod-client", "prodClientSecret": "demo-prod-secret",
  "inProduction": false,
  "autoGuestEnabled": true,
  "analyticsEnabled": true,
  "analyticsSessionInterval": 90
}
JSON
echo "== Sealing the demo configuration"
"$build/tools/kxconfig/kxconfig" seal --key "$key" "$work/settings.json" -o "$work/app/KXConfig.enc"

echo "== Starting the sandbox with demo data"
"$build/tools/kxsandbox/kxsandbox" --db "$work/sandbox.db" serve --port 0 --seed \
    --config "$work/app/KXConfig.enc" --key "$key" > "$work/sandbox.log" &
sandbox_pid=$!
for _ in $(seq 100); do
    grep -q 'listening on' "$work/sandbox.log" 2>/dev/null && break
    kill -0 "$sandbox_pid" 2>/dev/null || { cat "$work/sandbox.log"; exit 1; }
    sleep 0.1
done
service=$(grep -o 'http://127.0.0.1:[0-9]*' "$work/sandbox.log" | head -n 1)
[ -n "$service" ] || { echo "the sandbox did not start" >&2; exit 1; }
echo "   $service"
echo

status=0
if $gui; then
    # shellcheck disable=SC2086
    "$build/examples/qt_inbox/example_qt_inbox" --config "$work/app/KXConfig.enc" --key "$key" \
        --service "$service" --business-unit DEMO ${KX_DEMO_GUI_ARGS:-} || status=$?
else
    "$build/examples/demo/example_demo" --config "$work/app/KXConfig.enc" --key "$key" \
        --service "$service" --business-unit DEMO || status=$?
fi

kxsandbox() { "$build/tools/kxsandbox/kxsandbox" --db "$work/sandbox.db" "$@"; }
echo
echo "== What the sandbox recorded"
kxsandbox guests --tenant DEMO
guest=$(kxsandbox guests --tenant DEMO --json |
    python3 -c 'import json,sys; g=json.load(sys.stdin); print(g[0]["externalId"] if g else "")')
if [ -n "$guest" ]; then
    echo
    kxsandbox inbox "$guest" | head -n 6
    echo
    kxsandbox sessions --guest "$guest"
fi
echo
echo "$(grep -cE '^(GET|POST|PUT|DELETE) ' "$work/sandbox.log") requests served; the last ones:"
grep -E '^(GET|POST|PUT|DELETE) ' "$work/sandbox.log" | tail -n 5 | sed 's/^/   /'

echo
echo "== Stopping the sandbox"
kill "$sandbox_pid"
wait "$sandbox_pid" || true
sandbox_pid=""
if [ "$status" -eq 0 ]; then
    echo "Demo finished: every step worked."
else
    echo "Demo failed (status $status)." >&2
fi
exit "$status"
