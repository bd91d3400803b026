"""Life contingencies against closed forms, published values and direct
NumPy sums on small tables."""

import math
import pickle
import re

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from reference import MODES, PRECISION, makeham_l

from norvane.config import Config
from norvane.growth_rates import GrowthRate
from norvane.interest_rates import InterestRate
from norvane.mortality import (
    JointLife,
    MortalityTable,
    TwoLives,
    bundled_table,
    constant_force,
    life_annuities,
    makeham,
)

RULES = ["udd", "constant_force", "balducci"]
TOL = 1e-9  # values are rounded to 10 decimals
I, MU = 0.04, 0.03
FLAT = InterestRate(I)
CF_TABLE = constant_force(MU).table(20, 100)
CURVE = InterestRate(terms=[3, 4, 5], rates=[0.02, 0.035, 0.03, 0.045])


@pytest.mark.parametrize(
    "name, law, rate, a65, A65",  # published values at 65
    [
        ("makeham_20_120", (0.00022, 2.7e-6, 1.124), 0.05, 13.5498, 0.35477),
        ("makeham_13_110", (0.0007, 5e-5, 10**0.04), 0.06, 9.8969, 0.43980),
    ],
)
def test_bundled_tables_match_the_law_and_published_values(name, law, rate, a65, A65):
    table, curve = bundled_table(name), InterestRate(rate)
    ages = np.arange(65, table.last_age + 1)
    l = makeham_l(*law, ages) / makeham_l(*law, 65.0)
    direct = np.sum(l * (1 + rate) ** -(ages - 65.0))
    life = table.life(65)
    assert life.ä(curve) == pytest.approx(direct, abs=TOL)
    assert round(life.ä(curve), 4) == a65 and round(life.A(curve), 5) == A65


@pytest.mark.parametrize("rule", RULES)
@pytest.mark.parametrize("m", [1, 4, 12])
def test_flat_curve_identities(rule, m):
    life = CF_TABLE.life(60.25, fractional_age=rule)
    d_m = m * (1 - (1 + I) ** (-1 / m))
    assert life.A(FLAT, m=m) == pytest.approx(1 - d_m * life.ä(FLAT, m=m), abs=TOL)
    assert life.A_endowment(FLAT, 10, m=m) == pytest.approx(1 - d_m * life.ä(FLAT, n=10, m=m), abs=TOL)
    assert life.ä(FLAT, m=m) - life.a(FLAT, m=m) == pytest.approx(1 / m, abs=TOL)
    with Config().override(calculation_mode="continuous_precision"):
        assert life.A(FLAT) == pytest.approx(1 - math.log1p(I) * life.ä(FLAT), abs=TOL)


def test_constant_force_is_a_certain_annuity_at_the_adjusted_rate():
    j = (1 + I) * math.exp(MU) - 1
    w, years = 1 / (1 + j), 101 - 60  # payments at ages 60 .. 100
    assert CF_TABLE.life(60).ä(FLAT) == pytest.approx((1 - w**years) / (1 - w), abs=TOL)
    # Monthly under a constant force: the force is infinite in the closing year.
    n = years - 1 + 1 / 12
    monthly = CF_TABLE.life(60, fractional_age="constant_force").ä(FLAT, m=12)
    assert monthly == pytest.approx((1 - w**n) / (12 * (1 - w ** (1 / 12))), abs=TOL)
    force = math.log1p(I) + MU
    with Config().override(calculation_mode="continuous_precision"):
        life = CF_TABLE.life(60, fractional_age="constant_force")
        assert life.ä(FLAT) == pytest.approx(-math.expm1(-force * (years - 1)) / force, abs=TOL)
        assert life.A(FLAT, n=10) == pytest.approx(MU / force * -math.expm1(-force * 10), abs=TOL)


