"""Books of life annuities valued natively, one column array per policy field."""

from __future__ import annotations

import math
import re
import sys
from collections.abc import Mapping
from typing import Any, Literal, NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .. import _kernels
from .._helpers.policy_arrays import (
    _KERNEL_DTYPES,
    _batch_result,
    _benefits_array,
    _book_columns,
    _check_benefit_values,
    _one_or_all,
    _term_faults,
)
from ..base import _ALLOWED_PAYMENT_FREQUENCIES
from ..helpers import (
    BatchResult,
    _map_batch_n_none_to_inf,
    _validate_record_ids_batch_only,
)
from ..helpers import _allowed_frequency as _allowed_frequency
from ..helpers import _integer_array as _integer_array
from ..helpers import _policy_column as _policy_column
from ..validators import _resolve_gr
from .improvement import GenerationalTable
from .lives import _curve_arrays
from .tables import MortalityTable, _age_problems

Table = MortalityTable | GenerationalTable

__all__ = ["life_annuities", "life_insurances"]

F64 = NDArray[np.float64]
_METHOD = "life_annuities"


def _columns(method_name: str, **columns: Any) -> tuple[dict[str, Any], int]:
    """Every column one-dimensional, of the book's length or of length 1 (a single value,
    checked once)."""
    for name, values in columns.items():
        if np.ndim(values) > 1:
            raise ValueError(f"[{method_name}] '{name}' must be one-dimensional, got shape {np.shape(values)}.")
    return _book_columns(method_name, columns)


def _rank(values: Any, name: str, method_name: str = _METHOD) -> int:
    """The number of dimensions of a column as given; a ragged list is refused by name."""
    try:
        return int(np.ndim(values))
    except ValueError:
        raise ValueError(f"[{method_name}] '{name}' must be one-dimensional, got a ragged nested sequence.") from None


def _table_names(table: Any) -> NDArray[Any]:
    """The table column as an array whose missing cells (None, NaN, pd.NA, masked) are None."""
    if hasattr(table, "to_numpy") and not isinstance(table, np.ndarray):  # pandas: NA and NaN become None
        return np.asarray(table.to_numpy(dtype=object, na_value=None))
    ma = sys.modules.get("numpy.ma")
    if ma is not None and isinstance(table, ma.MaskedArray):
        names: NDArray[Any] = np.array(ma.getdata(table), dtype=object)
        names[ma.getmaskarray(table)] = None
        return names
    _rank(table, "table")
    return np.asarray(table)


def _frequencies(m: Any, method_name: str = _METHOD) -> NDArray[Any]:
    """The payment frequencies as integers (booleans, also inside lists, are refused); one
    frequency for all policies stays a single value."""
    rank = _rank(m, "m", method_name)
    if rank > 1:
        return np.asarray(m)  # refused by the column check with the other columns
    if rank == 0:
        return np.asarray(_integer_array([m], method_name, "m")[0])
    return _integer_array(m, method_name, "m")


def _table_codes(names: NDArray[Any], tables: Mapping[str, Table]) -> tuple[F64, list[str]]:
    """Index of each policy's table in ``tables`` (NaN: unknown or missing), and the known names."""
    known = list(tables)
    if names.dtype.kind == "U" and names.size:
        # Fixed-width texts compare as machine words, column by column: a few integer passes per table.
        word = np.uint64 if names.dtype.itemsize % 8 == 0 else np.uint32
        words = np.ascontiguousarray(names).view(word).reshape(names.size, -1)
        codes = np.full(names.shape, np.nan)
        for i, name in enumerate(known):
            if len(name) > names.dtype.itemsize // 4:
                continue
            key = np.array([name], dtype=names.dtype).view(word)
            same = words[:, 0] == key[0]
            for column in range(1, key.size):
                same &= words[:, column] == key[column]
            np.copyto(codes, i, where=same)
        return codes, known
    if names.dtype.kind in "US":
        codes = np.full(names.shape, np.nan)
        for i, name in enumerate(known):
            codes[names == name] = i
        return codes, known
    # Objects compare one by one: only texts can name a table (pd.NA has no truth value).
    index = {name: float(i) for i, name in enumerate(known)}
    found = [index.get(name, math.nan) if isinstance(name, str) else math.nan for name in names.tolist()]
    return np.array(found, dtype=np.float64), known


