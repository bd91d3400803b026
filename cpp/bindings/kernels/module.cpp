// norvane._kernels: the native routines of the annuity engine. Works on a
// curve's arrays, never on the curve class (which imports the engine), and
// exposes the schedule rules of cpp/core so that Python never restates them.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>

#include "core/annuity.hpp"
#include "core/portfolio.hpp"
#include "curve.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace nb = nanobind;
using namespace norvane;

namespace norvane::bindings {

core::Growth growth_of(const std::string& kind, double rate) {
    if (kind == "level") return {core::Growth::Level, 0.0};
    if (kind == "geometric") return {core::Growth::Geometric, rate};
    if (kind == "arithmetic") return {core::Growth::Arithmetic, rate};
    throw std::invalid_argument("growth kind must be 'level', 'geometric' or 'arithmetic', got '" + kind + "'");
}

core::Mode mode_of(const std::string& mode) {
    if (auto known = core::mode_named(mode)) return *known;
    throw std::invalid_argument("unknown calculation mode '" + mode + "'");
}

core::CurveArrays arrays_of(const InArray& rates, const InArray& terms, const InArray& ends) {
    switch (core::check_curve_arrays(span_of(rates), span_of(terms), span_of(ends))) {
        case core::CurveArraysFault::None:
            break;
        case core::CurveArraysFault::Shape:
            throw std::invalid_argument("a curve needs m rates and m-1 terms and ends");
        case core::CurveArraysFault::Values:
            throw std::invalid_argument("a curve needs finite positive terms and increasing ends");
    }
    return {vector_of(rates), vector_of(terms), vector_of(ends)};
}

}  // namespace norvane::bindings

using bindings::arrays_of;
using bindings::column_of;
using bindings::Curve;
using bindings::growth_of;
using bindings::InArray;
using bindings::mode_of;
using bindings::new_array;
using bindings::OutArray;
using bindings::RealArray;
using bindings::span_of;
using bindings::to_array;

namespace {

std::size_t frequency_of(std::size_t m) {
    if (m == 0) throw std::invalid_argument("m must be positive");
    return m;
}

core::Annuity annuity_of(double d, double n, std::size_t payments_size, std::size_t m, int timing,
                         const std::string& kind, double rate) {
    if (timing != 0 && timing != 1) throw std::invalid_argument("timing must be 0 or 1");
    core::require_countable(n, frequency_of(m));
    return {d, n, payments_size, m, timing, growth_of(kind, rate)};
}

// Times and amounts of a schedule's payments.
std::pair<OutArray, OutArray> payments_of(const core::Schedule& s) {
    std::vector<double> times, amounts;
    core::schedule_payments(s, times, amounts);
    return {to_array(times), to_array(amounts)};
}

std::tuple<OutArray, OutArray, OutArray> intervals_of(const core::Annuity& a, std::size_t first) {
    core::PaymentPeriods periods = core::payment_periods(a, first);
    return {to_array(std::move(periods.starts)), to_array(std::move(periods.ends)),
            to_array(std::move(periods.growth))};
}

nb::dict woolhouse_parts_of(const core::Annuity& a, bool continuous) {
    const core::WoolhouseParts parts = core::woolhouse_parts(a, continuous);
    nb::dict out;
    out["weight"] = parts.weight;
    out["due"] = payments_of(parts.due);
    out["immediate"] = payments_of(parts.immediate);
    out["fraction"] = payments_of(core::regular_payments(parts.fraction));
    out["tail"] = payments_of(core::pro_rata_payment(parts.fraction));
    out["first"] = parts.fraction.first;
    return out;
}

}  // namespace

void register_life(nb::module_& m);  // life.cpp

