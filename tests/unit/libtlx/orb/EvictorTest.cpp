// The evictor. Most tests set its clock.

#include <tlx/Evictor.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <tlx/HostConfig.h>
#include <tlx/Orb.h>
#include <tlx/Servant.h>

#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;
using QmTest::LogCapture;
using TimePoint = std::chrono::steady_clock::time_point;

/// Counts how many servants are destroyed.
class Plain : public virtual PortableServer::ServantBase
{
  public:
    explicit Plain(int& ended) : m_ended(ended) {}
    ~Plain() override { ++m_ended; }
    CORBA::Boolean _dispatch(omniCallHandle&) override { return false; }
    const char* _mostDerivedRepoId() override { return "IDL:omg.org/CORBA/Object:1.0"; }
    void* _ptrToInterface(const char*) override { return this; }

  private:
    int& m_ended;
};

class Stateful : public Plain, public StatefulServant
{
  public:
    using Plain::Plain;
};

struct EvictorTest : testing::Test
{
    EvictorTest()
    {
        HostConfig::instance().readText("", "none");
        orb = std::make_unique<Orb>(false, "127.0.0.1:0", "S", false);
        const CORBA::Object_var root = orb->getOrb()->resolve_initial_references("RootPOA");
        poa = PortableServer::POA::_narrow(root);
        now = std::chrono::steady_clock::now();
        evictor = std::make_unique<Evictor>([this] { return now; });
    }
    ~EvictorTest() override
    {
        evictor.reset();
        poa = PortableServer::POA::_nil();
    }

    PortableServer::ObjectId_var activate(PortableServer::Servant servant)
    {
        PortableServer::ObjectId_var id = poa->activate_object(servant);
        servant->_remove_ref();
        return id;
    }
    void watch(const PortableServer::ObjectId_var& id, int seconds)
    {
        evictor->addObject(TlxObjTime(seconds, 0), poa, id, PortableServer::ObjectId());
    }

    int ended = 0;
    std::unique_ptr<Orb> orb;
    PortableServer::POA_var poa;
    TimePoint now;
    std::unique_ptr<Evictor> evictor;
};

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need address space
TEST(EvictorAloneTest, WithoutAThreadItFailsAndTheProcessLives)
{
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_AS, &before), 0);
    // Leaves no room for a thread's stack.
    const rlimit tight{4096, before.rlim_max};
    std::string failure;
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &tight), 0);
    try {
        Evictor();
    } catch (const OrbError& e) {
        failure = e.what();
    }
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &before), 0);
    EXPECT_EQ(failure, "cannot start the thread that ends idle objects: Resource temporarily "
                       "unavailable");
}
#endif

TEST_F(EvictorTest, AnIdleObjectIsDeactivatedWhenItsTimeIsOver)
{
    const auto id = activate(new Stateful(ended));
    watch(id, 300);
    now += 299s;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    EXPECT_EQ(ended, 0);
    now += 2s;
    LogCapture log;
    EXPECT_EQ(evictor->evictIdle(), 1u);
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(evictor->watched(), 0u);
    EXPECT_EQ(log.texts(4), std::vector<std::string>{"Evicted an object that was left idle"});
    EXPECT_EQ(log.texts(1), std::vector<std::string>{});
}

TEST_F(EvictorTest, ARequestInProgressIsNeverEvicted)
{
    auto* servant = new Stateful(ended);
    const auto activity = servant->activity();
    const auto id = activate(servant);
    watch(id, 300);
    activity->begin();
    now += 24h;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    activity->end();
    EXPECT_EQ(evictor->evictIdle(), 1u); // the test's clock is far ahead of the request's end
    EXPECT_EQ(ended, 1);
}

