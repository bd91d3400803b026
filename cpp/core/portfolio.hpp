// Books of policies on one curve.
#pragma once

#include "core/annuity.hpp"

#include <span>

namespace norvane::core {

// Unit present values of a portfolio at valuation times ts (years since
// inception), deferments d and terms n (infinite: perpetuity), each rounded to
// `terms.decimals` as np.round does, then multiplied by the benefit when
// given. Each unit value equals the single policy's value on the curve shifted
// to its ts. Schedules that start on the book's grid of step 1/m are valued
// from differences of prefix sums over that grid (O(1) a policy), the others
// by the closed form per curve segment; the work is split across cores.
void portfolio_values(const CurveArrays& curve, std::span<const double> n, std::span<const double> d,
                      std::span<const double> ts, std::span<const double> benefits, const PolicyTerms& terms,
                      std::span<double> out);

}  // namespace norvane::core
