// The filter descriptions of all hosts, merged.

#include "FilterDescription.h"

#include <gtest/gtest.h>

#include "ItemsFixture.h"
#include "ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
namespace {

using QmTest::AssertionCapture;
using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::Service;

std::string filterData(const std::vector<std::vector<QueryField>>& descriptions)
{
    std::ostringstream out;
    out << "<FilterData>";
    for (const auto& fields : descriptions) {
        const AutoDereference<TlxQuery> query(new TlxQuery(0));
        for (const QueryField& field : fields)
            EXPECT_TRUE(query->addField(field));
        query->writeXml(out, XmlStr::XE_UTF8);
    }
    out << "</FilterData>";
    return out.str();
}

class FilterDescriptionTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        if (!QmTest::mayOpenRecords())
            GTEST_SKIP() << "records are created with permissions 0: needs root";
    }
    Service m_service;
};

TEST_F(FilterDescriptionTest, WhenNoFilterDataExistsItIsAnEmptyQuery)
{
    const LogCapture log(LOG_LEVEL_FAILURE);
    const FilterDescription description("*", "filesystem");
    EXPECT_TRUE(description.isEmpty());
    EXPECT_EQ(description.fields(), std::vector<QueryField>());
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(FilterDescriptionTest, TheDescriptionsOfAllClientsAreMerged)
{
    Service::put("filesystem", "unix1",
                 filterData({{{"size", QF_BYTES}}, {{"mount", QF_TEXT, "where"}}}));
    Service::put("filesystem", "unix2", filterData({{{"Size", QF_NUMBER}, {"zoned", QF_FLAG}}}));
    const FilterDescription description("*", "filesystem");
    ASSERT_EQ(description.fields().size(), 3u);
    ASSERT_NE(description.field("size"), nullptr);
    EXPECT_EQ(description.field("size")->type, QF_NUMBER);
    ASSERT_NE(description.field("mount"), nullptr);
    EXPECT_EQ(description.field("mount")->description, TlxString("where"));
    EXPECT_NE(description.field("zoned"), nullptr);
    EXPECT_EQ(description.query(), TlxString());
}

TEST_F(FilterDescriptionTest, TheFirstNameIsTheAuthorityTheSecondTheSubject)
{
    Service::put("filesystem", "unix1", filterData({{{"a"}}}));
    Service::put("filesystem", "unix2", filterData({{{"b"}}}));
    Service::put("volume", "unix1", filterData({{{"c"}}}));
    Service::put("unix1", "filesystem", filterData({{{"d"}}}));
    EXPECT_EQ(FilterDescription("unix1", "filesystem").fields(), std::vector<QueryField>{{"a"}});
    EXPECT_EQ(FilterDescription("unix1", "volume").fields(), std::vector<QueryField>{{"c"}});
    EXPECT_EQ(FilterDescription("unix1", "").fields().size(), 2u);
    EXPECT_EQ(FilterDescription("", "filesystem").fields().size(), 2u);
}

TEST_F(FilterDescriptionTest, OtherDataIsLeftOut)
{
    Service::put("filesystem", "unix1", "no XML");
    Service::put("filesystem", "unix2",
                 "<DiscoveredItems><DISCOVERED Name='a'/></DiscoveredItems>");
    Service::put("filesystem", "unix3",
                 "<FilterData><QueryDescription><Field Name='a'/></QueryDescription>"
                 "<QueryDescription><Query>=</Query><Field Name='b'/></QueryDescription>"
                 "<QueryDescription><Field Name='c'/>");
    EXPECT_EQ(FilterDescription("*", "filesystem").fields(), std::vector<QueryField>{{"a"}});
}

TEST_F(FilterDescriptionTest, WhatAnExpressionInADescriptionAsksIsNotTaken)
{
    Service::put("filesystem", "unix1",
                 "<FilterData><QueryDescription><Query>a = 1</Query><Field Name='a'/>"
                 "</QueryDescription></FilterData>");
    const FilterDescription description("*", "filesystem");
    EXPECT_EQ(description.query(), TlxString());
    EXPECT_EQ(description.fields(), std::vector<QueryField>{{"a"}});
}

TEST_F(FilterDescriptionTest, ItIsWrittenAsAQueryIs)
{
    Service::put("filesystem", "unix1", filterData({{{"a", QF_FLAG}}}));
    std::ostringstream out;
    FilterDescription("*", "filesystem").writeXml(out, XmlStr::XE_UTF8);
    EXPECT_EQ(out.str(), "<QueryDescription><Field Name=\"a\" Type=\"flag\"></Field>"
                         "</QueryDescription>");
}

TEST(FilterDescriptionAloneTest, WithoutAnAnswerItIsAnEmptyQuery)
{
    HostConfig::instance().readText("", "qm.conf");
    const AssertionCapture assertions; // there is no framework
    const LogCapture log;
    EXPECT_TRUE(FilterDescription("*", "filesystem").isEmpty());
    EXPECT_EQ(log.texts(1), Lines{"Failed to get a handle to discoveries"});
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
