#!/usr/bin/env bash
# Takes the data off a disk, so that the disk can be pulled: asks whether that can work, keeps new components off the
# disk, and waits until nothing is left to move. When that fails, new components may go to the disk again.
#
#   decommission-disk.sh SOCKET DISK-UUID
#
# PLAX_TOOL names the tool to run, POLL_SECONDS the time between two looks at the progress.
set -euo pipefail

socket=$1
disk=$2
looks_max=10

tool() {
    "${PLAX_TOOL:-plax-tool}" --socket-path "$socket" "$@"
}

give_up() {
    echo "giving up: $1" >&2
    exit 1
}

# Only what this script has set is taken back.
give_up_and_include() {
    echo "making the disk available again" >&2
    tool set-global-exclusion-list --exclusion-list '' || echo "THE DISK IS STILL EXCLUDED" >&2
    give_up "$1"
}

plan() {
    tool what-if-entity-decom --uuid "$disk" --decom-mode 2
}

answer=$(plan) || answer=$(plan) || give_up "the plan was refused twice"
echo "$answer"
[[ $answer == "feasible: yes"* ]] || give_up "the data has nowhere to go"

tool set-global-exclusion-list --exclusion-list "$disk" || give_up "the disk cannot be excluded"
tool crawler --uuid "$disk" || give_up_and_include "the evacuation cannot be started"

for ((look = 1; look <= looks_max; look++)); do
    left=$(tool info-rebalance --uuid "$disk") || give_up_and_include "the progress cannot be read"
    echo "$left"
    if [[ $left == "bytes to move: 0" ]]; then
        echo "disk $disk is empty"
        exit 0
    fi
    sleep "${POLL_SECONDS:-60}"
done
give_up_and_include "data is left after $looks_max looks"
