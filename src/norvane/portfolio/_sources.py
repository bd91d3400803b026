"""Books of policies as streams of Arrow record batches: files, data frames and Arrow objects.

Files are read batch by batch, so memory is bounded by the batch, not by the book. CSV
cells are read as text and checked by the policy reader, so that a bad cell spoils its
record only, not the batch; so does a cell that is not UTF-8 text or is too long.
"""

from __future__ import annotations

import csv
import io
import sys
from collections import deque
from collections.abc import Callable, Iterator, Mapping
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any, cast

import numpy as np
import pyarrow as pa
import pyarrow.compute as pc
import pyarrow.csv as pa_csv
import pyarrow.parquet as pq

from . import _arrow
from ._policies import InputError, check_columns, first_columns

# Records per batch of Parquet files and in-memory tables. Arrow's CSV reader reads up to 32
# blocks ahead in a thread of its own, which pyarrow has no setting for: 1 MB blocks (batches
# of some 27,000 policies) keep that near 32 MB.
BATCH_ROWS = 1 << 16
CSV_BLOCK_BYTES = 1 << 20
# Enough of a CSV file for its header line.
_HEADER_BYTES = 1 << 20
# A record that does not fit in two blocks stops Arrow's reader: the file is read again with
# blocks this many times longer, up to the longest, past the records already given.
_BLOCK_GROWTH = 8
_LONGEST_BLOCK = 128 << 20
# A longer cell is left out and spoils its record: no policy needs one, and it would be copied
# into messages and outputs.
MAX_CELL_BYTES = 1 << 16
_GZIP_MAGIC = b"\x1f\x8b"
# A byte-order mark makes UTF-16 unambiguous (Excel's "Unicode" text); all other text is UTF-8.
_UTF16_MARKS = (b"\xff\xfe", b"\xfe\xff")
# Parquet column chunks are read in pieces of this size, not a row group at once.
_PARQUET_BUFFER = 1 << 20
# Cells per check when a column holds text that is not UTF-8.
_SLICE = 1 << 13
# Policy columns of few distinct cells.
REPEATED_COLUMNS = ("frequency", "timing", "table")


@dataclass
class Block:
    """A batch of records in the book's order, and messages for records the reader found at
    fault (by row of the batch): fields other than the header's, a cell that is not UTF-8 text
    or is too long."""

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
        [pa.array([cells[k] for cells, _ in split], kind) for k, kind in enumerate(batch.schema.types)],
        schema=batch.schema,
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


def _blanked(cells: pa.Array, rows: np.ndarray) -> pa.Array:
    return pc.if_else(_arrow.from_mask(rows), pa.scalar("", cells.type), cells)


def _longer(cells: pa.Array) -> np.ndarray | None:
    """Cells longer than MAX_CELL_BYTES, or None."""
    data = cells.buffers()[2]
    if data is None or data.size <= MAX_CELL_BYTES:
        return None
    long = (_arrow.numbers(pc.binary_length(cells)) > MAX_CELL_BYTES) & _arrow.valid(cells)
    return long if long.any() else None


def _decodes(cell: bytes | None) -> bool:
    try:
        if cell is not None:
            cell.decode()
    except UnicodeDecodeError:
        return False
    return True


def _not_utf8(cells: pa.Array) -> np.ndarray:
    """Cells that are not UTF-8 text: Arrow checks slices, Python the cells of a failing one."""
    if len(cells) > _SLICE:
        return np.concatenate([_not_utf8(cells.slice(start, _SLICE)) for start in range(0, len(cells), _SLICE)])
    try:
        cells.view(pa.string()).validate(full=True)
        return np.zeros(len(cells), dtype=bool)
    except pa.ArrowInvalid:
        return np.array([not _decodes(cell) for cell in cells.to_pylist()], dtype=bool)


