"""Plays power cuts on real file systems, for scripts/powercut. on_file_system.py has the play."""

import argparse
import json
import sys
import time

from common import PAGE, TOP, add_options, work_directory

sys.path.append(str(TOP / "scripts"))

import figures  # noqa: E402
import machine  # noqa: E402

import block  # noqa: E402
import test_cuts  # noqa: E402
from on_file_system import play  # noqa: E402
from problems import Problems  # noqa: E402

BEGIN = "<!-- begin of the power cuts' figures: scripts/powercut --publish writes them -->"
END = "<!-- end of the power cuts' figures -->"
CUTS = 20
SHORT_CUTS = 2
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
        parser.error("--cuts: from 1 to 10000")
    wanted = options.fs or ("ext4" if options.short else "")
    options.must_have = bool(wanted)
    options.fs = wanted.split(",") if wanted else list(block.FILE_SYSTEMS)
    for name in options.fs:
        if name not in block.FILE_SYSTEMS:
            parser.error("--fs: no %s here, only %s" % (name, ", ".join(block.FILE_SYSTEMS)))
    return options


def say(text):
    print("== powercut: %s %s" % (time.strftime("%H:%M:%S"), text), file=sys.stderr, flush=True)


def playable(options):
    """(the file systems to play on, the reason if the list is empty)"""
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
        for failure in test_cuts.run(options, work, say):
            problems(failure)
    if options.self_test:
        return document
    for file_system in file_systems:
        say("%d cuts on %s" % (options.cuts, file_system.name))
        part = play(options, file_system, work / file_system.name, options.seed,
                    options.cuts, problems, say)
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
