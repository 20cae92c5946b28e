"""Which build the tool takes the device for, and whether for a zero client.

The build shows in the registry names of three connection types, the zero client in the question for
the default connection. Some builds cannot be told apart that way and share a row below.
"""

import signal

import pytest

from registry_export import (GET_DEFAULT, NAME_TABLE_CALLS, WALK_ENDED, Outcome, connection,
                             default_is, export_call, export_with, exports, file_for, log_header,
                             log_of, named, outcome, preload)

TYPES = ("VDM", "Firefox", "ICA")
BUILDS = {
    ("vdm", "firefox", "ica"): "1",
    ("VDM", "Firefox", "ICA"): "2",
    ("vdm", "iceweasel", "ica"): "3-4",
    ("view", "iceweasel", "ica"): "5",
    ("view", "Firefox", "xen"): "6",
    ("view", "iceweasel", "xen"): "7",
    ("view", "firefox", "xen"): "8-10",
}
NONE = "none"
ABORTED = 128 + signal.SIGABRT
NO_IDENTITY = "corvik: Invalid Image ID (neither /etc/systeminfo nor /etc/imageid gives one)\n"

IMAGE_ID_OF_2 = "DXSQ0005"  # seen where systeminfo does not settle the build
ONE = export_with(connection("id-1", "One"))


def build_of(device, **identity):
    """The build as shown by the names that are exported; "none" when every run was aborted."""
    recorder = device.recorder()
    recorder.on("export", ..., status=1)
    script = 'for type in "$@"; do corvik -get "$type" -f out.xml; echo $?; done 2> messages'
    result = device.run("sh", "-c", script, "sh", *TYPES, **identity)
    statuses = [int(line) for line in result.stdout.split()]
    if statuses == [ABORTED] * len(TYPES):
        assert recorder.calls == NAME_TABLE_CALLS * len(TYPES)
        return NONE
    assert statuses == [50] * len(TYPES)
    names = [call[2].removeprefix("root/ConnectionType/") for call in recorder.calls
             if call[1] == "export"]
    return BUILDS[tuple(names)]


def info(name="Sylvex", config="standard", version="6.4"):
    return f'PRODUCT_NAME="{name}"\nPRODUCT_CONFIG="{config}"\nPRODUCT_VERSION="{version}"\n'


NAME, CONFIG, VERSION = info().splitlines(keepends=True)
LONG = "#" * 1023

