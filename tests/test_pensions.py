"""Pension books: a reversion to a spouse and a death benefit before retirement, valued and
projected, against survival sums written here on tables of given q, and through the files."""

import math

import numpy as np
import pandas as pd
import pytest

from norvane.cashflows import expected_flows
from norvane.interest_rates import InterestRate
from norvane.mortality import MortalityTable, life_annuities
from norvane.portfolio import value_book

FLAT = InterestRate(0.04)
QX = np.array([0.02, 0.03, 0.05, 0.08, 0.12, 0.2, 0.35, 0.6, 1.0])  # member table, ages 60..68
QY = np.array([0.01, 0.015, 0.02, 0.04, 0.07, 0.1, 0.2, 0.3, 0.5, 0.8, 1.0])  # spouse table, 58..68
TABLES = {"X": MortalityTable(QX, first_age=60), "Y": MortalityTable(QY, first_age=58)}


def kp(q, k):
    return math.prod(1.0 - q[:k])


def v(t):
    return 1.04**-t


def test_a_reversion_is_the_member_annuity_and_the_spouse_surviving():
    # Member 60 on X, spouse 58 on Y, 60 % reversion, annual payments in advance.
    years = range(20)
    member = [kp(QX, k) for k in years]
    spouse = [kp(QY, k) for k in years]
    paid = [x + 0.6 * y * (1.0 - x) for x, y in zip(member, spouse)]  # a_x + 0.6 (a_y - a_xy), year by year
    value = math.fsum(p * v(k) for k, p in enumerate(paid))
    terms = dict(table="X", age=60.0, spouse_table="Y", spouse_age=58.0, reversion=0.6, benefits=1000.0)
    assert life_annuities(FLAT, TABLES, **terms)[0] == pytest.approx(1000 * value, rel=1e-11)
    flows = expected_flows(FLAT, TABLES, **terms, horizon=12)
    # Payments at 0 and 1 share the first bucket (each at or before its end).
    expected = [paid[0] + paid[1], *paid[2:12]]
    np.testing.assert_allclose(flows.total_expected[:11], 1000 * np.array(expected), rtol=1e-12)
    assert flows.present_value == pytest.approx(1000 * value, rel=1e-12)


@pytest.mark.parametrize("ts", [0.0, 2.0])
def test_a_death_benefit_is_paid_on_death_before_the_pension(ts):
    # Aged 60, pension from 65 (deferment 5), 5000 on death before then, at the end of the year.
    seen = int(ts)
    alive = kp(QX, seen)
    deaths = [(kp(QX, k) - kp(QX, k + 1)) / alive for k in range(seen, 5)]
    benefit = math.fsum(5000 * p * v(k + 1 - seen) for k, p in zip(range(seen, 5), deaths))
    pension = math.fsum(100 * kp(QX, k) / alive * v(k - seen) for k in range(5, 9))
    terms = dict(table="X", age=60.0, d=5.0, ts=ts, benefits=100.0, death_benefit=5000.0)
    # Each part's unit value is rounded to 10 decimals.
    assert life_annuities(FLAT, TABLES, **terms)[0] == pytest.approx(benefit + pension, abs=6e-7)
    flows = expected_flows(FLAT, TABLES, **terms, buckets=np.arange(1.0, 10.0) - 0.5)
    # Deaths in year k are paid at its end, k + 1 - ts, the last with the first pension at 5 - ts.
    expected = 5000 * np.array(deaths) + np.eye(len(deaths))[-1] * 100 * kp(QX, 5) / alive
    np.testing.assert_allclose(flows.total_expected[1 : 6 - seen], expected, rtol=1e-12)
    assert flows.present_value == pytest.approx(benefit + pension, rel=1e-12)


def test_pension_columns_through_a_frame():
    frame = pd.DataFrame(
        {
            "id": ["married", "single", "deferred", "bad-spouse", "bad-benefit", "no-spouse"],
            "term": [np.nan] * 6,
            "deferment": [0, 0, 4, 0, 3, 0],
            "benefit": [1000, 800, 500, 10, 10, 10],
            "age": [62, 61, 60, 62, 60, 62],
            "table": ["X"] * 6,
            "spouse_age": [59, np.nan, 58, 200, np.nan, np.nan],
            "spouse_table": ["Y", "", "Y", "", "", ""],
            "reversion": [0.5, 0, 0.6, 0.5, 0, 0.5],
            "death_benefit": [0, 0, 2000, 0, -1, 0],
        }
    )
    result = value_book(frame, FLAT, tables=TABLES)
    direct = life_annuities(
        FLAT,
        TABLES,
        table="X",
        age=[62, 61, 60],
        d=[0, 0, 4],
        benefits=[1000, 800, 500],
        spouse_table=["Y", "X", "Y"],
        spouse_age=[59, np.nan, 58],
        reversion=[0.5, 0, 0.6],
        death_benefit=[0, 0, 2000],
    )
    np.testing.assert_array_equal(result.present_value[:3], direct)
    errors = list(result.error[3:])
    assert errors[0] == "spouse_age 200.0 at valuation time 0.0 is beyond the table's last age 68"
    assert errors[1] == "death_benefit must be a finite amount >= 0, got -1"
    assert errors[2] == "reversion is given without a spouse_age, got 0.5"


