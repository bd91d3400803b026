// Payment-schedule sums on a curve: exact, closed form per curve segment and
// growth year where the amounts allow it.
#pragma once

#include "core/curve.hpp"

#include <cstddef>
#include <span>
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

// Times and amounts of every payment (regular ones, then the partial one).
void schedule_payments(const Schedule& s, std::vector<double>& times, std::vector<double>& amounts);

// Integral of v(t) times the growth factor of year floor(t - origin) over
// [a, b]; growth steps at origin + 1, origin + 2, ...
double continuous_value(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth);

}  // namespace norvane::core
