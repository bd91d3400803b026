"""Portfolios of annuities: the columns broadcast and checked, the error
policy applied, and each (frequency, growth) group valued natively or, each
distinct (term, deferment, shift) once, through the one-annuity route. The
extension installs ``annuity_batch_dispatch`` and ``annuity_batch_financial``
as the curve's ``_annuity_batch_dispatch`` and ``_annuity_batch_financial``.
"""

from __future__ import annotations

import math
from typing import Any

import numpy as np

from .. import _kernels
from .._helpers.policy_arrays import (
    _KERNEL_DTYPES,
    _batch_result,
    _benefits_array,
    _book_columns,
    _check_benefit_values,
    _one_or_all,
    _overlong_terms,
    _policy_column,
    _term_faults,
)
from ..helpers import (
    _EMPTY_F64,
    BatchResult,
    _aggregate_flow_parts,
    _as_f64_safe,
    _check_batch_param,
    _frequencies_of_rows,
    _group_batch_m_gr_indices,
    _map_batch_n_none_to_inf,
    _prefixed,
    _resolve_batch_m,
    _rounded_times_benefits,
    _too_many_payments,
)
from ..validators import (
    _resolve_gr,
)
from .annuity import _ANNUITY_CALCULATION_MODE_DISPATCH, _OWN_ENTRIES
from .flow_grid import woolhouse_flows_to_grid

_PRECISION_MODES = ("discrete_precision", "continuous_precision")


def _per_policy(gr: Any) -> bool:
    return gr is not None and np.ndim(gr) > 0


def _subset(values: np.ndarray | None, indices: np.ndarray) -> np.ndarray | None:
    return None if values is None else values[indices]


def _growth_subset(gr: Any, indices: np.ndarray) -> Any:
    if not _per_policy(gr):
        return gr
    items = list(gr)
    return [items[i] for i in indices.tolist()]


def _check_policies(
    n_arr: np.ndarray,
    d_arr: np.ndarray,
    ts_arr: np.ndarray,
    benefits_arr: np.ndarray | None,
    method_name: str,
    m: int | np.ndarray | None = None,
) -> None:
    """Raise on the first policy out of range, in this order: benefits, n, d,
    ts and (given m) payments that cannot be counted."""
    _check_benefit_values(benefits_arr, method_name)
    _check_batch_param(n_arr, "n", method_name, min_val=0.0, allow_inf=True)
    _check_batch_param(d_arr, "d", method_name, min_val=0.0)
    _check_batch_param(ts_arr, "ts", method_name, min_val=0.0)
    if m is None:
        return
    overlong = _overlong_terms(n_arr, m)
    if overlong.any():
        i = int(np.argmax(overlong))
        raise _too_many_payments(
            method_name, float(n_arr[i]), int(np.broadcast_to(m, n_arr.shape[0])[i]), f" at index {i}"
        )


def _broadcast_policies(method_name: str, n: Any, d: Any, ts: Any) -> tuple[list[np.ndarray], int]:
    """n (None entries: perpetuities), d and ts as arrays of one length N."""
    columns = {"n": np.inf if n is None else _map_batch_n_none_to_inf(n), "d": d, "ts": ts}
    arrays, size = _book_columns(
        method_name, {name: _policy_column(values, name, method_name) for name, values in columns.items()}
    )
    return [np.broadcast_to(a, (size,)) if a.shape[0] != size else a for a in arrays.values()], size


def _nan_policy_result(
    self: Any,
    n_arr: np.ndarray,
    d_arr: np.ndarray,
    ts_arr: np.ndarray,
    size: int,
    benefits_arr: np.ndarray | None,
    record_ids: Any,
    kw: dict[str, Any],
) -> BatchResult:
    """Invalid records get NaN and a message; the valid ones are valued together."""
    method_name = kw["method_name"]
    m_resolved = _resolve_batch_m(kw["m"], size, method_name)
    faults = _term_faults(n_arr, d_arr, ts_arr, m_resolved, size)
    valid_mask = np.ones(size, dtype=bool)
    valid_mask[list(faults)] = False
    values = np.full(size, np.nan, dtype=np.float64)
    valid = np.flatnonzero(valid_mask).astype(np.int64)
    if valid.size:
        # With every record valid, the valid subset is the batch itself: no gathering.
        every = valid.size == size
        subset = (lambda values: values) if every else (lambda values: _subset(values, valid))
        values[valid] = annuity_batch_dispatch(
            self,
            n=subset(n_arr),
            d=subset(d_arr),
            ts=subset(ts_arr),
            m=m_resolved if every else _frequencies_of_rows(m_resolved, valid),
            gr=kw["gr"] if every else _growth_subset(kw["gr"], valid),
            cashflow_times=kw["cashflow_times"],
            cashflow_amounts=kw["cashflow_amounts"],
            benefits=subset(benefits_arr),
            return_flows=False,
            t_output=None,
            on_error="raise",
            record_ids=None,
            payment_timing=kw["payment_timing"],
            method_name=method_name,
        )
    return _batch_result(values, faults, record_ids, method_name)


