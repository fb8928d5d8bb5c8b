"""Shows the figures of a run."""

BEGIN = "<!-- begin of the soak's figures: scripts/soak --publish writes them -->"
END = "<!-- end of the soak's figures -->"
MIB = 1 << 20


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
    lines = [document["machine"]] if "machine" in document else []
    for title, header, rows in tables(document):
        widths = [max(len(row[i]) for row in [header, *rows]) for i in range(len(header))]
        lines += ["", title]
        for row in [header, *rows]:
            lines.append("  ".join(text.ljust(width) if i == 0 else text.rjust(width)
                                   for i, (text, width) in enumerate(zip(row, widths))).rstrip())
    return "\n".join(lines) + "\n"


def to_markdown(document):
    lines = ["%g minutes on %s, seed %d. %s." % (document["minutes"], document["date"],
                                                document["seed"], document["machine"])]
    for title, header, rows in tables(document):
        lines += ["", "**%s**" % title, "", "| %s |" % " | ".join(header),
                  "|%s" % ("---|" * len(header))]
        lines += ["| %s |" % " | ".join(row) for row in rows]
    return "\n".join(lines) + "\n"


def replace(path, begin, end, figures):
    """Replaces what a page has between two lines."""
    text = path.read_text(encoding="utf-8")
    before, found, rest = text.partition(begin)
    _, found_end, after = rest.partition(end)
    if not found or not found_end:
        raise RuntimeError("%s lacks the lines that enclose the figures" % path)
    path.write_text("%s%s\n%s%s%s" % (before, begin, figures, end, after), encoding="utf-8")


def write_into(path, document):
    """Replaces the figures of a page."""
    replace(path, BEGIN, END, to_markdown(document))
