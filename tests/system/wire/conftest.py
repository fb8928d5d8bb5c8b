"""All tests of a file share one daemon. Each test uses its own authority."""

import pytest

import harness


@pytest.fixture(scope="module")
def root(tmp_path_factory):
    return harness.Root(tmp_path_factory.mktemp("wire") / "root")


@pytest.fixture(scope="module")
def daemon(root):
    with harness.Daemons() as daemons:
        running = daemons.start(root)
        yield running
        assert running.stop() == 0, running.tail()
        status = root.status()
        assert (status["state"], status["assertions"]) == ("stopped", 0)


@pytest.fixture(scope="module")
def service(daemon):
    return daemon.client()


@pytest.fixture
def authority(request):
    """A name that no other test uses."""
    return request.node.name.replace("[", "-").replace("]", "").replace("_", "-")[:60]


@pytest.fixture(autouse=True)
def still_serves(daemon, service):
    """After every test the daemon must still serve."""
    yield
    assert daemon.is_running()
    assert service._non_existent() is False
