"""Mortality that improves over calendar time: an improvement scale applied
to a base table, and the tables of one calendar year or of one cohort.

For a life aged x in calendar year Y,
q(x, Y) = q_base(x) x the product over s = base_year + 1 .. Y of (1 - AI(x, s))
(for a year before the base year, q_base(x) divided by the product over
s = Y + 1 .. base_year), capped at 1. A life follows its cohort's diagonal:
the year of age a of a life aged x in year Y is lived in year Y + a - floor(x).
"""

from __future__ import annotations

import math
import os
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ..helpers import _named_f64, _real_float
from ._rules import FractionalAgeLiteral
from .lives import Life
from .tables import MortalityTable, _csv_columns, _integer

__all__ = ["GenerationalTable", "ImprovementScale"]

F64 = NDArray[np.float64]
_YEAR_RANGE = 100_000  # calendar years lie within +-this: products over them stay short
_MAX_COHORTS = 4096  # cohort tables kept per generational table (then the cache starts again)


def _year(value: Any, name: str, method_name: str) -> int:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"[{method_name}] '{name}' must be an integer calendar year, got {type(value).__name__}.")
    if not -_YEAR_RANGE <= value <= _YEAR_RANGE:
        raise ValueError(f"[{method_name}] '{name}' must be a calendar year within +-{_YEAR_RANGE}, got {value}.")
    return int(value)


class ImprovementScale:
    """Annual rates of improvement AI(x, s) of q by age x and calendar year s.

    Parameters
    ----------
    rates : float or array-like
        One rate for every age and year; one per age (one-dimensional, from
        ``first_age``); or ages down and years across (two-dimensional, from
        ``first_age`` and ``first_year``). Each finite and below 1 (a
        negative rate is a deterioration).
    first_age : int, optional
        Age of the first row (needed with arrays). Younger ages take its
        rates, older ones the last row's.
    first_year : int, optional
        Calendar year of the first column (needed with two dimensions).
        Earlier years take its rates.
    long_term_rate : float, optional
        The rate of every age after the last year given (default: the last
        year's rates continue).
    """

    __slots__ = ("_rates", "_first_age", "_first_year", "_long_term_rate")

    _rates: F64
    _first_age: int
    _first_year: int
    _long_term_rate: float | None

    def __init__(
        self,
        rates: ArrayLike,
        *,
        first_age: int | None = None,
        first_year: int | None = None,
        long_term_rate: float | None = None,
    ) -> None:
        method = "ImprovementScale"
        table = np.array(_named_f64(rates, "rates", method), dtype=np.float64)
        if table.ndim > 2 or table.size == 0:
            raise ValueError(f"[{method}] 'rates' must be a number or a non-empty 1-D or 2-D array, got {table.shape}.")
        if table.ndim >= 1 and first_age is None:
            raise ValueError(f"[{method}] rates by age need 'first_age'.")
        if table.ndim == 2 and first_year is None:
            raise ValueError(f"[{method}] rates by age and year need 'first_year'.")
        if table.ndim < 2 and (first_year is not None or long_term_rate is not None):
            raise ValueError(f"[{method}] 'first_year' and 'long_term_rate' go with rates by age and year.")
        long_term = None if long_term_rate is None else _real_float(long_term_rate, "long_term_rate", method)
        for what, values in (("rates", table), ("long_term_rate", np.array([0.0 if long_term is None else long_term]))):
            bad = np.flatnonzero(~(np.isfinite(values) & (values < 1.0)))
            if bad.size:
                value = float(values.reshape(-1)[bad[0]])
                raise ValueError(f"[{method}] '{what}' must be finite and below 1, got {value!r}.")
        set_ = object.__setattr__
        set_(self, "_rates", table.reshape(table.shape[0] if table.ndim else 1, -1))
        self._rates.flags.writeable = False
        set_(self, "_first_age", 0 if first_age is None else _integer(first_age, "first_age", method))
        set_(self, "_first_year", 0 if first_year is None else _year(first_year, "first_year", method))
        set_(self, "_long_term_rate", long_term)

    @classmethod
    def from_csv(cls, path: str | os.PathLike[str], *, long_term_rate: float | None = None) -> ImprovementScale:
        """Read a two-dimensional scale from CSV: a column ``age`` (consecutive
        ages, down) and one column per calendar year (consecutive, across),
        named by the year."""
        method = "ImprovementScale.from_csv"
        columns = _csv_columns(path, method)
        ages = columns.pop("age", None)
        if ages is None:
            raise ValueError(f"[{method}] {os.fspath(path)!r} has no 'age' column.")
        if not (ages.size and np.array_equal(ages, np.arange(ages[0], ages[0] + ages.size))):
            raise ValueError(f"[{method}] ages must be consecutive integers.")
        if not all(name.isdigit() for name in columns):
            raise ValueError(f"[{method}] every column but 'age' must be named by its year, got {list(columns)}.")
        years = sorted(int(name) for name in columns)
        if not years or years != list(range(years[0], years[0] + len(years))):
            raise ValueError(f"[{method}] the years must be consecutive, got {years}.")
        rates = np.column_stack([columns[str(year)] for year in years])
        return cls(rates, first_age=int(ages[0]), first_year=years[0], long_term_rate=long_term_rate)

    @property
    def rates(self) -> F64:
        """The rates, ages down and years across (one row, one column or both, read-only)."""
        return self._rates

    def at(self, ages: ArrayLike, years: ArrayLike) -> F64:
        """AI for each age and year (broadcast together)."""
        age, year = np.broadcast_arrays(np.asarray(ages, dtype=np.int64), np.asarray(years, dtype=np.int64))
        rows = np.clip(age - self._first_age, 0, self._rates.shape[0] - 1)
        offset = year - self._first_year
        last = self._rates.shape[1] - 1
        out: F64 = self._rates[rows, np.clip(offset, 0, last)]
        if self._long_term_rate is not None and self._rates.shape[1] > 1:
            out = np.where(offset > last, self._long_term_rate, out)
        return out

    def _key(self) -> tuple[Any, ...]:
        return (self._rates.shape, self._rates.tobytes(), self._first_age, self._first_year, self._long_term_rate)

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, ImprovementScale):
            return NotImplemented
        return self._key() == other._key()

    def __hash__(self) -> int:
        return hash(self._key())

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("ImprovementScale is immutable.")

    def __reduce__(self) -> tuple[Any, ...]:
        # Any scale is its rates as ages by years (one row or column repeating).
        return (_scale, (np.array(self._rates), self._first_age, self._first_year, self._long_term_rate))

    def __repr__(self) -> str:
        ages, years = self._rates.shape
        if ages == years == 1:
            return f"ImprovementScale({float(self._rates[0, 0])!r})"
        by_year = f", years {self._first_year} to {self._first_year + years - 1}" if years > 1 else ""
        return f"ImprovementScale(ages {self._first_age} to {self._first_age + ages - 1}{by_year})"


