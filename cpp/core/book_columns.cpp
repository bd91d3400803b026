#include "core/book_columns.hpp"

#include <bit>
#include <type_traits>

namespace norvane::core {

namespace {

// 1.5 x 2^52: an integer x with |x| < 2^51 added to its bits gives the bits
// of 1.5 x 2^52 + x, exactly, so one integer addition and one subtraction
// convert it (the conversion of 64-bit integers has no vector instruction
// before AVX-512DQ, which the clones do not assume).
constexpr double kMagic = 6755399441055744.0;

// Whether every value was converted by the addition (|x| < 2^51); cloned
// for AVX-512 and AVX2, so that it vectorises.
__attribute__((target_clones("avx512f", "avx2", "default"))) bool small_to_doubles(
    const std::int64_t* __restrict values, std::size_t len, double* __restrict out) {
    constexpr std::int64_t kLimit = std::int64_t{1} << 51;
    const auto magic = std::bit_cast<std::int64_t>(kMagic);
    unsigned large = 0;
    for (std::size_t k = 0; k < len; ++k) {
        const std::int64_t x = values[k];
        large |= static_cast<unsigned>((x >= kLimit) | (x < -kLimit));
        // (Unsigned: the sum wraps around, with no undefined overflow, where it is not used.)
        out[k] = std::bit_cast<double>(static_cast<std::uint64_t>(x) + static_cast<std::uint64_t>(magic)) - kMagic;
    }
    return large == 0;
}

template <typename T>
__attribute__((always_inline)) inline void cast(const T* __restrict values, std::size_t len, double* __restrict out) {
    for (std::size_t k = 0; k < len; ++k) out[k] = static_cast<double>(values[k]);
}

// Whether every value is a whole number in [0, 2^31), each converted into
// out (one that is not converts to anything: the answer is false). Without
// branches, so that it vectorises.
template <typename T>
__attribute__((always_inline)) inline bool whole(const T* __restrict values, std::size_t len,
                                                 std::int32_t* __restrict out) {
    constexpr std::int64_t kLimit = std::int64_t{1} << 31;
    unsigned other = 0;
    for (std::size_t k = 0; k < len; ++k) {
        const T x = values[k];
        if constexpr (std::is_integral_v<T>) {
            // Negative numbers are large as unsigned ones.
            other |= static_cast<unsigned>(static_cast<std::uint64_t>(x) >= static_cast<std::uint64_t>(kLimit));
            out[k] = static_cast<std::int32_t>(x);
        } else {
            // Out of range (or NaN) converts 0, which differs from x.
            const auto integer = static_cast<std::int32_t>((x >= T{0}) & (x < static_cast<T>(kLimit)) ? x : T{0});
            other |= static_cast<unsigned>(static_cast<T>(integer) != x);
            out[k] = integer;
        }
    }
    return other == 0;
}

}  // namespace

__attribute__((target_clones("avx512f", "avx2", "default"))) bool to_whole(const double* values, std::size_t len,
                                                                           std::int32_t* out) {
    return whole(values, len, out);
}

__attribute__((target_clones("avx512f", "avx2", "default"))) bool to_whole(const float* values, std::size_t len,
                                                                           std::int32_t* out) {
    return whole(values, len, out);
}

__attribute__((target_clones("avx512f", "avx2", "default"))) bool to_whole(const std::int64_t* values, std::size_t len,
                                                                           std::int32_t* out) {
    return whole(values, len, out);
}

void to_doubles(const std::int64_t* values, std::size_t len, double* out) {
    if (!small_to_doubles(values, len, out)) cast(values, len, out);
}

__attribute__((target_clones("avx2", "default"))) void to_doubles(const std::int32_t* values, std::size_t len,
                                                                  double* out) {
    cast(values, len, out);
}

__attribute__((target_clones("avx2", "default"))) void to_doubles(const float* values, std::size_t len, double* out) {
    cast(values, len, out);
}

}  // namespace norvane::core
