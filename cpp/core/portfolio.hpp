// Books of policies on one curve.
#pragma once

#include "core/annuity.hpp"

#include <span>

namespace norvane::core {

// Unit present values of a portfolio at valuation times ts (years since
// inception), deferments d and terms n (infinite: perpetuity), each rounded to
// `terms.decimals` as np.round does, then multiplied by the benefit when
// given. Each distinct (n, d, ts) is valued once, each distinct ts shifts the
// curve once.
void portfolio_values(const CurveArrays& curve, std::span<const double> n, std::span<const double> d,
                      std::span<const double> ts, std::span<const double> benefits, const PolicyTerms& terms,
                      std::span<double> out);

}  // namespace norvane::core
