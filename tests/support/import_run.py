"""Imports as tests write them: documents in the tool's own layout, runs compared in full.

Everything that a run leaves behind is one `Left`. What a test does not name has the value of an
uneventful run, so a test tells only what its case is about.
"""

import os
import re
import shlex
from dataclasses import dataclass, field

from recorder_client import ANY

ENTITIES = (("&", "&amp;"), ("<", "&lt;"), (">", "&gt;"), ('"', "&quot;"), ("'", "&apos;"))

# Messages

WALK_OVER = "Could not find <NodeDir> - UUID. \n"
NO_PARAM = "Could not find NodeParam. \n"
NO_GENERAL = "Could not find <General> element.\n"
NO_REGISTRY = "Could not find <ProfileRegistry>. \n"
NO_TYPE = "Could not find <NodeDir> - type. \n"
NO_CONNECTIONS = "Could not find <NodeDir> - connections. \n"
EXPORT_UNPARSED = "Failed to parse the exported registry information.\n"
NO_POPEN = "popen() failure.\n"

# What a line is made of when no shell is needed to start its commands.
PLAIN = re.compile(r"[\w./:@%+=,-]+(?:[ ;][\w./:@%+=,-]+)*\n?", re.ASCII)

# Registry paths

DEFAULT = "root/ConnectionManager/defaultConnection"
THEME = "root/background/desktop/theme"


def type_path(registry_type):
    return f"root/ConnectionType/{registry_type}"


def connections_path(registry_type):
    return f"root/ConnectionType/{registry_type}/connections"


# Documents: elements that know how the tool prints them

def as_entities(text):
    for character, entity in ENTITIES:
        text = text.replace(character, entity)
    return text


@dataclass
class Element:
    name: str
    attributes: dict = field(default_factory=dict)
    children: list = field(default_factory=list)
    text: str = ""

    def printed(self, depth=0):
        blanks = "  " * depth
        start = blanks + "<" + self.name + "".join(
            f' {name}="{as_entities(value)}"' for name, value in self.attributes.items())
        if self.children:
            inner = "".join(child.printed(depth + 1) for child in self.children)
            return f"{start}>{self.text}\n{inner}{blanks}</{self.name}>\n"
        if self.text:
            return f"{start}>{as_entities(self.text)}</{self.name}>\n"
        return start + "/>\n"


def key(name, value=None):
    """A registry key; without value it has no NodeParam."""
    params = [] if value is None else [Element("NodeParam", {"type": "string"}, text=value)]
    return Element("NodeKey", {"name": name}, params)


def folder(name, *entries):
    return Element("NodeDir", {} if name is None else {"name": name}, list(entries))


def conn(identifier, label=None, *entries):
    """A connection's directory; without label it has no such key."""
    return folder(identifier, *([] if label is None else [key("label", label)]), *entries)


def settings_of(config="standard"):
    return Element("ProfileSettings",
                   children=[Element("Target", children=[Element("Config", text=config)])])


def registry_of(*type_entries):
    return Element("ProfileRegistry", children=[folder("type", *type_entries)])


def export(*connections, config="standard"):
    """A registry export of these connections, with a directory of settings on either side."""
    return Element("Profile", children=[
        registry_of(folder("before", key("depth", "24")), folder("connections", *connections),
                    folder("behind")),
        settings_of(config)])


def entry(name=None, enabled="yes", children=(), **attributes):
    """A Connection of a connections file; what is None is left out, children are name and text."""
    given = {"Name": name, "Enabled": enabled, **attributes}
    return Element("Connection", {each: text for each, text in given.items() if text is not None},
                   [Element(each, text=text) for each, text in children])


def printed(document):
    return document if isinstance(document, str) else document.printed()


def connections_file(general, *entries, root="RDP"):
    """A connections file; `general` is the export that it carries, as element or text, or None."""
    carried = [] if general is None else [Element("General", text=printed(general))]
    return Element(root, children=[*entries, *carried]).printed()


# Command lines

NAME_TABLE = [f"regsh contains {type_path(name)}"
              for name in ("freerdp", "xen", "iceweasel", "freerdp")]
GET_DEFAULT = f"regsh get {DEFAULT}"
GET_THEME = f"regsh get {THEME}"
RESET_DEFAULT = [f'regsh set {DEFAULT} ""', f"regsh set {THEME} default"]
READ_CONFIG = """cat /etc/systeminfo | grep PRODUCT_CONFIG | head -n1 | cut -d '"' -f 2"""


def looked_up(registry_type):
    return [*NAME_TABLE, f"regsh contains {type_path(registry_type)}"]


