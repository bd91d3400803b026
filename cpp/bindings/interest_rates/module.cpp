// Module frame: sibling imports, constants and the registration of each part.
#include "interest_rates.hpp"

namespace nb = nanobind;
using namespace norvane::bindings;

namespace {

const char* kModuleDoc = R"doc(Interest rate utilities for Norvane.

This module provides ``InterestRate`` and ``_InterestRateMeta`` with robust,
high-performance implementations for constant and piecewise interest-rate
curves. It supports optional multiple named scenarios with an active-scenario
switch, computes discount factors (``vn``, ``vx``) vectorised for piecewise
curves, exposes small per-instance settings (``cache_maxsize``,
``tolerance_eps``, ``perpetuity_n_eff``) through ``_InterestRateMeta``, caches
scalar rate lookups, normalises ``rates`` and ``terms`` once at assignment, and
keeps float64 precision end to end, rounding only at public outputs where
appropriate.

See Also
--------
InterestRate : constant, piecewise or multi-scenario interest-rate curve.
TermUnit : the units in which piecewise terms may be given.
)doc";

struct SiblingNames {
    const char* module;
    std::initializer_list<const char*> names;
};

// Import order and names are part of the module's contract; a missing sibling
// makes the import fail with the underlying error.
void import_siblings(nb::module_& m) {
    const SiblingNames siblings[] = {
        {"norvane.base", {"_NUMERIC_TYPES", "PaymentFrequencyLiteral", "Scalar", "ScalarSequence"}},
        {"norvane.config",
         {"_ALLOWED_DAYS_PER_YEAR", "_ALLOWED_WEEKS_PER_YEAR", "Config", "_calendar_constant_allowed"}},
        {"norvane.engine.annuity", {"_ANNUITY_CALCULATION_MODE_DISPATCH"}},
        {"norvane.engine.base", {"CalculationModeLiteral", "Dispatcher"}},
        {"norvane.growth_rates", {"GrowthRate"}},
        {"norvane.helpers",
         {"_EMPTY_F64",
          "_MAX_FLOAT64",
          "BatchErrorReport",
          "_aggregate_flow_parts",
          "_arraylike_len_or_1",
          "_batch_m_for_nan_recurse",
          "_cashflow_amounts_payment_skip",
          "_check_batch_param",
          "_coerce_record_ids",
          "_detect_batch_ir_annuity",
          "_finalize_batch_unit_pv_with_benefits",
          "_group_batch_m_gr_indices",
          "_has_growth_rate_param",
          "_is_finite_f64_array",
          "_map_batch_n_none_to_inf",
          "_resolve_batch_m",
          "_validate_benefits",
          "_validate_float_sequence",
          "_validate_numeric_input",
          "_validate_record_ids_batch_only",
          "_validate_t_output",
          "BatchResult",
          "_as_f64_safe",
          "_finalize_scalar_or_array",
          "_validate_on_error_batch_only",
          "_validate_scalar_numeric"}},
        {"norvane.validators",
         {"_resolve_gr", "_validate_cashflow_inputs", "_validate_frequency_and_payment_timing",
          "_validate_shift_deferment_and_duration"}},
    };
    for (const auto& sibling : siblings) {
        nb::module_ mod = nb::module_::import_(sibling.module);
        for (const char* name : sibling.names) m.attr(name) = mod.attr(name);
    }
}

void bind_constants(nb::module_& m) {
    auto typing = nb::module_::import_("typing");
    nb::list public_names;
    for (const char* name : {"TermUnit", "VALID_TERM_UNITS", "InterestRate"}) public_names.append(name);
    m.attr("__all__") = public_names;
    nb::object term_unit = typing.attr("Literal")[nb::make_tuple("years", "months", "weeks", "days")];
    m.attr("TermUnit") = term_unit;
    m.attr("VALID_TERM_UNITS") = typing.attr("get_args")(term_unit);
    m.attr("_DEFAULT_RATE_CACHE_MAXSIZE") = 1000;
    m.attr("_SHIFT_EPSILON") = 1e-12;
    m.attr("_DEFAULT_PERPETUITY_N_EFF") = 1000;
    m.attr("_MONTHS_PER_YEAR") = 12;
}

void bind_shift_cache_alias(nb::module_& m) {
    auto builtins = nb::module_::import_("builtins");
    nb::object key =
        builtins.attr("tuple")[nb::make_tuple("InterestRate", builtins.attr("float"), builtins.attr("int"))];
    m.attr("IrTsShiftCache") = builtins.attr("dict")[nb::make_tuple(key, "InterestRate")];
}

}  // namespace

NB_MODULE(interest_rates, m) {
    m.doc() = kModuleDoc;
    // Curves held by module globals (test modules, caches) are still alive when
    // the interpreter tears the extension down; that is not a leak worth a report.
    nb::set_leak_warnings(false);
    import_siblings(m);
    bind_constants(m);
    init_registry(m);
    register_metadata(m);
    bind_shift_cache_alias(m);
    CurveClass cls = register_curve_model(m);
    register_caches(cls);
    register_discounting(m, cls);
    register_analytics(cls);
    register_reporting(cls);
    register_annuities(m, cls);
}
