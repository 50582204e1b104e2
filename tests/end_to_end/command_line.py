"""What the tests of the command line share: the help text, and runs inside the folder of a scripted daemon.

A run inside the daemon's folder can name the socket shortly, as in SOCKET_OPTION, so that a test says exactly which
words stand where in the argument vector.
"""

import os
import struct
import subprocess

import pytest

from harness import HOST_ORDER, RUNNER, TOOL, Outcome, ScriptedDaemon, environment, finish_tool, frame, tool

SOCKET = "plaxd.uds"
SOCKET_OPTION = "-s" + SOCKET

UUID = "01234567-89ab-cdef-0123-456789abcdef"
UUID_BYTES = b"\x01\x23\x45\x67\x89\xab\xcd\xef\x01\x23\x45\x67\x89\xab\xcd\xef"

INCOMPLETE = b"Failed to receive the complete UDS message sent. Please try again"

# One line of the tool a line here, tabs and trailing blanks included.
LISTING = (
    b"   stats\t\tRetrieve PLAX stats\n"
    b"   crawler\t\tQueue crawler run on an object specified by -u/--uuid\n"
    b"   fitness-stats-get\t\tGet current fitness stats for each disk\n"
    b"   log-level\t\tSet plaxd log level.\n"
    b"   fix-object-immediate\t\tFix absent and degraded components in object immediately\n"
    b"   start-proactive-rebalance\t\tStart proactive rebalance. Usage: start-proactive-rebalance [time_span (sec) "
    b"[variance threshold (0-1) [time threshold (sec) [rate threshold (MB/hr)]]]]. The word default may be also be "
    b"used instead of a numeric value. Example: start-proactive-rebalance 3600 0.3 default 1024\n"
    b"   stop-proactive-rebalance\t\tStop proactive rebalance\n"
    b"   info-proactive-rebalance\t\tGet the info of proactive rebalance\n"
    b"   fix-concats\t\tFix concats for all objects owned by the node now\n"
    b"   info-rebalance\t\tGet the info of rebalance for a disk specified by -u/--uuid\n"
    b"   resources-to-fix-unhealthy-objects\t\tResources required to fix unhealthy objects\n"
    b"   what-if-entity-decom\t\tResources needed for entity decommissioning.\n"
    b"   what-if-upgrade\t\tResources needed for host or disk upgrade\n"
    b"   what-if-cancel\t\tCancel on-going what-if operation\n"
    b"   force-reconfigure-the-object\t\tForce apply the new object configuration to the object\n"
    b"   update-plaxdb\t\tUpdate nodes/disks/DOM_objects in plaxdb\n"
    b"   replace-plaxdb\t\tUpdate nodes/disks/DOM_objects in plaxdb, delete not present objects\n"
    b"   enable-plax-recovery-mode\t\tPut PLAX in recovery mode\n"
    b"   enable-workitem\t\tEnable work item type specified by -i/--work-item\n"
    b"   disable-workitem\t\tDisable work item type specified by -i/--work-item\n"
    b"   get-obj-crawler-state\t\tGet crawler state of an object specified by -u/--uuid OR Get crawler stats of all "
    b"objects with -a/--all\n"
    b"   pause-decom-state-progress\t\tpause progressing the decom state machine\n"
    b"   resume-decom-state-progress\t\tresume progressing the decom state machine\n"
    b"   start-decom-state-heartbeat\t\tstart the heartbeat of state in decom state machine\n"
    b"   pause-failed-delta-entry-processing\t\tpause the controller PLAX just before it processes a failed delta "
    b"entry\n"
    b"   block-cdb-cb\t\tblock certain cdb callbacks for testing\n"
    b"   refresh-config-opts\t\tRefresh advanced config options\n"
    b"   component-manual-move\t\tMove the component based on given destination list or exclusion list\n"
    b"   set-global-exclusion-list\t\tSet global exclusion list so that none of new component goes to excluded "
    b"disk/dg/host/fd as per exclusion mode. By default exclusion mode is 0 which means exclusion list will be "
    b"applicable to all new components. If exclusion mode is set to 1, exclusionlist will be ignored for witnesses "
    b"and if set to 2, exclusion list will be ignored for new object placements and if 3, will be ignored for both.\n"
    b"\n"
    b"options:\n"
    b"   -h/--help:                     Print this help text\n"
    b"   -o/--output-path=<str>:        Write output to a file\n"
    b"   -s/--socket-path=<str>:        Alternative Unix Domain Socket path\n"
    b"   -t/--timeout=<int>:            Max time for wait (0 for infinite wait)\n"
    b"   -u/--uuid=<uuid>:              Entry uuid\n"
    b"   -l/--uuid-list=<uuid,uuid>:    List of uuids (comma separated)\n"
    b"   -r/--reason=<int>:             Reason for what-if-upgrade (0:none, 1:disable dedup, 2:enable encryption, "
    b"3:disable dedup and enforce encryption)\n"
    b"   -d/--decom-mode=<int>:         Entity decomMode (0:noAction, 1:ensureAcces, 2:evacAllData) \n"
    b"   -e/--ensure-durability         ensure data durability in ensure access decom\n"
    b"   -w/--wipe-disk                 Wipe disk in what-if-upgrade \n"
    b"   -j/--json=<json>:              Stringified JSON object\n"
    b"   -f/--file-path=<str>:          File with new configuration for object\n"
    b"   -i/--work-item=<str>:          Work item type name (example: PLACEMENT, MOVE, REACTIVE_REBALANCE, DECOM, "
    b"REPAIR, CHANGE, COMPLIANCE, CONCAT ...)\n"
    b"   -m/--recovery-mode=<int>:      Recovery mode (1: REPAIR, 2: REBALANCE, 3: COMPLIANCE, 4: POLICY, 5: CONCAT, "
    b"6: DELTA, 7: ALL, except DELTA)\n"
    b"   -a/--all:                      Print crawler states of all objects owned by this node\n"
    b"   -n/--destination-list=<uuid,uuid>: List of uuids for destination disk/dg/host/FD\n"
    b"   -x/--exclusion-list=<uuid,uuid>  : List of uuids for exclusion disk/dg/host/FD\n"
    b"   -X/--exclusion-mode=<int>:     Exclusion mode (1: ignoreForWitness, 2: ignoreForNewPlacement, 3: "
    b"ignoreForWitnessAndNewPlacement)\n"
)


