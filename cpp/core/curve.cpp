#include "core/curve.hpp"

#include "core/fast_exp.hpp"
#include "core/parallel.hpp"
#include "core/rates.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <mutex>

namespace norvane::core {

void cumulative_sum(std::span<const double> in, std::span<double> out) {
    double acc = 0.0;
    for (std::size_t j = 0; j < in.size(); ++j) {
        acc += in[j];
        out[j] = acc;
    }
}

void one_plus(std::span<const double> rates, std::span<double> out) {
    for (std::size_t j = 0; j < rates.size(); ++j) out[j] = 1.0 + rates[j];
}

void segment_discount_products(std::span<const double> one_plus_rates, std::span<const double> terms,
                               std::span<double> full_segment, std::span<double> prefix) {
    double running = 1.0;
    for (std::size_t j = 0; j < terms.size(); ++j) {
        full_segment[j] = std::pow(one_plus_rates[j], -terms[j]);
        running *= full_segment[j];
        prefix[j] = running;
    }
}

SegmentPosition segment_position(std::span<const double> ends, std::size_t k, double t) {
    constexpr double kInf = std::numeric_limits<double>::infinity();
    const double start = k > 0 ? ends[k - 1] : 0.0, end = k < ends.size() ? ends[k] : kInf;
    return {start, end, std::isinf(end) ? kInf : end - start, t - start};
}

std::optional<std::size_t> first_non_finite(std::span<const double> values) {
    for (std::size_t j = 0; j < values.size(); ++j)
        if (!std::isfinite(values[j])) return j;
    return std::nullopt;
}

std::optional<std::size_t> first_at_or_below(std::span<const double> values, double bound) {
    for (std::size_t j = 0; j < values.size(); ++j)
        if (values[j] <= bound) return j;
    return std::nullopt;
}

}  // namespace norvane::core

namespace norvane::core {

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr std::size_t kBlock = 256;
constexpr std::size_t kMaxBuckets = std::size_t{1} << 14;
// Below this many durations per core a second thread costs more than it saves.
constexpr std::size_t kMinChunkPerThread = std::size_t{1} << 16;

// out = scale * e^x over a block, exactly 1.0 for durations <= 0 when asked,
// in one vectorised pass; returns whether any element needs the exact
// fallback (exp out of its range, or a NaN from a special power). Cloned for
// AVX-512 and AVX2 where the CPU has them: the same IEEE operations either
// way, so results do not depend on the machine.
__attribute__((target_clones("avx512f", "avx2", "default"))) bool scaled_exp_block(const double* n, const double* x,
                                                                                   const double* scale, double* out,
                                                                                   std::size_t len,
                                                                                   bool nonpositive_is_one) {
    // Written without branches (no short-circuit operators) so that it vectorises.
    // n <= NaN is never true: without the rule no element is replaced.
    const double floor = nonpositive_is_one ? 0.0 : std::numeric_limits<double>::quiet_NaN();
    unsigned special = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const double v = scale[i] * exp_core(x[i]);
        special |= static_cast<unsigned>(!(x[i] >= kExpLow)) | static_cast<unsigned>(!(x[i] <= kExpHigh)) |
                   static_cast<unsigned>(v != v);
        out[i] = n[i] <= floor ? 1.0 : v;
    }
    return special != 0;
}

// Shared tail of the array kernels: the vectorised pass, then the rare
// elements the fast form cannot give redone with the library functions.
// `pow_form(i)` recomputes element i as a power.
template <typename PowForm>
void finish_block(const double* n, const double* x, const double* scale, double* out, std::size_t len,
                  bool nonpositive_is_one, PowForm pow_form) {
    if (!scaled_exp_block(n, x, scale, out, len, nonpositive_is_one)) return;
    for (std::size_t i = 0; i < len; ++i) {
        if (exp_core_in_range(x[i]) && out[i] == out[i]) continue;
        double v = scale[i] * std::exp(x[i]);
        if (needs_pow(v)) v = pow_form(i);
        out[i] = (nonpositive_is_one && n[i] <= 0.0) ? 1.0 : v;
    }
}

void constant_discount_range(double rate, std::span<const double> n, std::span<double> out) {
    const double log_q = log_one_plus(rate);
    double x[kBlock], ones[kBlock];
    std::fill(ones, ones + kBlock, 1.0);
    for (std::size_t base = 0; base < n.size(); base += kBlock) {
        const std::size_t len = std::min(kBlock, n.size() - base);
        const double* nb = n.data() + base;
        for (std::size_t i = 0; i < len; ++i) x[i] = -nb[i] * log_q;
        finish_block(nb, x, ones, out.data() + base, len, false,
                     [&](std::size_t i) { return std::pow(1.0 + rate, -nb[i]); });
    }
}

}  // namespace

struct PiecewiseTable::SeriesCache {
    static constexpr std::array<std::size_t, 11> kFrequencies{1, 2, 3, 4, 6, 12, 13, 24, 26, 52, 365};
    std::array<std::once_flag, kFrequencies.size()> filled;
    std::array<std::shared_ptr<const LevelRuns>, kFrequencies.size()> runs;
};

