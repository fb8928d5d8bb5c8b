#include "FileSystem.h"

#include <limits>
#include <sstream>

#include <tlx/ForeignCode.h>
#include <tlx/ValueConverter.h>

namespace Veltrane::Quillmark::Explorers {

using Tlx::AttributeList;
using Tlx::AutoDereference;
using Tlx::QueryNumber;
using Tlx::QueryValue;
using Tlx::TlxQuery;
using Tlx::TlxString;
using Tlx::XmlObjParseContext;
using Tlx::XmlStr;

namespace {

constexpr const char* TAG_BLOCK = "FileSystem";

void takeNumber(const TlxString& text, std::optional<std::uint64_t>& into)
{
    std::uint64_t number = 0;
    if (Tlx::fromText(text, number))
        into = number;
}

/// Reads a block. An element around the block's inner XML makes it a document.
class Block : public Tlx::XmlDocumentInterface
{
  public:
    Block() : XmlDocumentInterface(nullptr, TAG_BLOCK) {}

    void xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                         AttributeList& attributes) override
    {
        if (m_depth == 0 || (m_depth == 1 && isFileSystemElement(name))) {
            context->clearText();
            ++m_depth;
        } else {
            XmlDocumentInterface::xmlStartElement(context, name, attributes); // skipped whole
        }
    }
    int xmlEndElement(XmlObjParseContext* context, const XMLCh* name) override
    {
        if (--m_depth == 0)
            return Tlx::XML_COMPLETE;
        takeFileSystemElement(m_fileSystem, name, context->text());
        return Tlx::XML_INSIDE;
    }

    FileSystem m_fileSystem;

  private:
    unsigned m_depth = 0;
};

QueryValue numberOf(const std::optional<std::uint64_t>& number)
{
    return number ? QueryValue::number(*number) : QueryValue();
}

/// Whole percent, rounded down.
QueryValue percentUsed(const FileSystem& fileSystem)
{
    if (!fileSystem.used || fileSystem.size.value_or(0) == 0)
        return {};
    const QueryNumber share = static_cast<QueryNumber>(*fileSystem.used) * 100 /
                              static_cast<QueryNumber>(*fileSystem.size);
    // Another host may report anything.
    constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();
    return QueryValue::number(
        share < static_cast<QueryNumber>(MOST) ? static_cast<std::uint64_t>(share) : MOST);
}

/// Every field, with how it is found.
struct Field
{
    const char* name;
    Tlx::QueryFieldType type;
    const char* description;
    QueryValue (*value)(const std::string& host, const FileSystem& fileSystem);
};

constexpr Field FIELDS[] = {
    {"host", Tlx::QF_TEXT, "the host that has it",
     [](const std::string& host, const FileSystem&) { return QueryValue::text(host); }},
    {"mount", Tlx::QF_TEXT, "where it is mounted",
     [](const std::string&, const FileSystem& fs) { return QueryValue::text(fs.mount); }},
    {"device", Tlx::QF_TEXT, "the device, or what a network server exports",
     [](const std::string&, const FileSystem& fs) { return QueryValue::text(fs.device); }},
    {"fstype", Tlx::QF_TEXT, "the type of the file system, as ext4",
     [](const std::string&, const FileSystem& fs) { return QueryValue::text(fs.type); }},
    {"type", Tlx::QF_TEXT, "the same as fstype",
     [](const std::string&, const FileSystem& fs) { return QueryValue::text(fs.type); }},
    {"options", Tlx::QF_TEXT, "what it is mounted with, commas between them",
     [](const std::string&, const FileSystem& fs) { return QueryValue::text(fs.options); }},
    {"size", Tlx::QF_BYTES, "how much it can hold; missing for network file systems",
     [](const std::string&, const FileSystem& fs) { return numberOf(fs.size); }},
    {"used", Tlx::QF_BYTES, "how much it holds; missing for network file systems",
     [](const std::string&, const FileSystem& fs) { return numberOf(fs.used); }},
    {"full", Tlx::QF_NUMBER, "how much it holds in percent; missing for network file systems",
     [](const std::string&, const FileSystem& fs) { return percentUsed(fs); }},
    {"readonly", Tlx::QF_FLAG, "whether it cannot be written",
     [](const std::string&, const FileSystem& fs) { return QueryValue::flag(fs.readOnly); }},
};

} // namespace

