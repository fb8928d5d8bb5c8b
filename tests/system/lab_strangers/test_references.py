"""A fake client answers with odd references, or ends each connection. The master's calls end soon,
reach nobody whom they should not reach, and leave places for the calls to others."""

import contextlib
import dataclasses
import itertools
import os
import socket
import threading
import time

import pytest

import harness
from giop import AuthorityType, DiscoveryService, DiscoveryStatus, HangUp, Server
from giop.messages import MessageType, header
from records import ANY, SUCCESS, get, put, record
from stranger import PORT, Stranger
from test_redirects import BACK, FORWARDS, SOON, forward, pull, refusals, register

CLOSE_CONNECTION = header(MessageType.CLOSE_CONNECTION, 0)
CONNECTIONS = 8   # of one call
PEER_CONNECTIONS = 128  # to one address
ADDRESSES = 32    # of one reference
NAMES = 4         # among them
CLOSED = 9        # a port where nobody listens
NAME_LIMIT = 5    # seconds for one name
PULLS = 32        # that run at the same time
# Seconds that an orderly stop may take.
STOP = 15 if os.environ.get("QM_SANITIZE") else 8


@pytest.fixture
def lab(stage):
    """(the stage, the fake client's host, the master's service, its log)"""
    stranger, _ = stage.build(["stranger", "good"]).clients
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start(stage.master)
    yield stage, stranger, stage.service(stage.master), stage.master.root.log()
    if stage.daemon(stage.master).is_running():
        assert stage.daemon(stage.master).stop() == 0
    assert stage.master.root.status()["assertions"] == 0


def goodbyes(times):
    """Ends so many connections in order without an answer, then lets the object answer."""
    left = [True] * times

    def step(_):
        if left:
            left.pop()
            raise HangUp(CLOSE_CONNECTION)
    return step


def test_as_many_connections_as_allowed(lab):
    """The first request goes over the connection of the lookup."""
    _, client, service, log = lab
    with Stranger(client) as stranger:
        stranger.redirects = {"queryDiscoveries": goodbyes(CONNECTIONS)}
        register(service)
        assert get(service, "volumes", "a", ANY) == b"123456789"
        assert stranger.connections == 1 + CONNECTIONS
    assert refusals(log) == []


@pytest.mark.parametrize("operation", ["_non_existent", "_is_a", "queryDiscoveries",
                                       "getCollectionData", "getNextPage"])
def test_a_host_that_ends_each_connection(lab, operation):
    stage, client, service, log = lab
    with Stranger(client) as stranger:
        stranger.redirects = {operation: goodbyes(10_000)}
        register(service)
        begin = time.monotonic()
        assert pull(service) == DiscoveryStatus.DS_OPEN_FAILED
        assert time.monotonic() - begin < SOON
        calls = len(refusals(log))
        assert 1 <= calls <= 2, "a pull that fails makes few calls"
        # In addition the first one, the one that is refused, and that of a release afterwards.
        assert stranger.connections <= calls * (CONNECTIONS + 1) + 2
        stranger.redirects = {}
        assert get(service, "volumes", "a", ANY) == b"123456789"
    assert set(refusals(log)) == {"it has opened 8 connections already"}
    assert stage.daemon(stage.master).stop() == 0
    assert stage.master.root.status()["counters"]["callsRefused"] == calls


@pytest.mark.parametrize("kind, used", [("address", ADDRESSES), ("name", NAMES)])
@pytest.mark.parametrize("beyond", [0, 1])
def test_the_addresses_of_a_reference(lab, kind, used, beyond):
    """Only the last one leads to the service. Nobody listens at the others."""
    _, client, service, log = lab
    host = client.address if kind == "address" else str(client)
    with Stranger(client) as stranger:
        def many(reference):
            alternates = ((host, CLOSED),) * (used + beyond - 2) + ((host, PORT),)
            return forward(dataclasses.replace(reference, host=host, port=CLOSED,
                                               alternates=alternates))
        stranger.redirects = {"queryDiscoveries": once(many)}
        register(service)
        # With TLS, the further addresses are plain, and none of them is called.
        is_reached = not beyond and not client.root.credentials
        assert (pull(service) == SUCCESS) is is_reached
    warnings = [line for line in log.lines() if line.text.startswith("A reference has ")]
    assert beyond == len(warnings) or client.root.credentials


def once(redirect):
    """Redirects the first request only."""
    first = [True]
    return lambda reference: redirect(reference) if first and first.pop() else None


@pytest.fixture
def silent_names(lab):
    """The master's name server is on the fake client's host, and never answers."""
    stage, client, _, _ = lab
    with client.network():
        server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        server.bind((client.address, 53))
    file = stage.lab.directory / "resolv.conf"
    file.write_text("nameserver %s\n" % client.address)
    done = stage.master.run("mount", "--bind", str(file), "/etc/resolv.conf")
    assert done.returncode == 0, done.stderr
    yield
    server.close()


def slow_names(reference):
    """Four names that nobody can look up."""
    return dataclasses.replace(reference, host="slow0.example", alternates=tuple(
        ("slow%d.example" % number, PORT) for number in range(1, NAMES)))


@pytest.mark.usefixtures("silent_names")
def test_names_that_nobody_can_look_up(lab):
    _, client, service, _ = lab
    service.orb.timeout = 60
    with Stranger(client) as stranger:
        stranger.redirects = {"queryDiscoveries": lambda own: forward(slow_names(own))}
        register(service)
        begin = time.monotonic()
        assert pull(service) == DiscoveryStatus.DS_OPEN_FAILED
        assert time.monotonic() - begin < NAMES * NAME_LIMIT + SOON


