"""How autodoc and napoleon read norvane: seven adjustments, each for a reason of this package.

- A constant has no docstring of its own: autodoc then shows its type's (``int([x]) ->
  integer``, ``Built-in immutable sequence.``). That text is dropped, so a constant shows its
  doc comment, or the description written under its ``autodata`` directive, or nothing (which
  ``apicheck`` reports).
- napoleon reads the first line of a property's or constant's docstring as ``type: text`` (a
  Google-style convention). norvane's docstrings are NumPy-style prose ("Days per year: the
  instance override, else the package Config."), so those are left to reST as written.
- A classmethod of a nanobind class (``InterestRate.from_export``) has ``__qualname__`` None,
  which napoleon's member filter cannot read; for those members autodoc's own decision stands.
- ``InterestRate`` (a nanobind class) names its public properties ``rate`` and ``scenarios``
  in ``__slots__``, beside its private slots. autodoc takes every name in ``__slots__`` for a
  slot attribute, whose documentation is the ``__slots__`` mapping's (none), and leaves them
  out. A name that the class dictionary maps to a property (impossible for a real slot of a
  Python class) is documented as the property it is.
- Private base classes (``norvane.mortality.lives._Status``, or any class of a private
  module) give way to their own bases in "Bases:": they have no page, and their public
  members are documented on each subclass.
- nanobind's signature lines name ``self`` (and a classmethod's ``cls: object``); they are
  left out of a method's signature, as autodoc does for Python methods. A classmethod's line
  has no name (``(cls: object, payload: object | None) -> object``), so autodoc neither
  reads it nor removes it from the text: it is shown as the call,
  ``from_export(payload: object | None) -> object``.
- NumPy's ``ArrayLike`` and ``NDArray[float64]`` keep their names in signatures instead of
  their expansions, and norvane's own aliases (``FractionalAgeLiteral``, ``Tables``) are
  qualified so that their references resolve from any page.
"""

from __future__ import annotations

import inspect
import re
from typing import Any

from sphinx.application import Sphinx
from sphinx.ext import napoleon

ATTRIBUTE_LIKE = frozenset({"attribute", "data", "property"})


def _drop_type_docstring(app: Sphinx, what: str, name: str, obj: Any, options: Any, lines: list[str]) -> None:
    if what not in ("data", "attribute") or not lines or inspect.isclass(obj) or inspect.isroutine(obj):
        return
    type_doc = getattr(type(obj), "__doc__", None)
    if isinstance(type_doc, str) and type_doc.strip():
        first = inspect.cleandoc(type_doc).splitlines()[0].strip()
        if lines[0].strip() == first:
            lines.clear()


def _is_private(cls: Any) -> bool:
    parts = [*getattr(cls, "__module__", "").split("."), getattr(cls, "__name__", "")]
    return any(part.startswith("_") for part in parts)


def _public_bases(app: Sphinx, name: str, obj: Any, options: Any, bases: list[Any]) -> None:
    public: list[Any] = []
    pending = list(bases)
    while pending:
        base = pending.pop(0)
        if _is_private(base):
            pending[:0] = list(getattr(base, "__bases__", ()))  # its own bases take its place
        elif base not in public:
            public.append(base)
    bases[:] = public


def _alias_names() -> list[tuple[str, str]]:
    """(expansion, name) of NumPy's typing aliases, as autodoc writes them into signatures."""
    import numpy as np
    from numpy.typing import ArrayLike, NDArray
    from sphinx.util.typing import stringify_annotation

    aliases = [(ArrayLike, "~numpy.typing.ArrayLike"), (NDArray[np.float64], "~numpy.typing.NDArray[~numpy.float64]")]
    return [(stringify_annotation(alias, "smart"), name) for alias, name in aliases]


