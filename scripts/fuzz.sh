#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets with clang under
# AddressSanitizer and UndefinedBehaviorSanitizer and runs each for SECONDS
# (default 30) from its starting corpus. A finding fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
# Targets that run for a fixed time of their own instead: the reader and
# reopen 60 s for their own checks; a target that checks several parsers or
# commands on each input gets 30 s more for each further one (reopen: the
# four classes' look-ups; reader: `quarvel encrypt`).
declare -A target_seconds=([fuzz_reader]=90 [fuzz_reopen]=180 [fuzz_parsers]=150 \
  [fuzz_text]=60 [fuzz_data_file_commands]=60)
CC=clang CXX=clang++ ./scripts/build.sh build-fuzz -DQUARVEL_BUILD_FUZZERS=ON \
  -DQUARVEL_SANITIZE=address,undefined -DQUARVEL_BUILD_TESTS=OFF -DQUARVEL_BUILD_BENCH=OFF \
  -DQUARVEL_BUILD_GUI=OFF
shopt -s nullglob
for fuzzer in build-fuzz/tests/fuzz/fuzz_*; do
  [ -x "$fuzzer" ] || continue
  name=$(basename "$fuzzer")
  corpus="tests/fuzz/corpus/${name#fuzz_}"
  work=$(mktemp -d)
  seeds=()
  [ -d "$corpus" ] && seeds=("$corpus")
  run=${target_seconds[$name]:-$seconds}
  echo "== $name for ${run}s"
  "$fuzzer" -max_total_time="$run" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    "$work" "${seeds[@]}" 2>&1 | tail -n 8
  rm -rf "$work"
done
