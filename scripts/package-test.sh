#!/usr/bin/env bash
# package-test.sh [BUILD]: builds the Debian package from BUILD (default
# build/) with cpack, installs it with apt-get as a user would, runs the
# installed tool, and removes the package again. Changes the system: CI
# runs it on its fresh machine; needs root or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"

(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$PWD/$build"/quarvel_*_amd64.deb | head -n 1)
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q "$deb" >/dev/null
trap 'DEBIAN_FRONTEND=noninteractive $sudo apt-get remove -y -q quarvel >/dev/null' EXIT

/usr/bin/quarvel --version | grep -q '^quarvel ' || { echo "package: quarvel does not run"; exit 1; }
/usr/bin/quarvel show samples/macfilterlist.dat >/dev/null
[ -f /usr/lib/systemd/system/quarvel-serve.service ] || [ -f /lib/systemd/system/quarvel-serve.service ] ||
  { echo "package: no service unit"; exit 1; }
dpkg -L quarvel | grep -q '/usr/share/man/man1/quarvel.1' || { echo "package: no manual"; exit 1; }
echo "package: $(basename "$deb") installs with apt-get, and quarvel runs"
