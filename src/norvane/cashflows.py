"""Expected cash flows of policies and books, by time bucket.

A policy's expected payment at time t is what it pays then times the chance
that it pays (survival for a life annuity, the chance of dying in the period
for an insurance); its discounted flow also carries the curve's discount
factor, so a policy's discounted flows add up to its present value. Flows
are gathered in time buckets measured from each policy's valuation time,
in total or by a column, by the same native composition that values the
policies, so a certain annuity is a life annuity whose survival is 1.

>>> from norvane.mortality import bundled_table
>>> flows = expected_flows(curve, {"M": bundled_table("makeham_20_120")},
...                        table="M", age=[65, 70], m=12)  # doctest: +SKIP
>>> flows.discounted.sum()  # the book's present value  # doctest: +SKIP
"""

from __future__ import annotations

import math
from collections.abc import Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Literal

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _kernels
from ._helpers.policy_arrays import _term_faults
from .base import _ALLOWED_PAYMENT_FREQUENCIES
from .helpers import _allowed_frequency, _map_batch_n_none_to_inf, _policy_column, _real_float
from .mortality.improvement import GenerationalTable
from .mortality.lives import _curve_arrays
from .mortality.portfolio import (
    Table,
    _add_faults,
    _amounts,
    _as_spouse,
    _base,
    _Book,
    _checked_columns,
    _Copies,
    _faults,
    _guarantee_split,
    _legs,
    _LifeBook,
    _pension_columns,
    _table_codes,
    _table_names,
    _texts,
    _whole_years,
)
from .validators import _resolve_gr

if TYPE_CHECKING:
    import pyarrow as pa

__all__ = ["CashFlows", "bucket_ends", "expected_flows", "payment_ends", "scenario_values"]

F64 = NDArray[np.float64]
_METHOD = "expected_flows"
_BENEFITS = ("annuity", "insurance", "endowment_insurance", "pure_endowment")
# Relative difference under which two flow times are one (as the certain engine's flow grids merge them).
_TIME_TOLERANCE = 1e-12
# The most payments a certain policy's flows walk, one by one.
MAX_PAYMENTS: float = _kernels.MAX_FLOW_PAYMENTS
# The longest horizon a bucket grid is built for, and the most buckets.
MAX_HORIZON = 10_000.0
MAX_BUCKETS = 10_000_000


