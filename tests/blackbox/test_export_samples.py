"""Export from the sample registries, compared with what the reference client itself says."""

import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

from registry_export import (WALK_ENDED, Outcome, condensed, connections_file, log_of, named,
                             outcome, printed)

SAMPLES = Path(__file__).resolve().parents[2] / "samples"
TYPES_PATH = "root/ConnectionType"
SESSIONS = "/etc/tavrin/connections/"


def sample_types(sample):
    root = ElementTree.parse(SAMPLES / sample).getroot()
    types = root.find("NodeDir[@name='ConnectionType']")
    return [directory.get("name") for directory in types.findall("NodeDir")]


TYPES = [(sample, name) for sample in ("standard.xml", "zero.xml") for name in sample_types(sample)]


@pytest.fixture
def sampled(device):
    """Makes the device one with that sample's registry and the sample session files."""

    def make(sample):
        device.load_registry(SAMPLES / sample)
        copied = device.run("true", options=["--sessions", SAMPLES / "tavrin"])
        assert copied.status == 0, copied.stderr
        return device

    return make


def answer(device, *words):
    result = device.regsh(*words)
    assert (result.status, result.stderr) == (0, "")
    return result.stdout


def children(device, path):
    """Full paths of the directories below."""
    return [line.split(" ", 1)[1] for line in answer(device, "get", path).splitlines()
            if line.startswith("dir ")]


def value_of(device, path):
    """Value of a key; None where there is none."""
    result = device.regsh("get", path)
    return None if result.status else result.stdout.removeprefix(path + " ").removesuffix("\n")


def own_export(device, name):
    """The client's own export of a type, as an ElementTree element."""
    answer(device, "export", f"{TYPES_PATH}/{name}", str(device.home / "own.xml"))
    text = (device.home / "own.xml").read_bytes()
    (device.home / "own.xml").unlink()
    return ElementTree.fromstring(text)


def session_parts(device, connection, label):
    """What the session files add to a Connection, and the messages about them."""
    name = value_of(device, connection + "/kssName")
    if not name or not label:
        return [], [], ""
    base = name.split(".")[0]
    parts, messages = [], ""
    for element, file in (("KSS", name), ("WS", base + ".ws")):
        path = device.sessions / file
        if path.exists():
            # Comments and declarations outside the root are not part of what is exported.
            parts.append((element, printed(ElementTree.parse(path).getroot())))
        else:
            messages += f"read file {SESSIONS}{file} fail\n"
    return [("TavrinName", label), ("KSSFile", base)], parts, messages


def expected_export(device, name, typed, zero):
    """The connections file and the messages, made of what the client says of each connection."""
    default = value_of(device, "root/ConnectionManager/defaultConnection")
    elements, messages = [], WALK_ENDED
    for path in children(device, f"{TYPES_PATH}/{name}/connections"):
        label = value_of(device, path + "/label")
        label = None if label is None else condensed(label)
        more, parts, told = (session_parts(device, path, label) if name == "tavrin"
                             else ([], [], ""))
        if zero and path.rsplit("/", 1)[1] == default:
            more = [("Default", "yes"), *more]
        elements.append(named(f"New {name}" if label is None else label, *more, children=parts))
        messages += told
    general = printed(own_export(device, name)) if elements else None
    return connections_file(typed, *elements, general=general), messages


def plain(element):
    """An element as nested tuples, its texts condensed."""
    return (element.tag, {name: condensed(value) for name, value in element.attrib.items()},
            condensed(element.text), [plain(child) for child in element])


def test_the_samples_have_what_these_tests_need():
    assert set(sample_types("standard.xml")) > {"rdesktop", "tavrin", "telnet"}
    assert set(sample_types("zero.xml")) > {"freerdp", "tavrin"}


@pytest.mark.parametrize("sample, name", TYPES, ids="-".join)
def test_every_type_of_a_sample(sampled, sample, name):
    device = sampled(sample)
    zero = sample == "zero.xml"
    before = answer(device, "tree")
    file, messages = expected_export(device, name, name, zero)
    result = device.corvik("-get", name, "-f", "out.xml", zero=zero)
    assert outcome(device, result) == Outcome(0, stderr=messages, log=log_of(name, "out.xml", 0),
                                              file=file)
    assert answer(device, "tree") == before
    assert answer(device, "diff") == ""


@pytest.mark.parametrize("sample, name", TYPES, ids="-".join)
def test_another_reader_understands_the_file(sampled, sample, name):
    device = sampled(sample)
    assert device.corvik("-get", name, "-f", "out.xml", zero=sample == "zero.xml").status == 0
    root = ElementTree.parse(device.home / "out.xml").getroot()
    labels = [value_of(device, path + "/label")
              for path in children(device, f"{TYPES_PATH}/{name}/connections")]
    labels = [f"New {name}" if label is None else condensed(label) for label in labels]
    assert root.tag == name
    assert [element.get("Name") for element in root.findall("Connection")] == labels
    generals = root.findall("General")
    assert len(generals) == (1 if labels else 0)
    for general in generals:
        assert plain(ElementTree.fromstring(general.text)) == plain(own_export(device, name))


