#!/usr/bin/python3
"""The XML tree of corvik against other libraries, each measurement in a fresh process.

Each round takes a registry export of one size through every library once, the library that begins
being another one each time; ratios are taken within a round and given as their median with
quartiles. The programs come from the preset "bench".
"""

import argparse
import json
import os
import platform
import re
import statistics
import subprocess
import tempfile
from pathlib import Path

OURS = "corvik"
PEERS = ("pugixml", "libxml2", "libxml2-noblanks", "expat")
LIBRARIES = (OURS, *PEERS)
NO_TREE = ("expat",)
ROUNDS = {"0.1": 31, "1": 25, "10": 15, "100": 7}  # by size in MB
QUICK_ROUNDS = {"0.1": 3, "1": 3}
MEGABYTE = 1_000_000

STEPS = {  # name of the row: the parts of a measurement that make it up
    "parse": ("parse",),
    "print": ("print",),
    "destroy": ("destroy",),
    "parse+print+destroy": ("parse", "print", "destroy"),
}
NEEDS_NO_TREE = ("parse",)

Sample = dict[str, float]
Round = dict[str, Sample]


def quartiles(values: list[float]) -> dict[str, float]:
    if len(values) < 2:
        return dict.fromkeys(("median", "q1", "q3"), values[0])
    q1, median, q3 = statistics.quantiles(values, n=4, method="inclusive")
    return {"median": median, "q1": q1, "q3": q3}


def row(what: str, case: str, against: str, ours: list[float], theirs: list[float],
        unit: str) -> dict:
    ratios = [mine / other for mine, other in zip(ours, theirs)]
    return {"what": what, "case": case, "against": against, "ratio": quartiles(ratios),
            "ours": quartiles(ours), "theirs": quartiles(theirs), "unit": unit}


# Measuring.


def make_document(programs: Path, megabytes: str, folder: Path) -> Path:
    file = folder / f"export-{megabytes}.xml"
    size = str(round(float(megabytes) * MEGABYTE))
    with file.open("wb") as out:
        subprocess.run([programs / "make_export", "--bytes", size], stdout=out, check=True)
    return file


def measure(programs: Path, library: str, document: Path) -> Sample:
    done = subprocess.run([programs / "xml_once", library, document], stdout=subprocess.PIPE,
                          check=True)
    return json.loads(done.stdout)


def measure_round(programs: Path, number: int, document: Path) -> Round:
    first = number % len(LIBRARIES)
    order = LIBRARIES[first:] + LIBRARIES[:first]
    return {library: measure(programs, library, document) for library in order}


def measure_size(programs: Path, megabytes: str, rounds: int, folder: Path) -> list[Round]:
    with tempfile.TemporaryDirectory(dir=folder) as documents:
        document = make_document(programs, megabytes, Path(documents))
        measure_round(programs, 0, document)  # brings the programs and the document into memory
        return [measure_round(programs, number, document) for number in range(rounds)]


# Rows.


def values_of(rounds: list[Round], library: str, parts: tuple[str, ...]) -> list[float]:
    return [sum(each[library][part] for part in parts) for each in rounds]


def time_rows(rounds: list[Round], case: str) -> list[dict]:
    return [row(what, f"{case}, cold", peer, values_of(rounds, OURS, parts),
                values_of(rounds, peer, parts), "ns")
            for what, parts in STEPS.items() for peer in PEERS
            if what in NEEDS_NO_TREE or peer not in NO_TREE]


def memory_rows(rounds: list[Round], case: str) -> list[dict]:
    ours = values_of(rounds, OURS, ("tree",))
    document = values_of(rounds, OURS, ("document",))
    rows = [row("memory of the tree", case, "the document", ours, document, "bytes")]
    for peer in PEERS:
        if peer not in NO_TREE:
            rows.append(row("memory of the tree", case, peer, ours,
                            values_of(rounds, peer, ("tree",)), "bytes"))
    peak = [each[OURS]["peak_printed"] - each[OURS]["peak_before"] for each in rounds]
    rows.append(row("peak memory of parse and print", case, "the document", peak, document,
                    "bytes"))
    return rows


# The machine.


def first_match(pattern: str, text: str) -> str:
    found = re.search(pattern, text, re.MULTILINE)
    return found[1].strip() if found else "unknown"


def machine(programs: Path) -> dict[str, object]:
    memory = first_match(r"^MemTotal:\s*(\d+)", Path("/proc/meminfo").read_text())
    versions = subprocess.run([programs / "xml_once", "--versions"], stdout=subprocess.PIPE,
                              check=True)
    return {
        "cpu": first_match(r"^model name\s*:(.*)$", Path("/proc/cpuinfo").read_text()),
        "cores": os.cpu_count(),
        "memory_bytes": 1024 * int(memory),
        "kernel": platform.release(),
        **json.loads(versions.stdout),
    }


def read_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--programs", type=Path, required=True, help="folder of the built programs")
    parser.add_argument("--output", type=Path, required=True, help="JSON file to write")
    parser.add_argument("--sizes", nargs="+", choices=ROUNDS, metavar="MB",
                        help=f"of {', '.join(ROUNDS)} (default: all, {', '.join(QUICK_ROUNDS)} "
                             "in a quick run)")
    parser.add_argument("--rounds", type=int, help="instead of as many as suit the size")
    parser.add_argument("--quick", action="store_true", help="few rounds of small documents")
    return parser.parse_args()


def main() -> None:
    arguments = read_arguments()
    programs = arguments.programs.resolve()
    usual = QUICK_ROUNDS if arguments.quick else ROUNDS
    arguments.output.parent.mkdir(parents=True, exist_ok=True)
    rows: list[dict] = []
    for size in arguments.sizes or usual:
        count = arguments.rounds or usual.get(size, min(QUICK_ROUNDS.values()))
        print(f"{size} MB, {count} rounds", flush=True)
        rounds = measure_size(programs, size, count, arguments.output.parent)
        rows += time_rows(rounds, f"{size} MB") + memory_rows(rounds, f"{size} MB")
    arguments.output.write_text(json.dumps({"machine": machine(programs), "rows": rows}, indent=2))


if __name__ == "__main__":
    main()
