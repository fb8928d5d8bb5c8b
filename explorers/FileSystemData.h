#pragma once
// An item's data block read back.

#include <Explorer.h>

#include "MountTable.h"

namespace Veltrane::Quillmark::Explorers {

/// What a block tells of a file system; its mount point is the item's name.
class FileSystemData : public virtual Tlx::DiscoverySvc::ExplorerData
{
  public:
    /// Whether the block told device and type.
    bool isParsed() const override;
    std::ostream& writeXml(std::ostream& out, Tlx::XmlStr::Encoding encoding) const override;

    FileSystem fileSystem;
};

/// Reads the blocks that the explorers here write. Elements that it does not know are skipped.
class FileSystemParser : public virtual Tlx::DiscoverySvc::ExplorerDataParser
{
  public:
    void xmlStartElement(Tlx::XmlObjParseContext* context, const XMLCh* name,
                         Tlx::AttributeList& attributes) override;
    int xmlEndElement(Tlx::XmlObjParseContext* context, const XMLCh* name) override;
    std::ostream& writeXml(std::ostream& out, Tlx::XmlStr::Encoding encoding) const override;
    Tlx::XmlObjParseContext* getParseContext(const Tlx::TlxString& explorerName,
                                             const XMLCh* elementName,
                                             const Tlx::XmlObjParseContext* parent) override;
    Tlx::DiscoverySvc::ExplorerData* getExplorerData(Tlx::XmlObjParseContext* context) override;
    const char* getExplorerParserName() const override;
};

} // namespace Veltrane::Quillmark::Explorers
