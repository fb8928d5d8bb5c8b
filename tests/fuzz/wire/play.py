"""Plays conversations to a daemon over raw connections."""

import contextlib
import socket
import struct
import threading
import time

from conversation import KEY_SIZES, fill
from giop import CdrError, Decoder, Ior, IorError, SystemException
from giop.errors import GiopError
from giop.messages import HEADER_SIZE, MessageType, ReplyStatus, parse_header

# Seconds to wait for an answer that must come, and for one that a spoilt message may never get.
VALID_PATIENCE = 30
SPOILT_PATIENCE = 0.2
# Seconds for connecting, and for sending to a daemon that does not read.
SEND_PATIENCE = 5
# A reply here has much less. More is not kept.
LARGEST_REPLY = 16 << 20

_BEFORE = {
    "nothing": lambda d: None,
    "status": lambda d: d.ulong(),
    "result": lambda d: (d.ulong(), d.ulonglong()),
}


class _Peer:
    """One connection. It opens when the first bytes go out."""

    def __init__(self, target, source):
        self._socket = socket.socket()
        self._socket.settimeout(SEND_PATIENCE)
        self._socket.bind((source, 0))
        self._socket.connect(target)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._bytes = b""

    def send(self, data):
        self._socket.settimeout(SEND_PATIENCE)
        self._socket.sendall(data)

    def shut(self):
        self._socket.shutdown(socket.SHUT_WR)

    def hang(self):
        """Closes with a reset, as a peer that was killed."""
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._socket.close()

    def close(self):
        self._socket.close()

    def _take(self, size, deadline):
        """Raises TimeoutError, or EOFError at the end of the connection."""
        while len(self._bytes) < size:
            self._socket.settimeout(max(deadline - time.monotonic(), 0.001))
            part = self._socket.recv(1 << 16)
            if not part:
                raise EOFError
            self._bytes += part
        taken, self._bytes = self._bytes[:size], self._bytes[size:]
        return taken

    def answer(self, patience):
        """The next message with its fragments: (kind, GIOP minor version, decoder)."""
        deadline = time.monotonic() + patience
        whole, first = b"", None
        while True:
            head = self._take(HEADER_SIZE, deadline)
            kind, little, more, size = parse_header(head)
            if size > LARGEST_REPLY:
                raise GiopError("a message of %d bytes" % size)
            body = self._take(size, deadline)
            whole += body[4:] if first and head[5] >= 2 else body
            first = first or (kind, head[5], little)
            if not more:
                return first[0], first[1], Decoder(whole, first[2], HEADER_SIZE)


def _skip_contexts(decoder):
    decoder.sequence(lambda d: (d.ulong(), d.octets()))


def _describe(kind, minor, decoder):
    """(the answer as text, the decoder at the body of a reply)"""
    if kind == MessageType.LOCATE_REPLY:
        decoder.ulong()
        return "LOCATE_REPLY %d" % decoder.ulong(), None
    if kind != MessageType.REPLY:
        return kind.name, None
    if minor < 2:
        _skip_contexts(decoder)
    decoder.ulong()
    status = decoder.enum(ReplyStatus)
    if minor >= 2:
        _skip_contexts(decoder)
        if decoder.left():
            decoder.align(8)
    text = "REPLY " + status.name
    if status == ReplyStatus.SYSTEM_EXCEPTION:
        text += " " + SystemException.decode(decoder).name
    has_body = status in (ReplyStatus.NO_EXCEPTION, ReplyStatus.LOCATION_FORWARD)
    return text, decoder if has_body else None


class Player:
    """Plays one conversation. It notes the answer to each step, and the keys."""

    def __init__(self, target, conversation, patience):
        self._target = target
        self._conversation = conversation
        self._patience = patience
        self._peers = {}
        self.keys = {}
        self.answers = []

    def play(self):
        """Goes on after each failure, because the daemon may answer or close as it likes."""
        try:
            for step in self._conversation.steps:
                self.answers.append(self._play(step))
        finally:
            for peer in self._peers.values():
                peer.close()
        return self

    def _play(self, step):
        try:
            peer = self._peers.get(step.connection)
            if peer is None:
                if step.kind != "send":
                    return "-"
                peer = self._peers[step.connection] = _Peer(self._target, self._conversation.address)
            if step.kind != "send":
                getattr(peer, step.kind)()
                if step.kind == "hang":
                    del self._peers[step.connection]
                return "-"
            peer.send(fill(step.data, self.keys))
            return self._receive(peer, step) if step.answer != "-" else "-"
        except TimeoutError:
            return "TIMEOUT"
        except (EOFError, OSError):
            # The next step on this connection opens it again.
            lost = self._peers.pop(step.connection, None)
            if lost:
                lost.close()
            return "END"

    def _receive(self, peer, step):
        try:
            text, body = _describe(*peer.answer(self._patience))
            if body and step.keep != "-":
                name, before = step.keep.split(":")
                _BEFORE[before](body)
                self.keys[name] = Ior.decode(body).key
            return text
        except (CdrError, GiopError, IorError, ValueError) as error:
            return "UNREADABLE %s" % error


def check_seed(target, seed):
    """What is wrong with the answers to an unchanged conversation, or None."""
    player = Player(target, seed, VALID_PATIENCE).play()
    for number, (step, answer) in enumerate(zip(seed.steps, player.answers)):
        if step.answer != answer:
            return "%s: the answer to step %d is %s, not %s" % (seed.name, number, answer, step.answer)
    for name, key in player.keys.items():
        if len(key) != KEY_SIZES[name]:
            return "%s: the key of the %s has %d bytes, not %d" % (seed.name, name, len(key),
                                                                   KEY_SIZES[name])
    return None


def play_all(target, conversations, threads):
    """Plays the conversations on so many threads. Returns how often each kind of answer came."""
    left = list(reversed(conversations))
    lock = threading.Lock()
    counts = {}

    def work():
        while True:
            with lock:
                if not left:
                    return
                conversation = left.pop()
            player = Player(target, conversation, SPOILT_PATIENCE).play()
            with lock:
                for answer in player.answers:
                    kind = answer.split()[0]
                    counts[kind] = counts.get(kind, 0) + 1

    workers = [threading.Thread(target=work, daemon=True) for _ in range(threads)]
    for each in workers:
        each.start()
    # Each step ends within its patience.
    for each in workers:
        with contextlib.suppress(RuntimeError):
            each.join(600)
    return counts
