"""Product roots, running daemons and their logs."""

import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import time
from typing import NamedTuple

from giop import DiscoveryService, Orb
from pki import Files

TOP = pathlib.Path(__file__).resolve().parents[2]

# Limits in seconds. An instrumented program on a busy machine needs less, so longer means a hang.
START_LIMIT = 60
STOP_LIMIT = 60
CALL_LIMIT = 60
# Seconds after which a log that has not changed is complete.
SETTLED = 0.1

# The originators in log lines.
SERVICE = 400
PLATFORM = 1


def program(name="qmdisco"):
    build = os.environ.get("QM_BUILD_DIR", TOP / "build" / "dev")
    return pathlib.Path(build) / "bin" / name


def wait_for(condition, what, limit=START_LIMIT):
    """Waits until condition() is true and returns its value."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("%s: not within %d s" % (what, limit))
        time.sleep(0.02)


class Root:
    """A product root for one daemon."""

    def __init__(self, path, **config):
        self.path = pathlib.Path(path)
        self.log_file = self.path / "logs" / "qmdisco.log"
        self.errors_file = self.path / "logs" / "qmdisco-errors.log"
        self.store = self.path / "db" / "discovery"
        self.config_file = self.path / "etc" / "qm.conf"
        self.credentials = None  # the pki.Files of the configuration; None without TLS
        self.config_file.parent.mkdir(parents=True)
        self.configure(**config)

    def __str__(self):
        return str(self.path)

    def configure(self, **config):
        """Writes qm.conf. The default is a master on a free port that logs progress, and every
        line of it. The arguments override keys; None leaves a key out."""
        keys = {"LISTEN": "127.0.0.1:0", "CLIENT_NAME": "master1", "SERVER": "master1",
                "LOG_LEVEL": 4, **config}
        keys.setdefault("LOG_BURST", 0)
        has_files = keys.get("TLS_CERTIFICATE") and keys.get("TLS_CA")
        self.credentials = Files(pathlib.Path(keys["TLS_CERTIFICATE"]).parent, keys["TLS_CA"]) \
            if keys.get("TLS", "off") != "off" and has_files else None
        self.config_file.write_text("".join("%s = %s\n" % (key, value)
                                            for key, value in keys.items() if value is not None))

    def status(self):
        """The content of run/status.json, or {} if the file does not exist."""
        try:
            return json.loads((self.path / "run" / "status.json").read_text())
        except FileNotFoundError:
            return {}

    def files(self):
        """The names of the files in the store, without the lock file."""
        if not self.store.exists():
            return []
        return sorted(name for name in os.listdir(self.store) if name != "Update.lock")

    def log(self):
        return Log(self)


class Line(NamedTuple):
    """A line of the log, without time, thread and line number, which differ from run to run."""

    level: int
    originator: int
    operation: str
    text: str
    source: str
    severity: str


LINE = re.compile(r"(?P<time>\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d) (?P<level>\d) "
                  r"(?P<originator>\d+) (?P<thread>\d+) (?P<operation>\S+) "
                  r"\[(?P<severity>error|warning|notice|debug)\] (?P<text>.*?)"
                  r"(?: \((?P<source>[\w./]+):\d+\))?")


def parse_line(text):
    found = LINE.fullmatch(text)
    assert found, "no log line: %r" % text
    return Line(int(found["level"]), int(found["originator"]), found["operation"], found["text"],
                found["source"], found["severity"])


def settled(look):
    """What look() returns once it stays the same for a moment. Does not wait long for a change that
    never ends."""
    before, now = None, look()
    for _ in range(20):
        if now == before:
            break
        time.sleep(SETTLED)
        before, now = now, look()
    return now


class Log:
    """The lines that a root's log gets after this object is made."""

    def __init__(self, root):
        self._file = root.log_file
        self._from = 0
        settled(self._size)  # the lines of earlier requests may still come
        self._from = self._size()

    def _size(self):
        return self._file.stat().st_size if self._file.exists() else 0

    def _text(self):
        """The whole lines so far."""
        if not self._file.exists():
            return ""
        with open(self._file, encoding="utf-8") as file:
            file.seek(self._from)
            return file.read().rpartition("\n")[0]

    def lines(self):
        """The lines so far. A thread of the daemon writes them, a moment after the answer to a
        request. So this waits until the file stays as it is, but not long for a busy daemon."""
        return [parse_line(line) for line in settled(self._text).splitlines()]

    def texts(self, level=None, source=None, originator=SERVICE):
        """The texts of an originator's lines, limited to one level and one source if given."""
        return [line.text for line in self.lines()
                if line.originator == originator and level in (None, line.level) and
                source in (None, line.source)]

    def failures(self, source=None):
        return self.texts(level=1, source=source)


