"""From file to values: ``norvane value`` end to end on generated books, against the pre-Arrow reader.

    python benchmarks/bench_io.py [--policies 1000000] [--large] [--repeats 3] [--data DIR]
    python benchmarks/bench_io.py --memory [--policies 1000000] [--repeats 3] [--data DIR]

A seeded generator writes each book (id, term, deferment, shift, frequency, timing, benefit;
whole and fractional terms, 2 % perpetuities, m = 1/4/12, both timings, 0.01 % malformed
records) as CSV, gzip-compressed CSV and Parquet into DIR (default: a temporary directory).
``--large`` adds a book of 10^7 policies (about 330 MB of CSV), which takes minutes.

Each case runs as its own process, so that its peak RSS (from ``os.wait4``) is its own:

* norvane value:   ``python -m norvane value --portfolio BOOK --rate 0.03 --output values.parquet --quiet``;
* pre-Arrow:       the same job through ``benchmarks/_legacy_reader.py``, the reader this one
                   replaced (cell-by-cell parsing, the whole book in memory);
* pyarrow + NumPy: what a user would write by hand: ``pyarrow.csv.read_csv`` or
                   ``pyarrow.parquet.read_table``, the arrays to ``InterestRate.ä`` / ``.a``, and
                   ``pyarrow.parquet.write_table``, without per-record checks or messages.

Every process writes its values; the runs' present values are checked equal before timing.
A last table splits one Dask partition (a pandas frame of 250,000 policies, as ``norvane.dask``
receives it) into reading (frame to policy arrays) and valuing, before (the pre-Arrow table
reader) and after (``norvane.portfolio``).

``--memory`` measures how peak RSS grows with the book instead: each kind of book at N and 4N
policies (N from ``--policies``), median of ``--repeats`` processes, for

* norvane value: the values streamed to a file (nothing kept): the peak should not grow;
* value_book:    ``norvane.portfolio.value_book`` keeping the values (``BookValues``): the
                 peak should grow by what the values hold (``BookValues.nbytes``: ids, 8 bytes
                 a value, the invalid records' places) and no more.
"""

from __future__ import annotations

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np
import pyarrow as pa
import pyarrow.compute as pc
import pyarrow.csv as pa_csv
import pyarrow.parquet as pq

HERE = Path(__file__).resolve().parent
SEED = 20251125
RATE = 0.03
CHUNK = 1_000_000  # policies generated and written at a time
COLUMNS = ("id", "term", "deferment", "shift", "frequency", "timing", "benefit")
SCHEMA = pa.schema([(name, pa.string()) for name in COLUMNS])  # CSV: all text
NUMBERS = ("term", "deferment", "shift", "benefit")
PARQUET_SCHEMA = pa.schema([(name, pa.float64() if name in NUMBERS else pa.string()) for name in COLUMNS])
# Malformed cells, one kind per broken record.
BROKEN = [("term", "-5"), ("term", "abc"), ("frequency", "5"), ("timing", "arrears"), ("benefit", "n/a")]


def by_hand(book: str, out: str) -> None:
    """The user's own pipeline: read, a few checks as masks, one valuation call per timing, write."""
    from norvane.interest_rates import InterestRate

    if book.endswith(".parquet"):
        table = pq.read_table(book)
    else:
        numbers = {name: pa.float64() for name in (*NUMBERS, "frequency")}
        options = pa_csv.ConvertOptions(column_types=numbers, null_values=["", "abc", "n/a"])
        table = pa_csv.read_csv(book, convert_options=options)
    curve = InterestRate(RATE)
    cols = {k: table[k].to_numpy(zero_copy_only=False) for k in (*NUMBERS, "frequency")}
    due = pc.equal(table["timing"], "due").to_numpy(zero_copy_only=False)
    term = np.where(np.isnan(cols["term"]), np.inf, cols["term"])
    ok = (term >= 0) & np.isin(cols["frequency"], [1, 4, 12]) & np.isfinite(cols["benefit"])
    values = np.full(table.num_rows, np.nan)
    for method, rows in ((curve.ä, ok & due), (curve.a, ok & ~due)):
        m = cols["frequency"][rows].astype(np.int64)
        arrays = {
            "n": term[rows],
            "d": cols["deferment"][rows],
            "ts": cols["shift"][rows],
            "benefits": cols["benefit"][rows],
        }
        values[rows] = method(**arrays, m=m)
    pq.write_table(pa.table({"id": table["id"], "present_value": values}), out)