@pytest.mark.parametrize("mode", ["discrete_precision", "continuous_precision"])
def test_insurance_books_equal_their_single_calls(mode):
    from norvane.config import Config
    from norvane.mortality import life_insurances

    ages, terms = np.array([60.0, 61.5, 63.0, 60.0]), np.array([np.inf, 3.0, 4.0, 2.5])
    lives = [TABLES["X"].life(x) for x in ages]
    with Config().override(calculation_mode=mode):
        whole = life_insurances(FLAT, TABLES, table="X", age=ages, n=terms, m=4, benefits=10.0)
        endowment = life_insurances(FLAT, TABLES, table="X", age=ages[1:], n=terms[1:], benefit="endowment_insurance")
        single = [life.A(FLAT, n=None if math.isinf(n) else n, m=4) for life, n in zip(lives, terms)]
        single_endowment = [life.A_endowment(FLAT, n=n) for life, n in zip(lives[1:], terms[1:])]
    np.testing.assert_array_equal(whole, 10.0 * np.array(single))
    np.testing.assert_array_equal(endowment, single_endowment)
    if mode == "discrete_precision":  # whole life, annual: the sum of v^(k+1) kp q, and everybody dies
        annual = life_insurances(FLAT, TABLES, table="X", age=60.0)[0]
        assert annual == pytest.approx(math.fsum(kp(QX, k) * QX[k] * v(k + 1) for k in range(9)), abs=1e-10)
    with pytest.raises(ValueError, match=r"\[life_insurances\] 'benefit' must be one of"):
        life_insurances(FLAT, TABLES, table="X", age=60.0, benefit="annuity")


def test_a_book_long_enough_to_be_split_across_cores_keeps_each_policy_its_value():
    from norvane.mortality import life_insurances

    size = 140_000  # more than one part a core
    ages = np.array([60.0, 62.0, 64.0])[np.arange(size) % 3]
    benefits = np.arange(size, dtype=np.float64)
    values = life_insurances(FLAT, TABLES, table="X", age=ages, benefits=benefits)
    units = {x: TABLES["X"].life(x).A(FLAT) for x in (60.0, 62.0, 64.0)}
    np.testing.assert_array_equal(values, benefits * np.array([units[x] for x in ages]))


def test_kinds_and_birth_years_through_a_frame():
    from norvane.mortality import ImprovementScale, life_insurances

    improved = {"G": TABLES["X"].with_improvement(ImprovementScale(0.01), base_year=2020), **TABLES}
    frame = pd.DataFrame(
        {
            "id": ["whole-life", "endowment", "born", "both-years", "indexed-insurance", "bad-kind"],
            "term": [np.nan, 4, np.nan, np.nan, np.nan, np.nan],
            "benefit": [1000, 500, 100, 100, 100, 100],
            "age": [60, 61, 62, 62, 60, 60],
            "table": ["X", "X", "G", "G", "X", "X"],
            "kind": ["insurance", "Endowment_Insurance", "", "", "insurance", "lapse"],
            "year": [np.nan, np.nan, np.nan, 2026, np.nan, np.nan],
            "birth_year": [np.nan, np.nan, 1964, 1964, np.nan, np.nan],
            "growth": [np.nan, np.nan, np.nan, np.nan, 0.02, np.nan],
        }
    )
    result = value_book(frame, FLAT, tables=improved)
    expected = [
        1000 * life_insurances(FLAT, TABLES, table="X", age=60.0)[0],
        500 * TABLES["X"].life(61).A_endowment(FLAT, n=4),
        100 * improved["G"].life(62, year=2026).ä(FLAT),
    ]
    np.testing.assert_allclose(result.present_value[:3], expected, rtol=1e-12)
    assert list(result.error[3:]) == [
        "year and birth_year are both given, got 1964.0",
        "growth is given for a kind 'insurance'",
        "kind must be one of annuity, insurance, endowment_insurance, pure_endowment, got 'lapse'",
    ]


