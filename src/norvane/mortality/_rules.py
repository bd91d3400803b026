"""What tables and lives share, below both modules so that neither imports the other at load:
the fractional-age rules and the base class of tables."""

from __future__ import annotations

from typing import Any, Literal

FractionalAgeLiteral = Literal["udd", "constant_force", "balducci"]
_RULES: tuple[str, ...] = ("udd", "constant_force", "balducci")


def _check_rule(rule: Any, method_name: str) -> str:
    if not isinstance(rule, str) or rule not in _RULES:
        raise ValueError(f"[{method_name}] 'fractional_age' must be one of {_RULES}, got {rule!r}.")
    return rule


class TableBase:
    """The base of mortality tables (MortalityTable is the one kind): what a life checks its table against."""

    __slots__ = ()
