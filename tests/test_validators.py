"""Validators of the scalar annuity path."""

import re

import numpy as np
import pytest

from norvane.engine.base import Dispatcher
from norvane.validators import (
    _validate_cashflow_inputs,
    _validate_frequency_and_payment_timing,
    _validate_shift_deferment_and_duration,
)

NAN, INF = float("nan"), float("inf")


def raises(exc, text):
    return pytest.raises(exc, match=r"^\[InterestRate\.a\] " + re.escape(text) + "$")


@pytest.mark.parametrize(
    "kw, exc, text",
    [
        ({"n": None}, None, ""),
        ({"ts": np.int64(3), "d": np.float32(2.5), "ts_integer": True}, None, ""),
        ({"ts": -1.0}, ValueError, "'ts' must be finite and >= 0, got -1.0."),
        ({"ts": True}, TypeError, "'ts' must be a real number, got bool."),
        ({"d": NAN}, ValueError, "'d' must be finite and >= 0, got nan."),
        ({"n": -1.0}, ValueError, "'n' must be >= 0, got -1.0."),
        ({"n": [10.0]}, TypeError, "'n' must be a real number, got list."),
        (
            {"ts": 1.5, "ts_integer": True},
            ValueError,
            "'ts' must be a whole number of years while force_integer_ts is set, got 1.5.",
        ),
        (
            {"cashflow_times": [1.0], "has_growth_rate": True},
            ValueError,
            "'gr' cannot be combined with explicit 'cashflow_times': growth is defined on the regular payment schedule. Pass gr=None or scale the amounts instead.",
        ),
    ],
)
def test_shift_deferment_duration(kw, exc, text):
    args = {
        "ts": 0.0,
        "ts_integer": False,
        "d": 0.0,
        "n": 10.0,
        "cashflow_times": None,
        "method_name": "InterestRate.a",
        "has_growth_rate": False,
    } | kw
    if exc is None:
        _validate_shift_deferment_and_duration(**args)
    else:
        with raises(exc, text):
            _validate_shift_deferment_and_duration(**args)


@pytest.mark.parametrize(
    "m, timing, exc, text",
    [
        (np.int64(365), np.int8(0), None, ""),
        (5, 0, ValueError, "'m' must be one of (1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365), got 5."),
        (12.0, 0, TypeError, "'m' must be an integer payment frequency, got float."),
        (12, 2, ValueError, "'payment_timing' must be 0 (due) or 1 (immediate), got 2."),
        (12, True, TypeError, "'payment_timing' must be an int (0 due, 1 immediate), got bool."),
    ],
)
def test_frequency_and_timing(m, timing, exc, text):
    if exc is None:
        _validate_frequency_and_payment_timing(m=m, payment_timing=timing, method_name="InterestRate.a")
    else:
        with raises(exc, text):
            _validate_frequency_and_payment_timing(m=m, payment_timing=timing, method_name="InterestRate.a")


def cashflows(**kw):
    args = {
        "cashflow_times": None,
        "cashflow_amounts": None,
        "calculation_mode": "discrete_precision",
        "m": 1,
        "n": 3.0,
        "method_name": "InterestRate.a",
        "caller": Dispatcher.ANNUITY,
    }
    return _validate_cashflow_inputs(**(args | kw))


@pytest.mark.parametrize(
    "kw, exc, text",
    [
        (
            {"cashflow_times": [1.0], "calculation_mode": "discrete_simplified"},
            ValueError,
            "'cashflow_times' needs a precision calculation mode ('discrete_precision', 'continuous_precision'), the current mode is discrete_simplified.",
        ),
        ({"cashflow_times": [1.0, NAN]}, ValueError, "'cashflow_times' must be finite and >= 0 at index 1, got nan."),
        (
            {"cashflow_times": [1.0, 2.0, 1.5]},
            ValueError,
            "'cashflow_times' must be non-decreasing, got 1.5 after 2.0 at index 2.",
        ),
        ({"cashflow_times": [True]}, TypeError, "'cashflow_times' must be a sequence of real numbers."),
        ({"cashflow_amounts": [1.0, INF, 1.0]}, ValueError, "'cashflow_amounts' must be finite at index 1, got inf."),
        (
            {"cashflow_times": [1.0, 2.0], "cashflow_amounts": [1.0]},
            ValueError,
            "'cashflow_amounts' length must match provided 'cashflow_times' length.",
        ),
        (
            {"cashflow_amounts": [1.0, 1.0]},
            ValueError,
            "'cashflow_amounts' must hold one amount per payment: expected 3 (n=3.0, m=1), got 2.",
        ),
        (
            {"cashflow_amounts": [1.0], "n": None},
            ValueError,
            "'cashflow_amounts' without 'cashflow_times' needs a finite term 'n' >= 0, got None.",
        ),
        ({"caller": "annuity"}, TypeError, "'caller' must be a Dispatcher, got str."),
    ],
)
def test_cashflow_inputs_refused(kw, exc, text):
    with raises(exc, text):
        cashflows(**kw)
