"""Export with a scripted client: exact calls in order, exact files, messages and result codes."""

import os

import pytest

from registry_export import (GET_DEFAULT, NAME_TABLE_CALLS, WALK_ENDED, Outcome, connection,
                             connections_file, default_is, directory, export_call, export_of,
                             export_with, exports, file_for, key, log_of, named, outcome,
                             printed_text)

TYPE_NOT_FOUND = "Could not find <NodeDir> - type. \n"
CONNECTIONS_NOT_FOUND = "Could not find <NodeDir> - connections. \n"
REGISTRY_NOT_FOUND = "Could not find <ProfileRegistry>. \n"
PARAM_NOT_FOUND = "Could not find NodeParam. \n"

TWO = export_with(connection("id-1", "Office"), connection("id-2", "Home"))


def exported(file, stderr=WALK_ENDED, log_type="RDP", tmp=()):
    """The outcome of a successful export into out.xml."""
    return Outcome(0, stderr=stderr, log=log_of(log_type, "out.xml", 0), file=file, tmp=tmp)


@pytest.fixture
def recorder(device):
    return device.recorder()


@pytest.fixture
def get(device, recorder):
    """Exports into out.xml, with a client that answers every export with the document."""

    def run(document=None, connection_type="RDP", **options):
        if document is not None:
            exports(recorder, document)
        return outcome(device, device.corvik("-get", connection_type, "-f", "out.xml", **options))

    return run


# Calls and file on every build

BUILDS = [  # image type, product configuration "zero", source of the identity, registry type
    (1, False, "imageid", "rdesktop"), (2, False, "imageid", "RDP"),
    (3, False, "imageid", "rdesktop"), (4, False, "imageid", "rdesktop"),
    (5, False, "systeminfo", "rdesktop"), (5, False, "imageid", "rdesktop"),
    (7, False, "systeminfo", "freerdp"), (7, False, "imageid", "freerdp"),
    (8, False, "systeminfo", "freerdp"), (9, False, "systeminfo", "freerdp"),
    (10, False, "systeminfo", "freerdp"), (8, True, "systeminfo", "freerdp"),
    (9, True, "systeminfo", "freerdp"), (10, True, "systeminfo", "freerdp"),
]


def build_name(value):
    return {True: "zero", False: "standard"}.get(value, str(value)) if isinstance(value, bool) \
        else str(value)


@pytest.mark.parametrize("image_type, zero, identity, registry_type", BUILDS, ids=build_name)
def test_calls_and_file_on_each_build(device, recorder, image_type, zero, identity, registry_type):
    default_is(exports(recorder, TWO), "id-2")
    result = device.corvik("-get", "RDP", "-f", "out.xml", image_type=image_type, zero=zero,
                           identity=identity)
    default = [("Default", "yes")] if zero else []
    assert outcome(device, result) == exported(
        file_for("RDP", TWO, named("Office"), named("Home", *default)))
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call(registry_type),
                              *([GET_DEFAULT] if zero else [])]


@pytest.mark.parametrize("zero, identity", [(False, "imageid"), (True, "systeminfo")],
                         ids=build_name)
def test_calls_and_file_on_image_type_6(device, recorder, zero, identity):
    default_is(exports(recorder, TWO), "id-2")
    result = device.corvik("-get", "RDP", "-f", "out.xml", image_type=6, zero=zero,
                           identity=identity)
    kept = export_with(connection("id-2", "Home"))
    assert outcome(device, result) == exported(file_for("RDP", kept, named("Home")))
    assert recorder.calls == [*NAME_TABLE_CALLS, GET_DEFAULT, export_call("freerdp")]


