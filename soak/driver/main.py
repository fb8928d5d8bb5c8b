"""Runs the soak, for scripts/soak. on_directory.py and on_service.py have its two parts."""

import argparse
import json
import sys
import time
import traceback

from common import PAGE, TOP, add_options, work_directory

sys.path.append(str(TOP / "scripts"))

import machine  # noqa: E402

import report  # noqa: E402
import self_test  # noqa: E402
from on_directory import DirectorySoak  # noqa: E402
from on_service import ServiceSoak  # noqa: E402
from problems import Problems  # noqa: E402


def parse():
    parser = argparse.ArgumentParser(
        prog="scripts/soak", description="Runs a master under mixed load, and several processes on one "
        "store, and checks that nothing is lost and nothing grows. docs/reliability.md has the details.")
    parser.add_argument("minutes", type=float, nargs="?", default=60.0, metavar="MINUTES",
                        help="how long the master runs (default: 60)")
    add_options(parser)
    parser.add_argument("--self-test", action="store_true",
                        help="only show that each check can fail")
    options = parser.parse_args()
    if not 0.25 <= options.minutes <= 7 * 24 * 60:
        parser.error("MINUTES: from 0.25 to 10080")
    return options


def say(text):
    print("== soak: %s %s" % (time.strftime("%H:%M:%S"), text), file=sys.stderr, flush=True)


def run(options, work, results, problems):
    seconds = options.minutes * 60
    document = {"minutes": options.minutes, "seed": options.seed,
                "machine": machine.to_text(machine.describe(work)), "date": time.strftime("%Y-%m-%d")}
    programs = options.programs.resolve()
    # The soak of the directory takes a quarter of the minutes, in addition.
    parts = (
        ("directory", lambda: DirectorySoak(programs, work, max(12, min(seconds / 4, 600)),
                                            options.seed, problems, say)),
        ("service", lambda: ServiceSoak(programs, work, results, seconds, options.seed, problems,
                                        say)),
    )
    for name, make in parts:
        say("soak of the %s" % name)
        try:
            document[name] = make().run()
        except Exception as failure:  # pylint: disable=broad-except
            traceback.print_exc()
            problems("the soak of the %s broke off: %r" % (name, failure))
    document["problems"] = problems.lines
    return document


def main():
    options = parse()
    if options.check_options:
        return 0
    # Each run first shows that its checks can fail.
    failures = self_test.run(options.programs.resolve())
    if options.self_test or failures:
        return 1 if failures else 0
    results = options.programs.resolve().parent / "soak"
    results.mkdir(parents=True, exist_ok=True)  # the build has files there, too
    (results / "soak.json").unlink(missing_ok=True)
    problems = Problems()
    with work_directory(options, "qmsoak.", problems, say) as work:
        document = run(options, work, results, problems)
    (results / "soak.json").write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")
    print(report.to_text(document))
    say("the figures are in %s" % results)
    if problems.lines:
        say("FAILED: %d problems" % len(problems.lines))
        return 1
    if options.publish:
        report.write_into(PAGE, document)
        say("the figures are in %s" % PAGE.relative_to(TOP))
    return 0


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
