"""Certificates for the tests: good ones as administrators make them, and bad ones."""

import contextlib
import pathlib
import re
import shutil
import socket
import ssl
import subprocess
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
LIMIT = 120
# Seconds within which a server refuses a client.
REFUSED_WITHIN = 20
DAY = 86400

# The configuration of `openssl ca`. It signs everything that it gets.
CONFIG = """\
[req]
distinguished_name = nothing
[nothing]
[ca]
default_ca = here
[here]
database = index
new_certs_dir = .
default_md = sha256
policy = any
x509_extensions = made
unique_subject = no
rand_serial = yes
[any]
commonName = supplied
[made]
basicConstraints = critical, CA:FALSE
%s
"""

BOTH = "serverAuth, clientAuth"


class CertificateError(Exception):
    """A certificate cannot be made."""


def _run(*command, cwd=None):
    done = subprocess.run([*map(str, command)], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=LIMIT, check=False, cwd=cwd)
    if done.returncode != 0:
        raise CertificateError(done.stderr.strip())


class Files:
    """The files of one peer. They may be wrong on purpose."""

    def __init__(self, folder, ca):
        self.folder = pathlib.Path(folder)
        self.certificate = self.folder / "certificate.pem"
        self.key = self.folder / "key.pem"
        self.ca = pathlib.Path(ca)

    def keys(self, mode="required"):
        """The keys of qm.conf."""
        return {"TLS": mode, "TLS_CERTIFICATE": self.certificate, "TLS_KEY": self.key,
                "TLS_CA": self.ca}

    def as_client(self, **options):
        """The context of a client that shows this certificate."""
        return self._context(ssl.PROTOCOL_TLS_CLIENT, **options)

    def as_server(self, **options):
        """The context of a server that shows this certificate."""
        return self._context(ssl.PROTOCOL_TLS_SERVER, **options)

    def _context(self, protocol, version=ssl.TLSVersion.TLSv1_3, checks=True):
        """Without checks it takes any certificate of the peer, as an attacker does. It never
        compares names: the tests do so where it matters."""
        context = ssl.SSLContext(protocol)
        context.check_hostname = False
        context.minimum_version = context.maximum_version = version
        context.verify_mode = ssl.CERT_REQUIRED if checks else ssl.CERT_NONE
        if checks:
            context.load_verify_locations(self.ca)
        context.load_cert_chain(self.certificate, self.key)
        return context

    def fingerprint(self):
        """The certificate as DER, which an ssl connection shows as well."""
        return ssl.PEM_cert_to_DER_cert(self.certificate.read_text(encoding="ascii"))

    def copy_to(self, folder):
        """The same files elsewhere, so that a test can change them."""
        folder = pathlib.Path(folder)
        folder.mkdir(mode=0o700, parents=True)
        for each in (self.certificate, self.key, self.ca):
            shutil.copyfile(each, folder / each.name)
            (folder / each.name).chmod(0o600)
        return Files(folder, folder / self.ca.name)


def nobody():
    """The context of a client that shows no certificate."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def refusal(address, context, network=contextlib.nullcontext, source=None):
    """The text of the alert with which a server refuses a client, "closed" if the server closes
    the connection without one. Fails if the server takes the client.

    The client sends nothing but its handshake. Otherwise the end of the connection could overtake
    the alert.
    """
    with network():
        connection = socket.create_connection(address, LIMIT, (source, 0) if source else None)
    with connection:
        try:
            with context.wrap_socket(connection) as secured:
                secured.settimeout(REFUSED_WITHIN)
                got = secured.recv(1)
                assert not got, "the server sent %r" % got
        except ssl.SSLError as error:
            found = re.fullmatch(r"\[SSL: \w+\] (.*) \(_ssl\.c:\d+\)", str(error))
            if found:
                return found[1]
        except TimeoutError:
            raise AssertionError("the server does not refuse the client") from None
        except OSError:
            pass
    return "closed"


class Authority:
    """A private CA in a new directory."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.ca = self.directory / "ca.pem"
        self._bad = self.directory.parent / (self.directory.name + "-bad")

    def issue(self, *hosts, days=None, renew=False):
        """Lets scripts/certificates make the files of hosts, each "NAME" or "NAME=ADDRESS"."""
        _run(TOP / "scripts" / "certificates", *(["--days", days] if days else []),
             *(["--renew"] if renew else []), self.directory, *hosts)
        return self

    def files(self, host):
        """What scripts/certificates has made for a host."""
        return Files(self.directory / host, self.ca)

    def sign(self, folder, names, begin=-DAY, end=10 * DAY, usage=BOTH):
        """Signs a certificate that scripts/certificates would not make.

        folder: a new name for it. names: in the form of openssl, "DNS:web1,IP:192.0.2.1".
        begin, end: seconds from now.
        """
        where = self._new_request(folder, names, usage)

        def at(seconds):
            return time.strftime("%Y%m%d%H%M%SZ", time.gmtime(time.time() + seconds))
        _run("openssl", "ca", "-batch", "-notext", "-config", "config", "-in", "request", "-out",
             "certificate.pem", "-startdate", at(begin), "-enddate", at(end),
             "-cert", self.ca, "-keyfile", self.directory / "ca-key.pem", cwd=where)
        return Files(where, self.ca)

    def self_made(self, folder, names, usage=BOTH):
        """A certificate that its own key has signed."""
        where = self._new_request(folder, names, usage)
        _run("openssl", "ca", "-batch", "-notext", "-config", "config", "-in", "request", "-out",
             "certificate.pem", "-days", "10", "-selfsign", "-keyfile", "key.pem", cwd=where)
        return Files(where, self.ca)

    def _new_request(self, folder, names, usage):
        where = self._bad / folder
        where.mkdir(mode=0o700, parents=True)
        (where / "config").write_text(CONFIG % (
            "subjectAltName = %s\nextendedKeyUsage = %s" % (names, usage)), encoding="ascii")
        (where / "index").touch()
        first = re.match(r"(?:DNS|IP):([^,]+)", names)[1]
        _run("openssl", "req", "-new", "-config", "config", "-newkey", "ec", "-pkeyopt",
             "ec_paramgen_curve:P-256", "-noenc", "-keyout", "key.pem", "-out", "request",
             "-subj", "/CN=" + first, cwd=where)
        return where
