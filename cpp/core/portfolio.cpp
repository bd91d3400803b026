#include "core/portfolio.hpp"

#include "core/level_grid.hpp"
#include "core/parallel.hpp"
#include "core/prefix_sums.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace norvane::core {

namespace {

// A grid longer than this many points is not built: policies beyond it take
// the closed form per segment.
constexpr std::size_t kMaxGridPoints = std::size_t{1} << 22;
// Growth weights on a grid are kept within e^5 of 1, so that a difference of
// two weighted sums loses no digit the rounding could see.
constexpr double kMaxLogWeight = 5.0;

// A value and a bound on the size of the numbers it was computed from (its
// rounding error is a few epsilon of that).
struct Estimate {
    double value = 0.0, magnitude = 0.0;
    Estimate& operator+=(const Estimate& o) {
        value += o.value;
        magnitude += o.magnitude;
        return *this;
    }
    Estimate scaled(double factor) const { return {value * factor, magnitude * std::abs(factor)}; }
};

// Sums of x[i0 + k] times the growth factor of year floor(k / stride) over a
// range of k, for any origin i0, in O(1): level payments need one prefix sum;
// geometric and arithmetic growth keep, for each residue r of i0 modulo the
// stride, the prefix sums weighted by the year Y(l) = floor((l - r) / stride)
// of every point l (g^Y, or Y), which fixes the year of each point relative
// to any origin with that residue.
class GrowthSums {
  public:
    GrowthSums(std::span<const double> x, std::size_t stride, const Growth& growth) : stride_(stride), growth_(growth) {
        level_.build(x.size(), [&](std::size_t l) { return x[l]; });
        if (growth.kind == Growth::Level) return;
        const double log_g = std::log1p(growth.rate);
        weighted_.resize(stride);
        for (std::size_t r = 0; r < stride; ++r) {
            weighted_[r].build(x.size(), [&](std::size_t l) {
                const double year = std::floor((static_cast<double>(l) - static_cast<double>(r)) / stride);
                return x[l] * (growth.kind == Growth::Geometric ? std::exp(log_g * year) : year);
            });
        }
    }
    const PrefixSums& level() const { return level_; }

    // sum_{k0 <= k < k1} factor(floor(k / stride)) x[i0 + k]
    Estimate sum(std::size_t i0, std::size_t k0, std::size_t k1) const {
        const std::size_t a = i0 + k0, b = i0 + k1;
        Estimate level{level_.between(a, b), level_.magnitude(a, b)};
        if (growth_.kind == Growth::Level) return level;
        const std::size_t r = i0 % stride_;
        const double q0 = static_cast<double>(i0 / stride_);
        const PrefixSums& w = weighted_[r];
        Estimate weighted{w.between(a, b), w.magnitude(a, b)};
        if (growth_.kind == Growth::Geometric) return weighted.scaled(std::pow(1.0 + growth_.rate, -q0));
        // 1 + g (Y - q0): the level sum plus g times the years counted from i0.
        Estimate years = weighted;
        years += level.scaled(-q0);
        return level += years.scaled(growth_.rate);
    }

  private:
    std::size_t stride_;
    Growth growth_;
    PrefixSums level_;
    std::vector<PrefixSums> weighted_;
};

// The book's grid: times i / m from 0, their discount factors, and what the
// calculation mode sums over them. Policies whose schedule starts on the grid
// are valued from differences of prefix sums.
class PaymentGrid {
  public:
    PaymentGrid(const PiecewiseTable& table, const PolicyTerms& terms, std::size_t points) : m_(terms.m) {
        std::vector<double> times(points);
        for (std::size_t i = 0; i < points; ++i) times[i] = static_cast<double>(i) / static_cast<double>(m_);
        discount_.resize(points);
        table.discount(times, discount_);
        for (double v : discount_) accumulation_.push_back(1.0 / v);
        const bool continuous = terms.mode == Mode::ContinuousPrecision;
        if (continuous) {
            // The integral of v over each step of the grid.
            std::vector<double> steps(points - 1);
            for (std::size_t i = 0; i + 1 < points; ++i)
                steps[i] = continuous_value(table, times[i], times[i + 1], times[i], Growth{});
            payments_.emplace(steps, m_, terms.growth);
        } else if (terms.mode == Mode::DiscretePrecision) {
            payments_.emplace(discount_, m_, terms.growth);
        } else {
            // Woolhouse: the annual payments on every residue of the grid
            // modulo m (points r, r + m, ...), and the final year's m-thly ones.
            std::vector<double> annual;
            for (std::size_t r = 0; r < m_; ++r) {
                annual.clear();
                for (std::size_t i = r; i < points; i += m_) annual.push_back(discount_[i]);
                annual_.emplace_back(annual, 1, terms.growth);
            }
            if (terms.mode == Mode::DiscreteSimplified) payments_.emplace(discount_, m_, terms.growth);
        }
    }

