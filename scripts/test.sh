#!/usr/bin/env bash
# Installs missing packages, builds, and runs every test. With the name of a preset, builds and tests that one
# (test, ci, debug or sanitize).
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:-test}
scripts/install-packages.sh build test
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
