#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, AddressSanitizer, UndefinedBehaviorSanitizer)
# and runs every fuzz_* program for SECONDS seconds each, starting from a seed corpus generated
# here. Exits non-zero as soon as a target reports a finding; its input is kept under
# build/fuzz/findings/<target>/.
# Targets: fuzz_json_answer (the decoder of the service's answers), fuzz_guest_parser,
# fuzz_inbox_page, fuzz_inbox_message, fuzz_inbox_domain and fuzz_list (the replies of those
# services), fuzz_push_payload (what analytics takes from a push), fuzz_config_loader (the sealed
# configuration), fuzz_salted_decryptor, fuzz_container_key and fuzz_container_password (sealed
# data) and fuzz_sandbox_request (the sandbox's reading of requests). Hand-written seeds from
# tests/fuzz/seeds/<target>/ join the generated ones.
# Usage: scripts/fuzz.sh [SECONDS]   (default 30)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-30}"
jobs="${KX_JOBS:-2}"

cmake --preset fuzz >/dev/null
cmake --build build/fuzz -j "$jobs"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
findings="build/fuzz/findings"
mkdir -p "$findings"

if [ -x build/fuzz/tests/fuzz/kx_fuzz_seeds ]; then
    build/fuzz/tests/fuzz/kx_fuzz_seeds "$work/corpus"
fi

targets=()
while IFS= read -r -d '' target; do
    targets+=("$target")
done < <(find build/fuzz -type f -name 'fuzz_*' -perm -u+x -print0 | sort -z)
if [ "${#targets[@]}" -eq 0 ]; then
    echo "fuzz.sh: no fuzz_* programs were built" >&2
    exit 1
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

for target in "${targets[@]}"; do
    name="$(basename "$target")"
    mkdir -p "$work/corpus/$name" "$findings/$name"
    # Hand-written seeds (service replies as JSON) live in tests/fuzz/seeds/<target>/.
    if [ -d "tests/fuzz/seeds/$name" ]; then
        cp tests/fuzz/seeds/"$name"/* "$work/corpus/$name/"
    fi
    echo "== $name: ${seconds}s"
    if ! "$target" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
            -artifact_prefix="$findings/$name/" "$work/corpus/$name" >"$work/$name.log" 2>&1; then
        tail -n 60 "$work/$name.log" >&2
        echo "fuzz.sh: $name found a problem; its input is in $findings/$name/" >&2
        exit 1
    fi
    grep -E '^stat::number_of_executed_units|^Done' "$work/$name.log" || true
done
echo "fuzz.sh: no findings"
