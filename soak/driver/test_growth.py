"""Shows that the soak finds what grows, and what is over its bound."""

import random
import types

import samples
from cases import book_of


def test_trends(cases):
    chance = random.Random(1)

    def problems(figure, value):
        series = samples.Series()
        points = [(float(second), value(second)) for second in range(120)]
        if figure in series.points:
            series.points[figure] = points
        else:
            series.latencies[figure] = points
        found = []
        samples.judge([series], 10, found.append)
        return found
    for figure, leak in (("descriptors", 0.5), ("threads", 0.5), ("memory", 1.0), ("temporary files", 0.2),
                         ("records", 0.5),
                         ("put", 3.0)):
        def level(second):
            return 40 + chance.uniform(-3, 3)
        cases.expect(figure + " is steady", problems(figure, level))
        cases.expect(figure + " has peaks",
                     problems(figure, lambda second: 900 if second % 20 == 0 else level(second)))
        cases.expect(figure + " grows",
                     problems(figure, lambda second: level(second) + leak * second),
                     figure + " grows: by")
        cases.expect(figure + " grows only in the beginning",
                     problems(figure, lambda second: level(second) + leak * min(second, 50)))


class FakeService:
    """What Sampler asks a service."""

    starts = 1

    def __init__(self, updating=0, records=0, memory=30, log=()):
        self._files = types.SimpleNamespace(updating=updating, records=records, others=20)
        self._memory = memory * samples.MIB
        self._log = list(log) or [0]
        self.log = self

    def descriptors(self):
        return self._files

    def memory_and_threads(self):
        return self._memory, 10

    def temporary_files(self):
        return self._files.updating

    def written(self):
        return self._log.pop(0) if len(self._log) > 1 else self._log[0]


def test_bounds(cases, directory):
    def problems(service):
        found = []
        book, _ = book_of(directory)
        sampler = samples.Sampler(service, book, directory, found.append, 0)
        sampler.new_series()
        for left in "wwwd-l":
            sampler.series.leave(left)
        for _ in range(2):
            sampler.take(4)
        sampler.close()
        return found
    cases.expect("all is explained", problems(FakeService(updating=11, records=26)))
    cases.expect("too many temporary files", problems(FakeService(updating=12)),
                 "12 temporary files, 12 of them open; 11 are explained")
    cases.expect("too many open records", problems(FakeService(records=27)),
                 "27 descriptors of records; 26 are explained")
    cases.expect("too much memory", problems(FakeService(memory=257)), "257 MiB of memory")
    cases.expect("too much log",
                 problems(FakeService(log=[1, samples.LOG_BYTES_A_MINUTE + 2])),
                 "the log has %d bytes more" % (samples.LOG_BYTES_A_MINUTE + 1))
