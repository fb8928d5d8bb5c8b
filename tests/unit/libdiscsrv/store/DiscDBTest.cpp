// Finding, making and expiring the records of the store.

#include "DiscDB.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "StoreFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::contentOf;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::writeFile;

TEST(DiscDBAloneTest, BeforeInitNothingIsFoundOrMade)
{
    const AssertionCapture assertions;
    EXPECT_EQ(getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA), nullptr);
    EXPECT_EQ(getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA), nullptr);
    EXPECT_EQ(getDiscoveryDBDatabase()->getDiscovery("1 a b.xml"), nullptr);
    EXPECT_EQ(assertions.texts(), Lines(3, "m_init"));
}

TEST(DiscDBAloneTest, AnEmptyDirectoryStandsForTheProductsOwn)
{
    const QmTest::TemporaryDirectory root;
    HostConfig::instance().setRoot(root.path().string());
    getDiscoveryDBDatabase()->init("");
    const auto store = root.path() / "db" / "discovery";
    struct stat status = {};
    ASSERT_EQ(::stat(store.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    EXPECT_TRUE(std::filesystem::exists(store / "Update.lock"));
}

TEST(DiscDBAloneTest, ADirectoryThatCannotBeMadeIsLogged)
{
    const QmTest::TemporaryDirectory root;
    writeFile(root.path() / "file", "");
    const std::string dir = (root.path() / "file" / "store").string();
    const LogCapture log;
    getDiscoveryDBDatabase()->init(dir);
    EXPECT_EQ(log.texts(1), (Lines{"Unable to create directory path " + dir + ", error 20",
                                   "Unable to open " + dir + "/Update.lock",
                                   "The cause: ENOTDIR, Not a directory"}));
    EXPECT_EQ(log.lines()[0].source, "../DiscDB");
    // The store is initialised, but it is empty.
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
    ASSERT_TRUE(iterator);
    EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST(DiscDBAloneTest, InitRemovesLeftoverTemporaryPayloads)
{
    const QmTest::TemporaryDirectory directory;
    for (const char* name : {"0.updating", "17.updating", "odd.updating", "kept.dat", "updating"})
        writeFile(directory.path() / name, "x");
    const LogCapture log;
    getDiscoveryDBDatabase()->init(directory.path().string());
    auto texts = log.texts(1);
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts,
              (Lines{"Deleting temporary file 0.updating", "Deleting temporary file 17.updating",
                     "Deleting temporary file odd.updating"}));
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "0.updating"));
    EXPECT_TRUE(std::filesystem::exists(directory.path() / "kept.dat"));
    EXPECT_TRUE(std::filesystem::exists(directory.path() / "updating"));
}

TEST(DiscDBAloneTest, InitLeavesTemporaryPayloadsWhileSomebodyHoldsTheLock)
{
    const QmTest::TemporaryDirectory directory;
    writeFile(directory.path() / "0.updating", "x");
    const CleanupLock writer(directory.path().c_str(), CleanupLock::LM_SHARED);
    ASSERT_TRUE(writer.isLocked());
    const LogCapture log;
    getDiscoveryDBDatabase()->init(directory.path().string());
    EXPECT_EQ(log.texts(1),
              (Lines{"Unable to lock " + (directory.path() / "Update.lock").string(),
                     "The cause: another process or another writer has a lock on it"}));
    EXPECT_TRUE(std::filesystem::exists(directory.path() / "0.updating"));
}

TEST(DiscDBAloneTest, ASecondInitIsReportedAndChangesNothing)
{
    const QmTest::TemporaryDirectory first;
    const QmTest::TemporaryDirectory second;
    getDiscoveryDBDatabase()->init(first.path().string());
    const AssertionCapture assertions;
    getDiscoveryDBDatabase()->init(second.path().string());
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
    EXPECT_TRUE(std::filesystem::is_empty(second.path()));
}

struct DiscDBTest : QmTest::Store
{
};

