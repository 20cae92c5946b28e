"""Builds a copy of the tree with all its mutants behind switches.

What does not compile with a switch is found out by compiling: the compiler's complaints name the
constants that have to stay constants and the lines of the other edits that go.
"""

import hashlib
import json
import os
import re
import shlex
import subprocess
from collections.abc import Iterable
from pathlib import Path

from find import Edit, Mutant, find_edits, number_same
from rewrite import is_switched, write_alone, write_switched

ROOMS = ("connections", "platform", "common")
UNIT_PROGRAMS = ("unit_common", "unit_platform", "unit_connections", "unit_main")
PROGRAMS = ("corvik", "regsh", "device", *UNIT_PROGRAMS)
SWITCH = "tools/mutate/mutant_switch.h"
PARSER_FLAGS = ["-x", "c++", "-std=c++20", "-D_GLIBCXX_ASSERTIONS"]
# As the shipped build, which finds some errors by itself, but quicker to compile.
COMPILER_FLAGS = ("-O1 -w -Wno-narrowing -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 "
                  "-D_GLIBCXX_ASSERTIONS -fstack-protector-strong "
                  # A mutant that leaves a function where the compiler sees no way out ends there.
                  "-fsanitize=return,unreachable -fsanitize-undefined-trap-on-error")
QUICK = b"add_compile_options(-O0)\n"  # the tests themselves: compiling them takes the longest
# Of the edits on a line that does not compile these go first.
DOUBTFUL = ("return", "constant", "string", "boolean", "step", "arithmetic", "relation")
PLACE = re.compile(r"^(?:In file included from )?(\S+?):(\d+):")
ROUNDS = 12


def list_files(root: Path) -> list[str]:
    listed = subprocess.run(
        ["git", "-c", f"safe.directory={root}", "-C", root, "ls-files", "-z", "--cached",
         "--others", "--exclude-standard"], check=True, capture_output=True).stdout
    return [name for name in listed.decode().split("\0") if name and (root / name).is_file()]


def list_sources(root: Path, rooms: tuple[str, ...] = ROOMS) -> list[str]:
    return sorted(str(path.relative_to(root)) for room in rooms
                  for path in (root / room).iterdir() if path.suffix in (".cpp", ".h"))


def write_if_changed(path: Path, data: bytes) -> None:
    """Leaves the time of an unchanged file as it is, so that it is not compiled again."""
    if path.is_file() and path.read_bytes() == data:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


