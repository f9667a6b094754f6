#!/usr/bin/env bash
# The store's age walk (time to live 0: delete everything) against
#   find DIR -mindepth 1 -maxdepth 1 -delete
# on an identical copy: FILES small files (default 100000) of 100 bytes each, in one working
# directory. Each of ROUNDS rounds (default 3) prepares fresh copies and times, from the outside
# and process start included: the store with its log as deployed (one "deleting old file" line per
# entry, written to /dev/null), the store with its log types off, and find. Medians are printed,
# of the wall-clock time and of the processor time (user + system) that each process used: on a
# shared machine the second is the steadier figure, since it leaves out waiting for other work.
set -euo pipefail
build=${1:?usage: bench/filestore/run.sh BUILD_DIR}
files=${FILES:-100000}
rounds=${ROUNDS:-3}
bench="$build/bench/filestore/filestore_age_walk_bench"
[[ -x "$bench" ]] || { echo "missing $bench (build the target filestore_age_walk_bench)" >&2; exit 1; }

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
home="$root/home"
ours="$home/Library/Application Support/com.vantor.lumarod"
theirs="$root/find"

fill() {  # fill DIR: FILES files named like recordings
    mkdir -p "$1"
    (cd "$1" && seq -f 'ScreenRecording_%06g.mp4' 1 "$files" | xargs truncate -s 100)
    sync
}
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
empty() { [[ -z "$(find "$1" -mindepth 1 -print -quit)" ]] || { echo "$1 not emptied" >&2; exit 1; }; }

# timed COMMAND...: prints "wall cpu" in seconds for the command
timed() {
    local TIMEFORMAT='%R %U %S' out
    out=$( { time "$@" >/dev/null 2>/dev/null; } 2>&1 )
    awk '{ printf "%.3f %.3f", $1, $2 + $3 }' <<<"$out"
}
run_ours() {  # run_ours LOG_TYPES
    fill "$ours"
    local t
    t=$(timed env HOME="$home" LUMARO_LOG_TYPES="$1" "$bench")
    empty "$ours"
    echo "$t"
}
run_find() {
    fill "$theirs"
    local t
    t=$(timed find "$theirs" -mindepth 1 -maxdepth 1 -delete)
    empty "$theirs"
    echo "$t"
}

logged=() quiet=() found=()
echo "$files files x $rounds rounds in $root"
for ((r = 1; r <= rounds; r++)); do
    # Alternate the order so that neither side always runs on a freshly written journal.
    if ((r % 2)); then
        found+=("$(run_find)"); logged+=("$(run_ours default,error)"); quiet+=("$(run_ours none)")
    else
        quiet+=("$(run_ours none)"); logged+=("$(run_ours default,error)"); found+=("$(run_find)")
    fi
    echo "  round $r (wall cpu): store ${logged[-1]} s, store without log ${quiet[-1]} s, find ${found[-1]} s"
done
col() { local i=$1; shift; for v in "$@"; do echo "$v" | cut -d' ' -f"$i"; done; }
for i in 1 2; do
    l[i]=$(median $(col $i "${logged[@]}")) q[i]=$(median $(col $i "${quiet[@]}"))
    f[i]=$(median $(col $i "${found[@]}"))
done
ratio() { awk -v o="$1" -v f="$2" 'BEGIN { printf "%.2f", o / f }'; }
printf '%-38s %14s %14s\n' "" "wall" "cpu (user+sys)"
printf '%-38s %7s s %5sx %7s s %5sx\n' "_srDeleteAllTempFiles (log on)" "${l[1]}" "$(ratio "${l[1]}" "${f[1]}")" "${l[2]}" "$(ratio "${l[2]}" "${f[2]}")"
printf '%-38s %7s s %5sx %7s s %5sx\n' "_srDeleteAllTempFiles (log types off)" "${q[1]}" "$(ratio "${q[1]}" "${f[1]}")" "${q[2]}" "$(ratio "${q[2]}" "${f[2]}")"
printf '%-38s %7s s        %7s s\n' "floor: find -mindepth 1 -maxdepth 1 -delete" "${f[1]}" "${f[2]}"
echo "(target: the store with its log on within 1.25x of find)"
