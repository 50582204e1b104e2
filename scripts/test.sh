#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test. With the name of a preset, builds and tests that one.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:-release}
scripts/install-packages.sh build test
cmake --preset "$preset" -DBUILD_TESTING=ON >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
