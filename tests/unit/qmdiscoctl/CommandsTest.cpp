// What each command asks of a service, and what it makes of the answers.

#include "Commands.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Research.h"
#include "support/Lines.h"
#include "support/ListedDiscoveries.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Qmdiscoctl {
namespace {

using QmTest::contentOf;
using QmTest::Lines;
using testing::HasSubstr;

/// A discovery that a researcher reads back.
struct Discovered
{
    std::string in; ///< the subject asked for; empty: any
    std::string subject;
    std::string authority;
    std::string document = "<DiscoveredItems></DiscoveredItems>";
    std::string problem = {};

    void hand(const EachDiscovery& each) const
    {
        const Tlx::AutoDereference<Svc::Discovery> discovery(
            new QmTest::PlainDiscovery(new QmTest::MemoryData(document)));
        discovery->setSubject(new Svc::Subject(subject));
        if (!authority.empty())
            discovery->setAuthority(new Svc::Authority(authority, Svc::AT_EXTSRC));
        const Tlx::AutoDereference<QmTest::ListedDiscoveries> one(new QmTest::ListedDiscoveries);
        one->add(discovery);
        const Tlx::AutoDereference<Svc::AuthSubIterator> all(new Svc::AuthSubIterator(one.get()));
        const Tlx::AutoDereference<Svc::CollectionItemIterator> items(
            all->getNextCollectionItemIterator(nullptr));
        each(*items, problem);
    }
};

/// A document of one file system.
std::string fileSystem(const std::string& mount, const std::string& type, const std::string& size)
{
    return "<DiscoveredItems><DISCOVERED Name=\"" + mount +
           "\"><ExplorerData Name=\"FileSystems\"><Device>/dev/x</Device><Type>" + type +
           "</Type><Options>rw</Options><Size>" + size +
           "</Size><Used>1024</Used><ReadOnly>0</ReadOnly></ExplorerData></DISCOVERED>"
           "</DiscoveredItems>";
}

/// What the service of the test is told to answer, and what it was asked.
struct Script
{
    Svc::DiscoveryStatus status = Svc::DS_SUCCESS;
    Svc::DiscoveryStatus closeStatus = Svc::DS_SUCCESS;
    std::vector<std::string> pages;
    int records = 0;
    bool putAnswer = true;
    bool boolean = true;
    int failAfter = -1; ///< calls until a COMM_FAILURE; -1 for never
    int pingsUntilGone = 0;
    std::vector<Discovered> discovered;
    Outcome researchFails;

    Lines calls;
    std::string stored;
    Remote::Discovery record;

    void call(const std::string& what)
    {
        calls.push_back(what);
        if (failAfter >= 0 && static_cast<int>(calls.size()) > failAfter)
            throw CORBA::COMM_FAILURE(0, CORBA::COMPLETED_MAYBE);
    }
};

class FakeData : public DataPages
{
  public:
    explicit FakeData(Script& script) : m_script(script) {}
    void setPageSize(CORBA::Long size) override
    {
        m_script.call("pageSize " + std::to_string(size));
    }
    std::unique_ptr<Remote::CollectionDataSeq> next() override
    {
        m_script.call("page");
        auto page = std::make_unique<Remote::CollectionDataSeq>();
        if (m_next < m_script.pages.size()) {
            const std::string& text = m_script.pages[m_next++];
            page->length(static_cast<CORBA::ULong>(text.size()));
            std::copy(text.begin(), text.end(), page->get_buffer());
        }
        return page;
    }
    void release() override { m_script.call("release"); }

  private:
    Script& m_script;
    std::size_t m_next = 0;
};

class FakeRecords : public RecordPages
{
  public:
    explicit FakeRecords(Script& script) : m_script(script) {}
    void setPageSize(CORBA::Long size) override
    {
        m_script.call("pageSize " + std::to_string(size));
    }
    std::unique_ptr<Remote::DiscoverySeq> next() override
    {
        m_script.call("page");
        auto page = std::make_unique<Remote::DiscoverySeq>();
        page->length(static_cast<CORBA::ULong>(m_sent ? 0 : m_script.records));
        m_sent = true;
        for (CORBA::ULong i = 0; i < page->length(); ++i) {
            (*page)[i].subject = ("cl" + std::to_string(i)).c_str();
            (*page)[i].authority = "srv\x1b";
            (*page)[i].authType = Svc::AT_QMKCLIENT;
            (*page)[i].sourceHost = "h";
            (*page)[i].sourceServiceName = "s";
        }
        return page;
    }
    void release() override { m_script.call("release"); }

