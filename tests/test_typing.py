"""The hand-written stubs of the compiled modules stay in step with them.

Each ``.pyi`` is parsed with ``ast`` and compared with the built module: the
same names at module level and in every class, the same constants, the
same ``__slots__`` and, for nanobind's functions, the same parameters.
"""

from __future__ import annotations

import ast
import importlib
import re
from pathlib import Path

import pytest

import norvane

PACKAGE_DIR = Path(norvane.__file__).parent
MODULES = ("interest_rates", "_kernels")

# Dunders of InterestRate that belong to its interface.
INTEREST_RATE_DUNDERS = set("__init__ __eq__ __hash__ __str__ __repr__ __deepcopy__ __getstate__ __setstate__".split())


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


@pytest.mark.parametrize("module", MODULES)
def test_module_names_match_the_stub(module):
    assert (PACKAGE_DIR / "py.typed").is_file()
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


# ---------------------------------------------------------------- signatures
# stubtest cannot read nanobind's functions; their __nb_signature__ states
# each parameter's name, kind and default, which the stub must repeat.

REQUIRED = object()  # a parameter without a default
UNSTATED = object()  # a stub default written as ``...``


def stub_parameters(node: ast.FunctionDef) -> list[tuple[str | None, str, object]]:
    """(name, kind, default) per parameter; positional-only names are free, so None."""
    args = node.args
    positional = args.posonlyargs + args.args
    defaults = [REQUIRED] * (len(positional) - len(args.defaults)) + args.defaults + args.kw_defaults
    kinds = ["positional-only"] * len(args.posonlyargs) + ["positional"] * len(args.args)
    kinds += ["keyword-only"] * len(args.kwonlyargs)
    out = []
    for arg, kind, default in zip(positional + args.kwonlyargs, kinds, defaults):
        if default is None:
            default = REQUIRED
        elif isinstance(default, ast.Constant) and default.value is ...:
            default = UNSTATED
        elif isinstance(default, ast.AST):
            default = ast.literal_eval(default)
        out.append((None if kind == "positional-only" else arg.arg, kind, default))
    out += [(arg.arg, star, REQUIRED) for star, arg in (("*", args.vararg), ("**", args.kwarg)) if arg]
    return out


def runtime_parameters(signature: str, defaults: tuple[object, ...] | None) -> list[tuple[str | None, str, object]]:
    """The same from a nanobind signature, ``def f(a: T, *, b: T = \\0) -> R``; the types
    are skipped (nanobind writes arrays in a notation of its own)."""
    inside = signature[signature.index("(") + 1 : signature.rindex(") ->")]
    items, depth, start = [], 0, 0
    for i, char in enumerate(inside + ","):
        depth += (char in "([{") - (char in ")]}")
        if char == "," and depth == 0:
            items.append(inside[start:i].strip())
            start = i + 1
    slash = items.index("/") if "/" in items else 0
    out, kind = [], "positional"
    for i, item in enumerate(items):
        if item in ("/", "*"):
            kind = "keyword-only" if item == "*" else kind
            continue
        stars, name = re.match(r"(\**)(\w+)", item).groups()
        default = re.search(r" = \\(\d+)$", item)
        if stars:
            out.append((name, stars, REQUIRED))
            kind = "keyword-only"
        elif i < slash:
            out.append((None, "positional-only", REQUIRED if default is None else defaults[int(default[1])]))
        else:
            out.append((name, kind, REQUIRED if default is None else defaults[int(default[1])]))
    return out


def native_functions() -> list[tuple[str, str]]:
    """(module, dotted name) of every nanobind function or method the stubs declare."""
    found = []
    for module in MODULES:
        owners = [(None, bound_names(stub_body(module)))]
        owners += [(name, bound_names(node.body)) for name, node in stub_classes(module).items()]
        for class_name, stub in owners:
            runtime = vars(runtime_owner(module, class_name))
            for name in stub:
                func = getattr(runtime.get(name), "__func__", runtime.get(name))  # a classmethod's function
                if hasattr(func, "__nb_signature__"):
                    found.append((module, name if class_name is None else f"{class_name}.{name}"))
    return found


def names_and_kinds(parameters: list[tuple[str | None, str, object]]) -> str:
    return repr([(name, kind) for name, kind, _ in parameters])


@pytest.mark.parametrize(("module", "qualname"), native_functions())
def test_native_signatures_match_the_stub(module, qualname):
    class_name, _, name = qualname.rpartition(".")
    func = vars(runtime_owner(module, class_name or None))[name]
    runtime = [
        runtime_parameters(sig, defaults) for sig, _, defaults in getattr(func, "__func__", func).__nb_signature__
    ]
    body = stub_classes(module)[class_name].body if class_name else stub_body(module)
    stubs = [stub_parameters(node) for node in body if isinstance(node, ast.FunctionDef) and node.name == name]
    assert {names_and_kinds(p) for p in stubs} == {names_and_kinds(p) for p in runtime}
    if len(stubs) == len(runtime) == 1:  # overloads may state defaults differently
        for (param, _, stub_default), (_, _, runtime_default) in zip(stubs[0], runtime[0]):
            if stub_default is not UNSTATED:
                assert (stub_default is REQUIRED) == (runtime_default is REQUIRED), param
                if stub_default is not REQUIRED:
                    assert stub_default == runtime_default, param
