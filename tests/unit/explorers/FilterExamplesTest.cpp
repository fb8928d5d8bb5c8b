// Reads and writes the documented examples of filters.

#include <sstream>

#include <gtest/gtest.h>

#include <DiscoveredItems.h>
#include <FilterParameters.h>

#include "FileSystemDocument.h"
#include "FileSystemExplorers.h"
#include "support/Capture.h"
#include "support/Documentation.h"

namespace Veltrane::Quillmark::Explorers {
namespace {

using namespace Tlx::DiscoverySvc;
using Tlx::TlxQuery;
using Tlx::TlxString;
using Tlx::XmlObjParseContext;

/// Reads the first query description of a document.
struct Description : Tlx::XmlDocumentInterface
{
    Description() : XmlDocumentInterface(nullptr, "Document") {}
    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         Tlx::AttributeList& attributes) override
    {
        if (inner)
            return query->xmlStartElement(inner.get(), name, attributes);
        if (!XmlObjParseContext::isTag(name, TlxQuery::QUERY_DESCRIPTION_TAG))
            return;
        TlxQuery* made = nullptr;
        inner.reset(xmlCreateObject(name, attributes, context, made));
        query.reset(made);
    }
    void xmlCharacters(XmlObjParseContext*, const XMLCh* chars, unsigned long length) override
    {
        if (inner && !done)
            query->xmlCharacters(inner.get(), chars, length);
    }
    int xmlEndElement(XmlObjParseContext*, const XMLCh* name) override
    {
        if (done)
            return Tlx::XML_COMPLETE;
        const int result = query->xmlEndElement(inner.get(), name);
        done = result == Tlx::XML_COMPLETE;
        return result;
    }
    std::unique_ptr<XmlObjParseContext> inner;
    Tlx::AutoDereference<TlxQuery> query;
    bool done = false;
};

template <class Document>
std::string written(const Document& document)
{
    std::ostringstream out;
    document.writeXml(out, Tlx::XmlStr::XE_UTF8);
    return out.str();
}

std::string theExample(const std::string& section)
{
    const auto blocks = QmTest::codeOf(section);
    EXPECT_EQ(blocks.size(), 1u) << section;
    return blocks.empty() ? std::string() : blocks[0];
}

/// The texts of the innermost elements, by their names.
std::vector<std::pair<TlxString, TlxString>> textsOf(const std::string& document)
{
    struct Reader : Tlx::XmlDocumentInterface
    {
        Reader() : XmlDocumentInterface(nullptr, "Document") {}
        void xmlStartElement(XmlObjParseContext* context, const XMLCh*,
                             Tlx::AttributeList&) override
        {
            context->clearText();
        }
        int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override
        {
            if (const TlxString text = context->text(); text != TlxString())
                texts.emplace_back(TlxString::fromXmlCh(name), text);
            context->clearText();
            return Tlx::XML_INSIDE;
        }
        std::vector<std::pair<TlxString, TlxString>> texts;
    } reader;
    EXPECT_TRUE(reader.parseBuffer(document));
    return reader.texts;
}

struct FilterExamplesTest : testing::Test
{
    ~FilterExamplesTest() override { EXPECT_EQ(log.texts(1), std::vector<std::string>()); }
    QmTest::LogCapture log;
};

TEST_F(FilterExamplesTest, FilterParameters)
{
    const std::string example = theExample("Filter parameters");
    const FilterParameters parameters(example.c_str());
    EXPECT_EQ(parameters.queryString(),
              TlxString("fstype = \"ext4\" and size > 10G and not readonly"));
    ASSERT_NE(parameters.job(), nullptr);
    EXPECT_EQ(parameters.job()->arguments(),
              (std::vector<std::string>{"backup", "--level", "full now"}));
    EXPECT_EQ(written(parameters), QmTest::onOneLine(example));
    TlxQuery query;
    EXPECT_TRUE(parameters.setQuery(query));
}

TEST_F(FilterExamplesTest, QueriesAndTheirDescriptions)
{
    const std::string example = theExample("Queries and their descriptions");
    Description description;
    ASSERT_TRUE(description.parseBuffer(example));
    ASSERT_TRUE(description.done);
    EXPECT_EQ(description.query->query(), TlxString("size > 10G"));
    EXPECT_EQ(description.query->fields(),
              (std::vector<Tlx::QueryField>{
                  {"fstype", Tlx::QF_TEXT, "the type of the file system", {"ext4", "xfs"}},
                  {"size", Tlx::QF_BYTES, "how much it can hold", {}},
                  {"readonly", Tlx::QF_FLAG, "", {}}}));
    EXPECT_EQ(written(*description.query), QmTest::onOneLine(example));
}

TEST_F(FilterExamplesTest, TheDescriptionOfTheFilterFields)
{
    const std::string example = QmTest::onOneLine(theExample("What can be filtered by"));
    std::ostringstream out;
    writeFilterDocument(out);
    EXPECT_EQ(out.str(), example);
    Description description;
    ASSERT_TRUE(description.parseBuffer(example));
    ASSERT_TRUE(description.done);
    TlxQuery told;
    FileSystemSource::describe(told);
    EXPECT_EQ(*description.query, told);
}

TEST_F(FilterExamplesTest, TheCollectionOfTheDefaultExplorers)
{
    const std::string example =
        QmTest::onOneLine(theExample("The collection of the default explorers"));
    FileSystem fileSystem{"/", "/dev/sda1", "ext4", "rw,relatime", false, 4096, 0};
    const Tlx::AutoDereference<FileSystemPush> explorer(new FileSystemPush);
    std::ostringstream out;
    writeDocument(out, *explorer, {fileSystem});
    EXPECT_EQ(out.str(), example);

    FileSystem read;
    for (const auto& [tag, text] : textsOf(example))
        takeFileSystemElement(read, tag.toXmlCh().c_str(), text);
    EXPECT_EQ(read.device, fileSystem.device);
    EXPECT_EQ(read.type, fileSystem.type);
    EXPECT_EQ(read.options, fileSystem.options);
    EXPECT_EQ(read.size, fileSystem.size);
    EXPECT_EQ(read.used, fileSystem.used);
}

} // namespace
} // namespace Veltrane::Quillmark::Explorers
