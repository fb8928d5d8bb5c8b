"""Object references: in messages, as "IOR:" text, and as corbaloc addresses."""

import re
from dataclasses import dataclass
from urllib.parse import unquote_to_bytes

from .cdr import CdrError, Encoder, open_encapsulation

TAG_INTERNET_IOP = 0
# Inside a profile: a further address; the port for TLS at the same host; a socket of the machine.
TAG_ALTERNATE_IIOP_ADDRESS = 3
TAG_SSL_SEC_TRANS = 20
TAG_UNIX_TRANS = 0x41545402


class IorError(ValueError):
    """The text or the bytes are not a valid reference."""


@dataclass(frozen=True)
class Ior:
    """A reference with its first IIOP profile. With an empty key and an empty type it is nil.

    A port of 0 does not exist: the object is served only with TLS, or only without.
    """

    type_id: str
    host: str
    port: int
    key: bytes
    version: tuple = (1, 2)
    tls_port: int = 0
    # For a reference that is made here; one that is read has neither.
    alternates: tuple = ()  # further addresses: (host, port), ...
    unix: tuple = ()        # (machine, path): a socket of a program on that machine

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
        components = self._components()
        encoder.ulong(len(components))
        for tag, fill in components:
            encoder.ulong(tag).encapsulation(fill)

    def _components(self):
        components = [(TAG_ALTERNATE_IIOP_ADDRESS,
                       lambda e, each=each: e.string(each[0]).ushort(each[1]))
                      for each in self.alternates]
        if self.tls_port:
            components.append((TAG_SSL_SEC_TRANS,
                               lambda e: e.ushort(0).ushort(0).ushort(self.tls_port)))
        if self.unix:
            components.append((TAG_UNIX_TRANS,
                               lambda e: e.string(self.unix[0]).string(self.unix[1])))
        return components

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
    return profile.string(), profile.ushort(), profile.octets(), version, \
        _tls_port(profile) if version > (1, 0) else 0


def _tls_port(profile):
    for tag, data in profile.sequence(lambda d: (d.ulong(), d.octets())):
        if tag == TAG_SSL_SEC_TRANS:
            component = open_encapsulation(data)
            component.ushort()
            component.ushort()
            return component.ushort()
    return 0


def parse_reference(text):
    """Makes an Ior from "IOR:..." or "corbaloc:iiop:1.2@HOST:PORT/KEY", or ssliop for TLS."""
    if text.startswith("IOR:"):
        try:
            return Ior.decode(open_encapsulation(bytes.fromhex(text[4:])))
        except (ValueError, CdrError) as error:
            raise IorError("%s: %s" % (text, error)) from None
    found = re.fullmatch(r"corbaloc:(iiop|ssliop)?:(?:(\d)\.(\d)@)?"
                         r"(\[[0-9a-fA-F:.]+\]|[^:/@,\[\]]+)(?::(\d+))?/(.+)", text)
    if not found:
        raise IorError(text)
    protocol, major, minor, host, port, key = found.groups()
    version = (int(major), int(minor)) if major else (1, 0)
    ports = (0, int(port or 2809)) if protocol == "ssliop" else (int(port or 2809), 0)
    return Ior("", host.strip("[]"), ports[0], unquote_to_bytes(key), version, ports[1])
