// Shared glue of the interest_rates extension: the registry of the Python
// objects it uses, the one way it raises, checked C-API calls and
// conversions, and the message texts more than one file needs.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace norvane::bindings {

namespace nb = nanobind;

// ---- the registry ------------------------------------------------------------------

// Every Python object the extension calls or compares with, looked up once
// when the module is imported (the sibling modules' names are the module's
// own attributes by then). Leaked on purpose: the objects must outlive every
// curve, and releasing them after interpreter shutdown would crash.
struct Registry {
    // sibling modules
    nb::object numeric_types, max_float64, empty_f64;
    nb::object as_f64_safe, validate_numeric_input, validate_float_sequence, validate_scalar_numeric;
    nb::object config_cls, calendar_constant_allowed, allowed_days, allowed_weeks, calculation_modes;
    nb::object valid_term_units, dispatch_table, own_entries, annuity_public_route;
    std::vector<long> allowed_frequencies;
    // The count of Config changes (norvane.config._CHANGES), read in place.
    const std::uint64_t* config_changes = nullptr;
    // standard library
    nb::object lock_type, ordered_dict, deepcopy, datetime_now, json_dumps, json_loads, builtin_round;
    nb::object int_type, integer_types;  // int, and (int, numpy.integer)
    // NumPy
    nb::object np_generic, np_ndarray, np_array, np_empty, np_array_equal, np_round, np_full_like;
    nb::object np_greater_equal, np_all, np_atleast_1d, np_sum, np_min, np_max, np_mean, np_std;
    // attribute names read on hot paths, interned once
    nb::object name_force_integer_ts, name_calculation_mode, name_days_per_year, name_weeks_per_year, name_decimals,
        name_annuities;
};
const Registry& registry();
void init_registry(nb::module_& m);

// ---- errors ----------------------------------------------------------------------------

// The one way the extension raises: a Python exception of `type` with `message`.
[[noreturn]] void raise(PyObject* type, const std::string& message);

// The result of a C-API call that returns a new reference (NULL on error),
// or the status of one that returns -1 on error, with the error raised.
nb::object checked(PyObject* result);
int checked(int status);

// ---- conversions -------------------------------------------------------------------------

std::string py_str(nb::handle h);
std::string py_repr(nb::handle h);
std::string type_name_of(nb::handle h);  // type(h).__name__
// str() of a float, the way Python (and NumPy) print a float64.
std::string float_str(double x);
bool is_numeric(nb::handle h);  // isinstance(h, _NUMERIC_TYPES) and not a bool
bool truthy(nb::handle h);
bool contains(nb::handle container, nb::handle item);  // item in container
// A real number (not a bool) as a double; anything else is a TypeError that
// names `what`.
double to_double(nb::handle h, const std::string& what);
// A payment frequency the package allows.
bool allowed_frequency(long m);
// `h` itself when it is a dict; a TypeError naming `what` otherwise.
void require_dict(nb::handle h, const char* what);

// The package's numeric validator: the value as a float64 array (a single
// number as a one-element array) and whether the caller gave a single number.
struct NumericInput {
    nb::object array;
    bool is_scalar;
};
NumericInput numeric_input(nb::handle value, const char* method_name, const char* attr_name,
                           bool allow_sequence = true);

// ---- arrays ----------------------------------------------------------------------------

// A read-only 1-D float64 NumPy array owning a fresh buffer of n elements.
struct NewArray {
    nb::object array;
    double* data;
};
NewArray new_f64_array(std::size_t n);
// A private read-only copy of a 1-D float64 array.
nb::object readonly_copy(std::span<const double> values);
// A view of a C-contiguous float64 array whose data is aligned for reading
// doubles; false for anything else (callers convert such input first).
using F64View = nb::ndarray<const double, nb::c_contig, nb::device::cpu>;
bool try_f64_view(nb::handle h, F64View& view);
// View of a C-contiguous 1-D float64 array (as the sibling converter returns);
// a TypeError for anything else. Valid while `h` is alive.
std::span<const double> f64_span(nb::handle h);
std::size_t ndim_of(nb::handle array);

// ---- message texts shared by several files ----------------------------------------------

inline constexpr const char* kNotPositive =
    ": (1+i) must be positive for discount factor computation per actuarial standards";
inline constexpr const char* kNotFinite = ". Infinite or NaN rates are not allowed in actuarial calculations.";
inline constexpr const char* kLengthRule =
    "For piecewise rates, rates must have length terms+1 (last rate applies indefinitely)";
inline constexpr const char* kMissingArrays = "Piecewise curve missing internal term/rate arrays";
inline constexpr const char* kNoConstantRate = "constant curve without a rate";
inline constexpr const char* kTimeNotNumeric = "[InterestRate] Parameter 't' must be numeric.";

}  // namespace norvane::bindings
