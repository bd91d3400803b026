"""Hostile input for mortality tables, laws, lives, books of life annuities and policy books:
every call returns a usable value (no NaN where a number is due) or raises TypeError, ValueError
or OverflowError (InputError for books) with a message that names the problem; never another
exception, a warning, or a caller's argument changed."""

import gzip
import io
import math
import pickle
import re
import subprocess
import sys
import tempfile
from contextlib import redirect_stderr, redirect_stdout
from decimal import Decimal
from fractions import Fraction
from pathlib import Path

import numpy as np
import pandas as pd
import pyarrow as pa
import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st
from test_hostile import POOL, _snapshot

from norvane._kernels import InvalidPolicy
from norvane.base import FloatRangeError
from norvane.cli import main
from norvane.config import Config
from norvane.helpers import BatchResult
from norvane.interest_rates import InterestRate
from norvane.mortality import (
    JointLife,
    Life,
    MakehamLaw,
    MortalityTable,
    bundled_table,
    constant_force,
    gompertz,
    life_annuities,
    makeham,
)
from norvane.mortality.lives import _joint_life, _life
from norvane.portfolio import (
    BookValues,
    InputError,
    book_flows,
    book_tables,
    check_output,
    flow_years,
    last_payment_year,
    open_book,
    output_kind,
    policies_from_batch,
    stream_book,
    value_book,
    value_policies,
    valued_blocks,
    write_table,
)

SETTINGS = settings(derandomize=True, max_examples=60, deadline=2000, database=None)
MODES = ("discrete_precision", "discrete_simplified", "continuous_precision", "continuous_simplified")
# Python's and NumPy's own wording: an exception that reached the caller unexplained.
OPAQUE = re.compile(
    r"int too large|ambiguous|not supported between|object is not|has no attribute|could not convert|"
    r"argument must be|unhashable|out of bounds|invalid literal|too large for a float|incompatible function|"
    r"cannot compute length|cannot convert float|Maximum allowed size|setting an array element"
)
DOCUMENTED = (FloatRangeError, TypeError, ValueError, OverflowError, InputError, InvalidPolicy)

HOSTILE = {
    **POOL,
    "10**400": lambda: 10**400,
    "-10**400": lambda: -(10**400),
    "1e307": lambda: 1e307,
    "65": lambda: 65,
    "20.5": lambda: 20.5,
    "-65": lambda: -65.0,
    "big-endian": lambda: np.array([65.0, 1.0], ">f8"),
    "big-endian int": lambda: np.array([1, 12], ">i8"),
    "masked": lambda: np.ma.array([65.0, -1.0], mask=[False, True]),
    "pd.NA": lambda: pd.NA,
    "Int64 NA": lambda: pd.Series([65, None], dtype="Int64"),
    "Float64 NA": lambda: pd.array([1.0, None], dtype="Float64"),
    "boolean NA": lambda: pd.Series([True, None], dtype="boolean"),
    "string NA": lambda: pd.Series(["t", None], dtype="string"),
    "2-d ages": lambda: np.full((2, 2), 65.0),
    "Decimal": lambda: Decimal("65.5"),
    "Decimal NaN": lambda: Decimal("NaN"),
    "Fraction": lambda: Fraction(131, 2),
    "np.True_": lambda: np.True_,
    "bool array": lambda: np.array([True, False]),
    "np.complex128": lambda: np.complex128(65),
    "np.int8 min": lambda: np.int8(-128),
    "np.uint64 max": lambda: np.uint64(2**64 - 1),
    "np.float16": lambda: np.float16(65),
    "longdouble": lambda: np.longdouble(65),
    "datetime64": lambda: np.datetime64("2020-01-01"),
    "table name": lambda: "t",
    "names": lambda: np.array(["t", "s"]),
    "object names": lambda: np.array(["t", 65], dtype=object),
    "rule": lambda: "balducci",
    "empty str array": lambda: np.array([], dtype=str),
    "list of Decimal": lambda: [Decimal(1), Decimal("0.5")],
}


def _bounded(x):
    """Terms from 10**4 years to what 64 bits hold ask for that many payments: memory, not hostile."""
    return not 1e4 < abs(x) < 2**64


hostile = st.one_of(
    st.sampled_from(sorted(HOSTILE)).map(lambda name: HOSTILE[name]()),
    st.floats().filter(_bounded),
    st.integers(-(2**80), 2**80).filter(_bounded),
)

