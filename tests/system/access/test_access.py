"""Who may do what: peers at different addresses, against a daemon with lists.

All loopback addresses count as `local`, so these tests use addresses, ranges and names.
"""

import signal
import threading

import pytest

import giop
import harness
from giop import AuthorityType, DiscoveryStatus
from records import SUCCESS, get, put, query, record

HOST, FRIEND, STRANGER = "127.0.0.1", "127.0.0.2", "127.0.0.3"
ROLES = ("read", "write", "register", "control")


def register(service, host="web1", authority="web1", priority=1, subject="web1"):
    service.registerExplorer("DiscoveryService", host, subject, authority,
                             AuthorityType.AT_EXTSRC, priority)


def refused(call, *arguments):
    with pytest.raises(giop.SystemException) as failure:
        call(*arguments)
    assert (failure.value.name, failure.value.completed) == ("NO_PERMISSION", "NO")


def refusals(log):
    return [text for text in log.failures("AccessRules") if text.startswith("Refused")]


def hang_up(daemon, root, **config):
    """Lets the daemon read these lists. Its status has the new log level when it has done so."""
    level = 9 - root.status()["logLevel"]
    root.configure(LOG_LEVEL=level, **config)
    daemon.send(signal.SIGHUP)
    harness.wait_for(lambda: root.status()["logLevel"] == level, "the lists are read")


OPERATIONS = {
    "queryDiscoveries": ("read", lambda s: query(s)),
    "getCollectionData": ("read", lambda s: get(s, "cl1", "a")),
    "putCollection": ("write", lambda s: put(s, "cl2", "a")),
    "registerExplorer": ("register", register),
    "restartLocalPushTimer": ("control", lambda s: s.restartLocalPushTimer()),
    "restartAllPushTimers": ("control", lambda s: s.restartAllPushTimers()),
    "terminate": ("control", lambda s: s.terminate()),
}


@pytest.mark.parametrize("role", ROLES)
def test_each_role_has_its_operations(start, root, role):
    """The stranger has all roles but one, and the friend all of them."""
    lists = {"ALLOW." + each: "%s %s" % (HOST, FRIEND) if each == role else "*" for each in ROLES}
    root.configure(**lists)
    daemon = start(root)
    assert put(daemon.client(), "cl1", "a") == SUCCESS
    stranger, friend = daemon.client(source=STRANGER), daemon.client(source=FRIEND)
    log = root.log()
    expected = []
    for operation, (needed, call) in OPERATIONS.items():
        if needed == role:
            refused(call, stranger)
            expected.append("Refused: 127.0.0.3 may not %s (ALLOW.%s = 127.0.0.1, 127.0.0.2)"
                            % (operation, role))
        elif operation != "terminate":
            call(stranger)
    assert refusals(log) == expected
    assert "web1.xml" in " ".join(root.files()) or role == "register"
    harness.wait_for(lambda: root.status()["counters"]["requestsRefused"] == len(expected),
                     "the refusals are counted")
    for _, call in OPERATIONS.values():
        call(friend)
    assert daemon.wait() == 0, "the last operation was terminate"


def test_the_operations_of_iterators_and_writers(start, root):
    root.configure(**{"ALLOW.read": FRIEND, "ALLOW.write": FRIEND})
    daemon = start(root)
    friend, stranger = daemon.client(source=FRIEND), daemon.client(source=STRANGER)
    assert put(friend, "cl1", "a") == SUCCESS
    result, writer = friend.putCollection(record("cl2", "a"))
    assert result.discStatus == SUCCESS
    status, data = friend.getCollectionData(record("cl1", "a"))
    assert status == DiscoveryStatus.DS_SUCCESS
    listing = friend.queryDiscoveries(1, 0, "*", "*")
    log = root.log()

    def as_stranger(proxy):
        return type(proxy)(stranger.orb, proxy.ior)
    for iterator in (as_stranger(data), as_stranger(listing)):
        refused(iterator.getNextPage)
        refused(lambda: iterator.pageSize)
        refused(setattr, iterator, "pageSize", 3)
        refused(iterator.release)
    refused(as_stranger(writer).put, b"x")
    refused(as_stranger(writer).close)
    operations = [text.split(" may not ")[1].split(" ")[0] for text in refusals(log)]
    assert operations == ["getNextPage", "_get_pageSize", "_set_pageSize", "release"] * 2 + \
        ["put", "close"]
    assert writer.put(b"data") is True
    assert writer.close().discStatus == SUCCESS
    assert get(friend, "cl2", "a") == b"data"


