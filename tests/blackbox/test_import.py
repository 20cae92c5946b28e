"""Import in the classic layout: every build, exact commands, exact documents, exact messages."""

import pytest

from import_run import (DEFAULT, GET_DEFAULT, GET_THEME, NO_PARAM, THEME, WALK_OVER,
                        NO_GENERAL, Element, ImportCase, Left, classic, conn, connections_file,
                        connections_path, defaulted, entry, export, folder, imported, key,
                        log_of, looked_up, merged, printed, refreshed, registry_of, settings_of,
                        spoken, started, type_path)

ONE = export(conn("id-1", "Office"))
ONE_FILE = connections_file(ONE, entry("Office"))
TWO = export(conn("id-1", "Office"), conn("id-2", "Home"))


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def done(document, *names, registry_type="freerdp", zero=False, stderr=None, **others):
    """An import that went through: one walk over the file, one over the registry's own export."""
    walks = 3 if zero else 2
    return Left(classic(registry_type, *names, zero=zero), stderr or walks * WALK_OVER,
                document=document, **others)


# Every name on every build

NEWEST = """Custom/custom ICA/xen Firefox/firefox RDP/freerdp SSH/ssh Tavrin/tavrin Telnet/telnet
            VDM/view Xdmcp/xdmcp"""
EARLY = """Custom/custom ICA/ica Firefox/iceweasel Leostream/leostream PNAgent/pnagent
           Provision/provision RDP/rdesktop RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin
           Telnet/telnet VDM/vdm Xdmcp/xdmcp"""
# Image type, product configuration "zero", names as they are with every client installed.
BUILDS = [
    (1, False, """Custom/custom ICA/ica Firefox/firefox Leostream/leostream PNAgent/pnagent
                  Provision/provision RDP/rdesktop SSH/ssh Tavrin/tavrin Telnet/telnet VDM/vdm
                  Xdmcp/xdmcp"""),
    (2, False, "RDP/RDP ICA/ICA Tavrin/Tavrin Unknown/Unknown"),
    (3, False, EARLY),
    (4, False, EARLY),
    (5, False, """Custom/custom ICA/ica Firefox/iceweasel Leostream/leostream PNAgent/pnagent
                  RDP/rdesktop RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin Telnet/telnet VDM/view
                  VWorkspace/vworkspace Xdmcp/xdmcp"""),
    (7, False, """Custom/custom ICA/xen Firefox/iceweasel Leostream/leostream PNAgent/pnagent
                  RDP/freerdp RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin Telnet/telnet VDM/view
                  VWorkspace/vworkspace Xdmcp/xdmcp"""),
    (8, False, NEWEST), (9, False, NEWEST), (10, False, NEWEST),
    (8, True, NEWEST), (9, True, NEWEST), (10, True, NEWEST),
]
NAMES = [(image_type, zero, *pair.split("/"))
         for image_type, zero, pairs in BUILDS for pair in pairs.split()]


def build_id(image_type, zero):
    return f"{image_type}{'-zero' if zero else ''}"


@pytest.mark.parametrize("remove", [False, True], ids=["merge", "remove"])
@pytest.mark.parametrize("image_type, zero, typed, registry_type", NAMES,
                         ids=[f"{build_id(*row[:2])}-{row[2]}" for row in NAMES])
def test_every_name_on_every_build(case, image_type, zero, typed, registry_type, remove):
    case.holds(export(conn("id-9", "Old")))
    left = case.set(connections_file(ONE, entry("Office"), root=typed), typed, remove,
                    image_type=image_type, zero=zero)
    config = "zero" if zero else "standard"
    assert left == Left(
        classic(registry_type, "id-1", "id-9", zero=zero, remove=remove),
        (3 if zero else 2) * WALK_OVER,
        document=export(conn("id-1", "Office"), conn("id-9", "Old"), config=config),
        typed=typed, remove=remove)


@pytest.mark.parametrize("typed, client, registry_type", [
    ("ICA", "xen", "ica"), ("Firefox", "iceweasel", "firefox"), ("RDP", "freerdp", "rdesktop")])
def test_a_client_that_is_not_installed_on_image_type_7(case, typed, client, registry_type):
    case.recorder.on("contains", type_path(client), status=1)
    assert case.set(ONE_FILE, typed, image_type=7) == done(
        ONE, registry_type=registry_type, typed=typed)


