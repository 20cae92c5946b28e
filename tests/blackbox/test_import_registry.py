"""Import into the reference client's registry: what it holds afterwards, and what is staged."""

from pathlib import Path

import pytest

from import_run import (DEFAULT, NO_GENERAL, THEME, WALK_OVER, conn, connections_file,
                        connections_path, entry, export, key, type_path)

SAMPLES = Path(__file__).resolve().parent.parent.parent / "samples"
SESSIONS = {path.name: path.read_bytes() for path in (SAMPLES / "tavrin").iterdir()}
PATH = connections_path("freerdp")


@pytest.fixture
def standard(device):
    """The ordinary device of the samples, with all clients of its build."""
    return with_sessions(device.load_registry(SAMPLES / "standard.xml"))


@pytest.fixture
def zero(device):
    return with_sessions(device.load_registry(SAMPLES / "zero.xml"))


def with_sessions(device):
    for name, content in SESSIONS.items():
        (device.sessions / name).write_bytes(content)
    return device


def tree(device, path="root"):
    result = device.regsh("tree", path, image_type=None)
    assert result.status == 0, result.stderr
    return result.stdout


def identifiers(device, path=PATH):
    listing = device.regsh("get", path, image_type=None)
    return [line.split("/")[-1] for line in listing.stdout.splitlines()]


def value(device, path):
    answer = device.regsh("get", path, image_type=None)
    return answer.stdout.removeprefix(f"{path} ").removesuffix("\n") if answer.status == 0 else None


def publish(device, *words):
    for command in (words, ("commit",)):
        result = device.regsh(*command, image_type=None)
        assert result.status == 0, result.stderr


def assert_nothing_staged(device):
    assert (device.regsh("diff", image_type=None).stdout, device.tmp_leftovers()) == (
        "", ["import.xml"])


def get(device, typed, name="out.xml", **options):
    result = device.corvik("-get", typed, "-f", name, **options)
    assert (result.status, result.stdout) == (0, ""), result
    return (device.home / name).read_bytes()


def set_(device, typed, content, *flags, stderr=2 * WALK_OVER, **options):
    """Imports the content, which must go through with these messages."""
    (device.home / "in.xml").write_bytes(content if isinstance(content, bytes)
                                         else content.encode())
    result = device.corvik("-set", typed, "-f", "in.xml", *flags, **options)
    assert (result.status, result.stdout, result.stderr) == (0, "", stderr)
    assert result.log.endswith(b"rc=0\n")
    return result


def placed(*connections, registry_type="freerdp"):
    """An export that tells the reference client where its directories belong."""
    document = export(*connections)
    type_folder = document.children[0].children[0]
    type_folder.attributes = {"name": registry_type, "path": type_path(registry_type)}
    del type_folder.children[2], type_folder.children[0]
    return document


def labels(device, path=PATH):
    return {name: value(device, f"{path}/{name}/label") for name in identifiers(device, path)}


@pytest.fixture
def plain(device):
    """A device whose registry knows one type, with two connections."""
    for name, label in (("id-1", "Office"), ("id-2", "Home")):
        publish(device, "set", f"{PATH}/{name}/label", label)
        publish(device, "set", f"{PATH}/{name}/autostart", "1")
    return device


NAMES = [("RDP", "rdesktop", 5), ("RDP", "freerdp", 9), ("ICA", "xen", 9), ("VDM", "view", 9),
         ("Firefox", "firefox", 9), ("SSH", "ssh", 9), ("Telnet", "telnet", 9),
         ("Xdmcp", "xdmcp", 9), ("Tavrin", "tavrin", 9), ("VDM", "vdm", 4), ("ICA", "ica", 4),
         ("Firefox", "iceweasel", 7)]


@pytest.mark.parametrize("remove", [False, True], ids=["merge", "remove"])
@pytest.mark.parametrize("typed, registry_type, image_type", NAMES,
                         ids=[row[1] for row in NAMES])
def test_export_and_import_change_nothing(standard, typed, registry_type, image_type, remove):
    before = tree(standard)
    file = get(standard, typed, image_type=image_type)
    assert identifiers(standard, connections_path(registry_type)) != []
    stderr = 2 * WALK_OVER
    if remove:
        stderr += NO_GENERAL
    elif typed == "Tavrin":  # the merge reads the session files, of which one has no companion
        stderr += "read file /etc/tavrin/connections/accounting.ws fail\n"
    set_(standard, typed, file, *(["-r"] if remove else []), image_type=image_type, stderr=stderr)
    assert tree(standard) == before
    assert get(standard, typed, image_type=image_type) == file
    assert_nothing_staged(standard)


def test_merge_adds_changes_and_keeps(plain):
    document = placed(conn("id-2", "Home again"), conn("id-3", "Third", key("port", "a b & c")))
    set_(plain, "RDP", connections_file(document, entry("home AGAIN"), entry("Third")))
    assert tree(plain, PATH) == (
        f"{PATH}/\n"
        '  id-1/\n    label = "Office"\n    autostart = "1"\n    hasDesktopIcon = ""\n'
        '  id-2/\n    label = "Home again"\n    autostart = "1"\n    hasDesktopIcon = ""\n'
        '  id-3/\n    label = "Third"\n    port = "a b & c"\n    hasDesktopIcon = ""\n')
    assert_nothing_staged(plain)


