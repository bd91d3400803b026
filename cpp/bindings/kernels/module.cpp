// norvane._kernels: native valuation routines for the annuity engine. Works
// on a curve's arrays, never on the curve class (which imports the engine).
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>

#include "core/annuity.hpp"

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace nb = nanobind;
using namespace norvane;

namespace {

using InArray = nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using OutArray = nb::ndarray<nb::numpy, double, nb::ndim<1>>;

std::span<const double> span_of(const InArray& a) { return {a.data(), a.shape(0)}; }

OutArray to_array(const std::vector<double>& values) {
    auto* buffer = new double[values.empty() ? 1 : values.size()];
    std::memcpy(buffer, values.data(), values.size() * sizeof(double));
    nb::capsule owner(buffer, [](void* p) noexcept { delete[] static_cast<double*>(p); });
    return OutArray(buffer, {values.size()}, owner);
}

core::Growth growth_of(const std::string& kind, double rate) {
    if (kind == "level") return {core::Growth::Level, 0.0};
    if (kind == "geometric") return {core::Growth::Geometric, rate};
    if (kind == "arithmetic") return {core::Growth::Arithmetic, rate};
    throw std::invalid_argument("growth kind must be 'level', 'geometric' or 'arithmetic', got '" + kind + "'");
}

// Payment schedule from keyword arguments (see core::Schedule).
core::Schedule schedule_of(double start, std::size_t m, int timing, std::size_t first, std::size_t count,
                           const std::string& growth_kind, double growth_rate, double partial_fraction,
                           double partial_time, std::size_t partial_index) {
    if (m == 0) throw std::invalid_argument("m must be positive");
    if (timing != 0 && timing != 1) throw std::invalid_argument("timing must be 0 or 1");
    core::Schedule s;
    s.start = start;
    s.m = m;
    s.timing = timing;
    s.first = first;
    s.count = count;
    s.growth = growth_of(growth_kind, growth_rate);
    s.has_partial = partial_fraction > 0.0;
    s.partial_fraction = partial_fraction;
    s.partial_time = partial_time;
    s.partial_index = partial_index;
    return s;
}

core::Mode mode_of(const std::string& mode) {
    if (mode == "discrete_precision") return core::Mode::DiscretePrecision;
    if (mode == "discrete_simplified") return core::Mode::DiscreteSimplified;
    if (mode == "continuous_precision") return core::Mode::ContinuousPrecision;
    if (mode == "continuous_simplified") return core::Mode::ContinuousSimplified;
    throw std::invalid_argument("unknown calculation mode '" + mode + "'");
}

struct Curve {
    core::PiecewiseTable table;
};

core::CurveArrays arrays_of(InArray rates, InArray terms, InArray ends) {
    if (rates.shape(0) == 0 || terms.shape(0) != ends.shape(0) || rates.shape(0) != ends.shape(0) + 1)
        throw std::invalid_argument("a curve needs m rates and m-1 terms and ends");
    auto copy = [](const InArray& a) { return std::vector<double>(a.data(), a.data() + a.shape(0)); };
    core::CurveArrays out{copy(rates), copy(terms), copy(ends)};
    for (std::size_t j = 0; j < out.terms.size(); ++j)
        if (!(std::isfinite(out.terms[j]) && out.terms[j] > 0.0) || (j > 0 && !(out.ends[j] > out.ends[j - 1])))
            throw std::invalid_argument("a curve needs finite positive terms and increasing ends");
    return out;
}

#define SCHEDULE_ARGS                                                                                             \
    nb::kw_only(), nb::arg("start"), nb::arg("m"), nb::arg("timing"), nb::arg("first"), nb::arg("count"),      \
        nb::arg("growth_kind") = "level", nb::arg("growth_rate") = 0.0, nb::arg("partial_fraction") = 0.0,       \
        nb::arg("partial_time") = 0.0, nb::arg("partial_index") = 0

}  // namespace