@pytest.mark.parametrize("typed", ["RDP", "freerdp"])
def test_a_display_name_and_its_registry_name_reach_the_same_directory(case, typed):
    assert case.set(ONE_FILE, typed) == done(ONE, typed=typed)


@pytest.mark.parametrize("typed", ["rdp", "Unknown", "a.b", "-f", "10"])
def test_a_name_that_no_table_knows_is_used_as_it_is(case, typed):
    assert case.set(ONE_FILE, typed) == done(ONE, registry_type=typed, typed=typed)


# What is done before anything is imported

@pytest.mark.parametrize("status", [1, 2, 127, 255])
@pytest.mark.parametrize("image_type", [6, 9])
def test_a_type_that_the_registry_does_not_contain(case, status, image_type):
    case.recorder.on("contains", type_path("ssh"), status=status)
    registry_type = "SSH" if image_type == 6 else "ssh"
    case.recorder.on("contains", type_path(registry_type), status=status)
    assert case.set(ONE_FILE, "SSH", remove=True, image_type=image_type) == Left(
        looked_up(registry_type), typed="SSH", remove=True)


def test_a_contains_test_that_a_signal_ends(case):
    case.recorder.on("contains", type_path("ssh"), signal=9)
    left = case.set(ONE_FILE, "SSH")
    # Whether the shell speaks of the signal is the shell's affair.
    left.stderr = ""
    assert left == Left(looked_up("ssh"), typed="SSH")


def test_an_empty_type_is_done_with_before_the_contains_test(case):
    left = case.set(ONE_FILE, "")
    assert left == Left(looked_up("")[:4], typed="")


def test_user_and_password_change_nothing_and_are_masked(case):
    left = case.set(ONE_FILE, arguments=["-set", "RDP", "-u", "bob", "-p", "pw1", "-f", "in.xml"])
    assert left == done(ONE)


def test_the_remove_flag_is_in_the_log(case):
    left = case.set(ONE_FILE, remove=True)
    assert left.log == "RDP in.xml [******] [******] 1\r\nrc=0\n"


@pytest.mark.parametrize("root", ["RDP", "VDM", "x", "_", "General", "Connection"])
def test_the_name_of_the_root_is_not_looked_at(case, root):
    assert case.set(connections_file(ONE, entry("Office"), root=root)) == done(ONE)


def test_the_file_may_be_anywhere(case):
    (case.device.etc / "there.xml").write_text(ONE_FILE)
    left = case.set(None, arguments=["-set", "RDP", "-f", "/etc/there.xml"])
    assert left == done(ONE, log=log_of(file="/etc/there.xml"), home=["corvik.log"])


# Which connections are kept

ENABLED = ["yes", "YES", "Yes", "yEs", " yes ", "\tyes"]
NOT_ENABLED = ["no", "NO", "true", "1", "y", "ye", "yess", "yes yes", "-", "", None]


@pytest.mark.parametrize("enabled", ENABLED)
def test_enabled(case, enabled):
    assert case.set(connections_file(ONE, entry("Office", enabled))) == done(ONE)


@pytest.mark.parametrize("enabled", NOT_ENABLED)
def test_not_enabled(case, enabled):
    assert case.set(connections_file(ONE, entry("Office", enabled))) == done(export())


@pytest.mark.parametrize("name", [None, "", "   "])
def test_a_connection_without_name_is_ignored(case, name):
    document = export(conn("id-1", ""), conn("id-2", "Home"))
    left = case.set(connections_file(document, entry(name), entry("Home")))
    assert left == done(export(conn("id-2", "Home")))


def test_all_disabled_leaves_only_what_the_registry_holds(case):
    case.holds(export(conn("id-8", "Eight"), conn("id-9", "Nine")))
    left = case.set(connections_file(TWO, entry("Office", "no"), entry("Home", "no")))
    assert left == done(export(conn("id-8", "Eight"), conn("id-9", "Nine")))


def test_no_connection_elements_at_all(case):
    case.holds(ONE)
    assert case.set(connections_file(TWO)) == done(ONE)