def test_remove_replaces(plain):
    document = placed(conn("id-2", "Home again"))
    set_(plain, "RDP", connections_file(document, entry("Home again")), "-r",
         stderr=2 * WALK_OVER + NO_GENERAL)
    assert tree(plain, PATH) == (
        f'{PATH}/\n  id-2/\n    label = "Home again"\n    hasDesktopIcon = ""\n')
    assert_nothing_staged(plain)


def test_disabled_connections_stay_away(plain):
    document = placed(conn("id-3", "Third"), conn("id-4", "Fourth"))
    set_(plain, "RDP", connections_file(document, entry("Third", "no"), entry("Fourth", "Yes")))
    assert labels(plain) == {"id-1": "Office", "id-2": "Home", "id-4": "Fourth"}
    assert_nothing_staged(plain)


def test_a_disabled_connection_that_the_registry_holds_stays_as_it_is(plain):
    document = placed(conn("id-1", "Office changed"))
    set_(plain, "RDP", connections_file(document, entry("Office changed", "no")))
    assert labels(plain) == {"id-1": "Office", "id-2": "Home"}
    assert_nothing_staged(plain)


def test_labels_that_occur_twice(plain):
    document = placed(conn("id-5", "Twin"), conn("id-6", "TWIN"), conn("id-7", "twin"))
    set_(plain, "RDP", connections_file(document, entry("twin"), entry("Twin")))
    assert labels(plain) == {"id-1": "Office", "id-2": "Home", "id-5": "Twin", "id-6": "TWIN"}
    assert_nothing_staged(plain)


def test_an_unknown_type_changes_nothing(plain):
    before = tree(plain)
    set_(plain, "Telnet", connections_file(placed(conn("x", "X")), entry("X")), "-r", stderr="")
    assert tree(plain) == before
    assert plain.tmp_leftovers() == []


@pytest.mark.parametrize("icon, kept", [("1", "1"), ("0", "0"), ("a  b", "a"), ("", "")])
def test_icons_are_written_back_as_their_first_word(plain, icon, kept):
    publish(plain, "set", f"{PATH}/id-1/hasDesktopIcon", icon)
    set_(plain, "RDP", connections_file(placed()))
    assert value(plain, f"{PATH}/id-1/hasDesktopIcon") == kept
    assert_nothing_staged(plain)


def test_values_with_any_character_come_through(plain):
    odd = "$(touch /tmp/owned) `x` ;'\" | & < > * ~ # ! \\ \u00fc"
    document = placed(conn("id-3", odd, key("program", odd)))
    set_(plain, "RDP", connections_file(document, entry(odd)))
    assert labels(plain)["id-3"] == odd
    assert value(plain, f"{PATH}/id-3/program") == odd
    assert_nothing_staged(plain)


@pytest.mark.parametrize("identifier", [
    "a b", "$(touch owned)", "a;b", "it's", 'a"b', "*", "\u00fc"])
def test_identifiers_with_any_character_come_through(plain, identifier):
    document = placed(conn(identifier, "Odd"))
    # The listing gives a directory with a blank as three words, which the icons pass over.
    set_(plain, "RDP", connections_file(document, entry("Odd", Default="yes")), zero=True,
         stderr=3 * WALK_OVER)
    assert labels(plain)[identifier] == "Odd"
    assert value(plain, DEFAULT) == identifier
    assert_nothing_staged(plain)


def test_a_default_with_blanks_is_set_whole_and_started_by_its_first_word(plain):
    set_(plain, "RDP", connections_file(placed(conn("a b", "Odd")), entry("Odd", Default="yes")),
         zero=True, stderr=3 * WALK_OVER)
    assert value(plain, DEFAULT) == "a b"
    assert value(plain, f"{PATH}/a b/autostart") == "0"
    assert value(plain, f"{PATH}/a/autostart") == "1"
    assert_nothing_staged(plain)


# Zero clients

def test_a_zero_client_starts_its_default_and_nothing_else(zero):
    names = identifiers(zero)
    file = get(zero, "RDP", zero=True)
    assert file.count(b' Default="yes"') == 1
    file = file.replace(b' Default="yes"', b"", 1).replace(
        b' Enabled="yes"/>\n  <General>', b' Enabled="yes" Default="yes"/>\n  <General>')
    set_(zero, "RDP", file, zero=True, stderr=3 * WALK_OVER)
    assert value(zero, DEFAULT) == names[-1]
    assert value(zero, THEME) == "freerdp"
    started = {name: value(zero, f"{PATH}/{name}/autostart") for name in names}
    assert started == {**dict.fromkeys(names, "0"), names[-1]: "1"}
    assert_nothing_staged(zero)


