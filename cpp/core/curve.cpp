#include "core/curve.hpp"

#include "core/fast_exp.hpp"
#include "core/parallel.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

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

void segment_discount_products(std::span<const double> one_plus_rates,
                               std::span<const double> terms,
                               std::span<double> full_segment,
                               std::span<double> prefix) {
    double running = 1.0;
    for (std::size_t j = 0; j < terms.size(); ++j) {
        full_segment[j] = std::pow(one_plus_rates[j], -terms[j]);
        running *= full_segment[j];
        prefix[j] = running;
    }
}

std::optional<std::size_t> first_non_finite(std::span<const double> values) {
    for (std::size_t j = 0; j < values.size(); ++j)
        if (!std::isfinite(values[j])) return j;
    return std::nullopt;
}

std::optional<std::size_t> first_at_or_below(std::span<const double> values,
                                             double bound) {
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

// exp of a discount exponent, taking the library exp where the fast form is
// out of its range (huge, tiny or NaN arguments).
inline double exp_any(double x) { return exp_core_in_range(x) ? exp_core(x) : std::exp(x); }

// The exp/log1p form goes wrong only where the power is special: 1 + r <= 0
// (unvalidated curves) and a zero rate with an infinite or NaN duration
// (1 ** x is 1). Those results come out NaN and are redone as pow.
inline bool needs_pow(double v) { return v != v; }

// e^x over a block; cloned for AVX2 where the CPU has it (the same IEEE
// operations either way, so results do not depend on the machine).
__attribute__((target_clones("avx2", "default"))) void exp_block(const double* x, double* y, std::size_t len) {
    for (std::size_t i = 0; i < len; ++i) y[i] = exp_core(x[i]);
}

// Shared tail of the array kernels: out = scale * e^x, exactly 1.0 for
// durations <= 0 when asked, in one branch-free pass; the rare elements the
// fast form cannot give (exp out of range, special powers) are redone after.
// `pow_form(i)` recomputes element i as a power.
template <typename PowForm>
void finish_block(const double* n, const double* x, const double* scale, double* out, std::size_t len,
                  bool nonpositive_is_one, PowForm pow_form) {
    exp_block(x, out, len);
    bool special = false;
    for (std::size_t i = 0; i < len; ++i) {
        double v = scale[i] * out[i];
        special |= !exp_core_in_range(x[i]) | (v != v);
        out[i] = (nonpositive_is_one && n[i] <= 0.0) ? 1.0 : v;
    }
    if (!special) return;
    for (std::size_t i = 0; i < len; ++i) {
        if (exp_core_in_range(x[i]) && out[i] == out[i]) continue;
        double v = scale[i] * std::exp(x[i]);
        if (needs_pow(v)) v = pow_form(i);
        out[i] = (nonpositive_is_one && n[i] <= 0.0) ? 1.0 : v;
    }
}

void constant_discount_range(double rate, std::span<const double> n, std::span<double> out) {
    const double log_q = std::log(1.0 + rate);
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

PiecewiseTable::PiecewiseTable(std::span<const double> rates, std::span<const double> ends,
                               std::span<const double> prefix)
    : ends_(ends.begin(), ends.end()), rates_(rates.begin(), rates.end()) {
    const std::size_t m = rates.size();
    const bool have_prefix = prefix.size() == ends.size();
    q_.resize(m);
    log_q_.resize(m);
    start_df_.assign(m, 1.0);
    start_t_.assign(m, 0.0);
    for (std::size_t j = 0; j < m; ++j) {
        q_[j] = 1.0 + rates[j];
        log_q_[j] = std::log(q_[j]);  // of the rounded base, as a power of 1 + r would use
        if (j > 0) {
            start_df_[j] = have_prefix ? prefix[j - 1] : std::numeric_limits<double>::quiet_NaN();
            start_t_[j] = ends[j - 1];
        }
    }
    // Bounds with sentinels: segment j covers (bound[j], bound[j+1]].
    bounds_.reserve(ends.size() + 2);
    bounds_.push_back(-kInf);
    bounds_.insert(bounds_.end(), ends.begin(), ends.end());
    bounds_.push_back(kInf);

    const double last = ends.empty() ? 0.0 : ends.back();
    double min_length = kInf;
    for (std::size_t j = 0; j < ends.size(); ++j)
        min_length = std::min(min_length, ends[j] - (j ? ends[j - 1] : 0.0));
    std::size_t buckets = 1;
    if (last > 0.0 && std::isfinite(last)) {
        double wanted = std::ceil(2.0 * last / min_length);
        one_step_ = wanted <= static_cast<double>(kMaxBuckets);
        buckets = one_step_ ? static_cast<std::size_t>(wanted) : kMaxBuckets;
        bucket_scale_ = static_cast<double>(buckets) / last;
    }
    first_.assign(buckets, 0);
    if (bucket_scale_ > 0.0)
        for (std::size_t b = 1; b < buckets; ++b)
            first_[b] = static_cast<std::int32_t>(segment_by_search(static_cast<double>(b) / bucket_scale_));
}

std::size_t PiecewiseTable::segment_by_search(double n) const {
    // side="left" search over the ends, clipped to the last rate.
    auto it = std::lower_bound(ends_.begin(), ends_.end(), n);
    return std::min<std::size_t>(it - ends_.begin(), rates_.size() - 1);
}

bool PiecewiseTable::has_rate_at_or_below_minus_one() const {
    return first_at_or_below(rates_, -1.0).has_value();
}

std::size_t PiecewiseTable::segment_of(double n) const {
    if (n != n) return rates_.size() - 1;  // NaN sorts past every end
    double b = n * bucket_scale_;
    const double last_bucket = static_cast<double>(first_.size() - 1);
    b = b < last_bucket ? b : last_bucket;  // also catches +inf
    b = b > 0.0 ? b : 0.0;
    std::size_t j = static_cast<std::size_t>(first_[static_cast<std::size_t>(b)]);
    if (one_step_)
        return j + (n > bounds_[j + 1]) - (n <= bounds_[j] && j > 0);
    while (n > bounds_[j + 1]) ++j;
    while (j > 0 && n <= bounds_[j]) --j;
    return j;
}

double PiecewiseTable::discount(double n) const {
    if (n <= 0.0) return 1.0;
    std::size_t j = segment_of(n);
    double t = n - start_t_[j];
    double v = start_df_[j] * exp_any(-t * log_q_[j]);
    return needs_pow(v) ? start_df_[j] * std::pow(q_[j], -t) : v;
}

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
                std::size_t j = segment_of(nb[i]);
                x[i] = -(nb[i] - start_t_[j]) * log_q_[j];
                scale[i] = start_df_[j];
            }
        }
        finish_block(nb, x, scale, out.data() + base, len, true, [&](std::size_t i) {
            std::size_t j = segment_of(nb[i]);
            return start_df_[j] * std::pow(q_[j], -(nb[i] - start_t_[j]));
        });
    }
}