def _signature(
    app: Sphinx, what: str, name: str, obj: Any, options: Any, signature: str | None, return_annotation: str | None
) -> tuple[str | None, str | None] | None:
    """Signatures as a reader wants them.

    nanobind writes ``self`` (and a classmethod's ``cls: object``) into the signature line of
    its docstrings, which autodoc shows as written: a method's signature leaves them out.
    autodoc expands ``ArrayLike`` into the union of a dozen private NumPy protocols, and
    ``NDArray[float64]`` into ``ndarray[tuple[Any, ...], dtype[float64]]``: the alias names
    are put back (``autodoc_type_aliases`` would keep them, but fails on ``Alias | None``
    in Sphinx 9).
    """
    new_signature, new_return = signature, return_annotation
    if what in ("method", "class", "exception") and new_signature:
        new_signature = re.sub(r"^\((self|cls)(: [^,)]*)?(, )?", "(", new_signature)
    for expansion, alias in ALIASES:
        if new_signature:
            new_signature = new_signature.replace(expansion, alias)
        if new_return:
            new_return = new_return.replace(expansion, alias)
    for bare, qualified in OWN_ALIASES.items():
        pattern = re.compile(rf"(?<![\w.~]){bare}(?!\w)")
        if new_signature:
            new_signature = pattern.sub(qualified, new_signature)
        if new_return:
            new_return = pattern.sub(qualified, new_return)
    if (new_signature, new_return) == (signature, return_annotation):
        return None
    return new_signature, new_return


ALIASES = _alias_names()
# norvane's own aliases, which a signature names bare when its annotation stayed a string: the
# reference to them is qualified, so it resolves from any page.
OWN_ALIASES = {
    "FractionalAgeLiteral": "~norvane.mortality.FractionalAgeLiteral",
    "GrowthKindLiteral": "~norvane.growth_rates.GrowthKindLiteral",
    "TermUnit": "~norvane.interest_rates.TermUnit",
    "Tables": "~norvane.portfolio.Tables",
}
NAMELESS = re.compile(r"^(\((?:self|cls)\b.*\))(?: -> (.+))?$")


def _name_the_signature(app: Sphinx, what: str, name: str, obj: Any, options: Any, lines: list[str]) -> None:
    """A nanobind classmethod's docstring starts with its signature without its name
    (``(cls: object, payload: object | None) -> object``), which autodoc neither reads nor
    removes (and its signature cannot be introspected): the line is shown as the call."""
    match = NAMELESS.match(lines[0]) if what == "method" and lines else None
    if match:
        arguments = re.sub(r"^\((self|cls)(: [^,)]*)?(, )?", "(", match.group(1))
        returns = f" -> {match.group(2)}" if match.group(2) else ""
        lines[0] = f"``{name.rsplit('.', 1)[-1]}{arguments}{returns}``"


def _properties_are_not_slots() -> None:
    from sphinx.ext.autodoc import importer  # where Sphinx 8 finds a class's members

    modules: list[Any] = [importer]
    try:
        from sphinx.ext.autodoc._dynamic import _member_finder  # and Sphinx 9
    except ImportError:
        pass
    else:
        modules.append(_member_finder)
    for module in modules:
        getslots = getattr(module, "getslots", None)
        if getslots is None:
            continue  # nothing to adjust there; apicheck reports the properties if they go missing

        def slots_without_properties(obj: Any, _getslots: Any = getslots) -> dict[str, Any] | None:
            slots = _getslots(obj)
            if slots and inspect.isclass(obj):
                slots = {name: doc for name, doc in slots.items() if not isinstance(obj.__dict__.get(name), property)}
            return slots

        module.getslots = slots_without_properties


def setup(app: Sphinx) -> dict[str, Any]:
    _properties_are_not_slots()
    app.setup_extension("sphinx.ext.autodoc")
    app.setup_extension("sphinx.ext.napoleon")
    listeners = app.events.listeners
    for listener in list(listeners["autodoc-process-docstring"]):
        if listener.handler is napoleon._process_docstring:
            app.disconnect(listener.id)

            def process_docstring(app, what, name, obj, options, lines, _napoleon=listener.handler):
                if what not in ATTRIBUTE_LIKE:
                    _napoleon(app, what, name, obj, options, lines)

            app.connect("autodoc-process-docstring", process_docstring, priority=listener.priority)
    for listener in list(listeners["autodoc-skip-member"]):
        if listener.handler is napoleon._skip_member:
            app.disconnect(listener.id)

            def skip_member(app, what, name, obj, skip, options, _napoleon=listener.handler):
                if not isinstance(getattr(obj, "__qualname__", ""), str):
                    return None
                return _napoleon(app, what, name, obj, skip, options)

            app.connect("autodoc-skip-member", skip_member, priority=listener.priority)
    app.connect("autodoc-process-docstring", _drop_type_docstring, priority=400)
    app.connect("autodoc-process-docstring", _name_the_signature, priority=400)
    app.connect("autodoc-process-bases", _public_bases)
    app.connect("autodoc-process-signature", _signature)
    return {"version": "1", "parallel_read_safe": True, "parallel_write_safe": True}
