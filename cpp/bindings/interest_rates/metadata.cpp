// _InterestRateMeta: per-curve settings with coercion and validation.
#include "interest_rates.hpp"

#include <cmath>

namespace norvane::bindings {

const std::array<const char*, Meta::kFields> kMetaFieldNames = {"term_unit",        "days_per_year",   "weeks_per_year",
                                                                "calculation_mode", "description",     "cache_maxsize",
                                                                "tolerance_eps",    "perpetuity_n_eff"};

namespace {

const char* kMetaDoc = R"doc(Lightweight metadata/configuration model for InterestRate.

Fixed slots hold the per-curve settings: ``term_unit``, overrides of
``days_per_year``, ``weeks_per_year`` and ``calculation_mode`` (``None`` means
"use Config"), ``description``, ``cache_maxsize``, ``tolerance_eps`` and
``perpetuity_n_eff``. Numeric scalars are coerced on entry (to Python float,
or to int by truncation for the integer settings); ``term_unit``,
``days_per_year`` and ``weeks_per_year`` are checked against the allowed sets.
``model_dump``/``to_msgpack_dict`` and ``model_copy``/``from_msgpack_dict``
serialise to and from plain dicts.
)doc";

nb::object coerce_float(const char* name, nb::handle value) {
    if (value.is_none() || PyFloat_CheckExact(value.ptr())) return nb::borrow(value);
    if (!is_numeric(value)) raise(PyExc_TypeError, std::string(name) + " must be a number, got " + type_name_of(value));
    return nb::float_(value);
}

// int() of a float truncates on purpose (3.7 -> 3); a NaN or infinite setting
// can never be a valid count, so it gets the same message as a non-positive one.
nb::object coerce_int(const char* name, nb::handle value) {
    if (value.is_none() || PyLong_CheckExact(value.ptr())) return nb::borrow(value);
    if (!is_numeric(value)) raise(PyExc_TypeError, std::string(name) + " must be an int, got " + type_name_of(value));
    if (!std::isfinite(to_double(value, name)))
        raise(PyExc_ValueError, std::string(name) + " must be a positive integer");
    return nb::int_(value);
}

void check_calendar(const char* name, nb::handle value, nb::handle allowed) {
    if (value.is_none()) return;
    if (!truthy(registry().calendar_constant_allowed(value, allowed)))
        raise(PyExc_ValueError, std::string(name) + " " + py_str(value) + " not in allowed set " + py_str(allowed));
}

nb::object positive_count(const char* name, nb::handle value, long fallback) {
    nb::object count = value.is_none() ? nb::object(nb::int_(fallback)) : nb::object(nb::int_(value));
    if (checked(PyObject_RichCompareBool(count.ptr(), nb::int_(0).ptr(), Py_LE)))
        raise(PyExc_ValueError, std::string(name) + " must be a positive integer");
    return count;
}

nb::dict dump(const Meta& meta) {
    nb::dict out;
    for (std::size_t i = 0; i < Meta::kFields; ++i) out[kMetaFieldNames[i]] = meta.field[i];
    return out;
}

// Builds from a dict the way the readers do: missing keys give the defaults.
Meta from_dict(nb::handle data, nb::handle term_unit_fallback) {
    nb::object get = data.attr("get");
    return make_meta(get("term_unit", term_unit_fallback), get("days_per_year"), get("weeks_per_year"),
                     get("calculation_mode"), get("description"), get("cache_maxsize"), get("tolerance_eps"),
                     get("perpetuity_n_eff"));
}

}  // namespace

Meta make_meta(nb::handle term_unit, nb::handle days_per_year, nb::handle weeks_per_year, nb::handle calculation_mode,
               nb::handle description, nb::handle cache_maxsize, nb::handle tolerance_eps,
               nb::handle perpetuity_n_eff) {
    // Coercion happens on entry, before any check.
    nb::object days = coerce_float("days_per_year", days_per_year);
    nb::object weeks = coerce_float("weeks_per_year", weeks_per_year);
    nb::object eps = coerce_float("tolerance_eps", tolerance_eps);
    nb::object maxsize = coerce_int("cache_maxsize", cache_maxsize);
    nb::object n_eff = coerce_int("perpetuity_n_eff", perpetuity_n_eff);

    Meta meta;
    if (!contains(registry().valid_term_units, term_unit))
        raise(PyExc_ValueError,
              "Invalid term_unit: " + py_str(term_unit) + ". Must be one of " + py_str(registry().valid_term_units));
    meta.field[TermUnitField] = nb::borrow(term_unit);
    meta.field[DaysPerYear] = days;
    meta.field[WeeksPerYear] = weeks;
    check_calendar("days_per_year", days, registry().allowed_days);
    check_calendar("weeks_per_year", weeks, registry().allowed_weeks);
    if (!calculation_mode.is_none() && !contains(registry().calculation_modes, calculation_mode))
        raise(PyExc_ValueError, "Invalid calculation_mode: " + py_str(calculation_mode));
    meta.field[CalculationMode] = nb::borrow(calculation_mode);
    meta.field[Description] = nb::borrow(description);
    meta.field[CacheMaxsize] = positive_count("cache_maxsize", maxsize, 1000);
    meta.field[ToleranceEps] = eps.is_none() ? nb::float_(1e-12) : nb::float_(eps);
    if (to_double(meta.field[ToleranceEps], "tolerance_eps") < 0.0)
        raise(PyExc_ValueError, "tolerance_eps must be non-negative");
    meta.field[PerpetuityNEff] = positive_count("perpetuity_n_eff", n_eff, 1000);
    return meta;
}

