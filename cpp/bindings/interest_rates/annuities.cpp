// Annuities: the public methods a and ä, their router and the scalar dispatch
// to the annuity engine of the configured calculation mode.
#include "interest_rates.hpp"

#include "core/annuity.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
#include <cstdio>
#include <cstring>

namespace norvane::bindings {

namespace {

struct Siblings {
    nb::object ndim, detect_batch, on_error_check, record_ids_check, t_output_check;
    nb::object shift_checks, frequency_checks, cashflow_checks, has_growth, resolve_gr, amounts_skip;
    nb::object dispatch_table, annuity_dispatcher, zero_flows;
    nb::object map_none_to_inf, len_or_1, benefits_check, batch_param_check, collect_errors, resolve_m;
    nb::object m_for_recurse, coerce_ids, group_indices, finalize_pv, aggregate, batch_result, error_report;
    nb::object np, own_entries, portfolio_values;
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
        r->map_none_to_inf = m.attr("_map_batch_n_none_to_inf");
        r->len_or_1 = m.attr("_arraylike_len_or_1");
        r->benefits_check = m.attr("_validate_benefits");
        r->batch_param_check = m.attr("_check_batch_param");
        r->collect_errors = nb::module_::import_("norvane.helpers").attr("_collect_batch_param_errors");
        r->resolve_m = m.attr("_resolve_batch_m");
        r->m_for_recurse = m.attr("_batch_m_for_nan_recurse");
        r->coerce_ids = m.attr("_coerce_record_ids");
        r->group_indices = m.attr("_group_batch_m_gr_indices");
        r->finalize_pv = m.attr("_finalize_batch_unit_pv_with_benefits");
        r->aggregate = m.attr("_aggregate_flow_parts");
        r->batch_result = m.attr("BatchResult");
        r->error_report = m.attr("BatchErrorReport");
        r->np = nb::module_::import_("numpy");
        r->own_entries = nb::module_::import_("norvane.engine.annuity").attr("_OWN_ENTRIES");
        r->portfolio_values = nb::module_::import_("norvane._kernels").attr("portfolio_values");
        return r;
    }();
    return *s;
}

std::string prefix(const std::string& method_name) { return "[" + method_name + "]"; }

[[noreturn]] void annuity_error(const std::string& method_name, const std::string& text) {
    throw nb::value_error((prefix(method_name) + text).c_str());
}

double as_double(nb::handle h) { return nb::cast<double>(nb::float_(h)); }


// ---- the common single valuation without a Python round trip ----------------------

std::optional<double> plain_number(nb::handle h) {
    if (PyBool_Check(h.ptr()) || !(PyFloat_Check(h.ptr()) || PyLong_Check(h.ptr()))) return std::nullopt;
    double value = PyFloat_AsDouble(h.ptr());
    if (value == -1.0 && PyErr_Occurred()) {
        PyErr_Clear();
        return std::nullopt;
    }
    return value;
}

bool allowed_frequency(long m) {
    static constexpr long allowed[] = {1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365};
    return std::find(std::begin(allowed), std::end(allowed), m) != std::end(allowed);
}

core::Mode mode_of(const std::string& mode) {
    if (mode == "discrete_simplified") return core::Mode::DiscreteSimplified;
    if (mode == "continuous_precision") return core::Mode::ContinuousPrecision;
    if (mode == "continuous_simplified") return core::Mode::ContinuousSimplified;
    return core::Mode::DiscretePrecision;
}

// A single certain annuity with plain numbers, level payments and no explicit
// schedule, valued by the engine's own native routine directly. Anything else,
// including every input the validators would refuse, returns nothing and takes
// the full path (which raises the proper message).
std::optional<double> fast_single_value(nb::handle self_obj, int timing, nb::handle n, nb::handle d, nb::handle ts,
                                        nb::handle m, nb::handle gr, nb::handle cashflow_times,
                                        nb::handle cashflow_amounts, nb::handle benefits, bool return_flows,
                                        nb::handle t_output, nb::handle on_error, nb::handle record_ids) {
    if (return_flows || !gr.is_none() || !cashflow_times.is_none() || !cashflow_amounts.is_none() ||
        !benefits.is_none() || !t_output.is_none() || !record_ids.is_none() || !PyUnicode_Check(on_error.ptr()) ||
        !nb::borrow<nb::str>(on_error).equal(nb::str("raise")) || !PyLong_CheckExact(m.ptr()))
        return std::nullopt;
    auto d_val = plain_number(d), ts_val = plain_number(ts);
    std::optional<double> n_val = n.is_none() ? std::optional<double>(INFINITY) : plain_number(n);
    if (!d_val || !ts_val || !n_val) return std::nullopt;
    const long m_val = PyLong_AsLong(m.ptr());
    if (m_val == -1 && PyErr_Occurred()) {
        PyErr_Clear();
        return std::nullopt;
    }
    if (!(std::isfinite(*d_val) && *d_val >= 0.0 && std::isfinite(*ts_val) && *ts_val >= 0.0) ||
        !(std::isinf(*n_val) || *n_val >= 0.0) || !allowed_frequency(m_val))
        return std::nullopt;
    InterestRate& self = nb::cast<InterestRate&>(self_obj);
    nb::object config = self[Config];
    if (truthy(config.attr("force_integer_ts")) && std::floor(*ts_val) != *ts_val) return std::nullopt;
    nb::object mode = self_obj.attr("calculation_mode");
    const Siblings& S = siblings();
    if (!S.dispatch_table[mode].is(S.own_entries[mode])) return std::nullopt;

    const Meta& meta = meta_of(self);
    const double elapsed = std::max(0.0, *ts_val - *d_val), d_eff = std::max(0.0, *d_val - *ts_val);
    const double term = std::isinf(*n_val) ? as_double(meta.field[PerpetuityNEff]) : *n_val;
    const double n_eff = std::max(0.0, term - elapsed);
    if (n_eff == 0.0) return 0.0;
    const double total = n_eff * static_cast<double>(m_val);
    std::size_t size = static_cast<std::size_t>(total);
    if (total - static_cast<double>(size) > as_double(meta.field[ToleranceEps])) ++size;

    nb::object shifted = shifted_for_ts(self_obj, *ts_val, self[TsShiftCache]);
    InterestRate& leaf = active_curve(nb::cast<InterestRate&>(shifted));
    std::shared_ptr<const core::PiecewiseTable> table =
        truthy(leaf[IsConstant]) ? std::make_shared<const core::PiecewiseTable>(
                                       std::vector<double>{as_double(leaf[Rate])}, std::vector<double>{},
                                       std::vector<double>{})
                                 : valuation_table(leaf);
    core::Annuity annuity{d_eff, n_eff, size, static_cast<std::size_t>(m_val), timing, core::Growth{}};
    const int decimals = nb::cast<int>(config.attr("decimals").attr("annuities"));
    return core::round_like_numpy(core::annuity_value(*table, annuity, mode_of(nb::borrow<nb::str>(mode).c_str())),
                                  decimals);
}

// ---- the router ---------------------------------------------------------------

nb::object public_route(nb::handle self, const std::string& method_name, int payment_timing, nb::handle n_in,
                        nb::handle d, nb::handle ts, nb::handle m, nb::handle gr, nb::handle cashflow_times,
                        nb::handle cashflow_amounts, nb::handle benefits, bool return_flows, nb::handle t_output,
                        nb::handle on_error, nb::handle record_ids) {
    if (auto value = fast_single_value(self, payment_timing, n_in, d, ts, m, gr, cashflow_times, cashflow_amounts,
                                       benefits, return_flows, t_output, on_error, record_ids))
        return nb::float_(*value);
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


// ---- portfolios -----------------------------------------------------------------

bool per_policy(nb::handle gr) { return !gr.is_none() && nb::cast<long>(siblings().ndim(gr)) > 0; }

nb::object subset(nb::handle values, nb::handle indices) {
    return values.is_none() ? nb::none() : nb::object(values[indices]);
}

nb::object growth_subset(nb::handle gr, nb::handle indices) {
    if (!per_policy(gr)) return nb::borrow(gr);
    nb::object items = nb::module_::import_("builtins").attr("list")(gr);
    nb::list picked;
    for (nb::handle i : indices.attr("tolist")()) picked.append(items[i]);
    return picked;
}

// Whether the portfolio can go to the native kernel: the mode's entry is the
// package's own, the schedule is generated and no flows are asked for.
bool native_portfolio(nb::handle mode, nb::handle cashflow_times, nb::handle cashflow_amounts, bool return_flows) {
    const Siblings& S = siblings();
    return !return_flows && cashflow_times.is_none() && cashflow_amounts.is_none() &&
           S.dispatch_table[mode].is(S.own_entries[mode]);
}

nb::object native_values(nb::handle self, nb::handle n_arr, nb::handle d_arr, nb::handle ts_arr, long m,
                         nb::handle gr, int payment_timing, nb::handle mode, nb::handle decimals,
                         nb::handle benefits_arr) {
    const Siblings& S = siblings();
    InterestRate& ir = nb::cast<InterestRate&>(self);
    InterestRate& leaf = active_curve(ir);
    const Meta& meta = meta_of(ir);
    nb::object rates, terms, ends;
    if (truthy(leaf[IsConstant])) {
        rates = readonly_copy(std::vector<double>{as_double(leaf[Rate])});
        terms = ends = refs().empty_f64;
    } else {
        rates = leaf[Rates], terms = leaf[Terms], ends = leaf[CumTerms];
    }
    auto contiguous = [&](nb::handle a) { return S.np.attr("ascontiguousarray")(a, nb::arg("dtype") = "float64"); };
    nb::object kind = gr.is_none() ? nb::object(nb::str("level")) : nb::object(gr.attr("kind"));
    double rate = gr.is_none() ? 0.0 : as_double(gr.attr("rate"));
    return S.portfolio_values(rates, terms, ends, contiguous(n_arr), contiguous(d_arr), contiguous(ts_arr),
                              benefits_arr.is_none() ? nb::none() : contiguous(benefits_arr), nb::arg("m") = m,
                              nb::arg("timing") = payment_timing, nb::arg("growth_kind") = kind,
                              nb::arg("growth_rate") = rate, nb::arg("mode") = mode,
                              nb::arg("tolerance_eps") = meta.field[ToleranceEps],
                              nb::arg("perpetuity_n_eff") = meta.field[PerpetuityNEff], nb::arg("decimals") = decimals);
}

nb::object batch_financial(nb::handle self, nb::handle n_arr, nb::handle d_arr, nb::handle ts_arr, nb::handle m_in,
                           nb::handle gr_in, nb::handle cashflow_times, nb::handle cashflow_amounts,
                           int payment_timing, nb::handle decimals, nb::handle benefits_arr, bool return_flows,
                           nb::handle t_output, const std::string& method_name) {
    const Siblings& S = siblings();
    const long m = nb::cast<long>(nb::int_(m_in));
    nb::object gr = S.resolve_gr(gr_in, method_name);
    nb::object mode = self.attr("calculation_mode");
    if (native_portfolio(mode, cashflow_times, cashflow_amounts, return_flows))
        return native_values(self, n_arr, d_arr, ts_arr, m, gr, payment_timing, mode, decimals, benefits_arr);
    nb::object params = S.np.attr("stack")(nb::make_tuple(n_arr, d_arr, ts_arr), nb::arg("axis") = 1);
    nb::tuple unique = nb::borrow<nb::tuple>(
        S.np.attr("unique")(params, nb::arg("axis") = 0, nb::arg("return_inverse") = true));
    nb::object rows = unique[0], inverse = unique[1].attr("ravel")();
    const std::size_t groups = nb::len(rows);
    nb::dict shift_cache;  // each distinct shift is computed once per call
    auto value_group = [&](std::size_t k, bool flows) {
        std::span<const double> row = f64_span(S.np.attr("ascontiguousarray")(rows[nb::int_(k)]));
        nb::object term = std::isinf(row[0]) ? nb::none() : nb::object(nb::float_(row[0]));
        nb::object curve = self.attr("_ir_shifted_for_ts")(row[2], shift_cache);
        return self.attr("_annuity_dispatch")(
            nb::arg("validate") = false, nb::arg("ts") = row[2], nb::arg("d") = row[1], nb::arg("n") = term,
            nb::arg("m") = m, nb::arg("gr") = gr, nb::arg("cashflow_times") = cashflow_times,
            nb::arg("cashflow_amounts") = cashflow_amounts, nb::arg("payment_timing") = payment_timing,
            nb::arg("return_flows") = flows, nb::arg("method_name") = method_name, nb::arg("ir_shifted") = curve);
    };
    if (!return_flows) {
        std::vector<double> unit(groups);
        for (std::size_t k = 0; k < groups; ++k) unit[k] = nb::cast<double>(value_group(k, false));
        nb::object per_policy_pv = readonly_copy(unit)[inverse];
        return S.finalize_pv(per_policy_pv, benefits_arr, decimals);
    }
    const bool simplified = !nb::borrow<nb::str>(mode).equal(nb::str("discrete_precision")) &&
                            !nb::borrow<nb::str>(mode).equal(nb::str("continuous_precision"));
    nb::module_ module = nb::module_::import_("norvane.interest_rates");
    nb::list parts;
    for (std::size_t k = 0; k < groups; ++k) {
        nb::object mask = checked(PyObject_RichCompare(inverse.ptr(), nb::int_(k).ptr(), Py_EQ));
        nb::object weight = benefits_arr.is_none() ? nb::object(S.np.attr("count_nonzero")(mask))
                                                   : nb::object(benefits_arr[mask].attr("sum")());
        nb::object flows = value_group(k, true);
        if (simplified && cashflow_times.is_none() && cashflow_amounts.is_none()) {
            parts.append(module.attr("_woolhouse_flows_to_grid")(flows, weight));
        } else {
            nb::object w = nb::float_(weight);
            parts.append(nb::make_tuple(refs().as_f64_safe(flows["time_grid"]),
                                        refs().as_f64_safe(flows["expected_cf"]) * w,
                                        refs().as_f64_safe(flows["pv_cf"]) * w));
        }
    }
    return S.aggregate(parts, t_output);
}

nb::object batch_dispatch(nb::handle self, nb::handle n, nb::handle d, nb::handle ts, nb::handle m, nb::handle gr,
                          nb::handle cashflow_times, nb::handle cashflow_amounts, nb::handle benefits,
                          bool return_flows, nb::handle t_output, nb::handle on_error, nb::handle record_ids,
                          int payment_timing, const std::string& method_name) {
    const Siblings& S = siblings();
    const bool nan_policy = nb::isinstance<nb::str>(on_error) && nb::borrow<nb::str>(on_error).equal(nb::str("nan"));
    if (nan_policy && return_flows)
        annuity_error(method_name, " on_error='nan' is not supported with return_flows=True in batch mode.");
    nb::object n_conv = n.is_none() ? nb::object(nb::float_(INFINITY)) : S.map_none_to_inf(n);
    std::array<nb::object, 3> arrays = {refs().as_f64_safe(n_conv), refs().as_f64_safe(d), refs().as_f64_safe(ts)};
    std::array<std::size_t, 3> lengths{};
    std::size_t size = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        lengths[i] = nb::cast<std::size_t>(S.len_or_1(arrays[i]));
        size = std::max(size, lengths[i]);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        arrays[i] = arrays[i].attr("reshape")(-1);
        if (lengths[i] == 1 && size != 1) arrays[i] = S.np.attr("broadcast_to")(arrays[i], nb::make_tuple(size));
        if (nb::len(arrays[i]) != size)
            annuity_error(method_name, " Incompatible batch lengths: n=" + std::to_string(lengths[0]) +
                                           ", d=" + std::to_string(lengths[1]) + ", ts=" + std::to_string(lengths[2]) +
                                           ". All arrays must share the same length or be length-1 (broadcast).");
    }
    auto& [n_arr, d_arr, ts_arr] = arrays;
    nb::object benefits_arr = S.benefits_check(benefits, size, method_name);
    if (nan_policy) {
        nb::list checks;
        checks.append(nb::make_tuple("n", n_arr, 0.0, true));
        checks.append(nb::make_tuple("d", d_arr, 0.0, false));
        checks.append(nb::make_tuple("ts", ts_arr, 0.0, false));
        nb::tuple found = nb::borrow<nb::tuple>(S.collect_errors(method_name, checks));
        nb::object valid_mask = found[0], messages = found[1];
        nb::object m_res = S.resolve_m(m, size, method_name);
        nb::object values = S.np.attr("full")(size, NAN);
        nb::object valid = S.np.attr("flatnonzero")(valid_mask).attr("astype")("int64");
        nb::object invalid = S.np.attr("flatnonzero")(S.np.attr("logical_not")(valid_mask)).attr("astype")("int64");
        if (nb::len(valid) > 0)
            values[valid] = batch_dispatch(self, n_arr[valid], d_arr[valid], ts_arr[valid],
                                           S.m_for_recurse(m_res, valid), growth_subset(gr, valid), cashflow_times,
                                           cashflow_amounts, subset(benefits_arr, valid), false, nb::none(),
                                           nb::str("raise"), nb::none(), payment_timing, method_name);
        nb::object ids = S.coerce_ids(record_ids, size);
        nb::object report = S.error_report(
            nb::arg("n_errors") = nb::len(invalid), nb::arg("n_total") = size, nb::arg("valid_mask") = valid_mask,
            nb::arg("invalid_indices") = invalid, nb::arg("record_ids") = ids[invalid],
            nb::arg("messages") = messages);
        return S.batch_result(nb::arg("values") = values, nb::arg("errors") = report);
    }
    S.batch_param_check(n_arr, "n", method_name, nb::arg("min_val") = 0.0, nb::arg("allow_inf") = true);
    S.batch_param_check(d_arr, "d", method_name, nb::arg("min_val") = 0.0);
    S.batch_param_check(ts_arr, "ts", method_name, nb::arg("min_val") = 0.0);
    nb::object m_res = S.resolve_m(m, size, method_name);
    nb::object decimals = nb::cast<InterestRate&>(self)[Config].attr("decimals").attr("annuities");
    const bool single_m = PyLong_Check(m_res.ptr());
    if (single_m && !per_policy(gr))
        return batch_financial(self, n_arr, d_arr, ts_arr, m_res, gr, cashflow_times, cashflow_amounts,
                               payment_timing, decimals, benefits_arr, return_flows, t_output, method_name);
    if (!single_m && return_flows)
        annuity_error(method_name, " return_flows=True is not supported when m is a vector with heterogeneous "
                                   "values. Use a scalar m or split the batch by payment frequency and call separately.");
    nb::object groups = S.group_indices(m_res, gr, size, method_name);
    if (!return_flows) {
        nb::object result = S.np.attr("empty")(size, nb::arg("dtype") = "float64");
        for (nb::handle group : groups) {
            nb::object idx = group[nb::int_(2)];
            result[idx] = batch_financial(self, n_arr[idx], d_arr[idx], ts_arr[idx], group[nb::int_(0)],
                                          group[nb::int_(1)], cashflow_times, cashflow_amounts, payment_timing,
                                          decimals, subset(benefits_arr, idx), false, nb::none(), method_name);
        }
        return result;
    }
    nb::list parts;
    for (nb::handle group : groups) {
        nb::object idx = group[nb::int_(2)];
        nb::object flows = batch_financial(self, n_arr[idx], d_arr[idx], ts_arr[idx], group[nb::int_(0)],
                                           group[nb::int_(1)], cashflow_times, cashflow_amounts, payment_timing,
                                           decimals, subset(benefits_arr, idx), true, nb::none(), method_name);
        parts.append(nb::make_tuple(refs().as_f64_safe(flows["time_grid"]), refs().as_f64_safe(flows["expected_cf"]),
                                    refs().as_f64_safe(flows["pv_cf"])));
    }
    return S.aggregate(parts, t_output);
}

// ---- Woolhouse flows on one grid ---------------------------------------------------

nb::object component_array(nb::handle component, const char* key) { return refs().as_f64_safe(component[key]); }

nb::tuple woolhouse_flows_to_grid(nb::handle flows, nb::handle n_policies) {
    const Siblings& S = siblings();
    nb::object np = S.np;
    nb::dict f = nb::borrow<nb::dict>(flows);
    const char* coef_key = f.contains("coef_due") ? "coef_due" : "coef_immediate";
    nb::object coef_value = f[coef_key];
    if (!is_numeric(coef_value))
        throw nb::type_error(("_woolhouse_flows_to_grid(): flows['" + std::string(coef_key) +
                              "'] must be a real number, got " + type_name_of(coef_value)).c_str());
    double coef = nb::cast<double>(nb::float_(coef_value));
    nb::object due = f["due"], immediate = f["immediate"], fractional = f["fractional"], tail = f["fractional_tail"];
    auto grid_of = [&](nb::handle component) {
        return nb::borrow<nb::dict>(component).contains("time_grid") ? component_array(component, "time_grid")
                                                                       : refs().empty_f64;
    };
    auto growth_of = [&](nb::handle component, nb::handle times) {
        return nb::borrow<nb::dict>(component).contains("growth")
                   ? component_array(component, "growth")
                   : nb::object(np.attr("ones")(times.attr("shape"), nb::arg("dtype") = "float64"));
    };
    nb::object t_due = component_array(due, "time_grid"), t_imm = component_array(immediate, "time_grid");
    nb::object t_frac = grid_of(fractional), t_tail = grid_of(tail);
    nb::object grid = np.attr("union1d")(np.attr("union1d")(np.attr("union1d")(t_due, t_imm), t_frac), t_tail);
    const std::size_t size = nb::len(grid);
    nb::object expected = np.attr("zeros")(size, nb::arg("dtype") = "float64");
    nb::object pv = np.attr("zeros")(size, nb::arg("dtype") = "float64");
    auto bin = [&](nb::handle times, nb::handle amounts, nb::handle values) {
        if (nb::len(times) == 0) return;
        nb::object positions = np.attr("searchsorted")(grid, times).attr("astype")("int64");
        expected += np.attr("bincount")(positions, nb::arg("weights") = amounts, nb::arg("minlength") = size);
        pv += np.attr("bincount")(positions, nb::arg("weights") = values, nb::arg("minlength") = size);
    };
    nb::float_ c(coef);
    for (nb::handle component : {due.ptr(), immediate.ptr()}) {
        nb::object times = component_array(component, "time_grid");
        bin(times, growth_of(component, times) * c, component_array(component, "present_value") * c);
    }
    // Fractional parts: the expected amount comes back from the present value
    // and the discount factor (0.0 where the factor is not positive).
    auto reconstructed = [&](nb::handle component) {
        nb::object values = component_array(component, "present_value");
        nb::object factors = component_array(component, "discount_factor");
        nb::object positive = checked(PyObject_RichCompare(factors.ptr(), nb::float_(0.0).ptr(), Py_GT));
        nb::object safe = np.attr("where")(positive, factors, 1.0);
        return std::make_pair(nb::object(np.attr("where")(positive, values / safe, 0.0)), values);
    };
    if (size > 0 && nb::len(t_frac) > 0) {
        auto [amounts, values] = reconstructed(fractional);
        bin(t_frac, amounts, values);
    }
    if (size > 0 && nb::len(t_tail) > 0) {
        auto [amounts, values] = reconstructed(tail);
        nb::dict t = nb::borrow<nb::dict>(tail);
        nb::object weights = t.contains("growth")   ? component_array(tail, "growth")
                             : t.contains("amount") ? component_array(tail, "amount")
                                                    : nb::object(np.attr("ones_like")(amounts));
        bin(t_tail, amounts * weights, values);
    }
    return nb::make_tuple(grid, expected * n_policies, pv * n_policies);
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
        with_times ? "cashflow_times : array_like, optional\n    Explicit payment times since inception (plus d).\n" : "";
    std::string text(std::strlen(kAnnuityDoc) + 256, '\0');
    int len = std::snprintf(text.data(), text.size(), kAnnuityDoc, kind, when, times_doc);
    text.resize(static_cast<std::size_t>(len));
    return text;
}

}  // namespace

