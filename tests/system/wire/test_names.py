"""Many kinds of names, as subjects and as authorities, on the wire and on disk."""

import pytest

import giop
from giop import DiscoveryStatus
from records import (ANY, SERVER, SUCCESS, encoded, file_stem, get, put, query, record,
                     status_of_get)

# {the name in a put: the name in a page}
NAMES = {
    "a blank": "a%20blank",
    " ": "%20",
    " edges ": "%20edges%20",
    "été": "été",
    "日本語": "日本語",
    "\U0001f600": "\U0001f600",
    "a/b": "a/b",
    "/": "/",
    "../../../etc/passwd": "../../../etc/passwd",
    "..": "..",
    ".": ".",
    "~root": "~root",
    "-rf": "-rf",
    "100%": "100%25",
    "%": "%25",
    "%zz": "%25zz",
    'say "x"': "say%20%22x%22",
    "it's": "it's",
    "<a>&b;</a>": "%3Ca%3E&b;%3C/a%3E",
    "]]>": "]]%3E",
    "back\\slash": "back%5Cslash",
    "tab\tline\nend\r": "tab%09line%0Aend%0D",
    "\x01\x7f": "%01%7F",
    "host:14400": "host:14400",
    "user@host": "user@host",
    "//host/path?q#f": "//host/path?q#f",
    "[::1]": "[::1]",
    "a.xml": "a.xml",
    "Update.lock": "Update.lock",
    "0.updating": "0.updating",
    "e\u0301": "e\u0301",
    "\u202etxt": "%E2%80%AEtxt",
    "\ufeffbom": "%EF%BB%BFbom",
    "\ufffe": "%EF%BF%BE",
    "x" * 100: "x" * 100,
}


def record_files(root):
    return [name for name in root.files() if name.endswith((".xml", ".dat"))]


@pytest.mark.parametrize("name", NAMES, ids=ascii)
def test_subject(service, root, authority, name):
    files = record_files(root)
    assert put(service, name, authority, b"data") == SUCCESS
    assert get(service, name, authority) == b"data"
    assert [each.subject for each in query(service, authority=authority)] == [NAMES[name]]
    stem = file_stem(name, authority)
    assert sorted(set(record_files(root)) - set(files)) == [stem + ".dat", stem + ".xml"]


@pytest.mark.parametrize("name", NAMES, ids=ascii)
def test_authority(service, root, name):
    assert put(service, "authority", name, b"data") == SUCCESS
    assert get(service, "authority", name) == b"data"
    assert NAMES[name] in [each.authority for each in query(service, subject="authority")]
    assert file_stem("authority", name) + ".xml" in root.files()


def test_shown_names_find_their_records(service, authority):
    """A read also finds a record by the name in a page. A second encoding changes nothing."""
    for name in NAMES:
        assert put(service, name, authority, name.encode()) == SUCCESS
    shown = query(service, authority=authority)
    assert sorted(each.subject for each in shown) == sorted(NAMES.values())
    names = {display: name for name, display in NAMES.items()}
    for each in shown:
        assert get(service, each.subject, each.authority, ANY) == names[each.subject].encode()


def test_percent_encoding_stands_for_its_byte(service, authority):
    assert put(service, "a%20b", authority, b"one") == SUCCESS
    assert put(service, "a b", authority, b"two") == SUCCESS
    assert put(service, "%61 b", authority, b"three") == SUCCESS
    assert get(service, "a%20%62", authority) == b"three"
    assert [each.subject for each in query(service, authority=authority)] == ["a%20b"]


@pytest.mark.parametrize("name,shown", [(b"\xff\xfe", "%FF%FE"), (b"a\xc3", "a%C3"),
                                        (b"\xed\xa0\x80", "%ED%A0%80"), (b"\xc0\xaf", "%C0%AF")],
                         ids=repr)
def test_bytes_that_are_no_text(service, authority, name, shown):
    assert put(service, name, authority, b"data") == SUCCESS
    assert get(service, name, authority) == b"data"
    assert [each.subject for each in query(service, authority=authority)] == [shown]


def test_a_name_with_a_question_mark(service, authority):
    assert put(service, "a?b", authority, b"data") == SUCCESS
    assert get(service, "a?b", authority) == b"data"
    assert [each.subject for each in query(service, authority=authority)] == ["a?b"]


def test_a_name_with_a_star_is_kept_but_not_looked_up(service, authority):
    assert put(service, "a*b", authority, b"data") == SUCCESS
    assert [each.subject for each in query(service, authority=authority)] == ["a*b"]
    assert status_of_get(service, "a*b", authority) == DiscoveryStatus.DS_LOGIC_ERROR


def test_a_subject_does_not_run_into_the_authority(service, authority):
    """In a file name, blanks separate the names. Blanks inside a name are encoded."""
    assert put(service, "x y", authority, b"one") == SUCCESS
    assert put(service, "y", authority + " x", b"two") == SUCCESS
    assert get(service, "x y", authority) == b"one"
    assert get(service, "y", authority + " x") == b"two"


@pytest.mark.parametrize("subject,named", [("", False), ("cl1", True)])
def test_an_empty_name_is_refused(service, root, authority, subject, named):
    log, files = root.log(), root.files()
    result, writer = service.putCollection(record(subject, "" if named else authority))
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    assert root.files() == files
    shown = (subject, "" if named else authority)
    assert log.failures() == [
        'A record needs a subject and an authority, got subject "%s" and authority "%s"' % shown]


def test_both_names_empty(service, root):
    files = root.files()
    result, writer = service.putCollection(giop.Discovery())
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    assert root.files() == files


def test_an_empty_name_finds_nothing(service, root):
    status, iterator = service.getCollectionData(record("", "nobody"))
    assert (status, iterator) == (DiscoveryStatus.DS_NONE_FOUND, None)


@pytest.mark.parametrize("subject,authority_name", [("x" * 4096, "a"), ("a", "x" * 4096),
                                                    ("日" * 100, "a"), ("x" * 1_000_000, "a")],
                         ids=["subject", "authority", "encoded", "million"])
def test_a_name_that_no_file_can_have_is_refused(service, root, subject, authority_name):
    log, files = root.log(), root.files()
    result, writer = service.putCollection(record(subject, authority_name))
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)
    assert root.files() == files
    assert len(log.failures()) == 1
    assert query(service, subject=subject, authority=authority_name) == []
    assert status_of_get(service, subject, authority_name) == DiscoveryStatus.DS_NONE_FOUND


def test_the_longest_name(service, root, authority):
    """All common file systems allow at most 255 bytes in a file name."""
    room = 255 - len(file_stem("", authority) + ".xml")
    assert put(service, "x" * room, authority) == SUCCESS
    assert get(service, "x" * room, authority) == b"payload"
    result, writer = service.putCollection(record("x" * (room + 1), authority))
    assert (result.discStatus, writer) == (DiscoveryStatus.DS_OPEN_FAILED, None)


def test_letters_of_either_case(service, authority):
    assert put(service, "HostA", authority, b"A") == SUCCESS
    assert put(service, "hosta", authority, b"a") == SUCCESS
    assert get(service, "HostA", authority) == b"A"
    assert get(service, "hosta", authority) == b"a"


def test_encoding_of_the_tests_themselves():
    assert encoded("a b/日%*?~-._") == "a%20b%2F%E6%97%A5%25*?~-._"
    assert file_stem("cl5", "srv1", SERVER) == "1 srv1 cl5"
