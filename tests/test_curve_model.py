"""Curve model of InterestRate: construction and its messages, term units, scenarios, value
semantics, stored arrays, setters, prefix products, pickling and junk input."""

import copy
import itertools
import math
import operator
import pickle

import numpy as np
import pandas as pd
import pytest
from reference import exact

from norvane.config import Config
from norvane.interest_rates import InterestRate

NAN, INF = float("nan"), float("inf")
LE = "\u2264"  # the messages use the less-than-or-equal sign, not "<="
RATE_MSG = "Rate {} " + LE + " -1{}: (1+i) must be positive for discount factor computation per actuarial standards"
FINITE = "Interest rate must be finite{}, got {}. Infinite or NaN rates are not allowed in actuarial calculations."
FINITE_AT = "Interest rate must be finite at position {}{}, got {}. Infinite or NaN rates are not allowed in actuarial calculations."
TERM_AT = "Term length must be finite at position {}, got {}."
LEN_MSG = "For piecewise rates, rates must have length terms+1 (last rate applies indefinitely)"
ARGS_MSG = "Invalid arguments: provide either a float rate, terms and rates, or a dictionary of scenarios."
UNIT_MSG = "Invalid term_unit: hours. Must be one of ('years', 'months', 'weeks', 'days')"
POSITIVE, EMPTY = "All terms must be positive", "terms and rates must not be empty"
NESTED = "Nested multi-scenario InterestRate is not allowed. Add only simple scenarios (constant or piecewise)."
SCEN = " for scenario '{}'".format


def pw():
    return InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04])


def container(active="a"):
    ir = InterestRate({"a": 0.01, "b": ([1], [0.02, 0.03])})
    ir.active_scenario = active
    return ir


FORMS = {"constant": lambda: InterestRate(0.03), "piecewise": pw, "scenarios": container}


def fill_caches(ir):
    ir.get_rate(1.0), ir.delta(2.0)
    ir._ts_shift_cache[("key", 1.0, 0)] = "shifted"


def prefix(terms, rates):
    """Discount factor to the end of each segment: a running product of (1 + r)^-t."""
    return list(itertools.accumulate(((1.0 + r) ** -t for t, r in zip(terms, rates)), operator.mul))


# ---------------------------------------------------------------- construction


@pytest.mark.parametrize(
    "args, kwargs, rate, terms",
    [
        ((np.float32(0.25),), {}, 0.25, None),
        ((2**60,), {}, float(2**60), None),
        ((0.05, [1], [0.01, 0.02]), {}, None, [1.0]),  # terms with rates win over rate
        ((0.05,), {"terms": [1, 2]}, 0.05, None),  # terms without rates are ignored
    ],
)
def test_constant_and_piecewise_forms(args, kwargs, rate, terms):
    ir = InterestRate(*args, **kwargs)
    assert ir.is_constant == (terms is None) and ir.rate == rate and type(ir.rate) is type(rate)
    assert (ir.terms is None if terms is None else ir.terms.tolist() == terms) and ir.scenarios == {}


