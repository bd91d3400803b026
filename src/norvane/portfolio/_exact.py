"""Exact sums of doubles, vectorised: a book's total is the correctly rounded sum of all its
values (what math.fsum gives over the whole book), whatever the batches it is read in."""

from __future__ import annotations

import math
from fractions import Fraction

import numpy as np

# Each value is split into two integers below 2**27, whose sums over this many values stay
# below 2**53, so that NumPy adds them exactly in doubles.
_SLICE = 1 << 25
_HALF = 26


def rounded(total: Fraction) -> float:
    """The double nearest an exact total; infinite beyond the largest double."""
    try:
        return float(total)
    except OverflowError:
        return math.inf if total > 0 else -math.inf


def exact_sum(values: np.ndarray) -> Fraction:
    """The exact sum of finite doubles."""
    total = Fraction(0)
    for start in range(0, len(values), _SLICE):
        total += _slice_sum(values[start : start + _SLICE])
    return total


def _slice_sum(values: np.ndarray) -> Fraction:
    if not len(values):
        return Fraction(0)
    # value = (high * 2**26 + low) * 2**(exponent - 53), high and low integers (as doubles)
    fractions, exponents = np.frexp(values)
    high = np.trunc(fractions * 2.0**27)
    low = fractions * 2.0**53 - high * 2.0**_HALF
    lowest = int(exponents.min())
    places = exponents - lowest
    total = 0
    for half, shift in ((high, _HALF), (low, 0)):
        sums = np.bincount(places, weights=half)  # by the value's binary place: exact
        for place in np.flatnonzero(sums).tolist():
            total += int(sums[place]) << (place + shift)
    return Fraction(total) * Fraction(2) ** (lowest - 53)