def _faults(tables: Mapping[str, Table], cols: dict[str, Any], size: int, codes: F64) -> dict[int, list[str]]:
    """Per-policy problems, by index (``codes``: each policy's table, NaN when unknown): its
    table, its terms, its frequency and its ages, in that order."""
    faults: dict[int, list[str]] = {}

    def add(found: dict[int, list[str]]) -> None:
        for i, texts in found.items():
            faults.setdefault(i, []).extend(texts)

    def at(values: NDArray[Any], i: int) -> Any:
        return values[min(i, values.size - 1)]

    known = list(tables)

    def unknown_table(i: int) -> str:
        name = at(cols["table"], i)
        return f"'table' at index {i} is {'missing' if name is None else repr(str(name))}, not one of {known}"

    add({i: [unknown_table(i)] for i in np.flatnonzero(np.broadcast_to(np.isnan(codes), (size,))).tolist()})
    m = cols["m"]
    allowed = _allowed_frequency(m)
    # A frequency refused on its own counts the payments at 1 a year, so that its term is judged once.
    add(_term_faults(cols["n"], cols["d"], cols["ts"], np.where(allowed, m, 1), size))
    add(
        {
            i: [f"'m' must be one of {_ALLOWED_PAYMENT_FREQUENCIES} at index {i}, got {int(at(m, i))!r}"]
            for i in np.flatnonzero(np.broadcast_to(~allowed, (size,))).tolist()
        }
    )
    generational = np.array([isinstance(t, GenerationalTable) for t in tables.values()])
    known_codes = np.where(np.isnan(codes), 0, codes).astype(np.intp)
    needs_year = np.broadcast_to(generational[known_codes] & ~np.isnan(codes), (size,))
    bad_years = np.flatnonzero(needs_year & ~_whole_years(cols["year"], size)).tolist()
    add({i: [_year_fault(cols["year"], i)] for i in bad_years})
    ts = np.where(np.isfinite(cols["ts"]), cols["ts"], 0.0)
    # Each policy's table bounds, gathered by code (unknown tables take the first's: they are invalid anyway).
    bounds = [np.take(column, known_codes) for column in np.array([_base(t)._bounds() for t in tables.values()]).T]
    age = np.broadcast_to(cols["age"], (size,))
    ages = _age_problems(age, np.broadcast_to(cols["select_age"], (size,)), ts, *bounds)
    add({i: [f"{problem} at index {i}"] for i, problem in ages.items()})
    return faults


def _base(table: Table) -> MortalityTable:
    """The table whose ages a policy's must fit (a generational table's are its base's)."""
    return table.base if isinstance(table, GenerationalTable) else table


_YEAR_LIMIT = 100_000.0


def _whole_years(year: NDArray[Any], size: int) -> NDArray[np.bool_]:
    """Whether each policy's calendar year is a whole year within +-100,000."""
    return np.broadcast_to((year == np.floor(year)) & (np.abs(year) <= _YEAR_LIMIT), (size,))


def _year_fault(year: NDArray[Any], i: int) -> str:
    value = year[min(i, year.size - 1)]
    if np.isnan(value):
        return f"'year' is needed for a generational table at index {i}"
    return f"'year' must be a whole calendar year within +-100000 at index {i}, got {float(value)!r}"


def _cohort_codes(tables: list[Table], codes: F64, cols: dict[str, Any], size: int) -> tuple[list[Table], F64]:
    """Each generational table's policies moved to the tables of their cohorts (born in
    ``year - floor(age)``), appended to ``tables``; the tables and the policies' new codes.
    A policy whose cohort is no year stays on its table, whose slot holds the base's rates
    (so the kernel refuses it as that table's policy)."""
    expanded: list[Table] = list(tables)
    moved = np.array(np.broadcast_to(codes, (size,)))
    age, year = (np.broadcast_to(cols[k], (size,)) for k in ("age", "year"))
    for index, table in enumerate(tables):
        if not isinstance(table, GenerationalTable):
            continue
        rows = np.flatnonzero(moved == index)
        born = year[rows] - np.floor(age[rows])
        rows, born = rows[np.abs(born) <= 2 * _YEAR_LIMIT], born[np.abs(born) <= 2 * _YEAR_LIMIT]
        if not rows.size:
            continue
        # Birth years are few and close together: numbered by a table over their range, not sorted.
        years = born.astype(np.int64)
        first = int(years.min())
        present = np.zeros(int(years.max()) - first + 1, dtype=bool)
        present[years - first] = True
        number = np.cumsum(present) - 1
        moved[rows] = len(expanded) + number[years - first]
        expanded += [table._cohort(born) for born in (np.flatnonzero(present) + first).tolist()]
    return expanded, moved


def _texts(names: NDArray[Any]) -> NDArray[np.uint32] | None:
    """Fixed-width texts as the kernel reads them, (rows, width) code points; None for other columns."""
    if names.dtype.kind != "U" or names.dtype.itemsize == 0:
        return None
    return np.ascontiguousarray(names).view(np.uint32).reshape(names.size, -1)


