#!/usr/bin/python3
"""Whole runs of corvik against what they could cost at least, and against other XML libraries.

Compared are, each as a process from start to exit, on a simulated device:

  floor      a shell script with the very commands that corvik gave, and no XML work
  pugixml    the same export and import written with that library (pipeline_pugixml)
  libxml2    the same with that one (pipeline_libxml2)

with two registry clients: the reference client, and one that answers at once (instant_regsh). Each
round runs every program once, in rotating order; ratios are taken within a round and given as their
median with quartiles. Before anything is measured it is checked that the pipelines give the same
commands and write the same documents as corvik.
"""

import argparse
import json
import math
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import time
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Callable

HERE = Path(__file__).resolve().parent
TYPE = "freerdp"  # the registry's name of the type RDP on the devices that are used
TYPE_PATH = f"root/ConnectionType/{TYPE}"
DEFAULT_CONNECTION = "root/ConnectionManager/defaultConnection"
IDENTIFIER = re.compile(r'<NodeDir name="([0-9a-f]{8}-[0-9a-f-]{27})">')
FLOOR = "floor"
PIPELINES = ("pugixml", "libxml2")

# How a set finds the registry, and what it is told to do.
FIRST, SECOND, REMOVE = "", " over the same", " -r"
STATES = {FIRST: "empty", SECOND: "full", REMOVE: "full"}

DEVICES = {
    "standard": ["--image-type", "9"],
    "zero": ["--image-type", "9", "--zero"],
    "image type 6": ["--image-type", "6"],
}


@dataclass(frozen=True)
class Scenario:
    """What is measured on one device. `rounds` are those of a full run and of a quick one.

    Without `icons` the client that answers at once lists no connections, so that a set does not
    give three commands for each of them and the work on documents stands out.
    """

    mode: str
    client: str
    device: str
    sizes: tuple[int, ...]
    rounds: tuple[int, int]
    variants: tuple[str, ...] = (FIRST,)
    icons: bool = True
    pipelines: tuple[str, ...] = ()

    @property
    def _setting(self) -> str:
        icons = "" if self.icons or self.mode == "get" else ", no icons"
        return f"{self.client} client, {self.device}{icons}"

    @property
    def name(self) -> str:
        return f"-{self.mode}, {self._setting}, {' '.join(map(str, self.sizes))} connections"

    def case(self, size: int) -> str:
        return f"{size:,} connections, {self._setting}"

    def quick(self) -> "Scenario":
        return replace(self, sizes=tuple(size for size in self.sizes if size <= MOST_IN_QUICK_RUN))


ALL_VARIANTS = (FIRST, SECOND, REMOVE)
MOST_IN_QUICK_RUN = 1_000
SCENARIOS = (
    Scenario("get", "instant", "standard", (10, 100, 1_000, 10_000), (11, 3), pipelines=PIPELINES),
    Scenario("get", "reference", "standard", (10, 100), (15, 3), pipelines=PIPELINES),
    Scenario("get", "reference", "standard", (1_000, 10_000), (11, 0), pipelines=PIPELINES),
    Scenario("get", "reference", "zero", (10, 100, 1_000), (7, 0)),
    Scenario("get", "reference", "image type 6", (10, 100, 1_000), (7, 0)),
    Scenario("set", "instant", "standard", (1_000, 10_000), (9, 2), (FIRST, SECOND), False,
             PIPELINES),
    Scenario("set", "instant", "standard", (1_000,), (3, 0), (FIRST, REMOVE), True, ("pugixml",)),
    Scenario("set", "instant", "standard", (10_000,), (1, 0)),
    Scenario("set", "reference", "standard", (10,), (9, 2), ALL_VARIANTS, True, PIPELINES),
    Scenario("set", "reference", "standard", (100,), (7, 0), ALL_VARIANTS),
    Scenario("set", "reference", "standard", (1_000,), (2, 0)),
    Scenario("set", "reference", "zero", (10, 100), (3, 0), (FIRST, REMOVE)),
    Scenario("set", "reference", "image type 6", (10, 100), (3, 0)),
)

# Rows with a name of their own, beside those that every scenario gives.
WHOLE_RUNS = (  # mode, variant, client, size, name
    ("get", FIRST, "reference", 10, "-get 10 connections vs sh script"),
    ("set", REMOVE, "reference", 100, "-set -r 100 connections vs sh script"),
)


