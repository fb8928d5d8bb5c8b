"""What works between hosts of a lab with TLS, and who a peer is there."""

import socket

import pytest

import giop
import harness
from giop import AuthorityType
from lab import prompt_names
from lab.stage import wait_until_pushed
from pki import Files, nobody
from records import ANY, SUCCESS, get, put, query, record, subjects
from refusals import refusals, refused

ENDPOINT = 14400


def shown_certificate(stage, caller, host):
    """The certificate that the host's service shows to another host."""
    context = stage.lab.authority.files(str(caller)).as_client()
    with caller.network():
        connection = socket.create_connection((host.address, ENDPOINT), 30)
    with connection, context.wrap_socket(connection) as secured:
        assert secured.version() == "TLSv1.3"
        return secured.getpeercert(binary_form=True)


@pytest.mark.parametrize("version", [4, 6])
def test_the_whole_service(stage, version):
    clients = stage.build(2, version=version, tls="required").clients
    # Otherwise the master's own explorer would sort after all of them.
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    master = stage.service(stage.master)
    for client in clients:
        wait_until_pushed(client, stage.master)
        data = bytes(range(256)) * 200
        assert put(stage.service(client), "notes", str(client), data, chunk=10_000) == SUCCESS
        assert get(master, "notes", str(client)) == data
        assert subjects(stage.service(client), authority=str(client)) == \
            subjects(master, authority=str(client))
        assert shown_certificate(stage, client, stage.master) == \
            stage.lab.authority.files("master").fingerprint()
    assert subjects(master, type=AuthorityType.AT_REMOTEPULL) == \
        sorted("%s/now" % client for client in clients)
    last = max(clients, key=str)
    assert b"<DISCOVERED " in get(master, "%s/now" % last, str(last), ANY)
    # The same with the tools, from a client and from the master.
    for host in (stage.master, *clients):
        assert {str(each) for each in clients} <= set(host.ctl("query").split())
        assert str(last) in host.ctl("clients", "--registered")
    clients[0].ctl("put", "from-a-tool", str(clients[0]), "/etc/hostname")
    assert "from-a-tool" in stage.master.ctl("query").split()
    stage.master.ctl("refresh", "--all")
    assert last.ctl("items")
    for host in (stage.master, *clients):
        failed = [text for text in host.root.log().texts(originator=harness.PLATFORM)
                  if "TLS connection" in text]
        assert failed == []


def test_without_a_certificate_nobody_comes_in(stage):
    [client] = stage.build(1, tls="required").clients
    stage.start_all()
    daemon = stage.daemon(stage.master)
    for options in ({"tls": None}, {"tls": nobody()}):
        with pytest.raises((giop.ConnectionLost, giop.GiopError)):
            query(daemon.client(network=client.network, **options))
    client.configure(TLS="off")
    assert client.ctl("query", code=3).startswith(
        "qmdiscoctl: cannot reach the discovery service on master (master:14400): ")


def test_a_secure_client_does_not_speak_to_a_plain_master(stage):
    [client] = stage.build(1, tls="required", config={"master": {"TLS": "off"}}).clients
    stage.start(stage.master, client)
    assert "TLS: " in client.ctl("query", code=3)
    assert query(stage.service(client)) == []
    assert [name for name in stage.master.root.files() if str(client) in name] == []
    assert put(stage.service(stage.master), "notes", "master") == SUCCESS


def test_a_network_that_migrates(stage):
    """With `on`, a host speaks TLS to those that have it, and plain text to the others."""
    one, two = stage.build(2, tls="on").clients
    two.configure(TLS="off")
    stage.start_all()
    for client in (one, two):
        wait_until_pushed(client, stage.master)
        client.ctl("put", "notes", str(client), "/etc/hostname")
        assert {str(one), str(two)} <= set(client.ctl("query").split())
    assert shown_certificate(stage, one, stage.master) == \
        stage.lab.authority.files("master").fingerprint()
    # The master calls both. There is one warning about the host without TLS.
    def refreshed():
        done = stage.master.run(harness.program("qmdiscoctl"), "--root", stage.master.path,
                                "refresh", "--all")
        return done.returncode == 0
    for _ in range(3):
        harness.wait_for(refreshed, "no other refresh is running")
    def warned():
        return [text for text in warnings_in(stage.master) if " calls to " in text]
    harness.wait_for(warned, "the refresh reaches the plain client")
    assert sorted(warnings_in(stage.master)) == [
        "TLS does not protect the calls of %s (TLS = on): the connection is plain" % two.address,
        "TLS does not protect the calls to %s (%s) (TLS = on): the connection is plain"
        % (two, two.address)]
    assert stage.master.root.status()["counters"]["connectionsPlain"] > 0
    assert warnings_in(one) == []


def warnings_in(host):
    text = host.root.log_file.read_text(encoding="utf-8").splitlines()
    return [line.text for line in map(harness.parse_line, text)
            if line.text.startswith("TLS does not protect")]


