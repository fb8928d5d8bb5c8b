// The registry alone: snapshots, and registrations at the same moment.
// RegistryThreadsTest.cpp has many threads at once.

#include "ExplorerRegistry.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include "ExplorerFixture.h"
#include "support/Capture.h"
#include "support/Eventually.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Calls;
using QmTest::entry;
using QmTest::eventually;
using QmTest::FakePull;
using QmTest::FakePush;
using QmTest::FakeRepository;
using QmTest::LogCapture;
using namespace std::chrono_literals;

constexpr std::size_t MOST = 100;

/// A store that the test holds up, for longer than the test waits for others.
class HeldStore
{
  public:
    /// Waits until the test releases it.
    void operator()()
    {
        m_inside.set_value();
        EXPECT_EQ(m_letGo.get_future().wait_for(QmTest::PATIENCE), std::future_status::ready);
    }
    bool isReached() { return m_inside.get_future().wait_for(10s) == std::future_status::ready; }
    void letGo() { m_letGo.set_value(); }

  private:
    std::promise<void> m_inside;
    std::promise<void> m_letGo;
};

struct RegistryTest : testing::Test
{
    Calls pushes() const { return FakeRepository::entries(*registry.snapshot().push); }
    Calls pulls() const { return FakeRepository::entries(*registry.snapshot().pull); }

    ExplorerRegistry registry{MOST, MOST};
    const AutoDereference<FakePush> push{new FakePush};
    const AutoDereference<FakePull> pull{new FakePull};
};

TEST_F(RegistryTest, NothingIsRegisteredAtFirst)
{
    EXPECT_EQ(pushes(), Calls{});
    EXPECT_EQ(pulls(), Calls{});
}

TEST_F(RegistryTest, ASnapshotDoesNotChange)
{
    registry.registerPull(entry(*pull, "s", 5));
    registry.registerPush(entry(*push, "t", 5));
    const ExplorerSnapshot before = registry.snapshot();
    registry.registerPull(entry(*pull, "s", 6));
    registry.registerPull(entry(*pull, "t", 6));
    EXPECT_EQ(FakeRepository::entries(*before.pull), Calls{"s/a 5"});
    EXPECT_EQ(FakeRepository::entries(*before.push), Calls{"t/a 5"});
    EXPECT_EQ(pulls(), (Calls{"s/a 6", "t/a 6"}));
    EXPECT_EQ(pushes(), Calls{});
}

TEST_F(RegistryTest, ReadersShareOneSnapshot)
{
    registry.registerPull(entry(*pull, "s", 5));
    registry.registerPush(entry(*push, "t", 5));
    const ExplorerSnapshot one = registry.snapshot();
    EXPECT_EQ(registry.snapshot().pull, one.pull);
    EXPECT_EQ(registry.snapshot().push, one.push);
    registry.registerPull(entry(*pull, "u", 5));
    EXPECT_NE(registry.snapshot().pull, one.pull);
    EXPECT_EQ(registry.snapshot().push, one.push) << "it has not changed";
}

TEST_F(RegistryTest, RegistrationsDuringAWalkDoNotDisturbIt)
{
    for (int i = 0; i < 10; ++i)
        registry.registerPull(entry(*pull, "s" + std::to_string(i), 5));
    int walked = 0;
    const ExplorerSnapshot snapshot = registry.snapshot();
    for (const auto& wrapper : *snapshot.pull) {
        // Use another thread, because the tables' lock is recursive.
        std::thread([&] {
            registry.registerPull(entry(*pull, "new" + std::to_string(walked), 5));
            registry.registerPush(entry(*push, wrapper->getSubject()->getSubject().utf8(), 9));
        }).join();
        ++walked;
    }
    EXPECT_EQ(walked, 10);
    EXPECT_EQ(registry.snapshot().pull->size(), 10u) << "the new ones";
    EXPECT_EQ(registry.snapshot().push->size(), 10u);
}

