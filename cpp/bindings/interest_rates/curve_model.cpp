// InterestRate as a data model: construction, validation, term units,
// scenarios, equality, hashing, copying and pickling.
#include "interest_rates.hpp"

#include "core/curve.hpp"
#include "core/rates.hpp"

#include <optional>

namespace norvane::bindings {

const std::array<const char*, SlotCount> kSlotNames = {"_is_constant",
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
                                                       "_ts_shift_cache"};

namespace {

const char* kRatesNotOneDimensional = "rates must be a one-dimensional sequence of numerics.";

const std::array<const char*, SlotCount> kSlotDocs = {
    "Whether this curve was built as a constant curve.",
    "The constant effective annual rate (a float), or None for other forms.",
    "Segment lengths in years (read-only float64 array), or None.",
    "Segment rates (read-only float64 array, one more than the terms), or None.",
    "Cumulative segment ends in years (float64 array), or None.",
    "Scenario name to curve, in insertion order (empty for a single curve).",
    "Name of the active scenario, or None.",
    "The package configuration (shared by every curve and its copies).",
    "Per-curve settings (an _InterestRateMeta).",
    "LRU cache of scalar rate lookups (time -> rate).",
    "LRU cache of scalar forces of interest (time -> force).",
    "Cached force of interest of a constant curve, or None.",
    "Discount factor of each complete segment.",
    "Discount factor from 0 to the end of each segment.",
    "1 + rates, or None when stale.",
    "Lock guarding the two LRU caches.",
    "Generation of the shifted-curve cache; advances on every change of the curve.",
    "Shifted curves by (curve, ts, generation)."};

const char* kCurveDoc = R"doc(Interest-rate curve: constant, piecewise, or a container of scenarios.

Parameters
----------
rate : float or dict, optional
    A constant effective annual rate, or a dict mapping scenario names to a
    rate or to a ``(terms, rates)`` pair. The first scenario becomes active.
terms : sequence of float, optional
    Segment lengths of a piecewise curve, in ``term_unit``.
rates : sequence of float, optional
    Segment rates; one more than ``terms``, the last applying indefinitely.
term_unit : {"years", "months", "weeks", "days"}
    Unit of ``terms``; they are stored in years.

Raises
------
ValueError
    For non-finite values, rates at or below -1, non-positive terms, a wrong
    number of rates, or arguments that fit none of the three forms.
TypeError
    For non-numeric input or non-string scenario names.

Examples
--------
>>> InterestRate(0.03).is_constant
True
>>> InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04]).terms
array([5., 5.])
)doc";

// Rich comparison without the identity shortcut, so that NaN != NaN.
bool py_compare(nb::handle a, nb::handle b, int op) {
    return truthy(checked(PyObject_RichCompare(a.ptr(), b.ptr(), op)));
}

nb::object as_f64(nb::handle x) { return registry().as_f64_safe(x); }

// terms_len / rates_len: an integer or None.
std::optional<std::size_t> optional_length(const char* name, nb::handle value) {
    if (value.is_none()) return std::nullopt;
    if (PyBool_Check(value.ptr()) || !PyIndex_Check(value.ptr()))
        raise(PyExc_TypeError, std::string(name) + " must be an int or None, got " + type_name_of(value));
    Py_ssize_t n = PyNumber_AsSsize_t(value.ptr(), PyExc_OverflowError);
    if (n == -1 && PyErr_Occurred()) nb::raise_python_error();
    return n < 0 ? SIZE_MAX : static_cast<std::size_t>(n);
}

// ---- validators --------------------------------------------------------

void validate_rates_array(nb::handle rates_in, nb::handle terms_len, const std::string& context) {
    auto expected_terms = optional_length("terms_len", terms_len);
    nb::object rates = as_f64(rates_in);
    if (ndim_of(rates) != 1) raise(PyExc_ValueError, kRatesNotOneDimensional);
    std::span<const double> r = f64_span(rates);
    const core::RatesCheck check = core::check_rates(r, expected_terms);
    switch (check.fault) {
        case core::RatesFault::None:
            return;
        case core::RatesFault::NotFinite:
            raise(PyExc_ValueError, "Interest rate must be finite at position " + std::to_string(check.index) +
                                        context + ", got " + float_str(r[check.index]) + kNotFinite);
        case core::RatesFault::AtOrBelowMinusOne:
            raise(PyExc_ValueError, "Rate " + float_str(r[check.index]) + " ≤ -1" + context + kNotPositive);
        case core::RatesFault::WrongCount:
            raise(PyExc_ValueError, kLengthRule);
    }
}

