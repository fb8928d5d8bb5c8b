// The servant of the service.

#include "DiscoveryService_i.h"

#include <tlx/OrbService.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AccessRules.h"
#include "NameBounds.h"
#include "RemoteWriter_i.h"
#include "ServiceFixture.h"
#include "ServiceKeys.h"
#include "support/Capture.h"
#include "support/Descriptors.h"
#include "support/Eventually.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {
namespace {

using QmTest::AssertionCapture;
using QmTest::descriptorOf;
using QmTest::eventually;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::Service;

Remote::Discovery named(const char* subject, const char* authority,
                        DiscoveryQuery query = DQ_DISCOVERY_DATA)
{
    Remote::Discovery discovery;
    discovery.queryType = query;
    discovery.subject = CORBA::string_dup(subject);
    discovery.authority = CORBA::string_dup(authority);
    discovery.authType = AT_QMKCLIENT;
    discovery.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 1, 0, 0};
    discovery.sourceHost = CORBA::string_dup("");
    discovery.sourceServiceName = CORBA::string_dup("");
    return discovery;
}

/// No framework is set here, so a call that needs it fails an assertion.
TEST(DiscoveryServiceAloneTest, AWildcardIsALogicErrorWithoutAQuery)
{
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const AssertionCapture assertions;
    const LogCapture log;
    CollectionDataIterator_var iterator;
    EXPECT_EQ(servant->getCollectionData(named("*", "srv1"), "", iterator.out()), DS_LOGIC_ERROR);
    EXPECT_TRUE(CORBA::is_nil(iterator));
    EXPECT_EQ(servant->getCollectionData(named("cl1", "s*1"), "", iterator.out()), DS_LOGIC_ERROR);
    EXPECT_EQ(assertions.texts(), Lines{});
    EXPECT_EQ(log.texts(1), Lines{});
}

TEST(DiscoveryServiceAloneTest, TerminateWithoutAServiceHost)
{
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const LogCapture log;
    EXPECT_FALSE(servant->terminate());
    EXPECT_EQ(log.texts(1), Lines{"Unable to retrieve the OrbService instance"});
    EXPECT_EQ(log.lines()[0].operation, "DiscoveryService_i::terminate");
    EXPECT_EQ(log.lines()[0].source, "DiscoveryService_i");
    EXPECT_EQ(log.lines()[0].originator, 400u);
}

TEST(DiscoveryServiceAloneTest, TerminateAsksTheHostAndAnswersTrue)
{
    class Host : public OrbService
    {
      public:
        Host() : OrbService("S", 1, nullptr, false, "S", true, 16, nullptr) {}
        int doRun() override { return 0; }
    } host;
    static int stops = 0;
    host.setStopHandler([] { ++stops; });
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    EXPECT_TRUE(servant->terminate());
    EXPECT_EQ(stops, 1);
}

TEST(DiscoveryServiceAloneTest, AnExplorerWithoutANameIsRefused)
{
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const AssertionCapture assertions;
    const LogCapture log;
    servant->registerExplorer("DiscoveryService", "client1", "", "srv1", AT_QMKCLIENT, 3);
    servant->registerExplorer("DiscoveryService", "client1", "cl1", "", AT_QMKCLIENT, 3);
    EXPECT_EQ(log.texts(1), (Lines{"An explorer needs a subject and an authority, got subject \"\" "
                                   "and authority \"srv1\" from host \"client1\"",
                                   "An explorer needs a subject and an authority, got subject "
                                   "\"cl1\" and authority \"\" from host \"client1\""}));
    EXPECT_EQ(log.texts(4), Lines{});
    EXPECT_EQ(assertions.texts(), Lines{});
}