# One case per line.
# fmt: off
@pytest.mark.parametrize(
    "args, kwargs, exc, msg",
    [
        ((), {}, ValueError, ARGS_MSG),
        (("x",), {"term_unit": "hours"}, ValueError, UNIT_MSG),  # metadata is checked before anything else
        ((-1,), {}, ValueError, RATE_MSG.format("-1.0", "")),
        ((-INF,), {}, ValueError, FINITE.format("", "-inf")),  # finiteness before sign
        ((), {"terms": [], "rates": [0.01]}, ValueError, EMPTY),
        ((), {"terms": [1], "rates": 0.01}, ValueError, LEN_MSG),  # a scalar is one rate
        ((), {"terms": [12, 6, -INF], "rates": [0.1] * 4, "term_unit": "months"}, ValueError, TERM_AT.format(2, "-inf")),
        ((), {"terms": [0, NAN], "rates": [NAN] * 3}, ValueError, TERM_AT.format(1, "nan")),  # terms before rates
        ((), {"terms": [1, 1], "rates": [NAN, -2]}, ValueError, LEN_MSG),  # the length is checked with the terms
        ((), {"terms": [1], "rates": [0.01, -1.0000001]}, ValueError, RATE_MSG.format("-1.0000001", "")),
        (({1: 0.01},), {}, TypeError, "Scenario name must be a string. Found: 1"),
        (({"bad": "x", 2: 0.01},), {}, ValueError, "Invalid scenario format for 'bad': 'x'"),
        (({"a": True},), {}, ValueError, "Rate value cannot be boolean."),
        (({"a": ([1], [0.01, 0.02], "years")},), {}, ValueError, "Invalid scenario format for 'a': ([1], [0.01, 0.02], 'years')"),
        (({"ok": ([1], [0.01, 0.02]), "t": -1.0},), {}, ValueError, RATE_MSG.format("-1.0", SCEN("t"))),
        (({"s": ([1], [0.01])},), {}, ValueError, LEN_MSG),  # checked by the scenario's own constructor, no context
    ],
)
# fmt: on
def test_construction_messages(args, kwargs, exc, msg):
    with exact(exc, msg):
        InterestRate(*args, **kwargs)


def _readonly(a):
    a = np.array(a, dtype=np.float64)
    a.flags.writeable = False
    return a


VARIANTS = {
    "list": list,
    "read_only": _readonly,
    "series": lambda v: pd.Series(v, index=[3 * i + 10 for i in range(len(v))], dtype=float),
}


@pytest.mark.parametrize("make", VARIANTS.values(), ids=VARIANTS.keys())
@pytest.mark.parametrize("via_setters", [False, True])
def test_stored_arrays_are_private_read_only_f64(make, via_setters):
    terms_in, rates_in = make([1, 2]), make([0, 1, 2])
    if via_setters:
        ir = InterestRate(terms=[9, 9], rates=[0.5] * 3)
        ir.terms, ir.rates = terms_in, rates_in
    else:
        ir = InterestRate(terms=terms_in, rates=rates_in)
    for x in (terms_in, rates_in):  # the caller changing its input changes nothing
        if isinstance(x, pd.Series):
            x.iloc[:] = 7.0
        elif isinstance(x, np.ndarray):
            x.flags.writeable = x.flags.writeable or x.base is None
            if x.flags.writeable:
                x[:] = 7
    for arr, expected in ((ir.terms, [1.0, 2.0]), (ir.rates, [0.0, 1.0, 2.0])):
        assert arr.dtype == np.float64 and arr.flags.c_contiguous and arr.tolist() == expected
        assert not arr.flags.writeable
    assert ir.vn(3.0) == pytest.approx(1.0 * 2.0**-2, rel=1e-14)


# ---------------------------------------------------------------- scenario dict form


def test_scenario_dict_form():
    ir = InterestRate({"base": 0.01, "stress": ([5], [0.02, 0.03]), "list": [[6], [0, 0]]}, term_unit="months")
    assert ir.active_scenario == "base" and ir.scenario_names == ["base", "stress", "list"]
    assert ir.rate is None and ir.is_constant  # the active scenario is constant
    assert all(type(v) is InterestRate and v.scenarios == {} for v in ir.scenarios.values())
    assert ir.scenarios["stress"].terms.tolist() == pytest.approx([5 / 12], rel=1e-15) and ir.scenarios[
        "list"
    ].terms.tolist() == [0.5]


# ---------------------------------------------------------------- term units and calendar


