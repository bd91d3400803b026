"""Per-policy arrays of a batch.

Terms, frequencies, benefits, record ids and the range checks of the numeric
parameters, without a Python loop over the policies.
"""

from __future__ import annotations

import functools
import operator
from collections.abc import Callable
from typing import Any

import numpy as np
from numpy.typing import NDArray

from ..base import _ALLOWED_PAYMENT_FREQUENCIES
from .conversion import _BOOL_TYPES, _INTEGER_TYPES, F64Array, _as_f64_safe, _is_pandas_1d, _real_array
from .payments import _MAX_PAYMENTS, _too_many_payments_text
from .results import BatchErrorReport, BatchResult
from .routing import _batch_length, _first_index
from .scalars import _named_f64, _prefixed

_is_none: Callable[[object], bool] = functools.partial(operator.is_, None)


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


# The element types the book kernel reads in place (native byte order); others are converted.
_KERNEL_DTYPES = frozenset(np.dtype(t) for t in (np.float64, np.float32, np.int64, np.int32))


def _one_or_all(values: Any) -> np.ndarray:
    """A column as the kernels read it: one value given for all (a broadcast one too) stays one,
    so that no copy of the book's size is made."""
    column: np.ndarray = np.asarray(values)
    return column[:1] if column.ndim == 1 and column.shape[0] > 1 and column.strides[0] == 0 else column


def _kernel_readable(values: Any) -> np.ndarray | None:
    """``values`` itself when the book kernel reads it as it stands: a one-dimensional aligned
    array (or the array of a NumPy-typed Series) of float64, float32, int64 or int32."""
    if _is_pandas_1d(values) and isinstance(values.dtype, np.dtype):
        values = values.to_numpy()
    # Aligned, since native code reads its elements as they lie (a misaligned view is copied).
    if type(values) is np.ndarray and values.ndim == 1 and values.dtype in _KERNEL_DTYPES and values.flags.aligned:
        return values
    return None


def _policy_column(values: Any, name: str, method_name: str) -> np.ndarray:
    """A per-policy column of a book: a single value (0-d) or one dimension, as float64 or,
    when the book kernel reads it in place, as the caller's array (no conversion copy).

    Conversion errors keep their class (TypeError, ValueError, FloatRangeError) and name the column.
    """
    readable = _kernel_readable(values)
    if readable is not None:
        return readable
    arr = _named_f64(values, name, method_name)
    if arr.ndim > 1:
        raise ValueError(_prefixed(method_name, f"'{name}' must be one-dimensional, got shape {arr.shape}."))
    return arr


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
    except ValueError as exc:  # ragged, or beyond float64 (the class is kept)
        raise type(exc)(_prefixed(method_name, f"'{attr_name}': {exc}.")) from None
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


# Whether each value 0..365 is an allowed frequency: a lookup instead of a search.
_FREQUENCY_ALLOWED = np.zeros(max(_ALLOWED_PAYMENT_FREQUENCIES) + 1, dtype=bool)
_FREQUENCY_ALLOWED[list(_ALLOWED_PAYMENT_FREQUENCIES)] = True


def _allowed_frequency(arr: NDArray[np.integer]) -> NDArray[np.bool_]:
    inside = (arr >= 0) & (arr < _FREQUENCY_ALLOWED.size)
    return inside & _FREQUENCY_ALLOWED[np.where(inside, arr, 0)]


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
    bad = ~_allowed_frequency(arr)
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


def _frequencies_of_rows(m: Any, valid_idx: NDArray[np.int64]) -> Any:
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
    arr = _benefits_array(benefits, N, method_name)
    if arr is None:
        return None
    copied: F64Array = arr.copy()
    _check_benefit_values(copied, method_name)
    return copied


def _benefits_array(benefits: Any, N: int, method_name: str) -> F64Array | None:
    """The benefits as a float64 array of length N (a scalar repeated), or
    None; their types and shape checked as :func:`_validate_benefits` does,
    their values not. The caller's array itself when it already fits."""
    if benefits is None:
        return None
    try:
        arr = _as_f64_safe(benefits)
    except TypeError:
        raise TypeError(_prefixed(method_name, "'benefits' must contain real numbers.")) from None
    except ValueError as exc:  # ragged, or beyond float64 (the class is kept)
        raise type(exc)(_prefixed(method_name, f"'benefits': {exc}.")) from None
    if arr.ndim > 1:
        raise ValueError(_prefixed(method_name, "'benefits' must be one-dimensional."))
    if arr.ndim == 0:
        return np.broadcast_to(arr.reshape(1), (N,))  # a read-only view, no copy
    if arr.shape[0] != N:
        raise ValueError(
            _prefixed(method_name, f"'benefits' must have one value per policy: expected {N}, got {arr.shape[0]}.")
        )
    return arr