void validate_terms_array(nb::handle terms_in, nb::handle rates_len) {
    auto expected_rates = optional_length("rates_len", rates_len);
    nb::object terms = as_f64(terms_in);
    if (ndim_of(terms) != 1) raise(PyExc_ValueError, "terms must be a one-dimensional sequence of numerics.");
    std::span<const double> t = f64_span(terms);
    const core::TermsCheck check = core::check_terms(t, expected_rates);
    switch (check.fault) {
        case core::TermsFault::None:
            return;
        case core::TermsFault::NotFinite:
            raise(PyExc_ValueError, "Term length must be finite at position " + std::to_string(check.index) + ", got " +
                                        float_str(t[check.index]) + ".");
        case core::TermsFault::NotPositive:
            raise(PyExc_ValueError, "All terms must be positive");
        case core::TermsFault::WrongCount:
            raise(PyExc_ValueError, kLengthRule);
    }
}

// ---- term units ----------------------------------------------------------

double calendar_factor(const char* name, nb::handle override_value, nb::handle config_value, nb::handle allowed) {
    nb::handle per_year = override_value.is_none() ? config_value : override_value;
    if (per_year.is_none()) raise(PyExc_ValueError, std::string(name) + " is not configured");
    if (!truthy(registry().calendar_constant_allowed(per_year, allowed)))
        raise(PyExc_ValueError, std::string(name) + " must be one of " + py_str(allowed) + ", got " + py_str(per_year));
    return 1.0 / to_double(per_year, name);
}

double term_unit_factor(nb::handle unit, nb::handle config, nb::handle days_per_year, nb::handle weeks_per_year) {
    std::string_view u = nb::isinstance<nb::str>(unit) ? nb::borrow<nb::str>(unit).c_str() : "";
    if (u == "years") return 1.0;
    if (u == "months") return 1.0 / 12;
    if (u == "days")
        return calendar_factor("days_per_year", days_per_year, config.attr("days_per_year"), registry().allowed_days);
    if (u == "weeks")
        return calendar_factor("weeks_per_year", weeks_per_year, config.attr("weeks_per_year"),
                               registry().allowed_weeks);
    raise(PyExc_ValueError, "Unknown term unit: " + py_str(unit) + ". Valid units: years, months, weeks, days.");
}

nb::object to_years(InterestRate& ir, nb::handle values, nb::handle unit) {
    Meta& meta = meta_of(ir);
    bool days = nb::isinstance<nb::str>(unit) && std::string_view(nb::borrow<nb::str>(unit).c_str()) == "days";
    bool weeks = nb::isinstance<nb::str>(unit) && std::string_view(nb::borrow<nb::str>(unit).c_str()) == "weeks";
    double factor = term_unit_factor(unit, ir[Config], days ? meta.field[DaysPerYear] : nb::none(),
                                     weeks ? meta.field[WeeksPerYear] : nb::none());
    return checked(PyNumber_Multiply(as_f64(values).ptr(), nb::float_(factor).ptr()));
}

// ---- setters ------------------------------------------------------------

std::optional<std::size_t> length_or_none(nb::handle array) {
    if (array.is_none()) return std::nullopt;
    return nb::len(array);
}
nb::object length_arg(std::optional<std::size_t> n) { return n ? nb::object(nb::int_(*n)) : nb::none(); }

void set_rates(InterestRate& ir, nb::handle value) {
    if (value.is_none()) {
        ir[Rates] = nb::none();
        invalidate_caches(ir);
        return;
    }
    nb::object arr = as_f64(value);
    validate_rates_array(arr, length_arg(length_or_none(ir[Terms])), "");
    ir[Rates] = readonly_copy(f64_span(arr));
    clear_lru_caches(ir);
    recompute_prefix_products(ir);
    bump_ts_shift_cache(ir);
}

