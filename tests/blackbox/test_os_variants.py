"""The operations that differ between the builds, and the command runner below them, against real
parts: the shell, dpkg, and dbus-send on a message bus of the test's own.

Needs dbus-daemon, dbus-send, dpkg-deb and, for the service behind the bus, the Python module gi.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import uuid
from pathlib import Path

import pytest

SETTINGS_SERVICE = Path(__file__).resolve().parents[1] / "support/settings_service.py"
BUS = "unix:path=bus"  # a relative name: absolute ones may be too long for a socket
NO_LOCK_TOOL = "Failed to detect fslock/fsunlock.\n"
PATHS = "/org/freedesktop/NetworkManagerSettings/"
ASK = "dbus-send --system --print-reply --dest=org.freedesktop.NetworkManagerSystemSettings "
LIST = (ASK + "/org/freedesktop/NetworkManagerSettings "
        "org.freedesktop.NetworkManagerSettings.ListConnections")
WIRED = "{'connection': {'id': <'Auto eth0'>, 'type': <'802-3-ethernet'>}}"
WIRELESS = "{'connection': {'id': <'Hall'>, 'type': <'802-11-wireless'>}}"

# Puts folder $2 in the place of the system folder $1 and starts the program behind. Where nothing
# can be mounted, only the files named in $4 change. The mark in /etc is on the test's device alone, so
# that a system folder of the host is never touched.
WITH_SYSTEM_FOLDER = """
place=$1 folder=$2 mark=$3 names=$4
shift 4
[ -e "/etc/$mark" ] || { echo "this is not the device" >&2; exit 99; }
case $CORVIK_DEVICE in
    chroot) { cd "$place" && rm -rf $names && cp -a "$folder/." . && cd "$HOME"; } || exit 99 ;;
    *) mount --bind "$folder" "$place" || exit 99 ;;