TEST_F(EvictorTest, ABusyObjectIsLookedAtAgainAfterItsTimeOut)
{
    auto* servant = new Stateful(ended);
    const auto activity = servant->activity();
    const auto busy = activate(servant);
    watch(busy, 300);
    const auto other = activate(new Plain(ended));
    watch(other, 350);
    activity->begin();
    now += 301s;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    EXPECT_EQ(evictor->work().examined, 1u);
    now += 50s;
    EXPECT_EQ(evictor->evictIdle(), 1u) << "the other one, which fell due meanwhile";
    EXPECT_EQ(evictor->work().examined, 3u);
    activity->end();
    EXPECT_EQ(evictor->evictIdle(), 1u) << "the test's clock is far ahead of the request's end";
}

TEST_F(EvictorTest, AmongTenThousandObjectsAddingWakesNobodyAndALookSeesOnlyWhatIsDue)
{
    constexpr unsigned MANY = 10000;
    for (unsigned i = 0; i < MANY; ++i) {
        now += 1ms;
        watch(activate(new Stateful(ended)), 300);
    }
    EXPECT_EQ(evictor->watched(), MANY);
    EXPECT_EQ(evictor->work().wakeUps, 1u) << "only the first one";
    EXPECT_EQ(evictor->work().examined, 0u);
    EXPECT_EQ(evictor->evictIdle(), 0u);
    EXPECT_EQ(evictor->work().examined, 0u);
    watch(activate(new Stateful(ended)), 10);
    EXPECT_EQ(evictor->work().wakeUps, 2u) << "it is due before all others";
    watch(activate(new Stateful(ended)), 20);
    EXPECT_EQ(evictor->work().wakeUps, 2u);
    now += 11s;
    EXPECT_EQ(evictor->evictIdle(), 1u);
    EXPECT_EQ(evictor->work().examined, 1u);
}

TEST_F(EvictorTest, RequestsWakeNobody)
{
    auto* servant = new Stateful(ended);
    const auto activity = servant->activity();
    const auto id = activate(servant);
    now += 10s; // the object was made ten seconds before
    watch(id, 300);
    for (int i = 0; i < 1000; ++i) {
        activity->begin();
        activity->end();
    }
    EXPECT_EQ(evictor->work().wakeUps, 1u) << "requests wake nobody";
    now += 299s;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    EXPECT_EQ(evictor->work().examined, 0u);
    now += 1s;
    EXPECT_EQ(evictor->evictIdle(), 1u);
}

TEST_F(EvictorTest, TheListenerHearsOfIdleObjectsOnly)
{
    std::vector<std::string> heard;
    const auto text = [](const PortableServer::ObjectId& id) {
        return std::string(reinterpret_cast<const char*>(id.get_buffer()), id.length());
    };
    evictor->setListener([&](const PortableServer::ObjectId& id) {
        EXPECT_EQ(evictor->watched(), 2u) << "called without the evictor's lock";
        heard.push_back(text(id));
    });
    const auto idle = activate(new Plain(ended));
    const auto removed = activate(new Plain(ended));
    const auto left = activate(new Plain(ended));
    const auto last = activate(new Plain(ended));
    watch(idle, 10);
    watch(removed, 10);
    watch(left, 100);
    watch(last, 100);
    evictor->removeObject(removed, true, true);
    now += 11s;
    EXPECT_EQ(evictor->evictIdle(), 1u);
    EXPECT_EQ(heard, std::vector<std::string>{text(idle)});
    evictor->shutdown();
    EXPECT_EQ(heard.size(), 1u);
}

TEST_F(EvictorTest, TheEndOfARequestCountsAsUse)
{
    auto* servant = new Stateful(ended);
    const auto activity = servant->activity();
    const auto id = activate(servant);
    now -= 1h; // it was added long before its last use
    watch(id, 300);
    activity->begin();
    activity->end();
    now += 1h + 299s;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    now += 2s;
    EXPECT_EQ(evictor->evictIdle(), 1u);
}

TEST_F(EvictorTest, AServantWithoutActivityLivesForItsTimeout)
{
    const auto id = activate(new Plain(ended));
    watch(id, 10);
    now += 9s;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    now += 1s;
    EXPECT_EQ(evictor->evictIdle(), 1u);
    EXPECT_EQ(ended, 1);
}

