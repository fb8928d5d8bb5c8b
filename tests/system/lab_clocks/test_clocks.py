"""Hosts whose clocks differ by an hour from their master's."""

import pathlib
import re
import time

import pytest

from lab.stage import wait_until_pushed, wait_until_stored
from records import ANY, get, subjects

LIBRARY = pathlib.Path("/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1")
HOUR = 3600


def off_by(seconds):
    """The environment of a daemon whose wall clock is off; what counts seconds is not."""
    if not LIBRARY.exists():
        pytest.skip("%s is missing: install Debian's faketime (scripts/setup does)" % LIBRARY)
    return {"LD_PRELOAD": str(LIBRARY), "FAKETIME": "%+d" % seconds,
            "FAKETIME_DONT_FAKE_MONOTONIC": "1"}


def made_at(host, name):
    """When a stored record says it was made."""
    text = (host.root.store / ("3 %s %s.xml" % (name, name))).read_text()
    return int(re.search(r"<DiscoveryTime>(\d+)", text)[1])


@pytest.mark.parametrize("off", [HOUR, -HOUR])
def test_a_client_registers_pushes_and_is_pulled(stage, off):
    [client] = stage.build(1).clients
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start(stage.master)
    began = time.time()
    stage.start(client, environment=off_by(off))
    # Afterwards nobody pushes, so all the questions below have one answer.
    for host in (client, stage.master):
        wait_until_pushed(host, stage.master)
    # The time is the client's, and the record is valid on the master all the same.
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
