"""Import-time surface of norvane.interest_rates: public names, term units and the curve's slots."""

import typing

import norvane.interest_rates as irm
from norvane.interest_rates import InterestRate

PUBLIC = ["TermUnit", "VALID_TERM_UNITS", "InterestRate"]
SLOTS = """_is_constant rate _terms _rates _cum_terms scenarios _active_scenario _config _meta _rate_cache
_force_cache _constant_delta _precomp_full_seg_prod _precomp_prefix_prod _precomp_1pr _cache_lock
_shift_cache_epoch _ts_shift_cache""".split()


def test_public_names_term_units_and_slots():
    ns = {}
    exec("from norvane.interest_rates import *", ns)
    assert irm.__all__ == PUBLIC and sorted(ns.keys() - {"__builtins__"}) == sorted(PUBLIC)
    assert irm.VALID_TERM_UNITS == ("years", "months", "weeks", "days")
    assert typing.get_origin(irm.TermUnit) is typing.Literal
    assert typing.get_args(irm.TermUnit) == irm.VALID_TERM_UNITS
    assert InterestRate.__slots__ == tuple(SLOTS) and not hasattr(InterestRate(0.03), "__dict__")
