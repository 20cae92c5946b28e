"""Every road of the tool, with one thing after the other going wrong.

A row is a scenario and a kind of failure; its test lets the first, the second, ... such thing of a
run fail. Rows with more than MOST_PLACES places try as many of them, evenly spread, the first and
the last among them; CORVIK_TORTURE=all tries every place of every row.
"""

import os

import pytest

from torture_allowed import ALLOWED_CALLS, ALLOWED_FAULTS
from torture_run import Bench, told
from torture_scenarios import EVERY_ALLOCATION, GETS, NEVER, SETS, WITH_REFERENCE_CLIENT
from conftest import Device

EVERY_PLACE = os.environ.get("CORVIK_TORTURE") == "all"
MOST_PLACES = 12

# Whose answer, and whose status, the tool looks at; that every other call fails the same is tried
# with two of the faults.
ANSWERED = ("get", "export")
ASKED = ("contains", "export")
ON_EVERY_CALL = ("returns-1", "killed")
OF_THE_STATUS = ("returns-127", "done-returns-1", "crashes")

SCENARIOS = {each.name: each for each in (*GETS, *SETS, *WITH_REFERENCE_CLIENT)}


def names(scenarios):
    return [each.name for each in scenarios]


def rows(scenarios, allowed):
    """Pairs of a scenario's name and a kind of failure that it can meet."""
    return [(each.name, kind) for each in scenarios for kind in allowed[each.name[:3]]
            if kind not in each.never]


@pytest.fixture(scope="session")
def bench_of(tmp_path_factory, programs):
    """Makes the bench of a scenario, or gives the one that there is."""
    benches = {}

    def give(name):
        if name not in benches:
            device = Device(tmp_path_factory.mktemp(name), programs)
            benches[name] = Bench(device, SCENARIOS[name])
        return benches[name]

    yield give
    for bench in benches.values():
        bench.close()


def spread(count):
    """The places 1 to count, or as many of them as are tried."""
    if EVERY_PLACE or count <= MOST_PLACES:
        return range(1, count + 1)
    return sorted({1 + round(at * (count - 1) / (MOST_PLACES - 1)) for at in range(MOST_PLACES)})


def places_of_call(bench, kind):
    count = bench.undisturbed.counts[kind]
    if kind == "FAIL_NEW" and bench.scenario.name in EVERY_ALLOCATION:
        return range(1, count + 1)
    return spread(count)


def places_of_fault(bench, fault):
    verbs = ASKED if fault in OF_THE_STATUS else ANSWERED
    return [number for number, call in enumerate(bench.undisturbed.calls, 1)
            if EVERY_PLACE or fault in ON_EVERY_CALL or call[0] in verbs]


def check(bench, run, place, allowed):
    assert run.struck, f"place {place} was not reached"
    line = told(bench, run)
    assert line in allowed, f"place {place}: {line}"


@pytest.mark.parametrize("name, kind", rows([*GETS, *SETS], ALLOWED_CALLS))
def test_a_call_of_the_system_fails(bench_of, name, kind):
    bench = bench_of(name)
    places = places_of_call(bench, kind)
    assert places
    for place in places:
        check(bench, bench.run(**{kind: place}), place, ALLOWED_CALLS[name[:3]][kind])


@pytest.mark.parametrize("name", names([*GETS, *SETS]))
def test_every_call_that_is_made_has_a_row(bench_of, name):
    bench = bench_of(name)
    made = {kind for kind, count in bench.undisturbed.counts.items() if count > 0}
    assert made == ALLOWED_CALLS[name[:3]].keys() - SCENARIOS[name].never
    assert NEVER.isdisjoint(made)


@pytest.mark.parametrize("name, fault", rows(SCENARIOS.values(), ALLOWED_FAULTS))
def test_a_call_of_the_client_goes_wrong(bench_of, name, fault):
    bench = bench_of(name)
    places = places_of_fault(bench, fault)
    assert places
    for place in places:
        check(bench, bench.run(f"{place} {fault}"), place, ALLOWED_FAULTS[name[:3]][fault])
