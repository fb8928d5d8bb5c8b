"""What clients may hold: the bounds at N and N + 1, with an honest client beside them."""

import random
import threading
import time

import giop
import harness
import pytest

from giop import DiscoveryStatus
from honest import PROMPT, Honest
from records import ANY, SUCCESS, open_writer, put, record

# Seconds. Only a hang takes this long.
LIMIT = 240
CLIENTS = 32
ROUNDS = 60


def peer(number):
    return "127.0.1.%d" % number


def is_there(proxy):
    try:
        proxy.pageSize  # pylint: disable=pointless-statement
        return True
    except giop.SystemException as failure:
        assert failure.name == "OBJECT_NOT_EXIST"
        return False


def counters(root, condition, what):
    """The counters of the status, after they satisfy the condition."""
    def found():
        values = root.status().get("counters")
        return values if values and condition(values) else None
    return harness.wait_for(found, what)


def status_of_put(service, subject):
    result, writer = service.putCollection(record(subject, "a"))
    assert (writer is None) == (result.discStatus != SUCCESS)
    return result.discStatus, writer


def test_a_peer_has_a_share_of_the_iterators(start, root):
    root.configure(LOG_LEVEL=1, LOG_SEVERITY="warning", MAX_ITERATORS=1000, MAX_ITERATORS_PER_PEER=100)
    daemon = start(root)
    greedy = daemon.client(source=peer(1))
    other = daemon.client(source=peer(2)).queryDiscoveries(1, ANY, "*", "*")
    log = root.log()
    with Honest(daemon):
        held = [greedy.queryDiscoveries(1, ANY, "*", "*") for _ in range(100)]
        assert is_there(held[0])  # which is a use
        held.append(greedy.queryDiscoveries(1, ANY, "*", "*"))
    assert [number for number, each in enumerate(held) if not is_there(each)] == [1]
    assert is_there(other)
    assert [text for text in log.failures() if "idle iterators" in text] == [
        "Gave up 1 idle iterators to make room (MAX_ITERATORS, MAX_ITERATORS_PER_PEER), the last "
        "one of peer %s" % peer(1)]
    values = counters(root, lambda v: v["iteratorsGivenUp"] == 1, "one iterator is given up")
    assert values["iteratorsOpen"] == 101


def test_ten_thousand_iterators(start, root):
    """Four peers reach the total bound, each with its share. Then the biggest ones pay."""
    root.configure(LOG_LEVEL=1, LOG_SEVERITY="warning")
    daemon = start(root)
    with Honest(daemon):
        for number in range(4):
            greedy = daemon.client(source=peer(number))
            for _ in range(2500):
                greedy.queryDiscoveries(1, ANY, "*", "*")
        late = daemon.client(source=peer(9))
        held = [late.queryDiscoveries(1, ANY, "*", "*") for _ in range(100)]
        assert all(is_there(each) for each in held)
    values = counters(root, lambda v: v["iteratorsGivenUp"] >= 100, "iterators are given up")
    assert values["iteratorsHighest"] == 10000
    assert values["iteratorsRefused"] == 0
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0


def test_a_peer_has_a_share_of_the_writers(start, root):
    """A client that opens writers and never closes them costs nobody else."""
    root.configure(LOG_LEVEL=1, LOG_SEVERITY="warning")
    daemon = start(root)
    greedy = daemon.client(source=peer(1))
    log = root.log()
    with Honest(daemon):
        held = [open_writer(greedy, record("cl%d" % each, "greedy")) for each in range(250)]
        for _ in range(20):
            assert status_of_put(greedy, "more") == (DiscoveryStatus.DS_OPEN_FAILED, None)
        # Those of the honest client come and go.
        shown = harness.wait_for(
            lambda: root.status()["writers"]["open"] >= 250 and root.status()["writers"],
            "the status shows the writers")
        assert shown["most"][0]["peer"] == peer(1)
        assert shown["most"][0]["count"] == 250
        assert shown["most"][0]["oldest"][:2] == "20"
    texts = log.failures()
    assert texts.count("Refused a writer of subject more & authority a: peer %s has 250 open "
                       "writers (MAX_WRITERS_PER_PEER)" % peer(1)) == 20
    assert [text[:25] for text in texts if " writers are open; " in text] != []
    assert held[0].close().discStatus == SUCCESS
    assert status_of_put(greedy, "more")[0] == SUCCESS
    assert daemon.stop() == 0
    assert [name for name in root.files() if name.endswith(".updating")] == []
    assert root.status()["counters"]["writersRefused"] == 20


