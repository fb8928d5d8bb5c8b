"""Shows that each check of the wire fuzzer can fail. It takes a few seconds."""

import contextlib
import os
import random
import re
import signal
from dataclasses import replace

import harness

import checks
import mutate
from conversation import parse, read_seeds, to_text
from play import SPOILT_PATIENCE, Player, check_seed

IDL = harness.TOP / "libdiscsrv" / "idl" / "DiscoverySvc.idl"
# The defects are planted. So the checks need not be patient.
BOUNDS = checks.Bounds(prompt=20, stop=60, memory=1536 << 20, descriptors=200)
HASTY = BOUNDS._replace(prompt=1, stop=1)


# The daemon overwrites what stands at its own place in the file. So the planted text comes far behind.
GAP = "\n" * (1 << 16)


def _append(path, text):
    with open(path, "a", encoding="ascii") as file:
        file.write(GAP + text)


def _dies(target):
    target.daemon.kill()


def _does_not_answer(target):
    target.bounds = HASTY
    target.daemon.send(signal.SIGSTOP)


def _says(text):
    return lambda target: _append(target.root.path / "stderr", text)


def _counts_an_assertion(target):
    status = {**target.root.status(), "assertions": 1}
    target.root.status = lambda: status


def _needs_memory(target):
    target.bounds = BOUNDS._replace(memory=1 << 20)


def _keeps_descriptors(target):
    target.bounds = HASTY._replace(prompt=2, descriptors=-1000)


def _crashes_at_the_stop(target):
    target.daemon.send = lambda _: os.kill(target.daemon.pid, signal.SIGABRT)


def _never_stops(target):
    target.bounds = HASTY
    target.daemon.send = lambda _: None


PLANTED = (
    ("a daemon that dies", _dies, "ended by itself"),
    ("a daemon that does not answer", _does_not_answer, "the honest client: Timeout"),
    ("a report of the address sanitizer", _says("==7==ERROR: AddressSanitizer: heap-use-after-free on\n"),
     "printed: ERROR: AddressSanitizer"),
    ("a report of undefined behaviour", _says("a.cpp:1:2: runtime error: shift exponent 64\n"),
     "printed: runtime error"),
    ("a failed assertion", _counts_an_assertion, "1 failed assertions"),
    ("too much memory", _needs_memory, "MiB of memory"),
    ("too many descriptors", _keeps_descriptors, "descriptors too many"),
)
PLANTED_AT_STOP = (
    ("an end with a signal", _crashes_at_the_stop, "exit code -6"),
    ("an endless stop", _never_stops, "did not end within"),
    ("a report of a leak at the end", _says("==7==ERROR: LeakSanitizer: detected memory leaks\n"),
     "printed: ERROR: LeakSanitizer"),
)


class _Cases:
    def __init__(self):
        self.count = 0
        self.failures = []

    def __call__(self, name, passed):
        self.count += 1
        if not passed:
            self.failures.append(name)


def _finding(action):
    """The text of the finding that an action ends with, or None."""
    try:
        action()
    except checks.Finding as finding:
        return str(finding)
    return None


def _test_checks(cases, directory):
    with harness.Daemons() as daemons:
        def life(number):
            path = directory / ("life%d" % number)
            path.mkdir(parents=True)
            return checks.Target(daemons, path / "root", BOUNDS)

        target = None
        for number, (name, plant, expected) in enumerate(PLANTED + PLANTED_AT_STOP):
            if target is None:
                target = life(number)
                cases("nothing planted", _finding(target.check) is None)
            plant(target)
            at_stop = number >= len(PLANTED)
            found = _finding(target.stop if at_stop else target.check)
            cases("%s (found: %s)" % (name, found), found is not None and expected in found)
            if target.daemon.is_running():
                target.daemon.kill()
            target = None
        target = life(99)
        cases("an orderly stop", _finding(target.stop) is None)


def _test_seeds(cases, directory, seeds):
    """A seed whose answer is wrong is noticed, and the seeds have all operations in both byte orders."""
    with harness.Daemons() as daemons:
        directory.mkdir(parents=True, exist_ok=True)
        target = checks.Target(daemons, directory / "seeds", BOUNDS)
        seed = next(each for each in seeds if each.name.startswith("locate-"))
        cases("a valid seed", check_seed(target.address, seed) is None)
        wrong = seed.with_steps(replace(step, answer="LOCATE_REPLY 7") for step in seed.steps)
        cases("an invalid seed", check_seed(target.address, wrong) is not None)
        # The keys of the last run are worthless now, so a place holder must get the new one.
        query = next(each for each in seeds if each.name == "query-little-1.2")
        player = Player(target.address, query, SPOILT_PATIENCE * 50).play()
        cases("a key from a reply", "iterator" in player.keys)
        target.daemon.kill()
    answers = " ".join(step.answer for each in seeds for step in each.steps)
    cases("a seed has a key that nobody knows", "OBJECT_NOT_EXIST" not in answers)
    idl = IDL.read_text(encoding="utf-8")
    operations = set(re.findall(r"(\w+)\((?:in |\))", idl)) | {"_get_pageSize", "_set_pageSize", "_is_a",
                                                               "_non_existent"}
    cases("operations in the interface definition", len(operations) == 15)
    for order in ("little", "big"):
        sent = b"".join(step.data for each in seeds for step in each.steps
                        if "-%s-" % order in each.name and "fragments" not in each.name)
        for operation in sorted(operations):
            cases("no %s-endian seed has %s" % (order, operation), operation.encode() + b"\0" in sent)


def _test_mutations(cases, seeds):
    first, again, other = (mutate.batch(random.Random(number), seeds, 300) for number in (1, 1, 2))
    cases("the same seed, the same bytes", first == again)
    cases("another seed, other bytes", first != other)
    cases("text and back", parse(to_text(first)) == first)
    names = " ".join(each.name for each in first)
    for mutation in set(mutate.ON_STEPS):
        cases("no conversation with %s" % mutation.__name__, mutation.__name__ in names)
    one = next(each for each in seeds if each.name == "put-little-1.2").steps[0].data
    rng = random.Random(1)
    for mutation in set(mutate.ON_BYTES):
        cases("%s changes nothing" % mutation.__name__,
              any(mutation(rng, one) != one for _ in range(20)))
    with contextlib.suppress(ValueError):
        parse("conversation a from b\nsend 0\n")
        cases("a broken seed file", False)


def run(directory, seeds_directory):
    """Returns how many checks missed a defect, or reported one that is not there."""
    cases = _Cases()
    seeds = read_seeds(seeds_directory)
    _test_mutations(cases, seeds)
    _test_seeds(cases, directory, seeds)
    _test_checks(cases, directory)
    for failure in cases.failures:
        print("FAILED " + failure)
    print("self-test: %d cases, %d failed" % (cases.count, len(cases.failures)))
    return len(cases.failures)
