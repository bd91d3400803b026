"""Tables to CSV (gzip-compressed for .gz) or Parquet files, written batch by batch."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pyarrow as pa
import pyarrow.csv as pa_csv
import pyarrow.parquet as pq

from ._policies import InputError


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
def table_writer(path: Path, schema: pa.Schema) -> Iterator[Callable[[pa.RecordBatch | pa.Table], None]]:
    """A function that appends batches to the file; the file is complete when the block ends,
    and removed when it ends with an error."""
    try:
        if output_kind(path) == "parquet":
            # Dictionaries pay for repeated texts (messages), not for unique ids or numbers.
            repeated = [f.name for f in schema if pa.types.is_string(f.type) and f.name != "id"]
            with pq.ParquetWriter(path, schema, use_dictionary=repeated) as parquet:
                yield parquet.write
        else:
            compression = "gzip" if path.name.lower().endswith(".gz") else None
            with pa.output_stream(path, compression=compression) as sink, pa_csv.CSVWriter(sink, schema) as out:
                yield out.write
    except (OSError, pa.ArrowException) as exc:
        path.unlink(missing_ok=True)
        raise InputError(f"{path}: cannot write ({exc})") from None
    except BaseException:
        path.unlink(missing_ok=True)
        raise


def write_table(path: Path, columns: dict) -> None:
    """Columns (arrays of equal length) to one file, by the file name."""
    table = pa.table(columns)
    with table_writer(path, table.schema) as write:
        write(table)
