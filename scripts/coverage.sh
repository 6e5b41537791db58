#!/usr/bin/env bash
# coverage.sh [DIR]: builds the suite with gcc's coverage instrumentation,
# runs every ctest case once and prints the line and branch totals of src/
# and tools/ (gcovr). Not part of CI's run: it takes a full unoptimised
# build. The HTML report lands in DIR/coverage/index.html. Counters are
# updated atomically: the suite runs its programs, and their threads, side
# by side, and plain counters then lose counts or go negative.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
command -v gcovr >/dev/null || {
  sudo=""; [ "$(id -u)" -ne 0 ] && sudo="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends gcovr
}
dir=${1:-build-coverage}
# No compiler cache: an instrumented object names the folder its counters
# go to and carries notes of the folder it was compiled in, and the shared
# cache (its base_dir folds folders together, hash_dir is off) hands one
# build's objects to another, whose counters then land elsewhere or fail to
# match their notes ("profile mismatch"). The top-level CMakeLists sets the
# launcher as a plain variable, which hides a -D given here, so the cache is
# switched off in ccache itself.
export CCACHE_DISABLE=1
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUARVEL_BUILD_BENCH=OFF \
    -DCMAKE_CXX_FLAGS="--coverage -O0 -fprofile-update=atomic" \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage >/dev/null
fi
# A folder built before the cache was off may still hold cached objects.
if [ ! -f "$dir/.built-uncached" ]; then
  cmake --build "$dir" --target clean >/dev/null
  touch "$dir/.built-uncached"
fi
cmake --build "$dir" -j"$(nproc)"
find "$dir" -name '*.gcda' -delete
QT_QPA_PLATFORM=offscreen ctest --test-dir "$dir" -j"$(nproc)" --timeout 900 >"$dir/ctest.log" 2>&1 ||
  { tail -n 30 "$dir/ctest.log"; echo "coverage: some tests failed (see $dir/ctest.log)"; }
mkdir -p "$dir/coverage"
# Generated tables and the table generators are not code under test.
common=(--root . --object-directory "$dir" --exclude-directories '.*/CMakeFiles/[0-9.]+$'
  --exclude '.*\.inc$' --exclude 'tools/gen_.*'
  --exclude-unreachable-branches --exclude-throw-branches)
gcovr "${common[@]}" --filter 'src/' --filter 'tools/' \
  --html-details "$dir/coverage/index.html" --print-summary >"$dir/coverage/summary.txt"
cat "$dir/coverage/summary.txt"
echo "src/ alone:"
gcovr "${common[@]}" --filter 'src/' --print-summary | tail -n 3
