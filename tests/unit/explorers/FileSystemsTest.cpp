// The mount table, the document made of it, and the document's blocks read back.

#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include <gtest/gtest.h>

#include <FilterParameters.h>
#include <tlx/HostConfig.h>

#include "FileSystemData.h"
#include "FileSystemDocument.h"
#include "FileSystemExplorers.h"
#include "support/Capture.h"
#include "support/TemporaryDirectory.h"

namespace Veltrane::Quillmark::Explorers {
namespace {

using namespace Tlx::DiscoverySvc;

struct MountTableTest : testing::Test
{
    /// Reads a table and returns its mount points without the excluded ones.
    std::vector<std::string> mounts(const std::string& table, const std::string& excluded)
    {
        const std::string file = directory.path("mountinfo");
        QmTest::writeFile(file, table);
        const auto result = readMountTable(file, Exclusion(excluded));
        EXPECT_TRUE(result) << result.error();
        read = result.value_or(std::vector<FileSystem>());
        std::vector<std::string> places;
        for (const FileSystem& each : read)
            places.push_back(each.mount);
        return places;
    }

    const QmTest::TemporaryDirectory directory;
    std::vector<FileSystem> read;
};

constexpr const char* TABLE = "21 1 8:1 / / rw,relatime - ext4 /dev/sda1 rw,errors=remount-ro\n"
                              "22 21 0:4 / /proc rw,nosuid - proc proc rw\n"
                              "23 21 0:30 / /run rw,nosuid - tmpfs tmpfs rw,size=1k\n"
                              "24 21 8:2 / /mnt/a\\040b ro,noatime - xfs /dev/sda2 ro\n"
                              "25 21 0:50 / /mnt/server rw - nfs4 server:/export rw,vers=4.2\n"
                              "26 21 0:60 / /var/lib/c rw - overlay overlay rw,lowerdir=/a\n";

TEST_F(MountTableTest, PseudoFileSystemsAreLeftOut)
{
    EXPECT_EQ(mounts(TABLE, "pseudo"),
              (std::vector<std::string>{"/", "/mnt/a b", "/mnt/server", "/var/lib/c"}));
}

TEST_F(MountTableTest, TheExclusionIsAList)
{
    EXPECT_EQ(mounts(TABLE, "none").size(), 6u);
    EXPECT_EQ(mounts(TABLE, " pseudo , nfs4,xfs ,").size(), 2u);
    EXPECT_EQ(mounts(TABLE, "tmpfs"),
              (std::vector<std::string>{"/", "/proc", "/mnt/a b", "/mnt/server", "/var/lib/c"}));
}

TEST_F(MountTableTest, AFileSystemHasTheValuesOfTheTable)
{
    mounts(TABLE, "pseudo");
    EXPECT_EQ(read[0].device, "/dev/sda1");
    EXPECT_EQ(read[0].type, "ext4");
    EXPECT_EQ(read[0].options, "rw,relatime,errors=remount-ro");
    EXPECT_FALSE(read[0].readOnly);
    EXPECT_GT(read[0].size.value_or(0), read[0].used.value_or(0));
    EXPECT_TRUE(read[1].readOnly);
    EXPECT_FALSE(read[1].size) << "there is no such place here";
    EXPECT_FALSE(read[2].size) << "its server may be gone, so it is not asked";
}

TEST_F(MountTableTest, OfSeveralOnOnePlaceTheLastOneCounts)
{
    mounts("21 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
           "22 21 8:2 / /mnt rw - xfs /dev/sda2 rw\n"
           "23 22 8:3 / /mnt rw - ext4 /dev/sda3 rw\n",
           "pseudo");
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[1].device, "/dev/sda3");
}

TEST_F(MountTableTest, ATableThatCannotBeReadIsSaid)
{
    const auto result = readMountTable("/nowhere/mountinfo", Exclusion("pseudo"));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), "cannot read /nowhere/mountinfo: No such file or directory");
}

TEST_F(MountTableTest, TheKernelsTableIsRead)
{
    const auto result = readMountTable("/proc/self/mountinfo", Exclusion("none"));
    ASSERT_TRUE(result) << result.error();
    EXPECT_FALSE(result->empty());
}

