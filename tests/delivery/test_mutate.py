"""The mutator: each of its operators, on a source that has them all.

Behind its switch a mutant must do what it does when it is compiled alone, and with no mutant chosen the
program must do what the source says.
"""

import os
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(SOURCE / "tools/mutate"))

import build  # noqa: E402
import find  # noqa: E402
import rewrite  # noqa: E402
import run  # noqa: E402

TIME_LIMIT_SECONDS = 60
SAMPLE = """\
#include <cstdio>

constexpr int kStep = 3;
constexpr const char* kWord = "abc";

enum Number { kSeven = 7 };

struct Row {
    char mark;
    bool good = true;
};

int low(int a, int b) {
    if (a <= b) {
        return a;
    } else if (a == 9) {
        return 8;
    } else {
        std::puts("high");
        std::puts("higher");
    }
    return b - a;
}

bool both(bool a, bool b) { return a && b; }

const char* word(bool named) {
    const char* found = named ? kWord : nullptr;
    if (found == nullptr || !both(named, found[0] != 'b')) {
        return "";
    }
    return found;
}

int steps(int most) {
    int sum = 0;
    for (int i = 0; i < most; ++i) {
        if (i == 4) {
            break;
        }
        sum += kStep;
    }
    return sum;
}

int main() {
    const Row row{'m'};
    std::printf("%d %d %d|", low(1, 2), low(2, 2), low(3, 1));
    std::printf("%d %d|", both(true, false), both(true, true));
    std::printf("%s %s|", word(true) == nullptr ? "null" : word(true), word(false));
    std::printf("%d %d %c %d|", steps(2), steps(9), row.mark, row.good);
    std::fflush(stdout);
    static_assert(sizeof(row) == 2, "two bytes");
    char room[4];
    static_cast<void>(room);
}
"""
OUTPUT = "high\nhigher\n1 2 -2|0 1|abc |6 12 m 1|"


@dataclass(frozen=True)
class Row:
    operator: str
    code: str
    becomes: str
    output: str


ROWS = [
    Row("relation", "a <= b", "a < b", "high\nhigher\nhigh\nhigher\n1 0 -2|0 1|abc |6 12 m 1|"),
    Row("relation", "a <= b", "a > b", "high\nhigher\nhigh\nhigher\n1 0 3|0 1|abc |6 12 m 1|"),
    Row("relation", "i < most", "i <= most", "high\nhigher\n1 2 -2|0 1|abc |9 12 m 1|"),
    Row("relation", "i < most", "i >= most", "high\nhigher\n1 2 -2|0 1|abc |0 0 m 1|"),
    Row("equality", "a == 9", "a != 9", "1 2 8|0 1|abc |6 12 m 1|"),
    Row("equality", "found[0] != 'b'", "found[0] == 'b'", "high\nhigher\n1 2 -2|0 1| |6 12 m 1|"),
    Row("else", "else if (a == 9) { return 8; } else { std::puts(\"high\"); std::puts(\"higher\"); }",
        "", "1 2 -2|0 1|abc |6 12 m 1|"),
    Row("else", "else { std::puts(\"high\"); std::puts(\"higher\"); }", "",
        "1 2 -2|0 1|abc |6 12 m 1|"),
    Row("logic", "a && b", "a || b", "high\nhigher\n1 2 -2|1 1|abc |6 12 m 1|"),
    Row("return", "a && b", "!(a && b)", "high\nhigher\n1 2 -2|1 0| |6 12 m 1|"),
    Row("condition", "named", "!(named)", "high\nhigher\n1 2 -2|0 1| |6 12 m 1|"),
    Row("condition", "!both(named, found[0] != 'b')", "both(named, found[0] != 'b')",
        "high\nhigher\n1 2 -2|0 1| |6 12 m 1|"),
    Row("arithmetic", "b - a", "b + a", "high\nhigher\n1 2 4|0 1|abc |6 12 m 1|"),
    Row("arithmetic", "sum += kStep", "sum -= kStep", "high\nhigher\n1 2 -2|0 1|abc |-6 -12 m 1|"),
    Row("constant", "3", "3 + 1", "high\nhigher\n1 2 -2|0 1|abc |8 16 m 1|"),
    Row("constant", "3", "3 - 1", "high\nhigher\n1 2 -2|0 1|abc |4 8 m 1|"),
    Row("constant", "'m'", "'m' + 1", "high\nhigher\n1 2 -2|0 1|abc |6 12 n 1|"),
    Row("boolean", "true", "false", "high\nhigher\n1 2 -2|0 1|abc |6 12 m 0|"),
    Row("string", '"abc"', '""', "high\nhigher\n1 2 -2|0 1| |6 12 m 1|"),
    Row("string", '"abc"', '"ab"', "high\nhigher\n1 2 -2|0 1|ab |6 12 m 1|"),
    Row("string", '""', '"mutant"', "high\nhigher\n1 2 -2|0 1|abc mutant|6 12 m 1|"),
    Row("return", "return found;", "return {};", "high\nhigher\n1 2 -2|0 1|null |6 12 m 1|"),
    Row("return", "a", "a + 1", "high\nhigher\n2 3 -2|0 1|abc |6 12 m 1|"),
    Row("statement", 'std::puts("higher");', "", "high\n1 2 -2|0 1|abc |6 12 m 1|"),
    Row("statement", "break;", "", "high\nhigher\n1 2 -2|0 1|abc |6 27 m 1|"),
    Row("statement", "sum += kStep;", "", "high\nhigher\n1 2 -2|0 1|abc |0 0 m 1|"),
    Row("step", "++i", "--i", "high\nhigher\n1 2 -2|0 1|abc |"),
]
ENDLESS = {"--i"}