    std::size_t points() const { return discount_.size(); }
    std::size_t m() const { return m_; }
    double discount(std::size_t i) const { return discount_[i]; }
    const double* accumulations() const { return accumulation_.data(); }  // 1 / v
    // sum_{k0 <= k < k1} factor(k / m) x[i0 + k]: discount factors (discrete
    // modes) or the integrals over the grid's steps (continuous precision).
    Estimate payments(std::size_t i0, std::size_t k0, std::size_t k1) const { return payments_->sum(i0, k0, k1); }
    // The running sums of the discount factors alone (discrete modes).
    const PrefixSums& level_payments() const { return payments_->level(); }
    // sum_{y < years} factor(y) v(i0 / m + y): the annual points of i0's residue.
    Estimate annual(std::size_t i0, std::size_t years) const { return annual_[i0 % m_].sum(i0 / m_, 0, years); }

  private:
    std::size_t m_;
    std::vector<double> discount_, accumulation_;
    std::optional<GrowthSums> payments_;
    std::vector<GrowthSums> annual_;  // by residue modulo m
};

// Level payments of 1 at t0, t0 + 1/m, ... on a curve: one level run per
// segment crossed.
class LevelSeries {
  public:
    LevelSeries(const PiecewiseTable& table, std::size_t m)
        : table_(table), runs_(table.level_runs(m)), m_(static_cast<double>(m)), per_m_(1.0 / static_cast<double>(m)) {}

    Estimate sum(double t0, std::size_t count) const {
        double total = 0.0;
        std::size_t k = 0;
        for (std::size_t j = table_.segment_of(t0); k < count; ++j) {
            // The payments in [start, end) of segment j: up to the first at or after its end.
            const double reach = (table_.segment_end(j) - t0) * m_;
            const std::size_t after = reach >= static_cast<double>(count) ? count : ceil_count(reach);
            if (after <= k) continue;
            total += table_.discount_in_near(j, t0 + static_cast<double>(k) * per_m_) * runs_->sum(j, after - k);
            k = after;
        }
        return {total, std::abs(total)};
    }

  private:
    // ceil(x) for 0 <= x < 2^53, without a call into libm.
    static std::size_t ceil_count(double x) {
        const std::size_t whole = static_cast<std::size_t>(x);
        return whole + (static_cast<double>(whole) < x);
    }

    const PiecewiseTable& table_;
    std::shared_ptr<const LevelRuns> runs_;
    double m_, per_m_;
};

// A schedule's payments as sums over ranges of them, for the value rules
// below: on the book's grid from point i0 ...
struct GridPayments {
    const PaymentGrid& grid;
    std::size_t i0;
    int timing;

    bool fits(const Schedule& s) const {
        return i0 + s.count + static_cast<std::size_t>(timing) + grid.m() < grid.points();
    }
    Estimate regular(std::size_t k0, std::size_t k1) const {
        return grid.payments(i0 + static_cast<std::size_t>(timing), k0, k1);
    }
    std::optional<Estimate> steps(std::size_t count) const { return grid.payments(i0, 0, count); }
    Estimate annual(bool immediate, std::size_t years) const {
        return grid.annual(immediate ? i0 + grid.m() : i0, years);
    }
};

// ... and, for level payments anywhere, as series per segment.
struct SeriesPayments {
    const LevelSeries& per_period;
    const LevelSeries& per_year;
    double start, m;
    int timing;

