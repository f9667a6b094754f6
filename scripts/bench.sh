#!/usr/bin/env bash
# Runs every benchmark: bench/<name>/run.sh BUILD_DIR, in name order, each under a header.
set -euo pipefail
build=${1:-build/default}
root=$(cd "$(dirname "$0")/.." && pwd)
status=0
for script in "$root"/bench/*/run.sh; do
    name=$(basename "$(dirname "$script")")
    printf '\n=== bench/%s ===\n' "$name"
    if ! "$script" "$build"; then
        echo "bench/$name failed" >&2
        status=1
    fi
done
exit $status
