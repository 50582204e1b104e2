#!/usr/bin/env bash
# Changes the tool's source in one place at a time and runs the tests on each change. A change that no test notices is a
# failure, unless tests/mutation/equivalents.txt says why none could. Arguments go to tests/mutation/mutate.py: --only
# FILE for a part of the source, --jobs N for so many changes at a time.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test
exec tests/mutation/mutate.py . build/mutation tests/mutation/equivalents.txt "$@"
