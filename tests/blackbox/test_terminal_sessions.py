"""Export of the terminal emulator: its session files travel inside the connections file."""

import pytest

from registry_export import (GET_DEFAULT, NAME_TABLE_CALLS, WALK_ENDED, Outcome, connection,
                             connections_file, default_is, directory, export_call, export_of,
                             export_with, exports, file_for, key, log_of, named, outcome,
                             printed_text)

FOLDER = "/etc/tavrin/connections/"
PARSE_FAILED = "Parse xml failed.\n"
PARAM_NOT_FOUND = "Could not find NodeParam. \n"

KSS = '<?xml version="1.0"?>\n<Session  name="a &amp; b">\n  <Host port="23"/>\n</Session>\n'
KSS_TEXT = '<Session name="a &amp; b">\n  <Host port="23"/>\n</Session>\n'
WS = "<!-- window --><Workspace>  full   screen </Workspace>"
WS_TEXT = "<Workspace>full screen</Workspace>\n"


def unread(name):
    return f"read file {FOLDER}{name} fail\n"


def session(label, base, *, kss=KSS_TEXT, ws=WS_TEXT, default=False):
    """The Connection with both session files, or without the .ws file when that is None."""
    children = [("KSS", kss)] + ([("WS", ws)] if ws is not None else [])
    more = [("Default", "yes")] if default else []
    return named(label, *more, ("TavrinName", label), ("KSSFile", base), children=children)


def terminal(identifier, label, session_name):
    return connection(identifier, label, key("kssName", session_name))


@pytest.fixture
def recorder(device):
    return device.recorder()


@pytest.fixture
def get(device, recorder):
    def run(document, connection_type="Tavrin", files=None, **options):
        """Exports the document with these session files, by name, on the device."""
        for name, content in (files or {}).items():
            path = device.sessions / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content if isinstance(content, bytes) else content.encode())
        exports(recorder, document)
        return outcome(device, device.corvik("-get", connection_type, "-f", "out.xml", **options))

    return run


def exported(file, stderr="", connection_type="Tavrin"):
    return Outcome(0, stderr=WALK_ENDED + stderr, log=log_of(connection_type, "out.xml", 0),
                   file=file)


BOTH = {"abc.kss": KSS, "abc.ws": WS}


def test_the_file_byte_for_byte(get, recorder):
    document = export_of(directory("connections", terminal("id-1", "Office", "abc.kss")))
    assert get(document, files=BOTH) == exported(
        b'<Tavrin>\n'
        b'  <Connection Name="Office" Enabled="yes" TavrinName="Office" KSSFile="abc">\n'
        b'    <KSS>&lt;Session name=&quot;a &amp;amp; b&quot;&gt;\n'
        b'  &lt;Host port=&quot;23&quot;/&gt;\n'
        b'&lt;/Session&gt;\n'
        b'</KSS>\n'
        b'    <WS>&lt;Workspace&gt;full screen&lt;/Workspace&gt;\n'
        b'</WS>\n'
        b'  </Connection>\n'
        b'  <General>&lt;Profile&gt;\n'
        b'  &lt;ProfileRegistry&gt;\n'
        b'    &lt;NodeDir name=&quot;type&quot;&gt;\n'
        b'      &lt;NodeDir name=&quot;connections&quot;&gt;\n'
        b'        &lt;NodeDir name=&quot;id-1&quot;&gt;\n'
        b'          &lt;NodeKey name=&quot;label&quot;&gt;\n'
        b'            &lt;NodeParam&gt;Office&lt;/NodeParam&gt;\n'
        b'          &lt;/NodeKey&gt;\n'
        b'          &lt;NodeKey name=&quot;kssName&quot;&gt;\n'
        b'            &lt;NodeParam&gt;abc.kss&lt;/NodeParam&gt;\n'
        b'          &lt;/NodeKey&gt;\n'
        b'        &lt;/NodeDir&gt;\n'
        b'      &lt;/NodeDir&gt;\n'
        b'    &lt;/NodeDir&gt;\n'
        b'  &lt;/ProfileRegistry&gt;\n'
        b'&lt;/Profile&gt;\n'
        b'</General>\n'
        b'</Tavrin>\n')
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("tavrin")]


