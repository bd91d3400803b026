"""Reading mortality tables in the Society of Actuaries' XTbML, the XML of mort.soa.org.

Only what q by age needs is read: each ``Table``'s ``ScalingFactor``, its
``AxisDef`` ranges and its ``Values``. Elements are matched by local name, as
files usually declare a default namespace.
"""

from __future__ import annotations

import os
import xml.etree.ElementTree as ET
from dataclasses import dataclass

import numpy as np
from numpy.typing import NDArray

F64 = NDArray[np.float64]

_METHOD = "MortalityTable.from_xtbml"
_FARTHEST = 10_000
"""Axis values beyond this are no age or duration: refused before any array is sized by them."""
_EXACT_POWERS = 22
"""10**s is an exact float up to here, so a scaled value is the correctly rounded quotient."""


def _fail(message: str) -> ValueError:
    return ValueError(f"[{_METHOD}] {message}.")


def _local(tag: str) -> str:
    return tag.rpartition("}")[2]


def _children(element: ET.Element, name: str) -> list[ET.Element]:
    return [child for child in element if _local(child.tag) == name]


def _text(element: ET.Element | None, name: str) -> str:
    found = [] if element is None else _children(element, name)
    return (found[0].text or "").strip() if found else ""


def _whole(text: str | None, what: str) -> int:
    try:
        value = float(text or "")
    except ValueError:
        raise _fail(f"{what} must be a whole number, got {text!r}") from None
    if not (value.is_integer() and abs(value) <= _FARTHEST):
        raise _fail(f"{what} must be a whole number of at most {_FARTHEST}, got {text!r}")
    return int(value)


def _number(element: ET.Element, where: str) -> float:
    text = (element.text or "").strip()
    try:
        value = float(text)
    except ValueError:
        value = float("nan")
    if not np.isfinite(value):
        raise _fail(f"{where}: value {text!r} is not a number")
    return value


def _bounds(axis: ET.Element | None, name: str) -> tuple[int, int] | None:
    """An ``AxisDef``'s declared range, if it declares one; yearly steps only."""
    increment = _text(axis, "Increment")
    if increment and _whole(increment, f"{name}: Increment") != 1:
        raise _fail(f"{name}: its {_text(axis, 'AxisName') or 'axis'} steps by {increment}, not by one year")
    low, high = _text(axis, "MinScaleValue"), _text(axis, "MaxScaleValue")
    if not (low and high):
        return None
    return _whole(low, f"{name}: MinScaleValue"), _whole(high, f"{name}: MaxScaleValue")


def _in_order(
    elements: list[ET.Element], bounds: tuple[int, int] | None, what: str, name: str, *, may_end_early: bool = False
) -> tuple[int, list[ET.Element]]:
    """The first ``t`` and the elements by consecutive ``t``; every ``t`` of the declared range
    must be there, but the last ones when the axis ``may_end_early``."""
    by_t: dict[int, ET.Element] = {}
    for element in elements:
        t = _whole(element.get("t"), f"{name}: {what} 't'")
        if t in by_t:
            raise _fail(f"{name} has {what} {t} more than once")
        by_t[t] = element
    if not by_t:
        raise _fail(f"{name} has no values")
    ts = sorted(by_t)
    low, high = bounds if bounds is not None else (ts[0], ts[-1])
    if ts[0] < low or ts[-1] > high:
        raise _fail(f"{name}: {what} {ts[0] if ts[0] < low else ts[-1]} lies outside its axis, {low} to {high}")
    expected = range(low, ts[-1] + 1 if may_end_early else high + 1)
    missing = next((t for t in expected if t not in by_t), None)
    if missing is not None:
        raise _fail(f"{name} has no value for {what} {missing}")
    return low, [by_t[t] for t in expected]


@dataclass(frozen=True)
class _Table:
    index: int
    description: str
    first: int
    """First age, or first select age."""
    q: F64
    """q by age, or select ages x durations (NaN after a row that ends early)."""

    @property
    def is_select(self) -> bool:
        return self.q.ndim == 2

    def summary(self) -> str:
        ages = f"ages {self.first} to {self.first + self.q.shape[0] - 1}"
        kind = f"select, {ages}, {self.q.shape[1]} durations" if self.is_select else f"ultimate, {ages}"
        about = self.description if len(self.description) <= 60 else self.description[:57] + "..."
        return f"{self.index}: {kind}" + (f" ({about})" if about else "")


