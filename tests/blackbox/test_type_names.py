"""Translation of connection types: every name on every build, with every set of installed clients.

What a name is translated to shows in the registry path that the export asks for.
"""

import itertools

import pytest

from registry_export import (GET_DEFAULT, NAME_TABLE_CALLS, WALK_ENDED, Outcome, connection,
                             contains, default_is, export_call, export_with, exports, file_for,
                             log_of, named, outcome)

# Display name and registry name, by image types. A registry name with a question mark is a choice:
# the client, the name where it is installed, and the name where it is not.
CHOICES = {"RDP?": ("freerdp", "freerdp", "rdesktop"),
           "ICA?": ("xen", "xen", "ica"),
           "Firefox?": ("iceweasel", "iceweasel", "firefox")}

NEWEST = """Custom/custom ICA/xen Firefox/firefox RDP/freerdp SSH/ssh Tavrin/tavrin Telnet/telnet
            VDM/view Xdmcp/xdmcp"""
GT = """Custom/custom ICA/ica Firefox/iceweasel Leostream/leostream PNAgent/pnagent
        Provision/provision RDP/rdesktop RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin Telnet/telnet
        VDM/vdm Xdmcp/xdmcp"""

TABLE = {
    1: """Custom/custom ICA/ica Firefox/firefox Leostream/leostream PNAgent/pnagent
          Provision/provision RDP/rdesktop SSH/ssh Tavrin/tavrin Telnet/telnet VDM/vdm
          Xdmcp/xdmcp""",
    2: "",
    3: GT,
    4: GT,
    5: """Custom/custom ICA/ica Firefox/iceweasel Leostream/leostream PNAgent/pnagent RDP/rdesktop
          RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin Telnet/telnet VDM/view VWorkspace/vworkspace
          Xdmcp/xdmcp""",
    6: "VDM/view RDP/RDP? ICA/xen",
    7: """Custom/custom ICA/ICA? Firefox/Firefox? Leostream/leostream PNAgent/pnagent RDP/RDP?
          RGS/rgs BNJ/bnj-client SSH/ssh Tavrin/tavrin Telnet/telnet VDM/view VWorkspace/vworkspace
          Xdmcp/xdmcp""",
    8: NEWEST,
    9: NEWEST,
    10: NEWEST,
}

DISPLAY_NAMES = ("Custom", "ICA", "Firefox", "Leostream", "PNAgent", "Provision", "RDP", "RGS",
                 "BNJ", "SSH", "Tavrin", "Telnet", "VDM", "VWorkspace", "Xdmcp")
# Other cases of a known name, registry names and names that no table knows.
PASSING_NAMES = ("rdp", "Rdp", "ica", "FIREFOX", "tAVRIN", "xdmcp", "rdesktop", "freerdp", "view",
                 "iceweasel", "bnj-client", "RDP2", "RD", "Unknown", "10", "root/RDP", "")

CLIENTS = ("freerdp", "xen", "iceweasel")
INSTALLED_SETS = [clients for count in range(len(CLIENTS) + 1)
                  for clients in itertools.combinations(CLIENTS, count)]


def expected_names(image_type, installed):
    names = {name: name for name in DISPLAY_NAMES}
    for pair in TABLE[image_type].split():
        display, registry = pair.split("/")
        if registry in CHOICES:
            client, with_client, without = CHOICES[registry]
            registry = with_client if client in installed else without
        names[display] = registry
    return names


def exported_names(device, recorder, names, **identity):
    """Exports each of the names and gives the name of the directory that was exported for it."""
    recorder.clear()
    # What an export would go on with is left out.
    recorder.on("export", ..., status=1)
    script = ('for name in "$@"; do regsh run "$name"; corvik -get "$name" -f out.xml; done'
              ' 2> messages; true')
    assert device.run("sh", "-c", script, "sh", *names, **identity).status == 0
    found = {}
    for call in recorder.calls:
        if call[1] == "run":
            name = call[2]
        elif call[1] == "export":
            assert call == export_call(call[2].removeprefix("root/ConnectionType/"))
            found[name] = call[2].removeprefix("root/ConnectionType/")
    return found


def install(recorder, installed):
    for client in CLIENTS:
        if client not in installed:
            recorder.on("contains", f"root/ConnectionType/{client}", status=1)


