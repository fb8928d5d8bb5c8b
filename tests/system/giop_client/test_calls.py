"""Tests of the tests' own client. Its peer sends the answers that the test gives it."""

import socket
import threading

import pytest

import giop
from giop import Encoder, Ior, Orb
from giop.messages import FLAG_MORE_FRAGMENTS, MessageType, ReplyStatus, header, messages
from giop.orb import Proxy

# The first value in the body of a system exception.
NOT_EXIST = "IDL:omg.org/CORBA/OBJECT_NOT_EXIST:1.0"


def reply(request_id, status=ReplyStatus.NO_EXCEPTION, fill=None, little=True, fragment=None):
    encoder = Encoder(little, 12)
    encoder.ulong(request_id).ulong(status).ulong(0)
    if fill:
        encoder.align(8)
        fill(encoder)
    return messages(MessageType.REPLY, encoder.bytes(), little, fragment)


@pytest.fixture
def peer():
    """peer(answer, ...) returns a proxy of a listening peer. The peer sends the next answer to each
    request. An answer is bytes, or a function that makes them from the port."""
    server = socket.create_server(("127.0.0.1", 0))
    server.settimeout(10)
    port = server.getsockname()[1]
    orbs = []

    def serve(answers):
        while answers:
            try:
                connection, _ = server.accept()
            except OSError:
                return
            with connection:
                connection.settimeout(10)
                while answers and read_message(connection):
                    answer = answers.pop(0)
                    data = answer(port) if callable(answer) else answer
                    connection.sendall(data)
                    if data == CLOSE:
                        break

    def start(*answers, **options):
        threading.Thread(target=serve, args=(list(answers),), daemon=True).start()
        orbs.append(Orb(**{"timeout": 5, **options}))
        return Proxy(orbs[-1], Ior("", "127.0.0.1", port, b"key"))
    yield start
    for orb in orbs:
        orb.close()
    server.close()


CLOSE = header(MessageType.CLOSE_CONNECTION, 0)


def read_message(connection):
    """Reads one message with its fragments. Returns None if the caller has closed."""
    more = True
    while more:
        head = b""
        while len(head) < 12:
            part = connection.recv(12 - len(head))
            if not part:
                return None
            head += part
        more = bool(head[6] & FLAG_MORE_FRAGMENTS)
        left = int.from_bytes(head[8:12], "little" if head[6] & 1 else "big")
        while left:
            left -= len(connection.recv(left))
    return head


def octets(proxy):
    return proxy.call("anything", result=lambda d: d.octets())


@pytest.mark.parametrize("little", [True, False])
def test_a_reply(peer, little):
    assert octets(peer(reply(1, fill=lambda e: e.octets(b"abc"), little=little))) == b"abc"


@pytest.mark.parametrize("fragment", [32, 64, 1000])
def test_a_reply_in_fragments(peer, fragment):
    data = bytes(range(256)) * 20
    answer = reply(1, fill=lambda e: e.octets(data), fragment=fragment)
    assert answer.count(b"GIOP") > 1
    assert octets(peer(answer)) == data


def test_a_request_in_fragments(peer):
    proxy = peer(reply(1, fill=lambda e: e.boolean(True)), fragment_size=32)
    assert proxy._is_a("x" * 1000) is True


def test_a_system_exception(peer):
    proxy = peer(reply(1, ReplyStatus.SYSTEM_EXCEPTION,
                       lambda e: e.string(NOT_EXIST).ulong(0x41540001).ulong(2)))
    with pytest.raises(giop.SystemException) as failure:
        proxy._non_existent()
    assert (failure.value.repository_id, failure.value.name, failure.value.minor,
            failure.value.completed) == (NOT_EXIST, "OBJECT_NOT_EXIST", 0x41540001, "MAYBE")


def forward(request_id, key=b"other"):
    return lambda port: reply(request_id, ReplyStatus.LOCATION_FORWARD,
                              Ior("T", "127.0.0.1", port, key).encode)


def test_a_forward_is_followed_and_kept(peer):
    proxy = peer(forward(1), reply(2, fill=lambda e: e.octets(b"a")),
                 reply(3, fill=lambda e: e.octets(b"b")))
    assert octets(proxy) == b"a"
    assert octets(proxy) == b"b"


def test_forwards_without_end(peer):
    proxy = peer(*(forward(n, b"%d" % n) for n in range(1, 10)))
    with pytest.raises(giop.GiopError, match="forwarded more than 5 times"):
        octets(proxy)


def test_an_orderly_close_is_no_failure(peer):
    assert octets(peer(CLOSE, reply(2, fill=lambda e: e.octets(b"a")))) == b"a"


def test_a_refused_message(peer):
    with pytest.raises(giop.MessageRefused):
        octets(peer(header(MessageType.MESSAGE_ERROR, 0)))


def test_silence_is_a_timeout(peer):
    proxy = peer(b"", b"never asked for", timeout=0.3)
    with pytest.raises(giop.Timeout, match="no answer within 0.3 s"):
        octets(proxy)


@pytest.mark.parametrize("answer", [
    b"HTTP/1.0 200 OK\r\n",
    header(99, 0),
    reply(7),
    reply(1, 9),
    header(MessageType.REPLY, 0xffffffff),
], ids=["http", "type", "another", "status", "largest"])
def test_what_is_no_reply(peer, answer):
    with pytest.raises(giop.GiopError):
        octets(peer(answer))


@pytest.mark.parametrize("fill", [None, lambda e: e.octets(b"abc").octet(0), lambda e: e.ulong(9)],
                         ids=["nothing", "too much", "too little"])
def test_what_is_no_result(peer, fill):
    with pytest.raises(giop.CdrError):
        octets(peer(reply(1, fill=fill)))


def test_nobody_there():
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
    with Orb(timeout=5) as orb, pytest.raises(giop.ConnectionLost):
        octets(Proxy(orb, Ior("", "127.0.0.1", port, b"key")))
