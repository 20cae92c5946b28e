"""Registry exports and connections files as tests write them, and runs compared in full.

A registry export is written compactly here; `printed` gives it as the tool prints it.
"""

import os
import re
import xml.etree.ElementTree as ElementTree

from recorder_client import ANY

ENTITIES = (("&", "&amp;"), ("<", "&lt;"), (">", "&gt;"), ('"', "&quot;"), ("'", "&apos;"))
BLANKS = re.compile("[ \t\n\v\f\r]+")

WALK_ENDED = "Could not find <NodeDir> - UUID. \n"
"""Told once by every walk over connections, also by a successful one."""


def escaped(text):
    for character, entity in ENTITIES:
        text = text.replace(character, entity)
    return text


def condensed(text):
    """Runs of blanks become one; none is left at the ends."""
    return BLANKS.sub(" ", text or "").strip(" ")


def printed(element):
    """The tool's own print of an ElementTree element (text before the first child not meant)."""
    pieces = []
    _print(element, "", pieces.append)
    return "".join(pieces)


def _print(element, indentation, put):
    put(f"{indentation}<{element.tag}")
    for name, value in element.attrib.items():
        put(f' {name}="{escaped(condensed(value))}"')
    if len(element) == 0:
        text = condensed(element.text)
        put(f">{escaped(text)}</{element.tag}>\n" if text else "/>\n")
        return
    put(f">{condensed(element[-1].tail)}\n")
    for child in element:
        _print(child, indentation + "  ", put)
    put(f"{indentation}</{element.tag}>\n")


def printed_text(text):
    return printed(ElementTree.fromstring(text))


def key(name, value):
    return f'<NodeKey name="{escaped(name)}"><NodeParam>{escaped(value)}</NodeParam></NodeKey>'


def directory(name, *entries):
    return f'<NodeDir name="{escaped(name)}">{"".join(entries)}</NodeDir>'


def connection(identifier, label=None, *entries):
    return directory(identifier, *([] if label is None else [key("label", label)]), *entries)


def export_of(*type_entries):
    """An export whose type directory holds these entries."""
    return ('<Profile><ProfileRegistry><NodeDir name="type">' + "".join(type_entries)
            + "</NodeDir></ProfileRegistry></Profile>")


def export_with(*connections):
    """An export of these connections, with a settings directory of the type behind them."""
    return export_of(directory("connections", *connections),
                     directory("settings", key("depth", "24")))


def connection_element(*attributes, children=()):
    """One Connection of a connections file; children are pairs of name and text."""
    start = "  <Connection" + "".join(f' {name}="{escaped(value)}"' for name, value in attributes)
    if not children:
        return start + "/>\n"
    lines = "".join(f"    <{name}>{escaped(text)}</{name}>\n" if text else f"    <{name}/>\n"
                    for name, text in children)
    return start + ">\n" + lines + "  </Connection>\n"


def named(label, *more, children=()):
    """The Connection of that label; `more` are further attributes."""
    return connection_element(("Name", label), ("Enabled", "yes"), *more, children=children)


def connections_file(root, *connections, general=None):
    """The bytes of a connections file; `general` is the printed export, none without connections."""
    if not connections and general is None:
        return f"<{root}/>\n".encode()
    tail = "" if general is None else f"  <General>{escaped(general)}</General>\n"
    return f"<{root}>\n{''.join(connections)}{tail}</{root}>\n".encode()


def file_for(root, export, *connections):
    """The connections file that comes of this export, unless it is pruned."""
    return connections_file(root, *connections, general=printed_text(export))


def log_header(connection_type, file, remove=0):
    return f"{connection_type} {file} [******] [******] {remove}\r\n".encode()


def log_of(connection_type, file, result, remove=0):
    return log_header(connection_type, file, remove) + f"rc={result}\n".encode()


# The exact calls of the registry client.

DEFAULT_CONNECTION = "root/ConnectionManager/defaultConnection"


def contains(registry_type):
    return ["regsh", "contains", f"root/ConnectionType/{registry_type}"]


NAME_TABLE_CALLS = [contains(each) for each in ("freerdp", "xen", "iceweasel", "freerdp")]
GET_DEFAULT = ["regsh", "get", DEFAULT_CONNECTION]


def export_call(registry_type):
    return ["regsh", "export", f"root/ConnectionType/{registry_type}", f"/tmp/{registry_type}.xml"]


def default_is(recorder, value):
    """Lets the recorder give this default connection."""
    return recorder.on("get", DEFAULT_CONNECTION, stdout=f"{DEFAULT_CONNECTION} {value}\n")


def exports(recorder, document, registry_type=None):
    """Lets the recorder answer an export (of one type, or of any) with this document."""
    if registry_type is None:
        return recorder.on("export", ANY, ANY, writes=document)
    return recorder.on(*export_call(registry_type)[1:], writes=document)


class Outcome(dict):
    """Everything that a run leaves behind; compared in full."""

    def __init__(self, status, stdout=b"", stderr=b"", log=None, file=None, tmp=()):
        super().__init__(status=status, stdout=_bytes(stdout), stderr=_bytes(stderr), log=log,
                         file=file, tmp=list(tmp))


def _bytes(text):
    return text.encode() if isinstance(text, str) else text


def outcome(device, result, file="out.xml"):
    """What this run on the device left behind; `file` is looked up in the home folder."""
    path = device.home / file if file else None
    content = path.read_bytes() if path and path.is_file() else None
    return Outcome(result.status, result.stdout_bytes, result.stderr_bytes, result.log, content,
                   device.tmp_leftovers())


def preload(programs, **settings):
    """Environment that makes chosen calls of one program fail."""
    # The sanitizers' own library would otherwise insist on standing first.
    sanitizer = [*filter(None, [os.environ.get("ASAN_OPTIONS")]), "verify_asan_link_order=0"]
    return {"LD_PRELOAD": str(programs / "libfailing_calls.so"), **settings,
            "ASAN_OPTIONS": ":".join(sanitizer)}
