"""Requests whose header attacks the ORB itself. Nothing of them stays in memory."""

import contextlib
import os
import socket

import pytest

from attack import ATTACKER
from giop.cdr import Decoder, Encoder
from giop.ior import Ior
from giop.messages import HEADER_SIZE, MessageType, header, messages, parse_header
from honest import Honest
from records import ANY, open_writer, record

SANITIZED = bool(os.environ.get("QM_SANITIZE"))
TEXT = 1 << 20
ROUNDS = 200
IDLE = 200

NO_EXCEPTION, SYSTEM_EXCEPTION = b"\0\0\0\0", b"\2\0\0\0"


def received(connection, count):
    data = b""
    while len(data) < count:
        part = connection.recv(count - len(data))
        if not part:
            return data
        data += part
    return data


def answer(connection, data):
    """The kind and the body of the answer to the bytes of a request."""
    connection.sendall(data)
    kind, _, _, size = parse_header(received(connection, HEADER_SIZE))
    return kind, received(connection, size)


def bytes_of(kind, fill):
    encoder = Encoder(True, HEADER_SIZE)
    fill(encoder)
    return messages(kind, encoder.bytes())


def to(target, operation, arguments=None, contexts=b""):
    """The bytes of a GIOP 1.2 request. `target(encoder)` writes what it is for."""
    def fill(encoder):
        encoder.ulong(7).octet(3).raw(bytes(3))
        target(encoder)
        encoder.octets(operation + b"\0")
        encoder.ulong(1 if contexts else 0)
        if contexts:
            encoder.ulong(99).octets(contexts)
        if arguments:
            encoder.align(8)
            arguments(encoder)
    return bytes_of(MessageType.REQUEST, fill)


def by_key(key):
    return lambda encoder: encoder.short(0).octets(key)


def profile(key, host):
    def fill(encoder):
        encoder.octet(1).octet(2).octets(host).ushort(1).octets(key).ulong(0)
    return fill


def by_profile(key, host):
    return lambda encoder: encoder.short(1).ulong(0).encapsulation(profile(key, host))


def by_reference(key, host):
    return lambda encoder: encoder.short(2).ulong(0).string("IDL:x:1.0").ulong(1).ulong(0) \
        .encapsulation(profile(key, host))


def memory(figures, daemon):
    return figures(daemon)["VmRSS"] * 1024


def kept_little(figures, daemon, before, sent):
    """Whether the daemon has about the memory that it had before. Its allocator may keep some, but
    not a third of what the requests brought."""
    return SANITIZED or memory(figures, daemon) - before < sent // 3


def is_refused(connection, data):
    """Whether the answer is an error message and the end of the connection. The end may overtake the
    message."""
    try:
        kind, _ = answer(connection, data)
        return kind == MessageType.MESSAGE_ERROR and connection.recv(1) == b""
    except (BrokenPipeError, ConnectionResetError):
        return True


def service_itself(service, attacker):
    """The key of the service. Its name in `corbaloc` leads to a forwarder."""
    _, body = answer(attacker.connect(), to(by_key(service.ior.key), b"_non_existent"))
    return Ior.decode(Decoder(body[12:], start=HEADER_SIZE + 12)).key


def keys(daemon, attacker):
    """The key of one object of each kind."""
    service = daemon.client(source=ATTACKER)
    writer = open_writer(service, record("named", "attacker"))
    listing = service.queryDiscoveries(1, ANY, "*", "*")
    return {"service": service_itself(service, attacker), "writer": writer.ior.key,
            "iterator": listing.ior.key}


@pytest.mark.parametrize("which", ["service", "writer", "iterator"])
@pytest.mark.parametrize("text", [b"x" * TEXT, b"x" * 1000], ids=["long", "short"])
def test_the_name_of_an_interface_without_its_end(attacked, attack, figures, which, text):
    daemon = attacked()
    attacker = attack(daemon)
    data = to(by_key(keys(daemon, attacker)[which]), b"_is_a", lambda e: e.octets(text))
    rounds = ROUNDS if len(text) == TEXT else 50 * ROUNDS
    connection = attacker.connect()
    with Honest(daemon):
        answer(connection, data)
        before = memory(figures, daemon)
        for _ in range(rounds):
            kind, body = answer(connection, data)
            assert (kind, body[4:8]) == (MessageType.REPLY, SYSTEM_EXCEPTION)
            assert b"MARSHAL" in body
        assert kept_little(figures, daemon, before, rounds * len(text))
    assert daemon.stop() == 0