TEST_F(RegistryTest, OnlyAReaderMakesACopy)
{
    const auto first = entry(*pull, "s", 5);
    registry.registerPull(first);
    EXPECT_EQ(first->referenceCount(), 2u) << "the table's and this test's";
    {
        const ExplorerSnapshot one = registry.snapshot();
        EXPECT_EQ(first->referenceCount(), 3u) << "and the snapshot's";
        const ExplorerSnapshot two = registry.snapshot();
        EXPECT_EQ(first->referenceCount(), 3u) << "both readers share it";
    }
    EXPECT_EQ(first->referenceCount(), 3u) << "for the next reader";
    registry.registerPull(entry(*pull, "t", 5));
    EXPECT_EQ(first->referenceCount(), 2u) << "the change has dropped it and made no other one";
}

TEST_F(RegistryTest, ARegistrationThatLosesMakesNoNewSnapshot)
{
    registry.registerPull(entry(*pull, "s", 5));
    registry.registerPush(entry(*push, "t", 5));
    const ExplorerSnapshot before = registry.snapshot();
    registry.registerPull(entry(*pull, "s", 4));
    registry.registerPush(entry(*push, "s", 5));
    registry.registerPush(entry(*push, "t", 5));
    registry.registerPull(entry(*pull, "t", 4));
    EXPECT_EQ(registry.snapshot().pull, before.pull);
    EXPECT_EQ(registry.snapshot().push, before.push);
}

TEST_F(RegistryTest, NobodyWaitsForARegistrationThatIsBeingStored)
{
    HeldStore store;
    std::thread registration([&] { registry.registerPull(entry(*pull, "s", 5), std::ref(store)); });
    EXPECT_TRUE(store.isReached());
    auto others = std::async(std::launch::async, [&] {
        EXPECT_EQ(pulls(), Calls{"s/a 5"}) << "it is registered before it is stored";
        registry.registerPush(entry(*push, "t", 5));
        registry.registerPull(entry(*pull, "u", 5));
        EXPECT_EQ(pushes(), Calls{"t/a 5"});
        EXPECT_EQ(pulls(), (Calls{"s/a 5", "u/a 5"}));
    });
    EXPECT_EQ(others.wait_for(10s), std::future_status::ready);
    store.letGo();
    registration.join();
}

TEST_F(RegistryTest, ARegistrationThatReplacesOneBeingStoredIsStoredAfterIt)
{
    HeldStore store;
    Calls stored;
    std::thread first([&] {
        registry.registerPull(entry(*pull, "s", 5), [&] {
            store();
            stored.push_back("first");
        });
    });
    EXPECT_TRUE(store.isReached());
    std::thread second(
        [&] { registry.registerPull(entry(*pull, "s", 6), [&] { stored.push_back("second"); }); });
    EXPECT_TRUE(eventually([&] { return pulls() == Calls{"s/a 6"}; }));
    store.letGo();
    first.join();
    second.join();
    EXPECT_EQ(stored, (Calls{"first", "second"}));
}

TEST_F(RegistryTest, ARegistrationThatWasReplacedBeforeItIsStoredIsNotStored)
{
    // The store of the first registration waits until the tables contain all others.
    HeldStore store;
    Calls stored;
    std::thread blocker([&] { registry.registerPull(entry(*pull, "z", 1), std::ref(store)); });
    EXPECT_TRUE(store.isReached());
    std::thread loser(
        [&] { registry.registerPull(entry(*pull, "s", 5), [&] { stored.push_back("loser"); }); });
    EXPECT_TRUE(eventually([&] { return pulls() == Calls{"s/a 5", "z/a 1"}; }));
    std::thread winner(
        [&] { registry.registerPull(entry(*pull, "s", 6), [&] { stored.push_back("winner"); }); });
    EXPECT_TRUE(eventually([&] { return pulls() == Calls{"s/a 6", "z/a 1"}; }));
    store.letGo();
    blocker.join();
    loser.join();
    winner.join();
    EXPECT_EQ(stored, Calls{"winner"});
}

