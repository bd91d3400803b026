// Discount and accumulation factors, rate lookup and curve shifting.
#include "interest_rates.hpp"

#include "core/rates.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace norvane::bindings {

namespace {

// Below this many durations the GIL is kept: releasing costs more than it saves.
constexpr std::size_t kReleaseGilAbove = 4096;

[[noreturn]] void internal_error(const char* message) { raise(PyExc_RuntimeError, message); }

// ---- inputs -----------------------------------------------------------------

// Durations as a contiguous float64 buffer, with the flag that says whether the
// caller gave a single number (answered with a Python float).
struct Durations {
    nb::object owner;  // keeps the buffer alive (None for a scalar)
    const double* data;
    std::size_t size;
    std::vector<std::size_t> shape;
    bool is_scalar;
    double scalar;  // storage for a scalar input
};

bool is_plain_scalar(nb::handle h) {
    if (PyBool_Check(h.ptr())) return false;
    return PyFloat_Check(h.ptr()) || PyLong_Check(h.ptr());
}

Durations from_array(nb::handle array, bool is_scalar) {
    F64View view;
    if (!try_f64_view(array, view)) internal_error("Internal error: expected a float64 array of durations.");
    Durations d{nb::borrow(array), view.data(), view.size(), {}, is_scalar, 0.0};
    for (std::size_t k = 0; k < view.ndim(); ++k) d.shape.push_back(view.shape(k));
    return d;
}

// Plain Python numbers and float64 arrays (the common cases) are read directly;
// everything else goes through the package validator and converter, which own
// the messages for bad input.
Durations read_durations(nb::handle n, const std::string& param_name, bool validate) {
    if (is_plain_scalar(n)) {
        double value = PyFloat_AsDouble(n.ptr());
        if (!(value == -1.0 && PyErr_Occurred())) return {nb::none(), nullptr, 1, {}, true, value};
        PyErr_Clear();  // an int too large for a double: let the validator speak
    }
    F64View view;
    if (nb::isinstance(n, registry().np_ndarray) && try_f64_view(n, view)) return from_array(n, false);
    if (validate) {
        NumericInput checked = numeric_input(n, "InterestRate", param_name.c_str());
        return from_array(checked.array, checked.is_scalar);
    }
    bool is_scalar = !PyBool_Check(n.ptr()) &&
                     (PyFloat_Check(n.ptr()) || PyLong_Check(n.ptr()) || nb::isinstance(n, registry().np_generic));
    return from_array(registry().as_f64_safe(n), is_scalar);
}

const double* values_of(const Durations& d) { return d.is_scalar && !d.data ? &d.scalar : d.data; }

// ---- outputs ----------------------------------------------------------------

struct Output {
    nb::object array;
    double* data;
};

// Allocated by NumPy, which asks the kernel for huge pages on large arrays:
// page faults on a fresh 8 MB result otherwise cost as much as the arithmetic.
Output new_result(const Durations& like) {
    nb::list shape;
    for (std::size_t extent : like.shape) shape.append(extent);
    nb::object array = registry().np_empty(nb::tuple(shape), "float64");
    auto view = nb::cast<nb::ndarray<double, nb::c_contig, nb::device::cpu>>(array);
    return {array, view.data()};
}

// A single number for scalar input, else an array of the input's shape; `fill`
// writes the values.
template <typename Fill>
nb::object finish(const Durations& d, Fill fill) {
    if (d.is_scalar) {
        double value;
        fill(values_of(d), &value, std::size_t{1});
        return nb::float_(value);
    }
    Output out = new_result(d);
    if (d.size > kReleaseGilAbove) {
        nb::gil_scoped_release release;
        fill(d.data, out.data, d.size);
    } else {
        fill(d.data, out.data, d.size);
    }
    return out.array;
}

nb::object ones_like(const Durations& d) {
    return finish(d, [](const double*, double* out, std::size_t k) { std::fill(out, out + k, 1.0); });
}

// ---- the native mirror ------------------------------------------------------

// A new mirror, and no grids: the lives valued on the old one are not on it.
void replace_table(InterestRate& ir, std::shared_ptr<const core::PiecewiseTable> table, std::array<nb::object, 3> key) {
    ir.table = std::move(table);
    ir.table_key = std::move(key);
    ir.grids.reset();
}

std::shared_ptr<const core::PiecewiseTable> table_of(InterestRate& ir) {
    const nb::object& prefix = ir[PrefixProd];
    if (!ir.table || !ir.table_key[0].is(ir[Rates]) || !ir.table_key[1].is(ir[CumTerms]) ||
        !ir.table_key[2].is(prefix)) {
        std::span<const double> rates = f64_span(ir[Rates]), ends = f64_span(ir[CumTerms]);
        std::span<const double> products = prefix.is_none() ? std::span<const double>() : f64_span(prefix);
        if (!core::rates_fit_terms(rates.size(), ends.size()))
            internal_error("Internal error: rates and terms have inconsistent lengths in discount_factor.");
        replace_table(ir, std::make_shared<const core::PiecewiseTable>(rates, ends, products),
                      {ir[Rates], ir[CumTerms], prefix});
    }
    return ir.table;
}

// Prefix products dropped by an invalidation are rebuilt on first use.
void ensure_prefix_products(InterestRate& ir) {
    if (nb::len(ir[Terms]) == 0) return;
    if (ir[OnePlusRates].is_none() || ir[PrefixProd].is_none() || nb::len(ir[PrefixProd]) == 0)
        recompute_prefix_products(ir);
    if (ir[PrefixProd].is_none())
        internal_error("Internal error: prefix_prod is None after lazy initialization in discount_factor.");
    if (ir[OnePlusRates].is_none())
        internal_error("Internal error: precomp_1pr is None after lazy initialization in discount_factor.");
}

// ---- discount factors -------------------------------------------------------

// The constant rate of `ir` as a double with its logarithm and validity,
// recomputed only when the `rate` slot holds another object.
void refresh_constant(InterestRate& ir) {
    if (ir.constant_key.is_valid() && ir.constant_key.is(ir[Rate])) return;
    const nb::object& rate = ir[Rate];
    double value = to_double(rate, "rate");
    ir.constant_rate = value;
    ir.constant_log = core::log_one_plus(value);
    ir.constant_valid = PyFloat_Check(rate.ptr()) && core::valid_rate(value);
    ir.constant_key = rate;
}

nb::object constant_discount(InterestRate& ir, const Durations& d, bool validate) {
    if (ir[Rate].is_none()) internal_error("Internal error: constant rate is None in discount_factor.");
    if (validate && !(ir.constant_key.is(ir[Rate]) && ir.constant_valid)) {
        validate_rate_value(ir[Rate], "");
        validate_rate_for_discount(to_double(ir[Rate], "rate"), "");
    }
    refresh_constant(ir);
    const double rate = ir.constant_rate;
    if (rate == 0.0) return ones_like(d);
    if (d.is_scalar) {
        double n = *values_of(d), v = core::constant_discount(rate, ir.constant_log, n);
        // Python's own float power where it differs from a real result: it
        // raises for 0 to a negative power and on overflow, and goes complex
        // for a negative base.
        if (1.0 + rate <= 0.0 || (std::isinf(v) && std::isfinite(n)))
            return checked(PyNumber_Power(nb::float_(1.0 + rate).ptr(), nb::float_(-n).ptr(), Py_None));
        return nb::float_(v);
    }
    return finish(
        d, [rate](const double* n, double* out, std::size_t k) { core::constant_discount(rate, {n, k}, {out, k}); });
}

nb::object piecewise_discount(InterestRate& ir, const Durations& d, bool validate) {
    if (ir[Rates].is_none() || ir[Terms].is_none() || ir[CumTerms].is_none())
        internal_error("Internal error: piecewise rate arrays not initialized in discount_factor.");
    const double* n = values_of(d);
    if (core::all_nonpositive({n, d.size})) return ones_like(d);
    if (validate) {
        auto table = table_of(ir);
        if (table->has_rate_at_or_below_minus_one()) {
            auto bad = core::positions_at_or_below_minus_one(*table, {n, d.size});
            if (!bad.empty()) {
                nb::object positions = registry().np_array(nb::cast(bad));
                raise(PyExc_ValueError, "Rates ≤ -1 at indices " + py_str(positions) + kNotPositive);
            }
        }
    }
    ensure_prefix_products(ir);
    auto table = table_of(ir);
    return finish(d, [table](const double* x, double* out, std::size_t k) {
        if (k == 1)
            out[0] = table->discount(x[0]);
        else
            table->discount({x, k}, {out, k});
    });
}

nb::object dfn(InterestRate& ir, nb::handle n, const std::string& param_name, bool validate) {
    Durations d = read_durations(n, param_name, validate);
    // The property's reading: a container asks its active scenario.
    if (truthy(active_curve(ir)[IsConstant])) return constant_discount(ir, d, validate);
    return piecewise_discount(ir, d, validate);
}

}  // namespace

