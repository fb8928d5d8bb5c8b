"""A real client uses a fake master, which gives wrong answers. The client logs them and goes on."""

import pytest

from giop import DiscoveryStatus
from lab.stage import REGISTERED
from records import SUCCESS, open_writer, put, query, record, subjects
from stranger import Stranger

NO_MEMORY = "NO_MEMORY (minor 0x00000007, COMPLETED_NO)"
QUERY_FAILED = "Failed to query remote discoveries: "


@pytest.fixture
def lab(stage):
    """(stage, client, its service, its log). The tests put the fake master on its host."""
    # The client registers only after minutes, so only the test calls the fake master.
    [client] = stage.build(["client"]).clients
    client.configure(REMOTE_MAX_RECORDS=100)
    stage.start(client)
    yield stage, client, stage.service(client), client.root.log()
    assert stage.daemon(client).stop() == 0
    assert REGISTERED not in client.root.log_file.read_text()


def failure(log):
    """The only line about a failure in the client's log."""
    [text] = log.failures("../DiscoveryRepository")
    return text


def test_a_good_one_is_understood(lab):
    stage, _, service, log = lab
    for little in (True, False):
        with Stranger(stage.master, little=little) as stranger:
            assert subjects(service, subject="volumes") == ["volumes"]
            assert stranger.asked == ["queryDiscoveries", "getNextPage", "getNextPage", "release"]
            assert put(service, "volumes", "a", b"x" * 2500) == SUCCESS
            assert stranger.asked[4:] == ["putCollection", "put", "put", "put", "close"]
    assert log.failures() == []


@pytest.mark.parametrize("how, says", [
    ("query_throw", NO_MEMORY), ("page_throw", NO_MEMORY),
    ("query_nil", "the service answered without an iterator"),
    ("page_nameless", "a record came without a subject or an authority"),
    ("page_endless", "a query may yield 100 records (REMOTE_MAX_RECORDS), this one yields more"),
    ("query_garbage", "MARSHAL"), ("page_garbage", "MARSHAL"), ("page_huge", "MARSHAL"),
    ("query_hang-up", "COMM_FAILURE"), ("page_hang-up", "COMM_FAILURE"),
    ("query_half", "COMM_FAILURE"), ("page_half", "COMM_FAILURE"),
])
def test_a_list_is_whole_or_a_failure(lab, how, says):
    stage, _, service, log = lab
    with Stranger(stage.master):
        assert query(service, subject=how) == []
        assert failure(log).startswith(QUERY_FAILED + says)
        assert subjects(service, subject="volumes") == ["volumes"]


def test_a_release_that_fails_harms_nothing(lab):
    stage, _, service, log = lab
    with Stranger(stage.master):
        for how in ("release_throw", "release_hang-up", "release_half"):
            assert subjects(service, subject=how) == [how]
    assert log.failures() == []


def test_names_that_are_no_text(lab):
    stage, _, service, _ = lab
    with Stranger(stage.master):
        assert len(query_or_nothing(service, "page_odd")) in (0, 2)
        assert subjects(service, subject="volumes") == ["volumes"]


def query_or_nothing(service, subject):
    """The names may be invalid text. The tests' own reader may fail then, but not the daemon."""
    try:
        return query(service, subject=subject)
    except UnicodeDecodeError:
        return []


def test_an_object_of_another_kind(lab):
    stage, _, service, log = lab
    with Stranger(stage.master, is_a=False):
        assert query(service) == []
    assert log.failures("../DiscoveryRepository") == [
        "Failed to connect to remote discovery service ( narrow failed ) ",
        "Failed to connect to discovery service"]


@pytest.mark.parametrize("how, says", [
    ("refused", "Failed to open the collection data: 5"),
    ("put-collection_throw", "Caught CORBA Exception while saving collection data: " + NO_MEMORY),
    ("put-collection_garbage", "Caught CORBA Exception while saving collection data: MARSHAL"),
    ("put-collection_hang-up", "Caught CORBA Exception while saving collection data: COMM_FAILURE"),
])
def test_a_writer_that_cannot_be_had(lab, how, says):
    stage, _, service, log = lab
    with Stranger(stage.master):
        result, writer = service.putCollection(record(how, "a"))
        assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
        [text] = log.failures("../RemoteDB")
        assert text.startswith(says)
        assert put(service, "volumes", "a", b"x") == SUCCESS


@pytest.mark.parametrize("how, says", [
    ("put_false", "Failed to write buffer"),
    ("put_throw", "Caught CORBA Exception during remote write: " + NO_MEMORY),
    ("put_hang-up", "Caught CORBA Exception during remote write: COMM_FAILURE"),
    ("put_half", "Caught CORBA Exception during remote write: COMM_FAILURE"),
])
def test_a_put_that_fails(lab, how, says):
    stage, _, service, log = lab
    with Stranger(stage.master) as stranger:
        writer = open_writer(service, record(how, "a"))
        assert writer.put(b"x") is False
        assert writer.close().discStatus == DiscoveryStatus.DS_COM_ERROR
        texts = log.failures("../RemoteDB")
        assert texts[0].startswith(says)
        assert texts[1:] == ["A collection that lost bytes on its way is not persisted"]
        assert "close" not in stranger.asked
        assert put(service, "volumes", "a", b"x") == SUCCESS


@pytest.mark.parametrize("how, says", [
    ("close_throw", NO_MEMORY), ("close_garbage", "MARSHAL"), ("close_hang-up", "COMM_FAILURE")])
def test_a_close_that_fails(lab, how, says):
    stage, _, service, log = lab
    with Stranger(stage.master):
        assert put(service, how, "a", b"x") == DiscoveryStatus.DS_COM_ERROR
        [text] = log.failures("../RemoteDB")
        assert text.startswith("Caught CORBA Exception while persisting discoveries: " + says)
        assert put(service, "volumes", "a", b"x") == SUCCESS


def test_success_without_a_writer(lab):
    """The client opens the record, but every write fails."""
    stage, client, service, log = lab
    with Stranger(stage.master):
        writer = open_writer(service, record("put-collection_nil", "a"))
        assert writer.put(b"x") is False
        assert writer.close().discStatus != SUCCESS
    assertions = [line.text for line in log.lines() if line.operation == "assertion"]
    assert ["NULL != m_writer" in text or "NULL != cd->m_writer" in text for text in assertions] == \
        [True, True], client