@pytest.mark.parametrize("rule", ["udd", "constant_force"])
def test_life_expectancy_closed_forms(rule):
    """Constant force to age 100, where q = 1: e_60 = sum of e^(-mu k) for k = 1 .. 40; the
    complete one adds the integral within each year: 1/2 a year alive under UDD, and under
    constant force (1 - e^(-40 mu)) / mu with nothing lived in the closing year."""
    life = CF_TABLE.life(60, fractional_age=rule)
    curtate = math.fsum(math.exp(-MU * k) for k in range(1, 41))
    complete = curtate + 0.5 if rule == "udd" else -math.expm1(-40 * MU) / MU
    assert life.expectancy("curtate") == pytest.approx(curtate, abs=1e-12)
    assert life.expectancy() == pytest.approx(complete, abs=1e-12)
    # Seen 5 years on, alive: the life of age 65.
    assert life.expectancy(ts=5) == pytest.approx(CF_TABLE.life(65, fractional_age=rule).expectancy(), abs=1e-12)
    x, y = bundled_table("makeham_20_120").life(63), bundled_table("makeham_13_110").life(58.5)
    for kind in ("complete", "curtate"):
        joint, last = (JointLife(x, y, status=s).expectancy(kind) for s in ("joint", "last_survivor"))
        assert joint + last == pytest.approx(x.expectancy(kind) + y.expectancy(kind), abs=1e-11)


@pytest.mark.parametrize(
    "call, message",
    [
        (lambda life: life.expectancy("mean"), "'kind' must be 'complete' or 'curtate', got 'mean'"),
        (lambda life: life.expectancy(ts=-1.0), "'ts' must be >= 0.0 and finite, got -1.0"),
        (lambda life: life.expectancy(ts=50.0), "beyond the table's last age 100"),
    ],
)
def test_life_expectancy_refuses_what_it_cannot_value(call, message):
    with pytest.raises(ValueError, match=re.escape("[Life.expectancy] ") + ".*" + re.escape(message)):
        call(CF_TABLE.life(60))


@pytest.mark.parametrize("gr", [None, 0.02])
@pytest.mark.parametrize("guarantee, n", [(0.0, None), (5.0, None), (10.0, 25.0), (30.0, 12.0)])
def test_guaranteed_annuity_is_certain_then_life(guarantee, n, gr):
    """Annual due, by brute force here: the payment j years after the deferment is
    (1 + g)^j v^(d+j) times 1 in the guaranteed years, else the survival to d + j."""
    table, d = bundled_table("makeham_20_120"), 2.0
    life = table.life(60.5)
    last = int(table.last_age - 60.5 - d) + 1 if n is None else int(n)
    want = math.fsum(
        (1 + (gr or 0.0)) ** j * CURVE.vn(d + j) * (1.0 if j < guarantee else float(life.tpx(d + j)))
        for j in range(last)
    )
    assert life.ä(CURVE, n=n, d=d, gr=gr, guarantee=guarantee) == pytest.approx(want, abs=2e-10)
    if guarantee == 0.0:
        assert life.ä(CURVE, n=n, d=d, gr=gr, guarantee=guarantee) == life.ä(CURVE, n=n, d=d, gr=gr)


@pytest.mark.parametrize(
    "kwargs, message",
    [
        ({"guarantee": -1.0}, "'guarantee' must be >= 0.0 and finite, got -1.0"),
        ({"guarantee": math.nan}, "'guarantee' must be >= 0.0 and finite, got nan"),
        ({"guarantee": 5.0, "n": 10.0, "cashflow_amounts": np.ones(10)}, "cannot be combined with 'cashflow_amounts'"),
        ({"guarantee": 2.5}, "must be a whole number of payment periods (1/1 year), got 2.5"),
        (
            {"guarantee": 2.5, "m": 2, "gr": 0.02},
            "needs geometric growth and whole years, got geometric growth and 2.5",
        ),
        ({"guarantee": 5.0, "d": -1.0}, "'d'"),
    ],
)
def test_guarantee_refusals_are_named(kwargs, message):
    with pytest.raises(ValueError, match=re.escape("[Life.ä] ") + ".*" + re.escape(message)):
        CF_TABLE.life(60).ä(FLAT, **kwargs)


