"""Fixtures of the system tests."""

import pytest

from daemonHarness import Daemon
from station import Station
from stationCard import StationCard


@pytest.fixture
def daemon(tmp_path):
    """A daemon that is not started yet, in the test's own directory and namespaces."""
    with Daemon(tmp_path) as made:
        yield made


@pytest.fixture
def station(tmp_path):
    """A daemon on a virtual card of its own, with a library to fill."""
    card = StationCard(tmp_path)
    with Daemon(tmp_path, env=card.environment) as made:
        yield Station(made, card)