def one(name="abc.kss", label="Office"):
    """An export of a single terminal connection."""
    return export_with(terminal("id-1", label, name))


def test_the_registry_name_of_the_type_will_do(get):
    assert get(one(), "tavrin", files=BOTH) == exported(
        file_for("tavrin", one(), session("Office", "abc")), connection_type="tavrin")


@pytest.mark.parametrize("typed, image_type", [
    ("TAVRIN", 9), ("RDP", 9), ("Tavrin", 2), ("Tavrin", 6), ("tavrin2", 9), ("", 9)])
def test_other_types_have_no_session_files(get, recorder, typed, image_type):
    default_is(recorder, "id-1")
    assert get(one(), typed, files=BOTH, image_type=image_type) == exported(
        file_for(typed, one(), named("Office")), connection_type=typed)


@pytest.mark.parametrize("typed, image_type", [
    ("Tavrin", 1), ("Tavrin", 3), ("Tavrin", 4), ("Tavrin", 5), ("Tavrin", 7), ("Tavrin", 8),
    ("Tavrin", 10), ("tavrin", 2), ("tavrin", 6)])
def test_session_files_on_other_builds(get, recorder, typed, image_type):
    default_is(recorder, "id-1")
    assert get(one(), typed, files=BOTH, image_type=image_type) == exported(
        file_for(typed, one(), session("Office", "abc")), connection_type=typed)


NAMES = {  # value of kssName, value of KSSFile, file of the workspace
    "abc.kss": ("abc", "abc.ws"),
    "abc": ("abc", "abc.ws"),
    "abc.": ("abc", "abc.ws"),
    "abc.xml": ("abc", "abc.ws"),
    "a.b.c.kss": ("a", "a.ws"),
    ".kss": ("", ".ws"),
    ".hidden.kss": ("", ".ws"),
    "two words.kss": ("two words", "two words.ws"),
    "Größe.kss": ("Größe", "Größe.ws"),
    "it's $(x);&.kss": ("it's $(x);&", "it's $(x);&.ws"),
    "folder/abc.kss": ("folder/abc", "folder/abc.ws"),
    "folder.d/abc.kss": ("folder", "folder.ws"),
    "../abc.kss": ("", ".ws"),
    "abc.ws": ("abc", "abc.ws"),
}


@pytest.mark.parametrize("name, base, window", [(name, *rest) for name, rest in NAMES.items()],
                         ids=NAMES)
def test_the_name_of_the_session_file(get, name, base, window):
    files = {window: WS, name: KSS}
    ws = KSS_TEXT if name == window else WS_TEXT
    assert get(one(name), files=files) == exported(
        file_for("Tavrin", one(name), session("Office", base, ws=ws)))


def test_the_workspace_file_is_missing(get):
    assert get(one(), files={"abc.kss": KSS}) == exported(
        file_for("Tavrin", one(), session("Office", "abc", ws=None)), unread("abc.ws"))


def test_the_session_file_is_missing(get):
    assert get(one(), files={"abc.ws": WS}) == exported(
        file_for("Tavrin", one(), named("Office")), unread("abc.kss"))


def test_the_session_folder_is_missing(get, device):
    device.sessions.rmdir()
    assert get(one()) == exported(file_for("Tavrin", one(), named("Office")), unread("abc.kss"))


DAMAGED = {  # content, message
    "empty": ("", PARSE_FAILED),
    "cut-off": (KSS[:-4], PARSE_FAILED),
    "no-markup": ("rubbish", PARSE_FAILED),
    "banner": ("banner\n" + KSS, PARSE_FAILED),
    "byte-order-mark": ("\ufeff" + KSS, PARSE_FAILED),
    "text-behind": (KSS + "x", PARSE_FAILED),
    "null-byte": ("<Session>\0</Session>", PARSE_FAILED),
    "blanks": (" \n\t ", ""),
    "comment-only": ("<!-- nothing -->", ""),
    "declaration-only": ('<?xml version="1.0"?>', ""),
}


@pytest.mark.parametrize("content, message", DAMAGED.values(), ids=DAMAGED)
def test_a_damaged_session_file(get, content, message):
    assert get(one(), files={"abc.kss": content, "abc.ws": WS}) == exported(
        file_for("Tavrin", one(), named("Office")), message)


