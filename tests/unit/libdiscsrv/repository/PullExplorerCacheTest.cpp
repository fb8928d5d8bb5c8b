// Storing and reading back the explorers of other hosts, without a repository and without a disk.

#include "PullExplorerCache.h"

#include "ExplorerFixture.h"
#include "ItemsFixture.h"
#include "RemoteExplorerPull.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Calls;
using QmTest::LogCapture;

/// Keeps the written bytes. After each open, reading starts at the first byte.
class KeptData : public CollectionData
{
  public:
    bool open(OpenMode, const char*) override
    {
        m_position = 0;
        return opens;
    }
    std::size_t readCollection(std::size_t length, void* buffer) const override
    {
        const std::size_t count = text.copy(static_cast<char*>(buffer), length, m_position);
        m_position += count;
        return count;
    }
    bool writeCollection(std::size_t length, const void* buffer) const override
    {
        text.append(static_cast<const char*>(buffer), length);
        return true;
    }
    mutable std::string text;
    bool opens = true;

  private:
    mutable std::size_t m_position = 0;
};

class KeptDiscovery : public Discovery
{
  public:
    KeptDiscovery() : Discovery(new KeptData, DQ_DISCOVERY_DATA) {}
    DiscoveryResult persist() override { return {persisted, 0}; }
    DiscoveryResult open(OpenMode mode, const char* arg) override
    {
        return {getCollectionData()->open(mode, arg) ? DS_SUCCESS : DS_OPEN_FAILED, 0};
    }
    KeptData& data() const { return dynamic_cast<KeptData&>(*getCollectionData()); }
    DiscoveryStatus persisted = DS_SUCCESS;
};

struct PullExplorerCacheTest : testing::Test
{
    void store(const Explorer& explorer)
    {
        const Subject of("s");
        const Authority by("a", AT_EXTSRC);
        const AutoDereference<ExplorerWrapper> wrapper(
            new ExplorerWrapper(&explorer, 7u, &of, &by));
        storeExplorer(*wrapper, [this](AutoDereference<Discovery>& out, DiscoveryQuery query,
                                       const Subject& subject, const Authority& authority,
                                       const CollectionAttributes& attributes) {
            ++made;
            EXPECT_EQ(query, DQ_UNDEFINED);
            EXPECT_EQ(authority.getType(), AT_REMOTEPULL);
            EXPECT_EQ(attributes.getPriority(), 7u);
            record->setSubject(new Subject(subject));
            record->setAuthority(new Authority(authority));
            out = record;
        });
    }
    /// "SUBJECT AUTHORITY TYPE PRIORITY SERVICE HOST" of each.
    Calls loaded(const std::vector<AutoDereference<Discovery>>& records) const
    {
        const AutoDereference<QmTest::ListedDiscoveries> listed(new QmTest::ListedDiscoveries);
        for (const auto& each : records)
            listed->add(each);
        Calls found;
        loadStoredExplorers(*listed, [&](const Subject& subject, const ExplorerPull& explorer,
                                         unsigned priority, const Authority& authority) {
            const auto& remote = dynamic_cast<const RemoteExplorerPull&>(explorer);
            found.push_back(subject.getSubject().utf8() + " " + authority.getName().utf8() + " " +
                            std::to_string(authority.getType()) + " " + std::to_string(priority) +
                            " " + remote.getServiceName().utf8() + " " +
                            remote.getSourceHost().text().utf8());
        });
        return found;
    }

    const AutoDereference<RemoteExplorerPull> remote{
        new RemoteExplorerPull("Service<1>", "client1", "s", "a", AT_EXTSRC)};
    const AutoDereference<KeptDiscovery> record{new KeptDiscovery};
    int made = 0;
};

TEST_F(PullExplorerCacheTest, WhatIsStoredIsLoadedAgain)
{
    store(*remote);
    EXPECT_EQ(loaded({record}),
              Calls{"s a " + std::to_string(int{AT_EXTSRC}) + " 7 Service<1> client1"});
}

TEST_F(PullExplorerCacheTest, ARegistrationWithANameThatIsTooLongIsLeftOut)
{
    const std::string most(1024, 'h');
    const AutoDereference<RemoteExplorerPull> good(
        new RemoteExplorerPull(most, most, "s", "a", AT_EXTSRC));
    store(*good);
    EXPECT_EQ(loaded({record}).size(), 1u);
    const std::string more = most + "h";
    for (const auto& [service, host] : {std::pair{more, most}, std::pair{most, more}}) {
        const AutoDereference<RemoteExplorerPull> bad(
            new RemoteExplorerPull(service, host, "s", "a", AT_EXTSRC));
        record->data().text.clear();
        store(*bad);
        LogCapture log;
        EXPECT_EQ(loaded({record}), Calls{});
        EXPECT_EQ(log.texts(1),
                  Calls{"A stored explorer with a name that is too long is left out, its subject "
                        "begins with \"s\", its host with \"" +
                        std::string(64, 'h') + "\""});
    }
}

TEST_F(PullExplorerCacheTest, ARegistrationWithALongDisplayNameIsLeftOut)
{
    store(*remote);
    record->setSubject(new Subject(std::string(3072, 's')));
    EXPECT_EQ(loaded({record}).size(), 1u);
    record->setSubject(new Subject(std::string(3073, 's')));
    EXPECT_EQ(loaded({record}), Calls{});
    record->setSubject(new Subject("s"));
    record->setAuthority(new Authority(std::string(3073, 'a'), AT_REMOTEPULL));
    EXPECT_EQ(loaded({record}), Calls{});
}

TEST_F(PullExplorerCacheTest, AnExplorerOfThisHostIsNotStored)
{
    const AutoDereference<QmTest::FakePull> own(new QmTest::FakePull);
    store(*own);
    EXPECT_EQ(made, 0);
}

TEST_F(PullExplorerCacheTest, WhatCannotBeStoredIsOneLine)
{
    record->persisted = DS_DATA_EXISTS;
    LogCapture log;
    store(*remote);
    EXPECT_EQ(log.texts(1), Calls{"Failed to persist discovery record."});
    record->data().opens = false;
    log.clear();
    store(*remote);
    EXPECT_EQ(log.texts(1), Calls{"Failed to open collection"});
    EXPECT_EQ(log.lines()[0].operation, "DiscoveryRepository::persistToDisk");
}

TEST_F(PullExplorerCacheTest, ARecordThatCannotBeReadIsSkipped)
{
    store(*remote);
    const AutoDereference<KeptDiscovery> bad(new KeptDiscovery);
    bad->setSubject(new Subject("bad"));
    bad->setAuthority(new Authority("a", AT_REMOTEPULL));
    bad->data().text = "bad";
    const AutoDereference<KeptDiscovery> closed(new KeptDiscovery);
    closed->data().opens = false;
    const AutoDereference<KeptDiscovery> tooLong(new KeptDiscovery);
    tooLong->data().text = record->data().text + std::string(65536, ' ');
    EXPECT_EQ(loaded({bad, closed, tooLong, record}).size(), 1u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
