"""Queries on a client: the master answers them, and the client divides the answer into pages."""

import os

import harness
from giop import DiscoveryQuery
from lab.stage import wait_for_text, wait_until_pushed, wait_until_registered
from records import ANY, SUCCESS, get, put, query, record, subjects

CANNOT_CONNECT = "Failed to connect to remote discovery service"


def pages(service, authority):
    iterator = service.queryDiscoveries(DiscoveryQuery.DQ_DISCOVERY_DATA, ANY, authority, "*")
    found = iterator.pages()
    iterator.release()
    return found


def test_the_master_answers_and_the_client_pages(stage):
    [client] = stage.build(1).clients
    stage.start_all()
    master, mine = stage.service(stage.master), stage.service(client)
    data = {"s%02d" % number: os.urandom(100 * number) for number in range(20)}
    for subject, payload in data.items():
        assert put(master, subject, "a", payload) == SUCCESS
    found = pages(mine, "a")
    assert [len(page) for page in found] == [9, 9, 2]
    records = [each for page in found for each in page]
    assert sorted(each.subject for each in records) == sorted(data)
    # A caller reads the data from the host that the page names. A client's pages name the client.
    assert {each.sourceHost for each in records} == {str(client)}
    assert {each.sourceHost for page in pages(master, "a") for each in page} == {"master"}
    for each in records:
        assert get(master, each.subject, each.authority) == data[each.subject]
    assert client.root.files() == []


def test_two_clients_see_the_same(stage):
    one, other = stage.build(2).clients
    stage.start_all()
    for host in (stage.master, one, other):
        wait_until_pushed(host, stage.master)
    assert put(stage.service(one), "volumes", "a", b"x") == SUCCESS
    names = subjects(stage.service(stage.master))
    assert "volumes" in names
    assert subjects(stage.service(one)) == subjects(stage.service(other)) == names


def test_a_client_gives_data_from_its_own_explorers_alone(stage):
    [client] = stage.build(1).clients
    stage.start_all()
    assert put(stage.service(client), "volumes", "a", b"x") == SUCCESS
    log = client.root.log()
    status, iterator = stage.service(client).getCollectionData(record("volumes", "a"))
    assert (status.name, iterator) == ("DS_NONE_FOUND", None)
    assert log.failures("DiscoveryService_i") == [
        "Null iterator returned. Fount no discoveries for subject volumes & authority a"]
    assert get(stage.service(client), "%s/now" % client, str(client), ANY)


def test_a_master_that_is_down_is_reported_and_comes_back(stage):
    [client] = stage.build(1).clients
    stage.start_all()
    mine = stage.service(client)
    assert put(mine, "volumes", "a", b"before") == SUCCESS
    assert stage.daemon(stage.master).stop() == 0

    log = client.root.log()
    assert query(mine) == []
    assert log.failures("../DiscoveryRepository") == [
        CANNOT_CONNECT, "Failed to connect to discovery service"]
    log = client.root.log()
    assert mine.putCollection(record("volumes", "a"))[0].discStatus.name == "DS_OPEN_FAILED"
    assert log.failures("../DiscoveryRepository") == [CANNOT_CONNECT]
    assert log.failures("../RemoteDB") == ["Failed to connect to discovery service"]

    stage.start(stage.master)
    assert "volumes" in subjects(mine)
    assert put(mine, "volumes", "a", b"after") == SUCCESS
    assert get(stage.service(stage.master), "volumes", "a") == b"after"


def test_a_master_that_was_restarted_is_found_by_the_first_query(stage):
    """The client still has connections to the old process of the master."""
    [client] = stage.build(1).clients
    stage.start_all()
    mine = stage.service(client)
    for end in (harness.Daemon.stop, harness.Daemon.kill):
        assert put(mine, "volumes", "a", b"x") == SUCCESS
        end(stage.daemon(stage.master))
        stage.start(stage.master)
        assert "volumes" in subjects(mine)


def test_a_client_that_comes_before_its_master(stage):
    """The client tries again every five minutes. A client that starts after the master registers at
    its first try."""
    [client] = stage.build(1).clients
    daemon = stage.start(client)
    wait_for_text(client, "Failed to connect to discovery service on the master, retrying later")
    assert daemon.stop() == 0
    assert "explorers with master server" in client.root.log_file.read_text()
    stage.start(stage.master)
    assert [name for name in stage.master.root.files() if str(client) in name] == []
    stage.start(client)
    wait_until_registered(client)
    assert "%s/now" % client in subjects(stage.service(stage.master))


def test_a_master_with_an_unknown_name(stage):
    [client] = stage.build(1).clients
    client.configure(SERVER="nowhere.invalid")
    stage.start(client)
    log = client.root.log()
    assert query(stage.service(client)) == []
    assert [text for text in log.failures("../DiscoveryRepository")] == [
        CANNOT_CONNECT, "Failed to connect to discovery service"]
