"""Peers that send unfinished messages, fragments and cancellations, by the thousand."""

import os
import time

import harness
from attack import (ATTACKER, half_a_request, most_of_a_put, piece, put_in_fragments, read_reply,
                    request)
from giop.messages import MessageType
from honest import Honest
from records import SUCCESS, get, open_writer, put, record

UNFINISHED = 16  # messages of one connection at the same time, with the one that arrives
MESSAGE = 1 << 20


def first_piece(request_id):
    return piece(MessageType.REQUEST, request_id, bytes(8), more=True)


def test_requests_without_their_last_fragment_take_no_thread(attacked, attack, counter, figures,
                                                             root):
    daemon = attacked(REQUEST_TIMEOUT=5, REQUEST_THREADS=8)
    attacker = attack(daemon)
    with Honest(daemon):
        attacker.open(2000, first_piece(1) + piece(MessageType.FRAGMENT, 1, bytes(8), more=True))
        assert figures(daemon)["Threads"] < 50
        assert root.status()["counters"]["requestsWaiting"] == 0
        counter("connectionsStalled", 2000)
        harness.wait_for(lambda: attacker.ended() == 2000, "the connections end")


def test_a_connection_has_sixteen_unfinished_messages(attacked, attack, counter, root):
    daemon = attacked()
    attacker = attack(daemon)
    with Honest(daemon):
        connection = attacker.connect()
        connection.sendall(b"".join(first_piece(number) for number in range(UNFINISHED)))
        time.sleep(0.5)
        assert attacker.ended() == 0
        connection.setblocking(True)
        connection.sendall(first_piece(UNFINISHED))
        counter("connectionsMalformed", 1)
        harness.wait_for(lambda: attacker.ended() == 1, "the connection ends")
    assert "Closed a connection of 127.0.0.66: too many of its messages are unfinished" in \
        root.log_file.read_text()


def test_answers_beside_as_many_unfinished_messages_as_allowed(attacked, attack, root):
    """Each of the fifteen has as many bytes as a small message may have."""
    daemon = attacked()
    attacker = attack(daemon)
    service = daemon.client(source=ATTACKER)
    puts = []
    for number in range(UNFINISHED - 1):  # and the message that arrives
        writer = open_writer(service, record("put%d" % number, "attacker"))
        puts.append(put_in_fragments(writer, bytes(70_000), fragment=65536, request_id=number + 2))
    with Honest(daemon):
        connection = attacker.connect()
        connection.sendall(b"".join(first for first, _ in puts))
        for _ in range(3):
            connection.sendall(request(service, "_non_existent"))
            assert connection.recv(65536)[:4] == b"GIOP"
        connection.sendall(b"".join(last for _, last in puts))
        with connection.makefile("rb") as replies:
            answered = {read_reply(replies) for _ in puts}
        assert answered == set(range(2, 2 + len(puts)))
    assert root.status()["counters"]["connectionsStalled"] == 0


def test_all_fragments_together_have_the_limit_of_a_message(attacked, attack, counter, root):
    daemon = attacked(MAX_MESSAGE_BYTES=MESSAGE)
    attacker = attack(daemon)
    with Honest(daemon):
        writer = open_writer(daemon.client(source=ATTACKER), record("pieces", "attacker"))
        fitting = attacker.connect()
        fitting.sendall(b"".join(put_in_fragments(writer, bytes(MESSAGE - 4096))))
        assert fitting.recv(12)[:4] == b"GIOP"
        assert root.status()["counters"]["connectionsMalformed"] == 0

        longer = attacker.connect()
        try:
            for part in put_in_fragments(writer, bytes(MESSAGE + 4096)):
                longer.sendall(part)
        except OSError:
            pass  # the daemon closes it before the last fragment
        counter("connectionsMalformed", 1)
    assert "the fragments of a message are longer than MAX_MESSAGE_BYTES together" in \
        root.log_file.read_text()


