"""Import-time surface of norvane.interest_rates: public names, term units, no instance dict."""

import typing

import norvane.interest_rates as irm
from norvane.interest_rates import InterestRate

PUBLIC = ["TermUnit", "VALID_TERM_UNITS", "InterestRate"]


def test_public_names_term_units_and_slots():
    ns = {}
    exec("from norvane.interest_rates import *", ns)
    assert irm.__all__ == PUBLIC and sorted(ns.keys() - {"__builtins__"}) == sorted(PUBLIC)
    assert irm.VALID_TERM_UNITS == ("years", "months", "weeks", "days")
    assert typing.get_origin(irm.TermUnit) is typing.Literal
    assert typing.get_args(irm.TermUnit) == irm.VALID_TERM_UNITS
    assert not hasattr(InterestRate(0.03), "__dict__")  # slots only (their names: test_typing)
