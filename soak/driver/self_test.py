"""Shows that each check of the soak can fail."""

import contextlib
import json
import pathlib
import random
import signal
import subprocess
import tempfile
import time
import types

import audit
import samples
from clients import Client
from history import HOT
from ledger import SILENCE, Book, Worker
from service import Service
from stamp import payload_of, version_of

CLIENT_SECONDS = 4
CLIENT_LIMIT = 30


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
        """Each wanted text must be part of one problem, and each problem must have one. Without a
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


def test_trends(cases):
    chance = random.Random(1)

    def problems(figure, value):
        series = samples.Series()
        points = [(float(second), value(second)) for second in range(120)]
        if figure in series.points:
            series.points[figure] = points
        else:
            series.latencies[figure] = points
        found = []
        samples.judge([series], 10, found.append)
        return found
    for figure, leak in (("descriptors", 0.5), ("threads", 0.5), ("memory", 1.0), ("temporary files", 0.2),
                         ("records", 0.5),
                         ("put", 3.0)):
        def level(second):
            return 40 + chance.uniform(-3, 3)
        cases.expect(figure + " is steady", problems(figure, level))
        cases.expect(figure + " has peaks",
                     problems(figure, lambda second: 900 if second % 20 == 0 else level(second)))
        cases.expect(figure + " grows",
                     problems(figure, lambda second: level(second) + leak * second),
                     figure + " grows: by")
        cases.expect(figure + " grows only in the beginning",
                     problems(figure, lambda second: level(second) + leak * min(second, 50)))


class FakeService:
    """What Sampler asks a service."""

    starts = 1

    def __init__(self, updating=0, records=0, memory=30, log=()):
        self._files = types.SimpleNamespace(updating=updating, records=records, others=20)
        self._memory = memory * samples.MIB
        self._log = list(log) or [0]
        self.log = self

    def descriptors(self):
        return self._files

    def memory_and_threads(self):
        return self._memory, 10

    def temporary_files(self):
        return self._files.updating

    def written(self):
        return self._log.pop(0) if len(self._log) > 1 else self._log[0]


def test_samples(cases, directory):
    def problems(service):
        found = []
        book, _ = book_of(directory)
        sampler = samples.Sampler(service, book, directory, found.append, 0)
        sampler.new_series()
        for left in "wwwd-l":
            sampler.series.leave(left)
        for _ in range(2):
            sampler.take(4)
        sampler.close()
        return found
    cases.expect("all is explained", problems(FakeService(updating=11, records=26)))
    cases.expect("too many temporary files", problems(FakeService(updating=12)),
                 "12 temporary files, 12 of them open; 11 are explained")
    cases.expect("too many open records", problems(FakeService(records=27)),
                 "27 descriptors of records; 26 are explained")
    cases.expect("too much memory", problems(FakeService(memory=257)), "257 MiB of memory")
    cases.expect("too much log",
                 problems(FakeService(log=[1, samples.LOG_BYTES_A_MINUTE + 2])),
                 "the log has %d bytes more" % (samples.LOG_BYTES_A_MINUTE + 1))


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


def test_samples_of_records(cases, directory):
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


def test_processes(cases, directory):
    service = Service(directory, directory / "root")
    service.process = subprocess.Popen(["false"], stdin=subprocess.DEVNULL)
    service.process.wait(10)
    cases.expect("a daemon that ends", caught(service.check, cases.failures.append),
                 "the daemon ended by itself with 1")
    (service.root / "run").mkdir()
    for count, wanted in ((0, ()), (2, ("the daemon counts 2 failed assertions",))):
        (service.root / "run" / "status.json").write_text(json.dumps({"assertions": count}))
        found = []
        service.check_status(found.append)
        cases.expect("%d failed assertions" % count, found, *wanted)
    service.outages = [[10, 20]]
    for moment, is_out in ((9, False), (15, True), (20 + service.MARGIN, True),
                           (21 + service.MARGIN, False)):
        cases.expect("an outage at %d" % moment, [str(service.was_out(moment))], str(is_out))
    book, _ = book_of(directory)
    client = Client(pathlib.Path("/bin/false"), {"worker": {}}, book.workers, book, directory, 1)
    with contextlib.suppress(BrokenPipeError):
        client.start()
    client.process.wait(10)
    cases.expect("a client that ends", caught(client.check), "a client ended by itself with 1")
    cases.expect("a client that stops badly", [client.wait()], "a client ended with 1")
    client.end()
    # Like a daemon, the shell ends by itself after the signal.
    script = "trap 'exit 7' TERM; echo; while :; do sleep 0.1; done"
    service.process = subprocess.Popen(["sh", "-c", script], stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE)
    service.process.stdout.readline()
    cases.expect("a daemon that stops badly", [service.stop()],
                 "the daemon stopped with exit code 7")
    service.process.stdout.close()
    service.store.mkdir(parents=True)
    for names, wanted in (((), ()), (("3.updating",), ("leaves 1 temporary files",))):
        for name in names:
            (service.store / name).touch()
        found = []
        service.check_left(found.append)
        cases.expect("a start", found, *wanted)


def test_client(cases, directory, program):
    """The client reports what it finds wrong. Its records claim what the store does not have."""
    store = directory / "wrong"
    store.mkdir()
    write_record(store, "t0/r00", 5, payload=b"a" * 200)      # spoilt
    write_record(store, "t0/r01", 5)                          # 9 was acknowledged
    write_record(store, "t0/r03", 7, priority=2000000000)     # outranks all of the worker's puts
    write_record(store, "t0/r04", 7, priority=1)              # lets a put of priority 6 in
    write_record(store, "t0/r09", 1)
    write_record(store, "t0/x00", 5)                          # never expires
    write_record(store, HOT, 7, priority=2000000000, payload=payload_of("t0/r00", 7))
    versions = {"t0/r00": 5, "t0/r01": 9, "t0/r02": 5, "t0/r03": 7, "t0/r04": 7}
    state = {"authority": "t0", "number": 0, "seed": 1, "pause": 1000, "limit": 20, "small": 5,
             "big": 1, "expiring": 1, "writers": 0, "iterators": [],
             "generations": {name: each + 2 for name, each in versions.items()},
             "versions": {name: [[each, 200]] for name, each in versions.items()}}
    for only, seconds, wanted in (
            (("read", "read-hot", "list", "list-all", "list-pattern", "expire"), CLIENT_SECONDS,
             ("t0/r00: spoilt, 200 bytes", "t0/r01: 5:200 instead of 9:200",
              "t0/r02: missing instead of 5:200", "hot/hot: spoilt, 200 bytes",
              "t0/x00: has not expired", "the list of an authority lacks t0/r02",
              "the list of all lacks t0/r02", "a list by pattern lacks t0/r02")),
            (("put-refused",), 1, ("t0/r04: a put of priority 6 replaces 7:200",)),
            (("put", "put-hot"), 1, ("t0/r03: a put of the highest priority is refused",
                                     "hot/hot: a put of the same priority is refused"))):
        ledger = directory / ("ledger-" + only[0])
        run_client(program, store, {**state, "ledger": str(ledger),
                                    "only": {each: True for each in only}}, seconds)
        lines = [line.split(" ", 2)[2] for line in ledger.read_text(encoding="utf-8").splitlines()
                 if line.startswith("bad ")]
        for text in wanted:
            cases.expect("the client", [line for line in lines if text in line][:1], text)


    ledger = directory / "ledger-late"
    run_client(program, store, {**state, "ledger": str(ledger), "limit": 0}, 1)
    lines = [line.split(" ", 2)[2] for line in ledger.read_text(encoding="utf-8").splitlines()
             if line.startswith("late ")]
    cases.expect("the client's limit", lines[:1], " took 0.0 s")


def run_client(program, store, state, seconds):
    process = subprocess.Popen([program], stdin=subprocess.PIPE, text=True)
    try:
        process.stdin.write(json.dumps({"store": str(store), "workers": [state]}))
        process.stdin.close()
        time.sleep(seconds)
        process.send_signal(signal.SIGTERM)
        process.wait(CLIENT_LIMIT)
    finally:
        if process.poll() is None:
            process.kill()
            process.wait(CLIENT_LIMIT)


def run(programs):
    """Returns how many checks did not fail when they had to, or failed when they must not."""
    cases = Cases()
    with tempfile.TemporaryDirectory(prefix="qmsoak.") as name:
        directory = pathlib.Path(name)
        test_trends(cases)
        test_samples(cases, directory)
        test_stamps(cases)
        test_shared_record(cases, directory)
        test_ledger(cases, directory)
        test_samples_of_records(cases, directory)
        test_files(cases, directory)
        test_processes(cases, directory)
        test_client(cases, directory, programs / "soak_client")
    for failure in cases.failures:
        print("FAILED " + failure)
    print("self-test: %d cases, %d failed" % (cases.count, len(cases.failures)))
    return len(cases.failures)
