// norvane._kernels, life contingencies: mortality tables, survival, life
// values on a curve (read natively through the curve extension's capsule) and
// life books on a curve's arrays. Python validates and words the messages;
// these bindings convert, guard against input that would crash, and call the
// core.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include "bindings/native_curve.hpp"
#include "core/distinct.hpp"
#include "core/life.hpp"
#include "core/life_book.hpp"
#include "core/status_book.hpp"
#include "curve.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
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

// Why a life aged `age` at inception is not one of its table at ts.
[[noreturn]] void refuse_life(core::LifeAt::Fault fault, double age, double ts) {
    if (fault == core::LifeAt::NotFinite) throw std::invalid_argument("ages and times must be finite");
    if (fault == core::LifeAt::SelectAgeOutOfRange) throw std::invalid_argument("ages must be finite");
    std::ostringstream reached;
    reached << age + ts;  // shortest form: an age of 1e308 is not 309 digits
    throw std::invalid_argument("nobody in the table reaches age " + reached.str());
}

// A life of `table` aged `age` at inception, seen at ts.
core::LifeOnPath life_of(core::MortalityTable& table, double age, double select_age, double ts,
                         core::FractionalAge rule) {
    const core::LifeAt at = core::life_at(table, age, select_age, ts, rule);
    if (at.fault != core::LifeAt::None) refuse_life(at.fault, age, ts);
    return at.life;
}

using LifeArgs = std::tuple<nb::object, double, double, std::string>;

// The lives of a Life or a JointLife as the core reads them, kept with the
// Python tables that own them, so that a call reads them without conversion.
class LifeStatus {
  public:
    LifeStatus(const std::string& kind, const std::vector<LifeArgs>& lives) {
        const auto status_kind = core::status_named(kind, lives.size());
        if (!status_kind)
            throw std::invalid_argument("a status is 'single' with one life or 'joint'/'last_survivor' with two");
        kind_ = *status_kind;
        count_ = lives.size();
        for (std::size_t i = 0; i < count_; ++i) {
            const auto& [owner, age, select_age, rule] = lives[i];
            core::MortalityTable* table = nb::cast<core::MortalityTable*>(owner);
            if (!table) throw std::invalid_argument("a life needs a table");
            lives_[i] = {table, age, select_age, rule_of(rule)};
            owners_[i] = owner;
        }
    }

    // The status seen at ts, its lives that much older; or the first life
    // that is not one of its table then, and why.
    struct Seen {
        core::Status status;
        core::LifeAt::Fault fault = core::LifeAt::None;
        double age = 0.0;  // at inception, of the life refused
    };
    Seen at(double ts) const {
        core::LifeOnPath on_path[2]{};
        for (std::size_t i = 0; i < count_; ++i) {
            const Member& life = lives_[i];
            const core::LifeAt seen = core::life_at(*life.table, life.age, life.select_age, ts, life.rule);
            if (seen.fault != core::LifeAt::None) return {core::Status{}, seen.fault, life.age};
            on_path[i] = seen.life;
        }
        return {core::Status::of(kind_, {on_path, count_})};
    }

  private:
    struct Member {
        core::MortalityTable* table;
        double age, select_age;
        core::FractionalAge rule;
    };
    core::Status::Kind kind_ = core::Status::Single;
    std::size_t count_ = 0;
    Member lives_[2]{};
    nb::object owners_[2];  // the tables' Python objects, which own them
};

// The curve extension's functions for reading a curve (imported on first use:
// that extension imports this one as it loads).
const bindings::NativeCurveApi& native_curves() {
    static std::atomic<const bindings::NativeCurveApi*> api{nullptr};
    const bindings::NativeCurveApi* known = api.load(std::memory_order_acquire);
    if (!known) {
        known = static_cast<const bindings::NativeCurveApi*>(PyCapsule_Import(bindings::kNativeCurveCapsule, 0));
        if (!known) throw nb::python_error();
        api.store(known, std::memory_order_release);
    }
    return *known;
}

