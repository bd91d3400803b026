"""Write the bundled sample portfolio, src/norvane/data/sample_portfolio.csv.gz.

    python benchmarks/make_sample_portfolio.py [--policies 100000] [--seed 20240915] [--output FILE]

The book is synthetic but shaped like a pension and annuity portfolio: terms of 1 to 40
years (some fractional, a few perpetuities), deferred annuities, policies valued some years
after inception, annual to monthly payments, a share of indexed (growing) benefits, and a
handful of malformed records (about 0.1 %) to exercise the error handling. The output is
byte-for-byte reproducible for a given seed (the gzip header carries no time stamp).
"""

from __future__ import annotations

import argparse
import csv
import gzip
import io
import pathlib

import numpy as np

DEFAULT_OUTPUT = pathlib.Path(__file__).resolve().parents[1] / "src/norvane/data/sample_portfolio.csv.gz"
COLUMNS = ["id", "term", "deferment", "shift", "frequency", "timing", "growth", "benefit"]

# Malformed records, each breaking one field the way real extracts do.
BROKEN = [
    ("term", "-5"),
    ("term", "abc"),
    ("term", "nan"),
    ("deferment", "-1"),
    ("shift", "-2"),
    ("shift", "x"),
    ("frequency", "5"),
    ("frequency", "monthly"),
    ("frequency", "12.5"),
    ("timing", "arrears"),
    ("growth", "-1.5"),
    ("growth", "2%"),
    ("benefit", "-100"),
    ("benefit", "n/a"),
]


def _number(x: float) -> str:
    """Shortest text for a value: whole numbers without a decimal point."""
    return str(int(x)) if float(x).is_integer() else repr(round(float(x), 4))


def make_rows(policies: int, seed: int) -> list[list[str]]:
    rng = np.random.default_rng(seed)
    # Terms: mostly whole years, 1 to 40, weighted towards 10-25; 8 % fractional, 2 % perpetuities.
    term = np.clip(np.rint(rng.gamma(4.0, 4.5, policies)), 1, 40)
    fractional = rng.random(policies) < 0.08
    term[fractional] -= rng.choice([0.25, 0.5, 0.75], fractional.sum())
    perpetual = rng.random(policies) < 0.02
    # Deferment: 65 % immediate starts, otherwise 1-25 years, a few half years.
    deferred = rng.random(policies) < 0.35
    deferment = np.where(deferred, rng.integers(1, 26, policies), 0).astype(float)
    deferment[deferred & (rng.random(policies) < 0.05)] += 0.5
    # Valuation time since inception: new business at 0, the rest part way through the policy.
    seasoned = rng.random(policies) < 0.6
    horizon = deferment + np.where(perpetual, 30.0, term)
    shift = np.where(seasoned, np.floor(rng.random(policies) * horizon * 0.8), 0.0)
    shift[seasoned & (rng.random(policies) < 0.1)] += 0.5
    frequency = rng.choice([1, 2, 4, 12], policies, p=[0.3, 0.1, 0.2, 0.4])
    timing = np.where(rng.random(policies) < 0.7, "due", "immediate")
    growing = rng.random(policies) < 0.2
    growth = rng.choice([0.01, 0.015, 0.02, 0.025, 0.03], policies)
    benefit = np.round(np.exp(rng.normal(np.log(6000.0), 0.7, policies)), 2)

    rows = []
    for i in range(policies):
        rows.append(
            [
                f"P{i + 1:06d}",
                "" if perpetual[i] else _number(term[i]),
                _number(deferment[i]),
                _number(shift[i]),
                str(frequency[i]),
                str(timing[i]),
                _number(growth[i]) if growing[i] else "",
                f"{benefit[i]:.2f}",
            ]
        )
    # About 0.1 % malformed records, at random places.
    n_broken = max(1, policies // 1000)
    for k, i in enumerate(rng.choice(policies, n_broken, replace=False)):
        column, text = BROKEN[k % len(BROKEN)]
        rows[i][COLUMNS.index(column)] = text
    return rows


def write(rows: list[list[str]], path: pathlib.Path) -> None:
    text = io.StringIO(newline="")
    writer = csv.writer(text, lineterminator="\n")
    writer.writerow(COLUMNS)
    writer.writerows(rows)
    path.parent.mkdir(parents=True, exist_ok=True)
    with open(path, "wb") as raw, gzip.GzipFile(filename="", mode="wb", fileobj=raw, mtime=0) as out:
        out.write(text.getvalue().encode("utf-8"))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--policies", type=int, default=100_000)
    parser.add_argument("--seed", type=int, default=20240915)
    parser.add_argument("--output", type=pathlib.Path, default=DEFAULT_OUTPUT)
    args = parser.parse_args()
    rows = make_rows(args.policies, args.seed)
    write(rows, args.output)
    print(f"wrote {len(rows)} policies to {args.output} ({args.output.stat().st_size:,} bytes)")


if __name__ == "__main__":
    main()
