// Records that pull explorers produce when they are read.

#include "DiscMem.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>

#include "ExplorerFixture.h"
#include "PulledBytes.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Calls;
using QmTest::FakePull;
using QmTest::FakePush;
using QmTest::LogCapture;

struct DiscMemTest : testing::Test
{
    DiscMemTest() { getDiscoveryMemDatbase(); } // made before there are threads, as in the service
    static AutoDereference<ExplorerQuery> query(const Explorer& explorer,
                                                const std::string& subject = "s")
    {
        const AutoDereference<StatusMsg> message(new StatusMsg(4, TlxString("state")));
        const Subject of(subject, message.get());
        const Authority by("a", AT_QMKCLIENT);
        return AutoDereference<ExplorerQuery>(new ExplorerQuery(
            AutoDereference<ExplorerWrapper>(new ExplorerWrapper(&explorer, 3u, &of, &by))));
    }
    static AutoDereference<Discovery> record(const Explorer& explorer)
    {
        return AutoDereference<Discovery>(
            getDiscoveryMemDatbase()->newDiscovery(query(explorer), DQ_FILTER_DATA));
    }
    static std::string read(const Discovery& discovery)
    {
        std::string text;
        char buffer[4];
        while (const std::size_t count =
                   discovery.getCollectionData()->readCollection(sizeof buffer, buffer))
            text.append(buffer, count);
        return text;
    }
    const AutoDereference<FakePull> pull{new FakePull("pulled data")};
};

TEST_F(DiscMemTest, OpeningForReadingAsksTheExplorer)
{
    const auto discovery = record(*pull);
    EXPECT_EQ(discovery->open(OM_READ, "filter").discStatus, DS_SUCCESS);
    EXPECT_EQ(pull->calls, Calls{"2 s of a [filter]"});
    EXPECT_EQ(read(*discovery), "pulled data");
    EXPECT_EQ(read(*discovery), "");
}

