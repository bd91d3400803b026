"""Books of policies as streams of Arrow record batches: files, data frames and Arrow objects.

Files are read batch by batch, so memory is bounded by the batch, not by the book. CSV
cells are read as text and checked by the policy reader, so that a bad cell spoils its
record only, not the batch.
"""

from __future__ import annotations

import csv
import io
import sys
from collections import deque
from collections.abc import Callable, Iterator, Mapping
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from typing import Any, cast

import numpy as np
import pyarrow as pa
import pyarrow.csv as pa_csv
import pyarrow.parquet as pq

from ._policies import InputError, check_columns, first_columns

# Records per batch of Parquet files and in-memory tables; CSV blocks are of about the same size.
BATCH_ROWS = 1 << 16
CSV_BLOCK_BYTES = 2 << 20
# Enough of a CSV file for its header line.
_HEADER_BYTES = 1 << 20
_GZIP_MAGIC = b"\x1f\x8b"
# Policy columns of few distinct cells.
REPEATED_COLUMNS = ("frequency", "timing", "table")


@dataclass
class Block:
    """A batch of records in the book's order, and messages for records the reader could not
    split into the header's fields (by row of the batch)."""

    batch: pa.RecordBatch
    defects: Mapping[int, str]


@dataclass
class Book:
    """An open book: its blocks, and how far reading has got in ``unit`` (out of ``total``)."""

    name: str
    blocks: Iterator[Block]
    total: int | None
    unit: str
    done: Callable[[], int] | None = None  # progress in bytes; None: count the records
    index: Any = None  # a pandas frame's index


def _plain_blocks(batches: Iterator[pa.RecordBatch]) -> Iterator[Block]:
    for batch in batches:
        yield Block(batch, {})


def _rows(name: str, schema: pa.Schema, batches: Iterator[pa.RecordBatch], total: int | None) -> Book:
    check_columns(schema.names, name)
    return Book(name, _plain_blocks(batches), total, "policies")


# --------------------------------------------------------------------------- CSV


def _csv_input(path: Path) -> tuple[pa.NativeFile, pa.NativeFile]:
    """The file as read from disk (its position is the progress) and its text, inflated
    when gzip-compressed, whatever its name."""
    raw = pa.OSFile(str(path))
    compressed = raw.read(2) == _GZIP_MAGIC
    raw.seek(0)
    return raw, pa.CompressedInputStream(raw, "gzip") if compressed else raw


class _BrokenRows:
    """Rows whose number of fields differs from the header's, kept by record number for their
    place in the output; Arrow's reader skips them."""

    def __init__(self, width: int):
        self.width = width
        self.pending: deque[tuple[int, str]] = deque()

    def __call__(self, row: pa_csv.InvalidRow) -> str:
        # Rows are numbered from the header's 1, without blank lines: record k (from 0) is k + 2.
        self.pending.append((row.number - 2, row.text))
        return "skip"

    def take(self, before: int, good: int) -> list[tuple[int, str]]:
        """The broken records among the next ``good`` good ones, from record ``before``."""
        taken: list[tuple[int, str]] = []
        while self.pending and self.pending[0][0] < before + good + len(taken):
            taken.append(self.pending.popleft())
        return taken

    def cells(self, text: str) -> tuple[list[str], int]:
        """A broken row's cells as the csv module splits them, padded or cut to the header,
        and how many there were."""
        row = next(csv.reader(io.StringIO(text)), [])
        return (row + [""] * self.width)[: self.width], len(row)


def _empty(schema: pa.Schema) -> pa.RecordBatch:
    return pa.RecordBatch.from_arrays([pa.array([], kind) for kind in schema.types], schema=schema)


