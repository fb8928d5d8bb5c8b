// The registry of the iterators and writers that clients hold.

#include "OpenObjects.h"

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CollectionDataIterator_i.h"
#include "DiscMem.h"
#include "DiscoveryIterator_i.h"
#include "DiscoveryRepository.h"
#include "DiscoveryService_i.h"
#include "ExplorerFixture.h"
#include "OpenObjectsFixture.h"
#include "PulledBytes.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {
namespace {

using namespace std::chrono_literals;
using QmTest::counter;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::named;

/// Counts how many live.
class Counted : public DiscoveryIterator_i
{
  public:
    explicit Counted(std::atomic<int>& alive) : DiscoveryIterator_i(nullptr), m_alive(alive)
    {
        ++m_alive;
    }
    ~Counted() override { --m_alive; }

  private:
    std::atomic<int>& m_alive;
};

/// A client's view of an object.
struct Held
{
    DiscoveryIterator_var reference;
    std::shared_ptr<ServantActivity> activity;

    bool isThere() const
    {
        try {
            reference->pageSize();
            return true;
        } catch (const CORBA::OBJECT_NOT_EXIST&) {
            return false;
        }
    }
};

struct OpenObjectsTest : QmTest::Registry
{
    Held iterator(const char* peer)
    {
        const RequestPeerMark mark({peer, ""});
        PortableServer::Servant_var<Counted> servant(new Counted(alive));
        auto admission = openObjects().admit(OpenKind::DiscoveryIterator, *servant.in());
        if (!admission.isAdmitted())
            return {};
        const CORBA::Object_var object = admission.activate();
        Held held{DiscoveryIterator::_narrow(object), servant->activity()};
        admission.keep();
        return held;
    }

