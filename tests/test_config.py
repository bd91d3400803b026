"""Package configuration: singleton, validated fields, reset and override."""

import contextlib
import copy
import pickle

import numpy as np
import pytest

from norvane.config import Config

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


# A field's cases side by side.
# fmt: off
@pytest.mark.parametrize(
    "field, value, outcome",  # the stored value, or the error that leaves every setting as it was
    [
        ("days_per_year", 360, 360.0), ("days_per_year", None, None),
        ("days_per_year", 365.25 + 5e-10, 365.25), ("days_per_year", 365.25 + 2e-9, ValueError),  # snapped, or refused
        ("days_per_year", "365", TypeError), ("days_per_year", 364.0, ValueError),
        ("weeks_per_year", np.float32(52.0), 52.0), ("weeks_per_year", np.float32(52.1775), ValueError),  # ~1e-6 off
        ("calculation_mode", "continuous_precision", "continuous_precision"), ("calculation_mode", "exact", ValueError),
        ("force_integer_ts", np.bool_(True), True), ("force_integer_ts", 1, TypeError),
        ("decimals", 4, TypeError), ("decimals", {"bonds": 4}, ValueError), ("colour", "blue", AttributeError),
    ],
)
# fmt: on
def test_assignment(field, value, outcome):
    if isinstance(outcome, type):
        with pytest.raises(outcome, match=r"Config|colour"):
            setattr(Config(), field, value)
        assert state() == DEFAULTS
    else:
        setattr(Config(), field, value)
        got = getattr(Config(), field)
        assert got == outcome and type(got) is type(outcome)


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
