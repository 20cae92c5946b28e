"""README.md and docs: what they show is run and compared, what they link is there, and it fits.

CORVIK_BIN_DIR names the folder of the built programs. CORVIK_DEVICE_WAY, when set, names the only
way in which devices are made. git and xmllint are needed, since the documents use them.
"""

import os
import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

import document_commands
from document_commands import Block, Command, Places, blocks_of, commands_of

TREE = Path(__file__).resolve().parent.parent.parent
README = TREE / "README.md"
DOCUMENTS = [README, *sorted((TREE / "docs").glob("*.md"))]

# Languages of blocks that show no commands.
OTHER_LANGUAGES = {"mermaid", "text", "xml"}

# Blocks of commands that are not run: document, first line, why.
NOT_RUN = [
    ("README.md", "./dev demo   # moves connections between simulated devices and shows the files",
     "they build the tool and run this very test; ./dev package runs the demonstration"),
    ("README.md", "apt install ./corvik_*.deb",
     "installs; ./dev package does it in a bare Debian"),
    ("README.md", "(umask 077 && rm -f rdp.xml && scp -q root@till1:rdp.xml rdp.xml)",
     "scp from another machine"),
    ("README.md", "for till in till2 till3 till4; do",
     "ssh to other machines; docs/administrators.md runs the same loop with devices"),
    ("docs/administrators.md", "apt install ./corvik_*_amd64.deb",
     "installs; ./dev package does it in a bare Debian"),
    ("docs/administrators.md",
     "apt install ./corvik_*_amd64.deb ./corvik-dev-kit_*_amd64.deb",
     "installs; ./dev package does it in a bare Debian"),
    ("docs/administrators.md",
     "command -v regsh && regsh contains root/ConnectionType && echo it answers",
     "asks a device's own client"),
    ("docs/administrators.md", 'on() { ssh -o BatchMode=yes "root@$1" "$2"; }',
     "ssh to other machines; a device stands in for it"),
    ("docs/administrators.md",
     "tar -c backup | gpg --encrypt --recipient ops@example.net >backup.tar.gpg",
     "needs the reader's own key"),
    ("docs/administrators.md",
     "systemd-run --wait --pipe \\",
     "needs root and a running systemd"),
    ("docs/administrators.md", "apt purge corvik-dev-kit corvik",
     "removes; ./dev package does it in a bare Debian"),
    ("docs/registry.md", "device --keep trial --client ./regsh", "wants the reader's own client"),
    ("docs/testing.md", "time CORVIK_BIN_DIR=build/release/bin /usr/bin/python3 -m pytest -q -n 2 "
     "tests/blackbox/torture", "measures for a minute what the tests run"),
    ("docs/testing.md", "CORVIK_BIN_DIR=build/release/bin /usr/bin/python3 -m pytest -q -rP tests/guard",
     "counts for half a minute what the tests run"),
    ("docs/testing.md", "CORVIK_LARGE=1 CORVIK_BIN_DIR=build/release/bin \\",
     "needs gigabytes and minutes"),
    ("docs/testing.md", "CORVIK_EXAMPLES=3000 CORVIK_BIN_DIR=build/release/bin \\",
     "searches for a minute and more"),
]

TEXT_COLUMNS, CODE_COLUMNS = 100, 80
NARROW = [README, TREE / "docs/administrators.md", TREE / "docs/registry.md"]

LINK = re.compile(r"\]\(([^()\s]+)\)")


def name_of(document: Path) -> str:
    return document.relative_to(TREE).as_posix()


def all_commands(document: Path) -> list[Command]:
    return [command for block in blocks_of(document.read_text()) if block.language == "console"
            for command in commands_of(block)]


def run_commands(commands: list[Command], scratch: Path, programs: Path) -> list[list[str]]:
    places = Places(programs, TREE, scratch, os.environ.get("CORVIK_DEVICE_WAY"))
    return document_commands.run(commands, places)


def differences(commands: list[Command], printed: list[list[str]]) -> list[str]:
    """What a reader would see that the document does not show."""
    return ["\n".join([f"line {command.line}: {command.text}", "-- shown", *command.shown,
                       "-- printed", *lines])
            for command, lines in zip(commands, printed, strict=False) if lines != command.shown]


# Commands


@pytest.mark.parametrize("document", [d for d in DOCUMENTS if all_commands(d)], ids=name_of)
def test_what_is_shown_is_what_the_commands_print(document, tmp_path, programs):
    commands = all_commands(document)
    printed = run_commands(commands, tmp_path / "session", programs)
    assert "\n\n".join(differences(commands, printed)) == ""
    assert len(printed) == len(commands)


def test_the_documents_to_be_run_have_commands():
    assert [len(all_commands(document)) > 10 for document in NARROW] == [True] * len(NARROW)


def test_a_block_is_run_or_listed_with_a_reason():
    found = {(name_of(document), block.lines[0]) for document in DOCUMENTS
             for block in blocks_of(document.read_text())
             if block.language not in OTHER_LANGUAGES | {"console"}}
    assert found == {(document, line) for document, line, _ in NOT_RUN}


def test_no_command_hides_in_a_block_that_is_not_run():
    found = [f"{name_of(document)}:{block.line}" for document in DOCUMENTS
             for block in blocks_of(document.read_text())
             if block.language != "console" and any(line[:2] in ("$ ", "# ") for line in block.lines)]
    assert found == []


