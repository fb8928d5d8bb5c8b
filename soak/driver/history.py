"""What the ledgers state about each record, and so what a reader may find.

A record that one worker writes has its last acknowledged version, or the version of a later put of
unknown outcome. The generation is the priority of such a record. So a put that a killed worker left
behind cannot replace a newer one.

All workers write the shared record. Another put has certainly replaced a version if it began after the
version's put was over, and was acknowledged before the read began. A read may find every other version
whose put began before the read ended.
"""

import bisect

HOT = "hot/hot"


class Record:
    """A record that one worker writes."""

    def __init__(self):
        self.last = 0          # the last generation used
        self.stored = None     # (generation, size), acknowledged
        self.pending = []      # [(generation, size)] of unknown outcome, begun after stored
        self.expires = False
        self.watched = None    # while somebody reads: every version begun

    def put(self, version, seconds):
        self.last = max(self.last, version[0])
        self.expires = seconds > 0
        self.pending.append(version)
        if self.watched is not None:
            self.watched.append(version)

    def ack(self, generation):
        for version in self.pending:
            if version[0] == generation:
                self.stored = version
        self.pending = [version for version in self.pending if version[0] > generation]

    def refuse(self, generation):
        self.pending = [version for version in self.pending if version[0] != generation]

    def allowed(self):
        return ([self.stored] if self.stored else []) + self.pending

    def watch(self):
        """Begins a read. Returns the list of what it may find, which grows."""
        self.watched = self.allowed()
        return self.watched


class Put:
    """A put of the shared record."""

    def __init__(self, version, begin):
        self.version = version
        self.begin = begin
        self.end = None       # when its effect was certain; None while it may still come
        self.stored = False   # whether it was acknowledged


class Shared:
    """The record that all workers write. Times are in nanoseconds."""

    def __init__(self):
        self._puts = {}        # generation: Put
        self._ends = []        # ends of acknowledged puts, sorted
        self._begins = []      # the latest begin of the puts up to each of the ends

    def put(self, version, begin):
        self._puts[version[0]] = Put(version, begin)

    def ack(self, generation, time):
        put = self._puts[generation]
        put.end, put.stored = time, True
        place = bisect.bisect(self._ends, time)
        self._ends.insert(place, time)
        self._begins.insert(place, put.begin)
        for i in range(place, len(self._begins)):
            self._begins[i] = max(self._begins[i], self._begins[i - 1] if i else 0)

    def refuse(self, generation):
        del self._puts[generation]

    def give_up(self, generation, time):
        """After this time a put of unknown outcome has no effect any more."""
        put = self._puts.get(generation)
        if put and put.end is None:
            put.end = time

    def _settled(self, begin):
        """The latest begin of the puts that were acknowledged before the time; 0 without any."""
        place = bisect.bisect_left(self._ends, begin)
        return self._begins[place - 1] if place else 0

    def allowed(self, begin, end):
        """The versions that a read between the two times may find."""
        settled = self._settled(begin)
        return [put.version for put in self._puts.values()
                if put.begin < end and (put.end is None or put.end >= settled)]

    def may_be_absent(self, begin):
        return self._settled(begin) == 0

    def forget(self, before):
        """Forgets the versions that a read cannot find if it begins after the time."""
        settled = self._settled(before)
        for generation in [generation for generation, put in self._puts.items()
                           if put.end is not None and put.end < settled]:
            del self._puts[generation]
        place = bisect.bisect_left(self._ends, before) - 1
        if place > 0:
            del self._ends[:place], self._begins[:place]
