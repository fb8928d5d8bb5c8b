"""The files of TLS: mistakes at the start, and files that change while the daemon runs."""

import re
import signal
import socket
import subprocess
import time

import pytest

import giop
import harness
from pki import DAY, Authority
from records import SUCCESS, get, open_writer, put, query, record

# Exit codes, of qmdisco and of qmdiscoctl.
CONFIGURATION = 3
FAILURE = 1
# Seconds within which a new daemon looks at the end of its certificate.
CHECKED_WITHIN = 4


def make_readable(files):
    files.key.chmod(0o644)
    return "TLS_KEY", files.key, "others may use %s (mode 0644); mode 0600 is expected" % files.key


def make_readable_by_the_group(files):
    files.key.chmod(0o640)
    return "TLS_KEY", files.key, "others may use %s (mode 0640); mode 0600 is expected" % files.key


def remove_key(files):
    files.key.unlink()
    return "TLS_KEY", files.key, "cannot examine %s: No such file or directory" % files.key


def remove_certificate(files):
    files.certificate.unlink()
    return ("TLS_CERTIFICATE", files.certificate,
            "cannot examine %s: No such file or directory" % files.certificate)


def remove_ca(files):
    files.ca.unlink()
    return "TLS_CA", files.ca, "cannot examine %s: No such file or directory" % files.ca


def take_the_key_of_another(files):
    other = Authority(files.folder.parent / "other").issue("master1").files("master1")
    files.key.write_bytes(other.key.read_bytes())
    return ("TLS_KEY", files.key,
            "the key does not fit the certificate in %s" % files.certificate)


def empty_the_key(files):
    files.key.write_bytes(b"")
    return "TLS_KEY", files.key, "the file is empty"


def write_no_certificate(files):
    files.certificate.write_text("notes\n", encoding="ascii")
    return "TLS_CERTIFICATE", files.certificate, "there is no certificate in PEM format"


def let_others_write_the_ca(files):
    files.ca.chmod(0o666)
    return "TLS_CA", files.ca, "others may write %s (mode 0666)" % files.ca


def let_others_write_the_directory(files):
    """Then others can replace the certificate, which is read first."""
    files.folder.chmod(0o777)
    return ("TLS_CERTIFICATE", files.certificate,
            "others may write %s (mode 0777)" % files.folder)


MISTAKES = [make_readable, make_readable_by_the_group, remove_key, remove_certificate, remove_ca,
            take_the_key_of_another, empty_the_key, write_no_certificate, let_others_write_the_ca,
            let_others_write_the_directory]


def call_from(root):
    """Runs qmdiscoctl, to call a host where nobody listens."""
    with open(root.config_file, "a", encoding="ascii") as file:
        file.write("ENDPOINT.web1 = 127.0.0.1:9\n")
    return subprocess.run([harness.program("qmdiscoctl"), "--root", str(root), "query", "--host",
                           "web1"],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=harness.CALL_LIMIT, check=False)


@pytest.mark.parametrize("mistake", MISTAKES, ids=lambda each: each.__name__)
def test_a_mistake_stops_the_start(secure_root, mistake):
    key, path, why = mistake(secure_root.credentials)
    says = "%s = %s: %s" % (key, path, why)
    code, out, err = harness.run("--root", secure_root)
    assert (code, out) == (CONFIGURATION, "")
    assert says in err.splitlines()[0]
    assert secure_root.status().get("state") != "running"
    done = call_from(secure_root)
    assert done.returncode == FAILURE
    assert done.stderr.splitlines()[0] == "qmdiscoctl: " + says


@pytest.mark.parametrize("key", ["TLS_CERTIFICATE", "TLS_KEY", "TLS_CA"])
@pytest.mark.parametrize("mode", ["on", "required"])
def test_a_key_that_is_missing(secure_root, key, mode):
    secure_root.configure(**{**secure_root.credentials.keys(mode), key: None})
    code, _, err = harness.run("--root", secure_root)
    assert code == CONFIGURATION
    assert "%s is not set. TLS needs it" % key in err


@pytest.mark.parametrize("text", ["yes", "Required", "1", "true", "require"])
def test_a_mode_that_is_not_understood_is_not_plain_text(secure_root, text):
    keys = {**secure_root.credentials.keys(), "TLS": text}
    secure_root.config_file.write_text(
        "LISTEN = 127.0.0.1:0\nCLIENT_NAME = master1\nSERVER = master1\n" +
        "".join("%s = %s\n" % each for each in keys.items()), encoding="ascii")
    code, _, err = harness.run("--root", secure_root)
    assert code == CONFIGURATION
    assert "expected off, on or required" in err
    done = call_from(secure_root)
    assert done.returncode == FAILURE
    assert "expected off, on or required" in done.stderr


