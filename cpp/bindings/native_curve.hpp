// How norvane._kernels reads a curve of norvane.interest_rates without Python
// in between: the curve extension publishes a table of functions in a capsule
// (the usual way for one extension to call another), and the life values read
// the curve's own discount table, settings and grid cache through it. A curve
// then keeps one grid cache for every route that values lives on it.
#pragma once

#include <Python.h>

#include "core/annuity.hpp"
#include "core/curve.hpp"
#include "core/life.hpp"

#include <cstddef>
#include <memory>
#include <optional>

namespace norvane::bindings {

// A curve as a valuation reads it: its settings, and its discount table and
// grids seen from the valuation time.
struct NativeCurve {
    std::shared_ptr<const core::PiecewiseTable> table;
    std::shared_ptr<core::GridCache> grids;
    std::optional<core::Mode> mode;  // none for a mode name the core does not know
    int decimals = 0;
    double scale = 1.0;  // 10^decimals
    double tolerance_eps = 0.0;
    bool force_integer_ts = false;
};

// The numbers of a call given as plain Python numbers within the checks'
// bounds, as the full path would take them unchanged (n None: infinite).
struct PlainNumbers {
    double n, d, ts;
    std::size_t m;
};

struct PlainCall {
    PlainNumbers numbers;
    NativeCurve curve;  // seen from numbers.ts
};

// Each function returns 1 when `curve` is an InterestRate and `out` is
// filled, 0 when there is nothing to fill (nothing raised), and -1 with a
// Python error set when reading or shifting the curve raised.
struct NativeCurveApi {
    // `curve` (its active scenario) seen from `ts`.
    int (*seen_from)(PyObject* curve, double ts, NativeCurve* out) noexcept;
    // A call of `curve` whose n, d, m and ts are plain numbers: 0 when they
    // are not (the full path checks and words them).
    int (*plain_call)(PyObject* curve, PyObject* n, PyObject* d, PyObject* m, PyObject* ts, PlainCall* out) noexcept;
};

inline constexpr const char* kNativeCurveCapsule = "norvane.interest_rates._native_curve";

}  // namespace norvane::bindings