void set_terms(InterestRate& ir, nb::handle value) {
    if (value.is_none()) {
        ir[Terms] = nb::none();
        ir[CumTerms] = nb::none();
    } else {
        nb::object arr = as_f64(value);
        validate_terms_array(arr, length_arg(length_or_none(ir[Rates])));
        std::span<const double> t = f64_span(arr);
        NewArray cum = new_f64_array(t.size());
        core::cumulative_sum(t, {cum.data, t.size()});
        ir[Terms] = readonly_copy(t);
        ir[CumTerms] = cum.array;
    }
    clear_lru_caches(ir);
    recompute_prefix_products(ir);
    bump_ts_shift_cache(ir);
}

// ---- construction -----------------------------------------------------------

void set_defaults(InterestRate& ir) {
    ir[Scenarios] = nb::dict();
    ir[ActiveScenario] = nb::none();
    ir[Config] = registry().config_cls();
    ir[RateCache] = registry().ordered_dict();
    ir[ForceCache] = registry().ordered_dict();
    ir[CacheLock] = registry().lock_type();
    ir[ShiftCacheEpoch] = nb::int_(0);
    ir[TsShiftCache] = nb::dict();
    ir[IsConstant] = nb::bool_(false);
    ir[Rate] = ir[Terms] = ir[Rates] = ir[CumTerms] = ir[ConstantDelta] = ir[OnePlusRates] = nb::none();
    ir[FullSegProd] = registry().empty_f64;
    ir[PrefixProd] = registry().empty_f64;
}

std::string scenario_context(nb::handle name) { return " for scenario '" + py_str(name) + "'"; }

void build_scenarios(InterestRate& ir, nb::handle scenarios_in, nb::handle term_unit) {
    nb::handle curve_type = nb::type<InterestRate>();
    nb::dict scenarios = nb::borrow<nb::dict>(ir[Scenarios]);
    for (auto [name, value] : nb::borrow<nb::dict>(scenarios_in)) {
        if (!nb::isinstance<nb::str>(name))
            raise(PyExc_TypeError, "Scenario name must be a string. Found: " + py_repr(name));
        if (Py_IS_TYPE(value.ptr(), &PyBool_Type)) raise(PyExc_ValueError, "Rate value cannot be boolean.");
        if (is_numeric(value)) {
            nb::object v = nb::isinstance(value, registry().np_generic) ? value.attr("item")() : nb::borrow(value);
            std::string context = scenario_context(name);
            validate_rate_value(v, context);
            validate_rate_for_discount(to_double(v, "rate"), context);
            scenarios[name] = curve_type(v);
        } else if ((nb::isinstance<nb::list>(value) || nb::isinstance<nb::tuple>(value)) && nb::len(value) == 2) {
            nb::object scenario_terms = value[0], scenario_rates = value[1];
            validate_rates_array(as_f64(scenario_rates), nb::none(), scenario_context(name));
            scenarios[name] = curve_type(nb::arg("terms") = scenario_terms, nb::arg("rates") = scenario_rates,
                                         nb::arg("term_unit") = term_unit);
        } else {
            raise(PyExc_ValueError, "Invalid scenario format for '" + py_str(name) + "': " + py_repr(value));
        }
    }
    if (nb::len(scenarios) == 0) {
        // An empty dict has no first scenario to activate.
        PyErr_SetNone(PyExc_StopIteration);
        throw nb::python_error();
    }
    for (auto [first_name, first_curve] : scenarios) {
        ir[ActiveScenario] = nb::borrow(first_name);
        break;
    }
}

void build_piecewise(InterestRate& ir, nb::handle terms, nb::handle rates, nb::handle term_unit) {
    if (nb::len(terms) == 0 || nb::len(rates) == 0) raise(PyExc_ValueError, "terms and rates must not be empty");
    nb::object t = to_years(ir, terms, term_unit);
    nb::object r = as_f64(rates);
    validate_terms_array(t, nb::int_(nb::len(r)));
    validate_rates_array(r, nb::int_(nb::len(t)), "");
    ir[IsConstant] = nb::bool_(false);
    set_terms(ir, t);
    set_rates(ir, r);
    ir[Rate] = nb::none();
}

