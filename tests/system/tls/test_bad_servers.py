"""Hosts of the lab call services with mistakes, each at the address of a host that they trust."""

import re
import socket
import ssl
import threading
import time

import pytest

import giop
from giop import DiscoveryIterator, DiscoveryService, DiscoveryStatus, Ior, Server
import harness
from lab.stage import wait_until_registered
from mistakes import BAD_CERTIFICATES, SILENT, TLS_1_2_SERVER, bad_files, refused_server, \
    unknown_address, wrong_name
from records import ANY, get, query, status_of_get, subjects
from stranger import PORT, Stranger

CANNOT_CONNECT = "Failed to connect to remote discovery service"
# Seconds that an orderly stop may take, with some for a busy machine.
STOP = 10


@pytest.fixture
def client(stage):
    """A host with a running service, whose master a test replaces. The service registers only
    after minutes, so only the test makes it call."""
    made = stage.build(["client", "another"], tls="required").clients[0]
    stage.start(made)
    yield made
    assert stage.daemon(made).stop() == 0


def printed_by_tool(host, address, reason, called="master"):
    """What a tool prints when it refuses the service on a host. The first line may name more."""
    return re.compile(
        r"qmdiscoctl: cannot reach the discovery service on %s \(%s:14400\): [^\n]*, TLS: %s\n"
        r"qmdiscoctl: log: TlsCalls::open: %s\n"
        % (called, re.escape(called), re.escape(reason),
           re.escape(refused_server(host, address, reason))))


def refuses(stage, client, reason, **options):
    """Puts a fake master in the master's place. The client's tools and its service must refuse it
    for this reason, and ask it for nothing. Returns what the fake has seen of it."""
    address = stage.master.address
    says = printed_by_tool("master", address, reason)
    with Stranger(stage.master, **options) as fake:
        for command in (("query",), ("put", "s", "a", "/etc/hostname")):
            printed = client.ctl(*command, code=3)
            assert says.fullmatch(printed), printed
        log = client.root.log()
        assert query(stage.service(client)) == []
        assert refused_server("master", address, reason) in \
            log.texts(level=1, originator=harness.PLATFORM)
        assert CANNOT_CONNECT in log.failures("../DiscoveryRepository")
        assert fake.connections >= 3
        assert fake.asked == []
        return fake.failures


def test_a_good_one_is_called(stage, client):
    with Stranger(stage.master) as good:
        assert client.ctl("query", "--subject", "volumes", "--json")
        assert subjects(stage.service(client), subject="volumes") == ["volumes"]
        assert good.failures == []


@pytest.mark.parametrize("mistake", BAD_CERTIFICATES)
def test_a_bad_certificate(stage, client, mistake):
    files = bad_files(stage.lab.authority, mistake, "DNS:master", for_server=True)
    seen = refuses(stage, client, BAD_CERTIFICATES[mistake].reason,
                   tls=files.as_server(checks=False))
    assert all(BAD_CERTIFICATES[mistake].alert in each for each in seen) and seen


def test_a_client_s_certificate_as_the_master(stage, client):
    """The CA has signed it, and it is good for the host that it names."""
    stolen = stage.lab.authority.files("another")
    refuses(stage, client, wrong_name("another", "master"), tls=stolen.as_server())


def test_the_caller_s_own_certificate_as_the_master(stage, client):
    refuses(stage, client, wrong_name("client", "master"),
            tls=stage.lab.authority.files("client").as_server())


@pytest.mark.parametrize("names, shown", [
    ("DNS:elsewhere", "elsewhere"), ("DNS:master.example.org", "master.example.org"),
    ("DNS:notmaster", "notmaster"), ("DNS:*", "*"), ("IP:10.77.0.99", "10.77.0.99"),
])
def test_a_name_that_is_not_the_master_s(stage, client, names, shown):
    files = stage.lab.authority.sign("named", names)
    refuses(stage, client, wrong_name(shown, "master"), tls=files.as_server())


@pytest.mark.parametrize("names", ["DNS:master", "DNS:MASTER", "DNS:other,DNS:master"])
def test_a_name_that_is_the_master_s(stage, client, names):
    files = stage.lab.authority.sign("named", names)
    with Stranger(stage.master, tls=files.as_server()):
        assert subjects(stage.service(client), subject="volumes") == ["volumes"]


def test_a_master_that_is_called_by_its_address(stage, client):
    address = stage.master.address
    with Stranger(stage.master):
        client.ctl("query", "--host", address, "--subject", "volumes")
    only_name = stage.lab.authority.sign("named", "DNS:master")
    with Stranger(stage.master, tls=only_name.as_server()) as fake:
        printed = client.ctl("query", "--host", address, code=3)
        reason = wrong_name("master", address)
        assert printed_by_tool(address, address, reason, address).fullmatch(printed), printed
        assert fake.asked == []


def test_a_plain_server(stage, client):
    refuses(stage, client, SILENT, tls=False)


