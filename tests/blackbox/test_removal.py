"""Removal of the connections of a type: which lines delete what, and when the default goes too."""

import pytest

from import_run import (DEFAULT, GET_DEFAULT, NO_POPEN, RESET_DEFAULT, WALK_OVER, ImportCase, Left,
                        classic, conn, connections_file, connections_path, entry, export, imported,
                        looked_up, merged, refreshed, removed, single_commands, spoken)

ONE = export(conn("id-1", "Office"))
ONE_FILE = connections_file(ONE, entry("Office"))
PATH = connections_path("freerdp")


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def after_removal(*commands, zero=False):
    """An import of ONE that began with these commands."""
    document = export(conn("id-1", "Office"), config="zero") if zero else ONE
    return Left([*looked_up("freerdp"), *commands,
                 *classic("freerdp", "id-1", zero=zero)[len(looked_up("freerdp")):]],
                (3 if zero else 2) * WALK_OVER, document=document, remove=True)


def removing(*deletions, zero=False):
    return after_removal(*removed("freerdp", *deletions), zero=zero)


def lists_once(case, *lines):
    """The listing for the removal; the later one for the icons is empty."""
    return case.lists("freerdp", *lines, times=1)


# Which lines delete what

def test_each_listed_connection_is_deleted_in_order(case):
    lists_once(case, "id-1", "id-3", "id-2")
    assert case.set(ONE_FILE, remove=True) == removing("id-1", "id-3", "id-2")


def test_without_the_flag_nothing_is_removed(case):
    lists_once(case, "id-1")
    left = case.set(ONE_FILE)
    assert left == Left([*looked_up("freerdp"), *merged("freerdp"), *imported("freerdp"),
                         *refreshed("freerdp", **{"id-1": ""})], 2 * WALK_OVER, document=ONE)


@pytest.mark.parametrize("zero", [False, True], ids=["standard", "zero"])
def test_a_directory_without_connections_still_commits(case, zero):
    assert case.set(ONE_FILE, remove=True, zero=zero) == removing(zero=zero)


LINE_ENDS = {
    "line-end": ("dir {}\n", "{}\n", "{}"), "none": ("dir {}", "{}", "{}"),
    "tab": ("dir\t{}\n", "{}\n", "{}"), "blanks": (" \t dir  \t {}\n", "{}\n", "{}"),
    "key": ("key {}\n", "{}\n", "{}"), "carriage-return": ("dir {}\r\n", "'{}\r'\n", "{}\r"),
    "same-word": ("{0} {0}\n", "{}\n", "{}"),
}


@pytest.mark.parametrize("line, word, argument", LINE_ENDS.values(), ids=LINE_ENDS)
def test_a_line_of_two_words_deletes_the_second(case, line, word, argument):
    path = f"{PATH}/id-7"
    lists_once(case, line.format(path))
    expected = removing(f"regsh delete {word.format(path)}")
    assert case.set(ONE_FILE, remove=True) == expected
    assert ["regsh", "delete", argument.format(path)] in expected.calls


OTHER_LINES = {
    "one-word": "{}\n", "three-words": "dir {} x\n", "three-with-line-end-word": "dir {} \n",
    "one-and-blank-end": "dir ", "empty": "\n", "four": "a b c d\n", "tab-before-end": "dir {}\t\n",
}


@pytest.mark.parametrize("line", OTHER_LINES.values(), ids=OTHER_LINES)
def test_a_line_of_another_count_deletes_nothing(case, line):
    # The line end is a part of the last word, and a word of its own behind a blank.
    lists_once(case, line.format(f"{PATH}/id-7"))
    assert case.set(ONE_FILE, remove=True) == removing()


@pytest.mark.parametrize("line", ["dir \n", "x\t\n"])
def test_a_second_word_that_is_only_the_line_end_deletes_without_argument(case, line):
    case.value(DEFAULT, "dir")
    lists_once(case, line)
    left = case.set(ONE_FILE, remove=True)
    expected = removing("regsh delete \n")
    assert left == expected
    assert ["regsh", "delete"] in expected.calls


