"""Tests of scripts/certificates. They use it as a person does."""

import os
import subprocess
import time

import pytest

import harness

SCRIPT = harness.TOP / "scripts" / "certificates"
LIMIT = 60


@pytest.fixture
def directory(tmp_path):
    return tmp_path / "tls"


def run(*arguments, code=0, **options):
    """Returns what the script printed: the lines for qm.conf, or its complaint."""
    done = subprocess.run([SCRIPT, *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=LIMIT, check=False, **options)
    assert done.returncode == code, done.stderr
    return done.stdout if code == 0 else done.stderr


def openssl(*arguments):
    done = subprocess.run(["openssl", *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=LIMIT, check=True)
    return done.stdout


def shown(certificate, *what):
    """What openssl prints about a certificate, without the names of the fields."""
    return openssl("x509", "-in", certificate, "-noout", *what)


def names(certificate):
    return shown(certificate, "-ext", "subjectAltName").splitlines()[1].strip()


def public_key(folder):
    """The public key of a host. Asserts that key and certificate fit."""
    key = openssl("pkey", "-in", folder / "key.pem", "-pubout")
    assert key == shown(folder / "certificate.pem", "-pubkey")
    return key


def verifies(directory, host, purpose):
    done = subprocess.run(["openssl", "verify", "-x509_strict", "-purpose", purpose, "-CAfile",
                           directory / "ca.pem", directory / host / "certificate.pem"],
                          capture_output=True, text=True, timeout=LIMIT, check=False)
    return done.returncode == 0


def content(directory):
    """{path: bytes} of all files"""
    return {str(path.relative_to(directory)): path.read_bytes()
            for path in directory.rglob("*") if path.is_file()}


def mode(path):
    return path.stat().st_mode & 0o777


def days_from_now(certificate, option):
    text = shown(certificate, option).partition("=")[2].strip()
    return (time.mktime(time.strptime(text, "%b %d %H:%M:%S %Y GMT")) - time.timezone -
            time.time()) / 86400


def test_a_ca_and_two_hosts(directory):
    assert run(directory, "master=192.0.2.1,2001:db8::1", "web1.example.org") == "".join(
        "# qm.conf of %s\nTLS = required\nTLS_CERTIFICATE = %s/%s/certificate.pem\n"
        "TLS_KEY = %s/%s/key.pem\nTLS_CA = %s/ca.pem\n"
        % (host, directory, host, directory, host, directory)
        for host in ("master", "web1.example.org"))
    assert sorted(content(directory)) == [
        "ca-key.pem", "ca.pem", "master/certificate.pem", "master/key.pem",
        "web1.example.org/certificate.pem", "web1.example.org/key.pem"]
    for path in directory.rglob("*"):
        assert mode(path) == (0o700 if path.is_dir() else 0o600), path
    assert mode(directory) == 0o700
    for host, its_names in (("master", "DNS:master, IP Address:192.0.2.1, "
                                       "IP Address:2001:DB8:0:0:0:0:0:1"),
                            ("web1.example.org", "DNS:web1.example.org")):
        certificate = directory / host / "certificate.pem"
        assert names(certificate) == its_names
        assert shown(certificate, "-subject") == "subject=CN = %s\n" % host
        for purpose in ("sslserver", "sslclient"):
            assert verifies(directory, host, purpose)
        text = shown(certificate, "-text")
        assert "NIST CURVE: P-256" in text and "CA:FALSE" in text
        assert 824.9 < days_from_now(certificate, "-enddate") <= 825
        assert -1.1 < days_from_now(certificate, "-startdate") <= -1
    assert public_key(directory / "master") != public_key(directory / "web1.example.org")
    assert "CA:TRUE, pathlen:0" in shown(directory / "ca.pem", "-text")
    assert 3649.9 < days_from_now(directory / "ca.pem", "-enddate") <= 3650


def test_hosts_are_added_and_others_stay(directory):
    run(directory, "web1")
    before = content(directory)
    run("--days", 10, directory, "web2")
    after = content(directory)
    assert {path: after[path] for path in before} == before
    assert verifies(directory, "web2", "sslserver")
    assert 9.9 < days_from_now(directory / "web2" / "certificate.pem", "-enddate") <= 10


def test_an_existing_host_is_refused_and_renewed(directory):
    run(directory, "web1=192.0.2.1", "web2")
    before, old_key = content(directory), public_key(directory / "web1")
    assert run(directory, "web3", "web1", code=1) == \
        "certificates: %s/web1 exists: --renew replaces its key and certificate\n" % directory
    assert content(directory) == before, "nothing was made"
    run("--renew", directory, "web1")
    after = content(directory)
    changed = {path for path in before if after[path] != before[path]}
    assert changed == {"web1/certificate.pem", "web1/key.pem"} and set(after) == set(before)
    assert public_key(directory / "web1") != old_key
    assert names(directory / "web1" / "certificate.pem") == "DNS:web1, IP Address:192.0.2.1"
    run("--renew", directory, "web1=2001:db8::7")
    assert names(directory / "web1" / "certificate.pem") == \
        "DNS:web1, IP Address:2001:DB8:0:0:0:0:0:7"
    assert mode(directory / "web1" / "key.pem") == 0o600
    assert "has no host web9 to renew" in run("--renew", directory, "web1", "web9", code=1)


def test_other_names_of_a_host(directory):
    """The first name is the one that peers see. The renewal keeps all."""
    run(directory, "web1=web1.example.org,192.0.2.1,www")
    certificate = directory / "web1" / "certificate.pem"
    assert names(certificate) == "DNS:web1, DNS:web1.example.org, IP Address:192.0.2.1, DNS:www"
    run("--renew", directory, "web1")
    assert names(certificate) == "DNS:web1, DNS:web1.example.org, IP Address:192.0.2.1, DNS:www"
    run("--renew", directory, "web1=www")
    assert names(certificate) == "DNS:web1, DNS:www"


def test_where_the_files_will_be(directory):
    lines = run("--at", "/etc/tls", directory, "web1").splitlines()
    assert lines[2:] == ["TLS_CERTIFICATE = /etc/tls/certificate.pem",
                         "TLS_KEY = /etc/tls/key.pem", "TLS_CA = /etc/tls/ca.pem"]


def test_a_relative_directory_is_below_the_caller_s(tmp_path):
    run("a b/$c", "web1", cwd=tmp_path)
    assert verifies(tmp_path / "a b" / "$c", "web1", "sslserver")


def test_an_empty_directory_becomes_private(directory):
    directory.mkdir(mode=0o755)
    run(directory, "web1")
    assert mode(directory) == 0o700


def test_names_at_their_bounds(directory):
    label = "a" * 63
    longest = ".".join([label] * 3 + ["b" * 61])
    assert len(longest) == 253
    run(directory, longest, "x" * 63)
    assert names(directory / longest / "certificate.pem") == "DNS:" + longest
    for wrong in (longest + "b", "a" * 64):
        assert run(directory, wrong, code=2) == \
            'certificates: "%s" is not the name of a host\n' % wrong


@pytest.mark.parametrize("arguments, says", [
    ([], "needs a directory and at least one host"),
    (["DIR"], "needs a directory and at least one host"),
    (["DIR", ""], '"" is not the name of a host'),
    (["DIR", "-web1"], 'cannot understand "-web1"'),
    (["DIR", "web1-"], '"web1-" is not the name of a host'),
    (["DIR", "../web1"], '"../web1" is not the name of a host'),
    (["DIR", "web1,DNS:web2"], '"web1,DNS:web2" is not the name of a host'),
    (["DIR", "*.example.org"], '"*.example.org" is not the name of a host'),
    (["DIR", "web1\nweb2"], '"web1\nweb2" is not the name of a host'),
    (["DIR", "192.0.2.1"], '"192.0.2.1" is an address: write NAME=192.0.2.1'),
    (["DIR", "ca.pem"], 'no host can be called "ca.pem"'),
    (["DIR", "web1", "web1=192.0.2.1"], '"web1" stands there twice'),
    (["DIR", "web1="], '"web1=" lacks a name or an address'),
    (["DIR", "web1=web-"], '"web-" is neither an address nor the name of a host'),
    (["DIR", "web1=192.0.2.1,"], None),
    (["DIR", "web1=192.0.2.1,,192.0.2.2"], '"" is neither an address nor the name of a host'),
    (["--days", "0", "DIR", "web1"], '--days needs a number from 1 to 9999, not "0"'),
    (["--days", "10000", "DIR", "web1"], '--days needs a number from 1 to 9999, not "10000"'),
    (["DIR", "web1", "--days"], "--days needs a value"),
    (["--at", "tls", "DIR", "web1"], '--at needs an absolute path, not "tls"'),
])
def test_wrong_words(directory, arguments, says):
    arguments = [str(directory) if each == "DIR" else each for each in arguments]
    if says is None:  # a comma at the end adds nothing
        run(*arguments)
        return
    assert run(*arguments, code=2).endswith("certificates: %s\n" % says)
    assert not directory.exists()


def test_what_openssl_refuses_leaves_nothing(directory):
    assert "certificates: openssl cannot make the certificate of web2 (DNS:web2,IP:1.2.3.256)\n" \
        in run(directory, "web1", "web2=1.2.3.256", code=1)
    assert not directory.exists()
    run(directory, "web1")
    before = content(directory)
    run(directory, "web2", "web3=::1::2", code=1)
    assert content(directory) == before
    assert run("--days", 3651, directory, "web2", code=1) == (
        "certificates: the CA of %s ends before the new certificates would: give fewer --days, or "
        "make a new CA\n" % directory)
    assert sorted(os.listdir(directory)) == ["ca-key.pem", "ca.pem", "web1"]


def test_directories_that_it_refuses(directory):
    assert run("--renew", directory, "web1", code=1) == \
        "certificates: %s has no CA, so there is nothing to renew\n" % directory
    assert not directory.exists()
    directory.mkdir()
    (directory / "notes").touch()
    assert run(directory, "web1", code=1) == \
        "certificates: %s contains files, but no CA: name a new directory\n" % directory
    (directory / "notes").unlink()
    run(directory, "web1")
    directory.chmod(0o720)
    assert run(directory, "web2", code=1) == \
        "certificates: others may write %s: chmod go-w it first\n" % directory
    directory.chmod(0o700)
    (directory / "ca-key.pem").rename(directory / "elsewhere")
    assert run(directory, "web2", code=1) == (
        "certificates: %s has no ca-key.pem, or it cannot be read: this CA cannot sign\n"
        % directory)


def test_the_key_of_another_ca(directory, tmp_path):
    run(directory, "web1")
    run(tmp_path / "other", "web1")
    (directory / "ca-key.pem").write_bytes((tmp_path / "other" / "ca-key.pem").read_bytes())
    assert "openssl cannot make the certificate of web2" in run(directory, "web2", code=1)
    assert not (directory / "web2").exists()


def test_two_at_once(directory):
    run(directory, "web0")
    with subprocess.Popen(["flock", directory, "sh", "-c", "echo ready; read end"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as lock:
        assert lock.stdout.readline() == "ready\n"
        assert run(directory, "web1", code=1) == \
            "certificates: another certificates works in %s\n" % directory
        lock.stdin.close()
    run(directory, "web1")


def test_without_openssl(directory, tmp_path):
    programs = tmp_path / "bin"
    programs.mkdir()
    for each in ("bash", "dirname", "basename"):
        (programs / each).symlink_to("/usr/bin/" + each)
    assert run(directory, "web1", code=1, env={"PATH": str(programs)}) == \
        "certificates: openssl is missing: install Debian's package openssl\n"


def test_help():
    done = subprocess.run([SCRIPT, "--help"], capture_output=True, text=True, timeout=LIMIT,
                          check=True)
    assert done.stderr.startswith("usage: certificates ")