def test_the_file_byte_for_byte(get):
    document = ('<?xml version="1.0" encoding="UTF-8"?>\n<Profile><ProfileRegistry>'
                '<NodeDir name="freerdp"><NodeDir name="connections">'
                '<NodeDir name="id-1"><NodeKey name="label"><NodeParam type="string">'
                ' Tom  &amp; Jerry </NodeParam></NodeKey></NodeDir></NodeDir></NodeDir>'
                '</ProfileRegistry></Profile>')
    assert get(document) == exported(
        b'<RDP>\n'
        b'  <Connection Name="Tom &amp; Jerry" Enabled="yes"/>\n'
        b'  <General>&lt;Profile&gt;\n'
        b'  &lt;ProfileRegistry&gt;\n'
        b'    &lt;NodeDir name=&quot;freerdp&quot;&gt;\n'
        b'      &lt;NodeDir name=&quot;connections&quot;&gt;\n'
        b'        &lt;NodeDir name=&quot;id-1&quot;&gt;\n'
        b'          &lt;NodeKey name=&quot;label&quot;&gt;\n'
        b'            &lt;NodeParam type=&quot;string&quot;&gt;'
        b'Tom &amp;amp; Jerry&lt;/NodeParam&gt;\n'
        b'          &lt;/NodeKey&gt;\n'
        b'        &lt;/NodeDir&gt;\n'
        b'      &lt;/NodeDir&gt;\n'
        b'    &lt;/NodeDir&gt;\n'
        b'  &lt;/ProfileRegistry&gt;\n'
        b'&lt;/Profile&gt;\n'
        b'</General>\n'
        b'</RDP>\n')


# The connections file

def test_three_connections_none_of_them_default(get):
    document = export_with(*(connection(f"id-{i}", f"Label {i}") for i in (1, 2, 3)))
    assert get(document, zero=True) == exported(
        file_for("RDP", document, named("Label 1"), named("Label 2"), named("Label 3")))


def test_a_type_without_connections(get):
    assert get(export_with()) == exported(b"<RDP/>\n")


@pytest.mark.parametrize("typed", ["rdp", "RDP", "Rdp", "freerdp"])
def test_the_root_is_named_as_typed(get, typed):
    document = export_with(connection("id-1", "Office"))
    assert get(document, typed) == exported(file_for(typed, document, named("Office")),
                                                    log_type=typed)


@pytest.mark.parametrize("typed, label", [("rdp", "New rdp"), ("RDP", "New freerdp"),
                                          ("freerdp", "New freerdp"), ("VDM", "New view")])
def test_a_connection_without_label_is_named_after_the_registry_type(get, typed, label):
    document = export_with(connection("id-1", None, key("host", "h")))
    assert get(document, typed) == exported(file_for(typed, document, named(label)),
                                                    log_type=typed)


@pytest.mark.parametrize("typed, calls", [
    ("", [export_call("")]), ("a.b", [export_call("a.b")]), ("-f", [export_call("-f")]),
    ("Größe", [export_call("Größe")]),
])
def test_a_type_that_no_table_knows(get, recorder, typed, calls):
    document = export_with(connection("id-1"))
    assert get(document, typed) == exported(
        file_for(typed, document, named("New " + typed)), log_type=typed)
    assert recorder.calls[4:] == calls


LABELS = ["Tom & Jerry", "<b>", 'the "best"', "it's", "Größe 字 \U0001f600", "&amp;", "&#65;",
          "]]>", "a;b|c$(d)`e`", "%s%n", "New freerdp", "x" * 5000]


@pytest.mark.parametrize("label", LABELS, ids=range(len(LABELS)))
def test_labels_keep_their_characters(get, label):
    document = export_with(connection("id-1", label))
    # Numeric references are text to the tool, not to the printer used here.
    general = printed_text(document)
    assert get(document) == exported(connections_file("RDP", named(label),
                                                              general=general))


def test_a_numeric_reference_stays_as_it_is(get):
    document = export_with(directory(
        "id-1", '<NodeKey name="label"><NodeParam>&#65;&#x42;</NodeParam></NodeKey>'))
    general = printed_text(export_with(connection("id-1", "&#65;&#x42;")))
    assert get(document) == exported(
        connections_file("RDP", named("&#65;&#x42;"), general=general))


def test_bytes_that_are_no_text_pass_through(get):
    document = export_with(connection("id-1", "\x80\xff")).encode("latin-1")
    general = printed_text(export_with(connection("id-1", "?!")))
    file = connections_file("RDP", named("?!"), general=general).replace(b"?!", b"\x80\xff")
    assert get(document) == exported(file)


def test_blanks_in_labels_are_condensed(get):
    document = export_with(connection("id-1", "  Office \t\r\n\v\f desk  "))
    condensed = export_with(connection("id-1", "Office desk"))
    assert get(document) == exported(file_for("RDP", condensed, named("Office desk")))