def test_a_mixed_listing(case):
    lists_once(case, "id-1", "one\n", "id-2", "a b c\n", "\n", f"dir {PATH}/id-3")
    assert case.set(ONE_FILE, remove=True) == removing(
        "id-1", "id-2", f"regsh delete {PATH}/id-3")


def test_the_paths_are_those_of_the_listing(case):
    lists_once(case, "dir elsewhere/x\n", "dir y\n", "dir /\n")
    assert case.set(ONE_FILE, remove=True) == removing(
        "regsh delete elsewhere/x\n", "regsh delete y\n", "regsh delete /\n")


def test_a_long_listing_is_read_to_its_end(case):
    many = [f"id-{number:0100}" for number in range(700)]  # more than a pipe holds
    lists_once(case, *many)
    calls = case.set(ONE_FILE, remove=True).calls
    assert calls[5:7] == [["regsh", "get", PATH], ["regsh", "get", DEFAULT]]
    assert calls[7:707] == [["regsh", "delete", f"{PATH}/{name}"] for name in many]


# The default connection

@pytest.mark.parametrize("image_type", [8, 9, 10])
def test_the_default_goes_with_its_connection_on_a_zero_client(case, image_type):
    case.value(DEFAULT, "id-7", times=1)
    lists_once(case, "id-6", "id-7", "id-8")
    left = case.set(ONE_FILE, remove=True, zero=True, image_type=image_type)
    path = f"regsh delete {PATH}"
    assert left == removing(f"{path}/id-6\n", f"{path}/id-7\n", *RESET_DEFAULT,
                            f"{path}/id-8\n", zero=True)


@pytest.mark.parametrize("image_type", [1, 4, 5, 7, 8, 9, 10])
def test_it_stays_on_a_device_that_is_no_zero_client(case, image_type):
    case.value(DEFAULT, "id-7")
    case.lists("ssh", "id-7", times=1)
    left = case.set(ONE_FILE, "SSH", remove=True, image_type=image_type)
    assert left == Left([*looked_up("ssh"), *removed("ssh", "id-7"), *merged("ssh"),
                         *imported("ssh"), *refreshed("ssh")], 2 * WALK_OVER, document=ONE,
                        typed="SSH", remove=True)


@pytest.mark.parametrize("default", ["id-70", "id-", "ID-7", "d-7", f"{PATH}/id-7", "connections",
                                     "id-7/", ""])
def test_it_stays_when_another_connection_is_removed(case, default):
    case.value(DEFAULT, default, times=1)
    lists_once(case, "id-7")
    assert case.set(ONE_FILE, remove=True, zero=True) == removing("id-7", zero=True)


@pytest.mark.parametrize("answer", ["", "\n", DEFAULT, f"{DEFAULT} \n", f"x\n{DEFAULT} id-7\n"])
def test_a_default_that_gives_no_word_resets_nothing(case, answer):
    case.recorder.on("get", DEFAULT, stdout=answer, times=1)
    lists_once(case, "id-7", "dir \n")
    assert case.set(ONE_FILE, remove=True, zero=True) == removing(
        "id-7", "regsh delete \n", zero=True)


@pytest.mark.parametrize("line", ["dir {}/id-7\n", "dir {}/id-7", "dir {}/id-7/\n", "dir id-7\n",
                                  "dir //id-7//\n"])
def test_the_identifier_is_the_last_part_of_the_path(case, line):
    case.value(DEFAULT, "id-7 and more", times=1)
    word = line.format(PATH).removeprefix("dir ")
    lists_once(case, line.format(PATH))
    assert case.set(ONE_FILE, remove=True, zero=True) == removing(
        f"regsh delete {word}", *RESET_DEFAULT, zero=True)


def test_the_line_end_is_no_part_of_the_identifier(case):
    case.value(DEFAULT, "id-7", times=1)
    lists_once(case, f"dir {PATH}/id-7\r\n")
    assert case.set(ONE_FILE, remove=True, zero=True) == removing(
        f"regsh delete '{PATH}/id-7\r'\n", *RESET_DEFAULT, zero=True)


