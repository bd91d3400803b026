"""Books of annuity policies: read with Arrow, checked record by record, valued batch by batch.

A book is a table with the policy columns "id", "term", "deferment", "shift",
"frequency", "timing", "growth" and "benefit" (names in any case; "term" or "age" is
required): a CSV or Parquet file, a directory of Parquet files, a pandas or polars
DataFrame, a pyarrow Table, RecordBatchReader or Dataset, or a dict of columns.
A record with an "age" is a life annuity on the mortality table its "table" cell names
(selected at its "select_age"; in its "year" on a generational table; with its first
"guarantee" years of payments certain; a "reversion" of them to a spouse of "spouse_age" on
"spouse_table"; a "death_benefit" before they start); one without is a certain annuity.
Records that cannot be valued carry a message instead of stopping the run.

>>> from norvane.interest_rates import InterestRate
>>> from norvane.portfolio import value_book
>>> values = value_book({"term": [10, 20], "benefit": [1000, 500]}, InterestRate(0.03))
>>> values.present_value.round(2).tolist()
[8786.11, 7661.9]
"""

from __future__ import annotations

import sys
from collections.abc import Iterator, Mapping
from contextlib import AbstractContextManager, nullcontext
from dataclasses import dataclass, field
from fractions import Fraction
from pathlib import Path
from typing import TYPE_CHECKING, Any, cast

import numpy as np
import pyarrow as pa

from ..config import Config
from ..mortality import GenerationalTable, MortalityTable
from . import _arrow
from ._arguments import checked_curve, checked_mode, checked_path, checked_progress
from ._exact import exact_sum, rounded
from ._life import DEFAULT_TABLE, BookTables, book_tables
from ._output import check_output, output_kind, table_writer, write_table
from ._policies import POLICY_COLUMNS, InputError, Policies, first_columns, policies_from_batch
from ._sources import BATCH_ROWS, Book, open_book
from ._valuation import (
    PERPETUITY_YEARS,
    book_flows,
    flow_years,
    last_payment_year,
    portfolio_flows,
    record_risk,
    value_policies,
)

if TYPE_CHECKING:
    from ..cashflows import CashFlows

SAMPLE_PENSIONS = Path(__file__).resolve().parents[1] / "data" / "sample_pensions.csv"
"""A small synthetic pension scheme (500 members on tables "M" and "F", valued in 2026)."""

__all__ = [
    "BATCH_ROWS",
    "DEFAULT_TABLE",
    "POLICY_COLUMNS",
    "PERPETUITY_YEARS",
    "SAMPLE_PENSIONS",
    "SHOWN_ERRORS",
    "VALUES_SCHEMA",
    "Book",
    "BookSummary",
    "BookTables",
    "BookValues",
    "InputError",
    "Policies",
    "ValuedBlock",
    "book_flows",
    "book_tables",
    "check_output",
    "flow_book",
    "flow_years",
    "last_payment_year",
    "open_book",
    "output_kind",
    "policies_from_batch",
    "risk_schema",
    "stream_book",
    "value_book",
    "value_policies",
    "valued_blocks",
    "write_table",
]

VALUES_SCHEMA = pa.schema([("id", pa.string()), ("present_value", pa.float64()), ("error", pa.string())])


def risk_schema(tenors: Any) -> pa.Schema:
    """The values' schema with each record's sensitivities: "macaulay_duration",
    "modified_duration", "convexity", "dv01" and a "key_rate_dv01_<tenor>y" a key tenor."""
    names = ["macaulay_duration", "modified_duration", "convexity", "dv01"]
    names += [f"key_rate_dv01_{float(t):g}y" for t in tenors]
    return pa.schema(list(VALUES_SCHEMA) + [pa.field(name, pa.float64()) for name in names])


# Error messages a summary keeps; the values have all of them.
SHOWN_ERRORS = 5


