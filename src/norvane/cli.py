"""The norvane command line: value a portfolio of annuities, report on a curve, project cash flows.

Run ``norvane --help`` or ``norvane COMMAND --help``. Books are read and written with pyarrow,
batch by batch (see :mod:`norvane.portfolio`); plots need matplotlib (``pip install "norvane[plot]"``).
"""

from __future__ import annotations

import argparse
import json
import math
import os
import signal
import sys
import threading
import time
from collections.abc import Iterator, Sequence
from contextlib import contextmanager, nullcontext
from fractions import Fraction
from pathlib import Path
from typing import Any

import numpy as np

from ._version import __version__
from .base import _ALLOWED_PAYMENT_FREQUENCIES
from .config import Config
from .engine.base import _CALCULATION_MODES
from .portfolio import (
    DEFAULT_TABLE,
    PERPETUITY_YEARS,
    SHOWN_ERRORS,
    BookSummary,
    InputError,
    book_flows,
    book_tables,
    check_output,
    flow_book,
    flow_years,
    last_payment_year,
    open_book,
    output_kind,
    stream_book,
    valued_blocks,
    write_table,
)
from .portfolio._exact import exact_sum, rounded
from .portfolio._output import atomic_path
from .risk import DEFAULT_KEY_TENORS

EXIT_OK = 0
EXIT_INPUT = 2
# A run ended by SIGTERM exits as a shell reports a process the signal ended.
EXIT_TERMINATED = 128 + signal.SIGTERM

DATA = Path(__file__).resolve().parent / "data"
SAMPLE_PORTFOLIO = DATA / "sample_portfolio.csv.gz"
SAMPLE_CURVE = DATA / "sample_curve.json"

COMMANDS = ("value", "curve", "flows")

POLICY_COLUMNS = f"""\
policy columns (CSV header or Parquet column names, any case; other columns are ignored):
  id         policy identifier, any text (default: the record number)
  term       years of payments after the deferment; empty = perpetuity, or for life with
             an age (a "term" or an "age" column is required)
  deferment  years from inception to the start of the payments, default 0
  shift      valuation time in years since inception, default 0
  frequency  payments per year, one of {", ".join(map(str, _ALLOWED_PAYMENT_FREQUENCIES))}; default 1
  timing     "due" (payments at the start of each period) or "immediate" (at the end),
             default "due"
  growth     annual geometric growth rate of the payments, e.g. 0.02; empty = level
  benefit    annual amount, default 1
  age        age at inception: the record is a life annuity (payments while the life
             survives); empty = a certain annuity
  table      mortality table of a life: a --mortality name or a bundled table
             (makeham_20_120, makeham_13_110); empty = the first --mortality table,
             or makeham_20_120 without --mortality
  select_age age at selection on a select table; empty = the integer part of the age
  year       calendar year in which the life has its age (needed on a generational table)
  guarantee  years of payments made whatever happens, a whole number of payment periods;
             default 0
  spouse_age the age at inception of a spouse who receives a reversion; empty = none
  spouse_table  the spouse's mortality table; empty = the member's
  reversion  the fraction of the payments continued to the spouse after the member's
             death, e.g. 0.6; default 0
  death_benefit  a lump sum paid on the member's death before the payments start
             (within the deferment); default 0
  kind       what a life record pays: annuity (default), insurance (the benefit at the end
             of the 1/frequency period of death within the term), endowment_insurance or
             pure_endowment
  birth_year the year of birth, instead of year (the year of the age is birth_year plus
             the whole years of the age)

Invalid records do not stop a run: they get no value (NaN) and a message in the
output's "error" column. Exit status: 0 when the run completed (even with invalid
records), 2 when the input cannot be used (missing or unreadable file, unreadable
curve or mortality table, no "term" or "age" column), 143 when SIGTERM ended the run.
Outputs take their place only when complete: a failed run leaves the earlier one."""

# --------------------------------------------------------------------------- curves


