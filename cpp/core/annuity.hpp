// Payment-schedule sums on a curve: exact, closed form per curve segment and
// growth year where the amounts allow it.
#pragma once

#include "core/curve.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
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
    double start = 0.0;   // deferment from the valuation time
    std::size_t m = 1;    // payments per year
    int timing = 0;       // 0 due (period start), 1 immediate (period end)
    std::size_t first = 0, count = 0;  // the regular payments first .. first+count-1
    Growth growth;
    bool has_partial = false;
    double partial_fraction = 0.0;  // of a period
    double partial_time = 0.0;
    std::size_t partial_index = 0;  // its position in the schedule (for growth)

    double time(std::size_t k) const { return start + (static_cast<double>(k) + timing) / static_cast<double>(m); }
    double amount(std::size_t k) const { return growth.factor(k / m) / static_cast<double>(m); }
};

// A curve built from its rates, segment lengths and ends, the way the curve
// object builds its own tables (so discount factors agree with it exactly).
PiecewiseTable make_table(std::span<const double> rates, std::span<const double> terms,
                          std::span<const double> ends);

// Present value of the whole schedule. Level and geometric amounts are summed
// as geometric series per run of payments inside one segment and one year,
// and whole years inside one segment are summed as one series, so the cost
// grows with the number of segments and years crossed, not with payments;
// arithmetic growth is summed payment by payment.
double schedule_value(const PiecewiseTable& curve, const Schedule& s);

// Sums of the schedules of a portfolio on one curve. Schedules that differ
// only in their number of payments share one pass over the longest of them:
// the state at the start of every run is kept, and a shorter sum resumes from
// the last run that ends before its end, giving bit for bit the result of
// schedule_value. Use: reserve every schedule, build once, then value.
struct ScheduleCursor {
    std::size_t k;  // next payment
    double pv;      // value of the payments before it
};

class ScheduleSums {
public:
    explicit ScheduleSums(const PiecewiseTable& curve) : curve_(&curve) {}
    void reserve(const Schedule& s);
    void build();
    double value(const Schedule& s) const;  // == schedule_value(curve, s)

private:
    using Key = std::array<std::uint64_t, 5>;  // start, m, timing, growth kind and rate
    struct KeyHash {
        std::size_t operator()(const Key& key) const;
    };
    struct Entry {
        Schedule schedule;
        std::size_t end = 0;
        std::vector<ScheduleCursor> checkpoints;
    };
    static Key key_of(const Schedule& s);

    const PiecewiseTable* curve_;
    std::unordered_map<Key, Entry, KeyHash> entries_;
};

// Times and amounts of every payment (regular ones, then the partial one).
void schedule_payments(const Schedule& s, std::vector<double>& times, std::vector<double>& amounts);

// Integral of v(t) times the growth factor of year floor(t - origin) over
// [a, b]; growth steps at origin + 1, origin + 2, ...
double continuous_value(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth);

// The four calculation modes of an annuity of 1 a year payable m-thly.
enum class Mode { DiscretePrecision, DiscreteSimplified, ContinuousPrecision, ContinuousSimplified };

// An annuity as the dispatcher prepares it: deferment and remaining term from
// the valuation time, the payment count (one more than the whole periods when
// the schedule ends with a pro-rata payment), frequency, timing and growth.
struct Annuity {
    double d = 0.0, n = 0.0;
    std::size_t payments_size = 0;
    std::size_t m = 1;
    int timing = 0;
    Growth growth;

    // The full schedule: regular payments and the optional pro-rata one.
    Schedule schedule() const;
};

// Present value (unrounded) with certain survival:
// - DiscretePrecision: the exact sum over the schedule;
// - DiscreteSimplified: Woolhouse on the whole years, due (1-c) ä + c a and
//   immediate c ä + (1-c) a with c = (m-1)/(2m), plus the payments of the final
//   fraction of a year valued exactly (m = 1 gives the exact sum);
// - ContinuousPrecision: the integral of v(t) times growth over [d, d + n];
// - ContinuousSimplified: (ä + a) / 2 on the whole years plus the final
//   fraction's integral.
double annuity_value(const PiecewiseTable& curve, const Annuity& annuity, Mode mode,
                     const ScheduleSums* sums = nullptr);

// The arrays of a curve (m rates, m-1 segment lengths and their ends).
struct CurveArrays {
    std::vector<double> rates, terms, ends;
};

// The curve seen from time ts: the first ts years cut away. A segment whose
// remainder is within `eps` is dropped; past the last end only the last rate
// is left (a constant curve). A shift within `eps` is no shift.
CurveArrays shifted_arrays(const CurveArrays& curve, double ts, double eps);

// Settings shared by every policy of a portfolio group.
struct PortfolioTerms {
    std::size_t m = 1;
    int timing = 0;
    Growth growth;
    Mode mode = Mode::DiscretePrecision;
    double tolerance_eps = 1e-12;  // payment count and shift tolerance
    double perpetuity_n_eff = 1000.0;
    int decimals = 10;
};

// The annuity a policy stands for at valuation time ts (years since
// inception), deferment d and term n (infinite: perpetuity over
// perpetuity_n_eff years): elapsed = max(0, ts - d), d_eff = max(0, d - ts),
// n_eff = max(0, n - elapsed), and one payment per period of n_eff * m, plus
// one for a remainder above tolerance_eps (a pro-rata last payment). None
// when no term is left.
std::optional<Annuity> policy_annuity(double n, double d, double ts, const PortfolioTerms& terms);

// Unit present values of a portfolio at valuation times ts (years since
// inception), deferments d and terms n (infinite: perpetuity), each rounded to
// `decimals` as np.round does, then multiplied by the benefit when given. Each
// distinct (n, d, ts) is valued once (hash grouping), each distinct ts shifts
// the curve once.
void portfolio_values(const CurveArrays& curve, std::span<const double> n, std::span<const double> d,
                      std::span<const double> ts, std::span<const double> benefits, const PortfolioTerms& terms,
                      std::span<double> out);

// np.round(value, decimals): scale, round half to even, unscale.
double round_like_numpy(double value, int decimals);

}  // namespace norvane::core