SYSTEMINFO = {  # the file's content and the build; "2" where it does not settle one
    # Versions of the standard edition
    "standard-3": (info(version="3.1"), "5"),
    "standard-4": (info(version="4.2"), "7"),
    "standard-5": (info(version="5.3"), "8-10"),
    "standard-6": (info(version="6.4"), "8-10"),
    "standard-7": (info(version="7.5"), "8-10"),
    "standard-0": (info(version="0.1"), "2"),
    "standard-1": (info(version="1.0"), "2"),
    "standard-2": (info(version="2.9"), "2"),
    "standard-8": (info(version="8.0"), "2"),
    "standard-9": (info(version="9.0"), "2"),
    "standard-only-a-digit": (info(version="4"), "7"),
    "standard-two-digits": (info(version="45"), "7"),
    "standard-no-version": (info(version=""), "2"),
    "standard-blank-before-the-version": (info(version=" 6"), "2"),
    "standard-letter": (info(version="v6"), "2"),
    # Versions of the zero edition
    "zero-5": (info(config="zero", version="5.0"), "8-10"),
    "zero-6": (info(config="zero", version="6.0"), "8-10"),
    "zero-7": (info(config="zero", version="7.0"), "8-10"),
    "zero-4": (info(config="zero", version="4.0"), "6"),
    "zero-3": (info(config="zero", version="3.0"), "6"),
    "zero-8": (info(config="zero", version="8.0"), "6"),
    "zero-letter": (info(config="zero", version="x"), "6"),
    "zero-no-version": (info(config="zero", version=""), "6"),
    "zero-without-a-version-line": (info(config="zero").replace(VERSION, ""), "6"),
    # Configurations
    "config-empty": (info(config="", version="4"), "7"),
    "config-missing": (NAME + VERSION, "8-10"),
    "config-without-value": (NAME + "PRODUCT_CONFIG=\n" + VERSION, "8-10"),
    "config-one-quote": (NAME + 'PRODUCT_CONFIG="\n' + VERSION, "8-10"),
    "config-Standard": (info(config="Standard", version="4"), "7"),
    "config-STANDARD": (info(config="STANDARD", version="3"), "5"),
    "config-Zero": (info(config="Zero", version="4"), "6"),
    "config-ZERO": (info(config="ZERO", version="4"), "6"),
    "config-other": (info(config="smart"), "2"),
    "config-longer": (info(config="standard2"), "2"),
    "config-shorter": (info(config="standar"), "2"),
    "config-blank": (info(config=" "), "2"),
    "config-blank-behind": (info(config="zero "), "2"),
    # Product names
    "name-lower-case": (info(name="sylvex", config="", version="6.0"), "8-10"),
    "name-upper-case": (info(name="SYLVEX"), "8-10"),
    "name-other": (info(name="Other"), "2"),
    "name-longer": (info(name="Sylvex2"), "2"),
    "name-shorter": (info(name="Sylve"), "2"),
    "name-empty": (info(name=""), "2"),
    "name-missing": (CONFIG + VERSION, "2"),
    # Shape of the file
    "empty-file": ("", "2"),
    "other-order": (VERSION + "\n" + CONFIG + "# note\n" + NAME, "8-10"),
    "no-line-end": (info()[:-1], "8-10"),
    "no-line-end-and-a-short-version": (info(version="6")[:-1], "2"),
    "no-line-end-but-a-long-version": (info(version="4.25")[:-1], "7"),
    "carriage-returns": (info(config="").replace("\n", "\r\n"), "2"),
    "carriage-return-behind-the-version": (NAME + CONFIG + VERSION[:-1] + "\r\n", "8-10"),
    "other-quotes": (info().replace('"', "'"), "8-10"),
    "no-quotes": (info().replace('"', ""), "2"),
    "without-the-last-quote": (NAME.replace('x"', "xx") + VERSION, "8-10"),
    "any-two-characters-end-the-value": (NAME.replace('"\n', "?\n") + VERSION, "8-10"),
    "blank-behind-the-value": (NAME.replace('"\n', '" \n') + VERSION, "2"),
    "keys-in-lower-case": (info().lower(), "2"),
    "blank-before-the-sign": (info().replace("=", " ="), "2"),
    "words-before-the-name": ("export " + NAME + VERSION, "2"),
    "words-before-the-version": (NAME + "export " + VERSION, "8-10"),
    "key-inside-a-word": (NAME + "OLD_" + VERSION, "8-10"),
    "comment-overwrites": (info() + '#PRODUCT_VERSION="4"\n', "7"),
    "later-name-overwrites": (info() + 'PRODUCT_NAME="Other"\n', "2"),
    "later-config-overwrites": (info(version="4") + 'PRODUCT_CONFIG="zero"\n', "6"),
    "later-version-overwrites": (info() + 'PRODUCT_VERSION="3"\n', "5"),
    "later-empty-version-overwrites": (info() + "PRODUCT_VERSION=\n", "2"),
    # Such a line counts as a name: it has that key, which is looked for first.
    "two-keys-in-a-line": (info() + '#PRODUCT_VERSION="3" PRODUCT_NAME="Other"\n', "2"),
    "config-before-version-in-a-line": (
        NAME + CONFIG + VERSION + 'PRODUCT_CONFIG="PRODUCT_VERSION="\n', "2"),
    "long-line-in-pieces": (CONFIG + VERSION + LONG + NAME, "8-10"),
    "key-on-the-edge-of-a-piece": (CONFIG + VERSION + LONG[:-1] + NAME, "2"),
    "long-line-before": (LONG * 3 + "\n" + info(), "8-10"),
    "long-name": (info(name="Sylvex" + "x" * 2000), "2"),
    "null-bytes": (info().replace("Sylvex", "Syl\0ex"), "2"),
}


@pytest.mark.parametrize("text, build", SYSTEMINFO.values(), ids=SYSTEMINFO)
def test_systeminfo(device, text, build):
    assert build_of(device, systeminfo=text, imageid=IMAGE_ID_OF_2) == build


def test_there_is_no_systeminfo(device):
    assert build_of(device, imageid=IMAGE_ID_OF_2) == "2"


def test_a_folder_in_place_of_systeminfo(device):
    (device.etc / "systeminfo").unlink()
    (device.etc / "systeminfo").mkdir()
    (device.etc / "imageid").write_text(IMAGE_ID_OF_2)
    assert build_of(device, image_type=None) == "2"


