"""What a peer and the log get when the lists ALLOW.* refuse a request."""

import pytest

from giop import SystemException


def refused(call, *arguments):
    """Makes a call and checks that the service refuses it."""
    with pytest.raises(SystemException) as failure:
        call(*arguments)
    assert failure.value.name == "NO_PERMISSION"


def refusals(log):
    """The lines about refused requests."""
    return [text for text in log.failures("AccessRules") if text.startswith("Refused")]
