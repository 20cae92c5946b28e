"""Runs a command where it can do no harm, whatever a mutant makes of it.

It sees the whole file system but can write to one folder only, which is a file system of its own in
memory and goes with the command. It has its own process numbers, so that nothing outlives it and no
signal reaches a process outside, and limits of time and memory. This needs root.
"""

import ctypes
import os
import resource
import signal
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

NEW_MOUNTS = 0x00020000  # CLONE_NEWNS
READ_ONLY, REMOUNT, BIND, RECURSIVE, PRIVATE = 1, 32, 4096, 16384, 1 << 18
MEMORY = 6 << 30  # address space of one process
FOLDER_SIZE = "3g"
KEPT_AS_THEY_ARE = ("/proc", "/dev/pts")
PIECE = 65536  # of the output, from its end

libc = ctypes.CDLL(None, use_errno=True)


@dataclass
class Outcome:
    status: int  # as a shell has it
    output: str
    seconds: float
    out_of_time: bool

    @property
    def passed(self) -> bool:
        return self.status == 0 and not self.out_of_time


def check(result: int) -> None:
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def mount(source: str, target: str, kind: str | None, flags: int, data: str | None = None) -> None:
    check(libc.mount(source.encode(), target.encode(), kind.encode() if kind else None, flags,
                     data.encode() if data else None))


def mount_points() -> list[str]:
    lines = Path("/proc/self/mounts").read_text().splitlines()
    return [line.split()[1].encode().decode("unicode_escape") for line in lines]


def close_up(folder: str, shared: str | None) -> None:
    """Gives this process a view of the files in which only the folder, now empty, can be written,
    and what is shared with the world outside."""
    check(libc.unshare(NEW_MOUNTS))
    mount("none", "/", None, RECURSIVE | PRIVATE)
    if shared:
        mount(shared, shared, None, BIND)
    mount("tmpfs", folder, "tmpfs", 0, f"size={FOLDER_SIZE},mode=755")
    for point in mount_points():
        if point not in (folder, shared) and not point.startswith(KEPT_AS_THEY_ARE):
            try:
                mount("none", point, None, REMOUNT | BIND | READ_ONLY)
            except OSError:
                if point == "/":  # others may be hidden below a later mount
                    raise


def limit(seconds: int) -> None:
    """`seconds` of processor time for each process."""
    for kind, value in ((resource.RLIMIT_AS, MEMORY), (resource.RLIMIT_CPU, seconds),
                        (resource.RLIMIT_CORE, 0)):
        hard = resource.getrlimit(kind)[1]
        value = value if hard == resource.RLIM_INFINITY else min(value, hard)
        resource.setrlimit(kind, (value, value))


def run(command: list[str | Path], folder: Path, environment: dict[str, str], seconds: float,
        processor_seconds: int, shared: Path | None = None) -> Outcome:
    """Runs it in the folder, for as long as `seconds`. It can write into `shared`, too."""
    def prepare() -> None:
        close_up(str(folder), str(shared) if shared else None)
        os.chdir(folder)
        limit(processor_seconds)
        for number in (signal.SIGINT, signal.SIGQUIT):  # a shell's background has them ignored
            signal.signal(number, signal.SIG_DFL)

    call = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c",
            '"$@"; exit $?', "sh", *map(str, command)]
    started = time.monotonic()
    with subprocess.Popen(call, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, env=environment, preexec_fn=prepare,
                          start_new_session=True) as process:
        try:
            output, _ = process.communicate(timeout=seconds)
            late = False
        except subprocess.TimeoutExpired:
            process.send_signal(signal.SIGKILL)  # takes all that it started along
            output, _ = process.communicate()
            late = True
    status = process.returncode if process.returncode >= 0 else 128 - process.returncode
    return Outcome(status, output[-PIECE:].decode(errors="replace"), time.monotonic() - started, late)
