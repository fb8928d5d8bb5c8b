// Records on another host that gives right and wrong answers.

#include "RemoteDB.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include <gmock/gmock.h>

#include "PulledBytes.h"
#include "RemoteFixture.h"
#include "ServiceCounters.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::FakePeer;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::NO_MEMORY;
using testing::Contains;
using testing::Not;
using testing::StartsWith;

using RemoteDBTest = QmTest::RemoteFixture;

TEST_F(RemoteDBTest, ARecordIsWrittenInChunksOf1024)
{
    const auto record = made("cl5");
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    const std::string data(2500, 'x');
    EXPECT_TRUE(record->getCollectionData()->writeCollection(0, nullptr));
    EXPECT_TRUE(record->getCollectionData()->writeCollection(data.size(), data.data()));
    EXPECT_EQ(record->persist().discStatus, DS_SUCCESS);
    EXPECT_EQ(asked(), "putCollection cl5 of a 2 query 1 21 7 60 1000 from here DiscoveryService;"
                       "put 1024;put 1024;put 452;close;");
    const AssertionCapture assertions;
    EXPECT_EQ(record->persist().discStatus, DS_LOGIC_ERROR);
    EXPECT_EQ(assertions.texts(), Lines{"NULL != cd->m_writer"});
    EXPECT_EQ(writersLeft(), 0u);
}

TEST_F(RemoteDBTest, AWriteThatIsRefusedFails)
{
    const LogCapture log;
    EXPECT_EQ(made("refuse")->open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), Lines{"Failed to open the collection data: 5"});
    EXPECT_EQ(log.lines().back().operation, "RemotecollectionData::openWrite");
}