LAW = makeham(0.00022, 2.7e-6, 1.124)  # the law of the bundled table
Q = np.append(LAW.qx(np.arange(20, 120)), 1.0)
TABLE = bundled_table("makeham_20_120")
SELECT = MortalityTable(Q, first_age=20, select=np.column_stack([0.6 * Q[:60], 0.8 * Q[1:61]]), select_first_age=30)
LIFE = TABLE.life(65)
TABLES = {"t": TABLE, "s": SELECT}
FLAT = InterestRate(0.03)
STATUSES = {
    "life": LIFE,
    "select life": SELECT.life(40.5, select_age=35, fractional_age="constant_force"),
    "joint": JointLife(LIFE, SELECT.life(60)),
    "last survivor": JointLife(LIFE, TABLE.life(90.25), status="last_survivor"),
}


def _clear(exc, prefix, args=()):
    """One of the documented exception kinds (not a subclass such as UnicodeDecodeError or pyarrow's),
    with a message that names the problem: not the interpreter's, with the method's prefix, and no
    endless number (unless the caller wrote it)."""
    text = str(exc)
    assert type(exc) in DOCUMENTED or isinstance(exc, OSError), f"{type(exc).__name__}: {text}"
    echoed = "".join(repr(a) for a in args if isinstance(a, int))
    assert text and not OPAQUE.search(text), f"{type(exc).__name__}: {text}"
    assert all(run in echoed for run in re.findall(r"\d{40,}", text)), f"{type(exc).__name__}: {text}"
    assert text.startswith(prefix), f"{type(exc).__name__}: {text}"


def _usable(result):
    """What a call returned works: numbers where numbers are due, tables and lives that value and pickle."""
    if isinstance(result, float):
        assert not math.isnan(result)
    elif isinstance(result, np.ndarray):
        assert result.dtype == np.float64 and not np.isnan(result).any()
    elif isinstance(result, BatchResult):
        assert (np.isnan(result.values) == ~result.errors.valid_mask).all()
    elif isinstance(result, MortalityTable):
        assert pickle.loads(pickle.dumps(result)) == result
        p = result.tpx(result.first_age, np.array([0.0, 0.5, 1.0, 1e9]))
        assert ((0.0 <= p) & (p <= 1.0)).all() and p[0] == 1.0 and p[-1] == 0.0
        _usable(result.life(result.first_age).ä(FLAT))
    elif isinstance(result, (Life, JointLife)):
        assert pickle.loads(pickle.dumps(result)) == result
        _usable(result.ä(FLAT))
    elif isinstance(result, MakehamLaw):
        _usable(result.table(20, 120))
    elif isinstance(result, BookValues):
        errors = result.error != None  # noqa: E711
        assert (np.isnan(result.present_value) == errors).all() and len(result.id) == len(result)
        assert not math.isnan(result.summary().total_present_value)


def check(call, args, returns, allowed=(TypeError, ValueError, OverflowError), prefix="["):
    """``call(*args)`` returns a usable value of the promised type or raises an allowed, clear error;
    the arguments are left as they were."""
    before = [_seen(a) for a in args]
    try:
        result = call(*args)
    except allowed as exc:
        _clear(exc, prefix, args)
        result = exc
    else:
        assert isinstance(result, returns), (type(result), returns)
        _usable(result)
    assert [_seen(a) for a in args] == before, "an argument was changed"
    return result


def _seen(value):
    """What the caller sees of a value (pandas arrays cache their NumPy form, masked arrays their fill value)."""
    if isinstance(value, dict):
        return {key: _seen(column) for key, column in value.items()}
    if isinstance(value, (pd.Series, pd.api.extensions.ExtensionArray)):
        return repr(list(value)), str(value.dtype)
    if isinstance(value, np.ma.MaskedArray):
        return value.data.tobytes(), np.ma.getmaskarray(value).tobytes(), value.dtype, value.flags.writeable
    return _snapshot(value)


def _tampered(field, value):
    """A table restored from a pickle whose state has ``value`` at ``field``, then used."""
    reducer, state = TABLE.__reduce__()
    state = list(state)
    state[field] = value
    return reducer(*state)


