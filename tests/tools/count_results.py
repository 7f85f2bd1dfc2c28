#!/usr/bin/env python3
"""Counts what the test programs reported: count_results.py RESULTS_DIR

Prints the slowest programs and, as the last line, "N passed, N failed, N skipped". Ends with 1 when
a test failed, when one was skipped under CI=true, or when nothing ran at all.
"""
import os
import sys

from results import read_results


def main():
    results = read_results(sys.argv[1])
    for program, seconds in sorted(results.seconds.items(), key=lambda item: -item[1])[:5]:
        print(f"{seconds:7.1f} s  {program}")
    for name in results.failed:
        print(f"failed: {name}")
    for name, reason in results.skipped.items():
        print(f"skipped: {name}: {reason}")
    print(f"{len(results.passed)} passed, {len(results.failed)} failed, {len(results.skipped)} skipped")
    in_ci = os.environ.get("CI") == "true"
    bad = results.failed or not results.passed or (in_ci and results.skipped)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