@dataclass(frozen=True, eq=False)
class CashFlows:
    """Expected flows by time bucket, in total or by group.

    Attributes
    ----------
    bucket_ends : ndarray, shape (buckets,)
        Each bucket holds the flows after the previous end up to its own
        end, in years from each policy's valuation time (the first from 0;
        the last also holds every later flow). A flow within a relative
        1e-12 of an end is at that end.
    expected, discounted : ndarray, shape (groups, buckets)
        Expected payments undiscounted and discounted to the valuation time.
    discounted_times : ndarray, shape (groups, buckets)
        The discounted payments times their times (over ``discounted``: the
        time of a bucket's value, see :attr:`times`).
    groups : tuple
        The label of each row (``(None,)`` without a grouping column).
    """

    bucket_ends: F64
    expected: F64
    discounted: F64
    discounted_times: F64
    groups: tuple[Any, ...] = (None,)
    earliest: F64 | None = None  # of each bucket's discounted flows (+inf without any)
    latest: F64 | None = None

    @property
    def at_one_time(self) -> bool:
        """Whether the discounted flows of each bucket of each group are all at one time (then
        revaluing them on another curve from :attr:`times` is exact)."""
        if self.earliest is None or self.latest is None:
            return False
        held = np.isfinite(self.earliest)  # a bucket with a flow of value (which may add up to 0)
        # Times of one payment date reached by different sums differ in their last bits.
        spread = self.latest[held] - self.earliest[held]
        return bool((spread <= _TIME_TOLERANCE * np.maximum(1.0, np.abs(self.latest[held]))).all())

    @property
    def times(self) -> F64:
        """The time of each bucket's value, all groups together: the mean time of its
        discounted flows (the bucket's end where it holds none). Flows at these times with
        the buckets' present values have the book's value and Macaulay duration exactly."""
        value = self.discounted.sum(axis=0)
        timed = self.discounted_times.sum(axis=0)
        with np.errstate(invalid="ignore", divide="ignore"):
            out: F64 = np.where(value != 0.0, timed / value, self.bucket_ends)
        return out

    @property
    def total_expected(self) -> F64:
        """Expected payments per bucket, all groups together."""
        out: F64 = self.expected.sum(axis=0)
        return out

    @property
    def total_discounted(self) -> F64:
        """Discounted payments per bucket, all groups together."""
        out: F64 = self.discounted.sum(axis=0)
        return out

    @property
    def present_value(self) -> float:
        """The sum of the discounted flows: the book's present value."""
        return math.fsum(self.discounted.ravel().tolist())

    def __add__(self, other: CashFlows) -> CashFlows:
        """Flows of two books on the same buckets, groups of the same label added."""
        if not isinstance(other, CashFlows):
            return NotImplemented
        if not np.array_equal(self.bucket_ends, other.bucket_ends):
            raise ValueError("[CashFlows] only flows on the same buckets can be added.")
        labels = list(dict.fromkeys(self.groups + other.groups))
        shape = (len(labels), self.bucket_ends.size)
        expected, discounted, timed = (np.zeros(shape) for _ in range(3))
        earliest, latest = np.full(shape, np.inf), np.full(shape, -np.inf)
        for flows in (self, other):
            rows = [labels.index(label) for label in flows.groups]
            for total, part in zip(
                (expected, discounted, timed), (flows.expected, flows.discounted, flows.discounted_times)
            ):
                np.add.at(total, rows, part)
            if flows.earliest is None or flows.latest is None:  # times unknown: never at one time
                earliest[rows], latest[rows] = -np.inf, np.inf
            else:
                np.minimum.at(earliest, rows, flows.earliest)
                np.maximum.at(latest, rows, flows.latest)
        return CashFlows(self.bucket_ends, expected, discounted, timed, tuple(labels), earliest, latest)

    def to_arrow(self, by: str = "group") -> pa.Table:
        """One row per group and bucket: ``by`` (when grouped), "bucket_start", "bucket_end",
        "expected" and "discounted"."""
        import pyarrow as pa

        buckets = self.bucket_ends.size
        starts = np.concatenate([[0.0], self.bucket_ends[:-1]])
        columns: dict[str, Any] = {}
        if self.groups != (None,):
            columns[by] = pa.array(np.repeat(np.array(self.groups, dtype=object), buckets).tolist())
        columns["bucket_start"] = np.tile(starts, len(self.groups))
        columns["bucket_end"] = np.tile(self.bucket_ends, len(self.groups))
        columns["expected"] = self.expected.ravel()
        columns["discounted"] = self.discounted.ravel()
        return pa.table(columns)


def no_flows(ends: F64) -> CashFlows:
    """Flows of an empty book on the buckets ``ends``."""
    shape = (1, ends.size)
    return CashFlows(
        ends,
        np.zeros(shape),
        np.zeros(shape),
        np.zeros(shape),
        (None,),
        np.full(shape, np.inf),
        np.full(shape, -np.inf),
    )


def bucket_ends(buckets: Any, horizon: float) -> F64:
    """The ends of the buckets: "annual" (1, 2, ..., horizon), "monthly" (1/12, 2/12, ...),
    the given ends, or a function of the horizon returning them (finite, strictly increasing,
    the first >= 0: a bucket ending at 0 holds what is paid at the valuation time)."""
    if callable(buckets):
        buckets = buckets(horizon)
    if isinstance(buckets, str):
        per_year = {"annual": 1, "monthly": 12}.get(buckets)
        if per_year is None:
            raise ValueError(f"[{_METHOD}] 'buckets' must be 'annual', 'monthly' or bucket ends, got {buckets!r}.")
        count = math.ceil(horizon * per_year - 1e-9)
        if count > MAX_BUCKETS:
            raise ValueError(f"[{_METHOD}] {count} buckets are more than {MAX_BUCKETS}.")
        return np.arange(1, max(count, 1) + 1, dtype=np.float64) / per_year
    ends = np.array(_policy_column(buckets, "buckets", _METHOD), dtype=np.float64).reshape(-1)
    if not (ends.size and np.isfinite(ends).all() and ends[0] >= 0.0 and (np.diff(ends) > 0.0).all()):
        raise ValueError(f"[{_METHOD}] bucket ends must be finite and strictly increasing from 0, at least one.")
    return ends