def test_the_longest_name_of_an_interface(attacked, attack):
    daemon = attacked()
    attacker = attack(daemon)
    connection = attacker.connect()
    key = keys(daemon, attacker)["writer"]
    for length, status in [(1024, NO_EXCEPTION), (1025, SYSTEM_EXCEPTION)]:
        text = b"x" * length + b"\0"
        _, body = answer(connection, to(by_key(key), b"_is_a", lambda e, t=text: e.octets(t)))
        assert body[4:8] == status
    known = b"IDL:omg.org/CORBA/Object:1.0\0"
    _, body = answer(connection, to(by_key(key), b"_is_a", lambda e: e.octets(known)))
    assert body[4:8] == NO_EXCEPTION and body[-1] == 1


@pytest.mark.parametrize("address", [by_profile, by_reference])
@pytest.mark.parametrize("host", [b"h" * TEXT, b"h" * (TEXT - 1) + b"\0"],
                         ids=["without its end", "whole"])
def test_a_target_that_is_no_key(attacked, attack, figures, address, host):
    """No client of this service sends one. The answer is an error, and the end of the connection."""
    daemon = attacked()
    attacker = attack(daemon)
    target = address(keys(daemon, attacker)["service"], host)
    data = to(target, b"_non_existent")
    locate = bytes_of(MessageType.LOCATE_REQUEST, lambda e: target(e.ulong(7)))
    with Honest(daemon):
        before = memory(figures, daemon)
        for number in range(ROUNDS):
            assert is_refused(attacker.connect(), locate if number % 2 else data)
        assert kept_little(figures, daemon, before, ROUNDS * TEXT)
    assert daemon.stop() == 0


@pytest.mark.parametrize("operation", [b"_non_existent", b"unknown"])
@pytest.mark.parametrize("rest", [b"r" * 1000, b"r" * 100_000], ids=["short", "long"])
def test_bytes_behind_the_arguments(attacked, attack, figures, operation, rest):
    """The connection may end, and nothing of the request stays."""
    daemon = attacked()
    attacker = attack(daemon)
    data = to(by_key(keys(daemon, attacker)["service"]), operation, lambda e: e.raw(rest))
    rounds = 10 * ROUNDS
    with Honest(daemon):
        before = memory(figures, daemon)
        for _ in range(rounds):
            connection = attacker.connect()
            with contextlib.suppress(OSError):
                connection.sendall(data)
                connection.shutdown(socket.SHUT_WR)
                while connection.recv(65536):
                    pass
            connection.close()
        # The ORB has two buffers for a request.
        assert kept_little(figures, daemon, before, rounds * 16384)
    assert daemon.stop() == 0


def locate_of(version):
    """A LocateRequest with a long key."""
    def fill(encoder):
        encoder.ulong(7)
        if version == (1, 2):
            encoder.short(0)
        encoder.octets(b"k" * TEXT)
    encoder = Encoder(True, HEADER_SIZE)
    fill(encoder)
    body = encoder.bytes()
    return header(MessageType.LOCATE_REQUEST, len(body), version=version) + body


def old_request(version):
    """A request of an old GIOP version, with a long principal."""
    encoder = Encoder(True, HEADER_SIZE)
    encoder.ulong(0).ulong(7).boolean(True)
    if version == (1, 1):
        encoder.raw(bytes(3))
    encoder.octets(b"unknown").octets(b"_non_existent\0").octets(b"p" * TEXT)
    body = encoder.bytes()
    return header(MessageType.REQUEST, len(body), version=version) + body


LONG_HEADERS = {
    "contexts": to(by_key(b"unknown"), b"_non_existent", contexts=b"c" * TEXT),
    "operation": to(by_key(b"unknown"), b"o" * TEXT),
    "key": to(by_key(b"k" * TEXT), b"_non_existent"),
    "located key": locate_of((1, 2)),
    "located key 1.0": locate_of((1, 0)),
    "principal 1.0": old_request((1, 0)),
    "principal 1.1": old_request((1, 1)),
}


@pytest.mark.parametrize("name", LONG_HEADERS)
def test_an_idle_connection_keeps_no_header(attacked, attack, figures, name):
    daemon = attacked()
    attacker = attack(daemon)
    with Honest(daemon):
        answer(attacker.connect(), LONG_HEADERS[name])
        before = memory(figures, daemon)
        for _ in range(IDLE):
            kind, _ = answer(attacker.connect(), LONG_HEADERS[name])
            assert kind in (MessageType.REPLY, MessageType.LOCATE_REPLY)
        assert kept_little(figures, daemon, before, IDLE * TEXT)
        assert attacker.ended() == 0
    assert daemon.stop() == 0
