"""Expected cash flows against closed forms and brute-force sums written here: certain
annuities, pure endowments and insurances on a table of given q, flows that add up to
the values in every mode, grouping and buckets."""

import math

import numpy as np
import pytest

from norvane.cashflows import CashFlows, expected_flows
from norvane.config import Config
from norvane.interest_rates import InterestRate
from norvane.mortality import MortalityTable, bundled_table, life_annuities

MODES = ["discrete_precision", "discrete_simplified", "continuous_precision", "continuous_simplified"]
FLAT = InterestRate(0.04)
CURVE = InterestRate(terms=[5, 10], rates=[0.02, 0.03, 0.035])
Q = np.array([0.01, 0.02, 0.05, 0.1, 0.3, 1.0])  # ages 60..65
TABLE = MortalityTable(Q, first_age=60)
TABLES = {"T": TABLE, "M": bundled_table("makeham_20_120")}


def survival(k):
    return math.prod(1.0 - Q[:k])


@pytest.mark.parametrize("timing, first", [("due", 0), ("immediate", 1)])
def test_certain_annual_flows_are_the_payments_and_their_discount_factors(timing, first):
    flows = expected_flows(FLAT, n=10, d=2, benefits=100.0, timing=timing, horizon=15)
    times = np.arange(first, first + 10) + 2.0
    # A payment goes to the first bucket ending at or after it.
    expected = np.bincount(np.ceil(times).astype(int) - 1, weights=np.full(10, 100.0), minlength=15)
    present = np.bincount(np.ceil(times).astype(int) - 1, weights=100.0 * 1.04**-times, minlength=15)
    np.testing.assert_allclose(flows.total_expected, expected, rtol=1e-14)
    np.testing.assert_allclose(flows.total_discounted, present, rtol=1e-13)


def test_life_flows_are_survival_weighted_payments_and_deaths():
    annuity = expected_flows(FLAT, {"T": TABLE}, table="T", age=60, timing="immediate", horizon=6)
    np.testing.assert_allclose(annuity.total_expected, [survival(k) for k in range(1, 7)], rtol=1e-14)
    deaths = expected_flows(FLAT, {"T": TABLE}, table="T", age=60, benefit="insurance", horizon=6)
    died = [survival(k - 1) * Q[k - 1] for k in range(1, 7)]
    np.testing.assert_allclose(deaths.total_expected, died, rtol=1e-13)
    np.testing.assert_allclose(deaths.total_discounted, np.array(died) * 1.04 ** -np.arange(1.0, 7.0), rtol=1e-13)
    endowment = expected_flows(FLAT, {"T": TABLE}, table="T", age=60, n=3, benefit="pure_endowment", buckets=[2, 3, 4])
    np.testing.assert_allclose(endowment.total_expected, [0.0, survival(3), 0.0], atol=1e-16)


@pytest.mark.parametrize("mode", MODES)
def test_discounted_flows_add_up_to_the_values_by_group(mode):
    rng = np.random.default_rng(5)
    size = 400
    table = np.where(rng.random(size) < 0.5, "T", "M")
    age = np.where(table == "T", 60.0 + rng.integers(0, 4, size), rng.uniform(30, 90, size).round(2))
    terms = dict(
        n=np.where(rng.random(size) < 0.5, np.inf, rng.integers(1, 20, size)),
        d=rng.integers(0, 4, size).astype(float),
        ts=rng.integers(0, 2, size).astype(float),
        m=12,
        benefits=rng.uniform(1, 100, size),
        gr=0.02,
    )
    guarantee = np.where(table == "M", rng.integers(0, 6, size), 0).astype(float)
    with Config().override(calculation_mode=mode):
        values = life_annuities(CURVE, TABLES, table=table, age=age, guarantee=guarantee, **terms)
        flows = expected_flows(CURVE, TABLES, table=table, age=age, guarantee=guarantee, by=table, **terms)
        certain = CURVE.a(n=np.full(size, 7.5), d=1.0, m=4, benefits=terms["benefits"])
        certain_flows = expected_flows(
            CURVE, n=np.full(size, 7.5), d=1.0, m=4, benefits=terms["benefits"], timing="immediate"
        )
    assert flows.groups == ("M", "T")
    for row, name in enumerate(flows.groups):
        assert flows.discounted[row].sum() == pytest.approx(values[table == name].sum(), rel=1e-11)
    assert certain_flows.present_value == pytest.approx(certain.sum(), rel=1e-11)