def _scale(rates: F64, first_age: int, first_year: int, long_term_rate: float | None) -> ImprovementScale:
    return ImprovementScale(rates, first_age=first_age, first_year=first_year, long_term_rate=long_term_rate)


def _as_scale(scale: Any, method_name: str) -> ImprovementScale:
    if isinstance(scale, ImprovementScale):
        return scale
    if isinstance(scale, (bool, np.bool_)) or not isinstance(scale, (int, float, np.integer, np.floating)):
        raise TypeError(f"[{method_name}] 'scale' must be an ImprovementScale or one rate, got {type(scale).__name__}.")
    return ImprovementScale(_real_float(scale, "scale", method_name))


class GenerationalTable:
    """A base table whose rates improve over calendar time by a scale.

    Made by :meth:`MortalityTable.with_improvement`. A life needs the
    calendar year in which it has its age: ``table.life(65, year=2025)``.
    """

    __slots__ = ("_base", "_scale", "_base_year", "_cohorts")

    _base: MortalityTable
    _scale: ImprovementScale
    _base_year: int
    _cohorts: dict[int, MortalityTable]

    def __init__(self, base: MortalityTable, scale: ImprovementScale | float, base_year: int) -> None:
        method = "MortalityTable.with_improvement"
        if not isinstance(base, MortalityTable):
            raise TypeError(f"[{method}] the base must be a MortalityTable, got {type(base).__name__}.")
        set_ = object.__setattr__
        set_(self, "_base", base)
        set_(self, "_scale", _as_scale(scale, method))
        set_(self, "_base_year", _year(base_year, "base_year", method))
        set_(self, "_cohorts", {})

    @property
    def base(self) -> MortalityTable:
        """The table of the base year."""
        return self._base

    @property
    def scale(self) -> ImprovementScale:
        """The improvement scale."""
        return self._scale

    @property
    def base_year(self) -> int:
        """The calendar year whose rates the base table holds."""
        return self._base_year

    @property
    def fractional_age(self) -> str:
        """The base table's default fractional-age rule."""
        return self._base.fractional_age

    def _factors(self, ages: NDArray[np.int64], years: NDArray[np.int64]) -> F64:
        """The improvement of q at each age from the base year to its year (same shapes)."""
        low, high = min(self._base_year, int(years.min())), max(self._base_year, int(years.max()))
        span = np.arange(low + 1, high + 1)
        # log(1 - AI) summed over the years up to each: the factor of year y is the sum to y
        # less the sum to the base year (a year before the base divides).
        logs = np.log1p(-self._scale.at(ages.reshape(-1, 1), span.reshape(1, -1)))
        running = np.concatenate((np.zeros((logs.shape[0], 1)), np.cumsum(logs, axis=1)), axis=1)
        rows = np.arange(ages.size)
        exponent = running[rows, years.reshape(-1) - low] - running[rows, self._base_year - low]
        factors: F64 = np.exp(exponent).reshape(ages.shape)
        return factors

    def _table(self, year_of: Any) -> MortalityTable:
        """The base table with each age's q improved to the year ``year_of(age)``."""
        base = self._base
        ages = np.arange(base.first_age, base.last_age + 1)
        q = np.minimum(base.qx * self._factors(ages, year_of(ages)), 1.0)
        q[-1] = 1.0
        select = base.select
        if select.size:
            attained = base.select_first_age + np.add.outer(np.arange(select.shape[0]), np.arange(select.shape[1]))
            select = np.minimum(select * self._factors(attained, year_of(attained)), 1.0)
        return MortalityTable._derived(base.first_age, q, select, base.select_first_age, base.fractional_age)

    def period(self, year: int) -> MortalityTable:
        """The rates of one calendar year, at every age."""
        y = _year(year, "year", "GenerationalTable.period")
        return self._table(lambda ages: np.full_like(ages, y))

    def cohort(self, birth_year: int) -> MortalityTable:
        """The rates a cohort lives by: age a in calendar year ``birth_year + a``."""
        return self._cohort(_year(birth_year, "birth_year", "GenerationalTable.cohort"))

    def _cohort(self, born: int) -> MortalityTable:
        """``cohort`` of a whole birth year (a book's cohorts, taken by the hundred: a year is
        checked when its table is made)."""
        table = self._cohorts.get(born)
        if table is None:
            born = _year(born, "birth_year", "GenerationalTable.cohort")
            if len(self._cohorts) >= _MAX_COHORTS:
                self._cohorts.clear()
            table = self._cohorts[born] = self._table(lambda ages: ages + born)
        return table

    def _cohort_of(self, age: float, year: Any, method_name: str) -> MortalityTable:
        x = _real_float(age, "age", method_name)
        if not math.isfinite(x):
            raise ValueError(f"[{method_name}] 'age' must be finite, got {x!r}.")
        y = _year(year, "year", method_name)
        born = y - math.floor(x)
        if not -_YEAR_RANGE <= born <= _YEAR_RANGE:
            raise ValueError(f"[{method_name}] a life aged {x!r} in {y} was born in no year within +-{_YEAR_RANGE}.")
        return self.cohort(born)

    def life(
        self,
        age: float,
        *,
        year: int,
        select_age: int | None = None,
        fractional_age: FractionalAgeLiteral | None = None,
    ) -> Life:
        """A life aged ``age`` in calendar year ``year``, on its cohort's rates."""
        table = self._cohort_of(age, year, "GenerationalTable.life")
        return Life(table, age, select_age=select_age, fractional_age=fractional_age)

    def tpx(
        self,
        age: float,
        t: ArrayLike,
        *,
        year: int,
        select_age: int | None = None,
        fractional_age: FractionalAgeLiteral | None = None,
    ) -> float | F64:
        """Survival over t years of a life aged ``age`` in calendar year ``year``."""
        table = self._cohort_of(age, year, "GenerationalTable.tpx")
        return table.tpx(age, t, select_age=select_age, fractional_age=fractional_age)

    def _key(self) -> tuple[Any, ...]:
        return (self._base, self._scale, self._base_year)

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, GenerationalTable):
            return NotImplemented
        return self._key() == other._key()

    def __hash__(self) -> int:
        return hash(self._key())

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("GenerationalTable is immutable.")

    def __reduce__(self) -> tuple[Any, ...]:
        return (GenerationalTable, self._key())

    def __repr__(self) -> str:
        return f"GenerationalTable({self._base!r}, {self._scale!r}, base year {self._base_year})"
