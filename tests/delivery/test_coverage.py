"""The check of the coverage figures: complains of every branch and line that was not reached, unless an
exclusion names it, and of every exclusion that does not fit."""

import importlib.util
import sys
from pathlib import Path

import pytest

FILE = "common/choice.cpp"
SOURCE = """\
int choice(int a) {
    if (a > 3 && a < 9) {
        return 1;
    }
    // nothing else
    return a > 3 ? 2 : 0;
}
int other(int a) {
    if (a > 3 && a < 9) {
        return 1;
    }
    return 0;
}
"""
CODE = "if (a > 3 && a < 9) {"
FIRST, SECOND, LAST = (2, 9, 2, 14), (2, 18, 2, 23), (6, 12, 6, 17)
OTHER = (9, 18, 9, 23)
REASON = "nobody asks for it"


@pytest.fixture(scope="module")
def coverage(source: Path):
    path = source / "tools/dev/coverage.py"
    spec = importlib.util.spec_from_file_location("coverage_check", path)
    module = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = module
    spec.loader.exec_module(module)
    return module


class Check:
    """A run of the check over one made file."""

    def __init__(self, coverage, capsys) -> None:
        self.coverage = coverage
        self.capsys = capsys
        self.counts = coverage.Counts({line: 4 for line in (1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13)})
        for spot in (FIRST, SECOND, LAST, OTHER):
            self.counts.branches[spot] = [2, 2]

    def missed(self, *lines: int) -> "Check":
        self.counts.lines.update({line: 0 for line in lines})
        return self

    def outcomes(self, spot, true: int, false: int) -> "Check":
        self.counts.branches[spot] = [true, false]
        return self

    def run(self, *exclusions: dict, **options) -> tuple[bool, list[str], list[str]]:
        """Whether it is content, the rows of its table, what it says behind them."""
        exclusions = [self.coverage.Exclusion(**{"file": FILE, "reason": REASON, **each})
                      for each in exclusions]
        content = self.coverage.report({FILE: self.counts}, {FILE: SOURCE.splitlines()}, exclusions,
                                       **options)
        said = self.capsys.readouterr().out.splitlines()
        end = 1 + next(at for at, line in enumerate(said) if line.startswith("total"))
        return content, [" ".join(line.split()) for line in said[1:end]], said[end:]


@pytest.fixture
def check(coverage, capsys) -> Check:
    return Check(coverage, capsys)


# --- what was not reached -----------------------------------------------------------------------------

def test_is_content_where_all_was_reached(check):
    assert check.run() == (True, [f"{FILE} 12 of 12 100.0 % 8 of 8 100.0 %",
                                  "total 12 of 12 100.0 % 8 of 8 100.0 % 0"], [])


@pytest.mark.parametrize("spot, true, false, said", [
    (FIRST, 0, 5, [f"{FILE}:2: {CODE}", "    never true: a > 3"]),
    (SECOND, 5, 0, [f"{FILE}:2: {CODE}", "    never false: a < 9"]),
    (LAST, 0, 1, [f"{FILE}:6: return a > 3 ? 2 : 0;", "    never true: a > 3"]),
], ids=["first", "second", "chosen"])
def test_complains_of_an_outcome_that_was_not_reached(check, spot, true, false, said):
    content, rows, complaints = check.outcomes(spot, true, false).run()
    assert (content, complaints) == (False, said)
    assert rows[-1] == "total 12 of 12 100.0 % 7 of 8 87.5 % 0"


def test_complains_of_both_outcomes(check):
    content, _, complaints = check.outcomes(OTHER, 0, 0).run()
    assert not content
    assert complaints[1::2] == ["    never false: a < 9", "    never true: a < 9"]


def test_complains_of_lines_once_where_they_stand_together(check):
    content, rows, complaints = check.missed(10, 11, 3).run()
    assert (content, complaints) == (False, [f"{FILE}:3: return 1;", "    never run",
                                             f"{FILE}:10: return 1;", "    never run, 2 lines"])
    assert rows[-1] == "total 9 of 12 75.0 % 8 of 8 100.0 % 0"


