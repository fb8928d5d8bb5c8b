// The remembered names of the directory, the shared syncs, and the temporary numbers.

#include "DirectoryNames.h"

#include <atomic>
#include <future>
#include <new>
#include <thread>

#include <gtest/gtest.h>

#include <tlx/FileSystem.h>

#include "DirectorySync.h"
#include "FileStamp.h"
#include "StoreFixture.h"
#include "TemporaryNumber.h"
#include "support/Capture.h"
#include "support/Eventually.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::writeFile;

/// Counts the walks and the syncs of directories, and can hold them up.
struct HeldFileSystem : FileSystem
{
    HeldFileSystem() { FileSystem::replace(this); }
    ~HeldFileSystem() override { FileSystem::replace(nullptr); }

    DIR* opendir(const char* path) override
    {
        pass(walks);
        return FileSystem::opendir(path);
    }
    const dirent* readdir(DIR* directory) override
    {
        if (namesUntilError == 0 || --namesUntilError > 0)
            return FileSystem::readdir(directory);
        errno = EIO;
        return nullptr;
    }
    int fsync(int descriptor) override
    {
        pass(syncs);
        if (syncError == 0)
            return FileSystem::fsync(descriptor);
        errno = syncError;
        return -1;
    }
    void pass(std::atomic<int>& count)
    {
        if (throws)
            throw std::bad_alloc();
        ++count;
        QmTest::eventually([this] { return !isHeld; });
    }

    std::atomic<int> walks{0};
    std::atomic<int> syncs{0};
    std::atomic<bool> isHeld{false};
    std::atomic<int> syncError{0};
    std::atomic<bool> throws{false};
    int namesUntilError = 0; ///< 0: none
};

TEST(NameListTest, FindsNamesInOrder)
{
    NameList list;
    EXPECT_EQ(list.lowerBound("a"), 0u);
    for (const char* name : {"2 b", "1 a", "2 a", "1 aa"})
        list.add(name);
    list.sort();
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0], "1 a");
    EXPECT_EQ(list[1], "1 aa");
    EXPECT_EQ(list[2], "2 a");
    EXPECT_EQ(list[3], "2 b");
    EXPECT_EQ(list.lowerBound("1 a"), 0u);
    EXPECT_EQ(list.upperBound("1 a"), 1u);
    EXPECT_EQ(list.lowerBound("1 b"), 2u);
    EXPECT_EQ(list.lowerBound("3"), 4u);
    EXPECT_EQ(*(list[1].data() + list[1].size()), '\0');
}

TEST(NameListTest, AHundredThousandNames)
{
    constexpr unsigned MANY = 100000;
    NameList list;
    for (unsigned i = 0; i < MANY; ++i)
        list.add("2 bench " + std::to_string(i * 7919 % MANY) + ".xml");
    list.sort();
    ASSERT_EQ(list.size(), MANY);
    for (unsigned i = 1; i < MANY; ++i)
        ASSERT_LT(list[i - 1], list[i]);
    const std::string prefix = "2 bench 4242";
    const std::size_t first = list.lowerBound(prefix);
    std::size_t count = 0;
    while (list[first + count].starts_with(prefix))
        ++count;
    EXPECT_EQ(count, 11u); // 4242, and 42420 to 42429
}

struct DirectoryNamesTest : QmTest::Store
{
    void SetUp() override
    {
        Store::SetUp();
        held.walks = 0; // the start of the store walks as well
    }
    static Lines textsOf(const DirectoryNames& found)
    {
        Lines texts;
        for (std::size_t i = 0; i < found.names.size(); ++i)
            texts.emplace_back(found.names[i]);
        return texts;
    }
    auto namesNow() const { return namesIn(dir(), std::chrono::steady_clock::now()); }
    /// Waits until the directory has rested long enough for its stamp to count.
    void rest() const
    {
        struct stat status = {};
        do {
            ASSERT_EQ(::stat(dir().c_str(), &status), 0);
        } while (!FileStamp(status).isSettledNow());
    }
    HeldFileSystem held;
};

TEST_F(DirectoryNamesTest, ADirectoryThatRestsIsReadOnce)
{
    for (const char* name : {"b.xml", "a.xml", "a.dat", "c.txt"})
        writeFile(path(name), "");
    rest();
    const auto first = namesNow();
    EXPECT_EQ(textsOf(*first), (Lines{"a.xml", "b.xml"}));
    EXPECT_EQ(namesNow(), first);
    EXPECT_EQ(held.walks, 1);
    writeFile(path("c.xml"), "");
    EXPECT_EQ(textsOf(*namesNow()), (Lines{"a.xml", "b.xml", "c.xml"}));
    std::filesystem::remove(path("a.xml"));
    EXPECT_EQ(textsOf(*namesNow()), (Lines{"b.xml", "c.xml"}));
    std::filesystem::rename(path("b.xml"), path("d.xml"));
    EXPECT_EQ(textsOf(*namesNow()), (Lines{"c.xml", "d.xml"}));
    EXPECT_EQ(held.walks, 4);
}

