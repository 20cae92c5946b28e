"""What lies in the place of a file: folders, sockets, nothing but a name, links that lead nowhere.

Each file that the tool opens, with each thing that may lie there. What is left is compared with
runs that nothing disturbed; the last column of a table names them.
"""

import os
import re
import signal
import stat

import pytest

from file_system_support import (BEFORE, FIRST, FOLDER_KINDS, LOG, NO_FILE, NO_IDENTITY, NO_LOG,
                                 NOT_IMPORTED, UNPARSED, WALK_OVER, Terminal, lay, unread,
                                 unwritten)

ABORTED = -signal.SIGABRT
UNWRITABLE = (*FOLDER_KINDS, *NO_FILE)
UNOPENED = (*NO_FILE, "dangling-link")  # by a reader
MADE = ("dangling-link", "empty-file")  # by a writer, as if nothing lay there
REMOVED = ("link-to-a-folder", *NO_FILE, *MADE)  # before the client writes there
ALL = (*UNWRITABLE, *MADE)
SOME = ("folder", "link-to-itself", "empty-file")
NOT_REMOVED = ("rm: cannot remove '/tmp/tavrin.xml': Is a directory\n"
               "regsh: cannot write /tmp/tavrin.xml: Is a directory\n")

EXPORTS = [  # place, what lies there, status, messages, what the connections file is like
    ("work/out.xml", UNWRITABLE, 12, WALK_OVER, "odd"),
    ("work/out.xml", MADE, 0, WALK_OVER, "whole"),
    ("work/corvik.log", UNWRITABLE, 0, NO_LOG, "before"),
    ("work/corvik.log", MADE, 0, WALK_OVER, "whole"),
    ("tmp/tavrin.xml", ["folder"], 50, NOT_REMOVED, "before"),
    ("tmp/tavrin.xml", REMOVED, 0, WALK_OVER, "whole"),
    ("etc/systeminfo", ALL, 0, WALK_OVER, "whole"),
    ("etc/imageid", ALL, ABORTED, NO_IDENTITY, "before"),
    ("sessions/a.kss", UNOPENED, 0, WALK_OVER + unread("a.kss"), "without a.kss"),
    ("sessions/a.kss", [*FOLDER_KINDS, "empty-file"], 0, WALK_OVER + UNPARSED, "without a.kss"),
    ("sessions/a.ws", UNOPENED, 0, WALK_OVER + unread("a.ws"), "without a.ws"),
    ("sessions/a.ws", [*FOLDER_KINDS, "empty-file"], 0, WALK_OVER + UNPARSED, "without a.ws"),
]
# The merge exports what the registry has, reads its session files, and drops them.
IMPORTS = [  # ... what the import document, the registry and the other session files are like
    ("work/in.xml", [*FOLDER_KINDS, *UNOPENED], ABORTED, "corvik: Invalid file name:in.xml\n",
     "before", "before", "before"),
    ("work/in.xml", ["empty-file"], 20, "Failed to get the root element.\n",
     "before", "before", "before"),
    ("work/corvik.log", UNWRITABLE, 0, NO_LOG, "before", "before", "before"),
    ("work/corvik.log", MADE, 0, 2 * WALK_OVER, "whole", "whole", "whole"),
    ("tmp/tavrin.xml", ["folder"], 0, WALK_OVER + NOT_REMOVED, "unmerged", "whole", "whole"),
    ("tmp/tavrin.xml", REMOVED, 0, 2 * WALK_OVER, "whole", "whole", "whole"),
    ("tmp/import.xml", UNWRITABLE, 23, 2 * WALK_OVER + NOT_IMPORTED, "odd", "before", "whole"),
    ("tmp/import.xml", MADE, 0, 2 * WALK_OVER, "whole", "whole", "whole"),
    ("etc/systeminfo", SOME, 0, 2 * WALK_OVER, "whole", "whole", "whole"),
    ("etc/imageid", SOME, ABORTED, NO_IDENTITY, "before", "before", "before"),
    ("sessions/a.kss", FOLDER_KINDS, 0, unwritten("a.kss") + 2 * WALK_OVER + UNPARSED,
     "whole", "whole", "whole"),
    ("sessions/a.kss", NO_FILE, 0, unwritten("a.kss") + 2 * WALK_OVER + unread("a.kss"),
     "whole", "whole", "whole"),
    ("sessions/a.kss", MADE, 0, 2 * WALK_OVER, "whole", "whole", "whole"),
    ("sessions/a.ws", FOLDER_KINDS, 0, unwritten("a.ws") + 2 * WALK_OVER + UNPARSED,
     "whole", "whole", "whole"),
    ("sessions/a.ws", NO_FILE, 0, unwritten("a.ws") + 2 * WALK_OVER + unread("a.ws"),
     "whole", "whole", "whole"),
    ("sessions/a.ws", MADE, 0, 2 * WALK_OVER, "whole", "whole", "whole"),
    ("sessions/b.kss", ["folder", "empty-file"], 0, 2 * WALK_OVER + UNPARSED,
     "whole", "whole", "whole"),
    ("sessions/b.kss", ["link-to-itself"], 0, 2 * WALK_OVER + unread("b.kss"),
     "whole", "whole", "whole"),
    ("sessions/b.ws", ["folder", "empty-file"], 0, 2 * WALK_OVER + UNPARSED,
     "whole", "whole", "whole"),
    ("sessions/b.ws", ["link-to-itself"], 0, 2 * WALK_OVER + unread("b.ws"),
     "whole", "whole", "whole"),
]
UNDISTURBED = {}


