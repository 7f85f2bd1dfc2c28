#!/usr/bin/env python3
"""Follows a plan: deletes its snapshots for real, and holds each number against the kernel's.

demo_follow.py MOUNT FOLDER SHARED PLAN.json

PLAN.json is what `zorv-snapusage plan --format json` printed for the snapshots in FOLDER, SHARED what
the kernel's quotas say (on a copy) that they all hold together and nobody else does. Of each deletion
the kernel shows the data that came free; the tree blocks are in SHARED. A deletion that frees tree
blocks alone is shown, and not counted. Prints how many numbers were compared as its last line, or ends
with status 1.
"""
import json
import re
import subprocess
import sys

BTRFS = "/usr/bin/btrfs"


def used_data(mount):
    subprocess.run(["sync", "-f", mount], check=True)
    text = subprocess.run([BTRFS, "filesystem", "df", "--raw", mount], check=True, text=True,
                          capture_output=True).stdout
    return int(re.search(r"^Data,.*used=(\d+)", text, re.M)[1])


def delete(mount, path):
    """Deletes a snapshot, and waits until the kernel has given back what it held."""
    subprocess.run([BTRFS, "subvolume", "delete", "--commit-after", path], check=True,
                   capture_output=True)
    subprocess.run([BTRFS, "subvolume", "sync", mount], check=True, capture_output=True)


def row(own, theirs, name):
    print(f"{own:>14} {theirs:>14}   {'ok' if own == theirs else 'NO'} {name}")
    return own == theirs


def follow(mount, folder, shared, plan):
    print(f"\n-- {plan['share']}\n{'data, planned':>14} {'the kernel':>14}      deleted")
    right = []
    for step in plan["steps"]:
        before = used_data(mount)
        delete(mount, f"{folder}/{step['name']}")
        planned, freed = step["frees"] - step["metadata"], before - used_data(mount)
        matches = row(planned, freed, step["name"])
        if planned or freed:
            right.append(matches)
    right.append(row(plan["together"]["frees"], shared, "together, with the tree blocks"))
    return right


def main():
    mount, folder, shared = sys.argv[1:4]
    with open(sys.argv[4]) as text:
        right = follow(mount, folder, int(shared), json.load(text))
    print(len(right))
    return 0 if all(right) else 1


if __name__ == "__main__":
    sys.exit(main())
