"""The simulated device: what is private, what passes through, what is left behind."""

import os
import signal
import subprocess
import uuid
from pathlib import Path

import pytest

from conftest import without_ways
from recorder_client import ANY, StartsWith

SAMPLES = Path(__file__).resolve().parent.parent.parent / "samples"
TIME_LIMIT_SECONDS = 120
OWN_ETC = ["group", "hosts", "nsswitch.conf", "passwd", "regsh", "systeminfo", "tavrin"]

# How to find out, without the device, whether this machine allows a way.
WAY_PROBES = {
    "namespace": ["unshare", "--mount", "mount", "--bind", "/usr", "/usr"],
    "user-namespace": ["unshare", "--user", "--map-root-user", "--mount",
                       "mount", "--bind", "/usr", "/usr"],
    "chroot": ["chroot", "/", "true"],
}


def succeeds(*command):
    return subprocess.run(command, capture_output=True, timeout=TIME_LIMIT_SECONDS,
                          check=False).returncode == 0


ALLOWED_WAYS = [name for name, probe in WAY_PROBES.items() if succeeds(*probe)]
FORBIDDEN_WAYS = [name for name in WAY_PROBES if name not in ALLOWED_WAYS]
NESTING_WAYS = [name for name in ALLOWED_WAYS if name != "chroot"]

WITHOUT_RIGHTS = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"] if os.getuid() == 0 else []


@pytest.fixture(params=ALLOWED_WAYS)
def way(request):
    return request.param


@pytest.fixture
def call(programs):
    """Runs the device program itself; arguments are its own."""

    def run(*arguments, before=(), **options):
        options.setdefault("stdin", subprocess.DEVNULL)
        return subprocess.run([*before, programs / "device", *arguments], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                              timeout=TIME_LIMIT_SECONDS, **options)

    return run


def shell(call, way, script, *arguments, **options):
    return call("--way", way, *arguments, "--", "sh", "-c", script, **options)


def test_some_way_is_allowed_here():
    assert ALLOWED_WAYS != [], "no device can be made on this machine"


# What passes through


@pytest.mark.parametrize("status", [0, 1, 42, 255])
def test_exit_status_is_the_commands(call, way, status):
    result = shell(call, way, f"exit {status}")
    assert (result.returncode, result.stderr) == (status, "")