def _merge(batch: pa.RecordBatch, broken: _BrokenRows, records: int, rows: list[tuple[int, str]]) -> Block:
    """The batch with the broken rows put back at their places."""
    split = [broken.cells(text) for _, text in rows]
    fixed = pa.RecordBatch.from_arrays(
        [pa.array([cells[k] for cells, _ in split], pa.string()) for k in range(broken.width)], schema=batch.schema
    )
    size = batch.num_rows + len(rows)
    places = np.array([number - records for number, _ in rows], dtype=np.int64)
    is_broken = np.zeros(size, dtype=bool)
    is_broken[places] = True
    order = np.empty(size, dtype=np.int64)
    order[~is_broken] = np.arange(batch.num_rows)
    order[places] = batch.num_rows + np.arange(len(rows))
    merged = pa.Table.from_batches([batch, fixed]).take(pa.array(order)).combine_chunks()
    defects = {
        int(place): f"record has {count} fields, the header has {broken.width}"
        for place, (_, count) in zip(places, split)
    }
    return Block(merged.to_batches()[0], defects)


def _csv_blocks(reader: pa_csv.CSVStreamingReader, broken: _BrokenRows) -> Iterator[Block]:
    records = 0
    for batch in reader:
        rows = broken.take(records, batch.num_rows)
        block = _merge(batch, broken, records, rows) if rows else Block(batch, {})
        records += block.batch.num_rows
        yield block
    if broken.pending:  # broken rows after the last good one
        yield _merge(_empty(reader.schema), broken, records, list(broken.pending))


def _header(path: Path) -> list[str]:
    raw, text = _csv_input(path)
    with raw:
        reader = pa_csv.open_csv(
            text,
            read_options=pa_csv.ReadOptions(block_size=_HEADER_BYTES, use_threads=False),
            parse_options=pa_csv.ParseOptions(newlines_in_values=True, invalid_row_handler=lambda row: "skip"),
        )
        return cast(list[str], reader.schema.names)


def _open_csv(path: Path) -> Book:
    try:
        names = _header(path)
    except pa.ArrowInvalid as exc:
        if "Empty CSV" in str(exc):
            raise InputError(f"{path}: no header line") from None
        raise
    check_columns(names, path)
    broken = _BrokenRows(len(names))
    raw, text = _csv_input(path)
    # Single-threaded parsing numbers the broken rows, which places them in the output.
    reader = pa_csv.open_csv(
        text,
        read_options=pa_csv.ReadOptions(block_size=CSV_BLOCK_BYTES, use_threads=False),
        parse_options=pa_csv.ParseOptions(newlines_in_values=True, invalid_row_handler=broken),
        convert_options=pa_csv.ConvertOptions(column_types={name: pa.string() for name in names}),
    )
    return Book(str(path), _csv_blocks(reader, broken), path.stat().st_size, "B", raw.tell)


# --------------------------------------------------------------------------- Parquet


def _read_ahead(batches: Iterator[pa.RecordBatch]) -> Iterator[pa.RecordBatch]:
    """The batches, each read in a thread while the caller works on the one before: Arrow
    decodes without the GIL, so reading and valuing overlap. One batch is in flight."""
    with ThreadPoolExecutor(1, thread_name_prefix="norvane-read") as reader:
        pending = reader.submit(next, batches, None)
        while (batch := pending.result()) is not None:
            pending = reader.submit(next, batches, None)
            yield batch


def _repeated_texts(schema: pa.Schema) -> list[str]:
    """Text columns of the policy columns whose cells repeat (timing, frequency, table): read
    as dictionaries, they skip decoding every cell, and each distinct cell is checked once."""
    positions = first_columns(schema.names)
    return [
        schema.names[positions[name]]
        for name in REPEATED_COLUMNS
        if name in positions and pa.types.is_string(schema.types[positions[name]])
    ]


def _open_parquet(path: Path) -> Book:
    if path.is_dir():
        import pyarrow.dataset as ds  # a third of a second to import: only for directories

        dataset = ds.dataset(path, format="parquet", partitioning="hive")
        repeated = _repeated_texts(dataset.schema)
        if repeated:
            options = ds.ParquetReadOptions(dictionary_columns=repeated)
            dataset = ds.dataset(path, format=ds.ParquetFileFormat(read_options=options), partitioning="hive")
        # Little read-ahead: memory stays near one batch per column.
        batches = dataset.to_batches(batch_size=BATCH_ROWS, batch_readahead=1, fragment_readahead=1)
        return _rows(str(path), dataset.schema, batches, dataset.count_rows())
    file = pq.ParquetFile(path)
    repeated = _repeated_texts(file.schema_arrow)
    if repeated:  # reopened to keep them encoded
        file = pq.ParquetFile(path, read_dictionary=repeated)
    batches = _read_ahead(file.iter_batches(batch_size=BATCH_ROWS))
    return _rows(str(path), file.schema_arrow, batches, file.metadata.num_rows)


