#!/usr/bin/env bash
# Sets everything up and runs the whole test suite: the format and static
# checks (scripts/lint.sh), a normal build, a build
# under AddressSanitizer and UndefinedBehaviorSanitizer, a build under
# ThreadSanitizer, and the fuzzers for a short while under ASan and UBSan.
# After the normal build it also installs the Debian package once
# (scripts/package-test.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh

export QT_QPA_PLATFORM=offscreen
passed=0
failed=0
# run_ctest DIR: runs the suite of one build; a failure stops the script.
run_ctest() {
  local log
  log=$(mktemp)
  local status=0
  ctest --test-dir "$1" --output-on-failure -j2 --timeout 900 | tee "$log" || status=$?
  local line
  line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1 || true)
  rm -f "$log"
  if [ -n "$line" ]; then
    local total bad
    total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
    bad=$(sed -E 's/.* passed, ([0-9]+) tests failed.*/\1/' <<<"$line")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
  fi
  [ "$status" -eq 0 ] || { echo "tests: $passed passed, $failed failed"; exit "$status"; }
}

./scripts/build.sh build
./scripts/lint.sh build
run_ctest build
# The Debian package, installed with apt-get and run (changes the machine).
./scripts/package-test.sh build

./scripts/build.sh build-asan -DQUARVEL_SANITIZE=address,undefined -DQUARVEL_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 run_ctest build-asan

./scripts/build.sh build-tsan -DQUARVEL_SANITIZE=thread -DQUARVEL_BUILD_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1 run_ctest build-tsan

./scripts/fuzz.sh "${FUZZ_SECONDS:-30}"

echo "tests: $passed passed, $failed failed"