@pytest.mark.parametrize("name", ["SIGTERM", "SIGKILL", "SIGINT", "SIGSEGV", "SIGABRT", "SIGUSR1"])
def test_device_ends_by_the_commands_signal(call, way, name):
    number = signal.Signals[name]
    assert shell(call, way, f"kill -{number.value} $$").returncode == -number


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP", "SIGQUIT", "SIGUSR1", "SIGUSR2"])
def test_signal_reaches_the_command(programs, way, name):
    script = f"trap 'echo caught; exit 7' {name[3:]}; echo ready; while :; do sleep 0.02; done"
    with subprocess.Popen([programs / "device", "--way", way, "--", "sh", "-c", script],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as running:
        assert running.stdout.readline() == "ready\n"
        running.send_signal(signal.Signals[name])
        assert running.communicate(timeout=TIME_LIMIT_SECONDS)[0] == "caught\n"
    assert running.returncode == 7


def test_ended_device_leaves_no_folder(programs, way):
    script = "echo $HOME; exec sleep 600"
    with subprocess.Popen([programs / "device", "--way", way, "--", "sh", "-c", script],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as running:
        home = Path(running.stdout.readline().rstrip("\n"))
        assert home.is_dir()
        running.terminate()
    assert running.returncode == -signal.SIGTERM
    assert not home.parent.exists()


def test_streams_pass_unchanged(call, way):
    result = shell(call, way, "cat; echo said >&2", input="a\n\tb", stdin=None)
    assert (result.stdout, result.stderr, result.returncode) == ("a\n\tb", "said\n", 0)


def test_arguments_pass_unchanged(call, way):
    words = ["", "a b", "'", "$HOME", "--keep", "two\nlines"]
    result = call("--way", way, "printf", "%s|", *words)
    assert result.stdout == "|".join(words) + "|"


def test_without_a_command_a_shell_reads_its_input(call, way):
    result = call("--way", way, input="echo $((6 * 7)); exit 3\n", stdin=None)
    assert (result.stdout, result.returncode) == ("42\n", 3)


def test_missing_command(call, way):
    result = call("--way", way, "no-such-program")
    assert result.stderr == "device: no-such-program: No such file or directory\n"
    assert result.returncode == 127


def test_command_that_cannot_be_executed(call, way, tmp_path):
    home = tmp_path / "device/home"
    home.mkdir(parents=True)
    (home / "notes").write_text("text")
    result = call("--way", way, "--keep", home.parent, "./notes", cwd=home)
    assert result.stderr == "device: ./notes: Permission denied\n"
    assert result.returncode == 126


# Identity


def image_type_of(etc):
    """The build that these two files mean, read by the rules for devices of this family."""
    if (etc / "systeminfo").exists():
        lines = (etc / "systeminfo").read_text().splitlines()
        facts = {line.split("=")[0]: line.split('"')[1] for line in lines}
        assert facts["PRODUCT_NAME"] == "Sylvex"
        generation = facts["PRODUCT_VERSION"][0]
        if facts["PRODUCT_CONFIG"] == "zero":
            return {"5": 8, "6": 9, "7": 10}.get(generation, 6)
        assert facts["PRODUCT_CONFIG"] == "standard"
        return {"3": 5, "4": 7, "5": 8, "6": 9, "7": 10}[generation]
    text = (etc / "imageid").read_text()[:8]
    assert len(text) == 8
    if text[0] == "D":
        code, number = text[2:4], int(text[4:])
        if code == "ST":
            return 1 if number <= 19 else 4
        return {"SQ": 2, "QU": 3, "AR": 5}[code]
    assert text[0] == "T" and int(text[6:]) >= 0
    return {"410": 7, "400": 6}[text[3:6]]


IDENTITIES = [
    (1, False, None, "imageid"),
    (2, False, None, "imageid"),
    (3, False, None, "imageid"),
    (4, False, None, "imageid"),
    (5, False, None, "systeminfo"),
    (5, False, "systeminfo", "systeminfo"),
    (5, False, "imageid", "imageid"),
    (6, False, None, "imageid"),
    (6, True, None, "systeminfo"),
    (7, False, None, "systeminfo"),
    (7, False, "imageid", "imageid"),
    (8, False, None, "systeminfo"),
    (8, True, None, "systeminfo"),
    (9, False, None, "systeminfo"),
    (9, True, None, "systeminfo"),
    (10, False, None, "systeminfo"),
    (10, True, None, "systeminfo"),
]


@pytest.mark.parametrize("image_type, zero, identity, source", IDENTITIES)
def test_identity(call, tmp_path, image_type, zero, identity, source):
    options = ["--image-type", str(image_type)]
    options += ["--zero"] if zero else []
    options += ["--identity", identity] if identity else []
    result = call("--keep", tmp_path, *options, "--", "sh", "-c",
                  "cd /etc; ls systeminfo imageid 2>/dev/null")
    assert result.stdout == source + "\n"
    assert image_type_of(tmp_path / "etc") == image_type
    assert ('"zero"' in (tmp_path / "etc" / source).read_text()) == zero
    other = {"systeminfo": "imageid", "imageid": "systeminfo"}[source]
    assert not (tmp_path / "etc" / other).exists()


def test_default_identity_is_image_type_9(call, tmp_path):
    assert call("--keep", tmp_path, "true").returncode == 0
    assert image_type_of(tmp_path / "etc") == 9


def test_device_without_identity(call, way):
    result = shell(call, way, "cd /etc; ls -d systeminfo imageid 2>/dev/null | wc -l",
                   "--image-type", "none")
    assert result.stdout == "0\n"


def test_given_identity_files_are_copied(call, tmp_path, way):
    (tmp_path / "info").write_bytes(b"PRODUCT_NAME=\"x\"\xff\n")
    (tmp_path / "id").write_bytes(b"short")
    result = call("--way", way, "--keep", tmp_path / "device", "--systeminfo", tmp_path / "info",
                  "--imageid", tmp_path / "id", "true")
    assert result.returncode == 0
    assert (tmp_path / "device/etc/systeminfo").read_bytes() == b"PRODUCT_NAME=\"x\"\xff\n"
    assert (tmp_path / "device/etc/imageid").read_bytes() == b"short"


def test_missing_identity_file(call, tmp_path):
    result = call("--systeminfo", tmp_path / "gone", "true")
    assert result.stderr == f"device: {tmp_path}/gone: No such file or directory\n"
    assert result.returncode == 66


# Wrong usage

WRONG_USAGE = [
    (["--image-type", "0"], "--image-type takes 1 to 10 or none, not '0'"),
    (["--image-type", "11"], "--image-type takes 1 to 10 or none, not '11'"),
    (["--image-type", "9x"], "--image-type takes 1 to 10 or none, not '9x'"),
    (["--image-type"], "--image-type needs a value"),
    (["--keep", ""], "--keep needs a value"),
    (["--identity", "both"], "--identity takes systeminfo or imageid, not 'both'"),
    (["--way", "luck"], "--way takes namespace, user-namespace or chroot, not 'luck'"),
    (["--env", "NAME"], "--env takes NAME=VALUE, not 'NAME'"),
    (["--env", "=x"], "--env takes NAME=VALUE, not '=x'"),
    (["--nonsense"], "unknown option --nonsense"),
    (["--image-type", "1", "--zero"], "image type 1 has no identity of that kind"),
    (["--image-type", "2", "--identity", "systeminfo"], "image type 2 has no identity of that kind"),
    (["--image-type", "9", "--identity", "imageid"], "image type 9 has no identity of that kind"),
    (["--image-type", "none", "--zero"], "--zero and --identity go with a numbered image type"),
]


@pytest.mark.parametrize("options, reason", WRONG_USAGE)
def test_wrong_usage(call, options, reason):
    result = call(*options)
    assert result.stderr == f"device: {reason} (see device --help)\n"
    assert (result.returncode, result.stdout) == (64, "")


@pytest.mark.parametrize("folder", ["/", "/tmp", "/etc"])
def test_folder_that_cannot_hold_a_device(call, folder):
    result = call("--keep", folder, "true")
    assert result.stderr == f"device: {folder} cannot hold a device\n"
    assert result.returncode == 64


@pytest.mark.parametrize("name", ["etc", "tmp", "home", "client"])
def test_kept_folder_with_a_way_out(call, tmp_path, name):
    (tmp_path / "host").mkdir()
    (tmp_path / "device").mkdir()
    (tmp_path / "device" / name).symlink_to(tmp_path / "host")
    result = call("--keep", tmp_path / "device", "true")
    inner = tmp_path / "device" / name / ("tavrin/connections" if name == "etc" else "")
    assert result.stderr == f"device: {inner} leads out of the device\n"
    assert result.returncode == 64
    assert list((tmp_path / "host").iterdir()) == []


def test_help_names_every_option(call):
    result = call("--help")
    assert result.returncode == 0
    assert result.stdout.startswith("Usage: device [OPTION...] [--] [COMMAND...]\n")
    for option in ["--image-type N", "--identity SOURCE", "--zero", "--systeminfo FILE",
                   "--imageid FILE", "--registry SAMPLE", "--sessions DIR", "--client FILE",
                   "--keep DIR", "--way NAME", "--env NAME=VALUE", "--describe", "--help"]:
        assert f"\n  {option} " in result.stdout


# What is private


def test_etc_holds_only_what_the_device_makes(call, way):
    result = shell(call, way, "ls -A /etc; ls -A /etc/tavrin /etc/tavrin/connections /etc/regsh")
    assert result.stdout.splitlines() == [
        *OWN_ETC, "/etc/regsh:", "", "/etc/tavrin:", "connections", "",
        "/etc/tavrin/connections:"]


def test_tmp_is_empty_and_open_to_all(call, way, make_device):
    device = make_device(way=way)
    result = device.run("sh", "-c", "stat -c '%a %d:%i' /tmp /etc")
    assert result.stderr == ""
    listing = device.run("ls", "-A", "/tmp").stdout.split()
    assert without_ways(listing, device.folder, device.programs) == []
    own = [f"1777 {number(device.tmp)}", f"755 {number(device.etc)}"]
    assert result.stdout.splitlines() == own
    assert number(Path("/tmp")) not in result.stdout
    assert number(Path("/etc")) not in result.stdout


def number(path):
    facts = path.stat()
    return f"{facts.st_dev}:{facts.st_ino}"


def test_nothing_reaches_the_hosts_etc_and_tmp(make_device, way):
    device = make_device(way=way)
    mark = f"mark-{uuid.uuid4()}"
    result = device.run("sh", "-c", f"echo a > /etc/{mark}; echo b > /tmp/{mark}")
    assert (result.status, result.stderr) == (0, "")
    assert (device.etc / mark).read_text() == "a\n"
    assert (device.tmp / mark).read_text() == "b\n"
    assert device.tmp_leftovers() == [mark]
    assert not Path("/etc", mark).exists()
    assert not Path("/tmp", mark).exists()


def test_fresh_device_is_removed(call, way):
    result = shell(call, way, "echo $HOME; touch /tmp/x /etc/x $HOME/x; mkdir -p /tmp/a/b; chmod 0 /tmp/a")
    home = Path(result.stdout.rstrip("\n"))
    assert home.name == "home" and home.is_absolute()
    assert not home.parent.exists()
    assert result.stderr == ""


def test_removal_follows_no_link(call, way, tmp_path):
    (tmp_path / "precious").write_text("kept")
    result = shell(call, way, f'echo $HOME; ln -s {tmp_path} "$HOME/link"; ln -s {tmp_path} /tmp/l')
    assert (tmp_path / "precious").read_text() == "kept"
    assert not Path(result.stdout.rstrip("\n")).parent.exists()


def test_removal_crosses_no_mount(programs, tmp_path):
    outside = tmp_path / "outside"
    outside.mkdir()
    (outside / "precious").write_text("kept")
    script = """
        set -e
        mkfifo go told
        "$DEVICE" -- sh -c 'mkdir "$HOME/m"; echo "$HOME"; read -r line' <go >told 2>complaint &
        exec 3>go
        read -r home <told
        mount --bind outside "$home/m"
        echo >&3
        wait $!
        echo "$home"
        umount "$home/m"
        rm -r "${home%/home}"
        """
    if not NESTING_WAYS:
        assert_unavailable(programs, "namespace")
        return
    enter = WAY_PROBES[NESTING_WAYS[0]][:-4]
    result = subprocess.run([*enter, "sh", "-c", script], cwd=tmp_path, text=True,
                            capture_output=True, timeout=TIME_LIMIT_SECONDS, check=False,
                            env={**os.environ, "DEVICE": str(programs / "device")})
    assert (result.returncode, result.stderr) == (0, "")
    folder = Path(result.stdout.rstrip("\n")).parent
    assert (tmp_path / "complaint").read_text() == f"device: {folder} could not be removed\n"
    assert (outside / "precious").read_text() == "kept"


# What is kept


def test_kept_device_goes_on(call, way, tmp_path, programs):
    keep = ["--keep", tmp_path / "device"]
    assert shell(call, way, "echo 1 >/etc/a; echo 2 >/tmp/b; echo 3 >$HOME/c", *keep,
                 "--image-type", "4").returncode == 0
    result = shell(call, way, "cat /etc/a /tmp/b $HOME/c /etc/imageid; ls -A /tmp", *keep)
    content, listing = result.stdout.split()[:4], result.stdout.split()[4:]
    assert content == ["1", "2", "3", "DXST0020"]
    assert without_ways(listing, tmp_path, programs) == ["b"]


def test_identity_given_again_replaces_the_kept_one(call, way, tmp_path):
    keep = ["--keep", tmp_path]
    shell(call, way, "true", *keep, "--image-type", "4")
    shell(call, way, "true", *keep, "--image-type", "8")
    assert image_type_of(tmp_path / "etc") == 8
    assert not (tmp_path / "etc/imageid").exists()


def test_kept_device_may_change_its_way(call, tmp_path):
    for turn, name in enumerate(ALLOWED_WAYS + ALLOWED_WAYS):
        result = shell(call, name, "echo x >>/etc/a; echo x >>/tmp/a; echo x >>$HOME/a; cat /etc/a",
                       "--keep", tmp_path)
        assert (result.stdout, result.stderr) == ("x\n" * (turn + 1), "")
    for folder in ("etc", "tmp", "home"):
        assert (tmp_path / folder / "a").read_text() == "x\n" * 2 * len(ALLOWED_WAYS)


def test_refused_identity_leaves_a_kept_device_new(call, tmp_path):
    assert call("--keep", tmp_path, "--image-type", "1", "--zero", "true").returncode == 64
    assert call("--keep", tmp_path, "true").returncode == 0
    assert image_type_of(tmp_path / "etc") == 9


def test_home_has_one_path_inside_and_outside(call, way, tmp_path):
    home = tmp_path / "device/home"
    result = shell(call, way, f"pwd -P >{home}/seen; cat {home}/seen; echo $HOME; echo $PWD",
                   "--keep", home.parent, cwd="/")
    in_home = shell(call, way, "pwd -P; echo x >made", "--keep", home.parent, cwd=home)
    assert in_home.stdout == f"{home}\n"
    assert (home / "made").read_text() == "x\n"
    start = str(home) if way == "chroot" else "/"
    # The root folder of a chroot is not the host's, so the command starts at home there.
    assert result.stdout.splitlines() == [start, str(home), start]


def test_command_starts_in_a_folder_below_home(call, way, tmp_path):
    call("--way", way, "--keep", tmp_path, "true")
    folder = tmp_path / "home/a b/c"
    folder.mkdir(parents=True)
    assert shell(call, way, "pwd", "--keep", tmp_path, cwd=folder).stdout == f"{folder}\n"


def test_hosts_tmp_as_current_folder_is_not_reachable(call, way, tmp_path):
    result = shell(call, way, "pwd", "--keep", tmp_path, cwd="/tmp")
    assert result.stdout == f"{tmp_path}/home\n"


# Registry, sessions, client, environment


def test_registry_sample_is_loaded(make_device, way):
    device = make_device(way=way).load_registry(SAMPLES / "standard.xml")
    assert device.regsh("get", "root/system/hostName").stdout == \
        "root/system/hostName thin-client-12\n"
    assert (device.etc / "regsh/registry.db").is_file()


def test_registry_of_the_host_is_not_used(make_device, way, tmp_path, monkeypatch):
    monkeypatch.setenv("REGSH_DB", str(tmp_path / "other.db"))
    device = make_device(way=way).load_registry(SAMPLES / "standard.xml")
    assert device.regsh("contains", "root/system").status == 0
    assert not (tmp_path / "other.db").exists()


def test_registry_sample_that_is_refused(call, tmp_path):
    (tmp_path / "sample").write_text("<broken")
    result = call("--registry", tmp_path / "sample", "true")
    assert result.returncode == 65
    assert result.stderr.splitlines()[-1].startswith(
        f"device: regsh load {tmp_path}/sample ended with status ")


def test_registry_sample_that_is_missing(call, tmp_path):
    result = call("--registry", tmp_path / "gone", "true")
    assert result.stderr == f"device: {tmp_path}/gone: No such file or directory\n"
    assert result.returncode == 66


def test_sessions_are_copied(call, way, tmp_path):
    (tmp_path / "a.kss").write_bytes(b"<a/>\xff")
    (tmp_path / "b c.ws").write_bytes(b"")
    (tmp_path / "folder").mkdir()
    result = shell(call, way, "cd /etc/tavrin/connections; ls; od -An -tx1 a.kss",
                   "--sessions", tmp_path)
    assert result.stdout == "a.kss\nb c.ws\n 3c 61 2f 3e ff\n"


def test_sessions_folder_that_is_missing(call, tmp_path):
    result = call("--sessions", tmp_path / "gone", "true")
    assert result.stderr == f"device: {tmp_path}/gone: No such file or directory\n"
    assert result.returncode == 66


def test_given_client_takes_the_place_of_regsh(call, way, tmp_path):
    client = tmp_path / "client"
    client.write_text("#!/usr/bin/env sh\necho \"$# $*\"; exit 9\n")
    keep = ["--keep", tmp_path / "device"]
    result = shell(call, way, "regsh get 'a  b'; exit $?", *keep, "--client", client)
    assert (result.stdout, result.stderr, result.returncode) == ("2 get a  b\n", "", 9)
    assert shell(call, way, "regsh contains root/none", *keep).stdout == ""


def test_interpreter_of_the_client_comes_along(call, way, tmp_path):
    client = tmp_path / "client"
    client.write_text("#!/usr/bin/tac\nlast line\n")
    result = call("--way", way, "--client", client, "regsh")
    assert (result.stdout, result.stderr) == ("last line\n#!/usr/bin/tac\n", "")


def test_programs_are_first_on_the_path(call, way, programs):
    result = shell(call, way, "command -v corvik; command -v regsh; echo $PATH")
    assert result.stdout.splitlines() == [
        f"{programs}/corvik", f"{programs}/regsh",
        f"{programs}:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"]


def test_environment(call, way, tmp_path):
    caller = {"PATH": "/nowhere", "REGSH_DB": "/x", "TMPDIR": "/x", "HOME": "/x", "KEPT": "a b"}
    result = shell(call, way, 'echo "$HOME,$CORVIK_DEVICE,${REGSH_DB-no},${TMPDIR-no},$KEPT"',
                   "--keep", tmp_path, env=caller)
    assert result.stdout == f"{tmp_path}/home,{way},no,no,a b\n"


def test_settings_for_the_command_alone(call, way):
    result = shell(call, way, 'echo "$A|$B|$PATH"', "--env", "A=1 = 2", "--env", "B=",
                   "--env", "PATH=/none")
    assert result.stdout == "1 = 2||/none\n"


def test_pipeline_of_system_tools(call, way):
    line = "cat /etc/systeminfo | grep PRODUCT_CONFIG | head -n1 | cut -d '\"' -f 2"
    result = shell(call, way, line + "; echo lost >/dev/null; test -s /usr/bin/dpkg", "--zero")
    assert (result.stdout, result.stderr, result.returncode) == ("zero\n", "", 0)


# Ways


def assert_unavailable(programs, name):
    result = subprocess.run([programs / "device", "--way", name, "true"], text=True, check=False,
                            capture_output=True, timeout=TIME_LIMIT_SECONDS)
    head, reason = result.stderr.splitlines()
    assert head == "device: no device can be made here"
    assert reason.startswith(f"{name}: ")
    assert result.returncode == 69


def test_describe_names_the_way(call):
    lines = call("--describe").stdout.splitlines()
    assert lines[0] == f"way: {ALLOWED_WAYS[0]}"
    assert [line.split(": ")[0] for line in lines[1:]] == list(WAY_PROBES)
    assert [line.split(": ")[0] for line in lines[1:] if line.endswith(": works")] == ALLOWED_WAYS


def test_describe_of_one_way(call, way):
    result = call("--way", way, "--describe", "--", "sh", "-c", "echo not run")
    assert (result.stdout, result.returncode) == (f"way: {way}\n{way}: works\n", 0)


def test_first_way_that_works_is_used(call):
    result = call("sh", "-c", "echo $CORVIK_DEVICE")
    assert result.stdout == f"{ALLOWED_WAYS[0]}\n"


def test_forbidden_ways_say_so(programs):
    for name in FORBIDDEN_WAYS:
        assert_unavailable(programs, name)


def ordinary_user(folder):
    """Words that run a command as a user without rights who can use the folder."""
    if os.getuid() != 0:
        return []
    user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    os.chmod(folder, 0o777)
    if succeeds(*user, "touch", folder / "mark"):
        return user
    # The way to the folder is closed to others, or there are no others in this container: root's
    # files, seen as another user.
    alias = ["unshare", "--user", "--map-user=65534", "--map-group=65534"]
    return alias if succeeds(*alias, "true") else WITHOUT_RIGHTS


@pytest.fixture
def open_folder(programs):
    """A folder that another user can be given; those of the test runner are closed to others."""
    folder = programs.parent / f"device-test-{uuid.uuid4()}"
    folder.mkdir()
    yield folder
    subprocess.run(["rm", "-rf", folder], check=True)


def test_ordinary_user(call, open_folder):
    user = ordinary_user(open_folder)
    script = "echo $CORVIK_DEVICE; id -u; ls -A /etc; echo x >/tmp/x; echo x >/etc/x; pwd"
    result = call("--keep", open_folder, "sh", "-c", script, before=user, cwd="/tmp")
    if succeeds(*user, *WAY_PROBES["user-namespace"]):
        assert result.stdout.splitlines() == ["user-namespace", "0", *OWN_ETC,
                                              str(open_folder / "home")]
        assert (open_folder / "tmp/x").read_text() == "x\n"
        assert (open_folder / "etc/x").read_text() == "x\n"
    else:
        assert result.returncode == 69
        assert "\nuser-namespace: " in result.stderr


@pytest.mark.parametrize("name, reason", [
    ("namespace", "new mount namespace: Operation not permitted"),
    ("chroot", "chroot: Operation not permitted"),
])
def test_way_that_needs_rights(call, tmp_path, name, reason):
    result = call("--way", name, "--keep", tmp_path, "true", before=WITHOUT_RIGHTS)
    assert result.stderr == f"device: no device can be made here\n{name}: {reason}\n"
    assert result.returncode == 69


@pytest.mark.parametrize("options", [["true"], ["--describe"]])
def test_no_way_works(call, tmp_path, options):
    closed = WITHOUT_RIGHTS
    if succeeds(*WAY_PROBES["user-namespace"]):
        # A user namespace of its own, in which no further one can be made.
        closed = ["unshare", "--user", "--map-root-user", "sh", "-c",
                  'echo 0 >/proc/sys/user/max_user_namespaces; '
                  'exec setpriv --bounding-set=-all --inh-caps=-all "$@"', "sh"]
    result = call("--keep", tmp_path, *options, before=closed)
    lines = result.stderr.splitlines()
    assert (result.returncode, result.stdout) == (69, "")
    assert lines[0] == "device: no device can be made here"
    assert lines[1] == "namespace: new mount namespace: Operation not permitted"
    assert lines[2].startswith("user-namespace: ")
    assert lines[3] == "chroot: chroot: Operation not permitted"
    assert len(lines) == 4


def test_build_and_device_below_tmp(make_device, programs):
    if not NESTING_WAYS:
        assert_unavailable(programs, "namespace")
        return
    outer = make_device(way=NESTING_WAYS[0])
    (outer.tmp / "hidden").write_text("x")
    (outer.tmp / "b/bin").mkdir(parents=True)
    script = """
        cp "$1"/corvik "$1"/regsh "$1"/device /tmp/b/bin
        for way in $2; do
            /tmp/b/bin/device --way $way --keep /tmp/b/device -- sh -c '
                echo $way; ls -A /tmp; echo x >>"$HOME/x"; command -v corvik'
            /tmp/b/bin/device --way $way -- sh -c 'ls -A /tmp; echo $HOME' | cut -c 1-18
        done
        cat /tmp/b/device/home/x; ls /tmp/b/device-work
        """
    ways = [name for name in ALLOWED_WAYS if name != "namespace" or outer.way == "namespace"]
    result = outer.run("sh", "-c", script, "sh", programs, " ".join(ways))
    one_way = ["", "b", "/tmp/b/bin/corvik", "b", "/tmp/b/device-work"]
    store = ["store"] if "chroot" in ways else []
    assert result.stderr == ""
    assert result.stdout.splitlines() == one_way * len(ways) + ["x"] * len(ways) + store


# The recorder


def test_recorder_notes_exact_arguments(make_device, way):
    device = make_device(way=way)
    client = device.recorder()
    odd = bytes(range(1, 256))
    script = b'regsh set "a  b" "" "two\nlines" "$1"; regsh; regsh get \'x\'\n'
    assert device.run("sh", "-c", script, "sh", odd).status == 0
    assert client.raw_calls == [[b"regsh", b"set", b"a  b", b"", b"two\nlines", odd], [b"regsh"],
                                [b"regsh", b"get", b"x"]]
    assert client.calls[0][:5] == ["regsh", "set", "a  b", "", "two\nlines"]
    assert os.fsencode(client.calls[0][5]) == odd


def test_recorder_answers_nothing_by_default(device):
    device.recorder()
    result = device.run("regsh", "get", "root/x")
    assert (result.status, result.stdout, result.stderr) == (0, "", "")


def test_recorder_answers_by_rule(device):
    client = device.recorder()
    client.on("get", ..., stdout="any\n")
    client.on("get", "root/a", stdout=b"root/a \xff\0", stderr="why\n", status=3)
    client.on("get", StartsWith("root/b/"), stdout="below\n")
    client.on("contains", ANY, status=1)
    found = device.run("regsh", "get", "root/a")
    assert (found.status, found.stdout_bytes, found.stderr) == (3, b"root/a \xff\0", "why\n")
    assert device.run("regsh", "get", "root/b/c").stdout == "below\n"
    assert device.run("regsh", "get", "root/b").stdout == "any\n"
    assert device.run("regsh", "get").stdout == "any\n"
    assert device.run("regsh", "contains", "x").status == 1
    assert device.run("regsh", "contains", "x", "y").status == 0
    assert device.run("regsh", "contains").status == 0


def test_recorder_uses_a_rule_so_often(device):
    client = device.recorder()
    client.on("contains", ANY, status=5)
    client.on("contains", ANY, status=1, times=2)
    statuses = [device.run("regsh", "contains", "x").status for _ in range(4)]
    assert statuses == [1, 1, 5, 5]


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGSEGV])
def test_recorder_ends_by_signal(device, number):
    device.recorder().on("commit", ..., signal=number, stdout="so far\n")
    result = device.run("regsh", "commit")
    assert (result.status, result.stdout) == (-number, "so far\n")