def test_user_password_and_remove_change_nothing_but_the_log(device, recorder):
    exports(recorder, TWO)
    result = device.corvik("-get", "RDP", "-u", "bob", "-p", "pw1", "-f", "out.xml", "-r")
    assert outcome(device, result) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0, remove=1),
        file=file_for("RDP", TWO, named("Office"), named("Home")))
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_an_existing_file_is_replaced(device, get):
    (device.home / "out.xml").write_bytes(b"x" * 100000)
    assert get(TWO) == exported(file_for("RDP", TWO, named("Office"), named("Home")))


def test_the_file_may_be_standard_output(device, recorder):
    exports(recorder, TWO)
    # Without /proc, as in a plain chroot, that name leads nowhere.
    exists = device.run("test", "-e", "/dev/stdout").status == 0
    result = device.corvik("-get", "RDP", "-f", "/dev/stdout")
    file = file_for("RDP", TWO, named("Office"), named("Home"))
    status = 0 if exists else 12
    assert outcome(device, result) == Outcome(
        status, stdout=file if exists else b"", stderr=WALK_ENDED,
        log=log_of("RDP", "/dev/stdout", status))


def test_the_file_may_be_a_pipe(device, recorder):
    exports(recorder, TWO)
    os.mkfifo(device.home / "pipe")
    script = "cat pipe & corvik -get RDP -f pipe; status=$?; wait; exit $status"
    assert outcome(device, device.run("sh", "-c", script)) == Outcome(
        0, stdout=file_for("RDP", TWO, named("Office"), named("Home")), stderr=WALK_ENDED,
        log=log_of("RDP", "pipe", 0))


@pytest.mark.parametrize("name", ["two words.xml", "ümlaut.xml", "$(touch x).xml", "a'b\"c.xml"])
def test_the_files_name_is_no_shell_text(device, recorder, name):
    exports(recorder, TWO)
    result = device.corvik("-get", "RDP", "-f", name)
    assert outcome(device, result, name) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", name, 0),
        file=file_for("RDP", TWO, named("Office"), named("Home")))
    assert sorted(path.name for path in device.home.iterdir()) == sorted(["corvik.log", name])


def test_a_stale_temporary_file_is_replaced_and_removed(device, get):
    (device.tmp / "freerdp.xml").write_text(export_with(connection("old", "Old")))
    (device.tmp / "other.xml").write_text("stays")
    assert get(TWO) == exported(
        file_for("RDP", TWO, named("Office"), named("Home")), tmp=["other.xml"])


def test_output_of_the_export_goes_to_the_tools_own_output(device, recorder):
    recorder.on(*export_call("freerdp")[1:], writes=TWO, stdout="2 connections\n", stderr="hm\n")
    result = device.corvik("-get", "RDP", "-f", "out.xml")
    assert outcome(device, result) == Outcome(
        0, stdout="2 connections\n", stderr="hm\n" + WALK_ENDED, log=log_of("RDP", "out.xml", 0),
        file=file_for("RDP", TWO, named("Office"), named("Home")))


# The registry export document

@pytest.mark.parametrize("banner", ["", "\n\n", "registry client 2.1\nexporting ... done\n",
                                    "\ufeff", "> & \" '\n", "x" * 5000, "\t \r\n"],
                         ids=["none", "lines", "words", "mark", "markup", "long", "blanks"])
def test_what_stands_before_the_document_does_no_harm(get, banner):
    assert get(banner + TWO) == exported(
        file_for("RDP", TWO, named("Office"), named("Home")))


@pytest.mark.parametrize("head", ['<?xml version="1.0" encoding="UTF-8"?>\n',
                                  "<?XML version='1.0'?>", "<!-- made by hand -->\n",
                                  "<!DOCTYPE Profile>\n", '<?xml-stylesheet href="a"?>',
                                  '<?xml version="1.0"?><!DOCTYPE a><!-- b -->'])
def test_only_the_root_element_is_carried_along(get, head):
    assert get(head + TWO + "\n<!-- end -->\n") == exported(
        file_for("RDP", TWO, named("Office"), named("Home")))


def test_the_name_of_the_root_does_not_matter(get):
    document = TWO.replace("Profile>", "anything-else>")
    assert "<anything-else>" in document
    document = document.replace("<anything-else><ProfileRegistry>", "<r><ProfileRegistry>")
    document = document.replace("</ProfileRegistry></anything-else>", "</ProfileRegistry></r>")
    assert get(document) == exported(
        file_for("RDP", document, named("Office"), named("Home")))


