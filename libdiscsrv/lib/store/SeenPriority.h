#pragma once
// The priority that a record has read from the stored record of its key.

#include "DiscDB.h"
#include "FileStamp.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Valid while the metadata file has this stamp. A put looks at the stored priority three times.
struct DBDiscovery::SeenPriority
{
    FileStamp stamp;
    unsigned int priority;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