void build_constant(InterestRate& ir, nb::handle rate) {
    if (!is_numeric(rate))
        raise(PyExc_ValueError,
              "Invalid arguments: provide either a float rate, terms and rates, or a dictionary of scenarios.");
    nb::float_ x(to_double(rate, "rate"));
    validate_rate_value(x, "");
    validate_rate_for_discount(to_double(x, "rate"), "");
    ir[IsConstant] = nb::bool_(true);
    ir[Rate] = x;
    set_terms(ir, nb::none());
    set_rates(ir, nb::none());
    ir[CumTerms] = nb::none();
}

InterestRate construct(nb::handle rate_in, nb::handle terms_in, nb::handle rates_in, nb::handle term_unit) {
    InterestRate ir;
    ir[MetaData] = nb::cast(
        make_meta(term_unit, nb::none(), nb::none(), nb::none(), nb::none(), nb::none(), nb::none(), nb::none()));
    nb::object rate = nb::borrow(rate_in), terms = nb::borrow(terms_in), rates = nb::borrow(rates_in);
    bool is_scenario_dict = nb::isinstance<nb::dict>(rate);
    if (!rate.is_none() && !is_scenario_dict) {
        NumericInput checked = numeric_input(rate, "InterestRate", "rate", false);
        rate = checked.is_scalar ? checked.array.attr("item")() : checked.array;
    }
    if (!rates.is_none()) {
        rates = numeric_input(rates, "InterestRate", "rates").array;
        if (ndim_of(rates) != 1) raise(PyExc_ValueError, kRatesNotOneDimensional);
    }
    if (!terms.is_none())
        terms = registry().validate_float_sequence(nb::arg("seq") = terms, nb::arg("method_name") = "InterestRate",
                                                   nb::arg("attr_name") = "terms");
    set_defaults(ir);
    if (is_scenario_dict)
        build_scenarios(ir, rate, term_unit);
    else if (!terms.is_none() && !rates.is_none())
        build_piecewise(ir, terms, rates, term_unit);
    else
        build_constant(ir, rate);
    return ir;
}

// ---- scenarios --------------------------------------------------------------

void set_active_scenario(InterestRate& ir, nb::handle name) {
    if (!has_scenarios(ir) || !scenarios_of(ir).contains(name))
        raise(PyExc_ValueError, "Scenario '" + py_str(name) + "' not found.");
    if (py_compare(name, ir[ActiveScenario], Py_NE)) {
        ir[ActiveScenario] = nb::borrow(name);
        invalidate_caches(ir);
    }
}

void add_scenario(InterestRate& ir, nb::handle name, nb::handle scenario) {
    if (!nb::isinstance<InterestRate>(scenario))
        raise(PyExc_TypeError, "scenario must be an InterestRate instance, got " + type_name_of(scenario));
    if (has_scenarios(curve_arg(scenario, "scenario")))
        raise(PyExc_ValueError,
              "Nested multi-scenario InterestRate is not allowed. Add only simple scenarios (constant or piecewise).");
    scenarios_of(ir)[name] = scenario;
    if (ir[ActiveScenario].is_none()) ir[ActiveScenario] = nb::borrow(name);
    invalidate_caches(ir);
}

nb::object active_curve_is_constant(InterestRate& ir) { return active_curve(ir)[IsConstant]; }

// ---- equality, hashing, copying ------------------------------------------

bool curves_equal(const InterestRate& a, const InterestRate& b) {
    bool a_const = truthy(a[IsConstant]), b_const = truthy(b[IsConstant]);
    if (a_const != b_const) return false;
    if (a_const) return to_double(a[Rate], "rate") == to_double(b[Rate], "rate");
    if (has_scenarios(a))
        return py_compare(a[Scenarios], b[Scenarios], Py_EQ) && py_compare(a[ActiveScenario], b[ActiveScenario], Py_EQ);
    if (a[Terms].is_none() || b[Terms].is_none()) return a[Terms].is_none() && b[Terms].is_none();
    return truthy(registry().np_array_equal(a[Terms], b[Terms])) &&
           truthy(registry().np_array_equal(a[Rates], b[Rates]));
}