TEST_F(RegistryTest, WhatAPushReplacedIsNotStored)
{
    HeldStore store;
    bool stored = false;
    std::thread blocker([&] { registry.registerPull(entry(*pull, "z", 1), std::ref(store)); });
    EXPECT_TRUE(store.isReached());
    std::thread loser([&] { registry.registerPull(entry(*pull, "s", 5), [&] { stored = true; }); });
    EXPECT_TRUE(eventually([&] { return pulls() == Calls{"s/a 5", "z/a 1"}; }));
    registry.registerPush(entry(*push, "s", 6));
    store.letGo();
    blocker.join();
    loser.join();
    EXPECT_FALSE(stored);
}

TEST_F(RegistryTest, TwoRegistrationsOfOneNameInARaceLeaveTheRegisteredOneStoredLast)
{
    for (int round = 0; round < 50; ++round) {
        const std::string subject = "s" + std::to_string(round);
        const std::vector<AutoDereference<ExplorerWrapper>> wrappers{entry(*pull, subject, 5),
                                                                     entry(*pull, subject, 5)};
        const ExplorerWrapper* last = nullptr; // the registry stores one registration at a time
        std::vector<std::thread> threads;
        for (const auto& wrapper : wrappers)
            threads.emplace_back(
                [&, wrapper] { registry.registerPull(wrapper, [&] { last = wrapper.get(); }); });
        for (std::thread& each : threads)
            each.join();
        const ExplorerSnapshot snapshot = registry.snapshot();
        ASSERT_TRUE(std::any_of(snapshot.pull->begin(), snapshot.pull->end(),
                                [&](const auto& wrapper) { return wrapper.get() == last; }));
    }
}

TEST_F(RegistryTest, ADroppedRegistrationIsNotStored)
{
    registry.registerPull(entry(*pull, "s", 6));
    bool stored = false;
    registry.registerPull(entry(*pull, "s", 5), [&] { stored = true; });
    EXPECT_FALSE(stored);
    registry.close();
    const LogCapture log;
    registry.registerPull(entry(*pull, "t", 5), [&] { stored = true; });
    registry.registerPush(entry(*push, "t", 5));
    EXPECT_FALSE(stored);
    EXPECT_EQ(log.texts(1), Calls(2, "An explorer that registers during the shutdown is dropped"));
    EXPECT_EQ(log.lines()[0].operation, "DiscoveryRepository::registerExplorer");
}

TEST_F(RegistryTest, AnAcceptedRegistrationIsStoredThoughTheShutdownCameBetween)
{
    HeldStore store;
    bool stored = false;
    std::thread blocker([&] { registry.registerPull(entry(*pull, "z", 1), std::ref(store)); });
    EXPECT_TRUE(store.isReached());
    std::thread accepted(
        [&] { registry.registerPull(entry(*pull, "s", 5), [&] { stored = true; }); });
    EXPECT_TRUE(eventually([&] { return pulls() == Calls{"s/a 5", "z/a 1"}; }));
    registry.close();
    EXPECT_EQ(FakeRepository::entries(*registry.takeAll().pull), (Calls{"s/a 5", "z/a 1"}));
    EXPECT_EQ(pulls(), Calls{});
    store.letGo();
    blocker.join();
    accepted.join();
    EXPECT_TRUE(stored);
}

TEST_F(RegistryTest, BeyondTheBoundANewOneIsDroppedAndAKnownOneIsNot)
{
    ExplorerRegistry small(2, 2);
    small.registerPull(entry(*pull, "s", 5));
    small.registerPull(entry(*pull, "t", 5));
    const LogCapture log;
    small.registerPull(entry(*pull, "t", 6));
    EXPECT_EQ(log.texts(1), Calls{});
    small.registerPull(entry(*pull, "u", 5));
    EXPECT_EQ(log.texts(1), Calls{"There are 2 explorers already, another one is dropped"});
    EXPECT_EQ(FakeRepository::entries(*small.snapshot().pull), (Calls{"s/a 5", "t/a 6"}));
    small.registerPush(entry(*push, "u", 5));
    EXPECT_EQ(small.snapshot().push->size(), 1u) << "each kind has a bound of its own";
}