  private:
    Script& m_script;
    bool m_sent = false;
};

class FakeWriter : public Writer
{
  public:
    explicit FakeWriter(Script& script) : m_script(script) {}
    bool put(const Remote::CollectionDataSeq& data) override
    {
        m_script.call("put " + std::to_string(data.length()));
        m_script.stored.append(reinterpret_cast<const char*>(data.get_buffer()), data.length());
        return m_script.putAnswer;
    }
    Svc::DiscoveryResult close() override
    {
        m_script.call("close");
        return {m_script.closeStatus, 0};
    }

  private:
    Script& m_script;
};

class FakeService : public Service
{
  public:
    explicit FakeService(Script& script) : m_script(script) {}
    std::unique_ptr<RecordPages> queryDiscoveries(Svc::DiscoveryQuery, Svc::AuthorityType type,
                                                  const std::string& authority,
                                                  const std::string& subject) override
    {
        m_script.call("query " + std::to_string(type) + " " + authority + " " + subject);
        return std::make_unique<FakeRecords>(m_script);
    }
    Svc::DiscoveryStatus getCollectionData(const Remote::Discovery& record,
                                           const std::string& filter,
                                           std::unique_ptr<DataPages>& pages) override
    {
        m_script.call("get " + std::string(record.subject) + " of " +
                      std::string(record.authority) + " [" + filter + "]");
        if (m_script.status == Svc::DS_SUCCESS)
            pages = std::make_unique<FakeData>(m_script);
        return m_script.status;
    }
    Svc::DiscoveryResult putCollection(const Remote::Discovery& record,
                                       std::unique_ptr<Writer>& writer) override
    {
        m_script.call("putCollection");
        m_script.record = record;
        if (m_script.status == Svc::DS_SUCCESS)
            writer = std::make_unique<FakeWriter>(m_script);
        return {m_script.status, 0};
    }
    bool terminate() override
    {
        m_script.call("terminate");
        return m_script.boolean;
    }
    void restartLocalPushTimer() override { m_script.call("local"); }
    bool restartAllPushTimers() override
    {
        m_script.call("all");
        return m_script.boolean;
    }
    void ping() override
    {
        if (m_script.pingsUntilGone-- <= 0)
            throw CORBA::TRANSIENT();
    }
    void setRequestLimit(std::chrono::seconds) override {}

  private:
    Script& m_script;
};

class Kept : public Output
{
  public:
    Outcome write(std::string_view bytes) override
    {
        text.append(bytes);
        return {};
    }
    Outcome finish() override { return {}; }
    std::string text;
};

struct CtlCommandsTest : testing::Test
{
    CtlCommandsTest()
    {
        options.subject = "cl5";
        options.authority = "srv1";
        target.host = "backup1";
        target.endpoint = {"192.0.2.7", 14400};
    }

    Outcome run(Command command)
    {
        options.command = command;
        Session session{
            .options = options,
            .target = target,
            .status = status,
            .localHost = "here",
            .connect = [this](Failure& failure) -> std::unique_ptr<Service> {
                if (!reachable) {
                    failure = unreachable("backup1", target.endpoint, "no");
                    return nullptr;
                }
                return std::make_unique<FakeService>(script);
            },
            .research = [this](auto query, const auto& subject, const auto& authority, auto* filter,
                               const auto& each) -> Outcome {
                std::ostringstream asked;
                asked << "research " << query << ' ' << subject << ' ' << authority;
                if (filter)
                    asked << ' ' << filter->queryString();
                script.calls.push_back(asked.str());
                for (const Discovered& discovered : script.discovered)
                    if (discovered.in == "" || discovered.in == subject)
                        discovered.hand(each);
                return script.researchFails;
            },
            .out = out,
            .now = [this] { return now; },
            .pause = [this](std::chrono::milliseconds time) { now += time; },
            .epochSeconds = [] { return 1000; },
            .isRunning = [](long) { return false; },
        };
        return runCommand(session);
    }
    std::string file(const std::string& content)
    {
        QmTest::writeFile(directory.path("input"), content);
        return directory.path("input");
    }

