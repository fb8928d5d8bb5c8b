"""A link is cut in the middle of a request. The caller gives up in time. The store keeps its
records and gets no incomplete one. After the link is repaired, everything works again."""

import time
from concurrent.futures import ThreadPoolExecutor

import harness
from giop import DiscoveryStatus
from lab.stage import wait_for_text, wait_until_pushed
from records import ANY, SUCCESS, get, open_writer, put, query, record, subjects

REQUEST_LIMIT = 30  # seconds for every request of a daemon
LOOKUP_LIMIT = 5
# Seconds that a busy machine or an instrumented program may add.
SLACK = 10
RECORDS = 300
SLOW = "64kbit"


def took(work):
    """Runs work(). Returns (its result, seconds)."""
    began = time.monotonic()
    answer = work()
    return answer, time.monotonic() - began


def cut_after(stage, host, size):
    """Cuts the link when it has carried `size` more bytes. Returns the time of the cut."""
    before = stage.lab.bytes_carried(host)
    harness.wait_for(lambda: stage.lab.bytes_carried(host) >= before + size, "%d bytes" % size)
    stage.lab.cut(host)
    return time.monotonic()


def unfinished(host):
    return [name for name in host.root.files() if name.endswith(".updating")]


def put_that_breaks_off(stage, client):
    """The put fails, and the earlier record stays."""
    service = stage.service(client)
    assert put(service, "volumes", "a", b"before") == SUCCESS
    writer = open_writer(service, record("volumes", "a"))
    assert writer.put(b"x" * 5000)
    stage.lab.cut(client)
    log = client.root.log()
    stored, seconds = took(lambda: writer.put(b"y" * 5000))
    assert stored is False
    [text] = log.failures("../RemoteDB")
    assert text.startswith("Caught CORBA Exception during remote write: TIMEOUT")
    log = client.root.log()
    assert writer.close().discStatus == DiscoveryStatus.DS_COM_ERROR
    assert log.failures("../RemoteDB") == [
        "A collection that lost bytes on its way is not persisted"]
    return seconds


def query_that_breaks_off(stage, client):
    """The query returns no incomplete list."""
    service = stage.service(client)
    log = client.root.log()
    with ThreadPoolExecutor(1) as pool:
        stage.lab.slow(client, SLOW)
        asked = pool.submit(query, service, authority="many")
        cut = cut_after(stage, client, 10_000)
        found = asked.result(harness.CALL_LIMIT)
        seconds = time.monotonic() - cut
    assert found == []
    [text] = [text for text in log.failures("../DiscoveryRepository")]
    assert text.startswith("Failed to query remote discoveries: TIMEOUT")
    return seconds


def pull_that_breaks_off(stage, client):
    """The pull fails and returns none of the bytes that arrived."""
    service = stage.service(stage.master)
    log = stage.master.root.log()
    with ThreadPoolExecutor(1) as pool:
        stage.lab.slow(client, SLOW)
        asked = pool.submit(service.getCollectionData,
                            record("%s/now" % client, str(client), ANY))
        wait_for_text(client, "collectionRequested for %s/now" % client)
        cut = cut_after(stage, client, 3_000)
        status, iterator = asked.result(harness.CALL_LIMIT)
        seconds = time.monotonic() - cut
    assert (status, iterator) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    [text] = log.failures("../RemoteDB")
    assert text.startswith("Caught CORBA Exception while reading collection data: TIMEOUT")
    assert log.failures("../Explorer") == ["Failed to target open collection data"]
    return seconds


def test_in_the_middle_of_a_put_of_a_page_and_of_a_pull(stage):
    """All three run at once, because each takes as long as a daemon waits for an answer."""
    stage.build(3)
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    for client in stage.clients:
        wait_until_pushed(client, stage.master)
    master = stage.service(stage.master)
    for number in range(RECORDS):
        assert put(master, "s%03d" % number, "many", b"x") == SUCCESS
    *others, pulled = sorted(stage.clients, key=str)
    with ThreadPoolExecutor(3) as pool:
        stories = [pool.submit(story, stage, client) for story, client in (
            (put_that_breaks_off, others[0]), (query_that_breaks_off, others[1]),
            (pull_that_breaks_off, pulled))]
        for story in stories:
            assert story.result(3 * harness.CALL_LIMIT) <= REQUEST_LIMIT + SLACK, story

    assert get(master, "volumes", "a") == b"before"
    # While the links are cut, a request takes no longer than a lookup may take.
    for client in others:
        (result, writer), seconds = took(lambda host=client: stage.service(host).putCollection(
            record("volumes", "b")))
        assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
        assert seconds <= LOOKUP_LIMIT + SLACK

    for client in stage.clients:
        stage.lab.heal(client)
    # The system needs some time until it sends the lost packets again.
    for client in stage.clients:
        harness.wait_for(lambda host=client: len(query(stage.service(host), authority="many"))
                         == RECORDS, "%s sees the master again" % client)
    assert put(stage.service(others[0]), "volumes", "a", b"after") == SUCCESS
    assert get(master, "volumes", "a") == b"after"
    assert get(master, "%s/now" % pulled, str(pulled), ANY)
    assert "volumes" in subjects(stage.service(others[1]))
    # The client counts the abandoned writer. The master removes the temporary file at its next start.
    harness.wait_for(lambda: others[0].root.status()["counters"]["writersLeft"] == 1,
                     "the abandoned writer is counted")
    assert unfinished(stage.master) != []
    assert stage.daemon(stage.master).stop() == 0
    stage.start(stage.master)
    harness.wait_for(lambda: unfinished(stage.master) == [], "no temporary file is left")
    assert get(stage.service(stage.master), "volumes", "a") == b"after"