def test_the_whole_export_is_carried_along(get):
    document = (
        '<Profile version="3" made=\' by  hand \'><Before/><ProfileRegistry kind="full">'
        '<NodeKey name="k"/><NodeDir name="freerdp" path="root/x">'
        '<NodeDir name="settings"><NodeKey name="label" type="a&amp;b&lt;&quot;&apos;">'
        '<NodeParam type="string">no connection</NodeParam><NodeParam>second</NodeParam>'
        '</NodeKey></NodeDir>'
        '<NodeDir mode="rw" name="connections"><NodeKey name="x"><NodeParam/></NodeKey>'
        '<NodeDir name="id-1"><NodeDir name="deep"><NodeDir name="er"/></NodeDir>'
        '<NodeKey name="label"><Other>a</Other><NodeParam>Office</NodeParam></NodeKey></NodeDir>'
        '<Other/></NodeDir><NodeDir name="connections"><NodeDir name="id-9"/></NodeDir>'
        '</NodeDir><NodeDir name="second-type"/></ProfileRegistry>'
        '<ProfileRegistry><NodeDir name="third"/></ProfileRegistry>'
        '<ProfileSettings><Target><Config>zero</Config></Target></ProfileSettings></Profile>')
    assert get(document) == exported(file_for("RDP", document, named("Office")))


def test_comments_and_extra_markup_inside_are_carried_along(get):
    entry = "<!-- a &amp; b --><!----><!ELEMENT  x>"
    document = export_of(directory("connections", directory("id-1", entry)))
    general = printed_text(export_of(directory("connections", directory("id-1", "<mark/>"))))
    indentation = 10 * " "
    general = general.replace(f"{indentation}<mark/>\n", f"{indentation}<!-- a & b -->\n"
                              f"{indentation}<!-- -->\n{indentation}<!ELEMENT  x>\n")
    assert get(document) == exported(
        connections_file("RDP", named("New freerdp"), general=general))


def test_text_beside_children_is_carried_along_without_escaping(get):
    document = export_of(directory("connections", directory("id-1", "<a/>x &amp; &lt;y")))
    general = printed_text(export_of(directory("connections", directory("id-1", "<a/>")))).replace(
        '<NodeDir name="id-1">\n', '<NodeDir name="id-1">x & <y\n')
    assert get(document) == exported(
        connections_file("RDP", named("New freerdp"), general=general))


MISSING_LEVELS = {
    "root-only": ("<Profile/>", REGISTRY_NOT_FOUND),
    "empty-root": ("<Profile></Profile>", REGISTRY_NOT_FOUND),
    "settings-only": ("<Profile><ProfileSettings/></Profile>", REGISTRY_NOT_FOUND),
    "registry-deeper": ("<a><b><ProfileRegistry/></b></a>", REGISTRY_NOT_FOUND),
    "registry-is-root": ("<ProfileRegistry><NodeDir/></ProfileRegistry>", REGISTRY_NOT_FOUND),
    "registry-in-small-letters": ("<a><profileregistry/></a>", REGISTRY_NOT_FOUND),
    "no-type": ("<a><ProfileRegistry/></a>", TYPE_NOT_FOUND),
    "type-is-a-key": ("<a><ProfileRegistry><NodeKey/></ProfileRegistry></a>", TYPE_NOT_FOUND),
    "type-in-the-second-registry": (
        "<a><ProfileRegistry/><ProfileRegistry><NodeDir/></ProfileRegistry></a>", TYPE_NOT_FOUND),
    "no-directory-of-connections": (export_of(), CONNECTIONS_NOT_FOUND),
    "only-keys": (export_of(key("connections", "1")), CONNECTIONS_NOT_FOUND),
    "only-settings": (export_of(directory("settings")), CONNECTIONS_NOT_FOUND),
    "other-case": (export_of(directory("Connections", directory("a"))), CONNECTIONS_NOT_FOUND),
    "empty-name": (export_of(directory("")), CONNECTIONS_NOT_FOUND),
    "one-level-deeper": (export_of(directory("x", directory("connections"))),
                         CONNECTIONS_NOT_FOUND),
    "in-the-second-type": (
        "<a><ProfileRegistry><NodeDir/><NodeDir><NodeDir name='connections'/></NodeDir>"
        "</ProfileRegistry></a>", CONNECTIONS_NOT_FOUND),
    "no-connection": (export_with(), WALK_ENDED),
    "connection-is-a-key": (export_of(directory("connections", key("id-1", "1"))), WALK_ENDED),
    "no-root": ("<!DOCTYPE a>", ""),
    "comment-only": ("<!-- nothing -->", ""),
    "declaration-only": ('<?xml version="1.0"?>', ""),
    "declaration-cut-off": ('<?xml version="1.0" ', ""),
}


