"""Portfolio valuation: dispatch rules, grouping, benefits, flows and grid projection."""

import numpy as np
import pandas as pd
import pytest
from reference import MODES, MUTEX, D, I, V

from norvane.config import Config
from norvane.growth_rates import GrowthRate
from norvane.helpers import BatchErrorReport, BatchResult
from norvane.interest_rates import _woolhouse_flows_to_grid

NAN = float("nan")
TOL = 1e-9


def call(ir, method, **kw):
    return getattr(ir, method)(**kw)


def immediate(n):
    return (1.0 - V**n) / I


LENGTHS = (
    "Incompatible batch lengths: n={}, d={}, ts={}. All arrays must share the same length or be length-1 (broadcast)."
)
HETEROGENEOUS_M = (
    "return_flows=True is not supported when m is a vector with heterogeneous values. "
    "Use a scalar m or split the batch by payment frequency and call separately."
)
NAN_FLOWS = "on_error='nan' is not supported with return_flows=True in batch mode."


M_SET = "(1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365)"
TWO = [1.0, 2.0]


# One case per line.
# fmt: off
@pytest.mark.parametrize(
    ("method", "kwargs", "exc", "tail"),
    [
        ("a", {"n": TWO, "d": [0.0, 1.0, 2.0]}, ValueError, LENGTHS.format(2, 3, 1)),
        ("ä", {"n": [1.0, 2.0, 5.0], "ts": [0.0, 1.0]}, ValueError, LENGTHS.format(3, 1, 2)),
        ("ä", {"n": TWO, "m": [1, 12], "return_flows": True}, ValueError, HETEROGENEOUS_M),
        ("a", {"n": TWO, "d": [0.0, 1.0, 2.0], "on_error": "nan", "return_flows": True}, ValueError, NAN_FLOWS),
        ("a", {"n": TWO, "on_error": "ignore"}, ValueError, "'on_error' must be 'raise' or 'nan', got 'ignore'."),
        ("a", {"n": [1.0, -1.0]}, ValueError, "'n' must be >= 0.0 and finite at index 1, got -1.0"),
        ("a", {"n": [1.0, -1.0], "m": 5}, ValueError, "'n' must be >= 0.0 and finite at index 1, got -1.0"),
        ("ä", {"n": TWO, "d": [NAN, 0.0], "benefits": [1, -1]}, ValueError, "'benefits' must be finite and >= 0 at index 1, got -1.0."),
        ("ä", {"n": TWO, "ts": [0.0, np.inf]}, ValueError, "'ts' must be >= 0.0 and finite at index 1, got inf"),
        ("ä", {"n": [1.0, 1e300], "m": 12}, ValueError, "'n' must hold fewer than 2**53 payments at index 1: got n=1e+300 at m=12 a year."),
        ("a", {"n": TWO, "record_ids": ["a"]}, ValueError, "'record_ids' must have one id per policy: expected 2, got 1."),
        ("a", {"n": TWO, "record_ids": "ab"}, TypeError, "'record_ids' must be a sequence with one id per policy, got str."),
        ("a", {"n": TWO, "t_output": [0, 1]}, ValueError, "t_output requires return_flows=True."),
        ("a", {"n": TWO, "return_flows": True, "t_output": [0.0, NAN]}, ValueError, "'t_output' must be finite and >= 0 at index 1, got nan."),
        ("a", {"n": TWO, "return_flows": True, "t_output": [0.0, 1.0, 1.0]}, ValueError, "'t_output' must be strictly increasing, got 1.0 after 1.0 at index 2."),
        ("a", {"n": TWO, "return_flows": True, "t_output": 1.0}, TypeError, "Parameter 't_output' must be a sequence of real numbers, not a single value."),
        ("a", {"n": TWO, "m": 5}, ValueError, f"'m' must be one of {M_SET}, got 5."),
        ("a", {"n": TWO, "m": [1, 5]}, ValueError, f"'m' must be one of {M_SET} at index 1, got 5."),
        ("a", {"n": TWO, "m": [12, 366]}, ValueError, f"'m' must be one of {M_SET} at index 1, got 366."),
        ("a", {"n": TWO, "m": np.array([-12, 12])}, ValueError, f"'m' must be one of {M_SET} at index 0, got -12."),
        ("a", {"n": [1.0, 2.0, 3.0], "m": [1, 12]}, ValueError, "Incompatible batch lengths: m=2, expected 3 or 1 (broadcast)."),
        ("a", {"n": TWO, "m": [1.0, 12.0]}, TypeError, "'m' must contain integers, got dtype float64."),
        ("a", {"n": TWO, "benefits": [1, 2, 3]}, ValueError, "'benefits' must have one value per policy: expected 2, got 3."),
        ("a", {"n": TWO, "benefits": [1, -1]}, ValueError, "'benefits' must be finite and >= 0 at index 1, got -1.0."),
        ("a", {"n": TWO, "benefits": [True, 1]}, TypeError, "'benefits' must contain real numbers."),
        ("a", {"n": [3.0], "gr": 0.01, "cashflow_amounts": [1.0] * 3}, ValueError, MUTEX),
    ],
)
# fmt: on
def test_batch_messages(ir, method, kwargs, exc, tail):
    with pytest.raises(exc) as info:
        call(ir, method, **kwargs)
    assert str(info.value) == f"[InterestRate.{method}] {tail}"


