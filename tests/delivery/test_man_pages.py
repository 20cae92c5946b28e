"""The man pages: they lint silently, fit 80 columns, and say what the programs do.

CORVIK_BIN_DIR names the folder of the built programs. CORVIK_DEVICE_WAY, when set, names the only
way in which devices are made. mandoc is needed.
"""

import os
import re
import shlex
import subprocess
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parent.parent.parent
MAN = TREE / "packaging/man"
PAGES = ["corvik-connections.5", "corvik.1", "device.1", "regsh.1"]
each_page = pytest.mark.parametrize("page", PAGES)

TIME_LIMIT_SECONDS = 120
COLUMNS = 80

# The order of sections that readers of manuals expect.
SECTION_ORDER = ["NAME", "SYNOPSIS", "DESCRIPTION", "ENVIRONMENT", "FILES", "EXIT STATUS",
                 "EXAMPLES", "DIAGNOSTICS", "SEE ALSO", "CAVEATS", "SECURITY CONSIDERATIONS"]
OF_PROGRAMS = {"SYNOPSIS", "ENVIRONMENT", "EXIT STATUS", "DIAGNOSTICS"}
OF_ALL = {"NAME", "DESCRIPTION", "FILES", "EXAMPLES", "SEE ALSO", "SECURITY CONSIDERATIONS"}

ABORTED = 134  # what a shell shows for SIGABRT


# Pages


def source(page):
    return (MAN / page).read_text()


def section(page, name):
    """The source of one section."""
    return re.search(rf"^\.Sh {name}\n(.*?)(?=^\.Sh |\Z)", source(page), re.M | re.S).group(1)


def sections(page):
    return re.findall(r"^\.Sh (.*)$", source(page), re.M)


def mandoc(*arguments):
    return subprocess.run(["mandoc", *arguments], cwd=MAN, capture_output=True, text=True,
                          timeout=TIME_LIMIT_SECONDS, check=False)


def rendered(page):
    """The lines as a terminal of 80 columns shows them, without bold and underline."""
    result = mandoc("-T", "utf8", "-O", f"width={COLUMNS}", page)
    assert result.returncode == 0, result.stderr
    return re.sub(".\b", "", result.stdout).splitlines()


def rendered_section(page, name):
    lines = rendered(page)
    start = lines.index(name) + 1
    ends = [at for at in range(start, len(lines)) if re.match(r"\S", lines[at])]
    return lines[start:ends[0]]


def shell_lines(page):
    """The commands of EXAMPLES as the reader sees them, without the prompt."""
    text = "\n".join(line.strip() for line in rendered_section(page, "EXAMPLES"))
    joined = text.replace("\\\n", "")
    return [line[2:] for line in joined.splitlines() if line.startswith("$ ")]


def display_of(page, first_line):
    """The literal display of EXAMPLES that begins with that line."""
    displays = re.findall(r"^\.Bd -literal.*?\n(.*?)^\.Ed", section(page, "EXAMPLES"), re.M | re.S)
    return next(text for text in displays if text.startswith(first_line))


def test_the_pages_are_those_that_are_there():
    assert sorted(path.name for path in MAN.iterdir()) == PAGES


@each_page
def test_lints_silently(page):
    result = mandoc("-T", "lint", "-W", "all", page)
    assert (result.stdout + result.stderr, result.returncode) == ("", 0)


@each_page
def test_no_line_is_wider_than_the_terminal(page):
    lines = rendered(page)
    assert len(lines) > 100
    assert [line for line in lines if len(line) > COLUMNS] == []


@each_page
def test_sections_are_there_in_conventional_order(page):
    found = sections(page)
    assert found == sorted(found, key=SECTION_ORDER.index)
    required = OF_ALL | (OF_PROGRAMS if page.endswith(".1") else set())
    assert required <= set(found)


