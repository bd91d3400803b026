"""A pension book on generational tables, against the strongest NumPy formulation of it.

    python benchmarks/bench_pensions.py [--quick]

The book: 10^6 pensions in payment, valued in 2026, of members aged 20-100 on
two generational tables (the bundled Makeham tables improved from 2020 by a
two-dimensional scale, ages by years), paid monthly for life, indexed by 2 % a
year, the first 5 years guaranteed. Ours is ``life_annuities`` (each member on
its cohort's table). The NumPy formulation, written here, values each (table,
age) once: the cohort's survival on the monthly grid (uniform deaths within a
year of age), discount factors, the indexation steps and the guarantee as
arrays, one sum per group, then one gather per member.

Not in the book yet (the package cannot value them in books today): spouses'
reversions, deferred members' death benefits, expected cash flows.
"""

from __future__ import annotations

import argparse
import os

import numpy as np
from _timing import fmt_time, print_machine, print_table, time_sides
from bench_annuity import make_curves

from norvane.mortality import ImprovementScale, bundled_table, life_annuities

N = 10**6
M, YEAR, BASE_YEAR, GROWTH, GUARANTEE = 12, 2026, 2020, 0.02, 5
TARGET_SECONDS, TARGET_SPEED_UP = 1.0, 10.0


def make_scale():
    ages, years = np.arange(20, 121), np.arange(2015, 2041)
    rates = 0.02 * np.exp(-(ages[:, None] - 20) / 60) * (1 + 0.01 * (years[None, :] - 2015))
    return ImprovementScale(rates, first_age=20, first_year=2015, long_term_rate=0.01)


def make_book(tables, n=N):
    rng = np.random.default_rng(7)
    return {
        "table": np.where(rng.random(n) < 0.5, "M", "F"),
        "age": rng.integers(20, 101, n).astype(np.float64),
        "benefits": np.round(rng.uniform(1000.0, 40000.0, n), 2),
    }


def ours(curve, tables, book):
    return life_annuities(
        curve,
        tables,
        table=book["table"],
        age=book["age"],
        year=YEAR,
        m=M,
        gr=GROWTH,
        guarantee=GUARANTEE,
        benefits=book["benefits"],
    )


def numpy_pensions(curve, tables, book):
    """Each (table, age) once on its cohort's rates, then a gather."""
    unit = np.empty(book["age"].size)
    for name, table in tables.items():
        rows = np.flatnonzero(book["table"] == name)
        ages, which = np.unique(book["age"][rows], return_inverse=True)
        first = table.base.first_age
        q_ages = np.arange(first, table.base.last_age + 1)
        values = np.empty(ages.size)
        for k, x in enumerate(ages):
            q = table.cohort(int(YEAR - x)).qx  # q at age a in year YEAR - x + a
            lx = np.concatenate([[1.0], np.cumprod(1.0 - q)])
            steps = int((q_ages.size - (x - first)) * M)
            t = np.arange(steps) / M
            u = x - first + t
            j = np.floor(u).astype(np.int64)
            survival = lx[j] * (1.0 - (u - j) * q[np.minimum(j, q.size - 1)]) / lx[int(x - first)]
            weight = np.where(t < GUARANTEE, 1.0, survival) * (1.0 + GROWTH) ** np.floor(t)
            values[k] = np.sum(weight * curve.vn(t)) / M
        unit[rows] = np.round(values, 10)[which]
    return unit * book["benefits"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    opts = parser.parse_args()
    repeats, min_time = (3, 0.1) if opts.quick else (5, 0.5)

    print_machine()
    print(f"load    : {' '.join(f'{x:.2f}' for x in os.getloadavg())} (1, 5, 15 min) before the run")
    _, curves, _ = make_curves()
    scale = make_scale()
    tables = {
        "M": bundled_table("makeham_20_120").with_improvement(scale, BASE_YEAR),
        "F": bundled_table("makeham_13_110").with_improvement(scale, BASE_YEAR),
    }
    book = make_book(tables)
    ours_values, numpy_values = ours(curves.pw, tables, book), numpy_pensions(curves.pw, tables, book)
    worst = float(np.max(np.abs(ours_values - numpy_values) / book["benefits"]))
    if not worst <= 1e-8:
        raise AssertionError(f"ours and the NumPy formulation differ by {worst:.3g} a unit")
    t_ours, t_numpy = time_sides(
        [(ours, (curves.pw, tables, book)), (numpy_pensions, (curves.pw, tables, book))], repeats, min_time
    )
    speed_up = t_numpy / t_ours
    met = t_ours <= TARGET_SECONDS and speed_up >= TARGET_SPEED_UP
    print_table(
        ("case", "ours", "NumPy", "speed-up", "target"),
        [
            (
                f"pensions in payment, {N:,} members",
                fmt_time(t_ours),
                fmt_time(t_numpy),
                f"{speed_up:.1f}x",
                f"<= {TARGET_SECONDS:g} s, >= {TARGET_SPEED_UP:g}x: {'met' if met else 'NOT met'}",
            )
        ],
    )


if __name__ == "__main__":
    main()
