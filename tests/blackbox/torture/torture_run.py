"""Runs in which one thing goes wrong, many of them on one device, and what every run has to keep.

A `Bench` is a device with a scenario made ready on it. Its runs are started by one shell that stays
on the device; folders are put back between them from outside. `told` sums a run up in one line,
after it has checked what holds for every run, so that a table can say which lines are allowed.
"""

import os
import re
import select
import shutil
import signal
import subprocess
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

import keep_documents
from conftest import without_ways

ROOT = Path(__file__).resolve().parents[3]
RESULT_CODES = {int(number) for number in re.findall(
    r"= (-?\d+),", (ROOT / "common/result_codes.h").read_text())}
BEFORE = b"what was there before\n"
TIME_LIMIT_SECONDS = 60

# Sanitizers of the tool; a library that is preloaded comes before theirs.
SANITIZER_REPORT = re.compile(rb"AddressSanitizer|LeakSanitizer|runtime error:|Sanitizer:")
LOOP = """ulimit -c 0
while read -r line; do
    eval "$line" </dev/null >"$NOTES/stdout" 2>"$NOTES/stderr"
    echo $?
done"""


@dataclass
class Run:
    """What one run left behind."""

    result: int | None  # None: aborted
    messages: list
    file: bytes  # of an export
    tmp: dict
    sessions: dict
    imports: list
    calls: list
    struck: bool
    counts: dict = field(default_factory=dict)


class Session:
    """A shell on a device that runs one command line after the other."""

    def __init__(self, device, notes, client, settings):
        self.notes = notes
        call = [device.programs / "device", "--keep", device.folder, "--client", client]
        way = device.way or os.environ.get("CORVIK_DEVICE_WAY")
        call += ["--way", way] if way else []
        for name, value in {"NOTES": notes, **settings}.items():
            call += ["--env", f"{name}={value}"]
        self.process = subprocess.Popen([*call, "--", "sh", "-c", LOOP], cwd=device.home,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        start_new_session=True)

    def run(self, line):
        """The status as the shell gives it, and what was printed on standard error."""
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()
        ready, _, _ = select.select([self.process.stdout], [], [], TIME_LIMIT_SECONDS)
        if not ready:
            os.killpg(self.process.pid, signal.SIGKILL)
        assert ready, f"does not come back: {line}"
        return int(self.process.stdout.readline()), (self.notes / "stderr").read_bytes()

    def close(self):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait(TIME_LIMIT_SECONDS)


