"""The master asks every host to push again. Some hosts answer, some are down, some hang."""

import contextlib
import time

import harness
from lab.stage import frozen, wait_for_text, wait_until_stored

LOOKUP_LIMIT = 5
SLACK = 10
RESTARTING = "Restarting push timers on client: %s"
TRIGGERED = "triggering push in "
NOT_REACHED = "Failed to connect to client discovery service"
ABORTED = "qmdisco shutting down, aborting refresh task"


def build(stage, clients):
    """Makes hosts that have published their filter data. The master refreshes only such hosts."""
    stage.build(clients).start_all()
    for host in (stage.master, *stage.clients):
        wait_until_stored(host, stage.master, "filesystem")
    return sorted(stage.clients, key=str)


def refreshed(log):
    """The hosts that the master has asked to push, in its order."""
    begin = RESTARTING % ""
    return [text.removeprefix(begin) for text in log.texts(level=4) if text.startswith(begin)]


def test_a_refresh_reaches_every_host(stage):
    clients = build(stage, 2)
    logs = {host: host.root.log() for host in (stage.master, *clients)}
    assert stage.service(stage.master).restartAllPushTimers() is True

    def all_heard():
        return all(any(text.startswith(TRIGGERED) for text in log.texts(level=4))
                   for log in logs.values())
    harness.wait_for(all_heard, "every host restarts its push timer")
    assert refreshed(logs[stage.master]) == [*map(str, clients), "master"]
    assert logs[stage.master].failures("../DiscoveryRepository") == []
    # The command line can start a refresh as well, from the master.
    assert clients[0].ctl("clients").split() == ["CLIENT", *map(str, clients), "master"]
    assert "started by the discovery service on master" in stage.master.ctl("refresh", "--all")
    harness.wait_for(lambda: len(refreshed(logs[stage.master])) == 6,
                     "the master asks all hosts again")


def test_hosts_that_are_down_or_hang_are_passed_over(stage):
    down, hangs, hears = build(stage, 3)
    assert stage.daemon(down).stop() == 0
    log, heard = stage.master.root.log(), hears.root.log()
    service = stage.service(stage.master)
    with frozen(stage, hangs):
        assert service.restartAllPushTimers() is True
        harness.wait_for(lambda: len(refreshed(log)) == 2,
                         "the master waits for the host that hangs")
        assert service.restartAllPushTimers() is False, "a refresh is running"
        harness.wait_for(lambda: any(text.startswith(TRIGGERED) for text in heard.texts(level=4)),
                         "the next host is reached")
    harness.wait_for(lambda: refreshed(log) == [*map(str, (down, hangs, hears)), "master"],
                     "the master has asked all hosts")
    assert log.failures("../DiscoveryRepository").count(NOT_REACHED) == 2

    def again():
        return service.restartAllPushTimers()
    harness.wait_for(again, "the next refresh starts")


def test_a_stop_in_the_middle_waits_for_one_host_only(stage):
    first, *_ = build(stage, 2)
    log = stage.master.root.log()
    with contextlib.ExitStack() as hanging:
        for client in stage.clients:
            hanging.enter_context(frozen(stage, client))
        assert stage.service(stage.master).restartAllPushTimers() is True
        wait_for_text(stage.master, RESTARTING % first)
        began = time.monotonic()
        assert stage.daemon(stage.master).stop() == 0
        assert time.monotonic() - began <= LOOKUP_LIMIT + SLACK
    assert refreshed(log) == [str(first)]
    assert log.failures("../DiscoveryRepository")[-1] == ABORTED
