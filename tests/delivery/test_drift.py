"""The check against drift: silent on the tree as it is, and not on any of many trees with one change.

Each change is made in a copy of the tree. Every line that the check prints must be about it.
"""

import re
import shutil
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

COMPARED = ["main", "connections", "platform", "common", "packaging", "docs", "tools/regsh",
            "tools/device", "README.md"]
TIME_LIMIT_SECONDS = 60
# A document that tells a message, or a word of the registry, again.
RETOLD = re.compile(r"docs/(administrators\.md:\d+: the message .* is not in the code$"
                    r"|registry\.md: .* (is missing|is not told|is not in the code)$)")

PAGE = "packaging/man/corvik.1"
CLIENT_PAGE = "packaging/man/regsh.1"
CONN = "connections/conn.cpp"
COMMAND_LINE = "main/command_line.cpp"
BASH = "packaging/completions/corvik.bash.in"
ZSH = "packaging/completions/_corvik.in"
FISH = "packaging/completions/corvik.fish.in"
SHARED = "packaging/completions/device_types.sh.in"
ADMINISTRATORS = "docs/administrators.md"
REGISTRY = "docs/registry.md"


@dataclass(frozen=True)
class Change:
    """Replaces a text of a file; what the check says of it, a part of each line."""
    name: str
    path: str
    old: str
    new: str
    said: tuple[str, ...]
    count: int = -1  # how often; -1: everywhere


@dataclass(frozen=True)
class Document:
    """A document of the test's own, and what the check says of it."""
    name: str
    path: str
    text: str
    said: tuple[str, ...]


