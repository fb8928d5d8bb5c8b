#include "DiskModel.h"

#include <gmock/gmock.h>

namespace QmTest {
namespace {

using testing::Contains;
using testing::Each;
using testing::Not;

const FileTree EMPTY;

DiskOperation create(std::uint32_t file, const std::string& path)
{
    return {.kind = DiskOperation::CREATE, .path = path, .file = file};
}
DiskOperation write(std::uint32_t file, const std::string& bytes, std::uint64_t at = 0)
{
    return {.kind = DiskOperation::WRITE, .path = "a", .file = file, .at = at, .bytes = bytes};
}
/// A sync that began after this many operations; of the root without a file.
DiskOperation sync(std::uint32_t before, std::uint32_t file = 0)
{
    return {.kind = DiskOperation::SYNC, .file = file, .before = before};
}

TEST(DiskModelTest, AKillKeepsEverything)
{
    const DiskModel disk({{"a", "old"}}, {write(1, "new!"), create(2, "b")});
    EXPECT_EQ(disk.afterKill(), (FileTree{{"a", "new!"}, {"b", ""}}));
}

TEST(DiskModelTest, APowerCutLosesNamesAndBytesWithoutASync)
{
    const DiskModel disk({{"a", "old"}}, {write(1, "new!"), create(2, "b")});
    EXPECT_EQ(disk.afterWorstCut(), (FileTree{{"a", "old"}}));
    const auto cuts = disk.afterCuts(1);
    EXPECT_THAT(cuts, Contains(FileTree{{"a", "old"}}));
    EXPECT_THAT(cuts, Contains(FileTree{{"a", "new!"}}));
    EXPECT_THAT(cuts, Contains(FileTree{{"a", "old"}, {"b", ""}}));
    EXPECT_THAT(cuts, Contains(FileTree{{"a", "new!"}, {"b", ""}}));
}

TEST(DiskModelTest, ASyncOfAFileKeepsItsBytesAndNotItsName)
{
    const DiskOperations made{create(1, "a"), write(1, "bytes"), sync(2, 1)};
    EXPECT_EQ(DiskModel(EMPTY, made).afterCuts(1), (std::set<FileTree>{{}, {{"a", "bytes"}}}));
}

TEST(DiskModelTest, ASyncOfADirectoryKeepsNamesAndNotTheirBytes)
{
    const DiskOperations made{create(1, "a"), write(1, "bytes"), sync(2)};
    const auto cuts = DiskModel(EMPTY, made).afterCuts(1);
    EXPECT_THAT(cuts, Contains(FileTree{{"a", ""}}));
    EXPECT_THAT(cuts, Contains(FileTree{{"a", "bytes"}}));
    EXPECT_THAT(cuts, Contains(FileTree{{"a", std::string(5, '\0')}}));
    EXPECT_THAT(cuts, Not(Contains(EMPTY)));
}

TEST(DiskModelTest, ASyncDoesNotCoverWhatHappensWhileItRuns)
{
    EXPECT_EQ(DiskModel(EMPTY, {create(1, "a"), create(2, "b"), sync(1)}).afterWorstCut(),
              (FileTree{{"a", ""}}));
    EXPECT_EQ(
        DiskModel({{"a", "old"}}, {write(1, "1"), write(1, "2", 1), sync(1, 1)}).afterWorstCut(),
        (FileTree{{"a", "1ld"}}));
}

TEST(DiskModelTest, ARenameKeepsOneNameAtLeast)
{
    const DiskOperation rename{.kind = DiskOperation::RENAME, .path = "b", .to = "a", .file = 2};
    EXPECT_EQ(DiskModel({{"a", "old"}, {"b", "new"}}, {rename}).afterCuts(1),
              (std::set<FileTree>{
                  {{"a", "old"}, {"b", "new"}}, {{"a", "new"}, {"b", "new"}}, {{"a", "new"}}}));
}

TEST(DiskModelTest, ALostDirectoryLosesItsFiles)
{
    const DiskOperations made{{.kind = DiskOperation::MKDIR, .path = "d", .file = 1},
                              create(2, "d/a"),
                              {.kind = DiskOperation::SYNC, .path = "d", .file = 1, .before = 2}};
    EXPECT_EQ(DiskModel(EMPTY, made).afterCuts(1),
              (std::set<FileTree>{{}, {{"d", std::nullopt}, {"d/a", ""}}}));
}

TEST(DiskModelTest, AnOverwriteKeepsOrLosesEachSector)
{
    const auto sectors = [](char first, char second) {
        return FileTree{{"a", std::string(512, first) + std::string(512, second)}};
    };
    std::set<FileTree> cuts;
    for (std::uint32_t seed = 1; seed < 20; ++seed)
        cuts.merge(
            DiskModel(sectors('1', '1'), {write(1, std::string(1024, '2'))}).afterCuts(seed));
    EXPECT_EQ(cuts, (std::set<FileTree>{sectors('1', '1'), sectors('1', '2'), sectors('2', '1'),
                                        sectors('2', '2')}));
}

TEST(DiskModelTest, ASyncThatFailedHasLostTheBytes)
{
    DiskOperation failed = sync(1, 1);
    failed.kind = DiskOperation::FAILED_SYNC;
    const DiskModel disk({{"a", "old"}}, {write(1, "new"), failed, sync(2, 1)});
    EXPECT_EQ(disk.afterKill(), (FileTree{{"a", "new"}}));
    EXPECT_THAT(disk.afterCuts(1), Each(FileTree{{"a", "old"}}));
}

TEST(DiskModelTest, TheNextProcessNumbersTheFilesThatItFinds)
{
    DiskModel disk({{"b", "1"}}, {create(2, "a"), write(2, "2")});
    disk.add({write(2, "3"), write(1, "4"), sync(1, 2)});
    EXPECT_EQ(disk.afterKill(), (FileTree{{"a", "4"}, {"b", "3"}}));
    EXPECT_EQ(disk.afterWorstCut(), (FileTree{{"b", "3"}}));
}

} // namespace
} // namespace QmTest
