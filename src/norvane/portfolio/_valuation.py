"""Valuing policies through the batch API, and their aggregated cash flows."""

from __future__ import annotations

import math
import re
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass
from functools import partial
from typing import Any

import numpy as np

from ..cashflows import CashFlows, _payment_months, expected_flows, no_flows, payment_ends
from ..config import Config
from ..helpers import _real_float
from ..mortality import GenerationalTable, life_annuities, life_insurances
from ..risk import BASIS_POINT, flow_numbers
from ._arguments import checked_blocks, checked_curve, checked_mode, checked_policies, checked_years
from ._life import BookTables, book_tables
from ._policies import KINDS, InputError, Policies

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
    "spouse_age": "spouse_age",
    "spouse_table": "spouse_table",
    "reversion": "reversion",
    "death_benefit": "death_benefit",
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


def _life_columns(pf: Policies, rows: np.ndarray, tables: BookTables) -> dict[str, Any]:
    """The life columns of the records ``rows`` as the life books take them: tables named (the
    default for an empty cell, a spouse's own table for the member's), pension parts only when held."""
    names = pf.table[rows]
    names = np.where(names == "", tables.default, names)
    spouses = ~np.isnan(pf.spouse_age[rows])
    guarantee, death_benefit = pf.guarantee[rows], pf.death_benefit[rows]
    return dict(
        table=names,
        age=pf.age[rows],
        select_age=pf.select_age[rows],
        year=pf.year[rows],
        guarantee=guarantee if guarantee.any() else None,
        spouse_table=np.where(pf.spouse_table[rows] == "", names, pf.spouse_table[rows]) if spouses.any() else None,
        spouse_age=pf.spouse_age[rows] if spouses.any() else None,
        reversion=pf.reversion[rows] if spouses.any() else None,
        death_benefit=death_benefit if death_benefit.any() else None,
    )


