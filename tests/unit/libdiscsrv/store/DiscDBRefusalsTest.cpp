// The store on a machine whose kernel refuses system calls.

#include "DiscDB.h"

#include <fstream>
#include <gtest/gtest.h>

#include "RefusedCall.h"
#include "StoreFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::contentOf;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::METADATA;

struct DiscDBRefusalsTest : QmTest::Store
{
    static void refuseLocks() { QmTest::refuseCalls(__NR_fcntl, 1, {F_OFD_SETLK}, ENOLCK); }
    std::string name() const { return path(METADATA).string(); }
};

TEST_F(DiscDBRefusalsTest, WithoutAReadLockARecordIsNotReplaced)
{
    put({});
    QM_IN_CHILD([this] {
        const auto record = make({});
        refuseLocks();
        const LogCapture log;
        EXPECT_FALSE(record->canOverride());
        EXPECT_EQ(log.texts(1), (Lines{"Unable to acquire read lock " + name(),
                                       "The cause: ENOLCK, No locks available"}));
    });
}

TEST_F(DiscDBRefusalsTest, WithoutAReadLockARecordIsNotFound)
{
    put({});
    QM_IN_CHILD([this] {
        refuseLocks();
        const LogCapture log;
        EXPECT_FALSE(find(METADATA));
        EXPECT_EQ(log.texts(1),
                  (Lines{"Unable to lock " + name(), "The cause: ENOLCK, No locks available"}));
    });
}

TEST_F(DiscDBRefusalsTest, WithoutAWriteLockARecordIsNotStored)
{
    QM_IN_CHILD([this] {
        const auto record = make({});
        EXPECT_TRUE(isSuccess(record->open(OM_UPDATE, "")));
        refuseLocks();
        const LogCapture log;
        EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
        EXPECT_EQ(log.texts(1),
                  (Lines{"Unable to lock " + name(), "The cause: ENOLCK, No locks available",
                         "Deleted file: " + path("0.updating").string(),
                         "Cannot lower the lock on a file: ENOLCK, No locks "
                         "available"}));
    });
}

TEST_F(DiscDBRefusalsTest, AFileThatCannotBeCutFailsThePersist)
{
    put({});
    std::ofstream(name(), std::ios::app) << std::string(100, ' '); // only a longer file is cut
    QM_IN_CHILD([this] {
        const auto record = make({});
        EXPECT_TRUE(isSuccess(record->open(OM_UPDATE, "")));
        std::ostringstream document;
        record->writeXml(document, XmlStr::Encoding{});
        QmTest::refuseCalls(__NR_ftruncate, 1, {static_cast<unsigned>(document.str().size())}, EIO);
        const LogCapture log;
        EXPECT_EQ(record->persist().discStatus, DS_OPEN_FAILED);
        EXPECT_EQ(log.texts(1),
                  (Lines{"Unable to truncate metadata", "The cause: EIO, Input/output error",
                         "Metadata update to " + name() + " failed",
                         "Deleted file: " + path("0.updating").string()}));
        EXPECT_EQ(log.lines()[0].operation, "DBDiscovery::writeMetadata");
        EXPECT_EQ(log.lines()[2].operation, "DBDiscovery::persist");
    });
}

TEST_F(DiscDBRefusalsTest, AnExpiredRecordWhoseLockCannotBeChangedStays)
{
    put({.timeToLive = 100});
    QM_IN_CHILD([this] {
        const auto record = find(METADATA);
        ASSERT_TRUE(record);
        setNow(2000);
        QmTest::refuseCalls(__NR_fcntl, 1, {F_OFD_SETLK}, ENOLCK);
        const LogCapture log;
        EXPECT_EQ(record->expire(), 2);
        EXPECT_EQ(log.texts(1), (Lines{"Cannot lower the lock on a file: ENOLCK, No locks "
                                       "available",
                                       "Unable to upgrade lock to expire file, errno: 37"}));
        EXPECT_EQ(contentOf(path("1 srv1 cl5.dat")), "payload");
    });
}

TEST_F(DiscDBRefusalsTest, AChildCannotUseARecordOfItsParent)
{
    put({});
    const auto record = find(METADATA);
    ASSERT_TRUE(record);
    QM_IN_CHILD([&] {
        const AssertionCapture assertions;
        EXPECT_FALSE(record->load());
        EXPECT_EQ(record->expire(), 2);
        EXPECT_EQ(assertions.texts(), Lines(2, "ACE_INVALID_HANDLE != m_fileLock->get_handle()"));
    });
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
