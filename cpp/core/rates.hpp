// Effective annual rates: the rules a curve's rates and segment lengths must
// meet, and the rates equivalent to a rate i (the force of interest and the
// nominal rates convertible m-thly). No Python, doubles and spans only.
#pragma once

#include "core/curve.hpp"

#include <cmath>
#include <cstddef>
#include <limits>
#include <optional>
#include <span>
#include <vector>

namespace norvane::core {

// ---- the rules of a rate and of a segment length -------------------------------

// A rate is a finite number above -1, so that 1 + i > 0 and both (1 + i)^-n
// and ln(1 + i) exist. A NaN fails both tests below; it is not at or below
// -1 either, so at_or_below_minus_one alone lets it through.
inline bool finite_rate(double rate) { return std::isfinite(rate); }
inline bool above_minus_one(double rate) { return rate > -1.0; }
inline bool at_or_below_minus_one(double rate) { return rate <= -1.0; }
inline bool valid_rate(double rate) { return finite_rate(rate) && above_minus_one(rate); }

// The first fault of a curve's rates, in the order they are looked for: a
// NaN or infinity, then a rate at or below -1, then (when the curve's number
// of segment lengths is known) a count other than one more than that. `index`
// is the position of the offending rate.
enum class RatesFault { None, NotFinite, AtOrBelowMinusOne, WrongCount };
struct RatesCheck {
    RatesFault fault = RatesFault::None;
    std::size_t index = 0;
};
RatesCheck check_rates(std::span<const double> rates, std::optional<std::size_t> terms_count);

// The same for segment lengths: a NaN or infinity, then a length <= 0, then
// (when the number of rates is known) a count other than one fewer.
enum class TermsFault { None, NotFinite, NotPositive, WrongCount };
struct TermsCheck {
    TermsFault fault = TermsFault::None;
    std::size_t index = 0;
};
TermsCheck check_terms(std::span<const double> terms, std::optional<std::size_t> rates_count);

// Positions of the rates at or below -1 (NaN never is), in order; and of the
// durations whose segment of `curve` has such a rate.
std::vector<std::size_t> positions_at_or_below_minus_one(std::span<const double> rates);
std::vector<std::size_t> positions_at_or_below_minus_one(const PiecewiseTable& curve,
                                                         std::span<const double> durations);

// ---- describing a curve's rates --------------------------------------------------

// How many rates are zero, negative and positive (a NaN is none of these).
struct SignCounts {
    std::size_t zero = 0, negative = 0, positive = 0, total = 0;
    double negative_share() const { return static_cast<double>(negative) / static_cast<double>(total); }
};
SignCounts sign_counts(std::span<const double> rates);

// The shape of a rate sequence: a single rate, never falling (increasing,
// also when flat), never rising, or neither.
enum class Monotonicity { SingleRate, Increasing, Decreasing, NonMonotonic };
Monotonicity monotonicity(std::span<const double> rates);

// Whether some segment end fails to lie beyond the one before it.
bool has_gaps(std::span<const double> ends);
// Whether every value is > 0 (NaN is not).
bool all_positive(std::span<const double> values);

// The reports' "finite" flags: not NaN and within 1e308 in magnitude, for a
// constant rate strictly and for the rates of a piecewise curve inclusively,
// as the reports have always read.
inline bool reported_finite(double rate) { return rate == rate && std::abs(rate) < 1e308; }
bool all_reported_finite(std::span<const double> rates);

// The standard deviation of the rates relative to the size of their mean
// (infinite for a zero mean).
inline double relative_volatility(double std_dev, double mean) {
    return mean != 0.0 ? std_dev / std::abs(mean) : std::numeric_limits<double>::infinity();
}

// ---- equivalent rates -------------------------------------------------------------

// ln(1 + i): discounting runs as v^n = exp(-n ln(1 + i)).
inline double log_one_plus(double rate) { return std::log(1.0 + rate); }

// The force of interest δ = ln(1 + i), exactly 0 for a zero rate; in place
// over an array of rates.
inline double force_of_interest(double rate) { return rate == 0.0 ? 0.0 : log_one_plus(rate); }
void to_forces_of_interest(std::span<double> rates);

// -ln v: the force accumulated over a duration with discount factor v, whose
// average over the duration is this divided by its length (exactly 0 for v = 1).
inline double accumulated_force(double v) { return v == 1.0 ? 0.0 : -std::log(v); }

// Nominal rates convertible m-thly (m >= 1): i^(m) = m((1 + i)^(1/m) - 1) and
// d^(m) = m(1 - (1 + i)^(-1/m)); m = 1 gives i and d = i / (1 + i) exactly.
double nominal_interest(double rate, double m);
double nominal_discount(double rate, double m);

}  // namespace norvane::core
