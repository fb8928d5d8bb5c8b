// Each test stops a process that works on the store, at each of its file operations in turn and in
// the middle of each write. Then a fresh process looks at the files that were left: after a kill,
// and after power cuts that lose what was not synced (DiskModel.h). It always finds
//
//   - every put that was acknowledged, whole, unless a later put replaced it,
//   - every other record unchanged,
//   - no temporary payload, no lock and no descriptor left over,
//   - that the record can be put and read again, and that this put survives a power cut.
//
// A lookup finds this in a record "1" with the payload "1" that a put "2" replaces. The first
// number is of the metadata, the second of the payload. "mixed" is a document with parts of both;
// "none" means that the document is not well-formed. Which of them a half-written document shows
// depends on the lengths of the two documents.
//
//     last operation              after a kill            after a power cut
//     ------------------------    --------------------    -------------------------
//     any before the next         1/1                     1/1
//     write of the document       1/1 2/1 mixed/1 none    1/1 2/1 mixed/1 none
//     its cut to length           2/1                     1/1 2/1 mixed/1 none
//     sync of the document        2/1                     2/1
//     rename of the payload       2/2                     2/1 2/2
//     sync of the directory       2/2                     2/2
//
// If no record was there before, it finds "2/missing" instead of "2/1", and "none" instead of
// "1/1". Until the last sync a power cut can also lose the whole new record.

#include "CrashSequences.h"

#include <gmock/gmock.h>