def test_free_and_unknown_operations(start, root):
    root.configure(**{"ALLOW." + role: FRIEND for role in ROLES})
    stranger = start(root).client(source=STRANGER)
    assert stranger._non_existent() is False
    assert stranger._is_a("IDL:omg.org/CORBA/Object:1.0") is True
    for name in ("shutdown", "Terminate", "getNextPages", "_get_terminate"):
        with pytest.raises(giop.SystemException) as failure:
            stranger.call(name)
        assert failure.value.name == "BAD_OPERATION", name


def test_the_edges_of_a_range(start, root):
    root.configure(**{"ALLOW.read": "127.0.0.4/30, 127.1.0.0/16"})
    daemon = start(root)
    for address in ("127.0.0.4", "127.0.0.7", "127.1.0.1", "127.1.255.254"):
        assert query(daemon.client(source=address)) == [], address
    for address in ("127.0.0.3", "127.0.0.8", "127.0.255.254", "127.2.0.1"):
        refused(query, daemon.client(source=address))


@pytest.mark.parametrize("entry,admitted", [(FRIEND, True), ("127.0.0.2/31", True),
                                            ("::ffff:127.0.0.2", True), ("::/0", False)])
def test_ipv4_through_an_ipv6_socket(start, root, entry, admitted):
    root.configure(LISTEN="[::]:0", PUBLISH_ADDRESS=HOST, **{"ALLOW.read": entry})
    daemon = start(root)
    with giop.Orb(timeout=harness.CALL_LIMIT, source=FRIEND) as orb:
        service = orb.object("corbaloc:iiop:1.2@%s:%d/DiscoveryService"
                             % (HOST, daemon.address[1]), giop.DiscoveryService)
        if admitted:
            assert query(service) == []
        else:
            refused(query, service)


def test_a_refused_request_with_large_arguments(start, root):
    """The arguments are not used, and the connection stays good."""
    root.configure(**{"ALLOW.write": FRIEND})
    daemon = start(root)
    stranger = daemon.client(source=STRANGER)
    for _ in range(5):
        refused(stranger.putCollection, record("s" * (5 << 20), "a"))
        assert query(stranger) == []
    assert put(daemon.client(source=FRIEND), "cl1", "a") == SUCCESS


def test_own_in_both_lists(start, root):
    names = {"ENDPOINT.web1": FRIEND + ":14400", "ENDPOINT.web2": STRANGER + ":14400"}
    root.configure(**{"ALLOW.write": "own", "ALLOW.register": "own", **names})
    daemon = start(root)
    web1, web2 = daemon.client(source=FRIEND), daemon.client(source=STRANGER)
    log = root.log()
    assert put(web1, "any/subject", "web1") == SUCCESS
    assert put(web1, "any/subject", "WEB1") == SUCCESS
    assert put(web2, "web1", "web2") == SUCCESS
    refused(put, web2, "any/subject", "web1")
    refused(put, web2, "any/subject", "Web1")
    refused(put, web2, "any/subject", "%77eb1")
    refused(put, web2, "any/subject", "nobody")
    refused(lambda: web2.putCollection(record("web2", "web2", type=AuthorityType.AT_REMOTEPULL)))
    assert put(daemon.client(), "notes", "master1") == SUCCESS, "this host under its own name"
    register(web1)
    refused(register, web2)
    refused(register, web2, "web1", "web2")
    refused(register, web2, "web2", "web1")
    register(web2, "web2", "web2")
    assert refusals(log)[0] == \
        'Refused: 127.0.0.3 may not putCollection as "web1" (ALLOW.write = own)'
    assert refusals(log)[-1] == \
        'Refused: 127.0.0.3 may not registerExplorer as "web1" (ALLOW.register = own)'
    assert get(web2, "any/subject", "web1") == b"payload"


def test_priorities_above_the_bound(start, root):
    root.configure(**{"MAX_REMOTE_PRIORITY": 7, "ALLOW.control": HOST})
    daemon = start(root)
    stranger, host = daemon.client(source=STRANGER), daemon.client()

    def put_with(service, priority):
        result, writer = service.putCollection(record("cl1", "a", priority=priority))
        return writer.close().discStatus if writer else result.discStatus
    log = root.log()
    assert put_with(stranger, 0) == SUCCESS
    assert put_with(stranger, 7) == SUCCESS
    for priority in (8, -1, 0x7fffffff, -0x80000000):
        refused(put_with, stranger, priority)
    register(stranger, priority=7)
    for priority in (8, -1):
        refused(lambda p=priority: register(stranger, priority=p))
    assert refusals(log)[1] == ("Refused: 127.0.0.3 may not putCollection with priority 4294967295 "
                                "(MAX_REMOTE_PRIORITY = 7)")
    assert put_with(host, -1) == SUCCESS
    assert put_with(host, 7) == DiscoveryStatus.DS_DATA_EXISTS