def load_curve(curve_file: Path | None, rate: float | None):
    """The curve of a run and a short account of where it came from."""
    from .interest_rates import InterestRate

    if rate is not None:
        try:
            return InterestRate(rate), f"constant {_percent(rate)} (--rate)"
        except (TypeError, ValueError) as exc:
            raise InputError(f"--rate {rate}: {exc}") from None
    path = SAMPLE_CURVE if curve_file is None else curve_file
    try:
        curve = InterestRate.from_export(path.read_text(encoding="utf-8"))
    except (OSError, UnicodeDecodeError, TypeError, ValueError) as exc:
        raise InputError(f"{path}: not a readable curve ({exc})") from None
    label = "bundled sample curve" if curve_file is None else str(path)
    return curve, f"{_curve_form(curve)} ({label})"


def _curve_form(curve) -> str:
    payload = curve.export("dict")
    if curve.scenario_names:
        active = curve.active_scenario
        return f"{len(curve.scenario_names)} scenarios, active {active!r}: " + _payload_form(payload[active])
    return _payload_form(payload)


def _payload_form(payload: dict) -> str:
    if payload["type"] == "constant":
        return f"constant {_percent(payload['rate'])}"
    rates = payload["rates"]
    return f"piecewise, {len(rates)} rates from {_percent(min(rates))} to {_percent(max(rates))}"


def _percent(rate: float) -> str:
    return f"{rate * 100:.6g} %"


def load_tables(options: list[str] | None) -> dict[str, Any] | None:
    """The --mortality tables by name: NAME=path.csv (columns age and qx, select_0, ...) or a
    bundled table's name."""
    if not options:
        return None
    from .mortality import BUNDLED_TABLES, MortalityTable, bundled_table

    tables: dict[str, Any] = {}
    for option in options:
        name, _, path = (part.strip() for part in option.partition("="))
        if not name:
            raise InputError(f"--mortality {option}: give NAME=path.csv or a bundled table's name")
        if name in tables:
            raise InputError(f"--mortality {option}: the table {name!r} is given twice")
        if not path:
            if name not in BUNDLED_TABLES:
                bundled = ", ".join(BUNDLED_TABLES)
                raise InputError(f"--mortality {option}: no bundled table {name!r} (bundled: {bundled})")
            tables[name] = bundled_table(name)
            continue
        try:
            tables[name] = MortalityTable.from_csv(path)
        except (OSError, TypeError, ValueError) as exc:
            raise InputError(f"--mortality {option}: not a readable mortality table ({exc})") from None
    return tables


def _tables_form(tables: dict[str, Any] | None) -> str:
    if not tables:
        return f"{DEFAULT_TABLE} (bundled) for records with an age"
    return ", ".join(tables) + f"; default {next(iter(tables))}"


# --------------------------------------------------------------------------- printing


def _require_matplotlib():
    try:
        from matplotlib.figure import Figure
    except ImportError:
        raise InputError('plotting needs matplotlib: pip install "norvane[plot]"') from None
    return Figure


def _jsonable(x: Any) -> Any:
    if isinstance(x, np.ndarray):
        return x.tolist()
    if isinstance(x, np.generic):
        return x.item()
    raise TypeError(f"{type(x).__name__} is not JSON serialisable")


def _money(x: float) -> str:
    return f"{x:,.2f}" if math.isfinite(x) else "unbounded" if x > 0 else str(x)


def _print_pairs(pairs: list[tuple[str, str]]) -> None:
    width = max(len(k) for k, _ in pairs)
    for key, value in pairs:
        print(f"  {key:<{width}}  {value}")


# --------------------------------------------------------------------------- commands


def _portfolio_label(path: Path | None) -> str:
    return "bundled sample portfolio" if path is None else str(path)


def _summary(args: argparse.Namespace, curve_label: str, mode: str, summary: BookSummary, elapsed: float) -> None:
    count, valued, failed = summary.policies, summary.valued, summary.errors
    total = summary.total_present_value
    if args.quiet:
        print(f"{count:,} policies, {valued:,} valued, {failed:,} errors, total present value {_money(total)}")
        return
    print("norvane valuation")
    _print_pairs(
        [
            ("portfolio", _portfolio_label(args.portfolio)),
            ("curve", curve_label),
            ("mode", mode),
            ("mortality", _tables_form(args.tables)),
            *([("cluster", "local" if args.dask == "local" else str(args.dask))] if args.dask else []),
            ("policies", f"{count:,}"),
            ("valued", f"{valued:,}"),
            ("errors", f"{failed:,}"),
            ("total present value", _money(total)),
            ("elapsed", f"{elapsed:.2f} s"),
            *([("output", str(args.output))] if args.output is not None else []),
        ]
    )
    if failed:
        print(f"first errors (of {failed:,}):")
        for record, message in summary.first_errors:
            print(f"  {record}: {message}")


