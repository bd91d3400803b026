"""Shared fixtures."""

import pytest

from norvane.config import Config


@pytest.fixture(autouse=True)
def _default_config():
    """Every test starts and ends with the default package configuration."""
    Config().reset()
    yield
    Config().reset()
