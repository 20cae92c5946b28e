"""Documents of a given number of connections, the same ones on every machine.

They stand in the tool's own layout, so that a document that is parsed and printed comes out unchanged.
"""

import sys
import uuid
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from registry_export import connections_file, escaped, named  # noqa: E402

ROOT = "RDP"
REGISTRY_TYPE = "freerdp"
NAMES_OF_CONNECTIONS = uuid.UUID("7b1ff2b4-52a1-4d04-9d50-5f5b2f1f7d3a")

KEYS = {
    "autostart": "0", "hasDesktopIcon": "1", "address": "ts{0}.example.net", "port": "3389",
    "username": "user{0}", "domain": "EXAMPLE", "program": "", "workingFolder": "",
    "arguments": '--room "{0}" --floor <2> & more', "windowType": "full", "compression": "1",
    "encryption": "1", "clipboard": "1", "bitmapCache": "1", "menuGroup": "Remote desktops",
    "description": "Set up by the help desk for room {0}", "networkNeeded": "1",
    "networkWaitSeconds": "45", "retryCount": "3", "gateway": "https://gw.example.net/?a=1&b={0}",
}


def label(number):
    return f"Büro {number} <{number % 7}. floor>"


def _key(name, value, indent):
    param = (f'<NodeParam type="string">{escaped(value)}</NodeParam>' if value
             else '<NodeParam type="string"/>')
    return f'{indent}<NodeKey name="{name}">\n{indent}  {param}\n{indent}</NodeKey>\n'


def _directory(number):
    name = uuid.uuid5(NAMES_OF_CONNECTIONS, str(number))
    keys = {"label": label(number), **{key: value.format(number) for key, value in KEYS.items()}}
    return (f'        <NodeDir name="{name}">\n'
            + "".join(_key(key, value, " " * 10) for key, value in keys.items())
            + "        </NodeDir>\n")


def export(numbers):
    """The registry export of a type that holds these connections."""
    return ("<Profile>\n  <ProfileRegistry>\n"
            f'    <NodeDir name="{REGISTRY_TYPE}" path="root/ConnectionType/{REGISTRY_TYPE}">\n'
            '      <NodeDir name="connections">\n'
            + "".join(map(_directory, numbers))
            + "      </NodeDir>\n    </NodeDir>\n  </ProfileRegistry>\n"
            "  <ProfileSettings>\n    <Target>\n      <Config>standard</Config>\n    </Target>\n"
            "  </ProfileSettings>\n</Profile>\n")


def file_of(numbers):
    """The connections file that comes of this export."""
    return connections_file(ROOT, *(named(label(each)) for each in numbers),
                            general=export(numbers))
