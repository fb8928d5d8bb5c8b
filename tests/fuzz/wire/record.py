"""Records the seeds anew: valid conversations with a daemon, and its answers."""

from dataclasses import replace

from conversation import Conversation, Step, place_holder, to_text
from giop import Encoder
from giop.discovery import SCOPE, CollAttributes, Discovery
from giop.messages import (CODE_SETS, HEADER_SIZE, UTF_8, UTF_16, MessageType, header, messages,
                           request_body)
from play import VALID_PATIENCE, Player, check_seed

# The name by which clients find the service.
NAME = b"DiscoveryService"
SERVICE = place_holder("service")
# The record that the conversations read. The driver stores it.
KEPT = ("kept", "wire")
# The mutations replace the digits, so that a put of high priority blocks only its own record.
PUT_SUBJECT = "put-0000"
# A place holder must stay in one fragment.
FRAGMENT = 96


class Dialect:
    """How a peer writes its messages."""

    def __init__(self, little, minor, fragments=False):
        self.little = little
        self.minor = minor
        self.fragments = fragments
        self.name = "%s-1.%d%s" % ("little" if little else "big", minor,
                                   "-fragments" if fragments else "")

    def whole(self, kind, body=b"", more=False):
        return header(kind, len(body), self.little, more, (1, self.minor)) + body

    def message(self, kind, body):
        if not self.fragments or HEADER_SIZE + len(body) <= FRAGMENT:
            return self.whole(kind, body)
        if self.minor == 2:
            return messages(kind, body, self.little, FRAGMENT)
        # A fragment then begins at the same alignment, whether that counts from the first message or anew.
        step = FRAGMENT - 8
        parts = [body[at:at + step] for at in range(0, len(body), step)]
        return b"".join(self.whole(MessageType.FRAGMENT if at else kind, part, at + 1 < len(parts))
                        for at, part in enumerate(parts))

    def request(self, number, key, operation, arguments=lambda e: None):
        if self.minor == 2:
            body = request_body(number, key, operation, arguments, self.little)
        else:
            encoder = Encoder(self.little, HEADER_SIZE)
            encoder.ulong(1).ulong(CODE_SETS).encapsulation(lambda e: e.ulong(UTF_8).ulong(UTF_16))
            encoder.ulong(number).boolean(True)
            if self.minor == 1:
                encoder.raw(bytes(3))
            encoder.octets(key).string(operation).octets(b"")  # the principal
            arguments(encoder)
            body = encoder.bytes()
        return self.message(MessageType.REQUEST, body)

    def locate(self, number, key):
        encoder = Encoder(self.little, HEADER_SIZE).ulong(number)
        if self.minor == 2:
            encoder.short(0)
        return self.whole(MessageType.LOCATE_REQUEST, encoder.octets(key).bytes())

    def cancel(self, number):
        return self.whole(MessageType.CANCEL_REQUEST,
                          Encoder(self.little, HEADER_SIZE).ulong(number).bytes())


def _discovery(subject, authority):
    return Discovery(1, subject, authority, 1,
                     CollAttributes(priority=1, discoveryTime=1700000000), "127.0.0.66",
                     "DiscoveryService").encode


class _Talk:
    """Collects the steps of one conversation on one connection."""

    def __init__(self, dialect):
        self.dialect = dialect
        self.steps = []
        self._number = 0

    def send(self, data, keep="-", answer="?"):
        self.steps.append(Step("send", 0, data, keep, answer))
        return self

    def call(self, operation, arguments=lambda e: None, key=SERVICE, keep="-"):
        self._number += 1
        return self.send(self.dialect.request(self._number, key, operation, arguments), keep)

    def find(self):
        """Asks the name for the service, as every client does. The answer forwards to the service's key."""
        return self.call("_is_a", lambda e: e.string(SCOPE + "DiscoveryService:1.0"), NAME,
                         "service:nothing")

    def on(self, name, operation, arguments=lambda e: None):
        return self.call(operation, arguments, place_holder(name))


