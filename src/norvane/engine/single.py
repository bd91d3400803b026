"""One annuity: validated, its schedule derived with the native rules, and
handed to the engine entry of the calculation mode. The extension installs
``annuity_dispatch`` as the curve's ``_annuity_dispatch``.
"""

from __future__ import annotations

from typing import Any

import numpy as np

from .. import _kernels
from ..helpers import (
    _MAX_PAYMENTS,
    _as_f64_safe,
    _cashflow_amounts_payment_skip,
    _prefixed,
    _too_many_payments,
)
from ..validators import _refuse_growth_with_amounts, _resolve_gr, _validate_annuity_call
from .annuity import _ANNUITY_CALCULATION_MODE_DISPATCH, _zero_flows


def _aligned_explicit_schedule(
    method_name: str, times: np.ndarray | None, amounts: np.ndarray | None, d: float, ts: float
) -> tuple[np.ndarray | None, np.ndarray | None]:
    """Explicit times are times since inception plus the deferment: seen from
    the valuation time ts they move by d - ts, and payments before ts are
    dropped (amounts default to 1)."""
    if amounts is not None and amounts.ndim != 1:
        raise ValueError(_prefixed(method_name, "'payment_amount' must be a 1-D sequence."))
    if times is None:
        return None, amounts
    if amounts is not None and amounts.shape[0] != times.shape[0]:
        raise ValueError(
            _prefixed(method_name, "'cashflow_amounts' length must match provided 'cashflow_times' length.")
        )
    relative = times + d - ts
    kept = ~(relative < 0.0)
    return relative[kept], (np.ones_like(times) if amounts is None else amounts)[kept]


def annuity_dispatch(
    self: Any,
    *,
    ts: Any = 0.0,
    d: Any = 0.0,
    n: Any = None,
    m: Any = 1,
    gr: Any = None,
    cashflow_times: Any = None,
    cashflow_amounts: Any = None,
    payment_timing: int = 1,
    return_flows: Any = False,
    method_name: str = "",
    validate: Any = True,
    ir_shifted: Any = None,
) -> Any:
    """Value one annuity: validate, derive the effective schedule and call the
    engine of the calculation mode."""
    mode = self.calculation_mode
    config = self._config
    if validate:
        _validate_annuity_call(
            ts=ts,
            ts_integer=config.force_integer_ts,
            d=d,
            n=n,
            m=m,
            payment_timing=payment_timing,
            gr=gr,
            cashflow_times=cashflow_times,
            cashflow_amounts=cashflow_amounts,
            calculation_mode=mode,
            method_name=method_name,
        )
    times = None if cashflow_times is None else _as_f64_safe(cashflow_times)
    amounts = None if cashflow_amounts is None else _as_f64_safe(cashflow_amounts)
    meta = self._meta
    ts_value, d_value, frequency = float(ts), float(d), int(m)
    term = float(meta.perpetuity_n_eff) if n is None else float(n)
    if not term * frequency < _MAX_PAYMENTS:
        raise _too_many_payments(method_name, term, frequency)
    _, d_eff, n_eff = _kernels.term_at_valuation(term, d_value, ts_value)
    if n_eff == 0.0:
        return _zero_flows(mode, payment_timing) if return_flows else 0.0
    payments_size, payments_frac = _kernels.payment_count(n_eff, frequency, meta.tolerance_eps)

    times, aligned = _aligned_explicit_schedule(method_name, times, amounts, d_value, ts_value)
    _refuse_growth_with_amounts(gr, amounts, method_name)
    growth = _resolve_gr(gr, method_name)
    if times is None and amounts is not None:
        skip = _cashflow_amounts_payment_skip(ts_value, n_eff, method_name, frequency, len(amounts), meta.tolerance_eps)
        aligned = amounts[skip:]
    curve = ir_shifted if ir_shifted is not None else self._ir_shifted_for_ts(ts_value, self._ts_shift_cache)
    return _ANNUITY_CALCULATION_MODE_DISPATCH[mode](
        d=d_eff,
        n=n_eff,
        payments_size=payments_size,
        payments_frac=payments_frac,
        m=frequency,
        gr=growth,
        ir=curve,
        decimals=config.decimals.annuities,
        payment_timing=payment_timing,
        survival_func=self._survival_one,
        cashflow_times=times,
        cashflow_amounts=aligned,
        return_flows=bool(return_flows),
    )
