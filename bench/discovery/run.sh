#!/bin/sh
# Extension discovery over 10,000 installed manifests: the query cold and warm, against reading
# the same files with cat (the I/O floor). Usage: bench/discovery/run.sh BUILD_DIR [COUNT]
#
# "Cold" drops the registry's in-process caches before each run; the kernel's page cache cannot
# be dropped without root, so both the query and cat read from memory.
set -eu
build=${1:?usage: run.sh BUILD_DIR [COUNT]}
count=${2:-10000}
bin="$build/bench/discovery/bench_discovery"
[ -x "$bin" ] || { echo "run.sh: $bin is not built" >&2; exit 1; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$bin" generate "$dir/extensions" "$count"
echo "extension discovery, $count manifests ($(du -sh "$dir/extensions" | cut -f1) on disk)"
# cat floor: one process reading every manifest, as the registry does (best of 5).
best=""
for _ in 1 2 3 4 5; do
    start=$(date +%s%N)
    find "$dir/extensions" -name '*.json' -exec cat {} + >/dev/null
    ms=$(( ($(date +%s%N) - start) / 1000000 ))
    if [ -z "$best" ] || [ "$ms" -lt "$best" ]; then best=$ms; fi
done
echo "cat   floor: fastest $best ms over 5 runs (find + cat of every manifest)"
"$bin" query "$dir/extensions" 5
