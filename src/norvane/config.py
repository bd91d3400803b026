"""Package-wide configuration of norvane.

``Config()`` always returns the same object, so a change made anywhere is seen
at once by every curve. Fields are validated when they are assigned and stored
as plain attributes, which keeps reads on the extension's hot paths cheap.
"""

from __future__ import annotations

import array
import threading
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from typing import Any, TypeGuard

import numpy as np

from .base import _NUMERIC_TYPES, Scalar
from .engine.base import _CALCULATION_MODES, CalculationModeLiteral

# Counts changes of any setting. Native code keeps what it derives from the
# settings while the count stands, and reads it from this buffer directly.
_CHANGES = array.array("Q", [0])
_CHANGES_LOCK = threading.Lock()  # "+=" is not atomic: two threads could count one change


def _changed() -> None:
    with _CHANGES_LOCK:
        _CHANGES[0] += 1


__all__ = [
    "_ALLOWED_DAYS_PER_YEAR",
    "_ALLOWED_WEEKS_PER_YEAR",
    "_calendar_constant_allowed",
    "Config",
    "Decimals",
]

_ALLOWED_DAYS_PER_YEAR: tuple[float, ...] = (360.0, 365.0, 365.25)
_ALLOWED_WEEKS_PER_YEAR: tuple[float, ...] = (52.0, 52.1775)

# Absolute tolerance when matching a calendar constant: wide enough for values
# that went through a round trip (JSON, unit conversion), far narrower than the
# gap between any two allowed constants.
_CALENDAR_TOLERANCE = 1e-9

_MAX_ANNUITY_DECIMALS = 15

_DEFAULTS: dict[str, Any] = {
    "days_per_year": 365.25,
    "weeks_per_year": 52.1775,
    "calculation_mode": "discrete_precision",
    "decimals": {"annuities": 10},
    "force_integer_ts": False,
}


def _is_real_number(value: object) -> TypeGuard[Scalar]:
    return isinstance(value, _NUMERIC_TYPES) and not isinstance(value, (bool, np.bool_))


def _calendar_constant_allowed(value: object, allowed: tuple[float, ...]) -> bool:
    """Tell whether ``value`` is one of the calendar constants in ``allowed``.

    Parameters
    ----------
    value : object
        Candidate number of days or weeks per year.
    allowed : tuple of float
        The accepted constants.

    Returns
    -------
    bool
        True when ``value`` is a real number (not a bool) within ``1e-9`` of a
        member of ``allowed``; False for anything else, NaN included.
    """
    if not _is_real_number(value):
        return False
    x = float(value)
    return any(abs(x - a) <= _CALENDAR_TOLERANCE for a in allowed)


def _snap_calendar_constant(field: str, value: object, allowed: tuple[float, ...]) -> float | None:
    if value is None:
        return None
    if not _is_real_number(value):
        raise TypeError(f"[Config] '{field}' must be a real number or None, got {type(value).__name__}")
    x = float(value)
    for a in allowed:
        if abs(x - a) <= _CALENDAR_TOLERANCE:
            # Store the exact constant so that conversions never carry the noise.
            return a
    raise ValueError(f"[Config] '{field}' must be one of {allowed} or None, got {value!r}")


def _checked_decimals(value: object) -> int:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"[Config] 'decimals.annuities' must be an int, got {type(value).__name__}")
    n = int(value)
    if not 0 <= n <= _MAX_ANNUITY_DECIMALS:
        raise ValueError(f"[Config] 'decimals.annuities' must be between 0 and {_MAX_ANNUITY_DECIMALS}, got {n}")
    return n


class Decimals:
    """Rounding settings of results.

    Parameters
    ----------
    annuities : int, default 10
        Decimals to which annuity present values are rounded, 0 to 15.

    Raises
    ------
    TypeError
        When ``annuities`` is not an int (booleans included).
    ValueError
        When ``annuities`` is outside 0..15.
    AttributeError
        When any other setting is assigned.
    """

    __slots__ = ("annuities",)

    annuities: int

    def __init__(self, annuities: int = _DEFAULTS["decimals"]["annuities"]) -> None:
        self.annuities = annuities

    def __setattr__(self, name: str, value: Any) -> None:
        if name != "annuities":
            raise AttributeError(f"Decimals has no setting '{name}'")
        object.__setattr__(self, name, _checked_decimals(value))
        _changed()

    def __repr__(self) -> str:
        return f"Decimals(annuities={self.annuities})"


def _checked_mode(value: object) -> str:
    if not isinstance(value, str):
        raise TypeError(f"[Config] 'calculation_mode' must be a str, got {type(value).__name__}")
    if value not in _CALCULATION_MODES:
        raise ValueError(f"[Config] 'calculation_mode' must be one of {_CALCULATION_MODES}, got {value!r}")
    return value


def _checked_flag(value: object) -> bool:
    if not isinstance(value, (bool, np.bool_)):
        raise TypeError(f"[Config] 'force_integer_ts' must be a bool, got {type(value).__name__}")
    return bool(value)


