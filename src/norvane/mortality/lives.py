"""Lives and pairs of lives: life annuities, insurances and pure endowments
on any curve, in actuarial notation (``life.ä(curve, n=10, m=12)``).

Every value is computed natively on the curve's schedule rules with the
status's survival as weight, in the calculation mode of the curve, and
rounded like the curve's own annuities.
"""

from __future__ import annotations

import functools
import math
from typing import TYPE_CHECKING, Any, Literal

import numpy as np
from numpy.typing import ArrayLike, NDArray

from .. import _kernels
from ..helpers import _MAX_PAYMENTS, _real_float, _too_many_payments
from ..validators import _refuse_growth_with_amounts, _resolve_gr, _validate_annuity_call
from ._rules import FractionalAgeLiteral, TableBase, _check_rule

if TYPE_CHECKING:  # the tables module imports this one
    from .tables import MortalityTable

__all__ = ["JointLife", "Life", "TwoLives"]

F64 = NDArray[np.float64]
_EMPTY = np.empty(0, dtype=np.float64)
_EMPTY.flags.writeable = False
LifeArgs = tuple[_kernels.LifeTable, float, float, str]


@functools.cache
def _curve_class() -> type:
    from ..interest_rates import InterestRate  # the curve module imports the engine at load

    return InterestRate


def _checked_curve(curve: Any, method_name: str) -> Any:
    if not isinstance(curve, _curve_class()):
        raise TypeError(f"[{method_name}] 'curve' must be an InterestRate, got {type(curve).__name__}.")
    return curve


def _curve_arrays(curve: Any, method_name: str) -> tuple[F64, F64, F64]:
    """Rates, segment lengths and ends of a curve (its active scenario for a container)."""
    scenarios: Any = _checked_curve(curve, method_name).scenarios
    leaf: Any = scenarios[curve.active_scenario] if scenarios else curve
    if leaf.is_constant:
        return np.array([float(leaf.rate)]), _EMPTY, _EMPTY
    return leaf._rates, leaf._terms, leaf._cum_terms


