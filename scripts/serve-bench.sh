#!/usr/bin/env bash
# Side by side on loopback: `quarvel serve` and nginx (with
# docs/nginx-quarvel.conf) serving the same folder, measured with wrk.
# Not part of ctest; figures go to docs/reliability.md.
#
#   scripts/serve-bench.sh [BUILD_DIR]     (default: build)
#   SECONDS_EACH=10 CONNECTIONS=50 THREADS=2 scripts/serve-bench.sh
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$repo/build}
quarvel=$build/tools/quarvel
seconds=${SECONDS_EACH:-10}
connections=${CONNECTIONS:-50}
threads=${THREADS:-2}
quarvel_port=${QUARVEL_PORT:-18481}
nginx_port=${NGINX_PORT:-18482}

for tool in wrk nginx curl; do
  command -v "$tool" >/dev/null || { echo "serve-bench: $tool is missing (scripts/install-deps.sh)" >&2; exit 1; }
done
[ -x "$quarvel" ] || { echo "serve-bench: no $quarvel; build quarvel_tool first" >&2; exit 1; }

work=$(mktemp -d /tmp/quarvel-serve-bench-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# The folder: the samples' small lists and one 51 MB file of random bytes.
files=$work/files
mkdir -p "$files"
cp "$repo"/samples/*.dat "$files"/ 2>/dev/null || true
head -c 1500 /dev/urandom >"$files/macchecklist.dat"
head -c 51000000 /dev/urandom >"$files/package.dat"
# nginx's workers run as an unprivileged user when it is started as root.
chmod 755 "$work" "$files"
chmod 644 "$files"/*

"$quarvel" serve "$files" --port "$quarvel_port" --bind 127.0.0.1 >"$work/quarvel.out" 2>"$work/quarvel.log" &
pids+=($!)

mkdir -p "$work/nginx"
sed -e "s|listen 8080;|listen 127.0.0.1:$nginx_port;|" -e "s|root /srv/quarvel/lists;|root $files;|" \
  "$repo/docs/nginx-quarvel.conf" >"$work/nginx/server.conf"
cat >"$work/nginx/nginx.conf" <<EOF
worker_processes 2;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
daemon off;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  client_body_temp_path $work/nginx;
  include $work/nginx/server.conf;
}
EOF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" &
pids+=($!)

for port in "$quarvel_port" "$nginx_port"; do
  for _ in $(seq 100); do
    curl -sf -o /dev/null "http://127.0.0.1:$port/file/keyfile60/macchecklist.dat" && break
    sleep 0.1
  done
done

run() {  # NAME PORT PATH CONNECTIONS
  local out
  out=$(wrk -t"$threads" -c"$4" -d"${seconds}s" --timeout 10s --latency "http://127.0.0.1:$2$3")
  printf '%-8s %-40s c=%-3s %s req/s, %s/s, p50 %s, p99 %s, errors %s\n' "$1" "$3" "$4" \
    "$(awk '/Requests\/sec/{print $2}' <<<"$out")" "$(awk '/Transfer\/sec/{print $2}' <<<"$out")" \
    "$(awk '$1=="50%"{print $2}' <<<"$out")" "$(awk '$1=="99%"{print $2}' <<<"$out")" \
    "$(grep -Eo 'Non-2xx or 3xx responses: [0-9]+|Socket errors: .*' <<<"$out" | tr '\n' ' ' || true)"
}

echo "wrk -t$threads -d${seconds}s on 127.0.0.1, $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
for target in "/quarvel/download/list/check/mac/" "/file/keyfile60/package.dat"; do
  c=$connections
  [ "$target" = /file/keyfile60/package.dat ] && c=$((connections < 8 ? connections : 8))
  run quarvel "$quarvel_port" "$target" "$c"
  run nginx "$nginx_port" "$target" "$c"
done
echo "quarvel serve resident memory after the runs: $(awk '/VmHWM/{print $2 " " $3 " peak"}' "/proc/${pids[0]}/status")"