@pytest.mark.parametrize("document, message", MISSING_LEVELS.values(), ids=MISSING_LEVELS)
def test_a_missing_level_yields_no_connections(get, recorder, document, message):
    assert get(document, zero=True) == exported(b"<RDP/>\n", stderr=message)
    asked = [GET_DEFAULT] if message == WALK_ENDED else []
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp"), *asked]


def test_settings_may_stand_before_the_connections(get):
    document = export_of(directory("settings", connection("x", "no connection")),
                         directory("connections", connection("id-1", "Office")))
    assert get(document) == exported(file_for("RDP", document, named("Office")))


def test_a_directory_without_a_name_is_taken_for_the_connections(get):
    document = export_of(directory("settings"), f"<NodeDir>{connection('a', 'Nameless')}</NodeDir>",
                         directory("connections", connection("id-1", "Office")))
    assert get(document) == exported(file_for("RDP", document, named("Nameless")))


def test_the_first_directory_of_connections_is_taken(get):
    document = export_of(directory("connections", connection("a", "First")),
                         directory("connections", connection("b", "Second")))
    assert get(document) == exported(file_for("RDP", document, named("First")))


def test_connections_keep_their_order(get):
    labels = [f"{i * 7919 % 1000:03}" for i in range(1000)]
    document = export_with(*(connection(f"id-{label}", label) for label in labels))
    assert get(document) == exported(
        file_for("RDP", document, *(named(label) for label in labels)))


LABEL_KEYS = {
    "without-param": ('<NodeKey name="label"/>', "New freerdp", PARAM_NOT_FOUND),
    "with-text-only": ('<NodeKey name="label">Office</NodeKey>', "New freerdp", PARAM_NOT_FOUND),
    "twice-without-param": ('<NodeKey name="label"/><NodeKey name="label"/>', "New freerdp",
                            2 * PARAM_NOT_FOUND),
    "without-param-then-with": ('<NodeKey name="label"/>' + key("label", "Later"), "Later",
                                PARAM_NOT_FOUND),
    "two-labels": (key("label", "First") + key("label", "Second"), "First", ""),
    "two-params": ('<NodeKey name="label"><NodeParam>A</NodeParam><NodeParam>B</NodeParam>'
                   '</NodeKey>', "A", ""),
    "param-behind-another": ('<NodeKey name="label"><X>A</X><NodeParam>B</NodeParam></NodeKey>',
                             "B", ""),
    "empty-param": ('<NodeKey name="label"><NodeParam/></NodeKey>', "", ""),
    "behind-a-nameless-key": ("<NodeKey><NodeParam>x</NodeParam></NodeKey>" + key("label", "B"),
                              "B", ""),
    "behind-an-empty-name": (key("", "x") + key("label", "B"), "B", ""),
    "behind-other-keys": (key("labels", "x") + key("Label", "y") + key("label", "B"), "B", ""),
    "other-case": (key("Label", "y"), "New freerdp", ""),
    "in-a-directory": (directory("label", key("label", "deep")), "New freerdp", ""),
}


@pytest.mark.parametrize("keys, label, message", LABEL_KEYS.values(), ids=LABEL_KEYS)
def test_the_label_of_a_connection(get, keys, label, message):
    document = export_with(directory("id-1", keys))
    assert get(document) == exported(file_for("RDP", document, named(label)),
                                             stderr=message + WALK_ENDED)


def test_an_empty_connection_directory_is_a_connection(get):
    document = export_with(directory("id-1"), "<NodeDir/>")
    assert get(document) == exported(
        file_for("RDP", document, named("New freerdp"), named("New freerdp")))


# The default connection of a zero client