def _group_codes(by: Any, size: int) -> tuple[F64, tuple[Any, ...]]:
    """Each policy's group number and the groups' labels (sorted)."""
    if by is None:
        return np.zeros(1), (None,)
    # Labels of several types stay apart (NumPy would make 1 and "1" one text).
    given = by.to_numpy() if hasattr(by, "to_numpy") else by
    if isinstance(given, np.ndarray):
        labels = given
    else:
        labels = np.empty(len(given) if isinstance(given, (list, tuple)) else 1, dtype=object)
        labels[:] = given if isinstance(given, (list, tuple)) else [given]
    if labels.ndim != 1 or labels.shape[0] not in (1, size):
        raise ValueError(f"[{_METHOD}] 'by' must hold one label per policy, got shape {labels.shape}.")
    try:
        found, codes = np.unique(labels, return_inverse=True)
    except TypeError:  # labels that do not sort (mixed types): in order of appearance
        index: dict[Any, int] = {}
        codes = np.array([index.setdefault(label, len(index)) for label in labels.tolist()])
        found = np.array(list(index), dtype=object)
    return codes.astype(np.float64).reshape(-1), tuple(found.tolist())


def payment_ends(n: Any, d: Any, ts: Any, alive: Any = np.inf) -> F64:
    """When each policy pays last, in years from its valuation time (inf: a perpetuity):
    the end of its term, or of the ``alive`` years its life can still live after ts."""
    n, d, ts = (np.asarray(x, dtype=np.float64) for x in (n, d, ts))
    ahead = np.maximum(d - ts, 0.0)
    with np.errstate(invalid="ignore"):  # inf - inf: a perpetuity
        return np.minimum(ahead + np.maximum(n - np.maximum(ts - d, 0.0), 0.0), ahead + np.asarray(alive))


def _default_horizon(
    cols: dict[str, Any], tables: list[Table] | None, codes: F64, spouse: tuple[F64, Any] | None = None
) -> float:
    """The last time a policy can pay, from its valuation time (a perpetuity's: 100 years; a
    life's when its table ends, or its spouse's, given as (table codes, ages))."""
    alive: Any = np.inf
    if tables is not None:
        last = np.array([_base(t).last_age + 1.0 for t in tables])
        alive = last[codes.astype(np.intp)] - (np.asarray(cols["age"], dtype=np.float64) + cols["ts"])
        if spouse is not None:
            spouse_codes, spouse_ages = spouse
            alive = np.fmax(alive, last[np.nan_to_num(spouse_codes).astype(np.intp)] - (spouse_ages + cols["ts"]))
    ends = payment_ends(cols["n"], cols["d"], cols["ts"], alive)
    finite = ends[np.isfinite(ends)]
    last_end = float(finite.max()) if finite.size else 0.0
    return min(MAX_HORIZON, max(1.0, last_end, 100.0 if (~np.isfinite(ends)).any() else 0.0))


def _growth_settings(growth: Any) -> dict[str, Any]:
    return {
        "growth_kind": "level" if growth is None else growth.kind,
        "growth_rate": 0.0 if growth is None else float(growth.rate),
    }