esac
exec "$@"
"""


def probe(device, *words, **options):
    """Runs the probe on the device; it must end by itself and leave standard error empty."""
    result = raw_probe(device, *words, **options)
    assert (result.status, result.stderr) == (0, ""), result
    return result.stdout


def raw_probe(device, *words, **options):
    return device.run(device.programs / "os_probe", *words, **options)


class SystemFolder:
    """Stands in for a system folder of the device ("/usr/sbin", "/usr/bin") while a probe runs."""

    def __init__(self, device, place):
        self.device = device
        self.place = os.path.realpath(place)
        self.folder = device.home / f"system-{Path(place).name}"
        self.folder.mkdir()
        self.absent = set()
        self.mark = f"device-{uuid.uuid4().hex}"
        (device.etc / self.mark).touch()
        # Not started from its own place, so that the device brings all it needs there.
        self.program = shutil.copy(device.programs / "os_probe", device.home)

    def add(self, name, content, mode=0o755):
        path = self.folder / name
        path.write_text(content)
        path.chmod(mode)
        return path

    def add_shell(self):
        """The real shell, for a folder that takes the place of /bin."""
        assert os.path.realpath("/bin") == self.place, "/bin is a folder of its own here"
        shutil.copy(os.path.realpath("/bin/sh"), self.folder / "sh")
        return self

    def add_recording_shell(self):
        """The real shell under another name, and one that notes each command line it is given."""
        self.add_shell()
        (self.folder / "sh").rename(self.folder / "real-sh")
        self.add("sh", f"#!{self.place}/real-sh\n"
                 "printf '%s\\n' \"$#\" \"$@\" >> \"$HOME/commands\"\n"
                 f"exec {self.place}/real-sh \"$@\"\n")
        return self

    @property
    def commands(self):
        """What the recording shell was given."""
        path = self.device.home / "commands"
        return path.read_text() if path.exists() else ""

    def run(self, *words, **options):
        names = {path.name for path in self.folder.iterdir()} | self.absent
        result = self.device.run("sh", "-c", WITH_SYSTEM_FOLDER, "sh", self.place, self.folder,
                                 self.mark, " ".join(sorted(names)), self.program, *words,
                                 **options)
        assert result.status != 99, f"{self.place} cannot be replaced here: {result.stderr}"
        return result


# --- the variants -----------------------------------------------------------------------------------

PLAIN = "/usr/sbin\n/usr/bin\n/etc\n"
SQUASHED = "/writable/etc/zoltrad/bin\n/writable/etc/zoltrad/bin\n/writable/etc\n"
VARIANTS = {1: ("OSSSylvex", PLAIN), 2: ("OSSSylvexSqaushFS", SQUASHED), 3: ("OSSSylvexGT", PLAIN),
            **{number: ("OSSSylvex2", PLAIN) for number in range(4, 11)}}


@pytest.mark.parametrize("image_type", range(1, 11))
def test_image_type_selects_the_variant_and_its_folders(device, image_type):
    name, folders = VARIANTS[image_type]
    assert probe(device, "variant", image_type=image_type) == f"{name}\n{image_type}\n{folders}"


@pytest.mark.parametrize("image_type", [5, 7])
def test_image_type_from_the_other_identity_file_selects_the_same_variant(device, image_type):
    assert probe(device, "variant", image_type=image_type, identity="imageid") == \
        f"OSSSylvex2\n{image_type}\n{PLAIN}"


def test_device_without_identity_is_the_newest_type(device):
    assert probe(device, "variant", image_type="none") == f"OSSSylvex2\n10\n{PLAIN}"


@pytest.mark.parametrize("content", ["", "DXSQ000", "DXSQ\0005\n", "\n"])
def test_identifier_that_is_too_short_is_the_newest_type(device, content):
    assert probe(device, "variant", imageid=content) == f"OSSSylvex2\n10\n{PLAIN}"


# --- packages ---------------------------------------------------------------------------------------


class PackageDevice:
    """A device whose dpkg works on a root folder and a database of its own."""

    def __init__(self, device):
        self.device = device
        self.root = device.home / "package-root"
        self.name = f"corvik-trial-{uuid.uuid4().hex}"
        database = self.root / "var/lib/dpkg"
        for folder in ("info", "updates", "triggers"):
            (database / folder).mkdir(parents=True)
        (database / "status").touch()
        (device.etc / "dpkg").mkdir()
        (device.etc / "dpkg/dpkg.cfg").write_text(
            f"root={self.root}\nadmindir={database}\nlog={device.home}/dpkg.log\n")
        # An empty answer shows that dpkg follows these settings and looks nowhere else.
        selections = device.run("/usr/bin/dpkg", "--get-selections")
        assert (selections.status, selections.stdout_bytes) == (0, b""), selections

    def build(self, file):
        content = self.device.home / "content"
        note = content / "usr/share" / self.name / "note"
        note.parent.mkdir(parents=True)
        note.write_text("installed\n")
        (content / "DEBIAN").mkdir()
        (content / "DEBIAN/control").write_text(
            f"Package: {self.name}\nVersion: 1\nArchitecture: all\n"
            "Maintainer: Trial <trial@example.org>\nDescription: package of a test\n")
        for folder in (content, *(path for path in content.rglob("*") if path.is_dir())):
            folder.chmod(0o755)
        path = self.device.home / file
        subprocess.run(["dpkg-deb", "--root-owner-group", "--build", content, path], check=True,
                       stdout=subprocess.DEVNULL)
        return path

    @property
    def installed(self):
        """Content of the package's file; None when it is not there."""
        note = self.root / "usr/share" / self.name / "note"
        return note.read_text() if note.exists() else None

    @property
    def in_database(self):
        status = (self.root / "var/lib/dpkg/status").read_text()
        return f"Package: {self.name}\nStatus: install ok installed\n" in status

    def host_knows(self):
        database = Path("/var/lib/dpkg")
        traces = list(database.glob(f"info/{self.name}*"))
        status = (database / "status").read_text(errors="replace")
        return bool(traces) or self.name in status or Path("/usr/share", self.name).exists()


@pytest.fixture
def packages(device):
    return PackageDevice(device)


@pytest.mark.parametrize("file", ["trial.deb", "two words & $HOME.deb"])
def test_strict_installation_of_a_good_package_is_true(packages, file):
    packages.build(file)
    assert probe(packages.device, "install_strict", file) == "true\n"
    assert packages.installed == "installed\n"
    assert packages.in_database
    assert not packages.host_knows()


@pytest.mark.parametrize("image_type", range(1, 11))
def test_every_variant_installs_a_package_silently(packages, image_type):
    file = packages.build("trial.deb")
    assert probe(packages.device, "install", file, image_type=image_type) == ""
    assert packages.installed == "installed\n"
    assert packages.in_database
    assert not packages.host_knows()


def test_damaged_package_is_not_installed_and_strict_is_false(packages):
    file = packages.build("trial.deb")
    file.write_bytes(file.read_bytes()[:-40])
    assert probe(packages.device, "install_strict", "trial.deb") == "false\n"
    assert probe(packages.device, "install", "trial.deb") == ""
    assert packages.installed is None
    assert not packages.in_database


def test_missing_package_is_false(packages):
    assert probe(packages.device, "install_strict", "no such file.deb") == "false\n"


def system_with_package_tool(device, content, mode=0o755):
    system = SystemFolder(device, "/usr/bin").add_recording_shell()
    if content is not None:
        system.add("dpkg", content, mode)
    else:
        system.absent.add("dpkg")
    return system


NOISY_TOOL = "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$HOME/asked\"\necho out\necho err >&2\nexit "