Py_hash_t curve_hash(InterestRate& ir) {
    if (truthy(ir[IsConstant])) return nb::hash(nb::make_tuple("ir_const", nb::float_(ir[Rate])));
    if (has_scenarios(ir)) {
        nb::object active = ir[ActiveScenario].is_none() ? nb::object(nb::str("")) : ir[ActiveScenario];
        nb::list items;
        for (auto [name, scenario] : scenarios_of(ir)) items.append(nb::make_tuple(name, nb::hash(scenario)));
        return nb::hash(nb::make_tuple("ir_scen", active, nb::tuple(items)));
    }
    // Arrays are replaced whole, never changed in place, so the hash of a
    // piecewise curve is kept until either array object changes.
    if (ir.hash_key[0].is(ir[Terms]) && ir.hash_key[1].is(ir[Rates])) return ir.cached_hash;
    auto values_hash = [](nb::handle array) { return nb::hash(nb::tuple(array.attr("tolist")())); };
    ir.cached_hash = nb::hash(nb::make_tuple("ir_pw", values_hash(ir[Terms]), values_hash(ir[Rates])));
    ir.hash_key = {ir[Terms], ir[Rates]};
    return ir.cached_hash;
}

const Slot kArraySlots[] = {Terms, Rates, CumTerms, FullSegProd, PrefixProd, OnePlusRates};

// Deep copies of arrays come back writable; stored arrays stay read-only.
void freeze_arrays(InterestRate& ir) {
    for (Slot s : kArraySlots)
        if (nb::isinstance(ir[s], registry().np_ndarray) && !ir[s].is(registry().empty_f64))
            ir[s].attr("flags").attr("writeable") = false;
}

// A new instance of `cls` whose slots are all None, built without validation.
nb::object blank_instance(nb::handle cls) {
    nb::object obj = nb::inst_alloc(cls);
    new (nb::inst_ptr<InterestRate>(obj)) InterestRate();
    for (auto& value : nb::inst_ptr<InterestRate>(obj)->slot) value = nb::none();
    nb::inst_mark_ready(obj);
    return obj;
}

}  // namespace

// Integers (huge Python ints included) are compared exactly against the
// float64 range; floating values of any width are converted first, since a
// float32 infinity would not compare above the float64 maximum.
void validate_rate_value(nb::handle rate, const std::string& context) {
    if (!is_numeric(rate))
        raise(PyExc_TypeError, "Interest rate must be numeric" + context + ", got " + type_name_of(rate));
    bool finite;
    if (PyLong_Check(rate.ptr())) {
        nb::object max = registry().max_float64;
        nb::object min = checked(PyNumber_Negative(max.ptr()));
        finite = !py_compare(rate, max, Py_GT) && !py_compare(rate, min, Py_LT);
    } else {
        finite = core::finite_rate(to_double(rate, "rate"));
    }
    if (!finite)
        raise(PyExc_ValueError, "Interest rate must be finite" + context + ", got " + py_str(rate) + kNotFinite);
}

void validate_rate_for_discount(double r, const std::string& context) {
    if (core::above_minus_one(r)) return;  // NaN fails this test and is refused
    raise(PyExc_ValueError, "Rate " + float_str(r) + " ≤ -1" + context +
                                ": (1+i) must be positive for discount factor computation per actuarial standards");
}

// The rate is compared as the caller gave it (an integer exactly, a long
// double at its own precision), which its double cannot stand for.
void validate_rate_for_force(nb::handle rate, const std::string& context) {
    if (!py_compare(rate, nb::float_(-1.0), Py_LE)) return;
    std::string shown = py_str(checked(PyObject_Format(rate.ptr(), nb::str("").ptr())));
    raise(PyExc_ValueError, "Cannot calculate force of interest: rate " + shown + " ≤ -1" + context +
                                " would make ln(1 + i) undefined per actuarial standards");
}

