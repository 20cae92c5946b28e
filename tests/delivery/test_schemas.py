"""The schemas: what they take, what they refuse, and how that agrees with the tool.

CORVIK_BIN_DIR names the folder of the built programs.
"""

import difflib
import functools
import os
import re
import shutil
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

from kept_documents import (NO_NAME, NO_UTF_8, NO_XML_CHARACTER, ROOT, TWICE, paths_of,
                            why_no_xml)

SCHEMAS = ROOT / "packaging/schema"
SAMPLES = Path(__file__).resolve().parent / "schema_samples"
PROGRAMS = Path(os.environ["CORVIK_BIN_DIR"]).resolve()

FORMS = {"rng": "--relaxng", "xsd": "--schema"}
SCHEMA_OF = {"connections": "corvik-connections", "registry-export": "registry-export"}


def samples(kind):
    return sorted((SAMPLES / kind).iterdir())


def names_of(paths):
    return {path.stem for path in paths}


def taken(schema, form, files):
    """Those of the files that the schema takes, in one call of xmllint for all of them."""
    files = [str(file) for file in files]
    call = ["xmllint", "--nonet", "--noout", FORMS[form], SCHEMAS / f"{schema}.{form}", *files]
    done = subprocess.run(call, capture_output=True)
    lines = set(done.stderr.decode("utf-8", "replace").splitlines())
    # 1, 3, 4: a file is no XML, or not valid. Anything else: xmllint or the schema failed.
    assert done.returncode in (0, 1, 3, 4), "\n".join(lines)
    return [Path(file) for file in files if f"{file} validates" in lines]


def refused(schema, form, files):
    good = set(taken(schema, form, files))
    return [file for file in files if file not in good]


# The forms that are made from the source ("./dev check" makes them anew and compares)

def test_each_source_has_both_forms():
    assert {path.name for path in SCHEMAS.iterdir()} == {
        f"{name}.{form}" for name in SCHEMA_OF.values() for form in ("rnc", "rng", "xsd")}


# Samples

BEYOND_XSD = {"session_misses", "session_name_alone", "session_without_kss_file"}
"""Faults that XML Schema cannot express: attributes and elements that come only together."""

REFUSED_BY_XSD = {"root_of_unknown_type"}
"""Valid files that it refuses all the same, for it has no root element of any name."""


@pytest.mark.parametrize("kind", SCHEMA_OF)
def test_valid_files_are_taken(kind):
    files = samples(f"{kind}/valid")
    assert refused(SCHEMA_OF[kind], "rng", files) == []
    assert names_of(refused(SCHEMA_OF[kind], "xsd", files)) == (
        REFUSED_BY_XSD if kind == "connections" else set())


@pytest.mark.parametrize("kind, least", [("connections", 25), ("registry-export", 25)])
def test_files_with_a_fault_are_refused(kind, least):
    files = samples(f"{kind}/invalid")
    assert len(files) >= least
    for file in files:
        ElementTree.parse(file)  # its fault is not that it is no XML
    assert taken(SCHEMA_OF[kind], "rng", files) == []
    assert names_of(taken(SCHEMA_OF[kind], "xsd", files)) == (
        BEYOND_XSD if kind == "connections" else set())


def changes(text, base):
    """How many runs of lines differ."""
    pieces = difflib.SequenceMatcher(None, base.splitlines(), text.splitlines(), autojunk=False)
    return sum(tag != "equal" for tag, *_ in pieces.get_opcodes())


@pytest.mark.parametrize("kind, bases", [
    ("connections", ["as_written", "as_written_with_sessions"]),
    ("registry-export", ["as_exported"])])
def test_each_fault_stands_alone(kind, bases):
    """A part is changed, or moved, or the names at both its ends are."""
    originals = [(SAMPLES / kind / "valid" / f"{base}.xml").read_text() for base in bases]
    for file in samples(f"{kind}/invalid"):
        text = file.read_text()
        # The export in the place of the connections file has next to no line in common with it.
        assert file.stem == "export_itself" or 1 <= min(
            changes(text, original) for original in originals) <= 2, file.stem