@pytest.mark.parametrize("status, answer", [(0, "true\n"), (1, "false\n"), (2, "false\n")])
def test_status_of_the_package_tool_decides_and_its_output_is_dropped(device, status, answer):
    system = system_with_package_tool(device, NOISY_TOOL + str(status))
    result = system.run("install_strict", "some where/a b.deb")
    assert (result.status, result.stdout, result.stderr) == (0, answer, "")
    assert (device.home / "asked").read_text() == "-i\nsome where/a b.deb\n"
    assert system.commands.startswith(
        "2\n-c\n/usr/bin/dpkg -i 'some where/a b.deb' > /dev/null 2>&1\n")


def test_installation_ignores_the_status_of_the_package_tool(device):
    result = system_with_package_tool(device, NOISY_TOOL + "1").run("install", "a.deb")
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert (device.home / "asked").read_text() == "-i\na.deb\n"


@pytest.mark.parametrize("content", [None, ""], ids=["missing", "empty"])
def test_package_tool_that_is_not_usable_is_not_started(device, content):
    system = system_with_package_tool(device, content)
    result = system.run("install_strict", "a.deb")
    assert (result.status, result.stdout, result.stderr) == (0, "false\n", "")
    result = system.run("install", "a.deb")
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    assert system.commands == ""


def test_package_tool_of_one_byte_is_started(device):
    system = system_with_package_tool(device, "\n")
    result = system.run("install_strict", "a.deb")
    assert (result.status, result.stdout, result.stderr) == (0, "true\n", "")


def test_package_tool_that_is_a_folder_is_not_started(device):
    system = system_with_package_tool(device, None)
    (system.folder / "dpkg").mkdir()
    result = system.run("install_strict", "a.deb")
    assert (result.status, result.stdout, result.stderr) == (0, "false\n", "")
    assert system.commands == ""


def test_package_tool_without_execute_permission_is_tried(device):
    system = system_with_package_tool(device, "#!/bin/sh\n", 0o644)
    result = system.run("install_strict", "a.deb")
    assert (result.status, result.stdout, result.stderr) == (0, "false\n", "")
    assert system.commands == "2\n-c\n/usr/bin/dpkg -i 'a.deb' > /dev/null 2>&1\n"


# --- the file-system lock ---------------------------------------------------------------------------

LOCK_TOOL = """#!/bin/sh
echo "$(basename "$0") $#" >> "$HOME/locks"
echo out
echo err >&2
exit 3
"""


def system_with_lock_tools(device, fslock, fsunlock=LOCK_TOOL):
    """fslock: content, None for no such file, or "folder"."""
    system = SystemFolder(device, "/sbin")
    system.absent.update({"fslock", "fsunlock"})
    if fslock == "folder":
        (system.folder / "fslock").mkdir()
        (system.folder / "fslock/file").touch()
    elif fslock is not None:
        system.add("fslock", fslock)
    if fsunlock is not None:
        system.add("fsunlock", fsunlock)
    return system


def locks(device):
    path = device.home / "locks"
    return path.read_text() if path.exists() else ""


@pytest.mark.parametrize("image_type", [1, 2, 4, 5, 6, 7, 8, 9, 10])
def test_lock_tools_are_run_and_heard(device, image_type):
    system = system_with_lock_tools(device, LOCK_TOOL)
    assert system.run("has_fslock", image_type=image_type).stdout == "true\n"
    for word, tool in (("fs_lock", "fslock"), ("fs_unlock", "fsunlock")):
        (device.home / "locks").unlink(missing_ok=True)
        result = system.run(word, image_type=image_type)
        assert (result.status, result.stdout, result.stderr) == (0, "out\n", "err\n")
        assert locks(device) == f"{tool} 0\n"


def test_lock_tool_reached_through_a_link_is_run(device):
    system = system_with_lock_tools(device, None)
    system.add("tool", LOCK_TOOL)
    (system.folder / "fslock").symlink_to("tool")
    result = system.run("fs_lock")
    assert (result.status, result.stdout, result.stderr) == (0, "out\n", "err\n")


@pytest.mark.parametrize("word", ["fs_lock", "fs_unlock"])
def test_variant_gt_never_detects_the_lock_tools(device, word):
    system = system_with_lock_tools(device, LOCK_TOOL)
    assert system.run("has_fslock", image_type=3).stdout == "false\n"
    result = system.run(word, image_type=3)
    assert (result.status, result.stdout, result.stderr) == (0, "", NO_LOCK_TOOL)
    assert locks(device) == ""


