#!/usr/bin/env bash
# Runs every check that takes too long for each change: coverage, other processors, sanitizers, packages in a bare root,
# fuzzing and mutation. Takes hours. With names of checks, runs those.
#
# usage: check-deep.sh [coverage|foreign|sanitizers|packages|fuzz|mutation]...
set -euo pipefail
cd "$(dirname "$0")/.."

fuzz_minutes=30

(($#)) || set -- coverage foreign sanitizers packages fuzz mutation
for check; do
    echo "== $check"
    case $check in
    coverage) scripts/coverage.sh ;;
    foreign) scripts/check-foreign.sh ;;
    sanitizers) scripts/check-sanitizers.sh ;;
    packages) scripts/check-packages.sh ;;
    fuzz) scripts/fuzz.sh "$fuzz_minutes" ;;
    mutation) scripts/mutate.sh ;;
    *)
        echo "check-deep.sh: no such check: $check" >&2
        exit 2
        ;;
    esac
done
