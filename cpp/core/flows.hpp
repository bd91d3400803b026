// Expected cash flows: what a policy pays, period by period, weighted by the
// chance that it is paid, gathered in time buckets undiscounted and
// discounted. A policy's flows come from the same composition as its value
// (value_in_mode, life_benefit), so the discounted flows of a policy add up
// to its value; a certain annuity is a life annuity whose survival is 1.
#pragma once

#include "core/annuity.hpp"
#include "core/life.hpp"
#include "core/life_book.hpp"

#include <cstddef>
#include <span>
#include <vector>

namespace norvane::core {

// Amounts per group of policies and per time bucket. A flow at time t (years
// from its policy's valuation time) goes to the first bucket whose end is at
// or after t; the last bucket also takes every later flow.
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
    void add(std::size_t group, std::size_t bucket, double expected, double discounted) {
        expected_[group * ends_.size() + bucket] += expected;
        discounted_[group * ends_.size() + bucket] += discounted;
    }
    // Another gathering of the same buckets and groups added to this one.
    void add(const FlowBuckets& other);
    // Group by group, bucket by bucket.
    std::span<const double> expected() const { return expected_; }
    std::span<const double> discounted() const { return discounted_; }

  private:
    std::span<const double> ends_;
    std::size_t groups_;
    std::vector<double> expected_, discounted_;
};

// The expected flows of a book's policies, each times its benefit, added to
// `out` in the group `group[i]` names (a whole number below out.groups()).
// Without tables every policy is a certain annuity (its table and age are
// not read, a term of infinity is a perpetuity of the curve's horizon
// `terms.perpetuity_n_eff`); with tables, each pays `benefit` on the life its
// table, age and select age give. Identical policies are valued once, on
// all cores. The policies must be valid (check_life_policies); a life
// nobody in its table reaches pays nothing.
void book_flows(const CurveArrays& curve, std::span<MortalityTable* const> tables, std::span<const FractionalAge> rules,
                const LifePolicies& policies, const Column& group, LifeBenefit benefit, const PolicyTerms& terms,
                FlowBuckets& out);

}  // namespace norvane::core
