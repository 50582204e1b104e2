#!/usr/bin/python3
"""Compares the unreached places of a coverage export with the list of exceptions, in both directions.

usage: check_coverage.py EXPORT.json EXCEPTIONS.txt

A line counts as reached when it ran, a branch when it went both ways, and a decision when each of its conditions was
seen to decide it alone. The list names a place by the text of its source line, so edits elsewhere leave it valid.
"""

import json
import os
import sys


def unreached(files):
    """Yields (kind, file, line number) for each unreached place."""
    for file in files:
        name = os.path.relpath(file["filename"])
        for line, _, count, has_count, _, is_gap in file["segments"]:
            if has_count and count == 0 and not is_gap:
                yield "line", name, line
        for line, _, _, _, true_count, false_count, *_ in file["branches"]:
            if true_count == 0 or false_count == 0:
                yield "branch", name, line
        for record in file.get("mcdc_records", []):
            if not all(record[-1]):
                yield "decision", name, record[0]


def source_line(name, number):
    with open(name, encoding="utf-8") as source:
        return source.read().splitlines()[number - 1].strip()


def listed(path):
    with open(path, encoding="utf-8") as exceptions:
        rows = [line.rstrip("\n").split(" | ") for line in exceptions if line.strip() and not line.startswith("#")]
    for row in rows:
        if len(row) != 4 or not row[3].strip():
            sys.exit(f"{path}: not kind, file, source text and reason: {' | '.join(row)}")
    return {tuple(row[:3]) for row in rows}


def main(export_path, exceptions_path):
    with open(export_path, encoding="utf-8") as export:
        files = json.load(export)["data"][0]["files"]
    if not files:
        sys.exit("the export names no files: nothing was measured")
    found = {(kind, name, source_line(name, line)) for kind, name, line in unreached(files)}
    expected = listed(exceptions_path)
    for place in sorted(found - expected):
        print("not covered:", " | ".join(place))
    for place in sorted(expected - found):
        print("listed, but covered:", " | ".join(place))
    if found != expected:
        sys.exit(1)
    print(f"{len(files)} files covered, {len(expected)} exceptions listed")


if __name__ == "__main__":
    main(*sys.argv[1:])
