#!/usr/bin/env bash
# mutate.sh [options] RESULTS: a mutation run over src/.
#
# Reads a list of mutants (default scripts/mutants.tsv), applies each one
# alone to its source file, builds only the test programs that mutant names
# in a build folder of its own, runs them and records whether a test failed
# (killed) or all passed (survived). A mutant whose original text does not
# occur exactly once in its file is "stale"; one that does not build is
# "invalid" (neither counts in the kill rate). A run that ends by timeout
# counts as killed. The file is restored from a saved copy after every
# mutant and on any exit, and the run refuses to start while src/ has
# uncommitted changes.
#
# Writes one TSV line per mutant and a totals line to RESULTS (and stdout).
#
# Options:
#   --list FILE      the mutant list (default scripts/mutants.tsv)
#   --build DIR      the build folder (default build-mutate; configured when
#                    missing: RelWithDebInfo, no sanitizers, no benchmarks)
#   --only ID[,ID]   run only these mutants
#   --timeout SECS   bound on each test program's run (default 120)
#   --no-baseline    skip the check that every named test passes unmutated
#   --propose FILE   print candidate mutants for FILE (comparisons, bounds,
#                    early returns) as list rows to copy and edit; runs none
#
# List format (tab-separated, '#' starts a comment line):
#   id  area  kind  file  original  replacement  tests  note
# kind is one of: comparison, dropped, off-by-one, constant. `original` is an
# exact snippet that must occur once in `file`; `replacement` stands in for
# it (\t, \n and \\ are escapes in both; an empty replacement drops the
# snippet).
# `tests` is a space-separated list of TARGET or TARGET:GTEST_FILTER.
# `note` says what the mutant breaks, or why a survivor is equivalent.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

list=scripts/mutants.tsv
build=build-mutate
only=""
timeout_s=120
baseline=1
propose=""
results=""
while [ $# -gt 0 ]; do
  case $1 in
    --list) list=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --only) only=",$2,"; shift 2 ;;
    --timeout) timeout_s=$2; shift 2 ;;
    --no-baseline) baseline=0; shift ;;
    --propose) propose=$2; shift 2 ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    -*) echo "mutate: unknown option $1" >&2; exit 2 ;;
    *) results=$1; shift ;;
  esac
done

if [ -n "$propose" ]; then
  # Lines that hold a comparison, a numeric bound or an early return: the
  # places where a flipped or shifted test changes an answer. Log text and
  # comments are left out.
  grep -nE '(<=|>=|[^<>-]<[^<]|[^<>-]>[^>=]|==|!=|return (false|true|-1|nullptr|std::nullopt)|\b[0-9]{2,}\b)' \
    "$propose" | grep -vE '^\s*[0-9]+:\s*(//|#include)|logf?\(|"[^"]*(<|>)[^"]*"' |
    while IFS= read -r hit; do
      line=${hit%%:*}
      text=$(printf '%s' "${hit#*:}" | sed 's/^[[:space:]]*//')
      printf 'ID\t%s\tKIND\t%s\t%s\tREPLACEMENT\tTARGET\t# line %s\n' \
        "$(echo "$propose" | cut -d/ -f2)" "$propose" "$text" "$line"
    done
  exit 0
fi

[ -n "$results" ] || { echo "usage: mutate.sh [options] RESULTS (see --help)" >&2; exit 2; }
[ -f "$list" ] || { echo "mutate: no list $list" >&2; exit 2; }
if [ -n "$(git status --porcelain -- src/)" ]; then
  echo "mutate: src/ has uncommitted changes; commit or stash them first" >&2
  git status --short -- src/ >&2
  exit 2
fi
command -v renice >/dev/null && renice -n 10 $$ >/dev/null 2>&1 || true

# The file under mutation and its saved copy; restored on every way out.
# The restored file takes a new time stamp: with its old one it would look
# older than the mutant's object, and the build would keep the mutant.
saved=$(mktemp)
mutated=""
restore() {
  if [ -n "$mutated" ]; then
    cp "$saved" "$mutated"
    touch "$mutated"
    mutated=""
  fi
}
trap 'restore; rm -f "$saved"' EXIT
trap 'restore; exit 130' INT TERM HUP

# apply FILE ORIGINAL REPLACEMENT: replaces the one occurrence of ORIGINAL;
# exits 3 when it occurs zero or several times (the list is stale there).
apply() {
  python3 - "$@" <<'EOF'
import sys
path, original, replacement = sys.argv[1:4]
import re
unescape = lambda s: re.sub(r'\\(.)', lambda m: {'t': '\t', 'n': '\n'}.get(m[1], m[1]), s)
original, replacement = unescape(original), unescape(replacement)
text = open(path, encoding='utf-8').read()
if not original or text.count(original) != 1:
    sys.exit(3)
open(path, 'w', encoding='utf-8').write(text.replace(original, replacement, 1))
EOF
}

