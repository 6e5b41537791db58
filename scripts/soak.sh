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
# As ctest runs them (tests/soak/CMakeLists.txt): without glibc's caches of
# thread stacks and per-thread heaps, whose size follows the threads' timing.
export GLIBC_TUNABLES=glibc.pthread.stack_cache_size=0:glibc.malloc.arena_max=1

# --- Update runs -------------------------------------------------------------
# 500 update runs against a loopback server that resets, stalls, trickles,
# answers error pages or is not there at all, mixed with good runs. Every run
# must end as its fault calls for with whole files; resident memory and open
# descriptors must stay flat after the warm-up. About four minutes.
echo "== update runs"
"$build/tests/soak/update_soak" "${UPDATE_SOAK_RUNS:-500}" || failed=1

# --- Data files --------------------------------------------------------------
# 10,000 cycles, each opening and saving back a generated 2,000-record check
# list (about 390 KB) and the sample package, filter and font lists through
# the public data-file classes. Every cycle must succeed and save the same
# bytes; open descriptors must stay exactly equal after the warm-up (the
# first tenth) and the last quarter's resident memory within 512 KiB of the
# first quarter's. About a minute and a half of CPU. The library's
# "N ?= N" line for every file read is left out of the output.
echo "== data files"
"$build/tests/soak/datafile_soak" "${DATAFILE_SOAK_CYCLES:-10000}" \
  2> >(grep -v '^[0-9-]* ?= [0-9]*$' >&2) || failed=1

# --- List server under load ---------------------------------------------------
# quarvel serve on the samples, as a child process on a loopback port, under
# wrk (tests/load): 200 connections for 30 seconds making the update run's
# GETs and requests that must get 404, each with a 10-second deadline and
# checked byte for byte against the files, beside 4 clients that connect and
# say nothing and 4 that send their request a byte every 200 ms. No request
# may fail or time out; the server's resident memory (the last third's peak
# within 10 % or 2 MiB of the first third's, after a 5-second warm-up) must
# stay flat, and it must give its sockets back after the load. SIGTERM, sent
# while the slow clients still hold their connections, must end it within 5
# seconds with status 0 and leave the port free for a new server. About 40
# seconds.
echo "== list server load"
python3 tests/load/list_server_load.py --quarvel "$build/tools/quarvel" --folder samples \
  --clients "${LOAD_CLIENTS:-200}" --seconds "${LOAD_SECONDS:-30}" || failed=1
