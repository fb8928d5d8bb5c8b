"""What the self-tests of the soak share."""

import random

from ledger import Book, Worker
from stamp import payload_of

DOCUMENT = ('<?xml version="1.0" encoding="UTF-8"?><DiscoveryData><DiscoveryAuthority Name="%s" '
            'Type="2"></DiscoveryAuthority><DiscoverySubject Name="%s"></DiscoverySubject>'
            '<DiscoveryAttributes Type="2" Storage="1"><Priority>%d</Priority><DiscoveryTime>'
            '1700000000.000000</DiscoveryTime></DiscoveryAttributes></DiscoveryData>')


def write_record(store, name, generation, priority=None, payload=None):
    authority, subject = name.split("/")
    stem = "2 %s %s" % (authority, subject)
    (store / (stem + ".xml")).write_text(
        DOCUMENT % (authority, subject, generation if priority is None else priority),
        encoding="utf-8")
    (store / (stem + ".dat")).write_bytes(
        payload_of(name, generation) if payload is None else payload)


class Cases:
    """Each case runs a check and states what it must report."""

    def __init__(self):
        self.failures = []
        self.count = 0

    def expect(self, what, found, *wanted):
        """Each wanted text must be in one problem, and each problem must have a wanted text. Without a
        wanted text there must be no problem."""
        self.count += 1
        missing = [text for text in wanted if not any(text in line for line in found)]
        surplus = [line for line in found if not any(text in line for text in wanted)]
        if missing or surplus:
            self.failures.append("%s: missing %s, surplus %s" % (what, missing, surplus))


def caught(function, *arguments):
    try:
        function(*arguments)
        return []
    except RuntimeError as failure:
        return [str(failure)]


def book_of(directory, *lines, workers=1):
    """A book that has read the lines. A line is (worker, text)."""
    problems = []
    all_workers = [Worker(number, "w%d" % number) for number in range(workers)]
    book = Book(all_workers, problems.append)
    for worker in all_workers:
        path = directory / ("ledger-%d-%d" % (worker.number, random.getrandbits(60)))
        path.write_text("".join(text + "\n" for number, text in lines if number == worker.number),
                        encoding="ascii")
        worker.begin(path, 0)
    book.read(1 << 62)
    return book, problems
