"""Names of session files that lead elsewhere, out of a connections file and out of the registry.

What an import makes of a name is told by tests/blackbox/test_session_files.py; here are the ways
around: links, and the name in the registry, which an export follows.
"""

import pytest

from attack_support import files_of, placed, publish
from import_run import conn, connections_file, connections_path, entry, key

TAVRIN = connections_path("tavrin")
TEXT = "<secret>told</secret>"


def import_session(device, name, text="<new/>"):
    file = connections_file(placed(conn("id-1", "A"), registry_type="tavrin"),
                            entry("A", KSSFile=name, children=[("KSS", text), ("WS", text)]),
                            root="Tavrin")
    (device.home / "in.xml").write_text(file)
    return device.corvik("-set", "Tavrin", "-f", "in.xml")


def export_session(device, name):
    publish(device, "set", f"{TAVRIN}/id-1/label", "A")
    publish(device, "set", f"{TAVRIN}/id-1/kssName", name)
    result = device.corvik("-get", "Tavrin", "-f", "out.xml")
    assert result.status == 0
    return result.stderr, (device.home / "out.xml").read_text()


@pytest.fixture
def tavrin(device):
    publish(device, "create", TAVRIN)
    return device


@pytest.mark.parametrize("name", ["../x", "a/../../x", "..", "/../../x", "./../x"])
def test_an_import_refuses_a_name_that_leaves_the_folder(tavrin, name):
    before = files_of(tavrin)
    result = import_session(tavrin, name)
    assert f"Invalid session file name {name}.\n" in result.stderr
    assert set(files_of(tavrin)) - set(before) == {"home/corvik.log", "home/in.xml",
                                                   "tmp/import.xml"}


@pytest.mark.parametrize("name", ["/etc/x", "//etc/x"])
def test_a_name_from_the_root_stays_below_the_folder(tavrin, name):
    result = import_session(tavrin, name)
    assert f"Write file /etc/tavrin/connections/{name}.kss fail.\n" in result.stderr
    assert not (tavrin.etc / "x.kss").exists()


def test_only_the_two_endings_are_written(tavrin):
    (tavrin.sessions / "settings.conf").write_text("before")
    import_session(tavrin, "settings.conf")
    assert (tavrin.sessions / "settings.conf").read_text() == "before"
    assert sorted(path.name for path in tavrin.sessions.iterdir()) == [
        "settings.conf", "settings.conf.kss", "settings.conf.ws"]


def test_a_link_inside_the_folder_is_followed(tavrin):
    """Fixed: nobody but root may write there."""
    (tavrin.etc / "victim").write_text("before")
    (tavrin.sessions / "a.kss").symlink_to("../../victim")
    import_session(tavrin, "a")
    assert (tavrin.etc / "victim").read_text() == "<new/>"


def test_an_export_follows_a_name_of_the_registry_out_of_the_folder(tavrin):
    """Fixed: a well-formed document anywhere on the device can come into the file."""
    (tavrin.etc / "secret.xml").write_text(TEXT)
    _, file = export_session(tavrin, "../../secret.xml")
    assert "<KSS>&lt;secret&gt;told&lt;/secret&gt;" in file


def test_a_file_can_bring_that_name_along(tavrin):
    (tavrin.etc / "secret.xml").write_text(TEXT)
    leak = conn("id-1", "A", key("kssName", "../../secret.xml"))
    (tavrin.home / "in.xml").write_text(
        connections_file(placed(leak, registry_type="tavrin"), entry("A"), root="Tavrin"))
    assert tavrin.corvik("-set", "Tavrin", "-f", "in.xml").status == 0
    assert tavrin.corvik("-get", "Tavrin", "-f", "out.xml").status == 0
    assert "told" in (tavrin.home / "out.xml").read_text()


@pytest.mark.parametrize("content", ["root:x:0:0:root:/root:/bin/sh\n", "key=told\n", "<told"])
def test_what_is_no_xml_does_not_come_into_the_file(tavrin, content):
    (tavrin.etc / "secret").write_text(content)
    stderr, file = export_session(tavrin, "../../secret")
    assert "Parse xml failed.\n" in stderr
    assert "KSS" not in file and "told" not in file and "root:x" not in file
