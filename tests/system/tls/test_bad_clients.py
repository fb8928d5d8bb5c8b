"""Clients with mistakes call a service with TLS, from a host of the lab."""

import socket

import pytest

import giop
import harness
from mistakes import BAD_CERTIFICATES, BAD_CLIENTS, GIVEN_UP, PLAIN_TEXT, bad_client, bad_files, \
    refused_client
from pki import refusal
from records import SUCCESS, put

PORT = 14400


@pytest.fixture
def attacked(lab):
    """(stage, a host of an attacker, the log of the master). A client works beside the attacker."""
    honest, attacker = lab.clients
    lab.start(lab.master, honest)
    log = lab.master.root.log()
    yield lab, attacker, log
    assert put(lab.service(honest), "honest", str(honest)) == SUCCESS
    assert lab.daemon(lab.master).stop() == 0


def closings(log):
    return [text for text in log.texts(level=1, originator=harness.PLATFORM)
            if text.startswith("Closed a connection of ")]


@pytest.mark.parametrize("mistake", BAD_CLIENTS)
def test_it_is_refused(attacked, mistake):
    stage, attacker, log = attacked
    context = bad_client(stage.lab.authority, mistake, str(attacker))
    address = (stage.master.address, PORT)
    assert refusal(address, context, attacker.network) == BAD_CLIENTS[mistake].alert
    assert closings(log) == [refused_client(attacker.address, BAD_CLIENTS[mistake])]
    # A request that follows the handshake at once is not answered either.
    service = stage.daemon(stage.master).client(network=attacker.network, tls=context)
    with pytest.raises(giop.ConnectionLost):
        put(service, "stolen", str(attacker))
    assert not any("stolen" in name for name in stage.master.root.files())


def test_plain_text_is_refused(attacked):
    stage, attacker, log = attacked
    service = stage.daemon(stage.master).client(network=attacker.network, tls=None)
    with pytest.raises((giop.ConnectionLost, giop.GiopError)):
        put(service, "stolen", str(attacker))
    assert closings(log) == [refused_client(attacker.address, PLAIN_TEXT)]
    assert not any("stolen" in name for name in stage.master.root.files())


def test_a_client_that_ends_its_handshake_half_way(attacked):
    stage, attacker, log = attacked
    with attacker.network():
        connection = socket.create_connection((stage.master.address, PORT), 30)
    with connection:
        connection.sendall(b"\x16\x03\x01\x02")
    assert closings(log) == [refused_client(attacker.address, GIVEN_UP)]


@pytest.mark.parametrize("mistake", BAD_CERTIFICATES)
def test_a_real_client_with_a_bad_certificate(attacked, mistake):
    """Its service starts, and neither registers nor stores anything."""
    stage, attacker, log = attacked
    files = bad_files(stage.lab.authority, mistake, "DNS:" + str(attacker))
    attacker.configure(**{**files.keys(), "TLS_CA": stage.lab.authority.ca})
    stage.start(attacker)
    harness.wait_for(lambda: closings(log), "the master refuses the client")
    assert attacker.ctl("query", code=3).startswith(
        "qmdiscoctl: cannot reach the discovery service on master (master:14400): ")
    assert attacker.ctl("put", "stolen", str(attacker), "/etc/hostname", code=3).startswith(
        "qmdiscoctl: cannot reach the discovery service on master (master:14400): ")
    assert set(closings(log)) == {refused_client(attacker.address, BAD_CERTIFICATES[mistake])}
    assert not any(str(attacker) in name for name in stage.master.root.files())
    assert stage.daemon(attacker).stop() == 0