TEST(DiscoveryServiceAloneTest, ARecordWithoutANameIsRefused)
{
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const AssertionCapture assertions;
    const LogCapture log;
    RemoteWriter_var writer;
    EXPECT_EQ(servant->putCollection(named("", "srv1"), writer.out()).discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(servant->putCollection(named("cl5", ""), writer.out()).discStatus, DS_OPEN_FAILED);
    EXPECT_TRUE(CORBA::is_nil(writer));
    EXPECT_EQ(log.texts(1), (Lines{"A record needs a subject and an authority, got subject \"\" "
                                   "and authority \"srv1\"",
                                   "A record needs a subject and an authority, got subject "
                                   "\"cl5\" and authority \"\""}));
    EXPECT_EQ(log.lines()[0].operation, "RemoteWriter_i::open");
    EXPECT_EQ(assertions.texts(), Lines{});
}

const std::string TOO_LONG(MAX_NAME_BYTES + 1, 'x');
const std::string TOO_LONG_LINE = "A name may have 1024 bytes, the subject \"" +
                                  std::string(SHOWN_NAME_BYTES, 'x') + "...\" has 1025";

/// No framework is set here. So an operation that passes such a name on fails an assertion.
TEST(DiscoveryServiceAloneTest, ANameThatIsTooLongGoesNoFurther)
{
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const AssertionCapture assertions;
    const LogCapture log;
    CollectionDataIterator_var iterator;
    EXPECT_EQ(servant->getCollectionData(named(TOO_LONG.c_str(), "a"), "", iterator.out()),
              DS_NONE_FOUND);
    EXPECT_TRUE(CORBA::is_nil(iterator));
    RemoteWriter_var writer;
    EXPECT_EQ(servant->putCollection(named(TOO_LONG.c_str(), "a"), writer.out()).discStatus,
              DS_OPEN_FAILED);
    EXPECT_TRUE(CORBA::is_nil(writer));
    servant->registerExplorer("DiscoveryService", "client1", TOO_LONG.c_str(), "a", AT_QMKCLIENT,
                              3);
    EXPECT_EQ(log.texts(1), (Lines{TOO_LONG_LINE, TOO_LONG_LINE, TOO_LONG_LINE}));
    EXPECT_EQ(assertions.texts(), Lines{});
}

/// Refuses with these rules until it is destroyed.
struct Rules
{
    explicit Rules(const std::string& text)
    {
        HostConfig::instance().declare(SERVICE_KEYS);
        HostConfig::instance().readText(text, "qm.conf");
        AccessRules::instance().refresh(std::chrono::seconds(5));
    }
};

TEST(DiscoveryServiceAloneTest, AHostThatMayWriteItsOwnWritesNothingElse)
{
    const Rules rules("CLIENT_NAME = here\nALLOW.write = own\nALLOW.register = own\n");
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const RequestPeerMark mark({"198.51.100.7", "web1"});
    RemoteWriter_var writer;
    const LogCapture log;
    EXPECT_THROW(servant->putCollection(named("web1", "web2"), writer.out()), CORBA::NO_PERMISSION);
    EXPECT_THROW(
        servant->registerExplorer("DiscoveryService", "web2", "web1", "web1", AT_EXTSRC, 1),
        CORBA::NO_PERMISSION);
    EXPECT_THROW(
        servant->registerExplorer("DiscoveryService", "web1", "web1", "web2", AT_EXTSRC, 1),
        CORBA::NO_PERMISSION);
    Remote::Discovery registration = named("web1", "web1");
    registration.authType = AT_REMOTEPULL;
    EXPECT_THROW(servant->putCollection(registration, writer.out()), CORBA::NO_PERMISSION)
        << "its payload may name any host";
    EXPECT_EQ(
        log.texts(1),
        (Lines{"Refused: web1 (198.51.100.7) may not putCollection as \"web2\" (ALLOW.write = "
               "own)",
               "Refused: web1 (198.51.100.7) may not registerExplorer as \"web2\" "
               "(ALLOW.register = own)",
               "Refused: web1 (198.51.100.7) may not registerExplorer as \"web2\" "
               "(ALLOW.register = own)",
               "Refused: web1 (198.51.100.7) may not putCollection of a registration "
               "(ALLOW.register = own)"}));
    servant->registerExplorer("DiscoveryService", "web1", "any/subject", "WEB1", AT_EXTSRC, 1);
    EXPECT_EQ(log.texts(4), Lines{"Registered explorer: any/subject WEB1 1"});
}

TEST(DiscoveryServiceAloneTest, ANegativePriorityIsAVeryLargeOne)
{
    const Rules rules("MAX_REMOTE_PRIORITY = 5\n");
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const RequestPeerMark mark({"198.51.100.7", ""});
    Remote::Discovery record = named("cl1", "srv1");
    RemoteWriter_var writer;
    for (const CORBA::Long priority : {6, -1}) {
        record.attributes.priority = priority;
        EXPECT_THROW(servant->putCollection(record, writer.out()), CORBA::NO_PERMISSION);
        EXPECT_THROW(servant->registerExplorer("DiscoveryService", "c", "s", "a", AT_EXTSRC,
                                               static_cast<CORBA::Short>(priority)),
                     CORBA::NO_PERMISSION);
    }
    const LogCapture log;
    servant->registerExplorer("DiscoveryService", "c", "s", "a", AT_EXTSRC, 5);
    EXPECT_EQ(log.texts(4), Lines{"Registered explorer: s a 5"});
}

TEST(DiscoveryServiceAloneTest, ARegistrationIsLoggedOnlyWhenTheLevelIsAboveThree)
{
    PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const LogCapture log(4);
    servant->registerExplorer("DiscoveryService", "client1", "cl1", "srv1", AT_QMKCLIENT, -3);
    EXPECT_EQ(log.texts(4), Lines{"Registered explorer: cl1 srv1 -3"});
    LoggerFactory::instance().setLevel(3);
    servant->registerExplorer("DiscoveryService", "client1", "cl1", "srv1", AT_QMKCLIENT, -3);
    EXPECT_EQ(log.texts(4).size(), 1u);
}

struct DiscoveryServiceTest : testing::Test
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }

    DiscoveryStatus get(const Remote::Discovery& discovery)
    {
        iterator = CollectionDataIterator::_nil();
        return servant->getCollectionData(discovery, "", iterator.out());
    }
    std::string read()
    {
        iterator->pageSize(1000);
        const CollectionDataSeq_var page = iterator->getNextPage();
        return {reinterpret_cast<const char*>(page->get_buffer()), page->length()};
    }

    Service service;
    PortableServer::Servant_var<DiscoveryService_i> servant{new DiscoveryService_i};
    CollectionDataIterator_var iterator;
};

