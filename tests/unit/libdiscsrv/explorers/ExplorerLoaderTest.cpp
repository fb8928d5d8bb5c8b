// Finding the libraries that provide explorers.

#include "ExplorerLoader.h"

#include <gtest/gtest.h>

#include "DiscoveryRepository.h"
#include "support/Capture.h"
#include "support/PluginTree.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;

struct ExplorerLoaderTest : testing::Test
{
    ExplorerLoader& loader() const
    {
        ExplorerLoader& loader = *getEngineSingleton<ExplorerLoader>(context);
        loader.setRepository(getDiscoveryRepository());
        return loader;
    }
    /// The lines of the loader itself, "LEVEL TEXT".
    static Lines own(const LogCapture& log)
    {
        Lines lines;
        for (const LogCapture::Line& line : log.lines())
            if (line.source == "../ExplorerLoader")
                lines.push_back(std::to_string(line.level) + " " + line.text);
        return lines;
    }
    QmTest::PluginTree tree;
    const EngineContext context{true};
};

TEST_F(ExplorerLoaderTest, TheDefaultLibraryComesFirstAndPluginsInOrder)
{
    tree.addLibrary("good", "libqmexplorer.so");
    tree.addPlugin("good", "b");
    tree.addPlugin("same", "a");
    const LogCapture log;
    loader().loadExplorers();
    EXPECT_EQ(tree.calls(), (Lines{"good RegisterExplorers 1", "same RegisterExplorers 1",
                                   "good RegisterExplorers 1"}));
    const std::string a = (tree.plugins() / "a.so").string();
    const std::string b = (tree.plugins() / "b.so").string();
    EXPECT_EQ(own(log), (Lines{"4 Found default explorer library, will register explorers",
                               "4 Registration of uri schemes in default scheme library completed",
                               "4 Beginning registration of explorers in " + a,
                               "4 Registration of explorers in " + a + " completed",
                               "4 Beginning registration of explorers in " + b,
                               "4 Registration of explorers in " + b + " completed"}));
    EXPECT_EQ(log.lines().back().operation, "ExplorerLoader::libraryCallback");
}

TEST_F(ExplorerLoaderTest, ASecondLoadDoesAndLogsNothing)
{
    tree.addPlugin("good");
    loader().loadExplorers();
    const LogCapture log;
    loader().loadExplorers();
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_EQ(tree.calls().size(), 1u);
}

TEST_F(ExplorerLoaderTest, APluginWithoutTheEntryIsOneLine)
{
    tree.addPlugin("empty");
    tree.addPlugin("good");
    const LogCapture log;
    loader().loadExplorers();
    EXPECT_EQ(tree.calls(), Lines{"good RegisterExplorers 1"});
    const std::string path = (tree.plugins() / "empty.so").string();
    EXPECT_EQ(own(log)[0], "4 Did not found the explorer interface on plugin " + path);
    EXPECT_EQ(own(log).size(), 3u);
}

TEST_F(ExplorerLoaderTest, ParsersAreALoadOfTheirOwn)
{
    tree.addLibrary("good", "libqmexplorer.so");
    tree.addPlugin("good");
    tree.addPlugin("empty");
    const LogCapture log;
    loader().loadExplorerParsers();
    EXPECT_EQ(tree.calls(), Lines(2, "good RegisterExplorerParsers 1"));
    const std::string good = (tree.plugins() / "good.so").string();
    const std::string empty = (tree.plugins() / "empty.so").string();
    EXPECT_EQ(own(log), (Lines{"4 Found default explorer library, will register explorer parsers",
                               "4 Registration of explorer parsers in default library completed",
                               "4 Did not found the explorer parser interface on plugin " + empty,
                               "4 Beginning registration of explorer parser in " + good,
                               "4 Registration of explorer parser in " + good + " completed"}));
}

TEST_F(ExplorerLoaderTest, FilterDataComesFromPluginsOnly)
{
    tree.addLibrary("good", "libqmexplorer.so");
    tree.addPlugin("good");
    tree.addPlugin("empty");
    const LogCapture log;
    loader().loadExplorerFilterData();
    EXPECT_EQ(tree.calls(), Lines{"good RegisterExplorerFilterDataProvider 1"});
    const std::string good = (tree.plugins() / "good.so").string();
    const std::string empty = (tree.plugins() / "empty.so").string();
    EXPECT_EQ(own(log),
              (Lines{"4 Found default explorer library, will register explorer filter data",
                     "1 Unable to resolve symbol RegisterExplorerFilterDataProvider in "
                     "libqmexplorer",
                     "4 Did not found the filter data interface on plugin " + empty,
                     "4 Beginning registration of explorer filter data in " + good,
                     "4 Registration of explorer filter data in " + good + " completed"}));
    loader().loadExplorerFilterData();
    EXPECT_EQ(own(log).size(), 5u);
}

TEST_F(ExplorerLoaderTest, ADefaultLibraryWithoutTheEntryIsNotLogged)
{
    tree.addLibrary("empty", "libqmexplorer.so");
    const LogCapture log;
    loader().loadExplorers();
    EXPECT_EQ(own(log), Lines{});
}

TEST_F(ExplorerLoaderTest, OtherPluginsLoadBesideHostileOnes)
{
    tree.addPlugin("throwing", "a");
    tree.addPlugin("throwing_odd", "b");
    tree.addPlugin("newer", "c");
    tree.addPlugin("unresolved", "d");
    QmTest::writeFile(tree.plugins() / "e.so", "garbage");
    tree.addPlugin("good", "z");
    loader().loadExplorers();
    EXPECT_EQ(tree.calls().back(), "good RegisterExplorers 1");
}

TEST_F(ExplorerLoaderTest, AnUnknownKindIsReported)
{
    const AssertionCapture assertions;
    loader().libraryCallback(nullptr, "x", 3);
    EXPECT_EQ(assertions.texts(), Lines{"SHOULD_NOT_GET_HERE"});
}

TEST_F(ExplorerLoaderTest, AnUnresolvedEntryIsASymbolException)
{
    const RegisterFilterDataInterface unresolved;
    try {
        unresolved.call(getDiscoveryRepository());
        ADD_FAILURE();
    } catch (const SymbolException& e) {
        EXPECT_EQ(e.symbol(), "RegisterExplorerFilterDataProvider");
        EXPECT_STREQ(e.what(), "there is no symbol RegisterExplorerFilterDataProvider");
    }
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
