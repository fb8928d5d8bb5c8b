// The items that the repository finds, and the list of clients.

#include "Researcher.h"

#include <gtest/gtest.h>

#include "ExplorerFixture.h"
#include "FilterParameters.h"
#include "ItemsFixture.h"
#include "StoreFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::FakePull;
using QmTest::firstItems;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::names;
using QmTest::PlainDiscovery;
using QmTest::Service;
using QmTest::TWO_ITEMS;

class ResearchTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }
    Service m_service;
};

TEST_F(ResearchTest, AQueryThatMatchesNothingYieldsAnIteratorOverNothing)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_DISCOVERY_DATA, "nothing", "*", AT_ANYANDALL));
    ASSERT_TRUE(all);
    EXPECT_EQ(all->referenceCount(), 1u);
    EXPECT_EQ(all->getNextCollectionItemIterator(nullptr), nullptr);
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(ResearchTest, TheFirstNameIsTheSubjectTheSecondTheAuthority)
{
    Service::put("subject1", "host1", TWO_ITEMS);
    Service::put("host1", "subject1", "<DiscoveredItems/>");
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_DISCOVERY_DATA, "subject1", "host1", AT_ANYANDALL));
    const auto items = firstItems(all.get());
    ASSERT_TRUE(items);
    EXPECT_EQ(items->getSubject()->getSubject(), TlxString("subject1"));
    EXPECT_EQ(items->getAuthority()->getName(), TlxString("host1"));
    EXPECT_EQ(names(*items), (Lines{"a", "b"}));
    EXPECT_EQ(all->getNextCollectionItemIterator(nullptr), nullptr);
}

TEST_F(ResearchTest, EmptyNamesAreAny)
{
    Service::put("subject1", "host1", TWO_ITEMS);
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_DISCOVERY_DATA, "", "", AT_ANYANDALL));
    const auto items = firstItems(all.get());
    ASSERT_TRUE(items);
}

TEST_F(ResearchTest, AFilterReachesAPullExplorer)
{
    const AutoDereference<FakePull> explorer(new FakePull(TWO_ITEMS));
    const Subject subject("subject1");
    const Authority authority("host1", AT_QMKCLIENT);
    getDiscoveryRepository()->registerExplorer(&subject, explorer.get(), 1, &authority, true);
    const AutoDereference<AuthSubIterator> all(
        getAuthSubIterator(DQ_FILTER_DATA, "subject1", "host1", AT_ANYANDALL));
    const FilterParameters filter(nullptr, "a");
    const auto items = firstItems(all.get(), &filter);
    ASSERT_TRUE(items);
    EXPECT_EQ(names(*items), (Lines{"a", "b"}));
    EXPECT_EQ(explorer->calls,
              Lines{"2 subject1 of host1 [<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                    "<FilterParameters><QueryString>a</QueryString></FilterParameters>]"});
}

TEST(ResearchAloneTest, WithoutAnAnswerThereIsNoIterator)
{
    HostConfig::instance().readText("", "qm.conf");
    const AssertionCapture assertions; // there is no framework
    const LogCapture log;
    EXPECT_EQ(getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL), nullptr);
    EXPECT_EQ(log.texts(1), Lines{"Failed to get a handle to discoveries"});
    EXPECT_EQ(log.lines().back().operation, "getAuthSubIterator");
    const auto found = researchDiscoveries(DQ_DISCOVERY_DATA, "s*", "a*", AT_ANYANDALL);
    ASSERT_FALSE(found);
    EXPECT_EQ(found.error(),
              (ResearchFailure{ResearchProblem::NO_ANSWER, "Failed to get a handle to discoveries",
                               "s*", "a*"}));
}

// The list of clients.

using Clients = std::set<TlxString>;

