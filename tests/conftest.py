"""Shared fixtures."""

import pytest

from norvane.config import Config
from norvane.interest_rates import InterestRate


@pytest.fixture(autouse=True)
def _default_config():
    """Every test starts and ends with the default package configuration."""
    Config().reset()
    yield
    Config().reset()


@pytest.fixture
def ir():
    """A constant 3 % curve of the test's own."""
    return InterestRate(0.03)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """A test module's ``OPEN_FAULTS`` (test name -> the fault) marks tests of faults found and not yet
    fixed: each must fail (strict xfail), so the day its fault is fixed the run says so."""
    for item in items:
        faults = getattr(getattr(item, "module", None), "OPEN_FAULTS", {})
        if item.name in faults:
            item.add_marker(pytest.mark.xfail(strict=True, reason=faults[item.name]))
