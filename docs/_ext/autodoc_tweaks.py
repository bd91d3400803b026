"""How autodoc and napoleon read norvane: six adjustments, each for a reason of this package.

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
  left out of a method's signature, as autodoc does for Python methods.
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


def _no_self(
    app: Sphinx, what: str, name: str, obj: Any, options: Any, signature: str | None, return_annotation: str | None
) -> tuple[str | None, str | None] | None:
    """nanobind writes ``self`` (and a classmethod's ``cls: object``) into the signature line of
    its docstrings, which autodoc shows as written; a method's signature leaves them out."""
    if what not in ("method", "class", "exception") or not signature:
        return None
    trimmed = re.sub(r"^\((self|cls)(: [^,)]*)?(, )?", "(", signature)
    return (trimmed, return_annotation) if trimmed != signature else None


def _properties_are_not_slots() -> None:
    from sphinx.ext.autodoc._dynamic import _member_finder

    getslots = _member_finder.getslots

    def slots_without_properties(obj: Any) -> dict[str, Any] | None:
        slots = getslots(obj)
        if slots and inspect.isclass(obj):
            slots = {name: doc for name, doc in slots.items() if not isinstance(obj.__dict__.get(name), property)}
        return slots

    _member_finder.getslots = slots_without_properties


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
    app.connect("autodoc-process-bases", _public_bases)
    app.connect("autodoc-process-signature", _no_self)
    return {"version": "1", "parallel_read_safe": True, "parallel_write_safe": True}
