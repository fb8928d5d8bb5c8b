"""Clients that name a code set other than UTF-8, no code set, or speak an older GIOP.

Without a code set, CORBA reads characters as ISO-8859-1. A page with a name that the client's code
set lacks is an exception for that call. The connection stays.
"""

import pytest

from harness import PLATFORM
from giop import LATIN_1, UTF_8, AuthorityType, DiscoveryStatus, SystemException
from records import SERVER, SUCCESS, get, put, query, record, subjects

UNKNOWN = 0x12345678
LATIN_NAMES = ["été", "Größe", "ÿ"]
OTHER_NAMES = ["диск", "日本語", "\U0001f600", "été-диск"]

# How a client's strings are ISO-8859-1.
LATIN = {
    "named": {"code_set": LATIN_1},
    "none": {"code_set": None},
    "zero": {"code_set": 0},
    "1.1": {"version": (1, 1), "code_set": None},
    "1.1, named": {"version": (1, 1), "code_set": LATIN_1},
    "1.0": {"version": (1, 0), "code_set": None},
}


@pytest.fixture(params=LATIN)
def latin(daemon, request):
    """A client whose strings are ISO-8859-1. It must keep its connection."""
    proxy = daemon.client(encoding="latin-1", **LATIN[request.param])
    assert proxy._non_existent() is False
    before = connection_of(proxy)
    yield proxy
    assert proxy._non_existent() is False
    assert connection_of(proxy) is before


def connection_of(proxy):
    [connection] = proxy.orb._connections.values()
    return connection


@pytest.mark.parametrize("name", LATIN_NAMES)
def test_names_that_the_code_set_has(service, latin, root, name):
    log = root.log()
    assert put(latin, name, "a", b"theirs") == SUCCESS
    assert subjects(service) == [name], "stored in UTF-8"
    assert get(service, name, "a") == b"theirs"
    assert get(latin, name, "a") == b"theirs"
    assert subjects(latin, subject=name) == [name]
    latin.registerExplorer("DiscoveryService", "h", "r" + name, "a", AuthorityType.AT_EXTSRC, 1)
    assert subjects(service) == sorted(["r" + name, name])
    assert log.texts(level=1, originator=PLATFORM) == []


@pytest.mark.parametrize("name", OTHER_NAMES)
def test_a_page_that_the_code_set_cannot_carry(service, latin, root, name):
    assert put(service, name, "a") == SUCCESS
    assert put(service, "plain", "b") == SUCCESS
    log = root.log()
    iterator = latin.queryDiscoveries(1, 0, "a", "*")
    with pytest.raises(SystemException) as failure:
        iterator.getNextPage()
    assert (failure.value.name, failure.value.completed) == ("DATA_CONVERSION", "YES")
    assert iterator.getNextPage() == [], "the iterator goes on behind the page"
    iterator.release()
    [line] = log.texts(level=1, originator=PLATFORM)
    assert line.startswith("Cannot send the reply of getNextPage to 127.0.0.1: ")
    assert "DATA_CONVERSION" in line
    # Other pages of the same client come, and other clients get all names.
    assert subjects(latin, authority="b") == ["plain"]
    assert subjects(service) == sorted([name, "plain"])


def test_a_page_in_the_middle_of_a_list(service, latin):
    for number in range(5):
        assert put(service, "%d%s" % (number, "диск" if number == 2 else "été"), "a") == SUCCESS
    iterator = latin.queryDiscoveries(1, 0, "*", "*")
    iterator.pageSize = 0
    pages = []
    while True:
        try:
            page = iterator.getNextPage()
        except SystemException as failure:
            pages.append(failure.name)
            continue
        if not page:
            break
        pages += [each.subject[0] for each in page]
    assert sorted(pages) == ["0", "1", "3", "4", "DATA_CONVERSION"]
    iterator.release()


def test_utf_8_that_is_not_announced(daemon, service):
    """CORBA's rule holds: each byte is a character. Nothing is lost, and the client reads back what
    it wrote. Clients that name UTF-8 see other names."""
    client = daemon.client(code_set=None)
    assert put(client, "é", "a", b"theirs") == SUCCESS
    assert get(client, "é", "a") == b"theirs"
    assert subjects(client) == ["é"]
    assert subjects(service) == ["Ã©"]
    assert put(service, "диск", "a") == SUCCESS
    with pytest.raises(SystemException, match="DATA_CONVERSION"):
        query(client)
    assert client._non_existent() is False


@pytest.mark.parametrize("name", ["plain", "диск"])
def test_a_code_set_that_nobody_knows(daemon, service, name):
    """Text is refused in both directions. Calls without text work."""
    assert put(service, name, "a") == SUCCESS
    client = daemon.client(code_set=UNKNOWN)
    for call in (lambda: client.queryDiscoveries(1, 0, "*", "*"),
                 lambda: client.getCollectionData(record(name, "a")),
                 lambda: client.putCollection(record(name, "a", SERVER))):
        with pytest.raises(SystemException, match="BAD_INV_ORDER"):
            call()
    before = connection_of(client)
    assert client._non_existent() is False
    assert connection_of(client) is before


def test_a_client_that_changes_its_code_set(daemon, service):
    """A later request may name another code set for the connection."""
    assert put(service, "диск", "a") == SUCCESS
    client = daemon.client(code_set=UTF_8)
    iterator = client.queryDiscoveries(1, 0, "*", "*")
    client.orb._code_set = UNKNOWN
    with pytest.raises(SystemException, match="BAD_INV_ORDER"):
        iterator.getNextPage()
    client.orb._code_set = UTF_8
    assert client.getCollectionData(record("диск", "a"))[0] == DiscoveryStatus.DS_SUCCESS
