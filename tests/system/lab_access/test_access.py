"""Who may do what in a network: the default lists, and lists with names of hosts."""

import signal

import giop
import harness
import pytest
from giop import AuthorityType
from records import SUCCESS, put, query
from refusals import refusals, refused

ROLES = ("read", "write", "register", "control")


@pytest.fixture
def service_of():
    """service_of(host, caller, address) is a proxy of the host's service, for calls that come from
    the caller. They go to the host's address, or to another one."""
    orbs = {}

    def make(host, caller, address=None):
        if caller not in orbs:
            credentials = caller.root.credentials
            orbs[caller] = giop.Orb(timeout=harness.CALL_LIMIT, network=caller.network,
                                    tls=credentials.as_client() if credentials else None)
        address = address or host.address
        return harness.service_at(
            orbs[caller], "%s:14400" % ("[%s]" % address if ":" in address else address))
    yield make
    for orb in orbs.values():
        orb.close()


def take(stage, host, level, **config):
    """Lets the host's daemon read these keys."""
    host.configure(LOG_LEVEL=level, **config)
    stage.daemon(host).send(signal.SIGHUP)
    harness.wait_for(lambda: host.root.status()["logLevel"] == level, "the lists are read")


def register(service, name):
    service.registerExplorer("DiscoveryService", name, "s", name, AuthorityType.AT_EXTSRC, 1)


# One operation of each role, done under a name.
OPERATIONS = {
    "read": ("queryDiscoveries", lambda service, _: query(service, subject="none")),
    "write": ("putCollection", lambda service, name: put(service, "notes", name)),
    "register": ("registerExplorer", register),
    "control": ("restartLocalPushTimer", lambda service, _: service.restartLocalPushTimer()),
}
# {entry: the callers that it admits to the service on host "one"}
ENTRIES = {
    "*": {"one", "two", "master"},
    "HOST": {"two"},
    "HOST in capitals": {"two"},
    "ADDRESS": {"two"},
    "RANGE": {"one", "two"},
    "local": {"one"},
    "master": {"master"},
    "": set(),
}


def text_of(entry, two, version):
    """The entry as it stands in qm.conf. The range has the addresses of both clients."""
    assert two.address in ("10.77.0.3", "fd77::3")
    return {"HOST": str(two), "HOST in capitals": str(two).upper(), "ADDRESS": two.address,
            "RANGE": "10.77.0.2/31" if version == 4 else "fd77::2/127"}.get(entry, entry)


def is_admitted(call, *arguments):
    try:
        call(*arguments)
        return True
    except giop.SystemException as failure:
        assert failure.name == "NO_PERMISSION"
        return False


@pytest.mark.parametrize("version", [4, 6])
def test_each_entry_in_each_role(stage, service_of, version):
    """One list has the entry, and the others admit everybody."""
    one, two = stage.build(2, version=version).clients
    stage.start_all()
    callers = {"one": one, "two": two, "master": stage.master}
    services = {name: service_of(one, host) for name, host in callers.items()}
    level = 4
    for entry, admitted in ENTRIES.items():
        text = text_of(entry, two, version)
        for role, (operation, call) in OPERATIONS.items():
            level = 9 - level
            take(stage, one, level, **{"ALLOW." + each: text if each == role else "*"
                                       for each in ROLES})
            for name in admitted:  # a new name has its addresses a moment later
                harness.wait_for(lambda: is_admitted(call, services[name], str(callers[name])),
                                 "%s: %s admits %s" % (role, entry, name))
            log = one.root.log()
            for name in callers.keys() - admitted:
                assert not is_admitted(call, services[name], str(callers[name])), (entry, role)
            assert sorted(refusals(log)) == sorted(
                "Refused: %s may not %s (ALLOW.%s = %s)"
                % (callers[name].peer_name, operation, role, text or "nobody")
                for name in callers.keys() - admitted)


@pytest.mark.parametrize("role", ["write", "register"])
def test_own_admits_each_host_to_its_own_name(stage, service_of, role):
    one, two = stage.build(2).clients
    stage.start_all()
    take(stage, stage.master, 5, **{"ALLOW." + role: "own"})
    operation, call = OPERATIONS[role]
    callers = (one, two, stage.master)
    for caller in callers:
        service = service_of(stage.master, caller)
        log = stage.master.root.log()
        for name in callers:
            assert is_admitted(call, service, str(name)) == (name is caller)
        assert refusals(log) == [
            'Refused: %s may not %s as "%s" (ALLOW.%s = own)'
            % (caller.peer_name, operation, name, role) for name in callers if name is not caller]


