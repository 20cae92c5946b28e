#!/usr/bin/python3
"""Puts the results of the benchmarks together and says which of the figures to reach are reached.

It takes result files, each {"machine": {...}, "rows": [...]}, and what Google Benchmark wrote, whose
repetitions are compared one by one. It prints a table, ratios first, and can keep all rows in one
JSON file.
"""

import argparse
import json
import re
import sys
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_xml import OURS, row  # noqa: E402

DONE, AIM, MISSED = "reached", "aim reached", "NOT reached"


@dataclass(frozen=True)
class Target:
    """Limits of a ratio's median. The three patterns find the rows, each in the whole of a field."""

    what: str
    case: str
    against: str
    done: float
    aim: float

    def takes(self, each: dict) -> bool:
        return all(re.fullmatch(pattern, each[field]) for pattern, field in
                   ((self.what, "what"), (self.case, "case"), (self.against, "against")))

    def verdict(self, each: dict) -> str:
        median = each["ratio"]["median"]
        if median <= self.aim:
            return AIM
        return DONE if median <= self.done else MISSED


COLD = r"(1|10|100) MB, cold"
LARGE = r"(1,000|10,000) connections\b.*"
ANY = r".*"
TARGETS = (
    Target(r"parse", COLD, "pugixml", 1.6, 1.0),
    Target(r"parse", COLD, "libxml2", 0.40, 0.25),
    Target(r"print", COLD, "pugixml", 0.85, 0.65),
    Target(r"parse\+print\+destroy", COLD, "pugixml", 1.3, 0.95),
    Target(r"memory of the tree", r"(1|10|100) MB", "the document", 6.5, 4.0),
    Target(r"-get less floor vs pugixml pipeline", LARGE, "pugixml pipeline", 1.25, 0.9),
    Target(r"-set.* on an instant client vs pugixml pipeline", LARGE, "pugixml pipeline", 1.4, 1.0),
    Target(r"-get 10 connections vs sh script", ANY, "sh script", 1.10, 1.0),
    Target(r"-set -r 100 connections vs sh script", ANY, "sh script", 1.03, 1.0),
    Target(r"peak memory of -get 10,000 vs the export", ANY, "the export", 7.5, 5.0),
    Target(r"peak memory of -set( over the same)? 10,000 vs the file", ANY, "the file", 7.0, 4.5),
    Target(r"growth exponent of .* 1,000 to 10,000", ANY, "linear", 1.05, 1.02),
    Target(r"start to exit of corvik -v vs /bin/true", ANY, "/bin/true", 2.5, 1.5),
)


def judge(rows: list[dict]) -> None:
    """Adds to each row that has a target its limits and the verdict."""
    for each in rows:
        target = next((target for target in TARGETS if target.takes(each)), None)
        if target is not None:
            each["target"] = {"done": target.done, "aim": target.aim,
                              "verdict": target.verdict(each)}


def unmeasured(rows: list[dict]) -> list[Target]:
    return [target for target in TARGETS if not any(target.takes(each) for each in rows)]


# Reading.


def warm_rows(results: dict) -> list[dict]:
    """The rows of Google Benchmark's results, by processor time: its loops are short."""
    nanoseconds: dict[tuple[str, str], dict[str, list[float]]] = {}
    runs = [run for run in results["benchmarks"] if run["run_type"] == "iteration"]
    for run in sorted(runs, key=lambda run: (run["family_index"], run["repetition_index"])):
        operation, size, library = run["run_name"].split("/")[:3]
        by_library = nanoseconds.setdefault((operation, size), {})
        by_library.setdefault(library, []).append(1e6 * run["cpu_time"])  # from milliseconds
    return [row(operation, f"{size}, warm", library, times[OURS], theirs, "ns")
            for (operation, size), times in nanoseconds.items()
            for library, theirs in times.items()
            if library != OURS]


def merge(files: list[Path]) -> dict:
    machine: dict[str, object] = {}
    rows: list[dict] = []
    for file in files:
        results = json.loads(file.read_text())
        if "benchmarks" in results:
            rows += warm_rows(results)
        else:
            machine |= results["machine"]
            rows += results["rows"]
    return {"machine": machine, "rows": rows}


# Writing.

UNITS = {  # unit: steps of it, largest first
    "ns": ((1e9, "s"), (1e6, "ms"), (1e3, "us"), (1, "ns")),
    "bytes": ((1e6, "MB"), (1e3, "kB"), (1, "B")),
}


def amount(value: float, unit: str) -> str:
    for step, name in UNITS.get(unit, ()):
        if abs(value) >= step:
            return f"{value / step:.3g} {name}"
    return f"{value:.3g}"


def ratio_text(each: dict) -> str:
    ratio = each["ratio"]
    return f"{ratio['median']:.2f} [{ratio['q1']:.2f} {ratio['q3']:.2f}]"


def target_text(each: dict) -> str:
    target = each.get("target")
    return f"{target['verdict']} ({target['done']:g}, {target['aim']:g})" if target else ""


HEADER = ("ratio [quartiles]", "to reach (limit, aim)", "what", "case", "against", "corvik",
          "the other")


def table_of(rows: list[dict]) -> list[tuple[str, ...]]:
    return [(ratio_text(each), target_text(each), each["what"], each["case"], each["against"],
             amount(each["ours"]["median"], each["unit"]),
             amount(each["theirs"]["median"], each["unit"])) for each in rows]


def plain_lines(table: list[tuple[str, ...]]) -> list[str]:
    lines = [HEADER, *table]
    widths = [max(len(line[column]) for line in lines) for column in range(len(HEADER))]
    return ["  ".join(f"{cell:{width}}" for cell, width in zip(line, widths)).rstrip()
            for line in lines]


def markdown_lines(table: list[tuple[str, ...]]) -> list[str]:
    return ["| " + " | ".join(line) + " |" for line in (HEADER, ("---",) * len(HEADER), *table)]


def machine_text(machine: dict) -> str:
    return ", ".join(f"{name.removesuffix('_bytes')} "
                     f"{amount(value, 'bytes') if name.endswith('_bytes') else value}"
                     for name, value in machine.items())


def report_lines(merged: dict, markdown: bool) -> list[str]:
    rows = merged["rows"]
    layout = markdown_lines if markdown else plain_lines
    lines = [machine_text(merged["machine"]), ""]
    for title, part in (("Figures to reach", [each for each in rows if "target" in each]),
                        ("Others", [each for each in rows if "target" not in each])):
        if part:
            lines += [f"## {title}\n" if markdown else title, *layout(table_of(part)), ""]
    verdicts = [each["target"]["verdict"] for each in rows if "target" in each]
    lines += [f"Not measured: {target.what} against {target.against}"
              for target in unmeasured(rows)]
    lines.append(f"{verdicts.count(AIM)} with the aim reached, {verdicts.count(DONE)} reached, "
                 f"{verdicts.count(MISSED)} not reached, {len(unmeasured(rows))} not measured")
    return lines


def read_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("files", nargs="+", type=Path, metavar="FILE")
    parser.add_argument("--output", type=Path, help="keep everything in this JSON file")
    parser.add_argument("--markdown", action="store_true", help="print a Markdown table")
    return parser.parse_args()


def main() -> None:
    arguments = read_arguments()
    merged = merge(arguments.files)
    judge(merged["rows"])
    if arguments.output:
        arguments.output.write_text(json.dumps(merged, indent=2))
    print("\n".join(report_lines(merged, arguments.markdown)))


if __name__ == "__main__":
    main()
