"""Validation of single values and one-dimensional sequences.

Messages start with ``"[" + method_name + "] "`` when a method name is given
and name the offending parameter in single quotes.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np

from ..base import _NUMERIC_TYPES, FloatRangeError
from .conversion import _BOOL_TYPES, _F64, F64Array, _as_f64_safe


def _prefixed(method_name: str, text: str) -> str:
    return f"[{method_name}] {text}" if method_name else text


def _too_large(value: Any, name: str, method_name: str) -> FloatRangeError:
    """The error for a number ``float()`` cannot hold (only integers overflow it)."""
    size = f"an integer of {value.bit_length()} bits" if isinstance(value, int) else type(value).__name__
    return FloatRangeError(_prefixed(method_name, f"'{name}' is too large to be represented as a float64, got {size}."))


def _named_f64(values: Any, name: str, method_name: str) -> F64Array:
    """``_as_f64_safe(values)`` whose errors keep their class and name the parameter and the method."""
    try:
        return _as_f64_safe(values)
    except (TypeError, ValueError) as exc:
        raise type(exc)(_prefixed(method_name, f"'{name}': {exc}.")) from None


def _real_float(value: Any, name: str, method_name: str) -> float:
    """A single real number as a float: the one conversion of a caller's number.

    Raises
    ------
    TypeError
        For booleans and anything that is not an int, float or NumPy real scalar.
    FloatRangeError
        For an integer beyond the float64 range (both an OverflowError and a ValueError).
    """
    if isinstance(value, _BOOL_TYPES) or not isinstance(value, _NUMERIC_TYPES):
        raise TypeError(_prefixed(method_name, f"'{name}' must be a real number, got {type(value).__name__}."))
    try:
        return float(value)
    except OverflowError:
        raise _too_large(value, name, method_name) from None


def _validate_numeric_input(
    value: Any,
    allow_none: bool = False,
    allow_sequence: bool = True,
    method_name: str = "",
    attr_name: str = "",
) -> tuple[F64Array | None, bool]:
    """Validate a numeric scalar or array-like and return it as float64.

    Parameters
    ----------
    value : scalar, sequence, ndarray, pandas Series or None
        Input to check. NaN and infinity are accepted.
    allow_none : bool, default False
        Accept ``None`` and return ``(None, True)``.
    allow_sequence : bool, default True
        Accept array-likes; otherwise only a single number passes.
    method_name, attr_name : str
        Used in messages, e.g. ``[InterestRate] Parameter 'n' must be numeric.``

    Returns
    -------
    value : ndarray of float64 or None
        One element for a scalar (or 0-d array); otherwise the float64 array
        of the input, any number of dimensions, empty allowed (not copied when
        it already is a C-contiguous float64 array).
    is_scalar : bool
        True exactly when the input was a single number (or None).

    Raises
    ------
    TypeError
        For booleans, strings, None (unless allowed), non-numeric input, and
        array-likes when ``allow_sequence`` is false.
    ValueError
        For ragged sequences; ``FloatRangeError`` (also a ``ValueError``) for
        integers beyond the float64 range.
    """
    tp = type(value)
    if tp is float or tp is int:
        try:
            return np.array((float(value),), dtype=_F64), True
        except OverflowError:
            pass  # an int beyond float64: reported below with the parameter name
    if tp is np.ndarray and value.dtype is _F64:
        if value.ndim == 0:
            return value.reshape(1), True
        if allow_sequence:
            return (value if value.flags.c_contiguous else np.ascontiguousarray(value)), False
    elif value is None and allow_none:
        return None, True

    arr = _converted(value, method_name, f"Parameter '{attr_name}'", "numeric")
    if arr.ndim == 0:
        return arr.reshape(1), True
    if not allow_sequence:
        raise TypeError(_prefixed(method_name, f"Parameter '{attr_name}' must be a single number, not a sequence."))
    return arr, False


def _converted(value: Any, method_name: str, what: str, expected: str) -> F64Array:
    """``_as_f64_safe(value)`` with messages that name the parameter."""
    try:
        return _as_f64_safe(value)
    except TypeError:
        raise TypeError(_prefixed(method_name, f"{what} must be {expected}.")) from None
    except ValueError as exc:  # the class is kept: a FloatRangeError stays one
        raise type(exc)(_prefixed(method_name, f"{what}: {exc}.")) from None


def _validate_float_sequence(seq: Any, method_name: str = "", attr_name: str = "") -> F64Array:
    """Validate a one-dimensional sequence of real numbers.

    Parameters
    ----------
    seq : sequence, ndarray or pandas Series
        Values to convert; empty is allowed.
    method_name, attr_name : str
        Used in messages.

    Returns
    -------
    ndarray of float64
        One-dimensional and C-contiguous.

    Raises
    ------
    TypeError
        For a scalar, a string, None or non-numeric items.
    ValueError
        For more than one dimension.
    """
    what = f"Parameter '{attr_name}'"
    arr = _converted(seq, method_name, what, "a sequence of real numbers")
    if arr.ndim == 0:
        raise TypeError(_prefixed(method_name, f"{what} must be a sequence of real numbers, not a single value."))
    if arr.ndim > 1:
        raise ValueError(_prefixed(method_name, f"{what} must be one-dimensional, got {arr.ndim} dimensions."))
    return arr


_TYPE_NAMES: dict[type, str] = {np.integer: "numpy integer", np.floating: "numpy floating"}


def _validate_scalar_numeric(
    value: Any,
    name: str,
    method: str,
    allowed_types: type | tuple[type, ...],
    cast: Callable[[Any], Any] | None = None,
) -> Any:
    """Check that ``value`` is one of ``allowed_types`` (never a bool) and cast it.

    Parameters
    ----------
    value : object
        The value to check.
    name, method : str
        Parameter and method names for the message.
    allowed_types : type or tuple of types
        Accepted types, as for ``isinstance``.
    cast : callable, optional
        Applied to the accepted value (e.g. ``int``); None returns it unchanged.

    Returns
    -------
    object
        ``cast(value)``, or ``value`` itself when ``cast`` is None.

    Raises
    ------
    TypeError
        ``[method] Parameter 'name' must be of type ..., got <type>.``
    """
    if isinstance(value, _BOOL_TYPES) or not isinstance(value, allowed_types):
        types = allowed_types if isinstance(allowed_types, tuple) else (allowed_types,)
        names = " or ".join(_TYPE_NAMES.get(t, t.__name__) for t in types)
        raise TypeError(_prefixed(method, f"Parameter '{name}' must be of type {names}, got {type(value).__name__}."))
    return value if cast is None else cast(value)
