#!/usr/bin/env python3
"""Holds branches that no test took against their explanations: check_branches.py REPORT.json TABLE.tsv

REPORT is gcovr's. TABLE has a row for each line with such a branch: file, the line as it stands
(without indentation), why no test takes it; separated by tabs. Prints each line that has no row, and
each row that fits no such line, which is out of date. Ends with 1 when there is one of either.
"""
import json
import pathlib
import sys


def uncovered(report, root):
    """File and text of each line with a branch that was not taken, with its number."""
    found = {}
    for file in report["files"]:
        lines = (root / file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if any(branch["count"] == 0 for branch in line["branches"]) or line_not_run(line):
                number = line["line_number"]
                found.setdefault((file["file"], lines[number - 1].strip()), []).append(number)
    return found


def line_not_run(line):
    return line["count"] == 0 and not line.get("gcovr/noncode", False)


def read_table(path):
    rows = [line.split("\t") for line in path.read_text().splitlines()[1:]]
    bad = [row for row in rows if len(row) != 3 or not row[2].strip()]
    if bad:
        sys.exit(f"check_branches: not file, line, reason: {bad[0]}")
    return {(file, text): reason for file, text, reason in rows}


def main():
    table_path = pathlib.Path(sys.argv[2])
    found = uncovered(json.loads(pathlib.Path(sys.argv[1]).read_text()), table_path.parent.parent)
    table = read_table(table_path)
    for (file, text), numbers in sorted(found.items()):
        if (file, text) not in table:
            print(f"not covered, not explained: {file}:{','.join(map(str, numbers))}: {text}")
    for file, text in sorted(set(table) - set(found)):
        print(f"explained, but covered or gone: {file}: {text}")
    open_lines = set(found) ^ set(table)
    print(f"{len(found)} lines with a branch that no test takes, {len(set(found) & set(table))} explained")
    return 1 if open_lines else 0


if __name__ == "__main__":
    sys.exit(main())
