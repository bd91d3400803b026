"""Discounting engine of InterestRate: discount factors (vn), relative discount (vx), accumulation
(sn), rate lookup with its LRU cache (get_rate) and curve shifting with the shift cache."""

import gc
import itertools
import math
import sys

import numpy as np
import pandas as pd
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from reference import discount, exact

from norvane.interest_rates import InterestRate
from norvane.interest_rates import _interest_rate_shifted_for_ts as shift_for_ts

NAN, INF = float("nan"), float("inf")
FAST = settings(max_examples=60, deadline=None, suppress_health_check=[HealthCheck.too_slow])


def make(curve):
    """A constant curve from a number, a piecewise one from (terms, rates)."""
    return InterestRate(terms=list(curve[0]), rates=list(curve[1])) if isinstance(curve, tuple) else InterestRate(curve)


def ref_v(curve, n):
    return discount(*curve, n) if isinstance(curve, tuple) else discount([], [curve], n)


def ref_rate(curve, t):
    if not isinstance(curve, tuple):
        return curve
    return next((r for c, r in zip(itertools.accumulate(curve[0]), curve[1]) if t <= c), curve[1][-1])


def close(got, want, rel=1e-13):
    return (math.isnan(got) and math.isnan(want)) or got == want or math.isclose(got, want, rel_tol=rel)


def assert_all_close(got, want, rel=1e-13):  # NaN matches NaN, infinities must match exactly
    np.testing.assert_allclose(np.ravel(got).astype(float), np.ravel(want).astype(float), rtol=rel, atol=0)


PW = ((5, 5), (0.02, 0.03, 0.04))
CURVES = {"piecewise": PW, "constant": 0.03}


# ---------------------------------------------------------------- discount factors


@pytest.mark.parametrize(
    "curve, n, expected",
    [
        (PW, 7.5, 1.02**-5 * 1.03**-2.5),
        (PW, 12.5, 1.02**-5 * 1.03**-5 * 1.04**-2.5),
        (PW, -1, 1.0),  # piecewise curves never accumulate backwards
        (0.03, -5, 1.03**5),  # constant curves do
        (((1,), (-0.5, 0.0)), 3, 2.0),
        # a segment whose 1 + r is exactly 1.0 contributes 1.0 ** x == 1.0 for every x, NaN included
        (((1,), (0.02, 0.0)), NAN, 1 / 1.02),
        (0.0, NAN, 1.0),
    ],
)
def test_vn_closed_forms(curve, n, expected):
    got = make(curve).vn(n)
    assert type(got) is float and close(got, expected, rel=1e-14)


RATE = st.one_of(st.just(0.0), st.floats(-0.5, 0.2, exclude_min=True, exclude_max=True))
EDGES = st.sampled_from([NAN, INF, -INF, 0.0, -0.0])


@st.composite
def piecewise_and_durations(draw):
    k = draw(st.integers(1, 40))
    terms = draw(st.lists(st.floats(0.01, 10), min_size=k, max_size=k))
    rates = draw(st.lists(RATE, min_size=k + 1, max_size=k + 1))
    bounds = list(itertools.accumulate(terms))  # exact segment ends
    ns = draw(st.lists(st.one_of(st.floats(-5, bounds[-1] + 20), st.sampled_from(bounds), EDGES), min_size=1))
    return (terms, rates), ns


@FAST
@given(st.one_of(piecewise_and_durations(), st.tuples(RATE, st.lists(st.floats(-1000, 1000) | EDGES, min_size=1))))
def test_vn_matches_segment_walk(case):
    curve, ns = case
    ir, want = make(curve), [ref_v(curve, n) for n in ns]
    # v = exp(-n ln(1 + r)) carries the rounding of its exponent: a relative error of a few |ln v| epsilons.
    logs = [abs(math.log(w)) for w in want if math.isfinite(w) and w > 0]
    rel = 1e-13 + 4 * sys.float_info.epsilon * max(logs, default=0.0)
    assert_all_close(ir.vn(np.array(ns)), want, rel)
    for n, w in zip(ns, want):
        got = ir.vn(n)
        assert type(got) is float and close(got, w, rel), (n, got, w)


@pytest.mark.parametrize("curve", [PW, 0.03, 0.0, ((0.5,) * 40, tuple(np.linspace(-0.4, 0.15, 41)))])
def test_long_arrays_match_the_segment_walk(curve):
    rng = np.random.default_rng(7)
    base = np.concatenate([rng.uniform(-5, 40, 990), [NAN, INF, -INF, 0.0, 5.0, 10.0, 20.0]])  # 997 values, prime
    want = np.resize([ref_v(curve, n) for n in base], 400_010)[::2]
    x, ir = np.resize(base, 400_010)[::2], make(curve)  # long and non-contiguous
    with np.errstate(divide="ignore"):  # sn is 0 where the discount factor is infinite
        outs = (ir.vn(x), 1.0 / ir.sn(x.reshape(-1, 5)))
    for out in outs:
        np.testing.assert_allclose(out.ravel(), want, rtol=1e-13)


# ---------------------------------------------------------------- input forms

