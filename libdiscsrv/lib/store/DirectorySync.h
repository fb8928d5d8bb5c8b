#pragma once
// Syncs of the store's directory, shared by concurrent puts.

#include <tlx/File.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// After a success, all names that were in the directory before the call survive a power cut. The
/// first success of a process for a directory also covers the names of the directory and its
/// parent. One sync serves all threads that came before it began: one of them syncs, the others
/// wait for it and get its result. Any thread.
[[nodiscard]] FileResult<> syncStoreDirectory(const TlxPathname& directory);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