TEST_F(DiscDBTest, FindsARecordByItsFileName)
{
    put({.priority = 7, .payload = "the payload"});
    const auto record = find("1 srv1 cl5.xml");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->getSubject()->getSubject(), TlxString("cl5"));
    EXPECT_EQ(record->getAuthority()->getName(), TlxString("srv1"));
    EXPECT_EQ(record->getAuthority()->getType(), AT_QMKSERVER);
    EXPECT_EQ(record->getAttributes()->getPriority(), 7u);
    EXPECT_EQ(record->getAttributes()->getDiscoveryTime(), TlxObjTime(1000, 0));
    EXPECT_EQ(record->getQuery(), DQ_DISCOVERY_DATA);
    EXPECT_EQ(read(*record), "the payload");
}

TEST_F(DiscDBTest, AFoundRecordHoldsAReadLock)
{
    put({});
    auto record = find("1 srv1 cl5.xml");
    ASSERT_TRUE(record);
    const auto other = FileLock::open(path("1 srv1 cl5.xml").string(), O_RDWR);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->tryacquire_write(), -1);
    EXPECT_EQ(other->tryacquire_read(), 0);
    EXPECT_EQ(other->release(), 0);
    record.reset();
    EXPECT_EQ(other->tryacquire_write(), 0);
}

TEST_F(DiscDBTest, AMissingRecordIsLoggedAndNull)
{
    const LogCapture log;
    EXPECT_FALSE(find("1 srv1 none.xml"));
    EXPECT_EQ(log.texts(1), (Lines{"Unable to open " + path("1 srv1 none.xml").string(),
                                   "The cause: ENOENT, No such file or directory"}));
}

TEST_F(DiscDBTest, AWrongFileNameIsReported)
{
    const AssertionCapture assertions;
    EXPECT_FALSE(find("xml"));
    EXPECT_EQ(getDiscoveryDBDatabase()->getDiscovery(nullptr), nullptr);
    EXPECT_EQ(assertions.texts().size(), 2u);
}

TEST_F(DiscDBTest, AnIteratorOverAllSkipsOnlyRemotePullRecords)
{
    put({.subject = "a", .type = AT_QMKSERVER});
    put({.subject = "b", .type = AT_QMKCLIENT});
    put({.subject = "c", .type = AT_EXTSRC});
    put({.subject = "d", .type = AT_REMOTEPULL});
    put({.subject = "e", .type = AT_ANYANDALL});
    EXPECT_EQ(all(), (Lines{"a", "b", "c", "e"}));
    EXPECT_EQ(all(AT_REMOTEPULL), Lines{"d"});
    EXPECT_EQ(all(AT_QMKCLIENT), Lines{"b"});
}

TEST_F(DiscDBTest, FiltersAreWholeNamesOrPatterns)
{
    for (const char* subject : {"cl1", "cl12", "CL1", "x cl1", "d1"})
        for (const char* authority : {"srv1", "srv2"})
            put({.subject = subject, .authority = authority});
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", "cl1"), Lines{"cl1"});
    EXPECT_EQ(all(AT_ANYANDALL, "srv?", "cl1"), (Lines{"cl1", "cl1"}));
    EXPECT_EQ(all(AT_QMKSERVER, "srv1", "cl*"), (Lines{"cl1", "cl12"}));
    EXPECT_EQ(all(AT_QMKSERVER, "", ""), all());
    EXPECT_EQ(all(AT_EXTSRC, "srv1", "cl*"), Lines{});
}

TEST_F(DiscDBTest, ATooComplexPatternMatchesNothingAndIsReportedOnce)
{
    put({});
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
    iterator->setSubject("c" + std::string(2000, '*'));
    const LogCapture log;
    EXPECT_EQ(iterator->getNext(), nullptr);
    EXPECT_EQ(iterator->getNext(), nullptr);
    EXPECT_EQ(log.texts(1),
              Lines{"A pattern may have 1024 bytes, this one has 2009 and matches nothing"});
}

