"""Type information for the compiled ``norvane._kernels`` extension."""

from typing import Literal

import numpy as np
from numpy.typing import NDArray

# Input arrays must be one-dimensional, C-contiguous float64 arrays.

class Curve:
    def __init__(
        self, rates: NDArray[np.float64], terms: NDArray[np.float64], ends: NDArray[np.float64]
    ) -> None: ...
    def discount(self, times: NDArray[np.float64]) -> NDArray[np.float64]: ...
    def schedule_value(
        self,
        *,
        start: float,
        m: int,
        timing: int,
        first: int,
        count: int,
        growth_kind: Literal["level", "geometric", "arithmetic"] = "level",
        growth_rate: float = 0.0,
        partial_fraction: float = 0.0,
        partial_time: float = 0.0,
        partial_index: int = 0,
    ) -> float: ...
    def interval_values(self, starts: NDArray[np.float64], ends: NDArray[np.float64]) -> NDArray[np.float64]: ...
    def annuity_value(
        self,
        *,
        mode: Literal["discrete_precision", "discrete_simplified", "continuous_precision", "continuous_simplified"],
        d: float,
        n: float,
        payments_size: int,
        m: int,
        timing: int,
        growth_kind: Literal["level", "geometric", "arithmetic"] = "level",
        growth_rate: float = 0.0,
    ) -> float: ...
    def continuous_value(
        self,
        a: float,
        b: float,
        origin: float,
        growth_kind: Literal["level", "geometric", "arithmetic"] = "level",
        growth_rate: float = 0.0,
    ) -> float: ...

def portfolio_values(
    rates: NDArray[np.float64],
    terms: NDArray[np.float64],
    ends: NDArray[np.float64],
    n: NDArray[np.float64],
    d: NDArray[np.float64],
    ts: NDArray[np.float64],
    benefits: NDArray[np.float64] | None,
    *,
    m: int,
    timing: int,
    growth_kind: Literal["level", "geometric", "arithmetic"],
    growth_rate: float,
    mode: Literal["discrete_precision", "discrete_simplified", "continuous_precision", "continuous_simplified"],
    tolerance_eps: float,
    perpetuity_n_eff: float,
    decimals: int,
) -> NDArray[np.float64]: ...
def schedule_payments(
    *,
    start: float,
    m: int,
    timing: int,
    first: int,
    count: int,
    growth_kind: Literal["level", "geometric", "arithmetic"] = "level",
    growth_rate: float = 0.0,
    partial_fraction: float = 0.0,
    partial_time: float = 0.0,
    partial_index: int = 0,
) -> tuple[NDArray[np.float64], NDArray[np.float64]]: ...