InterestRate& curve_arg(nb::handle h, const char* what) {
    if (!nb::isinstance<InterestRate>(h))
        raise(PyExc_TypeError, std::string(what) + " must be an InterestRate, got " + type_name_of(h));
    return nb::cast<InterestRate&>(h);
}

nb::dict scenarios_of(const InterestRate& ir) {
    require_dict(ir[Scenarios], "scenarios");
    return nb::borrow<nb::dict>(ir[Scenarios]);
}

bool has_scenarios(const InterestRate& ir) { return nb::len(scenarios_of(ir)) > 0; }

bool is_constant(InterestRate& ir) { return truthy(active_curve(ir)[IsConstant]); }

InterestRate& active_curve(InterestRate& ir) {
    if (!has_scenarios(ir)) return ir;
    return curve_arg(scenarios_of(ir)[ir[ActiveScenario]], "scenario");
}

nb::object deep_copy(nb::handle self, nb::handle memo) {
    require_dict(memo, "memo");
    nb::handle cls = self.type();
    nb::object result = blank_instance(cls);
    memo[checked(PyLong_FromVoidPtr(self.ptr()))] = result;
    nb::handle get = reinterpret_cast<PyObject*>(&PyBaseObject_Type);
    nb::object getattribute = get.attr("__getattribute__"), setattribute = get.attr("__setattr__");
    for (nb::handle klass : cls.attr("__mro__")) {
        nb::object slots = klass.attr("__dict__").attr("get")("__slots__", nb::tuple());
        if (nb::isinstance<nb::str>(slots)) slots = nb::make_tuple(slots);
        for (nb::handle name : slots) {
            nb::object value;
            try {
                value = getattribute(self, name);
            } catch (nb::python_error& e) {
                if (e.matches(PyExc_AttributeError)) continue;
                throw;
            }
            std::string_view slot = nb::borrow<nb::str>(name).c_str();
            if (slot == "_config")
                setattribute(result, name, value);  // copies keep following the package configuration
            else if (slot == "_cache_lock")
                setattribute(result, name, registry().lock_type());
            else
                setattribute(result, name, registry().deepcopy(value, memo));
        }
    }
    freeze_arrays(nb::cast<InterestRate&>(result));
    return result;
}

namespace {

// ---- pickling ---------------------------------------------------------------

// Only the curve's data travels; caches and the lock are rebuilt on arrival.
nb::tuple get_state(const InterestRate& ir) {
    return nb::make_tuple(ir[MetaData], ir[IsConstant], ir[Rate], ir[Terms], ir[Rates], ir[Scenarios],
                          ir[ActiveScenario]);
}

void set_state(InterestRate& self, nb::tuple state) {
    if (nb::len(state) != 7) raise(PyExc_ValueError, "invalid InterestRate pickle state");
    if (!nb::isinstance<Meta>(state[0]) || !PyBool_Check(state[1].ptr()) || !nb::isinstance<nb::dict>(state[5]))
        raise(PyExc_TypeError, "invalid InterestRate pickle state: metadata, kind or scenarios of the wrong type");
    // The curve data goes through the same checks as at construction, so a
    // damaged state is refused here rather than failing later inside a kernel.
    InterestRate ir;
    set_defaults(ir);
    ir[MetaData] = state[0];
    if (truthy(state[1])) build_constant(ir, state[2]);
    set_terms(ir, state[3]);  // a constant curve keeps arrays a caller assigned
    set_rates(ir, state[4]);
    ir[Scenarios] = state[5];
    ir[ActiveScenario] = state[6];
    new (&self) InterestRate(std::move(ir));
}

// Cyclic GC support: a curve's shift cache holds keys that refer back to the
// curve, so curves must be visible to the collector.
int curve_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    if (!nb::inst_ready(self)) return 0;
    InterestRate* ir = nb::inst_ptr<InterestRate>(self);
    for (const auto& value : ir->slot) Py_VISIT(value.ptr());
    for (const auto& value : ir->table_key) Py_VISIT(value.ptr());
    for (const auto& value : ir->hash_key) Py_VISIT(value.ptr());
    Py_VISIT(ir->constant_key.ptr());
    return 0;
}

