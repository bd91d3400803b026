// Life contingencies on a curve: survival over mortality tables under a
// fractional-age rule, and life annuities, insurances and pure endowments.
// Schedules, payment counts, Woolhouse's parts and rounding come from
// core/annuity.hpp; this file adds only the survival weights.
#pragma once

#include "core/annuity.hpp"
#include "core/prefix_sums.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <vector>

namespace norvane::core {

// How survival runs inside a year of age: uniform distribution of deaths
// (linear l), constant force (exponential l) or Balducci (linear 1/l).
enum class FractionalAge { Uniform, ConstantForce, Balducci };
// "udd", "constant_force" or "balducci".
std::optional<FractionalAge> fractional_age_named(std::string_view name);

// The death probabilities q[0], q[1], ... a life meets in the successive
// years from an integer age on, and survival along them. Nobody survives the
// last year (tables end with q = 1).
class SurvivalPath {
  public:
    explicit SurvivalPath(std::vector<double> q);
    double years() const { return static_cast<double>(q_.size()); }
    // A number no other path of the process has, so that a cache can name a path without holding it.
    std::uint64_t id() const { return id_; }
    // Survival from 0 to u >= 0.
    double to(double u, FractionalAge rule) const;
    // Survival to the integer j, the death probability of year j and log(1 - q).
    double l(std::size_t j) const { return l_[j]; }
    double q(std::size_t j) const { return q_[j]; }
    double log_p(std::size_t j) const { return log_p_[j]; }

  private:
    std::vector<double> q_, l_, log_p_;  // l_[j]: survival to j; log_p_[j] = log(1 - q[j])
    std::uint64_t id_;
};

// An ultimate table (q by integer age from `first_age`), optionally with a
// select table: row r holds q_[s]+t for s = select_first + r, t < period.
// Paths are built on demand, once, and kept (their addresses never change).
class MortalityTable {
  public:
    MortalityTable(int first_age, std::vector<double> ultimate, int select_first, std::size_t select_period,
                   std::vector<double> select);
    int first_age() const { return first_age_; }
    int end_age() const { return first_age_ + static_cast<int>(ultimate_.size()); }  // nobody reaches it
    std::size_t select_period() const { return period_; }
    bool has_select_row(int age) const;
    // Survival from the start of the path of a life selected at `select_age`
    // (the ultimate path, from first_age, when the table has no select row for it).
    const SurvivalPath& path(int select_age);
    // Age at which that path starts.
    int path_start(int select_age) const;

  private:
    int first_age_, select_first_;
    std::size_t period_;
    std::vector<double> ultimate_, select_;
    std::mutex paths_mutex_;  // paths are added while other threads may read the table
    std::optional<SurvivalPath> ultimate_path_;
    std::map<int, SurvivalPath> select_paths_;
};

// One life on its path: `start` years along it at the valuation time.
struct LifeOnPath {
    const SurvivalPath* path;
    double start;
    FractionalAge rule;
    double norm;  // 1 / survival to start

    double at(double t) const { return t <= 0.0 ? 1.0 : path->to(start + t, rule) * norm; }
    double horizon() const { return path->years() - start; }
};
// Survival of each life over its duration: out[i] = lives[i].at(durations[i]).
void survival(std::span<const LifeOnPath> lives, std::span<const double> durations, std::span<double> out);
// A life `start` years along `path`; none when nobody reaches that point.
std::optional<LifeOnPath> life_on_path(const SurvivalPath& path, double start, FractionalAge rule);

// Ages and select ages lie within +-1e9, so that a select age is an int.
inline bool age_in_range(double age) { return std::abs(age) < 1e9; }
// The select age of a life aged `age` at inception: `select_age`, or for NaN
// (no select age given) the integer part of its age.
inline double select_age_of(double age, double select_age) {
    return std::isnan(select_age) ? std::floor(age) : select_age;
}
// A life aged `age` at inception, seen `ts` years later, on a path that
// starts at age `path_start`; none when nobody reaches that point.
inline std::optional<LifeOnPath> life_aged(const SurvivalPath& path, int path_start, double age, double ts,
                                           FractionalAge rule) {
    return life_on_path(path, age - path_start + ts, rule);
}
// The same on a table's path for its select age, or why there is none: an
// age or time that is not finite, a select age out of range, or an age that
// nobody in the table reaches (checked in this order).
struct LifeAt {
    enum Fault { None, NotFinite, SelectAgeOutOfRange, Unreached } fault = None;
    LifeOnPath life{};
};
LifeAt life_at(MortalityTable& table, double age, double select_age, double ts, FractionalAge rule);

// Death probabilities lie in [0, 1] (NaN does not).
inline bool probability(double q) { return q >= 0.0 && q <= 1.0; }
// What a table's columns may not be, in the order looked for: without ages,
// a select table of other than `select_period` values a row (none without a
// period), a value that is not a probability (ultimate rates first).
enum class TableFault { None, NoAges, SelectShape, NotProbability };
TableFault check_table(std::span<const double> ultimate, std::size_t select_period, std::span<const double> select);

// The survival t years after the valuation time of one life, or of the joint
// or last-survivor status of two independent lives (all alive at time 0).
struct Status {
    enum Kind { Single, Joint, LastSurvivor } kind = Single;
    // The status's survival from the lives' survival x (and y).
    static double combine(Kind kind, double x, double y) {
        return kind == Single ? x : kind == Joint ? x * y : x + y - x * y;
    }
    LifeOnPath lives[2];

