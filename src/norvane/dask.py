"""Portfolio valuation on Dask: the same valuation, partition by partition.

A book of policies too large for one machine is a Dask DataFrame with the
policy columns of the command line ("id", "term", "deferment", "shift",
"frequency", "timing", "growth", "benefit", and "age", "table", "select_age",
"year", "guarantee" for life annuities; "term" or "age" is required). Each partition is valued in
its worker exactly as a single process values it, so the numbers are the same;
the curve and the mortality tables travel to the workers once, each as one key
of the task graph.

Needs the ``dask`` extra: ``pip install "norvane[dask]"``.

Examples
--------
>>> import dask.dataframe as dd
>>> from distributed import Client, LocalCluster
>>> from norvane.dask import value_policies
>>> client = Client(LocalCluster(n_workers=2))                  # doctest: +SKIP
>>> book = dd.read_parquet("policies/")                         # doctest: +SKIP
>>> values = value_policies(book, curve).compute()              # doctest: +SKIP
"""

from __future__ import annotations

import threading
from collections.abc import Mapping, Sequence
from typing import Any

import dask
import dask.dataframe as dd
import numpy as np
import pandas as pd

from .config import Config
from .mortality import GenerationalTable, MortalityTable
from .portfolio import (
    BookTables,
    Policies,
    book_flows,
    book_tables,
    flow_years,
    last_payment_year,
    open_book,
    value_book,
    valued_blocks,
)

__all__ = ["value_policies", "policy_flows"]


# Valuation settings live in the process-wide Config; tasks that run on several
# threads of one worker take turns, so that each values under its own settings
# (the native kernels use the cores themselves).
_SETTINGS_LOCK = threading.Lock()


def _settings(mode: str | None) -> dict[str, Any]:
    """The caller's valuation settings, applied in the workers (each has its own Config)."""
    config = Config()
    return {
        "calculation_mode": mode or config.calculation_mode,
        "decimals": {"annuities": config.decimals.annuities},
        "force_integer_ts": config.force_integer_ts,
    }


def _blocks(
    frame: pd.DataFrame, curve: Any, settings: dict[str, Any], tables: BookTables
) -> list[tuple[Policies, np.ndarray]]:
    """The partition's policies and which of them are valid, under the caller's settings."""
    with _SETTINGS_LOCK, Config().override(**settings):
        blocks = valued_blocks(open_book(frame, "partition"), curve, settings["calculation_mode"], tables=tables.tables)
        return [(block.policies, block.valid) for block in blocks]


def _value_partition(
    frame: pd.DataFrame,
    curve: Any,
    settings: dict[str, Any],
    with_errors: bool,
    carry: Sequence[str],
    tables: Mapping[str, MortalityTable | GenerationalTable] | None,
) -> pd.DataFrame:
    with _SETTINGS_LOCK, Config().override(**settings):
        values = value_book(frame, curve, mode=settings["calculation_mode"], tables=tables)
    result = pd.DataFrame({name: frame[name] for name in carry}, index=frame.index)
    result["present_value"] = values.present_value
    if with_errors:
        result["error"] = pd.Series(values.error, index=frame.index, dtype="string")
    return result


def _shipped(value: Any) -> Any:
    # One graph key holds the curve (or the tables); every partition's task refers to it.
    return dask.delayed(value, pure=True, traverse=False)