def test_of_two_directories_of_one_label_the_first_is_kept(case):
    document = export(conn("id-1", "A"), conn("id-2", "A"))
    assert case.set(connections_file(document, entry("a"))) == done(export(conn("id-1", "A")))


def test_a_name_that_is_enabled_twice_keeps_two_directories(case):
    document = export(conn("id-1", "A"), conn("id-2", "a"), conn("id-3", "A"))
    left = case.set(connections_file(document, entry("A"), entry("B"), entry("a", "YES")))
    assert left == done(export(conn("id-1", "A"), conn("id-2", "a")))


def test_one_enabled_and_one_disabled_of_a_name_keep_one_directory(case):
    document = export(conn("id-1", "A"), conn("id-2", "A"))
    left = case.set(connections_file(document, entry("A", "no"), entry("A")))
    assert left == done(export(conn("id-1", "A")))


@pytest.mark.parametrize("label, name", [
    ("Office", "OFFICE"), ("OFFICE", "office"), ("oFFice", "OffIce"), ("a b", "A   B"),
    ("x[{}]", "X[{}]"), ("Tom & <Jerry>", "tom & <jerry>"), ("Größe", "GRößE")])
def test_labels_are_compared_without_case(case, label, name):
    document = export(conn("id-1", label))
    assert case.set(connections_file(document, entry(name))) == done(document)


@pytest.mark.parametrize("label, name", [
    ("Office", "Offic"), ("Offic", "Office"), ("Office", "0ffice"), ("Größe", "GRÖSSE"),
    ("Größe", "GRÖßE"), ("@", "`"), ("[", "{"), ("Office", "Of fice")])
def test_labels_that_differ(case, label, name):
    document = export(conn("id-1", label))
    assert case.set(connections_file(document, entry(name))) == done(export())


@pytest.mark.parametrize("name", ["New freerdp", "NEW FREERDP"])
def test_a_directory_without_label_is_found_by_the_name_of_its_type(case, name):
    document = export(conn("id-1", None, key("host", "h")), conn("id-2", "New RDP"))
    assert case.set(connections_file(document, entry(name))) == done(
        export(conn("id-1", None, key("host", "h"))))


def test_the_order_is_that_of_the_export_not_of_the_names(case):
    document = export(*(conn(f"id-{each}", each) for each in "abcd"))
    left = case.set(connections_file(document, entry("d"), entry("b"), entry("a")))
    assert left == done(export(conn("id-a", "a"), conn("id-b", "b"), conn("id-d", "d")))


def test_connections_behind_general_and_foreign_elements_count(case):
    file = Element("RDP", {"version": "1"}, [
        Element("General", text=ONE.printed()), Element("Note", text="x"), entry("Office"),
        Element("General", text="second")])
    assert case.set(file.printed()) == done(ONE)


@pytest.mark.parametrize("name", ["connection", "CONNECTION", "Conn"])
def test_names_of_elements_count_with_their_case(case, name):
    file = Element("RDP", {}, [Element(name, {"Name": "Office", "Enabled": "yes"}),
                               Element("Connection", {"name": "Office", "enabled": "yes"}),
                               Element("General", text=ONE.printed())])
    assert case.set(file.printed()) == done(export())


def test_further_directories_of_type_and_connection_are_carried_along(case):
    inner = conn("id-1", "Office", folder("display", key("size", "full"), folder("deeper")),
                 key("password", " "), Element("Other", {"a": "b"}, text="c"))
    inner.children[2].children[0].text = ""
    assert case.set(connections_file(export(inner), entry("Office"))) == done(export(inner))


# Labels without value

def test_label_keys_without_value_are_told_and_passed(case):
    document = export(conn("id-1", None, key("label"), key("label"), key("label", "Office")))
    assert case.set(connections_file(document, entry("Office"))) == done(
        document, stderr=2 * NO_PARAM + 2 * WALK_OVER)


def test_label_keys_without_value_in_the_registry_are_told_in_the_merge(case):
    existing = conn("id-9", None, key("label"))
    case.holds(export(existing))
    assert case.set(ONE_FILE) == done(
        export(conn("id-1", "Office"), existing), stderr=WALK_OVER + NO_PARAM + WALK_OVER)