    // The status of one life or two; a single life fills both places.
    static Status of(Kind kind, std::span<const LifeOnPath> lives) { return {kind, {lives.front(), lives.back()}}; }

    double at(double t) const;
    // The time after which survival is 0.
    double horizon() const;
    // The first time after t at which some life completes a year of age.
    double next_birthday(double t) const;
};

// "single" with one life, "joint" or "last_survivor" with two.
std::optional<Status::Kind> status_named(std::string_view name, std::size_t lives);

// ---- values (unrounded) ---------------------------------------------------------

// exp(-log(1 + r_j) / m) for each segment j: the discount over one period of
// m-thly payments, which the sums below step by (computed there when not given).
std::vector<double> period_ratios(const PiecewiseTable& curve, std::size_t m);

// Sum of amount x v(t) x survival(t) over the schedule's payments.
double life_schedule_value(const PiecewiseTable& curve, const Schedule& s, const Status& status,
                           std::span<const double> ratios = {});
// The same over the first counts[i] regular payments (counts ascending), in
// one pass: each equals the regular part of life_schedule_value bit for bit.
void life_schedule_sums(const PiecewiseTable& curve, const Schedule& s, const Status& status,
                        std::span<const std::size_t> counts, std::span<double> out,
                        std::span<const double> ratios = {});
// The pro-rata last payment's share.
double life_partial_value(const PiecewiseTable& curve, const Schedule& s, const Status& status);
// What sees each payment of a schedule: its time, amount, discount factor and survival.
struct PaymentVisitor {
    virtual void operator()(double t, double amount, double v, double alive) = 0;

  protected:
    ~PaymentVisitor() = default;
};
// Every payment of the schedule while the status survives (no status: survival 1, a certain
// annuity), in time order, the pro-rata one last, with the very discount factors and
// survival that life_schedule_value sums.
void life_schedule_payments(const PiecewiseTable& curve, const Schedule& s, const Status* status,
                            PaymentVisitor& visit);

// Survival-weighted running sums on the payment grid (the commutation
// functions D and N of one life, on any curve and frequency): v(k/m) times
// the survival to k/m, summed over the grid points k = 0, 1, ... A level
// schedule of one life whose payments fall on the grid is then a difference
// of two sums, whatever its deferment and term; the single call and the book
// both value such schedules so, hence their values agree bit for bit.
class LifeGrid {
  public:
    // The sums over the grid points [0, size) (no further than survival lasts).
    // With geometric `growth`, the term at point k also grows by its year
    // (k - timing) / m, as the payments of a schedule starting at point 0 do:
    // a schedule starting s whole years in then reads the sums divided by the
    // growth of those s years (the books' pass; single calls grow payment by payment).
    LifeGrid(const PiecewiseTable& curve, const Status& status, std::size_t m, std::size_t size,
             const Growth& growth = {}, int timing = 0);
    // The grid point of `s`'s first regular payment: none when `s` is not a
    // level schedule of one life on the grid (then it is summed payment by payment).
    static std::optional<std::size_t> first_point(const Schedule& s, const Status& status) {
        if (status.kind != Status::Single) return std::nullopt;
        return first_point(s);
    }
    // The same for a schedule known to be of one life.
    static std::optional<std::size_t> first_point(const Schedule& s) {
        if (s.growth.kind != Growth::Level) return std::nullopt;
        const double point = s.start * static_cast<double>(s.m) + static_cast<double>(s.first + s.timing);
        if (!(point == std::floor(point) && point < 0x1p52)) return std::nullopt;
        return static_cast<std::size_t>(point);
    }
    // The value of `s`, whose regular payments start at the grid point `first`.
    double value(const PiecewiseTable& curve, const Schedule& s, const Status& status, std::size_t first) const {
        return regular(s, first) + (s.has_partial ? life_partial_value(curve, s, status) : 0.0);
    }
    // The value of `s`'s regular payments alone (as the books' vectorised pass computes it).
    double regular(const Schedule& s, std::size_t first) const {
        const std::size_t top = sums_.size();
        return sums_.between(std::min(first, top), std::min(first + s.count, top)) * (1.0 / static_cast<double>(s.m));
    }
    // The running sums, to the grid's last point.
    const PrefixSums& sums() const { return sums_; }

