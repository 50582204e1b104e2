"""Rehearses the example script that asks whether disks can be evacuated, with good and bad answers."""

import json
import os

import pytest
from rehearsals import USERS, in_namespaces, new_rehearsal
from standin_process import EXAMPLES

DISK = "5b2f9c1e-44d0-4a37-9e8b-c3f1a06d7725"
OTHER = "52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01"
COMMAND = f"plax-tool -u {DISK} -d 2 what-if-entity-decom"
BUSY = (f"{COMMAND}: exit status 16, 0 bytes, Error received: Device or resource busy: another what-if operation is "
        "running\n")
INCOMPLETE = "Failed to receive the complete UDS message sent. Please try again"


def rehearse(user, answers, *disks):
    """The script's exit status, output and messages, and the commands that it sent."""
    with new_rehearsal() as rehearsal:
        run = rehearsal.run("--answers", answers if os.path.isabs(answers) else rehearsal.file("answers.json", answers),
                            "--strict=warnings", "--log", "log", "--format", "commands",
                            "--", os.path.join(EXAMPLES, "can-evacuate.sh"), *disks,
                            user=USERS[user], env={"RETRY_SECONDS": "0"})
        with open(rehearsal.log, encoding="utf-8") as log:
            sent = [line for line in log.read().splitlines() if not line.startswith("#")]
    return *run, sent


@in_namespaces
def test_healthy_day(user):
    assert rehearse(user, os.path.join(EXAMPLES, "healthy.json"), DISK, OTHER) == (
        0, f"{DISK}: yes\n{OTHER}: yes\n", "", [COMMAND, COMMAND.replace(DISK, OTHER)])


@in_namespaces
def test_bad_day(user):
    assert rehearse(user, os.path.join(EXAMPLES, "bad-day.json"), DISK) == (
        0, f"{DISK}: yes\n", BUSY, [COMMAND, COMMAND])


# Each of these runs fails, although it has exit status 0 or an answer.
@in_namespaces
@pytest.mark.parametrize("answer, message", [
    ({"fault": "close-without-answering"}, "exit status 0, 0 bytes, "),
    ({"fault": "announce-more", "faultBytes": 99, "text": "feasible: yes"}, f"exit status 0, 0 bytes, {INCOMPLETE}"),
    ({"status": 256, "text": "later"}, "exit status 0, 0 bytes, Error received: Status 0x00000100: later"),
])
def test_failures_that_end_with_0(user, answer, message):
    answers = json.dumps({"answers": {"what-if-entity-decom": answer}})
    assert rehearse(user, answers, DISK) == (2, f"{DISK}: no answer\n", f"{COMMAND}: {message}\n" * 5, [COMMAND] * 5)


@in_namespaces
def test_disk_that_cannot_be_evacuated(user):
    answers = json.dumps({"answers": {"what-if-entity-decom": [
        {"for": {"uuid": DISK}, "text": "feasible: no"}, {"text": "feasible: yes"}]}})
    assert rehearse(user, answers, DISK, OTHER)[:3] == (1, f"{DISK}: no\n{OTHER}: yes\n", "")