class _Gathering:
    """The flows of a book's parts (certain and life legs), gathered on one grid."""

    def __init__(self, curve: Any, ends: F64, group: F64, groups: int, timing: str, growth: Any):
        self.curve, self.ends, self.group, self.groups = curve, ends, group, groups
        self.rates, self.terms, self.curve_ends = _curve_arrays(curve, _METHOD)
        self.settings: dict[str, Any] = dict(
            timing=0 if timing == "due" else 1,
            **_growth_settings(growth),
            mode=curve.calculation_mode,
            tolerance_eps=curve._meta.tolerance_eps,
            perpetuity_n_eff=float(curve._meta.perpetuity_n_eff),
        )
        size = groups * ends.size
        # expected, discounted, times discounted, earliest and latest times
        self.sums = [np.zeros(size) for _ in range(3)] + [np.full(size, np.inf), np.full(size, -np.inf)]

    def add(self, arguments: list[Any], benefit: str = "annuity", spouses: Any = None, growth: Any = ...) -> None:
        """The flows of a book part (``_LifeBook._arguments``), ``growth`` overriding the book's."""
        settings = self.settings if growth is ... else {**self.settings, **_growth_settings(growth)}
        found = _kernels.book_flows(
            *[*arguments, self.group, self.groups, self.ends],
            second=spouses,
            status="single" if spouses is None else "joint",
            benefit=benefit,
            **settings,
        )
        for total, part in zip(self.sums[:3], found[:3]):
            total += part
        np.minimum(self.sums[3], found[3], out=self.sums[3])
        np.maximum(self.sums[4], found[4], out=self.sums[4])

    def certain(self, cols: dict[str, Any], weights: Any) -> None:
        one = np.zeros(1)
        arguments: list[Any] = [[], [], [], self.rates, self.terms, self.curve_ends, one, one, one]
        self.add(arguments + [cols[c] for c in ("n", "d", "ts", "m")] + [weights])

    def result(self, labels: tuple[Any, ...]) -> CashFlows:
        shape = (self.groups, self.ends.size)
        expected, discounted, timed, earliest, latest = (total.reshape(shape) for total in self.sums)
        return CashFlows(self.ends, expected, discounted, timed, labels, earliest, latest)


