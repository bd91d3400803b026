#include "core/flows.hpp"

#include "core/key_index.hpp"
#include "core/parallel.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

namespace norvane::core {

FlowBuckets::FlowBuckets(std::span<const double> ends, std::size_t groups)
    : ends_(ends), groups_(groups), expected_(ends.size() * groups), discounted_(ends.size() * groups) {}

std::size_t FlowBuckets::bucket_of(double t) const {
    const auto at = std::lower_bound(ends_.begin(), ends_.end(), t);
    return std::min(static_cast<std::size_t>(at - ends_.begin()), ends_.size() - 1);
}

void FlowBuckets::add(const FlowBuckets& other) {
    for (std::size_t k = 0; k < expected_.size(); ++k) {
        expected_[k] += other.expected_[k];
        discounted_[k] += other.discounted_[k];
    }
}

namespace {

// Survival 1 at every time: a certain annuity's.
struct Certain {
    double at(double) const { return 1.0; }
    double horizon() const { return PiecewiseTable::kInfinity; }
    double integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth) const {
        return continuous_value(curve, a, b, origin, growth);
    }
};

// A status's survival.
struct Alive {
    const Status& status;
    double at(double t) const { return status.at(t); }
    double horizon() const { return status.horizon(); }
    double integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth) const {
        return survival_integral(curve, a, b, origin, growth, status, false);
    }
};

// Where one policy's flows go: its group in the buckets, times its benefit.
struct Sink {
    FlowBuckets& out;
    std::size_t group;
    double benefit;

    void add(std::size_t bucket, double expected, double discounted) const {
        out.add(group, bucket, expected * benefit, discounted * benefit);
    }
    // The bucket of t, searched forward from `bucket` (flows come in time order).
    std::size_t next(std::size_t bucket, double t) const {
        while (bucket + 1 < out.buckets() && out.end(bucket) < t) ++bucket;
        return bucket;
    }
    // Each piece [lo, hi] of [a, b] that lies in one bucket, with that bucket.
    template <typename Fn>
    void pieces(double a, double b, Fn fn) const {
        for (std::size_t bucket = out.bucket_of(a); a < b; ++bucket) {
            const double hi = bucket + 1 < out.buckets() ? std::min(b, out.end(bucket)) : b;
            if (hi > a) fn(bucket, a, hi);
            a = std::max(a, hi);
        }
    }
};

// An annuity's pieces (value_in_mode) that gather each payment, or each
// bucket's share of a continuous flow, in the sink; each returns the
// discounted amount it gathered, so that their composition is the value.
template <typename Survival>
struct FlowPieces {
    const PiecewiseTable& curve;
    Survival survival;
    const Sink& sink;

    double payments(const Schedule& s, double w) const {
        if (w == 0.0) return 0.0;
        const double horizon = survival.horizon();
        double total = 0.0, growth = 1.0;
        std::size_t bucket = 0, year = static_cast<std::size_t>(-1);
        for (std::size_t i = 0; i < s.size(); ++i) {
            const double t = s.payment_time(i);
            if (!(t < horizon)) break;
            const std::size_t k = i < s.count ? s.first + i : s.partial_index;
            if (k / s.m != year) growth = s.growth.factor(year = k / s.m);
            const double share = i < s.count ? 1.0 : s.partial_fraction;
            const double amount = share * growth / static_cast<double>(s.m), alive = survival.at(t);
            const double present = weighted(alive, amount * curve.discount(t)) * w;
            bucket = sink.next(bucket, t);
            sink.add(bucket, alive * amount * w, present);
            total += present;
        }
        return total;
    }
    double flow(const Annuity& annuity, double a, double b) const {
        double total = 0.0;
        sink.pieces(a, std::min(b, survival.horizon()), [&](std::size_t bucket, double lo, double hi) {
            const double present = survival.integral(curve, lo, hi, annuity.d, annuity.growth);
            sink.add(bucket, survival.integral(no_interest(), lo, hi, annuity.d, annuity.growth), present);
            total += present;
        });
        return total;
    }
};

// A life policy's parts (life_benefit) gathered in the sink.
struct FlowParts {
    const PiecewiseTable& curve;
    const Status& status;
    Mode mode;
    const Sink& sink;

