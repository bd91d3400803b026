"""Shared input validation, float64 conversion and batch bookkeeping.

Everything here is called on the public paths of ``norvane.interest_rates``:
the common inputs (a Python float or int, a C-contiguous float64 array) take
an early branch, and no function loops in Python over the elements of a
numeric array. Messages start with ``"[" + method_name + "] "`` when a method
name is given and name the offending parameter in single quotes.
"""

from __future__ import annotations

import functools
import operator
import sys
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import NDArray

from . import _kernels
from .base import _ALLOWED_PAYMENT_FREQUENCIES, _NUMERIC_TYPES

if TYPE_CHECKING:
    from .growth_rates import GrowthRate

__all__ = [
    "_EMPTY_F64",
    "_MAX_FLOAT64",
    "BatchErrorReport",
    "BatchResult",
    "_aggregate_flow_parts",
    "_arraylike_len_or_1",
    "_as_f64_safe",
    "_batch_m_for_nan_recurse",
    "_cashflow_amounts_payment_skip",
    "_check_batch_param",
    "_coerce_record_ids",
    "_collect_batch_param_errors",
    "_detect_batch_ir_annuity",
    "_finalize_batch_unit_pv_with_benefits",
    "_finalize_scalar_or_array",
    "_group_batch_m_gr_indices",
    "_has_growth_rate_param",
    "_is_finite_f64_array",
    "_map_batch_n_none_to_inf",
    "_payment_count",
    "_resolve_batch_m",
    "_validate_benefits",
    "_validate_float_sequence",
    "_validate_numeric_input",
    "_validate_on_error_batch_only",
    "_validate_record_ids_batch_only",
    "_validate_scalar_numeric",
    "_validate_t_output",
]

F64Array = NDArray[np.float64]

_F64 = np.dtype(np.float64)

_EMPTY_F64: F64Array = np.empty(0, dtype=np.float64)
_EMPTY_F64.flags.writeable = False

_MAX_FLOAT64: float = float(np.finfo(np.float64).max)

# Remainders of n*m within this distance of a whole number of payments are
# floating-point noise, not a partial period (the curve's default tolerance_eps).
_PAYMENT_COUNT_TOL = 1e-12

# Flow times closer than this (relative, floor 1) are one point of a merged
# grid: k/m schedules built from different deferments differ in the last ulp.
_FLOW_TIME_TOL = 1e-12

_BOOL_TYPES = (bool, np.bool_)
_INTEGER_TYPES = (int, np.integer)
_is_none: Callable[[object], bool] = functools.partial(operator.is_, None)


def _prefixed(method_name: str, text: str) -> str:
    return f"[{method_name}] {text}" if method_name else text


# --------------------------------------------------------------------------
# float64 conversion
# --------------------------------------------------------------------------


def _not_real(x: object) -> TypeError:
    return TypeError(
        "expected a real number or an array-like of real numbers (booleans, "
        f"strings, complex and other objects are refused), got {type(x).__name__}"
    )


def _out_of_range() -> ValueError:
    return ValueError("a value is too large to be represented as a float64")


def _is_pandas_1d(x: object) -> bool:
    # pandas is optional: if it was never imported, x cannot be one of its types.
    pd = sys.modules.get("pandas")
    return pd is not None and isinstance(x, (pd.Series, pd.Index))


def _pandas_values(x: Any) -> np.ndarray:
    dtype = x.dtype
    if isinstance(dtype, np.dtype):
        return x.to_numpy()
    # Extension dtypes (nullable Int64/Float64, boolean, string, category).
    kind = dtype.kind
    if kind == "b":
        raise _not_real(x)
    if kind in "iuf":
        if x.hasnans:
            return x.to_numpy(dtype=np.float64, na_value=np.nan)
        return x.to_numpy(dtype=dtype.numpy_dtype)
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
        if isinstance(arr, np.ma.MaskedArray):
            arr = arr.astype(np.float64).filled(np.nan)
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


