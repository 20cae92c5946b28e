"""Holds what is written about the tool against its sources and prints a line for each difference.

    drift.py [--tree FOLDER] [--programs FOLDER]

Compared are the command line (parser, usage text, corvik(1), completions, synopses and mentions in the
documents), results, messages, files, registry entries and verbs, connection types and image
identifiers. Nothing need be built; with --programs the usage text of the built tool is looked at, too.
The status is 1 when there is a difference.

Messages are found in the sources by where they stand: in a printing call, in a "throw", or in a
constant that is used there. Any other literal must be known as something else, by its place (the
tables NOT_PRINTED and TABLES below), by its form (paths, endings, marks without a letter), or one by
one (SINGLE). A literal that is none of these is a difference, so that no message is overlooked.
"""

import argparse
import bisect
import itertools
import re
import subprocess
import sys
import tempfile
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from functools import cached_property
from pathlib import Path

ROOMS = ("main", "connections", "platform", "common")
PAGE = "packaging/man/corvik.1"
FILE_PAGE = "packaging/man/corvik-connections.5"
CLIENT_PAGE = "packaging/man/regsh.1"
COMMAND_LINE = "main/command_line.cpp"
TYPE_MAP = "platform/conn_type_map.cpp"
IMAGE_ID = "platform/image_id.cpp"
SHARED_COMPLETION = "packaging/completions/device_types.sh.in"
COMMANDS = "a command line"
HOLE = "{}"  # in a message: what only the run knows
ABORTED = 134  # what a shell shows for SIGABRT
OF_SHELLS = {126, 127, ABORTED}  # also what a shell shows that cannot start the tool
TIME_LIMIT_SECONDS = 60

# What a literal is that stands in such a call (or is an object of such a type).
NOT_PRINTED = {
    COMMANDS: "command_status format_command read_first_line read_all_lines query_registry_value "
              "run_command_first_line shell_exec shell_exec_raw shell_popen read_last_block",
    "a name in a document": "ChildElement AddChildElement AddAttribute AttributeValue AttributeView "
                            "NTiXmlElementCursor attribute_equals filled_attribute Field",
    "what is looked for": "find find_first_of find_first_not_of find_last_of strcmp strcasecmp "
                          "equals_ignoring_case StringEqual EndTag sscanf is_usable_file",
    "a set of characters": "mark encode StringTokens",
    "markup": "AppendMarkup append_field",
    "how something is opened": "fopen fdopen popen open getenv",
    "the place of an assertion": "check_argument settings_command read_reply",
}
CALLS = {call: reason for reason, calls in NOT_PRINTED.items() for call in calls.split()}

# Tables and constants that hold no message.
TABLES = {
    "kModes": "words of the command line",
    "kValueOptions": "words of the command line",
    "kHandlers": "types",
    "PairRow": "types",
    "kCodes": "codes of image identifiers",
    "keys": "keys of the system description",
    "kPrograms": "programs that are started without a shell",
    "kXmlEntities": "entities",
    "kSource": "the unit that an exception keeps and nobody prints",
}

# What prints its arguments.
PRINTING = {"puts", "fputs", "printf", "fprintf", "print_message"}

# Literals that are no message though neither place nor form tells.
SINGLE = {
    ("connections/conn.cpp", "New "): "the label of a connection that has none",
    ("common/filefuncs.cpp", "File"): "the name of an element",
    ("common/tinyxml.cpp", "TException"): "the name of a class, kept and not printed",
    ("common/tinyxml.cpp", "NTiXmlException"): "the name of a class, kept and not printed",
    ("platform/command_runner.cpp", "sh"): "the shell's own name",
    ("platform/command_runner.cpp", "-c"): "the shell's option",
    ("platform/network_settings.cpp",
     "dbus-send --system --print-reply --dest=org.freedesktop.NetworkManagerSystemSettings "):
        "a command line that is put together",
    ("platform/network_settings.cpp",
     "  org.freedesktop.NetworkManagerSettings.Connection.GetSettings"):
        "a command line that is put together",
}

# Nothing that -get or -set does; the page has no FILES for them.
NOT_PART_OF_A_RUN = {"platform/os_subtype.cpp", "platform/os_subtype.h",
                     "platform/network_settings.cpp"}
# Paths of the code that are no business of an administrator.
PLAIN_DEVICES = {"/dev/null"}

# Which argument of a thrown object is its text, where that is not the first.
THROWN_TEXT = {"NTiXmlException": 2}

# Pairs that the parser takes without effect: a synopsis leaves them out.
IDLE = {("get", "r")}

# Statuses beside the tool's own: sources, enumeration, page.
OTHER_STATUSES = [("tools/device/failure.h", "ExitStatus", "packaging/man/device.1"),
                  ("tools/regsh/commands.h", "Status", CLIENT_PAGE)]

# What each completion knows of the command line, and where it says so.
COMPLETIONS = {
    "corvik.bash.in": {
        "modes": [r"_corvik_offer ((?:-\w+ ?)+)$"],
        "modes with options": [r"\$mode != -(\w+)"],
        "options": [r'left=" ([-\w ]+)"', r'left\+="([-\w ]+)"'],
        "letters": [r"== -\[(\w+)\]"],
        "options with a value": [r"^ +((?:-\w(?: \| )?)+)\)"],
    },
    "_corvik.in": {
        "modes": [r"^ +'(-\w+):"],
        "modes with options": [r"== -\((\w+(?:\|\w+)*)\)", r"== -(\w+) \]\] && purposes"],
        "options": [r"purposes=\((.*)\)", r"purposes\[(-\w)\]=", r"for word in ((?:-\w ?)+);"],
        "letters": [r"== -\[(\w+)\]"],
        "options with a value": [r"^ +((?:-\w(?: \| )?)+)\)"],
    },
    "corvik.fish.in": {
        "modes": [r"'__corvik_at mode' -a '(-\w+)'"],
        "modes with options": [r"contains -- \$words\[2\] ((?:-\w+ ?)+)"],
        "options": [r"'(\w):"],
        "letters": [r"\^-\(\?!\[(\w+)\]\$\)"],
        "options with a value": [r"^ +case ((?:-\w ?)+)$"],
    },
}


class Differences:
    """The differences found so far."""

    def __init__(self) -> None:
        self.lines: list[str] = []

    def add(self, place: str, text: str) -> None:
        line = f"{place}: {text}"
        if line not in self.lines:
            self.lines.append(line)

    def compare(self, place: str, what: str, told: Iterable, true: Iterable, source: str) -> None:
        """Both as sets: what is told at a place and what the source has."""
        told, true = set(told), set(true)
        for each in sorted(true - told, key=str):
            self.add(place, f"{what} {each!s} of {source} is missing")
        for each in sorted(told - true, key=str):
            self.add(place, f"{what} {each!s} is not in {source}")


class Unreadable(Exception):
    """A place that has not the form in which it is looked for."""


# --- C++ sources --------------------------------------------------------------------------------------

TOKEN = re.compile(r"""
    (?P<nothing>\s+|//[^\n]*|/\*.*?\*/|\#\ *(?:include|pragma|if|ifdef|ifndef|else|endif)\b[^\n]*)
  | (?:u8|[uUL])?R"(?P<delimiter>[^(]*)\((?P<raw>.*?)\)(?P=delimiter)"
  | (?:u8|[uUL])?"(?P<string>(?:[^"\\\n]|\\.)*)"
  | (?P<character>'(?:[^'\\\n]|\\.)+')
  | (?P<number>\.?\d(?:[\w.']|(?<=[eE])[+-])*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign>::|->|<<|==|!=|\+=|<=|>=|&&|\|\||.)""", re.X | re.S)
