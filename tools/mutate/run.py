"""Runs the tests that come by each mutant, and says which mutants they find.

    run.py --tree FOLDER --folder FOLDER [--sample N] [--seed TEXT] [--again] [--file PART]
           [--unit] [--kind switched|alone] [--room ROOM]

All mutants of connections/, platform/ and common/ are built at once (build.py), into a copy of the
tree below --folder. The tests are run once without a mutant; each mutant is then tried by the tests
that came by it: unit tests of its own room first, those of other rooms, black-box tests, the
likeliest and the quickest ahead. A mutant counts as killed when a test fails with it, or does not end.

--sample N takes N mutants, the same ones for the same --seed. --again goes on from the last run: it
tries those that survived it and that survivors.toml does not explain, and those that have no result
yet. --file takes those whose file holds PART. --kind takes those that are built together, behind
switches, or those that are compiled alone. --unit runs the unit tests only; --room takes the mutants
and the unit tests of one room, and builds nothing else: a quick sample. Results are kept below
--folder. The status is 1 when tests find less than 95 % of the mutants, not counting those of which
survivors.toml says why no test can; when, of all mutants, less than that are killed at all; and when a
row of that file stands for no mutant. Rows whose mutants were all tried and killed are named.
"""

import argparse
import hashlib
import json
import os
import re
import subprocess
import sys
import threading
import time
import tomllib
from collections import Counter, defaultdict
from collections.abc import Callable, Iterable, Iterator
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict, dataclass, field, replace
from pathlib import Path

import sandbox
from build import ROOMS, MutatedTree
from find import Mutant, squeeze

PYTHON = "/usr/bin/python3"
LEAST_PERCENT = 95
FIRST_TESTS = 4  # suites, or black-box tests, that are tried before all others of a program
OWN_PROGRAM = {"connections": "unit_connections", "platform": "unit_platform", "common": "unit_common"}
UNIT_FAILED = re.compile(r"^\[  FAILED  \] ([^,\s]+)", re.MULTILINE)
BLACKBOX_FAILED = re.compile(r"^(?:FAILED|ERROR) (\S+)", re.MULTILINE)
# Black-box tests that fail with the mutated build as such: where the compiler calls the checked form of
# a function of the C library, or none, no failing call of it is found.
MOST_LEFT_OUT = 8
# They try the device itself, which has no mutants, and need more room than mutants are given.
NOT_OF_THE_ROOMS = "tests/blackbox/test_device.py"
CPU_KILLED = {128 + 24, 128 + 9}
DEVICE_FAILED = re.compile(r"^device: ", re.MULTILINE)


@dataclass
class Test:
    program: str  # a unit program, or "blackbox"
    name: str
    seconds: float
    reached: set[int] = field(default_factory=set)


@dataclass
class Result:
    key: str
    operator: str
    file: str
    line: int
    function: str
    code: str
    becomes: str
    outcome: str  # killed, survived, not reached, not compiled
    by: str = ""  # unit, blackbox
    out_of_time: bool = False
    test: str = ""
    seconds: float = 0.0

    @property
    def ordinal(self) -> int:
        """Tells it apart from those that are the same in everything but the line."""
        return int(self.key.rsplit("|", maxsplit=1)[1])


class Workers:
    """Folders to run in, one for each thread."""

    def __init__(self, folder: Path, count: int):
        self.folders = [folder / f"worker{number}" for number in range(count)]
        for each in self.folders:
            each.mkdir(parents=True, exist_ok=True)
        self.free = list(self.folders)
        self.lock = threading.Lock()
        self.pool = ThreadPoolExecutor(count)

    def map(self, work: Callable, items: Iterable) -> Iterable:
        def call(item):
            with self.lock:
                folder = self.free.pop()
            try:
                return work(item, folder)
            finally:
                with self.lock:
                    self.free.append(folder)
        return self.pool.map(call, items)


