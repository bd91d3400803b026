"""Sensitivities against the textbook example, closed forms and finite differences of full
revaluations written here."""

import math

import numpy as np
import pytest

from norvane.interest_rates import InterestRate
from norvane.risk import key_rate_weights, sensitivities

CURVE = InterestRate(terms=[2, 3, 5, 10], rates=[0.015, 0.022, 0.028, 0.031, 0.027])
TIMES = np.array([0.5, 1.0, 2.5, 4.0, 7.0, 12.0, 18.0, 25.0, 40.0])
AMOUNTS = np.array([10.0, 12.0, 8.0, 15.0, 20.0, 30.0, 25.0, 18.0, 40.0])
H = 1e-6


def test_textbook_bond():
    """Flows 5, 5, 105 at 1, 2, 3 years on a flat 3 %: PV 105.65, Macaulay 2.86, modified 2.78,
    convexity 10.62 (as the textbook prints them, to two decimals)."""
    risk = sensitivities(InterestRate(0.03), [1, 2, 3], [5, 5, 105])
    for got, printed in [
        (risk.present_value, 105.65),
        (risk.macaulay_duration, 2.86),
        (risk.modified_duration, 2.78),
        (risk.convexity, 10.62),
    ]:
        assert printed <= got < printed + 0.01
    assert risk.effective_duration == pytest.approx(risk.modified_duration, rel=1e-13)  # one segment: the same move


def test_a_certain_book_from_its_flows():
    """A book's sensitivities from its cash flows as the engine returns them (a payment now
    moves with no rate): its DV01 is the central difference of two revaluations of the book."""
    n, d = np.array([5.0, 10.0, 20.0, 30.0]), np.array([0.0, 2.0, 0.0, 5.0])
    flows = CURVE.ä(n=n, d=d, m=4, return_flows=True)
    risk = sensitivities(CURVE, flows["time_grid"], flows["expected_cf"])
    assert risk.present_value == pytest.approx(CURVE.ä(n=n, d=d, m=4).sum(), rel=1e-12)
    rates = np.asarray(CURVE.rates)
    pv = [InterestRate(terms=CURVE.terms, rates=rates + s).ä(n=n, d=d, m=4).sum() for s in (-H, H)]
    assert risk.segment_dv01.sum() == pytest.approx((pv[0] - pv[1]) / (2 * H) * 1e-4, rel=1e-5)


def test_level_flows_on_a_flat_rate():
    """n annual payments of 1 at i: Macaulay = (Ia)_n / a_n, (Ia)_n = (ä_n - n v^n) / i."""
    i, n = 0.04, 25
    v = 1 / (1 + i)
    a_n = (1 - v**n) / i
    increasing = ((1 - v**n) / (i * v) - n * v**n) / i
    risk = sensitivities(InterestRate(i), np.arange(1, n + 1), np.ones(n))
    assert risk.present_value == pytest.approx(a_n, rel=1e-13)
    assert risk.macaulay_duration == pytest.approx(increasing / a_n, rel=1e-12)
    assert risk.modified_duration == pytest.approx(increasing / a_n * v, rel=1e-12)


def revalued(bump_of_time):
    """PV with each flow's annual zero rate moved by bump_of_time(t)."""
    zeros = CURVE.vn(TIMES) ** (-1 / TIMES) - 1
    return math.fsum(AMOUNTS * (1 + zeros + bump_of_time(TIMES)) ** -TIMES)


