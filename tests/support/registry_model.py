"""A model of a device in a few lines: its registry, its session files and what corvik makes of them.

Names and values are bytes. The registry is a tree of dicts, whose order is the registry's; what an
export document carries of it is a list of (name, value) pairs, because white space is condensed on
the way and two names may become one. Every change is published at once: the model holds what is
committed, and nothing that is modelled here leaves anything staged.
"""

import xml.etree.ElementTree as ElementTree

CONNECTIONS = b"connections"
CONNECTION_TYPES = (b"ConnectionType",)
DEFAULT = (b"ConnectionManager", b"defaultConnection")
THEME = (b"background", b"desktop", b"theme")

_CURRENT = """Custom/custom ICA/xen Firefox/firefox RDP/freerdp SSH/ssh Tavrin/tavrin Telnet/telnet
              VDM/view Xdmcp/xdmcp"""
_EARLY = """Custom/custom ICA/ica Firefox/iceweasel Leostream/leostream PNAgent/pnagent
            Provision/provision RDP/rdesktop RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin
            Telnet/telnet VDM/vdm Xdmcp/xdmcp"""
# By image type, on a device whose registry knows every client.
TYPE_NAMES = {image_type: [tuple(pair.split("/")) for pair in pairs.split()] for image_type, pairs in {
    1: """Custom/custom ICA/ica Firefox/firefox Leostream/leostream PNAgent/pnagent
          Provision/provision RDP/rdesktop SSH/ssh Tavrin/tavrin Telnet/telnet VDM/vdm
          Xdmcp/xdmcp""",
    2: "",
    3: _EARLY,
    4: _EARLY,
    5: """Custom/custom ICA/ica Firefox/iceweasel Leostream/leostream PNAgent/pnagent RDP/rdesktop
          RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin Telnet/telnet VDM/view VWorkspace/vworkspace
          Xdmcp/xdmcp""",
    6: "VDM/view RDP/freerdp ICA/xen",
    7: """Custom/custom ICA/xen Firefox/iceweasel Leostream/leostream PNAgent/pnagent RDP/freerdp
          RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin Telnet/telnet VDM/view VWorkspace/vworkspace
          Xdmcp/xdmcp""",
    8: _CURRENT, 9: _CURRENT, 10: _CURRENT}.items()}

_ENTITIES = ((b"&", b"&amp;"), (b"<", b"&lt;"), (b">", b"&gt;"), (b'"', b"&quot;"),
             (b"'", b"&apos;"))


def condense(text):
    """What the XML dialect leaves of white space."""
    return b" ".join(text.split())


def escape(text):
    for character, entity in _ENTITIES:
        text = text.replace(character, entity)
    return text


def printed(name, attributes=(), text=b"", children=(), depth=0):
    """An element as the program prints it; children are printed already."""
    indent = b"  " * depth
    start = indent + b"<" + name + b"".join(
        b" " + key + b'="' + escape(value) + b'"' for key, value in attributes)
    if children:
        return start + b">\n" + b"".join(children) + indent + b"</" + name + b">\n"
    if text:
        return start + b">" + escape(text) + b"</" + name + b">\n"
    return start + b"/>\n"


def exported(tree):
    """The entries of a directory as they come out of an export document."""
    return [(condense(name), exported(value) if isinstance(value, dict) else condense(value))
            for name, value in tree.items()]


def directories(entries):
    return [(name, value) for name, value in entries if isinstance(value, list)]


def keys_of(entries):
    return [(name, value) for name, value in entries if not isinstance(value, list)]


def label_of(entries, registry_type):
    return next((value for name, value in keys_of(entries) if name == b"label"),
                b"New " + registry_type.encode())


def printed_entries(entries, depth):
    parts = []
    for name, value in entries:
        if isinstance(value, list):
            parts.append(printed(b"NodeDir", [(b"name", name)], b"",
                                 printed_entries(value, depth + 1), depth))
        else:
            param = printed(b"NodeParam", [(b"type", b"string")], value, (), depth + 1)
            parts.append(printed(b"NodeKey", [(b"name", name)], b"", [param], depth))
    return parts


