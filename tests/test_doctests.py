"""Every docstring example (``>>>``) of the installed package runs as written.

Modules are imported from the installed package, extension modules included,
so the examples in the C++ bindings' docstrings are checked as users see them.
"""

import doctest
import importlib
import io
import pkgutil

import pytest

import norvane

MODULES = ["norvane", *sorted(m.name for m in pkgutil.walk_packages(norvane.__path__, "norvane."))]


@pytest.mark.parametrize("name", MODULES)
def test_docstring_examples_run_as_written(name):
    try:
        module = importlib.import_module(name)
    except ImportError as exc:  # an optional extra (e.g. dask) is not installed
        pytest.skip(str(exc))
    out = io.StringIO()
    runner = doctest.DocTestRunner(optionflags=doctest.ELLIPSIS | doctest.NORMALIZE_WHITESPACE)
    for test in doctest.DocTestFinder().find(module):
        runner.run(test, out=out.write)
    assert runner.failures == 0, out.getvalue()
    # The finder must see into the extension: a silent zero would check nothing.
    assert runner.tries > 0 or name != "norvane.interest_rates"
