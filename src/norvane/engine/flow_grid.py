"""Woolhouse flows of one policy group on one time grid (the extension
installs ``woolhouse_flows_to_grid`` as ``_woolhouse_flows_to_grid``)."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

import numpy as np

from ..base import _NUMERIC_TYPES
from ..helpers import (
    _EMPTY_F64,
    _as_f64_safe,
)


def _require_mapping(value: Any, name: str) -> Mapping[str, Any]:
    # Keys are looked up by name: an array or a string would answer with the wrong error.
    if not isinstance(value, Mapping):
        raise TypeError(f"_woolhouse_flows_to_grid(): {name} must be a dict, got {type(value).__name__}")
    return value


def woolhouse_flows_to_grid(flows: Any, n_policies: Any) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Project a Woolhouse flow dictionary onto one time grid.

    Returns (time_grid, expected_cf, pv_cf), the flows multiplied by
    ``n_policies``. The grid is the union of the components' times; flows at
    equal times are added.
    """
    flows = _require_mapping(flows, "flows")
    key = "coef_due" if "coef_due" in flows else "coef_immediate"
    coef = flows[key]
    if isinstance(coef, (bool, np.bool_)) or not isinstance(coef, _NUMERIC_TYPES):
        raise TypeError(f"_woolhouse_flows_to_grid(): flows['{key}'] must be a real number, got {type(coef).__name__}")
    coef = float(coef)
    names = ("due", "immediate", "fractional", "fractional_tail")
    due, immediate, fractional, tail = (_require_mapping(flows[name], f"flows['{name}']") for name in names)

    def grid_of(component: Any) -> np.ndarray:
        return _as_f64_safe(component["time_grid"]) if "time_grid" in component else _EMPTY_F64

    t_due, t_imm = _as_f64_safe(due["time_grid"]), _as_f64_safe(immediate["time_grid"])
    t_frac, t_tail = grid_of(fractional), grid_of(tail)
    grid = np.union1d(np.union1d(np.union1d(t_due, t_imm), t_frac), t_tail)
    size = grid.shape[0]
    expected = np.zeros(size, dtype=np.float64)
    pv = np.zeros(size, dtype=np.float64)

    def add(times: np.ndarray, amounts: np.ndarray, values: np.ndarray) -> None:
        if times.size == 0:
            return
        positions = np.searchsorted(grid, times).astype(np.int64)
        expected[:] += np.bincount(positions, weights=amounts, minlength=size)
        pv[:] += np.bincount(positions, weights=values, minlength=size)

    for component, times in ((due, t_due), (immediate, t_imm)):
        growth = _as_f64_safe(component["growth"]) if "growth" in component else np.ones(times.shape)
        add(times, growth * coef, _as_f64_safe(component["present_value"]) * coef)

    def reconstructed(component: Any) -> tuple[np.ndarray, np.ndarray]:
        # The expected amount comes back from the present value and the
        # discount factor (0.0 where the factor is not positive).
        values = _as_f64_safe(component["present_value"])
        factors = _as_f64_safe(component["discount_factor"])
        positive = factors > 0.0
        return np.where(positive, values / np.where(positive, factors, 1.0), 0.0), values

    if size and t_frac.size:
        add(t_frac, *reconstructed(fractional))
    if size and t_tail.size:
        amounts, values = reconstructed(tail)
        weights = tail["growth"] if "growth" in tail else tail["amount"] if "amount" in tail else None
        add(t_tail, amounts * (np.ones_like(amounts) if weights is None else _as_f64_safe(weights)), values)
    return grid, expected * n_policies, pv * n_policies
