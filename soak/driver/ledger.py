"""Reads the ledgers of the workers. soak/Ledger.h describes their lines."""

import collections
import pathlib

from history import HOT, Record, Shared
from stamp import matches

SECOND = 1_000_000_000
# A put that was under way when its client died is over after this time.
AFTERMATH = 25 * SECOND
# A worker writes at least one line in this time. It may wait for a start of the service, and then 20 s
# for an answer.
SILENCE = 90 * SECOND


class Worker:
    """What is known about one worker, over all its lives."""

    def __init__(self, number, authority):
        self.number = number
        self.authority = authority
        self.path = None
        self.file = None
        self.writers = 0        # abandoned since the service came up
        self.iterators = []     # when each was abandoned, in seconds
        self.data = []          # the same, only iterators over payloads
        self.hot = 0            # the last generation of the shared record that it used
        self.open_put = None    # (name, generation) of the put that is under way
        self.last_line = 0      # when it wrote last
        self.ended = False
        self._rest = b""

    def begin(self, path, now):
        """Begins a new life with a new ledger. Removes the ledger of the life before."""
        if self.path:
            self.close()
            self.path.unlink(missing_ok=True)
            self._phase_path().unlink(missing_ok=True)
        self.path = pathlib.Path(path)
        self.last_line = now
        self.ended = False

    def close(self):
        if self.file:
            self.file.close()
        self.file = None
        self._rest = b""

    def _phase_path(self):
        return self.path.with_name(self.path.name + ".phase")

    def phase(self):
        """What the service keeps open for the worker: one of the letters of soak/Phase.h."""
        try:
            return self._phase_path().read_text(encoding="ascii")
        except FileNotFoundError:
            return "-"

    def lines(self):
        """The lines since the last call."""
        if self.file is None:
            try:
                self.file = open(self.path, "rb")
            except FileNotFoundError:
                return []
        parts = (self._rest + self.file.read()).split(b"\n")
        self._rest = parts.pop()
        return [part.decode("utf-8", errors="replace").split(" ") for part in parts]


class Book:
    """All workers, all records, and what went wrong."""

    def __init__(self, workers, report, aftermath=AFTERMATH):
        self.workers = workers
        self._aftermath = aftermath
        self.records = {}
        self.shared = Shared()
        self.report = report              # called with each problem
        self.latencies = collections.defaultdict(collections.Counter)  # {kind: {bin: number}}
        self.losses = []                  # (time, worker, text)
        self.counts = collections.Counter()
        self._reads = []                  # reads of the shared record that are not judged yet

    def read(self, now):
        """Reads the new lines of all ledgers. They have every line of the time before `now`."""
        for worker in self.workers:
            self.read_worker(worker)
        self._judge(now)

    def read_worker(self, worker):
        for words in worker.lines():
            worker.last_line = int(words[1])
            self._line(worker, words[0], int(words[1]), words[2:])

    def died(self, worker, time):
        """The worker's process has ended. Returns its phase: what it left open."""
        self.read_worker(worker)
        self._give_up(worker, time)
        return worker.phase()

    def _give_up(self, worker, time):
        if worker.open_put and worker.open_put[0] == HOT:
            self.shared.give_up(worker.open_put[1], time + self._aftermath)
        worker.open_put = None

    def record(self, name):
        return self.records.setdefault(name, Record())

    def figures(self):
        """What a run states about all its records."""
        return {"records": sum(record.stored is not None for record in self.records.values()),
                "acknowledged puts": self.counts["ack"]}

    def _line(self, worker, word, time, rest):
        if word == "took":
            for each in rest[1:]:
                number, count = each.split(":")
                self.latencies[rest[0]][int(number)] += int(count)
            return
        self.counts[word] += 1
        if word == "put":
            name, version = rest[0], (int(rest[1]), int(rest[2]))
            if name == HOT:
                worker.hot = version[0]
                self.shared.put(version, time)
            else:
                self.record(name).put(version, int(rest[3]))
            worker.open_put = name, version[0]
        elif word in ("ack", "not"):
            name, generation = rest[0], int(rest[1])
            worker.open_put = None
            if name == HOT:
                self.shared.ack(generation, time) if word == "ack" \
                    else self.shared.refuse(generation)
            elif word == "ack":
                self.record(name).ack(generation)
            else:
                self.record(name).refuse(generation)
        elif word == "saw":
            self._reads.append((time, int(rest[0]), (int(rest[2]), int(rest[3])), worker))
        elif word == "none":
            self._reads.append((time, int(rest[0]), None, worker))
        elif word == "writer":
            worker.writers += 1
        elif word in ("data", "list"):
            worker.iterators.append(time / SECOND)
            if word == "data":
                worker.data.append(time / SECOND)
        elif word == "lost":
            self._give_up(worker, time)
            self.losses.append((time, worker, " ".join(rest)))
        elif word in ("bad", "late"):
            self.report("%s: %s: %s" % (worker.authority, word, " ".join(rest)))
        elif word == "end":
            worker.ended = True

    def judge_losses(self, was_out):
        """A call may fail only while the service is out."""
        for moment, worker, text in self.losses:
            if not was_out(moment):
                self.report("%s: a call failed while the service was up: %s"
                            % (worker.authority, text))

    def check_silence(self, now):
        for worker in self.workers:
            if now - worker.last_line > SILENCE:
                raise RuntimeError("%s has done nothing for %.0f s"
                                   % (worker.authority, (now - worker.last_line) / SECOND))

    def _judge(self, now):
        """Judges the reads of the shared record that ended before the time."""
        ready = [read for read in self._reads if read[0] < now]
        self._reads = [read for read in self._reads if read[0] >= now]
        for end, begin, version, worker in ready:
            self.judge_shared(version, begin, end, worker.authority)
        self.shared.forget(min([now - AFTERMATH] + [read[1] for read in self._reads]))

    def judge_shared(self, version, begin, end, reader):
        if version is None:
            if not self.shared.may_be_absent(begin):
                self.report("%s: %s: missing" % (reader, HOT))
            return
        allowed = self.shared.allowed(begin, end)
        if not any(matches(version, each) for each in allowed):
            self.report("%s: %s: found %d:%d instead of %s"
                        % (reader, HOT, *version, " ".join("%d:%d" % each for each in allowed)))

    def state_of(self, worker):
        """What the worker must know at the start of a new life."""
        mine = {name: record for name, record in self.records.items()
                if name.startswith(worker.authority + "/")}
        generations = {name: record.last for name, record in mine.items()}
        if worker.hot:
            generations[HOT] = worker.hot
        return {"authority": worker.authority, "number": worker.number, "generations": generations,
                "versions": {name: [record.stored, *record.pending]
                             for name, record in mine.items() if not record.expires},
                "writers": worker.writers, "iterators": worker.iterators}