ESCAPE = re.compile(r"\\(x[0-9A-Fa-f]+|[0-7]{1,3}|.)", re.S)
ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "v": "\v", "f": "\f", "a": "\a", "b": "\b"}
CONVERSION = re.compile(r"%[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|j|z|t|L)?([a-zA-Z%])")
CLOSING = {"(": ")", "[": "]", "{": "}"}
BEFORE_A_BLOCK = {")", "else", "try", "do", "const", "noexcept", "override", ";"}
NO_TYPE = {"return", "throw", "else", "case", "new", "const", "constexpr", "goto", "operator"}


def unescaped(text: str) -> str:
    def one(match: re.Match) -> str:
        body = match[1]
        if body[0] == "x":
            return chr(int(body[1:], 16))
        return chr(int(body, 8)) if body[0] in "01234567" else ESCAPES.get(body, body)
    return ESCAPE.sub(one, text)


@dataclass
class Token:
    kind: str  # string, character, number, name, sign
    text: str  # of a string: what it holds
    line: int


def tokens_of(text: str) -> list[Token]:
    """Without comments and directives; adjacent strings are one."""
    found: list[Token] = []
    starts = [match.end() for match in re.finditer("\n", text)]
    for match in TOKEN.finditer(text):
        kind = match.lastgroup
        if kind == "nothing":
            continue
        line = bisect.bisect_right(starts, match.start()) + 1
        if kind in ("string", "raw"):
            held = match["raw"] if kind == "raw" else unescaped(match["string"])
            if found and found[-1].kind == "string":
                found[-1].text += held
            else:
                found.append(Token("string", held, line))
        else:
            found.append(Token(kind, match[0], line))
    return found


@dataclass(frozen=True)
class Span:
    """Tokens from begin up to, not including, end."""
    begin: int
    end: int

    def __contains__(self, at: int) -> bool:
        return self.begin <= at < self.end


@dataclass(frozen=True)
class Constant:
    name: str
    scope: Span  # where the name is known
    value: Span


class Source:
    """A source file: its tokens, what encloses them, its functions and constants."""

    def __init__(self, path: str, text: str) -> None:
        self.path = path
        self.tokens = tokens_of(text)
        self.outer = [-1] * len(self.tokens)  # innermost open bracket around each token
        self.closer: dict[int, int] = {}
        self._find_brackets()
        self.functions: list[tuple[str, Span]] = []
        self._find_functions(Span(0, len(self.tokens)))
        self.printed: set[int] = set()  # literals that are part of a message

    def _find_brackets(self) -> None:
        stack = [-1]
        for at, token in enumerate(self.tokens):
            if token.kind == "sign" and token.text in CLOSING.values() and len(stack) > 1:
                self.closer[stack.pop()] = at
            self.outer[at] = stack[-1]
            if token.kind == "sign" and token.text in CLOSING:
                stack.append(at)
        if len(stack) > 1:
            raise Unreadable(f"{self.path}:{self.tokens[stack[-1]].line}: a bracket stays open")

    def text(self, at: int) -> str:
        """The token as it is written; "" for a string and outside of the file."""
        if not 0 <= at < len(self.tokens) or self.tokens[at].kind == "string":
            return ""
        return self.tokens[at].text

    def place(self, at: int) -> str:
        return f"{self.path}:{self.tokens[at].line}"

    def _find_functions(self, span: Span) -> None:
        """Those of a file, a namespace or a class."""
        at = start = span.begin
        while at < span.end:
            text = self.text(at)
            if text in ("(", "["):
                at = self.closer[at] + 1
            elif text == "{":
                head = [i for i in range(start, at) if self.outer[i] == self.outer[at]]
                body = Span(at + 1, self.closer[at])
                at = self.closer[at] + 1
                if self._takes_body(head, body):
                    start = at
            else:
                at += 1
                start = at if text == ";" else start

    def _takes_body(self, head: list[int], body: Span) -> bool:
        """Notes the function, or looks into the scope. False for an initializer."""
        words = [self.text(i) for i in head]
        if "=" in words:
            return False
        if "namespace" in words:
            self._find_functions(body)
        elif "(" in words:
            self.functions.append((self.text(head[words.index("(")] - 1), body))
        elif {"class", "struct", "union"} & set(words):
            self._find_functions(body)
        else:
            return "enum" in words
        return True

    def function_at(self, at: int) -> tuple[str, Span] | None:
        return next((each for each in self.functions if at in each[1]), None)

    @cached_property
    def constants(self) -> list[Constant]:
        found = []
        for at, token in enumerate(self.tokens):
            if token.kind != "sign" or token.text != "=":
                continue
            name = at - 1
            if self.text(name) == "]":
                name = next(k for k, closer in self.closer.items() if closer == name) - 1
            start = at
            while start > 0 and self.text(start - 1) not in (";", "{", "}", "("):
                start -= 1
            if not {"const", "constexpr"} & {self.text(i) for i in range(start, name)}:
                continue
            end, last = at + 1, self.closer.get(self.outer[at], len(self.tokens))
            while end < last and not (self.text(end) == ";" and self.outer[end] == self.outer[at]):
                end += 1
            function = self.function_at(at)
            scope = function[1] if function else Span(0, len(self.tokens))
            found.append(Constant(self.text(name), scope, Span(at + 1, end)))
        return sorted(found, key=lambda each: each.scope.end - each.scope.begin)

    def constant(self, name: str, at: int) -> Constant | None:
        """The innermost of that name that is known there."""
        return next((each for each in self.constants if each.name == name and at in each.scope), None)

    def holder(self, at: int) -> Constant | None:
        """The constant that a literal is, or is the beginning or end of."""
        return next((each for each in self.constants if at in each.value
                     and self.outer[at] == self.outer[each.value.begin]), None)

    def callee(self, bracket: int) -> str:
        """What is called with a bracket, or the type of the object that is made with it."""
        name = bracket - 1
        if self.text(name) == ">":
            depth = 0
            while name >= 0:
                depth += {">": 1, "<": -1}.get(self.text(name), 0)
                name -= 1
                if depth == 0:
                    break
        if name < 0 or self.tokens[name].kind != "name":
            return ""
        before = self.tokens[name - 1] if name else None
        if before and before.kind == "name" and before.text not in NO_TYPE:
            return before.text
        return self.text(name)

    def is_block(self, bracket: int) -> bool:
        if self.text(bracket) != "{":
            return False
        direct = (i for i in range(bracket + 1, self.closer[bracket]) if self.outer[i] == bracket)
        return self.text(bracket - 1) in BEFORE_A_BLOCK or any(self.text(i) == ";" for i in direct)

    def brackets_around(self, at: int) -> Iterator[int]:
        """From the innermost outwards, up to the block that the token stands in."""
        bracket = self.outer[at]
        while bracket >= 0 and not self.is_block(bracket):
            yield bracket
            bracket = self.outer[bracket]

    def arguments(self, bracket: int) -> list[Span]:
        end = self.closer[bracket]
        commas = [i for i in range(bracket + 1, end)
                  if self.text(i) == "," and self.outer[i] == bracket]
        edges = [bracket, *commas, end]
        return [Span(a + 1, b) for a, b in zip(edges, edges[1:]) if a + 1 < b]

    def calls(self, names: Iterable[str]) -> Iterator[tuple[str, int]]:
        """Name and bracket of each call in a function."""
        for at, token in enumerate(self.tokens):
            if token.kind == "name" and token.text in names and self.text(at + 1) == "(":
                if self.function_at(at) and self.callee(at + 1) == token.text:
                    yield token.text, at + 1

    def split(self, span: Span, sign: str) -> list[Span]:
        level = self.outer[span.begin]
        at = [i for i in range(span.begin, span.end)
              if self.text(i) == sign and self.outer[i] == level]
        edges = [span.begin - 1, *at, span.end]
        return [Span(a + 1, b) for a, b in zip(edges, edges[1:])]

    def texts(self, span: Span, mark: bool = True) -> list[str]:
        """What an expression may give, with holes; marks its literals as printed."""
        choice = self.split(span, "?")
        if len(choice) > 1:
            ways = self.split(Span(choice[1].begin, span.end), ":")
            return [text for way in ways for text in self.texts(way, mark)]
        terms = [self._term(term, mark) for term in self.split(span, "+") if term.begin < term.end]
        return ["".join(parts) for parts in itertools.product(*terms)]

    def _term(self, term: Span, mark: bool) -> list[str]:
        first = self.tokens[term.begin]
        if term.end - term.begin == 1:
            if first.kind == "string":
                if mark:
                    self.printed.add(term.begin)
                return [first.text]
            known = self.constant(first.text, term.begin) if first.kind == "name" else None
            if known and term.begin not in known.value and self.text(known.value.begin) != "{":
                return self.texts(known.value, mark)
        last = term.end - 1
        opener = self.outer[last - 1] if last > term.begin else -1
        if self.text(last) == ")" and self.closer.get(opener) == last and opener == term.begin + 3 \
                and self.callee(opener) in ("string", "string_view"):
            return self.texts(Span(opener + 1, last), mark)
        return [HOLE]

    def expression(self, at: int) -> Span:
        """The whole sum that a literal is part of."""
        ends = {";", ",", "return", "=", "+=", "?", ":", "<<", "==", "!="}
        level, begin, end = self.outer[at], at, at + 1
        last = self.closer.get(level, len(self.tokens))
        while begin - 1 > level and not (
                self.outer[begin - 1] == level and self.text(begin - 1) in ends):
            begin -= 1
        while end < last and not (self.outer[end] == level and self.text(end) in ends):
            end += 1
        return Span(begin, end)


# --- messages of the sources --------------------------------------------------------------------------


@dataclass(frozen=True)
class Message:
    """A line that the tool may print, or the text of an exception."""
    place: str
    stream: str  # stdout, stderr, or thrown
    forms: tuple[str, ...]  # the forms in which it may be documented, the likeliest last


def in_holes(text: str) -> str:
    return CONVERSION.sub(lambda found: "%" if found[1] == "%" else HOLE, text)


def lines_of(text: str) -> list[str]:
    """The lines that say something, without the blanks at their ends."""
    lines = [line.rstrip() for line in text.split("\n")]
    return [line for line in lines if re.search(r"[^\W_]", line.replace(HOLE, ""))]


class Messages:
    """The messages of a source; collects what exceptions are caught with."""

    def __init__(self, sources: list[Source]) -> None:
        self.said: list[Message] = []
        self.usage: list[str] = []
        self.log: list[tuple[str, str]] = []  # what is written into files, with its place
        self.last_word = ""  # what begins the last line
        thrown = [each for source in sources for each in self._thrown(source)]
        caught: dict[str, str] = {}  # class -> what is added behind its text
        for source in sources:
            for name, bracket in source.calls(PRINTING):
                self._take_printed(source, name, bracket)
            self._take_told(source, {kind for _, kind, _ in thrown}, caught)
        for place, kind, text in thrown:
            for line in lines_of(text):
                told = f"{self.last_word}{line}{caught.get(kind, '')}"
                self.said.append(Message(place, "thrown", (line, told)))

    def _thrown(self, source: Source) -> list[tuple[str, str, str]]:
        """Place, class and text of each exception."""
        found = []
        for at, token in enumerate(source.tokens):
            if token.kind == "name" and token.text == "throw":
                bracket = at + 1
                while source.text(bracket) not in (";", "(", "{"):
                    bracket += 1
                if source.text(bracket) == ";":
                    continue
                kind = source.text(bracket - 1)
                arguments = source.arguments(bracket)
                wanted = THROWN_TEXT.get(kind, 0)
                if wanted < len(arguments):
                    found += [(source.place(at), kind, text)
                              for text in source.texts(arguments[wanted])]
        for _, bracket in source.calls({"fail"}):
            for argument in source.arguments(bracket)[1:]:
                found += [(source.place(bracket), "NTiXmlException", text)
                          for text in source.texts(argument)]
        return found

    def _take_printed(self, source: Source, name: str, bracket: int) -> None:
        arguments = source.arguments(bracket)
        stream = "stdout"
        if name in ("fputs", "fprintf"):
            shown = arguments.pop(-1 if name == "fputs" else 0)
            stream = source.text(shown.begin)
        if name == "print_message":
            stream = "stderr"
        if stream not in ("stdout", "stderr"):
            self.log += [(source.place(bracket), in_holes(text))
                         for text in source.texts(arguments[0])]
            return
        function = source.function_at(bracket)[0]
        for text in source.texts(arguments[0]):
            if name.endswith(("printf", "message")):
                text = in_holes(text)
            lines = lines_of(text)
            if function == "print_usage":
                self.usage += text.rstrip("\n").split("\n")
                lines = lines[:1]
            if function == "tell":  # its callers say the rest
                self.last_word = self.last_word or text
                continue
            self.said += [Message(source.place(bracket), stream, (line,)) for line in lines]

    def _take_told(self, source: Source, thrown: set[str], caught: dict[str, str]) -> None:
        """The calls of a function of the file that prints its argument."""
        prefix = self.last_word if source.path == "main/last_word.cpp" else ""
        for _, bracket in source.calls({"tell"}):
            arguments = source.arguments(bracket)
            for parts in itertools.product(*(source.texts(each) for each in arguments)):
                kind = caught_class(source, bracket)
                if kind in thrown and parts[0] == HOLE and len(parts) > 1:
                    caught[kind] = "".join(parts[1:])
                    continue
                text = prefix + "".join(parts)
                self.said += [Message(source.place(bracket), "stderr", (line,))
                              for line in lines_of(text)]


def caught_class(source: Source, at: int) -> str:
    """What the "catch" catches that the call stands in."""
    block = source.outer[at]
    if block < 0 or source.text(block - 1) != ")":
        return ""
    opener = next(k for k, closer in source.closer.items() if closer == block - 1)
    if source.text(opener - 1) != "catch":
        return ""
    names = [source.text(i) for i in range(opener + 1, block - 1)]
    return names[names.index("&") - 1] if "&" in names else ""


class Literals:
    """Says of each literal that is no message what else it is."""

    PATH = re.compile(r"\.{0,2}[\w.%-]*(/[\w.%-]*)+")
    ENDING = re.compile(r"\.[a-z]+")

    def __init__(self, sources: list[Source]) -> None:
        self.sources = sources
        self.unknown: list[tuple[str, str]] = []
        self.unused = dict(SINGLE)
        for source in sources:
            for at, token in enumerate(source.tokens):
                if token.kind == "string" and not self.is_known(source, at):
                    self.unknown.append((source.place(at), token.text))

    def is_known(self, source: Source, at: int) -> bool:
        text = source.tokens[at].text
        if at in source.printed or not re.search(r"[^\W_]", text):
            return True
        if self.unused.pop((source.path, text), None) or (source.path, text) in SINGLE:
            return True
        if self.stands_apart(source, at):
            return True
        if any(each.name in TABLES for each in source.constants if at in each.value):
            return True
        holder = source.holder(at)
        if holder and any(self.stands_apart(source, use) for use in uses(source, holder)):
            return True
        in_print = any(source.callee(each) in (*PRINTING, "tell")
                       for each in source.brackets_around(at))
        formed = self.PATH.fullmatch(text) or self.ENDING.fullmatch(text)
        return bool(formed) and not in_print

    @staticmethod
    def stands_apart(source: Source, at: int) -> bool:
        """Whether the place of a literal, or of a constant's name, is none where text is printed."""
        if {source.text(at - 1), source.text(at + 1)} & {"==", "!="}:
            return True
        for bracket in source.brackets_around(at):
            name = source.callee(bracket)
            if name in CALLS or name in TABLES:
                return True
            if source.text(bracket) == "{" and source.text(bracket - 1) == ":":
                return True  # the names that a loop goes through
            if name == "fprintf" and source.text(bracket + 1) not in ("stderr", "stdout"):
                return True
        return False


