"""Import in the newer layout (image type 6): removal of every type, default connection, refresh."""

import pytest

from import_run import (DEFAULT, GET_DEFAULT, NO_CONNECTIONS, NO_GENERAL, NO_PARAM, NO_POPEN,
                        NO_REGISTRY, NO_TYPE, THEME, WALK_OVER, Element, ImportCase, Left, conn,
                        connections_file, connections_path, entry, export, folder, imported, key,
                        looked_up, merged, newer, newer_defaulted, newer_removed, registry_of,
                        removed, settings_of, type_path)

ONE = export(conn("id-1", "Office"))
ONE_FILE = connections_file(ONE, entry("Office"))
TWO = export(conn("id-1", "Office"), conn("id-2", "Home"))

PRUNED = 2 * WALK_OVER + NO_GENERAL
"""One walk over the file, one over the registry's export, of which nothing is left."""


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def done(document, identifier="id-1", registry_type="freerdp", stderr=PRUNED, **others):
    return Left(newer(registry_type, identifier), stderr, document=document, **others)


# Types

TYPES = [("VDM", "view"), ("RDP", "freerdp"), ("ICA", "xen"), ("view", "view"),
         ("freerdp", "freerdp"), ("xen", "xen"), ("SSH", "SSH"), ("ssh", "ssh"),
         ("Tavrin", "Tavrin"), ("Firefox", "Firefox"), ("rdp", "rdp"), ("Unknown", "Unknown")]


@pytest.mark.parametrize("remove", [False, True], ids=["plain", "remove"])
@pytest.mark.parametrize("zero", [False, True], ids=["standard", "zero"])
@pytest.mark.parametrize("typed, registry_type", TYPES, ids=[row[0] for row in TYPES])
def test_every_name(case, typed, registry_type, zero, remove):
    left = case.set(ONE_FILE, typed, remove, image_type=6, zero=zero)
    assert left == done(ONE, registry_type=registry_type, typed=typed, remove=remove)


@pytest.mark.parametrize("status", [1, 127])
def test_rdp_without_its_newer_client(case, status):
    case.recorder.on("contains", type_path("freerdp"), status=status)
    left = case.set(ONE_FILE, image_type=6)
    assert left == Left(
        [*looked_up("rdesktop"), *newer_removed(("view", "rdesktop", "xen")), *merged("rdesktop"),
         *imported("rdesktop"), *newer_defaulted("id-1")], PRUNED, document=ONE)


def test_all_commands_in_order(case):
    case.lists("freerdp", "id-5")
    left = case.set(ONE_FILE, "ICA", image_type=6)
    assert left == Left(
        ["regsh contains root/ConnectionType/freerdp", "regsh contains root/ConnectionType/xen",
         "regsh contains root/ConnectionType/iceweasel",
         "regsh contains root/ConnectionType/freerdp", "regsh contains root/ConnectionType/xen",
         "regsh get root/ConnectionType/view/connections",
         "regsh get root/ConnectionManager/defaultConnection",
         "regsh commit root/ConnectionType/view/connections", "regsh commit",
         "regsh get root/ConnectionType/freerdp/connections",
         "regsh get root/ConnectionManager/defaultConnection",
         "regsh delete root/ConnectionType/freerdp/connections/id-5\n",
         "regsh commit root/ConnectionType/freerdp/connections", "regsh commit",
         "regsh get root/ConnectionType/xen/connections",
         "regsh get root/ConnectionManager/defaultConnection",
         "regsh commit root/ConnectionType/xen/connections", "regsh commit",
         "rm -f /tmp/xen.xml;regsh export root/ConnectionType/xen /tmp/xen.xml",
         "rm -f /tmp/xen.xml",
         "regsh import /tmp/import.xml", "regsh commit root/ConnectionType/xen/connections",
         "regsh set root/ConnectionManager/defaultConnection  id-1",
         "regsh commit root/ConnectionManager/defaultConnection",
         "regsh create root/ConnectionType/.toBeRefreshed",
         "regsh delete root/ConnectionType/.toBeRefreshed", "regsh commit root/ConnectionType"],
        PRUNED, document=ONE, typed="ICA")


# Removal