  private:
    PrefixSums sums_;
};

// Under uniform deaths one life's survival is linear in time within each year
// of age, so a level schedule on the grid k/m is, year of age by year, a
// difference of the curve's running sums of v(k/m) and of (k/m) v(k/m). The
// sums serve every such life valued on the curve at that frequency, whatever
// its age: a life between birthdays costs one step per year of age crossed,
// not one per payment. (A life at a birthday takes its own LifeGrid, O(1).)
class CurveSums {
  public:
    CurveSums(const PiecewiseTable& curve, std::size_t m, std::size_t size);
    // Whether `status` is valued on these sums: one life, uniform deaths, between birthdays.
    static bool applies(const Status& status);
    // As LifeGrid::value.
    double value(const PiecewiseTable& curve, const Schedule& s, const Status& status, std::size_t first) const;
    std::size_t size() const { return v_.size(); }

  private:
    double m_;
    PrefixSums v_, tv_;
};

// The grids of single calls on one curve, kept so that later calls read
// them: a life's grid to the end of its survival, the curve's sums as far as
// any call has asked. Thread-safe; a grid in use stays alive while cleared.
class GridCache {
  public:
    std::shared_ptr<const LifeGrid> life_grid(const PiecewiseTable& curve, const Status& status, std::size_t m);
    std::shared_ptr<const CurveSums> curve_sums(const PiecewiseTable& curve, std::size_t m, std::size_t size);

  private:
    static constexpr std::size_t kMaxLives = 4096;  // then the cache starts again
    std::mutex mutex_;
    std::map<std::tuple<std::uint64_t, double, int, std::size_t>, std::shared_ptr<const LifeGrid>> lives_;
    std::map<std::size_t, std::shared_ptr<const CurveSums>> sums_;
};

// Integral of v(t) survival(t) growth(t) over [a, b] (growth years counted
// from `origin`), with the integrand also multiplied by the force of interest
// when `by_force`: exactly per piece between segment ends, birthdays and
// growth years, by 12-point Gauss-Legendre.
double survival_integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth,
                         const Status& status, bool by_force);
// The same with the integrand also times t (its time-weighted value); no status: survival 1.
double survival_time_integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth,
                              const Status* status, bool by_force);

// The periods of a schedule, [d + k/m, d + (k+1)/m] with the last one ending
// with the term, that begin before `horizon`: later ones carry no survival, so
// the walk ends where the status does, however long the term.
template <typename Fn>
void for_each_period(const Annuity& annuity, double horizon, Fn fn) {
    Annuity due = annuity, immediate = annuity;
    due.timing = 0;
    immediate.timing = 1;
    const Schedule starts = due.schedule(), ends = immediate.schedule();
    for (std::size_t i = 0; i < starts.size(); ++i) {
        const double start = starts.payment_time(i);
        if (!(start < horizon)) return;
        fn(i, start, ends.payment_time(i));
    }
}

// A schedule in the discrete precision mode, the way the single call and the
// book both value it: a level schedule of one life on the grid from CurveSums
// or a LifeGrid (as CurveSums::applies says), any other payment by payment.
double life_discrete_value(const PiecewiseTable& curve, const Schedule& s, const Status& status,
                           GridCache* cache = nullptr);

// A life annuity in a calculation mode:
// - DiscretePrecision: every payment with its survival probability;
// - DiscreteSimplified: Woolhouse's parts of core/annuity.hpp, each payment
//   weighted by survival, which is ä(m) = ä - c (E_start - E_end) in whole
//   years, plus the final fraction of a year exactly;
// - ContinuousPrecision: the integral of v(t) survival(t) over the term,
//   exactly per piece between segment ends, birthdays and growth years
//   (12-point Gauss-Legendre: each piece is at most a year of a smooth
//   integrand);
// - ContinuousSimplified: the Woolhouse limit c = 1/2 on the whole years,
//   the final fraction integrated.
double life_annuity_value(const PiecewiseTable& curve, const Annuity& annuity, Mode mode, const Status& status,
                          GridCache* cache = nullptr);

// Explicit amounts, one per payment of the annuity's schedule: payments at
// their times in the discrete modes; flowing uniformly over their periods in
// the continuous modes.
double life_amounts_value(const PiecewiseTable& curve, const Annuity& annuity, std::span<const double> amounts,
                          Mode mode, const Status& status);

// 1 paid on death within the annuity's term (its deferment d and term n): at
// the end of the 1/m period of death in the discrete modes, at the moment of
// death in the continuous ones.
double life_insurance_value(const PiecewiseTable& curve, const Annuity& periods, Mode mode, const Status& status);