@each_page
def test_title_and_name_are_those_of_the_file(page):
    name, number = page.rsplit(".", 1)
    assert f".Dt {name.upper()} {number}" in source(page).splitlines()
    assert section(page, "NAME").splitlines()[0] == f".Nm {name}"


@each_page
def test_cross_references_point_at_pages(page):
    found = re.findall(r"^\.Xr (\S+) (\d)", source(page), re.M)
    assert {f"{name}.{number}" for name, number in found} <= set(PAGES) - {page}


@each_page
def test_see_also_names_all_other_pages_in_order(page):
    found = re.findall(r"^\.Xr (\S+) (\d)", section(page, "SEE ALSO"), re.M)
    assert found == sorted(found, key=lambda each: (each[1], each[0]))
    assert {f"{name}.{number}" for name, number in found} == set(PAGES) - {page}


@each_page
def test_sections_that_are_referred_to_are_there(page):
    titles = re.findall(r"^\.S[hs] (.*)$", source(page), re.M)
    assert set(re.findall(r"^\.Sx (.*?)(?: [.,;:])?$", source(page), re.M)) <= set(titles)


# Numbers, options, verbs and names, against the code


def documented_statuses(page):
    found = re.findall(r"^\.It (\d+)", section(page, "EXIT STATUS"), re.M)
    assert len(found) == len(set(found))
    return {int(each) for each in found}


def enumerators(file, enum):
    text = (TREE / file).read_text()
    body = re.search(rf"^enum (?:class )?{enum}\b[^{{]*{{(.*?)}};", text, re.M | re.S).group(1)
    return {int(each) for each in re.findall(r"=\s*(-?\d+),", body)}


def test_result_codes_are_those_of_the_code():
    codes = enumerators("common/result_codes.h", "ResultCode")
    assert len(codes) > 5
    assert documented_statuses("corvik.1") == {code & 0xFF for code in codes} | {ABORTED}
    negative = re.search(r"^\.It 255 Pq result \\(-\d+)$", source("corvik.1"), re.M).group(1)
    assert [code for code in codes if code < 0] == [int(negative)]


def test_statuses_of_the_device_are_those_of_the_code():
    assert documented_statuses("device.1") == enumerators("tools/device/failure.h", "ExitStatus")


def test_statuses_of_the_client_are_those_of_the_code():
    assert documented_statuses("regsh.1") == enumerators("tools/regsh/commands.h", "Status")


# Column of the table -> array of the code.
PAIR_TABLES = {"1": "kPairsOf1", "3, 4": "kPairsOf3To4", "5": "kPairsOf5", "6": "kPairsOf6",
               "7": "kPairsOf7", "8\N{EN DASH}10": "kPairsOf8To10"}


def pairs_of_code(table):
    """Display name -> (registry name, the other one or "")."""
    text = (TREE / "platform/conn_type_map.cpp").read_text()
    body = re.search(rf"{table} = {{(.*?)}};", text, re.S).group(1)
    rows = re.findall(r'PairRow{"([^"]+)", "([^"]+)"(?:, "([^"]+)")?}', body)
    return {display: (registry, other) for display, registry, other in rows}


def test_type_names_are_those_of_the_code():
    table = re.search(r"^\.Bl -column.*?\n(.*?)^\.El", section("corvik.1", "DESCRIPTION"),
                      re.M | re.S).group(1)
    head, *rows = [[cell.strip() for cell in line.removeprefix(".It ").split(" Ta ")]
                   for line in table.splitlines()]
    columns = [cell.removeprefix("Em ").replace(" ,", ",").replace("\\(en", "\N{EN DASH}")
               for cell in head]
    assert columns == ["type", *PAIR_TABLES]
    others = set()
    for number, name in enumerate(PAIR_TABLES.values(), 1):
        pairs = pairs_of_code(name)
        wanted = {display: registry + ("*" if other else "")
                  for display, (registry, other) in pairs.items()}
        assert {row[0]: row[number] for row in rows if row[number] != "\\-"} == wanted
        others |= {other for _, other in pairs.values() if other}
    assert others == {"firefox", "ica", "rdesktop"}  # as the text below the table says