    bool fits(const Schedule&) const { return true; }
    Estimate regular(std::size_t k0, std::size_t k1) const {
        return per_period.sum(start + static_cast<double>(k0 + static_cast<std::size_t>(timing)) / m, k1 - k0);
    }
    std::optional<Estimate> steps(std::size_t) const { return std::nullopt; }
    Estimate annual(bool immediate, std::size_t years) const {
        return per_year.sum(immediate ? start + 1.0 : start, years);
    }
};

// The value from time 0 of an annuity (deferment from time 0) in `mode`, from
// sums over its payments; nothing where `payments` cannot give them.
template <typename Payments>
std::optional<Estimate> value_from_sums(const Payments& payments, const PiecewiseTable& table, const Annuity& annuity,
                                        Mode mode) {
    const Schedule s = annuity.schedule();
    if (!payments.fits(s)) return std::nullopt;
    const double per_payment = 1.0 / static_cast<double>(s.m);
    const auto exact = [](double value) { return Estimate{value, std::abs(value)}; };
    if (mode == Mode::DiscretePrecision)
        return payments.regular(0, s.count).scaled(per_payment) += exact(partial_value(table, s));
    if (mode == Mode::ContinuousPrecision) {
        std::optional<Estimate> pv = payments.steps(s.count);
        if (!pv) return std::nullopt;
        const double tail_start = s.start + static_cast<double>(s.count) * per_payment;
        return *pv += exact(continuous_value(table, tail_start, annuity.d + annuity.n, annuity.d, annuity.growth));
    }
    const bool continuous = mode == Mode::ContinuousSimplified;
    const WoolhouseParts parts = woolhouse_parts(annuity, continuous);
    // The immediate payment of year y is due at its end, with year y's amount.
    const Estimate due = payments.annual(false, parts.due.count), immediate = payments.annual(true, parts.due.count);
    Estimate pv{parts.annual(due.value, immediate.value, annuity.timing), due.magnitude + immediate.magnitude};
    if (continuous) return pv += exact(parts.continuous_tail(table, annuity));
    pv += payments.regular(parts.fraction.first, s.count).scaled(per_payment);
    return pv += exact(partial_value(table, s));
}

}  // namespace

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

constexpr double kUnitBenefit[] = {1.0};

// A book's inputs; without benefits, each policy's is 1.
struct Book {
    Book(BookColumn n_, BookColumn d_, BookColumn ts_, std::span<const double> benefits_, std::size_t size_)
        : size(size_),
          n(n_, size_),
          d(d_, size_),
          ts(ts_, size_),
          benefits(BookColumn(benefits_.empty() ? std::span<const double>(kUnitBenefit) : benefits_), size_) {}
    std::size_t size;
    Column n, d, ts, benefits;
};

// Whether policy i can be valued: a term >= 0 (infinite: a perpetuity)
// whose payments can be counted, and a deferment, valuation time and benefit
// that are finite and >= 0.
bool policy_in_range(const Book& book, std::size_t i, const PolicyTerms& terms) {
    const double n = book.n[i], term = n < kInf ? n : terms.perpetuity_n_eff;
    return n >= 0.0 && countable(term, terms.m) && finite_nonnegative(book.d[i]) && finite_nonnegative(book.ts[i]) &&
           finite_nonnegative(book.benefits[i]);
}

// The latest d + n of a chunk of a book (the perpetuity's horizon for an
// infinite n), and whether its terms and deferments are in range
// (policy_in_range). Without branches, so that it vectorises; cloned for
// AVX-512 and AVX2.
struct ChunkSpan {
    double span;
    bool in_range;
};
__attribute__((target_clones("avx512f", "avx2", "default"))) ChunkSpan chunk_span(const double* __restrict n,
                                                                                  const double* __restrict d,
                                                                                  std::size_t len, double m,
                                                                                  double perpetuity) {
    double span = 0.0;
    unsigned out_of_range = 0;
    // The order of the maxima is free: a NaN among them is refused anyway.
#pragma omp simd reduction(max : span) reduction(| : out_of_range)
    for (std::size_t i = 0; i < len; ++i) {
        const double term = n[i] < kInf ? n[i] : perpetuity;
        out_of_range |=
            static_cast<unsigned>(!(n[i] >= 0.0) | !(term * m < kMaxPayments) | !(d[i] >= 0.0) | !(d[i] < kInf));
        span = span > d[i] + term ? span : d[i] + term;
    }
    return {span, out_of_range == 0};
}

