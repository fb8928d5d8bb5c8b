// Why a request failed: the words for people, and the exit codes for scripts.

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
    EXPECT_EQ(words(CORBA::DATA_CONVERSION()), "a name that the code set of one side cannot carry");
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

TEST(ExplainTest, EachStatusHasAnExitCodeOfItsOwn)
{
    EXPECT_EQ(exitCodeOf(Svc::DS_SUCCESS), 0);
    EXPECT_EQ(exitCodeOf(Svc::DS_NONE_FOUND), 11);
    EXPECT_EQ(exitCodeOf(Svc::DS_LOGIC_ERROR), 12);
    EXPECT_EQ(exitCodeOf(Svc::DS_OPEN_FAILED), 13);
    EXPECT_EQ(exitCodeOf(Svc::DS_COM_ERROR), 14);
    EXPECT_EQ(exitCodeOf(Svc::DS_DATA_EXISTS), 15);
    EXPECT_EQ(exitCodeOf(static_cast<Svc::DiscoveryStatus>(77)), EC_BROKE_OFF);
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
