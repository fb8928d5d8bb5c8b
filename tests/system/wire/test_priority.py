"""A record of lower priority never replaces one of higher priority."""

import time

import pytest

from giop import DiscoveryStatus
from records import SUCCESS, file_stem, get, open_writer, put, query, record, status_of_get

# Seconds: 1.25 times a time to live of one second, and a little more for a slow machine.
EXPIRED = 1.4
REFUSED = "Cannot open the db database, data with higher priority already exists."


def refused(service, subject, authority, priority):
    result, writer = service.putCollection(record(subject, authority, priority=priority))
    return result.discStatus == DiscoveryStatus.DS_DATA_EXISTS and writer is None


def test_lower_is_refused(service, root, authority):
    assert put(service, "cl1", authority, b"five", priority=5) == SUCCESS
    log, files = root.log(), root.files()
    assert refused(service, "cl1", authority, 4)
    assert log.failures("../DiscDB") == [REFUSED]
    assert root.files() == files
    assert get(service, "cl1", authority) == b"five"


@pytest.mark.parametrize("priority", [5, 6, 2 ** 31 - 1])
def test_equal_or_higher_replaces(service, authority, priority):
    assert put(service, "cl1", authority, b"five", priority=5) == SUCCESS
    assert put(service, "cl1", authority, b"newer", priority=priority) == SUCCESS
    assert get(service, "cl1", authority) == b"newer"


def test_a_negative_priority_is_a_large_one(service, authority):
    assert put(service, "cl1", authority, b"minus one", priority=-1) == SUCCESS
    assert refused(service, "cl1", authority, 2 ** 31 - 1)
    assert put(service, "cl1", authority, b"again", priority=-1) == SUCCESS
    assert get(service, "cl1", authority) == b"again"


def test_priority_counts_again_when_the_writer_closes(service, root, authority):
    late = open_writer(service, record("cl1", authority, priority=4))
    assert late.put(b"four")
    assert put(service, "cl1", authority, b"five", priority=5) == SUCCESS
    log = root.log()
    assert late.close().discStatus == DiscoveryStatus.DS_DATA_EXISTS
    assert log.failures("../DiscDB") == [
        "Cannot persist, data with higher priority already exists.",
        "Deleted file: %s" % (root.store / "0.updating")]
    assert get(service, "cl1", authority) == b"five"
    assert [name for name in root.files() if name.endswith(".updating")] == []


def test_priority_counts_for_one_record_only(service, authority):
    assert put(service, "cl1", authority, priority=5) == SUCCESS
    assert put(service, "cl2", authority, priority=1) == SUCCESS
    assert put(service, "cl1", authority, type=2, priority=1) == SUCCESS


def test_a_record_expires(service, root, authority):
    born = time.monotonic()
    assert put(service, "cl1", authority, ttl=1) == SUCCESS
    found = len(query(service, authority=authority))
    if time.monotonic() - born < 1.25:
        assert found == 1
    time.sleep(max(0, born + EXPIRED - time.monotonic()))
    log = root.log()
    assert query(service, authority=authority) == []
    path = root.store / (file_stem("cl1", authority) + ".xml")
    assert log.failures("../DiscDB") == ["%s has expired" % path]
    assert not [name for name in root.files() if authority in name]
    assert status_of_get(service, "cl1", authority) == DiscoveryStatus.DS_NONE_FOUND


def test_a_quarter_of_grace(service, authority):
    born = time.monotonic()
    assert put(service, "cl1", authority, b"kept", ttl=4) == SUCCESS
    time.sleep(4.2)
    data = get(service, "cl1", authority)
    assert time.monotonic() - born < 5, "too slow a machine for this test"
    assert data == b"kept"


@pytest.mark.parametrize("ttl", [0, 2 ** 31, 2 ** 63, 2 ** 64 - 1])
def test_never_expires(service, authority, ttl):
    assert put(service, "cl1", authority, b"kept", ttl=ttl) == SUCCESS
    if ttl == 0:
        time.sleep(EXPIRED)
    assert get(service, "cl1", authority) == b"kept"


def test_an_expired_record_blocks_until_it_is_looked_up(service, authority):
    assert put(service, "cl1", authority, priority=5, ttl=1) == SUCCESS
    time.sleep(EXPIRED)
    assert refused(service, "cl1", authority, 4)
    assert query(service, subject="cl1", authority=authority) == []
    assert put(service, "cl1", authority, b"four", priority=4) == SUCCESS
    assert get(service, "cl1", authority) == b"four"
