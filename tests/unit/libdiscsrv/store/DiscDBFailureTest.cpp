// Each test fails each file operation of a process that works on the store: with each error that
// the call may have, and with a write that does half of it. The operation fails once, or for ever.
// An interrupted call is repeated. After each failure
//
//   - no acknowledged record is lost or spoilt, now or by a power cut, and no other record changes,
//   - the process has no lock, no descriptor and no temporary payload left,
//   - it can put and read the record again, and so can a fresh process.

#include "CrashSequences.h"

namespace QmTest {
namespace {

using DiscDBFailureTest = CrashPlay;

#define QM_PLAY_FAILURES(name, sequence)                                                           \
    TEST_F(DiscDBFailureTest, name##Once)                                                          \
    {                                                                                              \
        playFailures(sequence, Lasting::ONCE);                                                     \
        EXPECT_EQ(complaints(), Lines{});                                                          \
        EXPECT_GT(runs(), 50u);                                                                    \
    }                                                                                              \
    TEST_F(DiscDBFailureTest, name##ForEver)                                                       \
    {                                                                                              \
        playFailures(sequence, Lasting::FOR_EVER);                                                 \
        EXPECT_EQ(complaints(), Lines{});                                                          \
        EXPECT_GT(runs(), 50u);                                                                    \
    }

QM_PLAY_FAILURES(ANewRecord, FIRST_PUT)
QM_PLAY_FAILURES(AReplacement, SAME_LENGTH_PUT)
QM_PLAY_FAILURES(AReplacementByALongerDocument, LONGER_PUT)
QM_PLAY_FAILURES(AReplacementByAShorterDocument, SHORTER_PUT)
QM_PLAY_FAILURES(ARefusedPut, REFUSED_PUT)
QM_PLAY_FAILURES(APutThatIsGivenUp, GIVEN_UP_PUT)
QM_PLAY_FAILURES(AnExpiry, EXPIRY)
QM_PLAY_FAILURES(APutAfterAnExpiry, PUT_AFTER_EXPIRY)
QM_PLAY_FAILURES(ACleanUp, CLEAN_UP)
QM_PLAY_FAILURES(AFirstStart, FIRST_START)
QM_PLAY_FAILURES(TwoPutsOfOneRecord, TWO_PUTS)
QM_PLAY_FAILURES(PutsThatShareASync, SHARED_SYNC)

struct DiscDBFailedPayloadTest : CrashPlay
{
    /// The operations on the metadata file of a replacement if that call fails.
    Lines metadataOperations(Calls calls, unsigned at, const Sequence& sequence = SAME_LENGTH_PUT)
    {
        fill(sequence);
        EXPECT_EQ(run(sequence, {.kind = Fault::FAIL, .at = at, .calls = calls, .error = ENOSPC}),
                  FAULT_SURVIVED);
        Lines found;
        for (const DiskOperation& operation : workOperations())
            if (operation.path.ends_with(METADATA))
                found.push_back(operation.text());
        return found;
    }
};

TEST_F(DiscDBFailedPayloadTest, APayloadThatCannotBeWrittenLeavesTheStoredRecordAlone)
{
    EXPECT_EQ(metadataOperations(CALL_CREATE, 1), Lines{});
    EXPECT_EQ(metadataOperations(CALL_WRITE, 1), Lines{});
    EXPECT_EQ(metadataOperations(CALL_WRITE, 2), Lines{});
}

TEST_F(DiscDBFailedPayloadTest, APayloadThatCannotBeSyncedLeavesTheStoredRecordAlone)
{
    EXPECT_EQ(metadataOperations(CALL_SYNC, 1), Lines{});
}

TEST_F(DiscDBFailedPayloadTest, AFullDiskLeavesTheStoredMetadataAlone)
{
    EXPECT_EQ(metadataOperations(CALL_RESERVE, 1, LONGER_PUT), Lines{});
}

struct DiscDBInterruptionTest : CrashPlay
{
    /// The states that the work leaves if each of these calls is interrupted in turn.
    std::set<std::string> statesAfterInterruptions(Calls calls)
    {
        fill(SAME_LENGTH_PUT);
        std::set<std::string> states;
        for (unsigned at = 1;; ++at) {
            const int code = run(SAME_LENGTH_PUT,
                                 {.kind = Fault::FAIL, .at = at, .calls = calls, .error = EINTR});
            const DiskOperations done = workOperations();
            states.insert(done.empty() ? "" : done.back().path);
            if (code == FINISHED)
                return states;
        }
    }
};

TEST_F(DiscDBInterruptionTest, APutThatASignalInterruptsSucceeds)
{
    EXPECT_EQ(statesAfterInterruptions(CHANGING_CALLS | CALL_OPEN | CALL_CLOSE | CALL_READ |
                                       CALL_STATUS | CALL_LOCK),
              std::set<std::string>{"acknowledged cl5 2"});
}

} // namespace
} // namespace QmTest