std::shared_ptr<const LevelRuns> PiecewiseTable::level_runs(std::size_t m) const {
    const auto& known = SeriesCache::kFrequencies;
    const std::size_t i = static_cast<std::size_t>(std::find(known.begin(), known.end(), m) - known.begin());
    if (i == known.size()) return std::make_shared<const LevelRuns>(*this, m);
    std::call_once(series_cache_->filled[i],
                   [&] { series_cache_->runs[i] = std::make_shared<const LevelRuns>(*this, m); });
    return series_cache_->runs[i];
}

LevelRuns::LevelRuns(const PiecewiseTable& table, std::size_t m) {
    const double per_m = 1.0 / static_cast<double>(m);
    for (std::size_t j = 0; j < table.segment_count(); ++j) {
        Segment seg{};
        seg.log_ratio = -table.log_base(j) * per_m;
        seg.per_denominator = seg.log_ratio == 0.0 ? 0.0 : 1.0 / std::expm1(seg.log_ratio);
        const double start = j == 0 ? 0.0 : table.segment_end(j - 1);
        seg.fewest = std::max(0.0, std::floor((table.segment_end(j) - start) * static_cast<double>(m)) - 1.0);
        for (std::size_t k = 0; k < seg.whole.size(); ++k) seg.whole[k] = run(seg, seg.fewest + static_cast<double>(k));
        segments_.push_back(seg);
    }
}

PiecewiseTable::PiecewiseTable(std::span<const double> rates, std::span<const double> ends,
                               std::span<const double> prefix)
    : ends_(ends.begin(), ends.end()),
      rates_(rates.begin(), rates.end()),
      segments_(rates.size()),
      series_cache_(std::make_shared<SeriesCache>()) {
    const bool have_prefix = prefix.size() == ends.size();
    for (std::size_t j = 0; j < rates.size(); ++j) {
        Segment& seg = segments_[j];
        seg.q = 1.0 + rates[j];
        seg.log_q = std::log(seg.q);  // of the rounded base, as a power of 1 + r would use
        seg.start_t = j > 0 ? ends[j - 1] : 0.0;
        seg.start_df = j == 0 ? 1.0 : have_prefix ? prefix[j - 1] : std::numeric_limits<double>::quiet_NaN();
    }
    const double last = ends.empty() ? 0.0 : ends.back();
    double min_length = kInf;
    for (std::size_t j = 0; j < ends.size(); ++j) min_length = std::min(min_length, ends[j] - (j ? ends[j - 1] : 0.0));
    std::size_t count = 1;
    if (last > 0.0 && std::isfinite(last)) {
        count = static_cast<std::size_t>(std::min(std::ceil(2.0 * last / min_length), double(kMaxBuckets)));
        bucket_scale_ = static_cast<double>(count) / last;
    }
    buckets_.assign(count, Bucket{kInf, 0});
    // Ends are assigned with the lookup's own bucket function; it is monotone,
    // so every end in an earlier bucket lies below any time in this one.
    std::vector<std::int32_t> in_bucket(count, 0);
    for (double end : ends) ++in_bucket[bucket_of(end)];
    std::int32_t before = 0;
    for (std::size_t b = 0; b < count; ++b) {
        buckets_[b].first = before;
        if (in_bucket[b] == 1) buckets_[b].end = ends[before];
        one_step_ = one_step_ && in_bucket[b] <= 1;
        before += in_bucket[b];
    }
}

bool PiecewiseTable::has_rate_at_or_below_minus_one() const { return first_at_or_below(rates_, -1.0).has_value(); }

std::size_t PiecewiseTable::bucket_of(double n) const {
    double b = n * bucket_scale_;
    const double last_bucket = static_cast<double>(buckets_.size() - 1);
    b = b > 0.0 ? b : 0.0;  // NaN and non-positive times go to bucket 0
    b = b < last_bucket ? b : last_bucket;
    return static_cast<std::size_t>(b);
}

std::size_t PiecewiseTable::segment_of(double n) const {
    if (n != n) return rates_.size() - 1;  // NaN sorts past every end
    const Bucket& bucket = buckets_[bucket_of(n)];
    std::size_t j = static_cast<std::size_t>(bucket.first);
    if (one_step_) return j + (n > bucket.end);
    while (j < ends_.size() && n > ends_[j]) ++j;
    return j;
}

void PiecewiseTable::rates_at(std::span<const double> t, std::span<double> out) const {
    parallel_for(t.size(), kMinChunkPerThread, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) out[i] = rates_[segment_of(t[i])];
    });
}

double PiecewiseTable::discount(double n) const { return n <= 0.0 ? 1.0 : discount_in(segment_of(n), n); }

void PiecewiseTable::discount(std::span<const double> n, std::span<double> out) const {
    parallel_for(n.size(), kMinChunkPerThread, [&](std::size_t begin, std::size_t end) {
        discount_range(n.subspan(begin, end - begin), out.subspan(begin, end - begin));
    });
}