def test_fragments_beyond_the_limit_are_not_read(attacked, attack, counter):
    """Each fragment is small. Together they would be four times as much as a message may have."""
    daemon = attacked(MAX_MESSAGE_BYTES=MESSAGE)
    attacker = attack(daemon)
    with Honest(daemon):
        writer = open_writer(daemon.client(source=ATTACKER), record("pieces", "attacker"))
        pieces = put_in_fragments(writer, bytes(4 * MESSAGE), fragment=8192)
        for _ in range(20):
            connection = attacker.connect()
            try:
                for part in pieces:
                    connection.sendall(part)
            except OSError:
                continue
        counter("connectionsMalformed", 20)


def test_large_puts_in_turns(attacked, attack, root):
    """A client may send the fragments of several messages over one connection in turns."""
    daemon = attacked()
    service = daemon.client(source=ATTACKER)
    payloads = [os.urandom(300_000 + number) for number in range(UNFINISHED - 1)]
    writers = [open_writer(service, record("turns%d" % number, "client"))
               for number in range(len(payloads))]
    puts = [put_in_fragments(writer, payload, request_id=10 + number)
            for number, (writer, payload) in enumerate(zip(writers, payloads))]
    with Honest(daemon):
        connection = attack(daemon).connect()
        connection.sendall(b"".join(part for turn in zip(*puts) for part in turn))
        with connection.makefile("rb") as replies:
            answered = {read_reply(replies) for _ in puts}
        assert answered == set(range(10, 10 + len(puts)))
    for number, (writer, payload) in enumerate(zip(writers, payloads)):
        assert writer.close().discStatus == SUCCESS
        assert get(service, "turns%d" % number, "client") == payload
    assert root.status()["counters"]["connectionsMalformed"] == 0


def test_messages_beside_a_large_one_count_as_arriving(attacked, attack, counter):
    """A thread serves the large message of each connection, while others arrive there."""
    room = 1 << 20
    daemon = attacked(REQUEST_TIMEOUT=600, MAX_ARRIVING_BYTES=room)
    attacker = attack(daemon)
    with Honest(daemon) as honest:
        writer = open_writer(daemon.client(source=ATTACKER), record("stalled", "attacker"))
        large = put_in_fragments(writer, bytes(200_000))[:3]
        beside = [piece(MessageType.REQUEST, 2, bytes(32), more=True)]
        beside += [piece(MessageType.FRAGMENT, 2, bytes(32768), more=True)] * 15
        for _ in range(3):
            attacker.connect().sendall(b"".join(large + beside))
        counter("connectionsCrowdedOut", 1)
        harness.wait_for(lambda: attacker.ended() > 0, "the largest one loses its connection")
        rounds = honest.rounds
        harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client is served")
    assert daemon.stop() == 0


def test_cancellations_cost_nothing(attacked, attack, figures):
    daemon = attacked()
    attacker = attack(daemon)
    service = daemon.client(source=ATTACKER)
    cancellations = b"".join(piece(MessageType.CANCEL_REQUEST, number, b"", more=False)
                             for number in range(20_000))
    connection = attacker.connect()
    resident = []
    with Honest(daemon):
        for _ in range(2):
            for _ in range(10):
                connection.sendall(cancellations)
            connection.sendall(request(service, "_non_existent"))
            assert connection.recv(4096)[:4] == b"GIOP"
            resident.append(figures(daemon)["VmRSS"])
        # The second round of 200,000 needed no more than the first. New threads take a few MiB. If
        # each cancellation left 100 bytes, it would be 19 MiB.
        if not os.environ.get("QM_SANITIZE"):
            assert resident[1] <= resident[0] + (10 << 10)
    assert daemon.stop() == 0