bindings::NativeCurve curve_seen_from(nb::handle curve, double ts) {
    bindings::NativeCurve view;
    const int found = native_curves().seen_from(curve.ptr(), ts, &view);
    if (found < 0) throw nb::python_error();
    if (found == 0) throw nb::type_error("curve must be an InterestRate");
    if (!view.mode) throw std::invalid_argument("the curve's calculation mode is not one the engine knows");
    return view;
}

struct LifeCall {
    double ts, d, n;
    std::size_t m;
    int timing;
    core::Growth growth;
};

// The value of `benefit` on the curve as `view` reads it, unrounded.
core::LifeValue life_value(core::LifeBenefit benefit, const bindings::NativeCurve& view, const core::Status& status,
                           const LifeCall& c, std::optional<std::span<const double>> amounts) {
    // A pure endowment has no payments to grow.
    const core::Growth growth = benefit == core::LifeBenefit::PureEndowment ? core::Growth{} : c.growth;
    const core::PolicyTerms terms{c.m, c.timing, growth, *view.mode, view.tolerance_eps, 0.0, 0};
    return core::life_benefit_value(benefit, *view.table, status, c.ts, c.d, c.n, terms, amounts, view.grids.get());
}

// A value called with plain numbers, level payments and no amounts, valued
// with no Python in between; none for any other call, and for any call the
// full path refuses (which words the message).
std::optional<double> plain_value(const LifeStatus& status, core::LifeBenefit benefit, nb::handle curve, nb::handle n,
                                  nb::handle d, nb::handle m, nb::handle ts, nb::handle gr, nb::handle amounts,
                                  int timing) {
    if (!gr.is_none() || !amounts.is_none()) return std::nullopt;
    bindings::PlainCall call;
    const int plain = native_curves().plain_call(curve.ptr(), n.ptr(), d.ptr(), m.ptr(), ts.ptr(), &call);
    if (plain < 0) PyErr_Clear();  // the full path raises it again, worded
    if (plain <= 0 || !call.curve.mode) return std::nullopt;
    const bindings::PlainNumbers& p = call.numbers;
    if (std::isfinite(p.n) && !core::countable(p.n, p.m)) return std::nullopt;
    const LifeStatus::Seen seen = status.at(p.ts);
    if (seen.fault != core::LifeAt::None) return std::nullopt;
    const core::LifeValue value =
        life_value(benefit, call.curve, seen.status, {p.ts, p.d, p.n, p.m, timing, {}}, std::nullopt);
    if (value.fault != core::LifeValue::None) return std::nullopt;
    return core::round_scaled(value.value, call.curve.scale);
}

// LifeStatus.plain_value(kind, curve, n, d, m, ts, gr, amounts, timing): the
// call of every single life value, so a plain fastcall method (positional
// arguments, None accepted where a call passes it), which the interpreter
// calls without a general binding's argument matching.
PyObject* plain_value_call(PyObject* self, PyObject* const* args, Py_ssize_t count) noexcept {
    try {
        if (count != 9) {
            PyErr_Format(PyExc_TypeError, "plain_value() takes 9 positional arguments but %zd were given", count);
            return nullptr;
        }
        Py_ssize_t size = 0;
        const char* kind = PyUnicode_Check(args[0]) ? PyUnicode_AsUTF8AndSize(args[0], &size) : nullptr;
        const auto benefit = kind ? core::life_benefit_named({kind, static_cast<std::size_t>(size)}) : std::nullopt;
        const long timing = PyLong_Check(args[8]) ? PyLong_AsLong(args[8]) : -1;
        if (!benefit || (timing != 0 && timing != 1)) {
            PyErr_Clear();
            PyErr_SetString(PyExc_ValueError, "plain_value() needs a life value's kind and a timing of 0 or 1");
            return nullptr;
        }
        const LifeStatus& status = *nb::inst_ptr<LifeStatus>(self);
        const std::optional<double> value = plain_value(status, *benefit, args[1], args[2], args[3], args[4], args[5],
                                                        args[6], args[7], static_cast<int>(timing));
        if (!value) Py_RETURN_NONE;
        return PyFloat_FromDouble(*value);
    } catch (nb::python_error& e) {
        e.restore();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
    return nullptr;
}

void add_plain_value(nb::class_<LifeStatus>& cls) {
    // Static: a method definition must outlive its class.
    static PyMethodDef def{"plain_value", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(plain_value_call)),
                           METH_FASTCALL,
                           "plain_value($self, kind, curve, n, d, m, ts, gr, amounts, timing, /)\n--\n\n"
                           "As `value`, for a call given in plain numbers (n None: for life) with level payments "
                           "and no amounts; None for any other call (the full path checks it and words what it "
                           "refuses)."};
    nb::object method = nb::steal(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(cls.ptr()), &def));
    if (!method) throw nb::python_error();
    cls.attr("plain_value") = method;
}