class _Status:
    """What a life and a pair of lives share: their values on a curve."""

    __slots__ = ()
    _native: _kernels.LifeStatus

    def _unreached(self, ts: float) -> str:
        """What takes a life of the status beyond its table at ``ts`` ("" when nothing does)."""
        raise NotImplementedError

    @staticmethod
    def _validated(
        method_name: str, curve: Any, n: Any, d: Any, m: Any, ts: Any, timing: int, gr: Any, amounts: Any
    ) -> Any:
        """The shared validators' checks of a call, in their order and words; the explicit
        amounts as an array (None without)."""
        _, checked = _validate_annuity_call(
            ts=ts,
            ts_integer=_checked_curve(curve, method_name)._config.force_integer_ts,
            d=d,
            n=n,
            m=m,
            payment_timing=timing,
            gr=gr,
            cashflow_times=None,
            cashflow_amounts=amounts,
            calculation_mode=curve.calculation_mode,
            method_name=method_name,
        )
        return checked

    def _value(
        self,
        kind: Literal["annuity", "insurance", "endowment_insurance", "pure_endowment"],
        name: str,
        curve: Any,
        n: Any,
        d: Any,
        m: Any,
        ts: Any,
        timing: int = 0,
        gr: Any = None,
        cashflow_amounts: Any = None,
    ) -> float:
        """The full path of a call the native plain path declined: every
        check worded by the shared validators, then the native value."""
        method_name = f"{type(self).__name__}.{name}"
        amounts = self._validated(method_name, curve, n, d, m, ts, timing, gr, cashflow_amounts)
        if n is not None and math.isfinite(n) and not float(n) * int(m) < _MAX_PAYMENTS:
            raise _too_many_payments(method_name, float(n), int(m))
        _refuse_growth_with_amounts(gr, cashflow_amounts, method_name)
        growth = _resolve_gr(gr, method_name)
        try:
            value = self._native.value(
                kind,
                curve,
                ts=float(ts),
                d=float(d),
                n=math.inf if n is None else float(n),
                m=int(m),
                timing=timing,
                growth_kind="level" if growth is None else growth.kind,
                growth_rate=0.0 if growth is None else float(growth.rate),
                amounts=None if amounts is None else np.ascontiguousarray(amounts, dtype=np.float64),
            )
        except ValueError as exc:  # a life the valuation time takes beyond its table
            raise ValueError(f"[{method_name}] {self._unreached(float(ts)) or exc}.") from None
        return value

    def ä(
        self,
        curve: Any,
        n: float | None = None,
        d: float = 0.0,
        m: int = 1,
        ts: float = 0.0,
        gr: Any = None,
        cashflow_amounts: ArrayLike | None = None,
        guarantee: float = 0.0,
    ) -> float:
        """Life annuity-due of 1 a year payable ``m`` times a year while the status survives.

        Parameters
        ----------
        curve : InterestRate
            Any curve; a container values its active scenario.
        n : float or None
            Payment term in years after the deferment (None: for life).
        d : float
            Deferment in years from inception.
        m : int
            Payments per year.
        ts : float
            Valuation time in years since inception; the lives are then
            ``ts`` years older and alive.
        gr : GrowthRate or float, optional
            Annual growth of the payments.
        cashflow_amounts : array-like, optional
            One amount per payment of the full schedule (needs a finite ``n``).
        guarantee : float
            Years from the first payment paid whatever happens (within the
            term), a whole number of payment periods: the certain annuity of
            those years plus the life annuity deferred by them, ä_k + k|ä_x.
        """
        if type(guarantee) is not float or guarantee:  # (the default 0.0 costs a plain call nothing)
            return self._guaranteed(0, "ä", curve, n, d, m, ts, gr, cashflow_amounts, guarantee)
        value = self._native.plain_value("annuity", curve, n, d, m, ts, gr, cashflow_amounts, 0)
        return self._value("annuity", "ä", curve, n, d, m, ts, 0, gr, cashflow_amounts) if value is None else value

    def a(
        self,
        curve: Any,
        n: float | None = None,
        d: float = 0.0,
        m: int = 1,
        ts: float = 0.0,
        gr: Any = None,
        cashflow_amounts: ArrayLike | None = None,
        guarantee: float = 0.0,
    ) -> float:
        """Life annuity-immediate (payments at the end of each period); parameters as :meth:`ä`."""
        if type(guarantee) is not float or guarantee:  # (the default 0.0 costs a plain call nothing)
            return self._guaranteed(1, "a", curve, n, d, m, ts, gr, cashflow_amounts, guarantee)
        value = self._native.plain_value("annuity", curve, n, d, m, ts, gr, cashflow_amounts, 1)
        return self._value("annuity", "a", curve, n, d, m, ts, 1, gr, cashflow_amounts) if value is None else value

    def _guaranteed(
        self, timing: int, name: str, curve: Any, n: Any, d: Any, m: Any, ts: Any, gr: Any, amounts: Any, guarantee: Any
    ) -> float:
        """The annuity whose first ``guarantee`` years of payments are certain: the curve's
        certain annuity of those years plus this status's annuity deferred by them, each
        valued as its own call; their sum is rounded like an annuity."""
        method_name = f"{type(self).__name__}.{name}"
        k = _real_float(guarantee, "guarantee", method_name)
        if not (math.isfinite(k) and k >= 0.0):
            raise ValueError(f"[{method_name}] 'guarantee' must be >= 0.0 and finite, got {k!r}.")
        if amounts is not None:
            raise ValueError(f"[{method_name}] 'guarantee' cannot be combined with 'cashflow_amounts'.")
        self._validated(method_name, curve, n, d, m, ts, timing, gr, None)
        # The deferred part's payments must fall where the schedule's do.
        if k * int(m) != math.floor(k * int(m)):
            raise ValueError(
                f"[{method_name}] 'guarantee' must be a whole number of payment periods (1/{int(m)} year), got {k!r}."
            )
        growth = _resolve_gr(gr, method_name)
        # Growth steps count from the first payment: the deferred part's restart k years on.
        if growth is not None and k and not (growth.kind == "geometric" and k == math.floor(k)):
            raise ValueError(
                f"[{method_name}] a guarantee of growing payments needs geometric growth and whole years, "
                f"got {growth.kind} growth and {k!r} years."
            )
        term = math.inf if n is None else float(n)
        certain = getattr(curve, name)(n=min(k, term), d=float(d), m=m, ts=ts, gr=gr)
        later = getattr(self, name)(
            curve, n=None if n is None else max(term - k, 0.0), d=float(d) + k, m=m, ts=ts, gr=gr
        )
        log_grown = 0.0 if growth is None else k * math.log1p(float(growth.rate))
        value = certain + math.exp(log_grown) * later if log_grown < 709.0 else math.inf
        if not math.isfinite(value):
            raise ValueError(f"[{method_name}] the payments' growth over the guarantee exceeds the float range.")
        return _kernels.round_value(value, curve._config.decimals.annuities)

    def expectancy(self, kind: Literal["complete", "curtate"] = "complete", ts: float = 0.0) -> float:
        """Expected future lifetime of the status seen at ``ts`` (its lives then ``ts`` years
        older and alive): ``"complete"``, the integral of tpx (e̊), or ``"curtate"``, the
        whole years lived, the sum of kpx over k >= 1 (e)."""
        method_name = f"{type(self).__name__}.expectancy"
        if not (isinstance(kind, str) and kind in ("complete", "curtate")):
            raise ValueError(f"[{method_name}] 'kind' must be 'complete' or 'curtate', got {kind!r}.")
        at = _real_float(ts, "ts", method_name)
        if not (math.isfinite(at) and at >= 0.0):
            raise ValueError(f"[{method_name}] 'ts' must be >= 0.0 and finite, got {at!r}.")
        try:
            return self._native.expectancy(kind == "complete", at)
        except ValueError as exc:  # a life the valuation time takes beyond its table
            raise ValueError(f"[{method_name}] {self._unreached(at) or exc}.") from None

    def A(self, curve: Any, n: float | None = None, d: float = 0.0, m: int = 1, ts: float = 0.0) -> float:
        """Insurance of 1 on death: whole life (A_x) or term n (A¹_x:n), deferred d.

        Paid at the end of the 1/m-year period of death in the discrete modes,
        at the moment of death in the continuous modes.
        """
        value = self._native.plain_value("insurance", curve, n, d, m, ts, None, None, 0)
        return self._value("insurance", "A", curve, n, d, m, ts) if value is None else value

    def A_endowment(self, curve: Any, n: float, d: float = 0.0, m: int = 1, ts: float = 0.0) -> float:
        """Endowment insurance A_x:n: 1 on death within n years, or 1 at n on survival."""
        _real_float(n, "n", f"{type(self).__name__}.A_endowment")
        value = self._native.plain_value("endowment_insurance", curve, n, d, m, ts, None, None, 0)
        return self._value("endowment_insurance", "A_endowment", curve, n, d, m, ts) if value is None else value

    def E(self, curve: Any, n: float, ts: float = 0.0) -> float:
        """Pure endowment nE_x: 1 paid n years after inception if the status survives."""
        method_name = f"{type(self).__name__}.E"
        if not math.isfinite(_real_float(n, "n", method_name)):
            raise ValueError(f"[{method_name}] 'n' must be finite, got {n!r}.")
        value = self._native.plain_value("pure_endowment", curve, n, 0.0, 1, ts, None, None, 0)
        return self._value("pure_endowment", "E", curve, n, 0.0, 1, ts) if value is None else value


