#!/usr/bin/env bash
# Changes the tool's source in one place at a time, runs the tests on each change, and prints the changes that no test
# notices, for a person to judge. Passes its arguments to tests/mutation/mutate.py: --only FILE for a part of the
# source, --jobs N to test N changes at a time.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test
exec tests/mutation/mutate.py . build/mutation "$@"