class Daemon:
    """A daemon in the foreground. The tests signal it only by its pid.

    wrapper: a command that runs the daemon in its own process. network: the `network` of giop.Orb
    for its clients.
    """

    def __init__(self, root, *options, wrapper=(), environment=None,
                 network=contextlib.nullcontext):
        self.root = root
        self._network = network
        self._orbs = []
        command = [*wrapper, str(program()), "--foreground", "--root", str(root), *options]
        self._stderr_file = root.path / "stderr"
        with open(self._stderr_file, "wb") as stderr:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=stderr,
                                            stderr=stderr, env={**os.environ,
                                                                **(environment or {})})

    def __str__(self):
        return "qmdisco %d on %s" % (self.pid, self.root)

    @property
    def pid(self):
        return self.process.pid

    @property
    def endpoint(self):
        return self.root.status()["endpoint"]

    @property
    def address(self):
        """(host, port)"""
        host, port = self.endpoint.rsplit(":", 1)
        return host, int(port)

    def stderr(self):
        return self._stderr_file.read_text(encoding="utf-8", errors="replace")

    def tail(self):
        return "\n".join(self.stderr().splitlines()[-60:])

    def is_running(self):
        return self.process.poll() is None

    def wait_until_up(self):
        def up():
            if not self.is_running():
                raise AssertionError("the daemon ended with %d:\n%s"
                                     % (self.process.returncode, self.tail()))
            status = self.root.status()
            return status.get("pid") == self.pid and status.get("state") == "running"
        wait_for(up, "the daemon is up")
        return self

    def client(self, **options):
        """A proxy of the service. It finds the service by name, like every client. If the service
        has TLS, so has the client, with the same certificate; tls=None is plain text."""
        if self.root.credentials and "tls" not in options:
            options["tls"] = self.root.credentials.as_client()
        orb = Orb(**{"timeout": CALL_LIMIT, "network": self._network, **options})
        self._orbs.append(orb)
        return service_at(orb, self.endpoint)

    def wait(self, limit=STOP_LIMIT):
        """Waits for the daemon's end and returns its exit code."""
        try:
            return self.process.wait(limit)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError("the daemon did not end within %d s" % limit) from None

    def send(self, number):
        self.process.send_signal(number)

    def stop(self, number=signal.SIGTERM):
        """Stops the daemon in order and returns its exit code."""
        if self.is_running():
            self.send(number)
        return self.wait()

    def kill(self):
        """Ends the daemon as a crash would."""
        self.process.kill()
        self.process.wait(STOP_LIMIT)

    def end(self):
        for orb in self._orbs:
            orb.close()
        if self.is_running():
            self.kill()


def service_at(orb, endpoint):
    """A proxy of the service at "HOST:PORT", found by name. The ORB decides about TLS."""
    return orb.object("corbaloc:%s:1.2@%s/DiscoveryService"
                      % ("ssliop" if orb.has_tls else "iiop", endpoint), DiscoveryService)


class Daemons:
    """The daemons of a test. At the end of the with statement it ends them all."""

    _all = []

    def __init__(self):
        self._mine = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for daemon in self._mine:
            daemon.end()
            Daemons._all.remove(daemon)

    @classmethod
    def all_running_or_just_ended(cls):
        return list(cls._all)

    def launch(self, root, *options, **more):
        """Starts a daemon and does not wait until it serves."""
        daemon = Daemon(root, *options, **more)
        self._mine.append(daemon)
        Daemons._all.append(daemon)
        return daemon

    def start(self, root, *options, **more):
        return self.launch(root, *options, **more).wait_until_up()


def run(*arguments, wrapper=(), environment=None, limit=START_LIMIT):
    """Runs qmdisco until it ends. Returns (exit code, standard output, standard error)."""
    done = subprocess.run([*wrapper, str(program()), *map(str, arguments)],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=limit, env={**os.environ, **(environment or {})}, check=False)
    return done.returncode, done.stdout, done.stderr
