"""The master pulls from clients. The explorers in the clients' services make the data."""

import xml.etree.ElementTree as ElementTree

import harness
from giop import AuthorityType, DiscoveryStatus
from lab.stage import wait_until_pushed
from records import ANY, get, status_of_get, subjects


def pull(stage, client):
    return get(stage.service(stage.master), "%s/now" % client, str(client), ANY)


def last(clients):
    """The client with the explorer that sorts last. The service compares names byte by byte."""
    return max(clients, key=str)


def mounted(document):
    return {item.get("Name") for item in ElementTree.fromstring(document).findall("DISCOVERED")}


def build(stage, clients):
    stage.build(clients)
    # Otherwise the master's own explorer would sort after all of them.
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    return stage


def test_the_master_pulls_through_the_clients_service(stage):
    client = last(build(stage, 3).clients)
    # Mount something on this host only. Each host has its own mount namespace.
    log = client.root.log()
    place = client.path / "mounted here"
    place.mkdir()
    assert client.run("mount", "--bind", place, place).returncode == 0
    document = pull(stage, client)
    assert str(place) in mounted(document)
    assert "%s/now" % client in " ".join(log.texts(level=4, source="../Explorer"))
    # The master stores no pulled data. These files only hold the registrations.
    assert [name for name in stage.master.root.files() if "now.dat" in name] == \
        sorted("4 %s %s%%2Fnow.dat" % (each, each) for each in stage.clients)
    client.run("umount", place)
    assert str(place) not in mounted(pull(stage, client))


def test_only_the_last_can_be_read_by_name(stage):
    clients = build(stage, 2).clients
    first = min(clients, key=str)
    log = stage.master.root.log()
    assert status_of_get(stage.service(stage.master), "%s/now" % first, str(first), ANY) == \
        DiscoveryStatus.DS_LOGIC_ERROR
    assert log.failures("DiscoveryService_i")[0] == (
        "Fount too many matching discoveries for subject %s/now & authority %s" % (first, first))
    assert pull(stage, last(clients))


def test_what_can_be_pulled_survives_a_restart_of_the_master(stage):
    client = last(build(stage, 2).clients)
    assert pull(stage, client)
    for end in (harness.Daemon.stop, harness.Daemon.kill):
        end(stage.daemon(stage.master))
        stage.start(stage.master)
        service = stage.service(stage.master)
        assert subjects(service, type=AuthorityType.AT_REMOTEPULL) == \
            sorted("%s/now" % each for each in stage.clients)
        assert pull(stage, client)
        explorers = harness.wait_for(lambda: stage.master.root.status().get("explorers"),
                                     "the status lists explorers")
        assert {(each["subject"], each["name"]) for each in explorers if each["kind"] == "pull"} == \
            {("%s/now" % each, "RemotePullExplorer") for each in stage.clients}


def test_a_client_whose_daemon_is_down_cannot_be_pulled(stage):
    [client] = build(stage, 1).clients
    assert stage.daemon(client).stop() == 0
    log = stage.master.root.log()
    assert status_of_get(stage.service(stage.master), "%s/now" % client, str(client), ANY) == \
        DiscoveryStatus.DS_OPEN_FAILED
    assert log.failures("../DiscoveryRepository") == ["Failed to connect to remote discovery service"]
    assert log.failures("../Explorer") == ["Failed to connect to discovery service"]
    stage.start(client)
    assert pull(stage, client)


def test_only_the_master_refreshes_all_and_a_client_pushes_when_asked(stage):
    [client] = build(stage, 1).clients
    wait_until_pushed(client, stage.master)
    assert stage.service(client).restartAllPushTimers() is False
    file = stage.master.root.store / ("3 %s %s.xml" % (client, client))
    before, log = file.read_bytes(), client.root.log()
    stage.service(client).restartLocalPushTimer()
    # With this host's name the delay is 0.
    assert log.texts(level=4, source="../DiscoveryRepository")[0] == "triggering push in 0 seconds"
    harness.wait_for(lambda: file.read_bytes() != before, "the new record is stored")
