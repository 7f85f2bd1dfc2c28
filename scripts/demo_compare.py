#!/usr/bin/env python3
"""Holds the tool's numbers against the kernel's.

demo_compare.py COUNT RESULT.json=QGROUPS.txt...

Each RESULT.json is what `zorv-snapusage show --format json` printed, QGROUPS.txt what
`btrfs qgroup show --raw` printed for a copy of the same file system. Prints each number beside the
kernel's; ends with status 1 unless all COUNT of them match.
"""
import json
import re
import sys


def kernel_numbers(path):
    with open(path) as text:
        rows = re.findall(r"^0/(\d+)\s+\d+\s+(\d+)", text.read(), re.M)
    return {int(subvolume): int(exclusive) for subvolume, exclusive in rows}


def compare(result_path, kernel_path):
    """Prints a share's table; returns how many numbers it holds and how many of them differ."""
    with open(result_path) as text:
        result = json.load(text)
    kernel = kernel_numbers(kernel_path)
    wrong = 0
    print(f"\n-- {result['share']}\n{'exclusive':>14} {'the kernel':>14}      snapshot")
    for row in result["snapshots"]:
        own, theirs = row["exclusive"], kernel.get(row["subvolume_id"])
        wrong += own != theirs
        mark = "  ok" if own == theirs else "  NO"
        print(f"{own:>14} {str(theirs):>14} {mark} {row['name']}")
    return len(result["snapshots"]), wrong


def main():
    expected, count, wrong = int(sys.argv[1]), 0, 0
    for pair in sys.argv[2:]:
        rows, differing = compare(*pair.split("=", 1))
        count, wrong = count + rows, wrong + differing
    if wrong or count != expected:
        print(f"\n{wrong} of {count} numbers differ from the kernel's; {expected} were expected")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
