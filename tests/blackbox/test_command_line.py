"""The command line, the texts of the front end and the run log, on the built tool."""

import os

import pytest

from recorder_client import ANY

VERSION = b"Quorvel: 1.0.0.29438\n"

USAGE = b"""\
The usage of Quorvel:\x20
corvik options\x20
  options:\x20
    -get <connection type> -f <file> [-u <user>] [-p <pwd>]\x20
    -set <connection type> -f <file> [-u <user>] [-p <pwd>] [-r]\x20
      <connection type>: Can be ICA, RDP and so on.\x20
      <file>: The file contains the connections' content.\x20
      <user>: To get/set which users' connection. If not set, the default user is "user".\x20
      <pwd>:  The password for the user.\x20
      "-r": Remove the existent connections.\x20
    -v    Output the corvik's version.\x20
    -h    Output this usage.
"""

SYNTAX_ERROR = b'The syntax is incorrect. \nTry "corvik -h" for more information. \n'

EMPTY_LOG = b"  [******] [******] 0\r\nrc=0\n"

# An export without connections, and what the walk over it says.
NO_CONNECTIONS = (b'<Profile><ProfileRegistry><NodeDir name="t"><NodeDir name="connections"/>'
                  b"</NodeDir></ProfileRegistry></Profile>")
WALK_ENDED = b"Could not find <NodeDir> - UUID. \n"

TYPE_QUESTIONS = [["regsh", "contains", f"root/ConnectionType/{name}"]
                  for name in ("freerdp", "xen", "iceweasel", "freerdp")]


@pytest.fixture
def client(device):
    """The recorder, answering every export with no connections."""
    return device.recorder().on("export", ANY, ANY, writes=NO_CONNECTIONS)


def ended(result):
    """Everything that a run leaves behind, in full."""
    return result.status, result.stdout_bytes, result.stderr_bytes, result.log


def log_of(type_name, file, status, remove=0):
    return b"%s %s [******] [******] %d\r\nrc=%d\n" % (type_name, file, remove, status)


# Misuse

MISUSE = {
    "no_arguments": [],
    "mode_without_dash": ["get", "RDP", "-f", "out.xml"],
    "version_without_dash": ["v"],
    "empty_mode": ["", "RDP", "-f", "out.xml"],
    "dash_as_mode": ["-", "RDP", "-f", "out.xml"],
    "two_dashes": ["--help"],
    "unknown_mode": ["-list", "RDP", "-f", "out.xml"],
    "mode_behind_type": ["RDP", "-get", "-f", "out.xml"],
    "get_alone": ["-get"],
    "set_alone": ["-set"],
    "get_type_alone": ["-get", "RDP"],
    "get_file_without_value": ["-get", "RDP", "-f"],
    "set_with_too_few_words": ["-set", "RDP", "-r"],
    "unknown_option": ["-get", "RDP", "-f", "out.xml", "-x"],
    "unknown_option_ahead": ["-get", "RDP", "-x", "-f", "out.xml"],
    "long_option": ["-get", "RDP", "--file", "out.xml"],
    "joined_value": ["-get", "RDP", "-fout.xml", "x"],
    "dash_as_option": ["-get", "RDP", "-f", "out.xml", "-"],
    "last_file_without_value": ["-get", "RDP", "x", "-f"],
    "last_user_without_value": ["-get", "RDP", "-f", "out.xml", "-u"],
    "last_password_without_value": ["-set", "RDP", "-f", "in.xml", "-p"],
    "mode_among_options": ["-get", "RDP", "-f", "out.xml", "-v"],
    "value_is_an_unknown_option": ["-get", "RDP", "-f", "-x"],
    "value_is_a_dash": ["-get", "RDP", "-f", "-"],
    "value_is_an_option_without_value": ["-get", "RDP", "-f", "-u"],
}


@pytest.mark.parametrize("arguments", MISUSE.values(), ids=MISUSE.keys())
def test_misuse_is_told_and_makes_no_log(device, client, arguments):
    assert ended(device.corvik(*arguments)) == (1, b"", SYNTAX_ERROR, None)
    assert client.calls == []
    assert os.listdir(device.home) == []