def test_the_files_as_written_are_those_of_the_programs(tmp_path):
    """And the one of them is the example of the document on the format."""
    device = tmp_path / "device"
    call = [PROGRAMS / "device", "--keep", device, "--image-type", "9", "--"]
    subprocess.run([*call, "true"], check=True)
    exported = SAMPLES / "registry-export/valid/as_exported.xml"
    written = SAMPLES / "connections/valid/as_written.xml"
    shutil.copy(exported, device / "home/in.xml")
    script = ("regsh import in.xml && regsh commit && corvik -get RDP -f out.xml && "
              "regsh export root/ConnectionType/freerdp export.xml")
    subprocess.run([*call, "sh", "-c", script], cwd=device / "home", check=True)
    assert (device / "home/out.xml").read_text() == written.read_text()
    assert (device / "home/export.xml").read_text() == exported.read_text()
    text = (ROOT / "docs/file-format.md").read_text()
    assert f"```xml\n{written.read_text()}```\n" in text


# What the tool makes of the connections files

REGISTRY = """\
<NodeDir name="root">
  <NodeDir name="system">
    <NodeKey name="productConfig"><NodeParam type="string">zero</NodeParam></NodeKey>
  </NodeDir>
  <NodeDir name="ConnectionManager">
    <NodeKey name="defaultConnection"><NodeParam type="string"/></NodeKey>
  </NodeDir>
  <NodeDir name="ConnectionType">
    <NodeDir name="freerdp"><NodeDir name="connections"/></NodeDir>
    <NodeDir name="tavrin"><NodeDir name="connections"/></NodeDir>
  </NodeDir>
</NodeDir>
"""

IMPORT_EACH = """
regsh load registry.xml && cp -r /etc/regsh clean || exit
for file in "$@"; do
    name=${file##*/}
    rm -rf /etc/regsh /etc/tavrin || exit
    cp -r clean /etc/regsh && mkdir -p /etc/tavrin/connections || exit
    type=RDP path=root/ConnectionType/freerdp
    ! grep -q '^<Tavrin>' "$file" || type=Tavrin path=root/ConnectionType/tavrin
    corvik -set $type -f "$file" 2>messages
    echo "$name status $?"
    regsh tree $path/connections | sed -n "s|^.*label = \\"\\(.*\\)\\"|$name label \\1|p"
    regsh get root/ConnectionManager/defaultConnection | sed "s|^[^ ]* *|$name default |"
    (cd /etc/tavrin/connections && find . -type f) | sort | sed "s|^\\./|$name session |"
    grep -v -e '<NodeDir> - UUID' -e '<General>' messages | sed "s|^|$name told |"
done
exit 0
"""


class Imported:
    """What the import of one file came to, on a device that had no connections before."""

    def __init__(self):
        self.status = None
        self.labels = []
        self.default = ""
        self.sessions = []
        self.messages = []

    def note(self, what, value):
        if what == "status":
            self.status = int(value)
        elif what == "default":
            self.default = value
        else:
            {"label": self.labels, "session": self.sessions, "told": self.messages}[what].append(
                value)

    @property
    def result(self):
        return (self.status, *self.labels)


@pytest.fixture(scope="module")
def imported(tmp_path_factory):
    """imported("valid"): name and outcome of each connections file of that kind."""

    @functools.cache
    def run(kind):
        device = tmp_path_factory.mktemp(kind) / "device"
        call = [PROGRAMS / "device", "--keep", device, "--image-type", "9", "--zero", "--"]
        subprocess.run([*call, "true"], check=True)
        (device / "home/registry.xml").write_text(REGISTRY)
        files = samples(f"connections/{kind}")
        for file in files:
            shutil.copy(file, device / "home")
        names = [file.name for file in files]
        done = subprocess.run([*call, "sh", "-c", IMPORT_EACH, "sh", *names],
                              cwd=device / "home", capture_output=True)
        assert (done.returncode, done.stderr) == (0, b"")
        outcomes = {file.stem: Imported() for file in files}
        for line in done.stdout.decode("utf-8", "replace").splitlines():
            name, what, value = (line + " ").split(" ", 2)
            outcomes[name.removesuffix(".xml")].note(what, value.removesuffix(" "))
        return outcomes

    return run


BOTH = (0, "Office", "Büro")
SECOND = (0, "Büro")
NOTHING = (0,)


