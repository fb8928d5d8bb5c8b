"""The power cuts on one file system: a daemon works on it, the power goes, and the files are checked."""

import collections
import contextlib
import os
import random
import time
import traceback

import audit
import block
from clients import EXPIRY, LIMIT, Client
from cut_states import state_of
from history import HOT
from ledger import Book, Worker
from service import Service
from stamp import payload_of

giop = audit.giop

CLIENTS = 4
BUSY_LIMIT = 60
FIRST_RECORDS = 20     # of each client
MORE_RECORDS = 6       # in each round, so each round has first puts
MOST_GENERATION = 10 ** 8
PUT_BYTES = 3000
WRITES = (0, 1, 1, 2, 3, 4, 6, 10)  # how many writes no flush covers at the cut
CUT_SECONDS = 2                     # after this the disk stops in any case
KINDS = ("none", "all", "writes", "sectors")


class Wire(audit.Wire):
    def put(self, name, generation, payload):
        authority, subject = name.split("/")
        record = giop.Discovery(giop.DiscoveryQuery.DQ_DISCOVERY_DATA, subject, authority,
                                audit.CLIENT, giop.CollAttributes(priority=generation,
                                                                  discoveryTime=int(time.time())))
        result, writer = self._service.putCollection(record)
        if result.discStatus != giop.DiscoveryStatus.DS_SUCCESS:
            return result.discStatus
        return writer.close().discStatus if writer.put(payload) else None


