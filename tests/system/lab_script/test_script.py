"""Tests of scripts/lab. They use it as a person does."""

import os
import pathlib
import signal
import subprocess

import pytest

import harness
from lab import Lab, LabError, prompt_names, why_not
from lab.process import daemons_under, start_time

SCRIPT = harness.TOP / "scripts" / "lab"
LIMIT = 240


@pytest.fixture(autouse=True)
def can_make_labs():
    reason = why_not()
    if reason:
        pytest.skip(reason)


class Script:
    """Runs scripts/lab with its files in a directory of the test."""

    def __init__(self, directory):
        self.directory = directory
        self._environment = {**os.environ, "TMPDIR": str(directory)}

    def start(self, *arguments, name="one"):
        preset = pathlib.Path(os.environ.get("QM_BUILD_DIR", "build/dev")).name
        return subprocess.Popen(
            [SCRIPT, "--preset", preset, "--name", name, *arguments], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self._environment)

    def __call__(self, *arguments, code=0, name="one"):
        with self.start(*arguments, name=name) as process:
            out, err = process.communicate(timeout=LIMIT)
        assert process.returncode == code, err
        return out if code == 0 else err

    def status_of(self, *arguments):
        with self.start(*arguments) as process:
            process.communicate(timeout=LIMIT)
        return process.returncode

    def lab(self, name="one"):
        return self.directory / ("quillmark-lab-" + name)

    def noted(self, name="one"):
        """[(kind, pid, start time)] from the lab's list of processes."""
        lines = (self.lab(name) / "processes").read_text().splitlines()
        return [(kind, int(pid), int(start)) for kind, _, pid, start in map(str.split, lines)]

    def links(self, name="one"):
        """{host: state of its link}"""
        lines = self("status", name=name).splitlines()[1:]
        return {line.split()[0]: line[34:57].strip() for line in lines}


@pytest.fixture
def script(tmp_path):
    made = Script(tmp_path)
    yield made
    for directory in tmp_path.glob("quillmark-lab-*"):
        made("down", name=directory.name.removeprefix("quillmark-lab-"))


def running(noted):
    return [pid for _, pid, start in noted if start_time(pid) == start]


def test_a_round(script):
    client, other = prompt_names(2)
    script("up", "2")
    assert script.links() == {"master": "up", client: "up", other: "up"}
    assert script("exec", client, "hostname").strip() == client
    assert script("exec", client, "getent", "hosts", "master").split() == ["10.77.0.1", "master"]
    assert script("exec", other, "sh", "-c", "echo $QUILLMARK_ROOT").strip() == \
        str(script.lab() / other)

    def everybody_is_seen():
        return {"master", client, other} <= set(script("exec", "master", "qmdiscoctl", "query").split())
    harness.wait_for(everybody_is_seen, "all hosts have pushed")

    script("cut", client)
    script("slow", other, "64kbit")
    assert script.links() == {"master": "up", client: "cut", other: "slow, 64 kbit/s"}
    reach = ["python3", "-c", "import socket; socket.create_connection(('master', 14400), 1)"]
    script("exec", client, *reach, code=1)
    script("heal", client)
    script("heal", other)
    assert script.links() == {"master": "up", client: "up", other: "up"}
    # The client needs some time until it finds the master again.
    harness.wait_for(lambda: script.status_of("exec", client, *reach) == 0,
                     "the client reaches the master")

    noted = script.noted()
    assert len(running(noted)) >= 7  # keepers of the bridge and of three hosts, three daemons
    script("down")
    assert running(noted) == []
    assert not script.lab().exists()
    assert script("down", code=1) == "scripts/lab: there is no lab (%s)\n" % script.lab()


def test_the_machine_s_own_network_is_left_alone(script):
    def links():
        return subprocess.run(["ip", "-oneline", "link"], capture_output=True, text=True,
                              check=True).stdout.count("\n")
    before = links()
    script("up", "1")
    assert links() == before


def test_two_labs_at_once(script):
    [client] = prompt_names(1)
    script("up", "1")
    script("up", "1", name="two")
    script("cut", client)
    assert script.links(name="two")[client] == "up"
    script("down")
    assert script("exec", client, "hostname", name="two").strip() == client


def test_a_second_up_changes_nothing(script):
    script("up", "0")
    noted = script.noted()
    assert script("up", "0", code=1) == \
        "scripts/lab: there is a lab already (%s): take it down first\n" % script.lab()
    assert len(running(noted)) == len(noted)


def test_what_is_not_understood(script):
    script("up", "0")
    assert script("cut", "nobody", code=1) == \
        "scripts/lab: there is no host nobody; there are: master\n"
    assert "RATE" in script("slow", "master", code=2)
    assert script("slow", "master", "fast", code=1).startswith("scripts/lab: tc qdisc replace dev ")
    assert "scripts/lab: error: no command to run on master" in script("exec", "master", code=2)
    script("exec", "master", "false", code=1)