// The same for terms and deferments given as integers, read in place: a
// term is in range below `term_limit` (the least with too many payments),
// any deferment >= 0 is (counted at most 2^53, where no grid reaches).
template <typename Whole>
__attribute__((always_inline)) inline ChunkSpan whole_chunk_span(const Whole* __restrict n, const Whole* __restrict d,
                                                                 std::size_t len, std::uint64_t term_limit) {
    constexpr std::int64_t kFar = std::int64_t{1} << 53;
    std::int64_t span = 0;
    unsigned out_of_range = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const std::int64_t term = n[i], wait = d[i];
        // Negative numbers are large as unsigned ones.
        out_of_range |= static_cast<unsigned>((static_cast<std::uint64_t>(term) >= term_limit) | (wait < 0));
        const std::int64_t end = std::min(wait, kFar) + std::min(term, kFar);
        span = span > end ? span : end;
    }
    return {static_cast<double>(span), out_of_range == 0};
}
__attribute__((target_clones("avx512f", "avx2", "default"))) ChunkSpan chunk_span(const std::int64_t* n,
                                                                                  const std::int64_t* d,
                                                                                  std::size_t len,
                                                                                  std::uint64_t term_limit) {
    return whole_chunk_span(n, d, len, term_limit);
}
__attribute__((target_clones("avx512f", "avx2", "default"))) ChunkSpan chunk_span(const std::int32_t* n,
                                                                                  const std::int32_t* d,
                                                                                  std::size_t len,
                                                                                  std::uint64_t term_limit) {
    return whole_chunk_span(n, d, len, term_limit);
}

// Whether every value of x is finite and >= 0; vectorised as above.
__attribute__((target_clones("avx512f", "avx2", "default"))) bool all_finite_nonnegative(const double* __restrict x,
                                                                                         std::size_t len) {
    unsigned out_of_range = 0;
    for (std::size_t i = 0; i < len; ++i) out_of_range |= static_cast<unsigned>(!(x[i] >= 0.0) | !(x[i] < kInf));
    return out_of_range == 0;
}

[[noreturn]] void refuse_book(const Book& book, const PolicyTerms& terms) {
    std::size_t i = 0;
    while (policy_in_range(book, i, terms)) ++i;
    throw InvalidPolicy(i);
}

// The last time any policy of the book pays, from time 0. Refuses
// (InvalidPolicy) a book with a term or deferment out of range; the pass
// only notes that one is, and the first is looked for afterwards. Valuation
// times and benefits are checked block by block as they are valued.
double book_span(const Book& book, const PolicyTerms& terms) {
    require_countable(terms.perpetuity_n_eff, terms.m);
    // The least whole term with 2^53 payments or more.
    const auto term_limit = static_cast<std::uint64_t>(std::ceil(kMaxPayments / static_cast<double>(terms.m)));
    std::vector<double> spans(std::max(1u, std::thread::hardware_concurrency()), 0.0);
    std::vector<char> in_range(spans.size(), 1);
    std::atomic<std::size_t> next{0};
    parallel_for(book.size, std::size_t{1} << 16, [&](std::size_t begin, std::size_t end) {
        ChunkSpan all{0.0, true};
        Block n_scratch, d_scratch;
        for (std::size_t i = begin; i < end; i += kBlock) {
            const std::size_t len = std::min(kBlock, end - i);
            ChunkSpan chunk;
            if (const auto *n64 = book.n.as<std::int64_t>(i), *d64 = book.d.as<std::int64_t>(i); n64 && d64) {
                chunk = chunk_span(n64, d64, len, term_limit);
            } else if (const auto* n32 = book.n.as<std::int32_t>(i), *d32 = book.d.as<std::int32_t>(i); n32 && d32) {
                chunk = chunk_span(n32, d32, len, term_limit);
            } else {
                chunk = chunk_span(book.n.block(i, len, n_scratch), book.d.block(i, len, d_scratch), len,
                                   static_cast<double>(terms.m), terms.perpetuity_n_eff);
            }
            all = {std::max(all.span, chunk.span), all.in_range && chunk.in_range};
        }
        const std::size_t slot = next++;
        spans[slot] = all.span;
        in_range[slot] = all.in_range;
    });
    if (std::find(in_range.begin(), in_range.end(), 0) != in_range.end()) refuse_book(book, terms);
    return *std::max_element(spans.begin(), spans.end());
}