def _dask_client(address: str, workers: int):
    from distributed import Client, LocalCluster

    if address == "local":
        return Client(LocalCluster(n_workers=workers, threads_per_worker=1, processes=True))
    return Client(address)


def run_value_dask(args: argparse.Namespace, curve: Any, curve_label: str, mode: str, started: float) -> int:
    """The value command on a Dask cluster: partitioned Parquet (or CSV) in and out."""
    try:
        import dask
        import dask.dataframe as dd

        from .dask import value_policies
    except ImportError:
        raise InputError('--dask needs dask and distributed: pip install "norvane[dask]"') from None
    source = args.portfolio or SAMPLE_PORTFOLIO
    if not source.exists():
        raise InputError(f"{source}: no such file or directory")
    if source.is_dir() or source.name.lower().endswith((".parquet", ".pq")):
        policies = dd.read_parquet(source)
    else:
        # Compressed CSV cannot be split; Parquet datasets are the way to stream large books.
        policies = dd.read_csv(
            source,
            dtype=object,
            keep_default_na=False,
            blocksize=None if source.name.lower().endswith(".gz") else "64MB",
        )
    policies = policies.rename(columns={c: str(c).strip().lower() for c in policies.columns})
    if not {"term", "age"} & set(policies.columns):
        raise InputError(f"{source}: no 'term' or 'age' column")
    output = atomic_path(args.output) if args.output is not None else nullcontext(None)
    # The output takes its place once the summary is known too: a run that fails leaves an earlier one.
    with _dask_client(args.dask, args.workers), output as written:
        carry = ["id"] if "id" in policies.columns else []
        result = value_policies(policies, curve, mode=mode, with_errors=True, carry=carry, tables=args.tables).persist()
        if written is not None:
            try:
                if output_kind(args.output) == "parquet":
                    result.to_parquet(written, write_index=False)
                else:
                    result.to_csv(
                        written,
                        single_file=True,
                        index=False,
                        compression="gzip" if args.output.name.lower().endswith(".gz") else None,
                    )
            except OSError as exc:
                raise InputError(f"{args.output}: cannot write ({exc})") from None
        # Exact per partition, rounded once: the same total as one process gives.
        partials = [dask.delayed(_exact_total)(part) for part in result["present_value"].to_delayed()]
        count, failed, *totals = dask.compute(result.shape[0], (~result["error"].isna()).sum(), *partials)
        total = sum(totals, Fraction(0))
        shown = result[~result["error"].isna()].head(SHOWN_ERRORS, npartitions=-1)
        first = [(str(row.get("id", index)), row["error"]) for index, row in shown.iterrows()]
    summary = BookSummary(int(count), int(count - failed), int(failed), rounded(total), first)
    _summary(args, curve_label, mode, summary, time.perf_counter() - started)
    return EXIT_OK


def _exact_total(values: Any) -> Fraction:
    """The exact sum of a partition's present values (NaN, an invalid record's, left out)."""
    numbers = np.asarray(values, dtype=np.float64)
    return exact_sum(numbers[np.isfinite(numbers)])


def run_value(args: argparse.Namespace) -> int:
    started = time.perf_counter()
    check_output(args.output)
    curve, curve_label = load_curve(args.curve, args.rate)
    args.tables = load_tables(args.mortality)
    mode = args.mode or Config().calculation_mode
    if args.dask:
        return run_value_dask(args, curve, curve_label, mode, started)
    progress = False if args.quiet and args.progress is None else args.progress  # None: on a terminal
    if args.risk_columns and args.output is None:
        raise InputError("--risk-columns adds columns to the --output file: give one")
    summary = stream_book(
        args.portfolio or SAMPLE_PORTFOLIO,
        curve,
        args.output,
        mode=mode,
        progress=progress,
        tables=args.tables,
        risk_tenors=args.key_tenors if args.risk_columns else None,
    )
    _summary(args, curve_label, mode, summary, time.perf_counter() - started)
    if args.risk and summary.valued:
        _print_risk(args, curve, mode)
    return EXIT_OK


