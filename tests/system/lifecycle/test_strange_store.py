"""The store has foreign or broken files. The daemon ignores them and serves the good records."""

import os
import time

import pytest

from giop import DiscoveryStatus
from records import SUCCESS, get, put, query, record, status_of_get, subjects

SOUND = ["cl1", "cl2", "cl3"]
# Seconds: 1.25 times a time to live of one second, and a little more.
EXPIRED = 1.4


def document(authority='<DiscoveryAuthority Name="a" Type="1"></DiscoveryAuthority>',
             subject='<DiscoverySubject Name="bad"></DiscoverySubject>',
             attributes='<DiscoveryAttributes Type="0" Storage="0"><Priority>1</Priority>'
                        '</DiscoveryAttributes>', before=""):
    return ('<?xml version="1.0" encoding="UTF-8"?>%s<DiscoveryData>%s%s%s</DiscoveryData>'
            % (before, authority, subject, attributes)).encode()


BOMB = '<!DOCTYPE d [<!ENTITY a "aaaaaaaaaa">%s]>' % "".join(
    '<!ENTITY %s "%s">' % (chr(98 + n), "&%s;" % chr(97 + n) * 10) for n in range(9))

# Documents that are not records, in files with the name of a record.
UNSOUND = {
    "empty": b"",
    "blank": b" ",
    "no xml": b"this is no document",
    "binary": bytes(range(256)) * 10,
    "half written": document()[:70],
    "cut inside a tag": document()[:-20],
    "other root": b"<Other></Other>",
    "no subject": document(subject=""),
    "no authority": document(authority=""),
    "empty names": document(authority='<DiscoveryAuthority Name="" Type="1"/>',
                            subject='<DiscoverySubject Name=""/>'),
    "type 9": document(authority='<DiscoveryAuthority Name="a" Type="9"></DiscoveryAuthority>'),
    "negative type": document(authority='<DiscoveryAuthority Name="a" Type="-1"/>'),
    "kind 7": document(attributes='<DiscoveryAttributes Type="7" Storage="0"/>'),
    "storage 7": document(attributes='<DiscoveryAttributes Type="0" Storage="7"/>'),
    "entities": document(before=BOMB, subject='<DiscoverySubject Name="&j;"/>'),
    "deep": b"<DiscoveryData>" + b"<a>" * 100_000,
    "huge": document(before="<!--" + "x" * (20 << 20) + "-->"),
    "another encoding": "<?xml version='1.0' encoding='UTF-16'?><a/>".encode("utf-16"),
}


@pytest.fixture
def filled(daemon, service, root):
    for subject in SOUND:
        assert put(service, subject, "a", subject.encode()) == SUCCESS
    return root.store


def all_sound_are_served(service):
    assert subjects(service, authority="a") == SOUND
    for subject in SOUND:
        assert get(service, subject, "a") == subject.encode()


@pytest.mark.parametrize("content", UNSOUND.values(), ids=UNSOUND)
def test_a_document_that_is_no_record(service, root, filled, content):
    (filled / "1 a bad.xml").write_bytes(content)
    (filled / "1 a bad.dat").write_bytes(b"bad")
    log = root.log()
    all_sound_are_served(service)
    assert log.failures() != []
    assert status_of_get(service, "bad", "a") == DiscoveryStatus.DS_NONE_FOUND


def test_a_document_that_refers_to_another_file(service, filled):
    """The daemon does not read the other file. Otherwise the document is a valid record."""
    (filled / "1 a bad.xml").write_bytes(document(before='<!DOCTYPE d SYSTEM "file:///dev/zero">'))
    (filled / "1 a bad.dat").write_bytes(b"bad")
    assert get(service, "bad", "a") == b"bad"


@pytest.mark.parametrize("content", [b"", b"nonsense", document()[:70]],
                         ids=["empty", "nonsense", "half"])
def test_nonsense_never_blocks_a_new_record(service, filled, content):
    (filled / "1 a bad.xml").write_bytes(content)
    assert put(service, "bad", "a", b"now good", priority=0) == SUCCESS
    assert get(service, "bad", "a") == b"now good"


@pytest.mark.parametrize("kind", ["directory", "dangling", "loop", "fifo", "device", "socket"])
def test_what_is_no_file(service, root, filled, kind):
    for suffix in (".xml", ".dat"):
        make_strange(filled / ("1 a bad" + suffix), kind)
    log = root.log()
    all_sound_are_served(service)
    # A link to nothing looks like a record that was removed during the listing.
    assert (log.failures() != []) == (kind != "dangling")
    assert status_of_get(service, "bad", "a") == DiscoveryStatus.DS_NONE_FOUND


