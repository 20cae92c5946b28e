"""Named pipes in the place of files: as good as files with somebody at the other end.

A run opens its files and takes no notice of what they are. With nobody at the other end it waits,
as for a registry client that does not come back; `timeout` ends that, with nothing written.
"""

import contextlib
import errno
import os
import select
import signal
import threading
from concurrent.futures import ThreadPoolExecutor

import pytest

from file_system_support import (BEFORE, FIRST, LOG, WALK_OVER, Terminal, client_script,
                                 content, session)
from import_run import key

READ = [  # mode, and the file that it reads
    ("get", "etc/systeminfo"), ("get", "etc/imageid"), ("get", "sessions/a.kss"),
    ("get", "sessions/a.ws"), ("set", "work/in.xml"), ("set", "etc/systeminfo"),
    ("set", "etc/imageid"), ("set", "sessions/b.kss"), ("set", "sessions/b.ws")]
WRITTEN = [("get", "work/out.xml"), ("get", "work/corvik.log"), ("set", "work/corvik.log"),
           ("set", "sessions/a.kss"), ("set", "sessions/a.ws"), ("set", "tmp/import.xml")]
PAUSE_SECONDS = 0.005
LIMIT_SECONDS = 40  # of a run that finds nobody, though somebody was there for it


class OtherEnd(threading.Thread):
    """Somebody at the other end of a pipe, as long as the run lasts."""

    def __init__(self, path, act):
        super().__init__()
        self.path, self.act = path, act
        self.over = threading.Event()
        self.failure = None
        self.taken = b""

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *reason):
        self.over.set()
        self.join()
        if self.failure is not None:
            raise self.failure

    def run(self):
        try:
            self.act(self)
        except OSError as error:
            self.failure = error

    def wait_for_reader(self):
        """A descriptor to write to as soon as somebody reads; None when the run is over before."""
        while not self.over.wait(PAUSE_SECONDS):
            try:
                return os.open(self.path, os.O_WRONLY | os.O_NONBLOCK)
            except OSError as error:
                if error.errno != errno.ENXIO:
                    raise
        return None

    def feed(self, data):
        descriptor = self.wait_for_reader()
        if descriptor is None:
            return
        with os.fdopen(descriptor, "wb", buffering=0) as end:
            assert end.write(data) == len(data) <= select.PIPE_BUF

    def take(self, most=None):
        """Reads until the writer has closed, or until there is this much."""
        with os.fdopen(os.open(self.path, os.O_RDONLY | os.O_NONBLOCK), "rb", buffering=0) as end:
            poll = select.poll()
            poll.register(end, select.POLLIN)
            while most is None or len(self.taken) < most:
                if poll.poll(1000 * PAUSE_SECONDS):
                    block = end.read(most or 4096)
                    if not block:
                        return
                    self.taken += block
                elif self.over.is_set():
                    return


def lay_pipe(terminal, place):
    """Puts a pipe in the place of a file, and tells what the file held."""
    if place == "etc/imageid":
        terminal.named_by_imageid()
    path = terminal.place(place)
    held = content(path) or b""
    path.unlink(missing_ok=True)
    os.mkfifo(path)
    return path, held


def undisturbed(make_device, mode, place):
    terminal = Terminal(make_device("undisturbed"))
    if place == "etc/imageid":
        terminal.named_by_imageid()
    return terminal.corvik(mode)


def without(run, place):
    """What a run left but for the file that is a pipe."""
    sessions = {name: text for name, text in run.sessions.items() if not place.endswith(name)}
    return (run.status, run.stderr, place.endswith(".log") or run.log,
            place == "work/out.xml" or run.target, place == "tmp/import.xml" or run.document,
            run.tree, sessions)


@pytest.mark.parametrize("mode, place", READ)
def test_a_pipe_is_read_like_a_file(device, make_device, mode, place):
    terminal = Terminal(device)
    path, held = lay_pipe(terminal, place)
    assert held

    def feed(end):
        end.feed(held)
        while place.startswith("etc/") and not end.over.is_set():
            # A run asks more than once what it runs on, and may be about to close the last answer.
            with contextlib.suppress(BrokenPipeError):
                end.feed(held)

    with OtherEnd(path, feed):
        run = terminal.corvik(mode, limit=LIMIT_SECONDS)
    assert without(run, place) == without(undisturbed(make_device, mode, place), place)


def taken_as_file(run, place):
    return {"work/out.xml": run.target, "work/corvik.log": run.log, "tmp/import.xml": run.document,
            "sessions/a.kss": run.sessions["a.kss"], "sessions/a.ws": run.sessions["a.ws"]}[place]


@pytest.mark.parametrize("mode, place", WRITTEN)
def test_a_pipe_is_written_like_a_file(device, make_device, mode, place):
    terminal = Terminal(device)
    path, _ = lay_pipe(terminal, place)
    # The kit's client wants a file that it can go back in.
    client = client_script(device, 'if [ "$1" = import ]; then cat "$2" >/tmp/copy; set import '
                                   '/tmp/copy; fi\nexec REGSH "$@"\n')

    def relay(end):
        end.take()
        end.feed(end.taken)  # a session file is read again, the import document by the client

    with OtherEnd(path, relay) as end:
        run = terminal.corvik(mode, client=client, limit=LIMIT_SECONDS)
    expected = undisturbed(make_device, mode, place)
    assert without(run, place) == without(expected, place)
    assert end.taken == taken_as_file(expected, place) != b""


@pytest.mark.parametrize("before, status, log", [
    (":", -signal.SIGPIPE, LOG["get"]), ("trap '' PIPE", 12, LOG["get"] + b"rc=12\n")],
    ids=["default", "ignored"])
def test_a_reader_that_leaves_early_is_told(device, before, status, log):
    """More than a pipe holds is to be written."""
    terminal = Terminal(device, FIRST, session("id-2", "Night", "b", key("large", "x" * 200_000)))
    path, _ = lay_pipe(terminal, "work/out.xml")
    with OtherEnd(path, lambda end: end.take(10)) as end:
        run = terminal.corvik("get", before=before, limit=LIMIT_SECONDS)
    assert (run.status, run.stderr, run.log) == (status, WALK_OVER, log)
    assert end.taken == b"<tavrin>\n "


def test_a_pipe_in_the_place_of_the_exported_document_is_removed(device, make_device):
    terminal = Terminal(device)
    path, _ = lay_pipe(terminal, "tmp/tavrin.xml")
    run = terminal.corvik("get", limit=LIMIT_SECONDS)
    assert run == undisturbed(make_device, "get", "tmp/tavrin.xml")
    assert not path.exists()


def waiting(make_device, mode, place):
    """How a run ends that nobody at the other end of the pipe helps on."""
    terminal = Terminal(make_device(f"{mode} {place}".replace("/", "-")))
    before = terminal.left(terminal.device.run("true"))
    path, _ = lay_pipe(terminal, place)
    run = terminal.corvik(mode, limit=2)
    kept = (run.tree == before.tree, run.document == before.document, path.is_fifo(),
            place == "work/out.xml" or run.target == BEFORE, b"rc=" not in (run.log or b""))
    return run.status, *kept


def test_nobody_at_the_other_end_is_waited_for_and_nothing_is_done(make_device):
    places = [*READ, *(each for each in WRITTEN if each[1] != "tmp/import.xml")]
    with ThreadPoolExecutor(len(places)) as pool:
        ended = dict(zip(places, pool.map(lambda row: waiting(make_device, *row), places)))
    assert ended == {row: (124, True, True, True, True, True) for row in places}
