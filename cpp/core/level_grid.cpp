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

// x as a 64-bit integer, for a whole number 0 <= x < 2^51: an addition and
// a reinterpretation, which vectorise where a conversion may not.
inline std::int64_t whole_index(double x) {
    return std::bit_cast<std::int64_t>(x + kTwo52) - std::bit_cast<std::int64_t>(kTwo52);
}

// The grid points of a block of policies whose schedule is whole periods on
// the grid, seen from a point of it: first and last payment (last
// exclusive, neither beyond the policy's `ends`) and the valuation time,
// with on_grid 1; 0 everywhere for any other policy. Without branches, so
// that it vectorises.
__attribute__((target_clones("avx512f", "avx2", "default"))) void level_grid_points(
    const LevelGridView& g, const double* __restrict n, const double* __restrict d, const double* __restrict ts,
    const std::int64_t* __restrict base, const double* __restrict ends, std::int64_t* __restrict first,
    std::int64_t* __restrict last, std::int64_t* __restrict seen, double* __restrict on_grid, std::size_t len) {
    const double m = g.m, tolerance = g.tolerance, timing = g.timing, last_point = g.points - 1.0;
    for (std::size_t i = 0; i < len; ++i) {
        // term_at_valuation and payment_count, as in a single call.
        const double elapsed = std::max(0.0, ts[i] - d[i]), deferment = std::max(0.0, d[i] - ts[i]);
        const double term = std::max(0.0, n[i] - elapsed);
        const double total = term * m, whole = std::floor(total);
        // Both sides of each choice are computed, so that the choice is a blend.
        const bool shift = ts[i] > tolerance;
        const double shifted_start = ts[i] + deferment, shifted_at = ts[i] * m;
        const double start = (shift ? shifted_start : deferment) * m, at = shift ? shifted_at : 0.0;
        const double from = start + timing, to = from + whole;
        // A sum of terms >= 0, each 0 exactly when its rule holds: no pro-rata payment, start and valuation time on the
        // grid, the last payment within it. Inputs are >= 0 (checked).
        const double off_grid = std::max(total - whole - tolerance, 0.0) + (start - std::floor(start)) +
                                (at - std::floor(at)) + std::max(to - last_point, 0.0);
        // (A term that is not finite, for life or for none, is off every grid.)
        const bool usable = (off_grid == 0.0) & (total < kInfinity);
        first[i] = base[i] + whole_index(usable ? std::min(from, ends[i]) : 0.0);
        last[i] = base[i] + whole_index(usable ? std::min(to, ends[i]) : 0.0);
        seen[i] = whole_index(usable ? at : 0.0);
        on_grid[i] = usable ? 1.0 : 0.0;
    }
}

// out[i] = the rounded unit value of policy i times benefits[i], from the
// running sums at its first and last payment and 1 / v at its valuation
// time; NaN off the grid, or within the value's error margin of a rounding
// tie. Returns whether any is NaN. Vectorised as above (gathers included);
// the IEEE operations are the same in every clone.
__attribute__((target_clones("avx512f", "avx2", "default"))) bool level_grid_values(
    const LevelGridView& g, const double* __restrict ts, const double* __restrict benefits,
    const std::int64_t* __restrict first, const std::int64_t* __restrict last, const std::int64_t* __restrict seen,
    const double* __restrict on_grid, double* __restrict out, std::size_t len) {
    const double per_payment = 1.0 / g.m, tolerance = g.tolerance, scale = g.scale;
    const double *sums = g.sums, *accumulations = g.accumulations;
    unsigned left = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const std::int64_t a = 2 * first[i], b = 2 * last[i];
        const double sum_a = sums[a], sum_b = sums[b];
        const double value = ((sum_b - sum_a) + (sums[b + 1] - sums[a + 1])) * per_payment;
        const double accumulation = accumulations[seen[i]], per_divisor = ts[i] > tolerance ? accumulation : 1.0;
        const double magnitude = std::abs(sum_b - sum_a) + kEpsilon * (std::abs(sum_a) + std::abs(sum_b));
        const double error = kTieMargin * (std::abs(value) + magnitude * per_payment) * per_divisor;
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

}  // namespace

bool level_grid_block(const LevelGridView& g, const double* n, const double* d, const double* ts,
                      const std::int64_t* base, const double* ends, const double* benefits, double* out,
                      std::size_t len) {
    static constexpr std::array<std::int64_t, kBlock> kAtZero{};
    static const std::array<double, kBlock> kNoEnd = [] {
        std::array<double, kBlock> none;
        none.fill(std::numeric_limits<double>::infinity());
        return none;
    }();
    std::array<std::int64_t, kBlock> first, last, seen;
    std::array<double, kBlock> on_grid;
    level_grid_points(g, n, d, ts, base ? base : kAtZero.data(), ends ? ends : kNoEnd.data(), first.data(), last.data(),
                      seen.data(), on_grid.data(), len);
    return level_grid_values(g, ts, benefits, first.data(), last.data(), seen.data(), on_grid.data(), out, len);
}

}  // namespace norvane::core
