"""Life annuities against a straightforward NumPy implementation, in one run.

    python benchmarks/bench_life.py [--quick]

Ours: ``norvane.mortality.life_annuities`` on arrays of policies, and
``Life.ä`` for one life. The baseline builds each annuity's payment schedule
explicitly (times d + k/m, amounts 1/m, a pro-rata last payment), takes
survival from the table's l (cumulative products of 1 - q) with uniform
distribution of deaths inside a year, discounts with the NumPy curve of
``baseline.py`` (``searchsorted``, gathers, ``power``) and sums. For a book it
finds the distinct (table, age, term, deferment) rows with ``np.unique(axis=0,
return_inverse=True)`` and values each once in a Python loop, rounds the unit
values to 10 decimals and multiplies them by the benefits.

Books: 10**6 policies over the two bundled tables, terms 1..40 and deferments
0..10 (whole years), m = 12, benefits; ages either whole (20..100) or distinct
fractional ages in [20, 100]. Curve: the 40-segment curve of the other
benchmarks; the first 10**5 whole-age policies also on a flat curve. Both
sides are checked to agree (rtol 1e-10) on the first 10**4 policies of each
book and on the single annuity before anything is timed. The whole-age book is
also timed against the strongest NumPy form a user could write for it (whole
ages, terms and deferments on one monthly grid): per (table, age) the
cumulative sums of the weighted grid, then two gathers per policy; it does not
apply to fractional ages or terms. On the fractional book the baseline runs on
the first 10**4 policies and its time is extrapolated linearly (every policy
is its own row there)."""

from __future__ import annotations

import argparse
import functools
import math
import os
import time

import numpy as np
from _timing import fmt_time, median_time, print_machine, print_table, time_sides
from baseline import BaselineCurve
from bench_annuity import SEED, check_agreement, make_curves

from norvane.interest_rates import InterestRate
from norvane.mortality import bundled_table, life_annuities

N = 10**6
FLAT_N = 10**5  # the whole-age book's first policies, on a flat curve
CHECK_N = 10**4
SUBSET_N = 10**4  # fractional book: policies the baseline is timed on
M = 12
DECIMALS = 10
TABLES = {"M": bundled_table("makeham_20_120"), "F": bundled_table("makeham_13_110")}
# (least speed-up, most seconds): against the explicit baseline, and against the prefix sums.
TARGETS = {
    "whole": (20.0, 0.5),
    "prefix sums": (5.0, 0.020),
    "prefix sums, flat": (5.0, None),
    "fractional": (None, 0.5),
    "single": (10.0, 0.5e-6),
    "first call": (None, 20e-6),
}


# -- the baseline -----------------------------------------------------------------


def baseline_life_annuity(curve: BaselineCurve, qx, first_age, age, n, d, m, decimals=DECIMALS):
    """ä(m) of a life aged ``age`` (UDD inside years), term n (inf: for life) after deferment d."""
    lx = np.concatenate([[1.0], np.cumprod(1.0 - qx)])
    u0 = age - first_age
    j0 = math.floor(u0)
    alive = lx[j0] * (1.0 - (u0 - j0) * qx[j0])
    if math.isinf(n):
        n = math.ceil((qx.size - u0 - d) * m) / m  # every period begun alive
    whole = int(n * m)
    fraction = n * m - whole
    partial = fraction > 1e-12
    times = d + np.arange(whole + partial) / m
    amounts = np.full(times.size, 1.0 / m)
    if partial:
        amounts[-1] = fraction / m
    u = u0 + times
    j = np.floor(u)
    jj = np.minimum(j, qx.size - 1).astype(np.int64)
    survival = np.where(j < qx.size, lx[jj] * (1.0 - (u - j) * qx[jj]), 0.0) / alive
    return float(np.round(np.sum(amounts * survival * curve.vn(times)), decimals))


def baseline_life_portfolio(curve, tables, table, age, n, d, m, benefits, decimals=DECIMALS):
    names = list(tables)
    codes = (
        np.searchsorted(np.array(names), table) if names == sorted(names) else np.array([names.index(t) for t in table])
    )
    params = np.stack([codes.astype(np.float64), age, n, d], axis=1)
    rows, inverse = np.unique(params, axis=0, return_inverse=True)
    unit = np.empty(rows.shape[0])
    for k, (code, x, term, defer) in enumerate(rows.tolist()):
        t = tables[names[int(code)]]
        unit[k] = baseline_life_annuity(curve, t.qx, t.first_age, x, term, defer, m, decimals)
    return unit[inverse.reshape(-1)] * benefits