def open_file(path: Path) -> Book:
    """A CSV (plain or gzip-compressed) or Parquet file, or a directory of Parquet files."""
    if not path.exists():
        raise InputError(f"{path}: no such file")
    parquet = path.is_dir() or path.name.lower().endswith((".parquet", ".pq"))
    unreadable = f"{path}: not a readable {'Parquet' if parquet else 'CSV'} file"
    try:
        book = _open_parquet(path) if parquet else _open_csv(path)
    except (pa.ArrowException, OSError, EOFError) as exc:
        raise InputError(f"{unreadable} ({exc})") from None
    book.blocks = _reported(book.blocks, unreadable)
    return book


def _reported(blocks: Iterator[Block], unreadable: str) -> Iterator[Block]:
    """The blocks, with a fault found part way through the file as an input error."""
    try:
        yield from blocks
    except (pa.ArrowException, OSError, EOFError) as exc:
        raise InputError(f"{unreadable} ({exc})") from None


# --------------------------------------------------------------------------- data frames


def _from_pandas(frame: Any) -> pa.Table:
    """A pandas DataFrame column by column; a column of mixed Python objects becomes text."""
    columns = []
    for _, series in frame.items():
        try:
            columns.append(pa.array(series, from_pandas=True))
        except (pa.ArrowInvalid, pa.ArrowTypeError, OverflowError):  # e.g. an int beyond 64 bits
            columns.append(pa.array(series.astype("string"), from_pandas=True))
    return pa.Table.from_arrays(columns, names=[str(name) for name in frame.columns])


def _is_instance(book: Any, module: str, name: str) -> bool:
    """isinstance without importing the module: its objects exist only once it is loaded."""
    loaded = sys.modules.get(module)
    return loaded is not None and isinstance(book, getattr(loaded, name))


def _is_pandas(book: Any) -> bool:
    return _is_instance(book, "pandas", "DataFrame")


def _table(book: Any) -> pa.Table | None:
    if _is_pandas(book):
        return _from_pandas(book)
    if isinstance(book, pa.Table):
        return book
    if isinstance(book, pa.RecordBatch):
        return pa.Table.from_batches([book])
    if isinstance(book, Mapping):
        try:
            return pa.table({str(name): column for name, column in book.items()})
        except (pa.ArrowInvalid, pa.ArrowTypeError) as exc:
            raise TypeError(f"the book's columns must be arrays of one kind of cell: {exc}") from None
    return None


def open_book(book: Any, name: str = "book") -> Book:
    """The policies of a file path, pandas DataFrame, pyarrow Table, RecordBatch,
    RecordBatchReader or Dataset, dict of columns, or any object with ``__arrow_c_stream__``
    (a polars DataFrame, a DuckDB result, ...)."""
    if isinstance(book, (str, Path)):
        return open_file(Path(book))
    table = _table(book)
    if table is not None:
        opened = _rows(name, table.schema, iter(table.to_batches(max_chunksize=BATCH_ROWS)), table.num_rows)
        opened.index = book.index if _is_pandas(book) else None
        return opened
    if _is_instance(book, "pyarrow.dataset", "Dataset"):
        return _rows(name, book.schema, book.to_batches(batch_size=BATCH_ROWS), book.count_rows())
    if not isinstance(book, pa.RecordBatchReader) and hasattr(book, "__arrow_c_stream__"):
        book = pa.RecordBatchReader.from_stream(book)
    if isinstance(book, pa.RecordBatchReader):
        return _rows(name, book.schema, iter(book), None)
    raise TypeError(
        "a book is a file path, a pandas or polars DataFrame, a pyarrow Table, RecordBatchReader or "
        f"Dataset, or a dict of columns; got {type(book).__name__}"
    )