BASE, INTS = np.array([[0.5, 5.0, 7.5], [12.5, -1.0, 0.0]]), np.array([[1, 5, 7], [12, 0, 10]])
FORMS = {  # each builds an input from a float base array b and an integer base array i
    "list": lambda b, i: b[0].tolist(),
    "nested": lambda b, i: b.tolist(),
    "zero_d": lambda b, i: np.array(b[0, 2]),
    "i64": lambda b, i: i.astype(np.int64),
    "strided": lambda b, i: b[:, ::2],
    "series": lambda b, i: pd.Series(b[0], index=[7, 3, 9]),
}
METHODS = {  # call and reference value per element
    "vn": (lambda ir, x: ir.vn(x), ref_v),
    "sn": (lambda ir, x: ir.sn(x), lambda c, n: 1.0 / ref_v(c, n)),
    "vx": (lambda ir, x: ir.vx(x), ref_v),
    "get_rate": (lambda ir, x: ir.get_rate(x), ref_rate),
}


@pytest.mark.parametrize("form", [*FORMS, "scalar_int", "scalar_np"])
@pytest.mark.parametrize("method", METHODS)
@pytest.mark.parametrize("curve", CURVES)
def test_inputs_give_floats_or_float64_arrays_of_the_input_shape(form, method, curve):
    call, ref = METHODS[method]
    if form.startswith("scalar"):
        n = 7 if form == "scalar_int" else np.float32(7.5)
        out = call(make(CURVES[curve]), n)
        assert type(out) is float and close(out, ref(CURVES[curve], float(n)))
        return
    x = FORMS[form](np.abs(BASE) if method == "vx" else BASE, INTS)  # vx refuses negative times
    before = np.array(x, copy=True)
    out = call(make(CURVES[curve]), x)
    if not (method == "vx" and form == "zero_d"):  # a 0-d array minus the float x0 is a NumPy scalar
        assert type(out) is np.ndarray and out.dtype == np.float64 and out.shape == before.shape
    assert_all_close(out, [ref(CURVES[curve], float(n)) for n in before.ravel()])
    assert np.array_equal(np.asarray(x), before) and np.asarray(x).dtype == before.dtype  # input untouched


@pytest.mark.parametrize("bad", [True, np.bool_(False), "1", None, [1, "a"], np.array([True, False]), 1 + 2j, {1.0}])
@pytest.mark.parametrize(
    "call, name",
    [
        (lambda ir, x: ir.vn(x), "n"),
        (lambda ir, x: ir.sn(x), "n"),
        (lambda ir, x: ir.vx(x), "x"),
        (lambda ir, x: ir.vx(9, x), "x0"),
    ],
)
@pytest.mark.parametrize("curve", CURVES)
def test_non_numeric_input_is_a_type_error_naming_the_parameter(bad, call, name, curve):
    with exact(TypeError, f"[InterestRate] Parameter '{name}' must be numeric."):
        call(make(CURVES[curve]), bad)


# ---------------------------------------------------------------- vx and sn


@pytest.mark.parametrize(
    "x, x0, expected",
    [
        (7, 2, 1.02**-5),
        ([1, 2], 0.5, [1.02**-0.5, 1.02**-1.5]),
        ([[1, 7], [3, 12]], [[0, 2], [3, 0]], [[1.02**-1, 1.02**-5], [1.0, 1.02**-5 * 1.03**-5 * 1.04**-2]]),
    ],
)
def test_vx_discounts_over_the_difference_from_time_zero(x, x0, expected):
    out = make(PW).vx(x, x0)
    assert type(out) is (float if np.ndim(expected) == 0 else np.ndarray) and np.shape(out) == np.shape(expected)
    assert_all_close(out, expected, rel=1e-14)


SHAPES = "Incompatible shapes for 'x' and 'x0': {} and {}. Both must have the same shape or one must have size 1."


@pytest.mark.parametrize(
    "x, x0, msg",
    [
        ([1, -0.5], 0, "'x' contains negative values."),
        ([[1, 2], [3, 4]], [0, 1, 2, 3], SHAPES.format("(2, 2)", "(4,)")),
        (1, [0.5, 2], "All values in 'x' must be greater than or equal to 'x0'."),
    ],
)
@pytest.mark.parametrize("curve", CURVES)
def test_vx_messages(x, x0, msg, curve):
    with exact(ValueError, msg):
        make(CURVES[curve]).vx(x, x0)


# ---------------------------------------------------------------- rate lookup and its cache

STEPS = ((1.0, 2.0), (0.01, 0.015, 0.02))


@pytest.mark.parametrize(
    "t, expected",
    [(1.0, 0.01), (np.nextafter(1.0, 2.0), 0.015), (3.5, 0.02), (INF, 0.02), (0, 0.01), (np.float32(1.5), 0.015)],
)
def test_get_rate_segments(t, expected):
    got = make(STEPS).get_rate(t)
    assert type(got) is float and got == expected
    assert make(STEPS).get_rate([0.5, 1.5, 5.0, t]).tolist() == [0.01, 0.015, 0.02, expected]


