#!/usr/bin/env bash
# Changes the tool's source in one place at a time, runs the tests on each change, and prints the changes that no test
# notices, for a person to read. Arguments go to tests/mutation/mutate.py: --only FILE for a part of the source, --jobs N
# for so many changes at a time.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test
exec tests/mutation/mutate.py . build/mutation "$@"