def test_directories_that_are_dropped_are_told_of_too(case):
    document = export(conn("id-1", None, key("label")), conn("id-2", None, key("label")))
    assert case.set(connections_file(document, entry("New freerdp"))) == done(
        export(conn("id-1", None, key("label"))), stderr=2 * NO_PARAM + 2 * WALK_OVER)


def test_an_empty_label_is_a_label(case):
    document = export(conn("id-1", ""), conn("id-2", "Home"))
    assert case.set(connections_file(document, entry("New freerdp"))) == done(export())


def test_keys_without_name_and_with_an_empty_one_are_no_labels(case):
    document = export(conn("id-1", None, Element("NodeKey", {}, [Element("NodeParam", text="x")]),
                           key("", "y"), key("Label", "z"), key("label", "Office")))
    assert case.set(connections_file(document, entry("Office"))) == done(document)


def test_the_first_label_with_a_value_counts(case):
    document = export(conn("id-1", "Office", key("label", "Home"), key("label")))
    assert case.set(connections_file(document, entry("Home"), entry("Office"))) == done(document)


# The merge

def test_what_only_the_registry_holds_is_appended_in_its_order(case):
    case.holds(export(conn("id-7", "Seven"), conn("id-1", "Old office"), conn("id-5", "Five")))
    assert case.set(ONE_FILE) == done(
        export(conn("id-1", "Office"), conn("id-7", "Seven"), conn("id-5", "Five")))


@pytest.mark.parametrize("identifier", ["ID-1", "id-1x", "id-", "Id-1"])
def test_identifiers_are_compared_with_their_case(case, identifier):
    case.holds(export(conn(identifier, "Office")))
    assert case.set(ONE_FILE) == done(export(conn("id-1", "Office"), conn(identifier, "Office")))


def test_a_disabled_connection_of_the_file_survives_as_the_registry_has_it(case):
    case.holds(export(conn("id-2", "Home of old")))
    left = case.set(connections_file(TWO, entry("Office"), entry("Home", "no")))
    assert left == done(export(conn("id-1", "Office"), conn("id-2", "Home of old")))


def test_directories_without_name_are_not_merged(case):
    case.holds(export(conn(None, "Nameless"), conn("id-9", "Nine")))
    assert case.set(ONE_FILE) == done(export(conn("id-1", "Office"), conn("id-9", "Nine")))


def test_a_directory_without_name_in_the_file_is_kept_by_its_label(case):
    document = export(conn(None, "Office"))
    assert case.set(connections_file(document, entry("Office"))) == done(document)


def test_an_empty_identifier_is_one(case):
    case.holds(export(conn("", "Old"), conn("id-9", "Nine")))
    document = export(conn("", "Office"))
    assert case.set(connections_file(document, entry("Office"))) == done(
        export(conn("", "Office"), conn("id-9", "Nine")))


def test_what_the_registry_holds_twice_is_appended_once(case):
    case.holds(export(conn("id-9", "Nine"), conn("id-9", "Nine again")))
    assert case.set(ONE_FILE) == done(export(conn("id-1", "Office"), conn("id-9", "Nine")))


def test_what_the_file_holds_twice_stays_twice(case):
    document = export(conn("id-1", "Office"), conn("id-1", "Home"))
    case.holds(export(conn("id-1", "Old")))
    assert case.set(connections_file(document, entry("Office"), entry("Home"))) == done(document)


def test_connections_are_merged_with_everything_in_them(case):
    existing = conn("id-9", "Tom & <Jerry> \"it's\"", key("empty", ""), key("none"),
                    folder("display", key("size", "a & b"), folder("deeper", key("x", "1"))))
    case.holds(export(existing))
    assert case.set(ONE_FILE) == done(export(conn("id-1", "Office"), existing))


def test_a_registry_without_connections_is_told_of(case):
    case.holds(export())
    assert case.set(ONE_FILE) == done(ONE, stderr=2 * WALK_OVER + NO_GENERAL)


def test_only_the_directory_named_connections_is_merged(case):
    case.holds(Element("Profile", children=[registry_of(
        folder("first", conn("id-8", "Eight")), folder("connections", conn("id-9", "Nine")),
        folder("connections", conn("id-7", "Seven")))]))
    assert case.set(ONE_FILE) == done(export(conn("id-1", "Office"), conn("id-9", "Nine")))


