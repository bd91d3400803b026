"""norvane.dask and ``norvane value --dask`` on a local cluster of two worker processes.

A seeded book of 200,000 policies, written as a partitioned Parquet dataset, is valued
partition by partition on the cluster; every number must equal, bit for bit, what one
process computes through norvane.portfolio and through direct curve.ä / curve.a calls.
"""

import math
import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pandas as pd
import pyarrow as pa
import pyarrow.parquet as pq
import pytest

from norvane.config import Config
from norvane.interest_rates import InterestRate
from norvane.mortality import bundled_table
from norvane.portfolio import value_book

distributed, dd, dask = (pytest.importorskip(name) for name in ("distributed", "dask.dataframe", "dask"))

from dask.utils import key_split  # noqa: E402

from norvane.dask import policy_flows, value_policies  # noqa: E402

N, FILES = 200_000, 8
CURVE = InterestRate(terms=[5, 10], rates=[0.02, 0.03, 0.035])
# (column, bad cell, start of the message): one kind of defect per invalid record.
BROKEN = [("term", -3.0, "term must be"), ("timing", "arrears", "timing must be"), ("benefit", -1.0, "benefit must be")]
BROKEN += [("frequency", 5, "frequency must be one of"), ("growth", -2.0, "growth must be")]
BROKEN += [("deferment", -1.0, "deferment must be")]
V = 1 / 1.03


def make_book(n, seed=20240915):
    """Whole and fractional terms, perpetuities (missing terms), deferments, shifts, m = 1/4/12,
    both timings (some in odd case, some missing), growth, benefits; a few invalid records."""
    rng = np.random.default_rng(seed)
    term = rng.integers(1, 41, n).astype(float)
    fractional = rng.random(n) < 0.15
    term[fractional] -= np.round(rng.random(fractional.sum()), 4)
    term[rng.random(n) < 0.02] = np.nan
    deferment = np.where(rng.random(n) < 0.35, rng.integers(1, 26, n), 0) + 0.5 * (rng.random(n) < 0.03)
    shift = np.floor(rng.random(n) * 10) * (rng.random(n) < 0.5) + 0.25 * (rng.random(n) < 0.05)
    timing = rng.choice(np.array(["due", "immediate", " Immediate", None], dtype=object), n, p=[0.5, 0.4, 0.05, 0.05])
    columns = {"id": [f"P{i:07d}" for i in range(n)], "term": term, "deferment": deferment, "shift": shift}
    columns |= {
        "frequency": rng.choice([1, 4, 12], n),
        "timing": timing,
        "benefit": np.round(rng.uniform(100, 1e4, n), 2),
    }
    columns |= {"growth": np.where(rng.random(n) < 0.2, rng.choice([0.01, 0.02, 0.03], n), np.nan)}
    book = pd.DataFrame(columns, index=pd.Index(7 * np.arange(n) + 3, name="row"))  # an index that is not 0..n-1
    bad = np.sort(rng.choice(n, 10 * len(BROKEN), replace=False))
    for k, i in enumerate(bad):
        book.iloc[i, book.columns.get_loc(BROKEN[k % len(BROKEN)][0])] = BROKEN[k % len(BROKEN)][1]
    return book, bad


def single_process(directory, mode="discrete_precision"):
    values = value_book(Path(directory), CURVE, mode=mode)  # the command line's own reader
    return values.present_value, list(values.error)