TEST_F(DiscDBTest, ANameThatIsTooLongForAFileIsJustNotFound)
{
    const std::string longest(255 - std::string("1 srv1 .xml").size(), 'x');
    put({.subject = longest});
    const LogCapture log;
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", longest), Lines{longest});
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", longest + "x"), Lines{});
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", longest + "?"), Lines{});
    EXPECT_EQ(log.texts(1), Lines{});
}

TEST_F(DiscDBTest, OddNamesAreFoundAgain)
{
    const Lines names = {"a b", "a/b", "..", "é", "日本", "%", "\"'<>&", "a%20c", "\t"};
    for (const std::string& name : names)
        EXPECT_EQ(put({.subject = name, .authority = name}), DS_SUCCESS) << name;
    EXPECT_EQ(all().size(), names.size());
    for (const std::string& name : names) {
        const auto found = all(AT_ANYANDALL, name, name);
        ASSERT_EQ(found.size(), 1u) << name;
        EXPECT_EQ(found[0], Subject(name).getSubject().utf8());
    }
}

TEST_F(DiscDBTest, AnExpiredRecordIsDeletedAndTheIterationGoesOn)
{
    put({.subject = "a"});
    put({.subject = "b", .timeToLive = 100});
    put({.subject = "c"});
    setNow(2000);
    const LogCapture log;
    EXPECT_EQ(all(), (Lines{"a", "c"}));
    EXPECT_EQ(log.texts(1), Lines{path("1 srv1 b.xml").string() + " has expired"});
    EXPECT_EQ(log.texts(4), Lines{"Deleted colllection: " + path("1 srv1 b.dat").string()});
    EXPECT_EQ(files(), (Lines{"1 srv1 a.dat", "1 srv1 a.xml", "1 srv1 c.dat", "1 srv1 c.xml",
                              "Update.lock"}));
}

TEST_F(DiscDBTest, AnExpiredRecordWithoutPayloadIsDeletedToo)
{
    put({.timeToLive = 100});
    std::filesystem::remove(path("1 srv1 cl5.dat"));
    setNow(2000);
    const LogCapture log;
    EXPECT_FALSE(find("1 srv1 cl5.xml"));
    EXPECT_EQ(log.texts(1),
              (Lines{path("1 srv1 cl5.xml").string() + " has expired",
                     "Collection data did not exist " + path("1 srv1 cl5.dat").string()}));
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DiscDBTest, AnExpiredRecordThatIsReadElsewhereStays)
{
    put({.timeToLive = 100});
    const auto reader = find("1 srv1 cl5.xml");
    ASSERT_TRUE(reader);
    const Lines lines{path("1 srv1 cl5.xml").string() + " has expired",
                      "Unable to upgrade lock to expire file, errno: 16",
                      path("1 srv1 cl5.xml").string() + " could not be expired"};
    // It expired at 1125. An abandoned read may last 300 seconds.
    for (const auto& [now, severity] :
         {std::pair(1424, LogSeverity::Notice), std::pair(1425, LogSeverity::Warning)}) {
        setNow(now);
        LogCapture log;
        EXPECT_FALSE(find("1 srv1 cl5.xml"));
        EXPECT_EQ(log.texts(1), lines);
        EXPECT_EQ(log.severities(lines[0]), std::vector{LogSeverity::Notice});
        EXPECT_EQ(log.severities(lines[1]), std::vector{severity}) << now;
        EXPECT_EQ(log.severities(lines[2]), std::vector{severity}) << now;
    }
    EXPECT_EQ(read(*reader), "payload");
}

TEST_F(DiscDBTest, ARecordWrittenAnewMeanwhileIsNotExpired)
{
    put({.timeToLive = 100});
    const auto found = find("1 srv1 cl5.xml");
    ASSERT_TRUE(found);
    setNow(2000);
    // Another process overwrites the file in the same way.
    const auto current = make({.timeToLive = 100});
    std::ostringstream document;
    current->writeXml(document, XmlStr::XE_UTF8);
    writeFile(path("1 srv1 cl5.xml"), document.str());
    EXPECT_EQ(found->expire(), 1);
    EXPECT_EQ(contentOf(path("1 srv1 cl5.dat")), "payload");
}