class Workshop:
    """The programs, the made-up exports and the folder where the devices live."""

    def __init__(self, programs: Path, folder: Path) -> None:
        self.programs = programs
        self.folder = folder
        self._exports: dict[int, str] = {}

    def export(self, size: int) -> str:
        if size not in self._exports:
            done = subprocess.run(
                [self.programs / "make_export", "--connections", str(size), "--type", TYPE],
                stdout=subprocess.PIPE, check=True, text=True)
            self._exports[size] = done.stdout
        return self._exports[size]

    def connections_file(self, size: int) -> bytes:
        done = subprocess.run(
            [self.programs / "make_export", "--connections", str(size), "--type", TYPE, "--file",
             "RDP"], stdout=subprocess.PIPE, check=True)
        return done.stdout

    def document_size(self, mode: str, size: int) -> int:
        """Bytes of what a run has to read: the export for a get, the connections file for a set."""
        text = self.export(size).encode() if mode == "get" else self.connections_file(size)
        return len(text)

    def identifiers(self, size: int) -> list[str]:
        found = IDENTIFIER.findall(self.export(size))
        if len(found) != size:
            sys.exit(f"the export holds {len(found)} connections in place of {size}")
        return found


def step_name(program: str, variant: str, size: int) -> str:
    return f"{program}/{variant}/{size}"