MESSAGES = [
    Change("in the code alone", CONN, "Could not find KSSFile. ", "Could not find the KSSFile. ",
           ('"Could not find the KSSFile." is not in DIAGNOSTICS',
            '"Could not find KSSFile." of DIAGNOSTICS is not in the code')),
    Change("in the page alone", PAGE, "Could not find KSSFile.", "Could not find a KSSFile.",
           ('"Could not find KSSFile." is not in DIAGNOSTICS',
            '"Could not find a KSSFile." of DIAGNOSTICS is not in the code')),
    Change("at one of two places", CONN, 'print_message("Parse xml failed.\\n");',
           'print_message("Parse failed.\\n");',
           ('"Parse failed." is not in DIAGNOSTICS',), 1),
    Change("a number instead of a name", CONN, "read file %s fail", "read file %s, %d fail",
           ('"read file {}, {} fail" is not in', '"read file {} fail" of DIAGNOSTICS')),
    Change("new, printed", "main/program.cpp", "    close_log(result);\n    return",
           '    std::fprintf(stderr, "Ended with %d\\n", result);\n    close_log(result);\n    return',
           ('the message "Ended with {}" is not in DIAGNOSTICS',)),
    Change("new, by way of a variable", "main/program.cpp", "    close_log(result);\n    return",
           '    const char* const word = "All done";\n    std::puts(word);\n'
           "    close_log(result);\n    return", ('"All done" is not in DIAGNOSTICS',)),
    Change("new, one of two", "main/program.cpp", "    close_log(result);\n    return",
           '    std::puts(result == 0 ? "All done" : "All gone");\n    close_log(result);\n    return',
           ('"All done" is not in DIAGNOSTICS', '"All gone" is not in DIAGNOSTICS')),
    Change("new, behind a function of another name", CONN, "    return added;\n",
           '    complain("Nothing added");\n    return added;\n',
           ('the literal "Nothing added" is neither a message',)),
    Change("new, in the value of a constant", CONN, "    return added;\n",
           '    const std::string word = warned("Nothing added");\n    command_status(word);\n'
           "    return added;\n", ('the literal "Nothing added" is neither a message',)),
    Change("new, into a stream", "main/program.cpp", "    close_log(result);\n    return",
           '    std::cerr << "All done\\n";\n    close_log(result);\n    return',
           ('the literal "All done\\n" is neither',)),
    Change("new, from a table", "main/program.cpp", "int run_get() {",
           'constexpr Text kTexts[] = {{1, "One"}, {2, "Two words"}};\n\nint run_get() {',
           ('the literal "One" is neither', 'the literal "Two words" is neither')),
    Change("new, from a macro", "main/program.cpp", "namespace {",
           '#define TEXT "All done"\nnamespace {',
           ('the literal "All done" is neither',)),
    Change("new, put together", CONN, "    return added;\n",
           '    tell(("Added " + type).c_str());\n    return added;\n',
           ('the literal "Added " is neither',)),
    Change("new, that looks like a path", CONN, "    return added;\n",
           '    show(stderr, "a/b c");\n    std::fputs(pick("/etc/imageid"), stderr);\n'
           "    return added;\n",
           ('the literal "a/b c" is neither', 'the literal "/etc/imageid" is neither')),
    Change("no longer in the code", CONN, '        print_message("Failed to get the root element.\\n");\n', "",
           ('"Failed to get the root element." of DIAGNOSTICS is not in the code',)),
    Change("no longer in the page", PAGE, '.It Sy "popen() failure.\\&"\n', "",
           ('"popen() failure." is not in DIAGNOSTICS',)),
    Change("twice in the page", PAGE, '.It Sy "ReadValue"', '.It Sy "ReadValue"\n.It Sy "ReadValue"',
           ('has "ReadValue" more than once',)),
    Change("a constant", CONN, "<General> element.", "<General>.",
           ('"Could not find <General>." is not in', '"Could not find <General> element." of')),
    Change("of an exception", "common/string_tokens.cpp", "of more than 1 GiB", "over 1 GiB",
           ('"a byte buffer over 1 GiB" is not in', '"a byte buffer of more than 1 GiB" of')),
    Change("of an exception, put together", "common/tinyxml_parse.cpp", "Invalid file name:",
           "No such file:", ('"No such file:{}" is not in', '"corvik: Invalid file name:{}" of')),
    Change("of the parser", "common/tinyxml_parse.cpp", "Comment error", "comment error",
           ('"comment error" is not in', '"Comment error" of DIAGNOSTICS')),
    Change("new exception", CONN, "    return added;\n",
           '    if (!added) {\n        throw std::runtime_error("no connection");\n    }\n'
           "    return added;\n",
           ('the message "no connection" is not in DIAGNOSTICS',)),
    Change("of the last word", "main/last_word.cpp", "out of memory", "no memory",
           ('"corvik: no memory" is not in', '"corvik: out of memory" of')),
    Change("behind the last word", "main/last_word.cpp", " (neither /etc", " (neither of /etc",
           ('"Invalid Image ID" is not in', '"corvik: Invalid Image ID (neither /etc')),
    Change("ahead of the last word", "main/last_word.cpp", '"corvik: "', '"quorvel: "',
           ('is not in DIAGNOSTICS', '"corvik: ')),
    Change("of assertions", "common/argument_check.cpp", "failed.", "does not hold.",
           ("does not hold.\" is not in", "failed.\" of DIAGNOSTICS")),
    Change("on the other stream", "main/program.cpp", 'print_message("Failed', 'std::printf("Failed',
           ('"Failed to open corvik logger file." goes to stdout',)),
    Change("an exemption without a literal", CONN, '"New " + type', "type",
           ('SINGLE lists "New "',)),
]