def _print_risk(args: argparse.Namespace, curve: Any, mode: str) -> None:
    """Durations, convexity and DV01s of the valued records, from their monthly expected flows."""
    from .portfolio import flow_book
    from .risk import sensitivities

    tenors = args.key_tenors
    flows = flow_book(args.portfolio or SAMPLE_PORTFOLIO, curve, mode=mode, tables=args.tables, buckets="monthly")
    try:
        risk = sensitivities(curve, flows, key_tenors=tenors)
    except ValueError as exc:
        raise InputError(f"--risk: {exc}") from None
    print("interest-rate risk (annual zero rates; DV01s per basis point, a fall of rates positive)")
    _print_pairs(
        [
            ("Macaulay duration", f"{risk.macaulay_duration:.4f}"),
            ("modified duration", f"{risk.modified_duration:.4f}"),
            ("effective duration", f"{risk.effective_duration:.4f}"),
            ("convexity", f"{risk.convexity:.4f}"),
            ("DV01", _money(risk.dv01)),
            *((f"key-rate DV01 {t:g}y", _money(dv01)) for t, dv01 in zip(risk.key_tenors, risk.key_rate_dv01)),
        ]
    )


def run_curve(args: argparse.Namespace) -> int:
    if args.plot is not None:
        Figure = _require_matplotlib()
        if not 0 < args.horizon < math.inf:
            raise InputError(f"--horizon must be a positive number of years, got {args.horizon}")
    curve, curve_label = load_curve(args.curve, args.rate)
    report = {
        "curve": curve_label,
        "export": curve.export("dict"),
        "analysis": curve.curve_analysis(),
        "validation": curve.validate(),
    }
    print(json.dumps(report, indent=2, default=_jsonable))
    if args.plot is None:
        return EXIT_OK
    t = np.linspace(0.0, args.horizon, 601)
    fig = Figure(figsize=(8, 9), dpi=100, layout="constrained")
    panels = fig.subplots(3, 1, sharex=True)
    for ax, ys, title in zip(
        panels,
        (curve.vn(t), curve.get_rate(t), curve.delta(t)),
        ("discount factor v(t)", "rate in force i(t)", "force of interest δ(t)"),
    ):
        ax.plot(t, ys)
        ax.set_title(title)
        ax.grid(True, alpha=0.3)
    panels[-1].set_xlabel("years")
    fig.suptitle(curve_label)
    _save(fig, args.plot)
    print(f"plot written to {args.plot}")
    return EXIT_OK


MARKET_KINDS = {
    "zero": "zero-coupon rates",
    "discount": "discount factors",
    "forward": "forward rates (each from the previous maturity)",
    "par": "par swap rates",
    "smith-wilson": "Smith-Wilson through zero-coupon or par swap rates (--instruments)",
}


def _market_inputs(path: Path) -> tuple[np.ndarray, Any]:
    """The maturities of a market-data CSV and its values: one array, or one per scenario (a
    mapping, as the curve builders take scenarios) when it has a scenario column."""
    import pyarrow as pa
    from pyarrow import csv

    try:
        frame = csv.read_csv(path)
    except (OSError, pa.ArrowInvalid, UnicodeDecodeError) as exc:
        raise InputError(f"{path}: not a readable CSV file ({exc})") from None
    columns = {name.lower(): column for name, column in zip(frame.column_names, frame.columns)}
    if "maturity" not in columns or "value" not in columns:
        raise InputError(f"{path}: needs the columns 'maturity' and 'value', got {frame.column_names}")
    try:
        maturity, value = (columns[k].cast(pa.float64()).to_numpy(zero_copy_only=False) for k in ("maturity", "value"))
    except (pa.ArrowInvalid, pa.ArrowNotImplementedError):
        raise InputError(f"{path}: 'maturity' and 'value' must hold numbers") from None
    if "scenario" not in columns:
        return maturity, value
    names = np.array(columns["scenario"].cast(pa.string()).to_pylist(), dtype=object)
    scenarios = {str(name): names == name for name in dict.fromkeys(names)}
    first = next(iter(scenarios.values()))
    if any(not np.array_equal(maturity[rows], maturity[first]) for rows in scenarios.values()):
        raise InputError(f"{path}: every scenario must give the same maturities")
    return maturity[first], {name: value[rows] for name, rows in scenarios.items()}