if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARVEL_SANITIZE= \
    -DQUARVEL_BUILD_BENCH=OFF -DQUARVEL_BUILD_GUI=OFF >/dev/null
fi

# The list's rows, after --only.
rows=()
while IFS= read -r row; do
  case $row in ''|'#'*) continue ;; esac
  id=${row%%$'\t'*}
  if [ -n "$only" ] && [[ $only != *",$id,"* ]]; then continue; fi
  rows+=("$row")
done <"$list"
[ ${#rows[@]} -gt 0 ] || { echo "mutate: no mutants selected" >&2; exit 2; }

targets_of() {  # the build targets of a tests field
  local t
  for t in $1; do echo "${t%%:*}"; done | sort -u
}
binary_of() {
  find "$build/tests" -type f -name "$1" -perm -u+x -print -quit
}
# run_tests TESTS: 0 when every named program passes, 1 when one fails.
run_tests() {
  local t target filter bin
  for t in $1; do
    target=${t%%:*}
    filter='*'
    [ "$t" != "$target" ] && filter=${t#*:}
    bin=$(binary_of "$target")
    [ -n "$bin" ] || return 1
    (cd "$build" && QT_QPA_PLATFORM=offscreen GTEST_FAIL_FAST=1 \
      timeout -k 10 "$timeout_s" "$root/$bin" --gtest_filter="$filter" --gtest_brief=1 \
      >"$root/$build/mutate-test.log" 2>&1) || return 1
  done
  return 0
}

# Fields split on the unit separator, not on tabs, which read would fold
# together and so lose an empty replacement.
fields() { IFS=$'\037' read -r "$@"; }
us() { printf '%s' "${1//$'\t'/$'\037'}"; }
all_tests=$(for row in "${rows[@]}"; do fields _ _ _ _ _ _ tests _ <<<"$(us "$row")"; echo "$tests"; done)
mapfile -t all_targets < <(for t in $all_tests; do echo "${t%%:*}"; done | sort -u)
# A run cut short (power, kill -9) can leave a mutant's object behind a
# restored source; new time stamps on every listed file rebuild them.
for row in "${rows[@]}"; do fields _ _ _ file _ <<<"$(us "$row")"; touch "$file"; done
echo "mutate: building ${#all_targets[@]} test programs in $build"
cmake --build "$build" -j"$(nproc)" --target "${all_targets[@]}" >"$build/mutate-build.log" 2>&1 ||
  { tail -n 30 "$build/mutate-build.log"; echo "mutate: the unmutated tree does not build" >&2; exit 1; }
if [ $baseline = 1 ]; then
  echo "mutate: checking the named tests pass unmutated"
  mapfile -t distinct < <(for row in "${rows[@]}"; do
    fields _ _ _ _ _ _ tests _ <<<"$(us "$row")"; for t in $tests; do echo "$t"; done; done | sort -u)
  for t in "${distinct[@]}"; do
    run_tests "$t" || { tail -n 30 "$build/mutate-test.log"; echo "mutate: $t fails unmutated" >&2; exit 1; }
  done
fi

: >"$results"
printf 'id\tarea\tkind\tfile\tresult\tseconds\ttests\n' | tee -a "$results"
killed=0 survived=0 invalid=0 stale=0
start_all=$SECONDS
for row in "${rows[@]}"; do
  fields id area kind file original replacement tests note <<<"$(us "$row")"
  start=$SECONDS
  cp -p "$file" "$saved"
  mutated=$file
  if apply "$file" "$original" "$replacement"; then
    mapfile -t targets < <(targets_of "$tests")
    if ! cmake --build "$build" --target "${targets[@]}" >"$build/mutate-build.log" 2>&1; then
      result=invalid
    elif run_tests "$tests"; then
      result=survived
    else
      result=killed
    fi
  else
    result=stale
  fi
  restore
  case $result in
    killed) killed=$((killed + 1)) ;; survived) survived=$((survived + 1)) ;;
    invalid) invalid=$((invalid + 1)) ;; stale) stale=$((stale + 1)) ;;
  esac
  printf '%s\t%s\t%s\t%s\t%s\t%d\t%s\n' "$id" "$area" "$kind" "$file" "$result" \
    $((SECONDS - start)) "$tests" | tee -a "$results"
done
# Leave the build folder matching the restored sources.
cmake --build "$build" --target "${all_targets[@]}" >/dev/null 2>&1 || true

scored=$((killed + survived))
rate=$(awk -v k=$killed -v n=$scored 'BEGIN { printf "%.1f", n ? 100 * k / n : 0 }')
printf '# mutants %d: killed %d, survived %d, invalid %d, stale %d; kill rate %s %% (%d of %d); %d s; commit %s\n' \
  ${#rows[@]} $killed $survived $invalid $stale "$rate" $killed $scored $((SECONDS - start_all)) \
  "$(git rev-parse --short HEAD)" | tee -a "$results"