COMMAND_LINES = [
    Change("usage in the code alone", COMMAND_LINE, "Remove the existent", "Remove all existent",
           ("has a line that the tool has not", "lacks a line of the tool")),
    Change("usage in the page alone", PAGE, '      "-r": Remove the existent', '      "-r": Remove all',
           ("has a line that the tool has not", "lacks a line of the tool")),
    Change("option of the parser alone", COMMAND_LINE, '    {"p", &RunOptions::password},',
           '    {"p", &RunOptions::password},\n    {"x", &RunOptions::password},',
           ("command_line.cpp (usage): -get lacks the option -x",
            "command_line.cpp (usage): -set lacks the option -x",
            "corvik.1 (SYNOPSIS): -get lacks the option -x",
            "corvik.1 (SYNOPSIS): -set lacks the option -x",
            "corvik.1 (Options): option -x of the parser is missing",
            "corvik.bash.in: (options) -x of the parser", "corvik.bash.in: (letters) -x",
            "corvik.bash.in: (options with a value) -x", "_corvik.in: (options) -x",
            "_corvik.in: (letters) -x", "_corvik.in: (options with a value) -x",
            "corvik.fish.in: (options) -x", "corvik.fish.in: (letters) -x",
            "corvik.fish.in: (options with a value) -x",
            "README.md (synopsis): -get lacks the option -x",
            "README.md (synopsis): -set lacks the option -x")),
    Change("mode of the parser alone", COMMAND_LINE, '    {"v", RunMode',
           '    {"list", RunMode::kList, false},\n    {"v", RunMode',
           ("command_line.cpp (usage): mode -list", "(SYNOPSIS): mode -list",
            "(Options): option -list", "corvik.bash.in: (modes) -list", "_corvik.in: (modes) -list",
            "corvik.fish.in: (modes) -list", "README.md (synopsis): mode -list")),
    Change("option of the usage alone", COMMAND_LINE, "[-p <pwd>] [-r]", "[-p <pwd>] [-r] [-x]",
           ("(usage): -set has the option -x, which is not in the parser",
            "has a line that the tool has not", "lacks a line of the tool")),
    Change("option of the page alone", PAGE, ".It Fl r\n", ".It Fl x Ar number\nMore.\n.It Fl r\n",
           ("(Options): option -x is not in the parser", ": -x is not in the parser")),
    Change("option of the synopsis alone", PAGE, ".Op Fl u Ar user\n", ".Op Fl u Ar user\n.Op Fl x\n",
           ("(SYNOPSIS): -get has the option -x", ": -x is not in the parser"), 1),
    Change("option no longer in the synopsis", PAGE, ".Op Fl p Ar password\n", "",
           ("(SYNOPSIS): -get lacks the option -p",), 1),
    Change("option in brackets", PAGE, "\n.Fl f Ar file\n", "\n.Op Fl f Ar file\n",
           ("only -f is not in brackets, see -f",)),
    Change("value in the page", PAGE, ".It Fl u Ar user\n", ".It Fl u\n",
           ("the parser sees the value of -u in another way",)),
    Change("another page", "packaging/man/corvik-connections.5", ".Fl get", ".Fl fetch",
           ("corvik-connections.5:", "-fetch is not in the parser")),
    Change("option of bash alone", BASH, 'left=" -f -u -p "', 'left=" -f -u -p -x "',
           ("corvik.bash.in: (options) -x is not in the parser",)),
    Change("option of zsh alone", ZSH, "-p 'password')", "-p 'password' -x 'number')",
           ("_corvik.in: (options) -x is not in the parser",)),
    Change("option no longer in fish", FISH, " 'p:Password'", "",
           ("corvik.fish.in: (options) -p of the parser is missing",)),
    Change("letters of fish alone", FISH, "[fupr]", "[fup]",
           ("corvik.fish.in: (letters) -r of the parser is missing",)),
    Change("mode of fish alone", FISH, "-a '-v'", "-a '-version'",
           ("(modes) -v of the parser is missing", "(modes) -version is not in the parser")),
    Change("mode of bash alone", BASH, "_corvik_offer -get -set -v -h", "_corvik_offer -get -set -v",
           ("corvik.bash.in: (modes) -h of the parser is missing",)),
    Change("form of a completion", ZSH, "local -A purposes=(", "local -A meaning=(",
           ("_corvik.in: the options are not found",)),
    Change("option no longer in the synopsis of the readme", "README.md", " [-r]", "",
           ("README.md (synopsis): -set lacks the option -r",)),
    Change("command line of a document", "docs/design.md", "corvik -set TYPE -f FILE [-r]",
           "corvik -set TYPE -f FILE [-q]", ("docs/design.md:", "-q is not in the parser")),
    Document("mode of a document", ADMINISTRATORS, "Use `corvik -put RDP -f x` or `-fetch`.\n",
             ("administrators.md:1: -put is not in the parser",
              "administrators.md:1: -fetch is not in the parser")),
]