void register_annuities(nb::module_& m, CurveClass& cls) {
    m.def("_woolhouse_flows_to_grid", &woolhouse_flows_to_grid, nb::arg("flows"), nb::arg("n_policies"),
          "Project a Woolhouse flow dictionary onto one time grid: (time_grid, expected_cf, pv_cf) times n_policies.");
    cls.def(
        "_annuity_batch_dispatch",
        [](nb::handle self, nb::handle n, nb::handle d, nb::handle ts, nb::handle m_, nb::handle gr,
           nb::handle cashflow_times, nb::handle cashflow_amounts, nb::handle benefits, nb::handle return_flows,
           nb::handle t_output, nb::handle on_error, nb::handle record_ids, nb::int_ payment_timing,
           nb::str method_name) {
            return batch_dispatch(self, n, d, ts, m_, gr, cashflow_times, cashflow_amounts, benefits,
                                  truthy(return_flows), t_output, on_error, record_ids,
                                  nb::cast<int>(payment_timing), method_name.c_str());
        },
        nb::kw_only(), nb::arg("n").none(), nb::arg("d").none(), nb::arg("ts").none(), nb::arg("m").none(),
        nb::arg("gr").none(), nb::arg("cashflow_times").none(), nb::arg("cashflow_amounts").none(),
        nb::arg("benefits").none(), nb::arg("return_flows").none(), nb::arg("t_output").none(),
        nb::arg("on_error").none(), nb::arg("record_ids").none(), nb::arg("payment_timing"), nb::arg("method_name"),
        "Value a portfolio: broadcast, check, apply the error policy and value each (m, growth) group.");
    cls.def(
        "_annuity_batch_financial",
        [](nb::handle self, nb::handle n_arr, nb::handle d_arr, nb::handle ts_arr, nb::handle m_, nb::handle gr,
           nb::handle cashflow_times, nb::handle cashflow_amounts, nb::int_ payment_timing, nb::handle decimals,
           nb::handle benefits_arr, nb::handle return_flows, nb::handle t_output, nb::str method_name) {
            return batch_financial(self, n_arr, d_arr, ts_arr, m_, gr, cashflow_times, cashflow_amounts,
                                   nb::cast<int>(payment_timing), decimals, benefits_arr, truthy(return_flows),
                                   t_output, method_name.c_str());
        },
        nb::kw_only(), nb::arg("n_arr"), nb::arg("d_arr"), nb::arg("ts_arr"), nb::arg("m"), nb::arg("gr").none(),
        nb::arg("cashflow_times").none(), nb::arg("cashflow_amounts").none(), nb::arg("payment_timing"),
        nb::arg("decimals"), nb::arg("benefits_arr").none(), nb::arg("return_flows").none(),
        nb::arg("t_output").none() = nb::none(), nb::arg("method_name") = "",
        "Value policies sharing m and growth: each distinct (term, deferment, shift) once, then scatter.");
    cls.def(
        "_annuity_public_route",
        [](nb::handle self, nb::handle method_name, nb::handle payment_timing, nb::handle n, nb::handle d, nb::handle ts,
           nb::handle m, nb::handle gr, nb::handle cashflow_times, nb::handle cashflow_amounts, nb::handle benefits,
           nb::handle return_flows, nb::handle t_output, nb::handle on_error, nb::handle record_ids) {
            if (!PyUnicode_CheckExact(method_name.ptr()))
                throw nb::type_error(("_annuity_public_route(): argument 'method_name' must be str, not " +
                                      type_name_of(method_name)).c_str());
            if (!PyLong_CheckExact(payment_timing.ptr()))
                throw nb::type_error(("_annuity_public_route(): argument 'payment_timing' must be int, not " +
                                      type_name_of(payment_timing)).c_str());
            return public_route(self, nb::borrow<nb::str>(method_name).c_str(), nb::cast<int>(payment_timing), n, d, ts, m, gr,
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
