"""Hostile input. The daemon answers it or closes the connection, and continues to serve."""

import os
import random
import struct

import pytest

import giop
from giop import CollAttributes, Discovery
from giop.connection import Connection, ConnectionLost, Timeout
from giop.messages import MessageType, header, messages, request_body
from records import SUCCESS, get, put, record

KEY = b"DiscoveryService"
# Seconds to wait for a reply. The daemon needs almost no time to answer nonsense.
PATIENCE = 10
# The daemon's memory may grow by so many bytes. A sanitizer keeps freed memory for a while.
GROWTH = (1000 if os.environ.get("QM_SANITIZE") else 200) << 20


@pytest.fixture
def connection(daemon):
    made = Connection(*daemon.address, timeout=PATIENCE)
    yield made
    made.close()


@pytest.fixture(autouse=True)
def serves_others_and_stays_small(daemon, service, authority):
    """The daemon still serves others. It has not allocated memory for false claims of size."""
    before = resident(daemon.pid)
    yield
    assert put(service, "after", authority) == SUCCESS
    assert get(service, "after", authority) == b"payload"
    assert resident(daemon.pid) < before + GROWTH


def resident(pid):
    with open("/proc/%d/statm" % pid, encoding="ascii") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def answers(connection):
    """Ends the sending side. Returns the kinds of all messages until the daemon closes."""
    kinds = []
    try:
        connection.shutdown_sending()
        while True:
            kinds.append(connection.receive_message()[0])
    except Timeout:
        raise
    except ConnectionLost:
        return kinds


def refused(call, *names):
    with pytest.raises(giop.SystemException) as failure:
        call()
    assert failure.value.name in names
    assert failure.value.completed == "NO"


NOT_GIOP = {
    "nothing": b"",
    "one byte": b"G",
    "half a header": b"GIOP\1\2",
    "http": b"GET / HTTP/1.0\r\n\r\n",
    "zeros": bytes(1000),
    "magic": b"giop" + bytes(100),
    "version 9.9": header(0, 4, version=(9, 9)) + bytes(4),
    "version 0.0": header(0, 4, version=(0, 0)) + bytes(4),
    "type 99": header(99, 4) + bytes(4),
    "all flags": b"GIOP\1\2\xff\0" + struct.pack("<I", 4) + bytes(4),
    "random": random.Random(1).randbytes(5000),
    "empty request": header(0, 0),
    "largest": header(0, 0xffffffff),
    "largest, big": header(0, 0xffffffff, little=False) + bytes(100),
    "negative": header(0, 0x80000000) + bytes(100),
    "reply": header(1, 12) + bytes(12),
    "locate reply": header(4, 12) + bytes(12),
    "close": header(5, 0),
    "error": header(6, 0),
    "fragment of nothing": header(7, 8) + bytes(8),
    "cancel of nothing": header(2, 4) + b"\7\0\0\0",
    "closes with a body": header(5, 64) + bytes(64),
}


@pytest.mark.parametrize("data", NOT_GIOP.values(), ids=NOT_GIOP)
def test_no_sound_message(connection, data):
    connection.send(data)
    assert MessageType.REPLY not in answers(connection)


def request(operation=b"queryDiscoveries", arguments=lambda e: None, key=KEY):
    return messages(MessageType.REQUEST, request_body(1, key, operation, arguments))


WHOLE = request(arguments=lambda e: e.ulong(1).ulong(0).string("a").string("b"))


@pytest.mark.parametrize("size", range(1, len(WHOLE), 3))
def test_a_message_that_breaks_off(connection, size):
    connection.send(WHOLE[:size])
    assert MessageType.REPLY not in answers(connection)


@pytest.mark.parametrize("at", range(12, len(WHOLE), 4))
@pytest.mark.parametrize("word", [b"\xff\xff\xff\xff", b"\xff\xff\xff\x7f", b"\0\0\0\x80",
                                  b"\0\0\0\0"], ids=["ff", "7f", "80", "00"])
def test_a_wrong_word_anywhere(connection, at, word):
    connection.send(WHOLE[:at] + word + WHOLE[at + 4:])
    answers(connection)


@pytest.mark.parametrize("seed", range(20))
def test_random_damage(connection, seed):
    chance = random.Random(seed)
    data = bytearray(WHOLE * 3)
    for _ in range(chance.randrange(1, 12)):
        data[chance.randrange(len(data))] = chance.randrange(256)
    connection.send(bytes(data))
    answers(connection)


def test_fragments_without_end(connection):
    body = request_body(1, KEY, "terminate", lambda e: None)
    more = (header(7, 104, more=True) + body[:4] + bytes(100)) * 1000
    try:
        connection.send(header(0, len(body), more=True) + body + more)
    except Timeout:
        raise
    except ConnectionLost:
        return  # the daemon closed the connection early
    assert MessageType.REPLY not in answers(connection)


