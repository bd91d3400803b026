"""Single-annuity valuation: closed forms, argument handling, cash flows."""

import re

import numpy as np
import pytest
from reference import MODES, MUTEX, PRECISION, D, I, V, d_m, discount, exact, i_m

from norvane.config import Config
from norvane.interest_rates import InterestRate

NAN, INF = float("nan"), float("inf")
TOL = 1e-9  # results are rounded to 10 decimals


def annuity(ir, due, **kw):
    return ir.ä(**kw) if due else ir.a(**kw)


def geometric_immediate(n, g):
    r = (1.0 + g) * V
    return V * (1.0 - r**n) / (1.0 - r)


@pytest.mark.parametrize(
    ("method", "kwargs", "expected"),
    [
        ("ä", {"n": 5}, (1 - V**5) / D),
        ("a", {"n": 10}, (1 - V**10) / I),
        ("ä", {"n": 3, "cashflow_amounts": [100, 110, 121]}, 100 + 110 * V + 121 * V**2),
        ("ä", {"n": 20, "d": 5}, V**5 * (1 - V**20) / D),
        ("ä", {"n": 10.0, "ts": 3.0}, (1 - V**7) / D),
        ("a", {"n": 10, "gr": 0.02}, geometric_immediate(10, 0.02)),
        ("ä", {"n": 10, "gr": 0.02}, (1 + I) * geometric_immediate(10, 0.02)),
        ("a", {"cashflow_times": [1.0, 2.0, 3.0]}, V + V**2 + V**3),
        ("a", {"cashflow_times": [1.0, 2.0, 3.0], "d": 1.0, "ts": 2.5}, V**0.5 + V**1.5),
        ("a", {"n": 3.0, "d": 1.0, "ts": 2.0, "cashflow_amounts": [1.0, 2.0, 3.0]}, 2 * V + 3 * V**2),
    ],
)
def test_reference_values(ir, method, kwargs, expected):
    value = getattr(ir, method)(**kwargs)
    assert type(value) is float
    assert value == pytest.approx(expected, abs=TOL)


@pytest.mark.parametrize("due", [True, False])
@pytest.mark.parametrize(("m", "d"), [(1, 0.0), (12, 0.0), (4, 6.0)])
def test_perpetuity_normalisation(ir, due, m, d):
    years = ir._meta.perpetuity_n_eff
    values = [annuity(ir, due, n=n, m=m, d=d) for n in (float("inf"), np.inf, -np.inf)]
    values.append(annuity(ir, due, m=m, d=d))
    assert len(set(values)) == 1
    assert values[0] == annuity(ir, due, n=float(years), m=m, d=d)
    expected = V**d * (1.0 - V**years) / (d_m(m) if due else i_m(m))
    assert values[0] == pytest.approx(expected, abs=TOL)
    assert values[0] == pytest.approx(V**d / (d_m(m) if due else i_m(m)), rel=1e-9)


LENGTH = "'cashflow_amounts' length must match provided 'cashflow_times' length."
GR_TIMES = (
    "'gr' cannot be combined with explicit 'cashflow_times': growth is defined on the regular payment "
    "schedule. Pass gr=None or scale the amounts instead."
)
PRECISION_ONLY = (
    "'cashflow_times' needs a precision calculation mode ('discrete_precision', 'continuous_precision'), "
    "the current mode is discrete_simplified."
)
BATCH_ONLY = " requires batch mode (array n, d, ts, m, or gr)."
GRID = np.arange(5.0)


