#!/usr/bin/env bash
# Installs every build and test dependency from Debian 12's packages.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache clang libclang-rt-14-dev
  libicu-dev libcurl4-openssl-dev libglib2.0-dev qt6-base-dev
  libcli11-dev nlohmann-json3-dev libcpp-httplib-dev libmicrohttpd-dev libfontconfig-dev
  libsodium-dev libgtest-dev libgmock-dev libbenchmark-dev
  perl python3 nginx-light iproute2 fontconfig wrk doxygen
  chromium-headless-shell zlib1g-dev
  libsqlite3-dev libpq-dev postgresql rapidjson-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}" >&2
$sudo apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
