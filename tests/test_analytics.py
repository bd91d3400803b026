"""Rate analytics of InterestRate: forces of interest, nominal and effective rates, segment
information, the validation report and the curve analysis."""

import math

import numpy as np
import pytest
from reference import discount, exact

from norvane.interest_rates import InterestRate

INF, NAN = float("inf"), float("nan")
LE = "\u2264"
PW = ([5, 5], [0.02, 0.03, 0.04])
POLICY = {"flat_or_piecewise_discount": True, "multi_scenario_curves": False}
UNDEFINED = "ln(1 + i) undefined per actuarial standards"


def pw(terms=PW[0], rates=PW[1]):
    return InterestRate(terms=list(terms), rates=list(rates))


def props(rate):
    return {"is_zero": rate == 0.0, "is_negative": rate < 0.0, "is_positive": rate > 0.0}


def same(got, want):
    """Equal values, native types, and the same key order at every level of nesting."""
    if isinstance(want, dict):
        assert type(got) is dict and list(got) == list(want)
        for key in want:
            same(got[key], want[key])
    elif isinstance(want, np.ndarray):
        assert isinstance(got, np.ndarray) and got.dtype == np.float64
        np.testing.assert_array_equal(got, want)
    else:
        assert type(got) is type(want), (got, want)
        assert got == (pytest.approx(want, rel=1e-12, abs=1e-15, nan_ok=True) if isinstance(want, float) else want)


# ---------------------------------------------------------------- forces, nominal and effective rates


@pytest.mark.parametrize("rate", [0.03, -0.005, 0.0])
def test_delta_of_constant_and_piecewise_curves(rate):
    d = InterestRate(rate).delta()  # a zero rate gives an exact 0.0: the tolerance is relative only
    assert type(d) is float and d == pytest.approx(math.log(1 + rate), rel=1e-15, abs=0)
    assert InterestRate(rate).delta(np.array([[1.0, 2.0]])).tolist() == [[d, d]]
    steps = pw([5, 5], [0.02, rate, -0.03])
    want = {5.0: math.log(1.02), 6.0: d, 10.0: d, 10.5: math.log(0.97)}
    assert [steps.delta(t) for t in want] == pytest.approx(list(want.values()), rel=1e-15, abs=0)
    assert steps.delta(np.array(list(want))) == pytest.approx(list(want.values()), rel=1e-15, abs=0)
    with exact(ValueError, "For piecewise rates, time t must be specified."):
        steps.delta()
    ir = InterestRate(0.03)
    ir.delta()  # a force computed earlier does not bypass the guard on a changed rate
    ir.rate = -1.5
    with exact(ValueError, f"Cannot calculate force of interest: rate -1.5 {LE} -1 would make {UNDEFINED}"):
        ir.delta([1.0, 2.0])


@pytest.mark.parametrize(
    "curve, t0, t1",
    [(([], [0.03]), 2.5, 10), (PW, 0, 7.5), (PW, 3, 12), (([3], [0.0, 0.05]), 1, 7), (([2, 2], [0.0] * 3), 1, 5)],
)
def test_average_force_and_effective_rate_from_discount_factors(curve, t0, t1):
    terms, rates = curve
    ir = pw(terms, rates) if terms else InterestRate(rates[0])
    force, rate = ir.get_average_force(t1), ir.get_effective_rate(t0, t1)
    assert type(force) is float and force == pytest.approx(-math.log(discount(terms, rates, t1)) / t1, rel=1e-12, abs=0)
    want = (discount(terms, rates, t1) / discount(terms, rates, t0)) ** (-1 / (t1 - t0)) - 1  # 0.0 at 0 %
    assert type(rate) is float and rate == pytest.approx(want, rel=1e-10, abs=0)


