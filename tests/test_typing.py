"""The hand-written stubs of the compiled modules stay in step with them.

Each ``.pyi`` is parsed with ``ast`` and compared with the built module: the
same names at module level and in every class, the same ``__slots__``, the
same kind of member (static, class method, property, setter), and for every
function the parameter names, kinds and defaults that nanobind records.
"""

from __future__ import annotations

import ast
import importlib
import inspect
import re
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

MISSING = object()
POS_ONLY = inspect.Parameter.POSITIONAL_ONLY
POS_OR_KW = inspect.Parameter.POSITIONAL_OR_KEYWORD
KW_ONLY = inspect.Parameter.KEYWORD_ONLY


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


def decorators(node: ast.FunctionDef) -> set[str]:
    return {ast.unparse(d) for d in node.decorator_list}


def functions(body: list[ast.stmt]) -> list[ast.FunctionDef]:
    """The functions of a body, properties and their setters left out."""
    return [
        node
        for node in body
        if isinstance(node, ast.FunctionDef)
        and not any(d == "property" or d.endswith(".setter") for d in decorators(node))
    ]


def split_top_level(text: str) -> list[str]:
    parts, depth, current = [], 0, ""
    for ch in text:
        depth += (ch in "([{") - (ch in ")]}")
        if ch == "," and depth == 0:
            parts.append(current.strip())
            current = ""
        else:
            current += ch
    return [p for p in [*parts, current.strip()] if p]


def runtime_params(func: object) -> list[tuple[str, inspect._ParameterKind, object]]:
    """(name, kind, default) of each parameter, from nanobind's recorded signature
    (or Python's, for the functions the extension installs from a sibling)."""
    if not hasattr(func, "__nb_signature__"):
        return [
            (p.name, p.kind, MISSING if p.default is p.empty else p.default)
            for p in inspect.signature(func).parameters.values()
        ]
    (signature,) = func.__nb_signature__  # type: ignore[attr-defined]
    text, _doc, defaults = signature
    params, kind = [], POS_OR_KW
    for part in split_top_level(text[text.index("(") + 1 : text.rindex(") ->")]):
        if part == "/":
            params = [(name, POS_ONLY, default) for name, _, default in params]
        elif part == "*":
            kind = KW_ONLY
        else:
            ref = re.search(r"= \\(\d+)$", part)
            name = re.split(r"[:=]", part, maxsplit=1)[0].strip()
            params.append((name, kind, defaults[int(ref.group(1))] if ref else MISSING))
    return params


def stub_params(node: ast.FunctionDef) -> list[tuple[str, inspect._ParameterKind, object]]:
    args = node.args
    positional = [(a.arg, POS_ONLY) for a in args.posonlyargs] + [(a.arg, POS_OR_KW) for a in args.args]
    defaults = [MISSING] * (len(positional) - len(args.defaults)) + [ast.literal_eval(d) for d in args.defaults]
    params = [(name, kind, default) for (name, kind), default in zip(positional, defaults)]
    params += [
        (a.arg, KW_ONLY, MISSING if d is None else ast.literal_eval(d))
        for a, d in zip(args.kwonlyargs, args.kw_defaults)
    ]
    return params


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
    required = {name for name in dir(cls) if not name.startswith("__")} | {"__init__"}
    if class_name == "InterestRate":
        required |= INTEREST_RATE_DUNDERS
    assert required - set(stub) == set(), "missing from the stub"
    assert {name for name in stub if not hasattr(cls, name)} == set(), "only in the stub"
    if "__slots__" in vars(cls):
        assert ast.literal_eval(stub["__slots__"].value) == cls.__slots__


SIGNATURES = [
    pytest.param(module, class_name, fn, id=f"{module}.{class_name or ''}.{fn.name}")
    for module in MODULES
    for class_name, body in [(None, stub_body(module))] + [(n, c.body) for n, c in stub_classes(module).items()]
    for fn in functions(body)
]


@pytest.mark.parametrize(("module", "class_name", "node"), SIGNATURES)
def test_signatures_match_the_stub(module, class_name, node):
    owner = runtime_owner(module, class_name)
    raw = vars(owner)[node.name] if class_name else getattr(owner, node.name)
    runtime = runtime_params(getattr(raw, "__func__", raw))
    stub = stub_params(node)

    # Positional-only names are not part of the interface; their number is.
    def shape(params):
        return [(kind, None if kind is POS_ONLY else name) for name, kind, _ in params]

    assert shape(stub) == shape(runtime)
    overloaded = "overload" in decorators(node)
    for (name, _, stub_default), (_, _, runtime_default) in zip(stub, runtime):
        if stub_default is not MISSING:
            assert stub_default == runtime_default, name
        elif not overloaded:  # an overload may make a parameter required to select a result type
            assert runtime_default is MISSING, name
