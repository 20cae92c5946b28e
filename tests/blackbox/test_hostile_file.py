"""What comes out of a file or out of the registry stays data, whatever characters it has.

Each value reaches the client as one argument with exactly its bytes, starts no second command and
leaves no file behind: `Left` compares the command lines, the arguments and every file.
"""

import re

import pytest

from import_run import (DEFAULT, EXPORT_UNPARSED, GET_DEFAULT, GET_THEME, NO_GENERAL, RESET_DEFAULT,
                        THEME, WALK_OVER, ImportCase, Left, calls_of, classic, conn,
                        connections_file, connections_path, defaulted, entry, export, imported, key,
                        looked_up, merged, newer, refreshed, removed)

PATH = connections_path("freerdp")

# Words without blanks: what a listing and an answer of the client can give.
WORDS = {
    "semicolon": ";>/tmp/owned;", "ampersand": "&>/tmp/owned&", "pipe": "|tee</dev/null>owned",
    "substitution": "$(>/tmp/owned)", "backquotes": "`>/tmp/owned`", "variable": "$HOME",
    "braced-variable": "${HOME}", "arithmetic": "$((1+1))", "dollar": "$", "greater": ">owned",
    "less": "</dev/null", "parentheses": "(>owned)", "braces": "{a,b}", "single-quote": "'",
    "single-quotes": "';>owned;'", "double-quote": '"', "double-quotes": '";>owned;"',
    "both-quotes": "'\"'\"';>owned;\"'\"'", "star": "*", "question-mark": "??????",
    "brackets": "[a-z]*", "tilde": "~", "tilde-user": "~root", "hash": "#", "exclamation": "!!",
    "caret": "^a^b", "backslash": "\\", "backslash-letter": "\\n", "backslash-end": "a\\",
    "backslash-quote": "\\'", "percent": "%s%n%d", "dash": "-rf", "dashes": "--help",
    "assignment": "A=b", "comma": "a,b", "colon": "a:b", "at": "user@host", "plus": "+x",
    "dots": "..", "entity": "&#10;", "entity-name": "&amp;", "word": "abc", "digits": "0123",
    "high": "\udc80\udcff", "umlaut": "\u00fc", "emoji": "\U0001f600", "delete": "\x7f",
    "control": "\x01\x1b[31m", "backspace": "\x08", "reserved-word": "then", "underscore": "_",
}
# What the text of a document can hold beside that: every run of blanks becomes one.
BLANKS = {"blank": ("a b", "a b"), "blanks": (" a   b ", "a b"), "tab": ("a\tb", "a b"),
          "line-end": ("a\nb", "a b"), "carriage-return": ("a\r\nb", "a b"),
          "line-end-command": ("a\n>owned\n", "a >owned"), "only-blanks": (" \t\n ", ""),
          "quoted-blank": ("' '", "' '"), "form-feed": ("a\fb\vc", "a b c")}
TEXTS = {**{name: (word, word) for name, word in WORDS.items()}, **BLANKS}

each_word = pytest.mark.parametrize("word", WORDS.values(), ids=WORDS)
each_text = pytest.mark.parametrize("text, value", TEXTS.values(), ids=TEXTS)


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def in_shell(value):
    """The value as the word of a command line."""
    if re.fullmatch(r"[A-Za-z0-9_./:@%+=,-]*", value):
        return value
    return "'" + value.replace("'", "'\\''") + "'"


def exactly(calls, *expected):
    """These calls were made, one after the other, with nothing in between."""
    expected = [["regsh", *each] for each in expected]
    return any(calls[start:start + len(expected)] == expected for start in range(len(calls)))


# Out of the connections file

