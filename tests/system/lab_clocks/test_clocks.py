"""Hosts with clocks that differ by an hour from their master's clock."""

import pathlib
import re
import time

import pytest

from lab.stage import wait_until_pushed, wait_until_stored
from records import ANY, get, subjects

LIBRARY = pathlib.Path("/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1")
HOUR = 3600


def off_by(seconds):
    """The environment of a daemon with a wrong wall clock. Its monotonic clock stays right."""
    if not LIBRARY.exists():
        pytest.skip("%s is missing: install Debian's faketime (scripts/setup does)" % LIBRARY)
    return {"LD_PRELOAD": str(LIBRARY), "FAKETIME": "%+d" % seconds,
            "FAKETIME_DONT_FAKE_MONOTONIC": "1"}


def made_at(host, name):
    """The discovery time in a stored record."""
    text = (host.root.store / ("3 %s %s.xml" % (name, name))).read_text()
    return int(re.search(r"<DiscoveryTime>(\d+)", text)[1])


@pytest.mark.parametrize("off", [HOUR, -HOUR])
def test_a_client_registers_pushes_and_is_pulled(stage, off):
    [client] = stage.build(1).clients
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start(stage.master)
    began = time.time()
    stage.start(client, environment=off_by(off))
    # From here on no host pushes, so the queries below all have the same answer.
    for host in (client, stage.master):
        wait_until_pushed(host, stage.master)
    # The record has the client's time. It is still valid on the master.
    assert began + off - 1 <= made_at(stage.master, str(client)) <= time.time() + off + 1
    service = stage.service(stage.master)
    assert {str(client), "%s/now" % client} <= set(subjects(service))
    assert subjects(stage.service(client)) == subjects(service)
    assert get(service, "%s/now" % client, str(client), ANY)
    assert stage.daemon(client).stop() == 0


def test_a_master_that_is_behind(stage):
    [client] = stage.build(1).clients
    stage.start(stage.master, environment=off_by(-HOUR))
    stage.start(client)
    wait_until_stored(client, stage.master)
    assert str(client) in subjects(stage.service(stage.master))
    assert made_at(stage.master, "master") < made_at(stage.master, str(client)) - HOUR // 2
