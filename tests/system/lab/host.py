"""One host of a lab."""

import os
import shutil
import subprocess

import harness

DAEMON_LIMIT = 120
LIBRARY = "libqmexplorer.so"


def may_be_loaded_from(path):
    """Whether the daemon trusts a file or directory. Its build may belong to another user."""
    status = os.stat(path)
    return status.st_uid in (0, os.geteuid()) and not status.st_mode & 0o022


class Host:
    """A name, an address, a product root, and later the keeper of the host's namespaces."""

    def __init__(self, directory, name, number, interface, master, more=None):
        self.name = name
        self.number = number
        self.interface = interface  # ADDRESS/PREFIX
        self.keeper = None
        self._path = directory / name
        self._master = master
        self._more = more or {}  # configuration keys that differ from the other hosts
        self._root = None

    def __str__(self):
        return self.name

    @property
    def address(self):
        return self.interface.split("/")[0]

    @staticmethod
    def certified_address(interface):
        """The address that the host's certificate names."""
        return interface.split("/")[0]

    @property
    def peer_name(self):
        """How the log of another host names this one as a peer."""
        return "%s (%s)" % (self, self.address) if self.root.credentials else self.address

    @property
    def path(self):
        """The product root."""
        return self._path

    @property
    def root(self):
        """The product root with its configuration and explorers. The first use makes it."""
        if self._root is None:
            self._root = harness.Root(self._path, **self._config())
            self._bring_in_explorers()
        return self._root

    def _config(self, **config):
        """The configuration keys. By default they name the master and make the log show progress.
        Port, host name and addresses are those of a real installation."""
        any_address = "[::]:14400" if ":" in self.address else None
        return {"CLIENT_NAME": None, "SERVER": self._master, "LISTEN": any_address,
                **self._more, **config}

    def configure(self, **config):
        self.root.configure(**self._config(**config))

    def _bring_in_explorers(self):
        library = harness.program().parent.parent / "lib" / LIBRARY
        (self._path / "lib" / "plugins").mkdir(parents=True, exist_ok=True)
        own = self._path / "lib" / LIBRARY
        if all(may_be_loaded_from(path) for path in (library.resolve(), library.resolve().parent)):
            os.symlink(library, own)
        else:
            shutil.copyfile(library, own)
            own.chmod(0o755)

    def entering(self):
        """The words to put before a command, so that it runs on this host."""
        return self.keeper.entering("--net", "--uts", "--mount")

    def run(self, *command, limit=DAEMON_LIMIT, **options):
        """Runs a command on this host and waits for its end."""
        return subprocess.run([*self.entering(), *map(str, command)], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=limit,
                              **{"check": False, **options})

    def ctl(self, *arguments, code=0):
        """Runs qmdiscoctl on this host and returns what it printed."""
        done = self.run(harness.program("qmdiscoctl"), "--root", self.path, *arguments)
        assert done.returncode == code, "%d: %s" % (done.returncode, done.stderr)
        return done.stdout if code == 0 else done.stderr

    def network(self):
        return self.keeper.network()

    def start_daemon(self):
        """Starts a daemon that detaches itself. Returns its process id when it serves."""
        done = self.run(harness.program(), "--root", self.root)
        if done.returncode != 0:
            raise RuntimeError("no daemon on %s (exit code %d): %s"
                               % (self, done.returncode, done.stderr.strip()))
        return self.root.status()["pid"]
