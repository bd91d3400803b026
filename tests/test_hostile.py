"""Hostile input across the public surface: every call either returns a value of the type it
promises or raises one of the exception kinds a caller is told to expect; it never crashes,
never leaks another exception, never changes the caller's arrays and never half-changes a curve."""

import gzip
import io
import pickle
import tempfile
from contextlib import redirect_stderr, redirect_stdout
from pathlib import Path

import numpy as np
import pytest
from hostile import FLAT, LOOSE, SETTINGS, STRICT, check, decimal_nan, engine_call, hostile, unaligned
from hypothesis import assume, example, given, settings
from hypothesis import strategies as st
from pyarrow import ArrowException
from reference import MODES

from norvane import curves
from norvane.cli import main
from norvane.config import Config
from norvane.growth_rates import GrowthRate
from norvane.helpers import BatchResult
from norvane.interest_rates import InterestRate, _interest_rate_shifted_for_ts, _woolhouse_flows_to_grid
from norvane.interest_rates import _InterestRateMeta as Meta
from norvane.portfolio import BookValues, InputError, value_book
from norvane.risk import Sensitivities, sensitivities

# NumPy warns when extreme values overflow in its casts and powers (an inf follows, as IEEE says);
# that is its arithmetic on the caller's numbers, not a fault of ours.
pytestmark = pytest.mark.filterwarnings("ignore:overflow encountered:RuntimeWarning")
SETTINGS = settings(SETTINGS, max_examples=80)


CURVES = {
    "constant": lambda: InterestRate(0.03),
    "piecewise": lambda: InterestRate(terms=[1.0, 2.5], rates=[-0.5, 0.02, -0.999]),
    "scenarios": lambda: InterestRate({"base": 0.03, "stress": ([2.0], [-0.2, 0.05])}),
}
NUMBER = (float, np.ndarray)


def _complete(curve):
    """False for a piecewise curve whose terms or rates were cleared, as a user may: it waits for new ones."""
    return curve.is_constant or curve.scenarios or (curve.rates is not None and curve.terms is not None)


def _scenarios_replaced(curve, scenarios):
    """A copy whose public ``scenarios`` attribute is given something else, then used."""
    copy = curve.copy()
    copy.scenarios = scenarios
    if not _complete(copy):
        return ()
    return copy.validate(), copy.export(), str(copy), copy.vn(1.0), copy.shifted(1.0), copy.a(n=2)


# name: (call with the curve and two hostile values, the promised result types)
CURVE_CALLS = {
    "vn": (lambda c, x, y: c.vn(x), NUMBER),
    "vx": (lambda c, x, y: c.vx(x, y), NUMBER),
    "sn": (lambda c, x, y: c.sn(x), NUMBER),
    "get_rate": (lambda c, x, y: c.get_rate(x), NUMBER),
    "delta": (lambda c, x, y: c.delta(x), NUMBER),
    "get_average_force": (lambda c, x, y: c.get_average_force(x), float),
    "i_m": (lambda c, x, y: c.i_m(x, y), float),
    "d_m": (lambda c, x, y: c.d_m(x, y), float),
    "get_effective_rate": (lambda c, x, y: c.get_effective_rate(x, y), float),
    "get_segment_info": (lambda c, x, y: c.get_segment_info(x), dict),
    "shifted": (lambda c, x, y: c.shifted(x), InterestRate),
    "shifted_for_ts": (
        lambda c, x, y: _interest_rate_shifted_for_ts(c, x, dict(y) if type(y) is dict else y),
        InterestRate,
    ),
    "export": (lambda c, x, y: c.export(x), (dict, str)),
    "equality": (lambda c, x, y: (c.__eq__(x), c.__ne__(x)), tuple),  # x == c is x's own business
    "rates": (lambda c, x, y: setattr(c, "rates", x), type(None)),
    "terms": (lambda c, x, y: setattr(c, "terms", x), type(None)),
    "active_scenario": (lambda c, x, y: setattr(c, "active_scenario", x), type(None)),
    "add_scenario": (lambda c, x, y: c.add_scenario(x, y), type(None)),
    "scenarios attribute": (lambda c, x, y: _scenarios_replaced(c, x), tuple),
}


@pytest.mark.parametrize("form", sorted(CURVES))
@pytest.mark.parametrize("name", sorted(CURVE_CALLS))
@SETTINGS
@given(x=hostile, y=hostile)
@example(x=-1e308, y=None).via("sn overflowed into a crash")
@example(x=1e308, y=None).via("sn overflowed into a crash")
@example(x=2**70, y=None).via("sn overflowed into a crash")
@example(x=None, y=None).via("comparison with None raised")
@example(x={"base": 0.01}, y=None).via("a scenario that is not a curve leaked std::bad_cast as RuntimeError")
@example(x=unaligned(), y=unaligned()).via("an unaligned array reached the native code (UBSan)")
def test_curve_methods(form, name, x, y):
    assume(name != "get_effective_rate" or not decimal_nan(x, y))  # an open fault, see test_hostile_life
    curve = CURVES[form]()
    before = curve.copy()
    call, returns = CURVE_CALLS[name]
    outcome = check(lambda a, b: call(curve, a, b), (x, y), returns)
    if isinstance(outcome, Exception):
        assert curve == before and curve.active_scenario == before.active_scenario, "a failed call changed the curve"
    if not _complete(curve):
        return
    # Whatever was accepted leaves a usable curve with working reports that copies and pickles.
    assert isinstance(curve.vn(1.0), float)
    if curve.active_scenario == curve.active_scenario:  # a scenario named NaN is unequal even to itself
        assert curve.copy() == curve == pickle.loads(pickle.dumps(curve))
    curve.validate(), curve.curve_analysis(), curve.summary(), str(curve), repr(curve), hash(curve)


