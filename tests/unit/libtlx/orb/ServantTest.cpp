// The common parts of servants: activity, descriptions of exceptions, the guard of an operation.

#include <tlx/Servant.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tlx/Orb.h>
#include <tlx/RequestPeer.h>

#include "support/Capture.h"
#include "support/Eventually.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using namespace std::chrono_literals;

TEST(ServantActivityTest, BusyFromTheFirstRequestToTheEndOfTheLast)
{
    ServantActivity activity;
    const auto later = std::chrono::steady_clock::now() + 1h;
    EXPECT_TRUE(activity.idleSince(later));
    activity.begin();
    activity.begin();
    activity.end();
    EXPECT_TRUE(activity.busy());
    EXPECT_FALSE(activity.idleSince(later));
    activity.end();
    EXPECT_FALSE(activity.busy());
    EXPECT_TRUE(activity.idleSince(later));
    EXPECT_FALSE(activity.idleSince(later - 2h));
}

TEST(DescribeExceptionTest, HasNameMinorCodeAndCompletion)
{
    EXPECT_EQ(describeException(CORBA::TIMEOUT(0, CORBA::COMPLETED_MAYBE)),
              "TIMEOUT (minor 0x00000000, COMPLETED_MAYBE)");
    EXPECT_EQ(describeException(CORBA::OBJ_ADAPTER(0x12, CORBA::COMPLETED_YES)),
              "OBJ_ADAPTER (minor 0x00000012, COMPLETED_YES)");
}

TEST(DescribeExceptionTest, AnyExceptionHasItsName)
{
    const PortableServer::POA::ObjectNotActive user;
    EXPECT_EQ(describeException(static_cast<const CORBA::Exception&>(user)), "ObjectNotActive");
    const CORBA::MARSHAL system(0, CORBA::COMPLETED_NO);
    EXPECT_EQ(describeException(static_cast<const CORBA::Exception&>(system)),
              "MARSHAL (minor 0x00000000, COMPLETED_NO)");
}

TEST(ServantOperationTest, AnswersWhatTheBodyAnswersAndCountsItMeanwhile)
{
    EXPECT_EQ(Orb::requestsInProgress(), 0u);
    EXPECT_EQ(servantOperation("X::x", [] { return Orb::requestsInProgress(); }), 1u);
    EXPECT_EQ(Orb::requestsInProgress(), 0u);
}

TEST(ServantOperationTest, LetsSystemExceptionsOut)
{
    EXPECT_THROW(servantOperation("X::x", [] { throw CORBA::NO_MEMORY(); }), CORBA::NO_MEMORY);
    EXPECT_EQ(Orb::requestsInProgress(), 0u);
}

TEST(ServantOperationTest, RefusesAnOperationInsideAnotherOfItsThread)
{
    const QmTest::LogCapture log;
    const auto inner = [] { return servantOperation("X::inner", [] { return 1; }); };
    EXPECT_THROW(servantOperation("X::outer", inner), CORBA::NO_PERMISSION);
    EXPECT_EQ(Orb::requestsInProgress(), 0u);
    EXPECT_EQ(log.texts(1), QmTest::Lines{"A call of this service to itself is refused: a "
                                          "reference of another host leads back here"});
    EXPECT_EQ(log.lines().back().operation, "X::inner");
    EXPECT_EQ(inner(), 1) << "the thread is free again";
    const auto elsewhere = [&] { return std::async(std::launch::async, inner).get(); };
    EXPECT_EQ(servantOperation("X::outer", elsewhere), 1) << "another thread";
}

/// A servant with one operation, which lasts until the test lets it end.
struct TurningServant : StatefulServant
{
    using StatefulServant::endRequests;
    using StatefulServant::MOST_WAITING;
    /// "done", or the name of the exception.
    std::string operate(const std::function<void()>& body)
    {
        try {
            const Turn turn(*this);
            body();
            return "done";
        } catch (const CORBA::SystemException& e) {
            return e._name();
        }
    }
};

TEST(ServantTurnTest, ThreeMayWaitAndTheNextIsRefused)
{
    TurningServant servant;
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    std::promise<void> goOn;
    const std::shared_future<void> mayEnd = goOn.get_future().share();
    const auto begin = [&] {
        return std::async(std::launch::async, [&servant, &running, &most, mayEnd] {
            return servant.operate([&] {
                most = std::max(most.load(), ++running);
                mayEnd.wait();
                --running;
            });
        });
    };
    std::vector<std::future<std::string>> admitted;
    admitted.push_back(begin());
    ASSERT_TRUE(QmTest::eventually([&] { return running == 1; }));
    const QmTest::LogCapture log;
    for (unsigned i = 0; i < TurningServant::MOST_WAITING; ++i)
        admitted.push_back(begin());
    // One of these four comes last and is refused. The others wait.
    admitted.push_back(begin());
    std::string refused;
    ASSERT_TRUE(QmTest::eventually([&] {
        for (auto each = admitted.begin(); each != admitted.end(); ++each)
            if (each->wait_for(0ms) == std::future_status::ready) {
                refused = each->get();
                admitted.erase(each);
                return true;
            }
        return false;
    }));
    EXPECT_EQ(refused, "TRANSIENT");
    EXPECT_EQ(admitted.size(), 1u + TurningServant::MOST_WAITING);
    EXPECT_EQ(Orb::requestsTurnedAway(), 1u);
    EXPECT_EQ(log.texts(1), QmTest::Lines{"Refused a request: 3 others wait for the same object"});
    goOn.set_value();
    for (auto& each : admitted)
        EXPECT_EQ(each.get(), "done");
    EXPECT_EQ(most, 1) << "one at a time";
    EXPECT_EQ(servant.operate([] {}), "done") << "there is room again";
}

TEST(ServantTurnTest, AThreadMayTakeItsTurnTwice)
{
    TurningServant servant;
    EXPECT_EQ(servant.operate([&] { EXPECT_EQ(servant.operate([] {}), "done"); }), "done");
}

TEST(ServantTurnTest, AfterTheEndARequestFromTheWireFindsNoObject)
{
    TurningServant servant;
    servant.endRequests();
    EXPECT_EQ(servant.operate([] {}), "done") << "a call of this process";
    const RequestPeerMark fromTheWire({"192.0.2.7", ""});
    EXPECT_EQ(servant.operate([] {}), "OBJECT_NOT_EXIST");
}

using ServantOperationDeathTest = testing::Test;

TEST(ServantOperationDeathTest, EndsTheProcessOnAnythingElse)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(servantOperation("X::x", [] { throw std::runtime_error("broken"); }),
                 "X::x .error. The process ends: only CORBA system exceptions may leave a remote "
                 "operation, this one threw: broken");
    EXPECT_DEATH(servantOperation("X::x", [] { throw PortableServer::POA::ObjectNotActive(); }),
                 "this one threw: ObjectNotActive");
    // The log's thread writes the line before the process ends.
    const auto withThread = [] {
        (void)LoggerFactory::instance().configure({});
        servantOperation("X::x", [] { throw 7; });
    };
    EXPECT_DEATH(withThread(), "this one threw: an exception of unknown type");
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
