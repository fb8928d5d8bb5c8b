// A process that is no service and researches all the same: what it brings up, what it does not,
// and how it ends. The master is a process of its own.

#include "Researcher.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Capture.h"
#include "DiscoveryRepository.h"
#include "FilterParameters.h"
#include "ItemsFixture.h"
#include "ServiceFixture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::LogCapture;
using QmTest::Service;
using Lines = std::vector<std::string>;
using Clients = std::set<TlxString>;

/// The master "here", with items in its store, until the object goes. Made before anything of the
/// ORB in this process, which it is forked from.
class Master
{
  public:
    Master()
    {
        int told[2];
        EXPECT_EQ(::pipe(told), 0);
        EXPECT_EQ(::pipe(m_hold), 0);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(told[0]);
            ::close(m_hold[1]);
            serve(told[1], m_hold[0]);
            ::_exit(0);
        }
        ::close(told[1]);
        ::close(m_hold[0]);
        char text[100] = {};
        EXPECT_GT(::read(told[0], text, sizeof text - 1), 0);
        ::close(told[0]);
        m_endpoint = text;
        HostConfig::instance().readText(
            "SERVER = here\nCLIENT_NAME = console\nENDPOINT.here = " + m_endpoint + "\n",
            "qm.conf");
    }
    const std::string& endpoint() const { return m_endpoint; }
    ~Master()
    {
        ::close(m_hold[1]);
        int status = -1;
        ::waitpid(m_pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
    Master(const Master&) = delete;
    Master& operator=(const Master&) = delete;

  private:
    static void serve(int told, int hold)
    {
        ::alarm(100); // no test takes that long
        const Service service;
        Service::put("host1", "host1",
                     "<DiscoveredItems><DISCOVERED Name='/'><ExplorerData Name='FileSystems'>"
                     "<Type>ext4</Type></ExplorerData></DISCOVERED></DiscoveredItems>");
        Service::put("filesystem", "host1",
                     "<FilterData><QueryDescription><Field Name='size' Type='bytes'/>"
                     "</QueryDescription></FilterData>");
        Service::put("broken", "host1", "<DiscoveredItems><DISCOVERED Name='a'/><DISC");
        const std::string endpoint = service.orb->getEndpoint();
        (void)!::write(told, endpoint.data(), endpoint.size());
        ::close(told);
        char byte;
        (void)!::read(hold, &byte, 1);
    }
    std::string m_endpoint;
    int m_hold[2] = {-1, -1};
    pid_t m_pid = -1;
};

/// How many sockets of this process wait for somebody to connect.
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
    ASSERT_TRUE(all);
    const FilterParameters filter(nullptr, "size > 1");
    const AutoDereference<CollectionItemIterator> items(
        all->getNextCollectionItemIterator(&filter));
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
    ASSERT_TRUE(all);
    const AutoDereference<CollectionItemIterator> items(
        all->getNextCollectionItemIterator(nullptr));
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
    // (Nothing listens on port 1.)
    HostConfig::instance().readText("SERVER = there\nENDPOINT.there = 127.0.0.1:1\n", "qm.conf");
    // The record's own source is "here".
    MasterAddress address{"backup1", {}, {"here"}};
    ASSERT_TRUE(parseEndpoint(master.endpoint(), address.endpoint));
    ASSERT_TRUE(initDiscoveryResearch(address));
    EXPECT_FALSE(getDiscoveryRepository()->isMaster());
    const auto all = researchDiscoveries(DQ_DISCOVERY_DATA, "host1", "*", AT_ANYANDALL);
    ASSERT_TRUE(all);
    const AutoDereference<CollectionItemIterator> items(
        (*all)->getNextCollectionItemIterator(nullptr));
    ASSERT_TRUE(items);
    EXPECT_TRUE(items->isParsed());
}

TEST(DiscoveryResearcherTest, AMasterThatIsNotThereIsNoHandle)
{
    // (Nothing listens on port 1.)
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
    ::setenv("ORBgiopMaxMsgSize", "none", 1); // which the ORB's library does not bear
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
                "DiscoveryResearcher::~DiscoveryResearcher leave");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
