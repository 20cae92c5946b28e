"""Who can read a secret: files and their rights, command lines, messages, the run log."""

from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from secrets import token_hex
from time import monotonic, sleep

import pytest

from attack_support import PATH, client_script, files_of, permissions, placed, publish
from import_run import ImportCase, conn, connections_file, entry, export, key

SECRET = "correct-horse-battery"
PATIENCE_SECONDS = 120


@pytest.fixture
def secret(device):
    publish(device, "set", f"{PATH}/id-1/label", "Office")
    publish(device, "set", f"{PATH}/id-1/password", SECRET)
    return device


def holding(device, text):
    return {name for name, content in files_of(device).items() if text.encode() in content}


@pytest.mark.parametrize("umask, rights", [("077", 0o600), ("027", 0o640), ("022", 0o644)])
def test_files_with_secrets_have_the_rights_that_the_umask_leaves(secret, umask, rights):
    command = "corvik -get RDP -f out.xml && corvik -set RDP -f out.xml"
    assert secret.run("sh", "-c", f"umask {umask}; {command}").status == 0
    assert holding(secret, SECRET) == {"home/out.xml", "tmp/import.xml"}
    for path in (secret.home / "out.xml", secret.tmp / "import.xml", secret.home / "corvik.log"):
        assert permissions(path) == rights, path


def test_an_export_leaves_nothing_in_tmp(secret):
    assert secret.corvik("-get", "RDP", "-f", "out.xml").status == 0
    assert holding(secret, SECRET) == {"home/out.xml"}


def test_an_export_that_fails_leaves_the_secret_in_tmp(secret):
    client = client_script(secret, 'REGSH "$@" || exit\n'
                                   '[ "$1" != export ] || { echo "<" >>"$3"; exit 0; }\n')
    result = secret.run("sh", "-c", "umask 077; corvik -get RDP -f out.xml", client=client)
    assert result.status == 52
    assert holding(secret, SECRET) == {"tmp/freerdp.xml"}
    assert permissions(secret.tmp / "freerdp.xml") == 0o600


@pytest.mark.parametrize("zero", [False, True])
@pytest.mark.parametrize("remove", [False, True])
def test_no_value_of_a_connection_stands_in_a_command_a_message_or_the_log(device, programs, zero,
                                                                            remove):
    case = ImportCase(device, programs)
    document = export(conn("id-1", "Office", key("password", SECRET)))
    case.holds(document).lists("freerdp", "id-1")
    left = case.set(connections_file(document, entry("Office", Default="yes")), remove=remove,
                    zero=zero)
    assert SECRET in left.document
    told = [left.stderr, left.stdout, left.log, *(word for call in left.calls for word in call),
            *(line for _, line in left.commands)]
    assert [text for text in told if SECRET in text] == []


@pytest.mark.parametrize("option", ["-u", "-p", "-P"])
@pytest.mark.parametrize("mode", ["-get", "-set"])
def test_user_and_password_are_handed_to_nobody(device, programs, mode, option):
    case = ImportCase(device, programs)
    document = export(conn("id-1", "Office"))
    case.holds(document)
    left = case.set(connections_file(document, entry("Office")),
                    arguments=[mode, "RDP", "-f", "in.xml" if mode == "-set" else "out.xml",
                               option, SECRET])
    assert left.status == 0 and "[******] [******]" in left.log
    told = [left.stderr, left.stdout, left.log, *(word for call in left.calls for word in call)]
    assert [text for text in told if SECRET in text] == []
    assert holding(device, SECRET) == set()


def command_lines():
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            yield path.read_bytes().split(b"\0")
        except OSError:
            pass  # it has ended


def test_a_password_is_seen_in_the_list_of_processes(secret):
    """Fixed: whoever may look at processes sees it while the run lasts. Do not give it."""
    password = token_hex()  # this run's, not that of the same test elsewhere
    go = secret.etc / "go"
    client = client_script(secret, 'while [ ! -e "/etc/go" ]; do sleep 0.1; done\n'
                                   'exec REGSH "$@"\n')
    with ThreadPoolExecutor() as pool:
        try:
            run = pool.submit(secret.corvik, "-get", "RDP", "-f", "out.xml", "-p", password,
                              client=client)
            wanted = [b"corvik", b"-get", b"RDP", b"-f", b"out.xml", b"-p", password.encode(), b""]
            end = monotonic() + PATIENCE_SECONDS
            found = False
            while not found and not run.done() and monotonic() < end:
                found = any([Path(line[0].decode(errors="replace")).name.encode(), *line[1:]]
                            == wanted for line in command_lines())
                sleep(0.05)
        finally:
            go.touch()
    assert found
    assert run.result().status == 0


def test_a_shared_file_leaves_a_secret_out_when_its_lines_are_taken_out(secret):
    """An import without -r then keeps the device's own value."""
    (secret.home / "in.xml").write_text(
        connections_file(placed(conn("id-1", "Office")), entry("Office")))
    assert secret.corvik("-set", "RDP", "-f", "in.xml").status == 0
    assert secret.regsh("get", f"{PATH}/id-1/password").stdout.endswith(f" {SECRET}\n")
