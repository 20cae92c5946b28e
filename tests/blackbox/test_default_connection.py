"""The default connection of a classic import on zero clients: who wins, and what is told."""

import pytest

from import_run import (DEFAULT, GET_DEFAULT, NO_PARAM, THEME, WALK_OVER, Element, ImportCase, Left,
                        classic, conn, connections_file, defaulted, entry, export, folder, key,
                        registry_of, settings_of, started)

PAIR = [conn("id-1", "Office"), conn("id-2", "Home")]
TWO = export(*PAIR, config="zero")
ALL = 3 * WALK_OVER


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def chosen(identifier, *names, document=TWO, stderr=ALL, registry_type="freerdp", **others):
    """An import that made this connection the default one; None: it made none."""
    choice = [] if identifier is None else defaulted(registry_type, identifier)
    return Left([*classic(registry_type, *names, zero=True)[:-1], *choice, GET_DEFAULT], stderr,
                document=document, **others)


def marked(name, enabled="yes", default="yes"):
    return entry(name, enabled, Default=default)


def choose(case, *entries, document=TWO, typed="RDP", **options):
    return case.set(connections_file(document, *entries), typed, zero=True, **options)


@pytest.mark.parametrize("image_type", [8, 9, 10])
def test_the_marked_connection_becomes_the_default(case, image_type):
    left = choose(case, entry("Office"), marked("Home"), image_type=image_type)
    assert left == chosen("id-2", "id-1", "id-2")


def test_the_separator_is_a_tab(case):
    left = choose(case, entry("Office"), marked("Home"))
    assert ("system", "regsh set root/ConnectionManager/defaultConnection\tid-2") in left.commands
    assert ["regsh", "set", "root/ConnectionManager/defaultConnection", "id-2"] in left.calls


def test_none_is_marked(case):
    assert choose(case, entry("Office"), entry("Home")) == chosen(None, "id-1", "id-2")


@pytest.mark.parametrize("default", ["yes", "YES", "Yes", "yeS", " yes "])
def test_marks(case, default):
    left = choose(case, entry("Office"), marked("Home", default=default))
    assert left == chosen("id-2", "id-1", "id-2")


@pytest.mark.parametrize("default", ["no", "true", "1", "y", "yess", "ye", "", "yes yes"])
def test_no_marks(case, default):
    left = choose(case, entry("Office"), marked("Home", default=default))
    assert left == chosen(None, "id-1", "id-2")


@pytest.mark.parametrize("enabled", ["maybe", "YES", "true", "1", "n", "noo", "no no", "-"])
@pytest.mark.parametrize("default", ["yes", "YES"])
def test_any_enabled_value_but_no_qualifies(case, enabled, default):
    left = choose(case, entry("Office"), marked("Home", enabled, default))
    kept = PAIR if enabled == "YES" else PAIR[:1]
    assert left == chosen("id-2", *(["id-1", "id-2"][:len(kept)]),
                          document=export(*kept, config="zero"))


@pytest.mark.parametrize("enabled", ["no", "NO", "No", "nO", " no ", "", None])
def test_no_and_nothing_do_not_qualify(case, enabled):
    left = choose(case, entry("Office"), marked("Home", enabled))
    assert left == chosen(None, "id-1", document=export(*PAIR[:1], config="zero"))


@pytest.mark.parametrize("name", [None, ""])
def test_a_mark_without_name_does_not_qualify(case, name):
    document = export(PAIR[0], conn("id-2", ""), config="zero")
    left = choose(case, entry("Office"), marked(name), document=document)
    assert left == chosen(None, "id-1", document=export(*PAIR[:1], config="zero"))


def test_the_first_of_two_marked_wins(case):
    left = choose(case, marked("Home"), marked("Office"))
    assert left == chosen("id-2", "id-1", "id-2")


def test_a_first_that_matches_nothing_is_told_and_the_second_tried(case):
    left = choose(case, marked("Gone"), entry("Office"), marked("Home"))
    assert left == chosen("id-2", "id-1", "id-2", stderr=ALL + WALK_OVER)


def test_each_candidate_that_matches_nothing_is_told(case):
    left = choose(case, marked("Gone"), marked("Lost"), marked("Away", "maybe"), marked("x", "no"),
                  entry("Office"), entry("Home"))
    assert left == chosen(None, "id-1", "id-2", stderr=ALL + 3 * WALK_OVER)


@pytest.mark.parametrize("name", ["HOME", "home", "hOmE", " Home "])
def test_labels_are_compared_without_case(case, name):
    assert choose(case, entry("Office"), marked(name)) == chosen("id-2", "id-1", "id-2")


def test_of_two_directories_of_one_label_the_first_is_chosen(case):
    document = export(conn("id-1", "A"), conn("id-2", "a"), config="zero")
    left = choose(case, marked("A"), entry("a"), document=document)
    assert left == chosen("id-1", "id-1", "id-2", document=document)