NUMBERS = [
    Change("result of the code alone", "common/result_codes.h", "    kSuccess = 0,",
           "    kNew = 77,\n    kSuccess = 0,",
           ("corvik.1 (EXIT STATUS): 77 (kNew) is missing", "README.md:",
            "(table of results): 77 (kNew) is missing")),
    Change("result no longer in the page", PAGE, ".It 23\n", ".It 24\n",
           ("23 (kImportUnwritable) is missing", "24 is no result or status")),
    Change("result below zero", PAGE, "255 Pq result \\-1", "255 Pq result \\-2",
           ("result -2 is not in",)),
    Change("result told by the page", PAGE, "Result 23.", "Result 33.", ("result 33 is not in",)),
    Change("result of a drawing", "docs/design.md", "result 50", "result 51",
           ("docs/design.md:", "result 51 is not in")),
    Change("status of the device", "packaging/man/device.1", ".It 65\n", ".It 95\n",
           ("device.1 (EXIT STATUS): 65 (bad_input) is missing", "95 is no result")),
    Change("status of the client", "tools/regsh/commands.h", "usage = 2,", "usage = 3,",
           ("regsh.1 (EXIT STATUS): 3 (usage) is missing", "2 is no result")),
    Document("table of a document", ADMINISTRATORS,
             "| Code | Meaning |\n|---|---|\n| 0 | done |\n| `1` | no |\n| 2 | no |\n| 11 | no |\n"
             "| 12 | no |\n| 20 | no |\n| 23 | no |\n| 50 | no |\n| 53 | no |\n| 134 | no |\n"
             "| 255 (\N{MINUS SIGN}1) | no |\n| many | no |\n",
             ("52 (kDocumentUnusable) is missing", "53 is no result", '"many" of the table')),
    Document("result of a document", ADMINISTRATORS, "Ends with result 99, and\n`rc=98`.\n",
             ("administrators.md:1: result 99 is not in", "administrators.md:2: result 98 is not in")),
    Document("message of a document", ADMINISTRATORS,
             "| Message | Why |\n|---|---|\n| `Failed to parse FILE` | x |\n| `All is lost` | y |\n",
             ('the message "All is lost" is not in the code',)),
]

