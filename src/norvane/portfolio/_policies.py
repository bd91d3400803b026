"""Policy records of one Arrow record batch as NumPy arrays, with each record's first defect.

Cells are checked over whole columns with Arrow compute and NumPy; only the few cells that
fail a check go through Python, to word their messages.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from functools import partial
from typing import Any, cast

import numpy as np
import pyarrow as pa
import pyarrow.compute as pc
from numpy.typing import NDArray

from ..base import _ALLOWED_PAYMENT_FREQUENCIES
from . import _arrow

# The last five make a record a life annuity (it has an age) on the table its "table" cell names.
POLICY_COLUMNS = (
    *("id", "term", "deferment", "shift", "frequency", "timing", "growth", "benefit"),
    *("age", "table", "select_age", "year", "guarantee"),
    *("spouse_age", "spouse_table", "reversion", "death_benefit", "kind", "birth_year"),
)

# What a life record pays ("kind"); a certain record is an annuity.
KINDS = ("annuity", "insurance", "endowment_insurance", "pure_endowment")

# Number texts that Arrow's cast reads exactly as float() does; other texts (1_000, ...) go to
# float() itself, one cell at a time.
_PLAIN_NUMBER = r"(?i)^[+-]?(([0-9]+\.?[0-9]*|\.[0-9]+)(e[+-]?[0-9]+)?|inf(inity)?|nan)$"
# Cells per cast when a column holds cells that Arrow cannot read.
_SLICE = 1 << 13
_NO_TEXTS = pa.nulls(1, pa.string())
_NO_TEXT = _NO_TEXTS[0]


class InputError(Exception):
    """The input cannot be used (for example, no "term" column)."""


@dataclass
class Policies:
    """Policy parameters as NumPy arrays, with the records' own defects."""

    ids: pa.Array  # string
    term: np.ndarray
    deferment: np.ndarray
    shift: np.ndarray
    frequency: np.ndarray  # int64
    due: np.ndarray  # bool: annuity-due, else immediate
    growth: np.ndarray  # NaN for level payments
    benefit: np.ndarray
    age: np.ndarray  # NaN for certain annuities
    table: np.ndarray  # object: the table's name, "" for the book's default table
    select_age: np.ndarray  # NaN: selected at the integer part of the age
    year: np.ndarray  # calendar year of the age (for generational tables); NaN: none given
    guarantee: np.ndarray  # years of payments certain, 0 without
    spouse_age: np.ndarray  # NaN: no spouse
    spouse_table: np.ndarray  # object: the spouse's table, "" for the member's
    reversion: np.ndarray  # the fraction paid on to a surviving spouse, 0 without
    death_benefit: np.ndarray  # lump sum on death before the payments start, 0 without
    kind: np.ndarray  # object: one of KINDS
    life: np.ndarray  # bool: an age is given, the record is valued life-contingently
    errors: np.ndarray  # object: first defect of each record, None when it can be valued
    clean: np.ndarray  # bool: no defect

    def __len__(self) -> int:
        return len(self.ids)


class _Defects:
    """The first defect of each record: later checks do not replace an earlier message."""

    def __init__(self, count: int):
        self.messages = np.full(count, None, dtype=object)
        self.clean = np.ones(count, dtype=bool)

    def note(self, bad: np.ndarray, message: Callable[[int], str]) -> None:
        rows = np.flatnonzero(bad & self.clean)
        for i in rows:
            self.messages[i] = message(int(i))
        self.clean[rows] = False


def _shown(column: pa.Array, i: int) -> str:
    """A cell as messages show it: the repr of its plain Python value."""
    return repr(column[i].as_py())


def _plain(column: pa.Array) -> pa.Array:
    """Large or viewed text as plain text, and dictionaries decoded, but for dictionaries of
    plain text: those are read once per distinct cell."""
    if pa.types.is_dictionary(column.type) and not pa.types.is_string(column.type.value_type):
        column = column.dictionary_decode()
    if pa.types.is_large_string(column.type) or pa.types.is_string_view(column.type):
        column = column.cast(pa.string())
    return column


def _is_text(column: pa.Array) -> bool:
    return cast(bool, pa.types.is_string(column.type))


def _is_text_dictionary(column: pa.Array) -> bool:
    return cast(bool, pa.types.is_dictionary(column.type) and pa.types.is_string(column.type.value_type))


def _distinct(column: pa.Array) -> tuple[pa.Array, np.ndarray]:
    """A text column's distinct cells, the last one null, and each record's place among them.
    Books repeat few timings, frequencies and tables: each distinct cell is read once."""
    encoded = column if _is_text_dictionary(column) else pc.dictionary_encode(column)
    # Wide enough for the null's place after a dictionary that fills a narrow index type.
    cells = _arrow.numbers(encoded.indices).astype(np.intp)
    cells[~_arrow.valid(encoded.indices)] = len(encoded.dictionary)
    return pa.concat_arrays([encoded.dictionary, _NO_TEXTS]), cells