@each_text
def test_an_identifier_of_the_file_on_a_zero_client(case, text, value):
    document = export(conn(value, "A"), config="zero")
    file = connections_file(export(conn(text, "A")), entry("A", Default="yes"))
    left = case.set(file, zero=True)
    word = in_shell(value)
    assert left == Left(
        [*classic("freerdp", word, zero=True)[:-1], *defaulted("freerdp", word), GET_DEFAULT],
        3 * WALK_OVER, document=document)
    assert exactly(left.calls, ["set", f"{PATH}/{value}/autostart", "0"], ["commit"])
    value_word = [value] if value else []
    assert exactly(left.calls, ["set", DEFAULT, *value_word], ["set", THEME, "freerdp"])


@each_text
def test_an_identifier_of_the_file_in_the_newer_layout(case, text, value):
    file = connections_file(export(conn(text, "A")), entry("A"))
    left = case.set(file, image_type=6)
    assert left == Left(newer("freerdp", in_shell(value)), 2 * WALK_OVER + NO_GENERAL,
                        document=export(conn(value, "A")))
    value_word = [value] if value else []
    assert exactly(left.calls, ["set", DEFAULT, *value_word], ["commit", DEFAULT])


@each_text
def test_an_identifier_of_the_registrys_export(case, text, value):
    case.holds(export(conn(text, "A")))
    left = case.set(connections_file(export()), zero=True)
    assert left == Left(classic("freerdp", in_shell(value), zero=True), 3 * WALK_OVER,
                        document=export(conn(value, "A"), config="zero"))
    assert exactly(left.calls, ["set", f"{PATH}/{value}/autostart", "0"], ["commit"])


@each_text
def test_a_label(case, text, value):
    file = connections_file(export(conn("id-1", text)), entry(text, Default="yes"))
    left = case.set(file, zero=True)
    if value:
        commands = [*classic("freerdp", "id-1", zero=True)[:-1], *defaulted("freerdp", "id-1"),
                    GET_DEFAULT]
        document = export(conn("id-1", value), config="zero")
    else:  # a connection without name is ignored
        commands, document = classic("freerdp", zero=True), export(config="zero")
    assert left == Left(commands, 3 * WALK_OVER, document=document)


@each_text
def test_a_value_and_a_name_in_the_document(case, text, value):
    inner = conn("id-1", "A", *export(conn(text, text)).children)
    wanted = conn("id-1", "A", *export(conn(value, value)).children)
    left = case.set(connections_file(export(inner), entry("A")))
    assert left == Left(classic("freerdp"), 2 * WALK_OVER, document=export(wanted))


# Out of the registry

@each_word
@pytest.mark.parametrize("place", ["{}/" + "{}", "{}/x{}y", "{1}"])
def test_a_listed_path_that_is_deleted(case, word, place):
    path = place.format(PATH, word)
    case.lists("freerdp", f"dir {path}\n", times=1)
    left = case.set(connections_file(export()), remove=True)
    command = f"regsh delete {in_shell(path)}\n"
    assert left == Left([*looked_up("freerdp"), *removed("freerdp", command),
                         *classic("freerdp")[5:]], 2 * WALK_OVER, document=export(), remove=True)
    assert exactly(left.calls, ["delete", path], ["commit", PATH], ["commit"])


@pytest.mark.parametrize("end", ["", "\n"])
@each_word
def test_a_listed_default_that_is_reset(case, word, end):
    # Of a path, not of a word, the last part would be compared.
    identifier = word.replace("/", "")
    case.lists("freerdp", f"dir {PATH}/{identifier}{end}", times=1)
    case.value(DEFAULT, identifier, times=1)
    left = case.set(connections_file(export()), remove=True, zero=True)
    command = f"regsh delete {in_shell(f'{PATH}/{identifier}')}{end}"
    assert left == Left(
        [*looked_up("freerdp"), *removed("freerdp", command, *RESET_DEFAULT),
         *classic("freerdp", zero=True)[5:]], 3 * WALK_OVER,
        document=export(config="zero"), remove=True)


