"""The mortality tables a book's life records name."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass

from ..mortality import BUNDLED_TABLES, GenerationalTable, MortalityTable, bundled_table

# The table of life records without a "table" cell when no tables are given.
DEFAULT_TABLE = "makeham_20_120"


@dataclass(frozen=True)
class BookTables:
    """Tables by name, and the name of the one for records without a "table" cell."""

    tables: dict[str, MortalityTable | GenerationalTable]
    default: str


def book_tables(tables: Mapping[str, MortalityTable | GenerationalTable] | None = None) -> BookTables:
    """The given tables (the first of them is the default) and the bundled ones by their names.

    A given table hides a bundled one of the same name. Without given tables the default is
    the bundled DEFAULT_TABLE.
    """
    if tables is not None and not isinstance(tables, Mapping):
        raise TypeError(f"tables must be a mapping of names to MortalityTable objects, got {type(tables).__name__}")
    given = dict(tables or {})
    for name, table in given.items():
        if not isinstance(name, str) or not name.strip() or name != name.strip():
            raise ValueError(f"table names must be non-empty texts without surrounding spaces, got {name!r}")
        if not isinstance(table, (MortalityTable, GenerationalTable)):
            raise TypeError(
                f"table {name!r} must be a MortalityTable or a GenerationalTable, got {type(table).__name__}"
            )
    bundled = {name: bundled_table(name) for name in BUNDLED_TABLES if name not in given}
    return BookTables({**given, **bundled}, next(iter(given), DEFAULT_TABLE))
