#include "core/life_book.hpp"

#include "core/key_index.hpp"
#include "core/level_grid.hpp"
#include "core/parallel.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace norvane::core {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

}  // namespace

namespace {

// The policies of one life (table, age, select age) at one valuation time,
// deferment and frequency: their schedules differ only in length. In the
// discrete precision mode one pass over the longest gives every distinct
// length's sum; otherwise each distinct term is valued once. Unit values go
// to `unit` by policy.
void value_group(const PiecewiseTable& curve, std::span<const double> ratios, const CurveSums* pieces,
                 const SurvivalPath& path, int path_start, FractionalAge rule, const LifePolicies& p,
                 std::span<std::uint32_t> members, const PolicyTerms& terms, std::span<double> unit) {
    const std::uint32_t first = members[0];
    const auto life = life_aged(path, path_start, p.age[first], p.ts[first], rule);
    if (!life) {
        for (std::uint32_t i : members) unit[i] = kNaN;
        return;
    }
    const LifeOnPath lives[] = {*life};
    const Status status = Status::of(Status::Single, lives);
    PolicyTerms policy = terms;
    policy.m = static_cast<std::size_t>(p.m[first]);
    const double ts = p.ts[first], d = p.d[first];
    const auto annuity_of = [&](double n) { return life_policy_annuity(n, d, ts, status.horizon(), policy); };
    const double scale = rounding_scale(terms.decimals);
    const auto round = [scale](double value) { return round_scaled(value, scale); };
    // In the discrete precision mode a schedule on the grid is a difference of
    // the life's sums and any other is summed with the book's ratios (the same
    // numbers a single call computes); other modes as a single call values them.
    // (book_sums gave the group the curve's sums; a life's own grid is built
    // here, for the group's longest schedule, and dropped with the group).
    const bool by_year = CurveSums::applies(status);
    const auto on_grid = [&](const Schedule& s) { return LifeGrid::first_point(s, status).has_value(); };
    std::optional<LifeGrid> grid;
    const auto prepare_grid = [&](std::span<const std::optional<Annuity>> annuities) {
        if (terms.mode != Mode::DiscretePrecision || by_year) return;
        std::optional<std::size_t> size;
        for (const auto& annuity : annuities) {
            if (!annuity) continue;
            const Schedule s = annuity->schedule();
            if (const auto at = LifeGrid::first_point(s, status)) size = std::max(size.value_or(0), *at + s.count);
        }
        if (size) grid.emplace(curve, status, policy.m, *size);
    };
    const auto value_of = [&](const Annuity& annuity) {
        if (terms.mode != Mode::DiscretePrecision) return life_annuity_value(curve, annuity, terms.mode, status);
        const Schedule s = annuity.schedule();
        const auto first = LifeGrid::first_point(s, status);
        if (!first) return life_schedule_value(curve, s, status, ratios);
        return by_year ? pieces->value(curve, s, status, *first) : grid->value(curve, s, status, *first);
    };
    if (members.size() == 1) {
        const std::optional<Annuity> annuity = annuity_of(p.n[first]);
        prepare_grid({&annuity, 1});
        unit[first] = annuity ? round(value_of(*annuity)) : 0.0;
        return;
    }
    // Runs of equal terms: each distinct term is one annuity.
    std::sort(members.begin(), members.end(), [&](std::uint32_t a, std::uint32_t b) { return p.n[a] < p.n[b]; });
    std::vector<std::size_t> run_start;
    std::vector<std::optional<Annuity>> annuities;
    for (std::size_t k = 0; k < members.size(); ++k) {
        if (k > 0 && p.n[members[k]] == p.n[members[k - 1]]) continue;
        run_start.push_back(k);
        annuities.push_back(annuity_of(p.n[members[k]]));
    }
    run_start.push_back(members.size());
    prepare_grid(annuities);
    std::vector<double> values(annuities.size(), 0.0);
    // One deferment: the group's schedules are all on the grid or none is.
    const auto some = std::find_if(annuities.begin(), annuities.end(), [](const auto& a) { return a.has_value(); });
    if (terms.mode != Mode::DiscretePrecision || (some != annuities.end() && on_grid((*some)->schedule()))) {
        for (std::size_t r = 0; r < annuities.size(); ++r)
            if (annuities[r]) values[r] = round(value_of(*annuities[r]));
    } else {
        std::vector<std::size_t> counts;
        std::optional<Schedule> longest;
        for (const auto& annuity : annuities) {
            if (!annuity) continue;
            const Schedule s = annuity->schedule();
            counts.push_back(s.count);
            if (!longest || s.count > longest->count) longest = s;
        }
        std::sort(counts.begin(), counts.end());
        counts.erase(std::unique(counts.begin(), counts.end()), counts.end());
        std::vector<double> sums(counts.size());
        if (longest) life_schedule_sums(curve, *longest, status, counts, sums, ratios);
        for (std::size_t r = 0; r < annuities.size(); ++r) {
            if (!annuities[r]) continue;
            const Schedule s = annuities[r]->schedule();
            const auto at = std::lower_bound(counts.begin(), counts.end(), s.count) - counts.begin();
            values[r] = round(sums[static_cast<std::size_t>(at)] + life_partial_value(curve, s, status));
        }
    }
    for (std::size_t r = 0; r < annuities.size(); ++r)
        for (std::size_t k = run_start[r]; k < run_start[r + 1]; ++k) unit[members[k]] = values[r];
}

// The curve's sums of a discrete precision book, one per (curve, frequency)
// that lives between birthdays under uniform deaths are valued on, as far as
// their schedules reach (no further than survival lasts).
struct BookSums {
    std::map<std::pair<std::size_t, std::size_t>, CurveSums> sums;  // by (curve, frequency)
    std::vector<const CurveSums*> of_group;
    const CurveSums* of(std::size_t group) const { return of_group.empty() ? nullptr : of_group[group]; }
};

BookSums book_sums(const LifePolicies& p, std::span<const std::uint32_t> lead, std::span<const std::uint32_t> members,
                   std::span<const std::uint32_t> offsets, const std::vector<PiecewiseTable>& curves,
                   std::span<const std::size_t> group_curve, std::span<const SurvivalPath* const> paths,
                   std::span<const int> starts, std::span<const FractionalAge> rules) {
    const std::size_t group_count = lead.size();
    std::map<std::pair<std::size_t, std::size_t>, double> reach;
    for (std::size_t g = 0; g < group_count; ++g) {
        const std::uint32_t i = lead[g];
        const auto life =
            life_aged(*paths[g], starts[g], p.age[i], p.ts[i], rules[static_cast<std::size_t>(p.table[i])]);
        if (!life || !CurveSums::applies(Status{Status::Single, {*life, *life}})) continue;
        // The schedules end at d + n from inception, d + n - ts from the valuation time.
        double points = 0.0;
        for (std::uint32_t k = offsets[g]; k < offsets[g + 1]; ++k) {
            const std::uint32_t policy = members[k];
            points = std::max(points, (p.d[policy] + p.n[policy] - p.ts[policy]) * p.m[policy] + 2.0);
        }
        const double alive = std::ceil(life->horizon() * p.m[i]) + 1.0;
        double& most = reach[{group_curve[g], static_cast<std::size_t>(p.m[i])}];
        most = std::max(most, std::min(points, alive));
    }
    BookSums out;
    for (const auto& [key, points] : reach)
        out.sums.try_emplace(key, curves[key.first], key.second, static_cast<std::size_t>(points));
    if (out.sums.empty()) return out;
    out.of_group.resize(group_count);
    for (std::size_t g = 0; g < group_count; ++g) {
        const auto found = out.sums.find({group_curve[g], static_cast<std::size_t>(p.m[lead[g]])});
        out.of_group[g] = found == out.sums.end() ? nullptr : &found->second;
    }
    return out;
}

LifeBookFault::Kind policy_fault(std::span<MortalityTable* const> tables, const LifePolicies& p, std::size_t i) {
    const double t = p.table[i], x = p.age[i], f = p.m[i], s = p.select_age[i], n = p.n[i];
    if (!std::isnan(s) && !age_in_range(s)) return LifeBookFault::SelectAge;
    if (!(t >= 0.0 && t < static_cast<double>(tables.size()) && t == std::floor(t)) ||
        !tables[static_cast<std::size_t>(t)] || !(f >= 1.0 && f <= 365.0 && f == std::floor(f)) || !age_in_range(x) ||
        !finite_nonnegative(p.ts[i]) || !finite_nonnegative(p.d[i]) || !(n >= 0.0) ||
        !countable(std::isinf(n) ? 0.0 : n, static_cast<std::size_t>(f)) ||
        !age_fits(*tables[static_cast<std::size_t>(t)], x, s, p.ts[i]))
        return LifeBookFault::Policy;
    return LifeBookFault::None;
}

// The tables a book's policies may name, as the vectorised passes read
// them: per table its first age, its end age and its first slot (one slot
// per whole age of each table, and one more for the policies at none); a
// missing table has first age +inf and end age -inf, which no age fits.
// Whether some table has select rows (then the check is policy by policy).
struct BookTables {
    explicit BookTables(std::span<MortalityTable* const> tables) {
        double slots = 0.0;
        for (const MortalityTable* table : tables) {
            first.push_back(table ? table->first_age() : kInfinity);
            end.push_back(table ? table->end_age() : -kInfinity);
            base.push_back(slots);
            slots += table ? table->end_age() - table->first_age() : 0.0;
            select |= table && table->select_period() > 0;
        }
        none = slots;
    }
    std::size_t slots() const { return static_cast<std::size_t>(none) + 1; }
    std::vector<double> first, end, base;
    double none;
    bool select = false;
};

// Each policy's table's first age, end age and first slot, from the table
// it names (+inf, -inf and the slot of none for a name or number that is
// no table). Table by table (a book names few), without branches or
// gathers, so that it vectorises; cloned for AVX-512 and AVX2. A book of
// many tables (a generational table's cohorts) gathers by number instead.
void gather_tables(const BookTables& tables, const double* table, double* first, double* end, double* base,
                   std::size_t len) {
    const double count = static_cast<double>(tables.base.size());
    for (std::size_t k = 0; k < len; ++k) {
        const double code = table[k];
        const bool named = code >= 0.0 && code < count && code == std::floor(code);
        const auto t = static_cast<std::size_t>(named ? code : 0.0);
        first[k] = named ? tables.first[t] : kInfinity;
        end[k] = named ? tables.end[t] : -kInfinity;
        base[k] = named ? tables.base[t] : tables.none;
    }
}
inline constexpr std::size_t kTablesCompared = 8;  // beyond: gathered
__attribute__((target_clones("avx512f", "avx2", "default"))) void block_tables(
    const BookTables& tables, const double* __restrict table, double* __restrict first, double* __restrict end,
    double* __restrict base, std::size_t len) {
    if (tables.base.size() > kTablesCompared) return gather_tables(tables, table, first, end, base, len);
    for (std::size_t k = 0; k < len; ++k) {
        first[k] = kInfinity;
        end[k] = -kInfinity;
        base[k] = tables.none;
    }
    for (std::size_t t = 0; t < tables.base.size(); ++t) {
        const double code = static_cast<double>(t), its_first = tables.first[t], its_end = tables.end[t],
                     its_base = tables.base[t];
        for (std::size_t k = 0; k < len; ++k) {
            const bool named = table[k] == code;
            first[k] = named ? its_first : first[k];
            end[k] = named ? its_end : end[k];
            base[k] = named ? its_base : base[k];
        }
    }
}

// A block of policies as the vectorised passes read it: its columns, and
// its tables' ages and first slots (block_tables).
struct BlockColumns {
    const double *table, *age, *select_age, *n, *d, *ts, *m;
    const double *first, *end, *base;
};

// Whether every policy of a block is in range as policy_fault sees it, for
// tables without select rows. Without branches, so that it vectorises;
// cloned for AVX-512 and AVX2.
__attribute__((target_clones("avx512f", "avx2", "default"))) bool block_in_range(const BlockColumns& c,
                                                                                 std::size_t len) {
    // The columns as local pointers, so that their loads are contiguous vector loads.
    const double* __restrict age = c.age, * __restrict select_age = c.select_age, * __restrict frequency = c.m, * __restrict term = c.n, * __restrict deferment = c.d, * __restrict at = c.ts, * __restrict first_age = c.first, * __restrict end_age = c.end;
    unsigned bad = 0;
#pragma omp simd reduction(| : bad)
    for (std::size_t k = 0; k < len; ++k) {
        const double x = age[k], s = select_age[k], f = frequency[k], n = term[k], ts = at[k], first = first_age[k];
        const bool no_select = s != s;  // NaN
        const bool in_range = (f >= 1.0) & (f <= 365.0) & (f == std::floor(f)) & age_in_range(x) &
                              finite_nonnegative(ts) & finite_nonnegative(deferment[k]) & (n >= 0.0) &
                              ((n == kInfinity) | (n * f < kMaxPayments)) & (x + ts < end_age[k]) & (x >= first) &
                              (no_select | ((s == std::floor(s)) & (s <= x) & (s >= first) & age_in_range(s)));
        bad |= static_cast<unsigned>(!in_range);
    }
    return bad == 0;
}

// The first fault of a book, found block by block on all cores: the least
// index any block found. Blocks after a fault found need not be looked at.
class FirstFault {
  public:
    FirstFault(std::span<MortalityTable* const> tables, const BookTables& named, const LifePolicies& p)
        : tables_(tables), p_(p), select_(named.select), first_(p.size) {}
    // Whether the policies from i on may still hold the book's first fault.
    bool open(std::size_t i) const { return i < first_.load(std::memory_order_relaxed); }
    // Whether the block of policies i .. i + len - 1 is in range (else its first fault is recorded).
    bool in_range(std::size_t i, std::size_t len, const BlockColumns& block) {
        if (!select_ && block_in_range(block, len)) return true;
        for (std::size_t k = 0; k < len; ++k) {
            if (policy_fault(tables_, p_, i + k) == LifeBookFault::None) continue;
            std::size_t seen = first_.load();
            while (i + k < seen && !first_.compare_exchange_weak(seen, i + k)) {
            }
            return false;
        }
        return true;
    }
    LifeBookFault fault() const {
        const std::size_t i = first_.load();
        if (i == p_.size) return {};
        return {policy_fault(tables_, p_, i), i};
    }

