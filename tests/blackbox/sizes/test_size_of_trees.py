"""The XML tree on large documents: parsed, printed and destroyed as they are, or refused.

CORVIK_LARGE=1 runs the full sizes. How costs grow is judged by tests/guard.
"""

import pytest

import document_shapes as shapes
from size_support import memory_fits, run, same, size

MILLION = 1_000_000
DEEPEST = 10000  # levels


@pytest.fixture
def steps(programs, tmp_path):
    """Runs a document through parse, print and destroy."""

    def take(document):
        file = tmp_path / "document.xml"
        file.write_text(document)
        ended = run([programs / "xml_steps", file], tmp_path)
        print(f"{len(document) / 1e6:.1f} MB: {ended.seconds:.2f} s, {ended.peak / 1e6:.0f} MB")
        file.unlink()
        return ended

    return take


# Peak memory in sizes of the document, with its text and what is printed of it.
@pytest.mark.parametrize("shape, count, factor", [
    (shapes.siblings, MILLION, 13),
    (shapes.attributes, MILLION, 5),
    (shapes.text, size(10 * MILLION, 100 * MILLION), 3.5),
    (shapes.long_attribute, size(10 * MILLION, 100 * MILLION), 3.5),
    (shapes.nesting, size(4000, DEEPEST), 2.5)], ids=lambda value: getattr(value, "__name__", None))
def test_a_large_document_is_handled(steps, programs, shape, count, factor):
    document = shape(count)
    ended = steps(document)
    assert (ended.status, ended.stderr) == (0, b"")
    assert same(ended.stdout, document.encode())
    assert memory_fits(ended, programs / "xml_steps", len(document), factor)


@pytest.mark.parametrize("document, message", [
    (lambda: shapes.nesting_alone(DEEPEST + 1), "Element Parse error"),
    (lambda: shapes.nesting_alone(MILLION), "Element Parse error"),
    (lambda: "<a>" * MILLION, "Element Parse error"),
    (lambda: "<a>" * DEEPEST, "ReadValue"),
    (lambda: "<a>" + "<b/>" * MILLION, "ReadValue"),
    (lambda: "<a" + " b='1'" * MILLION + " ", "Element Parse error"),
    (lambda: "<a" + " b" * MILLION, "attribute pair error"),
    (lambda: "<a>" + "x " * size(5 * MILLION, 50 * MILLION), "ReadValue"),
    (lambda: "<!--" + "&" * MILLION, "Comment error"),
    (lambda: "<!" * MILLION, "DocType error"),
    (lambda: "&" * MILLION, "Identify error"),
], ids=["one-level-more", "a-million-levels", "never-closed", "deepest-never-closed", "siblings",
        "attributes", "names", "text", "comment", "markup", "ampersands"])
def test_a_large_document_is_refused(steps, document, message):
    ended = steps(document())
    assert (ended.status, ended.stdout) == (1, b"")
    assert ended.stderr == f"xml_steps: {message}\n".encode()
