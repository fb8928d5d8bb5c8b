// What the store remembers of metadata files, and when it must not use it.

#include "MetadataCache.h"

#include <chrono>
#include <fcntl.h>
#include <limits>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <tlx/FileSystem.h>

#include "StoreFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::contentOf;
using QmTest::Lines;
using QmTest::METADATA;
using QmTest::writeFile;

/// A status whose times are the given number of milliseconds old.
struct stat statusOfAge(std::int64_t milliseconds, ino_t inode = 1)
{
    struct stat status = {};
    status.st_dev = 1;
    status.st_ino = inode;
    status.st_size = 100;
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const std::int64_t then = now.tv_sec * 1000000000LL + now.tv_nsec - milliseconds * 1000000;
    status.st_mtim.tv_sec = then / 1000000000;
    status.st_mtim.tv_nsec = then % 1000000000 == 0 ? 1 : then % 1000000000;
    status.st_ctim = status.st_mtim;
    return status;
}

RememberedMetadata metadataOf(const std::string& subject)
{
    RememberedMetadata metadata;
    metadata.authorityType = AT_QMKSERVER;
    metadata.authority = "srv1";
    metadata.subject = subject;
    metadata.signature = "signed";
    metadata.hasAttributes = true;
    metadata.priority = 7;
    metadata.type = CT_POINT_IN_TIME;
    metadata.storage = CS_CENTRALREPOSITORY;
    metadata.discoveryTime = TlxObjTime(5, 6);
    metadata.expiresTime = TlxObjTime(7, 8);
    return metadata;
}

TEST(MetadataCacheTest, ReturnsEverythingThatItRemembers)
{
    MetadataCache cache(100);
    const struct stat status = statusOfAge(60000);
    EXPECT_FALSE(cache.find("a.xml", status));
    cache.remember("a.xml", status, metadataOf("cl5"));
    const auto found = cache.find("a.xml", status);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->authorityType, AT_QMKSERVER);
    EXPECT_EQ(found->authority, "srv1");
    EXPECT_EQ(found->subject, "cl5");
    EXPECT_EQ(found->signature, "signed");
    EXPECT_TRUE(found->hasAttributes);
    EXPECT_EQ(found->priority, 7u);
    EXPECT_EQ(found->type, CT_POINT_IN_TIME);
    EXPECT_EQ(found->storage, CS_CENTRALREPOSITORY);
    EXPECT_EQ(found->discoveryTime, TlxObjTime(5, 6));
    EXPECT_EQ(found->expiresTime, TlxObjTime(7, 8));
    EXPECT_FALSE(cache.find("b.xml", status));
    cache.remember("a.xml", status, metadataOf("other"));
    EXPECT_EQ(cache.find("a.xml", status)->subject, "other");
    EXPECT_EQ(cache.size(), 1u);
    cache.forget("a.xml");
    cache.forget("a.xml");
    EXPECT_FALSE(cache.find("a.xml", status));
    EXPECT_EQ(cache.size(), 0u);
}

TEST(MetadataCacheTest, EveryPartOfTheStampCounts)
{
    MetadataCache cache(100);
    const struct stat status = statusOfAge(60000);
    cache.remember("a.xml", status, metadataOf("cl5"));
    const auto findChanged = [&](const auto& change) {
        struct stat other = status;
        change(other);
        return cache.find("a.xml", other).has_value();
    };
    EXPECT_TRUE(findChanged([](struct stat&) {}));
    EXPECT_FALSE(findChanged([](struct stat& s) { ++s.st_dev; }));
    EXPECT_FALSE(findChanged([](struct stat& s) { ++s.st_ino; }));
    EXPECT_FALSE(findChanged([](struct stat& s) { ++s.st_size; }));
    EXPECT_FALSE(findChanged([](struct stat& s) { ++s.st_mtim.tv_sec; }));
    EXPECT_FALSE(findChanged([](struct stat& s) { ++s.st_mtim.tv_nsec; }));
    EXPECT_FALSE(findChanged([](struct stat& s) { ++s.st_ctim.tv_sec; }));
    EXPECT_FALSE(findChanged([](struct stat& s) { ++s.st_ctim.tv_nsec; }));
}