class Bench:
    def __init__(self, device, scenario):
        self.device = device
        self.scenario = scenario
        # Below a folder that every way of making a device shows to its programs.
        self.folder = device.folder / "client/torture"
        self.answers = self.folder / "answers"
        self.answers.mkdir(parents=True)
        self.store = device.etc / "regsh/registry.db"
        self.kept = self.folder / "registry.db"
        device.run("true", **scenario.identity)
        # With the library in its environment the shell has all on the device that it needs.
        self.library = device.programs / "libfailing_calls.so"
        settings = {"FAULTY_REGSH": self.answers, "LD_PRELOAD": self.library}
        if scenario.registry is not None:
            device.load_registry(scenario.registry)
            shutil.copyfile(self.store, self.kept)
            settings["FAULTY_REGSH_BEFORE"] = device.programs / "regsh"
        for words, text in scenario.answers.items():
            (self.answers / words.replace("/", "!")).write_text(text)
        self.session = Session(device, self.folder, device.programs / "regsh-faulty", settings)
        self.undisturbed = self.run()
        assert self.undisturbed.result == scenario.result, self.undisturbed
        assert bool(self.undisturbed.imports) == scenario.imports

    def close(self):
        self.session.close()

    def run(self, fault=None, **settings):
        """One run: with a fault of the client ("K FAULT"), or settings of the failing calls."""
        self._put_back(fault)
        words = " ".join(self.scenario.arguments)
        environment = " ".join(f"{name}={value}" for name, value in self._preload(settings).items())
        status, printed = self.session.run(f"{environment} corvik {words}")
        run = self._look(status, printed)
        self._keep(run)
        return run

    def _keep(self, run):
        """Hands over the whole documents of a run, for the tests that judge all documents."""
        scenario = self.scenario
        given = None if scenario.file is None else scenario.file.encode()
        documents = [(keep_documents.IMPORT, data) for data in run.imports]
        if given is None and run.file != BEFORE:
            documents.append((keep_documents.CONNECTIONS, run.file))
        told = "\n".join(run.messages)
        documents += [(keep_documents.SESSION, data) for name, data in run.sessions.items()
                      if given is not None and data != scenario.sessions.get(name, "").encode()
                      and not keep_documents.told_unwritten(name, told)]
        for role, data in documents if run.result in (0, -1) else []:
            keep_documents.keep_found(role, data, ("corvik", *scenario.arguments),
                                      None if role == keep_documents.CONNECTIONS else given)

    def _preload(self, settings):
        # The sanitizers' own library would otherwise insist on standing first.
        sanitizer = [*filter(None, [os.environ.get("ASAN_OPTIONS")]), "verify_asan_link_order=0"]
        return {"LD_PRELOAD": self.library, "FAIL_REPORT": self.folder / "report",
                "ASAN_OPTIONS": ":".join(sanitizer), **settings}

    def _put_back(self, fault):
        device, scenario = self.device, self.scenario
        for folder in (device.home, device.tmp, device.sessions):
            names = os.listdir(folder) if folder.is_dir() else []
            for name in without_ways(names, device.folder, device.programs):
                (folder / name).unlink()
        (device.home / "out.xml").write_bytes(BEFORE)
        if scenario.file is not None:
            (device.home / "in.xml").write_text(scenario.file)
        if scenario.sessions:
            device.sessions.mkdir(parents=True, exist_ok=True)
        for name, text in scenario.sessions.items():
            (device.sessions / name).write_text(text)
        for path in [*self.answers.glob("import-*"), self.answers / "plan", self.answers / "calls",
                     self.answers / "count", self.folder / "report"]:
            path.unlink(missing_ok=True)
        if fault is not None:
            (self.answers / "plan").write_text(fault)
        if scenario.registry is not None:
            shutil.copyfile(self.kept, self.store)

    def _look(self, status, printed):
        report = self._read(self.folder / "report").decode()
        lines = [line.split() for line in report.splitlines() if line != "struck"]
        calls = self._calls()
        plan = self._read(self.answers / "plan")
        reached = bool(plan) and len(calls) >= int(plan.split()[0])
        return Run(
            result=self._result(status, printed), messages=self._messages(status, printed),
            file=self._read(self.device.home / "out.xml"), tmp=self._content(self.device.tmp),
            sessions=self._content(self.device.sessions), calls=calls,
            imports=[path.read_bytes() for path in sorted(self.answers.glob("import-*"))],
            struck=reached or "struck" in report,
            counts={setting: int(number) for setting, number in lines})

    def _content(self, folder):
        names = sorted(os.listdir(folder)) if folder.is_dir() else []
        return {name: (folder / name).read_bytes()
                for name in without_ways(names, self.device.folder, self.device.programs)}

    @staticmethod
    def _read(path):
        return path.read_bytes() if path.exists() else b""

    def _calls(self):
        words = iter(os.fsdecode(self._read(self.answers / "calls")).split("\0")[:-1])
        return [[next(words) for _ in range(int(count))] for count in words]

    # What holds for every run, whatever goes wrong

    def _result(self, status, printed):
        """The result; None for an abnormal end of the kind that is described."""
        assert not SANITIZER_REPORT.search(printed), printed.decode("utf-8", "replace")
        log = self.device.log
        typed, file = self.scenario.arguments[1], self.scenario.arguments[3]
        header = f"{typed} {file} [******] [******] {int(self.scenario.removes)}\r\n".encode()
        last_words = [line for line in printed.split(b"\n") if line.startswith(b"corvik: ")]
        if status == 128 + signal.SIGABRT:
            assert len(last_words) == 1, printed
            assert log == header, log
            return None
        assert last_words == [], printed
        if log is None:
            assert (status, printed) == (0, b"Failed to open corvik logger file.\n")
            return 0
        result = -1 if status == 255 else status
        assert result in RESULT_CODES, (status, printed)
        assert log == header + b"rc=%d\n" % result, (status, log)
        return result

    @staticmethod
    def _messages(status, printed):
        text = printed.decode("utf-8", "surrogateescape").removesuffix("\n")
        lines = text.split("\n") if text else []
        # The shell's own line about the signal.
        return lines[:-1] if status == 128 + signal.SIGABRT and lines[-1:] == ["Aborted"] else lines


# A run in a line

def part_of(data, *whole):
    return any(each.startswith(data) for each in whole)


