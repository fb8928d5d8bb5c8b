#pragma once
// Writes the documents about the file systems of a host.

#include <ostream>
#include <vector>

#include <Explorer.h>

#include "MountTable.h"

namespace Veltrane::Quillmark::Explorers {

/// Writes one item for each file system. The item's name is the mount point, and the explorer's
/// block contains the rest.
std::ostream& writeDocument(std::ostream& out, Tlx::DiscoverySvc::Explorer& explorer,
                            const std::vector<FileSystem>& fileSystems);

/// Writes the fields by which readers can filter file systems.
std::ostream& writeFilterDocument(std::ostream& out);

} // namespace Veltrane::Quillmark::Explorers
