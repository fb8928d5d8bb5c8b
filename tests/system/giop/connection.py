"""One TCP connection to a server. One thread uses it."""

import socket
import time

from .cdr import Decoder
from .errors import GiopError
from .messages import HEADER_SIZE, MessageType, parse_header

# Servers send much less here. A message that claims more is broken.
LARGEST_MESSAGE = 256 << 20


class ConnectionLost(Exception):
    """The connection failed or has ended."""


class Timeout(ConnectionLost):
    """The peer took too long."""


class MessageRefused(ConnectionLost):
    """The peer answered that it cannot understand the message."""


class ConnectionClosed(ConnectionLost):
    """The peer announced that it closes the connection. It has not begun the open requests."""


class Connection:
    """Every operation ends within the timeout. The peer cannot delay it longer.

    tls: the ssl.SSLContext of a connection with TLS.
    """

    def __init__(self, host, port, timeout, source=None, tls=None):
        self._timeout = timeout
        try:
            self._socket = socket.create_connection((host, port), timeout,
                                                    (source, 0) if source else None)
        except TimeoutError as error:
            raise Timeout("%s:%d: %s" % (host, port, error)) from None
        except OSError as error:
            raise ConnectionLost("%s:%d: %s" % (host, port, error)) from None
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if tls:
            # The socket still has its timeout, and the handshake is one operation.
            try:
                self._socket = self._guarded(tls.wrap_socket, self._socket)
            except ConnectionLost:
                self._socket.close()
                raise

    def certificate(self):
        """The peer's certificate as DER. Only with TLS."""
        return self._socket.getpeercert(binary_form=True)

    def close(self):
        self._socket.close()

    def _within(self, deadline):
        left = deadline - time.monotonic()
        if left <= 0:
            raise Timeout("no answer within %g s" % self._timeout)
        self._socket.settimeout(left)

    def _guarded(self, operation, *arguments):
        try:
            return operation(*arguments)
        except TimeoutError:
            raise Timeout("no answer within %g s" % self._timeout) from None
        except OSError as error:
            raise ConnectionLost(str(error)) from None

    def send(self, data):
        self._within(time.monotonic() + self._timeout)
        self._guarded(self._socket.sendall, data)

    def shutdown_sending(self):
        self._guarded(self._socket.shutdown, socket.SHUT_WR)

    def _receive(self, size, deadline):
        data = bytearray()
        while len(data) < size:
            self._within(deadline)
            part = self._guarded(self._socket.recv, min(size - len(data), 1 << 20))
            if not part:
                raise ConnectionLost("the peer closed the connection")
            data += part
        return bytes(data)

    def receive_message(self):
        """The next message, with fragments joined: (kind, decoder of the part after the header)."""
        deadline = time.monotonic() + self._timeout
        kind, little, more, data = self._receive_part(deadline)
        parts = [data]
        while more:
            if kind not in (MessageType.REPLY, MessageType.LOCATE_REPLY):
                raise GiopError("%s in fragments" % kind.name)
            part_kind, part_little, more, data = self._receive_part(deadline)
            if part_kind != MessageType.FRAGMENT or part_little != little:
                raise GiopError("%s among the fragments of a reply" % part_kind.name)
            if data[:4] != parts[0][:4]:
                raise GiopError("fragments of two replies are mixed")
            parts.append(data[4:])
        return kind, Decoder(b"".join(parts), little, HEADER_SIZE)

    def _receive_part(self, deadline):
        kind, little, more, size = parse_header(self._receive(HEADER_SIZE, deadline))
        if size > LARGEST_MESSAGE:
            raise GiopError("a message of %d bytes" % size)
        return kind, little, more, self._receive(size, deadline)

    def receive_reply(self, request_id, version=(1, 2), encoding="utf-8"):
        """(reply status, decoder of the body)"""
        kind, decoder = self.receive_message()
        if kind == MessageType.CLOSE_CONNECTION:
            raise ConnectionClosed("the peer closes the connection")
        if kind == MessageType.MESSAGE_ERROR:
            raise MessageRefused("the peer refuses the message")
        if kind != MessageType.REPLY:
            raise GiopError("%s instead of a reply" % kind.name)
        decoder.encoding = encoding
        if version < (1, 2):
            decoder.sequence(lambda d: (d.ulong(), d.octets()))  # service contexts
        if decoder.ulong() != request_id:
            raise GiopError("a reply to another request")
        status = decoder.ulong()
        if version >= (1, 2):
            decoder.sequence(lambda d: (d.ulong(), d.octets()))
            if decoder.left():
                decoder.align(8)
        return status, decoder
