#!/usr/bin/env python3
"""Holds branches that no test took against their explanations: check_branches.py FOLDER... TABLE.tsv

Standard input: what `gcov --json-format --branch-probabilities --stdout` prints, a document a line. Only
files below FOLDERs are judged. Whether a call ends by an exception, and whether a handler fits it, is no
branch of the source and left out, as are lines with nothing but a brace. (gcovr reads gcov's text, where a branch that was never reached does not say
whether an exception takes it; so the report is gcovr's, but not the judgement.)

TABLE has a row for each text of a line with a branch that was not taken: file, the line as it stands
(without indentation), how many branches no test took on the lines with this text (a line that never ran
and has no branch counts as one), why; separated by tabs. Prints each such line that has no row or a row
with another number, and each row that fits no such line. Ends with 1 when there is one of these.
"""
import collections
import json
import pathlib
import sys
from typing import NamedTuple

USAGE = "usage: check_branches.py FOLDER... TABLE.tsv <gcov.json"


class Place(NamedTuple):
    """Lines of one file with the same text."""

    file: str
    text: str


class Missed(NamedTuple):
    """What no test took there: numbers of the lines, and how many branches on all of them."""

    numbers: list
    branches: int


def own_branches(branches):
    """Whether each is the source's own: a call that may throw has two that are not, the throw after the way on."""
    throws = [branch["throw"] for branch in branches]
    own = [not throw for throw in throws]
    for i, throw in enumerate(throws):
        if throw and i > 0 and branches[i - 1]["fallthrough"]:
            own[i - 1] = False
    return tuple(own)


class Line:
    """One line of a source over all programs that have it."""

    def __init__(self):
        self.runs = 0
        self.shapes = {}  # which branches are the source's own -> how often each branch was taken

    def add(self, line):
        """Instances of a template have the same branches; what one takes is taken."""
        self.runs += line["count"]
        shape = own_branches(line["branches"])
        taken = self.shapes.setdefault(shape, [0] * len(shape))
        for i, branch in enumerate(line["branches"]):
            taken[i] += branch["count"]

    def branches(self):
        """How often each of the source's own branches was taken."""
        return [taken for shape, counts in self.shapes.items()
                for own, taken in zip(shape, counts) if own]


def read_lines(documents, root, folders):
    """(file relative to root, number) -> Line."""
    lines = collections.defaultdict(Line)
    for document in documents:
        report = json.loads(document)
        for file in report["files"]:
            path = pathlib.Path(report["current_working_directory"], file["file"]).resolve()
            if not any(path.is_relative_to(root / folder) for folder in folders):
                continue
            for line in file["lines"]:
                lines[str(path.relative_to(root)), line["line_number"]].add(line)
    return lines


class Judgement:
    """All branches, and those not taken by the place they are at."""

    def __init__(self, lines, root):
        self.branches = 0
        self.taken = 0
        self.missed = {}  # Place -> Missed
        texts = {file: (root / file).read_text().splitlines() for file, _ in lines}
        for (file, number), line in sorted(lines.items()):
            self.judge(Place(file, texts[file][number - 1].strip()), number, line)

    def judge(self, place, number, line):
        if not place.text.strip("});"):
            return
        branches = [] if "catch (" in place.text else line.branches()
        self.branches += len(branches)
        self.taken += sum(taken > 0 for taken in branches)
        count = branches.count(0) if branches else int(line.runs == 0)
        if count > 0:
            before = self.missed.get(place, Missed([], 0))
            self.missed[place] = Missed(before.numbers + [number], before.branches + count)


def read_table(path):
    """Place -> number of branches that are explained."""
    table = {}
    for row in path.read_text().splitlines()[1:]:
        fields = row.split("\t")
        if len(fields) != 4 or not fields[2].isdigit() or not fields[3].strip():
            sys.exit(f"check_branches: not file, line, branches, reason: {row}")
        place = Place(fields[0], fields[1])
        if place in table:
            sys.exit(f"check_branches: two rows for {place.file}: {place.text}")
        table[place] = int(fields[2])
    return table


def complaints(found, table):
    """One line each, in the order of the files."""
    said = []
    for place, what in sorted(found.items()):
        where = f"{place.file}:{','.join(map(str, what.numbers))}"
        if place not in table:
            said.append(f"not taken, not explained: {where} ({what.branches}): {place.text}")
        elif table[place] != what.branches:
            said.append(f"not taken: {what.branches}, explained: {table[place]}: {where}: {place.text}")
    for place in sorted(set(table) - set(found)):
        said.append(f"explained, but taken or gone: {place.file}: {place.text}")
    return said


def main(arguments, documents):
    if len(arguments) < 2:
        sys.exit(USAGE)
    table_path = pathlib.Path(arguments[-1]).resolve()
    root = table_path.parent.parent
    judgement = Judgement(read_lines(documents, root, arguments[:-1]), root)
    table = read_table(table_path)
    said = complaints(judgement.missed, table)
    for line in said:
        print(line)
    missed = sum(what.branches for what in judgement.missed.values())
    explained = sum(what.branches for place, what in judgement.missed.items()
                    if table.get(place) == what.branches)
    print(f"{judgement.branches} branches, {judgement.taken} taken; "
          f"not taken or not run: {missed}, {explained} of them explained")
    return 1 if said or judgement.branches == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:], sys.stdin))
