"""Every road of the tool, with one thing after the other going wrong.

A row is a scenario and a kind of failure; its test lets the first, the second, ... such thing of a
run fail. Rows with more than MOST_PLACES places try as many of them, evenly spread, the first and
the last among them, and of allocations as many as the scenario says; CORVIK_TORTURE=all tries every
place of every row.
"""

import os

import pytest

from torture_allowed import ALLOWED_CALLS, ALLOWED_FAULTS
from torture_run import Bench, told
from torture_scenarios import GETS, NEVER, SETS, WITH_REFERENCE_CLIENT
from conftest import Device

EVERY_PLACE = os.environ.get("CORVIK_TORTURE") == "all"
MOST_PLACES = 8

# The calls whose answer, and whose status, the tool looks at. That the others change nothing is
# tried with one of the faults.
ANSWERED = ("get", "export")
ASKED = ("contains", "export")
VERBS = {"returns-1": (*ANSWERED, *ASKED), "returns-127": ASKED, "done-returns-1": ASKED,
         "crashes": ASKED}
ON_EVERY_CALL = "killed"

SCENARIOS = {each.name: each for each in (*GETS, *SETS, *WITH_REFERENCE_CLIENT)}


def names(scenarios):
    return [each.name for each in scenarios]


def rows_of_calls(scenarios):
    """Pairs of a scenario's name and a kind of call that fails in it."""
    return [(each.name, kind) for each in scenarios for kind in ALLOWED_CALLS[each.name[:3]]
            if kind not in each.never]


def rows_of_faults(scenarios):
    """Pairs of a scenario's name and what the client does wrong in it."""
    return [(each.name, fault) for each in scenarios for fault in ALLOWED_FAULTS[each.name[:3]]
            if fault in (each.faults or ALLOWED_FAULTS[each.name[:3]])]


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


def spread(count, most):
    """The places 1 to count, or as many of them as are tried."""
    if EVERY_PLACE or count <= most:
        return range(1, count + 1)
    return sorted({1 + round(at * (count - 1) / (most - 1)) for at in range(most)})


def places_of_call(bench, kind):
    most = bench.scenario.allocations if kind == "FAIL_NEW" else MOST_PLACES
    return spread(bench.undisturbed.counts[kind], most)


def places_of_fault(bench, fault):
    verbs = VERBS.get(fault, ANSWERED)
    return [number for number, call in enumerate(bench.undisturbed.calls, 1)
            if EVERY_PLACE or fault == ON_EVERY_CALL or call[0] in verbs]


def check(bench, run, place, allowed):
    assert run.struck, f"place {place} was not reached"
    line = told(bench, run)
    assert line in allowed, f"place {place}: {line}"


@pytest.mark.parametrize("name, kind", rows_of_calls([*GETS, *SETS]))
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
    assert made == {kind for _, kind in rows_of_calls([SCENARIOS[name]])}
    assert NEVER.isdisjoint(made)


@pytest.mark.parametrize("name, fault", rows_of_faults(SCENARIOS.values()))
def test_a_call_of_the_client_goes_wrong(bench_of, name, fault):
    bench = bench_of(name)
    places = places_of_fault(bench, fault)
    assert places
    for place in places:
        check(bench, bench.run(f"{place} {fault}"), place, ALLOWED_FAULTS[name[:3]][fault])
