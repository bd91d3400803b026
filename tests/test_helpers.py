"""Shared helpers: float64 conversion, input validation and batch bookkeeping."""

import json
import re

import numpy as np
import pandas as pd
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp
from reference import exact

import norvane.helpers as h

NAN, INF = float("nan"), float("inf")
A, AD = "InterestRate.a", "InterestRate.ä"


# ------------------------------------------------------------ h._as_f64_safe

REAL_DTYPES = st.one_of(
    *(f(endianness="?") for f in (hnp.integer_dtypes, hnp.unsigned_integer_dtypes)),
    hnp.floating_dtypes(sizes=(16, 32, 64), endianness="?"),
)
FORMS = {
    "strided": lambda a: a[::2] if a.ndim else a,
    "transposed": lambda a: a.T,
    "list": lambda a: a.tolist(),
    "readonly": lambda a: a.setflags(write=False) or a,
    "series": lambda a: pd.Series(a) if a.ndim == 1 else a,
}


@given(
    arr=hnp.arrays(REAL_DTYPES, hnp.array_shapes(min_dims=0, max_dims=3, min_side=0, max_side=5)),
    form=st.sampled_from(sorted(FORMS)),
)
def test_as_f64_safe_equals_float64_cast(arr, form):
    x = FORMS[form](arr)
    ref = np.asarray(np.asarray(x), dtype=np.float64)
    out = h._as_f64_safe(x)
    assert out.dtype == np.float64 and out.flags.c_contiguous and out.shape == ref.shape
    np.testing.assert_array_equal(out, ref)


@pytest.mark.parametrize(
    "x, expected",
    [
        (np.uint64(2**64 - 1), 2.0**64),
        (np.array(4.0), 4.0),
        (range(3), [0.0, 1.0, 2.0]),
        ([[1, 2], [3, 4]], [[1.0, 2.0], [3.0, 4.0]]),
        (np.array([1, 2**62], dtype=object), [1.0, 2.0**62]),
        (pd.Series([4, None], dtype="Int64"), [4.0, NAN]),
        (np.ma.array([1.0, 2.0], mask=[False, True]), [1.0, NAN]),
        (np.array([True]), TypeError),
        ([[1.0], [np.bool_(True)]], TypeError),
        (pd.Series([True, None], dtype="boolean"), TypeError),
        (np.array(["1.5"], dtype=object), TypeError),
        (np.array(["2020"], dtype="M8[Y]"), TypeError),
        ((v for v in [1.0]), TypeError),
        (10**400, ValueError),
    ],
)
def test_as_f64_safe_special_inputs(x, expected):
    if isinstance(expected, type):
        with pytest.raises(expected):
            h._as_f64_safe(x)
        return
    out = h._as_f64_safe(x)
    assert out.dtype == np.float64 and out.flags.c_contiguous
    np.testing.assert_array_equal(out, expected)
    arr, is_scalar = h._validate_numeric_input(x)  # a 0-d array is a single number, [x] is not
    assert is_scalar == (np.ndim(expected) == 0)
    np.testing.assert_array_equal(arr, np.reshape(out, arr.shape))
    a = np.arange(6.0)
    assert h._as_f64_safe(a) is a and not np.shares_memory(h._as_f64_safe(a[::2]), a)  # copies only when needed


# ------------------------------------------------------------ single values


def test_validate_numeric_input_refuses():  # non-numbers: test_discounting, through the public calls
    assert h._validate_numeric_input(None, allow_none=True) == (None, True)
    for seq in ([0.1], np.array([0.1]), pd.Series([0.1])):
        with exact(TypeError, "[InterestRate] Parameter 'rate' must be a single number, not a sequence."):
            h._validate_numeric_input(seq, allow_sequence=False, method_name="InterestRate", attr_name="rate")
    with pytest.raises(ValueError, match=r"^\[InterestRate\] Parameter 'n'"):
        h._validate_numeric_input([[1.0], [2.0, 3.0]], method_name="InterestRate", attr_name="n")


# ------------------------------------------------------------ batch checks


def test_term_faults_are_worded_per_record_in_order():
    from norvane._helpers.policy_arrays import _term_faults

    faults = _term_faults([10.0, -1.0, NAN, INF, 2.0**52], [0.0, -2.0, 0.0, 0.0, 1.0], 0.0, 12, 5)
    assert faults == {
        1: ["'n' must be >= 0.0 and finite at index 1, got -1.0", "'d' must be >= 0.0 and finite at index 1, got -2.0"],
        2: ["'n' must be >= 0.0 and finite at index 2, got nan"],
        4: ["'n' must hold fewer than 2**53 payments at index 4: got n=4503599627370496.0 at m=12 a year"],
    }


