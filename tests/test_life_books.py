"""Books mixing certain and life annuities: each life value equals the single-life call, each
certain value its closed form, each bad life cell its message, through value_book and the CLI."""

import math

import numpy as np
import pandas as pd
import pytest
from reference import table_csv

from norvane.cli import main
from norvane.interest_rates import InterestRate
from norvane.mortality import MortalityTable, bundled_table, makeham
from norvane.portfolio import value_book

CURVE = InterestRate(terms=[5, 10], rates=[0.02, 0.03, 0.035])
Q = np.append(makeham(0.00022, 2.7e-6, 1.124).qx(np.arange(20, 120)), 1.0)
SELECT = MortalityTable(Q, first_age=20, select=np.column_stack([0.6 * Q[:80], 0.8 * Q[1:81]]))
TABLES = {"S": SELECT, "M13": bundled_table("makeham_13_110"), "M20": bundled_table("makeham_20_120")}


def v(t):
    return 1.02 ** -min(t, 5) * 1.03 ** -min(max(t - 5, 0), 5) * 1.035 ** -max(t - 10, 0)


def closed(value):
    return pytest.approx(value, rel=1e-10)  # values are rounded to 10 decimals per unit


def life(name, age, method="ä", select_age=None, benefit=1.0, **kw):
    return benefit * getattr(TABLES[name].life(age, select_age=select_age), method)(CURVE, **kw)


HEADER = "id,term,deferment,shift,frequency,timing,growth,benefit,age,table,select_age"
# (record, its single-life value (exactly), closed form or message): bad life cells between good records.
CASES = [
    ("certain,10,,,,,,100,,,", closed(100 * math.fsum(v(k) for k in range(10)))),
    ("default,10,,,12,,,,65,,", life("S", 65, n=10, m=12)),  # the first given table
    ("text-age,5,,,,,,,abc,,", "age is not a number, got 'abc'"),
    ("negative-age,5,,,,,,,-3,,", "age must be at least the table's first age 20, got -3.0"),
    ("unknown,,,,,,,,65,X,", "table is 'X', not one of ['S', 'makeham_20_120', 'makeham_13_110']"),
    ("whole-life,,2,,,immediate,,1200,70.5, makeham_13_110,", life("M13", 70.5, "a", benefit=1200, d=2)),
    ("late-select,,,,,,,,65,,66", "select_age must be a whole age of the table not above the age 65.0, got 66.0"),
    ("no-age,5,,,,,,,,S,", "table is given without an age, got 'S'"),
    ("no-age-select,5,,,,,,,,,60", "select_age is given without an age, got '60'"),
    ("growth,,,,,,0.02,,65,,", life("S", 65, gr=0.02)),
    ("another-rate,,,,,,0.01,,65,,", life("S", 65, gr=0.01)),
    ("selected,15,,3,4,,,,60,S,58", life("S", 60, select_age=58, n=15, m=4, ts=3)),
    ("too-old,,,,,,,,130,S,", "age 130.0 at valuation time 0.0 is beyond the table's last age 120"),
    ("negative-term,-1,,,,,,,65,,", "term must be >= 0.0 and finite, got -1.0"),
    (
        "two-faults,5,-2,nan,,,,,65,,",
        "deferment must be >= 0.0 and finite, got -2.0; shift must be >= 0.0 and finite, got nan",
    ),
    ("bundled,5,,,,,,,50,makeham_20_120,", life("M20", 50, n=5)),
    ("certain-imm,5,,,,immediate,,,,,", closed(math.fsum(v(k) for k in range(1, 6)))),
]


@pytest.mark.parametrize("kind", ["CSV file", "pandas frame of texts", "command line"])
def test_mixed_book_against_single_calls_and_closed_forms(tmp_path, kind):
    book = tmp_path / "book.csv"
    book.write_text("\n".join([HEADER, *(line for line, _ in CASES)]) + "\n")
    if kind == "command line":
        (tmp_path / "curve.json").write_text(CURVE.export("json"))
        table_csv(SELECT, tmp_path / "s.csv")
        args = ["--curve", str(tmp_path / "curve.json"), "--mortality", f"S={tmp_path / 's.csv'}", "--quiet"]
        assert main(["--portfolio", str(book), *args, "--output", str(tmp_path / "v.csv")]) == 0
        out = pd.read_csv(tmp_path / "v.csv", keep_default_na=False)
        values, errors = out["present_value"].astype(float), [e or None for e in out["error"]]
    else:
        source = book if kind == "CSV file" else pd.read_csv(book, dtype=str, keep_default_na=False)
        result = value_book(source, CURVE, tables={"S": SELECT})
        values, errors = result.present_value, result.error
    for (line, expected), value, error in zip(CASES, values, errors, strict=True):
        if isinstance(expected, str):
            assert math.isnan(value) and error == expected, line
        else:
            assert value == expected and error is None, line


@pytest.mark.parametrize("tables, error", [(["S"], TypeError), ({"S": Q}, TypeError), ({" S": SELECT}, ValueError)])
def test_bad_tables_are_refused_and_the_bundled_default_applies(tables, error):
    with pytest.raises(error):
        value_book({"age": [65]}, CURVE, tables=tables)
    assert value_book({"age": [65]}, CURVE).present_value[0] == life("M20", 65)


def test_generational_and_guaranteed_records():
    """Records on a generational table follow the cohort of their "year"; a "guarantee" makes its
    first years of payments certain; each record as its single call, or its own message."""
    generational = bundled_table("makeham_20_120").with_improvement(0.01, base_year=2020)
    book = {
        "age": [65, 65, 70, None, 60],
        "year": [2025, None, 2030, 2025, 2021],
        "table": ["G", "G", "M20", None, "G"],
        "guarantee": [5, None, 10, None, 2.5],
        "term": [None, None, 15, 10, None],
        "frequency": [12, 12, 1, 1, 1],
    }
    result = value_book(book, CURVE, tables={"G": generational, "M20": TABLES["M20"]})
    assert result.present_value[0] == generational.life(65, year=2025).ä(CURVE, m=12, guarantee=5)
    assert result.present_value[2] == life("M20", 70, n=15, guarantee=10)
    assert list(result.error) == [
        None,
        "year is needed for a generational table",
        None,
        "year is given without an age, got 2025",
        "guarantee must be >= 0.0, finite and a whole number of payment periods, got 2.5",
    ]
