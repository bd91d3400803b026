"""The router of the curve's annuity methods.

``InterestRate.a`` and ``ä`` value plain single annuities natively; every
other call comes here. The router checks what does not depend on the route
(error policy, ids, output grid, benefits) and sends the call to one annuity
(``engine.single``) or to a portfolio (``engine.batch``). The extension
installs it as the curve's ``_annuity_public_route``.
"""

from __future__ import annotations

import math
from typing import Any

import numpy as np

from ..helpers import (
    _as_f64_safe,
    _detect_batch_ir_annuity,
    _prefixed,
    _too_large,
    _validate_on_error_batch_only,
    _validate_record_ids_batch_only,
    _validate_t_output,
)


def _argument_type(value: Any, kind: type, name: str) -> None:
    if type(value) is not kind:
        raise TypeError(
            f"_annuity_public_route(): argument '{name}' must be {kind.__name__}, not {type(value).__name__}"
        )


def annuity_public_route(
    self: Any,
    method_name: str,
    payment_timing: int,
    n: Any,
    d: Any,
    ts: Any,
    m: Any,
    gr: Any,
    cashflow_times: Any,
    cashflow_amounts: Any,
    benefits: Any,
    return_flows: Any,
    t_output: Any,
    on_error: Any,
    record_ids: Any,
) -> Any:
    """Route ``a`` and ``ä`` to scalar or portfolio valuation after the
    checks that do not depend on it (error policy, ids, output grid, benefits)."""
    _argument_type(method_name, str, "method_name")
    _argument_type(payment_timing, int, "payment_timing")
    return_flows = bool(return_flows)
    # A scalar infinite term (either sign) is a perpetuity.
    if n is not None and np.ndim(n) == 0:
        try:
            perpetuity = math.isinf(float(n))
        except OverflowError:  # an integer beyond float64: the package's one error for it
            raise _too_large(n, "n", method_name) from None
        if perpetuity:
            n = None
    is_batch, size = _detect_batch_ir_annuity(n, d, ts, m, gr)
    _validate_on_error_batch_only(on_error, is_batch, method_name)
    _validate_record_ids_batch_only(record_ids, is_batch, size, method_name)
    _validate_t_output(t_output, return_flows, is_batch, method_name)
    if benefits is not None and not is_batch:
        raise ValueError(_prefixed(method_name, "benefits requires batch mode (array n, d, ts, m, or gr)."))
    if is_batch:
        return self._annuity_batch_dispatch(
            n=n,
            d=d,
            ts=ts,
            m=m,
            gr=gr,
            cashflow_times=None if cashflow_times is None else _as_f64_safe(cashflow_times),
            cashflow_amounts=cashflow_amounts,
            benefits=benefits,
            return_flows=return_flows,
            t_output=None if t_output is None else _as_f64_safe(t_output),
            on_error=on_error,
            record_ids=record_ids,
            payment_timing=payment_timing,
            method_name=method_name,
        )
    return self._annuity_dispatch(
        ts=ts,
        d=d,
        n=n,
        m=m,
        gr=gr,
        cashflow_times=cashflow_times,
        cashflow_amounts=cashflow_amounts,
        payment_timing=payment_timing,
        return_flows=return_flows,
        method_name=method_name,
    )
