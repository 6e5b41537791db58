#!/usr/bin/env bash
# Sets everything up and runs the main job on the bundled sample data:
# serves samples/ on loopback with `quarvel serve`, updates a fresh work
# folder from there with `quarvel update`, then reads the downloaded files
# (header versions and a few look-ups). The work folder lives in a temporary
# HOME, so nothing of the real user's is touched. Every step is bounded in
# time and the server is stopped at the end, also on failure.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
# QUARVEL_BIN runs an already built tool instead of setting up and building.
if [ -n "${QUARVEL_BIN:-}" ]; then
  quarvel=$(realpath "$QUARVEL_BIN")
else
  ./scripts/install-deps.sh
  ./scripts/build.sh build
  quarvel="$root/build/tools/quarvel"
fi

work=$(mktemp -d)
server_pid=""
cleanup() {
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill -TERM "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# A private home: settings in $XDG_CONFIG_HOME, data files in
# $XDG_DATA_HOME/Quarvel, the work folder in $HOME/Documents/.Quarvel.
export HOME="$work/home" XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data"
export XDG_DOCUMENTS_DIR="$HOME/Documents"
mkdir -p "$XDG_DOCUMENTS_DIR" "$XDG_CONFIG_HOME" "$XDG_DATA_HOME"
library="$XDG_DATA_HOME/Quarvel"

echo "== quarvel serve samples --port 0"
timeout 300 "$quarvel" serve samples --port 0 --bind 127.0.0.1 >"$work/serve.out" 2>"$work/serve.log" &
server_pid=$!
port=""
for _ in $(seq 1 100); do
  port=$(sed -n 's|^Serving .* on http://127\.0\.0\.1:\([0-9]*\)/$|\1|p' "$work/serve.out")
  [ -n "$port" ] && break
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$port" ]; then
  echo "the list server did not start:" >&2
  cat "$work/serve.log" >&2
  exit 1
fi
cat "$work/serve.out"

echo
echo "== quarvel update --server 127.0.0.1:$port"
status=0
timeout 120 "$quarvel" update --server "127.0.0.1:$port" 2>"$work/update.log" || status=$?
echo "(exit status $status; the run's log:)"
sed 's/^/  /' "$work/update.log"
[ "$status" -eq 0 ] || exit "$status"

echo
echo "== the list server's log"
sed 's/^/  /' "$work/serve.log"

echo
echo "== downloaded into $library"
ls -l "$library"

if "$quarvel" show --help >/dev/null 2>&1; then
  echo
  echo "== header versions"
  for file in macchecklist.dat macpcklist.dat macfilterlist.dat userchecklist.dat fontchecklist.dat; do
    "$quarvel" show "$library/$file" 2>/dev/null | head -n 1
  done

  echo
  echo "== look-ups"
  # The first lines of each answer: the record found and its leading fields.
  run() { echo "\$ quarvel $*"; { "$quarvel" "$@" 2>/dev/null || true; } | head -n 7 || true; echo; }
  run lookup "$library/macchecklist.dat" --exe PhotoLoom6
  run lookup "$library/macchecklist.dat" --id SW100201
  run lookup "$library/macpcklist.dat" --package PK2002
  run lookup "$library/macfilterlist.dat" --filter $'Orchard Free Tools\tClipNest\t2.2\tClipNest'
  run lookup "$library/fontchecklist.dat" --exe NuriGothic-Regular.otf
else
  echo "(quarvel show is not available in this build; the files are in place)"
fi