/// A registry of eight places, two of them for each peer.
struct RegistrySharesTest : testing::Test
{
    AutoDereference<ExplorerWrapper> of(Registrant registrant, const std::string& peer,
                                        const std::string& subject, unsigned priority = 5) const
    {
        auto made = entry(*pull, subject, priority);
        made->setRegistrant(registrant, peer);
        return made;
    }
    void add(const std::string& peer, const std::string& subject, unsigned priority = 5)
    {
        const auto wrapper = of(Registrant::PEER, peer, subject, priority);
        registry.registerPull(
            wrapper, [&] { disk.insert(subject); },
            [&](const ExplorerWrapper& givenUp) {
                disk.erase(givenUp.getSubject()->getSubject().utf8());
            });
    }
    void addStored(const std::string& subject)
    {
        registry.registerPull(of(Registrant::STORE, "", subject));
        disk.insert(subject);
    }
    std::set<std::string> subjects() const
    {
        std::set<std::string> all;
        for (const auto& wrapper : *registry.snapshot().pull)
            all.insert(wrapper->getSubject()->getSubject().utf8());
        return all;
    }

    ExplorerRegistry registry{8, 2};
    const AutoDereference<FakePull> pull{new FakePull};
    std::set<std::string> disk; ///< the subjects of what is stored
};

using Names = std::set<std::string>;

TEST_F(RegistrySharesTest, BeyondItsShareAPeerLosesItsOldest)
{
    add("address 1", "a1");
    add("address 2", "b1");
    add("address 1", "a2");
    EXPECT_EQ(subjects(), (Names{"a1", "a2", "b1"}));
    const LogCapture log;
    add("address 1", "a3");
    EXPECT_EQ(subjects(), (Names{"a2", "a3", "b1"}));
    EXPECT_EQ(disk, subjects());
    EXPECT_EQ(log.texts(1), Calls{"Gave up the explorer of subject a1 & authority a: the peer with "
                                  "the address 1 has registered more than 2"});
    add("address 2", "b2");
    EXPECT_EQ(subjects(), (Names{"a2", "a3", "b1", "b2"}));
}

TEST_F(RegistrySharesTest, AKnownRegistrationTakesNoFurtherPlace)
{
    add("address 1", "a1");
    add("address 1", "a2");
    const LogCapture log;
    add("address 1", "a1"); // which is the newer one now
    EXPECT_EQ(subjects(), (Names{"a1", "a2"}));
    EXPECT_EQ(log.texts(1), Calls{});
    add("address 1", "a3");
    EXPECT_EQ(subjects(), (Names{"a1", "a3"}));
}

TEST_F(RegistrySharesTest, WhatReplacesTheRegistrationOfAnotherPeerCountsForItsOwnPeer)
{
    add("address 1", "a1");
    add("address 1", "a2");
    add("address 2", "b1");
    add("address 1", "b1");
    EXPECT_EQ(subjects(), (Names{"a2", "b1"}));
    EXPECT_EQ(disk, subjects());
    add("address 2", "b2");
    add("address 2", "b3");
    EXPECT_EQ(subjects(), (Names{"a2", "b1", "b2", "b3"})) << "it had none any more";
}

TEST_F(RegistrySharesTest, ALosingRegistrationTakesNoPlace)
{
    add("address 2", "b1", 6);
    add("address 1", "a1");
    add("address 1", "a2");
    add("address 1", "b1", 5);
    EXPECT_EQ(subjects(), (Names{"a1", "a2", "b1"}));
}

TEST_F(RegistrySharesTest, WhenAllPlacesAreTakenOneOfNobodyGoes)
{
    for (int i = 0; i < 7; ++i)
        addStored("s" + std::to_string(i));
    add("address 1", "a1");
    EXPECT_EQ(subjects().size(), 8u);
    add("address 2", "s0"); // its owner comes back
    const LogCapture log;
    add("address 1", "a2");
    EXPECT_EQ(subjects(), (Names{"a1", "a2", "s0", "s2", "s3", "s4", "s5", "s6"}));
    EXPECT_EQ(disk, subjects());
    EXPECT_EQ(log.texts(1),
              Calls{"Gave up the explorer of subject s1 & authority a, which nobody has registered "
                    "since the start: there are 8 explorers, and the peer with the address 1 "
                    "registers another one"});
    add("address 1", "a3");
    EXPECT_EQ(subjects(), (Names{"a2", "a3", "s0", "s2", "s3", "s4", "s5", "s6"}))
        << "its own oldest first";
}

