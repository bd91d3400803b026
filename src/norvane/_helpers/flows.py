"""Grouping of a batch and its cash flows.

Policies are grouped by (frequency, growth rate); unit values are rounded and
weighted by benefits; per-group cash flows are merged onto one time grid.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .. import _kernels
from ..growth_rates import GrowthRate, _as_growth_rate
from .conversion import _EMPTY_F64, F64Array, _as_f64_safe, _is_pandas_1d, _real_array
from .routing import _batch_length
from .scalars import _prefixed

# Flow times closer than this (relative, floor 1) are one point of a merged
# grid: k/m schedules built from different deferments differ in the last ulp.
_FLOW_TIME_TOL = 1e-12


def _growth_codes(gr: Any, N: int, method_name: str) -> tuple[NDArray[np.int64], list[GrowthRate | None]]:
    """Per-policy index into a table of distinct growth rates."""

    def resolve(value: Any) -> GrowthRate | None:
        try:
            return _as_growth_rate(value)
        except (TypeError, ValueError) as exc:
            raise type(exc)(_prefixed(method_name, f"'gr': {exc}")) from None

    if _batch_length(gr) < 0:
        return np.zeros(N, dtype=np.int64), [resolve(gr)]

    values = gr.to_numpy() if _is_pandas_1d(gr) else gr
    if isinstance(values, (list, tuple)):
        try:
            values = _real_array(values)
        except (TypeError, ValueError):
            pass  # growth objects, None entries: resolved one by one below
    if isinstance(values, np.ndarray) and values.ndim != 1:
        raise ValueError(_prefixed(method_name, "'gr' must be one-dimensional."))
    if isinstance(values, np.ndarray) and values.dtype.kind in "iuf":
        # Numeric growth rates: group by value without touching each element.
        unique, codes = np.unique(values.astype(np.float64), return_inverse=True)
        table: list[GrowthRate | None] = [resolve(float(u)) for u in unique]
        codes = codes.reshape(-1).astype(np.int64)
    else:
        if isinstance(values, np.ndarray) and values.dtype.kind == "b":
            raise TypeError(_prefixed(method_name, "'gr' must not contain booleans."))
        index: dict[GrowthRate | None, int] = {}
        code_list = []
        for value in values.tolist() if isinstance(values, np.ndarray) else values:
            code_list.append(index.setdefault(resolve(value), len(index)))
        codes = np.asarray(code_list, dtype=np.int64)
        table = list(index)
    if codes.shape[0] == 1 and N != 1:
        codes = np.zeros(N, dtype=np.int64)
    elif codes.shape[0] != N:
        raise ValueError(
            _prefixed(
                method_name,
                f"Incompatible batch lengths: gr={codes.shape[0]}, expected {N} or 1 (broadcast).",
            )
        )
    return codes, table


# Batches with at most this many growth rates and frequencies up to daily are
# grouped by counting instead of sorting.
_FEW_GROWTHS = 64
_MAX_COUNTED_FREQUENCY = 365


def _group_batch_m_gr_indices(
    m: Any, gr: Any, N: int, method_name: str = ""
) -> list[tuple[int, GrowthRate | None, NDArray[np.int64]]]:
    """Group the policies of a batch by distinct (frequency, growth) pairs.

    Parameters
    ----------
    m : int or array of int
        One frequency, or one per policy (as returned by :func:`_resolve_batch_m`).
    gr : GrowthRate, float, None or per-policy sequence
        Growth of payments; per-policy entries may be ``GrowthRate``, numbers
        (geometric rates) or None (level payments).
    N : int
        Batch size.
    method_name : str, default ""
        Prefix of the messages.

    Returns
    -------
    list of (m, growth, indices)
        ``m`` an int, ``growth`` a ``GrowthRate`` or None, ``indices`` the
        sorted int64 positions of the group's policies. Groups are ordered by
        frequency, then by first appearance of the growth rate. Numbers and
        equal ``GrowthRate`` objects fall in the same group.

    Raises
    ------
    TypeError
        For growth rates that are neither ``GrowthRate``, real numbers nor None.
    ValueError
        For an invalid geometric rate, or per-policy growth rates that are not
        one-dimensional or not N (or 1) of them.
    """
    if N == 0:
        return []
    m_arr = np.broadcast_to(np.asarray(m, dtype=np.int64), (N,))
    gr_codes, table = _growth_codes(gr, N, method_name)
    if len(table) <= _FEW_GROWTHS and 0 <= m_arr.min() and m_arr.max() <= _MAX_COUNTED_FREQUENCY:
        # Few distinct keys: counted and masked, without sorting the batch.
        keys = m_arr * len(table) + gr_codes
        present = np.flatnonzero(np.bincount(keys))
        return [
            (key // len(table), table[key % len(table)], np.flatnonzero(keys == key).astype(np.int64))
            for key in present.tolist()
        ]
    m_values, m_codes = np.unique(m_arr, return_inverse=True)
    keys = m_codes.reshape(-1).astype(np.int64) * len(table) + gr_codes
    unique_keys, group_of = np.unique(keys, return_inverse=True)
    order = np.argsort(group_of.reshape(-1), kind="stable")
    bounds = np.cumsum(np.bincount(group_of.reshape(-1), minlength=unique_keys.shape[0]))[:-1]
    return [
        (int(m_values[key // len(table)]), table[key % len(table)], idx.astype(np.int64))
        for key, idx in zip(unique_keys.tolist(), np.split(order, bounds), strict=True)
    ]


def _rounded_times_benefits(unit_pv: Any, benefits_arr: F64Array | None, decimals: int | None) -> F64Array:
    """Round unit present values to ``decimals``, then weight them by benefits.

    Rounding first makes a batch value equal to the (rounded) scalar value
    times the benefit.

    Parameters
    ----------
    unit_pv : array-like
        Present values of one unit of benefit, one per policy.
    benefits_arr : ndarray of float64 or None
        Per-policy benefits; None leaves unit values.
    decimals : int or None
        Rounding of the unit values; None skips rounding.

    Returns
    -------
    ndarray of float64
        A new array of the weighted values.
    """
    values = _as_f64_safe(unit_pv)
    out: F64Array
    if decimals is None:
        out = values.copy()
    else:
        out = _kernels.round_values(values.reshape(-1), int(decimals)).reshape(values.shape)
    if benefits_arr is not None:
        out = out * benefits_arr
    return out


def _aggregate_flow_parts(parts: Iterable[tuple[Any, Any, Any]], t_output: Any | None = None) -> dict[str, Any]:
    """Merge per-group cash flows into one portfolio flow table.

    Parameters
    ----------
    parts : iterable of (time, expected, pv)
        Per group, three aligned one-dimensional arrays: flow times (years
        from the valuation time), undiscounted amounts and present values.
    t_output : array-like, optional
        Output grid, strictly increasing. Each flow goes to the first grid
        time at or after it; flows after the last grid time go to the last.

    Returns
    -------
    dict
        ``"time_grid"``, ``"expected_cf"``, ``"pv_cf"`` (float64 arrays) and
        ``"total_pv"`` (float, the sum of ``pv_cf``). Without ``t_output``
        the grid is the sorted union of the flow times, times within a
        relative 1e-12 of each other being one point (its smallest time).

    Raises
    ------
    ValueError
        When a part's three arrays differ in length, or ``t_output`` is empty.
    """
    times, expected, pvs = [], [], []
    for k, (t, e, p) in enumerate(parts):
        t, e, p = (_as_f64_safe(a).reshape(-1) for a in (t, e, p))
        if not t.shape == e.shape == p.shape:
            raise ValueError(
                f"flow part {k}: time, expected and pv arrays differ in length "
                f"({t.shape[0]}, {e.shape[0]}, {p.shape[0]})"
            )
        times.append(t)
        expected.append(e)
        pvs.append(p)
    t_all = np.concatenate(times) if times else _EMPTY_F64
    e_all = np.concatenate(expected) if expected else _EMPTY_F64
    p_all = np.concatenate(pvs) if pvs else _EMPTY_F64

    if t_output is not None:
        grid = _as_f64_safe(t_output).reshape(-1).copy()
        if grid.size == 0:
            raise ValueError("'t_output' must not be empty")
        pos = np.minimum(np.searchsorted(grid, t_all, side="left"), grid.shape[0] - 1)
    elif t_all.size:
        unique = np.unique(t_all)
        starts = np.empty(unique.shape[0], dtype=bool)
        starts[0] = True
        starts[1:] = np.diff(unique) > _FLOW_TIME_TOL * np.maximum(1.0, np.abs(unique[1:]))
        grid = unique[starts]
        pos = (np.cumsum(starts) - 1)[np.searchsorted(unique, t_all)]
    else:
        grid = np.empty(0, dtype=np.float64)
        pos = np.empty(0, dtype=np.intp)

    k = grid.shape[0]
    expected_cf = np.bincount(pos, weights=e_all, minlength=k).astype(np.float64, copy=False)
    pv_cf = np.bincount(pos, weights=p_all, minlength=k).astype(np.float64, copy=False)
    return {
        "time_grid": grid,
        "expected_cf": expected_cf,
        "pv_cf": pv_cf,
        "total_pv": float(pv_cf.sum()),
    }


def _has_growth_rate_param(gr: Any) -> bool:
    """True when a growth rate was passed (``gr is not None``)."""
    return gr is not None