def annuity_batch_dispatch(
    self: Any,
    *,
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
    payment_timing: int,
    method_name: str,
) -> Any:
    """Value a portfolio: broadcast, check, apply the error policy and value
    each (m, growth) group."""
    return_flows = bool(return_flows)
    nan_policy = isinstance(on_error, str) and on_error == "nan"
    if nan_policy and return_flows:
        raise ValueError(
            _prefixed(method_name, "on_error='nan' is not supported with return_flows=True in batch mode.")
        )
    # The kernel reads integer and float32 columns as they are; every other route takes float64.
    columns, size = _broadcast_policies(method_name, n, d, ts)
    n_arr, d_arr, ts_arr = columns
    benefits_arr = _benefits_array(benefits, size, method_name)
    group_kw = {
        "cashflow_times": cashflow_times,
        "cashflow_amounts": cashflow_amounts,
        "payment_timing": payment_timing,
        "method_name": method_name,
    }
    decimals = self._config.decimals.annuities
    try:
        m_resolved = None if nan_policy else _resolve_batch_m(m, size, method_name)
    except (TypeError, ValueError):
        m_resolved = None
    single_m = isinstance(m_resolved, int)
    financial_kw = {
        "m": m_resolved,
        "gr": gr,
        "decimals": decimals,
        "benefits_arr": benefits_arr,
        "return_flows": return_flows,
        "t_output": t_output,
        **group_kw,
    }
    native = single_m and not _per_policy(gr)
    native = native and _native_portfolio(self.calculation_mode, cashflow_times, cashflow_amounts, return_flows)
    if native:
        # The kernel checks every policy in its own pass; the checks below only
        # run to name the first fault, as they would have first.
        try:
            return annuity_batch_financial(self, n_arr=n_arr, d_arr=d_arr, ts_arr=ts_arr, **financial_kw)
        except (TypeError, ValueError):
            pass
    n_arr, d_arr, ts_arr = (column.astype(np.float64, copy=False) for column in columns)
    if nan_policy:
        _check_benefit_values(benefits_arr, method_name)
        return _nan_policy_result(
            self, n_arr, d_arr, ts_arr, size, benefits_arr, record_ids, {**group_kw, "m": m, "gr": gr}
        )
    policies = (n_arr, d_arr, ts_arr, benefits_arr, method_name)
    if m_resolved is None:
        _check_policies(*policies)  # a policy out of range is reported first
        m_resolved = _resolve_batch_m(m, size, method_name)  # raises with its own message
    if single_m and not _per_policy(gr):
        _check_policies(*policies, m_resolved)
        # On the kernel's route every policy passed here: its refusal stands with its own words.
        return annuity_batch_financial(self, n_arr=n_arr, d_arr=d_arr, ts_arr=ts_arr, **financial_kw)
    _check_policies(*policies, m_resolved)
    if not single_m and return_flows:
        raise ValueError(
            _prefixed(
                method_name,
                "return_flows=True is not supported when m is a vector with heterogeneous values. "
                "Use a scalar m or split the batch by payment frequency and call separately.",
            )
        )
    groups = _group_batch_m_gr_indices(m_resolved, gr, size, method_name)

    def value_group(m_group: int, gr_group: Any, idx: np.ndarray) -> Any:
        return annuity_batch_financial(
            self,
            n_arr=n_arr[idx],
            d_arr=d_arr[idx],
            ts_arr=ts_arr[idx],
            m=m_group,
            gr=gr_group,
            decimals=decimals,
            benefits_arr=_subset(benefits_arr, idx),
            return_flows=return_flows,
            **group_kw,
        )

    if not return_flows:
        result = np.empty(size, dtype=np.float64)
        for m_group, gr_group, idx in groups:
            result[idx] = value_group(m_group, gr_group, idx)
        return result
    parts = []
    for m_group, gr_group, idx in groups:
        flows = value_group(m_group, gr_group, idx)
        parts.append(
            (_as_f64_safe(flows["time_grid"]), _as_f64_safe(flows["expected_cf"]), _as_f64_safe(flows["pv_cf"]))
        )
    return _aggregate_flow_parts(parts, t_output)


