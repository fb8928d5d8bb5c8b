"""A link fails and recovers so fast that no request gives up."""

import contextlib
import hashlib
import random
import threading

import harness
from lab.stage import wait_until_pushed
from records import ANY, SUCCESS, get, put, query

FLAPS = 20
LARGEST = 20_000
# The longest time that a link stays cut and stays whole, in seconds.
CUT, WHOLE = 0.2, 0.3


@contextlib.contextmanager
def flapping(stage, host):
    """A context manager that cuts and repairs the host's link again and again. At the end the link
    is whole. It yields a list with an item for each cut."""
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
    """Puts, queries and pulls continue slowly. After a successful put the record has the new data.
    After a failed put it has either the old data or all of the new data."""
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
            except AssertionError:  # the writer was not opened, or a chunk was lost
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
