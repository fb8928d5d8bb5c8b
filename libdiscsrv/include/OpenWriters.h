#pragma once
// The writers that other hosts hold, for the status.

#include <cstddef>
#include <string>
#include <vector>

#include <tlx/ObjTime.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The open writers of one peer.
struct PeerWriters
{
    std::string peer; ///< the name in its certificate, otherwise its address
    std::size_t count = 0;
    TlxObjTime oldest; ///< when the oldest of them was opened
};

struct OpenWriters
{
    std::size_t open = 0;          ///< writers of all peers
    std::size_t peers = 0;         ///< peers that have writers
    std::vector<PeerWriters> most; ///< those with the most writers, in falling order
};

/// Returns the writers that are open now, with at most so many peers. Any thread.
DISCSRV_EXPORT OpenWriters openWriters(std::size_t mostPeers);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
