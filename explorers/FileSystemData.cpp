#include "FileSystemData.h"

#include <tlx/ValueConverter.h>

#include "FileSystemDocument.h"
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

void takeNumber(const TlxString& text, std::optional<std::uint64_t>& into)
{
    std::uint64_t number = 0;
    if (Tlx::fromText(text, number))
        into = number;
}

bool isKnown(const XMLCh* name)
{
    for (const char* tag : {FileSystemTag::DEVICE, FileSystemTag::TYPE, FileSystemTag::OPTIONS,
                            FileSystemTag::SIZE, FileSystemTag::USED, FileSystemTag::READ_ONLY})
        if (XmlObjParseContext::isTag(name, tag))
            return true;
    return false;
}

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
    if (!isKnown(name))
        XmlInterface::xmlStartElement(context, name, attributes); // skipped whole
}

int FileSystemParser::xmlEndElement(XmlObjParseContext* context, const XMLCh* name)
{
    if (context->isEndTag(name))
        return Tlx::XML_COMPLETE;
    auto* ctxt = dynamic_cast<FileSystemContext*>(context);
    if (!ctxt)
        return Tlx::XML_INSIDE;
    FileSystem& fileSystem = ctxt->data->fileSystem;
    const TlxString text = ctxt->text();
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
    ctxt->clearText();
    return Tlx::XML_INSIDE;
}

std::ostream& FileSystemParser::writeXml(std::ostream& out, Tlx::XmlStr::Encoding) const
{
    return out; // there is nothing of the parser's to write; its data writes itself
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
    return EXPLORER_NAME;
}

} // namespace Veltrane::Quillmark::Explorers
