// Annuities on a curve: the rules that turn a policy into a payment schedule,
// and the schedule's value, exact and closed form per curve segment and
// growth year where the amounts allow it. Each rule is written here once;
// every route to a value (single call, engine entry, portfolio, life) uses it.
#pragma once

#include "core/curve.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace norvane::core {

// Growth of payments in annual steps counted from the first payment of the
// schedule: year j is multiplied by (1 + g)^j (geometric) or 1 + g j.
struct Growth {
    enum Kind { Level, Geometric, Arithmetic } kind = Level;
    double rate = 0.0;

    double factor(std::size_t year) const;
};

// Payment k of a regular schedule is made at start + (k + timing) / m and is
// 1/m times the growth factor of its year k / m. A schedule may end with one
// pro-rata payment (fraction of a period) at its own time.
struct Schedule {
    double start = 0.0;                // deferment from the valuation time
    std::size_t m = 1;                 // payments per year
    int timing = 0;                    // 0 due (period start), 1 immediate (period end)
    std::size_t first = 0, count = 0;  // the regular payments first .. first+count-1
    Growth growth;
    bool has_partial = false;
    double partial_fraction = 0.0;  // of a period
    double partial_time = 0.0;
    std::size_t partial_index = 0;  // its position in the schedule (for growth)

    double time(std::size_t k) const { return start + (static_cast<double>(k) + timing) / static_cast<double>(m); }
    double amount(std::size_t k) const { return growth.factor(k / m) / static_cast<double>(m); }
    double partial_amount() const {
        return partial_fraction * growth.factor(partial_index / m) / static_cast<double>(m);
    }
    // Whole years of regular payments.
    std::size_t whole_years() const { return count / m; }
    // Every payment, the pro-rata one last: their number and the time of the i-th.
    std::size_t size() const { return count + (has_partial ? 1 : 0); }
    double payment_time(std::size_t i) const { return i < count ? time(first + i) : partial_time; }
};

// weight x value, where a weight of exactly 0 (no survival left, no Woolhouse
// share) contributes nothing, even against an infinite value.
inline double weighted(double weight, double value) { return weight == 0.0 ? 0.0 : weight * value; }

// ---- the rules of a policy ------------------------------------------------------

// Valuation times, deferments and benefits are finite and >= 0.
inline bool finite_nonnegative(double x) { return x >= 0.0 && x < std::numeric_limits<double>::infinity(); }

// A policy valued at ts (years since inception) with deferment d and term n:
// the time already elapsed in payment, the deferment still to run and the
// term still to run, each floored at 0.
struct TermAtValuation {
    double elapsed, deferment, term;
};
inline TermAtValuation term_at_valuation(double n, double d, double ts) {
    const double elapsed = std::max(0.0, ts - d);
    return {elapsed, std::max(0.0, d - ts), std::max(0.0, n - elapsed)};
}

// Payments in a term of n years at m a year: the whole periods, plus one
// pro-rata payment when the remainder exceeds `tolerance` (a smaller one is
// floating-point noise).
struct PaymentCount {
    std::size_t size;  // payments, the pro-rata one included
    double fraction;   // n m minus the whole periods
};
// Terms whose payments cannot be counted exactly in a double are refused.
inline constexpr double kMaxPayments = 9007199254740992.0;  // 2^53
inline bool countable(double n, std::size_t m) { return n >= 0.0 && n * static_cast<double>(m) < kMaxPayments; }
// Refuses (std::invalid_argument) a term that is not countable.
void require_countable(double n, std::size_t m);
// Requires countable(n, m).
inline PaymentCount payment_count(double n, std::size_t m, double tolerance) {
    const double total = n * static_cast<double>(m);
    const double whole = std::floor(total);
    PaymentCount count{static_cast<std::size_t>(whole), total - whole};
    if (count.fraction > tolerance) ++count.size;
    return count;
}

// Woolhouse's weight of the annual immediate payments in an m-thly annuity-due,
// (m - 1) / (2m); its limit 1/2 for continuous payments.
double woolhouse_weight(std::size_t m, bool continuous);