@pytest.mark.parametrize(
    "unit, days, weeks, values, expected",
    [
        ("months", None, None, [6, 12, 1], [0.5, 1.0, 1 / 12]),
        ("days", 360.0, None, [365], [365 / 360]),
        ("weeks", None, 52.1775, [52.1775], [1.0]),
        ("weeks", 365.0, 52.0, [13], [0.25]),
    ],
)
def test_term_units(unit, days, weeks, values, expected):
    cfg = Config()
    cfg.days_per_year, cfg.weeks_per_year = days, weeks  # only the unit at hand may be consulted
    ir = InterestRate(terms=values, rates=[0.01] * (len(values) + 1), term_unit=unit)
    assert ir.terms.tolist() == pytest.approx(expected, rel=1e-15)


def test_calendar_is_read_at_conversion_time():
    Config().days_per_year = None
    assert InterestRate(0.03, term_unit="days").rate == 0.03  # a constant curve converts nothing
    with exact(ValueError, EMPTY):  # emptiness is checked before conversion
        InterestRate(terms=[], rates=[], term_unit="days")
    with exact(ValueError, "days_per_year is not configured"):
        InterestRate(terms=[365], rates=[0.1, 0.1], term_unit="days")


# ---------------------------------------------------------------- scenarios


def test_scenarios_switch_add_and_replace():
    ir = container()
    assert ir.get_rate(0.5) == 0.01
    ir.active_scenario = "b"
    assert ir.active_scenario == "b" and not ir.is_constant and ir.get_rate(0.5) == 0.02  # no stale cache
    ir.scenario_names.append("zzz")
    assert ir.scenario_names == ["a", "b"]
    with exact(ValueError, "Scenario 'zzz' not found."):
        ir.active_scenario = "zzz"
    for bad, exc, msg in (
        (0.03, TypeError, "scenario must be an InterestRate instance, got float"),
        (ir, ValueError, NESTED),
    ):
        with exact(exc, msg):
            ir.add_scenario("c", bad)
    assert ir.scenario_names == ["a", "b"] and ir.active_scenario == "b"
    one = InterestRate(0.01)
    x = InterestRate(terms=[1], rates=[0.01, 0.02])
    assert one.add_scenario("x", x) is None and one.scenarios["x"] is x and one.active_scenario == "x"
    one.add_scenario("y", InterestRate(0.05))
    z = InterestRate(0.07)
    one.add_scenario("x", z)  # replaced in place
    assert one.scenario_names == ["x", "y"] and one.active_scenario == "x" and one.get_rate(1) == 0.07
    with exact(ValueError, NESTED):  # a single curve that has grown scenarios is a container
        InterestRate(0.5).add_scenario("n", one)


# ---------------------------------------------------------------- equality, hashing, copying, pickling


def _pw(terms, rates, unit="years"):
    return lambda: InterestRate(terms=terms, rates=rates, term_unit=unit)


EQUAL = [
    (lambda: InterestRate(0), lambda: InterestRate(-0.0)),
    (_pw([6, 12], [0.01, 0.02, 0.03], "months"), _pw([0.5, 1.0], [0.01, 0.02, 0.03])),
    (lambda: container("b"), lambda: container("b")),
]
UNEQUAL = [
    (lambda: InterestRate(0.03), _pw([1], [0.03, 0.03])),
    (_pw([1], [0.01, 0.02]), _pw([2], [0.01, 0.02])),
    (container, lambda: container("b")),
    (lambda: InterestRate({"a": ([1], [0.01, 0.02])}), _pw([1], [0.01, 0.02])),
]


@pytest.mark.parametrize("make_a, make_b, equal", [(*p, True) for p in EQUAL] + [(*p, False) for p in UNEQUAL])
def test_equality_and_hash(make_a, make_b, equal):
    a, b = make_a(), make_b()
    assert (a == b, b == a, a != b) == (equal, equal, not equal)
    if equal:
        assert hash(a) == hash(b) and {a: "hit"}[b] == "hit"
    assert a.__eq__(0.03) is NotImplemented and a != None and a in [None, a]  # noqa: E711


