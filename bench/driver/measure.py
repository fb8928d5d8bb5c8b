"""What is measured, and how. A cell is one operation under one condition: for every target, the
rates of all repeats. The targets take turns within each repeat, so they see the same machine."""

import os
import random
import statistics

KIB = 1024
MIB = 1024 * KIB
CLIENTS = (1, 8, 32)
SMALL = KIB
SIZES = (64 * KIB, 16 * MIB)
SIZED_RECORDS = {64 * KIB: 100, 16 * MIB: 8}
PUT_RECORDS = {64 * KIB: 4, 16 * MIB: 1}  # of each client
LARGEST = {"etcd": MIB, "gateway": MIB}  # the largest value that a peer takes

RECORDS = "bench"
NEW = "new"
NEW_RECORDS = 1_000_000  # more than a client puts in one measurement

# Listings beside puts show how the memory grows.
LISTING_CLIENTS = 3
PUTTING_CLIENTS = 4
BESIDE_SECONDS = 20


def size_name(size):
    return "%d MiB" % (size // MIB) if size >= MIB else "%d KiB" % (size // KIB)


class Cell:
    """The figures of one operation under one condition."""

    def __init__(self, operation, records, clients, size=None):
        self.operation = operation
        self.records = records
        self.clients = clients
        self.size = size
        self.rates = {}      # target: operations a second of each repeat
        self.latencies = {}  # target: microseconds of every operation

    def add(self, target, answers):
        self.rates.setdefault(target, []).append(
            sum(each["operations"] / each["seconds"] for each in answers))
        self.latencies.setdefault(target, []).extend(
            value for each in answers for value in each["latencies"])

    def median(self, target):
        """Operations a second; None if the target was not measured."""
        rates = self.rates.get(target)
        return statistics.median(rates) if rates else None

    def ratio(self, target):
        """How much of the target's rate the service reaches; None without the target."""
        other = self.median(target)
        return self.median("service") / other if other else None

    def to_json(self):
        result = {"operation": self.operation, "records": self.records, "clients": self.clients,
                  "size": self.size, "targets": {}}
        for target, rates in self.rates.items():
            ordered = sorted(self.latencies[target])
            result["targets"][target] = {
                "perSecond": {"median": statistics.median(rates), "min": min(rates),
                              "max": max(rates), "all": rates},
                "milliseconds": {name: ordered[int(share * (len(ordered) - 1))] / 1000
                                 for name, share in (("p50", 0.5), ("p99", 0.99), ("max", 1))}}
        return result


class Bench:
    """The measured servers and their clients, with one number of records in the store."""

    def __init__(self, service, floors, peers, clients, peer_clients, plan, say):
        self.service = service
        self.floors = floors
        self.peers = peers
        self._clients = clients
        self._peer_clients = peer_clients
        self._plan = plan
        self._say = say
        self._new = 0
        self.records = 0
        self.cells = []

    def _kept(self):
        """The peers with data of their own."""
        return [peer for peer in self.peers if hasattr(peer, "fill")]

    def fill(self, records):
        """Fills every store up to so many small records, and starts what serves them."""
        self._say("%d records" % records)
        self.service.stop()
        self.service.fill(RECORDS, SMALL, self.records, records)
        for peer in self._kept():
            peer.begin_filling()
            peer.fill(RECORDS, SMALL, self.records, records)
            peer.end_filling()
        self._settle()
        self.service.start()
        self.records = records

    def fill_sized(self):
        """Adds the large records to every store."""
        self.service.stop()
        for peer in self._kept():
            peer.begin_filling()
            peer.add_unit(NEW)
        for size in SIZES:
            self.service.fill(self._authority(size), size, 0, SIZED_RECORDS[size])
            for peer in self._kept():
                peer.add_unit(self._written(size))
                if size <= LARGEST.get(peer.name, size):
                    peer.fill(self._authority(size), size, 0, SIZED_RECORDS[size])
        for peer in self._kept():
            peer.end_filling()
        self._settle()
        self.service.start()

    @staticmethod
    def _settle():
        """Writes the filling to the disk now, and not during a measurement."""
        os.sync()

    @staticmethod
    def _authority(size):
        return RECORDS if size == SMALL else "sized%d" % size

    @staticmethod
    def _written(size):
        return RECORDS if size == SMALL else "written%d" % size

    def run(self, target, operation, clients, command):
        """Lets the clients work on one target. command(i) is the command of client i."""
        pool = self._peer_clients if target in self.peers else self._clients
        return pool.run([{"seconds": self._plan.seconds, **target.command(),
                          "operation": "%s.%s" % (target.name, operation), **command(i)}
                         for i in range(clients)])

    def _cell(self, name, operation, clients, command, size=None, floors=(), before=None):
        cell = Cell(name, self.records, clients, size)
        self.cells.append(cell)
        targets = [self.service, *(f for f in self.floors if f.name in floors), *self.peers]
        targets = [t for t in targets if (size or 0) <= LARGEST.get(t.name, size or 0)]
        for repeat in range(self._plan.repeats):
            # Each repeat has another order, so no target always follows the same one.
            for target in random.Random(repeat).sample(targets, len(targets)):
                if before:
                    before()
                cell.add(target.name, self.run(target, operation, clients, command))
        self._say("  %-24s %2d clients: %s" % (name, clients, "  ".join(
            "%s %.4g" % (t.name, cell.median(t.name)) for t in targets)))
        return cell

    def read(self, clients, size):
        count = self.records if size == SMALL else SIZED_RECORDS[size]
        self._cell("read " + size_name(size), "read", clients, lambda i: {
            "authority": self._authority(size), "size": size, "count": count, "seed": i + 1},
            size, ("echo", "object"))

    def list_all(self, clients):
        self._cell("list all", "list", clients, lambda _: {
            "authority": RECORDS, "pattern": "*", "count": self.records}, floors=("echo",))

    def list_part(self, clients):
        self._cell("list 1 %", "list", clients, lambda _: {
            "authority": RECORDS, "pattern": "c42-*", "count": self.records // 100},
            floors=("echo",))

    def put(self, clients, size):
        """Replaces records. No two clients write the same one."""
        each = PUT_RECORDS.get(size) or self.records // clients
        # Small records are in the store already. Large ones come with the first round.
        self._cell("put " + size_name(size), "put", clients, lambda i: {
            "authority": self._written(size), "size": size, "count": each,
            "first": i if size == SMALL else i * each, "step": clients if size == SMALL else 1},
            size, ("echo", "files"))

    def put_new(self, clients, size):
        """Puts records that are not in the store yet."""
        def before():
            self._new += NEW_RECORDS
        self._cell("put new " + size_name(size), "put", clients, lambda i: {
            "authority": NEW, "size": size, "count": NEW_RECORDS, "first": self._new + i,
            "step": clients, "new": True}, size, ("echo", "files"), before)

    def listings_beside_puts(self):
        """Lists the first records again and again while others put: then the listings walk over the
        directory again and again. Returns the resident bytes before and after, and how many
        records there are at the end. The service remembers those that were listed."""
        common = {"seconds": BESIDE_SECONDS * self._plan.seconds, **self.service.command()}
        self._new += NEW_RECORDS
        lists = [{**common, "operation": "service.list", "authority": RECORDS, "pattern": "*",
                  "count": self.records} for _ in range(LISTING_CLIENTS)]
        puts = [{**common, "operation": "service.put", "authority": NEW, "size": SMALL,
                 "count": NEW_RECORDS, "first": self._new + i, "step": PUTTING_CLIENTS, "new": True}
                for i in range(PUTTING_CLIENTS)]
        process = self.service.process
        before = process.resident_bytes()
        answers = self._clients.run(lists + puts)
        stored = sum(name.endswith(".xml") for name in os.listdir(self.service.store))
        result = {"records": stored, "listed": self.records, "residentBefore": before,
                  "residentAfter": process.resident_bytes(),
                  "listings": sum(a["operations"] for a in answers[:LISTING_CLIENTS]),
                  "puts": sum(a["operations"] for a in answers[LISTING_CLIENTS:])}
        self._say("  %d listings beside %d puts: resident %.1f MiB before, %.1f after" % (
            result["listings"], result["puts"], before / MIB, result["residentAfter"] / MIB))
        return result

    def first_listings(self):
        """Lists everything with a service that has just started, and again. For each repeat: the
        resident bytes before and after, and seconds and processor seconds of both listings."""
        results = []
        for _ in range(self._plan.repeats):
            self.service.stop()
            self.service.start()
            process = self.service.process
            result = {"residentBefore": process.resident_bytes()}
            for name in ("first", "second"):
                used = process.processor_seconds()
                answer, = self.run(self.service, "list", 1, lambda _: {
                    "authority": RECORDS, "pattern": "*", "count": self.records, "seconds": 0,
                    "warm": 0})
                result[name] = {"seconds": answer["seconds"],
                                "processorSeconds": process.processor_seconds() - used}
            result["residentAfter"] = process.resident_bytes()
            results.append(result)
        self._say("  first listing %.3f s, second %.3f s" % tuple(
            statistics.median(r[name]["seconds"] for r in results)
            for name in ("first", "second")))
        return {"records": self.records, "repeats": results}


def start_seconds(service, repeats):
    """The seconds of each start."""
    result = []
    for _ in range(repeats):
        service.stop()
        result.append(service.start())
    service.stop()
    return result
