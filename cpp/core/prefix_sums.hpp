// Running sums with their compensation, shared by the certain and the life
// books and by the single life call.
#pragma once

#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

namespace norvane::core {

// Running sums x[0] + ... + x[i-1] with their compensation (Neumaier), so
// that a difference of two of them is accurate to the last bit of the
// difference, not of the sums.
class PrefixSums {
  public:
    template <typename Value>
    void build(std::size_t size, Value value_of) {
        hi_.assign(size + 1, 0.0);
        lo_.assign(size + 1, 0.0);
        double sum = 0.0, compensation = 0.0;
        for (std::size_t i = 0; i < size; ++i) {
            const double x = value_of(i), t = sum + x;
            compensation += std::abs(sum) >= std::abs(x) ? (sum - t) + x : (x - t) + sum;
            sum = t;
            hi_[i + 1] = sum;
            lo_[i + 1] = compensation;
        }
    }
    double between(std::size_t a, std::size_t b) const { return (hi_[b] - hi_[a]) + (lo_[b] - lo_[a]); }
    const double* sums() const { return hi_.data(); }
    const double* compensations() const { return lo_.data(); }
    // The number of terms summed.
    std::size_t size() const { return hi_.empty() ? 0 : hi_.size() - 1; }
    // The size the difference's rounding error is relative to: the
    // difference itself, plus the sums' own last bits.
    double magnitude(std::size_t a, std::size_t b) const {
        constexpr double kEpsilon = std::numeric_limits<double>::epsilon();
        return std::abs(hi_[b] - hi_[a]) + kEpsilon * (std::abs(hi_[a]) + std::abs(hi_[b]));
    }

  private:
    std::vector<double> hi_, lo_;
};

}  // namespace norvane::core
