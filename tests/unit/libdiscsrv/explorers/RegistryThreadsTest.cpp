// The registry under many threads: every snapshot shows whole changes, and loses no registration.

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <map>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "DiscMem.h"
#include "ExplorerFixture.h"
#include "ExplorerRegistry.h"
#include "PullExplorers.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::entry;
using QmTest::FakePull;
using QmTest::FakePush;
using Entry = AutoDereference<ExplorerWrapper>;

constexpr unsigned WRITERS = 8;
constexpr unsigned READERS = 24;
constexpr unsigned NAMES = 8; ///< each writer has names of its own
constexpr unsigned ROUNDS = 200;
constexpr unsigned QUERIES = 60;
constexpr unsigned GLANCES = 300; ///< cheap looks for each walk, so that many meet a change

std::string nameOf(unsigned writer, unsigned index)
{
    return "w" + std::to_string(writer) + "n" + std::to_string(index);
}

/// Runs all threads at the same moment, and waits for their end.
void runTogether(const std::vector<std::function<void()>>& bodies)
{
    std::latch start(static_cast<std::ptrdiff_t>(bodies.size()));
    std::vector<std::thread> threads;
    threads.reserve(bodies.size());
    for (const auto& body : bodies)
        threads.emplace_back([&start, &body] {
            start.arrive_and_wait();
            body();
        });
    for (std::thread& thread : threads)
        thread.join();
}

/// Counts what must not happen, because one report each time would fill the log. Any thread.
class Faults
{
  public:
    void note(bool good, const char* what)
    {
        if (good)
            return;
        const std::lock_guard guard(m_mutex);
        ++m_counts[what];
    }
    std::map<std::string, int> counts() const
    {
        const std::lock_guard guard(m_mutex);
        return m_counts;
    }

  private:
    mutable std::mutex m_mutex;
    std::map<std::string, int> m_counts;
};

struct RegistryThreadsTest : testing::Test
{
    /// From the start every name is registered: as a pull explorer with an even priority, or as a
    /// push explorer with an odd one. Each change raises the priority of a name.
    RegistryThreadsTest()
    {
        // ACE checks without a lock whether its singleton exists. So the test makes it before a
        // second thread runs.
        (void)getDiscoveryMemDatbase();
        for (unsigned writer = 0; writer < WRITERS; ++writer)
            for (unsigned index = 0; index < NAMES; ++index)
                registerAs(nameOf(writer, index), 2);
    }

    void registerAs(const std::string& name, unsigned priority)
    {
        if (priority % 2 == 0)
            registry.registerPull(entry(*pull, name, priority), [this] {
                faults.note(!storing.exchange(true), "two are stored at once");
                ++stored;
                storing = false;
            });
        else
            registry.registerPush(entry(*push, name, priority));
    }

    /// The priority of each name in one snapshot.
    std::map<std::string, unsigned> walk(const ExplorerSnapshot& snapshot)
    {
        std::map<std::string, unsigned> priorities;
        for (const auto* set : {snapshot.push.get(), snapshot.pull.get()}) {
            std::size_t count = 0;
            const ExplorerWrapper* previous = nullptr;
            for (const Entry& each : *set) {
                const std::string name = each->getSubject()->getSubject().utf8();
                const bool isPull = set == snapshot.pull.get();
                faults.note((each->getPriority() % 2 == 0) == isPull, "it is in the wrong set");
                faults.note(priorities.emplace(name, each->getPriority()).second,
                            "it is there twice");
                faults.note(!previous || *each->getSubject() > *previous->getSubject(), "no order");
                previous = each.get();
                ++count;
            }
            faults.note(count == set->size(), "the size is wrong");
        }
        faults.note(priorities.size() == WRITERS * NAMES, "one is lost");
        return priorities;
    }

    void write(unsigned writer)
    {
        for (unsigned round = 1; round <= ROUNDS; ++round)
            for (unsigned index = 0; index < NAMES; ++index) {
                const std::string name = nameOf(writer, index);
                // Move the name to the push explorers and back, then replace the pull explorer.
                for (const unsigned priority : {4 * round - 1, 4 * round, 4 * round + 2})
                    registerAs(name, priority);
                const Entry like = entry(*pull, name, 0);
                const ExplorerSnapshot after = registry.snapshot();
                const auto found = after.pull->find(like);
                faults.note(found != after.pull->end() && (*found)->getPriority() == 4 * round + 2,
                            "its own registration is missing");
            }
    }

