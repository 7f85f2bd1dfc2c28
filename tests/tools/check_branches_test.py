#!/usr/bin/env python3
"""What check_branches says about counts and tables."""
import contextlib
import io
import json
import pathlib
import tempfile
import unittest

import check_branches

SOURCE = "int F(int a) {\n  if (a) return 1;\n  G();\n  if (a) return 1;\n} catch (const E&) {\n}\n"
TITLE = "file\tline\tbranches\twhy\n"
IF = "unit/unit.cc\tif (a) return 1;\t"
CALL = "unit/unit.cc\tG();\t1\tnobody calls it\n"

def line(number, count, *taken, throws=()):
    """`throws`: of each call that may throw, how often it went on and threw."""
    return {"line_number": number, "count": count,
            "branches": [{"count": c, "throw": False, "fallthrough": False} for c in taken] +
                        [{"count": c, "throw": throw, "fallthrough": not throw}
                         for c in throws for throw in (False, True)]}


RAN = line(3, 4, 4)


class CheckBranches(unittest.TestCase):
    def check(self, lines, rows, folder="unit"):
        """Exit status and printed lines; each list of lines is one program's."""
        programs = lines if isinstance(lines[0], list) else [lines]
        with tempfile.TemporaryDirectory() as name:
            root = pathlib.Path(name).resolve()
            for made in ("tests", "unit", "build"):
                (root / made).mkdir()
            (root / "unit/unit.cc").write_text(SOURCE)
            table = root / "tests/uncovered.tsv"
            table.write_text(TITLE + rows)
            documents = [json.dumps({"current_working_directory": str(root / "build"),
                                     "files": [{"file": "../unit/unit.cc", "lines": of}]})
                         for of in programs]
            out = io.StringIO()
            with contextlib.redirect_stdout(out):
                status = check_branches.main([folder, str(table)], documents)
        return status, out.getvalue().splitlines()

    def test_all_taken_needs_no_row(self):
        self.assertEqual(
            (0, ["2 branches, 2 taken; not taken or not run: 0, 0 of them explained"]),
            self.check([line(2, 5, 4, 1)], ""))

    def test_branch_not_taken_needs_a_row(self):
        lines = [line(2, 5, 5, 0), line(4, 5, 2, 3)]
        status, said = self.check(lines, "")
        self.assertEqual(1, status)
        self.assertEqual("not taken, not explained: unit/unit.cc:2 (1): if (a) return 1;", said[0])
        self.assertEqual(
            (0, ["4 branches, 3 taken; not taken or not run: 1, 1 of them explained"]),
            self.check(lines, IF + "1\ta is never 0\n"))

    def test_line_not_run_needs_a_row(self):
        lines = [line(2, 5, 4, 1), line(3, 0)]
        self.assertIn("not taken, not explained: unit/unit.cc:3 (1): G();", self.check(lines, "")[1])
        self.assertEqual(0, self.check(lines, CALL)[0])

    def test_what_exceptions_take_needs_none(self):
        self.assertEqual(0, self.check([line(2, 5, 4, 1, throws=[0]), line(5, 5, 5, 0), line(6, 0)], "")[0])

    def test_programs_and_instances_are_added(self):
        self.assertEqual(0, self.check([[line(2, 5, 5, 0), line(2, 0, 0, 0)], [line(2, 2, 0, 2)]], "")[0])

    def test_other_branches_of_one_line_are_their_own(self):
        said = self.check([line(2, 5, 5, 1), line(2, 3, 0, 3, throws=[0])], "")[1]
        self.assertEqual("not taken, not explained: unit/unit.cc:2 (1): if (a) return 1;", said[0])

    def test_lines_with_one_text_share_a_row_and_are_counted(self):
        lines = [line(2, 5, 5, 0), line(4, 0, 0, 0)]
        self.assertEqual(0, self.check(lines, IF + "3\ta is never 0\n")[0])
        status, said = self.check(lines, IF + "1\ta is never 0\n")
        self.assertEqual(1, status)
        self.assertEqual("not taken: 3, explained: 1: unit/unit.cc:2,4: if (a) return 1;", said[0])

    def test_row_without_a_line_is_out_of_date(self):
        status, said = self.check([RAN], CALL)
        self.assertEqual(1, status)
        self.assertEqual("explained, but taken or gone: unit/unit.cc: G();", said[0])

    def test_no_branch_at_all_is_a_failure(self):
        self.assertEqual(1, self.check([RAN], "", folder="elsewhere")[0])

    def test_rows_that_are_none_end_the_run(self):
        for rows in ("unit/unit.cc\tG();\t1\t \n", "unit/unit.cc\tG();\tno number\n", CALL + CALL):
            with self.assertRaises(SystemExit):
                self.check([line(3, 0)], rows)


if __name__ == "__main__":
    unittest.main()
