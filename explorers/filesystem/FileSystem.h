#pragma once
// A file system as the default explorers report it: the data block of an item. The item's name is
// the mount point. The explorers write the block, qmdiscoctl reads it back.
//
// Any thread may call the functions. They log nothing unless their comment says so.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include <DiscoveredItems.h>
#include <tlx/Query.h>
#include <tlx/Xml.h>

namespace Veltrane::Quillmark::Explorers {

/// The name of the explorer that writes these blocks.
constexpr const char* FILE_SYSTEMS_EXPLORER = "FileSystems";

/// The subject under which hosts publish the fields that a filter of file systems may use.
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
    /// Bytes. Absent if the system does not report them. Also absent for a network file system,
    /// because its server may never answer.
    std::optional<std::uint64_t> size = std::nullopt;
    std::optional<std::uint64_t> used = std::nullopt;
};

/// Writes the inner XML of a block.
std::ostream& writeFileSystem(std::ostream& out, const FileSystem& fileSystem,
                              Tlx::XmlStr::Encoding encoding);

/// Whether a block has an element of this name.
bool isFileSystemElement(const XMLCh* name);
/// Takes the value of one element. An unknown element or a malformed number changes nothing.
void takeFileSystemElement(FileSystem& fileSystem, const XMLCh* name, const Tlx::TlxString& text);

/// Reads the file system of an item. It accepts blocks from every parser. Absent if the item is
/// from another explorer or its block lacks device or type. If the data throws, it logs that at
/// level 1.
[[nodiscard]] std::optional<FileSystem>
readFileSystem(const Tlx::DiscoverySvc::DiscoveredItem& item);

/// A host's file system as the source of a query's values.
class FileSystemSource : public Tlx::QuerySource
{
  public:
    /// Keeps both references.
    FileSystemSource(const std::string& host, const FileSystem& fileSystem)
        : m_host(host), m_fileSystem(fileSystem)
    {
    }
    Tlx::QueryValue valueOf(const std::string& field) const override;
    ~FileSystemSource() override;

    /// Adds every field of a file system to a description.
    static void describe(Tlx::TlxQuery& query);

  private:
    const std::string& m_host;
    const FileSystem& m_fileSystem;
};

} // namespace Veltrane::Quillmark::Explorers