@each_word
def test_a_listed_path_whose_icon_is_refreshed(case, word):
    path = f"{PATH}/{word}"
    case.lists("freerdp", f"dir {path}\n")
    left = case.set(connections_file(export()))
    quoted = in_shell(path)
    assert left == Left(
        [*classic("freerdp"), f"regsh get {quoted}/hasDesktopIcon",
         f"regsh set {quoted}/hasDesktopIcon ", f"regsh commit {quoted}"],
        2 * WALK_OVER, document=export())
    assert exactly(left.calls, ["get", f"{path}/hasDesktopIcon"],
                   ["set", f"{path}/hasDesktopIcon"], ["commit", path])


@each_word
def test_the_value_of_an_icon(case, word):
    case.lists("freerdp", "a").value(f"{PATH}/a/hasDesktopIcon", word)
    left = case.set(connections_file(export()))
    assert left == Left(
        [*classic("freerdp")[:-1], *refreshed("freerdp", a=in_shell(word))],
        2 * WALK_OVER, document=export())
    assert exactly(left.calls, ["set", f"{PATH}/a/hasDesktopIcon", word], ["commit", f"{PATH}/a"])


@each_word
def test_the_default_connection(case, word):
    case.value(DEFAULT, word).value(THEME, "xen")
    left = case.set(connections_file(export()), zero=True)
    assert left == Left(
        [*classic("freerdp", zero=True), GET_THEME,
         f"regsh set root/ConnectionType/xen/connections/{in_shell(word)}/autostart 1",
         "regsh commit"], 3 * WALK_OVER, document=export(config="zero"))
    assert left.calls[-2:] == [
        ["regsh", "set", f"root/ConnectionType/xen/connections/{word}/autostart", "1"],
        ["regsh", "commit"]]


@each_word
def test_the_theme(case, word):
    case.value(DEFAULT, "id-1").value(THEME, word)
    left = case.set(connections_file(export()), zero=True)
    assert left == Left(
        [*classic("freerdp", zero=True), GET_THEME,
         f"regsh set root/ConnectionType/{in_shell(word)}/connections/id-1/autostart 1",
         "regsh commit"], 3 * WALK_OVER, document=export(config="zero"))
    assert left.calls[-2][2] == f"root/ConnectionType/{word}/connections/id-1/autostart"


# The operator's own word

def test_the_type_as_typed_is_the_operators_own_word(case):
    left = case.set(connections_file(export()), "x y")
    command = "regsh contains root/ConnectionType/x y"
    assert left.commands[4] == ("system", command)
    assert left.calls[4] == ["regsh", "contains", "root/ConnectionType/x", "y"]
    assert left.commands[-1] == ("popen", "regsh get root/ConnectionType/x y/connections")


# Size and depth

def test_a_long_identifier_is_not_cut_where_commands_are_appended(case):
    identifier = "x;" * 3000
    document = export(conn(identifier, "A"), config="zero")
    left = case.set(connections_file(document, entry("A", Default="yes")), zero=True)
    word = in_shell(identifier)
    assert left == Left(
        [*classic("freerdp", word, zero=True)[:-1], *defaulted("freerdp", word), GET_DEFAULT],
        3 * WALK_OVER, document=document)


DEEPEST = 10000  # deeper documents are refused


def nested(depth, inside=""):
    return "<a>" * depth + inside + "</a>" * depth


@pytest.mark.parametrize("depth", [1000, DEEPEST])
def test_a_file_nested_deep(case, depth):
    assert case.set(nested(depth)) == Left([*looked_up("freerdp"), *refreshed("freerdp")],
                                           NO_GENERAL)


@pytest.mark.parametrize("text", [nested(DEEPEST + 1), nested(1000000), "<a>" * 100000],
                         ids=["too-deep", "a-million", "not-closed"])
def test_a_file_nested_too_deep(case, text):
    assert case.set(text) == Left([], "Failed to parse in.xml\n", 20)


def test_an_export_nested_deep(case):
    left = case.set(connections_file(nested(DEEPEST)))
    assert left == Left([*looked_up("freerdp"), *refreshed("freerdp")],
                        "Could not find <ProfileRegistry>. \n")


