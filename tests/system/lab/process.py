"""Ends processes by id, and makes sure that an id still belongs to the same process."""

import os
import pathlib
import signal
import time


def start_time(pid):
    """The start time of a process in the kernel's ticks, or None if it does not exist. The kernel
    reuses ids, so only id and start time together identify a process."""
    try:
        fields = pathlib.Path("/proc/%d/stat" % pid).read_text().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return None if fields[0] in "ZX" else int(fields[19])


class Journal:
    """A file that lists the processes of a lab. Each process has a line as soon as it runs."""

    def __init__(self, path):
        self._path = pathlib.Path(path)

    def add(self, kind, host, pid):
        with open(self._path, "a", encoding="utf-8") as file:
            file.write("%s %s %d %d\n" % (kind, host, pid, start_time(pid) or 0))

    def running(self, kind):
        """{host: pid} of the running processes of one kind."""
        try:
            lines = self._path.read_text(encoding="utf-8").splitlines()
        except FileNotFoundError:
            return {}
        # If a writer was killed, its last line may be incomplete.
        entries = [line.split() for line in lines if len(line.split()) == 4]
        return {host: int(pid) for its_kind, host, pid, start in entries
                if its_kind == kind and start_time(int(pid)) == int(start)}


def daemons_under(directory):
    """{host: pid} of the daemons with a product root in the directory."""
    found = {}
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            arguments = os.fsdecode((entry / "cmdline").read_bytes()).split("\0")
            if "qmdisco" not in map(os.path.basename, arguments):
                continue
            environment = os.fsdecode((entry / "environ").read_bytes()).split("\0")
        except OSError:
            continue
        roots = [value for option, value in zip(arguments, arguments[1:]) if option == "--root"] + \
                [each.partition("=")[2] for each in environment
                 if each.startswith("QUILLMARK_ROOT=")]
        if roots and pathlib.Path(roots[0]).parent == directory:
            found[pathlib.Path(roots[0]).name] = int(entry.name)
    return found


def send(pid, number):
    """Sends a signal. Returns False if the process does not exist."""
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        return False
    return True


def end_all(pids, limit, number=signal.SIGTERM):
    """Asks all processes to end and waits. Kills those that still run after `limit` seconds, and
    returns their ids."""
    started = {pid: start_time(pid) for pid in pids}
    waiting = [pid for pid in pids if started[pid] is not None and send(pid, number)]
    for pid in waiting:
        send(pid, signal.SIGCONT)  # a stopped process gets the signal only when it continues
    waiting = _wait(waiting, started, limit)
    for pid in waiting:
        send(pid, signal.SIGKILL)
    _wait(waiting, started, limit)
    return waiting


def _wait(pids, started, limit):
    deadline = time.monotonic() + limit
    while pids and time.monotonic() < deadline:
        time.sleep(0.02)
        pids = [pid for pid in pids if not _reaped(pid) and start_time(pid) == started[pid]]
    return pids


def _reaped(pid):
    """Waits for a child process without blocking. Returns True if it has ended."""
    try:
        return os.waitpid(pid, os.WNOHANG)[0] == pid
    except ChildProcessError:
        return False
