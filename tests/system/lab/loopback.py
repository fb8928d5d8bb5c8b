"""A lab for machines without namespaces: the hosts share this machine's network."""

import socket

from .host import Host
from .lab import Lab, LabError

ADDRESS = "127.0.0.1"


class LoopbackHost(Host):
    """A host without namespaces. Its configuration has its name and the addresses of all hosts."""

    endpoints = {}  # {name: endpoint} of every host of the lab

    def _config(self, **config):
        return super()._config(**{"CLIENT_NAME": self.name, "LISTEN": self.interface,
                                  **{"ENDPOINT." + name: endpoint
                                     for name, endpoint in self.endpoints.items()}, **config})

    @staticmethod
    def certified_address(interface):
        return interface.rsplit(":", 1)[0]

    def entering(self):
        return []


class LoopbackLab(Lab):
    """A lab without a bridge. So it has no links to cut."""

    host_class = LoopbackHost

    def _addresses(self, names, version):
        """An unused endpoint for each host."""
        del version
        sockets = [socket.socket() for _ in names]
        try:
            for each in sockets:
                each.bind((ADDRESS, 0))
            return {name: "%s:%d" % (ADDRESS, each.getsockname()[1])
                    for name, each in zip(names, sockets)}
        finally:
            for each in sockets:
                each.close()

    def _lay_out(self, interfaces):
        super()._lay_out(interfaces)
        for host in self.hosts.values():
            host.endpoints = interfaces

    def _join(self, hosts_file, with_parent):
        pass

    def _rejoin(self):
        pass

    def cut(self, host):
        raise LabError("%s has no link of its own on the loopback" % host)

    slow = heal = cut

    def link_state(self, host):
        return "loopback"