def test_does_not_round_up_to_100(coverage):
    assert "99.9 %" in str(coverage.Figures(every=100000, missed=1))


# --- exclusions ---------------------------------------------------------------------------------------

def test_takes_what_is_excluded_out_of_the_figures(check):
    check.outcomes(LAST, 3, 0).missed(10, 11)
    content, rows, complaints = check.run(
        {"code": "return a > 3 ? 2 : 0;", "never": "false"},
        {"code": "return 1;", "after": "int other(int a) {", "never": "run", "lines": 2})
    assert (content, complaints) == (True, [])
    assert rows[-1] == "total 10 of 10 100.0 % 7 of 7 100.0 % 1"


def test_tells_what_is_excluded_when_asked(check):
    exclusion = {"code": "return a > 3 ? 2 : 0;", "never": "false"}
    content, _, said = check.outcomes(LAST, 3, 0).run(exclusion, tell_excluded=True)
    assert (content, said) == (True, [f"{FILE}:6: return a > 3 ? 2 : 0;", "    never false: a > 3",
                                      f"    {REASON}"])


def test_an_exclusion_of_one_outcome_hides_no_other(check):
    content, _, complaints = check.outcomes(OTHER, 0, 0).run(
        {"code": CODE, "after": "int other(int a) {", "never": "true"})
    assert (content, complaints) == (False, [f"{FILE}:9: {CODE}", "    never false: a < 9"])


LAST_CODE = "return a > 3 ? 2 : 0;"
UNFIT = {
    "other-file": ({"file": "common/gone.cpp", "code": LAST_CODE, "never": "false"},
                   "there is no such file"),
    "no-such-line": ({"code": "return a > 4 ? 2 : 0;", "never": "false"}, "there is no such line"),
    "line-twice": ({"code": CODE, "never": "false"}, "the line stands 2 times, say after which"),
    "after-nothing": ({"code": CODE, "after": "int gone() {", "never": "false"},
                      'the line "int gone() {" stands 0 times'),
    "not-behind": ({"code": LAST_CODE, "after": "int other(int a) {", "never": "false"},
                   "there is no such line"),
    "reached": ({"code": LAST_CODE, "never": "true"},
                "it was reached, or there is no such condition or no such number of lines"),
    "line-reached": ({"code": LAST_CODE, "never": "run"},
                     "it was reached, or there is no such condition or no such number of lines"),
    "other-condition": ({"code": LAST_CODE, "condition": "a > 4", "never": "false"},
                        "it was reached, or there is no such condition or no such number of lines"),
    "fewer-lines": ({"code": "return 1;", "after": "int other(int a) {", "never": "run"},
                    "it was reached, or there is no such condition or no such number of lines"),
}


@pytest.mark.parametrize("exclusion, why", UNFIT.values(), ids=UNFIT.keys())
def test_complains_of_an_exclusion_that_does_not_fit(check, exclusion, why):
    fitting = [{"code": LAST_CODE, "never": "false"},
               {"code": "return 1;", "after": "int other(int a) {", "never": "run", "lines": 2}]
    content, _, complaints = check.outcomes(LAST, 3, 0).missed(10, 11).run(*fitting, exclusion)
    assert not content and len(complaints) == 1
    assert complaints[0].startswith(f"exclusion of {exclusion.get('file', FILE)}: {exclusion['code']}")
    assert complaints[0].endswith(why)


def test_wants_to_know_which_condition(check):
    check.outcomes(FIRST, 0, 1).outcomes(SECOND, 0, 1)
    which = {"code": CODE, "after": "int choice(int a) {", "never": "true"}
    content, _, complaints = check.run(which)
    assert not content and complaints[-1].endswith("the line has several such conditions, say which")
    assert check.run({**which, "condition": "a > 3"}, {**which, "condition": "a < 9"})[0]