void register_metadata(nb::module_& m) {
    auto cls = nb::class_<Meta>(m, "_InterestRateMeta", kMetaDoc);
    cls.def(
        "__init__",
        [](Meta* self, nb::object term_unit, nb::object days_per_year, nb::object weeks_per_year,
           nb::object calculation_mode, nb::object description, nb::object cache_maxsize, nb::object tolerance_eps,
           nb::object perpetuity_n_eff) {
            new (self) Meta(make_meta(term_unit, days_per_year, weeks_per_year, calculation_mode, description,
                                      cache_maxsize, tolerance_eps, perpetuity_n_eff));
        },
        nb::kw_only(), nb::arg("term_unit").none() = "years", nb::arg("days_per_year").none() = nb::none(),
        nb::arg("weeks_per_year").none() = nb::none(), nb::arg("calculation_mode").none() = nb::none(),
        nb::arg("description").none() = nb::none(), nb::arg("cache_maxsize").none() = nb::none(),
        nb::arg("tolerance_eps").none() = nb::none(), nb::arg("perpetuity_n_eff").none() = nb::none());
    static const std::array<const char*, Meta::kFields> docs = {"Unit in which the curve's terms were given.",
                                                                "Days per year override (None: use Config).",
                                                                "Weeks per year override (None: use Config).",
                                                                "Calculation mode override (None: use Config).",
                                                                "Free text.",
                                                                "Bound of the rate and force LRU caches.",
                                                                "Tolerance of curve shifting and payment counting.",
                                                                "Horizon in years used for perpetuities."};
    bind_slots(cls, kMetaFieldNames, docs, [](Meta& self, std::size_t i) -> nb::object& { return self.field[i]; });

    cls.def("model_dump", &dump, "The eight settings as a dict, in slot order.");
    cls.def("to_msgpack_dict", &dump, "The eight settings as a dict ready for msgpack or JSON.");
    cls.def(
        "model_copy",
        [](const Meta& self, nb::object update) {
            if (!update.is_none() && !nb::isinstance<nb::dict>(update))
                raise(PyExc_TypeError, "update must be a dict or None, got " + type_name_of(update));
            nb::dict data = dump(self);
            if (truthy(update)) data.attr("update")(update);
            // No fallback: a key set to None in `update` resets that setting.
            return from_dict(data, nb::none());
        },
        nb::arg("update").none() = nb::none(),
        R"doc(Return a validated copy with some settings replaced.

Parameters
----------
update : dict or None, default None
    Settings to replace, by field name; a key set to None resets that
    setting to its default, and unknown keys are ignored.

Returns
-------
_InterestRateMeta
    A new instance, validated again; self is unchanged.

Raises
------
TypeError
    If `update` is neither a dict nor None, or a value has the wrong type.
ValueError
    If a resulting setting is invalid.

Examples
--------
>>> _InterestRateMeta().model_copy({"description": "stress"}).description
'stress'
)doc");
    cls.attr("from_msgpack_dict") =
        checked(PyClassMethod_New(nb::cpp_function(
                                      [](nb::handle cls_, nb::object data) {
                                          if (!nb::isinstance<nb::dict>(data))
                                              raise(PyExc_TypeError, "data must be a dict, got " + type_name_of(data));
                                          nb::object get = data.attr("get");
                                          nb::dict kwargs;
                                          kwargs["term_unit"] = get("term_unit", "years");
                                          for (std::size_t i = 1; i < Meta::kFields; ++i)
                                              kwargs[kMetaFieldNames[i]] = get(kMetaFieldNames[i]);
                                          return cls_(**kwargs);
                                      },
                                      nb::arg("cls"), nb::arg("data"),
                                      R"doc(Build an instance from a dict such as `to_msgpack_dict` returns.

Parameters
----------
data : dict
    Settings by field name; a missing key takes the constructor default
    ("years" for term_unit), unknown keys are ignored.

Returns
-------
_InterestRateMeta
    A new, validated instance.

Raises
------
TypeError
    If `data` is not a dict, or a value has the wrong type.
ValueError
    If a setting is invalid.

Examples
--------
>>> meta = _InterestRateMeta(description="base")
>>> _InterestRateMeta.from_msgpack_dict(meta.to_msgpack_dict()) == meta
True
)doc")
                                      .ptr()));
    cls.def(
        "__eq__",
        [](const Meta& self, nb::handle other) -> nb::object {
            if (!nb::isinstance<Meta>(other)) return nb::borrow(Py_NotImplemented);
            return nb::bool_(dump(self).equal(dump(nb::cast<const Meta&>(other))));
        },
        nb::arg("other").none());
    cls.attr("__hash__") = nb::none();
    cls.def("__repr__", [](const Meta& self) {
        std::string out = "_InterestRateMeta(";
        for (std::size_t i = 0; i < Meta::kFields; ++i)
            out += std::string(i ? ", " : "") + kMetaFieldNames[i] + "=" + py_repr(self.field[i]);
        return out + ")";
    });
    cls.def("__getstate__", [](const Meta& self) { return dump(self); });
    cls.def("__setstate__", [](Meta& self, nb::dict state) { new (&self) Meta(from_dict(state, nb::str("years"))); });
}

Meta& meta_of(const InterestRate& ir) {
    if (!nb::isinstance<Meta>(ir[MetaData]))
        raise(PyExc_TypeError, "_meta must be an _InterestRateMeta, got " + type_name_of(ir[MetaData]));
    return nb::cast<Meta&>(ir[MetaData]);
}

}  // namespace norvane::bindings