  private:
    std::span<MortalityTable* const> tables_;
    const LifePolicies& p_;
    bool select_;
    std::atomic<std::size_t> first_;
};

// The block of policies i .. i + len - 1, read into `scratch` where its columns are not doubles.
BlockColumns read_block(const BookTables& tables, const LifePolicies& p, std::size_t i, std::size_t len,
                        std::array<Block, 10>& scratch) {
    BlockColumns c{p.table.block(i, len, scratch[0]),
                   p.age.block(i, len, scratch[1]),
                   p.select_age.block(i, len, scratch[2]),
                   p.n.block(i, len, scratch[3]),
                   p.d.block(i, len, scratch[4]),
                   p.ts.block(i, len, scratch[5]),
                   p.m.block(i, len, scratch[6]),
                   scratch[7].data(),
                   scratch[8].data(),
                   scratch[9].data()};
    block_tables(tables, c.table, scratch[7].data(), scratch[8].data(), scratch[9].data(), len);
    return c;
}

// Whether every policy has the same value in `column` (its first).
bool same_for_all(const Column& column, std::size_t count) {
    if (column.repeated()) return true;
    const double first = column[0];
    for (std::size_t i = 1; i < count; ++i)
        if (!(column[i] == first)) return false;
    return true;
}

// The slot of each policy of a block; returns the grid points the block's
// schedules reach. Without branches, so that it vectorises; cloned for
// AVX-512 and AVX2. The policies are valid (check_life_policies).
__attribute__((target_clones("avx512f", "avx2", "default"))) double policy_slots(
    const double* __restrict age, const double* __restrict select, const double* __restrict first,
    const double* __restrict end, const double* __restrict base, const double* __restrict n, const double* __restrict d,
    double none, double ts, double m, std::int64_t* __restrict slot, std::size_t len) {
    double reach = 0.0;
#pragma omp simd reduction(max : reach)
    for (std::size_t k = 0; k < len; ++k) {
        const double offset = age[k] - first[k];
        // A whole age of its table, selected at that age (NaN: at its age).
        const bool at_slot = (age[k] == std::floor(age[k])) & ((select[k] != select[k]) | (select[k] == age[k])) &
                             (offset >= 0.0) & (age[k] < end[k]);
        slot[k] = whole_index(at_slot ? base[k] + offset : none);
        reach = std::max(reach, (d[k] + n[k] - ts) * m + 2.0);
    }
    return reach;
}
double block_slots(const BlockColumns& c, double none, double ts, double m, std::int64_t* slot, std::size_t len) {
    return policy_slots(c.age, c.select_age, c.first, c.end, c.base, c.n, c.d, none, ts, m, slot, len);
}

// Which slots a book's policies use and how far their schedules reach, with
// the check of every policy, in one pass.
struct SlotsInUse {
    std::vector<std::uint8_t> used;  // by slot
    double reach = 0.0;              // the grid points the longest schedule reaches
    LifeBookFault fault;
};

// Each policy's slot is left in `slots` (a whole number, as a double), for
// the valuation pass to read where its value will be written.
SlotsInUse slots_in_use(std::span<MortalityTable* const> tables, const BookTables& named, const LifePolicies& p,
                        double ts, double m, std::span<double> slots) {
    SlotsInUse in_use;
    in_use.used.assign(named.slots(), 0);
    FirstFault first(tables, named, p);
    std::mutex merge;
    parallel_for(p.size, std::size_t{1} << 14, [&](std::size_t begin, std::size_t end) {
        std::vector<std::uint8_t> used(named.slots(), 0);
        std::array<Block, 10> scratch;
        std::array<std::int64_t, kBlock> slot;
        double reach = 0.0;
        for (std::size_t i = begin; i < end && first.open(i); i += kBlock) {
            const std::size_t len = std::min(kBlock, end - i);
            const BlockColumns block = read_block(named, p, i, len, scratch);
            if (!first.in_range(i, len, block)) return;
            reach = std::max(reach, block_slots(block, named.none, ts, m, slot.data(), len));
            for (std::size_t k = 0; k < len; ++k) {
                used[static_cast<std::size_t>(slot[k])] = 1;
                slots[i + k] = static_cast<double>(slot[k]);
            }
        }
        const std::lock_guard<std::mutex> lock(merge);
        in_use.reach = std::max(in_use.reach, reach);
        for (std::size_t s = 0; s < used.size(); ++s) in_use.used[s] |= used[s];
    });
    in_use.fault = first.fault();
    in_use.used.back() = 0;  // no grid for the policies of no slot
    return in_use;
}

// The slots' grids laid end to end, as the vectorised pass reads them:
// slot s's sums start at base[s] and its terms end at its point ends[s]
// (survival has ended there, or no policy reaches further); -1 for a slot
// without a grid.
struct LaidOut {
    std::unique_ptr<double[]> points;  // as PrefixSums::points, each slot's copied in whole (so not zeroed first)
    std::vector<double> ends;
    std::vector<std::int64_t> base;
};

// `grids[k]` is the grid of slot `slots[k]`, of `count` slots.
LaidOut lay_out(std::span<const std::size_t> slots, const std::vector<std::optional<LifeGrid>>& grids,
                std::size_t count) {
    LaidOut laid;
    laid.base.assign(count, 0);
    laid.ends.assign(count, -1.0);
    std::size_t total = 0;
    for (std::size_t k = 0; k < slots.size(); ++k) {
        if (!grids[k]) continue;
        laid.base[slots[k]] = static_cast<std::int64_t>(total);
        laid.ends[slots[k]] = static_cast<double>(grids[k]->sums().size());
        total += grids[k]->sums().size() + 1;
    }
    if (total == 0) return laid;
    laid.points.reset(new double[2 * total]);
    for (std::size_t k = 0; k < slots.size(); ++k) {
        if (!grids[k]) continue;
        const PrefixSums& sums = grids[k]->sums();
        std::copy_n(sums.points(), 2 * (sums.size() + 1), laid.points.get() + 2 * laid.base[slots[k]]);
    }
    return laid;
}

// Each policy of a block seen from the valuation time ts, where its life's
// grid starts: the term and deferment left, the start of its slot's grid and
// the point where that grid's terms end; a policy of a slot without a grid
// is off every grid (an infinite term). A policy for life runs a year past
// its grid's end (every period begun alive, and the terms after survival are
// 0), so that it is valued in the pass too. Without branches, so that it
// vectorises; cloned for AVX-512 and AVX2.
__attribute__((target_clones("avx512f", "avx2", "default"))) void block_on_grids(
    const LaidOut& laid, const std::int64_t* __restrict slot, const double* __restrict n, const double* __restrict d,
    double ts, double m, double* __restrict term, double* __restrict deferment, std::int64_t* __restrict base,
    double* __restrict ends, std::size_t len) {
    const double* grid_end = laid.ends.data();
    const std::int64_t* grid_base = laid.base.data();
    for (std::size_t k = 0; k < len; ++k) {
        const TermAtValuation at = term_at_valuation(n[k], d[k], ts);
        const double end = grid_end[slot[k]];
        const double for_life = at.deferment + end / m + 1.0;
        term[k] = end >= 0.0 ? (at.term < kInfinity ? at.term : for_life) : kInfinity;
        deferment[k] = at.deferment;
        base[k] = grid_base[slot[k]];
        ends[k] = end;
    }
}

// Growing payments on the grids: each policy's grid is read divided by the
// growth of the whole years before its first payment; a policy starting
// between whole years is off the grids (its term infinite).
inline constexpr double kMaxLogGrowth = 5.0;
__attribute__((target_clones("avx512f", "avx2", "default"))) void growth_of_starts(double log_growth,
                                                                                   const double* __restrict deferment,
                                                                                   double* __restrict term,
                                                                                   double* __restrict grown,
                                                                                   std::size_t len) {
    for (std::size_t k = 0; k < len; ++k) {
        const double years = deferment[k];
        term[k] = years == std::floor(years) ? term[k] : kInfinity;
        grown[k] = std::exp(-years * log_growth);
    }
}

// The schedule with level payments (where its payments fall is the same).
inline Schedule level(Schedule s) {
    s.growth = Growth{};
    return s;
}

// The valuation time and frequency of a book whose policies at whole ages
// are valued on one grid per (table, age): in the discrete precision mode,
// one whole valuation time and one frequency for every policy (at a time
// between birthdays a life is valued year by year, on CurveSums).
std::optional<std::pair<double, double>> whole_age_route(const LifePolicies& p, const PolicyTerms& terms) {
    // Level or geometric payments: the grids weigh each payment by its year
    // (an arithmetic growth's years are not a common factor).
    if (terms.mode != Mode::DiscretePrecision || terms.growth.kind == Growth::Arithmetic || p.size == 0)
        return std::nullopt;
    if (!same_for_all(p.ts, p.size) || !same_for_all(p.m, p.size)) return std::nullopt;
    const double ts = p.ts[0];
    if (ts != std::floor(ts)) return std::nullopt;
    return std::pair{ts, p.m[0]};
}

// The book's policies at whole ages of their tables (selected at that age),
// valued at ts at m a year: one grid per slot in use, and each policy whose
// payments fall on it valued from it in O(1), as the single call values it.
// Returns the policies left to the general route.
std::vector<std::uint32_t> value_whole_ages(const CurveArrays& curve, std::span<MortalityTable* const> tables,
                                            std::span<const FractionalAge> rules, const LifePolicies& p,
                                            const PolicyTerms& terms, double ts, double m, const BookTables& named,
                                            const SlotsInUse& in_use, std::span<double> unit) {
    // Paths are built before the threads share the tables.
    const PiecewiseTable seen =
        discount_table(is_shift(ts, terms.tolerance_eps) ? shifted(curve, ts, terms.tolerance_eps) : curve);
    // The lives of the slots in use only (a generational table's cohorts hold many unused).
    std::vector<std::size_t> slots;
    std::vector<std::optional<Status>> statuses;
    for (std::size_t t = 0; t < tables.size(); ++t) {
        if (!tables[t]) continue;
        const auto first_slot = static_cast<std::size_t>(named.base[t]);
        for (std::size_t slot = first_slot; slot < first_slot + static_cast<std::size_t>(named.end[t] - named.first[t]);
             ++slot) {
            if (!in_use.used[slot]) continue;
            const int age = tables[t]->first_age() + static_cast<int>(slot - first_slot);
            const auto life = life_aged(tables[t]->path(age), tables[t]->path_start(age), age, ts, rules[t]);
            slots.push_back(slot);
            statuses.push_back(life ? std::optional<Status>(Status{Status::Single, {*life, *life}}) : std::nullopt);
        }
    }
    std::vector<std::uint32_t> rest;
    const auto everything = [&] {
        rest.resize(p.size);
        std::iota(rest.begin(), rest.end(), 0u);
        return rest;
    };
    // Growing payments: the grids weigh payment k by its growth (1 + g)^(k / m) from the
    // grid's start, kept within e^5 of 1 (else the general route values the book).
    const bool grows = terms.growth.kind == Growth::Geometric;
    const double log_growth = grows ? std::log1p(terms.growth.rate) : 0.0;
    double longest = 0.0;  // the years the grids run: to the end of survival, or of the longest schedule
    for (const auto& status : statuses)
        if (status) longest = std::max(longest, std::min(status->horizon(), in_use.reach / m));
    if (!(std::abs(log_growth) * longest <= kMaxLogGrowth)) return everything();
    std::vector<std::optional<LifeGrid>> grids(statuses.size());
    const auto frequency = static_cast<std::size_t>(m);
    const auto reach = static_cast<std::size_t>(std::min(in_use.reach, 0x1p52));
    parallel_for(grids.size(), 8, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k)
            if (statuses[k]) grids[k].emplace(seen, *statuses[k], frequency, reach, terms.growth, terms.timing);
    });
    const LaidOut laid = lay_out(slots, grids, named.slots());
    if (!laid.points) return everything();  // no policy at a whole age anybody reaches
    static constexpr Block kZeros{};
    static constexpr double kOne[] = {1.0};
    const LevelGridView view{laid.points.get(),
                             kOne,
                             kInfinity,
                             m,
                             static_cast<double>(terms.timing),
                             terms.tolerance_eps,
                             rounding_scale(terms.decimals),
                             grows ? kGrownTieMargin : kTieMargin};
    PolicyTerms policy = terms;
    policy.m = frequency;
    std::atomic<bool> left{false};
    parallel_for(p.size, std::size_t{1} << 14, [&](std::size_t begin, std::size_t end) {
        Block n_block, d_block, benefit_block, term_left, deferment_left, ends, grown;
        std::array<std::int64_t, kBlock> slot, base;
        for (std::size_t i = begin; i < end; i += kBlock) {
            const std::size_t len = std::min(kBlock, end - i);
            const double *n = p.n.block(i, len, n_block), *d = p.d.block(i, len, d_block),
                         *benefit = p.benefits.block(i, len, benefit_block);
            // The slots slots_in_use left where the values go.
            for (std::size_t k = 0; k < len; ++k) slot[k] = whole_index(unit[i + k]);
            block_on_grids(laid, slot.data(), n, d, ts, m, term_left.data(), deferment_left.data(), base.data(),
                           ends.data(), len);
            if (grows) growth_of_starts(log_growth, deferment_left.data(), term_left.data(), grown.data(), len);
            if (!level_grid_block(view, term_left.data(), deferment_left.data(), kZeros.data(), base.data(),
                                  ends.data(), grows ? grown.data() : nullptr, benefit, unit.data() + i, len))
                continue;
            // Off the vectorised pass (a term for life, a pro-rata payment, a
            // rounding tie): the single call's route on the same grid; a
            // policy of no grid, or whose payments are off it, is left to the
            // general route.
            for (std::size_t k = 0; k < len; ++k) {
                if (!std::isnan(unit[i + k])) continue;
                // (`slots` ascends: a slot's grid is found by bisection; none for the slot of no table.)
                const auto at = std::lower_bound(slots.begin(), slots.end(), static_cast<std::size_t>(slot[k]));
                const bool listed = at != slots.end() && *at == static_cast<std::size_t>(slot[k]);
                const std::optional<LifeGrid>* grid =
                    listed ? &grids[static_cast<std::size_t>(at - slots.begin())] : nullptr;
                const Status* status =
                    grid && *grid ? &*statuses[static_cast<std::size_t>(at - slots.begin())] : nullptr;
                const auto annuity =
                    status ? life_policy_annuity(n[k], d[k], ts, status->horizon(), policy) : std::nullopt;
                if (status && !annuity) {
                    unit[i + k] = 0.0;
                    continue;
                }
                const Schedule s = annuity ? annuity->schedule() : Schedule{};
                const auto first = annuity ? LifeGrid::first_point(level(s)) : std::nullopt;
                if (!first || (grows && s.start != std::floor(s.start))) {
                    left.store(true, std::memory_order_relaxed);
                    continue;
                }
                if (!grows) {
                    unit[i + k] = round_scaled((*grid)->value(seen, s, *status, *first), view.scale) * benefit[k];
                    continue;
                }
                // The grid's growth runs from its start, the schedule's from its own: divided out. A
                // value within a few epsilon of a rounding tie is left to the payment-by-payment route.
                const double value = (*grid)->regular(s, *first) * std::exp(-s.start * log_growth) +
                                     (s.has_partial ? life_partial_value(seen, s, *status) : 0.0);
                const double scaled = value * view.scale;
                if (!(std::abs(scaled - std::floor(scaled) - 0.5) > kGrownTieMargin * std::abs(scaled))) {
                    left.store(true, std::memory_order_relaxed);
                    continue;
                }
                unit[i + k] = round_scaled(value, view.scale) * benefit[k];
            }
        }
    });
    if (left.load())
        for (std::size_t i = 0; i < p.size; ++i)
            if (std::isnan(unit[i])) rest.push_back(static_cast<std::uint32_t>(i));
    return rest;
}