TEST_F(RemoteDBTest, AWriteThatBreaksOffFails)
{
    LogCapture log;
    EXPECT_EQ(made("throw")->open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(
        log.texts(1),
        Lines{std::string("Caught CORBA Exception while saving collection data: ") + NO_MEMORY});

    const auto bad = made("bad-put");
    bad->open(OM_UPDATE, "");
    log.clear();
    const std::string data(3000, 'x');
    EXPECT_FALSE(bad->getCollectionData()->writeCollection(data.size(), data.data()));
    EXPECT_EQ(log.texts(1), Lines{"Failed to write buffer"});
    log.clear();
    EXPECT_EQ(bad->persist().discStatus, DS_COM_ERROR);
    EXPECT_EQ(log.texts(1), Lines{"A collection that lost bytes on its way is not persisted"});
    EXPECT_EQ(writersLeft(), 1u);

    const auto torn = made("throw-put");
    torn->open(OM_UPDATE, "");
    log.clear();
    EXPECT_FALSE(torn->getCollectionData()->writeCollection(1, "x"));
    EXPECT_EQ(log.texts(1),
              Lines{std::string("Caught CORBA Exception during remote write: ") + NO_MEMORY});

    const auto last = made("throw-close");
    last->open(OM_UPDATE, "");
    log.clear();
    EXPECT_EQ(last->persist().discStatus, DS_COM_ERROR);
    EXPECT_EQ(
        log.texts(1),
        Lines{std::string("Caught CORBA Exception while persisting discoveries: ") + NO_MEMORY});
}

TEST_F(RemoteDBTest, AWriteWithoutAnOpenWriterIsReported)
{
    const auto record = made("cl5");
    const AssertionCapture assertions;
    EXPECT_FALSE(record->getCollectionData()->writeCollection(1, "x"));
    EXPECT_EQ(record->persist().discStatus, DS_LOGIC_ERROR);
    EXPECT_EQ(assertions.texts(), (Lines{"NULL != m_writer", "NULL != cd->m_writer"}));
}

TEST_F(RemoteDBTest, ARecordWithoutASubjectOrAnAuthorityIsNotWritten)
{
    const AutoDereference<Discovery> record(
        getRemoteDiscoveryDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
    {
        const AssertionCapture assertions;
        EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
        EXPECT_EQ(assertions.texts(), (Lines{"NULL != m_subject", "NULL != m_authority"}));
    }
    record->setSubject(new Subject("cl5"));
    const AssertionCapture assertions;
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(assertions.texts(), Lines{"NULL != m_authority"});
    EXPECT_EQ(found("none")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(asked(), "get none [];") << "and nothing before";
}

TEST_F(RemoteDBTest, ARecordWithoutDataCanNeitherBeOpenedNorPersisted)
{
    const AutoDereference<Discovery> record(new RemoteDiscovery(nullptr, DQ_DISCOVERY_DATA));
    const AssertionCapture assertions;
    const DiscoveryResult opened = record->open(OM_READ, "");
    EXPECT_EQ(opened.discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(opened.retryInterval, 0);
    EXPECT_EQ(record->persist().discStatus, DS_LOGIC_ERROR);
    EXPECT_EQ(assertions.texts(), (Lines{"getCollectionData()", "NULL != cd"}));
}

TEST_F(RemoteDBTest, AnUnknownOpenModeIsReported)
{
    const auto record = found("bytes-10");
    const AssertionCapture assertions;
    EXPECT_FALSE(record->getCollectionData()->open(static_cast<OpenMode>(77), ""));
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
    EXPECT_EQ(found("none")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(asked(), "get none [];") << "and nothing before";
}

TEST_F(RemoteDBTest, AMasterThatIsDownFailsTheWrite)
{
    peer.kill();
    const LogCapture log;
    const auto record = made("cl5");
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), (Lines{"Failed to connect to remote discovery service",
                                   "Failed to connect to discovery service"}));
    EXPECT_EQ(record->getCollectionData()->getOpenFailure(),
              "Failed to connect to discovery service");
}

TEST_F(RemoteDBTest, ACollectionIsReadWhole)
{
    const auto record = found("bytes-3000");
    EXPECT_EQ(record->open(OM_READ, "f").discStatus, DS_SUCCESS);
    std::vector<char> buffer(4096);
    EXPECT_EQ(record->getCollectionData()->readCollection(4096, buffer.data()), 3000u);
    EXPECT_EQ(record->getCollectionData()->readCollection(4096, buffer.data()), 0u);
    EXPECT_EQ(asked(), "get bytes-3000 [f];release;") << "no page size is set";
    EXPECT_EQ(record->getCollectionData()->getOpenFailure(), "");
    // A second open starts again at the beginning.
    EXPECT_EQ(record->open(OM_READ, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(read(*record, 7).size(), 3000u);
}

TEST_F(RemoteDBTest, APageThatStillDoesNotFitEndsTheRead)
{
    EXPECT_EQ(found("page-2048")->open(OM_READ, "").discStatus, DS_SUCCESS);
    const LogCapture log;
    EXPECT_EQ(found("page-2049")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1),
              Lines{"A page of 2049 bytes does not fit in a cache of 2048 with 0 in use"});
}

TEST_F(RemoteDBTest, TheCacheGrowsFrom1024To2048To4096)
{
    // A page that is too large even for the doubled cache shows the size of the cache.
    LogCapture log;
    const auto fits = [&log](std::size_t head, std::size_t size) {
        const std::string names = "tail-" + std::to_string(head) + "-";
        const std::size_t page = 2 * size - head;
        EXPECT_EQ(found(names + std::to_string(page))->open(OM_READ, "").discStatus, DS_SUCCESS);
        log.clear();
        EXPECT_EQ(found(names + std::to_string(page + 1))->open(OM_READ, "").discStatus,
                  DS_OPEN_FAILED);
        EXPECT_EQ(log.texts(1),
                  Lines{"A page of " + std::to_string(page + 1) +
                        " bytes does not fit in a cache of " + std::to_string(2 * size) + " with " +
                        std::to_string(head) + " in use"});
    };
    fits(1024, 1024);
    fits(1032, 2048);
    fits(2048, 2048);
    fits(2056, 4096);
    fits(3000, 4096);
}

TEST_F(RemoteDBTest, AReadThatYieldsNothingFails)
{
    LogCapture log;
    const auto failure = [&log](const std::string& subject) {
        log.clear();
        const auto record = found(subject);
        EXPECT_EQ(record->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
        EXPECT_EQ(Lines{record->getCollectionData()->getOpenFailure()}, log.texts(1));
        return log.texts(1);
    };
    EXPECT_EQ(failure("bytes-0"), Lines{"Collection data returned has no data"});
    EXPECT_EQ(failure("none"), Lines{"Failed to get collection data: 1"});
    EXPECT_EQ(failure("nil"), Lines{"The service answered with success and no iterator"});
    EXPECT_EQ(
        failure("throw"),
        Lines{std::string("Caught CORBA Exception while reading collection data: ") + NO_MEMORY});
    EXPECT_EQ(
        failure("throw-page"),
        Lines{std::string("Caught CORBA Exception while reading collection data: ") + NO_MEMORY});
    const AssertionCapture assertions;
    char byte;
    EXPECT_EQ(found("none")->getCollectionData()->readCollection(1, &byte), 0u);
    EXPECT_EQ(made("x")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(assertions.texts(), (Lines{"m_cached", "0 != m_discovery.ptr()"}));
}

TEST_F(RemoteDBTest, ACollectionHasABound)
{
    HostConfig::instance().readText("SERVER = peer\nENDPOINT.peer = " + peer.endpoint +
                                        "\nREMOTE_MAX_BYTES = 1024\n",
                                    "qm.conf");
    EXPECT_EQ(found("bytes-1024")->open(OM_READ, "").discStatus, DS_SUCCESS);
    const LogCapture log;
    EXPECT_EQ(found("bytes-1025")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), Lines{"A collection of another host may have 1024 bytes "
                                  "(REMOTE_MAX_BYTES), this one has more"});
}

TEST_F(RemoteDBTest, AQueryIsForwardedAndItsListFetched)
{
    const auto iterator = query("records-20");
    ASSERT_TRUE(iterator);
    EXPECT_EQ(asked(), "query 1 3 a* records-20;page;page;page;page;release;");
    AutoDereference<Discovery> first(iterator->getNext());
    ASSERT_TRUE(first);
    EXPECT_EQ(first->getSubject()->getSubject(), TlxString("s0"));
    EXPECT_EQ(first->getAuthority()->getName(), TlxString("a"));
    EXPECT_EQ(first->getAuthority()->getType(), AT_EXTSRC);
    EXPECT_EQ(first->getAttributes(), nullptr);
    EXPECT_EQ(first->getQuery(), DQ_UNDEFINED);
    EXPECT_EQ(count(*iterator), 19u);
    EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST_F(RemoteDBTest, AListIsWholeOrAFailure)
{
    HostConfig::instance().readText("SERVER = peer\nENDPOINT.peer = " + peer.endpoint +
                                        "\nREMOTE_MAX_RECORDS = 50\n",
                                    "qm.conf");
    LogCapture log;
    const auto failure = [&](const std::string& subject) {
        log.clear();
        EXPECT_FALSE(query(subject)) << subject;
        return log.texts(1);
    };
    const std::string text = "Failed to query remote discoveries: ";
    EXPECT_EQ(failure("throw"), Lines{text + NO_MEMORY});
    EXPECT_EQ(failure("throw-page"), Lines{text + NO_MEMORY});
    EXPECT_EQ(failure("nil"), Lines{text + "the service answered without an iterator"});
    EXPECT_EQ(failure("nameless"), Lines{text + "a record came without a subject or an authority"});
    EXPECT_EQ(failure("endless"), Lines{text + "a query may yield 50 records "
                                               "(REMOTE_MAX_RECORDS), this one yields more"});
}

TEST_F(RemoteDBTest, AMasterThatIsGoneGetsNoRelease)
{
    const LogCapture log;
    EXPECT_FALSE(query("vanish"));
    ASSERT_EQ(log.texts(1).size(), 1u);
    EXPECT_THAT(log.texts(1)[0], StartsWith("Failed to query remote discoveries: COMM_FAILURE"));
    EXPECT_THAT(log.texts(4), Not(Contains(StartsWith("An iterator could not be released"))));
}

TEST_F(RemoteDBTest, WithoutAMasterOrWithOneThatIsDownAQueryIsNull)
{
    peer.kill();
    LogCapture log;
    EXPECT_FALSE(query("x"));
    EXPECT_EQ(log.texts(1), (Lines{"Failed to connect to remote discovery service",
                                   "Failed to connect to discovery service"}));
    HostConfig::instance().readText("", "qm.conf");
    log.clear();
    EXPECT_FALSE(query("x"));
    EXPECT_EQ(log.texts(1),
              (Lines{"Unable to obtain master server name", "Cannot find master server name, abort "
                                                            "connecting to master discovery "
                                                            "service"}));
}

TEST_F(RemoteDBTest, AtMost32QueriesAreForwardedAtATime)
{
    constexpr std::size_t MOST = 32;
    peer.freeze();
    const LogCapture log;
    const auto underWay = [&log] {
        const Lines lines = log.texts(4);
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), "Host: peer"));
    };
    std::vector<std::thread> queries;
    std::atomic<int> answered{0};
    for (std::size_t i = 0; i < MOST; ++i)
        queries.emplace_back([&] {
            EXPECT_FALSE(query("x"));
            ++answered;
        });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    while (underWay() < MOST && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_EQ(underWay(), MOST);
    EXPECT_FALSE(query("x"));
    EXPECT_EQ(log.texts(1), Lines{"32 queries are being forwarded already"});
    EXPECT_EQ(answered, 0);
    EXPECT_EQ(underWay(), MOST);
    peer.kill(); // then it answers all of them
    for (std::thread& each : queries)
        each.join();
    EXPECT_FALSE(query("x"));
    EXPECT_EQ(underWay(), MOST + 1) << "the places are free again";
}

TEST_F(RemoteDBTest, AHostNeverAsksItself)
{
    HostConfig::instance().readText(
        "SERVER = other\nENDPOINT.other = " + service.orb->getEndpoint() + "\n", "qm.conf");
    const LogCapture log;
    EXPECT_FALSE(query("x"));
    EXPECT_EQ(log.texts(1)[0], "other leads back to this service: " + service.orb->getEndpoint());
    EXPECT_EQ(log.texts(1)[1], "Failed to connect to remote discovery service");
}

TEST_F(RemoteDBTest, DuringTheShutdownNothingIsFetched)
{
    getDiscoveryRepository()->shutdown();
    const LogCapture log;
    EXPECT_FALSE(query("endless"));
    EXPECT_EQ(log.texts(1),
              Lines{"Failed to query remote discoveries: the service is shutting down"});
    EXPECT_EQ(found("bytes-100")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
}

TEST_F(RemoteDBTest, OnceTheEndIsAnnouncedNothingGoesOn)
{
    const auto record = made("cl5");
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_TRUE(record->getCollectionData()->writeCollection(1, "x"));
    getDiscoveryRepository()->announceShutdown();
    LogCapture log;
    EXPECT_FALSE(record->getCollectionData()->writeCollection(1, "y"));
    EXPECT_EQ(log.texts(1), Lines{"The service is shutting down, the write is given up"});
    EXPECT_EQ(record->persist().discStatus, DS_COM_ERROR);
    log.clear();
    EXPECT_FALSE(query("endless"));
    EXPECT_EQ(log.texts(1),
              Lines{"Failed to query remote discoveries: the service is shutting down"});
    log.clear();
    EXPECT_EQ(found("bytes-100")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), Lines{"The service is shutting down, the read is given up"});
}

TEST_F(RemoteDBTest, AfterALostChunkNothingMoreIsSent)
{
    const auto bad = made("throw-put");
    EXPECT_EQ(bad->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    LogCapture log;
    EXPECT_FALSE(bad->getCollectionData()->writeCollection(1, "x"));
    EXPECT_EQ(log.texts(1).size(), 1u);
    EXPECT_FALSE(bad->getCollectionData()->writeCollection(1, "y"));
    EXPECT_EQ(log.texts(1).size(), 1u);
    const std::string calls = asked();
    EXPECT_EQ(calls.find("put 1;"), calls.rfind("put 1;")) << calls;
    EXPECT_NE(calls.find("put 1;"), std::string::npos);
}

TEST_F(RemoteDBTest, FetchingHasALimitOfTime)
{
    configure("CLIENT_NAME = here\nREMOTE_MAX_SECONDS = 1\n");
    LogCapture log;
    EXPECT_FALSE(query("endless"));
    EXPECT_EQ(log.texts(1),
              Lines{"Failed to query remote discoveries: a list of another host may take 1 seconds "
                    "(REMOTE_MAX_SECONDS), this one takes longer"});
    log.clear();
    EXPECT_EQ(found("bytes-10000000")->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), Lines{"A collection of another host may take 1 seconds "
                                  "(REMOTE_MAX_SECONDS), this one takes longer"});
}

TEST_F(RemoteDBTest, TheNamesOfAListHaveABound)
{
    configure("CLIENT_NAME = here\nREMOTE_MAX_BYTES = 1024\n");
    const LogCapture log;
    EXPECT_TRUE(query("records-30"));
    EXPECT_FALSE(query("records-100"));
    EXPECT_EQ(log.texts(1),
              Lines{"Failed to query remote discoveries: a query may yield 1024 bytes "
                    "(REMOTE_MAX_BYTES), this one yields more"});
}

TEST_F(RemoteDBTest, ListsInMemoryHaveABound)
{
    std::size_t bytes = 0;
    {
        const auto iterator = query("records-20");
        ASSERT_TRUE(iterator);
        bytes = PulledBytes::sum();
        EXPECT_GT(bytes, 20u * 256u);
        EXPECT_EQ(dynamic_cast<const RemoteDiscoveryIterator&>(*iterator).heldBytes(), bytes);
    }
    EXPECT_EQ(PulledBytes::sum(), 0u);
    configure("CLIENT_NAME = here\nMAX_PULLED_BYTES = " + std::to_string(bytes) + "\n");
    EXPECT_TRUE(query("records-20")) << "N bytes";
    configure("CLIENT_NAME = here\nMAX_PULLED_BYTES = " + std::to_string(bytes - 1) + "\n");
    const LogCapture log;
    EXPECT_FALSE(query("records-20")) << "N + 1 bytes";
    EXPECT_EQ(log.texts(1),
              Lines{"Failed to query remote discoveries: all lists and collections in "
                    "memory may have " +
                    std::to_string(bytes - 1) + " bytes (MAX_PULLED_BYTES)"});
    EXPECT_EQ(PulledBytes::sum(), 0u);
}

TEST_F(RemoteDBTest, TheBackendMakesNoIterators)
{
    const AssertionCapture assertions;
    EXPECT_EQ(getRemoteDiscoveryDatabase()->getIterator(DQ_DISCOVERY_DATA), nullptr);
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
}

TEST(RemoteStrangerTest, AnObjectOfAnotherKindIsNoService)
{
    const FakePeer stranger(FakePeer::STRANGER);
    const QmTest::Service service("SERVER = peer\nENDPOINT.peer = " + stranger.endpoint + "\n");
    const LogCapture log;
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryRepository()->queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL));
    EXPECT_FALSE(iterator);
    EXPECT_EQ(log.texts(1),
              (Lines{"Failed to connect to remote discovery service ( narrow failed ) ",
                     "Failed to connect to discovery service"}));
}

TEST(RemoteStrangerTest, AnObjectThatCannotReportItsTypeIsNoService)
{
    const FakePeer nameless(FakePeer::NAMELESS);
    const QmTest::Service service("SERVER = peer\nENDPOINT.peer = " + nameless.endpoint + "\n");
    const LogCapture log;
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryRepository()->queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL));
    EXPECT_FALSE(iterator);
    EXPECT_EQ(log.texts(1), (Lines{"Failed to connect to remote discovery service.", NO_MEMORY,
                                   "Failed to connect to discovery service"}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
