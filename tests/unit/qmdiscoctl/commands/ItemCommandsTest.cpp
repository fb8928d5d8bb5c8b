// The commands clients, items and filters: their requests to the researcher, and their output.

#include "Commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CommandsFixture.h"
#include "KeptLog.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

using QmTest::Lines;

using ItemCommandsTest = CommandsFixture;

TEST_F(ItemCommandsTest, ClientsAreTheHostsThatPushedFilterData)
{
    script.discovered = {{"volume", "volume", "win1"},
                         {"filesystem", "filesystem", "linä"},
                         {"filesystem", "filesystem", "lin1", "no document", "cannot be parsed"},
                         {"filesystem", "filesystem", ""},
                         {"filesystem", "filesystem", "win1"}};
    EXPECT_EQ(run(Command::CLIENTS), NO_FAILURE);
    EXPECT_EQ(script.calls, (Lines{"research 2 volume *", "research 2 filesystem *"}));
    EXPECT_EQ(out.text, "CLIENT\nlin1\nlinä\nwin1\n");
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::CLIENTS), NO_FAILURE);
    EXPECT_EQ(Json::parse(out.text), (Json{{"clients", {"lin1", "linä", "win1"}}}));
}

TEST_F(ItemCommandsTest, AFailedClientListPrintsNothing)
{
    script.discovered = {{"volume", "volume", "win1"}};
    script.researchFails = tl::unexpected(Failure{EC_UNREACHABLE, "no"});
    EXPECT_EQ(run(Command::CLIENTS), (Failure{EC_UNREACHABLE, "no"}));
    EXPECT_EQ(out.text, "");
}

TEST_F(ItemCommandsTest, ItemsAreATableOfWhatWasReadAndLinesOfWhatWasNot)
{
    options.subject = "";
    options.authority = "h*";
    script.discovered = {{"", "h2/now", "h2", fileSystem("/\x7f", "xfs", "2048")},
                         {"", "text", "h1", "no document", "it is not a document"},
                         {"", "h1", "h1", fileSystem("/home", "ext4", "1099511627776")},
                         {"", "h1", "h1",
                          "<DiscoveredItems><DISCOVERED Name=\"thing\"></DISCOVERED><DISC",
                          "broken"},
                         {"", "filesystem", "h1", "<FilterData></FilterData>"}};
    EXPECT_EQ(run(Command::ITEMS), NO_FAILURE);
    EXPECT_EQ(script.calls, Lines{"research 1 * h*"});
    EXPECT_EQ(out.text, "HOST  MOUNT  DEVICE  TYPE  SIZE     USED     RECORD\n"
                        "h1    /home  /dev/x  ext4  1.0 TiB  1.0 KiB  h1\n"
                        "h1    thing  -       -     -        -        h1\n"
                        "h2    /\\x7f  /dev/x  xfs   2.0 KiB  1.0 KiB  h2/now\n"
                        "not read: h1 of h1: broken\n"
                        "not read: text of h1: it is not a document\n");
}

TEST_F(ItemCommandsTest, TheReasonIsFitForATerminal)
{
    script.discovered = {{"", "h1", "h1", "no document",
                          "a\x1b"
                          "b"}};
    EXPECT_EQ(run(Command::ITEMS), NO_FAILURE);
    EXPECT_THAT(out.text, testing::HasSubstr("not read: h1 of h1: a\\x1bb\n"));
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::ITEMS), NO_FAILURE);
    EXPECT_EQ(Json::parse(out.text)["unread"][0]["reason"], "a\\x1bb");
}

