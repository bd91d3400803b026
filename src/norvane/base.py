"""Shared numeric types and payment-frequency constants of norvane."""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING, Literal, Union, get_args

import numpy as np
from numpy.typing import NDArray

if TYPE_CHECKING:  # pandas is optional at run time
    import pandas as pd

__all__ = [
    "FloatRangeError",
    "_NUMERIC_TYPES",
    "Scalar",
    "ScalarSequence",
    "PaymentFrequencyLiteral",
    "_ALLOWED_PAYMENT_FREQUENCIES",
]

# ``bool`` subclasses ``int``: every check built on this tuple must also
# refuse ``bool`` and ``np.bool_`` explicitly.
_NUMERIC_TYPES = (int, float, np.integer, np.floating)


class FloatRangeError(OverflowError, ValueError):
    """A number beyond the float64 range, such as the integer ``10**400``.

    Every route that turns a caller's number into a float raises it: an
    ``OverflowError`` as ``float()`` raises for such an integer, and a
    ``ValueError`` as the array conversions raise, so a handler for either
    catches it wherever the number was given.
    """


Scalar = int | float | np.integer | np.floating
"""One real number: a Python int or float, or a NumPy integer/floating scalar."""

ScalarSequence = Union[Sequence[Scalar], NDArray[np.float64], "pd.Series[float]"]
"""A one-dimensional sequence, float64 array or pandas Series of scalars."""

PaymentFrequencyLiteral = Literal[1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365]
"""Payments per year accepted by the annuity methods."""

_ALLOWED_PAYMENT_FREQUENCIES: tuple[int, ...] = get_args(PaymentFrequencyLiteral)
