"""Every way in which an export fails: its number, its messages, and that nothing else changes."""

import signal

import pytest

from recorder_client import ANY
from registry_export import (GET_DEFAULT, NAME_TABLE_CALLS, WALK_ENDED, Outcome, connection,
                             default_is, export_call, export_with, exports, file_for, log_header,
                             log_of, named, outcome, preload)

BEFORE = b"what was there before\n"
TWO = export_with(connection("id-1", "Office"), connection("id-2", "Home"))
TWO_FILE = file_for("RDP", TWO, named("Office"), named("Home"))
PARSE_FAILED = "Failed to parse the exported registry information.\n"
EXPORT_COMMAND = ("rm -f /tmp/freerdp.xml;"
                  "regsh export root/ConnectionType/freerdp /tmp/freerdp.xml")
ABORTED = -signal.SIGABRT


@pytest.fixture
def get(device):
    """Exports into a file that exists already."""

    def run(connection_type="RDP", file="out.xml", **options):
        (device.home / "out.xml").write_bytes(BEFORE)
        return outcome(device, device.corvik("-get", connection_type, "-f", file, **options))

    return run


def untouched(result, stderr="", tmp=(), connection_type="RDP"):
    """A failure that left the connections file as it was."""
    return Outcome(result, stderr=stderr, log=log_of(connection_type, "out.xml", result),
                   file=BEFORE, tmp=tmp)


def aborted(stderr, tmp=(), connection_type="RDP"):
    """An abnormal end: the log holds its header line only."""
    return Outcome(ABORTED, stderr=stderr, log=log_header(connection_type, "out.xml"), file=BEFORE,
                   tmp=tmp)


def told_by_shell(device, command, **options):
    """What a shell on the device prints on standard error for this command line."""
    result = device.run("sh", "-c", command, **options)
    assert result.status != 0
    return result.stderr_bytes


# 2: no handler

@pytest.mark.parametrize("connection_type", ["null", "NULL", "Null"])
def test_no_handler(device, get, connection_type):
    recorder = device.recorder()
    assert get(connection_type) == untouched(2, connection_type=connection_type)
    assert recorder.calls == []


# 11: the temporary file cannot be read

def test_the_client_writes_no_export(device, get):
    recorder = device.recorder()
    assert get() == untouched(11)
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_a_stale_temporary_file_is_not_taken_for_the_export(device, get):
    device.recorder()
    (device.tmp / "freerdp.xml").write_text(TWO)
    assert get() == untouched(11)


def test_the_temporary_file_cannot_be_opened(device, programs, get):
    exports(device.recorder(), TWO)
    failing = preload(programs, FAIL_FOPEN="1", FAIL_FOPEN_PATH="/tmp/freerdp.xml")
    assert get(env=failing) == untouched(11, tmp=["freerdp.xml"])


def test_a_link_to_nowhere_in_place_of_the_export(device, get):
    device.recorder()
    (device.tmp / "freerdp.xml").symlink_to("nowhere")
    assert get() == untouched(11)


def test_a_type_that_names_a_file_in_a_missing_folder(device, get):
    device.recorder()
    assert get("a/b") == untouched(11, connection_type="a/b")


@pytest.mark.parametrize("length", [252, 300])
def test_a_type_too_long_for_a_file_name(device, get, length):
    device.recorder()
    connection_type = "x" * length
    told = told_by_shell(device, f"rm -f /tmp/{connection_type}.xml")
    assert get(connection_type) == untouched(11, stderr=told, connection_type=connection_type)


# 12: the connections file cannot be written

UNWRITABLE = {
    "empty-name": "",
    "folder": "folder",
    "current-folder": ".",
    "in-a-missing-folder": "missing/out.xml",
    "below-a-file": "corvik.log/out.xml",
    "full-device": "/dev/full",
    "name-too-long": "x" * 256,
    "path-too-long": "/" + "x/" * 2100,
    "link-to-a-missing-folder": "link",
}


@pytest.mark.parametrize("name", UNWRITABLE.values(), ids=UNWRITABLE)
def test_a_file_that_cannot_be_written(device, get, name):
    recorder = exports(device.recorder(), TWO)
    (device.home / "folder").mkdir()
    (device.home / "link").symlink_to("missing/out.xml")
    before = sorted(path.name for path in device.home.iterdir())
    result = device.corvik("-get", "RDP", "-f", name)
    assert outcome(device, result, None) == Outcome(12, stderr=WALK_ENDED,
                                                    log=log_of("RDP", name, 12))
    assert sorted(path.name for path in device.home.iterdir()) == sorted([*before, "corvik.log"])
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_no_file_option_at_all(device):
    exports(device.recorder(), TWO)
    result = device.corvik("-get", "RDP", "x", "y")
    assert outcome(device, result, None) == Outcome(12, stderr=WALK_ENDED,
                                                    log=log_of("RDP", "", 12))
    assert [path.name for path in device.home.iterdir()] == ["corvik.log"]