def run_curve_build(args: argparse.Namespace) -> int:
    from . import curves

    inputs = _market_inputs(args.inputs)
    build = {
        "zero": lambda t, v: curves.from_zero_rates(t, v, compounding=args.compounding),
        "discount": curves.from_discount_factors,
        "forward": curves.from_forward_rates,
        "par": lambda t, v: curves.bootstrap_par_swaps(t, v, frequency=args.frequency),
        "smith-wilson": lambda t, v: curves.smith_wilson(
            t, v, ufr=args.ufr, alpha=args.alpha, instruments=args.instruments, frequency=args.frequency
        ),
    }[args.kind]
    if args.kind == "smith-wilson" and args.ufr is None:
        raise InputError("--kind smith-wilson needs --ufr, the ultimate forward rate (e.g. 0.042)")
    try:
        curve = build(*inputs)  # a mapping of scenarios builds a container
    except (TypeError, ValueError) as exc:
        raise InputError(f"{args.inputs}: {exc}") from None
    try:
        with atomic_path(args.output) as written:
            written.write_text(curve.export("json"), encoding="utf-8")
    except OSError as exc:
        raise InputError(f"cannot write {args.output}: {exc}") from None
    print(
        f"{MARKET_KINDS[args.kind]} from {args.inputs}: {_curve_form(curve)} written to {args.output} "
        "(its export keeps six decimals of each segment's rate)"
    )
    if args.plot is not None:
        _plot_market_curve(curve, args.horizon, args.plot, f"{args.kind} curve from {args.inputs.name}")
    return EXIT_OK


def _plot_market_curve(curve: Any, horizon: float, path: Path, title: str) -> None:
    """Zero and one-year forward rates of each scenario of a built curve."""
    from . import curves

    Figure = _require_matplotlib()
    if not 0 < horizon < math.inf:
        raise InputError(f"--horizon must be a positive number of years, got {horizon}")
    t = np.linspace(horizon / 600, horizon, 600)
    fig = Figure(figsize=(8, 6), dpi=100, layout="constrained")
    zero_panel, forward_panel = fig.subplots(2, 1, sharex=True)
    for name in list(curve.scenarios) or [""]:
        if name:
            curve.active_scenario = name
        zero_panel.plot(t, curves.zero_rates(curve, t), label=name or None)
        forward_panel.plot(t, curves.forward_rates(curve, t, t + 1.0), label=name or None)
    for ax, heading in ((zero_panel, "zero rate (annual)"), (forward_panel, "one-year forward rate")):
        ax.set_title(heading)
        ax.grid(True, alpha=0.3)
        if curve.scenarios:
            ax.legend()
    forward_panel.set_xlabel("years")
    fig.suptitle(title)
    _save(fig, path)
    print(f"plot written to {path}")


def _save(fig, path: Path) -> None:
    try:
        with atomic_path(path) as written:  # keeps the suffix, which sets the format
            fig.savefig(written)
    except OSError as exc:
        raise InputError(f"{path}: cannot write ({exc})") from None