def expect(outcomes, *groups):
    """Groups are pairs of a result and the names of the files with it; all others give BOTH."""
    expected = dict.fromkeys(outcomes, BOTH)
    for result, names in groups:
        expected.update(dict.fromkeys(names.split(), result))
    assert {name: outcome.result for name, outcome in outcomes.items()} == expected


def test_the_tool_takes_valid_files(imported):
    expect(imported("valid"),
           (SECOND, "connection_taken_out name_empty name_that_general_does_not_know"
                    " name_with_entities switched_off switched_off_in_capitals"),
           (NOTHING, "as_written_without_connections connections_taken_out"))


def test_a_mark_makes_the_default_connection(imported):
    assert {name: outcome.default for name, outcome in imported("valid").items()
            if outcome.default} == {"default_marked": "c1"}


def test_sessions_of_valid_files_are_written(imported):
    assert {name: outcome.sessions for name, outcome in imported("valid").items()
            if outcome.sessions} == {
        "as_written_with_sessions": ["office.kss", "office.ws"],
        "session_empty": ["office.kss", "office.ws"],
        "session_file_with_dots": ["..office...kss", "..office...ws"],
        "session_without_tavrin_name": ["office.kss", "office.ws"],
        "session_without_window_settings": ["office.kss"]}


def test_the_tool_passes_over_most_faults(imported):
    """The point of the schema: a fault costs a connection, or all, mostly without a word."""
    outcomes = imported("invalid")
    expect(outcomes,
           (SECOND, "attribute_misspelt connection_in_lower_case connection_misspelt"
                    " connections_in_a_group enabled_1 enabled_empty enabled_missing enabled_true"
                    " enabled_yes_and_no name_as_element name_missing"),
           (NOTHING, "export_itself file_in_file general_in_lower_case general_missing"),
           ((20,), "root_with_text"),
           ((52,), "general_as_elements general_blank general_empty general_no_document"))
    assert {name: outcome.messages for name, outcome in outcomes.items() if outcome.messages} == {
        "root_with_text": ["Failed to parse root_with_text.xml"],
        "session_outside_by_a_way_round": ["Invalid session file name a/../b."],
        "session_outside_the_folder": ["Invalid session file name ../../passwd."],
        "session_without_kss_file": ["Could not find KSSFile. "]}


def test_a_mark_that_is_not_yes_makes_no_default_connection(imported):
    assert not any(outcome.default for outcome in imported("invalid").values())


# Where the tool's language and XML part

def test_some_valid_files_are_not_read_by_the_tool(imported):
    """XML that no schema can forbid: the fault is in the writing, not in the content."""
    files = samples("connections/tool_refuses")
    assert refused("corvik-connections", "rng", files) == []
    expect(imported("tool_refuses"),
           ((52,), "number_for_a_character"),
           ((20,), " ".join(names_of(files) - {"number_for_a_character"})))


def test_some_files_that_are_no_xml_are_read_by_the_tool(imported):
    files = samples("connections/tool_alone")
    assert [file.stem for file in files if is_xml(file.read_bytes())] == []
    assert taken("corvik-connections", "rng", files) == []
    expect(imported("tool_alone"),
           (SECOND, "control_character invalid_utf_8"),
           ((0, "Office"), "bare_ampersand"),
           (NOTHING, "blank_before_the_name"))


def is_xml(data):
    try:
        ElementTree.fromstring(data)
    except (ElementTree.ParseError, ValueError):
        return False
    return True


# What the programs have written in the black-box tests


def validity(schema, form, documents):
    """The documents, each with whether the schema takes it."""
    good = set(taken(schema, form, paths_of(documents)))
    return [(document, document.path in good) for document in documents]


def test_every_connections_file_that_is_written_is_valid(kept):
    documents = kept["connections"]
    assert len(paths_of(documents)) >= 80
    wrong = [document for document, valid in validity("corvik-connections", "rng", documents)
             if not valid and document.excuse is None]
    assert wrong == []


def test_every_reason_is_true(kept):
    """No document is excused that is XML all the same."""
    excused = [document for document in kept["connections"] if document.excuse]
    assert {document.excuse for document in excused} >= {NO_NAME, NO_UTF_8, TWICE}
    assert [document for document in excused if is_xml(document.data)] == []


