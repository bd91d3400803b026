// Books of policies paying any benefit on one life or on two (a joint or
// last-survivor status), and the expected flows of any book, certain or
// life: each distinct policy is taken once, as the single call takes it,
// on all cores.
#pragma once

#include "core/flows.hpp"
#include "core/life.hpp"
#include "core/life_book.hpp"

#include <cstddef>
#include <optional>
#include <span>

namespace norvane::core {

// A book's policies and what they pay. Without tables every policy is a
// certain annuity (its table, age and select age are not read); with a
// joint or last-survivor status, `second` holds each policy's other life
// (its table, age and select age are read, its other columns are not).
struct StatusBook {
    const LifePolicies& first;
    const LifePolicies* second = nullptr;
    Status::Kind kind = Status::Single;
    LifeBenefit benefit = LifeBenefit::Annuity;
};

// Unit values of the book's policies (valid: check_life_policies for each
// life) rounded as np.round does, times their benefits; NaN for a policy
// whose lives nobody in their tables reaches. Each equals the single call's
// value (life_benefit_value) bit for bit.
void status_book_values(const CurveArrays& curve, std::span<MortalityTable* const> tables,
                        std::span<const FractionalAge> rules, const StatusBook& book, const PolicyTerms& terms,
                        std::span<double> out);

// The most payments of one certain policy that its flows walk, one by one.
inline constexpr double kMaxFlowPayments = 1e7;

// The expected flows of the book's policies, each times its benefit, added to
// `out` in the group `group[i]` names. A life nobody in its table reaches pays
// nothing. The lives must be valid (check_life_policies); the groups and a
// certain book's terms are checked here, on each distinct policy: returns the
// first policy whose group is not a whole number below out.groups(), or
// (without tables) whose frequency is not a whole number in 1..365, valuation
// time or deferment not finite and >= 0, or term < 0 or of more than
// kMaxFlowPayments payments (they are walked one by one); `out` then holds
// nothing.
std::optional<std::size_t> book_flows(const CurveArrays& curve, std::span<MortalityTable* const> tables,
                                      std::span<const FractionalAge> rules, const StatusBook& book, const Column& group,
                                      const PolicyTerms& terms, FlowBuckets& out);

}  // namespace norvane::core
