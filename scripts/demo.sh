#!/usr/bin/env bash
# Sets everything up and runs the main job on the bundled sample data.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
./scripts/build.sh build
./build/tools/quarvel decrypt samples/welcome.dat
