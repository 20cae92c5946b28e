"""Every document that the programs wrote in a black-box test, as libxml2 and expat read it.

Both take it, and find the same names, attributes, texts, comments and instructions in the same order.
A document that is no XML is excused for a stated fault only: it was in what went into the program, it
makes the document refused, and with all such faults mended both parsers take it.
"""

import functools
import html
import os
import re
import subprocess
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import pytest

from expat_events import events_of
from kept_documents import NAME, NO_CHARACTER, NO_NAME, NO_UTF_8, NO_XML_CHARACTER, TWICE, Document

# Faults

TEXT_AS_IS = "a text beside elements, from the registry or a session, is written as it is"
MARKUP_AS_IS = "markup that is no element, from the registry or a session, is written as it is"
NO_ELEMENT = "what an imported file has as the text of a session is no element, or nothing"

ANY_START_TAG = re.compile(r'<[\w:.-]+(?: [\w:.-]+="[^"]*")*/?>')
ANY_ELEMENT = re.compile(rb"<[\w:]")
ATTRIBUTE = re.compile(r' ([\w:.-]+)="[^"]*"')
# A start tag, a text on its line, and further in on the next line an element or a comment.
BESIDE_ELEMENTS = re.compile(
    r'^( *<([\w:.-]+)(?: [\w:.-]+="[^"]*")*>)(?!.*</\2>$)(.+)(?=\n +<[^/])', re.M)
BARE_AMPERSAND = re.compile("&(?!(?:amp|lt|gt|quot|apos);)")
MARKUP = re.compile(r"<!(?!--|DOCTYPE |\[CDATA\[)[^>]*>")


def without_name(data: bytes, typed: str) -> bytes:
    """The document with a root element that has a name."""
    name = os.fsencode(typed)
    assert data.startswith(b"<" + name) and data.endswith((name + b">\n", name + b"/>\n")), data
    inner = data[1 + len(name):]
    end = b"</" + name + b">\n"
    return b"<R" + (inner.removesuffix(end) + b"</R>\n" if inner.endswith(end) else inner)


def within_an_element(data: bytes) -> bytes:
    return b"<R>" + html.escape(data.decode("utf-8", "surrogateescape")).encode(
        "utf-8", "surrogateescape") + b"</R>"


def mend_text(mend: Callable[[str], str]) -> Callable[[bytes], bytes]:
    """Mends a text, whatever else is wrong with its bytes."""
    return lambda data: mend(data.decode("utf-8", "surrogateescape")).encode(
        "utf-8", "surrogateescape")


def each_attribute_once(text: str) -> str:
    def first_ones(tag: re.Match) -> str:
        seen: set[str] = set()
        return ATTRIBUTE.sub(lambda each: "" if each[1] in seen or seen.add(each[1]) else each[0],
                             tag[0])
    return ANY_START_TAG.sub(first_ones, text)


def with_entities(text: str) -> str:
    def escaped(line: re.Match) -> str:
        return line[1] + BARE_AMPERSAND.sub("&amp;", line[3]).replace("<", "&lt;")
    return BESIDE_ELEMENTS.sub(escaped, text)


MENDS = {
    NO_UTF_8: lambda data: data.decode("utf-8", "replace").encode(),
    NO_XML_CHARACTER: mend_text(lambda text: re.sub("(?![\udc80-\udcff])" + NO_CHARACTER.pattern, "?",
                                                    text)),
    TWICE: mend_text(each_attribute_once),
    TEXT_AS_IS: mend_text(with_entities),
    MARKUP_AS_IS: mend_text(lambda text: MARKUP.sub("", text)),
}
"""What mends each fault that a document of any kind may have, and changes nothing without it."""