def test_every_connections_file_of_a_known_type_is_valid_as_xsd_says(kept):
    known = set(re.findall(r'<xs:element name="([^"]*)" type="content"/>',
                           (SCHEMAS / "corvik-connections.xsd").read_text()))
    documents = [document for document in kept["connections"]
                 if document.excuse is None
                 and re.match(r"[^\s/>]*", document.data.decode()[1:])[0] in known]
    assert len(paths_of(documents)) >= 60
    assert [document for document, valid in validity("corvik-connections", "xsd", documents)
            if not valid] == []


@pytest.mark.parametrize("form", FORMS)
def test_every_export_of_the_reference_client_is_valid(kept, form):
    documents = [document for document in kept["export"] if document.excuse is None]
    assert documents
    assert [document for document, valid in validity("registry-export", form, documents)
            if not valid] == []


def test_general_carries_what_the_client_exported(kept, tmp_path):
    """With the reference client the text of General is a valid export, too."""
    texts = {ElementTree.fromstring(document.data).findtext("General")
             for document in kept["connections"]
             if not document.scripted and document.excuse is None} - {None}
    files = []
    for number, text in enumerate(sorted(texts)):
        files.append(tmp_path / f"{number}.xml")
        files[-1].write_text(text, encoding="utf-8")
    assert len(files) >= 20
    for form in FORMS:
        assert refused("registry-export", form, files) == []


def test_an_import_of_a_valid_file_gives_the_client_a_valid_document(kept, tmp_path):
    documents = [document for document in kept["import"]
                 if document.given and not document.scripted
                 and carries_valid_export(document.given, tmp_path)]
    assert documents
    for form in FORMS:
        assert [document for document, valid in validity("registry-export", form, documents)
                if not valid] == []


@functools.cache
def carries_valid_export(file, folder):
    data = file.read_bytes()
    text = ElementTree.fromstring(data).findtext("General") if is_xml(data) else None
    if text is None:
        return False
    (folder / file.name).write_text(text, encoding="utf-8")
    return taken("registry-export", "rng", [folder / file.name]) != []


# Values from the registry that are hard to write

EXPORT_EACH = """
regsh create root/ConnectionType/freerdp/connections
number=0
for value in "$@"; do
    regsh set root/ConnectionType/freerdp/connections/c1/label "$value" && regsh commit || exit
    regsh export root/ConnectionType/freerdp export.$number || exit
    corvik -get RDP -f file.$number 2>>messages || exit
    number=$((number + 1))
done
"""

HARD_VALUES = {
    b"B\xfcro": NO_UTF_8,
    b"\xed\xa0\x80": NO_UTF_8,  # half of a surrogate pair
    b"\xc0\xaf": NO_UTF_8,  # longer than need be
    "x\ufffe".encode(): NO_XML_CHARACTER,
    "\uffff".encode(): NO_XML_CHARACTER,
    b"x\x7f": None,
    "x\u0085y\u2028z".encode(): None,
    "\U0010ffff".encode(): None,
    b"one\ttwo\nthree\rfour": None,
    b"-- <!-- x --> <![CDATA[ ]]> &amp; &#1; &x; <y z='\"'>": None,
    b"": None,
}


def test_hard_values_end_in_xml_or_for_a_reason(tmp_path):
    device = tmp_path / "device"
    call = [PROGRAMS / "device", "--keep", device, "--image-type", "9", "--"]
    subprocess.run([*call, "true"], check=True)
    done = subprocess.run([*call, "sh", "-c", EXPORT_EACH, "sh", *HARD_VALUES],
                          cwd=device / "home", capture_output=True)
    assert (done.returncode, done.stderr) == (0, b"")
    for name, schema in (("file", "corvik-connections"), ("export", "registry-export")):
        files = [device / "home" / f"{name}.{number}" for number in range(len(HARD_VALUES))]
        reasons = [why_no_xml(file.read_bytes(), "RDP") for file in files]
        assert dict(zip(HARD_VALUES, reasons)) == HARD_VALUES
        for form in FORMS:
            good = taken(schema, form, files)
            assert good == [file for file, why in zip(files, reasons) if why is None]
