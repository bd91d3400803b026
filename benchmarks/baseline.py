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


def baseline_portfolio_annuity(curve, n, d, ts, m, timing=0, benefits=None, decimals=10):
    """Per-policy present values of a book of level annuities of 1 a year payable ``m``-thly.

    ``n``, ``d``, ``ts`` (and ``benefits``) are arrays of one length N (``n`` may
    hold infinities: perpetuities). Policies with the same (n, d, ts) row have the
    same unit value, so each distinct row is valued once, on the curve seen from
    its ``ts`` (``shifted_for_ts`` with a dictionary made for this call), by
    ``baseline_annuity`` on its effective deferment and term; a zero effective term
    is worth 0.0. The unit values are rounded with ``np.round(x, decimals)``,
    gathered back to the policies and multiplied by ``benefits`` when given.
    """
    params = np.stack([np.asarray(n, np.float64), np.asarray(d, np.float64), np.asarray(ts, np.float64)], axis=1)
    unique_params, inverse = np.unique(params, axis=0, return_inverse=True)
    inverse = inverse.reshape(-1)  # (N,) whatever NumPy's version returns
    shift_cache = {}
    unit = np.empty(unique_params.shape[0], dtype=np.float64)
    for k, (n_k, d_k, ts_k) in enumerate(unique_params.tolist()):
        d_eff, n_eff = effective_schedule(n_k, d_k, ts_k)
        if n_eff <= 0.0:
            unit[k] = 0.0
            continue
        shifted = shifted_for_ts(curve, ts_k, shift_cache)
        unit[k] = baseline_annuity(shifted, n_eff, m, timing, d_eff, None, decimals)
    values = np.round(unit, decimals)[inverse]
    if benefits is not None:
        values = values * np.asarray(benefits, dtype=np.float64)
    return values
