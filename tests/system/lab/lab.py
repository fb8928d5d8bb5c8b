"""The lab: its hosts, its bridge and its processes."""

import contextlib
import ipaddress
import json
import os
import pathlib
import shutil
import signal
from concurrent.futures import ThreadPoolExecutor

import harness

from pki import Authority, CertificateError

from . import links, process
from .host import Host
from .keeper import Keeper, KeeperError

MASTER = "master"
NETWORKS = {4: ipaddress.ip_network("10.77.0.0/16"), 6: ipaddress.ip_network("fd77::/64")}
AT_MOST = 1000  # a bridge has 1024 ports
AT_ONCE = 8  # daemons that start at the same time
STOP_LIMIT = 90  # seconds; longer than a daemon's own limit


class LabError(Exception):
    """The lab cannot do what the user asked. The text explains it to the user."""


class Lab:
    """A lab has its own directory. It contains the hosts' product roots, the list of processes and
    a description of the lab.

    One thread uses the object. Another process can find and use the same lab.
    """

    host_class = Host

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self._journal = process.Journal(self.directory / "processes")
        self._plan = self.directory / "lab.json"
        self._switch = None
        self._config = {}
        self.authority = None  # of the lab's certificates; None without TLS
        self.hosts = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.down()

    # Making and finding it.

    def claim(self):
        """Makes the directory. Fails if it exists, because it belongs to another lab."""
        try:
            self.directory.mkdir(mode=0o700, parents=True)
        except FileExistsError:
            raise LabError("there is a lab already (%s): take it down first"
                           % self.directory) from None

    def make(self, clients, version=4, with_parent=False, config=None, tls=None):
        """Makes the hosts, without daemons: the master, and clients with these names. config is
        {host: {key: value}}, the keys that differ from the default configuration. tls is the value
        of the key TLS; every host then gets a certificate of its own."""
        names = list(clients)
        if len(names) > AT_MOST:
            raise LabError("at most %d clients fit on the bridge" % AT_MOST)
        interfaces = self._addresses([MASTER, *names], version)
        self._config = {name: dict(keys) for name, keys in (config or {}).items()}
        if tls:
            self._certify(interfaces, tls)
        self._lay_out(interfaces)
        for name in self._config:
            self.host(name)
        hosts_file = self.directory / "hosts"
        hosts_file.write_text("127.0.0.1 localhost\n::1 localhost\n" + "".join(
            "%s %s\n" % (host.address, host) for host in self.hosts.values()), encoding="utf-8")
        self._plan.write_text(json.dumps({
            "build": str(harness.program().parent.parent),
            "kind": type(self).__name__,
            "hosts": {host.name: host.interface for host in self.hosts.values()}}),
            encoding="utf-8")
        self._join(hosts_file, with_parent)
        return self

    def _certify(self, interfaces, tls):
        """Makes a certificate for each host. A host's own configuration goes before its keys."""
        try:
            self.authority = Authority(self.directory / "tls").issue(
                *("%s=%s" % (name, self.host_class.certified_address(interface))
                  for name, interface in interfaces.items()))
        except CertificateError as error:
            raise LabError(str(error)) from None
        for name in interfaces:
            self._config[name] = {**self.authority.files(name).keys(tls),
                                  **self._config.get(name, {})}

    def find(self):
        """Opens the lab that exists in the directory."""
        try:
            self._lay_out(json.loads(self._plan.read_text(encoding="utf-8"))["hosts"])
        except FileNotFoundError:
            raise LabError("there is no lab (%s)" % self.directory) from None
        self._rejoin()
        return self

    def _addresses(self, names, version):
        """{name: ADDRESS/PREFIX}"""
        network = NETWORKS[version]
        return {name: "%s/%d" % (network[number + 1], network.prefixlen)
                for number, name in enumerate(names)}

    def _join(self, hosts_file, with_parent):
        """Makes the hosts' namespaces, and the bridge between them."""
        try:
            self._switch = Keeper.start(self._noting("keeper", "-"), with_parent=with_parent)
            for host in self.hosts.values():
                host.keeper = Keeper.start(self._noting("keeper", host.name), host.name, hosts_file,
                                           with_parent)
            links.make_bridge(self._switch, self.hosts.values())
        except KeeperError as error:
            raise LabError(str(error)) from None

    def _rejoin(self):
        """Finds the namespaces that an earlier process has made."""
        keepers = self._journal.running("keeper")
        for name in ["-", *self.hosts]:
            if name not in keepers:
                raise LabError("the lab is not complete any more, %s is gone: take it down"
                               % ("its bridge" if name == "-" else name))
        self._switch = Keeper(keepers["-"])
        for host in self.hosts.values():
            host.keeper = Keeper(keepers[host.name])

    def _lay_out(self, interfaces):
        self.hosts = {name: self.host_class(self.directory, name, number, interface, MASTER,
                                            self._config.get(name))
                      for number, (name, interface) in enumerate(interfaces.items())}

    def _noting(self, kind, name):
        return lambda pid: self._journal.add(kind, name, pid)

    # Using it.

    @property
    def master(self):
        return self.hosts[MASTER]

    @property
    def clients(self):
        return [host for host in self.hosts.values() if host.name != MASTER]

    def host(self, name):
        try:
            return self.hosts[name]
        except KeyError:
            raise LabError("there is no host %s; there are: %s"
                           % (name, " ".join(self.hosts))) from None

    def start_daemons(self):
        """Starts the master's daemon first, then the clients', a few at the same time."""
        def start(host):
            self._journal.add("daemon", host.name, host.start_daemon())
        for host in self.hosts.values():
            _ = host.root  # make all product roots first, in this thread
        try:
            start(self.master)
            pool = ThreadPoolExecutor(AT_ONCE)
            try:
                for _ in pool.map(start, self.clients):
                    pass
            finally:  # after a failure, do not start the remaining daemons
                pool.shutdown(cancel_futures=True)
        except RuntimeError as error:
            raise LabError(str(error)) from None

    def daemons(self):
        """{host: pid} of the daemons that run."""
        return self._journal.running("daemon")

    @property
    def build(self):
        """The directory of the build that the lab was made with."""
        return pathlib.Path(json.loads(self._plan.read_text(encoding="utf-8"))["build"])

    def note_command(self, host):
        """Records that this process will become a command on the host."""
        self._journal.add("command", "%s:%d" % (host, os.getpid()), os.getpid())

    def cut(self, host):
        links.cut(self._switch, host)

    def slow(self, host, rate):
        links.slow(self._switch, host, rate)

    def heal(self, host):
        links.heal(self._switch, host)

    def link_state(self, host):
        return links.state(self._switch, host)

    def bytes_carried(self, host):
        return links.bytes_carried(self._switch, host)

    # Its end.

    def down(self, keep=False):
        """Ends commands first, then daemons, then the hosts. It also works on an incomplete lab.
        keep: the hosts' files stay. Returns the processes that it had to kill."""
        killed = self._end("command", self._journal.running("command"))
        # If `up` was killed, a daemon that it was starting may appear late. So look again.
        while daemons := {**self.daemons(), **process.daemons_under(self.directory)}:
            killed += self._end("daemon", daemons)
        killed += self._end("keeper", self._journal.running("keeper"), signal.SIGKILL)
        if not keep:
            with contextlib.suppress(FileNotFoundError):
                shutil.rmtree(self.directory)
        return killed

    @staticmethod
    def _end(kind, running, number=signal.SIGTERM):
        hosts = {pid: host for host, pid in running.items()}
        return ["%s %d of %s" % (kind, pid, hosts[pid])
                for pid in process.end_all(list(hosts), STOP_LIMIT, number)]
