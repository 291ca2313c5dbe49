#!/usr/bin/env python3
"""Makes pictures of how costs grow: growth_plots.py DATA FOLDER writes FOLDER/NAME.svg of what tessabench's subjects
growth-* have printed. Lines that begin with # say how it was measured. A line that says something else than one point,
or a picture that lacks one, is an error, and nothing is written then."""

import math
import pathlib
import re
import sys
from typing import NamedTuple

LINE = re.compile(r"(\S+) +(\S+) +(\d+) (\S+) +(-?\d+\.\d+) (\S+) +(-?\d+\.\d+) to (-?\d+\.\d+) +(\d+) rounds")
LEAST_ROUNDS = 11


class Point(NamedTuple):
    size: int
    median: float
    low: float
    high: float


class Series(NamedTuple):
    what: str
    who: str
    size_unit: str


class Plot(NamedTuple):
    name: str
    title: str
    x_label: str
    y_label: str
    is_log: bool
    unit: str
    sizes: tuple
    series: tuple  # of (label, Series)


PLOTS = (
    Plot("template", "One adapter event, by the size of the template", "entries in the template (logarithmic)",
         "milliseconds", True, "ms", (10, 100, 1000, 10000), (
             ("plug to visible", Series("plug-to-visible", "service", "entries")),
             ("the same, bare station", Series("plug-to-visible", "bare-station", "entries")),
             ("unplug to hidden", Series("unplug-to-hidden", "service", "entries")),
             ("the same, bare station", Series("unplug-to-hidden", "bare-station", "entries")))),
    Plot("components", "Unplug to hidden, by the station manager's components", "components, one of them the station",
         "milliseconds", False, "ms", (1, 2, 4, 8, 16, 32), (
             ("service", Series("unplug-to-hidden", "service", "components")),
             ("bare station", Series("unplug-to-hidden", "bare-station", "components")))),
    Plot("records", "Processor time, by the flood of foreign records", "records per second (logarithmic)",
         "percent of one processor", True, "%", (0, 100, 1000, 10000), (
             ("service", Series("processor-time", "service", "records/s")),
             ("bare reader", Series("processor-time", "bare-reader", "records/s")),
             ("service, told of each change", Series("processor-time-each-told", "service", "records/s")),
             ("bare reader, told of each", Series("processor-time-each-told", "bare-reader", "records/s")))),
)


class Damaged(Exception):
    pass