# ------------------------------------------------------------ grouping and results


def test_unit_values_rounded_before_benefits_and_flow_parts_merged():
    v = 1 / 1.03
    unit = (1 - v**5) / (1 - v)  # annuity-due, 5 years at 3 %: 4.7170984...
    got = h._finalize_batch_unit_pv_with_benefits(np.full(3, unit), np.array([1000.0, 0.0, 2.5]), 4)
    assert got.tolist() == [round(unit, 4) * 1000.0, 0.0, round(unit, 4) * 2.5]
    merged = h._aggregate_flow_parts(
        [([1.0, 2.0], [1.0, 1.0], [0.9, 0.8]), ([2.0 + 4e-16, 3.0], [2.0, 2.0], [1.6, 1.4])]
    )
    assert list(merged) == ["time_grid", "expected_cf", "pv_cf", "total_pv"]
    assert merged["time_grid"].tolist() == [1.0, 2.0, 3.0]  # 2 and 2+4e-16 are one point
    assert merged["expected_cf"].tolist() == [1.0, 3.0, 2.0] and merged["total_pv"] == pytest.approx(4.7)


FLOWS = st.lists(st.tuples(st.floats(0, 50), st.floats(0, 10), st.floats(0, 10)), max_size=8)


@given(parts=st.lists(FLOWS, max_size=4), grid=st.lists(st.floats(0, 60), min_size=1, max_size=6, unique=True))
def test_aggregate_flows_match_reference_binning(parts, grid):
    grid = sorted(grid)
    columns = [tuple(np.array([flow[i] for flow in part]) for i in range(3)) for part in parts]  # (time, ecf, pv)
    out = h._aggregate_flow_parts(columns, np.array(grid))
    expected_cf, pv_cf = [0.0] * len(grid), [0.0] * len(grid)
    for t, e, p in (flow for part in parts for flow in part):
        k = next((j for j, g in enumerate(grid) if g >= t), len(grid) - 1)
        expected_cf[k] += e
        pv_cf[k] += p
    np.testing.assert_allclose(out["expected_cf"], expected_cf, atol=1e-9)
    np.testing.assert_allclose(out["pv_cf"], pv_cf, atol=1e-9)
    assert out["total_pv"] == float(np.sum(out["pv_cf"]))


@pytest.mark.parametrize(
    "ts, n_eff, m, n_amounts, skip",
    [
        (1.0, 2.0, 1, 3, 1),
        (0.5, 1.5, 12, 24, 6),
        (0.0, 27 / 13, 13, 30, 3),  # 27.000000000000004 payments are 27
        (0.0, 3.0, 1, 2, "'cashflow_amounts' lists 2 amounts but 3 payments remain at ts=0.0."),
        (0.0, INF, 1, 3, "'cashflow_amounts' requires a finite term 'n'."),
    ],
)
def test_cashflow_amounts_skip(ts, n_eff, m, n_amounts, skip):
    if isinstance(skip, str):
        with pytest.raises(ValueError, match=r"^\[InterestRate\.ä\] " + re.escape(skip) + "$"):
            h._cashflow_amounts_payment_skip(ts, n_eff, AD, m, n_amounts)
    else:
        assert h._cashflow_amounts_payment_skip(ts, n_eff, AD, m, n_amounts) == skip


def test_batch_error_report_and_result():
    report = h.BatchErrorReport(
        n_errors=1,
        n_total=3,
        valid_mask=[True, False, True],
        invalid_indices=np.array([1]),
        record_ids=np.array(["p2"], dtype=object),
        messages=["'n' got -1.0"],
    )
    assert report.valid_mask.dtype == bool and report.invalid_indices.dtype == np.int64 and report.record_ids == ["p2"]
    assert "1 of 3" in str(report) and "'p2'" in str(report) and "got -1.0" in str(report)
    d = report.to_dict()
    assert json.loads(json.dumps(d)) == d and d["valid_mask"] == [True, False, True] and d["invalid_indices"] == [1]
    assert h.BatchResult(values=np.array([1.0, NAN, 2.0]), errors=report).errors is report
    with pytest.raises(ValueError, match="inconsistent"):
        h.BatchErrorReport(
            n_errors=2, n_total=3, valid_mask=[True] * 3, invalid_indices=[1], record_ids=[1], messages=["x"]
        )