# name: (call with two hostile values, the promised result types)
MORTALITY_CALLS = {
    "MortalityTable(qx, first_age)": (lambda x, y: MortalityTable(x, first_age=y), MortalityTable),
    "MortalityTable(select, select_first_age)": (
        lambda x, y: MortalityTable(Q, first_age=20, select=x, select_first_age=y),
        MortalityTable,
    ),
    "MortalityTable(closing_age, fractional_age)": (
        lambda x, y: MortalityTable(Q, first_age=20, closing_age=x, fractional_age=y),
        MortalityTable,
    ),
    "MortalityTable.scaled/rated": (lambda x, y: SELECT.scaled(x).rated(y), MortalityTable),
    "MortalityTable.with_fractional_age": (lambda x, y: SELECT.with_fractional_age(x), MortalityTable),
    "MortalityTable.life": (lambda x, y: SELECT.life(x, select_age=y), Life),
    "MortalityTable.life rule": (lambda x, y: TABLE.life(y, fractional_age=x), Life),
    "MortalityTable.tpx": (lambda x, y: SELECT.tpx(x, y), (float, np.ndarray)),
    "MortalityTable.tpx select_age, rule": (
        lambda x, y: SELECT.tpx(40, 2.5, select_age=x, fractional_age=y),
        (float, np.ndarray),
    ),
    "MortalityTable ==": (lambda x, y: (TABLE.__eq__(x), SELECT.__ne__(x), hash(TABLE)), tuple),
    "unpickled table": (lambda x, y: _tampered(len(repr(y)) % 5, x), MortalityTable),
    "Life": (lambda x, y: Life(x, 65, select_age=y), Life),
    "Life age, select_age": (lambda x, y: Life(SELECT, x, select_age=y), Life),
    "Life.tpx": (lambda x, y: LIFE.tpx(x), (float, np.ndarray)),
    "Life ==": (lambda x, y: (LIFE.__eq__(x), STATUSES["joint"].__eq__(x), hash(LIFE)), tuple),
    "unpickled life": (lambda x, y: _life(SELECT, x, y, "udd"), Life),
    "unpickled life rule": (lambda x, y: _life(TABLE, 65.0, None, x), Life),
    "JointLife": (lambda x, y: JointLife(x, LIFE, status=y), JointLife),
    "JointLife status": (lambda x, y: JointLife(LIFE, LIFE, status=x), JointLife),
    "unpickled joint life": (lambda x, y: _joint_life(LIFE, x, y), JointLife),
    "makeham": (lambda x, y: makeham(x, y, 1.1), MakehamLaw),
    "gompertz": (lambda x, y: gompertz(y, x), MakehamLaw),
    "constant_force": (lambda x, y: constant_force(x), MakehamLaw),
    "MakehamLaw": (lambda x, y: MakehamLaw(0.001, 1e-5, x), MakehamLaw),
    "MakehamLaw.table": (lambda x, y: LAW.table(x, y), MortalityTable),
    "MakehamLaw.table rule": (lambda x, y: LAW.table(20, 100, fractional_age=x), MortalityTable),
    "MakehamLaw.qx/force": (lambda x, y: (LAW.qx(x), LAW.force(x)), tuple),
    "bundled_table": (lambda x, y: bundled_table(x), MortalityTable),
    "life_annuities age, n": (lambda x, y: life_annuities(FLAT, TABLES, table="t", age=x, n=y), np.ndarray),
    "life_annuities d, ts": (lambda x, y: life_annuities(FLAT, TABLES, table="t", age=65, d=x, ts=y), np.ndarray),
    "life_annuities m, benefits": (
        lambda x, y: life_annuities(FLAT, TABLES, table=["t", "s"], age=65, m=x, benefits=y),
        np.ndarray,
    ),
    "life_annuities table, select_age": (
        lambda x, y: life_annuities(FLAT, TABLES, table=x, age=40, select_age=y),
        np.ndarray,
    ),
    "life_annuities timing, on_error": (
        lambda x, y: life_annuities(FLAT, TABLES, table="t", age=65, timing=x, on_error=y),
        (np.ndarray, BatchResult),
    ),
    "life_annuities record_ids": (
        lambda x, y: life_annuities(FLAT, TABLES, table="t", age=[65, y], on_error="nan", record_ids=x),
        BatchResult,
    ),
    "life_annuities tables, curve": (lambda x, y: life_annuities(y, {"t": x}, table="t", age=65), np.ndarray),
    "life_annuities tables mapping": (lambda x, y: life_annuities(FLAT, x, table=y, age=65), np.ndarray),
}


