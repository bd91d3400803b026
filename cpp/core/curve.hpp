// Plain arithmetic on curve tables: no Python, spans of doubles in and out.
#pragma once

#include "core/fast_exp.hpp"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace norvane::core {

// A curve has one rate more than segment lengths (and ends): the last rate
// runs on indefinitely.
inline bool rates_fit_terms(std::size_t rates, std::size_t terms) { return rates == terms + 1; }

// out[j] = a[j] + ... in order, the way np.cumsum accumulates.
void cumulative_sum(std::span<const double> in, std::span<double> out);

// out[j] = 1 + rates[j].
void one_plus(std::span<const double> rates, std::span<double> out);

// Discount factor of each complete segment, (1 + r_j)^(-t_j), and the running
// product of those factors (discount from 0 to the end of segment j). The last
// rate has no finite segment, so only terms.size() factors exist.
void segment_discount_products(std::span<const double> one_plus_rates, std::span<const double> terms,
                               std::span<double> full_segment, std::span<double> prefix);

// Where a time t in segment k of a curve with segment ends `ends` falls: the
// segment's start, end (+inf for the last) and length, and t's distance from
// the start.
struct SegmentPosition {
    double start, end, length, offset;
};
SegmentPosition segment_position(std::span<const double> ends, std::size_t k, double t);

// Position of the first NaN or infinity, if any.
std::optional<std::size_t> first_non_finite(std::span<const double> values);

// Position of the first value <= bound (NaN never matches), if any.
std::optional<std::size_t> first_at_or_below(std::span<const double> values, double bound);

}  // namespace norvane::core

namespace norvane::core {

class LevelRuns;

// A piecewise curve prepared for discounting: v(n) for n > 0 is
// start_df[j] * (1 + r_j)^-(n - start_t[j]) where j is the segment holding n
// (a duration on a boundary belongs to the segment that ends there; the last
// rate runs on indefinitely), evaluated as exp(-(n - start_t[j]) * log(1 + r_j)).
class PiecewiseTable {
  public:
    static constexpr double kInfinity = std::numeric_limits<double>::infinity();

    // rates: m values; ends: the m-1 cumulative segment ends; prefix: the m-1
    // discount factors from 0 to each end (empty when only rates are looked up).
    PiecewiseTable(std::span<const double> rates, std::span<const double> ends, std::span<const double> prefix);

    // Segment of a time by the side-"left" search over the ends, clipped to the
    // last rate: times <= 0 give 0, NaN and times past the end give m-1.
    std::size_t segment_of(double n) const;
    // The same for n > 0 known to lie in segment `from` or a later one.
    std::size_t segment_from(double n, std::size_t from) const {
        while (from < ends_.size() && n > ends_[from]) ++from;
        return from;
    }
    std::size_t segment_count() const { return rates_.size(); }
    double rate(std::size_t segment) const { return rates_[segment]; }
    bool has_rate_at_or_below_minus_one() const;
    // End of segment j (+inf for the last) and log(1 + r_j), for integrals
    // and series within one segment.
    double segment_end(std::size_t j) const { return j < ends_.size() ? ends_[j] : kInfinity; }
    double log_base(std::size_t j) const { return segments_[j].log_q; }
    // The rate in force at each time (segment_of's rule).
    void rates_at(std::span<const double> t, std::span<double> out) const;

    // Discount factors; durations <= 0 give exactly 1.0.
    double discount(double n) const;
    // The discount factor of a duration n > 0 known to lie in segment j.
    double discount_in(std::size_t j, double n) const {
        const Segment& seg = segments_[j];
        const double t = n - seg.start_t;
        const double v = seg.start_df * exp_any(-t * seg.log_q);
        return needs_pow(v) ? seg.start_df * std::pow(seg.q, -t) : v;
    }
    void discount(std::span<const double> n, std::span<double> out) const;
    // discount_in within an ulp or two, faster where the duration lies near
    // the segment's start (a small exponent): for sums of many such factors
    // that carry their own error bound.
    double discount_in_near(std::size_t j, double n) const {
        const Segment& seg = segments_[j];
        const double x = -(n - seg.start_t) * seg.log_q;
        return std::abs(x) <= kSmallExponent ? seg.start_df + seg.start_df * expm1_small(x) : discount_in(j, n);
    }
    // The level runs of every segment at m payments a year (see LevelRuns):
    // worked out on first use for the usual frequencies (safely across
    // threads, and shared by the table's copies), afresh for another m.
    std::shared_ptr<const LevelRuns> level_runs(std::size_t m) const;

  private:
    struct SeriesCache;
    // What the kernel needs of segment j, in one cache line.
    struct Segment {
        double start_t;   // start of the segment
        double log_q;     // log(1 + r_j)
        double start_df;  // discount factor to the start
        double q;         // 1 + r_j
    };
    // Buckets split (0, last end] evenly; `first` counts the ends in earlier
    // buckets and `end` is the one end inside the bucket (+inf if none).
    struct Bucket {
        double end;
        std::int32_t first;
    };

