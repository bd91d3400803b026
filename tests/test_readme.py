"""The README's examples run as written, and what they claim holds (closed forms, single-life calls)."""

import re
import shlex
from pathlib import Path

import numpy as np
import pandas as pd
import pytest
from reference import makeham_l, table_csv

from norvane.cli import main
from norvane.interest_rates import InterestRate
from norvane.mortality import bundled_table

README = Path(__file__).resolve().parents[1] / "README.md"


def test_readme_examples(tmp_path, monkeypatch):
    text = README.read_text(encoding="utf-8")
    ns: dict = {}
    for block in re.findall(r"```python\n(.*?)```", text, re.S):
        if not block.startswith("# (needs a running Dask cluster)"):  # the Dask tests run that path
            exec(compile(block, str(README), "exec"), ns)
    flat, curve, v = InterestRate(0.03), ns["curve"], 1 / 1.03
    assert abs(ns["flat"].ä(n=5) - (1 - v**5) / (1 - v)) < 1e-9
    assert curve.vn(7.5) == curve.vn([7.5])[0] and abs(curve.vn(7.5) - 1.02**-5 * 1.03**-2.5) < 1e-15
    assert ns["InterestRate"].from_export(ns["payload"]) == curve
    l = makeham_l(0.00022, 2.7e-6, 1.124, np.arange(65.0, 75.0))
    assert ns["temporary"] == pytest.approx(np.sum(l / l[0] * v ** np.arange(10)), abs=1e-9)
    assert ns["life"].A(flat) == pytest.approx(1 - (1 - v) * ns["life"].ä(flat), abs=1e-9)
    male, female = bundled_table("makeham_20_120"), bundled_table("makeham_13_110")
    certain = pytest.approx(1000 * (1 - v**10) / (1 - v), rel=1e-10)
    first = [12000 * male.life(67).ä(flat, m=12), 6000 * male.rated(-3).life(61.5).ä(flat, n=20, m=12), certain]
    assert ns["life_values"].present_value.tolist() == first
    # Market curves: a life book's sensitivities and its scenarios, against revaluations.
    market, pensions, bundled = ns["market"], ns["pensions"], ns["bundled"]
    life_annuities = ns["life_annuities"]
    assert ns["life_risk"].present_value == pytest.approx(life_annuities(market, bundled, **pensions).sum(), rel=1e-12)
    down = ns["InterestRate"](terms=market.terms, rates=np.asarray(market.rates) - 0.01)
    assert ns["at_once"]["down 100 bp"] == pytest.approx(life_annuities(down, bundled, **pensions).sum(), rel=1e-12)
    # The sample scheme: every member valued, the flows adding up to the values, a reversion's
    # member as the composition of single calls on the cohorts' tables.
    values, flows = ns["scheme_values"], ns["scheme_flows"]
    assert values.summary().valued == 500 and flows.present_value == pytest.approx(
        values.present_value.sum(), rel=1e-12
    )
    row = ns["members"].iloc[1]  # a pensioner with a guarantee and a spouse
    tables = ns["scheme_tables"]
    x = tables[row.table].life(row.age, year=2026)
    y = tables[row.spouse_table].life(row.spouse_age, year=2026)
    alone = x.ä(flat, m=12, gr=0.02, guarantee=row.guarantee)
    reversion = y.ä(flat, m=12, gr=0.02) - ns["JointLife"](x, y).ä(flat, m=12, gr=0.02)
    assert values.present_value[1] == pytest.approx(row.benefit * (alone + row.reversion * reversion), abs=1e-5)
    # Pension forms: the guarantee's and the reversion's compositions, the scheme's single calls.
    member, spouse = ns["member"], ns["spouse"]
    guaranteed = flat.ä(n=5, m=12, gr=0.02) + 1.02**5 * member.ä(flat, d=5, m=12, gr=0.02)
    assert ns["pension"] == pytest.approx(guaranteed, abs=1e-9)
    joint = ns["JointLife"](member, spouse).ä(flat, m=12)
    assert ns["with_reversion"] == pytest.approx(member.ä(flat, m=12) + 0.6 * (spouse.ä(flat, m=12) - joint), abs=1e-9)
    assert ns["scheme"][0] == 12000 * ns["pension"]
    # Market curves: exact at the published rates; key-rate DV01s add up to the DV01.
    np.testing.assert_allclose(ns["zero_rates"](ns["market"], ns["tenors"]), ns["published"], rtol=1e-12)
    assert ns["risk"].key_rate_dv01.sum() == pytest.approx(ns["risk"].dv01, rel=1e-12)
    monkeypatch.chdir(tmp_path)  # the command line example, on the bundled tables written as CSV
    Path("lives.csv").write_text(re.search(r"```csv\n(.*?)```", text, re.S).group(1))
    table_csv(male, "male.csv")
    table_csv(female, "female.csv")
    (command,) = re.findall(r"^norvane value --portfolio lives.csv .*$", text, re.M)
    assert main(shlex.split(command)[1:]) == 0
    second = [certain, 12000 * male.life(67).ä(flat, m=12), 6000 * female.life(64).ä(flat, m=12)]
    assert pd.read_csv("values.csv")["present_value"].tolist() == second