def _life_values(curve: Any, tables: BookTables, due: bool, growth: float, pf: Policies, rows: np.ndarray) -> Any:
    """Life records sharing a timing and a growth rate (NaN: level), in one batch call."""
    return life_annuities(
        curve,
        tables.tables,
        **_life_columns(pf, rows, tables),
        n=pf.term[rows],
        d=pf.deferment[rows],
        ts=pf.shift[rows],
        m=pf.frequency[rows],
        benefits=pf.benefit[rows],
        gr=None if np.isnan(growth) else growth,
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
            rows = np.flatnonzero(usable & pf.life & (pf.kind == "annuity"))
            # A life batch has one growth rate: one call per rate held.
            for growth in np.unique(pf.growth[rows]):  # (NaN, level, comes once)
                same = rows[(pf.growth[rows] == growth) | (np.isnan(growth) & np.isnan(pf.growth[rows]))]
                _value_rows(partial(_life_values, curve, tables or book_tables(), due, growth), pf, same, out)
        for kind in KINDS[1:]:
            rows = np.flatnonzero(pf.clean & pf.life & (pf.kind == kind))
            if len(rows):
                _value_rows(partial(_insurance_values, curve, tables or book_tables(), kind), pf, rows, out)
    return out.values, out.errors, out.valid


def _insurance_values(curve: Any, tables: BookTables, kind: str, pf: Policies, rows: np.ndarray) -> Any:
    """Life records of one insurance kind, in one batch call."""
    names = pf.table[rows]
    return life_insurances(
        curve,
        tables.tables,
        table=np.where(names == "", tables.default, names),
        age=pf.age[rows],
        select_age=pf.select_age[rows],
        year=pf.year[rows],
        n=pf.term[rows],
        d=pf.deferment[rows],
        ts=pf.shift[rows],
        m=pf.frequency[rows],
        benefits=pf.benefit[rows],
        benefit=kind,  # type: ignore[arg-type]  # one of KINDS[1:]
        on_error="nan",
    )


def _flow_parts(pf: Policies, valid: np.ndarray) -> Iterator[tuple[bool, Any, bool, str, np.ndarray]]:
    """The valid records by timing, growth rate (None: level), life or not and kind: one flows
    call each, as (due, growth, life, kind, rows)."""
    for due in (True, False):
        usable = valid & (pf.due == due)
        for growth in np.unique(pf.growth[usable]):  # (NaN, level, comes once)
            same = usable & ((pf.growth == growth) | (np.isnan(growth) & np.isnan(pf.growth)))
            for life in (False, True):
                for kind in np.unique(pf.kind[same & (pf.life == life)]):
                    rows = np.flatnonzero(same & (pf.life == life) & (pf.kind == kind))
                    yield due, None if np.isnan(growth) else float(growth), life, str(kind), rows


def _part_flows(
    curve: Any, pf: Policies, part: tuple[bool, Any, bool, str, np.ndarray], grid: Any, tables: BookTables, by: Any
) -> CashFlows:
    """The flows of one part of ``_flow_parts`` in the buckets ``grid``, ``by`` a label a record."""
    due, growth, life, kind, rows = part
    terms = dict(n=pf.term[rows], d=pf.deferment[rows], ts=pf.shift[rows], m=pf.frequency[rows])
    terms.update(benefits=pf.benefit[rows], buckets=grid, gr=growth, timing="due" if due else "immediate", by=by)
    if not life:
        return expected_flows(curve, **terms)
    return expected_flows(curve, tables.tables, benefit=kind, **_life_columns(pf, rows, tables), **terms)  # type: ignore[arg-type]


def portfolio_flows(
    curve: Any,
    pf: Policies,
    valid: np.ndarray,
    mode: str,
    grid: np.ndarray,
    tables: BookTables | None = None,
    labels: np.ndarray | None = None,
) -> CashFlows:
    """Expected and discounted cash flows of the valid records in the buckets ending at
    ``grid`` (each flow in the first bucket ending at or after it; later flows in the last):
    certain and life records, life records on ``tables`` (default: ``book_tables()``); by the
    records' ``labels`` when given."""
    tables = tables or book_tables()
    parts = []
    with Config().override(calculation_mode=mode):
        for part in _flow_parts(pf, valid):
            parts.append(_part_flows(curve, pf, part, grid, tables, None if labels is None else labels[part[-1]]))
    return sum(parts[1:], parts[0]) if parts else no_flows(grid)


# Cells (records x months) of one flows pass of per-record sensitivities.
_RISK_CELLS = 1 << 22


def _row_numbers(curve: Any, flows: CashFlows, tenors: np.ndarray) -> dict[str, np.ndarray]:
    """``risk.flow_numbers`` of each group of ``flows`` (a record a group) at the mean time of
    its own flows in each month: at once where they are the month's time for every record (as
    payments on the monthly grid are), record by record for the others."""
    common = flows.times
    value = flows.discounted.sum(axis=1)
    with np.errstate(invalid="ignore", divide="ignore"):
        own = np.where(flows.discounted != 0.0, flows.discounted_times / flows.discounted, common[None, :])
    found = flow_numbers(curve, common, flows.discounted, tenors)
    apart = np.abs(own - common[None, :]) > 1e-12 * np.maximum(1.0, np.abs(common))[None, :]
    for row in np.flatnonzero(apart.any(axis=1)).tolist():
        alone = flow_numbers(curve, own[row], flows.discounted[row][None, :], tenors)
        for name, numbers in alone.items():
            found[name][row] = numbers[0]
    with np.errstate(invalid="ignore", divide="ignore"):
        found["macaulay_duration"] = flows.discounted_times.sum(axis=1) / value
    return found


def record_risk(
    curve: Any, pf: Policies, valid: np.ndarray, mode: str, tables: BookTables, tenors: np.ndarray
) -> dict[str, np.ndarray]:
    """Each valid record's Macaulay and modified durations, convexity, DV01 and key-rate DV01s
    (records by tenors), from its monthly expected flows, as ``risk.sensitivities`` finds a
    book's (NaN for the other records and for a value of 0). Records are taken in passes of
    about 4 million (record, month) cells."""
    size = len(pf)
    out = {name: np.full(size, np.nan) for name in ("macaulay_duration", "modified_duration", "convexity", "dv01")}
    out["key_rate_dv01"] = np.full((size, len(tenors)), np.nan)
    with Config().override(calculation_mode=mode):
        for part in _flow_parts(pf, valid):
            rows = part[-1]
            one = np.zeros(size, dtype=bool)
            one[rows] = True
            grid = _payment_months(flow_years(*last_payment_year([(pf, one)], tables)))
            step = max(1, _RISK_CELLS // grid.size)
            for start in range(0, rows.size, step):
                chosen = rows[start : start + step]
                flows = _part_flows(curve, pf, (*part[:-1], chosen), grid, tables, np.arange(chosen.size))
                found = _row_numbers(curve, flows, tenors)
                value = flows.discounted.sum(axis=1)
                for name in ("macaulay_duration", "convexity", "dv01"):
                    out[name][chosen] = np.where(value != 0.0, found[name], np.nan)
                out["modified_duration"][chosen] = np.where(value != 0.0, found["dv01"] / BASIS_POINT / value, np.nan)
                out["key_rate_dv01"][chosen] = found["key_rate_dv01"]
    return out


def _years_left(names: np.ndarray, ages: np.ndarray, tables: BookTables, fallback: Any = None) -> np.ndarray:
    """Years a life of each age can still live on its table (by name; empty: ``fallback``'s,
    then the default); NaN without an age."""
    if fallback is not None:
        names = np.where(names == "", fallback, names)
    left = np.full(names.shape, np.nan)
    for name in np.unique(names[~np.isnan(ages)]):
        table = tables.tables[str(name) or tables.default]
        last_age = (table.base if isinstance(table, GenerationalTable) else table).last_age
        mine = names == name
        left[mine] = last_age + 1.0 - ages[mine]
    return left


def last_payment_year(
    blocks: Iterable[tuple[Policies, np.ndarray]], tables: BookTables | None = None
) -> tuple[int, bool]:
    """The last year with payments among the valid records of (policies, valid) blocks, seen
    from their valuation times (a life's: until its table ends), and whether any of them is a
    perpetuity."""
    tables = tables or book_tables()
    ends = [np.empty(0)]
    for pf, valid in checked_blocks(blocks):
        rows = np.flatnonzero(valid)
        # A life may pay until its table ends, a pension with a reversion until the spouse's does.
        alive = np.full(rows.size, np.inf)
        lives = pf.life[rows]
        member = _years_left(pf.table[rows], pf.age[rows] + pf.shift[rows], tables)
        spouse = _years_left(pf.spouse_table[rows], pf.spouse_age[rows] + pf.shift[rows], tables, pf.table[rows])
        alive[lives] = np.fmax(member, np.where(pf.reversion[rows] > 0, spouse, np.nan))[lives]
        ends.append(payment_ends(pf.term[rows], pf.deferment[rows], pf.shift[rows], alive))
    every = np.concatenate(ends)
    finite = np.isfinite(every)
    last = int(math.ceil(every[finite].max() - 1e-9)) if finite.any() else 1
    return max(last, 1), bool((~finite).any())


def book_flows(
    curve: Any,
    blocks: Iterable[tuple[Policies, np.ndarray]],
    mode: str,
    years: int,
    tables: BookTables | None = None,
) -> dict[str, np.ndarray]:
    """portfolio_flows of (policies, valid) blocks, added up: "year", "expected_cf", "pv_cf"."""
    curve, mode = checked_curve(curve), checked_mode(mode) or Config().calculation_mode
    years = checked_years(years, "years", MAX_FLOW_YEARS)
    blocks = checked_blocks(blocks)
    grid = np.arange(1.0, years + 1.0)
    total = no_flows(grid)
    for pf, valid in blocks:
        total += portfolio_flows(curve, pf, valid, mode, grid, tables)
    return {"year": np.arange(1, years + 1), "expected_cf": total.total_expected, "pv_cf": total.total_discounted}


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
