"""The documents that black-box tests had the programs write, and why some of them are no XML."""

import json
import os
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

ROLES = ("connections", "export", "import", "session")
"""Whose document it is: of corvik -get, of regsh export, of corvik -set for regsh, of a session."""

NAME_START = ("A-Z_a-z\u00C0-\u00D6\u00D8-\u00F6\u00F8-\u02FF\u0370-\u037D\u037F-\u1FFF"
              "\u200C\u200D\u2070-\u218F\u2C00-\u2FEF\u3001-\uD7FF\uF900-\uFDCF\uFDF0-\uFFFD"
              "\U00010000-\U000EFFFF")
NAME = re.compile(f"[{NAME_START}][-.0-9\u00B7\u0300-\u036F\u203F\u2040{NAME_START}]*")
NO_CHARACTER = re.compile("[^\t\n\r\u0020-\uD7FF\uE000-\uFFFD\U00010000-\U0010FFFF]")
TWO_SESSIONS = re.compile(rb"<Connection[^>]* TavrinName=[^>]* TavrinName=")

NO_NAME = "the connection type is no XML name"
NO_UTF_8 = "a value from the registry is no UTF-8"
NO_XML_CHARACTER = "a value from the registry holds a character that XML does not have"
TWICE = "a connection of the registry has two labels or two session files"


def why_no_xml(data, typed=None):
    """The reason that lets a program write a file that is no XML; None where it has to be XML.

    It is told from what went in, never from a parser's complaint. docs/file-format.md lists
    the same.
    """
    if typed is not None and not NAME.fullmatch(typed):
        return NO_NAME
    try:
        text = data.decode()
    except UnicodeDecodeError:
        return NO_UTF_8
    if NO_CHARACTER.search(text):
        return NO_XML_CHARACTER
    return TWICE if TWO_SESSIONS.search(data) else None


class Document:
    """A kept document and one of the occasions when it was written."""

    def __init__(self, folder, line):
        self.path = folder / line["file"]
        self.data = self.path.read_bytes()
        self.words = line["words"]
        self.role = line["role"]
        self.scripted = line["scripted"]
        self.given = folder / line["given"] if line["given"] else None
        self.test = line["test"]

    def __repr__(self):
        return f"{self.test}: {self.path}"

    @property
    def typed(self):
        """The type that names the root element; None where none does or a shell had the command."""
        is_tools = self.role == "connections" and os.path.basename(self.words[0]) == "corvik"
        return self.words[2] if is_tools else None

    @property
    def excuse(self):
        return why_no_xml(self.data, self.typed)


def paths_of(documents):
    return sorted({document.path for document in documents})


# A part of the black-box tests, for where nothing has been kept.
PART = ("test_export.py", "test_export_samples.py", "test_terminal_sessions.py",
        "test_import_registry.py", "test_session_files.py")


def write_a_part(folder):
    """Runs these tests; gives the folder of what they had written."""
    tests = [ROOT / "tests/blackbox" / name for name in PART]
    environment = {**os.environ, "CORVIK_KEEP_DOCUMENTS": str(folder / "documents"),
                   "PYTHONPATH": str(ROOT / "tests/support"), "PYTHONDONTWRITEBYTECODE": "1"}
    done = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "keep_documents", "-p", "no:cacheprovider",
         "--rootdir", ROOT, "--basetemp", folder / "run", *tests],
        env=environment, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout
    return folder / "documents"


def read(folder):
    """The documents of a folder by role, each content once."""
    lines = [json.loads(line) for line in (folder / "index").read_text().splitlines()]
    # The same bytes may come of several command lines; an exemption holds for one of them only.
    once = {(line["role"], line["file"], line["scripted"], *line["words"]): line for line in lines}
    by_role = {role: [] for role in ROLES}
    for line in once.values():
        by_role[line["role"]].append(Document(folder, line))
    return by_role
