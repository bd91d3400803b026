"""Calculation modes and caller tags shared by the valuation engine."""

from __future__ import annotations

import enum
from typing import Literal, get_args

__all__ = ["CalculationModeLiteral", "Dispatcher", "_CALCULATION_MODES"]

CalculationModeLiteral = Literal[
    "discrete_precision",
    "discrete_simplified",
    "continuous_precision",
    "continuous_simplified",
]
"""How annuities are valued: exact payment sums, Woolhouse, continuous flows."""

_CALCULATION_MODES: tuple[str, ...] = get_args(CalculationModeLiteral)


class Dispatcher(enum.Enum):
    """Which public entry point is asking the shared validators for a check.

    Attributes
    ----------
    ANNUITY
        The annuity methods ``InterestRate.a`` and ``InterestRate.ä``.
    """

    ANNUITY = "annuity"
