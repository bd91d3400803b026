// Reporting: export to dict, JSON and the regulatory layout, reading an export
// back, and the text forms.
#include "interest_rates.hpp"

#include "core/rates.hpp"

namespace norvane::bindings {

namespace {

nb::object timestamp() { return registry().datetime_now().attr("isoformat")(); }

// The host's round(x, 6) on each element, into a list.
nb::list rounded_list(nb::handle array) {
    nb::list out;
    for (double x : f64_span(array)) out.append(registry().builtin_round(nb::float_(x), 6));
    return out;
}

// NumPy's printed form of the array rounded to six decimals: [5. 5.], [0.02 0.03].
std::string printed(nb::handle array) { return py_str(registry().np_round(array, 6)); }

std::string fixed6(nb::handle rate) { return py_str(nb::str("{:.6f}").attr("format")(rate)); }

nb::dict single_payload(InterestRate& ir) {
    nb::dict result;
    if (is_constant(ir)) {
        if (ir[Rate].is_none()) raise(PyExc_AssertionError, kNoConstantRate);
        result["type"] = "constant";
        result["rate"] = nb::float_(to_double(ir[Rate], "rate"));
        return result;
    }
    if (ir[Terms].is_none() || ir[Rates].is_none()) raise(PyExc_AssertionError, kMissingArrays);
    result["type"] = "piecewise";
    result["terms"] = rounded_list(ir[Terms]);
    result["rates"] = rounded_list(ir[Rates]);
    return result;
}

nb::object export_curve(InterestRate& ir, const std::string& format) {
    nb::dict result;
    if (has_scenarios(ir)) {
        // Scenarios are always exported in dict form.
        for (auto [name, scenario] : scenarios_of(ir)) result[name] = single_payload(curve_arg(scenario, "scenario"));
        if (format == "regulatory") {
            nb::dict meta;
            meta["scenario_count"] = nb::len(scenarios_of(ir));
            meta["active_scenario"] = ir[ActiveScenario];
            meta["curve_policy"] = policy_flags(ir);
            meta["export_timestamp"] = timestamp();
            result["_metadata"] = meta;
        }
    } else {
        result = single_payload(ir);
        if (format == "regulatory") {
            nb::dict report = validation_report(ir);
            nb::dict meta;
            meta["export_timestamp"] = timestamp();  // taken after the validation
            meta["curve_policy"] =
                report.contains("curve_policy") ? nb::object(report["curve_policy"]) : nb::object(policy_flags(ir));
            meta["rate_statistics"] =
                report.contains("rate_statistics") ? nb::object(report["rate_statistics"]) : nb::object(nb::dict());
            result["_regulatory_metadata"] = meta;
        }
    }
    if (format == "json") return registry().json_dumps(result, nb::arg("indent") = 2);
    return result;
}

// ---- reading an export back -------------------------------------------------------

[[noreturn]] void malformed(const std::string& why) {
    raise(PyExc_ValueError, "[InterestRate.from_export] malformed payload: " + why);
}

nb::object required(nb::handle mapping, const char* key, const std::string& where) {
    if (!nb::borrow<nb::dict>(mapping).contains(key)) malformed(where + "missing key '" + key + "'");
    return mapping[key];
}

// The constructor argument of one single-curve payload: a rate or (terms, rates).
nb::object curve_argument(nb::handle payload, const std::string& where) {
    if (!nb::isinstance<nb::dict>(payload)) malformed(where + "expected a dict, got " + type_name_of(payload));
    nb::object kind = required(payload, "type", where);
    if (kind.equal(nb::str("constant"))) return required(payload, "rate", where);
    if (kind.equal(nb::str("piecewise")))
        return nb::make_tuple(required(payload, "terms", where), required(payload, "rates", where));
    malformed(where + "unknown curve type " + py_repr(kind));
}

nb::object from_export(nb::handle cls, nb::handle payload_in) {
    nb::object payload = nb::borrow(payload_in);
    if (nb::isinstance<nb::str>(payload)) {
        try {
            payload = registry().json_loads(payload);
        } catch (nb::python_error& e) {
            if (!e.matches(PyExc_ValueError)) throw;
            malformed("not valid JSON (" + py_str(e.value()) + ")");
        }
    } else if (!nb::isinstance<nb::dict>(payload)) {
        raise(PyExc_TypeError,
              "[InterestRate.from_export] payload must be a dict or a JSON string, got " + type_name_of(payload));
    }
    if (!nb::isinstance<nb::dict>(payload)) malformed("the JSON text is not an object");
    nb::dict data = nb::borrow<nb::dict>(payload);
    try {
        if (data.contains("type")) {
            nb::object argument = curve_argument(data, "");
            if (nb::isinstance<nb::tuple>(argument))
                return cls(nb::arg("terms") = argument[0], nb::arg("rates") = argument[1]);
            return cls(argument);
        }
        nb::dict scenarios;
        for (auto [name, entry] : data) {
            if (nb::isinstance<nb::str>(name) && nb::str(name).equal(nb::str("_metadata"))) continue;
            scenarios[name] = curve_argument(entry, "scenario " + py_repr(name) + ": ");
        }
        if (nb::len(scenarios) == 0) malformed("no curve and no scenarios");
        nb::object curve = cls(scenarios);
        if (data.contains("_metadata") && nb::isinstance<nb::dict>(data["_metadata"]) &&
            nb::borrow<nb::dict>(data["_metadata"]).contains("active_scenario"))
            curve.attr("active_scenario") = data["_metadata"]["active_scenario"];
        return curve;
    } catch (nb::python_error& e) {
        // A payload that names a curve the constructor refuses is malformed too.
        if (!e.matches(PyExc_TypeError) && !e.matches(PyExc_ValueError)) throw;
        malformed(py_str(e.value()));
    }
}

// ---- text forms ---------------------------------------------------------------------

std::string text(InterestRate& ir) {
    if (has_scenarios(ir)) {
        std::string names, lines;
        for (auto [name, scenario] : scenarios_of(ir)) {
            names += (names.empty() ? "" : ", ") + py_str(name);
            lines += "\n  " + py_str(name) + ": " + text(curve_arg(scenario, "scenario"));
        }
        return "InterestRate scenarios: " + names + " (active: " + py_str(ir[ActiveScenario]) + ")" + lines;
    }
    if (is_constant(ir)) {
        double rate = to_double(ir[Rate], "rate");
        std::string flag = rate == 0.0 ? " (zero rate)" : rate < 0.0 ? " (negative rate)" : "";
        return "InterestRate: constant rate = " + fixed6(ir[Rate]) + flag;
    }
    const core::SignCounts signs = core::sign_counts(f64_span(ir[Rates]));
    std::string out = "InterestRate: piecewise terms=" + printed(ir[Terms]) + ", rates=" + printed(ir[Rates]);
    if (signs.zero > 0 || signs.negative > 0)
        out += " (" + std::to_string(signs.zero) + " zero, " + std::to_string(signs.negative) + " negative)";
    return out;
}

std::string representation(InterestRate& ir) {
    if (has_scenarios(ir))
        return "InterestRate(scenarios=" + py_repr(nb::list(scenarios_of(ir).keys())) + ", active='" +
               py_str(ir[ActiveScenario]) + "')";
    if (is_constant(ir)) return "InterestRate(rate=" + fixed6(ir[Rate]) + ")";
    if (ir[Terms].is_none() || ir[Rates].is_none()) raise(PyExc_AssertionError, kMissingArrays);
    return "InterestRate(terms=" + printed(ir[Terms]) + ", rates=" + printed(ir[Rates]) + ")";
}

}  // namespace

void register_reporting(CurveClass& cls) {
    cls.def(
        "export",
        [](InterestRate& ir, nb::handle format) {
            // Any other value, of any type, exports as "dict".
            return export_curve(ir, nb::isinstance<nb::str>(format) ? nb::borrow<nb::str>(format).c_str() : "");
        },
        nb::arg("format").none() = "dict",
        R"doc(Serialise the curve.

Parameters
----------
format : {"dict", "json", "regulatory"}, default "dict"
    "dict": the curve data (a constant rate at full precision, piecewise
    terms and rates rounded to six decimals; a container maps each scenario
    name to its dict). "json": the same as JSON text indented by two.
    "regulatory": the dict plus an export timestamp, the curve policy and,
    for a single curve, the rate statistics. Any other value acts as "dict".

Returns
-------
dict or str
    A str for "json", else a dict. `from_export` reads any of them back.

Examples
--------
>>> InterestRate(0.03).export()
{'type': 'constant', 'rate': 0.03}
>>> print(InterestRate(terms=[1.0], rates=[0.01, 0.02]).export("json"))
{
  "type": "piecewise",
  "terms": [
    1.0
  ],
  "rates": [
    0.01,
    0.02
  ]
}
)doc");
    cls.def(
        "_get_current_timestamp", [](InterestRate&) { return timestamp(); }, "Local wall-clock time as ISO 8601 text.");
    cls.attr("from_export") =
        checked(PyClassMethod_New(nb::cpp_function(&from_export, nb::arg("cls"), nb::arg("payload").none(),
                                                   R"doc(Rebuild a curve from the payload that `export` wrote.

Parameters
----------
payload : dict or str
    A constant, piecewise or scenario-container export in the "dict",
    "json" (str) or "regulatory" format; metadata entries are ignored,
    except that a regulatory container export restores its active scenario.

Returns
-------
InterestRate
    A new curve equal to the exported one (up to the six-decimal rounding
    of piecewise exports).

Raises
------
TypeError
    If `payload` is neither a dict nor a str.
ValueError
    If the payload is malformed: invalid JSON, missing keys, an unknown
    curve type, or curve data the constructor refuses.

Examples
--------
>>> ir = InterestRate(terms=[5, 5], rates=[0.02, 0.03, 0.04])
>>> InterestRate.from_export(ir.export("json")) == ir
True
)doc")
                                      .ptr()));
    cls.def("__str__", &text, "Human-readable text of the curve, flagging zero and negative rates.");
    cls.def("summary", &text, R"doc(Human-readable text of the curve, the same as str(curve).

Returns
-------
str
    Rates shown to six decimals; zero and negative rates are called out, and
    a scenario container lists each scenario on its own line.

Examples
--------
>>> InterestRate(0.03).summary()
'InterestRate: constant rate = 0.030000'
>>> InterestRate(terms=[5], rates=[0.0, -0.01]).summary()
'InterestRate: piecewise terms=[5.], rates=[ 0.   -0.01] (1 zero, 1 negative)'
)doc");
    cls.def("__repr__", &representation, "Concise developer form, such as InterestRate(rate=0.030000).");
}

}  // namespace norvane::bindings
