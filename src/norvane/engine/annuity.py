"""Annuity valuation entry points, one per calculation mode."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from .base import _CALCULATION_MODES

__all__ = ["_ANNUITY_CALCULATION_MODE_DISPATCH"]


def _unavailable_valuation(mode: str) -> Callable[..., Any]:
    """Build the entry point of ``mode`` while its kernel is not wired in."""

    def valuate(**kwargs: Any) -> Any:
        raise NotImplementedError("annuity valuation is not available yet")

    valuate.__name__ = valuate.__qualname__ = f"_annuity_{mode}"
    return valuate


_ANNUITY_CALCULATION_MODE_DISPATCH: dict[str, Callable[..., Any]] = {
    mode: _unavailable_valuation(mode) for mode in _CALCULATION_MODES
}