TEST_F(ResearchTest, TheClientsAreTheAuthoritiesOfVolumesAndOfFileSystemsEachOnce)
{
    Service::put("filesystem", "unix1", "<FilterData/>");
    Service::put("filesystem", "unix2", "no XML, and a client all the same");
    Service::put("volume", "windows1", "<FilterData/>");
    Service::put("volume", "unix1", "<FilterData/>");
    Service::put("unix3", "unix3", "<DiscoveredItems/>");
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList(),
              (Clients{"unix1", "unix2", "windows1"}));
}

TEST_F(ResearchTest, WithoutClientsTwoLinesAreLogged)
{
    const LogCapture log;
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList(), Clients());
    Lines told;
    for (const auto& line : log.lines())
        if (line.operation == "Researcher::getDiscoveredClientList") {
            told.push_back(line.text);
            EXPECT_EQ(line.level, 4);
        }
    EXPECT_EQ(told, (Lines{"No windows clients found", "No unix clients found"}));
}

TEST_F(ResearchTest, WithOneKindOfClientTheMissingOneIsLogged)
{
    Service::put("filesystem", "unix1", "<FilterData/>");
    const LogCapture log;
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList(), Clients{"unix1"});
    EXPECT_TRUE(log.has(4, "No windows clients found"));
    EXPECT_FALSE(log.has(4, "No unix clients found"));
}

TEST_F(ResearchTest, TheListOfClientsEndsAtTheNextRecordWhenTheServiceDoes)
{
    const AutoDereference<FakePull> explorer(new FakePull("<FilterData/>"));
    for (const char* host : {"unix1", "unix2", "unix3"}) {
        const Subject subject("filesystem");
        const Authority authority(host, AT_QMKCLIENT);
        getDiscoveryRepository()->registerExplorer(&subject, explorer.get(), 1, &authority, true);
    }
    explorer->onPull = [] { getDiscoveryRepository()->shutdown(); };
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList().size(), 1u);
    EXPECT_EQ(explorer->calls.size(), 1u);
    const AssertionCapture expected; // because the fixture stops the service once more
    m_service.stop();
}

TEST_F(ResearchTest, TenThousandRecordsAreRead)
{
    // Written without the service, because its syncs would take long.
    const auto store = [this](const std::string& host, const std::string& subject,
                              const std::string& payload) {
        const AutoDereference<PlainDiscovery> record(new PlainDiscovery);
        record->setAuthority(new Authority(host, AT_EXTSRC));
        record->setSubject(new Subject(subject));
        record->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                       TlxObjTime::now(), TlxObjTime(), 1));
        const std::filesystem::path base = m_service.store() / ("3 " + host + " " + subject);
        QmTest::writeFile(base.string() + ".xml", QmTest::written(*record));
        QmTest::writeFile(base.string() + ".dat", payload);
    };
    const std::string payload = "<FilterData><QueryDescription><Field Name='size' Type='bytes'/>"
                                "</QueryDescription></FilterData>";
    for (int i = 0; i < 7500; ++i)
        store("host" + std::to_string(i), "filesystem", payload);
    for (int i = 5000; i < 7500; ++i) // clients of both kinds
        store("host" + std::to_string(i), "volume", payload);
    const LogCapture log(LOG_LEVEL_FAILURE);
    const Clients clients = getDiscoveryRepository()->getDiscoveredClientList();
    EXPECT_EQ(clients.size(), 7500u);
    EXPECT_TRUE(clients.contains("host0"));
    EXPECT_TRUE(clients.contains("host7499"));
    EXPECT_EQ(log.texts(1), Lines());
}

TEST(ResearchAloneTest, WithoutAnAnswerThereAreNoClients)
{
    HostConfig::instance().readText("", "qm.conf");
    const AssertionCapture assertions; // there is no framework
    const LogCapture log;
    EXPECT_EQ(getDiscoveryRepository()->getDiscoveredClientList(), Clients());
    EXPECT_EQ(log.texts(1), Lines(2, "Failed to get a handle to discoveries"));
    EXPECT_TRUE(log.has(4, "No windows clients found"));
    EXPECT_TRUE(log.has(4, "No unix clients found"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
