"""Calls operations of objects. Keeps the connections open between calls."""

import contextlib

from .connection import Connection, ConnectionClosed, ConnectionLost
from .errors import GiopError, SystemException
from .ior import Ior, parse_reference
from .messages import UTF_8, MessageType, ReplyStatus, messages, request_body

FORWARDS_AT_MOST = 5


class Orb:
    """One thread uses an Orb. Each thread needs its own.

    little: whether requests are little-endian.
    fragment_size: larger requests are sent in fragments.
    network: returns a context manager. Connections are made inside it, for example from another
    host.
    source: the address of this host that the connections come from; None lets the system choose.
    version: the version of GIOP.
    code_set: the code set of characters that requests name; None: they name none.
    encoding: how strings are encoded.
    tls: an ssl.SSLContext. All connections then use TLS, and references without TLS are refused.
    """

    def __init__(self, timeout=30.0, little=True, fragment_size=None,
                 network=contextlib.nullcontext, source=None, version=(1, 2), code_set=UTF_8,
                 encoding="utf-8", tls=None):
        self.timeout = timeout
        self._little = little
        self._fragment_size = fragment_size
        self._network = network
        self._source = source
        self._version = version
        self._code_set = code_set
        self._encoding = encoding
        self._tls = tls
        self._connections = {}
        self._forwards = {}
        self._last_id = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        for connection in self._connections.values():
            connection.close()
        self._connections.clear()

    @property
    def has_tls(self):
        return self._tls is not None

    @property
    def forwards(self):
        """The references that peers have forwarded to."""
        return list(self._forwards.values())

    def certificates(self):
        """The certificates (DER) of the servers on the open connections."""
        return [each.certificate() for each in self._connections.values()]

    def object(self, reference, kind):
        """A proxy of class `kind` for an Ior or a reference as text."""
        if isinstance(reference, str):
            reference = parse_reference(reference)
        return None if reference.is_nil else kind(self, reference)

    def invoke(self, target, operation, arguments, result):
        """Calls an operation: `arguments(encoder)` writes, `result(decoder)` reads."""
        target = self._forwards.get(target, target)
        for _ in range(FORWARDS_AT_MOST):
            status, body = self._round_trip(target, operation, arguments)
            if status in (ReplyStatus.LOCATION_FORWARD, ReplyStatus.LOCATION_FORWARD_PERM):
                forwarded = Ior.decode(body)
                body.end()
                self._forwards[target] = target = forwarded
                continue
            if status == ReplyStatus.SYSTEM_EXCEPTION:
                exception = SystemException.decode(body)
                body.end()
                raise exception
            if status != ReplyStatus.NO_EXCEPTION:
                raise GiopError("reply status %d" % status)
            value = result(body)
            body.end()
            return value
        raise GiopError("forwarded more than %d times" % FORWARDS_AT_MOST)

    def _round_trip(self, target, operation, arguments):
        try:
            return self._exchange(target, operation, arguments)
        except ConnectionClosed:
            # The peer closed in order and has not begun the request, so send it again.
            return self._exchange(target, operation, arguments)

    def _exchange(self, target, operation, arguments):
        address = (target.host, target.tls_port if self._tls else target.port)
        if not address[1]:
            raise GiopError("a reference %s TLS" % ("without" if self._tls else "with only"))
        connection = self._connections.get(address)
        if connection is None:
            with self._network():
                connection = Connection(*address, self.timeout, self._source, self._tls)
            self._connections[address] = connection
        self._last_id += 1
        try:
            body = request_body(self._last_id, target.key, operation, arguments, self._little,
                                self._version, self._code_set, self._encoding)
            connection.send(messages(MessageType.REQUEST, body, self._little,
                                     self._fragment_size, self._version))
            return connection.receive_reply(self._last_id, self._version, self._encoding)
        except (ConnectionLost, GiopError, ValueError):
            # A late reply on this connection could look like the reply to the next request.
            del self._connections[address]
            connection.close()
            raise


class Proxy:
    """Base of the proxies, with the operations of every object."""

    def __init__(self, orb, ior):
        self.orb = orb
        self.ior = ior

    def call(self, operation, arguments=lambda encoder: None, result=lambda decoder: None):
        return self.orb.invoke(self.ior, operation, arguments, result)

    def _is_a(self, repository_id):
        return self.call("_is_a", lambda e: e.string(repository_id), lambda d: d.boolean())

    def _non_existent(self):
        return self.call("_non_existent", result=lambda d: d.boolean())