    Script script;
    Options options;
    Target target;
    StatusDocument status;
    Kept out;
    bool reachable = true;
    std::chrono::steady_clock::time_point now{};
    QmTest::TemporaryDirectory directory;
};

TEST_F(CtlCommandsTest, PutSendsTheFileInLargeChunksAndClosesOnce)
{
    options.input = file(std::string((1 << 20) + 3, 'x'));
    options.type = Svc::AT_EXTSRC;
    options.priority = 4000000000u;
    options.timeToLive = 60;
    EXPECT_EQ(run(Command::PUT), Outcome());
    EXPECT_EQ(script.calls, (Lines{"putCollection", "put 1048576", "put 3", "close"}));
    EXPECT_EQ(script.record.attributes.priority, static_cast<CORBA::Long>(4000000000u));
    EXPECT_EQ(script.record.attributes.timeToLive, 60u);
    EXPECT_EQ(script.record.attributes.discoveryTime, 1000u);
    EXPECT_STREQ(script.record.sourceHost, "here");
    EXPECT_EQ(out.text, "stored 1048579 bytes as cl5 of srv1 (extsrc) on backup1\n");
}

TEST_F(CtlCommandsTest, AnEmptyFileIsAnEmptyDiscovery)
{
    options.input = file("");
    options.json = true;
    options.type = Svc::AT_EXTSRC;
    EXPECT_EQ(run(Command::PUT), Outcome());
    EXPECT_EQ(script.calls, (Lines{"putCollection", "close"}));
    EXPECT_EQ(Json::parse(out.text), (Json{{"host", "backup1"},
                                           {"subject", "cl5"},
                                           {"authority", "srv1"},
                                           {"type", "extsrc"},
                                           {"bytes", 0}}));
}

TEST_F(CtlCommandsTest, APutThatIsRefusedHasTheStatusesCode)
{
    options.input = file("x");
    script.status = Svc::DS_DATA_EXISTS;
    EXPECT_EQ(run(Command::PUT),
              (Failure{EC_DATA_EXISTS, "the discovery service on backup1 did not store cl5 of "
                                       "srv1: DS_DATA_EXISTS, one of higher priority is stored"}));
    script.status = Svc::DS_SUCCESS;
    script.closeStatus = Svc::DS_OPEN_FAILED;
    EXPECT_EQ(run(Command::PUT)->code, EC_OPEN_FAILED);
}

TEST_F(CtlCommandsTest, APatternIsNoNameToPutOrGet)
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
    EXPECT_EQ(run(Command::PUT)->code, EC_USAGE);
    EXPECT_EQ(run(Command::GET)->code, EC_LOGIC_ERROR);
    EXPECT_EQ(script.calls, Lines{});
}

TEST_F(CtlCommandsTest, AHalfSentPutIsNeverClosed)
{
    options.input = file("12345");
    script.putAnswer = false;
    EXPECT_EQ(run(Command::PUT),
              (Failure{EC_BROKE_OFF, "the discovery service on backup1 failed to take the data; "
                                     "its log tells why; 0 of 5 bytes were sent, nothing was "
                                     "stored"}));
    EXPECT_EQ(script.calls.back(), "put 5");
}

TEST_F(CtlCommandsTest, AServiceThatBreaksOffIsToldWithWhatIsKnown)
{
    options.input = file("12345");
    script.failAfter = 2;
    const Outcome outcome = run(Command::PUT);
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->code, EC_BROKE_OFF);
    EXPECT_THAT(outcome->text, HasSubstr("broke off: the connection broke: COMM_FAILURE"));
    EXPECT_THAT(outcome->text,
                HasSubstr("all 5 bytes were sent, whether they were stored is not known"));
}

TEST_F(CtlCommandsTest, AFileThatCannotBeReadTroublesNoService)
{
    options.input = directory.path("none");
    const Outcome outcome = run(Command::PUT);
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->code, EC_FAILURE);
    EXPECT_THAT(outcome->text, HasSubstr(options.input));
    EXPECT_EQ(script.calls, Lines{});
}

