"""What somebody else has laid under a fixed name, in /tmp and in the current folder.

Fixed behaviour: files are opened under their names, links are followed and rights are kept. A /tmp
of its own is what an administrator gives the run.
"""

import os
import stat

import pytest

from attack_support import PATH, client_script, permissions, placed, publish, value
from import_run import ImportCase, conn, connections_file, entry, export, looked_up, merged

BEFORE = b"what was there before\n"
FILE = connections_file(placed(conn("id-1", "Office")), entry("Office"))


@pytest.fixture
def office(device):
    """A device with one connection, and a file of somebody else."""
    publish(device, "set", f"{PATH}/id-1/label", "Office")
    (device.home / "in.xml").write_text(FILE)
    (device.etc / "victim").write_bytes(BEFORE)
    return device


def lay_link(device, name):
    # As the device sees the victim; the link is looked at there and nowhere else.
    (device.folder / name).symlink_to("/etc/victim")


def lay_hard_link(device, name):
    os.link(device.etc / "victim", device.folder / name)


EACH_LINK = pytest.mark.parametrize("lay", [lay_link, lay_hard_link])


@EACH_LINK
def test_the_import_document_is_written_through_a_link(office, lay):
    lay(office, "tmp/import.xml")
    assert office.corvik("-set", "RDP", "-f", "in.xml").status == 0
    victim = (office.etc / "victim").read_bytes()
    assert victim.startswith(b"<Profile>") and b"Office" in victim


@EACH_LINK
def test_the_run_log_is_written_through_a_link(office, lay):
    lay(office, "home/corvik.log")
    assert office.corvik("-v").status == 0
    assert (office.etc / "victim").read_bytes() == b"  [******] [******] 0\r\nrc=0\n"


@EACH_LINK
def test_the_connections_file_is_written_through_a_link(office, lay):
    lay(office, "home/out.xml")
    assert office.corvik("-get", "RDP", "-f", "out.xml").status == 0
    assert (office.etc / "victim").read_bytes().startswith(b"<RDP>\n")


@EACH_LINK
def test_a_link_in_place_of_the_export_is_removed_first(office, lay):
    lay(office, "tmp/freerdp.xml")
    assert office.corvik("-get", "RDP", "-f", "out.xml").status == 0
    assert (office.etc / "victim").read_bytes() == BEFORE
    assert b"Office" in (office.home / "out.xml").read_bytes()
    assert office.tmp_leftovers() == []


def test_a_link_laid_after_the_removal_is_followed(office):
    """The client stands in for somebody who is quick enough."""
    client = client_script(office, '[ "$1" = export ] && ln -s /etc/victim "$3"\nexec REGSH "$@"\n')
    assert office.corvik("-get", "RDP", "-f", "out.xml", client=client).status == 0
    assert b"Office" in (office.etc / "victim").read_bytes()


def test_an_export_that_is_replaced_behind_the_client_is_believed(office):
    forged = export(conn("id-1", "Forged")).printed()
    (office.home / "forged.xml").write_text(forged)
    client = client_script(office, 'REGSH "$@" || exit\n'
                                   '[ "$1" = export ] && cp "$HOME/forged.xml" "$3"\nexit 0\n')
    assert office.corvik("-get", "RDP", "-f", "out.xml", client=client).status == 0
    assert b'Name="Forged"' in (office.home / "out.xml").read_bytes()


def test_an_import_document_that_is_replaced_ahead_of_the_client_is_believed(office):
    (office.home / "forged.xml").write_text(placed(conn("id-1", "Forged")).printed())
    client = client_script(office, '[ "$1" = import ] && cp "$HOME/forged.xml" "$2"\n'
                                   'exec REGSH "$@"\n')
    assert office.corvik("-set", "RDP", "-f", "in.xml", client=client).status == 0
    assert value(office, f"{PATH}/id-1/label") == "Forged"


@pytest.mark.parametrize("name, command", [
    ("tmp/import.xml", "corvik -set RDP -f in.xml"), ("home/out.xml", "corvik -get RDP -f out.xml"),
    ("home/corvik.log", "corvik -v")])
def test_a_file_that_is_there_keeps_its_rights_whatever_the_umask(office, name, command):
    """Who makes it first, for all to read, reads what is written into it."""
    path = office.folder / name
    path.write_bytes(BEFORE)
    path.chmod(0o666)
    assert office.run("sh", "-c", f"umask 077; {command}").status == 0
    assert permissions(path) == 0o666
    assert path.read_bytes() != BEFORE


def test_a_pipe_in_place_of_the_import_document_makes_the_run_wait(office, programs):
    os.mkfifo(office.tmp / "import.xml")
    case = ImportCase(office, programs)
    result = case.device.run("timeout", "5", "corvik", "-set", "RDP", "-f", "in.xml",
                             env=case.environment())
    assert result.status == 124
    assert case.recorder.calls == [["regsh", *line.split()[1:]] for line in looked_up("freerdp")] \
        + [["regsh", *merged("freerdp")[0].partition(";regsh ")[2].split()]]
    assert stat.S_ISFIFO((office.tmp / "import.xml").stat().st_mode)


@pytest.mark.parametrize("name, arguments, status", [
    ("tmp/import.xml", ["-set", "RDP", "-f", "in.xml"], 23),
    ("home/out.xml", ["-get", "RDP", "-f", "out.xml"], 12)])
def test_a_folder_in_the_way_is_told(office, name, arguments, status):
    (office.folder / name).mkdir()
    assert office.corvik(*arguments).status == status
