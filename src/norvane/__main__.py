"""Command line entry point: ``python -m norvane`` or ``norvane``.

Without arguments it loads the bundled sample curve and prints what the curve
model holds for it.
"""

from __future__ import annotations

import argparse
import json
from importlib import resources
from typing import Sequence

from .interest_rates import InterestRate


def load_sample_curve() -> tuple[InterestRate, str]:
    """The bundled sample curve and its description."""
    text = resources.files("norvane").joinpath("data/sample_curve.json").read_text()
    data = json.loads(text)
    curve = InterestRate(terms=data["terms"], rates=data["rates"], term_unit=data["term_unit"])
    return curve, data.get("description", "")


def describe(curve: InterestRate, description: str = "") -> str:
    """A short plain-text account of a curve."""
    lines = []
    if description:
        lines.append(description)
    if curve.scenario_names:
        lines.append(f"form: {len(curve.scenario_names)} scenarios, active {curve.active_scenario!r}")
    elif curve.is_constant:
        lines.append(f"form: constant, rate {curve.rate:.6g}")
    else:
        lines.append(f"form: piecewise, {len(curve.rates)} rates")
        ends = curve._cum_terms
        start = 0.0
        for end, rate in zip(ends, curve.rates):
            lines.append(f"  ({start:g}, {end:g}] years: {rate:.4%}")
            start = end
        lines.append(f"  beyond {start:g} years: {curve.rates[-1]:.4%}")
    times = [1, 5, 10, 20, 30]
    lines.append("discount factors:")
    for t, factor in zip(times, curve.vn(times)):
        lines.append(f"  v({t:g}) = {factor:.10f}")
    return "\n".join(lines)


def main(argv: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="norvane", description=__doc__)
    parser.parse_args(argv)
    curve, description = load_sample_curve()
    print(describe(curve, description))
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
