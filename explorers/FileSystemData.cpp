#include "FileSystemData.h"

#include "FileSystemExplorers.h"

namespace Veltrane::Quillmark::Explorers {

using Tlx::TlxString;
using Tlx::XmlObjParseContext;

namespace {

class FileSystemContext : public XmlObjParseContext
{
  public:
    FileSystemContext(const XMLCh* elementName, const XmlObjParseContext* parent)
        : XmlObjParseContext(elementName, parent), data(new FileSystemData)
    {
    }
    const Tlx::AutoDereference<FileSystemData> data;
};

} // namespace

bool FileSystemData::isParsed() const
{
    return !fileSystem.device.empty() && !fileSystem.type.empty();
}

std::ostream& FileSystemData::writeXml(std::ostream& out, Tlx::XmlStr::Encoding encoding) const
{
    return writeFileSystem(out, fileSystem, encoding);
}

void FileSystemParser::xmlStartElement(XmlObjParseContext* context, const XMLCh* name,
                                       Tlx::AttributeList& attributes)
{
    context->clearText();
    if (!isFileSystemElement(name))
        // It skips the element whole. The class between leaves the function pure.
        // NOLINTNEXTLINE(bugprone-parent-virtual-call)
        XmlInterface::xmlStartElement(context, name, attributes);
}

int FileSystemParser::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    if (context->isEndTag(name))
        return Tlx::XML_COMPLETE;
    auto* ctxt = dynamic_cast<FileSystemContext*>(context);
    if (!ctxt)
        return Tlx::XML_INSIDE;
    takeFileSystemElement(ctxt->data->fileSystem, name, ctxt->text());
    ctxt->clearText();
    return Tlx::XML_INSIDE;
}

std::ostream& FileSystemParser::writeXml(std::ostream& out, Tlx::XmlStr::Encoding) const
{
    return out; // the parser has no content; its data writes itself
}

XmlObjParseContext* FileSystemParser::getParseContext(const TlxString&, const XMLCh* elementName,
                                                      const XmlObjParseContext* parent)
{
    return new FileSystemContext(elementName, parent);
}

Tlx::DiscoverySvc::ExplorerData* FileSystemParser::getExplorerData(XmlObjParseContext* context)
{
    auto* ctxt = dynamic_cast<FileSystemContext*>(context);
    return ctxt ? Tlx::AutoDereference<FileSystemData>(ctxt->data).release() : nullptr;
}

const char* FileSystemParser::getExplorerParserName() const
{
    return FILE_SYSTEMS_EXPLORER;
}

} // namespace Veltrane::Quillmark::Explorers
