// Annuities: the public methods a and ä. A single certain annuity given in
// plain numbers is valued here, natively, with the schedule rules of the core;
// every other call (portfolios, growth, explicit schedules, flows, and every
// input the checks would refuse) goes to the router of norvane.engine.dispatch,
// whose functions are installed as the curve's dispatch methods.
#include "interest_rates.hpp"

#include "bindings/native_curve.hpp"
#include "core/annuity.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

namespace norvane::bindings {

namespace {

// The arguments of a and ä as the caller gave them.
struct AnnuityArgs {
    nb::handle ts, d, n, m, gr, cashflow_times, cashflow_amounts, benefits, return_flows, t_output, on_error,
        record_ids;
};

std::optional<double> plain_number(nb::handle h) {
    if (PyBool_Check(h.ptr()) || !(PyFloat_Check(h.ptr()) || PyLong_Check(h.ptr()))) return std::nullopt;
    double value = PyFloat_AsDouble(h.ptr());
    if (value == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();  // an int beyond the float range: the full path explains
        return std::nullopt;
    }
    return value;
}

bool is_none_or_default(const AnnuityArgs& a) {
    return a.gr.is_none() && a.cashflow_times.is_none() && a.cashflow_amounts.is_none() && a.benefits.is_none() &&
           a.t_output.is_none() && a.record_ids.is_none() && PyUnicode_Check(a.on_error.ptr()) &&
           PyUnicode_CompareWithASCIIString(a.on_error.ptr(), "raise") == 0 && !truthy(a.return_flows);
}

// The curve's settings for a plain call: the cached ones while they hold.
const AnnuitySettings& annuity_settings(InterestRate& self) {
    const Registry& py = registry();
    const Meta& meta = meta_of(self);
    AnnuitySettings& cached = self.annuity_settings;
    const std::array<nb::handle, 5> key{self[Config], self[MetaData], meta.field[CalculationMode],
                                        meta.field[ToleranceEps], meta.field[PerpetuityNEff]};
    bool same = cached.config_changes == *py.config_changes;
    for (std::size_t i = 0; i < key.size(); ++i) same = same && cached.key[i].is(key[i]);
    if (same) return cached;
    AnnuitySettings fresh;
    for (std::size_t i = 0; i < key.size(); ++i) fresh.key[i] = nb::borrow(key[i]);
    fresh.config_changes = *py.config_changes;
    nb::object config = self[Config];
    fresh.force_integer_ts = truthy(config.attr(py.name_force_integer_ts));
    fresh.mode_name = config_backed(self, CalculationMode, py.name_calculation_mode);
    fresh.mode = core::mode_named(nb::borrow<nb::str>(fresh.mode_name).c_str());
    fresh.tolerance_eps = to_double(meta.field[ToleranceEps], "tolerance_eps");
    fresh.perpetuity_n_eff = to_double(meta.field[PerpetuityNEff], "perpetuity_n_eff");
    fresh.decimals = nb::cast<int>(config.attr(py.name_decimals).attr(py.name_annuities));
    fresh.scale = core::rounding_scale(fresh.decimals);
    return cached = std::move(fresh);
}

// Whether the engine entry of a mode is the package's own (not replaced).
bool own_entry(nb::handle mode_name) {
    const Registry& py = registry();
    if (PyDict_CheckExact(py.dispatch_table.ptr()) && PyDict_CheckExact(py.own_entries.ptr())) {
        // Borrowed lookups, no temporaries: this runs on every plain call.
        PyObject* entry = PyDict_GetItemWithError(py.dispatch_table.ptr(), mode_name.ptr());
        if (!entry) {
            if (PyErr_Occurred()) throw nb::python_error();
            return false;
        }
        return entry == PyDict_GetItemWithError(py.own_entries.ptr(), mode_name.ptr());
    }
    return py.dispatch_table[mode_name].is(py.own_entries[mode_name]);
}

// The curve (its active scenario) seen from ts, with the object that holds
// it alive (a shifted curve is kept by the curve's cache, but may be evicted).
struct SeenCurve {
    nb::object holder;
    InterestRate* curve;
};
SeenCurve seen_from_ts(nb::handle self_obj, InterestRate& self, double ts, double tolerance_eps) {
    if (!core::is_shift(ts, tolerance_eps)) return {nb::borrow(self_obj), &active_curve(self)};
    nb::object shifted = shifted_for_ts(self_obj, ts, self[TsShiftCache]);
    InterestRate* seen = &active_curve(nb::cast<InterestRate&>(shifted));
    return {std::move(shifted), seen};
}

// The numbers of a call given as plain Python numbers within the checks'
// bounds (n None: infinite), which the full path would accept unchanged;
// none for anything it would convert, refuse or explain.
std::optional<PlainNumbers> plain_numbers(nb::handle n, nb::handle d, nb::handle m, nb::handle ts,
                                          const AnnuitySettings& settings) {
    if (!PyLong_CheckExact(m.ptr())) return std::nullopt;
    auto d_value = plain_number(d), ts_value = plain_number(ts);
    std::optional<double> n_value = n.is_none() ? std::optional<double>(INFINITY) : plain_number(n);
    if (!d_value || !ts_value || !n_value) return std::nullopt;
    const long frequency = PyLong_AsLong(m.ptr());
    if (frequency == -1 && PyErr_Occurred()) {
        PyErr_Clear();
        return std::nullopt;
    }
    if (!(core::finite_nonnegative(*d_value) && core::finite_nonnegative(*ts_value)) || !(*n_value >= 0.0) ||
        !allowed_frequency(frequency))
        return std::nullopt;
    if (settings.force_integer_ts && std::floor(*ts_value) != *ts_value) return std::nullopt;
    return PlainNumbers{*n_value, *d_value, *ts_value, static_cast<std::size_t>(frequency)};
}

// A single certain annuity with plain numbers, level payments and no explicit
// schedule, valued with the engine's own native routine. Anything else,
// including every input the validators would refuse, returns nothing and takes
// the full path (which raises the proper message).
std::optional<double> plain_annuity_value(nb::handle self_obj, int timing, const AnnuityArgs& a) {
    if (!is_none_or_default(a)) return std::nullopt;
    InterestRate& self = nb::cast<InterestRate&>(self_obj);
    const AnnuitySettings& settings = annuity_settings(self);
    const std::optional<PlainNumbers> plain = plain_numbers(a.n, a.d, a.m, a.ts, settings);
    if (!plain || !settings.mode || !own_entry(settings.mode_name)) return std::nullopt;
    core::PolicyTerms terms;
    terms.m = plain->m;
    terms.timing = timing;
    terms.tolerance_eps = settings.tolerance_eps;
    terms.perpetuity_n_eff = settings.perpetuity_n_eff;
    terms.decimals = settings.decimals;
    if (!core::countable(core::term_or_horizon(plain->n, terms), terms.m)) return std::nullopt;
    const std::optional<core::Annuity> annuity = core::policy_annuity(plain->n, plain->d, plain->ts, terms);
    if (!annuity) return 0.0;
    // Taken now: building a shifted curve runs Python, where another thread
    // may change the settings (and so the curve's kept copy of them).
    const core::Mode mode = *settings.mode;
    const double scale = settings.scale;
    const SeenCurve seen = seen_from_ts(self_obj, self, plain->ts, terms.tolerance_eps);
    return core::round_scaled(core::annuity_value(*valuation_table(*seen.curve), *annuity, mode), scale);
}

nb::object annuity(nb::handle self, const char* method_name, int timing, const AnnuityArgs& a) {
    if (auto value = plain_annuity_value(self, timing, a)) return nb::float_(*value);
    return registry().annuity_public_route(
        self, nb::arg("method_name") = method_name, nb::arg("payment_timing") = timing, nb::arg("n") = a.n,
        nb::arg("d") = a.d, nb::arg("ts") = a.ts, nb::arg("m") = a.m, nb::arg("gr") = a.gr,
        nb::arg("cashflow_times") = a.cashflow_times, nb::arg("cashflow_amounts") = a.cashflow_amounts,
        nb::arg("benefits") = a.benefits, nb::arg("return_flows") = a.return_flows, nb::arg("t_output") = a.t_output,
        nb::arg("on_error") = a.on_error, nb::arg("record_ids") = a.record_ids);
}

const char* kAnnuityDoc = R"doc(Present value of an annuity-%s (payments at the %s of each period).

All parameters are keyword-only. Scalars value one annuity; arrays (lists,
NumPy arrays, pandas Series) of n, d, ts, m or gr value a portfolio.

Parameters
----------
ts : float or array_like, default 0.0
    Valuation time in years since inception.
d : float or array_like, default 0.0
    Deferment in years before payments start.
n : float, None or array_like
    Term in years after the deferment; None or infinity is a perpetuity.
m : int or array_like of int, default 1
    Payments per year (1, 2, 3, 4, 6, 12, 13, 24, 26, 52 or 365).
gr : GrowthRate, float or None
    Growth of payments in annual steps; a float is geometric growth.
%scashflow_amounts : array_like, optional
    Explicit payment amounts, one per payment of the full schedule.
benefits : array_like, optional
    Per-policy weights (portfolio mode).
return_flows : bool, default False
    Return cash flows instead of the present value.
t_output : array_like, optional
    Time grid for aggregated portfolio flows.
on_error : {"raise", "nan"}
    Portfolio error policy: "nan" values invalid records as NaN.
record_ids : array_like, optional
    Policy identifiers for the error report.

Returns
-------
float, numpy.ndarray, dict or BatchResult
    A float for one policy; a float64 array of shape (N,) for a portfolio;
    a dict of cash flows with return_flows=True (for a portfolio the keys
    "time_grid", "expected_cf", "pv_cf" and "total_pv"); a BatchResult
    (``values`` with NaN for invalid records, ``errors`` a report) with
    on_error="nan".

Raises
------
TypeError
    For positional or unknown arguments, and for booleans or non-numbers
    where numbers are expected.
ValueError
    For negative or non-finite ts or d, a negative or NaN n, a frequency
    not allowed, portfolio-only options (benefits, t_output, record_ids,
    on_error="nan") used for one policy, mismatched portfolio lengths, or
    cash-flow amounts that do not match the schedule.

Examples
--------
>>> ir = InterestRate(0.03)
>>> ir.a(n=10)
8.5302028368
>>> ir.ä(n=5)
4.7170984028
>>> ir.ä(n=[5.0, 10.0]).tolist()
[4.7170984028, 8.7861089219]
)doc";

std::string annuity_doc(const char* kind, const char* when, bool with_times) {
    const char* times_doc =
        with_times ? "cashflow_times : array_like, optional\n    Explicit payment times since inception (plus d).\n"
                   : "";
    std::string text(std::strlen(kAnnuityDoc) + 256, '\0');
    int len = std::snprintf(text.data(), text.size(), kAnnuityDoc, kind, when, times_doc);
    text.resize(static_cast<std::size_t>(len));
    return text;
}

// ---- the methods' calls ------------------------------------------------------------
// a and ä are plain vectorcall methods: their keywords are matched by pointer
// (names interned once), which costs a fraction of a general binding's call,
// and a wrong call gets the interpreter's usual TypeError.

// The keywords of a, in their declared order; ä has all but cashflow_times.
enum Keyword : std::size_t {
    Ts,
    D,
    N,
    M,
    Gr,
    CashflowTimes,
    CashflowAmounts,
    Benefits,
    ReturnFlows,
    TOutput,
    OnError,
    RecordIds,
    KeywordCount
};
constexpr std::array<const char*, KeywordCount> kKeywordNames{
    "ts",           "d",        "n",        "m",         "gr", "cashflow_times", "cashflow_amounts", "benefits",
    "return_flows", "t_output", "on_error", "record_ids"};

struct Keywords {
    std::array<nb::object, KeywordCount> name, default_value;
};

const Keywords& keywords() {
    static const Keywords* known = [] {
        auto* k = new Keywords();  // leaked, as the registry: it outlives every call
        for (std::size_t i = 0; i < KeywordCount; ++i)
            k->name[i] = checked(PyUnicode_InternFromString(kKeywordNames[i]));
        k->default_value = {nb::float_(0.0),  nb::float_(0.0), nb::none(),       nb::int_(1),
                            nb::none(),       nb::none(),      nb::none(),       nb::none(),
                            nb::bool_(false), nb::none(),      nb::str("raise"), nb::none()};
        return k;
    }();
    return *known;
}

// The position of keyword `key` (any str object), KeywordCount if unknown.
std::size_t keyword_index(PyObject* key) {
    const Keywords& k = keywords();
    for (std::size_t i = 0; i < KeywordCount; ++i)
        if (k.name[i].ptr() == key) return i;
    for (std::size_t i = 0; i < KeywordCount; ++i) {
        const int same = PyUnicode_Compare(k.name[i].ptr(), key);
        if (same == 0) return i;
        if (same == -1 && PyErr_Occurred()) throw nb::python_error();
    }
    return KeywordCount;
}

// The current C++ exception as a Python one, as a general binding translates it.
void restore_as_python_error() {
    try {
        throw;
    } catch (nb::python_error& e) {
        e.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::invalid_argument& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
}

template <int Timing>
PyObject* annuity_call(PyObject* self, PyObject* const* args, Py_ssize_t positional, PyObject* kwnames) {
    constexpr bool immediate = Timing == 1;
    const char* qualname = immediate ? "InterestRate.a" : "InterestRate.\u00e4";
    try {
        if (positional != 0) {
            PyErr_Format(PyExc_TypeError, "%s() takes 1 positional argument but %zd were given", qualname,
                         positional + 1);
            return nullptr;
        }
        const Keywords& k = keywords();
        std::array<nb::handle, KeywordCount> given;
        for (std::size_t i = 0; i < KeywordCount; ++i) given[i] = k.default_value[i];
        const Py_ssize_t count = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
        for (Py_ssize_t i = 0; i < count; ++i) {
            PyObject* key = PyTuple_GET_ITEM(kwnames, i);
            const std::size_t at = keyword_index(key);
            if (at == KeywordCount || (!immediate && at == CashflowTimes)) {
                PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", qualname, key);
                return nullptr;
            }
            given[at] = args[i];
        }
        return annuity(
                   self, qualname, Timing,
                   {given[Ts], given[D], given[N], given[M], given[Gr], given[CashflowTimes], given[CashflowAmounts],
                    given[Benefits], given[ReturnFlows], given[TOutput], given[OnError], given[RecordIds]})
            .release()
            .ptr();
    } catch (...) {
        restore_as_python_error();
        return nullptr;
    }
}

// ---- the curve as norvane._kernels reads it -------------------------------------------

NativeCurve native_curve(nb::handle self_obj, InterestRate& self, const AnnuitySettings& settings, double ts) {
    NativeCurve view;
    // Copied first: shifting the curve runs Python, which may change the settings.
    view.mode = settings.mode;
    view.decimals = settings.decimals;
    view.scale = settings.scale;
    view.tolerance_eps = settings.tolerance_eps;
    view.force_integer_ts = settings.force_integer_ts;
    const SeenCurve seen = seen_from_ts(self_obj, self, ts, view.tolerance_eps);
    view.table = valuation_table(*seen.curve);  // first: a new table comes with no grids
    view.grids = grids_of(*seen.curve);
    return view;
}

InterestRate* curve_of(PyObject* curve) {
    nb::handle h(curve);
    return nb::isinstance<InterestRate>(h) ? nb::inst_ptr<InterestRate>(h) : nullptr;
}

int native_seen_from(PyObject* curve, double ts, NativeCurve* out) noexcept {
    try {
        InterestRate* self = curve_of(curve);
        if (!self) return 0;
        *out = native_curve(curve, *self, annuity_settings(*self), ts);
        return 1;
    } catch (...) {
        restore_as_python_error();
        return -1;
    }
}

int native_plain_call(PyObject* curve, PyObject* n, PyObject* d, PyObject* m, PyObject* ts, PlainCall* out) noexcept {
    try {
        InterestRate* self = curve_of(curve);
        if (!self) return 0;
        const AnnuitySettings& settings = annuity_settings(*self);
        const std::optional<PlainNumbers> plain = plain_numbers(n, d, m, ts, settings);
        if (!plain) return 0;
        *out = {*plain, native_curve(curve, *self, settings, plain->ts)};
        return 1;
    } catch (...) {
        restore_as_python_error();
        return -1;
    }
}

const NativeCurveApi kNativeCurveApi{&native_seen_from, &native_plain_call};

using FastCall = PyObject* (*)(PyObject*, PyObject* const*, Py_ssize_t, PyObject*);

// A method of the curve class calling `call`, documented with its signature
// first (which introspection reads).
void add_method(CurveClass& cls, const char* name, FastCall call, const std::string& signature,
                const std::string& doc) {
    // Leaked on purpose: the method definition and its text must outlive the class.
    const auto* text = new std::string(signature + "\n--\n\n" + doc);
    auto* def = new PyMethodDef{name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(call)),
                                METH_FASTCALL | METH_KEYWORDS, text->c_str()};
    cls.attr(name) = checked(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls.ptr()), def));
}

}  // namespace