// The grid of the book, when one is worth building: long enough for every
// schedule and, with geometric growth, short enough for its weights.
std::optional<PaymentGrid> book_grid(const PiecewiseTable& table, const PolicyTerms& terms, double span) {
    const double m = static_cast<double>(terms.m);
    const double wanted = std::ceil(span * m) + 2.0 * m + 2.0;
    if (!(wanted <= static_cast<double>(kMaxGridPoints))) return std::nullopt;
    const std::size_t points = static_cast<std::size_t>(wanted);
    if (terms.growth.kind == Growth::Geometric &&
        !(std::abs(std::log1p(terms.growth.rate)) * (wanted / m) <= kMaxLogWeight))
        return std::nullopt;
    return std::optional<PaymentGrid>(std::in_place, table, terms, points);
}

// Whether two values within `error` of `value` can round (times `scale`) to
// different results: `value * scale` lies that close to a half.
bool near_rounding_tie(double value, double error, double scale) {
    const double scaled = value * scale;
    if (!std::isfinite(scaled)) return true;
    const double from_half = std::abs(scaled - std::floor(scaled) - 0.5);
    return from_half <= error * scale + 4.0 * kEpsilon * std::abs(scaled);
}

// What a thread recomputed last on shifted curves: the curves of the last
// few valuation times and the last few exact values, tried in turn (a book's
// policies share few valuation times, and its near-ties repeat with them).
class RecentExact {
  public:
    const PiecewiseTable& seen_from(const CurveArrays& curve, double ts, double eps) {
        for (const auto& [at, table] : tables_)
            if (at == ts) return table;
        return remember(tables_, next_table_, {ts, discount_table(shifted(curve, ts, eps))}).second;
    }
    std::optional<double> value(double n, double d, double ts) const {
        for (const auto& [policy, value] : values_)
            if (policy[0] == n && policy[1] == d && policy[2] == ts) return value;
        return std::nullopt;
    }
    double remember_value(double n, double d, double ts, double value) {
        return remember(values_, next_value_, {{n, d, ts}, value}).second;
    }

  private:
    static constexpr std::size_t kSize = 8;
    template <typename Entry>
    static Entry& remember(std::vector<Entry>& entries, std::size_t& next, Entry entry) {
        if (entries.size() < kSize) return entries.emplace_back(std::move(entry));
        next = (next + 1) % kSize;
        return entries[next] = std::move(entry);
    }
    std::vector<std::pair<double, PiecewiseTable>> tables_;
    std::vector<std::pair<std::array<double, 3>, double>> values_;
    std::size_t next_table_ = 0, next_value_ = 0;
};

class BookValuer {
  public:
    // `at_start`: how many policies the book values at time 0 (all or none).
    BookValuer(const CurveArrays& curve, const PolicyTerms& terms, double span, std::size_t at_start)
        : curve_(curve),
          terms_(terms),
          table_(discount_table(curve)),
          grid_(book_grid(table_, terms, span)),
          per_period_(table_, terms.m),
          per_year_(table_, 1),
          scale_(rounding_scale(terms.decimals)),
          level_precision_(grid_ && terms.growth.kind == Growth::Level && terms.mode == Mode::DiscretePrecision) {
        if (level_precision_)
            grid_view_ = {grid_->level_payments().points(),
                          grid_->accumulations(),
                          static_cast<double>(grid_->points()),
                          static_cast<double>(terms.m),
                          static_cast<double>(terms.timing),
                          terms.tolerance_eps,
                          scale_};
        tabulate_whole_years(span, at_start);
    }

    // The values of a block of at most kBlock policies (times their
    // benefits): the common case in the vectorised pass, the
    // policies it leaves one by one.
    void value_block(const double* n, const double* d, const double* ts, const double* benefits, double* out,
                     std::size_t len, RecentExact& recent) const {
        if (level_precision_) {
            if (!level_grid_block(grid_view_, n, d, ts, nullptr, nullptr, nullptr, benefits, out, len)) return;
        } else {
            std::fill(out, out + len, std::numeric_limits<double>::quiet_NaN());
        }
        for (std::size_t i = 0; i < len; ++i)
            if (std::isnan(out[i])) out[i] = unit_value(n[i], d[i], ts[i], recent) * benefits[i];
    }

