"""A foreign master names no code set. It gets and sends names in UTF-8. When it breaks off in the
middle of a list, the tools fail."""

import json
import subprocess

import pytest

import harness
from foreign import Foreign
from giop import HangUp, SystemException
from lab.names import prompt_names
from records import SUCCESS, put, subjects

NAMES = ["диск", "\U0001f600", "été", "日本語-ß"]
BROKE_OFF = 4


@pytest.fixture
def foreign():
    with Foreign() as master:
        yield master


@pytest.fixture
def client(start, root, foreign):
    """A client of the foreign master."""
    root.configure(CLIENT_NAME="client1", SERVER="themaster",
                   **{"ENDPOINT.themaster": foreign.endpoint})
    daemon = start(root)
    yield daemon.client()
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0


@pytest.fixture
def ctl(root, foreign):
    def run(*arguments, code=0, data=b""):
        done = subprocess.run([harness.program("qmdiscoctl"), "--root", str(root),
                               "--host", foreign.endpoint, *arguments],
                              input=data, capture_output=True, timeout=60, check=False)
        assert done.returncode == code, (done.stdout, done.stderr)
        return (done.stderr if code else done.stdout).decode()
    return run


@pytest.mark.parametrize("name", NAMES)
def test_names_reach_the_master_in_utf_8(client, foreign, root, name):
    log = root.log()
    assert put(client, name, "a" + name, b"data") == SUCCESS
    assert foreign.records == {(name.encode(), b"a" + name.encode()): b"data"}
    assert subjects(client, subject=name, authority="a" + name) == [name]
    assert foreign.asked == [(b"a" + name.encode(), name.encode())]
    assert log.texts(level=1, originator=harness.PLATFORM) == []


def test_a_registration_and_a_push_reach_the_master_in_utf_8(start, root, foreign):
    [host] = prompt_names(1, suffix="-диск-é")
    library = harness.program().parents[1] / "lib" / "libqmexplorer.so"
    (root.path / "lib").mkdir()
    (root.path / "lib" / library.name).symlink_to(library)
    root.configure(CLIENT_NAME=host, SERVER="themaster",
                   **{"ENDPOINT.themaster": foreign.endpoint})
    daemon = start(root)
    harness.wait_for(lambda: foreign.records, "the first push")
    assert daemon.stop() == 0
    name = host.encode()
    assert foreign.registered != []
    for service, registered, subject, authority in foreign.registered:
        assert (service, registered, authority) == (b"DiscoveryService", name, name)
        assert subject.startswith(name)
    assert (name, name) in foreign.records


@pytest.mark.parametrize("name", NAMES)
def test_the_tools_put_list_and_get(ctl, foreign, name, tmp_path):
    ctl("put", name, "a" + name, "-", data=b"payload")
    assert foreign.records == {(name.encode(), b"a" + name.encode()): b"payload"}
    [found] = json.loads(ctl("query", "--json", "--subject", name))
    assert (found["subject"], found["authority"]) == (name, "a" + name)
    assert ctl("get", name, "a" + name) == "payload"
    assert foreign.asked == [(b"*", name.encode()), (name.encode(), b"a" + name.encode())]


def raising(exception):
    def wrong(_place):
        raise exception
    return wrong


def system_exception(name):
    return SystemException("IDL:omg.org/CORBA/%s:1.0" % name, 7, "NO")


# {what the second page is: (how, what the tools say)}
WRONG = {
    "conversion": (raising(system_exception("DATA_CONVERSION")), "DATA_CONVERSION"),
    "no memory": (raising(system_exception("NO_MEMORY")), "NO_MEMORY"),
    "gone": (raising(system_exception("OBJECT_NOT_EXIST")), "OBJECT_NOT_EXIST"),
    "unknown": (raising(system_exception("UNKNOWN")), "UNKNOWN"),
    "hang-up": (raising(HangUp()), "COMM_FAILURE"),
    "half": (raising(HangUp(b"GIOP\x01\x02\x01\x01\x80\x00\x00\x00" + bytes(20))), "COMM_FAILURE"),
    "garbage": (lambda _place: lambda e: e.raw(b"\xff" * 100), "MARSHAL"),
    "huge": (lambda _place: lambda e: e.ulong(0xFFFFFFFF), "MARSHAL"),
}


@pytest.fixture(params=WRONG)
def wrong(request, foreign):
    """Two records, and a second page that is wrong. The value is what the tools say of it."""
    foreign.records = {(b"one", b"a"): b"<DiscoveredItems/>", (b"two", b"a"): b"<DiscoveredItems/>"}
    foreign.wrong, says = WRONG[request.param]
    return says


@pytest.mark.parametrize("command", [["query"], ["query", "--json"], ["clients", "--registered"]],
                         ids=" ".join)
def test_a_list_that_breaks_off_is_a_failure(ctl, wrong, command):
    assert wrong in ctl(*command, code=BROKE_OFF)


@pytest.mark.parametrize("command", [["items"], ["items", "--json"], ["clients"], ["filters"]],
                         ids=" ".join)
def test_a_list_that_the_researcher_reads_is_whole_or_a_failure(ctl, wrong, command):
    assert wrong in ctl(*command, code=BROKE_OFF)


@pytest.mark.parametrize("how", WRONG)
def test_items_name_each_record_that_breaks_off(ctl, root, foreign, how):
    """The list of records is whole. Their data is on many hosts, so a failing one is only named."""
    root.configure(**{"ENDPOINT.foreign": foreign.endpoint})
    foreign.records = {(b"one", b"a"): b"<DiscoveredItems/>"}
    foreign.wrong = lambda place: WRONG[how][0](place) if place == "data" else None
    [unread] = json.loads(ctl("items", "--json"))["unread"]
    assert (unread["subject"], unread["authority"]) == ("one", "a")
    assert WRONG[how][1] in unread["reason"]
    assert WRONG[how][1] in ctl("items")


def test_a_payload_that_breaks_off_is_a_failure(ctl, wrong, tmp_path):
    assert wrong in ctl("get", "one", "a", code=BROKE_OFF)
    assert wrong in ctl("get", "one", "a", "-o", str(tmp_path / "out"), code=BROKE_OFF)
    assert list(tmp_path.glob("out*")) == []
