"""Tables to CSV (gzip-compressed for .gz) or Parquet files, written batch by batch."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from concurrent.futures import Future, ThreadPoolExecutor
from contextlib import contextmanager
from pathlib import Path
from typing import Any, TypeAlias

import pyarrow as pa
import pyarrow.csv as pa_csv
import pyarrow.parquet as pq

from ._policies import InputError

Tabular: TypeAlias = "pa.RecordBatch | pa.Table"


def output_kind(path: Path) -> str:
    name = path.name.lower()
    if name.endswith((".csv", ".csv.gz")):
        return "csv"
    if name.endswith((".parquet", ".pq")):
        return "parquet"
    raise InputError(f"{path}: the output must end in .csv, .csv.gz or .parquet")


def check_output(path: Path | None) -> None:
    """Refuse an output before any work: an unknown kind of file or a missing directory."""
    if path is None:
        return
    output_kind(path)
    if not path.parent.is_dir():
        raise InputError(f"{path}: the directory {path.parent} does not exist")


@contextmanager
def _in_background(write: Callable[[Tabular], None]) -> Iterator[Callable[[Tabular], None]]:
    """``write`` run in a thread while the caller prepares the next batch: Arrow encodes without
    the GIL. One batch is in flight; a failed write is raised by the next call or at the end."""
    with ThreadPoolExecutor(1, thread_name_prefix="norvane-write") as writer:
        pending: Future[None] | None = None

        def submit(batch: Tabular) -> None:
            nonlocal pending
            if pending is not None:
                pending.result()
            pending = writer.submit(write, batch)

        yield submit
        if pending is not None:
            pending.result()


@contextmanager
def table_writer(path: Path, schema: pa.Schema) -> Iterator[Callable[[Tabular], None]]:
    """A function that appends batches to the file; the file is complete when the block ends,
    and removed when it ends with an error."""
    try:
        if output_kind(path) == "parquet":
            # Dictionaries pay for repeated texts (messages), not for unique ids or numbers.
            repeated = [f.name for f in schema if pa.types.is_string(f.type) and f.name != "id"]
            with (
                pq.ParquetWriter(path, schema, use_dictionary=repeated) as parquet,
                _in_background(parquet.write) as write,
            ):
                yield write
        else:
            compression = "gzip" if path.name.lower().endswith(".gz") else None
            with (
                pa.output_stream(path, compression=compression) as sink,
                pa_csv.CSVWriter(sink, schema) as out,
                _in_background(out.write) as write,
            ):
                yield write
    except (OSError, pa.ArrowException) as exc:
        path.unlink(missing_ok=True)
        raise InputError(f"{path}: cannot write ({exc})") from None
    except BaseException:
        path.unlink(missing_ok=True)
        raise


def write_table(path: Path, columns: dict[str, Any]) -> None:
    """Columns (arrays of equal length) to one file, by the file name."""
    table = pa.table(columns)
    with table_writer(path, table.schema) as write:
        write(table)