def test_the_file_cannot_be_opened(device, programs, get):
    exports(device.recorder(), TWO)
    failing = preload(programs, FAIL_FOPEN="1", FAIL_FOPEN_PATH="out.xml")
    assert get(env=failing) == untouched(12, stderr=WALK_ENDED)


def test_the_disk_takes_nothing(device, programs, get):
    exports(device.recorder(), TWO)
    assert get(env=preload(programs, FAIL_FWRITE="1")) == Outcome(
        12, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 12), file=b"")


def test_the_disk_takes_a_part(device, programs, get):
    exports(device.recorder(), TWO)
    assert get(env=preload(programs, SHORT_FWRITE="1", FAIL_FWRITE="2")) == Outcome(
        12, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 12), file=TWO_FILE[:1])


def test_the_disk_takes_one_part_after_the_other(device, programs, get):
    exports(device.recorder(), TWO)
    assert get(env=preload(programs, SHORT_FWRITE="1")) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0), file=TWO_FILE)


def test_the_file_cannot_be_closed(device, programs, get):
    exports(device.recorder(), TWO)
    # Every other stream of the run is read from or is the log: only the file's own close matters.
    statuses = [get(env=preload(programs, FAIL_FCLOSE=str(k)))["status"] for k in range(1, 30)]
    assert sorted(set(statuses)) == [0, 12]
    assert statuses.count(12) == 1


def test_a_type_without_connections_on_a_full_device(device):
    exports(device.recorder(), export_with())
    result = device.corvik("-get", "RDP", "-f", "/dev/full")
    assert outcome(device, result, None) == Outcome(12, stderr=WALK_ENDED,
                                                    log=log_of("RDP", "/dev/full", 12))


def test_the_default_of_another_type_on_a_full_device(device):
    recorder = default_is(device.recorder(), "Default")
    result = device.corvik("-get", "RDP", "-f", "/dev/full", image_type=6)
    assert outcome(device, result, None) == Outcome(12, log=log_of("RDP", "/dev/full", 12))
    assert recorder.calls == [*NAME_TABLE_CALLS, GET_DEFAULT]


# 50: the export command fails

@pytest.mark.parametrize("status", [1, 2, 11, 126, 127, 255])
def test_the_client_refuses_the_export(device, get, status):
    recorder = device.recorder()
    recorder.on("export", ANY, ANY, stdout="said\n", stderr="no such type\n", status=status)
    wanted = untouched(50, stderr="no such type\n")
    wanted["stdout"] = b"said\n"
    assert get() == wanted
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_what_a_failing_export_wrote_stays(device, get):
    device.recorder().on("export", ANY, ANY, writes=TWO, status=1)
    assert get() == untouched(50, tmp=["freerdp.xml"])
    assert (device.tmp / "freerdp.xml").read_text() == TWO


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL, signal.SIGSEGV],
                         ids=lambda number: number.name)
def test_the_client_is_killed(device, get, number):
    recorder = device.recorder()
    recorder.on("export", ANY, ANY, writes=TWO, signal=number)
    told = told_by_shell(device, EXPORT_COMMAND)
    recorder.clear()
    assert get() == untouched(50, stderr=told, tmp=["freerdp.xml"])
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def without_client(device):
    """A search path on which all is found but the client."""
    folder = device.home / "programs"
    folder.mkdir()
    for name in ("rm", "cat", "grep", "head", "cut", "sh"):
        found = device.run("sh", "-c", f"command -v {name}").stdout.strip()
        (folder / name).symlink_to(found)
    return {"PATH": str(folder)}


@pytest.mark.parametrize("image_type, registry_type", [(6, "rdesktop"), (7, "rdesktop"),
                                                       (9, "freerdp")])
def test_the_client_is_missing(device, programs, image_type, registry_type):
    environment = without_client(device)
    (device.home / "out.xml").write_bytes(BEFORE)
    words = ["export", f"root/ConnectionType/{registry_type}"]
    lines = ["regsh contains root/ConnectionType/freerdp"] * 4
    lines += ["regsh get root"] if image_type == 6 else []
    lines += [f"rm -f x;regsh {' '.join(words)} x"]
    told = b"".join(told_by_shell(device, line, env=environment) for line in lines)
    result = device.corvik("-get", "RDP", "-f", "out.xml", env=environment, image_type=image_type)
    assert b"regsh" in told
    assert outcome(device, result) == untouched(50, stderr=told)


