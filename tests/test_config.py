"""Package configuration: singleton, validated fields, reset and override."""

import contextlib
import copy
import pickle
from typing import get_args

import numpy as np
import pytest

from norvane.config import Config
from norvane.engine.annuity import _ANNUITY_CALCULATION_MODE_DISPATCH
from norvane.engine.base import CalculationModeLiteral

DEFAULTS = {"days_per_year": 365.25, "weeks_per_year": 52.1775, "calculation_mode": "discrete_precision"}
DEFAULTS |= {"force_integer_ts": False, "annuities": 10}


def state():
    c = Config()
    return {name: getattr(c, name) for name in list(DEFAULTS)[:-1]} | {"annuities": c.decimals.annuities}


def test_one_shared_object_with_defaults():
    c = Config()
    assert c is Config() and copy.deepcopy(c) is c and pickle.loads(pickle.dumps(c)) is c
    assert state() == DEFAULTS
    with pytest.raises(TypeError):
        Config(365.0)


@pytest.mark.parametrize(
    "field, value, stored",
    [
        ("days_per_year", 360, 360.0),
        ("days_per_year", None, None),
        ("days_per_year", 365.25 + 5e-10, 365.25),  # snapped to the exact constant
        ("weeks_per_year", np.float32(52.0), 52.0),
        ("calculation_mode", "continuous_precision", "continuous_precision"),
        ("force_integer_ts", np.bool_(True), True),
    ],
)
def test_valid_assignment(field, value, stored):
    setattr(Config(), field, value)
    got = getattr(Config(), field)
    assert got == stored and type(got) is type(stored)


@pytest.mark.parametrize(
    "field, value, exc",
    [
        ("days_per_year", "365", TypeError),
        ("days_per_year", 364.0, ValueError),
        ("days_per_year", 365.25 + 2e-9, ValueError),
        ("weeks_per_year", np.float32(52.1775), ValueError),  # float32 is ~1e-6 away
        ("calculation_mode", "exact", ValueError),
        ("force_integer_ts", 1, TypeError),
        ("decimals", 4, TypeError),
        ("decimals", {"bonds": 4}, ValueError),
        ("colour", "blue", AttributeError),
    ],
)
def test_refused_assignment_leaves_state(field, value, exc):
    with pytest.raises(exc, match=r"Config|colour"):
        setattr(Config(), field, value)
    assert state() == DEFAULTS


@pytest.mark.parametrize("value, exc", [(16, ValueError), (-1, ValueError), (2.0, TypeError), (True, TypeError)])
def test_annuity_decimals(value, exc):
    c = Config()
    held = c.decimals
    with pytest.raises(exc, match="decimals.annuities"):
        c.decimals.annuities = value
    c.decimals.annuities = np.int64(15)
    assert type(held.annuities) is int and held.annuities == 15
    c.decimals = {"annuities": 0}  # updated in place: held references see it
    assert c.decimals is held and held.annuities == 0
    c.reset()
    assert c.decimals is held and held.annuities == 10


def test_reset_restores_every_field():
    c = Config()
    c.days_per_year, c.weeks_per_year, c.calculation_mode = None, 52.0, "discrete_simplified"
    c.force_integer_ts, c.decimals.annuities = True, 3
    c.reset()
    assert state() == DEFAULTS


@pytest.mark.parametrize("leave_by_error", [False, True])
def test_override_restores_on_exit(leave_by_error):
    c = Config()
    c.days_per_year = 360.0
    fields = {"days_per_year": None, "calculation_mode": "continuous_simplified", "decimals": {"annuities": 2}}
    with pytest.raises(KeyError) if leave_by_error else contextlib.nullcontext(), c.override(**fields) as inner:
        assert inner is c and c.days_per_year is None and c.decimals.annuities == 2
        assert c.calculation_mode == "continuous_simplified"
        with c.override(days_per_year=365.0):  # nested blocks unwind in order
            assert c.days_per_year == 365.0
        assert c.days_per_year is None
        if leave_by_error:
            raise KeyError("boom")
    assert state() == DEFAULTS | {"days_per_year": 360.0}


@pytest.mark.parametrize(
    "fields, exc",
    [
        ({"calculation_mode": "continuous_precision", "days_per_year": 100.0}, ValueError),
        ({"calculation_mode": "continuous_precision", "speed": 3}, TypeError),
    ],
)
def test_override_is_all_or_nothing(fields, exc):
    with pytest.raises(exc), Config().override(**fields):
        pytest.fail("block must not run")
    assert state() == DEFAULTS


def test_modes_agree_across_modules():
    modes = get_args(CalculationModeLiteral)
    assert set(_ANNUITY_CALCULATION_MODE_DISPATCH) == set(modes) and len(modes) == 4
    for mode in modes:
        Config().calculation_mode = mode
        assert callable(_ANNUITY_CALCULATION_MODE_DISPATCH[Config().calculation_mode])
