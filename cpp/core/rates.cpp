#include "core/rates.hpp"

namespace norvane::core {

void to_forces_of_interest(std::span<double> rates) {
    for (double& rate : rates) rate = force_of_interest(rate);
}

// (1 + i)^(±1/m) as exp(ln(1 + i) × ±1/m), the reciprocal of m taken first.
double nominal_interest(double rate, double m) {
    if (m == 1.0) return rate;
    const double p = std::exp(log_one_plus(rate) * (1.0 / m));
    return m * p - m;
}

double nominal_discount(double rate, double m) {
    if (m == 1.0) return rate / (rate + 1.0);
    const double q = std::exp(log_one_plus(rate) * (-1.0 / m));
    return m - m * q;
}

}  // namespace norvane::core