nb::object vn_impl(InterestRate& ir, nb::handle n, const std::string& param_name, bool validate) {
    return dfn(active_curve(ir), n, param_name, validate);
}

namespace {

// ---- relative discount and accumulation -------------------------------------------

struct Times {
    nb::object array;  // float64, C-contiguous
    std::span<const double> values;
    bool is_scalar;
};

Times validated_times(nb::handle value, const char* name) {
    NumericInput checked = numeric_input(value, "InterestRate", name);
    Durations d = from_array(checked.array, checked.is_scalar);
    return {checked.array, {d.data, d.size}, checked.is_scalar};
}

std::pair<Times, Times> validate_x_and_x0(nb::handle x_in, nb::handle x0_in) {
    Times x = validated_times(x_in, "x"), x0 = validated_times(x0_in, "x0");
    if (core::any_negative(x.values)) raise(PyExc_ValueError, "'x' contains negative values.");
    if (core::any_negative(x0.values)) raise(PyExc_ValueError, "'x0' contains negative values.");
    nb::object x_shape = x.array.attr("shape"), x0_shape = x0.array.attr("shape");
    if (!x_shape.equal(x0_shape) && x.values.size() > 1 && x0.values.size() > 1)
        raise(PyExc_ValueError, "Incompatible shapes for 'x' and 'x0': " + py_str(x_shape) + " and " +
                                    py_str(x0_shape) + ". Both must have the same shape or one must have size 1.");
    // Same shapes compare element by element, a single value against all;
    // other broadcasts (empty against many) are left to NumPy's rules.
    bool ordered;
    if (x_shape.equal(x0_shape) || x.values.size() == 1 || x0.values.size() == 1) {
        ordered = core::all_at_least(x.values, x0.values);
    } else {
        const Registry& py = registry();
        ordered = truthy(py.np_all(py.np_greater_equal(x.array, x0.array)));
    }
    if (!ordered) raise(PyExc_ValueError, "All values in 'x' must be greater than or equal to 'x0'.");
    return {x, x0};
}

nb::object as_returned(const Times& t) { return t.is_scalar ? nb::object(t.array.attr("item")()) : t.array; }

}  // namespace

