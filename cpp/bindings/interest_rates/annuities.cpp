// Annuities: the public methods a and ä, their router and the scalar dispatch
// to the annuity engine of the configured calculation mode.
#include "interest_rates.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace norvane::bindings {

namespace {

struct Siblings {
    nb::object ndim, detect_batch, on_error_check, record_ids_check, t_output_check;
    nb::object shift_checks, frequency_checks, cashflow_checks, has_growth, resolve_gr, amounts_skip;
    nb::object dispatch_table, annuity_dispatcher, zero_flows;
};

const Siblings& siblings() {
    static Siblings* s = [] {
        auto m = nb::module_::import_("norvane.interest_rates");
        auto* r = new Siblings();  // leaked with the module's other references
        r->ndim = nb::module_::import_("numpy").attr("ndim");
        r->detect_batch = m.attr("_detect_batch_ir_annuity");
        r->on_error_check = m.attr("_validate_on_error_batch_only");
        r->record_ids_check = m.attr("_validate_record_ids_batch_only");
        r->t_output_check = m.attr("_validate_t_output");
        r->shift_checks = m.attr("_validate_shift_deferment_and_duration");
        r->frequency_checks = m.attr("_validate_frequency_and_payment_timing");
        r->cashflow_checks = m.attr("_validate_cashflow_inputs");
        r->has_growth = m.attr("_has_growth_rate_param");
        r->resolve_gr = m.attr("_resolve_gr");
        r->amounts_skip = m.attr("_cashflow_amounts_payment_skip");
        r->dispatch_table = m.attr("_ANNUITY_CALCULATION_MODE_DISPATCH");
        r->annuity_dispatcher = m.attr("Dispatcher").attr("ANNUITY");
        r->zero_flows = nb::module_::import_("norvane.engine.annuity").attr("_zero_flows");
        return r;
    }();
    return *s;
}

std::string prefix(const std::string& method_name) { return "[" + method_name + "]"; }

[[noreturn]] void annuity_error(const std::string& method_name, const std::string& text) {
    throw nb::value_error((prefix(method_name) + text).c_str());
}

double as_double(nb::handle h) { return nb::cast<double>(nb::float_(h)); }

// ---- the router ---------------------------------------------------------------

nb::object public_route(nb::handle self, const std::string& method_name, int payment_timing, nb::handle n_in,
                        nb::handle d, nb::handle ts, nb::handle m, nb::handle gr, nb::handle cashflow_times,
                        nb::handle cashflow_amounts, nb::handle benefits, bool return_flows, nb::handle t_output,
                        nb::handle on_error, nb::handle record_ids) {
    const Siblings& S = siblings();
    nb::object n = nb::borrow(n_in);
    // A scalar infinite term (either sign) is a perpetuity.
    if (!n.is_none() && nb::cast<long>(S.ndim(n)) == 0 && std::isinf(as_double(n))) n = nb::none();
    nb::tuple detected = nb::borrow<nb::tuple>(S.detect_batch(n, d, ts, m, gr));
    nb::object is_batch_obj = detected[0], size = detected[1];
    const bool is_batch = truthy(is_batch_obj);
    S.on_error_check(on_error, is_batch_obj, method_name);
    S.record_ids_check(record_ids, is_batch_obj, size, method_name);
    S.t_output_check(t_output, return_flows, is_batch_obj, method_name);
    if (!benefits.is_none() && !is_batch) annuity_error(method_name, " benefits requires batch mode (array n, d, ts, m, or gr).");
    if (is_batch) {
        nb::object times = cashflow_times.is_none() ? nb::none() : refs().as_f64_safe(cashflow_times);
        nb::object grid = t_output.is_none() ? nb::none() : refs().as_f64_safe(t_output);
        return self.attr("_annuity_batch_dispatch")(
            nb::arg("n") = n, nb::arg("d") = d, nb::arg("ts") = ts, nb::arg("m") = m, nb::arg("gr") = gr,
            nb::arg("cashflow_times") = times, nb::arg("cashflow_amounts") = cashflow_amounts,
            nb::arg("benefits") = benefits, nb::arg("return_flows") = return_flows, nb::arg("t_output") = grid,
            nb::arg("on_error") = on_error, nb::arg("record_ids") = record_ids,
            nb::arg("payment_timing") = payment_timing, nb::arg("method_name") = method_name);
    }
    return self.attr("_annuity_dispatch")(
        nb::arg("ts") = ts, nb::arg("d") = d, nb::arg("n") = n, nb::arg("m") = m, nb::arg("gr") = gr,
        nb::arg("cashflow_times") = cashflow_times, nb::arg("cashflow_amounts") = cashflow_amounts,
        nb::arg("payment_timing") = payment_timing, nb::arg("return_flows") = return_flows,
        nb::arg("method_name") = method_name);
}

// ---- the scalar dispatch ----------------------------------------------------------

struct ExplicitSchedule {
    nb::object times, amounts;  // float64 arrays or None
};

// Explicit times are times since inception plus the deferment; seen from the
// valuation time ts they move by d - ts, and payments before ts are dropped.
ExplicitSchedule align_explicit(const std::string& method_name, nb::object times, nb::object amounts, double d,
                                double ts) {
    if (!amounts.is_none() && ndim_of(amounts) != 1) annuity_error(method_name, " 'payment_amount' must be a 1-D sequence.");
    if (times.is_none()) return {times, amounts};
    std::span<const double> t = f64_span(times);
    if (!amounts.is_none() && nb::len(amounts) != t.size())
        annuity_error(method_name, " 'cashflow_amounts' length must match provided 'cashflow_times' length.");
    std::vector<double> kept_times, kept_amounts;
    std::span<const double> a = amounts.is_none() ? std::span<const double>() : f64_span(amounts);
    for (std::size_t i = 0; i < t.size(); ++i) {
        double relative = t[i] + d - ts;
        if (relative < 0.0) continue;
        kept_times.push_back(relative);
        kept_amounts.push_back(a.empty() ? 1.0 : a[i]);
    }
    return {readonly_copy(kept_times), readonly_copy(kept_amounts)};
}

nb::object scalar_dispatch(nb::handle self_obj, nb::handle ts_in, nb::handle d_in, nb::handle n_in, nb::handle m_in,
                           nb::handle gr, nb::handle cashflow_times, nb::handle cashflow_amounts, int payment_timing,
                           bool return_flows, const std::string& method_name, bool validate, nb::handle ir_shifted) {
    const Siblings& S = siblings();
    InterestRate& self = nb::cast<InterestRate&>(self_obj);
    nb::object mode = self_obj.attr("calculation_mode");
    nb::object config = self[Config];
    nb::object decimals = config.attr("decimals").attr("annuities");
    if (validate) {
        S.shift_checks(nb::arg("ts") = ts_in, nb::arg("ts_integer") = config.attr("force_integer_ts"),
                       nb::arg("d") = d_in, nb::arg("n") = n_in, nb::arg("cashflow_times") = cashflow_times,
                       nb::arg("method_name") = method_name, nb::arg("has_growth_rate") = S.has_growth(gr));
        S.frequency_checks(nb::arg("m") = m_in, nb::arg("payment_timing") = payment_timing,
                           nb::arg("method_name") = method_name);
        S.cashflow_checks(nb::arg("cashflow_times") = cashflow_times, nb::arg("cashflow_amounts") = cashflow_amounts,
                          nb::arg("calculation_mode") = mode, nb::arg("m") = m_in, nb::arg("n") = n_in,
                          nb::arg("method_name") = method_name, nb::arg("caller") = S.annuity_dispatcher);
    }
    nb::object times = cashflow_times.is_none() ? nb::none() : refs().as_f64_safe(cashflow_times);
    nb::object amounts = cashflow_amounts.is_none() ? nb::none() : refs().as_f64_safe(cashflow_amounts);

    const Meta& meta = meta_of(self);
    const double ts = as_double(ts_in), d = as_double(d_in);
    const long m = nb::cast<long>(nb::int_(m_in));
    const double elapsed = std::max(0.0, ts - d), d_eff = std::max(0.0, d - ts);
    const double term = n_in.is_none() ? as_double(meta.field[PerpetuityNEff]) : as_double(n_in);
    const double n_eff = std::max(0.0, term - elapsed);
    if (n_eff == 0.0) {
        if (return_flows) return S.zero_flows(mode, payment_timing);
        return nb::float_(0.0);
    }
    const double total_payments = n_eff * static_cast<double>(m);
    long payments_size = static_cast<long>(total_payments);
    const double payments_frac = total_payments - static_cast<double>(payments_size);
    // A remainder within the tolerance is floating-point noise, not a payment.
    if (payments_frac > as_double(meta.field[ToleranceEps])) ++payments_size;

    ExplicitSchedule schedule = align_explicit(method_name, times, amounts, d, ts);
    if (!gr.is_none() && !amounts.is_none())
        annuity_error(method_name,
                      " 'gr' and 'cashflow_amounts' are mutually exclusive: 'cashflow_amounts' defines explicit "
                      "payment amounts, so 'gr' has no effect. Pass gr=None when using cashflow_amounts.");
    nb::object gr_resolved = S.resolve_gr(gr);
    nb::object aligned_amounts = schedule.amounts;
    if (times.is_none() && !amounts.is_none()) {
        nb::object skip = S.amounts_skip(ts, n_eff, method_name, m, nb::len(amounts), meta.field[ToleranceEps]);
        aligned_amounts = amounts[nb::slice(skip, nb::none(), nb::none())];
    }
    nb::object curve = ir_shifted.is_none()
                           ? nb::module_::import_("norvane.interest_rates")
                                 .attr("_interest_rate_shifted_for_ts")(self_obj, ts, self[TsShiftCache])
                           : nb::borrow(ir_shifted);
    nb::object engine = S.dispatch_table[mode];
    return engine(nb::arg("d") = d_eff, nb::arg("n") = n_eff, nb::arg("payments_size") = payments_size,
                  nb::arg("payments_frac") = payments_frac, nb::arg("m") = m, nb::arg("gr") = gr_resolved,
                  nb::arg("ir") = curve, nb::arg("decimals") = decimals, nb::arg("payment_timing") = payment_timing,
                  nb::arg("survival_func") = self_obj.attr("_survival_one"),
                  nb::arg("cashflow_times") = schedule.times, nb::arg("cashflow_amounts") = aligned_amounts,
                  nb::arg("return_flows") = return_flows);
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
)doc";

std::string annuity_doc(const char* kind, const char* when, bool with_times) {
    const char* times_doc =
        with_times ? "cashflow_times : array_like, optional\n    Explicit payment times since inception (plus d).\n" : "";
    std::string text(std::strlen(kAnnuityDoc) + 256, '\0');
    int len = std::snprintf(text.data(), text.size(), kAnnuityDoc, kind, when, times_doc);
    text.resize(static_cast<std::size_t>(len));
    return text;
}

}  // namespace

