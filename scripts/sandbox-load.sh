#!/usr/bin/env bash
# The sandbox's load figure: wrk against the inbox page endpoint of kxsandbox and against a
# static-answer cpp-httplib endpoint serving the same bytes, 16 keep-alive connections on
# loopback, alternating, in one run. Prints a Markdown table of requests per second and p50/p99
# latency, and the ratio of the two rates.
#
#     scripts/sandbox-load.sh [BUILD_DIR] [SECONDS] [ROUNDS]    (default build/bench 10 3)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/bench}
seconds=${2:-10}
rounds=${3:-3}
sandbox=$build/tools/kxsandbox/kxsandbox
static=$build/bench/kx_static_endpoint
for program in "$sandbox" "$static"; do
    [ -x "$program" ] || { echo "missing $program: cmake --preset bench && cmake --build --preset bench" >&2; exit 1; }
done
command -v wrk >/dev/null || { echo "wrk is missing: scripts/install-deps.sh" >&2; exit 1; }

work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

cat > "$work/config.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>appId</key><string>load</string>
<key>inboxDomainId</key><string>inbox-1</string>
<key>stageClientId</key><string>load-id</string>
<key>stageClientSecret</key><string>load-secret</string>
</dict></plist>
PLIST
openssl enc -aes-256-cbc -md md5 -salt -pass pass:load-key -in "$work/config.plist" \
    -out "$work/KXConfig.enc" 2>/dev/null

"$sandbox" --db "$work/sandbox.db" serve --port 0 --seed --config "$work/KXConfig.enc" \
    --key load-key > "$work/sandbox.log" &
pids+=($!)
for _ in $(seq 100); do
    grep -q 'listening on' "$work/sandbox.log" 2>/dev/null && break
    sleep 0.1
done
base=$(grep -o 'http://127.0.0.1:[0-9]*' "$work/sandbox.log" | head -n 1)
token=$(curl -sf -d 'grant_type=client_credentials&client_id=load-id&client_secret=load-secret' \
    "$base/token" | python3 -c 'import json,sys; print(json.load(sys.stdin)["access_token"])')
guest=$(curl -sf -D - -o /dev/null -X POST -H "Authorization: BEARER $token" \
    -H 'Content-Type: application/json' -d '{}' "$base/KXFrontier-stg/guests" |
    tr -d '\r' | awk -F': ' 'tolower($1)=="newrecordid" {print $2}')
page="/KXFrontier-stg/guests/$guest/inboxes/inbox-1/messages?offset=0&limit=20"
curl -sf -H "Authorization: BEARER $token" "$base$page" > "$work/page.json"

port=$(free_port)
"$static" "$port" "$work/page.json" > /dev/null &
pids+=($!)
sleep 0.5

# wrk's summary: "Requests/sec: N" and, with --latency, "50% 1.2ms" / "99% 3.4ms".
run() {
    wrk -t2 -c16 -d"${seconds}s" --latency -H "Authorization: BEARER $token" "$1" > "$work/wrk.txt"
    local rate p50 p99
    rate=$(awk '/^Requests\/sec:/ {print $2}' "$work/wrk.txt")
    p50=$(awk '$1=="50%" {print $2}' "$work/wrk.txt")
    p99=$(awk '$1=="99%" {print $2}' "$work/wrk.txt")
    echo "$rate $p50 $p99"
}

echo "| Round | Endpoint | Requests/s | p50 | p99 |"
echo "|---|---|---|---|---|"
ratios=()
for round in $(seq "$rounds"); do
    read -r srate sp50 sp99 < <(run "http://127.0.0.1:$port$page")
    read -r krate kp50 kp99 < <(run "$base$page")
    echo "| $round | static cpp-httplib | $srate | $sp50 | $sp99 |"
    echo "| $round | kxsandbox inbox page | $krate | $kp50 | $kp99 |"
    ratios+=("$(python3 -c "print(f'{$krate/$srate:.2f}')")")
done
echo
echo "kxsandbox / static, per round: ${ratios[*]}"
echo "page body: $(wc -c < "$work/page.json") bytes, 20 records"
