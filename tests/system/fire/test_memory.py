"""The daemon stays below the memory that it states, while all bounds are reached at once."""

import os
import threading

from attack import ATTACKER, most_of_a_put
from giop import DiscoveryQuery
from honest import Honest
from records import ANY, SUCCESS, open_writer, put, record

THREADS = 16
MESSAGE = 4 << 20
ITERATORS = 400
REGISTRATIONS = 1500
LONG = "n" * 1000


def test_the_ceiling_holds(attacked, attack, figures, counter, root):
    daemon = attacked(REQUEST_TIMEOUT=600, REQUEST_THREADS=THREADS, MAX_MESSAGE_BYTES=MESSAGE,
                      MAX_CONNECTIONS=2000, MAX_ITERATORS=ITERATORS, CACHED_RECORDS=1000,
                      MAX_PULLED_BYTES=1 << 20, MAX_ARRIVING_BYTES=2 << 20)
    ceiling = root.status()["counters"]["memoryCeiling"]
    assert ceiling == (96 << 20) + THREADS * (MESSAGE + (3 << 20)) + 2400 * 8192 + \
        (ITERATORS + 1000) * 8192 + (1 << 20) + (2 << 20) + 10_000 * 32768 + 1000 * 400
    with Honest(daemon):
        service = daemon.client(source=ATTACKER)
        for number in range(REGISTRATIONS):
            service.registerExplorer("DiscoveryService", LONG, "%s%d" % (LONG, number), LONG, 1, 1)
        assert put(service, "large", "attacker", bytes(2 << 20), chunk=1 << 20) == SUCCESS
        for _ in range(ITERATORS // 4):
            _, iterator = service.getCollectionData(record("large", "attacker"), "")
            iterator.pageSize = 1 << 20
            iterator.getNextPage()
            service.queryDiscoveries(DiscoveryQuery.DQ_DISCOVERY_DATA, ANY, "*", "*").getNextPage()
        writers = [open_writer(service, record("w%d" % number, "attacker"))
                   for number in range(200)]
        attacker = attack(daemon)
        attacker.open(1500)
        senders = [threading.Thread(target=send, args=(attacker.connect(), writer), daemon=True)
                   for writer in writers[:3 * THREADS]]
        for each in senders:
            each.start()
        for each in senders:
            each.join(60)
        counter("connectionsStalled", 1)
    if not os.environ.get("QM_SANITIZE"):  # a sanitizer needs memory itself
        assert figures(daemon)["VmHWM"] * 1024 < ceiling
    assert daemon.stop() == 0


def send(connection, writer):
    """Sends a put of full size without its end. The daemon may close the connection meanwhile."""
    try:
        connection.sendall(most_of_a_put(writer, MESSAGE - 4096))
    except OSError:
        pass
