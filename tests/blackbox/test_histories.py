"""Random histories of a device: exports, imports, removals and edits of files, beside a model."""

import os

import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import (Bundle, RuleBasedStateMachine, initialize, multiple, rule,
                                 run_state_machine_as_test)

from registry_model import DEFAULT, TYPE_NAMES, ConnectionsFile, Entry, Model, ModelledDevice

# A search for more than the daily run has time for: CORVIK_EXAMPLES=1000
EXAMPLES = int(os.environ.get("CORVIK_EXAMPLES", "16"))
STEPS = int(os.environ.get("CORVIK_STEPS", "10"))

LAYOUTS = [(1, False), (3, False), (5, False), (6, False), (7, False), (8, False), (9, False),
           (10, False), (8, True), (9, True), (10, True)]

# Few of each, so that labels meet and connections come back.
LABELS = st.sampled_from([b"A", b"a", b"B & <C>", b"", b"New tavrin", "Übung".encode()])
IDENTIFIERS = st.sampled_from([b"id-1", b"id-2", b"it's;$(x)", b"two words"])
ICONS = st.sampled_from([None, b"0", b"1", b"", b"1 and more", b"$(x)"])
FLAGS = st.sampled_from([b"yes", b"YES", b"no", b"No", b"maybe", b""])

# What people do to a file before they import it: the edit, the place of the connection that it is
# about, and the attribute's new value.
EDITS = st.lists(st.one_of(
    st.tuples(st.sampled_from([b"Enabled", b"Default"]), st.integers(0, 3), FLAGS),
    st.tuples(st.just(b"Name"), st.integers(0, 3), LABELS),
    st.tuples(st.sampled_from(["drop", "turn round", "add", "drop export"]), st.integers(0, 3),
              LABELS)), max_size=3)

CHANGES = st.sampled_from(["delete", "label", "icon", "default"])

SESSION = b"<session>\n  <host>%s</host>\n</session>\n"
WINDOW = b"<window/>\n"


def connection(label, icon, session=None):
    keys = {b"server": b"ts1.example.net", b"autostart": b"0"}
    if label is not None:
        keys[b"label"] = label
    if session is not None:
        keys[b"kssName"] = session
    if icon is not None:
        keys[b"hasDesktopIcon"] = icon
    return {**keys, b"display": {b"size": b"full"}}


def edited(file, edits):
    file = file.copy()
    for edit, place, value in edits:
        chosen = file.entries[place:place + 1]
        if isinstance(edit, bytes):
            for entry in chosen:
                entry.attributes[edit] = value
        elif edit == "drop":
            del file.entries[place:place + 1]
        elif edit == "turn round":
            file.entries.reverse()
        elif edit == "add":
            file.entries.insert(place, Entry({b"Name": value, b"Enabled": b"yes"}))
        else:
            file = ConnectionsFile(file.root, file.entries, None)
    return file


class History(RuleBasedStateMachine):
    """A device with two types that are exported and imported: the terminal emulator and another."""

    files = Bundle("files")

    def __init__(self, device, image_type, zero):
        super().__init__()
        self.device = device
        self.model = Model(image_type, zero)
        names = TYPE_NAMES[image_type]
        self.types = ["RDP", "Tavrin" if ("Tavrin", "tavrin") in names else "tavrin"]
        for _, registry_type in [*names, ("", "tavrin"), ("", "iceweasel"), ("", "xen"),
                                 ("", "freerdp")]:
            self.model.set(self.model.connections_path(registry_type), {})

    @initialize(target=files, default=st.sampled_from([b"", b"id-1", b"Default", b"Default-freerdp"]),
                icon=ICONS, label=LABELS)
    def begin(self, default, icon, label):
        for typed in self.types:
            path = self.model.connections_path(self.model.registry_type(typed))
            self.model.set((*path, b"id-1"), connection(label, icon, b"id-1.kss"))
            self.model.set((*path, b"id-2"), connection(b"B & <C>", b"1", b"other.v2.kss"))
        self.model.sessions = {b"id-1.kss": SESSION % b"one", b"id-1.ws": WINDOW,
                               b"other.v2.kss": SESSION % b"two"}
        self.model.set(DEFAULT, default)
        self.both = ModelledDevice(self.device, self.model)
        return multiple(*((typed, self.model.get(typed)) for typed in self.types))

    def client(self, verb, path, *value):
        words = " ".join(self.word(word) for word in (b"/".join((b"root", *path)), *value))
        left = self.both.run("sh", "-c", f"regsh {verb} {words} && regsh commit")
        assert left.status == 0, left
        self.both.same_state()

    @staticmethod
    def word(text):
        return "'" + text.decode().replace("'", "'\\''") + "'"

    # What corvik does

    @rule(target=files, which=st.integers(0, 1))
    def get(self, which):
        typed = self.types[which]
        self.both.get(typed)
        return typed, self.model.get(typed)

    @rule(target=files, chosen=files, edits=EDITS, remove=st.booleans())
    def set(self, chosen, edits, remove):
        typed, file = chosen[0], edited(chosen[1], edits)
        self.both.set(typed, file, remove)
        return typed, file

    # What others do to the registry

    # One rule for all, so that most of a history is corvik's own.
    @rule(change=CHANGES, which=st.integers(0, 1), name=IDENTIFIERS, label=LABELS, icon=ICONS)
    def change(self, change, which, name, label, icon):
        registry_type = self.model.registry_type(self.types[which])
        path = (*self.model.connections_path(registry_type), name)
        if change == "delete":
            if self.model.find(path) is not None:
                del self.model.find(path[:-1])[name]
                self.client("delete", path)
        elif change == "label":
            # A connection that is not there comes into being.
            self.model.set((*path, b"label"), label)
            self.client("set", (*path, b"label"), label)
        elif change == "icon":
            self.model.set((*path, b"hasDesktopIcon"), icon or b"")
            self.client("set", (*path, b"hasDesktopIcon"), icon or b"")
        else:
            self.model.set(DEFAULT, name)
            self.client("set", DEFAULT, name)


@pytest.mark.parametrize("image_type, zero", LAYOUTS,
                         ids=[f"{image_type}{'-zero' if zero else ''}" for image_type, zero in LAYOUTS])
def test_history(device, image_type, zero):
    run_state_machine_as_test(
        lambda: History(device, image_type, zero),
        settings=settings(max_examples=EXAMPLES, stateful_step_count=STEPS, derandomize=True,
                          deadline=None, database=None,
                          suppress_health_check=list(HealthCheck)))
