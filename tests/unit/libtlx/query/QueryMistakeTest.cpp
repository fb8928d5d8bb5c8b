// Texts that are not queries, and the messages about them.

#include <tlx/Query.h>

#include <string>

#include <gtest/gtest.h>

#include "QueryItem.h"
#include "support/Text.h"

using namespace Veltrane::Quillmark::Tlx;
using QmTest::mistake;
using QmTest::repeated;

namespace {

TEST(QueryMistakeTest, AnOperandIsMissing)
{
    EXPECT_EQ(mistake("local and"),
              "column 10: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("local or  "),
              "column 11: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("not"),
              "column 4: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("("),
              "column 2: expected a field name, \"not\" or \"(\", found the end of the text");
    EXPECT_EQ(mistake("()"), "column 2: expected a field name, \"not\" or \"(\", found \")\"");
    EXPECT_EQ(mistake(")"), "column 1: expected a field name, \"not\" or \"(\", found \")\"");
    EXPECT_EQ(mistake("and local"),
              "column 1: expected a field name, \"not\" or \"(\", found \"and\"");
    EXPECT_EQ(mistake("local and or local"),
              "column 11: expected a field name, \"not\" or \"(\", found \"or\"");
    EXPECT_EQ(mistake("= 5"), "column 1: expected a field name, \"not\" or \"(\", found \"=\"");
    EXPECT_EQ(mistake("10 < size"),
              "column 1: expected a field name, \"not\" or \"(\", found \"10\"");
    EXPECT_EQ(mistake("\"size\" > 10"),
              "column 1: expected a field name, \"not\" or \"(\", found a quotation mark");
    EXPECT_EQ(mistake("!local"), "column 1: expected a field name, \"not\" or \"(\", found \"!\"");
    EXPECT_EQ(mistake("true"), "column 1: expected a field name, \"not\" or \"(\", found \"true\"");
    EXPECT_EQ(mistake("like x"),
              "column 1: expected a field name, \"not\" or \"(\", found \"like\"");
    EXPECT_EQ(mistake("\xC3\xA9t\xC3\xA9 = 5"),
              "column 1: expected a field name, \"not\" or \"(\", found \"\xC3\xA9t\xC3\xA9\"");
}

TEST(QueryMistakeTest, AValueIsMissing)
{
    EXPECT_EQ(mistake("size >"), "column 7: expected a value, found the end of the text");
    EXPECT_EQ(mistake("size > and local"), "column 8: expected a value, found \"and\"");
    EXPECT_EQ(mistake("size = NOT"), "column 8: expected a value, found \"NOT\"");
    EXPECT_EQ(mistake("fstype = like"), "column 10: expected a value, found \"like\"");
    EXPECT_EQ(mistake("(size >)"), "column 8: expected a value, found \")\"");
    EXPECT_EQ(mistake("size == 5"), "column 7: expected a value, found \"=\"");
    EXPECT_EQ(mistake("size <> 5"), "column 7: expected a value, found \">\"");
    EXPECT_EQ(mistake("size = (5)"), "column 8: expected a value, found \"(\"");
}

TEST(QueryMistakeTest, APatternIsMissing)
{
    EXPECT_EQ(mistake("mount like"), "column 11: expected a pattern, found the end of the text");
    EXPECT_EQ(mistake("mount like or"), "column 12: expected a pattern, found \"or\"");
    EXPECT_EQ(mistake("mount like = x"), "column 12: expected a pattern, found \"=\"");
}

TEST(QueryMistakeTest, SomethingStandsWhereTheExpressionShouldGoOn)
{
    EXPECT_EQ(mistake("size 10"), "column 6: expected a comparison, \"and\", \"or\" or the end of "
                                  "the text, found \"10\"");
    EXPECT_EQ(mistake("size ! 10"), "column 6: expected a comparison, \"and\", \"or\" or the end "
                                    "of the text, found \"!\"");
    EXPECT_EQ(mistake("size > 10 G"),
              "column 11: expected \"and\", \"or\" or the end of the text, found \"G\"");
    EXPECT_EQ(mistake("fstype = ext4 local"),
              "column 15: expected \"and\", \"or\" or the end of the text, found \"local\"");
    EXPECT_EQ(mistake("fstype = \"a\"\"b\""),
              "column 13: expected \"and\", \"or\" or the end of the text, found a quotation mark");
    EXPECT_EQ(mistake("(local) 5"),
              "column 9: expected \"and\", \"or\" or the end of the text, found \"5\"");
    EXPECT_EQ(mistake("local)"), "column 6: expected a comparison, \"and\", \"or\" or the end of "
                                 "the text, found \")\"");
    EXPECT_EQ(mistake("local && local"), "column 7: expected a comparison, \"and\", \"or\" or the "
                                         "end of the text, found \"&&\"");
    EXPECT_EQ(mistake("size > 1 < 5"),
              "column 10: expected \"and\", \"or\" or the end of the text, found \"<\"");
}

TEST(QueryMistakeTest, AParenthesisIsNotClosed)
{
    EXPECT_EQ(mistake("(size > 5"),
              "column 10: expected \"and\", \"or\" or \")\", found the end of the text");
    EXPECT_EQ(mistake("(local"),
              "column 7: expected a comparison, \"and\", \"or\" or \")\", found the end of the "
              "text");
    EXPECT_EQ(mistake("(size > 5 local)"),
              "column 11: expected \"and\", \"or\" or \")\", found \"local\"");
    EXPECT_EQ(mistake("((local)"),
              "column 9: expected \"and\", \"or\" or \")\", found the end of the text");
}

TEST(QueryMistakeTest, AQuotationMarkIsNotClosed)
{
    EXPECT_EQ(mistake("fstype = \"ext4"),
              "column 15: expected the quotation mark that closes the one in column 10, found the "
              "end of the text");
    EXPECT_EQ(mistake("fstype = 'ext4\""),
              "column 16: expected the quotation mark that closes the one in column 10, found the "
              "end of the text");
    EXPECT_EQ(mistake("mount like \"\xC3\xA9\xC3\xA9\\\""),
              "column 17: expected the quotation mark that closes the one in column 12, found the "
              "end of the text");
}

TEST(QueryMistakeTest, AnEscapeIsUnknown)
{
    EXPECT_EQ(mistake("fstype = \"a\\x\""),
              "column 13: expected one of \" ' \\ n r t after \"\\\", found \"x\"");
    EXPECT_EQ(mistake("fstype = \"a\\"),
              "column 13: expected one of \" ' \\ n r t after \"\\\", found the end of the text");
}

TEST(QueryMistakeTest, ControlCharactersAreShownAsNumbers)
{
    const std::string expected = "column 12: expected one of \" ' \\ n r t after \"\\\", found ";
    EXPECT_EQ(mistake("fstype = \"\\\n\""), expected + "a line break");
    EXPECT_EQ(mistake("fstype = \"\\\r\""), expected + "a line break");
    EXPECT_EQ(mistake("fstype = \"\\\t\""), expected + "a blank");
    EXPECT_EQ(mistake("fstype = \"\\ \""), expected + "a blank");
}

TEST(QueryMistakeTest, MalformedNumbersAreRefused)
{
    const std::string expected = "expected a number, as 10, 1.5G or 90% (a text that begins so "
                                 "stands in quotation marks), found ";
    EXPECT_EQ(mistake("size > 10X"), "column 8: " + expected + "\"10X\"");
    EXPECT_EQ(mistake("size > 10GB"), "column 8: " + expected + "\"10GB\"");
    EXPECT_EQ(mistake("size > 1,5"), "column 8: " + expected + "\"1,5\"");
    EXPECT_EQ(mistake("size > 1."), "column 8: " + expected + "\"1.\"");
    EXPECT_EQ(mistake("size > .5"), "column 8: " + expected + "\".5\"");
    EXPECT_EQ(mistake("size > -.5"), "column 8: " + expected + "\"-.5\"");
    EXPECT_EQ(mistake("size > 1.2.3"), "column 8: " + expected + "\"1.2.3\"");
    EXPECT_EQ(mistake("size > +5"), "column 8: " + expected + "\"+5\"");
    EXPECT_EQ(mistake("size > 1e5"), "column 8: " + expected + "\"1e5\"");
    EXPECT_EQ(mistake("size > 0x10"), "column 8: " + expected + "\"0x10\"");
    EXPECT_EQ(mistake("host = 10.0.0.1"), "column 8: " + expected + "\"10.0.0.1\"");
    EXPECT_EQ(mistake("size > " + repeated(6000, "9")),
              "column 8: " + expected + "\"" + repeated(32, "9") + "...\"");
}

TEST(QueryMistakeTest, OnlyTheBeginningOfALongWordIsShown)
{
    EXPECT_EQ(mistake("local " + repeated(33, "\xC3\xA9")),
              "column 7: expected a comparison, \"and\", \"or\" or the end of the text, found \"" +
                  repeated(32, "\xC3\xA9") + "...\"");
    EXPECT_EQ(mistake("local " + repeated(32, "\xC3\xA9")),
              "column 7: expected a comparison, \"and\", \"or\" or the end of the text, found \"" +
                  repeated(32, "\xC3\xA9") + "\"");
}

TEST(QueryMistakeTest, ColumnsCountCharacters)
{
    EXPECT_EQ(mistake("mount = \"\xE6\x97\xA5\xC3\xA9\" 5"),
              "column 14: expected \"and\", \"or\" or the end of the text, found \"5\"");
    EXPECT_EQ(mistake("local\nand\n)"),
              "column 11: expected a field name, \"not\" or \"(\", found \")\"");
}

TEST(QueryMistakeTest, CharactersThatXmlForbidsAreRefused)
{
    EXPECT_EQ(mistake("fstype = \"a\x01\""),
              "column 12: expected text, found the character U+0001");
    EXPECT_EQ(mistake(std::string("local\0", 6)),
              "column 6: expected text, found the character U+0000");
    EXPECT_EQ(mistake("fstype = \"\xC3\xA9\xFF\""),
              "column 12: expected UTF-8, found the byte 0xFF");
    EXPECT_EQ(mistake("fstype = \xC3"), "column 10: expected UTF-8, found the byte 0xC3");
    EXPECT_EQ(mistake("fstype = \"\xEF\xBF\xBE\""),
              "column 11: expected text, found the character U+FFFE");
}

TEST(QueryMistakeTest, AMistakeIsOneLine)
{
    for (const char* text :
         {"local \n\n and \r )", "size > \"a\nb", "size >\n10\t20", "size = \"\\\n\""})
        EXPECT_EQ(mistake(text).find_first_of("\r\n\t"), std::string::npos) << text;
}

} // namespace