def test_recorder_writes_exports_and_keeps_imports(make_device, way):
    device = make_device(way=way)
    client = device.recorder()
    client.on("export", "root/x", ANY, writes=b"<x>\xff\0</x>")
    script = """regsh export root/x /tmp/x.xml; regsh import /tmp/x.xml; rm /tmp/x.xml
                regsh import /tmp/gone; printf later >/tmp/l; regsh import /tmp/l"""
    assert device.run("sh", "-c", script).status == 0
    assert client.imports == [b"<x>\xff\0</x>", None, b"later"]
    assert [call[1] for call in client.calls] == ["export", "import", "import", "import"]
    assert device.tmp_leftovers() == ["l"]


def test_recorder_forgets_calls_and_keeps_rules(device):
    client = device.recorder()
    client.on("get", ANY, status=4)
    device.run("regsh", "get", "a")
    client.clear()
    assert client.calls == []
    assert device.run("regsh", "get", "b").status == 4
    assert client.calls == [["regsh", "get", "b"]]


def test_recorders_at_the_same_time_lose_no_call(device):
    client = device.recorder()
    device.run("sh", "-c", "for i in 1 2 3 4 5 6 7 8; do regsh get $i & done; wait")
    assert sorted(call[2] for call in client.calls) == list("12345678")


def test_registry_client_may_be_missing(device):
    result = device.run("sh", "-c", "regsh get x", env={"PATH": "/usr/bin:/bin"})
    assert result.status == 127
