"""Disks with room for a part only, for no file at all, and disks that cannot be written.

Each size of a disk, page by page, so that the room ends in every part of a run: 0 is only told of
files that are whole, and what is left of others is their beginning.
"""

import dataclasses
import os

import pytest

from file_system_support import (BEFORE, FIRST, LOG, NO_LOG, NOT_IMPORTED, WALK_OVER, Disk,
                                 Terminal, content, import_file, is_a_part, limited_client,
                                 session, unread, unwritten)
from import_run import key

PAGE = 4  # KiB
NOT_EXPORTED = "regsh: cannot write /tmp/tavrin.xml: "
KINDS = pytest.mark.parametrize("kind", ["read-only", "without-inodes"])
SESSIONS = "/etc/tavrin/connections"


def large(kib):
    return key("large", "x" * (1024 * kib))


@pytest.fixture
def terminal(device):
    """A device whose second session is known to the registry alone, and takes 24 KiB there."""
    terminal = Terminal(device, FIRST, session("id-2", "Night", "b", large(24)))
    (terminal.work / "disk").mkdir()
    return terminal


@pytest.fixture
def disk(device):
    return Disk(device)


class Swept:
    """How a run on a disk of one size ended, and what it left."""

    def __init__(self, work, line, files):
        self.kib, self.status = map(int, line.split())
        self.told = (work / f"{self.kib}.told").read_text()
        self.tree = (work / f"{self.kib}.tree").read_text()
        self.files = [content(work / f"{self.kib}.{os.path.basename(file)}") for file in files]


def sweep(terminal, disk, folder, command, files, sizes, writers):
    """Runs a command on disks of these sizes, each time with the registry of before."""
    lines = ["cp /etc/regsh/registry.db registry"]
    for kib in sizes:
        lines += ["cp registry /etc/regsh/registry.db",
                  disk.small(folder, kib, f"exec {command} 2>{kib}.told", writers),
                  f"echo {kib} $? >>statuses"]
        lines += [f"[ ! -e {file} ] || cp {file} {kib}.{os.path.basename(file)}" for file in files]
        lines += [disk.gone(folder, *(file for file in files if file.startswith(f"{folder}/"))),
                  f"regsh tree root/ConnectionType/tavrin >{kib}.tree"]
    result = terminal.shell("\n".join(lines), client=limited_client(terminal.device))
    assert (result.status, result.stderr) == (0, "")
    return [Swept(terminal.work, line, files)
            for line in (terminal.work / "statuses").read_text().splitlines()]


def test_an_export_onto_disks_of_every_size(terminal, disk):
    """Connections file and log on the same disk; the log comes first."""
    whole = terminal.corvik("get").target
    swept = sweep(terminal, disk, "disk", "sh -c 'cd disk; exec corvik -get tavrin -f out.xml'",
                  ["disk/out.xml", "disk/corvik.log"], range(PAGE, 10 * PAGE, PAGE), ["tool"])
    assert {each.status for each in swept} == {0, 12}
    for each in swept:
        file, log = each.files
        assert (each.told, log) == (WALK_OVER, LOG["get"] + b"rc=%d\n" % each.status), each.kib
        assert file == whole if each.status == 0 else is_a_part(file, whole), each.kib


def test_an_import_onto_disks_of_every_size(terminal, disk):
    """The merge needs room for the registry's export, the import document for both together.

    Where there is no room for the export, the file is imported without what the registry has, as
    after every failure of the client; the client tells it.
    """
    (terminal.work / "in.xml").write_text(import_file("<new/>", large(8)))
    before = terminal.left(terminal.device.run("true")).tree
    registry = content(terminal.device.etc / "regsh/registry.db")
    after = terminal.corvik("set")
    unmerged = alone(terminal)
    (terminal.device.etc / "regsh/registry.db").write_bytes(registry)
    swept = sweep(terminal, disk, "/tmp", "corvik -set tavrin -f in.xml", ["/tmp/import.xml"],
                  range(PAGE, 12 * PAGE, PAGE), ["tool", "client"])
    met = set()
    for each in swept:
        (document,) = each.files
        merged = NOT_EXPORTED not in each.told
        whole = after.document if merged else unmerged
        met.add((each.status, merged))
        if each.status == 0:
            assert (document, each.tree) == (whole, after.tree), each.kib
        else:
            assert each.told.endswith(NOT_IMPORTED), each.kib
            assert is_a_part(document, whole) and each.tree == before, each.kib
    assert met == {(23, False), (0, False), (23, True), (0, True)}


def alone(terminal):
    """The import document where the registry has nothing to merge."""
    result = terminal.shell("""
regsh delete root/ConnectionType/tavrin/connections/id-2 && regsh commit &&
corvik -set tavrin -f in.xml""")
    assert result.status == 0
    return content(terminal.device.tmp / "import.xml")


