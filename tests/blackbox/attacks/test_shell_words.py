"""Shell characters in identifiers, labels and values, on a real registry: nothing is started.

tests/blackbox/test_hostile_file.py compares each command line and each argument; here the whole way
is gone, from the registry into a file and back, and every file of the device is looked at.
"""

import pytest

from attack_support import PATH, SHELL_TRICKS, files_of, publish, tree, value
from import_run import DEFAULT, ImportCase, connections_file, export

LEFT = {"home/corvik.log", "home/rdp.xml", "tmp/import.xml"}
each_trick = pytest.mark.parametrize("word", SHELL_TRICKS)


@each_trick
def test_words_of_the_registry_start_nothing(device, word):
    for key in ("label", "hasDesktopIcon", "program", word):
        publish(device, "set", f"{PATH}/{word}/{key}", word)
    publish(device, "set", f"{PATH}/{word}/autostart", "1")
    publish(device, "set", DEFAULT, word)
    publish(device, "set", "root/background/desktop/theme", "freerdp")
    before = tree(device)
    for command in (["-get"], ["-set"], ["-set", "-r"]):
        result = device.corvik(command[0], "RDP", "-f", "rdp.xml", *command[1:], zero=True)
        assert (result.status, result.log[-6:]) == (0, b"\nrc=0\n"), result
        assert set(files_of(device)) <= LEFT
        assert value(device, DEFAULT) == word
    assert tree(device) == before


@each_trick
def test_a_listed_word_that_is_cut_starts_nothing(device, programs, word):
    """A command is cut at 1023 characters: also in the midst of a quoted word.

    The shell then refuses the line, or deletes what the word begins with, at most with a backslash.
    """
    case = ImportCase(device, programs)
    paths = [f"{PATH}/" + "x" * length + word for length in range(900, 975)]
    case.lists("freerdp", *(f"dir {path}\n" for path in paths), times=1)
    left = case.set(connections_file(export()), remove=True)
    deleted = [call[2] for call in left.calls if call[1] == "delete"]
    assert deleted
    assert all(any(path.startswith((name, name.removesuffix("\\"))) for path in paths)
               for name in deleted)
    assert all(len(call) == 3 for call in left.calls if call[1] == "delete")
    assert (left.status, left.home, left.tmp) == (0, ["corvik.log", "in.xml"], ["import.xml"])
    assert {call[1] for call in left.calls} <= {"contains", "get", "delete", "commit", "export",
                                                "import"}


@each_trick
def test_the_names_of_files_are_no_shell_text(device, word):
    publish(device, "set", f"{PATH}/id-1/label", "Office")
    name = f"./{word}"
    assert device.corvik("-get", "RDP", "-f", name).status == 0
    assert device.corvik("-set", "RDP", "-f", name).status == 0
    assert set(files_of(device)) == {"home/corvik.log", f"home/{word}", "tmp/import.xml"}


def test_the_type_is_obeyed_by_the_shell(device):
    """Fixed: it is the operator's own word. Never take it from elsewhere."""
    device.corvik("-get", "x;>owned;#", "-f", "out.xml")
    assert "home/owned" in files_of(device)