@dataclass(frozen=True)
class Read:
    """A document to be read: a file, or what one carries as text. The typed name of its root, if any.

    Of a session file that an import wrote the text may be anything.
    """

    where: str
    data: bytes
    typed: str | None = None
    any_text: bool = False

    @functools.cached_property
    def faults(self) -> list[str]:
        first = [NO_NAME] if self.typed is not None and not NAME.fullmatch(self.typed) else []
        if self.any_text and not ANY_ELEMENT.search(self.data):
            first = [NO_ELEMENT]
        data = self.mended(first)
        return first + [fault for fault, mend in MENDS.items() if mend(data) != data]

    def mended(self, faults: list[str]) -> bytes:
        data = without_name(self.data, self.typed or "") if NO_NAME in faults else self.data
        data = within_an_element(data) if NO_ELEMENT in faults else data
        for fault in faults:
            data = MENDS.get(fault, bytes)(data)
        return data


# The parsers

def read_by_libxml2(documents: list[bytes], folder: Path) -> list[list[tuple] | None]:
    """What libxml2 makes of each, None where it refuses: one process for all of them.

    It writes each document it takes in canonical form, between marks that are documents, too.
    """
    mark = b"<mark-9b1c35c1></mark-9b1c35c1>"
    (folder / "mark").write_bytes(mark)
    files = []
    for number, data in enumerate(documents):
        files += [f"{number}.xml", "mark"]
        (folder / files[-2]).write_bytes(data)
    done = subprocess.run(["xmllint", "--huge", "--nonet", "--c14n", *files], cwd=folder,
                          capture_output=True, check=False)
    assert done.returncode in (0, 1), done.stderr  # 1: a document was refused
    pieces = done.stdout.split(mark)
    assert len(pieces) == len(documents) + 1 and pieces.pop() == b""
    return [events_of(piece) if piece else None for piece in pieces]


Answers = dict[bytes, tuple[list[tuple] | None, list[tuple] | None]]


def read_by_both(documents: set[bytes], folder: Path) -> Answers:
    """What libxml2 and expat make of each."""
    ordered = sorted(documents)
    return {data: (other, events_of(data))
            for data, other in zip(ordered, read_by_libxml2(ordered, folder))}


# What there is to read

def texts_of(read: Read, *names: str) -> list[tuple[str, str]]:
    """Name and text of the elements of these names, which hold nothing else."""
    events = events_of(read.mended(read.faults)) or []
    return [(event[1], following[1] if following[0] == "text" else "")
            for event, following in zip(events, events[1:])
            if event[0] == "start" and event[1] in names]


def carried_by(document: Document) -> list[Read]:
    """The documents that a connections file has as texts."""
    return [Read(f"{name} of {document}", text.encode())
            for name, text in texts_of(Read("", document.data, document.typed),
                                       "General", "KSS", "WS") if text]


@pytest.fixture(scope="module")
def reads(kept) -> list[Read]:
    """Every document once for each fault of its own: those of files, then those carried as text."""
    files = [Read(f"{role} {document}", document.data, document.typed)
             for role in ("connections", "export", "import") for document in kept[role]]
    sessions = [Read(f"session {document}", document.data, any_text=True)
                for document in kept["session"]]
    carried = [each for document in kept["connections"] for each in carried_by(document)]
    return files + sessions + carried


@pytest.fixture(scope="module")
def answers(reads, tmp_path_factory) -> Answers:
    """What both parsers make of all: as written, mended, and with one fault left."""
    documents = {each.data for each in reads}
    for each in reads:
        documents |= {each.mended(each.faults), *map(each.mended, all_but_one(each.faults))}
    return read_by_both(documents, tmp_path_factory.mktemp("read"))


def all_but_one(faults: list[str]) -> list[list[str]]:
    return [[other for other in faults if other != fault] for fault in faults]


# Tests

def test_there_is_much_to_read(reads, kept):
    assert len({each.data for each in reads}) >= 300
    assert all(len(kept[role]) >= 10 for role in kept)


def test_both_take_every_document_without_a_fault(reads, answers):
    refused = [each.where for each in reads if not each.faults and None in answers[each.data]]
    assert refused == []


def test_both_find_the_same_in_every_document(reads, answers):
    """In those with a fault once they are mended."""
    differ = [each.where for each in reads
              if (both := answers[each.mended(each.faults)])[0] != both[1] or both[0] is None]
    assert differ == []


def test_every_fault_makes_a_document_refused(reads, answers):
    """Also alone, when all others of that document are mended."""
    harmless = [(each.where, each.faults) for each in reads
                for mended in [[], *all_but_one(each.faults)]
                if each.faults and None not in answers[each.mended(mended)]]
    assert harmless == []