ANNUITY_KEYS = ("n", "d", "ts", "m", "gr", "cashflow_times", "cashflow_amounts", "benefits")
ANNUITY_KEYS += ("return_flows", "t_output", "on_error", "record_ids")
annuity_kwargs = st.dictionaries(st.sampled_from(ANNUITY_KEYS), hostile, max_size=3)


@pytest.mark.parametrize("form", sorted(CURVES))
@SETTINGS
@given(method=st.sampled_from(["a", "ä"]), mode=st.sampled_from(MODES), kwargs=annuity_kwargs)
@example(method="a", mode=MODES[0], kwargs={"n": [1, 2], "gr": "x"}).via("batch growth leaked AttributeError")
@example(method="a", mode=MODES[0], kwargs={"n": [5.0, 10.0], "benefits": [1.0]}).via("short benefits accepted")
def test_annuities(form, method, mode, kwargs):
    curve = CURVES[form]()
    before = curve.copy()
    with Config().override(calculation_mode=mode):
        check(lambda: getattr(curve, method)(**kwargs), tuple(kwargs.values()), (float, np.ndarray, dict, BatchResult))
    assert curve == before


WOOLHOUSE = ("coef_due", "due", "immediate", "fractional", "fractional_tail")


def _unpickled(x, y):
    """A curve restored from a state with ``x`` in one of its fields, then used."""
    state = list(InterestRate(terms=[1.0], rates=[0.01, 0.02]).__getstate__())
    state[len(repr(y)) % len(state)] = x
    curve = InterestRate.__new__(InterestRate)
    curve.__setstate__(tuple(state))
    if not _complete(curve):
        return (curve,)
    return curve.vn(1.5), curve.validate(), str(curve), curve.export("json"), curve.a(n=2)


# name: (call with two hostile values, the promised result types); the mortality calls are in test_hostile_life
MODULE_CALLS = {
    "unpickled curve": (_unpickled, tuple),
    "_InterestRateMeta.model_copy": (lambda x, y: Meta().model_copy({"term_unit": x, "tolerance_eps": y}), Meta),
    "_InterestRateMeta.from_msgpack_dict": (lambda x, y: Meta.from_msgpack_dict(x), Meta),
    "InterestRate(rate)": (lambda x, y: InterestRate(x), InterestRate),
    "InterestRate(terms, rates)": (lambda x, y: InterestRate(terms=x, rates=y), InterestRate),
    "InterestRate(rate, term_unit)": (lambda x, y: InterestRate(x, term_unit=y), InterestRate),
    "InterestRate.from_export": (lambda x, y: InterestRate.from_export(x), InterestRate),
    "_InterestRateMeta": (lambda x, y: Meta(days_per_year=x, cache_maxsize=y), Meta),
    "_woolhouse_flows_to_grid": (lambda x, y: _woolhouse_flows_to_grid(x, y), tuple),
    "woolhouse components": (lambda x, y: _woolhouse_flows_to_grid(dict.fromkeys(WOOLHOUSE, x), y), tuple),
    "GrowthRate": (lambda x, y: GrowthRate(x, y), GrowthRate),
    "GrowthRate.factors": (lambda x, y: GrowthRate(0.02).factors(x), NUMBER),
    "GrowthRate.payment_factors": (lambda x, y: GrowthRate(-0.5, "arithmetic").payment_factors(x, y), np.ndarray),
    "engine n, m": (lambda x, y: engine_call(MODES[1], n=x, m=y), (float, dict)),
    "engine gr, flows": (lambda x, y: engine_call(MODES[2], gr=x, return_flows=y), (float, dict)),
    "engine explicit": (lambda x, y: engine_call(MODES[0], cashflow_times=x, cashflow_amounts=y), (float, dict)),
}


@pytest.mark.parametrize("name", sorted(MODULE_CALLS))
@SETTINGS
@given(x=hostile, y=hostile)
@example(x="abc", y=None).via("a text coefficient raised RuntimeError")
@example(x=np.empty(0), y=-0.0).via("an array of flows raised IndexError")
@example(x=-1, y=0).via("a damaged pickle state failed later with an internal RuntimeError")
@example(x=unaligned(), y=unaligned()).via("an unaligned array reached the native code (UBSan)")
def test_module_functions(name, x, y):
    # Open faults (test_hostile_life): a Decimal NaN or a NumPy complex for a count of payments.
    assume(name != "GrowthRate.payment_factors" or not decimal_nan(x, y))
    assume(
        not name.startswith(("engine", "GrowthRate.payment")) or not any(isinstance(v, np.complex128) for v in (x, y))
    )
    call, returns = MODULE_CALLS[name]
    # An empty scenario dict ends in StopIteration by design: there is no first scenario.
    allowed = LOOSE + (StopIteration,) if name.startswith("InterestRate(") else LOOSE
    check(call, (x, y), returns, allowed)


