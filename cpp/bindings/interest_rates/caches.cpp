// Derived arrays, LRU caches and the shift-cache generation of a curve.
#include "interest_rates.hpp"

#include "core/curve.hpp"

namespace norvane::bindings {

namespace {

PyObject* interned(const char* name) { return PyUnicode_InternFromString(name); }

// Holds a curve's threading.Lock for a scope, released on every exit path.
class LockGuard {
  public:
    explicit LockGuard(nb::handle lock) : lock_(nb::borrow(lock)) {
        static PyObject* acquire = interned("acquire");
        checked(PyObject_CallMethodNoArgs(lock_.ptr(), acquire));
    }
    ~LockGuard() {
        static PyObject* release = interned("release");
        PyObject *type, *value, *trace;
        PyErr_Fetch(&type, &value, &trace);  // keep a pending error across release()
        PyObject* res = PyObject_CallMethodNoArgs(lock_.ptr(), release);
        Py_XDECREF(res);
        if (!res) PyErr_Clear();
        PyErr_Restore(type, value, trace);
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    nb::object lock_;
};

// The caches are OrderedDicts; a caller passing anything else gets a TypeError.
void require_cache(nb::handle cache) { require_dict(cache, "cache"); }

nb::object as_maxsize(nb::handle maxsize) {
    if (PyLong_Check(maxsize.ptr()) && !PyBool_Check(maxsize.ptr())) return nb::borrow(maxsize);
    if (PyBool_Check(maxsize.ptr()) || !is_numeric(maxsize))
        raise(PyExc_TypeError, "maxsize must be an integer, got " + type_name_of(maxsize));
    return nb::int_(maxsize);
}

}  // namespace

nb::object lru_touch_get(InterestRate& ir, nb::handle cache, double key) {
    nb::float_ k(key);
    require_cache(cache);
    LockGuard hold(ir[CacheLock]);
    if (!contains(cache, k)) return nb::none();
    // Removing and re-inserting moves the entry to the most-recently-used end.
    nb::object value = checked(PyObject_GetItem(cache.ptr(), k.ptr()));
    checked(PyObject_DelItem(cache.ptr(), k.ptr()));
    checked(PyObject_SetItem(cache.ptr(), k.ptr(), value.ptr()));
    return value;
}

void lru_store(InterestRate& ir, nb::handle cache, double key, double value, nb::handle maxsize) {
    nb::float_ k(key);
    require_cache(cache);
    LockGuard hold(ir[CacheLock]);
    // An existing entry is neither replaced nor refreshed.
    if (contains(cache, k)) return;
    if (checked(PyObject_RichCompareBool(nb::int_(nb::len(cache)).ptr(), maxsize.ptr(), Py_GE)))
        cache.attr("popitem")(nb::arg("last") = false);  // the least recently used
    checked(PyObject_SetItem(cache.ptr(), k.ptr(), nb::float_(value).ptr()));
}

void clear_lru_caches(InterestRate& ir) {
    if (ir[CacheLock].is_none()) ir[CacheLock] = registry().lock_type();
    LockGuard hold(ir[CacheLock]);
    ir[RateCache].attr("clear")();
    ir[ForceCache].attr("clear")();
}

void bump_ts_shift_cache(InterestRate& ir) {
    ir[ShiftCacheEpoch] = nb::int_(ir[ShiftCacheEpoch]) + nb::int_(1);
    ir[TsShiftCache].attr("clear")();  // emptied in place: holders keep the same dict
}

void invalidate_caches(InterestRate& ir) {
    clear_lru_caches(ir);
    bump_ts_shift_cache(ir);
    ir[OnePlusRates] = nb::none();
    ir[FullSegProd] = registry().empty_f64;
    ir[PrefixProd] = registry().empty_f64;
}

void recompute_prefix_products(InterestRate& ir) {
    if (ir[Rates].is_none()) {
        ir[OnePlusRates] = nb::none();
        ir[FullSegProd] = registry().empty_f64;
        ir[PrefixProd] = registry().empty_f64;
        return;
    }
    std::span<const double> rates = f64_span(ir[Rates]);
    NewArray one_plus = new_f64_array(rates.size());
    core::one_plus(rates, {one_plus.data, rates.size()});
    ir[OnePlusRates] = one_plus.array;
    if (ir[Terms].is_none() || nb::len(ir[Terms]) == 0) {
        ir[FullSegProd] = registry().empty_f64;
        ir[PrefixProd] = registry().empty_f64;
        return;
    }
    std::span<const double> terms = f64_span(ir[Terms]);
    if (!core::rates_fit_terms(rates.size(), terms.size()))
        raise(PyExc_ValueError, "For piecewise rates, rates must have length terms+1 (last rate applies indefinitely)");
    const std::size_t k = terms.size();
    NewArray full = new_f64_array(k), prefix = new_f64_array(k);
    core::segment_discount_products({one_plus.data, k}, terms, {full.data, k}, {prefix.data, k});
    ir[FullSegProd] = full.array;
    ir[PrefixProd] = prefix.array;
}

void register_caches(CurveClass& cls) {
    cls.def("_clear_lru_caches", &clear_lru_caches,
            "Empty the rate and force caches under the lock (installing a lock if missing).");
    cls.def("_bump_ts_shift_cache", &bump_ts_shift_cache,
            "Advance the shift-cache generation and empty the shifted-curve cache in place.");
    cls.def("_invalidate_caches", &invalidate_caches,
            "Drop every derived quantity: LRU caches, shifted curves and precomputed products.");
    cls.def("_recompute_prefix_products", &recompute_prefix_products,
            "Rebuild 1 + rates, the full-segment discount factors and their running product.");
    cls.def(
        "_lru_touch_get", [](InterestRate& ir, nb::handle cache, double key) { return lru_touch_get(ir, cache, key); },
        nb::arg("cache"), nb::arg("key"),
        "Cached value for `key` (moved to the most-recently-used end), or None on a miss.");
    cls.def(
        "_lru_store",
        [](InterestRate& ir, nb::handle cache, double key, double value, nb::handle maxsize) {
            lru_store(ir, cache, key, value, as_maxsize(maxsize));
        },
        nb::arg("cache"), nb::arg("key"), nb::arg("value"), nb::arg("maxsize"),
        "Store `value` under `key`, evicting the least recently used entry when full.");
}

}  // namespace norvane::bindings