def run_flows(args: argparse.Namespace) -> int:
    if args.plot is not None:
        Figure = _require_matplotlib()
    check_output(args.output)
    curve, curve_label = load_curve(args.curve, args.rate)
    mode = args.mode or Config().calculation_mode
    book = open_book(args.portfolio or SAMPLE_PORTFOLIO)
    tables = book_tables(load_tables(args.mortality))
    blocks = [(block.policies, block.valid) for block in valued_blocks(book, curve, mode, tables=tables.tables)]
    count = sum(len(pf) for pf, _ in blocks)
    invalid = sum(int((~valid).sum()) for _, valid in blocks)
    life = sum(int((valid & pf.life).sum()) for pf, valid in blocks)

    last, perpetuities = last_payment_year(blocks, tables)
    years = flow_years(last, perpetuities, args.horizon)
    flows = book_flows(curve, blocks, mode, years, tables)
    total = math.fsum(flows["pv_cf"].tolist())

    print("norvane cash flows")
    _print_pairs(
        [
            ("portfolio", _portfolio_label(args.portfolio)),
            ("curve", curve_label),
            ("mode", mode),
            ("policies", f"{count:,}"),
            ("of which life-contingent", f"{life:,}"),
            ("skipped (invalid)", f"{invalid:,}"),
        ]
    )
    gathered = perpetuities or last > years
    if perpetuities and any((pf.benefit[valid & ~np.isfinite(pf.term)] > 0).any() for pf, valid in blocks):
        # The undiscounted payments of a perpetuity have no finite sum.
        flows["expected_cf"][-1] = math.inf
    labels = [str(y) for y in flows["year"]]
    if gathered:
        labels[-1] += "+"
    expected_total = math.fsum(flows["expected_cf"].tolist())
    print(f"{'year':>6}  {'expected cash flow':>20}  {'present value':>20}")
    for label, cf, pv in zip(labels, flows["expected_cf"], flows["pv_cf"]):
        print(f"{label:>6}  {_money(cf):>20}  {_money(pv):>20}")
    print(f"{'total':>6}  {_money(expected_total):>20}  {_money(total):>20}")
    if gathered:
        print(
            f"flows after year {years - 1} are shown in year {labels[-1]}"
            + (" (perpetuities: no finite sum of payments)" if perpetuities else "")
        )
    if args.by is not None:
        # The same flows split by the book's column, on the same years.
        split = flow_book(
            args.portfolio or SAMPLE_PORTFOLIO, curve, mode=mode, horizon=years, tables=tables.tables, by=args.by
        )
        print(f"by {args.by}:")
        for label, cf, pv in zip(split.groups, split.expected.sum(axis=1), split.discounted.sum(axis=1)):
            print(f"  {'(none)' if label is None else str(label):<20}  {_money(cf):>20}  {_money(pv):>20}")
    if args.output is not None:
        table = flows if args.by is None else split.to_arrow(by=args.by)
        write_table(args.output, table if isinstance(table, dict) else dict(zip(table.column_names, table.columns)))
        print(f"flows written to {args.output}")
    if args.plot is not None:
        fig = Figure(figsize=(9, 6), dpi=100, layout="constrained")
        ax = fig.subplots()
        width = 0.4
        # An unbounded perpetual tail would flatten every other bar.
        shown = np.where(np.isfinite(flows["expected_cf"]), flows["expected_cf"], np.nan)
        ax.bar(flows["year"] - width / 2, shown, width, label="expected cash flow")
        ax.bar(flows["year"] + width / 2, flows["pv_cf"], width, label="present value")
        ax.set_xlabel("year after valuation")
        ax.legend()
        ax.grid(True, axis="y", alpha=0.3)
        fig.suptitle(f"portfolio cash flows, {curve_label}")
        _save(fig, args.plot)
        print(f"plot written to {args.plot}")
    return EXIT_OK


# --------------------------------------------------------------------------- parser


