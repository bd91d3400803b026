// The native curve of norvane._kernels, shared by its binding files: a
// curve's discount table, built once and cached by the Python engine.
#pragma once

#include "core/curve.hpp"

namespace norvane::bindings {

struct Curve {
    core::PiecewiseTable table;
};

}  // namespace norvane::bindings