def test_the_check_of_the_configuration(secure_root):
    assert harness.run("--check-config", "--root", secure_root)[0] == 0
    key, path, why = make_readable(secure_root.credentials)
    code, out, _ = harness.run("--check-config", "--root", secure_root)
    assert (code, out) == (CONFIGURATION, "%s: %s = %s: %s\n"
                           % (secure_root.config_file, key, path, why))


def test_the_check_finds_an_expired_certificate(authority, secure_root):
    """The daemon starts with it, and an administrator can replace it while the service runs."""
    files = authority.sign("ended", "DNS:master1", -2 * DAY, -60)
    secure_root.configure(**files.keys())
    code, out, _ = harness.run("--check-config", "--root", secure_root)
    assert code == CONFIGURATION
    assert re.fullmatch(re.escape("%s: Peers will refuse the certificate in %s (TLS_CERTIFICATE): "
                                  % (secure_root.config_file, files.certificate)) +
                        r"it expired at \d{4}-\d\d-\d\d \d\d:\d\d UTC\n", out)


def test_the_check_finds_a_certificate_of_another_ca(secure_root, tmp_path):
    files = secure_root.credentials
    files.ca.write_bytes(Authority(tmp_path / "next").issue("web1").ca.read_bytes())
    code, out, _ = harness.run("--check-config", "--root", secure_root)
    assert (code, out) == (CONFIGURATION, "%s: Peers will refuse the certificate in %s "
                           "(TLS_CERTIFICATE): no authority in %s (TLS_CA) has signed it\n"
                           % (secure_root.config_file, files.certificate, files.ca))


def test_without_tls_the_files_do_not_matter(start, secure_root):
    keys = secure_root.credentials.keys("off")
    secure_root.credentials.key.unlink()
    secure_root.configure(**keys)
    daemon = start(secure_root)
    assert put(daemon.client(), "notes", "a") == SUCCESS
    assert daemon.stop() == 0


# Files that change.


def reload(daemon, root):
    """Sends SIGHUP and waits until the daemon has read its files."""
    log = root.log()
    daemon.send(signal.SIGHUP)
    harness.wait_for(lambda: "The configuration was read again" in log.texts(
        originator=harness.PLATFORM), "the files are read")
    return log


def shown(daemon, files):
    """The certificate that a new connection gets."""
    with socket.create_connection(daemon.address, 30) as connection, \
            files.as_client().wrap_socket(connection) as secured:
        return secured.getpeercert(binary_form=True)


def renew(authority, files):
    authority.issue("master1", renew=True)
    fresh = authority.files("master1")
    for old, new in ((files.key, fresh.key), (files.certificate, fresh.certificate)):
        old.write_bytes(new.read_bytes())
    return fresh.fingerprint()


def test_a_renewed_certificate(start, authority, secure_root):
    """New connections get it. The others go on, with their open objects."""
    daemon, web1 = start(secure_root), authority.files("web1")
    old = secure_root.credentials.fingerprint()
    service = daemon.client(tls=web1.as_client())
    writer = open_writer(service, record("notes", "web1"))
    assert writer.put(b"before, ")
    for _ in range(3):
        new = renew(authority, secure_root.credentials)
        assert new != old
        assert shown(daemon, web1) == old, "nothing changes before the signal"
        log = reload(daemon, secure_root)
        assert [text for text in log.texts(level=1, originator=harness.PLATFORM)
                if "TLS" in text] == []
        assert shown(daemon, web1) == new
        old = new
    assert writer.put(b"after")
    assert writer.close().discStatus == SUCCESS
    assert get(daemon.client(tls=web1.as_client()), "notes", "web1") == b"before, after"
    assert len(service.orb.certificates()) == 1
    assert daemon.stop() == 0


@pytest.mark.parametrize("mistake", MISTAKES, ids=lambda each: each.__name__)
def test_a_mistake_at_a_reload_changes_nothing(start, authority, secure_root, mistake):
    daemon, web1 = start(secure_root), authority.files("web1")
    old = secure_root.credentials.fingerprint()
    key, path, why = mistake(secure_root.credentials)
    log = reload(daemon, secure_root)
    assert [text for text in log.texts(level=1, originator=harness.PLATFORM) if "TLS" in text] == \
        ["The old TLS certificate stays in use: %s = %s: %s" % (key, path, why)]
    assert shown(daemon, web1) == old
    assert query(daemon.client(tls=web1.as_client())) == []
    assert daemon.stop() == 0


