"""A limit on the size of files, to the byte: with its signal as it is, and with the signal ignored.

The system ends a program by SIGXFSZ that writes beyond the limit, which only the shell can tell;
where the signal is ignored the write fails, and the tool tells it. In neither way is a file that
lacks a byte told as 0.
"""

import signal

import pytest

from file_system_support import (BEFORE, LOG, NOT_IMPORTED, WALK_OVER, Terminal, client_script,
                                 import_file, session, unwritten)
from import_run import key

BLOCK = 512  # the unit of ulimit
BLOCKS = 12
LIMIT = BLOCK * BLOCKS
KILLED = -signal.SIGXFSZ
IGNORED = "trap '' XFSZ"
TOLD_BY_SHELL = "File size limit exceeded\n"
EACH_WAY = pytest.mark.parametrize("ignored", [False, True], ids=["signal", "ignored"])


def limited(blocks, ignored):
    return f"ulimit -c 0; {IGNORED if ignored else ':'}; ulimit -S -f {blocks}"


def free_client(device):
    """The kit's client, for which the limit does not count."""
    return client_script(device, 'ulimit -S -f unlimited\nexec REGSH "$@"\n')


def export_of(device, size):
    """A device whose connections file takes this many bytes; the file itself comes with it."""
    def with_text(device, length):
        return Terminal(device, session("id-1", "Office", "a", key("text", "x" * length)))

    probed = len(with_text(device("probed"), 1).corvik("get").target)
    whole = with_text(device("whole"), 1 + size - probed).corvik("get").target
    assert len(whole) == size
    return with_text(device("limited"), 1 + size - probed), whole


def import_of(device, size):
    """A device that is to make an import document of this many bytes, which comes with it."""
    def with_text(device, length):
        terminal = Terminal(device)
        (terminal.work / "in.xml").write_text(import_file("<new/>", key("text", "x" * length)))
        return terminal

    probed = len(with_text(device("probed"), 1).corvik("set").document)
    whole = with_text(device("whole"), 1 + size - probed).corvik("set")
    assert len(whole.document) == size
    return with_text(device("limited"), 1 + size - probed), whole


def run(terminal, mode, blocks, ignored):
    return terminal.corvik(mode, before=limited(blocks, ignored),
                           client=free_client(terminal.device))


@EACH_WAY
@pytest.mark.parametrize("beyond", [0, 1])
def test_the_connections_file(make_device, beyond, ignored):
    terminal, whole = export_of(make_device, LIMIT + beyond)
    left = run(terminal, "get", BLOCKS, ignored)
    status = 0 if not beyond else 12 if ignored else KILLED
    log = LOG["get"] + (b"" if status == KILLED else b"rc=%d\n" % status)
    assert (left.status, left.stderr, left.log) == (status, WALK_OVER, log)
    assert left.target == whole[:LIMIT]


@EACH_WAY
@pytest.mark.parametrize("beyond", [0, 1])
def test_the_import_document(make_device, beyond, ignored):
    terminal, whole = import_of(make_device, LIMIT + beyond)
    before = terminal.left(terminal.device.run("true")).tree
    left = run(terminal, "set", BLOCKS, ignored)
    status = 0 if not beyond else 23 if ignored else KILLED
    assert left.status == status
    assert left.stderr == 2 * WALK_OVER + (NOT_IMPORTED if status == 23 else "")
    assert left.log == LOG["set"] + (b"" if status == KILLED else b"rc=%d\n" % status)
    assert left.document == whole.document[:LIMIT]
    assert left.tree == (before if beyond else whole.tree)


@EACH_WAY
@pytest.mark.parametrize("beyond", [0, 1])
def test_a_session_file(make_device, beyond, ignored):
    terminal, after = Terminal(make_device("limited")), Terminal(make_device("whole")).corvik("set")
    before = terminal.left(terminal.device.run("true"))
    text = "s" * (LIMIT + beyond)
    (terminal.work / "in.xml").write_text(import_file(text))
    left = run(terminal, "set", BLOCKS, ignored)
    assert left.sessions["a.kss"] == text.encode()[:LIMIT]
    if beyond and not ignored:
        assert (left.status, left.stderr, left.log) == (KILLED, "", LOG["set"])
        assert (left.document, left.tree) == (None, before.tree)
    else:
        assert (left.status, left.tree) == (0, after.tree)
        assert (unwritten("a.kss") in left.stderr) == bool(beyond)


@EACH_WAY
@pytest.mark.parametrize("mode", ["get", "set"])
def test_no_file_may_have_a_byte(device, mode, ignored):
    """The log is the first: it ends the run, or is not written and not told."""
    terminal = Terminal(device)
    before = terminal.left(terminal.device.run("true"))
    left = run(terminal, mode, 0, ignored)
    assert (left.log, left.tree) == (b"", before.tree)
    if not ignored:
        assert (left.status, left.stderr) == (KILLED, "")
        assert (left.target, left.document) == (before.target, None)
    elif mode == "get":
        assert (left.status, left.stderr, left.target) == (12, WALK_OVER, b"")
    else:
        assert (left.status, left.document) == (23, b"")
        assert left.stderr.startswith(unwritten("a.kss") + unwritten("a.ws"))
        assert left.stderr.endswith(NOT_IMPORTED)


@pytest.mark.parametrize("mode", ["get", "set"])
def test_the_shell_tells_of_the_signal(device, mode):
    terminal = Terminal(device)
    file = {"get": "out.xml", "set": "in.xml"}[mode]
    script = f"{limited(1, ignored=False)}\ncorvik -{mode} tavrin -f {file}\nexit $?"
    left = terminal.left(terminal.shell(script, client=free_client(device)))
    assert left.status == 128 + signal.SIGXFSZ
    assert left.stderr.endswith(TOLD_BY_SHELL)


@EACH_WAY
@pytest.mark.parametrize("mode", ["get", "set"])
def test_the_client_meets_the_limit_at_its_export(device, make_device, mode, ignored):
    """A client that fails, or that the signal ends, is told; an import goes on unmerged."""
    client = client_script(device, 'ulimit -S -f unlimited\n[ "$1" = export ] && '
                                   f'{{ {limited(1, ignored)}; }}\nexec REGSH "$@"\n')
    terminal = Terminal(device)
    left = terminal.corvik(mode, client=client)
    told = "regsh: cannot write /tmp/tavrin.xml: File too large\n" if ignored else TOLD_BY_SHELL
    if mode == "get":
        assert (left.status, left.stderr, left.log) == (50, told, LOG["get"] + b"rc=50\n")
        assert left.target == BEFORE
    else:
        after = Terminal(make_device("whole")).corvik("set")
        assert (left.status, left.stderr, left.tree) == (0, WALK_OVER + told, after.tree)
    kept = ["import.xml"] if mode == "set" else []
    assert device.tmp_leftovers() == kept + ([] if ignored else ["tavrin.xml"])