def test_a_default_that_is_listed_twice_is_reset_twice(case):
    case.value(DEFAULT, "id-7", times=1)
    lists_once(case, "id-7", "id-7")
    assert case.set(ONE_FILE, remove=True, zero=True) == removing(
        *2 * [f"regsh delete {PATH}/id-7\n", *RESET_DEFAULT], zero=True)


def test_the_default_is_reset_with_an_empty_argument(case):
    case.value(DEFAULT, "id-7", times=1)
    lists_once(case, "id-7")
    left = case.set(ONE_FILE, remove=True, zero=True)
    assert ("system", f'regsh set {DEFAULT} ""') in left.commands
    assert ["regsh", "set", DEFAULT, ""] in left.calls


# Commands that cannot be started

def test_a_listing_that_cannot_be_read_deletes_and_commits_nothing(case):
    case.value(DEFAULT, "id-7")
    case.lists("freerdp", "id-7")
    command = f"regsh get {PATH}"
    left = case.set(ONE_FILE, remove=True, refused=command)
    commands = [*looked_up("freerdp"), command, *merged("freerdp"), *imported("freerdp"), command]
    assert left == Left(commands, NO_POPEN + 2 * WALK_OVER + NO_POPEN, document=ONE, remove=True,
                        calls=Left([each for each in commands if each != command]).calls)


def test_a_default_that_cannot_be_read_counts_as_none(case):
    case.value(DEFAULT, "id-7")
    lists_once(case, "id-7")
    left = case.set(ONE_FILE, remove=True, zero=True, refused=GET_DEFAULT)
    expected = removing("id-7", zero=True)
    expected.calls = [each for each in expected.calls if each != ["regsh", "get", DEFAULT]]
    assert left == expected


# Limits

