// Books of policies on one curve.
#pragma once

#include "core/annuity.hpp"
#include "core/book_columns.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

namespace norvane::core {

// The first policy of a book that cannot be valued.
class InvalidPolicy : public std::invalid_argument {
  public:
    explicit InvalidPolicy(std::size_t index)
        : std::invalid_argument("policy " + std::to_string(index) + " has an input out of range"), index(index) {}
    std::size_t index;
};

// Unit present values of a portfolio at valuation times ts (years since
// inception), deferments d and terms n (infinite: perpetuity), each rounded to
// `terms.decimals` as np.round does, then multiplied by the benefit when
// given. Each unit value equals the single policy's value on the curve shifted
// to its ts. Schedules that start on the book's grid of step 1/m are valued
// from differences of prefix sums over that grid (O(1) a policy), the others
// by the closed form per curve segment; the work is split across cores.
//
// One policy per element of `out`; n, d, ts and benefits hold one value per
// policy or one for all (benefits: none, 1 for all). Refuses (InvalidPolicy;
// `out` then holds no result) a book with a term that is negative, NaN or not
// countable at m a year, or a deferment, valuation time or benefit that is
// negative or not finite.
void portfolio_values(const CurveArrays& curve, BookColumn n, BookColumn d, BookColumn ts,
                      std::span<const double> benefits, const PolicyTerms& terms, std::span<double> out);

}  // namespace norvane::core