int curve_clear(PyObject* self) {
    InterestRate* ir = nb::inst_ptr<InterestRate>(self);
    // None rather than null, so that a method reached during collection fails cleanly.
    for (auto& value : ir->slot) value = nb::none();
    for (auto& value : ir->table_key) value = nb::none();
    for (auto& value : ir->hash_key) value = nb::none();
    ir->constant_key = nb::none();
    ir->table.reset();
    return 0;
}

PyType_Slot curve_type_slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(curve_traverse)},
                                  {Py_tp_clear, reinterpret_cast<void*>(curve_clear)},
                                  {0, nullptr}};

}  // namespace

nb::object config_backed(const InterestRate& ir, MetaField field, nb::handle name) {
    const nb::object& override_value = meta_of(ir).field[field];
    return override_value.is_none() ? nb::object(ir[Config].attr(name)) : override_value;
}

CurveClass register_curve_model(nb::module_& m) {
    CurveClass cls(m, "InterestRate", kCurveDoc, nb::type_slots(curve_type_slots));
    bind_slots(cls, kSlotNames, kSlotDocs,
               [](InterestRate& self, std::size_t i) -> nb::object& { return self.slot[i]; });

    cls.def_prop_rw(
        "rates", [](InterestRate& ir) { return ir[Rates]; }, [](InterestRate& ir, nb::object v) { set_rates(ir, v); },
        nb::for_setter(nb::arg("value").none()),
        "Segment rates (read-only float64 array), or None for a constant curve.");
    cls.def_prop_rw(
        "terms", [](InterestRate& ir) { return ir[Terms]; }, [](InterestRate& ir, nb::object v) { set_terms(ir, v); },
        nb::for_setter(nb::arg("value").none()), "Segment lengths in years (read-only float64 array), or None.");
    cls.def(
        "__init__",
        [](InterestRate* self, nb::object rate, nb::object terms, nb::object rates, nb::object term_unit) {
            // Built aside and moved in, so a failure leaves no half-made instance.
            new (self) InterestRate(construct(rate, terms, rates, term_unit));
        },
        nb::arg("rate").none() = nb::none(), nb::arg("terms").none() = nb::none(), nb::arg("rates").none() = nb::none(),
        nb::arg("term_unit").none() = "years");
    cls.def(
        "__deepcopy__", [](nb::handle self, nb::handle memo) { return deep_copy(self, memo); }, nb::arg("memo"),
        "Deep copy for copy.deepcopy: shares the package Config and owns a new lock.");
    cls.def(
        "copy", [](nb::handle self) { return deep_copy(self, nb::dict()); },
        R"doc(Return an independent deep copy of the curve.

Scenarios, metadata and caches are copied; only the package Config is
shared, so the copy keeps following the package configuration.

Returns
-------
InterestRate
    A new curve equal to this one.

Examples
--------
>>> ir = InterestRate(0.03)
>>> twin = ir.copy()
>>> twin is ir, twin == ir
(False, True)
)doc");

    cls.def_prop_rw(
        "active_scenario", [](InterestRate& ir) { return ir[ActiveScenario]; },
        [](InterestRate& ir, nb::object name) { set_active_scenario(ir, name); },
        nb::for_setter(nb::arg("name").none()), "Name of the active scenario, or None for a single curve.");
    cls.def_prop_ro(
        "scenario_names", [](InterestRate& ir) { return nb::list(scenarios_of(ir).keys()); },
        "Scenario names in insertion order ([] for a single curve).");
    cls.def_prop_ro(
        "days_per_year", [](InterestRate& ir) { return config_backed(ir, DaysPerYear, registry().name_days_per_year); },
        "Days per year: the instance override, else the package Config.");
    cls.def_prop_ro(
        "weeks_per_year",
        [](InterestRate& ir) { return config_backed(ir, WeeksPerYear, registry().name_weeks_per_year); },
        "Weeks per year: the instance override, else the package Config.");
    cls.def_prop_ro(
        "calculation_mode",
        [](InterestRate& ir) { return config_backed(ir, CalculationMode, registry().name_calculation_mode); },
        "Annuity calculation mode: the instance override, else the package Config.");
    cls.def_prop_ro("is_constant", &active_curve_is_constant,
                    "Whether the curve (the active scenario of a container) is constant.");
    cls.def_static(
        "_get_term_unit_factor",
        [](nb::handle unit, nb::handle config, nb::handle days, nb::handle weeks) {
            return term_unit_factor(unit, config, days, weeks);
        },
        nb::arg("unit").none(), nb::arg("config").none(), nb::arg("days_per_year").none() = nb::none(),
        nb::arg("weeks_per_year").none() = nb::none(), "Years per one `unit`.");
    cls.def("_to_years", &to_years, nb::arg("values"), nb::arg("unit").none(),
            "Term lengths in `unit` converted to years (a new float64 array).");
    cls.def("add_scenario", &add_scenario, nb::arg("name").none(), nb::arg("scenario").none(),
            R"doc(Add a named scenario, turning the curve into a scenario container.

Parameters
----------
name : str
    Scenario name. An existing name is replaced in place (same position,
    active scenario unchanged).
scenario : InterestRate
    A constant or piecewise curve, stored as is (not copied).

Returns
-------
None
    The first scenario added to a single curve becomes active; from then
    on the computing methods act on the active scenario.

Raises
------
TypeError
    If `scenario` is not an InterestRate.
ValueError
    If `scenario` has scenarios of its own (nesting is not allowed).

Examples
--------
>>> ir = InterestRate(0.01)
>>> ir.add_scenario("stress", InterestRate(0.03))
>>> ir.active_scenario, ir.get_rate(1.0)
('stress', 0.03)
)doc");

    cls.def(
        "__eq__",
        [](nb::handle self, nb::handle other) -> nb::object {
            if (!nb::isinstance<InterestRate>(other)) return nb::borrow(Py_NotImplemented);
            if (self.is(other)) return nb::bool_(true);
            return nb::bool_(curves_equal(nb::cast<InterestRate&>(self), nb::cast<InterestRate&>(other)));
        },
        nb::arg("other").none(), "Equality by value (kind, rates, terms in years, scenarios, active scenario).");
    cls.def("__hash__", &curve_hash, "Hash by value, consistent with ==.");

    cls.def_static(
        "_validate_rates_array",
        [](nb::handle rates, nb::handle terms_len, const std::string& context) {
            validate_rates_array(rates, terms_len, context);
        },
        nb::arg("rates"), nb::arg("terms_len").none() = nb::none(), nb::arg("context") = "",
        "Refuse non-finite rates, rates <= -1 and (with terms_len) a wrong number of rates.");
    cls.def_static("_validate_terms_array", &validate_terms_array, nb::arg("terms"),
                   nb::arg("rates_len").none() = nb::none(),
                   "Refuse non-finite or non-positive terms and (with rates_len) a wrong number of terms.");
    cls.def_static("_validate_rate_value", &validate_rate_value, nb::arg("rate").none(), nb::arg("context") = "",
                   "Refuse a rate that is not a number (TypeError) or not finite (ValueError).");
    cls.def_static("_validate_rate_for_force", &validate_rate_for_force, nb::arg("rate"), nb::arg("context") = "",
                   "Refuse rates <= -1 (compared as given), for which ln(1 + i) is undefined.");
    cls.def_static(
        "_validate_rate_for_discount",
        [](nb::handle rate, const std::string& context) {
            validate_rate_for_discount(to_double(rate, "rate"), context);
        },
        nb::arg("rate"), nb::arg("context") = "", "Refuse rates <= -1 (and NaN), for which (1 + i) is not positive.");

    cls.def(
        "_survival_one", [](InterestRate&, nb::handle) { return 1.0; }, nb::arg("t").none(),
        "Survival function of a certain (non-life) annuity: 1.0 at every time.");
    cls.def("__getstate__", &get_state, "Pickle state: the curve's data as a tuple (caches and lock are left out).");
    cls.def("__setstate__", &set_state, "Restore a curve from __getstate__ output, rebuilding its caches and lock.");
    return cls;
}

}  // namespace norvane::bindings