TEST(MetadataCacheTest, AFileThatChangedAMomentAgoIsNotRemembered)
{
    MetadataCache cache(100);
    const auto isRemembered = [&](struct stat status) {
        cache.remember("a.xml", status, metadataOf("cl5"));
        return cache.find("a.xml", status).has_value();
    };
    EXPECT_FALSE(isRemembered(statusOfAge(0)));
    EXPECT_FALSE(isRemembered(statusOfAge(20)));
    EXPECT_FALSE(isRemembered(statusOfAge(-60000))) << "a time in the future";
    struct stat extreme = statusOfAge(60000);
    for (const std::int64_t seconds : {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1},
                                       std::numeric_limits<std::int64_t>::max()}) {
        extreme.st_mtim.tv_sec = seconds;
        EXPECT_FALSE(isRemembered(extreme)) << seconds;
    }
    EXPECT_TRUE(isRemembered(statusOfAge(100)));
    // A file system that keeps whole seconds.
    struct stat coarse = statusOfAge(2000);
    coarse.st_mtim.tv_nsec = coarse.st_ctim.tv_nsec = 0;
    EXPECT_FALSE(isRemembered(coarse));
    coarse.st_mtim.tv_sec -= 3;
    coarse.st_ctim.tv_sec -= 3;
    EXPECT_TRUE(isRemembered(coarse));
    // The time of the last change counts as well: utimes(2) sets the other one.
    struct stat touched = statusOfAge(60000);
    touched.st_ctim = statusOfAge(0).st_ctim;
    EXPECT_FALSE(isRemembered(touched));
}

TEST(MetadataCacheTest, HoldsAtMostItsBound)
{
    constexpr std::size_t MOST = 1600;
    MetadataCache cache(MOST);
    for (ino_t i = 0; i < 100000; ++i) {
        const std::string name = std::to_string(i);
        cache.remember(name, statusOfAge(60000, i), metadataOf(name));
        ASSERT_LE(cache.size(), MOST);
    }
    // A shard may have fewer names than its share.
    EXPECT_GT(cache.size(), MOST * 9 / 10);
    cache.setMostRecords(160);
    EXPECT_LE(cache.size(), 160u);
    cache.setMostRecords(0);
    EXPECT_EQ(cache.size(), 0u);
    cache.remember("a.xml", statusOfAge(60000), metadataOf("cl5"));
    EXPECT_EQ(cache.size(), 0u);
}

