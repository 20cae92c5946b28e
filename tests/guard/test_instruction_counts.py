"""The tool must not become slower: instructions are counted, the clock is not asked.

What depends on the build is compared only where the build is that of the record; how costs grow is
judged everywhere.
"""

import os
from pathlib import Path

import pytest

import measure

PROGRAMS = Path(os.environ["CORVIK_BIN_DIR"]).resolve()
BUILD = measure.read_build(PROGRAMS)
RECORD = measure.read_record()


@pytest.fixture(scope="session")
def counts():
    return measure.measure(PROGRAMS)


if measure.foreign_to(RECORD, BUILD):

    def test_counts_are_not_compared_because_the_record_is_of_another_build():
        assert BUILD != RECORD["build"]

else:

    @pytest.mark.parametrize("size", measure.SIZES)
    @pytest.mark.parametrize("step", measure.STEPS)
    def test_count_is_within_3_per_cent_of_the_recorded(counts, step, size):
        share = measure.deviation(RECORD, counts, step, size)
        assert abs(share) <= measure.TOLERANCE, (
            f"{step} of {size} connections: {counts[step, size].own:,d} instructions, {share:+.2%}"
            " of the recorded; if that is meant, run ./dev guard --update")


@pytest.mark.parametrize("kind", ["own", "all"])
@pytest.mark.parametrize("step", measure.STEPS)
def test_cost_of_four_times_the_connections_is_at_most_4_2_times_as_high(counts, step, kind):
    grows_by = measure.growth(counts, step, kind)
    assert grows_by <= measure.MOST_GROWTH, f"{step}, {kind} code: {grows_by:.3f}"


@pytest.mark.parametrize("step", measure.STEPS)
def test_each_doubling_of_the_connections_costs_at_most_2_1_times_as_much(counts, step):
    own, everything = (measure.doublings_of_connections(counts, step, kind)
                       for kind in ("own", "all"))
    print(measure.told(own, everything))
    assert max(*own, *everything) <= measure.MOST_DOUBLING
