"""Tells which branches and lines of the four rooms the tests have not reached.

    coverage.py BUILD [--list]

BUILD is the folder of the coverage build, its tests have been run. A branch is one outcome of a
condition: that it was true, that it was false. What cannot be reached stands in
tests/coverage/exclusions.toml, each with its reason:

    [[exclusion]]
    file = "common/name.cpp"
    code = "if (one || other) {"    # the line's text
    condition = "other"             # only where the line has several
    after = "void function() {"     # only where the line stands several times: the first behind it
    never = "true"                  # or "false", or "run": the line itself has not been run
    lines = 2                       # only of "run": so many lines, from this on
    reason = "why"

An exclusion that fits no line, or whose branch has been reached, is an error like a branch that was
not reached and is not excluded; --list prints also what is excluded.
"""

import argparse
import json
import re
import subprocess
import sys
import tomllib
from collections import defaultdict
from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
ROOMS = ("main", "connections", "platform", "common")
EXCLUSIONS = "tests/coverage/exclusions.toml"
OUTCOMES = ("true", "false")
RUN = "run"
REQUIRED = {"file", "code", "never", "reason"}
ALLOWED = REQUIRED | {"condition", "after", "lines"}

# Where a condition stands: line and column of its beginning, line and column behind its end.
Spot = tuple[int, int, int, int]


class Unusable(Exception):
    """An input that is not as it must be."""


@dataclass
class Counts:
    """How often the lines of a file ran, and how often its conditions were true and false."""
    lines: dict[int, int] = field(default_factory=dict)
    branches: dict[Spot, list[int]] = field(default_factory=lambda: defaultdict(lambda: [0, 0]))


@dataclass(frozen=True, order=True)
class Gap:
    """What was not reached: an outcome of the condition, or this line and those next to it."""
    file: str
    line: int
    code: str
    condition: str
    never: str
    lines: int = 1

    def __str__(self) -> str:
        more = f", {self.lines} lines" if self.lines > 1 else ""
        what = f"never run{more}" if self.never == RUN else f"never {self.never}: {self.condition}"
        return f"{self.file}:{self.line}: {self.code}\n    {what}"


@dataclass(frozen=True)
class Exclusion:
    file: str
    code: str
    never: str
    reason: str
    condition: str = ""
    after: str = ""
    lines: int = 1

    def __str__(self) -> str:
        what = f" {self.condition}" if self.condition else ""
        return f"exclusion of {self.file}: {self.code} (never {self.never}{what})"

    def fits(self, gap: Gap) -> bool:
        return (self.never == gap.never and self.lines == gap.lines
                and self.condition in ("", gap.condition))


# --- counts -------------------------------------------------------------------------------------------

def relative(name: str) -> str:
    """The name of a source as the tree has it; the compiler writes "./build/coverage/./main/main.cpp"."""
    return re.sub(r"^.*/\./", "", name)


def in_rooms(name: str) -> bool:
    return name.split("/")[0] in ROOMS


def lines_of(segments: list[list]) -> dict[int, int]:
    """How often each line with code ran. A segment (line, column, count, is counted, begins a region,
    is a gap between statements) holds to the next; a line ran as often as the most frequent code that
    begins in it or reaches into it."""
    starts: dict[int, list[list]] = defaultdict(list)
    for segment in segments:
        starts[segment[0]].append(segment)
    counts: dict[int, int] = {}
    before = None
    for line in range(min(starts, default=1), max(starts, default=0) + 1):
        entries = [each[2] for each in starts[line] if each[3] and each[4] and not each[5]]
        if before is not None and before[3]:
            entries.append(before[2])
        if entries:
            counts[line] = max(entries)
        before = starts[line][-1] if starts[line] else before
    return counts


def read_counts(export: dict) -> dict[str, Counts]:
    """By file. Each instance of a template has counts of its own, which are added up."""
    data = export["data"][0]
    files: dict[str, Counts] = {}
    for each in data["files"]:
        name = relative(each["filename"])
        if in_rooms(name):
            files[name] = Counts(lines_of(each["segments"]))
    for function in data["functions"]:
        names = [relative(name) for name in function["filenames"]]
        for *spot, true, false, file, _, _ in function["branches"]:
            if names[file] in files:
                sums = files[names[file]].branches[tuple(spot)]
                sums[0] += true
                sums[1] += false
    return files


