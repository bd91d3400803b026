"""Batch routing: whether a call values a batch of policies.

Also the checks of the arguments that only batch mode accepts
(``on_error="nan"``, ``record_ids``, ``t_output``).
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .conversion import F64Array, _is_pandas_1d
from .scalars import _prefixed, _validate_float_sequence


def _batch_length(x: Any) -> int:
    """Length of a per-policy input, or -1 for a single value."""
    tp = type(x)
    if tp is list or tp is tuple:
        return len(x)
    if tp is np.ndarray:
        return x.shape[0] if x.ndim else -1
    if x is None or tp is float or tp is int or tp is str:
        return -1
    if isinstance(x, (list, tuple)):
        return len(x)
    if isinstance(x, np.ndarray):
        return x.shape[0] if x.ndim else -1
    if _is_pandas_1d(x):
        return len(x)
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
