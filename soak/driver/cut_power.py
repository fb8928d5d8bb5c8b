"""Plays power cuts on real file systems. scripts/powercut builds the programs first."""

import argparse
import json
import os
import shutil
import sys
import time
import traceback

from common import PAGE, TOP, add_options, work_directory

sys.path.append(str(TOP / "scripts"))

import figures  # noqa: E402
import machine  # noqa: E402

import block  # noqa: E402
from cut_states import state_of  # noqa: E402
from history import Record  # noqa: E402
from on_file_system import PowerCuts  # noqa: E402
from problems import Problems  # noqa: E402

BEGIN = "<!-- begin of the power cuts' figures: scripts/powercut --publish writes them -->"
END = "<!-- end of the power cuts' figures -->"
CUTS = 20
SHORT_CUTS = 2
SELF_TEST_CUTS = 5   # the most, until something is lost
SKIPPED = 77


def parse():
    parser = argparse.ArgumentParser(
        prog="scripts/powercut", description="Cuts the power of a disk under a busy master, and checks "
        "what the file system has kept. docs/reliability.md has the details.")
    parser.add_argument("--cuts", type=int, metavar="N",
                        help="of each file system (default: %d)" % CUTS)
    add_options(parser)
    parser.add_argument("--fs", metavar="NAME,NAME...",
                        help="of %s (default: all that this machine has)"
                        % ", ".join(block.FILE_SYSTEMS))
    parser.add_argument("--self-test", action="store_true",
                        help="only show that lost syncs are found")
    parser.add_argument("--short", action="store_true",
                        help="%d cuts on ext4 and a short self-test. If this machine cannot play power "
                        "cuts, that is no failure" % SHORT_CUTS)
    options = parser.parse_args()
    if options.cuts is None:
        options.cuts = SHORT_CUTS if options.short else CUTS
    if not 1 <= options.cuts <= 10000:
        parser.error("N cuts: from 1 to 10000")
    wanted = options.fs or ("ext4" if options.short else "")
    options.must_have = bool(wanted)
    options.fs = wanted.split(",") if wanted else list(block.FILE_SYSTEMS)
    for name in options.fs:
        if name not in block.FILE_SYSTEMS:
            parser.error("--fs: %s is none of %s" % (name, ", ".join(block.FILE_SYSTEMS)))
    return options


def say(text):
    print("== powercut: %s %s" % (time.strftime("%H:%M:%S"), text), file=sys.stderr, flush=True)


def playable(options):
    """The file systems to play on, or a reason why there is none."""
    reason = block.why_not(options.programs)
    if reason:
        return [], reason
    found = []
    for name in options.fs:
        reason = block.lacks(block.FILE_SYSTEMS[name])
        if not reason:
            found.append(block.FILE_SYSTEMS[name])
        elif options.must_have:
            return [], reason
        else:
            say("without %s: %s" % (name, reason))
    return found, reason


def play(options, file_system, directory, seed, cuts, report, lost_syncs=None):
    """Returns the figures; None if the play broke off."""
    directory.mkdir()
    try:
        return PowerCuts(options.programs, directory, file_system, seed, report, say,
                         lost_syncs).run(cuts)
    except Exception as failure:  # pylint: disable=broad-except
        traceback.print_exc()
        report("the play on %s broke off: %r" % (file_system.name, failure))
        return None


# What the store loses when it does without some of its syncs. Each has one text that a play must report.
LOST_SYNCS = (
    ("all", ("there is no store", "missing", "instead of", "spoilt")),
    ("directories", ("missing", "instead of", "spoilt")),
    ("payloads", ("missing", "instead of", "spoilt")),
    ("metadata", ("missing", "instead of", "an old document with a new payload")),
)


def self_test(options, work, is_short):
    """Returns what the plays did not find although they must."""
    failures = test_disk(options, work / "disk-test") + test_states()
    for which, texts in LOST_SYNCS[:1] if is_short else LOST_SYNCS:
        found = []
        for number in range(SELF_TEST_CUTS):
            directory = work / ("lost-%s-%d" % (which, number))
            play(options, block.FILE_SYSTEMS["ext4"], directory, options.seed + number, 1,
                 found.append, which)
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


def table(document):
    parts = document["file systems"]
    keys = ("cuts", "images", "seconds", "acknowledged puts", "records", "records read",
            "puts after a cut", "unflushed writes", "unflushed sectors", "puts in flight")
    states = sorted({state for part in parts for state in part["states"]})
    rows = [[key] + ["{:,}".format(round(part.get(key, 0))) for part in parts] for key in keys]
    rows += [["left of a put in flight: " + state] +
             ["{:,}".format(part["states"].get(state, 0)) for part in parts] for state in states]
    return "", ["what"] + [part["file system"] for part in parts], rows


def to_text(document):
    return figures.to_text([table(document)])


def to_markdown(document):
    return "%d cuts of each on %s, seed %d. %s.\n" % (
        document["cuts"], document["date"], document["seed"],
        document["machine"]) + figures.to_markdown([table(document)])


def run(options, file_systems, work, problems):
    document = {"date": time.strftime("%Y-%m-%d"), "seed": options.seed, "cuts": options.cuts,
                "machine": machine.to_text(machine.describe(work)).rpartition(", ")[0], "file systems": []}
    if options.self_test or options.short:
        for failure in self_test(options, work, options.short):
            problems(failure)
    if options.self_test:
        return document
    for file_system in file_systems:
        say("%d cuts on %s" % (options.cuts, file_system.name))
        part = play(options, file_system, work / file_system.name, options.seed,
                    options.cuts, problems)
        if part:
            document["file systems"].append(part)
    return document


def main():
    options = parse()
    if options.check_options:
        return 0
    options.programs = options.programs.resolve()
    file_systems, reason = playable(options)
    if not file_systems:
        say("SKIPPED: %s" % reason)
        return 0 if options.short else SKIPPED
    problems = Problems()
    with work_directory(options, "qmpower.", problems, say) as work:
        document = run(options, file_systems, work, problems)
    if document["file systems"]:
        print(to_text(document))
    results = options.programs.parent / "soak"
    results.mkdir(exist_ok=True)
    (results / "powercut.json").write_text(
        json.dumps({**document, "problems": problems.lines}, indent=1) + "\n", encoding="utf-8")
    if problems.lines:
        say("FAILED: %d problems" % len(problems.lines))
        return 1
    say("no problem")
    if options.publish and document["file systems"]:
        figures.replace(PAGE, BEGIN, END, to_markdown(document))
        say("the figures are in %s" % PAGE.relative_to(TOP))
    return 0


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
