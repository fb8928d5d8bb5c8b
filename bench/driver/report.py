"""The figures as tables for a terminal and for docs/performance.md."""

import statistics

import figures
import machine

TARGETS = {"service": "service", "echo": "echo floor", "object": "object floor",
           "files": "file floor", "etcd": "etcd",
           "gateway": "gateway of etcd", "ldap": "OpenLDAP"}
BEGIN = "<!-- begin of the figures: scripts/bench writes them -->"
END = "<!-- end of the figures -->"


def number(value):
    """Three significant digits, or an integer from 100 on."""
    if value is None:
        return "-"
    return "{:,.0f}".format(value) if value >= 100 else "%.3g" % value


def spread(rates):
    return "%s (%s–%s)" % tuple(number(rates[name]) for name in ("median", "min", "max"))


def tables(document):
    """[(title, header, rows)], with all cells as text."""
    used = [t for t in TARGETS if any(t in c["targets"] for c in document["cells"])]
    rows = []
    for cell in document["cells"]:
        row = [cell["operation"], "{:,}".format(cell["records"]), str(cell["clients"])]
        mine = cell["targets"]["service"]["perSecond"]["median"]
        for target in used:
            found = cell["targets"].get(target)
            row.append(spread(found["perSecond"]) if found else "-")
            if target != "service":
                row.append("%.2f" % (mine / found["perSecond"]["median"]) if found else "-")
        times = cell["targets"]["service"]["milliseconds"]
        row += [number(times["p50"]), number(times["p99"])]
        rows.append(row)
    header = ["operation", "records", "clients"]
    for target in used:
        header.append(TARGETS[target])
        if target != "service":
            header.append("x " + TARGETS[target].split()[0])
    header += ["p50 ms", "p99 ms"]
    result = [("Operations a second: median (least–most)", header, rows)]

    def median(values):
        return statistics.median(values)

    rows = []
    for listing in document["listings"]:
        repeats, count = listing["repeats"], listing["records"]
        for name in ("first", "second"):
            rows.append([
                name, "{:,}".format(count), "%.3f" % median(r[name]["seconds"] for r in repeats),
                "%.2f" % (median(r[name]["processorSeconds"] for r in repeats) / count * 1e6),
                "%.1f" % (median(r["residentBefore" if name == "first" else "residentAfter"]
                                 for r in repeats) / 2**20)])
    result.append(("Listing all after a start. Memory: before the first, after the second",
                   ["listing", "records", "seconds", "processor us a record", "resident MiB"],
                   rows))
    beside = document["beside"]
    result.append(("Listings beside puts of new records",
                   ["listings", "puts", "listed records", "all records", "resident MiB before",
                    "after"],
                   [["{:,}".format(beside["listings"]), "{:,}".format(beside["puts"]),
                     "{:,}".format(beside["listed"]), "{:,}".format(beside["records"]),
                     "%.1f" % (beside["residentBefore"] / 2**20),
                     "%.1f" % (beside["residentAfter"] / 2**20)]]))
    start = document["start"]
    result.append(("Start of the service", ["records", "seconds: median (least–most)"],
                   [["{:,}".format(count), "%.3f (%.3f–%.3f)" % (median(values), min(values),
                                                                 max(values))]
                    for count, values in ((0, start["empty"]), (start["records"], start["full"]))]))
    result.append(("What is to be reached", ["path", "against", "ratio", "bound", "reached"],
                   [[g["path"], TARGETS.get(g["against"], g["against"]),
                     "-" if g["value"] is None else "%.2f" % g["value"],
                     "%s %g" % ("≥" if g["atLeast"] else "≤", g["bound"]),
                     {None: "not measured", True: "yes", False: "**no**"}[g["reached"]]]
                    for g in document["goals"]]))
    return result


def to_text(document):
    return machine.to_text(document["machine"]) + "\n" + figures.to_text(tables(document))


def to_markdown(document):
    return ("%s, on %s. %d repeats of %g s, in turns. `x` is the service's rate divided by the other "
            "one.\n" % (machine.to_text(document["machine"]), document["date"], document["repeats"],
                        document["seconds"])) + figures.to_markdown(tables(document))


def write_into(path, document):
    """Replaces the figures of a page."""
    figures.replace(path, BEGIN, END, to_markdown(document))