# One case per line.
# fmt: off
@pytest.mark.parametrize(
    ("method", "kwargs", "config", "exc", "text"),
    [
        ("a", {"ts": -1.0}, {}, ValueError, "'ts' must be finite and >= 0, got -1.0."),
        ("a", {"ts": True}, {}, TypeError, "'ts' must be a real number, got bool."),
        ("ä", {"d": NAN}, {}, ValueError, "'d' must be finite and >= 0, got nan."),
        ("a", {"n": -1.0}, {}, ValueError, "'n' must be >= 0, got -1.0."),
        ("a", {"ts": 1.5}, {"force_integer_ts": True}, ValueError, "'ts' must be a whole number of years while force_integer_ts is set, got 1.5."),
        ("ä", {"m": 5}, {}, ValueError, "'m' must be one of (1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365), got 5."),
        ("a", {"m": 12.0}, {}, TypeError, "'m' must be an integer payment frequency, got float."),
        ("a", {"cashflow_times": [1.0], "gr": 0.02}, {}, ValueError, GR_TIMES),
        ("a", {"cashflow_times": [1.0]}, {"calculation_mode": "discrete_simplified"}, ValueError, PRECISION_ONLY),
        ("a", {"cashflow_times": [1.0, NAN]}, {}, ValueError, "'cashflow_times' must be finite and >= 0 at index 1, got nan."),
        ("a", {"cashflow_times": [1.0, 2.0, 1.5]}, {}, ValueError, "'cashflow_times' must be non-decreasing, got 1.5 after 2.0 at index 2."),
        ("a", {"cashflow_times": [True]}, {}, TypeError, "'cashflow_times' must be a sequence of real numbers."),
        ("a", {"cashflow_times": [1.0, 2.0], "cashflow_amounts": [1.0]}, {}, ValueError, LENGTH),
        ("ä", {"n": 3.0, "cashflow_amounts": [1.0, INF, 1.0]}, {}, ValueError, "'cashflow_amounts' must be finite at index 1, got inf."),
        ("ä", {"n": 3.0, "cashflow_amounts": [1.0, 1.0]}, {}, ValueError, "'cashflow_amounts' must hold one amount per payment: expected 3 (n=3.0, m=1), got 2."),
        ("ä", {"n": None, "cashflow_amounts": [1.0]}, {}, ValueError, "'cashflow_amounts' without 'cashflow_times' needs a finite term 'n' >= 0, got None."),
        ("a", {"n": 3.0, "cashflow_amounts": [[1.0, 1.0, 1.0]]}, {}, ValueError, "'cashflow_amounts' must be a one-dimensional sequence."),
        ("ä", {"n": 3.0, "gr": 0.01, "cashflow_amounts": [1.0] * 3}, {}, ValueError, MUTEX),
        # the batch-only arguments are checked in this order, benefits last
        ("a", {"on_error": "nan", "record_ids": ["p1"], "t_output": GRID, "benefits": [1.0]}, {}, ValueError, "on_error='nan'" + BATCH_ONLY),
        ("ä", {"t_output": GRID, "return_flows": True, "benefits": [1.0]}, {}, ValueError, "t_output" + BATCH_ONLY),
        ("a", {"benefits": [1.0]}, {}, ValueError, "benefits" + BATCH_ONLY),
    ],
)
# fmt: on
def test_annuity_messages(ir, method, kwargs, config, exc, text):
    with Config().override(**config), pytest.raises(exc) as info:
        getattr(ir, method)(**{"n": 10.0, **kwargs})
    assert str(info.value) == f"[InterestRate.{method}] {text}"


@pytest.mark.parametrize(
    ("kwargs", "text"),  # the dispatcher's own checks, for callers that skip validation
    [
        ({"n": 3.0, "cashflow_amounts": [[1.0, 1.0, 1.0]]}, "'payment_amount' must be a 1-D sequence."),
        ({"cashflow_times": [1.0, 2.0], "cashflow_amounts": [1.0]}, LENGTH),
        ({"n": 3.0, "gr": 0.01, "cashflow_amounts": [1.0, 1.0, 1.0]}, MUTEX),
    ],
)
def test_unvalidated_dispatch_messages(ir, kwargs, text):
    with pytest.raises(ValueError) as info:
        ir._annuity_dispatch(validate=False, method_name="InterestRate.ä", **kwargs)
    assert str(info.value) == "[InterestRate.ä] " + text


@pytest.mark.parametrize(
    ("timing", "exc", "text"),
    [
        (2, ValueError, "'payment_timing' must be 0 (due) or 1 (immediate), got 2."),
        (True, TypeError, "'payment_timing' must be an int (0 due, 1 immediate), got bool."),
    ],
)
def test_dispatch_checks_the_payment_timing(ir, timing, exc, text):
    with exact(exc, "[InterestRate.a] " + text):
        ir._annuity_dispatch(n=5.0, payment_timing=timing, method_name="InterestRate.a")


@pytest.mark.parametrize(
    ("n_of", "m", "count"),
    [
        (lambda eps: 3.0 + eps / 8, 4, 12),
        (lambda eps: 3.0 - eps / 8, 4, 12),
        (lambda eps: 3.0 + 4 * eps, 4, 13),
        (lambda eps: 2.2, 2, 5),
    ],
)
@pytest.mark.parametrize("due", [True, False])
def test_payment_count_tolerance(ir, n_of, m, count, due):
    n = n_of(ir._meta.tolerance_eps)
    flows = annuity(ir, due, n=n, m=m, return_flows=True)
    assert len(flows["time_grid"]) == count
    if abs(n * m - round(n * m)) <= ir._meta.tolerance_eps:
        k = np.arange(count) + (0 if due else 1)
        assert annuity(ir, due, n=n, m=m) == pytest.approx(np.sum(V ** (k / m)) / m, abs=TOL)


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("due", [True, False])
@pytest.mark.parametrize("kwargs", [{"n": 0.0}, {"n": 5.0, "ts": 5.0}, {"n": 5.0, "d": 2.0, "ts": 9.5}])
def test_zero_effective_term(ir, mode, due, kwargs):
    Config().calculation_mode = mode
    assert annuity(ir, due, m=4, **kwargs) == 0.0
    flows = annuity(ir, due, m=4, return_flows=True, **kwargs)
    assert flows["total_pv"] == 0.0
    parts = [flows] if mode in PRECISION else [flows[c] for c in ("due", "immediate", "fractional", "fractional_tail")]
    assert all(np.size(v) == 0 for part in parts for v in part.values() if isinstance(v, np.ndarray))


PIECEWISE_RATES = [0.02, 0.04, 0.05]