TEST_F(DiscoveryServiceTest, QueriesTakeTheAuthorityBeforeTheSubject)
{
    Service::put("cl1", "srv1");
    Service::put("srv1", "cl1");
    const DiscoveryIterator_var found =
        servant->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "srv1", "cl1");
    DiscoverySeq_var page = found->getNextPage();
    ASSERT_EQ(page->length(), 1u);
    EXPECT_STREQ(page[0].subject, "cl1");
    EXPECT_STREQ(page[0].authority, "srv1");
    EXPECT_EQ(service.orb->getEvictor().watched(), 1u);
    found->release();
    EXPECT_EQ(service.orb->getEvictor().watched(), 0u);
}

TEST_F(DiscoveryServiceTest, AQueryForANameThatIsTooLongMatchesNothing)
{
    Service::put("cl1", "srv1");
    const AssertionCapture assertions;
    const LogCapture log;
    for (const auto& [authority, subject] :
         {std::pair{std::string("*"), TOO_LONG}, std::pair{TOO_LONG, std::string("*")},
          std::pair{std::string("*"), "*" + TOO_LONG}}) {
        const DiscoveryIterator_var found = servant->queryDiscoveries(
            DQ_DISCOVERY_DATA, AT_ANYANDALL, authority.c_str(), subject.c_str());
        DiscoverySeq_var page = found->getNextPage();
        EXPECT_EQ(page->length(), 0u);
        page = found->getNextPage();
        EXPECT_EQ(page->length(), 0u);
        found->release();
    }
    EXPECT_EQ(log.texts(1).size(), 3u);
    EXPECT_EQ(log.texts(1)[0], TOO_LONG_LINE);
    EXPECT_EQ(assertions.texts(), Lines{});
}

TEST_F(DiscoveryServiceTest, APayloadIsReadThroughAnIteratorOfItsOwn)
{
    Service::put("cl1", "srv1", "the payload");
    EXPECT_EQ(get(named("cl1", "srv1")), DS_SUCCESS);
    EXPECT_EQ(read(), "the payload");
    EXPECT_EQ(service.orb->getEvictor().watched(), 1u);
    iterator->release();
    EXPECT_EQ(service.orb->getEvictor().watched(), 0u);
    EXPECT_THROW(iterator->getNextPage(), CORBA::SystemException);
}

TEST_F(DiscoveryServiceTest, ARecordFromAPageIsReadWithoutAQueryType)
{
    Service::put("cl1", "srv1", "the payload");
    EXPECT_EQ(get(named("cl1", "srv1", DQ_UNDEFINED)), DS_SUCCESS);
    EXPECT_EQ(read(), "the payload");
}

