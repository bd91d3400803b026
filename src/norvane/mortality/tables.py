"""Mortality tables: one-year death probabilities by integer age, ultimate or
select-and-ultimate, and the survival they imply at any real age."""

from __future__ import annotations

import math
import os
from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .. import _kernels
from ..helpers import _named_f64, _real_float
from ._rules import FractionalAgeLiteral, TableBase, _check_rule
from .lives import Life

if TYPE_CHECKING:
    from collections.abc import Callable

    from .improvement import GenerationalTable, ImprovementScale

__all__ = ["FractionalAgeLiteral", "MortalityTable"]

_EMPTY = np.empty(0, dtype=np.float64)
MAX_AGE = 1000
"""The largest age (in magnitude) a table may hold: far beyond any life, and every age stays exact."""

F64 = NDArray[np.float64]


def _frozen(values: Any) -> F64:
    out = np.array(values, dtype=np.float64)
    out.flags.writeable = False
    return out


def _check_q(q: F64, first_age: int, what: str) -> None:
    bad = np.flatnonzero(~((q >= 0.0) & (q <= 1.0)))
    if bad.size:
        i = int(bad[0])
        raise ValueError(f"[MortalityTable] {what} at age {first_age + i} must be in [0, 1], got {float(q[i])!r}.")


def _integer(value: Any, name: str, method_name: str = "MortalityTable") -> int:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"[{method_name}] '{name}' must be an integer age, got {type(value).__name__}.")
    if not -10 * MAX_AGE <= value <= 10 * MAX_AGE:  # said in bits: the number itself may be endless
        raise ValueError(
            f"[{method_name}] '{name}' is no age of a table, got an integer of {int(value).bit_length()} bits."
        )
    return int(value)


def _check_age_range(first: int, last: int, method_name: str) -> None:
    if not -MAX_AGE <= first <= last <= MAX_AGE:
        raise ValueError(
            f"[{method_name}] the table's ages must lie within -{MAX_AGE} to {MAX_AGE}, got {first} to {last}."
        )


def _csv_columns(path: str | os.PathLike[str], method_name: str) -> dict[str, F64]:
    """The columns of a table's CSV file as float64 arrays, by lower-case name (each name once)."""
    import pyarrow as pa
    from pyarrow import csv

    where = os.fspath(path)
    try:
        frame = csv.read_csv(where)
        names = frame.column_names  # decoded here: a header that is not UTF-8 fails now
    except (pa.ArrowInvalid, UnicodeDecodeError) as exc:
        raise ValueError(f"[{method_name}] cannot read {where!r} as UTF-8 CSV: {exc}") from None
    columns: dict[str, F64] = {}
    for name, column in zip(names, frame.columns):
        key = name.lower()
        if not (pa.types.is_integer(column.type) or pa.types.is_floating(column.type) or pa.types.is_null(column.type)):
            raise ValueError(f"[{method_name}] column '{name}' of {where!r} must hold numbers, got {column.type}.")
        if key in columns:
            raise ValueError(f"[{method_name}] {where!r} has more than one '{key}' column.")
        try:
            numbers = column.cast(pa.float64())
        except (pa.ArrowInvalid, pa.ArrowNotImplementedError):
            raise ValueError(f"[{method_name}] column '{name}' of {where!r} must hold numbers.") from None
        columns[key] = numbers.to_numpy(zero_copy_only=False)
    return columns