NB_MODULE(_kernels, m) {
    m.doc() = "Native routines of the annuity engine: schedule rules and sums on a curve's arrays.";
    nb::set_leak_warnings(false);  // curves cached by the engine outlive the module at shutdown

    nb::class_<core::Annuity>(m, "Annuity",
                              "An annuity of 1 a year payable m-thly, seen from the valuation time: deferment d, "
                              "remaining term n and the payment count (one more than the whole periods when the "
                              "schedule ends with a pro-rata payment).")
        .def(
            "__init__",
            [](core::Annuity* self, double d, double n, std::size_t payments_size, std::size_t m_, int timing,
               const std::string& kind,
               double rate) { new (self) core::Annuity(annuity_of(d, n, payments_size, m_, timing, kind, rate)); },
            nb::kw_only(), nb::arg("d"), nb::arg("n"), nb::arg("payments_size"), nb::arg("m"), nb::arg("timing"),
            nb::arg("growth_kind") = "level", nb::arg("growth_rate") = 0.0)
        .def_prop_ro(
            "whole_years", [](const core::Annuity& a) { return a.schedule().whole_years(); },
            "Whole years of regular payments.")
        .def(
            "payments",
            [](const core::Annuity& a, std::size_t first) { return payments_of(core::schedule_from(a, first)); },
            nb::arg("first") = 0, "Times and amounts of the payments from regular payment `first` on.")
        .def(
            "intervals", [](const core::Annuity& a, std::size_t first) { return intervals_of(a, first); },
            nb::arg("first") = 0, "Starts, ends and growth factors of the payment periods from `first` on.")
        .def(
            "woolhouse_parts",
            [](const core::Annuity& a, bool continuous) { return woolhouse_parts_of(a, continuous); },
            nb::arg("continuous"),
            "Woolhouse's parts: 'weight', annual 'due' and 'immediate' payments over the whole years, the "
            "m-thly payments of the final fraction of a year ('fraction', from payment 'first') and the pro-rata "
            "'tail', each as (times, amounts).");

    nb::class_<Curve>(m, "Curve", "A curve's rates, segment lengths and ends prepared for valuation.")
        .def(
            "__init__",
            [](Curve* self, InArray rates, InArray terms, InArray ends) {
                new (self) Curve{core::discount_table(arrays_of(rates, terms, ends))};
            },
            nb::arg("rates"), nb::arg("terms"), nb::arg("ends"))
        .def(
            "discount",
            [](const Curve& c, InArray times) {
                std::vector<double> out(times.shape(0));
                {
                    nb::gil_scoped_release release;
                    c.table.discount(span_of(times), out);
                }
                return to_array(out);
            },
            nb::arg("times"), "Discount factors at times from the valuation time.")
        .def(
            "interval_values",
            [](const Curve& c, InArray starts, InArray ends) {
                if (starts.shape(0) != ends.shape(0)) throw std::invalid_argument("starts and ends differ in length");
                std::vector<double> out(starts.shape(0));
                if (!core::interval_values(c.table, span_of(starts), span_of(ends), out))
                    throw std::invalid_argument("intervals must be finite");
                return to_array(out);
            },
            nb::arg("starts"), nb::arg("ends"), "Integral of v(t) over each interval [starts[i], ends[i]].")
        .def(
            "annuity_value",
            [](const Curve& c, const core::Annuity& annuity, const std::string& mode, nb::object decimals) {
                const double value = core::annuity_value(c.table, annuity, mode_of(mode));
                return decimals.is_none() ? value : core::round_like_numpy(value, nb::cast<int>(decimals));
            },
            nb::arg("annuity"), nb::arg("mode"), nb::arg("decimals").none() = nb::none(),
            "Present value of the annuity with certain survival, rounded to `decimals` when given.");

    m.def(
        "term_at_valuation",
        [](double n, double d, double ts) {
            const core::TermAtValuation at = core::term_at_valuation(n, d, ts);
            return std::make_tuple(at.elapsed, at.deferment, at.term);
        },
        nb::arg("n"), nb::arg("d"), nb::arg("ts"),
        "(elapsed, deferment, term) of a policy with term n and deferment d valued at ts, each floored at 0.");
    m.def(
        "payment_count",
        [](double n, std::size_t m_, double tolerance) {
            core::require_countable(n, frequency_of(m_));
            const core::PaymentCount count = core::payment_count(n, m_, tolerance);
            return std::make_pair(count.size, count.fraction);
        },
        nb::arg("n"), nb::arg("m"), nb::arg("tolerance"),
        "(payments, fraction) in n years at m a year: whole periods, plus one pro-rata payment for a remainder "
        "above `tolerance`.");
    m.def(
        "round_value", [](double value, int decimals) { return core::round_like_numpy(value, decimals); },
        nb::arg("value"), nb::arg("decimals"), "The value rounded to `decimals` as numpy.round does.");
    m.def(
        "round_values",
        [](InArray values, int decimals) {
            std::vector<double> out(values.shape(0));
            core::round_like_numpy(span_of(values), decimals, out);
            return to_array(out);
        },
        nb::arg("values"), nb::arg("decimals"), "Each value rounded to `decimals` as numpy.round does.");
    m.def(
        "portfolio_values",
        [](InArray rates, InArray terms, InArray ends, RealArray n, RealArray d, RealArray ts, nb::object benefits,
           std::size_t m_, int timing, const std::string& kind, double rate, const std::string& mode,
           double tolerance_eps, double perpetuity_n_eff, int decimals) {
            const std::size_t count = std::max({n.shape(0), d.shape(0), ts.shape(0)});
            const auto fits = [count](std::size_t size) { return size == count || size == 1; };
            if (!fits(n.shape(0)) || !fits(d.shape(0)) || !fits(ts.shape(0)))
                throw std::invalid_argument("n, d and ts must have one length (or length 1)");
            if (timing != 0 && timing != 1) throw std::invalid_argument("timing must be 0 or 1");
            core::require_countable(perpetuity_n_eff, frequency_of(m_));
            InArray weights;
            if (!benefits.is_none()) {
                weights = nb::cast<InArray>(benefits);
                if (!fits(weights.shape(0))) throw std::invalid_argument("benefits must match n in length (or be 1)");
            }
            const core::CurveArrays curve = arrays_of(rates, terms, ends);
            const core::PolicyTerms p{
                m_, timing, growth_of(kind, rate), mode_of(mode), tolerance_eps, perpetuity_n_eff, decimals};
            auto [array, out] = new_array(count);
            {
                nb::gil_scoped_release release;
                core::portfolio_values(curve, column_of(n), column_of(d), column_of(ts),
                                       benefits.is_none() ? std::span<const double>() : span_of(weights), p, out);
            }
            return array;
        },
        nb::arg("rates"), nb::arg("terms"), nb::arg("ends"), nb::arg("n"), nb::arg("d"), nb::arg("ts"),
        nb::arg("benefits").none(), nb::kw_only(), nb::arg("m"), nb::arg("timing"), nb::arg("growth_kind"),
        nb::arg("growth_rate"), nb::arg("mode"), nb::arg("tolerance_eps"), nb::arg("perpetuity_n_eff"),
        nb::arg("decimals"),
        "Rounded present values of a portfolio (times the benefits), each equal to its single policy's value; "
        "n, d, ts and benefits of length 1 apply to every policy.");
    nb::exception<core::InvalidPolicy>(m, "InvalidPolicy", PyExc_ValueError);
    register_life(m);
}