def expected_flows(
    curve: Any,
    tables: Mapping[str, Table] | None = None,
    *,
    table: ArrayLike | None = None,
    age: ArrayLike | None = None,
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
    benefit: Literal["annuity", "insurance", "endowment_insurance", "pure_endowment"] = "annuity",
    buckets: Any = "annual",
    horizon: float | None = None,
    by: ArrayLike | None = None,
) -> CashFlows:
    """Expected and discounted cash flows of a book, by time bucket.

    The columns are those of :func:`norvane.mortality.life_annuities` (one
    element per policy, or one value for all), pensions' spouses, reversions
    and death benefits included: the flows add up as the values do. Without ``tables`` the
    policies are certain annuities (``n`` None or inf: a perpetuity, over
    the curve's perpetuity horizon); with ``tables`` each pays ``benefit``
    on the life its ``table``, ``age`` (and ``select_age``, ``year``) give.

    Parameters
    ----------
    benefit : {"annuity", "insurance", "endowment_insurance", "pure_endowment"}
        What a life policy pays: the annuity, 1 at the end of the 1/m period
        of death within the term (the moment of death in the continuous
        modes), that and 1 on survival to the end of a finite term, or 1 on
        survival to the end of the deferment and term.
    buckets : {"annual", "monthly"}, array-like or callable
        The buckets' grid up to ``horizon``, the bucket ends themselves, or
        a function of the horizon (years) returning them.
    horizon : float, optional
        Years the annual or monthly grid covers (default: up to the last
        payment any policy can make, 100 years with perpetuities); later
        flows go to the last bucket.
    by : array-like, optional
        A label per policy (a table, a product): the flows per label.

    Returns
    -------
    CashFlows
        Expected and discounted flows, shape (groups, buckets). Each
        policy's discounted flows add up to its present value (unrounded,
        times its benefit) in every calculation mode: in the Woolhouse
        modes the annual payments carry their weights.
    """
    if not (isinstance(timing, str) and timing in ("due", "immediate")):
        raise ValueError(f"[{_METHOD}] 'timing' must be 'due' or 'immediate', got {timing!r}.")
    if not (isinstance(benefit, str) and benefit in _BENEFITS):
        raise ValueError(f"[{_METHOD}] 'benefit' must be one of {_BENEFITS}, got {benefit!r}.")
    if tables is not None and (
        not isinstance(tables, Mapping) or not tables or not all(isinstance(t, Table) for t in tables.values())
    ):
        raise TypeError(
            f"[{_METHOD}] 'tables' must be a non-empty mapping of names to MortalityTable or GenerationalTable objects."
        )
    if tables is None and (benefit != "annuity" or table is not None or age is not None):
        raise ValueError(f"[{_METHOD}] a book without tables is of certain annuities: give 'tables' for lives.")
    annuity_only = dict(
        gr=gr,
        guarantee=guarantee,
        spouse_age=spouse_age,
        reversion=reversion,
        payment_rule=payment_rule,
        death_benefit=death_benefit,
    )
    annuity_terms = [name for name, value in annuity_only.items() if value is not None]
    if benefit != "annuity" and annuity_terms:
        named = ", ".join(repr(name) for name in annuity_terms)
        raise ValueError(f"[{_METHOD}] {named} apply to annuities, not to a {benefit!r}.")
    life = tables is not None
    cols, size, weights = _checked_columns(
        _METHOD, table if life else "", age if life else 0.0, n, d, ts, m, benefits, select_age, year, guarantee
    )
    growth = _resolve_gr(gr, _METHOD)
    group, labels = _group_codes(by, size)
    if life:
        assert tables is not None
        # The kernel checks the lives and matches texts to the tables' names (cohorts and the
        # default horizon need the tables' numbers); the faults are worded when it cannot (a
        # table unknown, a frequency or calendar year refused) or when it refuses one.
        generational = any(isinstance(t, GenerationalTable) for t in tables.values())
        texts = None if generational or horizon is None else _texts(cols["table"])
        codes = texts if texts is not None else _table_codes(cols["table"], tables)[0]
        checked = (
            (texts is not None or not np.isnan(codes).any())
            and _allowed_frequency(cols["m"]).all()
            and (not generational or _whole_years(cols["year"], size).all())
        )
        faults = {} if checked else _faults(tables, cols, size, _table_codes(cols["table"], tables)[0])
    else:
        # The kernel checks a certain book's terms; they are worded when it refuses one.
        codes = np.zeros(1)
        faults = {} if _allowed_frequency(cols["m"]).all() else _certain_faults(curve, cols, size)
    if faults:
        _refuse_flows(faults)
    if horizon is None:
        listed = None if tables is None else list(tables.values())
        spouse = None
        if tables is not None and spouse_age is not None:
            spouse = (
                _table_codes(np.atleast_1d(_table_names(spouse_table if spouse_table is not None else table)), tables)[
                    0
                ],
                np.asarray(spouse_age, dtype=np.float64),
            )
        span = _default_horizon(cols, listed, np.broadcast_to(codes, (size,)), spouse)
    else:
        span = _real_float(horizon, "horizon", _METHOD)
        if not 0.0 < span <= MAX_HORIZON:
            raise ValueError(f"[{_METHOD}] 'horizon' must be > 0 and at most {MAX_HORIZON:g} years, got {span!r}.")
    ends = bucket_ends(buckets, span)
    gathering = _Gathering(curve, ends, group, len(labels), timing, growth)
    if not life:
        try:
            gathering.certain(cols, weights)
        except ValueError:
            faults = _certain_faults(curve, cols, size)
            if faults:
                _refuse_flows(faults)
            raise
        return gathering.result(labels)
    assert tables is not None
    given = _Book(curve, tables, cols, size, weights, timing, growth, benefit)
    pension = _pension_columns(
        cols, size, spouse_table, spouse_age, spouse_select_age, reversion, death_benefit, payment_rule, _METHOD
    )
    legs = _legs(given, pension)
    guaranteed = guarantee is not None and benefit == "annuity"
    # A book with copies of its policies projects each distinct policy's parts once, weighted by
    # the sums of its copies' amounts; a fault is worded on the whole book, by its own index.
    copies = _Copies.of_book(given, pension, group)
    if copies is not None:
        distinct = _Gathering(curve, ends, copies.rows(group), len(labels), timing, growth)
        try:
            weights = _kernels.sum_parts(copies.of, copies.lead.size, *_Copies.amounts(legs))
            _gather_legs(distinct, [leg for leg, _ in copies.legs(legs, weights)], copies.rows(codes), guaranteed)
        except ValueError:
            pass
        else:
            return distinct.result(labels)
    try:
        _gather_legs(gathering, [leg for leg, _ in legs], codes, guaranteed)
    except ValueError:
        for leg, of_spouse in legs:
            found = _faults(tables, leg.cols, size, _table_codes(leg.cols["table"], tables)[0])
            if leg.spouse is not None:
                spouse_codes = _table_codes(leg.spouse["table"], tables)[0]
                _add_faults(found, _as_spouse(_faults(tables, {**cols, **leg.spouse}, size, spouse_codes)))
            if found:
                _refuse_flows(_as_spouse(found) if of_spouse else found)
        raise
    return gathering.result(labels)


