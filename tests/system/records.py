"""Functions that put a record into a service, find it and read it back."""

import time
from urllib.parse import quote

from giop import AuthorityType, CollAttributes, Discovery, DiscoveryQuery, DiscoveryStatus

ANY = AuthorityType.AT_ANYANDALL
SERVER = AuthorityType.AT_QMKSERVER
SUCCESS = DiscoveryStatus.DS_SUCCESS


def record(subject, authority, type=SERVER, priority=1, ttl=0):
    """A record as a producer sends it. The time to live, ttl, is in seconds."""
    return Discovery(DiscoveryQuery.DQ_DISCOVERY_DATA, subject, authority, type,
                     CollAttributes(priority=priority, timeToLive=ttl,
                                    discoveryTime=int(time.time())),
                     "producer1", "DiscoveryService")


def open_writer(service, a_record):
    """Opens a writer for a record. The service must accept the record."""
    result, writer = service.putCollection(a_record)
    assert result.discStatus == SUCCESS
    assert writer is not None
    return writer


def put(service, subject, authority, data=b"payload", chunk=None, **attributes):
    """Puts a record and returns the status of the close. `chunk` is the size of each chunk."""
    writer = open_writer(service, record(subject, authority, **attributes))
    step = chunk or max(len(data), 1)
    for start in range(0, len(data), step):
        assert writer.put(data[start:start + step])
    return writer.close().discStatus


def read(iterator, page_size=1 << 20):
    """Reads all bytes of a collection and releases the iterator."""
    iterator.pageSize = page_size
    data = b"".join(iterator.pages())
    iterator.release()
    return data


def get(service, subject, authority, type=SERVER, filter=""):
    """Reads the bytes of a record. The record must exist."""
    status, iterator = service.getCollectionData(record(subject, authority, type), filter)
    assert status == SUCCESS
    return read(iterator)


def status_of_get(service, subject, authority, type=SERVER, filter=""):
    """The status of a lookup that must return no iterator."""
    status, iterator = service.getCollectionData(record(subject, authority, type), filter)
    assert iterator is None
    return status


def query(service, subject="*", authority="*", type=ANY):
    """All matching records from all pages."""
    iterator = service.queryDiscoveries(DiscoveryQuery.DQ_DISCOVERY_DATA, type, authority, subject)
    iterator.pageSize = 99
    found = [each for page in iterator.pages() for each in page]
    iterator.release()
    return found


def subjects(service, **filters):
    return sorted(each.subject for each in query(service, **filters))


def encoded(name):
    """A name in the form that file names have. The name must not be percent-encoded yet."""
    return quote(name if isinstance(name, bytes) else name.encode("utf-8"), safe="-._~*?")


def file_stem(subject, authority, type=SERVER):
    return "%d %s %s" % (type, encoded(authority), encoded(subject))