TEST_F(DiscoveryServiceTest, NoMatchIsNoneFound)
{
    const LogCapture log;
    EXPECT_EQ(get(named("cl1", "srv1")), DS_NONE_FOUND);
    EXPECT_TRUE(CORBA::is_nil(iterator));
    EXPECT_EQ(log.texts(1), Lines{"Fount no discoveries for subject cl1 & authority srv1"});
    EXPECT_THAT(log.severities(log.texts(1)[0]), testing::ElementsAre(LogSeverity::Notice));
    EXPECT_EQ(log.lines()[0].operation, "DiscoveryService_i::getCollectionData");
}

TEST_F(DiscoveryServiceTest, TwoMatchesAreALogicErrorAndNeitherIsPicked)
{
    Service::put("cl1", "srv1");
    Service::put("cl2", "srv1");
    const LogCapture log;
    EXPECT_EQ(get(named("cl?", "srv1")), DS_LOGIC_ERROR);
    EXPECT_TRUE(CORBA::is_nil(iterator));
    EXPECT_EQ(log.texts(1),
              Lines{"Fount too many matching discoveries for subject cl? & authority srv1"});
    EXPECT_EQ(service.orb->getEvictor().watched(), 0u);
}

TEST_F(DiscoveryServiceTest, ARecordWithoutPayloadCannotBeOpened)
{
    Service::put("cl1", "srv1");
    std::filesystem::remove(service.store() / "2 srv1 cl1.dat");
    const LogCapture log;
    EXPECT_EQ(get(named("cl1", "srv1")), DS_OPEN_FAILED);
    EXPECT_TRUE(CORBA::is_nil(iterator));
    EXPECT_EQ(log.texts(1), (Lines{"Last error2", "Failed to open collection",
                                   "Error encountered trying to open collection iterator"}));
}

TEST_F(DiscoveryServiceTest, AnEvictorThatRefusesFailsTheQuery)
{
    service.orb->getEvictor().shutdown();
    const LogCapture log;
    EXPECT_THROW(servant->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*"),
                 CORBA::BAD_INV_ORDER);
    EXPECT_EQ(log.texts(1),
              (Lines{"Caught CORBA exception while add2Evictor, BAD_INV_ORDER (minor 0x00000000, "
                     "COMPLETED_NO)",
                     "Caught CORBA exception creating object reference to discovery iterator",
                     "BAD_INV_ORDER (minor 0x00000000, COMPLETED_NO)"}));
}

TEST_F(DiscoveryServiceTest, AnEvictorThatRefusesFailsTheReadWithAStatus)
{
    Service::put("cl1", "srv1");
    service.orb->getEvictor().shutdown();
    const LogCapture log;
    EXPECT_EQ(get(named("cl1", "srv1")), DS_COM_ERROR);
    EXPECT_TRUE(CORBA::is_nil(iterator));
    EXPECT_TRUE(eventually([&] { return descriptorOf(service.store() / "2 srv1 cl1.dat") == -1; }))
        << "an active iterator keeps the payload open";
    EXPECT_EQ(log.texts(1),
              (Lines{"Caught CORBA exception while add2Evictor, BAD_INV_ORDER (minor 0x00000000, "
                     "COMPLETED_NO)",
                     "Caught CORBA exception creating object reference to collection data iterator",
                     "BAD_INV_ORDER (minor 0x00000000, COMPLETED_NO)"}));
}

TEST_F(DiscoveryServiceTest, AWriterThatCannotBeActivatedIsACommunicationError)
{
    getDiscoveryRepository()->getPOA()->destroy(false, true);
    const LogCapture log;
    RemoteWriter_var writer;
    const DiscoveryResult result = servant->putCollection(named("cl1", "srv1"), writer.out());
    EXPECT_EQ(result.discStatus, DS_COM_ERROR);
    EXPECT_EQ(result.retryInterval, 0u);
    EXPECT_TRUE(CORBA::is_nil(writer));
    const Lines lines = log.texts(1);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "Caught CORBA exception creating object reference to remote writer");
    EXPECT_EQ(lines[1].substr(0, 17), "OBJECT_NOT_EXIST ");
    // The writer deletes the payload that it has begun.
    EXPECT_EQ(lines[2], "Deleted file: " + (service.store() / "0.updating").string());
}

