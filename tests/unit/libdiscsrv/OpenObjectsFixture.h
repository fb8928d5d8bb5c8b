#pragma once
// The registry of the iterators and writers that clients hold, for a test that sets its limits.

#include <chrono>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include <tlx/RequestPeer.h>

#include "DiscoveryService_i.h"
#include "OpenObjects.h"
#include "ServiceCounters.h"
#include "ServiceFixture.h"

namespace QmTest {

namespace Remote = Veltrane::Quillmark::Tlx::DiscoverySvc::Remote;

/// A counter of the service's status.
inline unsigned long long counter(const std::string& name)
{
    for (const Disc::CounterValue& value : Disc::serviceCounters())
        if (name == value.name)
            return value.value;
    ADD_FAILURE() << "no counter " << name;
    return 0;
}

/// A record that a client may put.
inline Remote::Discovery named(const std::string& subject, const char* authority = "srv1")
{
    Remote::Discovery discovery;
    discovery.queryType = Disc::DQ_DISCOVERY_DATA;
    discovery.subject = CORBA::string_dup(subject.c_str());
    discovery.authority = CORBA::string_dup(authority);
    discovery.authType = Disc::AT_QMKCLIENT;
    discovery.attributes = {Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY, 1, 0, 0};
    discovery.sourceHost = CORBA::string_dup("");
    discovery.sourceServiceName = CORBA::string_dup("");
    return discovery;
}

/// The registry of the process, with limits and a clock that the test sets.
struct Registry : testing::Test
{
    void limit(const Remote::OpenLimits& limits)
    {
        Remote::openObjects().stop();
        now = std::chrono::steady_clock::now();
        const CORBA::Object_var root = service.orb->getOrb()->resolve_initial_references("RootPOA");
        const PortableServer::POA_var parent = PortableServer::POA::_narrow(root);
        Remote::openObjects().start(parent, *service.orb, limits, [this] { return now; });
    }
    /// Opens a record as this peer. Returns its writer, nil on failure.
    Remote::RemoteWriter_ptr writer(const std::string& subject, const char* peer,
                                    Disc::DiscoveryStatus expected = Disc::DS_SUCCESS)
    {
        const Tlx::RequestPeerMark mark({peer, ""});
        const PortableServer::Servant_var<Remote::DiscoveryService_i> servant(
            new Remote::DiscoveryService_i);
        Remote::RemoteWriter_var reference;
        EXPECT_EQ(servant->putCollection(named(subject), reference.out()).discStatus, expected);
        return reference._retn();
    }
    bool hasPayload(int number) const
    {
        return std::filesystem::exists(service.store() / (std::to_string(number) + ".updating"));
    }

    Service service;
    std::chrono::steady_clock::time_point now;
};

} // namespace QmTest
