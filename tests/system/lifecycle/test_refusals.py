"""Reasons why the daemon does not start. Each has one clear line and an exit code."""

import os
import socket

import pytest

import harness

USAGE, CONFIGURATION, RUNNING, UNUSABLE, NO_PRIVILEGE, CANNOT_LISTEN = 2, 3, 4, 5, 6, 7
# Runs a command without the privilege that lets root reopen records.
UNPRIVILEGED = ("setpriv", "--bounding-set=-dac_override,-dac_read_search",
                "--inh-caps=-dac_override,-dac_read_search")

EXPECTED = "a root that qmdisco can write is expected (--root DIR)"


def refusal(*options, **more):
    """Runs a daemon that must not start. Returns its exit code and its line."""
    code, out, err = harness.run("--foreground", *options, **more)
    assert out == ""
    lines = err.splitlines()
    assert len(lines) == 1, err
    return code, lines[0]


@pytest.mark.parametrize("detached", [False, True], ids=["foreground", "detached"])
def test_a_second_daemon_on_one_root(daemon, root, service, detached):
    before = root.log_file.read_text()
    status = root.status()
    code, out, err = harness.run("--root", root, *([] if detached else ["--foreground"]))
    assert (code, out) == (RUNNING, "")
    assert err == "qmdisco: another qmdisco is running on %s (pid %d)\n" % (root, daemon.pid)
    assert root.log_file.read_text() == before
    assert root.status() == status
    assert service._non_existent() is False


def test_a_killed_daemon_is_in_nobodys_way(start, root):
    start(root).kill()
    start(root)


def test_a_port_in_use(root):
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
        root.configure(LISTEN="127.0.0.1:%d" % port)
        code, out, err = harness.run("--root", root)
    assert (code, out) == (CANNOT_LISTEN, "")
    text = cannot_listen(port, root)
    assert err == "qmdisco: %s\n" % text
    assert text in [line.text for line in root.log().lines()] or text in root.log_file.read_text()


def cannot_listen(port, root):
    return ("cannot listen on 127.0.0.1:%d: Address already in use (LISTEN, %s/etc/qm.conf:%d: an "
            "address of this host and a free port are expected)" % (port, root, listen_line(root)))


def listen_line(root):
    lines = (root.path / "etc" / "qm.conf").read_text().split("\n")
    return [line.split(" ")[0] for line in lines].index("LISTEN") + 1


def test_a_root_below_a_file(tmp_path):
    (tmp_path / "file").write_text("")
    path = tmp_path / "file" / "root"
    assert refusal("--root", path) == (
        UNUSABLE, "qmdisco: cannot make the directory %s/run: Not a directory; %s" % (path, EXPECTED))


def test_a_directory_that_is_a_file(root):
    (root.path / "db").write_text("")
    assert refusal("--root", root) == (
        UNUSABLE, "qmdisco: cannot make the directory %s/db/discovery: Not a directory; %s"
        % (root, EXPECTED))


def test_a_root_that_cannot_be_written(root):
    os.chmod(root.path, 0o555)
    assert refusal("--root", root, wrapper=UNPRIVILEGED) == (
        UNUSABLE, "qmdisco: cannot make the directory %s/run: Permission denied; %s" % (root, EXPECTED))


def test_a_log_that_cannot_be_written(root):
    root.log_file.mkdir(parents=True)
    assert refusal("--root", root) == (
        UNUSABLE, "qmdisco: Cannot open log file %s: Is a directory" % root.log_file)


def test_no_privilege_to_reopen_records(root):
    code, out, err = harness.run("--root", root, wrapper=UNPRIVILEGED)
    text = ("cannot reopen a file with permissions 0 in %s: Permission denied; run qmdisco as root "
            "or with CAP_DAC_OVERRIDE" % root.store)
    assert (code, out, err) == (NO_PRIVILEGE, "", "qmdisco: %s\n" % text)
    assert os.listdir(root.store) == []


@pytest.mark.parametrize("options,text", [
    (["--nonsense"], "The following argument was not expected: --nonsense"),
    (["--root"], "--root: 1 required DIR missing"),
    (["--root", ""], "--root: a directory is expected, not an empty name"),
    (["--log-level", "10"], '--log-level: a number from 0 to 9 is expected, not "10"'),
    (["--log-level", "x"], '--log-level: a number from 0 to 9 is expected, not "x"'),
    (["extra"], "The following argument was not expected: extra"),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_wrong_options(options, text):
    code, out, err = harness.run(*options)
    assert (code, out) == (USAGE, "")
    assert err == 'qmdisco: %s ("qmdisco --help" shows the options)\n' % text


def test_version():
    code, out, err = harness.run("--version")
    assert (code, err) == (0, "")
    name, version = out.split()
    assert name == "qmdisco" and version.count(".") == 2


def test_help():
    code, out, err = harness.run("--help")
    assert (code, err) == (0, "")
    for expected in ("--foreground", "--root DIR", "--check-config", "--log-level N", "--version",
                     "--help", "SIGHUP", "Exit codes:", "  4  another qmdisco is running"):
        assert expected in out