def _native_portfolio(mode: str, cashflow_times: Any, cashflow_amounts: Any, return_flows: bool) -> bool:
    """Whether the native kernel applies: the mode's entry is the package's
    own, the schedule is generated and no flows are asked for."""
    return (
        not return_flows
        and cashflow_times is None
        and cashflow_amounts is None
        and _ANNUITY_CALCULATION_MODE_DISPATCH[mode] is _OWN_ENTRIES[mode]
    )


def _kernel_column(values: np.ndarray) -> np.ndarray:
    """A book's column for the kernel: one value stands for a broadcast
    one (the kernel repeats it), so that no copy of book size is made; the
    element types the kernel reads are passed as they are."""
    values = _one_or_all(values)
    return np.ascontiguousarray(values, dtype=None if values.dtype in _KERNEL_DTYPES else np.float64)


def _native_values(
    self: Any,
    n_arr: np.ndarray,
    d_arr: np.ndarray,
    ts_arr: np.ndarray,
    m: int,
    gr: Any,
    payment_timing: int,
    mode: str,
    decimals: int,
    benefits_arr: np.ndarray | None,
) -> np.ndarray:
    leaf = self.scenarios[self.active_scenario] if self.scenarios else self
    if leaf._is_constant:
        rates, terms, ends = np.array([float(leaf.rate)]), _EMPTY_F64, _EMPTY_F64
    else:
        rates, terms, ends = leaf._rates, leaf._terms, leaf._cum_terms
    kind, rate = ("level", 0.0) if gr is None else (gr.kind, float(gr.rate))
    meta = self._meta
    return _kernels.portfolio_values(
        rates,
        terms,
        ends,
        _kernel_column(n_arr),
        _kernel_column(d_arr),
        _kernel_column(ts_arr),
        None if benefits_arr is None else _kernel_column(benefits_arr),
        m=m,
        timing=payment_timing,
        growth_kind=kind,
        growth_rate=rate,
        mode=mode,
        tolerance_eps=meta.tolerance_eps,
        perpetuity_n_eff=meta.perpetuity_n_eff,
        decimals=decimals,
    )


def annuity_batch_financial(
    self: Any,
    *,
    n_arr: Any,
    d_arr: Any,
    ts_arr: Any,
    m: Any,
    gr: Any,
    cashflow_times: Any,
    cashflow_amounts: Any,
    payment_timing: int,
    decimals: Any,
    benefits_arr: Any,
    return_flows: Any,
    t_output: Any = None,
    method_name: str = "",
) -> Any:
    """Value policies sharing m and growth: generated schedules in the native
    book kernel; explicit schedules and flows each distinct (term, deferment,
    shift) once, then scattered."""
    m = int(m)
    gr = _resolve_gr(gr, method_name)
    return_flows = bool(return_flows)
    mode = self.calculation_mode
    if _native_portfolio(mode, cashflow_times, cashflow_amounts, return_flows):
        return _native_values(self, n_arr, d_arr, ts_arr, m, gr, payment_timing, mode, decimals, benefits_arr)
    rows, inverse = np.unique(np.stack((n_arr, d_arr, ts_arr), axis=1), axis=0, return_inverse=True)
    inverse = inverse.ravel()
    shift_cache: dict[Any, Any] = {}  # each distinct shift is computed once per call

    def value_group(k: int, flows: bool) -> Any:
        term, deferment, shift = (float(x) for x in rows[k])
        return self._annuity_dispatch(
            validate=False,
            ts=shift,
            d=deferment,
            n=None if math.isinf(term) else term,
            m=m,
            gr=gr,
            cashflow_times=cashflow_times,
            cashflow_amounts=cashflow_amounts,
            payment_timing=payment_timing,
            return_flows=flows,
            method_name=method_name,
            ir_shifted=self._ir_shifted_for_ts(shift, shift_cache),
        )

    if not return_flows:
        unit = np.array([value_group(k, False) for k in range(rows.shape[0])], dtype=np.float64)
        return _rounded_times_benefits(unit[inverse], benefits_arr, decimals)
    woolhouse = mode not in _PRECISION_MODES and cashflow_times is None and cashflow_amounts is None
    parts = []
    for k in range(rows.shape[0]):
        in_group = inverse == k
        weight = np.count_nonzero(in_group) if benefits_arr is None else benefits_arr[in_group].sum()
        flows = value_group(k, True)
        if woolhouse:
            parts.append(woolhouse_flows_to_grid(flows, weight))
        else:
            w = float(weight)
            parts.append(
                (
                    _as_f64_safe(flows["time_grid"]),
                    _as_f64_safe(flows["expected_cf"]) * w,
                    _as_f64_safe(flows["pv_cf"]) * w,
                )
            )
    return _aggregate_flow_parts(parts, t_output)
