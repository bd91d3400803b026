"""Valuing policies through the batch API, and their aggregated cash flows."""

from __future__ import annotations

import math
import re
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from functools import partial
from typing import Any

import numpy as np

from ..config import Config
from ..helpers import _real_float
from ..mortality import life_annuities
from ._arguments import checked_blocks, checked_curve, checked_mode, checked_policies, checked_years
from ._life import BookTables, book_tables
from ._policies import InputError, Policies

# Default length of the flows grid when perpetuities are held: their later flows share the last year.
PERPETUITY_YEARS = 100
# The longest yearly flows grid asked for.
MAX_FLOW_YEARS = 100_000


# Library messages name the keyword arguments; the command line speaks in columns.
_PARAMETER_COLUMNS = {
    "n": "term",
    "d": "deferment",
    "ts": "shift",
    "m": "frequency",
    "gr": "growth",
    "benefits": "benefit",
    "age": "age",
    "table": "table",
    "select_age": "select_age",
    "year": "year",
    "guarantee": "guarantee",
}


def _clean_message(message: str) -> str:
    """A library message without the method prefix and batch index, in column names (each
    fault of a message that lists several)."""
    message = re.sub(r"^\[[^\]]*\]\s*", "", message)
    message = re.sub(r" at index \d+", "", message)
    return re.sub(
        r"(^|; )'(\w+)'", lambda m: m.group(1) + _PARAMETER_COLUMNS.get(m.group(2), f"'{m.group(2)}'"), message
    )


def _arguments(pf: Policies, rows: np.ndarray) -> dict[str, Any]:
    growth = pf.growth[rows]
    level = np.isnan(growth)
    # A geometric rate of 0 is level payments; one float array is cheaper for the library
    # than a list of per-policy growth objects.
    gr = None if level.all() else np.where(level, 0.0, growth)
    return dict(
        n=pf.term[rows], d=pf.deferment[rows], ts=pf.shift[rows], m=pf.frequency[rows], gr=gr, benefits=pf.benefit[rows]
    )


@dataclass
class _Outcome:
    """Present values (NaN for invalid records), messages (None for valued records) and the
    mask of valued records."""

    values: np.ndarray
    errors: np.ndarray
    valid: np.ndarray

    def fail(self, row: int, message: str) -> None:
        self.values[row], self.errors[row], self.valid[row] = math.nan, _clean_message(message), False


def _certain_values(method: Callable[..., Any], pf: Policies, rows: np.ndarray) -> Any:
    return method(**_arguments(pf, rows), on_error="nan")


def _life_values(curve: Any, tables: BookTables, due: bool, growth: float, pf: Policies, rows: np.ndarray) -> Any:
    """Life records sharing a timing and a growth rate (NaN: level), in one batch call."""
    names = pf.table[rows]
    return life_annuities(
        curve,
        tables.tables,
        table=np.where(names == "", tables.default, names),
        age=pf.age[rows],
        n=pf.term[rows],
        d=pf.deferment[rows],
        ts=pf.shift[rows],
        m=pf.frequency[rows],
        benefits=pf.benefit[rows],
        select_age=pf.select_age[rows],
        gr=None if np.isnan(growth) else growth,
        year=pf.year[rows],
        guarantee=pf.guarantee[rows],
        timing="due" if due else "immediate",
        on_error="nan",
    )


def _value_rows(value: Callable[[Policies, np.ndarray], Any], pf: Policies, rows: np.ndarray, out: _Outcome) -> None:
    """Value the records ``rows`` with one batch call ``value(pf, rows)`` (on_error="nan")."""
    try:
        result = value(pf, rows)
    except (TypeError, ValueError, ArithmeticError):
        if len(rows) == 1:
            raise
        # Something the checks before valuing did not foresee refused the batch: isolate the record.
        for row in rows:
            try:
                _value_rows(value, pf, np.array([row]), out)
            except (TypeError, ValueError, ArithmeticError) as exc:
                out.fail(row, str(exc))
        return
    out.values[rows] = result.values
    report = result.errors
    for i, message in zip(report.invalid_indices, report.messages):
        out.fail(rows[i], message)