// 1 paid at time t if the status survives to it.
double pure_endowment_value(const PiecewiseTable& curve, double t, const Status& status);

// What a policy on a status pays: a life annuity, an insurance (1 on death
// within the term), an endowment insurance (the insurance and 1 on survival
// to the end of a finite term) or a pure endowment (1 on survival to d + n);
// "annuity", "insurance", "endowment_insurance", "pure_endowment".
enum class LifeBenefit { Annuity, Insurance, EndowmentInsurance, PureEndowment };
std::optional<LifeBenefit> life_benefit_named(std::string_view name);

// The value of a policy with deferment d and term n from inception (infinite:
// for life) valued at ts, with its frequency, timing, growth, mode and
// tolerance from `terms` (insurances pay at the end of the period of death,
// whatever the timing). Explicit amounts, one per payment of the full
// schedule, are given to annuities only; the paid ones are skipped. A policy
// with no payment left is worth 0. The faults: a term not countable at m a
// year, or amounts other than one per payment (`payments` says how many).
struct LifeValue {
    enum Fault { None, Uncountable, AmountCount } fault = None;
    double value = 0.0;
    std::size_t payments = 0;
};
LifeValue life_benefit_value(LifeBenefit benefit, const PiecewiseTable& curve, const Status& status, double ts,
                             double d, double n, PolicyTerms terms,
                             std::optional<std::span<const double>> amounts = std::nullopt, GridCache* cache = nullptr);

// The expected future lifetime of a status seen at its valuation time: the
// curtate one (whole years lived, the sum of kpx over k >= 1) or the
// complete one (the integral of tpx). They are the whole-life annuity-due
// (m = 1) less 1 and the continuous annuity, at no interest: the same sums
// and integrals as every life value.
double life_expectancy(const Status& status, bool complete);

// Whether a life aged `age` at inception (selected at `select_age`, NaN: at
// the integer part of its age) is an age of `table` at ts: not younger than
// the table (or its select row), not beyond its last age at ts, and selected
// at a whole age of the table not above its age.
bool age_fits(const MortalityTable& table, double age, double select_age, double ts);

// The term from inception of a policy with term n (infinite: for life, every
// period that begins before survival ends `horizon` years after ts).
inline double life_term(double n, double d, double ts, double horizon, std::size_t m) {
    if (!std::isinf(n)) return n;
    // For life: whole periods from the first payment until survival ends, so
    // the last period begun alive pays in full.
    const TermAtValuation at = term_at_valuation(0.0, d, ts);
    const double periods = std::ceil((horizon - at.deferment) * static_cast<double>(m));
    return periods > 0.0 ? at.elapsed + periods / static_cast<double>(m) : 0.0;
}

// The annuity of a policy on a status whose survival ends `horizon` years
// after the valuation time: term n from inception after the deferment d
// (infinite: for life), valued at ts. None when no payment is left.
inline std::optional<Annuity> life_policy_annuity(double n, double d, double ts, double horizon,
                                                  const PolicyTerms& terms) {
    const double term = life_term(n, d, ts, horizon, terms.m);
    if (!(term > 0.0)) return std::nullopt;
    return policy_annuity(term, d, ts, terms);
}

// What a policy on a status pays (as life_benefit_value), composed once from
// its parts for every use of it, its value and its expected flows:
// `parts.annuity(annuity, term)` a life annuity (a LifeValue; `term` from
// inception), `parts.insurance(periods)` 1 on death within the periods,
// `parts.endowment(t)` 1 on survival to t.
template <typename Parts>
LifeValue life_benefit(LifeBenefit benefit, const Status& status, double ts, double d, double n, PolicyTerms terms,
                       const Parts& parts) {
    if (benefit == LifeBenefit::PureEndowment) {
        const double t = d + n - ts;
        return {LifeValue::None, t < 0.0 ? 0.0 : parts.endowment(t)};
    }
    const bool insurance = benefit != LifeBenefit::Annuity;
    if (insurance) terms.timing = 1;
    const double horizon = status.horizon();
    const double term = life_term(n, d, ts, horizon, terms.m);
    if (!countable(term > 0.0 ? term : 0.0, terms.m)) return {LifeValue::Uncountable};
    const auto annuity = life_policy_annuity(n, d, ts, horizon, terms);
    if (!annuity) return {};
    if (insurance) {
        const double death = parts.insurance(*annuity);
        if (benefit == LifeBenefit::Insurance || std::isinf(n)) return {LifeValue::None, death};
        return {LifeValue::None, death + parts.endowment(annuity->d + annuity->n)};
    }
    return parts.annuity(*annuity, term);
}

}  // namespace norvane::core
