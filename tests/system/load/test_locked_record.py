"""Another process keeps the lock of a record for longer than a request waits."""

import contextlib
import fcntl
import os
import struct
import threading
import time

import giop
import harness
import pytest

from records import SUCCESS, file_stem, get, put, record

WAIT = 2
# A put has up to four such waits.
LIMIT = 4 * WAIT + 10
CLIENTS = 31
HELD = ("held", "a")
F_OFD_SETLK = 37


@contextlib.contextmanager
def locked(path, is_classic):
    """Locks a file as a program does that knows only one of the two kinds of locks."""
    file = os.open(path, os.O_RDWR)
    try:
        if is_classic:
            fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        else:
            # struct flock of a 64-bit system: type, whence, start, length, pid.
            whole_file = struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
            fcntl.fcntl(file, F_OFD_SETLK, whole_file)
        yield
    finally:
        os.close(file)


class Others:
    """Clients that put records of their own, until the end of the with statement."""

    def __init__(self, daemon):
        self._daemon = daemon
        self._stop = threading.Event()
        self.puts = [0] * CLIENTS
        self.failures = []
        self._threads = [threading.Thread(target=self._work, args=(number,), daemon=True)
                         for number in range(CLIENTS)]

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        harness.wait_for(lambda: all(self.puts) or self.failures, "every client puts")
        return self

    def __exit__(self, *_):
        self._stop.set()
        for thread in self._threads:
            thread.join(LIMIT)
        assert [thread for thread in self._threads if thread.is_alive()] == []

    def _work(self, number):
        try:
            service = self._daemon.client(timeout=LIMIT)
            while not self._stop.is_set():
                status = put(service, "cl%d" % number, "b", b"x" * 1000)
                if status != SUCCESS:
                    self.failures.append("client %d: status %d" % (number, status))
                    return
                self.puts[number] += 1
        except BaseException as failure:  # pylint: disable=broad-except
            self.failures.append("client %d: %r" % (number, failure))


def timed(function, *arguments):
    begin = time.monotonic()
    result = function(*arguments)
    return result, time.monotonic() - begin


@pytest.mark.parametrize("is_classic", [True, False], ids=["classic", "open file description"])
def test_a_lock_that_another_process_keeps(start, root, is_classic):
    root.configure(LOCK_WAIT_SECONDS=WAIT, LOG_LEVEL=1, LOG_BURST=None)
    daemon = start(root)
    service = daemon.client(timeout=LIMIT)
    assert put(service, *HELD, b"old") == SUCCESS
    path = root.store / (file_stem(*HELD) + ".xml")

    def locked_put():
        """The status of a put, or of its close."""
        result, writer = service.putCollection(record(*HELD))
        if writer is None:
            return result.discStatus
        assert writer.put(b"new")
        return writer.close().discStatus

    def locked_read():
        return service.getCollectionData(record(*HELD), "")

    with Others(daemon) as others:
        with locked(path, is_classic):
            before = list(others.puts)
            status, took = timed(locked_put)
            assert status in (giop.DiscoveryStatus.DS_OPEN_FAILED,
                              giop.DiscoveryStatus.DS_DATA_EXISTS)
            assert WAIT <= took < LIMIT
            # Meanwhile each of the others has begun and ended a put.
            assert [then for now, then in zip(others.puts, before) if now < then + 2] == []
            (status, iterator), took = timed(locked_read)
            assert (status, iterator) == (giop.DiscoveryStatus.DS_NONE_FOUND, None)
            assert WAIT <= took < LIMIT
        # The record is unharmed, and can be replaced.
        assert get(service, *HELD) == b"old"
        status, took = timed(locked_put)
        assert status == SUCCESS
        assert took < WAIT
        assert get(service, *HELD) == b"new"
    assert others.failures == []
    texts = [line.text for line in map(harness.parse_line,
                                       root.errors_file.read_text().splitlines())]
    named = [place for place, text in enumerate(texts) if text.endswith(str(path))]
    cause = "The cause: other processes had a lock on it for all of %d ms" % (1000 * WAIT)
    # The line of the read, and those of the put.
    assert len([texts[place] for place in named if texts[place + 1] == cause]) >= 2
    given_up = harness.wait_for(
        lambda: root.status()["counters"]["lockWaitsGivenUp"] >= 2 and root.status(),
        "the status counts the waits")["counters"]["lockWaitsGivenUp"]
    assert given_up <= 8
    assert daemon.stop() == 0
