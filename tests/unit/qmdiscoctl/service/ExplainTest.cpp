// Why a service cannot be reached, for people.

#include <gtest/gtest.h>

#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

TEST(ExplainTest, EveryFailureOfAServiceHasWordsAndItsName)
{
    const auto words = [](const CORBA::SystemException& exception) {
        const std::string text = explain(exception);
        return text.substr(0, text.find(':'));
    };
    EXPECT_EQ(words(CORBA::TRANSIENT()), "nothing accepts the connection");
    EXPECT_EQ(words(CORBA::TIMEOUT()), "no answer within the time limit");
    EXPECT_EQ(words(CORBA::COMM_FAILURE()), "the connection broke");
    EXPECT_EQ(words(CORBA::OBJECT_NOT_EXIST()), "there is no such object");
    EXPECT_EQ(words(CORBA::NO_PERMISSION()), "not permitted");
    EXPECT_EQ(words(CORBA::MARSHAL()), "a message that cannot be understood, or is too large");
    EXPECT_EQ(words(CORBA::NO_MEMORY()), "it has no resources left");
    EXPECT_EQ(words(CORBA::NO_RESOURCES()), "it has no resources left");
    EXPECT_EQ(words(CORBA::INTERNAL()), "it failed");
    EXPECT_NE(explain(CORBA::TIMEOUT()).find("TIMEOUT"), std::string::npos);
    EXPECT_EQ(unreachable("backup1", {"::1", 14400}, "why"),
              (Failure{EC_UNREACHABLE,
                       "cannot reach the discovery service on backup1 ([::1]:14400): why"}));
}

TEST(ExplainTest, AFailedConnectionHasTheWordsOfItsException)
{
    using Svc::ConnectFailure;
    EXPECT_EQ(
        explain(ConnectFailure{ConnectFailure::NOT_FOUND, "TRANSIENT (minor 1)", "TRANSIENT"}),
        "nothing accepts the connection: TRANSIENT (minor 1)");
    EXPECT_EQ(
        explain(ConnectFailure{ConnectFailure::CALL_FAILED, "INTERNAL (minor 1)", "INTERNAL"}),
        "it failed: INTERNAL (minor 1)");
    EXPECT_EQ(
        explain(ConnectFailure{ConnectFailure::NOT_FOUND, "the name leads to no address", ""}),
        "the name leads to no address");
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