// The policies `rest` of a book (each valid) grouped by life, valuation
// time, deferment and frequency, each group valued as one, on one core.
void value_part(const CurveArrays& curve, std::span<MortalityTable* const> tables, std::span<const FractionalAge> rules,
                const LifePolicies& p, const PolicyTerms& terms, std::span<const std::uint32_t> rest,
                std::span<double> out) {
    const std::size_t count = rest.size();
    // The other policies grouped by life, valuation time, deferment and
    // frequency (in one flat array, by group), and one discount table per
    // valuation time.
    KeyIndex<6> group_of(count);
    std::vector<std::uint32_t> group_id(count), offsets{0}, lead;
    std::vector<double> select_ages;
    offsets.reserve(count + 1);
    lead.reserve(count);
    select_ages.reserve(count);
    std::unordered_map<std::uint64_t, std::size_t> curve_of;
    std::vector<PiecewiseTable> curves;
    std::vector<std::size_t> group_curve;
    constexpr std::size_t kAhead = 64;  // keys hashed and their slots fetched before they are looked up
    std::array<KeyIndex<6>::Key, kAhead> keys;
    for (std::size_t r = 0; r < count; ++r) {
        const std::uint32_t i = rest[r];
        if (r % kAhead == 0)
            for (std::size_t k = 0; k < kAhead && r + k < count; ++k) {
                const std::uint32_t j = rest[r + k];
                keys[k] = {bits(p.table[j]), bits(p.age[j]), bits(select_age_of(p.age[j], p.select_age[j])),
                           bits(p.ts[j]),    bits(p.d[j]),   bits(p.m[j])};
                group_of.prefetch(keys[k]);
            }
        const double select = select_age_of(p.age[i], p.select_age[i]);
        const auto [group, added] = group_of.insert(keys[r % kAhead]);
        if (added) {
            offsets.push_back(0);
            lead.push_back(i);
            select_ages.push_back(select);
            auto [seen, new_curve] = curve_of.try_emplace(bits(p.ts[i]), curves.size());
            if (new_curve)
                curves.push_back(discount_table(
                    is_shift(p.ts[i], terms.tolerance_eps) ? shifted(curve, p.ts[i], terms.tolerance_eps) : curve));
            group_curve.push_back(seen->second);
        }
        group_id[r] = group;
        ++offsets[group + 1];
    }
    const std::size_t group_count = offsets.size() - 1;
    for (std::size_t g = 0; g < group_count; ++g) offsets[g + 1] += offsets[g];
    std::vector<std::uint32_t> members(count), filled(offsets.begin(), offsets.end() - 1);
    for (std::size_t r = 0; r < count; ++r) members[filled[group_id[r]]++] = rest[r];
    // Survival paths once per (table, select age) of the part (a table builds each once, under its lock).
    std::vector<const SurvivalPath*> paths(group_count);
    std::vector<int> starts(group_count);
    for (std::size_t g = 0; g < group_count; ++g) {
        MortalityTable& table = *tables[static_cast<std::size_t>(p.table[lead[g]])];
        const int select = static_cast<int>(select_ages[g]);
        paths[g] = &table.path(select);
        starts[g] = table.path_start(select);
    }
    // The period ratios of each (curve, frequency), shared by its groups.
    std::map<std::pair<std::size_t, std::size_t>, std::vector<double>> ratios;
    std::vector<const std::vector<double>*> group_ratios(group_count);
    for (std::size_t g = 0; g < group_count; ++g) {
        const auto m = static_cast<std::size_t>(p.m[lead[g]]);
        auto [it, added] = ratios.try_emplace({group_curve[g], m});
        if (added) it->second = period_ratios(curves[group_curve[g]], m);
        group_ratios[g] = &it->second;
    }
    const BookSums sums = terms.mode == Mode::DiscretePrecision
                              ? book_sums(p, lead, members, offsets, curves, group_curve, paths, starts, rules)
                              : BookSums{};
    for (std::size_t g = 0; g < group_count; ++g) {
        const std::span<std::uint32_t> group(members.data() + offsets[g], offsets[g + 1] - offsets[g]);
        const auto table = static_cast<std::size_t>(p.table[lead[g]]);
        value_group(curves[group_curve[g]], *group_ratios[g], sums.of(g), *paths[g], starts[g], rules[table], p, group,
                    terms, out);
    }
    for (const std::uint32_t i : rest) out[i] *= p.benefits[i];
}

