"""The checks of the module's own arguments (curve, mode, progress, paths, policies, years):
a wrong one is a TypeError or ValueError that names it, before any work is done."""

from __future__ import annotations

import math
import os
from pathlib import Path
from typing import Any

import numpy as np

from ..engine.base import _CALCULATION_MODES
from ..helpers import _real_float
from ..mortality.lives import _checked_curve
from ._policies import Policies


def checked_curve(curve: Any) -> Any:
    """The valuation curve, which must be an InterestRate."""
    return _checked_curve(curve, "norvane.portfolio")


def checked_mode(mode: Any) -> str | None:
    """A calculation mode's name, or None for the configured one."""
    if mode is not None and not (isinstance(mode, str) and mode in _CALCULATION_MODES):
        raise ValueError(f"[norvane.portfolio] 'mode' must be one of {_CALCULATION_MODES} or None, got {mode!r}.")
    return mode


def checked_progress(progress: Any) -> bool | None:
    """Whether to draw a progress bar: True, False or None (when stderr is a terminal)."""
    if progress is not None and not isinstance(progress, (bool, np.bool_)):
        raise TypeError(f"[norvane.portfolio] 'progress' must be True, False or None, got {type(progress).__name__}.")
    return None if progress is None else bool(progress)


def checked_path(path: Any, name: str) -> Path:
    """A file path given as a str or any os.PathLike."""
    if not isinstance(path, (str, os.PathLike)):
        raise TypeError(f"[norvane.portfolio] '{name}' must be a path (str or os.PathLike), got {type(path).__name__}.")
    return Path(os.fspath(path))


def checked_policies(policies: Any) -> Policies:
    if not isinstance(policies, Policies):
        raise TypeError(f"[norvane.portfolio] expected the Policies of a batch, got {type(policies).__name__}.")
    return policies


def checked_blocks(blocks: Any) -> list[tuple[Policies, np.ndarray]]:
    """(policies, valid) pairs, as valued_blocks gives them."""
    try:
        pairs = list(blocks)
    except TypeError:
        raise TypeError(f"[norvane.portfolio] expected (policies, valid) pairs, got {type(blocks).__name__}.") from None
    for pair in pairs:
        if not (isinstance(pair, tuple) and len(pair) == 2 and isinstance(pair[0], Policies)):
            raise TypeError("[norvane.portfolio] expected (policies, valid) pairs.")
    return pairs


def checked_years(value: Any, name: str, most: int) -> int:
    """A whole number of years of a flows grid, from 1 to ``most``."""
    years = _real_float(value, name, "norvane.portfolio")
    if not (1.0 <= years <= most and math.isfinite(years)):
        raise ValueError(f"[norvane.portfolio] '{name}' must be from 1 to {most} years, got {value!r}.")
    return int(math.ceil(years))
