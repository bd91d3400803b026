"""Import-time surface of norvane.interest_rates: public names, constants, slots."""

import typing

import pytest

import norvane.interest_rates as irm
from norvane.interest_rates import InterestRate

PUBLIC = ["TermUnit", "VALID_TERM_UNITS", "InterestRate"]
SLOTS = (
    "_is_constant",
    "rate",
    "_terms",
    "_rates",
    "_cum_terms",
    "scenarios",
    "_active_scenario",
    "_config",
    "_meta",
    "_rate_cache",
    "_force_cache",
    "_constant_delta",
    "_precomp_full_seg_prod",
    "_precomp_prefix_prod",
    "_precomp_1pr",
    "_cache_lock",
    "_shift_cache_epoch",
    "_ts_shift_cache",
)


def test_public_names_and_star_import():
    assert irm.__all__ == PUBLIC
    ns = {}
    exec("from norvane.interest_rates import *", ns)
    del ns["__builtins__"]
    assert sorted(ns) == sorted(PUBLIC)
    assert ns["InterestRate"] is InterestRate


def test_term_unit_literal_and_tuple():
    assert type(irm.VALID_TERM_UNITS) is tuple
    assert irm.VALID_TERM_UNITS == ("years", "months", "weeks", "days")
    assert typing.get_origin(irm.TermUnit) is typing.Literal
    assert typing.get_args(irm.TermUnit) == irm.VALID_TERM_UNITS


@pytest.mark.parametrize(
    "name, value, kind",
    [
        ("_DEFAULT_RATE_CACHE_MAXSIZE", 1000, int),
        ("_SHIFT_EPSILON", 1e-12, float),
        ("_DEFAULT_PERPETUITY_N_EFF", 1000, int),
        ("_MONTHS_PER_YEAR", 12, int),
    ],
)
def test_numeric_constants(name, value, kind):
    got = getattr(irm, name)
    assert type(got) is kind and got == value


def _ref_name(x):
    # a forward reference may be kept as a string, a ForwardRef or the class itself
    return getattr(x, "__forward_arg__", getattr(x, "__name__", x))


def test_shift_cache_alias():
    alias = irm.IrTsShiftCache
    assert typing.get_origin(alias) is dict
    key, value = typing.get_args(alias)
    assert typing.get_origin(key) is tuple
    curve, shift, generation = typing.get_args(key)
    assert (_ref_name(curve), shift, generation, _ref_name(value)) == ("InterestRate", float, int, "InterestRate")


def test_eighteen_fixed_slots():
    assert type(InterestRate.__slots__) is tuple and InterestRate.__slots__ == SLOTS
    ir = InterestRate({"base": 0.01, "stress": ([5], [0.02, 0.03])})
    assert not hasattr(ir, "__dict__")
    for name in SLOTS:  # the constructor sets every slot
        getattr(ir, name)
    for name in ("colour", "_cache"):
        with pytest.raises(AttributeError):
            setattr(ir, name, 1)
        assert not hasattr(ir, name)
