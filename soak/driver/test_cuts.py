"""Shows that the power cuts find lost syncs, and that the disk loses what it must."""

import os
import shutil

import block
from cut_states import state_of
from history import Record
from on_file_system import play

MOST_CUTS = 5   # until something is lost

# The syncs that do nothing in a play, and texts. The play must report at least one of the texts.
LOST_SYNCS = (
    ("all", ("there is no store", "missing", "instead of", "spoilt")),
    ("directories", ("missing", "instead of", "spoilt")),
    ("payloads", ("missing", "instead of", "spoilt")),
    ("metadata", ("missing", "instead of", "an old document with a new payload")),
)


def run(options, work, say):
    """Returns what the plays and the disk did wrong."""
    failures = test_disk(options, work / "disk-test") + test_states()
    for which, texts in LOST_SYNCS[:1] if options.short else LOST_SYNCS:
        found = []
        for number in range(MOST_CUTS):
            directory = work / ("lost-%s-%d" % (which, number))
            play(options, block.FILE_SYSTEMS["ext4"], directory, options.seed + number, 1,
                 found.append, say, which)
            shutil.rmtree(directory)
            if found:
                break
        lines = [line for line in found if any(text in line for text in texts)]
        say("without syncs (%s): %d problems in %d cuts%s"
            % (which, len(found), number + 1, ", as %s" % lines[0] if lines else ""))
        if not lines or any("broke off" in line for line in found):
            failures.append("without syncs (%s) the play finds no loss, but %s" % (which, found))
    return failures


def test_disk(options, work):
    """A cut loses what no flush covers, and nothing else."""
    work.mkdir()
    mount = work / "mount"
    mount.mkdir()
    safe = work / "safe"
    sectors = 64
    size = int(block.SECTOR)
    safe.write_bytes(b"0" * sectors * size)
    failures = []

    def expect(what, found, wanted):
        if found != wanted:
            failures.append("the disk: %s: %s instead of %s" % (what, found, wanted))
    disk = block.CutDisk(options.programs, safe, work / "current", mount)
    try:
        with open(disk.path, "r+b", buffering=0) as file:
            def write(letter):
                file.seek(0)
                file.write(letter * sectors * size)
            write(b"1")
            os.fsync(file.fileno())
            write(b"2")
            write(b"3")
            expect("unflushed sectors", disk.cut(1000, 0, 0)[1], 2 * sectors)
            images = {}
            for kind in ("none", "all", "writes", "sectors"):
                disk.image(kind, 3, work / kind)
                content = (work / kind).read_bytes()
                images[kind] = [content[i * size:(i + 1) * size] for i in range(sectors)]
                expect("torn sectors", [each for each in images[kind] if len(set(each)) != 1], [])
            disk.thaw()
            expect("nothing kept", {each[:1] for each in images["none"]}, {b"1"})
            expect("all kept", {each[:1] for each in images["all"]}, {b"3"})
            expect("some sectors kept", {each[:1] for each in images["sectors"]},
                   {b"1", b"2", b"3"})
            file.seek(0)
            expect("the content after it goes on", file.read(1), b"3")
    finally:
        disk.end()
    shutil.rmtree(work)
    return failures


def test_states():
    """What a cut may leave of a put of generation 3 in place of generation 2, or of nothing."""
    failures = []
    new, old = (3, 300), (2, 200)
    for stored, has_document, priority, payload, wanted in (
            (old, True, 2, old, True), (old, True, 3, new, True), (old, True, 3, old, True),
            (old, True, None, old, False), (old, True, 2, new, False), (old, True, 4, old, False),
            (old, True, 3, (4, 400), False), (old, True, 3, None, False),
            (old, True, None, None, False), (old, True, None, (4, 400), False),
            (old, False, None, old, False), (old, False, None, None, False),
            (None, False, None, None, True), (None, True, None, None, True),
            (None, True, 3, None, True), (None, False, None, new, True),
            (None, True, 3, new, True), (None, True, 3, (4, 400), False)):
        record = Record()
        record.stored = stored
        record.pending = [new]
        state, may_be = state_of(record, has_document, priority, payload)
        if may_be != wanted:
            failures.append("%s instead of %s, for priority %s and payload %s: %s"
                            % (stored, new, priority, payload, state))
    return failures