    // The same for terms and deferments of whole years (below 2^31), every
    // policy valued at time 0 (no shift): their grid points are integer
    // arithmetic, or their values one read of the book's table. False, and
    // nothing valued, when the pass does not apply (growth, another mode).
    bool value_whole_years(const std::int32_t* n, const std::int32_t* d, const double* benefits, double* out,
                           std::size_t len, RecentExact& recent) const {
        if (!level_precision_) return false;
        if (!whole_year_values_.empty()) {
            whole_year_lookup({whole_year_values_.data(), whole_years_width_}, n, d, benefits, out, len);
            return true;
        }
        if (whole_years_block(grid_view_, n, d, benefits, out, len))
            for (std::size_t i = 0; i < len; ++i)
                if (std::isnan(out[i]))
                    out[i] =
                        unit_value(static_cast<double>(n[i]), static_cast<double>(d[i]), 0.0, recent) * benefits[i];
        return true;
    }

  private:
    double rounded(double value) const { return round_scaled(value, scale_); }

    // A book of many policies valued at time 0, whose whole-year terms and
    // deferments (d + n within the span) are few: each (d, n) valued once,
    // where it pays (a quarter of a value a policy at most).
    void tabulate_whole_years(double span, std::size_t policies) {
        const double width = std::floor(span) + 1.0;
        if (!level_precision_ || !(4.0 * width * width <= static_cast<double>(policies))) return;
        const auto w = static_cast<std::int32_t>(width);
        std::vector<double> values(static_cast<std::size_t>(w) * static_cast<std::size_t>(w));
        static const std::array<double, kBlock> kUnits = [] {
            std::array<double, kBlock> units;
            units.fill(1.0);
            return units;
        }();
        WholeBlock n, d;
        RecentExact recent;
        for (std::int32_t deferment = 0; deferment < w; ++deferment) {
            d.fill(deferment);
            for (std::int32_t term = 0; term < w - deferment; term += static_cast<std::int32_t>(kBlock)) {
                const auto len = static_cast<std::size_t>(std::min<std::int32_t>(kBlock, w - deferment - term));
                for (std::size_t k = 0; k < len; ++k) n[k] = term + static_cast<std::int32_t>(k);
                value_whole_years(n.data(), d.data(), kUnits.data(), &values[deferment * w + term], len, recent);
            }
        }
        whole_year_values_ = std::move(values);
        whole_years_width_ = w;
    }

    // The rounded unit value of one policy, equal to the value on the curve
    // shifted to ts. Policies on the grid, and off it the closed form on the
    // unshifted curve divided by v(ts), agree with that value to a few
    // epsilon; where that could change the rounded digit, it is computed.
    double unit_value(double n, double d, double ts, RecentExact& recent) const {
        const bool shift = is_shift(ts, terms_.tolerance_eps);
        const std::optional<Annuity> annuity = policy_annuity(n, d, ts, terms_);
        if (!annuity) return 0.0;
        if (!shift && !on_grid(annuity->d)) return rounded(annuity_value(table_, *annuity, terms_.mode));
        Annuity from_zero = *annuity;
        if (shift) from_zero.d += ts;
        return rounded_unit(value_from_zero(from_zero), shift ? discount(ts) : 1.0, n, d, ts, recent);
    }

    // The rounded unit value pv / divisor; where a few epsilon could change
    // the rounded digit, the value on the shifted curve instead.
    double rounded_unit(const Estimate& pv, double divisor, double n, double d, double ts, RecentExact& recent) const {
        const double per_divisor = 1.0 / divisor, unit = pv.value * per_divisor;
        const double error = kTieMargin * (std::abs(pv.value) + pv.magnitude) * std::abs(per_divisor);
        if (!near_rounding_tie(unit, error, scale_)) return round_scaled(unit, scale_);
        if (auto known = recent.value(n, d, ts)) return *known;
        return recent.remember_value(n, d, ts, exact_unit_value(n, d, ts, recent));
    }