@pytest.mark.parametrize("kind", ["directory", "loop", "fifo", "socket"])
def test_what_is_no_file_in_a_writers_way(service, root, filled, kind):
    """A put with that name may fail, but it must answer."""
    make_strange(filled / "1 a bad.xml", kind)
    result, writer = service.putCollection(record("bad", "a"))
    if result.discStatus == SUCCESS:
        assert writer.close().discStatus != SUCCESS
    all_sound_are_served(service)


@pytest.mark.parametrize("kind", ["directory", "dangling", "loop", "fifo", "socket"])
def test_a_payload_that_is_no_file(service, root, filled, kind):
    (filled / "1 a cl1.dat").unlink()
    make_strange(filled / "1 a cl1.dat", kind)
    assert subjects(service, authority="a") == SOUND
    assert status_of_get(service, "cl1", "a") == DiscoveryStatus.DS_OPEN_FAILED
    assert get(service, "cl2", "a") == b"cl2"


def test_a_record_without_payload(service, root, filled):
    (filled / "1 a cl1.dat").unlink()
    log = root.log()
    assert status_of_get(service, "cl1", "a") == DiscoveryStatus.DS_OPEN_FAILED
    assert log.failures("../DiscDB") == ["Last error2"]
    assert log.failures("DiscoveryService_i") == [
        "Failed to open collection", "Error encountered trying to open collection iterator"]
    assert put(service, "cl1", "a", b"again") == SUCCESS
    assert get(service, "cl1", "a") == b"again"


def make_strange(path, kind):
    if kind == "directory":
        path.mkdir()
    elif kind == "dangling":
        path.symlink_to("nowhere")
    elif kind == "loop":
        path.symlink_to(path.name)
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind == "device":
        path.symlink_to("/dev/zero")
    elif kind == "socket":
        os.mknod(path, 0o140600)


def test_foreign_files(service, root, filled):
    foreign = ["README", ".hidden", "1 a cl9.dat", "a.xml", "1  .xml", "1 a.xml", "é.xml",
               "x cl1 a.xml", "1 a cl1.xml.bak", "1 a b c.xml", "9 a cl1.xml"]
    for name in foreign:
        (filled / name).write_bytes(b"foreign")
    (filled / "1 a sub.xml").mkdir()
    all_sound_are_served(service)
    assert subjects(service) == SOUND
    for name in foreign:
        assert (filled / name).read_bytes() == b"foreign"


def test_metadata_under_another_name(service, filled):
    """A lookup uses the name of the file, not the names inside it."""
    os.rename(filled / "1 a cl1.xml", filled / "1 a moved.xml")
    os.rename(filled / "1 a cl1.dat", filled / "1 a moved.dat")
    assert get(service, "moved", "a") == b"cl1"
    assert get(service, "cl2", "a") == b"cl2"


def test_an_expired_record_takes_only_its_own_files(service, filled):
    """The names inside a document do not make the daemon delete another record's files."""
    assert put(service, "bad", "a", ttl=1) == SUCCESS
    stored = (filled / "1 a bad.xml").read_bytes()
    assert b'Name="bad"' in stored
    (filled / "1 a bad.xml").write_bytes(stored.replace(b'Name="bad"', b'Name="cl1"'))
    time.sleep(EXPIRED)
    all_sound_are_served(service)
    assert not (filled / "1 a bad.xml").exists()
    assert not (filled / "1 a bad.dat").exists()


def test_a_start_on_a_strange_store(start, root):
    root.store.mkdir(parents=True)
    for number, content in enumerate(UNSOUND.values()):
        (root.store / ("1 a bad%d.xml" % number)).write_bytes(content)
    for kind in ("directory", "dangling", "loop", "fifo", "device"):
        make_strange(root.store / ("1 b %s.xml" % kind), kind)
    (root.store / "0.updating").write_bytes(b"left")
    (root.store / "1.updating").mkdir()
    (root.store / "x.updating").symlink_to("/etc/passwd")
    service = start(root).client()
    assert query(service) == []
    assert os.path.exists("/etc/passwd")
    assert not (root.store / "0.updating").exists()
    assert put(service, "cl1", "a") == SUCCESS
    assert get(service, "cl1", "a") == b"payload"


def test_a_store_that_goes_away(service, root, filled):
    """Without its store the daemon finds and stores nothing. It neither hangs nor ends."""
    away = filled.with_name("away")
    os.rename(filled, away)
    assert query(service) == []
    result, writer = service.putCollection(record("cl1", "a"))
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    os.rename(away, filled)
    all_sound_are_served(service)
