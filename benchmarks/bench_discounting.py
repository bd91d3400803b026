"""Discounting engine of ``InterestRate`` against the straightforward NumPy baseline.

    python benchmarks/bench_discounting.py [--quick]

Each case is first checked to give the same numbers on both sides (rtol 1e-12),
then timed side by side: repeats alternate between ours and the baseline, each
repeat runs enough calls to last at least ``min_time``, and the median per-call
time is reported. The peak extra memory of ``vn`` on 10**6 durations is measured
in fresh child processes, from the resident set (VmHWM, reset before the call)
and from tracemalloc (which sees NumPy's allocations but not native ones).
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import tracemalloc
from types import SimpleNamespace

import numpy as np
from _timing import fmt_time, print_machine, print_table, time_sides
from baseline import BaselineCurve, shifted_for_ts

from norvane.interest_rates import InterestRate, _interest_rate_shifted_for_ts

N = 10**6
SEED = 20240611
CONSTANT_RATE = 0.03
SHIFT_TS = 12.3


def make_data(n=N):
    rng = np.random.default_rng(SEED)
    terms = rng.uniform(0.5, 1.75, 40)  # 40 segments, about 45 years in all
    rates = rng.uniform(0.0, 0.06, 41)
    x0 = rng.uniform(0.0, 30.0, n)
    return SimpleNamespace(
        terms=terms,
        rates=rates,
        n=rng.uniform(0.0, 60.0, n),
        x_from_2=2.0 + rng.uniform(0.0, 58.0, n),  # for x0 = 2.0
        x=x0 + rng.uniform(0.0, 30.0, n),
        x0=x0,
    )


def make_sides(d):
    ours = SimpleNamespace(
        pw=InterestRate(terms=d.terms, rates=d.rates),
        const=InterestRate(CONSTANT_RATE),
        shift_for_ts=_interest_rate_shifted_for_ts,
    )
    base = SimpleNamespace(
        pw=BaselineCurve(d.terms, d.rates),
        const=BaselineCurve(CONSTANT_RATE),
        shift_for_ts=shifted_for_ts,
    )
    return ours, base


# label, elements per call, (side, data) -> (function, args)
CASES = [
    ("vn piecewise, 1e6 durations", N, lambda s, d: (s.pw.vn, (d.n,))),
    ("vn constant, 1e6 durations", N, lambda s, d: (s.const.vn, (d.n,))),
    ("vn(7.5) piecewise", 1, lambda s, d: (s.pw.vn, (7.5,))),
    ("vn(7.5) constant", 1, lambda s, d: (s.const.vn, (7.5,))),
    ("vx piecewise, 1e6 x, x0=2.0", N, lambda s, d: (s.pw.vx, (d.x_from_2, 2.0))),
    ("vx piecewise, 1e6 x, 1e6 x0", N, lambda s, d: (s.pw.vx, (d.x, d.x0))),
    ("get_rate(7.5) piecewise, cached", 1, lambda s, d: (s.pw.get_rate, (7.5,))),
    ("get_rate piecewise, 1e6 times", N, lambda s, d: (s.pw.get_rate, (d.n,))),
    (
        f"shift cache, ts={SHIFT_TS} (hit)",
        1,
        lambda s, d: (s.shift_for_ts, (s.pw, SHIFT_TS, s.pw._ts_shift_cache)),
    ),
    (f"shifted({SHIFT_TS}), uncached", 1, lambda s, d: (s.pw.shifted, (SHIFT_TS,))),
]


# -- checking -------------------------------------------------------------------


def comparable(result):
    """(kind, float64 values) of a result: a curve, an array or a scalar."""
    if isinstance(result, (InterestRate, BaselineCurve)):
        if result.is_constant:
            return "constant curve", np.array([result.rate])
        return "piecewise curve", np.concatenate([result.terms, result.rates])
    return type(result).__name__, np.asarray(result, dtype=np.float64)


def check_agreement(label, ours, base):
    (kind_o, v_o), (kind_b, v_b) = comparable(ours), comparable(base)
    same = kind_o == kind_b and v_o.shape == v_b.shape and np.allclose(v_o, v_b, rtol=1e-12, atol=0.0)
    if not same:
        raise AssertionError(f"{label}: ours ({kind_o} {v_o.shape}) and the baseline ({kind_b} {v_b.shape}) differ")


# -- memory ---------------------------------------------------------------------


def _proc_status_kib(field):
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise KeyError(field)


def memory_child(side_name, curve_name):
    """In a fresh process: peak extra bytes of one ``vn`` call on N durations, printed as JSON."""
    d = make_data()
    ours, base = make_sides(d)
    vn = getattr({"ours": ours, "baseline": base}[side_name], curve_name).vn
    vn(d.n[:1000])  # load lazily built state before measuring
    with open("/proc/self/clear_refs", "w") as refs:
        refs.write("5")  # reset VmHWM to the current resident set
    rss0 = _proc_status_kib("VmRSS")
    result = vn(d.n)
    rss_extra = (_proc_status_kib("VmHWM") - rss0) * 1024
    del result
    tracemalloc.start()
    traced0 = tracemalloc.get_traced_memory()[0]
    result = vn(d.n)
    traced_extra = tracemalloc.get_traced_memory()[1] - traced0
    tracemalloc.stop()
    print(json.dumps({"rss": rss_extra, "traced": traced_extra, "nbytes": result.nbytes}))


def measure_memory(side_name, curve_name):
    proc = subprocess.run(
        [sys.executable, __file__, "--memory-child", side_name, curve_name],
        capture_output=True,
        text=True,
        check=False,
    )
    if proc.returncode != 0 or not proc.stdout.strip():
        reason = (proc.stderr.strip().splitlines() or ["no output"])[-1]
        print(f"memory measurement of {side_name} {curve_name} failed: {reason}", file=sys.stderr)
        return None
    return json.loads(proc.stdout.splitlines()[-1])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="fewer and shorter repeats")
    parser.add_argument("--memory-child", nargs=2, metavar=("SIDE", "CURVE"), help=argparse.SUPPRESS)
    opts = parser.parse_args()
    if opts.memory_child:
        memory_child(*opts.memory_child)
        return
    repeats, min_time = (5, 0.05) if opts.quick else (7, 0.1)

    print_machine()
    d = make_data()
    print(
        f"curve   : {d.terms.size} segments over {d.terms.sum():.1f} years, rates in [0, 0.06]; "
        f"constant curve {CONSTANT_RATE}; durations uniform in [0, 60], seed {SEED}"
    )
    print(f"timing  : median of {repeats} interleaved repeats of >= {min_time * 1e3:.0f} ms each\n")

    ours, base = make_sides(d)
    calls = [(label, elements, make(ours, d), make(base, d)) for label, elements, make in CASES]
    for label, _, (f_o, a_o), (f_b, a_b) in calls:
        check_agreement(label, f_o(*a_o), f_b(*a_b))

    rows = []
    for label, elements, call_o, call_b in calls:
        t_o, t_b = time_sides([call_o, call_b], repeats, min_time)
        per_elem = ("", "")
        if elements > 1:
            per_elem = (f"{t_o / elements * 1e9:.2f}", f"{t_b / elements * 1e9:.2f}")
        rows.append((label, fmt_time(t_o), fmt_time(t_b), f"{t_b / t_o:.1f}x", *per_elem))
    print_table(("case", "ours", "baseline", "speed-up", "ns/elem ours", "ns/elem baseline"), rows)

    print("\npeak extra memory of one vn call on 1e6 durations, as a multiple of the result size (8 MB)")
    rows = []
    for curve_name in ("pw", "const"):
        for side_name in ("ours", "baseline"):
            m = measure_memory(side_name, curve_name)
            ratios = ("n/a", "n/a")
            if m is not None:
                ratios = (f"{m['rss'] / m['nbytes']:.2f}", f"{m['traced'] / m['nbytes']:.2f}")
            label = f"vn {'piecewise' if curve_name == 'pw' else 'constant'}, {side_name}"
            rows.append((label, *ratios))
    print_table(("case", "resident set (VmHWM)", "tracemalloc"), rows)


if __name__ == "__main__":
    main()