def uses(source: Source, constant: Constant) -> Iterator[int]:
    for at in range(constant.scope.begin, constant.scope.end):
        token = source.tokens[at]
        if token.kind == "name" and token.text == constant.name and at not in constant.value:
            if source.text(at + 1) not in ("=", "["):
                yield at


# --- pages --------------------------------------------------------------------------------------------

MDOC_ESCAPES = {r"\(dq": '"', r"\(aq": "'", r"\(ga": "`", r"\-": "-", r"\&": "", r"\e": "\\",
                r"\(en": "\N{EN DASH}", r"\ ": " "}
CLOSING_SIGNS = {".", ",", ":", ";", ")", "]", "?", "!"}


def without_escapes(text: str) -> str:
    return re.sub(r"\\(?:\(..|.)", lambda found: MDOC_ESCAPES.get(found[0], found[0]), text)


def words_of(line: str) -> list[str]:
    """The words of a macro line, escapes resolved."""
    found = re.findall(r'"((?:[^"]|"")*)"|(\S+)', line)
    return [without_escapes(quoted.replace('""', '"') or plain) for quoted, plain in found]


@dataclass
class Item:
    """An item of a list: its head and what stands below it."""
    head: list[str]
    body: list[str] = field(default_factory=list)
    line: int = 0

    def text(self) -> str:
        """The head as it reads, a hole for each variable part."""
        out, macro, joined = "", "", True
        for word in self.head:
            if word in ("Sy", "Ar", "Pa", "Fl", "Cm", "Ev", "Dv"):
                macro = word
                continue
            if word == "Ns":
                joined = True
                continue
            if not joined and word not in CLOSING_SIGNS:
                out += " "
            out += HOLE if macro == "Ar" else word
            joined = False
        return out.rstrip()


class Page:
    """A man page."""

    def __init__(self, path: str, text: str) -> None:
        self.path, self.lines = path, text.splitlines()

    def section(self, name: str, level: str = "Sh") -> list[tuple[int, str]]:
        """Its lines, numbered from 1."""
        inside, found = False, []
        for number, line in enumerate(self.lines, 1):
            if line.startswith((".Sh ", f".{level} ")):
                inside = line == f".{level} {name}"
            elif inside:
                found.append((number, line))
        if not found:
            raise Unreadable(f"{self.path}: there is no section {name}")
        return found

    def subsections(self, name: str) -> dict[str, list[tuple[int, str]]]:
        found: dict[str, list[tuple[int, str]]] = {"": []}
        title = ""
        for number, line in self.section(name):
            if line.startswith(".Ss "):
                title = line[4:]
                found[title] = []
            else:
                found[title].append((number, line))
        return found

    @staticmethod
    def items(lines: list[tuple[int, str]]) -> list[Item]:
        """The items of its tagged lists."""
        found: list[Item] = []
        tagged: list[bool] = []
        for number, line in lines:
            if line.startswith(".Bl "):
                tagged.append("-tag" in line)
            elif line == ".El" and tagged:
                tagged.pop()
            elif line.startswith(".It ") and tagged and tagged[-1]:
                found.append(Item(words_of(line[4:]), [], number))
            elif found and tagged:
                found[-1].body.append(line)
        return found


@dataclass
class Tree:
    """The files that are held against each other."""
    root: Path

    def read(self, path: str) -> str:
        try:
            return (self.root / path).read_text()
        except OSError as error:
            raise Unreadable(f"{path}: {error.strerror}") from error

    def page(self, path: str = PAGE) -> Page:
        return Page(path, self.read(path))

    def documents(self) -> list[str]:
        """Texts for users and developers, man pages left out."""
        found = [self.root / "README.md", *sorted((self.root / "docs").glob("*.md"))]
        return [str(path.relative_to(self.root)) for path in found]

    @cached_property
    def sources(self) -> list[Source]:
        paths = [path for room in ROOMS for path in sorted((self.root / room).iterdir())
                 if path.suffix in (".cpp", ".h")]
        if len(paths) < 2 * len(ROOMS):
            raise Unreadable(f"{self.root}: the rooms hold hardly a source")
        names = [str(path.relative_to(self.root)) for path in paths]
        return [Source(name, self.read(name)) for name in names]

    @cached_property
    def messages(self) -> Messages:
        # The file with the last word first: others are told with its beginning.
        ordered = sorted(self.sources, key=lambda each: each.path != "main/last_word.cpp")
        return Messages(ordered)


# --- (a) command line ---------------------------------------------------------------------------------


@dataclass
class CommandLine:
    """What the parser takes."""
    modes: dict[str, bool]  # mode -> whether type and options follow
    options: dict[str, bool]  # letter -> whether a value follows

    def facts(self) -> dict[str, set[str]]:
        return {"modes": set(self.modes), "options": set(self.options), "letters": set(self.options),
                "modes with options": {mode for mode, more in self.modes.items() if more},
                "options with a value": {option for option, value in self.options.items() if value}}


def parser_of(tree: Tree) -> CommandLine:
    text = tree.read(COMMAND_LINE)
    table = re.search(r"kModes\[\] = {(.*?)};", text, re.S)
    modes = re.findall(r'{"(\w+)", RunMode::\w+, (true|false)}', table[1]) if table else []
    table = re.search(r"kValueOptions\[\] = {(.*?)};", text, re.S)
    values = re.findall(r'{"(\w)", ', table[1]) if table else []
    flags = re.findall(r'strcasecmp\(letter, "(\w)"\)', text)
    if not (modes and values and flags):
        raise Unreadable(f"{COMMAND_LINE}: the parser's tables are not found")
    return CommandLine({mode: more == "true" for mode, more in modes},
                       {**dict.fromkeys(values, True), **dict.fromkeys(flags, False)})


# One line of a synopsis: the mode, and for each option whether it has a value and may be left out.
Form = tuple[str, dict[str, tuple[bool, bool]]]


def form_of(line: str) -> Form:
    mode, rest = re.match(r" *-(\w+)(.*)", line).groups()
    found = re.findall(r"(\[?)-(\w)\b( <\w+>| [A-Z]+\b)?", rest)
    return mode, {option: (bool(value), bool(bracket)) for bracket, option, value in found}


def synopsis_forms(page: Page) -> list[Form]:
    forms: list[Form] = []
    for _, line in page.section("SYNOPSIS"):
        words = words_of(line[1:])
        if words == ["Nm"]:
            forms.append(("", {}))
        elif "Fl" in words:
            name = words[words.index("Fl") + 1]
            mode, options = forms[-1]
            if mode:
                options[name] = ("Ar" in words, words[0] == "Op")
            else:
                forms[-1] = (name, options)
    return forms


