"""Costs grow in step with a document, in whichever way it grows: counted at a size, twice, four times.

The shapes are those of tests/support/document_shapes.py. Printing indents by depth, so a nested document
is printed to the square of its levels: there the blanks that the C library writes are not judged.
"""

import math
import os
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import measure  # first: it makes what stands in tests/support known

import document_shapes as shapes
from registry_export import connections_file, named

PROGRAMS = Path(os.environ["CORVIK_BIN_DIR"]).resolve()
STEPS = ("parse", "print", "destroy")
KINDS = ("own", "all")

FIXED = 1
SIZES = {"siblings": 1000, "attributes": 1000, "text": 80_000, "long_attribute": 80_000,
         "nesting": 250}
SMALLEST_OF_ALL = 1000
MOST_OF_DESTROYING = 0.01  # of parsing


def doubled(size):
    return (FIXED, size, 2 * size, 4 * size)


# Steps of the XML tree


def count_steps(folder, shape, count):
    """The costs of the steps, and how much is printed."""
    folder.mkdir()
    printed = shapes.SHAPES[shape](count)
    given = shapes.nesting_alone(count) if shape == "nesting" else printed
    (folder / "document.xml").write_text(given)
    command = measure.valgrind(folder / "profile", "--toggle-collect=step_*",
                               *(f"--dump-after=step_{name}" for name in STEPS))
    done = measure.run([*command, PROGRAMS / "xml_steps", folder / "document.xml"],
                       env={**os.environ, "TMPDIR": folder})
    measure.expect(done.stdout, printed.encode(), f"{shape} of {count}")
    costs = {step: measure.read_profile(folder / f"profile.{number}", "xml_steps")
             for number, step in enumerate(STEPS, 1)}
    return {**costs, "printed": len(printed)}


def count_all(work, count):
    """The results of count(folder, *each) for each of the work, two at a time."""
    with (tempfile.TemporaryDirectory(prefix="guard-", dir=PROGRAMS.parent) as folder,
          ThreadPoolExecutor(max_workers=2) as pool):
        found = pool.map(lambda each: count(Path(folder) / "{}-{}".format(*each), *each), work)
        return dict(zip(work, found))


@pytest.fixture(scope="module")
def steps():
    return count_all([(shape, count) for shape, size in SIZES.items() for count in doubled(size)],
                     count_steps)


def costs_of(steps, shape, step, kind):
    return [getattr(steps[shape, count][step], kind) for count in doubled(SIZES[shape])]


def in_step(costs_by_kind):
    """Each doubling for the program's own code; the C library takes the steps of its buffers."""
    own, everything = (measure.doublings(*costs) for costs in costs_by_kind)
    print(measure.told(own, everything))
    return max(own) <= measure.MOST_DOUBLING and math.prod(everything) <= measure.MOST_GROWTH


@pytest.mark.parametrize("shape, step", [(shape, step) for shape in SIZES
                                         for step in ("parse", "print")])
def test_a_tree_is_parsed_and_printed_in_step_with_its_size(steps, shape, step):
    own, everything = (costs_of(steps, shape, step, kind) for kind in KINDS)
    if (shape, step) == ("nesting", "print"):
        everything = own  # the C library writes the blanks
    assert in_step([own, everything]), [own, everything]


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("shape", SIZES)
def test_destroying_costs_next_to_nothing(steps, shape, kind):
    """A tree stands in a few large blocks."""
    largest = steps[shape, doubled(SIZES[shape])[-1]]
    assert (getattr(largest["destroy"], kind)
            <= MOST_OF_DESTROYING * getattr(largest["parse"], kind))


# Whole runs


def with_all_shapes(count):
    """An export of one connection that is wide and long in every way; its length is in proportion."""
    parts = [shapes.SHAPES[shape](count * SIZES[shape] // SIZES["siblings"], " " * 10)
             for shape in SIZES if shape != "nesting"]
    return shapes.export([shapes.connection(0, "".join(parts))])


def count_get(folder, count):
    export = with_all_shapes(count)
    device = measure.Device(PROGRAMS, folder, export)
    _, cost = device.count("-get", "RDP", "-f", "out.xml")
    measure.expect((device.home / "out.xml").read_bytes(),
                   connections_file("RDP", named("Label 0"), general=export), f"-get of {count}")
    return cost


def count_set(folder, count):
    export = with_all_shapes(count)
    device = measure.Device(PROGRAMS, folder, export)
    file = connections_file("RDP", named("Label 0"), general=export)
    (device.home / "in.xml").write_bytes(file)
    _, cost = device.count("-set", "RDP", "-f", "in.xml")
    measure.expect(device.recorder.imports, [export.encode()], f"-set of {count}")
    return cost


ROADS = {"get": count_get, "set": count_set}


@pytest.fixture(scope="module")
def runs():
    return count_all([(road, count) for road in ROADS for count in doubled(SMALLEST_OF_ALL)],
                     lambda folder, road, count: ROADS[road](folder, count))


@pytest.mark.parametrize("road", ROADS)
def test_an_export_is_moved_in_step_with_its_size(runs, road):
    costs = [[getattr(runs[road, count], kind) for count in doubled(SMALLEST_OF_ALL)]
             for kind in KINDS]
    assert in_step(costs), costs