TEST_F(RegistrySharesTest, AmongPeersTheNewcomerIsDropped)
{
    for (const char* peer : {"1", "2", "3", "4"})
        for (const char* number : {"a", "b"})
            add(std::string("address ") + peer, std::string(peer) + number);
    const Names full = subjects();
    EXPECT_EQ(full.size(), 8u);
    const LogCapture log;
    add("address 5", "late");
    EXPECT_EQ(subjects(), full);
    EXPECT_EQ(log.texts(1), Calls{"There are 8 explorers already, another one is dropped"});
    add("address 1", "1c");
    EXPECT_EQ(subjects().count("1c"), 1u);
    EXPECT_EQ(subjects().size(), 8u);
}

TEST_F(RegistrySharesTest, ThisProcessesOwnNeverGo)
{
    for (int i = 0; i < 7; ++i)
        registry.registerPull(of(Registrant::PROCESS, "", "p" + std::to_string(i)));
    add("address 1", "a1");
    add("address 1", "a2");
    EXPECT_EQ(subjects().count("a2"), 0u);
    add("address 1", "p0"); // the contract allows that
    add("address 1", "a3");
    EXPECT_EQ(subjects(), (Names{"a3", "p0", "p1", "p2", "p3", "p4", "p5", "p6"}));
    EXPECT_EQ(registry.takeAll().pull->size(), 8u);
    add("address 1", "a4");
    EXPECT_EQ(subjects(), Names{"a4"});
}

/// The set after a registration that finds no push explorer.
ExplorerSet afterPull(ExplorerSet set, const AutoDereference<ExplorerWrapper>& wrapper)
{
    const auto keeps = [&](const auto& there) {
        return (*there)->getPriority() > wrapper->getPriority();
    };
    const auto found = set.find(wrapper);
    if (found != set.end()) {
        if (keeps(found))
            return set;
        set.erase(found);
    }
    for (auto [hit, inserted] = set.insert(wrapper); !inserted && !keeps(hit);
         std::tie(hit, inserted) = set.insert(wrapper))
        set.erase(hit);
    return set;
}

/// The comparator is not a strict weak ordering, so the shape of the tree decides what `find` and
/// `insert` hit.
TEST_F(RegistryTest, WhereTheOrderIsNotStrictTheSnapshotEqualsAPlainSet)
{
    ExplorerSet expected;
    std::minstd_rand random(7);
    const Calls names{"a", "b", "c", "d", "e", "f"};
    for (int i = 0; i < 500; ++i) {
        const Subject of(names[random() % names.size()]);
        const Authority by(names[random() % names.size()],
                           random() % 3 == 0 ? AT_REMOTEPULL : AT_QMKCLIENT);
        const AutoDereference<ExplorerWrapper> wrapper(
            new ExplorerWrapper(pull.get(), random() % 4, &of, &by));
        registry.registerPull(wrapper);
        expected = afterPull(expected, wrapper);
        const ExplorerSnapshot snapshot = registry.snapshot();
        ASSERT_TRUE(std::equal(snapshot.pull->begin(), snapshot.pull->end(), expected.begin(),
                               expected.end(),
                               [](const auto& a, const auto& b) { return a.get() == b.get(); }))
            << "after " << i;
        ASSERT_EQ(snapshot.pull->find(wrapper) == snapshot.pull->end(),
                  expected.find(wrapper) == expected.end());
    }
}

TEST_F(RegistryTest, WhatIsReplacedGoesWithItsLastSnapshot)
{
    auto first = entry(*pull, "s", 5);
    registry.registerPull(first);
    ExplorerSnapshot snapshot = registry.snapshot();
    registry.registerPull(entry(*pull, "s", 5));
    EXPECT_EQ(first->referenceCount(), 2u) << "the snapshot's";
    snapshot = {};
    EXPECT_EQ(first->referenceCount(), 1u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
