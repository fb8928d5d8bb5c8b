"""Tests of TLS in the tests' own client and server, and of what they show about a bad peer.

The stories about TLS compare alerts word for word. Here a peer sends them that has the rules of
the service: TLS 1.3, and a certificate of the CA from each side.
"""

import ssl

import pytest

import giop
from giop import Ior, Orb, Server, parse_reference
from giop.orb import Proxy
from pki import DAY, Authority, nobody, refusal

ALERTS = {
    "expired": "sslv3 alert certificate expired",
    "not yet valid": "sslv3 alert bad certificate",
    "foreign CA": "tlsv1 alert unknown ca",
    "self-made": "tlsv1 alert unknown ca",
    "for servers": "sslv3 alert unsupported certificate",
    "no certificate": "tlsv13 alert certificate required",
    "TLS 1.2": "tlsv1 alert protocol version",
}


@pytest.fixture(scope="module")
def authority(tmp_path_factory):
    return Authority(tmp_path_factory.mktemp("tls") / "ca").issue("server", "client")


@pytest.fixture(scope="module")
def contexts(authority, tmp_path_factory):
    foreign = Authority(tmp_path_factory.mktemp("foreign") / "ca").issue("client")
    as_attacker = {"checks": False}
    return {
        "good": authority.files("client").as_client(),
        "expired": authority.sign("expired", "DNS:client", -2 * DAY, -60).as_client(),
        "not yet valid": authority.sign("early", "DNS:client", DAY, 2 * DAY).as_client(),
        "foreign CA": foreign.files("client").as_client(**as_attacker),
        "self-made": authority.self_made("self-made", "DNS:client").as_client(),
        "for servers": authority.sign("purpose", "DNS:client", usage="serverAuth").as_client(),
        "no certificate": nobody(),
        "TLS 1.2": authority.files("client").as_client(version=ssl.TLSVersion.TLSv1_2),
    }


@pytest.fixture
def server(authority):
    with Server("127.0.0.1", tls=authority.files("server").as_server()) as made:
        yield made


def echo(_, arguments):
    text = arguments.string()
    return lambda encoder: encoder.string(text)


def call(orb, reference, text="hello"):
    return Proxy(orb, reference).call("echo", lambda e: e.string(text), lambda d: d.string())


def test_a_call(authority, contexts, server):
    reference = server.add(b"echo", "IDL:echo:1.0", echo)
    assert (reference.port, reference.tls_port) == (0, server.port)
    with Orb(timeout=10, tls=contexts["good"]) as orb:
        assert call(orb, reference, "x" * 3_000_000) == "x" * 3_000_000
        assert call(orb, parse_reference(str(reference))) == "hello"
        assert orb.certificates() == [authority.files("server").fingerprint()]
    assert server.accepted == 1


def test_references():
    plain, secure = Ior("IDL:x:1.0", "h", 7, b"k"), Ior("IDL:x:1.0", "h", 0, b"k", (1, 2), 8)
    for each in (plain, secure, Ior("IDL:x:1.0", "h", 7, b"k", (1, 2), 8)):
        assert parse_reference(str(each)) == each
    assert parse_reference("corbaloc:ssliop:1.2@h:8/k") == Ior("", "h", 0, b"k", (1, 2), 8)
    with Orb(timeout=10) as orb, pytest.raises(giop.GiopError, match="a reference with only TLS"):
        call(orb, secure)
    with Orb(timeout=10, tls=nobody()) as orb, \
            pytest.raises(giop.GiopError, match="a reference without TLS"):
        call(orb, plain)


@pytest.mark.parametrize("mistake", ALERTS)
def test_what_a_bad_client_sees(contexts, server, mistake):
    reference = server.add(b"echo", "IDL:echo:1.0", echo)
    assert refusal(("127.0.0.1", server.port), contexts[mistake]) == ALERTS[mistake]
    with Orb(timeout=10, tls=contexts[mistake]) as orb, pytest.raises(giop.ConnectionLost):
        call(orb, reference)
    with Orb(timeout=10, tls=contexts["good"]) as orb:
        assert call(orb, reference) == "hello"


def test_plain_text_to_tls(server):
    server.add(b"echo", "IDL:echo:1.0", echo)
    with Orb(timeout=10) as orb, pytest.raises((giop.ConnectionLost, giop.GiopError)):
        call(orb, Ior("", "127.0.0.1", server.port, b"echo"))


def test_tls_to_plain_text(contexts):
    with Server("127.0.0.1") as plain, Orb(timeout=10, tls=contexts["good"]) as orb:
        plain.add(b"echo", "IDL:echo:1.0", echo)
        with pytest.raises(giop.ConnectionLost):
            call(orb, Ior("", "127.0.0.1", 0, b"echo", (1, 2), plain.port))


def test_an_end_while_a_peer_is_silent(authority, contexts):
    """close() does not wait for a peer that stalls in its handshake, or after it."""
    server = Server("127.0.0.1", tls=authority.files("server").as_server())
    with Orb(timeout=10, tls=contexts["good"]) as orb:
        assert call(orb, server.add(b"echo", "IDL:echo:1.0", echo)) == "hello"
        half = giop.connection.Connection("127.0.0.1", server.port, 10)
        half.send(b"\x16\x03\x01")
        server.close()
        half.close()
