#!/usr/bin/env python3
"""Measures the engine beside its peers; run by scripts/bench.sh in a mount namespace of its own."""
import argparse
import os
import signal
import sys
import tempfile
import time

import comparison
import growth
import library
import machine
import neighbour
import peers
import report
import shapes
import throttled
from commands import CommandFailed, Programs
from volume import Unfit, refuse_memory

PARTS = ["a", "b", "c", "d", "e", "throttled", "neighbour", "growth", "library"]


class Bench:
    """The settings of a run, and where its file systems are."""

    def __init__(self, options):
        self.quick, self.keep = options.quick, options.keep
        self.parts = options.only or PARTS
        self.rounds, self.rounds_slow = options.rounds, options.rounds_slow
        self.limit, self.limit_long = options.limit, options.limit_long  # seconds
        self.load_seconds, self.load_rounds = (2, 1) if options.quick else (10, 3)
        self.peers = list(peers.PEERS)
        self.picture = "benchmarks-growth"
        self.programs = Programs(options.programs)
        # Sizes differ, so file systems of a quick run lie apart from those of a whole one.
        self.folder = os.path.join(options.dir, "quick" if options.quick else "whole")
        os.makedirs(self.folder, exist_ok=True)
        self.mount = os.path.join(self.folder, "mount")
        self.tracing = os.path.join(self.folder, "tracing")
        self.maker = shapes.Maker(self.programs, self.folder, self.mount, options.keep)
        self.shapes = shapes.figured_shapes(options.quick)

    def wants(self, part):
        return part in self.parts


class Parser(argparse.ArgumentParser):
    """Says in one line what is wrong with the arguments, which stand there in full."""

    def __init__(self, **settings):
        super().__init__(allow_abbrev=False, **settings)

    def error(self, message):
        print(f"bench.sh: {message}; try --help", file=sys.stderr)
        sys.exit(1)


def arguments():
    parser = Parser(prog="scripts/bench.sh", description="Measures the engine beside "
                                     "its peers, side by side in one run, and prints ratios.")
    parser.add_argument("--quick", action="store_true", help="tiny file systems: do the parts work?")
    parser.add_argument("--only", metavar="PART,...", type=lambda text: text.split(","),
                        help="of: " + ", ".join(PARTS))
    parser.add_argument("--dir", metavar="DIR", required=True, help="where the file systems are made, on a "
                        "disk (default: build/bench)")
    parser.add_argument("--keep", action="store_true", help="leave the file systems for the next run")
    parser.add_argument("--make", action="store_true", help="only make the file systems, and keep them")
    parser.add_argument("--rounds", metavar="N", type=int, help="rounds (9; with --quick 2)")
    parser.add_argument("--rounds-slow", metavar="N", type=int, default=1,
                        help="rounds of what takes minutes (1)")
    parser.add_argument("--limit", metavar="S", type=int, default=150,
                        help="seconds after which a peer is given up (150)")
    parser.add_argument("--limit-long", metavar="S", type=int, default=900,
                        help="the same for those that an aim or the check of the numbers needs (900)")
    parser.add_argument("--doc", metavar="FILE", help="where the page is written (a whole run: "
                        "docs/benchmarks.md; else it is only printed)")
    parser.add_argument("--check", action="store_true", help=argparse.SUPPRESS)  # of arguments alone
    parser.add_argument("--programs", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    for part in options.only or []:
        if part not in PARTS:
            parser.error(f"no such part: {part}; there are {', '.join(PARTS)}")
    if options.make:
        options.keep = True
    options.rounds = options.rounds or (2 if options.quick else 9)
    return options


def say(title):
    print(f"\n== {time.strftime('%H:%M:%S')} {title}", flush=True)


def compare_all(bench):
    found = {}
    for letter, item in bench.shapes.items():
        if bench.wants(letter):
            say(f"({letter}) {shapes.describe(item)}")
            found[letter] = comparison.compare(bench, letter, item)
    return found


def measure_throttled(bench):
    say("a disk of 150 reads a second")
    return [throttled.measure(bench, letter, bench.shapes[letter]) for letter in "ab"]


def measure_neighbour(bench):
    say("as a neighbour")
    return neighbour.measure(bench, bench.shapes["a"])


def measure_growth(bench):
    say("growth")
    return growth.measure(bench, shapes.growing_shapes(bench.quick))


def measure_library(bench):
    say("the library")
    return library.measure(bench.programs.folder, bench.folder)


def measure(bench):
    """Everything that is wanted; what this machine cannot do is named with its reason."""
    found = {"machine": machine.describe(bench.folder), "left_out": {}, "comparisons": compare_all(bench)}
    for part, key, action in [("throttled", "throttled", measure_throttled),
                              ("neighbour", "loads", measure_neighbour),
                              ("growth", "points", measure_growth),
                              ("library", "library", measure_library)]:
        if not bench.wants(part):
            continue
        try:
            found[key] = action(bench)
        except Unfit as reason:
            found["left_out"][part] = str(reason)
    return found


def write(bench, found, path):
    """Prints the page and writes it, the data and the picture beside it."""
    page = report.document(bench, found)
    print("\n" + page)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    beside = os.path.join(os.path.dirname(path), bench.picture)
    if "points" in found:
        growth.save(found["points"], beside + ".tsv")
        growth.plot(beside + ".tsv", beside + ".svg")
    with open(path, "w") as out:
        out.write(page)


def make_all(bench):
    for item in [*bench.shapes.values(), *sum(shapes.growing_shapes(bench.quick).values(), [])]:
        if bench.wants(item.name) or item.name not in bench.shapes and bench.wants("growth"):
            bench.maker.facts(item)


def run(options):
    refuse_memory(options.dir)
    bench = Bench(options)
    if options.make:
        return make_all(bench)
    begin = time.monotonic()
    found = measure(bench)
    with tempfile.TemporaryDirectory() as draft:
        write(bench, found, os.path.abspath(options.doc or os.path.join(draft, "benchmarks.md")))
    for item in bench.shapes.values():
        bench.maker.let_go(item)
    print(f"all of it took {(time.monotonic() - begin) / 60:.0f} minutes")
    return None


def main():
    options = arguments()
    if options.check:
        return 0
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        run(options)
    except (CommandFailed, Unfit, comparison.Wrong) as failure:
        print(f"bench.sh: {failure}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("bench.sh: interrupted; file systems that were made are kept for the next run",
              file=sys.stderr)
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