@pytest.mark.parametrize("rate", [0.03, -0.005, 0.0])
@pytest.mark.parametrize("m", [1, 5, np.int64(365)])
def test_nominal_rates_against_closed_forms(rate, m):
    i_m, d_m = InterestRate(rate).i_m(m), InterestRate(rate).d_m(m)
    assert type(i_m) is float and type(d_m) is float
    assert i_m == pytest.approx(m * math.expm1(math.log1p(rate) / m), rel=1e-10, abs=0)  # m((1+i)^(1/m) - 1)
    assert d_m == pytest.approx(-m * math.expm1(-math.log1p(rate) / m), rel=1e-10, abs=0)  # m(1 - v^(1/m))
    steps = pw([5, 5], [0.01, rate, 0.04])  # a piecewise curve uses the rate of the segment holding t
    assert steps.i_m(m, t=7.5) == i_m and steps.d_m(m, 10.0) == d_m and steps.i_m(m) != i_m


POS = "Duration n must be positive per actuarial practice, got "
AVG = "Cannot calculate average force: discount factor {} \u2264 0 results in undefined average force per actuarial standards"
ZERO_DF = "Cannot compute effective rate: discount factor at {} is zero"


@pytest.mark.parametrize(
    "call, exc, msg",
    [
        (lambda ir: ir.get_average_force(True), TypeError, "Duration n must be numeric"),
        (lambda ir: ir.get_average_force(-1.5), ValueError, POS + "-1.5"),
        (lambda ir: ir.get_average_force(INF), ValueError, AVG.format("0.0")),
        (lambda ir: ir.get_average_force(NAN), ValueError, AVG.format("nan")),
        (lambda ir: ir.i_m(True), TypeError, "m must be a plain integer, got bool"),
        (
            lambda ir: ir.i_m(1.5),
            TypeError,
            "[InterestRate.i_m] Parameter 'm' must be of type int or numpy integer, got float.",
        ),
        (lambda ir: ir.i_m(np.int64(-4), "x"), ValueError, "m must be a positive integer, got -4"),
        (lambda ir: ir.d_m(12, "1"), TypeError, "t must be numeric, got str"),
        (lambda ir: ir.d_m(12, NAN), ValueError, "t must be non-negative, got nan"),
        (lambda ir: ir.get_effective_rate(3, 3.0), ValueError, "t_end must be greater than t_start"),
        (lambda ir: ir.get_effective_rate(1.0, INF), ValueError, ZERO_DF.format("t_end")),
        (lambda ir: ir.get_effective_rate(-1.0, 2.0), ValueError, "'x' contains negative values."),
        (lambda ir: ir.get_segment_info([1.0]), TypeError, "[InterestRate] Parameter 't' must be numeric."),
    ],
)
@pytest.mark.parametrize("curve", [0.03, {"a": 0.03}])
def test_analytics_messages(call, exc, msg, curve):
    with exact(exc, msg):
        call(InterestRate(curve))
    with exact(ValueError, ZERO_DF.format("t_start")):
        InterestRate(0.5).get_effective_rate(2000, 3000)


# ---------------------------------------------------------------- segment information


@pytest.mark.parametrize(
    "t, k, start, end",
    [
        (2.0, 0, 0.0, 2.0),
        (2.000001, 1, 2.0, 5.0),
        (np.float64(5.0), 1, 2.0, 5.0),
        (7.0, 2, 5.0, INF),
        (-1.0, 0, 0.0, 2.0),
    ],
)
def test_segment_info(t, k, start, end):
    rates = [0.01, 0.0, -0.02]  # a time on a boundary belongs to the segment that ends there
    want = {"type": "piecewise", "segment_index": k, "rate": rates[k], "rate_properties": props(rates[k])}
    want |= {"segment_start": start, "segment_end": end, "segment_duration": end - start, "time_queried": float(t)}
    want |= {"position_in_segment": float(t) - start}
    box = InterestRate({"c": 0.05, "p": ([2.0, 3.0], rates)})
    box.active_scenario = "p"
    same(pw([2.0, 3.0], rates).get_segment_info(t), want)
    same(box.get_segment_info(t), want)
    const = {"type": "constant", "rate": rates[k], "rate_properties": props(rates[k]), "segment_start": 0.0}
    same(InterestRate({"only": rates[k]}).get_segment_info(t), const | {"segment_end": INF, "time_queried": float(t)})


# ---------------------------------------------------------------- validation report and curve analysis


