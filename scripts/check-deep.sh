#!/usr/bin/env bash
# Runs the checks that take too long for every change: other compilers, coverage, other processors, sanitizers, packages
# and tests in bare roots, fuzzing and mutation. All of them take hours. With arguments, runs only those checks.
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