def test_faults_occur(reads):
    assert ({fault for each in reads for fault in each.faults}
            >= {NO_NAME, NO_UTF_8, TWICE, TEXT_AS_IS, MARKUP_AS_IS, NO_ELEMENT})


@pytest.mark.parametrize("fault, text, typed", [
    (NO_NAME, b"<1st>\n  <C/>\n</1st>\n", "1st"), (NO_NAME, b"<>x</>\n", ""),
    (NO_NAME, b"<1st/>\n", "1st"), (NO_UTF_8, b'<R a="\xff"/>\n', "R"),
    (NO_XML_CHARACTER, b"<R>\x01</R>\n", "R"), (NO_XML_CHARACTER, b"<R>\xef\xbf\xbe</R>\n", "R"),
    (TWICE, b'<R>\n  <C a="1" b="2" a="3"/>\n</R>\n', "R"),
    (TEXT_AS_IS, b'<R a="1">x & <y\n  <C/>\n</R>\n', "R"),
    (MARKUP_AS_IS, b"<R>\n  <!ELEMENT  x>\n</R>\n", "R")])
def test_a_fault_is_found_and_mended(tmp_path, fault, text, typed):
    read = Read("", text, typed)
    assert read.faults == [fault]
    mended = Read("", read.mended([fault]))
    assert mended.faults == []
    both = read_by_both({text, mended.data}, tmp_path)
    assert both[text] == (None, None)
    assert both[mended.data] == (events_of(mended.data),) * 2 != (None, None)


@pytest.mark.parametrize("text", [
    b"<R/>\n", b'<?xml version="1.0"?>\n<!DOCTYPE R>\n<R a="&lt;&amp;"/>\n', b"<R>a &amp; b</R>\n",
    b'<R>\n  <C a="1"/>\n  <C a="1">&lt;x&gt;\n  &lt;/x&gt;</C>\n  <!-- & -->\n</R>\n'])
def test_no_fault_is_found_in_xml(text):
    assert Read("", text, "R").faults == []
    assert events_of(text) is not None


@pytest.mark.parametrize("text, faults", [
    (b"", [NO_ELEMENT]), (b"size 80x24 & < ]]>", [NO_ELEMENT]), (b"<!-- x -->", [NO_ELEMENT]),
    (b"\xff <", [NO_ELEMENT, NO_UTF_8]), (b"<S/>", [])])
def test_a_session_file_may_hold_no_element(tmp_path, text, faults):
    read = Read("", text, any_text=True)
    assert read.faults == faults
    documents = {text, read.mended(faults), *map(read.mended, all_but_one(faults))}
    taken = {data for data, both in read_by_both(documents, tmp_path).items() if None not in both}
    assert taken == {read.mended(faults)}


@pytest.mark.parametrize("text", [b"<S>", b"<S>x</S", b"<S/>x", b"<S a='1' & ></S>"])
def test_a_session_file_with_half_an_element_is_not_excused(tmp_path, text):
    assert Read("", text, any_text=True).faults == []
    assert read_by_both({text}, tmp_path)[text] == (None, None)


def condensed(text: str) -> bytes:
    return re.sub("[ \t\r\n]+", " ", text).strip(" ").encode()


def test_a_session_file_is_the_text_that_the_connections_file_carries(kept):
    """As expat reads that text; so it is XML where the text is."""
    for document in kept["session"]:
        given = Read("", document.given.read_bytes())
        texts = [condensed(text) for _, text in texts_of(given, "KSS", "WS")]
        assert Read("", document.data).mended(given.faults) in texts, document


def test_a_difference_would_be_seen(tmp_path):
    """The two ways of reading are no two names of one."""
    one, other = b"<a b='1'>x</a>", b"<a b='1'>y</a>"
    both = read_by_both({one, other, b"<a>", b"<a>\xff</a>"}, tmp_path)
    assert both[one] == (events_of(one), events_of(one)) != both[other]
    assert both[b"<a>"] == both[b"<a>\xff</a>"] == (None, None)
