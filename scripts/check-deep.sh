#!/usr/bin/env bash
# Runs every check that takes too long for each change: other compilers, coverage, other processors, sanitizers, packages
# and tests in bare roots, fuzzing and mutation. Takes hours. With names of checks, runs those.
#
# usage: check-deep.sh [compilers|coverage|foreign|sanitizers|packages|distributions|fuzz|mutation]...
set -euo pipefail
cd "$(dirname "$0")/.."

fuzz_minutes=30

(($#)) || set -- compilers coverage foreign sanitizers packages distributions fuzz mutation
for check; do
    echo "== $check"
    case $check in
    compilers) scripts/check-compilers.sh ;;
    coverage) scripts/coverage.sh ;;
    foreign) scripts/check-foreign.sh ;;
    sanitizers) scripts/check-sanitizers.sh ;;
    packages) scripts/check-packages.sh ;;
    distributions) scripts/check-distributions.sh ;;
    fuzz) scripts/fuzz.sh "$fuzz_minutes" ;;
    mutation) scripts/mutate.sh ;;
    *)
        echo "check-deep.sh: no such check: $check" >&2
        exit 2
        ;;
    esac
done
