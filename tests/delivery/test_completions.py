"""The completions of the command line, each in its own shell.

bash and zsh sit on a terminal of their own: the line is typed, the key that inserts every match is
pressed, and a stand-in for the tool notes the words it gets. fish is asked with "complete -C".
"""

import os
import pty
import re
import select
import shutil
import subprocess
import time
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parent.parent.parent
IDENTITY_FILES = ("/etc/systeminfo", "/etc/imageid")
LIMIT_SECONDS = 30
CURSOR, BACK, ALL_MATCHES = b"|", b"\x02", b"\033*"

MODES = ["-get", "-set", "-v", "-h"]
NAMES_OF_1 = ["Custom", "ICA", "Firefox", "Leostream", "PNAgent", "Provision", "RDP", "SSH",
              "Tavrin", "Telnet", "VDM", "Xdmcp"]
NAMES_OF_6 = ["VDM", "RDP", "ICA"]
ALL_NAMES = NAMES_OF_1 + ["RGS", "BNJ", "VWorkspace"]


# The built files

def program_folder():
    return Path(os.environ["CORVIK_BIN_DIR"]).resolve()


def device_command(*options):
    """The simulated device, made in the way that CORVIK_DEVICE_WAY asks for, if it does."""
    way = os.environ.get("CORVIK_DEVICE_WAY")
    return [program_folder() / "device", *(["--way", way] if way else []), *options]


def built(name):
    path = program_folder().parent / "packaging/completions" / name
    assert path.is_file(), f"{path} has not been built"
    return path


def table_of_the_tool():
    """Names by image type, as the program that reads the tool's table prints them."""
    listed = subprocess.run([built("completion_types")], capture_output=True, text=True, check=True)
    rows = re.findall(r"^ *(\d+|\*)\) set --(.*) ;;$", listed.stdout, re.MULTILINE)
    assert len(rows) == len(listed.stdout.splitlines())
    return {key: names.split() for key, names in rows}


def moved(name, folder, etc):
    """A copy of a built file that reads the identity below another folder."""
    text = built(name).read_text()
    for path in IDENTITY_FILES:
        assert path in text
        text = text.replace(path, f"{etc}/{Path(path).name}")
    copy = folder / name
    copy.write_text(text)
    return copy


# The shells

class Terminal:
    """A shell on a terminal, led line by line."""

    PROMPT = b"ready>"

    def __init__(self, command, environment, folder):
        self._master, slave = pty.openpty()
        self._shell = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave,
                                       env=environment, cwd=folder, start_new_session=True)
        os.close(slave)
        self._shown = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._shell.kill()
        self._shell.wait()
        os.close(self._master)

    def wait_for_prompt(self):
        end = time.monotonic() + LIMIT_SECONDS
        while not self._shown.endswith(self.PROMPT):
            ready, _, _ = select.select([self._master], [], [], max(0, end - time.monotonic()))
            assert ready, f"the shell does not answer: {self._shown!r}"
            self._shown += os.read(self._master, 4096)

    def type(self, keys):
        self._shown = b""
        os.write(self._master, keys)


class Shell:
    """One kind of shell, with a completion file and a folder to work in."""

    def __init__(self, folder, etc="/etc"):
        self.folder = folder / "work"
        self.folder.mkdir(exist_ok=True)
        self._own = folder / "shell"
        self._own.mkdir(exist_ok=True)
        self.file = moved(self.name, self._own, etc)
        self._ahead = []

    def on_device(self, *options):
        """From now on the shell runs on a simulated device."""
        self._ahead = device_command(*options, "--")
        return self

    def environment(self):
        # Settings of the caller's own shells stay out.
        return {"PATH": os.environ["PATH"], "HOME": str(self._own), "TERM": "dumb",
                "LC_ALL": "C.UTF-8", "XDG_DATA_DIRS": str(self._own / "share"),
                "ANSWERS": str(self._own / "answers")}

    def run(self, script):
        done = subprocess.run([*self._ahead, *self.script_command, script], capture_output=True,
                              text=True, env=self.environment(), cwd=self.folder,
                              timeout=LIMIT_SECONDS)
        assert (done.returncode, done.stderr) == (0, "")
        return done.stdout.splitlines()

    def offered(self, line):
        return self.offered_for([line])[0]