class Plan:
    """Puts a scenario's files into a device's folder and writes what is to be done there."""

    def __init__(self, workshop: Workshop, scenario: Scenario, rounds: int) -> None:
        self.workshop = workshop
        self.scenario = scenario
        self.folder = workshop.folder / "device"
        self.home = self.folder / "home"
        self.prepare: list[dict] = []
        self.steps: list[dict] = []
        self.rounds = rounds

    def write(self) -> Path:
        for size in self.scenario.sizes:
            self._prepare_registry(size)
            self._prepare_file(size)
            for variant in self.scenario.variants:
                self._add_programs(variant, size)
        plan = {"prepare": self.prepare, "rounds": self.rounds, "steps": self.steps}
        file = self.home / "plan.json"
        file.write_text(json.dumps(plan))
        return file

    # The registry, full and empty of connections.

    def _prepare_registry(self, size: int) -> None:
        for state, count in (("full", size), ("empty", 0)):
            if self.scenario.client == "instant":
                self._answer_at_once(state, size, count)
            else:
                self._fill_database(state, size, count)

    def _default_connection(self, size: int) -> str:
        if self.scenario.device == "image type 6":
            return f"{TYPE}Default"  # exports every connection
        return self.workshop.identifiers(size)[0] if self.scenario.device == "zero" else ""

    def _answer_at_once(self, state: str, size: int, count: int) -> None:
        answers = self.folder / "tmp" / f"instant-{state}-{size}"
        types = answers / "root/ConnectionType"
        (types / TYPE).mkdir(parents=True)
        (types / f"{TYPE}.export").write_text(self.workshop.export(count))
        listed = self.workshop.identifiers(size) if self.scenario.icons else []
        (types / TYPE / "connections.listing").write_text(
            "".join(f"dir {TYPE_PATH}/connections/{each}\n" for each in listed))
        default = answers / f"{DEFAULT_CONNECTION}.listing"
        default.parent.mkdir()
        default.write_text(f"{DEFAULT_CONNECTION} {self._default_connection(size)}\n")

    def _fill_database(self, state: str, size: int, count: int) -> None:
        document = self.home / f"{state}-{size}.xml"
        document.write_text(self.workshop.export(count))
        default = self._default_connection(size)
        command = (f"regsh import {document} && regsh set {DEFAULT_CONNECTION} '{default}' && "
                   f"regsh set root/background/desktop/theme {TYPE} && regsh commit")
        self._do("shell", command=command, env={"REGSH_DB": str(self._database(state, size))})

    def _database(self, state: str, size: int) -> Path:
        return self.home / f"{state}-{size}.db"

    def _do(self, action: str, **fields: object) -> None:
        self.prepare.append({"do": action, **fields})

    # The programs.

    def _environment(self, state: str, size: int) -> dict[str, str]:
        if self.scenario.client == "instant":
            return {"INSTANT_REGSH": f"/tmp/instant-{state}-{size}"}
        changes = self.scenario.mode == "set"
        database = self.home / "work.db" if changes else self._database(state, size)
        return {"REGSH_DB": str(database)}

    def _before(self, state: str, size: int) -> str:
        if self.scenario.client == "instant" or self.scenario.mode == "get":
            return ""
        return f"rm -f {self.home}/work.db*; cp {self._database(state, size)} {self.home}/work.db"

    def _file(self, program: str, size: int) -> str:
        return str(self.home / f"{program}-{size}.xml")

    def _prepare_file(self, size: int) -> None:
        """The connections file that a set reads is what a get of the full registry writes."""
        environment = self._environment("full", size)
        if self.scenario.client == "reference":
            environment["REGSH_DB"] = str(self._database("full", size))
        self._do("shell", command=f"corvik -get RDP -f {self._file('corvik', size)}",
                 env=environment)

    def _command(self, program: str, variant: str, size: int) -> list[str]:
        mode = self.scenario.mode
        file = self._file(program if mode == "get" else "corvik", size)
        remove = ["-r"] if variant == REMOVE else []
        if program == "corvik":
            return [program, f"-{mode}", "RDP", "-f", file, *remove]
        return [f"pipeline_{program}", mode, TYPE, file, *remove]

    def _add_programs(self, variant: str, size: int) -> None:
        state = STATES[variant] if self.scenario.mode == "set" else "full"
        environment = self._environment(state, size)
        before = self._before(state, size)
        programs = ["corvik", *self.scenario.pipelines]
        stem = f"{self.home}/{variant.strip().replace(' ', '-')}-{size}"
        for program in programs:
            if before:
                self._do("shell", command=before, env=environment)
            self._do("record", argv=self._command(program, variant, size), env=environment,
                     library=str(self.workshop.programs / "libcommand_log.so"),
                     log=f"{stem}-{program}.log")
            if self.scenario.mode == "set":
                self._do("shell", command=f"cp /tmp/import.xml {stem}-{program}.xml", env={})
        self._check(programs, stem, size)
        script = f"{stem}-floor.sh"
        self._do("script", log=f"{stem}-corvik.log", script=script)
        # The script imports what corvik would have written.
        load = f"cp {stem}-corvik.xml /tmp/import.xml" if self.scenario.mode == "set" else ""
        floor_before = "; ".join(filter(None, (before, load)))
        self._step(FLOOR, variant, size, ["/bin/sh", script], environment, floor_before)
        for program in programs:
            self._step(program, variant, size, self._command(program, variant, size), environment,
                       before)

    def _check(self, programs: list[str], stem: str, size: int) -> None:
        self._do("same_commands", logs=[f"{stem}-{each}.log" for each in programs])
        # Comparing large documents takes long, and what differs does so in small ones.
        if size <= 1_000:
            written = [self._file(each, size) if self.scenario.mode == "get"
                       else f"{stem}-{each}.xml" for each in programs]
            self._do("same_documents", files=written)

    def _step(self, program: str, variant: str, size: int, argv: list[str],
              environment: dict[str, str], before: str) -> None:
        self.steps.append({"name": step_name(program, variant, size), "argv": argv,
                           "env": environment, "before": before, "times": 1})


Outcomes = dict[str, list[tuple[float, int]]]