@pytest.mark.parametrize("gr", [None, 0.02, GrowthRate(0.01, "arithmetic")])
def test_guaranteed_book_equals_its_single_calls(gr):
    """Indexed and guaranteed books, every policy its single call (an arithmetic indexation
    cannot carry a guarantee: those policies are refused, each with its message)."""
    table = bundled_table("makeham_20_120")
    rng = np.random.default_rng(2)
    size = 300
    age = rng.integers(40, 95, size) + 0.5 * (rng.random(size) < 0.3)
    n = np.where(rng.random(size) < 0.3, np.inf, rng.integers(1, 30, size).astype(float))
    d, ts, k = (rng.integers(0, top, size).astype(float) for top in (5, 3, 12))
    benefits = rng.uniform(1.0, 100.0, size).round(2)
    arithmetic = isinstance(gr, GrowthRate)
    columns = {"table": "M", "age": age, "n": n, "d": d, "ts": ts, "m": 12, "gr": gr, "guarantee": k}
    for timing, method in (("due", "ä"), ("immediate", "a")):
        book = life_annuities(CURVE, {"M": table}, **columns, benefits=benefits, timing=timing, on_error="nan")
        for i in range(size):
            term = None if math.isinf(n[i]) else n[i]
            value = getattr(table.life(age[i]), method)
            if arithmetic and k[i]:
                assert math.isnan(book.values[i])
                with pytest.raises(ValueError, match="needs geometric growth and whole years"):
                    value(CURVE, n=term, d=d[i], ts=ts[i], m=12, gr=gr, guarantee=k[i])
                continue
            single = value(CURVE, n=term, d=d[i], ts=ts[i], m=12, gr=gr, guarantee=k[i])
            assert book.values[i] == single * benefits[i]
    if arithmetic:
        return
    k[3], n[5] = -1.0, -2.0  # each policy's own fault, worded with its given values; the others valued
    result = life_annuities(CURVE, {"M": table}, table="M", age=age, n=n, d=d, m=12, guarantee=k, on_error="nan")
    assert result.errors.invalid_indices.tolist() == [3, 5]
    assert (
        "'guarantee' must be >= 0.0, finite and a whole number of payment periods at index 3, got -1.0"
        in (result.errors.messages[0])
    )
    assert "'n' must be >= 0.0 and finite at index 5, got -2.0" in result.errors.messages[1]
    assert np.isnan(result.values).sum() == 2


@pytest.mark.parametrize(
    "both, x_alone, y_alone",
    [(1.0, 1.0, 0.6), (1.0, 0.0, 0.0), (1.0, 1.0, 1.0), (0.0, 0.0, 1.0), (2.0, 0.5, 1.5)],
)
def test_two_lives_pay_by_who_is_alive(both, x_alone, y_alone):
    """Annual due for life, by brute force here: at year k, v^k times the rule's amount
    weighted by the chances that both, only x or only y are alive (independent lives)."""
    x, y = bundled_table("makeham_20_120").life(66), bundled_table("makeham_13_110").life(61.5)
    years = np.arange(0, 60)
    px, py = x.tpx(years), y.tpx(years)
    paid = both * px * py + x_alone * px * (1 - py) + y_alone * py * (1 - px)
    want = math.fsum(CURVE.vn(years) * paid)
    pension = TwoLives(x, y, both=both, x_alone=x_alone, y_alone=y_alone)
    assert pension.ä(CURVE) == pytest.approx(want, abs=1e-9)
    assert pension.a(CURVE, n=10, m=4) == pytest.approx(
        x_alone * x.a(CURVE, n=10, m=4)
        + y_alone * y.a(CURVE, n=10, m=4)
        + (both - x_alone - y_alone) * JointLife(x, y).a(CURVE, n=10, m=4),
        abs=1e-9,
    )
    assert pickle.loads(pickle.dumps(pension)) == pension


@pytest.mark.parametrize(
    "build, error, message",
    [
        (lambda x: TwoLives(x, 65.0), TypeError, "'x' and 'y' must be Life objects"),
        (lambda x: TwoLives(x, x, y_alone=math.nan), ValueError, "'y_alone' must be finite, got nan"),
        (lambda x: TwoLives(x, x, both="1"), TypeError, "'both'"),
        (lambda x: TwoLives(x, x).ä(0.03), TypeError, "'curve' must be an InterestRate"),
    ],
)
def test_two_lives_refuse_what_they_cannot_value(build, error, message):
    with pytest.raises(error, match=re.escape(message)):
        build(CF_TABLE.life(60))


