"""Acknowledged records survive a crash of the daemon."""

import threading
import time

import giop
from records import SUCCESS, get, open_writer, put, query, record


def payload(writer, number):
    return b"%d/%d " % (writer, number) * (1 + number % 500)


class Producer(threading.Thread):
    """Puts records until the daemon ends. Lists the acknowledged ones."""

    def __init__(self, service, number):
        super().__init__(daemon=True)
        self._service = service
        self._number = number
        self.acknowledged = []
        self.wrong = None

    def run(self):
        for number in range(100_000):
            try:
                status = put(self._service, "cl%d" % number, "p%d" % self._number,
                             payload(self._number, number))
            except (giop.ConnectionLost, giop.GiopError):
                return
            except Exception as failure:  # pylint: disable=broad-except
                self.wrong = failure
                return
            if status != SUCCESS:
                self.wrong = status
                return
            self.acknowledged.append(number)


def test_killed_during_puts(start, root):
    daemon = start(root)
    left = open_writer(daemon.client(), record("left", "alone"))
    assert left.put(b"half of it")
    producers = [Producer(daemon.client(), number) for number in range(4)]
    for producer in producers:
        producer.start()
    deadline = time.monotonic() + 60
    while min(len(producer.acknowledged) for producer in producers) < 10:
        assert time.monotonic() < deadline
        time.sleep(0.01)
    daemon.kill()
    for producer in producers:
        producer.join(60)
        assert not producer.is_alive()
        assert producer.wrong is None
    assert any(name.endswith(".updating") for name in root.files())

    log = root.log()
    service = start(root).client()
    assert [name for name in root.files() if name.endswith(".updating")] == []
    assert "Deleting temporary file 0.updating" in log.texts(source="../DiscDB")
    for number, producer in enumerate(producers):
        for each in producer.acknowledged:
            assert get(service, "cl%d" % each, "p%d" % number) == payload(number, each)
    assert put(service, "left", "alone", b"whole") == SUCCESS


def test_killed_during_replacements(start, root):
    """The test replaces one record many times. After a crash it has one of the payloads."""
    daemon = start(root)
    service = daemon.client()
    assert put(service, "cl1", "a", b"0" * 10_000) == SUCCESS
    stop = threading.Event()
    started = [0]

    def replace():
        number = 0
        while not stop.is_set():
            number += 1
            started[0] = number
            try:
                put(service, "cl1", "a", b"%d" % (number % 10) * 10_000)
            except (giop.ConnectionLost, giop.GiopError):
                return
    thread = threading.Thread(target=replace, daemon=True)
    thread.start()
    deadline = time.monotonic() + 60
    while started[0] < 30 and time.monotonic() < deadline:
        time.sleep(0.01)
    daemon.kill()
    stop.set()
    thread.join(60)
    assert not thread.is_alive()

    again = start(root).client()
    found = query(again, authority="a")
    assert [each.subject for each in found] in (["cl1"], [])
    if found and (root.store / "1 a cl1.dat").exists():
        data = get(again, "cl1", "a")
        assert data == data[:1] * 10_000
    assert put(again, "cl1", "a", b"after") == SUCCESS
    assert get(again, "cl1", "a") == b"after"
