"""Each kind of source is started after each other, and nothing of a player stays behind."""

import pytest

from daemonHarness import Daemon
from sourceChanges import KINDS, SourceChanges, every_pair
from stationCard import StationCard


@pytest.fixture
def changes(tmp_path):
    card = StationCard(tmp_path)
    card.environment["VCARD_RECORD"] = ""
    with Daemon(tmp_path, env=card.environment) as daemon, SourceChanges(daemon, card) as made:
        yield made


def test_a_round_visits_every_pair_once():
    order = every_pair()
    pairs = list(zip(order, order[1:]))
    assert sorted(pairs) == sorted((first, second) for first in KINDS for second in KINDS)


def test_each_kind_of_source_after_each_other_leaves_nothing_behind(changes):
    changes.begin("-t", "2")
    before = None
    for kind in every_pair():
        changes.play(kind)
        if before is None:
            assert changes.stop() == ""
            before = changes.resources()
            changes.play(kind)
    assert changes.stop() == ""
    _, descriptors, threads = changes.resources()
    assert (descriptors, threads) == before[1:]