class Config:
    """The one configuration object of the package.

    ``Config()`` returns the same instance every time, so a change is seen at
    once by every curve.

    Attributes
    ----------
    days_per_year : float or None
        360.0, 365.0, 365.25 (default) or None ("not configured").
    weeks_per_year : float or None
        52.0, 52.1775 (default) or None.
    calculation_mode : str
        One of the four annuity calculation modes; "discrete_precision" by default.
    decimals : Decimals
        ``decimals.annuities`` (default 10) is the rounding of annuity
        results. Assigning a mapping such as ``{"annuities": 6}`` or another
        ``Decimals`` updates the existing object in place.
    force_integer_ts : bool
        Refuse non-integral valuation times in the annuity methods; False by default.

    Raises
    ------
    TypeError
        On assignment of a value of the wrong kind.
    ValueError
        On assignment of a value outside the accepted set.
    AttributeError
        On assignment of an unknown setting, or on deletion of any.

    Notes
    -----
    Reads are plain attribute reads. The object is process-global and not
    thread-local: :meth:`override` in one thread is seen by all threads.
    """

    __slots__ = ("days_per_year", "weeks_per_year", "calculation_mode", "decimals", "force_integer_ts")

    days_per_year: float | None
    weeks_per_year: float | None
    calculation_mode: CalculationModeLiteral
    decimals: Decimals
    force_integer_ts: bool

    _instance: Config | None = None

    def __new__(cls) -> Config:
        inst = Config._instance
        if inst is None:
            inst = object.__new__(cls)
            object.__setattr__(inst, "decimals", Decimals())
            inst.reset()
            Config._instance = inst
        return inst

    def __setattr__(self, name: str, value: Any) -> None:
        if name == "days_per_year":
            value = _snap_calendar_constant(name, value, _ALLOWED_DAYS_PER_YEAR)
        elif name == "weeks_per_year":
            value = _snap_calendar_constant(name, value, _ALLOWED_WEEKS_PER_YEAR)
        elif name == "calculation_mode":
            value = _checked_mode(value)
        elif name == "force_integer_ts":
            value = _checked_flag(value)
        elif name == "decimals":
            self._assign_decimals(value)
            return
        else:
            raise AttributeError(f"Config has no setting '{name}'")
        object.__setattr__(self, name, value)
        _changed()

    def __delattr__(self, name: str) -> None:
        raise AttributeError(f"Config settings cannot be deleted ('{name}')")

    def _assign_decimals(self, value: object) -> None:
        if isinstance(value, Decimals):
            annuities = value.annuities
        elif isinstance(value, Mapping):
            unknown = set(value) - {"annuities"}
            if unknown:
                raise ValueError(f"[Config] unknown 'decimals' settings: {sorted(map(str, unknown))}")
            annuities = value.get("annuities", self.decimals.annuities)
        else:
            raise TypeError(
                "[Config] 'decimals' must be a Decimals or a mapping such as "
                f"{{'annuities': 10}}, got {type(value).__name__}"
            )
        # In place: whoever holds ``Config().decimals`` keeps seeing the change.
        self.decimals.annuities = annuities

    def _snapshot(self) -> dict[str, Any]:
        return {
            "days_per_year": self.days_per_year,
            "weeks_per_year": self.weeks_per_year,
            "calculation_mode": self.calculation_mode,
            "decimals": {"annuities": self.decimals.annuities},
            "force_integer_ts": self.force_integer_ts,
        }

    def _restore(self, snapshot: Mapping[str, Any]) -> None:
        for name, value in snapshot.items():
            setattr(self, name, value)

    def reset(self) -> None:
        """Restore every field to its default."""
        self._restore(_DEFAULTS)

    @contextmanager
    def override(self, **fields: Any) -> Iterator[Config]:
        """Change fields for the duration of a ``with`` block.

        All fields are validated before the block starts; if one is refused,
        none is changed. On exit, normal or by an exception, every field is
        restored to the value it had on entry.

        Parameters
        ----------
        **fields
            New values of settings, by name (``days_per_year``,
            ``weeks_per_year``, ``calculation_mode``, ``decimals``,
            ``force_integer_ts``).

        Yields
        ------
        Config
            The configuration itself, with the new values in force.

        Raises
        ------
        TypeError
            For an unknown setting name or a value of the wrong kind.
        ValueError
            For a value outside the accepted set.

        Examples
        --------
        >>> with Config().override(calculation_mode="continuous_precision"):
        ...     pass
        """
        unknown = [name for name in fields if name not in self.__slots__]
        if unknown:
            raise TypeError(f"[Config.override] unknown setting(s): {', '.join(unknown)}")
        saved = self._snapshot()
        try:
            for name, value in fields.items():
                setattr(self, name, value)
        except BaseException:
            self._restore(saved)
            raise
        try:
            yield self
        finally:
            self._restore(saved)

    def __repr__(self) -> str:
        return (
            f"Config(days_per_year={self.days_per_year!r}, weeks_per_year={self.weeks_per_year!r}, "
            f"calculation_mode={self.calculation_mode!r}, decimals={self.decimals!r}, "
            f"force_integer_ts={self.force_integer_ts!r})"
        )

    # A singleton survives copying and pickling as itself.
    def __copy__(self) -> Config:
        return self

    def __deepcopy__(self, memo: dict[int, Any]) -> Config:
        return self

    def __reduce__(self) -> tuple[Any, ...]:
        return (Config, ())


# Built at import, under the import lock, so that threads never race to create it.
Config()