def test_get_rate_cache_keys_and_bound():
    ir = make(STEPS)
    assert [ir.get_rate(t) for t in (1, 1.0, np.int64(1), np.float32(1.0))] == [0.01] * 4
    assert list(ir._rate_cache.items()) == [(1.0, 0.01)]
    ir.get_rate(NAN), ir.get_rate(NAN)  # NaN never hits, so each lookup adds an entry
    assert len(ir._rate_cache) == 3
    ir = make(STEPS)
    ir._meta.cache_maxsize = 3
    for t in (10, 11, 12, 10, 13):
        ir.get_rate(t)
    assert list(ir._rate_cache) == [12.0, 10.0, 13.0]  # 11 was the least recently used


# ---------------------------------------------------------------- shifting


@pytest.mark.parametrize(
    "ts, terms, rates",
    [
        (2.5, [2.5, 5.0], [0.02, 0.03, 0.04]),
        (7, [3.0], [0.03, 0.04]),
        (10, None, 0.04),
        (5 - 1e-13, [5.0], [0.03, 0.04]),  # within the tolerance of a boundary: the boundary
        (5 - 1e-9, [5 - (5 - 1e-9), 5.0], [0.02, 0.03, 0.04]),
    ],
)
def test_shifted_examples(ts, terms, rates):
    ir = make(PW)
    s = ir.shifted(ts)
    assert type(s) is InterestRate and s is not ir and s.scenarios == {} and s._meta.term_unit == "years"
    if terms is None:
        assert s.is_constant and s.rate == rates
    else:
        assert s.terms.tolist() == terms and s.rates.tolist() == rates
    assert ir.terms.tolist() == [5.0, 5.0]  # the source is untouched


def test_shifted_tolerance_and_units():
    ir = InterestRate(terms=[6, 6], rates=[0.01, 0.02, 0.03], term_unit="months")
    assert ir.shifted(0.25).terms.tolist() == [0.25, 0.5] and ir._meta.term_unit == "months"
    ir._meta.tolerance_eps = 1e-3
    assert ir.shifted(0.5 - 1e-4).terms.tolist() == [0.5] and ir.shifted(0.49).terms.tolist() == [0.5 - 0.49, 0.5]
    assert ir.shifted(1.0 - 1e-4) == InterestRate(0.03)
    for ts in ("a", True, None, [1.0], np.array(2.0)):
        with exact(TypeError, "[InterestRate] Parameter 'ts' must be numeric."):
            ir.shifted(ts)


@FAST
@given(piecewise_and_durations(), st.floats(0.001, 60), st.floats(0.001, 30))
def test_shifted_curve_discounts_forward(case, s_frac, t):
    curve, ns = case
    ir = make(curve)
    for s in [s_frac * sum(curve[0]) / 50] + [n for n in ns if math.isfinite(n) and n > 0]:
        got = ir.shifted(s).vn(t)
        assert close(got, ref_v(curve, s + t) / ref_v(curve, s), rel=1e-12)


def test_shift_cache():
    ir, cache = make(PW), {}
    a = shift_for_ts(ir, 2.5, cache)
    assert a == make(PW).shifted(2.5) and shift_for_ts(ir, np.float64(2.5), cache) is a and len(cache) == 1
    ir.rates = [0.05, 0.06, 0.07]  # a new curve: the old entry can no longer be hit
    b = shift_for_ts(ir, 2.5, cache)
    assert b is not a and b.rates.tolist() == [0.05, 0.06, 0.07] and len(cache) == 2
    own = ir._ts_shift_cache
    assert ir._ir_shifted_for_ts(7, own).terms.tolist() == [3.0] and len(own) == 1
    ir.terms = [4, 4]
    assert not own and ir._ir_shifted_for_ts(7, own).terms.tolist() == [1.0]


@pytest.mark.parametrize(
    "active, v75, rate75, shifted",
    [("flat", 1.05**-7.5, 0.05, 0.05), ("steps", 1.02**-5 * 1.03**-2.5, 0.03, ((2.5, 5), (0.02, 0.03, 0.04)))],
)
def test_container_forwards_to_active_scenario(active, v75, rate75, shifted):
    c = InterestRate({"flat": 0.05, "steps": PW})
    c.active_scenario = active
    assert close(c.vn(7.5), v75, rel=1e-14) and close(c.vx(9.5, 2), v75, rel=1e-14)
    assert close(c.sn(7.5), 1 / v75, rel=1e-14) and c.get_rate(7.5) == rate75
    s = c.shifted(2.5)
    assert s == make(shifted) and s.scenarios == {} and s is not c.scenarios[active]


# ---------------------------------------------------------------- memory


def test_curves_in_their_own_shift_cache_are_collected():
    # The cache key holds the curve itself: only the cyclic collector can free it.
    def live_curves():
        return sum(type(o) is InterestRate for o in gc.get_objects())

    gc.collect()
    before = live_curves()
    for _ in range(50):
        ir = InterestRate(terms=[1.0, 2.0], rates=[0.01, 0.02, 0.03])
        shift_for_ts(ir, 0.5, ir._ts_shift_cache)
    del ir
    gc.collect()
    assert live_curves() <= before + 1
