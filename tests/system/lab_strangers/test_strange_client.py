"""A real master pulls from a fake client, which gives wrong answers."""

import pytest

from giop import AuthorityType, DiscoveryStatus, HangUp
from records import ANY, get, record
from stranger import Stranger

NO_MEMORY = "NO_MEMORY (minor 0x00000007, COMPLETED_NO)"
READ_FAILED = "Caught CORBA Exception while reading collection data: "
QUERY_FAILED = "Caught CORBA Exception while querying for discoveries: "


@pytest.fixture
def lab(stage):
    """(the stage, the client's host, the master's service, its log)"""
    [client] = stage.build(["stranger"]).clients
    stage.master.configure(FILESYSTEM_PULL="FALSE", REMOTE_MAX_BYTES=4096, REMOTE_MAX_RECORDS=100)
    stage.start(stage.master)
    yield stage, client, stage.service(stage.master), stage.master.root.log()
    assert stage.daemon(stage.master).stop() == 0
    assert stage.master.root.status()["assertions"] == 0


def pulled(service, subject):
    """Registers an explorer of the fake client for the subject, and reads its data."""
    service.registerExplorer("DiscoveryService", "stranger", subject, "a",
                             AuthorityType.AT_EXTSRC, 5)
    return service.getCollectionData(record(subject, "a", ANY))


def test_a_good_one_is_pulled_from(lab):
    _, client, service, log = lab
    for little in (True, False):
        with Stranger(client, little=little) as stranger:
            service.registerExplorer("DiscoveryService", "stranger", "volumes", "a",
                                     AuthorityType.AT_EXTSRC, 5)
            assert get(service, "volumes", "a", ANY) == b"123456789"
            # The master opens the data twice and never sets the page size.
            assert stranger.asked == ["queryDiscoveries", "getNextPage", "getNextPage", "release"] + \
                2 * ["getCollectionData", "getNextPage", "getNextPage", "getNextPage", "release"]
    assert log.failures("../RemoteDB") == []


@pytest.mark.parametrize("how, source, says", [
    ("query_throw", "../Explorer", QUERY_FAILED + NO_MEMORY),
    ("query_garbage", "../Explorer", QUERY_FAILED + "MARSHAL"),
    ("query_hang-up", "../Explorer", QUERY_FAILED + "COMM_FAILURE"),
    ("query_nil", "../Explorer", QUERY_FAILED + "the service answered without an iterator"),
    ("page_throw", "../Explorer", QUERY_FAILED + NO_MEMORY),
    ("page_endless", "../Explorer", QUERY_FAILED + "a query may yield 100 records "
                                                   "(REMOTE_MAX_RECORDS), this one yields more"),
    ("page_huge", "../Explorer", QUERY_FAILED + "MARSHAL"),
    ("page_half", "../Explorer", QUERY_FAILED + "COMM_FAILURE"),
    ("get_throw", "../RemoteDB", READ_FAILED + NO_MEMORY),
    ("get_garbage", "../RemoteDB", READ_FAILED + "MARSHAL"),
    ("get_hang-up", "../RemoteDB", READ_FAILED + "COMM_FAILURE"),
    ("get_nil", "../RemoteDB", "The service answered with success and no iterator"),
    ("data_throw", "../RemoteDB", READ_FAILED + NO_MEMORY),
    ("data_garbage", "../RemoteDB", READ_FAILED + "MARSHAL"),
    ("data_huge", "../RemoteDB", READ_FAILED + "MARSHAL"),
    ("data_hang-up", "../RemoteDB", READ_FAILED + "COMM_FAILURE"),
    ("data_half", "../RemoteDB", READ_FAILED + "COMM_FAILURE"),
    ("data_empty", "../RemoteDB", "Collection data returned has no data"),
    ("data_large", "../RemoteDB",
     "A page of 2049 bytes does not fit in a cache of 2048 with 0 in use"),
    ("data_endless", "../RemoteDB", "A collection of another host may have 4096 bytes "
                                    "(REMOTE_MAX_BYTES), this one has more"),
])
def test_a_wrong_answer_is_logged_and_harms_nothing(lab, how, source, says):
    _, client, service, log = lab
    with Stranger(client):
        status, iterator = pulled(service, how)
        assert (status, iterator) == (DiscoveryStatus.DS_OPEN_FAILED, None)
        assert log.failures(source)[0].startswith(says)
        # This explorer sorts last, so the master can read it by name.
        assert pulled(service, "volumes")[0] == DiscoveryStatus.DS_SUCCESS


def test_a_page_that_fits_when_the_cache_is_doubled_once(lab):
    _, client, service, _ = lab
    with Stranger(client):
        assert pulled(service, "data_doubled")[0] == DiscoveryStatus.DS_SUCCESS
        assert get(service, "data_doubled", "a", ANY) == b"x" * 2048


def test_a_release_that_fails_harms_nothing(lab):
    _, client, service, log = lab
    with Stranger(client):
        for how in ("release_half", "release_hang-up", "release_throw"):
            assert pulled(service, how)[0] == DiscoveryStatus.DS_SUCCESS
    assert log.failures("../RemoteDB") == []


def test_a_host_that_closes_each_connection(lab):
    _, client, service, _ = lab
    with Stranger(client) as stranger:
        stranger.redirects = {"_non_existent": lambda _: raising(HangUp)}
        assert pulled(service, "volumes")[0] == DiscoveryStatus.DS_OPEN_FAILED
        assert stranger.connections == 3
        stranger.redirects = {}
        assert pulled(service, "volumes")[0] == DiscoveryStatus.DS_SUCCESS


def raising(exception):
    raise exception


def test_an_object_of_another_kind(lab):
    _, client, service, log = lab
    with Stranger(client, is_a=False):
        assert pulled(service, "volumes")[0] == DiscoveryStatus.DS_OPEN_FAILED
    assert log.failures("../DiscoveryRepository") == [
        "Failed to connect to remote discovery service ( narrow failed ) "]