class Runner:
    def __init__(self, tree: MutatedTree, jobs: int, blackbox: bool):
        self.tree = tree
        self.blackbox = blackbox
        self.workers = Workers(tree.folder / "work", jobs)
        self.shared = tree.folder / "reached"
        self.shared.mkdir(exist_ok=True)
        self.tests: list[Test] = []
        self.by_mutant: dict[int, list[Test]] = defaultdict(list)
        self.kills: Counter[tuple[str, str]] = Counter()  # (function, test)
        self.count = 1 + max(mutant.number for mutant in tree.mutants())

    def check_sandbox(self) -> None:
        """Nothing runs before it is seen that it cannot write outside its folder, and is ended."""
        folder = self.workers.folders[0]
        environment = self.environment()
        outside = self.tree.folder / "outside"
        reached = sandbox.run(["sh", "-c", f"echo >{outside}"], folder, environment, 20, 5)
        inside = sandbox.run(["sh", "-c", "echo >inside"], folder, environment, 20, 5)
        endless = sandbox.run(["sh", "-c", "while :; do :; done"], folder, environment, 20, 1)
        if reached.passed or outside.exists() or not inside.passed or endless.passed:
            raise SystemExit("mutants cannot be shut in here")

    # --- the tests without a mutant

    def environment(self, **settings: str) -> dict[str, str]:
        kept = {name: value for name, value in os.environ.items()
                if not name.startswith(("GTEST_", "PYTEST_", "CORVIK_"))}
        return {**kept, "PYTHONDONTWRITEBYTECODE": "1", "LC_ALL": "C.UTF-8", **settings}

    def unit_command(self, program: str, names: str, folder: Path) -> list[str | Path]:
        return [self.tree.bin / "device", "--keep", folder / "device", "--",
                self.tree.bin / program, "--gtest_color=no", "--gtest_brief=1", "--gtest_fail_fast",
                f"--gtest_filter={names}"]

    def blackbox_command(self, names: list[str], folder: Path, *more: str) -> list[str | Path]:
        return [PYTHON, "-m", "pytest", "-q", "-x", "--color=no", "--tb=no", "-rfE", "-p",
                "no:cacheprovider", "--rootdir", self.tree.tree, "--basetemp", folder / "pytest",
                # Not as paths, of which a double slash in the name of a test would go.
                *more, *(f"{self.tree.tree}/{name}" for name in names)]

    def blackbox_environment(self, folder: Path, **settings: str) -> dict[str, str]:
        return self.environment(
            CORVIK_BIN_DIR=str(self.tree.bin), PYTEST_DEBUG_TEMPROOT=str(folder), TMPDIR=str(folder),
            HYPOTHESIS_STORAGE_DIRECTORY=str(folder / "hypothesis"), **settings)

    def measure(self) -> None:
        """Notes what each test comes by."""
        self.measure_tests()
        for test in self.tests:
            for number in test.reached:
                self.by_mutant[number].append(test)
        if not self.by_mutant:
            raise SystemExit("no test comes by any mutant: is the checkout below a folder of the device?")

    def measure_tests(self) -> None:
        for program in self.tree.unit_programs:
            self.tests += self.measured(program, [self.tree.bin / program], self.measure_program)
        if not self.blackbox:
            return
        scripts = sorted(path for folder in ("blackbox", "support")
                         for path in (self.tree.tree / "tests" / folder).rglob("*.py"))
        programs = [self.tree.bin / name for name in ("corvik", "device", "regsh", "regsh-recorder")]
        self.tests += self.measured("blackbox", [*programs, *scripts], self.measure_blackbox)

    def measured(self, program: str, files: list[Path],
                 measure: Callable[[str], list[Test]]) -> list[Test]:
        """What was measured, or is now, where these files have changed."""
        state = hashlib.sha256(b"".join(path.read_bytes() for path in files)).hexdigest()
        kept = self.shared / f"{program}.json"
        if kept.exists():
            known = json.loads(kept.read_text())
            if known["state"] == state:
                return [Test(**{**test, "reached": set(test["reached"])}) for test in known["tests"]]
        tests = measure(program)
        kept.write_text(json.dumps({"state": state, "tests": [
            {**asdict(test), "reached": sorted(test.reached)} for test in tests]}))
        return tests

    def measure_program(self, program: str) -> list[Test]:
        """Suite by suite: a process for each single test would take longer than the tests."""
        listed = subprocess.run([self.tree.bin / program, "--gtest_list_tests"], check=True,
                                capture_output=True, text=True).stdout
        suites = re.findall(r"^(\S+\.)(?:$|\s)", listed, re.MULTILINE)
        return list(self.workers.map(self.measure_suite, [(program, f"{name}*") for name in suites]))

    def measure_suite(self, pair: tuple[str, str], folder: Path) -> Test:
        program, name = pair
        marks = self.shared / f"{folder.name}.marks"
        marks.write_bytes(bytes(self.count))
        outcome = sandbox.run(self.unit_command(program, name, folder), folder,
                              self.environment(CORVIK_MUTANT_REACHED=str(marks)), 300, 100, self.shared)
        if not outcome.passed:
            raise SystemExit(f"{program} {name} fails without a mutant:\n{outcome.output}")
        return Test(program, name, outcome.seconds, numbers_in(marks.read_bytes()))

    def measure_blackbox(self, program: str) -> list[Test]:
        folder = self.workers.folders[0]
        log = self.shared / "reach.jsonl"
        log.unlink(missing_ok=True)
        environment = self.blackbox_environment(
            folder, CORVIK_REACH_LOG=str(log), CORVIK_REACH_SIZE=str(self.count),
            PYTHONPATH=str(self.tree.tree / "tools/mutate"))
        command = self.blackbox_command(["tests/blackbox"], folder, "-p", "reach", "-n",
                                        str(len(self.workers.folders)))
        command.remove("-x")
        command += ["--ignore", self.tree.tree / NOT_OF_THE_ROOMS]
        outcome = sandbox.run(command, folder, environment, 7200, 3600, self.shared)
        failed = {name.split("/tree/")[-1] for name in BLACKBOX_FAILED.findall(outcome.output)}
        if not outcome.passed and not 0 < len(failed) <= MOST_LEFT_OUT:
            raise SystemExit(f"black-box tests fail without a mutant:\n{outcome.output}")
        for name in sorted(failed):
            print(f"Left out, for it fails without a mutant: {name}", flush=True)
        lines = [line for line in map(json.loads, log.read_text().splitlines())
                 if line["test"] not in failed]
        return [Test(program, line["test"], line["seconds"], set(line["reached"]))
                for line in lines if line["reached"]]

    # --- the mutants

    def tests_near(self, mutant: Mutant, programs: tuple[str, ...]) -> list[Test]:
        """Those that come by other mutants of its function, or else of its file; all of them for what a
        header names for others."""
        def collect(is_near: Callable[[Mutant], bool]) -> list[Test]:
            near = {each.number for each in self.tree.mutants() if is_near(each)}
            return [test for test in self.tests
                    if test.program in programs and test.reached & near]
        return collect(lambda each: (each.file, each.function) == (mutant.file, mutant.function)) \
            or collect(lambda each: each.file == mutant.file) or collect(lambda each: True)

    def judge_alone(self, mutant: Mutant, folder: Path) -> Result:
        """A mutant that is not in the build: the programs are its own, so it has them to itself."""
        targets = self.tree.targets_of(mutant.file)
        mutant.number = self.count + 1  # of no mutant in the build
        self.by_mutant[mutant.number] = self.tests_near(mutant, (*targets, "blackbox"))
        try:
            if self.tree.build_alone(mutant):
                return self.judge(mutant, folder)
            return replace(result_of(mutant), outcome="not compiled")
        finally:
            mutant.number = 0
            self.tree.write()

    def results(self, switched: list[Mutant], alone: list[Mutant]) -> Iterator[Result]:
        # In no order, so that what is known of the first half holds for all.
        yield from self.workers.map(self.judge, sample_of(switched, len(switched), "order"))
        for mutant in alone:
            yield self.judge_alone(mutant, self.workers.folders[0])

    def judge(self, mutant: Mutant, folder: Path) -> Result:
        result = result_of(mutant)
        tests = self.by_mutant[mutant.number]
        if not tests:
            result.outcome = "not reached"
            return result
        started = time.monotonic()
        own = OWN_PROGRAM[mutant.file.split("/")[0]]
        for program in sorted(self.tree.unit_programs, key=lambda name: name != own):
            if self.try_unit(mutant, program, folder, result):
                break
        else:
            self.try_blackbox(mutant, folder, result)
        result.seconds = round(time.monotonic() - started, 2)
        self.kills[(mutant.function, test_name(result))] += 1
        return result

    def ordered(self, mutant: Mutant, program: str) -> list[Test]:
        """What killed its neighbours, then what comes by the fewest other mutants."""
        tests = [test for test in self.by_mutant[mutant.number] if test.program == program]
        return sorted(tests, key=lambda test: (-self.kills[(mutant.function, test.name)],
                                               len(test.reached) * (0.05 + test.seconds)))

    def try_unit(self, mutant: Mutant, program: str, folder: Path, result: Result) -> bool:
        tests = self.ordered(mutant, program)
        for part in (tests[:FIRST_TESTS], tests[FIRST_TESTS:]):
            if not part:
                continue
            baseline = sum(test.seconds for test in part)
            outcome = sandbox.run(
                self.unit_command(program, ":".join(test.name for test in part), folder), folder,
                self.environment(CORVIK_MUTANT=str(mutant.number)), 15 + 5 * baseline,
                5 + int(3 * baseline))
            if self.note(outcome, "unit", UNIT_FAILED, result):
                return True
        return False

    def try_blackbox(self, mutant: Mutant, folder: Path, result: Result) -> bool:
        tests = self.ordered(mutant, "blackbox")
        for part in (tests[:FIRST_TESTS], tests[FIRST_TESTS:]):
            if not part:
                continue
            baseline = 2 + sum(test.seconds for test in part)
            outcome = sandbox.run(
                self.blackbox_command([test.name for test in part], folder), folder,
                self.blackbox_environment(folder, CORVIK_MUTANT=str(mutant.number)),
                30 + 5 * baseline, 20 + int(2 * baseline))
            if self.note(outcome, "blackbox", BLACKBOX_FAILED, result):
                return True
        return False

    def note(self, outcome: sandbox.Outcome, by: str, failed: re.Pattern, result: Result) -> bool:
        if outcome.passed:
            return False
        found = failed.search(outcome.output)
        late = outcome.out_of_time or (found is None and outcome.status in CPU_KILLED)
        if DEVICE_FAILED.search(outcome.output) or (by == "blackbox" and not found and not late):
            raise SystemExit(f"{result.key} was not tried:\n{outcome.output}")
        result.outcome, result.by, result.out_of_time = "killed", by, late
        result.test = found[1] if found else ""
        return True


