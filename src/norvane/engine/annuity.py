"""Annuity valuation entry points, one per calculation mode.

Each entry point takes the keywords the scalar annuity dispatcher passes:
``d`` (effective deferment from the valuation time), ``n`` (effective term),
``payments_size``, ``payments_frac``, ``m``, ``gr`` (a ``GrowthRate`` or
None), ``ir`` (the curve seen from the valuation time), ``decimals``,
``payment_timing`` (0 due, 1 immediate), ``survival_func``,
``cashflow_times`` (explicit payment times measured from the valuation time),
``cashflow_amounts`` (explicit amounts aligned with the remaining schedule)
and ``return_flows``. This module prepares arguments; the arithmetic runs in
:mod:`norvane._kernels`.

Each entry point returns the present value rounded to ``decimals`` (a float)
or, with ``return_flows``, a flow dictionary: "time_grid", "expected_cf",
"pv_cf" and "total_pv" in the precision modes and for explicit schedules
(explicit point payments add "present_value" and "growth"); otherwise, in
the simplified modes, the Woolhouse components ("coef_due" or
"coef_immediate", "due", "immediate", "fractional", "fractional_tail",
"woolhouse_coefficient", "total_pv") that
``norvane.interest_rates._woolhouse_flows_to_grid`` projects onto one grid.
"""

from __future__ import annotations

import atexit
import functools
from collections.abc import Callable
from typing import Any

import numpy as np

from .. import _kernels
from ..growth_rates import _as_growth_rate
from ..helpers import _as_f64_safe, _real_float, _validate_scalar_numeric
from .base import _CALCULATION_MODES

__all__ = ["_ANNUITY_CALCULATION_MODE_DISPATCH"]

_EMPTY = np.empty(0, dtype=np.float64)
_EMPTY.flags.writeable = False


# ---------------------------------------------------------------- preparation


_CURVE_CACHE_SIZE = 256
_curve_cache: dict[Any, tuple[Any, _kernels.Curve]] = {}
atexit.register(_curve_cache.clear)  # release native curves before the extension's own teardown


def _kernel_curve(ir: Any) -> _kernels.Curve:
    """The native curve of ``ir`` (the active scenario of a container).

    Curves keep their arrays read-only and replace them whole, so the native
    form is cached by the identity of the rates array (held in the entry, so
    the identity cannot be reused) or by the value of a constant rate.
    """
    if ir.scenarios:
        ir = ir.scenarios[ir.active_scenario]
    key: Any = ("constant", float(ir.rate)) if ir.is_constant else id(ir._rates)
    held: tuple[Any, ...]
    entry = _curve_cache.get(key)
    if entry is not None and (ir.is_constant or (entry[0][0] is ir._rates and entry[0][1] is ir._terms)):
        return entry[1]
    if ir.is_constant:
        held, curve = (), _kernels.Curve(np.array([float(ir.rate)]), _EMPTY, _EMPTY)
    else:
        held, curve = (ir._rates, ir._terms), _kernels.Curve(ir._rates, ir._terms, ir._cum_terms)
    if len(_curve_cache) >= _CURVE_CACHE_SIZE:
        _curve_cache.pop(next(iter(_curve_cache)))
    _curve_cache[key] = (held, curve)
    return curve


@functools.cache
def _certain_survival() -> Any:
    from ..interest_rates import InterestRate  # the curve module imports this one at load

    return InterestRate.__dict__["_survival_one"]


def _is_certain(survival_func: Callable[[Any], Any]) -> bool:
    """Whether ``survival_func`` is a curve's own certain survival (1.0 everywhere)."""
    return getattr(survival_func, "__func__", None) is _certain_survival()


def _annuity(kw: dict[str, Any]) -> _kernels.Annuity:
    """The native annuity of the keywords an engine entry receives."""
    gr = _as_growth_rate(kw["gr"])  # a TypeError for anything but None, a GrowthRate or a number
    kind, rate = ("level", 0.0) if gr is None else (gr.kind, float(gr.rate))
    whole = functools.partial(_validate_scalar_numeric, method="engine", allowed_types=(int, np.integer), cast=int)
    return _kernels.Annuity(
        d=_real_float(kw["d"], "d", "engine"),
        n=_real_float(kw["n"], "n", "engine"),
        payments_size=whole(kw["payments_size"], "payments_size"),
        m=whole(kw["m"], "m"),
        timing=whole(kw["payment_timing"], "payment_timing"),
        growth_kind=kind,
        growth_rate=rate,
    )


