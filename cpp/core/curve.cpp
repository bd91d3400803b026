#include "core/curve.hpp"

#include <cmath>

namespace norvane::core {

void cumulative_sum(std::span<const double> in, std::span<double> out) {
    double acc = 0.0;
    for (std::size_t j = 0; j < in.size(); ++j) {
        acc += in[j];
        out[j] = acc;
    }
}

void one_plus(std::span<const double> rates, std::span<double> out) {
    for (std::size_t j = 0; j < rates.size(); ++j) out[j] = 1.0 + rates[j];
}

void segment_discount_products(std::span<const double> one_plus_rates,
                               std::span<const double> terms,
                               std::span<double> full_segment,
                               std::span<double> prefix) {
    double running = 1.0;
    for (std::size_t j = 0; j < terms.size(); ++j) {
        full_segment[j] = std::pow(one_plus_rates[j], -terms[j]);
        running *= full_segment[j];
        prefix[j] = running;
    }
}

std::optional<std::size_t> first_non_finite(std::span<const double> values) {
    for (std::size_t j = 0; j < values.size(); ++j)
        if (!std::isfinite(values[j])) return j;
    return std::nullopt;
}

std::optional<std::size_t> first_at_or_below(std::span<const double> values,
                                             double bound) {
    for (std::size_t j = 0; j < values.size(); ++j)
        if (values[j] <= bound) return j;
    return std::nullopt;
}

}  // namespace norvane::core
