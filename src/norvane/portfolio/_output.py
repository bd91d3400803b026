"""Tables to CSV (gzip-compressed for .gz) or Parquet files, written batch by batch.

Every file the package writes goes through :func:`atomic_path`: it is written beside its
place under a temporary name and moved there when it is complete, so a reader finds the
earlier file or the new one, never a part of one.
"""

from __future__ import annotations

import os
import secrets
import shutil
from collections.abc import Callable, Iterator, Mapping
from concurrent.futures import Future, ThreadPoolExecutor
from contextlib import contextmanager
from pathlib import Path
from typing import Any, TypeAlias

import pyarrow as pa
import pyarrow.csv as pa_csv
import pyarrow.parquet as pq

from ._arguments import checked_path
from ._policies import InputError

Tabular: TypeAlias = "pa.RecordBatch | pa.Table"


def output_kind(path: Path) -> str:
    """The kind of an output file by its name: "csv" (.csv, .csv.gz) or "parquet" (.parquet, .pq);
    any other name raises InputError."""
    name = checked_path(path, "path").name.lower()
    if name.endswith((".csv", ".csv.gz")):
        return "csv"
    if name.endswith((".parquet", ".pq")):
        return "parquet"
    raise InputError(f"{path}: the output must end in .csv, .csv.gz or .parquet")


def check_output(path: Path | None) -> None:
    """Refuse an output before any work: an unknown kind of file or a missing directory."""
    if path is None:
        return
    path = checked_path(path, "output")
    output_kind(path)
    if not path.parent.is_dir():
        raise InputError(f"{path}: the directory {path.parent} does not exist")


def _temporary(target: Path, role: str = "") -> Path:
    """A hidden name beside ``target`` (same directory, so that a rename is atomic) that keeps
    its suffixes: writers that go by the suffix (matplotlib) write the same format."""
    return target.with_name(f".norvane-{secrets.token_hex(6)}{role}.{target.name}")


def _remove(path: Path) -> None:
    """Best effort: a failure to tidy must not hide the error that made it necessary."""
    try:
        if path.is_dir() and not path.is_symlink():
            shutil.rmtree(path)
        else:
            path.unlink(missing_ok=True)
    except OSError:
        pass


def _replace(new: Path, target: Path) -> None:
    """``new`` at ``target``'s place, in one rename for files. A directory (or a file in
    place of one) cannot be renamed over another path: the earlier one steps aside first,
    and comes back if the rename fails or is interrupted. A directory is only ever replaced by
    a directory (a dataset by a dataset): a file output never deletes a directory."""
    if target.is_dir() and not new.is_dir():
        raise InputError(f"{target}: is a directory; the output is a file and would replace it")
    if not (new.is_dir() or target.is_dir()) or not os.path.lexists(target):
        os.replace(new, target)
        return
    aside = _temporary(target, "-old")
    try:
        os.replace(target, aside)
        os.replace(new, target)
    except BaseException:
        if os.path.lexists(aside) and not os.path.lexists(target):
            os.replace(aside, target)
        raise
    _remove(aside)


@contextmanager
def atomic_path(target: Path) -> Iterator[Path]:
    """A temporary path beside ``target`` for the block to write (a file or a directory).

    When the block completes, it takes ``target``'s place; when the block fails or is
    interrupted (an exception, Ctrl-C, SIGTERM in the command line, a full disk), it is
    removed and an earlier ``target`` is left as it was.
    """
    temporary = _temporary(target)
    try:
        yield temporary
        _replace(temporary, target)
    except BaseException:
        _remove(temporary)
        raise


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
    """A function that appends batches to the file. The file takes its place when the block
    ends; when the block ends with an error, an earlier file is left as it was."""
    kind = output_kind(path)
    if path.is_dir():  # refused before any work: a file never takes a directory's place
        raise InputError(f"{path}: is a directory; the output is a file and would replace it")
    try:
        with atomic_path(path) as temporary:
            if kind == "parquet":
                # Dictionaries pay for repeated texts (messages), not for unique ids or numbers.
                repeated = [f.name for f in schema if pa.types.is_string(f.type) and f.name != "id"]
                with (
                    pq.ParquetWriter(temporary, schema, use_dictionary=repeated) as parquet,
                    _in_background(parquet.write) as write,
                ):
                    yield write
            else:
                compression = "gzip" if path.name.lower().endswith(".gz") else None
                with (
                    pa.output_stream(temporary, compression=compression) as sink,
                    pa_csv.CSVWriter(sink, schema) as out,
                    _in_background(out.write) as write,
                ):
                    yield write
    except (OSError, pa.ArrowException) as exc:
        raise InputError(f"{path}: cannot write ({exc})") from None


def write_table(path: Path, columns: dict[str, Any]) -> None:
    """Columns (arrays of equal length) to one file, by the file name."""
    path = checked_path(path, "path")
    if not isinstance(columns, Mapping):
        raise TypeError(
            f"[norvane.portfolio] 'columns' must be a mapping of names to arrays, got {type(columns).__name__}."
        )
    table = pa.table(columns)
    with table_writer(path, table.schema) as write:
        write(table)
