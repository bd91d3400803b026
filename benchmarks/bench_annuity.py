"""Annuity engine against the straightforward NumPy baseline.

    python benchmarks/bench_annuity.py [--quick]

Ours is the engine entry of a calculation mode, called with the keywords the
scalar annuity dispatcher passes (and, when the curve has it, the public
``ä``); the baseline builds the payment schedule explicitly, discounts it with
the baseline curve's ``vn``, sums and rounds to 10 decimals. Every
"discrete_precision" case is first checked to agree with the baseline
(rtol 1e-10), and both sides against closed forms on the constant curve; then
the cases are timed side by side: repeats alternate between ours and the
baseline, each repeat runs enough calls to last at least ``min_time``, and the
median per-call time is reported. Modes other than "discrete_precision" have
no baseline and are timed alone.
"""

from __future__ import annotations

import argparse
import functools
from types import SimpleNamespace

import numpy as np
from _timing import fmt_time, print_machine, print_table, time_sides
from baseline import PAYMENT_COUNT_TOL, BaselineCurve, baseline_annuity

from norvane.engine.annuity import _ANNUITY_CALCULATION_MODE_DISPATCH as DISPATCH
from norvane.growth_rates import GrowthRate
from norvane.interest_rates import InterestRate

SEED = 20240611  # the discounting benchmark's seed: the same 40-segment curve
CONSTANT_RATE = 0.03
GROWTH = 0.02
DECIMALS = 10
PERPETUITY_YEARS = 1000.0  # a perpetuity's effective term
LOOP_VALUATIONS = 10_000
LOOP_TERMS = np.arange(1, 41)  # terms of the loop, cycled
MODES = ("discrete_precision", "discrete_simplified", "continuous_precision", "continuous_simplified")
PUBLIC_DUE = "\u00e4"  # the public due annuity, when the curve has it
PERPETUITY_LABEL = "ä perpetuity m=12 {}"
TEN_YEAR_LABEL = "ä(n=10, m=12) {}"


def make_curves():
    rng = np.random.default_rng(SEED)
    terms = rng.uniform(0.5, 1.75, 40)  # 40 segments, about 45 years in all
    rates = rng.uniform(0.0, 0.06, 41)
    ours = SimpleNamespace(pw=InterestRate(terms=terms, rates=rates), const=InterestRate(CONSTANT_RATE))
    base = SimpleNamespace(pw=BaselineCurve(terms, rates), const=BaselineCurve(CONSTANT_RATE))
    return terms, ours, base


# -- the two sides ----------------------------------------------------------------


def engine_kwargs(curve, n, m, timing=0, d=0.0, growth=None):
    """Keywords of an engine entry, as the scalar dispatcher builds them."""
    whole = int(n * m)
    fraction = n * m - whole
    return {
        "d": d,
        "n": n,
        "payments_size": whole + (fraction > PAYMENT_COUNT_TOL),
        "payments_frac": fraction,
        "m": m,
        "gr": None if growth is None else GrowthRate(growth),
        "ir": curve,
        "decimals": DECIMALS,
        "payment_timing": timing,
        "survival_func": curve._survival_one,
        "cashflow_times": None,
        "cashflow_amounts": None,
        "return_flows": False,
    }


def ours_call(curve, n, m, timing=0, d=0.0, growth=None, mode="discrete_precision"):
    """(function, args) of one engine valuation."""
    return functools.partial(DISPATCH[mode], **engine_kwargs(curve, n, m, timing, d, growth)), ()


def base_call(curve, n, m, timing=0, d=0.0, growth=None):
    return functools.partial(baseline_annuity, curve, n, m, timing, d, growth, DECIMALS), ()


def ours_loop(curve, m):
    calls = [functools.partial(DISPATCH["discrete_precision"], **engine_kwargs(curve, float(n), m)) for n in LOOP_TERMS]
    order = [calls[i % len(calls)] for i in range(LOOP_VALUATIONS)]

    def valuations():
        return [call() for call in order]

    return valuations, ()


def base_loop(curve, m):
    order = [float(LOOP_TERMS[i % LOOP_TERMS.size]) for i in range(LOOP_VALUATIONS)]

    def valuations():
        return [baseline_annuity(curve, n, m, 0, 0.0, None, DECIMALS) for n in order]

    return valuations, ()


