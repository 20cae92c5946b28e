"""Stands in for the network settings service on a message bus of the test's own.

    settings_service.py ADDRESS FILE LOG

FILE is a JSON object: "listed" holds the connection numbers that ListConnections answers with, in
that order, "settings" the answer to GetSettings for each number that exists, as the text of a
dictionary of dictionaries ("{'connection': {'type': <'802-3-ethernet'>}}"). Each call that arrives
is a line of LOG. Prints "ready" once the service can be called; runs until it is killed.
"""

import json
import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

NAME = "org.freedesktop.NetworkManagerSystemSettings"
ROOT = "/org/freedesktop/NetworkManagerSettings"
INTERFACES = Gio.DBusNodeInfo.new_for_xml("""
<node>
  <interface name="org.freedesktop.NetworkManagerSettings">
    <method name="ListConnections"><arg type="ao" direction="out"/></method>
  </interface>
  <interface name="org.freedesktop.NetworkManagerSettings.Connection">
    <method name="GetSettings"><arg type="a{sa{sv}}" direction="out"/></method>
  </interface>
</node>
""")


class Service:
    def __init__(self, connection, content, log):
        self.listed = [f"{ROOT}/{number}" for number in content["listed"]]
        self.settings = {f"{ROOT}/{number}": GLib.Variant.parse(
            GLib.VariantType("a{sa{sv}}"), text) for number, text in content["settings"].items()}
        self.log = log
        listing, single = INTERFACES.interfaces
        connection.register_object(ROOT, listing, self.answer, None, None)
        for path in self.settings:
            connection.register_object(path, single, self.answer, None, None)

    def answer(self, _connection, _sender, path, _interface, method, _arguments, invocation):
        self.log.write(f"{method} {path.removeprefix(ROOT)}".rstrip() + "\n")
        self.log.flush()
        answer = (GLib.Variant("ao", self.listed) if method == "ListConnections"
                  else self.settings[path])
        invocation.return_value(GLib.Variant.new_tuple(answer))


def own_name(connection):
    allow_no_queue = 4
    reply = connection.call_sync(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        GLib.Variant("(su)", (NAME, allow_no_queue)), None, Gio.DBusCallFlags.NONE, -1, None)
    if reply.unpack() != (1,):
        raise SystemExit(f"{NAME} is taken")


def main(address, content_file, log_file):
    with open(content_file, encoding="utf-8") as file:
        content = json.load(file)
    flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT |
             Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
    connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    with open(log_file, "a", encoding="utf-8") as log:
        Service(connection, content, log)
        own_name(connection)
        print("ready", flush=True)
        GLib.MainLoop().run()


if __name__ == "__main__":
    main(*sys.argv[1:])
