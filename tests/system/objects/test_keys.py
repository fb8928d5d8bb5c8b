"""Whose objects a peer may use. Each address of the loopback is a peer."""

import dataclasses

import giop
import pytest

from giop import CollectionDataIterator, DiscoveryIterator, RemoteWriter
from records import ANY, SUCCESS, get, open_writer, put, record

OWNER = "127.0.0.1"
STRANGER = "127.0.0.2"
ID_BYTES = 16


def failure_of(call):
    with pytest.raises(giop.SystemException) as failure:
        call()
    return failure.value.name


def at_key(service, proxy, key):
    """The object of another key, as the peer of `service` sees it."""
    return type(proxy)(service.orb, dataclasses.replace(proxy.ior, key=key))


def guesses(key):
    """Keys near a key: each bit of the object's id flipped, and the id's neighbours."""
    head, own = key[:-ID_BYTES], key[-ID_BYTES:]
    number = int.from_bytes(own, "big")
    for bit in range(8 * ID_BYTES):
        yield head + (number ^ 1 << bit).to_bytes(ID_BYTES, "big")
    for step in (1, 2, 3, 256):
        for near in (number + step, number - step):
            yield head + (near % (1 << 8 * ID_BYTES)).to_bytes(ID_BYTES, "big")
    yield head + bytes(ID_BYTES)
    yield head
    yield head + own + b"\0"
    yield head + own[:-1]


@pytest.fixture
def owner(daemon):
    return daemon.client(source=OWNER)


@pytest.fixture
def stranger(daemon):
    return daemon.client(source=STRANGER)


def test_no_guessed_key_leads_to_an_object(daemon, owner, stranger, root):
    """Other writers are open. None of them is near one's own."""
    others = [open_writer(stranger, record("cl%d" % each, "other")) for each in range(50)]
    mine = open_writer(owner, record("mine", "a"))
    assert len({writer.ior.key[-ID_BYTES:] for writer in others}) == 50
    assert len({writer.ior.key[:-ID_BYTES] for writer in others + [mine]}) == 1
    for key in guesses(mine.ior.key):
        for service in (owner, stranger):
            found = failure_of(at_key(service, mine, key).close)
            assert found == "OBJECT_NOT_EXIST", key.hex()
    assert mine.put(b"whole")
    assert mine.close().discStatus == SUCCESS
    assert get(owner, "mine", "a") == b"whole"
    assert all(writer.close().discStatus == SUCCESS for writer in others)
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0


def test_a_strangers_key_is_refused(daemon, owner, stranger, root):
    assert put(owner, "cl1", "a", b"data") == SUCCESS
    writer = open_writer(owner, record("cl2", "a"))
    listing = owner.queryDiscoveries(1, ANY, "*", "*")
    _, reading = owner.getCollectionData(record("cl1", "a"))
    log = root.log()
    foreign_writer = stranger.orb.object(writer.ior, RemoteWriter)
    foreign_listing = stranger.orb.object(listing.ior, DiscoveryIterator)
    foreign_reading = stranger.orb.object(reading.ior, CollectionDataIterator)
    for call in (lambda: foreign_writer.put(b"forged"), foreign_writer.close,
                 foreign_writer._non_existent, foreign_listing.getNextPage,
                 lambda: foreign_listing.pageSize, foreign_listing.release,
                 foreign_reading.getNextPage, foreign_reading.release):
        assert failure_of(call) == "NO_PERMISSION"
    of_cl2 = "a writer of subject cl2 & authority a belongs to peer %s" % OWNER
    assert log.failures()[:2] == ["Refused put of peer %s: %s" % (STRANGER, of_cl2),
                                  "Refused close of peer %s: %s" % (STRANGER, of_cl2)]
    assert [each.subject for each in listing.getNextPage()] == ["cl1"]
    assert reading.getNextPage() == b"data"
    assert writer.put(b"honest")
    assert writer.close().discStatus == SUCCESS
    assert get(owner, "cl2", "a") == b"honest"
    listing.release()
    reading.release()
    assert daemon.stop() == 0
    assert root.status()["counters"]["foreignUses"] == 8


def test_a_refusal_reads_no_arguments(owner, stranger):
    """A stranger's put with arguments that end too early gets the same answer."""
    writer = open_writer(owner, record("cl3", "a"))
    foreign = stranger.orb.object(writer.ior, RemoteWriter)
    assert failure_of(lambda: foreign.call("put", lambda e: e.ulong(1000))) == "NO_PERMISSION"
    assert failure_of(lambda: writer.call("put", lambda e: e.ulong(1000))) == "MARSHAL"
    assert writer.close().discStatus == SUCCESS


def test_a_second_close_is_always_an_exception(owner):
    for each in range(50):
        writer = open_writer(owner, record("cl%d" % each, "twice"))
        assert writer.close().discStatus == SUCCESS
        assert failure_of(writer.close) == "OBJECT_NOT_EXIST"
        assert failure_of(lambda: writer.put(b"late")) == "OBJECT_NOT_EXIST"
