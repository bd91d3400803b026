"""Eight threads at once on shared curves: portfolios, discounting, shifting and reports give
exactly the single-threaded results (the long kernels release the GIL, the caches are shared)."""

import threading

import numpy as np
import pytest

from norvane.interest_rates import InterestRate

THREADS = 8
rng = np.random.default_rng(11)
N, D, TS = rng.uniform(0, 40, 3000), rng.uniform(0, 5, 3000), rng.uniform(0, 5, 3000)
BENEFITS = rng.uniform(0, 1000, 3000)
T = rng.uniform(0, 60, 200_000)

CURVES = {
    "constant": InterestRate(0.03),
    "piecewise": InterestRate(terms=[2.0, 3.5, 1.25], rates=[0.01, 0.045, -0.02, 0.025]),
    "scenarios": InterestRate({"base": 0.02, "stress": ([5.0], [-0.01, 0.04])}),
}
TASKS = {
    "portfolio due": lambda c: c.ä(n=N, d=D, ts=TS, m=12, benefits=BENEFITS),
    "portfolio immediate": lambda c: c.a(n=N, ts=TS, m=4, gr=0.02),
    "discount": lambda c: (c.vn(T), c.vx(T + 1.5, T)),
    "shift": lambda c: [c.shifted(ts).vn(T[:1000]) for ts in (0.5, 2.0, 7.25)],
    "reports": lambda c: (
        c.validate(),
        c.curve_analysis(),
        c.export("json"),
        [c.get_rate(t) for t in T[:300]],
        [c.get_segment_info(t) for t in T[:50]],
    ),
}


def same(a, b):
    if isinstance(a, dict):
        return a.keys() == b.keys() and all(same(a[k], b[k]) for k in a)
    if isinstance(a, (list, tuple)):
        return len(a) == len(b) and all(map(same, a, b))
    if isinstance(a, np.ndarray):
        return np.array_equal(a, b, equal_nan=True)
    return a == b or (a != a and b != b)


@pytest.mark.parametrize("curve", CURVES.values(), ids=CURVES.keys())
def test_eight_threads_match_one(curve):
    expected = {name: task(curve.copy()) for name, task in TASKS.items()}
    start, failures = threading.Barrier(THREADS), []

    def work(k):
        start.wait()
        names = list(TASKS)
        for name in names[k % len(names) :] + names[: k % len(names)]:  # each thread in its own order
            try:
                if not same(TASKS[name](curve), expected[name]):
                    failures.append((k, name, "differs"))
            except Exception as exc:  # reported below with the thread and task
                failures.append((k, name, repr(exc)))

    threads = [threading.Thread(target=work, args=(k,)) for k in range(THREADS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []
