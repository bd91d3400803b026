"""Straightforward NumPy implementation of the discounting engine.

The reference against which ``norvane.interest_rates.InterestRate`` is timed,
and an independent oracle for tests. It follows the documented algorithms step
by step, with the obvious NumPy calls and no tuning:

- discount factors: ``searchsorted`` (side "left"), ``clip``, ``where``
  gathers on the prefix products, one ``power``; a scalar on a constant curve
  is a Python float power, a scalar on a piecewise curve goes through the same
  vectorised steps on a one-element array;
- ``vx`` validates ``x`` and ``x0`` and discounts ``x - x0``;
- ``get_rate``: scalar lookups through an ``OrderedDict`` LRU under a lock,
  arrays by ``searchsorted``/``clip``/gather;
- ``shifted`` builds a new curve; ``shifted_for_ts`` caches it in a dict keyed
  by (curve, ts, epoch), curves hashing by value;
- ``baseline_annuity`` builds an annuity's payment schedule explicitly (times,
  amounts with growth, a pro-rata last payment), discounts it with ``vn`` and
  sums it;
- ``baseline_portfolio_annuity`` values a book of annuities: ``np.unique`` over
  the stacked (term, deferment, shift) rows with ``return_inverse``, a Python
  loop valuing each distinct row once with ``baseline_annuity`` on the curve
  shifted to its valuation time (one shifted curve per distinct shift), then the
  unit values rounded, gathered back per policy and multiplied by the benefits.

Inputs are checked with the package's own validator, so both sides pay for the
same numeric check.
"""

from __future__ import annotations

import copy
import threading
from collections import OrderedDict

import numpy as np

from norvane.base import _NUMERIC_TYPES
from norvane.helpers import _as_f64_safe, _finalize_scalar_or_array, _validate_numeric_input

CACHE_MAXSIZE = 1000
TOLERANCE_EPS = 1e-12
PAYMENT_COUNT_TOL = 1e-12  # a remainder of n*m above this adds a pro-rata payment
PERPETUITY_YEARS = 1000.0  # the term over which an infinite term is valued
_DISCOUNT_MSG = ": (1+i) must be positive for discount factor computation per actuarial standards"


def _numbers(value, name):
    return _validate_numeric_input(
        value, allow_none=False, allow_sequence=True, method_name="InterestRate", attr_name=name
    )


def _is_number(value):
    return isinstance(value, _NUMERIC_TYPES) and not isinstance(value, (bool, np.bool_))


