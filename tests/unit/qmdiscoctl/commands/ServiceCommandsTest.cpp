// The commands refresh, stop, status and explorers, also with a service that cannot be reached.

#include "Commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CommandsFixture.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

using QmTest::Lines;
using testing::HasSubstr;

using ServiceCommandsTest = CommandsFixture;

TEST_F(ServiceCommandsTest, RefreshIsOfOneHostOrOfAll)
{
    EXPECT_EQ(run(Command::REFRESH), NO_FAILURE);
    EXPECT_EQ(out.text, "refresh started by the discovery service on backup1\n");
    options.all = true;
    EXPECT_EQ(run(Command::REFRESH), NO_FAILURE);
    EXPECT_EQ(script.calls, (Lines{"local", "all"}));
    script.boolean = false;
    EXPECT_EQ(run(Command::REFRESH),
              (Failure{EC_FAILURE, "the discovery service on backup1 refused: it is not the "
                                   "master's, or a refresh is running"}));
}

TEST_F(ServiceCommandsTest, ARefusalIsNoServiceThatBrokeOff)
{
    script.refuses = true;
    const Failure refused{EC_FAILURE,
                          "the discovery service on backup1 refused, its log has the reason: not "
                          "permitted: NO_PERMISSION (minor 0x00000000, COMPLETED_NO)"};
    EXPECT_EQ(run(Command::REFRESH), refused);
    EXPECT_EQ(run(Command::STOP), refused);
    EXPECT_EQ(run(Command::QUERY), refused);
}

TEST_F(ServiceCommandsTest, StopWaitsUntilTheServiceIsGone)
{
    script.pingsUntilGone = 3;
    EXPECT_EQ(run(Command::STOP), NO_FAILURE);
    EXPECT_EQ(out.text, "the discovery service on backup1 has stopped\n");
    script.pingsUntilGone = 1 << 20;
    options.waitSeconds = 2;
    EXPECT_EQ(run(Command::STOP),
              (Failure{EC_FAILURE, "the discovery service on backup1 was asked to stop and still "
                                   "runs after 2 s"}));
    options.waitSeconds = 0;
    out.text.clear();
    EXPECT_EQ(run(Command::STOP), NO_FAILURE);
    EXPECT_EQ(out.text, "the discovery service on backup1 is stopping\n");
}

TEST_F(ServiceCommandsTest, StatusShowsTheServiceAndItsFile)
{
    target.local = true;
    status.path = "/root/run/status.json";
    status.found = true;
    status.members = {{"version", "1.0.0"}, {"counters", {{"queries", 3}}}};
    script.pingsUntilGone = 5;
    options.json = true;
    EXPECT_EQ(run(Command::STATUS), NO_FAILURE);
    const Json document = Json::parse(out.text);
    EXPECT_EQ(document["reachable"], true);
    EXPECT_EQ(document["service"]["counters"]["queries"], 3);
    EXPECT_EQ(document["statusFile"]["state"], "current");
    out.text.clear();
    options.json = false;
    EXPECT_EQ(run(Command::STATUS), NO_FAILURE);
    EXPECT_THAT(out.text, HasSubstr("counters.queries  3\n"));
}

TEST_F(ServiceCommandsTest, ExplorersAreShownFromTheServicesFile)
{
    target.local = true;
    status.found = true;
    status.path = "/root/run/status.json";
    status.members = Json::parse(R"({"nextPush": "2024-02-29T17:05:00+01:00",
        "explorersRegistered": 3, "explorers": [
        {"kind": "push", "name": "Files", "subject": "cl5", "authority": "srv1", "type": 3,
         "priority": 7, "library": "/some/lib.so", "last": "2024-02-29T13:05:00+01:00",
         "outcome": "pushed"},
        {"kind": "pull", "name": "O", "subject": "x", "authority": "a", "type": 99, "priority": 1,
         "library": "", "last": null, "outcome": ""}, 7]})");
    EXPECT_EQ(run(Command::EXPLORERS), NO_FAILURE);
    EXPECT_EQ(out.text,
              "KIND  SUBJECT  AUTHORITY  TYPE    PRIORITY  EXPLORER  LAST                       "
              "OUTCOME  LIBRARY\n"
              "push  cl5      srv1       extsrc  7         Files     2024-02-29T13:05:00+01:00  "
              "pushed   /some/lib.so\n"
              "pull  x        a          99      1         O         -                          "
              "-        -\n"
              "next push: 2024-02-29T17:05:00+01:00\n");
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::EXPLORERS), NO_FAILURE);
    EXPECT_EQ(Json::parse(out.text)["explorers"], status.members["explorers"]);
    EXPECT_EQ(script.calls, Lines{}) << "the service is not asked";
}

TEST_F(ServiceCommandsTest, EachReasonForUnknownExplorersHasItsMessage)
{
    status.path = "/root/run/status.json";
    target.local = false;
    options.host = "backup1";
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_USAGE, "the explorers of backup1 can be listed on that host only"}));
    options.host = "";
    EXPECT_EQ(run(Command::EXPLORERS).code, EC_UNREACHABLE) << "this host's own are meant";
    target.local = true;
    status.found = false;
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_UNREACHABLE, "the service of this host is not running: there is no "
                                       "/root/run/status.json"}));
    status.found = true;
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_FAILURE, "/root/run/status.json has no list of explorers"}));
    status.stale = true;
    EXPECT_EQ(
        run(Command::EXPLORERS),
        (Failure{EC_UNREACHABLE, "the service of this host is not running: "
                                 "/root/run/status.json describes a service that has ended"}));
    status.problem = "is not the status of a service";
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_FAILURE, "/root/run/status.json is not the status of a service"}));
}

TEST_F(ServiceCommandsTest, EveryCommandReportsAServiceThatCannotBeReached)
{
    reachable = false;
    options.input = file("x");
    const Failure expected{EC_UNREACHABLE,
                           "cannot reach the discovery service on backup1 (192.0.2.7:14400): no"};
    for (const Command command : {Command::PUT, Command::QUERY, Command::GET, Command::STATUS,
                                  Command::REFRESH, Command::STOP})
        EXPECT_EQ(run(command), expected) << static_cast<int>(command);
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