def prefix_life_portfolio(curve, tables, table, age, n, d, m, benefits, decimals=DECIMALS):
    """The strongest NumPy form for whole ages, terms and deferments: per (table, age) the
    cumulative sums of v(k/m) k/m_p_x / m on the monthly grid, then two gathers per policy."""
    times = np.arange(int((n + d).max() * m) + 1) / m
    v = curve.vn(times)
    unit = np.empty(age.size)
    for name, t in tables.items():
        rows = np.flatnonzero(table == name)
        ages, which = np.unique(age[rows], return_inverse=True)
        lx = np.concatenate([[1.0], np.cumprod(1.0 - t.qx)])
        u = (ages - t.first_age)[:, None] + times[None, :]
        j = np.floor(u)
        jj = np.minimum(j, t.qx.size - 1).astype(np.int64)
        survival = np.where(j < t.qx.size, lx[jj] * (1.0 - (u - j) * t.qx[jj]), 0.0)
        sums = np.concatenate([np.zeros((ages.size, 1)), np.cumsum(v * survival / m, axis=1)], axis=1)
        sums /= lx[(ages - t.first_age).astype(np.int64)][:, None]
        first, last = (d[rows] * m).astype(np.int64), ((d[rows] + n[rows]) * m).astype(np.int64)
        unit[rows] = sums[which, last] - sums[which, first]
    return np.round(unit, decimals) * benefits


# -- data and the two sides -------------------------------------------------------------


def make_books(n=N):
    rng = np.random.default_rng(SEED + 2)
    table = rng.choice(sorted(TABLES), n)
    common = dict(
        table=table,
        n=rng.integers(1, 41, n).astype(np.float64),
        d=rng.integers(0, 11, n).astype(np.float64),
        benefits=np.round(rng.uniform(1000.0, 20_000.0, n), 2),
    )
    whole = dict(common, age=rng.integers(20, 101, n).astype(np.float64))
    fractional = dict(common, age=rng.uniform(20.0, 100.0, n))
    return whole, fractional


def head(book, size):
    return {k: v[:size] for k, v in book.items()}


def ours_book(curve, book):
    return functools.partial(
        life_annuities,
        curve,
        TABLES,
        table=book["table"],
        age=book["age"],
        n=book["n"],
        d=book["d"],
        m=M,
        benefits=book["benefits"],
    ), ()


def base_book(curve, book):
    return functools.partial(
        baseline_life_portfolio, curve, TABLES, book["table"], book["age"], book["n"], book["d"], M, book["benefits"]
    ), ()


def prefix_book(curve, book):
    return functools.partial(
        prefix_life_portfolio, curve, TABLES, book["table"], book["age"], book["n"], book["d"], M, book["benefits"]
    ), ()


def ours_single(curve):
    # Called as a user writes it (a partial would add its own keyword merging to every call).
    life = TABLES["M"].life(65)
    return (lambda: life.ä(curve, m=M)), ()


def first_call_time(curve, count):
    """Median time of ä_65 on a curve and a table the process has not valued before (its
    grid built, then read): each time a fresh copy of both."""
    times = []
    for k in range(count):
        fresh = InterestRate(terms=curve._terms, rates=curve._rates + 1e-9 * (k + 1))
        life = TABLES["M"].scaled(1.0 - 1e-9 * (k + 1)).life(65)
        start = time.perf_counter()
        life.ä(fresh, m=M)
        times.append(time.perf_counter() - start)
    return float(np.median(times))


def base_single(curve):
    t = TABLES["M"]
    return functools.partial(baseline_life_annuity, curve, t.qx, t.first_age, 65.0, math.inf, 0.0, M), ()