nb::object vx(InterestRate& ir, nb::handle x_in, nb::handle x0_in) {
    auto [x, x0] = validate_x_and_x0(x_in, x0_in);
    nb::object difference = checked(PyNumber_Subtract(as_returned(x).ptr(), as_returned(x0).ptr()));
    return vn_impl(ir, difference, "x - x0", false);
}

namespace {

nb::object sn(InterestRate& ir, nb::handle n) {
    nb::object v = vn_impl(ir, n, "n", true);
    // An underflowed discount factor accumulates to infinity, without a warning.
    if (PyFloat_Check(v.ptr())) return nb::float_(core::accumulation_factor(nb::cast<double>(v)));
    auto view = nb::cast<nb::ndarray<double, nb::c_contig, nb::device::cpu>>(v);
    core::to_accumulation_factors({view.data(), view.size()});
    return v;
}

// ---- rate lookup ------------------------------------------------------------

}  // namespace

nb::object get_rate(InterestRate& self, nb::handle t) {
    InterestRate& ir = active_curve(self);
    if (Py_IS_TYPE(t.ptr(), &PyBool_Type)) raise(PyExc_TypeError, kTimeNotNumeric);
    bool scalar = is_numeric(t);
    if (truthy(ir[IsConstant])) {
        if (scalar) return ir[Rate];
        nb::object like = registry().as_f64_safe(t);
        Durations d = from_array(like, false);
        double rate = to_double(ir[Rate], "rate");
        return finish(d, [rate](const double*, double* out, std::size_t k) { std::fill(out, out + k, rate); });
    }
    if (scalar) {
        double time = to_double(t, "t");
        nb::object cached = lru_touch_get(ir, ir[RateCache], time);
        if (!cached.is_none()) return cached;
        double rate = table_of(ir)->rate(table_of(ir)->segment_of(time));
        // A second look narrows the window in which two threads store the same key.
        if (lru_touch_get(ir, ir[RateCache], time).is_none())
            lru_store(ir, ir[RateCache], time, rate, meta_of(ir).field[CacheMaxsize]);
        return nb::float_(rate);
    }
    Durations d = from_array(registry().as_f64_safe(t), false);
    auto table = table_of(ir);
    return finish(d, [table](const double* x, double* out, std::size_t k) { table->rates_at({x, k}, {out, k}); });
}