@pytest.mark.parametrize("mode", MODES)
def test_recursion_pure_endowment_and_two_lives(mode):
    table = bundled_table("makeham_20_120")
    x, y = table.life(63), bundled_table("makeham_13_110").life(58.5)
    with Config().override(calculation_mode=mode):
        for n in (20, None):  # for life, past the end of the shorter table (ages 110 and 120)
            joint, last = (JointLife(x, y, status=s).ä(CURVE, n=n, m=4) for s in ("joint", "last_survivor"))
            # Woolhouse's parts stop at each status's own last whole year (y's ends half-way through
            # one), so for life the identity holds to the approximation's order there, not exactly.
            tol = TOL if n is not None or mode in PRECISION else 1e-7
            assert joint + last == pytest.approx(x.ä(CURVE, n=n, m=4) + y.ä(CURVE, n=n, m=4), abs=tol)
        assert JointLife(x, y).E(CURVE, 7) == pytest.approx(x.E(CURVE, 7) * y.tpx(7), abs=1e-10)
    p63 = 1 - table.qx[63 - 20]
    assert x.ä(CURVE) == pytest.approx(1 + CURVE.vn(1) * p63 * table.life(64).ä(CURVE.shifted(1)), abs=TOL)
    assert x.E(CURVE, 12) == pytest.approx(CURVE.vn(12) * np.prod(1 - table.qx[43:55]), abs=1e-10)
    # Seen from ts = 3 the life is 66 and alive: 9 years of discount and survival are left.
    assert x.E(CURVE, 12, ts=3) == pytest.approx(CURVE.shifted(3).vn(9) * np.prod(1 - table.qx[46:55]), abs=1e-10)


def test_woolhouse_mode_is_the_two_term_formula():
    life, c = bundled_table("makeham_20_120").life(70), 11 / 24
    whole, temporary, e10 = life.ä(CURVE), life.ä(CURVE, n=10), life.E(CURVE, 10)
    with Config().override(calculation_mode="discrete_simplified"):
        assert life.ä(CURVE, m=12) == pytest.approx(whole - c, abs=TOL)
        assert life.ä(CURVE, n=10, m=12) == pytest.approx(temporary - c * (1 - e10), abs=TOL)


def test_fractional_age_rules():
    table = MortalityTable([0.1, 0.2, 1.0], first_age=50)
    ages, t = np.array([50.0, 50.0, 51.0]), np.array([1.0, 2.0, 1.0])
    by_rule = {rule: table.tpx(ages, t, fractional_age=rule) for rule in RULES}
    assert all(np.array_equal(v, by_rule["udd"]) for v in by_rule.values())  # integer ages agree
    np.testing.assert_allclose(by_rule["udd"], [0.9, 0.72, 0.8], rtol=1e-15)
    q = 0.2  # half a year from 51.25 to 51.75
    expected = {
        "udd": (1 - 0.75 * q) / (1 - 0.25 * q),
        "constant_force": (1 - q) ** 0.5,
        "balducci": (1 - q) / (1 - 0.25 * q) * (1 - 0.75 * q) / (1 - q),
    }
    for rule, value in expected.items():
        assert table.tpx(51.25, 0.5, fractional_age=rule) == pytest.approx(value, rel=1e-15)
    life_values = {rule: table.life(50, fractional_age=rule).ä(FLAT) for rule in RULES}
    assert len(set(life_values.values())) == 1


@given(
    st.floats(20, 110.99),
    st.lists(st.floats(0, 120), min_size=2, max_size=6),
    st.sampled_from(RULES),
    st.sampled_from(["makeham_20_120", "makeham_13_110"]),
)
def test_survival_is_a_probability_falling_with_time(age, durations, rule, name):
    table = bundled_table(name)
    if rule != "udd" and age >= table.last_age or age > table.last_age + 0.99:
        return  # nobody reaches these ages under this rule or table
    t = np.sort(np.array(durations))
    p = table.tpx(age, t, fractional_age=rule)
    assert np.all((p >= 0) & (p <= 1)) and np.all(np.diff(p) <= 1e-15) and (t[0] > 0 or p[0] == 1.0)


