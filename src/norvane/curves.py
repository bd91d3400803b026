"""Curves built from market data, and market rates read back from any curve.

Every builder returns an :class:`~norvane.interest_rates.InterestRate` whose
segments are the annual forward rates between consecutive maturities, so its
discount factors equal the inputs' at every input maturity; after the last
maturity the last forward rate continues. A mapping of scenario names to
inputs builds a scenario container.

>>> from norvane.curves import from_zero_rates, zero_rates
>>> curve = from_zero_rates([1, 2, 5, 10], [0.02, 0.025, 0.03, 0.032])
>>> zero_rates(curve, [5, 10]).round(10).tolist()
[0.03, 0.032]
"""

from __future__ import annotations

import math
from collections.abc import Callable, Mapping
from typing import Any, Literal

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .helpers import _named_f64, _real_float
from .interest_rates import InterestRate

__all__ = [
    "bootstrap_par_swaps",
    "forward_rates",
    "from_discount_factors",
    "from_forward_rates",
    "from_zero_rates",
    "par_rates",
    "smith_wilson",
    "zero_rates",
]

F64 = NDArray[np.float64]
Compounding = Literal["annual", "continuous"] | int
_PAYMENTS_PER_YEAR = (1, 2, 4)
_MAX_POINTS = 10**6  # of a tabulated Smith-Wilson curve


# ------------------------------------------------------------------------ inputs


def _maturities(maturities: ArrayLike, method: str) -> F64:
    t = np.array(_named_f64(maturities, "maturities", method), dtype=np.float64).reshape(-1)
    if t.size == 0 or not (np.isfinite(t).all() and t[0] > 0.0 and (np.diff(t) > 0.0).all()):
        raise ValueError(f"[{method}] 'maturities' must be finite, > 0 and increasing, got {t.tolist()}.")
    return t


def _values(values: ArrayLike, size: int, name: str, method: str) -> F64:
    v = np.array(_named_f64(values, name, method), dtype=np.float64).reshape(-1)
    if v.size != size or not np.isfinite(v).all():
        raise ValueError(f"[{method}] '{name}' must hold {size} finite values, one per maturity, got {v.tolist()}.")
    return v


def _scenarios(build: Callable[[Any], InterestRate], inputs: Any) -> InterestRate:
    """One curve, or a scenario container of one curve per name."""
    if not isinstance(inputs, Mapping):
        return build(inputs)
    built = {name: build(values) for name, values in inputs.items()}
    return InterestRate({name: (curve.terms, curve.rates) for name, curve in built.items()})


def _curve(terms: F64, forwards: F64, method: str) -> InterestRate:
    """The curve of these segment rates, the last continuing; refused in the builder's name."""
    try:
        return InterestRate(terms=terms, rates=np.append(forwards, forwards[-1]))
    except (TypeError, ValueError) as exc:
        raise ValueError(f"[{method}] {exc}") from None


def _from_prices(maturities: F64, prices: F64, method: str) -> InterestRate:
    """The curve whose discount factors at ``maturities`` are ``prices``: the annual forward
    rate of each segment between them, the last continuing."""
    if not (prices > 0.0).all():
        raise ValueError(f"[{method}] discount factors must be > 0, got {prices.tolist()}.")
    terms = np.diff(maturities, prepend=0.0)
    with np.errstate(over="ignore", divide="ignore", invalid="ignore"):  # beyond floats: refused by the curve
        forwards = np.expm1(np.log(np.concatenate(([1.0], prices[:-1])) / prices) / terms)
    return _curve(terms, forwards, method)


def _periods(compounding: Any, method: str) -> int | None:
    """Compounding periods a year of a zero rate (None: continuous)."""
    if isinstance(compounding, str) and compounding in ("annual", "continuous"):
        return 1 if compounding == "annual" else None
    if isinstance(compounding, (int, np.integer)) and not isinstance(compounding, bool) and 0 < compounding <= 10**6:
        return int(compounding)
    raise ValueError(
        f"[{method}] 'compounding' must be 'annual', 'continuous' or a number of periods a year, got {compounding!r}."
    )


