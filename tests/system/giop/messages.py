"""GIOP messages."""

import enum
import struct

from .cdr import Encoder
from .errors import GiopError

MAGIC = b"GIOP"
HEADER_SIZE = 12
# Bits of the flags octet in the header.
FLAG_LITTLE = 1
FLAG_MORE_FRAGMENTS = 2

RESPONSE_EXPECTED = 3

# The service context in which a client names its code sets.
CODE_SETS = 1
UTF_8 = 0x05010001
UTF_16 = 0x00010109
LATIN_1 = 0x00010001


class MessageType(enum.IntEnum):
    REQUEST = 0
    REPLY = 1
    CANCEL_REQUEST = 2
    LOCATE_REQUEST = 3
    LOCATE_REPLY = 4
    CLOSE_CONNECTION = 5
    MESSAGE_ERROR = 6
    FRAGMENT = 7


class ReplyStatus(enum.IntEnum):
    NO_EXCEPTION = 0
    USER_EXCEPTION = 1
    SYSTEM_EXCEPTION = 2
    LOCATION_FORWARD = 3
    LOCATION_FORWARD_PERM = 4
    NEEDS_ADDRESSING_MODE = 5


def header(kind, size, little=True, more=False, version=(1, 2)):
    flags = (FLAG_LITTLE if little else 0) | (FLAG_MORE_FRAGMENTS if more else 0)
    return MAGIC + struct.pack("BBBB", *version, flags, kind) + \
        struct.pack("<I" if little else ">I", size)


def parse_header(data):
    """(kind, little, more, size)"""
    if data[:4] != MAGIC or data[4] != 1:
        raise GiopError("no GIOP message: %r" % data)
    flags, kind = data[6], data[7]
    little = bool(flags & FLAG_LITTLE)
    try:
        kind = MessageType(kind)
    except ValueError:
        raise GiopError("message type %d" % kind) from None
    return kind, little, bool(flags & FLAG_MORE_FRAGMENTS), \
        struct.unpack("<I" if little else ">I", data[8:12])[0]


def request_body(request_id, key, operation, arguments, little=True, version=(1, 2),
                 code_set=UTF_8, encoding="utf-8"):
    """The part of a request after the header. `arguments(encoder)` writes the arguments.

    code_set: the code set of characters that the request names; None names none.
    """
    encoder = Encoder(little, HEADER_SIZE, encoding)

    def contexts():
        encoder.ulong(0 if code_set is None else 1)
        if code_set is not None:
            encoder.ulong(CODE_SETS).encapsulation(lambda e: e.ulong(code_set).ulong(UTF_16))
    if version < (1, 2):
        contexts()
        encoder.ulong(request_id).boolean(True)
        if version == (1, 1):
            encoder.raw(bytes(3))
        encoder.octets(key).string(operation).octets(b"")  # without a principal
        arguments(encoder)
        return encoder.bytes()
    encoder.ulong(request_id).octet(RESPONSE_EXPECTED).raw(bytes(3))
    encoder.short(0).octets(key)  # the target: an object key
    encoder.string(operation)
    contexts()
    start = len(encoder)
    encoder.align(8)
    aligned = len(encoder)
    arguments(encoder)
    body = encoder.bytes()
    # Without arguments there is nothing to align.
    return body if len(body) > aligned else body[:start]


def messages(kind, body, little=True, fragment_size=None, version=(1, 2)):
    """The bytes of a message. With fragment_size, each fragment has at most that many bytes."""
    if fragment_size is None or HEADER_SIZE + len(body) <= fragment_size:
        return header(kind, len(body), little, version=version) + body
    if fragment_size % 8 or fragment_size < 32:
        raise ValueError("a fragment's size is a multiple of 8, from 32 on")
    request_id = body[:4]
    first = fragment_size - HEADER_SIZE
    result = header(kind, first, little, more=True) + body[:first]
    rest = body[first:]
    step = first - len(request_id)
    while rest:
        part, rest = rest[:step], rest[step:]
        result += header(MessageType.FRAGMENT, len(request_id) + len(part), little,
                         more=bool(rest)) + request_id + part
    return result
