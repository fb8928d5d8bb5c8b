"""A small server. Its objects give right answers, or wrong ones on purpose."""

import contextlib
import socket
import threading

from .cdr import CdrError, Decoder, Encoder
from .errors import GiopError, SystemException
from .ior import Ior
from .messages import HEADER_SIZE, MessageType, ReplyStatus, header, parse_header


class HangUp(Exception):
    """An object raises it to get the connection closed without an answer.

    The server first sends the bytes `first`.
    """

    def __init__(self, first=b""):
        super().__init__()
        self.first = first


class Redirect(Exception):
    """An object raises it to send the caller elsewhere, or to make it repeat the call.

    `status` is one of ReplyStatus. `fill` writes the body that belongs to it.
    """

    def __init__(self, status, fill):
        super().__init__()
        self.status = status
        self.fill = fill


class Server:
    """Serves objects until it is closed. Each connection has its own thread.

    An object is a function. It takes an operation and the decoder of the arguments. It returns a
    function that writes the result into an encoder. If the object raises a SystemException, the
    reply contains it. Redirect and HangUp do what they say. `network` means the same as in Orb.
    With `tls`, an ssl.SSLContext, it serves only TLS. `failures` has the texts of the connections
    that failed, `accepted` their total number.
    """

    def __init__(self, host, port=0, network=contextlib.nullcontext, little=True, tls=None):
        self.failures = []
        self.accepted = 0
        self._tls = tls
        self._little = little
        self._objects = {}
        self._connections = set()
        self._threads = []
        self._lock = threading.Lock()
        self._closed = False
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        with network():
            self._socket = socket.create_server((host, port), family=family)
        self.host, self.port = self._socket.getsockname()[:2]
        self._run(self._accept)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        with self._lock:
            self._closed = True
            connections = list(self._connections)
        for each in [self._socket, *connections]:
            with contextlib.suppress(OSError):
                # SSLSocket's own shutdown would take the TLS away from the thread that uses it.
                socket.socket.shutdown(each, socket.SHUT_RDWR)
        self._socket.close()
        while self._threads:
            self._threads.pop().join(60)

    def stop_listening(self):
        """Refuses further connections. Any thread may call it."""
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()

    def add(self, key, type_id, an_object):
        """Serves an object under a key and returns the reference."""
        self._objects[key] = an_object
        return self.reference(type_id, key)

    def reference(self, type_id, key, host=None):
        """A reference to an object here, or to the same port of another host."""
        ports = (0, self.port) if self._tls else (self.port, 0)
        return Ior(type_id, host or self.host, ports[0], key, (1, 2), ports[1])

    def _run(self, work, *arguments):
        thread = threading.Thread(target=work, args=arguments, daemon=True)
        thread.start()
        self._threads.append(thread)  # started, so that close may join it

    def _accept(self):
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            self.accepted += 1
            try:
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                if self._tls:  # the handshake is the work of the connection's thread
                    connection = self._tls.wrap_socket(connection, server_side=True,
                                                       do_handshake_on_connect=False)
            except OSError as error:  # the peer has gone already
                self.failures.append(str(error))
                connection.close()
                continue
            with self._lock:
                if self._closed:
                    connection.close()
                    return
                self._connections.add(connection)
            self._run(self._serve, connection)

    def _serve(self, connection):
        try:
            with connection:
                if self._tls:
                    connection.do_handshake()
                while True:
                    try:
                        connection.sendall(self._answer(*self._receive(connection)))
                    except HangUp as end:
                        connection.sendall(end.first)
                        raise
        except HangUp:
            pass
        except (OSError, GiopError, CdrError) as error:
            self.failures.append(str(error))
        with self._lock:
            self._connections.discard(connection)

    @staticmethod
    def _read(connection, size):
        data = bytearray()
        while len(data) < size:
            part = connection.recv(size - len(data))
            if not part:
                raise HangUp
            data += part
        return bytes(data)

    def _receive(self, connection):
        """(kind, little, the part after the header), with the fragments joined."""
        kind, little, more, size = parse_header(self._read(connection, HEADER_SIZE))
        data = self._read(connection, size)
        while more:
            _, _, more, size = parse_header(self._read(connection, HEADER_SIZE))
            data += self._read(connection, size)[4:]  # without the request's id
        return kind, little, data

    def _answer(self, kind, little, data):
        if kind == MessageType.CLOSE_CONNECTION:
            raise HangUp
        if kind not in (MessageType.REQUEST, MessageType.LOCATE_REQUEST):
            return b""
        request = Decoder(data, little, HEADER_SIZE)
        number = request.ulong()
        if kind == MessageType.LOCATE_REQUEST:
            body = Encoder(self._little, HEADER_SIZE).ulong(number).ulong(1).bytes()
            return header(MessageType.LOCATE_REPLY, len(body), self._little) + body
        request.raw(4)  # flags and reserved bytes: every request here expects a reply
        if request.short() != 0:
            raise GiopError("the target is no object key")
        key = request.octets()
        operation = request.string()
        request.sequence(lambda d: (d.ulong(), d.octets()))
        if request.left():
            request.align(8)
        return self._reply(number, key, operation, request)

    def _reply(self, number, key, operation, arguments):
        body = Encoder(self._little, HEADER_SIZE).ulong(number)
        try:
            found = self._objects.get(key)
            if found is None:
                raise SystemException("IDL:omg.org/CORBA/OBJECT_NOT_EXIST:1.0", 0, "NO")
            fill = found(operation, arguments)
            body.ulong(ReplyStatus.NO_EXCEPTION).ulong(0).align(8)
            fill(body)
        except Redirect as redirect:
            body.ulong(redirect.status).ulong(0).align(8)
            redirect.fill(body)
        except SystemException as exception:
            body = Encoder(self._little, HEADER_SIZE).ulong(number)
            body.ulong(ReplyStatus.SYSTEM_EXCEPTION).ulong(0).align(8)
            exception.encode(body)
        return header(MessageType.REPLY, len(body), self._little) + body.bytes()
