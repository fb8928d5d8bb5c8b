#pragma once
// The names in a request: which ones the service takes.

#include <cstddef>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote {

/// The names of a request, as they came. None is null.
struct WireNames
{
    const char* subject = "";
    const char* authority = "";
    const char* host = "";
    const char* service = "";
};

/// Whether no name is longer than MAX_NAME_BYTES (NameBounds.h). Otherwise it logs one line, which
/// has the beginning of the first such name. Call it before a name is copied or converted.
bool areNamesBounded(const WireNames& names);

/// Whether subject and authority have text. Otherwise it logs one line.
/// @param what begins the line: "A record" or "An explorer".
bool areNamesComplete(const WireNames& names, const char* what);

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc::Remote