// A table column given as texts: (rows, width) UTF-32 code points, as NumPy holds fixed-width strings.
using TextArray = nb::ndarray<nb::ro, const std::uint32_t, nb::ndim<2>, nb::c_contig, nb::device::cpu>;

// The arrays a call reads from the Python objects it was given, kept until it
// returns: an object that is not a contiguous array of a type read is read
// from a converted copy, which must outlive the reading. Texts are read only
// from arrays of code points as they stand.
class Kept {
  public:
    core::BookColumn column(nb::handle values) {
        RealArray array;
        if (!nb::try_cast(values, array))
            throw nb::type_error("a book column must be a one-dimensional array of float64, float32, int64 or int32");
        return column_of(reals_.emplace_back(std::move(array)));
    }
    const TextArray* texts(nb::handle values) {
        TextArray array;
        if (!nb::try_cast(values, array, false)) return nullptr;
        return &texts_.emplace_back(std::move(array));
    }

  private:
    std::deque<RealArray> reals_;  // (a deque: what is kept stays where it is)
    std::deque<TextArray> texts_;
};

std::size_t table_rows_of(nb::handle table) {
    TextArray text;
    if (nb::try_cast(table, text, false)) return text.shape(0);
    RealArray numbers;
    if (!nb::try_cast(table, numbers))
        throw nb::type_error("a column must hold numbers (one dimension) or texts as code points (two)");
    return numbers.shape(0);
}

core::TableColumn table_column_of(nb::handle table, const std::vector<std::vector<std::uint32_t>>& names,
                                  std::size_t size, Kept& kept) {
    const TextArray* text = kept.texts(table);
    if (!text) return core::TableColumn(kept.column(table), size);
    std::vector<std::u32string> named;
    for (const auto& name : names) named.emplace_back(name.begin(), name.end());
    return core::TableColumn(text->data(), text->shape(1), text->shape(0), size, named);
}

// Each part's amounts and shares: a column of the rows' length, one value for all, or None (1).
std::pair<std::vector<core::Column>, std::vector<core::Column>> part_columns(const std::vector<nb::object>& amounts,
                                                                             const std::vector<nb::object>& shares,
                                                                             std::size_t size, Kept& kept) {
    const auto column = [size, &kept](nb::handle values) {
        static constexpr double kOne[] = {1.0};
        const core::BookColumn read = values.is_none() ? core::BookColumn(kOne) : kept.column(values);
        if (read.size != size && read.size != 1)
            throw std::invalid_argument("an amount or share column holds one value or one per row");
        return core::Column(read, size);
    };
    std::pair<std::vector<core::Column>, std::vector<core::Column>> columns;
    for (std::size_t p = 0; p < amounts.size(); ++p) {
        columns.first.push_back(column(amounts[p]));
        columns.second.push_back(column(shares[p]));
    }
    return columns;
}

// Refuses a book at its first fault.
void refuse_book(core::LifeBookFault fault) {
    if (fault.kind == core::LifeBookFault::SelectAge)
        throw std::invalid_argument("invalid select age at index " + std::to_string(fault.index));
    if (fault.kind == core::LifeBookFault::Policy)
        throw std::invalid_argument("invalid policy at index " + std::to_string(fault.index));
}

