#pragma once
// A client whose master is a fake service in another process.

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakePeer.h"
#include "RemoteDB.h"
#include "ServiceCounters.h"
#include "ServiceFixture.h"

namespace QmTest {

constexpr const char* NO_MEMORY = "NO_MEMORY (minor 0x00000000, COMPLETED_NO)";

/// A client whose master, "peer", is the fake one.
struct RemoteFixture : testing::Test
{
    RemoteFixture() : service(configuration()) {}

    /// Adds lines to the client's configuration.
    void configure(const std::string& more) const
    {
        Tlx::HostConfig::instance().readText(configuration() + more, "qm.conf");
    }
    std::string configuration() const
    {
        return "SERVER = peer\nENDPOINT.peer = " + peer.endpoint + "\n";
    }

    static Disc::Remote::Discovery named(const std::string& subject, const char* host = "peer")
    {
        Disc::Remote::Discovery record;
        record.queryType = Disc::DQ_UNDEFINED;
        record.subject = subject.c_str();
        record.authority = "a";
        record.authType = Disc::AT_EXTSRC;
        record.attributes = {Disc::CT_CONFIGURATION, Disc::CS_LOCALONLY, 0, 0, 0};
        record.sourceHost = host;
        record.sourceServiceName = "DiscoveryService";
        return record;
    }
    static Tlx::AutoDereference<Disc::Discovery> found(const std::string& subject,
                                                       const char* host = "peer")
    {
        return Tlx::AutoDereference<Disc::Discovery>(
            Disc::getRemoteDiscoveryDatabase()->newDiscovery(named(subject, host)));
    }
    static Tlx::AutoDereference<Disc::Discovery> made(const std::string& subject)
    {
        Tlx::AutoDereference<Disc::Discovery> record;
        Disc::getDiscoveryRepository()->newDiscovery(
            record, Disc::DQ_DISCOVERY_DATA, Disc::Subject(subject),
            Disc::Authority("a", Disc::AT_QMKCLIENT),
            Disc::CollectionAttributes(Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                                       Tlx::TlxObjTime(1000, 5), Tlx::TlxObjTime(60, 0), 7));
        return record;
    }
    static std::string read(const Disc::Discovery& record, std::size_t step = 4096)
    {
        std::string text;
        std::vector<char> buffer(step);
        while (const std::size_t count =
                   record.getCollectionData()->readCollection(step, buffer.data()))
            text.append(buffer.data(), count);
        return text;
    }
    /// The requests that the peer got since the last call.
    std::string asked()
    {
        const auto log = found("log");
        EXPECT_TRUE(log->getCollectionData()->open(Disc::OM_READ, ""));
        const std::string all = read(*log);
        const std::string fresh = all.substr(std::min(seen, all.size()));
        seen = all.size() + std::string("release;").size();
        return fresh;
    }
    Tlx::AutoDereference<Disc::DiscoveryIterator> query(const std::string& subject) const
    {
        return Tlx::AutoDereference<Disc::DiscoveryIterator>(
            Disc::getDiscoveryRepository()->queryDiscoveries(Disc::DQ_DISCOVERY_DATA, subject, "a*",
                                                             Disc::AT_EXTSRC));
    }
    static std::size_t count(Disc::DiscoveryIterator& iterator)
    {
        std::size_t records = 0;
        while (Disc::Discovery* next = iterator.getNext()) {
            ++records;
            next->dereferenceObject();
        }
        return records;
    }
    static unsigned long long writersLeft()
    {
        for (const Disc::CounterValue& counter : Disc::serviceCounters())
            if (std::string(counter.name) == "writersLeft")
                return counter.value;
        return 0;
    }

    FakePeer peer; // forked before anything else
    Service service;
    std::size_t seen = 0;
};

} // namespace QmTest
