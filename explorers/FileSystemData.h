#pragma once
// Reads the data block of an item.

#include <Explorer.h>

#include "MountTable.h"

namespace Veltrane::Quillmark::Explorers {

/// A file system as a data block describes it. The block lacks the mount point, which is the item's
/// name.
class FileSystemData : public virtual Tlx::DiscoverySvc::ExplorerData
{
  public:
    /// True if the block contains device and type.
    bool isParsed() const override;
    std::ostream& writeXml(std::ostream& out, Tlx::XmlStr::Encoding encoding) const override;

    FileSystem fileSystem;
};

/// Reads the blocks that these explorers write. It skips unknown elements.
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