@pytest.mark.parametrize("name", sorted(MORTALITY_CALLS))
@SETTINGS
@given(x=hostile, y=hostile)
@example(x=10**400, y=None).via("int too large to convert to float")
@example(x=pd.NA, y=None).via("boolean value of NA is ambiguous")
@example(x=1e307, y=1e307).via("a law whose own table overflows with a RuntimeWarning")
@example(x=65, y=math.nan).via("a NaN select age: cannot convert float NaN to integer")
@example(x=1, y=2**70).via("an age beyond 64 bits reached the native table; a record id without len()")
@example(x=Decimal("NaN"), y=65).via("decimal.InvalidOperation from a law's table")
@example(x=12, y=10**400).via("a message that names neither the method nor the argument")
def test_mortality_functions(name, x, y):
    call, returns = MORTALITY_CALLS[name]
    check(call, (x, y), returns)


# name: (the method's call with the status and two hostile values)
STATUS_CALLS = {
    "ä n, d": lambda s, x, y: s.ä(FLAT, n=x, d=y),
    "a m, ts": lambda s, x, y: s.a(FLAT, m=x, ts=y),
    "ä gr, n": lambda s, x, y: s.ä(FLAT, gr=x, n=y),
    "a cashflow_amounts, n": lambda s, x, y: s.a(FLAT, n=y, cashflow_amounts=x),
    "ä curve": lambda s, x, y: s.ä(x, n=y),
    "A n, m": lambda s, x, y: s.A(FLAT, n=x, m=y),
    "A d, ts": lambda s, x, y: s.A(FLAT, n=5, d=x, ts=y),
    "A_endowment n, d": lambda s, x, y: s.A_endowment(FLAT, n=x, d=y),
    "E n, ts": lambda s, x, y: s.E(FLAT, x, ts=y),
}


@pytest.mark.parametrize("method", sorted(STATUS_CALLS))
@SETTINGS
@given(status=st.sampled_from(sorted(STATUSES)), mode=st.sampled_from(MODES), x=hostile, y=hostile)
@example(status="life", mode=MODES[0], x=10**400, y=None).via("int too large to convert to float")
@example(status="life", mode=MODES[0], x=1e308, y=1e308).via("a message with a 300-digit age")
@example(status="select life", mode=MODES[0], x=1e10, y=None).via("NaN under a constant force between birthdays")
def test_lives_methods(method, status, mode, x, y):
    with Config().override(calculation_mode=mode):
        check(lambda a, b: STATUS_CALLS[method](STATUSES[status], a, b), (x, y), float)


# --------------------------------------------------------------------------- books of policies

POLICY_COLUMNS = ("term", "age", "table", "select_age", "frequency", "benefit", "deferment", "shift", "timing", "id")
COLUMNS = {
    "numbers": lambda: [10.0, 65.0],
    "names": lambda: ["t", "makeham_13_110"],
    "big-endian": lambda: np.array([10.0, 65.0], ">f8"),
    "big-endian int": lambda: np.array([12, 1], ">i4"),
    "masked": lambda: np.ma.array([65.0, 70.0], mask=[False, True]),
    "masked names": lambda: np.ma.array(["t", "x"], mask=[False, True]),
    "Int64 NA": lambda: pd.array([65, None], dtype="Int64"),
    "Float64 NA": lambda: pd.array([12.0, None], dtype="Float64"),
    "boolean NA": lambda: pd.array([True, None], dtype="boolean"),
    "string NA": lambda: pd.array(["due", None], dtype="string"),
    "pd.NA objects": lambda: [pd.NA, "t"],
    "2-d": lambda: np.full((2, 2), 65.0),
    "Decimal": lambda: [Decimal("65.5"), Decimal("NaN")],
    "Fraction": lambda: np.array([Fraction(1, 3), Fraction(131, 2)], dtype=object),
    "huge ints": lambda: [10**400, 2**70],
    "1e307": lambda: [1e307, 1e307],
    "nan/inf": lambda: [math.nan, -math.inf],
    "negative": lambda: [-1, -65.5],
    "bools": lambda: np.array([True, False]),
    "complex": lambda: np.array([1 + 1j, 65]),
    "texts": lambda: ["65", " 1_0 "],
    "empty": lambda: np.empty(0),
    "objects": lambda: np.array([None, object()], dtype=object),
    "float16": lambda: np.array([65, 12], dtype=np.float16),
    "uint64": lambda: np.array([2**64 - 1, 12], dtype=np.uint64),
    "datetime": lambda: np.array(["2020-01-01", "NaT"], dtype="datetime64[D]"),
}
columns = st.dictionaries(
    st.sampled_from(POLICY_COLUMNS), st.sampled_from(sorted(COLUMNS)).map(lambda k: COLUMNS[k]()), max_size=4
)


