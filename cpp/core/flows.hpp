// Expected cash flows: what a policy pays, period by period, weighted by the
// chance that it is paid, gathered in time buckets undiscounted and
// discounted. A policy's flows come from the same composition as its value
// (value_in_mode, life_benefit), so the discounted flows of a policy add up
// to its value; a certain annuity is a life annuity whose survival is 1.
#pragma once

#include "core/annuity.hpp"
#include "core/life.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <span>
#include <vector>

namespace norvane::core {

// Amounts per group of policies and per time bucket. A flow at time t (years
// from its policy's valuation time) goes to the first bucket whose end is at
// or after t, within a relative 1e-12 (a payment date reached by another sum
// than the end's differs in its last bits); the last bucket also takes every
// later flow.
class FlowBuckets {
  public:
    // `ends` ascending, at least one.
    FlowBuckets(std::span<const double> ends, std::size_t groups);
    std::size_t buckets() const { return ends_.size(); }
    std::size_t groups() const { return groups_; }
    double end(std::size_t bucket) const { return ends_[bucket]; }
    std::span<const double> ends() const { return ends_; }
    // The bucket of a flow at t.
    std::size_t bucket_of(double t) const;
    static double time_tolerance(double t) { return 1e-12 * std::max(1.0, std::abs(t)); }
    // A flow at time t: its expected amount, and its discounted amount, also times t.
    void add(std::size_t group, std::size_t bucket, double expected, double discounted, double t) {
        add(group, bucket, expected, discounted, weighted(discounted, t), t, t);
    }
    // A flow spread over [from, to]: its expected and discounted amounts, and the integral of
    // the discounted flow times t.
    void add(std::size_t group, std::size_t bucket, double expected, double discounted, double timed, double from,
             double to) {
        const std::size_t cell = group * ends_.size() + bucket;
        expected_[cell] += expected;
        discounted_[cell] += discounted;
        timed_[cell] += timed;
        if (discounted != 0.0) {
            earliest_[cell] = std::min(earliest_[cell], from);
            latest_[cell] = std::max(latest_[cell], to);
        }
    }
    // Another gathering of the same buckets and groups added to this one.
    void add(const FlowBuckets& other);
    // Group by group, bucket by bucket.
    std::span<const double> expected() const { return expected_; }
    std::span<const double> discounted() const { return discounted_; }
    // The discounted amounts times their times (of a continuous flow, its integral times t):
    // over the discounted amounts, the mean time of a bucket's value.
    std::span<const double> timed() const { return timed_; }
    // The earliest and the latest time of a bucket's discounted amounts (+inf and -inf
    // without any; a continuous flow spans its piece): when they are one, every flow of
    // the bucket is at that time.
    std::span<const double> earliest() const { return earliest_; }
    std::span<const double> latest() const { return latest_; }

  private:
    std::span<const double> ends_;
    std::size_t groups_;
    std::vector<double> expected_, discounted_, timed_, earliest_, latest_;
};

// The expected flows of a certain annuity (term n from inception, infinite: a
// perpetuity of the horizon terms.perpetuity_n_eff; deferment d; valued at
// ts on `curve`, the curve seen from ts), times `weight`, into `group` of `out`.
void certain_flows(const PiecewiseTable& curve, double n, double d, double ts, const PolicyTerms& terms,
                   FlowBuckets& out, std::size_t group, double weight);
// The same for a policy paying `benefit` on `status` (as life_benefit_value values it).
void status_flows(const PiecewiseTable& curve, const Status& status, LifeBenefit benefit, double n, double d, double ts,
                  const PolicyTerms& terms, FlowBuckets& out, std::size_t group, double weight);

}  // namespace norvane::core