@pytest.mark.parametrize(
    ("kwargs", "expected"),
    [
        ({"n": [10.0], "d": [0.0, 5.0]}, [immediate(10), V**5 * immediate(10)]),
        ({"n": 10.0, "ts": [0.0, 4.0, 12.0]}, [immediate(10), immediate(6), 0.0]),
        ({"n": [10.0, np.inf, None]}, [immediate(10), 1.0 / I, 1.0 / I]),
        ({"n": np.array([np.inf]), "d": [0.0, 2.0]}, [1.0 / I, V**2 / I]),
    ],
)
def test_broadcasting_and_perpetuities(ir, kwargs, expected):
    out = ir.a(**kwargs)
    assert isinstance(out, np.ndarray) and out.shape == (len(expected),)
    np.testing.assert_allclose(out, expected, rtol=1e-9, atol=TOL)


def test_on_error_nan_with_ids_and_benefits(ir):
    res = ir.a(
        n=[10.0, np.nan, 5.0, 20.0],
        d=[0.0, 0.0, -2.0, 1.0],
        ts=[0.0, 0.0, 0.0, -1.0],
        benefits=[2.0, 2.0, 3.0, 4.0],
        record_ids=["p1", "p2", "p3", "p4"],
        on_error="nan",
    )
    assert isinstance(res, BatchResult) and isinstance(res.errors, BatchErrorReport)
    assert res.values[0] == 2.0 * ir.a(n=10.0) and np.isnan(res.values[1:]).all()
    assert (res.errors.n_errors, res.errors.n_total, res.errors.valid_mask.tolist()) == (3, 4, [True] + [False] * 3)
    assert res.errors.invalid_indices.tolist() == [1, 2, 3] and list(res.errors.record_ids) == ["p2", "p3", "p4"]
    assert [name in msg for name, msg in zip(("'n'", "'d'", "'ts'"), res.errors.messages)] == [True] * 3


@pytest.mark.parametrize("method", ["a", "ä"])
@pytest.mark.parametrize(
    "kwargs",
    [
        {"n": [5.0, 10.0, 20.0, 10.0], "m": [1, 2, 12, 2], "gr": [None, 0.02, GrowthRate(0.01, "arithmetic"), 0.02]},
        {"n": [8.0, 8.0, 3.5], "m": [4, 12, 4], "gr": [0.01, GrowthRate(0.01), None], "d": [1.0, 0.0, 2.0]},
    ],
)
def test_grouping_matches_scalar_calls(ir, method, kwargs):
    out = call(ir, method, **kwargs)
    size = len(kwargs["n"])
    for i in range(size):
        single = {k: (v[i] if isinstance(v, list) else v) for k, v in kwargs.items()}
        assert out[i] == call(ir, method, **single)


def test_pandas_series_keep_input_order(ir):
    idx = [7, 3, 1]
    out = ir.ä(
        n=pd.Series([10.0, 5.0, 20.0], index=idx),
        m=pd.Series([1, 12, 1], index=idx),
        d=pd.Series([0.0, 0.0, 2.0], index=idx),
        gr=pd.Series([0.0, 0.0, 0.02], index=idx),
        benefits=pd.Series([1.0, 2.0, 0.5], index=idx),
    )
    g = (1.02 * V) ** np.arange(20)
    expected = [(1 - V**10) / D, 2.0 * (1 - V**5) / (12 * (1 - V ** (1 / 12))), 0.5 * V**2 * g.sum()]
    np.testing.assert_allclose(np.asarray(out), expected, atol=TOL)