@pytest.mark.usefixtures("silent_names")
def test_a_stop_while_names_are_looked_up(lab):
    stage, client, service, _ = lab
    with Stranger(client) as stranger:
        stranger.redirects = {"queryDiscoveries": lambda own: forward(slow_names(own))}
        register(service)
        pulls = [threading.Thread(target=pull_or_fail, args=(stage,), daemon=True)
                 for _ in range(8)]
        for each in pulls:
            each.start()
        time.sleep(1)
        begin = time.monotonic()
        assert stage.daemon(stage.master).stop() == 0
        assert time.monotonic() - begin < STOP
        for each in pulls:
            each.join(60)
        assert not any(each.is_alive() for each in pulls)


def pull_or_fail(stage):
    with contextlib.suppress(Exception):
        pull(stage.service(stage.master, timeout=60))


def test_a_host_that_hangs_leaves_places_for_others(lab):
    """Twice as many readers as places ask for a record of the host that hangs."""
    stage, client, service, _ = lab
    go_on = threading.Event()

    def hang(_):
        go_on.wait(60)
    _, good = stage.clients
    with Stranger(client) as stranger, Stranger(good):
        stranger.redirects = {"queryDiscoveries": hang}
        register(service)
        pulls = [threading.Thread(target=pull_or_fail, args=(stage,), daemon=True)
                 for _ in range(2 * PULLS)]
        for each in pulls:
            each.start()
        harness.wait_for(lambda: sum(each.is_alive() for each in pulls) == PULLS // 2,
                         "half of the places are taken, and the other readers are refused")
        # This explorer sorts last, so the master can read it by name.
        service.registerExplorer("DiscoveryService", "good", "w", "a", AuthorityType.AT_EXTSRC, 5)
        for _ in range(10):
            begin = time.monotonic()
            assert get(service, "w", "a", ANY) == b"123456789"
            assert put(service, "honest", "b") == SUCCESS
            assert time.monotonic() - begin < SOON
        go_on.set()
        for each in pulls:
            each.join(60)
        assert not any(each.is_alive() for each in pulls)
    assert stage.daemon(stage.master).stop() == 0
    assert stage.master.root.status()["counters"]["pullsTurnedAway"] == 2 * PULLS - PULLS // 2
    assert "Host stranger is not asked: 16 pulls from it run already" in \
        stage.master.root.log_file.read_text()


@pytest.mark.parametrize("files, most", [(None, PEER_CONNECTIONS), (400, 85)])
def test_a_host_that_makes_the_caller_open_connections(lab, files, most):
    """Each of its references has other addresses, so the ORB takes each for another host. When the
    process may open few files, half of those that are left are for the calls to all hosts."""
    stage, client, service, log = lab
    if files:
        assert stage.daemon(stage.master).stop() == 0
        stage.start(stage.master, wrapper=["prlimit", "--nofile=%d" % files])
        service = stage.service(stage.master)
    daemon = stage.daemon(stage.master)
    _, good = stage.clients
    number = itertools.count(1)

    def another(reference):
        return forward(dataclasses.replace(
            reference, alternates=(("192.0.2.1", next(number) % 60_000 + 1),)))
    with Stranger(client) as stranger, Stranger(good):
        stranger.redirects = {"queryDiscoveries": another}
        register(service)
        before = descriptors(daemon)
        for _ in range(2 * PEER_CONNECTIONS // FORWARDS):
            pull(service)
        assert descriptors(daemon) <= before + most
        assert stranger.connections >= most
        service.registerExplorer("DiscoveryService", "good", "w", "a", AuthorityType.AT_EXTSRC, 5)
        if not files:
            assert get(service, "w", "a", ANY) == b"123456789"
        for _ in range(10):
            assert put(daemon.client(), "honest", "b") == SUCCESS
    assert any(text.startswith("%d connections to this address and " % most)
               for text in refusals(log))


def descriptors(daemon):
    return len(os.listdir("/proc/%d/fd" % daemon.pid))


def test_a_second_address_that_leads_back(lab):
    """The first address answers the lookup, and vanishes. The next call takes the second one."""
    _, client, service, log = lab
    assert service._non_existent() is False
    [own] = service.orb.forwards
    credentials = client.root.credentials
    tls = credentials.as_server() if credentials else None
    with Stranger(client) as stranger, \
            Server(client.address, 0, client.network, tls=tls) as vanishing:
        def answer(operation, _):
            if operation == "queryDiscoveries":
                vanishing.stop_listening()
                raise HangUp(CLOSE_CONNECTION)
            return lambda e: e.boolean(operation == "_is_a")
        first = vanishing.add(own.key, DiscoveryService.TYPE_ID, answer)
        both = dataclasses.replace(first, alternates=(("127.0.0.1", own.port),))
        stranger.redirects = {"_non_existent": lambda _: forward(both)}
        register(service)
        assert pull(service) == DiscoveryStatus.DS_OPEN_FAILED
    # The second address is plain. With TLS, that is reason enough not to call it.
    assert set(refusals(log)) == (set() if tls else {BACK})


def test_a_socket_of_a_local_program(lab, tmp_path):
    """A reference may name a path on the machine of the caller."""
    stage, client, service, _ = lab
    path = tmp_path / "program"
    with Stranger(client) as stranger, socket.socket(socket.AF_UNIX) as program:
        program.bind(str(path))
        program.listen(10)
        program.settimeout(2)
        machine = stage.master.run("hostname").stdout.strip()
        stranger.redirects = {"queryDiscoveries": lambda own: forward(
            dataclasses.replace(own, port=0, unix=(machine, str(path))))}
        register(service)
        assert pull(service) == DiscoveryStatus.DS_OPEN_FAILED
        with pytest.raises(TimeoutError):
            program.accept()