def _gather_legs(gathering: _Gathering, parts: list[_Book], codes: NDArray[Any], guaranteed: bool) -> None:
    """The flows of a book's parts (``_legs``; the first guaranteed when ``guaranteed``); a
    part on the member's table reads its codes."""
    member = parts[0].cols["table"]
    if guaranteed:
        _guaranteed_flows(gathering, parts.pop(0), codes)
    for leg in parts:
        tables = leg.tables
        book = _LifeBook(leg.curve, tables, leg.timing, leg.growth, _amounts(leg), leg.size, leg.benefit, leg.spouse)
        own = codes if leg.cols["table"] is member else _table_codes(leg.cols["table"], tables)[0]
        arguments, spouses = book._arguments(own, leg.cols, None)
        gathering.add(arguments, leg.benefit, spouses, leg.growth)


def _guaranteed_flows(gathering: _Gathering, given: _Book, codes: NDArray[Any]) -> None:
    """A guarantee's years certain, then the life annuity deferred by them and scaled by their growth."""
    curve, tables, cols, size, _, timing, growth = given[:7]
    weights = _amounts(given)
    split = _guarantee_split(cols, size, growth)
    refused = np.flatnonzero(~(split.kept & split.steps)).tolist()
    if refused:
        _refuse_flows({i: [f"'guarantee' cannot be valued at index {i}"] for i in refused})
    gathering.certain({**cols, "n": np.minimum(split.years, np.broadcast_to(cols["n"], (size,)))}, weights)
    grown = np.broadcast_to(np.asarray(split.grown(growth) * (1.0 if weights is None else weights)), (size,))
    later = _LifeBook(curve, tables, timing, growth, grown, size)
    gathering.add(later._arguments(codes, split.later_terms, None)[0])


def _certain_faults(curve: Any, cols: dict[str, Any], size: int) -> dict[int, list[str]]:
    """A certain book's faults, by policy: its terms, its frequency, and more payments than
    its flows walk one by one (a perpetuity's over the curve's horizon)."""
    faults = _term_faults(cols["n"], cols["d"], cols["ts"], cols["m"], size)
    refused = np.flatnonzero(np.broadcast_to(~_allowed_frequency(cols["m"]), (size,))).tolist()
    for i in refused:
        faults.setdefault(i, []).append(f"'m' must be one of {_ALLOWED_PAYMENT_FREQUENCIES} at index {i}")
    with np.errstate(invalid="ignore"):
        terms = np.where(np.isinf(cols["n"]), float(curve._meta.perpetuity_n_eff), cols["n"])
        payments = np.broadcast_to(terms * cols["m"], (size,))
    for i in np.flatnonzero(payments > MAX_PAYMENTS).tolist():
        faults.setdefault(i, []).append(
            f"{float(payments[i]):.3g} payments at index {i} are more than the {MAX_PAYMENTS:.0e} a policy's flows walk"
        )
    return faults