class _LifeBook:
    """What the kernel needs besides the policies: the curve's arrays, the tables and the settings
    (``benefit``: what the policies pay; ``spouse``: the other life's columns of a joint status)."""

    def __init__(
        self,
        curve: Any,
        tables: Mapping[str, Table],
        timing: str,
        growth: Any,
        weights: Any,
        size: int,
        benefit: str = "annuity",
        spouse: dict[str, Any] | None = None,
    ):
        self.rates, self.terms, self.ends = _curve_arrays(curve, _METHOD)
        self.listed = list(tables.values())
        self.generational = any(isinstance(t, GenerationalTable) for t in self.listed)
        self.names = [[ord(c) for c in name] for name in tables]
        self.timing = 0 if timing == "due" else 1
        self.growth_kind: str = "level" if growth is None else growth.kind
        self.growth_rate = 0.0 if growth is None else float(growth.rate)
        self.mode: str = curve.calculation_mode
        self.tolerance_eps: float = curve._meta.tolerance_eps
        self.decimals: int = curve._config.decimals.annuities
        self.weights, self.size = weights, size
        self.benefit, self.spouse = benefit, spouse
        self.spouse_codes = None if spouse is None else _table_codes(spouse["table"], tables)[0]

    def _arguments(
        self, table: NDArray[Any], cols: dict[str, Any], rows: NDArray[np.intp] | None
    ) -> tuple[list[Any], tuple[Any, ...] | None]:
        """The kernel's tables and columns for the policies ``rows`` (None: all), whose tables
        are ``table`` (texts as ``_texts`` gives them, or indices; NaN for the policies left out),
        and the spouses' (table, age, select age) columns (None without spouses)."""
        tables, names = self.listed, self.names
        spouse, spouse_table = self.spouse, self.spouse_codes
        if self.generational:  # (indices: texts name no cohort)
            tables, table = _cohort_codes(tables, table, cols, self.size)
            if spouse is not None and spouse_table is not None:
                tables, spouse_table = _cohort_codes(tables, spouse_table, {**spouse, "year": cols["year"]}, self.size)
            names = names + [[]] * (len(tables) - len(names))

        def column(values: Any) -> NDArray[Any]:
            # Columns are read as they are: one value (or a broadcast one) stands for every policy.
            values = _one_or_all(values)
            return values if rows is None or values.shape[0] == 1 else np.ascontiguousarray(values[rows])

        arguments = [
            # A generational table's own slot (none of its policies with a cohort) holds its base.
            [_base(t)._native for t in tables],
            [t.fractional_age for t in tables],
            names,
            self.rates,
            self.terms,
            self.ends,
            column(table),
            column(cols["age"]),
            column(cols["select_age"]),
            column(cols["n"]),
            column(cols["d"]),
            column(cols["ts"]),
            column(cols["m"]),
            None if self.weights is None else column(self.weights),
        ]
        if spouse is None:
            return arguments, None
        return arguments, (column(spouse_table), column(spouse["age"]), column(spouse["select_age"]))

    def value(self, table: NDArray[Any], cols: dict[str, Any], rows: NDArray[np.intp] | None) -> F64:
        """Values of the policies ``rows`` (as ``_arguments``); the kernel refuses a policy out of range."""
        arguments, spouses = self._arguments(table, cols, rows)
        settings: dict[str, Any] = dict(
            timing=self.timing,
            growth_kind=self.growth_kind,
            growth_rate=self.growth_rate,
            mode=self.mode,
            tolerance_eps=self.tolerance_eps,
            decimals=self.decimals,
        )
        if self.benefit == "annuity" and spouses is None:
            valued: F64 = _kernels.life_portfolio(*arguments, **settings)
        else:
            status = "single" if spouses is None else "joint"
            valued = _kernels.status_book(*arguments, second=spouses, status=status, benefit=self.benefit, **settings)
        return valued


def _refuse(faults: dict[int, list[str]], method_name: str = _METHOD) -> None:
    raise ValueError(f"[{method_name}] " + "; ".join(faults[min(faults)]))


class _Book(NamedTuple):
    """A book as the valuations below take it: its columns checked, its terms resolved."""

    curve: Any
    tables: Mapping[str, Table]
    cols: dict[str, Any]
    size: int
    weights: Any
    timing: str
    growth: Any
    benefit: str = "annuity"
    spouse: dict[str, Any] | None = None  # the other life's "table", "age" and "select_age" of a joint status
    share: Any = None  # a part's share of each policy's benefits (None: all of them)


def _amounts(given: _Book) -> Any:
    """What each policy of a book pays a unit of value: its benefits times its share (None: 1)."""
    if given.share is None:
        return given.weights
    return given.share if given.weights is None else given.weights * given.share


def _value_book(given: _Book, stop_at_fault: bool) -> tuple[F64, dict[int, list[str]]]:
    """The values of a book (NaN for its invalid policies) and each invalid one's faults;
    ``stop_at_fault``: refuse the book at its first fault instead of valuing the rest."""
    curve, tables, cols, size, _, timing, growth, benefit, spouse, _ = given
    book = _LifeBook(curve, tables, timing, growth, _amounts(given), size, benefit, spouse)
    # The kernel checks every policy itself and matches texts to the tables' names; the
    # per-policy faults are worded only when it refuses one.
    texts = None if book.generational else _texts(cols["table"])
    table = texts if texts is not None else _table_codes(cols["table"], tables)[0]
    faults: dict[int, list[str]] = {}
    valued = None
    if (
        (texts is not None or not np.isnan(table).any())
        and (book.spouse_codes is None or not np.isnan(book.spouse_codes).any())
        and _allowed_frequency(cols["m"]).all()
        and (not book.generational or _whole_years(cols["year"], size).all())
    ):
        try:
            valued = book.value(table, cols, None)
        except ValueError:
            valued = None
    if valued is None:
        codes = _table_codes(cols["table"], tables)[0]
        faults = _faults(tables, cols, size, codes)
        if spouse is not None:
            assert book.spouse_codes is not None
            _add_faults(faults, _as_spouse(_faults(tables, {**cols, **spouse}, size, book.spouse_codes)))
        if faults and stop_at_fault:
            _refuse(faults)
        valid = np.ones(size, dtype=bool)
        valid[list(faults)] = False
        rows = np.flatnonzero(valid)
        values = np.full(size, np.nan)
        if rows.size:  # (a book of single values has one policy: none left is nothing to value)
            values[rows] = book.value(np.where(valid, codes, np.nan), cols, rows)
    else:
        valid, values = np.ones(size, dtype=bool), valued
    # A life at an age its table gives no chance of reaching has no value.
    unreached = np.flatnonzero(valid & np.isnan(values)).tolist() if values.size and np.isnan(values.min()) else []
    if unreached:
        names, ages, times = (np.broadcast_to(cols[k], (size,)) for k in ("table", "age", "ts"))
        for i in unreached:
            reached = float(ages[i] + times[i])
            faults[i] = [f"nobody in table {str(names[i])!r} survives to age {reached!r} at index {i}"]
    return values, faults