def rows(table):
    return [pytest.param(place, oddity, *rest, id=f"{place}-{oddity}".replace("/", "-"))
            for place, oddities, *rest in table for oddity in oddities]


@pytest.fixture
def undisturbed(make_device):
    """What an undisturbed run leaves: undisturbed("get", "whole"); each is made once."""

    def make(mode, name):
        if (mode, name) not in UNDISTURBED:
            device = make_device(f"{mode} {name}")
            terminal = Terminal(device, *([FIRST] if name == "unmerged" else []))
            if name.startswith("without "):
                (device.sessions / name.removeprefix("without ")).unlink()
            run = terminal.left(device.run("true")) if name == "before" else terminal.corvik(mode)
            assert run.status == 0
            UNDISTURBED[mode, name] = run
        return UNDISTURBED[mode, name]

    return make


def terminal_with(device, place, oddity):
    terminal = Terminal(device)
    if place in ("etc/systeminfo", "etc/imageid"):
        terminal.named_by_imageid()
    lay(oddity, terminal.place(place))
    return terminal


def log_of(mode, place, status, oddity):
    if place == "work/corvik.log" and oddity in UNWRITABLE:
        return None
    return LOG[mode] + (b"" if status == ABORTED else b"rc=%d\n" % status)


def kind(path):
    return stat.S_IFMT(path.lstat().st_mode)


@pytest.mark.parametrize("place, oddity, status, messages, file", rows(EXPORTS))
def test_exports(device, undisturbed, place, oddity, status, messages, file):
    terminal = terminal_with(device, place, oddity)
    odd = terminal.place(place)
    before = kind(odd)
    run = terminal.corvik("get")
    assert (run.status, run.stderr, run.log) == (status, messages,
                                                 log_of("get", place, status, oddity))
    assert run.target == (None if file == "odd" else undisturbed("get", file).target)
    assert run.tree == undisturbed("get", "before").tree
    if place == "tmp/tavrin.xml" and status == 0:
        assert device.tmp_leftovers() == []
    else:
        assert kind(odd) == before


