"""A pension scheme on generational tables, against the strongest NumPy formulation of it.

    python benchmarks/bench_pensions.py [--quick]

The book: 10^6 members, valued in 2026, aged 20-100 on two generational tables
(the bundled Makeham tables improved from 2020 by a two-dimensional scale,
ages by years), each with a spouse 0-5 years younger on the other table.
Pensions are paid monthly, indexed by 2 % a year, the first 5 years
guaranteed, 60 % to the spouse on the member's death: in payment from 65 on,
deferred to 65 for younger members, who leave a lump sum of five years'
pension on death before 65.

Ours is ``life_annuities`` (each life on its cohort's table) for the present
values and ``expected_flows`` for the expected annual cash flows over 100
years. The NumPy formulation, written here, numbers the distinct (table, age,
spouse's age) by a table over their range and values them all at once on a
(group, month) grid: both cohorts' survival (uniform deaths within a year of
age), discount factors, the indexation, the guarantee, the reversion and the
deaths before 65 as arrays, one matrix-vector product per value, then a
gather. Peak memory is the process's resident high-water mark.
"""

from __future__ import annotations

import argparse
import os
import resource

import numpy as np
from _timing import fmt_time, median_time, print_machine, print_table, time_sides
from bench_annuity import make_curves

from norvane.cashflows import expected_flows
from norvane.mortality import ImprovementScale, bundled_table, life_annuities

N = 10**6
M, YEAR, BASE_YEAR, GROWTH, GUARANTEE, REVERSION, RETIREMENT = 12, 2026, 2020, 0.02, 5, 0.6, 65
DEATH_BENEFIT_YEARS = 5.0
PV_SECONDS, SPEED_UP, FLOW_SECONDS, PEAK_BYTES = 1.0, 10.0, 2.0, 1 << 30


def make_scale():
    ages, years = np.arange(20, 121), np.arange(2015, 2041)
    rates = 0.02 * np.exp(-(ages[:, None] - 20) / 60) * (1 + 0.01 * (years[None, :] - 2015))
    return ImprovementScale(rates, first_age=20, first_year=2015, long_term_rate=0.01)


def make_book(n=N):
    rng = np.random.default_rng(7)
    age = rng.integers(20, 101, n).astype(np.float64)
    male = rng.random(n) < 0.5
    benefit = np.round(rng.uniform(1000.0, 40000.0, n), 2)
    deferment = np.maximum(RETIREMENT - age, 0.0)
    return {
        "table": np.where(male, "M", "F"),
        "age": age,
        "d": deferment,
        "spouse_table": np.where(male, "F", "M"),
        "spouse_age": np.maximum(age - rng.integers(0, 6, n), 20.0),
        "benefits": benefit,
        "death_benefit": np.where(deferment > 0, DEATH_BENEFIT_YEARS * benefit, 0.0),
    }


def columns(book):
    return dict(
        table=book["table"],
        age=book["age"],
        d=book["d"],
        year=YEAR,
        m=M,
        gr=GROWTH,
        guarantee=GUARANTEE,
        benefits=book["benefits"],
        spouse_table=book["spouse_table"],
        spouse_age=book["spouse_age"],
        reversion=REVERSION,
        death_benefit=book["death_benefit"],
    )


def ours(curve, tables, book):
    return life_annuities(curve, tables, **columns(book))


def ours_flows(curve, tables, book):
    return expected_flows(curve, tables, **columns(book), horizon=100)


def _cohort_rates(tables, names, ages, first, width):
    """Each row's cohort rates (its table's, born in YEAR - age) by age from ``first``: 0 before
    its table's first age, 1 after its last."""
    q = np.empty((len(ages), width))
    rows = {}
    for r, (name, x) in enumerate(zip(names.tolist(), ages.tolist())):
        if (name, x) not in rows:
            table = tables[name]
            rates = table.cohort(int(YEAR - x)).qx
            offset = table.base.first_age - first
            rows[name, x] = np.concatenate([np.zeros(offset), rates, np.ones(width - offset - rates.size)])
        q[r] = rows[name, x]
    return q


def _survival(q, first, ages, t):
    """Survival of each row's life from its age to age + t (uniform deaths within a year)."""
    lx = np.concatenate([np.ones((q.shape[0], 1)), np.cumprod(1.0 - q, axis=1)], axis=1)
    u = (ages - first)[:, None] + t[None, :]
    j = np.minimum(np.floor(u).astype(np.int64), q.shape[1] - 1)
    within = 1.0 - (u - j) * np.take_along_axis(q, j, axis=1)
    start = np.take_along_axis(lx, (ages - first).astype(np.int64)[:, None], axis=1)
    return np.take_along_axis(lx, j, axis=1) * within / start


