"""Portfolios of annuity policies: reading a table of policies and valuing it.

Shared by the command line and the Dask path. A table maps column names
("id", "term", "deferment", "shift", "frequency", "timing", "growth",
"benefit") to sequences of cells; records that cannot be valued carry a
message instead of stopping the run.
"""

from __future__ import annotations

import math
import re
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np

from .base import _ALLOWED_PAYMENT_FREQUENCIES
from .config import Config

# Policies valued per call: bounds the memory of one call and paces progress reports.
CHUNK = 50_000
# Default length of the flows grid when perpetuities are held: their later flows share the last year.
PERPETUITY_YEARS = 100


class InputError(Exception):
    """The input cannot be used (for example, no "term" column)."""


class _NoProgress:
    def advance(self, count: int) -> None:
        pass

    def close(self) -> None:
        pass


# Library messages name the keyword arguments; the command line speaks in columns.
_PARAMETER_COLUMNS = {
    "n": "term",
    "d": "deferment",
    "ts": "shift",
    "m": "frequency",
    "gr": "growth",
    "benefits": "benefit",
}


@dataclass
class Portfolio:
    """Policy parameters as NumPy arrays, with the records' own defects."""

    ids: list[str]
    term: np.ndarray
    deferment: np.ndarray
    shift: np.ndarray
    frequency: np.ndarray  # int64
    due: np.ndarray  # bool: annuity-due, else immediate
    growth: np.ndarray  # NaN for level payments
    benefit: np.ndarray
    errors: list[str | None]  # first defect of each record, None when it can be valued

    def __len__(self) -> int:
        return len(self.ids)


def _note(errors: list[str | None], i: int, message: str) -> None:
    if errors[i] is None:
        errors[i] = message


def _shown(cell: Any) -> str:
    """A cell as messages show it: the repr of its plain Python value."""
    return repr(cell.item() if isinstance(cell, np.generic) else cell)


def _number(cell: Any) -> float | None:
    try:
        return float(cell)
    except (TypeError, ValueError):
        return None


def _floats(
    raw: Sequence[Any] | None, count: int, default: float, column: str, errors: list[str | None]
) -> tuple[np.ndarray, np.ndarray]:
    """A column as float64 with the default for empty cells, and the mask of given cells."""
    if raw is None:
        return np.full(count, default), np.zeros(count, dtype=bool)
    if isinstance(raw, np.ndarray) and raw.dtype.kind in "fiu":
        # A numeric column of a data frame: NaN is its missing value.
        values = raw.astype(np.float64, copy=False)
        given = ~np.isnan(values)
        return np.where(given, values, default), given
    cells = [x.strip() if isinstance(x, str) else x for x in raw]
    given = [not (c is None or c == "") for c in cells]
    parsed = [_number(c) if g else default for c, g in zip(cells, given)]
    for i, value in enumerate(parsed):
        if value is None:
            parsed[i] = default
            _note(errors, i, f"{column} is not a number, got {_shown(raw[i])}")
    return np.array(parsed, dtype=float), np.array(given, dtype=bool)


def policies_from_table(
    table: dict[str, Sequence[Any]], count: int, defects: list[str | None], source: Path
) -> Portfolio:
    if "term" not in table:
        raise InputError(f"{source}: no 'term' column (columns: {', '.join(table) or 'none'})")
    errors = list(defects)
    raw_ids = table.get("id")
    ids = [str(i + 1) for i in range(count)] if raw_ids is None else ["" if x is None else str(x) for x in raw_ids]

    # term, deferment and shift are checked by the valuation itself, record by record.
    term, _ = _floats(table["term"], count, math.inf, "term", errors)
    deferment, _ = _floats(table.get("deferment"), count, 0.0, "deferment", errors)
    shift, _ = _floats(table.get("shift"), count, 0.0, "shift", errors)

    # The library refuses a whole batch for a bad frequency, growth or benefit: check here.
    freq, _ = _floats(table.get("frequency"), count, 1.0, "frequency", errors)
    allowed = np.isin(freq, _ALLOWED_PAYMENT_FREQUENCIES)
    for i in np.flatnonzero(~allowed):
        _note(
            errors, i, f"frequency must be one of {_ALLOWED_PAYMENT_FREQUENCIES}, got {_shown(table['frequency'][i])}"
        )
    frequency = np.where(allowed, freq, 1).astype(np.int64)

    growth, has_growth = _floats(table.get("growth"), count, math.nan, "growth", errors)
    bad = has_growth & ~(np.isfinite(growth) & (growth > -1.0))
    for i in np.flatnonzero(bad):
        _note(errors, i, f"growth must be a finite rate above -1, got {_shown(table['growth'][i])}")
    growth[~has_growth | bad] = math.nan

    benefit, _ = _floats(table.get("benefit"), count, 1.0, "benefit", errors)
    bad = ~(np.isfinite(benefit) & (benefit >= 0.0))
    for i in np.flatnonzero(bad):
        _note(errors, i, f"benefit must be a finite amount >= 0, got {_shown(table['benefit'][i])}")
    benefit[bad] = 0.0

    due = np.ones(count, dtype=bool)
    raw_timing = table.get("timing")
    if raw_timing is not None:
        for i, x in enumerate(raw_timing):
            text = "" if x is None else str(x).strip().lower()
            if text in ("", "due"):
                continue
            if text == "immediate":
                due[i] = False
            else:
                _note(errors, i, f"timing must be 'due' or 'immediate', got {x!r}")
    return Portfolio(ids, term, deferment, shift, frequency, due, growth, benefit, errors)


