"""A lab for a test. The test starts, watches and stops the daemons of the hosts."""

import contextlib
import os
import pathlib
import signal

import harness

from .names import prompt_names

REGISTERED = "Successfully registered explorers with master"


class Stage:
    """The hosts of a lab and the daemons on them."""

    def __init__(self, lab, daemons):
        self.lab = lab
        self._daemons = daemons
        self._running = {}

    def build(self, clients, **options):
        """Makes the hosts: a number of clients, or clients with given names. Starts no daemon.
        With QM_LAB_TLS in the environment, they have TLS unless the story decides about it."""
        options.setdefault("tls", os.environ.get("QM_LAB_TLS"))
        names = prompt_names(clients, soon=0) if isinstance(clients, int) else clients
        self.lab.claim()
        self.lab.make(names, with_parent=True, **options)
        return self

    @property
    def master(self):
        return self.lab.master

    @property
    def clients(self):
        return self.lab.clients

    def launch(self, host, **more):
        """Starts the host's daemon and does not wait until it serves. The daemon ends with the
        test's process, even if that process is killed."""
        wrapper = [*host.entering(), "setpriv", "--pdeathsig", "KILL", *more.pop("wrapper", [])]
        daemon = self._daemons.launch(host.root, wrapper=wrapper, network=host.network, **more)
        self._running[host.name] = daemon
        return daemon

    def start(self, *hosts, **more):
        """Starts the daemons of all hosts and waits until they serve. Returns the last daemon."""
        daemons = [self.launch(host, **more) for host in hosts]
        for daemon in daemons:
            daemon.wait_until_up()
        return daemons[-1]

    def start_all(self):
        """Starts the master, then the clients. Waits until all clients are registered."""
        self.start(self.master)
        self.start(*self.clients)
        for host in self.clients:
            wait_until_registered(host)

    def stop_all(self):
        """Stops the running daemons in order. An instrumented daemon then reports its leaks."""
        running = [daemon for daemon in self._running.values() if daemon.is_running()]
        for daemon in running:
            daemon.send(signal.SIGTERM)
        codes = {str(daemon): daemon.wait() for daemon in running}
        assert set(codes.values()) <= {0}, codes

    def daemon(self, host):
        """The host's daemon that was started last."""
        return self._running[host.name]

    def service(self, host, **options):
        """A proxy of the host's own service. It calls the service from the same host."""
        return self.daemon(host).client(**options)


@contextlib.contextmanager
def frozen(stage, host):
    """A context manager that stops the host's daemon with SIGSTOP and continues it at the end."""
    daemon = stage.daemon(host)
    daemon.send(signal.SIGSTOP)

    def stopped():
        tasks = pathlib.Path("/proc/%d/task" % daemon.pid).glob("*/stat")
        return {task.read_text().rpartition(")")[2].split()[0] for task in tasks} == {"T"}
    try:
        harness.wait_for(stopped, "every thread has stopped")
        yield
    finally:
        daemon.send(signal.SIGCONT)


def wait_for_text(host, text, times=1):
    """Waits until the host's log contains the text so many times."""
    def logged():
        return host.root.log_file.exists() and \
            host.root.log_file.read_text(encoding="utf-8").count(text) >= times
    harness.wait_for(logged, "%s: %s" % (host, text))


def wait_until_registered(host, times=1):
    wait_for_text(host, REGISTERED, times)


def wait_until_pushed(host, master):
    """Waits until the host's status shows all its pushes and the master's store has the record."""
    def said():
        outcomes = [each["outcome"] for each in host.root.status().get("explorers", [])
                    if each["kind"] == "push"]
        return outcomes and set(outcomes) == {"pushed"}
    harness.wait_for(said, "%s has pushed" % host)
    wait_until_stored(host, master)


def wait_until_stored(host, master, subject=None):
    """Waits until the master's store has the host's record with a subject. The default subject is
    the host's name. The host may still wait for the answer to its push."""
    name = "3 %s %s.xml" % (host, subject or host)
    harness.wait_for(lambda: name in master.root.files(), "the push of %s is stored" % host)