def _survival(survival_func: Callable[[Any], Any], times: np.ndarray) -> float | np.ndarray:
    """Survival at the payment times: one call; a number applies to every payment."""
    if _is_certain(survival_func):
        return 1.0  # known without building a call's worth of work
    result = survival_func(times)
    if np.ndim(result) == 0:
        return float(result)
    return np.broadcast_to(np.asarray(result, dtype=np.float64), times.shape)


def _precision_flows(times: np.ndarray, expected: np.ndarray, pv: np.ndarray, **extra: Any) -> dict[str, Any]:
    flows = {"time_grid": times, "expected_cf": expected, "pv_cf": pv, "total_pv": float(pv.sum())}
    flows.update(extra)
    return flows


def _component(times: np.ndarray, pv: np.ndarray, discount: np.ndarray, **extra: np.ndarray) -> dict[str, Any]:
    return {"time_grid": times, "present_value": pv, "discount_factor": discount, **extra}


def _has_explicit_schedule(kw: dict[str, Any]) -> bool:
    return kw.get("cashflow_times") is not None or kw.get("cashflow_amounts") is not None


# ---------------------------------------------------------------- explicit schedules


def _explicit_inputs(annuity: _kernels.Annuity, kw: dict[str, Any]) -> tuple[np.ndarray, np.ndarray]:
    """(times, amounts) of an explicit schedule: the given times (amounts 1
    by default), or the generated schedule's times for the given amounts."""
    times, amounts = kw.get("cashflow_times"), kw.get("cashflow_amounts")
    if times is not None:
        times = _as_f64_safe(times)
        return times, np.ones_like(times) if amounts is None else _as_f64_safe(amounts)
    return annuity.payments()[0], _as_f64_safe(amounts)


def _value_explicit(
    curve: _kernels.Curve, times: np.ndarray, amounts: np.ndarray, kw: dict[str, Any]
) -> float | dict[str, Any]:
    """Exact sum of given amounts at given times (explicit times or amounts)."""
    if amounts.shape != times.shape:
        raise ValueError(f"'cashflow_amounts' holds {amounts.size} amounts for {times.size} remaining payments.")
    expected = amounts * _survival(kw["survival_func"], times)
    pv = expected * curve.discount(times)
    if kw["return_flows"]:
        return _precision_flows(times, expected, pv, present_value=pv, growth=amounts)
    return _kernels.round_value(float(pv.sum()), kw["decimals"])


# ---------------------------------------------------------------- the four modes


# An entry point: the mode's keywords in, a rounded value or a flow dictionary out.
_Entry = Callable[..., float | dict[str, Any]]


def _with_closed_form(mode: str) -> Callable[[_Entry], _Entry]:
    """Value certain annuities of generated schedules natively, in one call.

    The same native routine values portfolios, so a portfolio's values equal
    the single valuations exactly. Flows, explicit schedules and other survival
    functions go through the mode's own path.
    """

    def wrap(valuate: _Entry) -> _Entry:
        @functools.wraps(valuate)
        def entry(**kw: Any) -> float | dict[str, Any]:
            if kw["return_flows"] or _has_explicit_schedule(kw) or not _is_certain(kw["survival_func"]):
                return valuate(**kw)
            return _kernel_curve(kw["ir"]).annuity_value(_annuity(kw), mode, kw["decimals"])

        return entry

    return wrap


@_with_closed_form("discrete_precision")
def _discrete_precision(**kw: Any) -> float | dict[str, Any]:
    """Exact sum of amount x v(t) x survival(t) over the payment schedule."""
    annuity, curve = _annuity(kw), _kernel_curve(kw["ir"])
    if _has_explicit_schedule(kw):
        return _value_explicit(curve, *_explicit_inputs(annuity, kw), kw)
    times, amounts = annuity.payments()
    survival = _survival(kw["survival_func"], times)
    if not kw["return_flows"] and np.ndim(survival) == 0:
        # Uniform survival: the closed-form sum per segment.
        return _kernels.round_value(survival * curve.annuity_value(annuity, "discrete_precision"), kw["decimals"])
    expected = amounts * survival
    pv = expected * curve.discount(times)
    if kw["return_flows"]:
        return _precision_flows(times, expected, pv)
    return _kernels.round_value(float(pv.sum()), kw["decimals"])


