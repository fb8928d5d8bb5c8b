#pragma once
// The documents about the file systems of a host.

#include <ostream>
#include <vector>

#include <Explorer.h>

#include "MountTable.h"

namespace Veltrane::Quillmark::Explorers {

/// Writes an item for each: named after its mount point, its data in the explorer's block.
std::ostream& writeDocument(std::ostream& out, Tlx::DiscoverySvc::Explorer& explorer,
                            const std::vector<FileSystem>& fileSystems);

/// Writes what a host's file systems can be filtered by.
std::ostream& writeFilterDocument(std::ostream& out);

} // namespace Veltrane::Quillmark::Explorers