@pytest.mark.parametrize(
    "terms, rates, shape",
    [
        ([1, 2.5, 0.5], [0.0, -0.01, 0.0, 0.0312345678], "non_monotonic"),
        ([5, 5], [0.02, 0.03, 0.04], "increasing"),
        ([1, 2, 3], [0.05, 0.0, 0.0, -0.01], "decreasing"),
    ],
)
def test_piecewise_report_and_analysis(terms, rates, shape):
    a, low, high, length = np.array(rates), min(rates), max(rates), float(sum(terms))
    mean, std, zero, neg = float(np.mean(a)), float(np.std(a)), int(sum(a == 0)), int(sum(a < 0))
    counts = {"zero_count": zero, "negative_count": neg, "positive_count": int(np.sum(a > 0))}
    stats = counts | {"min_rate": low, "max_rate": high, "mean_rate": mean, "std_rate": std}
    stats |= {"rate_volatility": std / abs(mean), "has_zero_segments": zero > 0}
    structure = {"terms_count": len(terms), "rates_count": len(rates), "terms_valid": True, "terms_sum": length}
    structure |= {"has_gaps": False, "max_term": float(max(terms)), "min_term": float(min(terms))}
    metrics = {"curve_monotonicity": shape, "zero_segments_optimal": zero <= 1, "negative_concentration": neg / a.size}
    report = {"type": "piecewise", "structure": structure, "rates": np.round(a, 6), "rate_statistics": stats}
    same(
        pw(terms, rates).validate(), report | {"curve_policy": POLICY, "actuarial_metrics": metrics, "status": "valid"}
    )
    shape_of = {"monotonicity": shape, "zero_rate_segments": zero, "negative_rate_segments": neg, "volatility": std}
    analysis = {"type": "piecewise", "curve_policy": POLICY, "curve_length": length, "segment_count": len(terms)}
    analysis |= {"rate_range": {"min": low, "max": high, "spread": high - low}}
    analysis |= {"rate_properties": counts | {"all_finite": True}, "curve_properties": shape_of | {"mean_rate": mean}}
    factors = {f"{n}y": discount(terms, rates, n) for n in (1, 5, 10, 30)}
    same(pw(terms, rates).curve_analysis(), analysis | {"key_discount_factors": factors})


@pytest.mark.parametrize("rate, finite", [(0.0, True), (-0.005, True), (1e308, False), (NAN, False)])
def test_constant_report_and_analysis(rate, finite):
    ir = InterestRate(0.03)
    ir.rate = rate
    report = {"type": "constant", "rate": rate, "rate_properties": props(rate) | {"is_finite": finite}}
    same(ir.validate(), report | {"curve_policy": POLICY, "status": "valid"})
    if finite:
        analysis = {"type": "constant", "curve_policy": POLICY, "rate": rate}
        analysis |= {"rate_properties": props(rate) | {"absolute_value": abs(rate)}}
        same(
            ir.curve_analysis(),
            analysis | {"key_discount_factors": {"10y": (1 + rate) ** -10, "30y": (1 + rate) ** -30}},
        )


def test_multi_scenario_reports():
    box = InterestRate({"base": 0.01, "zero": 0.0, "shock": ([5, 5], [0.02, -0.01, 0.03])})
    box.active_scenario = "shock"
    report, analysis = box.validate(), box.curve_analysis()
    assert list(report) == ["scenarios", "scenario_summary", "cross_scenario_analysis"]
    assert list(report["scenarios"]) == list(analysis) == ["base", "zero", "shock"]
    assert report["scenarios"]["shock"]["curve_policy"] == POLICY  # each scenario is a single curve
    summary = {"total_scenarios": 3, "active_scenario": "shock", "scenario_names": ["base", "zero", "shock"]}
    same(report["scenario_summary"], summary)
    cross = {"total_rates": 5, "zero_count": 1, "negative_count": 1, "min_rate": -0.01, "max_rate": 0.03}
    same(report["cross_scenario_analysis"], cross | {"rate_spread": 0.03 - -0.01})
    assert analysis["shock"]["key_discount_factors"]["30y"] == pytest.approx(1.02**-5 * 0.99**-5 * 1.03**-20, rel=1e-12)
