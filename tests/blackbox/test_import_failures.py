"""Every way in which an import fails: its number, its messages, what ran before and what stays."""

import os
import signal

import pytest

from import_run import (DEFAULT, EXPORT_UNPARSED, GET_DEFAULT, GET_THEME, NAME_TABLE,
                        NO_CONNECTIONS, NO_GENERAL, NO_PARAM, NO_POPEN, NO_REGISTRY, NO_TYPE, THEME,
                        WALK_OVER, Element, ImportCase, Left, classic, conn, connections_file,
                        connections_path, entry, export, folder, imported, key, log_of, looked_up,
                        merged, newer_removed, refreshed, registry_of, removed, settings_of,
                        started, type_path)
from recorder_client import ANY

ONE = export(conn("id-1", "Office"))
ONE_FILE = connections_file(ONE, entry("Office"))
PATH = connections_path("freerdp")
ABORTED = -signal.SIGABRT
EVERY_LAYOUT = pytest.mark.parametrize("image_type", [1, 6, 9])


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def registry_type_on(image_type):
    return "rdesktop" if image_type == 1 else "freerdp"


def emptied(image_type, remove=False):
    """The commands that are done before the file's connections are looked at."""
    name = registry_type_on(image_type)
    if image_type == 6:
        return [*looked_up(name), *newer_removed()]
    return [*looked_up(name), *(removed(name) if remove else [])]


# 20: the connections file is no document

