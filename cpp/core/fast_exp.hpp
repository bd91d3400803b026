// exp(x) in a branch-free form the compiler can vectorise, accurate to about
// one ulp on the range where the result is a normal double.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

namespace norvane::core {

// Outside this range the result is subnormal, zero, huge or infinite (or x is
// NaN): callers hand those arguments to std::exp.
inline constexpr double kExpLow = -708.0;
inline constexpr double kExpHigh = 709.0;

inline bool exp_core_in_range(double x) { return x >= kExpLow && x <= kExpHigh; }

// x = k ln2 + r with |r| <= ln2/2 (Cody-Waite, ln2 split so k*ln2_hi is exact),
// then e^r by its Taylor polynomial to r^13 (truncation below 1e-17) and a
// scale by 2^k built from the exponent bits. Valid for x in [kExpLow, kExpHigh].
inline double exp_core(double x) {
    constexpr double inv_ln2 = 1.4426950408889634074;
    constexpr double ln2_hi = 6.93147180369123816490e-01;
    constexpr double ln2_lo = 1.90821492927058770002e-10;
    constexpr double shifter = 0x1.8p52;  // adding it rounds to an integer in the low bits
    // No clamping: a select or fmin would stop vectorisation. Outside the range
    // the unsigned (wrapping) bit arithmetic gives garbage that callers replace.
    double t = x * inv_ln2 + shifter;
    double kd = t - shifter;
    std::uint64_t k = std::bit_cast<std::uint64_t>(t) - std::bit_cast<std::uint64_t>(shifter);
    double r = (x - kd * ln2_hi) - kd * ln2_lo;
    // Estrin's scheme: the terms r^2..r^13 in a tree of depth four instead of
    // a twelve-step Horner chain, so independent elements overlap in the
    // pipeline.
    constexpr double c2 = 1.0 / 2, c3 = 1.0 / 6, c4 = 1.0 / 24, c5 = 1.0 / 120, c6 = 1.0 / 720, c7 = 1.0 / 5040,
                     c8 = 1.0 / 40320, c9 = 1.0 / 362880, c10 = 1.0 / 3628800, c11 = 1.0 / 39916800,
                     c12 = 1.0 / 479001600, c13 = 1.0 / 6227020800;
    double r2 = r * r, r4 = r2 * r2, r8 = r4 * r4;
    double a0 = c2 + c3 * r, a1 = c4 + c5 * r, a2 = c6 + c7 * r, a3 = c8 + c9 * r, a4 = c10 + c11 * r,
           a5 = c12 + c13 * r;
    double b0 = a0 + a1 * r2, b1 = a2 + a3 * r2, b2 = a4 + a5 * r2;
    double tail = (b0 + b1 * r4) + b2 * r8;  // sum of c_k r^(k-2), k = 2..13
    double p = r + r2 * tail;                // e^r - 1, keeping the leading 1 apart for accuracy
    double scale = std::bit_cast<double>((k + 1023) << 52);
    return (1.0 + p) * scale;
}

// e^x - 1 for |x| <= kSmallExponent, as a Taylor series of degree 7 in about
// a third of exp_core's operations. The term left out is below 2^-50 of the
// result (a few ulps of e^x - 1 near the bound), and below half an ulp of
// 1 + (e^x - 1) = e^x, which is what callers form.
inline constexpr double kSmallExponent = 1.0 / 32;
inline double expm1_small(double x) {
    constexpr double c2 = 1.0 / 2, c3 = 1.0 / 6, c4 = 1.0 / 24, c5 = 1.0 / 120, c6 = 1.0 / 720, c7 = 1.0 / 5040;
    const double x2 = x * x;
    const double tail = (c2 + c3 * x) + x2 * ((c4 + c5 * x) + x2 * (c6 + c7 * x));
    return x + x2 * tail;
}

// exp of a discount exponent, taking the library exp where the fast form is
// out of its range (huge, tiny or NaN arguments).
inline double exp_any(double x) { return exp_core_in_range(x) ? exp_core(x) : std::exp(x); }

// The exp/log1p form goes wrong only where the power is special: 1 + r <= 0
// (unvalidated curves) and a zero rate with an infinite or NaN duration
// (1 ** x is 1). Those results come out NaN and are redone as pow.
inline bool needs_pow(double v) { return v != v; }

}  // namespace norvane::core
