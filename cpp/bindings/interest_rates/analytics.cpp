// Rate analytics: forces of interest, nominal and effective rates, segment
// information, the validation report and the curve analysis.
#include "interest_rates.hpp"

#include "core/rates.hpp"

#include <cmath>
#include <limits>

namespace norvane::bindings {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

nb::dict sign_properties(double rate) {
    nb::dict d;
    d["is_zero"] = rate == 0.0;
    d["is_negative"] = rate < 0.0;
    d["is_positive"] = rate > 0.0;
    return d;
}

std::span<const double> rates_of(InterestRate& ir) {
    if (ir[Rates].is_none()) raise(PyExc_AssertionError, kMissingArrays);
    return f64_span(ir[Rates]);
}

// NumPy's own reductions where its summation order defines the result.
nb::object np_item(const nb::object& reduction, nb::handle array) { return reduction(array).attr("item")(); }

// ---- forces of interest -----------------------------------------------------------

nb::object delta(InterestRate& self, nb::handle t) {
    if (has_scenarios(self)) return delta(active_curve(self), t);
    InterestRate& ir = self;
    if (truthy(ir[IsConstant])) {
        if (ir[Rate].is_none()) raise(PyExc_AssertionError, kNoConstantRate);
        validate_rate_for_force(ir[Rate], "");
        if (ir[ConstantDelta].is_none())
            ir[ConstantDelta] = nb::float_(core::force_of_interest(to_double(ir[Rate], "rate")));
        if (t.is_none()) return ir[ConstantDelta];
        auto [array, is_scalar] = numeric_input(t, "InterestRate.delta()", "t");
        if (is_scalar) return ir[ConstantDelta];
        return registry().np_full_like(array, ir[ConstantDelta], nb::arg("dtype") = "float64");
    }
    if (t.is_none()) raise(PyExc_ValueError, "For piecewise rates, time t must be specified.");
    const bool numeric_key = is_numeric(t);
    if (numeric_key) {
        nb::object cached = lru_touch_get(ir, ir[ForceCache], to_double(t, "t"));
        if (!cached.is_none()) return cached;
    }
    auto [array, is_scalar] = numeric_input(t, "InterestRate.delta()", "t");
    if (is_scalar) {
        double rate = to_double(get_rate(ir, array.attr("item")()), "rate");
        if (core::at_or_below_minus_one(rate)) raise(PyExc_ValueError, "Rate " + float_str(rate) + " ≤ -1");
        double force = core::force_of_interest(rate);
        if (numeric_key) lru_store(ir, ir[ForceCache], to_double(t, "t"), force, meta_of(ir).field[CacheMaxsize]);
        return nb::float_(force);
    }
    nb::object rates = get_rate(ir, array);  // a new array, ours to overwrite
    auto view = nb::cast<nb::ndarray<double, nb::c_contig, nb::device::cpu>>(rates);
    std::span<double> r(view.data(), view.size());
    const std::vector<std::size_t> bad = core::positions_at_or_below_minus_one(r);
    if (!bad.empty()) raise(PyExc_ValueError, "Rates ≤ -1 at indices " + py_str(registry().np_array(nb::cast(bad))));
    core::to_forces_of_interest(r);
    return rates;
}

nb::object average_force(InterestRate& self, nb::handle n) {
    if (has_scenarios(self)) return average_force(active_curve(self), n);
    if (!is_numeric(n)) raise(PyExc_TypeError, "Duration n must be numeric");
    if (truthy(checked(PyObject_RichCompare(n.ptr(), nb::int_(0).ptr(), Py_LE)))) {
        std::string shown = py_str(checked(PyObject_Format(n.ptr(), nb::str("").ptr())));
        raise(PyExc_ValueError, "Duration n must be positive per actuarial practice, got " + shown);
    }
    double v = to_double(vn_impl(self, n, "n", true), "n");
    if (!(v > 0.0))
        raise(PyExc_ValueError, "Cannot calculate average force: discount factor " + float_str(v) +
                                    " ≤ 0 results in undefined average force per actuarial standards");
    const double force = core::accumulated_force(v);
    if (force == 0.0) return nb::float_(0.0);
    // Divided by the caller's own n, as given.
    return nb::float_(checked(PyNumber_TrueDivide(nb::float_(force).ptr(), n.ptr())));
}

// ---- nominal and effective rates --------------------------------------------------

enum class Nominal { Interest, Discount };

nb::object nominal_rate(InterestRate& self, nb::handle m_in, nb::handle t, Nominal kind) {
    const bool interest = kind == Nominal::Interest;
    if (PyBool_Check(m_in.ptr())) raise(PyExc_TypeError, "m must be a plain integer, got " + type_name_of(m_in));
    nb::object m = registry().validate_scalar_numeric(m_in, "m", interest ? "InterestRate.i_m" : "InterestRate.d_m",
                                                      registry().integer_types, registry().int_type);
    if (!PyLong_CheckExact(m.ptr())) m = nb::int_(m);
    if (truthy(checked(PyObject_RichCompare(m.ptr(), nb::int_(0).ptr(), Py_LE))))
        raise(PyExc_ValueError, "m must be a positive integer, got " + py_str(m));
    if (!is_numeric(t)) raise(PyExc_TypeError, "t must be numeric, got " + type_name_of(t));
    double t_f = to_double(t, "t");
    if (!(t_f >= 0.0)) raise(PyExc_ValueError, "t must be non-negative, got " + py_str(t));
    if (has_scenarios(self)) return nominal_rate(active_curve(self), m, nb::float_(t_f), kind);

    double rate = to_double(get_rate(self, nb::float_(t_f)), "rate");
    validate_rate_for_force(
        nb::float_(rate),
        " at t=" + float_str(t_f) + (interest ? " (computing i^(" : " (computing d^(") + py_str(m) + "))");
    const double md = to_double(m, "m");
    return nb::float_(interest ? core::nominal_interest(rate, md) : core::nominal_discount(rate, md));
}

nb::object effective_rate(InterestRate& self, nb::handle t_start, nb::handle t_end) {
    if (truthy(checked(PyObject_RichCompare(t_end.ptr(), t_start.ptr(), Py_LE))))
        raise(PyExc_ValueError, "t_end must be greater than t_start");
    nb::object tau = checked(PyNumber_Subtract(t_end.ptr(), t_start.ptr()));
    double v_start = to_double(vx(self, t_start, nb::float_(0.0)), "t_start");
    double v_end = to_double(vx(self, t_end, nb::float_(0.0)), "t_end");
    if (v_start == 0.0) raise(PyExc_ValueError, "Cannot compute effective rate: discount factor at t_start is zero");
    if (v_end == 0.0) raise(PyExc_ValueError, "Cannot compute effective rate: discount factor at t_end is zero");
    double ratio = v_end / v_start;
    if (ratio == 1.0) return nb::float_(0.0);
    nb::object exponent = checked(PyNumber_TrueDivide(nb::float_(-1.0).ptr(), tau.ptr()));
    nb::object power = checked(PyNumber_Power(nb::float_(ratio).ptr(), exponent.ptr(), Py_None));
    return nb::float_(checked(PyNumber_Subtract(power.ptr(), nb::float_(1.0).ptr())));
}

// ---- segment information ----------------------------------------------------------

nb::dict segment_info(InterestRate& self, nb::handle t) {
    if (!is_numeric(t)) raise(PyExc_TypeError, kTimeNotNumeric);
    if (has_scenarios(self)) return segment_info(active_curve(self), t);
    InterestRate& ir = self;
    const double time = to_double(t, "t");
    nb::dict info;
    if (truthy(ir[IsConstant])) {
        if (ir[Rate].is_none()) raise(PyExc_AssertionError, kNoConstantRate);
        double rate = to_double(ir[Rate], "rate");
        info["type"] = "constant";
        info["rate"] = rate;
        info["rate_properties"] = sign_properties(rate);
        info["segment_start"] = 0.0;
        info["segment_end"] = kInf;
        info["time_queried"] = time;
        return info;
    }
    if (ir[CumTerms].is_none() || ir[Rates].is_none()) raise(PyExc_AssertionError, kMissingArrays);
    std::span<const double> ends = f64_span(ir[CumTerms]), rates = f64_span(ir[Rates]);
    const std::size_t k = valuation_table(ir)->segment_of(time);
    const core::SegmentPosition at = core::segment_position(ends, k, time);
    info["type"] = "piecewise";
    info["segment_index"] = k;
    info["rate"] = rates[k];
    info["rate_properties"] = sign_properties(rates[k]);
    info["segment_start"] = at.start;
    info["segment_end"] = at.end;
    info["segment_duration"] = at.length;
    info["time_queried"] = time;
    info["position_in_segment"] = at.offset;
    return info;
}

// ---- validation report ------------------------------------------------------------

nb::dict curve_policy(InterestRate& ir) {
    nb::dict policy;
    policy["flat_or_piecewise_discount"] = true;
    policy["multi_scenario_curves"] = has_scenarios(ir);
    return policy;
}

const char* monotonicity(InterestRate& ir) {
    if (is_constant(ir)) return "constant";
    switch (core::monotonicity(rates_of(ir))) {
        case core::Monotonicity::SingleRate:
            return "single_rate";
        case core::Monotonicity::Increasing:
            return "increasing";
        case core::Monotonicity::Decreasing:
            return "decreasing";
        case core::Monotonicity::NonMonotonic:
            break;
    }
    return "non_monotonic";
}

nb::dict validate(InterestRate& ir);

nb::dict scenario_summary(InterestRate& ir) {
    nb::dict summary;
    summary["total_scenarios"] = nb::len(scenarios_of(ir));
    summary["active_scenario"] = ir[ActiveScenario];
    summary["scenario_names"] = nb::list(scenarios_of(ir).keys());
    return summary;
}

nb::dict cross_scenario_analysis(InterestRate& ir) {
    std::vector<double> pool;
    for (auto [name, scenario] : scenarios_of(ir)) {
        InterestRate& s = curve_arg(scenario, "scenario");
        if (is_constant(s)) {
            pool.push_back(to_double(s[Rate], "rate"));
        } else {
            auto r = rates_of(s);
            pool.insert(pool.end(), r.begin(), r.end());
        }
    }
    nb::object array = readonly_copy(pool);
    const core::SignCounts signs = core::sign_counts(pool);
    nb::dict cross;
    cross["total_rates"] = pool.size();
    cross["zero_count"] = signs.zero;
    cross["negative_count"] = signs.negative;
    nb::object lo = np_item(registry().np_min, array), hi = np_item(registry().np_max, array);
    cross["min_rate"] = lo;
    cross["max_rate"] = hi;
    cross["rate_spread"] = checked(PyNumber_Subtract(hi.ptr(), lo.ptr()));
    return cross;
}

nb::dict piecewise_report(InterestRate& ir) {
    if (ir[Rates].is_none() || ir[Terms].is_none() || ir[CumTerms].is_none())
        raise(PyExc_AssertionError, kMissingArrays);
    std::span<const double> rates = f64_span(ir[Rates]), terms = f64_span(ir[Terms]), ends = f64_span(ir[CumTerms]);
    const bool has_gaps = core::has_gaps(ends);

    nb::dict structure;
    structure["terms_count"] = terms.size();
    structure["rates_count"] = rates.size();
    structure["terms_valid"] = core::all_positive(terms);
    structure["terms_sum"] = np_item(registry().np_sum, ir[Terms]);
    structure["has_gaps"] = has_gaps;
    structure["max_term"] = np_item(registry().np_max, ir[Terms]);
    structure["min_term"] = np_item(registry().np_min, ir[Terms]);

    const core::SignCounts signs = core::sign_counts(rates);
    nb::object mean = np_item(registry().np_mean, ir[Rates]), std_dev = np_item(registry().np_std, ir[Rates]);
    double mean_d = to_double(mean, "mean");
    nb::dict stats;
    stats["zero_count"] = signs.zero;
    stats["negative_count"] = signs.negative;
    stats["positive_count"] = signs.positive;
    stats["min_rate"] = np_item(registry().np_min, ir[Rates]);
    stats["max_rate"] = np_item(registry().np_max, ir[Rates]);
    stats["mean_rate"] = mean;
    stats["std_rate"] = std_dev;
    stats["rate_volatility"] = core::relative_volatility(to_double(std_dev, "std"), mean_d);
    stats["has_zero_segments"] = signs.zero > 0;

    nb::dict metrics;
    metrics["curve_monotonicity"] = monotonicity(ir);
    metrics["zero_segments_optimal"] = signs.zero <= 1;
    metrics["negative_concentration"] = signs.negative_share();

    nb::dict report;
    report["type"] = "piecewise";
    report["structure"] = structure;
    report["rates"] = registry().np_round(ir[Rates], 6);
    report["rate_statistics"] = stats;
    report["curve_policy"] = curve_policy(ir);
    report["actuarial_metrics"] = metrics;
    report["status"] = has_gaps ? "warning" : "valid";
    return report;
}

nb::dict validate(InterestRate& ir) {
    nb::dict report;
    if (has_scenarios(ir)) {
        nb::dict per_scenario;
        report["scenarios"] = per_scenario;
        report["scenario_summary"] = scenario_summary(ir);
        for (auto [name, scenario] : scenarios_of(ir)) per_scenario[name] = validate(curve_arg(scenario, "scenario"));
        report["cross_scenario_analysis"] = cross_scenario_analysis(ir);
        return report;
    }
    if (!truthy(ir[IsConstant])) return piecewise_report(ir);
    if (ir[Rate].is_none()) raise(PyExc_AssertionError, kNoConstantRate);
    double rate = to_double(ir[Rate], "rate");
    nb::dict properties = sign_properties(rate);
    properties["is_finite"] = core::reported_finite(rate);
    report["type"] = "constant";
    report["rate"] = rate;
    report["rate_properties"] = properties;
    report["curve_policy"] = curve_policy(ir);
    report["status"] = "valid";
    return report;
}

// ---- curve analysis -----------------------------------------------------------------

nb::dict curve_analysis(InterestRate& ir) {
    nb::dict result;
    if (has_scenarios(ir)) {
        for (auto [name, scenario] : scenarios_of(ir)) result[name] = curve_analysis(curve_arg(scenario, "scenario"));
        return result;
    }
    nb::dict factors;
    if (truthy(ir[IsConstant])) {
        if (ir[Rate].is_none()) raise(PyExc_AssertionError, kNoConstantRate);
        double rate = to_double(ir[Rate], "rate");
        nb::dict properties = sign_properties(rate);
        properties["absolute_value"] = std::abs(rate);
        factors["10y"] = vn_impl(ir, nb::int_(10), "n", true);
        factors["30y"] = vn_impl(ir, nb::int_(30), "n", true);
        result["type"] = "constant";
        result["curve_policy"] = curve_policy(ir);
        result["rate"] = rate;
        result["rate_properties"] = properties;
        result["key_discount_factors"] = factors;
        return result;
    }
    if (ir[Terms].is_none()) raise(PyExc_AssertionError, kMissingArrays);
    std::span<const double> rates = rates_of(ir);
    nb::object lo = np_item(registry().np_min, ir[Rates]), hi = np_item(registry().np_max, ir[Rates]);
    nb::object std_dev = np_item(registry().np_std, ir[Rates]), mean = np_item(registry().np_mean, ir[Rates]);
    const core::SignCounts signs = core::sign_counts(rates);

    nb::dict range, properties, shape;
    range["min"] = lo;
    range["max"] = hi;
    range["spread"] = checked(PyNumber_Subtract(hi.ptr(), lo.ptr()));
    properties["zero_count"] = signs.zero;
    properties["negative_count"] = signs.negative;
    properties["positive_count"] = signs.positive;
    properties["all_finite"] = core::all_reported_finite(rates);
    shape["monotonicity"] = monotonicity(ir);
    shape["zero_rate_segments"] = signs.zero;
    shape["negative_rate_segments"] = signs.negative;
    shape["volatility"] = std_dev;
    shape["mean_rate"] = mean;

    // One vectorised call for the four horizons.
    nb::object horizons = registry().np_array(nb::make_tuple(1, 5, 10, 30));
    nb::object values = registry().np_atleast_1d(vn_impl(ir, horizons, "n", true));
    const char* labels[] = {"1y", "5y", "10y", "30y"};
    for (std::size_t i = 0; i < 4; ++i)
        factors[labels[i]] = nb::float_(to_double(values[nb::int_(i)], "discount factor"));

    result["type"] = "piecewise";
    result["curve_policy"] = curve_policy(ir);
    result["curve_length"] = np_item(registry().np_sum, ir[Terms]);
    result["segment_count"] = nb::len(ir[Terms]);
    result["rate_range"] = range;
    result["rate_properties"] = properties;
    result["curve_properties"] = shape;
    result["key_discount_factors"] = factors;
    return result;
}

}  // namespace