class Export:
    """An export document of one type."""

    def __init__(self, registry_type, entries, config):
        self.registry_type = registry_type
        self.entries = entries
        self.config = config

    @property
    def connections(self):
        return next(value for name, value in directories(self.entries) if name == CONNECTIONS)

    @connections.setter
    def connections(self, connections):
        self.entries = [(name, connections if name == CONNECTIONS else value)
                        for name, value in self.entries]

    def copy(self):
        return Export(self.registry_type, list(self.entries), self.config)

    def render(self):
        registry_type = self.registry_type.encode()
        place = [(b"name", registry_type), (b"path", b"root/ConnectionType/" + registry_type)]
        registry = printed(b"ProfileRegistry", (), b"", [
            printed(b"NodeDir", place, b"", printed_entries(self.entries, 3), 2)], 1)
        target = printed(b"Target", (), b"", [printed(b"Config", (), self.config, (), 3)], 2)
        return printed(b"Profile", (), b"", [
            registry, printed(b"ProfileSettings", (), b"", [target], 1)])


class Entry:
    """One Connection of a connections file."""

    def __init__(self, attributes, kss=None, ws=None):
        self.attributes = attributes
        self.kss = kss
        self.ws = ws

    def get(self, name):
        return condense(self.attributes.get(name, b""))

    def copy(self):
        return Entry(dict(self.attributes), self.kss, self.ws)

    def render(self):
        children = [printed(name, (), text, (), 2)
                    for name, text in ((b"KSS", self.kss), (b"WS", self.ws)) if text is not None]
        return printed(b"Connection", self.attributes.items(), b"", children, 1)


class ConnectionsFile:
    def __init__(self, root, entries, export):
        self.root = root
        self.entries = entries
        self.export = export  # None: no General

    def copy(self):
        return ConnectionsFile(self.root, [entry.copy() for entry in self.entries],
                               self.export and self.export.copy())

    def render(self):
        children = [entry.render() for entry in self.entries]
        if self.export is not None:
            children.append(printed(b"General", (), self.export.render(), (), 1))
        return printed(self.root.encode(), (), b"", children)

    @staticmethod
    def read(data):
        """The other way round, by a parser that has nothing to do with the program's."""
        def entries(element):
            return [(child.get("name").encode(),
                     entries(child) if child.tag == "NodeDir" else
                     (child.findtext("NodeParam") or "").encode()) for child in element]

        root = ElementTree.fromstring(data)
        text = root.findtext("General")
        export = None
        if text is not None:
            profile = ElementTree.fromstring(text)
            place = profile.find("ProfileRegistry/NodeDir")
            config = profile.findtext("ProfileSettings/Target/Config")
            export = Export(place.get("name"), entries(place), config.encode())
        found = []
        for element in root.iterfind("Connection"):
            texts = [element.findtext(name) for name in ("KSS", "WS")]
            found.append(Entry({name.encode(): value.encode()
                                for name, value in element.attrib.items()},
                               *(part and part.encode() for part in texts)))
        return ConnectionsFile(root.tag, found, export)