# Curves from market data and sensitivities, checked strictly: a usable value or a named refusal.
MARKET_CALLS = {
    "from_zero_rates": (lambda x, y: curves.from_zero_rates(x, y), InterestRate),
    "from_zero_rates compounding": (
        lambda x, y: curves.from_zero_rates([1.0, 2.0], [0.01, y], compounding=x),
        InterestRate,
    ),
    "from_discount_factors": (lambda x, y: curves.from_discount_factors([1.0, 2.0], x), InterestRate),
    "from_forward_rates": (lambda x, y: curves.from_forward_rates(x, y), InterestRate),
    "bootstrap_par_swaps": (lambda x, y: curves.bootstrap_par_swaps([1, 2, 5], x, frequency=y), InterestRate),
    "smith_wilson": (lambda x, y: curves.smith_wilson([1, 2, 5], x, ufr=y), InterestRate),
    "smith_wilson alpha, horizon": (
        lambda x, y: curves.smith_wilson([1, 5], [0.01, 0.02], ufr=0.04, alpha=x, horizon=y),
        InterestRate,
    ),
    "zero, forward and par rates": (
        lambda x, y: (curves.zero_rates(FLAT, x), curves.forward_rates(FLAT, x, y), curves.par_rates(FLAT, x)),
        tuple,
    ),
    "sensitivities": (lambda x, y: sensitivities(FLAT, x, y), Sensitivities),
    "sensitivities key tenors": (
        lambda x, y: sensitivities(FLAT, [1.0, 2.0], [5.0, 105.0], key_tenors=x),
        Sensitivities,
    ),
}


@pytest.mark.parametrize("name", sorted(MARKET_CALLS))
@SETTINGS
@given(x=hostile, y=hostile)
def test_market_functions(name, x, y):
    call, returns = MARKET_CALLS[name]
    check(call, (x, y), returns, STRICT, "[")


CONFIG_FIELDS = ("days_per_year", "weeks_per_year", "calculation_mode", "force_integer_ts", "decimals")


@SETTINGS
@given(field=st.sampled_from(CONFIG_FIELDS), value=hostile)
def test_config_assignment(field, value):
    config = Config()
    before = config._snapshot()
    if isinstance(check(setattr, (config, field, value), type(None)), Exception):
        assert config._snapshot() == before, "a refused value changed the settings"
    before = config._snapshot()
    with pytest.raises(LOOSE):
        with config.override(**{field: value}):
            raise ValueError("leave the block")
    assert config._snapshot() == before, "override did not restore the settings"


COLUMNS = ("term", "deferment", "shift", "frequency", "timing", "growth", "benefit", "id")
cells = st.one_of(hostile, st.text(max_size=6))


@SETTINGS
@given(table=st.dictionaries(st.sampled_from(COLUMNS), st.lists(cells, min_size=2, max_size=2), min_size=1))
def test_books_in_memory(table):
    table.setdefault("term", ["5", ""])
    # InputError: a book that cannot be used at all (no "term" column, columns of unequal length); what Arrow
    # cannot take is an open fault (test_hostile_life).
    book = check(
        lambda t: value_book(t, InterestRate(0.03)), (table,), BookValues, LOOSE + (InputError, ArrowException)
    )
    if isinstance(book, BookValues):
        assert len(book) == 2 and (np.isnan(book.present_value) == (book.error != None)).all()  # noqa: E711


def _csv_bytes(rows):
    return "\n".join(",".join(map(str, row)) for row in rows).encode()


files = st.one_of(
    st.binary(max_size=64),
    st.lists(st.lists(st.sampled_from(["term", "shift", "5", "", "nan", '"', "x", "1e999", "-3"]), max_size=4))
    .filter(bool)
    .map(_csv_bytes),
)


@settings(derandomize=True, max_examples=40, deadline=None, database=None)
@given(suffix=st.sampled_from([".csv", ".csv.gz", ".parquet", ".json"]), content=files, gzipped=st.booleans())
@example(suffix=".csv.gz", content=b"term\n5\n", gzipped=False).via("a plain file named .gz")
def test_command_line_on_malformed_files(suffix, content, gzipped):
    with tempfile.TemporaryDirectory() as tmp, redirect_stdout(io.StringIO()), redirect_stderr(io.StringIO()):
        path = Path(tmp) / f"input{suffix}"
        path.write_bytes(gzip.compress(content) if gzipped else content)
        option = "--curve" if suffix == ".json" else "--portfolio"
        assert main(["value", option, str(path), "--quiet"]) in (0, 2)
        assert main(["flows", option, str(path)]) in (0, 2)
