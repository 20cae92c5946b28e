"""Writes sources with their mutants: all of them behind switches, or one alone."""

import re
from collections.abc import Iterable

from find import Edit, Mutant


class NotWritten(Exception):
    """An edit that lies across another cannot be written."""


def is_switched(edit: Edit, kept: set[tuple[int, int]]) -> bool:
    """Whether the edit goes into the build with switches. `kept`: the ranges of edits that do not,
    among them constants that have to stay constants."""
    if edit.constant or (edit.start, edit.end) in kept:
        return False
    return edit.frees is None or is_switched(edit.frees, kept)


def write_switched(text: str, edits: list[Edit]) -> str:
    """The source with all edits, which are in the order of the source, the outer before the inner."""
    def render(start: int, end: int, inside: list[Edit]) -> str:
        parts, at, index = [], start, 0
        while index < len(inside):
            edit = inside[index]
            if edit.start < at:
                raise NotWritten(f"offset {edit.start}: {text[edit.start:edit.end]}")
            following = index + 1
            while following < len(inside) and inside[following].start < edit.end:
                following += 1
            nested = inside[index + 1:following]
            parts.append(text[at:edit.start])
            parts.append(edit.write(
                lambda first, last, nested=nested: render(
                    first, last, [each for each in nested if first <= each.start and each.end <= last]),
                edit.mutants[0].number if edit.mutants else 0))
            at, index = edit.end, following
        return "".join(parts) + text[at:end]

    written = render(0, len(text), edits)
    check_written(written, edits)
    if written.count("\n") != text.count("\n"):
        raise NotWritten("the lines moved")
    return written


def check_written(written: str, edits: Iterable[Edit]) -> None:
    found = {int(number) for number in re.findall(r"mutate::\w+\((\d+)", written)}
    for edit in edits:
        if edit.mutants and edit.mutants[0].number not in found:
            raise NotWritten(f"{edit.mutants[0].key} was lost")


def write_alone(text: str, mutant: Mutant) -> str:
    return text[:mutant.start] + mutant.text + text[mutant.end:]