TEST_F(CtlCommandsTest, GetAsksForLargePagesAndWritesTheFileAsAWhole)
{
    script.pages = {"one ", "two"};
    options.filter = "f";
    options.output = directory.path("out");
    EXPECT_EQ(run(Command::GET), Outcome());
    EXPECT_EQ(script.calls, (Lines{"get cl5 of srv1 [f]", "pageSize 1048576", "page", "page",
                                   "page", "release"}));
    EXPECT_EQ(contentOf(directory.path("out")), "one two");
    EXPECT_EQ(out.text, "wrote 7 bytes to " + options.output + "\n");
}

TEST_F(CtlCommandsTest, WithoutAFileTheDataAloneGoesOut)
{
    script.pages = {"one ", "two"};
    EXPECT_EQ(run(Command::GET), Outcome());
    EXPECT_EQ(out.text, "one two");
}

TEST_F(CtlCommandsTest, AGetThatBreaksOffLeavesTheOldFile)
{
    script.pages = {"new", "more"};
    script.failAfter = 3;
    options.output = directory.path("out");
    std::ofstream(options.output) << "old";
    const Outcome outcome = run(Command::GET);
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->code, EC_BROKE_OFF);
    EXPECT_THAT(outcome->text, HasSubstr("; 3 bytes were received"));
    EXPECT_EQ(contentOf(directory.path("out")), "old");
    int entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
        entries += entry.exists();
    EXPECT_EQ(entries, 1) << "something was left beside the file";
}

TEST_F(CtlCommandsTest, AGetThatIsRefusedHasTheStatusesCode)
{
    script.status = Svc::DS_NONE_FOUND;
    EXPECT_EQ(run(Command::GET),
              (Failure{EC_NONE_FOUND, "cannot read cl5 of srv1 from the discovery service on "
                                      "backup1: DS_NONE_FOUND, there is no such discovery"}));
    script.status = Svc::DS_LOGIC_ERROR;
    EXPECT_EQ(run(Command::GET)->code, EC_LOGIC_ERROR);
}

TEST_F(CtlCommandsTest, QueryShowsATableOrJson)
{
    script.records = 2;
    options.subject = "cl*";
    options.authority = "";
    EXPECT_EQ(run(Command::QUERY), Outcome());
    EXPECT_EQ(out.text, "SUBJECT  AUTHORITY  TYPE       HOST  SERVICE\n"
                        "cl0      srv\\x1b    qmkclient  h     s\n"
                        "cl1      srv\\x1b    qmkclient  h     s\n");
    EXPECT_EQ(script.calls[0], "query 0 * cl*");
    EXPECT_EQ(script.calls.back(), "release");
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::QUERY), Outcome());
    const Json document = Json::parse(out.text);
    ASSERT_EQ(document.size(), 2u);
    EXPECT_EQ(document[1]["subject"], "cl1");
    EXPECT_EQ(document[1]["authority"], "srv\x1b");
}

TEST_F(CtlCommandsTest, AQueryThatBreaksOffPrintsNothing)
{
    script.records = 2;
    script.failAfter = 3;
    EXPECT_EQ(run(Command::QUERY)->code, EC_BROKE_OFF);
    EXPECT_EQ(out.text, "");
}

TEST_F(CtlCommandsTest, ClientsAreWhoTellsWhatCanBeFilteredBy)
{
    script.discovered = {{"volume", "volume", "win1"},
                         {"filesystem", "filesystem", "linä"},
                         {"filesystem", "filesystem", "lin1", "no document", "cannot be parsed"},
                         {"filesystem", "filesystem", ""},
                         {"filesystem", "filesystem", "win1"}};
    EXPECT_EQ(run(Command::CLIENTS), Outcome());
    EXPECT_EQ(script.calls, (Lines{"research 2 volume *", "research 2 filesystem *"}));
    EXPECT_EQ(out.text, "CLIENT\nlin1\nlinä\nwin1\n");
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::CLIENTS), Outcome());
    EXPECT_EQ(Json::parse(out.text), (Json{{"clients", {"lin1", "linä", "win1"}}}));
}

