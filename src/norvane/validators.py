"""Input validators of the scalar annuity path (``InterestRate.a`` and ``ä``)."""

from __future__ import annotations

import math
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .engine.base import _CALCULATION_MODES, Dispatcher
from .growth_rates import GrowthRate, _as_growth_rate
from .helpers import (
    _PAYMENT_COUNT_TOL,
    _as_f64_safe,
    _check_frequency,
    _has_growth_rate_param,
    _payment_count,
    _prefixed,
    _real_float,
)

__all__ = [
    "_resolve_gr",
    "_validate_cashflow_inputs",
    "_validate_frequency_and_payment_timing",
    "_validate_shift_deferment_and_duration",
]

_PRECISION_MODES = ("discrete_precision", "continuous_precision")


def _non_negative(value: Any, name: str, method_name: str, allow_inf: bool) -> float:
    x = _real_float(value, name, method_name)
    if not (x >= 0.0 and (allow_inf or x < math.inf)):
        qualifier = "" if allow_inf else "finite and "
        raise ValueError(_prefixed(method_name, f"'{name}' must be {qualifier}>= 0, got {x!r}."))
    return x


def _validate_shift_deferment_and_duration(
    *,
    ts: Any,
    ts_integer: bool,
    d: Any,
    n: Any,
    cashflow_times: Any,
    method_name: str,
    has_growth_rate: bool,
) -> None:
    """Check the valuation time, deferment and term of one annuity.

    Parameters
    ----------
    ts, d : real
        Valuation time and deferment in years; finite and >= 0.
    ts_integer : bool
        Refuse a non-integral ``ts`` (``Config().force_integer_ts``).
    n : real or None
        Term in years, >= 0 (``inf`` or None: a perpetuity).
    cashflow_times : array-like or None
        Explicit payment times; refused together with a growth rate.
    method_name : str
        Prefix of the messages.
    has_growth_rate : bool
        Whether a growth rate was given.

    Raises
    ------
    TypeError
        For booleans and non-numbers.
    ValueError
        For negative or non-finite values, a non-integral ``ts`` under
        ``ts_integer``, or explicit times with a growth rate.
    """
    ts_value = _non_negative(ts, "ts", method_name, allow_inf=False)
    if ts_integer and not ts_value.is_integer():
        raise ValueError(
            _prefixed(
                method_name,
                f"'ts' must be a whole number of years while force_integer_ts is set, got {ts_value!r}.",
            )
        )
    _non_negative(d, "d", method_name, allow_inf=False)
    if n is not None:
        _non_negative(n, "n", method_name, allow_inf=True)
    if cashflow_times is not None and has_growth_rate:
        raise ValueError(
            _prefixed(
                method_name,
                "'gr' cannot be combined with explicit 'cashflow_times': growth is defined "
                "on the regular payment schedule. Pass gr=None or scale the amounts instead.",
            )
        )


def _validate_frequency_and_payment_timing(*, m: Any, payment_timing: Any, method_name: str) -> None:
    """Check the payment frequency and the due/immediate code.

    Parameters
    ----------
    m : int
        Payments per year, one of ``1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365``.
    payment_timing : int
        0 for payments at the start of each period (due), 1 at the end
        (immediate).
    method_name : str
        Prefix of the messages.

    Raises
    ------
    TypeError
        When ``m`` or ``payment_timing`` is not an integer (booleans included).
    ValueError
        When ``m`` is not an allowed frequency or ``payment_timing`` not 0 or 1.
    """
    _check_frequency(m, method_name)
    if isinstance(payment_timing, (bool, np.bool_)) or not isinstance(payment_timing, (int, np.integer)):
        raise TypeError(
            _prefixed(
                method_name,
                f"'payment_timing' must be an int (0 due, 1 immediate), got {type(payment_timing).__name__}.",
            )
        )
    if payment_timing not in (0, 1):
        raise ValueError(
            _prefixed(method_name, f"'payment_timing' must be 0 (due) or 1 (immediate), got {payment_timing!r}.")
        )


def _one_dimensional(values: Any, name: str, method_name: str) -> NDArray[np.float64]:
    try:
        arr = _as_f64_safe(values)
    except TypeError:
        raise TypeError(_prefixed(method_name, f"'{name}' must be a sequence of real numbers.")) from None
    except ValueError as exc:  # ragged, or beyond float64 (the class is kept)
        raise type(exc)(_prefixed(method_name, f"'{name}': {exc}.")) from None
    if arr.ndim != 1:
        raise ValueError(_prefixed(method_name, f"'{name}' must be a one-dimensional sequence."))
    return arr


def _first_bad(mask: NDArray[np.bool_]) -> int | None:
    return int(np.argmax(mask)) if mask.any() else None


