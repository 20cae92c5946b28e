"""The tool's XML tree and expat, beside each other on made-up documents of the tool's language.

Both have to find the same declaration, names, attributes, texts, comments and other markup in the same
order. The language is not all of XML, and not only XML; where it differs stands in tables here, and each
row is a test: what is refused, what is taken beside XML, what is read otherwise.

CORVIK_EXAMPLES, when set, is the number of documents for each search.
"""

import os
import re
import subprocess
from collections.abc import Iterator
from pathlib import Path
from xml.parsers import expat

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

EXAMPLES = int(os.environ.get("CORVIK_EXAMPLES", "200"))

Words = list[str]

# The tree


class Tree:
    """The tool's tree: one process (tests/support/tree_dump.cpp) for all documents."""

    def __init__(self, program: Path) -> None:
        self.process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def read(self, document: str) -> Words:
        """The words that tell of the tree; without how it prints."""
        return self.told(document)[0]

    def printed(self, document: str) -> str:
        return self.told(document)[1]

    def told(self, document: str) -> tuple[Words, str]:
        self.process.stdin.write(document.encode() + b"\0")
        self.process.stdin.flush()
        size = int(self.process.stdout.readline())
        words = self.process.stdout.read(size).decode().split("\0")
        assert words.pop() == ""
        return (words, "") if words[0] == "refused" else (words[:-2], words[-1])

    def close(self) -> None:
        self.process.stdin.close()
        assert self.process.wait(timeout=60) == 0


@pytest.fixture(scope="module")
def tree(programs) -> Iterator[Tree]:
    tree = Tree(programs / "tree_dump")
    yield tree
    tree.close()


# What the tool reads otherwise everywhere: done to the document, or to expat's answers

ENTITIES = {"&amp;": "&", "&lt;": "<", "&gt;": ">", "&quot;": '"', "&apos;": "'"}
ENTITY = re.compile("|".join(ENTITIES))
BARE_AMPERSAND = re.compile("&(?!amp;|lt;|gt;|quot;|apos;)")


def for_expat(document: str) -> str:
    """Only five entities are known; every other reference, and a bare "&", stays as it is."""
    return BARE_AMPERSAND.sub("&amp;", document)


def decoded(text: str) -> str:
    """The five are replaced in comments, and in other markup, too."""
    return ENTITY.sub(lambda entity: ENTITIES[entity[0]], text)


def condensed(text: str) -> str:
    """White space in texts, values and comments is condensed."""
    return re.sub("[ \t\r\n]+", " ", text).strip(" ")


def other_markup_words(inside: str) -> Words:
    """A CDATA section, an instruction and a document type are what stands between "<" and ">"; an
    instruction whose name begins with "xml" is a declaration."""
    return ["declaration", "", "", ""] if inside[:4] == "?xml" else ["extra", decoded(inside)]


class Expat:
    """What expat reads, in the words of the tree. The text of an element is one, behind its nodes."""

    def __init__(self, document: str) -> None:
        self.words: Words = []
        self.texts: list[list[str]] = [[]]  # of each open element
        self.parser = expat.ParserCreate("utf-8")  # whatever a declaration says
        self.parser.ordered_attributes = True
        for name in ("XmlDeclHandler", "StartDoctypeDeclHandler", "StartElementHandler",
                     "EndElementHandler", "CommentHandler", "ProcessingInstructionHandler",
                     "StartCdataSectionHandler", "EndCdataSectionHandler"):
            setattr(self.parser, name, getattr(self, name))
        self.parser.CharacterDataHandler = lambda text: self.texts[-1].append(text)
        self.parser.Parse(for_expat(document).encode(), True)

    def XmlDeclHandler(self, version: str, encoding: str | None, standalone: int) -> None:
        self.words += ["declaration", version, encoding or "", {-1: "", 0: "no", 1: "yes"}[standalone]]

    def StartDoctypeDeclHandler(self, name: str, system: str | None, public: str | None,
                                _: int) -> None:
        place = f' PUBLIC "{public}" "{system}"' if public else f' SYSTEM "{system}"' if system else ""
        self.words += other_markup_words(f"!DOCTYPE {name}{place}")

    def StartElementHandler(self, name: str, attributes: list[str]) -> None:
        self.words += ["element", name]
        for name, value in zip(attributes[::2], attributes[1::2]):
            self.words += ["attribute", name, condensed(value)]
        self.texts.append([])

    def EndElementHandler(self, _: str) -> None:
        text = condensed("".join(self.texts.pop()))
        self.words += (["text", text] if text else []) + ["end"]

    def CommentHandler(self, text: str) -> None:
        self.words += ["comment", decoded(condensed(text))]

    def ProcessingInstructionHandler(self, target: str, text: str) -> None:
        self.words += other_markup_words(f"?{target} {text}?" if text else f"?{target}?")

    def StartCdataSectionHandler(self) -> None:
        self.texts.append([])

    def EndCdataSectionHandler(self) -> None:
        self.words += other_markup_words(f"![CDATA[{''.join(self.texts.pop())}]]")