class Life(_Status):
    """A life of a mortality table, aged ``age`` at inception.

    Parameters
    ----------
    table : MortalityTable
    age : float
        Any real age the table reaches.
    select_age : int, optional
        Age at selection, for select tables (default: the integer part of
        ``age``, a newly selected life).
    fractional_age : {"udd", "constant_force", "balducci"}, optional
        Fractional-age rule (default: the table's).
    """

    __slots__ = ("table", "age", "select_age", "fractional_age", "_native")

    table: MortalityTable
    age: float
    select_age: int | None
    fractional_age: str

    def __init__(
        self,
        table: MortalityTable,
        age: float,
        *,
        select_age: int | None = None,
        fractional_age: FractionalAgeLiteral | None = None,
    ) -> None:
        if not isinstance(table, TableBase):
            raise TypeError(f"[Life] 'table' must be a MortalityTable, got {type(table).__name__}.")
        x = _real_float(age, "age", "Life")
        selected = math.nan if select_age is None else _real_float(select_age, "select_age", "Life")
        if select_age is not None and not math.isfinite(selected):
            raise ValueError(f"[Life] 'select_age' must be a whole age of the table, got {selected!r}.")
        if not table._native.fits(x, selected, 0.0):  # the messages are worded only for a life that does not fit
            table._check_ages(np.array([x]), np.array([selected]), "Life")
        rule = table.fractional_age if fractional_age is None else _check_rule(fractional_age, "Life")
        set_ = object.__setattr__
        set_(self, "table", table)
        set_(self, "age", x)
        set_(self, "select_age", None if select_age is None else int(selected))
        set_(self, "fractional_age", rule)
        set_(self, "_native", _kernels.LifeStatus("single", [self._args()]))

    def _args(self) -> LifeArgs:
        """The life as the native status reads it."""
        select = math.nan if self.select_age is None else float(self.select_age)
        return (self.table._native, self.age, select, self.fractional_age)

    def _unreached(self, ts: float) -> str:
        select = math.nan if self.select_age is None else float(self.select_age)
        problems = self.table._age_problems(np.array([self.age]), np.array([select]), ts)
        return problems.get(0, "")

    def tpx(self, t: ArrayLike) -> float | F64:
        """Survival probability over t years from the life's age (vectorised)."""
        return self.table.tpx(self.age, t, select_age=self.select_age, fractional_age=self.fractional_age)  # type: ignore[arg-type]

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("Life is immutable.")

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Life):
            return NotImplemented
        return self._identity() == other._identity()

    def __hash__(self) -> int:
        return hash(self._identity())

    def _identity(self) -> tuple[Any, ...]:
        return (self.table, self.age, self.select_age, self.fractional_age)

    def __reduce__(self) -> tuple[Any, ...]:
        return (_life, self._identity())

    def __repr__(self) -> str:
        select = "" if self.select_age is None else f", selected at {self.select_age}"
        return f"Life(age {self.age:g}{select}, {self.table!r})"