def _woolhouse(
    annuity: _kernels.Annuity, curve: _kernels.Curve, kw: dict[str, Any], continuous: bool
) -> float | dict[str, Any]:
    """Woolhouse on the whole years, the final fraction of a year valued exactly."""
    parts = annuity.woolhouse_parts(continuous)
    (t_due, g_due), (t_imm, g_imm) = parts["due"], parts["immediate"]
    v_due, v_imm = curve.discount(t_due), curve.discount(t_imm)
    fractional = _fraction_components(annuity, curve, parts, continuous)
    times = np.concatenate([t_due, t_imm, fractional["time_grid"], fractional["tail_times"]])
    survival = np.broadcast_to(_survival(kw["survival_func"], times), times.shape)
    k_due, k_imm, k_frac = len(t_due), len(t_due) + len(t_imm), len(t_due) + len(t_imm) + len(fractional["time_grid"])
    s_due, s_imm, s_frac, s_tail = survival[:k_due], survival[k_due:k_imm], survival[k_imm:k_frac], survival[k_frac:]
    # Weights of the annual due and immediate payments: due ä(m) = (1-c)ä + c a,
    # immediate a(m) = c ä + (1-c) a.
    c = parts["weight"]
    w_due, w_imm = (1.0 - c, c) if kw["payment_timing"] == 0 else (c, 1.0 - c)
    due_growth, imm_growth = w_due * g_due * s_due, w_imm * g_imm * s_imm
    due_pv, imm_pv = due_growth * v_due, imm_growth * v_imm
    frac_pv = fractional["pv"] * s_frac
    tail_pv = fractional["tail_pv"] * s_tail
    total = float(due_pv.sum() + imm_pv.sum() + frac_pv.sum() + tail_pv.sum())
    if not kw["return_flows"]:
        return _kernels.round_value(total, kw["decimals"])
    return {
        ("coef_due" if kw["payment_timing"] == 0 else "coef_immediate"): 1.0,
        "woolhouse_coefficient": c,
        "due": _component(t_due, due_pv, v_due, growth=due_growth),
        "immediate": _component(t_imm, imm_pv, v_imm, growth=imm_growth),
        "fractional": _component(fractional["time_grid"], frac_pv, fractional["discount"]),
        "fractional_tail": _component(fractional["tail_times"], tail_pv, fractional["tail_discount"]),
        "total_pv": total,
    }


def _fraction_components(
    annuity: _kernels.Annuity, curve: _kernels.Curve, parts: dict[str, Any], continuous: bool
) -> dict[str, np.ndarray]:
    """The payments of the final fraction of a year after the whole years.

    Discrete: the whole m-thly payments of that fraction and the pro-rata last
    payment (the "tail"). Continuous: the m-thly periods of the fraction,
    each with its exact integral, and no tail. ``discount`` is the present
    value per unit of expected payment, so that pv / discount gives it back.
    """
    if continuous:
        times, expected, pv = _continuous_intervals(annuity, curve, parts["first"])
        discount = np.divide(pv, expected, out=np.zeros_like(pv), where=expected > 0.0)
        return {
            "time_grid": times,
            "pv": pv,
            "discount": discount,
            "tail_times": _EMPTY,
            "tail_pv": _EMPTY,
            "tail_discount": _EMPTY,
        }
    (times, amounts), (tail_times, tail_amounts) = parts["fraction"], parts["tail"]
    discount, tail_discount = curve.discount(times), curve.discount(tail_times)
    return {
        "time_grid": times,
        "pv": amounts * discount,
        "discount": discount,
        "tail_times": tail_times,
        "tail_pv": tail_amounts * tail_discount,
        "tail_discount": tail_discount,
    }