@pytest.fixture(scope="module")
def client():
    options = dict(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0")  # any free port
    with distributed.LocalCluster(**options) as cluster, distributed.Client(cluster) as c:
        yield c


@pytest.fixture(scope="module")
def book(tmp_path_factory):
    frame, bad = make_book(N)
    directory = tmp_path_factory.mktemp("book")
    for k, rows in enumerate(np.array_split(np.arange(N), FILES)):
        pq.write_table(pa.Table.from_pandas(frame.iloc[rows]), directory / f"part-{k}.parquet")
    values, errors = single_process(directory)
    return dict(dir=directory, frame=frame, bad=bad, values=values, errors=errors)


def task_counts(stream):
    names = [key_split(t["key"]).lstrip("_") for t in stream.data]
    return {name: names.count(name) for name in set(names)}


def test_values_equal_single_process_and_direct_calls(client, book):
    policies = dd.read_parquet(book["dir"])
    assert policies.npartitions == FILES
    values = value_policies(policies, CURVE).compute()
    table = value_policies(policies, CURVE, with_errors=True).compute()
    frame = book["frame"]
    assert isinstance(values, pd.Series) and list(table.columns) == ["present_value", "error"]
    assert values.index.equals(frame.index) and table.index.equals(frame.index)
    assert np.array_equal(values.to_numpy(), book["values"], equal_nan=True)
    assert np.array_equal(table["present_value"].to_numpy(), book["values"], equal_nan=True)
    # Exactly the broken records are NaN, each with its own message; no other record has one.
    invalid = np.zeros(N, dtype=bool)
    invalid[book["bad"]] = True
    assert (np.isnan(values.to_numpy()) == invalid).all() and (table["error"].isna().to_numpy() == ~invalid).all()
    assert table["error"].dropna().tolist() == [e for e in book["errors"] if e is not None]
    for k, i in enumerate(book["bad"]):
        assert table["error"].iloc[i].startswith(BROKEN[k % len(BROKEN)][2]), (i, table["error"].iloc[i])
    # A sample of valid rows against one direct call each, times the benefit.
    rng = np.random.default_rng(1)
    sample = rng.choice(np.flatnonzero(~invalid), 400, replace=False)
    rows = frame.iloc[sample]
    assert rows["term"].isna().any() and rows["growth"].notna().any() and (rows["term"] % 1 > 0).any()
    for (_, p), value in zip(rows.iterrows(), values.to_numpy()[sample]):
        method = CURVE.a if str(p["timing"]).strip().lower() == "immediate" else CURVE.ä
        extra = {} if math.isnan(p["growth"]) else {"gr": p["growth"]}
        term = None if math.isnan(p["term"]) else p["term"]
        unit = method(n=term, d=p["deferment"], ts=p["shift"], m=int(p["frequency"]), **extra)
        assert value == unit * p["benefit"], (p.to_dict(), value, unit * p["benefit"])


def test_closed_forms_on_a_constant_curve_keep_an_arbitrary_index(client):
    columns = {"term": [10.0, 10.0, None, 20.0, -1.0, 10.0], "deferment": [0, 0, 0, 5, 0, 0]}
    columns |= {"shift": [0, 0, 0, 2, 0, 0], "growth": [None] * 5 + [0.02]}
    columns |= {"frequency": [1, 12, 1, 1, 1, 1], "timing": ["due", "immediate", "due", "due", "due", "due"]}
    columns |= {"benefit": [1.0, 1200.0, 2.0, 1.0, 1.0, 1.0]}
    frame = pd.DataFrame(columns, index=["z", "y", "x", "w", "v", "u"])
    expected = [(1 - V**10) / (1 - V), 1200 * (1 - V**10) / (12 * (1.03 ** (1 / 12) - 1)), 2 / (1 - V)]
    expected += [V**3 * (1 - V**20) / (1 - V), math.nan, (1 - (1.02 * V) ** 10) / (1 - 1.02 * V)]
    policies = dd.from_pandas(frame, npartitions=3, sort=False)
    table = value_policies(policies, InterestRate(0.03), with_errors=True).compute()
    assert table.index.tolist() == ["z", "y", "x", "w", "v", "u"]
    assert table["present_value"].tolist() == pytest.approx(expected, rel=1e-10, nan_ok=True)
    assert table["error"].isna().tolist() == [True] * 4 + [False, True]


def test_the_curve_reaches_the_workers_once_per_computation(client, book):
    policies = dd.read_parquet(book["dir"])
    values = value_policies(policies, CURVE)
    graph = dict(values.__dask_graph__())
    holders = [k for k, node in graph.items() if isinstance(getattr(node, "value", node), InterestRate)]
    assert len(holders) == 1  # the curve is one key of the graph, not a copy per partition
    users = [k for k, node in graph.items() if holders[0] in getattr(node, "dependencies", ())]
    assert len(users) == FILES
    with distributed.get_task_stream(client) as stream:
        values.sum().compute()
    counts = task_counts(stream)
    assert counts["InterestRate"] == 1 and counts["value_partition"] == FILES


def test_policy_flows_total_invalid_and_grid(client, book):
    parts = 3  # an odd number of partitions exercises the reduction's odd branch
    policies = dd.read_parquet(book["dir"]).partitions[:parts]
    rows = np.arange(sum(len(r) for r in np.array_split(np.arange(N), FILES)[:parts]))
    values = book["values"][rows]
    valid = ~np.isnan(values)
    with distributed.get_task_stream(client) as stream:
        flows = policy_flows(policies, CURVE)
    counts = task_counts(stream)
    assert 1 <= counts["InterestRate"] <= 2 and counts["partition_flows"] == parts
    assert flows["total_pv"] == pytest.approx(math.fsum(values[valid]), rel=1e-9)
    assert flows["total_pv"] == pytest.approx(math.fsum(flows["pv_cf"]), rel=1e-12)
    assert flows["invalid"] == np.isin(book["bad"], rows).sum() > 0
    # The grid runs to the last payment of the finite policies, and 100 years with perpetuities.
    p = book["frame"].iloc[rows][valid]
    ends = (p["deferment"] + p["term"] - p["shift"]).dropna()
    years = max(math.ceil(ends.max() - 1e-9), 100 if p["term"].isna().any() else 1)
    assert np.array_equal(flows["year"], np.arange(1, years + 1)) and years == 100
    assert np.all(flows["pv_cf"] > 0) and np.all(flows["expected_cf"][:-1] >= flows["pv_cf"][:-1])
    short = policy_flows(policies, CURVE, horizon=30)
    assert len(short["year"]) == 30 and short["invalid"] == flows["invalid"]
    assert short["total_pv"] == pytest.approx(flows["total_pv"], rel=1e-9)


def test_command_line_on_the_cluster(client, book, tmp_path):
    (tmp_path / "curve.json").write_text(CURVE.export("json"))
    address = client.scheduler.address
    out = tmp_path / "values.parquet"
    out.mkdir()  # an earlier run's dataset, with more partitions: none of it may stay
    (out / "part.99.parquet").write_bytes(b"earlier")
    args = ["value", "--dask", address, "--portfolio", str(book["dir"]), "--curve", str(tmp_path / "curve.json")]
    run = subprocess.run(
        [sys.executable, "-m", "norvane", *args, "--output", str(out)], capture_output=True, text=True, timeout=300
    )
    assert run.returncode == 0, run.stderr
    assert len(list(out.glob("*.parquet"))) > 1 and not (out / "part.99.parquet").exists()  # a partitioned dataset
    assert sorted(p.name for p in tmp_path.iterdir()) == ["curve.json", "values.parquet"]  # nothing left beside
    result = dd.read_parquet(out).compute()
    assert list(result.columns) == ["id", "present_value", "error"] and len(result) == N
    assert result["id"].tolist() == book["frame"]["id"].tolist()
    assert np.array_equal(result["present_value"].to_numpy(), book["values"], equal_nan=True)
    assert result["error"].tolist() == [pd.NA if e is None else e for e in book["errors"]]
    summary = run.stdout
    failed = [i for i, e in enumerate(book["errors"]) if e is not None]
    for label, number in [("cluster", address), ("policies", f"{N:,}"), ("valued", f"{N - len(failed):,}")]:
        assert re.search(rf"\n  {label}\s+{re.escape(number)}\n", summary), (label, summary)
    assert re.search(rf"\n  errors\s+{len(failed):,}\n", summary), summary
    total = re.search(r"total present value\s+([\d,.]+)\n", summary)
    valid = book["values"][~np.isnan(book["values"])]
    assert float(total.group(1).replace(",", "")) == pytest.approx(math.fsum(valid), abs=0.011)
    first = [f"  {book['frame']['id'].iloc[i]}: {book['errors'][i]}" for i in failed[:5]]
    assert summary.endswith(f"first errors (of {len(failed)}):\n" + "\n".join(first) + "\n")


def test_another_mode_on_the_cluster_and_on_threads(client, book):
    policies, mode = dd.read_parquet(book["dir"]), "discrete_simplified"
    reference, _ = single_process(book["dir"], mode)
    assert np.mean(reference != book["values"]) > 0.5  # the mode does change most values
    small = pd.DataFrame({"term": [10.0, 7.5, None], "deferment": 2.0, "frequency": 12, "benefit": [1.0, 2.0, 3.0]})
    got = [value_policies(policies, CURVE, mode=mode).compute()]
    with Config().override(calculation_mode=mode):
        got.append(value_policies(policies, CURVE).compute())  # the caller's mode by default
        direct = [CURVE.ä(n=n, m=12, d=2.0) * b for n, b in [(10.0, 1.0), (7.5, 2.0), (None, 3.0)]]
    # Tasks on several threads of one process each value under the settings of their own call.
    with dask.config.set(scheduler="threads", num_workers=4):
        got.append(value_policies(policies, CURVE, mode=mode).compute())
        default = value_policies(policies, CURVE).compute().to_numpy()
    assert all(np.array_equal(values.to_numpy(), reference, equal_nan=True) for values in got)
    assert np.array_equal(default, book["values"], equal_nan=True) and Config().calculation_mode != mode
    assert value_policies(dd.from_pandas(small, npartitions=2), CURVE, mode=mode).compute().tolist() == direct


@pytest.mark.parametrize("case", ["nan-cells", "caller-decimals"])
def test_missing_cells_and_the_callers_rounding_as_in_a_single_process(client, tmp_path, case):
    # NaN (not null) cells are missing cells for every reader; the caller's Config() rounding applies.
    nan = case == "nan-cells"
    term, benefit = ([10.0, math.nan, 5.0], [1.0, 1.0, math.nan]) if nan else ([10.0, 7.5], [1.0, 3.0])
    table = pa.table({"term": pa.array(term, from_pandas=False), "benefit": pa.array(benefit, from_pandas=False)})
    pq.write_table(table, tmp_path / "b.parquet")
    with Config().override(decimals={"annuities": 10 if nan else 4}):
        expected, _ = single_process(tmp_path / "b.parquet")
        got = value_policies(dd.read_parquet(tmp_path / "b.parquet"), CURVE).compute().to_numpy()
    assert np.array_equal(got, expected, equal_nan=True)


def test_life_records_and_their_tables_reach_the_workers(client):
    tables = {"M": bundled_table("makeham_20_120").scaled(0.9), "F": bundled_table("makeham_13_110")}
    frame = pd.DataFrame({"term": [10, 10, None, 5], "age": [None, 65, 70.5, 130], "table": [None, None, "F", "F"]})
    result = value_policies(dd.from_pandas(frame, npartitions=2), CURVE, tables=tables, with_errors=True).compute()
    single = value_book(frame, CURVE, tables=tables)
    assert np.array_equal(result["present_value"], single.present_value, equal_nan=True)
    assert result["error"].isna().tolist() == [True, True, True, False]
    assert result["present_value"][1] == tables["M"].life(65).ä(CURVE, n=10)


def test_policy_flows_of_lives_add_up_to_their_values(client):
    table = bundled_table("makeham_13_110")
    frame = pd.DataFrame(
        {
            "id": [f"L{i}" for i in range(6)],
            "term": [np.nan, 10, np.nan, 20, np.nan, 5],
            "benefit": [100.0, 50.0, 70.0, 10.0, 30.0, 5.0],
            "age": [65, 40.5, np.nan, 70, 80, np.nan],
            "table": ["own", "", "", "own", "own", ""],
        }
    )
    frame.loc[2, "term"] = 12  # a certain annuity among the lives
    policies = dd.from_pandas(frame, npartitions=2)
    flows = policy_flows(policies, CURVE, tables={"own": table})
    values = value_book(frame, CURVE, tables={"own": table}).present_value
    assert flows["total_pv"] == pytest.approx(math.fsum(values), rel=1e-10) and flows["invalid"] == 0
    assert len(flows["year"]) == 111 - 65  # the life aged 65 for life may live to the end of its table at 111
