"""A disk that is full: what is told, what is left half, and what nobody tells.

Each single call that fails is tried in tests/blackbox/test_export_failures.py and
test_import_failures.py; here the system itself takes only a part.
"""

import os
import signal

import pytest

from attack_support import PATH, client_script, permissions, publish
from import_run import (WALK_OVER, Left, ImportCase, classic, conn, connections_file, entry, export,
                        key, looked_up, merged)
from recorder_client import ANY

# As on a full disk: what is beyond this is not taken, and the write says so.
FULL = "trap '' XFSZ; ulimit -S -f 8"
LARGE = export(conn("id-1", "A", key("large", "x" * 50_000)))
SESSION = "y" * 20_000


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def is_a_part(part, whole):
    return 0 < len(part) < len(whole) and whole.startswith(part)


def get(device, before=":"):
    device.recorder().on("export", ANY, ANY, writes=export(conn("id-1", "A")).printed())
    return device.run("sh", "-c", f"{before}\nexec corvik -get RDP -f out.xml")


def large_get(device, limit):
    """An export under a limit that does not concern the client."""
    for key_name, text in (("label", "A"), ("large", "x" * 50_000)):
        publish(device, "set", f"{PATH}/id-1/{key_name}", text)
    client = client_script(device, 'ulimit -S -f unlimited\nexec REGSH "$@"\n')
    return device.run("sh", "-c", f"{limit}\nexec corvik -get RDP -f out.xml", client=client)


def test_an_export_is_told_and_leaves_a_part(device):
    (device.home / "out.xml").write_bytes(b"an earlier backup")
    result = large_get(device, FULL)
    assert (result.status, result.stderr, result.log[-6:]) == (12, WALK_OVER, b"rc=12\n")
    part = (device.home / "out.xml").read_bytes()
    assert large_get(device, ":").status == 0
    assert is_a_part(part, (device.home / "out.xml").read_bytes())


def test_an_import_document_is_told_and_not_imported(case):
    left = case.set(connections_file(LARGE, entry("A")), before=FULL)
    part, left.document = left.document, None
    assert left == Left([*looked_up("freerdp"), *merged("freerdp")],
                        2 * WALK_OVER + "Could not write /tmp/import.xml, errno=.\n", 23,
                        tmp=["import.xml"])
    assert is_a_part(part, LARGE.printed())


def test_what_was_to_be_removed_is_removed_all_the_same(case):
    case.lists("freerdp", "id-1", times=1)
    left = case.set(connections_file(LARGE, entry("A")), remove=True, before=FULL)
    assert left.status == 23
    assert ["regsh", "delete", "root/ConnectionType/freerdp/connections/id-1"] in left.calls


def test_a_session_file_is_told_and_is_no_failure(case):
    document = export(conn("id-1", "A"))
    file = connections_file(document, entry("A", KSSFile="a", children=[("KSS", SESSION)]))
    left = case.set(file, "Tavrin", before=FULL)
    part, left.sessions = left.sessions["a.kss"], {}
    assert left == Left(classic("tavrin"), "Write file /etc/tavrin/connections/a.kss fail.\n"
                        + 2 * WALK_OVER, document=document, typed="Tavrin")
    assert is_a_part(part, SESSION)


def test_a_log_that_takes_nothing_stops_nothing_and_is_not_told(device):
    # In a folder of its own: to be read in the home folder, the device would never end.
    below = device.home / "below"
    below.mkdir()
    (below / "corvik.log").symlink_to("/dev/full")
    result = get(device, "cd below")
    assert (result.status, result.stderr) == (0, WALK_OVER)
    assert (below / "out.xml").stat().st_size > 0
    assert os.readlink(below / "corvik.log") == "/dev/full"


def test_a_limit_of_the_file_size_ends_the_run_by_its_signal(device):
    """Set no LimitFSIZE: the run cannot say its last word."""
    result = large_get(device, "ulimit -c 0; ulimit -S -f 8")
    assert (result.status, result.stderr) == (-signal.SIGXFSZ, WALK_OVER)
    assert result.log == b"RDP out.xml [******] [******] 0\r\n"


def test_the_part_of_an_import_document_has_the_rights_of_the_umask(case):
    case.set(connections_file(LARGE, entry("A")), before=f"umask 077; {FULL}")
    assert permissions(case.device.tmp / "import.xml") == 0o600
