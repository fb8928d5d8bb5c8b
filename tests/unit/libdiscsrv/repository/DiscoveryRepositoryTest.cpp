// The routes of queries and of new discoveries.

#include "DiscoveryRepository.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "ExplorerFixture.h"
#include "ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::Service;

std::vector<std::string> subjects(DiscoveryIterator* adopted)
{
    const AutoDereference<DiscoveryIterator> iterator(adopted);
    std::vector<std::string> names;
    while (Discovery* next = iterator ? iterator->getNext() : nullptr) {
        const AutoDereference<Discovery> discovery(next);
        names.push_back(discovery->getSubject()->getSubject().utf8());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(DiscoveryRepositoryAloneTest, IsOneAProcess)
{
    EXPECT_EQ(getDiscoveryRepository(), getDiscoveryRepository());
}

TEST(DiscoveryRepositoryAloneTest, ReportsAMissingFrameworkAndAnswersNothing)
{
    HostConfig::instance().readText("SERVER = localhost\n", "qm.conf");
    DiscoveryRepository repository;
    const AssertionCapture assertions;
    EXPECT_EQ(repository.getDSName(), TlxString());
    EXPECT_EQ(repository.getDSType(), DST_NO_SERVANT);
    EXPECT_EQ(repository.getOrb(), nullptr);
    EXPECT_TRUE(CORBA::is_nil(repository.getPOA()));
    EXPECT_EQ(assertions.texts(), Lines(4, "0 != m_discoveryFramework"));
    EXPECT_EQ(repository.getOrbServiceName(), TlxString());
    EXPECT_EQ(repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL), nullptr);
    EXPECT_EQ(assertions.texts().back(), "m_discoveryFramework");
}

TEST(DiscoveryRepositoryAloneTest, AWildcardIsAStar)
{
    EXPECT_TRUE(DiscoveryRepository::stringContainsWildcard("a*"));
    EXPECT_FALSE(DiscoveryRepository::stringContainsWildcard("a?"));
    EXPECT_FALSE(DiscoveryRepository::stringContainsWildcard(""));
}

TEST(DiscoveryRepositoryAloneTest, TheMastersNameIsThatOfTheConfiguration)
{
    HostConfig::instance().readText("SERVER = master1\n", "qm.conf");
    const DiscoveryRepository repository;
    TlxHostname name;
    repository.getMasterServerName(name);
    EXPECT_EQ(name.text(), TlxString("master1"));
}

TEST(DiscoveryRepositoryAloneTest, WithoutAMasterTheNameIsEmptyAndOneLineIsLogged)
{
    HostConfig::instance().readText("", "qm.conf");
    const DiscoveryRepository repository;
    const LogCapture log;
    TlxHostname name(TlxString("before"));
    repository.getMasterServerName(name);
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(log.texts(1), Lines{"Unable to obtain master server name"});
    EXPECT_EQ(log.lines()[0].operation, "RemoteCollectionData::getMasterServerName");
}

TEST(DiscoveryRepositoryAloneTest, TheLocalAuthorityIsThisHostAsAnExternalSource)
{
    HostConfig::instance().readText("CLIENT_NAME = here\n", "qm.conf");
    const DiscoveryRepository repository;
    const std::unique_ptr<Authority> authority(repository.getLocalAuthority());
    EXPECT_EQ(authority->getName(), TlxString("here"));
    EXPECT_EQ(authority->getType(), AT_EXTSRC);
    EXPECT_EQ(authority->getStatusMsg(), nullptr);
}

TEST(DiscoveryRepositoryAloneTest, ASecondShutdownIsReported)
{
    DiscoveryRepository repository;
    repository.shutdown();
    const AssertionCapture assertions;
    repository.shutdown();
    EXPECT_EQ(assertions.texts(), Lines{"!m_shuttingDown"});
}

TEST(DiscoveryRepositoryAloneTest, FiniWithoutShutdownIsReported)
{
    DiscoveryRepository repository;
    const AssertionCapture assertions;
    repository.fini();
    EXPECT_EQ(assertions.texts(), Lines{"m_shuttingDown"});
    repository.shutdown();
    repository.fini();
    EXPECT_EQ(assertions.texts().size(), 1u);
}

/// Plays a master or a client, as the test chooses, and records the queries to the master.
class Routed : public DiscoveryRepository
{
  public:
    bool isMaster() const override
    {
        ++mastersAsked;
        return master;
    }
    bool isGenericDS() const override
    {
        ++genericsAsked;
        return generic;
    }
    DiscoveryIterator* queryRemoteDiscoveries(DiscoveryQuery, const std::string& subject,
                                              const std::string& authority, AuthorityType) override
    {
        remote = subject + " of " + authority;
        return nullptr;
    }
    bool master = false;
    bool generic = true;
    mutable int mastersAsked = 0;
    mutable int genericsAsked = 0;
    std::string remote;
};

TEST(DiscoveryRepositoryAloneTest, TheKindOfServiceIsAskedOnlyOnTheMaster)
{
    Routed repository;
    EXPECT_FALSE(repository.isGenericDSOnMaster());
    EXPECT_EQ(repository.genericsAsked, 0);
    repository.master = true;
    EXPECT_TRUE(repository.isGenericDSOnMaster());
    repository.generic = false;
    EXPECT_FALSE(repository.isGenericDSOnMaster());
    EXPECT_EQ(repository.genericsAsked, 2);
}

TEST(DiscoveryRepositoryAloneTest, OffTheMasterAQueryGoesToTheMasterAndNeverToTheStore)
{
    Routed repository;
    repository.setDiscoveryFramework(
        AutoDereference<DiscoveryFramework>(new DiscoveryFramework("", DST_GENERIC, nullptr, false))
            .get());
    const AssertionCapture assertions; // the store, which is not initialised, would report
    EXPECT_EQ(repository.queryDiscoveries(DQ_DISCOVERY_DATA, "cl1", "srv1", AT_ANYANDALL), nullptr);
    EXPECT_EQ(repository.remote, "cl1 of srv1");
    EXPECT_EQ(assertions.texts(), Lines{});
}

TEST(DiscoveryRepositoryAloneTest, AMasterWithoutAStoreAnswersNull)
{
    Routed repository;
    repository.master = true;
    repository.setDiscoveryFramework(
        AutoDereference<DiscoveryFramework>(new DiscoveryFramework("", DST_GENERIC, nullptr, false))
            .get());
    const AssertionCapture assertions;
    const LogCapture log;
    EXPECT_EQ(repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL), nullptr);
    EXPECT_EQ(log.texts(1), Lines{"No database iterator found"});
    EXPECT_EQ(assertions.texts(), Lines{"m_init"});
    AutoDereference<Discovery> out;
    repository.newDiscovery(
        out, DQ_DISCOVERY_DATA, Subject("cl1"), Authority("srv1", AT_EXTSRC),
        CollectionAttributes(CT_POINT_IN_TIME, CS_LOCALONLY, TlxObjTime(), TlxObjTime(), 0));
    EXPECT_FALSE(out);
    EXPECT_EQ(assertions.texts(), (Lines{"m_init", "m_init", "*discovery"}));
}