NOT_WELL_FORMED = {
    "text": "hello", "open": "<RDP>", "cut-tag": "<RDP", "wrong-end": "<RDP></RDQ>",
    "blank-in-end": "<RDP></RDP >", "text-before-child": "<RDP>x<Connection/></RDP>",
    "unquoted": "<RDP a=1/>", "no-value": "<RDP a/>", "markup-in-value": "<RDP a='<'/>",
    "more": "<RDP>></RDP>", "comment": "<!-- <RDP/>", "angle-in-comment": "<!-- > --><RDP/>",
    "doctype": "<!DOCTYPE RDP", "text-behind": "<RDP/>behind",
    "byte-order-mark": "\ufeff<RDP/>", "raw-general": "<RDP><General>a < b</General></RDP>",
    "cut-file": ONE_FILE[:-3], "cut-general": ONE_FILE[:len(ONE_FILE) // 2],
}


@EVERY_LAYOUT
@pytest.mark.parametrize("text", NOT_WELL_FORMED.values(), ids=NOT_WELL_FORMED)
def test_a_file_that_is_not_well_formed(case, text, image_type):
    assert case.set(text, remove=True, image_type=image_type) == Left(
        [], "Failed to parse in.xml\n", 20, remove=True)


@pytest.mark.parametrize("name", ["./in.xml", "in%s.xml", "in \u00fc 'x'.xml"])
def test_the_message_holds_the_name_as_given(case, name):
    (case.device.home / name).write_text("<")
    left = case.set(None, arguments=["-set", "RDP", "-f", name])
    assert left == Left([], f"Failed to parse {name}\n", 20, log=log_of(20, file=name),
                        home=sorted(["corvik.log", os.path.basename(name)]))


WITHOUT_ROOT = {
    "empty": "", "blanks": " \t\r\n\n ", "declaration": '<?xml version="1.0"?>',
    "comment": "<!-- nothing -->", "doctype": "<!DOCTYPE RDP>", "cut-declaration": "<?xml ",
    "nul-first": "\0<RDP/>", "digit": "<1>", "all": '<?xml version="1.0"?><!-- a --><!DOCTYPE b>\n',
}


@EVERY_LAYOUT
@pytest.mark.parametrize("text", WITHOUT_ROOT.values(), ids=WITHOUT_ROOT)
def test_a_file_without_root_element(case, text, image_type):
    assert case.set(text, remove=True, image_type=image_type) == Left(
        [], "Failed to get the root element.\n", 20, remove=True)


# Abnormal ends

def aborted(commands, word, file="in.xml", **others):
    """The last line begins with the program's name, and the log has its header line only."""
    return Left(commands, f"corvik: {word}\n", ABORTED, log=log_of(None, file=file,
                remove=others.get("remove", False)), **others)


UNREADABLE = {"missing": "missing.xml", "missing-folder": "missing/in.xml", "empty-name": "",
              "folder": "/etc", "current-folder": ".", "below-a-file": "corvik.log/in.xml",
              "too-long": "x" * 300}


@EVERY_LAYOUT
@pytest.mark.parametrize("name", UNREADABLE.values(), ids=UNREADABLE)
def test_a_file_that_cannot_be_read(case, name, image_type):
    left = case.set(None, arguments=["-set", "RDP", "-f", name, "-r"], remove=True,
                    image_type=image_type)
    assert left == aborted([], f"Invalid file name:{name}", file=name, remove=True,
                           home=["corvik.log"])


def test_no_file_named_at_all(case):
    left = case.set(None, arguments=["-set", "RDP", "x", "y"])
    assert left == aborted([], "Invalid file name:", file="", home=["corvik.log"])


@pytest.mark.parametrize("text", [b"", b"T", b"DXAR000", b"DXAR00\x005"],
                         ids=["empty", "short", "seven", "nul"])
def test_a_device_with_an_identity_that_is_too_short(case, text):
    left = case.set(ONE_FILE, remove=True, imageid=text)
    assert left == aborted(NAME_TABLE, "Invalid Image ID (neither /etc/systeminfo nor /etc/imageid"
                                       " gives one)", remove=True)


def test_a_device_without_identity(case):
    left = case.set(ONE_FILE, remove=True, image_type="none")
    assert left == aborted(NAME_TABLE, "Invalid Image ID (neither /etc/systeminfo nor /etc/imageid"
                                       " gives one)", remove=True)


def test_a_bad_file_goes_before_a_missing_identity(case):
    left = case.set("<", image_type="none")
    assert left == Left([], "Failed to parse in.xml\n", 20)


@EVERY_LAYOUT
@pytest.mark.parametrize("text", ["", "\n", "no registry here", "> &lt;", "\0<Profile/>"],
                         ids=["empty", "line-end", "text", "no-less", "nul"])
def test_an_export_of_the_registry_that_holds_no_markup(case, text, image_type):
    case.holds(text)
    name = registry_type_on(image_type)
    left = case.set(ONE_FILE, remove=True, image_type=image_type)
    expected = aborted(
        [*emptied(image_type, remove=True), *merged(name, done=False)],
        f'the registry export /tmp/{name}.xml holds no "<"', remove=True, tmp=[f"{name}.xml"])
    expected.stderr = WALK_OVER + expected.stderr
    assert left == expected


# 23: the import document cannot be written

UNWRITABLE = {
    "folder": lambda path: path.mkdir(),
    "link-to-a-missing-folder": lambda path: path.symlink_to("/missing/import.xml"),
    "full-device": lambda path: path.symlink_to("/dev/full"),
    "link-to-itself": lambda path: path.symlink_to("import.xml"),
}


@EVERY_LAYOUT
@pytest.mark.parametrize("make", UNWRITABLE.values(), ids=UNWRITABLE)
def test_an_import_document_that_cannot_be_written(case, make, image_type):
    make(case.device.tmp / "import.xml")
    case.lists(registry_type_on(image_type), "a", times=2)
    if image_type == 6:
        case.lists("freerdp")
    name = registry_type_on(image_type)
    left = case.set(ONE_FILE, image_type=image_type)
    pruned = NO_GENERAL if image_type == 6 else ""
    assert left == Left([*emptied(image_type), *merged(name)],
                        2 * WALK_OVER + pruned + "Could not write /tmp/import.xml, errno=.\n", 23,
                        tmp=["import.xml"])


@pytest.mark.parametrize("remove", [False, True])
def test_an_import_document_that_cannot_be_written_on_a_zero_client(case, remove):
    (case.device.tmp / "import.xml").mkdir()
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    file = connections_file(ONE, entry("Office", Default="yes"))
    left = case.set(file, remove=remove, zero=True)
    assert left == Left(
        [*looked_up("freerdp"), *(removed("freerdp") if remove else []),
         *merged("freerdp", zero=True)],
        2 * WALK_OVER + "Could not write /tmp/import.xml, errno=.\n", 23, remove=remove,
        tmp=["import.xml"])


# 52: the export that the file carries is no document

UNUSABLE_EXPORTS = {
    "empty": "", "text": "hello", "open": "<Profile>", "cut": ONE.printed()[:-4],
    "banner": "regsh exports\n" + ONE.printed(), "declaration": '<?xml version="1.0"?>',
    "comment": "<!-- nothing -->", "wrong-end": "<Profile></ProfileX>",
    "double-escaped": "&lt;Profile/&gt;", "unquoted": "<Profile a=1/>",
}


@EVERY_LAYOUT
@pytest.mark.parametrize("text", UNUSABLE_EXPORTS.values(), ids=UNUSABLE_EXPORTS)
def test_an_export_in_the_file_that_is_no_document(case, text, image_type):
    left = case.set(connections_file(text, entry("Office")), remove=True, image_type=image_type)
    assert left == Left(emptied(image_type, remove=True), status=52, remove=True)


def test_an_export_is_never_taken_for_the_name_of_a_file(case):
    (case.device.home / "export.xml").write_text(ONE.printed())
    left = case.set(connections_file("export.xml", entry("Office")))
    assert left == Left(looked_up("freerdp"), status=52, home=["corvik.log", "export.xml", "in.xml"])


def test_an_unusable_export_ends_before_icons_and_default(case):
    case.lists("freerdp", "a")
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    left = case.set(connections_file("<x", entry("Office", Default="yes")), zero=True)
    assert left == Left(looked_up("freerdp"), status=52)


def test_an_export_as_elements_instead_of_text_is_none(case):
    file = Element("RDP", children=[entry("Office"), Element("General", children=[ONE])])
    assert case.set(file.printed()) == Left(looked_up("freerdp"), status=52)


# 0, though nothing is imported

def test_no_general(case):
    case.lists("freerdp", "a")
    left = case.set(connections_file(None, entry("Office")), remove=False)
    assert left == Left([*looked_up("freerdp"), *refreshed("freerdp", a="")], NO_GENERAL)


@pytest.mark.parametrize("text", ["<RDP/>", "<RDP></RDP>", "<RDP>text</RDP>",
                                  "<RDP><general>x</general></RDP>"])
def test_files_without_general(case, text):
    assert case.set(text) == Left([*looked_up("freerdp"), *refreshed("freerdp")], NO_GENERAL)


def test_no_general_with_remove_has_removed_all_the_same(case):
    case.lists("freerdp", "a", times=1)
    case.lists("freerdp", "b", times=1)
    left = case.set("<RDP/>", remove=True)
    assert left == Left([*looked_up("freerdp"), *removed("freerdp", "b"),
                         *refreshed("freerdp", a="")], NO_GENERAL, remove=True)


def test_no_general_on_a_zero_client(case):
    case.lists("freerdp", "a")
    case.value(DEFAULT, "id-7").value(THEME, "xen")
    left = case.set(connections_file(None, entry("Office", Default="yes")), zero=True)
    assert left == Left([*looked_up("freerdp"), *refreshed("freerdp", a=""),
                         *started("xen", "id-7")], 2 * NO_GENERAL)


INCOMPLETE_EXPORTS = {
    "no-registry": (Element("Profile", children=[settings_of()]), NO_REGISTRY),
    "nothing": (Element("Profile"), NO_REGISTRY),
    "registry-in-small": (Element("Profile", children=[Element("profileregistry")]), NO_REGISTRY),
    "no-type": (Element("Profile", children=[Element("ProfileRegistry")]), NO_TYPE),
    "key-for-type": (Element("Profile", children=[
        Element("ProfileRegistry", children=[key("connections", "x")])]), NO_TYPE),
    "no-connections": (Element("Profile", children=[registry_of()]), NO_CONNECTIONS),
    "others": (Element("Profile", children=[registry_of(folder("Connections"), folder(""))]),
               NO_CONNECTIONS),
}


@pytest.mark.parametrize("document, message", INCOMPLETE_EXPORTS.values(), ids=INCOMPLETE_EXPORTS)
def test_an_export_in_the_file_without_connections_directory(case, document, message):
    case.lists("freerdp", "a")
    left = case.set(connections_file(document, entry("Office")))
    assert left == Left([*looked_up("freerdp"), *refreshed("freerdp", a="")], message)


@pytest.mark.parametrize("document, message", INCOMPLETE_EXPORTS.values(), ids=INCOMPLETE_EXPORTS)
def test_the_same_on_a_zero_client_is_told_once_more_for_the_default(case, document, message):
    case.value(DEFAULT, "id-7").value(THEME, "xen")
    file = connections_file(document, entry("Office", Default="yes"), entry("B", Default="yes"))
    left = case.set(file, zero=True)
    assert left == Left([*looked_up("freerdp"), *refreshed("freerdp"), *started("xen", "id-7")],
                        2 * message)


CONFIG_LEVELS = {
    "ProfileSettings": [], "Target": [Element("ProfileSettings")],
    "Config": [Element("ProfileSettings", children=[Element("Target")])],
}
WRONG_LEVELS = {
    "ProfileSettings": [Element("profileSettings", children=settings_of().children)],
    "Target": [Element("ProfileSettings"), settings_of()],
    "Config": [Element("ProfileSettings", children=[
        Element("Target"), Element("Target", children=[Element("Config")])])],
}


@pytest.mark.parametrize("image_type", [8, 9, 10])
@pytest.mark.parametrize("levels", [CONFIG_LEVELS, WRONG_LEVELS], ids=["missing", "elsewhere"])
@pytest.mark.parametrize("missing", CONFIG_LEVELS)
def test_no_place_for_the_configuration(case, missing, levels, image_type):
    case.lists("freerdp", "a")
    document = Element("Profile", children=[
        registry_of(folder("connections", conn("id-1", "Office"))), *levels[missing]])
    left = case.set(connections_file(document, entry("Office")), image_type=image_type)
    assert left == Left(
        [*looked_up("freerdp"), *merged("freerdp"), *refreshed("freerdp", a="")],
        2 * WALK_OVER + f"Could not find <{missing}>. \n")


@pytest.mark.parametrize("missing", CONFIG_LEVELS)
def test_no_place_for_the_configuration_on_a_zero_client(case, missing):
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    document = Element("Profile", children=[
        registry_of(folder("connections", conn("id-1", "Office"))), *CONFIG_LEVELS[missing]])
    left = case.set(connections_file(document, entry("Office")), zero=True)
    assert left == Left(
        [*looked_up("freerdp"), *merged("freerdp", zero=True), *refreshed("freerdp"),
         *started("freerdp", "id-1")],
        2 * WALK_OVER + f"Could not find <{missing}>. \n")


# The merge fails, the import goes on

def unmerged(stderr="", done=True, tmp=("import.xml",)):
    return Left([*looked_up("freerdp"), *merged("freerdp", done=done), *imported("freerdp"),
                 *refreshed("freerdp")], WALK_OVER + stderr, document=ONE, tmp=list(tmp))


@pytest.mark.parametrize("status", [1, 50, 127, 255])
def test_an_export_that_the_client_refuses(case, status):
    case.recorder.on("export", ANY, ANY, writes=ONE.printed(), status=status, stderr="refused\n")
    left = case.set(ONE_FILE)
    expected = unmerged(done=False, tmp=["freerdp.xml", "import.xml"])
    expected.stderr = WALK_OVER + "refused\n"
    assert left == expected


def test_an_export_that_the_client_does_not_write(case):
    case.recorder.on("export", ANY, ANY)
    assert case.set(ONE_FILE) == unmerged(done=False)


@pytest.mark.parametrize("text", ["<", "<Profile>", "x<Profile></Profil>", ONE.printed()[:-2]])
def test_an_export_of_the_registry_that_is_no_document(case, text):
    case.holds(text)
    assert case.set(ONE_FILE) == unmerged(EXPORT_UNPARSED, done=False,
                                          tmp=["freerdp.xml", "import.xml"])


@pytest.mark.parametrize("text", ["<!-- nothing -->", '<?xml version="1.0"?>'])
def test_an_export_of_the_registry_without_root(case, text):
    case.holds(text)
    assert case.set(ONE_FILE) == unmerged(NO_GENERAL)


@pytest.mark.parametrize("document, message", INCOMPLETE_EXPORTS.values(), ids=INCOMPLETE_EXPORTS)
def test_an_export_of_the_registry_without_connections_directory(case, document, message):
    case.holds(document)
    assert case.set(ONE_FILE) == unmerged(message + NO_GENERAL)


LEVELS = ("P", "ProfileRegistry", 'NodeDir name="freerdp"', 'NodeDir name="connections"',
          'NodeDir name="id-9"', 'NodeKey name="label"')


@pytest.mark.parametrize("level", LEVELS)
def test_text_behind_elements_keeps_an_export_from_being_merged(case, level):
    """It is printed before them, where it must not stand."""
    text = '<NodeParam type="string">Nine</NodeParam>'
    for each in reversed(LEVELS):
        text = f"<{each}>{text}{'tail' if each == level else ''}</{each.split()[0]}>"
    case.holds(text)
    assert case.set(ONE_FILE) == unmerged(WALK_OVER)


def test_an_export_of_the_registry_that_does_not_parse_a_second_time(case):
    # Text behind children is printed before them, where it must not stand.
    case.holds("<P><ProfileRegistry><NodeDir><NodeDir name='connections'><NodeDir name='id-9'>"
               "<NodeKey name='label'/>behind the child</NodeDir></NodeDir></NodeDir>"
               "</ProfileRegistry></P>")
    assert case.set(ONE_FILE) == unmerged(NO_PARAM + WALK_OVER)


def test_a_copy_that_does_not_parse_ends_the_merge_but_not_the_import(case):
    # A comment loses one escape with each reading, and the last one must not stand in it bare.
    case.holds("<P><ProfileRegistry><NodeDir><NodeDir name='connections'>"
               "<NodeDir name='id-8'/><NodeDir name='id-9'><!-- &amp;gt; --></NodeDir>"
               "<NodeDir name='id-7'/></NodeDir></NodeDir></ProfileRegistry></P>")
    left = case.set(ONE_FILE)
    assert left == Left(classic("freerdp"), 2 * WALK_OVER,
                        document=export(conn("id-1", "Office"), conn("id-8")))


# Processes that cannot be started

def test_the_listing_of_the_icons_cannot_be_read(case):
    case.lists("freerdp", "a")
    left = case.set(ONE_FILE, refused=f"regsh get {PATH}")
    commands = [*looked_up("freerdp"), *merged("freerdp"), *imported("freerdp"),
                f"regsh get {PATH}"]
    assert left == Left(commands, 2 * WALK_OVER + NO_POPEN, document=ONE,
                        calls=Left(commands[:-1]).calls)


def test_an_icon_cannot_be_read(case):
    case.lists("freerdp", "a", "b")
    for name in "ab":
        case.value(f"{PATH}/{name}/hasDesktopIcon", "1")
    command = f"regsh get {PATH}/a/hasDesktopIcon"
    left = case.set(ONE_FILE, refused=command)
    commands = [*looked_up("freerdp"), *merged("freerdp"), *imported("freerdp"),
                *refreshed("freerdp", a="", b="1")]
    assert left == Left(commands, 2 * WALK_OVER, document=ONE,
                        calls=Left([each for each in commands if each != command]).calls)


def test_the_default_connection_cannot_be_read(case):
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    file = connections_file(ONE, entry("Office", Default="yes"))
    left = case.set(file, zero=True, refused=GET_DEFAULT)
    commands = [*classic("freerdp", "id-1", zero=True)[:-1], GET_DEFAULT,
                f"regsh set {DEFAULT}\tid-1", f"regsh set {THEME} freerdp", "regsh commit",
                GET_DEFAULT]
    assert left == Left(commands, 3 * WALK_OVER,
                        document=export(conn("id-1", "Office"), config="zero"),
                        calls=Left([each for each in commands if each != GET_DEFAULT]).calls)


def test_the_theme_cannot_be_read(case):
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    left = case.set(ONE_FILE, zero=True, refused=GET_THEME)
    commands = [*classic("freerdp", "id-1", zero=True), GET_THEME]
    assert left == Left(commands, 3 * WALK_OVER,
                        document=export(conn("id-1", "Office"), config="zero"),
                        calls=Left(commands[:-1]).calls)


def test_the_contains_test_cannot_be_started(case):
    left = case.set(ONE_FILE, refused=f"regsh contains {type_path('freerdp')}")
    assert left == Left(looked_up("freerdp"), calls=[["regsh", "contains", type_path(each)]
                                                     for each in ("xen", "iceweasel")])
