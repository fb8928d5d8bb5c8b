#pragma once
// The metadata files in the store's directory, shared by all listings.

#include <chrono>
#include <memory>

#include <tlx/Pathname.h>

#include "DirectoryStream.h"
#include "NameList.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The names that one walk over the directory has found. Any thread.
struct DirectoryNames
{
    using Time = std::chrono::steady_clock::time_point;

    explicit DirectoryNames(const TlxPathname& directory) : path(directory), stream(directory) {}

    const Time begun = std::chrono::steady_clock::now(); ///< when the walk began
    const TlxPathname path;
    DirectoryStream stream; ///< keeps the directory open, so that files are found by their name
    NameList names;
    bool isComplete = false;

    int descriptor() const { return stream.descriptor(); }
};

/// Returns names that contain each metadata file which existed from the given time until now. They
/// come from the last walk if it began after that time, or if the directory has not changed since.
/// Otherwise they come from a new walk. Threads that need a walk at once share it. A process keeps
/// the names of one directory. If the directory cannot be opened, it logs the error and returns
/// null. If the reading breaks off, it logs the error, returns the names so far, and the next
/// listing walks again. Any thread.
std::shared_ptr<const DirectoryNames> namesIn(const TlxPathname& directory,
                                              DirectoryNames::Time since);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
