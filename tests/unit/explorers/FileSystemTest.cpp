// A file system in an item: how it is written, read back and filtered.

#include "FileSystem.h"

#include <gtest/gtest.h>

#include <sstream>

#include "libdiscsrv/ItemsFixture.h"
#include "libdiscsrv/ServiceFixture.h"
#include "support/Capture.h"

namespace Veltrane::Quillmark::Explorers {
namespace {

using namespace Tlx;
using namespace Tlx::DiscoverySvc;

using QmTest::Lines;
using QmTest::LogCapture;
using QmTest::readItems;

FileSystem home()
{
    return {.mount = "/home",
            .device = "/dev/sda2",
            .type = "ext4",
            .options = "rw,relatime",
            .readOnly = false,
            .size = std::uint64_t{20} << 30,
            .used = std::uint64_t{19} << 30};
}

FileSystem share()
{
    return {
        .mount = "/mnt/s", .device = "srv:/e", .type = "nfs4", .options = "ro", .readOnly = true};
}

bool matches(const FileSystem& fileSystem, const std::string& text)
{
    TlxQuery query;
    EXPECT_TRUE(query.setQuery(text)) << query.mistake().toText();
    return query.matches(FileSystemSource("client1", fileSystem));
}

TEST(FileSystemSourceTest, EveryFieldCanBeAskedAbout)
{
    EXPECT_TRUE(matches(home(), "host = client1 and mount = /home and device = /dev/sda2"));
    EXPECT_TRUE(matches(home(), "type = ext4 and fstype = ext4 and options like *relatime*"));
    EXPECT_TRUE(matches(home(), "size = 20G and used = 19G and full = 95% and not readonly"));
    EXPECT_TRUE(matches(home(), "fstype = \"ext4\" and size > 10G and not readonly"));
    EXPECT_TRUE(matches(home(), "ReadOnly = false"));
    EXPECT_TRUE(matches(share(), "ReadOnly and Type = nfs4"));
    EXPECT_FALSE(matches(home(), "host = other"));
    EXPECT_FALSE(matches(home(), "colour = red"));
}

TEST(FileSystemSourceTest, UnknownSizesAreMissing)
{
    EXPECT_FALSE(matches(share(), "size >= 0 or size < 0 or size != 0"));
    EXPECT_FALSE(matches(share(), "used >= 0"));
    EXPECT_FALSE(matches(share(), "full >= 0"));
    EXPECT_TRUE(matches(share(), "not size > 10G"));
}

TEST(FileSystemSourceTest, PercentAreWholeAndRoundedDown)
{
    const auto full = [](std::uint64_t used, std::uint64_t size, const std::string& percent) {
        FileSystem fileSystem;
        fileSystem.size = size;
        fileSystem.used = used;
        return matches(fileSystem, "full = " + percent);
    };
    EXPECT_TRUE(full(0, 1, "0%"));
    EXPECT_TRUE(full(1, 3, "33%"));
    EXPECT_TRUE(full(999, 1000, "99%"));
    EXPECT_TRUE(full(UINT64_MAX, UINT64_MAX, "100%"));
    EXPECT_TRUE(full(3, 2, "150"));
    EXPECT_TRUE(full(UINT64_MAX, 1, "18446744073709551615"));
    EXPECT_FALSE(full(0, 0, "0"));
    EXPECT_FALSE(full(5, 0, "0"));
}

TEST(FileSystemSourceTest, EachFieldIsDescribed)
{
    TlxQuery query;
    FileSystemSource::describe(query);
    Lines told;
    for (const QueryField& field : query.fields()) {
        told.push_back(field.name.utf8() + " " + toText(field.type));
        EXPECT_FALSE(field.description.empty()) << field.name;
        const QueryValue value = FileSystemSource("client1", home()).valueOf(field.name.utf8());
        EXPECT_EQ(value.kind(), field.type == QF_TEXT   ? QueryValue::QV_TEXT
                                : field.type == QF_FLAG ? QueryValue::QV_FLAG
                                                        : QueryValue::QV_NUMBER)
            << field.name;
    }
    EXPECT_EQ(told,
              (Lines{"host text", "mount text", "device text", "fstype text", "type text",
                     "options text", "size bytes", "used bytes", "full number", "readonly flag"}));
}

// A file system in an item.

std::string document(const std::string& item)
{
    return "<DiscoveredItems>" + item + "</DiscoveredItems>";
}

std::string block(const FileSystem& fileSystem)
{
    std::ostringstream out;
    writeFileSystem(out, fileSystem, XmlStr::XE_UTF8);
    return out.str();
}

class FileSystemItemTest : public testing::Test
{
  protected:
    /// The file system of the only item, null if it has none.
    std::optional<FileSystem> read(const std::string& item)
    {
        const auto items = readItems(document(item));
        const DiscoveredItem* const discovered = items.discovered(0);
        EXPECT_NE(discovered, nullptr);
        return discovered ? readFileSystem(*discovered) : std::nullopt;
    }
    QmTest::Service m_service;
};

TEST_F(FileSystemItemTest, AnItemReadsBackAsItWasWritten)
{
    FileSystem odd = home();
    odd.device = "/dev/<1> & \"2\"";
    odd.options = "rw,\n\xC3\xA9";
    odd.size = UINT64_MAX;
    for (const FileSystem& fileSystem : {home(), share(), odd}) {
        const auto back = read("<DISCOVERED Name='/home'><ExplorerData Name='FileSystems'>" +
                               block(fileSystem) + "</ExplorerData></DISCOVERED>");
        ASSERT_TRUE(back);
        EXPECT_EQ(back->mount, "/home");
        EXPECT_EQ(block(*back), block(fileSystem));
    }
}

TEST_F(FileSystemItemTest, WhatItDoesNotKnowIsSkipped)
{
    const auto back =
        read("<DISCOVERED Name='/x'><ExplorerData Name='FileSystems'><Device>d</Device>"
             "<New><Device>x</Device></New><Size>many</Size><Used>5<b>6</b></Used><Type>t</Type>"
             "</ExplorerData></DISCOVERED>");
    ASSERT_TRUE(back);
    EXPECT_EQ(back->device, "d");
    EXPECT_EQ(back->type, "t");
    EXPECT_FALSE(back->size);
    EXPECT_EQ(back->used, 5u);
}

TEST_F(FileSystemItemTest, AnItemOfAnotherKindHasNoFileSystem)
{
    EXPECT_FALSE(read("<DISCOVERED Name='/x'/>"));
    EXPECT_FALSE(read("<DISCOVERED Name='/x'><ExplorerData Name='Other'>" + block(home()) +
                      "</ExplorerData></DISCOVERED>"));
    EXPECT_FALSE(read("<DISCOVERED Name='/x'><ExplorerData Name='FileSystems'><Device>d</Device>"
                      "</ExplorerData></DISCOVERED>"));
}

/// Data of a plug-in that fails to write itself.
class ThrowingData : public virtual ExplorerData
{
  public:
    std::ostream& writeXml(std::ostream&, XmlStr::Encoding) const override
    {
        throw std::runtime_error("not today");
    }
};

class ThrowingParser : public virtual ExplorerDataParser
{
  public:
    void xmlStartElement(XmlObjParseContext*, const XMLCh*, AttributeList&) override {}
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override
    {
        return context->isEndTag(name) ? XML_COMPLETE : XML_INSIDE;
    }
    std::ostream& writeXml(std::ostream& out, XmlStr::Encoding) const override { return out; }
    XmlObjParseContext* getParseContext(const TlxString&, const XMLCh* name,
                                        const XmlObjParseContext* parent) override
    {
        return new XmlObjParseContext(name, parent);
    }
    ExplorerData* getExplorerData(XmlObjParseContext*) override { return new ThrowingData; }
    const char* getExplorerParserName() const override { return FILE_SYSTEMS_EXPLORER; }
};

TEST_F(FileSystemItemTest, DataThatThrowsYieldsNoFileSystemAndALogLine)
{
    const AutoDereference<ExplorerDataParser> parser(new ThrowingParser);
    getDiscoveryRepository()->registerExplorerParser(FILE_SYSTEMS_EXPLORER, parser.get());
    const LogCapture log;
    EXPECT_FALSE(read("<DISCOVERED Name='/x'><ExplorerData Name='FileSystems'>" + block(home()) +
                      "</ExplorerData></DISCOVERED>"));
    EXPECT_TRUE(log.has(1, "the explorer data of FileSystems failed: not today"));
}

} // namespace
} // namespace Veltrane::Quillmark::Explorers
