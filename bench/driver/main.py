"""Measures the service as its users have it, beside its floors and, with --peers, beside its peers."""

import argparse
import contextlib
import datetime
import json
import os
import pathlib
import shutil
import signal
import sys
import tempfile

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(TOP / "scripts"))

import machine  # noqa: E402

import measure  # noqa: E402
import peers  # noqa: E402
import report  # noqa: E402
import servers  # noqa: E402
import targets  # noqa: E402
from clients import Clients  # noqa: E402

PAGE = TOP / "docs" / "performance.md"


class Plan:
    """How much is measured."""

    def __init__(self, options):
        self.short = options.short
        self.records = options.records or ([200, 1000] if self.short else [1000, 10000, 100000])
        self.repeats = options.repeat or (1 if self.short else 5)
        self.seconds = options.seconds or (0.05 if self.short else 1.0)
        self.clients = (1, 4) if self.short else measure.CLIENTS
        # Only a standard run replaces the figures of docs/performance.md.
        self.is_standard = not (self.short or options.records or options.repeat or options.seconds)


def parse():
    parser = argparse.ArgumentParser(
        prog="scripts/bench", description="Measures the release build. Prints the figures, and "
        "writes those of a run without other options into docs/performance.md.")
    parser.add_argument("--records", type=lambda text: sorted(map(int, text.split(","))),
                        metavar="N,N", help="how many records the store has")
    parser.add_argument("--repeat", type=int, metavar="N", help="how often each figure is taken")
    parser.add_argument("--seconds", type=float, metavar="S", help="how long each repeat lasts")
    parser.add_argument("--peers", action="store_true",
                        help="measure etcd and OpenLDAP in the same run")
    parser.add_argument("--short", action="store_true",
                        help="only show that everything works: few records, one repeat")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="where the figures go")
    # For scripts/bench.
    parser.add_argument("--programs", type=pathlib.Path, default=TOP / "build" / "release" / "bin",
                        help=argparse.SUPPRESS)
    parser.add_argument("--check-options", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.records and options.records[0] < 100:
        parser.error("--records: at least 100 each")
    if options.repeat is not None and options.repeat < 1:
        parser.error("--repeat: at least 1")
    return options


def say(text):
    print("== bench: " + text, file=sys.stderr, flush=True)


def describe_machine():
    found = machine.describe(tempfile.gettempdir())
    if found["fileSystem"] == "tmpfs":
        say("the store is on a tmpfs, which syncs nothing: set TMPDIR to a folder on a disk")
    return found


def measure_all(plan, with_peers, programs, work):
    """All figures, as the document that is written."""
    document = {"machine": describe_machine(), "date": datetime.date.today().isoformat(),
                "records": plan.records, "repeats": plan.repeats, "seconds": plan.seconds,
                "clients": plan.clients, "listings": []}
    with contextlib.ExitStack() as stack:
        def closing(thing):
            stack.callback(thing.stop)
            return thing
        clients = closing(Clients(programs / "bench_client"))
        peer_clients = closing(Clients(programs / "bench_peer"))
        service = closing(servers.Service(programs, work / "service"))
        echo = closing(servers.Echo(programs, work / "echo"))
        floors = [echo, servers.Objects(echo), closing(servers.Files(work / "files"))]
        others = []
        if with_peers:
            etcd = closing(peers.Etcd(work / "etcd", peer_clients))
            others = [etcd, peers.Gateway(etcd), closing(peers.Ldap(work / "ldap"))]
        bench = measure.Bench(service, floors, others, clients, peer_clients, plan, say)
        for records in plan.records:
            bench.fill(records)
            document["listings"].append(bench.first_listings())
            for count in plan.clients:
                bench.read(count, measure.SMALL)
            bench.list_all(1)
            for count in plan.clients[:2]:
                bench.list_part(count)
            for count in plan.clients:
                bench.put(count, measure.SMALL)
        bench.fill_sized()
        for size in measure.SIZES:
            for count in plan.clients:
                bench.read(count, size)
            for count in plan.clients:
                bench.put(count, size)
        for count in plan.clients:
            bench.put_new(count, measure.SMALL)
        document["beside"] = bench.listings_beside_puts()
        document["cells"] = [cell.to_json() for cell in bench.cells]
        document["logBytes"] = service.log_bytes()
        document["start"] = starts(plan, service, programs, work)
    document["goals"] = [goal.to_json() for goal in targets.goals(document)]
    return document


def starts(plan, service, programs, work):
    """The times of starts without records, and with 1.5 times the most records that were measured."""
    say("starts")
    wanted = max(plan.records) * 3 // 2
    service.stop()
    stored = sum(name.endswith(".xml") for name in os.listdir(service.store))
    if stored < wanted:
        service.fill("more", measure.SMALL, 0, wanted - stored)
    empty = servers.Service(programs, work / "empty")
    try:
        return {"records": max(stored, wanted),
                "empty": measure.start_seconds(empty, plan.repeats),
                "full": measure.start_seconds(service, plan.repeats)}
    finally:
        empty.stop()


def main():
    options = parse()
    if options.check_options:
        return 0
    programs = options.programs.resolve()
    if options.peers:
        missing = peers.missing()
        if missing:
            say("cannot measure the peers without these packages: apt-get install "
                + " ".join(missing))
            options.peers = False
        elif not (programs / "bench_peer").exists():
            sys.exit("scripts/bench: %s has no bench_peer: build again" % programs)
    plan = Plan(options)
    # An end by a signal stops the servers, too.
    signal.signal(signal.SIGTERM, lambda number, _: sys.exit(128 + number))
    work = pathlib.Path(tempfile.mkdtemp(prefix="qmbench."))
    try:
        document = measure_all(plan, options.peers, programs, work)
    finally:
        shutil.rmtree(work)
    print(report.to_text(document))
    file = options.json or programs.parent / "bench.json"
    file.write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")
    say("the figures are in %s" % file)
    if plan.is_standard:
        report.write_into(PAGE, document)
        say("the figures are in %s" % PAGE.relative_to(TOP))
    return 0


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
