"""Write the bundled sample pension scheme, src/norvane/data/sample_pensions.csv.

    python benchmarks/make_sample_pensions.py [--members 500] [--seed 20261126] [--output FILE]

A synthetic scheme valued in 2026: members aged 25 to 95 on the tables "M" and "F",
paid monthly and indexed by 2 % a year; pensioners (65 and over) with a 5-year
guarantee, deferred members with a pension from 65 and a lump sum of three years'
pension on death before then; two in three married, their spouses on the other
table with a 60 % reversion. Reproducible for a given seed.
"""

from __future__ import annotations

import argparse
import csv
import pathlib

import numpy as np

DEFAULT_OUTPUT = pathlib.Path(__file__).resolve().parents[1] / "src/norvane/data/sample_pensions.csv"
COLUMNS = [
    *("id", "term", "deferment", "frequency", "growth", "benefit", "age", "table", "year", "guarantee"),
    *("spouse_age", "spouse_table", "reversion", "death_benefit"),
]


def members(count: int, seed: int) -> list[dict[str, str]]:
    rng = np.random.default_rng(seed)
    rows = []
    for i in range(count):
        age = int(rng.integers(25, 96))
        male = bool(rng.random() < 0.5)
        pension = round(float(rng.uniform(2000.0, 30000.0)), 2)
        deferred = age < 65
        married = bool(rng.random() < 2 / 3)
        spouse_age = max(20, age - int(rng.integers(-3, 8)))
        rows.append(
            {
                "id": f"M{i + 1:05d}",
                "term": "",
                "deferment": str(65 - age) if deferred else "0",
                "frequency": "12",
                "growth": "0.02",
                "benefit": f"{pension:.2f}",
                "age": str(age),
                "table": "M" if male else "F",
                "year": "2026",
                "guarantee": "0" if deferred else "5",
                "spouse_age": str(spouse_age) if married else "",
                "spouse_table": ("F" if male else "M") if married else "",
                "reversion": "0.6" if married else "",
                "death_benefit": f"{3 * pension:.2f}" if deferred else "",
            }
        )
    return rows


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--members", type=int, default=500)
    parser.add_argument("--seed", type=int, default=20261126)
    parser.add_argument("--output", type=pathlib.Path, default=DEFAULT_OUTPUT)
    opts = parser.parse_args()
    with opts.output.open("w", newline="") as out:
        writer = csv.DictWriter(out, COLUMNS, lineterminator="\n")
        writer.writeheader()
        writer.writerows(members(opts.members, opts.seed))


if __name__ == "__main__":
    main()
