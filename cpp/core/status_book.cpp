#include "core/status_book.hpp"

#include "core/key_index.hpp"
#include "core/parallel.hpp"

#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <thread>
#include <vector>

namespace norvane::core {

namespace {

// The distinct policies of a book (equal in every column but their
// benefit, and in their group): the first policy of each, and each
// policy's distinct one.
struct Distinct {
    std::vector<std::uint32_t> lead, of;
};

// N words a key: 8, or 11 with the other lives' table, age and select age.
template <std::size_t N>
Distinct distinct_policies(const StatusBook& book, const Column* group, bool lives) {
    const LifePolicies& p = book.first;
    using Key = typename KeyIndex<N>::Key;
    const auto key_of = [&](std::size_t i) -> Key {
        const auto select = [&](const LifePolicies& q) { return bits(select_age_of(q.age[i], q.select_age[i])); };
        Key key{lives ? bits(p.table[i]) : 0,
                lives ? bits(p.age[i]) : 0,
                lives ? select(p) : 0,
                bits(p.ts[i]),
                bits(p.d[i]),
                bits(p.n[i]),
                bits(p.m[i]),
                group ? bits((*group)[i]) : 0};
        if constexpr (N > 8) {
            const LifePolicies& y = *book.second;
            key[8] = bits(y.table[i]);
            key[9] = bits(y.age[i]);
            key[10] = select(y);
        }
        return key;
    };
    // Each core numbers the distinct policies of its part of the book; the parts' numbers are
    // then made one (the distinct policies are few against the book). The columns are read a
    // block at a time (table texts matched, integers converted, vectorised).
    const std::size_t parts = std::max<std::size_t>(
        1, std::min<std::size_t>(std::max(1u, std::thread::hardware_concurrency()), p.size >> 16));
    const std::size_t chunk = (p.size + parts - 1) / parts;
    Distinct found;
    found.of.resize(p.size);
    std::vector<std::vector<std::uint32_t>> leads(parts);
    parallel_for(parts, 1, [&](std::size_t first, std::size_t last) {
        std::array<Block, 11> scratch;
        for (std::size_t part = first; part < last; ++part) {
            const std::size_t begin = part * chunk, end = std::min(p.size, begin + chunk);
            KeyIndex<N> index(std::min<std::size_t>(end - begin, std::size_t{1} << 20));
            for (std::size_t i = begin; i < end; i += kBlock) {
                const std::size_t len = std::min(kBlock, end - i);
                const auto block = [&](const Column& column, std::size_t at) {
                    return column.block(i, len, scratch[at]);
                };
                const double *table = lives ? p.table.block(i, len, scratch[0]) : nullptr, *age = block(p.age, 1),
                             *select = block(p.select_age, 2), *ts = block(p.ts, 3), *d = block(p.d, 4),
                             *n = block(p.n, 5), *m = block(p.m, 6), *in = group ? block(*group, 7) : nullptr;
                const double *other_table = nullptr, *other_age = nullptr, *other_select = nullptr;
                if constexpr (N > 8) {
                    const LifePolicies& y = *book.second;
                    other_table = y.table.block(i, len, scratch[8]);
                    other_age = block(y.age, 9);
                    other_select = block(y.select_age, 10);
                }
                for (std::size_t k = 0; k < len; ++k) {
                    Key key{lives ? bits(table[k]) : 0,
                            lives ? bits(age[k]) : 0,
                            lives ? bits(select_age_of(age[k], select[k])) : 0,
                            bits(ts[k]),
                            bits(d[k]),
                            bits(n[k]),
                            bits(m[k]),
                            in ? bits(in[k]) : 0};
                    if constexpr (N > 8) {
                        key[8] = bits(other_table[k]);
                        key[9] = bits(other_age[k]);
                        key[10] = bits(select_age_of(other_age[k], other_select[k]));
                    }
                    const auto [number, added] = index.insert(key);
                    if (added) leads[part].push_back(static_cast<std::uint32_t>(i + k));
                    found.of[i + k] = number;
                }
            }
        }
    });
    KeyIndex<N> index(leads[0].size());
    std::vector<std::vector<std::uint32_t>> number(parts);
    for (std::size_t part = 0; part < parts; ++part)
        for (const std::uint32_t i : leads[part]) {
            const auto [k, added] = index.insert(key_of(i));
            if (added) found.lead.push_back(i);
            number[part].push_back(k);
        }
    if (parts > 1)
        parallel_for(p.size, std::size_t{1} << 16, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) found.of[i] = number[i / chunk][found.of[i]];
        });
    return found;
}

Distinct distinct_policies(const StatusBook& book, const Column* group, bool lives) {
    return book.second ? distinct_policies<11>(book, group, lives) : distinct_policies<8>(book, group, lives);
}

// What the distinct policies share: one discount table per valuation time,
// seen from it, and their survival paths, built before the threads start
// (a table builds each path once).
class Shared {
  public:
    Shared(const CurveArrays& curve, std::span<MortalityTable* const> tables, const StatusBook& book,
           std::span<const std::uint32_t> lead, double eps) {
        const LifePolicies& p = book.first;
        for (const std::uint32_t i : lead) {
            if (!curves_.contains(bits(p.ts[i])))
                curves_.emplace(bits(p.ts[i]),
                                discount_table(is_shift(p.ts[i], eps) ? shifted(curve, p.ts[i], eps) : curve));
            if (tables.empty()) continue;
            for (const LifePolicies* q : {&p, book.second})
                if (q) tables[index(*q, i)]->path(static_cast<int>(select_age_of(q->age[i], q->select_age[i])));
        }
    }
    const PiecewiseTable& curve(double ts) const { return curves_.at(bits(ts)); }
    static std::size_t index(const LifePolicies& q, std::size_t i) { return static_cast<std::size_t>(q.table[i]); }