// One fractional-age rule and one name per table.
std::vector<core::FractionalAge> rules_of(const std::vector<core::MortalityTable*>& tables,
                                          const std::vector<std::string>& rule_names,
                                          const std::vector<std::vector<std::uint32_t>>& names) {
    if (tables.size() != rule_names.size() || tables.size() != names.size())
        throw std::invalid_argument("one rule and one name per table");
    std::vector<core::FractionalAge> rules;
    for (const auto& name : rule_names) rules.push_back(rule_of(name));
    return rules;
}

// A book's columns; its size is that of its columns of other than one value
// (`more`: the lengths of further columns read with it).
core::LifePolicies book_of(nb::handle table, const std::vector<std::vector<std::uint32_t>>& names, RealArray age,
                           RealArray select_age, RealArray n, RealArray d, RealArray ts, RealArray frequency,
                           nb::handle benefits, std::initializer_list<std::size_t> more, Kept& kept) {
    const core::BookColumn weights = benefits.is_none() ? core::BookColumn{} : kept.column(benefits);
    std::vector<std::size_t> lengths = {
        age.shape(0), select_age.shape(0), n.shape(0),           d.shape(0),
        ts.shape(0),  frequency.shape(0),  table_rows_of(table), benefits.is_none() ? 1 : weights.size};
    lengths.insert(lengths.end(), more);
    std::size_t size = 1;
    for (const std::size_t rows : lengths)
        if (rows != 1) size = rows;
    for (const std::size_t rows : lengths)
        if (rows != size && rows != 1)
            throw std::invalid_argument("policy columns must have one length or hold one value");
    return core::LifePolicies(size, table_column_of(table, names, size, kept), column_of(age), column_of(select_age),
                              column_of(n), column_of(d), column_of(ts), column_of(frequency), weights);
}

// The other life of each policy of a two-life book: (table, age, select_age)
// columns read with the book's terms; none for a book of single lives.
class SecondLives {
  public:
    SecondLives(nb::handle second, const std::vector<std::vector<std::uint32_t>>& names, RealArray n, RealArray d,
                RealArray ts, RealArray frequency, std::size_t size) {
        if (second.is_none()) return;
        if (!nb::try_cast(second, lives_))
            throw nb::type_error("second must be a (table, age, select_age) tuple of columns");
        const auto& [table, age, select_age] = lives_;
        policies_.emplace(book_of(table, names, age, select_age, n, d, ts, frequency, nb::none(), {size}, kept_));
        if (policies_->size != size)
            throw std::invalid_argument("policy columns must have one length or hold one value");
    }
    const core::LifePolicies* get() const { return policies_ ? &*policies_ : nullptr; }

  private:
    std::tuple<nb::object, RealArray, RealArray> lives_;  // the columns the policies read
    Kept kept_;
    std::optional<core::LifePolicies> policies_;
};

