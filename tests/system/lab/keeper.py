"""Processes that only keep namespaces alive."""

import contextlib
import ctypes
import os
import subprocess
import threading

CLONE_NEWNET = 0x40000000
START_LIMIT = 60

# Prints "ready" when the namespaces are complete. A command that enters earlier would run with the
# wrong host name or mounts.
SCRIPT = """
if [ -n "$1" ]; then
    echo "$1" >/proc/sys/kernel/hostname && mount --bind "$2" /etc/hosts || exit 1
fi
ip link set lo up && echo ready && exec "${@:3}" >/dev/null 2>&1
"""


class KeeperError(Exception):
    """The namespaces cannot be made or used."""


class Keeper:
    """A host's namespaces. The process with this id keeps them."""

    def __init__(self, pid):
        self.pid = pid

    @classmethod
    def start(cls, started, name="", hosts_file="", with_parent=False):
        """Makes new namespaces. Calls `started(pid)` as soon as the process runs. Without a name it
        makes only a network. with_parent: the namespaces end with the calling thread."""
        kinds = ["--net", "--uts", "--mount"] if name else ["--net"]
        sleeper = ["setpriv", "--pdeathsig", "KILL"] if with_parent else []
        # It has its own session, so Ctrl-C does not end it. The calling program ends it in order.
        process = subprocess.Popen(
            ["unshare", *kinds, "bash", "-c", SCRIPT, "keeper", name, str(hosts_file), *sleeper,
             "sleep", "infinity"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            start_new_session=True)
        started(process.pid)
        with process.stdout:
            if (line := process.stdout.readline()) != "ready\n":
                raise KeeperError("no namespaces for %s: %s" % (name or "the bridge", line.strip()))
        process.returncode = 0  # the object must not wait for the process; process.end_all does
        return cls(process.pid)

    def entering(self, *kinds):
        """The words to put before a command, so that it runs inside the namespaces. It keeps its
        working directory, even in another mount namespace."""
        stay = ["--wdns=" + os.getcwd()] if "--mount" in kinds else []
        return ["nsenter", "--target", str(self.pid), *kinds, *stay, "--"]

    def run(self, *command, text=None):
        """Runs a command in the network namespace only. Returns its standard output."""
        done = subprocess.run([*self.entering("--net"), *command], input=text,
                              stdin=subprocess.DEVNULL if text is None else None,
                              capture_output=True, text=True, timeout=START_LIMIT, check=False)
        if done.returncode != 0:
            raise KeeperError("%s: %s" % (" ".join(command), " ".join(done.stderr.split())))
        return done.stdout

    @contextlib.contextmanager
    def network(self):
        """A context manager: the calling thread makes its new connections from inside the network.
        Other threads and earlier connections do not change."""
        own = "/proc/self/task/%d/ns/net" % threading.get_native_id()
        with open(own, "rb") as back, open("/proc/%d/ns/net" % self.pid, "rb") as inside:
            _setns(inside)
            try:
                yield
            finally:
                _setns(back)


def _setns(file):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.setns(file.fileno(), CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns: " + os.strerror(ctypes.get_errno()))
