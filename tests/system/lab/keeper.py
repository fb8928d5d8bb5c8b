"""Processes that do nothing but keep namespaces."""

import contextlib
import ctypes
import os
import subprocess
import threading

CLONE_NEWNET = 0x40000000
START_LIMIT = 60

# Says "ready" when all is in place: whoever enters earlier would be in the wrong host.
SCRIPT = """
if [ -n "$1" ]; then
    echo "$1" >/proc/sys/kernel/hostname && mount --bind "$2" /etc/hosts || exit 1
fi
ip link set lo up && echo ready && exec "${@:3}" >/dev/null 2>&1
"""


class KeeperError(Exception):
    """Namespaces could not be made."""


class Keeper:
    """A host's namespaces, held by a process with this id."""

    def __init__(self, pid):
        self.pid = pid

    @classmethod
    def start(cls, started, name="", hosts_file="", with_parent=False):
        """Makes new namespaces. `started(pid)` is called as soon as there is a process. Without a
        name there is a network alone. with_parent: they go when the calling thread does."""
        kinds = ["--net", "--uts", "--mount"] if name else ["--net"]
        sleeper = ["setpriv", "--pdeathsig", "KILL"] if with_parent else []
        # In a session of its own: Ctrl-C is for the program that ends it in order.
        process = subprocess.Popen(
            ["unshare", *kinds, "bash", "-c", SCRIPT, "keeper", name, str(hosts_file), *sleeper,
             "sleep", "infinity"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            start_new_session=True)
        started(process.pid)
        with process.stdout:
            if (line := process.stdout.readline()) != "ready\n":
                raise KeeperError("no namespaces for %s: %s" % (name or "the bridge", line.strip()))
        process.returncode = 0  # it is waited for by its id
        return cls(process.pid)

    def entering(self, *kinds):
        """The command line in front of a command that is to run inside; where the file systems
        are entered too, the working directory stays."""
        stay = ["--wdns=" + os.getcwd()] if "--mount" in kinds else []
        return ["nsenter", "--target", str(self.pid), *kinds, *stay, "--"]

    def run(self, *command, text=None):
        """Runs a command in the network alone; its standard output."""
        done = subprocess.run([*self.entering("--net"), *command], input=text,
                              stdin=subprocess.DEVNULL if text is None else None,
                              capture_output=True, text=True, timeout=START_LIMIT, check=False)
        if done.returncode != 0:
            raise KeeperError("%s: %s" % (" ".join(command), " ".join(done.stderr.split())))
        return done.stdout

    @contextlib.contextmanager
    def network(self):
        """What the calling thread connects in here is connected from inside. Other threads, and
        what was connected before, are not concerned."""
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
