"""Generational mortality: improvement scales on a base table, against brute-force products
written here, and books of cohorts against their single lives."""

import math
import pickle

import numpy as np
import pytest

from norvane.interest_rates import InterestRate
from norvane.mortality import GenerationalTable, ImprovementScale, MortalityTable, bundled_table, life_annuities

BASE = bundled_table("makeham_20_120")
CURVE = InterestRate(terms=[3, 4, 5], rates=[0.02, 0.035, 0.03, 0.045])


def brute_q(base, rate_of, base_year, age, year):
    """q(age, year) by the definition: the base rate times (1 - AI) for each year after the base
    year up to ``year``, or divided by them for the years down from the base year."""
    factor = 1.0
    for s in range(base_year + 1, year + 1):
        factor *= 1.0 - rate_of(age, s)
    for s in range(year + 1, base_year + 1):
        factor /= 1.0 - rate_of(age, s)
    return min(base.qx[age - base.first_age] * factor, 1.0)


def scale_2d(tmp_path):
    """A two-dimensional scale written as CSV (ages down, years across), read back."""
    ages, years = np.arange(20, 111), np.arange(2015, 2031)
    rates = 0.02 - 0.0001 * (ages[:, None] - 20) + 0.0005 * (years[None, :] - 2015)
    lines = ["age," + ",".join(map(str, years))]
    lines += [f"{a}," + ",".join(f"{r:.6f}" for r in row) for a, row in zip(ages, rates)]
    path = tmp_path / "scale.csv"
    path.write_text("\n".join(lines) + "\n")

    def rate_of(age, year):
        row = np.clip(age - 20, 0, ages.size - 1)
        return 0.005 if year > years[-1] else float(np.round(rates[row, max(year - 2015, 0)], 6))

    return ImprovementScale.from_csv(path, long_term_rate=0.005), rate_of


@pytest.mark.parametrize("kind", ["none", "constant", "by age", "by age and year"])
def test_period_and_cohort_rates_follow_the_definition(kind, tmp_path):
    by_age = 0.01 + 0.0002 * np.arange(80)  # ages 30 to 109; older ages take the last
    scale, rate_of = {
        "none": (0.0, lambda a, s: 0.0),
        "constant": (0.012, lambda a, s: 0.012),
        "by age": (
            ImprovementScale(by_age, first_age=30),
            lambda a, s: by_age[min(max(a - 30, 0), by_age.size - 1)],
        ),
        "by age and year": scale_2d(tmp_path),
    }[kind]
    table = BASE.with_improvement(scale, base_year=2020)
    ages = range(BASE.first_age, BASE.last_age)  # the closing age keeps q = 1
    for year in (2005, 2020, 2033):
        want = [brute_q(BASE, rate_of, 2020, a, year) for a in ages]
        np.testing.assert_allclose(table.period(year).qx[:-1], want, rtol=1e-13)
    cohort = table.cohort(1961)  # age a in year 1961 + a
    want = [brute_q(BASE, rate_of, 2020, a, 1961 + a) for a in ages]
    np.testing.assert_allclose(cohort.qx[:-1], want, rtol=1e-13)
    assert cohort.qx[-1] == 1.0
    if kind == "none":
        assert table.period(2040) == BASE and table.cohort(1900) == BASE


def test_a_life_follows_its_cohort():
    """ä of a life aged 65.5 in 2025 equals ä on a table built here from the cohort's rates
    (age a lived in year 2025 + a - 65) and, improvement 0, the base table's ä."""
    rate = 0.015
    table = BASE.with_improvement(rate, base_year=2018)
    ages = np.arange(BASE.first_age, BASE.last_age + 1)
    q = np.minimum(BASE.qx * (1 - rate) ** (2025 + ages - 65 - 2018), 1.0)
    q[-1] = 1.0
    by_hand = MortalityTable(q, first_age=BASE.first_age)
    for n in (10.0, None):
        assert table.life(65.5, year=2025).ä(CURVE, n=n, m=12) == by_hand.life(65.5).ä(CURVE, n=n, m=12)
    assert table.tpx(65.5, 7.25, year=2025) == pytest.approx(by_hand.tpx(65.5, 7.25), rel=1e-14)
    flat = BASE.with_improvement(0.0, base_year=2018)
    assert flat.life(70, year=2050).a(CURVE, m=4) == BASE.life(70).a(CURVE, m=4)
    later = table.life(65, year=2035).ä(CURVE)
    assert later > table.life(65, year=2025).ä(CURVE)  # improved mortality: longer lives