@pytest.mark.parametrize("version", [4, 6])
def test_by_default_control_is_for_the_host_and_the_master(stage, service_of, version):
    one, two = stage.build(2, version=version).clients
    stage.start_all()
    master = stage.master
    log = master.root.log()
    on_master = service_of(master, one)
    for operation in ("terminate", "restartLocalPushTimer", "restartAllPushTimers"):
        refused(getattr(on_master, operation))
    assert refusals(log) == ["Refused: %s may not %s (ALLOW.control = local, master)"
                             % (one.peer_name, operation) for operation in
                             ("terminate", "restartLocalPushTimer", "restartAllPushTimers")]
    refused(service_of(two, one).terminate)
    # Everything else is for everybody.
    assert put(on_master, "notes", "anything") == SUCCESS
    assert "notes" in [each.subject for each in query(on_master)]
    # The master, and the host itself at its address and over the loopback.
    service_of(two, master).restartLocalPushTimer()
    service_of(two, two).restartLocalPushTimer()
    service_of(two, two, "127.0.0.1" if version == 4 else "::1").restartLocalPushTimer()
    assert service_of(one, master).terminate() is True
    assert stage.daemon(one).wait() == 0
    assert service_of(two, two).terminate() is True
    assert stage.daemon(two).wait() == 0


def test_the_command_line_is_refused_and_then_admitted(stage):
    one, two = stage.build(2).clients
    stage.start_all()
    master = stage.master
    log = master.root.log()
    assert one.ctl("refresh", "--all", code=1) == (
        "qmdiscoctl: the discovery service on master refused, its log has the reason: not "
        "permitted: NO_PERMISSION (minor 0x00000000, COMPLETED_NO)\n")
    assert refusals(log) == ["Refused: %s may not restartAllPushTimers (ALLOW.control = local, "
                             "master)" % one.peer_name]
    take(stage, master, 5, **{"ALLOW.control": "local, %s" % str(one).upper()})

    def admitted():
        done = one.run(harness.program("qmdiscoctl"), "--root", one.path, "refresh", "--all")
        return done.returncode == 0
    harness.wait_for(admitted, "the name is resolved")
    assert "refused" in two.ctl("refresh", "--all", code=1)
    assert "refused" in two.ctl("stop", "--host", "master", code=1)


def test_own_by_the_names_of_hosts(stage, service_of):
    """The real explorers of all hosts pass with `own` in both lists."""
    stage.build(2, config={"master": {"ALLOW.write": "own", "ALLOW.register": "own"}})
    stage.start_all()
    one, two = stage.clients
    master = stage.master
    harness.wait_for(lambda: {"3 %s %s.xml" % (each, each) for each in (one, two, master)}
                     <= set(master.root.files()), "all hosts have pushed")
    on_master = service_of(master, one)
    assert put(on_master, "notes", str(one)) == SUCCESS
    refused(put, on_master, "notes", str(two))
    refused(put, on_master, "notes", "master")
    refused(lambda: on_master.registerExplorer("DiscoveryService", str(two), "s", str(one),
                                               AuthorityType.AT_EXTSRC, 1))
    refused(lambda: on_master.registerExplorer("DiscoveryService", str(one), "s", str(two),
                                               AuthorityType.AT_EXTSRC, 1))
    # A client that may write passes on what it is given, so the master decides about its own name.
    assert put(service_of(two, one), "passed on", str(two)) == SUCCESS


def test_ranges_and_a_name_that_appears_later(stage, service_of):
    # With TLS the name in the certificate decides, not the addresses of a name.
    one, two = stage.build(2, tls=None).clients
    stage.start_all()
    master = stage.master
    hosts = stage.lab.directory / "hosts"
    text = hosts.read_text()
    log = master.root.log()
    take(stage, master, 5, **{"ALLOW.read": "%s/32 late" % one.address})
    assert query(service_of(master, one), subject="none") == []
    refused(query, service_of(master, two))
    harness.wait_for(lambda: 'Cannot resolve "late" of the lists ALLOW.*, without a certificate it '
                             "admits nobody" in log.failures("AccessRules"), "the name is missing")
    hosts.write_text(text + "%s late\n" % two.address)

    def admitted():
        try:
            return query(service_of(master, two), subject="none") == []
        except giop.SystemException:
            return False
    harness.wait_for(admitted, "the name is resolved within ten seconds")