def test_select_tables_and_adjustments():
    ultimate = bundled_table("makeham_13_110")
    q = ultimate.qx
    empty = MortalityTable(q, first_age=13, select=np.empty((5, 0)))
    assert empty == ultimate and empty.life(40).ä(CURVE) == ultimate.life(40).ä(CURVE)
    select = 0.5 * np.column_stack([q[:80], q[1:81]])  # q_[x] and q_[x]+1 at half the ultimate rates
    table = MortalityTable(q, first_age=13, select=select)
    v = 1 / 1.03
    l = np.cumprod(np.r_[1.0, 1 - select[40 - 13], 1 - q[42 - 13 : -1]])
    assert table.life(40).ä(FLAT.__class__(0.03)) == pytest.approx(np.sum(l * v ** np.arange(l.size)), abs=TOL)
    assert table.life(45, select_age=40).ä(CURVE) == ultimate.life(45).ä(CURVE)  # past the select period
    scaled = ultimate.scaled(0.9)
    assert np.array_equal(scaled.qx[:-1], 0.9 * q[:-1]) and scaled.qx[-1] == 1.0
    assert ultimate.rated(3).life(60).ä(CURVE) == ultimate.life(63).ä(CURVE)


def test_curves_valuation_time_and_explicit_amounts():
    life = bundled_table("makeham_20_120").life(60)
    book = InterestRate({"base": 0.02, "stress": ([3, 4, 5], [0.02, 0.035, 0.03, 0.045])})
    book.active_scenario = "stress"
    assert life.ä(book, n=20, m=12) == life.ä(CURVE, n=20, m=12)
    assert life.ä(CURVE, n=20, d=2, ts=5, m=12) == pytest.approx(
        bundled_table("makeham_20_120").life(65).ä(CURVE.shifted(5), n=17, m=12), abs=1e-9
    )
    amounts = 100 * 1.02 ** np.arange(15)
    assert life.ä(CURVE, n=15, cashflow_amounts=amounts) == pytest.approx(100 * life.ä(CURVE, n=15, gr=0.02), abs=1e-7)


@pytest.mark.parametrize(
    "make, change",
    [
        (lambda: InterestRate(0.02), lambda ir: setattr(ir, "rate", 0.05)),
        (lambda: InterestRate(terms=[3, 4, 5], rates=[0.02] * 4), lambda ir: setattr(ir, "rates", [0.05] * 4)),
        (
            lambda: InterestRate({"base": 0.02, "stress": 0.05}),
            lambda ir: setattr(ir, "active_scenario", "stress"),
        ),
    ],
)
def test_a_changed_curve_values_lives_on_its_new_rates(make, change):
    # Lives valued on a curve keep their running sums with it: a change must drop them.
    life, curve = bundled_table("makeham_20_120").life(60), make()
    calls = [lambda c: life.ä(c, m=12), lambda c: life.a(c, n=10, ts=2), lambda c: life.A(c, n=5)]
    before = [call(curve) for call in calls]
    change(curve)
    assert [call(curve) for call in calls] == [call(InterestRate(0.05)) for call in calls] != before


def test_portfolio_equals_single_lives_and_reports_errors():
    rng = np.random.default_rng(7)
    tables = {"M": bundled_table("makeham_20_120"), "F": bundled_table("makeham_13_110").scaled(0.8)}
    size = 60
    policies = dict(
        table=rng.choice(["M", "F"], size),
        age=np.round(rng.uniform(20, 95, size), 2),
        n=np.where(rng.random(size) < 0.2, np.inf, rng.integers(1, 40, size) + 0.5 * rng.integers(0, 2, size)),
        d=rng.integers(0, 10, size).astype(float),
        ts=rng.choice([0.0, 1.5, 3.0], size),
        m=rng.choice([1, 4, 12], size),
    )
    for mode in MODES:
        with Config().override(calculation_mode=mode):
            values = life_annuities(CURVE, tables, **policies, benefits=np.full(size, 2.0))
            for k, (name, age, n, d, ts, m) in enumerate(zip(*policies.values())):
                single = tables[name].life(age).ä(CURVE, n=None if np.isinf(n) else n, d=d, m=int(m), ts=ts)
                assert values[k] == 2.0 * single
    bad = life_annuities(
        CURVE, tables, table=["M", "X", "M", "F"], age=[60, 60, 130, 60], n=[10, 10, 10, -1], on_error="nan"
    )
    assert np.isnan(bad.values[1:]).all() and bad.values[0] == tables["M"].life(60).ä(CURVE, n=10)
    assert [re.search(r"'(\w+)'", m).group(1) for m in bad.errors.messages] == ["table", "age", "n"]
    with pytest.raises(ValueError, match=r"\[life_annuities\] 'table' at index 1 is 'X'"):
        life_annuities(CURVE, tables, table=["M", "X"], age=60)
    assert life_annuities(CURVE, tables, table=[], age=[]).shape == (0,)  # an empty book is no fault