@pytest.mark.parametrize("rule", [(1.0, 0.0, 0.0), (1.0, 1.0, 1.0), (0.0, 0.0, 1.0), (1.0, 0.5, 0.8)])
def test_any_payment_rule_in_a_book_is_the_two_lives_single_call(rule):
    from norvane.mortality import TwoLives

    terms = dict(table="X", age=[60.0, 62.0, 61.0], spouse_table="Y", spouse_age=[58.0, 60.0, np.nan], m=4)
    values = life_annuities(FLAT, TABLES, **terms, payment_rule=rule, benefits=100.0)
    both, x_alone, y_alone = rule
    pairs = [(60.0, 58.0), (62.0, 60.0)]
    single = [
        100
        * TwoLives(TABLES["X"].life(x), TABLES["Y"].life(y), both=both, x_alone=x_alone, y_alone=y_alone).ä(FLAT, m=4)
        for x, y in pairs
    ]
    np.testing.assert_allclose(values[:2], single, atol=3e-8)  # each part rounded to 10 decimals a unit
    assert values[2] == 100 * TABLES["X"].life(61.0).ä(FLAT, m=4)  # no spouse: the member's annuity
    flows = expected_flows(FLAT, TABLES, **terms, payment_rule=rule, benefits=100.0)
    assert flows.present_value == pytest.approx(values.sum(), abs=1e-7)  # values: parts rounded


def test_a_book_of_copies_values_each_policy_once_and_words_a_fault_by_its_own_index():
    # Three policies, annual in advance, the first two years guaranteed: 60 with a spouse of 58
    # and 60 % to her; 61 alone; 60 deferred 5 years with 5000 on death before then.
    g = [1.0, 1.0] + [kp(QX, k) for k in range(2, 12)]
    married = [gk + 0.6 * kp(QY, k) * (1.0 - kp(QX, k)) for k, gk in enumerate(g)]
    alone = [1.0, 1.0] + [kp(QX[1:], k) for k in range(2, 12)]
    deferred = [0.0] * 5 + [1.0, 1.0] + [kp(QX, k) for k in range(7, 12)]
    deaths = math.fsum((kp(QX, k) - kp(QX, k + 1)) * v(k + 1) for k in range(5))
    units = [math.fsum(p * v(k) for k, p in enumerate(paid)) for paid in (married, alone, deferred)]
    copies = 50
    which = np.arange(3 * copies) % 3
    benefits = 100.0 + np.arange(3 * copies)
    death_benefit = np.where(which == 2, 5000.0 + np.arange(3 * copies), 0.0)
    terms = dict(
        table="X",
        age=np.array([60.0, 61.0, 60.0])[which],
        d=np.array([0.0, 0.0, 5.0])[which],
        guarantee=2.0,
        spouse_table="Y",
        spouse_age=np.array([58.0, np.nan, np.nan])[which],
        reversion=np.array([0.6, 0.0, 0.0])[which],
        death_benefit=death_benefit,
    )
    values = life_annuities(FLAT, TABLES, **terms, benefits=benefits)
    expected = benefits * np.array(units)[which] + death_benefit * deaths
    np.testing.assert_allclose(values, expected, rtol=1e-10)  # each part rounded to 10 decimals a unit
    # Their flows: each year's payments (at 0 and 1 in the first bucket), deaths paid a year on.
    paid = sum(benefits[which == j].sum() * np.array(kind) for j, kind in enumerate((married, alone, deferred)))
    paid[1:6] += death_benefit.sum() * np.array([kp(QX, k) - kp(QX, k + 1) for k in range(5)])
    flows = expected_flows(FLAT, TABLES, **terms, benefits=benefits, horizon=12)
    np.testing.assert_allclose(flows.total_expected, [paid[0] + paid[1], *paid[2:12], 0.0], rtol=1e-12)
    assert flows.present_value == pytest.approx(values.sum(), rel=1e-10)  # values: parts rounded
    # A copy out of its table is refused by its own index, and alone.
    bad = dict(terms, age=np.where(np.arange(3 * copies) == 77, 70.0, terms["age"]))
    with pytest.raises(ValueError, match=r"at index 77\b"):
        life_annuities(FLAT, TABLES, **bad, benefits=benefits)
    kept = life_annuities(FLAT, TABLES, **bad, benefits=benefits, on_error="nan")
    assert kept.errors.invalid_indices.tolist() == [77]
    np.testing.assert_array_equal(np.delete(kept.values, 77), np.delete(values, 77))