// Exponent and scale of each duration through the one-comparison bucket
// lookup, written without branches so that it vectorises with gathers. NaN
// and non-positive durations land in some valid segment; their results are
// NaN or overwritten with 1.0 later.
__attribute__((target_clones("avx2", "default"))) void PiecewiseTable::locate_one_step(
    const double* n, std::size_t len, double* x, double* scale) const {
    const double last_bucket = static_cast<double>(first_.size() - 1);
    const std::int32_t* first = first_.data();
    const double *bounds = bounds_.data(), *start_t = start_t_.data(), *log_q = log_q_.data(),
                 *start_df = start_df_.data();
    for (std::size_t i = 0; i < len; ++i) {
        double b = n[i] * bucket_scale_;
        b = b > 0.0 ? b : 0.0;  // NaN goes to bucket 0
        b = b < last_bucket ? b : last_bucket;
        std::int32_t j = first[static_cast<std::int32_t>(b)];
        j += n[i] > bounds[j + 1];
        j -= (n[i] <= bounds[j]) & (j > 0);
        x[i] = -(n[i] - start_t[j]) * log_q[j];
        scale[i] = start_df[j];
    }
}

double constant_discount(double rate, double n) {
    double v = exp_any(-n * std::log(1.0 + rate));
    return needs_pow(v) ? std::pow(1.0 + rate, -n) : v;
}

void constant_discount(double rate, std::span<const double> n, std::span<double> out) {
    parallel_for(n.size(), kMinChunkPerThread, [&](std::size_t begin, std::size_t end) {
        constant_discount_range(rate, n.subspan(begin, end - begin), out.subspan(begin, end - begin));
    });
}

}  // namespace norvane::core
