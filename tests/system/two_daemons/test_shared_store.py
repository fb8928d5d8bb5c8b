"""Two daemons use one store. Locks keep their processes apart."""

import time

import pytest

import harness
from giop import DiscoveryStatus
from records import SUCCESS, get, open_writer, put, query, record, subjects


@pytest.fixture
def roots(tmp_path):
    """Two product roots with one store. The second root has a symbolic link to it."""
    first, second = harness.Root(tmp_path / "first"), harness.Root(tmp_path / "second")
    first.store.mkdir(parents=True)
    second.store.parent.mkdir(parents=True)
    second.store.symlink_to(first.store)
    return first, second


@pytest.fixture
def both(start, roots):
    """The two services."""
    return tuple(start(root).client() for root in roots)


def test_both_serve_the_same_records(both):
    one, two = both
    assert put(one, "cl1", "a", b"from one") == SUCCESS
    assert put(two, "cl2", "a", b"from two") == SUCCESS
    for service in both:
        assert subjects(service) == ["cl1", "cl2"]
        assert get(service, "cl1", "a") == b"from one"
        assert get(service, "cl2", "a") == b"from two"
    assert put(two, "cl1", "a", b"replaced") == SUCCESS
    assert get(one, "cl1", "a") == b"replaced"


def test_priority_holds_between_them(both):
    one, two = both
    assert put(one, "cl1", "a", b"five", priority=5) == SUCCESS
    result, writer = two.putCollection(record("cl1", "a", priority=4))
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_DATA_EXISTS, None)
    assert put(two, "cl1", "a", b"six", priority=6) == SUCCESS
    assert get(one, "cl1", "a") == b"six"


def test_priority_counts_again_at_the_close(both, roots):
    one, two = both
    late = open_writer(two, record("cl1", "a", priority=4))
    assert late.put(b"four")
    assert put(one, "cl1", "a", b"five", priority=5) == SUCCESS
    log = roots[1].log()
    assert late.close().discStatus == DiscoveryStatus.DS_DATA_EXISTS
    assert log.failures("../DiscDB")[0] == \
        "Cannot persist, data with higher priority already exists."
    for service in both:
        assert get(service, "cl1", "a") == b"five"


def test_temporary_files_do_not_collide(both, roots):
    writers = [open_writer(service, record("cl%d" % number, "a"))
               for number, service in enumerate(both * 3)]
    assert roots[0].files() == ["%d.updating" % number for number in range(6)]
    for number, writer in enumerate(writers):
        assert writer.put(b"%d" % number)
    for writer in reversed(writers):
        assert writer.close().discStatus == SUCCESS
    for number in range(6):
        assert get(both[0], "cl%d" % number, "a") == b"%d" % number


def test_no_clean_up_while_the_other_writes(start, roots):
    one, two = roots
    first = start(one)
    writer = open_writer(first.client(), record("cl1", "a"))
    assert writer.put(b"slowly")
    (one.store / "77.updating").write_bytes(b"left by a crash")
    log = two.log()
    second = start(two)
    assert log.failures("../DiscDB") == [
        "Unable to lock %s" % (two.store / "Update.lock"),
        "The cause: another process or another writer has a lock on it"]
    assert one.files() == ["0.updating", "77.updating"]
    assert second.stop() == 0

    assert writer.put(b", but surely")
    assert writer.close().discStatus == SUCCESS
    log = two.log()
    second = start(two)
    assert "Deleting temporary file 77.updating" in log.texts(source="../DiscDB")
    assert get(second.client(), "cl1", "a") == b"slowly, but surely"
    assert not (one.store / "77.updating").exists()


def test_the_first_of_two_writers_to_finish_keeps_the_lock_for_the_other(start, roots):
    """If a process closes any descriptor of a file, the kernel drops all its locks on the file.
    The service must not lose the slow writer's lock that way."""
    one, two = roots
    service = start(one).client()
    slow = open_writer(service, record("slow", "a"))
    assert put(service, "quick", "a") == SUCCESS
    start(two)
    assert "0.updating" in one.files()
    assert slow.close().discStatus == SUCCESS
    assert get(service, "slow", "a") == b""


def test_a_reader_keeps_its_record_from_expiring_elsewhere(both, roots):
    """The other daemon cannot get the write lock, so it leaves the files."""
    one, two = both
    assert put(one, "cl1", "a", b"0123456789", ttl=1) == SUCCESS
    status, reader = one.getCollectionData(record("cl1", "a"))
    assert status == SUCCESS
    time.sleep(1.4)
    log = roots[1].log()
    assert query(two) == []
    path = roots[1].store / "1 a cl1.xml"
    assert "%s could not be expired" % path in log.failures("../DiscDB")
    assert b"".join(reader.pages()) == b"0123456789"
    reader.release()
    assert query(two) == []
    assert roots[0].files() == []


def test_one_is_killed(start, roots):
    one, two = roots
    first, second = start(one), start(two)
    assert put(first.client(), "cl1", "a", b"kept") == SUCCESS
    assert open_writer(first.client(), record("cl2", "a")).put(b"lost")
    first.kill()
    service = second.client()
    assert get(service, "cl1", "a") == b"kept"
    assert put(service, "cl2", "a", b"by the other") == SUCCESS
    start(one)
    assert one.files() == ["1 a cl1.dat", "1 a cl1.xml", "1 a cl2.dat", "1 a cl2.xml"]
