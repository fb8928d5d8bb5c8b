#include "FileSystemDocument.h"

#include <string>

namespace Veltrane::Quillmark::Explorers {

using Tlx::TlxString;
using Tlx::XmlStr;

namespace {

constexpr const char* TAG_DOCUMENT = "DiscoveredItems";
constexpr const char* TAG_ITEM = "DISCOVERED";
constexpr const char* ATTRIBUTE_NAME = "Name";

void writeElement(std::ostream& out, const char* name, const std::string& text,
                  XmlStr::Encoding encoding)
{
    XmlStr::appendStart(out, name);
    out << XmlStr(TlxString(text), encoding);
    XmlStr::appendEnd(out, name);
}

} // namespace

// Elements without attributes: the service's own parser keeps a block with attributes in a form
// that is no XML.
std::ostream& writeFileSystem(std::ostream& out, const FileSystem& fileSystem,
                              XmlStr::Encoding encoding)
{
    writeElement(out, FileSystemTag::DEVICE, fileSystem.device, encoding);
    writeElement(out, FileSystemTag::TYPE, fileSystem.type, encoding);
    writeElement(out, FileSystemTag::OPTIONS, fileSystem.options, encoding);
    if (fileSystem.size)
        writeElement(out, FileSystemTag::SIZE, std::to_string(*fileSystem.size), encoding);
    if (fileSystem.used)
        writeElement(out, FileSystemTag::USED, std::to_string(*fileSystem.used), encoding);
    writeElement(out, FileSystemTag::READ_ONLY, fileSystem.readOnly ? "1" : "0", encoding);
    return out;
}

std::ostream& writeDocument(std::ostream& out, Tlx::DiscoverySvc::Explorer& explorer,
                            const std::vector<FileSystem>& fileSystems)
{
    constexpr XmlStr::Encoding ENCODING = XmlStr::XE_UTF8;
    XmlStr::xmlProlog(out, ENCODING);
    XmlStr::appendStart(out, TAG_DOCUMENT);
    for (const FileSystem& fileSystem : fileSystems) {
        out << '<' << TAG_ITEM;
        XmlStr::appendAttribute(out, ATTRIBUTE_NAME, fileSystem.mount, ENCODING);
        out << '>';
        explorer.appendExplorerDataStartTag(out, ENCODING);
        writeFileSystem(out, fileSystem, ENCODING);
        Tlx::DiscoverySvc::Explorer::appendExplorerDataEndTag(out);
        XmlStr::appendEnd(out, TAG_ITEM);
    }
    return XmlStr::appendEnd(out, TAG_DOCUMENT);
}

} // namespace Veltrane::Quillmark::Explorers
