"""The lab's command line."""

import argparse
import json
import os
import pathlib
import re
import signal
import sys
import tempfile
import time

import harness

from .keeper import KeeperError
from .lab import Lab, LabError
from .loopback import LoopbackLab
from .names import prompt_names
from .rights import why_not

DESCRIPTION = """\
A master and clients on this machine, each a host with a network, an address, a host name and a
product root of its own, joined by a bridge. Needs root.
"""
EPILOG = """\
Hosts are named as `status` shows them: "master", and clients whose names start with numbers that
make them register within seconds. RATE is written as tc(8) has it, for example 64kbit. Labs with
different names run beside each other. Their files are in $TMPDIR/quillmark-lab-NAME.
--preset PRESET, in front of all else, runs another build than dev.
"""


SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


def say(text):
    print("== lab: " + text, file=sys.stderr)


class Interrupted(Exception):
    """Somebody wants it to end."""


def interrupt(number, _):
    raise Interrupted("interrupted by signal %d" % number)


def up(lab, options):
    began = time.monotonic()
    if not os.access(harness.program(), os.X_OK):
        raise LabError("%s is not built: run scripts/build first" % harness.program())
    lab.claim()
    try:
        lab.make(prompt_names(options.clients), config=options.config)
        say("%d hosts are there after %.1f s; starting their daemons"
            % (len(lab.hosts), time.monotonic() - began))
        lab.start_daemons()
    except BaseException:
        for number in SIGNALS:
            signal.signal(number, signal.SIG_IGN)
        say("taking down what is there")
        lab.down()
        raise
    say("a master and %d clients are up after %.1f s, in %s"
        % (len(lab.clients), time.monotonic() - began, lab.directory))
    return 0


def execute(lab, options):
    host = lab.find().host(options.host)
    lab.note_command(host)
    os.environ["QUILLMARK_ROOT"] = str(host.path)
    os.environ["PATH"] = "%s:%s" % (lab.build / "bin", os.environ["PATH"])
    command = [*host.entering(), *options.command]
    os.execvp(command[0], command)


def cut(lab, options):
    lab.find().cut(lab.host(options.host))
    return 0


def heal(lab, options):
    lab.find().heal(lab.host(options.host))
    return 0


def slow(lab, options):
    lab.find().slow(lab.host(options.host), options.rate)
    return 0


def status(lab, _):
    daemons = lab.find().daemons()
    print("%-16s %-16s %-22s %s" % ("HOST", "ADDRESS", "LINK", "DAEMON"))
    for host in lab.hosts.values():
        print("%-16s %-16s %-22s %s" % (host, host.address, lab.link_state(host),
                                        daemons.get(host.name, "not running")))
    return 0


def down(lab, options):
    if not lab.directory.exists():
        raise LabError("there is no lab (%s)" % lab.directory)
    killed = lab.down(options.keep)
    for each in killed:
        say("%s had to be killed" % each)
    say("its files are left in %s" % lab.directory if options.keep else "nothing is left of it")
    return 1 if killed else 0


def count(text):
    number = int(text)
    if number < 0:
        raise ValueError
    return number


def setting(text):
    found = re.fullmatch(r"([^:=]+):([^:=]+)=(.*)", text)
    if not found:
        raise ValueError
    return found.groups()


def parse(arguments):
    parser = argparse.ArgumentParser(prog="scripts/lab", description=DESCRIPTION, epilog=EPILOG,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--name", default="lab", help="of the lab (\"lab\" unless told)")
    commands = parser.add_subparsers(metavar="COMMAND", required=True)

    def command(name, function, text):
        added = commands.add_parser(name, help=text, description=text)
        added.set_defaults(function=function)
        return added
    added = command("up", up, "a master and N clients, with daemons that run")
    added.add_argument("clients", metavar="N", type=count)
    added.add_argument("--network", choices=("own", "loopback", "any"), default="own",
                       help="a network for each host; or this machine's loopback for all, with "
                            "nothing to cut; or the first where that can be made (own unless told)")
    added.add_argument("--set", metavar="HOST:KEY=VALUE", type=setting, action="append", default=[],
                       help="a line of a host's configuration; may be given again")
    added = command("exec", execute, "run a command on a host, with its configuration")
    added.add_argument("host", metavar="HOST")
    added.add_argument("command", metavar="CMD", nargs=argparse.REMAINDER)
    for name, function, text in (("cut", cut, "cut the link of a host"),
                                 ("heal", heal, "make its link whole and fast again")):
        command(name, function, text).add_argument("host", metavar="HOST")
    added = command("slow", slow, "slow the link of a host, both ways")
    added.add_argument("host", metavar="HOST")
    added.add_argument("rate", metavar="RATE")
    command("status", status, "the hosts, their links and daemons")
    command("down", down, "stop everything and leave nothing").add_argument(
        "--keep", action="store_true", help="leave the hosts' files, to look at")
    options = parser.parse_args(arguments)
    options.config = {}
    for host, key, value in getattr(options, "set", []):
        options.config.setdefault(host, {})[key] = value
    if not re.fullmatch(r"[\w-]{1,40}", options.name):
        parser.error("the name of a lab has letters, digits, \"_\" and \"-\"")
    if options.function is execute and not options.command:
        parser.error("no command to run on %s" % options.host)
    return options


def kind_of(directory, network):
    """What kind of lab there is, or is to be."""
    try:
        made = json.loads((directory / "lab.json").read_text(encoding="utf-8"))["kind"]
        network = "loopback" if made == LoopbackLab.__name__ else "own"
    except FileNotFoundError:
        pass
    if network == "loopback":
        return LoopbackLab
    reason = why_not()
    if reason is None:
        return Lab
    if network == "own":
        sys.exit("scripts/lab: " + reason)
    say("all hosts share the loopback: " + reason)
    return LoopbackLab


def main():
    options = parse(sys.argv[1:])
    directory = pathlib.Path(tempfile.gettempdir()) / ("quillmark-lab-" + options.name)
    kind = kind_of(directory, getattr(options, "network", "own"))
    for number in SIGNALS:
        signal.signal(number, interrupt)
    try:
        return options.function(kind(directory), options)
    except (LabError, KeeperError) as error:
        sys.exit("scripts/lab: %s" % error)
    except Interrupted as error:
        print("scripts/lab: %s" % error, file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.exit(main())
