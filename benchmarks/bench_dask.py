"""Valuing a partitioned Parquet book of policies on Dask, against one process.

    python benchmarks/bench_dask.py [--policies 5000000] [--files 20] [--scheduler ADDRESS]
                                    [--data DIR] [--repeats 1]

The book (seeded, the command line's policy columns: whole and fractional terms, 2 %
perpetuities, deferments, shifts, m = 1/4/12, both timings, 20 % growing benefits and
0.01 % invalid records) is generated once into DIR (default: a directory named after its
size in the system's temporary directory) and reused by later runs.

Two runs are timed:

* sum:           ``value_policies(book, curve).sum().compute()``, reading and valuing every policy;
* norvane value: ``norvane value --dask ADDRESS --portfolio BOOK --curve CURVE --output
  values.parquet --quiet`` called in this process (``norvane.cli.main``): values, errors and
  ids written as a partitioned Parquet dataset, and the summary's counts and total.

They run on a local cluster of 1 and of 2 single-threaded worker processes (or, with
``--scheduler``, on that cluster only). Cluster start-up is not timed; before timing, every
worker imports norvane, dask.dataframe and pyarrow, and one partition is valued on the
cluster and checked to equal the single-process values exactly. For comparison, one
partition is read (``norvane.portfolio.open_book``) and valued
(``norvane.portfolio.value_policies``) in this process, as ``norvane value`` without
``--dask`` does, and its time is scaled by the number of partitions. Times are medians of
``--repeats`` runs. With ``--scheduler``, the workers must see the book (``--data``) and a
temporary output directory at the same paths as this process, as on a shared file system.
"""

from __future__ import annotations

import argparse
import contextlib
import io
import json
import math
import shutil
import tempfile
import time
from pathlib import Path

import numpy as np
from _timing import median_time

SEED = 20250101
CURVE_TERMS, CURVE_RATES = (
    [1, 2, 3, 5, 7, 10, 15, 20, 30],
    [0.02, 0.022, 0.024, 0.026, 0.028, 0.03, 0.032, 0.033, 0.034, 0.035],
)


