"""Sensitivities and market curves: what the risk targets ask, measured as they stand.

    python benchmarks/bench_risk.py [--quick]

- a certain book of 10^6 whole-year policies (m = 12, terms 1-40, deferments
  0-10, 40-segment curve): key-rate DV01s on 10 tenors from the book's cash
  flows (the engine's portfolio flows, then one pass of ``risk.sensitivities``)
  against its present value alone; the target is at most 3x;
- Smith-Wilson with alpha calibrated on 50 zero-coupon inputs; the target is
  at most 10 ms.

Life books have no cash flows yet, and scenario containers are valued one
scenario at a time: those targets are not measured here until they land.
"""

from __future__ import annotations

import argparse
import os

import numpy as np
from _timing import fmt_time, median_time, print_machine, print_table, time_sides
from bench_annuity import make_curves
from bench_portfolio import make_books

from norvane.curves import smith_wilson
from norvane.risk import sensitivities

M = 12
TENORS = [1, 2, 3, 5, 7, 10, 15, 20, 25, 30]


def book_value(curve, book):
    return curve.ä(n=book.n, d=book.d, m=M, benefits=book.benefits)


def book_key_rates(curve, book):
    flows = curve.ä(n=book.n, d=book.d, m=M, benefits=book.benefits, return_flows=True)
    return sensitivities(curve, flows["time_grid"], flows["expected_cf"], key_tenors=TENORS)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    opts = parser.parse_args()
    repeats, min_time = (3, 0.05) if opts.quick else (5, 0.2)

    print_machine()
    print(f"load    : {' '.join(f'{x:.2f}' for x in os.getloadavg())} (1, 5, 15 min) before the run")
    _, ours, _ = make_curves()
    whole, _ = make_books()
    risk = book_key_rates(ours.pw, whole)
    total = float(book_value(ours.pw, whole).sum())
    if not abs(risk.present_value - total) <= 1e-9 * total:
        raise AssertionError("the book's flows do not add up to its value")
    if not abs(risk.key_rate_dv01.sum() - risk.dv01) <= 1e-9 * risk.dv01:
        raise AssertionError("the key-rate DV01s do not add up to the DV01")
    t_value = time_sides([(book_value, (ours.pw, whole))], repeats, min_time)[0]
    t_risk = median_time(lambda: book_key_rates(ours.pw, whole), repeats)

    maturities = np.arange(1.0, 51.0)
    rates = 0.01 + 0.025 * (1 - np.exp(-maturities / 10))
    (t_sw,) = time_sides([(lambda: smith_wilson(maturities, rates, ufr=0.042), ())], repeats, min_time)

    ratio = t_risk / t_value
    rows = [
        ("book PV (10^6 policies)", fmt_time(t_value), "", ""),
        (
            "key-rate DV01s, 10 tenors",
            fmt_time(t_risk),
            f"{ratio:.0f}x the PV",
            "<= 3x: " + ("met" if ratio <= 3 else "NOT met"),
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