// The same on all cores: the book split into one part per core, each grouped
// and valued on its own (a policy whose duplicates lie in another part is
// valued there once more, at most once a core), so that the grouping too
// runs in parallel.
void value_groups(const CurveArrays& curve, std::span<MortalityTable* const> tables,
                  std::span<const FractionalAge> rules, const LifePolicies& p, const PolicyTerms& terms,
                  std::span<const std::uint32_t> rest, std::span<double> out) {
    parallel_for(rest.size(), std::size_t{1} << 10, [&](std::size_t begin, std::size_t end) {
        value_part(curve, tables, rules, p, terms, rest.subspan(begin, end - begin), out);
    });
}

}  // namespace

LifeBookFault life_portfolio_values(const CurveArrays& curve, std::vector<MortalityTable*> tables,
                                    std::span<const FractionalAge> rules, const LifePolicies& p,
                                    const PolicyTerms& terms, std::span<double> out) {
    std::vector<std::uint32_t> rest;
    if (const auto route = whole_age_route(p, terms)) {
        const auto [ts, m] = *route;
        const BookTables named(tables);
        const SlotsInUse in_use = slots_in_use(tables, named, p, ts, m, out);
        if (in_use.fault.kind != LifeBookFault::None) return in_use.fault;
        rest = value_whole_ages(curve, tables, rules, p, terms, ts, m, named, in_use, out);
    } else {
        if (const LifeBookFault fault = check_life_policies(tables, p); fault.kind != LifeBookFault::None) return fault;
        rest.resize(p.size);
        std::iota(rest.begin(), rest.end(), 0u);
    }
    value_groups(curve, tables, rules, p, terms, rest, out);
    return {};
}

LifeBookFault check_life_policies(std::span<MortalityTable* const> tables, const LifePolicies& p) {
    const BookTables named(tables);
    FirstFault first(tables, named, p);
    parallel_for(p.size, std::size_t{1} << 15, [&](std::size_t begin, std::size_t end) {
        std::array<Block, 10> scratch;
        for (std::size_t i = begin; i < end && first.open(i); i += kBlock) {
            const std::size_t len = std::min(kBlock, end - i);
            if (!first.in_range(i, len, read_block(named, p, i, len, scratch))) return;
        }
    });
    return first.fault();
}

}  // namespace norvane::core
