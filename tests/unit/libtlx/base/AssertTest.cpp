// A failed assertion is logged and counted, and the code goes on.

#include <tlx/Assert.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Capture.h"

using namespace Veltrane::Quillmark::Tlx;
using testing::ElementsAre;

namespace {

class AssertTest : public testing::Test
{
  protected:
    const unsigned long m_before = assertionCount();
};

TEST_F(AssertTest, aTrueExpressionIsTrueAndIsNotReported)
{
    QmTest::LogCapture log;
    const int value = 1;
    EXPECT_TRUE(TLX_ASSERT(1 == value));
    EXPECT_TRUE(TLX_ASSERT_AS(1 == value, "wording"));
    EXPECT_EQ(0u, assertionCount() - m_before);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(AssertTest, aBrokenOneIsLoggedCountedAndAnsweredFalse)
{
    QmTest::LogCapture log(1);
    const void* const writer = nullptr;
    const int line = __LINE__ + 1;
    EXPECT_FALSE(TLX_ASSERT(NULL != writer));
    const auto lines = log.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ((QmTest::LogCapture::Line{1, LOG_ORIGINATOR_PLATFORM, "assertion",
                                        "Assertion failed: NULL != writer", __FILE__, line}),
              lines[0]);
    EXPECT_EQ(1u, assertionCount() - m_before);
}

TEST_F(AssertTest, theExpressionIsEvaluatedOnce)
{
    QmTest::AssertionCapture assertions;
    int evaluated = 0;
    EXPECT_FALSE(TLX_ASSERT(++evaluated == 0));
    EXPECT_EQ(1, evaluated);
}

TEST_F(AssertTest, aTextOfItsOwnAndTheUnreachablePlace)
{
    QmTest::LogCapture log(1);
    EXPECT_FALSE(TLX_ASSERT_AS(1 == 2, "filterParmaetersXml"));
    TLX_SHOULD_NOT_GET_HERE();
    EXPECT_THAT(log.texts(1), ElementsAre("Assertion failed: filterParmaetersXml",
                                          "Assertion failed: SHOULD_NOT_GET_HERE"));
    EXPECT_EQ(2u, assertionCount() - m_before);
}

TEST_F(AssertTest, aReporterTakesThePlaceOfTheLogUntilItIsRemoved)
{
    QmTest::LogCapture log(1);
    std::string expression;
    std::string file;
    int line = 0;
    setAssertionReporter([&](const char* e, const char* f, int l) {
        expression = e;
        file = f;
        line = l;
    });
    reportAssertion("m_cached", "file.cpp", 7);
    EXPECT_EQ("m_cached", expression);
    EXPECT_EQ("file.cpp", file);
    EXPECT_EQ(7, line);
    EXPECT_THAT(log.lines(), ElementsAre());
    setAssertionReporter({});
    reportAssertion("m_cached", "file.cpp", 8);
    EXPECT_EQ(7, line);
    EXPECT_THAT(log.texts(1), ElementsAre("Assertion failed: m_cached"));
    EXPECT_EQ(2u, assertionCount() - m_before);
}

TEST_F(AssertTest, aReporterThatThrowsDoesNoHarm)
{
    setAssertionReporter([](const char*, const char*, int) { throw std::runtime_error("no"); });
    EXPECT_FALSE(TLX_ASSERT(1 == 2));
    EXPECT_EQ(1u, assertionCount() - m_before);
    setAssertionReporter({});
}

TEST_F(AssertTest, aReporterMayReplaceItself)
{
    int calls = 0;
    setAssertionReporter([&](const char*, const char*, int) {
        setAssertionReporter({});
        ++calls;
    });
    EXPECT_FALSE(TLX_ASSERT(1 == 2));
    EXPECT_EQ(1, calls);
}

TEST_F(AssertTest, manyThreadsReportWhileTheReporterIsReplaced)
{
    std::atomic<unsigned> heard{0};
    const auto reporter = [&](const char*, const char*, int) { ++heard; };
    setAssertionReporter(reporter);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 250; ++i)
                reportAssertion("x", "f", 1);
        });
    for (int i = 0; i < 100; ++i)
        setAssertionReporter(reporter);
    for (std::thread& thread : threads)
        thread.join();
    setAssertionReporter({});
    EXPECT_EQ(1000u, heard);
    EXPECT_EQ(1000u, assertionCount() - m_before);
}

} // namespace
