"""Runs of the engine, and the numbers that it gives."""
import re

from commands import timed


WAYS = ["auto", "scan", "walk"]  # of counting


def command(programs, mount, ids, metadata=True, way="auto"):
    flags = "-vm" if metadata else "-v"
    return [programs.engine, "subvolume", "size", "-r", mount, flags, "--method", way, *ids]


def numbers(out):
    """Exclusive bytes by subvolume, from the engine's lines."""
    return {int(one): int(count)
            for one, count in re.findall(r"^subvol\((\d+)\) (\d+) bytes$", out, re.M)}


def planned_bytes(out):
    """What the engine said that there was to read; the last word counts."""
    return int(re.findall(r"^total (\d+) bytes$", out, re.M)[-1])


def measure(programs, mount, ids, way="auto", limit=None):
    return timed(programs, *command(programs, mount, ids, way=way), limit=limit)