def build_parser() -> argparse.ArgumentParser:
    raw = argparse.RawDescriptionHelpFormatter
    parser = argparse.ArgumentParser(
        prog="norvane",
        formatter_class=raw,
        description="Actuarial interest-rate curves and annuity valuation. Without a command, "
        "'value' runs (on the bundled sample portfolio and curve when no files are given).",
        epilog=POLICY_COLUMNS,
    )
    parser.add_argument("--version", action="version", version=f"norvane {__version__}")
    commands = parser.add_subparsers(dest="command", metavar="COMMAND")

    curve_options = argparse.ArgumentParser(add_help=False)
    source = curve_options.add_mutually_exclusive_group()
    source.add_argument(
        "--curve",
        type=Path,
        metavar="FILE",
        help="curve as InterestRate.export writes it (JSON); default: the bundled sample curve",
    )
    source.add_argument("--rate", type=float, metavar="R", help="constant effective annual rate instead, e.g. 0.03")

    book_options = argparse.ArgumentParser(add_help=False)
    book_options.add_argument(
        "--portfolio",
        type=Path,
        metavar="FILE",
        help="policies: .csv, .csv.gz, .parquet or a directory of Parquet files; default: the bundled sample portfolio",
    )
    book_options.add_argument(
        "--mode", choices=_CALCULATION_MODES, help=f"calculation mode (default {Config().calculation_mode})"
    )
    book_options.add_argument(
        "--mortality",
        action="append",
        metavar="NAME=FILE.csv",
        help="a mortality table that the 'table' column names: a CSV file with columns age and qx "
        "(select_0, select_1, ... for a select table), or a bundled table's name alone; repeatable, "
        "the first is the default for records with an age and no table",
    )

    value = commands.add_parser(
        "value",
        parents=[book_options, curve_options],
        formatter_class=raw,
        epilog=POLICY_COLUMNS,
        help="present value of every policy of a portfolio (the default command)",
        description="Value every policy of a portfolio and print a summary.",
    )
    value.add_argument(
        "--output",
        type=Path,
        metavar="FILE",
        help="write id, present_value and error per policy (.csv, .csv.gz or .parquet)",
    )
    value.add_argument("--quiet", action="store_true", help="print a one-line summary only")
    value.add_argument(
        "--risk",
        action="store_true",
        help="also print the book's durations, convexity, DV01 and key-rate DV01s (from its monthly expected "
        "flows; reads the book a second time)",
    )
    value.add_argument(
        "--risk-columns",
        action="store_true",
        help="add each record's Macaulay and modified durations, convexity, DV01 and key-rate DV01s (--key-tenors) "
        "to the output, from its monthly expected flows",
    )
    value.add_argument(
        "--key-tenors",
        type=lambda text: [float(t) for t in text.split(",")],
        default=list(DEFAULT_KEY_TENORS),
        metavar="T1,T2,...",
        help=f"key tenors of --risk in years (default {','.join(f'{t:g}' for t in DEFAULT_KEY_TENORS)})",
    )
    value.add_argument(
        "--dask",
        nargs="?",
        const="local",
        metavar="ADDRESS",
        help="value on a Dask cluster: the scheduler's address, or a local cluster when no "
        "address is given (needs the dask extra); reads Parquet datasets (directories) or "
        "CSV and writes a partitioned Parquet dataset for a .parquet output",
    )
    value.add_argument(
        "--workers", type=int, default=2, metavar="N", help="worker processes of the local Dask cluster (default 2)"
    )
    value.add_argument(
        "--progress",
        action=argparse.BooleanOptionalAction,
        default=None,
        help="progress bar on stderr: policies read, or bytes of a CSV file (default: when stderr is a terminal)",
    )
    value.set_defaults(run=run_value)

    curve = commands.add_parser(
        "curve",
        parents=[curve_options],
        help="analysis and validation report of a curve",
        description="Print a curve's analysis and validation report as JSON, optionally plot it.",
    )
    curve.add_argument(
        "--plot",
        type=Path,
        metavar="FILE.png",
        help="plot discount factor, rate in force and force of interest (needs matplotlib)",
    )
    curve.add_argument("--horizon", type=float, default=60.0, metavar="YEARS", help="plot up to this time (default 60)")
    curve.set_defaults(run=run_curve)
    curve_commands = curve.add_subparsers(dest="curve_command", metavar="build")
    build = curve_commands.add_parser(
        "build",
        help="build a curve from market data",
        description="Build a curve from a CSV of market inputs (columns 'maturity' and 'value', and "
        "'scenario' for a scenario container) and write its export (JSON).",
    )
    build.add_argument("inputs", type=Path, metavar="MARKET.csv", help="the market inputs")
    build.add_argument("--output", type=Path, required=True, metavar="CURVE.json", help="the curve's export")
    build.add_argument("--kind", choices=list(MARKET_KINDS), default="zero", help="what the values are (default zero)")
    build.add_argument(
        "--compounding",
        type=lambda x: x if x in ("annual", "continuous") else int(x),
        default="annual",
        metavar="{annual,continuous,N}",
        help="of zero rates: annual (default), continuous or N times a year",
    )
    build.add_argument("--frequency", type=int, default=1, choices=(1, 2, 4), help="swap payments a year (default 1)")
    build.add_argument("--ufr", type=float, metavar="R", help="Smith-Wilson's ultimate forward rate, e.g. 0.042")
    build.add_argument("--alpha", type=float, metavar="A", help="Smith-Wilson's alpha (default: calibrated)")
    build.add_argument("--instruments", choices=("zero", "swap"), default="zero", help="Smith-Wilson's inputs")
    build.add_argument("--plot", type=Path, metavar="FILE.png", help="plot zero and forward rates (needs matplotlib)")
    build.add_argument("--horizon", type=float, default=60.0, metavar="YEARS", help="plot up to this time (default 60)")
    build.set_defaults(run=run_curve_build)

    flows = commands.add_parser(
        "flows",
        parents=[book_options, curve_options],
        formatter_class=raw,
        epilog=POLICY_COLUMNS,
        help="aggregated expected and discounted cash flows of a portfolio by year",
        description="Aggregate the portfolio's expected cash flows (certain and life annuities, each "
        "payment weighted by the chance it is made) and their present values on a yearly grid after "
        "the valuation time. Invalid records are skipped and counted.",
    )
    flows.add_argument(
        "--horizon",
        type=float,
        metavar="YEARS",
        help="last year of the grid (default: the last payment year, a life's when its table ends, "
        f"at least {PERPETUITY_YEARS} with perpetuities; later flows are shown in the last year)",
    )
    flows.add_argument(
        "--output", type=Path, metavar="FILE", help="write year, expected_cf and pv_cf (.csv, .csv.gz or .parquet)"
    )
    flows.add_argument(
        "--by",
        metavar="COLUMN",
        help="also split the flows by a column of the book (a product, a table...): the totals of each value "
        "are printed and --output holds a row per value and year",
    )
    flows.add_argument("--plot", type=Path, metavar="FILE.png", help="bar chart of the flows (needs matplotlib)")
    flows.set_defaults(run=run_flows)
    return parser


