// norvane._kernels, life contingencies: mortality tables, survival and life
// values on a curve's arrays. Python validates and words the messages; these
// bindings convert, guard against input that would crash, and call the core.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include "core/life.hpp"
#include "core/life_book.hpp"
#include "curve.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace nb = nanobind;
using namespace norvane;

namespace {

using bindings::arrays_of;
using bindings::column_of;
using bindings::growth_of;
using bindings::InArray;
using bindings::mode_of;
using bindings::new_array;
using bindings::OutArray;
using bindings::RealArray;
using bindings::span_of;
using bindings::to_array;
using bindings::vector_of;

core::FractionalAge rule_of(const std::string& name) {
    if (auto rule = core::fractional_age_named(name)) return *rule;
    throw std::invalid_argument("fractional-age rule must be 'udd', 'constant_force' or 'balducci', got '" + name +
                                "'");
}

// A life of `table` aged `age` at inception, seen at ts.
core::LifeOnPath life_of(core::MortalityTable& table, double age, double select_age, double ts,
                         core::FractionalAge rule) {
    const core::LifeAt at = core::life_at(table, age, select_age, ts, rule);
    if (at.fault == core::LifeAt::NotFinite) throw std::invalid_argument("ages and times must be finite");
    if (at.fault == core::LifeAt::SelectAgeOutOfRange) throw std::invalid_argument("ages must be finite");
    if (at.fault == core::LifeAt::Unreached) {
        std::ostringstream reached;
        reached << age + ts;  // shortest form: an age of 1e308 is not 309 digits
        throw std::invalid_argument("nobody in the table reaches age " + reached.str());
    }
    return at.life;
}

using LifeArgs = std::tuple<core::MortalityTable*, double, double, std::string>;

core::Status status_of(const std::vector<LifeArgs>& lives, const std::string& kind, double ts) {
    const auto status_kind = core::status_named(kind, lives.size());
    if (!status_kind)
        throw std::invalid_argument("a status is 'single' with one life or 'joint'/'last_survivor' with two");
    core::LifeOnPath on_path[2]{};
    for (std::size_t i = 0; i < lives.size(); ++i) {
        auto& [table, age, select_age, rule] = lives[i];
        if (!table) throw std::invalid_argument("a life needs a table");
        const core::FractionalAge fractional_age = rule_of(rule);
        on_path[i] = life_of(*table, age, select_age, ts, fractional_age);
    }
    return core::Status::of(*status_kind, {on_path, lives.size()});
}

struct LifeCall {
    double ts, d, n;
    std::size_t m;
    int timing;
    std::string growth_kind;
    double growth_rate;
    std::string mode;
    double tolerance_eps;
};

double life_value(const std::string& kind, const bindings::Curve& curve, const core::Status& status, const LifeCall& c,
                  const double* amounts, std::size_t amounts_size) {
    const core::Mode mode = mode_of(c.mode);
    const auto benefit = core::life_benefit_named(kind);
    if (!benefit) throw std::invalid_argument("unknown life value '" + kind + "'");
    // A pure endowment has no payments to grow.
    const core::Growth growth =
        *benefit == core::LifeBenefit::PureEndowment ? core::Growth{} : growth_of(c.growth_kind, c.growth_rate);
    const core::PolicyTerms terms{c.m, c.timing, growth, mode, c.tolerance_eps, 0.0, 0};
    const auto given = amounts ? std::optional<std::span<const double>>({amounts, amounts_size}) : std::nullopt;
    const core::LifeValue value =
        core::life_benefit_value(*benefit, curve.table, status, c.ts, c.d, c.n, terms, given, curve.grids.get());
    if (value.fault == core::LifeValue::Uncountable)
        throw std::invalid_argument("a term must be >= 0 with fewer than 2**53 payments");
    if (value.fault == core::LifeValue::AmountCount)
        throw std::invalid_argument("'cashflow_amounts' holds " + std::to_string(amounts_size) + " amounts for " +
                                    std::to_string(value.payments) + " payments");
    return value.value;
}

// A table column given as texts: (rows, width) UTF-32 code points, as NumPy holds fixed-width strings.
using TextArray = nb::ndarray<nb::ro, const std::uint32_t, nb::ndim<2>, nb::c_contig, nb::device::cpu>;

std::size_t table_rows_of(nb::handle table) {
    TextArray text;
    if (nb::try_cast(table, text)) return text.shape(0);
    return nb::cast<RealArray>(table).shape(0);
}

core::TableColumn table_column_of(nb::handle table, const std::vector<std::vector<std::uint32_t>>& names,
                                  std::size_t size) {
    TextArray text;
    if (!nb::try_cast(table, text)) return core::TableColumn(column_of(nb::cast<RealArray>(table)), size);
    std::vector<std::u32string> named;
    for (const auto& name : names) named.emplace_back(name.begin(), name.end());
    return core::TableColumn(text.data(), text.shape(1), text.shape(0), size, named);
}

}  // namespace

