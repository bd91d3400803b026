"""Curve model of InterestRate: construction, term units, scenarios, value semantics,
rate guards, prefix products, LRU primitives, setters, pickling and junk input."""

import copy
import itertools
import math
import operator
import pickle
import re
import threading
from collections import OrderedDict
from types import SimpleNamespace as NS

import numpy as np
import pandas as pd
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from norvane.config import _ALLOWED_DAYS_PER_YEAR as DAYS
from norvane.config import _ALLOWED_WEEKS_PER_YEAR as WEEKS
from norvane.config import Config
from norvane.helpers import _EMPTY_F64
from norvane.interest_rates import InterestRate

NAN, INF = float("nan"), float("inf")
LE = "\u2264"  # the messages use the less-than-or-equal sign, not "<="
LOCK = type(threading.Lock())
RATE_MSG = "Rate {} " + LE + " -1{}: (1+i) must be positive for discount factor computation per actuarial standards"
FORCE_MSG = (
    "Cannot calculate force of interest: rate {} " + LE + " -1{} would make ln(1 + i) undefined per actuarial standards"
)
FINITE = "Interest rate must be finite{}, got {}. Infinite or NaN rates are not allowed in actuarial calculations."
FINITE_AT = "Interest rate must be finite at position {}{}, got {}. Infinite or NaN rates are not allowed in actuarial calculations."
TERM_AT = "Term length must be finite at position {}, got {}."
LEN_MSG = "For piecewise rates, rates must have length terms+1 (last rate applies indefinitely)"
ARGS_MSG = "Invalid arguments: provide either a float rate, terms and rates, or a dictionary of scenarios."
UNIT_MSG = "Invalid term_unit: hours. Must be one of ('years', 'months', 'weeks', 'days')"
RATES_1D, TERMS_1D = (f"{x} must be a one-dimensional sequence of numerics." for x in ("rates", "terms"))
POSITIVE, EMPTY = "All terms must be positive", "terms and rates must not be empty"
NESTED = "Nested multi-scenario InterestRate is not allowed. Add only simple scenarios (constant or piecewise)."
SCEN = " for scenario '{}'".format
UNKNOWN_UNIT = "Unknown term unit: {}. Valid units: years, months, weeks, days.".format


def exact(exc, msg):
    return pytest.raises(exc, match="^" + re.escape(msg) + "$")


def pw():
    return InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04])


def container(active="a"):
    ir = InterestRate({"a": 0.01, "b": ([1], [0.02, 0.03])})
    ir.active_scenario = active
    return ir


FORMS = {"constant": lambda: InterestRate(0.03), "piecewise": pw, "scenarios": container}


def fill_caches(ir):
    ir._lru_store(ir._rate_cache, 1.0, 0.5, 10)
    ir._lru_store(ir._force_cache, 2.0, 0.25, 10)
    ir._ts_shift_cache[("key", 1.0, 0)] = "shifted"


def powers(terms, rates):
    full = [(1.0 + r) ** -t for t, r in zip(terms, rates[: len(terms)], strict=True)]
    return full, list(itertools.accumulate(full, operator.mul))


# ---------------------------------------------------------------- construction


@pytest.mark.parametrize(
    "value, expected",
    [
        (0.03, 0.03),
        (np.float64(0.03), 0.03),
        (np.float32(0.25), 0.25),
        (0, 0.0),
        (np.int64(2), 2.0),
        (-0.999999, -0.999999),
        (2**60, float(2**60)),
    ],
)
def test_constant_form(value, expected):
    ir = InterestRate(value)
    assert ir.is_constant and ir._is_constant is True and type(ir.rate) is float and ir.rate == expected
    assert ir.terms is None and ir.rates is None and ir._cum_terms is None
    assert ir.scenarios == {} and ir.active_scenario is None and ir.scenario_names == []
    assert ir._precomp_1pr is None and ir._precomp_full_seg_prod.size == 0 and ir._precomp_prefix_prod.size == 0


@pytest.mark.parametrize("make", FORMS.values(), ids=FORMS.keys())
def test_fresh_private_state(make):
    a, b = make(), make()
    assert a._config is Config() and a._meta.term_unit == "years" and a._constant_delta is None
    assert (type(a._rate_cache), type(a._force_cache), type(a._ts_shift_cache)) == (OrderedDict, OrderedDict, dict)
    assert not a._rate_cache and not a._force_cache and not a._ts_shift_cache and type(a._shift_cache_epoch) is int
    assert isinstance(a._cache_lock, LOCK) and not a._cache_lock.locked() and a._rate_cache is not a._force_cache
    for name in ("_rate_cache", "_force_cache", "_ts_shift_cache", "_cache_lock", "_meta", "scenarios"):
        assert getattr(a, name) is not getattr(b, name)


def test_piecewise_form_and_argument_precedence():
    ir = pw()
    assert not ir.is_constant and ir.rate is None and ir.scenarios == {}
    assert ir.terms is ir._terms and ir.rates is ir._rates
    assert (
        ir._terms.tolist() == [5.0, 5.0]
        and ir._rates.tolist() == [0.02, 0.03, 0.04]
        and ir._cum_terms.tolist() == [5.0, 10.0]
    )
    assert InterestRate(None, [1, 1], [0.01, 0.015, 0.02], "years")._cum_terms.tolist() == [1.0, 2.0]
    both = InterestRate(0.05, [1], [0.01, 0.02])  # terms with rates win over rate
    assert not both.is_constant and both.rate is None
    assert InterestRate(0.05, terms=[1, 2]).rate == 0.05 and InterestRate(0.05, rates=[0.1, 0.2]).rates is None
    assert InterestRate(terms=[6, 12], rates=[0.01, 0.012, 0.013], term_unit="months")._terms.tolist() == [0.5, 1.0]


