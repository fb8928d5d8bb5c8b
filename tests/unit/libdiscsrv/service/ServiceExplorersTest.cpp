// A service with explorers: what queries and reads find, also after a restart.

#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "DiscoveryService_i.h"
#include "ExplorerFixture.h"
#include "RemoteExplorerPull.h"
#include "ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Calls;
using QmTest::FakePull;
using QmTest::FakePush;
using QmTest::LogCapture;
using QmTest::Service;

Calls subjectsOf(DiscoveryIterator* adopted)
{
    const AutoDereference<DiscoveryIterator> iterator(adopted);
    Calls names;
    while (Discovery* next = iterator ? iterator->getNext() : nullptr) {
        const AutoDereference<Discovery> discovery(next);
        names.push_back(discovery->getSubject()->getSubject().utf8());
    }
    return names;
}

void pullFor(const std::string& subject, const std::string& authority, const ExplorerPull& explorer)
{
    const Subject of(subject);
    const Authority by(authority, AT_EXTSRC);
    getDiscoveryRepository()->registerExplorer(&of, &explorer, 1u, &by, false);
}

struct ServiceExplorersTest : testing::Test
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }
    Calls query(const std::string& subject = "*", AuthorityType type = AT_ANYANDALL) const
    {
        return subjectsOf(
            getDiscoveryRepository()->queryDiscoveries(DQ_DISCOVERY_DATA, subject, "*", type));
    }
    DiscoveryStatus get(const char* subject, const char* authority, std::string& content) const
    {
        Remote::Discovery of;
        of.queryType = DQ_DISCOVERY_DATA;
        of.subject = subject;
        of.authority = authority;
        of.authType = AT_ANYANDALL;
        of.attributes = {CT_CONFIGURATION, CS_LOCALONLY, 0, 0, 0};
        Remote::CollectionDataIterator_var iterator;
        const DiscoveryStatus status = servant->getCollectionData(of, "", iterator.out());
        if (status == DS_SUCCESS) {
            iterator->pageSize(1000);
            const Remote::CollectionDataSeq_var page = iterator->getNextPage();
            content.assign(reinterpret_cast<const char*>(page->get_buffer()), page->length());
            iterator->release();
        }
        return status;
    }
    std::string stored(const std::string& file) const
    {
        return QmTest::contentOf(service.store() / file);
    }
    void registerRemote(const char* subject, CORBA::Short priority) const
    {
        servant->registerExplorer("Service<1>", "client1", subject, "a", AT_QMKCLIENT, priority);
    }

    Service service;
    PortableServer::Servant_var<Remote::DiscoveryService_i> servant{new Remote::DiscoveryService_i};
    const AutoDereference<FakePull> pull{new FakePull("pulled")};
};

TEST_F(ServiceExplorersTest, AQueryFindsWhatCanBePulledBeforeWhatIsStored)
{
    Service::put("stored", "a");
    pullFor("zpulled", "a", *pull);
    EXPECT_EQ(query(), (Calls{"zpulled", "stored"}));
    EXPECT_EQ(query("zpulled"), Calls{"zpulled"});
    EXPECT_EQ(query("stored"), Calls{"stored"});
}

TEST_F(ServiceExplorersTest, AQueryForRemotePullsNeverConsultsExplorers)
{
    pullFor("s", "a", *pull);
    EXPECT_EQ(query("*", AT_REMOTEPULL), Calls{});
}

TEST_F(ServiceExplorersTest, AReadAsksTheExplorer)
{
    pullFor("s", "a", *pull);
    std::string content;
    EXPECT_EQ(get("s", "a", content), DS_SUCCESS);
    EXPECT_EQ(content, "pulled");
    EXPECT_EQ(pull->calls, Calls{"1 s of a []"});
    pull->answer = false;
    EXPECT_EQ(get("s", "a", content), DS_OPEN_FAILED);
}

TEST_F(ServiceExplorersTest, OfSeveralPullsOnlyTheLastIsReadByName)
{
    pullFor("a", "x", *pull);
    pullFor("b", "x", *pull);
    std::string content;
    const LogCapture log;
    EXPECT_EQ(get("a", "x", content), DS_LOGIC_ERROR);
    EXPECT_EQ(log.texts(1),
              (Calls{"Fount too many matching discoveries for subject a & authority x",
                     "Of several pull explorers only the one that sorts last can be read by name: "
                     "each that sorts behind a match counts as one, too"}));
    EXPECT_EQ(get("b", "x", content), DS_SUCCESS);
}

