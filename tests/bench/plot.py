#!/usr/bin/python3
"""Draws how time grows with the size of the document and the number of connections, as SVG.

It takes the JSON file that report.py keeps. Each panel is one operation, both axes are logarithmic,
and each line is one program.
"""

import argparse
import json
import math
import re
from dataclasses import dataclass
from html import escape
from pathlib import Path

Line = dict[float, float]  # size: nanoseconds

# name: colour that shows on light and on dark, dashes
LOOKS = {
    "corvik": ("#d9480f", ""),
    "pugixml": ("#2b7fd4", ""),
    "libxml2": ("#2f9e44", ""),
    "libxml2-noblanks": ("#2f9e44", "5 4"),
    "expat": ("#9c5fd0", ""),
    "sh script": ("#868e96", "2 3"),
}
WIDTH, HEIGHT = 460, 330  # of a panel, in pixels, with its title and labels
LEFT, RIGHT, TOP, BOTTOM = 70, 40, 40, 50
LEGEND_HEIGHT = 40
COLUMNS = 2

STYLE = """
  .ground { fill: #ffffff } text { fill: #212529; font: 13px sans-serif }
  .title { font-size: 15px; font-weight: bold } .grid { stroke: #dee2e6 }
  .line { fill: none; stroke-width: 2 }
  @media (prefers-color-scheme: dark) {
    .ground { fill: #16191d } text { fill: #e9ecef } .grid { stroke: #3b4148 }
  }
"""


@dataclass(frozen=True)
class Panel:
    """`case` finds the rows of one operation and in them, as its first group, the size."""

    title: str
    what: str
    case: str
    axis: str


MEGABYTES = r"([\d.]+) MB, cold"
CONNECTIONS = r"([\d,]+) connections, instant client, standard"
PANELS = (
    Panel("parse, cold", r"parse", MEGABYTES, "size of the document, MB"),
    Panel("print, cold", r"print", MEGABYTES, "size of the document, MB"),
    Panel("parse, print and destroy, cold", r"parse\+print\+destroy", MEGABYTES,
          "size of the document, MB"),
    Panel("-get, client that answers at once", r"-get vs .*", CONNECTIONS, "connections"),
    Panel("-set without icons, client that answers at once", r"-set on an instant client vs .*",
          CONNECTIONS + ", no icons", "connections"),
)


def lines_of(panel: Panel, rows: list[dict]) -> dict[str, Line]:
    lines: dict[str, Line] = {}
    for row in rows:
        size = re.fullmatch(panel.case, row["case"])
        if row["unit"] != "ns" or not size or not re.fullmatch(panel.what, row["what"]):
            continue
        at = float(size[1].replace(",", ""))
        lines.setdefault("corvik", {})[at] = row["ours"]["median"]
        name = row["against"].removesuffix(" pipeline")
        lines.setdefault(name, {})[at] = row["theirs"]["median"]
    return {name: lines[name] for name in LOOKS if name in lines}


class Scale:
    """Logarithmic, over whole powers of ten."""

    def __init__(self, values: list[float], start: float, end: float) -> None:
        self.low = math.floor(math.log10(min(values)) + 1e-9)
        self.high = max(math.ceil(math.log10(max(values)) - 1e-9), self.low + 1)
        self.start, self.end = start, end

    def place(self, value: float) -> float:
        part = (math.log10(value) - self.low) / (self.high - self.low)
        return self.start + part * (self.end - self.start)

    def ticks(self) -> list[float]:
        return [10.0 ** power for power in range(self.low, self.high + 1)]


def time_label(nanoseconds: float) -> str:
    for step, unit in ((1e9, "s"), (1e6, "ms"), (1e3, "µs")):
        if nanoseconds >= step:
            return f"{nanoseconds / step:g} {unit}"
    return f"{nanoseconds:g} ns"


def text(x: float, y: float, words: str, anchor: str = "middle", more: str = "") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{escape(words)}</text>'


def rule(x1: float, y1: float, x2: float, y2: float) -> str:
    return f'<line class="grid" x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}"/>'


def draw_axes(panel: Panel, across: Scale, up: Scale) -> list[str]:
    parts = [text((LEFT + WIDTH - RIGHT) / 2, 22, panel.title, more=' class="title"'),
             text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 12, panel.axis)]
    for tick in across.ticks():
        x = across.place(tick)
        parts += [rule(x, TOP, x, HEIGHT - BOTTOM), text(x, HEIGHT - BOTTOM + 18, f"{tick:,g}")]
    for tick in up.ticks():
        y = up.place(tick)
        parts += [rule(LEFT, y, WIDTH - RIGHT, y), text(LEFT - 8, y + 4, time_label(tick), "end")]
    return parts


def draw_line(name: str, line: Line, across: Scale, up: Scale) -> list[str]:
    colour, dashes = LOOKS[name]
    spots = [(across.place(size), up.place(line[size])) for size in sorted(line)]
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in spots)
    return [f'<polyline class="line" stroke="{colour}" stroke-dasharray="{dashes}" '
            f'points="{path}"/>',
            *(f'<circle fill="{colour}" cx="{x:.1f}" cy="{y:.1f}" r="3"/>' for x, y in spots)]


def draw_panel(panel: Panel, lines: dict[str, Line], number: int) -> list[str]:
    across = Scale([size for line in lines.values() for size in line], LEFT, WIDTH - RIGHT)
    up = Scale([time for line in lines.values() for time in line.values()], HEIGHT - BOTTOM, TOP)
    x, y = number % COLUMNS * WIDTH, LEGEND_HEIGHT + number // COLUMNS * HEIGHT
    parts = [f'<g transform="translate({x} {y})">', *draw_axes(panel, across, up)]
    for name in reversed(lines):  # corvik on top
        parts += draw_line(name, lines[name], across, up)
    return [*parts, "</g>"]


def draw_legend(names: list[str]) -> list[str]:
    parts = []
    x = 20
    for name in names:
        colour, dashes = LOOKS[name]
        parts += [f'<polyline class="line" stroke="{colour}" stroke-dasharray="{dashes}" '
                  f'points="{x},24 {x + 28},24"/>', text(x + 36, 28, name, "start")]
        x += 60 + 8 * len(name)
    return parts


def draw(rows: list[dict]) -> str:
    panels = [(panel, lines) for panel in PANELS if (lines := lines_of(panel, rows))]
    width = COLUMNS * WIDTH
    height = LEGEND_HEIGHT + math.ceil(len(panels) / COLUMNS) * HEIGHT
    names = [name for name in LOOKS if any(name in lines for _, lines in panels)]
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             f'width="{width}" height="{height}">', f"<style>{STYLE}</style>",
             '<rect class="ground" width="100%" height="100%"/>', *draw_legend(names)]
    for number, (panel, lines) in enumerate(panels):
        parts += draw_panel(panel, lines, number)
    return "\n".join([*parts, "</svg>"]) + "\n"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("results", type=Path, help="JSON file of report.py")
    parser.add_argument("--output", type=Path, required=True, help="SVG file to write")
    arguments = parser.parse_args()
    rows = json.loads(arguments.results.read_text())["rows"]
    arguments.output.write_text(draw(rows), encoding="utf-8")


if __name__ == "__main__":
    main()
