"""Fixtures of the system tests."""

import contextlib
import fcntl

import pytest

from daemonHarness import Daemon
from station import Station
from stationCard import StationCard
from streamOnAir import OnAir


def pytest_configure(config):
    config.addinivalue_line("markers", "busy_core: its daemon keeps a core busy at real-time priority, while others are on air")


@pytest.fixture(autouse=True)
def core(request, tmp_path_factory):
    """Lets one test at a time keep a core busy: two would leave the daemons of the others none, and silence on air."""
    with contextlib.ExitStack() as held:
        if request.node.get_closest_marker("busy_core"):
            # The workers of a run share the directory above their own.
            lock = held.enter_context(open(tmp_path_factory.getbasetemp().parent / "busy_core.lock", "w"))
            fcntl.flock(lock, fcntl.LOCK_EX)
        yield


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
