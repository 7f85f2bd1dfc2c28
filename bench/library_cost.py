#!/usr/bin/env python3
"""Measures what the library costs and prints it as Markdown tables.

usage: library_cost.py BIN DISK     runs BIN/library_bench and BIN/whole_calculation as root; DISK is a
                                    folder on a disk for what they write, and is left as it was
       library_cost.py --from BENCH.json CALCULATIONS.tsv
                                    prints what they had printed before

Ends with 1 when a program failed, and with 3 when the tables are printed but a whole calculation cost
more than 30 ms above the bare engine.
"""
import csv
import json
import subprocess
import sys

LIMIT_MS = 30.0
REPETITIONS = 9
RUNS = 21

# Files, snapshots, runs, shares in the map.
CALCULATIONS = [(20000, 64, RUNS, 1), (20000, 100, RUNS, 1)]

# Name in library_bench and what its arguments say; what was measured.
OPERATIONS = {
    "ProgressLine/1": "one line of progress, to both status files",
    "ProgressLine/1000": "the same with 1,000 shares in the map",
    "ParseMillionLines": "10^6 lines of the engine, to the result files",
    "GetResultVtrMillion": "`GetResultVtr` of 10^6 entries",
    "FindTaskOfShare/1": "share to task, 1 share in the map",
    "FindTaskOfShare/1000": "share to task, 1,000 shares",
    "FindShareOfTask/1": "task to share, 1 share in the map",
    "FindShareOfTask/1000": "task to share, 1,000 shares",
    "LaunchToEngineStart/1/0": "`CreateTask` + `Launch` to the engine's start, 1 snapshot",
    "LaunchToEngineStart/100/0": "the same, 100 snapshots",
    "LaunchToEngineStart/100/1000": "the same, 100 snapshots, 1,000 other shares in the map",
}

UNITS_IN_MS = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def output_of(command):
    """Standard output of a program that must end well."""
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def measure(programs, disk):
    """The report of library_bench, and the rows of whole_calculation."""
    bench = output_of([f"{programs}/library_bench", disk, "--benchmark_format=json",
                       "--benchmark_min_time=0.1", f"--benchmark_repetitions={REPETITIONS}"])
    lines = []
    for plan in CALCULATIONS:
        lines += output_of([f"{programs}/whole_calculation", disk, *map(str, plan)]).splitlines()
    return json.loads(bench), rows_of(lines)


def rows_of(lines):
    """The calculations of one or several outputs, each of which begins with the names."""
    names = lines[0].split("\t")
    return [dict(zip(names, row)) for row in csv.reader(lines, delimiter="\t") if row != names]


def times_of(report):
    """Milliseconds of each repetition, by operation."""
    times = {}
    for run in report["benchmarks"]:
        if run.get("run_type") == "aggregate":
            continue
        name = run["run_name"].removesuffix("/manual_time").removesuffix("/real_time")
        times.setdefault(name, []).append(run["real_time"] * UNITS_IN_MS[run["time_unit"]])
    return times


def median(values):
    """The middle one, or the mean of the two."""
    ordered = sorted(values)
    return (ordered[(len(ordered) - 1) // 2] + ordered[len(ordered) // 2]) / 2


def milliseconds(value):
    """Three digits that count."""
    return f"{value:.0f} ms" if value >= 100 else f"{value:.3g} ms"


def print_operations(times):
    """A row for each operation; one that was not measured is an error."""
    print("| operation | median | least | most |\n|---|---|---|---|")
    for name, text in OPERATIONS.items():
        values = times[name]
        print(f"| {text} | {milliseconds(median(values))} | {milliseconds(min(values))} "
              f"| {milliseconds(max(values))} |")


def print_calculations(rows):
    """A row for each whole calculation beside the bare engine."""
    print("| files | snapshots | bare engine | through the library | overhead | least | most |")
    print("|---|---|---|---|---|---|---|")
    for row in rows:
        print(f"| {row['files']} | {row['snapshots']} | {row['engine_ms']} ms "
              f"| {row['library_ms']} ms | {row['overhead_ms']} ms | {row['overhead_min_ms']} ms "
              f"| {row['overhead_max_ms']} ms |")


def main(words):
    """Exit status: see above."""
    if len(words) == 3 and words[0] == "--from":
        with open(words[1], encoding="utf-8") as bench, open(words[2], encoding="utf-8") as rows:
            report, calculations = json.load(bench), rows_of(rows.read().splitlines())
    elif len(words) == 2:
        try:
            report, calculations = measure(*words)
        except (subprocess.CalledProcessError, OSError) as error:
            print(f"library_cost.py: {error}", file=sys.stderr)
            return 1
    else:
        print(__doc__, file=sys.stderr)
        return 2
    print_operations(times_of(report))
    print()
    print_calculations(calculations)
    return 3 if any(float(row["overhead_ms"]) > LIMIT_MS for row in calculations) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
