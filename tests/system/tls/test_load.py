"""Many peers at once: honest ones, and those that stall in their handshake."""

import os
import ssl
import threading
import time

import pytest

import giop
import harness
from attack import ATTACKER, Attacker
from honest import Honest
from mistakes import STALLED
from pki import Authority
from records import SUCCESS, get, put, query

CLIENTS = 32
ROUNDS = 10
PEERS = 200 if os.environ.get("QM_SANITIZE") else 1000
TIMEOUT = 5
# Seconds that an orderly stop may take, with some for a busy machine.
STOP = 20 if os.environ.get("QM_SANITIZE") else 10

pytestmark = pytest.mark.usefixtures("many_descriptors")


@pytest.fixture
def daemon(start, secure_root):
    """With the log that users have."""
    secure_root.configure(**secure_root.credentials.keys(), LOG_LEVEL=1, LOG_BURST=20,
                          REQUEST_TIMEOUT=TIMEOUT)
    return start(secure_root)


def counters(root):
    return root.status()["counters"]


def hello(files):
    """The first message of a client's handshake."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    half = files.as_client().wrap_bio(incoming, outgoing)
    with pytest.raises(ssl.SSLWantReadError):
        half.do_handshake()
    return outgoing.read()


def test_32_clients_at_once(daemon, tmp_path, secure_root):
    """Each has a certificate of its own, and a new connection in each round."""
    names = ["web%d" % number for number in range(2, 2 + CLIENTS)]
    authority = Authority(tmp_path / "tls").issue(*names)
    failures, done = [], []

    def work(name):
        try:
            data = os.urandom(300_000)
            for number in range(ROUNDS):
                with_tls = authority.files(name).as_client()
                service = daemon.client(tls=with_tls)
                assert put(service, "notes", name, data, chunk=100_000) == SUCCESS
                assert get(service, "notes", name) == data
                assert [each.subject for each in query(service, authority=name)] == ["notes"]
                service.orb.close()
                done.append((name, number))
        except BaseException as failure:  # pylint: disable=broad-except
            failures.append("%s: %r" % (name, failure))
    threads = [threading.Thread(target=work, args=(name,), daemon=True) for name in names]
    for each in threads:
        each.start()
    for each in threads:
        each.join(300)
    assert failures == []
    assert len(done) == CLIENTS * ROUNDS
    assert len(secure_root.files()) == 2 * CLIENTS
    assert daemon.stop() == 0


@pytest.mark.parametrize("part", [3, 5, 60, -1, None], ids=[
    "half a record header", "a record header", "half a hello", "most of a hello",
    "a whole hello"])
def test_handshakes_that_stall(daemon, authority, secure_root, part):
    """They end after REQUEST_TIMEOUT, take no thread each, and an honest client is served."""
    data = hello(authority.files("web1"))[:part]
    attacker = Attacker(daemon)
    with attacker, Honest(daemon):
        begin = time.monotonic()
        attacker.open(PEERS, data)
        threads = len(os.listdir("/proc/%d/task" % daemon.pid))
        assert threads < 160
        harness.wait_for(lambda: attacker.ended() == PEERS, "the stalled handshakes end",
                         limit=6 * TIMEOUT + 30)
        assert time.monotonic() - begin >= TIMEOUT
    harness.wait_for(lambda: counters(secure_root)["connectionsStalled"] >= PEERS,
                     "the stalled handshakes are counted")
    assert "Closed a connection of %s: %s" % (ATTACKER, STALLED) in \
        secure_root.log_file.read_text()
    assert daemon.stop() == 0


def test_a_connection_may_idle_after_its_handshake(daemon, authority, secure_root):
    connection = giop.connection.Connection(*daemon.address, 30, None,
                                            authority.files("web1").as_client())
    time.sleep(2 * TIMEOUT)
    assert counters(secure_root)["connectionsStalled"] == 0
    connection.send(b"GIOP\1\2\1\3\x04\0\0\0\1\0\0\0")  # locates nothing
    assert connection.receive_message()
    connection.close()


def test_a_stop_does_not_wait_for_handshakes(daemon, authority):
    attacker = Attacker(daemon)
    with attacker:
        attacker.open(100, hello(authority.files("web1")))
        begin = time.monotonic()
        assert daemon.stop() == 0
        assert time.monotonic() - begin < STOP


def test_handshakes_byte_by_byte(daemon, authority):
    """A slow network is no attack: the handshake takes less than its limit."""
    data = hello(authority.files("web1"))
    with Attacker(daemon) as attacker:
        connection = attacker.connect()
        for byte in data[:100]:
            connection.sendall(bytes([byte]))
            time.sleep(0.01)
        connection.sendall(data[100:])
        assert connection.recv(5)[:3] == b"\x16\x03\x03", "the service answers the hello"


def test_garbage_in_the_handshake(daemon, authority, secure_root):
    """Every byte of the hello is damaged once. No damage harms the service."""
    data = hello(authority.files("web1"))
    with Honest(daemon), Attacker(daemon) as attacker:
        for place in range(len(data)):
            connection = attacker.connect()
            connection.sendall(data[:place] + bytes([data[place] ^ 0xff]) + data[place + 1:])
            connection.shutdown(1)
        harness.wait_for(lambda: attacker.ended() == len(data), "all of them end", limit=60)
    assert secure_root.status()["assertions"] == 0
    assert daemon.stop() == 0


def test_garbage_after_the_handshake(daemon, authority, secure_root):
    context = authority.files("web1").as_client()
    with Honest(daemon):
        for data in (b"GIOP" + b"\xff" * 60, b"\0" * 200, os.urandom(4096)):
            connection = giop.connection.Connection(*daemon.address, 30, None, context)
            connection.send(data)
            with pytest.raises((giop.ConnectionLost, giop.GiopError)):
                while True:
                    connection.receive_message()
            connection.close()
    assert secure_root.status()["assertions"] == 0
    assert daemon.stop() == 0
