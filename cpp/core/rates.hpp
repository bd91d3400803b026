// Effective annual rates: the rates equivalent to a rate i (the force of
// interest and the nominal rates convertible m-thly). No Python, doubles and
// spans only.
#pragma once

#include <cmath>
#include <span>

namespace norvane::core {

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