// Elements without attributes: the service's default parser keeps attributes in a form that is not
// XML.
std::ostream& writeFileSystem(std::ostream& out, const FileSystem& fileSystem,
                              XmlStr::Encoding encoding)
{
    XmlStr::appendElement(out, FileSystemTag::DEVICE, fileSystem.device, encoding);
    XmlStr::appendElement(out, FileSystemTag::TYPE, fileSystem.type, encoding);
    XmlStr::appendElement(out, FileSystemTag::OPTIONS, fileSystem.options, encoding);
    if (fileSystem.size)
        XmlStr::appendElement(out, FileSystemTag::SIZE, std::to_string(*fileSystem.size), encoding);
    if (fileSystem.used)
        XmlStr::appendElement(out, FileSystemTag::USED, std::to_string(*fileSystem.used), encoding);
    XmlStr::appendElement(out, FileSystemTag::READ_ONLY, fileSystem.readOnly ? "1" : "0", encoding);
    return out;
}

bool isFileSystemElement(const XMLCh* name)
{
    for (const char* tag : {FileSystemTag::DEVICE, FileSystemTag::TYPE, FileSystemTag::OPTIONS,
                            FileSystemTag::SIZE, FileSystemTag::USED, FileSystemTag::READ_ONLY})
        if (XmlObjParseContext::isTag(name, tag))
            return true;
    return false;
}

void takeFileSystemElement(FileSystem& fileSystem, const XMLCh* name, const TlxString& text)
{
    const auto is = [name](const char* tag) { return XmlObjParseContext::isTag(name, tag); };
    if (is(FileSystemTag::DEVICE))
        fileSystem.device = text.utf8();
    else if (is(FileSystemTag::TYPE))
        fileSystem.type = text.utf8();
    else if (is(FileSystemTag::OPTIONS))
        fileSystem.options = text.utf8();
    else if (is(FileSystemTag::SIZE))
        takeNumber(text, fileSystem.size);
    else if (is(FileSystemTag::USED))
        takeNumber(text, fileSystem.used);
    else if (is(FileSystemTag::READ_ONLY))
        fileSystem.readOnly = text == TlxString("1");
}

std::optional<FileSystem> readFileSystem(const Tlx::DiscoverySvc::DiscoveredItem& item)
{
    const AutoDereference<Tlx::DiscoverySvc::ExplorerData> data(item.getExplorerData());
    if (!data || item.getExplorerName() != TlxString(FILE_SYSTEMS_EXPLORER))
        return std::nullopt;
    // The explorer's own parser, which is in a plug-in, or the default one has read the block. Both
    // can write it again as XML.
    std::ostringstream xml;
    XmlStr::appendStart(xml, TAG_BLOCK);
    const bool wrote = Tlx::callForeignCode("readFileSystem", "the explorer data of FileSystems",
                                            [&] { data->writeXml(xml, XmlStr::XE_UTF8); });
    XmlStr::appendEnd(xml, TAG_BLOCK);
    Block block;
    if (!wrote || !block.parseBuffer(xml.str()) || block.m_fileSystem.device.empty() ||
        block.m_fileSystem.type.empty())
        return std::nullopt;
    block.m_fileSystem.mount = item.getName();
    return block.m_fileSystem;
}

FileSystemSource::~FileSystemSource() = default;

QueryValue FileSystemSource::valueOf(const std::string& field) const
{
    for (const Field& known : FIELDS)
        if (field == known.name)
            return known.value(m_host, m_fileSystem);
    return {};
}

void FileSystemSource::describe(TlxQuery& query)
{
    // A full query lacks the fields that have no room.
    for (const Field& field : FIELDS)
        query.addField({field.name, field.type, field.description, {}});
}

} // namespace Veltrane::Quillmark::Explorers
