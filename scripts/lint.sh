#!/usr/bin/env bash
# lint.sh [BUILD]: the formatting and static checks CI runs first.
# clang-format --dry-run over every C++ file must report nothing; clang-tidy
# with .clang-tidy's checks over src/ and tools/, using BUILD's compile
# database (default build/, configured when missing), must find nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

mapfile -t sources < <(git ls-files 'src/*.cc' 'src/*.h' 'include/*.h' 'tools/*.cc' 'tools/*.h' \
  'tests/*.cc' 'tests/*.h' 'bench/*.cc' 'bench/*.h')
echo "== clang-format (${#sources[@]} files)"
clang-format --dry-run --Werror "${sources[@]}"

echo "== clang-tidy"
[ -f "$build/compile_commands.json" ] || ./scripts/build.sh "$build"
# Generated sources (the window's moc and uic output) must exist first.
cmake --build "$build" -j"$(nproc)" >/dev/null
run-clang-tidy -p "$build" -j"$(nproc)" -quiet "$PWD/(src|tools)/.*\\.cc\$" >"$build/clang-tidy.log" 2>&1 ||
  { grep -E 'warning:|error:' "$build/clang-tidy.log" | sort -u; exit 1; }
echo "clang-tidy: clean"
