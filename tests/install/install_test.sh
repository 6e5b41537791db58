#!/usr/bin/env bash
# install_test.sh BUILD SOURCE: installs BUILD into a temporary prefix and
# uses it as a user and a host project would: the installed tool runs from
# there with nothing on LD_LIBRARY_PATH, and a project that asks
# find_package(Quarvel) for the library builds and runs against it.
set -euo pipefail
build=$1
source=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
unset LD_LIBRARY_PATH

tool="$prefix/bin/quarvel"
readelf -d "$tool" | grep -q 'RUNPATH.*\$ORIGIN/\.\./lib' ||
  { echo "the installed tool has no RUNPATH to its library"; exit 1; }
"$tool" --version | grep -q '^quarvel ' || { echo "the installed tool does not run"; exit 1; }
"$tool" show "$source/samples/macfilterlist.dat" >/dev/null
grep -qx "ExecStart=$prefix/bin/quarvel serve .*" "$prefix/lib/systemd/system/quarvel-serve.service" ||
  { echo "the service unit does not name the installed tool"; exit 1; }
[ -s "$prefix/share/man/man1/quarvel.1" ] && [ -s "$prefix/share/bash-completion/completions/quarvel" ] ||
  { echo "the manual or the completion is missing"; exit 1; }
if [ -e "$prefix/libexec/quarvel/quarvel-update-window" ]; then
  ldd "$prefix/libexec/quarvel/quarvel-update-window" | grep -q 'not found' &&
    { echo "the installed update window misses a library"; exit 1; }
fi

cmake -S "$source/tests/install/consumer" -B "$prefix/consumer" -G Ninja \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$prefix/consumer" >/dev/null
"$prefix/consumer/consumer"
echo "installed into $prefix: tool and find_package(Quarvel) work"