@pytest.mark.parametrize("due", [True, False])
@pytest.mark.parametrize(
    ("ts", "d", "n", "m"),
    [(3.0, 0.0, 10.0, 1), (3.0, 5.0, 10.0, 2), (1.5, 0.5, 6.0, 4), (7.0, 2.0, 8.0, 12), (0.25, 0.0, 8.0, 4)],
)
def test_ts_shift_on_piecewise_curve(due, ts, d, n, m):
    curve = InterestRate(terms=[2.0, 3.0], rates=PIECEWISE_RATES)
    d_eff, n_eff = max(0.0, d - ts), max(0.0, n - max(0.0, ts - d))
    value = annuity(curve, due, ts=ts, d=d, n=n, m=m)
    shifted = annuity(curve.shifted(ts), due, d=d_eff, n=n_eff, m=m)
    assert value == pytest.approx(shifted, abs=1e-12)
    k = np.arange(round(n_eff * m)) + (0 if due else 1)
    times = ts + d_eff + k / m
    v = [discount([2.0, 3.0], PIECEWISE_RATES, t) for t in times]
    expected = sum(v) / discount([2.0, 3.0], PIECEWISE_RATES, ts) / m
    assert value == pytest.approx(expected, abs=TOL)
    batch = annuity(curve, due, ts=[ts, ts], d=d, n=n, m=m)  # the portfolio kernel shifts the same way
    assert batch.tolist() == pytest.approx([expected] * 2, abs=TOL)


# ---------------------------------------------------------------- native paths agree with the engine


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize(
    "make", [lambda: InterestRate(0.03), lambda: InterestRate(terms=[1.5, 2.25, 4], rates=[0.01, 0.0, -0.004, 0.05])]
)
@pytest.mark.parametrize(
    "n, d, ts, m", [(30.0, 0.0, 0.0, 12), (7.3, 2.0, 1.25, 4), (None, 0.0, 3.0, 2), (0.5, 1.0, 0.0, 52)]
)
def test_single_values_equal_the_engine_path_exactly(mode, make, n, d, ts, m):
    # The plain-number fast path and the full dispatch through the engine's
    # entry must give the same float, bit for bit.
    ir = make()
    with Config().override(calculation_mode=mode):
        fast = ir.ä(n=n, d=d, ts=ts, m=m)
        full = ir._annuity_dispatch(n=n, d=d, ts=ts, m=m, payment_timing=0, method_name="InterestRate.ä")
        batch = ir.ä(n=[np.inf if n is None else n], d=[d], ts=[ts], m=m)
    assert fast == full == batch[0]


def test_a_replaced_engine_entry_is_used_by_single_and_portfolio_valuations(monkeypatch):
    from norvane.engine import annuity as engine

    calls = []

    def replacement(**kw):
        calls.append(kw["n"])
        return 42.0

    monkeypatch.setitem(engine._ANNUITY_CALCULATION_MODE_DISPATCH, "discrete_precision", replacement)
    ir = InterestRate(0.03)
    assert ir.ä(n=5) == 42.0
    assert list(ir.ä(n=[5.0, 6.0, 5.0])) == [42.0, 42.0, 42.0]
    assert calls == [5.0, 5.0, 6.0]  # one call per distinct policy


DUE_10 = (1.0 - V**10) / (1.0 - V)  # ä(n=10), yearly


@pytest.mark.parametrize(
    ("change", "expected"),
    [
        (lambda c: setattr(c.decimals, "annuities", 3), round(DUE_10, 3)),
        (lambda c: setattr(c, "decimals", {"annuities": 4}), round(DUE_10, 4)),
        (lambda c: setattr(c, "calculation_mode", "continuous_precision"), (1.0 - V**10) / np.log(1.0 + I)),
    ],
)
def test_a_plain_call_follows_settings_changed_after_the_last_one(ir, change, expected):
    assert ir.ä(n=10) == pytest.approx(DUE_10, abs=TOL)
    change(Config())
    assert ir.ä(n=10) == pytest.approx(expected, abs=1e-12 if expected == round(expected, 4) else TOL)


def test_a_plain_call_follows_force_integer_ts_set_after_the_last_one(ir):
    assert ir.ä(n=10, ts=0.5) > 0.0
    Config().force_integer_ts = True
    with pytest.raises(ValueError, match="whole number of years"):
        ir.ä(n=10, ts=0.5)


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda ir: ir.a(5), "InterestRate.a() takes 1 positional argument but 2 were given"),
        (lambda ir: ir.ä(cashflow_times=[1.0]), "InterestRate.ä() got an unexpected keyword argument 'cashflow_times'"),
        (lambda ir: ir.a(**{"term": 5}), "InterestRate.a() got an unexpected keyword argument 'term'"),
        (lambda ir: InterestRate.ä(object(), n=5), "descriptor 'ä' for 'InterestRate' objects doesn't apply"),
    ],
)
def test_annuity_calls_get_the_usual_type_errors(ir, call, message):
    with pytest.raises(TypeError, match=re.escape(message)):
        call(ir)