def test_a_nameless_directory_of_connections_is_taken(case):
    document = Element("Profile", children=[
        registry_of(folder("first"), folder(None, conn("id-1", "Office")),
                    folder("connections", conn("id-2", "Home"))), settings_of()])
    left = case.set(connections_file(document, entry("Office"), entry("Home")))
    assert left == done(document)


def test_a_banner_before_the_registrys_export_does_no_harm(case):
    case.holds("regsh 1.2 exports\n\n" + printed(export(conn("id-9", "Nine"))))
    assert case.set(ONE_FILE) == done(export(conn("id-1", "Office"), conn("id-9", "Nine")))


# The document

FILE_BYTES = (
    '<?xml version="1.0"?>\n'
    "<RDP>\n"
    "<Connection Name='  the   Office ' Enabled='yes'></Connection>\n"
    '<General>&lt;?xml version="1.0" encoding="UTF-8"?&gt;'
    "&lt;!DOCTYPE  p&gt;&lt;!-- made\tby  hand --&gt;\n"
    "&lt;Profile a='1'&gt;&lt;ProfileRegistry&gt;&lt;NodeDir name='type' path='p'&gt;"
    "&lt;NodeDir name='connections'&gt;"
    "&lt;NodeDir name='id-1'&gt;&lt;NodeKey name='label' kind='x'&gt;"
    "&lt;NodeParam type='string'&gt; the\n Office &lt;/NodeParam&gt;&lt;/NodeKey&gt;"
    "&lt;!----&gt;&lt;/NodeDir&gt;"
    "&lt;NodeDir name='id-2'&gt;&lt;NodeKey name='label'&gt;"
    "&lt;NodeParam&gt;Tom &amp;amp; Jerry&lt;/NodeParam&gt;&lt;/NodeKey&gt;&lt;/NodeDir&gt;"
    "&lt;/NodeDir&gt;trailing  &amp;lt; text&lt;/NodeDir&gt;&lt;/ProfileRegistry&gt;"
    "&lt;ProfileSettings&gt;&lt;Target&gt;&lt;Config&gt;zero&lt;/Config&gt;"
    "&lt;/Target&gt;&lt;/ProfileSettings&gt;&lt;/Profile&gt;</General>\n"
    "</RDP>\n")

DOCUMENT_BYTES = (
    '<?xml version="1.0" encoding="UTF-8" ?>\n'
    "<!DOCTYPE p>\n"
    "<!-- made by hand -->\n"
    '<Profile a="1">\n'
    "  <ProfileRegistry>\n"
    '    <NodeDir name="type" path="p">trailing < text\n'
    '      <NodeDir name="connections">\n'
    '        <NodeDir name="id-1">\n'
    '          <NodeKey name="label" kind="x">\n'
    '            <NodeParam type="string">the Office</NodeParam>\n'
    "          </NodeKey>\n"
    "          <!-- -->\n"
    "        </NodeDir>\n"
    "      </NodeDir>\n"
    "    </NodeDir>\n"
    "  </ProfileRegistry>\n"
    "  <ProfileSettings>\n"
    "    <Target>\n"
    "      <Config>standard</Config>\n"
    "    </Target>\n"
    "  </ProfileSettings>\n"
    "</Profile>\n")


def test_the_document_byte_for_byte(case):
    assert case.set(FILE_BYTES) == done(DOCUMENT_BYTES)


def test_an_earlier_document_is_replaced(case):
    (case.device.tmp / "import.xml").write_bytes(b"x" * 100000)
    assert case.set(ONE_FILE) == done(ONE)


def test_other_files_in_tmp_stay_and_a_stale_export_goes(case):
    (case.device.tmp / "freerdp.xml").write_text("stale")
    (case.device.tmp / "view.xml").write_text("mine")
    assert case.set(ONE_FILE) == done(ONE, tmp=["import.xml", "view.xml"])
    assert (case.device.tmp / "view.xml").read_text() == "mine"


def test_bytes_that_are_no_text_pass_through(case):
    label = "\udc80\udcff \udcfe"
    document = export(conn("id-1", label))
    assert case.set(connections_file(document, entry(label))) == done(document)


SYSTEMINFO = 'PRODUCT_NAME="Sylvex"\nPRODUCT_VERSION="{}.1"\n'


