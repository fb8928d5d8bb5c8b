"""What the service has to reach, as ratios within one run."""

import statistics

from measure import MIB


class Goal:
    """One ratio: the value, the bound, and whether a larger value is better."""

    def __init__(self, path, against, value, bound, at_least=True):
        self.path = path
        self.against = against
        self.value = value
        self.bound = bound
        self.at_least = at_least

    @property
    def reached(self):
        """Whether the value is within the bound; None if it was not measured."""
        if self.value is None:
            return None
        return self.value >= self.bound if self.at_least else self.value <= self.bound

    def to_json(self):
        return {"path": self.path, "against": self.against, "value": self.value,
                "bound": self.bound, "atLeast": self.at_least, "reached": self.reached}


def goals(document):
    """All goals. document is what main.py writes as JSON."""
    cells = {(c["operation"], c["records"], c["clients"]): c for c in document["cells"]}
    records = document["records"]
    most = max(records)

    def rate(operation, clients, target="service", count=most):
        cell = cells.get((operation, count, clients))
        found = cell and cell["targets"].get(target)
        return found["perSecond"]["median"] if found else None

    def ratio(operation, clients, target):
        mine, other = rate(operation, clients), rate(operation, clients, target)
        return mine / other if mine and other else None

    result = []

    def versus_etcd(operation, clients, bound):
        versus(operation, clients, "etcd", bound)
        versus(operation, clients, "gateway", bound)

    def versus(operation, clients, target, bound):
        result.append(Goal("%s, %d clients" % (operation, clients), target,
                           ratio(operation, clients, target), bound))

    clients = document["clients"]
    for count in clients:
        versus("read 1 KiB", count, "echo", 0.8)
        versus("read 1 KiB", count, "object", 0.8)
        versus_etcd("read 1 KiB", count, 0.9 if count == 1 else 3)
        few, many = (rate("read 1 KiB", count, count=n) for n in (min(records), most))
        result.append(Goal("read 1 KiB, %d clients" % count,
                           "%d records (slower by)" % min(records),
                           few / many if few and many and min(records) < most else None, 1.25,
                           at_least=False))
    versus("list all", 1, "ldap", 1.0)
    versus_etcd("list all", 1, 3)
    listing = document["listings"][-1]
    again = [r["second"]["processorSeconds"] / listing["records"] * 1e6
             for r in listing["repeats"]]
    result.append(Goal("list all again", "processor us a record", statistics.median(again), 3,
                       at_least=False))
    versus_etcd("list 1 %", 1, 5)
    for operation in ("put 1 KiB", "put new 1 KiB"):
        for count in clients:
            versus_etcd(operation, count, {1: 1.0, 8: 1.3, 32: 1.5}.get(count, 1.0))
            versus(operation, count, "files", 0.8)
    for count in clients:
        versus("read 16 MiB", count, "ldap", 1.3)
        versus("read 16 MiB", count, "echo", 0.8)
    for count in clients:
        versus("put 16 MiB", count, "files", 0.8)
    resident = statistics.median(r["residentAfter"] for r in listing["repeats"])
    result.append(Goal("memory after listing %d records" % listing["records"],
                       "64 MiB + 300 bytes a record",
                       resident / (64 * MIB + 300 * listing["records"]), 1.0, at_least=False))
    beside = document["beside"]
    result.append(Goal("memory after listings beside puts",
                       "64 MiB + 300 bytes a listed record",
                       beside["residentAfter"] / (64 * MIB + 300 * beside["listed"]), 1.0,
                       at_least=False))
    start = document["start"]
    result.append(Goal("start with %d records" % start["records"], "none (seconds more)",
                       statistics.median(start["full"]) - statistics.median(start["empty"]), 1.0,
                       at_least=False))
    return result
