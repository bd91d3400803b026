"""Parametric mortality laws and the tables they generate, among them the
bundled tables (generated here at first use, nothing copied from elsewhere)."""

from __future__ import annotations

import functools
import math
from dataclasses import dataclass

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ..helpers import _named_f64, _real_float
from .tables import MAX_AGE, FractionalAgeLiteral, MortalityTable, _integer

__all__ = ["MakehamLaw", "BUNDLED_TABLES", "bundled_table", "constant_force", "gompertz", "makeham"]


@dataclass(frozen=True)
class MakehamLaw:
    """Force of mortality mu_x = A + B c^x (Gompertz: A = 0; constant force: B = 0).

    q_x = 1 - exp(-integral of mu over [x, x + 1]) = 1 - exp(-A - B c^x (c - 1) / ln c).
    """

    A: float
    B: float
    c: float

    def __post_init__(self) -> None:
        for name in ("A", "B", "c"):
            value = _real_float(getattr(self, name), name, "MakehamLaw")
            if not math.isfinite(value):
                raise ValueError(f"[MakehamLaw] '{name}' must be finite, got {value!r}.")
            object.__setattr__(self, name, value)
        if self.A < 0.0 or self.B < 0.0 or self.c <= 0.0:
            raise ValueError(f"[MakehamLaw] needs A >= 0, B >= 0 and c > 0, got A={self.A}, B={self.B}, c={self.c}.")

    def force(self, x: ArrayLike) -> NDArray[np.float64]:
        """mu_x at real ages x."""
        ages = _named_f64(x, "x", "MakehamLaw.force")
        if self.B == 0.0:  # no age term, however large c^x
            return np.full(ages.shape, self.A)
        with np.errstate(over="ignore"):  # beyond the float range the force is infinite
            return self.A + self.B * np.power(self.c, ages)

    def qx(self, ages: ArrayLike) -> NDArray[np.float64]:
        """One-year death probabilities at the given ages."""
        x = _named_f64(ages, "ages", "MakehamLaw.qx")
        # (c - 1) / ln c tends to 1 as c -> 1 (a constant force B).
        growth = 1.0 if self.c == 1.0 else (self.c - 1.0) / math.log(self.c)
        if self.B == 0.0:  # no age term, however large c^x
            return np.full(x.shape, -math.expm1(-self.A))
        with np.errstate(over="ignore"):  # a force beyond the float range: q = 1
            return -np.expm1(-self.A - self.B * np.power(self.c, x) * growth)

    def table(self, first_age: int, last_age: int, *, fractional_age: FractionalAgeLiteral = "udd") -> MortalityTable:
        """The ultimate table of the law for ages ``first_age`` to ``last_age``, closed there (q = 1).

        Ages are whole numbers from 0 to ``MAX_AGE``.
        """
        first = _integer(first_age, "first_age", "MakehamLaw.table")
        last = _integer(last_age, "last_age", "MakehamLaw.table")
        if not 0 <= first <= last <= MAX_AGE:
            raise ValueError(
                f"[MakehamLaw.table] ages must satisfy 0 <= first_age <= last_age <= {MAX_AGE}, "
                f"got first_age={first}, last_age={last}."
            )
        q = self.qx(np.arange(first, last + 1))
        q[-1] = 1.0
        return MortalityTable(q, first_age=first, fractional_age=fractional_age)


def constant_force(mu: float) -> MakehamLaw:
    """A constant force of mortality mu (q = 1 - e^-mu at every age)."""
    return MakehamLaw(mu, 0.0, 1.0)


def gompertz(B: float, c: float) -> MakehamLaw:
    """Gompertz's law mu_x = B c^x."""
    return MakehamLaw(0.0, B, c)


def makeham(A: float, B: float, c: float) -> MakehamLaw:
    """Makeham's law mu_x = A + B c^x."""
    return MakehamLaw(A, B, c)


# The bundled tables: (law, first age, last age).
_BUNDLED: dict[str, tuple[MakehamLaw, int, int]] = {
    "makeham_20_120": (makeham(0.00022, 2.7e-6, 1.124), 20, 120),
    "makeham_13_110": (makeham(0.0007, 5e-5, 10**0.04), 13, 110),
}
BUNDLED_TABLES: tuple[str, ...] = tuple(_BUNDLED)
"""Names of the bundled tables."""


def bundled_table(name: str) -> MortalityTable:
    """A bundled table by name (see ``BUNDLED_TABLES``)."""
    if not isinstance(name, str) or name not in _BUNDLED:
        raise ValueError(f"[bundled_table] unknown table {name!r}; bundled tables are {list(BUNDLED_TABLES)}.")
    return _bundled(name)


@functools.cache
def _bundled(name: str) -> MortalityTable:
    law, first, last = _BUNDLED[name]
    return law.table(first, last)