TEST_F(DirectoryNamesTest, ADirectoryThatChangedAMomentAgoIsReadAgain)
{
    writeFile(path("a.xml"), "");
    EXPECT_EQ(namesNow()->names.size(), 1u);
    // The clock of the file system may stand still between these two.
    writeFile(path("b.xml"), "");
    EXPECT_EQ(namesNow()->names.size(), 2u);
}

TEST_F(DirectoryNamesTest, AListingThatGoesOnTakesAnyLaterWalk)
{
    writeFile(path("a.xml"), "");
    const auto begun = std::chrono::steady_clock::now();
    const auto later = namesNow();
    writeFile(path("b.xml"), "");
    EXPECT_EQ(namesIn(dir(), begun), later);
    EXPECT_EQ(namesNow()->names.size(), 2u);
}

TEST_F(DirectoryNamesTest, ThreadsThatComeDuringAWalkShareTheNext)
{
    constexpr int THREADS = 32;
    writeFile(path("a.xml"), "");
    held.isHeld = true;
    auto first = std::async(std::launch::async, [&] { return namesNow(); });
    ASSERT_TRUE(QmTest::eventually([&] { return held.walks == 1; }));
    writeFile(path("b.xml"), "");
    std::atomic<int> come{0};
    std::vector<std::future<std::shared_ptr<const DirectoryNames>>> others;
    for (int i = 0; i < THREADS; ++i)
        others.push_back(std::async(std::launch::async, [&] {
            const auto since = std::chrono::steady_clock::now();
            ++come;
            return namesIn(dir(), since);
        }));
    ASSERT_TRUE(QmTest::eventually([&] { return come == THREADS; }));
    held.isHeld = false;
    first.get();
    for (auto& other : others)
        EXPECT_EQ(other.get()->names.size(), 2u) << "the first walk began before they came";
    EXPECT_EQ(held.walks, 2);
}

TEST_F(DirectoryNamesTest, ADirectoryThatCannotBeReadIsLogged)
{
    const LogCapture log;
    const TlxPathname missing(path("none").string());
    EXPECT_FALSE(namesIn(missing, std::chrono::steady_clock::now()));
    EXPECT_EQ(log.texts(1), Lines{"Unable to open " + missing.text() + ", error 2"});
    EXPECT_TRUE(namesNow());
}

TEST_F(DirectoryNamesTest, AWalkThatBreaksOffIsNotRemembered)
{
    for (int i = 0; i < 10; ++i)
        writeFile(path(std::to_string(i) + ".xml"), "");
    rest();
    held.namesUntilError = 5;
    const LogCapture log;
    EXPECT_LT(namesNow()->names.size(), 10u);
    EXPECT_EQ(log.texts(1), Lines{"Unable to read the directory, error 5"});
    EXPECT_EQ(namesNow()->names.size(), 10u);
}

TEST_F(DirectoryNamesTest, AWalkWithoutMemoryLeavesTheNextOneFree)
{
    writeFile(path("a.xml"), "");
    held.throws = true;
    EXPECT_FALSE(namesNow());
    held.throws = false;
    ASSERT_TRUE(namesNow());
    EXPECT_EQ(namesNow()->names.size(), 1u);
}

TEST_F(DirectoryNamesTest, AnIteratorGoesOnWhileRecordsComeAndGo)
{
    constexpr unsigned RECORDS = 2000;
    const auto name = [](unsigned i) { return "1 srv1 s" + std::to_string(10000 + i); };
    put({.subject = "s10000"});
    const std::string document = QmTest::contentOf(path("1 srv1 s10000.xml"));
    for (unsigned i = 1; i < RECORDS; ++i)
        writeFile(path(name(i) + ".xml"), document);
    const AutoDereference<DiscoveryIterator> iterator(
        getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA));
    RecordListing listing(*iterator);
    unsigned found = 0;
    while (listing.next()) {
        // Other listings walk again, and their names replace the ones of this iterator.
        if (++found % 100 == 0) {
            writeFile(path("1 srv1 s0" + std::to_string(found) + ".xml"), document);
            std::filesystem::remove(path(name(RECORDS - found / 100) + ".xml"));
            ASSERT_GT(namesNow()->names.size(), 0u);
        }
    }
    // Those that were removed were still ahead. Those that came sort before the others.
    EXPECT_EQ(found, RECORDS - RECORDS / 100 + 1);
}