def test_misuse_leaves_an_older_log_as_it_was(device, client):
    (device.home / "corvik.log").write_bytes(b"before")
    assert ended(device.corvik("-get", "RDP", "-f", "out.xml", "-x")) == (
        1, b"", SYNTAX_ERROR, b"before")


# Version and usage

@pytest.mark.parametrize("arguments", [["-v"], ["-V"], ["-v", "extra", "words"],
                                       ["-v", "-get", "RDP", "-x"]], ids=" ".join)
def test_version(device, client, arguments):
    assert ended(device.corvik(*arguments)) == (0, VERSION, b"", EMPTY_LOG)
    assert client.calls == []


@pytest.mark.parametrize("arguments", [["-h"], ["-H"], ["-h", "extra", "words"]], ids=" ".join)
def test_usage(device, client, arguments):
    assert ended(device.corvik(*arguments)) == (0, USAGE, b"", EMPTY_LOG)
    assert client.calls == []


# The run log

def test_log_is_replaced_by_each_run(device, client):
    (device.home / "corvik.log").write_bytes(b"x" * 5000)
    assert device.corvik("-v").log == EMPTY_LOG


@pytest.mark.parametrize("arguments", [["-v"], ["-h"], ["-get", "RDP", "-f", "out.xml"]],
                         ids=" ".join)
def test_log_that_cannot_be_opened_abandons_the_run(device, client, arguments):
    below = device.home / "below"
    (below / "corvik.log").mkdir(parents=True)
    result = device.run("sh", "-c", 'cd below && corvik "$@"', "sh", *arguments)
    assert ended(result) == (0, b"", b"Failed to open corvik logger file.\n", None)
    assert client.calls == []
    assert os.listdir(below) == ["corvik.log"]


def test_log_goes_into_the_current_folder(device, client):
    (device.home / "below").mkdir()
    result = device.run("sh", "-c", "cd below && corvik -v")
    assert ended(result) == (0, VERSION, b"", None)
    assert (device.home / "below/corvik.log").read_bytes() == EMPTY_LOG


# Export

VALID = {
    "plain": (["RDP", "-f", "out.xml"], "out.xml", 0),
    "mode_and_options_in_capitals": (["RDP", "-F", "out.xml"], "out.xml", 0),
    "user_and_password": (["RDP", "-u", "bob", "-p", "pw1", "-f", "out.xml"], "out.xml", 0),
    "remove_is_accepted": (["RDP", "-f", "out.xml", "-r"], "out.xml", 1),
    "words_are_skipped": (["RDP", "x", "-f", "out.xml", "", "y"], "out.xml", 0),
    "last_value_counts": (["RDP", "-f", "first.xml", "-f", "out.xml"], "out.xml", 0),
    "file_named_like_the_remove_option": (["RDP", "-f", "-r"], "-r", 1),
    "file_named_like_the_user_option": (["RDP", "-f", "-u", "bob"], "-u", 0),
    "blank_in_the_file_name": (["RDP", "-f", "my out.xml"], "my out.xml", 0),
}


@pytest.mark.parametrize("arguments, file, remove", VALID.values(), ids=VALID.keys())
def test_export_writes_the_file_and_the_log(device, client, arguments, file, remove):
    mode = "-GET" if arguments[1] == "-F" else "-get"
    assert ended(device.corvik(mode, *arguments)) == (
        0, b"", WALK_ENDED, log_of(b"RDP", file.encode(), 0, remove))
    assert (device.home / file).read_bytes() == b"<RDP/>\n"
    assert sorted(os.listdir(device.home)) == sorted([file, "corvik.log"])
    assert client.calls == TYPE_QUESTIONS + [
        ["regsh", "export", "root/ConnectionType/freerdp", "/tmp/freerdp.xml"]]


@pytest.mark.parametrize("arguments", [["x", "y"], ["-f", ""], ["-u", "bob"]],
                         ids=["words", "empty_value", "only_user"])
