"""Curves from market data against the instruments they are built from, priced here by hand."""

import math
import re

import numpy as np
import pytest

from norvane.curves import (
    bootstrap_par_swaps,
    forward_rates,
    from_discount_factors,
    from_forward_rates,
    from_zero_rates,
    par_rates,
    smith_wilson,
    zero_rates,
)

T = np.array([0.5, 1.0, 2.0, 5.0, 7.0, 10.0, 30.0])
Z = np.array([0.031, 0.029, 0.027, 0.028, 0.03, 0.032, 0.029])


@pytest.mark.parametrize(
    "compounding, price",
    [
        ("annual", lambda z, t: (1 + z) ** -t),
        ("continuous", lambda z, t: np.exp(-z * t)),
        (2, lambda z, t: (1 + z / 2) ** (-2 * t)),
        (12, lambda z, t: (1 + z / 12) ** (-12 * t)),
    ],
)
def test_zero_rates_are_repriced_and_read_back(compounding, price):
    curve = from_zero_rates(T, Z, compounding=compounding)
    np.testing.assert_allclose(curve.vn(T), price(Z, T), rtol=1e-13)
    np.testing.assert_allclose(zero_rates(curve, T, compounding=compounding), Z, rtol=1e-12)
    # Between maturities the forward is flat: log P is linear there.
    mid = 0.5 * (T[2] + T[3])
    assert math.log(curve.vn(mid)) == pytest.approx(0.5 * math.log(price(Z[2], T[2]) * price(Z[3], T[3])), rel=1e-13)


def test_discount_factors_and_forwards_build_the_same_curve():
    prices = (1 + Z) ** -T
    forwards = (np.concatenate(([1.0], prices[:-1])) / prices) ** (1 / np.diff(T, prepend=0.0)) - 1
    by_prices, by_forwards = from_discount_factors(T, prices), from_forward_rates(T, forwards)
    np.testing.assert_allclose(by_prices.vn(T), prices, rtol=1e-14)
    np.testing.assert_allclose(by_forwards.vn(T), prices, rtol=1e-13)
    np.testing.assert_allclose(forward_rates(by_prices, np.concatenate(([0.0], T[:-1])), T), forwards, rtol=1e-11)
    # After the last maturity the last forward continues.
    assert forward_rates(by_prices, [40.0], [55.0])[0] == pytest.approx(forwards[-1], rel=1e-12)


def price_swap(curve, rate, maturity, frequency):
    times = np.arange(1, round(maturity * frequency) + 1) / frequency
    return rate / frequency * math.fsum(curve.vn(times)) + curve.vn(maturity)


@pytest.mark.parametrize("frequency", [1, 2, 4])
def test_bootstrapped_curve_reprices_every_par_swap(frequency):
    maturities = np.array([1, 2, 3, 5, 7, 10, 15, 20, 30])
    rates = np.array([0.021, 0.019, 0.023, 0.026, 0.028, 0.03, 0.031, 0.0305, 0.029])
    curve = bootstrap_par_swaps(maturities, rates, frequency=frequency)
    for rate, maturity in zip(rates, maturities):
        assert price_swap(curve, rate, maturity, frequency) == pytest.approx(1.0, abs=1e-12)
    np.testing.assert_allclose(par_rates(curve, maturities, frequency=frequency), rates, atol=1e-13)
    flat = bootstrap_par_swaps(maturities, np.full(9, 0.03))  # annual par rates of 3 % are a flat 3 %
    np.testing.assert_allclose(zero_rates(flat, [0.5, 4.5, 25.0, 60.0]), 0.03, atol=1e-13)


def test_smith_wilson_reprices_zero_inputs_and_converges_to_the_ultimate_rate():
    maturities = np.arange(1, 21)
    rates = 0.01 + 0.02 * (1 - np.exp(-maturities / 8))
    curve = smith_wilson(maturities, rates, ufr=0.042, step=1 / 64)  # fine enough to read its intensity
    np.testing.assert_allclose(curve.vn(maturities), (1 + rates) ** -maturities, rtol=1e-12)
    omega = math.log(1.042)
    h = 1 / 64
    intensity = (math.log(curve.vn(60 - h)) - math.log(curve.vn(60 + h))) / (2 * h)
    # Calibrated to the convergence criterion (at max(20 + 40, 60)): within 1 bp, and only just
    # (a faster convergence would be needed for less).
    assert abs(intensity - omega) <= 1e-4 + 1e-7
    assert abs(forward_rates(curve, [149.0], [150.0])[0] - 0.042) < 1e-4
    slower = smith_wilson(maturities, rates, ufr=0.042, alpha=0.05)
    np.testing.assert_allclose(slower.vn(maturities), curve.vn(maturities), rtol=1e-12)
    assert abs(forward_rates(slower, [59.5], [60.5])[0] - 0.042) > abs(forward_rates(curve, [59.5], [60.5])[0] - 0.042)


def test_smith_wilson_on_the_ultimate_rate_is_flat_and_reprices_swaps():
    flat = smith_wilson([1, 5, 10, 20], np.full(4, 0.042), ufr=0.042, alpha=0.1)
    np.testing.assert_allclose(zero_rates(flat, [0.5, 3.0, 15.0, 80.0, 150.0]), 0.042, atol=1e-12)
    maturities, swaps = [1, 2, 3, 5, 10, 20], [0.02, 0.022, 0.025, 0.027, 0.03, 0.031]
    curve = smith_wilson(maturities, swaps, ufr=0.042, instruments="swap", frequency=2)
    for rate, maturity in zip(swaps, maturities):
        assert price_swap(curve, rate, maturity, 2) == pytest.approx(1.0, abs=1e-12)
    spread = smith_wilson(maturities, np.array(swaps) + 0.001, ufr=0.042, instruments="swap", frequency=2, spread=0.001)
    np.testing.assert_allclose(spread.vn(maturities), curve.vn(maturities), rtol=1e-12)


def test_scenarios_build_a_container():
    container = from_zero_rates(T, {"base": Z, "up": Z + 0.01})
    assert list(container.scenarios) == ["base", "up"]
    container.active_scenario = "up"
    np.testing.assert_allclose(container.vn(T), from_zero_rates(T, Z + 0.01).vn(T), rtol=1e-15)


@pytest.mark.parametrize(
    "build, message",
    [
        (lambda: from_zero_rates([1, 1, 2], [0.01] * 3), "'maturities' must be finite, > 0 and increasing"),
        (lambda: from_zero_rates([1, 2], [0.01]), "'rates' must hold 2 finite values"),
        (lambda: from_zero_rates([1, 2], [0.01, 0.02], compounding="daily"), "'compounding' must be"),
        (lambda: from_discount_factors([1, 2], [0.99, -0.5]), "discount factors must be > 0"),
        (lambda: bootstrap_par_swaps([1, 2], [0.01, 0.02], frequency=3), "'frequency' must be one of (1, 2, 4)"),
        (lambda: bootstrap_par_swaps([1.25], [0.01], frequency=2), "needs a maturity of whole periods, got 1.25"),
        (lambda: bootstrap_par_swaps([1e12], [0.01]), "a swap may hold at most 1000000 payments"),
        (lambda: smith_wilson([1, 2], [0.01, 0.02], ufr=0.04, horizon=1.5), "'horizon' must reach"),
        (lambda: smith_wilson([1, 2], [0.01, 0.02], ufr=0.04, instruments="bond"), "'instruments' must be"),
    ],
)
def test_bad_inputs_are_named(build, message):
    with pytest.raises(ValueError, match=re.escape(message)):
        build()
