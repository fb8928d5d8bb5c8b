"""The daemon under test: one master with a root of its own, on a free port of loopback."""

import collections
import json
import os
import pathlib
import signal
import subprocess
import time

from clients import LEASH

START_LIMIT = 60
STOP_LIMIT = 90


class Log:
    """Counts the bytes that are ever written to the files of a directory, even if they rotate."""

    def __init__(self, directory):
        self._directory = pathlib.Path(directory)
        self._sizes = {}

    def written(self):
        for entry in os.scandir(self._directory) if self._directory.is_dir() else ():
            try:
                status = entry.stat()
            except FileNotFoundError:
                continue
            # A new file can get the inode number of a removed one. It is smaller than that one was.
            known = self._sizes.setdefault(status.st_ino, [0, 0])
            if status.st_size < known[1]:
                known[0] += known[1]
            known[1] = status.st_size
        return sum(before + size for before, size in self._sizes.values())


Files = collections.namedtuple("Files", "updating records others")


class Service:
    """Each start is a new process. `outages` has the times, in nanoseconds, when it was not up."""

    MARGIN = 5_000_000_000  # nanoseconds; a client may notice an outage so long after its end

    def __init__(self, programs, root, environment=None):
        self._programs = programs
        self._environment = {**os.environ, **(environment or {})}
        self.root = pathlib.Path(root)
        self.store = self.root / "db" / "discovery"
        self.endpoint_file = self.root / "endpoint"
        self.log = Log(self.root / "logs")
        self.outages = []
        self.starts = 0
        self.process = None
        (self.root / "etc").mkdir(parents=True)
        (self.root / "etc" / "qm.conf").write_text(
            "LISTEN = 127.0.0.1:0\nCLIENT_NAME = localhost\nSERVER = localhost\n"
            "MAX_WRITERS_PER_PEER = 1000\n",  # killed workers leave writers, all from one address
            encoding="utf-8")

    def start(self):
        if not self.outages:
            self.outages.append([time.monotonic_ns(), None])
        with open(self.root / "stderr", "ab") as output:
            self.process = subprocess.Popen(
                [*LEASH, self._programs / "qmdisco", "--foreground", "--root", self.root],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, env=self._environment)
        deadline = time.monotonic() + START_LIMIT
        while True:
            status = self.status()
            if status.get("pid") == self.process.pid and status.get("state") == "running":
                break
            if self.process.poll() is not None:
                raise RuntimeError("the daemon ended at its start with %d"
                                   % self.process.returncode)
            if time.monotonic() > deadline:
                raise RuntimeError("the daemon is not up within %d s" % START_LIMIT)
            time.sleep(0.02)
        self.endpoint = status["endpoint"]
        new = self.endpoint_file.with_suffix(".new")
        new.write_text(self.endpoint + "\n", encoding="utf-8")
        new.rename(self.endpoint_file)
        self.starts += 1
        self.outages[-1][1] = time.monotonic_ns()

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def check(self, report):
        """The daemon must run, and count no failed assertion."""
        if not self.is_running():
            raise RuntimeError("the daemon ended by itself with %d" % self.process.returncode)
        self.check_status(report)

    def check_status(self, report):
        assertions = self.status().get("assertions")
        if assertions != 0:
            report("the daemon counts %s failed assertions" % assertions)

    def kill(self):
        """Ends the daemon as a crash does."""
        self.outages.append([time.monotonic_ns(), None])
        self.process.kill()
        self.process.wait(STOP_LIMIT)

    def stop(self):
        """Stops the daemon in order. Returns what went wrong, or None."""
        self.outages.append([time.monotonic_ns(), None])
        self.process.send_signal(signal.SIGTERM)
        try:
            code = self.process.wait(STOP_LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait(STOP_LIMIT)
            return "the daemon does not stop within %d s" % STOP_LIMIT
        return "the daemon stopped with exit code %d" % code if code else None

    def read_configuration(self):
        self.process.send_signal(signal.SIGHUP)

    def was_out(self, moment):
        return any(begin <= moment and (end is None or moment <= end + self.MARGIN)
                   for begin, end in self.outages)

    def status(self):
        try:
            return json.loads((self.root / "run" / "status.json").read_text(encoding="utf-8"))
        except (FileNotFoundError, ValueError):
            return {}

    def check_left(self, report):
        """A start without clients leaves no temporary file."""
        left = self.temporary_files()
        if left:
            report("a start without clients leaves %d temporary files" % left)

    def descriptors(self):
        updating = records = others = 0
        directory = "/proc/%d/fd" % self.process.pid
        for name in os.listdir(directory):
            try:
                target = os.readlink("%s/%s" % (directory, name))
            except FileNotFoundError:
                continue
            # The kernel appends this to the name of a removed file.
            target = target.removesuffix(" (deleted)")
            updating += target.endswith(".updating")
            records += target.endswith((".xml", ".dat"))
            others += not target.endswith((".updating", ".xml", ".dat"))
        return Files(updating, records, others)

    def memory_and_threads(self):
        """(bytes, threads)"""
        values = {}
        with open("/proc/%d/status" % self.process.pid, encoding="ascii", errors="replace") as file:
            for line in file:
                key, _, value = line.partition(":")
                values[key] = value.split()
        return int(values["VmRSS"][0]) * 1024, int(values["Threads"][0])

    def temporary_files(self):
        return sum(name.endswith(".updating") for name in os.listdir(self.store))