class BaselineCurve:
    """``BaselineCurve(rate)`` (constant) or ``BaselineCurve(terms, rates)`` (piecewise, years)."""

    def __init__(self, terms_or_rate, rates=None):
        self._rate_cache = OrderedDict()
        self._cache_lock = threading.Lock()
        self._shift_cache_epoch = 0
        self._ts_shift_cache = {}
        if rates is None:
            rate = float(terms_or_rate)
            if not rate > -1.0:
                raise ValueError(f"Rate {rate} ≤ -1{_DISCOUNT_MSG}")
            self.is_constant, self.rate = True, rate
            self.terms = self.rates = self._cum_terms = None
            return
        terms, rates = _as_f64_safe(terms_or_rate).copy(), _as_f64_safe(rates).copy()
        if terms.ndim != 1 or rates.ndim != 1 or terms.size == 0:
            raise ValueError("terms and rates must be non-empty one-dimensional sequences")
        if not (np.isfinite(terms).all() and np.isfinite(rates).all()):
            raise ValueError("terms and rates must be finite")
        if (terms <= 0.0).any():
            raise ValueError("All terms must be positive")
        if (rates <= -1.0).any():
            raise ValueError(f"Rate ≤ -1{_DISCOUNT_MSG}")
        if rates.shape[0] != terms.shape[0] + 1:
            raise ValueError("For piecewise rates, rates must have length terms+1")
        self.is_constant, self.rate = False, None
        self.terms, self.rates = terms, rates
        self._cum_terms = np.cumsum(terms)
        # Prefix products: discount factor from 0 to the end of each segment.
        self._one_plus = 1.0 + rates
        full = np.power(self._one_plus[:-1], -terms)
        self._prefix = np.cumprod(full, dtype=np.float64)

    # -- equality and hashing by value (cache keys) ---------------------------

    def __eq__(self, other):
        if not isinstance(other, BaselineCurve):
            return NotImplemented
        if self.is_constant or other.is_constant:
            return self.is_constant == other.is_constant and self.rate == other.rate
        return np.array_equal(self.terms, other.terms) and np.array_equal(self.rates, other.rates)

    def __hash__(self):
        if self.is_constant:
            return hash(("ir_const", self.rate))
        return hash(("ir_pw", hash(tuple(self.terms.tolist())), hash(tuple(self.rates.tolist()))))

    def copy(self):
        clone = copy.copy(self)
        clone._rate_cache = OrderedDict(self._rate_cache)
        clone._cache_lock = threading.Lock()
        clone._ts_shift_cache = dict(self._ts_shift_cache)
        return clone

    # -- discount factors -----------------------------------------------------

    def vn(self, n):
        n, is_scalar = _numbers(n, "n")
        return self._dfn(n, is_scalar, validate=True)

    def vx(self, x, x0=0.0):
        x, x_scalar = _numbers(x, "x")
        x0, x0_scalar = _numbers(x0, "x0")
        if np.any(x < 0):
            raise ValueError("'x' contains negative values.")
        if np.any(x0 < 0):
            raise ValueError("'x0' contains negative values.")
        if x.shape != x0.shape and x.size > 1 and x0.size > 1:
            raise ValueError(f"Incompatible shapes for 'x' and 'x0': {x.shape} and {x0.shape}.")
        if not np.all(x >= x0):
            raise ValueError("All values in 'x' must be greater than or equal to 'x0'.")
        x = x.item() if x_scalar else x
        x0 = x0.item() if x0_scalar else x0
        n = x - x0
        return self._dfn(n, _is_number(n), validate=False)

    def _dfn(self, n, is_scalar, validate):
        n_arr = _as_f64_safe(n)
        if self.is_constant:
            if validate and not self.rate > -1.0:
                raise ValueError(f"Rate {self.rate} ≤ -1{_DISCOUNT_MSG}")
            if self.rate == 0.0:
                return 1.0 if is_scalar else np.ones_like(n_arr, dtype=np.float64)
            if is_scalar:
                return (1.0 + self.rate) ** (-n_arr.item())
            return np.power(1.0 + self.rate, -n_arr)

        rates, cum = self.rates, self._cum_terms
        if is_scalar:
            n_arr = n_arr.reshape(1)
        if np.all(n_arr <= 0.0):
            return 1.0 if is_scalar else np.ones_like(n_arr, dtype=np.float64)
        idx = np.clip(np.searchsorted(cum, n_arr, side="left"), 0, rates.shape[0] - 1)
        if validate:
            bad = rates[idx] <= -1.0
            if np.any(bad):
                raise ValueError(f"Rates ≤ -1 at indices {np.where(bad)[0]}{_DISCOUNT_MSG}")
        prev = np.where(idx > 0, idx - 1, 0).astype(np.intp)
        pp = np.where(idx > 0, self._prefix[prev], 1.0)
        cb = np.where(idx > 0, cum[prev], 0.0)
        result = pp * np.power(self._one_plus[idx], -(n_arr - cb))
        nonpos = n_arr <= 0.0
        if np.any(nonpos):
            result[nonpos] = 1.0
        return _finalize_scalar_or_array(result, is_scalar)

    # -- rate lookup ----------------------------------------------------------

    def get_rate(self, t):
        if type(t) is bool:
            raise TypeError("[InterestRate] Parameter 't' must be numeric.")
        if self.is_constant:
            if _is_number(t):
                return self.rate
            return np.full_like(_as_f64_safe(t), self.rate, dtype=np.float64)
        if _is_number(t):
            key = float(t)
            cached = self._lru_touch_get(key)
            if cached is not None:
                return cached
            idx = np.clip(np.searchsorted(self._cum_terms, t, side="left"), 0, self.rates.shape[0] - 1)
            r = self.rates[idx].item()
            if self._lru_touch_get(key) is None:
                self._lru_store(key, r)
            return r
        t_arr = _as_f64_safe(t)
        idx = np.clip(np.searchsorted(self._cum_terms, t_arr, side="left"), 0, self.rates.shape[0] - 1)
        return self.rates[idx].copy()

    def _lru_touch_get(self, key):
        with self._cache_lock:
            if key in self._rate_cache:
                value = self._rate_cache.pop(key)
                self._rate_cache[key] = value
                return value
            return None

    def _lru_store(self, key, value):
        with self._cache_lock:
            if key in self._rate_cache:
                return
            if len(self._rate_cache) >= CACHE_MAXSIZE:
                self._rate_cache.popitem(last=False)
            self._rate_cache[key] = float(value)

    # -- shifting -------------------------------------------------------------

    def shifted(self, ts):
        if not _is_number(ts):
            raise TypeError("[InterestRate] Parameter 'ts' must be numeric.")
        if self.is_constant or float(ts) <= 0.0:
            return self.copy()
        cum, terms, rates = self._cum_terms, self.terms, self.rates
        if ts >= cum[-1]:
            return BaselineCurve(rates[-1])
        k = int(np.searchsorted(cum, ts, side="left"))
        start = cum[k - 1] if k > 0 else 0.0
        remaining = terms[k] - (ts - start)
        if remaining <= TOLERANCE_EPS:
            new_terms, new_rates = terms[k + 1 :], rates[k + 1 :]
        else:
            new_terms = np.concatenate(([remaining], terms[k + 1 :]))
            new_rates = rates[k:]
        if new_terms.size == 0:
            return BaselineCurve(rates[-1])
        return BaselineCurve(new_terms, new_rates)