void PiecewiseTable::discount_range(std::span<const double> n, std::span<double> out) const {
    double x[kBlock], scale[kBlock];
    for (std::size_t base = 0; base < n.size(); base += kBlock) {
        const std::size_t len = std::min(kBlock, n.size() - base);
        const double* nb = n.data() + base;
        if (one_step_) {
            locate_one_step(nb, len, x, scale);
        } else {
            for (std::size_t i = 0; i < len; ++i) {
                const Segment& seg = segments_[segment_of(nb[i])];
                x[i] = -(nb[i] - seg.start_t) * seg.log_q;
                scale[i] = seg.start_df;
            }
        }
        finish_block(nb, x, scale, out.data() + base, len, true, [&](std::size_t i) {
            const Segment& seg = segments_[segment_of(nb[i])];
            return seg.start_df * std::pow(seg.q, -(nb[i] - seg.start_t));
        });
    }
}

// Exponent and scale of each duration through the one-comparison bucket
// lookup, without branches. NaN and non-positive durations land in some valid
// segment; their results are NaN (redone later) or overwritten with 1.0.
void PiecewiseTable::locate_one_step(const double* n, std::size_t len, double* x, double* scale) const {
    const Bucket* buckets = buckets_.data();
    const Segment* segments = segments_.data();
    for (std::size_t i = 0; i < len; ++i) {
        const Bucket& bucket = buckets[bucket_of(n[i])];
        const Segment& seg = segments[bucket.first + (n[i] > bucket.end)];
        x[i] = -(n[i] - seg.start_t) * seg.log_q;
        scale[i] = seg.start_df;
    }
}

bool all_nonpositive(std::span<const double> durations) {
    return std::all_of(durations.begin(), durations.end(), [](double n) { return n <= 0.0; });
}

void to_accumulation_factors(std::span<double> factors) {
    for (double& v : factors) v = accumulation_factor(v);
}

bool any_negative(std::span<const double> times) {
    return std::any_of(times.begin(), times.end(), [](double t) { return t < 0.0; });
}

bool all_at_least(std::span<const double> x, std::span<const double> x0) {
    const std::size_t count = x.empty() || x0.empty() ? 0 : std::max(x.size(), x0.size());
    for (std::size_t i = 0; i < count; ++i)
        if (!(x[x.size() == 1 ? 0 : i] >= x0[x0.size() == 1 ? 0 : i])) return false;
    return true;
}

CurveArraysFault check_curve_arrays(std::span<const double> rates, std::span<const double> terms,
                                    std::span<const double> ends) {
    if (rates.empty() || terms.size() != ends.size() || !rates_fit_terms(rates.size(), ends.size()))
        return CurveArraysFault::Shape;
    for (std::size_t j = 0; j < terms.size(); ++j)
        if (!(std::isfinite(terms[j]) && terms[j] > 0.0) || (j > 0 && !(ends[j] > ends[j - 1])))
            return CurveArraysFault::Values;
    return CurveArraysFault::None;
}

double constant_discount(double rate, double n) { return constant_discount(rate, log_one_plus(rate), n); }

double constant_discount(double rate, double log_base, double n) {
    double v = exp_any(-n * log_base);
    return needs_pow(v) ? std::pow(1.0 + rate, -n) : v;
}

void constant_discount(double rate, std::span<const double> n, std::span<double> out) {
    parallel_for(n.size(), kMinChunkPerThread, [&](std::size_t begin, std::size_t end) {
        constant_discount_range(rate, n.subspan(begin, end - begin), out.subspan(begin, end - begin));
    });
}

PiecewiseTable discount_table(const CurveArrays& curve) {
    const std::size_t segments = curve.terms.size();
    std::vector<double> q(curve.rates.size()), full(segments), prefix(segments);
    one_plus(curve.rates, q);
    segment_discount_products(std::span<const double>(q).first(segments), curve.terms, full, prefix);
    return PiecewiseTable(curve.rates, curve.ends, prefix);
}

CurveArrays shifted(const CurveArrays& curve, double ts, double eps) {
    if (curve.ends.empty() || ts <= 0.0) return curve;
    const auto& ends = curve.ends;
    const auto& terms = curve.terms;
    const auto& rates = curve.rates;
    const CurveArrays constant{{rates.back()}, {}, {}};
    if (!(ts < ends.back())) return constant;
    const std::size_t k = std::lower_bound(ends.begin(), ends.end(), ts) - ends.begin();
    const double remaining = terms[k] - (ts - (k > 0 ? ends[k - 1] : 0.0));
    CurveArrays out;
    if (remaining > eps) out.terms.push_back(remaining);
    const std::size_t kept = remaining > eps ? k : k + 1;  // first rate that survives
    out.terms.insert(out.terms.end(), terms.begin() + static_cast<std::ptrdiff_t>(k + 1), terms.end());
    out.rates.assign(rates.begin() + static_cast<std::ptrdiff_t>(kept), rates.end());
    if (out.terms.empty()) return constant;
    out.ends.resize(out.terms.size());
    cumulative_sum(out.terms, out.ends);
    return out;
}

const PiecewiseTable& no_interest() {
    static const PiecewiseTable table = discount_table({{0.0}, {}, {}});
    return table;
}

}  // namespace norvane::core
