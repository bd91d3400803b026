// The registry, raising, checked calls, conversions and array plumbing shared
// by every binding file.
#include "common.hpp"

#include <algorithm>
#include <cstdint>

namespace norvane::bindings {

namespace {
Registry* g_registry = nullptr;
}

const Registry& registry() { return *g_registry; }

void init_registry(nb::module_& m) {
    auto* r = new Registry();  // leaked deliberately, see the header
    auto np = nb::module_::import_("numpy");
    auto builtins = nb::module_::import_("builtins");
    r->numeric_types = m.attr("_NUMERIC_TYPES");
    r->max_float64 = m.attr("_MAX_FLOAT64");
    r->empty_f64 = m.attr("_EMPTY_F64");
    r->as_f64_safe = m.attr("_as_f64_safe");
    r->validate_numeric_input = m.attr("_validate_numeric_input");
    r->validate_float_sequence = m.attr("_validate_float_sequence");
    r->validate_scalar_numeric = m.attr("_validate_scalar_numeric");
    r->config_cls = m.attr("Config");
    r->calendar_constant_allowed = m.attr("_calendar_constant_allowed");
    r->allowed_days = m.attr("_ALLOWED_DAYS_PER_YEAR");
    r->allowed_weeks = m.attr("_ALLOWED_WEEKS_PER_YEAR");
    r->calculation_modes = nb::module_::import_("typing").attr("get_args")(m.attr("CalculationModeLiteral"));
    r->valid_term_units = m.attr("VALID_TERM_UNITS");
    r->dispatch_table = m.attr("_ANNUITY_CALCULATION_MODE_DISPATCH");
    nb::module_ engine = nb::module_::import_("norvane.engine.annuity");
    r->own_entries = engine.attr("_OWN_ENTRIES");
    r->annuity_public_route = nb::module_::import_("norvane.engine.dispatch").attr("annuity_public_route");
    {
        // The buffer stays exported (never released), so the array cannot move.
        Py_buffer view;
        checked(PyObject_GetBuffer(nb::module_::import_("norvane.config").attr("_CHANGES").ptr(), &view, PyBUF_SIMPLE));
        r->config_changes = static_cast<const std::uint64_t*>(view.buf);
    }
    for (nb::handle m_ : nb::module_::import_("norvane.base").attr("_ALLOWED_PAYMENT_FREQUENCIES"))
        r->allowed_frequencies.push_back(nb::cast<long>(m_));
    r->lock_type = nb::module_::import_("threading").attr("Lock");
    r->ordered_dict = nb::module_::import_("collections").attr("OrderedDict");
    r->deepcopy = nb::module_::import_("copy").attr("deepcopy");
    r->datetime_now = nb::module_::import_("datetime").attr("datetime").attr("now");
    nb::module_ json = nb::module_::import_("json");
    r->json_dumps = json.attr("dumps");
    r->json_loads = json.attr("loads");
    r->builtin_round = builtins.attr("round");
    auto interned = [](const char* name) { return checked(PyUnicode_InternFromString(name)); };
    r->name_force_integer_ts = interned("force_integer_ts");
    r->name_calculation_mode = interned("calculation_mode");
    r->name_days_per_year = interned("days_per_year");
    r->name_weeks_per_year = interned("weeks_per_year");
    r->name_decimals = interned("decimals");
    r->name_annuities = interned("annuities");
    r->int_type = builtins.attr("int");
    r->integer_types = nb::make_tuple(r->int_type, np.attr("integer"));
    r->np_generic = np.attr("generic");
    r->np_ndarray = np.attr("ndarray");
    r->np_array = np.attr("array");
    r->np_empty = np.attr("empty");
    r->np_array_equal = np.attr("array_equal");
    r->np_round = np.attr("round");
    r->np_full_like = np.attr("full_like");
    r->np_greater_equal = np.attr("greater_equal");
    r->np_all = np.attr("all");
    r->np_atleast_1d = np.attr("atleast_1d");
    r->np_sum = np.attr("sum");
    r->np_min = np.attr("min");
    r->np_max = np.attr("max");
    r->np_mean = np.attr("mean");
    r->np_std = np.attr("std");
    g_registry = r;
}

void raise(PyObject* type, const std::string& message) {
    PyErr_SetString(type, message.c_str());
    throw nb::python_error();
}

nb::object checked(PyObject* result) {
    if (!result) throw nb::python_error();
    return nb::steal(result);
}

int checked(int status) {
    if (status < 0) throw nb::python_error();
    return status;
}

std::string py_str(nb::handle h) { return nb::borrow<nb::str>(checked(PyObject_Str(h.ptr()))).c_str(); }
std::string py_repr(nb::handle h) { return nb::borrow<nb::str>(checked(PyObject_Repr(h.ptr()))).c_str(); }
std::string type_name_of(nb::handle h) { return nb::type_name(h.type()).c_str(); }
std::string float_str(double x) { return py_repr(nb::float_(x)); }

bool is_numeric(nb::handle h) {
    if (PyBool_Check(h.ptr())) return false;  // booleans are never numbers
    if (PyFloat_Check(h.ptr()) || PyLong_Check(h.ptr())) return true;
    return checked(PyObject_IsInstance(h.ptr(), registry().numeric_types.ptr())) == 1;
}

bool truthy(nb::handle h) { return checked(PyObject_IsTrue(h.ptr())) == 1; }

bool contains(nb::handle container, nb::handle item) {
    return checked(PySequence_Contains(container.ptr(), item.ptr())) == 1;
}

double to_double(nb::handle h, const std::string& what) {
    if (PyFloat_Check(h.ptr())) return PyFloat_AS_DOUBLE(h.ptr());
    if (!PyBool_Check(h.ptr())) {
        const double value = PyFloat_AsDouble(h.ptr());
        if (!(value == -1.0 && PyErr_Occurred())) return value;
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw nb::python_error();
        PyErr_Clear();
    }
    raise(PyExc_TypeError, what + " must be a real number, got " + type_name_of(h));
}

bool allowed_frequency(long m) {
    const auto& allowed = registry().allowed_frequencies;
    return std::find(allowed.begin(), allowed.end(), m) != allowed.end();
}

void require_dict(nb::handle h, const char* what) {
    if (!PyDict_Check(h.ptr())) raise(PyExc_TypeError, std::string(what) + " must be a dict, got " + type_name_of(h));
}

NumericInput numeric_input(nb::handle value, const char* method_name, const char* attr_name, bool allow_sequence) {
    const Registry& py = registry();
    nb::tuple checked = nb::borrow<nb::tuple>(
        py.validate_numeric_input(value, nb::arg("allow_none") = false, nb::arg("allow_sequence") = allow_sequence,
                                  nb::arg("method_name") = method_name, nb::arg("attr_name") = attr_name));
    return {py.as_f64_safe(checked[0]), truthy(checked[1])};
}

using ReadonlyArray = nb::ndarray<nb::numpy, const double, nb::ndim<1>>;

NewArray new_f64_array(std::size_t n) {
    auto* buffer = new double[n > 0 ? n : 1];
    nb::capsule owner(buffer, [](void* p) noexcept { delete[] static_cast<double*>(p); });
    std::size_t shape[1] = {n};
    return {ReadonlyArray(buffer, 1, shape, owner).cast(), buffer};
}

nb::object readonly_copy(std::span<const double> values) {
    auto out = new_f64_array(values.size());
    std::copy(values.begin(), values.end(), out.data);
    return out.array;
}

bool try_f64_view(nb::handle h, F64View& view) {
    // An array over a byte buffer may start at an odd address.
    return nb::try_cast(h, view, false) && reinterpret_cast<std::uintptr_t>(view.data()) % alignof(double) == 0;
}

std::span<const double> f64_span(nb::handle h) {
    F64View view;
    if (!try_f64_view(h, view) || view.ndim() != 1)
        raise(PyExc_TypeError, "expected a one-dimensional contiguous aligned float64 array");
    return {view.data(), view.shape(0)};
}

std::size_t ndim_of(nb::handle array) {
    const long ndim = PyLong_AsLong(checked(PyObject_GetAttrString(array.ptr(), "ndim")).ptr());
    if (ndim == -1 && PyErr_Occurred()) throw nb::python_error();
    return static_cast<std::size_t>(ndim);
}

}  // namespace norvane::bindings
