// The registry of explorers: which registration wins, and which explorers a request finds.

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ExplorerFixture.h"
#include "RemoteExplorerPull.h"
#include "ServiceFixture.h"
#include "support/Capture.h"
#include "support/Eventually.h"
#include "support/PluginTree.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Calls;
using QmTest::eventually;
using QmTest::FakePull;
using QmTest::FakePush;
using QmTest::FakeRepository;
using QmTest::LogCapture;

struct ExplorerRegistryTest : testing::Test
{
    ExplorerRegistryTest() { HostConfig::instance().readText("CLIENT_NAME = here\n", "qm.conf"); }

    /// The subjects that a request finds, "none" if it gets no iterator.
    Calls found(const std::string& subject, const std::string& authority) const
    {
        const AutoDereference<DiscoveryIterator> iterator(repository->findPullExplorer(
            DQ_DISCOVERY_DATA, repository->getPullExplorers(), subject, authority));
        if (!iterator)
            return {"none"};
        Calls subjects;
        while (Discovery* next = iterator->getNext()) {
            const AutoDereference<Discovery> discovery(next);
            subjects.push_back(discovery->getSubject()->getSubject().utf8());
        }
        return subjects;
    }

    const AutoDereference<FakeRepository> repository{new FakeRepository};
    const AutoDereference<FakePush> push{new FakePush};
    const AutoDereference<FakePull> pull{new FakePull};
};

TEST_F(ExplorerRegistryTest, APullOfTheSamePriorityReplacesAPush)
{
    repository->push("s", "a", 5, *push);
    repository->pull("s", "a", 5, *pull);
    EXPECT_EQ(repository->pushEntries(), Calls{});
    EXPECT_EQ(repository->pullEntries(), Calls{"s/a 5"});
}

TEST_F(ExplorerRegistryTest, APullDoesNotReplaceAPushOfHigherPriority)
{
    repository->push("s", "a", 6, *push);
    repository->pull("s", "a", 5, *pull);
    EXPECT_EQ(repository->pushEntries(), Calls{"s/a 6"});
    EXPECT_EQ(repository->pullEntries(), Calls{});
}

TEST_F(ExplorerRegistryTest, APushOfTheSamePriorityReplacesNothing)
{
    repository->pull("s", "a", 5, *pull);
    repository->push("s", "a", 5, *push);
    EXPECT_EQ(repository->pushEntries(), Calls{});
    EXPECT_EQ(repository->pullEntries(), Calls{"s/a 5"});

    repository->push("t", "a", 5, *push);
    const AutoDereference<FakePush> other(new FakePush("other"));
    repository->push("t", "a", 5, *other);
    const ExplorerSet set = repository->getPushExplorers();
    ASSERT_EQ(set.size(), 1u);
    EXPECT_EQ((*set.begin())->getExplorer(), push.get());
}

TEST_F(ExplorerRegistryTest, APushOfHigherPriorityReplacesBothKinds)
{
    repository->pull("s", "a", 5, *pull);
    repository->push("s", "a", 6, *push);
    EXPECT_EQ(repository->pushEntries(), Calls{"s/a 6"});
    EXPECT_EQ(repository->pullEntries(), Calls{});
    repository->push("s", "a", 7, *push);
    EXPECT_EQ(repository->pushEntries(), Calls{"s/a 7"});
}

TEST_F(ExplorerRegistryTest, APullOfTheSameOrAHigherPriorityReplacesAPull)
{
    repository->pull("s", "a", 5, *pull);
    const AutoDereference<FakePull> other(new FakePull);
    repository->pull("s", "a", 5, *other);
    ASSERT_EQ(repository->getPullExplorers().size(), 1u);
    EXPECT_EQ((*repository->getPullExplorers().begin())->getExplorer(), other.get());
    repository->pull("s", "a", 4, *pull);
    EXPECT_EQ(repository->pullEntries(), Calls{"s/a 5"});
    repository->pull("S", "A", 6, *pull);
    EXPECT_EQ(repository->pullEntries(), Calls{"S/A 6"});
}