def check_forms(out: Differences, place: str, forms: list[Form], parser: CommandLine) -> None:
    out.compare(place, "mode", [f"-{mode}" for mode, _ in forms],
                [f"-{mode}" for mode in parser.modes], "the parser")
    for mode, options in forms:
        wanted = parser.options if parser.modes.get(mode) else {}
        for option in sorted(set(wanted) - set(options)):
            if (mode, option) not in IDLE:
                out.add(place, f"-{mode} lacks the option -{option} of the parser")
        for option in sorted(set(options) - set(wanted)):
            out.add(place, f"-{mode} has the option -{option}, which is not in the parser")
        for option in set(wanted) & set(options):
            value, optional = options[option]
            if value != wanted[option]:
                out.add(place, f"-{mode}: the parser sees the value of -{option} in another way")
            if optional == (option == "f"):
                out.add(place, f"-{mode}: only -f is not in brackets, see -{option}")


def check_usage(out: Differences, tree: Tree, parser: CommandLine) -> None:
    usage = tree.messages.usage
    forms = [form_of(line) for line in usage if re.match(r" {4}-\w", line)]
    check_forms(out, f"{COMMAND_LINE} (usage)", forms, parser)
    page = tree.page()
    display = re.search(r"^\.Bd -literal\n(.*?)^\.Ed",
                        "\n".join(line for _, line in page.section("DIAGNOSTICS")), re.M | re.S)
    if not display:
        raise Unreadable(f"{PAGE}: DIAGNOSTICS shows no usage text")
    # A line that is too wide for a page goes on in a deeper one.
    shown = re.sub(r"\n {9,}", " ", without_escapes(display[1])).splitlines()
    told = [line.rstrip() for line in usage[1:]]
    for line in shown:
        if line not in told:
            out.add(PAGE, f'the usage of DIAGNOSTICS has a line that the tool has not: "{line}"')
    for line in told:
        if line not in shown:
            out.add(PAGE, f'the usage of DIAGNOSTICS lacks a line of the tool: "{line}"')
    if sorted(shown) == sorted(told) and shown != told:
        out.add(PAGE, "the usage of DIAGNOSTICS has its lines in another order than the tool")


def check_page_options(out: Differences, tree: Tree, parser: CommandLine) -> None:
    page = tree.page()
    check_forms(out, f"{PAGE} (SYNOPSIS)", synopsis_forms(page), parser)
    known = {**parser.modes, **parser.options}
    listed = {item.head[1]: "Ar" in item.head
              for item in page.items(page.section("Options", "Ss")) if item.head[0] == "Fl"}
    out.compare(f"{PAGE} (Options)", "option", [f"-{each}" for each in listed],
                [f"-{each}" for each in known], "the parser")
    for name in set(listed) & set(known):
        if listed[name] != known[name]:
            out.add(f"{PAGE} (Options)", f"the parser sees the value of -{name} in another way")
    for path in (PAGE, FILE_PAGE):
        for number, line in enumerate(tree.read(path).splitlines(), 1):
            for name in re.findall(r"\bFl (\w+)", line) if line.startswith(".") else []:
                if name.lower() not in known:
                    out.add(f"{path}:{number}", f"-{name} is not in the parser")


def check_completions(out: Differences, tree: Tree, parser: CommandLine) -> None:
    facts = parser.facts()
    for name, patterns in COMPLETIONS.items():
        path = f"packaging/completions/{name}"
        text = tree.read(path)
        for what, expressions in patterns.items():
            told: set[str] = set()
            for expression in expressions:
                found = re.findall(expression, text, re.M)
                if not found:
                    out.add(path, f"the {what} are not found; has the form changed?")
                words = {word for each in found for word in each_word(what, each)}
                told |= words
            out.compare(path, f"({what})", [f"-{each}" for each in told],
                        [f"-{each}" for each in facts[what]], "the parser")


def each_word(what: str, found: str) -> list[str]:
    if what == "letters":
        return list(found)
    dashed = re.findall(r"(?<![\w-])-(\w+)\b", found)
    return dashed or re.findall(r"\w+", found)


def check_mentions(out: Differences, tree: Tree, parser: CommandLine) -> None:
    """Command lines, and words with a dash, wherever they are told."""
    known = {*parser.modes, *parser.options}
    pages = [PAGE, FILE_PAGE, "packaging/man/device.1"]
    for path in [*tree.documents(), *pages]:
        for number, line in enumerate(tree.read(path).splitlines(), 1):
            mentioned = re.findall(r"`-([A-Za-z]\w*)`", line) if path.endswith(".md") else []
            for command in re.findall(r"\bcorvik (-[^`|;&>'\"]*)", line):
                mentioned += re.findall(r"(?<![\w-])-([A-Za-z]\w*)\b", command)
            for name in mentioned:
                if name.lower() not in known:
                    out.add(f"{path}:{number}", f"-{name} is not in the parser")
    for path in tree.documents():
        synopses = re.findall(r"^(?: *corvik -.*\n)* *corvik -v\n(?: *corvik -.*\n)*",
                              tree.read(path), re.M)
        for synopsis in synopses:
            forms = [form_of(line.split("corvik", 1)[1]) for line in synopsis.splitlines()]
            check_forms(out, f"{path} (synopsis)", forms, parser)
        if path == "README.md" and not synopses:
            out.add(path, "the synopsis is not found")


def check_program(out: Differences, tree: Tree, programs: Path) -> None:
    with tempfile.TemporaryDirectory() as folder:
        shown = subprocess.run([programs.resolve() / "corvik", "-h"], cwd=folder, text=True,
                               capture_output=True, timeout=TIME_LIMIT_SECONDS, check=False)
    if shown.stdout != "\n".join(tree.messages.usage) + "\n":
        out.add(f"{programs}/corvik -h", f"prints another usage than {COMMAND_LINE} has")


# --- (b) numbers --------------------------------------------------------------------------------------


def enumerators(tree: Tree, path: str, name: str) -> dict[int, str]:
    body = re.search(rf"^enum (?:class )?{name}\b[^{{]*{{(.*?)}};", tree.read(path), re.M | re.S)
    found = re.findall(r"(\w+)\s*=\s*(-?\d+),", body[1]) if body else []
    if not found:
        raise Unreadable(f"{path}: the enumeration {name} is not found")
    return {int(number): each for each, number in found}


def exit_statuses(page: Page) -> list[int]:
    items = [item for item in page.items(page.section("EXIT STATUS")) if item.head[0].isdigit()]
    return [int(item.head[0]) for item in items]


def check_statuses(out: Differences, tree: Tree) -> None:
    codes = enumerators(tree, "common/result_codes.h", "ResultCode")
    page = tree.page()
    compare_numbers(out, f"{PAGE} (EXIT STATUS)", exit_statuses(page), codes, {ABORTED})
    for item in page.items(page.section("EXIT STATUS")):
        result = re.search(r"\bresult (-?\d+)$", " ".join(item.head))
        if result and int(result[1]) not in codes:
            out.add(f"{PAGE}:{item.line}", f"result {result[1]} is not in common/result_codes.h")
    for path, name, described in OTHER_STATUSES:
        compare_numbers(out, f"{described} (EXIT STATUS)", exit_statuses(tree.page(described)),
                        enumerators(tree, path, name), set())
    for path in tree.documents():
        for place, told in number_tables(out, path, tree.read(path)):
            compare_numbers(out, place, told, codes, OF_SHELLS)
    check_told_results(out, tree, codes)


def compare_numbers(out: Differences, place: str, told: list[int], codes: dict[int, str],
                    others: set[int]) -> None:
    """Numbers may be told as results or as the status that comes of them."""
    seen = {number & 0xFF for number in told}
    for number, name in codes.items():
        if number & 0xFF not in seen:
            out.add(place, f"{number} ({name}) is missing")
    for number in told:
        if number & 0xFF not in {code & 0xFF for code in codes} | others:
            out.add(place, f"{number} is no result or status")
    for number in sorted(seen):
        if len([each for each in told if each & 0xFF == number]) > 1:
            out.add(place, f"{number} is told twice")


