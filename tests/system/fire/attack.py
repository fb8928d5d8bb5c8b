"""What a hostile peer does to the daemon, and an honest client beside it."""

import contextlib
import os
import socket
import threading
import time

from giop.messages import MessageType, header, messages, request_body
from records import SUCCESS, get, open_writer, put, record

ATTACKER = "127.0.0.66"
HONEST = "127.0.0.7"
# Seconds within which the honest client is always answered. An instrumented daemon is slower.
PROMPT = 20 if os.environ.get("QM_SANITIZE") else 5


class Attacker:
    """Raw connections from one address. `close` or the end of the block closes them."""

    def __init__(self, daemon, source=ATTACKER):
        self._address = daemon.address
        self._source = source
        self.sockets = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        for each in self.sockets:
            each.close()
        self.sockets = []

    def connect(self, receive_buffer=None):
        connection = socket.socket()
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.settimeout(60)
        connection.bind((self._source, 0))
        connection.connect(self._address)
        self.sockets.append(connection)
        return connection

    def open(self, count, data=b""):
        """Opens connections, and sends the same bytes on each."""
        for _ in range(count):
            connection = self.connect()
            if data:
                connection.sendall(data)

    def ended(self):
        """How many of the connections the daemon has closed."""
        return sum(1 for each in self.sockets if has_ended(each))


def has_ended(connection):
    """Whether the daemon closed a connection. Drops what the daemon sent before."""
    connection.setblocking(False)
    try:
        while connection.recv(65536):
            pass
        return True
    except BlockingIOError:
        return False
    except OSError:
        return True


def half_a_header():
    return b"GIOP\1\2"


def half_a_request():
    """A header that promises more than follows."""
    return header(MessageType.REQUEST, 1000) + bytes(10)


def request(target, operation, arguments=lambda e: None):
    """The bytes of a request to an object of which there is a proxy."""
    return messages(MessageType.REQUEST,
                    request_body(1, target.ior.key, operation, arguments))


def most_of_a_put(writer, size=200_000):
    """A put of so many bytes, without the last hundred."""
    return request(writer, "put", lambda e: e.octets(bytes(size)))[:-100]


def stalled_puts(daemon, attacker, count):
    """So many puts that lack their last bytes, each with a writer of its own."""
    service = daemon.client(source=ATTACKER)
    writers = [open_writer(service, record("stalled%d" % number, "attacker"))
               for number in range(count)]
    for writer in writers:
        attacker.connect().sendall(most_of_a_put(writer))


def unread_pages(daemon, attacker, count):
    """So many connections that ask for pages and read none."""
    service = daemon.client(source=ATTACKER)
    assert put(service, "large", "attacker", bytes(16 << 20), chunk=1 << 20) == SUCCESS
    iterators = []
    for _ in range(count):
        _, iterator = service.getCollectionData(record("large", "attacker"), "")
        iterator.pageSize = 1 << 20
        iterators.append(iterator)
    for iterator in iterators:
        # More pages than the kernel's buffers take.
        attacker.connect(receive_buffer=4096).sendall(request(iterator, "getNextPage") * 8)


class Honest:
    """A client that stores and reads a record all the time, until the end of the block. Each answer
    must come within PROMPT seconds."""

    def __init__(self, daemon):
        self._daemon = daemon
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self.rounds = 0
        self.longest = 0.0
        self.failure = None

    def _round(self, number):
        service = self._daemon.client(timeout=PROMPT, source=HONEST)
        data = b"%d" % number
        assert put(service, "honest", "client", data) == SUCCESS
        assert get(service, "honest", "client") == data
        service.orb.close()

    def _run(self):
        try:
            while not self._stop.is_set():
                begin = time.monotonic()
                self._round(self.rounds)
                self.longest = max(self.longest, time.monotonic() - begin)
                self.rounds += 1
                self._stop.wait(0.02)
        except BaseException as failure:  # pylint: disable=broad-except
            self.failure = failure

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join(4 * PROMPT)
        assert not self._thread.is_alive(), "the honest client hangs"
        assert self.failure is None, "the honest client: %r" % self.failure
        assert self.rounds > 0


@contextlib.contextmanager
def beside_an_honest_client(daemon):
    with Honest(daemon) as honest:
        yield honest