TEST_F(CtlCommandsTest, AClientListThatFailsIsNone)
{
    script.discovered = {{"volume", "volume", "win1"}};
    script.researchFails = Failure{EC_UNREACHABLE, "no"};
    EXPECT_EQ(run(Command::CLIENTS), (Failure{EC_UNREACHABLE, "no"}));
    EXPECT_EQ(out.text, "");
}

TEST_F(CtlCommandsTest, ItemsAreATableOfWhatWasReadAndLinesOfWhatWasNot)
{
    options.subject = "";
    options.authority = "h*";
    script.discovered = {{"", "h2/now", "h2", fileSystem("/\x7f", "xfs", "2048")},
                         {"", "text", "h1", "no document", "it is none"},
                         {"", "h1", "h1", fileSystem("/home", "ext4", "1099511627776")},
                         {"", "h1", "h1",
                          "<DiscoveredItems><DISCOVERED Name=\"thing\"></DISCOVERED><DISC",
                          "broken"},
                         {"", "filesystem", "h1", "<FilterData></FilterData>"}};
    EXPECT_EQ(run(Command::ITEMS), Outcome());
    EXPECT_EQ(script.calls, Lines{"research 1 * h*"});
    EXPECT_EQ(out.text, "HOST  MOUNT  DEVICE  TYPE  SIZE     USED     RECORD\n"
                        "h1    /home  /dev/x  ext4  1.0 TiB  1.0 KiB  h1\n"
                        "h1    thing  -       -     -        -        h1\n"
                        "h2    /\\x7f  /dev/x  xfs   2.0 KiB  1.0 KiB  h2/now\n"
                        "not read: h1 of h1: broken\n"
                        "not read: text of h1: it is none\n");
}

TEST_F(CtlCommandsTest, TheReasonStandsBeforeWhatTheResearcherSays)
{
    using Lines = std::vector<KeptLog::Kept>;
    const KeptLog::Kept unknown{"AuthSubIterator::xmlStartElement", "Ignoring Unknown Tag"};
    const KeptLog::Kept cause{"XmlDocumentInterface::parse", "it breaks off"};
    const KeptLog::Kept own{"AuthSubIterator::parseDiscovery", "Failed to parse"};
    const KeptLog::Kept last{"AuthSubIterator::getNextCollectionItemIterator", "Failed"};
    EXPECT_EQ(reasonOf(Lines{unknown, cause, own, last}), "it breaks off");
    EXPECT_EQ(reasonOf(Lines{own, last}), "Failed to parse");
    EXPECT_EQ(reasonOf(Lines{}), "");
}

TEST_F(CtlCommandsTest, LinesAreKeptOnceAndTheLastOfThem)
{
    KeptLog log;
    const auto write = [&log](int level, const std::string& text) {
        log.write({level, 400, "Op::eration", text});
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

TEST_F(CtlCommandsTest, AFilterIsHandedOnAndAppliedToWhatArrives)
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
    EXPECT_EQ(run(Command::ITEMS), Outcome());
    EXPECT_EQ(script.calls, Lines{"research 1 * * size > 1K and mount = \"/home\""});
    const Json expected = Json::parse(R"({"host": "h1", "subject": "h1", "name": "/home",
        "explorer": "FileSystems", "device": "/dev/x", "type": "ext4", "options": "rw",
        "readOnly": false, "size": 4096, "used": 1024})");
    EXPECT_EQ(Json::parse(out.text),
              (Json{{"items", Json::array({expected})}, {"unread", Json::array()}}));

    out.text.clear();
    options.filter = "mount = \"/\" and not size > 0"; // of the item that is no file system
    EXPECT_EQ(run(Command::ITEMS), Outcome());
    const Json items = Json::parse(out.text)["items"];
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0], (Json{{"host", "h1"}, {"subject", "h1"}, {"name", "/"}, {"explorer", ""}}));
}

