#!/usr/bin/env bash
# Shows the tool at work: installs what is missing, builds, and runs the tour. Leaves nothing behind but the build, and
# fails when a command does not end as it should.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build
cmake --preset release >/dev/null
cmake --build --preset release >&2
PATH=$PWD/build/release/sbin:$PWD/build/release/bin:$PATH exec scripts/tour.sh
