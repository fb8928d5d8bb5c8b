"""The client processes. bench/ClientLoop.h has their protocol."""

import json
import selectors
import subprocess
import time

ANSWER_LIMIT = 600
HEAD_START = 0.02  # seconds; every client has read the time of the start before it comes


def read_line(process, limit):
    """A line of the process's output; empty if the process has ended."""
    with selectors.DefaultSelector() as selector:
        selector.register(process.stdout, selectors.EVENT_READ)
        if not selector.select(limit):
            raise RuntimeError("%s writes no line within %d s" % (process.args[0], limit))
    return process.stdout.readline().decode().strip()


class Clients:
    """Processes of one program. They start when they are first needed, and stay."""

    def __init__(self, program):
        self._program = program
        self._processes = []

    def run(self, commands):
        """Lets one client work on each command, all at the same time. Returns their answers."""
        while len(self._processes) < len(commands):
            self._processes.append(subprocess.Popen([self._program], stdin=subprocess.PIPE,
                                                    stdout=subprocess.PIPE))
        used = self._processes[:len(commands)]
        for process, command in zip(used, commands):
            self._write(process, json.dumps(command))
        for process in used:
            answer = self._read(process)
            if answer != "ready":
                raise RuntimeError("%s: %s" % (commands[0]["operation"], answer))
        start = "%.9f" % (time.monotonic() + HEAD_START)
        for process in used:
            self._write(process, start)
        answers = [json.loads(self._read(process)) for process in used]
        for answer in answers:
            if "error" in answer:
                raise RuntimeError("%s: %s" % (commands[0]["operation"], answer["error"]))
        return answers

    def stop(self):
        for process in self._processes:
            process.stdin.close()
        for process in self._processes:
            try:
                process.wait(60)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait(60)
        self._processes = []

    def _write(self, process, line):
        process.stdin.write(line.encode() + b"\n")
        process.stdin.flush()

    def _read(self, process):
        line = read_line(process, ANSWER_LIMIT)
        if not line:
            raise RuntimeError("%s ended with %s" % (self._program, process.wait(60)))
        return line