def _prices_of_zero_rates(maturities: F64, rates: F64, compounding: Compounding, method: str) -> F64:
    periods = _periods(compounding, method)
    with np.errstate(over="ignore", invalid="ignore", divide="ignore"):  # beyond floats: refused by the curve
        if periods is None:
            return np.exp(-rates * maturities)
        out: F64 = np.exp(-periods * maturities * np.log1p(rates / periods))
    return out


# ------------------------------------------------------------------------ builders


def from_zero_rates(
    maturities: ArrayLike, rates: ArrayLike | Mapping[str, ArrayLike], *, compounding: Compounding = "annual"
) -> InterestRate:
    """A curve through zero-coupon rates: annual (``(1 + z)^-T``), ``"continuous"``
    (``e^(-zT)``) or compounded k times a year (``(1 + z/k)^(-kT)``)."""
    method = "from_zero_rates"
    t = _maturities(maturities, method)
    return _scenarios(
        lambda r: _from_prices(
            t, _prices_of_zero_rates(t, _values(r, t.size, "rates", method), compounding, method), method
        ),
        rates,
    )


def from_discount_factors(maturities: ArrayLike, factors: ArrayLike | Mapping[str, ArrayLike]) -> InterestRate:
    """A curve through discount factors (each > 0)."""
    method = "from_discount_factors"
    t = _maturities(maturities, method)
    return _scenarios(lambda p: _from_prices(t, _values(p, t.size, "factors", method), method), factors)


def from_forward_rates(maturities: ArrayLike, rates: ArrayLike | Mapping[str, ArrayLike]) -> InterestRate:
    """A curve of annual forward rates: ``rates[i]`` from the previous maturity (0 for the
    first) to ``maturities[i]``; the last continues after it."""
    method = "from_forward_rates"
    t = _maturities(maturities, method)

    def build(values: Any) -> InterestRate:
        return _curve(np.diff(t, prepend=0.0), _values(values, t.size, "rates", method), method)

    return _scenarios(build, rates)


def _payment_times(maturity: float, frequency: int, method: str) -> F64:
    count = maturity * frequency
    if count > _MAX_POINTS:
        raise ValueError(f"[{method}] a swap may hold at most {_MAX_POINTS} payments, got maturity {maturity!r}.")
    if count != round(count):
        raise ValueError(
            f"[{method}] a swap paying {frequency} times a year needs a maturity of whole periods, got {maturity!r}."
        )
    return np.arange(1, int(round(count)) + 1) / frequency


def _frequency(frequency: Any, method: str) -> int:
    if (
        not isinstance(frequency, (int, np.integer))
        or isinstance(frequency, bool)
        or frequency not in _PAYMENTS_PER_YEAR
    ):
        raise ValueError(f"[{method}] 'frequency' must be one of {_PAYMENTS_PER_YEAR}, got {frequency!r}.")
    return int(frequency)


def bootstrap_par_swaps(
    maturities: ArrayLike, par_rates: ArrayLike | Mapping[str, ArrayLike], *, frequency: int = 1
) -> InterestRate:
    """A curve that reprices par swaps: each fixed leg pays its rate ``frequency`` times a
    year (1, 2 or 4) against a floating leg worth 1 - P(T). Solved instrument by instrument
    for the forward rate of the segment it ends (Newton's method, to 1e-14)."""
    method = "bootstrap_par_swaps"
    t = _maturities(maturities, method)
    per_year = _frequency(frequency, method)
    legs = [_payment_times(float(T), per_year, method) for T in t]

    def build(values: Any) -> InterestRate:
        swap = _values(values, t.size, "par_rates", method)
        log_prices = np.empty(t.size)  # log P at each maturity
        for i, (T, times, rate) in enumerate(zip(t, legs, swap)):
            start, known = (t[i - 1], log_prices[i - 1]) if i else (0.0, 0.0)
            earlier = times[times <= start]
            later = times[times > start]
            fixed_known = float(np.sum(np.exp(_log_prices(t[:i], log_prices[:i], earlier)))) / per_year
            x = _swap_segment(float(rate), per_year, fixed_known, known, later - start, float(T), method)
            log_prices[i] = known - x * (T - start)
        return _from_prices(t, np.exp(log_prices), method)

    return _scenarios(build, par_rates)


