"""Peers that take connections and do nothing with them."""

import fcntl
import os
import threading
import time

import pytest

import harness
from attack import ATTACKER, half_a_header
from honest import Honest
from records import SUCCESS, file_stem, put

SANITIZED = bool(os.environ.get("QM_SANITIZE"))
# A silent connection may cost the daemon so many bytes.
BYTES_A_CONNECTION = 4096
# Threads beside those that serve requests.
OTHER_THREADS = 16


@pytest.mark.parametrize("data", [b"", half_a_header()], ids=["silent", "half a header"])
def test_ten_thousand_connections(attacked, attack, figures, counter, data):
    daemon = attacked()
    with Honest(daemon):
        time.sleep(0.5)
        before = figures(daemon)
        attacker = attack(daemon)
        count = 2_000 if SANITIZED else 10_000
        attacker.open(count, data)
        time.sleep(2)
        after = figures(daemon)
        counter("connectionsHighest", count)
        assert after["Threads"] <= 128 + OTHER_THREADS
        if not SANITIZED:
            grown = (after["VmRSS"] - before["VmRSS"]) * 1024
            assert grown < count * BYTES_A_CONNECTION + (16 << 20)
    assert daemon.stop() == 0


LIMIT = 40


def test_all_places_taken(attacked, attack, root):
    daemon = attacked(MAX_CONNECTIONS=LIMIT)
    attacker = attack(daemon)
    attacker.open(LIMIT)
    time.sleep(1)
    assert attacker.ended() == 0
    assert root.status()["counters"]["connectionsDrivenOut"] == 0


def test_one_more_takes_the_place_of_the_peer_with_the_most(attacked, attack, counter, root):
    daemon = attacked(MAX_CONNECTIONS=LIMIT)
    few = attack(daemon, source="127.0.0.3")
    few.open(2)
    many = attack(daemon)
    many.open(LIMIT - 2)
    newcomer = attack(daemon, source="127.0.0.4")
    newcomer.open(1)
    harness.wait_for(lambda: many.ended() == 1, "one connection ends")
    counter("connectionsDrivenOut", 1)
    assert (few.ended(), newcomer.ended()) == (0, 0)
    log = harness.settled(root.log_file.read_text)
    assert "All 40 connections are taken. Closed one that no thread serves, of 127.0.0.66, " \
        "which has 38" in log


def test_a_flood_of_connections(attacked, attack, root):
    """One peer comes again and again when all places are taken."""
    daemon = attacked(MAX_CONNECTIONS=LIMIT)
    with Honest(daemon) as honest:
        for _ in range(10):
            attack(daemon).open(2 * LIMIT)
            rounds = honest.rounds
            harness.wait_for(lambda: honest.rounds > rounds, "the honest client is served")
    def gone():
        counters = root.status()["counters"]
        return counters["connectionsDrivenOut"] + counters["connectionsRefused"] >= 19 * LIMIT
    harness.wait_for(gone, "the flood is driven out or refused")
    assert daemon.stop() == 0


def test_a_connection_that_is_served_is_not_idle(root, attacked, attack, counter):
    """A put waits for a record that another process has locked. Meanwhile its peer opens many
    connections."""
    daemon = attacked(MAX_CONNECTIONS=LIMIT, LOCK_WAIT_SECONDS=30)
    service = daemon.client(source=ATTACKER)
    assert put(service, "held", "a", b"old") == SUCCESS
    path = root.store / (file_stem("held", "a") + ".xml")
    with Honest(daemon), open(path, "r+b") as file:
        fcntl.lockf(file, fcntl.LOCK_EX)
        results = []
        putter = threading.Thread(
            target=lambda: results.append(put(service, "held", "a", b"new", priority=2)),
            daemon=True)
        putter.start()
        time.sleep(0.5)
        for _ in range(3):
            attack(daemon).open(LIMIT)
            time.sleep(0.5)
        counter("connectionsDrivenOut", LIMIT)
        assert putter.is_alive()
        fcntl.lockf(file, fcntl.LOCK_UN)
        putter.join(60)
        assert results == [SUCCESS]
    assert daemon.stop() == 0


def test_an_idle_connection_is_closed(root, attacked, attack):
    daemon = attacked(IDLE_CONNECTION_SECONDS=10)
    attacker = attack(daemon)
    attacker.open(3, half_a_header())
    harness.wait_for(lambda: attacker.ended() == 3, "the idle connections end", limit=40)
    harness.wait_for(
        lambda: root.status()["counters"]["connectionsLeftIdle"] == 3, "they are counted")


def test_too_few_descriptors(root, start):
    """The daemon admits fewer connections when it may not open so many files."""
    root.configure(LOG_LEVEL=1)
    daemon = start(root, wrapper=["prlimit", "--nofile=1000:1000", "--"])
    [text] = [line for line in root.log_file.read_text().splitlines() if "MAX_CONNECTIONS" in line]
    assert "This process may open 1000 files (ulimit -n), so 416 connections are admitted, " \
           "not 10000 (MAX_CONNECTIONS)" in text
    assert daemon.stop() == 0
