"""Keeps every document that the programs write while tests run: pytest -p keep_documents.

CORVIK_KEEP_DOCUMENTS names the folder. Each content is kept once, under a name made from it; the file
"index" there has a line of JSON for each time it was written, with the test and what is known of the
writer. Tests see nothing of it: the folders are looked at before and after each process, so that also
a document is kept that the same test writes over or removes. A test whose processes go on while the
tool runs many times hands over what it finds (keep_found).
"""

import functools
import hashlib
import json
import os
import re
import subprocess
from dataclasses import dataclass, replace
from pathlib import Path

FOLDER = os.environ.get("CORVIK_KEEP_DOCUMENTS")

CONNECTIONS = "connections"  # written by corvik -get
EXPORT = "export"  # written by regsh export
IMPORT = "import"  # written by corvik -set for regsh import
SESSION = "session"  # written by corvik -set for the terminal emulator

SESSIONS = Path("etc/tavrin/connections")
TIMED_OUT = 124  # as timeout(1) tells it
DONE = (0, 255)  # 255: the file held no connection, but the client was given the rest
MOST_BYTES = 16 * 1024 * 1024  # larger files are the business of the tests that make them

ENTER = re.compile(r"cd (\w+) \|\| exit \d+")
LAST_COMMAND = re.compile(r"exec +(?:timeout \S+ +)?(corvik(?: +[-+\w./]+)+)")


@dataclass
class Call:
    """A command line as it reaches the programs, and the folders it may write into."""

    words: list
    home: Path
    tmp: Path | None = None
    sessions: Path | None = None
    scripted_client: bool = False
    by_shell: bool = False

    @property
    def program(self):
        return os.path.basename(self.words[0])

    @property
    def verb(self):
        return self.words[1].lower() if len(self.words) > 1 else ""

    def places(self, word):
        """Where the file of this name is, as the host sees it."""
        below_tmp = word.startswith("/tmp/") and self.tmp is not None
        # On a device that lies below /tmp itself, a name can be meant from outside.
        return [*([self.tmp / word.removeprefix("/tmp/")] if below_tmp else []), self.home / word]

    def named_files(self):
        """Files that the command line names."""
        return [place for word in self.words[2:] for place in self.places(word)]

    def given(self):
        """What the file of an import holds; None where that cannot be told."""
        if self.program != "corvik" or self.verb != "-set" or "-f" not in self.words[:-1]:
            return None
        places = self.places(self.words[self.words.index("-f") + 1])
        return next((data for data in map(content_of, places) if data is not None), None)

    def files(self):
        folders = [self.home, self.tmp] if self.tmp else []
        listed = [path for folder in folders if folder.is_dir() for path in folder.iterdir()]
        listed += self.sessions.rglob("*") if self.sessions and self.sessions.is_dir() else []
        log = os.path.realpath(self.home / "corvik.log")  # it may be a link
        return {path: state for path in [*listed, *self.named_files()]
                if path.name != "corvik.log" and str(path) != log and (state := state_of(path))}


def state_of(path):
    """What changes when a regular file is written; None for anything else, and for a large one."""
    try:
        status = os.lstat(path)
    except (OSError, ValueError):
        return None
    is_file = status.st_mode & 0o170000 == 0o100000
    if not is_file or status.st_size > MOST_BYTES:
        return None
    return status.st_ino, status.st_mtime_ns, status.st_size


def content_of(path):
    """What a file holds, also behind links; None for anything else, and for a large one."""
    try:
        return path.read_bytes() if path.is_file() and path.stat().st_size <= MOST_BYTES else None
    except OSError:
        return None


def call_of(arguments, folder):
    """The call, or None where it is none of the programs'."""
    if isinstance(arguments, (str, bytes, os.PathLike)):
        return None
    words = [os.fsdecode(word) for word in arguments]
    program = os.path.basename(words[0]) if words else ""
    here = Path(folder or os.getcwd())
    if program in ("corvik", "regsh"):
        return Call(words, here)
    if program != "device" or "--keep" not in words or "--" not in words[:-1]:
        return None
    end = words.index("--")
    device = Path(words[words.index("--keep") + 1])
    call = Call(words[end + 1:], device / "home", device / "tmp", device / SESSIONS,
                "--client" in words[:end])
    return from_shell(call) or call


