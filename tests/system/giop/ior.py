"""Object references: in messages, as "IOR:" text, and as corbaloc addresses."""

import re
from dataclasses import dataclass
from urllib.parse import unquote_to_bytes

from .cdr import CdrError, Encoder, open_encapsulation

TAG_INTERNET_IOP = 0


class IorError(ValueError):
    """The text or the bytes are not a valid reference."""


@dataclass(frozen=True)
class Ior:
    """A reference with its first IIOP profile. With an empty key and an empty type it is nil."""

    type_id: str
    host: str
    port: int
    key: bytes
    version: tuple = (1, 2)

    @property
    def is_nil(self):
        return not self.type_id and not self.key

    @classmethod
    def decode(cls, decoder):
        type_id = decoder.string()
        profiles = decoder.sequence(lambda d: (d.ulong(), d.octets()))
        if not profiles and not type_id:
            return NIL
        for tag, data in profiles:
            if tag == TAG_INTERNET_IOP:
                return cls(type_id, *_decode_profile(data))
        raise IorError("no IIOP profile in the reference")

    def encode(self, encoder):
        encoder.string(self.type_id)
        encoder.ulong(0 if self.is_nil else 1)
        if not self.is_nil:
            encoder.ulong(TAG_INTERNET_IOP).encapsulation(self._encode_profile)

    def _encode_profile(self, encoder):
        encoder.octet(self.version[0]).octet(self.version[1])
        encoder.string(self.host).ushort(self.port).octets(self.key)
        encoder.ulong(0)  # no components

    def __str__(self):
        encoder = Encoder()
        encoder.boolean(True)
        self.encode(encoder)
        return "IOR:" + encoder.bytes().hex()


NIL = Ior("", "", 0, b"")


def _decode_profile(data):
    profile = open_encapsulation(data)
    version = (profile.octet(), profile.octet())
    if version[0] != 1:
        raise IorError("IIOP version %d.%d" % version)
    return profile.string(), profile.ushort(), profile.octets(), version


def parse_reference(text):
    """Makes an Ior from "IOR:..." or "corbaloc:iiop:1.2@HOST:PORT/KEY"."""
    if text.startswith("IOR:"):
        try:
            return Ior.decode(open_encapsulation(bytes.fromhex(text[4:])))
        except (ValueError, CdrError) as error:
            raise IorError("%s: %s" % (text, error)) from None
    found = re.fullmatch(r"corbaloc:(?:iiop)?:(?:(\d)\.(\d)@)?"
                         r"(\[[0-9a-fA-F:.]+\]|[^:/@,\[\]]+)(?::(\d+))?/(.+)", text)
    if not found:
        raise IorError(text)
    major, minor, host, port, key = found.groups()
    version = (int(major), int(minor)) if major else (1, 0)
    return Ior("", host.strip("[]"), int(port or 2809), unquote_to_bytes(key), version)