def _parse_table(element: ET.Element, index: int, where: str) -> _Table:
    name = f"{where!r} table {index}"
    meta = next(iter(_children(element, "MetaData")), None)
    axes = [] if meta is None else _children(meta, "AxisDef")
    scaling = _text(meta, "ScalingFactor")
    power = _whole(scaling, f"{name}: ScalingFactor") if scaling else 0
    if abs(power) > _EXACT_POWERS:
        raise _fail(f"{name}: ScalingFactor {power} is no power of ten rates are stored at")
    values = _children(element, "Values")
    outer = _children(values[0], "Axis") if len(values) == 1 else []
    bounds = [_bounds(axis, name) for axis in axes[:2]] + [None, None]
    if len(outer) == 1 and not _children(outer[0], "Axis"):
        first, ys = _in_order(_children(outer[0], "Y"), bounds[0], "age", name)
        q = np.array([_number(y, f"{name} at age {first + i}") for i, y in enumerate(ys)])
    elif outer and all(len(_children(row, "Axis")) == 1 for row in outer):
        first, rows = _in_order(outer, bounds[0], "select age", name)
        lines: list[list[float]] = []
        for r, row in enumerate(rows):
            row_name = f"{name} at select age {first + r}"
            durations = _children(_children(row, "Axis")[0], "Y")
            start, ys = _in_order(durations, bounds[1] or (1, _FARTHEST), "duration", row_name, may_end_early=True)
            if start != 1:
                raise _fail(f"{name}: durations must start at 1 (the select year), not {start}")
            lines.append([_number(y, f"{row_name}, duration {d}") for d, y in enumerate(ys, 1)])
        period = bounds[1][1] if bounds[1] else max(map(len, lines))
        q = np.full((len(lines), period), np.nan)
        for r, line in enumerate(lines):
            q[r, : len(line)] = line
    else:
        raise _fail(
            f"{name} holds neither one axis of values nor select ages each with one axis of durations"
            f"{'' if len(values) == 1 else ' (it needs exactly one Values)'}"
        )
    # ScalingFactor s: the file holds rates times 10**s (s = 3 for rates per mille).
    q = q / 10.0**power if power >= 0 else q * 10.0**-power
    return _Table(index, _text(meta, "TableDescription"), first, q)


def _choose(tables: list[_Table], table: int | tuple[int, int] | None, where: str) -> tuple[_Table | None, _Table]:
    """The select table (or None) and the ultimate table to build from."""
    listing = "; ".join(t.summary() for t in tables)
    held = f"{where!r} holds {len(tables)} table{'s' * (len(tables) > 1)} ({listing})"
    if table is None:
        kinds = sorted(t.is_select for t in tables)
        if kinds in ([False], [False, True]):
            return next((t for t in tables if t.is_select), None), next(t for t in tables if not t.is_select)
        raise _fail(f"{held}: choose with table=index of an ultimate table or table=(select, ultimate)")
    picks = table if isinstance(table, tuple) else (table,)
    if len(picks) not in (1, 2) or not all(isinstance(i, int) and not isinstance(i, bool) for i in picks):
        raise TypeError(f"[{_METHOD}] 'table' must be an index or a (select, ultimate) pair of indices, got {table!r}.")
    for i in picks:
        if not 0 <= i < len(tables):
            raise _fail(f"{where!r} has no table {i}: it holds {len(tables)} ({listing})")
    chosen = [tables[i] for i in picks]
    if [t.is_select for t in chosen] != [True, False][-len(chosen) :]:
        wanted = "a select table and then an ultimate table" if len(chosen) == 2 else "an ultimate table"
        raise _fail(f"table={table!r} must name {wanted}; {held}")
    return (chosen[0] if len(chosen) == 2 else None), chosen[-1]


def _join(select: _Table, ultimate: _Table, where: str) -> tuple[F64, int, F64]:
    """Ultimate q, its first age and the select rates, completed to meet the table's layout."""
    sel, first, q = select.q.copy(), ultimate.first, ultimate.q
    rows, period = sel.shape
    last = first + q.size - 1
    if select.first + rows - 1 + period > last:
        raise _fail(
            f"{where!r}: select age {select.first + rows - 1} with a {period}-year select period runs past "
            f"the ultimate table's last age {last}"
        )
    for r, line in enumerate(sel):
        ended = np.flatnonzero(np.isnan(line))
        if ended.size:  # the row ends early where the ultimate takes over
            d, age = int(ended[0]), select.first + r + int(ended[0])
            if age < first:
                raise _fail(
                    f"{where!r}: the select row for age {select.first + r} ends after {d} years, and the "
                    f"ultimate table starts at age {first}, after age {age}"
                )
            line[d:] = q[age - first : age - first + period - d]
    if first > select.first:
        # Published so when the ultimate starts where the first select period ends: its earlier
        # ages are reached only on select rates, so they hold the select year's q_[x].
        if select.first + period < first:
            raise _fail(
                f"{where!r}: lives selected at age {select.first} reach the ultimate rates at age "
                f"{select.first + period}, before the ultimate table's first age {first}"
            )
        if select.first + rows < first:
            raise _fail(f"{where!r}: ages {select.first + rows} to {first - 1} have neither select nor ultimate rates")
        q, first = np.concatenate([sel[: first - select.first, 0], q]), select.first
    return q, first, sel


def read_xtbml(
    path: str | os.PathLike[str], table: int | tuple[int, int] | None
) -> tuple[F64, int, F64 | None, int | None]:
    """Ultimate q, its first age, select rates and the first select age (None without) of a file."""
    where = os.fspath(path)
    try:
        root = ET.parse(where).getroot()
    except ET.ParseError as exc:
        raise _fail(f"cannot read {where!r} as XML: {exc}") from None
    if _local(root.tag) != "XTbML":
        raise _fail(f"{where!r} is no XTbML file: its root element is {_local(root.tag)!r}, not 'XTbML'")
    tables = [_parse_table(element, i, where) for i, element in enumerate(_children(root, "Table"))]
    if not tables:
        raise _fail(f"{where!r} has no Table")
    select, ultimate = _choose(tables, table, where)
    if select is None:
        return ultimate.q, ultimate.first, None, None
    q, first, sel = _join(select, ultimate, where)
    return q, first, sel, select.first