IMAGEID = {  # identifier and build
    # Lowest and highest numbers of each row
    "DXST0000": "1", "DXST0019": "1", "DXST0020": "3-4", "DXST9999": "3-4",
    "DXJP0000": "1", "DXJP0010": "1", "DXJP0011": "3-4", "DXJP9999": "3-4",
    "DXTH0000": "1", "DXTH0004": "1", "DXTH0005": "3-4", "DXTH9999": "3-4",
    "DXSQ0000": "2", "DXSQ9999": "2", "DXQU0000": "3-4", "DXQU9999": "3-4",
    "DXK20000": "3-4", "DXK29999": "3-4", "DXAR0000": "5", "DXCL0000": "5", "DXKR0000": "5",
    "TXX31000": "5", "TXX32000": "5", "TXX32100": "5", "TXX33000": "5", "TXX33099": "5",
    "TXX41000": "7", "TXX41099": "7", "TXX40000": "6", "TXX40099": "6",
    # The prefix decides for what no row knows
    "DXXX0005": "5", "MXXX0005": "5", "TXXXXX05": "6", "XXXXXX05": "5", "00000000": "5",
    "M-ST0005": "1", "M-SQ0005": "2",
    # The prefix "Z" always does
    "ZXX41000": "6", "ZXX31000": "6", "ZZZZZZZZ": "6", "Z-ST0005": "6",
    # Other prefixes are cut up as "T"
    "XXX41012": "7", "XXX31012": "5", "dXST0005": "5", "tXX41012": "7", "tXX40012": "6",
    "zXX41012": "7", "XXST0005": "5", " XX41012": "7",
    # Numbers that are none, or none but for blanks and signs
    "DXST00x9": "5", "DXST000x": "5", "DXSTxxxx": "5", "DXST-001": "5", "DXST    ": "5",
    "DXST1 00": "5", "DXST  19": "1", "DXST +19": "1", "DXST  20": "3-4", "DXST0x10": "5",
    "DXST-000": "1", "TXX410x0": "6", "TXX4100x": "6", "TXX410 5": "7", "TXX410+5": "7",
    "TXX410-1": "6", "XXX410x0": "5",
    # Codes are exact
    "DXst0005": "5", "DXSt0005": "5", "DSTX0005": "5", "TX410X05": "6", "T4100005": "6",
    # The third letter is the architecture's own
    "DaST0005": "1", "DXaR0005": "5", "TXa41012": "7", "TXA41005": "7",
    # Only 8 characters count
    "DXST00199": "1", "DXST0019\n": "1", "TXX41012 and more": "7", "DXSQ0005" + "x" * 1000: "2",
    # A line end may be one of them
    "DXST019\n": "5", "DXST001\n\n": "5", "\nDXST0005": "5", "DXSQ005\r\n": "5",
    # Too short
    "": NONE, "D": NONE, "DXST001": NONE, "DXST00\n": NONE, "\n": NONE,
}


def as_id(text):
    return repr(text)[1:-1][:24] or "empty"


@pytest.mark.parametrize("text, build", IMAGEID.items(), ids=map(as_id, IMAGEID))
def test_imageid(device, text, build):
    assert build_of(device, imageid=text) == build


@pytest.mark.parametrize("content, build", [
    (b"DXSQ0005\0\0\0", "2"), (b"DXSQ000\0x", NONE), (b"\0DXSQ0005", NONE),
    (b"DXSQ\xff\xfe\xfd\xfc", "5"), (b"\xff\xff\xff41012", "7")], ids=repr)
def test_bytes_in_imageid(device, content, build):
    assert build_of(device, imageid=content) == build


@pytest.mark.parametrize("systeminfo", [None, "", info(name="Other"), info(config="smart"),
                                        info(version="2")],
                         ids=["missing", "empty", "other-product", "other-config", "old-version"])
def test_neither_file_gives_an_identity(device, systeminfo):
    recorder = exports(device.recorder(), export_with())
    result = device.corvik("-get", "RDP", "-f", "out.xml", image_type="none",
                           systeminfo=systeminfo)
    assert outcome(device, result) == Outcome(-signal.SIGABRT, stderr=NO_IDENTITY,
                                              log=log_header("RDP", "out.xml"))
    assert recorder.calls == NAME_TABLE_CALLS


