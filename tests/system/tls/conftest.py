"""Fixtures of the stories about TLS."""

import harness
import pytest
from pki import Authority


@pytest.fixture
def authority(tmp_path):
    """A CA with the certificates of the hosts master1 and web1, for daemons on the loopback."""
    return Authority(tmp_path / "tls").issue("master1", "web1")


@pytest.fixture
def secure_root(tmp_path, authority):
    """A product root with TLS and a copy of its files, which a test may change."""
    files = authority.files("master1").copy_to(tmp_path / "files")
    return harness.Root(tmp_path / "secure", **files.keys())


@pytest.fixture
def lab(stage):
    """A lab with TLS: the master and two clients. No daemon runs yet."""
    stage.build(2, tls="required")
    return stage
