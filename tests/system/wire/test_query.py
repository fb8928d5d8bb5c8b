"""Which records a query finds."""

import pytest

from giop import AuthorityType, DiscoveryQuery, DiscoveryStatus
from records import ANY, SUCCESS, get, put, query, status_of_get, subjects

TYPES = [AuthorityType.AT_QMKSERVER, AuthorityType.AT_QMKCLIENT, AuthorityType.AT_EXTSRC]
PULL = AuthorityType.AT_REMOTEPULL


@pytest.fixture(scope="module", autouse=True)
def store(service):
    for subject in ("cl1", "cl2", "cl12", "db1", "x.cl1"):
        assert put(service, subject, "q1") == SUCCESS
    for type in TYPES:
        assert put(service, "typed", "q2", b"%d" % type, type=type) == SUCCESS
    assert put(service, "pulled", "q3", b"pulled", type=PULL) == SUCCESS
    assert put(service, "plain", "q3", b"plain") == SUCCESS


EVERYTHING = sorted(["cl1", "cl2", "cl12", "db1", "x.cl1", "typed", "typed", "typed", "plain"])


@pytest.mark.parametrize("pattern,expected", [
    ("cl1", ["cl1"]),
    ("cl*", ["cl1", "cl12", "cl2"]),
    ("cl?", ["cl1", "cl2"]),
    ("c*2", ["cl12", "cl2"]),
    ("?l1", ["cl1"]),
    ("cl1*", ["cl1", "cl12"]),
    ("cl", []),
    ("cl1.xml", []),
    ("", ["cl1", "cl12", "cl2", "db1", "x.cl1"]),
    ("*", ["cl1", "cl12", "cl2", "db1", "x.cl1"]),
    # A pattern that begins with "*" matches every subject.
    ("*1", ["cl1", "cl12", "cl2", "db1", "x.cl1"]),
])
def test_subject(service, pattern, expected):
    assert subjects(service, subject=pattern, authority="q1") == expected


@pytest.mark.parametrize("pattern,expected", [
    ("q1", ["cl1"]), ("q?", ["cl1"]), ("*", ["cl1"]), ("", ["cl1"]), ("*x", ["cl1"]), ("q2", []),
    ("q", [])])
def test_authority(service, pattern, expected):
    assert subjects(service, subject="cl1", authority=pattern) == expected


@pytest.mark.parametrize("any_name", ["*", ""])
def test_everything(service, any_name):
    assert subjects(service, subject=any_name, authority=any_name) == EVERYTHING


@pytest.mark.parametrize("type", TYPES)
def test_type(service, type):
    assert [(each.authType, each.authority) for each in
            query(service, subject="typed", type=type)] == [(type, "q2")]
    assert get(service, "typed", "q2", type) == b"%d" % type


def test_any_type(service):
    assert sorted(each.authType for each in query(service, subject="typed")) == TYPES


@pytest.mark.parametrize("query_type", DiscoveryQuery)
def test_query_type_selects_nothing(service, query_type):
    iterator = service.queryDiscoveries(query_type, ANY, "q1", "cl*")
    assert len(iterator.getNextPage()) == 3
    iterator.release()


def test_records_to_pull_are_shown_only_when_asked_for(service):
    assert subjects(service, authority="q3") == ["plain"]
    assert subjects(service, authority="q3", type=PULL) == ["pulled"]
    assert subjects(service, type=PULL) == ["pulled"]
    assert get(service, "pulled", "q3", PULL) == b"pulled"
    assert status_of_get(service, "pulled", "q3", ANY) == DiscoveryStatus.DS_NONE_FOUND


@pytest.mark.parametrize("subject,authority", [("*", "q1"), ("cl1", "*"), ("cl*", "q1"),
                                               ("cl1", "q*"), ("*", "*"), ("c*l", "none")])
def test_a_lookup_refuses_a_star(service, root, subject, authority):
    log = root.log()
    assert status_of_get(service, subject, authority) == DiscoveryStatus.DS_LOGIC_ERROR
    assert log.failures() == []


def test_a_lookup_of_nothing(service, root):
    log = root.log()
    assert status_of_get(service, "nobody", "q1") == DiscoveryStatus.DS_NONE_FOUND
    assert log.failures("DiscoveryService_i") == [
        "Fount no discoveries for subject nobody & authority q1"]


def test_a_lookup_never_picks_one_of_two(service, root):
    log = root.log()
    assert status_of_get(service, "typed", "q2", ANY) == DiscoveryStatus.DS_LOGIC_ERROR
    assert status_of_get(service, "cl?", "q1") == DiscoveryStatus.DS_LOGIC_ERROR
    assert log.failures("DiscoveryService_i") == [
        "Fount too many matching discoveries for subject typed & authority q2",
        "Fount too many matching discoveries for subject cl? & authority q1"]


def test_a_lookup_of_any_type_finds_the_only_one(service):
    assert get(service, "cl2", "q1", ANY) == b"payload"
    assert get(service, "db?", "q1") == b"payload"


def test_a_lookup_of_another_type(service):
    assert status_of_get(service, "cl1", "q1", AuthorityType.AT_EXTSRC) == \
        DiscoveryStatus.DS_NONE_FOUND
