#!/usr/bin/python3
"""Reads memcheck's logs, one per run, and fails on anything unexpected.

memcheck's exit code reports errors too, but not after a signal, and never open descriptors.
"""

import re
import sys
from pathlib import Path

# The beginning of a paragraph, and the text that it must contain.
EXPECTED = (
    (r"FILE DESCRIPTORS: \d+ open \(\d+ std\) at exit\.$", ""),
    (r"Open .*", "<inherited from parent>"),
    (r"Open AF_UNIX socket \d+: ", "OpenDaemonConnection"),
    (r"Open file descriptor \d+: ", "StreamReply"),
)


def paragraphs(log):
    """The paragraphs of a log without the process number in front of each line."""
    text = re.sub(r"^==\d+== ?", "", log.read_text(errors="replace"), flags=re.MULTILINE)
    return [paragraph for paragraph in re.split(r"\n\s*\n|\n(?=Open )", text.strip()) if paragraph]


def is_expected(paragraph):
    return any(re.match(begin, paragraph) and content in paragraph for begin, content in EXPECTED)


def main(directory):
    logs = sorted(Path(directory).glob("*.log"))
    connections = 0
    unexpected = []
    for log in logs:
        for paragraph in paragraphs(log):
            connections += "OpenDaemonConnection" in paragraph
            if not is_expected(paragraph):
                unexpected.append(f"{log}:\n{paragraph}")
    for paragraph in unexpected:
        print(paragraph, end="\n\n")
    print(f"memcheck: {len(logs)} runs, {connections} of them with a connection, {len(unexpected)} unexpected")
    return 1 if unexpected or connections == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
