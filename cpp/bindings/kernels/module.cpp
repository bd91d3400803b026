// norvane._kernels: native valuation routines for the annuity engine. Works
// on a curve's arrays, never on the curve class (which imports the engine).
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>

#include "core/annuity.hpp"

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

struct Curve {
    core::PiecewiseTable table;
};

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
                if (rates.shape(0) == 0 || terms.shape(0) != ends.shape(0) || rates.shape(0) != ends.shape(0) + 1)
                    throw std::invalid_argument("a curve needs m rates and m-1 terms and ends");
                new (self) Curve{core::make_table(span_of(rates), span_of(terms), span_of(ends))};
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
            "continuous_value",
            [](const Curve& c, double a, double b, double origin, const std::string& kind, double rate) {
                return core::continuous_value(c.table, a, b, origin, growth_of(kind, rate));
            },
            nb::arg("a"), nb::arg("b"), nb::arg("origin"), nb::arg("growth_kind") = "level",
            nb::arg("growth_rate") = 0.0,
            "Integral of v(t) times the growth of year floor(t - origin) over [a, b].");

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
