"""float64 conversion: any real input becomes a C-contiguous float64 array.

The common inputs (a Python float or int, a C-contiguous float64 array) take
an early branch; booleans, strings, complex numbers and other objects are
refused with ``TypeError`` rather than silently cast.
"""

from __future__ import annotations

import sys
from collections.abc import Iterable
from typing import Any, cast

import numpy as np
from numpy.typing import NDArray

from ..base import _NUMERIC_TYPES, FloatRangeError

F64Array = NDArray[np.float64]

_F64 = np.dtype(np.float64)

_EMPTY_F64: F64Array = np.empty(0, dtype=np.float64)
_EMPTY_F64.flags.writeable = False

_MAX_FLOAT64: float = float(np.finfo(np.float64).max)


_BOOL_TYPES = (bool, np.bool_)
_INTEGER_TYPES = (int, np.integer)


def _not_real(x: object) -> TypeError:
    return TypeError(
        "expected a real number or an array-like of real numbers (booleans, "
        f"strings, complex and other objects are refused), got {type(x).__name__}"
    )


def _out_of_range() -> FloatRangeError:
    return FloatRangeError("a value is too large to be represented as a float64")


def _is_pandas_1d(x: object) -> bool:
    # pandas is optional: if it was never imported, x cannot be one of its types.
    pd = sys.modules.get("pandas")
    return pd is not None and isinstance(x, (pd.Series, pd.Index))


def _pandas_values(x: Any) -> np.ndarray:
    dtype = x.dtype
    # pandas is untyped here: its conversions are cast to what they return.
    if isinstance(dtype, np.dtype):
        return cast(np.ndarray, x.to_numpy())
    # Extension dtypes (nullable Int64/Float64, boolean, string, category).
    kind = dtype.kind
    if kind == "b":
        raise _not_real(x)
    if kind in "iuf":
        if x.hasnans:
            return cast(np.ndarray, x.to_numpy(dtype=np.float64, na_value=np.nan))
        return cast(np.ndarray, x.to_numpy(dtype=dtype.numpy_dtype))
    return np.asarray(x.to_numpy())


def _types_are_real(types: Iterable[type]) -> bool:
    return all(issubclass(t, _NUMERIC_TYPES) and not issubclass(t, _BOOL_TYPES) for t in types)


def _real_array(x: object) -> np.ndarray:
    """Array of a real dtype (int, uint or float kind) holding ``x``.

    Object arrays of numbers come back as int64 when every element is an
    integer and as float64 otherwise. Anything that is not real raises
    ``TypeError``.
    """
    if isinstance(x, np.ndarray):
        arr = x
    elif x is None or isinstance(x, (str, bytes) + _BOOL_TYPES):
        raise _not_real(x)
    elif isinstance(x, _NUMERIC_TYPES):
        arr = np.asarray(x)
    elif isinstance(x, (list, tuple)):
        try:
            arr = np.asarray(x)
        except ValueError:
            raise ValueError("ragged nested sequences do not form a numeric array") from None
        if arr.dtype.kind in "iuf":
            # np.asarray turns [1.0, True] into [1.0, 1.0]: look at the items.
            items = x if arr.ndim == 1 else np.asarray(x, dtype=object).flat
            if not _types_are_real(set(map(type, items))):
                raise _not_real(x)
    elif _is_pandas_1d(x):
        arr = _pandas_values(x)
    else:
        try:
            arr = np.asarray(x)
        except Exception:  # noqa: BLE001 - whatever a foreign __array__ raises, x is not a real array
            raise _not_real(x) from None

    kind = arr.dtype.kind
    if kind in "iuf":
        # A masked array exists only once numpy.ma is imported: no import here.
        ma = sys.modules.get("numpy.ma")
        if ma is not None and isinstance(arr, ma.MaskedArray):
            arr = ma.filled(arr.astype(np.float64), np.nan)
        return arr
    if kind == "O":
        types = set(map(type, arr.flat))
        if not _types_are_real(types):
            raise _not_real(x)
        integral = all(issubclass(t, _INTEGER_TYPES) for t in types)
        try:
            return arr.astype(np.int64 if integral else np.float64)
        except OverflowError:
            if integral:
                try:
                    return arr.astype(np.float64)
                except OverflowError:
                    pass
            raise _out_of_range() from None
    raise _not_real(x)


def _as_f64_safe(x: Any) -> F64Array:
    """Convert ``x`` to a C-contiguous float64 array.

    Parameters
    ----------
    x : scalar, sequence, ndarray or pandas Series
        A real number (Python or NumPy scalar), a (nested) sequence of them,
        a NumPy array of any integer or floating dtype (non-contiguous and
        read-only arrays included) or a pandas Series/Index. Missing values
        of pandas nullable dtypes and masked entries become NaN.

    Returns
    -------
    ndarray of float64
        0-d for a scalar, C-contiguous and aligned. Such a float64 ndarray is
        returned as is, without a copy: callers that keep the result must copy it.

    Raises
    ------
    TypeError
        For booleans (also ``np.bool_`` and bool arrays), strings, None,
        complex numbers and other non-numeric objects.
    ValueError
        For ragged nested sequences; ``FloatRangeError`` (a ``ValueError``)
        for integers beyond the float64 range.
    """
    tp = type(x)
    if tp is np.ndarray:
        if x.dtype is _F64:
            flags = x.flags
            return x if flags.c_contiguous and flags.aligned else _aligned(x)
    elif tp is float:
        return np.array(x, dtype=_F64)
    elif tp is int:
        try:
            return np.array(x, dtype=_F64)
        except OverflowError:
            raise _out_of_range() from None
    elif isinstance(x, (np.floating, np.integer)) and x.dtype.itemsize <= 8:
        return np.array(x, dtype=_F64)

    arr = _real_array(x)
    if arr.dtype.itemsize > 8 and arr.dtype.kind == "f":
        # long double beyond the float64 range becomes +-inf, as a cast does.
        with np.errstate(over="ignore"):
            return _aligned(arr)
    return _aligned(arr)


def _aligned(arr: Any) -> F64Array:
    # The native code reads whole doubles: an array at an odd address (from a
    # byte buffer, say) is copied, as a non-contiguous one is.
    return np.require(arr, dtype=_F64, requirements=["C", "A"])


def _is_finite_f64_array(a: F64Array) -> NDArray[np.bool_]:
    """Boolean mask of the finite elements of the float64 array ``a``."""
    return np.isfinite(a)


def _finalize_scalar_or_array(result: F64Array | float, is_scalar: bool) -> float | F64Array:
    """Give a scalar caller a float and an array caller the array.

    Parameters
    ----------
    result : ndarray or array-like
        Values computed on the float64 form of the input.
    is_scalar : bool
        Whether the caller passed a single number.

    Returns
    -------
    float or ndarray
        ``float`` of the first element when ``is_scalar``, else ``result``
        unchanged.
    """
    if not is_scalar:
        return result
    if isinstance(result, np.ndarray):
        return float(result.flat[0])
    return float(np.ravel(result)[0])
