#!/usr/bin/env python3
"""The parts of bench/engine that read what others print, and those that judge."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../../bench/engine"))

import aims  # noqa: E402
import engine  # noqa: E402
import growth  # noqa: E402
import peers  # noqa: E402
import reads  # noqa: E402
from comparison import Answer, Comparison, Wrong, check_numbers  # noqa: E402
from figures import Figure, deviation, size, span, straight_line, times  # noqa: E402

TRACE = """\
# tracer: nop
 btrfs-10 [000] ..... 1.000001: block_bio_queue: 7,0 R 800 + 32 [btrfs]
 btrfs-10 [000] ..... 1.000002: block_bio_queue: 7,0 R 832 + 32 [btrfs]
 btrfs-tr-9 [001] ..... 1.000003: block_bio_queue: 7,0 RM 64 + 32 [btrfs-transacti]
 btrfs-10 [001] ..... 1.000003: block_bio_queue: 7,0 WS 96 + 32 [btrfs]
 kworker-3 [000] ..... 1.000004: block_rq_complete: 7,0 R () 800 + 64 none,0,0 [0]
 btrfs-10 [000] ..... 1.000005: block_bio_queue: 7,0 R 0 + 2048 [btrfs]
 kworker-3 [000] ..... 1.000006: block_rq_complete: 7,0 R () 0 + 1024 none,0,0 [0]
 btrfs-10 [000] ..... 1.000007: block_bio_queue: 7,0 R 4096 + 8 [btrfs]
 kworker-3 [000] ..... 1.000008: block_rq_complete: 7,0 R () 1024 + 1024 none,0,0 [0]
 btrfs-10 [000] ..... 1.000009: block_bio_queue: 7,0 R 8192 + 8 [btrfs]
""".splitlines()


def comparison(seconds, replay, quota, du, resident=1 << 20):
    """A comparison with these medians; None for what gave no figure."""
    figure = lambda value: None if value is None else Figure([value])
    return Comparison("a", {}, Figure([seconds]), resident, 0.0, None, figure(replay), None, None,
                      Answer(peers.QUOTA_PEER, figure(quota), "", "" if quota is None else "2 of 2 equal"),
                      [Answer(aims.DU, figure(du), "", "")])


class Reads(unittest.TestCase):
    def test_writes_and_metadata_of_the_kernel_are_left_out(self):
        self.assertEqual([(800 * 512, 32 * 512), (832 * 512, 32 * 512), (0, 2048 * 512), (4096 * 512, 4096),
                          (8192 * 512, 4096)], reads.parse(TRACE).places)

    def test_joined_and_cut_reads_are_under_way_until_their_last_byte(self):
        self.assertEqual(2, reads.parse(TRACE).depth)
        self.assertEqual(3, reads.parse([line for line in TRACE if "complete: 7,0 R () 1024" not in line]).depth)

    def test_no_read_at_all(self):
        self.assertEqual(([], 1, 0), (reads.parse([]).places, reads.parse([]).depth, reads.parse([]).bytes))


class Engine(unittest.TestCase):
    OUT = "generation 7\ntotal 16384 bytes\ntotal 32768 bytes\nsubvol(257) 40 bytes\nsubvol(9) 0 bytes\n"

    def test_numbers_and_the_last_total(self):
        self.assertEqual({257: 40, 9: 0}, engine.numbers(self.OUT))
        self.assertEqual(32768, engine.planned_bytes(self.OUT))

    def test_one_wrong_or_missing_number_ends_the_run(self):
        check_numbers({257: 40, 9: 0}, {257: 40}, "")
        self.assertRaises(Wrong, check_numbers, {257: 41}, {257: 40}, "")
        self.assertRaises(Wrong, check_numbers, {}, {257: 0}, "")


class Figures(unittest.TestCase):
    def test_words(self):
        self.assertEqual(["4.12 ms", "150 ms", "9 s", "107 s"], [span(s) for s in (0.00412, 0.15, 9.0, 107.2)])
        self.assertEqual(["512 bytes", "24.1 MB", "1.25 GB", "2500 GB"],
                         [size(n) for n in (512, 24.1e6, 1.25e9, 2.5e12)])
        self.assertEqual(["1.72", "24", "2,613"], [times(n) for n in (1.7249, 24.4, 2613.2)])

    def test_median_of_rounds(self):
        self.assertEqual(2, Figure([9, 1, 2]).median)

    def test_line_through_points(self):
        line = straight_line([(1, 5.0), (2, 7.0), (4, 11.0)])
        self.assertAlmostEqual(2, line.slope)
        self.assertAlmostEqual(3, line.start)
        self.assertAlmostEqual(1, line.fit)

    def test_deviation_names_the_worst(self):
        self.assertEqual("exact: 2 of 2 equal", deviation({1: 5, 2: 0}, {1: 5, 2: 0}))
        self.assertIn("1 of 3 equal", deviation({1: 5, 2: 3}, {1: 5, 2: 9, 3: 1}))
        self.assertIn("worst 6 bytes too low of 9 bytes", deviation({1: 5, 2: 3}, {1: 5, 2: 9, 3: 1}))


class Growth(unittest.TestCase):
    def test_words_come_from_the_data(self):
        points = [growth.Point("snapshots", n, 0, n * 1000, Figure([n / 1000])) for n in (1, 2, 10)]
        words = growth.words(points, "snapshots")
        self.assertIn("from 1 to 10 snapshots", words)
        self.assertIn("grows x 10, from 1 ms to 10 ms", words)
        self.assertIn("1 s for each thousand (R² 1.000)", words)


class Aims(unittest.TestCase):
    def verdicts(self, letter, *figures, **more):
        return [aim.reached for aim in aims.of_comparison(letter, comparison(*figures, **more))]

    def test_reached_at_the_limit_and_not_below(self):
        self.assertEqual([True] * 6, self.verdicts("a", 1, 0.5, 150, 1000))
        self.assertEqual([True, False, False, False, False, True], self.verdicts("a", 1, 0.25, 149, 999))

    def test_between_aim_and_must(self):
        self.assertEqual([True, True, False, True, True], self.verdicts("c", 2.1, 1, 168, 0))

    def test_what_gave_no_figure_is_not_reached_and_not_missed(self):
        self.assertEqual([None, None, None, None, None, True], self.verdicts("a", 1, None, None, None))
        self.assertEqual("not measured", aims.Aim("", "", None).verdict())

    def test_memory(self):
        self.assertEqual(False, self.verdicts("b", 1, 1, 200, 2000, resident=32 << 20)[-1])


class Peers(unittest.TestCase):
    def test_usage_on_disk(self):
        self.assertEqual(2457600, peers.disk_usage(
            "Processed 200 files.\nType  Perc  Disk Usage\nTOTAL  50%  2457600  4915200  4915200\nnone 50% 1\n"))


if __name__ == "__main__":
    unittest.main()