def _check_benefit_values(arr: F64Array | None, method_name: str) -> None:
    """Raise on the first benefit that is negative or not finite."""
    if arr is None:
        return
    if arr.size == 0 or (np.all(arr >= 0.0) and np.isfinite(arr.max())):  # two passes, no temporaries of floats
        return
    bad = ~(np.isfinite(arr) & (arr >= 0.0))
    if bad.any():
        i = _first_index(bad)
        raise ValueError(
            _prefixed(method_name, f"'benefits' must be finite and >= 0 at index {i}, got {float(arr[i])!r}.")
        )


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


def _overlong_terms(n_arr: np.ndarray, m: int | np.ndarray) -> NDArray[np.bool_]:
    """Finite terms whose payments at ``m`` a year cannot be counted exactly."""
    terms = np.asarray(n_arr).astype(np.float64, copy=False)  # integer terms times m must not wrap around
    with np.errstate(over="ignore", invalid="ignore"):
        overlong: NDArray[np.bool_] = np.isfinite(terms) & ~(terms * m < _MAX_PAYMENTS)
    return overlong


def _term_faults(n: Any, d: Any, ts: Any, m: Any, size: int) -> dict[int, list[str]]:
    """The faults of the terms every policy has, by index, in the order they are worded: a term
    ``n`` < 0 or NaN (infinite: for life, or a perpetuity), a deferment ``d`` or valuation time
    ``ts`` negative or not finite, and a finite term whose payments at ``m`` a year cannot be
    counted. Columns hold one value per policy or one for all; the texts name the index and
    carry no method prefix, so that a record's faults join with those of its other columns."""
    faults: dict[int, list[str]] = {}

    def at(values: Any, i: int) -> Any:
        values = np.asarray(values).reshape(-1)
        return values[min(i, values.size - 1)]

    def add(mask: NDArray[np.bool_], text: Callable[[int], str]) -> None:
        for i in np.flatnonzero(np.broadcast_to(mask, (size,))).tolist():
            faults.setdefault(i, []).append(text(i))

    def out_of_range(name: str, values: Any) -> Callable[[int], str]:
        return lambda i: _batch_param_message(name, i, at(values, i), 0.0)

    for name, values, allow_inf in (("n", n, True), ("d", d, False), ("ts", ts, False)):
        add(_batch_param_invalid(np.asarray(values), 0.0, allow_inf), out_of_range(name, values))
    add(
        _overlong_terms(n, m),
        lambda i: _too_many_payments_text(float(at(n, i)), int(at(m, i)), f" at index {i}"),
    )
    return faults


def _batch_result(values: F64Array, faults: dict[int, list[str]], record_ids: Any, method_name: str) -> BatchResult:
    """A batch valued with ``on_error="nan"``: its values (NaN where a record is invalid) and a
    report with one message per invalid record, its faults joined by ``"; "``."""
    size = values.shape[0]
    invalid = np.array(sorted(faults), dtype=np.int64)
    valid_mask = np.ones(size, dtype=bool)
    valid_mask[invalid] = False
    report = BatchErrorReport(
        n_errors=int(invalid.size),
        n_total=size,
        valid_mask=valid_mask,
        invalid_indices=invalid,
        record_ids=_coerce_record_ids(record_ids, size)[invalid].tolist(),
        messages=[_prefixed(method_name, "; ".join(faults[i])) for i in invalid.tolist()],
    )
    return BatchResult(values=values, errors=report)


def _book_columns(method_name: str, columns: dict[str, Any]) -> tuple[dict[str, np.ndarray], int]:
    """A book's columns, each one-dimensional and of the book's length or of length 1 (one
    value for every policy, kept single), and that length; columns of other lengths are
    refused, naming every column's length."""
    arrays = {name: np.asarray(values).reshape(-1) for name, values in columns.items()}
    lengths = {name: (a.shape[0] if np.ndim(columns[name]) else 1) for name, a in arrays.items()}
    # The book's length is its columns' (a single value sets none): an empty book is valued.
    size = max((a.shape[0] for name, a in arrays.items() if np.ndim(columns[name])), default=1)
    if any(length not in (size, 1) for length in lengths.values()):
        given = ", ".join(f"{name}={length}" for name, length in lengths.items())
        raise ValueError(
            _prefixed(
                method_name,
                f"Incompatible batch lengths: {given}. "
                "All arrays must share the same length or be length-1 (broadcast).",
            )
        )
    return arrays, size