// np.round(value, decimals): scale, round half to even, unscale; the scale
// is 10^decimals.
inline double rounding_scale(int decimals) { return std::pow(10.0, decimals); }
double round_like_numpy(double value, int decimals);
void round_like_numpy(std::span<const double> values, int decimals, std::span<double> out);
// The same with the scale 10^decimals at hand: nearest, ties to even, with
// no call into libm (adding and removing 2^52 rounds the way the default
// rounding mode does; larger magnitudes are integers already).
inline double round_scaled(double value, double scale) {
    constexpr double kTwo52 = 4503599627370496.0;
    const double x = value * scale;
    if (!(std::abs(x) < kTwo52)) return std::isfinite(value) ? x / scale : value;
    return std::copysign((std::abs(x) + kTwo52) - kTwo52, x) / scale;
}

// An annuity of 1 a year payable m-thly, as seen from the valuation time:
// deferment, remaining term and payment count (one more than the whole
// periods when the schedule ends with a pro-rata payment).
struct Annuity {
    double d = 0.0, n = 0.0;
    std::size_t payments_size = 0;
    std::size_t m = 1;
    int timing = 0;
    Growth growth;

    // The full schedule. A pro-rata last payment is made at the start of its
    // period (due) or at the end of the term (immediate).
    Schedule schedule() const;
};

inline Schedule Annuity::schedule() const {
    const double total = n * static_cast<double>(m);
    const std::size_t whole = static_cast<std::size_t>(std::floor(total));
    const bool partial = payments_size > whole;
    Schedule s;
    s.start = d;
    s.m = m;
    s.timing = timing;
    s.count = partial ? payments_size - 1 : payments_size;
    s.growth = growth;
    s.has_partial = partial;
    s.partial_fraction = partial ? total - static_cast<double>(whole) : 0.0;
    s.partial_time = timing == 0 ? d + static_cast<double>(s.count) / static_cast<double>(m) : d + n;
    s.partial_index = s.count;
    return s;
}

// The four calculation modes, and the mode of a name ("discrete_precision",
// "discrete_simplified", "continuous_precision", "continuous_simplified").
enum class Mode { DiscretePrecision, DiscreteSimplified, ContinuousPrecision, ContinuousSimplified };
std::optional<Mode> mode_named(std::string_view name);

// Everything that is common to the policies of a portfolio group.
struct PolicyTerms {
    std::size_t m = 1;
    int timing = 0;
    Growth growth;
    Mode mode = Mode::DiscretePrecision;
    double tolerance_eps = 1e-12;      // payment count and shift tolerance
    double perpetuity_n_eff = 1000.0;  // horizon of a perpetuity (infinite n)
    int decimals = 10;
};

// The term a policy runs for: n, or for an infinite n (a perpetuity) its horizon.
inline double term_or_horizon(double n, const PolicyTerms& p) { return std::isinf(n) ? p.perpetuity_n_eff : n; }

// The annuity a policy (term n, infinite for a perpetuity; deferment d;
// valuation time ts) stands for; none when no term is left. Requires the term
// (or the perpetuity's horizon) to be countable at m a year.
inline std::optional<Annuity> policy_annuity(double n, double d, double ts, const PolicyTerms& p) {
    const TermAtValuation at = term_at_valuation(term_or_horizon(n, p), d, ts);
    if (at.term == 0.0) return std::nullopt;
    return Annuity{at.deferment, at.term, payment_count(at.term, p.m, p.tolerance_eps).size, p.m, p.timing, p.growth};
}

// The parts of Woolhouse's approximation: annual due and immediate payments
// over the whole years (weighted 1 - c and c for due, c and 1 - c for
// immediate, c = woolhouse_weight), and the payments of the final fraction of
// a year (m-thly ones and the pro-rata one), which are valued exactly.
struct WoolhouseParts {
    Schedule due, immediate, fraction;
    double weight;

    // The weights of the annual `due` and `immediate` payments in an annuity of this timing.
    struct Weights {
        double due, immediate;
    };
    Weights weights(int timing) const {
        return timing == 0 ? Weights{1.0 - weight, weight} : Weights{weight, 1.0 - weight};
    }
    // The weighted annual payments, given the values of `due` and `immediate`.
    double annual(double due_value, double immediate_value, int timing) const {
        const Weights w = weights(timing);
        return weighted(w.due, due_value) + weighted(w.immediate, immediate_value);
    }
    // The continuous modes' final fraction of a year: the integral from the
    // end of the whole years to the end of the term.
    double continuous_tail(const PiecewiseTable& curve, const Annuity& annuity) const;
};
WoolhouseParts woolhouse_parts(const Annuity& annuity, bool continuous);

