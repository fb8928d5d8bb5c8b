// Reading single values from small documents.

#include "XMLHelper.h"

#include <gtest/gtest.h>

#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::Lines;
using QmTest::LogCapture;

struct XMLHelperTest : testing::Test
{
    int parse(const std::string& text)
    {
        astringstream buffer(text);
        return XMLHelper().parse(buffer, service, host, priority, type);
    }
    TlxString service{"s"};
    TlxString host{"h"};
    unsigned int priority = 99;
    AuthorityType type = AT_EXTSRC;
};

TEST_F(XMLHelperTest, ReadsTheFourValues)
{
    EXPECT_EQ(parse("<D><OriginType>2</OriginType><Priority>4000000000</Priority>"
                    "<SourceHost>cl &amp; 5</SourceHost><ServiceName>é</ServiceName></D>"),
              0);
    EXPECT_EQ(service, TlxString("é"));
    EXPECT_EQ(host, TlxString("cl & 5"));
    EXPECT_EQ(priority, 4000000000u);
    EXPECT_EQ(type, AT_QMKCLIENT);
}

TEST_F(XMLHelperTest, WithoutSourceHostOnlyTheServiceNameIsFilled)
{
    EXPECT_EQ(parse("<D><ServiceName>DS</ServiceName><Priority>1</Priority>"
                    "<OriginType>1</OriginType></D>"),
              -1);
    EXPECT_EQ(service, TlxString("DS"));
    EXPECT_EQ(host, TlxString("h"));
    EXPECT_EQ(priority, 99u);
    EXPECT_EQ(type, AT_EXTSRC);
}

TEST_F(XMLHelperTest, StopsAtTheFirstFailure)
{
    EXPECT_EQ(parse("<D><ServiceName>DS</ServiceName><SourceHost>x</SourceHost>"
                    "<Priority>no number</Priority><OriginType>1</OriginType></D>"),
              -1);
    EXPECT_EQ(host, TlxString("x"));
    EXPECT_EQ(priority, 99u);
    EXPECT_EQ(type, AT_EXTSRC);
}

TEST_F(XMLHelperTest, AnUnknownOriginTypeIsRefused)
{
    for (const char* origin : {"5", "-1", "x", ""}) {
        EXPECT_EQ(parse("<D><ServiceName>DS</ServiceName><SourceHost>x</SourceHost>"
                        "<Priority>1</Priority><OriginType>" +
                        std::string(origin) + "</OriginType></D>"),
                  -1);
        EXPECT_EQ(type, AT_EXTSRC);
    }
}

TEST_F(XMLHelperTest, AnEmptyBufferFailsAndIsLogged)
{
    const LogCapture log;
    EXPECT_EQ(parse(""), -1);
    EXPECT_EQ(log.texts(1), Lines{"Failed to parse buffer: "});
    EXPECT_EQ(log.lines()[0].operation, "XMLHelper::parse");
    EXPECT_EQ(log.lines()[0].source, "../XMLHelper");
}

TEST_F(XMLHelperTest, AMalformedTextIsLoggedWhole)
{
    const LogCapture log;
    EXPECT_EQ(parse("<D><ServiceName>"), -1);
    std::string text = "no document";
    EXPECT_EQ(XMLHelper().parse(text, priority), -1);
    EXPECT_EQ(log.texts(1), (Lines{"Failed to parse buffer: <D><ServiceName>",
                                   "Failed to parse buffer: no document"}));
    EXPECT_EQ(service, TlxString("s"));
    EXPECT_EQ(priority, 99u);
}

TEST_F(XMLHelperTest, ReadsThePriorityOfARecord)
{
    std::string text = "<DiscoveryData><A><Priority>7</Priority></A></DiscoveryData>";
    EXPECT_EQ(XMLHelper().parse(text, priority), 0);
    EXPECT_EQ(priority, 7u);
}

TEST_F(XMLHelperTest, AMissingPriorityIsAnsweredAndNotLogged)
{
    const LogCapture log;
    std::string text = "<DiscoveryData/>";
    EXPECT_EQ(XMLHelper().parse(text, priority), -1);
    EXPECT_EQ(priority, 99u);
    EXPECT_EQ(log.texts(1), Lines{});
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