@pytest.mark.parametrize(
    ("call", "text"),
    [
        (lambda k: k.distinct_policies([], [np.zeros(3), np.zeros(2)]), "one length"),
        (lambda k: k.distinct_policies([], [np.arange(3.0) + i for i in range(17)]), "at most 16"),
        (lambda k: k.distinct_policies([], [np.zeros(3, dtype=bool)]), "float64, float32, int64 or int32"),
        (lambda k: k.gather_parts(np.array([0, 2], dtype=np.uint32), [np.ones(2)], [None], [None]), "not below"),
        (lambda k: k.gather_parts(np.zeros(2, dtype=np.uint32), [], [], []), "at least one part"),
        (lambda k: k.gather_parts(np.zeros(2, dtype=np.uint32), [np.ones(1)], [None], [np.ones(3)]), "one per row"),
        (lambda k: k.sum_parts(np.array([0, 3], dtype=np.uint32), 3, [None], [None]), "not below"),
        (lambda k: k.sum_parts(np.zeros(2, dtype=np.uint32), 1, [None], []), "one share column"),
    ],
)
def test_the_distinct_policy_kernels_refuse_what_they_cannot_read(call, text):
    from norvane import _kernels

    with pytest.raises((ValueError, TypeError), match=text):
        call(_kernels)


def test_distinct_policies_number_rows_by_first_appearance_across_cores():
    from norvane import _kernels

    size = 300_000  # parts on more than one core
    rows = np.arange(size)
    sex = np.where(rows % 5 == 0, "F", "M")
    # Whole ages pack into one word with the other columns; fractional, negative, large, NaN
    # and signed zero ages are kept in full; both kinds must number as one book.
    age = (rows * 7919 % 97).astype(np.float64)
    odd = rows % 13 == 0
    age[odd] = np.array([0.5, -1.0, 5000.0, np.nan, -0.0, 0.0, 1e300])[rows[odd] % 7]
    columns = [age, (rows % 3).astype(np.int64), (rows % 2).astype(np.float32), np.full(size, 2026.0)]
    lead, of = _kernels.distinct_policies([[ord("M")], [ord("F")]], [sex.view(np.uint32).reshape(-1, 1), *columns])

    def canonical(x):
        return "nan" if x != x else x + 0.0  # NaN equals NaN, -0.0 equals 0.0

    keys = list(zip(sex.tolist(), map(canonical, age.tolist()), (rows % 3).tolist(), (rows % 2).tolist()))
    first = {}
    for i, key in enumerate(keys):
        first.setdefault(key, i)
    assert lead.tolist() == sorted(first.values())
    np.testing.assert_array_equal(lead[of], [first[key] for key in keys])


def test_pension_books_read_any_layout_of_their_columns():
    from norvane.mortality import TwoLives

    x, y = TABLES["X"].life(60.0), TABLES["Y"].life(58.0)
    unit = x.ä(FLAT) + 0.6 * (y.ä(FLAT) - TwoLives(x, y, both=1.0, x_alone=0.0, y_alone=0.0).ä(FLAT))
    n = 200  # copies: the distinct route; a strided column is read from a copy the call keeps
    strided = np.column_stack([np.full(n, 0.6), np.zeros(n)])[:, 0]
    ages = np.column_stack([np.full(n, 60.0), np.zeros(n)])[:, 0]
    values = life_annuities(FLAT, TABLES, table="X", age=ages, spouse_table="Y", spouse_age=58.0, reversion=strided)
    np.testing.assert_allclose(values, unit, rtol=1e-10)
    flows = expected_flows(FLAT, TABLES, table="X", age=ages, horizon=12)
    assert flows.present_value == pytest.approx(n * x.ä(FLAT), rel=1e-10)  # ä rounded to 10 decimals
    # Every column one value, broadcast: one value a policy all the same.
    broadcast = np.broadcast_to(60.0, (4,))
    four = life_annuities(FLAT, TABLES, table="X", age=broadcast, guarantee=1.0, benefits=[1.0, 2.0, 3.0, 4.0])
    np.testing.assert_allclose(four, np.arange(1.0, 5.0) * four[0])
    assert four[0] == pytest.approx(1.0 + x.ä(FLAT, d=1.0), rel=1e-10)
    # A table column of numbers is no table's name; an empty book pays nothing.
    with pytest.raises(ValueError, match=r"'table' at index 0 is '0', not one of"):
        life_annuities(FLAT, TABLES, table=np.zeros(8, np.int16), age=ages[:8], spouse_age=58.0, reversion=0.6)
    empty = dict(table="X", age=np.zeros(0), spouse_table="Y", spouse_age=np.zeros(0), payment_rule=(1.0, 1.0, 0.5))
    assert expected_flows(FLAT, TABLES, **empty, horizon=3).present_value == 0.0


def test_a_pension_book_is_refused_at_its_first_policy_at_fault_in_any_part():
    ages, spouse_ages = np.full(12, 60.0), np.full(12, 58.0)
    ages[9], spouse_ages[2] = 75.0, 90.0  # beyond X's last age; beyond Y's
    with pytest.raises(ValueError, match=r"'spouse_age' .* at index 2\b"):
        life_annuities(FLAT, TABLES, table="X", age=ages, spouse_table="Y", spouse_age=spouse_ages, reversion=0.6)