def test_select_rates_improve_by_attained_age():
    select = np.array([[0.001, 0.002], [0.0015, 0.0025]])  # select ages 40 and 41, two years
    base = MortalityTable(BASE.qx, first_age=20, select=select, select_first_age=40)
    cohort = base.with_improvement(0.02, base_year=2000).cohort(1970)
    attained = 40 + np.add.outer(np.arange(2), np.arange(2))
    np.testing.assert_allclose(cohort.select, select * 0.98 ** (1970 + attained - 2000), rtol=1e-13)


def test_book_of_cohorts_equals_its_single_lives():
    generational = BASE.with_improvement(0.01, base_year=2020)
    other = bundled_table("makeham_13_110")
    rng = np.random.default_rng(3)
    size = 600
    age = rng.integers(20, 100, size).astype(float)
    age[::5] += 0.25
    year = rng.integers(1990, 2050, size)
    names = np.where(rng.random(size) < 0.6, "G", "P")
    n, d = rng.integers(1, 30, size).astype(float), rng.integers(0, 4, size).astype(float)
    values = life_annuities(CURVE, {"G": generational, "P": other}, table=names, age=age, n=n, d=d, m=4, year=year)
    for i in range(size):
        life = generational.life(age[i], year=int(year[i])) if names[i] == "G" else other.life(age[i])
        assert values[i] == life.ä(CURVE, n=n[i], d=d[i], m=4)


@pytest.mark.parametrize(
    "year, message",
    [
        (None, "'year' is needed for a generational table at index 0"),
        ([2020.5, 2020], "'year' must be a whole calendar year within \\+-100000 at index 0, got 2020.5"),
        ([1e9, 2020], "'year' must be a whole calendar year within \\+-100000 at index 0, got 1000000000.0"),
    ],
)
def test_books_name_a_missing_or_bad_year(year, message):
    tables = {"G": BASE.with_improvement(0.01, base_year=2020), "P": BASE}
    with pytest.raises(ValueError, match=message):
        life_annuities(CURVE, tables, table=["G", "G"], age=[60.0, 61.0], year=year)
    # A period table's policies need no year, and the valid ones are valued alongside.
    result = life_annuities(CURVE, tables, table=["G", "P"], age=[60.0, 61.0], year=year, on_error="nan")
    assert math.isnan(result.values[0]) and result.values[1] == BASE.life(61).ä(CURVE)


@pytest.mark.parametrize(
    "build, error, message",
    [
        (lambda: ImprovementScale(1.0), ValueError, "'rates' must be finite and below 1, got 1.0"),
        (lambda: ImprovementScale([0.01, np.nan], first_age=20), ValueError, "finite and below 1, got nan"),
        (lambda: ImprovementScale([0.01, 0.02]), ValueError, "rates by age need 'first_age'"),
        (lambda: ImprovementScale([[0.01]], first_age=20), ValueError, "need 'first_year'"),
        (lambda: ImprovementScale(0.01, long_term_rate=0.0), ValueError, "go with rates by age and year"),
        (lambda: BASE.with_improvement("0.01", 2020), TypeError, "'scale' must be an ImprovementScale"),
        (lambda: BASE.with_improvement(0.01, 2020.0), TypeError, "'base_year' must be an integer calendar year"),
        (lambda: BASE.with_improvement(0.01, 2020).life(65, year=2025.0), TypeError, "'year' must be an integer"),
        (lambda: BASE.with_improvement(0.01, 2020).life(math.inf, year=2025), ValueError, "'age' must be finite"),
    ],
)
def test_bad_scales_and_calls_are_named(build, error, message):
    with pytest.raises(error, match=message):
        build()


def test_tables_and_scales_pickle_and_compare_by_value(tmp_path):
    scale, _ = scale_2d(tmp_path)
    table = BASE.with_improvement(scale, base_year=2020)
    again = pickle.loads(pickle.dumps(table))
    assert again == table and hash(again) == hash(table) and isinstance(again, GenerationalTable)
    assert again.cohort(1950) == table.cohort(1950)
    assert BASE.with_improvement(0.01, 2020) != BASE.with_improvement(0.01, 2021)
    with pytest.raises(AttributeError):
        table.base_year = 2021  # type: ignore[misc]