COPIES = {"copy": lambda x: x.copy(), "deepcopy": copy.deepcopy, "pickle": lambda x: pickle.loads(pickle.dumps(x))}


@pytest.mark.parametrize("make", [*FORMS.values(), lambda: container("b")], ids=[*FORMS, "second_active"])
@pytest.mark.parametrize("how", COPIES.values(), ids=COPIES.keys())
def test_copies_are_equal_and_independent(make, how):
    ir = make()
    for i, x in enumerate([ir, *ir.scenarios.values()]):
        x._meta.description, x._meta.days_per_year = f"desk {i}", 360.0
        fill_caches(x)
    c = how(ir)
    assert type(c) is InterestRate and c is not ir and c == ir and hash(c) == hash(ir)
    assert (c.active_scenario, c.scenario_names, c.rate) == (ir.active_scenario, ir.scenario_names, ir.rate)
    assert c._meta.model_dump() == ir._meta.model_dump() and c._cache_lock is not ir._cache_lock
    for new, old in zip([c, *c.scenarios.values()], [ir, *ir.scenarios.values()], strict=True):
        assert new is not old and new._meta is not old._meta and new._rate_cache is not old._rate_cache
        if old.rates is not None:
            assert not new.rates.flags.writeable and not np.shares_memory(new.rates, old.rates)
    c._meta.description = "changed"
    if c.scenarios:
        c.add_scenario("z", InterestRate(0.1))
    else:
        c.rates = None if c.rates is None else [0.05, 0.06, 0.07]
    assert ir._meta.description == "desk 0" and "z" not in ir.scenario_names
    assert ir.rates is None or ir.rates.tolist() == [0.02, 0.03, 0.04]


# ---------------------------------------------------------------- prefix products and setters


def test_setters_store_and_refresh():
    ir = InterestRate(terms=[6, 12], rates=[0.02, 0.03, 0.04], term_unit="months")
    fill_caches(ir)
    ir.rates = np.array([0.05, 0.06, 0.07])
    assert ir.rates.tolist() == [0.05, 0.06, 0.07] and ir.get_rate(1.0) == 0.06 and not ir._ts_shift_cache
    assert ir.vn(1.5) == pytest.approx(prefix([0.5, 1.0], [0.05, 0.06])[1], rel=1e-14)
    fill_caches(ir)
    ir.terms = [1, 2]  # taken as years whatever the curve's unit
    assert ir.terms.tolist() == [1.0, 2.0] and ir.get_rate(2.0) == 0.06
    assert ir.delta(2.0) == pytest.approx(math.log(1.06), rel=1e-15) and not ir._ts_shift_cache
    assert ir.vn(3.0) == pytest.approx(prefix([1, 2], [0.05, 0.06])[1], rel=1e-14)


@pytest.mark.parametrize(
    "attr, value, exc, msg",
    [
        ("rates", [0.01, 0.02], ValueError, LEN_MSG),
        ("rates", [0.01, NAN, -2], ValueError, FINITE_AT.format(1, "", "nan")),
        ("rates", "abc", TypeError, None),
        ("terms", [1, 0], ValueError, POSITIVE),
        ("terms", [1, INF], ValueError, TERM_AT.format(1, "inf")),
    ],
)
def test_failed_assignment_leaves_curve_unchanged(attr, value, exc, msg):
    ir = pw()
    fill_caches(ir)
    names = ("_rates", "_terms", "_cum_terms", "_precomp_1pr", "_precomp_full_seg_prod", "_precomp_prefix_prod")
    before, epoch = [getattr(ir, n) for n in names], ir._shift_cache_epoch
    with pytest.raises(exc) as excinfo:
        setattr(ir, attr, value)
    assert msg is None or str(excinfo.value) == msg
    assert all(x is getattr(ir, n) for x, n in zip(before, names, strict=True)) and ir._shift_cache_epoch == epoch
    assert ir._rate_cache and ir._force_cache and ir._ts_shift_cache
