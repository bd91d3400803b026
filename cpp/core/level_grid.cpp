#include "core/level_grid.hpp"

#include "core/book_columns.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>

namespace norvane::core {

namespace {

constexpr double kTwo52 = 4503599627370496.0;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// A policy's schedule as points of the grid: first and last payment (last
// exclusive) and the valuation time, and whether the schedule is whole
// periods on the grid, seen from a point of it, within `last_point`.
struct GridPoints {
    double from, to, at;
    bool usable;
};
__attribute__((always_inline)) inline GridPoints grid_points(const LevelGridView& g, double n, double d, double ts,
                                                             double last_point) {
    // term_at_valuation and payment_count, as in a single call.
    const double m = g.m, elapsed = std::max(0.0, ts - d), deferment = std::max(0.0, d - ts);
    const double term = std::max(0.0, n - elapsed);
    const double total = term * m, whole = std::floor(total);
    // Both sides of each choice are computed, so that the choice is a blend.
    const bool shift = ts > g.tolerance;
    const double start = (shift ? ts + deferment : deferment) * m, at = shift ? ts * m : 0.0;
    const double from = start + g.timing, to = from + whole;
    // A sum of terms >= 0, each 0 exactly when its rule holds: no pro-rata
    // payment, start and valuation time on the grid, the last payment within
    // it. Inputs are >= 0 (checked). A term that is not finite (for life, or
    // a policy of no grid) is off every grid.
    const double off_grid = std::max(total - whole - g.tolerance, 0.0) + (start - std::floor(start)) +
                            (at - std::floor(at)) + std::max(to - last_point, 0.0);
    return {from, to, at, (off_grid == 0.0) & (total < kInfinity)};
}

// The grid points of a block of policies on one grid, with on_grid 1; 0
// everywhere for a policy off it. Without branches, so that it vectorises.
__attribute__((target_clones("avx512f", "avx2", "default"))) void level_grid_points(
    const LevelGridView& g, const double* __restrict n, const double* __restrict d, const double* __restrict ts,
    std::int64_t* __restrict first, std::int64_t* __restrict last, std::int64_t* __restrict seen,
    double* __restrict on_grid, std::size_t len) {
    const double last_point = g.points - 1.0;
    for (std::size_t i = 0; i < len; ++i) {
        const GridPoints p = grid_points(g, n[i], d[i], ts[i], last_point);
        first[i] = whole_index(p.usable ? p.from : 0.0);
        last[i] = whole_index(p.usable ? p.to : 0.0);
        seen[i] = whole_index(p.usable ? p.at : 0.0);
        on_grid[i] = p.usable ? 1.0 : 0.0;
    }
}

// The same on grids laid end to end: policy i's starts at base[i] in the
// sums, and its terms are 0 after its point ends[i] (no payment there adds
// anything, so none is read beyond it).
__attribute__((target_clones("avx512f", "avx2", "default"))) void laid_out_grid_points(
    const LevelGridView& g, const double* __restrict n, const double* __restrict d, const double* __restrict ts,
    const std::int64_t* __restrict base, const double* __restrict ends, std::int64_t* __restrict first,
    std::int64_t* __restrict last, std::int64_t* __restrict seen, double* __restrict on_grid, std::size_t len) {
    const double last_point = g.points - 1.0;
    for (std::size_t i = 0; i < len; ++i) {
        const GridPoints p = grid_points(g, n[i], d[i], ts[i], last_point);
        first[i] = base[i] + whole_index(p.usable ? std::min(p.from, ends[i]) : 0.0);
        last[i] = base[i] + whole_index(p.usable ? std::min(p.to, ends[i]) : 0.0);
        seen[i] = whole_index(p.usable ? p.at : 0.0);
        on_grid[i] = p.usable ? 1.0 : 0.0;
    }
}

// The grid points of a block of policies of whole years on one grid, all
// seen from its start: first payment d m + timing, last n m later.
__attribute__((target_clones("avx512f", "avx2", "default"))) void whole_year_points(
    const LevelGridView& g, const std::int32_t* __restrict n, const std::int32_t* __restrict d,
    std::int64_t* __restrict first, std::int64_t* __restrict last, std::int64_t* __restrict seen,
    double* __restrict on_grid, std::size_t len) {
    const auto m = static_cast<std::int64_t>(g.m), timing = static_cast<std::int64_t>(g.timing);
    const auto points = static_cast<std::int64_t>(g.points);
    for (std::size_t i = 0; i < len; ++i) {
        // Terms and deferments are >= 0 (checked) and below 2^31: the products cannot overflow.
        const std::int64_t from = std::int64_t{d[i]} * m + timing, to = from + std::int64_t{n[i]} * m;
        const bool usable = to < points;
        first[i] = usable ? from : 0;
        last[i] = usable ? to : 0;
        seen[i] = 0;
        on_grid[i] = usable ? 1.0 : 0.0;
    }
}

// out[i] = the rounded unit value of policy i times benefits[i], from the
// running sums at its first and last payment and 1 / v at its valuation
// time (and, on a grid of growing terms, times grown[i]); NaN off the grid,
// or within the value's error margin of a rounding tie. Returns whether any
// is NaN. Vectorised as above (gathers included); the IEEE operations are
// the same in every clone.
template <bool Grown>
__attribute__((always_inline)) inline bool grid_values(
    const LevelGridView& g, const double* __restrict ts, const double* __restrict grown,
    const double* __restrict benefits, const std::int64_t* __restrict first, const std::int64_t* __restrict last,
    const std::int64_t* __restrict seen, const double* __restrict on_grid, double* __restrict out, std::size_t len) {
    const double per_payment = 1.0 / g.m, tolerance = g.tolerance, scale = g.scale;
    const double *sums = g.sums, *accumulations = g.accumulations;
    unsigned left = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const std::int64_t a = 2 * first[i], b = 2 * last[i];
        const double sum_a = sums[a], sum_b = sums[b];
        const double value = ((sum_b - sum_a) + (sums[b + 1] - sums[a + 1])) * per_payment;
        const double accumulation = accumulations[seen[i]];
        double per_divisor = ts[i] > tolerance ? accumulation : 1.0;
        if constexpr (Grown) per_divisor *= grown[i];
        const double magnitude = std::abs(sum_b - sum_a) + kEpsilon * (std::abs(sum_a) + std::abs(sum_b));
        const double error = g.margin * (std::abs(value) + magnitude * per_payment) * per_divisor;
        // near_rounding_tie and round_scaled, without their branches.
        const double scaled = value * per_divisor * scale;
        const double from_half = std::abs(scaled - std::floor(scaled) - 0.5);
        const bool clear = (from_half > error * scale + 4.0 * kEpsilon * std::abs(scaled)) &
                           (std::abs(scaled) < kTwo52) & (on_grid[i] != 0.0);
        const double rounded = std::copysign((std::abs(scaled) + kTwo52) - kTwo52, scaled) / scale;
        out[i] = clear ? rounded * benefits[i] : std::numeric_limits<double>::quiet_NaN();
        left |= static_cast<unsigned>(!clear);
    }
    return left != 0;
}
__attribute__((target_clones("avx512f", "avx2", "default"))) bool level_grid_values(
    const LevelGridView& g, const double* ts, const double* benefits, const std::int64_t* first,
    const std::int64_t* last, const std::int64_t* seen, const double* on_grid, double* out, std::size_t len) {
    return grid_values<false>(g, ts, nullptr, benefits, first, last, seen, on_grid, out, len);
}
__attribute__((target_clones("avx512f", "avx2", "default"))) bool grown_grid_values(
    const LevelGridView& g, const double* ts, const double* grown, const double* benefits, const std::int64_t* first,
    const std::int64_t* last, const std::int64_t* seen, const double* on_grid, double* out, std::size_t len) {
    return grid_values<true>(g, ts, grown, benefits, first, last, seen, on_grid, out, len);
}

}  // namespace