@pytest.mark.parametrize("number, code", [(signal.SIGINT, 130), (signal.SIGTERM, 130),
                                          (signal.SIGKILL, -9)])
def test_an_up_that_is_interrupted_leaves_nothing(script, number, code):
    process = script.start("up", "10")

    def amid():
        assert process.poll() is None
        return daemons_under(script.lab())
    harness.wait_for(amid, "a daemon is being started")
    noted = script.noted()
    process.send_signal(number)
    _, err = process.communicate(timeout=LIMIT)
    assert process.returncode == code, err
    if number == signal.SIGKILL:  # `up` could not clean up, so `down` must do it
        script("down")
    assert running(noted) == []
    assert daemons_under(script.lab()) == {}
    assert not script.lab().exists()


def test_a_daemon_that_does_not_come_up(tmp_path):
    with Lab(tmp_path / "lab") as lab:
        lab.claim()
        lab.make([])
        lab.master.configure(LISTEN="192.0.2.1:14400")
        with pytest.raises(LabError, match=r"no daemon on master \(exit code 7\): .*192\.0\.2\.1"):
            lab.start_daemons()
    assert not (tmp_path / "lab").exists()


def test_a_host_that_is_gone(script):
    script("up", "0")
    os.kill(next(pid for kind, pid, _ in script.noted() if kind == "keeper"), signal.SIGKILL)
    assert "take it down" in script("status", code=1)
    script("down")


def test_it_says_what_it_lacks(monkeypatch):
    monkeypatch.setattr(os, "geteuid", lambda: 1000)
    assert why_not() == "a lab needs root: it makes network namespaces"
    monkeypatch.undo()
    monkeypatch.setenv("PATH", "/nowhere")
    assert why_not() == "ip is missing: install Debian's iproute2 (scripts/setup does)"


def test_names_that_register_soon():
    """The C library gives the same delays at every start."""
    names = prompt_names(200)
    assert len(set(names)) == 200 and names[:4] == ["4client", "23client", "95client", "96client"]
    assert prompt_names(2, soon=0)[0] == "95client"


def test_hosts_that_share_the_loopback(script):
    """This lab needs no namespaces. One host has a different configuration key."""
    [client] = prompt_names(1)
    script("up", "1", "--network", "loopback", "--set", "master:FILESYSTEM_PULL=FALSE")
    assert script.links() == {"master": "loopback", client: "loopback"}
    assert "FILESYSTEM_PULL = FALSE\n" in (script.lab() / "master" / "etc" / "qm.conf").read_text()

    def registered():
        return client in script("exec", "master", "qmdiscoctl", "clients", "--registered")
    harness.wait_for(registered, "the client has registered")
    assert script("cut", client, code=1) == \
        "scripts/lab: %s has no link of its own on the loopback\n" % client
    noted = script.noted()
    assert len(running(noted)) == 2
    script("down", "--keep")
    assert running(noted) == []
    assert (script.lab() / client / "logs" / "qmdisco.log").exists()


def test_a_lab_with_tls(script):
    """Each host has its own key, and its configuration names it."""
    [client] = prompt_names(1)
    script("up", "1", "--tls", "--set", "master:LOG_LEVEL=5")
    tls = script.lab() / "tls"
    for host in ("master", client):
        text = (script.lab() / host / "etc" / "qm.conf").read_text()
        assert "TLS = required\nTLS_CERTIFICATE = %s/%s/certificate.pem\n" % (tls, host) + \
            "TLS_KEY = %s/%s/key.pem\nTLS_CA = %s/ca.pem\n" % (tls, host, tls) in text
        assert (tls / host / "key.pem").stat().st_mode & 0o777 == 0o600
    assert "LOG_LEVEL = 5\n" in (script.lab() / "master" / "etc" / "qm.conf").read_text()
    assert script("exec", client, "openssl", "verify", "-CAfile", tls / "ca.pem", "-verify_ip",
                  "10.77.0.1", "-verify_hostname", "master", tls / "master" / "certificate.pem")

    def everybody_is_seen():
        return {"master", client} <= set(script("exec", client, "qmdiscoctl", "query").split())
    harness.wait_for(everybody_is_seen, "all hosts have pushed")


@pytest.mark.parametrize("setting,message", [
    ("nobody:LOG_LEVEL=1", "there is no host nobody; there are: master 4client"),
    ("LOG_LEVEL=1", "invalid setting value: 'LOG_LEVEL=1'")])
def test_a_setting_that_means_nothing_is_refused(script, setting, message):
    code = 2 if "invalid" in message else 1
    assert message in script("up", "1", "--set", setting, code=code)
    assert not script.lab().exists()


def test_a_daemon_that_was_started_by_hand_is_ended_as_well(script):
    [client] = prompt_names(1)
    script("up", "1")
    script("exec", client, "qmdiscoctl", "stop", "--host", client)
    script("exec", client, "qmdisco")
    assert client in daemons_under(script.lab())
    script("down")
    assert daemons_under(script.lab()) == {}
