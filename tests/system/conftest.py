"""Fixtures of the system tests."""

import pytest

from daemonHarness import Daemon
from station import Station
from stationCard import StationCard
from streamOnAir import OnAir


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


@pytest.fixture
def on_air(station):
    """Makes the OnAir of its arguments; the server ends with the test."""
    made = []

    def start(*entries, **options):
        made.append(OnAir(station, *entries, **options))
        return made[-1]

    yield start
    for each in made:
        each.server.close()
