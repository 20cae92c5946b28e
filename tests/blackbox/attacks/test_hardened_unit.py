"""The unit template for exports: what it takes from a run, and that its commands do the work.

A running systemd is not needed: settings are read out of the template, and its commands run on a
simulated device. What systemd itself makes of the settings is not tried here.
"""

import re
import shlex
from pathlib import Path

import pytest

from attack_support import PATH, client_script, permissions, publish

ROOT = Path(__file__).resolve().parents[3]
TEMPLATE = ROOT / "packaging/systemd/corvik-export@.service.in"

# What SECURITY.md says that an administrator gets with it.
PROMISED = {
    **{name: ["yes"] for name in (
        "PrivateTmp", "ProtectHome", "PrivateDevices", "ProtectClock", "ProtectControlGroups",
        "ProtectHostname", "ProtectKernelLogs", "ProtectKernelModules", "ProtectKernelTunables",
        "NoNewPrivileges")},
    "ProtectSystem": ["strict"], "ProtectProc": ["invisible"], "UMask": ["0077"],
    "StateDirectoryMode": ["0700"], "ReadWritePaths": ["%S/corvik/%i"], "LimitCORE": ["0"],
    "CapabilityBoundingSet": [""], "MemoryMax": ["512M"], "TasksMax": ["64"],
    "RestrictAddressFamilies": ["AF_UNIX"], "IPAddressDeny": ["any"], "SystemCallArchitectures": ["native"],
    "SystemCallFilter": ["@system-service", "~@privileged @resources"], "Type": ["oneshot"],
    "TimeoutStartSec": ["10min"], "WorkingDirectory": ["%S/corvik/%i"],
}
FOLDERS_OF_ROOT = {"/usr/sbin", "/usr/bin", "/sbin", "/bin", "/usr/local/sbin", "/usr/local/bin"}


def settings(unit=TEMPLATE):
    """Every setting of a unit with its values, in order."""
    found = {}
    for line in unit.read_text().splitlines():
        name, sign, text = line.partition("=")
        if sign and re.fullmatch(r"[A-Za-z]+", name):
            found.setdefault(name, []).append(text)
    return found


def commands(connection_type):
    """The commands in the order in which they run, as words; the tool by its name."""
    found = settings()
    lines = [*found["ExecStartPre"], *found["ExecStart"]]
    return [shlex.split(line.replace("@CMAKE_INSTALL_FULL_BINDIR@/", "").replace(
        "%i", connection_type)) for line in lines]


def run_unit(device, connection_type="freerdp", first=0, **options):
    """The commands with the unit's umask, up to the first that fails, then those for the end."""
    (umask,), (at_the_end,) = settings()["UMask"], settings()["ExecStopPost"]
    text = " && ".join(shlex.join(words) for words in commands(connection_type)[first:])
    text = f"umask {umask}; ({text}); status=$?; {at_the_end}; exit $status"
    return device.run("sh", "-c", text, **options)


@pytest.fixture
def office(device):
    publish(device, "set", f"{PATH}/id-1/label", "Office")
    return device


@pytest.mark.parametrize("name", PROMISED)
def test_what_is_promised_is_set(name):
    assert settings()[name] == PROMISED[name]


def test_the_timer_starts_it_each_night():
    timer = settings(TEMPLATE.with_name("corvik-export@.timer"))
    assert (timer["OnCalendar"], timer["Persistent"]) == (["*-*-* 03:00:00"], ["yes"])


def test_every_search_path_is_of_folders_of_root():
    (path,) = [text.removeprefix("PATH=") for text in settings()["Environment"]]
    assert set(path.split(":")) <= FOLDERS_OF_ROOT


def test_the_instance_is_never_unescaped():
    assert [line for line in TEMPLATE.read_text().splitlines()
            if not line.startswith("#") and re.search("%[^iS]", line)] == []


def test_it_exports_for_root_alone(office):
    result = run_unit(office)
    assert result.status == 0, result
    assert sorted(path.name for path in office.home.iterdir()) == ["connections.xml", "corvik.log"]
    assert b'Name="Office"' in (office.home / "connections.xml").read_bytes()
    assert {permissions(path) for path in office.home.iterdir()} == {0o600}
    assert office.tmp_leftovers() == []


@pytest.mark.parametrize("connection_type, options", [
    ("missing", {}), ("null", {}), ("freerdp", {"image_type": "none"})],
    ids=["type", "null", "identity"])
def test_a_failure_keeps_the_last_file_and_leaves_nothing_new(office, connection_type, options):
    (office.home / "connections.xml").write_text("before")
    assert run_unit(office, connection_type, **options).status != 0
    assert (office.home / "connections.xml").read_text() == "before"
    assert not (office.home / "new.xml").exists()


def test_a_run_whose_log_is_lost_is_a_failure_and_leaves_nothing_new(office):
    (office.home / "connections.xml").write_text("before")
    (office.home / "corvik.log").symlink_to("/dev/null")
    assert run_unit(office, first=1).status != 0  # the first command would remove the link
    assert (office.home / "connections.xml").read_text() == "before"
    assert not (office.home / "new.xml").exists()


def test_an_export_that_dies_in_the_middle_is_a_failure(office):
    client = client_script(office, '[ "$1" != export ] || kill -KILL $$\nexec REGSH "$@"\n')
    (office.home / "connections.xml").write_text("before")
    assert run_unit(office, client=client).status != 0
    assert (office.home / "connections.xml").read_text() == "before"
