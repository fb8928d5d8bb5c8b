"""Peers that stall in the middle of a request, or do not read their reply."""

import contextlib
import time

import pytest

import harness
from attack import (ATTACKER, half_a_request, has_ended, most_of_a_put, piece, put_in_fragments,
                    request, stalled_puts, unread_pages)
from giop.messages import MessageType
from honest import Honest
from records import SUCCESS, get, open_writer, record

THREADS = 8
TIMEOUT = 3


@pytest.mark.parametrize("stall, says", [
    (stalled_puts, "a request stalled while it arrived"),
    (unread_pages, "the peer does not read its reply"),
], ids=["puts", "pages"])
def test_a_stall_ends_after_its_time(attacked, attack, counter, root, stall, says):
    daemon = attacked(REQUEST_TIMEOUT=TIMEOUT)
    attacker = attack(daemon)
    with Honest(daemon):
        begin = time.monotonic()
        stall(daemon, attacker, 4)
        counter("connectionsStalled", 4)
        assert time.monotonic() - begin >= TIMEOUT
        harness.wait_for(lambda: attacker.ended() == 4, "the stalled connections end")
    assert "Closed a connection of 127.0.0.66: " + says in root.log_file.read_text()
    assert daemon.stop() == 0


def test_a_small_request_that_never_ends_takes_no_thread(attacked, attack, counter, figures):
    daemon = attacked(REQUEST_TIMEOUT=TIMEOUT, REQUEST_THREADS=THREADS)
    attacker = attack(daemon)
    with Honest(daemon):
        attacker.open(500, half_a_request())
        assert figures(daemon)["Threads"] < 100
        counter("connectionsStalled", 500)
        harness.wait_for(lambda: attacker.ended() == 500, "the connections end")


def test_other_requests_do_not_prolong_an_unfinished_one(attacked, attack, counter, root):
    daemon = attacked(REQUEST_TIMEOUT=TIMEOUT)
    attacker = attack(daemon)
    whole = request(daemon.client(), "_non_existent")
    with Honest(daemon):
        begin = time.monotonic()
        connection = attacker.connect()
        connection.sendall(piece(MessageType.REQUEST, 7, bytes(8), more=True))
        with contextlib.suppress(OSError):
            while not has_ended(connection) and time.monotonic() - begin < 10 * TIMEOUT:
                connection.setblocking(True)
                connection.sendall(whole)
                time.sleep(0.2)
        assert has_ended(connection)
        assert time.monotonic() - begin >= TIMEOUT
        counter("connectionsStalled", 1)
    assert "Closed a connection of 127.0.0.66: a request began and stalled" in \
        root.log_file.read_text()


def test_half_of_the_threads_may_stall(attacked, attack, root):
    daemon = attacked(REQUEST_TIMEOUT=600, REQUEST_THREADS=THREADS)
    attacker = attack(daemon)
    with Honest(daemon):
        stalled_puts(daemon, attacker, THREADS // 2)
        time.sleep(1.5)
        assert attacker.ended() == 0
        assert root.status()["counters"]["connectionsStalled"] == 0


@pytest.mark.parametrize("trickle", [b"\0", piece(MessageType.CANCEL_REQUEST, 99, b"", more=False)],
                         ids=["a byte", "a cancellation"])
def test_bytes_now_and_then_are_a_stall(attacked, attack, root, trickle):
    """Two peers take all threads. They send a few bytes now and then, of the message or beside it."""
    daemon = attacked(REQUEST_TIMEOUT=600, REQUEST_THREADS=THREADS)
    with Honest(daemon) as honest:
        connections = []
        for source in (ATTACKER, "127.0.0.67"):
            attacker = attack(daemon, source=source)
            service = daemon.client(source=source)
            writer = open_writer(service, record("trickle", source))
            begun = put_in_fragments(writer, bytes(1_000_000))[:3]
            if len(trickle) == 1:
                begun.append(put_in_fragments(writer, bytes(1_000_000))[3][:100])
            for _ in range(2 * THREADS):
                connections.append(attacker.connect())
                connections[-1].setblocking(True)
                connections[-1].sendall(b"".join(begun))
        rounds = honest.rounds

        def have_stalled():
            for connection in connections:
                with contextlib.suppress(OSError):
                    connection.sendall(trickle)
            return root.status()["counters"]["connectionsStalled"] >= THREADS
        harness.wait_for(have_stalled, "they count as stalled")
        harness.wait_for(lambda: honest.rounds > rounds, "the honest client is served")
    assert daemon.stop() == 0


def test_one_more_loses_the_oldest(attacked, attack, counter, root):
    daemon = attacked(REQUEST_TIMEOUT=600, REQUEST_THREADS=THREADS)
    attacker = attack(daemon)
    with Honest(daemon):
        stalled_puts(daemon, attacker, THREADS // 2 + 1)
        counter("connectionsStalled", 1)
        time.sleep(1)
        assert root.status()["counters"]["connectionsStalled"] == 1
        assert attacker.ended() == 1
    assert "stalled requests take half of the threads (REQUEST_THREADS)" in \
        root.log_file.read_text()


@pytest.mark.parametrize("stall", [stalled_puts, unread_pages], ids=["puts", "pages"])
def test_many_stalls(attacked, attack, counter, stall):
    """More than there are threads. Some wait for a thread, others lose their connection."""
    daemon = attacked(REQUEST_TIMEOUT=600, REQUEST_THREADS=THREADS)
    attacker = attack(daemon)
    with Honest(daemon) as honest:
        stall(daemon, attacker, 4 * THREADS)
        counter("connectionsStalled", 1)
        rounds = honest.rounds
        harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client is served")
    assert daemon.stop() == 0


def test_the_object_of_a_stalled_put_is_free_again(attacked, attack, counter):
    daemon = attacked(REQUEST_TIMEOUT=TIMEOUT)
    attacker = attack(daemon)
    service = daemon.client(source=ATTACKER)
    writer = open_writer(service, record("stalled", "attacker"))
    attacker.connect().sendall(most_of_a_put(writer))
    counter("connectionsStalled", 1)
    assert writer.put(b"whole")
    assert writer.close().discStatus == SUCCESS
    assert get(service, "stalled", "attacker") == b"whole"