@pytest.mark.parametrize("image_type, zero", [(8, False), (9, False), (10, False), (8, True),
                                              (9, True), (10, True)],
                         ids=lambda value: str(value))
def test_the_devices_own_configuration_is_put_in(case, image_type, zero):
    file = connections_file(export(conn("id-1", "Office"), config="another"), entry("Office"))
    wanted = export(conn("id-1", "Office"), config="zero" if zero else "standard")
    assert case.set(file, image_type=image_type, zero=zero) == done(wanted, "id-1", zero=zero)


@pytest.mark.parametrize("image_type", [1, 3, 4, 5, 7])
def test_older_builds_leave_the_configuration_alone(case, image_type):
    document = export(conn("id-1", "Office"), config="another")
    left = case.set(connections_file(document, entry("Office")), "SSH", image_type=image_type)
    assert left == done(document, registry_type="ssh", typed="SSH")
    assert case.config_reads == 0


@pytest.mark.parametrize("image_type", [1, 5, 7])
def test_older_builds_need_no_place_for_the_configuration(case, image_type):
    document = Element("Profile", children=[registry_of(folder("connections", conn("i", "L")))])
    left = case.set(connections_file(document, entry("L")), "SSH", image_type=image_type)
    assert left == done(document, registry_type="ssh", typed="SSH")


@pytest.mark.parametrize("line, config", [
    ("", ""), ('PRODUCT_CONFIG=""\n', ""), ('PRODUCT_CONFIG="Standard"\n', "Standard"),
    ('# PRODUCT_CONFIG is "own"\nPRODUCT_CONFIG="standard"\n', "own"),
    ('PRODUCT_CONFIG="ZERO"\n', "ZERO"),
])
def test_the_configuration_is_the_first_quoted_word_of_its_line(case, line, config):
    left = case.set(ONE_FILE, systeminfo=line + SYSTEMINFO.format(6))
    assert left == done(export(conn("id-1", "Office"), config=config))


def test_the_first_of_each_level_holds_the_configuration(case):
    def document(first):
        return Element("Profile", children=[
            registry_of(folder("connections", conn("id-1", "Office"))),
            Element("ProfileSettings", children=[
                Element("Other"), Element("Target", children=[
                    Element("Config", {"kept": "1"}, text=first), Element("Config", text="b")]),
                Element("Target", children=[Element("Config", text="c")])]),
            settings_of("d")])

    left = case.set(connections_file(document("a"), entry("Office")))
    assert left == done(document("standard"))


# The desktop icons

def icons(**values):
    return [*looked_up("freerdp"), *merged("freerdp"), *imported("freerdp"),
            *refreshed("freerdp", **values)]


def iconed(**values):
    return Left(icons(**values), 2 * WALK_OVER, document=ONE)


ICON = connections_path("freerdp") + "/{}/hasDesktopIcon"


def test_each_connections_icon_is_written_back(case):
    case.lists("freerdp", "a", "b", "c")
    for name, value in (("a", "1"), ("b", "0"), ("c", "yes")):
        case.value(ICON.format(name), value)
    assert case.set(ONE_FILE) == iconed(a="1", b="0", c="yes")


@pytest.mark.parametrize("answer, value", [
    ("", ""), ("path\n", ""), ("path \n", ""), ("path 1", "1"), ("path 1 2 3\n", "1"),
    ("  path\t 1\t\n", "1"), ("path 1\npath 2\n", "1"), ("\npath 1\n", ""), ("\n", ""),
])
def test_the_value_of_an_icon_is_the_second_word_of_the_first_line(case, answer, value):
    case.lists("freerdp", "a")
    case.recorder.on("get", ICON.format("a"), stdout=answer)
    assert case.set(ONE_FILE) == iconed(a=value)


def test_an_icon_without_value_leaves_a_blank_at_the_end_of_the_command(case):
    case.lists("freerdp", "a")
    left = case.set(ONE_FILE)
    assert ("system", f"regsh set {ICON.format('a')} ") in left.commands
    assert ["regsh", "set", ICON.format("a")] in left.calls


LISTING = connections_path("freerdp")


@pytest.mark.parametrize("line", [
    "dir {}\n", "dir {}", "  dir   {}  \n", "dir\t{}\r\n", "\tdir \t {}\n", "key {}\n",
    "{0} {0}\n"])
