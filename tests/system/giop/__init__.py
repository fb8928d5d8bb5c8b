"""A small GIOP 1.2 client and server, written for the tests alone.

It shares no code with the programs that it drives, so that a misunderstanding of the wire in them
cannot cancel itself out. Standard library only.
"""

from .cdr import CdrError, Decoder, Encoder
from .connection import ConnectionLost, MessageRefused, Timeout
from .discovery import (AuthorityType, CollAttributes, CollectionDataIterator, CollectionStorage,
                        CollectionType, Discovery, DiscoveryIterator, DiscoveryQuery,
                        DiscoveryResult, DiscoveryService, DiscoveryStatus, RemoteWriter)
from .errors import GiopError, SystemException
from .ior import NIL, Ior, IorError, parse_reference
from .orb import Orb
from .server import HangUp, Server

__all__ = [
    "AuthorityType", "CdrError", "CollAttributes", "CollectionDataIterator", "CollectionStorage",
    "CollectionType", "ConnectionLost", "Decoder", "Discovery", "DiscoveryIterator",
    "DiscoveryQuery", "DiscoveryResult", "DiscoveryService", "DiscoveryStatus", "Encoder",
    "GiopError", "HangUp", "Ior", "IorError", "MessageRefused", "NIL", "Orb", "RemoteWriter",
    "Server", "SystemException", "Timeout", "parse_reference",
]
