#!/usr/bin/env bash
# Runs a tour of commands against a stand-in daemon on its own socket, with the plax-tool and the plaxd-standin in PATH.
# Prints each command line, its output and its exit status, and fails if a status is not the expected one. Leaves
# nothing behind.
set -euo pipefail

directory=$(mktemp -d)
standins=()
clean_up() {
    ((${#standins[@]} == 0)) || kill "${standins[@]}" 2>/dev/null || true
    wait
    rm -rf "$directory"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
cd "$directory"

cat >answers.json <<'JSON'
{"answers": {"what-if-cancel": {"status": 2, "text": "no what-if operation is running"}}}
JSON
# Fails, and ends the script, if the stand-in ends before it is ready.
read -r < <(plaxd-standin serve --socket plaxd.uds --log standin.log --answers answers.json --ready-fd 1)
standins+=($!)

# step EXPECTED WORD...: prints one command line, its output and its exit status, which must be the expected one.
step() {
    local expected=$1 status=0
    shift
    printf '$ %s\n' "$*"
    "$@" || status=$?
    printf '[exit status %d]\n\n' "$status"
    if ((status != expected)); then
        echo "tour: expected exit status $expected" >&2
        exit 1
    fi
}

uuid=52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01
other=52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e02

echo "# A printed answer, a checked one, a stream to standard output and to a file, and a command without an answer"
step 0 plax-tool -s plaxd.uds fitness-stats-get
step 0 plax-tool -s plaxd.uds fix-concats
step 0 plax-tool -s plaxd.uds stats
step 0 plax-tool -s plaxd.uds -o stats.txt stats
step 0 cat stats.txt
step 0 plax-tool -s plaxd.uds refresh-config-opts
echo "# A what-if, a manual move and a callback block"
step 0 plax-tool -s plaxd.uds -u "$uuid" -d 1 -e what-if-entity-decom
step 0 plax-tool -s plaxd.uds -u "$uuid" -n "$other" component-manual-move
step 0 plax-tool -s plaxd.uds -u "$uuid" block-cdb-cb add disk
echo "# An error from the daemon, no daemon, and an incomplete command line"
step 2 plax-tool -s plaxd.uds what-if-cancel
step 1 plax-tool -s nobody.uds stats
step 1 plax-tool -s plaxd.uds crawler
echo "# The log of the daemon"
step 0 cat standin.log
echo "# An unmodified script, and the commands that it sent"
step 0 plaxd-standin rehearse --log rehearsal.log --format commands -- sh -c 'plax-tool -a crawler && plax-tool stats'
step 0 cat rehearsal.log
echo "# The same script, compared with those commands, and another one"
step 0 plaxd-standin rehearse --expect rehearsal.log -- sh -c 'plax-tool -a crawler && plax-tool stats'
step 1 plaxd-standin rehearse --expect rehearsal.log -- plax-tool stats
echo "# The answers of a daemon, recorded by a relay and given again"
read -r < <(plaxd-standin relay --socket relay.uds --to plaxd.uds --record recorded.json --log relay.log --ready-fd 1)
standins+=($!)
step 0 plax-tool -s relay.uds info-proactive-rebalance
kill "${standins[1]}"
wait "${standins[1]}"
step 0 cat recorded.json
step 0 plaxd-standin rehearse --answers recorded.json -- plax-tool info-proactive-rebalance