TEST_F(CtlCommandsTest, FiltersAreMergedFromAllHosts)
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
        {"filesystem", "filesystem", "h3", "no document", "it is none"}};
    EXPECT_EQ(run(Command::FILTERS), Outcome());
    EXPECT_EQ(out.text, "FIELD  TYPE   VALUES  DESCRIPTION\n"
                        "label  text   any     -\n"
                        "size   bytes  any     how much\n"
                        "kind   text   a, b    -\n"
                        "not read: filesystem of h3: it is none\n");
    out.text.clear();
    options.json = true;
    EXPECT_EQ(run(Command::FILTERS), Outcome());
    EXPECT_EQ(
        Json::parse(out.text)["filters"][2],
        (Json{{"field", "kind"}, {"type", "text"}, {"values", {"a", "b"}}, {"description", ""}}));
    script.researchFails = Failure{EC_UNREACHABLE, "no"};
    EXPECT_EQ(run(Command::FILTERS)->code, EC_UNREACHABLE);
    EXPECT_EQ(run(Command::ITEMS)->code, EC_UNREACHABLE);
}

/// What the master keeps of another host's explorer.
std::string cacheRecord(const std::string& host, const std::string& priority = "7")
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<DiscoveredItems>\n<SourceHost>" + host +
           "</SourceHost><ServiceName>DiscoveryService</ServiceName><Priority>" + priority +
           "</Priority><OriginType>3</OriginType></DiscoveredItems>\n";
}

TEST_F(CtlCommandsTest, RegisteredClientsAreReadFromTheirRecords)
{
    options.registered = true;
    script.records = 2;
    script.pages = {cacheRecord("h1\x1b").substr(0, 20), cacheRecord("h1\x1b").substr(20)};
    // (a control character makes no document)
    EXPECT_EQ(run(Command::CLIENTS), Outcome());
    EXPECT_EQ(out.text, "HOST  SERVICE  SUBJECT  AUTHORITY  TYPE  PRIORITY\n"
                        "cannot read the record of cl0 of srv\\x1b: its data does not tell where "
                        "the explorer is\n"
                        "cannot read the record of cl1 of srv\\x1b: its data does not tell where "
                        "the explorer is\n");
    out.text.clear();
    script.calls.clear();
    script.pages = {cacheRecord("h1").substr(0, 20), cacheRecord("h1").substr(20)};
    EXPECT_EQ(run(Command::CLIENTS), Outcome());
    EXPECT_EQ(out.text, "HOST  SERVICE           SUBJECT  AUTHORITY  TYPE    PRIORITY\n"
                        "h1    DiscoveryService  cl0      srv\\x1b    extsrc  7\n"
                        "h1    DiscoveryService  cl1      srv\\x1b    extsrc  7\n");
    EXPECT_EQ(script.calls, (Lines{"query 4 * *", "pageSize 1023", "page", "page", "release",
                                   "get cl0 of srv\x1b []", "pageSize 65536", "page", "page",
                                   "page", "release", "get cl1 of srv\x1b []", "pageSize 65536",
                                   "page", "page", "page", "release"}));
}

TEST_F(CtlCommandsTest, RegisteredClientsAsJsonNameWhatCannotBeRead)
{
    options.registered = true;
    options.json = true;
    script.records = 1;
    script.pages = {cacheRecord("h1")};
    EXPECT_EQ(run(Command::CLIENTS), Outcome());
    EXPECT_EQ(Json::parse(out.text), Json::parse(R"({"registered": [{"host": "h1",
        "service": "DiscoveryService", "subject": "cl0", "authority": "srv\u001b",
        "type": "extsrc", "priority": 7}], "unreadable": []})"));

    for (const auto& [data, reason] : std::vector<std::pair<std::string, std::string>>{
             {cacheRecord("h1", "many"), "its data does not tell where the explorer is"},
             {"", "its data does not tell where the explorer is"},
             {std::string(65537, 'x'), "its data is no such document: it is too long"}}) {
        out.text.clear();
        script.pages = {data};
        EXPECT_EQ(run(Command::CLIENTS), Outcome());
        const Json document = Json::parse(out.text);
        EXPECT_EQ(document["registered"], Json::array());
        EXPECT_EQ(
            document["unreadable"],
            (Json::array({{{"subject", "cl0"}, {"authority", "srv\x1b"}, {"reason", reason}}})));
    }
    out.text.clear();
    script.status = Svc::DS_OPEN_FAILED;
    EXPECT_EQ(run(Command::CLIENTS), Outcome());
    EXPECT_EQ(Json::parse(out.text)["unreadable"][0]["reason"], "DS_OPEN_FAILED");
}

