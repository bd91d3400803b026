"""Portfolio annuities (one value per policy) against the straightforward NumPy baseline.

    python benchmarks/bench_portfolio.py [--quick]

Ours is the public ``InterestRate.ä(n=..., d=..., ts=..., m=12, benefits=...)``
on arrays of policies. The baseline (``baseline_portfolio_annuity``) finds the
distinct (term, deferment, shift) rows with ``np.unique(..., axis=0,
return_inverse=True)``, values each row once in a Python loop with
``baseline_annuity`` on the curve shifted to the row's valuation time, rounds
the unit values to 10 decimals and multiplies them by the benefits.

Before any timing, ours is checked to agree with the baseline (rtol 1e-10) on
the first 10**4 policies of the two portfolios and on the scalar annuity, and,
in each calculation mode, a batch value is checked to equal the benefit times
the scalar value of its policy. Then each case is timed side by side: repeats
alternate between the sides, each repeat of a fast call runs enough calls to
last at least ``min_time`` after an untimed calibration (which warms it up),
and the median per-call time is reported. The baseline over 10**6 policies
takes seconds per call, so it is repeated fewer times (stated in the header),
with no separate warm-up: the checks have already run the same code, and its
first timed call counts as a repeat (so does ours on fractional terms, about a
second a call). On the portfolio of fractional terms the baseline runs on the
first 10**5 policies only and its time is extrapolated linearly to 10**6
(nearly every policy is its own distinct row there, so the loop, which
dominates, grows with the policy count). The share of ``np.unique`` in the
baseline's time on the whole-year book is measured once, by itself.
"""

from __future__ import annotations

import argparse
import functools
import os
import statistics
from types import SimpleNamespace

import numpy as np
from baseline import baseline_annuity, baseline_portfolio_annuity
from bench_annuity import MODES, PUBLIC_DUE, SEED, check_agreement, make_curves
from bench_discounting import calibrate, fmt_time, print_machine, print_table, run

from norvane.config import Config

N = 10**6
CHECK_N = 10**4  # policies checked against the baseline before timing
SUBSET_N = 10**5  # policies of the fractional-term portfolio the baseline is timed on
POLICY_SEED = SEED + 1
M = 12
DECIMALS = 10
MAX_TERM = 40  # whole-year terms 1..40; fractional terms uniform in [1, 40]
MAX_DEFERMENT = 10  # deferments 0..10 (whole years)
MAX_SHIFT = 5  # valuation times 0..5 (whole years)
TERM_DECIMALS = 4  # fractional terms rounded to 4 decimals
MIN_DISTINCT_TERMS = 10**5
SLOW_CALL = 0.5  # seconds: a call this slow is timed once per repeat, its first call counted
MODE_CHECK_N = 20  # policies per mode checked against the scalar annuity
TARGETS = {  # case -> (minimum speed-up, maximum seconds of ours), None where there is none
    "whole": (20.0, 0.25),
    "fractional": (None, 2.0),
    "scalar": (10.0, None),
}


# -- data -----------------------------------------------------------------------


def make_portfolios(n=N):
    """The two books of 10**6 policies: whole-year terms and fractional terms, same d, ts, benefits."""
    rng = np.random.default_rng(POLICY_SEED)
    d = rng.integers(0, MAX_DEFERMENT + 1, n).astype(np.float64)
    ts = rng.integers(0, MAX_SHIFT + 1, n).astype(np.float64)
    benefits = np.round(rng.uniform(100.0, 10_000.0, n), 2)
    whole = rng.integers(1, MAX_TERM + 1, n).astype(np.float64)
    fractional = np.round(rng.uniform(1.0, float(MAX_TERM), n), TERM_DECIMALS)
    return (
        SimpleNamespace(n=whole, d=d, ts=ts, benefits=benefits),
        SimpleNamespace(n=fractional, d=d, ts=ts, benefits=benefits),
    )


def head(book, size):
    return SimpleNamespace(**{name: values[:size] for name, values in vars(book).items()})


def distinct_rows(book):
    """Number of distinct (n, d, ts) rows. The values lie on a grid (n in steps of
    10**-4, whole d and ts), so one int64 key per row identifies it exactly; that
    is much faster than ``np.unique(axis=0)`` and is only used for reporting."""
    key = (np.rint(book.n * 10**TERM_DECIMALS).astype(np.int64) * (MAX_DEFERMENT + 1) + book.d.astype(np.int64)) * (
        MAX_SHIFT + 1
    ) + book.ts.astype(np.int64)
    return np.unique(key).size


# -- the two sides ----------------------------------------------------------------


