"""Fixtures of the attacks."""


import pytest

import harness
from attack import Attacker


@pytest.fixture
def attacked(root, start):
    """attacked(KEY=value, ...) starts a daemon with the log that users have, and returns it."""
    def launch(**config):
        root.configure(LOG_LEVEL=1, LOG_BURST=20, **config)
        return start(root)
    return launch


@pytest.fixture
def attack(many_descriptors):
    """attack(daemon) makes an attacker. Its connections are closed at the end."""
    made = []

    def launch(daemon, **options):
        made.append(Attacker(daemon, **options))
        return made[-1]
    yield launch
    for each in made:
        each.close()


@pytest.fixture
def counter(root):
    """counter(name, value) waits until a counter of the status has at least that value."""
    def wait(name, value):
        return harness.wait_for(
            lambda: root.status()["counters"].get(name, 0) >= value and root.status(),
            "%s reaches %d" % (name, value))["counters"][name]
    return wait


def process(daemon):
    """The fields of the daemon's /proc/PID/status as numbers: Threads, VmRSS in kB, ..."""
    fields = {}
    with open("/proc/%d/status" % daemon.pid, encoding="ascii") as file:
        for line in file:
            name, value = line.split(":", 1)
            if value.split() and value.split()[0].isdigit():
                fields[name] = int(value.split()[0])
    return fields


@pytest.fixture
def figures():
    return process