def test_a_folder_in_place_of_the_temporary_file_cannot_be_removed(device, get):
    device.recorder()
    (device.tmp / "freerdp.xml").mkdir()
    told = told_by_shell(device, "rm -f /tmp/freerdp.xml")
    # Only the status of the export itself counts; the folder then reads as an empty file.
    assert get() == aborted(
        told + b'corvik: the registry export /tmp/freerdp.xml holds no "<"\n', tmp=["freerdp.xml"])


@pytest.mark.parametrize("command", ["5", "6"], ids=["rm", "regsh"])
def test_nothing_can_be_started_for_the_export(device, programs, get, command):
    recorder = exports(device.recorder(), TWO)
    assert get(env=preload(programs, FAIL_SYSTEM=command)) == untouched(50)
    assert recorder.calls == NAME_TABLE_CALLS


@pytest.mark.parametrize("name", ["KILL", "SEGV", "TERM", "INT", "PIPE"])
def test_a_signal_that_ends_the_client_is_told_as_the_shell_tells_it(device, name):
    client = device.folder / "killed"
    client.write_text(f"#!/bin/sh\nkill -{name} $$\n")
    client.chmod(0o755)
    (device.home / "out.xml").write_bytes(BEFORE)
    lines = ["regsh contains x"] * 4 + ["rm -f x;regsh export x x"]
    told = b"".join(told_by_shell(device, line, client=client) for line in lines)
    assert len(told.splitlines()) == (0 if name in ("INT", "PIPE") else len(lines))
    result = device.corvik("-get", "RDP", "-f", "out.xml", client=client)
    assert outcome(device, result) == untouched(50, stderr=told)


def test_no_shell_can_be_started_for_the_removal(device, programs, get):
    exports(device.recorder(), TWO)
    assert get(env=preload(programs, FAIL_SYSTEM="7")) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0), file=TWO_FILE, tmp=["freerdp.xml"])


@pytest.mark.parametrize("number, connection_type, registry_type", [
    (1, "RDP", "freerdp"), (2, "ICA", "ica"), (3, "Firefox", "firefox"), (4, "RDP", "rdesktop")])
def test_no_shell_can_be_started_for_a_query_of_a_client(device, programs, get, number,
                                                         connection_type, registry_type):
    recorder = exports(device.recorder(), export_with())
    result = get(connection_type, image_type=7, env=preload(programs, FAIL_SYSTEM=str(number)))
    assert result == Outcome(0, stderr=WALK_ENDED, log=log_of(connection_type, "out.xml", 0),
                             file=f"<{connection_type}/>\n".encode())
    left = NAME_TABLE_CALLS[:number - 1] + NAME_TABLE_CALLS[number:]
    assert recorder.calls == [*left, export_call(registry_type)]


# 52: the export does not parse

RUBBISH = {
    "only-the-bracket": "<",
    "unfinished-name": "<Profile",
    "unfinished-start": "<Profile ",
    "unfinished-element": "<Profile>",
    "cut-off": TWO[:len(TWO) // 2],
    "last-byte-missing": TWO[:-1],
    "wrong-end": TWO.replace("</ProfileRegistry>", "</Registry>"),
    "text-behind": TWO + "done",
    "text-before-a-child": TWO.replace("<ProfileRegistry>", "x<ProfileRegistry>"),
    "bare-bracket-in-text": export_with(connection("a", "b")).replace(">b<", ">a > b<"),
    "attribute-without-quotes": TWO.replace('"connections"', "connections"),
    "attribute-without-value": TWO.replace("<ProfileRegistry>", "<ProfileRegistry x>"),
    "bracket-in-attribute": TWO.replace('"id-1"', '"a<b"'),
    "bad-comment": "<!-- a > b -->" + TWO,
    "unfinished-comment": "<!-- " + TWO[1:],
    "unfinished-extra": "<!DOCTYPE a",
    "declaration-cut-off-in-an-attribute": '<?xml version="1.0"',
    "second-document": TWO + "<",
    "banner-and-rubbish": "banner\n<Profile><",
    "null-byte-inside": TWO[:60] + "\0" + TWO[60:],
}


@pytest.mark.parametrize("rubbish", RUBBISH.values(), ids=RUBBISH)
def test_an_export_that_does_not_parse(device, get, rubbish):
    recorder = exports(device.recorder(), rubbish)
    assert get() == untouched(52, stderr=PARSE_FAILED, tmp=["freerdp.xml"])
    assert (device.tmp / "freerdp.xml").read_text() == rubbish
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_an_export_that_does_not_parse_on_a_zero_client_and_on_image_type_6(device, get):
    recorder = exports(default_is(device.recorder(), "id-1"), "<")
    assert get(zero=True) == untouched(52, stderr=PARSE_FAILED, tmp=["freerdp.xml"])
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]
    recorder.clear()
    assert get(image_type=6) == untouched(52, stderr=PARSE_FAILED, tmp=["freerdp.xml"])
    assert recorder.calls == [*NAME_TABLE_CALLS, GET_DEFAULT, export_call("freerdp")]


