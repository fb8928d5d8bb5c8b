"""Many clients at once."""

import hashlib
import random
import threading

import giop
import pytest

from records import ANY, SUCCESS, get, open_writer, put, query, record

CLIENTS = 32
RECORDS = 15
RELEASES = 50
# Seconds. Only a hang takes this long.
LIMIT = 240


def all_at_once(daemon, work):
    """Runs work(service, number) for all clients at once, each in its own thread."""
    failures = []
    gate = threading.Barrier(CLIENTS)

    def client(number):
        try:
            service = daemon.client(timeout=LIMIT)
            gate.wait(60)
            work(service, number)
        except BaseException as failure:  # pylint: disable=broad-except
            failures.append("client %d: %r" % (number, failure))
    threads = [threading.Thread(target=client, args=(number,), daemon=True)
               for number in range(CLIENTS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(LIMIT)
    assert [thread for thread in threads if thread.is_alive()] == []
    assert failures == []


def payload(client, number):
    chance = random.Random(client * 1000 + number)
    return chance.randbytes(chance.choice([0, 1, 100, 4096, 65536]))


@pytest.fixture
def quiet(root):
    root.configure(LOG_LEVEL=1)


def test_records_of_their_own(quiet, daemon, service, root):
    def work(own, number):
        for each in range(RECORDS):
            data = payload(number, each)
            assert put(own, "cl%d" % each, "p%d" % number, data, chunk=10_000) == SUCCESS
            assert get(own, "cl%d" % each, "p%d" % number) == data
            assert len(query(own, authority="p%d" % number)) == each + 1
    all_at_once(daemon, work)
    for number in range(CLIENTS):
        for each in range(RECORDS):
            assert get(service, "cl%d" % each, "p%d" % number) == payload(number, each)
    assert len(query(service)) == CLIENTS * RECORDS
    assert len(root.files()) == 2 * CLIENTS * RECORDS
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0


def sealed(data):
    return hashlib.sha256(data).digest() + data


def test_one_record_for_all(quiet, daemon, service, root):
    """All clients replace one record. At the end it holds exactly one of the payloads."""
    assert put(service, "cl1", "a", sealed(b"")) == SUCCESS

    def work(own, number):
        for each in range(RECORDS):
            assert put(own, "cl1", "a", sealed(b"%d" % number * (each * 1000))) == SUCCESS
    all_at_once(daemon, work)
    data = get(service, "cl1", "a")
    assert data == sealed(data[32:])
    assert root.files() == ["1 a cl1.dat", "1 a cl1.xml"]


def test_readers_beside_a_writer(quiet, daemon, service, root):
    """Some clients query while others replace the records."""
    for each in range(RECORDS):
        assert put(service, "cl%d" % each, "a", b"x" * 1000) == SUCCESS

    def work(own, number):
        for each in range(RECORDS):
            if number % 4 == 0:
                assert put(own, "cl%d" % each, "a", b"x" * 1000) == SUCCESS
            else:
                found = [one.subject for one in query(own, authority="a")]
                assert len(found) == len(set(found))
                assert set(found) <= {"cl%d" % n for n in range(RECORDS)}
    all_at_once(daemon, work)
    assert len(query(service, authority="a")) == RECORDS
    for each in range(RECORDS):
        assert get(service, "cl%d" % each, "a") == b"x" * 1000


def test_a_call_after_the_end_of_an_object_never_reaches_it(quiet, daemon, service, root):
    """The call follows the release or the close at once, on the same connection."""
    assert put(service, "cl1", "a") == SUCCESS

    def expect_gone(call):
        with pytest.raises(giop.SystemException) as failure:
            call()
        assert failure.value.name == "OBJECT_NOT_EXIST"

    def work(own, number):
        for _ in range(RELEASES):
            records = own.queryDiscoveries(1, ANY, "a", "*")
            records.release()
            expect_gone(records.getNextPage)
            _, data = own.getCollectionData(record("cl1", "a"))
            data.release()
            expect_gone(data.getNextPage)
        writer = open_writer(own, record("cl%d" % number, "p%d" % number))
        assert writer.close().discStatus == SUCCESS
        expect_gone(lambda: writer.put(b"late" * 1000))
        expect_gone(writer.close)
    all_at_once(daemon, work)
    assert len(query(service)) == CLIENTS + 1
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0
