"""The processes that are measured. Each has its own directory and a port of its own on loopback."""

import json
import os
import pathlib
import signal
import subprocess
import time

from clients import read_line

START_LIMIT = 120
STOP_LIMIT = 60
FILL_LIMIT = 1800


def wait_for(condition, what, limit=START_LIMIT, pause=0.001):
    """Waits until condition() is true and returns its value."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise RuntimeError("%s: not within %d s" % (what, limit))
        time.sleep(pause)


class Process:
    """A server's process. Its messages go to a file, and a failure shows them."""

    def __init__(self, command, log, **options):
        self._log = pathlib.Path(log)
        with open(log, "wb") as file:
            self._process = subprocess.Popen(list(map(str, command)), stderr=file,
                                             **{"stdin": subprocess.DEVNULL, "stdout": file,
                                                **options})

    @property
    def pid(self):
        return self._process.pid

    @property
    def popen(self):
        return self._process

    def check(self):
        """Fails if the process has ended."""
        if self._process.poll() is not None:
            raise RuntimeError("%s ended with %d:\n%s"
                               % (self._process.args[0], self._process.returncode,
                                  self._log.read_text(errors="replace")[-3000:]))

    def stop(self):
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
        try:
            self._process.wait(STOP_LIMIT)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait(STOP_LIMIT)

    def resident_bytes(self):
        for line in pathlib.Path("/proc/%d/status" % self.pid).read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
        raise RuntimeError("no resident memory in /proc")

    def processor_seconds(self):
        """What the running threads have used. A thread that ends takes its share with it."""
        total = 0
        for task in os.listdir("/proc/%d/task" % self.pid):
            try:
                with open("/proc/%d/task/%s/schedstat" % (self.pid, task), encoding="ascii") as file:
                    total += int(file.read().split()[0])
            except FileNotFoundError:
                pass
        return total / 1e9


class Service:
    """The daemon as its users have it: the default log level, a real log file, one store."""

    name = "service"

    def __init__(self, programs, directory):
        self._programs = programs
        self._root = pathlib.Path(directory)
        self.store = self._root / "db" / "discovery"
        self._process = None
        (self._root / "etc").mkdir(parents=True)
        (self._root / "etc" / "qm.conf").write_text(
            "LISTEN = 127.0.0.1:0\nCLIENT_NAME = localhost\nSERVER = localhost\n")
        self.store.mkdir(parents=True, mode=0o755)

    def fill(self, authority, size, start, end):
        """Writes the records while no service runs."""
        subprocess.run([self._programs / "bench_fill", self.store, authority, str(size),
                        str(start), str(end)], check=True, timeout=FILL_LIMIT,
                       stdin=subprocess.DEVNULL)

    def start(self):
        """Starts the daemon. Returns the seconds until it serves."""
        status = self._root / "run" / "status.json"
        status.unlink(missing_ok=True)
        begin = time.monotonic()
        self._process = Process([self._programs / "qmdisco", "--foreground", "--root", self._root],
                                self._root / "stderr")

        def endpoint():
            self._process.check()
            try:
                document = json.loads(status.read_text())
            except FileNotFoundError:
                return None
            return document["state"] == "running" and document["endpoint"]
        self.endpoint = wait_for(endpoint, "the service is up")
        return time.monotonic() - begin

    @property
    def process(self):
        return self._process

    def command(self):
        return {"endpoint": self.endpoint}

    def stop(self):
        if self._process:
            self._process.stop()
        self._process = None

    def log_bytes(self):
        return sum(f.stat().st_size for f in (self._root / "logs").glob("*") if f.is_file())


class Echo:
    """The floor of the wire."""

    name = "echo"

    def __init__(self, programs, directory):
        pathlib.Path(directory).mkdir()
        self._process = Process([programs / "bench_echo"], pathlib.Path(directory) / "stderr",
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self._endpoint = read_line(self._process.popen, START_LIMIT)
        self._process.check()

    def command(self):
        return {"endpoint": self._endpoint}

    def stop(self):
        self._process.stop()


class Objects:
    """The floor of a read: the same calls, with an object for each read."""

    name = "object"

    def __init__(self, echo):
        self.command = echo.command

    def stop(self):
        pass


class Files:
    """The floor of a durable put."""

    name = "files"

    def __init__(self, directory):
        self._directory = pathlib.Path(directory)
        self._directory.mkdir()

    def command(self):
        return {"directory": str(self._directory)}

    def stop(self):
        pass
