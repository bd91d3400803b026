#!/usr/bin/env bash
# Build the extensions with AddressSanitizer and UndefinedBehaviorSanitizer in a
# virtual environment and build directory of their own, and run the whole test
# suite against them. Any sanitizer report stops the run with a non-zero status.
#
#   tools/sanitize.sh [pytest arguments]   (default: the whole suite)
#
# NORVANE_SANITIZE_VENV and NORVANE_SANITIZE_BUILD choose the two directories
# (default build/sanitize-venv and build/sanitize); both are rebuilt from scratch.
set -euo pipefail
cd "$(dirname "$0")/.."
export CMAKE_BUILD_PARALLEL_LEVEL="${CMAKE_BUILD_PARALLEL_LEVEL:-2}"
venv="${NORVANE_SANITIZE_VENV:-build/sanitize-venv}"
build="${NORVANE_SANITIZE_BUILD:-build/sanitize}"

rm -rf "$venv" "$build"
python3 -m venv "$venv"
# shellcheck disable=SC1091
source "$venv/bin/activate"
python -m pip install -q --upgrade pip
pip install -q ".[test]" -Ccmake.define.NORVANE_SANITIZE=ON -Cbuild-dir="$build"

# CPython is not built with ASan, so its runtime must be loaded first, and
# libstdc++ with it so that ASan can intercept C++ throws. CPython leaks by
# design at exit, hence no leak detection; the first report aborts.
asan="$(c++ -print-file-name=libasan.so)"
[[ -f "$asan" ]] || { echo "sanitize.sh: the compiler has no libasan.so (install its ASan runtime)" >&2; exit 2; }
LD_PRELOAD="$asan $(c++ -print-file-name=libstdc++.so)"
export LD_PRELOAD
export ASAN_OPTIONS="detect_leaks=0:abort_on_error=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
# Arrow's bundled allocator would hide its memory from ASan: use the system one.
export ARROW_DEFAULT_MEMORY_POOL=system
# tests/ imports the installed, instrumented package (the sources under src/ are not on the path).
# --capture=sys leaves the process's stderr alone, so a report reaches the terminal.
exec python -m pytest -q -p no:cacheprovider --capture=sys "$@"
