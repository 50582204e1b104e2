#!/usr/bin/env bash
# Shows the tool at work: installs missing packages, builds, and runs the tour. Leaves only the build behind. Fails if a
# command's exit status is not the expected one.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build
cmake --preset release >/dev/null
cmake --build --preset release >&2
PATH=$PWD/build/release/sbin:$PWD/build/release/bin:$PATH exec scripts/tour.sh
