"""A registry client that dies half way, at any of its calls.

What is printed of a client that a signal has ended is told by
tests/blackbox/test_export_failures.py.
"""

import shutil

import pytest

from attack_support import PATH, client_script, publish, value
from import_run import DEFAULT, THEME, ImportCase, connections_file, export, type_path

BEFORE = b"what was there before\n"
DYING = """case " $PASSED " in *" $1 "*) exec REGSH "$@" ;; esac
number=$(($(cat "/etc/calls" 2>/dev/null || echo 0) + 1))
echo "$number" >"/etc/calls"
[ "$number" != "$DIES_AT" ] || kill -KILL $$
exec REGSH "$@"
"""
MOST_CALLS = 200


class MortalClient:
    """Runs on one device, with a client that dies at one of its calls."""

    def __init__(self, device):
        self.device = device
        self.client = client_script(device, DYING)
        self.calls = device.etc / "calls"
        self.store = device.etc / "regsh/registry.db"
        self.kept = device.folder / "kept.db"
        shutil.copyfile(self.store, self.kept)

    def run(self, number, *arguments, passed=""):
        """The result, and whether there was such a call.

        The first call has number 1; verbs that are passed are not counted.
        """
        self.calls.unlink(missing_ok=True)
        result = self.device.corvik(*arguments, zero=True, client=self.client,
                                    env={"DIES_AT": str(number), "PASSED": passed})
        return result, int(self.calls.read_text()) >= number

    def restore(self):
        shutil.copyfile(self.kept, self.store)

    def state(self):
        """What the registry holds of the type, and what is staged."""
        questions = [f"tree {type_path('freerdp')}", f"get {DEFAULT}", f"get {THEME}", "diff"]
        script = "\n".join(f"regsh {words}" for words in questions)
        return self.device.run("sh", "-c", script, image_type=None).stdout


@pytest.fixture
def mortal(device):
    for key, text in (("label", "Office"), ("hasDesktopIcon", "1"), ("autostart", "1")):
        publish(device, "set", f"{PATH}/id-1/{key}", text)
    publish(device, "set", DEFAULT, "id-1")
    publish(device, "set", THEME, "freerdp")
    return MortalClient(device)


def test_an_export_leaves_the_file_as_it_was_or_whole(mortal):
    out = mortal.device.home / "out.xml"
    whole, state = None, mortal.state()
    for number in range(MOST_CALLS):  # the first run has no call 0 and goes through
        out.write_bytes(BEFORE)
        result, reached = mortal.run(number, "-get", "RDP", "-f", "out.xml")
        whole = whole or out.read_bytes()
        assert result.status in (0, 50), number
        if result.status == 50:
            assert out.read_bytes() == BEFORE
        else:
            # The mark of the default connection is what an unanswered question costs.
            assert out.read_bytes() in (whole, whole.replace(b' Default="yes"', b""))
        assert mortal.state() == state
        if number > 0 and not reached:
            break
    assert 5 < number < MOST_CALLS


def test_an_import_that_is_repeated_puts_it_right(mortal):
    arguments = ["-set", "RDP", "-f", "in.xml", "-r"]
    assert mortal.device.corvik("-get", "RDP", "-f", "in.xml", zero=True).status == 0
    undisturbed = mortal.state()
    different = 0
    for number in range(1, MOST_CALLS):
        mortal.restore()
        result, reached = mortal.run(number, *arguments, passed="contains get")
        # Fixed: an import does not ask how its commands ended.
        assert (result.status, result.log[-6:]) == (0, b"\nrc=0\n"), number
        if not reached:
            break
        different += mortal.state() != undisturbed
        assert mortal.device.corvik(*arguments, zero=True).status == 0
        assert mortal.state() == undisturbed, number
    assert 10 < number < MOST_CALLS
    assert different > 3


def test_an_import_whose_theme_is_not_set_leaves_an_entry_behind(mortal):
    """Fixed: the autostart of the default connection is set where the theme says."""
    assert mortal.device.corvik("-get", "RDP", "-f", "in.xml", zero=True).status == 0
    client = client_script(mortal.device,
                           'case $* in *"theme freerdp") kill -KILL $$ ;; esac\nexec REGSH "$@"\n')
    publish(mortal.device, "set", THEME, "default")
    assert mortal.device.corvik("-set", "RDP", "-f", "in.xml", zero=True,
                                client=client).status == 0
    assert value(mortal.device, "root/ConnectionType/default/connections/id-1/autostart") == "1"


@pytest.mark.parametrize("end", [9, 0], ids=["killed", "full-pipe"])
@pytest.mark.parametrize("cut", ["root/ConnectionType/freerdp/connections/id", "root/Conn", "root"])
def test_a_listing_that_is_cut_off_is_believed(device, programs, cut, end):
    """Fixed: with -r a client that dies in the midst of a line has a parent deleted."""
    case = ImportCase(device, programs)
    case.recorder.on("get", PATH, stdout=f"dir {PATH}/id-1\ndir {cut}", signal=end, times=1)
    calls = case.set(connections_file(export()), remove=True).calls
    assert [call for call in calls if call[1] == "delete"] == [
        ["regsh", "delete", f"{PATH}/id-1"], ["regsh", "delete", cut]]


def test_a_client_that_does_not_come_back_is_waited_for(device):
    (device.home / "out.xml").write_bytes(BEFORE)
    client = client_script(device, '[ "$1" != export ] || exec sleep 600\nexec REGSH "$@"\n')
    result = device.run("timeout", "3", "corvik", "-get", "RDP", "-f", "out.xml", client=client)
    assert result.status == 124
    assert result.log == b"RDP out.xml [******] [******] 0\r\n"
    assert (device.home / "out.xml").read_bytes() == BEFORE