@pytest.mark.parametrize("typed, image_type, name", [
    ("RDP", 1, "rdesktop"), ("RDP", 4, "rdesktop"), ("RDP", 5, "rdesktop"),
    ("Telnet", 9, "telnet"), ("Tavrin", 1, "tavrin"), ("Tavrin", 9, "tavrin"),
    ("rdesktop", 2, "rdesktop")])
def test_display_names_with_the_standard_sample(sampled, typed, image_type, name):
    device = sampled("standard.xml")
    file, messages = expected_export(device, name, typed, zero=False)
    result = device.corvik("-get", typed, "-f", "out.xml", image_type=image_type)
    assert outcome(device, result) == Outcome(0, stderr=messages, log=log_of(typed, "out.xml", 0),
                                              file=file)


def test_the_default_connection_of_the_zero_sample(sampled):
    device = sampled("zero.xml")
    assert device.corvik("-get", "RDP", "-f", "out.xml", zero=True).status == 0
    root = ElementTree.parse(device.home / "out.xml").getroot()
    marks = [element.get("Default") for element in root.findall("Connection")]
    assert marks == ["yes"] + [None] * (len(marks) - 1)


def test_only_the_default_connection_on_image_type_6(sampled):
    device = sampled("standard.xml")
    default = value_of(device, "root/ConnectionManager/defaultConnection")
    (path,) = [path for name in sample_types("standard.xml")
               for path in children(device, f"{TYPES_PATH}/{name}/connections")
               if path.endswith("/" + default)]
    name = path.split("/")[2]
    document = own_export(device, name)
    directory = document.find("ProfileRegistry/NodeDir/NodeDir[@name='connections']")
    for connection in directory.findall("NodeDir"):
        if connection.get("name") != default:
            directory.remove(connection)
    label = condensed(value_of(device, path + "/label"))
    result = device.corvik("-get", name, "-f", "out.xml", image_type=6)
    assert outcome(device, result) == Outcome(
        0, stderr=WALK_ENDED, log=log_of(name, "out.xml", 0),
        file=connections_file(name, named(label), general=printed(document)))


def test_a_type_that_the_registry_lacks(sampled):
    device = sampled("standard.xml")
    result = device.corvik("-get", "Nothing", "-f", "out.xml")
    assert outcome(device, result) == Outcome(
        50, stderr="regsh: root/ConnectionType/Nothing is not in the registry\n",
        log=log_of("Nothing", "out.xml", 50))


def test_an_empty_registry(device):
    assert device.regsh("tree").stdout == "root/\n"
    result = device.corvik("-get", "RDP", "-f", "out.xml")
    assert outcome(device, result) == Outcome(
        50, stderr="regsh: root/ConnectionType/freerdp is not in the registry\n",
        log=log_of("RDP", "out.xml", 50))


@pytest.mark.parametrize("label", ["Tom & Jerry", "<b>\"'", "Größe 字 \U0001f600", "  two   words ",
                                   "&amp;", "$(x);`y`|z"])
def test_labels_set_through_the_client(device, label):
    path = f"{TYPES_PATH}/freerdp/connections/id-1"
    answer(device, "set", path + "/label", label)
    answer(device, "commit")
    result = device.corvik("-get", "RDP", "-f", "out.xml")
    file, messages = expected_export(device, "freerdp", "RDP", zero=False)
    assert file.startswith(b'<RDP>\n' + named(condensed(label)).encode())
    assert outcome(device, result) == Outcome(0, stderr=messages, log=log_of("RDP", "out.xml", 0),
                                              file=file)


def test_changes_that_are_not_committed_are_not_exported(device):
    path = f"{TYPES_PATH}/freerdp/connections/id-1"
    answer(device, "set", path + "/label", "committed")
    answer(device, "commit")
    answer(device, "set", path + "/label", "staged")
    answer(device, "create", f"{TYPES_PATH}/freerdp/connections/id-2")
    result = device.corvik("-get", "RDP", "-f", "out.xml")
    file, messages = expected_export(device, "freerdp", "RDP", zero=False)
    assert file.startswith(b'<RDP>\n' + named("committed").encode() + b"  <General>")
    assert outcome(device, result) == Outcome(0, stderr=messages, log=log_of("RDP", "out.xml", 0),
                                              file=file)


def test_the_same_file_on_every_export(sampled):
    device = sampled("standard.xml")
    files = set()
    for _ in range(3):
        assert device.corvik("-get", "Tavrin", "-f", "out.xml").status == 0
        files.add((device.home / "out.xml").read_bytes())
    assert len(files) == 1
