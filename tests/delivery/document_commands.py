"""The commands that documents show: finds them, runs them in order and tells what they print.

A block fenced as "console" is a session: "$ " begins a command of the reader's own machine, "# " one
in the shell of the simulated device that the last "$ " command has opened, "> " goes on with the
command above. Everything else is what the commands print, on both streams.

All "console" blocks of a document are one session, in a folder of its own. Run this file with the
folder of the built programs and a document to see what the commands print now.
"""

import os
import re
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

TIME_LIMIT_SECONDS = 300
FENCE = "```"
MARK = "\x01{}\x01\n"
DEVICE_END = "END-OF-THE-DEVICE-SESSION"


@dataclass
class Block:
    """A fenced or an indented block: its language ("indented" for the latter) and its lines."""

    line: int
    language: str
    lines: list[str] = field(default_factory=list)


@dataclass
class Command:
    """A command, where it runs, and what the document says that it prints."""

    line: int
    prompt: str
    text: str
    shown: list[str] = field(default_factory=list)


def blocks_of(text: str) -> list[Block]:
    """All code blocks. Indented ones begin behind an empty line; lists are not looked into."""
    found: list[Block] = []
    fenced = indented = None
    before = ""
    for number, line in enumerate(text.splitlines(), 1):
        if fenced is None and line.startswith(FENCE):
            fenced = Block(number, line.removeprefix(FENCE).strip())
            found.append(fenced)
        elif line == FENCE:
            fenced = None
        elif fenced is not None:
            fenced.lines.append(line)
        elif line.startswith("    ") and (indented is not None or not before.strip()):
            if indented is None:
                indented = Block(number, "indented")
                found.append(indented)
            indented.lines.append(line[4:])
            before = line
            continue
        indented = None
        before = line
    return found


def commands_of(block: Block) -> Iterator[Command]:
    """The commands of a "console" block."""
    command = None
    for number, line in enumerate(block.lines, block.line + 1):
        if line[:2] in ("$ ", "# "):
            if command is not None:
                yield command
            command = Command(number, line[0], line[2:])
        elif command is None:
            raise ValueError(f"line {number}: output without a command")
        elif line[:2] in ("> ", ">") and not command.shown:
            command.text += "\n" + line[2:]
        else:
            command.shown.append(line.rstrip())
    if command is not None:
        yield command


def numbered(text: str, number: int) -> str:
    """The command, followed by a mark in its output; what it leaves in $? stays."""
    mark = MARK.format(number).replace("\x01", "\\001").replace("\n", "\\n")
    return f"{text}\nstatus__=$?; printf '{mark}'; (exit $status__)\n"


def script_of(commands: list[Command]) -> str:
    """One script of all commands; those of a device are the input of the command that opens it."""
    parts = ["exec 2>&1\n"]
    at = 0
    while at < len(commands):
        opener = commands[at]
        if opener.prompt != "$":
            raise ValueError(f"line {opener.line}: no command has opened a device")
        inside = at + 1
        while inside < len(commands) and commands[inside].prompt == "#":
            inside += 1
        text = opener.text
        if inside > at + 1:
            session = "".join(numbered(commands[i].text, i) for i in range(at + 1, inside))
            opened = MARK.format(at).replace("\x01", "\\001").replace("\n", "\\n")
            text += f" <<'{DEVICE_END}'\nexec 2>&1\nprintf '{opened}'\n{session}{DEVICE_END}"
            parts.append(text + "\n")
        else:
            parts.append(numbered(text, at))
        at = inside
    return "".join(parts)


@dataclass
class Places:
    """Where things stand that the documents name by their installed places."""

    programs: Path
    source: Path
    scratch: Path
    way: str | None = None

    def prepare(self) -> dict[str, str]:
        """Makes the folders of a session; gives what stands in for which words of a command."""
        kit, path = self.scratch / "kit", self.scratch / "path"
        for folder in (kit, path, self.home):
            folder.mkdir(parents=True)
        way = f" --way {self.way}" if self.way else ""
        (kit / "device").write_text(f'#!/bin/sh\nexec {self.programs}/device{way} "$@"\n')
        (kit / "device").chmod(0o755)
        (path / "corvik").symlink_to(self.programs / "corvik")
        samples = self.source / "samples"
        return {
            "./dev device": f"{kit}/device --registry {samples}/standard.xml "
                            f"--sessions {samples}/tavrin",
            "/usr/lib/corvik-dev-kit/bin/device": str(kit / "device"),
            "/usr/lib/corvik-dev-kit/bin": str(self.programs),
            "/usr/share/corvik-dev-kit/samples": str(samples),
            "/usr/share/corvik/schema": str(self.source / "packaging/schema"),
        }

    @property
    def home(self) -> Path:
        return self.scratch / "home"

    def environment(self) -> dict[str, str]:
        # Git knows nobody, as on a new machine, also where it could guess from the host's name.
        nobody = {"GIT_CONFIG_NOSYSTEM": "1", "GIT_CONFIG_COUNT": "1",
                  "GIT_CONFIG_KEY_0": "user.useConfigOnly", "GIT_CONFIG_VALUE_0": "true"}
        system = "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin"
        return {"PATH": f"{self.scratch / 'path'}:{system}", "HOME": str(self.home),
                "LC_ALL": "C.UTF-8", "TZ": "UTC", **nobody}


def run(commands: list[Command], places: Places) -> list[list[str]]:
    """What each command prints, in lines without blanks at their ends."""
    stand_ins = places.prepare()
    script = script_of(commands)
    for words, other in stand_ins.items():
        script = script.replace(words, other)
    file = places.scratch / "session.sh"
    file.write_text(script)
    done = subprocess.run(["bash", "--noprofile", "--norc", str(file)], cwd=places.home,
                          env=places.environment(), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                          timeout=TIME_LIMIT_SECONDS)
    text = done.stdout.decode("utf-8", "replace")
    for words, other in stand_ins.items():
        text = text.replace(other, words)
    printed = []
    for number in range(len(commands)):
        answer, found, text = text.partition(MARK.format(number))
        printed.append([line.rstrip() for line in answer.splitlines()])
        if not found:
            printed[-1].append("(the session ended here)")
            break
    return printed


def main() -> None:
    source = Path(__file__).resolve().parent.parent.parent
    programs, document = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
    commands = [command for block in blocks_of(document.read_text())
                if block.language == "console" for command in commands_of(block)]
    with tempfile.TemporaryDirectory(dir=programs.parent) as scratch:
        places = Places(programs, source, Path(scratch), os.environ.get("CORVIK_DEVICE_WAY"))
        for command, lines in zip(commands, run(commands, places)):
            same = "" if lines == command.shown else f"   <-- line {command.line}"
            print(re.sub(r"^", "> ", command.text, flags=re.MULTILINE)
                  .replace(">", command.prompt, 1) + same)
            print("\n".join(lines) + "\n" * bool(lines), end="")


if __name__ == "__main__":
    main()