def tables_of(text: str) -> Iterator[tuple[int, list[list[str]]]]:
    """Line number and rows of cells of each table in Markdown, the head first."""
    rows: list[list[str]] = []
    for number, line in enumerate([*text.splitlines(), ""], 1):
        if line.startswith("|"):
            if not re.fullmatch(r"[|:\- ]+", line):
                rows.append([cell.strip() for cell in re.split(r"(?<!\\)\|", line)[1:-1]])
        elif rows:
            yield number - len(rows) - 1, rows
            rows = []


def number_tables(out: Differences, path: str, text: str) -> Iterator[tuple[str, list[int]]]:
    """Tables whose first column is the result."""
    for line, (head, *rows) in tables_of(text):
        if not re.match(r"(result|code|exit|status)", head[0], re.I):
            continue
        told = []
        for row in rows:
            cell = re.match(r"`?-?\d+(, -?\d+)*\b", row[0].replace("\N{MINUS SIGN}", "-"))
            if cell:
                told += [int(number) for number in re.findall(r"-?\d+", cell[0])]
            else:
                out.add(f"{path}:{line}", f'the result "{row[0]}" of the table is no number')
        yield f"{path}:{line} (table of results)", told


def check_told_results(out: Differences, tree: Tree, codes: dict[int, str]) -> None:
    allowed = set(codes) | {code & 0xFF for code in codes}
    for path in [*tree.documents(), PAGE, FILE_PAGE]:
        for number, line in enumerate(tree.read(path).splitlines(), 1):
            told = re.findall(r"\bresults? (?:\\?(-?\d+))|\brc=(-?\d+)", line, re.I)
            for result in (int(first or second) for first, second in told):
                if result not in allowed:
                    out.add(f"{path}:{number}", f"result {result} is not in common/result_codes.h")


# --- (c) messages -------------------------------------------------------------------------------------

TO_STDOUT, INNER = "Standard output", "Inner messages"


def documented_messages(page: Page) -> list[tuple[str, str, int]]:
    """Subsection, message and line."""
    found = [(title, item.text(), item.line) for title, lines in page.subsections("DIAGNOSTICS").items()
             for item in page.items(lines)]
    if not found:
        raise Unreadable(f"{page.path}: DIAGNOSTICS lists no message")
    return found


def check_messages(out: Differences, tree: Tree) -> None:
    documented = documented_messages(tree.page())
    sections: dict[str, set[str]] = {}
    for title, text, _ in documented:
        sections.setdefault(text, set()).add(title)
    met: set[str] = set()
    for message in tree.messages.said:
        hits = [form for form in message.forms if form in sections]
        met.update(hits)
        told = message.forms[0]
        if not hits:
            out.add(message.place, f'the message "{told}" is not in DIAGNOSTICS of {PAGE}')
        elif message.stream in ("stdout", "stderr"):
            for title in sections[told] - {INNER}:
                if (title == TO_STDOUT) != (message.stream == "stdout"):
                    out.add(message.place, f'"{told}" goes to {message.stream}; '
                                           f'DIAGNOSTICS has it under "{title}"')
    for _, text, line in documented:
        if text not in met:
            out.add(f"{PAGE}:{line}", f'the message "{text}" of DIAGNOSTICS is not in the code')
    counted = [text for _, text, _ in documented]
    for _, text, line in documented:
        if counted.count(text) > 1:
            out.add(f"{PAGE}:{line}", f'DIAGNOSTICS has "{text}" more than once')
    check_quoted_messages(out, tree)


def check_quoted_messages(out: Differences, tree: Tree) -> None:
    """Tables of messages in other documents hold nothing that the tool does not print."""
    said = {form for message in tree.messages.said for form in message.forms
            if form != f"{tree.messages.last_word}{HOLE}"}
    for path in tree.documents():
        for line, (head, *rows) in tables_of(tree.read(path)):
            if not re.match(r"message", head[0], re.I):
                continue
            for quoted in (span for row in rows for span in whole_messages(row[0])):
                if not any(is_quoted(form, quoted) for form in said):
                    out.add(f"{path}:{line}", f'the message "{quoted}" is not in the code')


def whole_messages(cell: str) -> list[str]:
    """The messages of a cell. One that begins with "<" begins as the first does up to there."""
    spans = re.findall(r"`([^`]+)`", cell)
    start = spans[0].partition("<")[0] if spans else ""
    return [start + span if span.startswith("<") else span for span in spans]


def is_quoted(form: str, quoted: str) -> bool:
    """Whether a message is told with anything for its holes, or with "..." for a part of it."""
    return bool(re.fullmatch(".+".join(map(re.escape, form.split(HOLE))), quoted) or
                re.fullmatch(".+".join(map(re.escape, quoted.split("..."))), form))


def check_literals(out: Differences, tree: Tree) -> None:
    assert tree.messages.said  # finding them marks their literals
    literals = Literals(tree.sources)
    for place, text in literals.unknown:
        shown = text.replace("\n", "\\n")
        out.add(place, f'the literal "{shown}" is neither a message that can be read nor known as '
                       "something else (see the tables of drift.py)")
    for path, text in literals.unused:
        out.add("tools/dev/drift.py", f'SINGLE lists "{text}", which {path} does not hold')


# --- (d) files, registry, types -----------------------------------------------------------------------

FILE_PATH = re.compile(r"(?<![\w.%{}])/(?:[\w.{}-]+/?)+")
LOCAL_FILE = re.compile(r"\w+\.log")
REGISTRY_PATH = re.compile(r"\broot(?:/[\w.{}-]+)+/?")


@dataclass
class Paths:
    """What the code names: files, their endings, entries and keys of the registry, verbs, programs."""
    files: dict[str, str] = field(default_factory=dict)  # path -> where
    endings: dict[str, str] = field(default_factory=dict)
    entries: dict[str, str] = field(default_factory=dict)
    keys: dict[str, str] = field(default_factory=dict)
    verbs: dict[str, str] = field(default_factory=dict)
    programs: dict[str, str] = field(default_factory=dict)


def paths_of(tree: Tree) -> Paths:
    assert tree.messages.said
    found = Paths()
    for source in tree.sources:
        for at, token in enumerate(source.tokens):
            if token.kind != "string" or at in source.printed:
                continue
            if Literals.ENDING.fullmatch(token.text) and source.path not in NOT_PART_OF_A_RUN:
                found.endings.setdefault(token.text, source.place(at))
            if LOCAL_FILE.fullmatch(token.text):
                found.files.setdefault(token.text, source.place(at))
            for text in source.texts(source.expression(at), mark=False):
                take_paths(found, source.path, source.place(at), in_holes(text))
                if source.path not in NOT_PART_OF_A_RUN and is_command(source, at):
                    for program in re.findall(r"(?:^|[;|]) *([A-Za-z][\w-]*)(?= |$)", text):
                        found.programs.setdefault(program, source.place(at))
    return found


def is_command(source: Source, at: int) -> bool:
    """Whether a literal is part of a command line, by its place or as a constant."""
    holder = source.holder(at)
    places = [at, *(uses(source, holder) if holder else [])]
    return any(CALLS.get(source.callee(bracket)) == COMMANDS
               for place in places for bracket in source.brackets_around(place))