def compile_program(source: Path, program: Path, *flags: str) -> None:
    made = subprocess.run(["g++", "-std=c++20", "-w", "-Wno-narrowing", *flags, source, "-o", program],
                          capture_output=True, text=True, timeout=TIME_LIMIT_SECONDS, check=False)
    assert made.returncode == 0, made.stderr


def output_of(program: Path, number: int = 0) -> str | None:
    ran = subprocess.run([program], capture_output=True, text=True, timeout=TIME_LIMIT_SECONDS,
                         env={**os.environ, "CORVIK_MUTANT": str(number)}, check=False)
    return ran.stdout if ran.returncode == 0 else None


@pytest.fixture(scope="module")
def edits(tmp_path_factory) -> list[find.Edit]:
    folder = tmp_path_factory.mktemp("sample")
    (folder / "sample.cpp").write_text(SAMPLE)
    found = find.find_edits(folder, "sample.cpp", ["-x", "c++", "-std=c++20"])
    number = 1
    for edit in found:
        for mutant in edit.mutants:
            mutant.number = number
            number += 1
    return found


@pytest.fixture(scope="module")
def program(edits, tmp_path_factory) -> Path:
    """The sample with all mutants that can have a switch."""
    folder = tmp_path_factory.mktemp("switched")
    switched = [edit for edit in edits if rewrite.is_switched(edit, set())]
    (folder / "sample.cpp").write_text(rewrite.write_switched(SAMPLE, switched))
    compile_program(folder / "sample.cpp", folder / "sample", "-include",
                    str(SOURCE / "tools/mutate/mutant_switch.h"))
    return folder / "sample"


def mutants_of(edits: list[find.Edit]) -> list[find.Mutant]:
    return [mutant for edit in edits for mutant in edit.mutants]


def mutant_of(edits: list[find.Edit], row: Row) -> find.Mutant:
    def is_meant(mutant: find.Mutant) -> bool:
        return (mutant.operator, find.squeeze(mutant.code), find.squeeze(mutant.becomes)) == (
            row.operator, row.code, row.becomes)
    return next(mutant for mutant in mutants_of(edits) if is_meant(mutant))


def test_without_a_mutant_nothing_changes(program):
    assert output_of(program) == OUTPUT


@pytest.mark.parametrize("row", [row for row in ROWS if row.becomes not in ENDLESS],
                         ids=lambda row: f"{row.operator}: {row.code} -> {row.becomes}"[:70])
def test_a_mutant_behind_its_switch_and_alone(row, edits, program, tmp_path):
    mutant = mutant_of(edits, row)
    (tmp_path / "alone.cpp").write_text(rewrite.write_alone(SAMPLE, mutant))
    compile_program(tmp_path / "alone.cpp", tmp_path / "alone")
    assert output_of(program, mutant.number) == row.output
    assert output_of(tmp_path / "alone") == row.output


def test_every_operator_has_a_row(edits):
    assert {mutant.operator for mutant in mutants_of(edits)} == {row.operator for row in ROWS}


def test_what_the_compiler_needs_constant_has_no_switch(edits):
    kept = [mutant.becomes for edit in edits if not rewrite.is_switched(edit, set())
            for mutant in edit.mutants]
    assert kept == ["7 + 1", "7 - 1", "4 + 1", "4 - 1"]


def test_a_constant_that_stays_one_keeps_its_mutants_alone(edits):
    freed = next(edit for edit in edits if edit.name == "kStep")
    inside = [edit for edit in edits if edit.frees is freed]
    assert inside and not any(rewrite.is_switched(edit, {(freed.start, freed.end)}) for edit in inside)


def test_all_mutants_have_names_of_their_own(edits):
    find.number_same(mutants_of(edits))
    names = [mutant.key for mutant in mutants_of(edits)]
    assert len(set(names)) == len(names)