def test_a_directory_without_name_is_passed_over_for_the_next_of_its_label(case):
    document = export(conn(None, "A"), conn("id-2", "A"), config="zero")
    left = choose(case, marked("A"), document=document)
    # The import keeps the first directory; the choice needs one with a name.
    assert left == chosen("id-2", document=export(conn(None, "A"), config="zero"))


def test_a_label_that_only_a_directory_without_name_has_matches_nothing(case):
    document = export(conn(None, "A"), config="zero")
    assert choose(case, marked("A"), document=document) == chosen(
        None, document=document, stderr=ALL + WALK_OVER)


def test_a_directory_without_label_is_found_by_the_name_of_its_type(case):
    document = export(conn("id-1"), config="zero")
    left = choose(case, marked("new FREERDP"), document=document)
    assert left == chosen("id-1", "id-1", document=document)


def test_the_theme_is_the_registry_type_not_the_typed_name(case):
    left = choose(case, entry("Office"), marked("Home"), typed="VDM")
    assert left == chosen("id-2", "id-1", "id-2", registry_type="view", typed="VDM")
    assert ("system", f"regsh set {THEME} view") in left.commands


def test_a_theme_as_typed_where_no_table_knows_the_name(case):
    left = choose(case, entry("Office"), marked("Home"), typed="rdp")
    assert left == chosen("id-2", "id-1", "id-2", registry_type="rdp", typed="rdp")


def test_an_empty_identifier_is_set_as_one(case):
    document = export(conn("", "Home"), config="zero")
    left = choose(case, marked("Home"), document=document)
    assert left == chosen("", "", document=document)
    assert ("system", f"regsh set {DEFAULT}\t") in left.commands


def test_a_former_default_is_read_and_not_used(case):
    case.value(DEFAULT, "id-1").value(THEME, "freerdp")
    left = choose(case, entry("Office"), marked("Home"))
    expected = [*classic("freerdp", "id-1", "id-2", zero=True)[:-1], *defaulted("freerdp", "id-2"),
                *started("freerdp", "id-1")]
    assert left == Left(expected, ALL, document=TWO)


def test_a_default_of_the_file_that_is_not_imported_is_set_all_the_same(case):
    left = choose(case, marked("Home", "later"))
    assert left == chosen("id-2", document=export(config="zero"))


def test_nothing_is_chosen_on_a_device_that_is_no_zero_client(case):
    left = case.set(connections_file(TWO, entry("Office"), marked("Home")))
    assert left == Left(classic("freerdp"), 2 * WALK_OVER, document=export(*PAIR))


# Label keys without value: told by each walk as far as it goes

def unvalued(identifier, label, count):
    return conn(identifier, None, *count * [key("label")], key("label", label))


WALKED = export(unvalued("id-1", "A", 1), unvalued("id-2", "B", 2), unvalued(None, "C", 4),
                unvalued("id-4", "D", 8), config="zero")
FILTER_WALK = 15 * NO_PARAM + ALL


@pytest.mark.parametrize("name, identifier, told", [
    ("A", "id-1", 1 * NO_PARAM), ("b", "id-2", 3 * NO_PARAM), ("D", "id-4", 15 * NO_PARAM),
    ("C", None, 15 * NO_PARAM + WALK_OVER), ("E", None, 15 * NO_PARAM + WALK_OVER)])
def test_label_keys_without_value_are_told_up_to_the_match(case, name, identifier, told):
    entries = [entry(each) for each in "ABCD"]
    left = choose(case, *entries, marked(name, "maybe"), document=WALKED)
    assert left == chosen(identifier, "id-1", "id-2", "id-4", document=WALKED,
                          stderr=FILTER_WALK + told)


def test_each_candidate_walks_from_the_first(case):
    entries = [entry(each) for each in "ABCD"]
    left = choose(case, *entries, marked("X", "x"), marked("C", "x"), marked("B", "x"),
                  marked("A", "x"), document=WALKED)
    told = 2 * (15 * NO_PARAM + WALK_OVER) + 3 * NO_PARAM
    assert left == chosen("id-2", "id-1", "id-2", "id-4", document=WALKED,
                          stderr=FILTER_WALK + told)


def test_the_walk_is_over_the_files_export_not_over_the_merged_one(case):
    case.holds(export(unvalued("id-9", "Nine", 1)))
    left = choose(case, entry("Office"), entry("Home"), marked("Nine", "x"))
    document = export(*PAIR, unvalued("id-9", "Nine", 1), config="zero")
    assert left == chosen(None, "id-1", "id-2", "id-9", document=document,
                          stderr=WALK_OVER + NO_PARAM + 3 * WALK_OVER)


def test_the_directory_of_connections_is_found_by_name(case):
    document = Element("Profile", children=[
        registry_of(folder("other", conn("id-0", "Home")), folder("connections", *PAIR)),
        settings_of("zero")])
    left = choose(case, entry("Office"), marked("Home"), document=document)
    assert left == chosen("id-2", "id-1", "id-2", document=document)