class MutatedTree:
    """The copy of the tree below `folder`, and what was built of it.

    With `room`, only that one has mutants, and only what its unit tests need is built.
    """

    def __init__(self, root: Path, folder: Path, room: str | None = None):
        self.root = root
        self.folder = folder
        self.rooms = (room,) if room else ROOMS
        self.unit_programs = (f"unit_{room}",) if room else UNIT_PROGRAMS
        self.all_programs = ("device", *self.unit_programs) if room else PROGRAMS
        self.tree = folder / "tree"
        self.programs = folder / "programs"
        self.bin = self.programs / "bin"
        self.edits: dict[str, list[Edit]] = {}
        self.kept: dict[str, set[tuple[int, int]]] = {}

    # --- sources

    def copy(self) -> None:
        sources = set(list_sources(self.root, self.rooms))
        names = list_files(self.root)
        for name in names:
            path = self.tree / name
            if name not in sources:
                data = (self.root / name).read_bytes()
                write_if_changed(path, QUICK + data if name == "tests/CMakeLists.txt" else data)
                path.chmod((self.root / name).stat().st_mode & 0o777)
        known = set(names)
        for path in self.tree.rglob("*"):
            if path.is_file() and str(path.relative_to(self.tree)) not in known:
                path.unlink()

    def find(self) -> None:
        for file in list_sources(self.root, self.rooms):
            self.edits[file] = find_edits(self.root, file, [*PARSER_FLAGS, f"-I{self.root}"])
        number_same(self.mutants())

    def mutants(self) -> Iterable[Mutant]:
        return (mutant for edits in self.edits.values() for edit in edits for mutant in edit.mutants)

    def number(self) -> None:
        following = 1
        for file, edits in self.edits.items():
            for edit in edits:
                switched = is_switched(edit, self.kept.setdefault(file, set()))
                for mutant in edit.mutants:
                    mutant.number = following if switched else 0
                    following += 1  # a number stays as it is when others go

    def source(self, file: str) -> str:
        return (self.root / file).read_bytes().decode("latin-1")

    def write(self) -> None:
        self.number()
        for file, edits in self.edits.items():
            switched = [edit for edit in edits if is_switched(edit, self.kept[file])]
            text = write_switched(self.source(file), switched)
            write_if_changed(self.tree / file, text.encode("latin-1"))

    # --- programs

    def configure(self) -> None:
        flags = f"{COMPILER_FLAGS} -include {shlex.quote(str(self.tree / SWITCH))}"
        subprocess.run(
            ["cmake", "-S", self.tree, "-B", self.programs, "-G", "Ninja", "-DCORVIK_TOOLS=ON",
             "-DCORVIK_TESTS=ON", "-DCMAKE_BUILD_TYPE=Debug", f"-DCMAKE_CXX_FLAGS_DEBUG={flags}"],
            check=True, stdout=subprocess.DEVNULL)
        (self.programs / "pytest").mkdir(exist_ok=True)

    def targets(self) -> list[str]:
        """All programs, and what the black-box tests use beside them."""
        if self.rooms != ROOMS:
            return [*self.all_programs]
        texts = [path.read_text() for folder in ("support", "guard")
                 for pattern in ("CMakeLists.txt", "*.cmake")
                 for path in (self.tree / "tests" / folder).rglob(pattern)]
        helpers = re.findall(r"^\s*add_(?:library|executable)\((\S+)", "\n".join(texts), re.MULTILINE)
        return [*self.all_programs, *helpers]

    def compile(self, targets: Iterable[str] = ()) -> str:
        """What the compiler says; empty when all is built."""
        command = ["cmake", "--build", self.programs, "--parallel", str(os.cpu_count()), "--target",
                   *(targets or self.targets()), "--", "-k", "0"]
        made = subprocess.run(command, capture_output=True, text=True, errors="replace",
                              env={**os.environ, "LC_ALL": "C"}, check=False)
        return "" if made.returncode == 0 else made.stdout + made.stderr

    def build(self) -> None:
        self.load_kept()
        self.write()
        self.configure()
        for _ in range(ROUNDS):
            complaints = self.compile()
            if not complaints:
                self.save()
                return
            (self.folder / "build.log").write_text(complaints)
            if not self.give_way(complaints):
                break
            self.write()
        raise SystemExit(f"the mutated sources do not compile: {self.folder / 'build.log'}")

    def give_way(self, complaints: str) -> int:
        """Takes back what the compiler complains of. Returns how many edits that were."""
        before = sum(map(len, self.kept.values()))
        self.keep_constants(complaints)
        for file, line in self.places(complaints):
            self.keep_doubtful(file, line)
        return sum(map(len, self.kept.values())) - before

    def keep_constants(self, complaints: str) -> None:
        names = set()
        for text in re.findall(r"^.*(?:constant|constexpr|template argument|not captured).*$",
                               complaints, re.MULTILINE):
            names |= set(re.findall(r"\w+", " ".join(re.findall(r"'([^']*)'", text))))
        for file, edits in self.edits.items():
            for edit in edits:
                if edit.name in names and edit.name:
                    self.kept[file].add((edit.start, edit.end))

    def places(self, complaints: str) -> set[tuple[str, int]]:
        """Lines of mutated sources that errors are about."""
        places, context = set(), []
        for text in complaints.splitlines():
            found = PLACE.match(text)
            if not found or text.startswith("In file"):
                continue
            path = Path(found[1])
            path = path if path.is_absolute() else (self.programs / path)
            path = Path(os.path.normpath(path))
            name = str(path.relative_to(self.tree)) if path.is_relative_to(self.tree) else ""
            if name in self.edits:
                context.append((name, int(found[2])))
            if " error: " in text:
                places |= {context[-1]} if context else set()
                context = []
        return places

    def keep_doubtful(self, file: str, line: int) -> None:
        """Takes back the most doubtful kind of edit that touches the line."""
        text = self.source(file)
        touching = [edit for edit in self.edits[file]
                    if edit.mutants and is_switched(edit, self.kept[file])
                    and text.count("\n", 0, edit.start) + 1 <= line
                    <= text.count("\n", 0, edit.end) + 1]
        for operator in (*DOUBTFUL, None):
            chosen = [edit for edit in touching
                      if operator is None or edit.mutants[0].operator == operator]
            if chosen:
                self.kept[file] |= {(edit.start, edit.end) for edit in chosen}
                return

    def state(self, file: str) -> str:
        ranges = [(edit.start, edit.end) for edit in self.edits[file]]
        return hashlib.sha256(f"{ranges}{self.source(file)}".encode("latin-1")).hexdigest()

    def save(self) -> None:
        """What gave way is remembered, for as long as the source is the same."""
        (self.folder / "kept.json").write_text(json.dumps(
            {file: {"state": self.state(file), "ranges": sorted(ranges)}
             for file, ranges in self.kept.items() if ranges}))

    def load_kept(self) -> None:
        path = self.folder / "kept.json"
        for file, row in (json.loads(path.read_text()) if path.exists() else {}).items():
            if file in self.edits and row["state"] == self.state(file):
                self.kept[file] = {(start, end) for start, end in row["ranges"]}

    # --- one mutant alone

    def build_alone(self, mutant: Mutant) -> bool:
        """Builds with that mutant in the plain source. False when it does not compile."""
        text = write_alone(self.source(mutant.file), mutant)
        write_if_changed(self.tree / mutant.file, text.encode("latin-1"))
        return not self.compile(self.targets_of(mutant.file))

    @staticmethod
    def targets_of(file: str) -> tuple[str, ...]:
        """What is tried with a mutant alone: the program and the unit tests of its own room. Of a header
        those of other rooms could find more, but to compile them for each takes too long."""
        return ("corvik", "unit_" + file.split("/")[0])