def make_part(start: int, count: int, seed: int):
    import pandas as pd

    rng = np.random.default_rng(seed)
    term = rng.integers(1, 41, count).astype(float)
    fractional = rng.random(count) < 0.1
    term[fractional] -= np.round(rng.random(fractional.sum()), 4)
    term[rng.random(count) < 0.02] = np.nan  # perpetuities: missing terms
    deferment = np.where(rng.random(count) < 0.35, rng.integers(1, 26, count), 0).astype(float)
    shift = np.floor(rng.random(count) * 10) * (rng.random(count) < 0.5)
    frame = pd.DataFrame(
        {
            "id": [f"P{i:09d}" for i in range(start, start + count)],
            "term": term,
            "deferment": deferment,
            "shift": shift,
            "frequency": rng.choice([1, 4, 12], count, p=[0.3, 0.2, 0.5]),
            "timing": np.where(rng.random(count) < 0.7, "due", "immediate"),
            "growth": np.where(rng.random(count) < 0.2, rng.choice([0.01, 0.02, 0.03], count), np.nan),
            "benefit": np.round(rng.uniform(100.0, 10_000.0, count), 2),
        }
    )
    bad = rng.choice(count, max(1, count // 10_000), replace=False)
    frame.loc[bad[::2], "term"] = -1.0
    frame.loc[bad[1::2], "timing"] = "arrears"
    return frame


def ensure_book(directory: Path, policies: int, files: int) -> Path:
    """The book as ``files`` Parquet files in ``directory``, generated unless already there."""
    import pyarrow as pa
    import pyarrow.parquet as pq

    stamp = {"policies": policies, "files": files, "seed": SEED}
    marker = directory / "_book.json"
    if marker.is_file() and json.loads(marker.read_text()) == stamp:
        print(f"book    : {policies:,} policies in {files} files, cached in {directory}")
        return directory
    if directory.exists() and any(directory.iterdir()) and not marker.is_file():
        raise SystemExit(f"{directory} holds other files: give an empty or new directory to --data")
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir(parents=True)
    started = time.perf_counter()
    bounds = np.linspace(0, policies, files + 1).astype(int)
    for k in range(files):
        part = make_part(int(bounds[k]), int(bounds[k + 1] - bounds[k]), SEED + k)
        pq.write_table(pa.Table.from_pandas(part, preserve_index=False), directory / f"part-{k:03d}.parquet")
    marker.write_text(json.dumps(stamp))
    size = sum(f.stat().st_size for f in directory.glob("*.parquet"))
    print(
        f"book    : {policies:,} policies in {files} files ({size / 1e6:.0f} MB), generated in "
        f"{time.perf_counter() - started:.1f} s into {directory}"
    )
    return directory


def single_process(path: Path, curve) -> tuple[float, np.ndarray, dict[str, float]]:
    """Seconds to read and value one file in this process as ``norvane value`` does, the
    values, and the split between reading (into policies) and valuing."""
    from norvane.portfolio import open_book, policies_from_batch, value_policies

    split = {"read": 0.0, "value": 0.0}
    values = []
    started = time.perf_counter()
    for block in open_book(path).blocks:
        policies = policies_from_batch(block.batch, 0, block.defects)
        read = time.perf_counter()
        values.append(value_policies(curve, policies, "discrete_precision")[0])
        split["read"] += read - started
        started = time.perf_counter()
        split["value"] += started - read
    return split["read"] + split["value"], np.concatenate(values), split


def _warm_up() -> None:
    import dask.dataframe  # noqa: F401
    import pyarrow.parquet  # noqa: F401

    import norvane.dask  # noqa: F401


def run_on(
    client, book: Path, curve, curve_file: Path, first: np.ndarray, repeats: int, scratch: Path
) -> tuple[float, float, float, str]:
    """Seconds of the sum and of the command line on the cluster behind ``client``, the
    sum, and the command line's one-line summary."""
    import dask.dataframe as dd

    from norvane.cli import main as norvane_main
    from norvane.dask import value_policies

    client.run(_warm_up)  # every worker imports what the valuation needs before any timing
    check = client.compute(value_policies(dd.read_parquet(book).partitions[:1], curve)).result().to_numpy()
    if not np.array_equal(check, first, equal_nan=True):
        raise SystemExit("the cluster's values of the first partition differ from the single-process values")
    total, printed = [], []

    def value_sum():
        total.append(client.compute(value_policies(dd.read_parquet(book), curve).sum()).result())

    def command_line():
        shutil.rmtree(scratch, ignore_errors=True)
        out = io.StringIO()
        with contextlib.redirect_stdout(out):
            status = norvane_main(
                [
                    "value",
                    "--dask",
                    client.scheduler.address,
                    "--portfolio",
                    str(book),
                    "--curve",
                    str(curve_file),
                    "--output",
                    str(scratch),
                    "--quiet",
                ]
            )
        if status != 0:
            raise SystemExit(f"norvane value --dask exited with {status}")
        printed.append(out.getvalue().strip())

    return median_time(value_sum, repeats), median_time(command_line, repeats), total[-1], printed[-1]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--policies", type=int, default=5_000_000)
    parser.add_argument("--files", type=int, default=20, help="Parquet files (partitions) of the book")
    parser.add_argument("--scheduler", metavar="ADDRESS", help="time on this cluster instead of local ones")
    parser.add_argument("--data", type=Path, help="directory of the cached book")
    parser.add_argument("--repeats", type=int, default=1)
    opts = parser.parse_args()

    import dask
    import distributed
    import pyarrow
    from bench_discounting import print_machine, print_table
    from distributed import Client, LocalCluster

    from norvane.interest_rates import InterestRate

    print_machine()
    print(f"dask    : dask {dask.__version__}, distributed {distributed.__version__}, pyarrow {pyarrow.__version__}")
    tmp = Path(tempfile.gettempdir())
    book = ensure_book(opts.data or tmp / f"norvane-bench-dask-{opts.policies}-{opts.files}", opts.policies, opts.files)
    curve = InterestRate(terms=CURVE_TERMS, rates=CURVE_RATES)
    print(
        f"curve   : piecewise, {len(CURVE_RATES)} rates from 2 % to 3.5 %; mode discrete_precision; "
        f"median of {opts.repeats} run(s)\n"
    )

    files = sorted(book.glob("*.parquet"))
    one, first, split = single_process(files[0], curve)  # warm-up
    one, first, split = single_process(files[0], curve)
    per = len(first)
    rows = [(f"1 process (1 partition x {len(files)})", f"{one * len(files):.2f}", f"{per / one:,.0f}", "", "")]
    scratch = Path(tempfile.mkdtemp(prefix="norvane-bench-dask-out-"))
    curve_file = scratch / "curve.json"
    curve_file.write_text(curve.export("json"))
    setups = [(opts.scheduler, None)] if opts.scheduler else [(None, 1), (None, 2)]
    totals, summary = [], ""
    try:
        for address, workers in setups:
            started = time.perf_counter()
            if address:
                client = Client(address)
                cluster = None
                label = f"{address} ({len(client.scheduler_info()['workers'])} workers)"
            else:
                cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=":0")
                client = Client(cluster)
                label = f"local cluster, {workers} worker{'s' if workers > 1 else ''}"
            startup = time.perf_counter() - started
            with client:
                t_sum, t_write, total, summary = run_on(
                    client, book, curve, curve_file, first, opts.repeats, scratch / "values.parquet"
                )
            if cluster is not None:
                cluster.close()
            totals.append(total)
            rows.append(
                (
                    f"{label} (start {startup:.1f} s)",
                    f"{t_sum:.2f}",
                    f"{opts.policies / t_sum:,.0f}",
                    f"{t_write:.2f}",
                    f"{opts.policies / t_write:,.0f}",
                )
            )
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    print_table(("setup", "sum s", "policies/s", "norvane value s", "policies/s"), rows)
    print(
        f"\none partition in this process: {per:,} policies, read into policies {split['read']:.2f} s, "
        f"value {split['value']:.2f} s"
    )
    print(
        f"total present value: {totals[-1]:,.2f}"
        + ("" if all(math.isclose(t, totals[0], rel_tol=1e-12) for t in totals) else f" (runs differ: {totals})")
    )
    print(f"norvane value --dask: {summary}")


if __name__ == "__main__":
    main()
