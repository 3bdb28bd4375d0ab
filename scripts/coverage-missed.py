#!/usr/bin/env python3
"""Compares the lines that no test reached with the list of explained ones.

    scripts/coverage-missed.py COVERAGE.json EXPLAINED

EXPLAINED holds one entry a line, `file: text of the source line`, below a comment (#) that says why no test gets
there. The text, not the number, names the line: numbers move.
"""

import json
import sys


def missed_lines(report_path):
    with open(report_path, encoding="utf-8") as report:
        files = json.load(report)["files"]
    for entry in files:
        with open(entry["file"], encoding="utf-8") as source:
            text = source.read().splitlines()
        counts = {}
        for line in entry["lines"]:
            if not line.get("gcovr/noncode"):
                number = line["line_number"]
                counts[number] = counts.get(number, 0) + line["count"]
        for number, count in sorted(counts.items()):
            if count == 0:
                yield entry["file"], number, text[number - 1].strip()


def main(report_path, explained_path):
    with open(explained_path, encoding="utf-8") as explained_file:
        lines = [line.strip() for line in explained_file]
    explained = {line for line in lines if line and not line.startswith("#")}
    seen = set()
    unexplained = []
    for file, number, text in missed_lines(report_path):
        key = f"{file}: {text}"
        seen.add(key)
        if key not in explained:
            unexplained.append(f"{file}:{number}: {text}")
    stale = sorted(explained - seen)
    for line in unexplained:
        print("not reached:", line)
    for line in stale:
        print("explained but reached, or gone:", line)
    print(f"lines not reached: {len(seen)}, of these explained: {len(seen & explained)}")
    return 1 if unexplained or stale else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