@pytest.fixture(scope="session", name="programs")
def fixture_programs():
    folder = os.environ.get("CORVIK_BIN_DIR")
    assert folder, "CORVIK_BIN_DIR must name the folder of the built programs"
    return Path(folder).resolve()


def run(*command, **options):
    options.setdefault("stdin", subprocess.DEVNULL)
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          timeout=TIME_LIMIT_SECONDS, check=False, **options)


def test_the_usage_text_is_that_of_the_tool(programs, tmp_path):
    shown = run(programs / "corvik", "-h", cwd=tmp_path).stdout
    display = re.search(r"^\.Bd -literal\n(.*?)^\.Ed", section("corvik.1", "DIAGNOSTICS"),
                        re.M | re.S).group(1)
    unfolded = re.sub(r"the\n +default", "the default", display)
    first, *others = [line.rstrip() for line in shown.splitlines()]
    assert first == "The usage of Quorvel:"
    assert unfolded.splitlines() == others


def test_verbs_are_those_of_the_clients_help(programs):
    told = re.findall(r"^  regsh (\w+)", run(programs / "regsh", "--help").stdout, re.M)
    assert len(told) > 5
    verbs = re.findall(r"^\.It Cm (\w+)", section("regsh.1", "DESCRIPTION"), re.M)
    assert verbs == told
    assert re.findall(r"^\.Cm (\w+)", section("regsh.1", "SYNOPSIS"), re.M) == told


def test_options_are_those_of_the_devices_help(programs):
    told = re.findall(r"^  --([\w-]+)", run(programs / "device", "--help").stdout, re.M)
    assert len(told) > 5
    assert re.findall(r"^\.It Fl -([\w-]+)", section("device.1", "DESCRIPTION"), re.M) == told
    assert re.findall(r"Fl -([\w-]+)", section("device.1", "SYNOPSIS")) == told


# Examples


class Device:
    """A simulated device that stays for the length of a test."""

    def __init__(self, folder, programs):
        self.folder = folder
        self.call = [programs / "device", "--keep", folder]
        way = os.environ.get("CORVIK_DEVICE_WAY")
        self.call += ["--way", way] if way else []
        made = self.run("true")
        assert made.returncode == 0, made.stderr

    @property
    def home(self):
        return self.folder / "home"

    def run(self, *command, options=()):
        cwd = self.home if self.home.exists() else None
        return run(*self.call, *options, "--", *command, cwd=cwd)

    def shell(self, line):
        return self.run("sh", "-c", line)

    def load(self, registry):
        loaded = self.run("true", options=["--registry", registry])
        assert loaded.returncode == 0, loaded.stderr
        return self

    def opens_streams_by_name(self):
        return self.shell("test -e /proc/self/fd/1").returncode == 0


@pytest.fixture(name="device")
def fixture_device(tmp_path, programs):
    return Device(tmp_path / "device", programs).load(TREE / "samples/standard.xml")


def corvik_commands():
    found = [match.split() for line in shell_lines("corvik.1")
             for match in re.findall(r"\bcorvik (-[^|;&<>0-9']*)", line)]
    assert len(found) >= 8
    return found


def log_header(arguments):
    kind, file = arguments[1], arguments[arguments.index("-f") + 1]
    return f"{kind} {file} [******] [******] {int('-r' in arguments)}"


def test_each_example_is_accepted_and_taken_as_meant(device):
    for arguments in corvik_commands():
        result = device.run("corvik", *arguments)
        assert result.returncode != 1, (arguments, result.stderr)
        assert (device.home / "corvik.log").read_text().splitlines()[0] == log_header(arguments)


def test_examples_that_name_a_file_work(device):
    commands = [each for each in corvik_commands() if not any("/" in word for word in each)]
    assert len(commands) >= 5
    for arguments in commands:
        result = device.run("corvik", *arguments)
        assert result.returncode == 0, (arguments, result.stderr)