def _life(table: MortalityTable, age: float, select_age: int | None, rule: Any) -> Life:
    return Life(table, age, select_age=select_age, fractional_age=rule)


class JointLife(_Status):
    """Two independent lives: the ``"joint"`` status (while both live) or the
    ``"last_survivor"`` status (while either lives). Both are alive at the
    valuation time."""

    __slots__ = ("x", "y", "status", "_native")

    x: Life
    y: Life
    status: str

    def __init__(self, x: Life, y: Life, *, status: Literal["joint", "last_survivor"] = "joint") -> None:
        if not (isinstance(x, Life) and isinstance(y, Life)):
            raise TypeError("[JointLife] 'x' and 'y' must be Life objects.")
        if not (isinstance(status, str) and status in ("joint", "last_survivor")):
            raise ValueError(f"[JointLife] 'status' must be 'joint' or 'last_survivor', got {status!r}.")
        set_ = object.__setattr__
        set_(self, "x", x)
        set_(self, "y", y)
        set_(self, "status", status)
        set_(self, "_native", _kernels.LifeStatus(status, [x._args(), y._args()]))

    def _unreached(self, ts: float) -> str:
        return self.x._unreached(ts) or self.y._unreached(ts)

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("JointLife is immutable.")

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, JointLife):
            return NotImplemented
        return (self.x, self.y, self.status) == (other.x, other.y, other.status)

    def __hash__(self) -> int:
        return hash((self.x, self.y, self.status))

    def __reduce__(self) -> tuple[Any, ...]:
        return (_joint_life, (self.x, self.y, self.status))

    def __repr__(self) -> str:
        return f"JointLife({self.x!r}, {self.y!r}, status={self.status!r})"


