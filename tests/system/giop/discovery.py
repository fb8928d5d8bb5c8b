"""Proxies for the interfaces of the discovery service, written by hand.

Operations, members and enumerators have the same names as in the interface definition.
"""

import enum
from dataclasses import dataclass, field

from .ior import Ior
from .orb import Proxy

SCOPE = "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/"


class CollectionType(enum.IntEnum):
    CT_CONFIGURATION = 0
    CT_REAL_TIME = 1
    CT_POINT_IN_TIME = 2


class CollectionStorage(enum.IntEnum):
    CS_LOCALONLY = 0
    CS_CENTRALREPOSITORY = 1


class AuthorityType(enum.IntEnum):
    AT_ANYANDALL = 0
    AT_QMKSERVER = 1
    AT_QMKCLIENT = 2
    AT_EXTSRC = 3
    AT_REMOTEPULL = 4


class DiscoveryStatus(enum.IntEnum):
    DS_SUCCESS = 0
    DS_NONE_FOUND = 1
    DS_LOGIC_ERROR = 2
    DS_OPEN_FAILED = 3
    DS_COM_ERROR = 4
    DS_DATA_EXISTS = 5


class DiscoveryQuery(enum.IntEnum):
    DQ_UNDEFINED = 0
    DQ_DISCOVERY_DATA = 1
    DQ_FILTER_DATA = 2


@dataclass
class DiscoveryResult:
    discStatus: DiscoveryStatus
    retryInterval: int

    @classmethod
    def decode(cls, decoder):
        return cls(decoder.enum(DiscoveryStatus), decoder.ulonglong())


@dataclass
class CollAttributes:
    """The enumerators may be any numbers, because tests also send undefined ones."""

    colType: int = CollectionType.CT_CONFIGURATION
    colStorage: int = CollectionStorage.CS_LOCALONLY
    priority: int = 0
    timeToLive: int = 0
    discoveryTime: int = 0

    def encode(self, encoder):
        encoder.ulong(self.colType).ulong(self.colStorage).long(self.priority)
        encoder.ulonglong(self.timeToLive).ulonglong(self.discoveryTime)

    @classmethod
    def decode(cls, decoder):
        return cls(decoder.enum(CollectionType), decoder.enum(CollectionStorage), decoder.long(),
                   decoder.ulonglong(), decoder.ulonglong())


@dataclass
class Discovery:
    queryType: int = DiscoveryQuery.DQ_UNDEFINED
    subject: str = ""
    authority: str = ""
    authType: int = AuthorityType.AT_ANYANDALL
    attributes: CollAttributes = field(default_factory=CollAttributes)
    sourceHost: str = ""
    sourceServiceName: str = ""

    def encode(self, encoder):
        encoder.ulong(self.queryType).string(self.subject).string(self.authority)
        encoder.ulong(self.authType)
        self.attributes.encode(encoder)
        encoder.string(self.sourceHost).string(self.sourceServiceName)

    @classmethod
    def decode(cls, decoder):
        return cls(decoder.enum(DiscoveryQuery), decoder.string(), decoder.string(),
                   decoder.enum(AuthorityType), CollAttributes.decode(decoder), decoder.string(),
                   decoder.string())


class _Pages(Proxy):
    """The operations of both iterators."""

    @property
    def pageSize(self):
        return self.call("_get_pageSize", result=lambda d: d.long())

    @pageSize.setter
    def pageSize(self, value):
        self.call("_set_pageSize", lambda e: e.long(value))

    def release(self):
        self.call("release")

    def pages(self, at_most=100000):
        """All pages before the empty page that marks the end."""
        result = []
        while len(result) < at_most:
            page = self.getNextPage()
            if not page:
                return result
            result.append(page)
        raise AssertionError("no end after %d pages" % at_most)


class DiscoveryIterator(_Pages):
    TYPE_ID = SCOPE + "DiscoveryIterator:1.0"

    def getNextPage(self):
        return self.call("getNextPage", result=lambda d: d.sequence(Discovery.decode))


class CollectionDataIterator(_Pages):
    TYPE_ID = SCOPE + "CollectionDataIterator:1.0"

    def getNextPage(self):
        return self.call("getNextPage", result=lambda d: d.octets())


class RemoteWriter(Proxy):
    TYPE_ID = SCOPE + "RemoteWriter:1.0"

    def put(self, data):
        return self.call("put", lambda e: e.octets(data), lambda d: d.boolean())

    def close(self):
        return self.call("close", result=DiscoveryResult.decode)


class DiscoveryService(Proxy):
    TYPE_ID = SCOPE + "DiscoveryService:1.0"

    def queryDiscoveries(self, queryType, authType, authority, subject):
        return self.call(
            "queryDiscoveries",
            lambda e: e.ulong(queryType).ulong(authType).string(authority).string(subject),
            lambda d: self.orb.object(Ior.decode(d), DiscoveryIterator))

    def getCollectionData(self, discovery, filter=""):
        """(status, iterator or None)"""
        return self.call(
            "getCollectionData",
            lambda e: (discovery.encode(e), e.string(filter)),
            lambda d: (d.enum(DiscoveryStatus),
                       self.orb.object(Ior.decode(d), CollectionDataIterator)))

    def putCollection(self, discovery):
        """(result, writer or None)"""
        return self.call(
            "putCollection", discovery.encode,
            lambda d: (DiscoveryResult.decode(d), self.orb.object(Ior.decode(d), RemoteWriter)))

    def registerExplorer(self, sourceServiceName, sourceHost, subject, authority, authType,
                         priority):
        self.call("registerExplorer",
                  lambda e: e.string(sourceServiceName).string(sourceHost).string(subject)
                  .string(authority).ulong(authType).short(priority))

    def terminate(self):
        return self.call("terminate", result=lambda d: d.boolean())

    def restartLocalPushTimer(self):
        self.call("restartLocalPushTimer")

    def restartAllPushTimers(self):
        return self.call("restartAllPushTimers", result=lambda d: d.boolean())