NB_MODULE(_kernels, m) {
    m.doc() = "Native valuation routines of the annuity engine (payment schedules on a curve's arrays).";
    nb::set_leak_warnings(false);  // curves cached by the engine outlive the module at shutdown

    nb::class_<Curve>(m, "Curve", "A curve's rates, segment lengths and ends prepared for valuation.")
        .def(
            "__init__",
            [](Curve* self, InArray rates, InArray terms, InArray ends) {
                core::CurveArrays a = arrays_of(rates, terms, ends);
                new (self) Curve{core::make_table(a.rates, a.terms, a.ends)};
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
            "schedule_value",
            [](const Curve& c, double start, std::size_t m, int timing, std::size_t first, std::size_t count,
               const std::string& kind, double rate, double fraction, double partial_time, std::size_t partial_index) {
                core::Schedule s = schedule_of(start, m, timing, first, count, kind, rate, fraction, partial_time,
                                               partial_index);
                nb::gil_scoped_release release;
                return core::schedule_value(c.table, s);
            },
            SCHEDULE_ARGS, "Present value of a regular payment schedule (1/m per payment times growth).")
        .def(
            "interval_values",
            [](const Curve& c, InArray starts, InArray ends) {
                if (starts.shape(0) != ends.shape(0)) throw std::invalid_argument("starts and ends differ in length");
                std::vector<double> out(starts.shape(0));
                const core::Growth level;
                for (std::size_t i = 0; i < out.size(); ++i)
                    out[i] = core::continuous_value(c.table, starts.data()[i], ends.data()[i], starts.data()[i], level);
                return to_array(out);
            },
            nb::arg("starts"), nb::arg("ends"), "Integral of v(t) over each interval [starts[i], ends[i]].")
        .def(
            "annuity_value",
            [](const Curve& c, const std::string& mode, double d, double n, std::size_t payments_size,
               std::size_t m, int timing, const std::string& kind, double rate) {
                if (m == 0) throw std::invalid_argument("m must be positive");
                core::Annuity annuity{d, n, payments_size, m, timing, growth_of(kind, rate)};
                return core::annuity_value(c.table, annuity, mode_of(mode));
            },
            nb::kw_only(), nb::arg("mode"), nb::arg("d"), nb::arg("n"), nb::arg("payments_size"), nb::arg("m"),
            nb::arg("timing"), nb::arg("growth_kind") = "level", nb::arg("growth_rate") = 0.0,
            "Unrounded present value of an annuity of 1 a year payable m-thly (certain survival).")
        .def(
            "continuous_value",
            [](const Curve& c, double a, double b, double origin, const std::string& kind, double rate) {
                return core::continuous_value(c.table, a, b, origin, growth_of(kind, rate));
            },
            nb::arg("a"), nb::arg("b"), nb::arg("origin"), nb::arg("growth_kind") = "level",
            nb::arg("growth_rate") = 0.0,
            "Integral of v(t) times the growth of year floor(t - origin) over [a, b].");

    m.def(
        "portfolio_values",
        [](InArray rates, InArray terms, InArray ends, InArray n, InArray d, InArray ts, nb::object benefits,
           std::size_t m_, int timing, const std::string& kind, double rate, const std::string& mode,
           double tolerance_eps, double perpetuity_n_eff, int decimals) {
            if (n.shape(0) != d.shape(0) || n.shape(0) != ts.shape(0))
                throw std::invalid_argument("n, d and ts must have one length");
            if (m_ == 0) throw std::invalid_argument("m must be positive");
            InArray weights;
            if (!benefits.is_none()) {
                weights = nb::cast<InArray>(benefits);
                if (weights.shape(0) != n.shape(0)) throw std::invalid_argument("benefits must match n in length");
            }
            core::CurveArrays curve = arrays_of(rates, terms, ends);
            core::PortfolioTerms p{m_, timing, growth_of(kind, rate), mode_of(mode), tolerance_eps, perpetuity_n_eff,
                                   decimals};
            std::vector<double> out(n.shape(0));
            {
                nb::gil_scoped_release release;
                core::portfolio_values(curve, span_of(n), span_of(d), span_of(ts),
                                       benefits.is_none() ? std::span<const double>() : span_of(weights), p, out);
            }
            return to_array(out);
        },
        nb::arg("rates"), nb::arg("terms"), nb::arg("ends"), nb::arg("n"), nb::arg("d"), nb::arg("ts"),
        nb::arg("benefits").none(), nb::kw_only(), nb::arg("m"), nb::arg("timing"), nb::arg("growth_kind"),
        nb::arg("growth_rate"), nb::arg("mode"), nb::arg("tolerance_eps"), nb::arg("perpetuity_n_eff"),
        nb::arg("decimals"),
        "Rounded present values of a portfolio (times the benefits), each distinct (n, d, ts) valued once.");
    m.def(
        "schedule_payments",
        [](double start, std::size_t m_, int timing, std::size_t first, std::size_t count, const std::string& kind,
           double rate, double fraction, double partial_time, std::size_t partial_index) {
            std::vector<double> times, amounts;
            core::schedule_payments(
                schedule_of(start, m_, timing, first, count, kind, rate, fraction, partial_time, partial_index),
                times, amounts);
            return std::make_pair(to_array(times), to_array(amounts));
        },
        SCHEDULE_ARGS, "Times and amounts of every payment of a schedule.");
}