    std::atomic<int> alive{0};
};

TEST_F(OpenObjectsTest, AnObjectIsReachableAndOwnedUntilItsEnd)
{
    limit({10, 10, 10, 0s});
    const Held held = iterator("192.0.2.1");
    EXPECT_EQ(alive, 1);
    EXPECT_TRUE(held.isThere());
    EXPECT_EQ(openObjects().iteratorsOpen(), 1u);
    held.reference->release();
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(held.isThere());
    EXPECT_EQ(openObjects().iteratorsOpen(), 0u);
    EXPECT_EQ(counter("iteratorsHighest"), 1u);
}

TEST_F(OpenObjectsTest, WhateverFailsOnTheWayLeavesNothing)
{
    limit({10, 10, 10, 0s});
    CORBA::Object_var object;
    {
        PortableServer::Servant_var<Counted> servant(new Counted(alive));
        auto admission = openObjects().admit(OpenKind::DiscoveryIterator, *servant.in());
        EXPECT_EQ(openObjects().iteratorsOpen(), 1u) << "registered before it is active";
        object = admission.activate();
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(openObjects().iteratorsOpen(), 0u);
    const DiscoveryIterator_var reference = DiscoveryIterator::_narrow(object);
    EXPECT_THROW(reference->pageSize(), CORBA::OBJECT_NOT_EXIST);
    {
        PortableServer::Servant_var<Counted> servant(new Counted(alive));
        auto admission = openObjects().admit(OpenKind::DiscoveryIterator, *servant.in());
        openObjects().poa()->destroy(false, true);
        EXPECT_THROW(admission.activate(), CORBA::SystemException);
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(openObjects().iteratorsOpen(), 0u);
}

TEST_F(OpenObjectsTest, AfterTheStopNothingIsLetIn)
{
    openObjects().stop();
    PortableServer::Servant_var<Counted> servant(new Counted(alive));
    EXPECT_THROW((void)openObjects().admit(OpenKind::DiscoveryIterator, *servant.in()),
                 CORBA::OBJ_ADAPTER);
    openObjects().stop();
}

TEST_F(OpenObjectsTest, KeysAre128RandomBits)
{
    limit({1000, 1000, 10, 0s});
    std::set<std::string> ids;
    for (int i = 0; i < 200; ++i) {
        const Held held = iterator("192.0.2.1");
        PortableServer::ObjectId_var id = openObjects().poa()->reference_to_id(held.reference);
        ASSERT_EQ(id->length(), 16u);
        ids.emplace(reinterpret_cast<const char*>(id->get_buffer()), id->length());
    }
    EXPECT_EQ(ids.size(), 200u);
    // In none of the 16 places do all keys have one value.
    for (std::size_t place = 0; place < 16; ++place) {
        std::set<char> values;
        for (const std::string& id : ids)
            values.insert(id[place]);
        EXPECT_GT(values.size(), 50u) << place;
    }
}

TEST_F(OpenObjectsTest, WithoutRandomNumbersTheRequestIsRefused)
{
    limit({10, 10, 10, 0s});
    OpenObjects::setRandom([](void*, std::size_t) { return false; });
    const LogCapture log;
    const PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    RemoteWriter_var reference;
    EXPECT_EQ(servant->putCollection(named("cl1"), reference.out()).discStatus, DS_OPEN_FAILED);
    EXPECT_TRUE(CORBA::is_nil(reference));
    EXPECT_THROW(servant->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*"),
                 CORBA::NO_RESOURCES);
    OpenObjects::setRandom(nullptr);
    EXPECT_EQ(log.texts(1),
              (Lines{"Refused a writer of subject cl1 & authority srv1: the system has no random "
                     "numbers",
                     "Refused a discovery iterator: the system has no random numbers",
                     "Caught CORBA exception creating object reference to discovery iterator",
                     "NO_RESOURCES (minor 0x00000000, COMPLETED_NO)"}));
    EXPECT_FALSE(hasPayload(0));
}

TEST_F(OpenObjectsTest, BeyondItsShareAPeerLosesItsLongestIdleIterator)
{
    limit({10, 3, 10, 0s});
    const Held other = iterator("192.0.2.9");
    const Held first = iterator("192.0.2.1");
    const Held second = iterator("192.0.2.1");
    const Held third = iterator("192.0.2.1");
    EXPECT_TRUE(first.isThere()) << "N iterators";
    EXPECT_EQ(counter("iteratorsGivenUp"), 0u);
    first.activity->begin(); // used after the others
    first.activity->end();
    const LogCapture log;
    const Held fourth = iterator("192.0.2.1");
    EXPECT_FALSE(second.isThere()) << "N + 1 iterators";
    for (const Held* const held : {&other, &first, &third, &fourth})
        EXPECT_TRUE(held->isThere());
    EXPECT_EQ(alive, 4);
    EXPECT_EQ(openObjects().iteratorsOpen(), 4u);
    EXPECT_EQ(counter("iteratorsGivenUp"), 1u);
    EXPECT_EQ(
        log.texts(1),
        Lines{"Gave up 1 idle iterators to make room (MAX_ITERATORS, MAX_ITERATORS_PER_PEER), "
              "the last one of peer 192.0.2.1"});
}

TEST_F(OpenObjectsTest, ABusyIteratorStays)
{
    limit({10, 2, 10, 0s});
    const Held first = iterator("192.0.2.1");
    const Held second = iterator("192.0.2.1");
    first.activity->begin();
    const Held third = iterator("192.0.2.1");
    EXPECT_FALSE(second.isThere());
    third.activity->begin();
    const LogCapture log;
    const Held fourth = iterator("192.0.2.1");
    EXPECT_TRUE(CORBA::is_nil(fourth.reference)) << "a request runs in each";
    EXPECT_EQ(counter("iteratorsRefused"), 1u);
    EXPECT_EQ(log.texts(1),
              Lines{"Refused a discovery iterator of peer 192.0.2.1: too many iterators are open "
                    "(MAX_ITERATORS, MAX_ITERATORS_PER_PEER), and a request runs in each"});
    first.activity->end();
    third.activity->end();
    EXPECT_TRUE(first.isThere());
    EXPECT_TRUE(third.isThere());
}

TEST_F(OpenObjectsTest, AtTheTotalBoundThePeerWithTheMostLosesOne)
{
    limit({5, 3, 10, 0s});
    const Held oldest = iterator("192.0.2.9");
    const Held first = iterator("192.0.2.1");
    const Held second = iterator("192.0.2.1");
    const Held third = iterator("192.0.2.1");
    const Held fifth = iterator("192.0.2.2");
    EXPECT_TRUE(first.isThere());
    const Held sixth = iterator("192.0.2.2");
    EXPECT_EQ(openObjects().iteratorsOpen(), 5u);
    EXPECT_FALSE(first.isThere());
    for (const Held* const held : {&oldest, &second, &third, &fifth, &sixth})
        EXPECT_TRUE(held->isThere());
}

TEST_F(OpenObjectsTest, AtTheTotalBoundABusyPeerPassesTheLossOn)
{
    limit({3, 3, 10, 0s});
    const Held small = iterator("192.0.2.9");
    const Held first = iterator("192.0.2.1");
    const Held second = iterator("192.0.2.1");
    first.activity->begin();
    second.activity->begin();
    const Held fourth = iterator("192.0.2.2");
    EXPECT_FALSE(small.isThere());
    fourth.activity->begin();
    EXPECT_TRUE(CORBA::is_nil(iterator("192.0.2.2").reference));
    for (const Held* const held : {&first, &second, &fourth})
        held->activity->end();
}

TEST_F(OpenObjectsTest, ThisProcessHasNoShareButCountsInTotal)
{
    limit({3, 1, 1, 0s});
    const auto own = [this] {
        const PortableServer::Servant_var<Counted> servant(new Counted(alive));
        auto admission = openObjects().admit(OpenKind::DiscoveryIterator, *servant.in());
        const CORBA::Object_var object = admission.activate();
        admission.keep();
    };
    for (int i = 0; i < 4; ++i)
        own();
    EXPECT_EQ(openObjects().iteratorsOpen(), 3u);
    EXPECT_EQ(alive, 3);
}

TEST_F(OpenObjectsTest, ManyLossesAreOneLineASecond)
{
    limit({10, 1, 10, 0s});
    const LogCapture log;
    for (int i = 0; i < 5; ++i)
        iterator("192.0.2.1");
    EXPECT_EQ(log.texts(1).size(), 1u);
    now += 1s;
    iterator("192.0.2.1");
    ASSERT_EQ(log.texts(1).size(), 2u);
    EXPECT_EQ(log.texts(1)[1].substr(0, 25), "Gave up 4 idle iterators ");
    EXPECT_EQ(counter("iteratorsGivenUp"), 5u);
}

TEST_F(OpenObjectsTest, TheEvictorEmptiesTheRegistryToo)
{
    limit({10, 10, 10, 0s});
    const Held held = iterator("192.0.2.1");
    PortableServer::ObjectId_var id = openObjects().poa()->reference_to_id(held.reference);
    service.orb->getEvictor().addObject(TlxObjTime(0, 0), openObjects().poa(), id,
                                        PortableServer::ObjectId());
    // The evictor's own thread may be the one that evicts it.
    for (int i = 0; i < 10000 && openObjects().iteratorsOpen() > 0; ++i) {
        service.orb->getEvictor().evictIdle();
        std::this_thread::yield();
    }
    EXPECT_EQ(openObjects().iteratorsOpen(), 0u);
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(held.isThere());
    EXPECT_EQ(counter("iteratorsGivenUp"), 0u);
}

TEST_F(OpenObjectsTest, TenThousandIteratorsWakeTheEvictorOnce)
{
    limit({10000, 10000, 10, 0s});
    const RequestPeerMark mark({"192.0.2.1", ""});
    const PortableServer::Servant_var<DiscoveryService_i> servant(new DiscoveryService_i);
    const auto before = service.orb->getEvictor().work();
    std::vector<DiscoveryIterator_var> held;
    for (int i = 0; i < 10000; ++i)
        held.emplace_back(servant->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*"));
    EXPECT_EQ(openObjects().iteratorsOpen(), 10000u);
    EXPECT_EQ(service.orb->getEvictor().watched(), 10000u);
    const auto after = service.orb->getEvictor().work();
    EXPECT_EQ(after.wakeUps - before.wakeUps, 1u);
    EXPECT_EQ(after.examined, before.examined);
    const DiscoveryIterator_var more =
        servant->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "*");
    EXPECT_EQ(openObjects().iteratorsOpen(), 10000u);
    EXPECT_EQ(service.orb->getEvictor().watched(), 10000u);
    EXPECT_THROW(held.front()->pageSize(), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(OpenObjectsTest, PulledCollectionsMakeRoomForOthers)
{
    limit({10, 10, 10, 0s});
    const AutoDereference<QmTest::FakePull> explorer(new QmTest::FakePull(std::string(1000, 'x')));
    const Subject subject("s");
    const Authority authority("a", AT_QMKCLIENT);
    const AutoDereference<ExplorerQuery> query(new ExplorerQuery(AutoDereference<ExplorerWrapper>(
        new ExplorerWrapper(explorer.get(), 3u, &subject, &authority))));
    const auto pull = [&](const char* peer) {
        const RequestPeerMark mark({peer, ""});
        const AutoDereference<Tlx::DiscoverySvc::Discovery> record(
            getDiscoveryMemDatbase()->newDiscovery(query, DQ_DISCOVERY_DATA));
        const PortableServer::Servant_var<CollectionDataIterator_i> servant(
            new CollectionDataIterator_i(record));
        if (!servant->open(""))
            return CollectionDataIterator_var();
        auto admission = openObjects().admit(OpenKind::CollectionIterator, *servant.in());
        const CORBA::Object_var object = admission.activate();
        admission.keep();
        return CollectionDataIterator_var(CollectionDataIterator::_narrow(object));
    };
    const auto isThere = [](CollectionDataIterator_ptr reference) {
        try {
            reference->pageSize();
            return true;
        } catch (const CORBA::OBJECT_NOT_EXIST&) {
            return false;
        }
    };
    HostConfig::instance().readText("MAX_PULLED_BYTES = 3000\n", "qm.conf");
    const auto small = pull("192.0.2.9");
    const auto first = pull("192.0.2.1");
    const auto second = pull("192.0.2.1");
    EXPECT_EQ(PulledBytes::sum(), 3000u);
    EXPECT_TRUE(isThere(first)) << "N bytes";
    const LogCapture log;
    const auto third = pull("192.0.2.9");
    EXPECT_EQ(PulledBytes::sum(), 3000u);
    EXPECT_TRUE(isThere(small));
    EXPECT_TRUE(isThere(second));
    EXPECT_FALSE(isThere(first)) << "of the peer with the most, the longest idle one";
    EXPECT_TRUE(isThere(third));
    EXPECT_EQ(log.texts(1), Lines{"Gave up an idle iterator with 1000 bytes in memory "
                                  "to make room (MAX_PULLED_BYTES), of peer 192.0.2.1"});
    EXPECT_EQ(counter("pulledBytes"), 3000u);
    EXPECT_EQ(counter("pulledBytesHighest"), 3000u);
    third->release();
    EXPECT_EQ(PulledBytes::sum(), 2000u);
    openObjects().stop();
    EXPECT_EQ(PulledBytes::sum(), 0u);
}

TEST_F(OpenObjectsTest, TheStopGivesUpEveryObject)
{
    limit({10, 10, 10, 0s});
    iterator("192.0.2.1");
    iterator("192.0.2.2");
    EXPECT_EQ(alive, 2);
    service.stop();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(counter("iteratorsOpen"), 0u);
}

/// Objects are made, used and ended by many threads, and the bounds are reached all the time.
TEST_F(OpenObjectsTest, ThirtyTwoThreadsAtTheBounds)
{
    limit({60, 20, 10, 0s});
    std::vector<std::thread> threads;
    std::atomic<int> kept{0};
    for (int number = 0; number < 32; ++number)
        threads.emplace_back([&, number] {
            const std::string peer = "192.0.2." + std::to_string(number % 4);
            std::vector<Held> mine;
            for (int i = 0; i < 200; ++i) {
                Held held = iterator(peer.c_str());
                if (CORBA::is_nil(held.reference))
                    continue;
                ++kept;
                mine.push_back(std::move(held));
                try {
                    mine[mine.size() / 2].reference->pageSize(i);
                    if (i % 3 == 0)
                        mine.back().reference->release();
                } catch (const CORBA::OBJECT_NOT_EXIST&) { // it was given up
                }
                EXPECT_LE(openObjects().iteratorsOpen(), 60u);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(kept, 32 * 100);
    EXPECT_EQ(static_cast<std::size_t>(alive), openObjects().iteratorsOpen());
    EXPECT_LE(counter("iteratorsHighest"), 60u);
    openObjects().stop();
    EXPECT_EQ(alive, 0);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
