"""Shows that the soak finds records that are missing, spoilt, old or left over."""

import pathlib
import tempfile

import audit
from cases import book_of, caught, write_record
from history import HOT
from ledger import SILENCE
from stamp import payload_of, version_of


def test_stamps(cases):
    good = payload_of("w0/r00", 5)

    def problems(payload, name="w0/r00"):
        return [] if version_of(name, payload) else ["spoilt"]
    cases.expect("a whole payload", problems(good))
    cases.expect("an empty payload", problems(b""))
    cases.expect("another name", problems(good, "w0/r01"), "spoilt")
    cases.expect("a payload that is cut", problems(good[:-1]), "spoilt")
    cases.expect("a payload that is too long", problems(good + b"a"), "spoilt")
    cases.expect("two payloads mixed", problems(good[:100] + payload_of("w0/r00", 6)[100:]),
                 "spoilt")
    cases.expect("no stamp", problems(b"a" * 200), "spoilt")


def test_shared_record(cases, directory):
    puts = [(0, "put 100 hot/hot 1 200 0"), (0, "ack 200 hot/hot 1"),
            (1, "put 150 hot/hot 2 200 0"), (1, "ack 400 hot/hot 2"),
            (0, "put 300 hot/hot 3 200 0"), (0, "ack 350 hot/hot 3")]
    for what, read, wanted in (
            ("the first while the second is under way", "saw 260 250 hot/hot 1 200", ()),
            ("the second before its end", "saw 260 250 hot/hot 2 200", ()),
            ("the first after the third", "saw 370 360 hot/hot 1 200",
             ("hot/hot: found 1:200 instead of",)),
            ("the third after the second", "saw 510 500 hot/hot 3 200", ()),
            ("the second at the end", "saw 510 500 hot/hot 2 200", ()),
            ("a put that has not begun", "saw 260 250 hot/hot 3 200",
             ("hot/hot: found 3:200 instead of",)),
            ("another size", "saw 510 500 hot/hot 3 201", ("hot/hot: found 3:201 instead of",)),
            ("nothing before the first", "none 120 110 hot/hot", ()),
            ("nothing after the first", "none 260 250 hot/hot", ("hot/hot: missing",))):
        _, problems = book_of(directory, *puts, (2, read), workers=3)
        cases.expect(what, problems, *wanted)


def test_ledger(cases, directory):
    _, problems = book_of(directory, (0, "bad 1 w0/r00: spoilt, 7 bytes"),
                          (0, "late 2 put took 21.0 s"))
    cases.expect("what a worker reports", problems, "w0: bad: w0/r00: spoilt, 7 bytes",
                 "w0: late: put took 21.0 s")
    book, problems = book_of(directory, (0, "lost 50 COMM_FAILURE"), (0, "lost 70 TRANSIENT"))
    book.judge_losses(lambda moment: moment < 60)
    cases.expect("a call that fails", problems,
                 "w0: a call failed while the service was up: TRANSIENT")
    cases.expect("a worker that works", caught(book.check_silence, 70 + SILENCE))
    cases.expect("a worker that hangs", caught(book.check_silence, 71 + SILENCE),
                 "w0 has done nothing for")


class FakeWire:
    """A wire whose answers are made up."""

    def __init__(self, version=None, during=None):
        self._version = version
        self._during = during

    def read(self, name):
        if self._during:
            self._during()
        if self._version == "spoilt":
            raise audit.Spoilt("%s: spoilt" % name)
        return self._version


def test_reads(cases, directory):
    for what, version, wanted in (
            ("the acknowledged version", (1, 200), ()),
            ("the version under way", (2, 200), ()),
            ("an older version", (0, 200), ("w0/r00: found 0:200 instead of 1:200 2:200",)),
            ("no record", None, ("w0/r00: missing",)),
            ("a spoilt record", "spoilt", ("w0/r00: spoilt",))):
        book, problems = book_of(directory, (0, "put 1 w0/r00 1 200 0"), (0, "ack 2 w0/r00 1"),
                                 (0, "put 3 w0/r00 2 200 0"))
        found = audit.sample(FakeWire(version), book, "w0/r00")
        cases.expect("a sample finds " + what, problems + [found] * bool(found), *wanted)
    book, problems = book_of(directory, (0, "put 1 w0/r00 1 200 0"), (0, "ack 2 w0/r00 1"))

    def replace():
        with open(book.workers[0].path, "a", encoding="ascii") as file:
            file.write("put 3 w0/r00 2 200 0\nack 4 w0/r00 2\n")
    found = audit.sample(FakeWire((2, 200), replace), book, "w0/r00")
    cases.expect("a record that is replaced during the read", problems + [found] * bool(found))


def test_files(cases, directory):
    lines = [(0, "put 1 w0/r00 4 200 0"), (0, "ack 2 w0/r00 4"), (0, "put 3 w0/r01 5 200 0"),
             (0, "put 4 hot/hot 7 200 0"), (0, "ack 5 hot/hot 7"),
             (0, "put 6 w0/x00 1 200 1"), (0, "ack 7 w0/x00 1")]

    def problems(spoil):
        with tempfile.TemporaryDirectory(dir=directory) as name:
            store = pathlib.Path(name)
            write_record(store, "w0/r00", 4)
            write_record(store, HOT, 7, priority=1)
            (store / "Update.lock").touch()
            spoil(store)
            book, found = book_of(directory, *lines)
            audit.check_files(audit.Directory(store), book, found.append)
            return found
    payload = "2 w0 r00.dat"
    cases.expect("a good store", problems(lambda store: None))
    cases.expect("a put that was under way", problems(lambda store: write_record(store, "w0/r01", 5)))
    cases.expect("a missing payload", problems(lambda store: (store / payload).unlink()),
                 "w0/r00: missing")
    cases.expect("a missing metadata file",
                 problems(lambda store: (store / "2 w0 r00.xml").unlink()),
                 "the list of all lacks w0/r00", "w0/r00: the metadata has priority None instead of 4")
    cases.expect("a spoilt payload",
                 problems(lambda store: (store / payload).write_bytes(b"a" * 200)),
                 "w0/r00: spoilt, 200 bytes")
    cases.expect("an older payload",
                 problems(lambda store: (store / payload).write_bytes(payload_of("w0/r00", 3))),
                 "w0/r00: found 3:200 instead of 4:200")
    cases.expect("older metadata",
                 problems(lambda store: write_record(store, "w0/r00", 4, priority=3)),
                 "w0/r00: the metadata has priority 3 instead of 4")
    cases.expect("a missing shared record",
                 problems(lambda store: (store / "2 hot hot.dat").unlink()), "hot/hot: missing")
    cases.expect("an expired record", problems(lambda store: write_record(store, "w0/x00", 1)),
                 "w0/x00: has not expired", "the list of all has w0/x00",
                 "the store has the file \"2 w0 x00.xml\"",
                 "the store has the file \"2 w0 x00.dat\"")
    cases.expect("a temporary file", problems(lambda store: (store / "3.updating").touch()),
                 "the store has the file \"3.updating\"")
    cases.expect("a record of nobody", problems(lambda store: write_record(store, "w7/r00", 1)),
                 "the list of all has w7/r00", "the store has the file \"2 w7 r00.xml\"",
                 "the store has the file \"2 w7 r00.dat\"")
