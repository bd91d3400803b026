"""Norvane: actuarial interest-rate curves, discounting and annuities.

The package root stays light on purpose: importing ``norvane`` does not load
the compiled extension. Import ``norvane.interest_rates`` for the curve class.
"""

from ._version import __version__

__all__ = ["__version__"]
