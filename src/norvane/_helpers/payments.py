"""Payment counting: whole and partial m-thly payments in a term."""

from __future__ import annotations

import numpy as np

from .. import _kernels
from .scalars import _prefixed

# Remainders of n*m within this distance of a whole number of payments are
# floating-point noise, not a partial period (the curve's default tolerance_eps).
_PAYMENT_COUNT_TOL = 1e-12

# A schedule holds fewer than 2**53 payments, so that every payment index is an exact double.
_MAX_PAYMENTS = 2.0**53


def _too_many_payments_text(n: float, m: int, where: str = "") -> str:
    return f"'n' must hold fewer than 2**53 payments{where}: got n={n!r} at m={m} a year"


def _too_many_payments(method_name: str, n: float, m: int, where: str = "") -> ValueError:
    return ValueError(_prefixed(method_name, _too_many_payments_text(n, m, where) + "."))


def _payment_count(n: float, m: int, tolerance_eps: float = _PAYMENT_COUNT_TOL) -> int:
    """Number of m-thly payments in a term of ``n`` years.

    Parameters
    ----------
    n : float
        Term in years, finite and >= 0.
    m : int
        Payments per year.
    tolerance_eps : float, default 1e-12
        Largest remainder of ``n * m`` that is treated as noise.

    Returns
    -------
    int
        Whole payments of ``n * m``, plus one for a remainder above
        ``tolerance_eps`` (a last partial period).
    """
    return _kernels.payment_count(float(n), int(m), float(tolerance_eps))[0]


def _cashflow_amounts_payment_skip(
    ts: float,
    n_eff: float,
    method_name: str,
    m: int,
    n_amounts: int,
    tolerance_eps: float = _PAYMENT_COUNT_TOL,
) -> int:
    """Count the leading ``cashflow_amounts`` already paid at the valuation time.

    The amounts list one payment per period of the full schedule; at time
    ``ts`` the remaining term ``n_eff`` holds ``_payment_count(n_eff, m)``
    payments, so the first ``n_amounts`` minus that many were already paid.

    Parameters
    ----------
    ts : float
        Valuation time (for the message).
    n_eff : float
        Remaining term in years at ``ts``.
    method_name : str
        Used in messages.
    m : int
        Payment frequency.
    n_amounts : int
        Number of amounts given.
    tolerance_eps : float
        Tolerance of the payment count.

    Returns
    -------
    int
        Number of leading amounts to skip (0 or more).

    Raises
    ------
    ValueError
        When ``n_eff`` is not finite or more payments remain than amounts exist.
    """
    if not np.isfinite(n_eff):
        raise ValueError(_prefixed(method_name, "'cashflow_amounts' requires a finite term 'n'."))
    remaining = _payment_count(max(0.0, float(n_eff)), int(m), tolerance_eps)
    skip = int(n_amounts) - remaining
    if skip < 0:
        raise ValueError(
            _prefixed(
                method_name,
                f"'cashflow_amounts' lists {n_amounts} amounts but {remaining} payments remain at ts={float(ts)!r}.",
            )
        )
    return skip
