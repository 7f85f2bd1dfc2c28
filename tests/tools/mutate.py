#!/usr/bin/env python3
"""Breaks the behaviours of tests/mutations.py one at a time; each must turn a test red.

usage: scripts/mutate.sh [PATTERN]    all mutations, or those whose name matches it (a regular expression)
       scripts/mutate.sh --list       their names, files and tests
       scripts/mutate.sh --check      only whether the table fits the sources
       scripts/mutate.sh --help

Works in a copy of the tree under build/mutate; the checkout is not touched. First the tests that
the table names must pass without a mutation. Then each mutation is built and its tests run; one
line says which test turned red (a program that crashes or does not end counts as one). The last
line is "N mutations, N caught"; the status is 0 when the two are equal.
"""
import fnmatch
import json
import os
import pathlib
import re
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent.parent
sys.path.insert(0, str(HERE.parent))
from mutations import MUTATIONS  # noqa: E402

WORK = PROJECT / "build" / "mutate"
TREE = WORK / "tree"
BUILD = WORK / "build"
NOT_COPIED = {".git", "build"}
GREEN_SECONDS = 1800  # no program takes so long without a mutation, however busy the machine is
LEAST_SECONDS = 120  # what a program is given with a mutation, at least
HUNG_FACTOR = 4  # one that has not ended after so many times its time without has been hung
NO_WORLD = 125  # exit status of a test program that could not make its private world


def fail(text):
    sys.exit(f"mutate: {text}")


# ---- The table ------------------------------------------------------------------------------------


def suites_in(path):
    """The test suites of a source; those with parameters cannot be named."""
    return re.findall(r"^TEST(?:_F)?\(\s*(\w+)\s*,", path.read_text(), re.M)


def check_table(mutations):
    """Every name is there once; every old text stands in its file exactly once; every test exists."""
    problems = []
    suites = {suite for name in files_of(PROJECT) if name.name.endswith("_test.cc")
              for suite in suites_in(PROJECT / name)}
    names = [m.name for m in mutations]
    problems += [f"{name}: the name is taken twice" for name in sorted(set(names)) if names.count(name) > 1]
    for m in mutations:
        path = PROJECT / m.file
        found = path.read_text().count(m.old) if path.is_file() else 0
        if found != 1:
            problems.append(f"{m.name}: the old text occurs {found} times in {m.file}")
        if m.old == m.new or not m.tests:
            problems.append(f"{m.name}: changes nothing, or names no test")
        problems += [f"{m.name}: there is no test suite for {pattern}" for pattern in m.tests.split()
                     if not fnmatch.filter(suites, pattern.split(".")[0])]
    if problems:
        fail("the table does not fit the sources:\n  " + "\n  ".join(problems))


# ---- The copy of the tree -------------------------------------------------------------------------


def write_if_other(path, content):
    """Leaves the time stamp of a file alone that holds `content` already."""
    if path.is_file() and path.read_bytes() == content:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)


def files_of(root):
    for directory, subdirectories, names in os.walk(root):
        if pathlib.Path(directory) == root:
            subdirectories[:] = [d for d in subdirectories if d not in NOT_COPIED]
        for name in names:
            yield (pathlib.Path(directory) / name).relative_to(root)


def copy_tree():
    """Makes the copy equal to the checkout; also undoes what an interrupted run has left."""
    wanted = set(files_of(PROJECT))
    for name in wanted:
        write_if_other(TREE / name, (PROJECT / name).read_bytes())
        (TREE / name).chmod((PROJECT / name).stat().st_mode)
    for name in set(files_of(TREE)) - wanted:
        (TREE / name).unlink()


# ---- Building and running -------------------------------------------------------------------------


def configure():
    # Programs need not be linked again when only a shared library has changed.
    run = subprocess.run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=",
                          "-DCMAKE_CXX_FLAGS=-O0", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                          "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"],
                         text=True, errors="replace", stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if run.returncode != 0:
        fail("cmake:\n" + run.stdout)


def programs_of_suites():
    """Test suite to the programs that hold it, from the compiler's command lines."""
    programs = {}
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        target = re.search(r"CMakeFiles/(\w+)\.dir/", entry["command"])
        if target and entry["file"].endswith("_test.cc"):
            for suite in suites_in(pathlib.Path(entry["file"])):
                programs.setdefault(suite, set()).add(target[1])
    return programs


def tests_by_program(mutations, programs):
    """Program to the patterns of its tests that the mutations name."""
    patterns = {}
    for m in mutations:
        for pattern in m.tests.split():
            suites = fnmatch.filter(programs, pattern.split(".")[0])
            if not suites:
                fail(f"{m.name}: there is no test suite for {pattern}")
            for program in set().union(*(programs[suite] for suite in suites)):
                patterns.setdefault(program, set()).add(pattern)
    return patterns


