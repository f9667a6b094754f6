#!/bin/sh
# Extension discovery over 10,000 installed manifests. Usage: bench/discovery/run.sh BUILD_DIR [COUNT]
#
# Figure: the first query of a new process, the folder's index in place (its NSLog line per
# extension written to /dev/null, as deployed). Floor: a new process reading every manifest once
# (open, fstat, read, close), what any query without an index must do. Both are timed inside
# their processes, alternated, RUNS (default 7) times each; medians and their ratio are printed.
# Then, in one process: the query without the index, with it, and warm, and the steps of a read
# without the index. The kernel's page cache stays warm throughout: every figure reads memory.
set -eu
build=${1:?usage: run.sh BUILD_DIR [COUNT]}
count=${2:-10000}
runs=${RUNS:-7}
bin="$build/bench/discovery/bench_discovery"
[ -x "$bin" ] || { echo "run.sh: $bin is not built" >&2; exit 1; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_CACHE_HOME="$dir/cache"
"$bin" generate "$dir/extensions" "$count"
echo "extension discovery, $count manifests ($(du -sh "$dir/extensions" | cut -f1) on disk)"
"$bin" first "$dir/extensions" >/dev/null 2>&1  # writes the index
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
firsts="" reads=""
i=0
while [ "$i" -lt "$runs" ]; do
    reads="$reads $("$bin" read "$dir/extensions" | cut -d' ' -f1)"
    firsts="$firsts $("$bin" first "$dir/extensions" 2>/dev/null | cut -d' ' -f1)"
    i=$((i + 1))
done
# shellcheck disable=SC2086
q=$(median $firsts) r=$(median $reads)
printf 'first query of a new process, indexed: %8.2f ms  (%s x the raw read; target under 2x)\n' \
    "$q" "$(awk -v q="$q" -v r="$r" 'BEGIN { printf "%.2f", q / r }')"
printf 'floor: raw read of every manifest:      %8.2f ms  (medians of %s runs each)\n' "$r" "$runs"
"$bin" query "$dir/extensions" 5
