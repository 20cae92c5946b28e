"""What expat reads of a document, as a list of events."""

from xml.parsers import expat


def events_of(data: bytes) -> list[tuple] | None:
    """Start, end, text, comment and instruction in their order; None where expat refuses.

    Texts are in one piece, CDATA sections are text; attributes are compared without their order.
    """
    events: list[tuple] = []

    def add_text(text: str) -> None:
        if events and events[-1][0] == "text":
            text = events.pop()[1] + text
        events.append(("text", text))

    parser = expat.ParserCreate()
    parser.buffer_text = True
    parser.CharacterDataHandler = add_text
    parser.StartElementHandler = lambda name, attributes: events.append(
        ("start", name, attributes))
    parser.EndElementHandler = lambda name: events.append(("end", name))
    parser.CommentHandler = lambda text: events.append(("comment", text))
    parser.ProcessingInstructionHandler = lambda target, text: events.append(
        ("instruction", target, text))
    try:
        parser.Parse(data, True)
    except expat.ExpatError:
        return None
    return events