// A book's status and benefit, its lives checked (the first fault refused).
core::StatusBook status_book_of(const std::vector<core::MortalityTable*>& tables, const core::LifePolicies& policies,
                                const SecondLives& others, const std::string& status, const std::string& benefit,
                                int timing) {
    if (timing != 0 && timing != 1) throw std::invalid_argument("timing must be 0 or 1");
    const auto kind = core::status_named(status, others.get() ? 2 : 1);
    if (!kind) throw std::invalid_argument("a status is 'single' with one life or 'joint'/'last_survivor' with two");
    const auto pays = core::life_benefit_named(benefit);
    if (!pays)
        throw std::invalid_argument("a benefit is 'annuity', 'insurance', 'endowment_insurance' or 'pure_endowment'");
    if (!tables.empty()) {
        refuse_book(core::check_life_policies(tables, policies));
        if (others.get()) refuse_book(core::check_life_policies(tables, *others.get()));
    }
    return {policies, others.get(), *kind, *pays};
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

    auto status_class =
        nb::class_<LifeStatus>(m, "LifeStatus",
                               "The lives of a status ('single' with one, 'joint' or 'last_survivor' with two) as "
                               "(table, age at inception, select age or NaN, fractional-age rule).")
            .def(nb::init<const std::string&, const std::vector<LifeArgs>&>(), nb::arg("kind"), nb::arg("lives"))
            .def(
                "value",
                [](const LifeStatus& self, const std::string& kind, nb::handle curve, double ts, double d, double n,
                   std::size_t m_, int timing, const std::string& growth_kind, double growth_rate, nb::object amounts) {
                    if (m_ == 0 || (timing != 0 && timing != 1))
                        throw std::invalid_argument("m >= 1 and timing 0 or 1");
                    if (!(core::finite_nonnegative(ts) && core::finite_nonnegative(d) && n >= 0.0))
                        throw std::invalid_argument("ts and d must be finite and >= 0, n >= 0");
                    const auto benefit = core::life_benefit_named(kind);
                    if (!benefit) throw std::invalid_argument("unknown life value '" + kind + "'");
                    const LifeStatus::Seen seen = self.at(ts);
                    if (seen.fault != core::LifeAt::None) refuse_life(seen.fault, seen.age, ts);
                    const bindings::NativeCurve view = curve_seen_from(curve, ts);
                    const LifeCall call{ts, d, n, m_, timing, growth_of(growth_kind, growth_rate)};
                    std::optional<InArray> given;
                    if (!amounts.is_none()) given = nb::cast<InArray>(amounts);
                    const core::LifeValue value =
                        life_value(*benefit, view, seen.status, call,
                                   given ? std::optional<std::span<const double>>(span_of(*given)) : std::nullopt);
                    if (value.fault == core::LifeValue::Uncountable)
                        throw std::invalid_argument("a term must be >= 0 with fewer than 2**53 payments");
                    if (value.fault == core::LifeValue::AmountCount)
                        throw std::invalid_argument("'cashflow_amounts' holds " + std::to_string(given->shape(0)) +
                                                    " amounts for " + std::to_string(value.payments) + " payments");
                    return core::round_scaled(value.value, view.scale);
                },
                nb::arg("kind"), nb::arg("curve"), nb::kw_only(), nb::arg("ts"), nb::arg("d"), nb::arg("n"),
                nb::arg("m"), nb::arg("timing"), nb::arg("growth_kind"), nb::arg("growth_rate"),
                nb::arg("amounts").none(),
                "A life-contingent value ('annuity', 'insurance', 'endowment_insurance' or 'pure_endowment') on "
                "`curve` (an InterestRate) seen from the valuation time ts, rounded as the curve's annuities.")
            .def(
                "expectancy",
                [](const LifeStatus& self, bool complete, double ts) {
                    if (!core::finite_nonnegative(ts)) throw std::invalid_argument("ts must be finite and >= 0");
                    const LifeStatus::Seen seen = self.at(ts);
                    if (seen.fault != core::LifeAt::None) refuse_life(seen.fault, seen.age, ts);
                    return core::life_expectancy(seen.status, complete);
                },
                nb::arg("complete"), nb::arg("ts"),
                "Expected future lifetime of the status seen at ts: complete (the integral of tpx) or curtate (the "
                "sum of kpx over k >= 1).");
    add_plain_value(status_class);

    m.def(
        "life_portfolio",
        [](std::vector<core::MortalityTable*> tables, const std::vector<std::string>& rule_names,
           const std::vector<std::vector<std::uint32_t>>& names, InArray rates, InArray terms, InArray ends,
           nb::object table, RealArray age, RealArray select_age, RealArray n, RealArray d, RealArray ts,
           RealArray frequency, nb::object benefits, int timing, const std::string& growth_kind, double growth_rate,
           const std::string& mode, double tolerance_eps, int decimals) {
            if (tables.empty()) throw std::invalid_argument("at least one table");
            const std::vector<core::FractionalAge> rules = rules_of(tables, rule_names, names);
            if (timing != 0 && timing != 1) throw std::invalid_argument("timing must be 0 or 1");
            Kept kept;
            const core::LifePolicies policies =
                book_of(table, names, age, select_age, n, d, ts, frequency, benefits, {}, kept);
            const std::size_t size = policies.size;
            const core::PolicyTerms p{1,   timing,  growth_of(growth_kind, growth_rate), mode_of(mode), tolerance_eps,
                                      0.0, decimals};
            const core::CurveArrays curve = arrays_of(rates, terms, ends);
            auto [array, out] = new_array(size);
            core::LifeBookFault fault;
            {
                nb::gil_scoped_release release;
                fault = core::life_portfolio_values(curve, tables, rules, policies, p, out);
            }
            refuse_book(fault);
            return array;
        },
        nb::arg("tables"), nb::arg("rules"), nb::arg("names"), nb::arg("rates"), nb::arg("terms"), nb::arg("ends"),
        nb::arg("table"), nb::arg("age"), nb::arg("select_age"), nb::arg("n"), nb::arg("d"), nb::arg("ts"),
        nb::arg("m"), nb::arg("benefits").none(), nb::kw_only(), nb::arg("timing"), nb::arg("growth_kind"),
        nb::arg("growth_rate"), nb::arg("mode"), nb::arg("tolerance_eps"), nb::arg("decimals"),
        "Rounded life annuity values of a portfolio (times the benefits). Columns hold one value per policy or one "
        "for all; `table` holds table indices, or fixed-width texts as a (rows, width) array of UTF-32 code points "
        "matched against `names` (each table's name as code points).");

    m.def(
        "status_book",
        [](std::vector<core::MortalityTable*> tables, const std::vector<std::string>& rule_names,
           const std::vector<std::vector<std::uint32_t>>& names, InArray rates, InArray terms, InArray ends,
           nb::object table, RealArray age, RealArray select_age, RealArray n, RealArray d, RealArray ts,
           RealArray frequency, nb::object benefits, nb::object second, const std::string& status,
           const std::string& benefit, int timing, const std::string& growth_kind, double growth_rate,
           const std::string& mode, double tolerance_eps, int decimals) {
            if (tables.empty()) throw std::invalid_argument("at least one table");
            const std::vector<core::FractionalAge> rules = rules_of(tables, rule_names, names);
            Kept kept;
            const core::LifePolicies policies =
                book_of(table, names, age, select_age, n, d, ts, frequency, benefits, {}, kept);
            const SecondLives others(second, names, n, d, ts, frequency, policies.size);
            const core::StatusBook book = status_book_of(tables, policies, others, status, benefit, timing);
            const core::PolicyTerms p{1,   timing,  growth_of(growth_kind, growth_rate), mode_of(mode), tolerance_eps,
                                      0.0, decimals};
            const core::CurveArrays curve = arrays_of(rates, terms, ends);
            auto [array, out] = new_array(policies.size);
            {
                nb::gil_scoped_release release;
                core::status_book_values(curve, tables, rules, book, p, out);
            }
            return array;
        },
        nb::arg("tables"), nb::arg("rules"), nb::arg("names"), nb::arg("rates"), nb::arg("terms"), nb::arg("ends"),
        nb::arg("table"), nb::arg("age"), nb::arg("select_age"), nb::arg("n"), nb::arg("d"), nb::arg("ts"),
        nb::arg("m"), nb::arg("benefits").none(), nb::kw_only(), nb::arg("second").none(), nb::arg("status"),
        nb::arg("benefit"), nb::arg("timing"), nb::arg("growth_kind"), nb::arg("growth_rate"), nb::arg("mode"),
        nb::arg("tolerance_eps"), nb::arg("decimals"),
        "Rounded values of a book paying `benefit` on a 'single', 'joint' or 'last_survivor' status (times the "
        "benefits), each as its single call; NaN where nobody reaches a life. `second`: the other lives' (table, "
        "age, select_age) columns.");

    m.def(
        "distinct_policies",
        [](const std::vector<std::vector<std::uint32_t>>& names, const std::vector<nb::object>& columns) {
            std::size_t size = 1;
            for (const nb::object& column : columns)
                if (const std::size_t rows = table_rows_of(column); rows != 1) size = rows;
            Kept kept;
            std::vector<core::TableColumn> values;
            values.reserve(columns.size());
            for (const nb::object& column : columns) {
                if (const std::size_t rows = table_rows_of(column); rows != size && rows != 1)
                    throw std::invalid_argument("policy columns must have one length or hold one value");
                values.push_back(table_column_of(column, names, size, kept));
            }
            const std::vector<core::KeyWord> key(values.begin(), values.end());
            if (std::count_if(key.begin(), key.end(), [](const core::KeyWord& w) { return !w.repeated(); }) >
                    static_cast<std::ptrdiff_t>(core::kMaxKeyWords) ||
                size >= (std::size_t{1} << 32))
                throw std::invalid_argument("at most 16 columns of more than one value and fewer than 2**32 rows");
            auto [of_array, of] = new_array<std::uint32_t>(size);
            std::vector<std::uint32_t> lead;
            {
                nb::gil_scoped_release release;
                lead = core::distinct_policies(key, of);
            }
            return std::make_pair(to_array(std::move(lead)), of_array);
        },
        nb::arg("names"), nb::arg("columns"),
        "The distinct rows of a book's columns (each a column of numbers, or of fixed-width table texts as "
        "`life_portfolio` reads them, `names` naming the tables; one length, or one value): the first row of "
        "each, in order of first appearance, and each row's number among them.");

    using IndexArray = nb::ndarray<nb::ro, const std::uint32_t, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
    m.def(
        "gather_parts",
        [](IndexArray of, const std::vector<InArray>& units, const std::vector<nb::object>& amounts,
           const std::vector<nb::object>& shares) {
            if (units.empty() || units.size() != amounts.size() || units.size() != shares.size())
                throw std::invalid_argument("one amount and one share column per part's units, at least one part");
            const std::size_t size = of.shape(0);
            std::vector<std::span<const double>> unit_spans;
            for (const InArray& part : units) unit_spans.push_back(span_of(part));
            Kept kept;
            const auto [amount_columns, share_columns] = part_columns(amounts, shares, size, kept);
            auto [array, out] = new_array(size);
            bool within;
            {
                nb::gil_scoped_release release;
                within = core::gather_parts({of.data(), size}, unit_spans, amount_columns, share_columns, out);
            }
            if (!within) throw std::invalid_argument("a row's number is not below every part's count of units");
            return array;
        },
        nb::arg("of").noconvert(), nb::arg("units"), nb::arg("amounts"), nb::arg("shares"),
        "Each row's value, the sum over parts of units[part][of[row]] * (amounts[part][row] * "
        "shares[part][row]) (each a column, one value for all rows, or None: 1), the parts added in order.");

    m.def(
        "sum_parts",
        [](IndexArray of, std::size_t count, const std::vector<nb::object>& amounts,
           const std::vector<nb::object>& shares) {
            if (amounts.size() != shares.size()) throw std::invalid_argument("one share column per amount column");
            const std::size_t size = of.shape(0);
            Kept kept;
            const auto [amount_columns, share_columns] = part_columns(amounts, shares, size, kept);
            std::vector<std::vector<double>> sums(amounts.size(), std::vector<double>(count, 0.0));
            const std::vector<std::span<double>> spans(sums.begin(), sums.end());
            bool within;
            {
                nb::gil_scoped_release release;
                within = core::sum_parts({of.data(), size}, amount_columns, share_columns, spans);
            }
            if (!within) throw std::invalid_argument("a row's number is not below the count of distinct rows");
            std::vector<OutArray> out;
            for (auto& part : sums) out.push_back(to_array(std::move(part)));
            return out;
        },
        nb::arg("of").noconvert(), nb::arg("count"), nb::arg("amounts"), nb::arg("shares"),
        "For each part, the sum over the rows of each of `count` numbers of amounts[part][row] * "
        "shares[part][row] (as `gather_parts` reads them), the rows added in order.");

    m.attr("MAX_FLOW_PAYMENTS") = core::kMaxFlowPayments;
    m.def(
        "book_flows",
        [](std::vector<core::MortalityTable*> tables, const std::vector<std::string>& rule_names,
           const std::vector<std::vector<std::uint32_t>>& names, InArray rates, InArray terms, InArray ends,
           nb::object table, RealArray age, RealArray select_age, RealArray n, RealArray d, RealArray ts,
           RealArray frequency, nb::object benefits, RealArray group, std::size_t groups, InArray bucket_ends,
           nb::object second, const std::string& status, const std::string& benefit, int timing,
           const std::string& growth_kind, double growth_rate, const std::string& mode, double tolerance_eps,
           double perpetuity_n_eff) {
            const std::vector<core::FractionalAge> rules = rules_of(tables, rule_names, names);
            const std::span<const double> bucket_span = span_of(bucket_ends);
            if (bucket_span.empty() || !std::is_sorted(bucket_span.begin(), bucket_span.end()) ||
                !std::all_of(bucket_span.begin(), bucket_span.end(), [](double t) { return std::isfinite(t); }))
                throw std::invalid_argument("bucket ends must be finite and ascending, at least one");
            // Each core gathers its own copy of the buckets: their cells stay within reason.
            constexpr std::size_t kMaxCells = std::size_t{1} << 26;
            if (groups == 0 || groups > kMaxCells / bucket_span.size())
                throw std::invalid_argument("groups x buckets must be from 1 to 2**26");
            Kept kept;
            const core::LifePolicies policies =
                book_of(table, names, age, select_age, n, d, ts, frequency, benefits, {group.shape(0)}, kept);
            const SecondLives others(second, names, n, d, ts, frequency, policies.size);
            const core::StatusBook book = status_book_of(tables, policies, others, status, benefit, timing);
            if (tables.empty() && (book.benefit != core::LifeBenefit::Annuity || book.second))
                throw std::invalid_argument("a certain policy is an annuity on no life");
            const core::Column group_column(column_of(group), policies.size);
            const core::PolicyTerms p{
                1, timing, growth_of(growth_kind, growth_rate), mode_of(mode), tolerance_eps, perpetuity_n_eff};
            const core::CurveArrays curve = arrays_of(rates, terms, ends);
            core::FlowBuckets out(bucket_span, groups);
            std::optional<std::size_t> fault;
            {
                nb::gil_scoped_release release;
                fault = core::book_flows(curve, tables, rules, book, group_column, p, out);
            }
            if (fault) throw std::invalid_argument("invalid policy or group at index " + std::to_string(*fault));
            return std::make_tuple(to_array({out.expected().begin(), out.expected().end()}),
                                   to_array({out.discounted().begin(), out.discounted().end()}),
                                   to_array({out.timed().begin(), out.timed().end()}),
                                   to_array({out.earliest().begin(), out.earliest().end()}),
                                   to_array({out.latest().begin(), out.latest().end()}));
        },
        nb::arg("tables"), nb::arg("rules"), nb::arg("names"), nb::arg("rates"), nb::arg("terms"), nb::arg("ends"),
        nb::arg("table"), nb::arg("age"), nb::arg("select_age"), nb::arg("n"), nb::arg("d"), nb::arg("ts"),
        nb::arg("m"), nb::arg("benefits").none(), nb::arg("group"), nb::arg("groups"), nb::arg("bucket_ends"),
        nb::kw_only(), nb::arg("second").none(), nb::arg("status"), nb::arg("benefit"), nb::arg("timing"),
        nb::arg("growth_kind"), nb::arg("growth_rate"), nb::arg("mode"), nb::arg("tolerance_eps"),
        nb::arg("perpetuity_n_eff"),
        "Expected and discounted flows of a book (each times its benefit), the discounted ones times their "
        "times, and the earliest and latest time of each bucket's discounted flows, per group and time bucket, "
        "flat (group by group). Without tables every policy is a certain annuity; "
        "the others must be valid policies.");
}