@pytest.mark.parametrize("remove", [False, True])
def test_the_connections_of_every_listed_type_are_deleted(case, remove):
    listed = {"view": ["v1", "v2"], "freerdp": [], "xen": ["x1"]}
    for name, identifiers in listed.items():
        case.lists(name, *identifiers)
    left = case.set(ONE_FILE, remove=remove, image_type=6)
    deletions = [line for name, each in listed.items() for line in removed(name, *each)]
    assert left == Left([*looked_up("freerdp"), *deletions, *merged("freerdp"),
                         *imported("freerdp"), *newer_defaulted("id-1")], PRUNED, document=ONE,
                        remove=remove)


def test_the_connections_of_other_types_stay_also_of_the_imported_one(case):
    case.lists("ssh", "id-5").lists("rdesktop", "id-6")
    assert case.set(ONE_FILE, "ssh", image_type=6) == done(ONE, registry_type="ssh", typed="ssh")


@pytest.mark.parametrize("zero", [False, True], ids=["standard", "zero"])
def test_a_removed_default_is_not_reset(case, zero):
    case.value(DEFAULT, "id-5").value(THEME, "freerdp")
    case.lists("freerdp", "id-5")
    left = case.set(ONE_FILE, image_type=6, zero=zero)
    assert left == Left(
        [*looked_up("freerdp"), *removed("view"), *removed("freerdp", "id-5"), *removed("xen"),
         *merged("freerdp"), *imported("freerdp"), *newer_defaulted("id-1")], PRUNED, document=ONE)


@pytest.mark.parametrize("name", ["view", "freerdp", "xen"])
def test_a_listing_that_cannot_be_read_leaves_that_type_alone(case, name):
    for each in ("view", "freerdp", "xen"):
        case.lists(each, "id-5")
    command = f"regsh get {connections_path(name)}"
    left = case.set(ONE_FILE, image_type=6, refused=command)
    removals = [line for each in ("view", "freerdp", "xen")
                for line in ([command] if each == name else removed(each, "id-5"))]
    commands = [*looked_up("freerdp"), *removals, *merged("freerdp"), *imported("freerdp"),
                *newer_defaulted("id-1")]
    assert left == Left(commands, NO_POPEN + PRUNED, document=ONE,
                        calls=Left([each for each in commands if each != command]).calls)


def test_a_type_that_is_not_contained_removes_nothing(case):
    case.lists("view", "v1")
    case.recorder.on("contains", type_path("ssh"), status=1)
    assert case.set(ONE_FILE, "ssh", image_type=6) == Left(looked_up("ssh"), typed="ssh")


# The merge prunes everything

def test_what_the_registry_still_holds_is_pruned_and_told(case):
    case.holds(export(conn("id-8", "Eight"), conn("id-9", None, key("label"))))
    assert case.set(ONE_FILE, image_type=6) == done(ONE)


@pytest.mark.parametrize("value", ["id-9", "Default", "freerdp Default"])
def test_a_default_connection_does_not_save_it(case, value):
    case.value(DEFAULT, value)
    case.holds(export(conn("id-9", "Nine"), conn("Default", "Default")))
    assert case.set(ONE_FILE, image_type=6) == done(ONE)


def test_an_empty_registry_is_told_of_in_the_same_words(case):
    case.holds(export())
    assert case.set(ONE_FILE, image_type=6) == done(ONE)


def test_a_failing_export_ends_the_merge_only(case):
    case.recorder.on("export", ..., status=1)
    left = case.set(ONE_FILE, image_type=6)
    assert left == Left([*looked_up("freerdp"), *newer_removed(), *merged("freerdp", done=False),
                         *imported("freerdp"), *newer_defaulted("id-1")], WALK_OVER, document=ONE)


# What is imported

def test_only_the_enabled_connections_are_imported(case):
    file = connections_file(TWO, entry("Office"), entry("Home", "no"))
    assert case.set(file, image_type=6) == done(ONE)


def test_a_disabled_first_connection_still_becomes_the_default(case):
    file = connections_file(TWO, entry("Office", "no"), entry("Home"))
    assert case.set(file, image_type=6) == done(export(conn("id-2", "Home")), "id-1")


def test_the_mark_of_the_default_is_not_looked_at(case):
    file = connections_file(TWO, entry("Office"), entry("Home", Default="yes"))
    assert case.set(file, image_type=6) == done(TWO, "id-1")


def test_the_configuration_of_the_file_is_kept(case):
    document = export(conn("id-1", "Office"), config="another")
    assert case.set(connections_file(document, entry("Office")), image_type=6) == done(document)
    assert case.config_reads == 0