TEST_F(ExplorerRegistryTest, ARegistrationThatWinsIsNotLostWhereTheOrderIsNotStrict)
{
    // The order is not strict: a search for (m, a) and its insertion take different sides of (a,
    // b).
    repository->pull("a", "b", 1, *pull);
    repository->pull("m", "a", 1, *pull);
    const AutoDereference<FakePull> newer(new FakePull);
    repository->pull("m", "a", 2, *newer);
    const ExplorerSet set = repository->getPullExplorers();
    EXPECT_TRUE(std::any_of(set.begin(), set.end(), [&](const auto& wrapper) {
        return wrapper->getExplorer() == newer.get() && wrapper->getPriority() == 2;
    }));
    repository->push("a", "b", 5, *push);
    repository->push("m", "a", 5, *push);
    repository->push("m", "a", 6, *push);
    const Calls entries = repository->pushEntries();
    EXPECT_NE(std::find(entries.begin(), entries.end(), "m/a 6"), entries.end());
}

TEST_F(ExplorerRegistryTest, AnExplorerWithoutANameHasAQuestionMark)
{
    struct Nameless : FakePush
    {
        const char* getExplorerName() const override
        {
            if (throws)
                throw 1;
            return nullptr;
        }
        bool throws = false;
    };
    const AutoDereference<Nameless> nameless(new Nameless);
    repository->push("a", "a", 1, *nameless);
    nameless->throws = true;
    repository->push("b", "a", 1, *nameless);
    for (const ExplorerStatus& each : repository->getExplorerStatus())
        EXPECT_EQ(each.name, "?");
}

TEST_F(ExplorerRegistryTest, WhatLeavesTheSetsGoesWhenTheLockIsFree)
{
    std::thread other;
    struct Last : FakePush
    {
        Last(DiscoveryRepository& of, std::thread& in) : repository(of), other(in) {}
        ~Last() override
        {
            // In another thread, like an explorer that waits for a thread of its own.
            const auto done = std::make_shared<std::atomic<bool>>(false);
            other = std::thread([&of = repository, done] {
                of.getPushExplorers();
                *done = true;
            });
            EXPECT_TRUE(eventually([&] { return done->load(); })) << "the lock is held";
        }
        DiscoveryRepository& repository;
        std::thread& other;
    };
    repository->push("s", "a", 1, *AutoDereference<Last>(new Last(*repository, other)));
    repository->push("s", "a", 2, *push);
    ASSERT_TRUE(other.joinable()) << "it has not gone";
    other.join();
    EXPECT_EQ(repository->pushEntries(), Calls{"s/a 2"});
}

TEST_F(ExplorerRegistryTest, ADroppedRegistrationIsNotLoggedAndLeavesNoReference)
{
    repository->push("s", "a", 6, *push);
    const AutoDereference<FakePush> loser(new FakePush);
    const LogCapture log;
    repository->push("s", "a", 5, *loser);
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_EQ(loser->referenceCount(), 1u);
    EXPECT_EQ(push->referenceCount(), 2u);
}

TEST_F(ExplorerRegistryTest, WithoutAnAuthorityItIsThisHosts)
{
    const Subject subject("s");
    repository->registerExplorer(&subject, static_cast<const ExplorerPush*>(push.get()), 5u,
                                 nullptr);
    const ExplorerSet set = repository->getPushExplorers();
    ASSERT_EQ(set.size(), 1u);
    EXPECT_EQ((*set.begin())->getAuthority()->getName(), TlxString("here"));
    EXPECT_EQ((*set.begin())->getAuthority()->getType(), AT_EXTSRC);
}