    LifeValue annuity(const Annuity& annuity, double) const {
        return {LifeValue::None, value_in_mode(annuity, mode, FlowPieces<Alive>{curve, Alive{status}, sink})};
    }
    // 1 at the end of the period of death in the discrete modes; at the
    // moment of death in the continuous ones (by parts, as its value).
    double insurance(const Annuity& periods) const {
        double total = 0.0;
        if (mode == Mode::DiscretePrecision || mode == Mode::DiscreteSimplified) {
            std::size_t bucket = 0;
            for_each_period(periods, status.horizon(), [&](std::size_t, double start, double end) {
                const double dying = status.at(start) - status.at(end), present = weighted(dying, curve.discount(end));
                bucket = sink.next(bucket, end);
                sink.add(bucket, dying, present);
                total += present;
            });
            return total;
        }
        sink.pieces(periods.d, std::min(periods.d + periods.n, status.horizon()),
                    [&](std::size_t bucket, double lo, double hi) {
                        const double at_lo = status.at(lo), at_hi = status.at(hi);
                        const double present = weighted(at_lo, curve.discount(lo)) -
                                               weighted(at_hi, curve.discount(hi)) -
                                               survival_integral(curve, lo, hi, lo, Growth{}, status, true);
                        sink.add(bucket, at_lo - at_hi, present);
                        total += present;
                    });
        return total;
    }
    double endowment(double t) const {
        const double alive = status.at(t), present = weighted(alive, curve.discount(t));
        sink.add(sink.out.bucket_of(t), alive, present);
        return present;
    }
};

// The flows of policy i of the book (its benefit `weight`) into `sink`.
void policy_flows(const PiecewiseTable& curve, std::span<MortalityTable* const> tables,
                  std::span<const FractionalAge> rules, const LifePolicies& p, std::size_t i, LifeBenefit benefit,
                  PolicyTerms terms, const Sink& sink) {
    terms.m = static_cast<std::size_t>(p.m[i]);
    if (tables.empty()) {
        if (const auto annuity = policy_annuity(p.n[i], p.d[i], p.ts[i], terms))
            value_in_mode(*annuity, terms.mode, FlowPieces<Certain>{curve, Certain{}, sink});
        return;
    }
    const auto table = static_cast<std::size_t>(p.table[i]);
    const LifeAt at = life_at(*tables[table], p.age[i], p.select_age[i], p.ts[i], rules[table]);
    if (at.fault != LifeAt::None) return;
    const Status status = Status::of(Status::Single, std::span<const LifeOnPath>(&at.life, 1));
    life_benefit(benefit, status, p.ts[i], p.d[i], p.n[i], terms, FlowParts{curve, status, terms.mode, sink});
}

}  // namespace

void book_flows(const CurveArrays& curve, std::span<MortalityTable* const> tables, std::span<const FractionalAge> rules,
                const LifePolicies& p, const Column& group, LifeBenefit benefit, const PolicyTerms& terms,
                FlowBuckets& out) {
    // Identical policies (in everything but their benefit) valued once, their benefits added.
    const bool lives = !tables.empty();
    KeyIndex<8> distinct(std::min<std::size_t>(p.size, std::size_t{1} << 20));
    std::vector<std::uint32_t> lead;
    std::vector<double> weight;
    for (std::size_t i = 0; i < p.size; ++i) {
        const auto [k, added] =
            distinct.insert({lives ? bits(p.table[i]) : 0, lives ? bits(p.age[i]) : 0,
                             lives ? bits(select_age_of(p.age[i], p.select_age[i])) : 0, bits(p.ts[i]), bits(p.d[i]),
                             bits(p.n[i]), bits(p.m[i]), bits(group[i])});
        if (added) {
            lead.push_back(static_cast<std::uint32_t>(i));
            weight.push_back(0.0);
        }
        weight[k] += p.benefits[i];
    }
    // One discount table per valuation time, seen from it.
    std::map<std::uint64_t, PiecewiseTable> curves;
    for (const std::uint32_t i : lead)
        if (!curves.contains(bits(p.ts[i])))
            curves.emplace(bits(p.ts[i]), discount_table(is_shift(p.ts[i], terms.tolerance_eps)
                                                             ? shifted(curve, p.ts[i], terms.tolerance_eps)
                                                             : curve));
    // Survival paths are built before the threads start (a table builds each once).
    if (lives)
        for (const std::uint32_t i : lead)
            tables[static_cast<std::size_t>(p.table[i])]->path(
                static_cast<int>(select_age_of(p.age[i], p.select_age[i])));
    std::mutex merging;
    parallel_for(lead.size(), 64, [&](std::size_t begin, std::size_t end) {
        FlowBuckets part(out.ends(), out.groups());
        for (std::size_t k = begin; k < end; ++k) {
            const std::uint32_t i = lead[k];
            const Sink sink{part, static_cast<std::size_t>(group[i]), weight[k]};
            policy_flows(curves.at(bits(p.ts[i])), tables, rules, p, i, benefit, terms, sink);
        }
        const std::lock_guard lock(merging);
        out.add(part);
    });
}

}  // namespace norvane::core