def _as_text(block: Block, names: list[str]) -> Block:
    """A block's cells as text. A cell longer than MAX_CELL_BYTES, or one that is not UTF-8 (in
    cells read as bytes), is left out (empty) and spoils its record; a record's first defect
    stays."""
    defects = dict(block.defects)

    def note(rows: np.ndarray, message: str) -> None:
        for row in np.flatnonzero(rows):
            defects.setdefault(int(row), message)

    columns = []
    for name, cells in zip(names, block.batch.columns):
        label = str(name).strip().lower()
        long = _longer(cells)
        if long is not None:
            note(long, f"{label} is longer than {MAX_CELL_BYTES:,} bytes")
            cells = _blanked(cells, long)
        if pa.types.is_binary(cells.type):
            try:  # a view checked in place: no copy of the text
                text = cells.view(pa.string())
                text.validate(full=True)
            except pa.ArrowInvalid:
                bad = _not_utf8(cells)
                note(bad, f"{label} is not UTF-8 text")
                text = _blanked(cells, bad).view(pa.string())
            cells = text
        columns.append(cells)
    return Block(pa.RecordBatch.from_arrays(columns, names=block.batch.schema.names), defects)


def _encoding(path: Path) -> str:
    raw, text = _csv_input(path)
    with raw:
        return "utf-16" if text.read(2) in _UTF16_MARKS else "utf8"


@contextmanager
def _parsing(path: Path) -> Iterator[None]:
    """Arrow parsing the file. pyarrow decodes the text of a row with a wrong number of fields
    before the handler sees it; text that is not UTF-8 fails there, which pyarrow prints as an
    ignored exception before it stops with a parse error. That failure is taken from the
    printing while Arrow parses, and the parse error becomes an input error that says why."""
    undecodable: list[BaseException] = []
    previous = sys.unraisablehook

    def hook(unraisable: Any) -> None:
        if isinstance(unraisable.exc_value, UnicodeDecodeError):
            undecodable.append(unraisable.exc_value)
        else:
            previous(unraisable)

    sys.unraisablehook = hook
    try:
        yield
    except pa.ArrowInvalid as exc:
        if not undecodable:
            raise
        raise InputError(
            f"{path}: a record whose number of fields differs from the header's is not UTF-8 text "
            f"either, and the file cannot be read past it ({exc})"
        ) from None
    finally:
        sys.unraisablehook = previous


def _reader(
    path: Path,
    encoding: str,
    block: int,
    rows: Callable[[pa_csv.InvalidRow], str],
    cells: Mapping[str, pa.DataType] | None = None,
) -> tuple[pa.NativeFile, pa_csv.CSVStreamingReader]:
    """The file's raw stream (its position is the progress) and its reader: cells as bytes
    (``cells``: column types), broken rows to ``rows``. Single-threaded parsing numbers the
    broken rows, which places them in the output."""
    raw, text = _csv_input(path)
    try:
        with _parsing(path):
            reader = pa_csv.open_csv(
                text,
                read_options=pa_csv.ReadOptions(block_size=block, use_threads=False, encoding=encoding),
                parse_options=pa_csv.ParseOptions(newlines_in_values=True, invalid_row_handler=rows),
                convert_options=pa_csv.ConvertOptions(column_types=cells or {}),
            )
    except BaseException:
        raw.close()
        raise
    return raw, reader


def _too_long(exc: pa.ArrowInvalid) -> bool:
    return "straddl" in str(exc)  # Arrow's words for a record longer than two blocks


def _longer_blocks(path: Path, block: int) -> int:
    if block >= _LONGEST_BLOCK:
        raise InputError(
            f"{path}: a record is longer than {_LONGEST_BLOCK >> 20} MB (does a quote open and never close?)"
        )
    return block * _BLOCK_GROWTH


def _header(path: Path, encoding: str) -> list[str]:
    block = _HEADER_BYTES
    while True:
        try:
            raw, reader = _reader(path, encoding, block, lambda row: "skip")
            break
        except pa.ArrowInvalid as exc:
            if not _too_long(exc):
                raise
            block = _longer_blocks(path, block)
    try:
        names = reader.schema.names
    except UnicodeDecodeError as exc:
        raise InputError(
            f"{path}: the header line is not UTF-8 text ({exc}); save the file as UTF-8, "
            "or as UTF-16 with a byte-order mark"
        ) from None
    finally:
        raw.close()
    if any("\0" in name for name in names):
        raise InputError(
            f"{path}: the header line holds NUL characters: UTF-16 text without a byte-order mark? "
            "Save the file as UTF-8"
        )
    return cast(list[str], names)