TEST_F(DiscDBTest, ARecordRemovedMeanwhileIsNotExpiredInAnothersPlace)
{
    put({.timeToLive = 100});
    const auto found = find("1 srv1 cl5.xml");
    ASSERT_TRUE(found);
    setNow(2000);
    std::filesystem::remove(path("1 srv1 cl5.xml"));
    put({.payload = "another"});
    EXPECT_EQ(found->expire(), 1);
    EXPECT_EQ(contentOf(path("1 srv1 cl5.dat")), "another");
    EXPECT_TRUE(std::filesystem::exists(path("1 srv1 cl5.xml")));
}

TEST_F(DiscDBTest, AnExpiredRecordWhosePayloadCannotBeDeletedStays)
{
    put({.timeToLive = 100});
    std::filesystem::remove(path("1 srv1 cl5.dat"));
    std::filesystem::create_directory(path("1 srv1 cl5.dat"));
    setNow(2000);
    const LogCapture log;
    EXPECT_FALSE(find("1 srv1 cl5.xml"));
    EXPECT_EQ(log.texts(1),
              (Lines{path("1 srv1 cl5.xml").string() + " has expired",
                     "Unable to delete " + path("1 srv1 cl5.dat").string() + ", error 21",
                     path("1 srv1 cl5.xml").string() + " could not be expired"}));
    EXPECT_EQ(log.severities(log.texts(1).back()), std::vector{LogSeverity::Warning});
    EXPECT_TRUE(std::filesystem::exists(path("1 srv1 cl5.xml")));
}

TEST_F(DiscDBTest, AnExpiredRecordThatHoldsAnotherPayloadIsReported)
{
    put({.timeToLive = 100});
    const auto found = find("1 srv1 cl5.xml");
    ASSERT_TRUE(found);
    setNow(2000);
    found->setCollectionData(nullptr);
    const AssertionCapture assertions;
    EXPECT_EQ(found->expire(), 2);
    EXPECT_EQ(assertions.texts(), Lines{"collection"});
    EXPECT_TRUE(std::filesystem::exists(path("1 srv1 cl5.xml")));
}

TEST_F(DiscDBTest, AnExpiredRecordThatCannotBeReadAgainStays)
{
    put({.timeToLive = 100});
    const auto found = find("1 srv1 cl5.xml");
    ASSERT_TRUE(found);
    setNow(2000);
    writeFile(path("1 srv1 cl5.xml"), "nonsense");
    EXPECT_EQ(found->expire(), 2);
    EXPECT_EQ(contentOf(path("1 srv1 cl5.dat")), "payload");
}

TEST_F(DiscDBTest, OtherFilesWithNamesLikeRecordsAreSkipped)
{
    put({.subject = "good"});
    writeFile(path("1 a empty.xml"), "");
    writeFile(path("1 a nonsense.xml"), "this is no document");
    writeFile(path("1 a half.xml"), contentOf(path("1 srv1 good.xml")).substr(0, 60));
    writeFile(path("1 a other.xml"), "<Other/>");
    writeFile(path("1 a range.xml"),
              "<DiscoveryData><DiscoveryAuthority Name=\"a\" Type=\"9\"></DiscoveryAuthority>"
              "<DiscoverySubject Name=\"s\"></DiscoverySubject></DiscoveryData>");
    std::filesystem::create_directory(path("1 a directory.xml"));
    ASSERT_EQ(::mkfifo(path("1 a fifo.xml").c_str(), 0600), 0);
    writeFile(path("1 a notes.txt"), "notes");
    writeFile(path("a.xml"), "no three parts");
    const auto before = files();
    EXPECT_EQ(all(), Lines{"good"});
    EXPECT_EQ(files(), before);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