GRID = np.array([0.0, 2.5, 5.0, 12.0])


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("method", ["a", "ä"])
@pytest.mark.parametrize(
    "kwargs",
    [
        {"n": [10.0, 20.0, 7.5], "d": [0.0, 2.0, 1.0], "m": 4, "benefits": [1.0, 2.0, 0.5]},
        {"n": [10.0, 6.0, 10.0], "ts": [0.0, 1.0, 0.0], "gr": [0.02, None, 0.02], "benefits": [3.0, 1.0, 1.0]},
        {"n": [5.0, np.inf], "d": [1.0, 0.0]},
    ],
)
def test_portfolio_flows_sum_to_value(ir, mode, method, kwargs):
    Config().calculation_mode = mode
    weights = np.asarray(kwargs.get("benefits", [1.0] * len(kwargs["n"])))
    plain = {k: v for k, v in kwargs.items() if k != "benefits"}
    value = float(np.dot(call(ir, method, **plain), weights))
    flows = call(ir, method, return_flows=True, **kwargs)
    assert set(flows) == {"time_grid", "expected_cf", "pv_cf", "total_pv"}
    assert flows["total_pv"] == flows["pv_cf"].sum()
    assert flows["total_pv"] == pytest.approx(value, abs=1e-7)
    assert np.all(np.diff(flows["time_grid"]) > 0.0)
    gridded = call(ir, method, return_flows=True, t_output=GRID, **kwargs)
    np.testing.assert_array_equal(gridded["time_grid"], GRID)
    assert gridded["total_pv"] == gridded["pv_cf"].sum()
    assert gridded["total_pv"] == pytest.approx(flows["total_pv"], rel=1e-12)
    assert gridded["expected_cf"].sum() == pytest.approx(flows["expected_cf"].sum(), rel=1e-12)


def test_gridded_flows_land_on_next_grid_time(ir):
    flows = ir.a(n=[10.0, 20.0], return_flows=True, t_output=GRID)
    # yearly payments 1..20: 1-2 -> 2.5, 3-5 -> 5, 6-20 -> 12 (the last grid time)
    np.testing.assert_allclose(flows["expected_cf"], [0.0, 4.0, 6.0, 20.0], atol=1e-12)
    pv = [
        0.0,
        2 * (V + V**2),
        2 * (V**3 + V**4 + V**5),
        2 * sum(V**k for k in range(6, 11)) + sum(V**k for k in range(11, 21)),
    ]
    np.testing.assert_allclose(flows["pv_cf"], pv, atol=1e-12)


def woolhouse(**over):
    flows = {
        "coef_immediate": 1.0,
        "due": {"time_grid": [0.0, 1.0], "present_value": [1.0, 0.9]},
        "immediate": {"time_grid": [1.0, 2.0], "present_value": [0.5, 0.4], "growth": [2.0, 2.0]},
        "fractional": {"time_grid": [2.5], "present_value": [0.7], "discount_factor": [0.0]},
        "fractional_tail": {},
    }
    flows.update(over)
    return flows


FRACTIONAL = {"time_grid": [1.0, 3.0], "present_value": [0.3, 0.45], "discount_factor": [0.6, 0.9]}


@pytest.mark.parametrize(
    "over, scale, grid, expected, pv",
    [  # equal times merge; a zero discount factor leaves the amount unknown (0); amounts scale with benefits
        ({}, 1, [0.0, 1.0, 2.0, 2.5], [1.0, 3.0, 2.0, 0.0], [1.0, 1.4, 0.4, 0.7]),
        ({}, 3, [0.0, 1.0, 2.0, 2.5], [3.0, 9.0, 6.0, 0.0], [3.0, 4.2, 1.2, 2.1]),
        ({"fractional": {}}, 2, [0.0, 1.0, 2.0], [2.0, 6.0, 4.0], [2.0, 2.8, 0.8]),
        ({"fractional": FRACTIONAL}, 1, [0.0, 1.0, 2.0, 3.0], [1.0, 3.5, 2.0, 0.5], [1.0, 1.7, 0.4, 0.45]),
    ],
)
def test_woolhouse_flows_to_grid(over, scale, grid, expected, pv):
    got = _woolhouse_flows_to_grid(woolhouse(**over), scale)
    for array, want in zip(got, (grid, expected, pv)):
        np.testing.assert_allclose(array, want, rtol=1e-15)
    with pytest.raises(TypeError, match="coef_immediate"):
        _woolhouse_flows_to_grid(woolhouse(coef_immediate="abc"), 1)


@pytest.mark.parametrize("gr", ["x", {}, b"1", True, object()])
@pytest.mark.parametrize("method", ["a", "ä"])
def test_batch_growth_must_be_a_growth_rate_or_number(ir, method, gr):
    with pytest.raises(TypeError, match=r"^\[InterestRate\." + method + r"\] 'gr': "):
        call(ir, method, n=[1.0, 2.0], gr=gr)
