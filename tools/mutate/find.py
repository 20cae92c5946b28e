"""Finds the places of a source where a mutant can be made.

An Edit covers a range of the source and makes one or more mutants of it. It can be written in two
ways: with a switch, where the mutant is chosen when the program runs, or alone, as the plain source
with that one change.
"""

import re
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path

from clang import cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

# Renders the source from one offset to another with all edits inside.
Render = Callable[[int, int], str]


@dataclass
class Mutant:
    operator: str
    file: str
    function: str
    line: int
    code: str      # what stands in the source
    becomes: str
    start: int = 0  # the range that `becomes` takes the place of, when it is compiled alone
    end: int = 0
    text: str = ""  # what takes its place
    number: int = 0  # chooses it in the mutated build; 0 for one that is compiled alone
    ordinal: int = 0  # tells mutants apart that are the same in everything but the line

    @property
    def key(self) -> str:
        return "|".join([self.file, self.function, self.operator, squeeze(self.code),
                         squeeze(self.becomes), str(self.ordinal)])


@dataclass
class Edit:
    start: int
    end: int
    mutants: list[Mutant]
    write: Callable[[Render, int], str]  # with the number of its first mutant
    constant: bool = False  # stands where the compiler needs a constant
    frees: "Edit | None" = None  # the edit that makes a constant a variable, where this one needs it
    name: str = ""  # of the constant that this edit makes a variable


def squeeze(text: str) -> str:
    return " ".join(text.split())


RELATIONS = {"<": ("less", "<="), "<=": ("less_equal", "<"), ">": ("greater", ">="),
             ">=": ("greater_equal", ">")}
NEGATED = {"<": ">=", "<=": ">", ">": "<=", ">=": "<", "==": "!=", "!=": "=="}
ARITHMETIC = {"+": ("add", "-"), "-": ("subtract", "+"), "*": ("multiply", "/"), "/": ("divide", "*"),
              "%": ("remainder", "*"), "&": ("bit_and", "|"), "|": ("bit_or", "&"),
              "<<": ("shift_left", ">>"), ">>": ("shift_right", "<<")}
COMPOUND = {"+=": ("add_to", "-="), "-=": ("subtract_from", "+="), "*=": ("multiply_by", "/="),
            "|=": ("or_into", "&="), "&=": ("and_into", "|=")}
LOGIC = {"&&": "||", "||": "&&"}
STEPS = {"++": ("up", "--"), "--": ("down", "++")}
COMPARISONS = set(NEGATED)

FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
             Kind.CONVERSION_FUNCTION, Kind.FUNCTION_TEMPLATE}
NUMBERS = {TypeKind.BOOL, TypeKind.CHAR_U, TypeKind.UCHAR, TypeKind.USHORT, TypeKind.UINT,
           TypeKind.ULONG, TypeKind.ULONGLONG, TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.SHORT,
           TypeKind.INT, TypeKind.LONG, TypeKind.LONGLONG, TypeKind.ENUM}
LOOPS = {Kind.WHILE_STMT, Kind.FOR_STMT, Kind.DO_STMT, Kind.CXX_FOR_RANGE_STMT}
# What a return value cannot be told from.
EMPTY = re.compile(r'(std::\w+)?\{\}|nullptr|""|std::nullopt|std::string\(\)|false|true|-?\d+')
LITERAL = re.compile(r'R"(\w*)\(.*?\)\1"|"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)*\'|//[^\n]*|/\*.*?\*/',
                     re.DOTALL)


def blanked(text: str) -> str:
    """The text with its literals and comments blanked, of the same length."""
    return LITERAL.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), text)


def type_kind(cursor: cindex.Cursor) -> TypeKind:
    return cursor.type.get_canonical().kind


def is_number(cursor: cindex.Cursor) -> bool:
    return type_kind(cursor) in NUMBERS


def is_pointer(cursor: cindex.Cursor) -> bool:
    return type_kind(cursor) in (TypeKind.POINTER, TypeKind.CONSTANTARRAY)


def lines_in(text: str) -> str:
    return "\n" * text.count("\n")