def test_silent_and_half_open_connections(daemon, service):
    """Some callers send nothing or half a message. The daemon still serves the others."""
    silent = [Connection(*daemon.address, timeout=PATIENCE) for _ in range(100)]
    for number, each in enumerate(silent):
        each.send(WHOLE[:number % len(WHOLE)])
    assert service.restartAllPushTimers() in (True, False)
    for each in silent:
        each.close()


def test_callers_that_do_not_wait_for_the_reply(daemon):
    for _ in range(50):
        caller = Connection(*daemon.address, timeout=PATIENCE)
        caller.send(WHOLE)
        caller.close()


@pytest.mark.parametrize("length", [0xffffffff, 0x7fffffff, 0x80000000, 1 << 24, 100])
@pytest.mark.parametrize("target", ["put", "subject", "filter", "is_a"])
def test_lengths_beyond_the_message(service, authority, target, length):
    lie = lambda e: e.ulong(length).raw(b"short")  # noqa: E731
    if target == "put":
        _, writer = service.putCollection(record("cl1", authority))
        refused(lambda: writer.call("put", lie), "MARSHAL")
        assert writer.close().discStatus == SUCCESS
        assert get(service, "cl1", authority) == b""
    elif target == "subject":
        refused(lambda: service.call("putCollection", lambda e: lie(e.ulong(1))), "MARSHAL")
    elif target == "filter":
        a_record = record("cl1", authority)
        refused(lambda: service.call("getCollectionData",
                                     lambda e: lie((a_record.encode(e), e)[1])), "MARSHAL")
    else:
        refused(lambda: service.call("_is_a", lie), "MARSHAL")


@pytest.mark.parametrize("text", [b"", b"no end"])
def test_strings_that_are_none(service, text):
    refused(lambda: service.call(
        "queryDiscoveries",
        lambda e: e.ulong(1).ulong(0).octets(text).string("*")), "MARSHAL", "BAD_PARAM")


@pytest.mark.parametrize("value", [99, 0xffffffff, 0x80000000])
@pytest.mark.parametrize("member", ["queryType", "authType", "colType", "colStorage"])
def test_enumerators_that_do_not_exist(service, root, authority, member, value):
    damaged = record("cl1", authority)
    setattr(damaged.attributes if member.startswith("col") else damaged, member, value)
    files = root.files()
    refused(lambda: service.putCollection(damaged), "MARSHAL", "BAD_PARAM")
    refused(lambda: service.getCollectionData(damaged), "MARSHAL", "BAD_PARAM")
    assert root.files() == files


@pytest.mark.parametrize("first", [("queryType", 3), ("authType", 5), ("colType", 3),
                                   ("colStorage", 2)], ids=lambda pair: pair[0])
def test_the_first_enumerator_beyond_the_last(service, authority, first):
    member, value = first
    damaged = Discovery(subject="cl1", authority=authority, attributes=CollAttributes())
    setattr(damaged.attributes if member.startswith("col") else damaged, member, value)
    refused(lambda: service.putCollection(damaged), "MARSHAL", "BAD_PARAM")


def test_enumerators_as_arguments(service):
    refused(lambda: service.queryDiscoveries(3, 0, "*", "*"), "MARSHAL", "BAD_PARAM")
    refused(lambda: service.queryDiscoveries(1, 5, "*", "*"), "MARSHAL", "BAD_PARAM")
    refused(lambda: service.registerExplorer("a", "b", "c", "d", 5, 1), "MARSHAL", "BAD_PARAM")


def test_arguments_that_are_missing(service):
    for operation in ("queryDiscoveries", "getCollectionData", "putCollection",
                      "registerExplorer", "_is_a"):
        refused(lambda: service.call(operation), "MARSHAL")


def test_a_long_operation_name(service):
    refused(lambda: service.call("x" * 100_000), "BAD_OPERATION", "MARSHAL")


def test_objects_that_never_were(service, daemon):
    for key in (b"", b"x", bytes(64), os.urandom(200), service.ior.key + b"x"):
        stranger = giop.RemoteWriter(service.orb, giop.Ior("", *daemon.address, key))
        refused(stranger.close, "OBJECT_NOT_EXIST", "TRANSIENT", "INV_OBJREF")


@pytest.mark.parametrize("key", [b"", b"x", b"\0", bytes(3), bytes(12), b"\xff", b"\xfe\0",
                                 b"\xff" * 12], ids=repr)
def test_one_request_one_answer(connection, key):
    """The daemon answers a request for any object key exactly once."""
    connection.send(request(b"_non_existent", key=key))
    assert answers(connection) == [MessageType.REPLY]


def test_operations_of_another_interface(service):
    refused(lambda: service.call("getNextPage"), "BAD_OPERATION")
    refused(lambda: service.call("close"), "BAD_OPERATION")


def test_more_than_the_largest_message(service, authority):
    """The limit is MAX_MESSAGE_BYTES. Its default is 8 MiB."""
    _, writer = service.putCollection(record("cl1", authority))
    with pytest.raises((giop.SystemException, ConnectionLost)):
        writer.put(bytes(8 << 20))
    assert writer.put(b"small")
    assert writer.close().discStatus == SUCCESS
    assert get(service, "cl1", authority) == b"small"
