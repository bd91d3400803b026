"""Annuity engine: the four calculation modes against textbook closed forms and against sums over the
payments (discount factors and integrals taken segment by segment), survival weighting, rounding,
cash-flow layouts, and the native kernels' argument checks."""

import itertools
import math
import subprocess
import sys

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from reference import MODES, PRECISION, D, I, V, d_m, discount, i_m

from norvane import _kernels
from norvane.engine.annuity import _ANNUITY_CALCULATION_MODE_DISPATCH as ENGINE
from norvane.growth_rates import GrowthRate
from norvane.interest_rates import InterestRate

COMPONENTS = ("due", "immediate", "fractional", "fractional_tail")
DELTA = math.log(1 + I)
GROWTHS = [None, GrowthRate(0.02), GrowthRate(0.05, "arithmetic")]
FLAT = ([], [I])  # a constant curve as (segment lengths, rates)


def value(
    mode, n, m=1, d=0.0, timing=0, ir=None, gr=None, decimals=15, surv=None, times=None, amounts=None, flows=False
):
    """Call an engine entry the way the dispatcher does, counting the payments of n years m-thly."""
    size, frac = int(n * m), n * m - int(n * m)
    kw = {"d": d, "n": n, "payments_size": size + (frac > 1e-12), "payments_frac": frac, "m": m, "gr": gr}
    kw |= {"ir": InterestRate(I) if ir is None else ir, "decimals": decimals, "payment_timing": timing}
    kw |= {"survival_func": surv or (lambda t: 1.0), "return_flows": flows}
    explicit = {"cashflow_times": times, "cashflow_amounts": amounts}
    kw |= {k: None if v is None else np.asarray(v, dtype=np.float64) for k, v in explicit.items()}
    return ENGINE[mode](**kw)


def close(got, want, rel=1e-12):
    assert math.isclose(got, want, rel_tol=rel, abs_tol=1e-13), (got, want)


def growth_factor(gr):
    if gr is None:
        return lambda j: 1.0
    if gr.kind == "geometric":
        return lambda j: (1 + gr.rate) ** j
    return lambda j: 1 + gr.rate * j


# ---------------------------------------------------------------- the 3 % curve


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("m", [1, 2, 4, 12, 52])
@pytest.mark.parametrize("timing", [0, 1])
@pytest.mark.parametrize("n, d", [(10.0, 0.0), (7.3, 2.5), (5.0, 5.0)])
@pytest.mark.parametrize("gr", GROWTHS, ids=["level", "geometric", "arithmetic"])
def test_constant_curve_against_payment_sums(mode, m, timing, n, d, gr):
    close(value(mode, n, m, d, timing, gr=gr), brute(mode, FLAT, n, m, d, timing, gr))


@pytest.mark.parametrize(
    "n, m, timing, want",
    [
        (5.0, 1, 0, (1 - V**5) / D),
        (10.0, 1, 1, (1 - V**10) / I),
        (20.0, 12, 1, (1 - V**20) / i_m(12)),
        (7.3, 12, 1, (1 - V**7.25) / i_m(12) + 0.05 * V**7.3),
        (7.3, 12, 0, (1 - V**7.25) / d_m(12) + 0.05 * V**7.25),
    ],
)
def test_textbook_annuities(n, m, timing, want):
    # a_n = (1 - v^n)/i, ä_n = (1 - v^n)/d, a^(m), ä^(m), with a pro-rata last payment of 0.6/12
    close(value("discrete_precision", n, m, timing=timing), want)
    close(value("discrete_precision", n, m, d=5.0, timing=timing), V**5 * want)


# ---------------------------------------------------------------- explicit amounts and times


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("timing", [0, 1])
@pytest.mark.parametrize(
    "n, m, d, amounts", [(3.0, 1, 0.0, [100.0, 110.0, 121.0]), (1.3, 4, 2.0, [1.0, 2.0, 3.0, 4.0, 5.0, 6.0])]
)
def test_explicit_amounts_are_valued_exactly(mode, timing, n, m, d, amounts):
    starts = [d + k / m for k in range(len(amounts))]
    ends = [min(d + (k + 1) / m, d + n) for k in range(len(amounts))]
    if mode.startswith("discrete"):  # each amount paid at the start (due) or end (immediate) of its period
        want = sum(a * V ** (s if timing == 0 else e) for a, s, e in zip(amounts, starts, ends))
    else:  # each amount flows uniformly over its period
        want = sum(a / (e - s) * (V**s - V**e) / DELTA for a, s, e in zip(amounts, starts, ends))
    close(value(mode, n, m, d, timing, amounts=amounts), want)


