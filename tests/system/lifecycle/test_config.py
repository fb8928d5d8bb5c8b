"""The daemon obeys etc/qm.conf. It also starts with nonsense in the file."""

import signal

import pytest

import giop
import harness
from records import SUCCESS, put, record

NONSENSE = """# comment
LISTEN = 127.0.0.1:0
SERVER = master1
CLIENT_NAME = master1
no equals sign
NO_SUCH_KEY = 1
LOG_LEVEL = high
LOG_KEEP = 101
STOP_LIMIT = 0
REPORT_CLIENT_DISCOVERIES = perhaps
PUBLISH_ADDRESS = a b
ENDPOINT.x = 1
"""
PROBLEMS = [
    (5, "'no equals sign' is not KEY = value"),
    (6, "unknown key 'NO_SUCH_KEY'"),
    (7, "LOG_LEVEL: 'high' is not a number, expected 0 to 9"),
    (8, "LOG_KEEP: '101' is out of range, expected 0 to 100"),
    (9, "STOP_LIMIT: '0' is out of range, expected 1 to 3600"),
    (10, "REPORT_CLIENT_DISCOVERIES: 'perhaps' is not a boolean, expected TRUE or FALSE"),
    (11, "PUBLISH_ADDRESS: 'a b' is not a host name, expected for instance 192.0.2.7"),
    (12, "ENDPOINT.x: '1' is not ADDRESS:PORT, expected for instance 192.0.2.7:14400"),
]


def problems(root):
    return ["%s:%d: %s" % (root.config_file, line, text) for line, text in PROBLEMS]


def test_nonsense_is_logged_and_the_daemon_starts(start, root):
    root.config_file.write_text(NONSENSE)
    log = root.log()
    daemon = start(root)
    assert put(daemon.client(), "cl1", "a") == SUCCESS
    assert log.texts(level=1, source="../ConfigReport", originator=harness.PLATFORM) == \
        problems(root)
    assert root.status()["logLevel"] == 1


def test_check_config_prints_the_same(root):
    root.config_file.write_text(NONSENSE)
    assert harness.run("--check-config", "--root", root) == \
        (3, "".join(line + "\n" for line in problems(root)), "")


def test_check_config_of_a_sound_file(root):
    assert harness.run("--check-config", "--root", root) == (0, "%s: OK\n" % root.config_file, "")
    assert sorted(path.name for path in root.path.iterdir()) == ["etc"]


def test_check_config_without_a_file(root):
    root.config_file.unlink()
    assert harness.run("--check-config", "--root", root) == \
        (3, "%s: cannot be read: No such file or directory\n" % root.config_file, "")


def unreadable(root, kind):
    root.config_file.unlink()
    if kind == "directory":
        root.config_file.mkdir()
    elif kind == "loop":
        root.config_file.symlink_to(root.config_file)


@pytest.mark.parametrize("kind", ["missing", "directory", "loop"])
def test_an_unreadable_file_keeps_nobody_down(start, root, kind):
    """The daemon uses the defaults, also for the port. So it needs its own network namespace."""
    unreadable(root, kind)
    log = root.log()
    daemon = start(root, wrapper=("unshare", "--net"))
    assert [line.text for line in log.lines() if line.operation == "DiscoverySvc::doShouldStart"] \
        == ["Failed to read config"]
    assert root.status()["role"] == "client"
    assert root.status()["endpoint"].endswith(":14400")
    assert daemon.stop() == 0


def test_false_keeps_the_service_from_starting(root):
    root.configure(REPORT_CLIENT_DISCOVERIES="FALSE")
    log = root.log()
    code, out, err = harness.run("--root", root)
    assert (code, out) == (0, "")
    assert err == "qmdisco: Discovery Service is not wanted on this host\n"
    assert log.texts(level=4, source="../DiscoverySvc") == [
        "Shutting down qmdisco as directed by REPORT_CLIENT_DISCOVERIES=FALSE"]
    assert root.status() == {}


@pytest.mark.parametrize("value", ["TRUE", "yes", "1", "on"])
def test_true_starts_it(start, root, value):
    root.configure(REPORT_CLIENT_DISCOVERIES=value)
    start(root)