class PowerCuts:
    """One file system. Each round ends with a cut, and the next round goes on with what the cut left."""

    def __init__(self, programs, work, file_system, seed, report, say, lost_syncs=None):
        self._programs = programs
        self._work = work
        self._file_system = file_system
        self._chance = random.Random("%s %s" % (file_system.name, seed))
        self._report = report
        self._say = say
        environment = {}
        if lost_syncs:
            environment = {"LD_PRELOAD": programs.parent / "lib" / "libsoak_lose_syncs.so",
                           "QM_LOSE_SYNCS": lost_syncs}
        self._service = Service(programs, work / "root", environment)
        self._db = work / "root" / "db"
        self._disk_mount = work / "disk"
        self._images = work / "images"
        ledgers = work / "ledgers"
        for each in (self._db, self._disk_mount, self._images, ledgers):
            each.mkdir()
        workers = [Worker(number, "w%d" % number) for number in range(CLIENTS)]
        # When the power is gone, no put has an effect any more.
        self._book = Book(workers, report, aftermath=0)
        self._worker_orders = {"small": FIRST_RECORDS, "big": 1, "expiring": 5, "pause": 100,
                               "limit": LIMIT}
        orders = {"endpointFile": str(self._service.endpoint_file), "limit": LIMIT,
                  "worker": self._worker_orders}
        self._clients = [Client(programs / "soak_client", orders, [worker], self._book, ledgers,
                                self._chance.getrandbits(60)) for worker in workers]
        self._base = self._images / "base"
        self._round = 0
        self.counts = collections.Counter()
        self.states = collections.Counter()
        block.make_image(file_system, self._base)

    def run(self, cuts):
        begin = time.monotonic()
        for _ in range(cuts):
            self._round += 1
            images = self._play()
            self._say("%s: cut %d: %s" % (self._file_system.name, self._round, ", ".join(
                "%s %d" % (kind, kept) for kind, kept in images)))
            for place, (kind, _) in enumerate(images):
                self._check(kind, is_last=place == len(images) - 1)
            self._go_on(images[-1][0])
        self._book.judge_losses(lambda _: False)
        return {"file system": self._file_system.name, "seconds": time.monotonic() - begin,
                **self._book.figures(), **self.counts, "states": dict(self.states)}

    # Before the cut, and the cut.

    def _play(self):
        """Runs until the power goes. Returns the images: [(what is kept, sectors)]. The next round goes
        on with the last one."""
        disk = block.CutDisk(self._programs, self._base, self._images / "current", self._disk_mount)
        with contextlib.ExitStack() as stack:
            stack.callback(disk.end)
            stack.enter_context(block.mounted(self._file_system, disk.path, self._db))
            # After a failure too, the disk goes on before the unmount, which would wait for it.
            stack.callback(self._end_processes, disk)
            self._service.start()
            for client in self._clients:
                client.start()
            self._wait_for_puts(self._chance.choice((1, 10, 100)))
            time.sleep(self._chance.uniform(0, 1))
            writes, sectors = disk.cut(self._chance.randint(0, 60), self._chance.choice(WRITES),
                                       CUT_SECONDS)
            self._cut_at = time.monotonic()
            for client in self._clients:
                client.check()
                client.kill()
            self._service.check(self._report)
            # It ends when the disk goes on. Nobody gets its answers any more.
            self._service.process.kill()
            images = self._take_images(disk, sectors)
        (self._images / "current").unlink()
        self._book.read(time.monotonic_ns())
        self.counts["cuts"] += 1
        self.counts["unflushed writes"] += writes
        self.counts["unflushed sectors"] += sectors
        self.counts["puts in flight"] += sum(bool(record.pending)
                                             for record in self._book.records.values()
                                             if not record.expires)
        return images

    def _end_processes(self, disk):
        for client in self._clients:
            if client.is_running():
                client.kill()
        if self._service.is_running():
            self._service.process.kill()
        disk.thaw()
        self._end_service()

    def _wait_for_puts(self, count):
        """Waits for so many acknowledged puts of each client, on average."""
        deadline = time.monotonic() + BUSY_LIMIT
        wanted = self._book.counts["ack"] + CLIENTS * count
        while self._book.counts["ack"] < wanted:
            for client in self._clients:
                client.check()
            self._service.check(self._report)
            if time.monotonic() > deadline:
                raise RuntimeError("the clients do not put within %d s" % BUSY_LIMIT)
            time.sleep(0.005)
            self._book.read(time.monotonic_ns())

    def _take_images(self, disk, sectors):
        images = []
        for kind in KINDS:
            kept = disk.image(kind, self._chance.getrandbits(60), self._images / kind)
            if kind != "none" and kept == 0 or kind in ("writes", "sectors") and kept == sectors:
                (self._images / kind).unlink()  # the same as another image
            else:
                images.append((kind, kept))
        self._chance.shuffle(images)
        return images

    # After the cut.

    def _check(self, kind, is_last):
        def report(text):
            self._report("%s, cut %d, %s: %s" % (self._file_system.name, self._round, kind, text))
        image = self._images / kind
        self.counts["images"] += 1
        time.sleep(max(0, self._cut_at + EXPIRY - time.monotonic()))
        try:
            with contextlib.ExitStack() as stack:
                stack.enter_context(block.mounted(self._file_system, image, self._db))
                stack.callback(self._end_service)
                self._check_store(report, is_last)
            block.check_image(self._file_system, image)
        except block.Failed as failure:
            report(str(failure))

    def _end_service(self):
        if self._service.process is not None:
            self._service.kill()

    def _check_store(self, report, is_last):
        directory = audit.Directory(self._service.store)
        if not directory.store.is_dir():
            report("there is no store")
            return
        half_written = self._check_states(directory, report)
        self._service.start()
        self._service.check_left(report)
        wire = Wire(self._service.endpoint, LIMIT)
        try:
            self.counts["records read"] += audit.check_all(wire, self._book, report, half_written)
            self._put_again(wire, report, is_last)
        finally:
            wire.close()
        self._service.check(report)
        text = self._service.stop()
        if text:
            report(text)
        known = [*self._book.records, HOT, *self._names_to_put()]
        for name in directory.strangers(known):
            report("the store has the file \"%s\"" % name)

    def _check_states(self, directory, report):
        """Checks the files before a daemon starts. Returns the records whose document the cut left
        half-written."""
        half_written = set()
        for name, record in sorted(self._book.records.items()):
            if record.expires:
                continue
            has_document, priority = directory.has_document(name), directory.priority(name)
            try:
                payload = directory.read(name)
            except audit.Spoilt as failure:
                report("in the files: %s" % failure)
                continue
            if not record.stored and not record.pending:
                continue  # only another image of this cut has it, by a put after the cut
            if record.pending:
                state, may_be = state_of(record, has_document, priority, payload)
                self.states[state] += 1
                if not may_be:
                    report("in the files: %s: %s" % (name, state))
                elif has_document and priority is None:
                    half_written.add(name)
                continue
            problem = audit.judge(name, payload, [record.stored], False)
            if problem is None and priority != record.stored[0]:
                problem = "%s: the metadata has priority %s instead of %d" % (name, priority,
                                                                              record.stored[0])
            if problem:
                report("in the files: %s" % problem)
        return half_written

    def _names_to_put(self):
        return ["check/c%d" % (self._round % 3)]

    def _put_again(self, wire, report, is_last):
        """Puts each record that was in flight, and another one."""
        names = self._names_to_put() + [name for name, record in self._book.records.items()
                                        if record.pending and not record.expires]
        for name in names:
            record = self._book.record(name)
            version = record.last + 1, PUT_BYTES
            status = wire.put(name, version[0], payload_of(name, *version))
            if status != giop.DiscoveryStatus.DS_SUCCESS:
                report("%s: a put after the cut is answered with status %s" % (name, status))
                continue
            try:
                problem = audit.judge(name, wire.read(name), [version], False)
            except audit.Spoilt as failure:
                problem = str(failure)
            if problem:
                report("after a put: %s" % problem)
            self.counts["puts after a cut"] += 1
            if is_last:
                record.put(version, 0)
                record.ack(version[0])

    def _go_on(self, kind):
        os.replace(self._images / kind, self._base)
        for other in KINDS:
            (self._images / other).unlink(missing_ok=True)
        self._worker_orders["small"] += MORE_RECORDS
        # Numbers with more digits make longer documents.
        for record in self._book.records.values():
            if record.last < MOST_GENERATION and self._chance.random() < 0.25:
                record.last = max(record.last, 10 ** len(str(record.last)) - 3)


def play(options, file_system, directory, seed, cuts, report, say, lost_syncs=None):
    """Returns the figures; None if the play broke off."""
    directory.mkdir()
    try:
        return PowerCuts(options.programs, directory, file_system, seed, report, say,
                         lost_syncs).run(cuts)
    except Exception as failure:  # pylint: disable=broad-except
        traceback.print_exc()
        report("the play on %s broke off: %r" % (file_system.name, failure))
        return None