@pytest.mark.parametrize(
    "args, kwargs, msg",
    [
        ((), {}, ARGS_MSG),
        ((), {"terms": [1, 2]}, ARGS_MSG),
        ((), {"rates": [0.01, 0.02]}, ARGS_MSG),
        ((None,), {"term_unit": "months"}, ARGS_MSG),
        ((0.03,), {"term_unit": "hours"}, UNIT_MSG),
        (("x",), {"term_unit": "hours"}, UNIT_MSG),  # metadata is checked before anything else
        ((), {"terms": [], "rates": [], "term_unit": "hours"}, UNIT_MSG),
        ((-1,), {}, RATE_MSG.format("-1.0", "")),
        ((-1.5,), {}, RATE_MSG.format("-1.5", "")),
        ((np.float64(-3),), {}, RATE_MSG.format("-3.0", "")),
        ((NAN,), {}, FINITE.format("", "nan")),
        ((INF,), {}, FINITE.format("", "inf")),
        ((-INF,), {}, FINITE.format("", "-inf")),  # finiteness before sign
        ((), {"terms": [], "rates": []}, EMPTY),
        ((), {"terms": [], "rates": [0.01]}, EMPTY),
        ((), {"terms": [1], "rates": []}, EMPTY),
        ((), {"terms": [1, 1], "rates": [0.01, 0.02]}, LEN_MSG),
        ((), {"terms": [1], "rates": [0.01, 0.02, 0.03]}, LEN_MSG),
        ((), {"terms": [1], "rates": 0.01}, LEN_MSG),  # a scalar is one rate
        ((), {"terms": [1], "rates": [[0.01, 0.02]]}, RATES_1D),
        ((), {"terms": [1, 0], "rates": [0.01] * 3}, POSITIVE),
        ((), {"terms": [1, -2], "rates": [0.01] * 3}, POSITIVE),
        ((), {"terms": [1, NAN], "rates": [0.1] * 3}, TERM_AT.format(1, "nan")),
        ((), {"terms": [INF], "rates": [0.1] * 2}, TERM_AT.format(0, "inf")),
        ((), {"terms": [12, 6, -INF], "rates": [0.1] * 4, "term_unit": "months"}, TERM_AT.format(2, "-inf")),
        ((), {"terms": [0, NAN], "rates": [NAN] * 3}, TERM_AT.format(1, "nan")),  # terms before rates
        ((), {"terms": [0, 1], "rates": [NAN, 0.1, 0.1]}, POSITIVE),
        ((), {"terms": [1, 1], "rates": [NAN, -2]}, LEN_MSG),  # the length is checked with the terms
        ((), {"terms": [1, 1], "rates": [0.01, -2, NAN]}, FINITE_AT.format(2, "", "nan")),
        ((), {"terms": [1, 1], "rates": [0.01, -1, -2]}, RATE_MSG.format("-1.0", "")),
        ((), {"terms": [1], "rates": [-1.25, INF]}, FINITE_AT.format(1, "", "inf")),
        ((), {"terms": [1], "rates": [0.01, -1.0000001]}, RATE_MSG.format("-1.0000001", "")),
    ],
)
def test_construction_messages(args, kwargs, msg):
    with exact(ValueError, msg):
        InterestRate(*args, **kwargs)


def _scribble(x):
    if isinstance(x, pd.Series):
        x.iloc[:] = 7.0
    elif isinstance(x, np.ndarray):
        if x.base is None:
            x.flags.writeable = True  # a read-only input may be made writeable again by its owner
        x[:] = 7


def _readonly(a):
    a = np.array(a, dtype=np.float64)
    a.flags.writeable = False
    return a


