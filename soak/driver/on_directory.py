"""The soak of one store directory that several processes share, without a daemon."""

import json
import random
import subprocess
import time

import audit
from clients import EXPIRY, LIMIT, Client, let_work
from ledger import Book, Worker
from samples import latency_figures

PROCESSES = 4
THREADS = 4
# A killed process leaves the temporary payloads of its threads. Only a process that starts while no other
# one writes removes them, and the store has 1,000 names for them. So all processes are killed at once
# before the names run out.
KILLS_OF_ONE = 15
CHECK_LIMIT = 120


class DirectorySoak:
    def __init__(self, programs, work, seconds, seed, report, say):
        self._chance = random.Random(seed)
        self._program = programs / "soak_client"
        self._seconds = seconds
        self._report = report
        self._say = say
        self._store = work / "store"
        ledgers = work / "store-ledgers"
        ledgers.mkdir()
        workers = [Worker(number, "s%d" % number) for number in range(PROCESSES * THREADS)]
        self._book = Book(workers, report)
        orders = {"store": str(self._store),
                  "worker": {"small": 20, "big": 1, "expiring": 5, "pause": 1000, "limit": LIMIT}}
        self._clients = [Client(self._program, orders, workers[i * THREADS:(i + 1) * THREADS],
                                self._book, ledgers, self._chance.getrandbits(60))
                         for i in range(PROCESSES)]
        self.kills = 0

    def run(self):
        try:
            let_work(self._clients, self._drive, self._problem)
            time.sleep(EXPIRY)
            self._book.read(time.monotonic_ns())
        finally:
            for client in self._clients:
                client.end()
        self._finish()
        return {"seconds": self._seconds, "processes": PROCESSES, "threads": THREADS,
                "processes killed": self.kills, **self._book.figures(),
                "latencies": latency_figures(self._book)}

    def _problem(self, text):
        self._report("directory: " + text)

    def _drive(self):
        begin = time.monotonic()
        kill_at = 0.5
        kills = 0
        while (now := time.monotonic() - begin) < self._seconds:
            self._book.read(time.monotonic_ns())
            self._book.check_silence(time.monotonic_ns())
            for client in self._clients:
                client.check()
            if now >= kill_at:
                if (kills := kills + 1) % KILLS_OF_ONE:
                    self._kill_one()
                else:
                    self._kill_all()
                kill_at = now + self._chance.uniform(0.2, 1.0)
            time.sleep(0.05)

    def _kill_one(self):
        client = self._chance.choice(self._clients)
        client.kill()
        self.kills += 1
        client.start()

    def _kill_all(self):
        """The first process that starts again must remove all temporary payloads."""
        for client in self._clients:
            client.kill()
            self.kills += 1
        first, *others = self._clients
        first.start()
        first.wait_for_ledgers()
        check_left(self._store, self._problem)
        for client in others:
            client.start()

    def _finish(self):
        self._say("checking all records of the directory with a fresh process")
        fresh = _Fresh(self._program, self._store, [*self._book.records, audit.HOT])
        audit.check_all(fresh, self._book, self._problem)
        audit.check_files(audit.Directory(self._store), self._book, self._problem)
        self._book.judge_losses(lambda _: False)


def check_left(store, report):
    """The only process that works has at most one temporary payload for each thread."""
    left = sum(1 for _ in store.glob("*.updating"))
    if left > THREADS:
        report("a start without other processes leaves %d temporary payloads" % left)


class _Fresh:
    """What a fresh process finds. Its start also cleans the store up."""

    def __init__(self, program, store, names):
        orders = json.dumps({"store": str(store), "check": names})
        done = subprocess.run([program], input=orders, capture_output=True, text=True,
                              timeout=CHECK_LIMIT, check=True)
        answer = json.loads(done.stdout)
        self._versions = answer["versions"]
        self._names = answer["names"]

    def read(self, name):
        found = self._versions[name]
        if found == "spoilt":
            raise audit.Spoilt("%s: spoilt" % name)
        return tuple(found) if found else None

    def names(self):
        return self._names
