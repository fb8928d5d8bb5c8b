"""An orderly stop is short, whatever peers do."""

import contextlib
import os
import socket
import threading
import time

import pytest

import harness
from attack import half_a_header, half_a_request, stalled_puts, unread_pages
from records import ANY

# Seconds that an orderly stop may take when no explorer is busy. The slack is for a busy machine.
STOP = 5
SLACK = 15 if os.environ.get("QM_SANITIZE") else 5


def stops_in_time(daemon):
    begin = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - begin < STOP + SLACK


def silent(_daemon, attacker, count):
    attacker.open(count)


def headers(_daemon, attacker, count):
    attacker.open(count, half_a_header())


def requests(_daemon, attacker, count):
    attacker.open(count, half_a_request())


@pytest.mark.parametrize("stall, count", [(silent, 3000), (headers, 3000), (requests, 3000),
                                          (stalled_puts, 60), (unread_pages, 60)])
def test_with_peers_that_stall(attacked, attack, stall, count):
    daemon = attacked(REQUEST_TIMEOUT=600)
    stall(daemon, attack(daemon), count)
    time.sleep(0.5)
    stops_in_time(daemon)


class Master:
    """A listening socket in the place of a master."""

    def __init__(self, backlog):
        self._socket = socket.socket()
        self._socket.bind(("127.0.0.1", 0))
        self._socket.listen(backlog)
        self._clients = []

    @property
    def endpoint(self):
        return "%s:%d" % self._socket.getsockname()

    def fill(self):
        """Takes all places of the queue, so that no further connection comes up."""
        for _ in range(20):
            client = socket.socket()
            client.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                client.connect(self._socket.getsockname())
            self._clients.append(client)

    def close(self):
        for each in [*self._clients, self._socket]:
            each.close()


@pytest.fixture(params=["silent", "unreachable"])
def master(request):
    made = Master(backlog=100 if request.param == "silent" else 2)
    if request.param == "unreachable":
        made.fill()
    yield made
    made.close()


def test_with_a_master_that_does_not_answer(attacked, master):
    """A client forwards queries to its master."""
    daemon = attacked(SERVER="elsewhere", CLIENT_NAME="client1",
                      **{"ENDPOINT.elsewhere": master.endpoint})

    def ask():
        with contextlib.suppress(Exception):
            daemon.client(timeout=60).queryDiscoveries(1, ANY, "*", "*")
    threads = [threading.Thread(target=ask, daemon=True) for _ in range(16)]
    for each in threads:
        each.start()
    time.sleep(1)
    stops_in_time(daemon)
    for each in threads:
        each.join(60)
    assert not any(each.is_alive() for each in threads)


def test_the_next_daemon_serves(attacked, attack, start, root):
    """What a stop broke off leaves nothing behind."""
    daemon = attacked(REQUEST_TIMEOUT=600)
    stalled_puts(daemon, attack(daemon), 20)
    stops_in_time(daemon)
    assert [name for name in root.files() if name.endswith(".updating")] == []
    start(root)
    harness.wait_for(lambda: root.status().get("state") == "running", "the next daemon runs")