bool level_grid_block(const LevelGridView& g, const double* n, const double* d, const double* ts,
                      const std::int64_t* base, const double* ends, const double* grown, const double* benefits,
                      double* out, std::size_t len) {
    std::array<std::int64_t, kBlock> first, last, seen;
    std::array<double, kBlock> on_grid;
    if (base)
        laid_out_grid_points(g, n, d, ts, base, ends, first.data(), last.data(), seen.data(), on_grid.data(), len);
    else
        level_grid_points(g, n, d, ts, first.data(), last.data(), seen.data(), on_grid.data(), len);
    if (grown)
        return grown_grid_values(g, ts, grown, benefits, first.data(), last.data(), seen.data(), on_grid.data(), out,
                                 len);
    return level_grid_values(g, ts, benefits, first.data(), last.data(), seen.data(), on_grid.data(), out, len);
}

bool whole_years_block(const LevelGridView& g, const std::int32_t* n, const std::int32_t* d, const double* benefits,
                       double* out, std::size_t len) {
    static constexpr std::array<double, kBlock> kAtStart{};
    std::array<std::int64_t, kBlock> first, last, seen;
    std::array<double, kBlock> on_grid;
    whole_year_points(g, n, d, first.data(), last.data(), seen.data(), on_grid.data(), len);
    return level_grid_values(g, kAtStart.data(), benefits, first.data(), last.data(), seen.data(), on_grid.data(), out,
                             len);
}

__attribute__((target_clones("avx512f", "avx2", "default"))) void whole_year_lookup(
    const WholeYearValues& values, const std::int32_t* __restrict n, const std::int32_t* __restrict d,
    const double* __restrict benefits, double* __restrict out, std::size_t len) {
    const double* __restrict unit = values.values;
    const std::int32_t width = values.width;
    for (std::size_t i = 0; i < len; ++i) out[i] = unit[d[i] * width + n[i]] * benefits[i];
}

}  // namespace norvane::core