def test_complains_of_an_exclusion_that_stands_twice(check):
    exclusion = {"code": LAST_CODE, "never": "false"}
    content, _, complaints = check.outcomes(LAST, 3, 0).run(exclusion, exclusion)
    assert not content and complaints[0].endswith("it stands twice")


GOOD = 'file = "a"\ncode = "b"\nnever = "run"\nreason = "why"\n'


def exclusions_of(tmp_path: Path, coverage, *texts: str) -> list:
    path = tmp_path / "exclusions.toml"
    path.write_text("".join(f"[[exclusion]]\n{text}" for text in texts))
    return coverage.load_exclusions(path)


def test_loads_exclusions(tmp_path, coverage):
    assert exclusions_of(tmp_path, coverage) == []
    assert exclusions_of(tmp_path, coverage, GOOD, GOOD + 'lines = 3\nafter = "x"\n') == [
        coverage.Exclusion("a", "b", "run", "why"),
        coverage.Exclusion("a", "b", "run", "why", after="x", lines=3)]


@pytest.mark.parametrize("text", [
    GOOD.replace('reason = "why"\n', ""), GOOD.replace('"why"', '""'), GOOD + "line = 3\n",
    GOOD.replace('"run"', '"always"')], ids=["no-reason", "empty-reason", "unknown-key", "other-never"])
def test_refuses_an_exclusion_of_another_form(tmp_path, coverage, text):
    with pytest.raises(coverage.Unusable):
        exclusions_of(tmp_path, coverage, text)


# --- counts -------------------------------------------------------------------------------------------

# As the compiler's tool writes them: a function of two conditions whose last line was not reached, and a
# template of two instances in a header.
SEGMENTS = [[1, 19, 2, True, True, False], [2, 9, 2, True, True, False], [2, 14, 2, True, False, False],
            [2, 20, 2, True, True, True], [2, 21, 2, True, True, False], [4, 6, 0, True, True, True],
            [6, 5, 0, True, True, False], [7, 2, 0, False, False, False]]


def function(name: str, *branches: list[int]) -> dict:
    return {"filenames": [f"./build/coverage/./{name}"],
            "branches": [[*branch, 0, 0, 4] for branch in branches]}


EXPORT = {"data": [{
    "files": [{"filename": "./build/coverage/./main/one.cpp", "segments": SEGMENTS},
              {"filename": "./build/coverage/./common/two.h", "segments": []},
              {"filename": "./build/coverage/./tools/three.cpp", "segments": SEGMENTS}],
    "functions": [function("main/one.cpp", [2, 9, 2, 14, 2, 0]),
                  function("common/two.h", [3, 9, 3, 14, 0, 5]),
                  function("common/two.h", [3, 9, 3, 14, 1, 0]),
                  function("tools/three.cpp", [3, 9, 3, 14, 1, 0])]}]}


def test_reads_counts_of_the_rooms(coverage):
    files = coverage.read_counts(EXPORT)
    assert sorted(files) == ["common/two.h", "main/one.cpp"]
    assert files["main/one.cpp"].branches == {(2, 9, 2, 14): [2, 0]}


def test_adds_up_the_instances_of_a_template(coverage):
    assert coverage.read_counts(EXPORT)["common/two.h"].branches == {(3, 9, 3, 14): [1, 5]}


def test_a_line_ran_as_often_as_the_most_frequent_code_in_it(coverage):
    lines = coverage.read_counts(EXPORT)["main/one.cpp"].lines
    assert lines == {1: 2, 2: 2, 3: 2, 4: 2, 5: 0, 6: 0, 7: 0}


def test_shows_a_condition_of_several_lines_on_one(coverage):
    source = ["if (one &&", "    two(ä) &&", "    three)"]
    assert coverage.text_at(source, (1, 5, 3, 10)) == "one && two(ä) && three"


def test_the_exclusions_of_this_tree_have_their_form(source, coverage):
    for exclusion in coverage.load_exclusions(source / coverage.EXCLUSIONS):
        text = (source / exclusion.file).read_text().splitlines()
        assert text[coverage.line_of(exclusion, text) - 1].strip() == exclusion.code
