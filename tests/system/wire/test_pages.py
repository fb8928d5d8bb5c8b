"""How the service divides results into pages."""

import pytest

import giop
from records import ANY, SERVER, SUCCESS, get, put, query, record


@pytest.fixture(scope="module")
def twenty(service):
    """An authority with twenty records."""
    for number in range(20):
        assert put(service, "cl%d" % number, "twenty", b"data %d" % number) == SUCCESS
    return "twenty"


@pytest.fixture
def records_of(service):
    """Makes iterators over an authority's records. Releases them after the test."""
    made = []

    def make(authority, type=ANY, subject="*"):
        made.append(service.queryDiscoveries(1, type, authority, subject))
        return made[-1]
    yield make
    for iterator in made:
        iterator.release()


@pytest.fixture
def bytes_of(service, authority):
    """Makes iterators over a collection with the given bytes."""
    made = []

    def make(data):
        assert put(service, "cl1", authority, data) == SUCCESS
        status, iterator = service.getCollectionData(record("cl1", authority))
        assert status == SUCCESS
        made.append(iterator)
        return iterator
    yield make
    for iterator in made:
        iterator.release()


def sizes(iterator):
    return [len(page) for page in iterator.pages()]


def test_a_page_of_records_holds_one_more_than_its_size(twenty, records_of):
    iterator = records_of(twenty)
    assert iterator.pageSize == 8
    assert [len(iterator.getNextPage()) for _ in range(5)] == [9, 9, 2, 0, 0]


@pytest.mark.parametrize("size,expected", [(0, [1] * 20), (1, [2] * 10), (18, [19, 1]),
                                           (19, [20]), (2 ** 31 - 1, [20])])
def test_page_sizes_of_records(twenty, records_of, size, expected):
    iterator = records_of(twenty)
    iterator.pageSize = size
    assert iterator.pageSize == size
    assert sizes(iterator) == expected


@pytest.mark.parametrize("size", [-1, -(2 ** 31)])
def test_a_negative_page_of_records_is_empty(twenty, records_of, size):
    iterator = records_of(twenty)
    iterator.pageSize = size
    assert iterator.pageSize == size
    assert iterator.getNextPage() == []
    iterator.pageSize = 8
    assert sizes(iterator) == [9, 9, 2]


def test_page_size_may_change_on_the_way(twenty, records_of):
    iterator = records_of(twenty)
    assert len(iterator.getNextPage()) == 9
    iterator.pageSize = 3
    assert sizes(iterator) == [4, 4, 3]


def test_every_record_is_there_once(twenty, records_of):
    found = [each for page in records_of(twenty).pages() for each in page]
    assert sorted(each.subject for each in found) == sorted("cl%d" % n for n in range(20))


def test_members_that_a_page_leaves_unset_are_zeros(twenty, service):
    found = query(service, subject="cl7", authority=twenty)
    assert found == [giop.Discovery(
        queryType=giop.DiscoveryQuery.DQ_UNDEFINED, subject="cl7", authority=twenty,
        authType=SERVER, attributes=giop.CollAttributes(), sourceHost="master1",
        sourceServiceName="DiscoveryService")]


def test_a_record_from_a_page_is_looked_up_as_it_came(twenty, service):
    iterator = service.queryDiscoveries(1, ANY, twenty, "*")
    page = iterator.getNextPage()
    iterator.release()
    for each in page:
        status, data = service.getCollectionData(each)
        assert status == SUCCESS
        data.pageSize = 100
        assert data.getNextPage() == b"data " + each.subject[2:].encode()
        data.release()


def test_a_page_of_bytes_holds_its_size(bytes_of):
    iterator = bytes_of(bytes(range(20)))
    assert iterator.pageSize == 8
    assert [iterator.getNextPage() for _ in range(5)] == [
        bytes(range(8)), bytes(range(8, 16)), bytes(range(16, 20)), b"", b""]


@pytest.mark.parametrize("size,expected", [(1, [1] * 20), (19, [19, 1]), (20, [20]), (21, [20]),
                                           (2 ** 31 - 1, [20])])
def test_page_sizes_of_bytes(bytes_of, size, expected):
    iterator = bytes_of(b"x" * 20)
    iterator.pageSize = size
    assert iterator.pageSize == size
    assert sizes(iterator) == expected


@pytest.mark.parametrize("size", [0, -1, -(2 ** 31)])
def test_a_page_of_no_bytes_is_empty(bytes_of, size):
    iterator = bytes_of(b"0123456789")
    iterator.pageSize = size
    assert iterator.pageSize == size
    assert iterator.getNextPage() == b""
    iterator.pageSize = 100
    assert iterator.getNextPage() == b"0123456789"


def test_a_huge_page_of_a_large_collection(bytes_of):
    """A page may be shorter than requested. But the end must not come too early."""
    data = bytes(range(256)) * 20_000
    iterator = bytes_of(data)
    iterator.pageSize = 2 ** 31 - 1
    pages = iterator.pages()
    assert b"".join(pages) == data
    assert len(pages) < 20


def test_an_empty_collection_is_an_empty_page(bytes_of):
    assert bytes_of(b"").getNextPage() == b""


@pytest.mark.parametrize("kind", ["records", "bytes"])
def test_calls_after_release_fail(service, authority, kind):
    assert put(service, "cl1", authority) == SUCCESS
    if kind == "records":
        iterator = service.queryDiscoveries(1, ANY, authority, "*")
    else:
        _, iterator = service.getCollectionData(record("cl1", authority))
    iterator.release()
    for call in (iterator.getNextPage, iterator.release, lambda: iterator.pageSize):
        with pytest.raises(giop.SystemException) as failure:
            call()
        assert failure.value.name == "OBJECT_NOT_EXIST"
    assert get(service, "cl1", authority) == b"payload"


def test_releases_are_told_in_the_log(service, root, authority):
    assert put(service, "cl1", authority) == SUCCESS
    log = root.log()
    service.queryDiscoveries(1, ANY, authority, "*").release()
    _, iterator = service.getCollectionData(record("cl1", authority))
    iterator.release()
    assert [text for text in log.texts(level=4) if "eleasing" in text] == [
        "releasing discovery iterator", "Releasing collection data iterator"]
