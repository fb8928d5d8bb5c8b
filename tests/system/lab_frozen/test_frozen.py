"""Hosts that accept connections and never answer. A lookup of such a host ends after 5 seconds, a
request to it after 30."""

import time
from concurrent.futures import ThreadPoolExecutor

import harness
from giop import DiscoveryStatus
from lab.stage import frozen, wait_for_text, wait_until_pushed
from records import ANY, SUCCESS, get, open_writer, put, query, record, subjects

REQUEST_LIMIT = 30
LOOKUP_LIMIT = 5
# Seconds that a busy machine or an instrumented program may add.
SLACK = 10
SLOW = "64kbit"


def seconds_since(moment):
    return time.monotonic() - moment


def build(stage, clients):
    stage.build(clients)
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    return sorted(stage.clients, key=str)


def now_of(client):
    return record("%s/now" % client, str(client), ANY)


def test_a_lookup_ends_after_5_seconds(stage):
    """The limit holds for a master that pulls from a client, and for a client that queries its
    master."""
    pulled, other = build(stage, 2)[::-1]
    assert put(stage.service(other), "volumes", "a", b"x") == SUCCESS

    log, began = stage.master.root.log(), time.monotonic()
    with frozen(stage, pulled):
        status, iterator = stage.service(stage.master).getCollectionData(now_of(pulled))
        took = seconds_since(began)
        # Meanwhile the master serves the other client.
        assert "volumes" in subjects(stage.service(other))
    assert (status, iterator) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    assert LOOKUP_LIMIT - 1 <= took <= LOOKUP_LIMIT + SLACK
    assert log.failures("../DiscoveryRepository") == ["Failed to connect to remote discovery service"]
    assert log.failures("../Explorer") == ["Failed to connect to discovery service"]

    log, began = other.root.log(), time.monotonic()
    with frozen(stage, stage.master):
        assert query(stage.service(other)) == []
        took = seconds_since(began)
    assert LOOKUP_LIMIT - 1 <= took <= LOOKUP_LIMIT + SLACK
    assert log.failures("../DiscoveryRepository") == [
        "Failed to connect to remote discovery service", "Failed to connect to discovery service"]
    assert "volumes" in subjects(stage.service(other))
    assert get(stage.service(stage.master), "%s/now" % pulled, str(pulled), ANY)


def pull_from_one_that_freezes(stage, client):
    """Freezes the client in the middle of its pages. The link is slow, so the test has the time."""
    service = stage.service(stage.master)
    log = stage.master.root.log()
    stage.lab.slow(client, SLOW)
    with ThreadPoolExecutor(1) as pool:
        asked = pool.submit(service.getCollectionData, now_of(client))
        wait_for_text(client, "collectionRequested for %s/now" % client)
        with frozen(stage, client):
            began = time.monotonic()
            status, iterator = asked.result(harness.CALL_LIMIT)
            took = seconds_since(began)
    stage.lab.heal(client)
    assert (status, iterator) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    [text] = log.failures("../RemoteDB")
    assert text.startswith("Caught CORBA Exception while reading collection data: TIMEOUT")
    assert log.failures("../Explorer") == ["Failed to target open collection data"]
    return took


def put_to_one_that_freezes(stage, client, master):
    """The client's caller gets a failure, and the earlier record stays."""
    service = stage.service(client)
    assert put(service, "volumes", "a", b"before") == SUCCESS
    writer = open_writer(service, record("volumes", "a"))
    assert writer.put(b"x")
    log = client.root.log()
    with frozen(stage, master):
        began = time.monotonic()
        assert writer.put(b"y") is False
        took = seconds_since(began)
    [text] = log.failures("../RemoteDB")
    assert text.startswith("Caught CORBA Exception during remote write: TIMEOUT")
    assert writer.close().discStatus == DiscoveryStatus.DS_COM_ERROR
    assert get(stage.service(master), "volumes", "a") == b"before"
    assert put(service, "volumes", "a", b"after") == SUCCESS
    assert get(stage.service(master), "volumes", "a") == b"after"
    return took


def test_a_request_ends_after_30_seconds(stage):
    """A client freezes in the middle of a pull, and a master in the middle of a put. Both happen at
    the same time, in two installations on one network. The other hosts continue to serve."""
    stage.build(4)
    writer, deputy, other, pulled = sorted(stage.clients, key=str)
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    deputy.configure(SERVER=str(deputy))
    writer.configure(SERVER=str(deputy))
    stage.start(stage.master, deputy)
    stage.start(writer, other, pulled)
    for host, master in ((writer, deputy), (other, stage.master), (pulled, stage.master)):
        wait_until_pushed(host, master)
    with ThreadPoolExecutor(2) as pool:
        stories = [pool.submit(pull_from_one_that_freezes, stage, pulled),
                   pool.submit(put_to_one_that_freezes, stage, writer, deputy)]

        def over():
            assert put(stage.service(other), "volumes", "a", b"x") == SUCCESS
            return all(story.done() for story in stories)
        harness.wait_for(over, "both requests end", 3 * harness.CALL_LIMIT)
        for story in stories:
            assert REQUEST_LIMIT - 5 <= story.result(0) <= REQUEST_LIMIT + SLACK
    assert get(stage.service(stage.master), "%s/now" % pulled, str(pulled), ANY)


def test_a_stop_does_not_wait_for_a_host_that_hangs(stage):
    """A daemon waits for an answer from its master. It still stops in order, within the limit of
    the request."""
    [client] = build(stage, 1)
    wait_until_pushed(client, stage.master)
    with ThreadPoolExecutor(1) as pool, frozen(stage, stage.master):
        log = client.root.log()
        asked = pool.submit(query, stage.service(client, timeout=harness.CALL_LIMIT))
        harness.wait_for(lambda: "Host: master" in log.texts(level=4), "the query is under way")
        began = time.monotonic()
        assert stage.daemon(client).stop() == 0
        assert seconds_since(began) <= LOOKUP_LIMIT + SLACK
        asked.exception(harness.CALL_LIMIT)


def test_a_stop_gives_up_what_comes_slowly(stage):
    """A pull over a slow link would take minutes. The stop ends it."""
    [client] = build(stage, 1)
    wait_until_pushed(client, stage.master)
    service = stage.service(stage.master, timeout=harness.CALL_LIMIT)
    stage.lab.slow(client, "16kbit")
    with ThreadPoolExecutor(1) as pool:
        log = stage.master.root.log()
        asked = pool.submit(service.getCollectionData, now_of(client))
        wait_for_text(client, "collectionRequested for %s/now" % client)
        began = time.monotonic()
        assert stage.daemon(stage.master).stop() == 0
        assert seconds_since(began) <= SLACK
        asked.exception(harness.CALL_LIMIT)
    # The stop meets the read during a page, or between two.
    [text] = log.failures("../RemoteDB")
    assert text == "The service is shutting down, the read is given up" or \
        text.startswith("Caught CORBA Exception while reading collection data: COMM_FAILURE")