def test_mistakes_are_shown_and_open_nothing(start, root):
    root.configure(**{"ALLOW.read": "127.0.0.2 127.0.0.3/24", "ALLOW.write": "nobody@home",
                      "ALLOW.control": "own", "ALLOW.register": ""})
    expected = ["%s:%d: ALLOW.%s is left out, expected a host, an address, a range, %slocal, master "
                "or *" % (root.config_file, line, text, own)
                for line, text, own in ((5, "read: '127.0.0.3/24'", ""),
                                        (6, "write: 'nobody@home'", "own, "),
                                        (7, "control: 'own'", ""))]
    assert harness.run("--check-config", "--root", root) == \
        (3, "".join(line + "\n" for line in expected), "")
    daemon = start(root)
    stranger = daemon.client(source=STRANGER)
    for _, call in OPERATIONS.values():
        refused(call, stranger)
    refused(put, daemon.client(), "cl1", "a")
    assert query(daemon.client(source=FRIEND)) == []
    assert daemon.stop() == 0


def test_a_hangup_changes_the_lists(start, root):
    daemon = start(root)
    stranger = daemon.client(source=STRANGER)
    assert put(stranger, "cl1", "a") == SUCCESS
    hang_up(daemon, root, **{"ALLOW.write": FRIEND})
    refused(put, stranger, "cl1", "a")
    assert put(daemon.client(source=FRIEND), "cl1", "a") == SUCCESS
    hang_up(daemon, root, **{"ALLOW.write": FRIEND + ", " + STRANGER})
    assert put(stranger, "cl1", "a") == SUCCESS
    root.config_file.unlink()
    daemon.send(signal.SIGHUP)
    assert put(stranger, "cl1", "a") == SUCCESS
    refused_by = root.log()
    root.configure(**{"ALLOW.write": "127.0.0.256", "LOG_LEVEL": 3})
    daemon.send(signal.SIGHUP)
    harness.wait_for(lambda: root.status()["logLevel"] == 3, "the lists are read")
    refused(put, stranger, "cl1", "a")
    assert refusals(refused_by) == \
        ["Refused: 127.0.0.3 may not putCollection (ALLOW.write = nobody)"]


def test_a_flood_of_refusals_is_summed_up(start, root):
    root.configure(**{"ALLOW.control": FRIEND, "LOG_BURST": 20})
    daemon = start(root)
    stranger = daemon.client(source=STRANGER)
    for _ in range(2000):
        refused(stranger.terminate)
    lines = harness.settled(lambda: [line for line in root.log_file.read_text().splitlines()
                                     if "Refused: " in line])
    assert 0 < len(lines) < 500
    assert root.status()["state"] == "running"
    assert daemon.stop() == 0
    assert root.status()["counters"]["requestsRefused"] == 2000


def test_32_peers_while_the_lists_are_read_50_times(start, root):
    """Half of the peers are in every list, the others are in none."""
    lists = ["127.0.1.0/24, 192.0.2.1", "127.0.0.9 127.0.1.0/25 127.0.1.128/25"]
    root.configure(**{"ALLOW.read": lists[0]})
    daemon = start(root)
    over, failures, calls = threading.Event(), [], []

    def peer(number):
        admitted = number % 2 == 0
        service = daemon.client(source="127.0.%d.%d" % (1 if admitted else 2, 1 + number))
        try:
            count = 0
            while not over.is_set():
                if admitted:
                    assert query(service) == []
                else:
                    refused(query, service)
                count += 1
            calls.append(count)
        except BaseException as error:  # pylint: disable=broad-except
            failures.append("%d: %r" % (number, error))
    peers = [threading.Thread(target=peer, args=(number,)) for number in range(32)]
    for each in peers:
        each.start()
    temporary = root.config_file.with_suffix(".new")
    text = root.config_file.read_text()
    for number in range(50):
        level = 3 + number % 2
        temporary.write_text(text.replace(lists[0], lists[number % 2])
                             .replace("LOG_LEVEL = 4", "LOG_LEVEL = %d" % level))
        temporary.replace(root.config_file)
        daemon.send(signal.SIGHUP)
        harness.wait_for(lambda want=level: root.status()["logLevel"] == want,
                         "the lists are read")
    over.set()
    for each in peers:
        each.join(harness.CALL_LIMIT)
    assert failures == []
    assert len(calls) == 32 and min(calls) > 0
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0
