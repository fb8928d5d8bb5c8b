// The table of parsers alone: it loads once, and other threads search during the load.

#include "ExplorerParsers.h"

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "support/Eventually.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using namespace std::chrono_literals;
using Parser = AutoDereference<ExplorerDataParser>;

struct ExplorerParsersTest : testing::Test
{
    Parser find(const char* type) { return Parser(parsers.find(type)); }
    bool isDefault(const char* type) { return find(type).get() != mine.get(); }

    ExplorerParsers parsers;
    const AutoDereference<DefaultExplorerDataParser> mine{new DefaultExplorerDataParser};
};

TEST_F(ExplorerParsersTest, IsOneAProcess)
{
    EXPECT_EQ(&getExplorerParsers(), &getExplorerParsers());
}

TEST_F(ExplorerParsersTest, WithoutALoaderTheDefaultParserServes)
{
    EXPECT_STREQ(find("x")->getExplorerParserName(), "DefaultExplorerParser");
    EXPECT_EQ(find("x").get(), find("y").get());
    int loads = 0;
    parsers.setLoader([&] { ++loads; });
    find("x");
    EXPECT_EQ(loads, 1) << "a loader that comes later is called";
}

TEST_F(ExplorerParsersTest, TheFirstLoaderIsCalledOnce)
{
    int loads = 0;
    parsers.setLoader([&] {
        ++loads;
        parsers.add("t", mine.get());
    });
    parsers.setLoader([&] { loads += 100; });
    EXPECT_EQ(loads, 0);
    EXPECT_EQ(find("t").get(), mine.get());
    find("t");
    EXPECT_EQ(loads, 1);
}

TEST_F(ExplorerParsersTest, OthersWaitForTheLoadAndNothingElseDoes)
{
    std::promise<void> inside;
    std::promise<void> letGo;
    parsers.setLoader([&] {
        inside.set_value();
        EXPECT_EQ(letGo.get_future().wait_for(QmTest::PATIENCE), std::future_status::ready);
        parsers.add("t", mine.get());
    });
    auto first = std::async(std::launch::async, [&] { return isDefault("t"); });
    ASSERT_EQ(inside.get_future().wait_for(10s), std::future_status::ready);
    auto second = std::async(std::launch::async, [&] { return isDefault("t"); });
    EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
    // No lock is held while a library runs, so another thread can add a parser.
    const AutoDereference<DefaultExplorerDataParser> other(new DefaultExplorerDataParser);
    auto adding = std::async(std::launch::async, [&] { parsers.add("u", other.get()); });
    EXPECT_EQ(adding.wait_for(10s), std::future_status::ready);
    letGo.set_value();
    ASSERT_EQ(first.wait_for(QmTest::PATIENCE), std::future_status::ready);
    ASSERT_EQ(second.wait_for(QmTest::PATIENCE), std::future_status::ready);
    EXPECT_FALSE(first.get());
    EXPECT_FALSE(second.get());
    EXPECT_EQ(find("u").get(), other.get());
}

TEST_F(ExplorerParsersTest, ALibraryThatAsksWhileItIsLoadedFindsWhatWasAddedSoFar)
{
    bool before = false;
    bool after = true;
    parsers.setLoader([&] {
        before = isDefault("t");
        parsers.add("t", mine.get());
        after = isDefault("t");
    });
    find("t");
    EXPECT_TRUE(before);
    EXPECT_FALSE(after);
}

TEST_F(ExplorerParsersTest, ALoadThatThrowsIsOver)
{
    parsers.setLoader([] { throw std::runtime_error("broken"); });
    EXPECT_THROW(find("t"), std::runtime_error);
    EXPECT_TRUE(isDefault("t"));
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