class _GuaranteeSplit(NamedTuple):
    """A guaranteed book split in two: the certain payments of the first ``years`` of each
    policy (0 where its guarantee is refused), and the life annuity deferred by them."""

    years: F64
    later_terms: dict[str, Any]
    kept: NDArray[np.bool_]  # a guarantee of whole payment periods
    steps: NDArray[np.bool_]  # whose growth steps the deferred part can continue

    def grown(self, growth: Any) -> Any:
        """The growth of the payments over the guarantee, by which the deferred part is scaled."""
        return 1.0 if growth is None else np.exp(self.years * math.log1p(float(growth.rate)))


_SPOUSE_COLUMNS = {"age": "spouse_age", "table": "spouse_table", "select_age": "spouse_select_age"}


def _as_spouse(faults: dict[int, list[str]]) -> dict[int, list[str]]:
    """Faults found in a spouse's columns, said of them ('age' is 'spouse_age', ...)."""

    def renamed(text: str) -> str:
        return re.sub(r"'(age|table|select_age)'", lambda m: f"'{_SPOUSE_COLUMNS[m.group(1)]}'", text)

    return {i: [renamed(text) for text in texts] for i, texts in faults.items()}


def _add_faults(faults: dict[int, list[str]], found: dict[int, list[str]]) -> None:
    """``found`` added to ``faults``, each text once (parts of a book share its terms)."""
    for i, texts in found.items():
        known = faults.setdefault(i, [])
        known.extend(text for text in texts if text not in known)


def _guarantee_split(cols: dict[str, Any], size: int, growth: Any) -> _GuaranteeSplit:
    n, d, ts, m, k = (np.broadcast_to(cols[c], (size,)) for c in ("n", "d", "ts", "m", "guarantee"))
    # A policy whose terms are at fault keeps them, so that they are worded as given.
    at_fault = np.zeros(size, dtype=bool)
    at_fault[list(_term_faults(n, d, ts, np.where(_allowed_frequency(m), m, 1), size))] = True
    with np.errstate(over="ignore", invalid="ignore"):  # a guarantee beyond the float range is refused
        periods = k * np.where(_allowed_frequency(m), m, 1)
    kept = np.isfinite(periods) & (k >= 0.0) & (periods == np.floor(periods))
    # Growth steps count from the first payment: the deferred part's restart k years on.
    geometric = growth is not None and growth.kind == "geometric"
    steps = (growth is None) | (k == 0.0) | (geometric & (k == np.floor(k)))
    years = np.where(kept & steps & ~at_fault, k, 0.0)
    later_terms = {**cols, "n": np.maximum(n - years, 0.0, where=n >= 0.0, out=np.array(n)), "d": d + years}
    return _GuaranteeSplit(years, later_terms, kept, steps)


def _guaranteed_book(given: _Book, stop_at_fault: bool) -> tuple[F64, dict[int, list[str]]]:
    """As ``_value_book`` for a book whose first ``guarantee`` years of payments are certain:
    each policy's life annuity deferred by them plus the curve's certain annuity of those
    years, unit values added and rounded, then times the benefits, as a single call does."""
    curve, cols, size, weights, timing, growth = (
        given.curve,
        given.cols,
        given.size,
        _amounts(given),
        given.timing,
        given.growth,
    )
    split = _guarantee_split(cols, size, growth)
    n, d, ts, m, k = (np.broadcast_to(cols[c], (size,)) for c in ("n", "d", "ts", "m", "guarantee"))
    kept, steps, years = split.kept, split.steps, split.years
    later, faults = _value_book(given._replace(cols=split.later_terms, weights=None, share=None), False)
    for i in np.flatnonzero(~kept).tolist():
        faults.setdefault(i, []).append(
            f"'guarantee' must be >= 0.0, finite and a whole number of payment periods at index {i}, "
            f"got {float(k[i])!r}"
        )
    for i in np.flatnonzero(kept & ~steps).tolist():
        faults.setdefault(i, []).append(
            f"a guarantee of growing payments needs geometric growth and whole years at index {i}, "
            f"got {growth.kind} growth and {float(k[i])!r} years"
        )
    kept &= steps
    if faults and stop_at_fault:
        _refuse(faults)
    valid = ~np.isnan(later) & kept
    certain = (curve.ä if timing == "due" else curve.a)(
        n=np.where(valid, np.minimum(years, n), 0.0),
        d=np.where(valid, d, 0.0),
        ts=np.where(valid, ts, 0.0),
        m=np.where(valid, m, 1),
        gr=growth,
    )
    with np.errstate(over="ignore", invalid="ignore"):  # beyond the float range: refused below
        units = certain + split.grown(growth) * later
    for i in np.flatnonzero(valid & ~np.isfinite(units)).tolist():
        faults.setdefault(i, []).append(f"the payments' growth over the guarantee exceeds the float range at index {i}")
    if faults and stop_at_fault:
        _refuse(faults)
    units = _kernels.round_values(np.where(valid & np.isfinite(units), units, np.nan), curve._config.decimals.annuities)
    return (units if weights is None else units * weights), faults