def test_hangup_changes_the_log_level(start, root):
    root.configure(LOG_LEVEL=1)
    daemon = start(root)
    service = daemon.client()
    log = root.log()
    assert put(service, "cl1", "a") == SUCCESS
    assert log.texts(level=4) == []

    root.configure(LOG_LEVEL=4)
    daemon.send(signal.SIGHUP)
    harness.wait_for(lambda: root.status()["logLevel"] == 4, "the new level is in the status")
    assert put(service, "cl2", "a") == SUCCESS
    assert "Opening collection file: %s" % (root.store / "0.updating") in log.texts(level=4)

    root.configure(LOG_LEVEL=0)
    daemon.send(signal.SIGHUP)
    harness.wait_for(lambda: root.status()["logLevel"] == 0, "the new level is in the status")
    quiet = root.log()
    assert put(service, "cl3", "a") == SUCCESS
    assert quiet.lines() == []


def test_hangup_reports_nonsense(start, root):
    daemon = start(root)
    log = root.log()
    root.configure(LOG_LEVEL="nonsense")
    daemon.send(signal.SIGHUP)
    expected = "%s:4: LOG_LEVEL: 'nonsense' is not a number, expected 0 to 9" % root.config_file
    harness.wait_for(lambda: log.lines(), "something is logged")
    assert log.texts(level=1, originator=harness.PLATFORM) == [expected]
    harness.wait_for(lambda: root.status()["logLevel"] == 1, "the default holds")


def test_the_option_goes_before_the_file(start, root):
    root.configure(LOG_LEVEL=4)
    daemon = start(root, "--log-level", "2")
    assert root.status()["logLevel"] == 2
    daemon.send(signal.SIGHUP)
    assert daemon.stop() == 0
    assert root.status()["logLevel"] == 2


def test_the_log_is_rotated(start, root):
    root.configure(LOG_LEVEL=9, LOG_MAX_BYTES=4096, LOG_KEEP=2)
    daemon = start(root)
    for number in range(60):
        assert put(daemon.client(), "cl%d" % number, "a") == SUCCESS
    assert daemon.stop() == 0
    files = sorted(root.log_file.parent.glob("qmdisco.*"))
    assert [path.name for path in files] == ["qmdisco.1.log", "qmdisco.2.log", "qmdisco.log"]
    assert all(path.stat().st_size <= 4096 for path in files)


def test_errors_have_their_own_file(start, root):
    root.configure(LOG_LEVEL=9, LOG_MAX_BYTES=4096, LOG_KEEP=1, FILESYSTEM_PULL="perhaps")
    daemon = start(root)
    for number in range(60):
        assert put(daemon.client(), "cl%d" % number, "a") == SUCCESS
    assert daemon.stop() == 0
    lines = [harness.parse_line(line) for line in root.errors_file.read_text().splitlines()]
    assert lines[0].text == ("%s:7: FILESYSTEM_PULL: 'perhaps' is not a boolean, expected TRUE or "
                             "FALSE" % root.config_file)
    assert {line.severity for line in lines} <= {"error", "warning"}
    assert "perhaps" not in root.log_file.read_text()


def test_hangup_changes_the_lowest_severity(start, root):
    root.configure(LOG_SEVERITY="error")
    daemon = start(root)
    assert root.log_file.read_text() == ""
    log = root.log()
    root.configure(LOG_SEVERITY="notice")
    daemon.send(signal.SIGHUP)
    assert put(daemon.client(), "cl1", "a") == SUCCESS
    assert daemon.stop() == 0
    severities = {line.severity for line in log.lines()}
    assert "notice" in severities
    assert "debug" not in severities


def test_the_largest_message(start, root):
    root.configure(MAX_MESSAGE_BYTES=65536)
    service = start(root).client()
    assert put(service, "cl1", "a", bytes(60_000)) == SUCCESS
    _, writer = service.putCollection(record("cl2", "a"))
    with pytest.raises((giop.SystemException, giop.ConnectionLost)):
        writer.put(bytes(70_000))
    assert writer.close().discStatus == SUCCESS
