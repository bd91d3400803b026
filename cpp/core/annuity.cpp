#include "core/annuity.hpp"

#include <algorithm>
#include <cmath>

namespace norvane::core {

namespace {

// sum_{i < count} e^(log_ratio * i), accurate for ratios near 1.
double geometric_sum(double log_ratio, double count) {
    if (log_ratio == 0.0) return count;
    return std::expm1(log_ratio * count) / std::expm1(log_ratio);
}

// How many payments k, first <= k < end, are made at or before `limit`.
std::size_t payments_until(const Schedule& s, std::size_t first, std::size_t end, double limit) {
    if (std::isinf(limit)) return end - first;
    double estimate = std::floor((limit - s.start) * static_cast<double>(s.m) - s.timing);
    std::size_t last = estimate < static_cast<double>(first) ? first
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
        case Geometric: return std::pow(1.0 + rate, static_cast<double>(year));
        case Arithmetic: return 1.0 + rate * static_cast<double>(year);
        default: return 1.0;
    }
}

PiecewiseTable make_table(std::span<const double> rates, std::span<const double> terms,
                          std::span<const double> ends) {
    std::vector<double> one_plus(rates.size()), full(terms.size()), prefix(terms.size());
    core::one_plus(rates, one_plus);
    segment_discount_products(std::span<const double>(one_plus).first(terms.size()), terms, full, prefix);
    return PiecewiseTable(rates, ends, prefix);
}

double schedule_value(const PiecewiseTable& curve, const Schedule& s) {
    const std::size_t m = s.m, end = s.first + s.count;
    const double per_payment_log = 1.0 / static_cast<double>(m);
    double pv = 0.0;
    std::size_t k = s.first;
    while (k < end) {
        const double t = s.time(k);
        const std::size_t j = curve.segment_of(t);
        const double delta = curve.log_base(j);
        const double v = curve.discount(t);
        const std::size_t in_segment = payments_until(s, k, end, curve.segment_end(j));
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
    if (s.has_partial)
        pv += s.partial_fraction * s.growth.factor(s.partial_index / m) / static_cast<double>(m) *
              curve.discount(s.partial_time);
    return pv;
}

void schedule_payments(const Schedule& s, std::vector<double>& times, std::vector<double>& amounts) {
    times.clear();
    amounts.clear();
    for (std::size_t k = s.first; k < s.first + s.count; ++k) {
        times.push_back(s.time(k));
        amounts.push_back(s.amount(k));
    }
    if (s.has_partial) {
        times.push_back(s.partial_time);
        amounts.push_back(s.partial_fraction * s.growth.factor(s.partial_index / s.m) / static_cast<double>(s.m));
    }
}

double continuous_value(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth) {
    if (!(b > a)) return 0.0;
    double total = 0.0, x = a;
    std::size_t year = static_cast<std::size_t>(std::max(0.0, std::floor(a - origin)));
    double year_end = origin + static_cast<double>(year + 1);
    while (x < b) {
        std::size_t j = curve.segment_of(x);
        if (curve.segment_end(j) <= x) ++j;  // x on a boundary: integrate the segment that starts there
        const double piece_end = std::min({b, year_end, curve.segment_end(j)});
        const double length = piece_end - x, delta = curve.log_base(j);
        const double integral = delta == 0.0 ? length : -std::expm1(-delta * length) / delta;
        total += growth.factor(year) * curve.discount(x) * integral;
        x = piece_end;
        if (x >= year_end) year_end = origin + static_cast<double>(++year + 1);
    }
    return total;
}

}  // namespace norvane::core
