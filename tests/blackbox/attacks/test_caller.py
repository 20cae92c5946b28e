"""What a caller hands on with a run: signals, a standard error that nobody reads, the keyboard."""

import pytest

from attack_support import PATH, client_script, placed, publish, tree
from import_run import conn, connections_file, entry, key

ARGUMENTS = {"get": "-get RDP -f out.xml", "set": "-set RDP -f in.xml",
             "replace": "-set RDP -f in.xml -r"}
UNREAD = "mkfifo unread; exec 3<>unread; exec 2>unread; exec 3<&-"
CHILDREN_IGNORED = "exec env --ignore-signal=CHLD"


def run(device, mode, before=":", start="exec", **options):
    """A run on a device with connections A and B, with a file that has A and C. What it leaves."""
    for identifier, label in (("id-1", "A"), ("id-2", "B")):
        publish(device, "set", f"{PATH}/{identifier}/label", label)
    (device.home / "in.xml").write_text(connections_file(
        placed(conn("id-1", "A", key("server", "new")), conn("id-3", "C")), entry("A"), entry("C")))
    result = device.run("sh", "-c", f"{before}\n{start} corvik {ARGUMENTS[mode]}", **options)
    target = device.home / "out.xml"
    left = (result.status, result.log, target.is_file() and target.read_bytes(),
            sorted(path.name for path in device.tmp.iterdir()), tree(device))
    return left, result.stderr


@pytest.mark.parametrize("mode", ARGUMENTS)
def test_children_that_a_caller_ignores_are_waited_for(device, make_device, mode):
    assert run(device, mode, start=CHILDREN_IGNORED) == run(make_device("undisturbed"), mode)


@pytest.mark.parametrize("mode", ARGUMENTS)
def test_a_run_goes_on_where_nobody_reads_its_messages(device, make_device, mode):
    undisturbed, told = run(make_device("undisturbed"), mode)
    assert told != ""
    assert run(device, mode, UNREAD) == (undisturbed, "")


@pytest.mark.parametrize("arguments, status", [("-x", 1), ("-set RDP -f in.xml", 20)])
def test_a_result_is_kept_where_nobody_reads_its_message(device, arguments, status):
    (device.home / "in.xml").write_text("<RDP>")
    assert device.run("sh", "-c", f"{UNREAD}\nexec corvik {arguments}").status == status


@pytest.mark.parametrize("mode", ["set", "replace"])
def test_the_keyboard_ends_the_command_that_runs_and_not_the_run(device, make_device, mode):
    client = client_script(device, 'if [ "$1" = import ]; then kill -INT 0; sleep 60; fi\n'
                                   'exec REGSH "$@"\n')
    (status, log, *_, left), told = run(device, mode, start="exec setsid --wait", client=client)
    undisturbed, told_otherwise = run(make_device("undisturbed"), mode)
    assert (status, log) == undisturbed[:2]
    assert told == told_otherwise
    assert left != undisturbed[-1]
    assert "new" not in left
    assert ("id-2" in left) == (mode == "set")
