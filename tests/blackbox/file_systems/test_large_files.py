"""Files of one very large text, and files that are mostly holes.

64 MiB a file; CORVIK_LARGE=1 in the environment makes it 1 GiB, which takes several times as much
of memory and of disk.
"""

import hashlib
import os
import signal

import pytest

from file_system_support import (BEFORE, LOG, NO_IDENTITY, UNPARSED, WALK_OVER, Terminal, client_script, content,
                                 import_file)
from import_run import NOTHING_TO_MERGE, key

MIB = 1024 * 1024
SIZE = (1024 if os.environ.get("CORVIK_LARGE") else 64) * MIB
BLOCK = 1020  # a connections file is read in such blocks, and a NUL cuts the rest of its block
MARK = b"HERE-STANDS-THE-TEXT"
NO_EXPORT = 'corvik: the registry export /tmp/tavrin.xml holds no "<"\n'
ABORTED = -signal.SIGABRT


def with_large_text(marked):
    """A document, in pieces, with a large text in the place of the mark."""
    before, found, behind = marked.partition(MARK)
    assert found and MARK not in behind
    return [before, *[b"x" * MIB] * (SIZE // MIB), behind]


def digest_of_pieces(pieces):
    digest = hashlib.sha1()
    for piece in pieces:
        digest.update(piece)
    return digest.hexdigest()


def digest_of_file(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha1").hexdigest()


class LargeTerminal(Terminal):
    """A client exports what stands in a file, and imports nothing."""

    def __init__(self, device):
        super().__init__(device)
        self.export = device.home / "export.xml"
        self.client = client_script(device, f"""case $1 in
export) exec cp '{self.export}' "$3" ;;
get | import) exit 0 ;;
esac
exec REGSH "$@"
""")

    def run(self, mode):
        file = {"get": "out.xml", "set": "in.xml"}[mode]
        result = self.shell(f"exec corvik -{mode} tavrin -f {file}", client=self.client)
        return result.status, result.stderr, content(self.work / "corvik.log")

    def done(self, mode):
        """Runs without trouble; tells what was written, or where it is when it is large."""
        assert self.run(mode) == (0, WALK_OVER * {"get": 1, "set": 2}[mode],
                                  LOG[mode] + b"rc=0\n")
        path = self.place({"get": "work/out.xml", "set": "tmp/import.xml"}[mode])
        return path if path.stat().st_size > MIB else path.read_bytes()


@pytest.fixture
def terminal(device):
    made = LargeTerminal(device)
    made.export.write_text(NOTHING_TO_MERGE.printed())
    yield made
    for folder in (made.work, device.home, device.tmp, device.sessions, device.etc):
        for path in folder.iterdir():
            if path.is_file() and path.stat().st_size > MIB:
                path.unlink()


def marked_export(terminal):
    """The export of a connection whose value is the mark."""
    (terminal.work / "in.xml").write_text(import_file("<new/>", key("text", MARK.decode())))
    return terminal.done("set")


def test_a_large_text_goes_out_and_in(terminal):
    """Compared with a short one that takes the same way."""
    export = marked_export(terminal)
    terminal.export.write_bytes(export)
    short_file = terminal.done("get")
    terminal.export.write_bytes(b"".join(with_large_text(export)))
    file = terminal.done("get")
    assert digest_of_file(file) == digest_of_pieces(with_large_text(short_file))

    terminal.export.write_text(NOTHING_TO_MERGE.printed())
    (terminal.work / "in.xml").write_bytes(short_file)
    short_document = terminal.done("set")
    file.rename(terminal.work / "in.xml")
    document = terminal.done("set")
    assert digest_of_file(document) == digest_of_pieces(with_large_text(short_document))


def fill_with_text(path):
    with open(path, "wb") as file:
        for _ in range(SIZE // MIB):
            file.write(b"x" * MIB)


def fill_with_a_hole(path):
    path.write_bytes(b"")
    os.truncate(path, SIZE)


@pytest.mark.parametrize("fill, told", [
    (fill_with_text, "Failed to parse in.xml\n"),
    (fill_with_a_hole, "Failed to get the root element.\n")])
def test_a_large_connections_file_that_is_no_document(terminal, fill, told):
    fill(terminal.work / "in.xml")
    assert terminal.run("set") == (20, told, LOG["set"] + b"rc=20\n")
    assert terminal.device.tmp_leftovers() == []


@pytest.mark.parametrize("fill", [fill_with_text, fill_with_a_hole])
def test_a_large_export_that_is_no_document(terminal, fill):
    fill(terminal.export)
    assert terminal.run("get") == (ABORTED, NO_EXPORT, LOG["get"])
    assert content(terminal.work / "out.xml") == BEFORE


@pytest.mark.parametrize("fill", [fill_with_text, fill_with_a_hole])
def test_a_large_session_file_that_is_no_document(terminal, fill):
    terminal.export.write_bytes(marked_export(terminal))
    (terminal.device.sessions / "a.kss").write_bytes(b"")
    assert terminal.run("get") == (0, WALK_OVER + UNPARSED, LOG["get"] + b"rc=0\n")
    without = content(terminal.work / "out.xml")
    fill(terminal.device.sessions / "a.kss")
    assert terminal.run("get") == (0, WALK_OVER + UNPARSED, LOG["get"] + b"rc=0\n")
    assert content(terminal.work / "out.xml") == without


def in_front(path):
    """Of 16 MiB: with the length of a line the time that grep takes for it grows by its square."""
    path.write_bytes(b"x" * 16 * MIB + b"\n" + path.read_bytes())


def behind(path):
    with open(path, "ab") as file:
        for piece in with_large_text(MARK):
            file.write(piece)


@pytest.mark.parametrize("name, enlarge", [("systeminfo", in_front), ("imageid", behind)])
def test_a_large_text_beside_the_identity_does_no_harm(terminal, name, enlarge):
    if name == "imageid":
        terminal.named_by_imageid()
    terminal.export.write_bytes(marked_export(terminal))
    expected = terminal.done("get"), terminal.done("set")
    enlarge(terminal.device.etc / name)
    assert (terminal.done("get"), terminal.done("set")) == expected


# Any eight characters in /etc/imageid name a build.
@pytest.mark.parametrize("name, fill", [
    ("systeminfo", fill_with_text), ("systeminfo", fill_with_a_hole), ("imageid", fill_with_a_hole)])
def test_a_large_identity_that_names_no_build(terminal, name, fill):
    if name == "imageid":
        terminal.named_by_imageid()
    fill(terminal.device.etc / name)
    for mode in ("get", "set"):
        assert terminal.run(mode) == (ABORTED, NO_IDENTITY, LOG[mode])


def test_a_hole_behind_a_document_does_no_harm(terminal):
    """As a disk leaves behind that lost power; the document itself is whole."""
    document = marked_export(terminal)
    os.truncate(terminal.work / "in.xml", SIZE)
    assert terminal.done("set") == document
    terminal.export.write_bytes(document)
    file = terminal.done("get")
    os.truncate(terminal.export, SIZE)
    assert terminal.done("get") == file


def file_around(text):
    """The two parts of a connections file that stand around a large text."""
    before, _, behind = import_file("<new/>", key("text", MARK.decode())).encode().partition(MARK)
    return before + text * (BLOCK - len(before) % BLOCK), behind


@pytest.mark.parametrize("size, lost", [(SIZE // BLOCK * BLOCK, 0),
                                        (SIZE // BLOCK * BLOCK + 1, BLOCK - 1)])
def test_a_hole_in_a_text_is_not_told(terminal, size, lost):
    """Fixed: of a block only what stands before its first NUL is taken."""
    start, behind = file_around(b"a")
    with open(terminal.work / "in.xml", "wb") as file:
        file.write(start)
        file.seek(size, os.SEEK_CUR)
        file.write(b"b" * 2 * BLOCK + behind)
    document = terminal.done("set")
    text = document.partition(b'name="text"')[2].partition(b">")[2].partition(b">")[2]
    first = len(start) - len(start.rstrip(b"a"))
    assert text.startswith(b"a" * first + b"b" * (2 * BLOCK - lost) + b"<")


@pytest.mark.parametrize("size, status, told", [
    (SIZE // BLOCK * BLOCK, 52, ""), (SIZE // BLOCK * BLOCK + 1, 20, "Failed to parse in.xml\n")],
    ids=["of-the-registry-export", "of-the-file"])
def test_a_hole_that_swallows_a_tag_is_told_by_the_result(terminal, size, status, told):
    start, behind = file_around(b"a")
    with open(terminal.work / "in.xml", "wb") as file:
        file.write(start)
        file.seek(size, os.SEEK_CUR)
        file.write(behind.partition(b"&gt;")[2])
    assert terminal.run("set") == (status, told, LOG["set"] + b"rc=%d\n" % status)