ANSWERS = {  # what the client prints, and what the tool takes from it
    "key-and-value": ("k id-2\n", "id-2"),
    "no-line-end": ("k id-2", "id-2"),
    "carriage-return": ("k id-2\r\n", "id-2"),
    "more-words": ("k id-2 id-1\n", "id-2"),
    "blanks": (" \t k \t id-2 \n", "id-2"),
    "second-line": ("k id-2\nk id-1\n", "id-2"),
    "value-on-the-second-line": ("k\nid-2\n", ""),
    "empty-first-line": ("\nk id-2\n", ""),
    "single-word": ("id-2\n", ""),
    "nothing": ("", ""),
    "other-case": ("k ID-2\n", "ID-2"),
    "longer-value": ("k id-22\n", "id-22"),
    "shorter-value": ("k id-\n", "id-"),
}


@pytest.mark.parametrize("answer, value", ANSWERS.values(), ids=ANSWERS)
def test_the_default_connection_of_a_zero_client(get, recorder, answer, value):
    recorder.on(*GET_DEFAULT[1:], stdout=answer)
    document = export_with(connection("id-1", "Office"), connection("id-2", "Home"))
    marks = {label: [("Default", "yes")] if identifier == value else []
             for identifier, label in (("id-1", "Office"), ("id-2", "Home"))}
    assert get(document, zero=True) == exported(
        file_for("RDP", document, *(named(label, *more) for label, more in marks.items())))


@pytest.mark.parametrize("length, kept", [(1022, 1022), (1023, 1022), (1024, 1022), (5000, 1022)])
def test_a_long_answer_is_cut_at_1022_characters(get, recorder, length, kept):
    line = "k " + "v" * (length - 2)
    recorder.on(*GET_DEFAULT[1:], stdout=line + "\n")
    names = ["v" * (count - 2) for count in range(1020, 1027)]
    document = export_with(*(connection(name) for name in names))
    assert get(document, zero=True) == exported(file_for("RDP", document, *(
        named("New freerdp", *([("Default", "yes")] if len(name) + 2 == kept else []))
        for name in names)))


def test_an_empty_default_marks_a_connection_with_an_empty_name_only(get, recorder):
    recorder.on(*GET_DEFAULT[1:], stdout="")
    document = export_with(connection("id-1", "Office"), connection("", "Empty"),
                           f"<NodeDir>{key('label', 'None')}</NodeDir>")
    assert get(document, zero=True) == exported(
        file_for("RDP", document, named("Office"), named("Empty", ("Default", "yes")),
                 named("None")))


def test_every_connection_of_that_name_is_marked(get, recorder):
    default_is(recorder, "id-1")
    document = export_with(connection("id-1", "A"), connection("id-2", "B"),
                           connection("id-1", "C"))
    assert get(document, zero=True) == exported(
        file_for("RDP", document, named("A", ("Default", "yes")), named("B"),
                 named("C", ("Default", "yes"))))


def test_a_failing_query_of_the_default_is_no_failure(get, recorder):
    recorder.on(*GET_DEFAULT[1:], stderr="no such key\n", status=1)
    assert get(TWO, zero=True) == exported(
        file_for("RDP", TWO, named("Office"), named("Home")),
        stderr="no such key\n" + WALK_ENDED)


@pytest.mark.parametrize("image_type", [1, 5, 7, 9])
def test_a_standard_device_marks_no_default(get, recorder, image_type):
    default_is(recorder, "id-1")
    assert get(TWO, image_type=image_type) == exported(
        file_for("RDP", TWO, named("Office"), named("Home")))


# Image type 6

ALL = export_with(connection("id-1", "One"), connection("id-2", "Two"), connection("id-3", "Three"))
ALL_NAMED = [named("One"), named("Two"), named("Three")]


def only(*identifiers):
    labels = {"id-1": "One", "id-2": "Two", "id-3": "Three"}
    return (export_with(*(connection(each, labels[each]) for each in identifiers)),
            [named(labels[each]) for each in identifiers])


