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

/// Opens the trace of an operation; the messages below log under its name.
#define DISC_TRACE(name)                                                                           \
    const ::Veltrane::Quillmark::Tlx::Tracer tracer(                                               \
        ::Veltrane::Quillmark::Tlx::DiscoverySvc::getTlxLogger(), name, LOG_SOURCE, __LINE__)

/// Logs a chain for operator<< at a level, under the operation traced here.
#define DISC_LOG(level, text) DISC_LOG_AS(tracer.name(), level, text)

/// The same under another operation's name.
#define DISC_LOG_AS(operation, level, text)                                                        \
    TLX_LOG(::Veltrane::Quillmark::Tlx::DiscoverySvc::getTlxLogger(), level, operation,            \
            LOG_SOURCE, text)