def read_by_expat(document: str) -> Words:
    return Expat(document).words


# Documents

LETTERS = "abzAZ_"
NAME_ENDS = st.lists(st.sampled_from("abzAZ_09-.:"), max_size=4).map("".join)
ELEMENT_NAMES = st.builds(str.__add__, st.sampled_from(LETTERS), NAME_ENDS)
ATTRIBUTE_NAMES = st.builds(str.__add__, st.sampled_from(LETTERS + ":"), NAME_ENDS)
BLANK = ("", " ", "\n  ", "\t", "\r\n", " \r ")
BLANKS = st.sampled_from(BLANK)
A_BLANK = st.sampled_from(BLANK[1:])
CHARACTERS = ("x", "Y 1", "Bü", "\u00a0", "\u0085", "\u2028", "\ufffd", "\U0001f600", "\x7f", "%", ";",
              "=", "/", "?", "!", "[", "]]", "-", "#", "\\")
REFERENCES = (*ENTITIES, "&", "&&", "&amp", "&amp;lt;", "&AMP;", "&#65;", "&#x3c;", "&x;", "&;")


def texts(*more: str, size: int = 6) -> st.SearchStrategy[str]:
    return st.lists(st.sampled_from((*CHARACTERS, *more)), max_size=size).map("".join)


TEXTS = texts(*REFERENCES, *BLANK, "'", '"')
VALUES = st.one_of(texts(*REFERENCES, *BLANK, "'").map('"{}"'.format),
                   texts(*REFERENCES, *BLANK, '"').map("'{}'".format))


@st.composite
def start_tags(draw: st.DrawFn) -> tuple[str, str]:
    """The name, and the tag without its end."""
    name = draw(ELEMENT_NAMES)
    names = draw(st.lists(ATTRIBUTE_NAMES, max_size=4, unique=True))
    return name, "<" + name + "".join(
        draw(A_BLANK) + each + draw(BLANKS) + "=" + draw(BLANKS) + draw(VALUES)
        for each in names) + draw(BLANKS)


def other_markup(references: tuple[str, ...]) -> st.SearchStrategy[str]:
    """Comments and instructions."""
    # A row of hyphens, or one at the end, is no XML.
    comments = texts(*references, *BLANK, "'").map(lambda text: re.sub("--+", "-", text) + " ")
    # Line ends in these are kept, of either kind; expat makes line feeds of them.
    instructions = texts(*references, " ", "\t", "\n", "<").map(
        lambda text: text.strip().replace("?", ""))
    return st.one_of(comments.map("<!--{}-->".format), instructions.map("<?go on{}?>".format),
                     st.sampled_from(["<?go?>", '<?xml-stylesheet href="a"?>']))


def cdata_sections(references: tuple[str, ...]) -> st.SearchStrategy[str]:
    return texts(*references, " ", "\t", "\n", "<").map("<![CDATA[{}]]>".format)


def elements(references: tuple[str, ...], text_behind: st.SearchStrategy[str]
             ) -> st.SearchStrategy[str]:
    markup = st.one_of(other_markup(references), cdata_sections(references))
    plain = st.builds(lambda tag, text: f"{tag[1]}>{text}</{tag[0]}>", start_tags(), TEXTS)
    empty = start_tags().map(lambda tag: tag[1] + "/>")

    def around(inner: st.SearchStrategy[str]) -> st.SearchStrategy[str]:
        nodes = st.lists(st.one_of(inner, markup).flatmap(
            lambda node: BLANKS.map(lambda blank: blank + node)), min_size=1, max_size=5)
        return st.builds(lambda tag, nodes, text: f"{tag[1]}>{''.join(nodes)}{text}</{tag[0]}>",
                         start_tags(), nodes, text_behind)

    return st.recursive(st.one_of(plain, empty), around, max_leaves=10)


DECLARATIONS = st.builds(
    "<?xml{}version{}=\"1.0\"{}{}{}?>".format, A_BLANK, BLANKS,
    st.sampled_from(["", ' encoding="UTF-8"', "\nencoding = 'ISO-8859-1'"]),
    st.sampled_from(["", " standalone='yes'", ' standalone="no"']), BLANKS)
DOCUMENT_TYPES = st.sampled_from(["<!DOCTYPE R>", '<!DOCTYPE a-b SYSTEM "a&amp;b.dtd">',
                                  '<!DOCTYPE x PUBLIC "-//x//y" "z">'])


def documents(references: tuple[str, ...] = REFERENCES,
              text_behind: st.SearchStrategy[str] = TEXTS) -> st.SearchStrategy[str]:
    beside = st.lists(st.one_of(other_markup(references), BLANKS), max_size=3).map("".join)
    maybe = st.just("")
    return st.tuples(st.one_of(maybe, DECLARATIONS), beside, st.one_of(maybe, DOCUMENT_TYPES), beside,
                     elements(references, text_behind), beside).map("".join)