TEST_F(ExplorerRegistryTest, WhatIsMissingIsReportedAndRegistersNothing)
{
    const Subject subject("s");
    const AssertionCapture assertions;
    repository->registerExplorer(nullptr, static_cast<const ExplorerPush*>(nullptr), 5u, nullptr);
    repository->registerExplorer(nullptr, static_cast<const ExplorerPull*>(nullptr), 5u, nullptr,
                                 false);
    EXPECT_EQ(assertions.texts(), (Calls{"NULL != subject", "NULL != explorer", "NULL != subject",
                                         "NULL != explorer"}));
    EXPECT_EQ(repository->getExplorerStatus().size(), 0u);
}

TEST_F(ExplorerRegistryTest, DuringTheShutdownNothingIsRegistered)
{
    repository->shutdown();
    const LogCapture log;
    repository->push("s", "a", 5, *push);
    EXPECT_EQ(log.texts(1), Calls{"An explorer that registers during the shutdown is dropped"});
    EXPECT_EQ(repository->pushEntries(), Calls{});
}

/// Registers as many explorers as there may be, and then two more.
template <class Register>
void fillToTheBound(const Register& registerOne)
{
    constexpr std::size_t MOST = DiscoveryRepository::MAX_EXPLORERS;
    static_assert(MOST == 10000);
    LogCapture log;
    for (std::size_t i = 0; i < MOST; ++i)
        registerOne("s" + std::to_string(i), 5);
    EXPECT_EQ(log.texts(1), Calls{});
    registerOne("s10000", 5);
    EXPECT_EQ(log.texts(1), Calls{"There are 10000 explorers already, another one is dropped"});
    log.clear();
    registerOne("s9999", 6); // a known explorer may register again
    EXPECT_EQ(log.texts(1), Calls{});
}

TEST_F(ExplorerRegistryTest, PullRegistrationsAreBounded)
{
    fillToTheBound([this](const std::string& subject, unsigned priority) {
        repository->pull(subject, "a", priority, *pull);
    });
    const Calls entries = repository->pullEntries();
    ASSERT_EQ(entries.size(), DiscoveryRepository::MAX_EXPLORERS);
    EXPECT_EQ(entries.front(), "s0/a 5");
    EXPECT_EQ(entries.back(), "s9999/a 6");
    EXPECT_EQ(std::count(entries.begin(), entries.end(), "s10000/a 5"), 0);
    repository->push("s10000", "a", 5, *push);
    EXPECT_EQ(repository->pushEntries(), Calls{"s10000/a 5"}) << "each kind has a bound of its own";
}

TEST_F(ExplorerRegistryTest, PushRegistrationsAreBounded)
{
    fillToTheBound([this](const std::string& subject, unsigned priority) {
        repository->push(subject, "a", priority, *push);
    });
    const Calls entries = repository->pushEntries();
    ASSERT_EQ(entries.size(), DiscoveryRepository::MAX_EXPLORERS);
    EXPECT_EQ(entries.front(), "s0/a 5");
    EXPECT_EQ(entries.back(), "s9999/a 6");
    EXPECT_EQ(std::count(entries.begin(), entries.end(), "s10000/a 5"), 0);
    repository->pull("s10000", "a", 5, *pull);
    EXPECT_EQ(repository->pullEntries(), Calls{"s10000/a 5"}) << "each kind has a bound of its own";
}

TEST_F(ExplorerRegistryTest, NoLockIsHeldWhileAWalkRunsAnExplorer)
{
    // Another thread registers: a recursive lock would let the thread of the walk pass.
    std::vector<std::thread> threads;
    const auto registerMeanwhile = [&](const std::string& subject) {
        const auto done = std::make_shared<std::atomic<bool>>(false);
        threads.emplace_back([this, subject, done] {
            repository->push(subject, "a", 5, *AutoDereference<FakePush>(new FakePush));
            repository->pull("pull " + subject, "a", 5, *pull);
            repository->triggerPushTimer();
            *done = true;
        });
        EXPECT_TRUE(eventually([&] { return done->load(); })) << "the walk holds a lock";
    };
    push->onStart = [&] { registerMeanwhile("started"); };
    push->onStop = [&] { registerMeanwhile("stopped"); };
    repository->push("s", "a", 5, *push);
    const EngineContext context(true);
    const ExplorerSet walked = repository->getPushExplorers();
    repository->startExplorers(walked, context);
    repository->stopExplorers(walked);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(push->calls, (Calls{"start s of a", "stop s of a"}));
    EXPECT_EQ(walked.size(), 1u);
    EXPECT_EQ(repository->pushEntries(), (Calls{"s/a 5", "started/a 5", "stopped/a 5"}));
    EXPECT_EQ(repository->pullEntries(), (Calls{"pull%20started/a 5", "pull%20stopped/a 5"}));
}

