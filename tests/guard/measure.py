"""Counts the instructions of parsing, printing, exporting and importing, and judges the counts.

    measure.py PROGRAMS              prints the counts; the status is 1 when one breaks a limit
    measure.py PROGRAMS --update     makes them the recorded ones
    measure.py PROGRAMS --scope      says in a few words what is judged

PROGRAMS is the folder of the built programs of a release build. The counts are those of the
program's own code (the tool's and what the compiler put into it from the C++ library's headers),
because the C library picks other code on another processor.
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

import documents
from recorder_client import ANY, Recorder

RECORD = Path(__file__).resolve().parent / "recorded.json"

# The fixed cost is that of one connection; the other runs have 250 and four times 250 more. What lies
# between is counted to judge each doubling, and not recorded.
FIXED, SMALL, LARGE = SIZES = (1, 251, 1001)
MIDDLE = 501
STEPS = ("parse", "print", "destroy", "get", "set")
TOLERANCE = 0.03
# Work that is linear grows by 4.00; n log n by more than 4.9, a square by 15.9. What is left for the
# steps of growing tables and buffers is 5 per cent.
MOST_GROWTH = 4.2
MOST_DOUBLING = 2.1

TIME_LIMIT_SECONDS = 120
WALK_ENDED = b"Could not find <NodeDir> - UUID. \n"


class MeasureError(Exception):
    """A run that did not do what is to be counted."""


@dataclass(frozen=True)
class Count:
    own: int  # in the program's own code
    all: int  # in all code that it ran


# Profiles


def read_profile(path, program):
    """The count of a profile of that program."""
    names, own, everything, is_own, is_inclusive = {}, 0, 0, False, False
    for line in path.read_text(errors="replace").splitlines():
        if line.startswith(("ob=", "cob=")):  # the object of what follows, or of what is called
            number, _, name = line.partition("=")[2].partition(" ")
            name = names.setdefault(number, name)
            is_own = Path(name).name == program if line.startswith("ob=") else is_own
        elif line.startswith("calls="):
            is_inclusive = True  # the next cost stands a second time with the function called
        elif line[:1].isdigit() or line.startswith(("+", "-", "*")):
            cost = 0 if is_inclusive else int(line.split()[1])
            everything += cost
            own += cost if is_own else 0
            is_inclusive = False
    if own == 0:
        raise MeasureError(f"{path} has no instruction of {program}")
    return Count(own, everything)


def valgrind(profile, *options):
    return ["env", "-u", "VALGRIND_OPTS", "valgrind", "--quiet", "--tool=callgrind", "--vgdb=no",
            f"--callgrind-out-file={profile}", *options]


def run(command, **options):
    completed = subprocess.run(command, capture_output=True, stdin=subprocess.DEVNULL,
                               timeout=TIME_LIMIT_SECONDS, check=False, **options)
    if completed.returncode != 0:
        words = " ".join(map(str, command))
        raise MeasureError(f"{words}: status {completed.returncode}\n"
                           + completed.stderr.decode(errors="replace"))
    return completed


def expect(got, wanted, what):
    if got != wanted:
        raise MeasureError(f"{what}: not what the run should give")


# Steps of the XML tree


def count_xml_steps(programs, folder, size):
    """Parsing, printing and destroying; each is a part of the profile of one run."""
    folder.mkdir()
    source = folder / "export.xml"
    source.write_text(documents.export(range(size)), encoding="utf-8")
    names = ("parse", "print", "destroy")
    command = valgrind(folder / "profile", "--toggle-collect=step_*",
                       *(f"--dump-after=step_{name}" for name in names))
    done = run([*command, programs / "xml_steps", source], env={**os.environ, "TMPDIR": folder})
    expect(done.stdout, source.read_bytes(), f"xml_steps of {size} connections")
    return {(name, size): read_profile(folder / f"profile.{number}", "xml_steps")
            for number, name in enumerate(names, 1)}


# Whole runs on a device


class Device:
    """A simulated device with a client that answers every export with one document."""

    def __init__(self, programs, folder, registry):
        self.programs = programs
        self.folder = folder
        self.call("true")
        self.recorder = Recorder(programs / "regsh-recorder", folder / "client/recorder")
        self.recorder.on("export", ANY, ANY, writes=registry)
        settings = self.call("env", "-0").stdout.split(b"\0")[:-1]
        self.environment = dict(each.split(b"=", 1) for each in settings)

    @property
    def home(self):
        return self.folder / "home"

    def call(self, *command):
        """Runs a command on the device, with the recorder for a client once there is one."""
        way = os.environ.get("CORVIK_DEVICE_WAY")
        options = ["--way", way] if way else []
        recorder = getattr(self, "recorder", None)
        if recorder:
            options += ["--client", recorder.program]
            for name, value in recorder.env.items():
                options += ["--env", f"{name}={value}"]
        home = self.home if self.home.exists() else None
        return run([self.programs / "device", "--keep", self.folder, "--image-type", "9", *options,
                    "--", *command], cwd=home)

    def count(self, *arguments):
        """Runs corvik under valgrind and returns how it ended and what it cost."""
        profile = self.home / "profile"
        command = [*valgrind(profile), self.programs / "corvik", *arguments]
        if self.environment[b"CORVIK_DEVICE"] == b"chroot":
            done = run(command, cwd=self.home, env=self.chroot_environment())
        else:
            done = self.call(*command)
        return done, read_profile(profile, "corvik")

    def chroot_environment(self):
        """Valgrind cannot start without /proc: it starts here, and corvik moves there."""
        return {**self.environment, b"LD_PRELOAD": self.programs / "libchroot_first.so",
                b"CHROOT_PROGRAM": b"corvik", b"CHROOT_FIRST": self.folder / "root",
                b"TMPDIR": self.folder}


def count_get(programs, folder, size):
    device = Device(programs, folder, documents.export(range(size)))
    done, count = device.count("-get", documents.ROOT, "-f", "out.xml")
    expect(done.stderr, WALK_ENDED, f"messages of -get of {size} connections")
    expect((device.home / "out.xml").read_bytes(), documents.file_of(range(size)),
           f"connections file of {size} connections")
    return {("get", size): count}


def count_set(programs, folder, size):
    """The registry has half of the file's connections, and as many others."""
    half = size // 2
    device = Device(programs, folder, documents.export(range(size - half, 2 * size - half)))
    (device.home / "in.xml").write_bytes(documents.file_of(range(size)))
    _, count = device.count("-set", documents.ROOT, "-f", "in.xml")
    wanted = documents.export(range(2 * size - half)).encode()
    expect(device.recorder.imports, [wanted], f"import of {size} connections")
    return {("set", size): count}


