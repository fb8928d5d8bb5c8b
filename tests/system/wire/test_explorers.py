"""The operations for explorers, on a host without explorers."""

import pytest

import harness
from giop import AuthorityType
from records import ANY, SUCCESS, get, put, query


@pytest.mark.parametrize("subject,authority_name", [("", "a"), ("s", ""), ("", "")])
def test_an_explorer_without_a_name_is_not_registered(service, root, authority, subject,
                                                      authority_name):
    assert put(service, "cl1", authority) == SUCCESS
    files = root.files()
    service.registerExplorer("DiscoveryService", "client1", subject, authority_name,
                             AuthorityType.AT_QMKCLIENT, 5)
    assert root.files() == files
    assert [each.subject for each in query(service, authority=authority)] == ["cl1"]
    assert get(service, "cl1", authority) == b"payload"


def test_restart_of_the_local_push_timer(service):
    assert service.restartLocalPushTimer() is None


def test_restart_of_all_push_timers(service, root):
    """No host has published filter data, so the refresh finds no host to call."""
    log = root.log()
    assert service.restartAllPushTimers() is True
    harness.wait_for(lambda: "No unix clients found" in log.texts(level=4),
                     "the refresh has looked for hosts")
    assert query(service, subject="nobody", type=ANY) == []
