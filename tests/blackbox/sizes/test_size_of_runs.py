"""Whole runs on exports and connections files that are deep, wide or long, with a small stack.

CORVIK_LARGE=1 runs the full sizes. How costs grow is judged by tests/guard.
"""

import shutil

import pytest

import document_shapes as shapes
from import_run import EXPORT_UNPARSED, WALK_OVER
from registry_export import connections_file, named
from size_support import SizedDevice, memory_fits, same, size

MILLION = 1_000_000
DEEPEST = 10000 - 5  # levels below a connection


def many_connections(count):
    return shapes.export(map(shapes.connection, range(count)))


def with_one(shape):
    """Makes exports of one connection that holds a part of that shape."""
    def export(count):
        return shapes.export_with(shape, count)
    export.__name__ = shape.__name__
    return export


@pytest.fixture
def device(programs, tmp_path):
    device = SizedDevice(programs, tmp_path)
    yield device
    for folder in (device.client, device.home, device.folder / "tmp"):  # some hundreds of megabytes
        shutil.rmtree(folder)


def file_of(export, count=1):
    """The connections file that comes of this export, with this number of connections."""
    return connections_file("RDP", *(named(f"Label {number}") for number in range(count)),
                            general=export)


def note(what, ended, document):
    print(f"{what} of {len(document) / 1e6:.1f} MB: {ended.seconds:.2f} s, {ended.peak / 1e6:.0f} MB")


# Peak memory in sizes of the export, for -get and for -set.
SIZES = [
    (with_one(shapes.siblings), MILLION, 6, 11),
    (with_one(shapes.attributes), MILLION, 4, 7),
    (with_one(shapes.text), size(10 * MILLION, 100 * MILLION), 3, 4),
    (with_one(shapes.long_attribute), size(10 * MILLION, 100 * MILLION), 3, 4),
    (with_one(shapes.nesting), size(3000, DEEPEST), 2.5, 1.5),
    (many_connections, size(10_000, 100_000), 5, 13),
]
each_size = pytest.mark.parametrize("shape, count, of_get, of_set", SIZES,
                                    ids=[shape.__name__ for shape, *_ in SIZES])


@each_size
def test_a_large_export_becomes_a_file(device, programs, shape, count, of_get, of_set):
    export = shape(count)
    (device.client / "export.xml").write_text(export)
    ended = device.corvik("-get", "RDP", "-f", "out.xml")
    note("-get", ended, export)
    assert (ended.status, ended.stdout, ended.stderr) == (0, b"", WALK_OVER.encode())
    number = count if shape is many_connections else 1
    assert same((device.home / "out.xml").read_bytes(), file_of(export, number))
    assert memory_fits(ended, programs / "corvik", len(export), of_get)


@each_size
def test_a_large_file_is_imported(device, programs, shape, count, of_get, of_set):
    """Where there are many connections the registry has half of them, and as many others."""
    export = merged = held = shape(count)
    number = 1
    if shape is many_connections:
        number, half = count, count // 2
        held = shapes.export(map(shapes.connection, range(half, count + half)))
        merged = many_connections(count + half)
    (device.client / "export.xml").write_text(held)
    (device.home / "in.xml").write_bytes(file_of(export, number))
    ended = device.corvik("-set", "RDP", "-f", "in.xml")
    note("-set", ended, export)
    assert (ended.status, ended.stdout, ended.stderr) == (0, b"", 2 * WALK_OVER.encode())
    assert same((device.client / "imported.xml").read_text(), merged)
    assert memory_fits(ended, programs / "corvik", len(export), of_set)


def test_the_icons_of_many_connections_are_refreshed(device):
    count = size(200, 100_000)
    paths = [f"root/ConnectionType/freerdp/connections/id-{number}" for number in range(count)]
    (device.client / "export.xml").write_text(many_connections(1))
    (device.client / "listing").write_text("".join(f"dir {path}\n" for path in paths))
    (device.home / "in.xml").write_bytes(file_of(many_connections(1)))
    ended = device.corvik("-set", "RDP", "-f", "in.xml")
    note("-set with icons", ended, "")
    assert (ended.status, ended.stderr) == (0, 2 * WALK_OVER.encode())
    assert same((device.client / "set").read_text(),
                "".join(f"{path}/hasDesktopIcon 1\n" for path in paths))


# What is refused

TOO_DEEP = [DEEPEST + 1, MILLION]


def too_deep(levels):
    return shapes.export([shapes.connection(0, shapes.nesting_alone(levels))])


@pytest.mark.parametrize("levels", TOO_DEEP)
def test_an_export_that_is_too_deep_is_refused(device, levels):
    (device.client / "export.xml").write_text(too_deep(levels))
    ended = device.corvik("-get", "RDP", "-f", "out.xml")
    assert (ended.status, ended.stderr) == (52, EXPORT_UNPARSED.encode())
    assert not (device.home / "out.xml").exists()


@pytest.mark.parametrize("levels", TOO_DEEP)
def test_a_file_that_carries_a_document_too_deep_is_refused(device, levels):
    (device.home / "in.xml").write_bytes(file_of(too_deep(levels)))
    ended = device.corvik("-set", "RDP", "-f", "in.xml")
    assert (ended.status, ended.stderr) == (52, b"")
    assert not (device.client / "imported.xml").exists()


def test_a_file_that_is_too_deep_is_refused(device):
    (device.home / "in.xml").write_text(shapes.nesting_alone(MILLION))
    ended = device.corvik("-set", "RDP", "-f", "in.xml")
    assert (ended.status, ended.stderr) == (20, b"Failed to parse in.xml\n")


@pytest.mark.parametrize("spoilt", [
    lambda: "<RDP" + " a='1'" * MILLION + " b='<'/>", lambda: "<RDP>" + "<a/>" * MILLION + "</RD>",
    lambda: "<RDP>" + "x " * size(5 * MILLION, 50 * MILLION) + ">"],
    ids=["attributes", "siblings", "text"])
def test_a_large_file_that_is_spoilt_at_its_end_is_refused(device, spoilt):
    (device.home / "in.xml").write_text(spoilt())
    ended = device.corvik("-set", "RDP", "-f", "in.xml")
    assert (ended.status, ended.stderr) == (20, b"Failed to parse in.xml\n")