def ours_call(curve, book):
    return functools.partial(
        getattr(curve, PUBLIC_DUE), n=book.n, d=book.d, ts=book.ts, m=M, benefits=book.benefits
    ), ()


def base_call(curve, book):
    return functools.partial(
        baseline_portfolio_annuity, curve, book.n, book.d, book.ts, M, 0, book.benefits, DECIMALS
    ), ()


def ours_scalar(curve):
    return functools.partial(getattr(curve, PUBLIC_DUE), n=30, m=M), ()


def base_scalar(curve):
    return functools.partial(baseline_annuity, curve, 30.0, M, 0, 0.0, None, DECIMALS), ()


def in_mode(mode, func):
    """``func`` run with the package configuration's calculation mode set to ``mode``."""

    def call(*args):
        with Config().override(calculation_mode=mode):
            return func(*args)

    return call


# -- checking -------------------------------------------------------------------


def check_portfolio(label, curve_o, curve_b, book):
    (f_o, a_o), (f_b, a_b) = ours_call(curve_o, book), base_call(curve_b, book)
    check_agreement(label, f_o(*a_o), f_b(*a_b))


def check_modes(curve, book):
    """In each mode a batch value equals the benefit times the scalar value of its policy."""
    sample = head(book, MODE_CHECK_N)
    due = getattr(curve, PUBLIC_DUE)
    for mode in MODES:
        with Config().override(calculation_mode=mode):
            batch = due(n=sample.n, d=sample.d, ts=sample.ts, m=M, benefits=sample.benefits)
            scalar = [
                due(n=float(n), d=float(d), ts=float(ts), m=M) * b
                for n, d, ts, b in zip(sample.n, sample.d, sample.ts, sample.benefits, strict=True)
            ]
        check_agreement(f"{mode}: batch against scalar", batch, scalar, rtol=1e-12)


# -- timing ---------------------------------------------------------------------


def time_sides(sides, min_time):
    """Median seconds per call of each (function, args, repeats) side.

    A first call of each side decides: one slower than ``SLOW_CALL`` seconds
    counts as the first repeat and the side runs one call per repeat; a faster
    side is calibrated to repeats of at least ``min_time`` (the calibration warms
    it up and is not counted). The repeats then alternate between the sides, a
    side with fewer repeats dropping out once it has them all.
    """
    loops, samples = [], []
    for func, args, _ in sides:
        first = run(func, args, 1)
        slow = first >= SLOW_CALL
        loops.append(1 if slow else calibrate(func, args, min_time))
        samples.append([first] if slow else [])
    for _ in range(max(repeats for *_, repeats in sides)):
        for (func, args, repeats), n_loops, out in zip(sides, loops, samples, strict=True):
            if len(out) < repeats:
                out.append(run(func, args, n_loops))
    return [statistics.median(s) for s in samples]


# -- report ---------------------------------------------------------------------