@pytest.mark.parametrize("m", [1, 12])
def test_whole_age_book_equals_closed_form_and_single_calls(m):
    # Constant q at a constant force: an annuity-due at a whole age is a geometric series in
    # ((1 - q) / (1 + i))^(1/m), after a deferment and for a term left at ts = 1.
    q = 0.02
    level = MortalityTable([q] * 79 + [1.0], first_age=20).with_fractional_age("constant_force")
    tables = {"Level": level, "M": bundled_table("makeham_20_120")}
    size = 40_000  # more than one block per core
    rng = np.random.default_rng(3)
    names = np.where(rng.random(size) < 0.5, "Level", "M")  # texts wider than one character
    age = rng.integers(20, 60, size)
    n = rng.integers(1, 20, size).astype(np.int32)
    d = rng.integers(0, 5, size)
    values = life_annuities(FLAT, tables, table=names, age=age, n=n, d=d, ts=1, m=m)
    step = ((1 - q) / (1 + I)) ** (1 / m)
    deferment, term = np.maximum(d - 1, 0), n - np.maximum(1 - d, 0)
    closed = step ** (m * deferment) * (1 - step ** (m * term)) / (1 - step) / m
    on_level = names == "Level"
    np.testing.assert_allclose(values[on_level], closed[on_level], rtol=1e-9, atol=1e-10)
    for k in rng.choice(size, 200, replace=False).tolist():
        assert values[k] == tables[names[k]].life(float(age[k])).ä(FLAT, n=int(n[k]), d=int(d[k]), ts=1, m=m)


def test_whole_age_book_equals_single_calls_in_the_last_digits_kept():
    # Daily payments over decades and 12 decimals: the sums' last bits decide many a rounding,
    # so a book that summed any other way than its single calls (a compensation dropped, say)
    # would differ in some values.
    tables = {"M": bundled_table("makeham_20_120"), "F": bundled_table("makeham_13_110")}
    rng = np.random.default_rng(8)
    size = 4000
    names, age = rng.choice(["M", "F"], size), rng.integers(20, 90, size).astype(float)
    n, d = rng.integers(1, 40, size).astype(float), rng.integers(0, 10, size).astype(float)
    with Config().override(decimals={"annuities": 12}):
        values = life_annuities(CURVE, tables, table=names, age=age, n=n, d=d, m=365)
        singles = [tables[t].life(x).ä(CURVE, n=k, d=j, m=365) for t, x, k, j in zip(names, age, n, d)]
    assert values.tolist() == singles


@pytest.mark.parametrize(
    "policy",
    [
        dict(n=np.inf),  # for life: off the vectorised pass, the single call's route on its grid
        dict(n=2.4),  # a pro-rata last payment
        dict(age=110.0, n=30.0),  # beyond the table's last age: the grid's sums stop growing
        dict(age=60.5),  # between birthdays: the general route
        dict(table="M", select_age=58.0),  # selected earlier: the general route
        dict(d=2.1),  # a deferment off the payment grid: the general route
        dict(d=2.1, n=np.inf),
    ],
)
@pytest.mark.parametrize("gr", [None, 0.02])  # indexed: the grids weigh each year's growth
def test_whole_age_book_routes_agree_with_single_calls(policy, gr):
    tables = {"M": bundled_table("makeham_20_120"), "F": bundled_table("makeham_13_110")}
    book = dict(table=["F", "M", "F"], age=[40.0, 61.0, 75.0], n=[10.0, 20.0, 5.0], select_age=[np.nan] * 3)
    book["d"] = [0.0, 2.0, 1.0]
    for column, value in policy.items():
        book[column][1] = value
    values = life_annuities(CURVE, tables, **book, m=4, gr=gr)
    for k, name in enumerate(book["table"]):
        select = book["select_age"][k]
        life = tables[name].life(book["age"][k], select_age=None if np.isnan(select) else select)
        n = book["n"][k]
        assert values[k] == life.ä(CURVE, n=None if np.isinf(n) else n, d=book["d"][k], m=4, gr=gr)