def test_export_without_file_fails_at_writing(device, client, arguments):
    assert ended(device.corvik("-get", "RDP", *arguments)) == (
        12, b"", WALK_ENDED, log_of(b"RDP", b"", 12))
    assert os.listdir(device.home) == ["corvik.log"]
    assert device.tmp_leftovers() == []


@pytest.mark.parametrize("type_name", ["null", "NULL", "Null"])
def test_type_null_has_no_handler(device, client, type_name):
    assert ended(device.corvik("-get", type_name, "-f", "out.xml")) == (
        2, b"", b"", log_of(type_name.encode(), b"out.xml", 2))
    assert client.calls == []


def test_type_that_looks_like_an_option(device, client):
    assert ended(device.corvik("-get", "-r", "-f", "out.xml")) == (
        0, b"", WALK_ENDED, log_of(b"-r", b"out.xml", 0))
    assert (device.home / "out.xml").read_bytes() == b"<-r/>\n"


@pytest.mark.parametrize("type_name", [b"caf\xc3\xa9", b"caf\xe9", b"\x80\xff", b"a\x01b",
                                       b"%s%n", b"x" * 200], ids=repr)
def test_type_of_odd_bytes_reaches_every_place_unchanged(device, client, type_name):
    result = device.corvik("-get", os.fsdecode(type_name), "-f", "out.xml")
    assert ended(result) == (0, b"", WALK_ENDED, log_of(type_name, b"out.xml", 0))
    assert (device.home / "out.xml").read_bytes() == b"<" + type_name + b"/>\n"
    assert client.raw_calls[-1] == [b"regsh", b"export", b"root/ConnectionType/" + type_name,
                                    b"/tmp/" + type_name + b".xml"]


# Import

def test_import_gets_the_options(device, client):
    (device.home / "in.xml").write_bytes(b"<RDP/>\n")
    client.on("contains", "root/ConnectionType/freerdp", status=1)
    assert ended(device.corvik("-set", "RDP", "-f", "in.xml", "-u", "bob", "-p", "pw1", "-r")) == (
        0, b"", b"", log_of(b"RDP", b"in.xml", 0, remove=1))
    assert client.calls[-1] == ["regsh", "contains", "root/ConnectionType/freerdp"]


# Streams that take nothing

STREAMS = {
    "closed_stdout": ">&-",
    "closed_stdin": "<&-",
    "closed_stderr": "2>&-",
    "closed_both": ">&- 2>&-",
    "closed_all": "<&- >&- 2>&-",
    "full_stdout": ">/dev/full",
    "full_both": ">/dev/full 2>&1",
}


@pytest.mark.parametrize("streams", STREAMS.values(), ids=STREAMS.keys())
@pytest.mark.parametrize("arguments, log", [("-v", EMPTY_LOG), ("-h", EMPTY_LOG),
                                            ("-get RDP -f out.xml", log_of(b"RDP", b"out.xml", 0))],
                         ids=["version", "usage", "export"])
def test_streams_that_take_nothing_change_neither_log_nor_result(device, client, streams, arguments,
                                                                 log):
    result = device.run("sh", "-c", f"corvik {arguments} {streams}")
    assert (result.status, result.log) == (0, log)
    if "out.xml" in arguments:
        assert (device.home / "out.xml").read_bytes() == b"<RDP/>\n"


def test_a_run_that_can_open_nothing_is_abandoned(device, client):
    # What takes the closed stream's place is the last that can be opened.
    result = device.run("sh", "-c", "exec <&-; ulimit -n 3; exec corvik -v")
    assert ended(result) == (0, b"", b"Failed to open corvik logger file.\n", None)


@pytest.mark.parametrize("streams", STREAMS.values(), ids=STREAMS.keys())
def test_misuse_with_streams_that_take_nothing(device, client, streams):
    result = device.run("sh", "-c", f"corvik -x {streams}")
    assert (result.status, result.log) == (1, None)