def take_paths(found: Paths, source: str, place: str, text: str) -> None:
    if source not in NOT_PART_OF_A_RUN:
        for path in FILE_PATH.findall(text):
            found.files.setdefault(path, place)
    for path in REGISTRY_PATH.findall(text):
        found.entries.setdefault(path.rstrip("/"), place)
    for key in re.findall(r"\}/([A-Za-z]\w+)(?=\s|$)", text):
        found.keys.setdefault(key, place)
    for verb in re.findall(r"\bregsh (\w+)", text):
        found.verbs.setdefault(verb, place)


def check_paths(out: Differences, tree: Tree, paths: Paths) -> None:
    page = tree.page()
    items = [item for item in page.items(page.section("FILES")) if item.head[0] == "Pa"]
    told = {item.text(): item for item in items}
    entries = {text: item for text, item in told.items() if text.startswith("root/")}
    files = {text: item for text, item in told.items() if text not in entries}
    check_files(out, files, paths)
    check_entries(out, entries, paths)
    endings = {word for item in items for line in [" ".join(item.head), *item.body]
               for word in re.findall(r"(?:Pa|^\.Pa) (\.[a-z]+)\b", line)}
    for ending in sorted(set(paths.endings) - endings):
        out.add(paths.endings[ending], f"files end in {ending}; FILES of {PAGE} has no such")
    for ending in sorted(endings - set(paths.endings)):
        out.add(f"{PAGE} (FILES)", f"no file of the code ends in {ending}")
    log = told.get("corvik.log")
    for place, text in tree.messages.log:
        for word in re.findall(r"[^\W\d]\w*=", text):
            if log and not any(line.startswith(f".Sy {word}") for line in log.body):
                out.add(place, f'the log has "{word}"; FILES of {PAGE} does not tell it')
    written = {word for _, text in tree.messages.log for word in re.findall(r"[^\W\d]\w*=", text)}
    for word in re.findall(r"^\.Sy (\w+=)", "\n".join(log.body) if log else "", re.M):
        if word not in written:
            out.add(f"{PAGE} (FILES)", f'the code writes no "{word}" into the log')


def check_files(out: Differences, told: dict[str, Item], paths: Paths) -> None:
    for path, place in sorted(paths.files.items()):
        below = any(path.startswith(each) for each in told if each.endswith("/"))
        if path not in told and path not in PLAIN_DEVICES and not below:
            out.add(place, f"the file {path} is not in FILES of {PAGE}")
    for path, item in told.items():
        if path not in paths.files:
            out.add(f"{PAGE}:{item.line}", f"the file {path} of FILES is not in the code")


def check_other_files(out: Differences, tree: Tree, paths: Paths) -> None:
    """The page on the connections file, and what corvik(1) says of the programs that are started."""
    page = tree.page(FILE_PAGE)
    for item in page.items(page.section("FILES")):
        if item.text().startswith("/") and item.text() not in paths.files:
            out.add(f"{FILE_PAGE}:{item.line}", f"the file {item.text()} of FILES is not in the code")
    page = tree.page()
    told = {word for item in page.items(page.section("ENVIRONMENT")) if item.text() == "PATH"
            for word in re.findall(r"^\.Sy (\w+)(?: ,)?$", "\n".join(item.body), re.M)}
    out.compare(f"{PAGE} (ENVIRONMENT)", "program", told, set(paths.programs), "the code's commands")
    started = "platform/spawned_command.cpp"
    table = re.search(r"kPrograms = {(.*?)};", tree.read(started), re.S)
    if not table:
        raise Unreadable(f"{started}: kPrograms is not found")
    for program in set(re.findall(r'"(\w+)"', table[1])) - set(paths.programs):
        out.add(started, f"kPrograms has {program}, which no command starts")


def check_description(out: Differences, tree: Tree) -> None:
    """The words of /etc/systeminfo."""
    page, text = tree.page(), tree.read(IMAGE_ID)
    body = next(("\n".join(item.body) for item in page.items(page.section("FILES"))
                 if item.text() == "/etc/systeminfo"), "")
    keys = set(re.findall(r'"([A-Z_]+)=", &info', text))
    out.compare(f"{PAGE} (FILES)", "key", re.findall(r"^\.Sy ([A-Z_]+)", body, re.M), keys, IMAGE_ID)
    out.compare(f"{PAGE} (FILES)", "value", re.findall(r"^\.Dq (\w+)", body, re.M),
                re.findall(r'equals_ignoring_case\([\w.]+, "(\w+)"\)', text), IMAGE_ID)
    shell = re.findall(r"\*(\w+)=\*\) take_value", tree.read(SHARED_COMPLETION))
    out.compare(SHARED_COMPLETION, "key", shell, keys, IMAGE_ID)


def check_entries(out: Differences, told: dict[str, Item], paths: Paths) -> None:
    for path, place in sorted(paths.entries.items()):
        if not any(each == path or each.startswith(path + "/") for each in told):
            out.add(place, f"the registry entry {path} is not in FILES of {PAGE}")
    for path, item in told.items():
        if path not in paths.entries and path.removesuffix(f"/{HOLE}") not in paths.entries:
            out.add(f"{PAGE}:{item.line}", f"the registry entry {path} of FILES is not in the code")
    keys = {key: item.line for item in told.values() for line in item.body
            for key in re.findall(r"^\.Pa (\w+)", line)}
    levels = {level for path in told for level in path.split("/")}
    for key in sorted(set(paths.keys) - set(keys) - levels):
        out.add(paths.keys[key], f"the registry key {key} is not in FILES of {PAGE}")


def check_keys(out: Differences, tree: Tree, paths: Paths) -> None:
    page = tree.page()
    literals = {token.text for source in tree.sources for token in source.tokens
                if token.kind == "string"}
    for item in page.items(page.section("FILES")):
        if not item.text().startswith("root/"):
            continue
        for key in re.findall(r"^\.Pa (\w+)", "\n".join(item.body), re.M):
            if key not in paths.keys and key not in literals:
                out.add(f"{PAGE}:{item.line}", f"the registry key {key} of FILES is not in the code")


def check_verbs(out: Differences, tree: Tree, paths: Paths) -> None:
    client = "tools/regsh/commands.cpp"
    offered = re.findall(r'^ +{"(\w+)", \d, \d, ', tree.read(client), re.M)
    page = tree.page(CLIENT_PAGE)
    listed = [item.head[1] for item in page.items(page.section("Verbs", "Ss")) if item.head[0] == "Cm"]
    shown = [words_of(line)[1] for _, line in page.section("SYNOPSIS") if line.startswith(".Cm ")]
    out.compare(f"{CLIENT_PAGE} (Verbs)", "verb", listed, offered, client)
    out.compare(f"{CLIENT_PAGE} (SYNOPSIS)", "verb", shown, offered, client)
    for verb, place in sorted(paths.verbs.items()):
        if verb not in listed:
            out.add(place, f"the verb {verb} is used and not in {CLIENT_PAGE}")
    for path in [*tree.documents(), PAGE]:
        for number, line in enumerate(tree.read(path).splitlines(), 1):
            for verb in re.findall(r"(?:`|\$ |Ql |; )regsh ([a-z]+)\b", line):
                if verb not in offered:
                    out.add(f"{path}:{number}", f"the client has no verb {verb}")


