"""What a hostile peer does to the daemon."""

import socket
import struct

from giop.messages import HEADER_SIZE, MessageType, header, messages, request_body
from records import SUCCESS, open_writer, put, record

ATTACKER = "127.0.0.66"


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


def read_reply(replies):
    """Reads a reply from a file of a connection. Returns the id of the request."""
    head = replies.read(HEADER_SIZE)
    order = "<" if head[6] & 1 else ">"
    body = replies.read(struct.unpack_from(order + "I", head, 8)[0])
    return struct.unpack_from(order + "I", body)[0]


def half_a_header():
    return b"GIOP\1\2"


def half_a_request(size=1000):
    """The header and the first bytes of a request of so many bytes."""
    return header(MessageType.REQUEST, size) + bytes(10)


def request(target, operation, arguments=lambda e: None):
    """The bytes of a request to the object of a proxy."""
    return messages(MessageType.REQUEST,
                    request_body(1, target.ior.key, operation, arguments))


def piece(kind, request_id, body, more):
    """A message of GIOP 1.2, or a fragment of one, whose body begins with the id."""
    return b"GIOP\1\2" + bytes([1 | (2 if more else 0), kind]) + \
        struct.pack("<II", len(body) + 4, request_id) + body


def put_in_fragments(writer, data, fragment=32768, request_id=1):
    """A put of these bytes, in fragments that are whole multiples of eight."""
    whole = request(writer, "put", lambda e: e.octets(data))
    order = "<" if whole[6] & 1 else ">"
    cuts = [struct.pack(order + "I", request_id) + whole[16:fragment]]
    cuts += [whole[at:at + fragment] for at in range(fragment, len(whole), fragment)]
    flags = whole[6] & 1
    result = []
    for number, cut in enumerate(cuts):
        more = 2 if number < len(cuts) - 1 else 0
        kind = MessageType.REQUEST if number == 0 else MessageType.FRAGMENT
        body = cut if number == 0 else struct.pack(order + "I", request_id) + cut
        result.append(b"GIOP\1\2" + bytes([flags | more, kind]) +
                      struct.pack(order + "I", len(body)) + body)
    return result


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
