"""What most tests do with a service: put a record, find it, read it back."""

import time
from urllib.parse import quote

from giop import AuthorityType, CollAttributes, Discovery, DiscoveryQuery, DiscoveryStatus

ANY = AuthorityType.AT_ANYANDALL
SERVER = AuthorityType.AT_QMKSERVER
SUCCESS = DiscoveryStatus.DS_SUCCESS


def record(subject, authority, type=SERVER, priority=1, ttl=0):
    """A record as a producer sends it; ttl is in seconds."""
    return Discovery(DiscoveryQuery.DQ_DISCOVERY_DATA, subject, authority, type,
                     CollAttributes(priority=priority, timeToLive=ttl,
                                    discoveryTime=int(time.time())),
                     "producer1", "DiscoveryService")


def open_writer(service, a_record):
    """The writer of a record that the service takes."""
    result, writer = service.putCollection(a_record)
    assert result.discStatus == SUCCESS
    assert writer is not None
    return writer


def put(service, subject, authority, data=b"payload", chunk=None, **attributes):
    """Puts a record, in chunks when their size is given; answers the status of the close."""
    writer = open_writer(service, record(subject, authority, **attributes))
    step = chunk or max(len(data), 1)
    for start in range(0, len(data), step):
        assert writer.put(data[start:start + step])
    return writer.close().discStatus


def read(iterator, page_size=1 << 20):
    """All bytes of a collection; the iterator is released."""
    iterator.pageSize = page_size
    data = b"".join(iterator.pages())
    iterator.release()
    return data


def get(service, subject, authority, type=SERVER, filter=""):
    """The bytes of a record that must be there."""
    status, iterator = service.getCollectionData(record(subject, authority, type), filter)
    assert status == SUCCESS
    return read(iterator)


def status_of_get(service, subject, authority, type=SERVER, filter=""):
    """The status of a lookup that gives nothing."""
    status, iterator = service.getCollectionData(record(subject, authority, type), filter)
    assert iterator is None
    return status


def query(service, subject="*", authority="*", type=ANY):
    """All records that match, as the pages hold them."""
    iterator = service.queryDiscoveries(DiscoveryQuery.DQ_DISCOVERY_DATA, type, authority, subject)
    iterator.pageSize = 99
    found = [each for page in iterator.pages() for each in page]
    iterator.release()
    return found


def subjects(service, **filters):
    return sorted(each.subject for each in query(service, **filters))


def encoded(name):
    """A name as it stands in a file name; the name is no URI text here."""
    return quote(name if isinstance(name, bytes) else name.encode("utf-8"), safe="-._~*?")


def file_stem(subject, authority, type=SERVER):
    return "%d %s %s" % (type, encoded(authority), encoded(subject))