@pytest.mark.parametrize("word", ["fs_lock", "fs_unlock"])
@pytest.mark.parametrize("fslock", [None, "", "folder"], ids=["missing", "empty", "folder"])
def test_lock_tool_that_is_not_usable_is_a_message(device, word, fslock):
    system = system_with_lock_tools(device, fslock)
    assert system.run("has_fslock").stdout == "false\n"
    result = system.run(word)
    assert (result.status, result.stdout, result.stderr) == (0, "", NO_LOCK_TOOL)
    assert locks(device) == ""


def test_unlocking_looks_for_the_lock_tool_alone(device):
    system = system_with_lock_tools(device, LOCK_TOOL, fsunlock=None)
    result = system.run("fs_unlock")
    expected = device.run("sh", "-c", "/sbin/no-such-tool")
    assert (result.status, result.stdout) == (0, "")
    assert result.stderr == expected.stderr.replace("no-such-tool", "fsunlock")


def test_lock_tool_without_execute_permission_is_tried(device):
    system = system_with_lock_tools(device, None)
    system.add("fslock", LOCK_TOOL, 0o644)
    result = system.run("fs_lock")
    assert (result.status, result.stdout) == (0, "")
    assert "/sbin/fslock: Permission denied" in result.stderr
    assert locks(device) == ""


# --- the network, with a service on a bus -----------------------------------------------------------

