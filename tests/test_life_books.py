"""Books mixing certain and life annuities: each life value equals the single-life call, each
certain value its closed form, each bad life cell its message, through value_book and the CLI."""

import math
import re
import shlex
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

from norvane.cli import main
from norvane.interest_rates import InterestRate
from norvane.mortality import MortalityTable, bundled_table, makeham
from norvane.portfolio import value_book

CURVE = InterestRate(terms=[5, 10], rates=[0.02, 0.03, 0.035])
Q = np.append(makeham(0.00022, 2.7e-6, 1.124).qx(np.arange(20, 120)), 1.0)
SELECT = MortalityTable(Q, first_age=20, select=np.column_stack([0.6 * Q[:80], 0.8 * Q[1:81]]))
TABLES = {"S": SELECT, **{name: bundled_table(name) for name in ("makeham_13_110", "makeham_20_120")}}


def v(t):
    return 1.02 ** -min(t, 5) * 1.03 ** -min(max(t - 5, 0), 5) * 1.035 ** -max(t - 10, 0)


def closed(value):
    return pytest.approx(value, rel=1e-10)  # values are rounded to 10 decimals per unit


def life(name, age, method="ä", select_age=None, benefit=1.0, **kw):
    return benefit * getattr(TABLES[name].life(age, select_age=select_age), method)(CURVE, **kw)


# (record, the single-life value (exactly), the closed form or the message): bad life cells between good records.
CASES = [
    ({"id": "certain", "term": "10", "benefit": "100"}, closed(100 * math.fsum(v(k) for k in range(10)))),
    ({"id": "default", "term": "10", "frequency": "12", "age": "65"}, life("S", 65, n=10, m=12)),
    ({"id": "text-age", "term": "5", "age": "abc"}, "age is not a number, got 'abc'"),
    ({"id": "negative-age", "term": "5", "age": "-3"}, "age must be at least the table's first age 20, got -3.0"),
    (
        {"id": "unknown", "age": "65", "table": "X"},
        "table is 'X', not one of ['S', 'makeham_20_120', 'makeham_13_110']",
    ),
    (
        {
            "id": "whole-life",
            "deferment": "2",
            "timing": "immediate",
            "benefit": "1200",
            "age": "70.5",
            "table": " makeham_13_110",
        },
        life("makeham_13_110", 70.5, "a", benefit=1200, d=2),
    ),
    (
        {"id": "late-select", "age": "65", "select_age": "66"},
        "select_age must be a whole age of the table not above the age 65.0, got 66.0",
    ),
    ({"id": "no-age", "term": "5", "table": "S"}, "table is given without an age, got 'S'"),
    ({"id": "no-age-select", "term": "5", "select_age": "60"}, "select_age is given without an age, got '60'"),
    (
        {"id": "growth", "growth": "0.02", "age": "65"},
        "growth is not available for life annuities (the record has an age), got '0.02'",
    ),
    (
        {"id": "selected", "term": "15", "shift": "3", "frequency": "4", "age": "60", "table": "S", "select_age": "58"},
        life("S", 60, select_age=58, n=15, m=4, ts=3),
    ),
    (
        {"id": "too-old", "age": "130", "table": "S"},
        "age 130.0 at valuation time 0.0 is beyond the table's last age 120",
    ),
    ({"id": "negative-term", "term": "-1", "age": "65"}, "term must be >= 0.0 and finite, got -1.0"),
    ({"id": "bundled", "term": "5", "age": "50", "table": "makeham_20_120"}, life("makeham_20_120", 50, n=5)),
    ({"id": "certain-imm", "term": "5", "timing": "immediate"}, closed(math.fsum(v(k) for k in range(1, 6)))),
]


def write_book(path):
    pd.DataFrame([record for record, _ in CASES]).fillna("").to_csv(path, index=False)
    return path


def select_csv(path):
    select = np.vstack([SELECT.select, np.full((len(Q) - 80, 2), np.nan)])
    pd.DataFrame({"age": np.arange(20, 121), "qx": Q, "select_0": select[:, 0], "select_1": select[:, 1]}).to_csv(
        path, index=False
    )
    return path


@pytest.mark.parametrize("kind", ["CSV file", "pandas frame of texts", "command line"])
def test_mixed_book_against_single_calls_and_closed_forms(tmp_path, kind):
    book = write_book(tmp_path / "book.csv")
    if kind == "command line":
        (tmp_path / "curve.json").write_text(CURVE.export("json"))
        args = ["--curve", str(tmp_path / "curve.json"), "--mortality", f"S={select_csv(tmp_path / 's.csv')}"]
        assert main(["--portfolio", str(book), *args, "--output", str(tmp_path / "v.csv"), "--quiet"]) == 0
        out = pd.read_csv(tmp_path / "v.csv", keep_default_na=False)
        values, errors = out["present_value"].astype(float), [e or None for e in out["error"]]
    else:
        source = book if kind == "CSV file" else pd.read_csv(book, dtype=str, keep_default_na=False)
        result = value_book(source, CURVE, tables={"S": SELECT})
        values, errors = result.present_value, result.error
    for (record, expected), value, error in zip(CASES, values, errors, strict=True):
        if isinstance(expected, str):
            assert math.isnan(value) and error == expected, record
        else:
            assert value == expected and error is None, record


@pytest.mark.parametrize("tables, error", [(["S"], TypeError), ({"S": Q}, TypeError), ({" S": SELECT}, ValueError)])
def test_bad_tables_are_refused_and_the_bundled_default_applies(tables, error):
    with pytest.raises(error):
        value_book({"age": [65]}, CURVE, tables=tables)
    assert value_book({"age": [65]}, CURVE).present_value[0] == life("makeham_20_120", 65)


def test_readme_life_examples(tmp_path, monkeypatch):
    text = (Path(__file__).resolve().parents[1] / "README.md").read_text(encoding="utf-8")
    (block,) = [b for b in re.findall(r"```python\n(.*?)```", text, re.S) if "life_values" in b]
    namespace: dict = {}
    exec(block, namespace)
    flat, male = InterestRate(0.03), bundled_table("makeham_20_120")
    due10 = closed(1000 * (1 - 1.03**-10) / (1 - 1 / 1.03))
    expected = [12000 * male.life(67).ä(flat, m=12), 6000 * male.rated(-3).life(61.5).ä(flat, n=20, m=12), due10]
    assert namespace["life_values"].present_value.tolist() == expected
    monkeypatch.chdir(tmp_path)  # the command line example, on the bundled tables written as CSV
    (tmp_path / "lives.csv").write_text(re.search(r"```csv\n(.*?)```", text, re.S).group(1))
    for name, table in (("male", male), ("female", bundled_table("makeham_13_110"))):
        pd.DataFrame({"age": np.arange(table.first_age, table.last_age + 1), "qx": table.qx}).to_csv(
            f"{name}.csv", index=False
        )
    (command,) = re.findall(r"^norvane value --portfolio lives.csv .*$", text, re.M)
    assert main(shlex.split(command)[1:]) == 0
    female = bundled_table("makeham_13_110")
    expected = [due10, 12000 * male.life(67).ä(flat, m=12), 6000 * female.life(64).ä(flat, m=12)]
    assert pd.read_csv("values.csv")["present_value"].tolist() == expected