def test_a_folder_in_place_of_imageid(device):
    device.recorder()
    (device.etc / "systeminfo").unlink()
    (device.etc / "imageid").mkdir()
    result = device.corvik("-get", "RDP", "-f", "out.xml", image_type=None)
    assert outcome(device, result) == Outcome(-signal.SIGABRT, stderr=NO_IDENTITY,
                                              log=log_header("RDP", "out.xml"))


def test_imageid_is_not_asked_where_systeminfo_settles_it(device):
    assert build_of(device, systeminfo=info(), imageid="DXST") == "8-10"


@pytest.mark.parametrize("path", ["/etc/systeminfo", "/etc/imageid"])
def test_a_file_that_cannot_be_opened_at_first(device, programs, path):
    # The name table asks first and drops the answer; what cannot be opened then is missing.
    recorder = exports(default_is(device.recorder(), "id-1"), ONE)
    result = device.corvik("-get", "RDP", "-f", "out.xml", systeminfo=info(version="4"),
                           imageid="DXSQ0005",
                           env=preload(programs, FAIL_FOPEN="1", FAIL_FOPEN_PATH=path))
    assert outcome(device, result) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("RDP", "out.xml", 0),
        file=file_for("RDP", ONE, named("One")))
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("freerdp")]


# The zero edition


def is_zero(device, recorder, systeminfo, **options):
    """Whether an export asks for the default connection, and marks it."""
    result = device.corvik("-get", "Any", "-f", "out.xml", systeminfo=systeminfo,
                           imageid=IMAGE_ID_OF_2, **options)
    zero = GET_DEFAULT in recorder.calls
    mark = [("Default", "yes")] if zero else []
    assert outcome(device, result) == Outcome(0, stderr=WALK_ENDED, log=log_of("Any", "out.xml", 0),
                                              file=file_for("Any", ONE, named("One", *mark)))
    assert recorder.calls == [*NAME_TABLE_CALLS, export_call("Any"), *([GET_DEFAULT] * zero)]
    return zero


@pytest.fixture
def recorder(device):
    return exports(default_is(device.recorder(), "id-1"), ONE)


ZERO = {  # systeminfo, and whether the device is a zero client
    **{f"{config}-{version}": (info(config=config, version=version), config in ("zero", "Zero"))
       for config in ("zero", "Zero", "ZERO", "zERO", "zeRo", "standard", "Standard", "")
       for version in ("5.0", "6.0", "7.0")},
    "standard-3": (info(version="3"), False),
    "standard-4": (info(version="4"), False),
    "other-product": (info(name="Other", config="zero"), False),
    "not-settled": (info(config="zero ", version="6"), False),
    "no-config-line": (NAME + VERSION, False),
    # The first line with the word counts here, the last one for the build.
    "first-line-zero": (info(config="zero") + 'PRODUCT_CONFIG="standard"\n', True),
    "last-line-zero": (info(config="standard") + 'PRODUCT_CONFIG="zero"\n', False),
    "comment-before": ('# PRODUCT_CONFIG is "zero" here\n' + info(), True),
    "comment-before-says-standard": ('# PRODUCT_CONFIG "standard"\n' + info(config="zero"), False),
    "comment-before-without-quotes": ("# PRODUCT_CONFIG\n" + info(config="zero"), False),
    "blanks-are-trimmed": ('#PRODUCT_CONFIG" \t zero \t"\n' + info(), True),
    "part-of-a-word": ('MY_PRODUCT_CONFIGURATION="zero"\n' + info(), True),
    "first-line-longer": ('PRODUCT_CONFIG="zero2"\n' + info(config="zero"), False),
    "carriage-return-before-the-end": ('#PRODUCT_CONFIG"zero\r"\n' + info(), True),
}


@pytest.mark.parametrize("systeminfo, zero", ZERO.values(), ids=ZERO)
def test_zero_clients(device, recorder, systeminfo, zero):
    assert is_zero(device, recorder, systeminfo) == zero


def test_image_type_6_of_the_zero_edition_is_no_zero_client(device, recorder):
    result = device.corvik("-get", "Any", "-f", "out.xml",
                           systeminfo=info(config="zero", version="4"))
    assert outcome(device, result) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("Any", "out.xml", 0),
        file=file_for("Any", ONE, named("One")))
    assert recorder.calls == [*NAME_TABLE_CALLS, GET_DEFAULT, export_call("Any")]


def test_no_pipe_means_no_zero_client(device, recorder, programs):
    failing = preload(programs, FAIL_POPEN="1")
    assert not is_zero(device, recorder, info(config="zero"), env=failing)
