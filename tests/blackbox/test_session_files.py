"""Import of the terminal emulator: which session files are written, where, with what in them."""

import pytest

from import_run import (NO_GENERAL, WALK_OVER, Element, ImportCase, Left, classic, conn,
                        connections_file, entry, export, folder, imported, key, looked_up, merged,
                        newer_defaulted, newer_removed, printed, refreshed, registry_of)

NO_KSS_FILE = "Could not find KSSFile. \n"
UNPARSED = "Parse xml failed.\n"
FOLDER = "/etc/tavrin/connections/"
ONE = export(conn("id-1", "A"))


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def tavrin(*entries, document=ONE):
    return connections_file(document, *entries, root="Tavrin")


def written(stderr="", document=ONE, typed="Tavrin", registry_type="tavrin", **sessions):
    """An import that left these session files; a double underscore stands for the dot."""
    files = {name.replace("__", "."): text for name, text in sessions.items()}
    return Left(classic(registry_type), stderr + 2 * WALK_OVER, document=document, typed=typed,
                sessions=files)


def test_both_files_are_written(case):
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", "<kss/>"), ("WS", "<ws/>")])),
                    "Tavrin")
    assert left == written(a__kss="<kss/>", a__ws="<ws/>")


def test_the_text_is_written_decoded_and_condensed_without_the_element(case):
    file = tavrin(Element("Connection", {"Name": "A", "Enabled": "yes", "KSSFile": "a"}, [
        Element("KSS", {"kept": "no"}, text="<?xml version=\"1.0\"?> <a b='1'> x &amp; y </a>"),
        Element("WS", text="size 80x24 \"quoted\" it's")]))
    file = file.replace("size 80x24", "\n  size\t 80x24\n")
    left = case.set(file, "Tavrin")
    assert left == written(a__kss="<?xml version=\"1.0\"?> <a b='1'> x &amp; y </a>",
                           a__ws="size 80x24 \"quoted\" it's")


def test_bytes_that_are_no_text_reach_the_file(case):
    text = "\udc80\udcff \u00fc & < > ' \""
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", text)])), "Tavrin")
    assert left == written(a__kss=text)


def test_empty_session_texts_give_empty_files(case):
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", ""), ("WS", "")])), "Tavrin")
    assert left == written(a__kss="", a__ws="")


def test_a_disabled_connections_files_are_written_though_it_is_not_imported(case):
    left = case.set(tavrin(entry("A", "no", KSSFile="a", children=[("KSS", "k")])), "Tavrin")
    assert left == written(a__kss="k", document=export())


@pytest.mark.parametrize("enabled", ["maybe", "NO", "1", "true"])
def test_any_enabled_value_is_enough_for_the_files(case, enabled):
    left = case.set(tavrin(entry("A", enabled, KSSFile="a", children=[("KSS", "k")])), "Tavrin")
    assert left == written(a__kss="k", document=export())


@pytest.mark.parametrize("attributes", [
    {"name": None}, {"name": ""}, {"name": "A", "enabled": None}, {"name": "A", "enabled": ""}],
    ids=["no-name", "empty-name", "no-enabled", "empty-enabled"])
def test_a_connection_without_name_or_enabled_is_ignored_entirely(case, attributes):
    left = case.set(tavrin(entry(KSSFile="a", children=[("KSS", "k"), ("WS", "w")], **attributes)),
                    "Tavrin")
    assert left == written(document=export())


def test_a_ws_without_kss_writes_nothing(case):
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("WS", "w")])), "Tavrin")
    assert left == written()


def test_a_kss_without_ws_writes_one_file_and_leaves_the_other(case):
    (case.device.sessions / "a.ws").write_text("before")
    (case.device.sessions / "a.kss").write_text("before, and longer than what comes")
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", "k")])), "Tavrin")
    assert left == written(a__kss="k", a__ws="before")


def test_only_the_first_kss_and_ws_count(case):
    children = [("WS", "w"), ("KSS", "k"), ("KSS", "k2"), ("WS", "w2")]
    left = case.set(tavrin(entry("A", KSSFile="a", children=children)), "Tavrin")
    assert left == written(a__kss="k", a__ws="w")


def test_names_of_elements_count_with_their_case(case):
    children = [("kss", "k"), ("Ws", "w")]
    left = case.set(tavrin(entry("A", KSSFile="a", children=children)), "Tavrin")
    assert left == written()


def test_the_name_of_the_terminal_is_not_read(case):
    document = export(conn("id-1", "A"), conn("id-2", "B"))
    file = tavrin(entry("A", TavrinName="B", KSSFile="a", children=[("KSS", "k")]), document=document)
    assert case.set(file, "Tavrin") == written(a__kss="k", document=ONE)


@pytest.mark.parametrize("name, comes_back_as", [
    ("abc.kss", "abc.kss"), ("abc.xml", "abc.kss"), ("abc", "abc.kss"), ("a.b.kss", "a.kss")])
