"""Type information for the compiled ``norvane.interest_rates`` extension."""

import threading
from collections import OrderedDict
from collections.abc import Mapping
from typing import Any, ClassVar, Final, Literal, TypeAlias, overload

import numpy as np
from numpy.typing import NDArray
from typing_extensions import Self

from .base import (
    _NUMERIC_TYPES as _NUMERIC_TYPES,
)
from .base import (
    PaymentFrequencyLiteral as PaymentFrequencyLiteral,
)
from .base import (
    Scalar as Scalar,
)
from .base import (
    ScalarSequence as ScalarSequence,
)
from .config import (
    _ALLOWED_DAYS_PER_YEAR as _ALLOWED_DAYS_PER_YEAR,
)
from .config import (
    _ALLOWED_WEEKS_PER_YEAR as _ALLOWED_WEEKS_PER_YEAR,
)
from .config import (
    Config as Config,
)
from .config import (
    _calendar_constant_allowed as _calendar_constant_allowed,
)
from .engine.annuity import (
    _ANNUITY_CALCULATION_MODE_DISPATCH as _ANNUITY_CALCULATION_MODE_DISPATCH,
)
from .engine.base import (
    CalculationModeLiteral as CalculationModeLiteral,
)
from .engine.base import (
    Dispatcher as Dispatcher,
)
from .growth_rates import GrowthRate as GrowthRate
from .helpers import (
    _EMPTY_F64 as _EMPTY_F64,
)
from .helpers import (
    _MAX_FLOAT64 as _MAX_FLOAT64,
)
from .helpers import (
    BatchErrorReport as BatchErrorReport,
)
from .helpers import (
    BatchResult as BatchResult,
)
from .helpers import (
    _aggregate_flow_parts as _aggregate_flow_parts,
)
from .helpers import (
    _arraylike_len_or_1 as _arraylike_len_or_1,
)
from .helpers import (
    _as_f64_safe as _as_f64_safe,
)
from .helpers import (
    _batch_m_for_nan_recurse as _batch_m_for_nan_recurse,
)
from .helpers import (
    _cashflow_amounts_payment_skip as _cashflow_amounts_payment_skip,
)
from .helpers import (
    _check_batch_param as _check_batch_param,
)
from .helpers import (
    _coerce_record_ids as _coerce_record_ids,
)
from .helpers import (
    _detect_batch_ir_annuity as _detect_batch_ir_annuity,
)
from .helpers import (
    _finalize_batch_unit_pv_with_benefits as _finalize_batch_unit_pv_with_benefits,
)
from .helpers import (
    _finalize_scalar_or_array as _finalize_scalar_or_array,
)
from .helpers import (
    _group_batch_m_gr_indices as _group_batch_m_gr_indices,
)
from .helpers import (
    _has_growth_rate_param as _has_growth_rate_param,
)
from .helpers import (
    _is_finite_f64_array as _is_finite_f64_array,
)
from .helpers import (
    _map_batch_n_none_to_inf as _map_batch_n_none_to_inf,
)
from .helpers import (
    _resolve_batch_m as _resolve_batch_m,
)
from .helpers import (
    _validate_benefits as _validate_benefits,
)
from .helpers import (
    _validate_float_sequence as _validate_float_sequence,
)
from .helpers import (
    _validate_numeric_input as _validate_numeric_input,
)
from .helpers import (
    _validate_on_error_batch_only as _validate_on_error_batch_only,
)
from .helpers import (
    _validate_record_ids_batch_only as _validate_record_ids_batch_only,
)
from .helpers import (
    _validate_scalar_numeric as _validate_scalar_numeric,
)
from .helpers import (
    _validate_t_output as _validate_t_output,
)
from .validators import (
    _resolve_gr as _resolve_gr,
)
from .validators import (
    _validate_cashflow_inputs as _validate_cashflow_inputs,
)
from .validators import (
    _validate_frequency_and_payment_timing as _validate_frequency_and_payment_timing,
)
from .validators import (
    _validate_shift_deferment_and_duration as _validate_shift_deferment_and_duration,
)

__all__ = ["TermUnit", "VALID_TERM_UNITS", "InterestRate"]