@dataclass
class ValuedBlock:
    """One batch of policies with their present values and error messages (None when valued)."""

    policies: Policies
    values: np.ndarray
    errors: np.ndarray
    valid: np.ndarray
    labels: np.ndarray | None = None  # of the column the flows are split by (None for a missing cell)

    def to_batch(self) -> pa.RecordBatch:
        """The block's values as an Arrow record batch of ``VALUES_SCHEMA``."""
        failed = ~self.valid
        columns = [self.policies.ids, _arrow.from_numbers(self.values), _arrow.from_texts(self.errors[failed], failed)]
        return pa.RecordBatch.from_arrays(columns, schema=VALUES_SCHEMA)


@dataclass
class BookSummary:
    """Counts and total present value of a valued book, and its first error messages."""

    policies: int = 0
    valued: int = 0
    errors: int = 0
    total_present_value: float = 0.0  # of the finite values, correctly rounded
    first_errors: list[tuple[str, str]] = field(default_factory=list)  # (id, message)
    _exact_total: Fraction = field(default=Fraction(0), repr=False)

    def add(self, block: ValuedBlock) -> None:
        """Count a valued block in: its policies, its values and its first error messages."""
        failed = np.flatnonzero(~block.valid)
        self.policies += len(block.values)
        self.errors += len(failed)
        self.valued += len(block.values) - len(failed)
        self._exact_total += exact_sum(block.values[np.isfinite(block.values)])
        self.total_present_value = rounded(self._exact_total)
        for i in failed[: SHOWN_ERRORS - len(self.first_errors)]:
            self.first_errors.append((block.policies.ids[i].as_py(), block.errors[i]))


class BookValues:
    """Present values and error messages of a book's policies, in the book's order.

    ``present_value`` is NaN where ``error`` holds the record's message (None for valued
    records); ``id`` is the policy's "id" cell, or its record number (from 1) without an
    "id" column.

    Kept compact: the values in one float64 array, the ids as Arrow text and a message only
    for each invalid record; the other forms are built when asked for.
    """

    def __init__(
        self,
        ids: pa.ChunkedArray,
        values: np.ndarray,
        failed: np.ndarray,
        messages: list[str],
        summary: BookSummary,
        index: Any = None,
    ):
        values.flags.writeable = False  # shared with to_arrow()
        self._ids, self._values, self._failed, self._messages = ids, values, failed, messages
        self._summary, self._index = summary, index

    def __len__(self) -> int:
        return len(self._values)

    @property
    def nbytes(self) -> int:
        """Bytes the values hold: ids, values and the invalid records' positions (messages aside)."""
        return cast(int, self._ids.nbytes) + self._values.nbytes + self._failed.nbytes

    def __repr__(self) -> str:
        s = self._summary
        return f"<BookValues: {s.policies:,} policies, {s.errors:,} errors, total {s.total_present_value:,.2f}>"

    @property
    def id(self) -> np.ndarray:
        """The policies' ids (their "id" cells, or record numbers from 1), as an array."""
        return cast(np.ndarray, self._ids.to_numpy())

    @property
    def present_value(self) -> np.ndarray:
        """The values, read-only (copy them to change them)."""
        return self._values

    @property
    def error(self) -> np.ndarray:
        """Each policy's error message, None for valued records (an object array)."""
        errors = np.full(len(self), None, dtype=object)
        errors[self._failed] = self._messages
        return errors

    def summary(self) -> BookSummary:
        """Counts, total present value and first error messages of the book."""
        return self._summary

    def to_arrow(self) -> pa.Table:
        """Columns "id", "present_value" and "error" (null for valued records)."""
        failed = np.zeros(len(self), dtype=bool)
        failed[self._failed] = True
        columns = [self._ids, _arrow.from_numbers(self._values), _arrow.from_texts(self._messages, failed)]
        return pa.Table.from_arrays(columns, schema=VALUES_SCHEMA)

    def to_pandas(self) -> Any:
        """A pandas DataFrame of "id", "present_value" and "error" (pandas' string dtype, missing
        for valued records), on the index of the book when it was a pandas DataFrame."""
        import pandas as pd

        frame = pd.DataFrame({"id": self.id, "present_value": self.present_value}, index=self._index)
        frame["error"] = pd.Series(self.error, index=frame.index, dtype="string")
        return frame