TEST(FileSystemDocumentTest, HasAnItemForEach)
{
    const Tlx::AutoDereference<FileSystemPull> explorer(new FileSystemPull);
    FileSystem odd{.mount = "/mnt/\"a&b\"", .device = "<x>", .type = "ext4", .options = "rw"};
    odd.size = 4096;
    odd.used = 0;
    const FileSystem remote{.mount = "/s", .device = "s:/e", .type = "nfs4", .readOnly = true};
    std::ostringstream out;
    writeDocument(out, *explorer, {odd, remote});
    EXPECT_EQ(out.str(),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveredItems>"
              "<DISCOVERED Name=\"/mnt/&quot;a&amp;b&quot;\"><ExplorerData Name=\"FileSystems\">"
              "<Device>&lt;x&gt;</Device><Type>ext4</Type><Options>rw</Options><Size>4096</Size>"
              "<Used>0</Used><ReadOnly>0</ReadOnly></ExplorerData></DISCOVERED>"
              "<DISCOVERED Name=\"/s\"><ExplorerData Name=\"FileSystems\"><Device>s:/e</Device>"
              "<Type>nfs4</Type><Options></Options><ReadOnly>1</ReadOnly></ExplorerData>"
              "</DISCOVERED></DiscoveredItems>");
}

/// Hands the events inside an "ExplorerData" element to the parser.
struct Block : Tlx::XmlDocumentInterface
{
    Block() : XmlDocumentInterface(nullptr, "ExplorerData") {}
    Tlx::XmlObjParseContext* getObjParseContext(const XMLCh* name) override
    {
        return parser->getParseContext("FileSystems", name, nullptr);
    }
    void xmlCharacters(Tlx::XmlObjParseContext* context, const XMLCh* chars,
                       unsigned long length) override
    {
        parser->xmlCharacters(context, chars, length);
    }
    void xmlStartElement(Tlx::XmlObjParseContext* context, const XMLCh* name,
                         Tlx::AttributeList& attributes) override
    {
        if (depth++ > 0)
            parser->xmlStartElement(context, name, attributes);
    }
    int xmlEndElement(Tlx::XmlObjParseContext* context, const XMLCh* name) override
    {
        --depth;
        const int result = parser->xmlEndElement(context, name);
        if (result == Tlx::XML_COMPLETE)
            data.reset(parser->getExplorerData(context));
        return result;
    }
    const Tlx::AutoDereference<FileSystemParser> parser{new FileSystemParser};
    Tlx::AutoDereference<ExplorerData> data;
    int depth = 0;
};

TEST(FileSystemDataTest, ABlockReadsBackAsItWasWritten)
{
    FileSystem odd{.device = "/dev/<1>", .type = "ext4", .options = "rw,\n", .readOnly = true};
    odd.size = 18446744073709551615u;
    std::ostringstream inner;
    writeFileSystem(inner, odd, Tlx::XmlStr::XE_UTF8);
    Block block;
    ASSERT_TRUE(block.parseBuffer("<ExplorerData>" + inner.str() + "</ExplorerData>"));
    ASSERT_TRUE(block.data);
    EXPECT_TRUE(block.data->isParsed());
    std::ostringstream again;
    block.data->writeXml(again, Tlx::XmlStr::XE_UTF8);
    EXPECT_EQ(again.str(), inner.str());
}

TEST(FileSystemDataTest, WhatItDoesNotKnowIsSkipped)
{
    Block block;
    ASSERT_TRUE(block.parseBuffer("<ExplorerData><Device>d</Device><New><Device>x</Device></New>"
                                  "<Size>many</Size><Type>t</Type></ExplorerData>"));
    const auto* data = dynamic_cast<const FileSystemData*>(block.data.get());
    ASSERT_TRUE(data);
    EXPECT_EQ(data->fileSystem.device, "d");
    EXPECT_FALSE(data->fileSystem.size);
    EXPECT_TRUE(data->isParsed());
}

TEST(FileSystemDataTest, ABlockWithoutDeviceOrTypeIsNotParsed)
{
    Block block;
    ASSERT_TRUE(block.parseBuffer("<ExplorerData><Device>d</Device></ExplorerData>"));
    ASSERT_TRUE(block.data);
    EXPECT_FALSE(block.data->isParsed());
}

TEST(FileSystemDocumentTest, DescribesTheFieldsOfAFilter)
{
    std::ostringstream out;
    writeFilterDocument(out);
    EXPECT_TRUE(out.str().starts_with(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><FilterData><QueryDescription>"
        "<Field Name=\"host\" Type=\"text\"><Description>the host that has it</Description></Field>"
        "<Field Name=\"mount\" Type=\"text\">"))
        << out.str();
    EXPECT_TRUE(out.str().ends_with("</Field></QueryDescription></FilterData>")) << out.str();
}