namespace QmTest {
namespace {

using DiscDBCrashTest = CrashPlay;

TEST_F(DiscDBCrashTest, ANewRecordIsThereWithItsPayloadOrNot)
{
    EXPECT_EQ(playCrashes(FIRST_PUT), (Lines{"before: kill none, cut none",
                                             "document written: kill 2/missing, cut 2/missing none",
                                             "document synced: kill 2/missing, cut 2/missing none",
                                             "payload renamed: kill 2/2, cut 2/2 2/missing none",
                                             "directory synced: kill 2/2, cut 2/2",
                                             "document half-written: kill none, cut none"}));
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, AReplacedRecordGoesThroughTheStatesOfTheTable)
{
    EXPECT_EQ(playCrashes(SAME_LENGTH_PUT),
              (Lines{"before: kill 1/1, cut 1/1", "document written: kill 2/1, cut 1/1 2/1 mixed/1",
                     "document synced: kill 2/1, cut 2/1", "payload renamed: kill 2/2, cut 2/1 2/2",
                     "directory synced: kill 2/2, cut 2/2",
                     "document half-written: kill 1/1 mixed/1, cut 1/1 mixed/1"}));
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, ALongerDocumentMayNotBeFoundWhileItIsWritten)
{
    EXPECT_EQ(
        playCrashes(LONGER_PUT),
        (Lines{"before: kill 1/1, cut 1/1", "blanks written: kill 1/1, cut 1/1",
               "blanks synced: kill 1/1, cut 1/1", "document written: kill 2/1, cut 1/1 2/1 none",
               "document synced: kill 2/1, cut 2/1", "payload renamed: kill 2/2, cut 2/1 2/2",
               "directory synced: kill 2/2, cut 2/2",
               "document half-written: kill 1/1 mixed/1 none, cut 1/1 mixed/1 none"}));
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, AShorterDocumentMayNotBeFoundWhileItIsWritten)
{
    EXPECT_EQ(
        playCrashes(SHORTER_PUT),
        (Lines{"before: kill 1/1, cut 1/1", "document written: kill 2/1, cut 1/1 2/1 none",
               "document synced: kill 2/1, cut 2/1", "document cut: kill 2/1, cut 2/1",
               "payload renamed: kill 2/2, cut 2/1 2/2", "directory synced: kill 2/2, cut 2/2",
               "document half-written: kill 1/1 mixed/1 none, cut 1/1 mixed/1 none"}));
    EXPECT_EQ(complaints(), Lines{});
}

/// A disk writes a sector of 512 bytes whole. Most documents are shorter.
TEST_F(DiscDBCrashTest, APowerCutNeverHidesADocumentOfOneSector)
{
    const Lines longer = playCrashes(LONGER_PUT_IN_A_SECTOR);
    EXPECT_THAT(longer, testing::Contains("document written: kill 2/1, cut 1/1 2/1"));
    const Lines shorter = playCrashes(SHORTER_PUT_IN_A_SECTOR);
    EXPECT_THAT(shorter, testing::Contains("document written: kill 2/1, cut 1/1 2/1"));
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, ARefusedPutIsNeverFound)
{
    EXPECT_EQ(playCrashes(REFUSED_PUT),
              (Lines{"before: kill 1/1, cut 1/1", "document written: kill 3/1, cut 1/1 3/1 mixed/1",
                     "document synced: kill 3/1, cut 3/1", "payload renamed: kill 3/3, cut 3/1 3/3",
                     "directory synced: kill 3/3, cut 3/3",
                     "document half-written: kill 1/1 mixed/1, cut 1/1 mixed/1"}));
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, APutThatIsGivenUpIsNeverFound)
{
    EXPECT_EQ(playCrashes(GIVEN_UP_PUT), Lines{"before: kill 1/1, cut 1/1"});
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, AnExpiredRecordLosesItsPayloadFirstAndIsNeverFound)
{
    EXPECT_EQ(playCrashes(EXPIRY),
              (Lines{"before: kill none, cut none", "payload deleted: kill none, cut none",
                     "metadata deleted: kill none, cut none"}));
    EXPECT_EQ(complaints(), Lines{});
}

/// A power cut can bring the payload of the expired record back, because nobody syncs a deletion.
TEST_F(DiscDBCrashTest, APutInThePlaceOfAnExpiredRecordMayShowTheOldPayloadUntilItIsAnswered)
{
    EXPECT_EQ(playCrashes(PUT_AFTER_EXPIRY),
              (Lines{"before: kill none, cut none", "payload deleted: kill none, cut none",
                     "metadata deleted: kill none, cut none",
                     "document written: kill 2/missing, cut 2/1 2/missing none",
                     "document synced: kill 2/missing, cut 2/1 2/missing none",
                     "payload renamed: kill 2/2, cut 2/1 2/2 2/missing none",
                     "directory synced: kill 2/2, cut 2/2",
                     "document half-written: kill none, cut none"}));
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, ACleanUpThatDiedIsFinishedByTheNext)
{
    EXPECT_EQ(playCrashes(CLEAN_UP), Lines{"before: kill 1/1, cut 1/1"});
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, AFirstStartThatDiedIsFinishedByTheNext)
{
    EXPECT_THAT(playCrashes(FIRST_START), testing::Contains("directory synced: kill 2/2, cut 2/2"));
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, OfTwoPutsOfOneRecordEachMayBeTheLast)
{
    EXPECT_EQ(playCrashes(TWO_PUTS).front(), "before: kill 1/1, cut 1/1");
    EXPECT_EQ(complaints(), Lines{});
}

TEST_F(DiscDBCrashTest, ASharedSyncCoversThePutsThatShareIt)
{
    EXPECT_EQ(playCrashes(SHARED_SYNC).front(), "before: kill 1/1, cut 1/1");
    EXPECT_EQ(complaints(), Lines{});
}

std::ptrdiff_t syncsOf(const DiskOperations& operations, const std::string& path)
{
    return std::count_if(operations.begin(), operations.end(), [&](const DiskOperation& operation) {
        return operation.kind == DiskOperation::SYNC && operation.path == path;
    });
}

/// The threads of that sequence decide by themselves when they wait, so it may take a few attempts.
TEST_F(DiscDBCrashTest, PutsDoShareASync)
{
    fill(SHARED_SYNC);
    constexpr int ATTEMPTS = 50;
    bool shared = false;
    for (int i = 0; i < ATTEMPTS && !shared; ++i) {
        ASSERT_EQ(run(SHARED_SYNC, {}), FINISHED);
        shared = syncsOf(workOperations(), "db/discovery") < 3;
    }
    EXPECT_TRUE(shared);
}

/// After a kill the kernel still has all written data. A power cut loses what was not synced, so
/// the places of the syncs matter.
TEST_F(DiscDBCrashTest, EachSyncStandsWhereAPowerCutNeedsIt)
{
    fill(SAME_LENGTH_PUT);
    ASSERT_EQ(run(SAME_LENGTH_PUT, {}), FINISHED);
    Lines done;
    for (const DiskOperation& operation : workOperations())
        done.push_back(operation.text());
    const std::string metadata = METADATA;
    EXPECT_EQ(done, (Lines{"create 0.updating", "write 0.updating", "write 0.updating",
                           "note begun cl5 2", "sync 0.updating", "write " + metadata,
                           "sync " + metadata, "rename 0.updating", "sync db", "sync ",
                           "sync discovery", "note acknowledged cl5 2"}));
}

} // namespace
} // namespace QmTest
