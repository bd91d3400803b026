#include "core/flows.hpp"

#include <algorithm>
#include <cmath>

namespace norvane::core {

FlowBuckets::FlowBuckets(std::span<const double> ends, std::size_t groups)
    : ends_(ends),
      groups_(groups),
      expected_(ends.size() * groups),
      discounted_(ends.size() * groups),
      timed_(ends.size() * groups),
      earliest_(ends.size() * groups, std::numeric_limits<double>::infinity()),
      latest_(ends.size() * groups, -std::numeric_limits<double>::infinity()) {}

std::size_t FlowBuckets::bucket_of(double t) const {
    const auto at = std::lower_bound(ends_.begin(), ends_.end(), t - time_tolerance(t));
    return std::min(static_cast<std::size_t>(at - ends_.begin()), ends_.size() - 1);
}

void FlowBuckets::add(const FlowBuckets& other) {
    for (std::size_t k = 0; k < expected_.size(); ++k) {
        expected_[k] += other.expected_[k];
        discounted_[k] += other.discounted_[k];
        timed_[k] += other.timed_[k];
        earliest_[k] = std::min(earliest_[k], other.earliest_[k]);
        latest_[k] = std::max(latest_[k], other.latest_[k]);
    }
}

namespace {

// Survival 1 at every time: a certain annuity's.
struct Certain {
    const Status* status() const { return nullptr; }
    double horizon() const { return PiecewiseTable::kInfinity; }
    double integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth) const {
        return continuous_value(curve, a, b, origin, growth);
    }
};

// A status's survival.
struct Alive {
    const Status& of;
    const Status* status() const { return &of; }
    double horizon() const { return of.horizon(); }
    double integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth) const {
        return survival_integral(curve, a, b, origin, growth, of, false);
    }
};

// Where one policy's flows go: its group in the buckets, times its benefit.
struct Sink {
    FlowBuckets& out;
    std::size_t group;
    double benefit;

    void add(std::size_t bucket, double expected, double discounted, double t) const {
        out.add(group, bucket, expected * benefit, discounted * benefit, t);
    }
    // A flow over [lo, hi], with the integral of its discounted amount times t.
    void add_over(std::size_t bucket, double expected, double discounted, double timed, double lo, double hi) const {
        out.add(group, bucket, expected * benefit, discounted * benefit, timed * benefit, lo, hi);
    }
    // The bucket of t, searched forward from `bucket` (flows come in time order).
    std::size_t next(std::size_t bucket, double t) const {
        while (bucket + 1 < out.buckets() && out.end(bucket) < t - FlowBuckets::time_tolerance(t)) ++bucket;
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
    Sink sink;

    double payments(const Schedule& s, double w) const {
        if (w == 0.0) return 0.0;
        // Each payment as the value sums it, weighted by w, in its bucket (they come in time order).
        struct Gather final : PaymentVisitor {
            const Sink& sink;
            double w, total = 0.0;
            std::size_t bucket = 0;
            Gather(const Sink& sink_, double w_) : sink(sink_), w(w_) {}
            void operator()(double t, double amount, double v, double alive) override {
                const double present = weighted(alive, amount * v) * w;
                bucket = sink.next(bucket, t);
                sink.add(bucket, alive * amount * w, present, t);
                total += present;
            }
        } gather(sink, w);
        life_schedule_payments(curve, s, survival.status(), gather);
        return gather.total;
    }
    double flow(const Annuity& annuity, double a, double b) const {
        double total = 0.0;
        sink.pieces(a, std::min(b, survival.horizon()), [&](std::size_t bucket, double lo, double hi) {
            const double present = survival.integral(curve, lo, hi, annuity.d, annuity.growth);
            const double timed =
                survival_time_integral(curve, lo, hi, annuity.d, annuity.growth, survival.status(), false);
            sink.add_over(bucket, survival.integral(no_interest(), lo, hi, annuity.d, annuity.growth), present, timed,
                          lo, hi);
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
    Sink sink;

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
                sink.add(bucket, dying, present, end);
                total += present;
            });
            return total;
        }
        sink.pieces(periods.d, std::min(periods.d + periods.n, status.horizon()),
                    [&](std::size_t bucket, double lo, double hi) {
                        const double at_lo = status.at(lo), at_hi = status.at(hi);
                        const double lo_now = weighted(at_lo, curve.discount(lo));
                        const double hi_now = weighted(at_hi, curve.discount(hi));
                        const double present =
                            lo_now - hi_now - survival_integral(curve, lo, hi, lo, Growth{}, status, true);
                        // By parts: the integral of t v dF is [-t v S] plus the integral of S d(t v).
                        const double timed = lo * lo_now - hi * hi_now +
                                             survival_integral(curve, lo, hi, lo, Growth{}, status, false) -
                                             survival_time_integral(curve, lo, hi, lo, Growth{}, &status, true);
                        sink.add_over(bucket, at_lo - at_hi, present, timed, lo, hi);
                        total += present;
                    });
        return total;
    }
    double endowment(double t) const {
        if (!(t < status.horizon())) return 0.0;  // nobody is left (a term for life ends never)
        const double alive = status.at(t), present = weighted(alive, curve.discount(t));
        sink.add(sink.out.bucket_of(t), alive, present, t);
        return present;
    }
};

}  // namespace

void certain_flows(const PiecewiseTable& curve, double n, double d, double ts, const PolicyTerms& terms,
                   FlowBuckets& out, std::size_t group, double weight) {
    if (const auto annuity = policy_annuity(n, d, ts, terms))
        value_in_mode(*annuity, terms.mode, FlowPieces<Certain>{curve, Certain{}, Sink{out, group, weight}});
}

void status_flows(const PiecewiseTable& curve, const Status& status, LifeBenefit benefit, double n, double d, double ts,
                  const PolicyTerms& terms, FlowBuckets& out, std::size_t group, double weight) {
    life_benefit(benefit, status, ts, d, n, terms, FlowParts{curve, status, terms.mode, Sink{out, group, weight}});
}

}  // namespace norvane::core