DEVICE = [
    Change("file of the code alone", CONN, '"/tmp/import.xml"', '"/tmp/imported.xml"',
           ("the file /tmp/imported.xml is not in FILES", "the file /tmp/import.xml of FILES")),
    Change("file of the page alone", PAGE, ".It Pa /etc/imageid", ".It Pa /etc/image-id",
           ("the file /etc/imageid is not in FILES", "the file /etc/image-id of FILES")),
    Change("file put together", CONN, '"/tmp/" + type', '"/var/tmp/" + type',
           ("the file /var/tmp/{}.xml is not in FILES", "the file /tmp/{}.xml of FILES")),
    Change("name of the log", "main/program.cpp", '"corvik.log"', '"run.log"',
           ("the file run.log is not in FILES", "the file corvik.log of FILES")),
    Change("word of the log", "main/program.cpp", "rc=%d", "result=%d",
           ('the log has "result="', 'the code writes no "rc="')),
    Change("ending", CONN, '".ws"', '".wss"', ("files end in .wss", "no file of the code ends in .ws")),
    Change("entry of the registry", CONN, "root/background/desktop/theme", "root/desktop/theme",
           ("the registry entry root/desktop/theme is not in FILES",
            "the registry entry root/background/desktop/theme of FILES")),
    Change("key of the registry", CONN, "/hasDesktopIcon", "/showsIcon",
           ("the registry key showsIcon is not in FILES", "the registry key hasDesktopIcon of FILES")),
    Change("verb of the code", CONN, "regsh create", "regsh touch",
           ("the verb touch is used and not in packaging/man/regsh.1",)),
    Change("file of the other page", "packaging/man/corvik-connections.5",
           ".It Pa /etc/tavrin/connections/", ".It Pa /etc/tavrin/sessions/",
           ("the file /etc/tavrin/sessions/ of FILES",)),
    Change("program of the code alone", CONN, "rm -f %s;regsh", "mkdir -p %s;regsh",
           ("(ENVIRONMENT): program mkdir of",), 1),
    Change("program of the page alone", PAGE, ".Sy cut\nwhere", ".Sy cp\nwhere",
           ("(ENVIRONMENT): program cp is not in", "(ENVIRONMENT): program cut of")),
    Change("program that no command starts", "platform/spawned_command.cpp",
           '2> kPrograms = {"regsh", "rm"}', '3> kPrograms = {"regsh", "rm", "cp"}',
           ("kPrograms has cp, which no command starts",)),
    Change("key of the description", "platform/image_id.cpp", "PRODUCT_NAME=", "PRODUCT_TITLE=",
           ("(FILES): key PRODUCT_TITLE of", "(FILES): key PRODUCT_NAME is not in",
            "device_types.sh.in: key PRODUCT_TITLE", "device_types.sh.in: key PRODUCT_NAME")),
    Change("value of the description", PAGE, ".Dq Sylvex ,", ".Dq Silvex ,",
           ("value Sylvex of", "value Silvex is not in")),
    Change("verb of the client alone", "tools/regsh/commands.cpp", '    {"diff", 0, 0, ',
           '    {"undo", 0, 0, "", "", run_diff},\n    {"diff", 0, 0, ',
           ("(Verbs): verb undo", "(SYNOPSIS): verb undo")),
    Change("verb of the page alone", CLIENT_PAGE, ".It Cm diff", ".It Cm difference",
           ("verb difference is not in", "verb diff of")),
    Document("verb of a document", ADMINISTRATORS, "Say `regsh remove PATH`.\n",
             ("administrators.md:1: the client has no verb remove",)),
    Document("document of the registry", REGISTRY,
             "| Call | What |\n|---|---|\n| `get KEY` | |\n| `set KEY VALUE` | |\n"
             "| `contains PATH` | |\n| `create PATH` | |\n| `delete PATH` | |\n"
             "| `import FILE` | |\n| `move PATH` | |\n| `export PATH FILE` | |\n\n"
             "| Path | Use |\n|---|---|\n| `root/ConnectionType/NAME` | |\n| `.../connections` | |\n"
             "| `.../IDENTIFIER/hasDesktopIcon` | |\n| `root/background/desktop/theme` | |\n"
             "| `root/ConnectionType/.toBeRefreshed` | |\n| `root/other/entry` | |\n",
             ("verb commit of the code is missing", "verb move is not in the code",
              "the registry entry root/ConnectionManager/defaultConnection, used in",
              "the registry entry root/other/entry is not in the code",
              "the registry key autostart, used in")),
    Change("type of the code alone", "platform/conn_type_map.cpp", 'PairRow{"ICA", "xen"},  PairRow',
           'PairRow{"ICA", "xen"},  PairRow{"Spice", "spice"}, PairRow',
           ("image type 8: Spice spice of", "image type 9: Spice spice of",
            "image type 10: Spice spice of", "corvik-connections.rnc: type Spice of")),
    Change("type of the schema alone", "packaging/schema/corvik-connections.rnc", "| VWorkspace | Xdmcp",
           "| VWorkspace | Xdmcp | Spice", ("corvik-connections.rnc: type Spice is not in",)),
    Change("type of the page alone", PAGE, ".It Telnet      Ta telnet ", ".It Telnet      Ta rlogin ",
           ("image type 1: Telnet telnet of", "image type 1: Telnet rlogin is not in")),
    Change("substitute of a type", "platform/conn_type_map.cpp", '"iceweasel", "firefox"',
           '"iceweasel", "mozilla"', ("substitute mozilla of", "substitute firefox is not in")),
    Change("image type of the code alone", "platform/conn_type_map.cpp", "SlotRow{9, 10, ",
           "SlotRow{9, 11, ", ("image type 11 of", "the highest image type is 11")),
    Change("image identifier of the code alone", "platform/image_id.cpp", '{"K2", 0, kHighest, 4}',
           '{"K2", 0, kHighest, 5}', ("device_types.sh.in: case K2) echo 5 of", "case K2) echo 4 is not")),
    Change("image identifier of the completions alone", SHARED, '"$number" -le 19', '"$number" -le 29',
           ("case ST)",)),
    Change("version of the code alone", "platform/image_id.cpp", "{{'3', 5}", "{{'2', 5}",
           ("case 2) 5 of", "case 3) 5 is not")),
]