def test_a_million_nested_elements_are_refused(device, get):
    depth = 1_000_000
    exports(device.recorder(), "<d>" * depth + "<e/>" + "</d>" * depth)
    assert get() == untouched(52, stderr=PARSE_FAILED, tmp=["freerdp.xml"])


def test_deeply_nested_elements_are_exported(device, get):
    depth = 400
    document = export_with(connection("id-1", "One", "<d>" * depth + "<e/>" + "</d>" * depth))
    exports(device.recorder(), document)
    assert get() == Outcome(0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0),
                            file=file_for("RDP", document, named("One")))


# Abnormal ends

@pytest.mark.parametrize("text", ["", "\n", "no such type\n", "> & nothing\n", "x" * 5000,
                                  "a\0<Profile/>"],
                         ids=["empty", "line-end", "words", "markup", "long", "null-byte"])
def test_an_export_without_a_bracket(device, get, text):
    recorder = exports(device.recorder(), text)
    assert get() == aborted('corvik: the registry export /tmp/freerdp.xml holds no "<"\n',
                            tmp=["freerdp.xml"])
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_the_last_word_names_the_file_of_the_type(device, get):
    exports(device.recorder(), "rubbish")
    assert get("My-Type") == aborted(
        'corvik: the registry export /tmp/My-Type.xml holds no "<"\n', tmp=["My-Type.xml"],
        connection_type="My-Type")


def test_no_identity(device, get):
    recorder = exports(device.recorder(), TWO)
    assert get(image_type="none") == aborted(
        "corvik: Invalid Image ID (neither /etc/systeminfo nor /etc/imageid gives one)\n")
    assert recorder.calls == NAME_TABLE_CALLS


# Pipes that cannot be made

def test_no_pipe_for_the_default_connection_of_image_type_6(device, programs, get):
    recorder = exports(default_is(device.recorder(), "id-1"), TWO)
    assert get(image_type=6, env=preload(programs, FAIL_POPEN="1")) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0), file=b"<RDP/>\n")
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_no_pipe_for_the_product_configuration(device, programs, get):
    recorder = exports(default_is(device.recorder(), "id-1"), TWO)
    # A carriage return is left to the programs of the pipeline.
    zero = 'PRODUCT_NAME="Sylvex"\nPRODUCT_CONFIG="zero"\nPRODUCT_VERSION="6.1"\n# \r\n'
    assert get(systeminfo=zero, env=preload(programs, FAIL_POPEN="1")) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0), file=TWO_FILE)
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_no_pipe_for_the_default_connection_of_a_zero_client(device, programs, get):
    recorder = exports(default_is(device.recorder(), "id-1"), TWO)
    assert get(zero=True, env=preload(programs, FAIL_POPEN="1")) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0), file=TWO_FILE)
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


def test_one_pipe_is_all_that_a_zero_client_needs(device, programs, get):
    exports(default_is(device.recorder(), "id-1"), TWO)
    assert get(zero=True, env=preload(programs, FAIL_POPEN="2")) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0),
        file=file_for("RDP", TWO, named("Office", ("Default", "yes")), named("Home")))


# The type is the operator's own word

WORDS = {  # a type, and the calls of the client that come of it
    "a b": [["export", "root/ConnectionType/a", "b", "/tmp/a", "b.xml"]],
    "'a  b'": [["export", "root/ConnectionType/a  b", "/tmp/a  b.xml"]],
    "a'b c'd": [["export", "root/ConnectionType/ab cd", "/tmp/ab cd.xml"]],
    "$(echo sub)": [["export", "root/ConnectionType/sub", "/tmp/sub.xml"]],
    "$HERE": [["export", "root/ConnectionType/there", "/tmp/there.xml"]],
    "a\\b": [["export", "root/ConnectionType/ab", "/tmp/ab.xml"]],
    "a;regsh more": [["more.xml"], ["export", "root/ConnectionType/a"], ["more", "/tmp/a"],
                     ["more.xml"]],
    "a #": [],
}