namespace {

// ---- shifting -----------------------------------------------------------------

// A new curve of the arrays, in years: constant when no segment is left.
nb::object curve_of(const core::CurveArrays& arrays) {
    nb::handle curve_type = nb::type<InterestRate>();
    if (arrays.terms.empty()) return curve_type(nb::float_(arrays.rates.back()));
    return curve_type(nb::arg("terms") = readonly_copy(arrays.terms), nb::arg("rates") = readonly_copy(arrays.rates),
                      nb::arg("term_unit") = "years");
}

nb::object shifted(nb::handle self_obj, nb::handle ts_in) {
    if (!is_numeric(ts_in)) raise(PyExc_TypeError, "[InterestRate] Parameter 'ts' must be numeric.");
    InterestRate& self = curve_arg(self_obj, "self");
    if (has_scenarios(self)) {
        nb::object scenario = scenarios_of(self)[self[ActiveScenario]];
        curve_arg(scenario, "scenario");
        return shifted(scenario, ts_in);
    }
    const double ts = to_double(ts_in, "ts");
    if (truthy(self[IsConstant]) || ts <= 0.0) return deep_copy(self_obj, nb::dict());
    if (self[CumTerms].is_none() || self[Terms].is_none() || self[Rates].is_none())
        raise(PyExc_AssertionError, "piecewise curve without terms or rates cannot be shifted");
    auto as_vector = [](nb::handle array) {
        std::span<const double> values = f64_span(array);
        return std::vector<double>(values.begin(), values.end());
    };
    const core::CurveArrays arrays{as_vector(self[Rates]), as_vector(self[Terms]), as_vector(self[CumTerms])};
    return curve_of(core::shifted(arrays, ts, to_double(meta_of(self).field[ToleranceEps], "tolerance_eps")));
}

}  // namespace

nb::object shifted_for_ts(nb::handle ir_obj, double ts, nb::handle cache) {
    InterestRate& ir = curve_arg(ir_obj, "ir");
    require_dict(cache, "cache");
    if (truthy(active_curve(ir)[IsConstant]) ||
        !core::is_shift(ts, to_double(meta_of(ir).field[ToleranceEps], "tolerance_eps")))
        return nb::borrow(ir_obj);
    nb::object key = nb::make_tuple(ir_obj, nb::float_(ts), ir[ShiftCacheEpoch]);
    nb::object hit = cache.attr("get")(key);
    if (!hit.is_none()) return hit;
    nb::object result = ir_obj.attr("shifted")(nb::float_(ts));
    cache[key] = result;
    return result;
}

std::shared_ptr<const core::PiecewiseTable> valuation_table(InterestRate& ir) {
    if (!truthy(ir[IsConstant])) {
        ensure_prefix_products(ir);
        return table_of(ir);
    }
    // A constant curve's table, kept while the rate slot holds the same float.
    if (!ir.table || !ir.table_key[0].is(ir[Rate])) {
        replace_table(
            ir,
            std::make_shared<const core::PiecewiseTable>(core::discount_table({{to_double(ir[Rate], "rate")}, {}, {}})),
            {ir[Rate], nb::none(), nb::none()});
    }
    return ir.table;
}

std::shared_ptr<core::GridCache> grids_of(InterestRate& ir) {
    if (!ir.grids) ir.grids = std::make_shared<core::GridCache>();
    return ir.grids;
}