class _Pension(NamedTuple):
    """What a pension pays besides the member's annuity: by who of member and spouse is alive
    (``rule``: a year while both live, to the member alone, to the spouse alone; a reversion r
    is (1, 1, r)), and ``death_benefit`` on the member's death before the annuity starts.
    Columns of the book's length (None: not paid)."""

    spouse: dict[str, Any] | None  # the spouse's "table", "age" and "select_age"
    rule: tuple[F64, F64, F64] | None
    death_benefit: F64 | None


def _legs(given: _Book, pension: _Pension) -> list[tuple[_Book, bool]]:
    """A pension book as the books whose values add up to its values and whose flows add up to
    its flows: the member's annuity (``given``, times x_alone where there is a spouse); with a
    spouse, y_alone ä_y and (both - x_alone - y_alone) ä_xy (a reversion r: r ä_y less r ä_xy);
    the death benefit as a term insurance over the deferment. Policies without a spouse take
    their member's life in the spouse's place, weighted 0, so that every part keeps the book's
    indices. Each part comes with whether its own columns are the spouse's."""
    legs = [(given, False)]
    cols, size = given.cols, given.size

    if pension.spouse is not None and pension.rule is not None:
        both, x_alone, y_alone = (_one_or_all(part) for part in pension.rule)
        spouse_ages = _one_or_all(pension.spouse["age"])
        # Every policy has a spouse unless the least age is NaN (then each is looked at).
        has = None if not spouse_ages.size or not np.isnan(spouse_ages.min()) else ~np.isnan(spouse_ages)

        def paid(values: Any, otherwise: Any) -> Any:  # where there is a spouse
            return values if has is None else np.where(has, values, otherwise)

        spouse = {
            key: paid(np.broadcast_to(pension.spouse[key], (size,)), np.broadcast_to(cols[key], (size,)))
            for key in ("table", "age", "select_age")
        }
        member = paid(x_alone, 1.0)
        if (member != 1.0).any():
            legs[0] = (given._replace(share=member), False)
        legs.append((given._replace(cols={**cols, **spouse}, share=paid(y_alone, 0.0)), True))
        legs.append((given._replace(share=paid(both - x_alone - y_alone, 0.0), spouse=spouse), False))
    if pension.death_benefit is not None:
        ends = {**cols, "n": cols["d"], "d": np.zeros(1)}
        legs.append((given._replace(cols=ends, weights=pension.death_benefit, benefit="insurance", growth=None), False))
    return legs


def _pension_columns(
    cols: dict[str, Any],
    size: int,
    table: Any,
    age: Any,
    select_age: Any,
    reversion: Any,
    death_benefit: Any,
    rule: Any = None,
    method_name: str = _METHOD,
) -> _Pension:
    """The pension columns as given (checked: finite amounts, >= 0 but for a rule's; one value
    or one per policy), broadcast to the book."""

    def column_of(values: Any, name: str) -> F64:
        column = np.asarray(_policy_column(values, name, method_name), dtype=np.float64).reshape(-1)
        if column.size not in (1, size):
            raise ValueError(f"[{method_name}] '{name}' must hold one value or {size}, got {column.size}.")
        return np.broadcast_to(column, (size,))

    def amounts(values: Any, name: str, least: float = 0.0) -> F64:
        column = column_of(values, name)
        given = _one_or_all(column)  # one value for all is checked once; NaN is the least and the most
        if given.size and not (np.isfinite(given.min()) and np.isfinite(given.max()) and given.min() >= least):
            i = int(np.flatnonzero(~((column >= least) & np.isfinite(column)))[0])
            bound = "" if least == -np.inf else f" and >= {least}"
            raise ValueError(f"[{method_name}] '{name}' must be finite{bound} at index {i}, got {float(column[i])!r}.")
        return column

    spouse = None
    if age is not None:
        _rank(age, "spouse_age")
        spouse = {
            "table": np.broadcast_to(_table_names(cols["table"] if table is None else table), (size,)),
            "age": column_of(age, "spouse_age"),
            "select_age": column_of(np.nan if select_age is None else select_age, "spouse_select_age"),
        }
    elif table is not None or select_age is not None:
        raise ValueError(f"[{method_name}] a spouse's table or select age needs 'spouse_age'.")
    if reversion is not None and rule is not None:
        raise ValueError(f"[{method_name}] a reversion r is the payment rule (1, 1, r): give one of them.")
    if (reversion is None and rule is None) != (spouse is None):
        raise ValueError(f"[{method_name}] 'spouse_age' goes with a 'reversion' or a 'payment_rule'.")
    if rule is not None:
        if not (isinstance(rule, (tuple, list)) and len(rule) == 3):
            raise TypeError(f"[{method_name}] 'payment_rule' is (both, x_alone, y_alone), got {rule!r}.")
        names = ("both", "x_alone", "y_alone")
        both, x_alone, y_alone = (amounts(part, f"payment_rule's {name}", -np.inf) for part, name in zip(rule, names))
        rule = (both, x_alone, y_alone)
    elif reversion is not None:
        one = np.broadcast_to(1.0, (size,))
        rule = (one, one, amounts(reversion, "reversion"))
    paid = None if death_benefit is None else amounts(death_benefit, "death_benefit")
    return _Pension(spouse, rule, paid)


