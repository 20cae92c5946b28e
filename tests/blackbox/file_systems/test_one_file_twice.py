"""Two of the names that a run uses are one file: the other is told as not written, or does no harm.

The run log is open all the time and ends with its last line. What would be written into the same
file would be damaged by it, so it counts as a file that cannot be written.
"""

import os

import pytest

from file_system_support import (BEFORE, LOG, NOT_IMPORTED, WALK_OVER, Terminal, content,
                                 import_file, unwritten)


@pytest.fixture
def terminal(device):
    return Terminal(device)


@pytest.fixture
def whole(make_device):
    return lambda mode: Terminal(make_device("undisturbed")).corvik(mode)


def run(terminal, mode, file):
    return terminal.left(terminal.shell(f"exec corvik -{mode} tavrin -f {file}"))


def header(file):
    return f"tavrin {file} [******] [******] 0\r\n".encode()


def make_nothing(terminal):
    pass


def make_link(terminal):
    (terminal.work / "link").symlink_to("corvik.log")


def make_hard_link(terminal):
    (terminal.work / "corvik.log").write_bytes(BEFORE)
    os.link(terminal.work / "corvik.log", terminal.work / "link")


@pytest.mark.parametrize("make, file", [
    (make_nothing, "corvik.log"), (make_nothing, "./corvik.log"), (make_link, "link"),
    (make_hard_link, "link")])
def test_the_connections_file_is_the_run_log(terminal, make, file):
    make(terminal)
    left = run(terminal, "get", file)
    assert (left.status, left.stderr) == (12, WALK_OVER)
    assert left.log == header(file) + b"rc=12\n"


@pytest.mark.parametrize("lay", [os.symlink, os.link])
def test_the_run_log_is_laid_on_the_connections_file(terminal, lay):
    lay(terminal.work / "out.xml", terminal.work / "corvik.log")
    left = terminal.corvik("get")
    assert (left.status, left.stderr) == (12, WALK_OVER)
    assert left.target == LOG["get"] + b"rc=12\n"


def test_both_go_nowhere(terminal):
    for name in ("corvik.log", "out.xml"):
        (terminal.work / name).unlink(missing_ok=True)
        (terminal.work / name).symlink_to("/dev/null")
    assert terminal.corvik("get").status == 0


def test_the_connections_file_is_the_export(terminal, whole):
    """It is written after the export was read and removed."""
    left = run(terminal, "get", "/tmp/tavrin.xml")
    assert (left.status, left.stderr) == (0, WALK_OVER)
    assert content(terminal.device.tmp / "tavrin.xml") == whole("get").target


def test_the_import_document_is_the_run_log(terminal):
    (terminal.work / "corvik.log").symlink_to("/tmp/import.xml")
    before = terminal.left(terminal.device.run("true")).tree
    left = terminal.corvik("set")
    assert (left.status, left.stderr) == (23, 2 * WALK_OVER + NOT_IMPORTED)
    assert left.document == LOG["set"] + b"rc=23\n"
    assert left.tree == before


@pytest.mark.parametrize("name, read_again", [("a.kss", "Parse xml failed.\n"),
                                              ("a.ws", "Parse xml failed.\n")])
def test_a_session_file_is_the_run_log(terminal, whole, name, read_again):
    os.symlink(f"/etc/tavrin/connections/{name}", terminal.work / "corvik.log")
    left = terminal.corvik("set")
    assert (left.status, left.stderr) == (0, unwritten(name) + 2 * WALK_OVER + read_again)
    assert content(terminal.device.sessions / name) == LOG["set"] + b"rc=0\n"
    undisturbed = whole("set")
    assert (left.document, left.tree) == (undisturbed.document, undisturbed.tree)


def test_the_connections_file_of_an_import_is_the_run_log(terminal):
    """It is lost before it is read, which is told; the registry is not touched."""
    (terminal.work / "corvik.log").write_text(import_file())
    before = terminal.left(terminal.device.run("true"))
    left = run(terminal, "set", "corvik.log")
    assert (left.status, left.stderr) == (20, "Failed to parse corvik.log\n")
    assert left.log == header("corvik.log") + b"rc=20\n"
    assert (left.tree, left.sessions, left.document) == (before.tree, before.sessions, None)


@pytest.mark.parametrize("file", ["/tmp/import.xml", "/tmp/tavrin.xml"])
def test_the_connections_file_of_an_import_is_one_of_the_temporary_files(terminal, whole, file):
    """It is read as a whole before anything is written."""
    path = terminal.device.tmp / file.removeprefix("/tmp/")
    path.write_text(import_file())
    left = run(terminal, "set", file)
    undisturbed = whole("set")
    assert (left.status, left.stderr) == (0, 2 * WALK_OVER)
    assert (left.document, left.tree, left.sessions) == (undisturbed.document, undisturbed.tree,
                                                         undisturbed.sessions)
