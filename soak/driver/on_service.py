"""The soak of a daemon: clients over the wire, kills, restarts, samples and checks."""

import random
import time

import audit
from clients import EXPIRY, LIMIT, Client, let_work
from ledger import Book, Worker
from samples import Sampler, latency_figures
from service import Service

CLIENTS = 4
MOST_ORPHAN_WRITERS = 500  # the daemon has at most 1000 temporary files
SAMPLED_RECORDS = 4


class Plan:
    """When the daemon is restarted, and how. The times are seconds after the start."""

    def __init__(self, seconds, chance):
        self.seconds = seconds
        self.interval = 1 if seconds <= 300 else 3
        self.warm_up = min(60, seconds / 12)
        if seconds <= 300:
            self.restarts = [(0.3 * seconds, "kill"), (0.55 * seconds, "stop")]
            return
        # First many short lives, then one that is as long as possible.
        self.restarts = []
        at = 0.0
        while True:
            at += chance.uniform(30, 90)
            if at > seconds / 3:
                break
            self.restarts.append((at, "stop" if len(self.restarts) % 3 == 1 else "kill"))


class ServiceSoak:
    def __init__(self, programs, work, results, seconds, seed, report, say):
        self._chance = random.Random(seed)
        self._plan = Plan(seconds, self._chance)
        self._report = report
        self._say = say
        self._service = Service(programs, work / "root")
        ledgers = work / "ledgers"
        ledgers.mkdir()
        workers = [Worker(number, "w%d" % number) for number in range(CLIENTS)]
        self._book = Book(workers, report)
        orders = {"endpointFile": str(self._service.endpoint_file), "limit": LIMIT,
                  "worker": {"small": 100, "big": 2, "expiring": 10, "pause": 500, "limit": LIMIT}}
        self._clients = [Client(programs / "soak_client", orders, [worker], self._book, ledgers,
                                self._chance.getrandbits(60)) for worker in workers]
        self._sampler = Sampler(self._service, self._book, results, report,
                                self._plan.warm_up)
        self._wire = None
        self.counts = {"clients killed": 0, "daemons killed": 0, "daemons stopped": 0,
                       "SIGHUP": 0, "records read by the driver": 0}

    def run(self):
        try:
            self._start_service()
            let_work(self._clients, self._drive, self._report)
            self._finish()
        finally:
            for client in self._clients:
                client.end()
            if self._wire:
                self._wire.close()
            if self._service.is_running():
                self._service.kill()
            self._sampler.close()
        growths = self._sampler.judge()
        self._book.judge_losses(self._service.was_out)
        return self._document(growths)

    def _problem(self, text):
        if text:
            self._report(text)

    def _start_service(self):
        self._service.start()
        if self._wire:
            self._wire.close()
        self._wire = audit.Wire(self._service.endpoint, LIMIT)
        for worker in self._book.workers:
            worker.writers = 0
            worker.iterators = []
            worker.data = []
        self._sampler.new_series()

    def _restart(self, how):
        self._say("%s the daemon" % how)
        if how == "kill":
            self._service.check_status(self._report)
            self._service.kill()
            self.counts["daemons killed"] += 1
        else:
            self._problem(self._service.stop())
            self._service.check_status(self._report)
            self.counts["daemons stopped"] += 1
        # The restart frees what clients abandoned before.
        self._book.read(time.monotonic_ns())
        self._start_service()

    def _drive(self):
        begin = time.monotonic()
        kill_at, hang_up_at, sample_at, audit_at = 1.0, 5.0, self._plan.interval, 3.0
        restarts = list(self._plan.restarts)
        while (now := time.monotonic() - begin) < self._plan.seconds:
            self._book.read(time.monotonic_ns())
            self._service.check(self._report)
            self._book.check_silence(time.monotonic_ns())
            for client in self._clients:
                client.check()
            if now >= kill_at:
                self._kill_client()
                kill_at = now + self._chance.uniform(0.6, 1.4)
            if now >= hang_up_at:
                self._service.read_configuration()
                self.counts["SIGHUP"] += 1
                hang_up_at = now + self._chance.uniform(2, 8)
            if now >= sample_at:
                self._sampler.take(CLIENTS)
                sample_at = now + self._plan.interval
            if now >= audit_at:
                self._audit()
                audit_at = now + 3
            if restarts and now >= restarts[0][0]:
                self._restart(restarts.pop(0)[1])
            elif self._sampler.series.writers_left > MOST_ORPHAN_WRITERS:
                self._restart("stop")
            time.sleep(0.1)

    def _kill_client(self):
        client = self._chance.choice(self._clients)
        for left in client.kill():
            self._sampler.series.leave(left)
        self.counts["clients killed"] += 1
        client.start()

    def _audit(self):
        names = [name for name, record in self._book.records.items() if not record.expires]
        for name in self._chance.sample(names, min(SAMPLED_RECORDS, len(names))):
            begin = time.monotonic()
            self._problem(audit.sample(self._wire, self._book, name))
            self.counts["records read by the driver"] += 1
            if time.monotonic() - begin > LIMIT:
                self._report("late: a read of the driver took %.0f s" % (time.monotonic() - begin))

    def _check_wire(self, when):
        def report(text):
            self._report("%s: %s" % (when, text))
        self.counts["records read by the driver"] += audit.check_all(self._wire, self._book, report)
        self._service.check_status(self._report)

    def _finish(self):
        """Checks every record: now, after a crash, and in the files after an orderly stop."""
        time.sleep(EXPIRY)
        self._book.read(time.monotonic_ns())
        self._say("checking all records over the wire")
        self._check_wire("at the end")
        self._restart("kill")
        self._service.check_left(self._report)
        self._say("checking all records again after a crash of the daemon")
        self._check_wire("after the last restart")
        self._problem(self._service.stop())
        self._service.check_status(self._report)
        self._say("checking all files")

        def report(text):
            self._report("in the files: " + text)
        self.counts["records read in their files"] = audit.check_files(
            audit.Directory(self._service.store), self._book, report)

    def _document(self, growths):
        return {"seconds": self._plan.seconds, "clients": CLIENTS, **self._book.figures(),
                "lost calls in outages": len(self._book.losses),
                "log bytes": self._service.log.written(), **self.counts,
                "latencies": latency_figures(self._book), "growth": growths, "highest": self._sampler.highest}
