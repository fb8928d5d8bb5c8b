"""An honest client beside hostile ones."""

import os
import threading

from records import SUCCESS, get, put, query

HONEST = "127.0.0.7"
# Seconds within which each of its calls is answered. An instrumented daemon is slower.
PROMPT = 20 if os.environ.get("QM_SANITIZE") else 5


class Honest:
    """A client that stores, reads and finds a record all the time, until the end of the block. Each
    round has new connections. Each answer must come within PROMPT seconds."""

    def __init__(self, daemon):
        self._daemon = daemon
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._failure = None
        self.rounds = 0

    def _round(self):
        service = self._daemon.client(timeout=PROMPT, source=HONEST)
        data = b"%d" % self.rounds
        assert put(service, "honest", "client", data) == SUCCESS
        assert get(service, "honest", "client") == data
        assert len(query(service, authority="client")) == 1
        service.orb.close()

    def _run(self):
        try:
            while not self._end.is_set():
                self._round()
                self.rounds += 1
                self._end.wait(0.02)
        except BaseException as failure:  # pylint: disable=broad-except
            self._failure = failure

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._end.set()
        self._thread.join(10 * PROMPT)
        assert not self._thread.is_alive(), "the honest client hangs"
        assert not self._failure, "the honest client: %r" % self._failure
        assert self.rounds > 0
