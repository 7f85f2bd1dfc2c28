#!/usr/bin/env python3
"""Holds tests/COVERAGE.tsv against what ran: check_coverage.py TABLE MESSAGES LIBRARY RESULTS_DIR

Each row is "operation <tab> behaviour <tab> Suite.Case". Prints and fails for
  - a named test that did not run, or did not pass,
  - an exported operation of the library without a row,
  - a message text (one a line in MESSAGES) without a row that quotes it, or not in the library.
"""
import pathlib
import re
import subprocess
import sys

from results import read_results


def read_rows(path):
    rows = []
    for number, line in enumerate(pathlib.Path(path).read_text().splitlines(), 1):
        if not line or line.startswith("#") or line == "operation\tbehaviour\ttest":
            continue
        fields = line.split("\t")
        if len(fields) != 3 or not all(field.strip() for field in fields):
            sys.exit(f"{path}:{number}: not three fields: {line}")
        rows.append(fields)
    return rows


def exported_operations(library):
    """Class::Method of every function that the library exports, constructors and tables left out."""
    lines = subprocess.run(["nm", "-DC", "--defined-only", library], check=True, text=True,
                           capture_output=True).stdout.splitlines()
    operations = set()
    for line in lines:
        match = re.search(r" [TW] .*?ZorvBtrfsUsage::(\w+)::(~?\w+)(?:<[^(]*>|\[abi:cxx11\])?\(", line)
        if match and match[2].lstrip("~") != match[1]:
            operations.add(f"{match[1]}::{match[2]}")
    return operations


def check(table, messages, library, results_dir):
    rows = read_rows(table)
    ran = read_results(results_dir).passed
    for operation, behaviour, test in rows:
        if test not in ran:
            yield f"named test did not pass in this run: {test} ({operation}: {behaviour})"
    covered = {operation for operation, _, _ in rows}
    for operation in sorted(exported_operations(library) - covered):
        yield f"exported operation without a row: {operation}"
    behaviours = "\n".join(behaviour for _, behaviour, _ in rows)
    strings = pathlib.Path(library).read_bytes()
    for text in pathlib.Path(messages).read_text().split("\n"):
        if text and text not in behaviours:
            yield f"message without a row: {text}"
        if text.encode().replace(b'\\"', b'"') not in strings:
            yield f"message not in the library: {text}"


def main():
    problems = list(check(*sys.argv[1:5]))
    for problem in problems:
        print(problem)
    print(f"{len(problems)} problems" if problems else "coverage: nothing missing")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