def test_the_lines_stay_where_they_are(edits):
    switched = [edit for edit in edits if rewrite.is_switched(edit, set())]
    lines = rewrite.write_switched(SAMPLE, switched).splitlines()
    assert [number for number, line in enumerate(lines) if "std::printf" in line] == [
        number for number, line in enumerate(SAMPLE.splitlines()) if "std::printf" in line]


# --- which tests a mutant that is compiled alone is tried by


class Tree:
    """Of three files: one with mutants behind switches, one without, one that no test comes by."""

    def mutants(self):
        return [find.Mutant("constant", file, function, 1, "1", "2", number=number)
                for file, function, number in (("a.cpp", "f", 1), ("a.cpp", "g", 2), ("a.cpp", "g", 0),
                                               ("a.cpp", "h", 0), ("b.h", "kSize", 0), ("c.cpp", "f", 3))]


@pytest.mark.parametrize("function, near", [("f", "F"), ("g", "G"), ("h", "FG"), ("kSize", "FGO")])
def test_a_mutant_is_tried_by_the_tests_of_its_function_or_file_or_by_all(function, near):
    runner = run.Runner.__new__(run.Runner)
    runner.tree = Tree()
    runner.tests = [run.Test("unit", name, 1, reached)
                    for name, reached in (("F", {1}), ("G", {2}), ("O", {3}))]
    runner.tests.append(run.Test("other program", "P", 1, {1, 2, 3}))
    mutant = next(each for each in runner.tree.mutants() if each.function == function)
    assert "".join(test.name for test in runner.tests_near(mutant, ("unit",))) == near


# --- the list of those that no test can find


def results_of(code: str, *outcomes: str) -> list[run.Result]:
    """Mutants that are the same in everything but the line, with what came of them."""
    return [run.Result(f"common/a.cpp|f|constant|{code}|{code} + 1|{ordinal}", "constant", "common/a.cpp",
                       ordinal, "f", code, f"{code} + 1", outcome)
            for ordinal, outcome in enumerate(outcomes)]


MUTANTS = [*results_of("1", "killed", "survived"), *results_of("2", "killed", "not compiled"),
           *results_of("3", "killed", "not reached")]


@pytest.mark.parametrize("row", [{"code": "4"}, {"code": "1", "function": "g"}, {"code": "1", "ordinal": 2}],
                         ids=run.title_of)
def test_a_row_that_stands_for_no_mutant_is_an_error(row, capsys):
    assert not run.check_rows([row], MUTANTS, MUTANTS)
    assert capsys.readouterr().out == f"survivors.toml: no such mutant: {run.title_of(row)}\n"


@pytest.mark.parametrize("row", [{"code": "2"}, {"code": "1", "ordinal": 0}], ids=run.title_of)
def test_a_row_whose_mutants_were_all_killed_is_named(row, capsys):
    assert run.check_rows([row], MUTANTS, MUTANTS)
    assert capsys.readouterr().out == f"survivors.toml: all killed: {run.title_of(row)}\n"


@pytest.mark.parametrize("row", [{"code": "1"}, {"code": "3"}, {"code": "1", "ordinal": 1}, {}],
                         ids=run.title_of)
def test_a_row_that_is_needed_is_not_named(row, capsys):
    assert run.check_rows([row], MUTANTS, MUTANTS)
    assert capsys.readouterr().out == ""


def test_a_row_is_not_named_while_some_of_its_mutants_were_not_tried(capsys):
    rows = [{"code": "1"}, {"code": "2"}]
    assert run.check_rows(rows, MUTANTS, MUTANTS[:1] + MUTANTS[2:3])
    assert capsys.readouterr().out == ""


EXPLAINED = [{"code": "2"}]


@pytest.mark.parametrize("killed, explained, unexplained, status_of_all, status_of_a_part", [
    (95, 5, 0, 0, 0), (94, 6, 0, 1, 0), (95, 0, 5, 0, 0), (94, 0, 6, 1, 1), (0, 0, 0, 1, 0)])
def test_what_is_asked_of_the_mutants(killed, explained, unexplained, status_of_all, status_of_a_part):
    results = (results_of("1", *["killed"] * killed) + results_of("2", *["survived"] * explained)
               + results_of("3", *["survived"] * unexplained, *["not compiled"] * 9))
    assert run.report(results, EXPLAINED, True) == status_of_all
    assert run.report(results, EXPLAINED, False) == status_of_a_part


@pytest.mark.parametrize("row", run.read_survivors(SOURCE / "tools/mutate/survivors.toml"),
                         ids=lambda row: run.title_of(row)[:70])
def test_the_sources_have_what_a_row_names(row):
    """The quick part of it: which mutants a row stands for is found out when they are tried."""
    files = [row["file"]] if "file" in row else build.list_sources(SOURCE)
    text = find.squeeze("\n".join((SOURCE / file).read_text() for file in files))
    assert row.get("function", "") in text
    assert find.squeeze(row.get("code", "")) in text