def target_status(case, t_ours, speed_up):
    min_speed_up, max_seconds = TARGETS[case]
    parts, met = [], True
    if min_speed_up is not None:
        parts.append(f">= {min_speed_up:g}x")
        met &= speed_up is not None and speed_up >= min_speed_up
    if max_seconds is not None:
        parts.append(f"ours <= {max_seconds:g} s")
        met &= t_ours <= max_seconds
    return f"{', '.join(parts)}: {'met' if met else 'NOT met'}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    opts = parser.parse_args()
    repeats, min_time = (5, 0.05) if opts.quick else (7, 0.1)
    slow_repeats = 2 if opts.quick else 3

    print_machine()
    print(f"load    : {' '.join(f'{x:.2f}' for x in os.getloadavg())} (1, 5, 15 min) before the run")
    terms, ours, base = make_curves()
    whole, fractional = make_books()
    print(
        f"curve   : {terms.size} segments over {terms.sum():.1f} years; tables {', '.join(map(repr, TABLES.values()))}"
    )
    print(f"books   : {N:,} policies, terms 1..40, deferments 0..10, m = {M}, ages 20..100 whole or fractional\n")

    check_agreement(
        "whole ages",
        *(f(*a) for f, a in (ours_book(ours.pw, head(whole, CHECK_N)), base_book(base.pw, head(whole, CHECK_N)))),
    )
    check_agreement(
        "fractional ages",
        *(
            f(*a)
            for f, a in (ours_book(ours.pw, head(fractional, CHECK_N)), base_book(base.pw, head(fractional, CHECK_N)))
        ),
    )
    check_agreement("single ä_65 (m=12)", *(f(*a) for f, a in (ours_single(ours.pw), base_single(base.pw))))
    check_agreement(
        "whole ages, prefix sums",
        *(f(*a) for f, a in (ours_book(ours.pw, whole), prefix_book(base.pw, whole))),
        rtol=1e-9,  # differences of cumulative sums lose digits
    )
    print(
        f"checked : ours = baseline (rtol 1e-10) on the first {CHECK_N:,} policies of both books and on ä_65; "
        f"ours = the prefix-sum form on the whole-age book (rtol 1e-9: its differences lose digits)\n"
    )

    def once(side):
        func, args = side
        return lambda: func(*args)

    rows = []
    t_o = median_time(once(ours_book(ours.pw, whole)), repeats)
    t_b = median_time(once(base_book(base.pw, whole)), 1)
    rows.append(
        (
            f"1. book, whole ages ({N:,})",
            fmt_time(t_o),
            fmt_time(t_b),
            f"{t_b / t_o:.1f}x",
            target_status("whole", t_o, t_b / t_o),
        )
    )
    t_o, t_b = time_sides([ours_book(ours.pw, whole), prefix_book(base.pw, whole)], repeats, min_time)
    rows.append(
        (
            "   against prefix sums",
            fmt_time(t_o),
            fmt_time(t_b),
            f"{t_b / t_o:.1f}x",
            target_status("prefix sums", t_o, t_b / t_o),
        )
    )
    flat = head(whole, FLAT_N)
    check_agreement(
        "whole ages, flat curve", *(f(*a) for f, a in (ours_book(ours.const, flat), prefix_book(base.const, flat)))
    )
    t_o, t_b = time_sides([ours_book(ours.const, flat), prefix_book(base.const, flat)], repeats, min_time)
    rows.append(
        (
            f"   flat curve, {FLAT_N:,} policies",
            fmt_time(t_o),
            fmt_time(t_b),
            f"{t_b / t_o:.1f}x",
            target_status("prefix sums, flat", t_o, t_b / t_o),
        )
    )
    t_o = median_time(once(ours_book(ours.pw, fractional)), slow_repeats)
    t_sub = median_time(once(base_book(base.pw, head(fractional, SUBSET_N))), slow_repeats)
    t_b = t_sub * N / SUBSET_N
    rows.append(
        (
            f"2. book, fractional ages ({N:,})",
            fmt_time(t_o),
            f"{fmt_time(t_b)} (extrapolated)",
            f"{t_b / t_o:.1f}x",
            target_status("fractional", t_o, None),
        )
    )
    t_o, t_b = time_sides([ours_single(ours.pw), base_single(base.pw)], repeats, min_time)
    rows.append(
        (
            "3. single ä_65 (m=12, for life)",
            fmt_time(t_o),
            fmt_time(t_b),
            f"{t_b / t_o:.1f}x",
            target_status("single", t_o, t_b / t_o),
        )
    )
    t_o = first_call_time(ours.pw, repeats * 10)
    rows.append(
        (
            "   first call on a new curve",
            fmt_time(t_o),
            fmt_time(t_b),
            f"{t_b / t_o:.1f}x",
            target_status("first call", t_o, None),
        )
    )
    print_table(("case", "ours", "baseline", "speed-up", "target"), rows)


if __name__ == "__main__":
    main()
