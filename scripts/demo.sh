#!/usr/bin/env bash
# The README's main job on its embedded default. For now: the recording file store's self-check,
# run against a throw-away home folder so that nothing of the user's is touched.
set -euo pipefail
build=${1:-build/default}
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
HOME="$home" "$build/programs/lumaro-filestore-selfcheck/lumaro-filestore-selfcheck"
