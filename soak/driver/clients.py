"""The client processes. Each has workers, which soak/Worker.h describes."""

import json
import random
import signal
import subprocess
import time

LIMIT = 20       # seconds for an answer, or for an operation on a directory
EXPIRY = 3       # seconds; after this every expiring record is gone
STOP_LIMIT = 60
# With this prefix, a process ends with the driver, even if the driver is killed.
LEASH = ("setpriv", "--pdeathsig", "KILL")


class Client:
    """One process at a time. After a kill the next one takes its place."""

    def __init__(self, program, orders, workers, book, directory, seed):
        self._program = program
        self._orders = orders
        self.workers = workers
        self._book = book
        self._directory = directory
        self._random = random.Random(seed)
        self._lives = 0
        self.process = None
        self._ledgers = []

    def start(self):
        states = []
        self._ledgers = []
        for worker in self.workers:
            ledger = self._directory / ("%s.%d" % (worker.authority, self._lives))
            states.append({**self._orders["worker"], **self._book.state_of(worker),
                           "ledger": str(ledger), "seed": self._random.getrandbits(60)})
            worker.begin(ledger, time.monotonic_ns())
            self._ledgers.append(ledger)
        self._lives += 1
        orders = {key: value for key, value in self._orders.items() if key != "worker"}
        with open(self._directory / "stderr", "ab") as output:
            self.process = subprocess.Popen([*LEASH, self._program], stdin=subprocess.PIPE,
                                            stdout=output, stderr=output)
        self.process.stdin.write(json.dumps({**orders, "workers": states}).encode())
        self.process.stdin.close()

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def kill(self):
        """Returns what each worker left open: one of the letters of soak/Phase.h."""
        self.process.kill()
        return self._reap()

    def _reap(self):
        self.process.wait(STOP_LIMIT)
        now = time.monotonic_ns()
        return [self._book.died(worker, now) for worker in self.workers]

    def wait_for_ledgers(self):
        """Waits until the process has begun its ledgers, and so has opened its target."""
        limit = time.monotonic() + STOP_LIMIT
        while (self.is_running() and not all(ledger.exists() for ledger in self._ledgers) and
               time.monotonic() < limit):
            time.sleep(0.01)

    def ask_to_stop(self):
        """Asks when the process has begun its ledgers. Before that the signal would end it at once."""
        self.wait_for_ledgers()
        self.process.send_signal(signal.SIGTERM)

    def wait(self):
        """Waits for an orderly end. Returns what went wrong, or None."""
        try:
            self.process.wait(STOP_LIMIT)
        except subprocess.TimeoutExpired:
            self.kill()
            return "a client does not stop within %d s" % STOP_LIMIT
        self._reap()
        if self.process.returncode or not all(worker.ended for worker in self.workers):
            return "a client ended with %d" % self.process.returncode
        return None

    def check(self):
        """Fails if the process has ended by itself."""
        if self.process.poll() is not None:
            raise RuntimeError("a client ended by itself with %d" % self.process.returncode)

    def end(self):
        """The book must have read all ledgers: it would read them again from the beginning."""
        if self.is_running():
            self.process.kill()
            self.process.wait(STOP_LIMIT)
        for worker in self.workers:
            worker.close()


def let_work(clients, drive, report):
    """Starts the clients, calls drive() while they work, and stops them in order."""
    for client in clients:
        client.start()
    drive()
    for client in clients:
        client.ask_to_stop()
    for client in clients:
        problem = client.wait()
        if problem:
            report(problem)