TEST(KeptLogTest, RepeatedLinesAreKeptOnceAndOnlyTheNewestStay)
{
    KeptLog log;
    const auto write = [&log](int level, const std::string& text) {
        log.write({level, 400, "Op::eration", text, Tlx::severityOfLevel(level)});
    };
    write(1, "first (../A:1)");
    for (int i = 0; i < 100; ++i)
        write(1, "same (../A:2)");
    write(4, "progress (../A:3)");
    EXPECT_EQ(log.take(),
              (std::vector<KeptLog::Kept>{{"Op::eration", "first"}, {"Op::eration", "same"}}));
    for (int i = 0; i < 100; ++i)
        write(1, std::to_string(i) + " (../A:4)");
    const std::vector<KeptLog::Kept> lines = log.take();
    ASSERT_EQ(lines.size(), 50u);
    EXPECT_EQ(lines.back().text, "99");
    EXPECT_EQ(log.take().size(), 0u);
}

TEST_F(ItemCommandsTest, AFilterIsHandedOnAndAppliedToWhatArrives)
{
    options.json = true;
    options.subject = "*";
    options.authority = "";
    script.discovered = {
        {"", "h1", "h1", fileSystem("/", "xfs", "2048")},
        {"", "h1", "h1", fileSystem("/home", "ext4", "4096")},
        {"", "h1", "h1",
         "<DiscoveredItems><DISCOVERED Name=\"/\"></DISCOVERED></DiscoveredItems>"}};
    options.filter = "size > 1K and mount = \"/home\"";
    EXPECT_EQ(run(Command::ITEMS), NO_FAILURE);
    EXPECT_EQ(script.calls, Lines{"research 1 * * size > 1K and mount = \"/home\""});
    const Json expected = Json::parse(R"({"host": "h1", "subject": "h1", "name": "/home",
        "explorer": "FileSystems", "device": "/dev/x", "type": "ext4", "options": "rw",
        "readOnly": false, "size": 4096, "used": 1024})");
    EXPECT_EQ(Json::parse(out.text),
              (Json{{"items", Json::array({expected})}, {"unread", Json::array()}}));

    out.text.clear();
    options.filter = "mount = \"/\" and not size > 0"; // matches the item that is no file system
    EXPECT_EQ(run(Command::ITEMS), NO_FAILURE);
    const Json items = Json::parse(out.text)["items"];
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0], (Json{{"host", "h1"}, {"subject", "h1"}, {"name", "/"}, {"explorer", ""}}));
}

TEST_F(ItemCommandsTest, FiltersAreMergedFromAllHosts)
{
    script.discovered = {
        {"volume", "volume", "w1",
         "<FilterData><QueryDescription><Field Name=\"label\" Type=\"text\"></Field>"
         "</QueryDescription></FilterData>"},
        {"filesystem", "filesystem", "h1",
         "<FilterData><QueryDescription><Field Name=\"size\" Type=\"bytes\">"
         "<Description>how much</Description></Field></QueryDescription></FilterData>"},
        {"filesystem", "filesystem", "h2",
         "<FilterData><QueryDescription><Field Name=\"size\" Type=\"bytes\"></Field>"
         "<Field Name=\"kind\" Type=\"text\"><Value>a</Value><Value>b</Value></Field>"
         "</QueryDescription></FilterData>"},
        {"filesystem", "filesystem", "h3", "no document", "it is not a document"}};
    EXPECT_EQ(run(Command::FILTERS), NO_FAILURE);
    EXPECT_EQ(out.text, "FIELD  TYPE   VALUES  DESCRIPTION\n"
                        "label  text   any     -\n"
                        "size   bytes  any     how much\n"
                        "kind   text   a, b    -\n"
                        "not read: filesystem of h3: it is not a document\n");
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::FILTERS), NO_FAILURE);
    EXPECT_EQ(
        Json::parse(out.text)["filters"][2],
        (Json{{"field", "kind"}, {"type", "text"}, {"values", {"a", "b"}}, {"description", ""}}));
    script.researchFails = tl::unexpected(Failure{EC_UNREACHABLE, "no"});
    EXPECT_EQ(run(Command::FILTERS).code, EC_UNREACHABLE);
    EXPECT_EQ(run(Command::ITEMS).code, EC_UNREACHABLE);
}