def _as_f64_safe(x: object) -> F64Array:
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
        For ragged nested sequences and integers beyond the float64 range.
    """
    tp = type(x)
    if tp is np.ndarray:
        if x.dtype is _F64:  # type: ignore[union-attr]
            flags = x.flags  # type: ignore[union-attr]
            return x if flags.c_contiguous and flags.aligned else _aligned(x)  # type: ignore[return-value]
    elif tp is float:
        return np.array(x, dtype=_F64)
    elif tp is int:
        try:
            return np.array(x, dtype=_F64)
        except OverflowError:
            raise _out_of_range() from None
    elif isinstance(x, (np.floating, np.integer)) and x.dtype.itemsize <= 8:  # type: ignore[union-attr]
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


# --------------------------------------------------------------------------
# validation of single values and arrays
# --------------------------------------------------------------------------


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
        For ragged sequences and integers beyond the float64 range.
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
    except ValueError as exc:
        raise ValueError(_prefixed(method_name, f"{what}: {exc}.")) from None


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


_TYPE_NAMES = {np.integer: "numpy integer", np.floating: "numpy floating"}


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


def _finalize_scalar_or_array(result: Any, is_scalar: bool) -> float | F64Array:
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


# --------------------------------------------------------------------------
# batch mode: detection and router checks
# --------------------------------------------------------------------------


def _batch_length(x: object) -> int:
    """Length of a per-policy input, or -1 for a single value."""
    tp = type(x)
    if tp is list or tp is tuple:
        return len(x)  # type: ignore[arg-type]
    if tp is np.ndarray:
        return x.shape[0] if x.ndim else -1  # type: ignore[union-attr]
    if x is None or tp is float or tp is int or tp is str:
        return -1
    if isinstance(x, (list, tuple)):
        return len(x)
    if isinstance(x, np.ndarray):
        return x.shape[0] if x.ndim else -1
    if _is_pandas_1d(x):
        return len(x)  # type: ignore[arg-type]
    return -1


def _detect_batch_ir_annuity(n: Any, d: Any, ts: Any, m: Any, gr: Any) -> tuple[bool, int]:
    """Tell whether an annuity call values a batch of policies.

    Batch mode holds when any argument is a list, tuple, NumPy array with
    ``ndim >= 1`` or pandas Series (a one-element array counts). A
    ``GrowthRate`` or a number for ``gr`` is a single value.

    Parameters
    ----------
    n, d, ts, m, gr : object
        The term, deferment, valuation time, payment frequency and growth
        rate as the caller passed them.

    Returns
    -------
    is_batch : bool
    N : int
        The largest length among the per-policy inputs (1 when not batch).
        Conflicting lengths are reported later, by the batch dispatcher.
    """
    longest = max(_batch_length(n), _batch_length(d), _batch_length(ts), _batch_length(m), _batch_length(gr))
    if longest < 0:
        return False, 1
    return True, longest


_BATCH_ONLY_HINT = "requires batch mode (array n, d, ts, m, or gr)."


def _validate_on_error_batch_only(on_error: Any, is_batch: bool, method_name: str) -> None:
    """Accept ``"raise"`` always and ``"nan"`` only in batch mode.

    Parameters
    ----------
    on_error : object
        The caller's error policy.
    is_batch : bool
        Whether the call values a batch of policies.
    method_name : str
        Prefix of the messages.

    Raises
    ------
    ValueError
        For any other value, or ``"nan"`` outside batch mode.
    """
    if isinstance(on_error, str):
        if on_error == "raise":
            return
        if on_error == "nan":
            if is_batch:
                return
            raise ValueError(_prefixed(method_name, f"on_error='nan' {_BATCH_ONLY_HINT}"))
    raise ValueError(_prefixed(method_name, f"'on_error' must be 'raise' or 'nan', got {on_error!r}."))


def _validate_record_ids_batch_only(record_ids: Any, is_batch: bool, N: int, method_name: str) -> None:
    """Accept ``record_ids`` only in batch mode, as a sequence of N ids.

    Parameters
    ----------
    record_ids : sequence, ndarray, pandas Series or None
        Policy identifiers; None is always accepted.
    is_batch : bool
        Whether the call values a batch of policies.
    N : int
        Batch size.
    method_name : str
        Prefix of the messages.

    Raises
    ------
    ValueError
        When given outside batch mode, not one-dimensional, or of a length
        other than ``N``.
    TypeError
        When not a sequence (a string is not a sequence of ids).
    """
    if record_ids is None:
        return
    if not is_batch:
        raise ValueError(_prefixed(method_name, f"record_ids {_BATCH_ONLY_HINT}"))
    if isinstance(record_ids, (str, bytes)) or not (
        isinstance(record_ids, (Sequence, np.ndarray)) or _is_pandas_1d(record_ids)
    ):
        raise TypeError(
            _prefixed(
                method_name,
                f"'record_ids' must be a sequence with one id per policy, got {type(record_ids).__name__}.",
            )
        )
    if isinstance(record_ids, np.ndarray) and record_ids.ndim != 1:
        raise ValueError(_prefixed(method_name, "'record_ids' must be one-dimensional."))
    if len(record_ids) != N:
        raise ValueError(
            _prefixed(method_name, f"'record_ids' must have one id per policy: expected {N}, got {len(record_ids)}.")
        )


def _first_index(mask: NDArray[np.bool_]) -> int:
    return int(np.argmax(mask))


def _validate_t_output(t_output: Any, return_flows: bool, is_batch: bool, method_name: str) -> F64Array | None:
    """Check an output grid for aggregated batch cash flows.

    ``None`` is always accepted. Otherwise batch mode and ``return_flows``
    are required and the grid must be one-dimensional, non-empty, finite,
    non-negative and strictly increasing.

    Parameters
    ----------
    t_output : array-like or None
        Output grid in years from the valuation time.
    return_flows : bool
        Whether the caller asked for cash flows.
    is_batch : bool
        Whether the call values a batch of policies.
    method_name : str
        Prefix of the messages.

    Returns
    -------
    ndarray of float64 or None
        The grid as a float64 array.

    Raises
    ------
    TypeError
        For a scalar or non-numeric grid.
    ValueError
        Outside batch mode, without ``return_flows``, or for a grid that
        breaks one of the rules above.
    """
    if t_output is None:
        return None
    if not is_batch:
        raise ValueError(_prefixed(method_name, f"t_output {_BATCH_ONLY_HINT}"))
    if not return_flows:
        raise ValueError(_prefixed(method_name, "t_output requires return_flows=True."))
    grid = _validate_float_sequence(t_output, method_name, "t_output")
    if grid.size == 0:
        raise ValueError(_prefixed(method_name, "'t_output' must not be empty."))
    bad = ~(np.isfinite(grid) & (grid >= 0.0))
    if bad.any():
        i = _first_index(bad)
        raise ValueError(
            _prefixed(method_name, f"'t_output' must be finite and >= 0 at index {i}, got {float(grid[i])!r}.")
        )
    not_increasing = np.diff(grid) <= 0.0
    if not_increasing.any():
        i = _first_index(not_increasing) + 1
        raise ValueError(
            _prefixed(
                method_name,
                f"'t_output' must be strictly increasing, got {float(grid[i])!r} after "
                f"{float(grid[i - 1])!r} at index {i}.",
            )
        )
    return grid


# --------------------------------------------------------------------------
# batch mode: per-policy arrays
# --------------------------------------------------------------------------


def _map_batch_n_none_to_inf(n: Any) -> Any:
    """Map ``None`` terms (perpetuities) to ``inf``.

    Parameters
    ----------
    n : object
        A term or per-policy terms, as the caller passed them.

    Returns
    -------
    object
        A scalar None becomes ``np.inf``; None entries of a list, tuple,
        object array or object Series become ``inf`` (a new list or array).
        Anything else is returned unchanged; NaN is not None and stays NaN.
    """
    if n is None:
        return np.inf
    if isinstance(n, (list, tuple)):
        if any(map(_is_none, n)):
            return [np.inf if v is None else v for v in n]
        return n
    if _is_pandas_1d(n):
        if n.dtype != object:
            return n
        n = n.to_numpy()
    if isinstance(n, np.ndarray) and n.dtype == object:
        mask = np.fromiter(map(_is_none, n.flat), dtype=bool, count=n.size).reshape(n.shape)
        if mask.any():
            n = n.copy()
            n[mask] = np.inf
    return n


def _arraylike_len_or_1(x: Any) -> int:
    """Length of a list, tuple, array (first axis) or Series; 1 for a scalar."""
    length = _batch_length(x)
    return 1 if length < 0 else length


def _integer_array(x: Any, method_name: str, attr_name: str) -> NDArray[np.int64]:
    try:
        arr = _real_array(x)
    except TypeError:
        raise TypeError(
            _prefixed(method_name, f"'{attr_name}' must contain integers, got {type(x).__name__}.")
        ) from None
    if arr.dtype.kind not in "iu":
        raise TypeError(_prefixed(method_name, f"'{attr_name}' must contain integers, got dtype {arr.dtype}."))
    if arr.ndim != 1:
        raise ValueError(_prefixed(method_name, f"'{attr_name}' must be one-dimensional."))
    return arr.astype(np.int64)


def _check_frequency(m: Any, method_name: str) -> int:
    if isinstance(m, _BOOL_TYPES) or not isinstance(m, _INTEGER_TYPES):
        raise TypeError(_prefixed(method_name, f"'m' must be an integer payment frequency, got {type(m).__name__}."))
    if m not in _ALLOWED_PAYMENT_FREQUENCIES:
        raise ValueError(_prefixed(method_name, f"'m' must be one of {_ALLOWED_PAYMENT_FREQUENCIES}, got {m!r}."))
    return int(m)


def _resolve_batch_m(m: Any, N: int, method_name: str) -> int | NDArray[np.int64]:
    """Resolve the payment frequency of a batch.

    Parameters
    ----------
    m : int, sequence of int, integer array or Series
        One frequency for all policies, or one per policy (length N or 1).
    N : int
        Batch size.
    method_name : str
        Used in messages.

    Returns
    -------
    int or ndarray of int64
        An ``int`` when every policy has the same frequency (a scalar, a
        length-1 array-like, or equal values); otherwise an int64 array of
        length N.

    Raises
    ------
    TypeError
        For booleans, floats and other non-integers.
    ValueError
        For a frequency outside the allowed set (naming the first offending
        index) or a length other than N or 1.
    """
    if _batch_length(m) < 0:
        if isinstance(m, np.ndarray):  # 0-d array
            m = m[()]
        return _check_frequency(m, method_name)
    arr = _integer_array(m, method_name, "m")
    if arr.shape[0] not in (1, N):
        raise ValueError(
            _prefixed(
                method_name,
                f"Incompatible batch lengths: m={arr.shape[0]}, expected {N} or 1 (broadcast).",
            )
        )
    bad = ~np.isin(arr, _ALLOWED_PAYMENT_FREQUENCIES)
    if bad.any():
        i = _first_index(bad)
        raise ValueError(
            _prefixed(
                method_name,
                f"'m' must be one of {_ALLOWED_PAYMENT_FREQUENCIES} at index {i}, got {int(arr[i])}.",
            )
        )
    if arr.size and (arr == arr[0]).all():
        return int(arr[0])
    return np.ascontiguousarray(arr)


def _batch_m_for_nan_recurse(m: Any, valid_idx: NDArray[np.int64]) -> Any:
    """Payment frequency of the valid subset of an ``on_error="nan"`` batch.

    Parameters
    ----------
    m : int or array-like of int
        One frequency, or one per policy.
    valid_idx : ndarray of int64
        Positions of the valid policies.

    Returns
    -------
    int or ndarray
        A single frequency (scalar or length-1 array-like) unchanged; a
        per-policy one indexed with ``valid_idx``.
    """
    if _arraylike_len_or_1(m) == 1:
        return m
    values = m.to_numpy() if _is_pandas_1d(m) else np.asarray(m)
    return values[valid_idx]


def _coerce_record_ids(record_ids: Any, N: int) -> np.ndarray:
    """Record ids as a one-dimensional array of length N.

    Parameters
    ----------
    record_ids : sequence, ndarray, pandas Series or None
        Policy identifiers as the caller passed them.
    N : int
        Batch size.

    Returns
    -------
    ndarray
        ``arange(N)`` (int64) for None; otherwise an object array holding the
        given ids as the original objects, so that reports show them as passed.

    Raises
    ------
    ValueError
        When the ids are not one-dimensional or not N of them.
    """
    if record_ids is None:
        return np.arange(N, dtype=np.int64)
    if _is_pandas_1d(record_ids):
        record_ids = record_ids.tolist()
    elif isinstance(record_ids, np.ndarray):
        record_ids = record_ids.tolist() if record_ids.ndim == 1 else record_ids
    if isinstance(record_ids, np.ndarray) or len(record_ids) != N:
        raise ValueError(f"'record_ids' must be a sequence of {N} ids")
    return np.fromiter(iter(record_ids), dtype=object, count=N)


def _validate_benefits(benefits: Any, N: int, method_name: str) -> F64Array | None:
    """Validate per-policy benefit weights.

    Parameters
    ----------
    benefits : sequence, array, Series, scalar or None
        One finite non-negative weight per policy; a single number applies
        to every policy.
    N : int
        Batch size.

    Returns
    -------
    ndarray of float64 or None
        A new array of length N, or None when ``benefits`` is None.

    Raises
    ------
    TypeError
        For non-numeric values.
    ValueError
        For more than one dimension, a sequence whose length is not N, or a value
        that is negative or not finite.
    """
    if benefits is None:
        return None
    try:
        arr = _as_f64_safe(benefits)
    except TypeError:
        raise TypeError(_prefixed(method_name, "'benefits' must contain real numbers.")) from None
    if arr.ndim > 1:
        raise ValueError(_prefixed(method_name, "'benefits' must be one-dimensional."))
    if arr.ndim == 0:
        arr = np.full(N, arr.item(), dtype=np.float64)
    elif arr.shape[0] != N:
        raise ValueError(
            _prefixed(method_name, f"'benefits' must have one value per policy: expected {N}, got {arr.shape[0]}.")
        )
    else:
        arr = arr.copy()
    bad = ~(np.isfinite(arr) & (arr >= 0.0))
    if bad.any():
        i = _first_index(bad)
        raise ValueError(
            _prefixed(method_name, f"'benefits' must be finite and >= 0 at index {i}, got {float(arr[i])!r}.")
        )
    return arr


def _batch_param_invalid(arr: F64Array, min_val: float, allow_inf: bool) -> NDArray[np.bool_]:
    ok = arr >= min_val  # False for NaN
    if not allow_inf:
        ok &= arr < np.inf
    return ~ok


def _batch_param_message(name: str, index: int, value: float, min_val: float) -> str:
    return f"'{name}' must be >= {float(min_val)!r} and finite at index {index}, got {float(value)!r}"


def _flat_param(arr: Any, name: str, method_name: str) -> F64Array:
    values = _as_f64_safe(arr)
    if values.ndim > 1:
        raise ValueError(_prefixed(method_name, f"'{name}' must be one-dimensional."))
    return values.reshape(-1)


def _check_batch_param(arr: Any, name: str, method_name: str, min_val: float = 0.0, allow_inf: bool = False) -> None:
    """Raise on the first policy whose parameter is out of range.

    Every value must be ``>= min_val`` and finite (``+inf`` passes when
    ``allow_inf``, for perpetual terms). NaN never passes.

    Parameters
    ----------
    arr : scalar or array-like
        Per-policy values of the parameter.
    name, method_name : str
        Parameter and method names for the message.
    min_val : float, default 0.0
        Smallest accepted value.
    allow_inf : bool, default False
        Accept ``+inf``.

    Raises
    ------
    ValueError
        e.g. ``[InterestRate.a] 'n' must be >= 0.0 and finite at index 1, got -1.0``.
    """
    values = _flat_param(arr, name, method_name)
    bad = _batch_param_invalid(values, min_val, allow_inf)
    if bad.any():
        i = _first_index(bad)
        raise ValueError(_prefixed(method_name, _batch_param_message(name, i, values[i], min_val)))


def _collect_batch_param_errors(
    method_name: str, checks: Iterable[tuple[str, Any, float, bool]]
) -> tuple[NDArray[np.bool_], list[str]]:
    """Check several per-policy parameters without raising (``on_error="nan"``).

    Parameters
    ----------
    method_name : str
        Used in messages.
    checks : iterable of (name, array, min_val, allow_inf)
        The same rule as :func:`_check_batch_param`; arrays share one length.

    Returns
    -------
    valid_mask : ndarray of bool
    messages : list of str
        One text per invalid record, in index order; a record with several
        faults gets their messages joined by ``"; "``.
    """
    named: list[tuple[str, F64Array, float, NDArray[np.bool_]]] = []
    for name, arr, min_val, allow_inf in checks:
        values = _flat_param(arr, name, method_name)
        named.append((name, values, min_val, _batch_param_invalid(values, min_val, allow_inf)))
    if not named:
        return np.ones(0, dtype=bool), []
    invalid = functools.reduce(operator.or_, (bad for *_, bad in named))
    messages = [
        _prefixed(
            method_name,
            "; ".join(
                _batch_param_message(name, i, values[i], min_val) for name, values, min_val, bad in named if bad[i]
            ),
        )
        for i in np.flatnonzero(invalid).tolist()
    ]
    return ~invalid, messages


# --------------------------------------------------------------------------
# batch mode: grouping and results
# --------------------------------------------------------------------------


def _growth_codes(gr: Any, N: int, method_name: str) -> tuple[NDArray[np.int64], list[GrowthRate | None]]:
    """Per-policy index into a table of distinct growth rates."""
    from .growth_rates import _as_growth_rate

    def resolve(value: Any) -> GrowthRate | None:
        try:
            return _as_growth_rate(value)
        except (TypeError, ValueError) as exc:
            raise type(exc)(_prefixed(method_name, f"'gr': {exc}")) from None

    if _batch_length(gr) < 0:
        return np.zeros(N, dtype=np.int64), [resolve(gr)]

    values = gr.to_numpy() if _is_pandas_1d(gr) else gr
    if isinstance(values, (list, tuple)):
        try:
            values = _real_array(values)
        except (TypeError, ValueError):
            pass  # growth objects, None entries: resolved one by one below
    if isinstance(values, np.ndarray) and values.ndim != 1:
        raise ValueError(_prefixed(method_name, "'gr' must be one-dimensional."))
    if isinstance(values, np.ndarray) and values.dtype.kind in "iuf":
        # Numeric growth rates: group by value without touching each element.
        unique, codes = np.unique(values.astype(np.float64), return_inverse=True)
        table: list[GrowthRate | None] = [resolve(float(u)) for u in unique]
        codes = codes.reshape(-1).astype(np.int64)
    else:
        if isinstance(values, np.ndarray) and values.dtype.kind == "b":
            raise TypeError(_prefixed(method_name, "'gr' must not contain booleans."))
        index: dict[GrowthRate | None, int] = {}
        code_list = []
        for value in values.tolist() if isinstance(values, np.ndarray) else values:
            code_list.append(index.setdefault(resolve(value), len(index)))
        codes = np.asarray(code_list, dtype=np.int64)
        table = list(index)
    if codes.shape[0] == 1 and N != 1:
        codes = np.zeros(N, dtype=np.int64)
    elif codes.shape[0] != N:
        raise ValueError(
            _prefixed(
                method_name,
                f"Incompatible batch lengths: gr={codes.shape[0]}, expected {N} or 1 (broadcast).",
            )
        )
    return codes, table


def _group_batch_m_gr_indices(
    m: Any, gr: Any, N: int, method_name: str = ""
) -> list[tuple[int, GrowthRate | None, NDArray[np.int64]]]:
    """Group the policies of a batch by distinct (frequency, growth) pairs.

    Parameters
    ----------
    m : int or array of int
        One frequency, or one per policy (as returned by :func:`_resolve_batch_m`).
    gr : GrowthRate, float, None or per-policy sequence
        Growth of payments; per-policy entries may be ``GrowthRate``, numbers
        (geometric rates) or None (level payments).
    N : int
        Batch size.
    method_name : str, default ""
        Prefix of the messages.

    Returns
    -------
    list of (m, growth, indices)
        ``m`` an int, ``growth`` a ``GrowthRate`` or None, ``indices`` the
        sorted int64 positions of the group's policies. Groups are ordered by
        frequency, then by first appearance of the growth rate. Numbers and
        equal ``GrowthRate`` objects fall in the same group.

    Raises
    ------
    TypeError
        For growth rates that are neither ``GrowthRate``, real numbers nor None.
    ValueError
        For an invalid geometric rate, or per-policy growth rates that are not
        one-dimensional or not N (or 1) of them.
    """
    if N == 0:
        return []
    m_arr = np.broadcast_to(np.asarray(m, dtype=np.int64), (N,))
    gr_codes, table = _growth_codes(gr, N, method_name)
    m_values, m_codes = np.unique(m_arr, return_inverse=True)
    keys = m_codes.reshape(-1).astype(np.int64) * len(table) + gr_codes
    unique_keys, group_of = np.unique(keys, return_inverse=True)
    order = np.argsort(group_of.reshape(-1), kind="stable")
    bounds = np.cumsum(np.bincount(group_of.reshape(-1), minlength=unique_keys.shape[0]))[:-1]
    return [
        (int(m_values[key // len(table)]), table[key % len(table)], idx.astype(np.int64))
        for key, idx in zip(unique_keys.tolist(), np.split(order, bounds), strict=True)
    ]


def _finalize_batch_unit_pv_with_benefits(
    unit_pv: Any, benefits_arr: F64Array | None, decimals: int | None
) -> F64Array:
    """Round unit present values to ``decimals``, then weight them by benefits.

    Rounding first makes a batch value equal to the (rounded) scalar value
    times the benefit.

    Parameters
    ----------
    unit_pv : array-like
        Present values of one unit of benefit, one per policy.
    benefits_arr : ndarray of float64 or None
        Per-policy benefits; None leaves unit values.
    decimals : int or None
        Rounding of the unit values; None skips rounding.

    Returns
    -------
    ndarray of float64
        A new array of the weighted values.
    """
    values = _as_f64_safe(unit_pv)
    if decimals is None:
        out = values.copy()
    else:
        out = _kernels.round_values(values.reshape(-1), int(decimals)).reshape(values.shape)
    if benefits_arr is not None:
        out = out * benefits_arr
    return out


def _aggregate_flow_parts(parts: Iterable[tuple[Any, Any, Any]], t_output: Any | None = None) -> dict[str, Any]:
    """Merge per-group cash flows into one portfolio flow table.

    Parameters
    ----------
    parts : iterable of (time, expected, pv)
        Per group, three aligned one-dimensional arrays: flow times (years
        from the valuation time), undiscounted amounts and present values.
    t_output : array-like, optional
        Output grid, strictly increasing. Each flow goes to the first grid
        time at or after it; flows after the last grid time go to the last.

    Returns
    -------
    dict
        ``"time_grid"``, ``"expected_cf"``, ``"pv_cf"`` (float64 arrays) and
        ``"total_pv"`` (float, the sum of ``pv_cf``). Without ``t_output``
        the grid is the sorted union of the flow times, times within a
        relative 1e-12 of each other being one point (its smallest time).

    Raises
    ------
    ValueError
        When a part's three arrays differ in length, or ``t_output`` is empty.
    """
    times, expected, pvs = [], [], []
    for k, (t, e, p) in enumerate(parts):
        t, e, p = (_as_f64_safe(a).reshape(-1) for a in (t, e, p))
        if not t.shape == e.shape == p.shape:
            raise ValueError(
                f"flow part {k}: time, expected and pv arrays differ in length "
                f"({t.shape[0]}, {e.shape[0]}, {p.shape[0]})"
            )
        times.append(t)
        expected.append(e)
        pvs.append(p)
    t_all = np.concatenate(times) if times else _EMPTY_F64
    e_all = np.concatenate(expected) if expected else _EMPTY_F64
    p_all = np.concatenate(pvs) if pvs else _EMPTY_F64

    if t_output is not None:
        grid = _as_f64_safe(t_output).reshape(-1).copy()
        if grid.size == 0:
            raise ValueError("'t_output' must not be empty")
        pos = np.minimum(np.searchsorted(grid, t_all, side="left"), grid.shape[0] - 1)
    elif t_all.size:
        unique = np.unique(t_all)
        starts = np.empty(unique.shape[0], dtype=bool)
        starts[0] = True
        starts[1:] = np.diff(unique) > _FLOW_TIME_TOL * np.maximum(1.0, np.abs(unique[1:]))
        grid = unique[starts]
        pos = (np.cumsum(starts) - 1)[np.searchsorted(unique, t_all)]
    else:
        grid = np.empty(0, dtype=np.float64)
        pos = np.empty(0, dtype=np.intp)

    k = grid.shape[0]
    expected_cf = np.bincount(pos, weights=e_all, minlength=k).astype(np.float64, copy=False)
    pv_cf = np.bincount(pos, weights=p_all, minlength=k).astype(np.float64, copy=False)
    return {
        "time_grid": grid,
        "expected_cf": expected_cf,
        "pv_cf": pv_cf,
        "total_pv": float(pv_cf.sum()),
    }


def _has_growth_rate_param(gr: Any) -> bool:
    """True when a growth rate was passed (``gr is not None``)."""
    return gr is not None


def _payment_count(n: float, m: int, tolerance_eps: float = _PAYMENT_COUNT_TOL) -> int:
    """Number of m-thly payments in a term of ``n`` years.

    Parameters
    ----------
    n : float
        Term in years, finite and >= 0.
    m : int
        Payments per year.
    tolerance_eps : float, default 1e-12
        Largest remainder of ``n * m`` that is treated as noise.

    Returns
    -------
    int
        Whole payments of ``n * m``, plus one for a remainder above
        ``tolerance_eps`` (a last partial period).
    """
    return _kernels.payment_count(float(n), int(m), float(tolerance_eps))[0]


def _cashflow_amounts_payment_skip(
    ts: float,
    n_eff: float,
    method_name: str,
    m: int,
    n_amounts: int,
    tolerance_eps: float = _PAYMENT_COUNT_TOL,
) -> int:
    """Count the leading ``cashflow_amounts`` already paid at the valuation time.

    The amounts list one payment per period of the full schedule; at time
    ``ts`` the remaining term ``n_eff`` holds ``_payment_count(n_eff, m)``
    payments, so the first ``n_amounts`` minus that many were already paid.

    Parameters
    ----------
    ts : float
        Valuation time (for the message).
    n_eff : float
        Remaining term in years at ``ts``.
    method_name : str
        Used in messages.
    m : int
        Payment frequency.
    n_amounts : int
        Number of amounts given.
    tolerance_eps : float
        Tolerance of the payment count.

    Returns
    -------
    int
        Number of leading amounts to skip (0 or more).

    Raises
    ------
    ValueError
        When ``n_eff`` is not finite or more payments remain than amounts exist.
    """
    if not np.isfinite(n_eff):
        raise ValueError(_prefixed(method_name, "'cashflow_amounts' requires a finite term 'n'."))
    remaining = _payment_count(max(0.0, float(n_eff)), int(m), tolerance_eps)
    skip = int(n_amounts) - remaining
    if skip < 0:
        raise ValueError(
            _prefixed(
                method_name,
                f"'cashflow_amounts' lists {n_amounts} amounts but {remaining} payments remain at ts={float(ts)!r}.",
            )
        )
    return skip


def _readonly(a: np.ndarray) -> np.ndarray:
    a.flags.writeable = False
    return a


@dataclass(frozen=True, eq=False)
class BatchErrorReport:
    """Which records of a batch were invalid, and why.

    Attributes
    ----------
    n_errors : int
        Number of invalid records.
    n_total : int
        Batch size.
    valid_mask : ndarray of bool
        True for the records that were valued (length ``n_total``).
    invalid_indices : ndarray of int64
        Positions of the invalid records.
    record_ids : list
        Ids of the invalid records (their positions unless ids were given).
    messages : list of str
        One text per invalid record, naming the parameter and value.
    """

    n_errors: int
    n_total: int
    valid_mask: NDArray[np.bool_]
    invalid_indices: NDArray[np.int64]
    record_ids: list[Any]
    messages: list[str]

    def __post_init__(self) -> None:
        setattr_ = functools.partial(object.__setattr__, self)
        setattr_("n_errors", int(self.n_errors))
        setattr_("n_total", int(self.n_total))
        setattr_("valid_mask", _readonly(np.array(self.valid_mask, dtype=bool).reshape(-1)))
        setattr_("invalid_indices", _readonly(np.array(self.invalid_indices, dtype=np.int64).reshape(-1)))
        ids = self.record_ids
        setattr_("record_ids", ids.tolist() if isinstance(ids, np.ndarray) else list(ids))
        setattr_("messages", [str(msg) for msg in self.messages])
        sizes = {len(self.invalid_indices), len(self.record_ids), len(self.messages)}
        if sizes != {self.n_errors} or self.valid_mask.shape[0] != self.n_total:
            raise ValueError(
                "inconsistent BatchErrorReport: n_errors, invalid_indices, record_ids "
                "and messages must agree, and valid_mask must have n_total entries"
            )

    def __str__(self) -> str:
        head = f"BatchErrorReport: {self.n_errors} of {self.n_total} records invalid"
        shown = 20
        lines = [
            f"  index {i} (id {rid!r}): {msg}"
            for i, rid, msg in zip(
                self.invalid_indices.tolist()[:shown], self.record_ids[:shown], self.messages[:shown], strict=True
            )
        ]
        if self.n_errors > shown:
            lines.append(f"  ... and {self.n_errors - shown} more")
        return "\n".join([head, *lines])

    def to_dict(self) -> dict[str, Any]:
        """The report as plain Python values (lists, ints, strings)."""
        return {
            "n_errors": self.n_errors,
            "n_total": self.n_total,
            "valid_mask": self.valid_mask.tolist(),
            "invalid_indices": self.invalid_indices.tolist(),
            "record_ids": list(self.record_ids),
            "messages": list(self.messages),
        }


@dataclass(frozen=True, eq=False)
class BatchResult:
    """Values of a batch valued with ``on_error="nan"``.

    Attributes
    ----------
    values : ndarray of float64
        One value per record, NaN where the record was invalid.
    errors : BatchErrorReport
        What was wrong with the invalid records.
    """

    values: F64Array
    errors: BatchErrorReport

    def __repr__(self) -> str:
        return f"BatchResult(values={self.values!r}, errors=<{self.errors.n_errors} of {self.errors.n_total} invalid>)"