def test_no_place_for_the_configuration_is_needed(case):
    document = Element("Profile", children=[
        registry_of(folder("connections", conn("id-1", "Office")))])
    assert case.set(connections_file(document, entry("Office")), image_type=6) == done(document)


def test_no_icons_no_theme_no_autostart(case):
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    left = case.set(ONE_FILE, image_type=6, zero=True)
    assert left == done(ONE)
    said = " ".join(text for _, text in left.commands)
    assert not any(word in said for word in ("hasDesktopIcon", "theme", "autostart"))


def test_labels_without_value_are_told_for_the_file_only(case):
    document = export(conn("id-1", None, key("label"), key("label", "Office")))
    left = case.set(connections_file(document, entry("Office")), image_type=6)
    assert left == done(document, stderr=NO_PARAM + PRUNED)


# The default connection

def test_the_separator_is_two_blanks(case):
    left = case.set(ONE_FILE, image_type=6)
    assert ("system", "regsh set root/ConnectionManager/defaultConnection  id-1") in left.commands
    assert ["regsh", "set", DEFAULT, "id-1"] in left.calls


@pytest.mark.parametrize("identifier", [None, ""], ids=["missing", "empty"])
def test_without_identifier_the_command_ends_in_its_two_blanks(case, identifier):
    document = export(conn(identifier, "Office"), conn("id-2", "Home"))
    left = case.set(connections_file(document, entry("Office")), image_type=6)
    assert left == done(export(conn(identifier, "Office")), "")
    assert left.commands[-5:] == [
        ("system", "regsh set root/ConnectionManager/defaultConnection  "),
        ("system", "regsh commit root/ConnectionManager/defaultConnection"),
        ("system", "regsh create root/ConnectionType/.toBeRefreshed"),
        ("system", "regsh delete root/ConnectionType/.toBeRefreshed"),
        ("system", "regsh commit root/ConnectionType")]
    assert left.calls[-5] == ["regsh", "set", DEFAULT]


def test_failing_commands_do_not_stop_the_others(case):
    for verb in ("set", "commit", "create", "delete", "import"):
        case.recorder.on(verb, ..., status=1)
    assert case.set(ONE_FILE, image_type=6) == done(ONE)


# 255: the file's export holds no connection

def none_found(commands, stderr, **others):
    return Left(commands, stderr, 255, log="RDP in.xml [******] [******] 0\r\nrc=-1\n", **others)


@pytest.mark.parametrize("entries", [[], [entry("Office")]], ids=["none", "one-without-directory"])
def test_an_empty_directory_is_told_after_the_import_has_run(case, entries):
    left = case.set(connections_file(export(), *entries), image_type=6)
    commands = newer("freerdp", "")[:-5]
    assert left == none_found(commands, PRUNED + WALK_OVER, document=export())
    assert commands[-1] == f"regsh commit {connections_path('freerdp')}"


def test_a_directory_of_something_else_is_empty(case):
    document = Element("Profile", children=[
        registry_of(folder("connections", key("note", "x"))), settings_of()])
    left = case.set(connections_file(document), image_type=6)
    assert left == none_found(newer("freerdp", "")[:-5], PRUNED + WALK_OVER, document=document)


@pytest.mark.parametrize("document, message", [
    (Element("Profile"), NO_REGISTRY),
    (Element("Profile", children=[Element("ProfileRegistry")]), NO_TYPE),
    (Element("Profile", children=[registry_of()]), NO_CONNECTIONS)],
    ids=["no-registry", "no-type", "no-connections"])
def test_no_directory_of_connections_is_told_twice_and_imports_nothing(case, document, message):
    left = case.set(connections_file(document, entry("Office")), image_type=6)
    assert left == none_found([*looked_up("freerdp"), *newer_removed()], 2 * message)


@pytest.mark.parametrize("remove", [False, True])
def test_no_general_is_told_twice_after_the_removal(case, remove):
    left = case.set(connections_file(None, entry("Office")), remove=remove, image_type=6)
    assert left == Left([*looked_up("freerdp"), *newer_removed()], 2 * NO_GENERAL, remove=remove)


def test_the_default_is_read_once_for_each_type_and_never_used(case):
    left = case.set(ONE_FILE, image_type=6)
    assert left.commands.count(("popen", GET_DEFAULT)) == 3