def test_an_exported_session_comes_back_under_a_name_of_its_own(case, name, comes_back_as):
    connections = folder("connections", conn("id-1", "A", key("kssName", name)))
    case.holds(Element("Profile", children=[registry_of(connections)]))
    (case.device.sessions / name).write_text("<kss/>")
    assert case.device.corvik("-get", "Tavrin", "-f", "in.xml").status == 0
    (case.device.sessions / name).unlink()
    assert case.set(None, "Tavrin").sessions == {comes_back_as: "<kss/>"}


def test_several_connections_and_a_name_used_twice(case):
    left = case.set(tavrin(
        entry("A", KSSFile="a", children=[("KSS", "1")]),
        entry("B", "no", KSSFile="b", children=[("KSS", "2"), ("WS", "3")]),
        entry("C", KSSFile="a", children=[("KSS", "4")])), "Tavrin")
    assert left == written(a__kss="4", b__kss="2", b__ws="3")


@pytest.mark.parametrize("typed", ["Tavrin", "tavrin"])
@pytest.mark.parametrize("image_type", [1, 5, 7, 9])
def test_display_name_and_registry_name_write_files(case, typed, image_type):
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", "k")])), typed,
                    image_type=image_type)
    assert left == written(a__kss="k", typed=typed)


@pytest.mark.parametrize("typed", ["TAVRIN", "tavriN", "tavrin2", "tavri", "RDP"])
def test_other_types_write_none(case, typed):
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", "k")])), typed)
    assert left == written(typed=typed, registry_type="freerdp" if typed == "RDP" else typed)


def test_where_no_table_knows_the_name_the_display_name_writes_none(case):
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", "k")])), "Tavrin",
                    image_type=2)
    assert left == written(registry_type="Tavrin")


@pytest.mark.parametrize("typed, sessions", [("tavrin", {"a.kss": "k"}), ("Tavrin", {})])
def test_the_newer_layout_knows_the_registry_name_only(case, typed, sessions):
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", "k")])), typed, image_type=6)
    assert left == Left(
        [*looked_up(typed), *newer_removed(), *merged(typed), *imported(typed),
         *newer_defaulted("id-1")], 2 * WALK_OVER + NO_GENERAL, document=ONE, typed=typed,
        sessions=sessions)


def test_no_general_no_files(case):
    left = case.set(connections_file(None, entry("A", KSSFile="a", children=[("KSS", "k")])),
                    "Tavrin")
    assert left == Left([*looked_up("tavrin"), *refreshed("tavrin")], NO_GENERAL, typed="Tavrin")


@pytest.mark.parametrize("general", ["", "<x", "hello"])
def test_files_are_written_before_the_export_is_looked_at(case, general):
    file = connections_file(general, entry("A", KSSFile="a", children=[("KSS", "k")]))
    left = case.set(file, "Tavrin", remove=False)
    assert left == Left(looked_up("tavrin"), status=52, typed="Tavrin", sessions={"a.kss": "k"})


def test_files_are_written_after_the_removal_and_before_the_merge(case):
    # The merge reads session files back, so it sees the new one.
    existing = conn("id-9", "Nine", key("kssName", "a.kss"))
    case.holds(Element("Profile", children=[registry_of(folder("connections", existing))]))
    (case.device.sessions / "a.kss").write_text("not well-formed")
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", "<new/>")])), "Tavrin",
                    remove=True)
    assert left == Left(
        classic("tavrin", remove=True), 2 * WALK_OVER + f"read file {FOLDER}a.ws fail\n",
        typed="Tavrin", remove=True, sessions={"a.kss": "<new/>"},
        document=export(conn("id-1", "A"), existing))


# The name of the file

SAFE_NAMES = ["a", "a b", "a.b", ".a", "a..b", "..a", "a..", "...", "-rf", "$(touch x)", "a;b",
              "a'b", 'a"b', "a*", "~", "a\\b", "\u00fc", "\udc80", "%s%n", "x" * 200, "&", "<b>"]


@pytest.mark.parametrize("name", SAFE_NAMES, ids=range(len(SAFE_NAMES)))
def test_a_name_is_used_as_it_is(case, name):
    children = [("KSS", "k"), ("WS", "w")]
    left = case.set(tavrin(entry("A", KSSFile=name, children=children)), "Tavrin")
    expected = written()
    expected.sessions = {name + ".kss": "k", name + ".ws": "w"}
    assert left == expected


def test_blanks_of_a_name_are_condensed_as_in_every_attribute(case):
    left = case.set(tavrin(entry("A", KSSFile="  a \t b ", children=[("KSS", "k")])), "Tavrin")
    expected = written()
    expected.sessions = {"a b.kss": "k"}
    assert left == expected


def test_an_empty_name_is_used_as_it_is(case):
    children = [("KSS", "k"), ("WS", "w")]
    left = case.set(tavrin(entry("A", KSSFile="", children=children)), "Tavrin")
    expected = written()
    expected.sessions = {".kss": "k", ".ws": "w"}
    assert left == expected


