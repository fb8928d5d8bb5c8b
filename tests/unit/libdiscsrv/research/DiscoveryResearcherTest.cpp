// A researcher in a process that is not a service: the parts that it starts, and its end. The
// master is another process.

#include "Researcher.h"

#include <cstdlib>
#include <filesystem>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DiscoveryRepository.h"
#include "FilterParameters.h"
#include "ItemsFixture.h"
#include "ServiceFixture.h"
#include "support/Capture.h"
#include "support/PeerProcess.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::firstItems;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::Service;
using Clients = std::set<TlxString>;

/// The master "here" in a process of its own, with items in its store. Make it before this process
/// uses the ORB, because it forks.
class Master : public QmTest::PeerProcess
{
  public:
    Master()
        : PeerProcess([service = std::make_shared<std::unique_ptr<Service>>()](const std::string&) {
              return serve(*service);
          }),
          m_endpoint(ask("serve"))
    {
        HostConfig::instance().readText(
            "SERVER = here\nCLIENT_NAME = console\nENDPOINT.here = " + m_endpoint + "\n",
            "qm.conf");
    }
    const std::string& endpoint() const { return m_endpoint; }
    ~Master() { EXPECT_EQ(stop(), 0); }

  private:
    /// Makes the service and returns its endpoint.
    static std::string serve(std::unique_ptr<Service>& service)
    {
        service = std::make_unique<Service>();
        Service::put("host1", "host1",
                     "<DiscoveredItems><DISCOVERED Name='/'><ExplorerData Name='FileSystems'>"
                     "<Type>ext4</Type></ExplorerData></DISCOVERED></DiscoveredItems>");
        Service::put("filesystem", "host1",
                     "<FilterData><QueryDescription><Field Name='size' Type='bytes'/>"
                     "</QueryDescription></FilterData>");
        Service::put("broken", "host1", "<DiscoveredItems><DISCOVERED Name='a'/><DISC");
        return service->orb->getEndpoint();
    }

    const std::string m_endpoint;
};

/// The number of this process's listening sockets.
std::size_t listeningSockets()
{
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::atoi(entry.path().filename().c_str());
        int listens = 0;
        socklen_t length = sizeof listens;
        if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 && listens)
            ++count;
    }
    return count;
}

TEST(DiscoveryResearcherTest, IsOneAProcess)
{
    DiscoveryResearcher* const researcher = initDiscoveryResearch();
    ASSERT_NE(researcher, nullptr);
    EXPECT_EQ(initDiscoveryResearch(), researcher);
}

TEST(DiscoveryResearcherTest, GivesTheRepositoryAFrameworkWithoutAServant)
{
    ASSERT_NE(initDiscoveryResearch(), nullptr);
    DiscoveryRepository& repository = *getDiscoveryRepository();
    EXPECT_EQ(repository.getDSName(), TlxString("discovery"));
    EXPECT_EQ(repository.getDSType(), DST_NO_SERVANT);
    EXPECT_EQ(repository.getOrbServiceName(), TlxString("researcher"));
    ASSERT_NE(repository.getOrb(), nullptr);
    EXPECT_TRUE(repository.getOrb()->isEvictorEnabled());
    EXPECT_EQ(repository.getOrb()->getEndpoint(), "");
    EXPECT_TRUE(CORBA::is_nil(repository.getPOA()));
}

TEST(DiscoveryResearcherTest, AsksTheMasterAndListensNowhere)
{
    if (!QmTest::mayOpenRecords())
        GTEST_SKIP() << "records are created with permissions 0: needs root";
    const Master master;
    ASSERT_NE(initDiscoveryResearch(), nullptr);
    const LogCapture log(LOG_LEVEL_FAILURE);
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_DISCOVERY_DATA, "host1", "*", AT_ANYANDALL));
    const FilterParameters filter(nullptr, "size > 1");
    const auto items = firstItems(all.get(), &filter);
    ASSERT_TRUE(items);
    EXPECT_TRUE(items->isParsed());
    EXPECT_EQ(items->getAuthority()->getName(), TlxString("host1"));
    const AutoDereference<CollectionItem> item(items->getNextCollectionItem());
    ASSERT_TRUE(item);
    EXPECT_EQ(QmTest::written(*item),
              "<Discovered Name=\"/\"><ExplorerData Name=\"FileSystems\"><Type>ext4</Type>"
              "</ExplorerData></Discovered>");
    EXPECT_EQ(items->getNextCollectionItem(), nullptr);
    EXPECT_EQ(all->getNextCollectionItemIterator(nullptr), nullptr);
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList(), Clients{"host1"});
    EXPECT_EQ(log.texts(1), Lines());
    EXPECT_EQ(listeningSockets(), 0u);
}

