"""Every object knows its type, and clients find the service by its name."""

import pytest

import giop
from records import SUCCESS, open_writer, put, record

INTERFACES = [giop.DiscoveryService, giop.DiscoveryIterator, giop.CollectionDataIterator,
              giop.RemoteWriter]
OTHERS = ["IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/DiscoveryService:1.0",
          "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/DiscoveryService:1.1",
          "IDL:Veltrane/Quillmark/Tlx/DiscoverySvc/Remote/Discovery:1.0", "", "nonsense", "é日"]


@pytest.fixture(params=INTERFACES, ids=lambda kind: kind.__name__)
def an_object(request, service, authority):
    kind = request.param
    if kind is giop.DiscoveryService:
        yield service
    elif kind is giop.RemoteWriter:
        writer = open_writer(service, record("cl1", authority))
        yield writer
        assert writer.close().discStatus == SUCCESS
    elif kind is giop.DiscoveryIterator:
        iterator = service.queryDiscoveries(1, 0, authority, "*")
        yield iterator
        iterator.release()
    else:
        assert put(service, "cl1", authority) == SUCCESS
        _, iterator = service.getCollectionData(record("cl1", authority))
        yield iterator
        iterator.release()


def test_is_a(an_object):
    for kind in INTERFACES:
        assert an_object._is_a(kind.TYPE_ID) is isinstance(an_object, kind)
    assert an_object._is_a("IDL:omg.org/CORBA/Object:1.0") is True
    for other in OTHERS:
        assert an_object._is_a(other) is False


def test_exists(an_object):
    assert an_object._non_existent() is False


def test_references_carry_type_and_address(an_object, daemon):
    # The test found the service by name, so that reference has no type.
    if not isinstance(an_object, giop.DiscoveryService):
        assert an_object.ior.type_id == an_object.TYPE_ID
    assert (an_object.ior.host, an_object.ior.port) == daemon.address


def test_unknown_operation(an_object):
    with pytest.raises(giop.SystemException) as failure:
        an_object.call("getNextpage")
    assert (failure.value.name, failure.value.completed) == ("BAD_OPERATION", "NO")


@pytest.mark.parametrize("name", ["discoveryservice", "DiscoveryService2", "x" * 5000])
def test_unknown_name(daemon, service, name):
    other = service.orb.object("corbaloc:iiop:1.2@%s/%s" % (daemon.endpoint, name),
                               giop.DiscoveryService)
    with pytest.raises(giop.SystemException) as failure:
        other.restartAllPushTimers()
    assert failure.value.name == "OBJECT_NOT_EXIST"