def test_grouped_flows_add_up_and_convert_to_arrow():
    one = expected_flows(CURVE, TABLES, table=["T", "M"], age=[61, 70], benefits=[1.0, 2.0], by=["a", "b"], horizon=60)
    alone = [
        expected_flows(CURVE, TABLES, table=t, age=x, benefits=b, horizon=60)
        for t, x, b in (("T", 61, 1.0), ("M", 70, 2.0))
    ]
    np.testing.assert_allclose(one.expected[1], alone[1].total_expected, rtol=1e-15)
    summed = alone[0] + CashFlows(
        *(getattr(alone[1], k) for k in ("bucket_ends", "expected", "discounted", "discounted_times")), ("x",)
    )
    assert summed.groups == (None, "x") and summed.present_value == pytest.approx(one.present_value, rel=1e-14)
    table = one.to_arrow(by="product")
    assert table.column_names == ["product", "bucket_start", "bucket_end", "expected", "discounted"]
    assert table.num_rows == 2 * one.bucket_ends.size and table["product"][0].as_py() == "a"


@pytest.mark.parametrize(
    "kwargs, error, text",
    [
        (dict(buckets="weekly"), ValueError, "'buckets' must be 'annual', 'monthly'"),
        (dict(buckets=[1.0, 1.0]), ValueError, "strictly increasing"),
        (dict(buckets=[-1.0, 1.0]), ValueError, "from 0"),
        (dict(benefit="lapse"), ValueError, "'benefit' must be one of"),
        (dict(horizon=-1), ValueError, "'horizon' must be > 0"),
        (dict(age=None, table=None, tables=None, benefit="insurance"), ValueError, "certain annuities"),
        (dict(age=200), ValueError, "beyond the table's last age"),
        (dict(m=5), ValueError, "'m' must be one of"),
    ],
)
def test_bad_requests_are_refused(kwargs, error, text):
    given = dict(tables={"T": TABLE}, table="T", age=60) | kwargs
    with pytest.raises(error, match=text):
        expected_flows(FLAT, **given)


@pytest.mark.parametrize("mode", ["discrete_precision", "continuous_precision"])
def test_every_scenario_at_once_equals_each_valued_alone(mode):
    from norvane.cashflows import scenario_values

    box = InterestRate({f"s{k}": ([5, 10], [0.01 + 0.004 * k, 0.03, 0.04 - 0.002 * k]) for k in range(4)})
    rng = np.random.default_rng(11)
    size = 300
    book = dict(
        table=np.where(rng.random(size) < 0.5, "T", "M"),
        age=rng.integers(60, 64, size).astype(float),
        d=rng.integers(0, 5, size).astype(float),
        ts=rng.integers(0, 3, size).astype(float),
        m=12,
        benefits=rng.uniform(1, 100, size),
        spouse_age=np.where(rng.random(size) < 0.5, 61.0, np.nan),
        spouse_table="M",
        reversion=0.6,
    )
    certain = dict(
        n=rng.integers(1, 30, size).astype(float), d=book["d"], ts=book["ts"], m=4, benefits=book["benefits"]
    )
    with Config().override(calculation_mode=mode):
        lives, annuities = scenario_values(box, TABLES, **book), scenario_values(box, **certain)
        for name in box.scenario_names:
            alone = box.scenarios[name]
            assert lives[name] == pytest.approx(life_annuities(alone, TABLES, **book).sum(), rel=1e-12)
            assert annuities[name] == pytest.approx(alone.ä(**certain).sum(), rel=1e-12)
    assert list(lives) == box.scenario_names