TEST(MetadataCacheTest, ManyThreadsUseItAtOnce)
{
    MetadataCache cache(1000);
    std::vector<std::thread> threads;
    const struct stat status = statusOfAge(60000);
    for (unsigned t = 0; t < 32; ++t)
        threads.emplace_back([&cache, &status, t] {
            for (unsigned i = 0; i < 2000; ++i) {
                const std::string name = std::to_string((i * 7 + t) % 1500);
                if (const auto found = cache.find(name, status)) {
                    EXPECT_EQ(found->subject, name);
                } else {
                    cache.remember(name, status, metadataOf(name));
                }
                if (i % 50 == 0)
                    cache.forget(name);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_LE(cache.size(), 1008u);
}

/// Counts what the store asks of the file system.
struct CountingFileSystem : FileSystem
{
    CountingFileSystem() { FileSystem::replace(this); }
    ~CountingFileSystem() override { FileSystem::replace(nullptr); }
    int open(const char* path, int flags, mode_t mode) override
    {
        const int descriptor = FileSystem::open(path, flags, mode);
        opens += descriptor >= 0 ? 1 : 0;
        return descriptor;
    }
    DIR* opendir(const char* path) override
    {
        ++walks;
        return FileSystem::opendir(path);
    }
    int opens = 0; ///< that succeeded
    int walks = 0;
};

struct RememberingStoreTest : QmTest::Store
{
    /// Waits until the file and its directory have rested long enough to be remembered. Their times
    /// of change cannot be set.
    void age(const std::string& name) const
    {
        for (const std::string& resting : {path(name).string(), dir()}) {
            struct stat status = {};
            do {
                ASSERT_EQ(::stat(resting.c_str(), &status), 0);
            } while (!FileStamp(status).isSettledNow());
        }
    }
    static std::vector<std::string> list()
    {
        const AutoDereference<DiscoveryIterator> iterator(
            getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
        RecordListing listing(*iterator);
        std::vector<std::string> names;
        while (const auto listed = listing.next())
            names.push_back(listed->subject + " of " + listed->authority);
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(RememberingStoreTest, TheSecondListingOpensNoFile)
{
    put({.subject = "a"});
    put({.subject = "b"});
    age("1 srv1 a.xml");
    age("1 srv1 b.xml");
    const Lines both{"a of srv1", "b of srv1"};
    EXPECT_EQ(list(), both);
    CountingFileSystem counting;
    EXPECT_EQ(list(), both);
    EXPECT_EQ(counting.opens, 0);
    EXPECT_EQ(counting.walks, 0);
}

TEST_F(RememberingStoreTest, AReplacedRecordIsReadAgain)
{
    put({.subject = "a"});
    age("1 srv1 a.xml");
    EXPECT_EQ(list(), Lines{"a of srv1"});
    EXPECT_EQ(put({.subject = "a", .priority = 9, .payload = "new"}), DS_SUCCESS);
    EXPECT_EQ(find("1 srv1 a.xml")->getAttributes()->getPriority(), 9u);
    EXPECT_EQ(put({.subject = "a", .priority = 8}), DS_DATA_EXISTS);
    EXPECT_EQ(list(), Lines{"a of srv1"});
}

TEST_F(RememberingStoreTest, AFileThatAnotherProgramChangedIsReadAgain)
{
    put({.subject = "a"});
    age("1 srv1 a.xml");
    EXPECT_EQ(list(), Lines{"a of srv1"});
    std::string document = contentOf(path("1 srv1 a.xml"));
    document.replace(document.find("Name=\"a\""), 8, "Name=\"z\""); // the size stays
    writeFile(path("1 srv1 a.xml"), document);
    EXPECT_EQ(list(), Lines{"z of srv1"});
    std::filesystem::remove(path("1 srv1 a.xml"));
    EXPECT_EQ(list(), Lines{});
}

TEST_F(RememberingStoreTest, ARememberedRecordExpires)
{
    put({.subject = "a", .timeToLive = 100});
    age("1 srv1 a.xml");
    EXPECT_EQ(list(), Lines{"a of srv1"});
    setNow(2000);
    EXPECT_EQ(list(), Lines{});
    EXPECT_EQ(files(), Lines{"Update.lock"});
}

TEST_F(RememberingStoreTest, ARememberedRecordOfRemotePullStaysHidden)
{
    put({.subject = "a", .type = AT_REMOTEPULL});
    age("4 srv1 a.xml");
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
    iterator->setAuthority("*", AT_REMOTEPULL);
    ASSERT_TRUE(RecordListing(*iterator).next());
    EXPECT_EQ(list(), Lines{});
}

TEST_F(RememberingStoreTest, AKnownPriorityBlocksWithoutOpeningTheFile)
{
    put({.priority = 5});
    age(METADATA);
    EXPECT_TRUE(find(METADATA));
    const CountingFileSystem counting;
    EXPECT_FALSE(make({.priority = 4})->canOverride());
    EXPECT_TRUE(make({.priority = 5})->canOverride());
    EXPECT_TRUE(make({.subject = "new"})->canOverride());
    EXPECT_EQ(counting.opens, 0);
}

TEST_F(RememberingStoreTest, ADocumentWithTwoPrioritiesIsNotRemembered)
{
    put({.priority = 5});
    std::string document = contentOf(path(METADATA));
    document.insert(document.find("<DiscoveryAuthority"), "<Priority>9</Priority>");
    writeFile(path(METADATA), document);
    age(METADATA);
    EXPECT_EQ(find(METADATA)->getAttributes()->getPriority(), 5u);
    EXPECT_EQ(put({.priority = 8}), DS_DATA_EXISTS) << "the first priority counts";
    EXPECT_EQ(put({.priority = 9}), DS_SUCCESS);
}

/// The bound is 1,024 bytes for both names. The store writes no such document, but somebody else
/// may.
TEST_F(RememberingStoreTest, VeryLongNamesAreNotRemembered)
{
    put({.subject = "cl5"});
    const std::string document = contentOf(path(METADATA));
    const auto at = document.find("\"cl5\"");
    ASSERT_NE(at, document.npos);
    for (const auto& [length, isRemembered] : {std::pair(1020u, true), std::pair(1021u, false)}) {
        std::string changed = document;
        changed.replace(at + 1, 3, std::string(length, 'x'));
        writeFile(path(METADATA), changed);
        const auto record = find(METADATA);
        ASSERT_TRUE(record);
        EXPECT_EQ(record->getSubject()->getSubject().utf8().size(), length);
        EXPECT_EQ(RememberedMetadata::of(*record).has_value(), isRemembered) << length;
    }
}

TEST_F(RememberingStoreTest, APriorityOutsideTheLastAttributesIsNotRemembered)
{
    put({.priority = 9});
    std::string document = contentOf(path(METADATA));
    // The attributes without a priority replace those with priority 9.
    const std::string end = "</DiscoveryAttributes>";
    document.insert(document.find(end) + end.size(),
                    "<DiscoveryAttributes Type=\"2\" Storage=\"1\"></DiscoveryAttributes>");
    writeFile(path(METADATA), document);
    age(METADATA);
    EXPECT_EQ(put({.priority = 5}), DS_DATA_EXISTS);
    EXPECT_TRUE(find(METADATA));
    EXPECT_EQ(put({.priority = 5}), DS_DATA_EXISTS) << "also after a lookup";
}

TEST_F(RememberingStoreTest, ExactNamesNeedNoWalk)
{
    for (int i = 0; i < 50; ++i)
        put({.subject = "cl" + std::to_string(i)});
    put({.subject = "cl7", .type = AT_EXTSRC});
    const CountingFileSystem counting;
    EXPECT_EQ(all(AT_QMKSERVER, "srv1", "cl7"), Lines{"cl7"});
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", "cl7"), (Lines{"cl7", "cl7"}));
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", "none"), Lines{});
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", std::string(300, 'x')), Lines{});
    EXPECT_EQ(counting.walks, 0);
    EXPECT_EQ(counting.opens, 3) << "one for each record found";
    EXPECT_EQ(all(AT_ANYANDALL, "srv1", "cl4?").size(), 10u);
    EXPECT_EQ(counting.walks, 1);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
