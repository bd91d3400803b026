"""What the hostile-input tests share: one pool of values a caller may pass anywhere, and one checker.

A call given such values returns a value of the type it promises or raises one of the exception kinds a
caller is told to expect; it never crashes, never leaks another exception and never changes its arguments.
Strictly checked calls (a message prefix given) also return usable values (no NaN where a number is due)
and raise errors whose message names the method and the problem, not the interpreter's own wording.
"""

import copy
import math
import pickle
import re
from decimal import Decimal
from fractions import Fraction

import numpy as np
import pandas as pd
from hypothesis import settings
from hypothesis import strategies as st

from norvane._kernels import InvalidPolicy
from norvane.base import FloatRangeError
from norvane.engine.annuity import _ANNUITY_CALCULATION_MODE_DISPATCH as ENGINE
from norvane.growth_rates import GrowthRate
from norvane.helpers import BatchResult
from norvane.interest_rates import InterestRate
from norvane.mortality import JointLife, Life, MakehamLaw, MortalityTable
from norvane.portfolio import BookValues, InputError

SETTINGS = settings(derandomize=True, max_examples=60, deadline=None, database=None)
LOOSE = (TypeError, ValueError, KeyError, OverflowError, ZeroDivisionError)
STRICT = (TypeError, ValueError, OverflowError)
DOCUMENTED = (FloatRangeError, TypeError, ValueError, OverflowError, InputError, InvalidPolicy)
# Python's and NumPy's own wording: an exception that reached the caller unexplained.
OPAQUE = re.compile(
    r"int too large|ambiguous|not supported between|object is not|has no attribute|could not convert|"
    r"argument must be|unhashable|out of bounds|invalid literal|too large for a float|incompatible function|"
    r"cannot compute length|cannot convert float|Maximum allowed size|setting an array element"
)
FLAT = InterestRate(0.03)


def readonly():
    a = np.array([0.5, 1.0, 2.0])
    a.flags.writeable = False
    return a


def unaligned():
    return np.frombuffer(bytes(25), dtype=np.float64, count=3, offset=1)


# Values a caller may pass; each example gets a copy of its own (checked for changes), and the arrays
# whose layout a copy would lose are built anew.
POOL = [math.nan, math.inf, -math.inf, 1e308, -1e308, 1e307, 2**70, 10**400, -(10**400), -0.0, 12, 65, 20.5, -65.0]
POOL += [True, None, "1.5", "discrete_simplified", "t", "balducci", b"1", {"a": 0.01}, {}, [], [[1.0, 2.0], [3.0]]]
POOL += [[0.5, 1.0, 2.5], [1.0, math.nan], [Decimal(1), Decimal("0.5")], np.array(2.0), np.ones((2, 2)), np.empty(0)]
POOL += [np.full((2, 2), 65.0), np.array([], dtype=str), np.array([1.0, 2.0], dtype=np.float32), np.array([1, 5])]
POOL += [np.array([65.0, 1.0], ">f8"), np.array([1, 12], ">i8"), np.array([True, False]), np.array([1 + 1j, 2])]
POOL += [np.array([1.0, None], dtype=object), np.array(["t", "s"]), np.array(["t", 65], dtype=object)]
POOL += [np.ma.array([65.0, -1.0], mask=[False, True]), pd.Series([1.0, 3.0], index=[5, 7]), pd.NA]
POOL += [pd.Series([65, None], dtype="Int64"), pd.array([1.0, None], dtype="Float64"), Decimal("NaN"), np.True_]
POOL += [pd.Series([True, None], dtype="boolean"), pd.Series(["t", None], dtype="string"), Decimal("65.5")]
POOL += [Fraction(131, 2)]
POOL += [np.float32(1.5), np.float16(65), np.longdouble(65), np.int64(3), np.int8(-128), np.uint64(2**64 - 1)]
POOL += [np.complex128(65), 1j, np.datetime64("2020-01-01"), GrowthRate(0.02), InterestRate(0.01), object()]
LAID_OUT = [readonly, unaligned, lambda: np.arange(12.0)[::4]]