nb::dict validation_report(InterestRate& ir) { return validate(ir); }
nb::dict policy_flags(InterestRate& ir) { return curve_policy(ir); }

void register_analytics(CurveClass& cls) {
    cls.def("delta", &delta, nb::arg("t").none() = nb::none(),
            R"doc(Force of interest ln(1 + i) at time t (years).

Parameters
----------
t : float, array_like or None, default None
    Time(s) in years, at the rate in force there (see `get_rate`). Optional
    on a constant curve; required on a piecewise curve.

Returns
-------
float or numpy.ndarray
    A float for a number (or for no t), else a float64 array of the input's
    shape. A zero rate gives exactly 0.0. Scalar queries are cached.

Raises
------
TypeError
    For booleans and non-numeric `t`.
ValueError
    If `t` is omitted on a piecewise curve.

Examples
--------
>>> InterestRate(0.03).delta()
0.02955880224154443
>>> InterestRate(terms=[5], rates=[0.02, 0.03]).delta([2.0, 6.0]).tolist()
[0.01980262729617973, 0.02955880224154443]
)doc");
    cls.def("get_average_force", &average_force, nb::arg("n").none(),
            R"doc(Average force of interest over [0, n]: -ln(v^n) / n.

Parameters
----------
n : float
    Horizon in years, > 0.

Returns
-------
float
    The average force; exactly 0.0 when v^n is 1.

Raises
------
TypeError
    If `n` is a boolean or not a number.
ValueError
    If `n` <= 0, or v^n is not positive.

Examples
--------
>>> round(InterestRate(0.03).get_average_force(10), 6)
0.029559
)doc");
    cls.def(
        "i_m", [](InterestRate& ir, nb::handle m, nb::handle t) { return nominal_rate(ir, m, t, Nominal::Interest); },
        nb::arg("m").none(), nb::arg("t").none() = 0.0,
        R"doc(Nominal interest rate convertible m-thly: i^(m) = m((1 + i)^(1/m) - 1).

Parameters
----------
m : int
    Conversion frequency, any positive integer (not a boolean).
t : float, default 0.0
    Time in years (>= 0) whose rate in force i is converted.

Returns
-------
float
    i^(m); m = 1 gives i itself.

Raises
------
TypeError
    If `m` is a boolean or not an integer, or `t` is a boolean or not a
    number.
ValueError
    If `m` <= 0, or `t` is negative or NaN.

Examples
--------
>>> ir = InterestRate(0.03)
>>> ir.i_m(1)
0.03
>>> round(ir.i_m(12), 6)
0.029595
)doc");
    cls.def(
        "d_m", [](InterestRate& ir, nb::handle m, nb::handle t) { return nominal_rate(ir, m, t, Nominal::Discount); },
        nb::arg("m").none(), nb::arg("t").none() = 0.0,
        R"doc(Nominal discount rate convertible m-thly: d^(m) = m(1 - (1 + i)^(-1/m)).

Parameters
----------
m : int
    Conversion frequency, any positive integer (not a boolean).
t : float, default 0.0
    Time in years (>= 0) whose rate in force i is converted.

Returns
-------
float
    d^(m); m = 1 gives d = i / (1 + i).

Raises
------
TypeError
    If `m` is a boolean or not an integer, or `t` is a boolean or not a
    number.
ValueError
    If `m` <= 0, or `t` is negative or NaN.

Examples
--------
>>> ir = InterestRate(0.03)
>>> ir.d_m(1)
0.029126213592233007
>>> round(ir.d_m(12), 6)
0.029522
)doc");
    cls.def("get_effective_rate", &effective_rate, nb::arg("t_start").none(), nb::arg("t_end").none(),
            R"doc(Compound annual rate over [t_start, t_end]: (v(t_end) / v(t_start))^(-1/tau) - 1.

Parameters
----------
t_start, t_end : float
    Times in years, 0 <= t_start < t_end; tau = t_end - t_start.

Returns
-------
float
    The effective annual rate; exactly 0.0 when the two discount factors
    are equal.

Raises
------
TypeError
    For booleans and non-numeric times.
ValueError
    If t_end <= t_start, a time is negative, or a discount factor is zero.

Examples
--------
>>> round(InterestRate(0.03).get_effective_rate(0.0, 1.0), 8)
0.03
)doc");
    cls.def("get_segment_info", &segment_info, nb::arg("t").none(),
            R"doc(Describe the rate segment in force at time t (years).

Parameters
----------
t : float
    Time in years; negative and non-finite times are accepted.

Returns
-------
dict
    Keys "type", "rate", "rate_properties", "segment_start",
    "segment_end" and "time_queried"; a piecewise curve adds
    "segment_index", "segment_duration" and "position_in_segment". A
    boundary time belongs to the earlier segment; the last segment ends at
    inf.

Raises
------
TypeError
    If `t` is a boolean or not a number.

Examples
--------
>>> ir = InterestRate(terms=[2.0, 3.0], rates=[0.01, 0.02, 0.03])
>>> info = ir.get_segment_info(2.0)
>>> info["segment_index"], info["segment_start"], info["segment_end"]
(0, 0.0, 2.0)
)doc");
    cls.def("_curve_policy", &curve_policy, "Flags stating what the discount engine supports.");
    cls.def("_check_monotonicity", &monotonicity,
            "Shape of the rate sequence: constant, single_rate, increasing, decreasing or non_monotonic.");
    cls.def("validate", &validate,
            R"doc(Machine-readable validation report of the curve; findings never raise.

Returns
-------
dict
    Constant curve: "type", "rate", "rate_properties", "curve_policy" and
    "status" (always "valid"). Piecewise curve: "type", "structure",
    "rates", "rate_statistics", "curve_policy", "actuarial_metrics" and
    "status" ("valid", or "warning" when boundaries do not increase).
    Scenario container: "scenarios" (each scenario's report),
    "scenario_summary" and "cross_scenario_analysis".

Examples
--------
>>> report = InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04]).validate()
>>> report["status"], report["actuarial_metrics"]["curve_monotonicity"]
('valid', 'increasing')
)doc");
    cls.def("curve_analysis", &curve_analysis,
            R"doc(Concise analytical summary of the curve, as native Python values.

Returns
-------
dict
    Constant curve: "type", "curve_policy", "rate", "rate_properties" and
    "key_discount_factors" at 10 and 30 years. Piecewise curve: "type",
    "curve_policy", "curve_length", "segment_count", "rate_range",
    "rate_properties", "curve_properties" and "key_discount_factors" at 1,
    5, 10 and 30 years. Scenario container: each scenario's summary by
    name.

Examples
--------
>>> InterestRate(0.03).curve_analysis()["key_discount_factors"]
{'10y': 0.7440939148967249, '30y': 0.4119867595159064}
)doc");
}

}  // namespace norvane::bindings
