"""What the tests of odd file systems share: a device with sessions, odd things, small disks.

The device has two sessions of the terminal emulator in its registry, of which the connections file
of an import knows the first. So an export opens every file that an export can open, and an import
every file that an import can open. What a run ought to leave is told by an undisturbed one.
"""

import os
import stat
from dataclasses import dataclass

from import_run import conn, connections_file, entry, export, folder, key

WALK_OVER = "Could not find <NodeDir> - UUID. \n"
NO_LOG = "Failed to open corvik logger file.\n"
NO_IDENTITY = "corvik: Invalid Image ID (neither /etc/systeminfo nor /etc/imageid gives one)\n"
UNPARSED = "Parse xml failed.\n"
NOT_IMPORTED = "Could not write /tmp/import.xml, errno=.\n"
BEFORE = b"what was there before\n"
IMAGE_ID = b"TXX41012"

TYPE = "root/ConnectionType/tavrin"
SESSION = "<Session><Host port='23'/></Session>"
WORKSPACE = "<Workspace>full screen</Workspace>"
NEW_SESSION = "<Session><Host port='992'/></Session>"
NEW_WORKSPACE = "<Workspace>window</Workspace>"
LOG = {mode: f"tavrin {file} [******] [******] 0\r\n".encode()
       for mode, file in (("get", "out.xml"), ("set", "in.xml"))}

FOLDER_KINDS = ("folder", "link-to-a-folder")
NO_FILE = ("socket", "link-to-itself", "link-to-a-missing-folder")
"""What can be opened neither for reading nor for writing, and is no folder."""


def unread(name):
    return f"read file /etc/tavrin/connections/{name} fail\n"


def unwritten(name):
    return f"Write file /etc/tavrin/connections/{name} fail.\n"


def lay(oddity, path):
    """Puts something odd in the place of a file."""
    path.unlink(missing_ok=True)
    if oddity == "folder":
        path.mkdir()
    elif oddity == "socket":
        os.mknod(path, stat.S_IFSOCK | 0o600)
    elif oddity == "empty-file":
        path.write_bytes(b"")
    else:
        path.symlink_to({"link-to-a-folder": "/etc", "link-to-itself": path.name,
                         "link-to-a-missing-folder": "missing/file",
                         "dangling-link": "nothing"}[oddity])


def content(path):
    """The bytes of a file, also behind links; None where there is no file."""
    return path.read_bytes() if path.is_file() else None


def registry(*connections):
    """A registry sample with these connections of the terminal emulator."""
    return folder("root", folder("ConnectionType", folder(
        "tavrin", key("packageName", "tavrin"), folder("connections", *connections)))).printed()


def session(identifier, label, file, *keys):
    return conn(identifier, label, key("kssName", file + ".kss"), *keys)


FIRST = session("id-1", "Office", "a", key("server", "old"))
SECOND = session("id-2", "Night", "b", key("server", "night"))


def placed(*connections):
    """An export that tells the client where it belongs."""
    document = export(*connections)
    place = document.children[0].children[0]
    place.attributes = {"name": "tavrin", "path": TYPE}
    place.children = [folder("connections", *connections)]
    return document


def import_file(text=NEW_SESSION, *keys):
    """A connections file of the first session, with another server and other session files."""
    return connections_file(
        placed(session("id-1", "Office", "a", key("server", "new"), *keys)),
        entry("Office", KSSFile="a", children=[("KSS", text), ("WS", NEW_WORKSPACE)]),
        root="Tavrin")


@dataclass
class Run:
    """How a run ended, and what it left behind."""

    status: int
    stderr: str
    log: bytes | None
    target: bytes | None
    document: bytes | None  # /tmp/import.xml
    tree: str  # of the registry
    sessions: dict