def _validate_cashflow_inputs(
    *,
    cashflow_times: Any,
    cashflow_amounts: Any,
    calculation_mode: str,
    m: Any,
    n: Any,
    method_name: str,
    caller: Dispatcher,
    tolerance_eps: float = _PAYMENT_COUNT_TOL,
) -> tuple[NDArray[np.float64] | None, NDArray[np.float64] | None]:
    """Check an explicit payment schedule.

    ``cashflow_times`` (only in the two precision modes) must be
    one-dimensional, finite, >= 0 and non-decreasing. ``cashflow_amounts``
    must be one-dimensional and finite; with times, one amount per time;
    without times, a finite ``n`` and exactly one amount per payment of the
    full schedule, ``ceil(n * m)`` of them (a remainder within
    ``tolerance_eps`` is not a payment).

    Parameters
    ----------
    cashflow_times, cashflow_amounts : array-like or None
        The explicit schedule; either may be None.
    calculation_mode : str
        The curve's annuity calculation mode.
    m : int
        Payments per year.
    n : real or None
        Term in years.
    method_name : str
        Prefix of the messages.
    caller : Dispatcher
        The public entry point asking for the check.
    tolerance_eps : float, default 1e-12
        Largest remainder of ``n * m`` that is not a payment.

    Returns
    -------
    (times, amounts)
        The inputs as float64 arrays (None where not given).

    Raises
    ------
    TypeError
        For non-numeric input or a ``caller`` that is not a ``Dispatcher``.
    ValueError
        For any rule above.
    """
    if not isinstance(caller, Dispatcher):
        raise TypeError(_prefixed(method_name, f"'caller' must be a Dispatcher, got {type(caller).__name__}."))
    times = amounts = None
    if cashflow_times is not None:
        if calculation_mode not in _PRECISION_MODES:
            mode = calculation_mode if calculation_mode in _CALCULATION_MODES else repr(calculation_mode)
            raise ValueError(
                _prefixed(
                    method_name,
                    f"'cashflow_times' needs a precision calculation mode {_PRECISION_MODES}, "
                    f"the current mode is {mode}.",
                )
            )
        times = _one_dimensional(cashflow_times, "cashflow_times", method_name)
        i = _first_bad(~(np.isfinite(times) & (times >= 0.0)))
        if i is not None:
            raise ValueError(
                _prefixed(
                    method_name,
                    f"'cashflow_times' must be finite and >= 0 at index {i}, got {float(times[i])!r}.",
                )
            )
        i = _first_bad(np.diff(times) < 0.0)
        if i is not None:
            raise ValueError(
                _prefixed(
                    method_name,
                    f"'cashflow_times' must be non-decreasing, got {float(times[i + 1])!r} after "
                    f"{float(times[i])!r} at index {i + 1}.",
                )
            )
    if cashflow_amounts is None:
        return times, None

    amounts = _one_dimensional(cashflow_amounts, "cashflow_amounts", method_name)
    i = _first_bad(~np.isfinite(amounts))
    if i is not None:
        raise ValueError(
            _prefixed(method_name, f"'cashflow_amounts' must be finite at index {i}, got {float(amounts[i])!r}.")
        )
    if times is not None:
        if times.shape[0] != amounts.shape[0]:
            raise ValueError(
                _prefixed(method_name, "'cashflow_amounts' length must match provided 'cashflow_times' length.")
            )
        return times, amounts

    term = None if n is None else _real_float(n, "n", method_name)
    if term is None or not math.isfinite(term) or term < 0.0:
        raise ValueError(
            _prefixed(
                method_name,
                f"'cashflow_amounts' without 'cashflow_times' needs a finite term 'n' >= 0, got {n!r}.",
            )
        )
    frequency = _check_frequency(m, method_name)
    expected = _payment_count(term, frequency, tolerance_eps)
    if amounts.shape[0] != expected:
        raise ValueError(
            _prefixed(
                method_name,
                f"'cashflow_amounts' must hold one amount per payment: expected {expected} "
                f"(n={term!r}, m={frequency}), got {amounts.shape[0]}.",
            )
        )
    return times, amounts


def _resolve_gr(gr: Any, method_name: str = "") -> GrowthRate | None:
    """Resolve the ``gr`` argument of an annuity.

    Parameters
    ----------
    gr : GrowthRate, real or None
        Growth of payments as the caller passed it.
    method_name : str, default ""
        Prefix of the messages.

    Returns
    -------
    GrowthRate or None
        None stays None, a ``GrowthRate`` is returned as is and a real number
        becomes ``GrowthRate(gr)`` (geometric).

    Raises
    ------
    TypeError
        For anything else, booleans included.
    ValueError
        For a number that is not a valid geometric rate.
    """
    try:
        return _as_growth_rate(gr)
    except (TypeError, ValueError) as exc:
        raise type(exc)(_prefixed(method_name, f"'gr': {exc}")) from None


_GROWTH_WITH_AMOUNTS = (
    "'gr' and 'cashflow_amounts' are mutually exclusive: 'cashflow_amounts' defines explicit "
    "payment amounts, so 'gr' has no effect. Pass gr=None when using cashflow_amounts."
)


def _validate_annuity_call(
    *,
    ts: Any,
    ts_integer: bool,
    d: Any,
    n: Any,
    m: Any,
    payment_timing: Any,
    gr: Any,
    cashflow_times: Any,
    cashflow_amounts: Any,
    calculation_mode: str,
    method_name: str,
) -> tuple[NDArray[np.float64] | None, NDArray[np.float64] | None]:
    """The checks of one annuity call, certain or life, in their order: valuation time,
    deferment and term; frequency and timing; the explicit schedule (whose times and amounts
    are returned as arrays)."""
    _validate_shift_deferment_and_duration(
        ts=ts,
        ts_integer=ts_integer,
        d=d,
        n=n,
        cashflow_times=cashflow_times,
        method_name=method_name,
        has_growth_rate=_has_growth_rate_param(gr),
    )
    _validate_frequency_and_payment_timing(m=m, payment_timing=payment_timing, method_name=method_name)
    return _validate_cashflow_inputs(
        cashflow_times=cashflow_times,
        cashflow_amounts=cashflow_amounts,
        calculation_mode=calculation_mode,
        m=m,
        n=n,
        method_name=method_name,
        caller=Dispatcher.ANNUITY,
    )


def _refuse_growth_with_amounts(gr: Any, cashflow_amounts: Any, method_name: str) -> None:
    """Explicit amounts fix every payment: a growth rate with them is refused, not ignored."""
    if gr is not None and cashflow_amounts is not None:
        raise ValueError(_prefixed(method_name, _GROWTH_WITH_AMOUNTS))