TEST(DiscoveryRepositoryAloneTest, WithoutAStoreWhatThePullExplorersFoundIsReleased)
{
    const AutoDereference<Routed> repository(new Routed);
    repository->master = true;
    repository->setDiscoveryFramework(
        AutoDereference<DiscoveryFramework>(new DiscoveryFramework("", DST_GENERIC, nullptr, false))
            .get());
    const AutoDereference<QmTest::FakePull> pull(new QmTest::FakePull);
    const Subject of("cl1");
    const Authority by("srv1", AT_EXTSRC);
    repository->registerExplorer(&of, pull.get(), 1, &by, true);
    const ExplorerSet explorers = repository->getPullExplorers();
    ASSERT_EQ(explorers.size(), 1u);
    const auto references = (*explorers.begin())->referenceCount();

    const AssertionCapture assertions;
    const LogCapture log(LOG_LEVEL_TRACE);
    EXPECT_EQ(repository->queryDiscoveries(DQ_DISCOVERY_DATA, "cl*", "*", AT_ANYANDALL), nullptr);
    EXPECT_EQ(log.texts(1), Lines{"No database iterator found"});
    EXPECT_EQ(assertions.texts(), Lines{"m_init"});
    const auto lines = log.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const LogCapture::Line& line) {
        return line.operation == "DiscoveryMemCreator::getIterator";
    })) << "an explorer matched";
    EXPECT_EQ((*explorers.begin())->referenceCount(), references);
}

