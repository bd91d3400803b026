#include "core/status_book.hpp"

#include "core/distinct.hpp"
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

// The distinct policies of a book (equal in every column but their benefit,
// and in their group; without lives, their table, age and select age are not
// read): the first policy of each, and each policy's distinct one.
struct Distinct {
    std::vector<std::uint32_t> lead, of;
};
Distinct book_distinct(const StatusBook& book, const Column* group, bool lives) {
    const LifePolicies& p = book.first;
    std::vector<KeyWord> key = {p.ts, p.d, p.n, p.m};
    if (group) key.emplace_back(*group);
    for (const LifePolicies* q : {&p, book.second})
        if (q && lives) {
            key.emplace_back(q->table);
            key.emplace_back(q->age);
            key.push_back(KeyWord::select_age(q->age, q->select_age));
        }
    Distinct found;
    found.of.resize(p.size);
    found.lead = distinct_policies(key, found.of);
    return found;
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
    const Distinct distinct = book_distinct(book, nullptr, true);
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
    const Distinct distinct = book_distinct(book, &group, lives);
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