class MortalityTable(TableBase):
    """Death probabilities q_x by integer age, optionally with a select period.

    Parameters
    ----------
    qx : array-like
        Ultimate q_x for the ages ``first_age``, ``first_age + 1``, ...
        Every value in [0, 1]; the last must be 1 (the table closes), unless
        ``closing_age`` is given.
    first_age : int
        Age of ``qx[0]``.
    select : array-like of shape (rows, k), optional
        Select rates: row r holds q_[s], q_[s]+1, ..., q_[s]+k-1 for the select
        age s = ``select_first_age + r``; from duration k on a life follows the
        ultimate rates. A select period of 0 columns is the ultimate table.
    select_first_age : int, optional
        Select age of the first row (default ``first_age``).
    fractional_age : {"udd", "constant_force", "balducci"}
        How survival runs within a year of age when a call does not choose.
    closing_age : int, optional
        Close the table at this age: rates beyond it are dropped and q at it
        is set to 1.

    Notes
    -----
    Tables are immutable, compare and hash by value, and pickle.
    """

    __slots__ = ("_first_age", "_qx", "_select", "_select_first_age", "_fractional_age", "_native")

    _first_age: int
    _qx: F64
    _select: F64
    _select_first_age: int
    _fractional_age: str
    _native: _kernels.LifeTable

    def __init__(
        self,
        qx: ArrayLike,
        *,
        first_age: int,
        select: ArrayLike | None = None,
        select_first_age: int | None = None,
        fractional_age: FractionalAgeLiteral = "udd",
        closing_age: int | None = None,
    ) -> None:
        first = _integer(first_age, "first_age")
        q = np.array(_named_f64(qx, "qx", "MortalityTable"), dtype=np.float64)
        if q.ndim != 1 or q.size == 0:
            raise ValueError(
                f"[MortalityTable] 'qx' must be one-dimensional with at least one age, got shape {q.shape}."
            )
        _check_age_range(first, first + q.size - 1, "MortalityTable")
        _check_q(q, first, "q")
        if closing_age is not None:
            close = _integer(closing_age, "closing_age")
            if not first <= close < first + q.size:
                raise ValueError(
                    f"[MortalityTable] 'closing_age' {close} is outside the table's ages "
                    f"{first} to {first + q.size - 1}."
                )
            q = q[: close - first + 1]
            q[-1] = 1.0
        elif q[-1] != 1.0:
            raise ValueError(
                f"[MortalityTable] q at the last age {first + q.size - 1} must be 1 (the table closes), "
                f"got {float(q[-1])!r}; pass closing_age to close it."
            )
        sel = (
            np.empty((0, 0))
            if select is None
            else np.array(_named_f64(select, "select", "MortalityTable"), dtype=np.float64)
        )
        if sel.ndim != 2:
            raise ValueError("[MortalityTable] 'select' must be a two-dimensional table (select ages x durations).")
        sel_first = first if select_first_age is None else _integer(select_first_age, "select_first_age")
        if sel.size == 0:
            sel, sel_first = np.empty((0, 0)), first
        else:
            bad = np.argwhere(~((sel >= 0.0) & (sel <= 1.0)))
            if bad.size:
                r, t = (int(k) for k in bad[0])
                raise ValueError(
                    f"[MortalityTable] select q[{sel_first + r}]+{t} must be in [0, 1], got {float(sel[r, t])!r}."
                )
            if sel_first < first or sel_first + sel.shape[0] + sel.shape[1] > first + q.size:
                raise ValueError(
                    f"[MortalityTable] select ages {sel_first} to {sel_first + sel.shape[0] - 1} with a "
                    f"{sel.shape[1]}-year select period must join ultimate ages {first} to {first + q.size - 1}."
                )
        self._init(first, q, sel, sel_first, _check_rule(fractional_age, "MortalityTable"))

    def _init(self, first: int, q: F64, select: F64, select_first: int, rule: str) -> None:
        set_ = object.__setattr__
        set_(self, "_first_age", first)
        set_(self, "_qx", _frozen(q))
        set_(self, "_select", _frozen(select))
        set_(self, "_select_first_age", select_first)
        set_(self, "_fractional_age", rule)
        set_(
            self,
            "_native",
            _kernels.LifeTable(
                first, self._qx, select_first, select.shape[1], np.ascontiguousarray(select).reshape(-1)
            ),
        )

    @classmethod
    def _derived(cls, first: int, q: F64, select: F64, select_first: int, rule: str) -> MortalityTable:
        """A table from another's arrays (derived tables, pickles), checked as a new table is:
        a pickle is input like any other."""
        return cls(
            q,
            first_age=first,
            select=select if np.size(select) else None,
            select_first_age=select_first,
            fractional_age=rule,  # type: ignore[arg-type]
        )

    # ------------------------------------------------------------ construction

    @classmethod
    def from_csv(
        cls,
        path: str | os.PathLike[str],
        *,
        fractional_age: FractionalAgeLiteral = "udd",
        closing_age: int | None = None,
    ) -> MortalityTable:
        """Read a table from CSV: columns ``age`` and ``qx`` (any case).

        A select table adds the columns ``select_0`` ... ``select_{k-1}``
        (q_[age]+t); rows without select values (empty cells) are ultimate
        only, and the rows with them must be consecutive ages.
        """
        method = "MortalityTable.from_csv"
        columns = _csv_columns(path, method)
        for name in ("age", "qx"):
            if name not in columns:
                raise ValueError(f"[{method}] {os.fspath(path)!r} has no '{name}' column.")
        ages = columns["age"]
        whole = ages == np.floor(ages)
        if ages.size == 0 or not (whole.all() and np.array_equal(ages, np.arange(ages[0], ages[0] + ages.size))):
            where = ""
            if not whole.all():
                where = f": got {float(ages[np.argmin(whole)])!r}"
            elif ages.size > 1:
                gap = 1 + int(np.argmax(np.diff(ages) != 1.0))
                where = f": {float(ages[gap])!r} follows {float(ages[gap - 1])!r}"
            raise ValueError(f"[{method}] ages must be consecutive integers{where}.")
        select_names = sorted((k for k in columns if k.startswith("select_")), key=lambda k: (len(k), k))
        if select_names != [f"select_{k}" for k in range(len(select_names))]:
            raise ValueError(
                f"[{method}] select columns must be named select_0, select_1, ... without gaps, got {select_names}."
            )
        select = np.column_stack([columns[k] for k in select_names] or [_EMPTY])
        rows = np.flatnonzero(~np.isnan(select).all(axis=1)) if select_names else np.empty(0, dtype=np.int64)
        if rows.size and not np.array_equal(rows, np.arange(rows[0], rows[0] + rows.size)):
            raise ValueError(f"[{method}] rows with select rates must be consecutive ages.")
        return cls(
            columns["qx"],
            first_age=int(ages[0]),
            select=select[rows] if rows.size else None,
            select_first_age=int(ages[rows[0]]) if rows.size else None,
            fractional_age=fractional_age,
            closing_age=closing_age,
        )

    @classmethod
    def from_xtbml(
        cls,
        path: str | os.PathLike[str],
        *,
        table: int | tuple[int, int] | None = None,
        fractional_age: FractionalAgeLiteral = "udd",
        closing_age: int | None = None,
    ) -> MortalityTable:
        """Read a table in the Society of Actuaries' XTbML (the XML of mort.soa.org).

        A file holds one or more ``Table`` elements: an ultimate table (q by
        age) or a select table (q_[x]+t by select age x and duration t + 1).
        ``table`` (None) takes the file's only ultimate table, or its select
        table with its ultimate table; an index (from 0, in file order) takes
        that ultimate table alone, a pair (select, ultimate) those two.

        Each table's ``ScalingFactor`` s says its values are rates times
        10**s (3 for rates per mille; absent means 0): q = value / 10**s.

        The select period is the duration axis's length. A select row that
        ends early is completed from the ultimate rates at the attained ages.
        Where the ultimate table starts after the first select age (published
        so when it starts where the first select period ends), its missing
        ages are reached on select rates only and take the select year's q_[x].
        """
        from ._xtbml import read_xtbml

        q, first, select, select_first = read_xtbml(path, table)
        return cls(
            q,
            first_age=first,
            select=select,
            select_first_age=select_first,
            fractional_age=fractional_age,
            closing_age=closing_age,
        )

    # ------------------------------------------------------------ properties

    @property
    def first_age(self) -> int:
        """Youngest age of the table."""
        return self._first_age

    @property
    def last_age(self) -> int:
        """Oldest age of the table (q = 1 there)."""
        return self._first_age + self._qx.size - 1

    @property
    def qx(self) -> F64:
        """Ultimate death probabilities from ``first_age`` on (read-only)."""
        return self._qx

    @property
    def select(self) -> F64:
        """Select rates, one row per select age (read-only; 0 columns without)."""
        return self._select

    @property
    def select_period(self) -> int:
        """Years of select rates (0 for an ultimate table)."""
        return int(self._select.shape[1]) if self._select.size else 0

    @property
    def select_first_age(self) -> int:
        """Select age of the first row of ``select``."""
        return self._select_first_age

    @property
    def fractional_age(self) -> str:
        """The table's default fractional-age rule."""
        return self._fractional_age

    # ------------------------------------------------------------ derived tables

    def scaled(self, factor: float) -> MortalityTable:
        """Every q multiplied by ``factor`` (e.g. 0.9), capped at 1; the table still closes."""
        factor = _real_float(factor, "factor", "MortalityTable.scaled")
        if not (math.isfinite(factor) and factor >= 0.0):
            raise ValueError(f"[MortalityTable.scaled] 'factor' must be finite and >= 0, got {factor!r}.")
        q = np.minimum(self._qx * float(factor), 1.0)
        q[-1] = 1.0
        select = np.minimum(self._select * float(factor), 1.0)
        return self._derived(self._first_age, q, select, self._select_first_age, self._fractional_age)

    def rated(self, years: int) -> MortalityTable:
        """Age rating: a life aged x follows the rates of age x + ``years`` (negative: younger)."""
        k = _integer(years, "years", "MortalityTable.rated")
        _check_age_range(self._first_age - k, self.last_age - k, "MortalityTable.rated")
        return self._derived(
            self._first_age - k, self._qx, self._select, self._select_first_age - k, self._fractional_age
        )

    def with_fractional_age(self, rule: FractionalAgeLiteral) -> MortalityTable:
        """The same rates with another default fractional-age rule."""
        return self._derived(
            self._first_age, self._qx, self._select, self._select_first_age, _check_rule(rule, "MortalityTable")
        )

    def with_improvement(self, scale: ImprovementScale | float, base_year: int) -> GenerationalTable:
        """This table as the rates of ``base_year``, improving over calendar time by ``scale``
        (an :class:`ImprovementScale`, or one rate for every age and year)."""
        from .improvement import GenerationalTable

        return GenerationalTable(self, scale, base_year)

    # ------------------------------------------------------------ survival

    def life(
        self, age: float, *, select_age: int | None = None, fractional_age: FractionalAgeLiteral | None = None
    ) -> Life:
        """A life of this table aged ``age`` (selected at ``select_age``)."""
        return Life(self, age, select_age=select_age, fractional_age=fractional_age)

    def tpx(
        self,
        age: ArrayLike,
        t: ArrayLike,
        *,
        select_age: ArrayLike | None = None,
        fractional_age: FractionalAgeLiteral | None = None,
    ) -> float | F64:
        """Survival probability t_p_x for real ages and durations >= 0 (broadcast).

        ``select_age`` (NaN or None: selected at the integer part of the age)
        places a life on its select rates.
        """
        rule = self._fractional_age if fractional_age is None else _check_rule(fractional_age, "MortalityTable.tpx")
        method = "MortalityTable.tpx"
        select = np.nan if select_age is None else _named_f64(select_age, "select_age", method)
        # Converted first: a ragged input is refused by name, not taken for a broadcast failure.
        converted = (_named_f64(age, "age", method), _named_f64(t, "t", method), select)
        try:
            ages, durations, selects = np.broadcast_arrays(*converted)
        except ValueError:
            shapes = [np.shape(values) for values in converted]
            raise ValueError(
                f"[{method}] 'age', 't' and 'select_age' must broadcast together, got shapes {shapes}."
            ) from None
        self._check_ages(ages.reshape(-1), selects.reshape(-1), "MortalityTable.tpx")
        flat_t = np.ascontiguousarray(durations, dtype=np.float64).reshape(-1)
        bad = np.flatnonzero(~(flat_t >= 0.0))
        if bad.size:
            raise ValueError(f"[MortalityTable.tpx] 't' must be >= 0, got {float(flat_t[bad[0]])!r}.")
        try:
            out = self._native.survival(
                np.ascontiguousarray(ages, dtype=np.float64).reshape(-1),
                np.ascontiguousarray(selects, dtype=np.float64).reshape(-1),
                flat_t,
                rule,
            ).reshape(ages.shape)
        except ValueError as exc:  # an age of the table that nobody reaches (its earlier q are 1)
            raise ValueError(f"[{method}] {exc}.") from None
        return float(out) if out.ndim == 0 else out

    def _bounds(self) -> tuple[float, float, float, float]:
        """First age, last age, first select age and number of select rows."""
        rows = self._select.shape[0] if self._select.size else 0
        return float(self._first_age), float(self.last_age), float(self._select_first_age), float(rows)

    def _age_problems(self, age: F64, select_age: F64, ts: F64 | float = 0.0) -> dict[int, str]:
        """What is wrong with each invalid age, by position."""
        return _age_problems(age, select_age, ts, *(np.float64(b) for b in self._bounds()))

    def _check_ages(self, age: F64, select_age: F64, method_name: str) -> None:
        problems = self._age_problems(age, select_age)
        if problems:
            raise ValueError(f"[{method_name}] {problems[min(problems)]}.")

    # ------------------------------------------------------------ value semantics

    def _key(self) -> tuple[Any, ...]:
        return (
            self._first_age,
            self._qx.tobytes(),
            self._select.shape,
            self._select.tobytes(),
            self._select_first_age,
            self._fractional_age,
        )

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, MortalityTable):
            return NotImplemented
        return self._key() == other._key()

    def __hash__(self) -> int:
        return hash(self._key())

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("MortalityTable is immutable; use scaled(), rated() or with_fractional_age().")

    def __reduce__(self) -> tuple[Any, ...]:
        return (
            MortalityTable._derived,
            (self._first_age, np.array(self._qx), np.array(self._select), self._select_first_age, self._fractional_age),
        )

    def __repr__(self) -> str:
        select = f", select period {self.select_period}" if self.select_period else ""
        return f"MortalityTable(ages {self._first_age} to {self.last_age}{select}, {self._fractional_age})"