EXACTLY_PRINTED = documents((), st.just(""))
"""Documents without what is printed unescaped: a text behind children, references outside of texts."""

search = settings(max_examples=EXAMPLES, derandomize=True, deadline=None, database=None,
                  suppress_health_check=list(HealthCheck))


@search
@given(document=documents())
def test_the_tree_is_what_expat_reads(tree, document):
    assert tree.read(document) == read_by_expat(document)


@search
@given(document=EXACTLY_PRINTED)
def test_what_is_printed_is_read_by_expat_as_the_tree(tree, document):
    words, printed = tree.told(document)
    # What an instruction of that kind said is not kept: the declaration that is printed is no XML.
    assert read_by_expat(re.sub(r"(?m)^ *<\?xml \?>$", "<?xml-x?>", printed)) == words


# Where the language is smaller than XML

@pytest.mark.parametrize("document, message", [
    ("\ufeff<a/>", "Identify error"),
    ("<a>x > y</a>", "ReadValue"),
    ("<a b='>'/>", "attribute pair error"),
    ("<a><!-- > --></a>", "Comment error"),
    ("<a><!-- < --></a>", "Comment error"),
    ("<a>x<!-- y --></a>", "Element Parse error"),
    ("<a>x<b/></a>", "Element Parse error"),
    ("<a>x<![CDATA[y]]></a>", "Element Parse error"),
    ("<a><b/>x<b/></a>", "Element Parse error"),
    ("<a><![CDATA[x>y]]></a>", "ReadValue"),
    ("<?go a>b?><a/>", "Identify error"),
    ("<!DOCTYPE a [<!ELEMENT a ANY>]><a/>", "Identify error"),
    ("<a></a >", "Element Parse error"),
    ("<aä/>", "attribute pair error"),
    ("<a ä='1'/>", "attribute pair error"),
    ("<a>" * 10001 + "</a>" * 10001, "Element Parse error"),
], ids=lambda value: value[:24])
def test_xml_that_the_tree_refuses(tree, document, message):
    assert tree.read(document) == ["refused", message]
    assert read_by_expat(document.removeprefix("\ufeff")) != []


# Where it is larger: what is no XML, and the XML that reads the same

@pytest.mark.parametrize("document, xml", [
    ("<a></A>", "<a></a>"),
    ("<a b='1'c='2'/>", "<a b='1' c='2'/>"),
    ("  <?xml version='1.0'?><a/>", "<?xml version='1.0'?><a/>"),
    ("<?XML VERSION='1.0'?><a/>", "<?xml version='1.0'?><a/>"),
    ("<a>\x0bx\x0c\x0by</a>", "<a>x y</a>"),
], ids=repr)
def test_what_is_no_xml_reads_as_xml(tree, document, xml):
    assert tree.read(document) == read_by_expat(xml)
    with pytest.raises(expat.ExpatError):
        read_by_expat(document)


@pytest.mark.parametrize("document, words", [
    ("<a>x\x01y</a>", ["element", "a", "text", "x\x01y", "end"]),
    ("<a b='1' b='2'/>", ["element", "a", "attribute", "b", "1", "attribute", "b", "2", "end"]),
    ("<a/><b/>", ["element", "a", "end", "element", "b", "end"]),
    ("<a/><?xml version='1.0'?>", ["element", "a", "end", "declaration", "1.0", "", ""]),
    ("<a><?xml version='1.0'?></a>", ["element", "a", "declaration", "1.0", "", "", "end"]),
    ("<a><!ELEMENT a></a>", ["element", "a", "extra", "!ELEMENT a", "end"]),
    ("<a>< b></a>", ["element", "a", "extra", " b", "end"]),
    ("<a><!-- x -- y --></a>", ["element", "a", "comment", "x -- y", "end"]),
    ("<!-- x -->", ["comment", "x"]),
    (" ", []),
    ("<?xml version='1.0' ", ["declaration", "1.0", "", ""]),
], ids=repr)
def test_what_is_no_xml_and_is_read(tree, document, words):
    with pytest.raises(expat.ExpatError):
        read_by_expat(document)
    assert tree.read(document) == words


# Where both read, and not the same; the searches keep away from it

@pytest.mark.parametrize("document, words, of_expat", [
    ("<:a/>", ["extra", ":a/"], ["element", ":a", "end"]),
    ("<ä/>", ["extra", "ä/"], ["element", "ä", "end"]),
    ("<a><![CDATA[x\r\ny]]></a>", ["element", "a", "extra", "![CDATA[x\r\ny]]", "end"],
     ["element", "a", "extra", "![CDATA[x\ny]]", "end"]),
    ("<?go  x?><a/>", ["extra", "?go  x?", "element", "a", "end"],
     ["extra", "?go x?", "element", "a", "end"]),
], ids=repr)
def test_what_is_read_otherwise(tree, document, words, of_expat):
    assert tree.read(document) == words
    assert read_by_expat(document) == of_expat
