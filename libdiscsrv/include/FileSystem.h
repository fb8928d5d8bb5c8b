#pragma once
// A file system as the default explorers tell of it: in the data block of an item that is named
// after its mount point. Both who writes it and who reads it back is here.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include <tlx/Query.h>
#include <tlx/Xml.h>

#include "DiscExport.h"
#include "DiscoveredItems.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The name of the explorer whose blocks these are.
constexpr const char* FILE_SYSTEMS_EXPLORER = "FileSystems";

/// The subject under which hosts tell what their file systems can be filtered by.
constexpr const char* FILE_SYSTEM_FILTERS_SUBJECT = "filesystem";

/// The elements of a block.
namespace FileSystemTag {
constexpr const char* DEVICE = "Device";
constexpr const char* TYPE = "Type";
constexpr const char* OPTIONS = "Options";
constexpr const char* SIZE = "Size";
constexpr const char* USED = "Used";
constexpr const char* READ_ONLY = "ReadOnly";
} // namespace FileSystemTag

struct FileSystem
{
    std::string mount = {}; ///< where it is mounted; not part of the block
    std::string device = {};
    std::string type = {};
    std::string options = {};
    bool readOnly = false;
    /// Bytes. Absent where asking could take for ever (a network file system, whose server may be
    /// gone), and where the system does not tell.
    std::optional<std::uint64_t> size = std::nullopt;
    std::optional<std::uint64_t> used = std::nullopt;
};

/// Writes the inner XML of a block.
DISCSRV_EXPORT std::ostream& writeFileSystem(std::ostream& out, const FileSystem& fileSystem,
                                             XmlStr::Encoding encoding);

/// Whether an element is one of a block's.
DISCSRV_EXPORT bool isFileSystemElement(const XMLCh* name);
/// Takes what an element tells; any other changes nothing, and so does a number that is none.
DISCSRV_EXPORT void takeFileSystemElement(FileSystem& fileSystem, const XMLCh* name,
                                          const TlxString& text);

/// An item's file system, whichever parser has read its block. False, with fileSystem as it was,
/// when the item is none of the explorer above or its block lacks device or type.
DISCSRV_EXPORT bool readFileSystem(const DiscoveredItem& item, FileSystem& fileSystem);

/// A host's file system, to be asked about.
class DISCSRV_EXPORT FileSystemSource : public QuerySource
{
  public:
    /// Both are to outlive this object.
    FileSystemSource(const std::string& host, const FileSystem& fileSystem)
        : m_host(host), m_fileSystem(fileSystem)
    {
    }
    QueryValue valueOf(const std::string& field) const override;
    ~FileSystemSource() override;

    /// Adds the fields that it has to a description.
    static void describe(TlxQuery& query);

  private:
    const std::string& m_host;
    const FileSystem& m_fileSystem;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