TEST_F(EvictorTest, AddingAgainRestartsTheTime)
{
    const auto id = activate(new Plain(ended));
    watch(id, 10);
    now += 9s;
    watch(id, 10);
    now += 9s;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    EXPECT_EQ(evictor->watched(), 1u);
}

TEST_F(EvictorTest, RemovingDeactivatesOnlyOnRequest)
{
    const auto kept = activate(new Plain(ended));
    const auto gone = activate(new Plain(ended));
    watch(kept, 10);
    watch(gone, 10);
    evictor->removeObject(kept, false, true);
    EXPECT_EQ(ended, 0);
    evictor->removeObject(gone, true, true);
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(evictor->watched(), 0u);
    now += 1h;
    EXPECT_EQ(evictor->evictIdle(), 0u);
    evictor->removeObject(gone, true, false); // not watched any more, so nothing happens
    poa->deactivate_object(kept);
}

TEST_F(EvictorTest, AnObjectThatIsGoneIsReportedUnlessQuiet)
{
    const auto loud = activate(new Plain(ended));
    const auto quiet = activate(new Plain(ended));
    watch(loud, 10);
    watch(quiet, 10);
    poa->deactivate_object(loud);
    poa->deactivate_object(quiet);
    LogCapture log;
    evictor->removeObject(quiet, true, true);
    EXPECT_EQ(log.texts(1), std::vector<std::string>{});
    evictor->removeObject(loud, true, false);
    EXPECT_EQ(log.texts(1),
              std::vector<std::string>{"Unable to deactivate an object: ObjectNotActive"});
}

TEST_F(EvictorTest, ATimeBeyondAnyClockIsNever)
{
    const auto id = activate(new Plain(ended));
    evictor->addObject(TlxObjTime::max(), poa, id, PortableServer::ObjectId());
    now += std::chrono::hours(24 * 365 * 50);
    EXPECT_EQ(evictor->evictIdle(), 0u);
}

TEST_F(EvictorTest, ShutdownDeactivatesAllAndRefusesMore)
{
    const auto one = activate(new Stateful(ended));
    const auto two = activate(new Plain(ended));
    watch(one, 300);
    watch(two, 300);
    evictor->shutdown();
    EXPECT_EQ(ended, 2);
    const auto late = activate(new Plain(ended));
    EXPECT_THROW(watch(late, 300), CORBA::BAD_INV_ORDER);
    evictor->removeObject(one, true, false);
    EXPECT_EQ(evictor->evictIdle(), 0u);
    evictor->shutdown();
    poa->deactivate_object(late);
}

TEST_F(EvictorTest, CopesWithAPoaThatIsGone)
{
    const auto id = activate(new Plain(ended));
    watch(id, 10);
    poa->destroy(true, true);
    EXPECT_EQ(ended, 1);
    evictor->removeObject(id, true, true);
    EXPECT_EQ(evictor->watched(), 0u);
}

/// The evictor has its own thread and clock here. The waits are bounded.
TEST_F(EvictorTest, ItsThreadEvictsWithoutBeingAsked)
{
    struct Signal
    {
        std::mutex mutex;
        std::condition_variable changed;
        bool ended = false;
    } signal;
    struct Telling : public Plain
    {
        Telling(int& count, Signal& s) : Plain(count), m_signal(s) {}
        ~Telling() override
        {
            const std::lock_guard guard(m_signal.mutex);
            m_signal.ended = true;
            m_signal.changed.notify_all();
        }
        Signal& m_signal;
    };
    Evictor own;
    const auto id = activate(new Telling(ended, signal));
    own.addObject(TlxObjTime(0, 20000), poa, id, PortableServer::ObjectId());
    std::unique_lock lock(signal.mutex);
    EXPECT_TRUE(signal.changed.wait_for(lock, 20s, [&] { return signal.ended; }));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