def _age_problems(
    age: F64, select_age: F64, ts: Any, first: Any, last: Any, select_first: Any, rows: Any
) -> dict[int, str]:
    """What is wrong with each invalid age, by position (the last applicable rule wins).

    The table bounds are per life (arrays) or shared (scalars): ``first`` and
    ``last`` age, ``select_first`` and ``rows`` of select rates.
    """
    ts_all, first, last = (np.broadcast_to(x, age.shape) for x in (ts, first, last))
    select = np.where(np.isnan(select_age), np.floor(age), select_age)
    on_select = (select >= select_first) & (select < select_first + rows)
    checks: list[tuple[NDArray[np.bool_], Callable[[int], str]]] = [
        (
            ~(age + ts_all < last + 1),
            lambda i: (
                f"'age' {float(age[i])!r} at valuation time {float(ts_all[i])!r} is beyond the table's last age "
                f"{int(last[i])}"
            ),
        ),
        (
            ~(age >= np.where(on_select, select, first)),
            lambda i: f"'age' must be at least the table's first age {int(first[i])}, got {float(age[i])!r}",
        ),
        # after the age's rule: a life younger than its select age is told about the select age
        (
            ~np.isnan(select_age)
            & ~((select_age == np.floor(select_age)) & (select_age <= age) & (select_age >= first)),
            lambda i: (
                f"'select_age' must be a whole age of the table not above the age {float(age[i])!r}, "
                f"got {float(select_age[i])!r}"
            ),
        ),
        (~np.isfinite(age), lambda i: f"'age' must be finite, got {float(age[i])!r}"),
    ]
    problems: dict[int, str] = {}
    for mask, message in checks:
        for i in np.flatnonzero(mask).tolist():
            problems[i] = message(i)
    return problems
