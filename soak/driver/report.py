"""The figures of the soak as tables for a terminal and for docs/reliability.md."""

import figures

BEGIN = "<!-- begin of the soak's figures: scripts/soak --publish writes them -->"
END = "<!-- end of the soak's figures -->"


def _latencies(part):
    return (["operation", "number", "p50 ms", "p99 ms", "max ms"],
            [[kind, "{:,}".format(each["operations"])] + ["%.3g" % each[key]
                                                          for key in ("p50", "p99", "max")]
             for kind, each in part["latencies"].items()])


def _counts(part, keys):
    return (["what", "number"], [[key, "{:,}".format(round(part[key]))] for key in keys])


def tables(document):
    """[(title, header, rows)]"""
    result = []
    part = document.get("service")
    if part:
        result.append(("The service", *_counts(part, (
            "seconds", "clients", "records", "acknowledged puts", "clients killed",
            "daemons killed", "daemons stopped", "SIGHUP", "lost calls in outages",
            "records read by the driver", "records read in their files", "log bytes"))))
        result.append(("The service: latency of each kind of operation", *_latencies(part)))
        result.append(("The daemon: growth in the second half of a series",
                       ["figure", "highest", "worst growth", "in seconds"],
                       [[name, "%.1f" % part["highest"][name] if name in part["highest"] else "-",
                         "%+.1f" % growth, "%.0f" % seconds]
                        for name, (growth, seconds) in part["growth"].items()]))
    part = document.get("directory")
    if part:
        result.append(("One directory, several processes", *_counts(part, (
            "seconds", "processes", "threads", "processes killed", "records",
            "acknowledged puts"))))
        result.append(("One directory: latency of each kind of operation", *_latencies(part)))
    return result


def to_text(document):
    return document["machine"] + "\n" + figures.to_text(tables(document))


def to_markdown(document):
    return "%g minutes on %s, seed %d. %s.\n" % (
        document["minutes"], document["date"], document["seed"],
        document["machine"]) + figures.to_markdown(tables(document))


def write_into(path, document):
    """Replaces the figures of a page."""
    figures.replace(path, BEGIN, END, to_markdown(document))
