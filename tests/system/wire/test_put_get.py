"""A read returns exactly the bytes that were put, in every form of transfer."""

import os

import pytest

import giop
from records import SUCCESS, get, open_writer, put, read, record

EVERY_BYTE = bytes(range(256))


@pytest.mark.parametrize("data", [b"x", EVERY_BYTE, b"\0" * 4096, "é日".encode(), b"a\r\nb\n"],
                         ids=["one", "every", "zeros", "text", "lines"])
def test_comes_back_as_it_was(service, authority, data):
    assert put(service, "cl1", authority, data) == SUCCESS
    assert get(service, "cl1", authority) == data


def test_chunks_are_joined_in_order(service, authority):
    data = os.urandom(100_000)
    assert put(service, "cl1", authority, data, chunk=7_777) == SUCCESS
    assert get(service, "cl1", authority) == data


def test_empty_chunks_change_nothing(service, authority):
    writer = open_writer(service, record("cl1", authority))
    assert writer.put(b"")
    assert writer.put(b"one")
    assert writer.put(b"")
    assert writer.put(b"two")
    assert writer.close().discStatus == SUCCESS
    assert get(service, "cl1", authority) == b"onetwo"


def test_nothing_put_is_an_empty_collection(service, authority):
    assert put(service, "cl1", authority, b"") == SUCCESS
    assert get(service, "cl1", authority) == b""


def test_large_chunks(service, authority):
    data = os.urandom(9 << 20)
    assert put(service, "cl1", authority, data, chunk=3 << 20) == SUCCESS
    assert get(service, "cl1", authority) == data


def test_newer_replaces_older(service, authority, root):
    assert put(service, "cl1", authority, b"a longer first one") == SUCCESS
    assert put(service, "cl1", authority, b"second") == SUCCESS
    assert get(service, "cl1", authority) == b"second"


def test_reader_keeps_what_it_opened(service, authority):
    """A put replaces the payload as a whole. A reader of the old payload can read all of it."""
    assert put(service, "cl1", authority, b"0123456789") == SUCCESS
    _, iterator = service.getCollectionData(record("cl1", authority))
    assert iterator.getNextPage() == b"01234567"
    assert put(service, "cl1", authority, b"new") == SUCCESS
    assert read(iterator) == b"89"
    assert get(service, "cl1", authority) == b"new"


@pytest.mark.parametrize("little", [True, False], ids=["little", "big"])
@pytest.mark.parametrize("fragment_size", [None, 64, 8192])
def test_byte_orders_and_fragments(daemon, authority, little, fragment_size):
    data = os.urandom(50_000)
    service = daemon.client(little=little, fragment_size=fragment_size)
    assert put(service, "é日 %", authority, data, ttl=2 ** 40, priority=-7) == SUCCESS
    assert get(service, "é日 %", authority) == data
    service.orb.close()


def test_two_writers_at_once(service, authority):
    one = open_writer(service, record("cl1", authority))
    two = open_writer(service, record("cl2", authority))
    assert one.put(b"1a") and two.put(b"2a") and one.put(b"1b") and two.put(b"2b")
    assert two.close().discStatus == SUCCESS
    assert one.close().discStatus == SUCCESS
    assert get(service, "cl1", authority) == b"1a1b"
    assert get(service, "cl2", authority) == b"2a2b"


def test_second_close_fails(service, authority):
    writer = open_writer(service, record("cl1", authority))
    assert writer.close().discStatus == SUCCESS
    with pytest.raises(giop.SystemException) as failure:
        writer.close()
    assert failure.value.name == "OBJECT_NOT_EXIST"
    with pytest.raises(giop.SystemException) as failure:
        writer.put(b"late")
    assert failure.value.name == "OBJECT_NOT_EXIST"
    assert get(service, "cl1", authority) == b""


def test_writer_left_alone_stores_nothing(service, authority):
    assert put(service, "cl1", authority, b"first") == SUCCESS
    writer = open_writer(service, record("cl1", authority))
    assert writer.put(b"second, never closed")
    assert get(service, "cl1", authority) == b"first"
    assert writer.close().discStatus == SUCCESS


def test_two_readers_have_places_of_their_own(service, authority):
    assert put(service, "cl1", authority, b"0123456789") == SUCCESS
    _, one = service.getCollectionData(record("cl1", authority))
    _, two = service.getCollectionData(record("cl1", authority))
    assert one.getNextPage() == b"01234567"
    assert read(two) == b"0123456789"
    assert read(one) == b"89"
