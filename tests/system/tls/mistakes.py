"""The mistakes that a peer can make with TLS, and what each side says about them.

The alerts and the reasons are those of OpenSSL 3. giop_client/test_tls.py shows the alerts without
a daemon.
"""

import ssl
from typing import NamedTuple

from pki import DAY, Authority, nobody


class Mistake(NamedTuple):
    """`alert` is what the peer gets. `reason` is what the log of this side says."""

    alert: str
    reason: str


VERIFY = "certificate verify failed: "

# The mistakes of certificates. The service says the same about its clients and about the services
# that it calls.
BAD_CERTIFICATES = {
    "expired": Mistake("sslv3 alert certificate expired", VERIFY + "certificate has expired"),
    "not yet valid": Mistake("sslv3 alert bad certificate",
                             VERIFY + "certificate is not yet valid"),
    "foreign CA": Mistake("tlsv1 alert unknown ca",
                          VERIFY + "unable to get local issuer certificate"),
    "self-made": Mistake("tlsv1 alert unknown ca", VERIFY + "self-signed certificate"),
    "for another purpose": Mistake("sslv3 alert unsupported certificate",
                                   VERIFY + "unsuitable certificate purpose"),
}
# What only a client can do.
BAD_CLIENTS = {
    **BAD_CERTIFICATES,
    "no certificate": Mistake("tlsv13 alert certificate required",
                              "peer did not return a certificate"),
    "TLS 1.2": Mistake("tlsv1 alert protocol version", "unsupported protocol"),
}
# A client without TLS, and one that leaves.
PLAIN_TEXT = Mistake("", "it speaks without TLS (TLS = required)")
GIVEN_UP = Mistake("", "the peer closed the connection during the TLS handshake")


def bad_files(authority, mistake, names, for_server=False):
    """The files of a peer that has made a mistake with its certificate."""
    folder = "%s %s" % (mistake, "server" if for_server else "client")
    if mistake == "expired":
        return authority.sign(folder, names, -2 * DAY, -60)
    if mistake == "not yet valid":
        return authority.sign(folder, names, DAY, 2 * DAY)
    if mistake == "foreign CA":
        foreign = Authority(authority.directory.parent / (folder + " of a foreign CA")).issue("x")
        return foreign.sign(folder, names)
    if mistake == "self-made":
        return authority.self_made(folder, names)
    assert mistake == "for another purpose"
    return authority.sign(folder, names, usage="clientAuth" if for_server else "serverAuth")


def bad_client(authority, mistake, name):
    """The ssl context of a client that has a mistake and checks nothing itself."""
    if mistake == "no certificate":
        return nobody()
    if mistake == "TLS 1.2":
        return authority.files(name).as_client(version=ssl.TLSVersion.TLSv1_2, checks=False)
    return bad_files(authority, mistake, "DNS:" + name).as_client(checks=False)


def refused_client(address, mistake):
    """The line of the service's log about a client."""
    return "Closed a connection of %s: %s" % (address, mistake.reason)


def refused_server(host, address, reason):
    """The line of the log about a service that was called. Tools print it as well. The host is
    how the caller looked it up: its name, its address, or "" if it did not."""
    shown = "%s (%s)" % (host, address) if host not in ("", address) else address
    return "No TLS connection to %s: %s" % (shown, reason)


def refused_by_server(text):
    """Why there is no connection, if the called service does not want this host."""
    return "it refused this host: " + text


def wrong_name(shown, wanted):
    return "its certificate names %s, not %s" % (shown, wanted)


def unknown_address(shown):
    return "its certificate names %s, and no host that was looked up has this address" % shown


SILENT = "it closed the connection during the TLS handshake"
TLS_1_2_SERVER = "tlsv1 alert protocol version"

# Why the service closes a connection whose handshake does not end.
STALLED = "the TLS handshake stalled"
