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


def test_a_continuous_flows_time_is_its_integral():
    """Constant force mu on a flat rate: the continuous annuity's discounted flow is e^(-kt),
    k = mu + delta, up to the table's end T, so its mean time is B/A with A = (1 - e^(-kT))/k
    and B = (1 - e^(-kT)(1 + kT))/k^2; the insurance pays mu e^(-kt) and, as the table closes,
    the survivors' e^(-kT) at T."""
    from norvane.mortality import constant_force

    mu, delta, horizon = 0.03, math.log(1.04), 100.0
    table = {"C": constant_force(mu).table(20, 120, fractional_age="constant_force")}
    k = mu + delta
    a = -math.expm1(-k * horizon) / k
    b = (1.0 - math.exp(-k * horizon) * (1.0 + k * horizon)) / k**2
    with Config().override(calculation_mode="continuous_precision"):
        annuity = expected_flows(FLAT, table, table="C", age=20, buckets=[200.0])
        insurance = expected_flows(FLAT, table, table="C", age=20, benefit="insurance", buckets=[200.0])
    assert annuity.times[0] == pytest.approx(b / a, rel=1e-10)
    closing = math.exp(-k * horizon)
    assert insurance.times[0] == pytest.approx((mu * b + horizon * closing) / (mu * a + closing), rel=1e-10)


@pytest.mark.parametrize(
    "change, text",
    [
        (dict(m=np.array([0.0])), "invalid policy"),
        (dict(group=np.array([np.nan])), "invalid policy or group"),
        (dict(m=np.array([0.5])), "invalid policy"),
        (dict(m=np.array([1e30])), "invalid policy"),
        (dict(d=np.array([-2.0])), "invalid policy"),
        (dict(timing=7), "timing must be 0 or 1"),
        (dict(groups=2**62, group=np.array([1.0])), "groups x buckets"),
        (dict(second=(np.zeros(1),)), "second must be"),
    ],
)
def test_the_flows_kernel_refuses_what_would_crash_it(change, text):
    from norvane import _kernels

    one = np.ones(1)
    arguments = (
        dict(
            tables=[],
            rules=[],
            names=[],
            rates=np.array([0.03]),
            terms=np.empty(0),
            ends=np.empty(0),
            table=np.zeros(1),
            age=np.zeros(1),
            select_age=np.zeros(1),
            n=10 * one,
            d=np.zeros(1),
            ts=np.zeros(1),
            m=one,
            benefits=None,
            group=np.zeros(1),
            groups=1,
            bucket_ends=np.array([1.0, 2.0]),
            second=None,
            status="single",
            benefit="annuity",
            timing=0,
            growth_kind="level",
            growth_rate=0.0,
            mode="discrete_precision",
            tolerance_eps=1e-12,
            perpetuity_n_eff=1000.0,
        )
        | change
    )
    with pytest.raises((ValueError, TypeError), match=text):
        _kernels.book_flows(**arguments)


def test_flows_edge_cases_found_in_review():
    # A pure endowment for life pays nothing and leaves every time finite.
    flows = expected_flows(FLAT, TABLES, table="T", age=[60, 61], n=[np.inf, 2.0], benefit="pure_endowment")
    assert np.isfinite(flows.discounted_times).all() and flows.present_value == pytest.approx(
        survival(3) / survival(1) * 1.04**-2, rel=1e-13
    )
    # A guarantee with neither growth nor benefits.
    guaranteed = expected_flows(FLAT, TABLES, table="M", age=[65.0, 70.0], n=20, m=12, guarantee=5)
    values = life_annuities(FLAT, TABLES, table="M", age=[65.0, 70.0], n=20, m=12, guarantee=5)
    assert guaranteed.present_value == pytest.approx(values.sum(), rel=1e-11)
    # Labels of several types stay apart.
    assert expected_flows(FLAT, n=[1.0, 2.0, 3.0], by=[1, "1", 2]).groups == (1, "1", 2)
    with pytest.raises(ValueError, match="apply to annuities"):
        expected_flows(FLAT, TABLES, table="T", age=60, benefit="insurance", guarantee=5)
    with pytest.raises(ValueError, match="more than the 1e"):
        expected_flows(FLAT, n=1e8, m=12)