void register_annuities(CurveClass& cls) {
    cls.def(
        "_annuity_public_route",
        [](nb::handle self, nb::str method_name, nb::int_ payment_timing, nb::handle n, nb::handle d, nb::handle ts,
           nb::handle m, nb::handle gr, nb::handle cashflow_times, nb::handle cashflow_amounts, nb::handle benefits,
           nb::handle return_flows, nb::handle t_output, nb::handle on_error, nb::handle record_ids) {
            if (!PyUnicode_CheckExact(method_name.ptr()) || !PyLong_CheckExact(payment_timing.ptr()))
                throw nb::type_error("method_name must be a str and payment_timing an int");
            return public_route(self, method_name.c_str(), nb::cast<int>(payment_timing), n, d, ts, m, gr,
                                cashflow_times, cashflow_amounts, benefits, truthy(return_flows), t_output, on_error,
                                record_ids);
        },
        nb::arg("method_name"), nb::arg("payment_timing"), nb::arg("n").none(), nb::arg("d").none(),
        nb::arg("ts").none(), nb::arg("m").none(), nb::arg("gr").none(), nb::arg("cashflow_times").none(),
        nb::arg("cashflow_amounts").none(), nb::arg("benefits").none(), nb::arg("return_flows").none(),
        nb::arg("t_output").none(), nb::arg("on_error").none(), nb::arg("record_ids").none(),
        "Route a and ä to scalar or portfolio valuation after the checks that do not depend on it.");

    static const std::string immediate_doc = annuity_doc("immediate", "end", true);
    static const std::string due_doc = annuity_doc("due", "start", false);
    cls.def(
        "a",
        [](nb::handle self, nb::handle ts, nb::handle d, nb::handle n, nb::handle m, nb::handle gr,
           nb::handle cashflow_times, nb::handle cashflow_amounts, nb::handle benefits, nb::handle return_flows,
           nb::handle t_output, nb::handle on_error, nb::handle record_ids) {
            return public_route(self, "InterestRate.a", 1, n, d, ts, m, gr, cashflow_times, cashflow_amounts,
                                benefits, truthy(return_flows), t_output, on_error, record_ids);
        },
        nb::kw_only(), nb::arg("ts").none() = 0.0, nb::arg("d").none() = 0.0, nb::arg("n").none() = nb::none(),
        nb::arg("m").none() = 1, nb::arg("gr").none() = nb::none(), nb::arg("cashflow_times").none() = nb::none(),
        nb::arg("cashflow_amounts").none() = nb::none(), nb::arg("benefits").none() = nb::none(),
        nb::arg("return_flows").none() = false, nb::arg("t_output").none() = nb::none(),
        nb::arg("on_error").none() = "raise", nb::arg("record_ids").none() = nb::none(),
        immediate_doc.c_str());
    cls.def(
        "\u00e4",
        [](nb::handle self, nb::handle ts, nb::handle d, nb::handle n, nb::handle m, nb::handle gr,
           nb::handle cashflow_amounts, nb::handle benefits, nb::handle return_flows, nb::handle t_output,
           nb::handle on_error, nb::handle record_ids) {
            return public_route(self, "InterestRate.\u00e4", 0, n, d, ts, m, gr, nb::none(), cashflow_amounts,
                                benefits, truthy(return_flows), t_output, on_error, record_ids);
        },
        nb::kw_only(), nb::arg("ts").none() = 0.0, nb::arg("d").none() = 0.0, nb::arg("n").none() = nb::none(),
        nb::arg("m").none() = 1, nb::arg("gr").none() = nb::none(), nb::arg("cashflow_amounts").none() = nb::none(),
        nb::arg("benefits").none() = nb::none(), nb::arg("return_flows").none() = false,
        nb::arg("t_output").none() = nb::none(), nb::arg("on_error").none() = "raise",
        nb::arg("record_ids").none() = nb::none(), due_doc.c_str());
    cls.def(
        "_annuity_dispatch",
        [](nb::handle self, nb::handle ts, nb::handle d, nb::handle n, nb::handle m, nb::handle gr,
           nb::handle cashflow_times, nb::handle cashflow_amounts, nb::int_ payment_timing, nb::handle return_flows,
           nb::str method_name, nb::handle validate, nb::handle ir_shifted) {
            return scalar_dispatch(self, ts, d, n, m, gr, cashflow_times, cashflow_amounts,
                                   nb::cast<int>(payment_timing), truthy(return_flows), method_name.c_str(),
                                   truthy(validate), ir_shifted);
        },
        nb::kw_only(), nb::arg("ts").none() = 0.0, nb::arg("d").none() = 0.0, nb::arg("n").none() = nb::none(),
        nb::arg("m").none() = 1, nb::arg("gr").none() = nb::none(), nb::arg("cashflow_times").none() = nb::none(),
        nb::arg("cashflow_amounts").none() = nb::none(), nb::arg("payment_timing") = 1,
        nb::arg("return_flows").none() = false, nb::arg("method_name") = "", nb::arg("validate").none() = true,
        nb::arg("ir_shifted").none() = nb::none(),
        "Value one annuity: validate, derive the effective schedule and call the engine of the calculation mode.");
}

}  // namespace norvane::bindings