TermUnit: TypeAlias = Literal["years", "months", "weeks", "days"]
VALID_TERM_UNITS: Final[tuple[TermUnit, ...]] = ("years", "months", "weeks", "days")

_DEFAULT_RATE_CACHE_MAXSIZE: Final = 1000
_SHIFT_EPSILON: Final = 1e-12
_native_curve: Any  # a capsule of the native curve functions, for norvane._kernels
_DEFAULT_PERPETUITY_N_EFF: Final = 1000
_MONTHS_PER_YEAR: Final = 12

# Shifted curves by (base curve, shift in years, cache generation).
IrTsShiftCache: TypeAlias = dict[tuple[InterestRate, float, int], InterestRate]

class _InterestRateMeta:
    __slots__ = (
        "term_unit",
        "days_per_year",
        "weeks_per_year",
        "calculation_mode",
        "description",
        "cache_maxsize",
        "tolerance_eps",
        "perpetuity_n_eff",
    )
    term_unit: TermUnit
    days_per_year: float | None
    weeks_per_year: float | None
    calculation_mode: CalculationModeLiteral | None
    description: str | None
    cache_maxsize: int
    tolerance_eps: float
    perpetuity_n_eff: int
    def __init__(
        self,
        *,
        term_unit: TermUnit = "years",
        days_per_year: Scalar | None = None,
        weeks_per_year: Scalar | None = None,
        calculation_mode: CalculationModeLiteral | None = None,
        description: str | None = None,
        cache_maxsize: Scalar | None = None,
        tolerance_eps: Scalar | None = None,
        perpetuity_n_eff: Scalar | None = None,
    ) -> None: ...
    def model_dump(self) -> dict[str, Any]: ...
    def model_copy(self, update: dict[str, Any] | None = None) -> _InterestRateMeta: ...
    def to_msgpack_dict(self) -> dict[str, Any]: ...
    @classmethod
    def from_msgpack_dict(cls, data: dict[str, Any]) -> Self: ...
    def __eq__(self, other: object) -> bool: ...
    __hash__: ClassVar[None]  # type: ignore[assignment]
    def __repr__(self) -> str: ...
    def __getstate__(self) -> dict[str, Any]: ...
    def __setstate__(self, state: dict[str, Any], /) -> None: ...

def _woolhouse_flows_to_grid(
    flows: Mapping[str, Any], n_policies: float
) -> tuple[NDArray[np.float64], NDArray[np.float64], NDArray[np.float64]]: ...
def _interest_rate_shifted_for_ts(ir: InterestRate, ts: float, cache: IrTsShiftCache) -> InterestRate: ...

