"""Explorers in a running daemon: their pushes, their pulls, and the effects of bad plug-ins."""

import os
import re
import shutil
import signal
import socket
import subprocess
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape

import pytest

import harness
from giop import AuthorityType, DiscoveryStatus
from records import ANY, get, status_of_get, subjects

BUILD = harness.program().parent.parent
PLUGINS = BUILD / "tests" / "unit" / "plugins"


def libraries(root):
    directory = root.path / "lib"
    (directory / "plugins").mkdir(parents=True, exist_ok=True)
    return directory


@pytest.fixture
def default_explorers(root):
    os.symlink(BUILD / "lib" / "libqmexplorer.so", libraries(root) / "libqmexplorer.so")


def add_plugin(root, name, as_name=None):
    target = libraries(root) / "plugins" / ((as_name or name) + ".so")
    shutil.copy(PLUGINS / (name + ".so"), target)
    return target


def pushed(root, subject):
    """Waits until the daemon's status shows a successful push of the subject."""
    def done():
        return [each for each in root.status().get("explorers", [])
                if each["kind"] == "push" and each["subject"] == subject and
                each["outcome"] == "pushed"]
    return harness.wait_for(done, "%s is pushed" % subject)[0]


def items(document):
    root = ElementTree.fromstring(document)
    assert root.tag == "DiscoveredItems"
    return root.findall("DISCOVERED")


def ctl(root, *arguments, code=0):
    done = subprocess.run([harness.program("qmdiscoctl"), "--root", str(root), *arguments],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60,
                          check=False)
    assert done.returncode == code, done.stderr
    return done.stdout if code == 0 else done.stderr


def test_the_default_library_exports_its_entry_points_alone():
    symbols = subprocess.run(["nm", "-D", "--defined-only", BUILD / "lib" / "libqmexplorer.so"],
                             capture_output=True, text=True, check=True).stdout
    plain = {line.split()[-1] for line in symbols.splitlines() if " T " in line}
    assert {name for name in plain if not name.startswith("_")} == {
        "RegisterExplorers", "RegisterExplorerParsers"}
    assert "QmExplorerKitVersion" in symbols


def test_the_default_explorers_push_and_are_pulled(default_explorers, start, root):
    service = start(root).client()
    explorer = pushed(root, "master1")
    assert explorer["name"] == "FileSystems" and explorer["authority"] == "master1"
    assert explorer["library"] == str(root.path / "lib" / "libqmexplorer.so")
    pushed(root, "filesystem")
    assert {"3 master1 filesystem.xml", "3 master1 master1.xml"} <= set(root.files())
    assert subjects(service) == ["filesystem", "master1", "master1/now"]

    stored, now = get(service, "master1", "master1", ANY), get(service, "master1/now", "master1", ANY)
    for document in (stored, now):
        mounted = {item.get("Name"): item.find("ExplorerData") for item in items(document)}
        with open("/proc/self/mountinfo", encoding="utf-8") as table:
            real = {line.split()[4] for line in table if " - ext4 " in line or " - overlay " in line}
        assert real and real <= set(mounted)
        for data in mounted.values():
            assert data.get("Name") == "FileSystems"
            assert [each.tag for each in data][:3] == ["Device", "Type", "Options"]
            assert all(not each.attrib for each in data)
            assert data.find("ReadOnly").text in ("0", "1")
            assert data.find("Type").text not in ("proc", "sysfs", "tmpfs", "cgroup2")


def test_what_can_be_asked_is_published(default_explorers, start, root):
    service = start(root).client()
    assert pushed(root, "filesystem")["name"] == "FileSystemFilters"
    document = ElementTree.fromstring(get(service, "filesystem", "master1", ANY))
    assert document.tag == "FilterData"
    [description] = document
    assert description.tag == "QueryDescription"
    assert {field.get("Name"): field.get("Type") for field in description} == {
        "host": "text", "mount": "text", "device": "text", "fstype": "text", "type": "text",
        "options": "text", "size": "bytes", "used": "bytes", "full": "number", "readonly": "flag"}


def filter_of(query):
    return "<FilterParameters><QueryString>%s</QueryString></FilterParameters>" % escape(query)