def _leg_values(
    legs: list[tuple[_Book, bool]], guaranteed: bool, stop_at_fault: bool
) -> tuple[list[F64], dict[int, list[str]]]:
    """Each part's values (``_legs``; the first guaranteed when ``guaranteed``), their faults merged
    (a book refused at its first policy at fault in any part)."""
    values, faults = (_guaranteed_book if guaranteed else _value_book)(legs[0][0], stop_at_fault and len(legs) == 1)
    parts = [values]
    for leg, of_spouse in legs[1:]:
        part, found = _value_book(leg, False)
        parts.append(part)
        _add_faults(faults, _as_spouse(found) if of_spouse else found)
    if faults and stop_at_fault:
        _refuse(faults)
    return parts, faults


def _key_column(values: Any, tables: Mapping[str, Table]) -> NDArray[Any]:
    """A column of the key that tells a book's distinct policies apart (a table column's texts
    as ``_texts`` gives them, or the tables' indices)."""
    column = _one_or_all(values)
    if column.dtype.kind in "iuf":  # (numbers of other types than the kernels read: as floats)
        return column if column.dtype in _KERNEL_DTYPES else column.astype(np.float64)
    texts = _texts(column)
    return texts if texts is not None else _table_codes(column, tables)[0]


_KEY = ("table", "age", "select_age", "n", "d", "ts", "m", "year", "guarantee")


class _Copies(NamedTuple):
    """A book's distinct policies (equal in every column but their amounts): the first policy
    of each (``lead``) and each policy's number among them (``of``)."""

    lead: NDArray[np.uint32]
    of: NDArray[np.uint32]

    @staticmethod
    def of_book(given: _Book, pension: _Pension, *more: Any) -> _Copies | None:
        """The distinct policies of a pension book (``more``: further columns that tell them
        apart); None when too few policies are copies for valuing them once to pay."""
        if given.size <= 1:
            return None
        names = [[ord(c) for c in name] for name in given.tables]
        key = [_key_column(given.cols[name], given.tables) for name in _KEY]
        if pension.spouse is not None:
            key += [_key_column(pension.spouse[name], given.tables) for name in ("table", "age", "select_age")]
        lead, of = _kernels.distinct_policies(names, key + [_one_or_all(column) for column in more])
        # (a book whose every column is one value, broadcast, numbers as one policy)
        return _Copies(lead, of) if of.size == given.size and lead.size <= given.size // 2 else None

    def rows(self, values: Any) -> Any:
        """A column of the book at the first policies (one value for all stays one)."""
        column = np.asarray(values)
        return column if column.shape[0] == 1 else column[self.lead]

    def legs(self, legs: list[tuple[_Book, bool]], weights: list[Any] | None = None) -> list[tuple[_Book, bool]]:
        """The parts of the book as the parts of its first policies, of unit benefits (or of
        ``weights``, one column a part)."""
        taken: dict[int, Any] = {}  # the parts share most columns: each is taken once

        def rows_of(values: Any) -> Any:
            if id(values) not in taken:
                taken[id(values)] = self.rows(values)
            return taken[id(values)]

        def subset(columns: dict[str, Any]) -> dict[str, Any]:
            return {key: rows_of(values) for key, values in columns.items()}

        return [
            (
                leg._replace(
                    cols=subset(leg.cols),
                    size=self.lead.size,
                    weights=None if weights is None else weights[k],
                    share=None,
                    spouse=None if leg.spouse is None else subset(leg.spouse),
                ),
                of_spouse,
            )
            for k, (leg, of_spouse) in enumerate(legs)
        ]

    @staticmethod
    def amounts(legs: list[tuple[_Book, bool]]) -> tuple[list[Any], list[Any]]:
        """Each part's amounts and shares as the kernels read them (None: 1)."""

        def column(values: Any) -> Any:
            return None if values is None else _one_or_all(values)

        return [column(leg.weights) for leg, _ in legs], [column(leg.share) for leg, _ in legs]