def test_examples_with_streams_work_where_streams_have_names(device):
    export, import_ = [line for line in shell_lines("corvik.1") if "/dev/std" in line]
    export = export.replace("gzip > vdm.xml.gz", "cat > vdm.xml")
    import_ = import_.replace("gzip -dc vdm.xml.gz", "cat vdm.xml")
    assert "gzip" not in export + import_
    wanted = ["rc=0", "rc=0"] if device.opens_streams_by_name() else ["rc=12", ""]
    device.shell(export)
    log = device.home / "corvik.log"
    assert log.read_text().splitlines()[1:] == [wanted[0]]
    device.shell(import_)
    assert log.read_text().splitlines()[1:] == wanted[1].splitlines()


def test_the_example_that_looks_at_status_and_log(device):
    assert device.shell("corvik -get RDP -f rdp.xml").returncode == 0
    lines = shell_lines("corvik.1")[-3:]
    assert "status=$?" in lines[0]
    result = device.shell("\n".join(lines))
    assert (result.stdout, result.returncode) == ("rc=0\n", 0)
    device.shell("rm rdp.xml")
    result = device.shell("\n".join(lines))
    assert "corvik: Invalid file name:rdp.xml" in result.stdout.splitlines()


def test_an_abort_has_the_documented_status_in_a_shell(device):
    assert device.shell("corvik -set RDP -f missing.xml; exit $?").returncode == ABORTED


def page_registry(tmp_path):
    sample = tmp_path / "ssh-registry.xml"
    sample.write_text(display_of("regsh.1", '<NodeDir name="root">'))
    return sample


def test_the_example_file_is_what_the_tool_writes(tmp_path, programs):
    device = Device(tmp_path / "device", programs).load(page_registry(tmp_path))
    assert device.shell("corvik -get SSH -f ssh.xml").returncode == 0
    shown = display_of("corvik-connections.5", "<SSH>")
    folded = "\n        path="
    assert shown.count(folded) == 1
    assert (device.home / "ssh.xml").read_text() == shown.replace(folded, " path=")


def test_the_example_file_is_edited_and_brought_back(tmp_path, programs):
    device = Device(tmp_path / "device", programs).load(page_registry(tmp_path))
    (device.home / "ssh.xml").write_text(display_of("corvik-connections.5", "<SSH>"))
    lines = shell_lines("corvik-connections.5")
    assert [shlex.split(line)[0] for line in lines] == ["sed", "corvik"]
    assert device.shell(" && ".join(lines)).returncode == 0
    value = device.run("regsh", "get", "root/ConnectionType/ssh/connections/shop-1/server").stdout
    assert value.split()[1:] == ["ts-2"]


def test_the_clients_examples_work(tmp_path, programs):
    page_registry(tmp_path)
    environment = {"HOME": str(tmp_path), "PATH": f"{programs}:{os.environ['PATH']}"}
    script = "set -e\n" + "\n".join(shell_lines("regsh.1"))
    result = run("sh", "-c", script, cwd=tmp_path, env=environment)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.splitlines()[:2] == ["dir root/ConnectionType/ssh/connections/shop-1",
                                              "+ root/system/"]
    assert result.stdout.endswith('  system/\n    model = "Till 4"\n')
    assert (tmp_path / "registry.db").exists()


def test_the_devices_examples_work(tmp_path, programs):
    (tmp_path / "samples").symlink_to(TREE / "samples")
    environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}"}
    export, shell, go_on = shell_lines("device.1")
    result = run("sh", "-c", export, cwd=tmp_path, env=environment)
    assert (result.returncode, result.stdout.splitlines()[0]) == (0, "<RDP>")
    assert run("sh", "-c", shell, cwd=tmp_path, env=environment).returncode == 0
    result = run("sh", "-c", go_on, cwd=tmp_path, env=environment)
    assert result.stdout == "root/background/desktop/theme freerdp\n"