def _frame(book, kind):
    """The columns as the kind of book a caller may pass; None when that kind cannot hold them."""
    try:
        if kind == "pandas":
            return pd.DataFrame(book)
        if kind == "arrow":
            return pa.table(book)
    except (TypeError, ValueError, OverflowError, pa.ArrowException):
        return None
    return book


BOOK_ERRORS = (TypeError, ValueError, OverflowError, InputError)


@SETTINGS
@given(book=columns, kind=st.sampled_from(["dict", "pandas", "arrow"]), mode=st.sampled_from(MODES))
def test_books_of_hostile_columns(book, kind, mode):
    frame = _frame(book, kind)
    if frame is not None:
        check(lambda b: value_book(b, FLAT, mode=mode, tables=TABLES), (frame,), BookValues, BOOK_ERRORS, "")


def _key(value):
    """The value, or its repr when it cannot be a dict key."""
    try:
        return {value: None} and value
    except TypeError:
        return repr(value)


BOOK = {"term": [5.0, 10.0], "age": [65.0, math.nan], "table": ["t", None]}

# name: (call with two hostile values, the promised result types)
PORTFOLIO_CALLS = {
    "value_book book": (lambda x, y: value_book(x, FLAT), BookValues),
    "value_book curve, mode": (lambda x, y: value_book(BOOK, x, mode=y), BookValues),
    "value_book tables, progress": (lambda x, y: value_book(BOOK, FLAT, tables=x, progress=y), BookValues),
    "value_book table entry": (lambda x, y: value_book(BOOK, FLAT, tables={"t": x, _key(y): TABLE}), BookValues),
    "stream_book output": (lambda x, y: stream_book(BOOK, FLAT, x), object),
    "open_book": (lambda x, y: open_book(x, y), object),
    "valued_blocks": (lambda x, y: list(valued_blocks(open_book(BOOK), FLAT, x, False, y)), list),
    "write_table": (lambda x, y: write_table(x, y), type(None)),
    "check_output/output_kind": (lambda x, y: (check_output(x), output_kind(y)), tuple),
    "book_tables": (lambda x, y: book_tables(x), object),
    "policies_from_batch": (lambda x, y: policies_from_batch(x, y), object),
    "value_policies": (lambda x, y: value_policies(FLAT, x, y), tuple),
    "book_flows": (lambda x, y: book_flows(FLAT, x, "discrete_precision", y), dict),
    "flow_years/last_payment_year": (lambda x, y: (flow_years(x, False, y), last_payment_year(x)), tuple),
}


@pytest.mark.parametrize("name", sorted(PORTFOLIO_CALLS))
@SETTINGS
@given(x=hostile, y=hostile)
@example(x=None, y=None).via("a curve that is not one, an output that is not a path: AttributeError")
@example(x=pd.Series([5.0]), y=None).via("a Series taken for an Arrow stream: ArrowInvalid")
def test_portfolio_functions(name, x, y):
    call, returns = PORTFOLIO_CALLS[name]
    with redirect_stderr(io.StringIO()):
        check(call, (x, y), returns, BOOK_ERRORS, "")


# --------------------------------------------------------------------------- files

CELLS = ["age", "AGE", "qx", "select_0", "select_00", "select_1", "term", "table", "20", "20.5", "21", "0.5", "1"]
CELLS += ["", "nan", "-1", "1e999", '"', "x", "ä", "makeham_13_110"]
ENCODINGS = ("utf-8", "utf-8-sig", "utf-16", "latin-1")
text_files = st.builds(
    lambda rows, encoding, zipped: (lambda b: gzip.compress(b) if zipped else b)(
        "\n".join(",".join(r) for r in rows).encode(encoding)
    ),
    st.lists(st.lists(st.sampled_from(CELLS), min_size=1, max_size=4), min_size=1, max_size=5),
    st.sampled_from(ENCODINGS),
    st.booleans(),
)


