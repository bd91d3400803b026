#include "core/portfolio.hpp"

#include "core/parallel.hpp"

#include <array>
#include <bit>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

namespace norvane::core {

namespace {

struct TripletHash {
    std::size_t operator()(const std::array<std::uint64_t, 3>& key) const {
        std::uint64_t h = key[0] * 0x9E3779B97F4A7C15ull;
        h ^= key[1] + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
        h ^= key[2] + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
        return static_cast<std::size_t>(h);
    }
};

// Bit pattern of a value with -0.0 folded into 0.0, so equal numbers share a key.
std::uint64_t key_of(double x) { return std::bit_cast<std::uint64_t>(x == 0.0 ? 0.0 : x); }

}  // namespace

void portfolio_values(const CurveArrays& curve, std::span<const double> n, std::span<const double> d,
                      std::span<const double> ts, std::span<const double> benefits, const PolicyTerms& terms,
                      std::span<double> out) {
    const std::size_t count = n.size();
    std::unordered_map<std::array<std::uint64_t, 3>, std::uint32_t, TripletHash> group_of;
    std::vector<std::uint32_t> group(count);
    std::vector<std::array<double, 3>> rows;
    for (std::size_t i = 0; i < count; ++i) {
        auto [it, added] =
            group_of.try_emplace({key_of(n[i]), key_of(d[i]), key_of(ts[i])}, static_cast<std::uint32_t>(rows.size()));
        if (added) rows.push_back({n[i], d[i], ts[i]});
        group[i] = it->second;
    }
    // One shifted curve per distinct shift, each with the sums its schedules share.
    std::unordered_map<std::uint64_t, std::size_t> curve_of;
    std::vector<PiecewiseTable> curves;
    std::vector<std::size_t> row_curve(rows.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        auto [it, added] = curve_of.try_emplace(key_of(rows[r][2]), curves.size());
        if (added) {
            const double ts = rows[r][2];
            const CurveArrays seen =
                is_shift(ts, terms.tolerance_eps) ? shifted(curve, ts, terms.tolerance_eps) : curve;
            curves.push_back(discount_table(seen));
        }
        row_curve[r] = it->second;
    }
    std::vector<ScheduleSums> sums;
    sums.reserve(curves.size());
    for (const auto& table : curves) sums.emplace_back(table);
    std::vector<std::optional<Annuity>> annuities(rows.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        annuities[r] = policy_annuity(rows[r][0], rows[r][1], rows[r][2], terms);
        if (annuities[r]) reserve_schedules(*annuities[r], terms.mode, sums[row_curve[r]]);
    }
    parallel_for(sums.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) sums[c].build();
    });
    std::vector<double> unit(rows.size());
    parallel_for(rows.size(), 1024, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r) {
            const auto& annuity = annuities[r];
            const std::size_t c = row_curve[r];
            unit[r] = annuity
                          ? round_like_numpy(annuity_value(curves[c], *annuity, terms.mode, &sums[c]), terms.decimals)
                          : 0.0;
        }
    });
    for (std::size_t i = 0; i < count; ++i) out[i] = benefits.empty() ? unit[group[i]] : unit[group[i]] * benefits[i];
}

}  // namespace norvane::core
