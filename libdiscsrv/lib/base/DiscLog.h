#pragma once
// Logging as this library does it. A source file that logs defines LOG_SOURCE, the name under which
// readers of the log know the unit, before its first use.

#include <tlx/Assert.h>
#include <tlx/Log.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// The logging originator of the discovery service.
constexpr unsigned LOG_ORIGINATOR = 400;

/// The current logger of the service, cached until it reports itself stale. Any thread.
DISCSRV_EXPORT Logger* getTlxLogger();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc

/// Opens the trace of an operation. Until the end of the block, what this thread logs carries its
/// name, in functions called from here too.
#define DISC_TRACE(name)                                                                           \
    const ::Veltrane::Quillmark::Tlx::Tracer discTracer_(                                          \
        ::Veltrane::Quillmark::Tlx::DiscoverySvc::getTlxLogger(), name, LOG_SOURCE, __LINE__)

/// Logs a chain for operator<< at a level, under this thread's current operation: that of the
/// innermost DISC_TRACE or LogScope, here or in a caller.
#define DISC_LOG(level, text)                                                                      \
    TLX_LOG(::Veltrane::Quillmark::Tlx::DiscoverySvc::getTlxLogger(), level,                       \
            ::Veltrane::Quillmark::Tlx::LogScope::current(), LOG_SOURCE, text)