/// The master's record of another host's explorer.
std::string cacheRecord(const std::string& host, const std::string& priority = "7")
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<DiscoveredItems>\n<SourceHost>" + host +
           "</SourceHost><ServiceName>DiscoveryService</ServiceName><Priority>" + priority +
           "</Priority><OriginType>3</OriginType></DiscoveredItems>\n";
}

TEST_F(ItemCommandsTest, RegisteredClientsAreReadFromTheirRecords)
{
    options.registered = true;
    script.records = 2;
    script.pages = {cacheRecord("h1\x1b").substr(0, 20), cacheRecord("h1\x1b").substr(20)};
    // A document with a control character is not well-formed.
    EXPECT_EQ(run(Command::CLIENTS), NO_FAILURE);
    EXPECT_EQ(out.text, "HOST  SERVICE  SUBJECT  AUTHORITY  TYPE  PRIORITY\n"
                        "cannot read the record of cl0 of srv\\x1b: its data does not say where "
                        "the explorer is\n"
                        "cannot read the record of cl1 of srv\\x1b: its data does not say where "
                        "the explorer is\n");
    out.text.clear();
    script.calls.clear();
    script.pages = {cacheRecord("h1").substr(0, 20), cacheRecord("h1").substr(20)};
    EXPECT_EQ(run(Command::CLIENTS), NO_FAILURE);
    EXPECT_EQ(out.text, "HOST  SERVICE           SUBJECT  AUTHORITY  TYPE    PRIORITY\n"
                        "h1    DiscoveryService  cl0      srv\\x1b    extsrc  7\n"
                        "h1    DiscoveryService  cl1      srv\\x1b    extsrc  7\n");
    EXPECT_EQ(script.calls, (Lines{"query 4 * *", "pageSize 1023", "page", "page", "release",
                                   "get cl0 of srv\x1b []", "pageSize 65536", "page", "page",
                                   "page", "release", "get cl1 of srv\x1b []", "pageSize 65536",
                                   "page", "page", "page", "release"}));
}

TEST_F(ItemCommandsTest, RegisteredClientsAsJsonNameWhatCannotBeRead)
{
    options.registered = true;
    options.json = true;
    script.records = 1;
    script.pages = {cacheRecord("h1")};
    EXPECT_EQ(run(Command::CLIENTS), NO_FAILURE);
    EXPECT_EQ(Json::parse(out.text), Json::parse(R"({"registered": [{"host": "h1",
        "service": "DiscoveryService", "subject": "cl0", "authority": "srv\u001b",
        "type": "extsrc", "priority": 7}], "unreadable": []})"));

    for (const auto& [data, reason] : std::vector<std::pair<std::string, std::string>>{
             {cacheRecord("h1", "many"), "its data does not say where the explorer is"},
             {"", "its data does not say where the explorer is"},
             {std::string(65537, 'x'), "its data is too long"}}) {
        out.text.clear();
        script.pages = {data};
        EXPECT_EQ(run(Command::CLIENTS), NO_FAILURE);
        const Json document = Json::parse(out.text);
        EXPECT_EQ(document["registered"], Json::array());
        EXPECT_EQ(
            document["unreadable"],
            (Json::array({{{"subject", "cl0"}, {"authority", "srv\x1b"}, {"reason", reason}}})));
    }
    out.text.clear();
    script.status = Svc::DS_OPEN_FAILED;
    EXPECT_EQ(run(Command::CLIENTS), NO_FAILURE);
    EXPECT_EQ(Json::parse(out.text)["unreadable"][0]["reason"], "DS_OPEN_FAILED");
}

TEST_F(ItemCommandsTest, AListOfRegisteredClientsThatBreaksOffPrintsNothing)
{
    options.registered = true;
    script.records = 2;
    script.pages = {cacheRecord("h1")};
    script.failAfter = 10;
    EXPECT_EQ(run(Command::CLIENTS).code, EC_BROKE_OFF);
    EXPECT_EQ(out.text, "");
}

} // namespace
} // namespace Veltrane::Quillmark::Qmdiscoctl
