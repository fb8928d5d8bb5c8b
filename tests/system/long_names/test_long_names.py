"""Names that are too long: what each operation answers, and that nothing of them stays."""

import os
import threading

import pytest

import harness
from giop import AuthorityType, DiscoveryStatus
from records import SUCCESS, get, put, query, record

BOUND = 1024
HUGE = "n" * (7 << 20)
# The daemon's memory may grow by so many bytes. A sanitizer keeps freed memory for a while.
GROWTH = (1000 if os.environ.get("QM_SANITIZE") else 100) << 20
LOG_GROWTH = 1 << 20

MOST = ["x" * BOUND, "é" * (BOUND // 2), "日" * (BOUND // 3) + "x" * (BOUND % 3),
        "\U0001f600" * (BOUND // 4)]
MORE = ["x" * (BOUND + 1), "é" * (BOUND // 2) + "x", "日" * (BOUND // 3 + 1),
        "\U0001f600" * (BOUND // 4) + "é"]


def resident(pid):
    with open("/proc/%d/statm" % pid, encoding="ascii") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def too_long(log):
    return [text for text in log.failures("DiscoveryService_i")
            if text.startswith("A name may have")]


def line(what, name):
    data = name.encode()
    return 'A name may have 1024 bytes, the %s "%s..." has %d' \
        % (what, data[:64].decode(errors="ignore"), len(data))


def status_of_put(service, **names):
    result, writer = service.putCollection(record(**{"subject": "s", "authority": "a", **names}))
    assert writer is None or result.discStatus == SUCCESS
    if writer:
        writer.close()
    return result.discStatus


def register(service, **names):
    names = {"name": "DiscoveryService", "host": "h", "subject": "s", "authority": "a", **names}
    service.registerExplorer(names["name"], names["host"], names["subject"],
                             names["authority"], AuthorityType.AT_EXTSRC, 1)


def explorers(root):
    return root.status()["explorersRegistered"]


@pytest.mark.parametrize("name", MORE, ids=lambda name: name[0].encode().hex())
def test_one_byte_too_many(service, root, name):
    assert len(name.encode()) == BOUND + 1 or "\u65e5" in name or "\U0001f600" in name
    log = root.log()
    for subject, authority in ((name, "*"), ("*", name), ("*" + name, "*")):
        assert query(service, subject=subject, authority=authority) == []
    for subject, authority in ((name, "a"), ("s", name)):
        assert service.getCollectionData(record(subject, authority)) == \
            (DiscoveryStatus.DS_NONE_FOUND, None)
        assert status_of_put(service, subject=subject, authority=authority) == \
            DiscoveryStatus.DS_OPEN_FAILED
    for what in ("name", "host", "subject", "authority"):
        register(service, **{what: name})
    names = [("subject", name), ("authority", name), ("subject", "*" + name),
             ("subject", name), ("subject", name), ("authority", name), ("authority", name),
             ("service name", name), ("host", name), ("subject", name), ("authority", name)]
    assert too_long(log) == [line(*each) for each in names]
    assert root.files() == []
    assert explorers(root) == 0


@pytest.mark.parametrize("name", MOST, ids=lambda name: name[0].encode().hex())
def test_the_longest_name(service, root, name):
    assert len(name.encode()) == BOUND
    log = root.log()
    assert query(service, subject=name) == []
    assert service.getCollectionData(record(name, "a"))[0] == DiscoveryStatus.DS_NONE_FOUND
    assert status_of_put(service, subject=name) == DiscoveryStatus.DS_OPEN_FAILED, \
        "no file has such a name"
    register(service, name=name, host=name, subject=name, authority=name)
    assert too_long(log) == []
    harness.wait_for(lambda: explorers(root) == 1, "the explorer is registered")
    assert len(query(service)) == 1


def test_control_characters_stay_one_line(service, root):
    log = root.log()
    assert query(service, subject="a\nb\x1b" + "x" * 2000) == []
    lines = [each for each in log.lines() if each.text.startswith("A name may have")]
    assert [each.text for each in lines] == \
        ['A name may have 1024 bytes, the subject "a\\nb\\x1B%s..." has 2004' % ("x" * 60)]


def test_32_clients_with_huge_names_beside_an_honest_one(start, root):
    daemon = start(root)
    honest = daemon.client()
    assert put(honest, "notes", "a") == SUCCESS
    # Each attacker once, so that the daemon has its threads and buffers.
    attackers = [daemon.client() for _ in range(32)]
    for each in attackers:
        assert query(each, subject=HUGE[:1 << 20]) == []
    memory, log_size = resident(daemon.pid), root.log_file.stat().st_size
    failures = []

    def attack(service):
        try:
            for _ in range(3):
                assert query(service, subject=HUGE) == []
                assert service.getCollectionData(record(HUGE, "a"))[0] == \
                    DiscoveryStatus.DS_NONE_FOUND
                assert status_of_put(service, subject=HUGE) == DiscoveryStatus.DS_OPEN_FAILED
                register(service, subject=HUGE)
        except BaseException as error:  # pylint: disable=broad-except
            failures.append(repr(error)[:1000])
    threads = [threading.Thread(target=attack, args=(each,)) for each in attackers]
    for each in threads:
        each.start()
    served = 0
    while any(each.is_alive() for each in threads):
        assert get(honest, "notes", "a") == b"payload"
        assert [each.subject for each in query(honest)] == ["notes"]
        served += 1
    assert failures == []
    assert served > 0
    assert [each.subject for each in query(honest)] == ["notes"], "the list is whole"
    for each in attackers:
        each.orb.close()
    harness.wait_for(lambda: resident(daemon.pid) < memory + GROWTH, "the memory is free again")
    assert root.log_file.stat().st_size < log_size + LOG_GROWTH
    assert (root.path / "run" / "status.json").stat().st_size < 10_000
    assert daemon.stop() == 0
    assert root.status()["assertions"] == 0


def test_pages_fit_into_the_smallest_message(start, root):
    """Registrations with the longest names, in pages as large as a client likes."""
    root.configure(MAX_MESSAGE_BYTES=65536)
    service = start(root).client()
    for number in range(100):
        register(service, subject="%03d" % number + "s" * (BOUND - 3), authority="a%d" % number)
    iterator = service.queryDiscoveries(1, 0, "*", "*")
    iterator.pageSize = 0x7fffffff
    pages = iterator.pages()
    assert len(pages) > 1
    assert len({each.subject for page in pages for each in page}) == 100
    assert put(service, "big", "a", bytes(60_000)) == SUCCESS
    writer = service.putCollection(record("bigger", "a"))[1]
    for _ in range(10):
        assert writer.put(bytes(60_000)) is True
    assert writer.close().discStatus == SUCCESS
    status, data = service.getCollectionData(record("bigger", "a"))
    assert status == SUCCESS
    data.pageSize = 0x7fffffff
    assert sum(map(len, data.pages())) == 600_000