BUS_SETTINGS = f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>{BUS}</listen>
  <!-- A device may give the user another number than the bus sees. -->
  <auth>ANONYMOUS</auth>
  <allow_anonymous/>
  <policy context="default">
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow send_type="signal"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
"""


class Network:
    """A device whose system bus, a socket in its home folder, belongs to the test."""

    def __init__(self, device):
        self.device = device
        self.processes = []

    def start(self, name, *command):
        """Starts a program in the home folder and waits for its first line, which is returned."""
        with open(self.device.home / f"{name}-errors", "wb") as errors:
            process = subprocess.Popen(command, cwd=self.device.home, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=errors, text=True)
        self.processes.append(process)
        line = process.stdout.readline()
        assert line, (self.device.home / f"{name}-errors").read_text()
        return line

    def start_bus(self):
        (self.device.home / "bus.conf").write_text(BUS_SETTINGS)
        line = self.start("bus", "dbus-daemon", "--config-file=bus.conf", "--nofork", "--nopidfile",
                          "--print-address=1")
        assert line.startswith(BUS)
        return self

    def start_service(self, listed, settings):
        content = {"listed": listed, "settings": settings}
        (self.device.home / "connections.json").write_text(json.dumps(content))
        line = self.start("service", sys.executable, SETTINGS_SERVICE, BUS, "connections.json",
                          "bus-calls")
        assert line == "ready\n"
        return self

    @property
    def calls(self):
        path = self.device.home / "bus-calls"
        return path.read_text().splitlines() if path.exists() else []

    def raw_probe(self, *words, env=None, **options):
        return raw_probe(self.device, *words, env={"DBUS_SYSTEM_BUS_ADDRESS": BUS, **(env or {})},
                         **options)

    def probe(self, *words, **options):
        result = self.raw_probe(*words, **options)
        assert (result.status, result.stderr) == (0, ""), result
        return result.stdout

    def stop(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait()
            process.stdout.close()


@pytest.fixture
def network(device):
    running = Network(device)
    yield running
    running.stop()


@pytest.mark.parametrize("word", ["find_wired", "find_wireless"])
@pytest.mark.parametrize("listed", [[2, 0], [0, 2], [7], [3, 12]], ids=str)
def test_first_listed_connection_passes_whatever_its_type(network, word, listed):
    settings = {number: WIRED if number % 2 else WIRELESS for number in listed}
    network.start_bus().start_service(listed, settings)
    assert network.probe(word) == f"{listed[0]}\n"
    assert network.calls == ["ListConnections", f"GetSettings /{listed[0]}"]


@pytest.mark.parametrize("word", ["find_wired", "find_wireless"])
def test_no_connection_listed_gives_0(network, word):
    network.start_bus().start_service([], {1: WIRED})
    assert network.probe(word) == "0\n"
    assert network.calls == ["ListConnections"]


@pytest.mark.parametrize("word", ["find_wired", "find_wireless"])
def test_listed_connection_that_does_not_exist_passes(network, word):
    network.start_bus().start_service([5, 1], {1: WIRED})
    assert network.probe(word) == "5\n"
    assert network.calls == ["ListConnections"]


@pytest.mark.parametrize("word", ["is_wired", "is_wireless"])
@pytest.mark.parametrize("number", [0, 1, 9])
def test_every_connection_has_either_type(network, word, number):
    network.start_bus().start_service([], {0: WIRED, 1: WIRELESS})
    assert network.probe(word, str(number)) == "true\n"
    assert network.calls == ([f"GetSettings /{number}"] if number < 2 else [])


ASKING = {"find_wired": "0\n", "find_wireless": "0\n", "is_wired 1": "true\n",
          "is_wireless 1": "true\n", "setting 1 id": "\n", "probe_network": "0\n"}


@pytest.mark.parametrize("words", ASKING)
def test_bus_without_the_service_is_an_answer_without_connections(network, words):
    network.start_bus()
    assert network.probe(*words.split()) == ASKING[words]


@pytest.mark.parametrize("words", ASKING)
def test_missing_bus_is_an_answer_without_connections(network, words):
    assert network.probe(*words.split()) == ASKING[words]


@pytest.mark.parametrize("words", ASKING)
def test_missing_asking_program_is_an_answer_without_connections(network, words):
    assert network.probe(*words.split(), env={"PATH": "/nowhere"}) == ASKING[words]


ABORTED = re.compile(r"corvik: platform/network_settings:\d+: [^\n]*: Assertion .* failed\.\n")


@pytest.mark.parametrize("words", ["is_wired 10", "is_wireless 10", "setting 10 id", "is_wired -1",
                                   "is_wireless -1", "setting -1 id", "is_wired 2147483647"])
def test_number_of_more_than_one_digit_aborts(network, words):
    network.start_bus().start_service([], {10: WIRED})
    result = network.raw_probe(*words.split())
    assert (result.status, result.stdout) == (-signal.SIGABRT, "")
    assert ABORTED.fullmatch(result.stderr), result.stderr
    assert network.calls == []


@pytest.mark.parametrize("word", ["find_wired", "find_wireless"])
def test_listed_number_of_more_than_one_digit_aborts(network, word):
    network.start_bus().start_service([12, 1], {1: WIRED, 12: WIRED})
    result = network.raw_probe(word)
    assert (result.status, result.stdout) == (-signal.SIGABRT, "")
    assert ABORTED.fullmatch(result.stderr), result.stderr
    assert network.calls == ["ListConnections"]


@pytest.mark.parametrize("image_type", range(1, 11))
def test_probe_looks_for_the_wired_connection_on_the_newer_builds_alone(network, image_type):
    network.start_bus().start_service([4, 1], {1: WIRED, 4: WIRED})
    assert network.probe("probe_network", image_type=image_type) == "0\n"
    scan = ["ListConnections", "GetSettings /4"]
    assert network.calls == (scan if image_type >= 4 else [])


SETTINGS = """{
    'connection': {'id': <'Auto eth0'>, 'type': <'802-3-ethernet'>, 'autoconnect': <true>,
                   'timestamp': <uint64 1300000000>},
    'ipv4': {'method': <'manual'>, 'id': <'x'>, 'dns-search': <''>, 'note': <'say "yes"'>},
    'ipv6': {'last': <'two words'>}
}"""


@pytest.mark.parametrize("name, value", [
    ("type", "802-3-ethernet"),
    ("method", "manual"),
    ("last", "two words"),
    ("dns-search", ""),
    ("note", "say "),
    ("id", "xuto eth0"),  # the later value is written over the earlier one, without an end
    ("no such setting", ""),
    ("typ", ""),
    ("Type", ""),
    ("type\"", ""),
])
def test_setting_is_read_from_the_reply(network, name, value):
    network.start_bus().start_service([], {3: SETTINGS})
    assert network.probe("setting", "3", name) == f"{value}\n"
    assert network.calls == ["GetSettings /3"]


@pytest.mark.parametrize("name", ["autoconnect", "timestamp", "connection"])
def test_setting_without_a_quoted_value_gives_nothing(network, name):
    network.start_bus().start_service([], {3: SETTINGS})
    assert network.probe("setting", "3", name) == "\n"


def test_only_the_last_block_of_a_long_listing_counts(network):
    # 30 paths stay within the first 2048 bytes, 50 do not.
    network.start_bus().start_service([1] * 30 + [7] * 20, {1: WIRED, 7: WIRED})
    assert network.probe("find_wired") == "7\n"
    assert network.calls == ["ListConnections", "GetSettings /7"]


def test_only_the_last_block_of_long_settings_counts(network):
    fillers = ", ".join(f"'filler{number}': <'{'x' * 100}'>" for number in range(40))
    settings = f"{{'a': {{'first': <'early'>}}, 'b': {{{fillers}}}, 'c': {{'last': <'late'>}}}}"
    network.start_bus().start_service([], {3: settings})
    assert network.probe("setting", "3", "first") == "\n"
    assert network.probe("setting", "3", "last") == "late\n"
    assert network.probe("is_wired", "3") == "true\n"


# --- the network, with replies that no bus gives ----------------------------------------------------

ANSWERING = """#!/bin/sh
printf '%s\\n' "$*" >> "$HOME/asked"
case $4 in
    */NetworkManagerSettings) cat "$HOME/listing" ;;
    *) cat "$HOME/settings-${4##*/}" ;;
