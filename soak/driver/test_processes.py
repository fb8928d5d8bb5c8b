"""Shows that the soak finds a daemon or a client that ends, and that a client finds wrong answers."""

import contextlib
import json
import pathlib
import signal
import subprocess
import time

from cases import book_of, caught, write_record
from clients import Client
from history import HOT
from on_directory import THREADS, check_left
from service import Service
from stamp import payload_of

CLIENT_SECONDS = 4
CLIENT_LIMIT = 30


def test_processes(cases, directory):
    service = Service(directory, directory / "root")
    service.process = subprocess.Popen(["false"], stdin=subprocess.DEVNULL)
    service.process.wait(10)
    cases.expect("a daemon that ends", caught(service.check, cases.failures.append),
                 "the daemon ended by itself with 1")
    (service.root / "run").mkdir()
    for count, wanted in ((0, ()), (2, ("the daemon counts 2 failed assertions",))):
        (service.root / "run" / "status.json").write_text(json.dumps({"assertions": count}))
        found = []
        service.check_status(found.append)
        cases.expect("%d failed assertions" % count, found, *wanted)
    service.outages = [[10, 20]]
    for moment, is_out in ((9, False), (15, True), (20 + service.MARGIN, True),
                           (21 + service.MARGIN, False)):
        cases.expect("an outage at %d" % moment, [str(service.was_out(moment))], str(is_out))
    book, _ = book_of(directory)
    client = Client(pathlib.Path("/bin/false"), {"worker": {}}, book.workers, book, directory, 1)
    with contextlib.suppress(BrokenPipeError):
        client.start()
    client.process.wait(10)
    cases.expect("a client that ends", caught(client.check), "a client ended by itself with 1")
    cases.expect("a client that stops badly", [client.wait()], "a client ended with 1")
    client.end()
    # Like a daemon, the shell ends by itself after the signal.
    script = "trap 'exit 7' TERM; echo; while :; do sleep 0.1; done"
    service.process = subprocess.Popen(["sh", "-c", script], stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE)
    service.process.stdout.readline()
    cases.expect("a daemon that stops badly", [service.stop()],
                 "the daemon stopped with exit code 7")
    service.process.stdout.close()
    service.store.mkdir(parents=True)
    for names, wanted in (((), ()), (("3.updating",), ("leaves 1 temporary files",))):
        for name in names:
            (service.store / name).touch()
        found = []
        service.check_left(found.append)
        cases.expect("a start", found, *wanted)
    crowd = directory / "crowd"
    crowd.mkdir()
    for count, wanted in ((THREADS, ()), (THREADS + 1, ("leaves 5 temporary payloads",))):
        for number in range(count):
            (crowd / ("%d.updating" % number)).touch()
        found = []
        check_left(crowd, found.append)
        cases.expect("a start with %d temporary payloads" % count, found, *wanted)


def test_client(cases, directory, program):
    """The client reports what it finds wrong. Its records claim what the store does not have."""
    store = directory / "wrong"
    store.mkdir()
    write_record(store, "t0/r00", 5, payload=b"a" * 200)      # spoilt
    write_record(store, "t0/r01", 5)                          # 9 was acknowledged
    write_record(store, "t0/r03", 7, priority=2000000000)     # outranks all of the worker's puts
    write_record(store, "t0/r04", 7, priority=1)              # lets a put of priority 6 in
    write_record(store, "t0/r09", 1)
    write_record(store, "t0/x00", 5)                          # never expires
    write_record(store, HOT, 7, priority=2000000000, payload=payload_of("t0/r00", 7))
    versions = {"t0/r00": 5, "t0/r01": 9, "t0/r02": 5, "t0/r03": 7, "t0/r04": 7}
    state = {"authority": "t0", "number": 0, "seed": 1, "pause": 1000, "limit": 20, "small": 5,
             "big": 1, "expiring": 1, "writers": 0, "iterators": [],
             "generations": {name: each + 2 for name, each in versions.items()},
             "versions": {name: [[each, 200]] for name, each in versions.items()}}
    for only, seconds, wanted in (
            (("read", "read-hot", "list", "list-all", "list-pattern", "expire"), CLIENT_SECONDS,
             ("t0/r00: spoilt, 200 bytes", "t0/r01: 5:200 instead of 9:200",
              "t0/r02: missing instead of 5:200", "hot/hot: spoilt, 200 bytes",
              "t0/x00: has not expired", "the list of an authority lacks t0/r02",
              "the list of all lacks t0/r02", "a list by pattern lacks t0/r02")),
            (("put-refused",), 1, ("t0/r04: a put of priority 6 replaces 7:200",)),
            (("put", "put-hot"), 1, ("t0/r03: a put of the highest priority is refused",
                                     "hot/hot: a put of the same priority is refused"))):
        ledger = directory / ("ledger-" + only[0])
        run_client(program, store, {**state, "ledger": str(ledger),
                                    "only": {each: True for each in only}}, seconds)
        lines = [line.split(" ", 2)[2] for line in ledger.read_text(encoding="utf-8").splitlines()
                 if line.startswith("bad ")]
        for text in wanted:
            cases.expect("the client", [line for line in lines if text in line][:1], text)
    ledger = directory / "ledger-late"
    run_client(program, store, {**state, "ledger": str(ledger), "limit": 0}, 1)
    lines = [line.split(" ", 2)[2] for line in ledger.read_text(encoding="utf-8").splitlines()
             if line.startswith("late ")]
    cases.expect("the client's limit", lines[:1], " took 0.0 s")


def run_client(program, store, state, seconds):
    process = subprocess.Popen([program], stdin=subprocess.PIPE, text=True)
    try:
        process.stdin.write(json.dumps({"store": str(store), "workers": [state]}))
        process.stdin.close()
        time.sleep(seconds)
        process.send_signal(signal.SIGTERM)
        process.wait(CLIENT_LIMIT)
    finally:
        if process.poll() is None:
            process.kill()
            process.wait(CLIENT_LIMIT)