class Terminal:
    """A device with terminal sessions; runs start in its folder `work`."""

    def __init__(self, device, *connections):
        self.device = device
        self.work = device.home / "work"
        self.work.mkdir()
        device.load_registry(registry(*(connections or (FIRST, SECOND))))
        for name, text in (("a.kss", SESSION), ("a.ws", WORKSPACE), ("b.kss", SESSION),
                           ("b.ws", WORKSPACE)):
            (device.sessions / name).write_text(text)
        (self.work / "out.xml").write_bytes(BEFORE)
        (self.work / "in.xml").write_text(import_file())

    def place(self, name):
        """The place of a file, which a row names by its folder."""
        top, _, rest = name.partition("/")
        return {"work": self.work, "tmp": self.device.tmp, "etc": self.device.etc,
                "sessions": self.device.sessions}[top] / rest

    def named_by_imageid(self):
        """Lets /etc/imageid name the build."""
        (self.device.etc / "systeminfo").unlink()
        (self.device.etc / "imageid").write_bytes(IMAGE_ID)

    def shell(self, script, **options):
        return self.device.run("sh", "-c", f"cd work || exit 99\n{script}", image_type=None,
                               **options)

    def corvik(self, mode, before="", limit="", **options):
        """An export into out.xml, or an import of in.xml.

        Shell commands may go before; a limit of time is told by status 124.
        """
        file = {"get": "out.xml", "set": "in.xml"}[mode]
        timeout = f"timeout {limit}" if limit else ""
        result = self.shell(f"{before}\nexec {timeout} corvik -{mode} tavrin -f {file}", **options)
        return self.left(result)

    def left(self, result):
        tree = self.device.regsh("tree", TYPE, image_type=None)
        assert tree.status == 0, tree.stderr
        sessions = {path.name: content(path) for path in self.device.sessions.iterdir()
                    if path.name in ("a.kss", "a.ws", "b.kss", "b.ws")}
        return Run(result.status, result.stderr, content(self.work / "corvik.log"),
                   content(self.work / "out.xml"), content(self.device.tmp / "import.xml"),
                   tree.stdout, sessions)


def is_a_part(part, whole):
    """Whether this is a beginning of the whole, or nothing, and not all of it."""
    return part is None or (len(part) < len(whole) and whole.startswith(part))


def client_script(device, text):
    """A program that takes the client's place on the device; REGSH in its text is the real one."""
    script = device.folder / "odd-client"
    script.write_text("#!/bin/sh\n" + text.replace("REGSH", str(device.programs / "regsh")))
    script.chmod(0o755)
    return script


def limited_client(device):
    """The kit's client, for which only the limit CLIENT_LIMIT counts, and only at an export."""
    return client_script(device, """
ulimit -S -f unlimited
if [ "$1" = export ] && [ "$CLIENT_LIMIT" ]; then
    trap '' XFSZ
    ulimit -S -f "$CLIENT_LIMIT"
fi
exec REGSH "$@"
""")


# Small disks

PROBE = """mkdir -p probed && mount -t tmpfs -o size=4k tmpfs probed && umount probed &&
mount -t tmpfs -o size=64k tmpfs /tmp && corvik -v && command -v regsh && cd "$HOME" """


class Disk:
    """Folders with little room or none, as this machine can make them for a device.

    Where file systems can be mounted on the device, they are; elsewhere a limit on the size of
    files has the tool and its client meet the same, and a link to nowhere is what a folder without
    room for a file is. All answers are shell commands.
    """

    def __init__(self, device):
        self.mounts = device.run("sh", "-c", PROBE, image_type=None).status == 0

    def small(self, folder, kib, command, writers=("tool", "client")):
        """Runs a command while the folder has room for so much; these write there."""
        if self.mounts:
            return f"mount -t tmpfs -o size={kib}k tmpfs {folder}\n({command})"
        limits = {"tool": f"trap '' XFSZ; ulimit -S -f {2 * kib}; ",
                  "client": f"export CLIENT_LIMIT={2 * kib}; "}
        return f"({''.join(limits[each] for each in writers)}{command})"

    def gone(self, folder, *files):
        """Takes a small disk away again, with the files that were made."""
        return f"umount {folder}" if self.mounts else f"rm -f {' '.join(files)}"

    def full(self, folder, kind, command):
        """Runs a command while no file can be made in the folder."""
        if self.mounts:
            option = {"read-only": "ro", "without-inodes": "size=64k,nr_inodes=1"}[kind]
            return f"mount -t tmpfs -o {option} tmpfs {folder}\n({command})"
        if folder == "/tmp":
            return f"mkdir -p /tmp/tavrin.xml/kept /tmp/import.xml/kept\n({command})"
        return (f"mv {folder} {folder}.kept\nln -s missing {folder}\n({command})\nstatus=$?\n"
                f"rm {folder}\nmv {folder}.kept {folder}\n(exit $status)")
