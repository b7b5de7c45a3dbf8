#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, AddressSanitizer, UndefinedBehaviorSanitizer,
# optimised with -O1, without which the parsers run about ten times slower) and runs every
# fuzz_* program for SECONDS seconds each, starting from a seed corpus generated here, the
# hand-written seeds in tests/fuzz/seeds/<target>/ and the kept corpus in
# tests/fuzz/corpus/<target>/. Exits non-zero as soon as a target reports a finding; its input is
# kept under build/fuzz/findings/<target>/.
# Targets: fuzz_json_answer (the decoder of the service's answers), fuzz_guest_parser,
# fuzz_inbox_page, fuzz_inbox_message, fuzz_inbox_domain and fuzz_list (the replies of those
# services), fuzz_push_payload (what analytics takes from a push), fuzz_config_loader (the sealed
# configuration), fuzz_salted_decryptor, fuzz_container_key and fuzz_container_password (sealed
# data) and fuzz_sandbox_request (the sandbox's reading of requests).
#
# Usage: scripts/fuzz.sh [SECONDS]   (default 30)
# Settings, for longer campaigns:
#   KX_FUZZ_TARGETS="fuzz_list fuzz_inbox_page"  only these targets (default: all)
#   KX_FUZZ_RUNS=N       also stop a target after N executions (default: no limit)
#   KX_FUZZ_MAX_LEN=N    longest input the fuzzer makes (default: libFuzzer's choice, the
#                        longest seed)
#   KX_FUZZ_KEEP=1       write what a target finds new into tests/fuzz/corpus/<target>/ and
#                        minimise that folder afterwards, so the next run starts where this
#                        one stopped (default: new inputs go to a temporary folder)
# After each target a line "== <target>: executions E, cov C, ft F, corpus N" gives libFuzzer's
# final counts (cov: covered edges, ft: features) and how many inputs the folder it writes into
# holds.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-30}"
jobs="${KX_JOBS:-2}"
runs="${KX_FUZZ_RUNS:--1}"
keep="${KX_FUZZ_KEEP:-0}"
max_len=()
if [ -n "${KX_FUZZ_MAX_LEN:-}" ]; then
    max_len=(-max_len="$KX_FUZZ_MAX_LEN")
fi

cmake --preset fuzz >/dev/null
cmake --build build/fuzz -j "$jobs"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
findings="build/fuzz/findings"
mkdir -p "$findings"

if [ -x build/fuzz/tests/fuzz/kx_fuzz_seeds ]; then
    build/fuzz/tests/fuzz/kx_fuzz_seeds "$work/seeds"
fi

targets=()
while IFS= read -r -d '' target; do
    name="$(basename "$target")"
    if [ -n "${KX_FUZZ_TARGETS:-}" ] && [[ " $KX_FUZZ_TARGETS " != *" $name "* ]]; then
        continue
    fi
    targets+=("$target")
done < <(find build/fuzz -type f -name 'fuzz_*' -perm -u+x -print0 | sort -z)
if [ "${#targets[@]}" -eq 0 ]; then
    echo "fuzz.sh: no fuzz_* programs were built${KX_FUZZ_TARGETS:+ named in KX_FUZZ_TARGETS}" >&2
    exit 1
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

for target in "${targets[@]}"; do
    name="$(basename "$target")"
    kept="tests/fuzz/corpus/$name"
    seeds="$work/seeds/$name"
    mkdir -p "$seeds" "$findings/$name"
    if [ -d "tests/fuzz/seeds/$name" ]; then
        cp tests/fuzz/seeds/"$name"/* "$seeds/"
    fi
    # libFuzzer writes new inputs into the first folder it is given and only reads the others.
    if [ "$keep" = 1 ]; then
        mkdir -p "$kept"
        corpora=("$kept" "$seeds")
    else
        mkdir -p "$work/new/$name"
        corpora=("$work/new/$name" "$seeds")
        if [ -d "$kept" ]; then
            corpora+=("$kept")
        fi
    fi
    echo "== $name: ${seconds}s"
    log="$work/$name.log"
    if ! "$target" -max_total_time="$seconds" -runs="$runs" "${max_len[@]}" -timeout=30 \
            -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$findings/$name/" \
            "${corpora[@]}" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        echo "fuzz.sh: $name found a problem; its input is in $findings/$name/" >&2
        exit 1
    fi
    grep -E '^stat::number_of_executed_units|^Done' "$log" || true
    executions="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
    last="$(grep -E '^#[0-9]+' "$log" | tail -n 1)"
    cov="$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")"
    ft="$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")"
    if [ "$keep" = 1 ]; then
        # Keep only the inputs that still add coverage, so the folder stays small.
        minimal="$work/minimal/$name"
        mkdir -p "$minimal"
        "$target" -merge=1 "${max_len[@]}" -timeout=30 -rss_limit_mb=2048 "$minimal" "$kept" \
            >"$log.merge" 2>&1
        find "$kept" -type f -delete
        find "$minimal" -type f -exec mv -t "$kept" {} +
    fi
    count="$(find "${corpora[0]}" -type f | wc -l)"
    echo "== $name: executions ${executions:-0}, cov ${cov:-0}, ft ${ft:-0}, corpus $count"
done
echo "fuzz.sh: no findings"