void register_discounting(nb::module_& m, CurveClass& cls) {
    cls.def(
        "_dfn",
        [](InterestRate& ir, nb::handle n, const std::string& param_name, nb::handle validate) {
            return dfn(ir, n, param_name, truthy(validate));
        },
        nb::arg("n").none(), nb::arg("param_name") = "n", nb::arg("validate").none() = false,
        "Discount factors of this curve (no scenario forwarding); validation on request.");
    cls.def(
        "_vn",
        [](InterestRate& ir, nb::handle n, const std::string& param_name, nb::handle validate) {
            return vn_impl(ir, n, param_name, truthy(validate));
        },
        nb::arg("n").none(), nb::arg("param_name") = "n", nb::arg("validate").none() = false,
        "Discount factors, forwarded to the active scenario of a container.");
    cls.def(
        "vn", [](InterestRate& ir, nb::handle n) { return vn_impl(ir, n, "n", true); }, nb::arg("n").none(),
        R"doc(Discount factor v^n = (1 + i)^-n for durations in years.

Parameters
----------
n : float or array_like
    Durations in years: a number, a sequence, a NumPy array of any real
    dtype and shape, or a pandas Series.

Returns
-------
float or numpy.ndarray
    A float for a number, else a float64 array of the input's shape. On a
    piecewise curve durations <= 0 give exactly 1.0.

Raises
------
TypeError
    For booleans and non-numeric input.
ValueError
    If a rate reached by the durations is <= -1.

Examples
--------
>>> InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04]).vn(5) == 1.02 ** -5
True
)doc");
    cls.def(
        "_validate_x_and_x0",
        [](InterestRate&, nb::handle x, nb::handle x0) {
            auto [xt, x0t] = validate_x_and_x0(x, x0);
            return nb::make_tuple(as_returned(xt), as_returned(x0t));
        },
        nb::arg("x").none(), nb::arg("x0").none(), "Validated (x, x0): floats for scalars, float64 arrays otherwise.");
    cls.def("vx", &vx, nb::arg("x").none(), nb::arg("x0").none() = 0.0,
            R"doc(Discount factor v^(x - x0) between times x0 <= x (years).

On a piecewise curve this is the discount over the duration x - x0
measured from time 0 of the curve, not a forward factor between the curve
times x0 and x.

Parameters
----------
x : float or array_like
    Later time(s) in years, >= 0.
x0 : float or array_like, default 0.0
    Earlier time(s) in years, >= 0. `x` and `x0` must have the same shape
    or one of them size 1.

Returns
-------
float or numpy.ndarray
    A float when both are numbers, else a float64 array.

Raises
------
TypeError
    For booleans and non-numeric input.
ValueError
    If `x` or `x0` has negative values, the shapes are incompatible, or
    some x < x0.

Examples
--------
>>> ir = InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04])
>>> ir.vx(7, 2) == ir.vn(5) == 1.02 ** -5
True
>>> ir.vx(3, 3)
1.0
)doc");
    cls.def("sn", &sn, nb::arg("n").none(),
            R"doc(Accumulation factor (1 + i)^n = 1 / v^n for durations in years.

Parameters
----------
n : float or array_like
    Durations in years, as for `vn`.

Returns
-------
float or numpy.ndarray
    A float for a number, else a float64 array. Infinite (without a
    warning) where v^n underflows to 0.

Raises
------
TypeError
    For booleans and non-numeric input.

Examples
--------
>>> ir = InterestRate(0.03)
>>> ir.sn(2)
1.0609
>>> ir.sn(1e6)
inf
)doc");
    cls.def("get_rate", &get_rate, nb::arg("t").none(),
            R"doc(Effective annual rate in force at time t (years).

On a piecewise curve a time exactly on a boundary belongs to the earlier
segment (the one ending there), times <= 0 get the first rate and times past
the last term the last rate. Scalar lookups on piecewise curves are cached.

Parameters
----------
t : float or array_like
    Time(s) in years.

Returns
-------
float or numpy.ndarray
    A float for a number, else a new float64 array.

Raises
------
TypeError
    For booleans and non-numeric input.

Examples
--------
>>> ir = InterestRate(terms=[1.0, 2.0], rates=[0.01, 0.015, 0.02])
>>> ir.get_rate(1.0)
0.01
>>> ir.get_rate([-1.0, 1.5, 5.0]).tolist()
[0.01, 0.015, 0.02]
)doc");
    cls.def(
        "shifted", [](nb::handle self, nb::handle ts) { return shifted(self, ts); }, nb::arg("ts").none(),
        R"doc(The curve as seen from time ts: a new curve with the first ts years cut away.

Parameters
----------
ts : float
    Shift in years.

Returns
-------
InterestRate
    A new curve with terms in years; never self, and self is unchanged. A
    copy for ts <= 0 or a constant curve; a constant curve of the last rate
    for ts at or past the end of the last term. A segment ending at ts
    (within the curve's tolerance) is dropped.

Raises
------
TypeError
    If `ts` is a boolean or not a number.

Examples
--------
>>> ir = InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04])
>>> ir.shifted(2.5)
InterestRate(terms=[2.5 5. ], rates=[0.02 0.03 0.04])
>>> ir.shifted(12)
InterestRate(rate=0.040000)
)doc");
    cls.def(
        "_ir_shifted_for_ts",
        [](nb::handle self, nb::handle ts, nb::handle cache) {
            return shifted_for_ts(self, to_double(ts, "ts"), cache);
        },
        nb::arg("ts"), nb::arg("cache"), "Shifted curve through the cache `cache`.");
    m.def(
        "_interest_rate_shifted_for_ts",
        [](nb::handle ir, double ts, nb::handle cache) { return shifted_for_ts(ir, ts, cache); }, nb::arg("ir"),
        nb::arg("ts"), nb::arg("cache"),
        "Shifted curve for `ts`, served from `cache` keyed by (curve, ts, cache generation).");
}

}  // namespace norvane::bindings