def test_an_export_by_way_of_a_tmp_of_every_size(terminal, disk):
    """What the client cannot write is no export, and the connections file stays as it was."""
    whole = terminal.corvik("get").target
    swept = sweep(terminal, disk, "/tmp",
                  "sh -c 'echo before >out.xml; exec corvik -get tavrin -f out.xml'",
                  ["out.xml", "/tmp/tavrin.xml"], range(PAGE, 10 * PAGE, PAGE), ["client"])
    assert {each.status for each in swept} == {0, 50}
    for each in swept:
        told = each.told.startswith(NOT_EXPORTED) if each.status else each.told == WALK_OVER
        assert told, each.kib
        assert each.files == [whole if each.status == 0 else b"before\n", None], each.kib


def test_session_files_onto_disks_of_every_size(device, disk):
    """What is not whole is told by its name, and the import goes on."""
    terminal = Terminal(device)
    text, window = "s" * (9 * 1024), "w" * (7 * 1024)
    file = import_file(text).replace("&lt;Workspace&gt;window&lt;/Workspace&gt;", window)
    assert window in file
    (terminal.work / "in.xml").write_text(file)
    after = terminal.corvik("set")
    swept = sweep(terminal, disk, SESSIONS, "corvik -set tavrin -f in.xml", 
                  [f"{SESSIONS}/a.kss", f"{SESSIONS}/a.ws"], range(PAGE, 8 * PAGE, PAGE),
                  ["tool"])
    met = set()
    for each in swept:
        assert (each.status, each.tree) == (0, after.tree), each.kib
        for name, written, whole in zip(("a.kss", "a.ws"), each.files, (text, window)):
            told = unwritten(name) in each.told
            met.add((name, told))
            if told:
                assert is_a_part(written, whole.encode()), each.kib
            else:
                assert written == whole.encode(), each.kib
    assert met == {(name, told) for name in ("a.kss", "a.ws") for told in (True, False)}


# No room for a file at all

def run_in(terminal, disk, folder, kind, command):
    before = terminal.left(terminal.device.run("true"))
    run = terminal.left(terminal.shell(disk.full(folder, kind, f"exec {command}")))
    return before, run


@KINDS
def test_the_folder_of_the_connections_file(terminal, disk, kind):
    _, run = run_in(terminal, disk, "disk", kind, "corvik -get tavrin -f disk/out.xml")
    assert (run.status, run.stderr, run.log) == (
        12, WALK_OVER, LOG["get"].replace(b"out.xml", b"disk/out.xml") + b"rc=12\n")


@KINDS
@pytest.mark.parametrize("mode, file", [("get", "out.xml"), ("set", "in.xml")])
def test_the_current_folder(terminal, disk, kind, mode, file):
    """The run is abandoned, which the status does not tell."""
    # In a link to nowhere one cannot be, but in a folder that has been removed.
    go = "cd disk" if disk.mounts else "mkdir gone; cd gone; rmdir ../gone"
    before, run = run_in(terminal, disk, "disk", kind,
                         f"sh -c '{go}; exec corvik -{mode} tavrin -f {terminal.work}/{file}'")
    assert (run.status, run.stderr) == (0, NO_LOG)
    assert run == dataclasses.replace(before, status=0, stderr=NO_LOG)


@KINDS
def test_tmp_at_an_export(terminal, disk, kind):
    before, run = run_in(terminal, disk, "/tmp", kind, "corvik -get tavrin -f out.xml")
    assert (run.status, run.log, run.target) == (50, LOG["get"] + b"rc=50\n", BEFORE)
    assert NOT_EXPORTED in run.stderr.splitlines(keepends=True)[-1]


@KINDS
def test_tmp_at_an_import(terminal, disk, kind):
    before, run = run_in(terminal, disk, "/tmp", kind, "corvik -set tavrin -f in.xml")
    assert (run.status, run.log, run.tree) == (23, LOG["set"] + b"rc=23\n", before.tree)
    assert NOT_EXPORTED in run.stderr and run.stderr.endswith(NOT_IMPORTED)


@KINDS
def test_the_folder_of_the_session_files(terminal, disk, kind, make_device):
    """The folder is empty there, so the merge has none to read either."""
    _, run = run_in(terminal, disk, SESSIONS, kind, "corvik -set tavrin -f in.xml")
    after = Terminal(make_device("undisturbed"), FIRST,
                     session("id-2", "Night", "b", large(24))).corvik("set")
    assert (run.status, run.stderr) == (
        0, unwritten("a.kss") + unwritten("a.ws") + 2 * WALK_OVER + unread("a.kss")
        + unread("b.kss"))
    assert (run.document, run.tree) == (after.document, after.tree)


def test_this_machine_has_small_disks_or_the_limit_takes_their_place(terminal, disk):
    """A disk of one page, or its stand-in, takes one page and says so."""
    command = "sh -c 'yes | head -c 8192 >disk/file'"
    terminal.shell(disk.small("disk", PAGE, f"exec {command}") + "\ncp disk/file taken")
    assert (terminal.work / "taken").stat().st_size == 1024 * PAGE