def result_of(mutant: Mutant) -> Result:
    return Result(mutant.key, mutant.operator, mutant.file, mutant.line, mutant.function,
                  squeeze(mutant.code), squeeze(mutant.becomes), "survived")


def test_name(result: Result) -> str:
    """As it was measured."""
    return re.sub(r"\..*", ".*", result.test) if result.by == "unit" else result.test


def numbers_in(marks: bytes) -> set[int]:
    return {number for number, mark in enumerate(marks) if mark}


# --- what is tried, and what came of it

def sample_of(mutants: list[Mutant], count: int, seed: str) -> list[Mutant]:
    """The same mutants for the same seed, also where others came and went."""
    def place(mutant: Mutant) -> bytes:
        return hashlib.sha256(f"{seed}|{mutant.key}".encode("latin-1")).digest()
    return sorted(mutants, key=place)[:count]


NAMED = ("file", "function", "operator", "code", "becomes", "ordinal")
Row = dict[str, str | int]  # of survivors.toml


def explains(row: Row, result: Result) -> bool:
    """Whether the row of survivors.toml stands for the mutant: what it does not name may be any."""
    return all(row.get(name, getattr(result, name)) == getattr(result, name) for name in NAMED)


def is_explained(rows: list[Row], result: Result) -> bool:
    return any(explains(row, result) for row in rows)