class Model:
    def __init__(self, image_type, zero=False):
        self.image_type = image_type
        self.zero = zero
        self.tree = {b"ConnectionType": {}}
        self.set(THEME, b"default")
        self.set(DEFAULT, b"")
        self.sessions = {}  # by file name, each as the program prints it
        self.imported = None  # the document of the last import

    # The registry client

    def find(self, path):
        node = self.tree
        for name in path:
            node = node.get(name) if isinstance(node, dict) else None
        return node

    def set(self, path, value):
        node = self.tree
        for name in path[:-1]:
            node = node.setdefault(name, {})
        node[path[-1]] = value

    def second_word(self, path):
        """The second word of the first line that the client prints for a key."""
        value = self.find(path)
        if value is None:
            return b""
        line = b"/".join((b"root", *path)) + b" " + value + b"\n"
        return (line.split(b"\n")[0][:1022].split() + [b"", b""])[1]

    def merge(self, node, entries):
        for name, value in entries:
            if isinstance(value, list):
                self.merge(node.setdefault(name, {}), value)
            else:
                node[name] = value

    def sample(self):
        """The registry as a file that the client loads."""
        def entries(tree):
            return b"".join(
                b'<NodeDir name="%s">%s</NodeDir>' % (escape(name), entries(value))
                if isinstance(value, dict) else
                b'<NodeKey name="%s"><NodeParam>%s</NodeParam></NodeKey>'
                % (escape(name), escape(value)) for name, value in tree.items())
        return b'<NodeDir name="root">%s</NodeDir>' % entries(self.tree)

    def shown(self):
        """The registry as "regsh tree" shows it."""
        def quoted(value):
            for character, text in ((b"\\", b"\\\\"), (b'"', b'\\"'), (b"\n", b"\\n"),
                                    (b"\r", b"\\r"), (b"\t", b"\\t")):
                value = value.replace(character, text)
            return b'"' + value + b'"'

        def lines(name, value, depth):
            if not isinstance(value, dict):
                return b"  " * depth + name + b" = " + quoted(value) + b"\n"
            return b"  " * depth + name + b"/\n" + b"".join(
                lines(*child, depth + 1) for child in value.items())
        return lines(b"root", self.tree, 0)

    # What corvik makes of it

    def registry_type(self, typed):
        return dict(TYPE_NAMES[self.image_type]).get(typed, typed)

    def type_path(self, registry_type):
        return (*CONNECTION_TYPES, registry_type.encode())

    def connections_path(self, registry_type):
        return (*self.type_path(registry_type), CONNECTIONS)

    def config(self):
        return b"zero" if self.zero else b"standard"

    def get(self, typed):
        """The connections file of a get run."""
        registry_type = self.registry_type(typed)
        default = b""
        if self.image_type == 6:
            default = self.second_word(DEFAULT)
            if b"Default" in default and registry_type.encode() not in default:
                return ConnectionsFile(typed, [], None)
        return self._export(registry_type, typed, default)

    def _export(self, registry_type, root, default):
        config = self.find((b"system", b"productConfig"))
        export = Export(registry_type, exported(self.find(self.type_path(registry_type))),
                        b"standard" if config is None else condense(config))
        if self.zero:
            default = self.second_word(DEFAULT)
        if self.image_type == 6 and b"Default" not in default:
            export.connections = [(name, value) for name, value in export.connections
                                  if not isinstance(value, list) or name == default]
        entries = []
        for name, value in directories(export.connections):
            entry = Entry({b"Name": label_of(value, registry_type), b"Enabled": b"yes"})
            if self.zero and name == default:
                entry.attributes[b"Default"] = b"yes"
            entries.append(entry)
        if registry_type == "tavrin":
            for entry, (_, value) in zip(entries, directories(directories(export.entries)[0][1])):
                self._attach_session(entry, value)
        return ConnectionsFile(root, entries, export if entries else None)

    def _attach_session(self, entry, value):
        label = session = text = None
        for name, content in keys_of(value):
            if name == b"label":
                label = content
            elif name == b"kssName":
                session = content
                if not session:
                    return
                text = self.sessions.get(session)
                if text is None:
                    continue
            else:
                continue
            if label and session:
                base = session.split(b".")[0]
                entry.kss = text or b""
                entry.attributes.update({b"TavrinName": label, b"KSSFile": base})
                entry.ws = self.sessions.get(base + b".ws")

    def apply(self, file, typed, remove):
        """A set run; its result."""
        registry_type = self.registry_type(typed)
        if self.image_type == 6:
            for _, each in TYPE_NAMES[6]:
                self.remove_connections(each)
            return self._apply_newer(file, registry_type)
        if remove:
            self.remove_connections(registry_type)
        self._import(file, registry_type)
        self._refresh(registry_type)
        if self.zero:
            self._set_default(file, registry_type)
            self._start_default()
        return 0

    def _apply_newer(self, file, registry_type):
        self._import(file, registry_type)
        if file.export is None:
            return 0
        connections = directories(file.export.connections)
        if not connections:
            return 255
        self.set(DEFAULT, connections[0][0])
        return 0

    def remove_connections(self, registry_type):
        connections = self.find(self.connections_path(registry_type)) or {}
        default = self.second_word(DEFAULT)
        for name in list(connections):
            if b" " in name:
                continue  # three words in the listing
            del connections[name]
            if self.zero and default and name == default:
                self.set(DEFAULT, b"")
                self.set(THEME, b"default")

    def _import(self, file, registry_type):
        if file.export is None:
            return
        enabled = []
        for entry in file.entries:
            name, flag = entry.get(b"Name"), entry.get(b"Enabled")
            if not name or not flag:
                continue
            if flag.lower() == b"yes":
                enabled.append(name.lower())
            if registry_type == "tavrin" and entry.kss is not None:
                base = entry.attributes[b"KSSFile"]
                self.sessions[base + b".kss"] = entry.kss
                if entry.ws is not None:
                    self.sessions[base + b".ws"] = entry.ws
        document = file.export.copy()
        kept = []
        for name, value in document.connections:
            if isinstance(value, list):
                label = label_of(value, registry_type).lower()
                if label not in enabled:
                    continue
                enabled.remove(label)
            kept.append((name, value))
        known = {name for name, _ in directories(kept)}
        held = self._export(registry_type, "", b"").export
        for name, value in directories(held.connections) if held else ():
            if name not in known:
                known.add(name)
                kept.append((name, value))
        document.connections = kept
        if 8 <= self.image_type <= 10:
            document.config = self.config()
        self.imported = document.render()
        self.merge(self.find(self.type_path(registry_type)), document.entries)
        if self.zero:
            for name, _ in directories(kept):
                self.set((*self.connections_path(registry_type), name, b"autostart"), b"0")

    def _refresh(self, registry_type):
        path = self.connections_path(registry_type)
        for name in list(self.find(path)):
            if b" " not in name:
                icon = (*path, name, b"hasDesktopIcon")
                self.set(icon, self.second_word(icon))

    def _set_default(self, file, registry_type):
        if file.export is None:
            return
        for entry in file.entries:
            name, flag = entry.get(b"Name"), entry.get(b"Enabled").lower()
            if not name or not flag or flag == b"no" or entry.get(b"Default").lower() != b"yes":
                continue
            for uuid, value in directories(file.export.connections):
                if label_of(value, registry_type).lower() == name.lower():
                    self.set(DEFAULT, uuid)
                    self.set(THEME, registry_type.encode())
                    return

    def _start_default(self):
        default, theme = self.second_word(DEFAULT), self.second_word(THEME)
        if default and theme:
            self.set((*CONNECTION_TYPES, theme, CONNECTIONS, default, b"autostart"), b"1")


