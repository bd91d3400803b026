"""The pre-Arrow reader of ``norvane value``, kept only as the baseline of benchmarks/bench_io.py.

It parses CSV with the csv module and Parquet through Python lists, cell by cell, holds the
whole book in memory, values it and writes the output; the valuation calls are the library's
own. Run as ``python benchmarks/_legacy_reader.py --portfolio BOOK --rate R [--output FILE]``
to time it end to end as the command line did.
"""

from __future__ import annotations

import argparse
import csv
import gzip
import io
import math
import re
import sys
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any, TextIO

import numpy as np
import pyarrow as pa
import pyarrow.parquet

from norvane.base import _ALLOWED_PAYMENT_FREQUENCIES
from norvane.config import Config
from norvane.portfolio import InputError

# Policies valued per call: bounds the memory of one call and paces progress reports.
CHUNK = 50_000
# Default length of the flows grid when perpetuities are held: their later flows share the last year.
PERPETUITY_YEARS = 100


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


def _open_text(path: Path) -> TextIO:
    with open(path, "rb") as raw:
        compressed = raw.read(2) == b"\x1f\x8b"
    if compressed:
        return io.TextIOWrapper(gzip.open(path, "rb"), encoding="utf-8-sig", newline="")
    return open(path, encoding="utf-8-sig", newline="")


def _read_csv(path: Path) -> tuple[dict[str, Sequence[Any]], int, list[str | None]]:
    with _open_text(path) as text:
        reader = csv.reader(text)
        header = next(reader, None)
        if not header:
            raise InputError(f"{path}: no header line")
        width = len(header)
        rows, defects = [], []
        for row in reader:
            if not row:
                continue  # blank line
            if len(row) != width:
                defects.append(f"record has {len(row)} fields, the header has {width}")
                row = (row + [""] * width)[:width]
            else:
                defects.append(None)
            rows.append(row)
    columns = list(zip(*rows)) if rows else [()] * width
    table: dict[str, Sequence[Any]] = {}
    for name, values in zip(header, columns):
        table.setdefault(name.strip().lower(), values)
    return table, len(rows), defects


def _require_pyarrow(purpose: str):
    try:
        import pyarrow
        import pyarrow.parquet
    except ImportError:
        raise InputError(f'{purpose} needs pyarrow: pip install "norvane[parquet]"') from None
    return pyarrow


def _read_parquet(path: Path) -> tuple[dict[str, Sequence[Any]], int, list[str | None]]:
    pa = _require_pyarrow("reading Parquet")
    try:
        data = pa.parquet.read_table(path)
    except (pa.ArrowException, OSError) as exc:
        raise InputError(f"{path}: not a readable Parquet file ({exc})") from None
    table: dict[str, Sequence[Any]] = {}
    for name in data.column_names:
        # Data frames write missing numbers as NaN: in Parquet a NaN is a missing cell,
        # as it is for the Dask path, which reads the same files through pandas.
        cells = [None if isinstance(x, float) and math.isnan(x) else x for x in data.column(name).to_pylist()]
        table.setdefault(name.strip().lower(), cells)
    return table, data.num_rows, [None] * data.num_rows


def read_portfolio(path: Path) -> Portfolio:
    """Policies from a CSV, gzip-compressed CSV or Parquet file."""
    if not path.is_file():
        raise InputError(f"{path}: no such file")
    suffix = path.name.lower()
    try:
        if suffix.endswith((".parquet", ".pq")):
            table, count, defects = _read_parquet(path)
        else:
            table, count, defects = _read_csv(path)
    except (OSError, EOFError, UnicodeDecodeError, csv.Error) as exc:
        raise InputError(f"{path}: not a readable CSV file ({exc})") from None
    return policies_from_table(table, count, defects, path)


def _cell(x: Any) -> str:
    if x is None:
        return ""
    if isinstance(x, (float, np.floating)):
        return repr(float(x))
    return str(x)


def write_table(path: Path, columns: dict[str, Sequence[Any]]) -> None:
    """Columns to CSV (gzip-compressed for .gz) or Parquet, by the file name."""
    if path.name.lower().endswith((".parquet", ".pq")):
        data = {k: (np.asarray(v) if isinstance(v, np.ndarray) else list(v)) for k, v in columns.items()}
        pa.parquet.write_table(pa.table(data), path)
        return
    opener = gzip.open if path.name.lower().endswith(".gz") else open
    with opener(path, "wt", encoding="utf-8", newline="") as out:
        writer = csv.writer(out, lineterminator="\n")
        writer.writerow(columns)
        cells = [
            [_cell(x) for x in col.tolist()] if isinstance(col, np.ndarray) else [_cell(x) for x in col]
            for col in columns.values()
        ]
        writer.writerows(zip(*cells))


def main(argv: Sequence[str] | None = None) -> int:
    from norvane.interest_rates import InterestRate

    parser = argparse.ArgumentParser(description="the pre-Arrow norvane value, for timing")
    parser.add_argument("--portfolio", type=Path, required=True)
    parser.add_argument("--rate", type=float, required=True)
    parser.add_argument("--output", type=Path)
    args = parser.parse_args(argv)
    pf = read_portfolio(args.portfolio)
    values, errors = value_portfolio(InterestRate(args.rate), pf, Config().calculation_mode)
    if args.output is not None:
        write_table(args.output, {"id": pf.ids, "present_value": values, "error": errors})
    failed = sum(e is not None for e in errors)
    total = math.fsum(values[np.isfinite(values)].tolist())
    print(f"{len(pf):,} policies, {len(pf) - failed:,} valued, {failed:,} errors, total present value {total:,.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