def test_a_pull_is_filtered(default_explorers, start, root):
    service = start(root).client()

    def mounts(text):
        return {item.get("Name") for item in
                items(get(service, "master1/now", "master1", ANY, filter=text))}
    everything = mounts("")
    assert "/" in everything
    assert mounts(filter_of('host = master1 and mount = "/"')) == {"/"}
    assert mounts(filter_of("not (mount = '/')")) == everything - {"/"}
    assert mounts(filter_of("size > 1P or colour = red")) == set()

    log = root.log()
    assert status_of_get(service, "master1/now", "master1", ANY,
                         filter=filter_of("size > ")) == DiscoveryStatus.DS_OPEN_FAILED
    assert log.texts(level=1, source="../FileSystemExplorers") == [
        "The filter cannot be read: column 8: expected a value, found the end of the text"]


def test_what_is_left_out_is_configured(default_explorers, start, root):
    root.configure(FILESYSTEM_EXCLUDE="none")
    service = start(root).client()
    everything = {item.find("ExplorerData/Type").text
                  for item in items(get(service, "master1/now", "master1", ANY))}
    assert "proc" in everything


def test_the_pull_is_switched_off(default_explorers, start, root):
    root.configure(FILESYSTEM_PULL="FALSE")
    service = start(root).client()
    pushed(root, "master1")
    pushed(root, "filesystem")
    assert subjects(service) == ["filesystem", "master1"]
    assert status_of_get(service, "master1/now", "master1", ANY) == DiscoveryStatus.DS_NONE_FOUND


def test_a_refresh_pushes_again_within_a_minute(default_explorers, start, root):
    daemon = start(root)
    pushed(root, "master1")
    log = root.log()
    ctl(root, "refresh")
    [text] = log.texts(level=4, source="../DiscoveryRepository")
    # The delay depends on the number at the start of the host's name.
    seconds = int(text.removeprefix("triggering push in ").removesuffix(" seconds"))
    assert 0 <= seconds < 60
    status = harness.wait_for(lambda: root.status().get("nextPush") and root.status(),
                              "the status shows the next push")
    assert status["nextPush"]
    assert daemon.stop() == 0


def test_the_command_line_lists_them(default_explorers, start, root):
    start(root)
    pushed(root, "master1")
    table = ctl(root, "explorers").splitlines()
    assert table[0].split() == ["KIND", "SUBJECT", "AUTHORITY", "TYPE", "PRIORITY", "EXPLORER",
                                "LAST", "OUTCOME", "LIBRARY"]
    assert [line.split()[:6] for line in table[1:4]] == [
        ["push", "filesystem", "master1", "extsrc", "1", "FileSystemFilters"],
        ["push", "master1", "master1", "extsrc", "1", "FileSystems"],
        ["pull", "master1/now", "master1", "extsrc", "1", "FileSystems"]]
    assert table[4].startswith("next push: ")


def test_an_expired_push_is_stored_again_by_the_next(default_explorers, start, root):
    """After a restart the daemon pushes at once. The push replaces a record that has expired."""
    daemon = start(root)
    pushed(root, "master1")
    daemon.stop()
    metadata = root.store / "3 master1 master1.xml"
    expired, count = re.subn("(?<=<ExpiresTime>)[0-9.]+", "1000.000000", metadata.read_text())
    assert count == 1
    metadata.write_text(expired)
    service = start(root).client()
    pushed(root, "master1")
    assert items(get(service, "master1", "master1", ANY))
    assert "has expired" not in (root.path / "logs" / "qmdisco.log").read_text()


def test_bad_plugins_are_named_and_keep_nobody_out(default_explorers, start, root):
    paths = {name: add_plugin(root, name) for name in
             ("throwing", "throwing_odd", "newer", "older", "unresolved", "empty", "good")}
    garbage = libraries(root) / "plugins" / "garbage.so"
    garbage.write_text("no library")
    daemon = start(root)
    log = (root.path / "logs" / "qmdisco.log").read_text()
    for text in ("%s: RegisterExplorers failed: thrown by throwing" % paths["throwing"],
                 "%s: RegisterExplorers failed: it threw something that is no exception"
                 % paths["throwing_odd"],
                 "%s was built for version 99 of the kit, this is version 1" % paths["newer"],
                 "%s was built for version 0 of the kit, this is version 1" % paths["older"],
                 "Unable to load %s: " % paths["unresolved"], "Unable to load %s: " % garbage,
                 "Did not found the explorer interface on plugin %s" % paths["empty"],
                 "Registration of explorers in %s completed" % paths["good"]):
        assert text in log, text
    assert get(daemon.client(), "master1/now", "master1", ANY)
    assert daemon.stop() == 0


def test_a_stop_in_the_middle_of_a_load(root):
    """The daemon stops in order, even during a slow registration."""
    for number in range(20):
        add_plugin(root, "slow", "slow%02d" % number)
    with harness.Daemons() as daemons:
        daemon = daemons.launch(root)
        harness.wait_for(lambda: "Entering" in daemon.stderr(), "a plug-in is entered")
        assert daemon.stop() == 0


