"""Reference values the tests compare against, written independently of the package."""

import math
import re

import pytest


def exact(exc, msg):
    """``pytest.raises`` that matches the whole message."""
    return pytest.raises(exc, match="^" + re.escape(msg) + "$")


def discount(terms, rates, t):
    """v(t): one power per segment crossed, the last rate running on; ([], [rate]) is a constant curve.

    A piecewise curve never accumulates backwards (v = 1 for t <= 0); a constant one does.
    """
    if terms and t <= 0.0:
        return 1.0
    v, start = 1.0, 0.0
    for length, r in zip(terms, rates):
        if t <= start + length:
            return v * math.pow(1.0 + r, -(t - start))
        v *= math.pow(1.0 + r, -length)
        start += length
    return v * math.pow(1.0 + rates[-1], -(t - start))  # NaN and times past the last term