def _swap_segment(
    rate: float, per_year: int, fixed_known: float, known: float, spans: F64, T: float, method: str
) -> float:
    """log(1 + f) of the forward f of the segment a par swap ends: the root of the swap's price
    less 1, with its later payments ``spans`` years into the segment priced e^(known - x span).
    The price falls as x rises: the root is bracketed, then found by Newton's steps kept inside
    the bracket (bisection where a step would leave it), to 1e-15."""

    def gap(x: float) -> tuple[float, float]:
        with np.errstate(over="ignore", invalid="ignore"):
            discounts = np.exp(known - x * spans)
            value = rate * (fixed_known + discounts.sum() / per_year) + discounts[-1] - 1.0
            slope = -rate * float(np.sum(spans * discounts)) / per_year - spans[-1] * discounts[-1]
        return float(value), float(slope)

    low, high = -1.0, 1.0
    while not gap(high)[0] < 0.0 or not gap(low)[0] > 0.0:
        low, high = 2.0 * low, 2.0 * high
        if high > 1e4:
            raise ValueError(f"[{method}] no curve reprices the par swap of maturity {T!r} at {rate!r}.")
    x = min(max(math.log1p(rate) if rate > -1.0 else 0.0, low), high)
    for _ in range(500):
        value, slope = gap(x)
        if value > 0.0:
            low = x
        else:
            high = x
        following = x - value / slope if slope < 0.0 and math.isfinite(value / slope) else math.nan
        if not low < following < high:
            following = 0.5 * (low + high)
        if abs(following - x) <= 1e-15 * max(1.0, abs(x)):
            return following
        x = following
    return x


def _log_prices(maturities: F64, log_prices: F64, times: F64) -> F64:
    """log P at ``times`` (within the maturities) on the piecewise-flat forwards through them."""
    if times.size == 0:
        return np.empty(0)
    knots_t = np.concatenate(([0.0], maturities))
    knots_p = np.concatenate(([0.0], log_prices))
    return np.interp(times, knots_t, knots_p)  # log P is linear in t within a segment


# ------------------------------------------------------------------------ Smith-Wilson


def _wilson(t: F64, u: F64, alpha: float, omega: float) -> F64:
    """The Wilson function W(t, u) for every pair (rows t, columns u)."""
    tt, uu = np.meshgrid(t, u, indexing="ij")
    low, high = np.minimum(tt, uu), np.maximum(tt, uu)
    return np.exp(-omega * (tt + uu)) * (
        alpha * low - 0.5 * np.exp(-alpha * high) * (np.exp(alpha * low) - np.exp(-alpha * low))
    )


class _SmithWilson:
    """Prices of instruments (cash flows ``cash`` at ``dates``, worth ``values``) fitted exactly."""

    def __init__(self, dates: F64, cash: F64, values: F64, omega: float):
        self.dates, self.cash, self.values, self.omega = dates, cash, values, omega

    def weights(self, alpha: float) -> F64:
        with np.errstate(all="ignore"):  # a system beyond floats is refused below
            w = _wilson(self.dates, self.dates, alpha, self.omega)
            gap = self.values - self.cash @ np.exp(-self.omega * self.dates)
            try:
                solved: F64 = self.cash.T @ np.linalg.solve(self.cash @ w @ self.cash.T, gap)
            except np.linalg.LinAlgError:
                solved = np.full(self.dates.size, np.nan)
        if not np.isfinite(solved).all():
            raise ValueError(f"[smith_wilson] no Smith-Wilson curve fits these inputs with alpha {alpha!r}.")
        return solved

    def log_prices(self, times: F64, alpha: float, weights: F64) -> F64:
        with np.errstate(all="ignore"):  # a price that is not positive is refused by the curve
            prices = np.exp(-self.omega * times) + _wilson(times, self.dates, alpha, self.omega) @ weights
            return np.log(prices)

    def forward_gap(self, at: float, alpha: float) -> float:
        """|f(at) - omega|: the forward intensity's distance from the ultimate one."""
        h = 1e-4
        logs = self.log_prices(np.array([at - h, at + h]), alpha, self.weights(alpha))
        return abs((logs[0] - logs[1]) / (2 * h) - self.omega)


