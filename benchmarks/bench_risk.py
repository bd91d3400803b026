"""Sensitivities, scenario sets and market curves: what the risk targets ask, measured as they stand.

    python benchmarks/bench_risk.py [--quick]

The book: 10^6 policies on the 40-segment curve, half certain (whole-year
terms 1-40 and deferments 0-10, m = 12) and half life annuities (whole ages
20-100 on the two bundled tables, pensions from 65, m = 12).

- key-rate DV01s on 10 tenors, from the book's monthly expected flows (one
  flows pass, then one pass of ``risk.sensitivities``), against its present
  value alone; the target is at most 3x;
- its value under each scenario of a 10-scenario container at once
  (``cashflows.scenario_values``: one flows pass) against its value on one
  scenario; the target is at most 5x;
- Smith-Wilson with alpha calibrated on 50 zero-coupon inputs; the target is
  at most 10 ms.
"""

from __future__ import annotations

import argparse
import os
from types import SimpleNamespace

import numpy as np
from _timing import fmt_time, median_time, print_machine, print_table, time_sides
from bench_annuity import make_curves
from bench_portfolio import make_books

from norvane.cashflows import expected_flows, scenario_values
from norvane.curves import smith_wilson
from norvane.interest_rates import InterestRate
from norvane.mortality import bundled_table, life_annuities
from norvane.risk import sensitivities

N, M = 10**6, 12
TENORS = [1, 2, 3, 5, 7, 10, 15, 20, 25, 30]
TABLES = {"M": bundled_table("makeham_20_120"), "F": bundled_table("makeham_13_110")}


def make_book():
    whole, _ = make_books(N // 2)
    rng = np.random.default_rng(3)
    age = rng.integers(20, 101, N // 2).astype(np.float64)
    lives = SimpleNamespace(
        table=np.where(rng.random(N // 2) < 0.5, "M", "F"),
        age=age,
        d=np.maximum(65.0 - age, 0.0),
        benefits=np.round(rng.uniform(1000.0, 40000.0, N // 2), 2),
    )
    return whole, lives


def certain_terms(book):
    return dict(n=book.n, d=book.d, m=M, benefits=book.benefits)


def life_terms(book):
    return dict(table=book.table, age=book.age, d=book.d, m=M, benefits=book.benefits)


def book_value(curve, book):
    certain, lives = book
    return float(curve.ä(**certain_terms(certain)).sum() + life_annuities(curve, TABLES, **life_terms(lives)).sum())


def book_flows(curve, book):
    certain, lives = book
    flows = expected_flows(curve, **certain_terms(certain), buckets="monthly", horizon=101)
    return flows + expected_flows(curve, TABLES, **life_terms(lives), buckets="monthly", horizon=101)


def book_key_rates(curve, book):
    return sensitivities(curve, book_flows(curve, book), key_tenors=TENORS)


def book_scenarios(container, book):
    certain, lives = book
    values = scenario_values(container, **certain_terms(certain))
    return {
        k: v + w for (k, v), w in zip(values.items(), scenario_values(container, TABLES, **life_terms(lives)).values())
    }


def make_container(curve):
    rates, terms = np.asarray(curve.rates), np.asarray(curve.terms)
    return InterestRate({f"shift {k - 5:+d}0 bp": (terms, rates + (k - 5) * 0.001) for k in range(10)})


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    opts = parser.parse_args()
    repeats, min_time = (3, 0.05) if opts.quick else (5, 0.2)

    print_machine()
    print(f"load    : {' '.join(f'{x:.2f}' for x in os.getloadavg())} (1, 5, 15 min) before the run")
    _, ours, _ = make_curves()
    book = make_book()
    total = book_value(ours.pw, book)
    risk = book_key_rates(ours.pw, book)
    if not abs(risk.present_value / total - 1.0) <= 1e-10:
        raise AssertionError("the book's flows do not add up to its value")
    if not abs(risk.key_rate_dv01.sum() / risk.dv01 - 1.0) <= 1e-9:
        raise AssertionError("the key-rate DV01s do not add up to the DV01")
    container = make_container(ours.pw)
    at_once = book_scenarios(container, book)
    for name, value in at_once.items():
        alone = book_value(container.scenarios[name], book)
        if not abs(value / alone - 1.0) <= 1e-10:
            raise AssertionError(f"scenario {name!r}: {value!r} at once, {alone!r} alone")
    t_value = time_sides([(book_value, (ours.pw, book))], repeats, min_time)[0]
    t_risk = median_time(lambda: book_key_rates(ours.pw, book), repeats)
    t_scenarios = median_time(lambda: book_scenarios(container, book), repeats)

    maturities = np.arange(1.0, 51.0)
    rates = 0.01 + 0.025 * (1 - np.exp(-maturities / 10))
    (t_sw,) = time_sides([(lambda: smith_wilson(maturities, rates, ufr=0.042), ())], repeats, min_time)

    rows = [
        ("book PV (10^6 policies, half life)", fmt_time(t_value), "", ""),
        (
            "key-rate DV01s, 10 tenors",
            fmt_time(t_risk),
            f"{t_risk / t_value:.1f}x the PV",
            "<= 3x: " + ("met" if t_risk <= 3 * t_value else "NOT met"),
        ),
        (
            "10 scenarios at once",
            fmt_time(t_scenarios),
            f"{t_scenarios / t_value:.1f}x one",
            "<= 5x: " + ("met" if t_scenarios <= 5 * t_value else "NOT met"),
        ),
        (
            "Smith-Wilson, 50 inputs, alpha calibrated",
            fmt_time(t_sw),
            "",
            "<= 10 ms: " + ("met" if t_sw <= 0.01 else "NOT met"),
        ),
    ]
    print_table(("case", "ours", "ratio", "target"), rows)


if __name__ == "__main__":
    main()