@pytest.mark.parametrize("mode", PRECISION)
@pytest.mark.parametrize("amounts", [None, [1.0, 2.0, 3.0, 4.0]])
def test_explicit_times_are_valued_exactly(mode, amounts):
    times = [0.5, 2.0, 2.0, 7.25]
    weights = [1.0] * 4 if amounts is None else amounts
    want = sum(a * V**t for a, t in zip(weights, times))
    close(value(mode, 8.0, 1, times=times, amounts=amounts), want)
    flows = value(mode, 8.0, 1, times=times, amounts=amounts, flows=True)
    close(flows["total_pv"], want)
    close(float(np.sum(flows["pv_cf"])), want)


# ---------------------------------------------------------------- survival


def survival_curve(t):
    return np.exp(-0.04 * np.asarray(t)) * (1 - 0.001 * np.asarray(t))


@pytest.mark.parametrize("timing", [0, 1])
@pytest.mark.parametrize("n, m, d", [(2.5, 4, 1.0), (7.3, 12, 0.5), (6.0, 1, 2.0)])
def test_survival_weights_each_payment(timing, n, m, d):
    pays = payments(n, m, d, timing, growth_factor(None))
    exact = sum(a * V**t * survival_curve(t) for _, t, a in pays)
    close(value("discrete_precision", n, m, d, timing, surv=survival_curve), exact)
    # Woolhouse with survival: the annual due and immediate payments weighted (1-c, c) or (c, 1-c)
    k, c = math.floor(n), (m - 1) / (2 * m)
    due = sum(V ** (d + j) * survival_curve(d + j) for j in range(k))
    imm = sum(V ** (d + j + 1) * survival_curve(d + j + 1) for j in range(k))
    rest = sum(a * V**t * survival_curve(t) for idx, t, a in pays if idx >= k * m)
    want = ((1 - c) * due + c * imm if timing == 0 else c * due + (1 - c) * imm) + rest
    close(value("discrete_simplified", n, m, d, timing, surv=survival_curve), want)


# ---------------------------------------------------------------- rounding and cash flows


@pytest.mark.parametrize("mode", MODES)
def test_rounding(mode):
    exact = brute(mode, FLAT, 7.3, 12, 1.0, 1, None)
    got = value(mode, 7.3, 12, 1.0, 1, decimals=4)
    assert got == np.round(exact, 4) and got != exact
    assert value(mode, 7.3, 12, 1.0, 1, decimals=0) == np.round(exact)
    # Without interest 2.5 and 3.5 years pay exactly 2.5 and 3.5: halves round to even, as NumPy does
    assert [value(mode, n, 2, ir=InterestRate(0.0), decimals=0) for n in (2.5, 3.5)] == [2.0, 4.0]


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("timing", [0, 1])
@pytest.mark.parametrize(
    "n, m, d, gr", [(7.3, 12, 1.5, None), (0.7, 52, 2.0, None), (4.6, 1, 0.0, GrowthRate(0.1, "arithmetic"))]
)
def test_flows_add_up_to_the_present_value(mode, timing, n, m, d, gr):
    flows = value(mode, n, m, d, timing, gr=gr, flows=True, decimals=2)
    close(flows["total_pv"], brute(mode, FLAT, n, m, d, timing, gr))  # flows are never rounded
    if mode in PRECISION:
        times, expected, pv = (np.asarray(flows[k]) for k in ("time_grid", "expected_cf", "pv_cf"))
        assert np.all(np.diff(times) >= 0) and times.min() >= d - 1e-12 and times.max() <= d + n + 1e-12
        close(float(pv.sum()), flows["total_pv"])
        if mode == "discrete_precision":
            np.testing.assert_allclose(pv, expected * V**times, rtol=1e-13)
        if gr is None:
            close(float(expected.sum()), n)  # 1 a year for n years, undiscounted
        return
    coef = "coef_due" if timing == 0 else "coef_immediate"
    close(flows["woolhouse_coefficient"], 0.5 if mode == "continuous_simplified" else (m - 1) / (2 * m))
    close(math.fsum(float(np.sum(flows[name]["present_value"])) for name in COMPONENTS), flows["total_pv"])
    for name in ("due", "immediate"):
        part = flows[name]
        np.testing.assert_allclose(
            part["present_value"], flows[coef] * np.asarray(part["growth"]) * V ** part["time_grid"], rtol=1e-13
        )


# ---------------------------------------------------------------- piecewise curves, brute force