DEFAULTS_ON_6 = {
    "the-first": ("k id-1\n", only("id-1")),
    "one-in-the-middle": ("k id-2\n", only("id-2")),
    "the-last": ("k id-3\n", only("id-3")),
    "more-words": ("k id-2 Default\n", only("id-2")),
    "default-and-the-type": ("k Default/freerdp\n", (ALL, ALL_NAMED)),
    "the-type-and-default": ("k freerdpDefault\n", (ALL, ALL_NAMED)),
    "default-behind-a-blank": ("k freerdp Default\n", None),
    "default-in-small-letters": ("k default-freerdp\n", None),
    "another-identifier": ("k id-4\n", None),
    "part-of-an-identifier": ("k id-\n", None),
    "nothing": ("", None),
    "a-single-word": ("Default\n", None),
}


@pytest.mark.parametrize("answer, kept", DEFAULTS_ON_6.values(), ids=DEFAULTS_ON_6)
def test_what_is_kept_on_image_type_6(get, recorder, answer, kept):
    recorder.on(*GET_DEFAULT[1:], stdout=answer)
    wanted = file_for("RDP", kept[0], *kept[1]) if kept else b"<RDP/>\n"
    assert get(ALL, image_type=6) == exported(wanted)
    assert recorder.calls == [*NAME_TABLE_CALLS, GET_DEFAULT, export_call("freerdp")]


@pytest.mark.parametrize("value", ["Default", "Default/view", "xDefaultx", "DefaultFREERDP",
                                   "Default/RDP", "freerd-Default"])
def test_nothing_is_exported_on_image_type_6_for_another_types_default(get, recorder, value):
    default_is(recorder, value)
    assert get(ALL, image_type=6) == exported(b"<RDP/>\n", stderr="")
    assert recorder.calls == [*NAME_TABLE_CALLS, GET_DEFAULT]


def test_the_registry_name_of_the_type_counts_on_image_type_6(get, recorder):
    default_is(recorder, "Default-view")
    assert get(ALL, "VDM", image_type=6) == exported(
        file_for("VDM", ALL, *ALL_NAMED), log_type="VDM")
    assert recorder.calls == [*NAME_TABLE_CALLS, GET_DEFAULT, export_call("view")]


def test_a_directory_without_a_name_is_pruned_on_image_type_6(get, recorder):
    default_is(recorder, "id-1")
    document = export_with("<NodeDir/>", connection("id-1", "One"), "<NodeDir/>")
    kept = export_with(connection("id-1", "One"))
    assert get(document, image_type=6) == exported(file_for("RDP", kept, named("One")))


def test_a_nameless_directory_is_pruned_also_for_an_empty_default(get, recorder):
    recorder.on(*GET_DEFAULT[1:], stdout="")
    document = export_with("<NodeDir/>", connection("", "Empty"))
    kept = export_with(connection("", "Empty"))
    assert get(document, image_type=6) == exported(file_for("RDP", kept, named("Empty")))


def test_only_connections_are_pruned_on_image_type_6(get, recorder):
    default_is(recorder, "id-2")
    document = export_of(
        directory("connections", key("k", "1"), connection("id-1", "One"), "<!-- stays -->",
                  connection("id-2", "Two"), key("l", "2"), connection("id-3", "Three")),
        directory("settings", connection("id-1", "x")))
    kept = export_of(
        directory("connections", key("k", "1"), "<mark/>", connection("id-2", "Two"),
                  key("l", "2")),
        directory("settings", connection("id-1", "x")))
    general = printed_text(kept).replace("<mark/>", "<!-- stays -->")
    assert get(document, image_type=6) == exported(
        connections_file("RDP", named("Two"), general=general))


def test_all_but_the_last_of_many_are_pruned_on_image_type_6(get, recorder):
    default_is(recorder, "id-999")
    document = export_with(*(connection(f"id-{i}", f"L{i}") for i in range(1000)))
    kept = export_with(connection("id-999", "L999"))
    assert get(document, image_type=6) == exported(file_for("RDP", kept, named("L999")))


def test_image_type_6_never_marks_a_default(get, recorder):
    default_is(recorder, "id-1")
    kept, names = only("id-1")
    assert get(ALL, image_type=6, zero=True) == exported(file_for("RDP", kept, *names))


@pytest.mark.parametrize("image_type", [1, 2, 3, 4, 5, 7, 8, 9, 10])
def test_other_builds_prune_nothing(get, recorder, image_type):
    default_is(recorder, "id-2")
    assert get(ALL, image_type=image_type) == exported(file_for("RDP", ALL, *ALL_NAMED))
