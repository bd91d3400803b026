#include "core/rates.hpp"

#include <algorithm>

namespace norvane::core {

RatesCheck check_rates(std::span<const double> rates, std::optional<std::size_t> terms_count) {
    if (auto at = first_non_finite(rates)) return {RatesFault::NotFinite, *at};
    if (auto at = first_at_or_below(rates, -1.0)) return {RatesFault::AtOrBelowMinusOne, *at};
    if (terms_count && !rates_fit_terms(rates.size(), *terms_count)) return {RatesFault::WrongCount, 0};
    return {};
}

TermsCheck check_terms(std::span<const double> terms, std::optional<std::size_t> rates_count) {
    if (auto at = first_non_finite(terms)) return {TermsFault::NotFinite, *at};
    if (auto at = first_at_or_below(terms, 0.0)) return {TermsFault::NotPositive, *at};
    if (rates_count && !rates_fit_terms(*rates_count, terms.size())) return {TermsFault::WrongCount, 0};
    return {};
}

std::vector<std::size_t> positions_at_or_below_minus_one(std::span<const double> rates) {
    std::vector<std::size_t> at;
    for (std::size_t i = 0; i < rates.size(); ++i)
        if (at_or_below_minus_one(rates[i])) at.push_back(i);
    return at;
}

std::vector<std::size_t> positions_at_or_below_minus_one(const PiecewiseTable& curve,
                                                         std::span<const double> durations) {
    std::vector<std::size_t> at;
    for (std::size_t i = 0; i < durations.size(); ++i)
        if (at_or_below_minus_one(curve.rate(curve.segment_of(durations[i])))) at.push_back(i);
    return at;
}

SignCounts sign_counts(std::span<const double> rates) {
    SignCounts counts;
    counts.total = rates.size();
    for (double rate : rates) {
        counts.zero += rate == 0.0;
        counts.negative += rate < 0.0;
        counts.positive += rate > 0.0;
    }
    return counts;
}

Monotonicity monotonicity(std::span<const double> rates) {
    if (rates.size() <= 1) return Monotonicity::SingleRate;
    bool increasing = true, decreasing = true;
    for (std::size_t i = 1; i < rates.size(); ++i) {
        const double step = rates[i] - rates[i - 1];
        increasing = increasing && step >= 0.0;
        decreasing = decreasing && step <= 0.0;
    }
    return increasing ? Monotonicity::Increasing : decreasing ? Monotonicity::Decreasing : Monotonicity::NonMonotonic;
}

bool has_gaps(std::span<const double> ends) {
    for (std::size_t i = 1; i < ends.size(); ++i)
        if (!(ends[i] - ends[i - 1] > 0.0)) return true;
    return false;
}

bool all_positive(std::span<const double> values) {
    return std::all_of(values.begin(), values.end(), [](double x) { return x > 0.0; });
}

bool all_reported_finite(std::span<const double> rates) {
    return std::all_of(rates.begin(), rates.end(), [](double r) { return r == r && std::abs(r) <= 1e308; });
}

void to_forces_of_interest(std::span<double> rates) {
    for (double& rate : rates) rate = force_of_interest(rate);
}

// (1 + i)^(±1/m) as exp(ln(1 + i) × ±1/m), the reciprocal of m taken first.
double nominal_interest(double rate, double m) {
    if (m == 1.0) return rate;
    const double p = std::exp(log_one_plus(rate) * (1.0 / m));
    return m * p - m;
}

double nominal_discount(double rate, double m) {
    if (m == 1.0) return rate / (rate + 1.0);
    const double q = std::exp(log_one_plus(rate) * (-1.0 / m));
    return m - m * q;
}

}  // namespace norvane::core