def test_requests_that_break_off_leave_nothing(attacked, attack, figures):
    """The connections end while the daemon skips the rest of requests that it has refused. A
    sanitizer finds each leak. Without one, the memory must not grow with each round."""
    sanitized = bool(os.environ.get("QM_SANITIZE"))
    daemon = attacked()
    service = daemon.client(source=ATTACKER)
    broken = request(service, "nothing", lambda e: e.octets(bytes(200_000)))[:70_000]
    resident = []
    with Honest(daemon):
        for number in range(1 if sanitized else 4):
            # The ports of ended connections stay taken for a minute. So each round has an address.
            attacker = attack(daemon, source="127.0.0.%d" % (100 + number))
            for _ in range(500 if sanitized else 4000):
                attacker.open(1, broken)
                attacker.close()
            time.sleep(0.5)
            resident.append(figures(daemon)["VmRSS"])
    # A leak of the ORB would be 4 MiB in each round.
    assert resident[-1] <= resident[0] + (10 << 10)
    assert daemon.stop() == 0


def test_the_requests_of_a_flood_wait_in_their_own_line(attacked, attack, counter, root):
    """Each begins to arrive, is large enough for a thread, and stalls."""
    daemon = attacked(REQUEST_TIMEOUT=600, REQUEST_THREADS=8)
    attacker = attack(daemon)
    with Honest(daemon):
        writer = open_writer(daemon.client(source=ATTACKER), record("stalled", "attacker"))
        attacker.open(1000, most_of_a_put(writer)[:70_000])
        counter("requestsWaitingHighest", 500)
        harness.wait_for(lambda: attacker.ended() > 5, "the oldest ones lose their connection")
        assert root.status()["counters"]["requestsWaiting"] > 100
    assert daemon.stop() == 0


def test_pipelined_requests_of_many_connections_are_all_answered(attacked, attack, figures):
    """One peer has more connections with a next request than it may have threads."""
    daemon = attacked(REQUEST_THREADS=8)
    service = daemon.client(source=ATTACKER)
    calls = 200
    with Honest(daemon):
        attacker = attack(daemon)
        connections = [attacker.connect() for _ in range(60)]
        for connection in connections:
            connection.sendall(request(service, "_non_existent") * calls)
        for connection in connections:
            with connection.makefile("rb") as replies:
                for _ in range(calls):
                    read_reply(replies)
    assert figures(daemon)["Threads"] < 50


def test_the_room_for_arriving_requests(attacked, attack, counter, root):
    room = 1 << 20
    kept = 60_000
    daemon = attacked(REQUEST_TIMEOUT=600, MAX_ARRIVING_BYTES=room)
    attacker = attack(daemon)
    with Honest(daemon) as honest:
        attacker.open(room // kept - 1, half_a_request(kept) + bytes(kept - 200))
        time.sleep(1)
        assert root.status()["counters"]["connectionsCrowdedOut"] == 0
        attacker.open(20, half_a_request(kept) + bytes(kept - 200))
        counter("connectionsCrowdedOut", 10)
        rounds = honest.rounds
        harness.wait_for(lambda: honest.rounds > rounds + 20, "the honest client is served")
    service = daemon.client()
    assert put(service, "large", "honest", bytes(4 << 20), chunk=1 << 20) == SUCCESS
    assert "bytes (MAX_ARRIVING_BYTES). Closed a connection of 127.0.0.66, which took" in \
        root.log_file.read_text()


def test_pieces_that_end_in_the_middle_of_eight_bytes(attacked, attack, counter):
    """The ORB would read such a message for ever."""
    daemon = attacked()
    attacker = attack(daemon)
    service = daemon.client(source=ATTACKER)
    whole = request(service, "queryDiscoveries", lambda e: e.octets(bytes(100_000)))
    with Honest(daemon):
        for _ in range(200):
            connection = attacker.connect()
            connection.sendall(piece(MessageType.REQUEST, 1, whole[16:65_541], more=True))
        counter("connectionsMalformed", 200)
        harness.wait_for(lambda: attacker.ended() == 200, "the connections end")
    assert daemon.stop() == 0
