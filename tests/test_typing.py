"""The hand-written stubs of the compiled modules stay in step with them.

Each ``.pyi`` is parsed with ``ast`` and compared with the built module: the
same names at module level and in every class, the same constants and the
same ``__slots__``.
"""

from __future__ import annotations

import ast
import importlib
from pathlib import Path

import pytest

import norvane

PACKAGE_DIR = Path(norvane.__file__).parent
MODULES = ("interest_rates", "_kernels")

# Dunders of InterestRate that belong to its interface.
INTEREST_RATE_DUNDERS = {
    "__init__",
    "__eq__",
    "__hash__",
    "__str__",
    "__repr__",
    "__deepcopy__",
    "__getstate__",
    "__setstate__",
}


def stub_body(module: str) -> list[ast.stmt]:
    return ast.parse((PACKAGE_DIR / f"{module}.pyi").read_text(encoding="utf-8")).body


def stub_classes(module: str) -> dict[str, ast.ClassDef]:
    return {node.name: node for node in stub_body(module) if isinstance(node, ast.ClassDef)}


def bound_names(body: list[ast.stmt]) -> dict[str, ast.stmt]:
    """Names a stub body binds; of the imports only the ``import x as x`` re-exports count."""
    names: dict[str, ast.stmt] = {}
    for node in body:
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            names[node.name] = node
        elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
            names[node.target.id] = node
        elif isinstance(node, ast.Assign):
            names.update((t.id, node) for t in node.targets if isinstance(t, ast.Name))
        elif isinstance(node, ast.ImportFrom):
            names.update((a.name, node) for a in node.names if a.asname == a.name)
    return names


def runtime_owner(module: str, class_name: str | None) -> object:
    mod = importlib.import_module(f"norvane.{module}")
    return mod if class_name is None else getattr(mod, class_name)


# --------------------------------------------------------------------------


def test_py_typed_marker_ships_with_the_package():
    assert (PACKAGE_DIR / "py.typed").is_file()


@pytest.mark.parametrize("module", MODULES)
def test_module_names_match_the_stub(module):
    mod = runtime_owner(module, None)
    stub = set(bound_names(stub_body(module)))
    assert {name for name in dir(mod) if not name.startswith("__")} - stub == set(), "missing from the stub"
    assert {name for name in stub if not hasattr(mod, name)} == set(), "only in the stub"
    for node in stub_body(module):  # constants whose value the stub states
        if isinstance(node, ast.AnnAssign) and isinstance(node.value, (ast.Constant, ast.Tuple)):
            assert ast.literal_eval(node.value) == getattr(mod, node.target.id), node.target.id
    own_classes = {n for n, v in vars(mod).items() if isinstance(v, type) and v.__module__ == mod.__name__}
    assert own_classes == set(stub_classes(module))


CLASSES = [(module, name) for module in MODULES for name in stub_classes(module)]


@pytest.mark.parametrize(("module", "class_name"), CLASSES)
def test_class_members_match_the_stub(module, class_name):
    cls = runtime_owner(module, class_name)
    stub = bound_names(stub_classes(module)[class_name].body)
    own = {name for klass in cls.__mro__ if klass.__module__ != "builtins" for name in vars(klass)}
    required = {name for name in dir(cls) if not name.startswith("__") and name in own} | {"__init__"}
    if class_name == "InterestRate":
        required |= INTEREST_RATE_DUNDERS
    assert required - set(stub) == set(), "missing from the stub"
    assert {name for name in stub if not hasattr(cls, name)} == set(), "only in the stub"
    if "__slots__" in vars(cls):
        assert ast.literal_eval(stub["__slots__"].value) == cls.__slots__
