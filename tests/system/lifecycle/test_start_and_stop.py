"""The start and the stop of the daemon, from the first log line to the last."""

import os
import re
import signal
import socket
import stat

import pytest

import giop
import harness
from records import SUCCESS, get, open_writer, put, query, record


def daemon_lines(log):
    """The daemon's own lines at level 1."""
    return [line.text for line in log.lines()
            if line.operation == "Daemon::run" and line.level == 1]


def test_a_life(start, root):
    log = root.log()
    daemon = start(root)
    version = root.status()["version"]
    assert put(daemon.client(), "cl1", "a") == SUCCESS
    assert daemon.stop() == 0
    assert daemon_lines(log) == [
        "Discovery Service is up (master, %s, pid %d, %s)"
        % (daemon.endpoint, daemon.pid, root),
        "Discovery Service is stopping, asked for by SIGTERM",
        "qmdisco %s stopped" % version]
    # In the foreground the same lines go to standard error.
    assert daemon.stderr() == root.log_file.read_text(encoding="utf-8")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=lambda n: n.name)
def test_signals_stop_in_order(start, root, number):
    daemon = start(root)
    log = root.log()
    assert daemon.stop(number) == 0
    assert daemon_lines(log)[0] == "Discovery Service is stopping, asked for by %s" % number.name
    assert root.status()["state"] == "stopped"
    assert (root.path / "run" / "qmdisco.pid").read_text() == ""
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(daemon.address, 5)


def test_signals_again_and_again(start, root):
    daemon = start(root)
    for number in (signal.SIGHUP, signal.SIGHUP, signal.SIGTERM, signal.SIGTERM, signal.SIGHUP,
                   signal.SIGINT):
        if daemon.is_running():
            daemon.send(number)
    assert daemon.wait() == 0


def test_stop_with_open_objects_and_connections(start, root):
    daemon = start(root)
    service = daemon.client()
    assert put(service, "cl1", "a") == SUCCESS
    assert open_writer(service, record("cl2", "a")).put(b"left alone")
    service.getCollectionData(record("cl1", "a"))
    service.queryDiscoveries(1, 0, "*", "*")
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0
    with pytest.raises((giop.SystemException, giop.ConnectionLost)):
        service.restartAllPushTimers()


def test_records_survive_a_restart(start, root):
    daemon = start(root)
    assert put(daemon.client(), "é 日", "a", b"data", ttl=3600, priority=5) == SUCCESS
    before = query(daemon.client())
    assert daemon.stop() == 0
    again = start(root)
    assert query(again.client()) == before
    assert get(again.client(), "é 日", "a") == b"data"
    result, _ = again.client().putCollection(record("é 日", "a", priority=4))
    assert result.discStatus == giop.DiscoveryStatus.DS_DATA_EXISTS


def test_files_are_for_the_daemon_alone(daemon, root, service):
    assert put(service, "cl1", "srv1") == SUCCESS
    writer = open_writer(service, record("cl2", "srv1"))
    assert sorted(os.listdir(root.store)) == ["0.updating", "1 srv1 cl1.dat", "1 srv1 cl1.xml",
                                              "Update.lock"]
    for name in os.listdir(root.store):
        assert stat.S_IMODE(os.stat(root.store / name).st_mode) == 0, name
    assert writer.close().discStatus == SUCCESS
    modes = {"": 0o755, "etc": 0o755, "db": 0o700, "db/discovery": 0o755, "logs": 0o750,
             "logs/qmdisco.log": 0o640, "run": 0o750, "run/status.json": 0o640,
             "run/qmdisco.pid": 0o600}
    assert {name: stat.S_IMODE(os.stat(root.path / name).st_mode) for name in modes} == modes


def test_status(start, root):
    daemon = start(root)
    status = root.status()
    assert re.fullmatch(r"\d+\.\d+\.\d+", status["version"])
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d", status["start"])
    assert re.fullmatch(r"127\.0\.0\.1:\d+", status["endpoint"])
    assert all(isinstance(value, int) for value in status["counters"].values())
    assert {key: status[key] for key in ("pid", "state", "role", "host", "root", "logLevel",
                                         "assertions", "requestsInProgress")} == {
        "pid": daemon.pid, "state": "running", "role": "master", "host": "master1",
        "root": str(root), "logLevel": 4, "assertions": 0, "requestsInProgress": 0}
    assert daemon.stop() == 0
    assert root.status()["state"] == "stopped"
    assert os.listdir(root.path / "run").count("status.json.tmp") == 0


def test_counters_count(start, root):
    daemon = start(root)
    before = root.status()["counters"]
    for number in range(3):
        assert put(daemon.client(), "cl%d" % number, "a") == SUCCESS
    harness.wait_for(lambda: root.status()["counters"] != before, "the status shows the puts")


def test_detached(start, root):
    """Without --foreground, the command ends when the service is up."""
    code, out, err = harness.run("--root", root)
    assert (code, out, err) == (0, "", "")
    status = root.status()
    try:
        assert status["state"] == "running"
        assert (root.path / "run" / "qmdisco.pid").read_text() == "%d\n" % status["pid"]
    finally:
        os.kill(status["pid"], signal.SIGTERM)
    harness.wait_for(lambda: root.status()["state"] == "stopped", "the daemon stops")


def test_quillmark_root(root):
    code, _, err = harness.run("--check-config", environment={"QUILLMARK_ROOT": str(root)})
    assert (code, err) == (0, "")


def test_a_client_host_serves_as_one(start, root):
    root.configure(SERVER="another.example", LOG_LEVEL=1,
                   **{"ENDPOINT.another.example": "127.0.0.1:1"})
    daemon = start(root)
    assert root.status()["role"] == "client"
    service = daemon.client()
    assert service.restartAllPushTimers() is False
    assert daemon.stop() == 0


def test_the_address_in_references(start, root):
    root.configure(LISTEN="127.0.0.1:0", PUBLISH_ADDRESS="localhost")
    daemon = start(root)
    host, port = daemon.address
    assert host == "localhost"
    writer = open_writer(daemon.client(), record("cl1", "a"))
    assert (writer.ior.host, writer.ior.port) == ("localhost", port)
    assert writer.close().discStatus == SUCCESS
