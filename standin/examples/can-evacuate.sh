#!/usr/bin/env bash
# Asks plaxd whether disks could be evacuated, one after the other, and prints a line for each. It changes nothing.
#
#   can-evacuate.sh DISK-UUID...
#
# Exit status: 0 if all could be evacuated, 1 if one could not, 2 if a question was not answered.
#
# RETRY_SECONDS is the time between two attempts while plaxd refuses because it is busy.
set -uo pipefail

attempts_max=5
patience=40m # the tool waits up to 30 minutes for a plan, and without limit for a daemon that accepts no connections

# ask WORD...: prints the answer to one command. Fails, with a message, if the run failed in any way that shows: by its
# exit status, by a message on standard error, or by an empty answer, which is what a daemon that ends leaves.
ask() {
    local messages answer status=0
    messages=$(mktemp)
    answer=$(timeout "$patience" plax-tool "$@" 2>"$messages") || status=$?
    if ((status == 0)) && [[ -n $answer && ! -s $messages ]]; then
        printf '%s\n' "$answer"
    else
        echo "plax-tool $*: exit status $status, ${#answer} bytes, $(<"$messages")" >&2
        ((status != 0)) || status=1
    fi
    rm -f "$messages"
    return "$status"
}

# plan DISK: prints the plan for evacuating a disk, if need be after several attempts.
plan() {
    local attempt
    for ((attempt = 1; attempt <= attempts_max; attempt++)); do
        ask -u "$1" -d 2 what-if-entity-decom && return
        ((attempt == attempts_max)) || sleep "${RETRY_SECONDS:-60}"
    done
    return 1
}

if (($# == 0)); then
    echo "usage: $0 DISK-UUID..." >&2
    exit 2
fi
result=0
for disk; do
    if ! answer=$(plan "$disk"); then
        echo "$disk: no answer"
        result=2
    elif [[ $answer == "feasible: yes"* ]]; then
        echo "$disk: yes"
    else
        echo "$disk: no"
        ((result == 2)) || result=1
    fi
done
exit "$result"
