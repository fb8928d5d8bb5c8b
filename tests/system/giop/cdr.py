"""CDR: the encoding of values in a message.

Supports both byte orders. Alignment counts from the start of the message.
"""

import struct


class CdrError(ValueError):
    """The bytes do not encode the expected value."""


class Encoder:
    """Appends values to a message. `start` is the offset of the first byte in the message. Strings
    are in `encoding`."""

    def __init__(self, little=True, start=0, encoding="utf-8"):
        self.little = little
        self.encoding = encoding
        self._start = start
        self._bytes = bytearray()
        self._order = "<" if little else ">"

    def __len__(self):
        return len(self._bytes)

    def bytes(self):
        return bytes(self._bytes)

    def align(self, size):
        self._bytes.extend(bytes(-(self._start + len(self._bytes)) % size))
        return self

    def _number(self, code, size, value):
        self.align(size)
        self._bytes.extend(struct.pack(self._order + code, value))
        return self

    def octet(self, value):
        return self._number("B", 1, value)

    def boolean(self, value):
        return self.octet(1 if value else 0)

    def short(self, value):
        return self._number("h", 2, value)

    def ushort(self, value):
        return self._number("H", 2, value)

    def long(self, value):
        return self._number("i", 4, value)

    def ulong(self, value):
        return self._number("I", 4, value)

    def ulonglong(self, value):
        return self._number("Q", 8, value)

    def raw(self, data):
        self._bytes.extend(data)
        return self

    def octets(self, data):
        """sequence<octet>"""
        return self.ulong(len(data)).raw(data)

    def string(self, text):
        """Writes a string, or bytes unchanged. The length includes the zero at the end."""
        data = text if isinstance(text, bytes) else text.encode(self.encoding)
        return self.octets(data + b"\0")

    def encapsulation(self, fill):
        """A byte sequence with its own byte order. `fill(encoder)` writes the content."""
        inner = Encoder(self.little)
        inner.boolean(self.little)
        fill(inner)
        return self.octets(inner.bytes())


class Decoder:
    """Reads values from the bytes of a message. `start` and `encoding` mean the same as in
    Encoder."""

    def __init__(self, data, little=True, start=0, encoding="utf-8"):
        self.little = little
        self.encoding = encoding
        self._data = bytes(data)
        self._start = start
        self._pos = 0
        self._order = "<" if little else ">"

    def left(self):
        return len(self._data) - self._pos

    def end(self):
        """Raises an error if bytes are left."""
        if self.left():
            raise CdrError("%d bytes too many" % self.left())

    def align(self, size):
        self.raw(-(self._start + self._pos) % size)
        return self

    def raw(self, size):
        if size > self.left():
            raise CdrError("%d bytes expected, %d left" % (size, self.left()))
        self._pos += size
        return self._data[self._pos - size:self._pos]

    def _number(self, code, size):
        self.align(size)
        return struct.unpack(self._order + code, self.raw(size))[0]

    def octet(self):
        return self._number("B", 1)

    def boolean(self):
        value = self.octet()
        if value > 1:
            raise CdrError("boolean %d" % value)
        return value == 1

    def short(self):
        return self._number("h", 2)

    def ushort(self):
        return self._number("H", 2)

    def long(self):
        return self._number("i", 4)

    def ulong(self):
        return self._number("I", 4)

    def ulonglong(self):
        return self._number("Q", 8)

    def octets(self):
        return self.raw(self.ulong())

    def string(self):
        data = self.octets()
        if not data.endswith(b"\0") or b"\0" in data[:-1]:
            raise CdrError("string %r" % data)
        return data[:-1].decode(self.encoding)

    def enum(self, kind):
        value = self.ulong()
        try:
            return kind(value)
        except ValueError as error:
            raise CdrError(str(error)) from None

    def sequence(self, element):
        count = self.ulong()
        if count > self.left():
            raise CdrError("sequence of %d in %d bytes" % (count, self.left()))
        return [element(self) for _ in range(count)]

    def encapsulation(self):
        return open_encapsulation(self.octets())


def open_encapsulation(data):
    """Returns a decoder for the content of an encapsulation."""
    if not data or data[0] > 1:
        raise CdrError("encapsulation %r" % data[:8])
    inner = Decoder(data, little=data[0] == 1)
    inner.octet()
    return inner