struct DiscoveryRepositoryTest : testing::Test
{
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }
    Service service;
    DiscoveryRepository* repository = getDiscoveryRepository();
};

TEST_F(DiscoveryRepositoryTest, KnowsItsFramework)
{
    EXPECT_TRUE(repository->isMaster());
    EXPECT_TRUE(repository->isGenericDS());
    EXPECT_EQ(repository->getDSType(), DST_GENERIC);
    EXPECT_EQ(repository->getDSName(), TlxString());
    EXPECT_EQ(repository->getOrbServiceName(), TlxString("DiscoveryService"));
    EXPECT_EQ(repository->getOrb(), service.orb.get());
    EXPECT_FALSE(CORBA::is_nil(repository->getPOA()));
}

TEST_F(DiscoveryRepositoryTest, QueriesNarrowTheStore)
{
    Service::put("cl1", "srv1");
    Service::put("cl2", "srv1");
    Service::put("cl1", "srv2");
    const auto query = [&](const char* subject, const char* authority, AuthorityType type) {
        return subjects(repository->queryDiscoveries(DQ_DISCOVERY_DATA, subject, authority, type));
    };
    EXPECT_EQ(query("*", "*", AT_ANYANDALL), (Lines{"cl1", "cl1", "cl2"}));
    EXPECT_EQ(query("", "", AT_ANYANDALL), (Lines{"cl1", "cl1", "cl2"}));
    EXPECT_EQ(query("cl*", "srv1", AT_QMKCLIENT), (Lines{"cl1", "cl2"}));
    EXPECT_EQ(query("*", "*", AT_EXTSRC), Lines{});
    EXPECT_EQ(query("cl2", "*", AT_ANYANDALL), Lines{"cl2"});
}

TEST_F(DiscoveryRepositoryTest, ANewDiscoveryReplacesWhatTheHolderHeld)
{
    AutoDereference<Discovery> out;
    const Subject subject("cl 1");
    const Authority authority("srv1", AT_QMKCLIENT);
    const CollectionAttributes attributes(CT_CONFIGURATION, CS_LOCALONLY, TlxObjTime(5, 6),
                                          TlxObjTime(0, 0), 9);
    repository->newDiscovery(out, DQ_FILTER_DATA, subject, authority, attributes);
    ASSERT_TRUE(out);
    const AutoDereference<Discovery> first = out;
    repository->newDiscovery(out, DQ_FILTER_DATA, subject, authority, attributes);
    EXPECT_NE(out.get(), first.get());
    EXPECT_EQ(first->referenceCount(), 1u);
    EXPECT_NE(out->getSubject(), &subject);
    EXPECT_EQ(out->getSubject()->getSubject(), subject.getSubject());
    EXPECT_EQ(out->getSubject()->getSubjectFileName(), subject.getSubjectFileName());
    EXPECT_EQ(out->getAuthority()->getNameFileName(), authority.getNameFileName());
    EXPECT_EQ(out->getAuthority()->getType(), AT_QMKCLIENT);
    EXPECT_EQ(out->getAttributes()->getDiscoveryTime(), TlxObjTime(5, 6));
    EXPECT_EQ(out->getAttributes()->getStorage(), CS_LOCALONLY);
    EXPECT_EQ(out->getAttributes()->getPriority(), 9u);
    EXPECT_EQ(out->getQuery(), DQ_FILTER_DATA);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