def smith_wilson(
    maturities: ArrayLike,
    rates: ArrayLike | Mapping[str, ArrayLike],
    *,
    ufr: float,
    alpha: float | None = None,
    instruments: Literal["zero", "swap"] = "zero",
    frequency: int = 1,
    spread: float = 0.0,
    horizon: float = 150.0,
    step: float = 1.0,
    convergence_maturity: float | None = None,
    tolerance: float = 1e-4,
) -> InterestRate:
    """The Smith-Wilson curve through zero-coupon rates (annual) or par swap rates, converging
    to the ultimate forward rate ``ufr`` (annual).

    ``alpha`` None calibrates the speed of convergence: the least alpha >= 0.05 (by bisection)
    whose forward intensity at ``convergence_maturity`` (default max(last maturity + 40, 60))
    lies within ``tolerance`` (1 bp) of log(1 + ufr). ``spread`` (a credit-risk adjustment) is
    taken off every input rate. The curve is tabulated every ``step`` years (and at every input
    maturity, which it reprices exactly) out to ``horizon`` years; the last forward continues.
    """
    method = "smith_wilson"
    t = _maturities(maturities, method)
    ultimate = _real_float(ufr, "ufr", method)
    if not (math.isfinite(ultimate) and ultimate > -1.0):
        raise ValueError(f"[{method}] 'ufr' must be a finite rate above -1, got {ultimate!r}.")
    omega = math.log1p(ultimate)
    adjust = _real_float(spread, "spread", method)
    if not math.isfinite(adjust):
        raise ValueError(f"[{method}] 'spread' must be finite, got {adjust!r}.")
    if alpha is not None and not (math.isfinite(_real_float(alpha, "alpha", method)) and alpha > 0.0):
        raise ValueError(f"[{method}] 'alpha' must be finite and > 0, got {alpha!r}.")
    if not (math.isfinite(_real_float(tolerance, "tolerance", method)) and tolerance > 0.0):
        raise ValueError(f"[{method}] 'tolerance' must be finite and > 0, got {tolerance!r}.")
    far = _real_float(horizon, "horizon", method)
    grid_step = _real_float(step, "step", method)
    if not (math.isfinite(far) and far >= t[-1] and math.isfinite(grid_step) and 0.0 < grid_step <= far):
        raise ValueError(f"[{method}] 'horizon' must reach the last maturity and 'step' lie in (0, horizon].")
    if far / grid_step > _MAX_POINTS:
        raise ValueError(
            f"[{method}] 'horizon' / 'step' must be at most {_MAX_POINTS} points, got {far / grid_step:g}."
        )
    point = (
        max(t[-1] + 40.0, 60.0)
        if convergence_maturity is None
        else _real_float(convergence_maturity, "convergence_maturity", method)
    )
    if instruments == "zero":
        dates, cash = t, np.eye(t.size)
    elif instruments == "swap":
        per_year = _frequency(frequency, method)
        dates = _payment_times(float(t[-1]), per_year, method)
        for T in t:
            _payment_times(float(T), per_year, method)
        cash = np.zeros((t.size, dates.size))
    else:
        raise ValueError(f"[{method}] 'instruments' must be 'zero' or 'swap', got {instruments!r}.")
    # The grid holds every cash-flow date, so that the tabulated curve reprices every instrument.
    grid = np.union1d(np.arange(1, int(far / grid_step) + 1) * grid_step, dates)

    def build(values: Any) -> InterestRate:
        r = _values(values, t.size, "rates", method) - adjust
        if instruments == "zero":
            fitted = _SmithWilson(dates, cash, (1.0 + r) ** -t, omega)
        else:
            legs = cash.copy()
            for i, T in enumerate(t):
                paid = dates <= T + 1e-12
                legs[i, paid] = r[i] / per_year
                legs[i, np.argmin(np.abs(dates - T))] += 1.0
            fitted = _SmithWilson(dates, legs, np.ones(t.size), omega)
        speed = _calibrated(fitted, point, tolerance) if alpha is None else _real_float(alpha, "alpha", method)
        return _from_prices(grid, np.exp(fitted.log_prices(grid, speed, fitted.weights(speed))), method)

    return _scenarios(build, rates)


