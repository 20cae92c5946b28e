"""Programs that somebody else has put where the tool finds them first.

Fixed behaviour: the operator's PATH is trusted, and what it finds runs with the operator's rights.
"""

import pytest

from attack_support import PATH, files_of, publish


@pytest.fixture
def office(device):
    publish(device, "set", f"{PATH}/id-1/label", "Office")
    (device.home / "evil").mkdir()
    return device


def lay_program(device, folder, name):
    program = device.home / folder / name
    program.write_text(f'#!/bin/sh\n: >"$HOME/{name}-ran"\n')
    program.chmod(0o755)


def ran(device):
    return {name.removeprefix("home/") for name in files_of(device) if name.endswith("-ran")}


@pytest.mark.parametrize("name", ["regsh", "rm"])
@pytest.mark.parametrize("folder, before", [("evil", "$HOME/evil"), (".", "."), (".", "")],
                         ids=["folder", "dot", "empty"])
def test_the_first_program_on_the_path_runs(office, name, folder, before):
    lay_program(office, folder, name)
    office.run("sh", "-c", f'PATH="{before}:$PATH"; corvik -get RDP -f out.xml')
    assert ran(office) == {f"{name}-ran"}


@pytest.mark.parametrize("name", ["regsh", "rm"])
def test_the_current_folder_is_not_looked_into_by_itself(office, name):
    lay_program(office, ".", name)
    assert office.corvik("-get", "RDP", "-f", "out.xml").status == 0
    assert ran(office) == set()


@pytest.mark.parametrize("connection_type, status", [("RDP", 0), ("free'rdp'", 11)],
                         ids=["plain", "for-the-shell"])
def test_the_shell_itself_is_not_looked_for(office, connection_type, status):
    lay_program(office, "evil", "sh")
    result = office.run("sh", "-c",
                        f'PATH="$HOME/evil:$PATH"; corvik -get "{connection_type}" -f out.xml')
    assert result.status == status
    assert ran(office) == set()


@pytest.mark.parametrize("name", ["cat", "grep", "head", "cut"])
def test_the_programs_for_an_odd_description_of_the_system_are_looked_for(office, name):
    lay_program(office, "evil", name)
    odd = 'PRODUCT_NAME="Sylvex"\nPRODUCT_CONFIG="zero"\nPRODUCT_VERSION="6.1"\n# \r\n'
    office.run("sh", "-c", 'PATH="$HOME/evil:$PATH"; corvik -get RDP -f out.xml', systeminfo=odd)
    assert ran(office) == {f"{name}-ran"}
