"""Sphinx configuration of norvane's documentation site.

Build (from the repository root, warnings as errors, every reference checked):

    python -m sphinx -W --keep-going -n -b html docs docs/_build/html
"""

from __future__ import annotations

import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE / "_ext"))

import norvane  # noqa: E402  (the installed package: its extensions are built, not read from src/)

project = "norvane"
author = "The norvane developers"
copyright = "the norvane developers"
release = norvane.__version__
version = ".".join(release.split(".")[:2])

extensions = [
    "myst_nb",  # Markdown pages (it loads myst_parser) and executed {code-cell}s
    "sphinx.ext.autodoc",
    "sphinx.ext.autosummary",
    "sphinx.ext.napoleon",
    "sphinx.ext.mathjax",
    "apicheck",  # fails the build when a public name has no docstring or no reference entry
    "autodoc_tweaks",  # how autodoc and napoleon read this package (see the module)
]

# .rst first: autosummary writes its generated pages in the first suffix, and they are reST.
source_suffix = {".rst": "restructuredtext", ".md": "myst-nb"}
root_doc = "index"
exclude_patterns = ["_build", "jupyter_execute", ".jupyter_cache", "**.ipynb_checkpoints", "Thumbs.db", ".DS_Store"]
templates_path = ["_templates"]

# Markdown: $...$ and $$...$$ for formulas, ::: fences for directives, anchors on headings so that
# pages can link to sections of other pages ([text](page.md#section)).
myst_enable_extensions = ["dollarmath", "amsmath", "colon_fence", "deflist"]
myst_heading_anchors = 3

# Every code cell runs at every build: the pages show what this version computes, and a cell
# that raises fails the build. No cache, so a change of the library cannot hide behind old outputs.
nb_execution_mode = "force"
nb_execution_raise_on_error = True
nb_execution_timeout = 180
nb_execution_show_tb = True
nb_merge_streams = True

# The API reference: autosummary writes one page per class and function (into api/generated/,
# rebuilt at every build); autodoc reads the docstrings, napoleon their NumPy sections.
autosummary_generate = True
autosummary_generate_overwrite = True
# A class page (docs/_templates/autosummary/class.rst) documents the class's members, those
# inherited from norvane's own classes included (Life's annuities come from the status base it
# shares with JointLife), those of Python's builtins not.
autodoc_default_options = {"member-order": "bysource"}
autodoc_typehints = "signature"
autodoc_preserve_defaults = True
napoleon_numpy_docstring = True
napoleon_google_docstring = False
napoleon_use_rtype = False
napoleon_preprocess_types = True
napoleon_use_ivar = True

# Nitpicky mode (-n) checks every reference. Our own names must resolve: a docstring's types
# name our classes bare ("InterestRate", "GrowthRate"), so each public class is mapped to its
# entry in the reference. Types of other packages cannot resolve, since their inventories are
# not reachable offline, and neither can the informal type words of NumPy docstrings
# ("array_like", "sequence of float", "ndarray, shape (n,)"): those are ignored by pattern,
# while a capitalised name that is no known external type still fails the build.
PUBLIC_CLASS_MODULES = (
    "norvane.interest_rates",
    "norvane.curves",
    "norvane.risk",
    "norvane.cashflows",
    "norvane.mortality",
    "norvane.portfolio",
    "norvane.config",
    "norvane.growth_rates",
    "norvane.helpers",
)


def _public_classes() -> dict[str, str]:
    import importlib
    import inspect

    found = {}
    for modname in PUBLIC_CLASS_MODULES:
        module = importlib.import_module(modname)
        names = getattr(module, "__all__", None) or [n for n in dir(module) if not n.startswith("_")]
        for name in names:
            if not name.startswith("_") and inspect.isclass(getattr(module, name)):
                found.setdefault(name, f"{modname}.{name}")
    return found


_CLASSES = _public_classes()
napoleon_type_aliases = {name: f":class:`~{target}`" for name, target in _CLASSES.items()}
nitpick_ignore = [("py:obj", "True"), ("py:obj", "False")]
nitpick_ignore_regex = [
    # other packages, by module
    (r"py:.*", r"(numpy|np|pandas|pd|pyarrow|pa|polars|dask|distributed|matplotlib)\..*"),
    (r"py:.*", r"(pathlib|os|fractions|decimal|typing|collections\.abc|concurrent\.futures)\..*"),
    # other packages' types as docstrings and annotations name them
    ("py:class", r"ArrayLike|NDArray|DTypeLike|ndarray|DataFrame|Series|RecordBatchReader|RecordBatch|Dataset"),
    ("py:class", r"Path|PathLike|Sequence|Mapping|Iterable|Iterator|Callable|Fraction"),
    # informal type words: lower-case ("array_like", "sequence", "pyarrow Table") or prose
    # fragments that napoleon split at commas ("shape (rows", "k)")
    ("py:class", r"[a-z].*"),
    ("py:class", r".*[() ].*"),
]

html_theme = "furo"
html_title = f"norvane {release}"
html_static_path: list[str] = []
