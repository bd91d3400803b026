// Plain arithmetic on curve tables: no Python, spans of doubles in and out.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

namespace norvane::core {

// out[j] = a[j] + ... in order, the way np.cumsum accumulates.
void cumulative_sum(std::span<const double> in, std::span<double> out);

// out[j] = 1 + rates[j].
void one_plus(std::span<const double> rates, std::span<double> out);

// Discount factor of each complete segment, (1 + r_j)^(-t_j), and the running
// product of those factors (discount from 0 to the end of segment j). The last
// rate has no finite segment, so only terms.size() factors exist.
void segment_discount_products(std::span<const double> one_plus_rates,
                               std::span<const double> terms,
                               std::span<double> full_segment,
                               std::span<double> prefix);

// Position of the first NaN or infinity, if any.
std::optional<std::size_t> first_non_finite(std::span<const double> values);

// Position of the first value <= bound (NaN never matches), if any.
std::optional<std::size_t> first_at_or_below(std::span<const double> values,
                                             double bound);

}  // namespace norvane::core
