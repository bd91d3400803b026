"""The book kernel: every policy's value equals its single call, on and off the payment grid."""

import math

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from reference import MODES

from norvane.config import Config
from norvane.growth_rates import GrowthRate
from norvane.interest_rates import InterestRate

FREQUENCIES = [1, 2, 4, 12, 52]
GROWTHS = [None, 0.03, -0.02, GrowthRate(0.01, "arithmetic")]

# On the grid (whole years, quarters) and off it (any fraction), perpetuities included.
grid_time = st.integers(0, 48).map(lambda k: k / 4.0)
time = st.one_of(grid_time, st.floats(0.0, 12.0))
bad = st.sampled_from([-1.0, math.nan])  # an invalid record now and then, valued NaN with its message
term = st.one_of(grid_time, st.floats(0.0, 45.0), st.just(math.inf), bad)
policy = st.tuples(term, st.one_of(time, time, bad), st.one_of(time, time, bad), st.floats(0.0, 1e4))


@st.composite
def curves(draw):
    size = draw(st.integers(0, 12))
    if size == 0:
        return InterestRate(draw(st.floats(-0.5, 0.2)))
    terms = draw(
        st.lists(st.one_of(st.sampled_from([0.5, 1.0, 2.0]), st.floats(0.1, 3.0)), min_size=size, max_size=size)
    )
    rates = draw(st.lists(st.floats(-0.5, 0.2), min_size=size + 1, max_size=size + 1))
    return InterestRate(terms=terms, rates=rates)


@settings(max_examples=60, deadline=None, derandomize=True)
@given(
    curves(),
    st.lists(policy, min_size=1, max_size=8),
    st.sampled_from(MODES),
    st.sampled_from(FREQUENCIES),
    st.sampled_from(GROWTHS),
    st.sampled_from(["a", "ä"]),
)
def test_book_equals_single_calls(curve, policies, mode, m, gr, method):
    Config().calculation_mode = mode
    value = getattr(curve, method)
    n, d, ts, benefits = (np.array(column) for column in zip(*policies))
    valid = (n >= 0) & (d >= 0) & (ts >= 0)
    book = value(n=n, d=d, ts=ts, m=m, gr=gr, benefits=benefits, on_error="nan")
    assert book.errors.invalid_indices.tolist() == np.flatnonzero(~valid).tolist()
    assert np.isnan(book.values[~valid]).all()
    if valid.any():  # the valid records alone, where any invalid one would raise
        plain = value(n=n[valid], d=d[valid], ts=ts[valid], m=m, gr=gr, benefits=benefits[valid])
        assert np.array_equal(plain, book.values[valid])
    for i in np.flatnonzero(valid):
        single = value(n=None if math.isinf(n[i]) else n[i], d=d[i], ts=ts[i], m=m, gr=gr)
        assert book.values[i] == single * benefits[i]


@pytest.mark.parametrize("dtype", [np.float64, np.int64, np.int32, np.float32])
@pytest.mark.parametrize("mode", MODES)
def test_whole_year_book_against_closed_forms(mode, dtype):
    """Due annuities of n whole years deferred d on a flat rate, from ts: v^max(d-ts,0) (1 - v^n') / d^(m).
    Integer and float32 columns (read in place) give the same values as float64 ones."""
    Config().calculation_mode = mode
    i, m = 0.04, 12
    v = 1.0 / (1.0 + i)
    rng = np.random.default_rng(5)
    n = rng.integers(1, 41, 5000).astype(float)
    d = rng.integers(0, 11, 5000).astype(float)
    ts = rng.integers(0, 6, 5000).astype(float)
    left = np.maximum(0.0, n - np.maximum(0.0, ts - d))
    deferred = v ** np.maximum(0.0, d - ts)
    if mode == "continuous_precision":
        per_year = -math.log(v)  # the force of interest
    elif mode == "discrete_precision":
        per_year = m * (1.0 - v ** (1.0 / m))  # d^(m)
    else:
        per_year = None  # Woolhouse: a due minus (m - 1)/(2m) (1 - v^n)
    if per_year is not None:
        expected = deferred * (1.0 - v**left) / per_year
    else:
        weight = 0.5 if mode == "continuous_simplified" else (m - 1) / (2 * m)
        expected = deferred * ((1.0 - v**left) / (i * v) - weight * (1.0 - v**left))
    values = InterestRate(i).ä(n=n.astype(dtype), d=d.astype(dtype), ts=ts.astype(dtype), m=m)
    np.testing.assert_allclose(values, expected, rtol=0, atol=2e-10)
    if dtype is not np.float64:
        np.testing.assert_array_equal(values, InterestRate(i).ä(n=n, d=d, ts=ts, m=m))


@pytest.mark.parametrize(
    "dtype, fraction",
    [(np.float64, 0.0), (np.int64, 0.0), (np.int32, 0.0), (np.float32, 0.0), (np.float64, 0.25), (np.float32, 0.5)],
)
@pytest.mark.parametrize("method", ["ä", "a"])
def test_book_at_time_0_equals_its_single_calls(dtype, fraction, method):
    """A book valued at time 0 whose whole-year terms and deferments are few (each pair valued
    once for the book) still values every policy as its single call, on a piecewise curve; a
    term with a fraction of a year among them is valued as its own."""
    rng = np.random.default_rng(7)
    n, d = rng.integers(0, 12, 4000) + fraction * (rng.random(4000) < 0.01), rng.integers(0, 5, 4000)
    benefits = rng.uniform(0.0, 1e4, 4000).round(2)
    value = getattr(InterestRate(terms=[1.5, 2, 3], rates=[0.01, 0.03, -0.01, 0.02]), method)
    book = value(n=n.astype(dtype), d=d.astype(dtype), m=4, benefits=benefits)
    single = {(a, b): value(n=float(a), d=float(b), m=4) for a, b in set(zip(n, d))}
    assert book.tolist() == [single[a, b] * w for a, b, w in zip(n, d, benefits)]


@pytest.mark.parametrize("big", [2**51, 2**52 + 1, 2**63 - 1, -(2**60)])
def test_integer_columns_convert_exactly(big):
    """64-bit integers read as their doubles, in the vectorised conversion and (from 2^51 on) out
    of it; valuation times and deferments of thousands of years still value the same terms."""
    n = np.array([3, 4, 5, 6, 7], dtype=np.int64)
    d = np.array([0, big, 1, 2, 5000], dtype=np.int64)
    ts = np.array([0, 0, 0, 1, 4999], dtype=np.int64)
    curve = InterestRate(0.03)
    if big < 0:
        for column in (d, d.astype(float)):
            with pytest.raises(ValueError, match="'d' must be >= 0.0 and finite at index 1"):
                curve.ä(n=n, d=column, ts=ts)
    else:
        values = curve.ä(n=n, d=d, ts=ts)
        assert np.array_equal(values, curve.ä(n=n.astype(float), d=d.astype(float), ts=ts.astype(float)))
        assert np.array_equal(curve.ä(n=n, d=d), curve.ä(n=n.astype(float), d=d.astype(float)))  # all at time 0
        assert values[4] == curve.ä(n=7, d=1)  # one year of its deferment left
