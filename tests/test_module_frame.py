"""Import-time surface of norvane.interest_rates: public names, constants, slots."""

import typing

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


def _ref_name(x):
    # a forward reference may be kept as a string, a ForwardRef or the class itself
    return getattr(x, "__forward_arg__", getattr(x, "__name__", x))
