// The commands put, get and query: their requests to a service, and their output.

#include "Commands.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CommandsFixture.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

using QmTest::contentOf;
using QmTest::Lines;
using testing::HasSubstr;

using RecordCommandsTest = CommandsFixture;

TEST_F(RecordCommandsTest, PutSendsTheFileInLargeChunksAndClosesOnce)
{
    options.input = file(std::string((1 << 20) + 3, 'x'));
    options.type = Svc::AT_EXTSRC;
    options.priority = 4000000000u;
    options.timeToLive = 60;
    EXPECT_EQ(run(Command::PUT), NO_FAILURE);
    EXPECT_EQ(script.calls, (Lines{"putCollection", "put 1048576", "put 3", "close"}));
    EXPECT_EQ(script.record.attributes.priority, static_cast<CORBA::Long>(4000000000u));
    EXPECT_EQ(script.record.attributes.timeToLive, 60u);
    EXPECT_EQ(script.record.attributes.discoveryTime, 1000u);
    EXPECT_STREQ(script.record.sourceHost, "here");
    EXPECT_EQ(out.text, "stored 1048579 bytes as cl5 of srv1 (extsrc) on backup1\n");
}

TEST_F(RecordCommandsTest, AnEmptyFileIsAnEmptyDiscovery)
{
    options.input = file("");
    options.json = true;
    options.type = Svc::AT_EXTSRC;
    EXPECT_EQ(run(Command::PUT), NO_FAILURE);
    EXPECT_EQ(script.calls, (Lines{"putCollection", "close"}));
    EXPECT_EQ(Json::parse(out.text), (Json{{"host", "backup1"},
                                           {"subject", "cl5"},
                                           {"authority", "srv1"},
                                           {"type", "extsrc"},
                                           {"bytes", 0}}));
}

TEST_F(RecordCommandsTest, ARefusedPutEndsWithTheCodeOfTheStatus)
{
    options.input = file("x");
    script.status = Svc::DS_DATA_EXISTS;
    EXPECT_EQ(run(Command::PUT),
              (Failure{EC_DATA_EXISTS, "the discovery service on backup1 did not store cl5 of "
                                       "srv1: DS_DATA_EXISTS, one of higher priority is stored"}));
    script.status = Svc::DS_SUCCESS;
    script.closeStatus = Svc::DS_OPEN_FAILED;
    EXPECT_EQ(run(Command::PUT).code, EC_OPEN_FAILED);
}

TEST_F(RecordCommandsTest, PutAndGetRefusePatterns)
{
    options.input = file("x");
    for (const char* pattern : {"cl*", "cl?", "cl%2A", "cl%3f"}) {
        options.subject = pattern;
        EXPECT_EQ(run(Command::PUT),
                  (Failure{EC_USAGE, "cannot store " + options.subject +
                                         " of srv1: * and ? stand for other characters in a "
                                         "query, so nothing could read it by that name"}));
        EXPECT_EQ(run(Command::GET),
                  (Failure{EC_LOGIC_ERROR,
                           "cannot read " + options.subject +
                               " of srv1 from the discovery service on backup1: DS_LOGIC_ERROR, "
                               "the names must fit exactly one discovery, and hold no "
                               "wildcards"}));
    }
    options.subject = "cl5";
    options.authority = "srv*";
    EXPECT_EQ(run(Command::PUT).code, EC_USAGE);
    EXPECT_EQ(run(Command::GET).code, EC_LOGIC_ERROR);
    EXPECT_EQ(script.calls, Lines{});
}

TEST_F(RecordCommandsTest, AHalfSentPutIsNeverClosed)
{
    options.input = file("12345");
    script.putAnswer = false;
    EXPECT_EQ(run(Command::PUT),
              (Failure{EC_BROKE_OFF, "the discovery service on backup1 failed to take the data; "
                                     "its log has the reason; 0 of 5 bytes were sent, nothing was "
                                     "stored"}));
    EXPECT_EQ(script.calls.back(), "put 5");
}