def test_listing_lines_of_two_words_are_used(case, line):
    case.lists("freerdp", line.format(LISTING + "/a"))
    assert case.set(ONE_FILE) == iconed(a="")


@pytest.mark.parametrize("line", [
    "{}\n", "dir {} x\n", "dir\n", "\n", "   \n", " \t \n", "a b c d\n"])
def test_listing_lines_of_other_counts_are_not(case, line):
    case.lists("freerdp", line.format(LISTING + "/a"))
    assert case.set(ONE_FILE) == iconed()


def test_only_the_fitting_lines_of_a_mixed_listing_are_used(case):
    case.lists("freerdp", "one\n", f"dir {LISTING}/a\n", "x y z\n", "\n", f"dir {LISTING}/b")
    assert case.set(ONE_FILE) == iconed(a="", b="")


def test_the_paths_are_those_of_the_listing(case):
    case.lists("freerdp", "dir elsewhere/x\n")
    assert case.set(ONE_FILE) == Left(
        [*icons(), "regsh get elsewhere/x/hasDesktopIcon",
         "regsh set elsewhere/x/hasDesktopIcon ", "regsh commit elsewhere/x"],
        2 * WALK_OVER, document=ONE)


@pytest.mark.parametrize("status", [1, 255])
def test_no_status_of_the_client_is_looked_at(case, status):
    for verb in ("set", "get", "commit", "import", "delete"):
        case.recorder.on(verb, ..., status=status)
    case.recorder.on("get", connections_path("freerdp"), status=status,
                     stdout=f"dir {LISTING}/a\n")
    left = case.set(ONE_FILE, remove=True)
    assert left == Left(
        [*looked_up("freerdp"), f"regsh get {LISTING}", GET_DEFAULT,
         f"regsh delete {LISTING}/a\n", f"regsh commit {LISTING}", "regsh commit",
         *merged("freerdp"), *imported("freerdp"), *refreshed("freerdp", a="")],
        2 * WALK_OVER, document=ONE, remove=True)


def test_what_the_client_says_is_passed_on(case):
    case.recorder.on("import", ..., stdout="imported\n", stderr="but look\n")
    case.recorder.on("get", LISTING, stderr="a reading\n")
    left = case.set(ONE_FILE)
    assert left == done(ONE, stdout="imported\n",
                        stderr=2 * WALK_OVER + "but look\n" + "a reading\n")


# Zero clients: autostart

def test_every_connection_of_the_document_stops_starting_by_itself(case):
    case.holds(export(conn("id-8", "Eight"), conn("id-9", "Nine")))
    file = connections_file(TWO, entry("Office"), entry("Home", "no"))
    left = case.set(file, zero=True)
    assert left == done(export(conn("id-1", "Office"), conn("id-8", "Eight"), conn("id-9", "Nine"),
                               config="zero"), "id-1", "id-8", "id-9", zero=True)


def test_directories_without_name_are_left_out_of_that(case):
    document = export(conn(None, "A"), conn("id-2", "B"), config="zero")
    left = case.set(connections_file(document, entry("A"), entry("B")), zero=True)
    assert left == done(document, "id-2", zero=True)


def test_an_empty_import_still_commits(case):
    left = case.set(connections_file(ONE, entry("Office", "no")), zero=True)
    assert left == done(export(config="zero"), zero=True)


@pytest.mark.parametrize("config", ["ZERO", "zERO"])
def test_a_configuration_in_other_letters_makes_no_zero_client(case, config):
    info = f'PRODUCT_CONFIG="{config}"\n' + SYSTEMINFO.format(6)
    assert case.set(ONE_FILE, systeminfo=info) == done(export(conn("id-1", "Office"),
                                                              config=config))


def test_zero_with_a_capital_makes_one(case):
    info = 'PRODUCT_CONFIG="Zero"\n' + SYSTEMINFO.format(7)
    assert case.set(ONE_FILE, systeminfo=info) == done(
        export(conn("id-1", "Office"), config="Zero"), "id-1", zero=True)