@pytest.mark.parametrize("content, message", DAMAGED.values(), ids=DAMAGED)
def test_a_damaged_workspace_file(get, content, message):
    assert get(one(), files={"abc.kss": KSS, "abc.ws": content}) == exported(
        file_for("Tavrin", one(), session("Office", "abc", ws=None)), message)


def test_a_folder_in_place_of_a_session_file(get, device):
    (device.sessions / "abc.kss").mkdir()
    assert get(one()) == exported(file_for("Tavrin", one(), named("Office")), PARSE_FAILED)


def test_a_session_file_of_many_blocks(get):
    text = "<Session>" + "".join(f'<Key name="F{i}">{i * "x"}</Key>' for i in range(300))
    text += "</Session>"
    assert get(one(), files={"abc.kss": text, "abc.ws": WS}) == exported(
        file_for("Tavrin", one(), session("Office", "abc", kss=printed_text(text))))


def test_null_bytes_cut_the_rest_of_a_block(get):
    # 1023 bytes are read at a time; from the NUL on the first of them are lost.
    content = ("<S><a/>" + "\0" * (1023 - 7) + "</S>").encode()
    assert get(one(), files={"abc.kss": content, "abc.ws": WS}) == exported(
        file_for("Tavrin", one(), session("Office", "abc", kss="<S>\n  <a/>\n</S>\n")))


# The keys of a connection

def with_keys(*keys):
    return export_with(directory("id-1", *keys))


LABEL, NAME = key("label", "Office"), key("kssName", "abc.kss")
BARE_LABEL, BARE_NAME = '<NodeKey name="label"/>', '<NodeKey name="kssName"/>'
NAMELESS = "<NodeKey><NodeParam>x</NodeParam></NodeKey>"
OTHER = key("host", "h")

BOTH_OF_IT = [("TavrinName", "Office"), ("KSSFile", "abc")]
FILES_OF_IT = [("KSS", KSS_TEXT), ("WS", WS_TEXT)]

KEYS = {  # the keys, the Connection, messages before and behind the end of the walk
    "label-first": ([LABEL, NAME], named("Office", *BOTH_OF_IT, children=FILES_OF_IT), "", ""),
    "name-first": ([NAME, LABEL], named("Office", *BOTH_OF_IT, children=FILES_OF_IT), "", ""),
    "others-between": ([OTHER, LABEL, OTHER, NAME, OTHER],
                       named("Office", *BOTH_OF_IT, children=FILES_OF_IT), "", ""),
    "no-label": ([NAME], named("New tavrin"), "", ""),
    "no-name": ([LABEL], named("Office"), "", ""),
    "neither": ([OTHER], named("New tavrin"), "", ""),
    "no-keys": ([], named("New tavrin"), "", ""),
    "empty-label": ([key("label", ""), NAME], named(""), "", ""),
    "label-without-param": ([BARE_LABEL, NAME], named("New tavrin"), PARAM_NOT_FOUND, ""),
    "name-without-param": ([LABEL, BARE_NAME], named("Office"), "", ""),
    "empty-name": ([LABEL, key("kssName", "")], named("Office"), "", ""),
    "empty-name-ends-the-keys": ([key("kssName", ""), LABEL, NAME], named("Office"), "", ""),
    "nameless-key-before": ([NAMELESS, LABEL, NAME], named("Office"), "", ""),
    "nameless-key-between": ([LABEL, NAMELESS, NAME], named("Office"), "", ""),
    "nameless-key-between-name-and-label": ([NAME, NAMELESS, LABEL], named("Office"), "", ""),
    "nameless-key-behind": ([LABEL, NAME, NAMELESS],
                            named("Office", *BOTH_OF_IT, children=FILES_OF_IT), "", ""),
    "key-with-empty-name": ([key("", "x"), LABEL, NAME],
                            named("Office", *BOTH_OF_IT, children=FILES_OF_IT), "", ""),
    "other-case": ([LABEL, key("kssname", "abc.kss")], named("Office"), "", ""),
    "two-labels": ([LABEL, NAME, key("label", "Home")],
                   named("Office", *BOTH_OF_IT, ("TavrinName", "Home"), ("KSSFile", "abc"),
                         children=2 * FILES_OF_IT), "", ""),
    "two-labels-before-the-name": (
        [LABEL, key("label", "Home"), NAME],
        named("Office", ("TavrinName", "Home"), ("KSSFile", "abc"), children=FILES_OF_IT), "", ""),
    "two-names": ([LABEL, NAME, key("kssName", "def.kss")],
                  named("Office", *BOTH_OF_IT, ("TavrinName", "Office"), ("KSSFile", "def"),
                        children=[*FILES_OF_IT, ("KSS", "<Def/>\n")]), "", unread("def.ws")),
    "second-name-unreadable": ([LABEL, NAME, key("kssName", "none.kss")],
                               named("Office", *BOTH_OF_IT, children=FILES_OF_IT), "",
                               unread("none.kss")),
    "unreadable-name-before-the-label": (
        [key("kssName", "none.kss"), LABEL],
        named("Office", ("TavrinName", "Office"), ("KSSFile", "none"), children=[("KSS", "")]), "",
        unread("none.kss") + unread("none.ws")),
    "unreadable-name-and-a-workspace": (
        [key("kssName", "abc.none"), LABEL],
        named("Office", *BOTH_OF_IT, children=[("KSS", ""), ("WS", WS_TEXT)]), "",
        unread("abc.none")),
    "label-lost-again": ([LABEL, BARE_LABEL, NAME], named("Office"), "", ""),
    "in-a-directory": ([LABEL, directory("deep", NAME)], named("Office"), "", ""),
}


