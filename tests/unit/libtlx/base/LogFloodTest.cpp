// The flood limit: what one place in the code may write in a second.

#include "../../../../libtlx/lib/base/LogFlood.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Lines.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::Lines;
using testing::ElementsAre;

namespace {

constexpr unsigned BURST = 20;

class LogFloodTest : public testing::Test
{
  protected:
    LogFloodTest() { m_limit.setBurst(BURST); }

    bool from(const LogPlace& place, const std::string& text = "text")
    {
        return admits({"op", 1, LogSeverity::Error, place}, text);
    }
    bool admits(const LogCall& call, const std::string& text, unsigned originator = 400)
    {
        return m_limit.admits({{}, 77}, originator, call, text);
    }
    /// How many of so many lines of a place are written.
    unsigned written(unsigned lines, const LogPlace& place = {"../A", 1})
    {
        unsigned result = 0;
        for (unsigned i = 0; i < lines; ++i)
            result += from(place) ? 1 : 0;
        return result;
    }
    static Lines bodies(const std::vector<LogRecord>& records)
    {
        Lines result;
        for (const LogRecord& record : records)
            result.push_back(record.body);
        return result;
    }
    Lines endSecond() { return bodies(m_limit.endSecond()); }

    FloodLimit m_limit;
};

TEST_F(LogFloodTest, ABurstIsWrittenAndTheNextLineIsCounted)
{
    EXPECT_EQ(BURST, written(BURST));
    EXPECT_EQ(0u, m_limit.counted());
    EXPECT_THAT(endSecond(), ElementsAre());

    EXPECT_EQ(BURST, written(BURST + 1));
    EXPECT_EQ(1u, m_limit.counted());
    EXPECT_THAT(endSecond(), ElementsAre("1 400 77 op [error] text ... and 1 more like this"));
    EXPECT_EQ(1u, m_limit.counted());
}

TEST_F(LogFloodTest, ASumShowsTheLastTextAndWhoLoggedIt)
{
    written(BURST);
    for (int i = 0; i < 4710; ++i)
        EXPECT_FALSE(from({"../A", 1}, "not the last"));
    EXPECT_FALSE(m_limit.admits({{}, 78}, 400, {"op", 4, LogSeverity::Error, {"../A", 1}}, "la\n"));
    EXPECT_THAT(endSecond(), ElementsAre("4 400 78 op [error] la\\n ... and 4,711 more like this"));
}

TEST_F(LogFloodTest, NumbersHaveGroupsOfThreeDigits)
{
    for (const auto& [lines, text] :
         {std::pair(999u, "999"), std::pair(1000u, "1,000"), std::pair(1234567u, "1,234,567")}) {
        const LogPlace place{"../A", static_cast<int>(lines)};
        EXPECT_EQ(BURST, written(BURST + lines, place));
        EXPECT_THAT(endSecond(), ElementsAre(std::string("1 400 77 op [error] text ... and ") +
                                             text + " more like this"));
    }
}

TEST_F(LogFloodTest, AFloodWritesOnlySumsUntilACalmSecond)
{
    EXPECT_EQ(BURST, written(BURST + 5));
    EXPECT_EQ(1u, endSecond().size());
    EXPECT_EQ(0u, written(BURST + 1)); // the flood goes on
    EXPECT_EQ(1u, endSecond().size());
    EXPECT_EQ(0u, written(BURST)); // a calm second, which is not over
    EXPECT_THAT(endSecond(), ElementsAre("1 400 77 op [error] text ... and 20 more like this"));
    EXPECT_EQ(BURST, written(BURST));
    EXPECT_THAT(endSecond(), ElementsAre());
}

TEST_F(LogFloodTest, ASumInTheMiddleOfASecondCountsNothingTwice)
{
    written(BURST + 5);
    EXPECT_THAT(bodies(m_limit.takeSums()),
                ElementsAre("1 400 77 op [error] text ... and 5 more like this"));
    EXPECT_THAT(bodies(m_limit.takeSums()), ElementsAre());
    EXPECT_EQ(0u, written(3));
    EXPECT_THAT(endSecond(), ElementsAre("1 400 77 op [error] text ... and 3 more like this"));
}

TEST_F(LogFloodTest, EachPlaceHasItsOwnBurst)
{
    EXPECT_EQ(BURST, written(1000, {"../A", 1}));
    EXPECT_EQ(BURST, written(1000, {"../A", 2}));
    EXPECT_EQ(BURST, written(1000, {"../B", 1}));
    EXPECT_TRUE(admits({"op", 1, LogSeverity::Error, {"../A", 1}}, "text", 401));
}

TEST_F(LogFloodTest, TheOperationAndTheLevelStandForAnUnknownPlace)
{
    const auto flood = [this](const LogCall& call, unsigned originator = 400) {
        unsigned result = 0;
        for (unsigned i = 0; i < 2 * BURST; ++i)
            result += admits(call, "text", originator) ? 1 : 0;
        return result;
    };
    EXPECT_EQ(BURST, flood({"one", 1, LogSeverity::Error, {}}));
    EXPECT_EQ(BURST, flood({"two", 1, LogSeverity::Error, {}}));
    EXPECT_EQ(BURST, flood({"one", 4, LogSeverity::Debug, {}}));
    EXPECT_EQ(BURST, flood({"one", 1, LogSeverity::Error, {}}, 401));
    EXPECT_EQ(BURST, flood({nullptr, 1, LogSeverity::Error, {}}));
    EXPECT_EQ(0u, flood({"one", 1, LogSeverity::Error, {}}));
    EXPECT_EQ(0u, flood({"", 1, LogSeverity::Error, {}}));
}

TEST_F(LogFloodTest, ASumShowsOnlyTheBeginningOfALongText)
{
    const std::string ends(FloodLimit::SUM_TEXT_BYTES - 1, 'a');
    written(BURST);
    EXPECT_FALSE(from({"../A", 1}, ends + "b"));
    EXPECT_THAT(endSecond(),
                ElementsAre("1 400 77 op [error] " + ends + "b ... and 1 more like this"));
    // The last character has two bytes, and only the first one fits.
    EXPECT_FALSE(from({"../A", 1}, ends + "é"));
    EXPECT_THAT(endSecond(),
                ElementsAre("1 400 77 op [error] " + ends + " ... and 1 more like this"));
}

TEST_F(LogFloodTest, PlacesBeyondTheMostShareOne)
{
    m_limit.setBurst(1);
    for (std::size_t i = 0; i < FloodLimit::MAX_PLACES; ++i)
        EXPECT_TRUE(from({"../A", static_cast<int>(i)}));
    EXPECT_TRUE(from({"../B", 1}, "shared"));
    EXPECT_FALSE(from({"../B", 2}, "shared, too"));
    EXPECT_THAT(endSecond(),
                ElementsAre("1 400 77 op [error] shared, too ... and 1 more like this"));
    // After a silent second there is room again.
    endSecond();
    EXPECT_TRUE(m_limit.isIdle());
    EXPECT_TRUE(from({"../B", 1}));
    EXPECT_TRUE(from({"../B", 2}));
}

TEST_F(LogFloodTest, ZeroIsNoLimit)
{
    m_limit.setBurst(0);
    EXPECT_EQ(10000u, written(10000));
    EXPECT_TRUE(m_limit.isIdle());
    m_limit.setBurst(1);
    EXPECT_EQ(1u, written(3));
    m_limit.setBurst(0); // what was counted is still summed up
    EXPECT_EQ(3u, written(3));
    EXPECT_THAT(endSecond(), ElementsAre("1 400 77 op [error] text ... and 2 more like this"));
}

} // namespace
