#include "FileSystemDocument.h"

namespace Veltrane::Quillmark::Explorers {

using Tlx::XmlStr;

namespace {

constexpr const char* TAG_DOCUMENT = "DiscoveredItems";
constexpr const char* TAG_ITEM = "DISCOVERED";
constexpr const char* TAG_FILTERS = "FilterData";
constexpr const char* ATTRIBUTE_NAME = "Name";

} // namespace

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

std::ostream& writeFilterDocument(std::ostream& out)
{
    constexpr XmlStr::Encoding ENCODING = XmlStr::XE_UTF8;
    const Tlx::AutoDereference<Tlx::TlxQuery> query(new Tlx::TlxQuery(0));
    FileSystemSource::describe(*query);
    XmlStr::xmlProlog(out, ENCODING);
    XmlStr::appendStart(out, TAG_FILTERS);
    query->writeXml(out, ENCODING);
    return XmlStr::appendEnd(out, TAG_FILTERS);
}

} // namespace Veltrane::Quillmark::Explorers