def from_shell(call):
    """The call of a script whose last line becomes corvik; None for any other command line."""
    if call.words[:2] != ["sh", "-c"] or len(call.words) != 3:
        return None
    lines = call.words[2].split("\n")
    enter, command = ENTER.fullmatch(lines[0]), LAST_COMMAND.fullmatch(lines[-1])
    if command is None:
        return None
    home = call.home / enter[1] if enter else call.home
    return replace(call, words=command[1].split(), home=home, by_shell=True)


def role_of(call, path, status):
    """Whose document the file is; None where it is nobody's or may be cut off."""
    below_tmp = call.tmp is not None and path.parent == call.tmp
    in_sessions = call.sessions in path.parents
    if call.program == "corvik":
        return role_for_corvik(call, path, status, below_tmp, in_sessions)
    if in_sessions:
        return None
    if call.program == "regsh":
        return EXPORT if call.verb == "export" and status == 0 else None
    if below_tmp or status != 0:
        return None
    start = path.read_bytes()[:5]
    return EXPORT if start == b"<?xml" else CONNECTIONS if start[:1] == b"<" else None


def role_for_corvik(call, path, status, below_tmp, in_sessions):
    is_import = call.verb == "-set" and status in DONE
    if in_sessions:
        return SESSION if is_import else None
    if below_tmp and path not in call.named_files() and path.name != "import.xml":
        # What the client had exported when the run failed.
        cut_off = call.scripted_client or call.by_shell or status == TIMED_OUT
        return None if cut_off else EXPORT
    if below_tmp and path.name == "import.xml" and call.verb == "-set":
        return IMPORT if is_import else None
    return CONNECTIONS if call.verb == "-get" and status == 0 else None


def put(data):
    name = hashlib.sha256(data).hexdigest()[:32] + ".xml"
    path = Path(FOLDER) / name
    if not path.exists():
        part = path.with_suffix(f".{os.getpid()}")
        part.write_bytes(data)
        part.rename(path)
    return name


def note(role, data, words, scripted, given):
    line = {"role": role, "file": put(data), "words": words[:3], "scripted": scripted,
            "test": os.environ.get("PYTEST_CURRENT_TEST", ""),
            "given": None if given is None else put(given)}
    with open(Path(FOLDER) / "index", "ab") as index:
        index.write(json.dumps(line).encode() + b"\n")


def told_unwritten(name, told):
    """Whether the tool told that it could not write the session file of this name."""
    return f"Write file /{SESSIONS}/{name} fail" in told


def keep(call, before, given, status, told):
    for path, state in call.files().items():
        role = role_of(call, path, status) if state != before.get(path) else None
        if role is None or role == SESSION and (given is None or told_unwritten(path.name, told)):
            continue
        note(role, path.read_bytes(), call.words, call.scripted_client,
             given if role in (IMPORT, SESSION) else None)


@functools.cache
def keep_found(role, data, words, given=None):
    """Keeps what a test found behind a run with a client of its own; the same once only."""
    if FOLDER:
        note(role, data, list(words), True, given)


class KeepingPopen(subprocess.Popen):
    """What subprocess.run uses, too."""

    def __init__(self, args, *rest, **options):
        self._call = call_of(args, options.get("cwd"))
        self._before = self._call.files() if self._call else {}
        self._given = self._call.given() if self._call else None
        super().__init__(args, *rest, **options)

    def communicate(self, *arguments, **options):
        output = super().communicate(*arguments, **options)
        if self._call:
            told = output[1] or ""
            told = told.decode("utf-8", "replace") if isinstance(told, bytes) else told
            keep(self._call, self._before, self._given, self.returncode, told)
            self._call = None
        return output


if FOLDER:
    Path(FOLDER).mkdir(parents=True, exist_ok=True)
    subprocess.Popen = KeepingPopen