def _is_number(column: pa.Array) -> bool:
    kind = column.type
    # Booleans are not numbers: a column of them is checked cell by cell like text.
    return cast(bool, pa.types.is_integer(kind) or pa.types.is_floating(kind) or pa.types.is_decimal(kind))


def _present(column: pa.Array) -> np.ndarray:
    """Cells that are neither null nor, in a float column, NaN (data frames write a missing
    number as NaN)."""
    present = _arrow.valid(column)
    if pa.types.is_floating(column.type):
        present &= ~_arrow.mask(pc.is_nan(column))
    return present


def _cast(text: pa.Array) -> tuple[np.ndarray, np.ndarray]:
    """Arrow's reading of a text column as float64 (NaN for nulls), and the cells it could not
    read: whole columns first, and slices of a column that holds such cells."""
    try:
        return _arrow.floats(pc.cast(text, pa.float64())), np.zeros(len(text), dtype=bool)
    except pa.ArrowInvalid:
        pass
    if len(text) > _SLICE:
        parts = [_cast(text.slice(start, _SLICE)) for start in range(0, len(text), _SLICE)]
        return np.concatenate([values for values, _ in parts]), np.concatenate([odd for _, odd in parts])
    plain = _arrow.mask(pc.match_substring_regex(text, _PLAIN_NUMBER))
    values = _arrow.floats(pc.cast(pc.if_else(_arrow.from_mask(plain), text, _NO_TEXT), pa.float64()))
    return values, ~plain & _arrow.valid(text)


_INFINITY = ("inf", "infinity")


