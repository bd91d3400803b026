// The vectorised pass of the book kernels: policies whose payments are
// level and fall on a grid of step 1/m, valued from the grid's running sums
// in O(1) each. Certain books read the sums of the discount factors, life
// books each life's survival-weighted sums (one grid per life, laid end to end).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace norvane::core {

inline constexpr double kEpsilon = std::numeric_limits<double>::epsilon();
// A book value and its single call (on the shifted curve) differ by a few
// epsilon of the value (5 seen on a 40-segment curve); a value closer than
// this margin to a rounding tie is recomputed the single call's way.
inline constexpr double kTieMargin = 16.0 * kEpsilon;

// x as a 64-bit integer, for a whole number 0 <= x < 2^51: an addition and
// a reinterpretation, which vectorise where a conversion may not.
inline std::int64_t whole_index(double x) {
    constexpr double kTwo52 = 4503599627370496.0;
    return std::bit_cast<std::int64_t>(x + kTwo52) - std::bit_cast<std::int64_t>(kTwo52);
}

// What the pass reads: the running sums of the grid's terms, each followed
// by its compensation (PrefixSums::points), 1 / v at the grid's points (for
// valuation times after the grid's start), the grid's length and the book's terms.
struct LevelGridView {
    const double *sums = nullptr, *accumulations = nullptr;
    double points = 0.0, m = 1.0, timing = 0.0, tolerance = 0.0, scale = 1.0;
    // The distance from a rounding tie within which a value is recomputed the
    // single call's way: wider for growing payments, which a single call sums
    // one by one over growing terms.
    double margin = kTieMargin;
};
// The margin of a grid of growing terms.
inline constexpr double kGrownTieMargin = 256.0 * kEpsilon;

// The values of a block of at most kBlock policies whose schedules are
// whole periods on the grid (term n, deferment d, valuation time ts):
// out[i] = the rounded unit value times benefits[i], from the sums at its
// first and last payment (times the accumulation at its valuation time). A
// policy off the grid, or whose value lies within its error margin of a
// rounding tie, is left NaN for its caller to value; returns whether any is.
// Policy i's grid starts at base[i] in the sums, and its terms are 0 after
// its point ends[i], so later payments add nothing (both null: one grid for
// all, the policies beyond its points off it). A grid of growing terms is
// read times grown[i], the growth its point 0 is ahead of the policy's first
// payment (null: level terms, 1).
bool level_grid_block(const LevelGridView& g, const double* n, const double* d, const double* ts,
                      const std::int64_t* base, const double* ends, const double* grown, const double* benefits,
                      double* out, std::size_t len);

// The same for policies whose terms and deferments are whole years (below
// 2^31), every one valued at the grid's start (a valuation time of 0) on one
// grid: their points are integer arithmetic.
bool whole_years_block(const LevelGridView& g, const std::int32_t* n, const std::int32_t* d, const double* benefits,
                       double* out, std::size_t len);

// The rounded unit value, at time 0, of every policy of whole years with
// d + n < width: values[d * width + n].
struct WholeYearValues {
    const double* values = nullptr;
    std::int32_t width = 0;
};
// out[i] = its unit value times benefits[i], for policies whose d[i] + n[i]
// lie in the table (the caller knows they do): one read of a small table a
// policy, where a book's policies are many and its distinct terms few.
void whole_year_lookup(const WholeYearValues& values, const std::int32_t* n, const std::int32_t* d,
                       const double* benefits, double* out, std::size_t len);

}  // namespace norvane::core