class _Values:
    """Float64 values appended batch by batch to one array, which grows in place: NumPy
    reallocates it, and a large block moves without a copy, so memory grows by the 8 bytes a
    value takes, not by a copy of the book's values."""

    def __init__(self, expected: int | None):
        self.array = np.empty(expected or BATCH_ROWS)
        self.size = 0

    def extend(self, values: np.ndarray) -> None:
        end = self.size + len(values)
        if end > len(self.array):
            self.array.resize(max(end, 2 * len(self.array)), refcheck=False)  # nothing else refers to it
        self.array[self.size : end] = values
        self.size = end

    def done(self) -> np.ndarray:
        self.array.resize(self.size, refcheck=False)
        return self.array


Tables = Mapping[str, MortalityTable | GenerationalTable]


def valued_blocks(
    book: Book, curve: Any, mode: str | None = None, progress: bool | None = False, tables: Tables | None = None
) -> Iterator[ValuedBlock]:
    """The book's batches, valued one by one as they are read.

    ``progress``: draw a bar on stderr (None: when stderr is a terminal). It counts records,
    or bytes of the file for CSV. ``tables``: see :func:`value_book`.
    """
    curve, mode, progress = checked_curve(curve), checked_mode(mode), checked_progress(progress)
    known = book_tables(tables)
    return _valued_blocks(book, curve, mode or Config().calculation_mode, progress, known)


def _valued_blocks(
    book: Book, curve: Any, mode: str, progress: bool | None, known: Any, by: str | None = None
) -> Iterator[ValuedBlock]:
    first = 0
    with _progress_bar(book, progress) as bar:
        for block in book.blocks:
            policies = policies_from_batch(block.batch, first, block.defects)
            first += len(policies)
            if bar is not None:
                bar.update(book.done() - bar.n if book.done is not None else len(policies))
            labels = None
            if by is not None:
                position = first_columns(block.batch.schema.names).get(by.strip().lower())
                if position is None:
                    raise InputError(f"{book.name}: no {by!r} column to split the flows by")
                labels = np.array(block.batch.column(position).to_pylist(), dtype=object)
            yield ValuedBlock(policies, *value_policies(curve, policies, mode, known), labels)


def _progress_bar(book: Book, progress: bool | None) -> AbstractContextManager[Any]:
    """A tqdm bar on stderr, or None when it is off (None: off unless stderr is a terminal).
    tqdm is imported only to draw: its import is a noticeable share of a short run."""
    if not (sys.stderr.isatty() if progress is None else progress):
        return nullcontext()
    from tqdm import tqdm

    bar: AbstractContextManager[Any] = tqdm(
        total=book.total, unit=book.unit, unit_scale=book.unit == "B", desc="valuing", file=sys.stderr
    )
    return bar


def flow_book(
    book: Any,
    curve: Any,
    *,
    mode: str | None = None,
    horizon: float | None = None,
    tables: Tables | None = None,
    buckets: str = "annual",
    by: str | None = None,
) -> CashFlows:
    """Expected and discounted cash flows of a book's valid records, year by year (or month
    by month, ``buckets="monthly"``) after each record's valuation time: certain and life
    annuities with every pension part.

    ``book``, ``mode`` and ``tables`` are :func:`value_book`'s; the grid runs ``horizon``
    years (default: to the last payment any record can make, 100 years with perpetuities),
    later flows in its last bucket. Each flow goes to the first bucket ending at or after it.
    ``by`` names a column of the book (a product, a table...) to split the flows by.
    """
    from ..cashflows import bucket_ends, no_flows

    known = book_tables(tables)
    mode = checked_mode(mode) or Config().calculation_mode
    checked_curve(curve)
    valued = list(_valued_blocks(open_book(book), curve, mode, False, known, by))
    blocks = [(block.policies, block.valid) for block in valued]
    grid = bucket_ends(buckets, flow_years(*last_payment_year(blocks, known), horizon))
    flows = [portfolio_flows(curve, b.policies, b.valid, mode, grid, known, b.labels) for b in valued]
    return sum(flows[1:], flows[0]) if flows else no_flows(grid)