def _text_numbers(column: pa.Array) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Text cells read as float64 (NaN for missing cells), the mask of given cells and the
    mask of cells that are not numbers."""
    empty = (_arrow.numbers(pc.binary_length(column)) == 0) & _arrow.valid(column)
    text = pc.if_else(_arrow.from_mask(empty), _NO_TEXT, column) if empty.any() else column
    values, odd = _cast(text)
    given = _arrow.valid(text)
    # Cells Arrow could not read (1_000, " 5", ...) and NaN ("nan", but also "nan(1)", which
    # float() refuses) are judged by float(), as written once stripped.
    odd |= given & np.isnan(values)
    failed = np.zeros(len(column), dtype=bool)
    rows = np.flatnonzero(odd)
    for i, cell in zip(rows, text.take(_arrow.from_numbers(rows)).to_pylist()):
        cell = cell.strip()
        given[i] = bool(cell)
        try:
            values[i] = float(cell) if cell else math.nan
        except ValueError:
            failed[i] = True
    # A number written out beyond the float range reads as infinity: it is no term, deferment or benefit.
    rows = np.flatnonzero(given & ~failed & np.isinf(values))
    for i, cell in zip(rows, text.take(_arrow.from_numbers(rows)).to_pylist()):
        failed[i] = cell.strip().lower().lstrip("+-") not in _INFINITY
    return values, given & ~failed, failed


def _numbers(
    column: pa.Array | None, count: int, default: float, name: str, defects: _Defects
) -> tuple[np.ndarray, np.ndarray]:
    """A column as float64 with the default for missing cells, and the mask of given cells.

    Missing cells are nulls, empty texts and, in number columns, NaN (data frames write a
    missing number as NaN). A text that is not a number is a defect of its record.
    """
    if column is None:
        return np.full(count, default), np.zeros(count, dtype=bool)
    if _is_text(column) or _is_text_dictionary(column):
        if _is_text(column):
            values, given, failed = _text_numbers(column)
        else:
            distinct, cells = _distinct(column)
            values, given, failed = (read[cells] for read in _text_numbers(distinct))
        defects.note(
            failed,
            lambda i: (
                f"{name} is {'beyond the float range' if np.isinf(values[i]) else 'not a number'}, "
                f"got {_shown(column, i)}"
            ),
        )
    elif _is_number(column):
        values = _arrow.floats(pc.cast(column, pa.float64(), safe=False))
        given = ~np.isnan(values)
    else:  # dates, lists, ...: no cell is a number
        values, given = np.full(count, math.nan), np.zeros(count, dtype=bool)
        defects.note(_arrow.valid(column), lambda i: f"{name} is not a number, got {_shown(column, i)}")
    return np.where(given, values, default), given


def _ids(column: pa.Array | None, first_record: int, count: int) -> pa.Array:
    """Identifiers as text: the record numbers when there is no id column, "" for a missing id."""
    if column is None:
        return pc.cast(_arrow.from_numbers(np.arange(first_record + 1, first_record + count + 1)), pa.string())
    if pa.types.is_nested(column.type):
        raise InputError(f"the id column must hold texts or numbers, got {column.type}")
    if pa.types.is_floating(column.type) or pa.types.is_boolean(column.type):
        # Arrow writes 5.0 as "5" and True as "true"; an id reads as Python writes it.
        text = column.to_numpy(zero_copy_only=False).astype(str)
        return pa.array(np.where(_present(column), text, ""), pa.string())
    text = pc.cast(column, pa.string())
    return pc.fill_null(text, "") if text.null_count else text


def _amounts(raw: Any, count: int, name: str, found: _Defects, default: float = 0.0) -> np.ndarray:
    """A column of amounts (finite and >= 0; ``default`` where empty); a bad cell is a defect and reads 0."""
    amounts, _ = _numbers(raw, count, default, name, found)
    bad = ~(np.isfinite(amounts) & (amounts >= 0.0))
    found.note(bad, lambda i: f"{name} must be a finite amount >= 0, got {_shown(raw, i)}")
    amounts[bad] = 0.0
    return amounts


def _due(column: pa.Array | None, count: int, defects: _Defects) -> np.ndarray:
    """True for annuities-due (the default), False for annuities-immediate."""
    if column is None:
        return np.ones(count, dtype=bool)
    if _is_text(column) or _is_text_dictionary(column):
        distinct, cells = _distinct(column)
        words = pc.utf8_lower(pc.utf8_trim_whitespace(distinct)).to_pylist()
        immediate: NDArray[np.bool_] = np.array([word == "immediate" for word in words], dtype=bool)[cells]
        bad = np.array([word not in (None, "", "due", "immediate") for word in words], dtype=bool)[cells]
    else:  # a number or any other cell is never a timing
        immediate = np.zeros(count, dtype=bool)
        bad = _present(column)
    defects.note(bad, lambda i: f"timing must be 'due' or 'immediate', got {_shown(column, i)}")
    return ~immediate


def _not_for_kind(name: str, kind: np.ndarray, i: int) -> str:
    return f"{name} is given for a kind {kind[i]!r}"


def _kinds(column: pa.Array | None, count: int, defects: _Defects) -> np.ndarray:
    """What each record pays, one of KINDS ("annuity" where empty)."""
    kinds, given = _names(column, count, "kind", defects)
    kinds = np.array([k.lower() for k in kinds.tolist()], dtype=object) if given.any() else kinds
    bad = given & ~np.isin(kinds, KINDS)
    defects.note(bad, lambda i: f"kind must be one of {', '.join(KINDS)}, got {_shown(column, i)}")
    return np.where(given & ~bad, kinds, "annuity")


def _names(column: pa.Array | None, count: int, name: str, defects: _Defects) -> tuple[np.ndarray, np.ndarray]:
    """Names of a text column, stripped ("" for missing cells), and the mask of given names.
    A cell of another kind (a number, ...) is a defect of its record."""
    if column is None:
        return np.full(count, "", dtype=object), np.zeros(count, dtype=bool)
    if not (_is_text(column) or _is_text_dictionary(column)):
        given = _present(column)
        defects.note(given, lambda i: f"{name} must be a name, got {_shown(column, i)}")
        return np.full(count, "", dtype=object), given
    distinct, cells = _distinct(column)
    stripped = pc.utf8_trim_whitespace(distinct).to_pylist()
    names = np.array([cell or "" for cell in stripped], dtype=object)[cells]
    return names, names != ""


def first_columns(names: list[str]) -> dict[str, int]:
    """Policy column name -> position, matched in any case; the first of equal names wins."""
    found: dict[str, int] = {}
    for position, name in enumerate(names):
        found.setdefault(str(name).strip().lower(), position)
    return found


def check_columns(names: list[str], source: object) -> None:
    if not {"term", "age"} & first_columns(names).keys():
        raise InputError(f"{source}: no 'term' or 'age' column (columns: {', '.join(map(str, names)) or 'none'})")


def policies_from_batch(
    batch: pa.RecordBatch, first_record: int = 0, defects: Mapping[int, str] | None = None
) -> Policies:
    """The policies of one record batch.

    ``first_record`` counts the records before the batch (ids default to record numbers);
    ``defects`` maps a row to a message the reader already has for it.
    """
    if not isinstance(batch, pa.RecordBatch):
        raise TypeError(f"[norvane.portfolio] expected a pyarrow RecordBatch, got {type(batch).__name__}.")
    count = batch.num_rows
    positions = first_columns(batch.schema.names)

    def column(name: str) -> Any:
        return _plain(batch.column(positions[name])) if name in positions else None

    found = _Defects(count)
    for row, message in (defects or {}).items():
        found.messages[row], found.clean[row] = message, False
    ids = _ids(column("id"), first_record, count)

    # term, deferment and shift are checked by the valuation itself, record by record.
    term, _ = _numbers(column("term"), count, math.inf, "term", found)
    deferment, _ = _numbers(column("deferment"), count, 0.0, "deferment", found)
    shift, _ = _numbers(column("shift"), count, 0.0, "shift", found)

    # The library refuses a whole batch for a bad frequency, growth or benefit: check here.
    raw_frequency = column("frequency")
    freq, _ = _numbers(raw_frequency, count, 1.0, "frequency", found)
    allowed = np.isin(freq, _ALLOWED_PAYMENT_FREQUENCIES)
    found.note(
        ~allowed,
        lambda i: f"frequency must be one of {_ALLOWED_PAYMENT_FREQUENCIES}, got {_shown(raw_frequency, i)}",
    )
    frequency = np.where(allowed, freq, 1).astype(np.int64)

    raw_growth = column("growth")
    growth, has_growth = _numbers(raw_growth, count, math.nan, "growth", found)
    bad = has_growth & ~(np.isfinite(growth) & (growth > -1.0))
    found.note(bad, lambda i: f"growth must be a finite rate above -1, got {_shown(raw_growth, i)}")
    growth[~has_growth | bad] = math.nan

    benefit = _amounts(column("benefit"), count, "benefit", found, 1.0)

    due = _due(column("timing"), count, found)

    # Ages, tables and select ages are checked by the life valuation, against each record's table.
    age, life = _numbers(column("age"), count, math.nan, "age", found)
    raw_table, raw_select = column("table"), column("select_age")
    table, has_table = _names(raw_table, count, "table", found)
    select_age, has_select = _numbers(raw_select, count, math.nan, "select_age", found)
    # Without its age a life record would pass for a certain annuity: refuse it.
    found.note(~life & has_table, lambda i: f"table is given without an age, got {_shown(raw_table, i)}")
    found.note(~life & has_select, lambda i: f"select_age is given without an age, got {_shown(raw_select, i)}")
    raw_year, raw_guarantee, raw_born = column("year"), column("guarantee"), column("birth_year")
    year, has_year = _numbers(raw_year, count, math.nan, "year", found)
    # A birth year names the calendar year of the age: the year of the birthday that reached it.
    born, has_born = _numbers(raw_born, count, math.nan, "birth_year", found)
    found.note(has_year & has_born, lambda i: f"year and birth_year are both given, got {_shown(raw_born, i)}")
    found.note(~life & has_born, lambda i: f"birth_year is given without an age, got {_shown(raw_born, i)}")
    year = np.where(has_born & ~has_year, born + np.floor(age), year)
    guarantee, has_guarantee = _numbers(raw_guarantee, count, 0.0, "guarantee", found)
    found.note(~life & has_year, lambda i: f"year is given without an age, got {_shown(raw_year, i)}")
    found.note(~life & has_guarantee, lambda i: f"guarantee is given without an age, got {_shown(raw_guarantee, i)}")
    raw_spouse, raw_spouse_table = column("spouse_age"), column("spouse_table")
    spouse_age, has_spouse = _numbers(raw_spouse, count, math.nan, "spouse_age", found)
    spouse_table, has_spouse_table = _names(raw_spouse_table, count, "spouse_table", found)
    found.note(~life & has_spouse, lambda i: f"spouse_age is given without an age, got {_shown(raw_spouse, i)}")
    found.note(
        ~has_spouse & has_spouse_table,
        lambda i: f"spouse_table is given without a spouse_age, got {_shown(raw_spouse_table, i)}",
    )
    raw_reversion, raw_death_benefit = column("reversion"), column("death_benefit")
    reversion = _amounts(raw_reversion, count, "reversion", found)
    found.note(
        ~has_spouse & (reversion > 0),
        lambda i: f"reversion is given without a spouse_age, got {_shown(raw_reversion, i)}",
    )
    death_benefit = _amounts(raw_death_benefit, count, "death_benefit", found)
    found.note(
        ~life & (death_benefit > 0),
        lambda i: f"death_benefit is given without an age, got {_shown(raw_death_benefit, i)}",
    )
    kind = _kinds(column("kind"), count, found)
    found.note(~life & (kind != "annuity"), lambda i: f"kind {kind[i]!r} is given without an age")
    # Indexation, guarantees and reversions are an annuity's.
    annuity_only = (
        ("growth", has_growth),
        ("guarantee", has_guarantee),
        ("spouse_age", has_spouse),
        ("death_benefit", death_benefit > 0),
    )
    for name, given in annuity_only:
        found.note(given & (kind != "annuity"), partial(_not_for_kind, name, kind))
    return Policies(
        ids,
        term,
        deferment,
        shift,
        frequency,
        due,
        growth,
        benefit,
        age,
        table,
        select_age,
        year,
        guarantee,
        spouse_age,
        spouse_table,
        reversion,
        death_benefit,
        kind,
        life,
        found.messages,
        found.clean,
    )
