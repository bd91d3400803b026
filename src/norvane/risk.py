"""Interest-rate sensitivities of cash flows on a curve, in one pass over their
time-weighted present values (no revaluation per bump).

Rates are moved as a market risk system moves them: the curve's annual zero
rates z(t), in parallel or at key tenors with triangular weights (1 at the
tenor, falling linearly to 0 at its neighbours; the first tenor's weight is 1
before it and the last's 1 after it, so the key-rate DV01s add up to the
parallel one); and the curve's own segment rates, one at a time. With
pv_i = a_i (1 + z(t_i))^-t_i,

- Macaulay duration: sum t_i pv_i / PV;
- modified duration: -(dPV/dz) / PV = sum t_i pv_i / (1 + z(t_i)) / PV;
- convexity: (d2PV/dz2) / PV = sum t_i (t_i + 1) pv_i / (1 + z(t_i))^2 / PV;
- DV01: -(dPV/dz) x 1 bp, and per key tenor with its weights;
- per curve segment j: -(dPV/df_j) x 1 bp, where a flow at t spends tau_j(t)
  years in segment j: dpv/df_j = -pv tau_j(t) / (1 + f_j); their sum is the
  effective DV01 (every segment rate moved together), and the effective
  duration is that over PV and 1 bp.

>>> from norvane.interest_rates import InterestRate
>>> from norvane.risk import sensitivities
>>> risk = sensitivities(InterestRate(0.03), [1, 2, 3], [5, 5, 105])
>>> round(risk.present_value, 2), round(risk.macaulay_duration, 2), round(risk.modified_duration, 2)
(105.66, 2.86, 2.78)
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .cashflows import CashFlows
from .helpers import _named_f64

__all__ = ["DEFAULT_KEY_TENORS", "Sensitivities", "key_rate_weights", "sensitivities"]

F64 = NDArray[np.float64]
BASIS_POINT = 1e-4
DEFAULT_KEY_TENORS = (1.0, 2.0, 3.0, 5.0, 7.0, 10.0, 15.0, 20.0, 30.0)


@dataclass(frozen=True)
class Sensitivities:
    """What a move of rates does to a value (durations in years, DV01s in the value's unit per
    basis point, a fall of rates counted positive)."""

    present_value: float
    macaulay_duration: float
    modified_duration: float
    effective_duration: float
    convexity: float
    dv01: float
    key_tenors: F64
    key_rate_dv01: F64
    segment_ends: F64  # the end of each curve segment (inf for the last)
    segment_dv01: F64


def key_rate_weights(tenors: ArrayLike, times: ArrayLike) -> F64:
    """The triangular weights of each key tenor (rows) at each time (columns); each column adds up to 1."""
    k = np.asarray(tenors, dtype=np.float64)
    t = np.asarray(times, dtype=np.float64).reshape(-1)
    eye = np.eye(k.size)
    # np.interp holds the end values beyond the ends: 1 before the first tenor and after the last.
    out: F64 = np.array([np.interp(t, k, row) for row in eye]).reshape(k.size, t.size)
    return out


def _segments(curve: Any) -> tuple[F64, F64, F64]:
    """The active curve's segment starts, ends (the last infinite) and rates."""
    leaf = curve.scenarios[curve.active_scenario] if curve.scenarios else curve
    if leaf.is_constant:
        return np.zeros(1), np.array([np.inf]), np.array([float(leaf.rate)])
    ends = np.append(np.asarray(leaf.terms, dtype=np.float64).cumsum(), np.inf)
    starts = np.concatenate(([0.0], ends[:-1]))
    return starts, ends, np.asarray(leaf.rates, dtype=np.float64)


def flow_numbers(curve: Any, t: F64, pv: F64, tenors: F64) -> dict[str, F64]:
    """The sensitivities of rows of flows at once, at the same times ``t`` (years), each row's
    present values a row of ``pv`` (rows by times; a flow of 0 adds nothing). Per row: its
    Macaulay duration, DV01, convexity, key-rate DV01s (rows by tenors) and segment DV01s
    (rows by segments), as the module's notes define them; not checked for the float range."""
    starts, ends, rates = _segments(curve)
    value = pv.sum(axis=1)
    with np.errstate(all="ignore"):  # (a row of value 0 or beyond the float range is the caller's)
        v = np.asarray(curve.vn(t), dtype=np.float64)
        # 1 + z(t); a flow paid now moves with no rate (its terms below are 0 whatever this is).
        growth = v ** (-1.0 / np.where(t > 0.0, t, 1.0))
        slope = pv * (t / growth)  # -dpv/dz of each flow
        # Years each flow spends in each segment, times its rate's effect on the flow.
        spent = np.clip(np.minimum(t[None, :], ends[:, None]) - starts[:, None], 0.0, None)
        return {
            "macaulay_duration": pv @ t / value,
            "dv01": slope.sum(axis=1) * BASIS_POINT,
            "convexity": pv @ (t * (t + 1.0) / growth**2) / value,
            "key_rate_dv01": slope @ key_rate_weights(tenors, t).T * BASIS_POINT,
            "segment_dv01": pv @ spent.T / (1.0 + rates) * BASIS_POINT,
        }


