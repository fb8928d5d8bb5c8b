"""The daemon under attack, and the checks after each batch. A failed check raises Finding."""

import contextlib
import os
import re
import time
from typing import NamedTuple

import harness
from giop import ConnectionLost, GiopError, SystemException
from records import SUCCESS, get, put
from record import KEPT

# This peer controls the daemon. The spoilt conversations come from other addresses.
HONEST = "127.0.0.1"
CONFIG = {
    "ALLOW.control": HONEST,
    "LOG_LEVEL": 1, "LOG_BURST": 20,
    # What a spoilt conversation leaves behind goes soon.
    "WRITER_IDLE_LIMIT": 5, "REQUEST_TIMEOUT": 2,
}
# What a program prints when it meets a defect.
REPORT = re.compile(rb"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|SUMMARY: \w+Sanitizer|runtime error:|"
                    rb"\w+Sanitizer:DEADLYSIGNAL|terminate called|pure virtual method|: Assertion ")


class Bounds(NamedTuple):
    """Seconds for an answer to an honest client and for an orderly stop, bytes of resident memory, and
    descriptors beside those of open iterators, writers and connections."""

    prompt: float
    stop: float
    memory: int
    descriptors: int


def bounds_of(preset):
    # A sanitizer makes the daemon slower, and keeps freed memory for a while.
    if preset in ("asan-ubsan", "tsan"):
        return Bounds(20, 60, 1536 << 20, 200)
    return Bounds(5, 20, 512 << 20, 200)


class Finding(Exception):
    """A check failed."""


class Target:
    """One life of the daemon, with a new root."""

    def __init__(self, daemons, path, bounds):
        self.bounds = bounds
        self.longest = 0.0
        self.most_memory = 0
        self.most_descriptors = 0
        self._seen = 0
        self._rounds = 0
        self.root = harness.Root(path, **CONFIG)
        self.daemon = daemons.start(self.root)
        self._honest()

    @property
    def address(self):
        return self.daemon.address

    def check(self):
        """All checks of a running daemon."""
        self._alive()
        self._report()
        self._honest()
        self._assertions()
        self._memory()
        self._descriptors()
        self._report()

    def stop(self):
        """Stops the daemon in order. Its exit code is 0, and it reports no leak."""
        self._alive()
        self.daemon.send(15)
        try:
            code = self.daemon.wait(self.bounds.stop)
        except AssertionError as failure:
            raise Finding(str(failure)) from None
        self._report()
        if code != 0:
            raise Finding("the stopped daemon ended with exit code %d" % code)

    def _alive(self):
        if not self.daemon.is_running():
            self._report()
            raise Finding("the daemon ended by itself with %d" % self.daemon.process.returncode)

    def _report(self):
        with open(self.root.path / "stderr", "rb") as file:
            # The last bytes again, because they may be half of a report.
            file.seek(max(0, self._seen - 200))
            text = file.read()
            self._seen = file.tell()
        found = REPORT.search(text)
        if found:
            line = text[found.start():].split(b"\n")[0]
            raise Finding("the daemon printed: %s" % line.decode("utf-8", "replace"))

    def _honest(self):
        """A new client stores and reads a record, and renews the one that the conversations read."""
        self._rounds += 1
        data = b"%d" % self._rounds
        begin = time.monotonic()
        service = self.daemon.client(timeout=self.bounds.prompt, source=HONEST)
        try:
            if put(service, "honest", "client", data) != SUCCESS:
                raise Finding("the honest client's put failed")
            if get(service, "honest", "client") != data:
                raise Finding("the honest client read another record than it stored")
            taken = time.monotonic() - begin
            with contextlib.suppress(AssertionError):  # A spoilt put may have a higher priority.
                put(service, *KEPT, b"what the conversations read")
        except (AssertionError, ConnectionLost, GiopError, SystemException, OSError) as failure:
            self._alive()
            raise Finding("the honest client: %s: %s" % (type(failure).__name__, failure)) from None
        finally:
            service.orb.close()
        self.longest = max(self.longest, taken)
        if taken > self.bounds.prompt:
            raise Finding("the honest client waited %.1f s" % taken)

    def _assertions(self):
        status = self.root.status()
        failed = status.get("assertions", 0) + status.get("counters", {}).get("failedAssertions", 0)
        if failed:
            raise Finding("the daemon counts %d failed assertions" % failed)

    def _memory(self):
        with open("/proc/%d/statm" % self.daemon.pid, encoding="ascii") as file:
            used = int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
        self.most_memory = max(self.most_memory, used)
        if used > self.bounds.memory:
            raise Finding("the daemon uses %d MiB of memory" % (used >> 20))

    def _descriptors(self):
        def excess():
            used = len(os.listdir("/proc/%d/fd" % self.daemon.pid))
            self.most_descriptors = max(self.most_descriptors, used)
            counters = self.root.status().get("counters", {})
            # A writer may have its file and its lock open.
            return used - (counters.get("iteratorsOpen", 0) + 2 * counters.get("writersOpen", 0) +
                           counters.get("connectionsOpen", 0))

        # The status may be older than the descriptors, and ended connections may still close.
        deadline = time.monotonic() + self.bounds.prompt
        while excess() > self.bounds.descriptors:
            if time.monotonic() > deadline:
                raise Finding("the daemon has %d descriptors too many"
                              % (excess() - self.bounds.descriptors))
            time.sleep(0.2)