def check_registry_document(out: Differences, tree: Tree, paths: Paths) -> None:
    """The document for authors of clients: tables of verbs and of entries."""
    document = "docs/registry.md"
    if not (tree.root / document).exists():
        return
    cells: dict[str, list[str]] = {"Call": [], "Path": []}
    for _, (head, *rows) in tables_of(tree.read(document)):
        if head[0] in cells:
            cells[head[0]] += [span for row in rows for span in re.findall(r"`([^`]+)`", row[0])]
    out.compare(document, "verb", {cell.split()[0] for cell in cells["Call"]}, paths.verbs, "the code")
    told = {re.sub(r"\b[A-Z]{2,}\b", HOLE, cell) for cell in cells["Path"]}
    whole = {cell for cell in told if cell.startswith("root/")}
    for path, place in sorted(paths.entries.items()):
        tail = "..." + path.removeprefix("root/ConnectionType/{}")
        if tail not in told and not any(each == path or each.startswith(path + "/") for each in whole):
            out.add(document, f"the registry entry {path}, used in {place}, is not told")
    for path in sorted(whole - set(paths.entries)):
        out.add(document, f"the registry entry {path} is not in the code")
    names = {cell.rsplit("/", 1)[-1] for cell in told}
    for key in sorted(set(paths.keys) - names):
        out.add(document, f"the registry key {key}, used in {paths.keys[key]}, is not told")


def code_types(tree: Tree) -> dict[int, dict[str, tuple[str, str]]]:
    """Image type -> display name -> the registry's name and the other one, or ""."""
    text = tree.read(TYPE_MAP)
    arrays = {}
    for name, body in re.findall(r"constexpr std::array (\w+) = {(.*?)};", text, re.S):
        rows = re.findall(r'PairRow{"([^"]+)", "([^"]+)"(?:, "([^"]+)")?}', body)
        arrays[name] = {display: (registry, other) for display, registry, other in rows}
        if len(rows) != body.count("PairRow{"):
            raise Unreadable(f"{TYPE_MAP}: {name} has a row of another form")
    slots = re.findall(r"SlotRow\{(\d+), (\d+), (\w+)\}", text)
    if not slots:
        raise Unreadable(f"{TYPE_MAP}: the slots are not found")
    return {image: arrays[name] for low, high, name in slots
            for image in range(int(low), int(high) + 1)}


def page_types(page: Page) -> dict[int, dict[str, str]]:
    """Image type -> display name -> the cell of the table."""
    lines = [line for _, line in page.section("Connection types", "Ss")]
    table = re.search(r"^\.Bl -column.*?\n(.*?)^\.El", "\n".join(lines), re.M | re.S)
    if not table:
        raise Unreadable(f"{page.path}: Connection types has no table")
    head, *rows = [[without_escapes(cell).strip() for cell in line[4:].split(" Ta ")]
                   for line in table[1].splitlines()]
    found: dict[int, dict[str, str]] = {}
    for column, title in enumerate(head[1:], 1):
        numbers = [int(number) for number in re.findall(r"\d+", title)]
        if "\N{EN DASH}" in title:
            numbers = list(range(numbers[0], numbers[1] + 1))
        for image in numbers:
            found[image] = {row[0]: row[column] for row in rows if row[column] != "-"}
    return found


def check_types(out: Differences, tree: Tree) -> None:
    code, page = code_types(tree), page_types(tree.page())
    place = f"{PAGE} (Connection types)"
    out.compare(place, "image type", page, code, TYPE_MAP)
    for image in sorted(set(code) & set(page)):
        wanted = {display: registry + ("*" if other else "")
                  for display, (registry, other) in code[image].items()}
        out.compare(place, f"image type {image}:", [" ".join(row) for row in page[image].items()],
                    [" ".join(row) for row in wanted.items()], TYPE_MAP)
    text = "\n".join(line for _, line in tree.page().section("Connection types", "Ss"))
    told = set(re.findall(r"^\.Sy (\w+)", text, re.M))
    others = {other for rows in code.values() for _, other in rows.values() if other}
    out.compare(place, "substitute", told, others, TYPE_MAP)
    schema = "packaging/schema/corvik-connections.rnc"
    for elements in re.findall(r"\bBNJ(?: \| \w+)+", re.sub(r"\s+", " ", tree.read(schema))):
        out.compare(schema, "type", elements.split(" | "),
                    sorted({display for rows in code.values() for display in rows}), TYPE_MAP)
    highest = re.search(r"kHighestImageType = (\d+);",
                        tree.read("packaging/completions/completion_types.cpp"))
    if not highest or int(highest[1]) != max(code):
        out.add("packaging/completions/completion_types.cpp",
                f"the highest image type is {max(code)} in {TYPE_MAP}")


def check_image_ids(out: Differences, tree: Tree) -> None:
    """The completions find the image type by themselves."""
    text, shell = tree.read(IMAGE_ID), tree.read(SHARED_COMPLETION)
    rows: dict[str, list[tuple[str, int]]] = {}
    # The number of the last range of a code is not asked for.
    for code, highest, kind in re.findall(r'{"(\w+)", \d+, (\d+|kHighest), (\d+)}', text):
        rows.setdefault(code, []).append((highest, int(kind)))
    wanted = {}
    for code, ranges in rows.items():
        tests = [f'[ "$number" -le {highest} ] && echo {kind} || ' for highest, kind in ranges[:-1]]
        wanted[code] = "".join(tests) + f"echo {ranges[-1][1]}"
    told = {code.strip(): action for codes, action in
            re.findall(r"^ +([A-Z0-9]{2,3}(?: \| [A-Z0-9]{2,3})*)\) (.*) ;;$", shell, re.M)
            for code in codes.split("|")}
    compare_arms(out, told, wanted)
    versions = {"Standard": r'"" \| .*?esac', "Zero": r"\[Zz\].*?esac"}
    for name, pattern in versions.items():
        table = re.search(rf"k{name}Versions{{(.*?)}};", text, re.S)
        block = re.search(pattern, shell, re.S)
        if not table or not block:
            raise Unreadable(f"{IMAGE_ID} or {SHARED_COMPLETION}: versions are not found")
        compare_arms(out, dict(re.findall(r"(\d)\*\) echo (\d+)", block[0])),
                     dict(re.findall(r"{'(\d)', (\d+)}", table[1])))


def compare_arms(out: Differences, told: dict[str, str], wanted: dict[str, str]) -> None:
    out.compare(SHARED_COMPLETION, "case", [") ".join(arm) for arm in told.items()],
                [") ".join(arm) for arm in wanted.items()], IMAGE_ID)


# --- all ----------------------------------------------------------------------------------------------


def check_command_line(out: Differences, tree: Tree) -> None:
    parser = parser_of(tree)
    for check in (check_usage, check_page_options, check_completions, check_mentions):
        guarded(out, check, tree, parser)


def check_device(out: Differences, tree: Tree) -> None:
    paths = paths_of(tree)
    for check in (check_paths, check_other_files, check_keys, check_verbs, check_registry_document):
        guarded(out, check, tree, paths)


CHECKS = (check_command_line, check_statuses, check_messages, check_literals, check_device,
          check_description, check_types, check_image_ids)


def guarded(out: Differences, check, *arguments) -> None:
    """A place that cannot be read is a difference, too, and does not hide the others."""
    try:
        check(out, *arguments)
    except Unreadable as error:
        out.add(*str(error).split(": ", 1))


def main() -> int:
    parser = argparse.ArgumentParser(description="Holds documents and sources against each other.")
    parser.add_argument("--tree", type=Path, default=Path(__file__).resolve().parent.parent.parent,
                        help="the source tree (default: this one)")
    parser.add_argument("--programs", type=Path, help="also ask the built tool in this folder")
    given = parser.parse_args()
    out, tree = Differences(), Tree(given.tree)
    for check in CHECKS:
        guarded(out, check, tree)
    if given.programs:
        guarded(out, check_program, tree, given.programs)
    for line in out.lines:
        print(line)
    return 1 if out.lines else 0


if __name__ == "__main__":
    sys.exit(main())