def _value_pensions(given: _Book, pension: _Pension, stop_at_fault: bool) -> tuple[F64, dict[int, list[str]]]:
    """The values of a pension book: its parts' (``_legs``) added, their faults merged. A book
    with copies of its policies values each distinct policy's parts once, and spreads them
    back weighted by each copy's amounts."""
    legs = _legs(given, pension)
    guaranteed = bool(np.any(np.asarray(given.cols["guarantee"]) != 0.0))
    copies = _Copies.of_book(given, pension)
    if copies is not None:
        try:  # a fault is worded on the whole book, by the policy's own index
            units, _ = _leg_values(copies.legs(legs), guaranteed, True)
        except ValueError:
            pass
        else:
            return _kernels.gather_parts(copies.of, units, *_Copies.amounts(legs)), {}
    parts, faults = _leg_values(legs, guaranteed, stop_at_fault)
    return sum(parts[1:], parts[0]), faults


def life_annuities(
    curve: Any,
    tables: Mapping[str, MortalityTable | GenerationalTable],
    *,
    table: ArrayLike,
    age: ArrayLike,
    n: Any = None,
    d: ArrayLike = 0.0,
    ts: ArrayLike = 0.0,
    m: ArrayLike = 1,
    benefits: ArrayLike | None = None,
    select_age: ArrayLike | None = None,
    gr: Any = None,
    year: ArrayLike | None = None,
    guarantee: ArrayLike | None = None,
    spouse_table: ArrayLike | None = None,
    spouse_age: ArrayLike | None = None,
    spouse_select_age: ArrayLike | None = None,
    reversion: ArrayLike | None = None,
    payment_rule: tuple[ArrayLike, ArrayLike, ArrayLike] | None = None,
    death_benefit: ArrayLike | None = None,
    timing: Literal["due", "immediate"] = "due",
    on_error: Literal["raise", "nan"] = "raise",
    record_ids: Any = None,
) -> F64 | BatchResult:
    """Value a book of life annuities, one policy per element of the columns.

    Parameters
    ----------
    curve : InterestRate
    tables : mapping of str to MortalityTable
        The tables the policies name (e.g. by sex); each with its own
        fractional-age rule.
    table, age : array-like
        Per policy: the name of its table and the age at inception.
    n, d, ts : array-like
        Term after the deferment (None or inf: for life), deferment and
        valuation time, in years since inception.
    m : array-like of int
        Payments per year.
    benefits : array-like, optional
        Annual amount per policy (default 1).
    select_age : array-like, optional
        Age at selection (NaN: the integer part of the age).
    gr : GrowthRate or float, optional
        Annual growth of every policy's payments (a float: geometric).
    year : array-like of int, optional
        Calendar year in which each life has its ``age`` (needed for the
        policies of a :class:`GenerationalTable`: each follows its cohort).
    guarantee : array-like, optional
        Years from the first payment paid whatever happens (within the
        term), as :meth:`Life.ä`'s ``guarantee``.
    spouse_table, spouse_age, spouse_select_age : array-like, optional
        Per policy: the spouse's table (missing: the member's), age at
        inception (NaN: no spouse) and select age.
    reversion : array-like, optional
        The fraction of the annuity paid on to a spouse who survives the
        member, for the rest of the spouse's life within the same deferment
        and term: r (ä_y - ä_xy) a unit (the 60 % pension is
        ä_x + 0.6 (ä_y - ä_xy)). Independent of the guarantee.
    payment_rule : (both, x_alone, y_alone), optional
        Instead of a reversion, any rule of payment by who is alive, per
        policy with a spouse (each element a value or a column): a year
        while both live, to the member alone, to the spouse alone, as
        :class:`TwoLives` pays it: joint life (1, 0, 0), last survivor
        (1, 1, 1), reversionary to the spouse (0, 0, 1). A policy without a
        spouse pays the member's annuity.
    death_benefit : array-like, optional
        A lump sum paid at the end of the 1/m period of the member's death
        before the annuity starts (within the deferment; at the moment of
        death in the continuous modes).
    timing : {"due", "immediate"}
    on_error : {"raise", "nan"}
        "nan" values the valid policies and returns a ``BatchResult`` whose
        report names each invalid policy's fault.
    record_ids : sequence, optional
        Ids shown in the report.

    Returns
    -------
    ndarray or BatchResult
        Unit values rounded like the curve's annuities, times the benefits.
        Each equals the value of ``tables[table].life(age).ä(curve, ...)``;
        a reversion's and a death benefit's parts are each rounded so and
        added.
    """
    call = _Call(_METHOD, curve, tables, on_error, record_ids, timing)
    given = call.book(table, age, n, d, ts, m, benefits, select_age, year, guarantee, timing, gr)
    pension = _pension_columns(
        given.cols, given.size, spouse_table, spouse_age, spouse_select_age, reversion, death_benefit, payment_rule
    )
    if guarantee is None and all(part is None for part in pension):
        call.valued(*_value_book(given, on_error == "raise"))
    else:
        call.valued(*_value_pensions(given, pension, on_error == "raise"))
    return call.result