def told(bench, run):
    """How the run ended and what it left, beside what an undisturbed run does and says."""
    usual = bench.undisturbed
    more = Counter(run.messages) - Counter(usual.messages)
    fewer = Counter(usual.messages) - Counter(run.messages)
    pieces = ["aborted" if run.result is None else str(run.result), *_file_told(bench, run),
              *_import_told(bench, run), *_sessions_told(bench, run), *_calls_told(usual, run),
              *(["says less"] if fewer and run.result == usual.result else []),
              *("the client says why" if line.startswith("regsh: ") else f"says {line.strip()}"
                for line in more)]
    return ", ".join(dict.fromkeys(_without_names(piece, bench.scenario.registry_type)
                                   for piece in pieces))


def _without_names(text, registry_type):
    """What stands for any type and any connection; "I" is the name of one that was cut off."""
    text = text.replace(f"ConnectionType/{registry_type}", "ConnectionType/TYPE")
    text = text.replace(f"{registry_type}.xml", "TYPE.xml")
    text = re.sub(r"/connections/(id[-']\d|it's)", "/connections/ID", text)
    return re.sub(r"/connections/(id[-']|it')(?!\w)", "/connections/I", text)


def _named(data, whole, variants):
    """The name of this content: "whole", that of a variant, or None."""
    if data == whole:
        return "whole"
    return next((name for name, vary in variants.items() if data == vary(whole)), None)


def _file_told(bench, run):
    """The target of an export is as it was, or written whole; only result 12 tells of a part."""
    if bench.scenario.file is not None:
        assert run.file == BEFORE
        return []
    name = "as before" if run.file == BEFORE else _named(
        run.file, bench.undisturbed.file, bench.scenario.variants)
    if name is None:
        assert run.result == 12, f"half a file with result {run.result}: {run.file!r}"
        assert part_of(run.file, bench.undisturbed.file), run.file
        name = "a part" if run.file else "emptied"
    if run.result not in (0, 12):
        assert name == "as before", (run.result, name)
    left = sorted(run.tmp.keys()) if run.result == 0 else []
    return [name, *(f"leaves {each}" for each in left)]


def _import_told(bench, run):
    """The client is given a whole document or none; only a failure leaves a part in /tmp."""
    if bench.scenario.file is None:
        assert run.imports == []
        return []
    usual, document = bench.undisturbed, run.tmp.get("import.xml")
    whole = usual.imports[0] if usual.imports else b""
    assert len(run.imports) <= 1
    names = [_named(data, whole, bench.scenario.variants) for data in run.imports]
    assert None not in names, run.imports
    if run.imports:
        assert document == run.imports[0]
        # A failed call of the import itself is the client's to tell.
        return names
    name = None if document is None else _named(document, whole, bench.scenario.variants)
    if document is not None and name is None:
        assert run.result in (23, None), f"half a document with result {run.result}"
        assert part_of(document, whole, *(each(whole) for each in bench.scenario.variants.values()))
        name = "a part"
    if run.result == usual.result and not usual.imports:
        return ["whole"]
    return ["nothing imported", *([] if name is None else [f"{name} prepared"])]


def _sessions_told(bench, run):
    """Session files are as before, whole, or told not to be."""
    before = {name: text.encode() for name, text in bench.scenario.sessions.items()}
    whole = bench.undisturbed.sessions
    if run.sessions == before != whole:
        return ["sessions as before"]
    assert run.sessions.keys() <= before.keys() | whole.keys(), run.sessions.keys()
    pieces = []
    for name in sorted(whole):
        data = run.sessions.get(name)
        if data == whole[name]:
            continue
        if data == before.get(name):
            pieces.append(f"{name} as before")
            continue
        assert part_of(data, whole[name]), data
        assert any(line.startswith("Write file ") for line in run.messages), run.messages
        pieces.append(f"{name} in part")
    return pieces


MOST_OTHER_CALLS = 3
ICON_EMPTIED = re.compile(r"set \S+/hasDesktopIcon")


def _calls_told(usual, run):
    """The client is called as ever, in the same order; what else it is called for is told."""
    at, more = 0, []
    for call in run.calls:
        try:
            at = usual.calls.index(call, at) + 1
        except ValueError:
            more.append(" ".join(call).replace("\r", "\\r"))
    fewer = len(run.calls) - len(more) < len(usual.calls)
    icons = [call for call in more if ICON_EMPTIED.fullmatch(call)]
    others = [f"runs {call}" for call in more if call not in icons]
    if len(others) > MOST_OTHER_CALLS:
        others = ["does what another build does"]
    # Where a run ends before its time, that it does not do the rest goes without saying.
    return [*(["does less"] if fewer and run.result == usual.result else []),
            *(["empties an icon"] if icons else []), *others]
