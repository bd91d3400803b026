"""Result types of a batch valued with ``on_error="nan"``."""

from __future__ import annotations

import functools
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from .conversion import F64Array


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
