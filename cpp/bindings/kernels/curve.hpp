// What the binding files of norvane._kernels share: the native curve (a
// curve's discount table, built once and cached by the Python engine), the
// array types, and the conversions of names and arrays.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include "core/annuity.hpp"
#include "core/curve.hpp"
#include "core/life.hpp"
#include "core/portfolio.hpp"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace norvane::bindings {

namespace nb = nanobind;

struct Curve {
    core::PiecewiseTable table;
};

using InArray = nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using OutArray = nb::ndarray<nb::numpy, double, nb::ndim<1>>;

inline std::span<const double> span_of(const InArray& a) { return {a.data(), a.shape(0)}; }

// A book column of any element type the book kernel reads in place.
using RealArray = nb::ndarray<nb::ro, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
inline core::BookColumn column_of(const RealArray& a) {
    using Type = core::BookColumn::Type;
    const nb::dlpack::dtype type = a.dtype();
    Type kind;
    if (type == nb::dtype<double>()) {
        kind = Type::Float64;
    } else if (type == nb::dtype<float>()) {
        kind = Type::Float32;
    } else if (type == nb::dtype<std::int64_t>()) {
        kind = Type::Int64;
    } else if (type == nb::dtype<std::int32_t>()) {
        kind = Type::Int32;
    } else {
        throw nb::type_error("a book column must hold float64, float32, int64 or int32");
    }
    return {a.data(), a.shape(0), kind};
}
inline std::vector<double> vector_of(const InArray& a) { return {a.data(), a.data() + a.shape(0)}; }

// A new NumPy array of `size` T, left uninitialised for a kernel to fill (a
// book's result is written once, not zeroed first), and its values.
template <typename T = double>
std::pair<nb::ndarray<nb::numpy, T, nb::ndim<1>>, std::span<T>> new_array(std::size_t size) {
    auto* values = new T[size ? size : 1];
    nb::capsule owner(values, [](void* p) noexcept { delete[] static_cast<T*>(p); });
    return {nb::ndarray<nb::numpy, T, nb::ndim<1>>(values, {size}, owner), std::span<T>(values, size)};
}

// A NumPy array that owns `values` (moved, not copied).
template <typename T = double>
nb::ndarray<nb::numpy, T, nb::ndim<1>> to_array(std::vector<T> values) {
    auto* owned = new std::vector<T>(std::move(values));
    nb::capsule owner(owned, [](void* p) noexcept { delete static_cast<std::vector<T>*>(p); });
    return nb::ndarray<nb::numpy, T, nb::ndim<1>>(owned->data(), {owned->size()}, owner);
}

core::Growth growth_of(const std::string& kind, double rate);
core::Mode mode_of(const std::string& name);
// A curve's arrays: m rates, m-1 finite positive terms and their increasing ends.
core::CurveArrays arrays_of(const InArray& rates, const InArray& terms, const InArray& ends);

}  // namespace norvane::bindings