class TypedShell(Shell):
    """A shell that is typed into."""

    STAND_IN = 'corvik() { printf "%s\\n" $# "$@" >> "$ANSWERS"; }\n'

    def offered_for(self, lines):
        answers = self._own / "answers"
        answers.write_text("")
        self.prepare()
        with Terminal([*self._ahead, *self.terminal_command()], self.environment(),
                      self.folder) as terminal:
            for line in lines:
                terminal.wait_for_prompt()
                before, _, behind = line.encode().partition(CURSOR)
                terminal.type(before + behind + BACK * len(behind) + ALL_MATCHES + b"\n")
            terminal.wait_for_prompt()
        noted = answers.read_text().splitlines()
        return [self._take(noted, line) for line in lines]

    @staticmethod
    def _take(noted, line):
        count = int(noted.pop(0))
        words = [noted.pop(0) for _ in range(count)]
        before, _, behind = line.partition(CURSOR.decode())
        typed, behind = before.split()[1:], behind.split()
        kept = typed if before.endswith(" ") else typed[:-1]
        end = len(words) - len(behind)
        assert (words[:len(kept)], words[end:]) == (kept, behind)
        offered = words[len(kept):end]
        # Without a match the word stays as it was typed.
        return [] if offered == typed[len(kept):] else offered


class Bash(TypedShell):
    name = "corvik.bash"
    script_command = ["bash", "--norc", "-c"]
    begin = ""

    def terminal_command(self):
        return ["bash", "--noprofile", "--rcfile", self._own / "settings", "-i"]

    def prepare(self):
        (self._own / "inputrc").write_text("set enable-bracketed-paste off\nset bell-style none\n")
        (self._own / "settings").write_text(
            f"{self.begin or f'source {self.file}'}\n{self.STAND_IN}PS1='ready>'\n")

    def environment(self):
        return super().environment() | {"INPUTRC": str(self._own / "inputrc")}


class LoadedBash(Bash):
    """bash with the package bash-completion, which finds and loads the file at the first key."""

    begin = "source /usr/share/bash-completion/bash_completion"

    def prepare(self):
        super().prepare()
        place = self._own / "share/bash-completion/completions"
        place.mkdir(parents=True, exist_ok=True)
        (place / "corvik").write_text(self.file.read_text())


class Zsh(TypedShell):
    name = "_corvik"
    script_command = ["zsh", "-f", "-c"]
    SETTINGS = """
        fpath=({folder} $fpath)
        autoload -Uz compinit && compinit -D -u
        zle -C all-matches complete-word _generic
        bindkey '\\e*' all-matches
        zstyle ':completion:all-matches::::' completer _all_matches _complete
        zstyle ':completion:all-matches:*' insert true
        unset zle_bracketed_paste
        unsetopt beep prompt_cr prompt_sp
        PS1='ready>'
    """

    def terminal_command(self):
        return ["zsh", "-d", "-i"]

    def prepare(self):
        (self._own / ".zshrc").write_text(
            self.SETTINGS.format(folder=self.file.parent) + self.STAND_IN)

    def environment(self):
        return super().environment() | {"ZDOTDIR": str(self._own)}


class Fish(Shell):
    name = "corvik.fish"
    script_command = ["fish", "--no-config", "-c"]

    def offered_for(self, lines):
        script = f"source {self.file}\n" + "".join(
            f"echo '=='; complete -C '{line}'\n" for line in lines)
        parts = "\n".join(self.run(script)).split("==")[1:]
        return [[row.split("\t")[0] for row in part.split("\n") if row] for part in parts]


SHELLS = [Bash, LoadedBash, Zsh, Fish]
each_shell = pytest.mark.parametrize("shell", SHELLS, ids=lambda shell: shell.__name__)