def _joint_life(x: Life, y: Life, status: Any) -> JointLife:
    return JointLife(x, y, status=status)


class TwoLives:
    """An annuity on two independent lives paying by who is alive: ``both`` a year while both
    live, ``x_alone`` to x surviving y, ``y_alone`` to y surviving x. That covers the joint life
    annuity (1, 0, 0), the last survivor's (1, 1, 1), the reversionary annuity to y (0, 0, 1)
    and a pension with 60 % to the spouse (1, 1, 0.6). Both lives are alive at the valuation
    time; each may be on a table of its own.

    Its value is x_alone ä_x + y_alone ä_y + (both - x_alone - y_alone) ä_xy, each annuity
    valued as its own call, the sum rounded like an annuity.
    """

    __slots__ = ("x", "y", "both", "x_alone", "y_alone")

    x: Life
    y: Life
    both: float
    x_alone: float
    y_alone: float

    def __init__(self, x: Life, y: Life, *, both: float = 1.0, x_alone: float = 1.0, y_alone: float = 1.0) -> None:
        if not (isinstance(x, Life) and isinstance(y, Life)):
            raise TypeError("[TwoLives] 'x' and 'y' must be Life objects.")
        set_ = object.__setattr__
        set_(self, "x", x)
        set_(self, "y", y)
        for name, amount in (("both", both), ("x_alone", x_alone), ("y_alone", y_alone)):
            value = _real_float(amount, name, "TwoLives")
            if not math.isfinite(value):
                raise ValueError(f"[TwoLives] '{name}' must be finite, got {value!r}.")
            set_(self, name, value)

    def _value(self, name: str, curve: Any, kw: dict[str, Any]) -> float:
        joint = JointLife(self.x, self.y)
        parts = [(self.x_alone, self.x), (self.y_alone, self.y), (self.both - self.x_alone - self.y_alone, joint)]
        method_name = f"TwoLives.{name}"
        terms = [weight * getattr(status, name)(curve, **kw) for weight, status in parts if weight]
        if not all(math.isfinite(term) for term in terms):
            raise ValueError(f"[{method_name}] the payment rule's value exceeds the float range.")
        return _kernels.round_value(math.fsum(terms), _checked_curve(curve, method_name)._config.decimals.annuities)

    def ä(
        self, curve: Any, n: float | None = None, d: float = 0.0, m: int = 1, ts: float = 0.0, gr: Any = None
    ) -> float:
        """The annuity-due of the payment rule; parameters as :meth:`Life.ä`."""
        return self._value("ä", curve, {"n": n, "d": d, "m": m, "ts": ts, "gr": gr})

    def a(
        self, curve: Any, n: float | None = None, d: float = 0.0, m: int = 1, ts: float = 0.0, gr: Any = None
    ) -> float:
        """The annuity-immediate of the payment rule; parameters as :meth:`Life.ä`."""
        return self._value("a", curve, {"n": n, "d": d, "m": m, "ts": ts, "gr": gr})

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("TwoLives is immutable.")

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, TwoLives):
            return NotImplemented
        return self.__reduce__() == other.__reduce__()

    def __hash__(self) -> int:
        return hash(self.__reduce__()[1])

    def __reduce__(self) -> tuple[Any, ...]:
        return (_two_lives, (self.x, self.y, self.both, self.x_alone, self.y_alone))

    def __repr__(self) -> str:
        return (
            f"TwoLives({self.x!r}, {self.y!r}, both={self.both:g}, x_alone={self.x_alone:g}, y_alone={self.y_alone:g})"
        )


def _two_lives(x: Life, y: Life, both: float, x_alone: float, y_alone: float) -> TwoLives:
    return TwoLives(x, y, both=both, x_alone=x_alone, y_alone=y_alone)