def test_explorers_of_another_host_survive_a_restart(start, root):
    daemon = start(root)
    daemon.client().registerExplorer("DiscoveryService", "client1", "cl1/now", "cl1",
                                     AuthorityType.AT_EXTSRC, 5)
    assert root.files() == ["4 cl1 cl1%2Fnow.dat", "4 cl1 cl1%2Fnow.xml"]
    daemon.kill()
    service = start(root).client()
    assert subjects(service) == ["cl1/now"]
    assert subjects(service, type=AuthorityType.AT_REMOTEPULL) == ["cl1/now"]
    [explorer] = harness.wait_for(lambda: root.status().get("explorers"),
                                  "the status lists the explorer")
    assert (explorer["kind"], explorer["name"], explorer["priority"]) == ("pull", "RemotePullExplorer", 5)


def test_a_client_without_a_master_does_not_push(default_explorers, start, root):
    root.configure(CLIENT_NAME="95client", SERVER=None)
    daemon = start(root)
    log_file = root.path / "logs" / "qmdisco.log"
    harness.wait_for(lambda: "Cannot find master server name, cannot register explorers"
                     in log_file.read_text(), "the register timer has run")
    assert root.files() == []
    service = daemon.client()
    assert items(get(service, "95client/now", "95client", ANY))
    assert daemon.stop(signal.SIGINT) == 0


def test_a_client_registers_with_its_master_and_then_pushes(start, tmp_path):
    with socket.create_server(("127.0.0.1", 0)) as free:
        endpoint = "127.0.0.1:%d" % free.getsockname()[1]
    master_root = harness.Root(tmp_path / "master", **{"ENDPOINT.96client": endpoint})
    master = start(master_root)
    client_root = harness.Root(tmp_path / "client", CLIENT_NAME="96client", SERVER="master1",
                               LISTEN=endpoint, **{"ENDPOINT.master1": master.endpoint})
    os.symlink(BUILD / "lib" / "libqmexplorer.so", libraries(client_root) / "libqmexplorer.so")
    client = start(client_root)
    log_file = client_root.path / "logs" / "qmdisco.log"
    harness.wait_for(lambda: "Successfully registered explorers with master" in log_file.read_text(),
                     "the client is registered")
    assert {"4 96client 96client%2Fnow.dat", "4 96client 96client%2Fnow.xml"} <= \
        set(master_root.files())
    # After that the client pushes to the master, and the master can pull from the client.
    pushed(client_root, "96client")
    pushed(client_root, "filesystem")
    assert "3 96client 96client.dat" in master_root.files()
    assert "96client.dat" not in client_root.files()
    service = master.client()
    assert items(get(service, "96client", "96client", ANY))
    assert items(get(service, "96client/now", "96client", ANY))
    # The master answers a query on the client.
    assert subjects(client.client()) == subjects(service) == \
        ["96client", "96client/now", "filesystem"]
    assert client.stop() == 0


def test_a_stop_in_the_middle_of_a_push_waits_for_it(start, root):
    """The push takes two seconds. The daemon still ends in order."""
    add_plugin(root, "sleeper")
    daemon = start(root)
    harness.wait_for(lambda: "Entering Explorer Sleeper" in daemon.stderr() and
                     "pushCollection" in daemon.stderr(), "the push has begun")
    assert daemon.stop() == 0


def test_a_push_that_hangs_is_cut_short_at_the_stop_limit(root):
    root.configure(STOP_LIMIT=1)
    path = add_plugin(root, "sleeper")
    with harness.Daemons() as daemons:
        daemon = daemons.launch(root, environment={"QM_SLEEPER_SECONDS": "1000"})
        daemon.wait_until_up()
        harness.wait_for(lambda: "pushCollection for" in daemon.stderr(), "the push has begun")
        assert daemon.stop() == 9
        assert "Entering Explorer Sleeper of %s, pushCollection" % path in daemon.stderr()


def test_a_stop_in_the_middle_of_a_pull(start, root):
    add_plugin(root, "sleeper")
    daemon = start(root)
    reader = subprocess.Popen([harness.program("qmdiscoctl"), "--root", str(root), "get",
                               "master1/sleep", "master1"], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        harness.wait_for(lambda: "collectionRequested for" in daemon.stderr(), "the pull has begun")
        assert daemon.stop() == 0
    finally:
        reader.kill()
        reader.wait(60)
