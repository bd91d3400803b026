// Conversions and array plumbing shared by every binding file.
#include "interest_rates.hpp"

namespace norvane::bindings {

namespace {
PyRefs* g_refs = nullptr;
}

PyRefs& refs() { return *g_refs; }

void init_refs(nb::module_& m) {
    auto* r = new PyRefs();  // leaked deliberately, see the header
    auto typing = nb::module_::import_("typing");
    auto np = nb::module_::import_("numpy");
    r->numeric_types = m.attr("_NUMERIC_TYPES");
    r->max_float64 = m.attr("_MAX_FLOAT64");
    r->empty_f64 = m.attr("_EMPTY_F64");
    r->as_f64_safe = m.attr("_as_f64_safe");
    r->validate_numeric_input = m.attr("_validate_numeric_input");
    r->validate_float_sequence = m.attr("_validate_float_sequence");
    r->config_cls = m.attr("Config");
    r->calendar_constant_allowed = m.attr("_calendar_constant_allowed");
    r->allowed_days = m.attr("_ALLOWED_DAYS_PER_YEAR");
    r->allowed_weeks = m.attr("_ALLOWED_WEEKS_PER_YEAR");
    r->calculation_modes = typing.attr("get_args")(m.attr("CalculationModeLiteral"));
    r->valid_term_units = m.attr("VALID_TERM_UNITS");
    r->lock_type = nb::module_::import_("threading").attr("Lock");
    r->ordered_dict = nb::module_::import_("collections").attr("OrderedDict");
    r->deepcopy = nb::module_::import_("copy").attr("deepcopy");
    r->np_generic = np.attr("generic");
    r->np_ndarray = np.attr("ndarray");
    r->np_array_equal = np.attr("array_equal");
    r->np_empty = np.attr("empty");
    r->validate_scalar_numeric = m.attr("_validate_scalar_numeric");
    r->int_type = nb::module_::import_("builtins").attr("int");
    r->integer_types = nb::make_tuple(r->int_type, np.attr("integer"));
    g_refs = r;
}

nb::object checked(PyObject* result) {
    if (!result) nb::raise_python_error();
    return nb::steal(result);
}

std::string py_str(nb::handle h) { return nb::str(h).c_str(); }
std::string py_repr(nb::handle h) { return nb::repr(h).c_str(); }
std::string type_name_of(nb::handle h) { return nb::type_name(h.type()).c_str(); }
std::string float_str(double x) { return py_repr(nb::float_(x)); }

bool is_numeric(nb::handle h) {
    if (PyBool_Check(h.ptr())) return false;  // booleans are never numbers
    if (PyFloat_Check(h.ptr()) || PyLong_Check(h.ptr())) return true;
    int res = PyObject_IsInstance(h.ptr(), refs().numeric_types.ptr());
    if (res < 0) nb::raise_python_error();
    return res == 1;
}

bool truthy(nb::handle h) {
    int res = PyObject_IsTrue(h.ptr());
    if (res < 0) nb::raise_python_error();
    return res == 1;
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

std::span<const double> f64_span(nb::handle h) {
    nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu> view;
    if (!nb::try_cast(h, view, false))
        throw nb::type_error("expected a one-dimensional contiguous float64 array");
    return {view.data(), view.shape(0)};
}

std::size_t ndim_of(nb::handle array) { return nb::cast<std::size_t>(array.attr("ndim")); }

}  // namespace norvane::bindings
