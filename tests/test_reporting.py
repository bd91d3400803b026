"""Reporting of InterestRate: export as dict, JSON and regulatory payload, rebuilding a curve from
an export, and the text forms."""

import json
import re
from datetime import datetime

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from norvane.interest_rates import InterestRate

POLICY = {"flat_or_piecewise_discount": True, "multi_scenario_curves": False}
STAMP = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d{6})?$")


def ordered(got, want):
    """Equal, with the same key order at every level of nesting."""
    assert got == want
    if isinstance(want, dict):
        assert list(got) == list(want)
        for key in want:
            ordered(got[key], want[key])


def fresh_stamp(text):
    assert STAMP.match(text), text
    stamp = datetime.fromisoformat(text)
    assert stamp.tzinfo is None and abs((datetime.now() - stamp).total_seconds()) < 5


def build(form):
    """A curve from a number, a scenario dict or (terms, rates[, term_unit])."""
    if isinstance(form, tuple):
        return InterestRate(terms=form[0], rates=form[1], term_unit=(form + ("years",))[2])
    return InterestRate(form)


# ---------------------------------------------------------------- export


@pytest.mark.parametrize(
    "form, payload",
    [
        (0.03, {"type": "constant", "rate": 0.03}),
        (0.0123456789, {"type": "constant", "rate": 0.0123456789}),  # a constant rate is not rounded
        (([1], [0.0123456789, 0.0200004]), {"type": "piecewise", "terms": [1.0], "rates": [0.012346, 0.02]}),
        (
            ([1, 18], [0.01, 0.02, 0.03], "months"),
            {"type": "piecewise", "terms": [0.083333, 1.5], "rates": [0.01, 0.02, 0.03]},
        ),
        (
            {"base": 0.01, "stress": ([5], [0.02, 0.03])},
            {
                "base": {"type": "constant", "rate": 0.01},
                "stress": {"type": "piecewise", "terms": [5.0], "rates": [0.02, 0.03]},
            },
        ),
    ],
)
def test_export_dict_and_json(form, payload):
    curve = build(form)
    before = repr(curve), curve.copy()
    for fmt in ("dict", "xml", "", "DICT"):  # an unknown format behaves as "dict"
        ordered(curve.export(fmt), payload)
    ordered(curve.export(), payload)
    text = curve.export(format="json")
    assert isinstance(text, str) and text == json.dumps(payload, indent=2)
    ordered(json.loads(text), payload)
    assert (repr(curve), curve) == before


def test_export_regulatory_of_single_curves():
    rates = [0.0, -0.01, 0.0312345678]
    mean, std = float(np.mean(rates)), float(np.std(rates))
    stats = {"zero_count": 1, "negative_count": 1, "positive_count": 1, "min_rate": -0.01, "max_rate": 0.0312345678}
    stats |= {"mean_rate": mean, "std_rate": std, "rate_volatility": std / abs(mean), "has_zero_segments": True}
    piecewise = {"type": "piecewise", "terms": [1.0, 2.0], "rates": [0.0, -0.01, 0.031235]}
    for curve, payload, want in (
        (InterestRate(0.03), {"type": "constant", "rate": 0.03}, {}),
        (InterestRate(terms=[1, 2], rates=rates), piecewise, stats),
    ):
        reg = curve.export("regulatory")
        assert list(reg) == list(payload) + ["_regulatory_metadata"]
        meta = reg.pop("_regulatory_metadata")
        ordered(reg, payload)
        assert list(meta) == ["export_timestamp", "curve_policy", "rate_statistics"]
        fresh_stamp(meta["export_timestamp"])
        ordered(meta["curve_policy"], POLICY)
        assert list(meta["rate_statistics"]) == list(want) and meta["rate_statistics"] == pytest.approx(want, rel=1e-12)


def test_export_regulatory_of_container():
    box, active = InterestRate({"base": 0.01, "stress": ([5], [0.02, 0.03])}), "stress"
    box.active_scenario = active
    reg = box.export("regulatory")
    assert list(reg) == ["base", "stress", "_metadata"]
    ordered(reg["base"], {"type": "constant", "rate": 0.01})  # scenarios carry no metadata of their own
    ordered(reg["stress"], {"type": "piecewise", "terms": [5.0], "rates": [0.02, 0.03]})
    meta = reg["_metadata"]
    assert list(meta) == ["scenario_count", "active_scenario", "curve_policy", "export_timestamp"]
    assert meta["scenario_count"] == 2 and meta["active_scenario"] == active
    ordered(meta["curve_policy"], {"flat_or_piecewise_discount": True, "multi_scenario_curves": True})
    fresh_stamp(meta["export_timestamp"])
    assert "_metadata" not in json.loads(box.export("json")) and "_metadata" not in box.export()


# ---------------------------------------------------------------- rebuilding from an export