def _of_flows(curve: Any, flows: CashFlows) -> tuple[F64, F64]:
    """A book's expected flows as flows at the times of its buckets' values: their present
    values are the buckets', their Macaulay duration the book's."""
    value = flows.total_discounted
    held = value != 0.0
    t = flows.times[held]
    return t, value[held] / np.asarray(curve.vn(t), dtype=np.float64)


def sensitivities(
    curve: Any,
    times: ArrayLike | CashFlows,
    amounts: ArrayLike | None = None,
    *,
    key_tenors: ArrayLike = DEFAULT_KEY_TENORS,
) -> Sensitivities:
    """The present value of ``amounts`` paid at ``times`` (years >= 0 from the curve's start)
    and its sensitivities to the curve's rates (see the module's notes).

    ``times`` may instead be a book's :class:`~norvane.cashflows.CashFlows` (from
    ``expected_flows`` or ``flow_book``, without ``amounts``): each bucket's value is then a
    flow at the mean time of its discounted flows, so the value and the Macaulay duration are
    the book's exactly, and the other numbers are exact when each bucket's flows share one
    time (monthly buckets for payments on a monthly grid) and otherwise within the spread of
    times in a bucket. Times are from each policy's valuation time.
    """
    method = "sensitivities"
    if isinstance(times, CashFlows):
        if amounts is not None:
            raise TypeError(f"[{method}] a book's flows carry their amounts: give no 'amounts'.")
        times, amounts = _of_flows(curve, times)
    elif amounts is None:
        raise TypeError(f"[{method}] 'amounts' is needed with 'times'.")
    t = np.asarray(_named_f64(times, "times", method), dtype=np.float64).reshape(-1)
    a = np.asarray(_named_f64(amounts, "amounts", method), dtype=np.float64).reshape(-1)
    tenors = np.asarray(_named_f64(key_tenors, "key_tenors", method), dtype=np.float64).reshape(-1)
    if t.size != a.size:
        raise ValueError(f"[{method}] 'times' and 'amounts' must have one length, got {t.size} and {a.size}.")
    if not (np.isfinite(t).all() and (t >= 0.0).all() and np.isfinite(a).all()):
        raise ValueError(f"[{method}] 'times' must be finite and >= 0, 'amounts' finite.")
    if tenors.size == 0 or not (np.isfinite(tenors).all() and (tenors > 0.0).all() and (np.diff(tenors) > 0).all()):
        raise ValueError(f"[{method}] 'key_tenors' must be finite, > 0 and increasing, got {tenors.tolist()}.")
    v = np.asarray(curve.vn(t), dtype=np.float64)
    pv = a * v
    value = float(pv.sum())
    if not (math.isfinite(value) and value != 0.0):
        raise ValueError(f"[{method}] the flows' present value is {value!r}: durations need a finite one, not 0.")
    numbers = {name: found[0] for name, found in flow_numbers(curve, t, pv[None, :], tenors).items()}
    if not all(np.isfinite(x).all() for x in numbers.values()):
        raise ValueError(f"[{method}] the flows' sensitivities exceed the float range.")
    starts, ends, rates = _segments(curve)
    dv01, segment_dv01 = float(numbers["dv01"]), numbers["segment_dv01"]
    effective = float(segment_dv01.sum())
    return Sensitivities(
        present_value=value,
        macaulay_duration=float(numbers["macaulay_duration"]),
        modified_duration=dv01 / BASIS_POINT / value,
        effective_duration=effective / BASIS_POINT / value,
        convexity=float(numbers["convexity"]),
        dv01=dv01,
        key_tenors=tenors,
        key_rate_dv01=numbers["key_rate_dv01"],
        segment_ends=ends,
        segment_dv01=segment_dv01,
    )
