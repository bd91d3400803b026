// Private layout and shared glue of the interest_rates extension.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "core/curve.hpp"

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace norvane::bindings {

namespace nb = nanobind;

// Python objects the module takes from its siblings and the standard library,
// looked up once at import. Leaked on purpose: they must outlive every curve,
// and releasing them after interpreter shutdown would crash.
struct PyRefs {
    // siblings
    nb::object numeric_types, max_float64, empty_f64;
    nb::object as_f64_safe, validate_numeric_input, validate_float_sequence;
    nb::object config_cls, calendar_constant_allowed, allowed_days, allowed_weeks;
    nb::object calculation_modes, validate_scalar_numeric;
    // this module
    nb::object valid_term_units;
    // standard library and numpy
    nb::object lock_type, ordered_dict, deepcopy, np_generic, np_ndarray, np_array_equal, np_empty;
    nb::object int_type, integer_types;  // int, and (int, np.integer)
};
PyRefs& refs();
void init_refs(nb::module_& m);

// ---- small conversions -----------------------------------------------------

// The new reference a C-API call returned, or the Python error it set raised
// as a C++ exception: every C-API call that can fail goes through this.
nb::object checked(PyObject* result);

std::string py_str(nb::handle h);
std::string py_repr(nb::handle h);
std::string type_name_of(nb::handle h);  // type(h).__name__
// str() of a float, the way Python (and NumPy) print a float64.
std::string float_str(double x);
bool is_numeric(nb::handle h);  // isinstance(h, _NUMERIC_TYPES) and not a bool
bool truthy(nb::handle h);

// A read-only 1-D float64 NumPy array owning a fresh buffer of n elements.
struct NewArray {
    nb::object array;
    double* data;
};
NewArray new_f64_array(std::size_t n);
// A private read-only copy of a 1-D float64 array.
nb::object readonly_copy(std::span<const double> values);

// View of a C-contiguous 1-D float64 array (as the sibling converter returns).
// Raises TypeError for anything else. Valid while `h` is alive.
std::span<const double> f64_span(nb::handle h);
std::size_t ndim_of(nb::handle array);

// ---- the curve -----------------------------------------------------------

enum Slot : std::size_t {
    IsConstant, Rate, Terms, Rates, CumTerms, Scenarios, ActiveScenario, Config, MetaData,
    RateCache, ForceCache, ConstantDelta, FullSegProd, PrefixProd, OnePlusRates,
    CacheLock, ShiftCacheEpoch, TsShiftCache, SlotCount
};
extern const std::array<const char*, SlotCount> kSlotNames;

struct InterestRate {
    std::array<nb::object, SlotCount> slot;
    // Native mirror of the piecewise arrays for the kernels, rebuilt whenever
    // one of the arrays it was built from (held in table_key) is replaced.
    std::shared_ptr<const core::PiecewiseTable> table;
    std::array<nb::object, 3> table_key;
    // The constant rate as a double, log(1 + rate) and whether it passes the
    // rate checks, valid while the `rate` slot holds constant_key (floats are
    // immutable, so the checks need not run again for the same object).
    nb::object constant_key;
    double constant_rate = 0.0, constant_log = 0.0;
    bool constant_valid = false;
    // Hash of a piecewise curve, valid while _terms and _rates are hash_key.
    Py_hash_t cached_hash = -1;
    std::array<nb::object, 2> hash_key;

    nb::object& operator[](Slot s) { return slot[s]; }
    const nb::object& operator[](Slot s) const { return slot[s]; }
};

struct Meta {
    static constexpr std::size_t kFields = 8;
    std::array<nb::object, kFields> field;
};
extern const std::array<const char*, Meta::kFields> kMetaFieldNames;
enum MetaField : std::size_t {
    TermUnitField, DaysPerYear, WeeksPerYear, CalculationMode, Description,
    CacheMaxsize, ToleranceEps, PerpetuityNEff
};
// Builds and validates a metadata record (keyword names as the constructor).
Meta make_meta(nb::handle term_unit, nb::handle days_per_year, nb::handle weeks_per_year,
               nb::handle calculation_mode, nb::handle description, nb::handle cache_maxsize,
               nb::handle tolerance_eps, nb::handle perpetuity_n_eff);
Meta& meta_of(const InterestRate& ir);

// Cache maintenance shared by the setters, the scenario switch and the kernels.
void clear_lru_caches(InterestRate& ir);
void bump_ts_shift_cache(InterestRate& ir);
void invalidate_caches(InterestRate& ir);
void recompute_prefix_products(InterestRate& ir);
// LRU primitives over a curve's OrderedDict caches, under its lock.
nb::object lru_touch_get(InterestRate& ir, nb::handle cache, double key);
void lru_store(InterestRate& ir, nb::handle cache, double key, double value, nb::handle maxsize);

using CurveClass = nb::class_<InterestRate>;
void register_metadata(nb::module_& m);
CurveClass register_curve_model(nb::module_& m);
void register_caches(CurveClass& cls);
void register_discounting(nb::module_& m, CurveClass& cls);
void register_analytics(CurveClass& cls);
void register_reporting(CurveClass& cls);
void register_annuities(nb::module_& m, CurveClass& cls);

// Curve helpers shared across binding files.
bool has_scenarios(const InterestRate& ir);
InterestRate& active_curve(InterestRate& ir);  // the active scenario, or ir itself
nb::object deep_copy(nb::handle self, nb::handle memo);
void validate_rate_value(nb::handle rate, const std::string& context);
void validate_rate_for_discount(double rate, const std::string& context);
void validate_rate_for_force(nb::handle rate, const std::string& context);

// The public computations, for reuse by the reports (scenario forwarding included).
nb::object vn_impl(InterestRate& ir, nb::handle n, const std::string& param_name, bool validate);
nb::object vx(InterestRate& ir, nb::handle x, nb::handle x0);
nb::object get_rate(InterestRate& self, nb::handle t);
nb::dict validation_report(InterestRate& ir);
// The curve seen from ts through `cache` (keyed by curve, ts and generation).
nb::object shifted_for_ts(nb::handle ir_obj, double ts, nb::handle cache);
// The native table of a piecewise curve, prefix products rebuilt if dropped.
std::shared_ptr<const core::PiecewiseTable> valuation_table(InterestRate& ir);
nb::dict policy_flags(InterestRate& ir);

// Expose each named slot of T as a read/write attribute, plus a __slots__
// tuple naming them, so the instance has a fixed attribute set and no __dict__.
template <typename T, std::size_t N, typename Access>
void bind_slots(nb::class_<T>& cls, const std::array<const char*, N>& names, const std::array<const char*, N>& docs,
                Access access) {
    nb::list listed;
    for (std::size_t i = 0; i < N; ++i) {
        cls.def_prop_rw(
            names[i], [i, access](T& self) { return access(self, i); },
            [i, access](T& self, nb::object value) { access(self, i) = std::move(value); },
            nb::for_setter(nb::arg("value").none()), docs[i]);
        listed.append(names[i]);
    }
    cls.attr("__slots__") = nb::tuple(listed);
}

}  // namespace norvane::bindings
