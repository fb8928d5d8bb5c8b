"""A flood of puts keeps the log small, and counts what it does not write."""

import re

import harness

from records import SUCCESS, put

PUTS = 500
SUM = re.compile(r"(?P<text>.*) \.\.\. and (?P<count>[0-9,]+) more like this")


def test_a_flood_of_puts_is_summed_up(start, root):
    root.configure(LOG_LEVEL=1, LOG_BURST=None, WHAT="ever")
    daemon = start(root)
    service = daemon.client()
    before = root.log_file.stat().st_size
    for number in range(PUTS):
        assert put(service, "cl%d" % (number % 7), "a", b"x") == SUCCESS
    status = harness.wait_for(
        lambda: root.status()["counters"]["logLinesSummedUp"] > 0 and root.status(),
        "the status counts the lines that were not written")
    assert status["counters"]["logLinesLost"] == 0
    assert daemon.stop() == 0
    written = summed = 0
    for line in map(harness.parse_line, root.log_file.read_text().splitlines()):
        found = SUM.fullmatch(line.text)
        if "Successfully renamed" not in line.text:
            continue
        if found:
            summed += int(found["count"].replace(",", ""))
        else:
            written += 1
    assert written + summed == PUTS
    assert summed > 0
    # Without the limit it would be 100 kB and more.
    assert root.log_file.stat().st_size - before < 40_000
    # What was there before the flood is still there.
    assert "unknown key 'WHAT'" in root.log_file.read_text()
    assert "unknown key 'WHAT'" in root.errors_file.read_text()