TEST_F(ServiceExplorersTest, AnExplorerOfAnotherHostIsStored)
{
    registerRemote("s", -2);
    EXPECT_EQ(stored("4 a s.dat"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<DiscoveredItems>\n"
              "<SourceHost>client1</SourceHost><ServiceName>Service&lt;1&gt;</ServiceName>"
              "<Priority>4294967294</Priority><OriginType>2</OriginType></DiscoveredItems>\n");
    EXPECT_EQ(query("*", AT_REMOTEPULL), Calls{"s"});
    EXPECT_EQ(getDiscoveryRepository()->getExplorerStatus().size(), 1u);
}

TEST_F(ServiceExplorersTest, AnExplorerOfThisHostIsNotStored)
{
    pullFor("s", "a", *pull);
    EXPECT_FALSE(std::filesystem::exists(service.store() / "4 a s.xml"));
}

TEST_F(ServiceExplorersTest, AnExplorerThatCannotBeStoredIsRegisteredEvenSo)
{
    std::filesystem::create_directory(service.store() / "4 a s.xml");
    const LogCapture log;
    registerRemote("s", 5);
    EXPECT_TRUE(log.has(1, "Failed to persist discovery record."));
    EXPECT_EQ(getDiscoveryRepository()->getExplorerStatus().size(), 1u);
}

TEST_F(ServiceExplorersTest, ARestartFindsThemAgain)
{
    registerRemote("s", 5);
    registerRemote("t", 6);
    std::ofstream(service.store() / "4 a s2.dat") << "x";
    {
        // A record that is not an explorer's document is skipped.
        AutoDereference<Discovery> bad;
        getDiscoveryRepository()->newDiscovery(
            bad, DQ_UNDEFINED, Subject("bad"), Authority("a", AT_REMOTEPULL),
            CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, TlxObjTime(), TlxObjTime(),
                                 1));
        ASSERT_TRUE(isSuccess(bad->open(OM_UPDATE, "")));
        ASSERT_TRUE(bad->getCollectionData()->writeCollection(3, "bad"));
        ASSERT_TRUE(isSuccess(bad->persist()));
    }
    // A second repository loads what the first one stored, as after a restart.
    struct Restarted : DiscoveryRepository
    {
        bool isMaster() const override { return true; }
        bool isGenericDS() const override { return true; }
        void startPushTimer() override { pushed = true; }
        bool pushed = false;
    };
    const AutoDereference<Restarted> restarted(new Restarted);
    restarted->setDiscoveryFramework(service.framework.get());
    restarted->loadExplorers();
    EXPECT_TRUE(restarted->pushed);
    Calls found;
    for (const auto& wrapper : restarted->getPullExplorers()) {
        const auto* explorer = dynamic_cast<const RemoteExplorerPull*>(wrapper->getExplorer());
        ASSERT_TRUE(explorer);
        found.push_back(wrapper->getSubject()->getSubject().utf8() + " " +
                        wrapper->getAuthority()->getName().utf8() + " " +
                        std::to_string(wrapper->getAuthority()->getType()) + " " +
                        std::to_string(wrapper->getPriority()) + " " +
                        explorer->getServiceName().utf8() + " " +
                        explorer->getSourceHost().text().utf8() + " " +
                        std::to_string(explorer->getAuthorityType()));
    }
    EXPECT_EQ(found, (Calls{"s a 2 5 Service<1> client1 2", "t a 2 6 Service<1> client1 2"}));
}

TEST_F(ServiceExplorersTest, AnExplorerThatTheStoreRefusesIsNotStored)
{
    const Subject of("s");
    const Authority by("a", AT_EXTSRC);
    const AutoDereference<RemoteExplorerPull> explorer(
        new RemoteExplorerPull("S", "h", "s", "a", AT_EXTSRC));
    const auto store = [&](unsigned priority) {
        getDiscoveryRepository()->persistToDisk(AutoDereference<ExplorerWrapper>(
            new ExplorerWrapper(explorer.get(), priority, &of, &by)));
    };
    store(9);
    const std::string before = stored("4 a s.dat");
    EXPECT_NE(before, "");
    const LogCapture log;
    store(8);
    EXPECT_EQ(log.texts(1),
              (Calls{"Cannot open the db database, data with higher priority already exists.",
                     "Failed to open collection"}));
    EXPECT_EQ(log.lines().back().operation, "DiscoveryRepository::persistToDisk");
    EXPECT_EQ(stored("4 a s.dat"), before);
}

TEST_F(ServiceExplorersTest, OffTheMasterNoExplorerIsStored)
{
    struct Client : DiscoveryRepository
    {
        bool isMaster() const override { return false; }
    };
    const AutoDereference<Client> client(new Client);
    const QmTest::AssertionCapture assertions;
    const Subject of("s");
    const Authority by("a", AT_EXTSRC);
    const AutoDereference<RemoteExplorerPull> explorer(
        new RemoteExplorerPull("S", "h", "s", "a", AT_EXTSRC));
    client->registerExplorer(&of, explorer.get(), 1u, &by, false);
    EXPECT_EQ(assertions.texts(), Calls{});
    client->persistToDisk(
        AutoDereference<ExplorerWrapper>(new ExplorerWrapper(explorer.get(), 1u, &of, &by)));
    EXPECT_EQ(assertions.texts(), Calls{"isGenericDSOnMaster()"});
}

TEST_F(ServiceExplorersTest, ALoadRegistrationsAndAStopAtTheSameMoment)
{
    setAceReactor(service.orb->getReactor());
    std::vector<std::thread> threads;
    threads.emplace_back([] { getDiscoveryRepository()->loadExplorers(); });
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this, i] {
            for (int j = 0; j < 25; ++j)
                registerRemote(("s" + std::to_string(i * 100 + j)).c_str(), 1);
        });
    threads.emplace_back([this] {
        for (int j = 0; j < 20; ++j)
            query();
    });
    service.stop();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(getDiscoveryRepository()->getExplorerStatus().size(), 0u);
}

/// A host that is not the master.
TEST(ClientExplorersTest, AReadOnAClientAsksItsOwnExplorersOnly)
{
    Service service{"SERVER = 192.0.2.1\nENDPOINT.192.0.2.1 = 127.0.0.1:1\n"};
    const AutoDereference<FakePull> pull(new FakePull("pulled"));
    pullFor("s", "a", *pull);
    PortableServer::Servant_var<Remote::DiscoveryService_i> servant(new Remote::DiscoveryService_i);
    Remote::Discovery of;
    of.queryType = DQ_UNDEFINED; // as in a page
    of.subject = "s";
    of.authority = "a";
    of.authType = AT_ANYANDALL;
    of.attributes = {CT_CONFIGURATION, CS_LOCALONLY, 0, 0, 0};
    Remote::CollectionDataIterator_var iterator;
    EXPECT_EQ(servant->getCollectionData(of, "f", iterator.out()), DS_SUCCESS);
    EXPECT_EQ(pull->calls, Calls{"1 s of a [f]"});
    iterator->release();
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