def _bounded(x):
    """Counts from 10**4 up to what 64 bits hold ask for that many payments or ages: a request for
    memory, not hostile input (the refusals beyond are tested)."""
    return not 1e4 < abs(x) < 2**64


hostile = st.one_of(
    st.sampled_from(POOL).map(copy.deepcopy),
    st.sampled_from(LAID_OUT).map(lambda build: build()),
    st.floats().filter(_bounded),
    st.integers(-(2**80), 2**80).filter(_bounded),
)


def engine_call(mode, **over):
    """An engine entry called directly, as by a caller that skips validation."""
    kw = dict(d=0.0, n=3.0, payments_size=3, payments_frac=0.0, m=1, gr=None, ir=InterestRate(0.03), decimals=10)
    kw |= dict(payment_timing=0, survival_func=lambda t: 1.0, cashflow_times=None, cashflow_amounts=None)
    return ENGINE[mode](**kw | {"return_flows": False} | over)


def decimal_nan(*values):
    """Whether a Decimal NaN is among the values (some calls end in decimal.InvalidOperation: an open fault)."""
    return any(isinstance(v, Decimal) and v.is_nan() for v in values)


def seen(value):
    """What the caller sees of a value (pandas arrays cache their NumPy form, masked arrays their fill value)."""
    if isinstance(value, (dict, list, tuple)):
        items = value.items() if isinstance(value, dict) else enumerate(value)
        return type(value), [(repr(k), seen(v)) for k, v in items]
    if isinstance(value, (pd.Series, pd.api.extensions.ExtensionArray)):
        return repr(list(value)), str(value.dtype), repr(getattr(value, "index", None))
    if isinstance(value, np.ma.MaskedArray):
        return value.data.tobytes(), np.ma.getmaskarray(value).tobytes(), value.dtype, value.flags.writeable
    return pickle.dumps(value), getattr(getattr(value, "flags", None), "writeable", None)


def clear(exc, prefix, args=()):
    """One of the documented exception kinds (not a subclass such as UnicodeDecodeError or pyarrow's),
    with a message that names the problem: not the interpreter's, with the method's prefix, and no
    endless number (unless the caller wrote it)."""
    text = f"{type(exc).__name__}: {exc}"
    assert type(exc) in DOCUMENTED or isinstance(exc, OSError), text
    assert str(exc) and not OPAQUE.search(str(exc)), text
    echoed = "".join(repr(a) for a in args if isinstance(a, int))
    assert all(run in echoed for run in re.findall(r"\d{40,}", str(exc))), text
    assert str(exc).startswith(prefix), text


def usable(result):
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
        usable(result.life(result.first_age).ä(FLAT))
    elif isinstance(result, (Life, JointLife)):
        assert pickle.loads(pickle.dumps(result)) == result
        usable(result.ä(FLAT))
    elif isinstance(result, MakehamLaw):
        usable(result.table(20, 120))
    elif isinstance(result, BookValues):
        errors = result.error != None  # noqa: E711
        assert (np.isnan(result.present_value) == errors).all() and len(result.id) == len(result)
        assert not math.isnan(result.summary().total_present_value)


def check(call, args, returns, allowed=LOOSE, prefix=None):
    """``call(*args)`` returns a value of the promised type or raises an allowed error, the arguments
    left as they were; with a message ``prefix``, errors must be clear and results usable."""
    before = [seen(a) for a in args]
    try:
        result = call(*args)
    except allowed as exc:
        if prefix is not None:
            clear(exc, prefix, args)
        result = exc
    else:
        assert isinstance(result, returns), (type(result), returns)
        if prefix is not None:
            usable(result)
    assert [seen(a) for a in args] == before, "an argument was changed"
    return result