def _checked_columns(
    method_name: str,
    table: Any,
    age: Any,
    n: Any,
    d: Any,
    ts: Any,
    m: Any,
    benefits: Any,
    select_age: Any,
    year: Any,
    guarantee: Any,
) -> tuple[dict[str, Any], int, Any]:
    """A life book's columns checked (each of the book's length or one value), its size and
    its benefits (None: 1 each)."""
    cols, size = _columns(
        method_name,
        table=_table_names(table),
        age=_policy_column(age, "age", method_name),
        n=_policy_column(_map_batch_n_none_to_inf(n), "n", method_name),
        d=_policy_column(d, "d", method_name),
        ts=_policy_column(ts, "ts", method_name),
        m=_frequencies(m, method_name),
        select_age=_policy_column(np.nan if select_age is None else select_age, "select_age", method_name),
        year=_policy_column(np.nan if year is None else year, "year", method_name),
        guarantee=_policy_column(0.0 if guarantee is None else guarantee, "guarantee", method_name),
    )
    # Read by the kernel as they are (no copy): the book is valued before this call returns.
    weights = _benefits_array(benefits, size, method_name)
    _check_benefit_values(weights, method_name)
    return cols, size, weights


class _Call:
    """One call valuing a book: its checks and its result as the error policy wants it."""

    def __init__(self, method_name: str, curve: Any, tables: Any, on_error: Any, record_ids: Any, timing: Any = "due"):
        if not (isinstance(on_error, str) and on_error in ("raise", "nan")):
            raise ValueError(f"[{method_name}] 'on_error' must be 'raise' or 'nan', got {on_error!r}.")
        if not (isinstance(timing, str) and timing in ("due", "immediate")):
            raise ValueError(f"[{method_name}] 'timing' must be 'due' or 'immediate', got {timing!r}.")
        if not isinstance(tables, Mapping) or not tables or not all(isinstance(t, Table) for t in tables.values()):
            raise TypeError(
                f"[{method_name}] 'tables' must be a non-empty mapping of names to MortalityTable or "
                "GenerationalTable objects."
            )
        self.method_name, self.curve, self.tables = method_name, curve, tables
        self.on_error, self.record_ids = on_error, record_ids
        self.result: F64 | BatchResult = np.empty(0)

    def book(
        self,
        table: Any,
        age: Any,
        n: Any,
        d: Any,
        ts: Any,
        m: Any,
        benefits: Any,
        select_age: Any,
        year: Any,
        guarantee: Any,
        timing: str,
        gr: Any,
    ) -> _Book:
        """The book's columns checked."""
        method = self.method_name
        cols, size, weights = _checked_columns(method, table, age, n, d, ts, m, benefits, select_age, year, guarantee)
        _validate_record_ids_batch_only(self.record_ids, True, size, method)
        return _Book(self.curve, self.tables, cols, size, weights, timing, _resolve_gr(gr, method))

    def valued(self, values: F64, faults: dict[int, list[str]]) -> None:
        if self.on_error == "raise":
            if faults:
                _refuse(faults, self.method_name)
            self.result = values
        else:
            self.result = _batch_result(values, faults, self.record_ids, self.method_name)


_BENEFITS = ("insurance", "endowment_insurance", "pure_endowment")


def life_insurances(
    curve: Any,
    tables: Mapping[str, MortalityTable | GenerationalTable],
    *,
    table: ArrayLike,
    age: ArrayLike,
    n: Any = None,
    d: ArrayLike = 0.0,
    ts: ArrayLike = 0.0,
    m: ArrayLike = 1,
    benefits: ArrayLike | None = None,
    select_age: ArrayLike | None = None,
    year: ArrayLike | None = None,
    benefit: Literal["insurance", "endowment_insurance", "pure_endowment"] = "insurance",
    on_error: Literal["raise", "nan"] = "raise",
    record_ids: Any = None,
) -> F64 | BatchResult:
    """Value a book of life insurances, one policy per element of the columns.

    ``benefit`` says what each policy pays: "insurance", 1 at the end of
    the 1/m period of death within the term n after the deferment d (n
    None: whole life; at the moment of death in the continuous modes);
    "endowment_insurance", that and 1 on survival to the end of the term;
    "pure_endowment", 1 on survival to d + n. The other columns are
    :func:`life_annuities`'. Each value equals the single call's
    (:meth:`Life.A`, :meth:`Life.A_endowment`, :meth:`Life.E`), rounded
    like an annuity and times the benefit.
    """
    method = "life_insurances"
    if not (isinstance(benefit, str) and benefit in _BENEFITS):
        raise ValueError(f"[{method}] 'benefit' must be one of {_BENEFITS}, got {benefit!r}.")
    call = _Call(method, curve, tables, on_error, record_ids)
    given = call.book(table, age, n, d, ts, m, benefits, select_age, year, None, "immediate", None)
    call.valued(*_value_book(given._replace(benefit=benefit), False))
    return call.result