def _csv_pass(
    path: Path, names: list[str], encoding: str, block: int, cells: pa.DataType, read: list[int]
) -> Iterator[Block]:
    """One reading of the file with blocks of ``block`` bytes and ``cells`` of text or bytes;
    ``read[0]`` follows the bytes read."""
    broken = _BrokenRows(len(names))
    raw, reader = _reader(path, encoding, block, broken, {name: cells for name in names})
    with raw:
        records = 0
        batches = iter(reader)
        while True:
            with _parsing(path):
                batch = next(batches, None)
            if batch is None:
                break
            read[0] = max(read[0], raw.tell())
            rows = broken.take(records, batch.num_rows)
            piece = _merge(batch, broken, records, rows) if rows else Block(batch, {})
            records += piece.batch.num_rows
            yield _as_text(piece, names)
        if broken.pending:  # broken rows after the last good one
            yield _as_text(_merge(_empty(reader.schema), broken, records, list(broken.pending)), names)


def _after(block: Block, first: int) -> Block:
    """The block from its row ``first`` on."""
    if first <= 0:
        return block
    defects = {row - first: message for row, message in block.defects.items() if row >= first}
    return Block(block.batch.slice(first), defects)


def _not_text(exc: pa.ArrowInvalid) -> bool:
    return "invalid UTF8" in str(exc)  # Arrow's words for a text cell that is not UTF-8


def _csv_blocks(path: Path, names: list[str], encoding: str, read: list[int]) -> Iterator[Block]:
    """The file's blocks. Cells are read as text, which Arrow checks for nothing: a file with a
    cell that is not UTF-8 is read again with cells of bytes, checked cell by cell, and a
    record longer than two blocks (a long cell, or a quote that never closes) makes the reading
    start again with longer blocks, each time past the records already given; the bad cells
    then spoil their records alone."""
    given, block, cells = 0, CSV_BLOCK_BYTES, pa.string()
    while True:
        seen = 0
        try:
            for piece in _csv_pass(path, names, encoding, block, cells, read):
                rows = piece.batch.num_rows
                if seen + rows > given:
                    yield _after(piece, given - seen)
                    given = seen + rows
                seen += rows
            return
        except pa.ArrowInvalid as exc:
            if _not_text(exc) and cells == pa.string():
                cells = pa.binary()
            elif _too_long(exc):
                block = _longer_blocks(path, block)
            else:
                raise


def _open_csv(path: Path) -> Book:
    encoding = _encoding(path)
    try:
        names = _header(path, encoding)
    except pa.ArrowInvalid as exc:
        if "Empty CSV" in str(exc):
            raise InputError(f"{path}: no header line") from None
        raise
    check_columns(names, path)
    read = [0]
    return Book(str(path), _csv_blocks(path, names, encoding, read), path.stat().st_size, "B", lambda: read[0])


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
        # Column chunks in pieces, not a row group at once: memory stays near one batch.
        pieces = ds.ParquetFragmentScanOptions(use_buffered_stream=True, buffer_size=_PARQUET_BUFFER, pre_buffer=False)
        options = ds.ParquetReadOptions(dictionary_columns=repeated)
        kind = ds.ParquetFileFormat(read_options=options, default_fragment_scan_options=pieces)
        dataset = ds.dataset(path, format=kind, partitioning="hive")
        # Little read-ahead: memory stays near one batch per column.
        batches = dataset.to_batches(batch_size=BATCH_ROWS, batch_readahead=1, fragment_readahead=1)
        return _rows(str(path), dataset.schema, batches, dataset.count_rows())
    # Column chunks in pieces, not a row group at once: memory stays near one batch.
    pieces = dict(buffer_size=_PARQUET_BUFFER, pre_buffer=False)
    file = pq.ParquetFile(path, **pieces)
    repeated = _repeated_texts(file.schema_arrow)
    if repeated:  # reopened to keep them encoded
        file = pq.ParquetFile(path, read_dictionary=repeated, **pieces)
    # Decoded in the read-ahead thread alone, which already runs beside the valuing: Arrow's
    # pool threads gained no time and left the allocator more freed pages (peak memory grew
    # with the book).
    batches = _read_ahead(file.iter_batches(batch_size=BATCH_ROWS, use_threads=False))
    return _rows(str(path), file.schema_arrow, batches, file.metadata.num_rows)