def removed(registry_type, *deletions):
    """The commands of a removal; deletions are whole command lines or identifiers."""
    path = connections_path(registry_type)
    lines = [each if each.startswith("regsh ") else f"regsh delete {path}/{each}\n"
             for each in deletions]
    return [f"regsh get {path}", GET_DEFAULT, *lines, f"regsh commit {path}", "regsh commit"]


def merged(registry_type, zero=False, done=True):
    """The commands of a merge; one that is not done leaves its temporary file behind."""
    file = f"/tmp/{registry_type}.xml"
    return [f"rm -f {file};regsh export {type_path(registry_type)} {file}",
            *([GET_DEFAULT] if zero else []), *([f"rm -f {file}"] if done else [])]


def imported(registry_type, *names, zero=False):
    """The import itself; names are the identifiers of which a zero client stops the autostart."""
    path = connections_path(registry_type)
    lines = ["regsh import /tmp/import.xml", f"regsh commit {path}"]
    if zero:
        lines += [f"regsh set {path}/{name}/autostart 0" for name in names] + ["regsh commit"]
    return lines


def refreshed(registry_type, **icons):
    """The refresh of the desktop icons; icons are identifiers and values."""
    path = connections_path(registry_type)
    lines = [f"regsh get {path}"]
    for name, value in icons.items():
        lines += [f"regsh get {path}/{name}/hasDesktopIcon",
                  f"regsh set {path}/{name}/hasDesktopIcon {value}", f"regsh commit {path}/{name}"]
    return lines


def defaulted(registry_type, identifier):
    """The choice of the default connection in the classic layout."""
    return [GET_DEFAULT, f"regsh set {DEFAULT}\t{identifier}", f"regsh set {THEME} {registry_type}",
            "regsh commit"]


def started(theme, identifier):
    """The step that makes the default connection start by itself."""
    return [GET_DEFAULT, GET_THEME,
            f"regsh set {connections_path(theme)}/{identifier}/autostart 1", "regsh commit"]


def classic(registry_type, *names, zero=False, remove=False):
    """All commands of a classic import that deletes, refreshes and starts nothing."""
    return [*looked_up(registry_type), *(removed(registry_type) if remove else []),
            *merged(registry_type, zero), *imported(registry_type, *names, zero=zero),
            *refreshed(registry_type), *([GET_DEFAULT] if zero else [])]


NEWER_TYPES = ("view", "freerdp", "xen")


def newer_removed(types=NEWER_TYPES):
    return [line for each in types for line in removed(each)]


def newer_defaulted(identifier):
    return [f"regsh set {DEFAULT}  {identifier}", f"regsh commit {DEFAULT}",
            "regsh create root/ConnectionType/.toBeRefreshed",
            "regsh delete root/ConnectionType/.toBeRefreshed", "regsh commit root/ConnectionType"]


def newer(registry_type, identifier):
    """All commands of an import in the newer layout that deletes nothing."""
    return [*looked_up(registry_type), *newer_removed(), *merged(registry_type),
            *imported(registry_type), *newer_defaulted(identifier)]


def words(command):
    """The registry client's arguments in a command line, as a shell cuts it."""
    return shlex.split(command.rpartition(";regsh")[2] if ";regsh" in command
                       else command.removeprefix("regsh"))


def calls_of(commands):
    return [["regsh", *words(line)] for line in commands if "regsh" in line]


def spoken(command):
    """A command line with the call that starts it: one for what is read, one for what is done.

    The line end of a listed path ends the command and reaches nobody."""
    command = command.removesuffix("\n")
    return ("popen" if command.startswith(("regsh get", "cat ")) else "system", command)


def single_commands(line):
    """The commands of a line; where a shell has more to do than to start them, the line itself."""
    return line.split(";") if PLAIN.fullmatch(line) else [line]


# Runs

def log_of(result=0, typed="RDP", file="in.xml", remove=False):
    """The run log; with None as result that of a run that ended abnormally."""
    header = f"{typed} {file} [******] [******] {int(remove)}\r\n"
    return header + ("" if result is None else f"rc={result}\n")