def test_the_shell_of_dev_has_the_sample_that_stands_in_for_it():
    assert 'sample=(--registry "$root/samples/standard.xml" --sessions "$root/samples/tavrin")' \
        in (TREE / "dev").read_text()


# The reading and running of the documents


def test_blocks_are_found_with_line_and_language():
    text = "a\n\n```sh\nx\n```\nb\n    no block\n\n    y\n    z\n"
    assert blocks_of(text) == [Block(3, "sh", ["x"]), Block(9, "indented", ["y", "z"])]


def test_commands_are_told_from_what_they_print():
    block = Block(1, "console", ["$ a", "> b", "x ", "# c", "$ d"])
    assert list(commands_of(block)) == [Command(2, "$", "a\nb", ["x"]), Command(5, "#", "c"),
                                        Command(6, "$", "d")]


@pytest.mark.parametrize("lines", [["x", "$ a"], ["# a"]], ids=["output first", "no device"])
def test_a_block_that_cannot_be_a_session_is_refused(lines):
    with pytest.raises(ValueError):
        document_commands.script_of(list(commands_of(Block(1, "console", lines))))


def test_what_a_command_prints_is_kept_apart(tmp_path, programs):
    commands = list(commands_of(Block(1, "console", [
        "$ printf one; false", "$ echo $?; echo two >&2", "$ name=three", "$ echo $name $HOME"])))
    printed = run_commands(commands, tmp_path / "session", programs)
    assert printed == [["one"], ["1", "two"], [], [f"three {tmp_path}/session/home"]]


def test_what_differs_is_told(tmp_path, programs):
    commands = list(commands_of(Block(1, "console", ["$ echo one", "two"])))
    printed = run_commands(commands, tmp_path / "session", programs)
    assert differences(commands, printed) == ["line 2: echo one\n-- shown\ntwo\n-- printed\none"]


def test_a_session_that_ends_early_is_told(tmp_path, programs):
    commands = list(commands_of(Block(1, "console", ["$ exit 0", "$ echo two"])))
    printed = run_commands(commands, tmp_path / "session", programs)
    assert printed == [["(the session ended here)"]]


# Links


def prose(document: Path) -> str:
    """The document without code, in which nothing is a link."""
    text = re.sub(r"^```.*?^```$", "", document.read_text(), flags=re.M | re.S)
    return re.sub(r"`[^`]*`", "", text)


def anchors(document: Path) -> set[str]:
    """The names that headings get: lower case, without punctuation, blanks as hyphens."""
    text = re.sub(r"^```.*?^```$", "", document.read_text(), flags=re.M | re.S)
    headings = re.findall(r"^#+ +(.*?) *$", text, re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def is_broken(document: Path, link: str) -> bool:
    path, _, anchor = link.partition("#")
    target = (document.parent / path).resolve() if path else document
    if not target.exists():
        return True
    return bool(anchor) and (target.suffix != ".md" or anchor not in anchors(target))


def markdown_files() -> list[Path]:
    folders = [TREE / name for name in ("docs", "packaging", "samples", "tests", "tools")]
    return sorted([*TREE.glob("*.md"), *(file for folder in folders for file in folder.rglob("*.md"))])


def test_each_link_leads_somewhere():
    links = [(document, link) for document in markdown_files()
             for link in LINK.findall(prose(document)) if not re.match(r"[a-z]+:", link)]
    assert len(links) > 50
    assert [f"{name_of(document)}: {link}" for document, link in links
            if is_broken(document, link)] == []


def test_the_first_page_leads_to_every_document_and_page():
    links = {(README.parent / link.partition("#")[0]).resolve()
             for link in LINK.findall(prose(README))}
    wanted = {*DOCUMENTS[1:], *(TREE / "packaging/man").iterdir(), *TREE.glob("*.md")} - {README}
    assert {name_of(path) for path in wanted - links} == set()


# Shape


def test_the_first_page_fits_its_columns():
    wide = [f"line {number}: {len(line)}" for number, line
            in enumerate(README.read_text().splitlines(), 1) if len(line) > TEXT_COLUMNS]
    assert wide == []


@pytest.mark.parametrize("document", NARROW, ids=name_of)
def test_code_fits_a_terminal(document):
    wide = [f"line {block.line + at}: {len(line)}" for block in blocks_of(document.read_text())
            for at, line in enumerate(block.lines, 1) if len(line) > CODE_COLUMNS]
    assert wide == []


@pytest.mark.parametrize("document", DOCUMENTS, ids=name_of)
def test_fences_are_closed(document):
    lines = document.read_text().splitlines()
    assert sum(line.startswith("```") for line in lines) % 2 == 0


def test_the_picture_can_be_read_and_read_out():
    root = ElementTree.parse(TREE / "docs/roads.svg").getroot()
    svg = "{http://www.w3.org/2000/svg}"
    assert root.tag == f"{svg}svg"
    assert all(root.findtext(f"{svg}{name}") for name in ("title", "desc"))
    texts = " ".join("".join(text.itertext()) for text in root.iter(f"{svg}text"))
    assert all(word in texts for word in ("corvik -get", "corvik -set", "/tmp/", "regsh"))
    outside = [value for element in root.iter() for name, value in element.attrib.items()
               if name.endswith("href") or "url(" in value and "url(#" not in value]
    assert outside == []
    assert re.search(r"!\[[^]]{100,}\]\(docs/roads\.svg\)", README.read_text())