def test_a_server_with_tls_1_2_only(stage, client):
    old = stage.lab.authority.files("master").as_server(version=ssl.TLSVersion.TLSv1_2)
    refuses(stage, client, TLS_1_2_SERVER, tls=old)


def test_a_server_that_stalls_in_its_handshake(stage, client):
    """Every call has its limit: the tool gives up, and a stop of the service does not wait."""
    master = stage.master
    with master.network():
        silent = socket.create_server((master.address, PORT))
    with silent:  # the kernel takes the connections, and nobody answers
        assert "cannot reach the discovery service on master" in client.ctl("query", code=3)
        service = stage.service(client)
        caller = threading.Thread(target=lambda: is_lost(service), daemon=True)
        caller.start()
        harness.wait_for(lambda: len(connections_to(client, PORT)) > 0, "the service connects")
        begin = time.monotonic()
        assert stage.daemon(client).stop() == 0
        assert time.monotonic() - begin < STOP
        caller.join(harness.CALL_LIMIT)
        assert not caller.is_alive()


def is_lost(service):
    """Queries a service that stops meanwhile. The answer does not matter."""
    try:
        query(service)
    except (giop.ConnectionLost, giop.SystemException):
        pass


def connections_to(host, port):
    """The lines about connections from a host to a port."""
    listed = host.run("ss", "--no-header", "--tcp", "--numeric", "dport = :%d" % port).stdout
    return [line for line in listed.splitlines() if not line.split()[3].endswith(":%d" % port)]


def redirecting(reference):
    """A master that answers a query with a reference to an iterator elsewhere."""
    def service(operation, arguments):
        if operation == "_is_a":
            arguments.string()
            return lambda e: e.boolean(True)
        if operation == "_non_existent":
            return lambda e: e.boolean(False)
        assert operation == "queryDiscoveries"
        return reference.encode
    return service


@pytest.mark.parametrize("is_plain", [False, True], ids=["tls", "plain"])
def test_a_reference_that_leads_elsewhere(stage, client, is_plain):
    """The master is genuine, and its answer leads to another host. This host has a good
    certificate, but the client has not looked it up. And a plain reference leads nowhere."""
    another = stage.lab.hosts["another"]
    asked = []

    def iterator(operation, _):
        asked.append(operation)
        return lambda e: e.ulong(0)
    files = stage.lab.authority.files
    with Server(stage.master.address, PORT, stage.master.network,
                tls=files("master").as_server()) as master, \
            Server(another.address, PORT, another.network,
                   tls=None if is_plain else files("another").as_server()) as elsewhere:
        target = elsewhere.add(b"iterator", DiscoveryIterator.TYPE_ID, iterator)
        master.add(b"DiscoveryService", DiscoveryService.TYPE_ID, redirecting(target))
        log = client.root.log()
        assert query(stage.service(client)) == []
        said = log.texts(level=1, originator=harness.PLATFORM)
        refusal = refused_server("", another.address, unknown_address("another"))
        assert (refusal in said) == (not is_plain)
        printed = client.ctl("query", code=4)
        assert ("qmdiscoctl: log: TlsCalls::open: %s\n" % refusal in printed) == (not is_plain)
        assert asked == []
        assert elsewhere.accepted == 0 or not is_plain


def test_a_plain_address_beside_the_one_with_tls(stage, client):
    """An answer that carries both addresses must not lead to plain text."""
    files = stage.lab.authority.files
    with Server(stage.master.address, PORT, stage.master.network,
                tls=files("master").as_server()) as master, \
            Server(stage.master.address, PORT + 1, stage.master.network) as plain:
        both = Ior(DiscoveryIterator.TYPE_ID, stage.master.address, PORT + 1, b"iterator", (1, 2),
                   PORT + 2)  # nobody listens for TLS there
        plain.add(b"iterator", DiscoveryIterator.TYPE_ID, lambda *_: lambda e: e.ulong(0))
        master.add(b"DiscoveryService", DiscoveryService.TYPE_ID, redirecting(both))
        client.ctl("query", code=4)
        assert query(stage.service(client)) == []
        assert plain.accepted == 0


def test_the_master_pulls_from_nobody_but_the_client(stage):
    """The certificate of another client at the address of one that has registered."""
    one, two = stage.build(2, tls="required").clients
    last, other = (one, two) if str(one) > str(two) else (two, one)
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    wait_until_registered(last)
    service = stage.service(stage.master)
    subject = "%s/now" % last
    assert get(service, subject, str(last), ANY)
    assert stage.daemon(last).stop() == 0
    log = stage.master.root.log()
    with Stranger(last, tls=stage.lab.authority.files(str(other)).as_server()) as thief:
        assert status_of_get(service, subject, str(last), ANY) == DiscoveryStatus.DS_OPEN_FAILED
        assert thief.asked == []
    assert refused_server(str(last), last.address, wrong_name(str(other), str(last))) in \
        log.texts(level=1, originator=harness.PLATFORM)
    stage.start(last)
    assert get(service, subject, str(last), ANY)
