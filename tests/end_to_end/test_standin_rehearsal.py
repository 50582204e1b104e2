"""The rehearsal that README shows: a script that empties a disk, on a good day and on a bad one."""

import os
import subprocess

from harness import TOOL
from standin_process import EXAMPLES, Standin

DISK = "5b2f9c1e-44d0-4a37-9e8b-c3f1a06d7725"


def rehearse(day):
    """What the script says and ends with, and what it has asked for."""
    with Standin("--strict", "--answers", os.path.join(EXAMPLES, day)) as plaxd:
        run = subprocess.run([os.path.join(EXAMPLES, "decommission-disk.sh"), plaxd.path, DISK], text=True, check=False,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             env={**os.environ, "LANG": "C", "PLAX_TOOL": TOOL, "POLL_SECONDS": "0"})
    assert plaxd.code == 0
    fields = [(line["command"], line["fields"]) for line in plaxd.entries]
    asked = [(command, values.get("exclusionList", values.get("uuid"))) for command, values in fields]
    return run.returncode, run.stdout, run.stderr, asked


def test_healthy_day():
    assert rehearse("healthy.json") == (
        0,
        "feasible: yes\n"
        "bytes to move: 21474836480\n"
        "objects that stay unprotected: 0\n"
        "bytes to move: 21474836480\n"
        "bytes to move: 8589934592\n"
        "bytes to move: 0\n"
        f"disk {DISK} is empty\n",
        "",
        [("what-if-entity-decom", DISK), ("set-global-exclusion-list", [DISK]), ("crawler", DISK),
         ("info-rebalance", DISK), ("info-rebalance", DISK), ("info-rebalance", DISK)])


def test_bad_day():
    assert rehearse("bad-day.json") == (
        1,
        "feasible: yes\n"
        "bytes to move: 21474836480\n"
        "objects that stay unprotected: 12\n",
        "Error received: Device or resource busy: another what-if operation is running\n"
        "Error received: Resource temporarily unavailable: crawler queue is full\n"
        "making the disk available again\n"
        "Error received: Connection timed out: no answer from node 3\n"
        "THE DISK IS STILL EXCLUDED\n"
        "giving up: the evacuation cannot be started\n",
        [("what-if-entity-decom", DISK), ("what-if-entity-decom", DISK), ("set-global-exclusion-list", [DISK]),
         ("crawler", DISK), ("set-global-exclusion-list", [])])