def _calibrated(fitted: _SmithWilson, point: float, tolerance: float) -> float:
    """The least alpha >= 0.05 meeting the convergence criterion (the gap falls as alpha grows)."""
    low, high = 0.05, 0.05
    if fitted.forward_gap(point, low) <= tolerance:
        return low
    while fitted.forward_gap(point, high) > tolerance:
        low, high = high, 2.0 * high
        if high > 100.0:
            raise ValueError("[smith_wilson] no alpha up to 100 meets the convergence criterion.")
    while high - low > 1e-8:
        middle = 0.5 * (low + high)
        low, high = (middle, high) if fitted.forward_gap(point, middle) > tolerance else (low, middle)
    return high


# ------------------------------------------------------------------------ rates read back


def _log_discounts(curve: InterestRate, times: F64, method: str) -> F64:
    """log v at ``times``, refused where the discount factor is beyond floats (0 or infinite)."""
    with np.errstate(divide="ignore"):
        out: F64 = np.log(np.asarray(curve.vn(times), dtype=np.float64))
    if not np.isfinite(out).all():
        raise ValueError(f"[{method}] the curve's discount factors at these times are beyond the float range.")
    return out


def _times(values: ArrayLike, name: str, method: str, least: float = 0.0) -> F64:
    t = np.asarray(_named_f64(values, name, method), dtype=np.float64)
    if not (np.isfinite(t).all() and (t > least).all()):
        raise ValueError(f"[{method}] '{name}' must be finite and > {least:g}.")
    return t


def zero_rates(curve: InterestRate, maturities: ArrayLike, *, compounding: Compounding = "annual") -> F64:
    """Zero-coupon rates of ``curve`` at ``maturities`` (> 0)."""
    method = "zero_rates"
    t = _times(maturities, "maturities", method)
    periods = _periods(compounding, method)
    log_price = _log_discounts(curve, t, method)
    if periods is None:
        return -log_price / t
    out: F64 = periods * np.expm1(-log_price / (periods * t))
    return out


def forward_rates(curve: InterestRate, starts: ArrayLike, ends: ArrayLike) -> F64:
    """Annual forward rates of ``curve`` from each start to its end (> start)."""
    method = "forward_rates"
    a = _times(starts, "starts", method, least=-math.inf)
    b = _times(ends, "ends", method, least=-math.inf)
    try:
        later = bool(np.all(b > a)) and bool(np.all(a >= 0.0))
    except ValueError:  # shapes that do not broadcast
        later = False
    if not later:
        raise ValueError(f"[{method}] each end must follow its start, and starts be >= 0.")
    with np.errstate(over="ignore"):
        out: F64 = np.expm1((_log_discounts(curve, a, method) - _log_discounts(curve, b, method)) / (b - a))
    if not np.isfinite(out).all():
        raise ValueError(f"[{method}] these forward rates are beyond the float range.")
    return out


def par_rates(curve: InterestRate, maturities: ArrayLike, *, frequency: int = 1) -> F64:
    """Par swap rates of ``curve``: fixed legs paid ``frequency`` times a year (1, 2 or 4)."""
    method = "par_rates"
    per_year = _frequency(frequency, method)
    t = _times(maturities, "maturities", method).reshape(-1)
    out = np.empty(t.size)
    for i, T in enumerate(t):
        times = _payment_times(float(T), per_year, method)
        discounts = np.asarray(curve.vn(times), dtype=np.float64)
        out[i] = (1.0 - discounts[-1]) / (discounts.sum() / per_year)
    return out