# Identities

DEVICES = {
    **{str(number): ["--image-type", str(number)] for number in range(1, 11)},
    "5 by identifier": ["--image-type", "5", "--identity", "imageid"],
    "6 zero": ["--image-type", "6", "--zero"],
    "7 by identifier": ["--image-type", "7", "--identity", "imageid"],
    "10 zero": ["--image-type", "10", "--zero"],
    "*": ["--image-type", "none"],
}


def make_etc(folder, *options):
    """The /etc of a simulated device, as it lies on this machine."""
    subprocess.run(device_command("--keep", folder, *options, "--", "true"), check=True)
    return folder / "etc"


def empty_etc(folder):
    etc = folder / "etc"
    etc.mkdir()
    return etc


@pytest.mark.parametrize("key, names", [("1", NAMES_OF_1), ("6", NAMES_OF_6), ("2", []),
                                        ("*", ALL_NAMES)])
def test_names_come_from_the_table(key, names):
    assert table_of_the_tool()[key] == names


@each_shell
@pytest.mark.parametrize("device", DEVICES)
def test_types_are_those_of_the_image_type(tmp_path, shell, device):
    etc = make_etc(tmp_path / "device", *DEVICES[device])
    found = shell(tmp_path, etc).offered_for(["corvik -get ", "corvik -SET "])
    names = sorted(table_of_the_tool()[device.split()[0]])
    assert [sorted(each) for each in found] == [names, names]


@each_shell
@pytest.mark.parametrize("number, names", [(1, NAMES_OF_1), (6, NAMES_OF_6)])
def test_types_of_two_image_types_in_full(tmp_path, shell, number, names):
    etc = make_etc(tmp_path / "device", *DEVICES[str(number)])
    assert sorted(shell(tmp_path, etc).offered("corvik -get ")) == sorted(names)


def shells_of_devices():
    """A device without mounts has the programs asked for, but not what else shells load."""
    way = subprocess.run(device_command("--describe"), capture_output=True, text=True,
                         check=True).stdout.splitlines()[0]
    return [Bash] if way == "way: chroot" else [Bash, Zsh, Fish]


@pytest.mark.parametrize("device, names", [("1", NAMES_OF_1), ("6 zero", NAMES_OF_6),
                                           ("*", ALL_NAMES)])
def test_the_device_itself_is_asked(tmp_path, device, names):
    # Every device shows its home.
    home = make_etc(tmp_path / "device").parent / "home"
    for shell in shells_of_devices():
        on_device = shell(home).on_device("--keep", tmp_path / "device", *DEVICES[device])
        assert sorted(on_device.offered("corvik -get ")) == sorted(names)


# The image type beside the tool's own answer

def literals_of_the_identities():
    """Codes and bounds of build numbers in the tool's source: a new one is tested by itself."""
    text = (SOURCE / "platform/image_id.cpp").read_text()
    highest = re.search(r"kHighest = (\d+);", text)[1]
    rows = re.findall(r'\{"(\w{2,3})", (\d+), (\d+), \d+\}', text.replace("kHighest", highest))
    assert len(rows) >= 18
    codes = {row[0] for row in rows}
    bounds = {int(bound) for row in rows for bound in row[1:]}
    return sorted(codes), sorted(bounds)


ODD_IDENTIFIERS = [
    "DXST00x5", "DXSTx005", "DXST5\n12", "TXX4101\n", "TXX410xx", "TXX410 1", "aXX41001",
    "DXST0020 and more", "DXST0008", "DXST0018\n", "DXST\u00e9a5", "Z\u00e9\u00e9\u00e9\u00e9",
    "DXST +20", "DXST+ 20", "DXST++20", "DXST\t\n21", "DXST -20", "DXST    ", "........",
    "--------", "[DM]....", "$HOME$(id)", "T*X41012", "dXST0005", "ZXST0005"]


