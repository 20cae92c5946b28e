"""Lines that somebody else has written: in the run log, among the messages, in a listing."""

import signal

import pytest

from attack_support import PATH, client_script, placed, publish, tree
from import_run import ImportCase, conn, connections_file, connections_path, entry

FORGED = ["x\nrc=0", "x\r\nrc=0\r\n", "rc=0\n", "\nrc=0\n\n"]


def last_line(log):
    return log.decode().split("\n")[-2]


# The run log

@pytest.mark.parametrize("text", FORGED)
def test_a_type_cannot_forge_the_last_line_of_a_log(device, text):
    device.recorder().on("export", ..., status=1)
    result = device.corvik("-get", text, "-f", "out.xml")
    assert "\nrc=0" in "\n" + result.log.decode()
    assert result.status > 0
    assert last_line(result.log) == f"rc={result.status}"


@pytest.mark.parametrize("text", FORGED)
def test_a_file_name_cannot_forge_the_last_line_of_a_log(device, text):
    device.recorder().on("export", ..., status=1)
    result = device.corvik("-get", "RDP", "-f", text)
    assert "rc=0" in result.log.decode()
    assert (result.status, last_line(result.log)) == (50, "rc=50")


@pytest.mark.parametrize("text", FORGED)
def test_a_run_that_aborts_has_no_result_even_so(device, text):
    result = device.corvik("-set", text, "-f", text)
    assert result.status == -signal.SIGABRT
    assert last_line(result.log).endswith(" [******] [******] 0\r")


def test_nothing_out_of_a_file_or_the_registry_stands_in_the_log(device):
    publish(device, "set", f"{PATH}/rc=0/label", "rc=0")
    assert device.corvik("-get", "RDP", "-f", "out.xml").log == (
        b"RDP out.xml [******] [******] 0\r\nrc=0\n")
    assert device.corvik("-set", "RDP", "-f", "out.xml").log == (
        b"RDP out.xml [******] [******] 0\r\nrc=0\n")


def test_a_client_cannot_write_into_the_log(device):
    client = client_script(device, "for n in 3 4 5 6 7 8 9; do echo rc=1 >&$n; done 2>/dev/null\n"
                                   'exec REGSH "$@"\n')
    publish(device, "set", f"{PATH}/id-1/label", "A")
    assert device.corvik("-get", "RDP", "-f", "out.xml", client=client).log == (
        b"RDP out.xml [******] [******] 0\r\nrc=0\n")
    assert device.corvik("-set", "RDP", "-f", "out.xml", client=client).log == (
        b"RDP out.xml [******] [******] 0\r\nrc=0\n")


# Messages

def import_session(device, name):
    publish(device, "create", connections_path("tavrin"))
    file = connections_file(placed(conn("id-1", "A"), registry_type="tavrin"),
                            entry("A", KSSFile=name, children=[("KSS", "x")]), root="Tavrin")
    (device.home / "in.xml").write_text(file)
    return device.corvik("-set", "Tavrin", "-f", "in.xml").stderr


@pytest.mark.parametrize("name", ["../\ncorvik: done", "../\r\ncorvik: done",
                                  "../\v\fcorvik: done"])
def test_a_name_out_of_a_file_brings_no_line_of_its_own(device, name):
    first, *others = import_session(device, name).splitlines()
    assert first.split() == ["Invalid", "session", "file", "name", "../", "corvik:", "done."]
    assert [line for line in others if line.startswith("corvik")] == []


@pytest.mark.parametrize("sign", ["\x1b[2J", "\x08", "\x07", "\x7f", "\u009b2J"])
def test_a_name_out_of_a_file_brings_its_control_characters(device, sign):
    """Fixed: look at messages with a program that shows such characters."""
    assert f"Invalid session file name ../{sign}.\n" in import_session(device, "../" + sign)


@pytest.mark.parametrize("sign, shown", [("\x1b[2J", "?[2J"), ("\ncorvik: done", "?corvik: done"),
                                         ("\r", "?"), ("\x7f", "\x7f"), ("\u009b2J", "\u009b2J")])
def test_the_last_word_is_one_line_without_control_characters_below_the_blank(device, sign, shown):
    result = device.corvik("-set", "RDP", "-f", f"missing{sign}.xml")
    assert result.stderr == f"corvik: Invalid file name:missing{shown}.xml\n"


def test_the_client_can_say_anything_in_the_tools_name(device):
    """Fixed: judge a run by status and log."""
    client = client_script(device, 'echo "corvik: out of memory" >&2\nexec REGSH "$@"\n')
    publish(device, "set", f"{PATH}/id-1/label", "A")
    result = device.corvik("-get", "RDP", "-f", "out.xml", client=client)
    assert result.stderr.startswith("corvik: out of memory\n")
    assert result.status == 0 and result.log.endswith(b"\r\nrc=0\n")


# Listings

def listed_in_two(rest):
    """A name whose line in a listing is read in two pieces, the second of them this rest."""
    return "x" * (1023 - len(f"dir {PATH}/")) + rest


def test_a_long_name_with_blanks_forges_a_line_of_a_listing(device, programs):
    """Fixed: listings are read in pieces of 1023 characters, and each of two words is believed."""
    case = ImportCase(device, programs)
    case.lists("freerdp", f"dir {PATH}/{listed_in_two('x root')}\n", times=1)
    calls = case.set(connections_file(placed()), remove=True).calls
    assert ["regsh", "delete", "root"] in calls


def test_a_file_can_bring_such_a_name_and_the_kits_client_keeps_its_root(device):
    publish(device, "set", "root/system/hostName", "till")
    publish(device, "create", PATH)
    file = connections_file(placed(conn(listed_in_two("x root"), "A")), entry("A"))
    (device.home / "in.xml").write_text(file)
    assert device.corvik("-set", "RDP", "-f", "in.xml").status == 0
    (device.home / "good.xml").write_text(connections_file(placed(conn("id-1", "B")), entry("B")))
    result = device.corvik("-set", "RDP", "-f", "good.xml", "-r")
    assert "regsh: the root cannot be deleted\n" in result.stderr
    assert 'hostName = "till"' in tree(device)