@SETTINGS
@given(content=text_files)
@example(content=b"age,age,qx\n20,20,1\n").via("KeyError on a duplicated column")
@example(content=b"age,qx,select_00\n20,0.5,0.1\n21,1,\n").via("KeyError on select_00")
@example(content="id,age,term\nx,65,5\n".encode("utf-16")).via("UnicodeDecodeError")
@example(content="âge,qx\n20,1\n".encode("latin-1")).via("UnicodeDecodeError from a mortality table")
@example(content=b"age,qx\nnan,1\n").via("arange: cannot compute length")
def test_csv_files(content):
    """The same hostile CSV text as a mortality table, a book, and through the command line."""
    with tempfile.TemporaryDirectory() as tmp, redirect_stdout(io.StringIO()), redirect_stderr(io.StringIO()):
        path = Path(tmp) / "file.csv"
        path.write_bytes(content)
        check(MortalityTable.from_csv, (path,), MortalityTable, (ValueError, TypeError, OSError))
        check(lambda p: value_book(p, FLAT, tables=TABLES), (path,), BookValues, BOOK_ERRORS, "")
        argv = ["value", "--portfolio", str(path), "--mortality", f"t={path}", "--rate", "0.03", "--quiet"]
        assert main(argv) in (0, 2)


# --------------------------------------------------------------------------- faults found, one by one

M, C = TABLE, FLAT


@pytest.mark.parametrize(
    "call",
    [
        lambda: M.life(10**400),
        lambda: M.life(65).ä(C, d=10**400),
        lambda: M.life(65).ä(C, n=10**400),
        lambda: M.life(65).ä(C, ts=10**400),
        lambda: M.life(65).E(C, 10**400),
        lambda: makeham(0.001, 10**400, 1.1),
        lambda: C.ä(n=10**400),
    ],
    ids=["life", "ä d", "ä n", "ä ts", "E", "makeham", "curve ä"],
)
def test_integers_beyond_floats_are_refused_by_name(call):
    # As a float64 conversion documents it: a ValueError, named by the method.
    with pytest.raises(ValueError) as refused:
        call()
    _clear(refused.value, "[")


def _beyond_floats(age, g, i=0.03, years=100):
    """+inf when the largest term of ä with payments growing by g, (1 + g)^k v^k kpx by the law's survival in
    closed form (a certain annuity without an age), is beyond the largest float; None otherwise."""
    k = np.arange(years if age is None else min(years, 120 - age + 1))
    log_p = 0.0 if age is None else -LAW.A * k - LAW.B / math.log(LAW.c) * (LAW.c ** (age + k) - LAW.c**age)
    return math.inf if np.max(k * math.log((1 + g) / (1 + i)) + log_p) > math.log(sys.float_info.max) else None


@pytest.mark.parametrize(
    "call, expected",
    [
        # Survival is exactly 0 after the table's last age: nothing is paid, however large v^t.
        (lambda: M.life(65).E(InterestRate(-0.5), n=1100), 0.0),
        (lambda: M.life(65).A(InterestRate(-0.5), n=1, d=7460), 0.0),
        # Deferred past the table between birthdays: nothing to build a grid for, however far.
        (lambda: M.life(65.5).ä(C, n=1, d=1e15), 0.0),
        # A payment beyond the float range: the sum is +inf.
        (lambda: C.ä(n=100, gr=1e4), _beyond_floats(None, 1e4)),
        (lambda: M.life(31).ä(C, gr=1e4), _beyond_floats(31, 1e4)),
        (lambda: JointLife(M.life(31), M.life(31), status="last_survivor").a(C, gr=1e4), _beyond_floats(31, 1e4)),
        (lambda: M.life(65.5, fractional_age="constant_force").ä(C, gr=1e10), _beyond_floats(65.5, 1e10)),
        (lambda: M.life(65.5, fractional_age="balducci").a(C, gr=1e10), _beyond_floats(65.5, 1e10)),
    ],
    ids=[
        "E",
        "A deferred",
        "deferred past the table",
        "curve ä",
        "life ä",
        "last survivor a",
        "constant force",
        "balducci",
    ],
)
@pytest.mark.parametrize("mode", MODES)
def test_no_nan_where_survival_ends_or_payments_overflow(call, expected, mode):
    with Config().override(calculation_mode=mode):
        assert call() == expected


