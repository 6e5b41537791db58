#!/usr/bin/env bash
# soak.sh [BUILD_DIR]: builds the normal build (default "build") and runs
# every soak in full. ctest runs the same programs in a short form; here
# each runs long enough for a slow leak of memory or descriptors to show.
# Each soak has a section of its own below; new soaks append theirs.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
nice ./scripts/build.sh "$build"
# Every section runs even when an earlier one fails; a section marks a
# failure with failed=1 and the script's exit status reports it at the end.
failed=0
trap 'status=$?; exit $((status ? status : failed))' EXIT

# --- Update runs -------------------------------------------------------------
# 500 update runs against a loopback server that resets, stalls, trickles,
# answers error pages or is not there at all, mixed with good runs. Every run
# must end as its fault calls for with whole files; resident memory and open
# descriptors must stay flat after the warm-up. About four minutes.
echo "== update runs"
"$build/tests/soak/update_soak" "${UPDATE_SOAK_RUNS:-500}" || failed=1
