"""A real service calls a fake one, which sends the caller elsewhere: in circles, or back to itself.
The call fails soon, and the service goes on."""

import dataclasses
import itertools
import threading
import time

import pytest

from giop import AuthorityType, DiscoveryStatus, Redirect
from giop.messages import ReplyStatus
from records import ANY, SUCCESS, get, put, record, subjects
from stranger import Stranger

FORWARDS = 5
OFTEN = "hosts have forwarded it 5 times already"
BACK = "a reference of another host leads back to this service"
FORM = "the host wants another form of the target than its key"
# An endless forward would take until the limit of a call, which is 30 seconds.
SOON = 10

# A pull needs an answer to each of these.
OPERATIONS = ["_non_existent", "_is_a", "queryDiscoveries", "getCollectionData", "getNextPage"]


@pytest.fixture
def lab(stage):
    """(the stage, the client's host, the master's service, its log)"""
    [client] = stage.build(["stranger"]).clients
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start(stage.master)
    yield stage, client, stage.service(stage.master), stage.master.root.log()
    assert stage.daemon(stage.master).stop() == 0
    assert stage.master.root.status()["assertions"] == 0


def register(service):
    service.registerExplorer("DiscoveryService", "stranger", "volumes", "a",
                             AuthorityType.AT_EXTSRC, 5)


def pull(service):
    return service.getCollectionData(record("volumes", "a", ANY))[0]


def forward(reference, status=ReplyStatus.LOCATION_FORWARD):
    return Redirect(status, reference.encode)


def forward_for_good(reference):
    return forward(reference, ReplyStatus.LOCATION_FORWARD_PERM)


def in_a_row(times):
    """Forwards so many times, then lets the object answer once, and so on."""
    forwards = itertools.cycle([True] * times + [False])
    return lambda reference: forward(reference) if next(forwards) else None


def refusals(log):
    """Why calls to the fake service ended."""
    return [line.text.partition(" ends: ")[2] for line in log.lines() if " ends: " in line.text]


@pytest.mark.parametrize("operation", OPERATIONS)
def test_as_many_forwards_as_allowed(lab, operation):
    stage, client, service, log = lab
    with Stranger(client) as stranger:
        stranger.redirects = {operation: in_a_row(FORWARDS)}
        register(service)
        assert get(service, "volumes", "a", ANY) == b"123456789"
        assert stranger.redirected >= FORWARDS
    assert refusals(log) == []
    assert stage.daemon(stage.master).stop() == 0
    assert stage.master.root.status()["counters"]["callsRefused"] == 0


@pytest.mark.parametrize("operation", OPERATIONS)
def test_one_forward_too_many(lab, operation):
    stage, client, service, log = lab
    with Stranger(client) as stranger:
        stranger.redirects = {operation: in_a_row(FORWARDS + 1)}
        register(service)
        assert pull(service) == DiscoveryStatus.DS_OPEN_FAILED
        stranger.redirects = {}
        assert get(service, "volumes", "a", ANY) == b"123456789"
    assert set(refusals(log)) == {OFTEN}
    assert stage.daemon(stage.master).stop() == 0
    assert stage.master.root.status()["counters"]["callsRefused"] == len(refusals(log))


@pytest.mark.parametrize("redirect", [forward, forward_for_good])
@pytest.mark.parametrize("operation", [*OPERATIONS, "release"])
def test_forwards_to_itself_for_ever(lab, operation, redirect):
    _, client, service, log = lab
    with Stranger(client) as stranger:
        stranger.redirects = {operation: redirect}
        register(service)
        begin = time.monotonic()
        pull(service)
        assert time.monotonic() - begin < SOON
        calls = len(refusals(log))
        assert 1 <= calls <= 4, "a pull that fails makes few calls"
        assert stranger.redirected == calls * (FORWARDS + 1)
    assert set(refusals(log)) == {OFTEN}


def test_many_pulls_that_are_forwarded_for_ever(lab):
    stage, client, service, _ = lab
    with Stranger(client) as stranger:
        stranger.redirects = {"queryDiscoveries": forward}
        register(service)
        end = time.monotonic() + 5

        def pull_again_and_again():
            own = stage.service(stage.master)
            while time.monotonic() < end:
                pull(own)
        threads = [threading.Thread(target=pull_again_and_again, daemon=True) for _ in range(32)]
        for each in threads:
            each.start()
        number = 0
        while time.monotonic() < end:
            begin = time.monotonic()
            number += 1
            assert put(service, "honest%d" % number, "b") == SUCCESS
            assert time.monotonic() - begin < SOON
        for each in threads:
            each.join(60)
        assert not any(each.is_alive() for each in threads)
        assert number >= 1


@pytest.mark.parametrize("host", ["published", "127.0.0.1", "localhost"])
@pytest.mark.parametrize("operation", ["_non_existent", "_is_a", "queryDiscoveries",
                                       "getCollectionData"])
def test_back_to_the_caller(lab, operation, host):
    """Otherwise each of these pulls would begin the next one, with the rights of this host."""
    _, client, service, log = lab
    assert service._non_existent() is False
    [own] = service.orb.forwards
    if host != "published":
        own = dataclasses.replace(own, host=host)
    with Stranger(client) as stranger:
        stranger.redirects = {operation: lambda _: forward(own)}
        register(service)
        assert pull(service) == DiscoveryStatus.DS_OPEN_FAILED
        assert stranger.redirected <= 2
    # The ORB calls the published address within this process. The servant refuses that.
    assert host == "published" or set(refusals(log)) == {BACK}


@pytest.mark.parametrize("form", range(4))
@pytest.mark.parametrize("operation", OPERATIONS)
def test_another_form_of_the_target(lab, operation, form):
    _, client, service, log = lab
    with Stranger(client) as stranger:
        stranger.redirects = {operation: lambda _: Redirect(ReplyStatus.NEEDS_ADDRESSING_MODE,
                                                            lambda e: e.ushort(form))}
        register(service)
        assert pull(service) == DiscoveryStatus.DS_OPEN_FAILED
        assert stranger.redirected == len(refusals(log)) <= 2
    assert set(refusals(log)) == {FORM}


def is_stored(service):
    result, writer = service.putCollection(record("volumes", "a"))
    return result.discStatus == SUCCESS and writer.put(b"x") and \
        writer.close().discStatus == SUCCESS


@pytest.mark.parametrize("operation", ["queryDiscoveries", "putCollection", "put", "close"])
def test_a_master_that_forwards_for_ever(stage, operation):
    [client] = stage.build(["client"]).clients
    stage.start(client)
    service = stage.service(client)
    log = client.root.log()
    with Stranger(stage.master) as stranger:
        stranger.redirects = {operation: forward}
        begin = time.monotonic()
        assert subjects(service, subject="volumes") == \
            ([] if operation == "queryDiscoveries" else ["volumes"])
        assert is_stored(service) is (operation == "queryDiscoveries")
        assert time.monotonic() - begin < SOON
        assert set(refusals(log)) == {OFTEN}
        stranger.redirects = {}
        assert subjects(service, subject="volumes") == ["volumes"]
        assert is_stored(service)