class ModelledDevice:
    """A device beside its model: each step is done on both and their states are compared."""

    def __init__(self, device, model):
        self.device = device
        self.model = model
        self.load()

    def run(self, *words):
        return self.device.run(*words, image_type=self.model.image_type, zero=self.model.zero)

    def load(self):
        """Brings the model's registry and session files onto the device, in the place of all that
        it held."""
        for file in (self.device.etc / "regsh").glob("*"):
            file.unlink()
        self.device.load_registry(self.model.sample())
        self.clear_sessions()
        for name, text in self.model.sessions.items():
            (self.device.sessions / name.decode()).write_bytes(text)

    def clear_sessions(self):
        self.device.sessions.mkdir(parents=True, exist_ok=True)
        for file in self.device.sessions.iterdir():
            file.unlink()

    def get(self, typed):
        left = self.run("corvik", "-get", typed, "-f", "got.xml")
        assert (left.status, left.stdout) == (0, ""), left
        assert "regsh:" not in left.stderr, left
        got = (self.device.home / "got.xml").read_bytes()
        assert got == self.model.get(typed).render()
        return got

    def put(self, file):
        (self.device.home / "in.xml").write_bytes(file.render())

    def set(self, typed, file, remove):
        self.put(file)
        self.model.imported = None
        result = self.model.apply(file, typed, remove)
        document = self.device.tmp / "import.xml"
        document.unlink(missing_ok=True)
        left = self.run("corvik", "-set", typed, "-f", "in.xml", *(["-r"] if remove else []))
        assert (left.status, left.stdout) == (result, ""), left
        assert "regsh:" not in left.stderr, left
        assert (document.read_bytes() if document.exists() else None) == self.model.imported
        self.same_state()

    def registry(self):
        """What the client shows; nothing may be staged."""
        left = self.run("sh", "-c", "regsh diff && regsh tree")
        assert left.status == 0, left
        return left.stdout_bytes

    def same_state(self):
        assert self.registry() == self.model.shown()
        held = {file.name.encode(): condense(file.read_bytes())
                for file in self.device.sessions.iterdir()}
        assert held == {name: condense(text) for name, text in self.model.sessions.items()}