def path_of_length(length):
    """A type whose listing command has this length, in parts that fit into file names."""
    rest = length - len("regsh get root/ConnectionType//connections")
    name = ("x" * 99 + "/") * (rest // 100 + 1)
    return name[:rest - 1] + "z"


@pytest.mark.parametrize("length", [1022, 1023, 1024, 1025, 1500, 3000])
def test_commands_with_a_path_keep_1023_characters(case, length):
    name = path_of_length(length)
    left = case.set(ONE_FILE, name, remove=True)
    path = f"root/ConnectionType/{name}/connections"
    file = f"/tmp/{name}.xml"
    commands = [*looked_up(name), f"regsh get {path}"[:1023], GET_DEFAULT,
                f"regsh commit {path}"[:1023], "regsh commit",
                f"rm -f {file};regsh export root/ConnectionType/{name} {file}"[:1022],
                "regsh import /tmp/import.xml", f"regsh commit {path}"[:1023],
                f"regsh get {path}"[:1023]]
    expected = Left(commands, WALK_OVER, document=ONE, typed=name, remove=True)
    expected.calls = [each for each in expected.calls if each[1:2] != ["export"]]
    left.calls = [each for each in left.calls if each[1:2] not in (["export"], [])]
    # What the shell says of names that are too long for it is not the tool's.
    left.stderr = WALK_OVER if WALK_OVER in left.stderr else left.stderr
    expected.calls = [each for each in expected.calls if each != ["regsh"]]
    assert left == expected


@pytest.mark.parametrize("length, written", [(321, ".xml"), (322, "."), (323, None)])
def test_the_export_command_keeps_1022_characters(case, length, written):
    name = "x" * (length - 201) + "/" + "y" * 200
    (case.device.tmp / name).parent.mkdir()
    case.holds(export(conn("id-9", "Nine")))
    left = case.set(ONE_FILE, name)
    command = merged(name)[0]
    assert len(command) == 59 + 3 * length
    target = f"/tmp/{name}.xml"[:len(command[:1022]) - len(command) or None]
    for each in single_commands(command[:1022]):
        assert ("system", each) in left.commands
    assert ["regsh", "export", f"root/ConnectionType/{name}", target] in left.calls
    whole = written == ".xml"
    assert left.document == export(conn("id-1", "Office"),
                                   *([conn("id-9", "Nine")] if whole else [])).printed()
    assert left.stderr == (2 if whole else 1) * WALK_OVER
    assert left.commands.count(("system", f"rm -f /tmp/{name}.xml")) == (2 if whole else 1)


@pytest.mark.parametrize("length", [1008, 1009, 1010, 1011, 1018])
def test_the_delete_command_keeps_1023_characters_with_its_line_end(case, length):
    path = f"{PATH}/".ljust(length, "x")
    lists_once(case, f"dir {path}\n")
    assert case.set(ONE_FILE, remove=True) == removing(f"regsh delete {path}\n"[:1023])


@pytest.mark.parametrize("length", [1019, 1020, 3000])
def test_a_listing_line_is_read_in_pieces_of_1023_characters(case, length):
    path = f"{PATH}/".ljust(length, "x")
    lists_once(case, f"dir {path}\n")
    # A line end that is left over is a line of its own without two words.
    assert case.set(ONE_FILE, remove=True) == removing(f"regsh delete {path[:1019]}"[:1023])


def test_the_identifier_of_a_long_path_is_whole(case):
    identifier = "x" * 900
    case.value(DEFAULT, identifier, times=1)
    lists_once(case, identifier)
    assert case.set(ONE_FILE, remove=True, zero=True) == removing(
        identifier, *RESET_DEFAULT, zero=True)


@pytest.mark.parametrize("length", [985, 1000])
def test_commands_of_a_long_listed_path_for_icons(case, length):
    path = f"{PATH}/".ljust(length, "x")
    case.lists("freerdp", f"dir {path}\n")
    case.recorder.on("get", ..., stdout="key " + "v" * 60 + "\n")
    case.lists("freerdp", f"dir {path}\n")
    left = case.set(ONE_FILE)
    icon = f"{path}/hasDesktopIcon"
    assert left == Left(
        [*classic("freerdp"), f"regsh get {icon}"[:1023],
         f"regsh set {icon} {'v' * 60}"[:1023], f"regsh commit {path}"[:1023]],
        2 * WALK_OVER, document=ONE)


def test_a_value_is_kept_to_its_last_character_below_the_line_limit(case):
    # The first line keeps 1022 characters; what is left of its second word is the value.
    case.lists("freerdp", "a")
    case.recorder.on("get", f"{PATH}/a/hasDesktopIcon", stdout="k " + "v" * 2000 + "\n")
    left = case.set(ONE_FILE)
    assert left == Left(
        [*classic("freerdp"), f"regsh get {PATH}/a/hasDesktopIcon",
         f"regsh set {PATH}/a/hasDesktopIcon {'v' * 1020}"[:1023], f"regsh commit {PATH}/a"],
        2 * WALK_OVER, document=ONE)


@pytest.mark.parametrize("length, deletes", [(1007, True), (1008, True), (1009, False)])
def test_a_cut_that_takes_the_closing_quote_deletes_nothing(case, length, deletes):
    path = f"{PATH}/".ljust(length, ";")
    lists_once(case, f"dir {path}\n")
    command = f"regsh delete '{path}'\n"[:1023]
    calls = Left(removed("freerdp", command)).calls if deletes else Left(removed("freerdp")).calls
    expected = removing("regsh delete x")
    expected.commands[expected.commands.index(("system", "regsh delete x"))] = spoken(command)
    expected.calls = [*Left(looked_up("freerdp")).calls, *calls,
                      *Left(classic("freerdp")[5:]).calls]
    left = case.set(ONE_FILE, remove=True)
    if not deletes:  # the shell tells of the quote in words of its own
        assert left.stderr.endswith(2 * WALK_OVER)
        left.stderr = 2 * WALK_OVER
    assert left == expected
