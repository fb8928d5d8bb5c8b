// Proves that the crash play finds defects: each test puts one into the store or into the disk.

#include "CrashSequences.h"

#include <gmock/gmock.h>

namespace QmTest {
namespace {

using testing::Contains;
using testing::HasSubstr;

using CrashPlayTest = CrashPlay;

/// Syncs of the files whose path ends like this do nothing.
auto ignoring(const std::string& end)
{
    return [=](PlayedFileSystem& files) {
        files.ignoreSyncs([=](const std::string& path) { return path.ends_with(end); });
    };
}

/// The work of a put, and one more step.
Sequence putAnd(const std::function<void(Player&)>& step)
{
    Sequence sequence = SAME_LENGTH_PUT;
    sequence.work = [=](Player& player) {
        SAME_LENGTH_PUT.work(player);
        step(player);
    };
    return sequence;
}

TEST_F(CrashPlayTest, FindsAPayloadThatIsNotSynced)
{
    playCrashes(SAME_LENGTH_PUT, ignoring(".updating"));
    EXPECT_THAT(complaints(), Contains(HasSubstr("cl5 is 2/spoilt")));
}

TEST_F(CrashPlayTest, FindsMetadataThatAreNotSyncedBeforeTheRename)
{
    playCrashes(SAME_LENGTH_PUT, ignoring(".xml"));
    EXPECT_THAT(complaints(), Contains(HasSubstr("cl5 is 1/2")));
}

TEST_F(CrashPlayTest, FindsADirectoryThatIsNotSynced)
{
    playCrashes(FIRST_PUT, ignoring("discovery"));
    EXPECT_THAT(complaints(), Contains(HasSubstr("cl5 is none")));
}

TEST_F(CrashPlayTest, FindsAStoreWhoseDirectoryHasNoDurableName)
{
    playCrashes(FIRST_START, ignoring("db"));
    EXPECT_THAT(complaints(), Contains(HasSubstr("cl5 is none")));
    EXPECT_THAT(complaints(), Contains(HasSubstr("a put after the restart is lost")));
}

TEST_F(CrashPlayTest, FindsAMomentWithoutAPayload)
{
    playCrashes(SAME_LENGTH_PUT, [](PlayedFileSystem& files) { files.unlinkBeforeRename(); });
    EXPECT_THAT(complaints(), Contains(HasSubstr("cl5 is 2/missing")));
}

TEST_F(CrashPlayTest, FindsAChangeThatBypassesTheFileSystem)
{
    playCrashes(putAnd([](Player& player) { writeFile(player.store() + "/spoilt", "bytes"); }));
    EXPECT_THAT(complaints(), Contains(HasSubstr("the files changed without a call")));
}

TEST_F(CrashPlayTest, FindsAnotherRecordThatIsTouched)
{
    playFailures(putAnd([](Player& player) {
                     const std::string other = player.store() + "/1 srv1 other.dat";
                     (void)player.files().unlink(other.c_str());
                 }),
                 Lasting::ONCE);
    EXPECT_THAT(complaints(), Contains(HasSubstr("another record is spoilt")));
}

TEST_F(CrashPlayTest, FindsWhatAFailureLeavesOpen)
{
    playFailures(putAnd([](Player& player) {
                     static std::unique_ptr<Tlx::FileLock> kept;
                     kept = Tlx::FileLock::open(player.store() + "/" + METADATA, O_RDWR);
                     if (!kept || kept->acquire_read() != 0)
                         player.note("complaint: no lock");
                 }),
                 Lasting::ONCE);
    EXPECT_THAT(complaints(), Contains(HasSubstr("locks are left")));
    EXPECT_THAT(complaints(), Contains(HasSubstr("descriptors are left")));
}

TEST_F(CrashPlayTest, FindsATemporaryPayloadThatAFailureLeaves)
{
    playFailures(putAnd([](Player& player) {
                     const std::string name = player.store() + "/900.updating";
                     (void)player.files().close(
                         player.files().open(name.c_str(), O_CREAT | O_WRONLY, 0600));
                 }),
                 Lasting::ONCE);
    EXPECT_THAT(complaints(), Contains(HasSubstr("a temporary payload is left")));
}

} // namespace
} // namespace QmTest