def test_all_commands_of_a_zero_client_in_order(case):
    case.holds(export(conn("id-9", "Nine")))
    case.lists("freerdp", "id-1", "id-9")
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    case.value(ICON.format("id-1"), "1").value(ICON.format("id-9"), "0")
    file = connections_file(ONE, entry("Office", Default="yes"))
    left = case.set(file, remove=True, zero=True)
    path = connections_path("freerdp")
    assert left == Left(
        ["regsh contains root/ConnectionType/freerdp", "regsh contains root/ConnectionType/xen",
         "regsh contains root/ConnectionType/iceweasel",
         "regsh contains root/ConnectionType/freerdp",
         "regsh contains root/ConnectionType/freerdp",
         f"regsh get {path}", "regsh get root/ConnectionManager/defaultConnection",
         f"regsh delete {path}/id-1\n",
         'regsh set root/ConnectionManager/defaultConnection ""',
         "regsh set root/background/desktop/theme default",
         f"regsh delete {path}/id-9\n", f"regsh commit {path}", "regsh commit",
         "rm -f /tmp/freerdp.xml;regsh export root/ConnectionType/freerdp /tmp/freerdp.xml",
         "regsh get root/ConnectionManager/defaultConnection", "rm -f /tmp/freerdp.xml",
         "regsh import /tmp/import.xml", f"regsh commit {path}",
         f"regsh set {path}/id-1/autostart 0", f"regsh set {path}/id-9/autostart 0",
         "regsh commit",
         f"regsh get {path}", f"regsh get {path}/id-1/hasDesktopIcon",
         f"regsh set {path}/id-1/hasDesktopIcon 1", f"regsh commit {path}/id-1",
         f"regsh get {path}/id-9/hasDesktopIcon", f"regsh set {path}/id-9/hasDesktopIcon 0",
         f"regsh commit {path}/id-9",
         "regsh get root/ConnectionManager/defaultConnection",
         "regsh set root/ConnectionManager/defaultConnection\tid-1",
         "regsh set root/background/desktop/theme freerdp", "regsh commit",
         "regsh get root/ConnectionManager/defaultConnection",
         "regsh get root/background/desktop/theme",
         f"regsh set {path}/id-1/autostart 1", "regsh commit"],
        3 * WALK_OVER, remove=True,
        document=export(conn("id-1", "Office"), conn("id-9", "Nine"), config="zero"))


def test_a_zero_client_without_default_stops_before_the_theme(case):
    case.value(THEME, "freerdp")
    assert case.set(ONE_FILE, zero=True) == done(
        export(conn("id-1", "Office"), config="zero"), "id-1", zero=True)


def test_a_zero_client_without_theme_starts_nothing(case):
    case.value(DEFAULT, "id-1")
    expected = done(export(conn("id-1", "Office"), config="zero"), "id-1", zero=True)
    expected.commands += [spoken(GET_THEME)]
    expected.calls += [["regsh", "get", THEME]]
    assert case.set(ONE_FILE, zero=True) == expected


def test_the_default_of_another_type_is_started_by_its_theme(case):
    case.value(DEFAULT, "other-1").value(THEME, "xen and more")
    left = case.set(ONE_FILE, zero=True)
    assert left == Left(
        [*classic("freerdp", "id-1", zero=True)[:-1], *started("xen", "other-1")],
        3 * WALK_OVER, document=export(conn("id-1", "Office"), config="zero"))


@pytest.mark.parametrize("image_type", [8, 9, 10])
def test_default_and_start_on_each_zero_client(case, image_type):
    case.value(DEFAULT, "id-2").value(THEME, "freerdp")
    file = connections_file(TWO, entry("Office"), entry("Home", Default="yes"))
    left = case.set(file, zero=True, image_type=image_type)
    assert left == Left(
        [*classic("freerdp", "id-1", "id-2", zero=True)[:-1], *defaulted("freerdp", "id-2"),
         *started("freerdp", "id-2")],
        3 * WALK_OVER,
        document=export(conn("id-1", "Office"), conn("id-2", "Home"), config="zero"))


@pytest.mark.parametrize("image_type", [1, 4, 5, 7, 8, 9, 10])
def test_no_default_and_no_start_elsewhere(case, image_type):
    case.value(DEFAULT, "id-1").value(THEME, "ssh")
    file = connections_file(ONE, entry("Office", Default="yes"))
    left = case.set(file, "SSH", image_type=image_type)
    assert left == done(ONE, registry_type="ssh", typed="SSH")
