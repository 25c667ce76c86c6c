"""Tests of what turns measurements into verdicts, tables and charts."""

import unittest
import xml.dom.minidom

from runner import chart, micro, report
from runner.servers import BEAST, OURS
from runner.targets import Figure, Target


def sample(round_, server, value, row="tput", name="us"):
    return {"round": round_, "row": row, "server": server, "figures": {name: value}}


# The second round ran at half speed for both, and the third lost the peer's measurement.
SAMPLES = [sample(1, OURS, 1.0), sample(1, BEAST, 10.0), sample(2, OURS, 4.0), sample(2, BEAST, 20.0),
           sample(3, OURS, 9.0)]
RATIO = Target("to the peer", 0.16, Figure("tput", OURS, "us"), Figure("tput", BEAST, "us"))


class Verdicts(unittest.TestCase):
    def test_ratios_are_taken_within_rounds(self):
        verdict = RATIO.verdict(SAMPLES)
        self.assertEqual(verdict["rounds"], [0.1, 0.2])
        self.assertAlmostEqual(verdict["median"], 0.15)
        self.assertTrue(verdict["met"])

    def test_bounds_hold_in_their_direction(self):
        rate = Target("rate", 100, Figure("tput", OURS, "us"), at_least=True)
        self.assertFalse(rate.verdict([sample(1, OURS, 99)])["met"])
        self.assertTrue(rate.verdict([sample(1, OURS, 100)])["met"])
        self.assertFalse(RATIO.verdict([sample(1, OURS, 2.0), sample(1, BEAST, 10.0)])["met"])

    def test_what_was_not_measured_is_neither_met_nor_missed(self):
        verdict = RATIO.verdict([sample(1, OURS, 1.0)])
        self.assertIsNone(verdict["met"])
        self.assertIn("not measured", report.target_lines([verdict])[-1])


class Output(unittest.TestCase):
    RESULTS = {
        "servers": [{"key": OURS, "title": "ours & <own>"}, {"key": BEAST, "title": "Beast"}], "samples": SAMPLES,
        "rows": [{"key": key, "title": key, "figure": "us", "unit": "us", "also": []} for key in ("tput", "tput_100")]
    }

    def test_table_shows_medians_and_ratios(self):
        line = report.row_lines(self.RESULTS)[2]
        self.assertEqual(line, "| tput | us | 4.00 | 15.0 (0.15) |")

    def test_chart_is_well_formed_with_and_without_bars(self):
        with_bars = {**self.RESULTS, "samples": [sample(1, OURS, 0.0, "tput_100"), sample(1, BEAST, 3, "tput_100")]}
        for results, bars in ((self.RESULTS, 0), (with_bars, 2)):
            document = xml.dom.minidom.parseString(chart.svg(results))
            self.assertEqual(len(document.getElementsByTagName("rect")), bars + 1)  # one is the background


class Micro(unittest.TestCase):
    def test_google_figures_have_their_unit_and_none_is_made_up(self):
        output = {"benchmarks": [{"name": "printed/threads:16", "cpu_time": 9.0, "time_unit": "ns"},
                                 {"name": "printed/threads:1", "cpu_time": 2.0, "time_unit": "us"}]}
        self.assertEqual(micro.GoogleFigure("^printed.*threads:1$").read(output), 2000.0)
        self.assertIsNone(micro.GoogleFigure("^other").read(output))

    def test_the_worst_line_of_a_text_counts(self):
        figure = micro.PROGRAMS[-1].figures["clock_ratio"]
        self.assertEqual(figure.read("  1  ratio   0.981   1.0\n 16  ratio   0.870   1.1\n"), 0.87)
        self.assertIsNone(figure.read("1  zenk  5000\n"))


if __name__ == "__main__":
    unittest.main()