class Peer:
    """Calls a host from the address of one host, with the certificate of another."""

    def __init__(self, stage):
        self._stage = stage
        self._orbs = []

    def __call__(self, at, files, host=None):
        if not isinstance(files, Files):
            files = self._stage.lab.authority.files(str(files))
        self._orbs.append(giop.Orb(timeout=harness.CALL_LIMIT, network=at.network,
                                   tls=files.as_client()))
        host = host or self._stage.master
        return harness.service_at(self._orbs[-1], "%s:%d" % (host.address, ENDPOINT))

    def close(self):
        for each in self._orbs:
            each.close()


@pytest.fixture
def lists(stage):
    """(stage, one, two, service_as): the master admits client one to control, and each host to
    what is its own. service_as(at, files) calls it from a host, with somebody's files."""
    names = prompt_names(2, soon=0)
    stage.build(names, tls="required", config={"master": {
        "ALLOW.control": names[0], "ALLOW.write": "own", "ALLOW.register": "own"}})
    stage.start_all()
    one, two = stage.clients
    peer = Peer(stage)
    yield stage, one, two, peer
    peer.close()


def test_a_peer_is_who_its_certificate_names(lists):
    """Its address does not matter."""
    stage, one, two, service_as = lists
    log = stage.master.root.log()
    for at in (one, two):
        as_one, as_two = service_as(at, one), service_as(at, two)
        as_one.restartLocalPushTimer()
        refused(as_two.restartLocalPushTimer)
        for service, own, other in ((as_one, one, two), (as_two, two, one)):
            assert put(service, "notes", str(own)) == SUCCESS
            refused(put, service, "notes", str(other))
            service.registerExplorer("DiscoveryService", str(own), "s", str(own),
                                     AuthorityType.AT_EXTSRC, 1)
            refused(service.registerExplorer, "DiscoveryService", str(other), "s", str(other),
                    AuthorityType.AT_EXTSRC, 1)
    assert refusals(log) == [line for at in (one, two) for line in (
        "Refused: %s (%s) may not restartLocalPushTimer (ALLOW.control = %s)"
        % (two, at.address, one),
        *('Refused: %s (%s) may not %s as "%s" (ALLOW.%s = own)'
          % (own, at.address, operation, other, role)
          for own, other in ((one, two), (two, one))
          for operation, role in (("putCollection", "write"), ("registerExplorer", "register"))))]


def test_the_case_of_a_name_does_not_matter(lists):
    stage, one, two, service_as = lists
    shouting = stage.lab.authority.sign("capitals", "DNS:" + str(one).upper())
    service = service_as(two, shouting)
    service.restartLocalPushTimer()
    assert put(service, "notes", str(one)) == SUCCESS


def test_only_the_first_name_counts(lists):
    stage, one, two, service_as = lists
    service = service_as(one, stage.lab.authority.sign("two names", "DNS:%s,DNS:%s" % (two, one)))
    refused(service.restartLocalPushTimer)
    refused(put, service, "notes", str(one))
    assert put(service, "notes", str(two)) == SUCCESS


@pytest.mark.parametrize("name", ["*", "*client", "master.example.org", "95"])
def test_names_that_only_look_like_a_host_s(lists, name):
    stage, one, _, service_as = lists
    service = service_as(one, stage.lab.authority.sign("named", "DNS:" + name))
    refused(service.restartLocalPushTimer)
    refused(put, service, "notes", str(one))
    refused(put, service, "notes", "master")


def test_the_address_of_the_master_is_not_the_master(stage):
    """`master` is a name, too. So an attacker on the master's address cannot refresh a client."""
    one, two = stage.build(2, tls="required", config={}).clients
    one.configure(**{"ALLOW.control": "master"})
    stage.start_all()
    peer = Peer(stage)
    peer(two, stage.master, one).restartLocalPushTimer()
    refused(peer(stage.master, two, one).restartLocalPushTimer)
    refused(peer(one, one, one).restartLocalPushTimer)
    peer.close()


def test_an_open_object_belongs_to_a_certificate(lists):
    stage, one, two, service_as = lists
    owner = service_as(one, one)
    listing = owner.queryDiscoveries(1, 0, "*", "*")
    _, writer = owner.putCollection(record("notes", str(one)))

    def through(service, proxy):
        return type(proxy)(service.orb, proxy.ior)
    stranger = service_as(one, two)
    refused(through(stranger, listing).getNextPage)
    refused(through(stranger, listing).release)
    refused(through(stranger, writer).put, b"foreign")
    refused(through(stranger, writer).close)
    moved = service_as(two, one)
    assert through(moved, listing).getNextPage() is not None
    assert through(moved, writer).put(b"mine")
    assert writer.close().discStatus == SUCCESS
    assert get(owner, "notes", str(one)) == b"mine"
