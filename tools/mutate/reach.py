"""Plugin of pytest that notes which mutants each black-box test comes by.

CORVIK_REACH_LOG names the file that gets a line in JSON for each test, CORVIK_REACH_SIZE the number of
mutants.
"""

import json
import os
import time

import pytest

LOG = os.environ["CORVIK_REACH_LOG"]
SIZE = int(os.environ["CORVIK_REACH_SIZE"])
MARKS = f"{LOG}.{os.getpid()}"


def pytest_configure():
    os.environ["CORVIK_MUTANT_REACHED"] = MARKS


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item):
    with open(MARKS, "wb") as marks:
        marks.write(bytes(SIZE))
    started = time.monotonic()
    yield
    seconds = time.monotonic() - started
    with open(MARKS, "rb") as marks:
        reached = [number for number, mark in enumerate(marks.read()) if mark]
    line = json.dumps({"test": item.nodeid, "seconds": round(seconds, 3), "reached": reached})
    with open(LOG, "a", encoding="utf-8") as log:
        log.write(line + "\n")


def pytest_unconfigure():
    if os.path.exists(MARKS):
        os.unlink(MARKS)