def read(text):
    """The points of each series, by their sizes, with their unit: {Series: (unit, {size: Point})}."""
    found = {}
    for number, line in enumerate(text.splitlines(), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        match = LINE.fullmatch(line)
        if not match:
            raise Damaged(f"line {number} is no point: {line}")
        what, who, size, size_unit, median, unit, low, high, rounds = match.groups()
        point = Point(int(size), float(median), float(low), float(high))
        if not point.low <= point.median <= point.high:
            raise Damaged(f"line {number}: the median lies outside of its spread")
        if int(rounds) < LEAST_ROUNDS:
            raise Damaged(f"line {number}: {rounds} rounds are too few")
        known_unit, points = found.setdefault(Series(what, who, size_unit), (unit, {}))
        if unit != known_unit:
            raise Damaged(f"line {number} is in {unit}, those before it in {known_unit}")
        if point.size in points:
            raise Damaged(f"line {number}: there are two of this point")
        points[point.size] = point
    return found


def select(plot, found):
    """The points of each of a picture's series."""
    selected = []
    for _, series in plot.series:
        unit, points = found.get(series, (plot.unit, {}))
        name = " ".join(series)
        if unit != plot.unit:
            raise Damaged(f"{name}: {unit} instead of {plot.unit}")
        missing = set(plot.sizes) - set(points)
        if missing:
            raise Damaged(f"{name}: there is no point at {', '.join(map(str, sorted(missing)))}")
        selected.append([points[size] for size in plot.sizes])
    return selected


def ticks(highest):
    """From 0 to beyond the highest, in steps of 1, 2 or 5 times a power of ten."""
    power = 10 ** math.floor(math.log10(highest / 4))
    step = next(factor * power for factor in (1, 2, 5, 10) if factor * power * 5 >= highest)
    return [step * i for i in range(math.ceil(highest / step) + 1)]


WIDTH, HEIGHT = 720, 400
LEFT, RIGHT, TOP, BOTTOM = 72, 24, 88, 56
COLOURS = "#0b62a4", "#7fb2d9", "#b8460e", "#e8a87c"


class Axes:
    def __init__(self, plot, points):
        self.is_log = plot.is_log
        self.sizes = plot.sizes
        self.ticks = ticks(max(point.high for series in points for point in series) or 1)
        places = [self.place(size) for size in plot.sizes]
        self.first, self.last = min(places), max(places)

    def place(self, size):
        """Zero has no logarithm: it stands one decade before the smallest other."""
        if not self.is_log:
            return size
        return math.log10(size) if size else math.log10(min(filter(None, self.sizes))) - 1

    def x(self, size):
        inside = WIDTH - LEFT - RIGHT - 48
        return LEFT + 24 + inside * (self.place(size) - self.first) / (self.last - self.first)

    def y(self, value):
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * max(value, 0) / self.ticks[-1]


def text(x, y, content, anchor="middle", more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{content}</text>'


def line(x1, y1, x2, y2, colour, more=""):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}"{more}/>'


def draw_axes(plot, axes):
    middle = (TOP + HEIGHT - BOTTOM) / 2
    yield text(WIDTH / 2, 22, plot.title, more=' font-size="15" font-weight="bold"')
    for tick in axes.ticks:
        yield line(LEFT, axes.y(tick), WIDTH - RIGHT, axes.y(tick), "#dddddd" if tick else "#333333")
        yield text(LEFT - 8, axes.y(tick) + 4, f"{tick:g}", "end")
    for size in plot.sizes:
        yield line(axes.x(size), HEIGHT - BOTTOM, axes.x(size), HEIGHT - BOTTOM + 5, "#333333")
        yield text(axes.x(size), HEIGHT - BOTTOM + 18, f"{size:,}")
    yield text(WIDTH / 2, HEIGHT - 12, plot.x_label)
    yield text(20, middle, plot.y_label, more=f' transform="rotate(-90 20 {middle:.1f})"')


def draw_series(axes, points, colour, shift):
    """A line through the medians, without one to zero where that has a place of its own only."""
    connected = [point for point in points if point.size or not axes.is_log]
    path = " ".join(f"{axes.x(point.size) + shift:.1f},{axes.y(point.median):.1f}" for point in connected)
    yield f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>'
    for point in points:
        x, low, high = axes.x(point.size) + shift, axes.y(point.low), axes.y(point.high)
        yield line(x, low, x, high, colour)
        yield line(x - 4, low, x + 4, low, colour)
        yield line(x - 4, high, x + 4, high, colour)
        yield f'<circle cx="{x:.1f}" cy="{axes.y(point.median):.1f}" r="3.5" fill="{colour}"/>'


def svg(plot, points):
    axes = Axes(plot, points)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" width="{WIDTH}" height="{HEIGHT}" '
             'font-family="sans-serif" font-size="12" fill="#333333">',
             f"<title>{plot.title}</title>",
             f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>', *draw_axes(plot, axes)]
    for i, ((label, _), series) in enumerate(zip(plot.series, points)):
        x, y = LEFT + 24 + i % 2 * 300, 44 + i // 2 * 18
        parts += [line(x, y - 4, x + 24, y - 4, COLOURS[i], ' stroke-width="2"'), text(x + 32, y, label, "start")]
        parts += draw_series(axes, series, COLOURS[i], 3 * i - 1.5 * (len(points) - 1))
    return "\n".join([*parts, "</svg>", ""])


def main(data, folder):
    try:
        found = read(pathlib.Path(data).read_text(encoding="ascii"))
        pictures = {plot.name: svg(plot, select(plot, found)) for plot in PLOTS}
    except (Damaged, OSError, UnicodeError) as error:
        sys.exit(f"growth_plots: {data}: {error}")
    pathlib.Path(folder).mkdir(parents=True, exist_ok=True)
    for name, picture in pictures.items():
        (pathlib.Path(folder) / f"{name}.svg").write_text(picture, encoding="ascii")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: growth_plots.py DATA FOLDER")
    main(*sys.argv[1:])