class InterestRate:
    __slots__ = (
        "_is_constant",
        "rate",
        "_terms",
        "_rates",
        "_cum_terms",
        "scenarios",
        "_active_scenario",
        "_config",
        "_meta",
        "_rate_cache",
        "_force_cache",
        "_constant_delta",
        "_precomp_full_seg_prod",
        "_precomp_prefix_prod",
        "_precomp_1pr",
        "_cache_lock",
        "_shift_cache_epoch",
        "_ts_shift_cache",
    )

    # The eighteen slots.
    _is_constant: bool
    rate: float | None
    _terms: NDArray[np.float64] | None
    _rates: NDArray[np.float64] | None
    _cum_terms: NDArray[np.float64] | None
    scenarios: dict[str, InterestRate]
    _active_scenario: str | None
    _config: Config
    _meta: _InterestRateMeta
    _rate_cache: OrderedDict[float, float]
    _force_cache: OrderedDict[float, float]
    _constant_delta: float | None
    _precomp_full_seg_prod: NDArray[np.float64]
    _precomp_prefix_prod: NDArray[np.float64]
    _precomp_1pr: NDArray[np.float64] | None
    _cache_lock: threading.Lock | None
    _shift_cache_epoch: int
    _ts_shift_cache: IrTsShiftCache

    # Curve data and construction.
    @property
    def rates(self) -> NDArray[np.float64] | None: ...
    @rates.setter
    def rates(self, value: ScalarSequence | NDArray[Any] | None) -> None: ...
    @property
    def terms(self) -> NDArray[np.float64] | None: ...
    @terms.setter
    def terms(self, value: ScalarSequence | NDArray[Any] | None) -> None: ...
    def __init__(
        self,
        rate: Scalar | dict[str, Any] | None = None,
        terms: ScalarSequence | NDArray[Any] | None = None,
        rates: ScalarSequence | NDArray[Any] | None = None,
        term_unit: TermUnit = "years",
    ) -> None: ...
    def __deepcopy__(self, memo: dict[int, Any]) -> Self: ...
    def copy(self) -> Self: ...
    def __getstate__(self) -> tuple[Any, ...]: ...
    def __setstate__(self, state: tuple[Any, ...], /) -> None: ...

    # Scenarios and configuration-backed settings.
    @property
    def active_scenario(self) -> str | None: ...
    @active_scenario.setter
    def active_scenario(self, name: str) -> None: ...
    @property
    def scenario_names(self) -> list[str]: ...
    @property
    def days_per_year(self) -> float | None: ...
    @property
    def weeks_per_year(self) -> float | None: ...
    @property
    def calculation_mode(self) -> CalculationModeLiteral: ...
    @property
    def is_constant(self) -> bool: ...
    @staticmethod
    def _get_term_unit_factor(
        unit: str, config: Config, days_per_year: float | None = None, weeks_per_year: float | None = None
    ) -> float: ...
    def _to_years(self, values: Scalar | ScalarSequence | NDArray[Any], unit: str) -> NDArray[np.float64]: ...
    def add_scenario(self, name: str, scenario: InterestRate) -> None: ...

    # Derived arrays and caches.
    def _clear_lru_caches(self) -> None: ...
    def _lru_touch_get(self, cache: OrderedDict[float, float], key: float) -> float | None: ...
    def _lru_store(self, cache: OrderedDict[float, float], key: float, value: float, maxsize: int) -> None: ...
    def _bump_ts_shift_cache(self) -> None: ...
    def _invalidate_caches(self) -> None: ...
    def _recompute_prefix_products(self) -> None: ...

    # Discounting.
    def _dfn(
        self, n: Scalar | ScalarSequence | NDArray[Any], param_name: str = "n", validate: bool = False
    ) -> float | NDArray[np.float64]: ...
    def _vn(
        self, n: Scalar | ScalarSequence | NDArray[Any], param_name: str = "n", validate: bool = False
    ) -> float | NDArray[np.float64]: ...
    @overload
    def vn(self, n: Scalar) -> float: ...
    @overload
    def vn(self, n: ScalarSequence | NDArray[Any]) -> NDArray[np.float64]: ...
    def _validate_x_and_x0(
        self, x: Scalar | ScalarSequence | NDArray[Any], x0: Scalar | ScalarSequence | NDArray[Any]
    ) -> tuple[float | NDArray[np.float64], float | NDArray[np.float64]]: ...
    @overload
    def vx(self, x: Scalar, x0: Scalar = 0.0) -> float: ...
    @overload
    def vx(
        self, x: ScalarSequence | NDArray[Any], x0: Scalar | ScalarSequence | NDArray[Any] = 0.0
    ) -> NDArray[np.float64]: ...
    @overload
    def vx(
        self, x: Scalar | ScalarSequence | NDArray[Any], x0: ScalarSequence | NDArray[Any]
    ) -> NDArray[np.float64]: ...
    @overload
    def sn(self, n: Scalar) -> float: ...
    @overload
    def sn(self, n: ScalarSequence | NDArray[Any]) -> NDArray[np.float64]: ...
    @overload
    def get_rate(self, t: Scalar) -> float: ...
    @overload
    def get_rate(self, t: ScalarSequence | NDArray[Any]) -> NDArray[np.float64]: ...
    def shifted(self, ts: Scalar) -> Self: ...
    def _ir_shifted_for_ts(self, ts: float, cache: IrTsShiftCache) -> InterestRate: ...

    # Rate analytics.
    @overload
    def delta(self, t: Scalar | None = None) -> float: ...
    @overload
    def delta(self, t: ScalarSequence | NDArray[Any]) -> NDArray[np.float64]: ...
    def get_average_force(self, n: Scalar) -> float: ...
    def i_m(self, m: int | np.integer[Any], t: Scalar = 0.0) -> float: ...
    def d_m(self, m: int | np.integer[Any], t: Scalar = 0.0) -> float: ...
    def get_effective_rate(self, t_start: Scalar, t_end: Scalar) -> float: ...
    def get_segment_info(self, t: Scalar) -> dict[str, Any]: ...
    def _curve_policy(self) -> dict[str, bool]: ...
    def validate(self) -> dict[str, Any]: ...
    def _check_monotonicity(
        self,
    ) -> Literal["constant", "single_rate", "increasing", "decreasing", "non_monotonic"]: ...
    def curve_analysis(self) -> dict[str, Any]: ...

    # Input guards.
    @staticmethod
    def _validate_rates_array(
        rates: ScalarSequence | NDArray[Any], terms_len: int | None = None, context: str = ""
    ) -> None: ...
    @staticmethod
    def _validate_terms_array(terms: ScalarSequence | NDArray[Any], rates_len: int | None = None) -> None: ...
    @staticmethod
    def _validate_rate_value(rate: object, context: str = "") -> None: ...
    @staticmethod
    def _validate_rate_for_force(rate: Scalar, context: str = "") -> None: ...
    @staticmethod
    def _validate_rate_for_discount(rate: Scalar, context: str = "") -> None: ...

    # Reporting.
    @overload
    def export(self, format: Literal["dict", "regulatory"] = "dict") -> dict[str, Any]: ...
    @overload
    def export(self, format: Literal["json"]) -> str: ...
    @classmethod
    def from_export(cls, payload: dict[str, Any] | str) -> Self: ...
    def _get_current_timestamp(self) -> str: ...
    def __hash__(self) -> int: ...
    def __eq__(self, other: object) -> bool: ...
    def __str__(self) -> str: ...
    def __repr__(self) -> str: ...
    def summary(self) -> str: ...

    # Annuities. Every parameter after self is keyword-only. A single policy
    # gives a float, a portfolio (array n, d, ts, m or gr) an array; flows
    # and on_error="nan" change the result as the overloads show.
    def _survival_one(self, t: object) -> float: ...
    def _annuity_public_route(
        self,
        method_name: str,
        payment_timing: int,
        n: Any,
        d: Any,
        ts: Any,
        m: Any,
        gr: Any,
        cashflow_times: ScalarSequence | NDArray[Any] | None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None,
        benefits: ScalarSequence | NDArray[Any] | None,
        return_flows: bool,
        t_output: ScalarSequence | NDArray[Any] | None,
        on_error: Literal["raise", "nan"],
        record_ids: Any,
    ) -> float | NDArray[np.float64] | dict[str, Any] | BatchResult: ...
    @overload
    def a(
        self,
        *,
        ts: Scalar = 0.0,
        d: Scalar = 0.0,
        n: Scalar | None = None,
        m: int | np.integer[Any] = 1,
        gr: GrowthRate | Scalar | None = None,
        cashflow_times: ScalarSequence | NDArray[Any] | None = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: None = None,
        return_flows: Literal[False] = False,
        t_output: None = None,
        on_error: Literal["raise"] = "raise",
        record_ids: None = None,
    ) -> float: ...
    @overload
    def a(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: Any = None,
        m: Any = 1,
        gr: Any = None,
        cashflow_times: ScalarSequence | NDArray[Any] | None = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: Literal[True],
        t_output: ScalarSequence | NDArray[Any] | None = None,
        on_error: Literal["raise"] = "raise",
        record_ids: Any = None,
    ) -> dict[str, Any]: ...
    @overload
    def a(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: Any = None,
        m: Any = 1,
        gr: Any = None,
        cashflow_times: ScalarSequence | NDArray[Any] | None = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: Literal[False] = False,
        t_output: None = None,
        on_error: Literal["nan"],
        record_ids: Any = None,
    ) -> BatchResult: ...
    @overload
    def a(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: ScalarSequence | NDArray[Any],
        m: Any = 1,
        gr: Any = None,
        cashflow_times: ScalarSequence | NDArray[Any] | None = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: Literal[False] = False,
        t_output: None = None,
        on_error: Literal["raise"] = "raise",
        record_ids: Any = None,
    ) -> NDArray[np.float64]: ...
    @overload
    def a(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: Any = None,
        m: Any = 1,
        gr: Any = None,
        cashflow_times: ScalarSequence | NDArray[Any] | None = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: bool = False,
        t_output: ScalarSequence | NDArray[Any] | None = None,
        on_error: Literal["raise", "nan"] = "raise",
        record_ids: Any = None,
    ) -> float | NDArray[np.float64] | dict[str, Any] | BatchResult: ...
    @overload
    def ä(
        self,
        *,
        ts: Scalar = 0.0,
        d: Scalar = 0.0,
        n: Scalar | None = None,
        m: int | np.integer[Any] = 1,
        gr: GrowthRate | Scalar | None = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: None = None,
        return_flows: Literal[False] = False,
        t_output: None = None,
        on_error: Literal["raise"] = "raise",
        record_ids: None = None,
    ) -> float: ...
    @overload
    def ä(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: Any = None,
        m: Any = 1,
        gr: Any = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: Literal[True],
        t_output: ScalarSequence | NDArray[Any] | None = None,
        on_error: Literal["raise"] = "raise",
        record_ids: Any = None,
    ) -> dict[str, Any]: ...
    @overload
    def ä(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: Any = None,
        m: Any = 1,
        gr: Any = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: Literal[False] = False,
        t_output: None = None,
        on_error: Literal["nan"],
        record_ids: Any = None,
    ) -> BatchResult: ...
    @overload
    def ä(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: ScalarSequence | NDArray[Any],
        m: Any = 1,
        gr: Any = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: Literal[False] = False,
        t_output: None = None,
        on_error: Literal["raise"] = "raise",
        record_ids: Any = None,
    ) -> NDArray[np.float64]: ...
    @overload
    def ä(
        self,
        *,
        ts: Any = 0.0,
        d: Any = 0.0,
        n: Any = None,
        m: Any = 1,
        gr: Any = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        benefits: ScalarSequence | NDArray[Any] | None = None,
        return_flows: bool = False,
        t_output: ScalarSequence | NDArray[Any] | None = None,
        on_error: Literal["raise", "nan"] = "raise",
        record_ids: Any = None,
    ) -> float | NDArray[np.float64] | dict[str, Any] | BatchResult: ...
    def _annuity_dispatch(
        self,
        *,
        ts: Scalar = 0.0,
        d: Scalar = 0.0,
        n: Scalar | None = None,
        m: int | np.integer[Any] = 1,
        gr: GrowthRate | Scalar | None = None,
        cashflow_times: ScalarSequence | NDArray[Any] | None = None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None = None,
        payment_timing: int = 1,
        return_flows: bool = False,
        method_name: str = "",
        validate: bool = True,
        ir_shifted: InterestRate | None = None,
    ) -> float | dict[str, Any]: ...
    def _annuity_batch_dispatch(
        self,
        *,
        n: Any,
        d: Any,
        ts: Any,
        m: Any,
        gr: Any,
        cashflow_times: NDArray[np.float64] | None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None,
        benefits: ScalarSequence | NDArray[Any] | None,
        return_flows: bool,
        t_output: NDArray[np.float64] | None,
        on_error: Literal["raise", "nan"],
        record_ids: Any,
        payment_timing: int,
        method_name: str,
    ) -> NDArray[np.float64] | dict[str, Any] | BatchResult: ...
    def _annuity_batch_financial(
        self,
        *,
        n_arr: NDArray[np.float64],
        d_arr: NDArray[np.float64],
        ts_arr: NDArray[np.float64],
        m: int | np.integer[Any],
        gr: GrowthRate | Scalar | None,
        cashflow_times: NDArray[np.float64] | None,
        cashflow_amounts: ScalarSequence | NDArray[Any] | None,
        payment_timing: int,
        decimals: int,
        benefits_arr: NDArray[np.float64] | None,
        return_flows: bool,
        t_output: NDArray[np.float64] | None = None,
        method_name: str = "",
    ) -> NDArray[np.float64] | dict[str, Any]: ...