@pytest.mark.parametrize(
    "table, message",
    [
        (np.array(["M", "Male"]), "'table' at index 1 is 'Male'"),  # longer than every name of that width
        (np.array(["M", ""]), "'table' at index 1 is ''"),
        (np.array(["M", None], dtype=object), "'table' at index 1 is missing"),
    ],
)
def test_book_table_names_are_matched_whole(table, message):
    tables = {"M": bundled_table("makeham_20_120"), "Ma": bundled_table("makeham_13_110")}
    with pytest.raises(ValueError, match=re.escape(message)):
        life_annuities(CURVE, tables, table=table, age=60)


@pytest.mark.parametrize(
    "build, message",
    [
        (lambda: MortalityTable([0.1, 1.2, 1.0], first_age=30), r"q at age 31 must be in \[0, 1\]"),
        (lambda: MortalityTable([0.1, 0.2], first_age=30), r"q at the last age 31 must be 1"),
        (lambda: MortalityTable([0.1, 0.2, 1], first_age=30, select=[[0.1], [-1]]), r"select q\[31\]\+0 must be in"),
        (lambda: MortalityTable([0.1, 0.2, 0.3], first_age=30, closing_age=35), "'closing_age' 35 is outside"),
        (lambda: CF_TABLE.life(101), "beyond the table's last age 100"),
        (lambda: CF_TABLE.life(19), "at least the table's first age 20"),
        (lambda: CF_TABLE.life(50, fractional_age="linear"), "'fractional_age' must be one of"),
        (
            lambda: CF_TABLE.life(90).ä(FLAT, ts=20),
            r"\[Life.ä\] .age. 90.0 at valuation time 20.0 is beyond the table.s last age 100",
        ),
        (lambda: CF_TABLE.life(50).ä(FLAT, n=-1), "'n'"),
        (lambda: CF_TABLE.life(50).ä(FLAT, n=1e300, m=12), r"\[Life.ä\] 'n' must hold fewer than 2\*\*53 payments"),
        (lambda: makeham(0.001, -1e-5, 1.1), "B >= 0"),
    ],
)
def test_bad_input_is_named(build, message):
    with pytest.raises(ValueError, match=message):
        build()


def test_csv_value_semantics_and_pickling(tmp_path):
    path = tmp_path / "select.csv"
    path.write_text("Age,select_0,select_1,qx\n60,0.01,0.02,0.03\n61,0.015,0.025,0.04\n62,,,0.05\n63,,,1\n")
    table = MortalityTable.from_csv(path)
    assert table == MortalityTable(
        [0.03, 0.04, 0.05, 1.0], first_age=60, select=[[0.01, 0.02], [0.015, 0.025]], select_first_age=60
    )
    assert table.life(60).tpx(3) == pytest.approx(0.99 * 0.98 * 0.95)
    assert pickle.loads(pickle.dumps(table)) == table and hash(table.rated(0)) == hash(table)
    joint = JointLife(table.life(61), table.life(60))
    assert pickle.loads(pickle.dumps(joint)).ä(FLAT) == joint.ä(FLAT)
    with pytest.raises(AttributeError):
        table._qx = None
    path.write_text("age,qx\n60,0.1\n62,1\n")
    with pytest.raises(ValueError, match="62.0 follows 60.0"):
        MortalityTable.from_csv(path)


@pytest.mark.parametrize(
    "kwargs",
    [
        dict(n=5, gr=0.02, cashflow_amounts=[1.0] * 5),
        dict(n=5, m=7),
        dict(n=-1.0),
        dict(n=5, d=float("nan")),
        dict(n=1e16, m=12),
    ],
)
def test_certain_and_life_calls_word_a_fault_alike(kwargs):
    """One owner per input rule: the same fault gets the same message on both routes."""
    with pytest.raises(ValueError) as certain:
        FLAT.ä(**kwargs)
    with pytest.raises(ValueError) as life:
        CF_TABLE.life(40).ä(FLAT, **kwargs)
    assert str(certain.value).split("] ", 1)[1] == str(life.value).split("] ", 1)[1]


def test_books_of_both_kinds_check_their_lengths_alike():
    tables = {"M": bundled_table("makeham_20_120")}
    with pytest.raises(ValueError, match=r"\[life_annuities\] Incompatible batch lengths: table=1, age=2, n=3, d=1"):
        life_annuities(FLAT, tables, table="M", age=[60, 61], n=[1, 2, 3])
    assert FLAT.ä(n=[]).shape == life_annuities(FLAT, tables, table="M", age=[]).shape == (0,)