def test_another_ca_is_added_and_the_first_one_removed(start, authority, secure_root, tmp_path):
    """So the hosts can move from one CA to the next without a break."""
    next_ca = Authority(tmp_path / "next").issue("web1", "master1")
    old, new = authority.files("web1"), next_ca.files("web1")
    daemon = start(secure_root)
    connected = daemon.client(tls=old.as_client())
    assert query(connected) == []

    def is_admitted(files):
        try:
            return query(daemon.client(tls=files.as_client(checks=False))) == []
        except giop.ConnectionLost:
            return False
    assert (is_admitted(old), is_admitted(new)) == (True, False)
    ca = secure_root.credentials.ca
    ca.write_bytes(authority.ca.read_bytes() + next_ca.ca.read_bytes())
    reload(daemon, secure_root)
    assert (is_admitted(old), is_admitted(new)) == (True, True)
    fresh = next_ca.files("master1")
    secure_root.credentials.key.write_bytes(fresh.key.read_bytes())
    secure_root.credentials.certificate.write_bytes(fresh.certificate.read_bytes())
    ca.write_bytes(next_ca.ca.read_bytes())
    reload(daemon, secure_root)
    assert (is_admitted(old), is_admitted(new)) == (False, True)
    assert query(connected) == [], "the connection of before goes on"
    assert daemon.stop() == 0


# The end of a certificate.


def day(seconds):
    return time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime(seconds))


def in_status(seconds):
    """A time as the status has it."""
    local = time.localtime(seconds)
    return time.strftime("%Y-%m-%dT%H:%M:%S", local) + "%+03d:%02d" % divmod(
        local.tm_gmtoff // 60, 60)


def start_with(start, authority, root, end):
    """Starts a daemon whose certificate ends so many seconds from now. Returns the daemon, the
    time of the end, and the files."""
    ends = int(time.time()) + end
    files = authority.sign("ending", "DNS:master1", end=end)
    root.configure(**files.keys())
    return start(root), ends, files


def lines_about_the_end(root):
    return [line for line in map(harness.parse_line, root.log_file.read_text().splitlines())
            if " expire" in line.text]


def test_a_certificate_that_ends_soon(start, authority, secure_root):
    daemon, ends, files = start_with(start, authority, secure_root, 30 * DAY - 60)
    lines = harness.wait_for(lambda: lines_about_the_end(secure_root), "the warning")
    expected = {"The certificate in %s (TLS_CERTIFICATE) expires at %s, in 29 days. Replace it, "
                "then send SIGHUP" % (files.certificate, day(at)) for at in (ends, ends + 60)}
    assert len(lines) == 1 and lines[0].text in expected
    assert (lines[0].level, lines[0].severity) == (1, "warning")
    assert secure_root.status()["certificateExpires"] in (in_status(ends), in_status(ends + 1))
    assert query(daemon.client(tls=authority.files("web1").as_client())) == []


def test_a_certificate_that_ends_later(start, authority, secure_root):
    _, ends, _ = start_with(start, authority, secure_root, 30 * DAY + 600)
    time.sleep(CHECKED_WITHIN)
    assert lines_about_the_end(secure_root) == []
    assert secure_root.status()["certificateExpires"] in (in_status(ends), in_status(ends + 1))


def test_a_certificate_that_has_ended(start, authority, secure_root):
    """The service starts, and the log says what to do. Clients refuse it."""
    files = authority.sign("ended", "DNS:master1", -2 * DAY, -60)
    secure_root.configure(**files.keys())
    daemon = start(secure_root)
    [line] = harness.wait_for(lambda: lines_about_the_end(secure_root), "the error")
    assert line.text.startswith("The certificate in %s (TLS_CERTIFICATE) expired at "
                                % files.certificate)
    assert line.text.endswith(". Other hosts refuse this one")
    assert (line.level, line.severity) == (1, "error")
    web1 = authority.files("web1")
    with pytest.raises(giop.ConnectionLost, match="certificate has expired"):
        query(daemon.client(tls=web1.as_client()))
    # A renewal needs no restart.
    fresh = authority.files("master1")
    files.key.write_bytes(fresh.key.read_bytes())
    files.certificate.write_bytes(fresh.certificate.read_bytes())
    reload(daemon, secure_root)
    assert query(daemon.client(tls=web1.as_client())) == []
    assert daemon.stop() == 0