@pytest.mark.parametrize("connection_type, calls", WORDS.items(), ids=WORDS)
def test_the_type_is_written_into_the_command_as_typed(device, get, connection_type, calls):
    recorder = device.recorder()
    result = get(connection_type, env={"HERE": "there"})
    assert result == untouched(11, connection_type=connection_type)
    assert recorder.calls == [*NAME_TABLE_CALLS, *(["regsh", *call] for call in calls)]


def test_a_type_with_a_blank_removes_two_files(device, get):
    device.recorder()
    (device.tmp / "a").write_text("gone")
    (device.home / "b.xml").write_text("gone")
    assert get("a b") == untouched(11, connection_type="a b")
    assert not (device.home / "b.xml").exists()


# Commands at their limit of 1022 characters

def long_type(length, name=""):
    """A type of that length whose temporary file is still one that can be."""
    filling = length - len(name)
    return "./" * (filling // 2) + "x" * (filling % 2) + name


def export_line(connection_type):
    file = f"/tmp/{connection_type}.xml"
    return f"rm -f {file};regsh export root/ConnectionType/{connection_type} {file}"


def test_a_command_of_1022_characters_is_whole(device, get):
    connection_type = long_type(321, "name")
    assert len(export_line(connection_type)) == 1022
    recorder = exports(device.recorder(), export_with())
    assert get(connection_type) == Outcome(
        0, stderr=WALK_ENDED, log=log_of(connection_type, "out.xml", 0),
        file=f"<{connection_type}/>\n".encode())
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call(connection_type)]


# The file that the cut command names is written, the whole name is read.
@pytest.mark.parametrize("length, leftover", [(322, "name."), (323, "xna"), (324, "lon")])
def test_a_longer_command_is_cut_at_1022_characters(device, get, length, leftover):
    connection_type = long_type(length, "longname" if leftover == "lon" else "name")
    words = export_line(connection_type)[:1022].partition(";")[2].split()
    recorder = exports(device.recorder(), export_with())
    assert get(connection_type) == untouched(11, tmp=[leftover], connection_type=connection_type)
    assert recorder.calls == [*NAME_TABLE_CALLS, words]


def test_a_command_may_lose_its_last_word(device, get):
    connection_type = long_type(600, "name")
    recorder = exports(device.recorder(), export_with())
    assert get(connection_type) == untouched(11, connection_type=connection_type)
    words = export_line(connection_type)[:1022].partition(";")[2].split()
    assert len(words) == 3
    assert recorder.calls == [*NAME_TABLE_CALLS, words]


def test_the_removal_is_cut_at_1022_characters_too(device, get):
    connection_type = "./" * 505 + "abc"
    (device.tmp / "a").write_text("removed by the command that was cut")
    (device.tmp / "abc.xml").write_text(TWO)
    recorder = device.recorder()
    assert get(connection_type) == Outcome(
        0, stderr=WALK_ENDED, log=log_of(connection_type, "out.xml", 0),
        file=file_for(connection_type, TWO, named("Office"), named("Home")), tmp=["abc.xml"])
    assert recorder.calls == NAME_TABLE_CALLS


# Memory

def test_any_allocation_may_fail(device, programs):
    """Every run ends by a result code or with a last word, and never leaves half a file."""
    exports(default_is(device.recorder(), "id-1"), TWO)
    whole = file_for("RDP", export_with(connection("id-1", "Office")), named("Office"))
    settings = preload(programs)
    script = """
        number=0
        while [ $number -lt 2000 ]; do
            number=$((number + 1))
            printf before > out.xml
            LD_PRELOAD=$SHIM FAIL_NEW=$number corvik -get RDP -f out.xml 2> messages
            status=$?
            cp out.xml file.$number
            cp messages messages.$number
            echo $status
            [ $status -ne 0 ] || break
        done"""
    result = device.run("sh", "-c", script, image_type=6,
                        env={**settings, "SHIM": settings["LD_PRELOAD"]})
    statuses = [int(line) for line in result.stdout.split()]
    assert statuses[-1] == 0 and len(statuses) > 50
    for number, status in enumerate(statuses, 1):
        file = (device.home / f"file.{number}").read_bytes()
        messages = (device.home / f"messages.{number}").read_text()
        assert status in (0, 12, 52, 128 + signal.SIGABRT), (number, status, messages)
        assert file == (whole if status == 0 else b"before"), (number, status)
        if status == 128 + signal.SIGABRT:
            # A shell adds a line of its own about the signal.
            last_words = [line for line in messages.splitlines() if line.startswith("corvik: ")]
            assert last_words == ["corvik: out of memory"], number
        if status == 52:
            assert messages.splitlines()[-1] == PARSE_FAILED.rstrip("\n"), number
