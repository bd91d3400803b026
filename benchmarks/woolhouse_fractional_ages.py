"""Whole-life Woolhouse values at fractional ages: the final fraction of a year summed payment by payment
(what the engine does) against ä_x - (m - 1)/(2m), each compared with the exact m-thly sum.

    python benchmarks/woolhouse_fractional_ages.py
"""

import itertools

import numpy as np

from norvane.config import Config
from norvane.interest_rates import InterestRate
from norvane.mortality import bundled_table, gompertz

TABLES = [bundled_table("makeham_20_120"), bundled_table("makeham_13_110"), gompertz(5e-5, 1.1).table(20, 110)]
CURVES = [InterestRate(0.03), InterestRate(0.06), InterestRate(terms=[5, 10], rates=[0.01, 0.03, 0.045])]
RULES = ("udd", "constant_force", "balducci")
FREQUENCIES = (2, 4, 12)


def errors() -> tuple[np.ndarray, np.ndarray]:
    """|engine - exact| and |ä_x - (m - 1)/(2m) - exact| per case."""
    config = Config()
    engine, textbook = [], []
    for table, rule, curve, m in itertools.product(TABLES, RULES, CURVES, FREQUENCIES):
        for age in np.arange(table.first_age + 0.25, 100, 3.5):
            life = table.life(float(age), fractional_age=rule)
            with config.override(calculation_mode="discrete_precision"):
                exact, annual = life.ä(curve, m=m), life.ä(curve, m=1)
            with config.override(calculation_mode="discrete_simplified"):
                woolhouse = life.ä(curve, m=m)
            engine.append(abs(woolhouse - exact))
            textbook.append(abs(annual - (m - 1) / (2 * m) - exact))
    return np.array(engine), np.array(textbook)


def main() -> None:
    engine, textbook = errors()
    differ = engine != textbook
    print(f"{engine.size} cases; the rules differ in {differ.sum()}, by at most {np.abs(engine - textbook).max():.1e}")
    print(f"  engine closer in {(engine < textbook).sum()}, textbook closer in {(engine > textbook).sum()}")
    print(f"  mean error where they differ: engine {engine[differ].mean():.7e}, textbook {textbook[differ].mean():.7e}")


if __name__ == "__main__":
    main()
