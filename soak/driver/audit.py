"""Checks acknowledged records independently of the clients: over the wire, and by their files."""

import pathlib
import sys
import time
import xml.etree.ElementTree

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests" / "system"))

import giop  # noqa: E402

from history import HOT  # noqa: E402
from stamp import matches, version_of  # noqa: E402

CLIENT = giop.AuthorityType.AT_QMKCLIENT
PAGE = 1 << 20


class Spoilt(Exception):
    """A payload without a valid stamp."""


class Wire:
    """Reads records with a client that shares no code with the service."""

    def __init__(self, endpoint, limit):
        self._orb = giop.Orb(timeout=limit)
        self._service = self._orb.object("corbaloc:iiop:1.2@%s/DiscoveryService" % endpoint,
                                         giop.DiscoveryService)

    def close(self):
        self._orb.close()

    def read(self, name):
        """The version of a record; None if the record is absent or has no payload."""
        authority, subject = name.split("/")
        status, iterator = self._service.getCollectionData(
            giop.Discovery(giop.DiscoveryQuery.DQ_DISCOVERY_DATA, subject, authority, CLIENT,
                           giop.CollAttributes(priority=1)))
        if status in (giop.DiscoveryStatus.DS_NONE_FOUND, giop.DiscoveryStatus.DS_OPEN_FAILED):
            return None
        if status != giop.DiscoveryStatus.DS_SUCCESS:
            raise RuntimeError("a read is answered with status %d" % status)
        iterator.pageSize = PAGE
        payload = b"".join(iterator.pages())
        iterator.release()
        version = version_of(name, payload)
        if version is None:
            raise Spoilt("%s: spoilt, %d bytes" % (name, len(payload)))
        return version

    def names(self):
        iterator = self._service.queryDiscoveries(giop.DiscoveryQuery.DQ_DISCOVERY_DATA,
                                                  giop.AuthorityType.AT_ANYANDALL, "*", "*")
        iterator.pageSize = 999
        names = ["%s/%s" % (each.authority, each.subject)
                 for page in iterator.pages() for each in page]
        iterator.release()
        return names


class Directory:
    """Reads records from their files, while no service changes them."""

    def __init__(self, store):
        self.store = pathlib.Path(store)

    def _file(self, name, suffix):
        return self.store / ("%d %s%s" % (CLIENT, name.replace("/", " "), suffix))

    def read(self, name):
        try:
            payload = self._file(name, ".dat").read_bytes()
        except FileNotFoundError:
            return None
        version = version_of(name, payload)
        if version is None:
            raise Spoilt("%s: spoilt, %d bytes" % (name, len(payload)))
        return version

    def has_document(self, name):
        return self._file(name, ".xml").exists()

    def priority(self, name):
        """The priority in the metadata; None without a well-formed document."""
        try:
            document = xml.etree.ElementTree.fromstring(self._file(name, ".xml").read_bytes())
        except (FileNotFoundError, xml.etree.ElementTree.ParseError):
            return None
        found = document.findtext("DiscoveryAttributes/Priority")
        return int(found) if found and found.isdigit() else None

    def names(self):
        return [" ".join(path.name.split(" ")[1:]).removesuffix(".xml").replace(" ", "/")
                for path in self.store.iterdir() if path.suffix == ".xml"]

    def strangers(self, known):
        """The files that belong to no known record."""
        expected = {"Update.lock"} | {self._file(name, suffix).name
                                      for name in known for suffix in (".xml", ".dat")}
        return sorted(path.name for path in self.store.iterdir() if path.name not in expected)


def judge(name, found, allowed, may_be_absent):
    """What is wrong with a version that was read, or None."""
    if found is None:
        return None if may_be_absent else "%s: missing" % name
    if not any(matches(found, each) for each in allowed):
        return "%s: found %d:%d instead of %s" % (
            name, *found, " ".join("%d:%d" % each for each in allowed) or "nothing")
    return None


def sample(source, book, name):
    """Reads a record while its worker replaces it. Returns what is wrong, or None."""
    record = book.record(name)
    may_be_absent = record.stored is None
    allowed = record.watch()
    try:
        found = source.read(name)
    except Spoilt as failure:
        return str(failure)
    finally:
        book.read(time.monotonic_ns())
        record.watched = None
    return judge(name, found, allowed, may_be_absent)


def check_all(source, book, report, may_lack=frozenset()):
    """Checks every record while no worker runs. The records in may_lack may be absent. Returns how many
    it checked."""
    checked = 0
    for name, record in sorted(book.records.items()):
        try:
            found = source.read(name)
            if record.expires:
                problem = "%s: has not expired" % name if found else None
            else:
                problem = judge(name, found, record.allowed(),
                                record.stored is None or name in may_lack)
        except Spoilt as failure:
            problem = str(failure)
        checked += 1
        if problem:
            report(problem)
    try:
        now = time.monotonic_ns()
        book.judge_shared(source.read(HOT), now, now, "the check")
    except Spoilt as failure:
        report(str(failure))
    # The list has each acknowledged record. It may also have records of unknown outcome, and no other.
    listed = source.names()
    known = {name for name, record in book.records.items() if not record.expires}
    needed = {name for name in known if book.records[name].stored}
    if book.shared.allowed(time.monotonic_ns(), time.monotonic_ns()):
        known.add(HOT)
    for name in sorted(needed - set(listed) - may_lack):
        report("the list of all lacks %s" % name)
    for name in sorted(set(listed) - known):
        report("the list of all has %s" % name)
    if len(listed) != len(set(listed)):
        report("the list of all has a record twice")
    return checked + 1


def check_files(directory, book, report):
    """Checks the files after an orderly stop: payloads, priorities, and that nothing is left over."""
    checked = check_all(directory, book, report)
    for name, record in sorted(book.records.items()):
        if record.stored and not record.pending and not record.expires and \
                directory.priority(name) != record.stored[0]:
            report("%s: the metadata has priority %s instead of %d"
                   % (name, directory.priority(name), record.stored[0]))
    known = [name for name, record in book.records.items() if not record.expires] + [HOT]
    for name in directory.strangers(known):
        report("the store has the file \"%s\"" % name)
    return checked