def target_status(case, t_ours, speed_up):
    min_speed_up, max_seconds = TARGETS[case]
    parts, met = [], True
    if min_speed_up is not None:
        parts.append(f">= {min_speed_up:g}x")
        met &= speed_up is not None and speed_up >= min_speed_up
    if max_seconds is not None:
        parts.append(f"ours < {max_seconds:g} s")
        met &= t_ours < max_seconds
    return f"{', '.join(parts)}: {'met' if met else 'NOT met'}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    opts = parser.parse_args()
    repeats, min_time = (5, 0.05) if opts.quick else (7, 0.1)
    slow_repeats = 2 if opts.quick else 3  # the baseline on a whole book, ours on fractional terms

    print_machine()
    print(f"load    : {' '.join(f'{x:.2f}' for x in os.getloadavg())} (1, 5, 15 min) before the run")
    terms, ours, base = make_curves()
    whole, fractional = make_portfolios()
    print(f"curve   : {terms.size} segments over {terms.sum():.1f} years, rates in [0, 0.06], seed {SEED}")
    print(
        f"books   : {N:,} policies, seed {POLICY_SEED}: d in 0..{MAX_DEFERMENT}, ts in 0..{MAX_SHIFT} "
        f"(whole years), benefits in [100, 10000]; terms 1..{MAX_TERM} (whole years) or uniform "
        f"in [1, {MAX_TERM}] to {TERM_DECIMALS} decimals; ä payable m={M}, unit values rounded to "
        f"{DECIMALS} decimals"
    )
    n_distinct_terms = np.unique(fractional.n).size
    if n_distinct_terms < MIN_DISTINCT_TERMS:
        raise AssertionError(f"only {n_distinct_terms} distinct fractional terms")
    rows_whole, rows_frac = distinct_rows(whole), distinct_rows(fractional)
    print(
        f"distinct: whole-year terms {np.unique(whole.n).size} terms, {rows_whole:,} (n, d, ts) rows; "
        f"fractional terms {n_distinct_terms:,} terms, {rows_frac:,} rows "
        f"(first {SUBSET_N:,} policies: {distinct_rows(head(fractional, SUBSET_N)):,} rows)"
    )
    print(
        f"timing  : median of interleaved repeats; fast calls {repeats} repeats of >= {min_time * 1e3:.0f} ms "
        f"after a calibration; calls over {SLOW_CALL:g} s (the baseline on {N:,} or {SUBSET_N:,} policies, "
        f"ours on fractional terms) {slow_repeats} repeats of one call, the first call counted\n"
    )

    # Correctness first: nothing is timed unless both sides agree.
    check_portfolio(f"whole-year terms, first {CHECK_N:,} policies", ours.pw, base.pw, head(whole, CHECK_N))
    check_portfolio(f"fractional terms, first {CHECK_N:,} policies", ours.pw, base.pw, head(fractional, CHECK_N))
    (f_o, a_o), (f_b, a_b) = ours_scalar(ours.pw), base_scalar(base.pw)
    check_agreement("scalar ä(n=30, m=12)", f_o(*a_o), f_b(*a_b))
    check_modes(ours.pw, whole)
    print(
        f"checked : ours = baseline (rtol 1e-10) on the first {CHECK_N:,} policies of both books and on "
        f"the scalar annuity; in all four modes batch = benefit x scalar on {MODE_CHECK_N} policies\n"
    )

    rows = []
    # 1. whole-year terms, 10**6 policies on both sides
    t_o, t_b = time_sides([(*ours_call(ours.pw, whole), repeats), (*base_call(base.pw, whole), slow_repeats)], min_time)
    rows.append(
        (
            f"1. ä portfolio, whole-year terms ({N:,})",
            f"{rows_whole:,}",
            fmt_time(t_o),
            fmt_time(t_b),
            f"{t_b / t_o:.1f}x",
            target_status("whole", t_o, t_b / t_o),
        )
    )
    t_whole = t_o
    params = np.stack([whole.n, whole.d, whole.ts], axis=1)
    t_unique = run(functools.partial(np.unique, params, axis=0, return_inverse=True), (), 1)
    del params
    # 2. fractional terms: ours on 10**6 policies, the baseline on the first 10**5, extrapolated
    subset = head(fractional, SUBSET_N)
    t_o, t_sub = time_sides(
        [(*ours_call(ours.pw, fractional), slow_repeats), (*base_call(base.pw, subset), slow_repeats)], min_time
    )
    t_b = t_sub * (N / SUBSET_N)
    rows.append(
        (
            f"2. ä portfolio, fractional terms ({N:,})",
            f"{rows_frac:,}",
            fmt_time(t_o),
            f"{fmt_time(t_b)} (extrapolated)",
            f"{t_b / t_o:.1f}x",
            target_status("fractional", t_o, None),
        )
    )
    rows.append((f"   baseline measured on the first {SUBSET_N:,}", "", "", fmt_time(t_sub), "", ""))
    # 3. one policy through the public method
    t_o, t_b = time_sides([(*ours_scalar(ours.pw), repeats), (*base_scalar(base.pw), repeats)], min_time)
    rows.append(
        (
            "3. scalar ä(n=30, m=12)",
            "1",
            fmt_time(t_o),
            fmt_time(t_b),
            f"{t_b / t_o:.1f}x",
            target_status("scalar", t_o, t_b / t_o),
        )
    )
    print_table(("case", "distinct rows", "ours", "baseline", "speed-up", "target"), rows)

    print(
        f"\n4. case 1 ({N:,} policies, whole-year terms) by calculation mode, ours only "
        f"(set with Config().override(calculation_mode=...))"
    )
    func, args = ours_call(ours.pw, whole)
    sides = [(in_mode(mode, func), args, repeats) for mode in MODES]
    times = time_sides(sides, min_time)
    rows = []
    for mode, (f_mode, a_mode, _), t_mode in zip(MODES, sides, times, strict=True):
        total = float(np.sum(f_mode(*a_mode)))
        rows.append((mode, f"{total:,.2f}", fmt_time(t_mode), f"{t_mode / times[0]:.2f}"))
    print_table(("mode", "portfolio value", "ours", "time / discrete_precision"), rows)
    print(
        f"\nnotes   : case 1 in the default mode, timed above in its own set: {fmt_time(t_whole)}; of the "
        f"baseline's time on case 1, np.unique over the {N:,} stacked rows takes {fmt_time(t_unique)} "
        f"(one call)"
    )


if __name__ == "__main__":
    main()