class Finder:
    """Walks one source and collects its edits."""

    def __init__(self, root: Path, file: str, flags: list[str]):
        self.file = file
        self.text = (root / file).read_bytes().decode("latin-1")
        self.bare = blanked(self.text)
        options = cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
        self.unit = cindex.Index.create().parse(str(root / file), args=flags, options=options)
        errors = [str(each) for each in self.unit.diagnostics if each.severity >= 3]
        if errors:
            raise RuntimeError(f"{file} cannot be parsed: {errors[0]}")
        self.edits: list[Edit] = []
        self.seen: set[tuple[int, int, str]] = set()
        self.macros = [self.range_of(each) for each in self.unit.cursor.get_children()
                       if each.kind == Kind.MACRO_INSTANTIATION and self.is_here(each)]
        self.function = ""
        self.result: cindex.Type | None = None
        self.in_lambda = False
        self.constant = False
        self.frees: Edit | None = None

    def find(self) -> list[Edit]:
        for child in self.unit.cursor.get_children():
            if child.kind.is_preprocessing() or not self.is_here(child):
                continue
            self.visit(child, None)
        self.edits.sort(key=lambda edit: (edit.start, -edit.end))
        del self.unit  # the parsed sources of all rooms would take a gigabyte
        return self.edits

    # --- small questions

    def is_here(self, cursor: cindex.Cursor) -> bool:
        place = cursor.location.file
        return place is not None and place.name == self.unit.spelling

    def range_of(self, cursor: cindex.Cursor) -> tuple[int, int]:
        return cursor.extent.start.offset, cursor.extent.end.offset

    def source(self, start: int, end: int) -> str:
        return self.text[start:end]

    def text_of(self, cursor: cindex.Cursor) -> str:
        return self.source(*self.range_of(cursor))

    def is_of_macro(self, cursor: cindex.Cursor) -> bool:
        start, end = self.range_of(cursor)
        return any(first <= start and end <= last for first, last in self.macros)

    def operator_between(self, left: cindex.Cursor, right: cindex.Cursor) -> str:
        return self.bare[left.extent.end.offset:right.extent.start.offset].strip()

    def binary(self, cursor: cindex.Cursor) -> tuple[cindex.Cursor, str, cindex.Cursor] | None:
        """Left side, operator and right side of an expression that has them."""
        children = list(cursor.get_children())
        if cursor.kind == Kind.UNEXPOSED_EXPR and len(children) == 1 \
                and self.range_of(children[0]) == self.range_of(cursor):
            return self.binary(children[0])
        if len(children) == 3 and children[1].spelling.startswith("operator"):
            children = [children[0], children[2]]
        if len(children) != 2 or cursor.kind not in (
                Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.CALL_EXPR,
                Kind.UNEXPOSED_EXPR):
            return None
        left, right = children
        start, end = self.range_of(cursor)
        if left.extent.start.offset != start or right.extent.end.offset != end:
            return None
        return left, self.operator_between(left, right), right

    def is_comparison(self, cursor: cindex.Cursor) -> bool:
        parts = self.binary(cursor)
        return parts is not None and parts[1] in COMPARISONS

    def is_logic(self, cursor: cindex.Cursor) -> bool:
        parts = self.binary(cursor)
        return parts is not None and parts[1] in LOGIC

    def is_literal(self, cursor: cindex.Cursor) -> bool:
        return re.fullmatch(r"true|false|\d+", self.text_of(cursor)) is not None

    # --- making edits

    def add(self, operator: str, span: tuple[int, int], becomes: list[tuple[str, str]],
            write: Callable[[Render, int], str], code: str | None = None) -> None:
        """`becomes`: for each mutant what is told of it and what takes the place of the range."""
        start, end = span
        if (start, end, operator) in self.seen:
            return
        self.seen.add((start, end, operator))
        shown = self.source(start, end) if code is None else code
        line = self.text.count("\n", 0, start) + 1
        mutants = [Mutant(operator, self.file, self.function, line, shown, told, start, end, text)
                   for told, text in becomes]
        self.edits.append(Edit(start, end, mutants, write, self.constant, self.frees))

    def add_flip(self, cursor: cindex.Cursor, operator: str = "condition") -> None:
        """Negates an expression that is no comparison: those have their own edit."""
        if self.is_comparison(cursor) or self.is_literal(cursor) or self.is_of_macro(cursor):
            return
        start, end = self.range_of(cursor)
        text = self.source(start, end)
        told = text[1:] if re.match(r"!\w", text) and not self.is_logic(cursor) else f"!({text})"
        self.add(operator, (start, end), [(told, f"(!({text}))")],
                 lambda render, number: f"mutate::flip({number}, {render(start, end)})")

    # --- the walk

    def visit(self, cursor: cindex.Cursor, parent: cindex.Cursor | None) -> None:
        if cursor.kind == Kind.STATIC_ASSERT:
            return  # it says nothing when the program runs
        saved = (self.function, self.result, self.in_lambda, self.constant, self.frees)
        if cursor.kind in FUNCTIONS:
            self.function, self.result, self.in_lambda = cursor.spelling, cursor.result_type, False
        elif cursor.kind == Kind.LAMBDA_EXPR:
            self.in_lambda = True
        elif cursor.kind == Kind.VAR_DECL:
            self.enter_variable(cursor)
        elif cursor.kind in (Kind.ENUM_CONSTANT_DECL, Kind.TYPE_ALIAS_DECL,
                             Kind.TEMPLATE_NON_TYPE_PARAMETER):
            self.constant = True
            self.function = self.function or cursor.spelling
        elif cursor.kind in (Kind.STRUCT_DECL, Kind.CLASS_DECL, Kind.CLASS_TEMPLATE):
            self.function = cursor.spelling
        elif cursor.kind == Kind.FIELD_DECL:
            self.function = cursor.spelling
        if not self.is_of_macro(cursor):
            self.make_edits(cursor, parent)
        for child in cursor.get_children():
            before = self.constant
            if self.is_constant_place(cursor, child):
                self.constant = True
            if self.is_here(child):
                self.visit(child, cursor)
            self.constant = before
        self.function, self.result, self.in_lambda, self.constant, self.frees = saved

    def enter_variable(self, cursor: cindex.Cursor) -> None:
        if not self.result:
            self.function = cursor.spelling
        start = cursor.extent.start.offset
        found = re.search(r"\bconstexpr\b", self.bare[start:cursor.location.offset])
        if not found:
            return
        # Made a variable, so that a mutant can be chosen; put back where that does not compile.
        at = start + found.start()
        keyword = "" if self.result else "static"
        if cursor.semantic_parent.kind in (Kind.STRUCT_DECL, Kind.CLASS_DECL, Kind.CLASS_TEMPLATE):
            keyword = "inline"
        elif re.search(r"\binline\b", self.bare[start:at]):
            keyword = ""
        edit = Edit(at, at + len("constexpr"), [], lambda render, number: keyword, self.constant,
                    self.frees, cursor.spelling)
        if (at, at, "constexpr") not in self.seen:
            self.seen.add((at, at, "constexpr"))
            self.edits.append(edit)
        self.frees = next(each for each in self.edits if each.start == at and each.name)

    def is_constant_place(self, cursor: cindex.Cursor, child: cindex.Cursor) -> bool:
        """Whether the compiler needs a constant in the child."""
        if cursor.kind == Kind.VAR_DECL and child.kind == Kind.STRING_LITERAL:
            return True  # an array's letters
        if cursor.kind in (Kind.VAR_DECL, Kind.FIELD_DECL, Kind.PARM_DECL):
            before = child.extent.start.offset < cursor.location.offset
            following = self.bare[cursor.location.offset + len(cursor.spelling):
                                  child.extent.start.offset].strip()
            return child.kind.is_expression() and (before or following in ("[", ":"))
        if cursor.kind in (Kind.DECL_REF_EXPR, Kind.MEMBER_REF_EXPR):
            return child.kind.is_expression() and self.bare[
                cursor.extent.start.offset:child.extent.start.offset].rstrip().endswith(("<", ","))
        if cursor.kind == Kind.CASE_STMT:
            return child.kind.is_expression()
        if cursor.kind == Kind.IF_STMT:
            start = cursor.extent.start.offset
            return child.kind.is_expression() and re.match(
                r"if\s+constexpr", self.bare[start:start + 40]) is not None
        return False

    def make_edits(self, cursor: cindex.Cursor, parent: cindex.Cursor | None) -> None:
        self.edit_statement(cursor, parent)
        if cursor.kind in (Kind.IF_STMT, *LOOPS, Kind.CONDITIONAL_OPERATOR):
            self.edit_condition(cursor)
        if cursor.kind == Kind.IF_STMT:
            self.edit_else(cursor)
        if cursor.kind == Kind.RETURN_STMT:
            self.edit_return(cursor)
        if cursor.kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.CALL_EXPR,
                           Kind.UNEXPOSED_EXPR):
            self.edit_binary(cursor)
        if cursor.kind == Kind.UNARY_OPERATOR:
            self.edit_step(cursor)
        if cursor.kind in (Kind.INTEGER_LITERAL, Kind.CHARACTER_LITERAL, Kind.STRING_LITERAL,
                           Kind.CXX_BOOL_LITERAL_EXPR):
            self.edit_literal(cursor)

    # --- the operators

    def edit_binary(self, cursor: cindex.Cursor) -> None:
        parts = self.binary(cursor)
        if parts is None:
            return
        left, operator, right = parts
        span = self.range_of(cursor)
        sides = (*self.range_of(left), *self.range_of(right))
        numbers = is_number(left) and is_number(right)
        ordered = numbers or (is_pointer(left) and is_pointer(right))
        if operator in ("==", "!="):
            self.add_swap("equality", span, sides, NEGATED[operator])
        elif operator in RELATIONS:
            self.add_relation(span, sides, operator, ordered)
        elif operator in LOGIC:
            self.add_logic(span, left, right, operator)
        elif operator in ARITHMETIC and self.is_swappable(left, operator, right, numbers):
            name, other = ARITHMETIC[operator]
            self.add_call("arithmetic", span, sides, name, [other])
        elif operator in COMPOUND and is_number(right) and (is_number(left) or is_pointer(left)):
            name, other = COMPOUND[operator]
            self.add_call("arithmetic", span, sides, name, [other])

    def is_swappable(self, left: cindex.Cursor, operator: str, right: cindex.Cursor,
                     numbers: bool) -> bool:
        return numbers or (operator in "+-" and is_pointer(left) and is_number(right))

    def swapped(self, sides: tuple[int, int, int, int], operator: str) -> tuple[str, str]:
        left, right = self.source(*sides[:2]), self.source(*sides[2:])
        return f"{left} {operator} {right}", f"({left} {operator} {right})"

    def add_swap(self, kind: str, span: tuple[int, int], sides: tuple[int, int, int, int],
                 other: str) -> None:
        """A swap for the opposite, of any type that has the operator."""
        def write(render: Render, number: int) -> str:
            whole = render(sides[0], sides[1]) + self.source(sides[1], sides[2]) \
                + render(sides[2], sides[3])
            return f"mutate::flip({number}, {whole})"
        self.add(kind, span, [self.swapped(sides, other)], write)

    def add_call(self, kind: str, span: tuple[int, int], sides: tuple[int, int, int, int], name: str,
                 others: list[str]) -> None:
        def write(render: Render, number: int) -> str:
            between = lines_in(self.source(sides[1], sides[2]))
            return f"mutate::{name}({number}, {render(*sides[:2])},{between} {render(*sides[2:])})"
        self.add(kind, span, [self.swapped(sides, other) for other in others], write)

    def add_relation(self, span: tuple[int, int], sides: tuple[int, int, int, int], operator: str,
                     ordered: bool) -> None:
        name, boundary = RELATIONS[operator]
        if ordered:
            self.add_call("relation", span, sides, name, [boundary, NEGATED[operator]])
        else:
            self.add_swap("relation", span, sides, NEGATED[operator])

    def add_logic(self, span: tuple[int, int], left: cindex.Cursor, right: cindex.Cursor,
                  operator: str) -> None:
        # By De Morgan, so that no operand is written twice.
        (left_start, left_end), (right_start, right_end) = self.range_of(left), self.range_of(right)

        def write(render: Render, number: int) -> str:
            between = self.source(left_end, right_start)
            return (f"mutate::flip({number}, mutate::flip({number}, {render(left_start, left_end)})"
                    f"{between}mutate::flip({number}, {render(right_start, right_end)}))")
        sides = (left_start, left_end, right_start, right_end)
        other = LOGIC[operator]
        told, _ = self.swapped(sides, other)
        plain = f"(({self.source(*sides[:2])}) {other} ({self.source(*sides[2:])}))"
        self.add("logic", span, [(told, plain)], write)
        for side in (left, right):
            if not self.is_logic(side):
                self.add_flip(side)

    def edit_step(self, cursor: cindex.Cursor) -> None:
        operand = next(cursor.get_children(), None)
        if operand is None or not (is_number(operand) or is_pointer(operand)):
            return
        start, end = self.range_of(cursor)
        inner = self.range_of(operand)
        before = self.source(start, inner[0]).strip()
        behind = self.source(inner[1], end).strip()
        operator = before or behind
        if operator not in STEPS:
            return
        name, other = STEPS[operator]
        name += "" if before else "_later"
        text = self.source(*inner)
        told = other + text if before else text + other
        self.add("step", (start, end), [(told, told)],
                 lambda render, number: f"mutate::{name}({number}, {render(*inner)})")

    def edit_literal(self, cursor: cindex.Cursor) -> None:
        start, end = self.range_of(cursor)
        text = self.source(start, end)
        if cursor.kind == Kind.INTEGER_LITERAL and re.match(r"\d", text):
            self.add("constant", (start, end),
                     [(f"{text} + 1", f"({text} + 1)"), (f"{text} - 1", f"({text} - 1)")],
                     lambda render, number: f"mutate::number({number}, {text})")
        elif cursor.kind == Kind.CHARACTER_LITERAL and text.startswith("'"):
            changed = f"static_cast<char>({text} + 1)"
            self.add("constant", (start, end), [(f"{text} + 1", changed)],
                     lambda render, number: f"mutate::one_more({number}, {text})")
        elif cursor.kind == Kind.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
            other = "false" if text == "true" else "true"
            self.add("boolean", (start, end), [(other, other)],
                     lambda render, number: f"mutate::flip({number}, {text})")
        elif cursor.kind == Kind.STRING_LITERAL and text.startswith(("\"", "R\"")):
            self.add_string(start, end, text)

    def add_string(self, start: int, end: int, text: str) -> None:
        others = self.other_strings(text)
        lines = lines_in(text)

        def write(render: Render, number: int) -> str:
            chosen = "".join(f"mutate::on({number + i}) ? {other} : "
                             for i, other in enumerate(others))
            return f"({chosen}{text})"
        self.add("string", (start, end), [(other, other + lines) for other in others], write)

    def other_strings(self, text: str) -> list[str]:
        """Another text, and where there is one to take away, all but the last character."""
        if re.fullmatch(r'(""\s*)+', text):
            return ['"mutant"']
        shorter = re.fullmatch(r'(".*?)(\\[^0-7x]|\\[0-7]{1,3}|[^\\"])"', text, re.DOTALL)
        others = ['""']
        if shorter and shorter[1] != '"' and not re.search(r"%[0-9l]*$", shorter[1]):
            others.append(shorter[1].replace("\n", " ") + '"')
        return others

    def edit_condition(self, cursor: cindex.Cursor) -> None:
        span = self.condition_span(cursor)
        if span is None:
            return
        for child in cursor.get_children():
            if self.range_of(child) == span and child.kind.is_expression():
                if not self.is_constant_place(cursor, child):
                    self.add_flip(child)
                return
        declared = re.search(r"[*&\s](\w+)\s*=[^=]", self.bare[span[0]:span[1]])
        if cursor.kind == Kind.IF_STMT and declared:
            self.add_declared(span, declared[1])

    def add_declared(self, span: tuple[int, int], name: str) -> None:
        start, end = span
        self.add("condition", span, [(f"!({name})", f"{self.source(*span)}; !{name}")],
                 lambda render, number: f"{render(start, end)}; mutate::flip({number}, {name})")

    def condition_span(self, cursor: cindex.Cursor) -> tuple[int, int] | None:
        if cursor.kind == Kind.CONDITIONAL_OPERATOR:
            return self.range_of(next(cursor.get_children()))
        if cursor.kind in (Kind.CXX_FOR_RANGE_STMT,):
            return None
        start, end = self.range_of(cursor)
        if cursor.kind == Kind.DO_STMT:
            body = next(cursor.get_children())
            start = body.extent.end.offset
        opening = self.bare.index("(", start)
        closing = self.closing(opening)
        parts = self.split(opening + 1, closing)
        if cursor.kind == Kind.FOR_STMT:
            return parts[1] if len(parts) == 3 else None
        return parts[-1]

    def closing(self, opening: int) -> int:
        depth = 0
        for at in range(opening, len(self.bare)):
            depth += {"(": 1, ")": -1}.get(self.bare[at], 0)
            if depth == 0:
                return at
        raise ValueError("a parenthesis is not closed")

    def split(self, start: int, end: int) -> list[tuple[int, int]]:
        """The parts between semicolons, without the white space around them."""
        bounds, depth = [start], 0
        for at in range(start, end):
            depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(self.bare[at], 0)
            if self.bare[at] == ";" and depth == 0:
                bounds.append(at + 1)
        bounds.append(end + 1)
        parts = []
        for first, last in zip(bounds, bounds[1:]):
            text = self.text[first:last - 1]
            parts.append((first + len(text) - len(text.lstrip()), last - 1 - len(text)
                          + len(text.rstrip())))
        return parts

    def statement_end(self, cursor: cindex.Cursor) -> int | None:
        """The offset behind its semicolon."""
        end = cursor.extent.end.offset
        found = re.match(r"\s*;", self.bare[end:])
        return end + found.end() if found else None

    def is_statement(self, cursor: cindex.Cursor, parent: cindex.Cursor | None) -> bool:
        if parent is None or not (cursor.kind.is_expression() or cursor.kind in (
                Kind.BREAK_STMT, Kind.CONTINUE_STMT, Kind.RETURN_STMT)):
            return False
        if parent.kind in (Kind.COMPOUND_STMT, Kind.CASE_STMT, Kind.DEFAULT_STMT):
            return True
        if parent.kind not in (Kind.IF_STMT, *LOOPS):
            return False
        return self.condition_span(parent) != self.range_of(cursor)

    def edit_statement(self, cursor: cindex.Cursor, parent: cindex.Cursor | None) -> None:
        if not self.is_statement(cursor, parent):
            return
        if cursor.kind == Kind.RETURN_STMT and next(cursor.get_children(), None) is not None:
            return
        start, end = cursor.extent.start.offset, self.statement_end(cursor)
        if end is None:
            return
        lines = lines_in(self.source(start, end))
        self.add("statement", (start, end), [("", ";" + lines)],
                 lambda render, number:
                 f"{{ if (!mutate::on({number})) {{ {render(start, end)} }} }}")

    def edit_else(self, cursor: cindex.Cursor) -> None:
        branches = list(cursor.get_children())
        start, end = self.range_of(branches[-1])
        before = self.bare[:start].rstrip()
        if len(branches) < 3 or not before.endswith("else"):
            return
        body = branches[-1]
        inside = list(body.get_children()) if body.kind == Kind.COMPOUND_STMT else [body]
        if len(inside) == 1 and inside[0].kind.is_expression():
            return  # the same as without its only statement
        if body.kind != Kind.COMPOUND_STMT and body.kind != Kind.IF_STMT:
            end = self.statement_end(body) or end
        span = (len(before) - len("else"), end)
        lines = lines_in(self.source(*span))
        inner = (start, end)
        self.add("else", span, [("", lines or " ")],
                 lambda render, number:
                 f"else {{ if (!mutate::on({number})) {{ {render(*inner)} }} }}")

    def edit_return(self, cursor: cindex.Cursor) -> None:
        value = next(cursor.get_children(), None)
        end = self.statement_end(cursor)
        if value is None or end is None or EMPTY.fullmatch(self.text_of(value)):
            return
        kind = type_kind(value) if self.in_lambda or self.result is None \
            else self.result.get_canonical().kind
        inner = self.range_of(value)
        text = self.source(*inner)
        if kind == TypeKind.BOOL:
            self.add_flip(value, "return")
        elif kind in NUMBERS and kind != TypeKind.ENUM:
            self.add("return", inner, [(f"{text} + 1", f"({text}) + 1")],
                     lambda render, number: f"mutate::one_more({number}, {render(*inner)})")
        elif kind not in (TypeKind.LVALUEREFERENCE, TypeKind.RVALUEREFERENCE, TypeKind.VOID) \
                and not self.in_lambda and self.can_be_empty(self.result):
            self.add_empty_return(cursor.extent.start.offset, end)

    @staticmethod
    def can_be_empty(result: cindex.Type) -> bool:
        constructors = [child for child in result.get_canonical().get_declaration().get_children()
                        if child.kind == Kind.CONSTRUCTOR]
        return not constructors or any(map(cindex.Cursor.is_default_constructor, constructors))

    def add_empty_return(self, start: int, end: int) -> None:
        lines = lines_in(self.source(start, end))
        self.add("return", (start, end), [("return {};", "return {};" + lines)],
                 lambda render, number:
                 f"{{ if (mutate::on({number})) {{ return {{}}; }} {render(start, end)} }}")


def find_edits(root: Path, file: str, flags: list[str]) -> list[Edit]:
    return Finder(root, file, flags).find()


def number_same(mutants: Iterator[Mutant]) -> None:
    """Gives mutants that are the same but for the line their ordinals."""
    seen: dict[str, int] = {}
    for mutant in mutants:
        mutant.ordinal = 0
        base = mutant.key
        mutant.ordinal = seen.get(base, 0)
        seen[base] = mutant.ordinal + 1