TEST(FileSystemExplorersTest, WithoutARepositoryAPushFails)
{
    const Tlx::AutoDereference<ExplorerPush> explorers[] = {
        Tlx::AutoDereference<ExplorerPush>(new FileSystemPush),
        Tlx::AutoDereference<ExplorerPush>(new FileSystemFiltersPush)};
    for (const auto& explorer : explorers) {
        Tlx::AutoDereference<Tlx::TLXRefCounted> context;
        DiscoveryResult result{DS_SUCCESS, 0};
        EXPECT_FALSE(
            explorer->pushCollection(Authority("a", AT_EXTSRC), Subject("s"),
                                     CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                          Tlx::TlxObjTime(), Tlx::TlxObjTime(), 1),
                                     context, nullptr, result));
        EXPECT_EQ(result.discStatus, DS_OPEN_FAILED);
    }
    EXPECT_EQ(pullSubject("cl5"), "cl5/now");
}

/// Keeps the data that a pull writes.
struct Pulled : CollectionData
{
    bool open(OpenMode mode, const char* argument) override
    {
        EXPECT_EQ(mode, OM_UPDATE);
        EXPECT_STREQ(argument, "");
        opened = true;
        return true;
    }
    std::size_t readCollection(std::size_t, void*) const override { return 0; }
    bool writeCollection(std::size_t length, const void* buffer) const override
    {
        text.append(static_cast<const char*>(buffer), length);
        return true;
    }
    bool opened = false;
    mutable std::string text;
};

struct FileSystemPullTest : testing::Test
{
    FileSystemPullTest()
    {
        Tlx::HostConfig::instance().readText("FILESYSTEM_EXCLUDE = none\n", "qm.conf");
    }
    /// The names of the items that a pull with this text yields.
    std::vector<std::string> pull(const std::string& text)
    {
        const Tlx::AutoDereference<FileSystemPull> explorer(new FileSystemPull);
        Pulled data;
        Tlx::AutoDereference<Tlx::TLXRefCounted> context;
        answer = explorer->collectionRequested(DQ_DISCOVERY_DATA, Authority("cl5", AT_EXTSRC),
                                               Subject("cl5/now"), context, text.c_str(), &data);
        EXPECT_EQ(data.opened, answer);
        std::vector<std::string> names;
        const std::string start = "<DISCOVERED Name=\"";
        for (std::size_t at = 0; (at = data.text.find(start, at)) != std::string::npos;) {
            at += start.size();
            names.push_back(data.text.substr(at, data.text.find('"', at) - at));
        }
        return names;
    }
    std::vector<std::string> filtered(const std::string& query)
    {
        std::ostringstream out;
        FilterParameters(nullptr, query.c_str()).writeXml(out, Tlx::XmlStr::XE_UTF8);
        return pull(out.str());
    }
    bool answer = false;
    QmTest::LogCapture log;
};

TEST_F(FileSystemPullTest, AFilterLeavesWhatItAsksFor)
{
    const auto all = pull("");
    EXPECT_TRUE(answer);
    ASSERT_GT(all.size(), 1u);
    EXPECT_EQ(filtered("mount = \"/\""), std::vector<std::string>{"/"});
    EXPECT_TRUE(answer);
    EXPECT_EQ(filtered("mount != \"/\"").size(), all.size() - 1);
    EXPECT_EQ(filtered("host = cl5"), all);
    EXPECT_EQ(filtered("host = other"), std::vector<std::string>());
    EXPECT_TRUE(answer) << "nothing found is an answer";
    EXPECT_EQ(filtered("readonly").size() + filtered("not readonly").size(), all.size());
    EXPECT_EQ(log.texts(1), std::vector<std::string>());
}

TEST_F(FileSystemPullTest, AFilterThatCannotBeReadFailsThePullWithOneLine)
{
    EXPECT_EQ(filtered("mount = and"), std::vector<std::string>());
    EXPECT_FALSE(answer);
    EXPECT_EQ(log.texts(1), std::vector<std::string>{"The filter cannot be read: column 9: "
                                                     "expected a value, found \"and\""});
}

TEST_F(FileSystemPullTest, ATextThatIsNoFilterFailsThePull)
{
    EXPECT_EQ(pull("mount = /"), std::vector<std::string>());
    EXPECT_FALSE(answer);
    // The XML reader logs the first line, with the place.
    ASSERT_EQ(log.texts(1).size(), 2u);
    EXPECT_EQ(log.texts(1)[1], "The filter is no document of filter parameters with a query");
    log.clear();
    pull("<FilterParameters><JobExecInfo>backup</JobExecInfo></FilterParameters>");
    EXPECT_FALSE(answer);
    EXPECT_EQ(log.texts(1), std::vector<std::string>{
                                "The filter is no document of filter parameters with a query"});
}

} // namespace
} // namespace Veltrane::Quillmark::Explorers