def run_on_device(workshop: Workshop, options: list[str], home: Path, plan: Path) -> Outcomes:
    result = home / "result.json"
    command = [workshop.programs / "device", "--keep", home.parent, *options, "--",
               "/usr/bin/python3", HERE / "measure_on_device.py", plan, result]
    done = subprocess.run(command, cwd=home, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        sys.exit(f"a measurement failed with status {done.returncode}")
    return json.loads(result.read_text())


def new_device(workshop: Workshop) -> Path:
    """An empty device; returns its home folder."""
    folder = workshop.folder / "device"
    shutil.rmtree(folder, ignore_errors=True)
    subprocess.run([workshop.programs / "device", "--keep", folder, "--", "true"], check=True)
    return folder / "home"


def measure_scenario(workshop: Workshop, scenario: Scenario, rounds: int) -> Outcomes:
    home = new_device(workshop)
    plan = Plan(workshop, scenario, rounds).write()
    options = list(DEVICES[scenario.device])
    if scenario.client == "instant":
        options += ["--client", str(workshop.programs / "instant_regsh")]
    return run_on_device(workshop, options, home, plan)


# Rows.


def quartiles(values: list[float]) -> dict[str, float]:
    if len(values) < 2:
        return dict.fromkeys(("median", "q1", "q3"), values[0])
    q1, _, q3 = statistics.quantiles(values, n=4, method="inclusive")
    return {"median": statistics.median(values), "q1": q1, "q3": q3}


def row(what: str, case: str, against: str, ours: list[float], theirs: list[float],
        unit: str) -> dict:
    pairs = [a / b for a, b in zip(ours, theirs)]
    return {"what": what, "case": case, "against": against, "ratio": quartiles(pairs),
            "ours": quartiles(ours), "theirs": quartiles(theirs), "unit": unit}


class Figures:
    """The outcomes of one scenario by program, variant and size."""

    def __init__(self, scenario: Scenario, outcomes: Outcomes) -> None:
        self.scenario = scenario
        self.outcomes = outcomes

    def nanoseconds(self, program: str, variant: str, size: int) -> list[float]:
        return [1e9 * seconds for seconds, _ in self.outcomes[step_name(program, variant, size)]]

    def less_floor(self, program: str, variant: str, size: int) -> list[float]:
        floor = self.nanoseconds(FLOOR, variant, size)
        return [a - b for a, b in zip(self.nanoseconds(program, variant, size), floor)]

    def peak_memory(self, program: str, variant: str, size: int) -> list[int]:
        memory = [memory for _, memory in self.outcomes[step_name(program, variant, size)]]
        if 0 in memory:
            sys.exit(f"{program} held less memory than what started it: its peak is not known")
        return memory

    def rows(self) -> list[dict]:
        return [each for variant in self.scenario.variants for size in self.scenario.sizes
                for each in self._rows_of(variant, size)]

    def _rows_of(self, variant: str, size: int) -> list[dict]:
        mode = f"-{self.scenario.mode}{variant}"
        if self.scenario.mode == "set" and self.scenario.client == "instant":
            mode += " on an instant client"
        case = self.scenario.case(size)
        ours = self.nanoseconds("corvik", variant, size)
        rows = [row(self._whole_run_name(variant, size) or f"{mode} vs sh script", case,
                    "sh script", ours, self.nanoseconds(FLOOR, variant, size), "ns")]
        for library in self.scenario.pipelines:
            against = f"{library} pipeline"
            rows.append(row(f"{mode} vs {against}", case, against, ours,
                            self.nanoseconds(library, variant, size), "ns"))
            if size >= 1_000 and (self.scenario.mode == "get" or not self.scenario.icons):
                rows.append(row(f"{mode} less floor vs {against}", case, against,
                                self.less_floor("corvik", variant, size),
                                self.less_floor(library, variant, size), "ns"))
        return rows

    def _whole_run_name(self, variant: str, size: int) -> str:
        scenario = self.scenario
        for mode, wanted, client, count, name in WHOLE_RUNS:
            if (mode, wanted, client, count) == (scenario.mode, variant, scenario.client, size) \
                    and scenario.device == "standard":
                return name
        return ""


GROWTH_SIZES = (1_000, 10_000)


def growth_rows(figures: Figures) -> list[dict]:
    """How time grows between the sizes: an exponent, 1 when it is as much more as there is more."""
    scenario = figures.scenario
    if not set(GROWTH_SIZES) <= set(scenario.sizes):
        return []
    rows = []
    for variant in scenario.variants:
        small, large = (figures.less_floor("corvik", variant, size) for size in GROWTH_SIZES)
        # On a busy machine the script may have taken longer than the tool for once.
        exponents = [math.log10(b / a) for a, b in zip(small, large) if min(a, b) > 0]
        if exponents:
            rows.append(row(f"growth exponent of -{scenario.mode}{variant} 1,000 to 10,000",
                            scenario.case(GROWTH_SIZES[-1]), "linear", exponents,
                            [1.0] * len(exponents), "exponent"))
    return rows


def memory_rows(figures: Figures, workshop: Workshop) -> list[dict]:
    """Only with the client that answers at once: a child with more memory would count instead."""
    scenario, size = figures.scenario, GROWTH_SIZES[-1]
    if scenario.client != "instant" or not scenario.pipelines or size not in scenario.sizes:
        return []
    rows = []
    document = "the export" if scenario.mode == "get" else "the file"
    for variant in scenario.variants:
        for program in ("corvik", *scenario.pipelines):
            by = "" if program == "corvik" else f" by the {program} pipeline"
            memory = figures.peak_memory(program, variant, size)
            bytes_read = [workshop.document_size(scenario.mode, size)] * len(memory)
            rows.append(row(f"peak memory of -{scenario.mode}{variant} {size:,} vs {document}{by}",
                            scenario.case(size), document, memory, bytes_read, "bytes"))
    return rows


def start_rows(workshop: Workshop, quick: bool) -> list[dict]:
    """From start to exit of a program that does nothing but start."""
    home = new_device(workshop)
    starts = {"corvik": ["corvik", "-v"], "true": ["/bin/true"]}
    steps = [{"name": name, "argv": argv, "env": {}, "before": "", "times": 20}
             for name, argv in starts.items()]
    plan = home / "plan.json"
    plan.write_text(json.dumps({"prepare": [], "rounds": 5 if quick else 31, "steps": steps}))
    outcomes = run_on_device(workshop, DEVICES["standard"], home, plan)
    ours, theirs = ([1e9 * seconds for seconds, _ in outcomes[name]] for name in starts)
    return [row("start to exit of corvik -v vs /bin/true", "20 starts a round", "/bin/true", ours,
                theirs, "ns")]


def scenario_rows(workshop: Workshop, scenario: Scenario, quick: bool) -> list[dict]:
    figures = Figures(scenario, measure_scenario(workshop, scenario, scenario.rounds[int(quick)]))
    return figures.rows() + growth_rows(figures) + memory_rows(figures, workshop)


def first_match(pattern: str, text: str) -> str:
    found = re.search(pattern, text, re.MULTILINE)
    return found[1].strip() if found else "unknown"


def machine() -> dict[str, object]:
    cpu = Path("/proc/cpuinfo").read_text()
    memory = Path("/proc/meminfo").read_text()
    return {
        "cpu": first_match(r"^model name\s*:(.*)$", cpu),
        "cores": os.cpu_count(),
        "memory_bytes": 1024 * int(first_match(r"^MemTotal:\s*(\d+)", memory)),
        "kernel": platform.release(),
    }


Task = tuple[str, Callable[[], list[dict]]]


def tasks(workshop: Workshop, quick: bool) -> list[Task]:
    measured = [scenario for scenario in SCENARIOS if scenario.rounds[int(quick)] > 0]
    if quick:
        measured = [scenario.quick() for scenario in measured]
    return [("start to exit", lambda: start_rows(workshop, quick))] + [
        (scenario.name, lambda scenario=scenario: scenario_rows(workshop, scenario, quick))
        for scenario in measured]


def read_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--programs", type=Path, required=True, help="folder of the built programs")
    parser.add_argument("--output", type=Path, required=True, help="JSON file to write")
    parser.add_argument("--quick", action="store_true", help="few rounds, small registries")
    parser.add_argument("--only", default="", metavar="PATTERN",
                        help="measure only what has a name that the regular expression finds")
    parser.add_argument("--list", action="store_true", help="print the names, measure nothing")
    return parser.parse_args()


def main() -> None:
    arguments = read_arguments()
    workshop = Workshop(arguments.programs.resolve(), arguments.output.resolve().parent / "devices")
    rows: list[dict] = []
    for name, measure in tasks(workshop, arguments.quick):
        if not re.search(arguments.only, name):
            continue
        start = time.monotonic()
        print(name, end="" if not arguments.list else "\n", flush=True)
        if not arguments.list:
            rows += measure()
            print(f"  ({time.monotonic() - start:.0f} s)", flush=True)
    if not arguments.list:
        arguments.output.parent.mkdir(parents=True, exist_ok=True)
        arguments.output.write_text(json.dumps({"machine": machine(), "rows": rows}, indent=2))
    shutil.rmtree(workshop.folder, ignore_errors=True)


if __name__ == "__main__":
    main()
