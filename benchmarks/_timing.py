"""The timing harness every benchmark script shares: calibrated loops, interleaved repeats, reports."""

from __future__ import annotations

import gc
import os
import platform
import statistics
import time
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np

import norvane

Side = tuple[Callable[..., Any], Sequence[Any]]


def run(func: Callable[..., Any], args: Sequence[Any], loops: int) -> float:
    """Seconds per call over ``loops`` calls, with the garbage collector off as timeit does."""
    gc.disable()
    try:
        start = time.perf_counter()
        for _ in range(loops):
            func(*args)
        return (time.perf_counter() - start) / loops
    finally:
        gc.enable()


def calibrate(func: Callable[..., Any], args: Sequence[Any], min_time: float) -> int:
    """Number of calls that lasts at least ``min_time`` seconds (the calibration warms the call up)."""
    loops = 1
    while (per_call := run(func, args, loops)) * loops < min_time:
        loops = max(loops * 2, int(1.2 * min_time / max(per_call, 1e-9)))
    return loops


def time_sides(sides: Sequence[Side], repeats: int, min_time: float) -> list[float]:
    """Median seconds per call of each (function, args) side, repeats interleaved to share any drift."""
    loops = [calibrate(*side, min_time) for side in sides]
    samples: list[list[float]] = [[] for _ in sides]
    for _ in range(repeats):
        for side, n_loops, out in zip(sides, loops, samples, strict=True):
            out.append(run(*side, n_loops))
    return [statistics.median(s) for s in samples]


def median_time(call: Callable[[], Any], repeats: int) -> float:
    """Median wall time of ``repeats`` single calls (for calls of a second or more)."""
    times = []
    for _ in range(repeats):
        started = time.perf_counter()
        call()
        times.append(time.perf_counter() - started)
    return statistics.median(times)


def fmt_time(seconds: float) -> str:
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= scale:
            return f"{seconds / scale:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"


def print_machine() -> None:
    cpu = platform.processor()
    try:
        with open("/proc/cpuinfo") as info:
            cpu = next(line.split(":", 1)[1].strip() for line in info if line.startswith("model name"))
    except (OSError, StopIteration):
        pass
    print(f"machine : {platform.platform()}, {cpu or 'unknown CPU'}, {os.cpu_count()} CPUs")
    print(f"python  : {platform.python_version()}, numpy {np.__version__}, norvane {norvane.__version__}")


def print_table(header: Sequence[Any], rows: Sequence[Sequence[Any]]) -> None:
    """Fixed-width table, the first column left-aligned, the others right-aligned."""
    widths = [max(len(str(row[i])) for row in [header, *rows]) for i in range(len(header))]

    def line(row: Sequence[Any]) -> str:
        cells = [str(c).rjust(w) for c, w in zip(row, widths, strict=True)]
        cells[0] = str(row[0]).ljust(widths[0])
        return "  ".join(cells).rstrip()

    print(line(header))
    print("  ".join("-" * w for w in widths))
    for row in rows:
        print(line(row))
