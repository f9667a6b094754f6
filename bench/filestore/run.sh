#!/usr/bin/env bash
# The store's age walk (time to live 0: delete everything) against
#   find DIR -mindepth 1 -maxdepth 1 -delete
# on an identical copy: FILES small files (default 100000) of 100 bytes each, in one working
# directory. Each of ROUNDS rounds (default 3) prepares fresh copies and times, from the outside
# and process start included: the store with its log as deployed (one "deleting old file" line per
# entry, written to /dev/null), the store with its log types off, and find. Medians are printed.
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
now_ns() { date +%s%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", (b - a) / 1e9 }'; }
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
empty() { [[ -z "$(find "$1" -mindepth 1 -print -quit)" ]] || { echo "$1 not emptied" >&2; exit 1; }; }

run_ours() {  # run_ours LOG_TYPES: prints the outside time
    fill "$ours"
    local t0 t1 bytes inner
    t0=$(now_ns)
    read -r bytes inner < <(HOME="$home" LUMARO_LOG_TYPES="$1" "$bench" 2>/dev/null)
    t1=$(now_ns)
    empty "$ours"
    [[ "$bytes" == $((files * 100)) ]] || { echo "store counted $bytes bytes" >&2; exit 1; }
    secs "$t0" "$t1"
}
run_find() {
    fill "$theirs"
    local t0 t1
    t0=$(now_ns)
    find "$theirs" -mindepth 1 -maxdepth 1 -delete
    t1=$(now_ns)
    empty "$theirs"
    secs "$t0" "$t1"
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
    echo "  round $r: store ${logged[-1]} s, store without log ${quiet[-1]} s, find ${found[-1]} s"
done
l=$(median "${logged[@]}") q=$(median "${quiet[@]}") f=$(median "${found[@]}")
ratio() { awk -v o="$1" -v f="$f" 'BEGIN { printf "%.2f", o / f }'; }
printf '%-38s %7s s  %5s x find\n' "_srDeleteAllTempFiles (log on)" "$l" "$(ratio "$l")"
printf '%-38s %7s s  %5s x find\n' "_srDeleteAllTempFiles (log types off)" "$q" "$(ratio "$q")"
printf '%-38s %7s s\n' "find -mindepth 1 -maxdepth 1 -delete" "$f"
echo "(target: within 1.5x of find)"
