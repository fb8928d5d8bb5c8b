// The operation that a thread logs under: the stack of scopes and tracers.
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tlx/Log.h>

#include "support/Capture.h"

using namespace Veltrane::Quillmark::Tlx;
using testing::ElementsAre;
using Line = QmTest::LogCapture::Line;

namespace {

Logger* logger()
{
    return LoggerFactory::instance().getLogger(400);
}

/// Logs under the current operation, like a function without its own scope.
void logHere(const std::string& text)
{
    TLX_LOG(logger(), 1, LogScope::current(), "../Helper", text);
}

TEST(LogScopeTest, outsideAllScopesTheOperationIsTheFallback)
{
    EXPECT_STREQ("-", LogScope::NO_OPERATION);
    EXPECT_STREQ(LogScope::NO_OPERATION, LogScope::current());
    {
        const LogScope scope("Outer::run");
    }
    EXPECT_STREQ(LogScope::NO_OPERATION, LogScope::current());
}

TEST(LogScopeTest, theInnermostScopeNamesTheMessages)
{
    const LogScope outer("Outer::run");
    EXPECT_STREQ("Outer::run", LogScope::current());
    {
        const LogScope inner("Inner::run");
        EXPECT_STREQ("Inner::run", LogScope::current());
        EXPECT_STREQ("Outer::run", outer.operation());
    }
    EXPECT_STREQ("Outer::run", LogScope::current());
    {
        const LogScope second("Second::run");
        EXPECT_STREQ("Second::run", LogScope::current());
    }
    EXPECT_STREQ("Outer::run", LogScope::current());
}

TEST(LogScopeTest, aFunctionWithoutAScopeLogsUnderItsCaller)
{
    QmTest::LogCapture capture(1);
    logHere("before");
    {
        const LogScope outer("Outer::run");
        logHere("first");
        {
            const LogScope inner("Inner::run");
            logHere("second");
        }
        logHere("third");
    }
    logHere("after");
    std::vector<std::string> texts;
    for (const Line& line : capture.lines())
        texts.push_back(line.operation + ": " + line.text);
    EXPECT_THAT(texts, ElementsAre("-: before", "Outer::run: first", "Inner::run: second",
                                   "Outer::run: third", "-: after"));
}

TEST(LogScopeTest, aScopeWritesNoLineAndATracerWritesItsTwo)
{
    QmTest::LogCapture capture(6);
    {
        const LogScope scope("Outer::run");
        EXPECT_THAT(capture.lines(), ElementsAre());
        const Tracer tracer(logger(), "Inner::run", "../Inner", 17);
        EXPECT_STREQ("Inner::run", LogScope::current());
        const LogScope renamed("Renamed::run");
        EXPECT_STREQ("Renamed::run", LogScope::current());
        EXPECT_STREQ("Inner::run", tracer.name());
    }
    EXPECT_THAT(capture.lines(), ElementsAre(Line{6, 400, "Inner::run", "enter", "../Inner", 17},
                                             Line{6, 400, "Inner::run", "leave", "../Inner", 17}));
    EXPECT_STREQ(LogScope::NO_OPERATION, LogScope::current());
}

TEST(LogScopeTest, aTracerIsAScopeWhateverIsLogged)
{
    const Tracer withoutLogger(nullptr, "Outer::run", "../Outer", 1);
    EXPECT_STREQ("Outer::run", LogScope::current());
    {
        const Tracer quiet(logger(), "Inner::run", "../Inner", 1);
        EXPECT_STREQ("Inner::run", LogScope::current());
    }
    EXPECT_STREQ("Outer::run", LogScope::current());
}

TEST(LogScopeTest, anExceptionEndsTheScopesThatItPasses)
{
    const LogScope outer("Outer::run");
    try {
        const LogScope inner("Inner::run");
        const Tracer innermost(logger(), "Innermost::run", "../Inner", 1);
        ASSERT_STREQ("Innermost::run", LogScope::current());
        throw std::runtime_error("out of here");
    } catch (const std::runtime_error&) {
        EXPECT_STREQ("Outer::run", LogScope::current());
    }
    EXPECT_STREQ("Outer::run", LogScope::current());
}

/// Both threads are inside their scopes at the same time, then one leaves while the other stays.
TEST(LogScopeTest, eachThreadHasItsOwnScopes)
{
    const LogScope mine("Mine::run");
    std::latch bothInside(2);
    std::latch otherLeft(1);
    std::string atItsStart;
    std::string inside;
    std::string atItsEnd;
    std::thread other([&] {
        atItsStart = LogScope::current();
        {
            const LogScope scope("Other::run");
            bothInside.arrive_and_wait();
            inside = LogScope::current();
        }
        atItsEnd = LogScope::current();
        otherLeft.count_down();
    });
    {
        const LogScope nested("Mine::nested");
        bothInside.arrive_and_wait();
        EXPECT_STREQ("Mine::nested", LogScope::current());
        otherLeft.wait();
        EXPECT_STREQ("Mine::nested", LogScope::current());
    }
    other.join();
    EXPECT_STREQ("Mine::run", LogScope::current());
    EXPECT_EQ(LogScope::NO_OPERATION, atItsStart);
    EXPECT_EQ("Other::run", inside);
    EXPECT_EQ(LogScope::NO_OPERATION, atItsEnd);
}

/// The stack is correct only if scopes end in the reverse order of their beginnings.
TEST(LogScopeTest, aScopeCannotLeaveItsBlock)
{
    EXPECT_FALSE(std::is_copy_constructible_v<LogScope>);
    EXPECT_FALSE(std::is_move_constructible_v<LogScope>);
    EXPECT_FALSE(std::is_copy_constructible_v<Tracer>);
    EXPECT_FALSE(std::is_move_constructible_v<Tracer>);
}

} // namespace
