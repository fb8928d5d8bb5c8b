"""Links that come and go faster than anybody gives up."""

import contextlib
import hashlib
import random
import threading

import harness
from lab.stage import wait_until_pushed
from records import ANY, SUCCESS, get, put, query

FLAPS = 20
LARGEST = 20_000
# Seconds that a link is cut, and whole, at most.
CUT, WHOLE = 0.2, 0.3


@contextlib.contextmanager
def flapping(stage, host):
    """The host's link, while this lasts; whole afterwards."""
    over = threading.Event()
    times = []

    def flap():
        chance = random.Random(str(host))
        while not over.is_set():
            stage.lab.cut(host)
            times.append(1)
            over.wait(chance.uniform(0, CUT))
            stage.lab.heal(host)
            over.wait(chance.uniform(0, WHOLE))
    thread = threading.Thread(target=flap)
    thread.start()
    try:
        yield times
    finally:
        over.set()
        thread.join()
        stage.lab.heal(host)


def sealed(data):
    return hashlib.sha256(data).digest() + data


def test_what_is_said_to_be_stored_is_stored(stage):
    """Puts, queries and pulls go on, slowly. What a put says it has stored is there; what it says it
    has not leaves the record as it was, or is there whole."""
    [client] = stage.build(1).clients
    stage.master.configure(FILESYSTEM_PULL="FALSE")
    stage.start_all()
    wait_until_pushed(client, stage.master)
    master, mine = stage.service(stage.master), stage.service(client)
    chance = random.Random(4)
    possible = {sealed(b"first")}
    assert put(master, "volumes", "a", sealed(b"first")) == SUCCESS
    with flapping(stage, client) as times:
        while len(times) < FLAPS:
            data = sealed(chance.randbytes(chance.randrange(LARGEST)))
            try:
                stored = put(mine, "volumes", "a", data, chunk=7000) == SUCCESS
            except AssertionError:  # it was not even opened, or a chunk was lost
                stored = False
            possible = {data} if stored else possible | {data}
            assert get(master, "volumes", "a") in possible
            query(mine)
    harness.wait_for(lambda: "volumes" in [each.subject for each in query(mine)],
                     "the client sees the master again")
    assert put(mine, "volumes", "a", b"after") == SUCCESS
    assert get(master, "volumes", "a") == b"after"
    assert get(master, "%s/now" % client, str(client), ANY)
    assert stage.daemon(client).stop() == 0
    assert stage.daemon(stage.master).stop() == 0
