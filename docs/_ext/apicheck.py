"""Fail the documentation build when a public name has no docstring or no reference entry.

The public names are every name in ``__all__`` of the public modules (names with a leading
underscore stay private even when listed) and the public methods and properties of the public
classes, inherited ones included when they come from norvane's own classes (InterestRate's
come from the extension). Each must

- have a docstring of its own: a function, class, method or property whose ``__doc__`` is
  missing, empty, only a signature line (nanobind writes one), inherited from a builtin, or the
  placeholder a dataclass or named tuple writes, is reported;
- have an entry in the API reference whose description is not empty. Constants and type aliases
  carry no ``__doc__``: their description is a doc comment (``#:``) or string beside the
  assignment, or the content of their ``autodata`` directive in ``docs/api/``.

Each fault is a warning of type ``norvane.api``, so ``-W`` fails the build and ``--keep-going``
lists all of them first.
"""

from __future__ import annotations

import functools
import importlib
import inspect
from typing import Any

from docutils import nodes
from sphinx import addnodes
from sphinx.application import Sphinx
from sphinx.environment import BuildEnvironment
from sphinx.util import logging

logger = logging.getLogger(__name__)

# Module -> names to check besides its __all__ (norvane.cli has no __all__: its one public
# entry is main).
PUBLIC_MODULES: dict[str, tuple[str, ...]] = {
    "norvane.interest_rates": (),
    "norvane.curves": (),
    "norvane.risk": (),
    "norvane.cashflows": (),
    "norvane.mortality": (),
    "norvane.portfolio": (),
    "norvane.dask": (),
    "norvane.config": (),
    "norvane.growth_rates": (),
    "norvane.cli": ("main",),
}


def _own_doc(obj: Any) -> str | None:
    """The docstring that belongs to ``obj``, or None when it has none of its own."""
    if isinstance(obj, (classmethod, staticmethod)):
        obj = obj.__func__
    if isinstance(obj, property):
        doc = obj.__doc__  # the getter's, unless the property was given one
        return (inspect.cleandoc(doc).strip() or None) if isinstance(doc, str) else None
    if isinstance(obj, functools.cached_property):
        obj = obj.func
    if inspect.isclass(obj):
        doc = obj.__dict__.get("__doc__")
        # A dataclass or named tuple without a docstring gets "Name(field, ...)" written for it.
        if isinstance(doc, str) and "\n" not in doc.strip() and doc.startswith(f"{obj.__name__}("):
            return None
    else:
        doc = getattr(obj, "__doc__", None)
        if doc is not None and doc == getattr(type(obj), "__doc__", None) and not inspect.isroutine(obj):
            return None  # a constant's __doc__ is its type's
    if not isinstance(doc, str):
        return None
    lines = inspect.cleandoc(doc).splitlines()
    name = getattr(obj, "__name__", None) or ""
    # nanobind starts a docstring with the signature: "name(self, ...) -> type" (a classmethod's
    # has no name: "(cls: object, ...) -> type").
    starts = ("(", f"{name}(") if name else ("(",)
    if lines and lines[0].startswith(starts) and ")" in lines[0]:
        lines = lines[1:]
    text = "\n".join(lines).strip()
    return text or None


def _is_method_or_property(raw: Any) -> bool:
    if isinstance(raw, (property, functools.cached_property, classmethod, staticmethod)):
        return True
    if inspect.isgetsetdescriptor(raw):
        return True
    return callable(raw) and not inspect.isclass(raw)


def _public_members(cls: type) -> dict[str, Any]:
    """Public methods and properties of ``cls``, as its class dictionaries hold them."""
    members: dict[str, Any] = {}
    for name in dir(cls):
        if name.startswith("_"):
            continue
        for klass in cls.__mro__:
            if name in klass.__dict__:
                raw = klass.__dict__[name]
                if klass.__module__.startswith("norvane") and _is_method_or_property(raw):
                    members[name] = raw
                break
    return members


def public_names() -> dict[str, tuple[Any, bool]]:
    """Qualified name -> (object, whether it must have a docstring of its own)."""
    found: dict[str, tuple[Any, bool]] = {}
    for modname, extra in PUBLIC_MODULES.items():
        module = importlib.import_module(modname)
        names = [n for n in getattr(module, "__all__", ()) if not n.startswith("_")] + list(extra)
        for name in names:
            obj = getattr(module, name)
            qualified = f"{modname}.{name}"
            code = inspect.isclass(obj) or inspect.isroutine(obj)
            found[qualified] = (obj, code)
            if inspect.isclass(obj):
                for member, raw in _public_members(obj).items():
                    found[f"{qualified}.{member}"] = (raw, True)
    return found


def _collect(app: Sphinx, doctree: nodes.document) -> None:
    """Record every Python object described on the page and whether its description says anything."""
    env = app.env
    entries = env.norvane_api_entries.setdefault(env.docname, {})  # type: ignore[attr-defined]
    for desc in doctree.findall(addnodes.desc):
        if desc.get("domain") != "py" or desc.get("no-index") or desc.get("noindex"):
            continue
        # The entry's own text: the description of a class, not of the members nested in it.
        content = next((c for c in desc.children if isinstance(c, addnodes.desc_content)), None)
        own = [] if content is None else [c.astext() for c in content.children if not isinstance(c, addnodes.desc)]
        # autodoc writes "alias of Literal[...]" under a type alias: that is its value, not a description.
        described = any(text.strip() and not text.startswith("alias of ") for text in own)
        for sig in desc.findall(addnodes.desc_signature):
            module, fullname = sig.get("module"), sig.get("fullname")
            if fullname:
                name = f"{module}.{fullname}" if module else fullname
                entries[name] = entries.get(name, False) or described


def _init(app: Sphinx, env: BuildEnvironment, docnames: list[str] | set[str]) -> None:
    if not hasattr(env, "norvane_api_entries"):
        env.norvane_api_entries = {}  # type: ignore[attr-defined]


def _purge(app: Sphinx, env: BuildEnvironment, docname: str) -> None:
    getattr(env, "norvane_api_entries", {}).pop(docname, None)


def _merge(app: Sphinx, env: BuildEnvironment, docnames: set[str], other: BuildEnvironment) -> None:
    if not hasattr(env, "norvane_api_entries"):
        env.norvane_api_entries = {}  # type: ignore[attr-defined]
    for docname in docnames:
        env.norvane_api_entries[docname] = other.norvane_api_entries.get(docname, {})  # type: ignore[attr-defined]


def _check(app: Sphinx, env: BuildEnvironment) -> None:
    described: dict[str, bool] = {}
    for entries in getattr(env, "norvane_api_entries", {}).values():
        for name, says in entries.items():
            described[name] = described.get(name, False) or says
    for name, (obj, code) in sorted(public_names().items()):
        if code and _own_doc(obj) is None:
            logger.warning("public name %s has no docstring", name, type="norvane", subtype="api")
        if name not in described:
            logger.warning("public name %s has no entry in the API reference", name, type="norvane", subtype="api")
        elif not described[name]:
            logger.warning(
                "public name %s has an empty entry in the API reference (document it)",
                name,
                type="norvane",
                subtype="api",
            )


def setup(app: Sphinx) -> dict[str, Any]:
    app.connect("env-before-read-docs", _init)
    app.connect("env-purge-doc", _purge)
    app.connect("env-merge-info", _merge)
    app.connect("doctree-read", _collect)
    app.connect("env-check-consistency", _check)
    return {"version": "1", "parallel_read_safe": True, "parallel_write_safe": True, "env_version": 1}
