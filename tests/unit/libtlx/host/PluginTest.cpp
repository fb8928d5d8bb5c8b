// Libraries loaded at run time, good and bad.

#include <tlx/Plugin.h>

#include <stdexcept>

#include <sys/stat.h>

#include <tlx/ForeignCode.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/PluginTree.h"

namespace Veltrane::Quillmark::Tlx {
namespace {

using QmTest::Lines;
using QmTest::LogCapture;

struct RegisterExplorers : SymbolResolver
{
    std::vector<LibraryFunction*> functions() override { return {&function, &optional}; }
    LibraryFunction function{"RegisterExplorers", true};
    LibraryFunction optional{"RegisterExplorerParsers", false};
};

struct PluginTest : testing::Test
{
    PluginTest() { setKitVersion({"QmExplorerKitVersion", 1}); }
    bool load(const std::string& library)
    {
        std::string resolvedName;
        const bool loaded = getEngineSingleton<PluginDirector>(context)->loadPluginInterface(
            library, resolver, resolvedName);
        EXPECT_EQ(resolvedName, library);
        return loaded;
    }
    QmTest::PluginTree tree;
    const EngineContext context{true};
    RegisterExplorers resolver;
};

TEST_F(PluginTest, ALibrarysFunctionIsResolvedAndCalled)
{
    const std::string path = tree.addPlugin("good");
    LogCapture log;
    EXPECT_TRUE(load(path));
    EXPECT_TRUE(resolver.function.isResolved());
    EXPECT_TRUE(resolver.optional.isResolved());
    int argument = 0;
    EXPECT_TRUE(resolver.function.call(&argument));
    EXPECT_EQ(tree.calls(), Lines{"good RegisterExplorers 1"});
    // Logged before the call. If the library never returns, this is the last line.
    EXPECT_EQ(log.texts(1), (Lines{"Loading " + path, "Entering " + path + ": RegisterExplorers"}));
    for (const std::string& text : log.texts(1))
        EXPECT_THAT(log.severities(text), testing::Each(LogSeverity::Notice)) << text;
    log.clear();
    EXPECT_TRUE(load(path));
    EXPECT_EQ(log.texts(1), Lines{}) << "it is here already";
}

TEST_F(PluginTest, AnAbsentRequiredSymbolIsAnsweredAndNotLogged)
{
    const std::string path = tree.addPlugin("empty");
    const LogCapture log;
    EXPECT_FALSE(load(path));
    EXPECT_EQ(log.texts(1), Lines{"Loading " + path});
    EXPECT_FALSE(resolver.function.isResolved());
    EXPECT_FALSE(resolver.function.call(nullptr));
}

TEST_F(PluginTest, WhatOnlyADependencyHasIsNotTheLibrarys)
{
    const LogCapture log;
    EXPECT_FALSE(load(tree.addPlugin("dependent")));
    EXPECT_FALSE(resolver.function.isResolved());
    EXPECT_EQ(log.texts(1).size(), 1u) << "it was loaded";
}

TEST_F(PluginTest, AnAbsentOptionalSymbolIsNoFailure)
{
    EXPECT_TRUE(load(tree.addPlugin("same")));
    EXPECT_FALSE(resolver.optional.isResolved());
}

TEST_F(PluginTest, WhatAFunctionThrowsIsLoggedWithThePath)
{
    const std::string path = tree.addPlugin("throwing");
    const std::string odd = tree.addPlugin("throwing_odd");
    EXPECT_TRUE(load(path));
    LogCapture log;
    EXPECT_FALSE(resolver.function.call(nullptr));
    EXPECT_EQ(log.texts(1).back(), path + ": RegisterExplorers failed: thrown by throwing");
    EXPECT_TRUE(load(odd));
    EXPECT_FALSE(resolver.function.call(nullptr));
    EXPECT_EQ(log.texts(1).back(),
              odd + ": RegisterExplorers failed: it threw something that is no exception");
}

TEST_F(PluginTest, AFileThatIsNoLibraryIsLoggedWithThePath)
{
    const std::string text = (tree.plugins() / "text.so").string();
    QmTest::writeFile(text, "no library at all, but long enough to look like one might be here\n");
    const std::string nothing = (tree.plugins() / "nothing.so").string();
    QmTest::writeFile(nothing, "");
    const std::string unresolved = tree.addPlugin("unresolved");
    LogCapture log;
    for (const std::string& path : {text, nothing, unresolved}) {
        log.clear();
        EXPECT_FALSE(load(path));
        ASSERT_EQ(log.texts(1).size(), 2u);
        EXPECT_TRUE(log.texts(1)[1].starts_with("Unable to load " + path + ": "))
            << log.texts(1)[1];
    }
    EXPECT_NE(log.texts(1)[1].find("aFunctionThatNobodyHas"), std::string::npos);
}

TEST_F(PluginTest, ALibraryForAnotherVersionOfTheKitIsRefused)
{
    const std::string newer = tree.addPlugin("newer");
    const std::string older = tree.addPlugin("older");
    LogCapture log;
    EXPECT_FALSE(load(newer));
    EXPECT_EQ(log.texts(1)[1], newer + " was built for version 99 of the kit, this is version 1");
    EXPECT_FALSE(load(older));
    EXPECT_EQ(log.texts(1).back(),
              older + " was built for version 0 of the kit, this is version 1");
    EXPECT_TRUE(load(tree.addPlugin("same")));
}

TEST_F(PluginTest, ALibraryThatOthersMayWriteIsRefusedWithItsMode)
{
    const std::string path = tree.addPlugin("good");
    LogCapture log;
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    EXPECT_FALSE(load(path));
    EXPECT_EQ(log.texts(1),
              Lines{"Unable to load " + path + ": others may write " + path + " (mode 0666)"});
    EXPECT_EQ(tree.calls(), Lines{});
    log.clear();
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    const std::string lib = (tree.path() / "lib").string();
    ASSERT_EQ(::chmod(lib.c_str(), 01777), 0);
    EXPECT_FALSE(load(path));
    EXPECT_EQ(log.texts(1),
              Lines{"Unable to load " + path + ": others may write " + lib + " (mode 1777)"});
    EXPECT_FALSE(resolver.function.isResolved());
    ASSERT_EQ(::chmod(lib.c_str(), 0755), 0);
    EXPECT_TRUE(load(path)) << "after the repair";
}

TEST_F(PluginTest, ALibraryByItsBaseNameIsHeldToTheSame)
{
    const std::string path = tree.addLibrary("good", "libgood.so");
    ASSERT_EQ(::chmod(path.c_str(), 0775), 0);
    const LogCapture log;
    bool found = false;
    EXPECT_FALSE(getEngineSingleton<RuntimeLoader>(context)->loadInterface(
        "libgood", resolver, found, nullptr, false, 1));
    EXPECT_TRUE(found);
    EXPECT_EQ(log.texts(1),
              Lines{"Unable to load " + path + ": others may write " + path + " (mode 0775)"});
}

TEST_F(PluginTest, AFunctionThatDoesNotComeBackIsNamedAgainAndAgain)
{
    setForeignCodePatience(std::chrono::milliseconds(50));
    const std::string path = tree.addPlugin("slow");
    EXPECT_TRUE(load(path));
    const LogCapture log;
    EXPECT_TRUE(resolver.function.call(nullptr)); // 300 ms
    const Lines lines = log.texts(1);
    ASSERT_GE(lines.size(), 3u);
    for (std::size_t i = 1; i < lines.size(); ++i)
        EXPECT_EQ(lines[i], path + ": RegisterExplorers has not come back for 0 seconds");
}

TEST_F(PluginTest, TheLibraryThatIsEnteredIsKnownInside)
{
    EXPECT_EQ(currentLibrary(), "");
    static std::string inside;
    LibraryFunction function("f", true);
    function.resolve("/some/path.so",
                     reinterpret_cast<void*>(+[](void*) { inside = currentLibrary(); }));
    EXPECT_TRUE(function.call(nullptr));
    EXPECT_EQ(inside, "/some/path.so");
    EXPECT_EQ(currentLibrary(), "");
}

TEST_F(PluginTest, ABaseNameIsLookedForInTheProductsLibraries)
{
    RuntimeLoader& loader = *getEngineSingleton<RuntimeLoader>(context);
    bool found = true;
    const LogCapture log;
    EXPECT_FALSE(loader.loadInterface("libgood", resolver, found, nullptr, false, 1));
    EXPECT_FALSE(found);
    EXPECT_EQ(log.texts(1), Lines{});
    tree.addLibrary("good", "libgood.so.1");
    EXPECT_TRUE(loader.loadInterface("libgood", resolver, found, nullptr, false, 1));
    EXPECT_TRUE(found);
    tree.addLibrary("empty", "libempty.so");
    EXPECT_FALSE(loader.loadInterface("libempty", resolver, found, nullptr, false, 1));
    EXPECT_TRUE(found);
    const std::list<TlxPathname> path{"/nowhere", tree.plugins().string()};
    EXPECT_FALSE(loader.loadInterface("libgood", resolver, found, &path, false, 1));
    tree.addPlugin("good", "libgood");
    EXPECT_TRUE(loader.loadInterface("libgood", resolver, found, &path, false, 1));
}

struct Walk final : LibraryIterationCallback
{
    void libraryCallback(PluginDirector*, const std::string& library,
                         unsigned long long cookie) override
    {
        seen.push_back(std::filesystem::path(library).filename().string() + " " +
                       std::to_string(cookie));
        if (seen.size() == 1)
            throw std::runtime_error("of the callback");
    }
    Lines seen;
};

TEST_F(PluginTest, PluginsAreWalkedInTheOrderOfTheirNamesWhateverTheCallbackThrows)
{
    for (const char* name : {"c", "a", "b"})
        tree.addPlugin("empty", name);
    QmTest::writeFile(tree.plugins() / "readme.txt", "no library");
    std::filesystem::create_directory(tree.plugins() / "d.so");
    Walk walk;
    const LogCapture log;
    getEngineSingleton<PluginDirector>(context)->iteratePluginLibraries(walk, 7);
    EXPECT_EQ(walk.seen, (Lines{"a.so 7", "b.so 7", "c.so 7"}));
    EXPECT_EQ(log.texts(1), Lines{(tree.plugins() / "a.so").string() + " failed: of the callback"});
}

TEST_F(PluginTest, WithoutADirectoryThereAreNoPlugins)
{
    std::filesystem::remove_all(tree.path() / "lib");
    Walk walk;
    const LogCapture log;
    getEngineSingleton<PluginDirector>(context)->iteratePluginLibraries(walk, 0);
    EXPECT_EQ(walk.seen, Lines{});
    EXPECT_EQ(log.texts(1), Lines{});
    QmTest::writeFile(tree.path() / "lib", "a file");
    getEngineSingleton<PluginDirector>(context)->iteratePluginLibraries(walk, 0);
    EXPECT_EQ(log.texts(1),
              Lines{"Unable to read " + (tree.plugins()).string() + ": Not a directory"});
}

// The objects of a context.

struct Thing : EngineSingleton
{
    static Thing* instance(const EngineContext&)
    {
        ++made;
        return new Thing;
    }
    void closeObject() override { ended.push_back("thing"); }
    static inline int made = 0;
    static inline Lines ended;
};

struct Other : EngineSingleton
{
    static Other* instance(const EngineContext& context)
    {
        getEngineSingleton<Thing>(context); // an object may need another one
        return new Other;
    }
    void closeObject() override { Thing::ended.push_back("other"); }
};

TEST(EngineTest, AContextHasOneObjectOfAKindAndEndsThemInReverse)
{
    EngineContext context(true);
    Other* other = getEngineSingleton<Other>(context);
    EXPECT_EQ(getEngineSingleton<Other>(context), other);
    getEngineSingleton<Thing>(context);
    EXPECT_EQ(Thing::made, 1);
    context.close();
    EXPECT_EQ(Thing::ended, (Lines{"other", "thing"}));
    EXPECT_EQ(getEngineSingleton<Thing>(context), nullptr);
    context.close();
    EXPECT_EQ(Thing::ended.size(), 2u);
}

TEST(EngineTest, TwoContextsHaveTheirOwn)
{
    const EngineContext one(true);
    const EngineContext two(true);
    EXPECT_NE(getEngineSingleton<Thing>(one), getEngineSingleton<Thing>(two));
    const EngineContext closed(false);
    EXPECT_EQ(getEngineSingleton<Thing>(closed), nullptr);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