def pw_integral(curve, a, b):
    """Integral of v over [a, b], split at the segment ends, exact on each piece."""
    terms, rates = curve
    ends = list(itertools.accumulate(terms))
    cuts = sorted({a, b, *(e for e in ends if a < e < b)})
    total = []
    for x0, x1 in zip(cuts, cuts[1:]):
        r = rates[next((j for j, e in enumerate(ends) if (x0 + x1) / 2 <= e), len(terms))]
        delta = math.log1p(r)
        total.append(discount(*curve, x0) * (x1 - x0 if delta == 0 else -math.expm1(-delta * (x1 - x0)) / delta))
    return math.fsum(total)


def payments(n, m, d, timing, gf):
    """(index, time, amount) of every payment, a pro-rata last one included."""
    regular = int(n * m)
    frac = n * m - regular
    out = [(k, d + (k + timing) / m, gf(k // m) / m) for k in range(regular)]
    if frac > 1e-12:
        out.append((regular, d + regular / m if timing == 0 else d + n, frac / m * gf(regular // m)))
    return out


def brute(mode, curve, n, m, d, timing, gr):
    gf = growth_factor(gr)
    pays = payments(n, m, d, timing, gf)
    if mode == "discrete_precision":
        return math.fsum(a * discount(*curve, t) for _, t, a in pays)
    if mode == "continuous_precision":
        return math.fsum(gf(j) * pw_integral(curve, d + j, min(d + j + 1, d + n)) for j in range(math.ceil(n)))
    k = math.floor(n)
    due = math.fsum(gf(j) * discount(*curve, d + j) for j in range(k))
    imm = math.fsum(gf(j) * discount(*curve, d + j + 1) for j in range(k))
    if mode == "continuous_simplified":
        return (due + imm) / 2 + gf(k) * pw_integral(curve, d + k, d + n)
    c = (m - 1) / (2 * m)
    whole = due - c * (due - imm) if timing == 0 else imm + c * (due - imm)
    return whole + math.fsum(a * discount(*curve, t) for idx, t, a in pays if idx >= k * m)


curves = st.integers(1, 4).flatmap(
    lambda k: st.tuples(
        st.lists(st.floats(0.1, 8.0), min_size=k, max_size=k),
        st.lists(
            st.one_of(st.just(0.0), st.floats(-0.02, 0.15, allow_subnormal=False)), min_size=k + 1, max_size=k + 1
        ),
    )
)
growths = st.one_of(
    st.none(), st.floats(-0.05, 0.1).map(GrowthRate), st.floats(0.0, 0.1).map(lambda g: GrowthRate(g, "arithmetic"))
)


@settings(max_examples=80, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(
    curve=curves,
    n=st.integers(0, 3000).map(lambda k: k / 100),
    d=st.integers(0, 1000).map(lambda k: k / 100),
    m=st.sampled_from([1, 2, 4, 12, 52]),
    timing=st.sampled_from([0, 1]),
    gr=growths,
)
def test_piecewise_curves_against_brute_force(curve, n, d, m, timing, gr):
    ir = InterestRate(terms=list(curve[0]), rates=list(curve[1]))
    for mode in MODES:
        want = brute(mode, curve, n, m, d, timing, gr)
        close(value(mode, n, m, d, timing, ir=ir, gr=gr), want)
        flows = value(mode, n, m, d, timing, ir=ir, gr=gr, flows=True)
        parts = [flows["pv_cf"]] if mode in PRECISION else [flows[c]["present_value"] for c in COMPONENTS]
        close(math.fsum(float(x) for p in parts for x in p), want)


# ---------------------------------------------------------------- native kernels


ANNUITY = {"d": 0.0, "n": 5.0, "payments_size": 60, "m": 12, "timing": 0}
CONST = _kernels.Curve(np.array([I]), np.empty(0), np.empty(0))
Q = np.array([0.1, 0.2, 1.0])  # ages 30 to 32
TABLE = _kernels.LifeTable(30, Q, 0, 0, np.empty(0))
LIFE = {"ts": 0.0, "d": 0.0, "n": 2.0, "m": 1, "timing": 0, "growth_kind": "level", "growth_rate": 0.0}
LIFE |= {"amounts": None}
BOOK = [np.zeros(1), np.array([30.0]), np.array([np.nan]), np.ones(1), np.zeros(1), np.zeros(1), np.ones(1)]


def life_value(kind="annuity", lives=((TABLE, 30.0, np.nan, "udd"),), status="single", **kw):
    return _kernels.LifeStatus(status, list(lives)).value(kind, InterestRate(I), **(LIFE | kw))


def life_book(column, value):
    cols = [c.copy() for c in BOOK]
    cols[column][0] = value
    args = (np.array([I]), np.empty(0), np.empty(0), *cols, None)
    return _kernels.life_portfolio(
        [TABLE],
        ["udd"],
        [[ord("T")]],
        *args,
        timing=0,
        growth_kind="level",
        growth_rate=0.0,
        mode="discrete_precision",
        tolerance_eps=0.0,
        decimals=10,
    )


@pytest.mark.parametrize(
    "call, message",
    [
        (lambda: _kernels.Annuity(**{**ANNUITY, "m": 0}), "m must be positive"),
        (lambda: _kernels.Annuity(**{**ANNUITY, "timing": 2}), "timing must be 0 or 1"),
        (lambda: _kernels.Annuity(**ANNUITY, growth_kind="linear"), "growth kind must be"),
        (lambda: _kernels.Annuity(**{**ANNUITY, "n": -1.0}), r"fewer than 2\*\*53 payments"),
        (lambda: _kernels.Annuity(**{**ANNUITY, "n": 1e300}), r"fewer than 2\*\*53 payments"),
        (lambda: _kernels.payment_count(1e300, 12, 1e-12), r"fewer than 2\*\*53 payments"),
        (lambda: CONST.interval_values(np.zeros(2), np.ones(3)), "differ in length"),
        (lambda: CONST.interval_values(np.zeros(1), np.array([np.nan])), "intervals must be finite"),
        (lambda: _kernels.Curve(np.array([0.01, 0.02]), np.array([1.0]), np.empty(0)), "m rates and m-1 terms"),
        (lambda: _kernels.Curve(np.array([0.01]), np.array([1.0]), np.array([1.0])), "m rates and m-1 terms"),
        (lambda: _kernels.Curve(np.empty(0), np.empty(0), np.empty(0)), "m rates and m-1 terms"),
        (lambda: _kernels.Curve(np.array([I, I]), np.array([0.0]), np.array([0.0])), "finite positive terms"),
        (lambda: _kernels.Curve(np.array([I] * 3), np.ones(2), np.ones(2)), "increasing ends"),
        (lambda: _kernels.LifeTable(30, np.empty(0), 0, 0, np.empty(0)), "at least one age"),
        (lambda: _kernels.LifeTable(30, Q, 30, 2, np.array([0.1])), "`select_period` values per row"),
        (lambda: _kernels.LifeTable(30, Q, 0, 0, np.array([0.1])), "`select_period` values per row"),
        (lambda: _kernels.LifeTable(30, Q, 30, 1, np.array([1.5])), r"must be in \[0, 1\]"),
        (lambda: life_value(status="joint"), "'single' with one life"),
        (lambda: life_value(lives=[(None, 30.0, np.nan, "udd")]), "a life needs a table"),
        (lambda: life_value(lives=[(TABLE, np.inf, np.nan, "udd")]), "ages and times must be finite"),
        (lambda: life_value(lives=[(TABLE, 30.0, 2e9, "udd")]), "ages must be finite"),
        (lambda: life_value(lives=[(TABLE, 33.0, np.nan, "udd")]), "nobody in the table reaches age 33"),
        (lambda: life_value(kind="annuity_certain"), "unknown life value"),
        (lambda: life_value(n=1e17, m=12), r"fewer than 2\*\*53 payments"),
        (lambda: life_value(amounts=np.ones(3)), "holds 3 amounts for 2 payments"),
        (lambda: life_book(2, 2e9), "invalid select age at index 0"),
        (lambda: life_book(0, 1.0), "invalid policy at index 0"),
        (lambda: life_book(6, 0.5), "invalid policy at index 0"),
    ],
)
def test_kernel_bad_arguments_are_named(call, message):
    with pytest.raises(ValueError, match=message):
        call()


def test_kernel_integral_to_infinity_terminates():
    # An unbounded interval must give the closed form v(a)/delta or a ValueError, not loop forever.
    code = (
        "import numpy as np; from norvane import _kernels as k\n"
        "c = k.Curve(np.array([0.03]), np.empty(0), np.empty(0))\n"
        "try:\n    print(c.interval_values(np.array([3.0]), np.array([np.inf]))[0])\n"
        "except ValueError:\n    print('ValueError')\n"
    )
    try:
        out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60).stdout.strip()
    except subprocess.TimeoutExpired:
        pytest.fail("integral over [3, inf) did not terminate")
    assert out == "ValueError" or math.isclose(float(out), V**3 / DELTA, rel_tol=1e-12)
