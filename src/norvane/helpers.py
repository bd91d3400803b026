"""Shared input validation, float64 conversion and batch bookkeeping.

Everything here is called on the public paths of ``norvane.interest_rates``:
the common inputs (a Python float or int, a C-contiguous float64 array) take
an early branch, and no function loops in Python over the elements of a
numeric array. Messages start with ``"[" + method_name + "] "`` when a method
name is given and name the offending parameter in single quotes.

This module is the one place the extension, the engine and the validators
import these names from; the code lives in ``norvane._helpers``, one private
module per concern:

- ``conversion``: real input to C-contiguous float64 arrays;
- ``scalars``: single values and one-dimensional sequences;
- ``routing``: batch detection and the batch-only arguments;
- ``policy_arrays``: per-policy terms, frequencies, benefits and ids;
- ``flows``: grouping by frequency and growth, rounding, merged cash flows;
- ``payments``: payment counting;
- ``results``: ``BatchErrorReport`` and ``BatchResult``.
"""

from __future__ import annotations

from ._helpers.conversion import _EMPTY_F64, _MAX_FLOAT64, _as_f64_safe, _finalize_scalar_or_array, _is_finite_f64_array
from ._helpers.flows import (
    _aggregate_flow_parts,
    _group_batch_m_gr_indices,
    _has_growth_rate_param,
)
from ._helpers.flows import _rounded_times_benefits as _rounded_times_benefits
from ._helpers.payments import _MAX_PAYMENTS as _MAX_PAYMENTS
from ._helpers.payments import _PAYMENT_COUNT_TOL as _PAYMENT_COUNT_TOL
from ._helpers.payments import _cashflow_amounts_payment_skip, _payment_count
from ._helpers.payments import _too_many_payments as _too_many_payments
from ._helpers.payments import _too_many_payments_text as _too_many_payments_text
from ._helpers.policy_arrays import _allowed_frequency as _allowed_frequency
from ._helpers.policy_arrays import (
    _arraylike_len_or_1,
    _check_batch_param,
    _coerce_record_ids,
    _map_batch_n_none_to_inf,
    _resolve_batch_m,
    _validate_benefits,
)
from ._helpers.policy_arrays import _batch_param_invalid as _batch_param_invalid
from ._helpers.policy_arrays import _batch_param_message as _batch_param_message
from ._helpers.policy_arrays import _check_frequency as _check_frequency
from ._helpers.policy_arrays import _frequencies_of_rows as _frequencies_of_rows
from ._helpers.policy_arrays import _integer_array as _integer_array
from ._helpers.policy_arrays import _policy_column as _policy_column
from ._helpers.results import BatchErrorReport, BatchResult
from ._helpers.routing import (
    _detect_batch_ir_annuity,
    _validate_on_error_batch_only,
    _validate_record_ids_batch_only,
    _validate_t_output,
)
from ._helpers.scalars import _named_f64 as _named_f64
from ._helpers.scalars import _prefixed as _prefixed
from ._helpers.scalars import _real_float as _real_float
from ._helpers.scalars import _too_large as _too_large
from ._helpers.scalars import _validate_float_sequence, _validate_numeric_input, _validate_scalar_numeric

# The "x as x" imports above are used by validators.py, the engine modules and
# mortality/portfolio.py but are not part of the list below, which the extension
# imports.
__all__ = [
    "_EMPTY_F64",
    "_MAX_FLOAT64",
    "BatchErrorReport",
    "BatchResult",
    "_aggregate_flow_parts",
    "_arraylike_len_or_1",
    "_as_f64_safe",
    "_batch_m_for_nan_recurse",
    "_cashflow_amounts_payment_skip",
    "_check_batch_param",
    "_coerce_record_ids",
    "_detect_batch_ir_annuity",
    "_finalize_batch_unit_pv_with_benefits",
    "_finalize_scalar_or_array",
    "_group_batch_m_gr_indices",
    "_has_growth_rate_param",
    "_is_finite_f64_array",
    "_map_batch_n_none_to_inf",
    "_payment_count",
    "_resolve_batch_m",
    "_validate_benefits",
    "_validate_float_sequence",
    "_validate_numeric_input",
    "_validate_on_error_batch_only",
    "_validate_record_ids_batch_only",
    "_validate_scalar_numeric",
    "_validate_t_output",
]

# Names the extension's frame fixes, kept for it; the code calls them by what they do.
_finalize_batch_unit_pv_with_benefits = _rounded_times_benefits
_batch_m_for_nan_recurse = _frequencies_of_rows

# The result types are shown, pickled and documented as members of this module.
BatchErrorReport.__module__ = BatchResult.__module__ = __name__
