"""Adds up the results of a test run.

A folder holds for each test program NAME.status (the number it ended with), NAME.log (what it
printed) and, when it came to its end, NAME.xml (JUnit form). Everything that did not pass is a
failure: tests that were skipped or are switched off, programs that crashed, programs without a test.
The last line is always "N passed, N failed".
"""

import pathlib
import sys
import xml.etree.ElementTree as ElementTree

NOT_PASSED = {"failure": "failed", "error": "broken", "skipped": "skipped"}


def name_of(case):
    return f"{case.get('classname', '')}.{case.get('name', '')}"


def verdict(case):
    """Why the test did not pass, or None."""
    for tag, word in NOT_PASSED.items():
        if case.find(tag) is not None:
            return word
    if case.get("status", "run") != "run":
        return "switched off"
    return None


def read_cases(file):
    """The test cases of a result file, or None when the program left no whole one."""
    try:
        return list(ElementTree.parse(file).iter("testcase"))
    except (OSError, ElementTree.ParseError):
        return None


def judge(folder, name, status):
    """The number of passed tests and the complaints, one for each failure."""
    cases = read_cases(folder / f"{name}.xml")
    if cases is None:
        return 0, [f"{name} ended with status {status} and left no results"]
    verdicts = {}
    for case in cases:
        verdicts[name_of(case)] = verdicts.get(name_of(case)) or verdict(case)
    complaints = [f"{test}: {word}" for test, word in verdicts.items() if word]
    passed = len(verdicts) - len(complaints)
    if not verdicts:
        complaints.append(f"{name} has no test")
    elif status != 0 and not complaints:
        complaints.append(f"{name} ended with status {status} though its tests passed")
    return passed, complaints


def main(folder):
    passed = failed = 0
    for file in sorted(folder.glob("*.status")):
        name = file.stem
        good, complaints = judge(folder, name, int(file.read_text()))
        if complaints:
            print(f"---- {name}")
            print((folder / f"{name}.log").read_text(errors="replace"))
            print(f"---- {name}: not passed")
            print("\n".join(complaints))
        print(f"{name}: {good} tests passed" + (f", {len(complaints)} did not" if complaints else ""))
        passed += good
        failed += len(complaints)
    if passed + failed == 0:
        print("There was no test to run.")
        failed = 1
    print(f"{passed} passed, {failed} failed", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