def build(programs):
    """None, or the end of what the build said."""
    run = subprocess.run(["ninja", "-C", BUILD, *sorted(programs)], text=True, errors="replace",
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return None if run.returncode == 0 else "\n".join(run.stdout.splitlines()[-25:])


def run_tests(program, patterns, seconds, until_first_failure=False):
    """Exit status (None: no end within `seconds`), the tests that passed, and the first that did not."""
    command = [BUILD / "bin" / program, "--gtest_filter=" + ":".join(sorted(patterns)), "--gtest_color=no"]
    if until_first_failure:
        command.append("--gtest_fail_fast")
    # A session of its own: a broken library may send a signal to its process group.
    run = subprocess.Popen(command, cwd=BUILD, text=True, errors="replace", start_new_session=True,
                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        output = run.communicate(timeout=seconds)[0]
        status = run.returncode
    except subprocess.TimeoutExpired:
        run.kill()  # the private world ends with it
        output, status = run.communicate()[0], None
    except BaseException:
        run.kill()
        raise
    if status == NO_WORLD:
        fail(f"{program} could not make its private world:\n{output}")
    passed = re.findall(r"^\[ +OK \] (\S+)", output, re.M)
    failed = re.findall(r"^\[ +FAILED +\] (\w+\.\w+)", output, re.M)
    begun = re.findall(r"^\[ RUN +\] (\S+)", output, re.M)
    red = failed[0] if failed else next((test for test in begun if test not in passed), None)
    return status, passed, red


def check_green(patterns):
    """All tests of the table pass in the untouched copy, and every pattern names one.  Gives the seconds
    after which each program counts as hung."""
    problems = []
    limits = {}
    for program in sorted(patterns):
        began = time.monotonic()
        status, passed, red = run_tests(program, patterns[program], GREEN_SECONDS)
        limits[program] = max(LEAST_SECONDS, HUNG_FACTOR * (time.monotonic() - began))
        if status != 0:
            problems.append(f"{program}: {red or f'ended with status {status}'}")
            continue
        problems += [f"{program}: no test passed that is called {pattern}"
                     for pattern in sorted(patterns[program]) if not fnmatch.filter(passed, pattern)]
    if problems:
        fail("red without any mutation:\n  " + "\n  ".join(problems))
    return limits


def outcome(patterns, limits):
    """"caught", "SURVIVED" or "BROKEN" (does not build), and the test or the reason."""
    said = build(patterns)
    if said:
        return "BROKEN", "does not build:\n" + said
    for program in sorted(patterns):
        status, _, red = run_tests(program, patterns[program], limits[program],
                                   until_first_failure=True)
        if status is None:
            return "caught", f"{red or program} did not end"
        if status != 0:
            return "caught", red or f"{program} ended with status {status}"
    return "SURVIVED", f"nothing turned red in {', '.join(sorted(patterns))}"


def try_mutation(mutation, programs, limits):
    path = TREE / mutation.file
    before = path.read_text()
    path.write_text(before.replace(mutation.old, mutation.new))
    try:
        return outcome(tests_by_program([mutation], programs), limits)
    finally:
        path.write_text(before)


# ---- The command ----------------------------------------------------------------------------------


def main(arguments):
    if arguments[:1] == ["--help"]:
        print(__doc__.strip())
        return 0
    if len(arguments) > 1:
        fail("takes one argument at most; try --help")
    check_table(MUTATIONS)
    if arguments[:1] == ["--check"]:
        print(f"{len(MUTATIONS)} mutations fit the sources")
        return 0
    if arguments[:1] == ["--list"]:
        for m in MUTATIONS:
            print(f"{m.name}  ({m.file}; {m.tests})")
        return 0
    chosen = [m for m in MUTATIONS if not arguments or re.search(arguments[0], m.name)]
    if not chosen:
        fail(f"no mutation is called {arguments[0]}")

    copy_tree()
    configure()
    programs = programs_of_suites()
    patterns = tests_by_program(chosen, programs)
    print(f"building {len(patterns)} test programs", flush=True)
    said = build(patterns)
    if said:
        fail("the copy does not build:\n" + said)
    limits = check_green(patterns)
    caught = 0
    for m in chosen:
        began = time.monotonic()
        verdict, what = try_mutation(m, programs, limits)
        caught += verdict == "caught"
        print(f"{verdict:8}  {m.name}: {what}  ({time.monotonic() - began:.0f} s)", flush=True)
    print(f"{len(chosen)} mutations, {caught} caught")
    return 0 if caught == len(chosen) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