@pytest.mark.parametrize("keys, wanted, before, behind", KEYS.values(), ids=KEYS)
def test_the_keys_of_a_connection(device, get, keys, wanted, before, behind):
    document = with_keys(*keys)
    result = get(document, files={**BOTH, "def.kss": "<Def/>"})
    assert result == Outcome(0, stderr=before + WALK_ENDED + behind,
                             log=log_of("Tavrin", "out.xml", 0),
                             file=file_for("Tavrin", document, wanted))


# Pairing by position

def test_each_connection_has_its_own_session(get):
    document = export_with(terminal("id-1", "One", "one.kss"), connection("id-2", "Two"),
                           terminal("id-3", "Three", "three.kss"))
    files = {"one.kss": "<One/>", "one.ws": "<W1/>", "three.kss": "<Three/>", "three.ws": "<W3/>"}
    assert get(document, files=files) == exported(file_for(
        "Tavrin", document, session("One", "one", kss="<One/>\n", ws="<W1/>\n"), named("Two"),
        session("Three", "three", kss="<Three/>\n", ws="<W3/>\n")))


def test_messages_come_in_the_order_of_the_connections(get):
    document = export_with(terminal("id-1", "One", "one.kss"), terminal("id-2", "Two", "two.kss"),
                           terminal("id-3", "Three", "three.kss"))
    files = {"two.kss": "<Two/>", "three.kss": "rubbish"}
    assert get(document, files=files) == exported(
        file_for("Tavrin", document, named("One"), session("Two", "two", kss="<Two/>\n", ws=None),
                 named("Three")),
        unread("one.kss") + unread("two.ws") + PARSE_FAILED)


def test_sessions_are_taken_from_the_first_directory_whatever_its_name(get):
    document = export_of(directory("defaults", terminal("x", "Default", "abc.kss")),
                         directory("connections", terminal("id-1", "Office", "other.kss")))
    assert get(document, files=BOTH) == exported(file_for("Tavrin", document, named(
        "Office", ("TavrinName", "Default"), ("KSSFile", "abc"),
        children=[("KSS", KSS_TEXT), ("WS", WS_TEXT)])))


def test_a_first_directory_without_connections_gives_no_sessions(get):
    document = export_of(directory("settings"),
                         directory("connections", terminal("id-1", "Office", "abc.kss")))
    assert get(document, files=BOTH) == exported(file_for("Tavrin", document, named("Office")))