def _query(talk):
    talk.call("queryDiscoveries", lambda e: e.ulong(1).ulong(0).string("wire").string("k*"),
              keep="iterator:nothing")
    talk.on("iterator", "_get_pageSize").on("iterator", "_set_pageSize", lambda e: e.long(3))
    talk.on("iterator", "getNextPage").on("iterator", "getNextPage").on("iterator", "release")


def _read(talk):
    talk.call("getCollectionData", lambda e: (_discovery(*KEPT)(e), e.string("")),
              keep="iterator:status")
    talk.on("iterator", "_get_pageSize").on("iterator", "_set_pageSize", lambda e: e.long(5))
    talk.on("iterator", "getNextPage").on("iterator", "getNextPage").on("iterator", "release")


def _put(talk):
    talk.call("putCollection", _discovery(PUT_SUBJECT, "wire"), keep="writer:result")
    talk.on("writer", "put", lambda e: e.octets(b"<items><item/></items>"))
    talk.on("writer", "put", lambda e: e.octets(bytes(range(200))))
    talk.on("writer", "close")


def _register(talk):
    talk.call("registerExplorer", lambda e: e.string("DiscoveryService").string("127.0.0.66")
              .string("subject").string("127.0.0.66").ulong(3).short(1))


def _objects(talk):
    talk.call("_is_a", lambda e: e.string(SCOPE + "DiscoveryService:1.0"))
    talk.call("_is_a", lambda e: e.string("IDL:omg.org/CORBA/Object:1.0")).call("_non_existent")


def _locate(talk):
    talk.send(talk.dialect.locate(1, NAME)).send(talk.dialect.locate(2, b"no such object"))
    talk.find().send(talk.dialect.locate(3, SERVICE))


def _cancel(talk):
    talk.call("_non_existent").send(talk.dialect.cancel(2), answer="-")
    talk.send(talk.dialect.cancel(77), answer="-").call("_non_existent")


def _close(talk):
    talk.call("_non_existent")
    talk.send(talk.dialect.whole(MessageType.CLOSE_CONNECTION))


def _error(talk):
    talk.call("_non_existent")
    talk.send(talk.dialect.whole(MessageType.MESSAGE_ERROR))


TALKS = {
    "query": _query, "read": _read, "put": _put, "register": _register, "objects": _objects,
    "locate": _locate, "cancel": _cancel, "close": _close, "error": _error,
    "terminate": lambda talk: talk.call("terminate"),
    "restart-local": lambda talk: talk.call("restartLocalPushTimer"),
    "restart-all": lambda talk: talk.call("restartAllPushTimers"),
}
WHOLE = (Dialect(True, 2), Dialect(False, 2), Dialect(True, 1), Dialect(False, 0))
# GIOP 1.0 has no fragments.
IN_FRAGMENTS = (Dialect(True, 2, True), Dialect(False, 2, True), Dialect(False, 1, True))
LONG = ("query", "read", "put", "register", "objects")


def made():
    """All conversations, without the answers."""
    for name, fill in TALKS.items():
        for dialect in WHOLE + (IN_FRAGMENTS if name in LONG else ()):
            talk = _Talk(dialect)
            if name != "locate":
                talk.find()
            fill(talk)
            yield Conversation("%s-%s" % (name, dialect.name), tuple(talk.steps))


def record(target, directory):
    """Plays the conversations and writes them with the daemon's answers. Returns how many. Raises
    ValueError if an answer is not the same twice."""
    directory.mkdir(exist_ok=True)
    for old in directory.glob("*.txt"):
        old.unlink()
    count = 0
    for each in made():
        answers = Player(target, each, VALID_PATIENCE).play().answers
        whole = each.with_steps(replace(step, answer=answer)
                                for step, answer in zip(each.steps, answers))
        wrong = check_seed(target, whole)
        if wrong:
            raise ValueError(wrong)
        (directory / (each.name + ".txt")).write_text(to_text([whole]), encoding="ascii")
        count += 1
    return count
