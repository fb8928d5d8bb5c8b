"""Runs the wire fuzzer, for scripts/fuzz-wire. README.md in this folder has the details."""

import argparse
import collections
import os
import pathlib
import random
import shutil
import signal
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parents[2]
sys.path.append(str(TOP / "tests" / "system"))

import harness  # noqa: E402

import checks  # noqa: E402
import mutate  # noqa: E402
import record  # noqa: E402
import self_test  # noqa: E402
from conversation import parse, read_seeds, to_text  # noqa: E402
from play import check_seed, play_all  # noqa: E402

SEEDS = HERE / "seeds"
BATCH = 100
THREADS = 8
# A new daemon begins after so many seconds. So a long run also tries the orderly stop again and again.
LIFE = 120
# A finding contains so many batches, because an earlier one may have spoilt the daemon.
KEPT_BATCHES = 10
# A finding may depend on how threads meet. So it is played so many times, until it is found again.
REPLAYS = 5
BEGIN_OF_BATCH = "# batch "


def options_of(arguments):
    parser = argparse.ArgumentParser(
        prog="scripts/fuzz-wire", description="Mutates recorded conversations against a running daemon. "
        "tests/fuzz/wire/README.md has the details.")
    parser.add_argument("seconds", type=float, nargs="?", default=60.0, metavar="SECONDS",
                        help="how long conversations are mutated (default: 60)")
    parser.add_argument("--seed", type=int, default=1, metavar="N",
                        help="for all random choices (default: 1)")
    parser.add_argument("--replay", type=pathlib.Path, metavar="FILE", help="only play this finding again")
    parser.add_argument("--record", action="store_true", help="only record the seeds anew")
    parser.add_argument("--self-test", action="store_true", help="only show that each check can fail")
    # For the script.
    parser.add_argument("--build", type=pathlib.Path, default=TOP / "build" / "dev",
                        help=argparse.SUPPRESS)
    parser.add_argument("--check-options", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args(arguments)
    if not 1 <= options.seconds <= 7 * 24 * 3600:
        parser.error("SECONDS: from 1 to 604800")
    if options.replay and not options.replay.is_file():
        parser.error("no file %s" % options.replay)
    return options


def say(text):
    print("== fuzz-wire: %s %s" % (time.strftime("%H:%M:%S"), text), file=sys.stderr, flush=True)


class Run:
    """One call of the fuzzer: its daemons, and its findings."""

    def __init__(self, options, work):
        self._options = options
        self._work = work
        self._bounds = checks.bounds_of(options.build.name)
        self._results = options.build / "fuzz-wire"
        self._lives = 0
        self._batches = 0
        self._conversations = 0
        self._answers = collections.Counter()
        self._last = collections.deque(maxlen=KEPT_BATCHES)
        self._longest = 0.0
        self._memory = 0
        self._descriptors = 0

    def _target(self, daemons):
        self._lives += 1
        return checks.Target(daemons, self._work / ("life%d" % self._lives), self._bounds)

    def record(self):
        with harness.Daemons() as daemons:
            target = self._target(daemons)
            say("recorded %d seeds" % record.record(target.address, SEEDS))
            target.stop()

    def replay(self, text):
        """Plays a finding to a new daemon. Raises Finding if it is found again."""
        with harness.Daemons() as daemons:
            target = self._target(daemons)
            for part in text.split(BEGIN_OF_BATCH)[1:]:
                play_all(target.address, parse("#" + part), THREADS)
                target.check()
            target.stop()

    def fuzz(self):
        """Returns whether nothing was found."""
        seeds = read_seeds(SEEDS)
        end = time.monotonic() + self._options.seconds
        while True:
            self._last.clear()
            with harness.Daemons() as daemons:
                target = None
                try:
                    target = self._target(daemons)
                    self._live(target, seeds, end)
                except checks.Finding as finding:
                    self._save(finding, target)
                    return False
                finally:
                    self._note(target)
            # A long run does not fill the disk.
            shutil.rmtree(target.root.path)
            if time.monotonic() >= end:
                return True

    def _live(self, target, seeds, end):
        # The seeds must be valid. Otherwise the mutations reach only the daemon's first checks.
        for seed in seeds:
            wrong = check_seed(target.address, seed)
            if wrong:
                raise checks.Finding("a seed is no longer valid: %s" % wrong)
        target.check()
        end = min(end, time.monotonic() + LIFE)
        while time.monotonic() < end:
            batch = mutate.batch(random.Random("%d %d" % (self._options.seed, self._batches)), seeds, BATCH)
            self._batches += 1
            self._conversations += len(batch)
            self._last.append((self._batches, batch))
            self._answers.update(play_all(target.address, batch, THREADS))
            target.check()
        target.stop()

    def _note(self, target):
        if target:
            self._longest = max(self._longest, target.longest)
            self._memory = max(self._memory, target.most_memory)
            self._descriptors = max(self._descriptors, target.most_descriptors)

    def _save(self, finding, target):
        """Keeps the last batches, the log and standard error."""
        self._results.mkdir(parents=True, exist_ok=True)
        name = "finding-%d-%d" % (self._options.seed, self._batches)
        file = self._results / (name + ".txt")
        parts = ["# %s\n# scripts/fuzz-wire --seed %d: batch %d\n"
                 % (str(finding).replace("\n", "\n# "), self._options.seed, self._batches)]
        parts += ["%s%d\n%s" % (BEGIN_OF_BATCH, number, to_text(batch)) for number, batch in self._last]
        file.write_text("".join(parts), encoding="utf-8")
        say("FOUND: %s" % finding)
        if target:
            for source, kind in ((target.root.path / "stderr", "stderr"), (target.root.log_file, "log")):
                if source.exists():
                    shutil.copy(source, self._results / ("%s.%s" % (name, kind)))
            print(target.daemon.tail(), file=sys.stderr)
        say("saved; try again with: scripts/fuzz-wire --preset %s --replay %s"
            % (self._options.build.name, os.path.relpath(file, TOP)))

    def report(self):
        rest = ", ".join("%s %d" % pair for pair in sorted(self._answers.items()))
        return ("seed %d: %d conversations in %d batches, %d lives of the daemon\n"
                "answers: %s\n"
                "honest client: %.2f s at most; memory: %d MiB at most; descriptors: %d at most"
                % (self._options.seed, self._conversations, self._batches, self._lives, rest,
                   self._longest, self._memory >> 20, self._descriptors))


def act(options, work):
    run = Run(options, work)
    if options.record:
        run.record()
        return 0
    if options.replay:
        text = options.replay.read_text(encoding="utf-8")
        try:
            for _ in range(REPLAYS):
                run.replay(text)
        except checks.Finding as finding:
            say("FOUND: %s" % finding)
            return 1
        say("nothing found")
        return 0
    # Each run first shows that its checks can fail.
    failures = self_test.run(work / "self-test", SEEDS)
    if options.self_test or failures:
        return 1 if failures else 0
    say("seed %d, %g seconds" % (options.seed, options.seconds))
    passed = run.fuzz()
    print(run.report())
    say("nothing found" if passed else "FAILED")
    return 0 if passed else 1


def main():
    options = options_of(None)
    if options.check_options:
        return 0
    os.environ["QM_BUILD_DIR"] = str(options.build.resolve())
    # A signal then leaves all blocks in order, and so ends the daemon.
    signal.signal(signal.SIGTERM, lambda number, _: sys.exit(128 + number))
    with tempfile.TemporaryDirectory(prefix="qmfuzz.") as work:
        return act(options, pathlib.Path(work))


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