class Terminated(BaseException):
    """SIGTERM arrived during a run. A BaseException, as KeyboardInterrupt is, so that no
    ``except Exception`` stops it on its way out: every open output is removed as it passes."""


def _terminate(signum: int, frame: Any) -> None:
    signal.signal(signal.SIGTERM, signal.SIG_IGN)  # a second SIGTERM must not cut the tidying short
    raise Terminated


@contextmanager
def _sigterm_unwinds() -> Iterator[None]:
    """SIGTERM raises Terminated in the run instead of ending the process where it stands (which
    would leave a temporary output behind). Only the main thread can set a handler."""
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    previous = signal.signal(signal.SIGTERM, _terminate)
    if previous is None:  # a handler set outside Python: the default is the nearest to it
        previous = signal.SIG_DFL
    try:
        yield
    finally:
        signal.signal(signal.SIGTERM, previous)


def main(argv: Sequence[str] | None = None) -> int:
    """Run the command line; returns the exit status."""
    args_list = list(sys.argv[1:] if argv is None else argv)
    if not args_list or args_list[0] not in (*COMMANDS, "-h", "--help", "--version"):
        args_list.insert(0, "value")
    parser = build_parser()
    try:
        args = parser.parse_args(args_list)
    except SystemExit as exc:  # --help, --version and usage errors
        return exc.code if isinstance(exc.code, int) else EXIT_INPUT
    try:
        with _sigterm_unwinds():
            return args.run(args)
    except InputError as exc:
        print(f"norvane: error: {exc}", file=sys.stderr)
        return EXIT_INPUT
    except Terminated:
        print("norvane: terminated", file=sys.stderr)
        return EXIT_TERMINATED
    except BrokenPipeError:
        # The reader went away (``norvane curve | head``): stop quietly, as other tools do.
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        return EXIT_OK
