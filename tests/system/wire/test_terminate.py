"""A caller may stop the service."""

import pytest

import giop
import harness
from records import SUCCESS, get, open_writer, put, record


@pytest.fixture
def own_root(tmp_path):
    return harness.Root(tmp_path / "root")


def test_terminate_stops_the_daemon(start, own_root):
    daemon = start(own_root)
    service = daemon.client()
    assert put(service, "cl1", "a", b"kept") == SUCCESS
    log = own_root.log()
    assert service.terminate() is True
    assert daemon.wait() == 0
    assert own_root.status()["state"] == "stopped"
    assert [line.text for line in log.lines() if line.operation == "Daemon::run"] == [
        "Discovery Service is stopping, asked for by the service",
        "qmdisco %s stopped" % own_root.status()["version"]]
    with pytest.raises(giop.ConnectionLost):
        daemon.client().terminate()


def test_terminate_with_readers_and_writers_left(start, own_root):
    daemon = start(own_root)
    service = daemon.client()
    assert put(service, "cl1", "a", b"kept") == SUCCESS
    service.getCollectionData(record("cl1", "a"))
    service.queryDiscoveries(1, 0, "*", "*")
    assert open_writer(service, record("cl1", "a")).put(b"never closed")
    assert service.terminate() is True
    assert daemon.wait() == 0
    assert own_root.status()["assertions"] == 0
    again = start(own_root)
    assert get(again.client(), "cl1", "a") == b"kept"
    assert [name for name in own_root.files() if name.endswith(".updating")] == []
