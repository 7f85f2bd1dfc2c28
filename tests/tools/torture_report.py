#!/usr/bin/env python3
"""Prints the figures that the harnesses left: torture_report.py RESULTS_DIR

One line a test, "Suite.Case: 412 kills, 0 lost". Then what failed or was skipped, and as the last
line "N passed, N failed, N skipped". Ends with 1 as count_results.py does.
"""
import json
import pathlib
import sys

import count_results

MARK = "figure: "


def figures_of(case):
    return [f"{value} {name.removeprefix(MARK)}" for name, value in case.items() if name.startswith(MARK)]


def main():
    for path in sorted(pathlib.Path(sys.argv[1]).glob("*.json")):
        for suite in json.loads(path.read_text())["testsuites"]:
            for case in suite["testsuite"]:
                if figures := figures_of(case):
                    print(f"{suite['name']}.{case['name']}: {', '.join(figures)}")
    return count_results.main()


if __name__ == "__main__":
    sys.exit(main())