def test_a_default_of_another_type_takes_the_theme_with_it(zero):
    file = get(zero, "VDM", zero=True)
    file = file.replace(b' Enabled="yes"/>', b' Enabled="yes" Default="YES"/>', 1)
    set_(zero, "VDM", file, zero=True, stderr=3 * WALK_OVER)
    path = connections_path("view")
    assert value(zero, DEFAULT) == identifiers(zero, path)[0]
    assert value(zero, THEME) == "view"
    assert value(zero, f"{path}/{identifiers(zero, path)[0]}/autostart") == "1"
    assert_nothing_staged(zero)


def test_removing_the_default_takes_default_and_theme(zero):
    assert (value(zero, DEFAULT), value(zero, THEME)) == (identifiers(zero)[0], "freerdp")
    set_(zero, "RDP", connections_file(placed()), "-r", zero=True,
         stderr=2 * WALK_OVER + NO_GENERAL + WALK_OVER)
    assert identifiers(zero) == []
    assert (value(zero, DEFAULT), value(zero, THEME)) == ("", "default")
    assert_nothing_staged(zero)


def test_removing_others_leaves_default_and_theme(zero):
    before = (value(zero, DEFAULT), value(zero, THEME))
    set_(zero, "VDM", connections_file(placed(registry_type="view")), "-r", zero=True,
         stderr=2 * WALK_OVER + NO_GENERAL + WALK_OVER)
    assert identifiers(zero, connections_path("view")) == []
    assert (value(zero, DEFAULT), value(zero, THEME)) == before
    assert_nothing_staged(zero)


# The newer layout

def test_the_newer_layout_replaces_all_of_its_types(standard):
    others = {name: tree(standard, type_path(name)) for name in ("ssh", "rdesktop", "firefox")}
    document = placed(conn("id-1", "One"), conn("id-2", "Two"), registry_type="xen")
    set_(standard, "ICA", connections_file(document, entry("One", "no"), entry("Two")),
         image_type=6, stderr=2 * WALK_OVER + NO_GENERAL)
    assert {name: labels(standard, connections_path(name)) for name in ("view", "freerdp", "xen")} \
        == {"view": {}, "freerdp": {}, "xen": {"id-2": "Two"}}
    assert value(standard, DEFAULT) == "id-1"
    assert value(standard, THEME) == "default"
    assert standard.regsh("contains", "root/ConnectionType/.toBeRefreshed").status == 1
    assert {name: tree(standard, type_path(name)) for name in others} == others
    assert_nothing_staged(standard)


# Session files

@pytest.mark.parametrize("remove", [False, True], ids=["merge", "remove"])
def test_session_files_come_back_on_an_empty_device(make_device, remove):
    source = with_sessions(make_device("source").load_registry(SAMPLES / "standard.xml"))
    file = get(source, "Tavrin")
    target = make_device("target")
    publish(target, "create", type_path("tavrin"))
    set_(target, "Tavrin", file, *(["-r"] if remove else []),
         stderr=missing_connections(remove))
    path = connections_path("tavrin")
    assert tree(target, path) == tree(source, path)
    assert {each.name for each in target.sessions.iterdir()} == set(SESSIONS)
    # Only the directory of connections is committed: what stands beside it waits for a commit.
    staged = target.regsh("diff").stdout.splitlines()
    assert staged != [] and not any(path in line for line in staged)
    publish(target, "create", path)
    assert get(target, "Tavrin") == file
    assert_nothing_staged(target)


@pytest.mark.parametrize("options", [{"image_type": 6}, {"zero": True}], ids=["newer", "zero"])
def test_settings_beside_the_connections_are_committed_with_everything(plain, options):
    document = export(conn("id-1", "Office"))
    document.children[0].children[0].attributes = {"name": "freerdp", "path": type_path("freerdp")}
    for name in ("view", "xen"):
        publish(plain, "create", connections_path(name))
    stderr = 3 * WALK_OVER if "zero" in options else 2 * WALK_OVER + NO_GENERAL
    set_(plain, "RDP", connections_file(document, entry("Office")), stderr=stderr, **options)
    assert value(plain, type_path("freerdp/before/depth")) == "24"
    assert_nothing_staged(plain)


def missing_connections(remove):
    # The commit of a directory that is not there is the client's to complain about.
    complaint = f"regsh: {connections_path('tavrin')} is not in the registry\n" if remove else ""
    return complaint + WALK_OVER + "Could not find <NodeDir> - connections. \n" + NO_GENERAL


def test_two_thousand_connections_over_two_thousand_others(device):
    def many(prefix):
        return [conn(f"{prefix}-{number}", f"{prefix} {number}") for number in range(2000)]

    old, new = placed(*many("old")), placed(*many("new"))
    (device.home / "old.xml").write_text(old.printed())
    for words in (("import", "old.xml"), ("commit",)):
        assert device.regsh(*words, image_type=None).status == 0
    assert len(identifiers(device)) == 2000
    for name in ("view", "xen"):
        publish(device, "create", connections_path(name))
    # The newer layout deletes what is there; the classic one would keep it and refresh its icons.
    set_(device, "RDP", connections_file(new, *(entry(f"NEW {n}") for n in range(2000))),
         image_type=6, stderr=2 * WALK_OVER + NO_GENERAL)
    assert identifiers(device) == [f"new-{number}" for number in range(2000)]
    assert value(device, DEFAULT) == "new-0"
    assert_nothing_staged(device)