VARIANTS = {
    "list": list,
    "tuple": tuple,
    "f64": lambda v: np.array(v, dtype=np.float64),
    "f32": lambda v: np.array(v, dtype=np.float32),
    "i64": lambda v: np.array(v, dtype=np.int64),
    "u8": lambda v: np.array(v, dtype=np.uint8),
    "big_endian": lambda v: np.array(v, dtype=">f8"),
    "read_only": _readonly,
    "strided": lambda v: np.repeat(np.array(v, dtype=np.float64), 2)[::2],
    "series": lambda v: pd.Series(v, index=[3 * i + 10 for i in range(len(v))], dtype=float),
    "int_series": lambda v: pd.Series(v, dtype="int64"),
    "reversed": lambda v: np.array(v[::-1], dtype=np.float64)[::-1],
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
    _scribble(terms_in)
    _scribble(rates_in)
    for arr, expected in ((ir.terms, [1.0, 2.0]), (ir.rates, [0.0, 1.0, 2.0]), (ir._cum_terms, [1.0, 3.0])):
        assert arr.dtype == np.float64 and arr.ndim == 1 and arr.flags.c_contiguous and arr.tolist() == expected
    assert not ir.terms.flags.writeable and not ir.rates.flags.writeable
    with pytest.raises(ValueError):
        ir.rates[0] = 0.5


# ---------------------------------------------------------------- scenario dict form


def test_scenario_dict_form():
    ir = InterestRate(
        {
            "base": 0.01,
            "stress": ([5], [0.02, 0.03]),
            "np": np.float64(0.02),
            "zero": 0,
            "list": [[1, 2], [0.01, 0.02, 0.03]],
        },
        terms=[1],
        rates=[0.5, 0.5],
    )
    assert ir.active_scenario == "base" and ir.scenario_names == ["base", "stress", "np", "zero", "list"]
    assert ir.rate is None and ir._terms is None and ir._rates is None and ir._is_constant is False
    assert ir.is_constant  # the active scenario is constant
    s = ir.scenarios
    assert all(type(v) is InterestRate and v.scenarios == {} for v in s.values())
    assert [type(s[k].rate) for k in ("base", "np", "zero")] == [float] * 3 and s["zero"].rate == 0.0
    assert s["stress"]._terms.tolist() == [5.0] and s["stress"]._rates.tolist() == [0.02, 0.03]
    assert s["list"]._cum_terms.tolist() == [1.0, 3.0]
    months = InterestRate({"s": ([6, 12], [0.01, 0.012, 0.013])}, term_unit="months").scenarios["s"]
    assert months._terms.tolist() == [0.5, 1.0] and months._meta.term_unit == "months"


@pytest.mark.parametrize(
    "scenarios, exc, msg",
    [
        ({1: 0.01}, TypeError, "Scenario name must be a string. Found: 1"),
        ({None: True}, TypeError, "Scenario name must be a string. Found: None"),
        ({"ok": 0.01, 2: "x"}, TypeError, "Scenario name must be a string. Found: 2"),
        ({"bad": "x", 2: 0.01}, ValueError, "Invalid scenario format for 'bad': 'x'"),
        ({"a": True}, ValueError, "Rate value cannot be boolean."),
        ({}, StopIteration, None),
        ({"a": np.bool_(True)}, ValueError, "Invalid scenario format for 'a': " + repr(np.bool_(True))),
        ({"a": None}, ValueError, "Invalid scenario format for 'a': None"),
        (
            {"a": ([1], [0.01, 0.02], "years")},
            ValueError,
            "Invalid scenario format for 'a': ([1], [0.01, 0.02], 'years')",
        ),
        ({"a": {"b": 0.01}}, ValueError, "Invalid scenario format for 'a': {'b': 0.01}"),
        ({"a": NAN}, ValueError, FINITE.format(SCEN("a"), "nan")),
        ({"a": -INF}, ValueError, FINITE.format(SCEN("a"), "-inf")),
        ({"a": -1}, ValueError, RATE_MSG.format("-1.0", SCEN("a"))),
        ({"a": np.float32(-2)}, ValueError, RATE_MSG.format("-2.0", SCEN("a"))),
        ({"ok": ([1], [0.01, 0.02]), "t": -1.0}, ValueError, RATE_MSG.format("-1.0", SCEN("t"))),
        ({"s": ([1], [0.01, INF])}, ValueError, FINITE_AT.format(1, SCEN("s"), "inf")),
        ({"s": ([1], [0.01, -1.5])}, ValueError, RATE_MSG.format("-1.5", SCEN("s"))),
        ({"s": ([1], [[0.01, 0.02]])}, ValueError, RATES_1D),
        ({"s": ([1], [0.01])}, ValueError, LEN_MSG),  # checked by the scenario's own constructor, no context
        ({"s": ([0], [0.01, 0.02])}, ValueError, POSITIVE),
    ],
)
def test_scenario_dict_messages(scenarios, exc, msg):
    with exact(exc, msg) if msg else pytest.raises(exc):
        InterestRate(scenarios)


# ---------------------------------------------------------------- term units and configuration


@pytest.mark.parametrize(
    "unit, cfg_value, override, values, expected",
    [
        ("years", None, None, [0.5, 2], [0.5, 2.0]),
        ("months", None, None, [6, 12, 1], [0.5, 1.0, 1 / 12]),
        ("days", 365.0, None, [365, 730], [1.0, 2.0]),
        ("days", 360.0, None, [365], [365 / 360]),
        ("days", 365.25, None, [365.25], [1.0]),
        ("days", None, 360.0, [180], [0.5]),
        ("days", 365.25, 365.0, [730], [2.0]),
        ("weeks", 52.1775, None, [52.1775], [1.0]),
        ("weeks", 52.0, None, [26], [0.5]),
        ("weeks", None, 52.0, [13], [0.25]),
    ],
)
def test_to_years(unit, cfg_value, override, values, expected):
    cfg = Config()
    cfg.days_per_year = cfg.weeks_per_year = None  # only the unit at hand may be consulted
    ir = InterestRate(0.03)
    if unit in ("days", "weeks"):
        setattr(cfg, f"{unit}_per_year", cfg_value)
        setattr(ir._meta, f"{unit}_per_year", override)
    src = np.array(values, dtype=np.float64)
    out = ir._to_years(src, unit)
    assert out.dtype == np.float64 and out.tolist() == pytest.approx(expected, rel=1e-15)
    assert not np.shares_memory(out, src) and src.tolist() == values


@pytest.mark.parametrize(
    "unit, cfg_days, cfg_weeks, dpy, wpy, expected",
    [
        ("years", None, None, None, None, 1.0),
        ("months", None, None, None, None, 1.0 / 12),
        ("days", 360.0, None, None, None, 1.0 / 360),
        ("days", None, None, 365.0, None, 1.0 / 365),
        ("days", 360.0, None, 365.25, None, 1.0 / 365.25),
        ("weeks", None, 52.0, None, None, 1.0 / 52),
        ("weeks", None, None, None, 52.1775, 1.0 / 52.1775),
        ("days", None, 52.0, None, None, "days_per_year is not configured"),
        ("weeks", 365.0, None, None, None, "weeks_per_year is not configured"),
        ("days", 300.0, 52.0, None, None, f"days_per_year must be one of {DAYS}, got 300.0"),
        ("days", 365.0, 52.0, 364.0, None, f"days_per_year must be one of {DAYS}, got 364.0"),
        ("weeks", 365.0, 53.0, None, None, f"weeks_per_year must be one of {WEEKS}, got 53.0"),
        ("weeks", 365.0, 52.0, None, 12.0, f"weeks_per_year must be one of {WEEKS}, got 12.0"),
        ("hours", 365.0, 52.0, None, None, UNKNOWN_UNIT("hours")),
        ("Years", 365.0, 52.0, None, None, UNKNOWN_UNIT("Years")),
    ],
)
def test_term_unit_factor(unit, cfg_days, cfg_weeks, dpy, wpy, expected):
    args = (unit, NS(days_per_year=cfg_days, weeks_per_year=cfg_weeks), dpy, wpy)
    if isinstance(expected, str):
        with exact(ValueError, expected):
            InterestRate._get_term_unit_factor(*args)
    else:
        got = InterestRate._get_term_unit_factor(*args)
        assert type(got) is float and got == expected


def test_calendar_is_read_at_conversion_time():
    cfg = Config()
    cfg.days_per_year = cfg.weeks_per_year = None
    assert InterestRate(0.03, term_unit="days").rate == 0.03  # a constant curve converts nothing
    assert InterestRate(terms=[6], rates=[0.1, 0.1], term_unit="months")._terms.tolist() == [0.5]
    with exact(ValueError, "days_per_year is not configured"):
        InterestRate(terms=[365], rates=[0.1, 0.1], term_unit="days")
    with exact(ValueError, "weeks_per_year is not configured"):
        InterestRate({"s": ([52], [0.1, 0.1])}, term_unit="weeks")
    with exact(ValueError, EMPTY):  # emptiness is checked before conversion
        InterestRate(terms=[], rates=[], term_unit="days")
    with exact(ValueError, UNKNOWN_UNIT("hours")):
        InterestRate(0.03)._to_years([1], "hours")
    cfg.days_per_year = 365.0
    assert InterestRate(terms=[365], rates=[0.1, 0.1], term_unit="days")._terms.tolist() == [1.0]


def test_config_backed_properties():
    cfg, ir = Config(), InterestRate(0.03)
    twin = ir.copy()
    assert (ir.days_per_year, ir.weeks_per_year, ir.calculation_mode) == (
        cfg.days_per_year,
        cfg.weeks_per_year,
        cfg.calculation_mode,
    )
    cfg.days_per_year, cfg.weeks_per_year, cfg.calculation_mode = 360.0, 52.0, "continuous_simplified"
    for x in (ir, twin):
        assert (x.days_per_year, x.weeks_per_year, x.calculation_mode) == (360.0, 52.0, "continuous_simplified")
    ir._meta.days_per_year, ir._meta.weeks_per_year, ir._meta.calculation_mode = 365.0, 52.1775, "discrete_simplified"
    assert (ir.days_per_year, ir.weeks_per_year, ir.calculation_mode) == (365.0, 52.1775, "discrete_simplified")
    assert twin.days_per_year == 360.0
    for name in ("days_per_year", "weeks_per_year", "calculation_mode", "is_constant", "scenario_names"):
        with pytest.raises(AttributeError):
            setattr(ir, name, getattr(ir, name))


# ---------------------------------------------------------------- scenarios


def test_active_scenario_switch():
    ir = container()
    fill_caches(ir)
    epoch = ir._shift_cache_epoch
    ir.active_scenario = "a"  # already active: nothing is dropped
    assert len(ir._rate_cache) == 1 and ir._ts_shift_cache and ir._shift_cache_epoch == epoch
    ir.active_scenario = "b"
    assert ir.active_scenario == "b" and not ir.is_constant and ir._shift_cache_epoch == epoch + 1
    assert not ir._rate_cache and not ir._force_cache and not ir._ts_shift_cache
    ir.scenario_names.append("zzz")
    assert ir.scenario_names == ["a", "b"]


@pytest.mark.parametrize(
    "make, name",
    [(container, "zzz"), (container, "A"), (container, 1), (container, None), (FORMS["constant"], "a"), (pw, "base")],
)
def test_unknown_scenario(make, name):
    ir = make()
    before = ir.active_scenario
    with exact(ValueError, f"Scenario '{name}' not found."):
        ir.active_scenario = name
    assert ir.active_scenario == before


def test_add_scenario():
    ir = InterestRate(0.01)
    fill_caches(ir)
    epoch = ir._shift_cache_epoch
    x = InterestRate(terms=[1], rates=[0.01, 0.02])
    assert ir.add_scenario("x", x) is None
    assert ir.scenarios["x"] is x and ir.active_scenario == "x" and not ir.is_constant and ir.rate == 0.01
    assert ir._shift_cache_epoch == epoch + 1 and not ir._rate_cache and not ir._force_cache and not ir._ts_shift_cache
    ir.add_scenario("y", InterestRate(0.05))
    z = InterestRate(0.07)
    ir.add_scenario("x", z)  # replaced in place
    assert ir.scenario_names == ["x", "y"] and ir.active_scenario == "x" and ir.scenarios["x"] is z and ir.is_constant
    with exact(ValueError, NESTED):  # a single curve that has grown scenarios is a container
        InterestRate(0.5).add_scenario("n", ir)


@pytest.mark.parametrize(
    "make, exc, msg",
    [
        (lambda: 0.03, TypeError, "scenario must be an InterestRate instance, got float"),
        (lambda: "0.03", TypeError, "scenario must be an InterestRate instance, got str"),
        (lambda: None, TypeError, "scenario must be an InterestRate instance, got NoneType"),
        (lambda: {"c": 0.02}, TypeError, "scenario must be an InterestRate instance, got dict"),
        (lambda: InterestRate({"c": 0.02}), ValueError, NESTED),
    ],
)
def test_add_scenario_rejects(make, exc, msg):
    ir = InterestRate({"a": 0.01})
    epoch = ir._shift_cache_epoch
    with exact(exc, msg):
        ir.add_scenario("b", make())
    assert ir.scenario_names == ["a"] and ir.active_scenario == "a" and ir._shift_cache_epoch == epoch


# ---------------------------------------------------------------- equality, hashing, copying


def _pw(terms, rates, unit="years"):
    return lambda: InterestRate(terms=terms, rates=rates, term_unit=unit)


EQUAL = [
    (lambda: InterestRate(0.03), lambda: InterestRate(np.float64(0.03))),
    (lambda: InterestRate(0), lambda: InterestRate(-0.0)),
    (_pw([6, 12], [0.01, 0.02, 0.03], "months"), _pw([0.5, 1.0], [0.01, 0.02, 0.03])),
    (_pw([1], [0.0, 0.01]), _pw([1], [-0.0, 0.01])),
    (container, container),
    (lambda: container("b"), lambda: container("b")),
]
UNEQUAL = [
    (lambda: InterestRate(0.03), lambda: InterestRate(0.031)),
    (lambda: InterestRate(0.03), _pw([1], [0.03, 0.03])),
    (_pw([1], [0.01, 0.02]), _pw([1], [0.01, 0.03])),
    (_pw([1], [0.01, 0.02]), _pw([2], [0.01, 0.02])),
    (_pw([1], [0.01, 0.02]), _pw([1, 1], [0.01, 0.02, 0.02])),
    (container, lambda: container("b")),
    (lambda: InterestRate({"a": 0.01}), lambda: InterestRate({"b": 0.01})),
    (lambda: InterestRate({"a": 0.01}), lambda: InterestRate(0.01)),
    (lambda: InterestRate({"a": ([1], [0.01, 0.02])}), _pw([1], [0.01, 0.02])),
]


@pytest.mark.parametrize("make_a, make_b, equal", [(*p, True) for p in EQUAL] + [(*p, False) for p in UNEQUAL])
def test_equality_and_hash(make_a, make_b, equal):
    a, b = make_a(), make_b()
    assert (a == b, b == a, a != b, b != a) == (equal, equal, not equal, not equal)
    if equal:
        assert hash(a) == hash(b) and {a: "hit"}[b] == "hit"
    assert a.__eq__(0.03) is NotImplemented and a != 0.03 and not a == "x"
    assert a.__eq__(None) is NotImplemented and a != None and None != a and a in [None, a]  # noqa: E711


@pytest.mark.parametrize("make", FORMS.values(), ids=FORMS.keys())
@pytest.mark.parametrize("how", [lambda x: x.copy(), copy.deepcopy], ids=["copy", "deepcopy"])
def test_deep_copy(make, how):
    ir = make()
    fill_caches(ir)
    c = how(ir)
    assert type(c) is InterestRate and c is not ir and c == ir and hash(c) == hash(ir)
    assert c._config is ir._config and isinstance(c._cache_lock, LOCK) and c._cache_lock is not ir._cache_lock
    for name in ("_meta", "_rate_cache", "_force_cache", "_ts_shift_cache", "scenarios"):
        assert getattr(c, name) is not getattr(ir, name)
    assert (
        c._rate_cache == {1.0: 0.5}
        and c._force_cache == {2.0: 0.25}
        and c._ts_shift_cache == {("key", 1.0, 0): "shifted"}
    )
    assert c._meta.model_dump() == ir._meta.model_dump() and c._shift_cache_epoch == ir._shift_cache_epoch
    assert c.active_scenario == ir.active_scenario and c.scenario_names == ir.scenario_names
    for name, scen in c.scenarios.items():
        assert scen is not ir.scenarios[name] and scen == ir.scenarios[name]
    for name in ("_terms", "_rates", "_cum_terms"):
        if getattr(ir, name) is not None:
            assert not np.shares_memory(getattr(c, name), getattr(ir, name))


def test_copies_are_independent_and_keep_shared_objects_shared():
    ir, cont = pw(), container()
    c, cc = ir.copy(), cont.copy()
    c.rates, c._meta.description, cc.active_scenario = [0.05, 0.06, 0.07], "copy", "b"
    cc.add_scenario("z", InterestRate(0.1))
    assert ir.rates.tolist() == [0.02, 0.03, 0.04] and ir._meta.description is None
    assert ir._precomp_prefix_prod[-1] == pytest.approx(1.02**-5 * 1.03**-5, rel=1e-14)
    assert cont.active_scenario == "a" and cont.scenario_names == ["a", "b"]
    shared = InterestRate(0.02)
    cont.add_scenario("x", shared)
    cont.add_scenario("y", shared)
    dup = cont.copy()
    assert dup.scenarios["x"] is dup.scenarios["y"] and dup.scenarios["x"] is not shared
    pair = copy.deepcopy([cont, cont])
    assert pair[0] is pair[1]


@pytest.mark.parametrize(
    "call, waits",
    [
        (lambda ir: ir._lru_store(ir._rate_cache, 1.0, 2.0, 4), True),
        (lambda ir: ir._lru_touch_get(ir._rate_cache, 1.0), True),
        (lambda ir: ir._clear_lru_caches(), True),
        (lambda ir: ir.copy(), False),
    ],
    ids=["store", "touch_get", "clear", "copy"],
)
def test_lock_discipline(call, waits):
    ir = pw()
    done = threading.Event()
    with ir._cache_lock:
        threading.Thread(target=lambda: (call(ir), done.set()), daemon=True).start()
        assert done.wait(0.05 if waits else 2.0) is not waits
    assert done.wait(2.0)


# ---------------------------------------------------------------- pickling


def _with_meta(make):
    ir = make()
    for i, x in enumerate([ir, *ir.scenarios.values()]):
        x._meta.description, x._meta.cache_maxsize, x._meta.days_per_year = f"desk {i}", 7 + i, 360.0
        x._meta.calculation_mode = "continuous_precision"
        fill_caches(x)
    return ir


@pytest.mark.parametrize("make", [*FORMS.values(), lambda: container("b")], ids=[*FORMS, "second_active"])
@pytest.mark.parametrize("protocol", [2, pickle.HIGHEST_PROTOCOL])
def test_pickle_round_trip(make, protocol):
    ir = _with_meta(make)
    r = pickle.loads(pickle.dumps(ir, protocol))
    assert type(r) is InterestRate and r is not ir and r == ir and hash(r) == hash(ir)
    assert (r.active_scenario, r.scenario_names, r.rate, r.is_constant) == (
        ir.active_scenario,
        ir.scenario_names,
        ir.rate,
        ir.is_constant,
    )
    for new, old in zip([r, *r.scenarios.values()], [ir, *ir.scenarios.values()], strict=True):
        assert new._meta.model_dump() == old._meta.model_dump() and new._config is Config()
        assert len(new._rate_cache) == len(new._force_cache) == 0 and new._ts_shift_cache == {}
        assert (
            isinstance(new._cache_lock, LOCK)
            and new._cache_lock is not old._cache_lock
            and not new._cache_lock.locked()
        )
        for name in ("_terms", "_rates", "_cum_terms"):
            arr = getattr(new, name)
            if arr is not None:
                assert (
                    arr.tolist() == getattr(old, name).tolist() and arr.dtype == np.float64 and not arr.flags.writeable
                )


# ---------------------------------------------------------------- validators and rate guards

GUARD_CASES = [  # (rate, shown by the discount guard, shown by the force guard)
    (-1, "-1.0", "-1"),
    (-1.0, "-1.0", "-1.0"),
    (-1.5, "-1.5", "-1.5"),
    (np.int64(-2), "-2.0", "-2"),
    (np.float64(-1.25), "-1.25", "-1.25"),
    (-1e20, "-1e+20", "-1e+20"),
    (-INF, "-inf", "-inf"),
]


@pytest.mark.parametrize("context", ["", " at t=2.5"])
@pytest.mark.parametrize("rate, discount_shown, force_shown", GUARD_CASES)
def test_rate_guards_refuse(rate, discount_shown, force_shown, context):
    with exact(ValueError, RATE_MSG.format(discount_shown, context)):
        InterestRate._validate_rate_for_discount(rate, context)
    with exact(ValueError, FORCE_MSG.format(force_shown, context)):
        InterestRate._validate_rate_for_force(rate, context)


@pytest.mark.parametrize("rate", [-0.999999, 0, -0.0, 0.05, 7, np.float32(0.5), np.int64(3), INF, NAN])
def test_rate_guards_pass(rate):
    assert InterestRate._validate_rate_for_force(rate, " ctx") is None  # NaN passes this guard only
    if math.isnan(rate):
        with exact(ValueError, RATE_MSG.format("nan", "")):
            InterestRate._validate_rate_for_discount(rate)
    else:
        assert InterestRate._validate_rate_for_discount(rate) is None


@pytest.mark.parametrize(
    "rate, context, exc, msg",
    [
        ("0.1", "", TypeError, "Interest rate must be numeric, got str"),
        (None, SCEN("x"), TypeError, "Interest rate must be numeric for scenario 'x', got NoneType"),
        ([0.1], "", TypeError, "Interest rate must be numeric, got list"),
        (True, "", TypeError, "Interest rate must be numeric, got bool"),
        (NAN, "", ValueError, FINITE.format("", "nan")),
        (-INF, " ctx", ValueError, FINITE.format(" ctx", "-inf")),
        (np.float32("inf"), "", ValueError, FINITE.format("", "inf")),
        pytest.param(10**400, "", ValueError, FINITE.format("", str(10**400)), id="huge_int"),
        pytest.param(-(10**400), "", ValueError, FINITE.format("", str(-(10**400))), id="huge_negative_int"),
    ],
)
def test_rate_value_validator(rate, context, exc, msg):
    with exact(exc, msg):
        InterestRate._validate_rate_value(rate, context)
    for fine in (-1, -5.0, 0, np.int64(5), np.float16(0.5), 2**80):  # kind and finiteness only
        assert InterestRate._validate_rate_value(fine, context) is None


def test_array_validators_called_directly():
    InterestRate._validate_rates_array(np.array([0.01, 0.02]), terms_len=1)
    InterestRate._validate_terms_array(np.array([1.0]), rates_len=2)
    with exact(ValueError, RATE_MSG.format("-3.0", " ctx")):  # the context goes right after the bound
        InterestRate._validate_rates_array(np.array([-3.0]), None, " ctx")
    with exact(ValueError, RATES_1D):
        InterestRate._validate_rates_array(np.array(0.1))
    with pytest.raises(TypeError):
        InterestRate._validate_rates_array(np.array([0.01]), terms_len="0")
    with pytest.raises(TypeError):
        InterestRate._validate_terms_array(np.array([1.0]), rates_len="2")


# ---------------------------------------------------------------- prefix products and cache maintenance


@pytest.mark.parametrize(
    "kwargs, years",
    [
        ({"terms": [5, 5], "rates": [0.02, 0.03, 0.04]}, [5, 5]),
        ({"terms": [6, 18], "rates": [0.12, 0.06, 0.01], "term_unit": "months"}, [0.5, 1.5]),
        ({"terms": [2.5], "rates": [-0.5, 0.0]}, [2.5]),
    ],
)
def test_prefix_products_closed_form(kwargs, years):
    ir = InterestRate(**kwargs)
    full, prefix = powers(years, kwargs["rates"])
    assert ir._precomp_1pr.tolist() == [1.0 + r for r in kwargs["rates"]]
    assert ir._precomp_full_seg_prod.tolist() == pytest.approx(full, rel=1e-14)
    assert ir._precomp_prefix_prod.tolist() == pytest.approx(prefix, rel=1e-14)


@settings(max_examples=60, deadline=None)
@given(st.lists(st.tuples(st.floats(0.01, 40), st.floats(-0.9, 1.0)), min_size=1, max_size=6), st.floats(-0.9, 1.0))
def test_prefix_products_match_products_of_powers(segments, last_rate):
    terms, rates = [t for t, _ in segments], [r for _, r in segments] + [last_rate]
    ir = InterestRate(terms=terms, rates=rates)
    full, prefix = powers(terms, rates)
    assert ir._precomp_full_seg_prod.tolist() == pytest.approx(full, rel=1e-12)
    assert ir._precomp_prefix_prod.tolist() == pytest.approx(prefix, rel=1e-11)
    assert ir._cum_terms.tolist() == pytest.approx(list(itertools.accumulate(terms)), rel=1e-12)
    assert len(ir._precomp_1pr) == len(rates) and ir._precomp_1pr[-1] == 1.0 + last_rate


def test_constant_curve_has_no_products():
    ir = InterestRate(0.03)
    ir._recompute_prefix_products()
    assert ir._precomp_1pr is None and ir._precomp_full_seg_prod is _EMPTY_F64 and ir._precomp_prefix_prod is _EMPTY_F64


def test_invalidate_and_bump():
    ir = pw()
    fill_caches(ir)
    epoch, shift, rc, fc = ir._shift_cache_epoch, ir._ts_shift_cache, ir._rate_cache, ir._force_cache
    ir._bump_ts_shift_cache()  # drops the shifted curves only
    assert ir._shift_cache_epoch == epoch + 1 and ir._ts_shift_cache is shift and shift == {}
    assert rc == {1.0: 0.5} and ir._precomp_prefix_prod.size == 2
    fill_caches(ir)
    ir._invalidate_caches()
    assert ir._shift_cache_epoch == epoch + 2 and ir._ts_shift_cache is shift and shift == {}
    assert ir._rate_cache is rc and ir._force_cache is fc and not rc and not fc
    assert ir._precomp_1pr is None and ir._precomp_full_seg_prod.size == 0 and ir._precomp_prefix_prod.size == 0
    assert ir._rates.tolist() == [0.02, 0.03, 0.04] and ir._cum_terms.tolist() == [5.0, 10.0]
    ir._recompute_prefix_products()
    assert ir._precomp_prefix_prod.tolist() == pytest.approx(powers([5, 5], [0.02, 0.03])[1], rel=1e-14)


def test_clear_lru_caches_restores_a_missing_lock():
    ir = pw()
    fill_caches(ir)
    epoch = ir._shift_cache_epoch
    ir._cache_lock = None
    ir._clear_lru_caches()
    assert (
        isinstance(ir._cache_lock, LOCK) and not ir._cache_lock.locked() and not ir._rate_cache and not ir._force_cache
    )
    assert ir._ts_shift_cache and ir._shift_cache_epoch == epoch
    ir._cache_lock = None
    ir.rates = [0.05, 0.06, 0.07]  # the setter clears through the same path
    assert isinstance(ir._cache_lock, LOCK)


# ---------------------------------------------------------------- LRU primitives


def test_lru_eviction_and_touch_order():
    ir, c = InterestRate(0.03), OrderedDict()
    ir._lru_store(c, 1, 10, 2)
    ir._lru_store(c, 2.0, 20.0, 2)
    got = ir._lru_touch_get(c, 1)
    ir._lru_store(c, 3, 30, 2)
    assert got == 10.0 and type(got) is float and list(c.items()) == [(1.0, 10.0), (3.0, 30.0)]
    assert all(type(k) is float and type(v) is float for k, v in c.items())
    ir._lru_store(c, 1.0, 99, 2)  # present: neither replaced nor moved, nothing evicted
    assert list(c.items()) == [(1.0, 10.0), (3.0, 30.0)]
    ir._lru_store(c, 4, 40, 3)
    assert ir._lru_touch_get(c, 99.0) is None and list(c) == [1.0, 3.0, 4.0]
    assert ir._lru_touch_get(c, np.float32(3)) == 30.0 and list(c) == [1.0, 4.0, 3.0]


def test_lru_keys_compare_as_floats_and_bounds():
    ir, c = InterestRate(0.03), OrderedDict()
    ir._lru_store(c, np.float64(0.0), np.int64(4), 5)
    assert ir._lru_touch_get(c, -0.0) == 4.0 and ir._lru_touch_get(c, 0) == 4.0 and len(c) == 1
    for value in (1, 2, 3):
        ir._lru_store(c, NAN, value, 3)  # a NaN key never matches, so each store adds an entry
    assert ir._lru_touch_get(c, NAN) is None and list(c.values()) == [1.0, 2.0, 3.0]
    big = OrderedDict((float(k), float(k)) for k in range(5))
    ir._lru_store(big, 9, 9, 3)  # exactly one eviction per store, even above the bound
    assert list(big) == [1.0, 2.0, 3.0, 4.0, 9.0]
    d = OrderedDict()
    for k in range(4):
        ir._lru_store(d, k, k, 2.7)  # a fractional bound is truncated to 2
    assert list(d) == [2.0, 3.0]


@pytest.mark.parametrize(
    "key, value, maxsize, exc",
    [
        ("a", 1, 2, TypeError),
        (1, "b", 2, TypeError),
        (None, 1, 2, TypeError),
        (1, None, 2, TypeError),
        (1, 1, "2", TypeError),
        (1, 1, None, TypeError),
        (1, 1, 0, KeyError),
        (1, 1, -1, KeyError),
    ],
)
def test_lru_errors_release_the_lock(key, value, maxsize, exc):
    ir, c = InterestRate(0.03), OrderedDict()
    with pytest.raises(exc):
        ir._lru_store(c, key, value, maxsize)
    assert len(c) == 0 and not ir._cache_lock.locked()
    with pytest.raises(TypeError):
        ir._lru_touch_get(c, "a")
    assert not ir._cache_lock.locked()


# ---------------------------------------------------------------- rates and terms setters


def test_setters_store_and_refresh():
    ir = InterestRate(terms=[6, 12], rates=[0.02, 0.03, 0.04], term_unit="months")
    fill_caches(ir)
    epoch, shift = ir._shift_cache_epoch, ir._ts_shift_cache
    ir.rates = np.array([0.05, 0.06, 0.07])
    assert ir.rates is ir._rates and ir._precomp_1pr.tolist() == [1.05, 1.06, 1.07]
    assert ir._precomp_prefix_prod.tolist() == pytest.approx(powers([0.5, 1.0], [0.05, 0.06])[1], rel=1e-14)
    assert ir._shift_cache_epoch == epoch + 1 and ir._ts_shift_cache is shift and not shift and not ir._rate_cache
    fill_caches(ir)
    ir.terms = [1, 2]  # taken as years whatever the curve's unit
    assert ir.terms is ir._terms and ir._terms.tolist() == [1.0, 2.0] and ir._cum_terms.tolist() == [1.0, 3.0]
    assert ir._precomp_prefix_prod.tolist() == pytest.approx(powers([1, 2], [0.05, 0.06])[1], rel=1e-14)
    assert ir._shift_cache_epoch == epoch + 2 and not ir._force_cache and not ir._ts_shift_cache


def test_setting_none_clears_asymmetrically():
    a, b = pw(), pw()
    epoch = a._shift_cache_epoch
    a.rates = None
    assert a.rates is None and a._terms.tolist() == [5.0, 5.0] and a._cum_terms.tolist() == [5.0, 10.0]
    assert a._precomp_1pr is None and a._precomp_prefix_prod.size == 0 and a._shift_cache_epoch == epoch + 1
    with exact(ValueError, LEN_MSG):
        a.rates = [0.01, 0.02]
    a.rates = [0.01, 0.02, 0.03]
    assert a._precomp_prefix_prod.tolist() == pytest.approx(powers([5, 5], [0.01, 0.02])[1], rel=1e-14)
    b.terms = None
    assert b.terms is None and b._cum_terms is None and b._shift_cache_epoch == epoch + 1
    assert b._precomp_1pr.tolist() == [1.02, 1.03, 1.04] and b._precomp_full_seg_prod.size == 0
    with exact(ValueError, LEN_MSG):
        b.terms = [1, 2, 3]
    b.terms = [1, 2]
    assert b._cum_terms.tolist() == [1.0, 3.0] and b._precomp_prefix_prod.size == 2


@pytest.mark.parametrize(
    "attr, value, exc, msg",
    [
        ("rates", [0.01, 0.02], ValueError, LEN_MSG),
        ("rates", [0.01] * 4, ValueError, LEN_MSG),
        ("rates", [0.01, NAN, -2], ValueError, FINITE_AT.format(1, "", "nan")),
        ("rates", [0.01, -1, 0.02], ValueError, RATE_MSG.format("-1.0", "")),
        ("rates", [[0.01, 0.02, 0.03]], ValueError, RATES_1D),
        ("rates", 0.5, ValueError, None),
        ("rates", "abc", TypeError, None),
        ("rates", [0.1, None, 0.2], (TypeError, ValueError), None),
        ("terms", [1], ValueError, LEN_MSG),
        ("terms", [1, 0], ValueError, POSITIVE),
        ("terms", [1, INF], ValueError, TERM_AT.format(1, "inf")),
        ("terms", [[1, 2]], ValueError, TERMS_1D),
        ("terms", ["a", "b"], TypeError, None),
    ],
)
def test_failed_assignment_leaves_curve_unchanged(attr, value, exc, msg):
    ir = pw()
    fill_caches(ir)
    names = ("_rates", "_terms", "_cum_terms", "_precomp_1pr", "_precomp_full_seg_prod", "_precomp_prefix_prod")
    before = [getattr(ir, n) for n in names]
    epoch = ir._shift_cache_epoch
    with pytest.raises(exc) as excinfo:
        setattr(ir, attr, value)
    assert msg is None or str(excinfo.value) == msg
    assert all(x is getattr(ir, n) for x, n in zip(before, names, strict=True)) and ir._shift_cache_epoch == epoch
    assert ir._rate_cache == {1.0: 0.5} and ir._force_cache == {2.0: 0.25} and ir._ts_shift_cache


# ---------------------------------------------------------------- junk input never crashes


def _check_invariants(ir):
    assert type(ir) is InterestRate
    if ir.scenarios:
        assert ir.active_scenario == next(iter(ir.scenarios)) and ir.rate is None and ir._rates is None
    for c in ir.scenarios.values() or [ir]:
        assert not c.scenarios
        if c.is_constant:
            assert (
                type(c.rate) is float
                and math.isfinite(c.rate)
                and c.rate > -1
                and c._rates is None
                and c._terms is None
            )
            continue
        t, r = c._terms, c._rates
        assert c.rate is None and t.dtype == r.dtype == np.float64 and t.ndim == r.ndim == 1 and len(r) == len(t) + 1
        assert np.isfinite(t).all() and (t > 0).all() and np.isfinite(r).all() and (r > -1).all()
        assert np.allclose(c._cum_terms, np.cumsum(t), rtol=1e-12) and not t.flags.writeable and not r.flags.writeable


_scalars = st.one_of(
    st.none(),
    st.booleans(),
    st.text(max_size=2),
    st.integers(-(2**60), 2**60),
    st.floats(),
    st.complex_numbers(max_magnitude=2),
    st.sampled_from([np.float32(0.5), np.bool_(True), object()]),
)
_sequences = st.one_of(
    st.lists(_scalars, max_size=4),
    st.lists(st.lists(st.floats(0.01, 5), max_size=2), max_size=2),
    st.lists(st.floats(), max_size=4).map(lambda xs: pd.Series(xs, dtype=float)),
    st.tuples(st.lists(st.integers(0, 30), max_size=4), st.sampled_from(list(VARIANTS.values()))).map(
        lambda p: p[1](p[0])
    ),
)
_junk = st.one_of(
    _scalars,
    _sequences,
    st.dictionaries(
        st.one_of(st.text(max_size=2), st.integers(0, 3)),
        st.one_of(_scalars, st.tuples(_sequences, _sequences)),
        min_size=1,
        max_size=3,
    ),
)


@settings(max_examples=250, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(_junk, _junk, _junk, st.sampled_from(["years", "months", "weeks", "days", "hours"]))
def test_junk_gives_a_valid_curve_or_a_documented_error(rate, terms, rates, unit):
    try:
        ir = InterestRate(rate, terms, rates, unit)
    except (TypeError, ValueError):
        return
    _check_invariants(ir)