def identifiers():
    codes, bounds = literals_of_the_identities()
    numbers = {bound + step for bound in bounds for step in (-1, 0, 1)}
    texts = [*ODD_IDENTIFIERS]
    for code in [*codes, "XX", "999"]:
        width = 4 if len(code) == 2 else 2
        wanted = [f"{number:0{width}}" for number in sorted(numbers) if 0 <= number < 10 ** width]
        for prefix in "DMTZA":
            fits = (prefix in "DM") == (width == 4)
            texts += [prefix + "XX"[:len(code) - 1] + code + number
                      for number in (wanted if fits else wanted[:1])]
    return texts


def systeminfo(*lines):
    return "".join(f"{line}\n" for line in lines)


NAME, STANDARD, ZERO = 'PRODUCT_NAME="Sylvex"', 'PRODUCT_CONFIG="standard"', 'PRODUCT_CONFIG="zero"'
SYSTEMINFOS = [
    *[systeminfo(NAME, configuration, f'PRODUCT_VERSION="{version}.1"')
      for configuration in (STANDARD, ZERO, 'PRODUCT_CONFIG="Zero"', 'PRODUCT_CONFIG=""', "", "X=1",
                            'PRODUCT_CONFIG="other"', 'PRODUCT_CONFIG="STANDARD"')
      for version in "2345678"],
    systeminfo(NAME, STANDARD, 'PRODUCT_VERSION=""'),
    systeminfo(NAME, STANDARD, "PRODUCT_VERSION="),
    systeminfo(NAME, ZERO),
    systeminfo("PRODUCT_NAME=Sylvex", STANDARD, 'PRODUCT_VERSION="4"'),
    systeminfo("PRODUCT_NAME='sylveX'", STANDARD, "PRODUCT_VERSION='4'"),
    systeminfo('PRODUCT_NAME="Other"', STANDARD, 'PRODUCT_VERSION="4"'),
    systeminfo('export PRODUCT_NAME="Sylvex"', STANDARD, 'PRODUCT_VERSION="4"'),
    systeminfo(' PRODUCT_NAME="Sylvex', STANDARD, 'PRODUCT_VERSION="4"'),
    systeminfo(NAME, 'export PRODUCT_CONFIG="standard"', 'PRODUCT_VERSION="4"'),
    systeminfo(NAME, "  PRODUCT_CONFIG=", 'PRODUCT_VERSION="4"'),
    systeminfo(NAME, 'PRODUCT_CONFIG="', 'PRODUCT_VERSION="4"'),
    systeminfo(NAME, STANDARD, 'export PRODUCT_VERSION="4"'),
    systeminfo(NAME, STANDARD, 'PRODUCT_VERSION="4"', ZERO, 'PRODUCT_VERSION="5"'),
    systeminfo(NAME, 'PRODUCT_CONFIG="PRODUCT_NAME=Sylvex"', 'PRODUCT_VERSION="4"'),
    systeminfo(NAME + "\r", STANDARD + "\r", 'PRODUCT_VERSION="4"\r'),
    systeminfo("\\" + NAME, STANDARD, 'PRODUCT_VERSION="\\4"'),
    systeminfo(NAME, STANDARD, 'PRODUCT_VERSION="4"')[:-1],
    systeminfo(STANDARD, 'PRODUCT_VERSION="4"', NAME)[:-1],
    systeminfo(STANDARD, 'PRODUCT_VERSION="4"', NAME + "x")[:-1],
    systeminfo(NAME, 'PRODUCT_VERSION="4"', STANDARD)[:-1],
    "",
]
# Counts as no identity in systeminfo, so that the identifier shows.
FALLBACK = "DXQU0005"


def lay_out_identities(folder):
    """Writes one folder for each case; returns what its files hold."""
    cases = [(None, text) for text in identifiers()] + [(text, FALLBACK) for text in SYSTEMINFOS]
    for index, (systeminfo_text, imageid) in enumerate(cases):
        etc = folder / f"{index:04}"
        etc.mkdir(parents=True)
        (etc / "imageid").write_text(imageid)
        if systeminfo_text is not None:
            (etc / "systeminfo").write_bytes(systeminfo_text.encode())
    return cases