def test_a_long_term_stops_where_survival_ends():
    """A term past the table's end is the whole of life: same value, no memory for payments nobody gets."""
    child = """if True:
        import re, resource
        from norvane.interest_rates import InterestRate
        from norvane.mortality import bundled_table
        life, c = bundled_table("makeham_20_120").life(65), InterestRate(0.03)
        whole = life.A(c, m=365), life.A(c), life.A_endowment(c, n=60)
        size = int(re.search(r"VmSize:\\s+(\\d+)", open("/proc/self/status").read()).group(1)) * 1024
        resource.setrlimit(resource.RLIMIT_AS, (size + (300 << 20), resource.RLIM_INFINITY))
        long = life.A(c, n=1e5, m=365), life.A(c, n=1e8), life.A_endowment(c, n=1e8)
        assert max(abs(a - b) for a, b in zip(long, whole)) < 1e-9, (long, whole)
    """
    run = subprocess.run([sys.executable, "-c", child], capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr[-500:]


@pytest.mark.parametrize(
    "first, last",
    [(20, 1e16), (0, np.complex128(65)), (np.int8(-128), 92), (np.uint8(20), np.uint8(255)), (20.0, 100)],
)
def test_law_tables_of_odd_ages(first, last):
    try:
        table = LAW.table(first, last)
    except (TypeError, ValueError) as exc:
        _clear(exc, "[")
        return
    ages = np.arange(int(first), int(last))
    assert (table.first_age, table.last_age) == (int(first), int(last))
    law = 1 - np.exp(-LAW.A - LAW.B * LAW.c**ages * (LAW.c - 1) / math.log(LAW.c))
    np.testing.assert_allclose(table.qx[:-1], law, rtol=1e-12)


CSV_REFUSED = {
    "duplicated age": "age,age,qx\n20,20,0.5\n21,21,1\n",
    "duplicated qx in another case": "age,qx,QX\n20,0.5,0.1\n21,1,1\n",
    "select_00": "age,qx,select_00\n20,0.5,0.1\n21,1,\n",
    "select with an Arabic-Indic zero": "age,qx,select_\u0660\n20,0.5,0.1\n21,1,\n",
    "fractional ages": "age,qx\n20.5,0.5\n21.5,1\n",
    "dates for ages": "age,qx\n2020-01-01,0.5\n2020-01-02,1\n",
    "booleans for q": "age,qx\n20,false\n21,true\n",
    "NaN ages": "age,qx\nnan,0.5\nnan,1\n",
    "a text q": "age,qx\n20,x\n21,1\n",
    "a ragged row": "age,qx\n20,0.5,3\n21,1\n",
    "no rows at all": "",
    "Latin-1 header": b"\xe2ge,qx\n20,1\n",
}


@pytest.mark.parametrize("content", CSV_REFUSED.values(), ids=CSV_REFUSED)
def test_mortality_csv_refused(tmp_path, content):
    (tmp_path / "q.csv").write_bytes(content if isinstance(content, bytes) else content.encode())
    with pytest.raises(ValueError) as refused:
        MortalityTable.from_csv(tmp_path / "q.csv")
    _clear(refused.value, "[MortalityTable.from_csv]")


@pytest.mark.parametrize(
    "columns, error",
    [
        (dict(table=[["t", "t"], ["t", "t"]], age=65), ValueError),
        (dict(table="t", age=np.full((2, 2), 65.0)), ValueError),
        (dict(table="t", age=65, m=True), TypeError),
        (dict(table=["t", "t"], age=65, m=[1, True]), TypeError),
        (dict(table=np.ma.array(["t", "t"], mask=[False, True]), age=65), ValueError),
        (dict(table=pd.Series(["t", pd.NA], dtype="string"), age=65), ValueError),
        (dict(table=["t", pd.NA], age=65), ValueError),
        (dict(table="t", age=np.ma.array([65.0, 65.0], mask=[False, True])), ValueError),
    ],
    ids=["2-d table", "2-d age", "m True", "m list with True", "masked table", "NA string", "NA list", "masked age"],
)
def test_life_annuities_refuse_columns_they_cannot_read(columns, error):
    with pytest.raises(error) as refused:
        life_annuities(C, TABLES, **columns)
    _clear(refused.value, "[life_annuities]")


def _ä(n, i=0.03):
    return (1 - (1 + i) ** -n) / (1 - 1 / (1 + i))


def _utf16(tmp):
    (tmp / "utf16.csv").write_text("term\n5\n10\n", encoding="utf-16")
    return tmp / "utf16.csv"


BYTE_ORDER, REFUSED = [_ä(5), _ä(10)], [math.nan, math.nan]


@pytest.mark.parametrize(
    "book, expected",
    [
        (lambda tmp: {"term": np.array([5.0, 10.0], ">f8"), "frequency": np.array([1, 1], ">i8")}, BYTE_ORDER),
        (lambda tmp: pd.DataFrame({"term": np.array([5.0, 10.0], ">f8")}), BYTE_ORDER),
        (_utf16, BYTE_ORDER),
        (lambda tmp: {"term": np.array([5, 10 + 1j])}, REFUSED),
        (lambda tmp: pd.DataFrame({"term": np.array([5, 10 + 1j])}), REFUSED),
        (lambda tmp: {"term": [5, 10**400]}, [_ä(5), math.nan]),
        (lambda tmp: {"term": np.array([True, False])}, REFUSED),
        (lambda tmp: pd.DataFrame({"term": [5.0, 10.0], "frequency": [True, True]}), REFUSED),
    ],
    ids=[
        "big-endian dict",
        "big-endian frame",
        "UTF-16 CSV",
        "complex",
        "complex frame",
        "int beyond 64 bits",
        "booleans for terms",
        "booleans for frequencies",
    ],
)
def test_books_arrow_cannot_take_as_they_are(tmp_path, book, expected):
    """Each record valued (closed form), or refused with its message; or the whole book refused clearly."""
    try:
        values = value_book(book(tmp_path), C)
    except (TypeError, InputError) as exc:
        assert expected is not BYTE_ORDER, "a book in another byte order or encoding is still a book"
        _clear(exc, "")
        return
    np.testing.assert_allclose(values.present_value, expected, rtol=1e-10)
    assert (np.isnan(values.present_value) == (values.error != None)).all()  # noqa: E711


def test_a_total_beyond_floats_does_not_stop_the_valuation():
    law_l = np.exp(-LAW.A * np.arange(65, 121) - LAW.B / math.log(LAW.c) * LAW.c ** np.arange(65, 121))
    ä65 = math.fsum(law_l / law_l[0] * 1.03 ** -np.arange(56))
    values = value_book({"age": [65, 65], "benefit": [1e307, 1e307]}, C)
    np.testing.assert_allclose(values.present_value, [1e307 * ä65] * 2, rtol=1e-9)
    assert values.summary().total_present_value == math.inf  # the exact sum, rounded: beyond the largest float


def test_outputs_and_laws_take_what_callers_pass(tmp_path):
    """A path written as text is a path; a boolean is not an age."""
    summary = stream_book({"term": [5.0]}, C, str(tmp_path / "out.csv"))
    write_table(str(tmp_path / "t.csv"), {"a": [1.0]})
    assert summary.valued == 1 and (tmp_path / "out.csv").exists() and (tmp_path / "t.csv").exists()
    for call in (LAW.qx, LAW.force):
        for flag in (True, np.True_, np.array([True, False])):
            with pytest.raises(TypeError):
                call(flag)


class _Pickled:
    """Pickles as a table restored from the given state."""

    def __init__(self, *state):
        self.state = state

    def __reduce__(self):
        return MortalityTable._derived, self.state


@pytest.mark.parametrize(
    "state",
    [
        (20, np.where(np.arange(Q.size) == 5, 1.5, Q), np.empty((0, 0)), 20, "udd"),
        (20, np.append(Q[:-1], 0.5), np.empty((0, 0)), 20, "udd"),
        (20, np.append(Q[:-1], math.nan), np.empty((0, 0)), 20, "udd"),
        (20, Q, np.array([0.1, 0.2]), 20, "udd"),
        (20, Q, np.full((2, 2, 2), 0.1), 20, "udd"),
        (20, Q, np.full((200, 2), 0.01), 20, "udd"),
        (20, Q, np.full((2, 2), 0.01), 5, "udd"),
        (20, Q, np.empty((0, 0)), 20, "linear"),
        (20.5, Q, np.empty((0, 0)), 20, "udd"),
    ],
    ids=[
        "q above 1",
        "last q below 1",
        "nan q",
        "1-d select",
        "3-d select",
        "select rows past the table",
        "select rows before the table",
        "unknown rule",
        "fractional first age",
    ],
)
def test_tampered_pickles_are_refused_on_load(state):
    with pytest.raises((ValueError, TypeError)) as refused:
        pickle.loads(pickle.dumps(_Pickled(*state)))
    _clear(refused.value, "")


def test_message_of_an_age_beyond_floats():
    with pytest.raises(ValueError) as refused:
        M.life(65).ä(C, ts=1e308)
    _clear(refused.value, "[Life.ä]")
