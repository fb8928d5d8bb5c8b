"""The master stores the records that clients write. The clients store nothing."""

import xml.etree.ElementTree as ElementTree

import harness
from giop import DiscoveryStatus
from lab.stage import wait_for_text, wait_until_stored, wait_until_registered
from records import ANY, SUCCESS, get, open_writer, put, record, subjects


def mounted(document):
    """The mount points in the default explorer's document."""
    return {item.get("Name") for item in ElementTree.fromstring(document).findall("DISCOVERED")}


def test_a_push_lands_in_the_masters_store(stage):
    [client] = stage.build(1).clients
    stage.start_all()
    wait_until_stored(client, stage.master)
    name = "%s" % client
    document = get(stage.service(stage.master), name, name, ANY)
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        real = {line.split()[4] for line in table if " - ext4 " in line or " - overlay " in line}
    assert real and real <= mounted(document)
    assert client.root.files() == []


def test_what_is_written_to_a_client_is_the_masters(stage):
    [client] = stage.build(1).clients
    stage.start_all()
    data = bytes(range(256)) * 20
    assert put(stage.service(client), "volumes", "someone", data, chunk=3000, priority=7) == SUCCESS
    assert "1 someone volumes.xml" in stage.master.root.files()
    assert b"<Priority>7</Priority>" in (stage.master.root.store /
                                         "1 someone volumes.xml").read_bytes()
    assert get(stage.service(stage.master), "volumes", "someone") == data
    assert client.root.files() == []


def test_names_of_any_language_travel(stage):
    [client] = stage.build(1).clients
    stage.start_all()
    assert put(stage.service(client), "données/日本", "ü ä%", b"x") == SUCCESS
    assert get(stage.service(stage.master), "données/日本", "ü ä%") == b"x"


def test_the_higher_priority_wins_whatever_the_order(stage):
    """If the master refuses a writer, the client answers DS_OPEN_FAILED. The client logs the
    master's answer."""
    one, other = stage.build(2).clients
    stage.start_all()
    master, mine, theirs = (stage.service(host) for host in (stage.master, one, other))
    assert put(mine, "first", "a", b"low", priority=4) == SUCCESS
    assert put(theirs, "first", "a", b"high", priority=5) == SUCCESS
    assert get(master, "first", "a") == b"high"

    assert put(mine, "last", "a", b"high", priority=5) == SUCCESS
    log = other.root.log()
    result, writer = theirs.putCollection(record("last", "a", priority=4))
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    assert log.failures("../RemoteDB") == ["Failed to open the collection data: 5"]
    assert master.putCollection(record("last", "a", priority=4))[0].discStatus == \
        DiscoveryStatus.DS_DATA_EXISTS
    assert get(master, "last", "a") == b"high"


def test_the_lower_priority_is_refused_when_both_write_at_once(stage):
    one, other = stage.build(2).clients
    stage.start_all()
    low = open_writer(stage.service(one), record("both", "a", priority=4))
    high = open_writer(stage.service(other), record("both", "a", priority=5))
    assert low.put(b"low") and high.put(b"high")
    assert high.close().discStatus == SUCCESS
    assert low.close().discStatus == DiscoveryStatus.DS_DATA_EXISTS
    assert get(stage.service(stage.master), "both", "a") == b"high"
    assert sorted(name for name in stage.master.root.files() if "both" in name) == \
        ["1 a both.dat", "1 a both.xml"]


def test_a_client_that_knows_no_master_pushes_nothing(stage):
    [client] = stage.build(1).clients
    client.configure(SERVER=None)
    stage.start(stage.master)
    stage.start(client)
    wait_for_text(client, "Cannot find master server name, cannot register explorers")
    log = client.root.log()
    service = stage.service(client)
    assert subjects(service) == []
    result, writer = service.putCollection(record("volumes", "a"))
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    texts = log.failures("../DiscoveryRepository")
    assert texts[:2] == [
        "Unable to obtain master server name",
        "Cannot find master server name, abort connecting to master discovery service"]
    assert log.failures("../RemoteDB") == ["Failed to connect to discovery service"]
    assert client.root.files() == []
    assert [name for name in stage.master.root.files() if str(client) in name] == []
    assert [each["outcome"] for each in client.root.status()["explorers"]
            if each["kind"] == "push"] != ["pushed"]


def test_over_ipv6(stage):
    [client] = stage.build(1, version=6).clients
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    wait_until_stored(client, stage.master)
    assert ":" in stage.daemon(stage.master).address[0]
    assert put(stage.service(client), "volumes", "a", b"six") == SUCCESS
    service = stage.service(stage.master)
    assert get(service, "volumes", "a") == b"six"
    assert get(service, "%s/now" % client, str(client), ANY)


def test_a_client_that_starts_anew_registers_and_pushes_anew(stage):
    [client] = stage.build(1).clients
    stage.start_all()
    wait_until_stored(client, stage.master)
    file = stage.master.root.store / ("3 %s %s.xml" % (client, client))
    before = file.read_bytes()
    assert stage.daemon(client).stop() == 0
    stage.start(client)
    wait_until_registered(client, times=2)
    harness.wait_for(lambda: file.read_bytes() != before, "the new record is stored")