def public_call(curve, n, m):
    return functools.partial(getattr(curve, PUBLIC_DUE), n=n, m=m), ()


# label, payments per call, (ours, base) -> ((function, args), (function, args) or None)
def make_cases(ours, base, has_public):
    y = PERPETUITY_YEARS
    cases = [
        ("ä(n=30, m=12) piecewise", 360, lambda: (ours_call(ours.pw, 30.0, 12), base_call(base.pw, 30.0, 12))),
        ("ä(n=30, m=12) constant", 360, lambda: (ours_call(ours.const, 30.0, 12), base_call(base.const, 30.0, 12))),
        (
            "a(n=30, m=12) piecewise",
            360,
            lambda: (ours_call(ours.pw, 30.0, 12, timing=1), base_call(base.pw, 30.0, 12, timing=1)),
        ),
        (
            f"ä(n=30, m=12, g={GROWTH:g}) piecewise",
            360,
            lambda: (ours_call(ours.pw, 30.0, 12, growth=GROWTH), base_call(base.pw, 30.0, 12, growth=GROWTH)),
        ),
        (
            "ä(n=20.37, m=12, d=5) piecewise",
            245,
            lambda: (ours_call(ours.pw, 20.37, 12, d=5.0), base_call(base.pw, 20.37, 12, d=5.0)),
        ),
        (TEN_YEAR_LABEL.format("piecewise"), 120, lambda: (ours_call(ours.pw, 10.0, 12), base_call(base.pw, 10.0, 12))),
        (
            PERPETUITY_LABEL.format("piecewise"),
            int(y * 12),
            lambda: (ours_call(ours.pw, y, 12), base_call(base.pw, y, 12)),
        ),
        (
            TEN_YEAR_LABEL.format("constant"),
            120,
            lambda: (ours_call(ours.const, 10.0, 12), base_call(base.const, 10.0, 12)),
        ),
        (
            PERPETUITY_LABEL.format("constant"),
            int(y * 12),
            lambda: (ours_call(ours.const, y, 12), base_call(base.const, y, 12)),
        ),
        (
            f"{LOOP_VALUATIONS:,} valuations n=1..40, m=12 piecewise",
            int(LOOP_VALUATIONS * 20.5 * 12),
            lambda: (ours_loop(ours.pw, 12), base_loop(base.pw, 12)),
        ),
    ]
    if has_public:
        cases += [
            (
                "public ä(n=30, m=12) piecewise",
                360,
                lambda: (public_call(ours.pw, 30.0, 12), base_call(base.pw, 30.0, 12)),
            ),
            (
                "public ä(n=30, m=12) constant",
                360,
                lambda: (public_call(ours.const, 30.0, 12), base_call(base.const, 30.0, 12)),
            ),
        ]
    return [(label, payments, *make()) for label, payments, make in cases]


# -- checking -------------------------------------------------------------------


def check_agreement(label, ours, base, rtol=1e-10):
    v_o, v_b = np.asarray(ours, dtype=np.float64), np.asarray(base, dtype=np.float64)
    if v_o.shape != v_b.shape or not np.allclose(v_o, v_b, rtol=rtol, atol=0.0):
        worst = np.max(np.abs(v_o - v_b) / np.abs(v_b)) if v_o.shape == v_b.shape else "shapes differ"
        raise AssertionError(f"{label}: ours {v_o.ravel()[:3]} and the baseline {v_b.ravel()[:3]} differ ({worst})")


def check_closed_forms(ours, base):
    """Both sides against the m-thly annuity-certain on the constant curve:
    ä(m) = (1 - v^n) / d(m), a(m) = (1 - v^n) / i(m), with d(m) = m (1 - v^(1/m))."""
    i = CONSTANT_RATE
    v = 1.0 / (1.0 + i)
    for n, m, timing in ((5.0, 1, 0), (10.0, 1, 1), (30.0, 12, 0), (30.0, 12, 1), (PERPETUITY_YEARS, 12, 0)):
        nominal = m * (1.0 - v ** (1.0 / m)) if timing == 0 else m * ((1.0 + i) ** (1.0 / m) - 1.0)
        exact = (1.0 - v**n) / nominal
        label = f"{'ä' if timing == 0 else 'a'}(n={n:g}, m={m}) constant, closed form"
        (f_o, a_o), (f_b, a_b) = ours_call(ours.const, n, m, timing), base_call(base.const, n, m, timing)
        check_agreement(label + ", ours", f_o(*a_o), exact)
        check_agreement(label + ", baseline", f_b(*a_b), exact)