def value_book(
    book: Any,
    curve: Any,
    *,
    mode: str | None = None,
    progress: bool | None = False,
    tables: Tables | None = None,
) -> BookValues:
    """Present value and error message of every policy of a book.

    Parameters
    ----------
    book : path, pandas or polars DataFrame, pyarrow Table, RecordBatchReader or Dataset, or dict
        One row per policy, with the policy columns (see the module's description): a CSV
        (plain or gzip-compressed) or Parquet file or a directory of Parquet files, or any
        table in memory; objects with ``__arrow_c_stream__`` (polars, DuckDB) are read
        through that interface. In number columns a null or NaN is a missing cell.
    curve : InterestRate
        The valuation curve.
    mode : str, optional
        Calculation mode; default ``Config().calculation_mode``.
    progress : bool or None, default False
        Draw a progress bar on stderr; None draws it when stderr is a terminal.
    tables : mapping of str to MortalityTable or GenerationalTable, optional
        The tables that "table" cells name (e.g. by sex), beside the bundled tables by their
        names. Records with an age and no "table" cell follow the first of them, or the
        bundled DEFAULT_TABLE when none is given.

    Returns
    -------
    BookValues
        ``.present_value``, ``.error``, ``.id``, ``.summary()``, ``.to_arrow()`` and
        ``.to_pandas()``.
    """
    summary = BookSummary()
    checked_curve(curve), checked_mode(mode), checked_progress(progress)  # before the book is opened
    source = open_book(book)
    values = _Values(source.total if source.unit == "policies" else None)
    ids: list[pa.Array] = []
    failed: list[np.ndarray] = []
    messages: list[str] = []
    for block in valued_blocks(source, curve, mode, progress, tables):
        summary.add(block)
        invalid = np.flatnonzero(~block.valid)
        failed.append(invalid + values.size)
        messages.extend(block.errors[invalid])
        values.extend(block.values)
        ids.append(block.policies.ids)
    positions = np.concatenate(failed) if failed else np.empty(0, dtype=np.intp)
    return BookValues(pa.chunked_array(ids, pa.string()), values.done(), positions, messages, summary, source.index)


def stream_book(
    book: Any,
    curve: Any,
    output: Path | None = None,
    *,
    mode: str | None = None,
    progress: bool | None = False,
    tables: Tables | None = None,
    risk_tenors: Any = None,
) -> BookSummary:
    """Value a book batch by batch, writing "id", "present_value" and "error" of each batch
    to ``output`` (.csv, .csv.gz or .parquet) before reading the next; memory stays near one
    batch whatever the book's size. ``tables`` as for :func:`value_book`; ``risk_tenors`` (key
    tenors in years) adds each record's durations, convexity, DV01 and key-rate DV01s
    (``risk_schema``), from its monthly expected flows. Returns the summary."""
    output = None if output is None else checked_path(output, "output")
    check_output(output)
    checked_curve(curve), checked_mode(mode), checked_progress(progress)
    book_tables(tables)  # a bad mapping is refused before any work
    summary = BookSummary()
    blocks = valued_blocks(open_book(book), curve, mode, progress, tables)
    if output is None:
        for block in blocks:
            summary.add(block)
        return summary
    known = book_tables(tables)
    tenors = None if risk_tenors is None else np.asarray(risk_tenors, dtype=np.float64)
    with table_writer(output, VALUES_SCHEMA if tenors is None else risk_schema(tenors)) as write:
        for block in blocks:
            summary.add(block)
            batch = block.to_batch()
            if tenors is not None:
                risk = record_risk(curve, block.policies, block.valid, mode or Config().calculation_mode, known, tenors)
                columns = [risk[name] for name in ("macaulay_duration", "modified_duration", "convexity", "dv01")]
                columns += list(risk["key_rate_dv01"].T)
                for name, column in zip(risk_schema(tenors).names[len(VALUES_SCHEMA) :], columns):
                    batch = batch.append_column(name, _arrow.from_numbers(np.ascontiguousarray(column)))
            write(batch)
    return summary
