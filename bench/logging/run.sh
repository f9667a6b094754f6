#!/usr/bin/env bash
# Google Benchmark of log calls that are dropped by the level or by the type (target: < 5 ns).
set -euo pipefail
build=${1:?usage: bench/logging/run.sh BUILD_DIR}
bench="$build/bench/logging/log_call_bench"
if [[ ! -x "$bench" ]]; then
    echo "skipped: $bench not built (Google Benchmark not found at configure time?)"
    exit 0
fi
"$bench" --benchmark_min_time=0.2
