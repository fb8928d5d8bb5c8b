"""What is sampled while the daemon runs, and how much of it may grow."""

import csv
import time

from trend import Limit, growth

MIB = 1 << 20

# Growth during the second half of a series. The machine may be busy with other work, so latencies have
# much room. The sampler subtracts the temporary files and iterators that clients left open.
LIMITS = (
    Limit("descriptors", "descriptors", 8),
    Limit("threads", "threads", 8),
    Limit("memory", "MiB", 8, 0.10),
    Limit("temporary files", "files", 4),
    Limit("records", "descriptors of records", 8),
)
LATENCY = Limit("latency", "ms", 15, 0.5)
EVICTED = 305    # seconds; after this an iterator that nobody uses is gone
UNCERTAIN = 4    # operations that nobody counts at the moment of a kill
LEAST_OPERATIONS = 10  # in a sample; the median of fewer says nothing
# The whole process, with what the store remembers.
MEMORY_LIMIT = 256 * MIB
LOG_BYTES_A_MINUTE = 2 * MIB


def percentile(bins, share):
    """A percentile in milliseconds of {bin: number}. soak/Ledger.h describes the bins."""
    wanted = share * sum(bins.values())
    seen = 0
    for number in sorted(bins):
        seen += bins[number]
        if seen >= wanted:
            break
    return 2 ** ((number + 1) / 8) / 1000


def latency_figures(book):
    """{kind of operation: its number, and its percentiles in milliseconds}"""
    return {kind: {"operations": sum(bins.values()), "p50": percentile(bins, 0.5),
                   "p99": percentile(bins, 0.99), "max": percentile(bins, 1)}
            for kind, bins in sorted(book.latencies.items())}


class Series:
    """The samples of one life of the daemon."""

    def __init__(self):
        self.points = {limit.name: [] for limit in LIMITS}
        self.latencies = {}      # kind: points
        self.writers_left = 0    # by killed clients
        self.data_left = []      # when killed clients left iterators over payloads, in seconds

    def leave(self, kept):
        """A killed client left what the letter of soak/Phase.h states."""
        if kept == "w":
            self.writers_left += 1
        elif kept == "d":
            self.data_left.append(time.monotonic())


class Sampler:
    """Takes samples, and writes them to a table."""

    COLUMNS = ("seconds", "life", "descriptors", "descriptors of records", "threads",
               "resident bytes", "temporary files", "writers left open", "iterators left open",
               "log bytes", "operations")
    LATENCY_COLUMNS = ("seconds", "operation", "number", "p50 ms", "p99 ms", "max ms")

    def __init__(self, service, book, directory, report, warm_up):
        self._service = service
        self._book = book
        self._report = report
        self._warm_up = warm_up
        self._files = []
        self._table = self._open(directory / "samples.csv", self.COLUMNS)
        self._latency_table = self._open(directory / "latencies.csv", self.LATENCY_COLUMNS)
        self._begin = time.monotonic()
        self._log_at = []     # (time, bytes)
        self._seen = {}       # kind: bins at the last sample
        self.all = []         # every Series
        self.series = None
        self.highest = {}

    def new_series(self):
        self.series = Series()
        self.all.append(self.series)

    def _open(self, path, columns):
        file = open(path, "w", newline="", encoding="utf-8")
        self._files.append(file)
        table = csv.writer(file)
        table.writerow(columns)
        return table

    def close(self):
        for file in self._files:
            file.close()

    def take(self, clients):
        """clients: how many workers are at work."""
        now = time.monotonic() - self._begin
        files = self._service.descriptors()
        memory, threads = self._service.memory_and_threads()
        temporary = self._service.temporary_files()
        log = self._service.log.written()
        series = self.series
        writers = series.writers_left + sum(worker.writers for worker in self._book.workers)
        evicted = time.monotonic() - EVICTED
        iterators = sum(left > evicted for left in series.data_left) + \
            sum(left > evicted for worker in self._book.workers for left in worker.data)
        for name, value in (("descriptors", files.others), ("threads", threads),
                            ("memory", memory / MIB), ("temporary files", temporary - writers),
                            ("records", files.records - 2 * iterators)):
            series.points[name].append((now, value))
            self.highest[name] = max(value, self.highest.get(name, value))
        # A worker has one operation under way, with at most one temporary file and two files of records.
        # An operation of a killed client may still run beside it.
        most = writers + clients + UNCERTAIN
        if files.updating > most or temporary > most:
            self._report("%d temporary files, %d of them open; %d are explained"
                         % (temporary, files.updating, most))
        most = 2 * (iterators + 2 * clients + UNCERTAIN)
        if files.records > most:
            self._report("%d descriptors of records; %d are explained" % (files.records, most))
        if memory > MEMORY_LIMIT:
            self._report("%.0f MiB of memory" % (memory / MIB))
        self._judge_log(now, log)
        operations = self._latencies(now)
        self._table.writerow(["%.1f" % now, self._service.starts, files.others, files.records,
                              threads, memory, temporary, writers, iterators, log,
                              operations])
        for file in self._files:
            file.flush()

    def _judge_log(self, now, log):
        self._log_at.append((now, log))
        while self._log_at[0][0] < now - 60:
            self._log_at.pop(0)
        first = self._log_at[0]
        if log - first[1] > LOG_BYTES_A_MINUTE:
            self._report("the log has %d bytes more in %.0f s" % (log - first[1], now - first[0]))

    def _latencies(self, now):
        operations = 0
        for kind, bins in self._book.latencies.items():
            before = self._seen.get(kind, {})
            new = {number: count - before.get(number, 0) for number, count in bins.items()
                   if count > before.get(number, 0)}
            self._seen[kind] = dict(bins)
            operations += sum(new.values())
            if new:
                figures = [percentile(new, share) for share in (0.5, 0.99, 1)]
                if sum(new.values()) >= LEAST_OPERATIONS:
                    self.series.latencies.setdefault(kind, []).append((now, figures[0]))
                self._latency_table.writerow(["%.1f" % now, kind, sum(new.values()),
                                              *("%.3f" % each for each in figures)])
        return operations

    def judge(self):
        return judge(self.all, self._warm_up, self._report)


def judge(all_series, warm_up, report):
    """Fits every series. Returns {figure: (worst growth, seconds of that half)}."""
    worst = {}
    for series in all_series:
        figures = [(limit.name, limit, series.points[limit.name]) for limit in LIMITS]
        figures += [("latency of " + kind, LATENCY, points)
                    for kind, points in series.latencies.items()]
        for name, limit, points in figures:
            found = growth(points, warm_up)
            if found is None:
                continue
            problem = limit.verdict(name, points, found)
            if problem:
                report(problem)
            worst[name] = max(found, worst.get(name, found))
    return worst