def value_policies(
    curve: Any, pf: Policies, mode: str, tables: BookTables | None = None
) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Present values (NaN for invalid records), the error message of each record (an object
    array, None for valued records) and the mask of valued records.

    One batch call per timing for the certain annuities and one per timing for the life
    annuities (records with an age), on ``tables`` (default: ``book_tables()``).
    """
    curve, pf = checked_curve(curve), checked_policies(pf)
    mode = checked_mode(mode) or Config().calculation_mode
    out = _Outcome(np.full(len(pf), math.nan), pf.errors.copy(), pf.clean.copy())
    with Config().override(calculation_mode=mode):
        for due, method in ((True, curve.ä), (False, curve.a)):
            usable = pf.clean & (pf.due == due)
            rows = np.flatnonzero(usable & ~pf.life)
            if len(rows):
                _value_rows(partial(_certain_values, method), pf, rows, out)
            rows = np.flatnonzero(usable & pf.life)
            # A life batch has one growth rate: one call per rate held.
            for growth in np.unique(pf.growth[rows]):  # (NaN, level, comes once)
                same = rows[(pf.growth[rows] == growth) | (np.isnan(growth) & np.isnan(pf.growth[rows]))]
                _value_rows(partial(_life_values, curve, tables or book_tables(), due, growth), pf, same, out)
    return out.values, out.errors, out.valid


def portfolio_flows(curve: Any, pf: Policies, valid: np.ndarray, mode: str, years: int) -> dict[str, np.ndarray]:
    """Expected and discounted cash flows of the valid certain annuities on the grid 1, 2, ...,
    years (life records are left out).

    Policies are grouped by (timing, frequency), one flows call per group; flows after the
    last grid year (perpetuities) are gathered in the last year.
    """
    valid = valid & ~pf.life
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


def last_payment_year(blocks: Iterable[tuple[Policies, np.ndarray]]) -> tuple[int, bool]:
    """The last year with payments among the valid certain annuities of (policies, valid)
    blocks, seen from their valuation times, and whether any of them is a perpetuity."""
    ends = np.concatenate(
        [(pf.deferment + pf.term - pf.shift)[valid & ~pf.life] for pf, valid in checked_blocks(blocks)] + [np.empty(0)]
    )
    finite = np.isfinite(ends)
    last = int(math.ceil(ends[finite].max() - 1e-9)) if finite.any() else 1
    return max(last, 1), bool((~finite).any())


def book_flows(
    curve: Any, blocks: Iterable[tuple[Policies, np.ndarray]], mode: str, years: int
) -> dict[str, np.ndarray]:
    """portfolio_flows of (policies, valid) blocks, added up."""
    curve, mode = checked_curve(curve), checked_mode(mode) or Config().calculation_mode
    years = checked_years(years, "years", MAX_FLOW_YEARS)
    blocks = checked_blocks(blocks)
    total = {"year": np.arange(1, years + 1), "expected_cf": np.zeros(years), "pv_cf": np.zeros(years)}
    for pf, valid in blocks:
        flows = portfolio_flows(curve, pf, valid, mode, years)
        total["expected_cf"] += flows["expected_cf"]
        total["pv_cf"] += flows["pv_cf"]
    return total


def flow_years(last: int, perpetuities: bool, horizon: float | None = None) -> int:
    """Length of the yearly flows grid: the horizon when given, else the last payment
    year, at least PERPETUITY_YEARS when perpetuities are held."""
    if isinstance(last, bool) or not isinstance(last, (int, np.integer)):
        raise TypeError(f"[norvane.portfolio] 'last' must be a whole number of years, got {type(last).__name__}.")
    if horizon is not None:
        years = _real_float(horizon, "horizon", "norvane.portfolio")
        if not 1 <= years <= MAX_FLOW_YEARS:
            raise InputError(f"--horizon must be from 1 to {MAX_FLOW_YEARS} years, got {horizon}")
        return int(math.ceil(years))
    return max(last, PERPETUITY_YEARS if perpetuities else 1)