TEST_F(ExplorerRegistryTest, OtherCallsDoNotWaitForARegistrationThatIsBeingStored)
{
    /// A master with a slow store.
    struct SlowStore : FakeRepository
    {
        SlowStore() { master = true; }
        void newDiscovery(AutoDereference<Discovery>&, DiscoveryQuery, const Subject&,
                          const Authority&, const CollectionAttributes&) const override
        {
            inside.set_value();
            EXPECT_EQ(letGo.get_future().wait_for(QmTest::PATIENCE), std::future_status::ready);
        }
        mutable std::promise<void> inside;
        mutable std::promise<void> letGo;
    };
    const AutoDereference<SlowStore> slow(new SlowStore);
    std::thread registration([&slow] {
        const AutoDereference<RemoteExplorerPull> explorer(
            new RemoteExplorerPull("S", "h", "s", "a", AT_EXTSRC));
        const Subject of("s");
        const Authority by("a", AT_EXTSRC);
        slow->registerExplorer(&of, explorer.get(), 5u, &by, false);
    });
    EXPECT_EQ(slow->inside.get_future().wait_for(std::chrono::seconds(10)),
              std::future_status::ready);
    auto others = std::async(std::launch::async, [&] {
        const AutoDereference<DiscoveryIterator> found(
            slow->findPullExplorer(DQ_DISCOVERY_DATA, *slow->pullExplorers(), "s", "a"));
        EXPECT_TRUE(found);
        EXPECT_EQ(slow->getExplorerStatus().size(), 1u);
        slow->push("t", "a", 5, *push);
        EXPECT_EQ(slow->pushEntries(), Calls{"t/a 5"});
        EXPECT_TRUE(AutoDereference<ExplorerDataParser>(slow->getRegisteredExplorerParser("x")));
        slow->triggerPushTimer();
    });
    EXPECT_EQ(others.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    slow->letGo.set_value();
    registration.join();
}

TEST_F(ExplorerRegistryTest, TheFirstMatchAndAllAfterItAreFound)
{
    for (const char* subject : {"A", "B", "C"})
        repository->pull(subject, "x", 5, *pull);
    EXPECT_EQ(found("B", "x"), (Calls{"B", "C"}));
    EXPECT_EQ(found("C", "x"), Calls{"C"});
    EXPECT_EQ(found("*", "*"), (Calls{"A", "B", "C"}));
    EXPECT_EQ(found("?", "x"), (Calls{"A", "B", "C"}));
    EXPECT_EQ(found("D", "x"), Calls{"none"});
    EXPECT_EQ(found("b", "x"), Calls{"none"}) << "letters count";
    EXPECT_EQ(found("B", "y"), Calls{"none"});
}

TEST_F(ExplorerRegistryTest, NamesAreEncodedBeforeTheyAreCompared)
{
    repository->pull("a b%c", "x y", 5, *pull);
    EXPECT_EQ(found("a b%c", "x y"), Calls{"a%20b%25c"});
    EXPECT_EQ(found("a%20b%25c", "x*"), Calls{"a%20b%25c"});
}

TEST_F(ExplorerRegistryTest, TheFirstParserOfATypeStays)
{
    const AutoDereference<DefaultExplorerDataParser> first(new DefaultExplorerDataParser);
    const AutoDereference<DefaultExplorerDataParser> second(new DefaultExplorerDataParser);
    repository->registerExplorerParser("t", first.get());
    repository->registerExplorerParser("t", second.get());
    const AutoDereference<ExplorerDataParser> parser(repository->getRegisteredExplorerParser("t"));
    EXPECT_EQ(parser.get(), first.get());
    EXPECT_EQ(second->referenceCount(), 1u);
}

TEST_F(ExplorerRegistryTest, AnUnknownTypeYieldsTheDefaultParserTheSameEachTime)
{
    const AutoDereference<ExplorerDataParser> one(repository->getRegisteredExplorerParser("x"));
    const AutoDereference<ExplorerDataParser> two(repository->getRegisteredExplorerParser("y"));
    EXPECT_STREQ(one->getExplorerParserName(), "DefaultExplorerParser");
    EXPECT_EQ(one.get(), two.get());
}

TEST_F(ExplorerRegistryTest, TheParsersOfThePluginsAreLoadedOnce)
{
    const QmTest::PluginTree tree;
    tree.addPlugin("good");
    tree.addLibrary("good", "libqmexplorer.so");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this] {
            const AutoDereference<ExplorerDataParser> parser(
                repository->getRegisteredExplorerParser("x"));
            EXPECT_TRUE(parser);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(tree.calls(), Calls(2, "good RegisterExplorerParsers 1"));
}

TEST_F(ExplorerRegistryTest, ExplorersAreStartedPushesFirstAndStoppedSo)
{
    const QmTest::PluginTree tree;
    QmTest::FakeReactor reactor;
    static Calls order;
    struct Recorded : FakePull
    {
        void startExploration(const EngineContext&, const Authority&, const Subject&,
                              AutoDereference<TLXRefCounted>&, DiscoveryFactory* factory) override
        {
            order.push_back(factory ? "start pull" : "start pull without a factory");
        }
        void stopExploration(const Authority&, const Subject&,
                             AutoDereference<TLXRefCounted>&) override
        {
            order.push_back("stop pull");
        }
    };
    struct RecordedPush : FakePush
    {
        void startExploration(const EngineContext&, const Authority&, const Subject&,
                              AutoDereference<TLXRefCounted>&, DiscoveryFactory* factory) override
        {
            order.push_back(factory ? "start push" : "start push without a factory");
        }
        void stopExploration(const Authority&, const Subject&,
                             AutoDereference<TLXRefCounted>&) override
        {
            order.push_back("stop push");
        }
    };
    const AutoDereference<Recorded> recorded(new Recorded);
    const AutoDereference<RecordedPush> recordedPush(new RecordedPush);
    repository->pull("a", "a", 1, *recorded);
    repository->push("z", "z", 1, *recordedPush);
    repository->loadExplorers();
    EXPECT_EQ(reactor.scheduled(), 1) << "the register timer: it is no master";
    repository->shutdown();
    EXPECT_EQ(order, (Calls{"start push", "start pull", "stop push", "stop pull"}));
    repository->fini();
}

TEST_F(ExplorerRegistryTest, ALoadStopsTheExplorersThatItStartsAfterTheShutdown)
{
    const QmTest::PluginTree tree;
    QmTest::FakeReactor reactor;
    const AutoDereference<FakePush> later(new FakePush);
    push->onStart = [this] { std::thread([this] { repository->shutdown(); }).join(); };
    repository->push("s", "a", 1, *push);
    repository->push("t", "a", 1, *later);
    repository->loadExplorers();
    repository->fini();
    // The shutdown stops both explorers. The load still starts the second one, and then stops it
    // again.
    EXPECT_EQ(push->calls, (Calls{"start s of a", "stop s of a", "stop s of a"}));
    EXPECT_EQ(later->calls, (Calls{"stop t of a", "start t of a", "stop t of a"}));
    EXPECT_EQ(reactor.scheduled(), 0);
}

TEST_F(ExplorerRegistryTest, ANullParserIsReported)
{
    const AssertionCapture assertions;
    repository->registerExplorerParser("t", nullptr);
    EXPECT_EQ(assertions.texts(), Calls{"NULL != parser"});
}

TEST_F(ExplorerRegistryTest, TheStatusListsEveryExplorer)
{
    repository->push("s", "a", 5, *push);
    repository->pull("t", "a", 6, *pull, AT_EXTSRC);
    const auto status = repository->getExplorerStatus();
    ASSERT_EQ(status.size(), 2u);
    EXPECT_STREQ(status[0].kind, "push");
    EXPECT_EQ(status[0].name, "push");
    EXPECT_EQ(status[0].subject, "s");
    EXPECT_TRUE(status[0].last.isZero());
    EXPECT_STREQ(status[1].kind, "pull");
    EXPECT_EQ(status[1].priority, 6u);
    EXPECT_EQ(status[1].type, AT_EXTSRC);
    EXPECT_EQ(status[1].library, "");
}

/// The order of the sets.
struct ExplorerOrderTest : testing::Test
{
    AutoDereference<ExplorerWrapper> entry(const std::string& authority, AuthorityType type,
                                           const std::string& subject) const
    {
        const Subject of(subject);
        const Authority by(authority, type);
        return AutoDereference<ExplorerWrapper>(new ExplorerWrapper(push.get(), 1u, &of, &by));
    }
    const AutoDereference<FakePush> push{new FakePush};
    const LtdExplorerWrapper before{};
};

TEST_F(ExplorerOrderTest, ALesserAuthorityComesFirstWhateverTheSubjects)
{
    EXPECT_TRUE(before(entry("a", AT_QMKCLIENT, "z"), entry("b", AT_QMKCLIENT, "a")));
}

TEST_F(ExplorerOrderTest, EqualAuthoritiesAreOrderedBySubject)
{
    EXPECT_TRUE(before(entry("a", AT_QMKCLIENT, "a"), entry("A", AT_QMKCLIENT, "B")));
    EXPECT_FALSE(before(entry("a", AT_QMKCLIENT, "b"), entry("a", AT_QMKCLIENT, "a")));
    EXPECT_FALSE(before(entry("a", AT_QMKCLIENT, "a"), entry("a", AT_QMKCLIENT, "A")));
}

TEST_F(ExplorerOrderTest, AGreaterAuthorityFallsThroughToTheSubjects)
{
    EXPECT_TRUE(before(entry("b", AT_QMKCLIENT, "a"), entry("a", AT_QMKCLIENT, "b")));
    EXPECT_FALSE(before(entry("b", AT_QMKCLIENT, "b"), entry("a", AT_QMKCLIENT, "a")));
    EXPECT_FALSE(before(entry("b", AT_QMKCLIENT, "a"), entry("a", AT_QMKCLIENT, "a")));
}

TEST_F(ExplorerOrderTest, OnlyTheSubjectDistinguishesRemotePulls)
{
    EXPECT_FALSE(before(entry("a", AT_REMOTEPULL, "z"), entry("b", AT_REMOTEPULL, "a")));
    EXPECT_TRUE(before(entry("b", AT_REMOTEPULL, "a"), entry("a", AT_REMOTEPULL, "z")));
    EXPECT_FALSE(before(entry("a", AT_REMOTEPULL, "s"), entry("b", AT_QMKCLIENT, "s")));
}

TEST_F(ExplorerOrderTest, QueriesKnowNoExceptionForRemotePulls)
{
    const LtdExplorerQuery queries{};
    const auto query = [this](const std::string& authority, const std::string& subject) {
        return AutoDereference<ExplorerQuery>(
            new ExplorerQuery(entry(authority, AT_REMOTEPULL, subject)));
    };
    EXPECT_TRUE(queries(query("a", "z"), query("b", "a")));
    EXPECT_TRUE(queries(query("b", "a"), query("a", "b")));
    EXPECT_FALSE(queries(query("b", "b"), query("a", "a")));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