void register_annuities(nb::module_& m, CurveClass& cls) {
    const auto engine = [](const char* name) {
        return nb::module_::import_((std::string("norvane.engine.") + name).c_str());
    };
    m.attr("_woolhouse_flows_to_grid") = engine("flow_grid").attr("woolhouse_flows_to_grid");
    cls.attr("_annuity_public_route") = engine("dispatch").attr("annuity_public_route");
    cls.attr("_annuity_dispatch") = engine("single").attr("annuity_dispatch");
    cls.attr("_annuity_batch_dispatch") = engine("batch").attr("annuity_batch_dispatch");
    cls.attr("_annuity_batch_financial") = engine("batch").attr("annuity_batch_financial");

    m.attr("_native_curve") = nb::capsule(&kNativeCurveApi, kNativeCurveCapsule);

    const std::string common = "ts=0.0, d=0.0, n=None, m=1, gr=None, ";
    const std::string rest =
        "cashflow_amounts=None, benefits=None, return_flows=False, t_output=None, "
        "on_error='raise', record_ids=None)";
    add_method(cls, "a", &annuity_call<1>, "a($self, /, *, " + common + "cashflow_times=None, " + rest,
               annuity_doc("immediate", "end", true));
    add_method(cls, "\u00e4", &annuity_call<0>, "\u00e4($self, /, *, " + common + rest,
               annuity_doc("due", "start", false));
}

}  // namespace norvane::bindings