# -- timing ---------------------------------------------------------------------


# -- report ---------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    opts = parser.parse_args()
    repeats, min_time = (5, 0.05) if opts.quick else (7, 0.1)

    print_machine()
    terms, ours, base = make_curves()
    print(
        f"curve   : {terms.size} segments over {terms.sum():.1f} years, rates in [0, 0.06], seed {SEED}; "
        f"constant curve {CONSTANT_RATE}"
    )
    print(
        f"annuity : 1 a year payable m-thly, rounded to {DECIMALS} decimals; perpetuity over "
        f"{PERPETUITY_YEARS:g} years; ours = engine entry as the scalar dispatcher calls it"
    )
    has_public = hasattr(InterestRate, PUBLIC_DUE)
    print(f"public  : InterestRate.{PUBLIC_DUE} {'present, timed too' if has_public else 'not present, skipped'}")
    print(f"timing  : median of {repeats} interleaved repeats of >= {min_time * 1e3:.0f} ms each\n")

    check_closed_forms(ours, base)
    cases = make_cases(ours, base, has_public)
    for label, _, (f_o, a_o), (f_b, a_b) in cases:
        check_agreement(label, f_o(*a_o), f_b(*a_b))

    # The perpetuity and the 10-year annuity of a curve are timed in one
    # interleaved set, so that their ratio shares any drift of the machine.
    by_label = {label: (call_o, call_b) for label, _, call_o, call_b in cases}
    times = {}
    for curve_name in ("piecewise", "constant"):
        pair = (PERPETUITY_LABEL.format(curve_name), TEN_YEAR_LABEL.format(curve_name))
        t = time_sides([*by_label[pair[0]], *by_label[pair[1]]], repeats, min_time)
        times[pair[0]], times[pair[1]] = tuple(t[:2]), tuple(t[2:])

    rows = []
    for label, payments, call_o, call_b in cases:
        if label not in times:
            times[label] = tuple(time_sides([call_o, call_b], repeats, min_time))
        t_o, t_b = times[label]
        rows.append(
            (label, f"{payments:,}", fmt_time(t_o), fmt_time(t_b), f"{t_b / t_o:.1f}x", f"{t_b / payments * 1e9:.1f}")
        )
    print_table(("case", "payments", "ours", "baseline", "speed-up", "ns/payment baseline"), rows)

    print(
        "\ncost of the perpetuity (12,000 monthly payments) relative to the 10-year monthly annuity,"
        " both timed in one interleaved set"
    )
    rows = []
    for curve_name in ("piecewise", "constant"):
        perp, ten = times[PERPETUITY_LABEL.format(curve_name)], times[TEN_YEAR_LABEL.format(curve_name)]
        rows.append((curve_name, f"{perp[0] / ten[0]:.2f}", f"{perp[1] / ten[1]:.2f}"))
    print_table(("curve", "ours perpetuity/10-year", "baseline perpetuity/10-year"), rows)

    print("\nä(n=30, m=12) piecewise by calculation mode (the baseline sums the exact schedule only)")
    rows = []
    reference = times["ä(n=30, m=12) piecewise"]
    for mode in MODES:
        f_o, a_o = ours_call(ours.pw, 30.0, 12, mode=mode)
        value = f_o(*a_o)
        if mode == "discrete_precision":
            t_o, t_b = reference  # timed above
            base_cols = (fmt_time(t_b), f"{t_b / t_o:.1f}x")
        else:
            (t_o,) = time_sides([(f_o, a_o)], repeats, min_time)
            base_cols = ("-", "-")
        rows.append((mode, f"{value:.10f}", fmt_time(t_o), *base_cols))
    print_table(("mode", "value", "ours", "baseline", "speed-up"), rows)


if __name__ == "__main__":
    main()