@pytest.fixture(scope="module")
def identities(tmp_path_factory):
    """The cases, the folder of their files, and the image types that the tool makes of them."""
    folder = tmp_path_factory.mktemp("identities") / "device"
    make_etc(folder)
    files = folder / "home/files"
    cases = lay_out_identities(files)
    shutil.copy(program_folder() / "os_probe", folder / "home")
    script = """
        for etc in "$1"/*; do
            rm -f /etc/systeminfo
            cp "$etc"/* /etc
            ./os_probe variant | sed -n 2p
        done
    """
    probed = subprocess.run(
        device_command("--keep", folder, "--", "sh", "-c", script, "sh", files),
        capture_output=True, text=True, check=True, cwd=folder / "home")
    types = probed.stdout.splitlines()
    assert len(types) == len(cases) and {str(n) for n in range(1, 11)} <= set(types)
    return cases, files, types


# How each shell prints the image type, with the rest of its completion left alone.
TYPE_SCRIPTS = {
    "bash": (Bash, "source {file}\n{each}", "_corvik_image_type"),
    "zsh": (Zsh, "compdef() {{ }}; source {file} 2>/dev/null\n{each}",
            "emulate sh; _corvik_image_type"),
    "fish": (Fish, "sh -c '{part}\n{each}'", "_corvik_image_type"),
}
# With a minus sign the completion does not tell.
UNSURE = {"--------", "DXST -20"}


@pytest.mark.parametrize("name", TYPE_SCRIPTS)
def test_image_type_is_the_tools(tmp_path, identities, name):
    shell_class, script, command = TYPE_SCRIPTS[name]
    cases, files, types = identities
    shell = shell_class(tmp_path, "$etc")
    each = f"""for etc in {files}/*; do echo "$({command})"; done"""
    part = ""
    if shell_class is Fish:
        text = shell.file.read_text()
        part = text[text.index("sh -c '") + 7:text.index("\n_corvik_connection_types'")]
    found = shell.run(script.format(file=shell.file, each=each, part=part))
    wanted = ["" if imageid in UNSURE else image_type
              for (_, imageid), image_type in zip(cases, types)]
    assert list(zip(cases, found)) == list(zip(cases, wanted))


@each_shell
@pytest.mark.parametrize("name, content", [("imageid", "DXST005"), ("imageid", "\n"),
                                           ("systeminfo", systeminfo(NAME, STANDARD))])
def test_every_name_where_the_identity_is_incomplete(tmp_path, shell, name, content):
    etc = empty_etc(tmp_path)
    (etc / name).write_text(content)
    assert sorted(shell(tmp_path, etc).offered("corvik -get ")) == sorted(ALL_NAMES)


# What may stand where

LINES = {
    "corvik ": MODES,
    "corvik -": MODES,
    "corvik -g": ["-get"],
    "corvik -S": ["-set"],
    "corvik g": [],
    "corvik -get V": ["VDM", "VWorkspace"],
    "corvik -get r": ["RDP", "RGS"],
    "corvik -GET ta": ["Tavrin"],
    "corvik -get -": [],
    "corvik -get x": ["Xdmcp"],
    "corvik -get y": [],
    "corvik -get RDP ": ["-f", "-u", "-p"],
    "corvik -get RDP -": ["-f", "-u", "-p"],
    "corvik -get RDP -F": ["-f"],
    "corvik -get RDP -r": [],
    "corvik -set RDP ": ["-f", "-u", "-p", "-r"],
    "corvik -Set RDP -R": ["-r"],
    "corvik -set RDP x": [],
    "corvik -set -f ": ["-f", "-u", "-p", "-r"],
    "corvik -set RDP -f a.xml ": ["-u", "-p", "-r"],
    "corvik -set RDP -r ": ["-f", "-u", "-p"],
    "corvik -set RDP -R -F a.xml ": ["-u", "-p"],
    "corvik -set RDP word ": ["-f", "-u", "-p", "-r"],
    "corvik -set RDP -f -r ": ["-u", "-p"],
    "corvik -set RDP -f a.xml -u me -p word -r ": [],
    "corvik -get RDP -f a.xml -u me -p word ": [],
    "corvik -get RDP -u ": [],
    "corvik -get RDP -p ": [],
    "corvik -get RDP -f -u ": [],
    "corvik -get RDP -x ": [],
    "corvik -get RDP -fa.xml ": [],
    "corvik -get RDP -f -x ": [],
    "corvik -v ": [],
    "corvik -h ": [],
    "corvik -V -": [],
    "corvik get ": [],
    "corvik --help ": [],
    "corvik RDP ": [],
}
# fish looks inside the words, too.
LINES_OF_FISH = {"corvik g": ["-get"]}


