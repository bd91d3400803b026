"""GrowthRate: validation, growth factors and value semantics."""

import pickle

import numpy as np
import pandas as pd
import pytest

from norvane.growth_rates import GrowthRate


@pytest.mark.parametrize(
    "rate, kind, exc",
    [
        (True, "geometric", TypeError),
        ("0.02", "geometric", TypeError),
        (0.02, 1, TypeError),
        (0.02, "linear", ValueError),
        (float("nan"), "geometric", ValueError),
        (10**400, "geometric", ValueError),
        (-1.0, "geometric", ValueError),
    ],
)
def test_refused(rate, kind, exc):
    with pytest.raises(exc, match=r"^\[GrowthRate\]"):
        GrowthRate(rate, kind)


@pytest.mark.parametrize(
    "g, years, expected",
    [
        (GrowthRate(np.float32(0.25)), [0, 1, 2, 10], [1.0, 1.25, 1.25**2, 1.25**10]),
        (GrowthRate(-0.5), [0, 1, 3], [1.0, 0.5, 0.125]),
        (GrowthRate(0.05, "arithmetic"), [0, 1, 2, 10], [1.0, 1.05, 1.1, 1.5]),
        (GrowthRate(-1.5, "arithmetic"), [0, 1, 2], [1.0, -0.5, -2.0]),  # any finite rate, not clipped
    ],
)
def test_factors(g, years, expected):
    np.testing.assert_allclose(g.factors(np.array(years)), expected, rtol=1e-14)
    np.testing.assert_allclose(g.factors(pd.Series(years)), expected, rtol=1e-14)
    scalar = g.factors(years[-1])
    assert type(scalar) is float and scalar == pytest.approx(expected[-1], rel=1e-14) and type(g.rate) is float
    assert g.factors(np.zeros((2, 3))).shape == (2, 3)
    with pytest.raises(TypeError):
        g.factors(True)


@pytest.mark.parametrize(
    "g, n_payments, m, expected",
    [
        (GrowthRate(0.1), 14, 12, [1.0] * 12 + [1.1, 1.1]),  # a year of level monthly payments first
        (GrowthRate(0.1, "arithmetic"), 5, 2, [1.0, 1.0, 1.1, 1.1, 1.2]),
        (GrowthRate(0.1), 0, 4, []),
    ],
)
def test_payment_factors_step_once_a_year(g, n_payments, m, expected):
    np.testing.assert_allclose(g.payment_factors(n_payments, m), expected, rtol=1e-14)


def test_value_semantics():
    a, b = GrowthRate(0.02), GrowthRate(np.float64(0.02), "geometric")
    assert a == b and hash(a) == hash(b) and len({a, b, GrowthRate(0.02, "arithmetic")}) == 2
    assert a != GrowthRate(0.021) and a != 0.02 and GrowthRate(0.0) == GrowthRate(-0.0)
    assert repr(a) == "GrowthRate(0.02, kind='geometric')" and eval(repr(a)) == a
    for g in (a, GrowthRate(-2.0, "arithmetic")):
        copy = pickle.loads(pickle.dumps(g))
        assert copy == g and copy.kind == g.kind
    with pytest.raises(AttributeError):
        a.rate = 0.5
    with pytest.raises(AttributeError):
        a.extra = 1
