"""The scripted registry client as tests use it: answers go in, the exact calls come out."""

import os
from pathlib import Path

ANY = object()
"""Stands for any one argument in a pattern; `...` stands for all further arguments."""


class StartsWith:
    """Stands for one argument that begins with the text."""

    def __init__(self, text):
        self.text = os.fsencode(text)


def _bytes(text):
    return text if isinstance(text, bytes) else os.fsencode(text)


def _pattern(word):
    if word is ...:
        return b"*"
    if word is ANY:
        return b"?"
    if isinstance(word, StartsWith):
        return b"^" + word.text
    return b"=" + _bytes(word)


def _take_texts(data):
    """Splits a file of texts that each end with NUL."""
    assert data == b"" or data.endswith(b"\0"), "a recorder's note is cut off"
    return iter(data.split(b"\0")[:-1])


class Recorder:
    """A registry client that answers by rules and notes every call.

    Whatever no rule fits is answered with exit status 0 and no output. Of several rules that fit,
    the one added last is used. Arguments are text decoded as the file system's names are, so odd
    bytes appear as surrogates; `raw_calls` has them as bytes.
    """

    def __init__(self, program, folder):
        self.program = Path(program)
        self.folder = Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self._rules = 0
        self.clear()
        (self.folder / "answers").write_bytes(b"")

    @property
    def env(self):
        return {"CORVIK_RECORDER": str(self.folder)}

    def on(self, *pattern, stdout=b"", stderr=b"", status=0, signal=0, writes=None, times=0):
        """Answers calls with these arguments (the word "regsh" left out).

        `writes` goes into the file named by the last argument, as an export does; `signal` ends the
        client by that signal after its output; `times` limits how often the rule is used.
        """
        for ending, content in (("out", stdout), ("err", stderr), ("doc", writes)):
            if content is not None:
                (self.folder / f"{self._rules}.{ending}").write_bytes(_bytes(content))
        words = [str(len(pattern)).encode(), *map(_pattern, pattern)]
        words += [str(int(number)).encode() for number in (times, status, signal)]
        with open(self.folder / "answers", "ab") as answers:
            answers.write(b"".join(word + b"\0" for word in words))
        self._rules += 1
        return self

    @property
    def raw_calls(self):
        """Every call so far, in order, as a list of bytes that begins with the program's name."""
        words = _take_texts((self.folder / "calls").read_bytes())
        calls = []
        for count in words:
            next(words)  # the rule that was used
            calls.append([next(words) for _ in range(int(count))])
        return calls

    @property
    def calls(self):
        return [[os.fsdecode(word) for word in call] for call in self.raw_calls]

    @property
    def imports(self):
        """The documents given to `regsh import`, in order; None where there was no such file."""
        result = []
        for number, call in enumerate(self.raw_calls):
            if len(call) > 2 and call[1] == b"import":
                copy = self.folder / f"import-{number}"
                result.append(copy.read_bytes() if copy.exists() else None)
        return result

    def clear(self):
        """Forgets the calls; the rules stay."""
        for copy in self.folder.glob("import-*"):
            copy.unlink()
        (self.folder / "calls").write_bytes(b"")
