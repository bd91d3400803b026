"""Reference values and helpers the tests share, written independently of the package."""

import math
import re

import numpy as np
import pandas as pd
import pytest

MODES = ("discrete_precision", "discrete_simplified", "continuous_precision", "continuous_simplified")
PRECISION = ("discrete_precision", "continuous_precision")
I = 0.03  # the test rate
V, D = 1 / (1 + I), I / (1 + I)
MUTEX = (
    "'gr' and 'cashflow_amounts' are mutually exclusive: 'cashflow_amounts' defines explicit "
    "payment amounts, so 'gr' has no effect. Pass gr=None when using cashflow_amounts."
)


def exact(exc, msg):
    """``pytest.raises`` that matches the whole message."""
    return pytest.raises(exc, match="^" + re.escape(msg) + "$")


def i_m(m, i=I):
    """m((1 + i)^(1/m) - 1)."""
    return m * ((1 + i) ** (1 / m) - 1)


def d_m(m, i=I):
    """m(1 - v^(1/m))."""
    return m * (1 - (1 + i) ** (-1 / m))


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


def makeham_l(A, B, c, x):
    """Survival from 0 to x under Makeham's law, in closed form."""
    return np.exp(-A * x - B / math.log(c) * (c**x - 1.0))


def table_csv(table, path):
    """A mortality table written as the CSV the command line reads (empty cells: no select rates)."""
    select = np.full((table.qx.size, table.select_period), np.nan)
    select[: len(table.select)] = table.select
    columns = {"age": np.arange(table.first_age, table.last_age + 1), "qx": table.qx}
    pd.DataFrame(columns | {f"select_{k}": c for k, c in enumerate(select.T)}).to_csv(path, index=False)
