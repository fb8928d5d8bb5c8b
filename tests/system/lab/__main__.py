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
Runs a master and clients on this machine. Each is a host with its own network, address, host name
and product root. A bridge joins the hosts. Needs root.
"""
EPILOG = """\
`status` shows the names of the hosts: "master" and the clients. A client's name starts with a
number that makes it register within seconds. RATE has the form of tc(8), for example 64kbit. Labs
with different names can run at the same time. Their files are in $TMPDIR/quillmark-lab-NAME.
--preset PRESET runs another build than dev; put it before everything else.
"""


SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


def say(text):
    print("== lab: " + text, file=sys.stderr)


class Interrupted(Exception):
    """A signal asks this program to end."""


def interrupt(number, _):
    raise Interrupted("interrupted by signal %d" % number)


def up(lab, options):
    began = time.monotonic()
    if not os.access(harness.program(), os.X_OK):
        raise LabError("%s is not built: run scripts/build first" % harness.program())
    lab.claim()
    try:
        lab.make(prompt_names(options.clients), config=options.config,
                 tls="required" if options.tls else None)
        say("made %d hosts in %.1f s; starting their daemons"
            % (len(lab.hosts), time.monotonic() - began))
        lab.start_daemons()
    except BaseException:
        for number in SIGNALS:
            signal.signal(number, signal.SIG_IGN)
        say("taking down the unfinished lab")
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
    parser.add_argument("--name", default="lab", help="the name of the lab (default: \"lab\")")
    commands = parser.add_subparsers(metavar="COMMAND", required=True)

    def command(name, function, text):
        added = commands.add_parser(name, help=text, description=text)
        added.set_defaults(function=function)
        return added
    added = command("up", up, "make a master and N clients, and start their daemons")
    added.add_argument("clients", metavar="N", type=count)
    added.add_argument("--network", choices=("own", "loopback", "any"), default="own",
                       help="own: each host has its own network (default). loopback: all hosts "
                            "share this machine's loopback, so no link can be cut. any: own if "
                            "possible, otherwise loopback")
    added.add_argument("--set", metavar="HOST:KEY=VALUE", type=setting, action="append", default=[],
                       help="put a line into a host's configuration; can be repeated")
    added.add_argument("--tls", action="store_true",
                       help="make a certificate for each host; the hosts speak only TLS")
    added = command("exec", execute, "run a command on a host, with the host's configuration")
    added.add_argument("host", metavar="HOST")
    added.add_argument("command", metavar="CMD", nargs=argparse.REMAINDER)
    for name, function, text in (("cut", cut, "cut the link of a host"),
                                 ("heal", heal, "repair the link of a host: whole and fast again")):
        command(name, function, text).add_argument("host", metavar="HOST")
    added = command("slow", slow, "slow the link of a host, in both directions")
    added.add_argument("host", metavar="HOST")
    added.add_argument("rate", metavar="RATE")
    command("status", status, "show the hosts, their links and daemons")
    command("down", down, "stop everything and delete the files").add_argument(
        "--keep", action="store_true", help="keep the hosts' files")
    options = parser.parse_args(arguments)
    options.config = {}
    for host, key, value in getattr(options, "set", []):
        options.config.setdefault(host, {})[key] = value
    if not re.fullmatch(r"[\w-]{1,40}", options.name):
        parser.error("the name of a lab has at most 40 letters, digits, \"_\" and \"-\"")
    if options.function is execute and not options.command:
        parser.error("no command to run on %s" % options.host)
    return options


def kind_of(directory, network):
    """The class of the lab: of the existing one, or of the one to make."""
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
