// Books of life annuities: many policies over a few tables, valued on one
// curve with the single call's arithmetic, so that each equals its single
// call bit for bit.
#pragma once

#include "core/book_columns.hpp"
#include "core/life.hpp"

#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace norvane::core {

// Per policy: its table, age at inception, select age (NaN: the integer
// part of the age), term (infinite: whole life), deferment, valuation time,
// payments a year and benefit. Each column holds one value per policy or one
// for all; without benefits (an empty column) each policy's is 1.
struct LifePolicies {
    LifePolicies(std::size_t size_, TableColumn table_, BookColumn age_, BookColumn select_age_, BookColumn n_,
                 BookColumn d_, BookColumn ts_, BookColumn m_, BookColumn benefits_)
        : size(size_),
          table(std::move(table_)),
          age(age_, size_),
          select_age(select_age_, size_),
          n(n_, size_),
          d(d_, size_),
          ts(ts_, size_),
          m(m_, size_),
          benefits(benefits_.size ? benefits_ : BookColumn(std::span<const double>(kOne)), size_) {}
    std::size_t size;
    TableColumn table;
    Column age, select_age, n, d, ts, m, benefits;

  private:
    static constexpr double kOne[] = {1.0};
};

// The first policy of a book that cannot be valued, and why: a select age
// given out of range, or another input out of range (a table that is not one
// of the book's, a frequency not a whole number in 1..365, an age out of
// range, a valuation time or deferment not finite and >= 0, a term < 0 or,
// when finite, not countable). Benefits are not looked at.
struct LifeBookFault {
    enum Kind { None, SelectAge, Policy } kind = None;
    std::size_t index = 0;
};
LifeBookFault check_life_policies(std::span<MortalityTable* const> tables, const LifePolicies& policies);

// Unit values rounded as np.round does, then multiplied by the benefits.
// Policies at whole ages valued at one whole valuation time and frequency
// read one grid of survival-weighted sums per (table, age) in O(1), in the
// vectorised pass certain books use; the others are grouped by life,
// valuation time, deferment and frequency, with survival paths built once
// per (table, select age), every distinct policy valued once, and in the
// discrete precision mode the policies of one life that differ only in their
// term sharing one pass over the longest schedule. Refuses a book with a
// policy out of range: returns its first fault (check_life_policies), and
// `out` then holds no result.
LifeBookFault life_portfolio_values(const CurveArrays& curve, std::vector<MortalityTable*> tables,
                                    std::span<const FractionalAge> rules, const LifePolicies& policies,
                                    const PolicyTerms& terms, std::span<double> out);

}  // namespace norvane::core