def _continuous_intervals(
    annuity: _kernels.Annuity, curve: _kernels.Curve, first: int = 0, amounts: np.ndarray | None = None
) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """The payment periods from payment ``first`` to the end of the term.

    Returns the period ends, the amount flowing uniformly in each (growth
    included, or the explicit ``amounts``) and its exact present value.
    """
    starts, ends, growth = annuity.intervals(first)
    length = ends - starts
    integral = curve.interval_values(starts, ends)
    if amounts is None:
        return ends, growth * length, growth * integral
    per_year = np.divide(amounts, length, out=np.zeros_like(amounts), where=length > 0.0)
    return ends, amounts, per_year * integral


@_with_closed_form("discrete_simplified")
def _discrete_simplified(**kw: Any) -> float | dict[str, Any]:
    """Woolhouse's approximation on the whole years; explicit schedules exactly."""
    annuity, curve = _annuity(kw), _kernel_curve(kw["ir"])
    if _has_explicit_schedule(kw):
        return _value_explicit(curve, *_explicit_inputs(annuity, kw), kw)
    return _woolhouse(annuity, curve, kw, continuous=False)


@_with_closed_form("continuous_precision")
def _continuous_precision(**kw: Any) -> float | dict[str, Any]:
    """Payments flowing continuously at 1 a year (times growth) over the term;
    explicit amounts flow uniformly over their own periods, explicit times are
    point payments."""
    annuity, curve = _annuity(kw), _kernel_curve(kw["ir"])
    if kw.get("cashflow_times") is not None:
        return _value_explicit(curve, *_explicit_inputs(annuity, kw), kw)
    amounts = kw.get("cashflow_amounts")
    amounts = None if amounts is None else _as_f64_safe(amounts)
    ends, expected, pv = _continuous_intervals(annuity, curve, amounts=amounts)
    survival = _survival(kw["survival_func"], ends)
    if amounts is None and not kw["return_flows"] and np.ndim(survival) == 0:
        whole = curve.annuity_value(annuity, "continuous_precision")
        return _kernels.round_value(survival * whole, kw["decimals"])
    expected, pv = expected * survival, pv * survival
    if kw["return_flows"]:
        return _precision_flows(ends, expected, pv)
    return _kernels.round_value(float(pv.sum()), kw["decimals"])


@_with_closed_form("continuous_simplified")
def _continuous_simplified(**kw: Any) -> float | dict[str, Any]:
    """(ä + a) / 2 on the whole years, the final fraction valued continuously."""
    if kw.get("cashflow_amounts") is not None:
        return _continuous_precision(**kw)  # explicit amounts are valued exactly
    return _woolhouse(_annuity(kw), _kernel_curve(kw["ir"]), kw, continuous=True)


def _zero_flows(calculation_mode: str, payment_timing: int) -> dict[str, Any]:
    """The flow dictionary of a schedule with no payments left, in the layout of the mode."""
    if calculation_mode in ("discrete_precision", "continuous_precision"):
        return _precision_flows(_EMPTY, _EMPTY, _EMPTY)
    empty = _component(_EMPTY, _EMPTY, _EMPTY)
    return {
        ("coef_due" if payment_timing == 0 else "coef_immediate"): 1.0,
        "woolhouse_coefficient": 0.0,
        "due": dict(empty, growth=_EMPTY),
        "immediate": dict(empty, growth=_EMPTY),
        "fractional": dict(empty),
        "fractional_tail": dict(empty),
        "total_pv": 0.0,
    }


_ANNUITY_CALCULATION_MODE_DISPATCH: dict[str, Callable[..., Any]] = {
    "discrete_precision": _discrete_precision,
    "discrete_simplified": _discrete_simplified,
    "continuous_precision": _continuous_precision,
    "continuous_simplified": _continuous_simplified,
}
assert set(_ANNUITY_CALCULATION_MODE_DISPATCH) == set(_CALCULATION_MODES)

# The package's own entries: portfolios valued with one of these (and no
# explicit schedule) take the native portfolio kernel; a caller who replaces an
# entry gets the generic per-group path through the replacement.
_OWN_ENTRIES: dict[str, Callable[..., Any]] = dict(_ANNUITY_CALCULATION_MODE_DISPATCH)
