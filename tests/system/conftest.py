"""Fixtures of the system tests."""

import pytest

from daemonHarness import Daemon


@pytest.fixture
def daemon(tmp_path):
    """A daemon that is not started yet, in the test's own directory and namespaces."""
    with Daemon(tmp_path) as made:
        yield made
