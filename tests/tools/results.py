"""Reads the JSON reports that the test programs leave in build/<preset>/test-results."""
import dataclasses
import json
import pathlib


@dataclasses.dataclass
class Results:
    passed: set = dataclasses.field(default_factory=set)  # "Suite.Case"
    failed: list = dataclasses.field(default_factory=list)
    skipped: dict = dataclasses.field(default_factory=dict)  # "Suite.Case" to the reason
    seconds: dict = dataclasses.field(default_factory=dict)  # program to its time


def read_results(directory):
    """All reports of a directory, joined; a report that cannot be read raises."""
    results = Results()
    for path in sorted(pathlib.Path(directory).glob("*.json")):
        report = json.loads(path.read_text())
        results.seconds[path.stem] = float(report["time"].rstrip("s"))
        for suite in report["testsuites"]:
            for case in suite["testsuite"]:
                add_case(results, f"{suite['name']}.{case['name']}", case)
    return results


def add_case(results, name, case):
    if case.get("failures"):
        results.failed.append(name)
    elif case.get("result") == "SKIPPED":
        results.skipped[name] = case.get("skip_reason", "no reason given")
    elif case.get("status") == "RUN":
        results.passed.add(name)
