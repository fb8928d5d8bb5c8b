"""Requests that are sound and do harm: a peer orders the daemon about, takes its threads, or sends
too much."""

import fcntl
import os
import socket
import threading
import time
from contextlib import contextmanager

import pytest

import giop
import harness
from attack import ATTACKER, request
from giop.messages import MessageType, header, parse_header
from honest import HONEST, Honest
from records import ANY, SUCCESS, file_stem, open_writer, put, record

THREADS = 8
SHARE = 6  # three quarters
WAITERS = 3  # requests that may wait for one object
MESSAGE = 65536
HIGHEST = 7
LOCK_WAIT = 15


def failure_of(call, *arguments):
    with pytest.raises(giop.SystemException) as failure:
        call(*arguments)
    return failure.value.name


@pytest.mark.parametrize("role", ["127.0.0.1", "master"])
def test_orders_of_a_stranger(attacked, root, role):
    daemon = attacked(**{"ALLOW.control": role})
    stranger = daemon.client(source=ATTACKER)
    with Honest(daemon) as honest:
        for _ in range(200):
            for call in (stranger.terminate, stranger.restartLocalPushTimer,
                         stranger.restartAllPushTimers):
                assert failure_of(call) == "NO_PERMISSION"
        rounds = honest.rounds
        harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client is served")
    assert root.status()["state"] == "running"
    assert daemon.stop() == 0
    assert root.status()["counters"]["requestsRefused"] == 600


def test_a_record_that_nobody_could_replace(attacked, root):
    """The highest priority that a stranger may use is the last one that others can reach."""
    daemon = attacked(**{"MAX_REMOTE_PRIORITY": HIGHEST, "ALLOW.control": "127.0.0.1"})
    stranger = daemon.client(source=ATTACKER)
    with Honest(daemon) as honest:
        for priority in (HIGHEST + 1, -1):
            for subject, authority in (("honest", "client"), ("stranger", "a")):
                assert failure_of(stranger.putCollection,
                                  record(subject, authority, priority=priority,
                                         ttl=0)) == "NO_PERMISSION"
        assert put(stranger, "stranger", "a", priority=HIGHEST) == SUCCESS
        rounds = honest.rounds
        harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client puts")
    assert put(daemon.client(source=HONEST), "stranger", "a", priority=HIGHEST) == SUCCESS
    assert daemon.stop() == 0
    assert root.status()["counters"]["requestsRefused"] == 4


def put_of(writer, size):
    """A put whose message has that size."""
    def of(count):
        return request(writer, "put", lambda e: e.octets(bytes(count)))
    whole = of(size - len(of(0)))
    assert len(whole) == size
    return whole


def is_answered(connection, data):
    """Whether a request gets a reply without an exception."""
    try:
        connection.sendall(data)
        head = connection.recv(12, socket.MSG_WAITALL)
        if len(head) < 12:
            return False
        kind, _, _, size = parse_header(head)
        body = connection.recv(size, socket.MSG_WAITALL)
        return kind == MessageType.REPLY and body[4:8] == bytes(4)
    except (BrokenPipeError, ConnectionResetError):
        return False


def test_messages_at_the_bound(attacked, attack):
    daemon = attacked(MAX_MESSAGE_BYTES=MESSAGE, REQUEST_TIMEOUT=3)
    attacker = attack(daemon)
    with Honest(daemon):
        writer = open_writer(daemon.client(source=ATTACKER), record("large", "attacker"))
        assert is_answered(attacker.connect(), put_of(writer, MESSAGE))
        for _ in range(50):
            assert not is_answered(attacker.connect(), put_of(writer, MESSAGE + 1))
        # One that only promises too much ends in its time.
        assert not is_answered(attacker.connect(), header(MessageType.REQUEST, 0xffffffff))
        assert is_answered(attacker.connect(), put_of(writer, MESSAGE))
        assert writer.close().discStatus == SUCCESS
    assert daemon.stop() == 0


@contextmanager
def locked(root, name):
    """Locks a record as another process. Each request for it waits."""
    file = os.open(root.store / (file_stem(*name) + ".xml"), os.O_RDWR)
    try:
        fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        yield
    finally:
        os.close(file)


class Calls:
    """Calls at the same time, each on a thread of its own. `answers` has what they returned, or the
    names of their exceptions."""

    def __init__(self):
        self.answers = []
        self._threads = []

    def begin(self, call, *arguments):
        def run():
            try:
                self.answers.append(call(*arguments))
            except giop.SystemException as failure:
                self.answers.append(failure.name)
        self._threads.append(threading.Thread(target=run, daemon=True))
        self._threads[-1].start()

    def join(self):
        for each in self._threads:
            each.join(4 * LOCK_WAIT)
        assert not any(each.is_alive() for each in self._threads)


def test_requests_that_take_long_get_a_share_of_the_threads(attacked, root, counter):
    daemon = attacked(REQUEST_THREADS=THREADS, LOCK_WAIT_SECONDS=LOCK_WAIT)
    held = ("held", "a")
    assert put(daemon.client(source=ATTACKER), *held) == SUCCESS
    calls = Calls()
    with Honest(daemon) as honest:
        services = [daemon.client(source=ATTACKER) for _ in range(SHARE + 1)]
        for service in services:  # each has its connection
            service.queryDiscoveries(1, ANY, "none", "none").release()
        with locked(root, held):
            for service in services[:SHARE]:
                calls.begin(service.getCollectionData, record(*held))
            rounds = honest.rounds
            harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client is served")
            assert root.status()["counters"]["requestsWaitingHighest"] == 0
            calls.begin(services[SHARE].getCollectionData, record(*held))
            assert counter("requestsWaiting", 1) == 1
            rounds = honest.rounds
            harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client is served")
            assert calls.answers == []
        calls.join()
        assert [answer[0] for answer in calls.answers] == [SUCCESS] * (SHARE + 1)
    assert root.status()["counters"]["requestsWaitingHighest"] == 1
    assert daemon.stop() == 0


def test_requests_that_wait_for_one_iterator(attacked, root, counter):
    """Its owner calls it again and again while its first page takes long."""
    daemon = attacked(REQUEST_THREADS=THREADS, LOCK_WAIT_SECONDS=LOCK_WAIT, CACHED_RECORDS=0)
    held = ("held", "a")
    owner = daemon.client(source=ATTACKER)
    assert put(owner, *held) == SUCCESS
    listing = owner.queryDiscoveries(1, ANY, "a", "*")
    others = [daemon.client(source=ATTACKER).orb.object(listing.ior, giop.DiscoveryIterator)
              for _ in range(WAITERS + 1)]
    calls = Calls()
    with Honest(daemon) as honest:
        with locked(root, held):
            calls.begin(listing.getNextPage)
            time.sleep(1)
            for other in others[:WAITERS]:
                calls.begin(other.getNextPage)
            time.sleep(1)
            assert calls.answers == []
            assert failure_of(others[WAITERS].getNextPage) == "TRANSIENT"
            rounds = honest.rounds
            harness.wait_for(lambda: honest.rounds > rounds + 5, "the honest client is served")
            counter("requestsTurnedAway", 1)
        calls.join()
    # One of them has the only record.
    assert sorted(map(len, calls.answers)) == [0] * WAITERS + [1]
    assert root.status()["counters"]["requestsTurnedAway"] == 1
    assert daemon.stop() == 0