esac
"""


class Replies:
    """Puts a dbus-send first on PATH that answers with given bytes."""

    def __init__(self, device, program=ANSWERING):
        self.device = device
        folder = device.home / "first"
        folder.mkdir()
        (folder / "dbus-send").write_text(program)
        (folder / "dbus-send").chmod(0o755)
        self.env = {"PATH": f"{folder}:/usr/bin:/bin"}

    def give(self, listing=b"", **settings):
        (self.device.home / "listing").write_bytes(listing)
        for name, reply in settings.items():
            (self.device.home / name.replace("_", "-")).write_bytes(reply)
        return self

    @property
    def asked(self):
        """The last words but one of each question: what it asks for."""
        path = self.device.home / "asked"
        return path.read_text().splitlines() if path.exists() else []

    def probe(self, *words):
        return probe(self.device, *words, env=self.env)


@pytest.fixture
def replies(device):
    return Replies(device)


def listing(*numbers):
    lines = "".join(f'      object path "{PATHS}{number}"\n' for number in numbers)
    return f"method return\n   array [\n{lines}   ]\n".encode()


def question(number):
    return (ASK + f"{PATHS}{number} org.freedesktop.NetworkManagerSettings.Connection.GetSettings"
            ).removeprefix("dbus-send ")


STARTS = {"find_wired": b"802-3-ethernet", "find_wireless": b"802-11-wireless"}
OTHER = {"find_wired": "find_wireless", "find_wireless": "find_wired"}


@pytest.mark.parametrize("word", STARTS)
def test_last_number_when_no_connection_passes(replies, word):
    failing = STARTS[word] + b"..."
    replies.give(listing(3, 1, 2), settings_1=failing, settings_2=failing, settings_3=failing)
    assert replies.probe(word) == "2\n"
    assert replies.asked == [LIST.removeprefix("dbus-send ")] + [question(n) for n in (3, 1, 2)]


@pytest.mark.parametrize("word", STARTS)
def test_search_goes_on_until_a_connection_passes(replies, word):
    replies.give(listing(3, 1, 2), settings_3=STARTS[word], settings_1=STARTS[OTHER[word]],
                 settings_2=STARTS[word])
    assert replies.probe(word) == "1\n"
    assert replies.asked[1:] == [question(3), question(1)]


def test_path_without_a_number_keeps_the_number_before(replies):
    text = f"{PATHS}4\" {PATHS}x\" {PATHS}\" ".encode()
    replies.give(text, settings_4=b"802-3-ethernet")
    assert replies.probe("find_wired") == "4\n"
    assert replies.asked[1:] == [question(4)] * 3


def test_search_goes_on_40_characters_behind(replies):
    replies.give(f"{PATHS}{PATHS}5\"".encode(), settings_0=b"802-3-ethernet")
    assert replies.probe("find_wired") == "5\n"
    assert replies.asked[1:] == [question(0), question(5)]


def test_number_needs_no_quote_behind_it(replies):
    replies.give(f"{PATHS}6".encode())
    assert replies.probe("find_wired") == "6\n"


def test_listing_on_standard_error_counts(device):
    replies = Replies(device, ANSWERING.replace("/listing\"", "/listing\" >&2"))
    assert replies.give(listing(8)).probe("find_wired") == "8\n"


def ending_at(size, text):
    return b"." * (size - len(text)) + text


LAST_PATH = f"{PATHS}7\"".encode()


@pytest.mark.parametrize("reply, number", [
    (ending_at(2047, LAST_PATH), 7),
    (ending_at(2047, LAST_PATH) + b"\n" + b"\n", 0),
    (ending_at(2049, LAST_PATH), 0),  # its start is in the first block
    (ending_at(2048 + len(LAST_PATH), LAST_PATH), 7),
    (ending_at(4095, LAST_PATH), 7),
    (ending_at(4095, LAST_PATH) + b"..", 0),
    (LAST_PATH + b"." * 4000 + f"{PATHS}3\"".encode(), 3),
    (b"\0" + LAST_PATH, 0),  # text ends at the first NUL
], ids=["one block", "last block empty", "across", "start of second", "end of second",
        "third block", "in both", "behind a NUL"])
def test_listing_at_the_edges_of_the_2048_byte_block(replies, reply, number):
    assert replies.give(reply).probe("find_wired") == f"{number}\n"


@pytest.mark.parametrize("reply, answer", [
    (b"", "true\n"),
    (b"802-3-ethernet", "false\n"),
    (b"802-3-ethernet 802-3-ethernet", "false\n"),
    (b" 802-3-ethernet", "true\n"),
    (b"802-3-etherne", "true\n"),
    (b"802-11-wireless", "true\n"),
    (b"\0" + b"." * 2046 + b"802-3-ethernet", "false\n"),  # a block counts up to its first NUL
    (b"\0" + b"." * 2045 + b"802-3-ethernet", "true\n"),
    (b"802-3-" + b"\0" * 2041 + b"ethernet", "false\n"),
], ids=["empty", "at 0", "twice", "at 1", "cut", "other", "second block", "across", "joined"])
def test_wired_test_asks_for_position_0(replies, reply, answer):
    assert replies.give(settings_1=reply).probe("is_wired", "1") == answer


@pytest.mark.parametrize("reply, answer", [
    (b"", "true\n"),
    (b"802-11-wireless", "false\n"),
    (b"802-3-ethernet", "true\n"),
    (b"x802-11-wireless", "true\n"),
], ids=["empty", "at 0", "other", "at 1"])
def test_wireless_test_asks_for_position_0(replies, reply, answer):
    assert replies.give(settings_1=reply).probe("is_wireless", "1") == answer


def entry(name, value):
    return f'dict entry(\nstring "{name}"\nvariant string "{value}"\n)\n'.encode()


@pytest.mark.parametrize("reply, value", [
    (entry("type", "wired"), "wired"),
    (b"a dict entry of some kind\nx string \"type\" x\nname \"v\" \"w\"\n", "v"),
    (b"dict entry(\nstring \"typeX\nv \"up to the word's last letter\"\n",
     "up to the word's last letter"),
    (b"dict entry(\nstring \"type more\"\nv \"1\"\n", ""),
    (b"dict entry(\nint32 5\nstring \"type\"\nv \"1\"\n", ""),
    (entry("a", "1") + entry("type", "2") + entry("b", "3"), "2"),
    (entry("type", "black value") + entry("type", "short"), "short value"),  # no end is written
    (b"dict entry(\nstring \"type\"\nvalue without end \"abc", "abc"),
    (b"dict entry(\nstring \"type\"", ""),
    (b"dict entry(\n", ""),
    (b"dict entry(", ""),
    (b"dict entry(\nstring \"\"\nv \"1\"\n", ""),
    (b"\n\n" + entry("type", "behind empty lines"), "behind empty lines"),
], ids=["plain", "other words", "other last letter", "two words", "name comes late", "among others",
        "twice", "open value", "no value line", "no name line", "entry alone", "empty name",
        "empty lines"])
def test_setting_in_an_unusual_reply(replies, reply, value):
    assert replies.give(settings_1=reply).probe("setting", "1", "type") == f"{value}\n"


LAST_ENTRY = b"\n" + entry("type", "v")


@pytest.mark.parametrize("size, value", [
    (4095, "v"),
    (4097, ""),
    (4096 + 20, ""),
    (4096 + len(LAST_ENTRY), "v"),
    (8191, "v"),
])
def test_setting_at_the_edges_of_the_4096_byte_block(replies, size, value):
    reply = ending_at(size, LAST_ENTRY)
    assert replies.give(settings_1=reply).probe("setting", "1", "type") == f"{value}\n"


def test_questions_are_these_command_lines(device):
    system = SystemFolder(device, "/usr/bin").add_recording_shell()
    system.add("dbus-send", "#!/usr/bin/real-sh\ncase $4 in */NetworkManagerSettings) "
               f"echo '{PATHS}4\"' ;; esac\n")
    result = system.run("find_wired")
    assert (result.status, result.stdout, result.stderr) == (0, "4\n", "")
    assert system.commands == (
        f"2\n-c\n{LIST}\n2\n-c\n{ASK}{PATHS}4  "
        "org.freedesktop.NetworkManagerSettings.Connection.GetSettings\n")


# --- the command runner -----------------------------------------------------------------------------


@pytest.mark.parametrize("command, answer", [
    ("echo one; echo two", "true [one]"),
    ("printf ' \\t one  two \\r\\n'", "true [one  two]"),
    ("printf 'no line end'", "true [no line end]"),
    ("printf ' \\t\\r\\n second\\n'", "true []"),
    ("printf '\\n second\\n'", "true []"),
    ("true", "true []"),
    ("echo seen; exit 7", "true [seen]"),
    ("echo hidden >&2", "true []"),
    ("printf 'a\\0b\\n'", "true [a]"),
    ("kill -9 $$", "true []"),
    ("echo before; kill -9 $$", "true [before]"),
    ("echo \"it's\" 'a \"b\"' c\\ d", "true [it's a \"b\" c d]"),
    ("", "true []"),
])
def test_first_line_of_a_command(device, command, answer):
    result = raw_probe(device, "run_first_line", command)
    hidden = "hidden\n" if "hidden" in command else ""
    assert (result.status, result.stdout, result.stderr) == (0, f"{answer}\n", hidden)


def test_first_line_of_a_missing_command_is_empty(device):
    result = raw_probe(device, "run_first_line", "no-such-command-here")
    assert (result.status, result.stdout) == (0, "true []\n")
    assert result.stderr == device.run("sh", "-c", "no-such-command-here").stderr


@pytest.mark.parametrize("text, kept", [
    ("a" * 1021, "a" * 1021),
    ("a" * 1022, "a" * 1022),
    ("a" * 1023, "a" * 1022),
    ("a" * 1022 + "b", "a" * 1022),
    ("a" * 5000, "a" * 1022),
    (" " * 10 + "a" * 1022, "a" * 1012),
    (" " * 1022 + "a", ""),
    ("a" * 1021 + " b", "a" * 1021),
], ids=["1021", "1022", "1023", "other letter", "5000", "blanks first", "blanks only", "blank last"])
@pytest.mark.parametrize("line_end", ["", "\n"])
def test_first_line_is_cut_at_1022_characters_before_it_is_trimmed(device, text, kept, line_end):
    (device.home / "text").write_text(text + line_end)
    assert probe(device, "run_first_line", "cat text") == f"true [{kept}]\n"


def test_rest_of_an_endless_output_is_not_read(device):
    assert probe(device, "run_first_line", "exec yes 2>/dev/null") == "true [y]\n"


EXEC_WORDS = ["shell_exec", "shell_exec_raw", "shell_popen"]


@pytest.mark.parametrize("word", EXEC_WORDS)
@pytest.mark.parametrize("command, output", [
    ("true", "0\n"),
    ("false", "1\n"),
    ("exit 255", "255\n"),
    ("exit 256", "0\n"),
    ("kill -9 $$", "-1\n"),
    ("kill -15 $$", "-1\n"),
    ("{ sh -c 'kill -9 $$'; } 2>/dev/null; exit $?", "137\n"),
    ("", "0\n"),
    ("echo \"it's\" 'a \"b\"' c\\ d", "it's a \"b\" c d\n0\n"),
    ("echo one; echo two; exit 3", "one\ntwo\n3\n"),
    ("printf 'no line end '", "no line end 0\n"),
    ("printf '\\r\\n\\n'", "\r\n\n0\n"),
    ("echo '100%s %d %n'", "100%s %d %n\n0\n"),
    ("echo one # a remark", "one\n0\n"),
])
def test_exit_code_and_output_of_a_command(device, word, command, output):
    result = raw_probe(device, word, command)
    assert (result.status, result.stdout_bytes, result.stderr) == (0, output.encode(), "")


@pytest.mark.parametrize("word", ["shell_exec", "shell_exec_raw"])
def test_missing_command_is_exit_code_127(device, word):
    result = raw_probe(device, word, "no-such-command-here")
    shell = device.run("sh", "-c", "no-such-command-here")
    assert (result.status, result.stdout, result.stderr) == (0, "127\n", shell.stderr)


def test_stream_has_standard_error_in_its_place(device):
    command = "echo one; echo two >&2; echo three; no-such-command-here"
    shell = device.run("sh", "-c", "no-such-command-here")
    assert probe(device, "shell_popen", command) == f"one\ntwo\nthree\n{shell.stderr}127\n"


def test_big_output_comes_through_the_stream_whole(device):
    lines = "".join(f"{number}\n" for number in range(1, 500001))
    assert probe(device, "shell_popen", "seq 500000") == lines + "0\n"


def test_null_command_is_1_and_nothing_runs(device):
    assert probe(device, "shell_exec_null") == "1\n"


def test_waiting_for_a_process_that_is_no_child_gives_minus_1(device):
    assert probe(device, "shell_wait", "1") == "-1\n"


@pytest.mark.parametrize("word", ["shell_exec", "shell_popen"])
@pytest.mark.parametrize("length, kept", [(4093, 4093), (4094, 4094), (4095, 4094), (9000, 4094)])
def test_formatted_command_is_cut_at_4094_characters(device, word, length, kept):
    start = "printf %s "
    command = start + "a" * (length - len(start))
    assert probe(device, word, command) == "a" * (kept - len(start)) + "0\n"


def test_unformatted_command_is_not_cut(device):
    assert probe(device, "shell_exec_raw", "printf %s " + "a" * 9000) == "a" * 9000 + "0\n"


def test_cut_inside_quotes_is_the_shells_error(device):
    command = "printf %s '" + "a" * 4090 + "'"
    result = raw_probe(device, "shell_exec", command)
    shell = device.run("sh", "-c", command[:4094])
    assert shell.status != 0
    assert (result.stdout, result.stderr) == (f"{shell.status}\n", shell.stderr)