@pytest.mark.parametrize("depth", [DEEPEST + 1, 1000000])
def test_an_export_nested_too_deep(case, depth):
    assert case.set(connections_file(nested(depth))) == Left(looked_up("freerdp"), status=52)


def test_a_registry_nested_too_deep(case):
    case.holds(nested(1000000))
    document = export(conn("id-1", "A"))
    left = case.set(connections_file(document, entry("A")))
    assert left == Left(
        [*looked_up("freerdp"), *merged("freerdp", done=False), *imported("freerdp"),
         *refreshed("freerdp")], WALK_OVER + EXPORT_UNPARSED, document=document,
        tmp=["freerdp.xml", "import.xml"])


SPREADING = nested(9000, "<b/>" * 20000)  # 150 KB, 360 MB when printed with its indentation


@pytest.fixture
def little_memory(programs, monkeypatch):
    """Shell commands after which a program cannot have as much as SPREADING takes to print."""
    if b"__asan_init" not in (programs / "corvik").read_bytes():
        return "ulimit -v 250000"
    monkeypatch.setenv("ASAN_OPTIONS", "allocator_may_return_null=1:max_allocation_size_mb=100")
    return ""


def without_sanitizer(left):
    """The sanitizer tells of each allocation that it refuses."""
    refused = r"==\d+==WARNING: AddressSanitizer failed to allocate .*\n"
    left.stderr = re.sub(refused, "", left.stderr)
    return left


def test_a_document_that_spreads_beyond_memory_is_not_written(case, little_memory):
    text = export(conn("id-1", "A", key("spread", "HERE"))).printed().replace("HERE", SPREADING)
    left = case.set(connections_file(text, entry("A")), before=little_memory)
    assert without_sanitizer(left) == Left(
        [*looked_up("freerdp"), *merged("freerdp")],
        2 * WALK_OVER + "Could not write /tmp/import.xml, errno=.\n", 23)


def test_a_session_that_spreads_beyond_memory_does_not_stop_the_import(case, little_memory):
    document = export(conn("id-1", "A"))
    file = connections_file(document, entry("A", KSSFile="a", children=[("KSS", "HERE")]))
    left = case.set(file.replace("HERE", SPREADING), "Tavrin", before=little_memory)
    assert without_sanitizer(left) == Left(
        classic("tavrin"), "Write file /etc/tavrin/connections/a.kss fail.\n" + 2 * WALK_OVER,
        document=document, typed="Tavrin")


@pytest.mark.parametrize("cut", range(0, 420, 7))
def test_a_file_that_is_cut_anywhere(case, cut):
    whole = connections_file(export(conn("id-1", "A")), entry("A"))
    text = whole[:len(whole) * cut // 420]
    left = case.set(text)
    message = "Failed to parse in.xml\n" if text else "Failed to get the root element.\n"
    assert left == Left([], message, 20)


def test_two_thousand_connections_over_two_thousand_others(case):
    new = [conn(f"new-{number}", f"Label {number}") for number in range(2000)]
    old = [conn(f"old-{number}", f"Label {number}") for number in range(2000)]
    case.holds(export(*old))
    entries = [entry(f"label {number}") for number in reversed(range(2000))]
    left = case.set(connections_file(export(*new), *entries))
    assert left == Left([*looked_up("freerdp"), *merged("freerdp"), *imported("freerdp"),
                         *refreshed("freerdp")], 2 * WALK_OVER, document=export(*new, *old))


def test_the_expectations_are_read_as_a_shell_reads_them(device):
    # The expected arguments come from the expected lines; a real shell has the last word.
    lines = [f"regsh set {in_shell(f'{PATH}/{word}')} {in_shell(word)}" for word in WORDS.values()]
    recorder = device.recorder()
    assert device.run("sh", "-c", "\n".join(lines)).status == 0
    assert recorder.calls == calls_of(lines)
    assert recorder.calls == [["regsh", "set", f"{PATH}/{word}", word] for word in WORDS.values()]
