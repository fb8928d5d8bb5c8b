"""One peer registers more explorers than it may."""

import pytest

import harness
from attack import ATTACKER
from giop import AuthorityType
from honest import HONEST, Honest
from records import query

SHARE = 2500
MORE = 300


def register(service, subject, host="elsewhere"):
    service.registerExplorer("DiscoveryService", host, subject, "pulled",
                             AuthorityType.AT_QMKCLIENT, 1)


def pulled(daemon):
    """The subjects that explorers of other hosts deliver."""
    service = daemon.client(source=HONEST)
    found = {each.subject for each in query(service) if each.authority == "pulled"}
    service.orb.close()
    return found


def stored(root):
    """The subjects of the stored registrations."""
    names = [name for name in root.files() if name.startswith("4 pulled ")]
    return {name.split(" ")[2].rsplit(".", 1)[0] for name in names}


def restarted(daemon, start, root):
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0
    return start(root)


def test_a_peer_has_a_quarter_of_the_places(attacked, root, start, counter):
    daemon = attacked()
    with Honest(daemon):
        register(daemon.client(source=HONEST), "honest")
        service = daemon.client(source=ATTACKER)
        for number in range(SHARE):
            register(service, "a%d" % number)
        mine = {"a%d" % number for number in range(SHARE)}
        assert pulled(daemon) == mine | {"honest"}
        assert root.status()["counters"].get("explorersGivenUp", 0) == 0
        register(service, "a%d" % SHARE)
        mine = mine - {"a0"} | {"a%d" % SHARE}
        assert pulled(daemon) == mine | {"honest"}
        counter("explorersGivenUp", 1)
        for number in range(SHARE + 1, SHARE + MORE):
            register(service, "a%d" % number)
        mine = {"a%d" % number for number in range(MORE, SHARE + MORE)}
        assert pulled(daemon) == mine | {"honest"}
    assert counter("explorersGivenUp", MORE) == MORE
    log = harness.settled(root.log_file.read_text)
    assert "Gave up the explorer of subject a0 & authority pulled: the peer with the address " \
           "127.0.0.66 has registered more than 2500" in log
    # What went is not there after a restart either.
    daemon = restarted(daemon, start, root)
    assert pulled(daemon) == mine | {"honest"} == stored(root)
    assert daemon.stop() == 0


@pytest.fixture
def full(attacked):
    """A service with all places taken: four peers have their shares."""
    daemon = attacked()
    for peer in range(4):
        service = daemon.client(source="127.0.0.%d" % (70 + peer))
        for number in range(SHARE):
            register(service, "p%d-%d" % (peer, number))
    return daemon


def test_a_restart_makes_room_when_all_places_are_taken(full, root, start, counter):
    """Nobody but a peer itself takes its place. After a restart the peers come back, and the others'
    places go to newcomers."""
    with Honest(full):
        register(full.client(source=HONEST), "late")
        assert "late" not in pulled(full)
        log = harness.settled(root.log_file.read_text)
        assert "There are 10000 explorers already, another one is dropped" in log
    daemon = restarted(full, start, root)
    with Honest(daemon):
        back = daemon.client(source="127.0.0.70")
        for number in range(SHARE):
            register(back, "p0-%d" % number)
        assert root.status()["counters"]["explorersGivenUp"] == 0
        register(daemon.client(source=HONEST), "late")
        found = pulled(daemon)
        assert "late" in found
        assert len(found) == 4 * SHARE
        assert {"p0-%d" % number for number in range(SHARE)} < found
        assert counter("explorersGivenUp", 1) == 1
    log = harness.settled(root.log_file.read_text)
    assert ", which nobody has registered since the start: there are 10000 explorers, and the peer " \
           "with the address 127.0.0.7 registers another one" in log
    assert daemon.stop() == 0
