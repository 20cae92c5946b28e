"""Keeps every document that the programs write while tests run: pytest -p keep_documents.

CORVIK_KEEP_DOCUMENTS names the folder. Each content is kept once, under a name made from it; the file
"index" there has a line of JSON for each time it was written, with the test and what is known of the
writer. Tests see nothing of it: the folders are looked at before and after each process, so that also
a document is kept that the same test writes over or removes.
"""

import hashlib
import json
import os
import subprocess
from dataclasses import dataclass
from pathlib import Path

FOLDER = os.environ.get("CORVIK_KEEP_DOCUMENTS")

CONNECTIONS = "connections"  # written by corvik -get
EXPORT = "export"  # written by regsh export
IMPORT = "import"  # written by corvik -set for regsh import
SESSION = "session"  # written by corvik -set for the terminal emulator

SESSIONS = Path("etc/tavrin/connections")


@dataclass
class Call:
    """A command line as it reaches the programs, and the folders it may write into."""

    words: list
    home: Path
    tmp: Path | None = None
    sessions: Path | None = None
    scripted_client: bool = False

    @property
    def program(self):
        return os.path.basename(self.words[0])

    @property
    def verb(self):
        return self.words[1].lower() if len(self.words) > 1 else ""

    def named_files(self):
        """Files that the command line names, as the host sees them."""
        files = []
        for word in self.words[2:]:
            if word.startswith("/tmp/") and self.tmp is not None:
                files.append(self.tmp / word.removeprefix("/tmp/"))
            # On a device that lies below /tmp itself, a name can be meant from outside.
            files.append(self.home / word)
        return files

    def files(self):
        folders = [self.home, self.tmp] if self.tmp else []
        listed = [path for folder in folders if folder.is_dir() for path in folder.iterdir()]
        listed += self.sessions.rglob("*") if self.sessions and self.sessions.is_dir() else []
        return {path: state for path in [*listed, *self.named_files()]
                if path.name != "corvik.log" and (state := state_of(path))}


def state_of(path):
    """What changes when a regular file is written; None for anything else."""
    try:
        status = os.lstat(path)
    except (OSError, ValueError):
        return None
    is_file = status.st_mode & 0o170000 == 0o100000
    return (status.st_ino, status.st_mtime_ns, status.st_size) if is_file else None


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
    return Call(words[end + 1:], device / "home", device / "tmp", device / SESSIONS,
                "--client" in words[:end])


def role_of(call, path, status):
    """Whose document the file is; None where it is nobody's or may be cut off."""
    below_tmp = call.tmp is not None and path.parent == call.tmp
    if call.program == "corvik" and below_tmp and path.name == "import.xml":
        return IMPORT if status == 0 else None
    if call.program == "corvik" and below_tmp:
        # What the client had exported when the run failed.
        return None if call.scripted_client else EXPORT
    if call.sessions in path.parents:
        return SESSION if (call.program, call.verb, status) == ("corvik", "-set", 0) else None
    if call.program == "corvik":
        return CONNECTIONS if call.verb == "-get" and status == 0 else None
    if call.program == "regsh":
        return EXPORT if call.verb == "export" and status == 0 else None
    if below_tmp or status != 0:
        return None
    start = path.read_bytes()[:5]
    return EXPORT if start == b"<?xml" else CONNECTIONS if start[:1] == b"<" else None


def put(data):
    name = hashlib.sha256(data).hexdigest()[:32] + ".xml"
    path = Path(FOLDER) / name
    if not path.exists():
        part = path.with_suffix(f".{os.getpid()}")
        part.write_bytes(data)
        part.rename(path)
    return name


def given_file(call):
    """What an import was given, kept; None where that cannot be told."""
    if call.verb != "-set" or "-f" not in call.words:
        return None
    path = call.home / call.words[call.words.index("-f") + 1]
    return put(path.read_bytes()) if path.is_file() else None


def keep(call, before, status):
    for path, state in call.files().items():
        role = role_of(call, path, status) if state != before.get(path) else None
        if role is None:
            continue
        line = {"role": role, "file": put(path.read_bytes()), "words": call.words[:3],
                "scripted": call.scripted_client, "test": os.environ.get("PYTEST_CURRENT_TEST", ""),
                "given": given_file(call) if role in (IMPORT, SESSION) else None}
        with open(Path(FOLDER) / "index", "ab") as index:
            index.write(json.dumps(line).encode() + b"\n")


class KeepingPopen(subprocess.Popen):
    """What subprocess.run uses, too."""

    def __init__(self, args, *rest, **options):
        self._call = call_of(args, options.get("cwd"))
        self._before = self._call.files() if self._call else {}
        super().__init__(args, *rest, **options)

    def communicate(self, *arguments, **options):
        output = super().communicate(*arguments, **options)
        if self._call:
            keep(self._call, self._before, self.returncode)
            self._call = None
        return output


if FOLDER:
    Path(FOLDER).mkdir(parents=True, exist_ok=True)
    subprocess.Popen = KeepingPopen