def _refuse_flows(faults: dict[int, list[str]]) -> None:
    raise ValueError(f"[{_METHOD}] " + "; ".join(faults[min(faults)]))


def _scenario_leaves(curve: Any) -> dict[str, Any]:
    """Each scenario of a container by name; a single curve as its one scenario ("")."""
    scenarios = getattr(curve, "scenarios", None)
    if scenarios:
        return {name: scenarios[name] for name in curve.scenario_names}
    return {"": curve}


def _payment_months(horizon: float) -> F64:
    """Buckets ending at 0, 1/12, 2/12, ...: payments on a monthly grid (payments now
    included) fall one date to a bucket."""
    out: F64 = np.arange(math.ceil(horizon * 12 - 1e-9) + 1, dtype=np.float64) / 12
    return out


def _span_bound(curve: Any, tables: Mapping[str, Table] | None, book: dict[str, Any]) -> float:
    """Years within which a book's flows fall, a bound found in a few passes over its columns:
    the longest deferment and then the longest term (a perpetuity's horizon) or, for lives, the
    widest table (nobody outlives it)."""

    def most(values: Any) -> float:
        found = np.asarray(values, dtype=np.float64)
        return float(np.nanmax(found)) if found.size and not np.isnan(found).all() else 0.0

    longest = most(_map_batch_n_none_to_inf(book.get("n")))
    if math.isinf(longest):
        longest = float(curve._meta.perpetuity_n_eff)
    if tables is not None:
        longest = min(longest, max(_base(t).last_age + 1.0 - _base(t).first_age for t in tables.values()))
    span = max(most(book.get("d", 0.0)), 0.0) + longest
    return min(MAX_HORIZON, span) if math.isfinite(span) and span > 0.0 else 1.0


def scenario_values(curve: Any, tables: Mapping[str, Table] | None = None, **book: Any) -> dict[str, float]:
    """A book's present value under every scenario of a container, by scenario name (a
    single curve gives one value, named "").

    ``tables`` and ``book`` are :func:`expected_flows`' (without ``buckets``, ``horizon`` and
    ``by``). The book's expected flows are found once, on the active scenario, in monthly
    buckets and by valuation time; when every bucket's flows fall at one time (payments on
    a monthly grid from whole months, in the discrete modes) each scenario's value is their
    sum discounted on that scenario, exactly, in one pass over the policies. Otherwise each
    scenario is valued on its own. Values are unrounded sums of the policies' values times
    their benefits (each within the rounding of the policies' own values).
    """
    for name in ("buckets", "horizon", "by"):
        if name in book:
            raise TypeError(f"[scenario_values] '{name}' is set by the valuation itself.")
    leaves = _scenario_leaves(curve)
    times = np.asarray(_policy_column(book.get("ts", 0.0), "ts", "scenario_values"), dtype=np.float64).reshape(-1)
    shifts, by = np.unique(times, return_inverse=True)
    span = _span_bound(curve, tables, book)
    flows = expected_flows(
        curve, tables, **book, buckets=_payment_months, horizon=span, by=by if times.size > 1 else None
    )
    if not flows.at_one_time:
        return {
            name: expected_flows(leaf, tables, **book, buckets=[1.0]).present_value for name, leaf in leaves.items()
        }
    base = _scenario_leaves(curve).get(getattr(curve, "active_scenario", None) or "", curve)
    starts = np.array([shifts[g] if g is not None else shifts[0] for g in flows.groups])[:, None]
    assert flows.earliest is not None
    held = np.isfinite(flows.earliest)
    at = np.where(held, flows.earliest, 0.0) + starts

    def seen_from_start(leaf: Any) -> F64:
        out: F64 = np.asarray(leaf.vn(at), dtype=np.float64) / np.asarray(leaf.vn(starts), dtype=np.float64)
        return out

    on_base = seen_from_start(base)
    return {
        name: math.fsum((flows.discounted[held] * (seen_from_start(leaf) / on_base)[held]).tolist())
        for name, leaf in leaves.items()
    }