@pytest.mark.parametrize("installed", INSTALLED_SETS, ids=lambda clients: "+".join(clients) or "-")
@pytest.mark.parametrize("image_type", TABLE)
def test_every_name(device, image_type, installed):
    recorder = device.recorder()
    install(recorder, installed)
    wanted = expected_names(image_type, installed)
    assert exported_names(device, recorder, wanted, image_type=image_type) == wanted


@pytest.mark.parametrize("image_type", TABLE)
def test_names_that_pass_through(device, image_type):
    wanted = {name: name for name in PASSING_NAMES}
    assert exported_names(device, device.recorder(), wanted, image_type=image_type) == wanted


@pytest.mark.parametrize("image_type, identity", [(5, "systeminfo"), (5, "imageid"),
                                                  (7, "systeminfo"), (7, "imageid")])
def test_the_source_of_the_identity_does_not_matter(device, image_type, identity):
    recorder = device.recorder()
    wanted = expected_names(image_type, CLIENTS)
    assert exported_names(device, recorder, wanted, image_type=image_type,
                          identity=identity) == wanted


@pytest.mark.parametrize("image_type", [6, 8, 9, 10])
def test_zero_clients_have_the_same_names(device, image_type):
    recorder = device.recorder()
    wanted = expected_names(image_type, CLIENTS)
    assert exported_names(device, recorder, wanted, image_type=image_type, zero=True) == wanted


@pytest.mark.parametrize("answer", [{"status": 1}, {"status": 2}, {"status": 127}, {"status": 255},
                                    {"signal": 9}, {"signal": 15}],
                         ids=lambda answer: "-".join(f"{k}-{v}" for k, v in answer.items()))
def test_any_other_status_than_0_means_not_installed(device, answer):
    recorder = device.recorder()
    for client in CLIENTS:
        recorder.on(*contains(client)[1:], **answer)
    names = ("RDP", "ICA", "Firefox")
    assert exported_names(device, recorder, names, image_type=7) == {
        "RDP": "rdesktop", "ICA": "ica", "Firefox": "firefox"}


def test_output_of_the_query_does_not_matter(device):
    recorder = device.recorder()
    recorder.on(*contains("freerdp")[1:], stdout="no\n", status=0)
    recorder.on(*contains("xen")[1:], stdout="yes\n", status=1)
    assert exported_names(device, recorder, ("RDP", "ICA"), image_type=7) == {
        "RDP": "freerdp", "ICA": "ica"}


def test_output_of_the_queries_goes_to_the_tools_own_output(device):
    recorder = exports(device.recorder(), export_with())
    recorder.on(*contains("xen")[1:], stdout="xen is there\n", stderr="slow today\n")
    result = device.corvik("-get", "RDP", "-f", "out.xml")
    assert outcome(device, result) == Outcome(
        0, stdout="xen is there\n", stderr="slow today\n" + WALK_ENDED,
        log=log_of("RDP", "out.xml", 0), file=b"<RDP/>\n")


@pytest.mark.parametrize("first, last, on_6, on_7", [(1, 0, "rdesktop", "freerdp"),
                                                     (0, 1, "freerdp", "rdesktop")])
def test_image_types_6_and_7_have_a_query_of_their_own(device, first, last, on_6, on_7):
    recorder = device.recorder()
    recorder.on(*contains("freerdp")[1:], status=last)
    recorder.on(*contains("freerdp")[1:], status=first, times=1)
    assert exported_names(device, recorder, ("RDP",), image_type=6) == {"RDP": on_6}
    assert exported_names(device, recorder, ("RDP",), image_type=7) == {"RDP": on_7}


@pytest.mark.parametrize("image_type", range(1, 11))
def test_the_queries_run_once_and_first_on_every_build(device, image_type):
    recorder = device.recorder()
    default_is(recorder, "the-one")
    document = export_with(connection("the-one", "One"))
    exports(recorder, document)
    result = device.corvik("-get", "Unknown", "-f", "out.xml", image_type=image_type)
    assert outcome(device, result) == Outcome(
        0, stderr=WALK_ENDED, log=log_of("Unknown", "out.xml", 0),
        file=file_for("Unknown", document, named("One")))
    first = [GET_DEFAULT] if image_type == 6 else []
    assert recorder.calls == [*NAME_TABLE_CALLS, *first, export_call("Unknown")]
