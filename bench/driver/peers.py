"""Services of others that do the same work. Their packages must be installed."""

import base64
import os
import pathlib
import shutil
import socket
import subprocess
import urllib.request

import servers

# (program or header, the Debian package that has it)
NEEDED = (("etcd", "etcd-server"), ("slapd", "slapd"), ("slapadd", "slapd"),
          ("ldap.h", "libldap-dev"), ("curl/curl.h", "libcurl4-openssl-dev"),
          ("grpcpp/grpcpp.h", "libgrpc++-dev"),
          ("google/protobuf/message.h", "libprotobuf-dev"), ("protoc", "protobuf-compiler"),
          ("grpc_cpp_plugin", "protobuf-compiler-grpc"))
SEARCHED = ":/usr/sbin:/sbin"

BASE = "dc=bench"
USER = "cn=manager," + BASE
PASSWORD = "bench"

CONFIGURATION = """
include /etc/ldap/schema/core.schema
attributetype ( 1.3.6.1.4.1.4203.666.1.7001 NAME 'benchValue'
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.40 SINGLE-VALUE )
objectclass ( 1.3.6.1.4.1.4203.666.3.7001 NAME 'benchRecord' SUP top STRUCTURAL
  MUST cn MAY benchValue )
pidfile {directory}/pid
modulepath /usr/lib/ldap
moduleload back_mdb
sizelimit unlimited
timelimit unlimited
sockbuf_max_incoming_auth 67108864
database mdb
maxsize 17179869184
suffix "{base}"
rootdn "{user}"
rootpw {password}
directory {directory}/data
index objectClass eq
index cn eq,sub
"""


def _find(program):
    return shutil.which(program, path=os.environ.get("PATH", "") + SEARCHED)


def _has_header(name):
    return any(True for folder in ("", "*/") for _ in pathlib.Path("/usr/include").glob(folder + name))


def missing():
    """The packages that are not installed."""
    return sorted({package for name, package in NEEDED
                   if not (_has_header(name) if name.endswith(".h") else _find(name))})


def _free_port():
    with socket.socket() as listening:
        listening.bind(("127.0.0.1", 0))
        return listening.getsockname()[1]


class Etcd:
    """A key-value store with one member. It syncs each write before it answers."""

    name = "etcd"

    def __init__(self, directory, clients):
        self._directory = pathlib.Path(directory)
        self._directory.mkdir(mode=0o700)
        self._clients = clients
        self._address = "127.0.0.1:%d" % _free_port()
        self.url = "http://" + self._address
        peer = "http://127.0.0.1:%d" % _free_port()
        # The quota is larger than the default, so that all repeats fit.
        self._process = servers.Process(
            [_find("etcd"), "--name", "bench", "--data-dir", self._directory / "data",
             "--listen-client-urls", self.url, "--advertise-client-urls", self.url,
             "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer,
             "--initial-cluster", "bench=" + peer, "--log-level", "error",
             "--quota-backend-bytes", str(8 << 30)],
            self._directory / "stderr")
        servers.wait_for(self._is_healthy, "etcd is up", pause=0.05)

    def _is_healthy(self):
        self._process.check()
        try:
            with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(
                    self.url + "/health", timeout=5) as answer:
                return b'"true"' in answer.read()
        except OSError:
            return False

    def command(self):
        return {"address": self._address}

    def begin_filling(self):
        """It fills while it runs."""

    end_filling = begin_filling

    def add_unit(self, authority):
        """Its keys need no unit."""

    def fill(self, authority, size, start, end):
        self._clients.run([{**self.command(), "operation": "etcd.fill", "authority": authority,
                            "size": size, "first": start, "count": end - start, "warm": 0,
                            "seconds": 0}])

    def stop(self):
        self._process.stop()


class Gateway:
    """The JSON gateway of an etcd, which keeps its data."""

    name = "gateway"

    def __init__(self, etcd):
        self._url = etcd.url

    def command(self):
        return {"url": self._url}


class Ldap:
    """A directory server with the backend mdb. It syncs each write before it answers."""

    name = "ldap"

    def __init__(self, directory):
        self._directory = pathlib.Path(directory)
        (self._directory / "data").mkdir(parents=True, mode=0o700)
        self._configuration = self._directory / "slapd.conf"
        self._configuration.write_text(CONFIGURATION.format(
            directory=self._directory, base=BASE, user=USER, password=PASSWORD))
        self._url = "ldap://127.0.0.1:%d" % _free_port()
        self._process = None
        self._units = set()
        self._add("dn: %s\nobjectClass: dcObject\nobjectClass: organization\n"
                  "o: bench\ndc: bench\n\n" % BASE)

    def _add(self, text):
        """Adds entries while no server runs."""
        file = self._directory / "add.ldif"
        file.write_text(text)
        subprocess.run([_find("slapadd"), "-q", "-f", self._configuration, "-l", file], check=True,
                       timeout=servers.FILL_LIMIT, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL)
        file.unlink()

    def add_unit(self, authority):
        if authority not in self._units:
            self._units.add(authority)
            self._add("dn: ou={0},{1}\nobjectClass: organizationalUnit\nou: {0}\n\n"
                      .format(authority, BASE))

    def begin_filling(self):
        self.stop()

    def end_filling(self):
        self.start()

    def fill(self, authority, size, start, end):
        self.add_unit(authority)
        # bench/Names.h makes the same names and payloads for the other targets.
        value = base64.b64encode(bytes(ord("a") + i % 26 for i in range(size))).decode()
        self._add("".join("dn: cn={0},ou={1},{2}\nobjectClass: benchRecord\ncn: {0}\n"
                          "benchValue:: {3}\n\n"
                          .format("c%02d-%06d" % (i % 100, i), authority, BASE, value)
                          for i in range(start, end)))

    def start(self):
        self._process = servers.Process(
            [_find("slapd"), "-f", self._configuration, "-h", self._url, "-d", "0"],
            self._directory / "stderr")
        port = int(self._url.rsplit(":", 1)[1])

        def is_up():
            self._process.check()
            with socket.socket() as connection:
                return connection.connect_ex(("127.0.0.1", port)) == 0
        servers.wait_for(is_up, "slapd is up", pause=0.05)

    def command(self):
        return {"url": self._url, "base": BASE, "user": USER, "password": PASSWORD}

    def stop(self):
        if self._process:
            self._process.stop()
        self._process = None


if __name__ == "__main__":
    print(" ".join(missing()))
