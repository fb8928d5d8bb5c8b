// The bounds of a query: length, depth, stack and time.

#include <tlx/Query.h>

#include <string>

#include <pthread.h>

#include <gtest/gtest.h>

#include "QueryItem.h"
#include "support/Text.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::disk;
using QmTest::Item;
using QmTest::matches;
using QmTest::mistake;
using QmTest::repeated;

namespace {

TEST(QueryBoundsTest, ATextHasItsGreatestLength)
{
    const std::string longest = "fstype=" + std::string(QUERY_MAX_LENGTH - 7, 'x');
    EXPECT_FALSE(matches(longest));
    EXPECT_EQ(mistake(longest + "x"), "column 65537: expected the end of the text, which has at "
                                      "most 65536 bytes");
}

TEST(QueryBoundsTest, ParenthesesAndNotAreCountedTogether)
{
    EXPECT_TRUE(matches(repeated(QUERY_MAX_DEPTH, "(") + "local" + repeated(QUERY_MAX_DEPTH, ")")));
    EXPECT_TRUE(matches(repeated(QUERY_MAX_DEPTH, "not ") + "local"));
    EXPECT_EQ(mistake(repeated(QUERY_MAX_DEPTH + 1, "(") + "local"),
              "column 101: expected at most 100 \"(\" and \"not\" inside one another");
    EXPECT_EQ(mistake(repeated(QUERY_MAX_DEPTH + 1, "not ") + "local"),
              "column 401: expected at most 100 \"(\" and \"not\" inside one another");
    EXPECT_EQ(mistake(repeated(QUERY_MAX_DEPTH / 2, "(not ") + "(local"),
              "column 251: expected at most 100 \"(\" and \"not\" inside one another");
}

TEST(QueryBoundsTest, WhatStandsSideBySideIsNotNested)
{
    EXPECT_TRUE(matches(repeated(1000, "(not readonly) and ") + "local"));
    EXPECT_TRUE(matches(repeated(1000, "not readonly and ") + "local"));
}

TEST(QueryBoundsTest, AMegabyteOfParenthesesIsRefused)
{
    const std::string bound = "column 65537: expected the end of the text, which has at most 65536 "
                              "bytes";
    EXPECT_EQ(mistake(std::string(1 << 20, '(')), bound);
    EXPECT_EQ(mistake(repeated(1 << 18, "not ")), bound);
    EXPECT_EQ(mistake(std::string(QUERY_MAX_LENGTH, '(')),
              "column 101: expected at most 100 \"(\" and \"not\" inside one another");
}

/// Runs the function in a thread with a small stack.
void onASmallStack(void* (*work)(void*))
{
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 1 << 20), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, work, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST(QueryBoundsTest, TheDeepestTextNeedsLittleStack)
{
    onASmallStack([](void*) -> void* {
        EXPECT_TRUE(matches(repeated(QUERY_MAX_DEPTH / 2, "(not ") + "local" +
                            repeated(QUERY_MAX_DEPTH / 2, ")")));
        EXPECT_TRUE(
            matches(repeated(QUERY_MAX_DEPTH, "(") + "local" + repeated(QUERY_MAX_DEPTH, ")")));
        return nullptr;
    });
}

TEST(QueryBoundsTest, AnItemIsAskedOnceForEveryComparison)
{
    TlxQuery query;
    ASSERT_TRUE(query.setQuery(repeated(5000, "local and ") + "local"));
    const Item item = disk();
    EXPECT_TRUE(query.matches(item));
    EXPECT_EQ(item.m_asked, 5001u);
}

TEST(QueryBoundsTest, TheWorstTextsAreReadInTimeThatGrowsWithTheirLength)
{
    // A parser that tries another way after each failure would never finish these.
    for (const std::string& text :
         {repeated(99, "(") + "local = )", repeated(50, "not (") + "x",
          "fstype = \"" + std::string(60000, '\\'), "size > " + std::string(60000, '1') + "x",
          std::string(60000, 'a') + " = !", repeated(5000, "a or b and ")})
        EXPECT_NE(mistake(text), "");
    EXPECT_FALSE(matches("mount like \"" + repeated(20000, "*a") + "\""));
}

} // namespace
