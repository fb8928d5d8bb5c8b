// The registry alone: snapshots, and registrations at the same moment.

#include "ExplorerRegistry.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "ExplorerFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Calls;
using QmTest::FakePull;
using QmTest::FakePush;
using QmTest::FakeRepository;
using QmTest::LogCapture;
using namespace std::chrono_literals;

constexpr std::size_t MOST = 100;

AutoDereference<ExplorerWrapper> entry(const Explorer& explorer, const std::string& subject,
                                       unsigned priority)
{
    const Subject of(subject);
    const Authority by("a", AT_QMKCLIENT);
    return AutoDereference<ExplorerWrapper>(new ExplorerWrapper(&explorer, priority, &of, &by));
}

/// A store that waits for the test.
class HeldStore
{
  public:
    /// Waits until the test releases it.
    void operator()()
    {
        m_inside.set_value();
        m_letGo.get_future().wait();
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

    ExplorerRegistry registry{MOST};
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

TEST_F(RegistryTest, ManyThreadsReadWhileOthersRegister)
{
    std::atomic<bool> over{false};
    std::atomic<bool> torn{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i)
        readers.emplace_back([&] {
            while (!over) {
                const ExplorerSnapshot snapshot = registry.snapshot();
                std::size_t count = 0;
                for (const auto& wrapper : *snapshot.pull)
                    count += wrapper->getPriority() == 5 ? 1 : 0;
                if (count != snapshot.pull->size())
                    torn = true;
            }
        });
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i)
        writers.emplace_back([&, i] {
            for (int j = 0; j < 40; ++j)
                registry.registerPull(entry(*pull, std::to_string(i * 100 + j), 5));
        });
    for (std::thread& each : writers)
        each.join();
    over = true;
    for (std::thread& each : readers)
        each.join();
    EXPECT_FALSE(torn);
    EXPECT_EQ(registry.snapshot().pull->size(), 80u);
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
    while (pulls() != Calls{"s/a 6"})
        std::this_thread::yield();
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
    while (pulls() != Calls{"s/a 5", "z/a 1"})
        std::this_thread::yield();
    std::thread winner(
        [&] { registry.registerPull(entry(*pull, "s", 6), [&] { stored.push_back("winner"); }); });
    while (pulls() != Calls{"s/a 6", "z/a 1"})
        std::this_thread::yield();
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
    while (pulls() != Calls{"s/a 5", "z/a 1"})
        std::this_thread::yield();
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
    while (pulls() != Calls{"s/a 5", "z/a 1"})
        std::this_thread::yield();
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
    ExplorerRegistry small(2);
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

TEST_F(RegistryTest, ABatchIsPublishedAtItsEnd)
{
    {
        const ExplorerRegistry::Batch batch(registry);
        registry.registerPull(entry(*pull, "s", 5));
        registry.registerPush(entry(*push, "t", 5));
        registry.registerPull(entry(*pull, "s", 4));
        EXPECT_EQ(pulls(), Calls{});
    }
    EXPECT_EQ(pulls(), Calls{"s/a 5"});
    EXPECT_EQ(pushes(), Calls{"t/a 5"});
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