// ---- values -----------------------------------------------------------------------

// Present value of the whole schedule. Level amounts are summed as one
// geometric series per segment; geometric amounts per run of payments inside
// one segment and one year, whole years inside one segment as one series; so
// the cost grows with the number of segments (and years) crossed, not with
// payments. Arithmetic growth is summed payment by payment.
double schedule_value(const PiecewiseTable& curve, const Schedule& s);

// Value of the schedule's pro-rata last payment (0 without one).
double partial_value(const PiecewiseTable& curve, const Schedule& s);

// Times and amounts of every payment (regular ones, then the partial one).
void schedule_payments(const Schedule& s, std::vector<double>& times, std::vector<double>& amounts);

// The annuity's payments from regular payment `first` on (the pro-rata one
// included): those not yet paid when the first `first` are.
inline Schedule schedule_from(const Annuity& annuity, std::size_t first) {
    Schedule s = annuity.schedule();
    const std::size_t end = s.first + s.count;
    s.first = std::min(first, end);
    s.count = end - s.first;
    return s;
}
// A schedule's regular payments alone, and its pro-rata payment alone.
inline Schedule regular_payments(Schedule s) {
    s.has_partial = false;
    return s;
}
inline Schedule pro_rata_payment(Schedule s) {
    s.first += s.count;
    s.count = 0;
    return s;
}

// The periods of the annuity's payments from regular payment `first` on:
// their starts and ends (the due and the immediate times of the same
// payments, so a pro-rata last period ends with the term) and the growth
// factor of each.
struct PaymentPeriods {
    std::vector<double> starts, ends, growth;
};
PaymentPeriods payment_periods(const Annuity& annuity, std::size_t first);

// Integral of v(t) times the growth factor of year floor(t - origin) over
// [a, b]; growth steps at origin + 1, origin + 2, ...
double continuous_value(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth);
// Integral of v(t) over each interval [starts[i], ends[i]]; false (out
// unfinished) at the first interval with an end that is not finite.
bool interval_values(const PiecewiseTable& curve, std::span<const double> starts, std::span<const double> ends,
                     std::span<double> out);

// An annuity in a calculation mode, written once for certain annuities and
// life annuities, from what values its pieces: `pieces.payments(s, w)` the
// payments of a schedule weighted by w (a weight of exactly 0 adds nothing),
// `pieces.flow(annuity, a, b)` payments flowing
// continuously over [a, b] (growth years counted from the annuity's start):
// - DiscretePrecision: the payments of the whole schedule;
// - DiscreteSimplified: Woolhouse on the whole years plus the payments of the
//   final fraction of a year valued exactly (m = 1 gives the exact sum);
// - ContinuousPrecision: the flow over [d, d + n];
// - ContinuousSimplified: (ä + a) / 2 on the whole years plus the final
//   fraction's flow.
// A certain annuity's pieces are closed forms; a life annuity's weigh each
// payment by survival; the expected flows' pieces put each payment in its
// time bucket.
template <typename Pieces>
double value_in_mode(const Annuity& annuity, Mode mode, const Pieces& pieces) {
    if (mode == Mode::DiscretePrecision) return pieces.payments(annuity.schedule(), 1.0);
    if (mode == Mode::ContinuousPrecision) return pieces.flow(annuity, annuity.d, annuity.d + annuity.n);
    const bool continuous = mode == Mode::ContinuousSimplified;
    const WoolhouseParts parts = woolhouse_parts(annuity, continuous);
    const WoolhouseParts::Weights w = parts.weights(annuity.timing);
    const double annual = pieces.payments(parts.due, w.due) + pieces.payments(parts.immediate, w.immediate);
    if (!continuous) return annual + pieces.payments(parts.fraction, 1.0);
    return annual + pieces.flow(annuity, annuity.d + static_cast<double>(parts.due.count), annuity.d + annuity.n);
}

// Present value (unrounded) with certain survival (value_in_mode): payments
// by schedule_value, flows by continuous_value.
double annuity_value(const PiecewiseTable& curve, const Annuity& annuity, Mode mode);

}  // namespace norvane::core