def value_policies(
    policies: dd.DataFrame,
    curve: Any,
    *,
    mode: str | None = None,
    with_errors: bool = False,
    carry: Sequence[str] = (),
    tables: Mapping[str, MortalityTable | GenerationalTable] | None = None,
) -> dd.Series | dd.DataFrame:
    """Present values of a Dask DataFrame of policies, partition by partition.

    Parameters
    ----------
    policies : dask.dataframe.DataFrame
        One row per policy, with the command line's policy columns.
    curve : InterestRate
        The valuation curve (shipped to the workers once).
    mode : str, optional
        Calculation mode; default ``Config().calculation_mode`` of the caller.
        The caller's annuity rounding and integer-shift settings apply too.
    with_errors : bool, default False
        Also return an "error" column: the message of each invalid record
        (whose present value is NaN), missing for valid ones.
    carry : sequence of str, default ()
        Input columns (for example "id") to carry into the result, computed in
        the same tasks as the values so that they share their partitions.
    tables : mapping of str to MortalityTable, optional
        The tables that "table" cells name, as for ``norvane.portfolio.value_book``
        (shipped to the workers once).

    Returns
    -------
    dask.dataframe.Series or dask.dataframe.DataFrame
        "present_value" alone, or a frame of the carried columns, "present_value"
        (and "error"), aligned with the input's index.
    """
    carry = list(carry)
    meta = policies._meta[carry].copy() if carry else pd.DataFrame(index=policies._meta.index)
    meta["present_value"] = pd.Series(dtype="float64")
    if with_errors:
        meta["error"] = pd.Series(dtype="string")
    book_tables(tables)  # a bad mapping is refused here, not in every task
    shipped_tables = None if tables is None else _shipped(dict(tables))
    result = policies.map_partitions(
        _value_partition, _shipped(curve), _settings(mode), with_errors, carry, shipped_tables, meta=meta
    )
    return result if (with_errors or carry) else result["present_value"]


def _partition_horizon(
    frame: pd.DataFrame, curve: Any, settings: dict[str, Any], tables: BookTables
) -> tuple[int, bool, int]:
    blocks = _blocks(frame, curve, settings, tables)
    last, perpetuities = last_payment_year(blocks, tables)
    return last, perpetuities, sum(int((~valid).sum()) for _, valid in blocks)


def _partition_flows(
    frame: pd.DataFrame, curve: Any, settings: dict[str, Any], years: int, tables: BookTables
) -> dict[str, np.ndarray]:
    blocks = _blocks(frame, curve, settings, tables)
    with _SETTINGS_LOCK, Config().override(**settings):
        return book_flows(curve, blocks, settings["calculation_mode"], years, tables)


def _add(a: dict[str, np.ndarray], b: dict[str, np.ndarray]) -> dict[str, np.ndarray]:
    return {"year": a["year"], "expected_cf": a["expected_cf"] + b["expected_cf"], "pv_cf": a["pv_cf"] + b["pv_cf"]}


def policy_flows(
    policies: dd.DataFrame,
    curve: Any,
    *,
    mode: str | None = None,
    horizon: float | None = None,
    tables: Mapping[str, MortalityTable | GenerationalTable] | None = None,
) -> dict[str, Any]:
    """Aggregated cash flows of the valid records, certain and life annuities, on the yearly
    grid 1, 2, ..., years, summed over the partitions.

    Parameters
    ----------
    policies : dask.dataframe.DataFrame
        One row per policy, with the command line's policy columns.
    curve : InterestRate
        The valuation curve.
    mode : str, optional
        Calculation mode; default ``Config().calculation_mode`` of the caller.
    horizon : float, optional
        Length of the grid in years; default the last payment year (at least
        100 years when perpetuities are held). Later flows go to the last year.
    tables : mapping of str to MortalityTable, optional
        The tables that "table" cells name, as for :func:`value_policies`.

    Returns
    -------
    dict
        "year", "expected_cf" and "pv_cf" (arrays), "total_pv" (the sum of
        "pv_cf") and "invalid" (records skipped), reduced across partitions.
    """
    settings = _settings(mode)
    curve_key, known = _shipped(curve), _shipped(book_tables(tables))
    parts = policies.to_delayed()
    horizons = dask.compute(*[dask.delayed(_partition_horizon)(p, curve_key, settings, known) for p in parts])
    last = max((h[0] for h in horizons), default=1)
    perpetuities = any(h[1] for h in horizons)
    years = flow_years(last, perpetuities, horizon)
    pieces = [dask.delayed(_partition_flows)(p, curve_key, settings, years, known) for p in parts]
    while len(pieces) > 1:  # a tree reduction keeps each task's inputs small
        pieces = [
            dask.delayed(_add)(*pieces[i : i + 2]) if i + 1 < len(pieces) else pieces[i]
            for i in range(0, len(pieces), 2)
        ]
    flows = pieces[0].compute()
    flows["total_pv"] = float(flows["pv_cf"].sum())
    flows["invalid"] = sum(h[2] for h in horizons)
    return flows