def text_at(source: list[str], spot: Spot) -> str:
    """The condition's text on one line. Columns count bytes."""
    line, column, last_line, last_column = spot
    rows = [row.encode() for row in source[line - 1:last_line]]
    rows[-1] = rows[-1][:last_column - 1]
    rows[0] = rows[0][column - 1:]
    return b" ".join(row.strip() for row in rows).decode()


def runs_of(missed: Iterable[int]) -> list[tuple[int, int]]:
    """Lines next to each other, as first line and number."""
    runs: list[tuple[int, int]] = []
    for line in sorted(missed):
        if runs and line == sum(runs[-1]):
            runs[-1] = (runs[-1][0], runs[-1][1] + 1)
        else:
            runs.append((line, 1))
    return runs


def gaps_of(name: str, counts: Counts, source: list[str]) -> list[Gap]:
    def gap(line: int, condition: str, never: str, lines: int = 1) -> Gap:
        return Gap(name, line, source[line - 1].strip(), condition, never, lines)

    gaps = [gap(line, "", RUN, lines)
            for line, lines in runs_of(at for at, count in counts.lines.items() if count == 0)]
    for spot, reached in counts.branches.items():
        gaps += [gap(spot[0], text_at(source, spot), outcome)
                 for outcome, count in zip(OUTCOMES, reached) if count == 0]
    return sorted(gaps)


# --- exclusions ---------------------------------------------------------------------------------------

def load_exclusions(path: Path) -> list[Exclusion]:
    exclusions = []
    for each in tomllib.loads(path.read_text()).get("exclusion", []):
        keys = set(each)
        if not REQUIRED <= keys <= ALLOWED or not all(each.values()):
            raise Unusable(f"{path.name}: an exclusion has {', '.join(sorted(REQUIRED))}"
                           f" and may have condition, after and lines: {each}")
        if each["never"] not in (*OUTCOMES, RUN):
            raise Unusable(f"{path.name}: never is \"true\", \"false\" or \"run\": {each}")
        exclusions.append(Exclusion(**each))
    return exclusions


def line_of(exclusion: Exclusion, source: list[str]) -> int:
    """The number of the line that is meant."""
    texts = [line.strip() for line in source]
    start = 0
    if exclusion.after:
        if texts.count(exclusion.after) != 1:
            raise Unusable(f"{exclusion}: the line \"{exclusion.after}\" stands"
                           f" {texts.count(exclusion.after)} times")
        start = texts.index(exclusion.after) + 1
    found = [at for at, text in enumerate(texts) if at >= start and text == exclusion.code]
    if not found:
        raise Unusable(f"{exclusion}: there is no such line")
    if len(found) > 1 and not exclusion.after:
        raise Unusable(f"{exclusion}: the line stands {len(found)} times, say after which")
    return found[0] + 1


def gap_meant(exclusion: Exclusion, gaps: Iterable[Gap], sources: dict[str, list[str]]) -> Gap:
    if exclusion.file not in sources:
        raise Unusable(f"{exclusion}: there is no such file")
    line = line_of(exclusion, sources[exclusion.file])
    found = [gap for gap in gaps
             if (gap.file, gap.line) == (exclusion.file, line) and exclusion.fits(gap)]
    if not found:
        raise Unusable(f"{exclusion}: it was reached, or there is no such condition or no"
                       f" such number of lines")
    if len(found) > 1:
        raise Unusable(f"{exclusion}: the line has several such conditions, say which")
    return found[0]


def excluded_of(exclusions: Iterable[Exclusion], gaps: list[Gap],
                sources: dict[str, list[str]]) -> tuple[dict[Gap, Exclusion], list[str]]:
    """The gaps that are excluded, and what is wrong with the exclusions."""
    excluded: dict[Gap, Exclusion] = {}
    errors = []
    for exclusion in exclusions:
        try:
            gap = gap_meant(exclusion, gaps, sources)
            if gap in excluded:
                raise Unusable(f"{exclusion}: it stands twice")
            excluded[gap] = exclusion
        except Unusable as error:
            errors.append(str(error))
    return excluded, errors