struct DirectorySyncTest : QmTest::Store
{
    void SetUp() override
    {
        Store::SetUp();
        // The first sync of a process also syncs the directories above.
        std::filesystem::create_directory(path("other"));
        EXPECT_TRUE(syncStoreDirectory(dir()));
        EXPECT_TRUE(syncStoreDirectory(path("other").string()));
        held.syncs = 0;
    }
    HeldFileSystem held;
};

TEST_F(DirectorySyncTest, PutsThatComeDuringASyncShareTheNext)
{
    constexpr int THREADS = 32;
    held.isHeld = true;
    auto first = std::async(std::launch::async, [&] { return syncStoreDirectory(dir()); });
    ASSERT_TRUE(QmTest::eventually([&] { return held.syncs == 1; }));
    std::atomic<int> come{0};
    std::vector<std::future<FileResult<>>> others;
    for (int i = 0; i < THREADS; ++i)
        others.push_back(std::async(std::launch::async, [&] {
            ++come;
            return syncStoreDirectory(dir());
        }));
    ASSERT_TRUE(QmTest::eventually([&] { return come == THREADS; }));
    for (auto& other : others)
        EXPECT_NE(other.wait_for(std::chrono::milliseconds(0)), std::future_status::ready)
            << "the sync under way does not cover them";
    held.isHeld = false;
    EXPECT_TRUE(first.get());
    for (auto& other : others)
        EXPECT_TRUE(other.get());
    EXPECT_GE(held.syncs, 2);
    // A thread may have been slow between the count and the call.
    EXPECT_LT(held.syncs, THREADS / 2);
}

TEST_F(DirectorySyncTest, AFailedSyncFailsThosePutsOnly)
{
    held.syncError = EIO;
    const auto failed = syncStoreDirectory(dir());
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error(), systemError(EIO));
    held.syncError = 0;
    EXPECT_TRUE(syncStoreDirectory(dir()));
    EXPECT_EQ(held.syncs, 2);
}

TEST_F(DirectorySyncTest, ASyncWithoutMemoryFailsAndLeavesTheNextOneFree)
{
    held.throws = true;
    const auto failed = syncStoreDirectory(dir());
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error(), systemError(ENOMEM));
    held.throws = false;
    EXPECT_TRUE(syncStoreDirectory(dir()));
}

TEST_F(DirectorySyncTest, DirectoriesDoNotWaitForEachOther)
{
    held.isHeld = true;
    auto first = std::async(std::launch::async, [&] { return syncStoreDirectory(dir()); });
    ASSERT_TRUE(QmTest::eventually([&] { return held.syncs == 1; }));
    auto second =
        std::async(std::launch::async, [&] { return syncStoreDirectory(path("other").string()); });
    EXPECT_TRUE(QmTest::eventually([&] { return held.syncs == 2; }));
    held.isHeld = false;
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
}

TEST(TemporaryNumberTest, NoTwoObjectsHaveTheSameNumber)
{
    auto first = TemporaryNumber::take(0);
    const auto second = TemporaryNumber::take(0);
    EXPECT_EQ(first->value(), 0u);
    EXPECT_EQ(second->value(), 1u);
    EXPECT_EQ(TemporaryNumber::take(7)->value(), 7u);
    EXPECT_EQ(TemporaryNumber::take(7)->value(), 7u) << "it is free again";
    first.reset();
    EXPECT_EQ(TemporaryNumber::take(0)->value(), 0u);
}

TEST(TemporaryNumberTest, TheLastNumberAndOneMore)
{
    std::vector<std::unique_ptr<TemporaryNumber>> all;
    for (unsigned i = 0; i < MAX_TEMPORARY_NAMES; ++i) {
        all.push_back(TemporaryNumber::take(0));
        ASSERT_TRUE(all.back()) << i;
    }
    EXPECT_EQ(all.back()->value(), MAX_TEMPORARY_NAMES - 1);
    EXPECT_FALSE(TemporaryNumber::take(0));
    EXPECT_FALSE(TemporaryNumber::take(MAX_TEMPORARY_NAMES));
    all[500].reset();
    EXPECT_EQ(TemporaryNumber::take(0)->value(), 500u);
}

TEST(TemporaryNumberTest, ManyThreadsTakeAndGive)
{
    std::vector<std::atomic<int>> users(MAX_TEMPORARY_NAMES);
    std::atomic<int> collisions{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 32; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                const auto number = TemporaryNumber::take(0);
                collisions += users[number->value()]++ != 0 ? 1 : 0;
                --users[number->value()];
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(collisions, 0);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
