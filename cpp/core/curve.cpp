#include "core/curve.hpp"

#include "core/fast_exp.hpp"

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

// exp of a discount exponent, taking the library exp where the fast form is
// out of its range (huge, tiny or NaN arguments).
inline double exp_any(double x) { return exp_core_in_range(x) ? exp_core(x) : std::exp(x); }

// The exp/log1p form goes wrong only where the power is special: 1 + r <= 0
// (unvalidated curves) and 0 * inf exponents (zero rate, infinite duration).
// Those results come out NaN for a non-NaN duration and are redone as pow.
inline bool needs_pow(double v, double n) { return v != v && n == n; }

// Shared tail of the array kernels: e^x for the block, scaled, with the exact
// fallbacks; `pow_form(i)` recomputes element i as a power.
template <typename PowForm>
void finish_block(const double* n, const double* x, const double* scale, double* out, std::size_t len,
                  bool nonpositive_is_one, PowForm pow_form) {
    for (std::size_t i = 0; i < len; ++i) out[i] = exp_core(x[i]);  // vectorised
    for (std::size_t i = 0; i < len; ++i) {
        double v = exp_core_in_range(x[i]) ? scale[i] * out[i] : scale[i] * std::exp(x[i]);
        if (needs_pow(v, n[i])) v = pow_form(i);
        if (nonpositive_is_one && n[i] <= 0.0) v = 1.0;
        out[i] = v;
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
        log_q_[j] = std::log1p(rates[j]);
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
            first_[b] = static_cast<std::uint32_t>(segment_by_search(static_cast<double>(b) / bucket_scale_));
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
    std::size_t j = first_[static_cast<std::size_t>(b)];
    if (one_step_)
        return j + (n > bounds_[j + 1]) - (n <= bounds_[j] && j > 0);
    while (n > bounds_[j + 1]) ++j;
    while (j > 0 && n <= bounds_[j]) --j;
    return j;
}

double PiecewiseTable::discount(double n) const {
    if (!(n > 0.0)) return n <= 0.0 ? 1.0 : n;  // NaN stays NaN
    std::size_t j = segment_of(n);
    double t = n - start_t_[j];
    double v = start_df_[j] * exp_any(-t * log_q_[j]);
    return needs_pow(v, n) ? start_df_[j] * std::pow(q_[j], -t) : v;
}

void PiecewiseTable::discount(std::span<const double> n, std::span<double> out) const {
    double x[kBlock], scale[kBlock];
    std::size_t seg[kBlock];
    for (std::size_t base = 0; base < n.size(); base += kBlock) {
        const std::size_t len = std::min(kBlock, n.size() - base);
        const double* nb = n.data() + base;
        for (std::size_t i = 0; i < len; ++i) {
            std::size_t j = segment_of(nb[i]);
            seg[i] = j;
            x[i] = -(nb[i] - start_t_[j]) * log_q_[j];
            scale[i] = start_df_[j];
        }
        finish_block(nb, x, scale, out.data() + base, len, true, [&](std::size_t i) {
            return start_df_[seg[i]] * std::pow(q_[seg[i]], -(nb[i] - start_t_[seg[i]]));
        });
    }
}

double constant_discount(double rate, double n) {
    double v = exp_any(-n * std::log1p(rate));
    return needs_pow(v, n) ? std::pow(1.0 + rate, -n) : v;
}

void constant_discount(double rate, std::span<const double> n, std::span<double> out) {
    const double log_q = std::log1p(rate);
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

}  // namespace norvane::core