def _clean_message(message: str) -> str:
    """A library message without the method prefix and batch index, in column names."""
    message = re.sub(r"^\[[^\]]*\]\s*", "", message)
    message = re.sub(r" at index \d+", "", message)
    return re.sub(r"^'(\w+)'", lambda m: _PARAMETER_COLUMNS.get(m.group(1), m.group(0)), message)


def _arguments(pf: Portfolio, rows: np.ndarray) -> dict[str, Any]:
    growth = pf.growth[rows]
    level = np.isnan(growth)
    # A geometric rate of 0 is level payments; one float array is cheaper for the library
    # than a list of per-policy growth objects.
    gr = None if level.all() else np.where(level, 0.0, growth)
    return dict(
        n=pf.term[rows], d=pf.deferment[rows], ts=pf.shift[rows], m=pf.frequency[rows], gr=gr, benefits=pf.benefit[rows]
    )


def _value_rows(
    method: Callable, pf: Portfolio, rows: np.ndarray, values: np.ndarray, errors: list[str | None]
) -> None:
    try:
        result = method(**_arguments(pf, rows), on_error="nan")
    except (TypeError, ValueError, ArithmeticError):
        if len(rows) == 1:
            raise
        # Something the checks above did not foresee refused the batch: isolate the record.
        for row in rows:
            try:
                _value_rows(method, pf, np.array([row]), values, errors)
            except (TypeError, ValueError, ArithmeticError) as exc:
                values[row] = math.nan
                errors[row] = _clean_message(str(exc))
        return
    values[rows] = result.values
    report = result.errors
    for i, message in zip(report.invalid_indices, report.messages):
        errors[rows[i]] = _clean_message(message)


def value_portfolio(curve: Any, pf: Portfolio, mode: str, progress: Any = None) -> tuple[np.ndarray, list[str | None]]:
    """Present values (NaN for invalid records) and the error message of each record.

    ``progress``, when given, has ``advance(count)`` and ``close()``; it is told
    how many records are done after each chunk.
    """
    progress = progress if progress is not None else _NoProgress()
    values = np.full(len(pf), math.nan)
    errors = list(pf.errors)
    usable = np.array([e is None for e in errors], dtype=bool)
    progress.advance(int((~usable).sum()))
    with Config().override(calculation_mode=mode):
        for due, method in ((True, curve.ä), (False, curve.a)):
            rows = np.flatnonzero(usable & (pf.due == due))
            for start in range(0, len(rows), CHUNK):
                part = rows[start : start + CHUNK]
                _value_rows(method, pf, part, values, errors)
                progress.advance(len(part))
    progress.close()
    return values, errors


def portfolio_flows(curve, pf: Portfolio, valid: np.ndarray, mode: str, years: int) -> dict[str, np.ndarray]:
    """Expected and discounted cash flows of the valid records on the grid 1, 2, ..., years.

    Policies are grouped by (timing, frequency), one flows call per group; flows after the
    last grid year (perpetuities) are gathered in the last year.
    """
    grid = np.arange(1.0, years + 1.0)
    expected = np.zeros(years)
    present = np.zeros(years)
    with Config().override(calculation_mode=mode):
        for due in (True, False):
            method = curve.ä if due else curve.a
            for m in np.unique(pf.frequency[valid & (pf.due == due)]):
                rows = np.flatnonzero(valid & (pf.due == due) & (pf.frequency == m))
                args = _arguments(pf, rows)
                args["m"] = int(m)
                flows = method(**args, return_flows=True, t_output=grid)
                expected += flows["expected_cf"]
                present += flows["pv_cf"]
    return {"year": np.arange(1, years + 1), "expected_cf": expected, "pv_cf": present}


def last_payment_year(pf: Portfolio, valid: np.ndarray) -> tuple[int, bool]:
    """The last year with payments among the valid records, seen from their valuation
    times, and whether any of them is a perpetuity."""
    ends = (pf.deferment + pf.term - pf.shift)[valid]
    finite = np.isfinite(ends)
    last = int(math.ceil(ends[finite].max() - 1e-9)) if finite.any() else 1
    return max(last, 1), bool((~finite).any())


def flow_years(last: int, perpetuities: bool, horizon: float | None = None) -> int:
    """Length of the yearly flows grid: the horizon when given, else the last payment
    year, at least PERPETUITY_YEARS when perpetuities are held."""
    if horizon is not None:
        if not horizon >= 1:
            raise InputError(f"--horizon must be at least 1 year, got {horizon}")
        return int(math.ceil(horizon))
    return max(last, PERPETUITY_YEARS if perpetuities else 1)