def read_survivors(path: Path) -> list[Row]:
    rows = tomllib.loads(path.read_text(encoding="utf-8")).get("survivor", [])
    for row in rows:
        if not row.get("reason") or not set(row) <= {*NAMED, "reason"}:
            raise SystemExit(f"{path}: a row must have a reason and name only {', '.join(NAMED)}")
    return rows


def title_of(row: Row) -> str:
    return ", ".join(f"{name} {row[name]}" for name in NAMED if name in row)


def check_rows(rows: list[Row], mutants: list[Result], results: list[Result]) -> bool:
    """False when a row stands for none of the mutants there are. Says which rows are not needed."""
    outcome_of = {result.key: result.outcome for result in results}
    good = True
    for row in rows:
        meant = [outcome_of.get(mutant.key) for mutant in mutants if explains(row, mutant)]
        if not meant:
            print(f"survivors.toml: no such mutant: {title_of(row)}")
            good = False
        elif set(meant) <= {"killed", "not compiled"}:
            print(f"survivors.toml: all killed: {title_of(row)}")
    return good


def report(results: list[Result], survivors: list[Row], all_of_them: bool) -> int:
    tried = [result for result in results if result.outcome != "not compiled"]
    killed = [result for result in tried if result.outcome == "killed"]
    unknown = [result for result in tried
               if result.outcome != "killed" and not is_explained(survivors, result)]
    for result in unknown:
        print(f"{result.file}:{result.line}: {result.function}: {result.operator} {result.outcome}: "
              f"{result.code} -> {result.becomes}")
    count = Counter((result.by, result.out_of_time) for result in killed)
    percent = 100 * len(killed) / max(len(tried), 1)
    missed = 100 * len(unknown) / max(len(killed) + len(unknown), 1)
    print(f"{len(tried)} mutants tried, {len(killed)} killed ({percent:.1f} %): "
          f"{count['unit', False]} by unit tests, {count['blackbox', False]} by black-box tests, "
          f"{count['unit', True] + count['blackbox', True]} that did not end; "
          f"{len(tried) - len(killed)} survived, {len(unknown)} of them ({missed:.1f} % of what could be "
          "found) without a reason in survivors.toml")
    # Of a part more may be of those that no test can find.
    return 0 if min(percent if all_of_them else 100, 100 - missed) >= LEAST_PERCENT else 1


