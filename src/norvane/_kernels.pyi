"""Type information for the compiled ``norvane._kernels`` extension."""

from typing import Any, Literal

import numpy as np
from numpy.typing import NDArray
from typing_extensions import disjoint_base

# Input arrays must be one-dimensional and C-contiguous: float64, or where a book column
# allows, float32, int64 or int32.

@disjoint_base
class Annuity:
    def __init__(
        self,
        *,
        d: float,
        n: float,
        payments_size: int,
        m: int,
        timing: int,
        growth_kind: str = "level",
        growth_rate: float = 0.0,
    ) -> None: ...
    @property
    def whole_years(self) -> int: ...
    def payments(self, first: int = 0) -> tuple[NDArray[np.float64], NDArray[np.float64]]: ...
    def intervals(self, first: int = 0) -> tuple[NDArray[np.float64], NDArray[np.float64], NDArray[np.float64]]: ...
    def woolhouse_parts(self, continuous: bool) -> dict[str, Any]: ...

@disjoint_base
class Curve:
    def __init__(self, rates: NDArray[np.float64], terms: NDArray[np.float64], ends: NDArray[np.float64]) -> None: ...
    def discount(self, times: NDArray[np.float64]) -> NDArray[np.float64]: ...
    def interval_values(self, starts: NDArray[np.float64], ends: NDArray[np.float64]) -> NDArray[np.float64]: ...
    def annuity_value(
        self,
        annuity: Annuity,
        mode: str,
        decimals: int | None = None,
    ) -> float: ...

def term_at_valuation(n: float, d: float, ts: float) -> tuple[float, float, float]: ...
def payment_count(n: float, m: int, tolerance: float) -> tuple[int, float]: ...
def round_value(value: float | np.floating[Any] | NDArray[np.float64], decimals: int) -> float: ...
def round_values(values: NDArray[np.float64], decimals: int) -> NDArray[np.float64]: ...

class InvalidPolicy(ValueError):
    """A book with a policy the kernel cannot value (the first is named)."""

    def __init__(self, *args: object) -> None: ...

def portfolio_values(
    rates: NDArray[np.float64],
    terms: NDArray[np.float64],
    ends: NDArray[np.float64],
    n: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    d: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    ts: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    benefits: NDArray[np.float64] | None,
    *,
    m: int,
    timing: int,
    growth_kind: str,
    growth_rate: float,
    mode: str,
    tolerance_eps: float,
    perpetuity_n_eff: float,
    decimals: int,
) -> NDArray[np.float64]: ...

# ---- life contingencies

@disjoint_base
class LifeTable:
    def __init__(
        self,
        first_age: int,
        ultimate: NDArray[np.float64],
        select_first: int,
        select_period: int,
        select: NDArray[np.float64],
    ) -> None: ...
    def fits(self, age: float, select_age: float, ts: float) -> bool: ...
    def survival(
        self,
        ages: NDArray[np.float64],
        select_ages: NDArray[np.float64],
        durations: NDArray[np.float64],
        rule: str,  # "udd", "constant_force" or "balducci"
    ) -> NDArray[np.float64]: ...

@disjoint_base
class LifeStatus:
    def __init__(
        self,
        kind: str,  # "single", "joint" or "last_survivor"
        lives: list[tuple[LifeTable, float, float, str]],
    ) -> None: ...
    def value(
        self,
        kind: Literal["annuity", "insurance", "endowment_insurance", "pure_endowment"],
        curve: Any,  # an InterestRate
        *,
        ts: float,
        d: float,
        n: float,
        m: int,
        timing: int,
        growth_kind: str,  # "level", "geometric" or "arithmetic"
        growth_rate: float,
        amounts: NDArray[np.float64] | None,
    ) -> float: ...
    def expectancy(self, complete: bool, ts: float) -> float: ...
    def plain_value(
        self,
        kind: Literal["annuity", "insurance", "endowment_insurance", "pure_endowment"],
        curve: Any,
        n: Any,
        d: Any,
        m: Any,
        ts: Any,
        gr: Any,
        amounts: Any,
        timing: int,
        /,
    ) -> float | None: ...

def life_portfolio(
    tables: list[LifeTable],
    rules: list[str],
    names: list[list[int]],
    rates: NDArray[np.float64],
    terms: NDArray[np.float64],
    ends: NDArray[np.float64],
    table: NDArray[np.float64] | NDArray[np.uint32],
    age: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    select_age: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    n: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    d: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    ts: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    m: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    benefits: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32] | None,
    *,
    timing: int,
    growth_kind: str,  # "level", "geometric" or "arithmetic"
    growth_rate: float,
    mode: str,
    tolerance_eps: float,
    decimals: int,
) -> NDArray[np.float64]: ...
def status_book(
    tables: list[LifeTable],
    rules: list[str],
    names: list[list[int]],
    rates: NDArray[np.float64],
    terms: NDArray[np.float64],
    ends: NDArray[np.float64],
    table: NDArray[np.float64] | NDArray[np.uint32],
    age: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    select_age: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    n: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    d: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    ts: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    m: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    benefits: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32] | None,
    *,
    second: tuple[NDArray[Any], NDArray[Any], NDArray[Any]] | None,
    status: str,
    benefit: str,
    timing: int,
    growth_kind: str,
    growth_rate: float,
    mode: str,
    tolerance_eps: float,
    decimals: int,
) -> NDArray[np.float64]: ...
def distinct_policies(
    names: list[list[int]], columns: list[NDArray[Any]]
) -> tuple[NDArray[np.uint32], NDArray[np.uint32]]: ...
def gather_parts(
    of: NDArray[np.uint32],
    units: list[NDArray[np.float64]],
    amounts: list[NDArray[Any] | None],
    shares: list[NDArray[Any] | None],
) -> NDArray[np.float64]: ...
def sum_parts(
    of: NDArray[np.uint32], count: int, amounts: list[NDArray[Any] | None], shares: list[NDArray[Any] | None]
) -> list[NDArray[np.float64]]: ...

MAX_FLOW_PAYMENTS: float

def book_flows(
    tables: list[LifeTable],
    rules: list[str],
    names: list[list[int]],
    rates: NDArray[np.float64],
    terms: NDArray[np.float64],
    ends: NDArray[np.float64],
    table: NDArray[np.float64] | NDArray[np.uint32],
    age: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    select_age: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    n: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    d: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    ts: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    m: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    benefits: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32] | None,
    group: NDArray[np.float64] | NDArray[np.float32] | NDArray[np.int64] | NDArray[np.int32],
    groups: int,
    bucket_ends: NDArray[np.float64],
    *,
    second: tuple[NDArray[Any], NDArray[Any], NDArray[Any]] | None,
    status: str,  # "single", "joint" or "last_survivor"
    benefit: str,  # "annuity", "insurance", "endowment_insurance" or "pure_endowment"
    timing: int,
    growth_kind: str,
    growth_rate: float,
    mode: str,
    tolerance_eps: float,
    perpetuity_n_eff: float,
) -> tuple[NDArray[np.float64], NDArray[np.float64], NDArray[np.float64], NDArray[np.float64], NDArray[np.float64]]: ...
