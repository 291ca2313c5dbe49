#!/usr/bin/env python3
"""The pictures of growing costs show the numbers that they are made of, and are not made of damaged ones. Argument: the
folder of the scripts."""

import pathlib
import sys
import tempfile
import unittest
import xml.etree.ElementTree as xml

scripts = pathlib.Path(sys.argv[1])
sys.path.insert(0, str(scripts))

import growth_plots
from growth_plots import Damaged, Point, Series

SVG = "{http://www.w3.org/2000/svg}"
LINE = "plug-to-visible           service           10 entries          12.50 ms  11.00 to 20.25  11 rounds"


def sound_lines():
    """All that the pictures need; a larger size costs more."""
    for plot in growth_plots.PLOTS:
        for _, (what, who, size_unit) in plot.series:
            for i, size in enumerate(plot.sizes):
                yield (f"{what:<24}  {who:<12}  {size:>6} {size_unit:<10}  {10 * i + 1:>10.2f} {plot.unit:<2}  "
                       f"{10 * i:.2f} to {10 * i + 2:.2f}  11 rounds")


class Reading(unittest.TestCase):
    def test_a_line_is_a_point_of_a_series(self):
        unit, points = growth_plots.read(LINE)[Series("plug-to-visible", "service", "entries")]
        self.assertEqual(unit, "ms")
        self.assertEqual(points, {10: Point(10, 12.5, 11, 20.25)})

    def test_comments_and_empty_lines_are_no_points(self):
        self.assertEqual(growth_plots.read(f"# load 1.0\n\n{LINE}\n"), growth_plots.read(LINE))

    def test_a_difference_may_be_negative(self):
        line = "processor-time  difference  0 records/s  -0.20 %  -0.40 to 0.20  11 rounds"
        self.assertEqual(growth_plots.read(line)[Series("processor-time", "difference", "records/s")][1][0].median, -0.2)

    def test_what_is_no_point_is_refused(self):
        for damaged in LINE[:-7], LINE + " and", LINE.replace("12.50", "12,50"), LINE.replace("12.50", "nan"), \
                LINE.replace(" 10 ", " 1e1 "), "tessabench: the service does not start":
            with self.subTest(damaged), self.assertRaisesRegex(Damaged, "line 2 is no point"):
                growth_plots.read(f"# load\n{damaged}")

    def test_what_cannot_be_is_refused(self):
        for damaged, reason in ((LINE.replace("12.50", "10.99"), "outside of its spread"),
                                (LINE.replace("12.50", "20.26"), "outside of its spread"),
                                (LINE.replace("11 rounds", "10 rounds"), "10 rounds are too few"),
                                (f"{LINE}\n{LINE}", "two of this point"),
                                (f"{LINE}\n{LINE.replace(' 10 ', ' 99 ').replace('ms', 's')}", "is in s")):
            with self.subTest(damaged), self.assertRaisesRegex(Damaged, reason):
                growth_plots.read(damaged)


class Pictures(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def make(self, lines):
        data = self.folder / "growth.txt"
        data.write_text("\n".join(lines), encoding="ascii")
        growth_plots.main(data, self.folder / "made")

    def pictures(self):
        return {path.stem: xml.parse(path).getroot() for path in sorted((self.folder / "made").glob("*.svg"))}

    def test_each_shows_all_of_its_points(self):
        self.make(sound_lines())
        pictures = self.pictures()
        self.assertEqual(set(pictures), {plot.name for plot in growth_plots.PLOTS})
        for plot in growth_plots.PLOTS:
            picture = pictures[plot.name]
            self.assertEqual(len(picture.findall(f"{SVG}circle")), len(plot.series) * len(plot.sizes), plot.name)
            lines = [line.get("points").split() for line in picture.findall(f"{SVG}polyline")]
            # A zero on a logarithmic axis is not connected.
            connected = [size for size in plot.sizes if size or not plot.is_log]
            self.assertEqual([len(line) for line in lines], [len(connected)] * len(plot.series), plot.name)
            texts = {text.text for text in picture.findall(f"{SVG}text")}
            self.assertLessEqual({plot.x_label, plot.y_label, *(label for label, _ in plot.series)}, texts, plot.name)

    def test_more_is_higher_and_further_right(self):
        self.make(sound_lines())
        for plot in growth_plots.PLOTS:
            circles = self.pictures()[plot.name].findall(f"{SVG}circle")[:len(plot.sizes)]
            places = [(float(circle.get("cx")), -float(circle.get("cy"))) for circle in circles]
            self.assertEqual([x for x, _ in places], sorted({x for x, _ in places}), plot.name)
            self.assertEqual([y for _, y in places], sorted({y for _, y in places}), plot.name)

    def test_the_same_numbers_make_the_same_pictures(self):
        self.make(sound_lines())
        first = {name: xml.tostring(picture) for name, picture in self.pictures().items()}
        self.make(sound_lines())
        self.assertEqual({name: xml.tostring(picture) for name, picture in self.pictures().items()}, first)

    def refuse(self, lines, reason):
        with self.assertRaises(SystemExit) as refused:
            self.make(lines)
        self.assertIn(reason, str(refused.exception))
        self.assertEqual(self.pictures(), {})

    def test_none_is_made_without_all_points(self):
        lines = list(sound_lines())
        for missing in range(len(lines)):
            with self.subTest(lines[missing]):
                self.refuse(lines[:missing] + lines[missing + 1:], "there is no point at")

    def test_none_is_made_of_other_units(self):
        self.refuse([line.replace(" ms ", " s  ") for line in sound_lines()], "s instead of ms")

    def test_none_is_made_of_nothing(self):
        self.refuse([], "there is no point at")

    def test_a_file_that_is_not_there_is_told(self):
        with self.assertRaises(SystemExit) as refused:
            growth_plots.main(self.folder / "none.txt", self.folder / "made")
        self.assertIn("none.txt", str(refused.exception))

    def test_the_axis_ends_beyond_the_highest(self):
        for highest in 0.3, 1, 7, 42, 99, 101, 1234:
            ticks = growth_plots.ticks(highest)
            self.assertEqual(ticks[0], 0)
            self.assertGreaterEqual(ticks[-1], highest)
            self.assertTrue(3 <= len(ticks) <= 7, (highest, ticks))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
