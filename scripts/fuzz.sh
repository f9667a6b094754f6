#!/usr/bin/env bash
# Runs every fuzz target of BUILD_DIR (the fuzz preset's) for SECONDS each, over a fresh copy of
# its seed corpus (fuzz/corpus/<target>/ copied to BUILD_DIR/corpus/<target>/), so that what the
# fuzzer adds never lands in the repository. Prints one line per target; a target that finds
# something prints its log's end and its crash input under BUILD_DIR/artifacts/, and the others
# still run. Fails at the end if any target did.
set -uo pipefail
build=${1:-build/fuzz}
seconds=${2:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/cmake/lsan.supp}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
status=0
mkdir -p "$build/artifacts" "$build/logs"
for seeds in "$root"/fuzz/corpus/*/; do
    target=$(basename "$seeds")
    corpus="$build/corpus/$target"
    log="$build/logs/$target.log"
    rm -rf "$corpus" && mkdir -p "$corpus" && cp "$seeds"* "$corpus"/
    if "$build/fuzz/${target}_fuzzer" "$corpus" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$target-" >"$log" 2>&1; then
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
        echo "fuzz/$target: ${runs:-?} runs in ${seconds} s, nothing found"
    else
        tail -n 40 "$log" >&2
        echo "fuzz/$target: FOUND SOMETHING (log: $log)" >&2
        status=1
    fi
done
exit $status
