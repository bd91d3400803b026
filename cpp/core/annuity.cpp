#include "core/annuity.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <stdexcept>

namespace norvane::core {

namespace {

constexpr double kInfinity = PiecewiseTable::kInfinity;

// sum_{i < count} e^(log_ratio * i), accurate for ratios near 1.
double geometric_sum(double log_ratio, double count) {
    if (log_ratio == 0.0) return count;
    return std::expm1(log_ratio * count) / std::expm1(log_ratio);
}

// How many payments k, first <= k < end, are made at or before `limit`.
std::size_t payments_until(const Schedule& s, std::size_t first, std::size_t end, double limit) {
    if (std::isinf(limit)) return end - first;
    double estimate = std::floor((limit - s.start) * static_cast<double>(s.m) - s.timing);
    std::size_t last = estimate < static_cast<double>(first)  ? first
                       : estimate >= static_cast<double>(end) ? end - 1
                                                              : static_cast<std::size_t>(estimate);
    // The estimate can be off by one either way; the schedule's own times decide.
    while (last + 1 < end && s.time(last + 1) <= limit) ++last;
    while (last > first && s.time(last) > limit) --last;
    return last - first + 1;
}

double log_growth(const Growth& g) { return g.kind == Growth::Geometric ? std::log1p(g.rate) : 0.0; }

}  // namespace

double Growth::factor(std::size_t year) const {
    switch (kind) {
        case Geometric:
            return std::pow(1.0 + rate, static_cast<double>(year));
        case Arithmetic:
            return 1.0 + rate * static_cast<double>(year);
        default:
            return 1.0;
    }
}

namespace {

// The regular payments, one run (a geometric series) at a time.
double regular_sum(const PiecewiseTable& curve, const Schedule& s) {
    const std::size_t m = s.m;
    const double per_payment_log = 1.0 / static_cast<double>(m);
    const std::size_t end = s.first + s.count;
    const auto runs = s.growth.kind == Growth::Level ? curve.level_runs(m) : nullptr;  // level: always
    double pv = 0.0;
    std::size_t k = s.first;
    // Times only grow: each run's segment is found from the previous run's on.
    for (std::size_t j = k < end ? curve.segment_of(s.time(k)) : 0; k < end;) {
        const double t = s.time(k);
        j = curve.segment_from(t, j);
        const double delta = curve.log_base(j);
        const double v = t <= 0.0 ? 1.0 : curve.discount_in_near(j, t);
        const std::size_t in_segment = payments_until(s, k, end, curve.segment_end(j));
        if (runs) {
            // Level amounts (each 1/m): the whole run inside the segment is one series.
            pv += per_payment_log * v * runs->sum(j, in_segment);
            k += in_segment;
            continue;
        }
        if (s.growth.kind == Growth::Arithmetic) {
            for (std::size_t i = k; i < k + in_segment; ++i) pv += s.amount(i) * curve.discount(s.time(i));
            k += in_segment;
        } else if (k % m == 0 && in_segment >= m) {
            // Whole years inside the segment: each year's payments are one
            // series, and successive years differ by the factor (1 + g) e^-delta.
            const std::size_t years = in_segment / m;
            const double within = geometric_sum(-delta * per_payment_log, static_cast<double>(m));
            const double across = geometric_sum(log_growth(s.growth) - delta, static_cast<double>(years));
            pv += s.amount(k) * v * within * across;
            k += years * m;
        } else {
            const std::size_t run = std::min(in_segment, m - k % m);
            pv += s.amount(k) * v * geometric_sum(-delta * per_payment_log, static_cast<double>(run));
            k += run;
        }
    }
    return pv;
}

}  // namespace

double partial_value(const PiecewiseTable& curve, const Schedule& s) {
    if (!s.has_partial) return 0.0;
    return s.partial_amount() * curve.discount(s.partial_time);
}

double schedule_value(const PiecewiseTable& curve, const Schedule& s) {
    return regular_sum(curve, s) + partial_value(curve, s);
}

void schedule_payments(const Schedule& s, std::vector<double>& times, std::vector<double>& amounts) {
    times.clear();
    amounts.clear();
    for (std::size_t i = 0; i < s.size(); ++i) {
        times.push_back(s.payment_time(i));
        amounts.push_back(i < s.count ? s.amount(s.first + i) : s.partial_amount());
    }
}

PaymentPeriods payment_periods(const Annuity& annuity, std::size_t first) {
    Annuity due = annuity, immediate = annuity;
    due.timing = 0;
    immediate.timing = 1;
    PaymentPeriods periods;
    std::vector<double> amounts;
    schedule_payments(schedule_from(due, first), periods.starts, amounts);
    schedule_payments(schedule_from(immediate, first), periods.ends, amounts);
    const Schedule s = schedule_from(annuity, first);
    for (std::size_t k = s.first; k < s.first + s.count; ++k) periods.growth.push_back(s.growth.factor(k / s.m));
    if (s.has_partial) periods.growth.push_back(s.growth.factor(s.partial_index / s.m));
    return periods;
}

namespace {

// sum_{y >= 0} growth(first + y) r^y for 0 <= r < 1 (infinite otherwise).
double growth_series(const Growth& growth, std::size_t first, double r) {
    if (!(r < 1.0)) return kInfinity;
    const double y0 = static_cast<double>(first);
    switch (growth.kind) {
        case Growth::Geometric: {
            const double ratio = (1.0 + growth.rate) * r;
            return ratio < 1.0 ? std::pow(1.0 + growth.rate, y0) / (1.0 - ratio) : kInfinity;
        }
        case Growth::Arithmetic:
            return (1.0 + growth.rate * y0) / (1.0 - r) + growth.rate * r / ((1.0 - r) * (1.0 - r));
        default:
            return 1.0 / (1.0 - r);
    }
}

}  // namespace

double continuous_value(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth) {
    if (!(b > a)) return 0.0;
    double total = 0.0, x = a;
    std::size_t year = static_cast<std::size_t>(std::max(0.0, std::floor(a - origin)));
    double year_start = origin + static_cast<double>(year), year_end = origin + static_cast<double>(year + 1);
    while (x < b) {
        std::size_t j = curve.segment_of(x);
        if (curve.segment_end(j) <= x) ++j;  // x on a boundary: integrate the segment that starts there
        const double delta = curve.log_base(j);
        if (std::isinf(b) && std::isinf(curve.segment_end(j)) && x == year_start) {
            // The open-ended last segment from a year boundary on: whole years
            // of the same integral, e^-delta apart, as one series.
            const double year_integral = delta == 0.0 ? 1.0 : -std::expm1(-delta) / delta;
            return total + curve.discount(x) * year_integral * growth_series(growth, year, std::exp(-delta));
        }
        const double piece_end = std::min({b, year_end, curve.segment_end(j)});
        const double length = piece_end - x;
        const double integral = delta == 0.0 ? length : -std::expm1(-delta * length) / delta;
        total += growth.factor(year) * curve.discount(x) * integral;
        x = piece_end;
        if (x >= year_end) {
            year_start = year_end;
            year_end = origin + static_cast<double>(++year + 1);
        }
    }
    return total;
}

bool interval_values(const PiecewiseTable& curve, std::span<const double> starts, std::span<const double> ends,
                     std::span<double> out) {
    const Growth level;
    for (std::size_t i = 0; i < out.size(); ++i) {
        const double a = starts[i], b = ends[i];
        if (!std::isfinite(a) || !(b < kInfinity)) return false;
        out[i] = continuous_value(curve, a, b, a, level);
    }
    return true;
}

// ---- the rules of a policy ------------------------------------------------------

void require_countable(double n, std::size_t m) {
    if (!countable(n, m)) throw std::invalid_argument("a term must be >= 0 with fewer than 2**53 payments");
}

std::optional<Mode> mode_named(std::string_view name) {
    if (name == "discrete_precision") return Mode::DiscretePrecision;
    if (name == "discrete_simplified") return Mode::DiscreteSimplified;
    if (name == "continuous_precision") return Mode::ContinuousPrecision;
    if (name == "continuous_simplified") return Mode::ContinuousSimplified;
    return std::nullopt;
}

double woolhouse_weight(std::size_t m, bool continuous) {
    return continuous ? 0.5 : static_cast<double>(m - 1) / (2.0 * static_cast<double>(m));
}

double round_like_numpy(double value, int decimals) { return round_scaled(value, rounding_scale(decimals)); }

void round_like_numpy(std::span<const double> values, int decimals, std::span<double> out) {
    for (std::size_t i = 0; i < values.size(); ++i) out[i] = round_like_numpy(values[i], decimals);
}

WoolhouseParts woolhouse_parts(const Annuity& annuity, bool continuous) {
    const Schedule full = annuity.schedule();
    WoolhouseParts parts{full, full, full, woolhouse_weight(full.m, continuous)};
    parts.due.m = 1;
    parts.due.timing = 0;
    parts.due.count = full.whole_years();
    parts.due.has_partial = false;
    parts.immediate = parts.due;
    parts.immediate.timing = 1;
    parts.fraction.first = parts.due.count * full.m;
    parts.fraction.count = full.count - parts.fraction.first;
    return parts;
}

double WoolhouseParts::continuous_tail(const PiecewiseTable& curve, const Annuity& annuity) const {
    const double start = annuity.d + static_cast<double>(due.count);
    return continuous_value(curve, start, annuity.d + annuity.n, annuity.d, annuity.growth);
}

// ---- values of an annuity ----------------------------------------------------------

namespace {

// A certain annuity's pieces: closed forms per curve segment.
struct CertainPieces {
    const PiecewiseTable& curve;
    double payments(const Schedule& s, double w) const { return weighted(w, schedule_value(curve, s)); }
    double flow(const Annuity& annuity, double a, double b) const {
        return continuous_value(curve, a, b, annuity.d, annuity.growth);
    }
};

}  // namespace

double annuity_value(const PiecewiseTable& curve, const Annuity& annuity, Mode mode) {
    return value_in_mode(annuity, mode, CertainPieces{curve});
}

}  // namespace norvane::core
