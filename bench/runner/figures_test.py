"""The arithmetic, the targets' verdicts, and what the page says about them. Started by ctest in the bench preset."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import catalogue
import main
import page
import plots
import tables
from figures import Series, figures_of, median, ratio
from targets import TARGETS, Target, number

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


def sample(**values):
    base = {"bytes": 2.0 ** 30, "wall": 2.0, "user": 0.25, "system": 0.5, "server": 0.25, "voluntary": 100,
            "involuntary": 3, "peak_kib": 2048, "memory_before_kib": 1024, "latencies": {}}
    return dict(base, **values)


def series(*samples):
    made = Series()
    for each in samples:
        made.add(each)
    return made


def read(name):
    with open(os.path.join(ROOT, name)) as file:
        return file.read()


class ArithmeticTest(unittest.TestCase):
    def test_the_median_is_the_middle_or_the_mean_of_the_two_in_the_middle(self):
        self.assertEqual(median([5, 1, 3]), 3)
        self.assertEqual(median([4, 1, 3, 2]), 2.5)
        self.assertIsNone(median([]))

    def test_a_ratio_is_that_of_neighbours(self):
        # The second round was slow for both: the quotient of the medians would be 3.
        self.assertEqual(ratio([2, 20, 6], [1, 10, 2]), 2)
        self.assertEqual(ratio([2, None, 4], [1, 5, 2]), 2)
        self.assertEqual(ratio([1, 3], [0, 2]), 1.5)
        self.assertIsNone(ratio([1], [0]))

    def test_the_figures_of_a_run(self):
        figures = figures_of(sample(threads=3, streams=4, expected=2.0 ** 31))
        self.assertEqual(figures["cpu"], 1.0)
        self.assertEqual(figures["client"], 0.75)
        self.assertEqual(figures["cpu_per_gib"], 1.0)
        self.assertAlmostEqual(figures["throughput"], 2.0 ** 30 / 2e6)
        self.assertEqual(figures["switches_per_gib"], 100)
        self.assertEqual(figures["peak_mib"], 2)
        self.assertEqual(figures["complete"], 0.5)
        self.assertEqual(figures["threads"], 2)
        self.assertAlmostEqual(figures["kb_per_stream"], 1024 * 1024 / 4000.0)

    def test_the_figures_of_datagrams_and_latencies(self):
        figures = figures_of(sample(packets=1000, dropped=50, sent=1050, latencies={"seek": [9, 1, 2]}))
        self.assertAlmostEqual(figures["us_per_packet"], 750)
        self.assertAlmostEqual(figures["drop_share"], 50 / 1050.0)
        self.assertEqual((figures["seek_median_us"], figures["seek_most_us"]), (2, 9))

    def test_a_run_without_bytes_divides_by_nothing(self):
        figures = figures_of(sample(bytes=0))
        self.assertIsNone(figures["cpu_per_gib"])
        self.assertIsNone(figures["switches_per_gib"])


class TargetTest(unittest.TestCase):
    def outcome(self):
        ours = series(sample(user=0.5, wall=4.0), sample(user=0.5, wall=4.0))
        return {("http-32k", True): {"mdch": ours, "curl": series(sample(), sample())}}

    def test_a_ratio_to_another(self):
        target = Target("t", "http-32k", "cpu", most=1.25, to="curl", pinned=True)
        self.assertEqual(target.value(self.outcome()), 1.25)
        self.assertTrue(target.met(1.25))
        self.assertFalse(target.met(1.26))

    def test_at_least(self):
        target = Target("t", "http-32k", "throughput", least=0.6, to="curl")
        self.assertEqual(target.value(self.outcome()), 0.5)
        self.assertFalse(target.met(0.5))

    def test_a_figure_by_itself_and_a_difference(self):
        self.assertEqual(Target("t", "http-32k", "wall", most=1).value(self.outcome()), 4)
        self.assertEqual(Target("t", "http-32k", "wall", most=1, to="curl", difference=True).value(self.outcome()), 2)

    def test_what_was_not_measured_has_no_value(self):
        self.assertIsNone(Target("t", "http-32k", "cpu", most=1, to="curl", pinned=False).value(self.outcome()))
        self.assertIsNone(Target("t", "http-32k", "cpu", most=1, to="socket").value(self.outcome()))

    def test_every_target_names_what_is_measured(self):
        loads = {load.name: load for load in catalogue.all_loads(catalogue.FULL)}
        known = set(figures_of(sample(threads=1, streams=1, packets=1, dropped=0, sent=1)))
        for target in TARGETS:
            load = loads[target.load]
            names = {entrant.name for entrant in load.entrants}
            self.assertIn(target.of, names, target.text)
            self.assertTrue(target.to is None or target.to in names, target.text)
            self.assertIn(target.figure, known | set(load.columns), target.text)
            self.assertTrue(target.pinned is None or load.both_ways, target.text)
            self.assertTrue((target.most is None) != (target.least is None), target.text)

    def test_numbers_are_short(self):
        self.assertEqual([number(value) for value in (None, 20000, 1.124, 36824.2, 0.001)],
                         ["-", "20,000", "1.12", "36,824", "0.001"])


class TableTest(unittest.TestCase):
    def test_the_ratios_are_to_each_baseline_that_ran(self):
        load = catalogue.Load("x", "X", [], baselines=["curl", "socket"])
        ran = {"mdch": series(sample(user=1.25)), "curl": series(sample())}
        headings, rows = tables.ratio_rows(load, ran)
        self.assertEqual(headings, ["", "CPU/curl", "MB/s/curl", "switches/curl", "peak/curl"])
        self.assertEqual(rows, [["mdch", "2", "1", "1", "1"], ["curl", "1", "1", "1", "1"]])
        self.assertEqual(tables.ratio_rows(load, {"mdch": series(sample())})[1], [])

    def test_columns_are_aligned(self):
        self.assertEqual(tables.aligned(["", "CPU"], [["a", "1.25"], ["bcd", "7"]]), "      CPU\na    1.25\nbcd     7")


class PlotTest(unittest.TestCase):
    def test_a_load_that_was_not_measured_leaves_a_gap_and_no_chart(self):
        outcome = {("http-4k", True): {"mdch": series(sample())}, ("http-32k", True): {"curl": series(sample())}}
        names, rows = plots.rows_of_bars(outcome, plots.ALL_BODIES, "cpu", True)
        self.assertEqual(names, ["mdch", "curl"])
        self.assertEqual(rows, [("http 4k", [1.0, None]), ("http 32k", [None, 1.0])])
        self.assertEqual(plots.rows_of_bars(outcome, plots.ALL_BODIES, "cpu", False), ([], []))


class PageTest(unittest.TestCase):
    def test_a_block_is_exchanged_and_the_rest_stays(self):
        begin, end = page.markers("x")
        text = "before\n%s\nold\n%s\nbehind\n" % (begin, end)
        self.assertEqual(page.block_of(text, "x"), "old")
        self.assertEqual(page.with_block(text, "x", "new\n"), text.replace("old", "new"))

    def test_the_figures_of_a_run_come_into_the_page(self):
        load = catalogue.Load("http-32k", "Title", [])
        run = main.Run(rounds=3, date="2000-01-01", machine="a machine", versions=["libcurl 1"], short=True,
                       loads=[(load, True)], outcome={("http-32k", True): {"mdch": series(sample(user=0.5)),
                                                                           "curl": series(sample())}},
                       instructions=[{"what": "mdch, per KiB", "instructions": 12.0}])
        with tempfile.TemporaryDirectory() as folder:
            drawn = plots.draw_all(run.outcome, folder)
            self.assertEqual([os.path.basename(file) for file in drawn], ["cpu.svg", "throughput.svg"])
            copy = os.path.join(folder, "performance.md")
            shutil.copy(os.path.join(ROOT, main.PAGE), copy)
            page.rewrite(copy, run, drawn)
            with open(copy) as file:
                text = page.block_of(file.read(), page.FIGURES)
            with open(os.path.join(folder, "performance-cpu.svg")) as file:
                self.assertIn("seconds per GiB", file.read())
        for piece in ("a machine", "libcurl 1", "3 rounds of a short run", "](performance-cpu.svg)",
                      "### Title, a core each", "| mdch | 1.250 | 1.000 | 0.250 |", "| mdch | 1.25 | 1 | 1 | 1 |",
                      "| http, 32 KiB, pinned: CPU of both sides, to libcurl | ≤ 1.10 | 1.25 | missed |",
                      "| mdch, per KiB | 12.0 |"):
            self.assertIn(piece, text)

    def test_the_page_shows_the_targets(self):
        self.assertEqual(page.block_of(read(main.PAGE), page.TARGET_LIST), page.target_list())

    def test_the_page_explains_every_load(self):
        told = set(re.findall(r"^\| `([a-z0-9-]+)`", read(main.PAGE), re.MULTILINE))
        names = {load.name for load in catalogue.all_loads(catalogue.FULL)} | set(main.EXTRAS)
        self.assertEqual(told, names)

    def test_the_help_names_every_option(self):
        done = subprocess.run([os.path.join(ROOT, "bench/run"), "--help"], capture_output=True, text=True, check=True)
        told = set(re.findall(r"^  (--[a-z]+)", done.stdout, re.MULTILINE))
        self.assertEqual(told, set(main.parser()._option_string_actions))
        self.assertIn("%d, with --quick %d" % (catalogue.FULL.rounds, catalogue.QUICK.rounds), done.stdout)

    def test_a_page_is_of_all_loads(self):
        for words in (["--page", "--load", "seek"], ["--page", "--pinned"], ["--rounds", "0"]):
            with self.assertRaises(SystemExit), open(os.devnull, "w") as nowhere:
                sys.stderr = nowhere
                try:
                    main.arguments(words)
                finally:
                    sys.stderr = sys.__stderr__


if __name__ == "__main__":
    unittest.main()
