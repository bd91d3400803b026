"""Books of annuities and single annuities against the strongest NumPy formulations.

    python benchmarks/bench_portfolio.py [--quick]

Ours is the public ``InterestRate.ä`` on arrays of policies (or on one policy).
Each case is timed side by side with what a NumPy user would write for the same
job, in the same run:

- whole-year books: discount factors on the payment grid once, their running
  sums ``S``, then ``(S[end] - S[start]) / m / v(ts)`` per policy
  (``baseline.prefix_sum_book``);
- a flat-rate book: numpy-financial's vectorised ``pv`` closed form (skipped
  when numpy-financial is not installed: ``pip install numpy-financial``);
- a book whose terms, deferments and valuation times are all distinct
  fractions: the closed form per curve segment, vectorised over the policies
  (``baseline.closed_form_book``);
- one pass over the inputs (read n, d, ts and benefits, write one array): the
  memory floor;
- single annuities: a plain-Python closed form on a flat rate, the explicit
  schedule on the piecewise curve.

Both sides must agree (to 1e-9 of the benefit) before anything is timed.
"""

from __future__ import annotations

import argparse
import functools
import os
from types import SimpleNamespace

import numpy as np
from _timing import fmt_time, print_machine, print_table, time_sides
from baseline import baseline_annuity, closed_form_book, prefix_sum_book
from bench_annuity import CONSTANT_RATE, SEED, make_curves

try:
    import numpy_financial
except ImportError:  # optional: the flat-rate comparison is skipped without it
    numpy_financial = None

N = 10**6
M = 12
DECIMALS = 10
TARGETS = {  # case -> (most seconds of ours, least speed-up over the baseline)
    "whole, m=1": (None, None),
    "whole, ts, m=12, benefits": (4e-3, 5.0),
    "flat rate, whole years": (None, 3.0),
    "int64 columns, flat, m=1": (None, 1.5),
    "int64 columns, 40 segments, m=1": (None, 1.5),
    "int32 columns, 40 segments, m=1": (None, 1.5),
    "float32 columns, 40 segments, m=1": (None, 1.5),
    "distinct fractions, m=12": (0.150, None),
    "ä(n=30, m=12), flat": (250e-9, None),
    "ä(n=30, m=12), 40 segments": (1e-6, None),
}


def make_books(n=N):
    rng = np.random.default_rng(SEED + 1)
    whole = SimpleNamespace(
        n=rng.integers(1, 41, n).astype(np.float64),
        d=rng.integers(0, 11, n).astype(np.float64),
        ts=rng.integers(0, 6, n).astype(np.float64),
        benefits=np.round(rng.uniform(100.0, 10_000.0, n), 2),
    )
    fractions = SimpleNamespace(
        n=rng.uniform(1.0, 40.0, n), d=rng.uniform(0.0, 10.0, n), ts=rng.uniform(0.0, 5.0, n), benefits=whole.benefits
    )
    return whole, fractions


def flat_pv(rate, n, d):
    """numpy-financial's ``pv`` of 1 a year in advance for n years, discounted over d."""
    return np.round(numpy_financial.pv(rate, n, -1.0, when="begin") / (1.0 + rate) ** d, DECIMALS)


def flat_closed_form(rate, n, m):
    v = 1.0 / (1.0 + rate)
    return round((1.0 - v**n) / (m * (1.0 - v ** (1.0 / m))), DECIMALS)


def simplest_book(curve, n, d):
    """The simplest NumPy program for whole-year annual books: running sums of 52 discount
    factors, then S[d + n] - S[d] (unrounded), on the caller's integer arrays."""
    running = np.concatenate(([0.0], np.cumsum(curve.vn(np.arange(52.0)))))
    return running[d + n] - running[d]


def memory_pass(book):
    return book.n + book.d + book.ts + book.benefits


