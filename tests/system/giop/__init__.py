"""A small GIOP client and server for the tests only.

It shares no code with the programs under test. So it does not repeat their mistakes about the wire
format. It uses only Python's standard library.
"""

from .cdr import CdrError, Decoder, Encoder
from .connection import ConnectionLost, MessageRefused, Timeout
from .discovery import (AuthorityType, CollAttributes, CollectionDataIterator, CollectionStorage,
                        CollectionType, Discovery, DiscoveryIterator, DiscoveryQuery,
                        DiscoveryResult, DiscoveryService, DiscoveryStatus, RemoteWriter)
from .errors import GiopError, SystemException
from .ior import NIL, Ior, IorError, parse_reference
from .messages import LATIN_1, UTF_8
from .orb import Orb
from .server import HangUp, Redirect, Server

__all__ = [
    "AuthorityType", "CdrError", "CollAttributes", "CollectionDataIterator", "CollectionStorage",
    "CollectionType", "ConnectionLost", "Decoder", "Discovery", "DiscoveryIterator",
    "DiscoveryQuery", "DiscoveryResult", "DiscoveryService", "DiscoveryStatus", "Encoder",
    "GiopError", "HangUp", "Ior", "IorError", "LATIN_1", "MessageRefused", "NIL", "Orb",
    "Redirect", "RemoteWriter", "Server", "SystemException", "Timeout", "UTF_8", "parse_reference",
]