@pytest.mark.parametrize("peers, in_turn, shares", [
    (1, True, [250]),
    (4, True, [143] * 4),
    (9, True, [84] * 9),
    (9, False, [250, 188, 141, 106, 79, 59, 45, 33, 25]),
])
def test_greedy_peers_leave_names_for_others(start, root, peers, in_turn, shares):
    """Each takes all the writers that it gets. The honest client always gets its own."""
    root.configure(LOG_LEVEL=1, LOG_SEVERITY="warning", LOG_BURST=20)
    daemon = start(root)
    services = [daemon.client(source=peer(each)) for each in range(peers)]
    held = [0] * peers

    def takes_one(each):
        status, _ = status_of_put(services[each], "cl%d of %d" % (held[each], each))
        held[each] += status == SUCCESS
        return status == SUCCESS

    with Honest(daemon) as honest:
        if in_turn:
            while any([takes_one(each) for each in range(peers)]):
                pass
        for each in range(peers):
            while takes_one(each):
                pass
        rounds = honest.rounds
        harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client puts")
        # Its own writers come and go, so a share may miss some.
        assert all(share - 3 <= count <= share + 3 for count, share in zip(held, shares)), held
    refused = counters(root, lambda v: v["writersRefused"] >= peers, "all are refused")
    assert (refused["writersCrowdedOut"] > 0) == (peers > 1)
    assert daemon.stop() == 0


def test_a_writer_that_nobody_touches_is_given_up(start, root):
    root.configure(LOG_LEVEL=1, LOG_SEVERITY="warning", WRITER_IDLE_LIMIT=2)
    daemon = start(root)
    service = daemon.client()
    gone = open_writer(service, record("gone", "a"))
    used = open_writer(service, record("used", "a"))
    log = root.log()

    def only_the_used_one():
        assert used.put(b"x")
        return root.status()["counters"]["writersGivenUp"] == 1
    harness.wait_for(only_the_used_one, "the idle writer is given up")
    assert ("Gave up a writer of subject gone & authority a: peer 127.0.0.1 has not used it for 2 s "
            "(WRITER_IDLE_LIMIT)") in log.failures()
    assert [name for name in root.files() if name.endswith(".updating")] == ["1.updating"]
    with pytest.raises(giop.SystemException) as failure:
        gone.close()
    assert failure.value.name == "OBJECT_NOT_EXIST"
    assert used.close().discStatus == SUCCESS


def test_thirty_two_clients_at_the_bounds(start, root):
    """Some keep to the rules and others reach every bound, all at once."""
    root.configure(LOG_LEVEL=1, LOG_SEVERITY="warning", MAX_ITERATORS=200,
                   MAX_ITERATORS_PER_PEER=50, MAX_WRITERS_PER_PEER=10, WRITER_IDLE_LIMIT=1)
    daemon = start(root)
    assert put(daemon.client(), "cl1", "a", b"data") == SUCCESS
    failures = []
    gate = threading.Barrier(CLIENTS)

    def gone(call):
        """Calls an object that may be given up."""
        try:
            call()
        except giop.SystemException as failure:
            if failure.name != "OBJECT_NOT_EXIST":
                raise

    def work(service, chance):
        held = []
        for _ in range(ROUNDS):
            step = chance.randrange(6)
            if step < 2:
                held.append(service.queryDiscoveries(1, ANY, "*", "*"))
                gone(held[-1].getNextPage)
            elif step == 2:
                status, data = service.getCollectionData(record("cl1", "a"))
                assert status == SUCCESS
                gone(data.getNextPage)
                held.append(data)
            elif step == 3:
                name = "cl%d" % chance.randrange(1 << 30)
                status, writer = status_of_put(service, name)
                assert status in (SUCCESS, DiscoveryStatus.DS_OPEN_FAILED)
                if writer and chance.random() < 0.5:
                    gone(lambda one=writer: one.put(b"x" * 1000))
                    gone(writer.close)
            elif step == 4 and held:
                gone(held.pop(chance.randrange(len(held))).release)
            elif held:
                gone(chance.choice(held).getNextPage)

    def client(number):
        try:
            service = daemon.client(timeout=LIMIT, source=peer(number % 6))
            gate.wait(60)
            work(service, random.Random(number))
        except BaseException as failure:  # pylint: disable=broad-except
            failures.append("client %d: %r" % (number, failure))
    threads = [threading.Thread(target=client, args=(number,), daemon=True)
               for number in range(CLIENTS)]
    with Honest(daemon):
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(LIMIT)
    assert [thread for thread in threads if thread.is_alive()] == []
    assert failures == []
    values = counters(root, lambda v: v["writersOpen"] == 0 and v["writersGivenUp"] > 0,
                      "all idle writers are given up")
    assert 0 < values["iteratorsHighest"] <= 200
    assert values["iteratorsGivenUp"] > 0
    assert values["writersRefused"] > 0
    assert values["writersHighest"] <= 61
    begun = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - begun < 4 * PROMPT
    assert root.status()["assertions"] == 0
    assert [name for name in root.files() if name.endswith(".updating")] == []
