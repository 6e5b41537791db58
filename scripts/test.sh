#!/usr/bin/env bash
# Sets everything up and runs the whole test suite: a normal build, a build
# under AddressSanitizer and UndefinedBehaviorSanitizer, and the fuzzers for
# a short while under the same sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh

export QT_QPA_PLATFORM=offscreen
# ctest prints its verdict; a failure stops the script.
./scripts/build.sh build
ctest --test-dir build --output-on-failure -j2 --timeout 600

./scripts/build.sh build-asan -DQUARVEL_SANITIZE=address,undefined -DQUARVEL_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j2 --timeout 900

./scripts/fuzz.sh "${FUZZ_SECONDS:-30}"
