// The common parts of servants: activity, descriptions of exceptions, the guard of an operation.

#include <tlx/Servant.h>

#include <future>
#include <stdexcept>

#include <gtest/gtest.h>

#include <tlx/Orb.h>

#include "support/Capture.h"

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