TEST_F(DiscoveryServiceTest, AWriterIsHandedOutAndNotWatchedByTheEvictor)
{
    RemoteWriter_var writer;
    const DiscoveryResult result = servant->putCollection(named("cl1", "srv1"), writer.out());
    EXPECT_EQ(result.discStatus, DS_SUCCESS);
    ASSERT_FALSE(CORBA::is_nil(writer));
    EXPECT_EQ(service.orb->getEvictor().watched(), 0u);
    EXPECT_EQ(writer->close().discStatus, DS_SUCCESS);
    EXPECT_EQ(get(named("cl1", "srv1")), DS_SUCCESS);
    EXPECT_EQ(read(), "");
}

TEST_F(DiscoveryServiceTest, AWriterThatCannotOpenIsNotHandedOut)
{
    Remote::Discovery higher = named("cl1", "srv1");
    higher.attributes.priority = 5;
    RemoteWriter_var writer;
    EXPECT_EQ(servant->putCollection(higher, writer.out()).discStatus, DS_SUCCESS);
    EXPECT_EQ(writer->close().discStatus, DS_SUCCESS);
    const DiscoveryResult result = servant->putCollection(named("cl1", "srv1"), writer.out());
    EXPECT_EQ(result.discStatus, DS_DATA_EXISTS);
    EXPECT_TRUE(CORBA::is_nil(writer));
}

TEST_F(DiscoveryServiceTest, ADerivedServantMaySupplyAnotherWriter)
{
    class Refusing : public RemoteWriter_i
    {
      public:
        using RemoteWriter_i::RemoteWriter_i;
        DiscoveryResult open() override { return {DS_LOGIC_ERROR, 7}; }
    };
    class Derived : public DiscoveryService_i
    {
      public:
        RemoteWriter_i* newRemoteWriter(const Remote::Discovery& discovery) const override
        {
            return new Refusing(discovery);
        }
    };
    PortableServer::Servant_var<Derived> derived(new Derived);
    RemoteWriter_var writer;
    const DiscoveryResult result = derived->putCollection(named("cl1", "srv1"), writer.out());
    EXPECT_EQ(result.discStatus, DS_LOGIC_ERROR);
    EXPECT_EQ(result.retryInterval, 7u);
}

TEST_F(DiscoveryServiceTest, RestartingALocalPushTimerThatIsNotThereDoesNothing)
{
    const AssertionCapture assertions;
    servant->restartLocalPushTimer();
    EXPECT_EQ(assertions.texts(), Lines{});
}

struct DiscoveryServiceOnAClientTest : testing::Test
{
    Service service{""};
    PortableServer::Servant_var<DiscoveryService_i> servant{new DiscoveryService_i};
};

TEST_F(DiscoveryServiceOnAClientTest, RestartAllPushTimersIsFalseOffTheMaster)
{
    EXPECT_FALSE(servant->restartAllPushTimers());
}

TEST_F(DiscoveryServiceOnAClientTest, AReadFindsNoPullExplorer)
{
    const LogCapture log;
    CollectionDataIterator_var iterator;
    EXPECT_EQ(servant->getCollectionData(named("cl1", "srv1"), "", iterator.out()), DS_NONE_FOUND);
    EXPECT_EQ(log.texts(1), Lines{"Null iterator returned. Fount no discoveries for subject cl1 & "
                                  "authority srv1"});
    EXPECT_THAT(log.severities(log.texts(1)[0]), testing::ElementsAre(LogSeverity::Warning));
}

TEST_F(DiscoveryServiceOnAClientTest, AQueryWithoutAMasterIsAnIteratorOverNothing)
{
    const AssertionCapture assertions;
    const LogCapture log;
    const DiscoveryIterator_var found =
        servant->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*");
    EXPECT_EQ(log.texts(1),
              (Lines{"Unable to obtain master server name",
                     "Cannot find master server name, abort connecting to master discovery service",
                     "Failed to create discovery iterator"}));
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
    ASSERT_FALSE(CORBA::is_nil(found));
    const DiscoverySeq_var page = found->getNextPage();
    EXPECT_EQ(page->length(), 0u);
    EXPECT_EQ(assertions.texts(), (Lines{"SHOULD_NOT_GET_HERE", "NULL != m_discoveryIterator"}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