TEST_F(CtlCommandsTest, AListOfRegisteredClientsThatBreaksOffIsNone)
{
    options.registered = true;
    script.records = 2;
    script.pages = {cacheRecord("h1")};
    script.failAfter = 10;
    EXPECT_EQ(run(Command::CLIENTS)->code, EC_BROKE_OFF);
    EXPECT_EQ(out.text, "");
}

TEST_F(CtlCommandsTest, RefreshIsOfOneHostOrOfAll)
{
    EXPECT_EQ(run(Command::REFRESH), Outcome());
    EXPECT_EQ(out.text, "refresh started by the discovery service on backup1\n");
    options.all = true;
    EXPECT_EQ(run(Command::REFRESH), Outcome());
    EXPECT_EQ(script.calls, (Lines{"local", "all"}));
    script.boolean = false;
    EXPECT_EQ(run(Command::REFRESH),
              (Failure{EC_FAILURE, "the discovery service on backup1 refused: it is not the "
                                   "master's, or a refresh is running"}));
}

TEST_F(CtlCommandsTest, StopWaitsUntilTheServiceIsGone)
{
    script.pingsUntilGone = 3;
    EXPECT_EQ(run(Command::STOP), Outcome());
    EXPECT_EQ(out.text, "the discovery service on backup1 has stopped\n");
    script.pingsUntilGone = 1 << 20;
    options.waitSeconds = 2;
    EXPECT_EQ(run(Command::STOP),
              (Failure{EC_FAILURE, "the discovery service on backup1 was told to stop, but has not "
                                   "within 2 s"}));
    options.waitSeconds = 0;
    out.text.clear();
    EXPECT_EQ(run(Command::STOP), Outcome());
    EXPECT_EQ(out.text, "the discovery service on backup1 is stopping\n");
}

TEST_F(CtlCommandsTest, StatusShowsTheServiceAndItsFile)
{
    target.local = true;
    status.path = "/root/run/status.json";
    status.found = true;
    status.members = {{"version", "1.0.0"}, {"counters", {{"queries", 3}}}};
    script.pingsUntilGone = 5;
    options.json = true;
    EXPECT_EQ(run(Command::STATUS), Outcome());
    const Json document = Json::parse(out.text);
    EXPECT_EQ(document["reachable"], true);
    EXPECT_EQ(document["service"]["counters"]["queries"], 3);
    EXPECT_EQ(document["statusFile"]["state"], "current");
    out.text.clear();
    options.json = false;
    EXPECT_EQ(run(Command::STATUS), Outcome());
    EXPECT_THAT(out.text, HasSubstr("counters.queries  3\n"));
}

TEST_F(CtlCommandsTest, ExplorersAreShownFromTheServicesFile)
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
    EXPECT_EQ(run(Command::EXPLORERS), Outcome());
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
    EXPECT_EQ(run(Command::EXPLORERS), Outcome());
    EXPECT_EQ(Json::parse(out.text)["explorers"], status.members["explorers"]);
    EXPECT_EQ(script.calls, Lines{}) << "the service is not asked";
}

TEST_F(CtlCommandsTest, ExplorersThatAreNotToldOf)
{
    status.path = "/root/run/status.json";
    target.local = false;
    options.host = "backup1";
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_USAGE, "the explorers of backup1 are told on that host only"}));
    options.host = "";
    EXPECT_EQ(run(Command::EXPLORERS)->code, EC_UNREACHABLE) << "this host's own are meant";
    target.local = true;
    status.found = false;
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_UNREACHABLE, "the service of this host is not running: there is no "
                                       "/root/run/status.json"}));
    status.found = true;
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_FAILURE, "/root/run/status.json tells nothing of explorers"}));
    status.stale = true;
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_UNREACHABLE, "the service of this host is not running: "
                                       "/root/run/status.json is of one that ended"}));
    status.problem = "is no status of a service";
    EXPECT_EQ(run(Command::EXPLORERS),
              (Failure{EC_FAILURE, "/root/run/status.json is no status of a service"}));
}

TEST_F(CtlCommandsTest, EveryCommandTellsAServiceThatCannotBeReached)
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