rate6 = st.integers(-500_000, 500_000).map(lambda k: k / 1e6)  # exactly what export's rounding keeps
term6 = st.integers(1, 40_000_000).map(lambda k: k / 1e6)
piecewise = st.lists(term6, min_size=1, max_size=6).flatmap(
    lambda terms: st.tuples(st.just(terms), st.lists(rate6, min_size=len(terms) + 1, max_size=len(terms) + 1))
)
single = st.one_of(st.floats(-0.99, 5.0, allow_nan=False), piecewise)
container = st.dictionaries(
    st.text("abcxyz", min_size=1, max_size=4).map(lambda s: "s_" + s), single, min_size=1, max_size=4
)


@settings(max_examples=40, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(st.one_of(single, container))
def test_from_export_round_trip(form):
    ir = build(form)
    for payload in (ir.export(), ir.export("json"), ir.export("regulatory")):
        back = InterestRate.from_export(payload)
        assert isinstance(back, InterestRate) and back == ir and back is not ir
        assert back.scenario_names == ir.scenario_names and back.active_scenario == ir.active_scenario
        assert back.export() == ir.export()


@pytest.mark.parametrize(
    "payload",
    [
        {"type": "unknown", "rate": 0.03},
        {"a": {"type": "constant"}},
        "not json",
        {"a": {"b": {"type": "constant", "rate": 0.01}}},
        {"a": {"type": "constant", "rate": 0.01}, "_metadata": {"active_scenario": "zzz"}},
        [{"type": "constant", "rate": 0.03}],
    ],
)
def test_from_export_refuses_malformed_payloads(payload):
    kinds = ValueError if isinstance(payload, (dict, str)) else (TypeError, ValueError)
    with pytest.raises(kinds):
        InterestRate.from_export(payload)


# ---------------------------------------------------------------- text forms


@pytest.mark.parametrize(
    "form, text, rep",
    [
        (0.0, "InterestRate: constant rate = 0.000000 (zero rate)", "InterestRate(rate=0.000000)"),
        (-0.005, "InterestRate: constant rate = -0.005000 (negative rate)", "InterestRate(rate=-0.005000)"),
        (0.0123456789, "InterestRate: constant rate = 0.012346", "InterestRate(rate=0.012346)"),
        (
            ([5, 5], [0.02, 0.03, 0.04]),
            "InterestRate: piecewise terms=[5. 5.], rates=[0.02 0.03 0.04]",
            "InterestRate(terms=[5. 5.], rates=[0.02 0.03 0.04])",
        ),
    ],
)
def test_text_forms_of_single_curves(form, text, rep):
    curve = build(form)
    assert str(curve) == text and curve.summary() == text and repr(curve) == rep


odd = st.sampled_from([0.0, 1e-7, -1e-7, 5e-7, -5e-7, 0.0000025, 1.0000005])
any_piecewise = st.lists(st.one_of(st.floats(0.001, 1e4), odd.map(abs).filter(bool)), min_size=1, max_size=14).flatmap(
    lambda terms: st.tuples(
        st.just(terms), st.lists(st.one_of(st.floats(-0.99, 10), odd), min_size=len(terms) + 1, max_size=len(terms) + 1)
    )
)


@settings(max_examples=60, deadline=None)
@given(any_piecewise)
def test_display_and_export_rounding_follow_numpy_and_python(curve):
    terms, rates = curve
    ir, a = InterestRate(terms=terms, rates=rates), np.array(rates)
    t_txt, r_txt = str(np.round(np.array(terms, dtype=float), 6)), str(np.round(a, 6))  # NumPy wraps long arrays
    zero, neg = int(np.sum(a == 0.0)), int(np.sum(a < 0.0))  # counted on the stored rates, not the rounded ones
    suffix = f" ({zero} zero, {neg} negative)" if zero or neg else ""
    assert str(ir) == f"InterestRate: piecewise terms={t_txt}, rates={r_txt}{suffix}" == ir.summary()
    assert repr(ir) == f"InterestRate(terms={t_txt}, rates={r_txt})"
    assert ir.export() == {
        "type": "piecewise",
        "terms": [round(t, 6) for t in terms],
        "rates": [round(r, 6) for r in rates],
    }


def test_text_forms_of_container():
    box = InterestRate({"base": 0.01, "shock": ([5], [0.02, -0.03])})
    lines = [
        "InterestRate scenarios: base, shock (active: base)",
        "  base: InterestRate: constant rate = 0.010000",
        "  shock: InterestRate: piecewise terms=[5.], rates=[ 0.02 -0.03] (0 zero, 1 negative)",
    ]
    assert str(box) == "\n".join(lines) == box.summary()
    assert repr(box) == "InterestRate(scenarios=['base', 'shock'], active='base')"
    box.active_scenario = "shock"
    assert str(box).split("\n")[0] == "InterestRate scenarios: base, shock (active: shock)"
    assert repr(box) == "InterestRate(scenarios=['base', 'shock'], active='shock')"