def help_text(program=TOOL):
    return b"usage: " + os.fsencode(program) + b" <options> <cmd> <args>\n\ncommands:\n" + LISTING


def usage_error(message):
    """The outcome of a run that ends with this message on standard error, the help text and status 0xbad0001."""
    return Outcome(help_text(), os.fsencode(message), 1)


def succeeds(stdout=b""):
    return Outcome(stdout, b"", 0)


def ask(*words, steps=(), **options):
    """Runs the tool in the folder of a daemon that follows the steps. Gives the outcome and all that the tool sent.

    A daemon without steps closes the connection unanswered, which is the success of every command: those that print
    their answer then print an empty line.
    """
    with ScriptedDaemon(*steps) as plaxd:
        run = tool(*words, cwd=plaxd.folder, **options)
    return run, plaxd.received


def converse(*steps, words, env=None, **options):
    """Runs the tool against a daemon that does these steps. The options are the daemon's. Gives what `ask` gives."""
    with ScriptedDaemon(*steps, **options) as plaxd:
        run = tool("-s", plaxd.path, *words, env=env)
    return run, plaxd.received


def refuse(*words, **options):
    """Runs the tool in the folder of a daemon that must not be connected to. Gives the outcome."""
    with ScriptedDaemon(connections=0) as plaxd:
        return tool(*words, cwd=plaxd.folder, **options)


def run_as(name, *words):
    """Runs the tool with the given program name as the first element of its argument vector."""
    return finish_tool(subprocess.Popen([name, *words], executable=TOOL, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment()))


# For the tests that use run_as.
own_program_name = pytest.mark.skipif(bool(RUNNER), reason="a runner gives the tool its own program name")


def tool_named(folder, program, *words):
    """Runs the tool under another program name, which is a word without a slash."""
    (folder / program).symlink_to(TOOL)
    env = environment(PATH=f"{folder}:{os.environ['PATH']}")
    return finish_tool(subprocess.Popen([*RUNNER, program, *words], cwd=folder, env=env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE))


def record(layout, *values):
    """A request record in the order of the host that the tool runs on. The layout names every gap."""
    return struct.pack(HOST_ORDER + layout, *values)


def uuid_list(entries):
    return ",".join([UUID] * entries)


# ---- The requests in which many options show. ----

LIST_FIELD = 94720


def entity_decom(uuid=bytes(16), mode=0, durability=0):
    return frame(16, record("16sIB3s", uuid, mode, durability, bytes(3)))


def upgrade(uuids, count, mode=0, reason=0, wipe=0):
    head = record("16sIIB3sI", bytes(16), mode, reason, wipe, bytes(3), count)
    return frame(17, head + os.fsencode(uuids) + b"\0")


def manual_move(destinations="", destination_count=0, exclusions="", exclusion_count=0):
    return frame(33, record(f"16sII{LIST_FIELD}s{LIST_FIELD}s", UUID_BYTES, destination_count, exclusion_count,
                            os.fsencode(destinations), os.fsencode(exclusions)))


def exclusion_list(uuids, count, mode=0):
    return frame(34, record(f"II{LIST_FIELD}s", mode, count, os.fsencode(uuids)))
