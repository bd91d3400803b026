"""The per-curve metadata record _InterestRateMeta: coercion, validation, dumps and copies."""

import json

import numpy as np
import pytest

from norvane.config import _ALLOWED_DAYS_PER_YEAR, _ALLOWED_WEEKS_PER_YEAR
from norvane.interest_rates import _InterestRateMeta as Meta

FIELDS = (
    "term_unit days_per_year weeks_per_year calculation_mode description cache_maxsize tolerance_eps perpetuity_n_eff"
)
FIELDS = tuple(FIELDS.split())
DEFAULTS = dict(zip(FIELDS, ["years", None, None, None, None, 1000, 1e-12, 1000]))
CUSTOM = dict(zip(FIELDS, ["days", 360.0, 52.0, "continuous_simplified", "stress", 7, 0.0, 250]))
UNITS = "('years', 'months', 'weeks', 'days')"


def unit_msg(value):
    return f"Invalid term_unit: {value}. Must be one of {UNITS}"


def test_slots_defaults_and_dump_order():
    assert tuple(Meta.__slots__) == FIELDS and not hasattr(Meta(), "__dict__")
    m, custom = Meta(), Meta(**CUSTOM)
    assert type(m.model_dump()) is dict and list(m.model_dump()) == list(FIELDS) and m.model_dump() == DEFAULTS
    assert [type(getattr(m, f)) for f in ("cache_maxsize", "tolerance_eps", "perpetuity_n_eff")] == [int, float, int]
    custom.model_dump()["cache_maxsize"] = 1  # a fresh dict each time
    assert custom.model_dump() == CUSTOM and list(custom.model_dump()) == list(FIELDS)
    m.description = "edited"  # slots stay writable
    assert m.model_dump()["description"] == "edited"
    with pytest.raises(TypeError):  # keyword-only
        Meta("years")


@pytest.mark.parametrize(
    "field, given, stored",
    [
        ("days_per_year", 365, 365.0),
        ("tolerance_eps", np.float32(0.5), 0.5),
        ("cache_maxsize", 2.9, 2),
        ("cache_maxsize", np.int64(5), 5),
        ("perpetuity_n_eff", 3.7, 3),
    ],
)
def test_numeric_coercion(field, given, stored):
    got = getattr(Meta(**{field: given}), field)
    assert got == stored and type(got) is type(stored)


@pytest.mark.parametrize(
    "field", ["days_per_year", "weeks_per_year", "tolerance_eps", "cache_maxsize", "perpetuity_n_eff"]
)
@pytest.mark.parametrize("bad", ["365", [365.0], object()])
def test_non_numbers_raise_type_error_naming_the_argument(field, bad):
    with pytest.raises(TypeError, match=field) as excinfo:
        Meta(**{field: bad})
    assert field not in ("cache_maxsize", "perpetuity_n_eff") or "int" in str(excinfo.value)
    with pytest.raises(TypeError):  # coercion runs before any value check
        Meta(term_unit="hours", **{field: bad})


# One bad value per check, in the order in which the checks run.
ORDERED_BAD = [
    ("term_unit", "hours", unit_msg("hours")),
    ("days_per_year", 366, f"days_per_year 366.0 not in allowed set {_ALLOWED_DAYS_PER_YEAR}"),
    ("weeks_per_year", 53.5, f"weeks_per_year 53.5 not in allowed set {_ALLOWED_WEEKS_PER_YEAR}"),
    ("calculation_mode", "fast", "Invalid calculation_mode: fast"),
    ("cache_maxsize", 0, "cache_maxsize must be a positive integer"),
    ("tolerance_eps", -1e-9, "tolerance_eps must be non-negative"),
    ("perpetuity_n_eff", -1, "perpetuity_n_eff must be a positive integer"),
]


# A bad value for one check and for every check after it: the first failed check wins.
MESSAGES = [({field: value for field, value, _ in ORDERED_BAD[i:]}, msg) for i, (_, _, msg) in enumerate(ORDERED_BAD)]
MESSAGES += [
    ({"term_unit": "Years"}, unit_msg("Years")),
    ({"term_unit": 5}, unit_msg("5")),
    ({"days_per_year": float("nan")}, f"days_per_year nan not in allowed set {_ALLOWED_DAYS_PER_YEAR}"),
    ({"weeks_per_year": 365.0}, f"weeks_per_year 365.0 not in allowed set {_ALLOWED_WEEKS_PER_YEAR}"),
    ({"calculation_mode": "DISCRETE_PRECISION"}, "Invalid calculation_mode: DISCRETE_PRECISION"),
    ({"cache_maxsize": 0.5}, "cache_maxsize must be a positive integer"),
    ({"tolerance_eps": float("-inf")}, "tolerance_eps must be non-negative"),
]


@pytest.mark.parametrize("kwargs, msg", MESSAGES)
def test_value_error_messages(kwargs, msg):
    with pytest.raises(ValueError) as excinfo:
        Meta(**kwargs)
    assert str(excinfo.value) == msg


def test_model_copy():
    m = Meta(**CUSTOM)
    for update in (None, {}):
        same = m.model_copy(update)
        assert type(same) is Meta and same is not m and same.model_dump() == CUSTOM
    assert m.model_copy({"description": "x", "not_a_field": 1}).model_dump() == {**CUSTOM, "description": "x"}
    # a None in the update resets that field to its default
    reset = m.model_copy({"cache_maxsize": None, "days_per_year": None, "tolerance_eps": None})
    assert reset.model_dump() == {**CUSTOM, "cache_maxsize": 1000, "days_per_year": None, "tolerance_eps": 1e-12}
    assert m.model_copy({"cache_maxsize": 2.9}).cache_maxsize == 2
    assert m.model_dump() == CUSTOM


@pytest.mark.parametrize("kwargs", [{}, CUSTOM, {"term_unit": "weeks", "description": "é ≤"}])
def test_msgpack_dict_round_trip(kwargs):
    m = Meta(**kwargs)
    d = m.to_msgpack_dict()
    assert list(d) == list(FIELDS) and d == m.model_dump()
    assert Meta.from_msgpack_dict(d).model_dump() == m.model_dump()
    # native values only, so the dict survives a JSON trip as well
    assert Meta.from_msgpack_dict(json.loads(json.dumps(d))).model_dump() == m.model_dump()


def test_from_msgpack_dict_missing_keys_and_errors():
    assert Meta.from_msgpack_dict({}).model_dump() == DEFAULTS
    assert Meta.from_msgpack_dict({"description": "d", "extra": 1}).model_dump() == {**DEFAULTS, "description": "d"}
    with pytest.raises(ValueError) as excinfo:
        Meta.from_msgpack_dict({"term_unit": None})
    assert str(excinfo.value) == unit_msg("None")
    for bad in ([("term_unit", "years")], None, "years"):
        with pytest.raises(TypeError):
            Meta.from_msgpack_dict(bad)