    std::size_t bucket_of(double n) const;
    void discount_range(std::span<const double> n, std::span<double> out) const;
    void locate_one_step(const double* n, std::size_t len, double* x, double* scale) const;

    std::vector<double> ends_;  // m-1 segment ends
    std::vector<double> rates_;
    std::vector<Segment> segments_;
    // Buckets narrower than half the shortest segment hold at most one end, so
    // a segment is found with one comparison ("one step"); with extremely
    // short segments the lookup walks on from the bucket's first segment.
    std::vector<Bucket> buckets_;
    double bucket_scale_ = 0.0;
    bool one_step_ = true;
    std::shared_ptr<SeriesCache> series_cache_;
};

// Level runs: sum_{i < count} e^(-log(1 + r_j) i / m), the value (in units
// of the first payment's discount factor) of `count` level payments 1/m of a
// year apart inside segment j, as expm1(-log_q count / m) / expm1(-log_q / m)
// with the reciprocal denominators worked out once, and the runs of a segment
// crossed whole (it holds one of three counts, whatever the phase) looked up.
class LevelRuns {
  public:
    LevelRuns(const PiecewiseTable& table, std::size_t m);
    double sum(std::size_t j, std::size_t count) const {
        const Segment& seg = segments_[j];
        if (count == 1) return 1.0;
        const double payments = static_cast<double>(count), known = payments - seg.fewest;
        if (known >= 0.0 && known < static_cast<double>(seg.whole.size()))
            return seg.whole[static_cast<std::size_t>(known)];
        return run(seg, payments);
    }

  private:
    struct Segment {
        double log_ratio, per_denominator;  // -log_q / m, 1 / expm1(log_ratio) (0 for a zero rate)
        double fewest;                      // payments of the segment crossed whole, at least (inf: last)
        std::array<double, 3> whole;        // run(fewest), run(fewest + 1), run(fewest + 2)
    };
    static double run(const Segment& seg, double payments) {
        return seg.log_ratio == 0.0 ? payments : std::expm1(seg.log_ratio * payments) * seg.per_denominator;
    }
    std::vector<Segment> segments_;
};

// Durations <= 0 discount by exactly 1 on a piecewise curve, whatever its
// rates: whether every duration is such (NaN is not).
bool all_nonpositive(std::span<const double> durations);

// The accumulation factor 1 / v of a discount factor v, in place; a factor
// that underflowed to 0 accumulates to +inf.
inline double accumulation_factor(double v) { return v == 0.0 ? std::numeric_limits<double>::infinity() : 1.0 / v; }
void to_accumulation_factors(std::span<double> factors);

// Relative discounting v^(x - x0) runs forward from time x0 >= 0 to x >= x0.
// Whether some time is negative (NaN is not); whether x >= x0 element by
// element, a one-element side standing for every element (true when either
// side is empty).
bool any_negative(std::span<const double> times);
bool all_at_least(std::span<const double> x, std::span<const double> x0);

// Constant curve: (1 + rate)^-n for every n (negative n accumulates),
// evaluated as exp(-n * log(1 + rate)).
double constant_discount(double rate, double n);
// The same with log(1 + rate) already at hand.
double constant_discount(double rate, double log_base, double n);
void constant_discount(double rate, std::span<const double> n, std::span<double> out);

// The arrays of a curve: m rates, m-1 segment lengths and their ends (one
// rate and no segments for a constant curve).
struct CurveArrays {
    std::vector<double> rates, terms, ends;
};

// What a curve's arrays must be: m >= 1 rates with m-1 segment lengths and
// as many ends (Shape), the lengths finite and > 0 and the ends increasing
// (Values).
enum class CurveArraysFault { None, Shape, Values };
CurveArraysFault check_curve_arrays(std::span<const double> rates, std::span<const double> terms,
                                    std::span<const double> ends);

// The discount table of a curve, built the way the curve object builds its
// own prefix products, so that discount factors agree with it exactly.
PiecewiseTable discount_table(const CurveArrays& curve);

// A curve of no interest (every discount factor 1): what undiscounted
// amounts are valued on.
const PiecewiseTable& no_interest();

// The curve seen from time ts > 0: the first ts years cut away. The segment
// holding ts keeps its remainder, unless that is within `eps` (a ts on a
// boundary drops the segment ending there); at or past the last end only the
// last rate is left (a constant curve). ts <= 0 leaves the curve as it is.
CurveArrays shifted(const CurveArrays& curve, double ts, double eps);

// Whether valuing from ts needs a shifted curve: a shift within the
// tolerance `eps` is no shift.
inline bool is_shift(double ts, double eps) { return ts > eps; }

}  // namespace norvane::core