TEST_F(RecordCommandsTest, APutThatBreaksOffReportsWhatWasSent)
{
    options.input = file("12345");
    script.failAfter = 2;
    const Failure failure = run(Command::PUT);
    EXPECT_EQ(failure.code, EC_BROKE_OFF);
    EXPECT_THAT(failure.text, HasSubstr("broke off: the connection broke: COMM_FAILURE"));
    EXPECT_THAT(failure.text,
                HasSubstr("all 5 bytes were sent, whether they were stored is not known"));
}

TEST_F(RecordCommandsTest, AnUnreadableFileIsReportedBeforeTheServiceIsCalled)
{
    options.input = directory.path("none");
    const Failure failure = run(Command::PUT);
    EXPECT_EQ(failure.code, EC_FAILURE);
    EXPECT_THAT(failure.text, HasSubstr(options.input));
    EXPECT_EQ(script.calls, Lines{});
}

TEST_F(RecordCommandsTest, GetAsksForLargePagesAndWritesTheFileAsAWhole)
{
    script.pages = {"one ", "two"};
    options.filter = "f";
    options.output = directory.path("out");
    EXPECT_EQ(run(Command::GET), NO_FAILURE);
    EXPECT_EQ(script.calls, (Lines{"get cl5 of srv1 [f]", "pageSize 1048576", "page", "page",
                                   "page", "release"}));
    EXPECT_EQ(contentOf(directory.path("out")), "one two");
    EXPECT_EQ(out.text, "wrote 7 bytes to " + options.output + "\n");
}

TEST_F(RecordCommandsTest, GetWithoutAFilePrintsTheDataAlone)
{
    script.pages = {"one ", "two"};
    EXPECT_EQ(run(Command::GET), NO_FAILURE);
    EXPECT_EQ(out.text, "one two");
}

TEST_F(RecordCommandsTest, AGetThatBreaksOffLeavesTheOldFile)
{
    script.pages = {"new", "more"};
    script.failAfter = 3;
    options.output = directory.path("out");
    QmTest::writeFile(options.output, "old");
    const Failure failure = run(Command::GET);
    EXPECT_EQ(failure.code, EC_BROKE_OFF);
    EXPECT_THAT(failure.text, HasSubstr("; 3 bytes were received"));
    EXPECT_EQ(contentOf(directory.path("out")), "old");
    int entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
        entries += entry.exists();
    EXPECT_EQ(entries, 1) << "something was left beside the file";
}

TEST_F(RecordCommandsTest, ARefusedGetEndsWithTheCodeOfTheStatus)
{
    script.status = Svc::DS_NONE_FOUND;
    EXPECT_EQ(run(Command::GET),
              (Failure{EC_NONE_FOUND, "cannot read cl5 of srv1 from the discovery service on "
                                      "backup1: DS_NONE_FOUND, there is no such discovery"}));
    script.status = Svc::DS_LOGIC_ERROR;
    EXPECT_EQ(run(Command::GET).code, EC_LOGIC_ERROR);
}

TEST_F(RecordCommandsTest, QueryShowsATableOrJson)
{
    script.records = 2;
    options.subject = "cl*";
    options.authority = "";
    EXPECT_EQ(run(Command::QUERY), NO_FAILURE);
    EXPECT_EQ(out.text, "SUBJECT  AUTHORITY  TYPE       HOST  SERVICE\n"
                        "cl0      srv\\x1b    qmkclient  h     s\n"
                        "cl1      srv\\x1b    qmkclient  h     s\n");
    EXPECT_EQ(script.calls[0], "query 0 * cl*");
    EXPECT_EQ(script.calls.back(), "release");
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::QUERY), NO_FAILURE);
    const Json document = Json::parse(out.text);
    ASSERT_EQ(document.size(), 2u);
    EXPECT_EQ(document[1]["subject"], "cl1");
    EXPECT_EQ(document[1]["authority"], "srv\x1b");
}

TEST_F(RecordCommandsTest, AQueryThatBreaksOffPrintsNothing)
{
    script.records = 2;
    script.failAfter = 3;
    EXPECT_EQ(run(Command::QUERY).code, EC_BROKE_OFF);
    EXPECT_EQ(out.text, "");
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