UNREADABLE = [
    Change("table of the parser", COMMAND_LINE, "kModes[]", "kAllModes[]",
           ("the parser's tables are not found", "the literal ")),
    Change("section of the page", PAGE, ".Sh EXIT STATUS", ".Sh EXIT", ("no section EXIT STATUS",)),
    Change("enumeration", "common/result_codes.h", "enum ResultCode", "enum Result",
           ("the enumeration ResultCode is not found",)),
]

ALL = [pytest.param(each, id=f"{kind}: {each.name}")
       for kind, changes in (("message", MESSAGES), ("command line", COMMAND_LINES),
                             ("number", NUMBERS), ("device", DEVICE), ("unreadable", UNREADABLE))
       for each in changes]


@dataclass(frozen=True)
class Copy:
    """A copy of what is compared, and what the check says of it without a change."""
    folder: Path
    lines: frozenset[str]


@pytest.fixture(scope="session", name="original")
def fixture_original(source, tmp_path_factory):
    folder = tmp_path_factory.mktemp("original") / "tree"
    for name in COMPARED:
        if (source / name).is_dir():
            shutil.copytree(source / name, folder / name)
        else:
            shutil.copy(source / name, folder / name)
    return Copy(folder, frozenset(differences(source, "--tree", folder)))


def differences(source: Path, *arguments) -> list[str]:
    """What the check prints; its status must say the same."""
    result = subprocess.run([sys.executable, "-B", source / "tools/dev/drift.py", *arguments],
                            stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=TIME_LIMIT_SECONDS, check=False)
    assert result.stderr == ""
    lines = result.stdout.splitlines()
    assert result.returncode == (1 if lines else 0)
    return lines


def make(change: Change | Document, tree: Path) -> None:
    path = tree / change.path
    if isinstance(change, Document):
        path.write_text(change.text)
        return
    text = path.read_text()
    assert change.old in text
    path.write_text(text.replace(change.old, change.new, change.count))


def test_the_tree_does_not_drift(source):
    assert differences(source) == []


@pytest.mark.parametrize("change", ALL)
def test_a_change_is_named(change, source, original, tmp_path):
    tree = shutil.copytree(original.folder, tmp_path / "tree")
    make(change, tree)
    lines = [line for line in differences(source, "--tree", tree) if line not in original.lines]
    assert [said for said in change.said if not any(said in line for line in lines)] == []
    assert [line for line in lines
            if not any(said in line for said in change.said) and not RETOLD.match(line)] == []


def test_the_built_tool_does_not_drift(source, original, programs):
    lines = differences(source, "--tree", original.folder, "--programs", programs)
    assert set(lines) == original.lines


def test_another_usage_of_the_built_tool_is_named(source, original, tmp_path):
    stand_in = tmp_path / "corvik"
    stand_in.write_text("#!/bin/sh\necho 'The usage of Quorvel: '\n")
    stand_in.chmod(0o755)
    lines = differences(source, "--tree", original.folder, "--programs", tmp_path)
    assert set(lines) - original.lines == {
        f"{tmp_path}/corvik -h: prints another usage than main/command_line.cpp has"}


def rendered_items(page: Path) -> set[str]:
    """The heads of the lists of DIAGNOSTICS as mandoc shows them, variable parts as holes."""
    shown = subprocess.run(["mandoc", "-T", "utf8", "-O", "width=400", page], capture_output=True,
                           text=True, timeout=TIME_LIMIT_SECONDS, check=True).stdout
    part = re.search("\nD\bDI\bIA\b.*?(?=\nS\bSE\bE)", shown, re.S)[0]
    holes = re.sub("(?:_\b\\w)+", "{}", part)
    return {line.strip() for line in re.sub(".\b", "", holes).splitlines()}


def test_messages_are_read_as_the_page_shows_them(source):
    listed = subprocess.run(
        [sys.executable, "-B", "-c",
         "import drift, pathlib\n"
         f"tree = drift.Tree(pathlib.Path({str(source)!r}))\n"
         "for _, text, _ in drift.documented_messages(tree.page()): print(text)"],
        cwd=source / "tools/dev", capture_output=True, text=True, check=True).stdout.splitlines()
    assert len(listed) > 40
    assert set(listed) - rendered_items(source / PAGE) == set()
