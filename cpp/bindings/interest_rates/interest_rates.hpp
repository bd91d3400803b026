// Private layout of the interest_rates extension: the curve and metadata
// objects, and what the binding files share about them.
#pragma once

#include "common.hpp"

#include "core/annuity.hpp"
#include "core/curve.hpp"
#include "core/life.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace norvane::bindings {

// ---- the curve -----------------------------------------------------------

enum Slot : std::size_t {
    IsConstant,
    Rate,
    Terms,
    Rates,
    CumTerms,
    Scenarios,
    ActiveScenario,
    Config,
    MetaData,
    RateCache,
    ForceCache,
    ConstantDelta,
    FullSegProd,
    PrefixProd,
    OnePlusRates,
    CacheLock,
    ShiftCacheEpoch,
    TsShiftCache,
    SlotCount
};
extern const std::array<const char*, SlotCount> kSlotNames;

// What a plain single annuity call derives from a curve's settings (Config
// and the metadata's overrides), kept while the objects it was read from are
// the curve's and no Config setting has changed (they are held, so their
// addresses are never reused).
struct AnnuitySettings {
    std::array<nb::object, 5> key;  // Config, metadata, its mode, tolerance and horizon
    std::uint64_t config_changes = 0;
    nb::object mode_name;
    std::optional<core::Mode> mode;
    bool force_integer_ts = false;
    double tolerance_eps = 0.0, perpetuity_n_eff = 0.0;
    int decimals = 0;
    double scale = 1.0;  // 10^decimals
};

struct InterestRate {
    std::array<nb::object, SlotCount> slot;
    // Native mirror of the curve for the kernels (of the piecewise arrays, or
    // of a constant rate), rebuilt whenever an object it was built from (held
    // in table_key) is replaced.
    std::shared_ptr<const core::PiecewiseTable> table;
    std::array<nb::object, 3> table_key;
    // The grids of the lives valued on `table` (made on first use, dropped with it).
    std::shared_ptr<core::GridCache> grids;
    // The constant rate as a double, log(1 + rate) and whether it passes the
    // rate checks, valid while the `rate` slot holds constant_key (floats are
    // immutable, so the checks need not run again for the same object).
    nb::object constant_key;
    double constant_rate = 0.0, constant_log = 0.0;
    bool constant_valid = false;
    // Hash of a piecewise curve, valid while _terms and _rates are hash_key.
    Py_hash_t cached_hash = -1;
    std::array<nb::object, 2> hash_key;
    AnnuitySettings annuity_settings;

    nb::object& operator[](Slot s) { return slot[s]; }
    const nb::object& operator[](Slot s) const { return slot[s]; }
};

struct Meta {
    static constexpr std::size_t kFields = 8;
    std::array<nb::object, kFields> field;
};
extern const std::array<const char*, Meta::kFields> kMetaFieldNames;
enum MetaField : std::size_t {
    TermUnitField,
    DaysPerYear,
    WeeksPerYear,
    CalculationMode,
    Description,
    CacheMaxsize,
    ToleranceEps,
    PerpetuityNEff
};
// Builds and validates a metadata record (keyword names as the constructor).
Meta make_meta(nb::handle term_unit, nb::handle days_per_year, nb::handle weeks_per_year, nb::handle calculation_mode,
               nb::handle description, nb::handle cache_maxsize, nb::handle tolerance_eps, nb::handle perpetuity_n_eff);
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
// `h` as a curve; a TypeError naming `what` for anything else.
InterestRate& curve_arg(nb::handle h, const char* what);
// The scenarios dict; a TypeError when the attribute was given something else.
nb::dict scenarios_of(const InterestRate& ir);
bool has_scenarios(const InterestRate& ir);
// Whether the curve (the active scenario of a container) is constant.
bool is_constant(InterestRate& ir);
InterestRate& active_curve(InterestRate& ir);  // the active scenario, or ir itself
// A setting the curve's metadata may override: the override, else the package
// Config's attribute `name` (an interned name of the registry).
nb::object config_backed(const InterestRate& ir, MetaField field, nb::handle name);
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
// The native discount table of a curve (prefix products rebuilt if dropped).
std::shared_ptr<const core::PiecewiseTable> valuation_table(InterestRate& ir);
// The grid cache of the lives valued on the curve's current table.
std::shared_ptr<core::GridCache> grids_of(InterestRate& ir);
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