  private:
    std::map<std::uint64_t, PiecewiseTable> curves_;
};

// The status of policy i; none when nobody in its tables reaches one of its lives.
std::optional<Status> status_of(std::span<MortalityTable* const> tables, std::span<const FractionalAge> rules,
                                const StatusBook& book, std::size_t i, LifeOnPath (&lives)[2]) {
    const LifePolicies* policies[] = {&book.first, book.second};
    const std::size_t count = book.second ? 2 : 1;
    for (std::size_t k = 0; k < count; ++k) {
        const LifePolicies& q = *policies[k];
        const std::size_t table = Shared::index(q, i);
        const LifeAt at = life_at(*tables[table], q.age[i], q.select_age[i], book.first.ts[i], rules[table]);
        if (at.fault != LifeAt::None) return std::nullopt;
        lives[k] = at.life;
    }
    return Status::of(book.kind, std::span<const LifeOnPath>(lives, count));
}

}  // namespace

void status_book_values(const CurveArrays& curve, std::span<MortalityTable* const> tables,
                        std::span<const FractionalAge> rules, const StatusBook& book, const PolicyTerms& terms,
                        std::span<double> out) {
    const LifePolicies& p = book.first;
    const Distinct distinct = distinct_policies(book, nullptr, true);
    const Shared shared(curve, tables, book, distinct.lead, terms.tolerance_eps);
    std::vector<double> unit(distinct.lead.size());
    const double scale = rounding_scale(terms.decimals);
    parallel_for(unit.size(), 64, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const std::uint32_t i = distinct.lead[k];
            LifeOnPath lives[2];
            const auto status = status_of(tables, rules, book, i, lives);
            PolicyTerms own = terms;
            own.m = static_cast<std::size_t>(p.m[i]);
            unit[k] = status ? round_scaled(life_benefit_value(book.benefit, shared.curve(p.ts[i]), *status, p.ts[i],
                                                               p.d[i], p.n[i], own)
                                                .value,
                                            scale)
                             : std::numeric_limits<double>::quiet_NaN();
        }
    });
    for (std::size_t i = 0; i < p.size; ++i) out[i] = unit[distinct.of[i]] * p.benefits[i];
}

std::optional<std::size_t> book_flows(const CurveArrays& curve, std::span<MortalityTable* const> tables,
                                      std::span<const FractionalAge> rules, const StatusBook& book, const Column& group,
                                      const PolicyTerms& terms, FlowBuckets& out) {
    const LifePolicies& p = book.first;
    const bool lives = !tables.empty();
    const Distinct distinct = distinct_policies(book, &group, lives);
    // What is checked is in the key: a distinct policy stands for its copies, the first of
    // which it is.
    const auto faulty = [&](std::size_t i) {
        const double g = group[i], m = p.m[i];
        if (!(g >= 0.0 && g < static_cast<double>(out.groups()) && g == std::floor(g))) return true;
        if (lives) return false;
        const bool frequency = m >= 1.0 && m <= 365.0 && m == std::floor(m);
        const double term = term_or_horizon(p.n[i], terms);
        return !(frequency && finite_nonnegative(p.d[i]) && finite_nonnegative(p.ts[i]) && p.n[i] >= 0.0 &&
                 term * m <= kMaxFlowPayments);
    };
    for (const std::uint32_t i : distinct.lead)
        if (faulty(i)) return i;
    std::vector<double> weight(distinct.lead.size());
    for (std::size_t i = 0; i < p.size; ++i) weight[distinct.of[i]] += p.benefits[i];
    const Shared shared(curve, tables, book, distinct.lead, terms.tolerance_eps);
    // Each core gathers into buckets of its own, made here (a failed allocation is the caller's to
    // see, not a thread's), then added up.
    std::vector<FlowBuckets> parts(std::max(1u, std::thread::hardware_concurrency()),
                                   FlowBuckets(out.ends(), out.groups()));
    std::atomic<std::size_t> taken{0};
    parallel_for(distinct.lead.size(), 64, [&](std::size_t begin, std::size_t end) {
        FlowBuckets& part = parts[taken++];
        for (std::size_t k = begin; k < end; ++k) {
            const std::uint32_t i = distinct.lead[k];
            PolicyTerms own = terms;
            own.m = static_cast<std::size_t>(p.m[i]);
            const auto in_group = static_cast<std::size_t>(group[i]);
            const PiecewiseTable& seen = shared.curve(p.ts[i]);
            if (!lives) {
                certain_flows(seen, p.n[i], p.d[i], p.ts[i], own, part, in_group, weight[k]);
                continue;
            }
            LifeOnPath both[2];
            if (const auto status = status_of(tables, rules, book, i, both))
                status_flows(seen, *status, book.benefit, p.n[i], p.d[i], p.ts[i], own, part, in_group, weight[k]);
        }
    });
    for (std::size_t k = 0; k < taken; ++k) out.add(parts[k]);
    return std::nullopt;
}

}  // namespace norvane::core
