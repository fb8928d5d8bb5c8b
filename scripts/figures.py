"""The figures of a run as tables, for a terminal and for a page. A table is (title, header, rows), and
every cell is a text."""


def to_text(tables):
    lines = []
    for title, header, rows in tables:
        widths = [max(len(row[i]) for row in [header, *rows]) for i in range(len(header))]
        lines += ["", title] if title else []
        for row in [header, *rows]:
            lines.append("  ".join(
                text.ljust(width) if i == 0 else text.rjust(width)
                for i, (text, width) in enumerate(zip(row, widths))).rstrip().replace("**", ""))
    return "\n".join(lines) + "\n"


def to_markdown(tables):
    lines = []
    for title, header, rows in tables:
        lines += ["", "**%s**" % title] if title else []
        lines += ["", "| %s |" % " | ".join(header), "|%s" % ("---|" * len(header))]
        lines += ["| %s |" % " | ".join(row) for row in rows]
    return "\n".join(lines) + "\n"


def replace(path, begin, end, text):
    """Replaces what a page has between two lines."""
    page = path.read_text(encoding="utf-8")
    before, found, rest = page.partition(begin)
    _, found_end, after = rest.partition(end)
    if not found or not found_end:
        raise RuntimeError("%s lacks the lines that enclose the figures" % path)
    path.write_text("%s%s\n%s%s%s" % (before, begin, text, end, after), encoding="utf-8")