    // The annuity's value from time 0: from the grid's sums, or the series
    // per segment, or (growing payments off the grid) the closed form.
    Estimate value_from_zero(const Annuity& annuity) const {
        const double m = static_cast<double>(terms_.m);
        if (on_grid(annuity.d)) {
            if (auto pv = value_from_sums(GridPayments{*grid_, grid_index(annuity.d), annuity.timing}, table_, annuity,
                                          terms_.mode))
                return *pv;
        }
        if (terms_.growth.kind == Growth::Level) {
            auto pv = value_from_sums(SeriesPayments{per_period_, per_year_, annuity.d, m, annuity.timing}, table_,
                                      annuity, terms_.mode);
            if (pv) return *pv;
        }
        const double value = annuity_value(table_, annuity, terms_.mode);
        return {value, std::abs(value)};
    }

    bool on_grid(double t) const {
        if (!grid_) return false;
        const double x = t * static_cast<double>(terms_.m);
        return x >= 0.0 && x < static_cast<double>(grid_->points()) &&
               x == static_cast<double>(static_cast<std::size_t>(x));
    }
    std::size_t grid_index(double t) const { return static_cast<std::size_t>(t * static_cast<double>(terms_.m)); }
    double discount(double t) const { return on_grid(t) ? grid_->discount(grid_index(t)) : table_.discount(t); }

    // The value on the curve shifted to ts, as a single policy is valued.
    double exact_unit_value(double n, double d, double ts, RecentExact& recent) const {
        const Annuity annuity = *policy_annuity(n, d, ts, terms_);
        if (!is_shift(ts, terms_.tolerance_eps)) return rounded(annuity_value(table_, annuity, terms_.mode));
        return rounded(annuity_value(recent.seen_from(curve_, ts, terms_.tolerance_eps), annuity, terms_.mode));
    }

    const CurveArrays& curve_;
    const PolicyTerms& terms_;
    PiecewiseTable table_;
    std::optional<PaymentGrid> grid_;
    LevelSeries per_period_, per_year_;  // off the grid, level payments
    double scale_;
    bool level_precision_;
    LevelGridView grid_view_{};
    std::vector<double> whole_year_values_;  // see tabulate_whole_years
    std::int32_t whole_years_width_ = 0;
};

}  // namespace

void portfolio_values(const CurveArrays& curve, BookColumn n, BookColumn d, BookColumn ts,
                      std::span<const double> benefits, const PolicyTerms& terms, std::span<double> out) {
    const Book book(n, d, ts, benefits, out.size());
    // Every policy valued at time 0: terms and deferments of whole years take the integer pass.
    const bool at_start = book.ts.repeated() && book.ts[0] == 0.0;
    const BookValuer valuer(curve, terms, book_span(book, terms), at_start ? book.size : 0);
    // A column of one value is checked once, the others block by block.
    const auto checked_once = [&](const Column& column) { return column.repeated() && finite_nonnegative(column[0]); };
    const bool ts_checked = checked_once(book.ts), benefits_checked = checked_once(book.benefits);
    std::atomic<bool> in_range{true};
    parallel_for(book.size, std::size_t{1} << 14, [&](std::size_t begin, std::size_t end) {
        RecentExact recent;
        Block n_scratch, d_scratch, ts_scratch, benefits_scratch;
        WholeBlock n_whole, d_whole;
        for (std::size_t i = begin; i < end; i += kBlock) {
            const std::size_t len = std::min(kBlock, end - i);
            const double *ts_block = book.ts.block(i, len, ts_scratch),
                         *benefits_block = book.benefits.block(i, len, benefits_scratch);
            if (!(ts_checked || all_finite_nonnegative(ts_block, len)) ||
                !(benefits_checked || all_finite_nonnegative(benefits_block, len))) {
                in_range.store(false, std::memory_order_relaxed);
                continue;
            }
            if (at_start) {
                const std::int32_t *n_years = book.n.whole_block(i, len, n_whole),
                                   *d_years = n_years ? book.d.whole_block(i, len, d_whole) : nullptr;
                if (d_years && valuer.value_whole_years(n_years, d_years, benefits_block, out.data() + i, len, recent))
                    continue;
            }
            valuer.value_block(book.n.block(i, len, n_scratch), book.d.block(i, len, d_scratch), ts_block,
                               benefits_block, out.data() + i, len, recent);
        }
    });
    if (!in_range.load()) refuse_book(book, terms);
}

}  // namespace norvane::core
