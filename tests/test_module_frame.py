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
# Every member except the annuity-due method, whose non-ASCII name is checked elsewhere.
MEMBERS = """rates terms copy __deepcopy__ active_scenario scenario_names days_per_year
weeks_per_year calculation_mode is_constant _get_term_unit_factor _to_years add_scenario
_clear_lru_caches _lru_touch_get _lru_store _bump_ts_shift_cache _invalidate_caches
_recompute_prefix_products _dfn _vn vn _validate_x_and_x0 vx get_rate shifted _curve_policy
validate _check_monotonicity export _get_current_timestamp summary _survival_one
_annuity_public_route a ä _annuity_batch_dispatch _ir_shifted_for_ts _annuity_batch_financial
_annuity_dispatch _validate_rates_array _validate_terms_array _validate_rate_value
_validate_rate_for_force _validate_rate_for_discount get_effective_rate get_segment_info
delta get_average_force sn i_m d_m curve_analysis __eq__ __hash__ __str__ __repr__""".split()

FORMS = [
    lambda: InterestRate(0.03),
    lambda: InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04]),
    lambda: InterestRate({"base": 0.01, "stress": ([5], [0.02, 0.03])}),
]


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


def test_docstrings_and_module_functions():
    assert "Interest rate utilities for Norvane." in irm.__doc__
    assert "Lightweight metadata/configuration model for InterestRate." in irm._InterestRateMeta.__doc__
    for fn in ("_woolhouse_flows_to_grid", "_interest_rate_shifted_for_ts"):
        assert callable(getattr(irm, fn)) and not hasattr(InterestRate, fn)


def test_class_members_exist():
    assert [m for m in MEMBERS if not hasattr(InterestRate, m)] == []


@pytest.mark.parametrize("make", FORMS, ids=["constant", "piecewise", "scenarios"])
def test_eighteen_fixed_slots(make):
    assert type(InterestRate.__slots__) is tuple and InterestRate.__slots__ == SLOTS
    ir = make()
    assert not hasattr(ir, "__dict__")
    for name in SLOTS:  # the constructor sets every slot
        getattr(ir, name)
    for name in ("colour", "Rate", "_cache"):
        with pytest.raises(AttributeError):
            setattr(ir, name, 1)
        assert not hasattr(ir, name)