def test_more_directories_than_connections(get):
    # Their files are read all the same, which shows in the messages.
    document = export_of(directory("defaults", terminal("x", "A", "abc.kss"),
                                   terminal("y", "B", "b.kss"), terminal("z", "C", "c.kss")),
                         directory("connections", connection("id-1", "Office")))
    files = {**BOTH, "b.kss": "<B/>"}
    assert get(document, files=files) == exported(
        file_for("Tavrin", document, named(
            "Office", ("TavrinName", "A"), ("KSSFile", "abc"),
            children=[("KSS", KSS_TEXT), ("WS", WS_TEXT)])),
        unread("b.ws") + unread("c.kss"))


def test_sessions_of_a_first_directory_where_there_are_no_connections(device, get):
    document = export_of(directory("defaults", terminal("x", "A", "a.kss")))
    assert get(document) == Outcome(
        0, stderr="Could not find <NodeDir> - connections. \n" + unread("a.kss"),
        log=log_of("Tavrin", "out.xml", 0), file=b"<Tavrin/>\n")


@pytest.mark.parametrize("document, message", [
    ("<Profile/>", "Could not find <ProfileRegistry>. \n"),
    ("<Profile><ProfileRegistry/></Profile>", "Could not find <NodeDir> - type. \n"),
    (export_of(), "Could not find <NodeDir> - connections. \n"),
    ("<!DOCTYPE a>", "")])
def test_a_missing_level(get, document, message):
    assert get(document) == Outcome(0, stderr=message, log=log_of("Tavrin", "out.xml", 0),
                                    file=b"<Tavrin/>\n")


def test_no_connections(get):
    assert get(export_with()) == exported(b"<Tavrin/>\n")


# Default connection and pruning

def test_attributes_of_the_default_connection_of_a_zero_client(get, recorder):
    default_is(recorder, "id-2")
    document = export_with(terminal("id-1", "One", "abc.kss"), terminal("id-2", "Two", "abc.kss"))
    assert get(document, files=BOTH, zero=True) == exported(file_for(
        "Tavrin", document, session("One", "abc"), session("Two", "abc", default=True)))
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("tavrin"), GET_DEFAULT]


def test_the_remaining_connection_keeps_its_session_on_image_type_6(get, recorder):
    default_is(recorder, "id-2")
    document = export_with(terminal("id-1", "One", "one.kss"), terminal("id-2", "Two", "abc.kss"),
                           terminal("id-3", "Three", "three.kss"))
    kept = export_with(terminal("id-2", "Two", "abc.kss"))
    assert get(document, "tavrin", files=BOTH, image_type=6) == exported(
        file_for("tavrin", kept, session("Two", "abc")), connection_type="tavrin")


def test_no_session_is_read_where_all_connections_are_pruned(get, recorder):
    default_is(recorder, "none")
    assert get(one("missing.kss"), "tavrin", image_type=6) == exported(
        b"<tavrin/>\n", connection_type="tavrin")


# Text

@pytest.mark.parametrize("label", ["Tom & Jerry", "<b>", 'the "best"', "it's", "Größe 字"])
def test_labels_keep_their_characters(get, label):
    document = one(label=label)
    assert get(document, files=BOTH) == exported(
        file_for("Tavrin", document, session(label, "abc")))


def test_session_text_is_condensed_and_keeps_its_characters(get):
    kss = ("<S a='1 &lt; 2'   b=\"it&apos;s\"><!--  note  --><K>&#65; &amp;amp;  Größe\n x</K>"
           "<L/> text  &amp; more</S>")
    text = ('<S a="1 &lt; 2" b="it&apos;s">text & more\n  <!-- note -->\n'
            "  <K>&amp;#65; &amp;amp; Größe x</K>\n  <L/>\n</S>\n")
    assert get(one(), files={"abc.kss": kss, "abc.ws": WS}) == exported(
        file_for("Tavrin", one(), session("Office", "abc", kss=text)))


def test_bytes_that_are_no_text_pass_through(get):
    wanted = connections_file("Tavrin", session("Office", "abc", kss="<S>?!</S>\n"),
                              general=printed_text(one())).replace(b"?!", b"\x80\xff")
    assert get(one(), files={"abc.kss": b"<S>\x80\xff</S>", "abc.ws": WS}) == exported(wanted)


def test_session_files_stay_as_they_are(device, get):
    get(one(), files=BOTH)
    assert {path.name: path.read_text() for path in device.sessions.iterdir()} == BOTH