TEST(DiscoveryResearcherTest, KeepsTheItemsBeforeABreakOfADocumentOnTheMaster)
{
    if (!QmTest::mayOpenRecords())
        GTEST_SKIP() << "records are created with permissions 0: needs root";
    const Master master;
    ASSERT_NE(initDiscoveryResearch(), nullptr);
    const LogCapture log(LOG_LEVEL_FAILURE);
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_DISCOVERY_DATA, "broken", "*", AT_ANYANDALL));
    const auto items = firstItems(all.get());
    ASSERT_TRUE(items);
    EXPECT_FALSE(items->isParsed());
    const AutoDereference<CollectionItem> item(items->getNextCollectionItem());
    ASSERT_TRUE(item);
    EXPECT_EQ(QmTest::written(*item), "<Discovered Name=\"a\"></Discovered>");
    EXPECT_EQ(items->getNextCollectionItem(), nullptr);
    EXPECT_EQ(log.texts(1).back(), "Failed to parse discovery");
}

TEST(DiscoveryResearcherTest, AsksTheMasterThatTheCallerNames)
{
    if (!QmTest::mayOpenRecords())
        GTEST_SKIP() << "records are created with permissions 0: needs root";
    const Master master;
    // Nothing listens on port 1.
    HostConfig::instance().readText("SERVER = there\nENDPOINT.there = 127.0.0.1:1\n", "qm.conf");
    // The source of the record is "here".
    const auto endpoint = parseEndpoint(master.endpoint());
    ASSERT_TRUE(endpoint);
    ASSERT_TRUE(initDiscoveryResearch({"backup1", *endpoint, {"here"}}));
    EXPECT_FALSE(getDiscoveryRepository()->isMaster());
    const auto all = researchDiscoveries(DQ_DISCOVERY_DATA, "host1", "*", AT_ANYANDALL);
    ASSERT_TRUE(all);
    const auto items = firstItems(all->get());
    ASSERT_TRUE(items);
    EXPECT_TRUE(items->isParsed());
}

TEST(DiscoveryResearcherTest, WithoutAMasterThereIsNoHandle)
{
    // Nothing listens on port 1.
    HostConfig::instance().readText("SERVER = there\nENDPOINT.there = 127.0.0.1:1\n", "qm.conf");
    ASSERT_NE(initDiscoveryResearch(), nullptr);
    const LogCapture log(LOG_LEVEL_FAILURE);
    EXPECT_EQ(getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL), nullptr);
    EXPECT_EQ(log.texts(1).back(), "Failed to get a handle to discoveries");
}

TEST(DiscoveryResearcherTest, WritesNoLogFileAndMakesNoStore)
{
    const QmTest::TemporaryDirectory root;
    HostConfig::instance().setRoot(root.path().string());
    HostConfig::instance().readText("SERVER = there\nENDPOINT.there = 127.0.0.1:1\n", "qm.conf");
    testing::internal::CaptureStderr();
    ASSERT_NE(initDiscoveryResearch(), nullptr);
    EXPECT_EQ(getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL), nullptr);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(told.find("Failed to get a handle to discoveries"), std::string::npos) << told;
    EXPECT_TRUE(std::filesystem::is_empty(root.path()));
}

[[noreturn]] void researchWithoutAnOrbAndExit()
{
    ::alarm(60);
    ::setenv("ORBgiopMaxMsgSize", "none", 1); // the ORB's library fails with this value
    std::exit(initDiscoveryResearch() ? 1 : 17);
}

TEST(DiscoveryResearcherDeathTest, WithoutAnOrbThereIsNoResearcher)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(researchWithoutAnOrbAndExit(), testing::ExitedWithCode(17),
                "Failed to make the researcher: cannot bring the ORB up: ");
}

[[noreturn]] void researchAndExit()
{
    ::alarm(60);
    HostConfig::instance().readText("SERVER = there\nENDPOINT.there = 127.0.0.1:1\n", "qm.conf");
    initDiscoveryResearch();
    getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL);
    LoggerFactory::instance().setLevel(LOG_LEVEL_TRACE);
    std::exit(17);
}

TEST(DiscoveryResearcherDeathTest, GoesInOrderWhenTheProcessExits)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(researchAndExit(), testing::ExitedWithCode(17),
                "DiscoveryResearcher::~DiscoveryResearcher .debug. leave");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