void register_life(nb::module_& m) {
    nb::class_<core::MortalityTable>(m, "LifeTable",
                                     "Death probabilities by integer age from `first_age` (closed: the last is 1), "
                                     "with an optional select table of `select_period` columns from `select_first`.")
        .def(
            "__init__",
            [](core::MortalityTable* self, int first_age, InArray ultimate, int select_first, std::size_t period,
               InArray select) {
                switch (core::check_table(span_of(ultimate), period, span_of(select))) {
                    case core::TableFault::None:
                        break;
                    case core::TableFault::NoAges:
                        throw std::invalid_argument("a table needs at least one age");
                    case core::TableFault::SelectShape:
                        throw std::invalid_argument("a select table needs `select_period` values per row");
                    case core::TableFault::NotProbability:
                        throw std::invalid_argument("death probabilities must be in [0, 1]");
                }
                new (self)
                    core::MortalityTable(first_age, vector_of(ultimate), select_first, period, vector_of(select));
            },
            nb::arg("first_age"), nb::arg("ultimate"), nb::arg("select_first"), nb::arg("select_period"),
            nb::arg("select"))
        .def(
            "fits",
            [](const core::MortalityTable& table, double age, double select_age, double ts) {
                return core::age_in_range(age) && (std::isnan(select_age) || core::age_in_range(select_age)) &&
                       core::age_fits(table, age, select_age, ts);
            },
            nb::arg("age"), nb::arg("select_age"), nb::arg("ts"),
            "Whether a life of this age (selected at select_age, NaN: at its integer part) is an age of the table "
            "at ts.")
        .def(
            "survival",
            [](core::MortalityTable& table, InArray ages, InArray select_ages, InArray durations,
               const std::string& rule_name) {
                const std::size_t size = ages.shape(0);
                if (select_ages.shape(0) != size || durations.shape(0) != size)
                    throw std::invalid_argument("ages, select ages and durations must have one length");
                const core::FractionalAge rule = rule_of(rule_name);
                std::vector<core::LifeOnPath> lives;
                lives.reserve(size);
                for (std::size_t i = 0; i < size; ++i) {
                    if (!(durations.data()[i] >= 0.0)) throw std::invalid_argument("durations must be >= 0");
                    lives.push_back(life_of(table, ages.data()[i], select_ages.data()[i], 0.0, rule));
                }
                std::vector<double> out(size);
                {
                    nb::gil_scoped_release release;
                    core::survival(lives, span_of(durations), out);
                }
                return to_array(std::move(out));
            },
            nb::arg("ages"), nb::arg("select_ages"), nb::arg("durations"), nb::arg("rule"),
            "t_p_x for each (age, select age (NaN: none), duration).");

    m.def(
        "life_value",
        [](const std::string& kind, const std::vector<LifeArgs>& lives, const std::string& status_kind,
           const bindings::Curve& curve, double ts, double d, double n, std::size_t m_, int timing,
           const std::string& growth_kind, double growth_rate, nb::object amounts, const std::string& mode,
           nb::object decimals, double tolerance_eps) {
            if (m_ == 0 || (timing != 0 && timing != 1)) throw std::invalid_argument("m >= 1 and timing 0 or 1");
            if (!(core::finite_nonnegative(ts) && core::finite_nonnegative(d) && n >= 0.0))
                throw std::invalid_argument("ts and d must be finite and >= 0, n >= 0");
            const core::Status status = status_of(lives, status_kind, ts);
            const LifeCall call{ts, d, n, m_, timing, growth_kind, growth_rate, mode, tolerance_eps};
            double value;
            if (amounts.is_none()) {
                value = life_value(kind, curve, status, call, nullptr, 0);
            } else {
                const auto given = nb::cast<InArray>(amounts);
                value = life_value(kind, curve, status, call, given.data(), given.shape(0));
            }
            return decimals.is_none() ? value : core::round_like_numpy(value, nb::cast<int>(decimals));
        },
        nb::arg("kind"), nb::arg("lives"), nb::arg("status"), nb::arg("curve"), nb::kw_only(), nb::arg("ts"),
        nb::arg("d"), nb::arg("n"), nb::arg("m"), nb::arg("timing"), nb::arg("growth_kind"), nb::arg("growth_rate"),
        nb::arg("amounts").none(), nb::arg("mode"), nb::arg("decimals").none(), nb::arg("tolerance_eps"),
        "A life-contingent value ('annuity', 'insurance', 'endowment_insurance' or 'pure_endowment') of one life "
        "or two ('joint', 'last_survivor') on `curve` seen from the valuation time ts; lives are (table, age at "
        "inception, select age or NaN, rule).");

    m.def(
        "life_portfolio",
        [](std::vector<core::MortalityTable*> tables, const std::vector<std::string>& rule_names,
           const std::vector<std::vector<std::uint32_t>>& names, InArray rates, InArray terms, InArray ends,
           nb::object table, RealArray age, RealArray select_age, RealArray n, RealArray d, RealArray ts,
           RealArray frequency, nb::object benefits, int timing, const std::string& mode, double tolerance_eps,
           int decimals) {
            if (tables.size() != rule_names.size() || tables.size() != names.size() || tables.empty())
                throw std::invalid_argument("one rule and one name per table, at least one table");
            if (timing != 0 && timing != 1) throw std::invalid_argument("timing must be 0 or 1");
            std::vector<core::FractionalAge> rules;
            for (const auto& name : rule_names) rules.push_back(rule_of(name));
            const core::BookColumn weights =
                benefits.is_none() ? core::BookColumn{} : column_of(nb::cast<RealArray>(benefits));
            // The book's size is that of its columns of other than one value.
            const std::size_t lengths[] = {
                age.shape(0), select_age.shape(0), n.shape(0),           d.shape(0),
                ts.shape(0),  frequency.shape(0),  table_rows_of(table), benefits.is_none() ? 1 : weights.size};
            std::size_t size = 1;
            for (const std::size_t rows : lengths)
                if (rows != 1) size = rows;
            for (const std::size_t rows : lengths)
                if (rows != size && rows != 1)
                    throw std::invalid_argument("policy columns must have one length or hold one value");
            const core::LifePolicies policies(size, table_column_of(table, names, size), column_of(age),
                                              column_of(select_age), column_of(n), column_of(d), column_of(ts),
                                              column_of(frequency), weights);
            const core::PolicyTerms p{1, timing, core::Growth{}, mode_of(mode), tolerance_eps, 0.0, decimals};
            const core::CurveArrays curve = arrays_of(rates, terms, ends);
            auto [array, out] = new_array(size);
            core::LifeBookFault fault;
            {
                nb::gil_scoped_release release;
                fault = core::life_portfolio_values(curve, tables, rules, policies, p, out);
            }
            if (fault.kind == core::LifeBookFault::SelectAge)
                throw std::invalid_argument("invalid select age at index " + std::to_string(fault.index));
            if (fault.kind == core::LifeBookFault::Policy)
                throw std::invalid_argument("invalid policy at index " + std::to_string(fault.index));
            return array;
        },
        nb::arg("tables"), nb::arg("rules"), nb::arg("names"), nb::arg("rates"), nb::arg("terms"), nb::arg("ends"),
        nb::arg("table"), nb::arg("age"), nb::arg("select_age"), nb::arg("n"), nb::arg("d"), nb::arg("ts"),
        nb::arg("m"), nb::arg("benefits").none(), nb::kw_only(), nb::arg("timing"), nb::arg("mode"),
        nb::arg("tolerance_eps"), nb::arg("decimals"),
        "Rounded life annuity values of a portfolio (times the benefits). Columns hold one value per policy or one "
        "for all; `table` holds table indices, or fixed-width texts as a (rows, width) array of UTF-32 code points "
        "matched against `names` (each table's name as code points).");
}