@pytest.mark.parametrize("place, oddity, status, messages, document, tree, sessions", rows(IMPORTS))
def test_imports(device, undisturbed, place, oddity, status, messages, document, tree, sessions):
    terminal = terminal_with(device, place, oddity)
    odd = terminal.place(place)
    before = kind(odd)
    run = terminal.corvik("set")
    assert (run.status, run.stderr, run.log) == (status, messages,
                                                 log_of("set", place, status, oddity))
    assert run.document == (None if document == "odd" else undisturbed("set", document).document)
    assert run.tree == undisturbed("set", tree).tree
    expected = dict(undisturbed("set", sessions).sessions)
    if oddity not in MADE or "/b." in place:
        expected.pop(odd.name, None)
        run.sessions.pop(odd.name, None)
    assert run.sessions == expected
    if not (place == "tmp/tavrin.xml" and status == 0 and oddity != "folder"):
        assert kind(odd) == before


def test_an_undisturbed_import_changes_all_that_is_compared(undisturbed):
    before, whole = undisturbed("set", "before"), undisturbed("set", "whole")
    assert before.document is None and whole.document is not None
    assert before.tree != whole.tree
    assert before.document != undisturbed("set", "unmerged").document != whole.document
    changed = {name for name in whole.sessions if whole.sessions[name] != before.sessions[name]}
    assert changed == {"a.kss", "a.ws"}


def test_undisturbed_exports_differ_in_all_that_is_compared(undisturbed):
    files = {undisturbed("get", name).target
             for name in ("before", "whole", "without a.kss", "without a.ws")}
    assert len(files) == 4


@pytest.mark.parametrize("mode", ["get", "set"])
def test_the_kept_folders_hold_what_they_held(device, mode):
    """Files of the names that a run uses, one level below, are none of its business."""
    terminal = Terminal(device)
    folder = terminal.place({"get": "work/out.xml", "set": "tmp/import.xml"}[mode])
    lay("folder", folder)
    for name in ("out.xml", "import.xml", "corvik.log"):
        (folder / name).write_text("kept")
    assert terminal.corvik(mode).status == {"get": 12, "set": 23}[mode]
    assert {path.read_text() for path in folder.iterdir()} == {"kept"}


# The client's own place, on the search path

NO_PROGRAM = ("folder", "link-to-a-folder", "socket", "link-to-itself", "dangling-link",
              "empty-file", "pipe", "no-right")


def lay_client(device, oddity):
    """A search path on which the client is what the row says."""
    folder = device.home / "programs"
    folder.mkdir()
    for name in ("rm", "cat", "grep", "head", "cut", "sh"):
        (folder / name).symlink_to(device.run("sh", "-c", f"command -v {name}").stdout.strip())
    client = folder / "regsh"
    if oddity == "pipe":
        os.mkfifo(client)
    elif oddity in ("no-right", "empty-executable"):
        client.write_text("" if oddity == "empty-executable" else "#!/bin/sh\n")
        client.chmod(0o755 if oddity == "empty-executable" else 0o644)
    else:
        lay(oddity, client)
    return {"PATH": str(folder)}


def run_with(terminal, environment, mode, file):
    return terminal.left(terminal.shell(
        f"exec {terminal.device.programs}/corvik -{mode} tavrin -f {file}", env=environment))


@pytest.mark.parametrize("oddity", NO_PROGRAM)
def test_a_client_that_cannot_be_started(device, oddity):
    """Told as the shell tells it, at each of the five calls."""
    terminal = Terminal(device)
    environment = lay_client(device, oddity)
    told = device.run("sh", "-c", "regsh x\n" * 5, env=environment).stderr
    told = re.sub(r"(?m)^sh: \d+:", "sh: 1:", told)
    assert told.count("\n") == told.count("regsh: ") == 5
    before = terminal.left(device.run("true"))
    run = run_with(terminal, environment, "get", "out.xml")
    assert (run.status, run.stderr, run.target) == (50, told, before.target)
    run = run_with(terminal, environment, "set", "in.xml")
    assert (run.status, run.stderr) == (0, told)
    assert (run.document, run.tree, run.sessions) == (None, before.tree, before.sessions)


def test_a_client_that_is_an_empty_script_exports_nothing(device):
    """Each of its calls succeeds."""
    terminal = Terminal(device)
    run = run_with(terminal, lay_client(device, "empty-executable"), "get", "out.xml")
    assert (run.status, run.stderr, run.target) == (11, "", BEFORE)