def test_a_missing_name_skips_the_files_of_that_connection_only(case):
    left = case.set(tavrin(entry("A", children=[("KSS", "k"), ("WS", "w")]),
                           entry("B", KSSFile="b", children=[("KSS", "k")])), "Tavrin")
    assert left == written(NO_KSS_FILE, b__kss="k")


def test_a_missing_name_without_kss_is_not_told(case):
    assert case.set(tavrin(entry("A", children=[("WS", "w")])), "Tavrin") == written()


def test_each_missing_name_is_told(case):
    entries = [entry(name, children=[("KSS", "k")]) for name in "ABA"]
    assert case.set(tavrin(*entries), "Tavrin") == written(3 * NO_KSS_FILE)


LEAVING = ["..", "../x", "a/../b", "/..", "../../home", "a/..", "./..", "//../x", "/../../tmp/x",
           "../connections/a", "a//..//b"]


@pytest.mark.parametrize("name", LEAVING)
def test_a_name_that_leaves_the_folder_is_refused(case, name):
    (case.device.sessions / "a").mkdir()
    before = tree(case.device)
    children = [("KSS", "k"), ("WS", "w")]
    left = case.set(tavrin(entry("A", KSSFile=name, children=children),
                           entry("B", "no", KSSFile="b", children=[("KSS", "k")])), "Tavrin")
    assert left == written(f"Invalid session file name {name}.\n", b__kss="k")
    assert tree(case.device) - before == {"etc/tavrin/connections/b.kss", "tmp/import.xml",
                                          "home/in.xml", "home/corvik.log"}


def tree(device):
    """All files of the device that a program on it could have made."""
    return {str(path.relative_to(device.folder)) for top in (device.etc, device.tmp, device.home)
            for path in top.rglob("*")}


@pytest.mark.parametrize("name, path", [
    ("/b", "b.kss"), ("//b", "b.kss"), ("/etc/b", None), ("sub/b", "sub/b.kss"),
    ("./b", "b.kss"), ("sub/./b", "sub/b.kss"), ("sub/.b", "sub/.b.kss")])
def test_slashes_stay_below_the_folder(case, name, path):
    (case.device.sessions / "sub").mkdir()
    left = case.set(tavrin(entry("A", KSSFile=name, children=[("KSS", "k")])), "Tavrin")
    expected = written("" if path else f"Write file {FOLDER}{name}.kss fail.\n")
    expected.sessions = {path: "k"} if path else {}
    assert left == expected


# Files that cannot be written

def test_a_missing_folder_is_told_for_each_file_and_not_made(case):
    children = [("KSS", "k"), ("WS", "w")]
    left = case.set(tavrin(entry("A", KSSFile="a", children=children),
                           entry("B", KSSFile="b", children=children)), "Tavrin",
                    before="rmdir /etc/tavrin/connections")
    assert left == written("".join(f"Write file {FOLDER}{name} fail.\n"
                                   for name in ("a.kss", "a.ws", "b.kss", "b.ws")))
    assert not case.device.sessions.exists()


def test_a_kss_that_cannot_be_written_leaves_the_ws(case):
    (case.device.sessions / "a.kss").mkdir()
    children = [("KSS", "k"), ("WS", "w")]
    left = case.set(tavrin(entry("A", KSSFile="a", children=children)), "Tavrin")
    assert left == written(f"Write file {FOLDER}a.kss fail.\n", a__ws="w")


def test_a_ws_that_cannot_be_written(case):
    (case.device.sessions / "a.ws").symlink_to("/dev/full")
    children = [("KSS", "k"), ("WS", "w")]
    left = case.set(tavrin(entry("A", KSSFile="a", children=children)), "Tavrin")
    assert left == written(f"Write file {FOLDER}a.ws fail.\n", a__kss="k")


def test_a_name_that_is_too_long(case):
    name = "x" * 252
    left = case.set(tavrin(entry("A", KSSFile=name, children=[("KSS", "k"), ("WS", "w")])),
                    "Tavrin")
    expected = written(f"Write file {FOLDER}{name}.kss fail.\n")
    expected.sessions = {name + ".ws": "w"}
    assert left == expected


def test_a_session_given_as_elements_has_no_text(case):
    file = tavrin(Element("Connection", {"Name": "A", "Enabled": "yes", "KSSFile": "a"},
                          [Element("KSS", children=[Element("window", text="x")])]))
    assert case.set(file, "Tavrin") == written(a__kss="")


def test_a_session_that_does_not_parse_when_printed(case):
    # Text behind children is printed before them, where it must not stand.
    file = tavrin(entry("A", KSSFile="a", children=[("KSS", "MARK"), ("WS", "w")]))
    left = case.set(file.replace("MARK", "<window/>behind"), "Tavrin")
    assert left == written(UNPARSED, a__ws="w")


def test_everything_of_a_session_file_comes_back_as_it_was_exported(case):
    session = Element("kss", {"a": "it's \"x\" & y"}, [Element("font", text="a < b")])
    text = printed(session)
    left = case.set(tavrin(entry("A", KSSFile="a", children=[("KSS", text)])), "Tavrin")
    assert left == written(a__kss=" ".join(text.split()))