def make_chunk(start: int, count: int, seed: int) -> pa.Table:
    rng = np.random.default_rng(seed)
    term = rng.integers(1, 41, count).astype(float)
    fractional = rng.random(count) < 0.1
    term[fractional] -= rng.choice([0.25, 0.5, 0.75], fractional.sum())
    deferment = np.where(rng.random(count) < 0.35, rng.integers(1, 26, count), 0)
    shift = np.floor(rng.random(count) * 10) * (rng.random(count) < 0.5)
    columns = {
        "id": np.char.add("P", np.char.zfill(np.arange(start, start + count).astype(str), 9)),
        "term": np.where(rng.random(count) < 0.02, "", term.astype(str)),  # perpetuities: empty terms
        "deferment": deferment.astype(str),
        "shift": shift.astype(str),
        "frequency": rng.choice(["1", "4", "12"], count, p=[0.3, 0.2, 0.5]),
        "timing": np.where(rng.random(count) < 0.7, "due", "immediate"),
        "benefit": np.round(rng.uniform(100.0, 10_000.0, count), 2).astype(str),
    }
    columns = {name: cells.astype(object) for name, cells in columns.items()}
    for k, i in enumerate(rng.choice(count, max(1, count // 10_000), replace=False)):
        name, cell = BROKEN[k % len(BROKEN)]
        columns[name][i] = cell
    return pa.table({name: pa.array(cells, pa.string()) for name, cells in columns.items()})


def write_books(directory: Path, policies: int) -> dict[str, Path]:
    """The book as CSV, CSV.gz and Parquet, generated a chunk at a time."""
    paths = {kind: directory / f"book-{policies}-{SEED}.{kind}" for kind in ("csv", "csv.gz", "parquet")}
    complete = directory / f"book-{policies}-{SEED}.complete"  # written last: the books of a run that ended
    if complete.exists():
        return paths
    plain = pa_csv.WriteOptions(quoting_style="none")
    with (
        pa_csv.CSVWriter(str(paths["csv"]), SCHEMA, write_options=plain) as csv_out,
        pa.CompressedOutputStream(str(paths["csv.gz"]), "gzip") as gz,
        pa_csv.CSVWriter(gz, SCHEMA, write_options=plain) as gz_out,
        pq.ParquetWriter(paths["parquet"], PARQUET_SCHEMA) as parquet_out,
    ):
        for k, start in enumerate(range(0, policies, CHUNK)):
            chunk = make_chunk(start, min(CHUNK, policies - start), SEED + k)
            csv_out.write_table(chunk)
            gz_out.write_table(chunk)
            parquet_out.write_table(typed(chunk))
    complete.touch()
    return paths


def typed(chunk: pa.Table) -> pa.Table:
    """A Parquet extract holds numbers as numbers: malformed number cells become nulls (missing)."""
    columns = []
    for field in PARQUET_SCHEMA:
        column = chunk[field.name]
        if field.type == pa.float64():
            plain = pc.match_substring_regex(column, r"^-?[0-9.]+$")
            column = pc.cast(pc.if_else(plain, column, None), pa.float64())
        columns.append(column)
    return pa.table(columns, schema=PARQUET_SCHEMA)


# A process started from this one starts with this one's peak RSS as its own; a small
# launcher that forks the measured command gives it a count of its own.
LAUNCHER = """
import os, sys
pid = os.fork()
if pid == 0:
    os.execv(sys.argv[1], sys.argv[1:])
_, status, usage = os.wait4(pid, 0)
print(usage.ru_utime + usage.ru_stime, usage.ru_maxrss, os.waitstatus_to_exitcode(status))
"""


def launch(command: list[str]) -> tuple[float, float, float, str]:
    """Wall seconds, CPU seconds and peak RSS (MB) of a command, and what it printed."""
    started = time.perf_counter()
    done = subprocess.run([sys.executable, "-c", LAUNCHER, *command], capture_output=True, text=True)
    elapsed = time.perf_counter() - started
    *printed, last = done.stdout.splitlines() or [""]
    cpu, rss, status = (last.split() + ["", "", "?"])[:3]
    if status != "0":
        raise SystemExit(f"{' '.join(command)} failed: {done.stderr}")
    return elapsed, float(cpu), int(rss) / 1024, "\n".join(printed)


def run(command: list[str]) -> tuple[float, float, float]:
    """Wall seconds, CPU seconds and peak RSS (MB) of a command."""
    return launch(command)[:3]


def commands(book: Path, out: Path) -> dict[str, list[str]]:
    python = sys.executable
    return {
        "norvane value": [
            python,
            "-m",
            "norvane",
            "value",
            "--portfolio",
            str(book),
            "--rate",
            str(RATE),
            "--output",
            str(out),
            "--quiet",
        ],
        "pre-Arrow": [
            python,
            str(HERE / "_legacy_reader.py"),
            "--portfolio",
            str(book),
            "--rate",
            str(RATE),
            "--output",
            str(out),
        ],
        "pyarrow + NumPy": [python, __file__, "--by-hand", str(book), str(out)],
    }


def measure(book: Path, scratch: Path, repeats: int) -> dict[str, tuple[float, float, float]]:
    """Median wall and CPU seconds and the largest peak RSS of each case."""
    results = {}
    values = {}
    for name, command in commands(book, scratch / "values.parquet").items():
        runs = [run(command) for _ in range(repeats)]
        results[name] = (
            statistics.median(wall for wall, _, _ in runs),
            statistics.median(cpu for _, cpu, _ in runs),
            max(rss for _, _, rss in runs),
        )
        values[name] = pq.read_table(scratch / "values.parquet")["present_value"].to_numpy()
    if not np.array_equal(values["norvane value"], values["pre-Arrow"], equal_nan=True):
        raise SystemExit(f"{book}: the values differ from the pre-Arrow reader's")
    return results


def keep_values(book: str) -> None:
    """value_book on the book, its values kept to the end; prints the bytes they hold."""
    from norvane.interest_rates import InterestRate
    from norvane.portfolio import value_book

    values = value_book(book, InterestRate(RATE))
    print(values.nbytes)


def memory(data: Path, scratch: Path, policies: int, repeats: int) -> None:
    """Peak RSS at N and 4N policies: streamed to a file, and kept by value_book."""
    sizes = (policies, 4 * policies)
    books = {size: write_books(data, size) for size in sizes}
    print(f"peak RSS (MB), median of {repeats}; N = {policies:,} policies")
    print(f"{'book':<8} {'case':<14} {'at N':>7} {'at 4N':>7} {'4N / N':>7} {'peak grew':>10} {'values grew':>12}")
    for kind in ("csv", "csv.gz", "parquet"):
        for case in ("norvane value", "value_book"):
            peaks, held = [], []
            for size in sizes:
                book = books[size][kind]
                if case == "value_book":
                    command = [sys.executable, __file__, "--keep-values", str(book)]
                else:
                    command = commands(book, scratch / "values.parquet")["norvane value"]
                runs = [launch(command) for _ in range(repeats)]
                peaks.append(statistics.median(rss for _, _, rss, _ in runs))
                held.append(int(runs[0][3]) / 2**20 if case == "value_book" else 0.0)
            grew = f"{held[1] - held[0]:11.0f}" if case == "value_book" else f"{'-':>11}"
            print(
                f"{kind:<8} {case:<14} {peaks[0]:7.0f} {peaks[1]:7.0f} {peaks[1] / peaks[0]:7.2f} "
                f"{peaks[1] - peaks[0]:10.0f} {grew}"
            )


def dask_partition_split(book: Path) -> dict[str, tuple[float, float]]:
    """Seconds to read (frame to policy arrays) and to value one 250,000-policy partition."""
    import pandas as pd

    sys.path.insert(0, str(HERE))
    import _legacy_reader as legacy

    from norvane.config import Config
    from norvane.interest_rates import InterestRate
    from norvane.portfolio import open_book, policies_from_batch, value_policies

    frame = pq.read_table(book).slice(0, 250_000).to_pandas()
    curve, mode = InterestRate(RATE), Config().calculation_mode

    def before():
        def column(series: pd.Series):  # the pre-Arrow Dask path's cells
            if series.dtype.kind == "f":
                return series.to_numpy()
            return series.astype(object).where(series.notna(), None).tolist()

        started = time.perf_counter()
        table = {str(name).lower(): column(frame[name]) for name in frame.columns}
        pf = legacy.policies_from_table(table, len(frame), [None] * len(frame), Path("partition"))
        read = time.perf_counter()
        legacy.value_portfolio(curve, pf, mode)
        return read - started, time.perf_counter() - read

    def after():
        started = time.perf_counter()
        policies = [policies_from_batch(block.batch) for block in open_book(frame).blocks]
        read = time.perf_counter()
        for pf in policies:
            value_policies(curve, pf, mode)
        return read - started, time.perf_counter() - read

    return {"before (pre-Arrow)": before(), "after": after()}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--policies", type=int, default=1_000_000)
    parser.add_argument("--large", action="store_true", help="add a book of 10^7 policies")
    parser.add_argument("--repeats", type=int, default=3)
    parser.add_argument("--data", type=Path, help="directory for the books (kept); default a temporary one")
    parser.add_argument("--memory", action="store_true", help="peak RSS at N and 4N policies instead of timings")
    parser.add_argument("--by-hand", nargs=2, metavar=("BOOK", "OUT"), help=argparse.SUPPRESS)
    parser.add_argument("--keep-values", metavar="BOOK", help=argparse.SUPPRESS)
    opts = parser.parse_args()
    if opts.by_hand:
        return by_hand(*opts.by_hand)
    if opts.keep_values:
        return keep_values(opts.keep_values)
    sizes = [opts.policies] + ([10_000_000] if opts.large else [])
    with tempfile.TemporaryDirectory() as tmp:
        data = opts.data or Path(tmp)
        data.mkdir(parents=True, exist_ok=True)
        scratch = Path(tmp)
        if opts.memory:
            return memory(data, scratch, opts.policies, opts.repeats)
        print(f"pyarrow {pa.__version__}, numpy {np.__version__}, {os.cpu_count()} cores; median of {opts.repeats}")
        # CPU seconds are the steadier measure on a shared machine; ratios are of wall times.
        header = f"{'book':<26} {'case':<16} {'wall s':>7} {'CPU s':>7} {'peak RSS MB':>12} {'vs norvane':>11}"
        print(header)
        for size in sizes:
            for kind, path in write_books(data, size).items():
                results = measure(path, scratch, opts.repeats)
                ours = results["norvane value"][0]
                label = f"{size:,} {kind} ({path.stat().st_size / 1e6:.0f} MB)"
                for name, (wall, cpu, rss) in results.items():
                    print(f"{label:<26} {name:<16} {wall:7.2f} {cpu:7.2f} {rss:12.0f} {wall / ours:10.1f}x")
        print("\none Dask partition of 250,000 policies (a pandas frame), read and valued in this process:")
        for name, (read, value) in dask_partition_split(write_books(data, sizes[0])["parquet"]).items():
            print(f"  {name:<20} read {read:6.3f} s   value {value:6.3f} s   read share {read / (read + value):5.0%}")


if __name__ == "__main__":
    main()
