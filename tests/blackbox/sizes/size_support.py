"""Runs of large documents: how they end, how long they take, how much memory, with a small stack."""

import os
import subprocess
import sys
from dataclasses import dataclass

LARGE = bool(os.environ.get("CORVIK_LARGE"))
"""Whether to run the full sizes, which takes minutes, instead of those of every day."""

SMALL_STACK = 128 << 10  # 32 bytes for each level of a document that is 4000 deep
SMALL_ENOUGH = 1 << 20  # what is shown of an output that is not the expected one


def size(daily, full):
    return full if LARGE else daily


@dataclass
class Ended:
    status: int  # negative for a signal
    stdout: bytes
    stderr: bytes
    seconds: float  # of the processor, for all of the processes
    peak: int  # bytes, of the largest of the processes

    def __repr__(self):
        return (f"Ended({self.status}, {self.stdout[:200]!r}, {self.stderr[:200]!r}, "
                f"{self.seconds:.2f} s, {self.peak / 1e6:.0f} MB)")


# A process of its own: what the tests themselves have in memory would else count with the command's.
MEASURE = """
import os, resource, sys
resource.setrlimit(resource.RLIMIT_STACK,
                   (int(sys.argv[1]), resource.getrlimit(resource.RLIMIT_STACK)[1]))
_, status, usage = os.wait4(os.posix_spawnp(sys.argv[3], sys.argv[3:], os.environ), 0)
with open(sys.argv[2], "w") as file:
    print(os.waitstatus_to_exitcode(status), usage.ru_utime + usage.ru_stime, usage.ru_maxrss,
          file=file)
"""


def run(command, folder, **options):
    """Runs the command with a small stack; its output goes through files.

    What it writes is not kept for the tests of written documents: it is compared in full here.
    """
    measured = folder / "measured"
    with open(folder / "stdout", "wb") as stdout, open(folder / "stderr", "wb") as stderr:
        subprocess.Popen([sys.executable, "-ISc", MEASURE, str(SMALL_STACK), measured, *command],
                         stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr, **options).wait()
    status, seconds, peak = measured.read_text().split()
    ended = Ended(int(status), *((folder / name).read_bytes() for name in ("stdout", "stderr")),
                  float(seconds), int(peak) << 10)
    (folder / "stdout").unlink()
    return ended


def same(got, expected):
    """Compares large texts without the long search for where they differ."""
    if got == expected:
        return True
    at = len(os.path.commonprefix([got[:SMALL_ENOUGH], expected[:SMALL_ENOUGH]]))
    print(f"{len(got)} bytes instead of {len(expected)}, from byte {at} on {got[at:at + 80]!r}"
          f" instead of {expected[at:at + 80]!r}")
    return False


CLIENT = """#!/bin/sh
# Exports one document, lists what it is told to, and keeps what it is to import.
case "$1 $2" in
    export*) exec cp "$CLIENT/export.xml" "$3" ;;
    "get root/ConnectionType/freerdp/connections") exec cat "$CLIENT/listing" ;;
    get*) echo "$2 1" ;;
    set*hasDesktopIcon*) echo "$2 $3" >>"$CLIENT/set" ;;
    import*) exec cp "$2" "$CLIENT/imported.xml" ;;
esac
"""


class SizedDevice:
    """A device whose client costs next to nothing; its files lie in `client`."""

    def __init__(self, programs, folder):
        self.programs = programs
        self.outputs = folder
        self.folder = folder / "device"
        self.client = self.folder / "client/sized"
        made = self.call("true")
        assert made.status == 0, made
        self.client.mkdir()
        (self.client / "regsh").write_text(CLIENT)
        (self.client / "regsh").chmod(0o755)
        (self.client / "listing").touch()

    @property
    def home(self):
        return self.folder / "home"

    def call(self, *command):
        way = os.environ.get("CORVIK_DEVICE_WAY")
        options = ["--way", way] if way else []
        if self.client.is_dir():
            options += ["--client", self.client / "regsh", "--env", f"CLIENT={self.client}"]
        return run([self.programs / "device", "--keep", self.folder, "--image-type", "9", *options,
                    "--", *command], self.outputs, cwd=self.home if self.home.is_dir() else None)

    def corvik(self, *arguments):
        return self.call("corvik", *arguments)


def is_sanitized(program):
    return b"__asan_init" in program.read_bytes()


def memory_fits(ended, program, size, factor):
    """Whether the peak is within so many times the size of the documents."""
    most = factor * size + (20 << 20)
    if is_sanitized(program):  # which keeps what was freed, and guards around everything
        most = 4 * most + (600 << 20)
    return ended.peak <= most