def shifted_for_ts(curve, ts, cache):
    """Cached ``curve.shifted(ts)``: key (curve, ts, epoch); a shift within the tolerance is none."""
    if curve.is_constant or ts <= TOLERANCE_EPS:
        return curve
    key = (curve, float(ts), curve._shift_cache_epoch)
    hit = cache.get(key)
    if hit is not None:
        return hit
    result = curve.shifted(float(ts))
    cache[key] = result
    return result


def baseline_annuity(curve, n, m, timing, d=0.0, growth=None, decimals=10):
    """Present value of an annuity of 1 a year payable ``m``-thly, by the explicit schedule.

    Payment k (k < ceil(n*m)) is made at ``d + (k + timing) / m`` (timing 0 due,
    1 immediate) and is ``1/m`` times its growth factor for year ``k // m``. When
    ``n*m`` has a fractional part f (above the tolerance) the last payment is
    ``f/m``, made at the start of its period (due) or at ``d + n`` (immediate).
    ``growth`` is None (level), a number (geometric) or an object with ``rate``
    and ``kind`` ("geometric" or "arithmetic"). The sum is rounded with
    ``np.round(x, decimals)``.
    """
    n, d, m, timing = float(n), float(d), int(m), int(timing)
    whole = int(n * m)
    fraction = n * m - whole
    partial = fraction > PAYMENT_COUNT_TOL
    k = np.arange(whole + partial)
    times = d + (k + timing) / m
    amounts = np.full(k.size, 1.0 / m)
    if partial:
        amounts[-1] = fraction / m
        times[-1] = d + whole / m if timing == 0 else d + n
    if growth is not None:
        kind, g = ("geometric", float(growth)) if _is_number(growth) else (growth.kind, float(growth.rate))
        years = (k // m).astype(np.float64)
        amounts *= np.power(1.0 + g, years) if kind == "geometric" else 1.0 + g * years
    discount = curve.vn(times)
    return float(np.round(np.sum(amounts * discount), decimals))


def effective_schedule(n, d, ts, perpetuity_years=PERPETUITY_YEARS):
    """(d_eff, n_eff) of an annuity valued at time ``ts``: the deferment left and the term left.

    elapsed = max(0, ts - d), d_eff = max(0, d - ts), n_eff = max(0, n - elapsed);
    an infinite ``n`` is a perpetuity over ``perpetuity_years``.
    """
    n = perpetuity_years if np.isinf(n) else float(n)
    elapsed = max(0.0, ts - d)
    return max(0.0, d - ts), max(0.0, n - elapsed)


def prefix_sum_book(curve, n, d, ts, m, benefits=None, decimals=10):
    """A book of due annuities of 1 a year payable ``m``-thly whose terms,
    deferments and valuation times are whole multiples of 1/m, as a NumPy user
    writes it: discount factors on the payment grid once, their running sums
    ``S``, then ``(S[end] - S[start]) / m / v(ts)`` per policy."""
    n, d, ts = (np.asarray(x, np.float64) for x in (n, d, ts))
    left = np.maximum(0.0, n - np.maximum(0.0, ts - d))
    start = np.rint(np.maximum(ts, d) * m).astype(np.intp)
    end = start + np.rint(left * m).astype(np.intp)
    grid = curve.vn(np.arange(end.max() + 1) / m)
    running = np.concatenate(([0.0], np.cumsum(grid)))
    unit = (running[end] - running[start]) / m / grid[np.rint(ts * m).astype(np.intp)]
    values = np.round(unit, decimals)
    return values if benefits is None else values * benefits


def closed_form_book(curve, n, d, ts, m, benefits=None, decimals=10):
    """Any book of level due annuities payable ``m``-thly, vectorised over the
    policies with one pass per curve segment: the payments inside a segment
    are a geometric series, ``v(first) (1 - r^count) / (1 - r)``, plus the
    pro-rata last payment; everything over ``v(ts)``."""
    n, d, ts = (np.asarray(x, np.float64) for x in (n, d, ts))
    left = np.maximum(0.0, n - np.maximum(0.0, ts - d))
    start = np.maximum(ts, d)
    whole = np.floor(left * m)
    fraction = left * m - whole
    ends = np.append(curve._cum_terms, np.inf)
    begins = np.concatenate(([0.0], curve._cum_terms))
    logs = np.log1p(curve.rates)
    discount_at_begin = np.concatenate(([1.0], curve._prefix))
    total = np.zeros_like(n)
    for begin, end, log_q, v_begin in zip(begins, ends, logs, discount_at_begin, strict=True):
        # the payments in [begin, end): from the first at or after begin to the first at or after end
        first = np.clip(np.ceil((begin - start) * m), 0.0, whole)
        after = np.clip(np.ceil((end - start) * m), 0.0, whole)
        count = np.maximum(after - first, 0.0)
        v_first = v_begin * np.exp(-(start + first / m - begin) * log_q)
        series = count if log_q == 0.0 else np.expm1(-log_q * count / m) / np.expm1(-log_q / m)
        total += np.where(count > 0.0, v_first * series, 0.0)
    total += fraction * curve.vn(start + whole / m)
    unit = total / m / curve.vn(ts)
    values = np.round(unit, decimals)
    return values if benefits is None else values * benefits