    void read(unsigned reader)
    {
        std::map<std::string, unsigned> before;
        for (unsigned query = 0; query < QUERIES; ++query) {
            for (unsigned i = 0; i < GLANCES; ++i) {
                const ExplorerSnapshot glance = registry.snapshot();
                faults.note(glance.push->size() + glance.pull->size() == WRITERS * NAMES,
                            "half a change");
            }
            const ExplorerSnapshot snapshot = registry.snapshot();
            const auto now = walk(snapshot);
            for (const auto& [name, priority] : before) {
                const auto seen = now.find(name);
                faults.note(seen != now.end() && seen->second >= priority, "it goes back in time");
            }
            // The same snapshot, after others have changed the registry.
            faults.note(walk(snapshot) == now, "a snapshot changes");
            const std::string name = nameOf(reader % WRITERS, query % NAMES);
            const Entry like = entry(*pull, name, 0);
            const bool isPush = snapshot.push->find(like) != snapshot.push->end();
            const bool isPull = snapshot.pull->find(like) != snapshot.pull->end();
            faults.note(isPush != isPull, "find misses it");
            const AutoDereference<DiscoveryIterator> iterator(
                findPullExplorers(DQ_DISCOVERY_DATA, *snapshot.pull, name, "a"));
            faults.note((iterator.get() != nullptr) == isPull, "a query misses it");
            before = now;
        }
    }

    const AutoDereference<FakePush> push{new FakePush};
    const AutoDereference<FakePull> pull{new FakePull};
    ExplorerRegistry registry{WRITERS * NAMES, WRITERS* NAMES};
    Faults faults;
    std::atomic<bool> storing{false};
    std::atomic<unsigned> stored{0};
};

TEST_F(RegistryThreadsTest, EverySnapshotShowsWholeChanges)
{
    std::vector<std::function<void()>> bodies;
    for (unsigned writer = 0; writer < WRITERS; ++writer)
        bodies.emplace_back([this, writer] { write(writer); });
    for (unsigned reader = 0; reader < READERS; ++reader)
        bodies.emplace_back([this, reader] { read(reader); });
    runTogether(bodies);
    for (const auto& [name, priority] : walk(registry.snapshot()))
        EXPECT_EQ(priority, 4 * ROUNDS + 2) << name;
    EXPECT_EQ(stored, WRITERS * NAMES * (1 + 2 * ROUNDS)) << "each pull explorer";
    EXPECT_EQ(faults.counts(), (std::map<std::string, int>{}));
}

TEST_F(RegistryThreadsTest, WhatIsTakenAwayIsTakenOnce)
{
    constexpr unsigned TAKERS = 4;
    constexpr unsigned TAKES = 2000; ///< of each taker
    std::mutex mutex;
    std::vector<std::string> taken;
    const auto take = [&] {
        const ExplorerSnapshot all = registry.takeAll();
        const std::lock_guard guard(mutex);
        for (const auto* set : {all.push.get(), all.pull.get()})
            for (const Entry& each : *set)
                taken.push_back(each->getSubject()->getSubject().utf8() + " " +
                                std::to_string(each->getPriority()));
    };
    take();
    EXPECT_EQ(taken.size(), WRITERS * NAMES);
    taken.clear();
    std::vector<std::function<void()>> bodies;
    for (unsigned writer = 0; writer < WRITERS; ++writer)
        bodies.emplace_back([this, writer] {
            // Each registration of a name has a new priority. If no taker comes in between, the
            // last registration of a name stays.
            for (unsigned round = 0; round < ROUNDS; ++round)
                for (unsigned index = 0; index < NAMES; ++index)
                    registerAs(nameOf(writer, index), 3 + round);
        });
    for (unsigned taker = 0; taker < TAKERS; ++taker)
        bodies.emplace_back([&] {
            for (unsigned i = 0; i < TAKES; ++i)
                take();
        });
    for (unsigned reader = 0; reader < READERS; ++reader)
        bodies.emplace_back([this] {
            for (unsigned i = 0; i < TAKES; ++i) {
                const ExplorerSnapshot snapshot = registry.snapshot();
                const std::size_t size = snapshot.push->size() + snapshot.pull->size();
                faults.note(size <= WRITERS * NAMES, "there are too many");
                faults.note(static_cast<std::size_t>(
                                std::distance(snapshot.push->begin(), snapshot.push->end()) +
                                std::distance(snapshot.pull->begin(), snapshot.pull->end())) ==
                                size,
                            "a snapshot changes");
            }
        });
    runTogether(bodies);
    take();
    EXPECT_EQ(registry.snapshot().push->size() + registry.snapshot().pull->size(), 0u);
    const std::set<std::string> once(taken.begin(), taken.end());
    EXPECT_EQ(once.size(), taken.size()) << "one was taken twice";
    for (unsigned writer = 0; writer < WRITERS; ++writer)
        for (unsigned index = 0; index < NAMES; ++index)
            EXPECT_EQ(once.count(nameOf(writer, index) + " " + std::to_string(2 + ROUNDS)), 1u)
                << "the last registration is lost";
    EXPECT_EQ(faults.counts(), (std::map<std::string, int>{}));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