TEST_F(DiscMemTest, OpeningAgainStartsAfresh)
{
    const auto discovery = record(*pull);
    discovery->open(OM_READ, "");
    EXPECT_EQ(read(*discovery), "pulled data");
    pull->content = "newer";
    EXPECT_EQ(discovery->open(OM_READ, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(read(*discovery), "newer");
}

TEST_F(DiscMemTest, CollectionsInMemoryHaveABound)
{
    HostConfig::instance().readText("MAX_PULLED_BYTES = 2000\n", "qm.conf");
    pull->content.assign(1000, 'x');
    const auto first = record(*pull);
    const auto second = record(*pull);
    EXPECT_EQ(first->open(OM_READ, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(second->open(OM_READ, "").discStatus, DS_SUCCESS) << "N bytes";
    EXPECT_EQ(PulledBytes::sum(), 2000u);
    pull->content = "y";
    const auto third = record(*pull);
    const LogCapture log;
    EXPECT_EQ(third->open(OM_READ, "").discStatus, DS_OPEN_FAILED) << "N + 1 bytes";
    EXPECT_EQ(read(*third), "");
    ASSERT_EQ(log.texts(1).size(), 1u);
    EXPECT_NE(log.texts(1)[0].find(" delivers more than fits after 0 bytes: all collections in "
                                   "memory may have 2000 bytes (MAX_PULLED_BYTES)"),
              std::string::npos)
        << log.texts(1)[0];
    EXPECT_EQ(read(*first).size(), 1000u);
    EXPECT_EQ(first->open(OM_READ, "").discStatus, DS_SUCCESS) << "opened again, it is smaller";
    EXPECT_EQ(third->open(OM_READ, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(PulledBytes::sum(), 1002u);
}

TEST_F(DiscMemTest, AFailedWriteFailsThePullEvenIfTheExplorerIgnoresIt)
{
    HostConfig::instance().readText("MAX_PULLED_BYTES = 2000\n", "qm.conf");
    class Careless : public FakePull
    {
      public:
        bool collectionRequested(DiscoveryQuery, const Authority&, const Subject&,
                                 AutoDereference<TLXRefCounted>&, const char*,
                                 CollectionData* data) override
        {
            const std::string part(1500, 'x');
            first = data->writeCollection(part.size(), part.data());
            second = data->writeCollection(part.size(), part.data());
            third = data->writeCollection(1, part.data());
            return true;
        }
        bool first = false;
        bool second = true;
        bool third = true;
    };
    const AutoDereference<Careless> careless(new Careless);
    const auto discovery = record(*careless);
    EXPECT_EQ(discovery->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_TRUE(careless->first);
    EXPECT_FALSE(careless->second);
    EXPECT_FALSE(careless->third);
    EXPECT_EQ(read(*discovery), "");
    EXPECT_EQ(PulledBytes::sum(), 0u);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need address space
TEST_F(DiscMemTest, WithoutMemoryAPullFails)
{
    pull->content.assign(64u << 20, 'x');
    HostConfig::instance().readText("MAX_PULLED_BYTES = 1073741824\n", "qm.conf");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_AS, &before), 0);
    pull->onPull = [&] {
        const rlimit tight{4096, before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_AS, &tight), 0);
    };
    const auto discovery = record(*pull);
    const DiscoveryResult result = discovery->open(OM_READ, "");
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &before), 0);
    EXPECT_EQ(result.discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(read(*discovery), "");
    EXPECT_EQ(PulledBytes::sum(), 0u);
}
#endif

TEST_F(DiscMemTest, WhatMakesRoomIsAskedUntilThereIsEnough)
{
    PulledBytes one;
    PulledBytes two;
    EXPECT_TRUE(one.add(600, 1000));
    EXPECT_TRUE(two.add(400, 1000));
    std::vector<PulledBytes*> idle{&two, &one};
    PulledBytes::setMakeRoom([&] {
        if (idle.empty())
            return false;
        idle.back()->release();
        idle.pop_back();
        return true;
    });
    PulledBytes three;
    EXPECT_FALSE(three.add(1001, 1000));
    EXPECT_EQ(idle.size(), 2u) << "what does not fit alone costs nobody his";
    EXPECT_TRUE(three.add(700, 1000));
    EXPECT_TRUE(idle.empty());
    EXPECT_FALSE(three.add(301, 1000));
    EXPECT_TRUE(three.add(300, 1000));
    PulledBytes::setMakeRoom({});
}

TEST_F(DiscMemTest, WhatWasNeverOpenedIsEmpty)
{
    EXPECT_EQ(read(*record(*pull)), "");
}

TEST_F(DiscMemTest, UpdatingAndPersistingDoNothing)
{
    const auto discovery = record(*pull);
    EXPECT_EQ(discovery->open(OM_UPDATE, nullptr).discStatus, DS_SUCCESS);
    EXPECT_EQ(discovery->persist().discStatus, DS_SUCCESS);
    EXPECT_EQ(pull->calls, Calls{});
}

TEST_F(DiscMemTest, AnExplorerThatDeliversNothingFailsTheOpen)
{
    pull->answer = false;
    EXPECT_EQ(record(*pull)->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
}

TEST_F(DiscMemTest, AnExplorerThatThrowsFailsThatPullOnly)
{
    pull->onPull = [] { throw std::runtime_error("broken"); };
    const auto discovery = record(*pull);
    const LogCapture log;
    EXPECT_EQ(discovery->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), Calls{"Explorer pull, collectionRequested for s of a failed: broken"});
    EXPECT_EQ(read(*discovery), "");
    pull->onPull = {};
    EXPECT_EQ(discovery->open(OM_READ, "").discStatus, DS_SUCCESS);
}

TEST_F(DiscMemTest, ItNeedsAPullExplorerAndAnArgument)
{
    const AutoDereference<FakePush> push(new FakePush);
    const AssertionCapture assertions;
    EXPECT_EQ(record(*push)->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(record(*pull)->open(OM_READ, nullptr).discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(assertions.texts(), (Calls{"NULL != exp", "filterParmaetersXml"}));
    EXPECT_EQ(pull->calls, Calls{});
}

TEST_F(DiscMemTest, AnEmptySetYieldsNothing)
{
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryMemDatbase()->getIterator({}, DQ_DISCOVERY_DATA));
    EXPECT_EQ(iterator->getNext(), nullptr);
    EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST_F(DiscMemTest, EveryQueryIsOneRecordInTheSetsOrder)
{
    const ExplorerQuerySet queries{query(*pull, "c"), query(*pull, "a b"), query(*pull, "b")};
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryMemDatbase()->getIterator(queries, DQ_DISCOVERY_DATA));
    Calls subjects;
    while (Discovery* next = iterator->getNext()) {
        const AutoDereference<Discovery> discovery(next);
        subjects.push_back(discovery->getSubject()->getSubject().utf8() + " " +
                           discovery->getSubject()->getSubjectFileName().utf8() + " " +
                           discovery->getAuthority()->getName().utf8());
        EXPECT_EQ(discovery->getAuthority()->getType(), AT_QMKCLIENT);
        ASSERT_TRUE(discovery->getSubject()->getStatusMsg());
        EXPECT_EQ(discovery->getQuery(), DQ_DISCOVERY_DATA);
    }
    EXPECT_EQ(subjects, (Calls{"a%20b a%20b a", "b b a", "c c a"}));
    EXPECT_EQ(iterator->getNext(), nullptr);
}

/// A pull explorer that keeps its calls inside until the test releases them.
struct SlowPull : FakePull // it keeps no list of calls, because many threads are in it
{
    using FakePull::FakePull;
    bool collectionRequested(DiscoveryQuery, const Authority&, const Subject&,
                             AutoDereference<TLXRefCounted>&, const char*, CollectionData*) override
    {
        ++inside;
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return leaving > 0; });
        --leaving;
        return true;
    }
    void letGo(unsigned count)
    {
        const std::lock_guard lock(mutex);
        leaving = count;
        changed.notify_all();
    }
    std::atomic<unsigned> inside{0};
    std::mutex mutex;
    std::condition_variable changed;
    unsigned leaving = 0; ///< the number of calls that may return
};

TEST_F(DiscMemTest, PullsInFlightAreBounded)
{
    const AutoDereference<SlowPull> slow(new SlowPull);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < MemCollectionData::MAX_PULLS; ++i)
        threads.emplace_back([&] { EXPECT_TRUE(isSuccess(record(*slow)->open(OM_READ, ""))); });
    while (slow->inside < MemCollectionData::MAX_PULLS)
        std::this_thread::yield();
    const LogCapture log;
    EXPECT_EQ(record(*pull)->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1),
              Calls{"Explorer pull is not asked: 32 explorers are being asked already"});
    slow->letGo(MemCollectionData::MAX_PULLS);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(record(*pull)->open(OM_READ, "").discStatus, DS_SUCCESS);
}

/// Runs a function once, while a thread logs the refusal.
struct OnRefusal : LogSink
{
    void write(const Line& line) override
    {
        if (line.text.find("are being asked already") != std::string::npos && onRefusal)
            std::exchange(onRefusal, {})();
    }
    std::function<void()> onRefusal;
};

TEST_F(DiscMemTest, ARefusedPullThatIsStillLoggingKeepsNobodyOut)
{
    const AutoDereference<SlowPull> slow(new SlowPull);
    std::vector<std::thread> threads;
    std::atomic<unsigned> over{0};
    for (unsigned i = 0; i < MemCollectionData::MAX_PULLS; ++i)
        threads.emplace_back([&] {
            EXPECT_TRUE(isSuccess(record(*slow)->open(OM_READ, "")));
            ++over;
        });
    while (slow->inside < MemCollectionData::MAX_PULLS)
        std::this_thread::yield();
    std::future<DiscoveryResult> next;
    std::future_status answered = std::future_status::deferred;
    const auto sink = std::make_shared<OnRefusal>();
    sink->onRefusal = [&] {
        slow->letGo(1);
        while (over == 0)
            std::this_thread::yield();
        // Use another thread and a time limit, because a refused call waits for the sink.
        next = std::async(std::launch::async, [&] { return record(*pull)->open(OM_READ, ""); });
        answered = next.wait_for(std::chrono::seconds(5));
    };
    LoggerFactory::instance().setLevel(LOG_LEVEL_FAILURE);
    LoggerFactory::instance().setSink(sink);
    EXPECT_EQ(record(*pull)->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    LoggerFactory::instance().setSink(nullptr);
    EXPECT_EQ(answered, std::future_status::ready) << "while the refused one was logging";
    ASSERT_TRUE(next.valid());
    EXPECT_TRUE(isSuccess(next.get()));
    slow->letGo(MemCollectionData::MAX_PULLS);
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
