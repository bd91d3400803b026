"""Growth of annuity payments."""

from __future__ import annotations

import math
from typing import Any, Literal, get_args

import numpy as np
from numpy.typing import NDArray

# The helpers' own modules, not norvane.helpers, which needs this module to group a batch by growth.
from ._helpers.conversion import _as_f64_safe, _finalize_scalar_or_array
from ._helpers.scalars import _real_float
from .base import _NUMERIC_TYPES

__all__ = ["GrowthKindLiteral", "GrowthRate"]

GrowthKindLiteral = Literal["geometric", "arithmetic"]
_GROWTH_KINDS: tuple[str, ...] = get_args(GrowthKindLiteral)


class GrowthRate:
    """Annual growth of the payments of an annuity.

    Payments grow in annual steps counted from the first payment of the
    schedule: every payment in year ``j`` (``j = 0, 1, ...``) is multiplied by
    ``(1 + rate) ** j`` (geometric) or ``1 + rate * j`` (arithmetic). With
    twelve payments a year the first twelve payments are therefore level.

    Parameters
    ----------
    rate : float
        Finite real growth per year; greater than -1 when geometric. An
        arithmetic rate may be negative, in which case late factors can reach
        zero or below: that is the caller's model, not clipped here.
    kind : {"geometric", "arithmetic"}, default "geometric"
        Compound (``(1 + rate) ** j``) or simple (``1 + rate * j``) growth.

    Raises
    ------
    TypeError
        For a rate that is not a real number (booleans included) or a kind that
        is not a str.
    ValueError
        For a non-finite rate, a geometric rate <= -1 or an unknown kind.

    Notes
    -----
    Instances are immutable values: equal and hashed by ``(kind, rate)``,
    and picklable.
    """

    __slots__ = ("_rate", "_kind")

    _rate: float
    _kind: str

    def __init__(self, rate: float, kind: GrowthKindLiteral = "geometric") -> None:
        value = _real_float(rate, "rate", "GrowthRate")
        if not isinstance(kind, str):
            raise TypeError(f"[GrowthRate] 'kind' must be a str, got {type(kind).__name__}")
        if kind not in _GROWTH_KINDS:
            raise ValueError(f"[GrowthRate] 'kind' must be one of {_GROWTH_KINDS}, got {kind!r}")
        if not math.isfinite(value):
            raise ValueError(f"[GrowthRate] 'rate' must be finite, got {value!r}")
        if kind == "geometric" and value <= -1.0:
            raise ValueError(f"[GrowthRate] a geometric 'rate' must be > -1, got {value!r}")
        object.__setattr__(self, "_rate", value)
        object.__setattr__(self, "_kind", kind)

    @property
    def rate(self) -> float:
        """Growth per year."""
        return self._rate

    @property
    def kind(self) -> str:
        """``"geometric"`` or ``"arithmetic"``."""
        return self._kind

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("GrowthRate is immutable")

    def factors(self, years: Any) -> float | NDArray[np.float64]:
        """Growth factors after ``years`` completed years.

        Parameters
        ----------
        years : scalar or array-like of real numbers
            Completed years since the first payment (usually whole numbers).

        Returns
        -------
        float or ndarray of float64
            ``(1 + rate) ** years`` or ``1 + rate * years``; a float for a
            scalar, an array of the input's shape otherwise.
        """
        y = _as_f64_safe(years)
        if self._kind == "geometric":
            out = np.power(1.0 + self._rate, y)
        else:
            out = 1.0 + self._rate * y
        return _finalize_scalar_or_array(out, y.ndim == 0)

    def payment_factors(self, n_payments: int, m: int) -> NDArray[np.float64]:
        """Growth factors of the first ``n_payments`` payments of an m-thly schedule.

        Parameters
        ----------
        n_payments : int
            Number of payments, >= 0.
        m : int
            Payments per year, >= 1.

        Returns
        -------
        ndarray of float64
            Payment ``k`` falls in year ``k // m``, so it gets ``factors(k // m)``.

        Raises
        ------
        ValueError
            For a negative ``n_payments`` or an ``m`` below 1.
        """
        for name, value in (("n_payments", n_payments), ("m", m)):
            if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
                raise TypeError(
                    f"[GrowthRate.payment_factors] '{name}' must be an integer, got {type(value).__name__}."
                )
        if n_payments < 0 or m < 1:
            raise ValueError("[GrowthRate.payment_factors] need n_payments >= 0 and m >= 1")
        return np.asarray(self.factors(np.arange(int(n_payments)) // int(m)), dtype=np.float64)

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, GrowthRate):
            return NotImplemented
        return self._kind == other._kind and self._rate == other._rate

    def __hash__(self) -> int:
        return hash((self._kind, self._rate))

    def __repr__(self) -> str:
        return f"GrowthRate({self._rate!r}, kind={self._kind!r})"

    def __reduce__(self) -> tuple[Any, ...]:
        return (GrowthRate, (self._rate, self._kind))


def _as_growth_rate(value: Any) -> GrowthRate | None:
    """Growth rate of an annuity argument.

    Parameters
    ----------
    value : GrowthRate, real or None
        The argument as given.

    Returns
    -------
    GrowthRate or None
        None stays None, a ``GrowthRate`` stays, a real number becomes a
        geometric ``GrowthRate``.

    Raises
    ------
    TypeError
        For anything else (booleans included).
    """
    if value is None or isinstance(value, GrowthRate):
        return value
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, _NUMERIC_TYPES):
        raise TypeError(f"growth rate must be a GrowthRate, a real number or None, got {type(value).__name__}")
    return GrowthRate(value)  # type: ignore[arg-type]  # NumPy scalars are accepted like floats