def test_dv01s_are_central_differences_of_revaluations():
    risk = sensitivities(CURVE, TIMES, AMOUNTS, key_tenors=[1, 5, 10, 20, 30])
    parallel = (revalued(lambda t: -H) - revalued(lambda t: H)) / (2 * H) * 1e-4
    assert risk.dv01 == pytest.approx(parallel, rel=1e-7)
    assert risk.key_rate_dv01.sum() == pytest.approx(risk.dv01, rel=1e-13)
    weights = key_rate_weights(risk.key_tenors, TIMES)  # at the flows' times, one row a tenor
    for dv01, weight in zip(risk.key_rate_dv01, weights):
        fd = (revalued(lambda t, w=weight: -H * w) - revalued(lambda t, w=weight: H * w)) / (2 * H) * 1e-4
        assert dv01 == pytest.approx(fd, rel=1e-6, abs=1e-12)
    # Triangular: 1 at a tenor, 0 at its neighbours, linear between, held beyond the ends.
    np.testing.assert_allclose(key_rate_weights([1, 5], [0.5, 1, 3, 5, 9]), [[1, 1, 0.5, 0, 0], [0, 0, 0.5, 1, 1]])
    second = (revalued(lambda t: H * 100) - 2 * revalued(lambda t: 0.0) + revalued(lambda t: -H * 100)) / (H * 100) ** 2
    assert risk.convexity == pytest.approx(second / risk.present_value, rel=1e-5)


def test_segment_dv01s_are_bumps_of_the_curve_own_rates():
    risk = sensitivities(CURVE, TIMES, AMOUNTS)
    rates = np.asarray(CURVE.rates)
    for j, dv01 in enumerate(risk.segment_dv01):
        up, down = rates.copy(), rates.copy()
        up[j] += H
        down[j] -= H
        pv = [math.fsum(AMOUNTS * InterestRate(terms=CURVE.terms, rates=r).vn(TIMES)) for r in (down, up)]
        assert dv01 == pytest.approx((pv[0] - pv[1]) / (2 * H) * 1e-4, rel=1e-6)
    assert risk.segment_ends.tolist() == [2.0, 5.0, 10.0, 20.0, math.inf]
    assert risk.effective_duration == pytest.approx(risk.segment_dv01.sum() / 1e-4 / risk.present_value, rel=1e-13)


@pytest.mark.parametrize(
    "kwargs, message",
    [
        ({"times": [1.0, 2.0], "amounts": [1.0]}, "must have one length, got 2 and 1"),
        ({"times": [-1.0], "amounts": [1.0]}, "'times' must be finite and >= 0"),
        ({"times": [1.0], "amounts": [1.0], "key_tenors": [5, 2]}, "'key_tenors' must be finite, > 0 and increasing"),
    ],
)
def test_bad_flows_are_named(kwargs, message):
    with pytest.raises(ValueError, match=message):
        sensitivities(CURVE, **kwargs)


def test_a_life_book_from_its_flows_against_revaluations():
    """A pension book's segment DV01s from its monthly expected flows equal central differences
    of full revaluations with each segment's rate moved; the key-rate DV01s add up to the DV01."""
    from norvane.cashflows import expected_flows
    from norvane.mortality import bundled_table, life_annuities

    tables = {"M": bundled_table("makeham_20_120"), "F": bundled_table("makeham_13_110")}
    book = dict(
        table=["M", "F", "M"],
        age=[67.0, 55.0, 80.0],
        d=[0.0, 10.0, 0.0],
        m=12,
        gr=0.02,
        benefits=[1000.0, 500.0, 800.0],
        spouse_table=["F", "M", "F"],
        spouse_age=[63.0, 58.0, np.nan],
        reversion=[0.6, 0.5, 0.0],
        death_benefit=[0.0, 2000.0, 0.0],
    )
    risk = sensitivities(CURVE, expected_flows(CURVE, tables, **book, buckets="monthly"))
    assert risk.present_value == pytest.approx(life_annuities(CURVE, tables, **book).sum(), rel=1e-11)
    rates = np.asarray(CURVE.rates)
    for j in range(rates.size):
        moved = [InterestRate(terms=CURVE.terms, rates=rates + s * np.eye(rates.size)[j]) for s in (-1e-5, 1e-5)]
        down, up = (life_annuities(c, tables, **book).sum() for c in moved)
        assert risk.segment_dv01[j] == pytest.approx((down - up) / 2e-5 * 1e-4, rel=1e-6)
    assert risk.key_rate_dv01.sum() == pytest.approx(risk.dv01, rel=1e-12)