def measure(programs):
    """Counts by step and number of connections."""
    with tempfile.TemporaryDirectory(prefix="guard-", dir=programs.parent) as folder:
        work = [(count, Path(folder) / f"{count.__name__}-{size}", size)
                for size in (LARGE, MIDDLE, SMALL, FIXED)
                for count in (count_set, count_get, count_xml_steps)]
        with ThreadPoolExecutor(max_workers=2) as pool:
            parts = pool.map(lambda each: each[0](programs, *each[1:]), work)
            return {key: count for part in parts for key, count in part.items()}


# Judgement


def read_build(programs):
    """What counts depend on beside the sources; an error where it is no plain release build."""
    build = json.loads((programs.parent / "guard_build.json").read_text())
    if build["kind"] != "RELEASE":
        raise MeasureError(f"the guard needs a release build, not {build['kind'].lower()}")
    return build


def read_record():
    return json.loads(RECORD.read_text())


def foreign_to(record, build):
    """Why counts of this build cannot be those of the record; empty when they can."""
    return ", ".join(f"{name} {build[name]} instead of {record['build'][name]}"
                     for name in sorted(build) if build[name] != record["build"].get(name))


def recorded_count(record, step, size):
    return record["counts"][step][str(size)]


def deviation(record, counts, step, size):
    """Share by which the count is above (or, negative, below) the recorded one."""
    return counts[step, size].own / recorded_count(record, step, size) - 1


def growth(counts, step, kind):
    """How often the cost of 250 further connections is contained in that of 1000 further ones."""
    fixed, small, large = (getattr(counts[step, size], kind) for size in SIZES)
    return (large - fixed) / (small - fixed)


def doublings(fixed, *doubled):
    """How often each cost is contained in the next, without the fixed cost in them."""
    return [(twice - fixed) / (once - fixed) for once, twice in zip(doubled, doubled[1:])]


def told(own, everything):
    """Both as pytest -rP shows them."""
    return "; ".join(f"{kind} code: each doubling {', '.join(f'{each:.3f}' for each in costs)}"
                     for kind, costs in (("own", own), ("all", everything)))


def doublings_of_connections(counts, step, kind):
    return doublings(*(getattr(counts[step, size], kind) for size in (FIXED, SMALL, MIDDLE, LARGE)))


# Command


def write_record(build, counts):
    table = {step: {str(size): counts[step, size].own for size in SIZES} for step in STEPS}
    RECORD.write_text(json.dumps({"build": build, "counts": table}, indent=2) + "\n")
    print(f"Recorded in {RECORD}")


def show_count(record, counts, step, size):
    """Prints a count; true when it is as recorded or there is nothing to compare it with."""
    line = f"  {step:8} {size:5} connections {counts[step, size].own:12,d} instructions"
    if record is None:
        print(line)
        return True
    share = deviation(record, counts, step, size)
    fits = abs(share) <= TOLERANCE
    print(f"{line}  {share:+7.2%} of the recorded" + ("" if fits else "  TOO FAR"))
    return fits


def show_growth(counts, step):
    own, everything = (growth(counts, step, kind) for kind in ("own", "all"))
    fits = max(own, everything) <= MOST_GROWTH
    print(f"  {step:8} grows by {own:.3f} (own code), {everything:.3f} (all code)"
          + ("" if fits else "  TOO MUCH"))
    return fits


def show(record, counts):
    verdicts = [show_count(record, counts, step, size) for step in STEPS for size in SIZES]
    verdicts += [show_growth(counts, step) for step in STEPS]
    return all(verdicts)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("programs", type=lambda text: Path(text).resolve())
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--update", action="store_true", help="make the counts the recorded ones")
    mode.add_argument("--scope", action="store_true", help="say what is judged, count nothing")
    arguments = parser.parse_args()
    build = read_build(arguments.programs)
    if arguments.update:
        counts = measure(arguments.programs)
        write_record(build, counts)
        return 0 if show(None, counts) else 1
    record = read_record()
    foreign = foreign_to(record, build)
    print(f"growth only: {foreign}" if foreign else "counts and growth")
    if arguments.scope:
        return 0
    return 0 if show(None if foreign else record, measure(arguments.programs)) else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except MeasureError as error:
        sys.exit(f"guard: {error}")