def numpy_pensions(curve, tables, book):
    """Each (table, age, spouse's age) once, all at once on a (group, month) grid, then a gather."""
    # One integer a (table, age, spouse's age): ages are whole years below 1000. The integers
    # are few and bounded, so they are numbered by a table over their range (np.unique's sort
    # takes five times as long).
    ages, spouse_ages = book["age"].astype(np.int64), book["spouse_age"].astype(np.int64)
    code = (book["table"] == "M") * 1_000_000 + ages * 1000 + spouse_ages
    present = np.zeros(2_000_000, dtype=bool)
    present[code] = True
    codes, which = np.flatnonzero(present), (np.cumsum(present) - 1)[code]
    male = codes // 1_000_000 == 1
    x, y = (codes // 1000 % 1000).astype(np.float64), (codes % 1000).astype(np.float64)
    first = min(table.base.first_age for table in tables.values())
    width = max(table.base.first_age + table.base.qx.size for table in tables.values()) - first + 1
    qx = _cohort_rates(tables, np.where(male, "M", "F"), x, first, width)
    qy = _cohort_rates(tables, np.where(male, "F", "M"), y, first, width)
    # Survival and discount on the monthly grid and one month on (the deaths of each month).
    grid = np.arange(int(101 * M) + 1) / M
    t, discount = grid[:-1], curve.vn(grid)
    member_alive, spouse_alive = _survival(qx, first, x, grid), _survival(qy, first, y, t)
    sx = member_alive[:, :-1]
    d = np.maximum(RETIREMENT - x, 0.0)[:, None]
    paid = t >= d
    since = np.maximum(t - d, 0.0)
    member = np.where(since < GUARANTEE, paid, sx)
    weight = paid * (member + REVERSION * (spouse_alive - sx * spouse_alive)) * (1.0 + GROWTH) ** np.floor(since)
    unit = weight @ discount[:-1] / M
    dying = np.where(t < d, sx - member_alive[:, 1:], 0.0)
    death_unit = dying @ discount[1:]
    return book["benefits"] * unit[which] + book["death_benefit"] * death_unit[which]


def peak_bytes():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


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
    book = make_book()
    before = peak_bytes()
    values = ours(curves.pw, tables, book)
    flows = ours_flows(curve=curves.pw, tables=tables, book=book)
    ours_peak = peak_bytes()
    reference = numpy_pensions(curves.pw, tables, book)
    worst = float(np.max(np.abs(values - reference) / book["benefits"]))
    if not worst <= 1e-8:
        raise AssertionError(f"ours and the NumPy formulation differ by {worst:.3g} a unit of pension")
    if not abs(flows.present_value / values.sum() - 1.0) <= 1e-10:
        raise AssertionError("the discounted flows do not add up to the present value")
    t_ours, t_numpy = time_sides(
        [(ours, (curves.pw, tables, book)), (numpy_pensions, (curves.pw, tables, book))], repeats, min_time
    )
    t_flows = median_time(lambda: ours_flows(curves.pw, tables, book), repeats)
    speed_up = t_numpy / t_ours
    pv_met = t_ours <= PV_SECONDS and speed_up >= SPEED_UP
    print(f"values agree with the NumPy formulation to {worst:.1e} a unit; flows add up to the values")
    print_table(
        ("case", "ours", "NumPy", "speed-up", "target"),
        [
            (
                f"present values, {N:,} members",
                fmt_time(t_ours),
                fmt_time(t_numpy),
                f"{speed_up:.2f}x",
                f"<= {PV_SECONDS:g} s, >= {SPEED_UP:g}x: {'met' if pv_met else 'NOT met'}",
            ),
            (
                "expected annual flows, 100 years",
                fmt_time(t_flows),
                "",
                "",
                f"<= {FLOW_SECONDS:g} s: {'met' if t_flows <= FLOW_SECONDS else 'NOT met'}",
            ),
            (
                "peak memory of ours",
                f"{max(ours_peak, before) / 2**20:.0f} MiB",
                "",
                "",
                f"<= 1 GiB: {'met' if ours_peak <= PEAK_BYTES else 'NOT met'}",
            ),
        ],
    )


if __name__ == "__main__":
    main()