# --- report -------------------------------------------------------------------------------------------

@dataclass
class Figures:
    """All, those not reached, and those of them that are excluded."""
    every: int = 0
    missed: int = 0
    excluded: int = 0

    def add(self, other: "Figures") -> None:
        self.every += other.every
        self.missed += other.missed
        self.excluded += other.excluded

    def __str__(self) -> str:
        wanted = self.every - self.excluded
        reached = self.every - self.missed
        # Cut, not rounded: 100 means all.
        per_mille = 1000 * reached // wanted if wanted else 1000
        return f"{reached:5} of {wanted:5} {per_mille // 10:4}.{per_mille % 10} %"


def figures_of(every: int, gaps: Iterable[Gap], excluded: dict[Gap, Exclusion]) -> Figures:
    gaps = list(gaps)
    return Figures(every, sum(gap.lines for gap in gaps),
                   sum(gap.lines for gap in gaps if gap in excluded))


def print_table(files: dict[str, Counts], gaps: list[Gap], excluded: dict[Gap, Exclusion]) -> None:
    total = [Figures(), Figures()]
    print(f"{'':32}{'lines':>22}{'branches':>26}{'excluded':>12}")
    for name, counts in sorted(files.items()):
        own = [gap for gap in gaps if gap.file == name]
        lines = figures_of(len(counts.lines), (gap for gap in own if gap.never == RUN), excluded)
        branches = figures_of(2 * len(counts.branches), (gap for gap in own if gap.never != RUN),
                              excluded)
        total[0].add(lines)
        total[1].add(branches)
        print(f"{name:32}{lines}   {branches}{branches.excluded or '':>8}")
    print(f"{'total':32}{total[0]}   {total[1]}{total[1].excluded:>8}")


def report(files: dict[str, Counts], sources: dict[str, list[str]], exclusions: list[Exclusion],
           tell_excluded: bool = False) -> bool:
    """Prints figures and complaints; true when there is nothing to complain about."""
    gaps = [gap for name, counts in sorted(files.items())
            for gap in gaps_of(name, counts, sources[name])]
    excluded, errors = excluded_of(exclusions, gaps, sources)
    print_table(files, gaps, excluded)
    if tell_excluded:
        for gap, exclusion in excluded.items():
            print(f"{gap}\n    {exclusion.reason}")
    left = [str(gap) for gap in gaps if gap not in excluded]
    for complaint in left + errors:
        print(complaint)
    return not left and not errors


# --- the compiler's tools -----------------------------------------------------------------------------

def output_of(*command: object) -> bytes:
    """The warning that functions have mismatched data is about those that a program has and does not
    use, and is not shown."""
    done = subprocess.run([str(word) for word in command], capture_output=True)
    if done.returncode != 0:
        raise Unusable(f"{command[0]} failed: {done.stderr.decode(errors='replace').strip()}")
    return done.stdout


def counted_programs(folder: Path) -> list[Path]:
    return [path for path in sorted(folder.iterdir()) if b"__llvm_covmap" in path.read_bytes()]


def export_of(build: Path) -> dict:
    counters = sorted((build / "counters").glob("*.profraw"))
    programs = counted_programs(build / "bin")
    if not counters or not programs:
        raise Unusable(f"{build} has no counters: its tests must run first")
    merged = build / "counters/all.profdata"
    output_of("llvm-profdata", "merge", "-sparse", "-o", merged, *counters)
    others = [word for program in programs[1:] for word in ("-object", program)]
    return json.loads(output_of("llvm-cov", "export", "-skip-expansions",
                                f"-instr-profile={merged}", programs[0], *others))


def main() -> int:
    parser = argparse.ArgumentParser(description="Tells what the tests have not reached.")
    parser.add_argument("build", type=Path, help="folder of the coverage build")
    parser.add_argument("--list", action="store_true", help="print also what is excluded, and why")
    given = parser.parse_args()
    try:
        files = read_counts(export_of(given.build))
        sources = {name: (ROOT / name).read_text().splitlines() for name in files}
        exclusions = load_exclusions(ROOT / EXCLUSIONS)
        return 0 if report(files, sources, exclusions, given.list) else 1
    except (Unusable, OSError) as error:
        print(f"coverage: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
