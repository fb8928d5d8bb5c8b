"""Many clients start at the same moment, as after a power cut."""

import os
import signal
from concurrent.futures import ThreadPoolExecutor

import harness
from giop import AuthorityType
from lab import prompt_names
from lab.stage import wait_until_stored
from records import ANY, get, query, subjects

# An instrumented daemon needs several times as much memory and time.
CLIENTS = 12 if os.environ.get("QM_SANITIZE") else 50
LIMIT = 240


def test_all_register_and_push(stage):
    stage.build(prompt_names(CLIENTS))
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start(stage.master)
    stage.start(*stage.clients)
    names = sorted(str(client) for client in stage.clients)

    def registered():
        return {"4 %s %s%%2Fnow.xml" % (name, name) for name in names} <= \
            set(stage.master.root.files())
    harness.wait_for(registered, "all are registered", LIMIT)
    for client in stage.clients:
        wait_until_stored(client, stage.master)

    service = stage.service(stage.master)
    assert subjects(service, type=AuthorityType.AT_REMOTEPULL) == \
        sorted("%s/now" % name for name in names)
    pushed = {each.subject for each in query(service) if each.subject == each.authority}
    assert pushed == {"master", *names}
    assert get(service, "%s/now" % names[-1], names[-1], ANY)
    for name in names:
        assert b"<DiscoveredItems" in get(service, name, name, ANY)

    status = stage.master.root.status()
    assert status["assertions"] == 0
    assert [line.text for line in stage.master.root.log().lines() if "Failed" in line.text] == []

    # All clients query at once and get the same answer.
    def asked(client):
        return subjects(stage.service(client))
    with ThreadPoolExecutor(CLIENTS) as pool:
        answers = list(pool.map(asked, stage.clients))
    assert answers == [subjects(service)] * CLIENTS

    for host in stage.lab.hosts.values():
        stage.daemon(host).send(signal.SIGTERM)
    assert [stage.daemon(host).wait() for host in stage.lab.hosts.values()] == [0] * (CLIENTS + 1)
