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
        points_.assign(2 * (size + 1), 0.0);
        double sum = 0.0, compensation = 0.0;
        for (std::size_t i = 0; i < size; ++i) {
            const double x = value_of(i), t = sum + x;
            compensation += std::abs(sum) >= std::abs(x) ? (sum - t) + x : (x - t) + sum;
            sum = t;
            points_[2 * i + 2] = sum;
            points_[2 * i + 3] = compensation;
        }
    }
    double between(std::size_t a, std::size_t b) const {
        return (points_[2 * b] - points_[2 * a]) + (points_[2 * b + 1] - points_[2 * a + 1]);
    }
    // Each sum followed by its compensation (one cache line holds both): sum i
    // at [2 i], its compensation at [2 i + 1], for i = 0 .. size().
    const double* points() const { return points_.data(); }
    // The number of terms summed.
    std::size_t size() const { return points_.empty() ? 0 : points_.size() / 2 - 1; }
    // The size the difference's rounding error is relative to: the
    // difference itself, plus the sums' own last bits.
    double magnitude(std::size_t a, std::size_t b) const {
        constexpr double kEpsilon = std::numeric_limits<double>::epsilon();
        const double sum_a = points_[2 * a], sum_b = points_[2 * b];
        return std::abs(sum_b - sum_a) + kEpsilon * (std::abs(sum_a) + std::abs(sum_b));
    }

  private:
    std::vector<double> points_;
};

}  // namespace norvane::core
