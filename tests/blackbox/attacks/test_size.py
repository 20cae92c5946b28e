"""Documents that are nested, that grow, or that point elsewhere.

How deep is too deep, and what comes of printing gigabytes, is told by
tests/blackbox/test_hostile_file.py and test_export_failures.py; here are the stack, the memory and
entities.
"""

import signal

import pytest

from import_run import (WALK_OVER, ImportCase, Left, classic, conn, connections_file, entry, export,
                        key, looked_up, refreshed)
from recorder_client import ANY

SMALL_STACK = "ulimit -s 256"  # KiB; a call for each level would need more for 10000 of them
DEEPEST = 10000


@pytest.fixture
def case(device, programs):
    return ImportCase(device, programs)


def nested(depth, inside=""):
    return "<a>" * depth + inside + "</a>" * depth


# Depth

def test_a_deep_file_needs_no_stack(case):
    left = case.set(nested(DEEPEST), before=SMALL_STACK)
    assert left == Left([*looked_up("freerdp"), *refreshed("freerdp")],
                        "Could not find <General> element.\n")


@pytest.mark.parametrize("text", [nested(DEEPEST + 1), "<a>" * 1000000],
                         ids=["one-level-more", "a-million"])
def test_a_file_that_is_too_deep_is_refused_with_a_small_stack(case, text):
    assert case.set(text, before=SMALL_STACK) == Left([], "Failed to parse in.xml\n", 20)


def test_a_deep_value_goes_through_with_a_small_stack(case):
    text = export(conn("id-1", "A", key("deep", "HERE"))).printed().replace("HERE", nested(2000))
    left = case.set(connections_file(text, entry("A")), before=SMALL_STACK)
    assert (left.status, left.stderr) == (0, 2 * WALK_OVER)
    assert left.document.count("<a>") + left.document.count("<a/>") == 2000


def test_a_deep_export_needs_no_stack(device):
    text = export(conn("id-1", "A", key("deep", "HERE"))).printed().replace("HERE", nested(2000))
    device.recorder().on("export", ANY, ANY, writes=text)
    result = device.run("sh", "-c", f"{SMALL_STACK}; exec corvik -get RDP -f out.xml")
    assert (result.status, result.stderr) == (0, WALK_OVER)
    assert (device.home / "out.xml").read_text().count("&lt;/a&gt;") == 1999


# Memory

@pytest.fixture
def sanitized(programs):
    return b"__asan_init" in (programs / "corvik").read_bytes()


@pytest.fixture
def little_memory(sanitized, monkeypatch):
    """Shell commands after which a program cannot have as much as a large file takes."""
    if not sanitized:
        return "ulimit -v 60000"
    monkeypatch.setenv("ASAN_OPTIONS", "max_allocation_size_mb=30")
    return ""


def test_a_file_beyond_memory_ends_the_run_before_anything_is_done(case, little_memory, sanitized):
    text = connections_file(export(conn("id-1", "A", key("large", "x" * 60_000_000))), entry("A"))
    left = case.set(text, remove=True, before=little_memory)
    assert left.calls == []
    assert left.tmp == []
    if sanitized:  # which ends the run itself, and says so at length
        assert left.status == 1
    else:
        assert left.status == -signal.SIGABRT
        assert left.stderr.splitlines()[-1] == "corvik: out of memory"


# Entities

def with_bare(text):
    """A file whose only label and name is this text, not escaped, at both levels."""
    return connections_file(export(conn("id-1", "BARE")), entry("BARE")).replace("BARE", text)


def test_an_external_entity_is_not_read(case):
    (case.device.etc / "secret").write_text("told")
    left = case.set('<!DOCTYPE RDP SYSTEM "file:///etc/secret">' + with_bare("&x;"))
    assert left == Left(classic("freerdp"), 2 * WALK_OVER, document=export(conn("id-1", "&x;")))


@pytest.mark.parametrize("entity", [
    '<!ENTITY x SYSTEM "file:///etc/secret">', '<!ENTITY x "lol">',
    '<!ENTITY a "lol"><!ENTITY b "&a;&a;&a;&a;"><!ENTITY x "&b;&b;&b;&b;">'])
def test_a_file_that_defines_entities_is_refused(case, entity):
    file = f"<!DOCTYPE RDP [{entity}]>" + connections_file(export(conn("id-1", "&x;")))
    assert case.set(file) == Left([], "Failed to parse in.xml\n", 20)


@pytest.mark.parametrize("text", ["&x;", "&#10;", "&#x3b;", "&", "&;", "&nbsp;"])
def test_other_entities_than_the_five_stay_as_they_are(case, text):
    left = case.set(with_bare(text))
    assert left == Left(classic("freerdp"), 2 * WALK_OVER, document=export(conn("id-1", text)))


@pytest.mark.parametrize("text", ["&lt;", "&amp;lt;", "&apos;"])
def test_entities_are_resolved_once_at_each_level(case, text):
    document = export(conn("id-1", text))
    left = case.set(connections_file(document, entry(text)))
    assert left == Left(classic("freerdp"), 2 * WALK_OVER, document=document)