@each_shell
def test_only_what_can_still_be_given(tmp_path, shell):
    wanted = LINES | LINES_OF_FISH if shell is Fish else LINES
    found = shell(tmp_path, empty_etc(tmp_path)).offered_for(wanted)
    assert {line: sorted(words) for line, words in zip(wanted, found)} == {
        line: sorted(words) for line, words in wanted.items()}


@pytest.mark.parametrize("shell", [Bash, LoadedBash, Zsh], ids=lambda shell: shell.__name__)
def test_words_behind_the_cursor_count(tmp_path, shell):
    lines = {"corvik -set RDP | -f a.xml": ["-p", "-r", "-u"],
             "corvik -set RDP -| -R -p x": ["-f", "-u"],
             "corvik -get RDP | -x": [],
             "corvik -get | -f a.xml": sorted(ALL_NAMES)}
    # zsh takes the blank behind what it inserts.
    typed = [line.replace("|", "| ") if shell is Zsh else line for line in lines]
    found = shell(tmp_path, empty_etc(tmp_path)).offered_for(typed)
    assert dict(zip(lines, map(sorted, found))) == lines


# Files

@each_shell
@pytest.mark.parametrize("line, files", {
    "corvik -get RDP -f ": ["folder/", "rdp one.xml", "rdp.xml", "x$y.xml"],
    "corvik -set RDP -r -F r": ["rdp one.xml", "rdp.xml"],
    "corvik -set RDP -f folder/": ["folder/in:side.xml"],
    "corvik -get RDP -f -": [],
    "corvik -get RDP -f q": [],
}.items(), ids=lambda value: value if isinstance(value, str) else "")
def test_files_stand_behind_their_option(tmp_path, shell, line, files):
    shell = shell(tmp_path, empty_etc(tmp_path))
    for name in ("rdp.xml", "rdp one.xml", "x$y.xml", "-r.xml", "folder/in:side.xml"):
        (shell.folder / name).parent.mkdir(exist_ok=True)
        (shell.folder / name).write_text("")
    found = sorted(name.replace("\\", "") for name in shell.offered(line))
    assert [name.rstrip("/") for name in found] == [name.rstrip("/") for name in files]


@each_shell
def test_words_with_a_colon_do_not_shift_the_places(tmp_path, shell):
    lines = ["corvik -set RDP -f a:b.xml ", "corvik -set RDP -p a=b -"]
    assert [sorted(found) for found in shell(tmp_path, empty_etc(tmp_path)).offered_for(lines)] == [
        ["-p", "-r", "-u"], ["-f", "-r", "-u"]]


# The files as scripts

@pytest.mark.parametrize("command", [["shellcheck", "--shell=bash", "corvik.bash"],
                                     ["bash", "-n", "corvik.bash"], ["zsh", "-n", "_corvik"],
                                     ["fish", "--no-config", "-n", "corvik.fish"]], ids=" ".join)
def test_scripts_are_sound(command):
    checked = subprocess.run([*command[:-1], built(command[-1])], capture_output=True, text=True)
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")


@pytest.mark.parametrize("name", ["corvik.bash", "_corvik", "corvik.fish"])
def test_nothing_is_left_to_fill_in(name):
    assert re.findall(r"@\w*@", built(name).read_text()) == []
