"""A connections file whose export names another place of the registry.

Fixed behaviour: a file is as powerful as the client, and its type is not compared with the one that
was typed.
"""

import pytest

from attack_support import PATH, placed, publish, tree, value
from import_run import conn, connections_file, entry

KEY = "root/security/connections/admin/label"


@pytest.fixture
def device_with_settings(device):
    publish(device, "set", f"{PATH}/id-1/label", "Office")
    publish(device, "set", f"{PATH}/id-1/hasDesktopIcon", "1")
    publish(device, "set", KEY, "before")
    file = connections_file(placed(conn("admin", "after"), path="root/security"), entry("after"))
    (device.home / "in.xml").write_text(file)
    return device


def test_a_zero_client_commits_it_at_once(device_with_settings):
    assert device_with_settings.corvik("-set", "RDP", "-f", "in.xml", zero=True).status == 0
    assert value(device_with_settings, KEY) == "after"


@pytest.mark.parametrize("path, committed", [("root/security", False),
                                             ("root/ConnectionType/security", True)])
def test_image_type_6_commits_what_is_below_the_types(device, path, committed):
    publish(device, "create", PATH)
    file = connections_file(placed(conn("admin", "after"), path=path), entry("after"))
    (device.home / "in.xml").write_text(file)
    assert device.corvik("-set", "RDP", "-f", "in.xml", image_type=6).status == 0
    assert (value(device, f"{path}/connections/admin/label") == "after") == committed
    assert (device.regsh("diff").stdout == "") == committed


def test_elsewhere_it_waits_for_the_next_commit_of_everything(device_with_settings):
    device = device_with_settings
    before = tree(device)
    assert device.corvik("-set", "RDP", "-f", "in.xml").status == 0
    assert tree(device) == before
    assert f'~ {KEY} = "before" -> "after"\n' in device.regsh("diff").stdout
    # A later import with -r commits everything before it imports.
    (device.home / "good.xml").write_text(connections_file(placed(), entry("x")))
    assert device.corvik("-set", "RDP", "-f", "good.xml", "-r").status == 0
    assert value(device, KEY) == "after"


def test_what_a_good_file_leaves_staged_is_told_by_the_client(device_with_settings):
    device = device_with_settings
    (device.home / "in.xml").write_text(
        connections_file(placed(conn("id-1", "Other")), entry("Other")))
    assert device.corvik("-set", "RDP", "-f", "in.xml").status == 0
    assert device.regsh("diff").stdout == ""
    assert value(device, f"{PATH}/id-1/label") == "Other"
