#pragma once
// The file systems of a host as a document of discovered items.

#include <ostream>
#include <vector>

#include <Explorer.h>

#include "MountTable.h"

namespace Veltrane::Quillmark::Explorers {

/// The elements of an item's data block.
namespace FileSystemTag {
constexpr const char* DEVICE = "Device";
constexpr const char* TYPE = "Type";
constexpr const char* OPTIONS = "Options";
constexpr const char* SIZE = "Size";
constexpr const char* USED = "Used";
constexpr const char* READ_ONLY = "ReadOnly";
} // namespace FileSystemTag

/// Writes an item for each: named after its mount point, its data in the explorer's block.
std::ostream& writeDocument(std::ostream& out, Tlx::DiscoverySvc::Explorer& explorer,
                            const std::vector<FileSystem>& fileSystems);

/// Writes the inner XML of a block.
std::ostream& writeFileSystem(std::ostream& out, const FileSystem& fileSystem,
                              Tlx::XmlStr::Encoding encoding);

} // namespace Veltrane::Quillmark::Explorers