@dataclass
class Left:
    """What a run left behind. `calls` are checked against `commands` unless they are given."""

    commands: list = field(default_factory=list)
    stderr: str = ""
    status: int = 0
    document: str | None = None  # /tmp/import.xml
    typed: str = "RDP"
    remove: bool = False
    stdout: str = ""
    calls: list | None = None
    log: str | None = None
    imports: list | None = None  # the documents as the client saw them
    tmp: list | None = None
    home: list = field(default_factory=lambda: ["corvik.log", "in.xml"])
    sessions: dict = field(default_factory=dict)

    def __post_init__(self):
        if self.calls is None:
            self.calls = calls_of(self.commands)
        if self.log is None:
            self.log = log_of(self.status, self.typed, remove=self.remove)
        if self.document is not None:
            self.document = printed(self.document)
        if self.imports is None:
            self.imports = [] if self.document is None else [self.document]
        if self.tmp is None:
            self.tmp = [] if self.document is None else ["import.xml"]
        self.commands = [spoken(each) for line in self.commands for each in single_commands(line)]


NOTHING_TO_MERGE = export(conn(None, "Nameless"))
"""An export that a merge goes through in silence: nothing in it has a name."""


class ImportCase:
    """One device with a scripted client, ready for imports; it exports NOTHING_TO_MERGE."""

    def __init__(self, device, programs):
        self.device = device
        self.programs = programs
        self.recorder = device.recorder()
        self.holds(NOTHING_TO_MERGE)
        self.config_reads = 0

    # What the registry answers

    def holds(self, document):
        """The registry's own export, of any type."""
        self.recorder.on("export", ANY, ANY, writes=printed(document))
        return self

    def lists(self, registry_type, *lines, **options):
        """The lines of the listing of a type; identifiers stand for lines of two words."""
        path = connections_path(registry_type)
        text = "".join(each if " " in each or "\t" in each or "\n" in each
                       else f"dir {path}/{each}\n" for each in lines)
        self.recorder.on("get", path, stdout=text, **options)
        return self

    def value(self, path, value, **options):
        self.recorder.on("get", path, stdout=f"{path} {value}\n", **options)
        return self

    # Runs

    def environment(self, **settings):
        """Environment that lets one program note its command lines."""
        # The sanitizers' own library would otherwise insist on standing first.
        sanitizer = [*filter(None, [os.environ.get("ASAN_OPTIONS")]), "verify_asan_link_order=0"]
        return {"LD_PRELOAD": str(self.programs / "libcommand_log.so"),
                "COMMAND_LOG": str(self.log_file), "ASAN_OPTIONS": ":".join(sanitizer), **settings}

    @property
    def log_file(self):
        return self.device.folder / "client/commands"

    def set(self, file, typed="RDP", remove=False, arguments=None, refused=None, before="",
            **options):
        """Imports this content (None: leave in.xml as it is) and tells what that left behind.

        refused: a command line that cannot be started; before: shell commands to run on the device
        just before.
        """
        path = self.device.home / "in.xml"
        if file is not None:
            path.write_bytes(os.fsencode(file))
        self.recorder.clear()
        self.log_file.unlink(missing_ok=True)
        settings = {} if refused is None else {"COMMAND_REFUSED": refused}
        arguments = arguments or ["-set", typed, "-f", "in.xml", *(["-r"] if remove else [])]
        environment = self.environment(**settings)
        command = ["corvik", *arguments]
        if before:
            # The shell comes by the library first, which then takes the settings for itself.
            again = [f"{name}={value}" for name, value in environment.items()]
            command = ["sh", "-c", before + '\nexec env "$@"', "sh", *again, *command]
        result = self.device.run(*command, env=environment, **options)
        if file is not None:
            assert path.read_bytes() == os.fsencode(file)
        return self.left(result, typed, remove)

    def left(self, result, typed, remove):
        document = self.device.tmp / "import.xml"
        decode = os.fsdecode
        left = Left(
            status=result.status, stdout=decode(result.stdout_bytes),
            stderr=decode(result.stderr_bytes), log=decode(result.log), typed=typed, remove=remove,
            calls=self.recorder.calls,
            imports=[each and decode(each) for each in self.recorder.imports],
            document=decode(document.read_bytes()) if document.is_file() else None,
            tmp=self.device.tmp_leftovers(), home=sorted(os.listdir(self.device.home)),
            sessions={decode(os.fsencode(path.relative_to(self.device.sessions))):
                      decode(path.read_bytes())
                      for path in self.device.sessions.rglob("*") if path.is_file()})
        left.commands = self.commands()
        return left

    def commands(self):
        """The command lines of the last run; how often the configuration is asked for is open."""
        texts = self.log_file.read_bytes().split(b"\0")[:-1] if self.log_file.exists() else []
        texts = [os.fsdecode(each) for each in texts]
        lines = [(call, line.removesuffix("\n")) for call, line in zip(texts[::2], texts[1::2])]
        self.config_reads = lines.count(spoken(READ_CONFIG))
        return [each for each in lines if each != spoken(READ_CONFIG)]