def open_file(path: Path) -> Book:
    """A CSV (plain or gzip-compressed) or Parquet file, or a directory of Parquet files."""
    if not path.exists():
        raise InputError(f"{path}: no such file")
    parquet = path.is_dir() or path.name.lower().endswith((".parquet", ".pq"))
    unreadable = f"{path}: not a readable {'Parquet' if parquet else 'CSV'} file"
    try:
        book = _open_parquet(path) if parquet else _open_csv(path)
    except (pa.ArrowException, OSError, EOFError, UnicodeError) as exc:  # UnicodeError: broken UTF-16
        raise InputError(f"{unreadable} ({exc})") from None
    book.blocks = _reported(book.blocks, unreadable)
    return book


def _reported(blocks: Iterator[Block], unreadable: str) -> Iterator[Block]:
    """The blocks, with a fault found part way through the file as an input error."""
    try:
        yield from blocks
    except (pa.ArrowException, OSError, EOFError, UnicodeError) as exc:
        raise InputError(f"{unreadable} ({exc})") from None


# --------------------------------------------------------------------------- data frames


def _native(column: Any) -> Any:
    """A NumPy array or pandas Series of big-endian (byte-swapped) numbers in native byte
    order, which is the only one Arrow takes; other columns as they are."""
    kind = getattr(column, "dtype", None)
    if isinstance(kind, np.dtype) and not kind.isnative:
        return column.astype(kind.newbyteorder("="))
    return column


def _arrow_column(name: str, values: Any) -> pa.Array:
    """One column of a table in memory. What Arrow cannot take as it stands (mixed Python
    objects, complex numbers, integers beyond 64 bits) becomes text, whose cells are then
    checked one by one like a file's: each bad cell spoils its record alone."""
    if np.ndim(values) != 1:
        raise TypeError(f"the book's column {name!r} must be one-dimensional, got {np.ndim(values)} dimensions")
    column = _native(values)
    try:
        return pa.array(column, from_pandas=True)
    except (pa.ArrowInvalid, pa.ArrowTypeError, pa.ArrowNotImplementedError, OverflowError):
        if _is_instance(column, "pandas", "Series"):
            return pa.array(column.astype("string"), from_pandas=True)
        return pa.array([None if cell is None else str(cell) for cell in column], pa.string())


def _from_pandas(frame: Any) -> pa.Table:
    """A pandas DataFrame column by column."""
    columns = [_arrow_column(str(name), column) for name, column in frame.items()]
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
        columns = {str(name): _arrow_column(str(name), column) for name, column in book.items()}
        try:
            return pa.table(columns)
        except pa.ArrowInvalid as exc:
            raise ValueError(f"the book's columns must have one length: {exc}") from None
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
    if _is_instance(book, "pandas", "Series"):
        raise TypeError("a book is a table of policies, not one column: pass series.to_frame() or a dict")
    if not isinstance(book, pa.RecordBatchReader) and hasattr(book, "__arrow_c_stream__"):
        try:
            book = pa.RecordBatchReader.from_stream(book)
        except (pa.ArrowInvalid, pa.ArrowTypeError) as exc:
            raise TypeError(f"a book's Arrow stream must hold a table of columns: {exc}") from None
    if isinstance(book, pa.RecordBatchReader):
        return _rows(name, book.schema, iter(book), None)
    raise TypeError(
        "a book is a file path, a pandas or polars DataFrame, a pyarrow Table, RecordBatchReader or "
        f"Dataset, or a dict of columns; got {type(book).__name__}"
    )