def cases(ours, base, whole, fractions):
    """(label, policies, ours, baseline, baseline label) per case; each side a (function, args) pair."""
    # Single calls as a user writes them (a partial would add its own keyword merging).
    due, flat_due = ours.pw.ä, ours.const.ä
    zero = np.zeros_like(whole.ts)
    rows = [
        (
            "whole, m=1",
            N,
            (functools.partial(due, n=whole.n, d=whole.d, m=1), ()),
            (prefix_sum_book, (base.pw, whole.n, whole.d, zero, 1)),
            "NumPy prefix sums",
        ),
        (
            "whole, ts, m=12, benefits",
            N,
            (functools.partial(due, n=whole.n, d=whole.d, ts=whole.ts, m=M, benefits=whole.benefits), ()),
            (prefix_sum_book, (base.pw, whole.n, whole.d, whole.ts, M, whole.benefits)),
            "NumPy prefix sums",
        ),
        (
            "distinct fractions, m=12",
            N,
            (
                functools.partial(due, n=fractions.n, d=fractions.d, ts=fractions.ts, m=M, benefits=fractions.benefits),
                (),
            ),
            (closed_form_book, (base.pw, fractions.n, fractions.d, fractions.ts, M, fractions.benefits)),
            "NumPy closed form per segment",
        ),
        (
            "ä(n=30, m=12), flat",
            1,
            (lambda: flat_due(n=30, m=M), ()),
            (flat_closed_form, (CONSTANT_RATE, 30, M)),
            "plain-Python closed form",
        ),
        (
            "ä(n=30, m=12), 40 segments",
            1,
            (lambda: due(n=30, m=M), ()),
            (baseline_annuity, (base.pw, 30.0, M, 0, 0.0, None, DECIMALS)),
            "explicit schedule (NumPy)",
        ),
    ]
    # Columns as rng.integers (or a cast) makes them: read in place, no conversion copy.
    n64, d64 = whole.n.astype(np.int64), whole.d.astype(np.int64)
    for kind, curve, base_curve, dtype in (
        ("int64 columns, flat", ours.const, base.const, np.int64),
        ("int64 columns, 40 segments", ours.pw, base.pw, np.int64),
        ("int32 columns, 40 segments", ours.pw, base.pw, np.int32),
        ("float32 columns, 40 segments", ours.pw, base.pw, np.float32),
    ):
        n_col, d_col = n64.astype(dtype), d64.astype(dtype)
        rows.append(
            (
                f"{kind}, m=1",
                N,
                (functools.partial(curve.ä, n=n_col, d=d_col), ()),
                (simplest_book, (base_curve, n64, d64)),
                "NumPy S[d + n] - S[d]",
            )
        )
    if numpy_financial is not None:
        flat = (functools.partial(ours.const.ä, n=whole.n, d=whole.d, m=1), ())
        rows.insert(
            2, ("flat rate, whole years", N, flat, (flat_pv, (CONSTANT_RATE, whole.n, whole.d)), "numpy-financial pv")
        )
    return rows


def check(label, ours, base, scale):
    worst = float(np.max(np.abs(np.asarray(ours) - np.asarray(base)) / scale))
    if not worst <= 1e-9:
        raise AssertionError(f"{label}: ours and the baseline differ by {worst:.3g} of the benefit")


def target(label, seconds, speed_up):
    most, least = TARGETS[label]
    parts, met = [], True
    if most is not None:
        parts.append(f"<= {fmt_time(most)}")
        met &= seconds <= most
    if least is not None:
        parts.append(f">= {least:g}x")
        met &= speed_up >= least
    return f"{', '.join(parts)}: {'met' if met else 'NOT met'}" if parts else ""


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    opts = parser.parse_args()
    repeats, min_time = (3, 0.1) if opts.quick else (7, 0.3)

    print_machine()
    print(f"load    : {' '.join(f'{x:.2f}' for x in os.getloadavg())} (1, 5, 15 min) before the run")
    terms, ours, base = make_curves()
    whole, fractions = make_books()
    print(f"curve   : {terms.size} segments over {terms.sum():.1f} years, seed {SEED}; flat rate {CONSTANT_RATE}")
    print(
        f"books   : {N:,} policies; whole years: n 1..40, d 0..10, ts 0..5; distinct fractions: n in [1, 40], "
        f"d in [0, 10], ts in [0, 5]; benefits in [100, 10000]; unit values rounded to {DECIMALS} decimals"
    )
    print(f"timing  : median of {repeats} interleaved repeats of >= {min_time * 1e3:.0f} ms each\n")

    rows = []
    (t_floor,) = time_sides([(memory_pass, (whole,))], repeats, min_time)
    for label, size, side_o, side_b, base_label in cases(ours, base, whole, fractions):
        benefits = getattr(side_o[0], "keywords", {}).get("benefits")
        check(label, side_o[0](*side_o[1]), side_b[0](*side_b[1]), 1.0 if benefits is None else benefits)
        t_o, t_b = time_sides([side_o, side_b], repeats, min_time)
        floor = f"{t_o / t_floor:.1f}x" if size == N else ""
        rows.append(
            (label, fmt_time(t_o), fmt_time(t_b), base_label, f"{t_b / t_o:.1f}x", floor, target(label, t_o, t_b / t_o))
        )
    print_table(("case", "ours", "baseline", "baseline is", "speed-up", "ours / memory pass", "target"), rows)
    print(f"\nmemory pass (n + d + ts + benefits over {N:,} policies): {fmt_time(t_floor)}")


if __name__ == "__main__":
    main()
