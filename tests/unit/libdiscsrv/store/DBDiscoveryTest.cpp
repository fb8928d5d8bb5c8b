// A record of the store: names, priority rule, writing, reading.

#include "DiscDB.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include "StoreFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::contentOf;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::RecordOf;
using QmTest::writeFile;

struct DBDiscoveryTest : QmTest::Store
{
    const std::string metadata = "1 srv1 cl5.xml";
    const std::string payload = "1 srv1 cl5.dat";
};

TEST_F(DBDiscoveryTest, ItsFileNamesAreTypeAuthorityAndSubject)
{
    const auto record = make({});
    EXPECT_EQ(record->generateMetabaseFileName(), "1 srv1 cl5.xml");
    EXPECT_EQ(record->generatecollectionBaseFileName(), "1 srv1 cl5.dat");
    const auto odd = make({.subject = "a b/c", .authority = "é%", .type = AT_REMOTEPULL});
    EXPECT_EQ(odd->generateMetabaseFileName(), "4 %C3%A9%25 a%20b%2Fc.xml");
}

TEST_F(DBDiscoveryTest, ANameNeedsAuthorityAndSubject)
{
    const AutoDereference<Discovery> record(
        getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
    auto& discovery = dynamic_cast<DBDiscovery&>(*record);
    AssertionCapture assertions;
    EXPECT_EQ(discovery.generateMetabaseFileName(), "");
    EXPECT_EQ(discovery.generatecollectionBaseFileName(), "");
    EXPECT_EQ(assertions.texts(),
              (Lines{"getAuthority()", "getSubject()", "getAuthority()", "getSubject()"}));
    EXPECT_EQ(discovery.open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DBDiscoveryTest, StoresAMetadataAndAPayloadFile)
{
    EXPECT_EQ(put({.payload = "the payload"}), DS_SUCCESS);
    EXPECT_EQ(files(), (Lines{payload, metadata, "Update.lock"}));
    EXPECT_EQ(contentOf(path(payload)), "the payload");
    std::ostringstream document;
    make({})->writeXml(document, XmlStr::XE_UTF8);
    EXPECT_EQ(contentOf(path(metadata)), document.str());
    struct stat status = {};
    ASSERT_EQ(::stat(path(metadata).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0u);
}

TEST_F(DBDiscoveryTest, AHigherStoredPriorityBlocksAtOpen)
{
    EXPECT_EQ(put({.priority = 5, .payload = "five"}), DS_SUCCESS);
    const auto lower = make({.priority = 4});
    const LogCapture log;
    const DiscoveryResult result = lower->open(OM_UPDATE, "");
    EXPECT_EQ(result.discStatus, DS_DATA_EXISTS);
    EXPECT_EQ(result.retryInterval, 0u);
    EXPECT_EQ(log.texts(1),
              Lines{"Cannot open the db database, data with higher priority already exists."});
    EXPECT_EQ(log.lines()[0].source, "../DiscDB");
    EXPECT_EQ(contentOf(path(payload)), "five");
}

TEST_F(DBDiscoveryTest, AHigherStoredPriorityBlocksAtPersist)
{
    const auto lower = make({.priority = 4});
    EXPECT_EQ(lower->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(put({.priority = 5, .payload = "five"}), DS_SUCCESS);
    const LogCapture log;
    EXPECT_EQ(lower->persist().discStatus, DS_DATA_EXISTS);
    EXPECT_EQ(log.texts(1), Lines{"Cannot persist, data with higher priority already exists."});
    EXPECT_EQ(contentOf(path(payload)), "five");
}

TEST_F(DBDiscoveryTest, AnEqualOrHigherPriorityReplaces)
{
    EXPECT_EQ(put({.priority = 5, .payload = "one"}), DS_SUCCESS);
    EXPECT_EQ(put({.priority = 5, .payload = "two"}), DS_SUCCESS);
    EXPECT_EQ(contentOf(path(payload)), "two");
    EXPECT_EQ(put({.priority = 6, .payload = "three"}), DS_SUCCESS);
    EXPECT_EQ(contentOf(path(payload)), "three");
    EXPECT_EQ(put({.priority = 5, .payload = "four"}), DS_DATA_EXISTS);
}

TEST_F(DBDiscoveryTest, AnExpiredRecordOfHigherPriorityBlocksUntilALookupRemovesIt)
{
    EXPECT_EQ(put({.priority = 5, .timeToLive = 100}), DS_SUCCESS);
    setNow(2000);
    EXPECT_EQ(put({.priority = 4}), DS_DATA_EXISTS);
    EXPECT_EQ(all(), Lines{});
    EXPECT_EQ(put({.priority = 4}), DS_SUCCESS);
}

TEST_F(DBDiscoveryTest, AnEmptyStoredDocumentNeverBlocks)
{
    writeFile(path(metadata), "");
    const LogCapture log;
    EXPECT_EQ(put({.priority = 0}), DS_SUCCESS);
    EXPECT_EQ(find(metadata)->getAttributes()->getPriority(), 0u);
    for (const auto& text : log.texts(1))
        EXPECT_EQ(text.find("Failed to parse"), std::string::npos) << text;
}

TEST_F(DBDiscoveryTest, AStoredDocumentThatCannotBeParsedNeverBlocks)
{
    writeFile(path(metadata), "nonsense");
    const auto record = make({.priority = 0});
    const LogCapture log;
    EXPECT_TRUE(record->canOverride());
    // The parse stops at its first failure.
    EXPECT_EQ(log.texts(1), Lines{"Failed to parse buffer: nonsense"});
    EXPECT_EQ(put({.priority = 0}), DS_SUCCESS);
}

TEST_F(DBDiscoveryTest, ADocumentBeyondTheSizeIsNoRecordAndDoesNotBlock)
{
    writeFile(path(metadata), "<DiscoveryData><Priority>9</Priority><!--" +
                                  std::string(2u << 20, 'x') + "-->" + "</DiscoveryData>");
    const LogCapture log;
    EXPECT_FALSE(find(metadata));
    EXPECT_EQ(log.texts(1), (Lines{"A metadata document may have 1048576 bytes, " +
                                       path(metadata).string() + " has 2097212",
                                   "Unable to load " + path(metadata).string()}));
    EXPECT_TRUE(make({.priority = 0})->canOverride());
}

TEST_F(DBDiscoveryTest, ADocumentBeyondTheSizeIsNotStored)
{
    put({.payload = "old"});
    const auto record = make({});
    const AutoDereference<StatusMsg> message(
        new StatusMsg(1, TlxString(std::string(std::size_t{1} << 20, 'x'))));
    record->setSubject(new Subject("cl5", message.get()));
    ASSERT_TRUE(isSuccess(record->open(OM_UPDATE, "")));
    const LogCapture log;
    EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
    ASSERT_EQ(log.texts(1).size(), 1u);
    EXPECT_EQ(log.texts(1)[0].find("A metadata document may have 1048576 bytes, that of " +
                                   path("1 srv1 cl5.xml").string() + " has 10"),
              0u);
    EXPECT_EQ(read(*find("1 srv1 cl5.xml")), "old");
}

TEST_F(DBDiscoveryTest, ThePriorityOfABrokenDocumentBlocksToo)
{
    writeFile(path("1 srv1 cl5.xml"),
              "<DiscoveryData><DiscoveryAttributes Type=\"9\" Storage=\"0\"><Priority>6</Priority>"
              "</DiscoveryAttributes></DiscoveryData>");
    EXPECT_EQ(put({.priority = 5}), DS_DATA_EXISTS);
    EXPECT_EQ(put({.priority = 6}), DS_SUCCESS);
}

TEST_F(DBDiscoveryTest, ADocumentWithoutPriorityDoesNotBlock)
{
    writeFile(path(metadata), "<DiscoveryData></DiscoveryData>");
    EXPECT_TRUE(make({.priority = 0})->canOverride());
}

TEST_F(DBDiscoveryTest, AShorterDocumentLeavesNoTailOfTheOlderOne)
{
    EXPECT_EQ(put({.priority = 4000000000u, .timeToLive = 1000000000}), DS_SUCCESS);
    const auto before = std::filesystem::file_size(path(metadata));
    const auto record = make({.priority = 4000000000u});
    record->setAttributes(new CollectionAttributes(CT_CONFIGURATION, CS_LOCALONLY, TlxObjTime(),
                                                   TlxObjTime(), 4000000000u));
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(record->persist().discStatus, DS_SUCCESS);
    std::ostringstream document;
    record->writeXml(document, XmlStr::XE_UTF8);
    EXPECT_LT(document.str().size(), before);
    EXPECT_EQ(contentOf(path(metadata)), document.str());
}

TEST_F(DBDiscoveryTest, PersistWithoutWhatItNeedsIsReported)
{
    const AutoDereference<Discovery> record(
        getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
    record->setCollectionData(nullptr);
    const AssertionCapture assertions;
    EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(record->open(OM_READ, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(assertions.texts(), (Lines{"getAuthority()", "getSubject()", "getCollectionData()",
                                         "getCollectionData()"}));
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DBDiscoveryTest, APersistedRecordHoldsItsLockAndIsNotPersistedAgain)
{
    const auto record = make({});
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    EXPECT_EQ(record->persist().discStatus, DS_SUCCESS);
    const auto other = FileLock::open(path(metadata).string(), O_RDWR);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->tryacquire_read(), -1);
    const AssertionCapture assertions;
    EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(assertions.texts(), Lines{"!m_fileLock"});
}

TEST_F(DBDiscoveryTest, ANameThatIsTooLongIsRefused)
{
    const std::string subject(300, 's');
    const auto record = make({.subject = subject});
    const LogCapture log;
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), Lines(2, "The file name of a record may have 255 bytes, this one has "
                                     "311: 1 srv1 " +
                                         subject + ".xml"));
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(DBDiscoveryTest, ANameOfManyMegabytesIsShownInPart)
{
    const auto record = make({.subject = std::string(5u << 20, 's')});
    const LogCapture log;
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), Lines{"The file name of a record may have 255 bytes, this one has "
                                  "5242891: 1 srv1 " +
                                  std::string(1017, 's') + "..."});
}

TEST_F(DBDiscoveryTest, AMetadataPathThatCannotBeOpened)
{
    std::filesystem::create_directory(path(metadata));
    const auto record = make({});
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    const LogCapture log;
    EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1), (Lines{"Unable to open " + path(metadata).string(),
                                   "The cause: EISDIR, Is a directory",
                                   "Deleted file: " + path("0.updating").string()}));
}

TEST_F(DBDiscoveryTest, APayloadThatCannotBeMovedFailsThePersist)
{
    std::filesystem::create_directory(path(payload));
    const auto record = make({});
    EXPECT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
    const LogCapture log;
    EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
    EXPECT_EQ(log.texts(1).back(), "Collection data update failed");
    // The new metadata stays: it is written before the payload.
    EXPECT_TRUE(std::filesystem::exists(path(metadata)));
}

TEST_F(DBDiscoveryTest, LoadNeedsALock)
{
    const auto record = make({});
    const AssertionCapture assertions;
    EXPECT_FALSE(record->load());
    EXPECT_EQ(record->expire(), 2);
    EXPECT_EQ(assertions.texts(), (Lines{"m_fileLock", "m_fileLock"}));
}

TEST_F(DBDiscoveryTest, AnEmptyMetadataFileIsRejected)
{
    writeFile(path(metadata), "");
    const LogCapture log;
    EXPECT_FALSE(find(metadata));
    EXPECT_EQ(log.texts(1),
              (Lines{"Zero length xml file", "Unable to load " + path(metadata).string()}));
    EXPECT_EQ(log.lines()[0].operation, "DBDiscovery::load");
    EXPECT_EQ(log.lines()[1].operation, "DiscoveryDBCreator::getDiscovery");
    for (const std::string& text : log.texts(1))
        EXPECT_EQ(log.severities(text), std::vector{LogSeverity::Notice})
            << "a put may have made it";
}

TEST_F(DBDiscoveryTest, AnEmptyMetadataFileThatStaysIsAWarning)
{
    writeFile(path(metadata), "");
    std::filesystem::last_write_time(path(metadata), std::filesystem::file_time_type::clock::now() -
                                                         std::chrono::minutes(2));
    const LogCapture log;
    EXPECT_FALSE(find(metadata));
    ASSERT_EQ(log.texts(1).size(), 2u);
    for (const std::string& text : log.texts(1))
        EXPECT_EQ(log.severities(text), std::vector{LogSeverity::Warning}) << text;
}

TEST_F(DBDiscoveryTest, ADocumentWithoutSubjectOrAuthorityIsRejected)
{
    const auto load = [](const char* xml) {
        const AutoDereference<Discovery> record(
            getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
        return dynamic_cast<DBDiscovery&>(*record).load(xml);
    };
    const std::string authority = "<DiscoveryAuthority Name=\"a\" Type=\"1\"></DiscoveryAuthority>";
    const std::string subject = "<DiscoverySubject Name=\"s\"></DiscoverySubject>";
    const LogCapture log;
    EXPECT_FALSE(load(("<DiscoveryData>" + authority + "</DiscoveryData>").c_str()));
    EXPECT_FALSE(load(("<DiscoveryData>" + subject + "</DiscoveryData>").c_str()));
    EXPECT_FALSE(load("<DiscoveryData></DiscoveryData>"));
    EXPECT_EQ(log.texts(1), (Lines{"Subject not specified", "Authority not specified",
                                   "Subject not specified", "Authority not specified"}));
    EXPECT_TRUE(load(("<DiscoveryData>" + authority + subject + "</DiscoveryData>").c_str()));
    EXPECT_FALSE(load(nullptr));
}

TEST_F(DBDiscoveryTest, WritingMetadataToADescriptorThatCannotBeWrittenFails)
{
    const auto record = make({});
    writeFile(path("file"), "content");
    const int fd = ::open(path("file").c_str(), O_RDONLY);
    const LogCapture log;
    EXPECT_FALSE(record->writeMetadata(fd, "text"));
    ::close(fd);
    EXPECT_EQ(log.texts(1),
              (Lines{"Unable to write metadata", "The cause: EBADF, Bad file descriptor"}));
    EXPECT_EQ(contentOf(path("file")), "content");
}

/// The clock of the test starts at 1000 seconds.
TEST_F(DBDiscoveryTest, ExpiryIsWhenTheTimeIsLater)
{
    const auto record = make({.timeToLive = 80});
    EXPECT_EQ(record->getAttributes()->getExpiresTime(), TlxObjTime(1100, 0));
    setNow(1100);
    EXPECT_FALSE(isExpired(record.get()));
    setNow(1100, 1);
    EXPECT_TRUE(isExpired(record.get()));
    EXPECT_FALSE(isExpired(make({}).get())); // a zero expiry time
    record->setAttributes(nullptr);
    EXPECT_FALSE(isExpired(record.get()));
    EXPECT_FALSE(isExpired(nullptr));
}

/// A file system of one mebibyte. The destructor unmounts it.
class SmallDisk
{
  public:
    explicit SmallDisk(std::filesystem::path place) : m_place(std::move(place))
    {
        std::filesystem::create_directory(m_place);
        m_mounted = ::mount("tmpfs", m_place.c_str(), "tmpfs", 0, "size=1m") == 0;
    }
    ~SmallDisk()
    {
        if (m_mounted)
            ::umount(m_place.c_str());
    }
    bool mounted() const { return m_mounted; }
    void fill()
    {
        const int fd = ::open((m_place / "filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const std::string block(4096, 'f');
        while (::write(fd, block.data(), block.size()) > 0) {
        }
        ::close(fd);
    }

  private:
    const std::filesystem::path m_place;
    bool m_mounted = false;
};

TEST(DBDiscoveryDiskTest, AFullDiskLeavesTheStoredRecordReadable)
{
    const QmTest::TemporaryDirectory directory;
    SmallDisk disk(directory.path() / "disk");
    if (!disk.mounted())
        GTEST_SKIP() << "a file system cannot be mounted here: needs root";
    const std::string dir = (directory.path() / "disk").string();
    getDiscoveryDBDatabase()->init(dir);
    const auto make = [](const std::string& subject, const std::string& status) {
        AutoDereference<Discovery> record(
            getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
        AutoDereference<StatusMsg> message(new StatusMsg(1, TlxString(status)));
        record->setSubject(new Subject(subject, message.get()));
        record->setAuthority(new Authority("srv1", AT_QMKSERVER));
        record->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                       TlxObjTime(), TlxObjTime(), 1));
        return record;
    };
    {
        const auto record = make("cl5", "short");
        ASSERT_EQ(record->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
        ASSERT_TRUE(record->getCollectionData()->writeCollection(3, "old"));
        ASSERT_EQ(record->persist().discStatus, DS_SUCCESS);
    }
    const std::string stored = contentOf(directory.path() / "disk" / "1 srv1 cl5.xml");
    {
        const auto longer = make("cl5", std::string(100000, 'x'));
        const auto cut = make("cl5", "short");
        const auto unheard = make("cl6", "short");
        ASSERT_EQ(longer->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
        ASSERT_EQ(cut->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
        ASSERT_EQ(unheard->open(OM_UPDATE, "").discStatus, DS_SUCCESS);
        disk.fill();
        LogCapture log;
        EXPECT_EQ(longer->persist().discStatus, DS_OPEN_FAILED);
        EXPECT_EQ(log.texts(1),
                  (Lines{"Unable to write metadata", "The cause: ENOSPC, No space left on device",
                         "Metadata update to " + dir + "/1 srv1 cl5.xml failed",
                         "Deleted file: " + dir + "/0.updating"}));
        EXPECT_FALSE(
            cut->getCollectionData()->writeCollection(100000, std::string(100000, 'y').data()));
        log.clear();
        EXPECT_EQ(cut->persist().discStatus, DS_OPEN_FAILED);
        EXPECT_EQ(log.texts(1),
                  (Lines{"Deleted file: " + dir + "/1.updating", "Collection data update failed"}));
        EXPECT_EQ(unheard->persist().discStatus, DS_OPEN_FAILED);
    }
    EXPECT_EQ(contentOf(directory.path() / "disk" / "1 srv1 cl5.xml"), stored);
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "disk" / "1 srv1 cl6.xml"));
    const AutoDereference<Discovery> found(
        getDiscoveryDBDatabase()->getDiscovery("1 srv1 cl5.xml"));
    ASSERT_TRUE(found);
    ASSERT_EQ(found->open(OM_READ, "").discStatus, DS_SUCCESS);
    char buffer[10];
    EXPECT_EQ(found->getCollectionData()->readCollection(10, buffer), 3u);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