def read_results(kept: Path) -> list[Result]:
    """The last result of each mutant."""
    lines = kept.read_text().splitlines() if kept.exists() else []
    return list({result.key: result for result in (Result(**json.loads(line)) for line in lines)}.values())


def read_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--tree", type=Path, required=True)
    parser.add_argument("--folder", type=Path, required=True)
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed", default="1")
    parser.add_argument("--again", action="store_true")
    parser.add_argument("--file", default="")
    parser.add_argument("--unit", action="store_true")
    parser.add_argument("--kind", choices=("switched", "alone"))
    parser.add_argument("--room", choices=ROOMS)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    return parser.parse_args()


def chosen_mutants(tree: MutatedTree, arguments: argparse.Namespace, former: list[Result],
                   rows: list[Row]) -> list[Mutant]:
    mutants = [mutant for mutant in tree.mutants() if arguments.file in mutant.file]
    if arguments.kind:
        mutants = [mutant for mutant in mutants if (mutant.number > 0) == (arguments.kind == "switched")]
    if arguments.again:
        settled = {result.key for result in former
                   if result.outcome not in ("survived", "not reached") or is_explained(rows, result)}
        mutants = [mutant for mutant in mutants if mutant.key not in settled]
    if arguments.sample:
        mutants = sample_of(mutants, arguments.sample, arguments.seed)
    return mutants


def main() -> int:
    arguments = read_arguments()
    tree = MutatedTree(arguments.tree.resolve(), (arguments.folder / (arguments.room or "")).resolve(),
                       arguments.room)
    print("Building with all mutants", flush=True)
    tree.copy()
    tree.find()
    tree.build()
    kept = tree.folder / "results.jsonl"
    known = {mutant.key for mutant in tree.mutants()}
    former = [result for result in read_results(kept) if result.key in known]
    rows = read_survivors(arguments.tree / "tools/mutate/survivors.toml")
    mutants = chosen_mutants(tree, arguments, former, rows)
    switched = [mutant for mutant in mutants if mutant.number]
    print("Running the tests without a mutant", flush=True)
    runner = Runner(tree, arguments.jobs, not (arguments.unit or arguments.room))
    runner.check_sandbox()
    runner.measure()
    print(f"Trying {len(mutants)} of {sum(1 for _ in tree.mutants())} mutants", flush=True)
    tried = {mutant.key for mutant in mutants}
    results = [result for result in former if result.key not in tried] if arguments.again else []
    alone = [mutant for mutant in mutants if not mutant.number]
    with kept.open("w", encoding="utf-8") as stream:
        def keep(result: Result) -> None:
            stream.write(json.dumps(asdict(result)) + "\n")
            stream.flush()
        for result in former if arguments.again else []:
            keep(result)  # also of those that are tried again, should the run be broken off
        for result in runner.results(switched, alone):
            results.append(result)
            keep(result)
    own = [row for row in rows if "file" not in row and not arguments.room
           or row.get("file", "").split("/")[0] in tree.rooms]
    rows_are_good = check_rows(own, [result_of(mutant) for mutant in tree.mutants()], results)
    all_of_them = not arguments.room and {each.key for each in results} == known
    return max(report(results, rows, all_of_them), 0 if rows_are_good else 1)


if __name__ == "__main__":
    sys.exit(main())
