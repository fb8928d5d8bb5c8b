"""qmdiscoctl reads the discovered items of all hosts, on any host."""

import json
import time
from concurrent.futures import ThreadPoolExecutor

from lab.stage import frozen, wait_for_text, wait_until_pushed

REQUEST_LIMIT = 30
SLACK = 10

LOOKUP_FAILED = "Failed to get collection data: 3"  # the master could not pull the data
NOT_THE_LAST = "Failed to get collection data: 2"  # more than one explorer matches the name


def build(stage, clients):
    stage.build(clients)
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    for host in stage.clients:
        wait_until_pushed(host, stage.master)
    return sorted(map(str, stage.clients))


def items_on(host, *arguments):
    document = json.loads(host.ctl("items", "--json", *arguments))
    rows = {(item["host"], item["subject"], item["name"]) for item in document["items"]}
    return rows, {each["subject"]: each["reason"] for each in document["unread"]}


def test_every_host_sees_the_same(stage):
    first, last = build(stage, 2)
    seen = [items_on(host) for host in (stage.master, *stage.clients)]
    rows, unread = seen[0]
    assert seen == [seen[0]] * 3
    assert {(host, host, "/") for host in (first, last, "master")} < rows
    assert (last, "%s/now" % last, "/") in rows, "pulled by the master"
    assert unread == {"%s/now" % first: NOT_THE_LAST}


def test_a_filter_selects_from_all(stage):
    first, last = build(stage, 2)
    client = stage.clients[0]
    every, _ = items_on(client)
    some, _ = items_on(client, "--filter", 'host = "%s" and mount = "/"' % first)
    assert some == {row for row in every if row[0] == first and row[2] == "/"} != set()
    none, _ = items_on(client, "--filter", "size > 1000P")
    assert none == set()
    pulled, _ = items_on(client, "--subject", "%s/now" % last, "--filter", "size > 1000P or mount = '/'")
    assert pulled == {(last, "%s/now" % last, "/")}
    assert "column 8: expected a value" in client.ctl("items", "--filter", "size > >", code=2)


def test_what_can_be_asked_is_known_everywhere(stage):
    build(stage, 1)
    tables = [host.ctl("filters") for host in (stage.master, *stage.clients)]
    assert tables[0] == tables[1]
    fields = [line.split()[0] for line in tables[0].splitlines()[1:]]
    assert {"host", "mount", "device", "fstype", "size", "used", "readonly"} <= set(fields)


def test_a_host_that_hangs_is_named(stage):
    _, last = build(stage, 2)
    with frozen(stage, stage.lab.host(last)):
        rows, unread = items_on(stage.master)
    assert unread["%s/now" % last] == LOOKUP_FAILED
    assert (last, last, "/") in rows, "its earlier push is there"


def test_reading_from_a_master_that_hangs_ends_after_30_seconds(stage):
    """The link is slow, so the test can freeze the master in the middle of a record's pages."""
    [name] = build(stage, 1)
    client = stage.lab.host(name)
    stage.lab.slow(client, "16kbit")
    before = stage.master.root.log_file.read_text().count("Opening collection file")
    with ThreadPoolExecutor(1) as pool:
        asked = pool.submit(items_on, client, "--subject", name)
        wait_for_text(stage.master, "Opening collection file", before + 1)
        with frozen(stage, stage.master):
            began = time.monotonic()
            rows, unread = asked.result(REQUEST_LIMIT + 3 * SLACK)
            took = time.monotonic() - began
    assert rows == set()
    assert unread[name].startswith("Caught CORBA Exception while reading collection data: TIMEOUT")
    assert REQUEST_LIMIT - 5 <= took <= REQUEST_LIMIT + SLACK
